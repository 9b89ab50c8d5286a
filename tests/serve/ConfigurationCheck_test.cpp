#include "serve/ConfigurationCheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/ScratchFolder.h"
#include "tests/support/FakeBoard.h"

namespace serve {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ConfigurationCheckTest : public testing::Test {
 protected:
  std::vector<std::string> Problems(const std::string& text) {
    return CheckConfiguration(_system, LoadConfiguration(_folder.Write("serve.toml", text)));
  }
  /// The problems of one device that has a flash, without its name.
  std::vector<std::string> FlashProblems(const std::string& keys, const std::string& more = "") {
    return WithoutOwner(Problems("[[device]]\nnode_guid = '0x10'\n" + more + "\n[device.flash]\n" +
                                 keys + "\nsector_size = 0x10000\n"));
  }
  /// The problems of one device that has a chip of 0x2000 bytes at 0x50.
  std::vector<std::string> ChipProblems(const std::string& keys, const std::string& more = "") {
    return WithoutOwner(Problems("[[device]]\nnode_guid = '0x10'\n" + more + "\n" + Chip(keys)));
  }
  static std::string Chip(const std::string& keys) {
    return "[[device.chip]]\naddress = 0x50\nsize = 0x2000\n[device.chip.i2c]\npage = 32\n"
           "offset_bits = 16\n" +
           keys + "\n";
  }
  static std::vector<std::string> WithoutOwner(std::vector<std::string> problems) {
    const std::string owner = "0x0000000000000010 (device): ";
    for (std::string& problem : problems) {
      EXPECT_TRUE(problem.starts_with(owner)) << problem;
      problem.erase(0, owner.size());
    }
    return problems;
  }

  common::ScratchFolder _folder;
  FakeBoard _system;
};

const std::string BMC = "mtd = 'bmc'";
const std::string BEHIND = "adapter = '1e78a300.i2c-bus'\nmux = [[0x70, 2]]";

TEST_F(ConfigurationCheckTest, BoardHasAllThatIsNamed) {
  _system.AddPlainFile(_folder / "e.bin", 256);
  _system.AddFile("/bin/on", "");
  _system.AddFile(_folder / "serve.toml", "");
  EXPECT_THAT(
      Problems("[server]\naudit = 'audit.jsonl'\n[[device]]\nnode_guid = '0x10'\n"
               "prepare = ['/bin/on']\nwrite = [[0, 0x3ffffff]]\n[device.flash]\n"
               "by_path = '1e620000.spi'\nsector_size = 0x1000\n"
               "expect = { jedec = 'c2253a', size = 0x4000000 }\n"
               "[[device]]\nnode_guid = '0x20'\n" +
               Chip(BEHIND) + "[[device.chip]]\naddress = 0x51\nsize = 256\nfile = 'e.bin'\n"),
      IsEmpty());
}

TEST_F(ConfigurationCheckTest, FlashThatIsNotThereIsTold) {
  const std::string there = "no MTD device is named \"none\"; there are: /dev/mtd0";
  EXPECT_THAT(FlashProblems("mtd = 'none'"), ElementsAre(HasSubstr(there)));
  // Another program may bring it.
  _system.AddFile("/bin/on", "");
  EXPECT_THAT(FlashProblems("mtd = 'none'\nsize = 0x10000", "prepare = ['/bin/on']"), IsEmpty());
}

TEST_F(ConfigurationCheckTest, FlashThatCannotBeServedIsTold) {
  const std::string mtd = FakeBoard::SPI0 + std::string("/mtd/mtd0/");
  EXPECT_THAT(FlashProblems(BMC + "\nexpect = { jedec = 'ef4020' }"),
              ElementsAre("/dev/mtd0 has the JEDEC id c2253a, expected was ef4020"));
  EXPECT_THAT(FlashProblems(BMC + "\nsize = 0x4010000"),
              ElementsAre("the flash, 0x4010000 bytes from 0x0 on, ends past /dev/mtd0, which has "
                          "0x4000000 bytes"));
  EXPECT_THAT(FlashProblems(BMC + "\nfirst = 0x4000000"), ElementsAre(HasSubstr("ends past")));
  EXPECT_THAT(FlashProblems(BMC, "write = [[0, 0x4000000]]"),
              ElementsAre("'write': 0x4000000 is past the end of the memory, which has 0x4000000 "
                          "bytes"));
  EXPECT_THAT(FlashProblems("mtd = 'pnor'"),
              ElementsAre("/dev/mtd1 has 0x200000000 bytes: give 'size'"));
  _system.AddFile(mtd + "flags", "0x800");
  EXPECT_THAT(FlashProblems(BMC), ElementsAre("/dev/mtd0 is read-only"));
  EXPECT_THAT(FlashProblems(BMC, "read_only = true"), IsEmpty());
  _system.AddFile(mtd + "erasesize", "131072");
  EXPECT_THAT(FlashProblems(BMC, "read_only = true"),
              ElementsAre("'sector_size' = 0x10000: /dev/mtd0 is erased in blocks of 0x20000 "
                          "bytes"));
  _system.AddFile(mtd + "numeraseregions", "2");
  EXPECT_THAT(FlashProblems(BMC), ElementsAre("/dev/mtd0 has sectors of several sizes"));
  _system.AddFile(mtd + "type", "nand");
  _system.AddFile(mtd + "writesize", "2048");
  EXPECT_THAT(FlashProblems(BMC),
              ElementsAre("/dev/mtd0 is no NOR flash but of type nand, written in 2048 bytes"));
}

TEST_F(ConfigurationCheckTest, FlashInUseIsTold) {
  _system.AddFile("/proc/mounts", "/dev/mtdblock0 / squashfs ro 0 0");
  EXPECT_THAT(FlashProblems(BMC), ElementsAre("/dev/mtd0 is in use: mounted on /"));
  EXPECT_THAT(FlashProblems(BMC, "read_only = true"), IsEmpty());
}

TEST_F(ConfigurationCheckTest, NodeThatIsNotThereIsTold) {
  _system.Forget("/dev/mtd0");
  EXPECT_THAT(FlashProblems(BMC),
              ElementsAre("/dev/mtd0 does not exist: is the module mtdchar loaded?"));
  _system.Forget("/dev/i2c-18");
  EXPECT_THAT(ChipProblems(BEHIND),
              ElementsAre("chip 0x50: /dev/i2c-18 does not exist: is the module i2c-dev loaded?"));
}

TEST_F(ConfigurationCheckTest, PartOfAFlashUnderTwoNamesIsTold) {
  const auto flash = [](const std::string& guid, const std::string& keys) {
    return "[[device]]\nnode_guid = '" + guid + "'\n[device.flash]\nsector_size = 0x1000\n" + keys +
           "\n";
  };
  const std::string first = flash("0x10", BMC + "\nsize = 0x2000");
  EXPECT_THAT(Problems(first + flash("0x20", "by_path = 'spi0.0'\nfirst = 0x1000")),
              ElementsAre("0x0000000000000020 (device): this part of /dev/mtd0 belongs to "
                          "0x0000000000000010 (device), too"));
  EXPECT_THAT(Problems(first + flash("0x20", "by_path = 'spi0.0'\nfirst = 0x2000")), IsEmpty());
}

TEST_F(ConfigurationCheckTest, ChipThatCannotBeReachedIsTold) {
  EXPECT_THAT(ChipProblems("adapter = 'none'"),
              ElementsAre(HasSubstr("chip 0x50: no I2C adapter is named \"none\"; there are: ")));
  _system.AddI2cDevice(18, 0x50, "24c64", "at24");
  const std::string owned =
      "chip 0x50: the driver at24 owns address 0x50 of /dev/i2c-18: unbind it, or say 'allow_bound "
      "= true'";
  EXPECT_THAT(ChipProblems(BEHIND), ElementsAre(owned));
  EXPECT_THAT(ChipProblems(BEHIND + "\nallow_bound = true"), IsEmpty());
}

TEST_F(ConfigurationCheckTest, MuxThatStaysConnectedIsTold) {
  EXPECT_THAT(ChipProblems(BEHIND + "\nidle_disconnect = true"),
              ElementsAre("chip 0x50: 'idle_disconnect' is true, but the mux at 0x70 stays "
                          "connected: write -2 to /sys/bus/i2c/devices/5-0070/idle_state"));
  _system.AddFile(std::string(FakeBoard::BUS) + "/i2c-5/5-0070/idle_state", "-2");
  EXPECT_THAT(ChipProblems(BEHIND + "\nidle_disconnect = true"), IsEmpty());
}

TEST_F(ConfigurationCheckTest, AddressOfTwoChipsUnderTwoNamesIsTold) {
  const std::string first = "[[device]]\nnode_guid = '0x10'\n" + Chip(BEHIND);
  const std::string second = "[[device]]\nnode_guid = '0x20'\n";
  EXPECT_THAT(Problems(first + second + Chip("adapter = '/dev/i2c-18'")),
              ElementsAre("0x0000000000000020 (device): chip 0x50: address 0x50 of this adapter "
                          "belongs to chip 0x50 of 0x0000000000000010 (device), too"));
  EXPECT_THAT(Problems(first + second + Chip("adapter = '/dev/i2c-5'")),
              ElementsAre(HasSubstr("and the mux at 0x70 may stay connected")));
  EXPECT_THAT(Problems(first + second + Chip("adapter = '/dev/i2c-19'")), IsEmpty());
}

TEST_F(ConfigurationCheckTest, FileThatCannotBeAMemoryIsTold) {
  const std::string keys = "file = '/data/f.bin'\nsize = 0x10000\nfirst = 0x10000";
  EXPECT_THAT(FlashProblems(keys), ElementsAre("/data/f.bin does not exist"));
  _system.AddPlainFile("/data/f.bin", 0x1ffff);
  EXPECT_THAT(FlashProblems(keys),
              ElementsAre("/data/f.bin has 0x1ffff bytes, the memory needs 0x20000"));
  _system.AddPlainFile("/data/f.bin", 0x20000);
  EXPECT_THAT(FlashProblems(keys), IsEmpty());
  EXPECT_THAT(FlashProblems("file = '/dev/mtd0'\nsize = 0x10000"),
              ElementsAre("/dev/mtd0 is no plain file"));
}

TEST_F(ConfigurationCheckTest, FileUnderTwoNamesIsTold) {
  _system.AddPlainFile("/data/f.bin", 0x10000);
  _system.AddLink("/data/link.bin", "/data/f.bin");
  EXPECT_THAT(Problems("[[device]]\nnode_guid = '0x10'\n[[device.chip]]\naddress = 1\nsize = 4\n"
                       "file = '/data/f.bin'\n[[device]]\nnode_guid = '0x20'\n[[device.chip]]\n"
                       "address = 1\nsize = 4\nfile = '/data/link.bin'\n"),
              ElementsAre("0x0000000000000020 (device): chip 0x1: /data/link.bin is the file of "
                          "0x0000000000000010 (device), too"));
}

TEST_F(ConfigurationCheckTest, ProgramAndFolderThatAreNotThereAreTold) {
  EXPECT_THAT(
      FlashProblems(BMC + "\nsize = 0x10000", "prepare = ['/bin/on']\nrelease = ['/bin/off']"),
      ElementsAre("'prepare': there is no /bin/on", "'release': there is no /bin/off"));
  EXPECT_THAT(Problems("[server]\naudit = '/log/audit.jsonl'\n[[device]]\nnode_guid = '0x10'\n"
                       "[device.flash]\nmtd = 'bmc'\nsector_size = 0x1000\n"),
              ElementsAre("'audit': the folder /log does not exist"));
}

}  // namespace
}  // namespace serve
