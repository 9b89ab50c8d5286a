#include "serve/Discover.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/ScratchFolder.h"
#include "serve/ConfigurationCheck.h"
#include "tests/support/FakeBoard.h"

namespace serve {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class DiscoverTest : public testing::Test {
 protected:
  /// What is discovered, with values in the place of those that must be filled in.
  std::string FilledIn() {
    std::string text = DiscoverConfiguration(_system);
    const auto fill_in = [&text](const std::string& key, const auto& value) {
      const std::string wanted = key + " = \"" + FILL_IN + "\"";
      for (std::size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted)) {
        text.replace(at, wanted.size(), key + " = " + value());
      }
    };
    unsigned guid = 0x10;
    fill_in("node_guid", [&guid] { return common::Text("'0x", std::hex, guid++, "'"); });
    fill_in("page", [] { return std::string("16"); });
    fill_in("offset_bits", [] { return std::string("16"); });
    fill_in("size", [] { return std::string("0x100"); });
    return text;
  }
  Configuration Load(const std::string& text) {
    return LoadConfiguration(_folder.Write("serve.toml", text));
  }

  common::ScratchFolder _folder;
  FakeBoard _system;
};

TEST_F(DiscoverTest, FileIsRefusedBeforeItIsFilledIn) {
  EXPECT_THROW(Load(DiscoverConfiguration(_system)), ConfigurationError);
}

TEST_F(DiscoverTest, FlashesAreServedWhenTheyAreFilledIn) {
  const Configuration config = Load(FilledIn());
  ASSERT_EQ(config.devices.size(), 2u);
  const FlashConfig& bmc = *config.devices[0].flash;
  EXPECT_EQ(config.devices[0].facts.name, "bmc");
  EXPECT_EQ(bmc.mtd->name, "bmc");
  EXPECT_EQ(bmc.mtd->by_path, "1e620000.spi/spi0.0");
  EXPECT_EQ(bmc.mtd->jedec, "c2253a");
  EXPECT_EQ(bmc.mtd->expected_size, 0x4000000u);
  EXPECT_EQ(bmc.size, 0x4000000u);
  EXPECT_EQ(bmc.sector_size, 0x10000u);
  EXPECT_EQ(config.devices[1].flash->size, 0x80000000u);
  EXPECT_THAT(CheckConfiguration(_system, config), IsEmpty());
}

TEST_F(DiscoverTest, ChipsWithDriversAreServedWhenTheyAreFilledIn) {
  _system.AddI2cDevice(18, 0x50, "24c64", "at24");
  _system.AddI2cDevice(6, 0x54, "24mac402", "at24");
  _system.AddI2cDevice(6, 0x48, "lm75", "lm75");
  const std::string text = FilledIn();
  EXPECT_THAT(text, testing::Not(HasSubstr("lm75")));
  const Configuration config = Load(text);
  ASSERT_EQ(config.devices.size(), 4u);
  const EepromConfig& first = config.devices[2].eeproms.at(0x54);
  EXPECT_EQ(first.size, 0x100u);
  EXPECT_EQ(first.i2c->adapter, (AdapterConfig{.adapter = "1e78a380.i2c-bus", .muxes = {}}));
  const EepromConfig& second = config.devices[3].eeproms.at(0x50);
  EXPECT_EQ(second.size, 0x2000u);
  EXPECT_EQ(second.i2c->adapter,
            (AdapterConfig{.adapter = "1e78a300.i2c-bus", .muxes = {{0x70, 2}}}));
  EXPECT_FALSE(second.i2c->idle_disconnect);
  // The drivers are still there.
  EXPECT_EQ(CheckConfiguration(_system, config).size(), 2u);
}

TEST_F(DiscoverTest, MuxThatDisconnectsIsToldSo) {
  _system.AddFile(std::string(FakeBoard::BUS) + "/i2c-5/5-0070/idle_state", "-2");
  _system.AddI2cDevice(18, 0x50, "24c64", "at24");
  _system.AddI2cDevice(5, 0x50, "24c64", "at24");
  const Configuration config = Load(FilledIn());
  ASSERT_EQ(config.devices.size(), 4u);
  EXPECT_TRUE(config.devices[3].eeproms.at(0x50).i2c->idle_disconnect);
}

TEST_F(DiscoverTest, WhatMustNotBeWrittenIsAComment) {
  _system.AddFile("/proc/mounts", "/dev/mtdblock0 / squashfs ro 0 0");
  _system.AddMtd(2, "data", "/sys/devices/nand", 0x100000, "");
  _system.AddFile("/sys/devices/nand/mtd/mtd2/type", "nand");
  const std::string text = FilledIn();
  EXPECT_THAT(text, HasSubstr("# /dev/mtd0 \"bmc\" is in use: \"mounted on /\""));
  EXPECT_THAT(text, HasSubstr("# /dev/mtd2 \"data\": not served, of type nand.\n"));
  const Configuration config = Load(text);
  ASSERT_EQ(config.devices.size(), 1u);
  EXPECT_EQ(config.devices[0].facts.name, "pnor");
}

TEST_F(DiscoverTest, AdaptersAreTold) {
  const std::string text = DiscoverConfiguration(_system);
  EXPECT_THAT(text, HasSubstr("#   /dev/i2c-5 \"1e78a300.i2c-bus\": adapter = "
                              "\"1e78a300.i2c-bus\"\n"));
  EXPECT_THAT(text, HasSubstr("#   /dev/i2c-17 \"i2c-5-mux (chan_id 1)\": adapter = "
                              "\"1e78a300.i2c-bus\" mux = [[0x70, 1]]\n"));
}

TEST_F(DiscoverTest, StrangeNamesDoNotSpoilTheFile) {
  _system.AddMtd(3, "a \"b\"\\ {c}\n[[device]]\x01", "/sys/devices/x", 0x30000, "c2253a");
  _system.AddAdapter(9, "bus\nx = \"1\"", "/sys/devices/y");
  _system.AddI2cDevice(9, 0x50, "odd\nname", "at24");
  const Configuration config = Load(FilledIn());
  ASSERT_EQ(config.devices.size(), 4u);
  EXPECT_EQ(config.devices[2].flash->mtd->name, "a \"b\"\\ {c}\n[[device]]\x01");
  EXPECT_EQ(config.devices[3].eeproms.at(0x50).i2c->adapter.adapter, "bus\nx = \"1\"");
}

TEST_F(DiscoverTest, MachineWithoutMemoriesHasNoDevice) {
  FakeSysfs empty;
  const std::string text = DiscoverConfiguration(empty);
  EXPECT_THAT(text, HasSubstr("[server]"));
  EXPECT_THAT(text, testing::Not(HasSubstr("[[device]]")));
}

}  // namespace
}  // namespace serve
