#include "serve/Configuration.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <functional>
#include <limits>
#include <set>
#include <string_view>

#include "common/Text.h"
#include "common/TomlReader.h"
#include "protocol/FactsFile.h"
#include "protocol/Peers.h"
#include "serve/Places.h"

namespace serve {

namespace {

namespace fs = std::filesystem;
using common::HexText;
using common::Text;
using common::TomlError;
using common::TomlReader;

constexpr std::uint32_t MAX_SIZE = std::uint32_t{1} << 31;    ///< bytes of a memory
constexpr std::uint32_t MAX_SECTOR = std::uint32_t{1} << 24;  ///< bytes
constexpr std::uint32_t MAX_FLASH_PAGE = 4096;                ///< bytes
constexpr std::uint32_t USUAL_FLASH_PAGE = 256;               ///< bytes
constexpr std::uint64_t MAX_WINDOW = std::uint64_t{1} << 40;  ///< bytes of an MTD device
constexpr std::uint32_t MAX_EEPROM_PAGE = 256;                ///< bytes
constexpr std::uint32_t FIRST_ADDRESS = 0x08;                 ///< of 7 bits that chips have
constexpr std::uint32_t LAST_ADDRESS = 0x77;
/// Of an EEPROM's address, the bits that choose among the chips on a wire, or a bank of one chip.
constexpr std::uint32_t BANK_BITS = 3;
constexpr std::uint32_t MAX_TRANSFER = 8192;  ///< bytes that the kernel takes in one message

/// A text that may not be empty.
std::optional<std::string> FullString(TomlReader& reader, std::string_view key) {
  auto text = reader.String(key);
  if (text && text->empty()) reader.ThrowAt(key, Text("'", key, "' must not be empty"));
  return text;
}

std::optional<fs::path> ReadPath(TomlReader& reader, std::string_view key) {
  const auto text = FullString(reader, key);
  if (!text) return {};
  return reader.Path(*text).lexically_normal();
}

void CheckPowerOfTwo(const TomlReader& reader, std::string_view key, std::uint32_t value) {
  if (!std::has_single_bit(value)) {
    reader.ThrowAt(key, Text("'", key, "' must be a power of 2"));
  }
}

/// Reads a file, and remembers what it has claimed for the devices so far.
/// The path without links, as far as it exists.
fs::path Real(const fs::path& path) {
  std::error_code error;
  const fs::path real = fs::weakly_canonical(path, error);
  return error ? path.lexically_normal() : real;
}

/// The same text for all names of a file, hard links included.
std::string NameOfFile(const fs::path& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) return Text(status.st_dev, ":", status.st_ino);
  return Real(path).string();
}

class Loader {
 public:
  explicit Loader(const fs::path& path) : _path(path) {}

  Configuration Load() {
    TomlReader reader(_path);
    if (auto server = reader.Table("server")) ReadServer(*server);
    for (TomlReader& device : reader.Tables("device")) ReadDevice(device);
    reader.Finish();
    if (_configuration.devices.empty()) throw TomlError(_path.string() + ": no [[device]]");
    return std::move(_configuration);
  }

 private:
  /// A part of an MTD device.
  struct Window {
    MtdConfig mtd;
    std::uint64_t first;
    std::uint64_t end;
    std::string owner;
  };
  struct ClaimedPlace {
    I2cPlace place;
    std::string owner;
  };

  void ReadServer(TomlReader& reader) {
    Configuration& server = _configuration;
    const auto listen = reader.String("listen");
    if (listen) {
      auto address = common::ParseHostPort(*listen);
      if (!address) reader.ThrowAt("listen", "'listen' must be HOST:PORT");
      std::tie(server.host, server.port) = std::move(*address);
    }
    server.allow = reader.Strings("allow").value_or(server.allow);
    try {
      protocol::ParseNetworks(server.allow);
    } catch (const std::invalid_argument& error) {
      reader.ThrowAt("allow", Text("'allow': ", error.what()));
    }
    if (!IsLoopback(server.host) && server.allow.empty()) {
      reader.ThrowAt("listen",
                     "'listen' is not loopback: 'allow' must say which addresses may connect");
    }
    server.type = protocol::ReadServerType(reader).value_or(server.type);
    server.multi_max = protocol::ReadMultiMax(reader).value_or(server.multi_max);
    server.is_read_only = reader.Bool("read_only").value_or(false);
    server.audit = ReadPath(reader, "audit").value_or(server.audit);
    server.state = ReadPath(reader, "state").value_or(server.state);
    Limits& limits = server.limits;
    limits.connections = reader.Number("max_connections", 1, 65535).value_or(limits.connections);
    limits.message_size = reader.Number("max_message", 1024, 1 << 28).value_or(limits.message_size);
    if (const auto idle = reader.Number("idle_seconds", 1, 10000000)) {
      limits.idle = std::chrono::seconds(*idle);
    }
    reader.Finish();
    ClaimFile(reader, "audit", server.audit, "the audit log");
  }

  void ReadDevice(TomlReader& reader) {
    DeviceConfig device;
    device.facts = protocol::ReadDeviceFacts(reader);
    if (!reader.Any("port_guids")) {
      device.facts.port_guids = {device.facts.node_guid};
      device.facts.declared_ports = 1;
    }
    const std::string reason = protocol::WhyNotAdded(device.facts, _guids);
    if (!reason.empty()) reader.Throw(reason);
    _owner = common::HexGuid(device.facts.node_guid);
    device.is_read_only = reader.Bool("read_only").value_or(false);
    device.prepare = ReadProgram(reader, "prepare");
    device.release = ReadProgram(reader, "release");
    if (const auto limit = reader.Number("hook_seconds", 1, 3600)) {
      device.hook_limit = std::chrono::seconds(*limit);
    }
    if (auto flash = reader.Table("flash")) device.flash = ReadFlash(*flash);
    // Before it is prepared, nobody can tell how large it is.
    if (device.flash && device.flash->size == 0 && !device.prepare.empty()) {
      reader.ThrowAt("prepare",
                     "a flash that 'prepare' makes appear needs a 'size', here or in 'expect'");
    }
    std::vector<TomlReader> chips = reader.Tables("chip");
    if (chips.empty() != device.flash.has_value()) {
      reader.Throw("a device has either a [device.flash] or [[device.chip]]s");
    }
    for (TomlReader& chip : chips) ReadChip(chip, device);
    ReadWrite(reader, device);
    reader.Finish();
    _configuration.devices.push_back(std::move(device));
  }

  static std::vector<std::string> ReadProgram(TomlReader& reader, std::string_view key) {
    const auto words = reader.Strings(key);
    if (!words) return {};
    if (words->empty() || !words->front().starts_with('/')) {
      reader.ThrowAt(key, Text("'", key, "' must begin with the absolute path of a program"));
    }
    return *words;
  }

  static void ReadWrite(TomlReader& reader, DeviceConfig& device) {
    constexpr std::uint32_t LAST = std::numeric_limits<std::uint32_t>::max();
    const auto rows = reader.Rows("write", 2, LAST);
    if (!rows) return;
    // The size of an MTD device may be known only when it is there.
    std::uint64_t size = device.flash ? device.flash->size : 0;
    for (const auto& [address, eeprom] : device.eeproms) {
      size = std::max<std::uint64_t>(size, eeprom.size);
    }
    device.write.emplace();
    for (const TomlReader::Row& row : *rows) {
      const Range range{static_cast<std::uint32_t>(row.numbers[0]),
                        static_cast<std::uint32_t>(row.numbers[1])};
      if (range.first > range.last) {
        reader.ThrowAt(row.line,
                       Text("'write': ", HexText(range.first), " is after ", HexText(range.last)));
      }
      if (size != 0 && range.last >= size) {
        reader.ThrowAt(row.line,
                       Text("'write': ", HexText(range.last),
                            " is past the end of the memory, which has ", HexText(size), " bytes"));
      }
      device.write->push_back(range);
    }
  }

  FlashConfig ReadFlash(TomlReader& reader) {
    FlashConfig flash;
    auto mtd = ReadMtd(reader);
    const auto file = ReadPath(reader, "file");
    if (mtd.has_value() == file.has_value()) {
      reader.Throw("a flash is either an MTD device, by 'mtd' or 'by_path', or a 'file'");
    }
    flash.sector_size = reader.Needed("sector_size", reader.Number("sector_size", 4, MAX_SECTOR));
    CheckPowerOfTwo(reader, "sector_size", flash.sector_size);
    flash.page_size = reader.Number("page_size", 1, MAX_FLASH_PAGE)
                          .value_or(std::min(USUAL_FLASH_PAGE, flash.sector_size));
    CheckPowerOfTwo(reader, "page_size", flash.page_size);
    if (flash.page_size > flash.sector_size) {
      reader.ThrowAt("page_size", "'page_size' is more than a sector");
    }
    auto size = reader.Number("size", 4, MAX_SIZE);
    if (file) size = reader.Needed("size", size);
    flash.size = size.value_or(0);
    if (flash.size % flash.sector_size != 0) {
      reader.ThrowAt("size", "'size' must be a whole number of sectors");
    }
    flash.first = reader.LongNumber("first", 0, MAX_WINDOW).value_or(0);
    if (flash.first % flash.sector_size != 0) {
      reader.ThrowAt("first", "'first' must be a whole number of sectors");
    }
    const auto clears_bits = reader.Bool("clears_bits");
    if (clears_bits && !file) {
      reader.ThrowAt("clears_bits", "'clears_bits' is for a 'file' only");
    }
    const bool syncs = ReadSync(reader, file.has_value());
    reader.Finish();
    if (file) {
      ClaimFile(reader, "file", *file, _owner);
      flash.file =
          FileConfig{.path = *file, .only_clears_bits = clears_bits.value_or(true), .syncs = syncs};
      return flash;
    }
    const auto expected = mtd->expected_size;
    if (expected && (flash.first >= *expected || flash.size > *expected - flash.first)) {
      reader.ThrowAt(flash.size != 0 ? "size" : "first",
                     Text("the flash ends past the ", HexText(*expected), " bytes of 'expect'"));
    }
    if (flash.size == 0 && expected && *expected - flash.first <= MAX_SIZE) {
      flash.size = static_cast<std::uint32_t>(*expected - flash.first);
      flash.size -= flash.size % flash.sector_size;
    }
    ClaimWindow(reader, *mtd, flash);
    flash.mtd = std::move(mtd);
    return flash;
  }

  static bool ReadSync(TomlReader& reader, bool is_file) {
    const auto sync = reader.Bool("sync");
    if (sync && !is_file) reader.ThrowAt("sync", "'sync' is for a 'file' only");
    return sync.value_or(true);
  }

  static std::optional<MtdConfig> ReadMtd(TomlReader& reader) {
    MtdConfig mtd;
    mtd.name = FullString(reader, "mtd").value_or("");
    mtd.by_path = FullString(reader, "by_path").value_or("");
    auto expect = reader.Table("expect");
    const bool is_there = !mtd.name.empty() || !mtd.by_path.empty();
    if (expect) {
      if (!is_there) expect->Throw("'expect' is for an MTD device only");
      mtd.jedec = expect->String("jedec");
      mtd.expected_size = expect->LongNumber("size", 4, MAX_WINDOW);
      if (mtd.jedec) CheckJedec(*expect, *mtd.jedec);
      expect->Finish();
    }
    if (!is_there) return {};
    return mtd;
  }

  /// Leaves it in lower case, as the kernel has it.
  static void CheckJedec(const TomlReader& reader, std::string& jedec) {
    constexpr std::size_t MIN_DIGITS = 6;
    constexpr std::size_t MAX_DIGITS = 16;
    const bool is_right =
        jedec.size() >= MIN_DIGITS && jedec.size() <= MAX_DIGITS && jedec.size() % 2 == 0 &&
        std::ranges::all_of(jedec, [](char c) { return common::HexDigit(c).has_value(); });
    if (!is_right) {
      reader.ThrowAt("jedec", "'jedec' must be hexadecimal digits such as \"c2253a\"");
    }
    for (char& c : jedec) {
      if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
    }
  }

  void ReadChip(TomlReader& reader, DeviceConfig& device) {
    const auto address =
        static_cast<std::uint8_t>(reader.Needed("address", reader.Number("address", 0, 0xFF)));
    EepromConfig eeprom;
    eeprom.size = reader.Needed("size", reader.Number("size", 4, MAX_SIZE));
    const auto file = ReadPath(reader, "file");
    auto i2c = reader.Table("i2c");
    if (i2c.has_value() == file.has_value()) {
      reader.Throw("a chip is either on an adapter, by 'i2c', or a 'file'");
    }
    const bool syncs = ReadSync(reader, file.has_value());
    reader.Finish();
    const std::string owner = Text("chip ", HexText(address), " of ", _owner);
    if (device.eeproms.contains(address)) {
      reader.ThrowAt("address", Text("two chips at address ", HexText(address)));
    }
    if (file) {
      ClaimFile(reader, "file", *file, owner);
      eeprom.file = FileConfig{.path = *file, .only_clears_bits = false, .syncs = syncs};
    } else {
      eeprom.i2c = ReadI2c(*i2c, address, eeprom.size);
      ClaimPlace(*i2c, PlaceOf(*eeprom.i2c, eeprom.size), owner);
    }
    device.eeproms.emplace(address, std::move(eeprom));
  }

  static I2cConfig ReadI2c(TomlReader& reader, std::uint8_t chip, std::uint32_t size) {
    I2cConfig i2c;
    i2c.adapter.adapter = reader.Needed("adapter", FullString(reader, "adapter"));
    for (const TomlReader::Row& row :
         reader.Rows("mux", 2, 0xFF).value_or(std::vector<TomlReader::Row>())) {
      if (!IsAddress(row.numbers[0])) {
        reader.ThrowAt(row.line, "'mux': " + NoAddress(row.numbers[0]));
      }
      i2c.adapter.muxes.emplace_back(row.numbers[0], row.numbers[1]);
    }
    i2c.address = static_cast<std::uint16_t>(reader.Number("address", 0, 0xFFFF).value_or(chip));
    if (!IsAddress(i2c.address)) reader.ThrowAt("address", "'address': " + NoAddress(i2c.address));

    i2c.page = reader.Needed("page", reader.Number("page", 1, MAX_EEPROM_PAGE));
    CheckPowerOfTwo(reader, "page", i2c.page);
    if (i2c.page > size) reader.ThrowAt("page", "'page' is more than the chip");
    i2c.offset_bits = reader.Needed("offset_bits", reader.Number("offset_bits", 8, 16));
    if (i2c.offset_bits != 8 && i2c.offset_bits != 16) {
      reader.ThrowAt("offset_bits", "'offset_bits' must be 8 or 16");
    }
    i2c.bank_bit = reader.Number("bank_bit", 0, BANK_BITS - 1).value_or(0);
    CheckBanks(reader, i2c, size);

    if (const auto limit = reader.Number("write_ms", 1, 10000)) {
      i2c.write_limit = std::chrono::milliseconds(*limit);
    }
    i2c.allow_bound = reader.Bool("allow_bound").value_or(false);
    i2c.idle_disconnect = reader.Bool("idle_disconnect").value_or(false);
    if (i2c.idle_disconnect && i2c.adapter.muxes.empty()) {
      reader.ThrowAt("idle_disconnect", "'idle_disconnect' is for a chip behind a 'mux' only");
    }
    // A write has the offset and a byte at least.
    i2c.max_write =
        reader.Number("max_write", i2c.offset_bits / 8 + 1, MAX_TRANSFER).value_or(i2c.max_write);
    i2c.max_read = reader.Number("max_read", 1, MAX_TRANSFER).value_or(i2c.max_read);
    reader.Finish();
    return i2c;
  }

  static bool IsAddress(std::uint64_t address) {
    return address >= FIRST_ADDRESS && address <= LAST_ADDRESS;
  }
  static std::string NoAddress(std::uint64_t address) {
    return Text(HexText(address), " is no address of a chip on a wire: they are ",
                HexText(FIRST_ADDRESS), " to ", HexText(LAST_ADDRESS));
  }

  static void CheckBanks(const TomlReader& reader, const I2cConfig& i2c, std::uint32_t size) {
    const std::uint32_t bank_size = 1u << i2c.offset_bits;
    const std::uint32_t banks = (size - 1) / bank_size + 1;
    const std::uint32_t most = 1u << (BANK_BITS - i2c.bank_bit);
    if (banks > most) {
      reader.ThrowAt("offset_bits",
                     Text("a chip of ", HexText(size), " bytes is too large for 'offset_bits' = ",
                          i2c.offset_bits, " and the address bits from ", i2c.bank_bit,
                          " on: at most ", HexText(std::uint64_t{bank_size} * most), " bytes"));
    }
    const std::uint32_t mask = (std::bit_ceil(banks) - 1) << i2c.bank_bit;
    if ((i2c.address & mask) != 0) {
      reader.ThrowAt("address",
                     Text("'address': the bits ", HexText(mask), " of ", HexText(i2c.address),
                          " choose a bank of the chip: they must "
                          "be 0"));
    }
    const std::uint32_t last = i2c.address | (banks - 1) << i2c.bank_bit;
    if (!IsAddress(last)) reader.ThrowAt("address", "'address': " + NoAddress(last));
  }

  void ClaimPlace(const TomlReader& reader, I2cPlace place, const std::string& owner) {
    std::string reason = WhyNotThere(place);
    for (const ClaimedPlace& claimed : _places) {
      if (reason.empty()) reason = WhyNotBoth(place, claimed.place, claimed.owner);
    }
    if (!reason.empty()) reader.ThrowAt("address", reason);
    _places.push_back({std::move(place), owner});
  }

  void ClaimWindow(const TomlReader& reader, const MtdConfig& mtd, const FlashConfig& flash) {
    const std::uint64_t end =
        flash.size == 0 ? std::numeric_limits<std::uint64_t>::max() : flash.first + flash.size;
    for (const Window& window : _windows) {
      if (window.mtd.name != mtd.name || window.mtd.by_path != mtd.by_path) continue;
      if (flash.first >= window.end || window.first >= end) continue;
      reader.Throw("this part of the MTD device belongs to " + window.owner + ", too");
    }
    _windows.push_back({mtd, flash.first, end, _owner});
  }

  /// The configuration itself is no memory either, nor is what the server keeps in its folder.
  void ClaimFile(const TomlReader& reader, std::string_view key, const fs::path& path,
                 const std::string& owner) {
    if (path.empty()) return;
    const std::string name = NameOfFile(path);
    if (name == NameOfFile(_path)) {
      reader.ThrowAt(key, Text("'", key, "' is the configuration itself"));
    }
    if (Real(path).parent_path() == Real(_configuration.state / "x").parent_path()) {
      reader.ThrowAt(key,
                     Text("'", key, "' is in the folder 'state', where the server's files are"));
    }
    const auto [file, is_new] = _files.try_emplace(name, owner);
    if (!is_new) reader.ThrowAt(key, Text("'", key, "' is the file of ", file->second, ", too"));
  }

  fs::path _path;
  Configuration _configuration;
  std::map<protocol::Guid, protocol::Guid> _guids;
  std::map<std::string, std::string> _files;  ///< by NameOfFile: whose they are
  std::vector<Window> _windows;
  std::vector<ClaimedPlace> _places;
  std::string _owner;  ///< the device that is being read
};

}  // namespace

bool IsLoopback(const std::string& host) {
  in_addr address{};
  return host == "localhost" ||
         (inet_pton(AF_INET, host.c_str(), &address) == 1 && ntohl(address.s_addr) >> 24 == 127);
}

Configuration LoadConfiguration(const fs::path& path) {
  try {
    return Loader(path).Load();
  } catch (const TomlError& error) {
    throw ConfigurationError(error.what());
  }
}

}  // namespace serve
