#include "serve/Configuration.h"

#include <gtest/gtest.h>

#include <random>

#include "common/ScratchFolder.h"
#include "common/Text.h"

namespace serve {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// A device that a flash or chips follow.
std::string Device(unsigned guid) {
  return common::Text("[[device]]\nnode_guid = '0x", std::hex, guid, "'\n");
}

const std::string FLASH =
    "[device.flash]\nfile = 'flash.bin'\nsize = 0x100000\n"
    "sector_size = 0x10000\n";
const std::string EEPROM = "[[device.chip]]\naddress = 0x50\nsize = 0x8000\n";
const std::string I2C = "adapter = 'bus', page = 64, offset_bits = 16";

/// A chip of 0x8000 bytes at 0x50, on an adapter, with more keys.
std::string Chip(const std::string& more = "", unsigned address = 0x50,
                 const std::string& size = "0x8000") {
  return common::Text("[[device.chip]]\naddress = ", address, "\nsize = ", size,
                      "\n[device.chip.i2c]\nadapter = 'bus'\npage = 64\noffset_bits = 16\n", more,
                      "\n");
}

class ConfigurationTest : public testing::Test {
 protected:
  Configuration Load(const std::string& text) {
    return LoadConfiguration(_folder.Write("serve.toml", text));
  }

  /// What is wrong with a file, without its path; "" where nothing is.
  std::string Refusal(const std::string& text) {
    try {
      Load(text);
    } catch (const ConfigurationError& error) {
      return std::string(error.what()).substr((_folder / "serve.toml").size());
    }
    return "";
  }
  /// The line and text of what is wrong with a file that ends in `text`, line 1 its first.
  std::string RefusalAfter(const std::string& before, const std::string& text) {
    const std::string refusal = Refusal(before + text);
    const std::size_t colon = refusal.find(':', 1);
    if (colon == std::string::npos) return refusal;
    const auto lines = std::ranges::count(before, '\n');
    return common::Text(":", std::stol(refusal.substr(1)) - lines, refusal.substr(colon));
  }

  common::ScratchFolder _folder;
};

TEST_F(ConfigurationTest, ServerHasUsualValues) {
  const Configuration usual = Load(Device(0x10) + FLASH);
  EXPECT_EQ(usual.host, "127.0.0.1");
  EXPECT_EQ(usual.port, 26519);
  EXPECT_TRUE(usual.allow.empty());
  EXPECT_EQ(usual.type, "IB");
  EXPECT_EQ(usual.multi_max, 64u);
  EXPECT_FALSE(usual.is_read_only);
  EXPECT_EQ(usual.audit, "");
  EXPECT_EQ(usual.state, "/run/fwpush-serve");
  EXPECT_EQ(usual.limits.connections, 64u);
  EXPECT_EQ(usual.limits.message_size, 1u << 20);
  EXPECT_EQ(usual.limits.idle, seconds(600));
}

TEST_F(ConfigurationTest, ServerTellsAll) {
  const Configuration config = Load(
      "[server]\nlisten = '0.0.0.0:7'\nallow = ['10.1.2.0/24', '127.0.0.1']\ntype = 'I2C'\n"
      "multi_max = 16\nread_only = true\naudit = 'logs/audit.jsonl'\nstate = '/run/other'\n"
      "max_connections = 3\nmax_message = 4096\nidle_seconds = 9\n" +
      Device(0x10) + FLASH);
  EXPECT_EQ(config.host, "0.0.0.0");
  EXPECT_EQ(config.port, 7);
  EXPECT_EQ(config.allow, (std::vector<std::string>{"10.1.2.0/24", "127.0.0.1"}));
  EXPECT_EQ(config.type, "I2C");
  EXPECT_EQ(config.multi_max, 16u);
  EXPECT_TRUE(config.is_read_only);
  EXPECT_EQ(config.audit, _folder / "logs/audit.jsonl");
  EXPECT_EQ(config.state, "/run/other");
  EXPECT_EQ(config.limits.connections, 3u);
  EXPECT_EQ(config.limits.message_size, 4096u);
  EXPECT_EQ(config.limits.idle, seconds(9));
}

TEST_F(ConfigurationTest, ServerIsRefused) {
  const std::string after = Device(0x10) + FLASH;
  const std::string unlisted =
      ":2: 'listen' is not loopback: 'allow' must say which addresses may connect";
  const std::pair<std::string, std::string> cases[] = {
      {"listen = '0.0.0.0:1'", unlisted},
      {"listen = '0.0.0.0:1'\nallow = []", unlisted},
      {"listen = '192.168.1.127:1'", unlisted},
      {"listen = 'gateway:1'", unlisted},
      {"listen = '127.0.0.1'", ":2: 'listen' must be HOST:PORT"},
      {"listen = '127.0.0.1:65536'", ":2: 'listen' must be HOST:PORT"},
      {"allow = '10.0.0.0/8'", ":2: 'allow' must be an array of strings"},
      {"allow = ['10.0.0.0/33']",
       ":2: 'allow': \"10.0.0.0/33\" is not an IPv4 address or network such as 10.1.2.0/24"},
      {"type = 'USB'", ":1: 'type' must be I2C, PCI, PPC or IB"},
      {"multi_max = 0", ":2: 'multi_max' must be a number from 1 to 1000000"},
      {"read_only = 1", ":2: 'read_only' must be true or false"},
      {"audit = ''", ":2: 'audit' must not be empty"},
      {"audit = 'serve.toml'", ":2: 'audit' is the configuration itself"},
      {"state = 5", ":2: 'state' must be a string"},
      {"max_connections = 0", ":2: 'max_connections' must be a number from 1 to 65535"},
      {"max_message = 1023", ":2: 'max_message' must be a number from 1024 to 268435456"},
      {"idle_seconds = 0", ":2: 'idle_seconds' must be a number from 1 to 10000000"},
      {"interface_version = '2.2'", ":2: unknown key 'interface_version'"},
  };
  for (const auto& [text, refusal] : cases) {
    EXPECT_EQ(Refusal("[server]\n" + text + "\n" + after), refusal) << text;
  }
  for (const char* host : {"localhost", "127.0.0.1", "127.255.0.3"}) {
    EXPECT_EQ(Refusal("[server]\nlisten = '" + std::string(host) + ":1'\n" + after), "") << host;
  }
}

TEST_F(ConfigurationTest, FileWithoutDevicesIsRefused) {
  EXPECT_EQ(Refusal(""), ": no [[device]]");
  EXPECT_EQ(Refusal("[[fault]]\nkind = 'cut'\n"), ":1: unknown key 'fault'");
  EXPECT_TRUE(Refusal("x = 1\na =\n").starts_with(":2: "));
  EXPECT_THROW(LoadConfiguration(_folder / "missing.toml"), ConfigurationError);
}

TEST_F(ConfigurationTest, DeviceHasUsualValues) {
  const Configuration config = Load(Device(0x10) + FLASH);
  ASSERT_EQ(config.devices.size(), 1u);
  const DeviceConfig& device = config.devices[0];
  EXPECT_EQ(device.facts.node_guid, 0x10u);
  EXPECT_EQ(device.facts.port_guids, protocol::Guids{0x10});
  EXPECT_EQ(device.facts.declared_ports, 1u);
  EXPECT_EQ(device.facts.sys_guid, 0x10u);
  EXPECT_FALSE(device.write.has_value());
  EXPECT_FALSE(device.is_read_only);
  EXPECT_TRUE(device.prepare.empty());
  EXPECT_TRUE(device.release.empty());
  EXPECT_EQ(device.hook_limit, seconds(60));
  ASSERT_TRUE(device.flash && device.flash->file);
  EXPECT_FALSE(device.flash->mtd.has_value());
  EXPECT_EQ(device.flash->first, 0u);
  EXPECT_EQ(device.flash->page_size, 256u);
  EXPECT_EQ(device.flash->file->path, _folder / "flash.bin");
  EXPECT_TRUE(device.flash->file->only_clears_bits);
  EXPECT_TRUE(device.flash->file->syncs);
}

TEST_F(ConfigurationTest, DeviceTellsAll) {
  const Configuration config =
      Load(Device(0x10) +
           "port_guids = ['0x11', '0x12']\nsystem_guid = '0x13'\nname = 'spine-1'\n"
           "attribute = 'rev-a'\nbsn = 'S1'\nvsd = '0x01'\nread_only = true\n"
           "write = [[0x10000, 0x1ffff], [0, 0]]\nprepare = ['/bin/on', '']\n"
           "release = ['/bin/off']\nhook_seconds = 7\n" +
           FLASH + "first = 0x20000\npage_size = 512\nclears_bits = false\nsync = false\n");
  const DeviceConfig& device = config.devices.at(0);
  EXPECT_EQ(device.facts.port_guids, (protocol::Guids{0x11, 0x12}));
  EXPECT_EQ(device.facts.declared_ports, 2u);
  EXPECT_EQ(device.facts.sys_guid, 0x13u);
  EXPECT_EQ(device.facts.name, "spine-1");
  EXPECT_EQ(device.facts.attr, "rev-a");
  EXPECT_EQ(device.facts.bsn[1], '1');
  EXPECT_EQ(device.facts.vsd[0], 1);
  EXPECT_TRUE(device.is_read_only);
  ASSERT_TRUE(device.write && device.write->size() == 2);
  EXPECT_EQ(device.write->at(0).first, 0x10000u);
  EXPECT_EQ(device.write->at(0).last, 0x1ffffu);
  EXPECT_EQ(device.write->at(1).last, 0u);
  EXPECT_EQ(device.prepare, (std::vector<std::string>{"/bin/on", ""}));
  EXPECT_EQ(device.release, std::vector<std::string>{"/bin/off"});
  EXPECT_EQ(device.hook_limit, seconds(7));
  EXPECT_EQ(device.flash->size, 0x100000u);
  EXPECT_EQ(device.flash->sector_size, 0x10000u);
  EXPECT_EQ(device.flash->first, 0x20000u);
  EXPECT_EQ(device.flash->page_size, 512u);
  EXPECT_FALSE(device.flash->file->only_clears_bits);
  EXPECT_FALSE(device.flash->file->syncs);
}

TEST_F(ConfigurationTest, DeviceIsRefused) {
  const std::pair<std::string, std::string> cases[] = {
      {"declared_ports = 1", ":3: unknown key 'declared_ports'"},
      {"port_guids = []", ":1: a device must have a port"},
      {"name = 'two words'", ":1: a device's name and attribute must each be one word"},
      {"write = [[2, 1]]", ":3: 'write': 0x2 is after 0x1"},
      {"write = [[0, 0xfffff],\n[0, 0x100000]]",
       ":4: 'write': 0x100000 is past the end of the memory, which has 0x100000 bytes"},
      {"write = [[0]]", ":3: 'write' must be an array of arrays of 2 numbers from 0 to 4294967295"},
      {"prepare = []", ":3: 'prepare' must begin with the absolute path of a program"},
      {"prepare = ['on']", ":3: 'prepare' must begin with the absolute path of a program"},
      {"release = '/bin/off'", ":3: 'release' must be an array of strings"},
      {"release = ['']", ":3: 'release' must begin with the absolute path of a program"},
      {"hook_seconds = 0", ":3: 'hook_seconds' must be a number from 1 to 3600"},
      {"hook_seconds = 3601", ":3: 'hook_seconds' must be a number from 1 to 3600"},
      {"read_only = 'no'", ":3: 'read_only' must be true or false"},
      {"chip = [{ address = 0x50, size = 4, file = 'e.bin' }]",
       ":1: a device has either a [device.flash] or [[device.chip]]s"},
  };
  for (const auto& [text, refusal] : cases) {
    EXPECT_EQ(Refusal(Device(0x10) + text + "\n" + FLASH), refusal) << text;
  }
  EXPECT_EQ(Refusal(Device(0x10)), ":1: a device has either a [device.flash] or [[device.chip]]s");
  EXPECT_EQ(Refusal("[[device]]\n" + FLASH), ":1: 'node_guid' is missing");
}

TEST_F(ConfigurationTest, NothingMayBeWrittenWhereTheListIsEmpty) {
  const auto config = Load(Device(0x10) + "write = []\n" + FLASH);
  ASSERT_TRUE(config.devices[0].write.has_value());
  EXPECT_TRUE(config.devices[0].write->empty());
}

TEST_F(ConfigurationTest, GuidOfTwoDevicesIsRefused) {
  const std::string chip = "chip = [{ address = 0x50, size = 4, file = 'e.bin' }]\n";
  EXPECT_EQ(RefusalAfter(Device(0x10) + "port_guids = ['0x11']\n" + FLASH, Device(0x11) + chip),
            ":1: GUID 0x0000000000000011 stands for two devices");
  EXPECT_EQ(Refusal(Device(0x10) + "port_guids = ['0x11', '0x11']\n" + FLASH),
            ":1: two ports with one GUID");
}

TEST_F(ConfigurationTest, MtdTellsAll) {
  const Configuration config =
      Load(Device(0x10) + "write = [[0, 0xffffffff]]\n" +
           "[device.flash]\nmtd = 'pnor'\nby_path = 'spi1.0'\nsector_size = 0x10000\n"
           "first = 0x100000000\nexpect = { jedec = 'C2253a', size = 0x200000000 }\n");
  const FlashConfig& flash = *config.devices.at(0).flash;
  EXPECT_FALSE(flash.file.has_value());
  EXPECT_EQ(flash.size, 0u);
  EXPECT_EQ(flash.first, 0x100000000u);
  ASSERT_TRUE(flash.mtd.has_value());
  EXPECT_EQ(flash.mtd->name, "pnor");
  EXPECT_EQ(flash.mtd->by_path, "spi1.0");
  EXPECT_EQ(flash.mtd->jedec, "c2253a");
  EXPECT_EQ(flash.mtd->expected_size, 0x200000000u);
}

TEST_F(ConfigurationTest, FlashIsRefused) {
  const std::string is_either =
      ":1: a flash is either an MTD device, by 'mtd' or 'by_path', or a 'file'";
  const std::string sectors = "sector_size = 0x1000\n";
  const std::string mtd = "mtd = 'pnor'\n";
  const std::string file = "file = 'f.bin'\n";
  const std::string jedec = ":4: 'jedec' must be hexadecimal digits such as \"c2253a\"";
  const std::pair<std::string, std::string> cases[] = {
      {sectors, is_either},
      {mtd + file + sectors, is_either},
      {mtd, ":1: 'sector_size' is missing"},
      {mtd + "sector_size = 0x3000", ":3: 'sector_size' must be a power of 2"},
      {mtd + "sector_size = 2", ":3: 'sector_size' must be a number from 4 to 16777216"},
      {mtd + "sector_size = 0x2000000", ":3: 'sector_size' must be a number from 4 to 16777216"},
      {file + sectors, ":1: 'size' is missing"},
      {file + sectors + "size = 0x1800", ":4: 'size' must be a whole number of sectors"},
      {file + sectors + "size = 0x80001000", ":4: 'size' must be a number from 4 to 2147483648"},
      {mtd + sectors + "first = 0x800", ":4: 'first' must be a whole number of sectors"},
      {mtd + sectors + "first = -1", ":4: 'first' must be a number from 0 to 1099511627776"},
      {mtd + sectors + "page_size = 48", ":4: 'page_size' must be a power of 2"},
      {mtd + sectors + "page_size = 8192", ":4: 'page_size' must be a number from 1 to 4096"},
      {mtd + "sector_size = 0x80\npage_size = 256", ":4: 'page_size' is more than a sector"},
      {mtd + sectors + "clears_bits = true", ":4: 'clears_bits' is for a 'file' only"},
      {mtd + sectors + "sync = false", ":4: 'sync' is for a 'file' only"},
      {file + sectors + "expect = { size = 0x1000 }\nsize = 0x1000",
       ":4: 'expect' is for an MTD device only"},
      {mtd + sectors + "expect = { jedec = 'c225' }", jedec},
      {mtd + sectors + "expect = { jedec = 'c2253' }", jedec},
      {mtd + sectors + "expect = { jedec = '0xc225' }", jedec},
      {mtd + sectors + "expect = { size = 0x1000, name = 'x' }", ":4: unknown key 'name'"},
      {mtd + sectors + "expect = { size = 0x2000 }\nfirst = 0x2000",
       ":5: the flash ends past the 0x2000 bytes of 'expect'"},
      {mtd + sectors + "expect = { size = 0x2000 }\nfirst = 0x1000\nsize = 0x2000",
       ":6: the flash ends past the 0x2000 bytes of 'expect'"},
      {"mtd = ''\n" + sectors, ":2: 'mtd' must not be empty"},
      {"by_path = ''\n" + sectors, ":2: 'by_path' must not be empty"},
      {"file = ''\n" + sectors, ":2: 'file' must not be empty"},
      {"file = './x/../serve.toml'\nsize = 0x1000\n" + sectors,
       ":2: 'file' is the configuration itself"},
      {mtd + sectors + "erase_size = 4096", ":4: unknown key 'erase_size'"},
  };
  for (const auto& [text, refusal] : cases) {
    EXPECT_EQ(RefusalAfter(Device(0x10), "[device.flash]\n" + text + "\n"), refusal) << text;
  }
}

TEST_F(ConfigurationTest, AFlashThatAppearsLaterNeedsASize) {
  const std::string prepare = "prepare = ['/bin/on']\n";
  const std::string flash = "[device.flash]\nmtd = 'a'\nsector_size = 0x1000\n";
  EXPECT_EQ(RefusalAfter(Device(0x10), prepare + flash),
            ":1: a flash that 'prepare' makes appear needs a 'size', here or in 'expect'");
  EXPECT_EQ(Load(Device(0x10) + prepare + flash + "size = 0x2000\n").devices[0].flash->size,
            0x2000u);
  EXPECT_EQ(Load(Device(0x10) + prepare + flash + "expect = { size = 0x4000 }\nfirst = 0x1000\n")
                .devices[0]
                .flash->size,
            0x3000u);
}

TEST_F(ConfigurationTest, PageOfASmallSectorIsTheSector) {
  const auto config = Load(Device(0x10) + "[device.flash]\nmtd = 'a'\nsector_size = 0x40\n");
  EXPECT_EQ(config.devices[0].flash->page_size, 0x40u);
}

TEST_F(ConfigurationTest, MtdMayBeSharedInPartsThatDoNotOverlap) {
  const auto flash = [](unsigned guid, const std::string& text) {
    return Device(guid) + "[device.flash]\nmtd = 'pnor'\nsector_size = 0x1000\n" + text + "\n";
  };
  const std::string refusal = ":3: this part of the MTD device belongs to 0x0000000000000010, too";
  const std::string lower = flash(0x10, "size = 0x2000");
  EXPECT_EQ(Refusal(lower + flash(0x20, "first = 0x2000")), "");
  EXPECT_EQ(RefusalAfter(lower, flash(0x20, "first = 0x1000")), refusal);
  EXPECT_EQ(RefusalAfter(lower, flash(0x20, "size = 0x1000")), refusal);
  EXPECT_EQ(RefusalAfter(flash(0x10, ""), flash(0x20, "first = 0x10000")), refusal);
  EXPECT_EQ(Refusal(lower + flash(0x20, "by_path = 'spi1.0'")), "");
}

TEST_F(ConfigurationTest, FileBelongsToOneMemory) {
  const std::string chip = "[[device.chip]]\nsize = 0x100\nfile = 'x/../flash.bin'\naddress = ";
  EXPECT_EQ(RefusalAfter(Device(0x10) + FLASH, Device(0x20) + chip + "0x50\n"),
            ":5: 'file' is the file of 0x0000000000000010, too");
  EXPECT_EQ(RefusalAfter(Device(0x20) + chip + "0x50\n", chip + "0x51\n"),
            ":3: 'file' is the file of chip 0x50 of 0x0000000000000020, too");
  EXPECT_EQ(RefusalAfter("[server]\naudit = 'flash.bin'\n" + Device(0x10), FLASH),
            ":2: 'file' is the file of the audit log, too");
}

TEST_F(ConfigurationTest, FileBelongsToOneMemoryByAnyName) {
  _folder.Write("flash.bin", "");
  std::filesystem::create_symlink("flash.bin", _folder / "link");
  std::filesystem::create_hard_link(_folder / "flash.bin", _folder / "hard");
  for (const std::string name : {"link", "hard"}) {
    const std::string chip =
        "[[device.chip]]\nsize = 0x100\naddress = 0x50\nfile = '" + name + "'\n";
    EXPECT_EQ(RefusalAfter(Device(0x10) + FLASH, Device(0x20) + chip),
              ":6: 'file' is the file of 0x0000000000000010, too");
    EXPECT_EQ(RefusalAfter("[server]\naudit = '" + name + "'\n" + Device(0x10), FLASH),
              ":2: 'file' is the file of the audit log, too");
  }
}

TEST_F(ConfigurationTest, NoMemoryIsInTheFolderOfLeases) {
  const std::string chip =
      "[[device.chip]]\nsize = 0x100\naddress = 0x50\nfile = 'state/0x0000000000000010.lease'\n";
  EXPECT_EQ(RefusalAfter("[server]\nstate = './state'\n" + Device(0x20), chip),
            ":4: 'file' is in the folder 'state', where the server's files are");
}

TEST_F(ConfigurationTest, TheExampleIsServed) {
  const auto example = std::filesystem::path(DOCUMENTS).parent_path() / "examples/serve.toml";
  const Configuration config = LoadConfiguration(example);
  ASSERT_EQ(config.devices.size(), 2u);
  EXPECT_EQ(config.devices[0].flash->size, 0x200000u);
  EXPECT_EQ(config.devices[1].eeproms.size(), 2u);
}

TEST_F(ConfigurationTest, ChipHasUsualValues) {
  const Configuration config = Load(Device(0x10) + Chip());
  const EepromConfig& chip = config.devices.at(0).eeproms.at(0x50);
  EXPECT_EQ(chip.size, 0x8000u);
  EXPECT_FALSE(chip.file.has_value());
  ASSERT_TRUE(chip.i2c.has_value());
  EXPECT_EQ(chip.i2c->adapter, (AdapterConfig{.adapter = "bus", .muxes = {}}));
  EXPECT_EQ(chip.i2c->address, 0x50);
  EXPECT_EQ(chip.i2c->page, 64u);
  EXPECT_EQ(chip.i2c->offset_bits, 16u);
  EXPECT_EQ(chip.i2c->bank_bit, 0u);
  EXPECT_EQ(chip.i2c->write_limit, milliseconds(50));
  EXPECT_FALSE(chip.i2c->allow_bound);
  EXPECT_FALSE(chip.i2c->idle_disconnect);
  EXPECT_EQ(chip.i2c->max_write, 8192u);
  EXPECT_EQ(chip.i2c->max_read, 8192u);
}

TEST_F(ConfigurationTest, ChipTellsAll) {
  const Configuration config = Load(
      Device(0x10) +
      "[[device.chip]]\naddress = 0xa0\nsize = 0x20000\n[device.chip.i2c]\nadapter = '/dev/i2c-3'\n"
      "mux = [[0x70, 2], [0x71, 5]]\naddress = 0x51\npage = 256\noffset_bits = 16\nbank_bit = 2\n"
      "write_ms = 20\nallow_bound = true\nidle_disconnect = true\nmax_write = 32\nmax_read = 31\n"
      "[[device.chip]]\naddress = 0\nsize = 256\nfile = '/data/e.bin'\n");
  const I2cConfig& i2c = *config.devices.at(0).eeproms.at(0xa0).i2c;
  EXPECT_EQ(i2c.adapter, (AdapterConfig{.adapter = "/dev/i2c-3", .muxes = {{0x70, 2}, {0x71, 5}}}));
  EXPECT_EQ(i2c.address, 0x51);
  EXPECT_EQ(i2c.page, 256u);
  EXPECT_EQ(i2c.bank_bit, 2u);
  EXPECT_EQ(i2c.write_limit, milliseconds(20));
  EXPECT_TRUE(i2c.allow_bound);
  EXPECT_TRUE(i2c.idle_disconnect);
  EXPECT_EQ(i2c.max_write, 32u);
  EXPECT_EQ(i2c.max_read, 31u);
  EXPECT_EQ(AddressesOf(i2c, 0x20000), (std::vector<std::uint16_t>{0x51, 0x55}));
  const EepromConfig& file = config.devices[0].eeproms.at(0);
  EXPECT_FALSE(file.i2c.has_value());
  EXPECT_EQ(file.file->path, "/data/e.bin");
  EXPECT_FALSE(file.file->only_clears_bits);
}

TEST_F(ConfigurationTest, ChipIsRefused) {
  const std::string chip = "[[device.chip]]\naddress = 0x50\nsize = 0x8000\n";
  const std::string either = ":1: a chip is either on an adapter, by 'i2c', or a 'file'";
  const auto i2c = [&](const std::string& keys) { return chip + "i2c = { " + keys + " }"; };
  const auto with = [&](const std::string& keys) { return i2c(I2C + ", " + keys); };
  const auto no_address = [](const std::string& key, const std::string& address) {
    return ":4: '" + key + "': " + address +
           " is no address of a chip on a wire: they are 0x8 to "
           "0x77";
  };
  const std::pair<std::string, std::string> cases[] = {
      {chip, either},
      {chip + "file = 'e.bin'\ni2c = { adapter = 'bus' }", either},
      {"[[device.chip]]\nsize = 4", ":1: 'address' is missing"},
      {"[[device.chip]]\naddress = 256", ":2: 'address' must be a number from 0 to 255"},
      {"[[device.chip]]\naddress = 1", ":1: 'size' is missing"},
      {chip + "file = 'e.bin'\npage = 64", ":5: unknown key 'page'"},
      {i2c("page = 64, offset_bits = 16"), ":4: 'adapter' is missing"},
      {i2c("adapter = '', page = 64, offset_bits = 16"), ":4: 'adapter' must not be empty"},
      {i2c("adapter = 'bus', offset_bits = 16"), ":4: 'page' is missing"},
      {i2c("adapter = 'bus', page = 64"), ":4: 'offset_bits' is missing"},
      {i2c("adapter = 'bus', page = 48, offset_bits = 16"), ":4: 'page' must be a power of 2"},
      {i2c("adapter = 'bus', page = 512, offset_bits = 16"),
       ":4: 'page' must be a number from 1 to 256"},
      {i2c("adapter = 'bus', page = 0, offset_bits = 16"),
       ":4: 'page' must be a number from 1 to 256"},
      {"[[device.chip]]\naddress = 0x50\nsize = 32\ni2c = { " + I2C + " }",
       ":4: 'page' is more than the chip"},
      {i2c("adapter = 'bus', page = 64, offset_bits = 12"), ":4: 'offset_bits' must be 8 or 16"},
      {i2c("adapter = 'bus', page = 16, offset_bits = 8"),
       ":4: a chip of 0x8000 bytes is too large for 'offset_bits' = 8 and the address bits from 0 "
       "on: at most 0x800 bytes"},
      {"[[device.chip]]\naddress = 0x50\nsize = 0x40000\ni2c = { " + I2C + ", bank_bit = 2 }",
       ":4: a chip of 0x40000 bytes is too large for 'offset_bits' = 16 and the address bits from "
       "2 on: at most 0x20000 bytes"},
      {"[[device.chip]]\naddress = 0x51\nsize = 0x20000\ni2c = { " + I2C + " }",
       ":4: 'address': the bits 0x1 of 0x51 choose a bank of the chip: they must be 0"},
      {with("bank_bit = 3"), ":4: 'bank_bit' must be a number from 0 to 2"},
      {with("address = 7"), no_address("address", "0x7")},
      {with("address = 0x78"), no_address("address", "0x78")},
      {"[[device.chip]]\naddress = 0xa0\nsize = 64\ni2c = { " + I2C + " }",
       no_address("address", "0xa0")},
      {with("mux = [[0x3, 0]]"), no_address("mux", "0x3")},
      {with("mux = [0x70, 0]"), ":4: 'mux' must be an array of arrays of 2 numbers from 0 to 255"},
      {with("mux = [[0x70, 0]], address = 0x70"),
       ":4: the mux at 0x70 on the way to the chip has its address"},
      {with("write_ms = 0"), ":4: 'write_ms' must be a number from 1 to 10000"},
      {with("allow_bound = 1"), ":4: 'allow_bound' must be true or false"},
      {with("idle_disconnect = true"), ":4: 'idle_disconnect' is for a chip behind a 'mux' only"},
      {with("max_write = 2"), ":4: 'max_write' must be a number from 3 to 8192"},
      {with("max_read = 0"), ":4: 'max_read' must be a number from 1 to 8192"},
      {with("max_read = 8193"), ":4: 'max_read' must be a number from 1 to 8192"},
      {with("speed = 400"), ":4: unknown key 'speed'"},
      {chip + "file = 'e.bin'\n" + chip + "file = 'g.bin'", ":6: two chips at address 0x50"},
  };
  for (const auto& [text, refusal] : cases) {
    EXPECT_EQ(RefusalAfter(Device(0x10), text + "\n"), refusal) << text;
  }
}

TEST_F(ConfigurationTest, BanksHaveAddressesOfTheirOwn) {
  const auto config = Load(Device(0x10) +
                           "[[device.chip]]\naddress = 0x50\nsize = 0x800\n"
                           "i2c = { adapter = 'bus', page = 16, offset_bits = 8 }\n");
  EXPECT_EQ(AddressesOf(*config.devices[0].eeproms.at(0x50).i2c, 0x800),
            (std::vector<std::uint16_t>{0x50, 0x51, 0x52, 0x53, 0x54, 0x55, 0x56, 0x57}));
}

TEST_F(ConfigurationTest, AddressOfTwoChipsIsRefused) {
  const std::string first = Device(0x10) + Chip();
  EXPECT_EQ(RefusalAfter(first, Device(0x20) + Chip()),
            ":6: address 0x50 of this adapter belongs to chip 0x50 of 0x0000000000000010, too");
  EXPECT_EQ(RefusalAfter(first, Chip("address = 0x50", 0x51)),
            ":8: address 0x50 of this adapter belongs to chip 0x50 of 0x0000000000000010, too");
  EXPECT_EQ(Refusal(first + Device(0x20) + Chip("address = 0x51")), "");
  // The second bank of the first chip.
  EXPECT_EQ(RefusalAfter(Device(0x10) + Chip("", 0x50, "0x20000"), Chip("", 0x51)),
            ":4: address 0x51 of this adapter belongs to chip 0x50 of 0x0000000000000010, too");
}

TEST_F(ConfigurationTest, ChipsOnBothSidesOfAMuxMustNotAnswerTogether) {
  const std::string before = Device(0x10) + Chip();
  const auto behind = [](const std::string& way, const std::string& more = "") {
    return Device(0x20) + Chip("mux = " + way + "\n" + more);
  };
  const auto refusal = [](const std::string& mux) {
    return " address 0x50 is that of chip 0x50 of 0x0000000000000010, too, and the mux at " + mux +
           " may stay connected: both would answer. If it disconnects when it is idle, say "
           "'idle_disconnect = true' for the chip behind it";
  };
  EXPECT_EQ(RefusalAfter(before, behind("[[0x70, 0]]")), ":6:" + refusal("0x70"));
  EXPECT_EQ(Refusal(before + behind("[[0x70, 0]]", "idle_disconnect = true")), "");
  EXPECT_EQ(Refusal(before + Device(0x20) + Chip("mux = [[0x70, 0]]", 0x51)), "");
  // Channels of one mux are never connected together.
  const std::string channel = Device(0x10) + Chip("mux = [[0x70, 0]]");
  EXPECT_EQ(Refusal(channel + behind("[[0x70, 1]]")), "");
  // Those of two are.
  EXPECT_EQ(RefusalAfter(channel, behind("[[0x71, 0]]")), ":6:" + refusal("0x71"));
  EXPECT_EQ(RefusalAfter(channel, behind("[[0x71, 0]]", "idle_disconnect = true")),
            ":6:" + refusal("0x70"));
  EXPECT_EQ(Refusal(Device(0x10) + Chip("mux = [[0x70, 0]]\nidle_disconnect = true") +
                    behind("[[0x71, 0]]", "idle_disconnect = true")),
            "");
  // A mux behind a mux.
  EXPECT_EQ(RefusalAfter(channel, behind("[[0x70, 0], [0x71, 3]]")), ":6:" + refusal("0x71"));
}

TEST_F(ConfigurationTest, MuxKeepsItsAddressForItself) {
  const std::string at = Device(0x10) + Chip("address = 0x70", 0x70);
  const std::string behind = Device(0x20) + Chip("mux = [[0x70, 0]]");
  EXPECT_EQ(RefusalAfter(at, behind),
            ":6: the mux at 0x70 has the address of chip 0x70 of "
            "0x0000000000000010");
  EXPECT_EQ(RefusalAfter(behind, at),
            ":10: the mux at 0x70 on the way to chip 0x50 of 0x0000000000000020 has its address");
}

/// Files that are damaged in one or several places are read or refused, whatever that makes of
/// them.
TEST_F(ConfigurationTest, MangledFileIsReadOrRefused) {
  const std::string whole =
      "[server]\nlisten = '127.0.0.1:26519'\nallow = ['10.1.2.0/24']\ntype = 'IB'\nmulti_max = 64\n"
      "read_only = false\naudit = 'a.jsonl'\nstate = 'run'\nmax_connections = 3\n"
      "max_message = 4096\nidle_seconds = 9\n" +
      Device(0x10) +
      "port_guids = ['0x11', '0x12']\nname = 'leaf-1'\nvsd = '0x0102'\nwrite = [[0, 0xff]]\n"
      "prepare = ['/bin/on', 'x']\nhook_seconds = 5\n" +
      Chip("mux = [[0x70, 0]]\naddress = 0x51\nbank_bit = 0\nwrite_ms = 5\nmax_write = 66\n") +
      Device(0x20) + FLASH + Device(0x30) +
      "[device.flash]\nmtd = 'pnor'\nby_path = 'spi1.0'\nsector_size = 0x1000\n"
      "expect = { jedec = 'c2253a', size = 0x4000000 }\nfirst = 0x1000\nsize = 0x2000\n";
  ASSERT_EQ(Refusal(whole), "");
  const std::string pieces[] = {"-1",
                                "0",
                                "0xffffffffffffffff",
                                "0x7fffffffffffffff",
                                "''",
                                "[]",
                                "[[]]",
                                "[[0, 0]]",
                                "{}",
                                "=",
                                "true",
                                "[device.flash]",
                                "\n",
                                "'",
                                "1e400",
                                "1979-05-27",
                                "\xFF",
                                "#",
                                "[[device.chip]]",
                                "0x80000000"};
  std::mt19937 random(20);
  const auto below = [&](std::size_t count) { return random() % count; };
  unsigned read = 0;
  unsigned refused = 0;
  for (int i = 0; i < 500; ++i) {
    std::string text = whole;
    for (std::size_t change = 0; change <= below(3); ++change) {
      const std::size_t at = below(text.size());
      switch (below(4)) {
        case 0:
          text[at] = static_cast<char>(random());
          break;
        case 1:
          text.erase(at, below(20));
          break;
        case 2:
          text.insert(at, pieces[below(std::size(pieces))]);
          break;
        default: {
          // Another value in the place of one.
          const std::size_t equals = text.find("= ", at);
          if (equals == std::string::npos) break;
          const std::size_t end = text.find('\n', equals);
          text.replace(equals + 2, end - equals - 2, pieces[below(std::size(pieces))]);
        }
      }
    }
    const std::string file = _folder.Write("serve.toml", text);
    try {
      const Configuration config = LoadConfiguration(file);
      ++read;
      EXPECT_FALSE(config.devices.empty());
      for (const DeviceConfig& device : config.devices) {
        EXPECT_NE(device.flash.has_value(), !device.eeproms.empty());
        for (const auto& [address, chip] : device.eeproms) {
          if (!chip.i2c) continue;
          for (const std::uint16_t wire : AddressesOf(*chip.i2c, chip.size)) {
            EXPECT_LE(wire, 0x77) << text;
          }
        }
      }
    } catch (const ConfigurationError& error) {
      ++refused;
      EXPECT_TRUE(std::string(error.what()).starts_with(file + ":")) << error.what();
    }
  }
  EXPECT_GT(read, 5u);
  EXPECT_GT(refused, 300u);
}

}  // namespace
}  // namespace serve
