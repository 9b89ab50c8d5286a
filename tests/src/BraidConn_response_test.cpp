#include <set>

#include "src/BraidConn.h"
#include "tests/support/support.h"

namespace {

using BraidConn::Response;

std::vector<std::string> Elements(const std::string& text) {
  std::vector<std::string> elements;
  for (const Response& element : Response(text).TclSplit()) elements.push_back(element);
  return elements;
}

using Texts = std::vector<std::string>;

TEST(ResponseTest, AnswerIsAnErrorByItsFirstLetters) {
  EXPECT_FALSE(Response("ACK").GotErr());
  EXPECT_FALSE(Response("").GotErr());
  EXPECT_FALSE(Response("ACK ERROR").GotErr());
  EXPECT_FALSE(Response("error").GotErr());
  EXPECT_FALSE(Response(" ERROR").GotErr());
  EXPECT_TRUE(Response("ERROR").GotErr());
  EXPECT_TRUE(Response("ERRORS").GotErr());
  EXPECT_TRUE(Response("ERROR:x").GotErr());
  EXPECT_TRUE(Response("TARGET_ERROR").GotErr());
  EXPECT_TRUE(Response("TARGET_ERROR:x").GotErr());
}

TEST(ResponseTest, StringCanBeAssignedToIt) {
  Response response("ERROR:gone");
  response = std::string("ACK");
  EXPECT_EQ(response, "ACK");
  EXPECT_FALSE(response.GotErr());
  const std::string text = "ERROR:1:gone";
  response = text;
  EXPECT_EQ(response.Error(), "gone");
  response = "a {b c}";
  EXPECT_EQ(response.TclSplit().size(), 2u);
  const Response copy = response;
  response = Response("ACK");
  EXPECT_EQ(response, "ACK");
  EXPECT_EQ(copy, "a {b c}");
  response = {};
  EXPECT_TRUE(response.empty());
}

TEST(ResponseTest, DescriptionIsTheLastField) {
  EXPECT_EQ(Response("ERROR:0x1234:No such device").Error(), "No such device");
  EXPECT_EQ(Response("ERROR:bad request").Error(), "bad request");
  EXPECT_EQ(Response("TARGET_ERROR:0x12:gone").Error(), "gone");
}

TEST(ResponseTest, DescriptionKeepsItsColons) {
  EXPECT_EQ(Response("ERROR:1:a:b").Error(), "a:b");
  EXPECT_EQ(Response("ERROR:1:a:b:c").Error(), "a:b:c");
}

TEST(ResponseTest, EmptyFieldsOfAnErrorAreDropped) {
  EXPECT_EQ(Response("ERROR::x").Error(), "x");
  EXPECT_EQ(Response("ERROR:1:a::b").Error(), "a:b");
}

TEST(ResponseTest, ErrorWithoutFieldsIsDescribedByItsWholeText) {
  EXPECT_EQ(Response("ERROR").Error(), "ERROR");
  EXPECT_EQ(Response("TARGET_ERROR").Error(), "TARGET_ERROR");
  EXPECT_EQ(Response("ERRORS galore").Error(), "ERRORS galore");
}

TEST(ResponseTest, AnswerThatIsNoErrorHasNoDescription) {
  EXPECT_EQ(Response("ACK 1").Error(),
            "*** Error dexcription can't be extracted from response: ACK 1");
}

TEST(ResponseTest, ListIsSplitAtWhiteSpace) {
  EXPECT_EQ(Elements("a b  c"), (Texts{"a", "b", "c"}));
  EXPECT_EQ(Elements(" \t a\nb\v\f\rc "), (Texts{"a", "b", "c"}));
  EXPECT_EQ(Elements(""), Texts{});
  EXPECT_EQ(Elements(" \t\n"), Texts{});
}

TEST(ResponseTest, BracesHoldAnElementTogether) {
  EXPECT_EQ(Elements("{a b} c"), (Texts{"a b", "c"}));
  EXPECT_EQ(Elements("{a {b c}} {}"), (Texts{"a {b c}", ""}));
  EXPECT_EQ(Elements("{ a }"), (Texts{" a "}));
}

TEST(ResponseTest, ElementMayFollowAClosingBraceAtOnce) {
  EXPECT_EQ(Elements("{a}b"), (Texts{"a", "b"}));
  EXPECT_EQ(Elements("{a}{b}c"), (Texts{"a", "b", "c"}));
}

TEST(ResponseTest, QuotesAndBackslashesMeanNothing) {
  EXPECT_EQ(Elements("\"a b\" \\"), (Texts{"\"a", "b\"", "\\"}));
  EXPECT_EQ(Elements("{\\}"), (Texts{"\\"}));
}

TEST(ResponseTest, BraceInsideAWordIsRefused) {
  EXPECT_EQ(ErrorOf([] { Response("ab{c}").TclSplit(); }),
            "Response::TclSplit(): Can't parse 'ab{c}' : '{' without a preceder white space at "
            "char 2.");
}

TEST(ResponseTest, UnbalancedBracesAreRefused) {
  EXPECT_EQ(ErrorOf([] { Response("{a b").TclSplit(); }),
            "Response::TclSplit(): Can't parse '{a b' : Unbalanced starts (1) and ends (0) .");
  EXPECT_EQ(ErrorOf([] { Response("a {b {c}").TclSplit(); }),
            "Response::TclSplit(): Can't parse 'a {b {c}' : Unbalanced starts (2) and ends (1) .");
}

TEST(ResponseTest, ClosingBraceTooManySwallowsTheRest) {
  EXPECT_EQ(Elements("a }"), (Texts{"a"}));
  EXPECT_EQ(Elements("a } b c"), (Texts{"a"}));
  EXPECT_EQ(Elements("a} b c"), (Texts{"a} b c"}));
  EXPECT_EQ(Elements("} b {c d"), (Texts{"c", "d"}));  // the opening brace makes it even again
}

TEST(ResponseTest, ElementsCanBeSplitAgain) {
  const auto elements = Response("{ACK {data 0x1}}").TclSplit();
  ASSERT_EQ(elements.size(), 1u);
  const auto words = elements[0].TclSplit();
  ASSERT_EQ(words.size(), 2u);
  EXPECT_EQ(words[0], "ACK");
  EXPECT_EQ(words[1], "data 0x1");
}

/// The list's syntax as it is defined: starts and ends gathered apart and then matched.
std::string SplitByDefinition(const std::string& text) {
  std::vector<std::size_t> starts;
  std::vector<std::size_t> ends;
  u_int32_t depth = 0;
  bool in_word = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool is_blank = std::string_view(" \t\n\v\f\r").find(text[i]) != std::string::npos;
    if (text[i] == '{') {
      if (in_word) return Text("brace in word at ", i);
      if (depth == 0) starts.push_back(i + 1);
      ++depth;
    } else if (text[i] == '}') {
      --depth;
      if (depth == 0) ends.push_back(i);
    } else if (depth == 0 && in_word && is_blank) {
      ends.push_back(i);
      in_word = false;
    } else if (depth == 0 && !in_word && !is_blank) {
      starts.push_back(i);
      in_word = true;
    }
  }
  if (starts.size() == ends.size() + 1 && in_word) ends.push_back(text.size());
  if (starts.size() != ends.size()) return Text(starts.size(), " starts, ", ends.size(), " ends");
  std::string result;
  for (std::size_t i = 0; i < starts.size(); ++i) {
    result += "[" + text.substr(starts[i], ends[i] - starts[i]) + "]";
  }
  return result;
}

std::string SplitBy(const std::string& text) {
  std::string result;
  const std::string error = ErrorOf([&] {
    for (const Response& element : Response(text).TclSplit()) result += "[" + element + "]";
  });
  if (error == "(no error)") return result;
  std::size_t at = error.rfind("at char ");
  if (at != std::string::npos) {
    return "brace in word at " + error.substr(at + 8, error.size() - at - 9);
  }
  at = error.rfind("(", error.rfind("and"));
  const std::size_t ends = error.rfind("(");
  return error.substr(at + 1, error.find(')', at) - at - 1) + " starts, " +
         error.substr(ends + 1, error.find(')', ends) - ends - 1) + " ends";
}

TEST(ResponseTest, RandomTextsAreSplitAsTheSyntaxIsDefined) {
  const unsigned seed = 33;
  SCOPED_TRACE(seed);
  TestRng rng(seed);
  std::set<char> kinds;
  for (int i = 0; i < 200000; ++i) {
    std::string text;
    for (std::size_t length = rng() % 12; text.size() < length;) {
      text += "{{}} \t\nabc"[rng() % 11];
    }
    const std::string expected = SplitByDefinition(text);
    ASSERT_EQ(SplitBy(text), expected) << text;
    kinds.insert(expected.empty() ? ' ' : expected.front());
  }
  EXPECT_GE(kinds.size(), 4u);  // lists, nothing, and both errors
}

}  // namespace
