#include "BraidConn.h"
#include "support.h"

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

}  // namespace
