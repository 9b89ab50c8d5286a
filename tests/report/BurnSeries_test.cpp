#include "report/BurnSeries.h"

#include "tests/support/support.h"

namespace report {
namespace {

using Words = std::vector<std::string>;

class BurnSeriesTest : public testing::Test {
 protected:
  std::string FileOf(std::size_t count, Guid first = 0xAA550000000000) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) text += Text("0x00", std::hex, first + i, "\n");
    return _folder.Write("guids", text);
  }

  common::ScratchFolder _folder;
};

TEST_F(BurnSeriesTest, CommandWithoutAFileStaysAsItIs) {
  for (const Words& words :
       {Words{"fwpush", "-f", "@x.img", "-g", "10,zz", "-g=20"}, Words{"sudo", "fwpush", "-g"}}) {
    const auto burns = PlanBurns(words);
    ASSERT_EQ(burns.size(), 1u);
    EXPECT_EQ(burns[0].words, words);
  }
  EXPECT_EQ(PlanBurns({"fwpush", "-g", "10,20", "-g=30"})[0].asked, (std::set<Guid>{16, 32, 48}));
  EXPECT_EQ(PlanBurns({}).size(), 1u);
}

TEST_F(BurnSeriesTest, DevicesOfAllSwitchesBecomeOneList) {
  const std::string file = FileOf(2);
  const auto burns =
      PlanBurns({"fwpush", "-n", "-g", "10", "-f", "fw.img", "-g=@" + file, "-s", "IB:h:1"});
  ASSERT_EQ(burns.size(), 1u);
  EXPECT_EQ(burns[0].words,
            (Words{"fwpush", "-n", "-g", "0x0000000000000010,0x00aa550000000000,0x00aa550000000001",
                   "-f", "fw.img", "-s", "IB:h:1"}));
  EXPECT_EQ(burns[0].asked, (std::set<Guid>{0x10, 0xAA550000000000, 0xAA550000000001}));
}

TEST_F(BurnSeriesTest, LongListLosesItsLeadingZerosAndIsThenDivided) {
  const std::string file = FileOf(4);
  const Words words = {"fwpush", "-g", "@" + file};
  const std::size_t full = 4 * 18 + 3;
  const std::size_t brief = 4 * 14 + 3;
  EXPECT_EQ(PlanBurns(words, full)[0].words[2].size(), full);
  const auto without_zeros = PlanBurns(words, full - 1);
  ASSERT_EQ(without_zeros.size(), 1u);
  EXPECT_EQ(without_zeros[0].words[2],
            "aa550000000000,aa550000000001,aa550000000002,aa550000000003");
  ASSERT_EQ(PlanBurns(words, brief).size(), 1u);
  const auto divided = PlanBurns(words, brief - 1);
  ASSERT_EQ(divided.size(), 2u);
  EXPECT_EQ(divided[0].words[2], "aa550000000000,aa550000000001,aa550000000002");
  EXPECT_EQ(divided[1].words, (Words{"fwpush", "-g", "aa550000000003"}));
  EXPECT_EQ(divided[1].asked, std::set<Guid>{0xAA550000000003});
}

TEST_F(BurnSeriesTest, EveryDeviceIsInOneBurnAndNoListIsTooLong) {
  constexpr std::size_t DEVICES = 20000;
  const auto burns = PlanBurns({"fwpush", "-g", "@" + FileOf(DEVICES)});
  ASSERT_EQ(burns.size(), 3u);
  std::set<Guid> all;
  std::size_t sum = 0;
  for (const PlannedBurn& burn : burns) {
    EXPECT_LE(burn.words[2].size(), LONGEST_ARGUMENT);
    EXPECT_EQ(AskedDevices(std::span(burn.words).subspan(1)), burn.asked);
    all.insert(burn.asked.begin(), burn.asked.end());
    sum += burn.asked.size();
  }
  EXPECT_EQ(all.size(), DEVICES);
  EXPECT_EQ(sum, DEVICES);
}

TEST_F(BurnSeriesTest, SeriesIsReportedAsOneBurn) {
  BurnReport good;
  good.is_all_burnt = good.is_succeeded = good.is_devices_known = true;
  good.devices = {{.guid = 1, .status = DeviceStatus::BURNT, .text = ""}};
  good.counts = {{"total", 1}};
  good.warnings = {"w"};
  BurnReport bad = good;
  bad.is_all_burnt = bad.is_succeeded = false;
  bad.failure = "gone";
  bad.devices = {{.guid = 2, .status = DeviceStatus::FAILED, .text = "gone"}};
  EXPECT_TRUE(Join({good, good}).is_all_burnt);
  const BurnReport all = Join({good, bad}, {{3, 4}, BURN_BEFORE_FAILED});
  EXPECT_FALSE(all.is_all_burnt);
  EXPECT_FALSE(all.is_succeeded);
  EXPECT_EQ(all.failure, "gone");
  EXPECT_EQ(all.counts.at("total"), 2u);
  EXPECT_EQ(all.warnings, std::vector<std::string>{"w"});
  ASSERT_EQ(all.devices.size(), 4u);
  EXPECT_EQ(all.devices[3].status, DeviceStatus::NEVER_REACHED);
  EXPECT_EQ(all.devices[3].text, "not started: the burn before it failed");

  // Without a device that is known not to be burnt, too.
  for (const std::set<Guid>& devices : {std::set<Guid>{3}, std::set<Guid>{}}) {
    const BurnReport ended = Join({good}, {devices, "asked to end"});
    EXPECT_FALSE(ended.is_all_burnt);
    EXPECT_FALSE(ended.is_succeeded);
    EXPECT_EQ(ended.failure, "not all burns were started: asked to end");
  }
}

}  // namespace
}  // namespace report
