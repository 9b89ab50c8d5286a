#include "serve/Wires.h"

#include <gtest/gtest.h>

#include "tests/support/FakeBoard.h"

namespace serve {
namespace {

constexpr auto BUS = FakeBoard::BUS;
constexpr auto OTHER_BUS = FakeBoard::OTHER_BUS;
constexpr auto SPI0 = FakeBoard::SPI0;
constexpr auto SPI1 = FakeBoard::SPI1;

class WiresTest : public testing::Test {
 protected:
  std::string AdapterErrorOf(const AdapterConfig& config) {
    return FindAdapter(_system, config).error;
  }
  std::string MtdErrorOf(const MtdConfig& config) { return FindMtd(_system, config).error; }
  static MtdConfig Named(const std::string& name, const std::string& by_path = "") {
    return {.name = name, .by_path = by_path, .jedec = {}, .expected_size = {}};
  }

  FakeBoard _system;
};

TEST_F(WiresTest, AdapterIsFoundByItsName) {
  const FoundAdapter found = FindAdapter(_system, {.adapter = "1e78a300.i2c-bus", .muxes = {}});
  EXPECT_EQ(found.error, "");
  EXPECT_EQ(found.number, 5u);
  EXPECT_EQ(found.node, "/dev/i2c-5");
  EXPECT_EQ(found.name, "1e78a300.i2c-bus");
  EXPECT_EQ(found.path, std::string(BUS) + "/i2c-5");
}

TEST_F(WiresTest, AdapterIsFoundBehindAMux) {
  for (unsigned channel = 0; channel < 8; ++channel) {
    const FoundAdapter found =
        FindAdapter(_system, {.adapter = "1e78a300.i2c-bus", .muxes = {{0x70, channel}}});
    EXPECT_EQ(found.error, "");
    EXPECT_EQ(found.number, 16 + channel);
  }
}

TEST_F(WiresTest, AdapterIsFoundBehindTwoMuxes) {
  _system.AddMux(18, 0x71, 32, 4);
  const FoundAdapter found =
      FindAdapter(_system, {.adapter = "1e78a300.i2c-bus", .muxes = {{0x70, 2}, {0x71, 3}}});
  EXPECT_EQ(found.error, "");
  EXPECT_EQ(found.node, "/dev/i2c-35");
  EXPECT_EQ(RootPathOf(found.path), std::string(BUS) + "/i2c-5");
}

TEST_F(WiresTest, AdapterIsFoundByThePathOfItsNode) {
  _system.AddLink("/dev/leaf", "/dev/i2c-16");
  for (const char* path : {"/dev/i2c-16", "/dev/leaf", "/sys/bus/i2c/devices/i2c-16"}) {
    EXPECT_EQ(FindAdapter(_system, {.adapter = path, .muxes = {}}).node, "/dev/i2c-16") << path;
  }
  EXPECT_EQ(FindAdapter(_system, {.adapter = "/dev/i2c-5", .muxes = {{0x70, 1}}}).number, 17u);
}

TEST_F(WiresTest, AdapterIsFoundByTheFolderOfItsDevice) {
  EXPECT_EQ(FindAdapter(_system, {.adapter = OTHER_BUS, .muxes = {}}).number, 6u);
}

TEST_F(WiresTest, AdapterThatIsNotThereIsToldWithThoseThatAre) {
  for (unsigned channel = 0; channel < 8; ++channel) {
    _system.Forget(common::Text("/sys/bus/i2c/devices/i2c-", 16 + channel));
  }
  const std::string there =
      "there are: /dev/i2c-5 \"1e78a300.i2c-bus\", "
      "/dev/i2c-6 \"1e78a380.i2c-bus\"";
  EXPECT_EQ(AdapterErrorOf({.adapter = "i2c-5", .muxes = {}}),
            "no I2C adapter is named \"i2c-5\"; " + there);
  EXPECT_EQ(AdapterErrorOf({.adapter = "/dev/i2c-7", .muxes = {}}),
            "no I2C adapter is at /dev/i2c-7; " + there);
  EXPECT_EQ(AdapterErrorOf({.adapter = SPI0, .muxes = {}}),
            "no I2C adapter is at " + std::string(SPI0) + "; " + there);
  FakeSysfs empty;
  EXPECT_EQ(FindAdapter(empty, {.adapter = "a", .muxes = {}}).error,
            "no I2C adapter is named \"a\"; there are none");
}

TEST_F(WiresTest, MuxThatIsNotThereIsTold) {
  EXPECT_EQ(AdapterErrorOf({.adapter = "1e78a380.i2c-bus", .muxes = {{0x71, 0}}}),
            "no mux is known at address 0x71 of /dev/i2c-6 \"1e78a380.i2c-bus\"");
  _system.AddMux(6, 0x71, 40, 2);
  EXPECT_EQ(AdapterErrorOf({.adapter = "1e78a380.i2c-bus", .muxes = {{0x71, 2}}}),
            "the mux at address 0x71 of /dev/i2c-6 \"1e78a380.i2c-bus\" has no channel 2; "
            "there are: 0, 1");
  // What is behind a missing channel is not looked for.
  EXPECT_EQ(AdapterErrorOf({.adapter = "1e78a380.i2c-bus", .muxes = {{0x71, 2}, {0x72, 0}}}),
            AdapterErrorOf({.adapter = "1e78a380.i2c-bus", .muxes = {{0x71, 2}}}));
}

TEST_F(WiresTest, NameOfTwoAdaptersIsRefused) {
  _system.AddAdapter(7, "1e78a380.i2c-bus", "/sys/devices/other");
  EXPECT_EQ(AdapterErrorOf({.adapter = "1e78a380.i2c-bus", .muxes = {}}),
            "2 I2C adapters are named \"1e78a380.i2c-bus\": give the folder of one instead of its "
            "name; there are: " +
                std::string(OTHER_BUS) + "/i2c-6, /sys/devices/other/i2c-7");
  EXPECT_EQ(FindAdapter(_system, {.adapter = "/sys/devices/other", .muxes = {}}).number, 7u);
}

TEST_F(WiresTest, AdaptersOnOneWireHaveOneKey) {
  const std::string key = RootKey(_system, {.adapter = "1e78a300.i2c-bus", .muxes = {}});
  EXPECT_EQ(key, "1e78a300.i2c-bus");
  EXPECT_EQ(RootKey(_system, {.adapter = "1e78a300.i2c-bus", .muxes = {{0x70, 3}}}), key);
  EXPECT_EQ(RootKey(_system, {.adapter = "/dev/i2c-16", .muxes = {}}), key);
  // The mux is not there yet.
  EXPECT_EQ(RootKey(_system, {.adapter = "/dev/i2c-5", .muxes = {{0x77, 0}}}), key);
  EXPECT_NE(RootKey(_system, {.adapter = "1e78a380.i2c-bus", .muxes = {}}), key);
}

TEST_F(WiresTest, AdapterThatIsNotThereHasAKey) {
  FakeSysfs empty;
  EXPECT_EQ(RootKey(empty, {.adapter = "1e78a300.i2c-bus", .muxes = {{0x70, 3}}}),
            "1e78a300.i2c-bus");
}

TEST_F(WiresTest, NamesakesAreToldApartByTheFolderOfTheirDevice) {
  _system.AddAdapter(7, "1e78a380.i2c-bus", "/sys/devices/other");
  EXPECT_EQ(RootKey(_system, {.adapter = "/dev/i2c-6", .muxes = {}}), OTHER_BUS);
  EXPECT_EQ(RootKey(_system, {.adapter = "/dev/i2c-7", .muxes = {}}), "/sys/devices/other");
}

TEST_F(WiresTest, WayToAnAdapterFindsIt) {
  _system.AddMux(18, 0x71, 32, 4);
  _system.AddAdapter(7, "1e78a380.i2c-bus", "/sys/devices/other");
  for (const FoundAdapter& adapter : ListAdapters(_system)) {
    EXPECT_EQ(FindAdapter(_system, WayTo(_system, adapter)).number, adapter.number);
  }
  EXPECT_EQ(WayTo(_system, FindAdapter(_system, {.adapter = "/dev/i2c-35", .muxes = {}})),
            (AdapterConfig{.adapter = "1e78a300.i2c-bus", .muxes = {{0x70, 2}, {0x71, 3}}}));
}

TEST_F(WiresTest, DriverOwnsItsAddressOnAllOfTheWayToTheChip) {
  const FoundAdapter parent = FindAdapter(_system, {.adapter = "/dev/i2c-5", .muxes = {}});
  const FoundAdapter behind = FindAdapter(_system, {.adapter = "/dev/i2c-16", .muxes = {}});
  const FoundAdapter beside = FindAdapter(_system, {.adapter = "/dev/i2c-17", .muxes = {}});
  _system.AddI2cDevice(16, 0x50, "24c64", "at24");
  _system.AddI2cDevice(16, 0x51, "24c64", "");  // no driver has taken it
  EXPECT_EQ(OwnerOf(_system, behind, 0x50), "at24");
  EXPECT_EQ(OwnerOf(_system, parent, 0x50), "at24");
  EXPECT_EQ(OwnerOf(_system, beside, 0x50), "");
  EXPECT_EQ(OwnerOf(_system, behind, 0x51), "");
  EXPECT_EQ(OwnerOf(_system, behind, 0x70), "pca954x");
  EXPECT_EQ(OwnerOf(_system, FindAdapter(_system, {.adapter = "/dev/i2c-6", .muxes = {}}), 0x50),
            "");
}

TEST_F(WiresTest, MtdIsFoundByNameAndByPath) {
  for (const MtdConfig& config : {Named("pnor"), Named("", "spi1.0"), Named("", "spi1/spi1.0"),
                                  Named("", SPI1), Named("pnor", "spi1.0")}) {
    const FoundMtd found = FindMtd(_system, config);
    EXPECT_EQ(found.error, "");
    EXPECT_EQ(found.number, 1u);
    EXPECT_EQ(found.node, "/dev/mtd1");
    EXPECT_EQ(found.name, "pnor");
    EXPECT_EQ(found.path, SPI1);
    EXPECT_EQ(found.type, "nor");
    EXPECT_EQ(found.size, 0x200000000u);
    EXPECT_EQ(found.erase_size, 4096u);
    EXPECT_EQ(found.write_size, 1u);
    EXPECT_EQ(found.erase_regions, 0u);
    EXPECT_TRUE(found.is_writable);
    EXPECT_EQ(found.jedec, "ef4020");
    EXPECT_EQ(found.in_use, "");
  }
}

TEST_F(WiresTest, MtdThatIsNotThereIsToldWithThoseThatAre) {
  const std::string there =
      std::string("there are: /dev/mtd0 \"bmc\" on ") + SPI0 + ", /dev/mtd1 \"pnor\" on " + SPI1;
  EXPECT_EQ(MtdErrorOf(Named("mtd0")), "no MTD device is named \"mtd0\"; " + there);
  EXPECT_EQ(MtdErrorOf(Named("", "spi1.0/1e630000.spi")),
            "no MTD device is on spi1.0/1e630000.spi; " + there);
  // A part of a folder's name is not that folder.
  EXPECT_EQ(MtdErrorOf(Named("", "pi1.0")), "no MTD device is on pi1.0; " + there);
  EXPECT_EQ(MtdErrorOf(Named("bmc", "spi1.0")),
            "no MTD device is named \"bmc\" on spi1.0; " + there);
  FakeSysfs empty;
  EXPECT_EQ(FindMtd(empty, Named("bmc")).error, "no MTD device is named \"bmc\"; there are none");
}

TEST_F(WiresTest, PartitionsAreToldApartByNameAndPath) {
  _system.AddMtd(2, "env", SPI0, 0x10000, "");
  _system.AddMtd(3, "env", SPI1, 0x10000, "");
  EXPECT_EQ(MtdErrorOf(Named("env")),
            "2 MTD devices are named \"env\": give both 'mtd' and 'by_path'; there are: /dev/mtd2 "
            "\"env\" on " +
                std::string(SPI0) + ", /dev/mtd3 \"env\" on " + SPI1);
  EXPECT_EQ(FindMtd(_system, Named("env", "spi1.0")).number, 3u);
}

TEST_F(WiresTest, PartitionBelowItsFlashIsOnTheSameDevice) {
  // As with kernels that keep the device of the whole flash.
  const std::string whole = std::string(SPI1) + "/mtd/mtd1";
  _system.AddMtd(4, "part", whole, 0x10000, "");
  _system.AddFile(whole + "/mtd/mtd4/offset", "4096");
  const FoundMtd found = FindMtd(_system, Named("part"));
  EXPECT_EQ(found.path, SPI1);
  EXPECT_EQ(found.offset, 4096u);
  EXPECT_EQ(found.jedec, "ef4020");
}

TEST_F(WiresTest, FlashesOnOneDeviceHaveOneKey) {
  _system.AddMtd(2, "env", SPI1, 0x10000, "");
  const auto key = [this](const MtdConfig& mtd) {
    FlashConfig config;
    config.mtd = mtd;
    return FlashKey(_system, config);
  };
  EXPECT_EQ(key(Named("env")), std::string("mtd ") + SPI1);
  EXPECT_EQ(key(Named("", "spi1/spi1.0")), key(Named("env")));
}

TEST_F(WiresTest, FileIsAWireOfItsOwn) {
  _system.AddFile("/data/flash.bin", "");
  _system.AddLink("/data/link.bin", "/data/flash.bin");
  FlashConfig config;
  config.file = FileConfig{.path = "/data/link.bin", .only_clears_bits = true};
  EXPECT_EQ(FlashKey(_system, config), "file /data/flash.bin");
  config.file->path = "/data/missing.bin";
  EXPECT_EQ(FlashKey(_system, config), "file /data/missing.bin");
}

TEST_F(WiresTest, MountedMtdIsInUse) {
  const std::string ways[] = {"/dev/mtdblock1", "/dev/mtd1", "mtd1", "mtd:pnor", "mtd:1"};
  for (const std::string& way : ways) {
    _system.AddFile("/proc/mounts",
                    "proc /proc proc rw 0 0\n" + way + " /mnt/my\\040place jffs2 rw 0 0");
    EXPECT_EQ(FindMtd(_system, Named("pnor")).in_use, "mounted on /mnt/my place") << way;
    EXPECT_EQ(FindMtd(_system, Named("bmc")).in_use, "") << way;
  }
  for (const std::string way : {"/dev/mtdblock11", "mtd:pnor2", "pnor", "tmpfs"}) {
    _system.AddFile("/proc/mounts", way + " / ext4 rw 0 0");
    EXPECT_EQ(FindMtd(_system, Named("pnor")).in_use, "") << way;
  }
}

TEST_F(WiresTest, MtdOfTheRootIsInUse) {
  _system.AddFile("/proc/mounts", "/dev/root / squashfs ro 0 0");
  _system.AddFile("/proc/cmdline", "console=ttyS4 root=/dev/mtdblock0 ro");
  EXPECT_EQ(FindMtd(_system, Named("bmc")).in_use, "mounted on /");
  EXPECT_EQ(FindMtd(_system, Named("pnor")).in_use, "");
}

TEST_F(WiresTest, MtdThatUbiHoldsIsInUse) {
  _system.AddFile("/sys/class/ubi/ubi0/mtd_num", "1");
  _system.AddFile("/sys/class/ubi/ubi0_1/name", "rootfs");
  _system.AddFile("/sys/class/ubi/version", "1");
  EXPECT_EQ(FindMtd(_system, Named("pnor")).in_use, "attached to UBI as ubi0");
  EXPECT_EQ(FindMtd(_system, Named("bmc")).in_use, "");
}

TEST_F(WiresTest, FlashIsInUseWhereAPartitionOfItIs) {
  _system.AddMtd(2, "rootfs", SPI1, 0x100000, "");
  _system.AddFile(std::string(SPI1) + "/mtd/mtd2/offset", "65536");
  _system.AddMtd(3, "env", SPI1, 0x10000, "");
  _system.AddFile(std::string(SPI1) + "/mtd/mtd3/offset", "0");
  _system.AddFile("/proc/mounts", "/dev/mtdblock2 / squashfs ro 0 0");
  EXPECT_EQ(FindMtd(_system, Named("pnor")).in_use,
            "/dev/mtd2, which overlaps it, is mounted on /");
  EXPECT_EQ(FindMtd(_system, Named("env")).in_use, "");
  EXPECT_EQ(FindMtd(_system, Named("bmc")).in_use, "");
}

TEST_F(WiresTest, MtdThatIsNotTheExpectedOneIsTold) {
  const FoundMtd found = FindMtd(_system, Named("bmc"));
  MtdConfig config = Named("bmc");
  EXPECT_EQ(WhyNotExpected(config, found), "");
  config.jedec = "c2253a";
  config.expected_size = 0x4000000;
  EXPECT_EQ(WhyNotExpected(config, found), "");
  config.expected_size = 0x2000000;
  EXPECT_EQ(WhyNotExpected(config, found),
            "/dev/mtd0 has 0x4000000 bytes, expected were 0x2000000");
  config.jedec = "ef4020";
  EXPECT_EQ(WhyNotExpected(config, found),
            "/dev/mtd0 has the JEDEC id c2253a, expected was ef4020");
  _system.Forget(std::string(SPI0) + "/spi-nor/jedec_id");
  EXPECT_EQ(WhyNotExpected(config, FindMtd(_system, Named("bmc"))),
            "/dev/mtd0 tells no JEDEC id, expected was ef4020");
}

}  // namespace
}  // namespace serve
