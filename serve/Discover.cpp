#include "serve/Discover.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "common/Text.h"
#include "serve/Wires.h"

namespace serve {

namespace {

using common::HexText;
using common::Text;

constexpr std::uint32_t USUAL_SECTOR = 0x10000;              ///< bytes
constexpr std::uint64_t MAX_FLASH = std::uint64_t{1} << 31;  ///< bytes
constexpr std::string_view HEAD =
    "# The memories that this machine's kernel knows of. No bus was probed. Delete what is not to "
    "be\n"
    "# served, and write values in the place of \"FILL IN\": the file is refused before.\n"
    "\n"
    "[server]\n"
    "listen = \"127.0.0.1:26519\"\n"
    "type = \"IB\"\n";

/// `text` as a string of TOML.
std::string Quoted(std::string_view text) {
  constexpr std::string_view DIGITS = "0123456789abcdef";
  std::string quoted = "\"";
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    if (code < 0x20 || code == 0x7F) {
      quoted += Text("\\u00", DIGITS[code >> 4], DIGITS[code & 0xF]);
    } else {
      if (c == '"' || c == '\\') quoted += '\\';
      quoted += c;
    }
  }
  return quoted + "\"";
}

/// `text` as the name of a device, which is one word.
std::string NameFrom(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == '{' || c == '}') c = '-';
  }
  return text.empty() ? "device" : text;
}

/// Each line of `text` as a comment.
std::string AsComment(const std::string& text) {
  std::string comment;
  for (const std::string_view line : common::Lines(text)) {
    comment += line.empty() ? "#\n" : "# " + std::string(line) + "\n";
  }
  return comment;
}

std::string DeviceHead(const std::string& name) {
  return "[[device]]\nnode_guid = " + Quoted(FILL_IN) + "\nname = " + Quoted(NameFrom(name)) + "\n";
}

/// The SPI controller and the chip on it, or the last folder of another path.
std::string ShortPath(const std::string& path) {
  const std::vector<std::string_view> folders = common::Words(path, "/");
  if (folders.empty()) return "";
  const auto master = std::ranges::find(folders, "spi_master");
  std::string last(folders.back());
  if (master == folders.begin() || master == folders.end()) return last;
  return std::string(*std::prev(master)) + "/" + last;
}

std::string FlashText(const FoundMtd& mtd) {
  std::uint64_t sector = mtd.erase_size;
  if (sector != 0 && USUAL_SECTOR % sector == 0 && mtd.size % USUAL_SECTOR == 0) {
    sector = USUAL_SECTOR;
  }
  std::string text = DeviceHead(mtd.name) + "[device.flash]\n";
  if (!mtd.name.empty()) text += "mtd = " + Quoted(mtd.name) + "\n";
  const std::string path = ShortPath(mtd.path);
  if (!path.empty()) text += "by_path = " + Quoted(path) + "\n";
  text += "expect = { ";
  if (!mtd.jedec.empty()) text += "jedec = " + Quoted(mtd.jedec) + ", ";
  text += Text("size = ", HexText(mtd.size), " }\n");
  text += Text("size = ", HexText(std::min(mtd.size, MAX_FLASH)), "\n");
  return text + Text("sector_size = ", HexText(sector), "  # it is erased in blocks of ",
                     HexText(mtd.erase_size), "\n");
}

/// Why the MTD device cannot be served; empty where it can.
std::string WhyNotServed(const FoundMtd& mtd) {
  if (mtd.type != "nor") return "of type " + mtd.type;
  if (mtd.write_size != 1) return "not written byte by byte";
  if (mtd.erase_regions != 0) return "with sectors of several sizes";
  if (mtd.erase_size == 0 || mtd.size == 0) return "of no size";
  if (!mtd.is_writable) return "read-only";
  return "";
}

std::string Flashes(System& system) {
  std::string text;
  for (const FoundMtd& mtd : ListMtds(system)) {
    const std::string title = mtd.node + " " + Quoted(mtd.name);
    const std::string reason = WhyNotServed(mtd);
    if (!reason.empty()) {
      text += Text("\n# ", title, ": not served, ", reason, ".\n");
    } else if (!mtd.in_use.empty()) {
      text += Text("\n# ", title, " is in use: ", Quoted(mtd.in_use), ". It cannot be written.\n",
                   AsComment(FlashText(mtd)));
    } else {
      text += Text("\n# ", title, "\n", FlashText(mtd));
    }
  }
  return text;
}

std::string WayText(const AdapterConfig& way) {
  std::string text = "adapter = " + Quoted(way.adapter);
  if (way.muxes.empty()) return text + "\n";
  std::string muxes;
  for (const auto& [address, channel] : way.muxes) {
    muxes += Text(muxes.empty() ? "" : ", ", "[", HexText(address), ", ", channel, "]");
  }
  return text + "\nmux = [" + muxes + "]\n";
}

std::string Adapters(System& system) {
  std::string text;
  for (const FoundAdapter& adapter : ListAdapters(system)) {
    std::string way = WayText(WayTo(system, adapter));
    way.pop_back();
    std::ranges::replace(way, '\n', ' ');
    text += "#   " + adapter.node + " " + Quoted(adapter.name) + ": " + way + "\n";
  }
  return text.empty() ? text : "\n# I2C adapters, and how a chip on each names it:\n" + text;
}

/// Whether each mux on the way to the adapter says that it disconnects its last channel.
bool IsDisconnected(System& system, const AdapterConfig& way) {
  AdapterConfig before{.adapter = way.adapter, .muxes = {}};
  for (const auto& mux : way.muxes) {
    const FoundAdapter parent = FindAdapter(system, before);
    const std::string folder = I2cDevicePath(parent.number, mux.first);
    if (system.ReadText(folder + "/idle_state") != MUX_DISCONNECTS) return false;
    before.muxes.push_back(mux);
  }
  return !way.muxes.empty();
}

/// The bytes of a chip such as "24c64", whose name gives its size in units of 1024 bits; 0 where it
/// does not.
std::uint32_t SizeByName(std::string_view name) {
  constexpr std::string_view FAMILY = "24c";
  if (!name.starts_with(FAMILY)) return 0;
  name.remove_prefix(FAMILY.size());
  std::uint32_t kilobits = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), kilobits);
  if (error != std::errc() || end != name.data() + name.size() || kilobits > 4096) return 0;
  // The 24c1025 has its banks in another place, and the size of a 24c1024.
  return (kilobits == 1025 ? 1024 : kilobits) * 128;
}

std::string ChipText(System& system, const FoundAdapter& adapter, std::uint16_t address,
                     const std::string& name) {
  const AdapterConfig way = WayTo(system, adapter);
  const std::uint32_t size = SizeByName(name);
  std::string text =
      DeviceHead(name) + Text("[[device.chip]]\naddress = ", HexText(address),
                              "\nsize = ", size == 0 ? Quoted(FILL_IN) : HexText(size),
                              "\n[device.chip.i2c]\n", WayText(way));
  if (IsDisconnected(system, way)) text += "idle_disconnect = true\n";
  return text + "page = " + Quoted(FILL_IN) +
         "  # bytes of one write, as the chip's data sheet says\noffset_bits = " + Quoted(FILL_IN) +
         "  # 8 or 16; chips of more than 2048 bytes have 16\n"
         "# allow_bound = true  # to leave the driver where it is\n";
}

std::string Eeproms(System& system) {
  constexpr std::string_view DRIVER = "at24";
  std::string text;
  for (const FoundAdapter& adapter : ListAdapters(system)) {
    for (std::uint16_t address = 0x08; address <= 0x77; ++address) {
      const std::string folder = I2cDevicePath(adapter.number, address);
      const std::string driver = system.Resolve(folder + "/driver");
      if (!driver.ends_with("/" + std::string(DRIVER))) continue;
      const std::string name = system.ReadText(folder + "/name").value_or("");
      text += "\n# " + Quoted(name) + " at " + HexText(address) + " of " + adapter.node +
              ". The driver owns the address: unbind it, or allow_bound.\n" +
              ChipText(system, adapter, address, name);
    }
  }
  return text;
}

}  // namespace

std::string DiscoverConfiguration(System& system) {
  return std::string(HEAD) + Flashes(system) + Adapters(system) + Eeproms(system);
}

}  // namespace serve
