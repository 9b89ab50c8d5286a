#include "report/SeriesLog.h"

#include <random>
#include <stdexcept>

#include "tests/support/consoles.h"
#include "tests/support/support.h"

namespace report {
namespace {

using testing::HasSubstr;

const std::string GOOD =
    std::string(PREAMBLE) + GENERIC + "\r\\ Burning  - OK \n-I- BURN SUCCEEDED\n";
const std::string BAD = std::string(PREAMBLE) + GENERIC + "\r-E- BURN FAILED:ALL:gone\n";

/// Three burns, of the devices 10 to 19, 20 to 29 and 30 to 39.
std::string Mark(std::size_t number, std::size_t burns = 3) {
  return ToLine({number, burns, 10, number * 10, number * 10 + 9}) + "\n";
}

std::set<Guid> Devices(Guid from, Guid to) {
  std::set<Guid> devices;
  while (from < to) devices.insert(from++);
  return devices;
}

const std::set<Guid> ASKED = Devices(10, 40);

std::vector<SavedBurn> Divide(std::string_view console, std::size_t piece = 7) {
  std::vector<SavedBurn> saved(1);
  MarkFinder finder([&](std::string_view text) { saved.back().log.Feed(text); },
                    [&](const BurnMark& mark) {
                      saved.push_back({mark, {}});
                    });
  for (std::size_t at = 0; at < console.size(); at += piece) finder.Feed(console.substr(at, piece));
  finder.Finish();
  return saved;
}

SeriesReport Judge(std::string_view console, const std::set<Guid>& asked = ASKED,
                   std::size_t planned = 3) {
  std::vector<SavedBurn> saved = Divide(console);
  return JudgeSavedBurns(saved, asked, planned);
}

std::string Refusal(std::string_view console, const std::set<Guid>& asked = ASKED,
                    std::size_t planned = 3) {
  try {
    Judge(console, asked, planned);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

TEST(SeriesLogTest, MarkIsReadAsItWasWrittenAndNothingElseIsOne) {
  const std::string line =
      "fwpush-report: burn 2 of 3: 7000 devices, 0x0000000000000010 to "
      "0x00aa550000001000";
  EXPECT_EQ(ToLine({2, 3, 7000, 0x10, 0xAA550000001000}), line);
  const auto mark = ReadMark(line);
  ASSERT_TRUE(mark);
  EXPECT_EQ(mark->number, 2u);
  EXPECT_EQ(mark->burns, 3u);
  EXPECT_EQ(mark->devices, 7000u);
  EXPECT_EQ(mark->first, 0x10u);
  EXPECT_EQ(mark->last, 0xAA550000001000u);
  for (std::size_t size = 0; size < line.size(); ++size)
    EXPECT_FALSE(ReadMark(line.substr(0, size)));
  EXPECT_FALSE(ReadMark(line + " "));
  EXPECT_FALSE(ReadMark(" " + line));
  EXPECT_FALSE(ReadMark("fwpush-report: burn 2 of x: 7000 devices, 0x10 to 0x20"));
}

TEST(SeriesLogTest, ConsoleIsDividedWhereverThePiecesAreCut) {
  std::mt19937 rng(1);
  for (int round = 0; round < 300; ++round) {
    // Lines that begin like a mark are text, and so is a mark that does not begin its line.
    const std::string lines[] = {"fwpush-report: burn\n",
                                 "\n",
                                 "x\n",
                                 "fwp",
                                 "-I- x",
                                 Mark(1),
                                 Mark(2),
                                 "fwpush-report: burn " + std::string(300, '1') + "\n"};
    std::string console;
    std::string expected;
    for (int i = 0; i < 12; ++i) {
      const std::string& line = lines[rng() % std::size(lines)];
      const bool is_start = console.empty() || console.back() == '\n';
      expected += is_start && line == Mark(1) ? "<1>" : is_start && line == Mark(2) ? "<2>" : line;
      console += line;
    }
    std::string found;
    MarkFinder finder([&](std::string_view text) { found += text; },
                      [&](const BurnMark& mark) { found += Text("<", mark.number, ">"); });
    for (std::size_t at = 0; at < console.size();) {
      const std::size_t size = 1 + rng() % 40;
      finder.Feed(std::string_view(console).substr(at, size));
      at += size;
    }
    finder.Finish();
    EXPECT_EQ(found, expected);
  }
}

TEST(SeriesLogTest, WholeSeriesIsBurnt) {
  const SeriesReport series = Judge(Mark(1) + GOOD + Mark(2) + GOOD + Mark(3) + GOOD);
  EXPECT_TRUE(series.burn.is_all_burnt);
  EXPECT_EQ(series.burn.devices.size(), 30u);
  EXPECT_EQ(series.burns_run, 3u);
}

TEST(SeriesLogTest, FailureIsOneOfItsBurnOnly) {
  const SeriesReport series = Judge(Mark(1) + GOOD + Mark(2) + BAD);
  EXPECT_FALSE(series.burn.is_all_burnt);
  EXPECT_EQ(series.burns, 3u);
  EXPECT_EQ(series.burns_run, 2u);
  ASSERT_EQ(series.burn.devices.size(), 30u);
  for (const DeviceReport& device : series.burn.devices) {
    EXPECT_EQ(device.status, device.guid < 20   ? DeviceStatus::BURNT
                             : device.guid < 30 ? DeviceStatus::FAILED
                                                : DeviceStatus::NEVER_REACHED);
  }
  EXPECT_EQ(series.burn.devices.back().text, "not started: the burn before it failed");
}

/// Wherever the log of a series ends, the series is not all burnt, and only the devices of burns
/// that are in it whole are.
TEST(SeriesLogTest, InterruptedSeriesIsNeverAllBurnt) {
  const std::string part = Mark(1) + GOOD;
  const std::string console = part + Mark(2) + GOOD + Mark(3) + GOOD;
  const std::size_t end = console.size() - 1;  // without the last line end, nothing is missing
  for (std::size_t size = Mark(1).size(); size < end; ++size) {
    SCOPED_TRACE(size);
    for (const bool has_guids : {true, false}) {
      const SeriesReport series =
          Judge(std::string_view(console).substr(0, size), has_guids ? ASKED : std::set<Guid>{});
      EXPECT_FALSE(series.burn.is_all_burnt);
      EXPECT_FALSE(series.burn.is_succeeded);
      if (!has_guids) continue;
      EXPECT_EQ(series.burn.devices.size(), 30u);
      const auto burnt =
          std::ranges::count(series.burn.devices, DeviceStatus::BURNT, &DeviceReport::status);
      EXPECT_EQ(burnt, size + 1 < part.size() ? 0 : size + 1 < 2 * part.size() ? 10 : 20);
    }
  }
  EXPECT_EQ(Judge(part).burn.devices.back().text, "not started: the log ends before it");
}

TEST(SeriesLogTest, DevicesOfOtherBurnsAreNotCalledBurnt) {
  const std::string console = Mark(1) + GOOD + Mark(2) + GOOD + Mark(3) + GOOD;
  EXPECT_EQ(Refusal(console), "");
  EXPECT_THAT(Refusal(console, Devices(10, 39)), HasSubstr("burn 3 had 10 devices"));
  EXPECT_THAT(Refusal(console, Devices(10, 41)), HasSubstr("had the device 0x0000000000000028"));
  EXPECT_THAT(Refusal(console, Devices(9, 40)), HasSubstr("had the device 0x0000000000000009"));
  EXPECT_THAT(Refusal(Mark(1) + GOOD, Devices(9, 40)), HasSubstr("0x0000000000000009"));
}

TEST(SeriesLogTest, PartsOfOtherSeriesAreRefused) {
  for (const std::string& console :
       {Mark(2) + GOOD, Mark(1) + GOOD + Mark(3) + GOOD, Mark(1) + GOOD + Mark(1) + GOOD,
        Mark(1) + GOOD + Mark(2, 4) + GOOD,
        Mark(1) + GOOD + Mark(2) + GOOD + Mark(3) + GOOD + Mark(4) + GOOD}) {
    EXPECT_THAT(Refusal(console), HasSubstr("not the console of one series"));
  }
  EXPECT_THAT(Refusal(GOOD + Mark(1) + GOOD), HasSubstr("another burn stands before"));
  EXPECT_THAT(Refusal(GOOD), HasSubstr("the devices need 3 burns"));
}

TEST(SeriesLogTest, LogOfOneBurnHasNoMark) {
  EXPECT_TRUE(Judge(GOOD, ASKED, 1).burn.is_all_burnt);
  EXPECT_EQ(Judge(BAD, ASKED, 1).burn.devices.back().text, "gone");
  EXPECT_FALSE(Judge("hello\n", ASKED, 1).is_fwpush);
}

}  // namespace
}  // namespace report
