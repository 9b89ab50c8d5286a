#include "common/CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/Program.h"

namespace common {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

/// A program with an option of each kind, run in this process.
class CommandLineTest : public testing::Test {
 protected:
  CommandLineTest() {
    Option file = _line.Add("FILE", _file, "The file").Required();
    _line.Add("-n,--number", _number, "A number").InRange(1, 9).ShowDefault();
    _line.Add("--share", _share, "A share").InRange(0.0, 1.0);
    _line.Add("--kind", _kind, "A kind").OneOf({"one", "two"});
    _line.Add("--size", _size, "A size").Check([](const std::string& text) {
      return text == "big" ? "is too big" : "";
    });
    _line.Add("--from", _from, "A file").ExistingFile();
    _line.Add("--list", _list, "Words");
    Option loud =
        _line.AddFlag("--loud", _is_loud, "Loud").Excludes(_line.Add("--seed", _seed, ""));
    _line.Add("--jobs", _jobs, "Jobs").Needs(loud);
    _line.SetFooter("The end.");
    _line.SetWork([this, file] {
      EXPECT_TRUE(file.IsGiven());
      ++_runs;
      if (_file == "wrong") throw UsageError("FILE", "is wrong");
      if (_file == "missing") throw std::runtime_error("no\x1b such\nfile");
      return 5;
    });
  }

  int Run(std::vector<std::string> words, const Program& program = {.name = "tried"}) {
    words.insert(words.begin(), "/path/of/tried");
    std::vector<char*> argv;
    argv.reserve(words.size());
    for (std::string& word : words) argv.push_back(word.data());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = RunProgram(program, _line, static_cast<int>(argv.size()), argv.data());
    _output = testing::internal::GetCapturedStdout();
    _errors = testing::internal::GetCapturedStderr();
    return status;
  }

  CommandLine _line{"Tries command lines.", "tried"};
  int _runs = 0;
  std::string _output;
  std::string _errors;
  std::string _file;
  int _number = 3;
  double _share = 0;
  std::string _kind;
  std::optional<std::string> _size;
  std::string _from;
  std::vector<std::string> _list;
  bool _is_loud = false;
  std::uint64_t _seed = 0;
  unsigned _jobs = 0;
};

TEST_F(CommandLineTest, ValuesAreReadAndTheWorksStatusReturned) {
  EXPECT_EQ(Run({"a file", "-n", "9", "--share=0.5", "--kind", "two", "--size", "small", "--loud",
                 "--jobs", "4", "--list", "x", "--list", "y"}),
            5);
  EXPECT_EQ(_file, "a file");
  EXPECT_EQ(_number, 9);
  EXPECT_EQ(_share, 0.5);
  EXPECT_EQ(_kind, "two");
  EXPECT_EQ(_size, "small");
  EXPECT_THAT(_list, ElementsAre("x", "y"));
  EXPECT_TRUE(_is_loud);
  EXPECT_EQ(_jobs, 4u);
  EXPECT_EQ(_output + _errors, "");
}

TEST_F(CommandLineTest, EqualsSignsAreTakenWhereTheyAreAccepted) {
  std::string from;
  std::string to;
  _line.Add("-f", from, "From");
  _line.Add("-t", to, "To");
  _line.AcceptEquals({"-n", "-f"});
  EXPECT_EQ(Run({"file", "-n=9", "-f=-a=b", "-t=c"}), 5);
  EXPECT_EQ(_number, 9);
  EXPECT_EQ(from, "-a=b");
  EXPECT_EQ(to, "=c");  // as the parser does it
  EXPECT_EQ(Run({"-f=", "file"}), USAGE);
  EXPECT_EQ(_errors, "-f: no value after the equals sign\nRun with --help for more information.\n");
}

TEST_F(CommandLineTest, WhatIsNotGivenKeepsItsValue) {
  EXPECT_EQ(Run({"file"}), 5);
  EXPECT_EQ(_number, 3);
  EXPECT_EQ(_size, std::nullopt);
  EXPECT_FALSE(_is_loud);
}

TEST_F(CommandLineTest, WrongLineDoesNoWork) {
  const std::pair<std::vector<std::string>, const char*> lines[] = {
      {{}, "FILE is required"},
      {{"f", "-n", "0"}, "Value 0 not in range 1 to 9"},
      {{"f", "--seed", "x"}, "Could not convert: --seed = x"},
      {{"f", "--share", "2"}, "--share: Value 2 not in range"},
      {{"f", "--kind", "three"}, "three not in {one,two}"},
      {{"f", "--size", "big"}, "--size: is too big"},
      {{"f", "--from", "/nonexistent"}, "File does not exist: /nonexistent"},
      {{"f", "--loud", "--seed", "1"}, "excludes"},
      {{"f", "--jobs", "1"}, "--jobs requires --loud"},
      {{"f", "--unknown"}, "The following argument was not expected: --unknown"},
      {{"f", "second"}, "second"},
  };
  for (const auto& [words, text] : lines) {
    EXPECT_EQ(Run(words), USAGE) << text;
    EXPECT_THAT(_errors, HasSubstr(text));
    EXPECT_THAT(_errors, HasSubstr("Run with --help for more information.\n"));
  }
  EXPECT_EQ(_runs, 0);
}

TEST_F(CommandLineTest, HelpTellsOfAllAndDoesNoWork) {
  EXPECT_EQ(Run({"--help"}), ALL_WELL);
  EXPECT_THAT(_output, StartsWith("Tries command lines.\nUsage: tried [OPTIONS] FILE\n"));
  EXPECT_THAT(_output, HasSubstr("-n,--number INT:INT in [1 - 9]=3"));
  EXPECT_THAT(_output, HasSubstr("The end.\n"));
  EXPECT_EQ(Run({"--version"}), ALL_WELL);
  EXPECT_EQ(_output, "tried " + Version() + "\n");
  EXPECT_EQ(_runs, 0);
}

TEST_F(CommandLineTest, WorkMayRefuseTheLine) {
  EXPECT_EQ(Run({"wrong"}), USAGE);
  EXPECT_EQ(_errors, "FILE: is wrong\nRun with --help for more information.\n");
}

TEST_F(CommandLineTest, WorkThatCannotBeDoneIsTold) {
  EXPECT_EQ(Run({"missing"}), CANNOT);
  EXPECT_EQ(_errors, "tried: no\\x1b such\nfile\n");
  EXPECT_EQ(Run({"missing"}, {.name = "other", .failure = 1, .is_verbatim = true}), 1);
  EXPECT_EQ(_errors, "other: no\x1b such\nfile\n");
}

TEST(CommandLineCommandsTest, WorkIsThatOfTheCommandGiven) {
  CommandLine line("Has commands.");
  std::string word;
  bool is_flag = false;
  CommandLine& first = line.AddCommand("first", "The first");
  first.Add("WORD", word, "A word");
  first.SetWork([] { return 1; });
  CommandLine& second = line.AddCommand("second", "The second");
  second.AddFlag("--flag", is_flag, "A flag");
  second.SetWork([] { return 2; });
  const auto parse = [&line](std::vector<const char*> words) {
    words.insert(words.begin(), "./program");
    testing::internal::CaptureStderr();
    CommandLine::Parsed parsed = line.Parse(static_cast<int>(words.size()), words.data(), "1");
    testing::internal::GetCapturedStderr();
    return parsed;
  };
  EXPECT_EQ(parse({"first", "x"}).work(), 1);
  EXPECT_EQ(word, "x");
  EXPECT_EQ(parse({"second", "--flag"}).work(), 2);
  EXPECT_TRUE(is_flag);
  for (const auto& words : {std::vector<const char*>{}, {"third"}, {"first", "--flag"}}) {
    const CommandLine::Parsed parsed = parse(words);
    EXPECT_TRUE(parsed.is_wrong);
    EXPECT_FALSE(parsed.work);
  }
}

}  // namespace
}  // namespace common
