#include "serve/Wires.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <iomanip>
#include <limits>
#include <utility>

#include "common/Text.h"

namespace serve {

using common::Text;
using common::Words;

namespace {

constexpr std::string_view I2C_DEVICES = "/sys/bus/i2c/devices/";
constexpr std::string_view MTD_DEVICES = "/sys/class/mtd/";
constexpr std::uint32_t MTD_WRITABLE = 0x400;  ///< of the flags of an MTD device

/// The number in `text`; 0 where there is none.
std::uint64_t NumberOf(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x")) {
    text.remove_prefix(2);
    base = 16;
  }
  std::uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, base);
  return number;
}

/// The number of a name such as "i2c-16"; nothing for a name of another form.
std::optional<std::uint32_t> NumberAfter(std::string_view name, std::string_view prefix) {
  if (!name.starts_with(prefix)) return {};
  name.remove_prefix(prefix.size());
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  if (name.empty() || error != std::errc() || end != name.data() + name.size()) return {};
  return number;
}

std::string_view NameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }
std::string FolderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

/// The numbers of the entries of a folder whose names are `prefix` and a number, ascending.
std::vector<std::uint32_t> NumbersIn(System& system, std::string_view folder,
                                     std::string_view prefix) {
  std::vector<std::uint32_t> numbers;
  for (const std::string& name : system.List(std::string(folder))) {
    if (const auto number = NumberAfter(name, prefix)) numbers.push_back(*number);
  }
  std::ranges::sort(numbers);
  return numbers;
}

/// "there are: ..., ..." or "there are none".
template <typename Thing>
std::string ThereAre(const std::vector<Thing>& things,
                     const std::function<std::string(const Thing&)>& describe) {
  if (things.empty()) return "there are none";
  std::string list;
  for (const Thing& thing : things) {
    if (!list.empty()) list += ", ";
    list += describe(thing);
  }
  return "there are: " + list;
}

std::string Describe(const FoundAdapter& adapter) {
  return adapter.node + " \"" + adapter.name + "\"";
}

std::string Describe(const FoundMtd& mtd) {
  std::string text = mtd.node + " \"" + mtd.name + "\"";
  if (!mtd.path.empty()) text += " on " + mtd.path;
  return text;
}

FoundAdapter AdapterError(std::string error) {
  FoundAdapter found;
  found.error = std::move(error);
  return found;
}

FoundMtd MtdError(std::string error) {
  FoundMtd found;
  found.error = std::move(error);
  return found;
}

FoundAdapter AdapterOf(System& system, std::uint32_t number) {
  FoundAdapter adapter;
  adapter.number = number;
  adapter.node = Text("/dev/i2c-", number);
  const std::string folder = Text(I2C_DEVICES, "i2c-", number);
  adapter.name = system.ReadText(folder + "/name").value_or("");
  adapter.path = system.Resolve(folder);
  return adapter;
}

/// An adapter by a path: of its node, of a link to that, of its folder in /sys, or of the folder of
/// the device that it belongs to.
FoundAdapter FindByPath(System& system, const std::string& path) {
  const std::vector<FoundAdapter> adapters = ListAdapters(system);
  const std::string real = system.Resolve(path);
  const auto number = NumberAfter(NameOf(real.empty() ? path : real), "i2c-");
  for (const FoundAdapter& adapter : adapters) {
    if (number == adapter.number) return adapter;
  }
  std::vector<FoundAdapter> below;
  for (const FoundAdapter& adapter : adapters) {
    if (!real.empty() && FolderOf(adapter.path) == real) below.push_back(adapter);
  }
  if (below.size() == 1) return below.front();
  return AdapterError(Text(
      below.empty() ? "no I2C adapter is at " : "more than one I2C adapter is at ", path, "; ",
      ThereAre<FoundAdapter>(adapters, [](const FoundAdapter& one) { return Describe(one); })));
}

FoundAdapter FindByName(System& system, const std::string& name) {
  const std::vector<FoundAdapter> adapters = ListAdapters(system);
  std::vector<FoundAdapter> named;
  std::ranges::copy_if(adapters, std::back_inserter(named),
                       [&](const FoundAdapter& one) { return one.name == name; });
  if (named.size() == 1) return named.front();
  if (named.empty()) {
    return AdapterError(Text(
        "no I2C adapter is named \"", name, "\"; ",
        ThereAre<FoundAdapter>(adapters, [](const FoundAdapter& one) { return Describe(one); })));
  }
  return AdapterError(
      Text(named.size(), " I2C adapters are named \"", name,
           "\": give the folder of one instead of its name; ",
           ThereAre<FoundAdapter>(named, [](const FoundAdapter& one) { return one.path; })));
}

/// The adapter of one channel of the mux at `address` of `parent`.
FoundAdapter FindChannel(System& system, const FoundAdapter& parent, std::uint16_t address,
                         std::uint32_t channel) {
  const std::string folder = I2cDevicePath(parent.number, address);
  const std::string real = system.Resolve(Text(folder, "/channel-", channel));
  const auto number = NumberAfter(NameOf(real), "i2c-");
  if (number) return AdapterOf(system, *number);
  const std::vector<std::uint32_t> channels = NumbersIn(system, folder, "channel-");
  const std::string mux = Text("0x", std::hex, address);
  if (channels.empty()) {
    return AdapterError(Text("no mux is known at address ", mux, " of ", Describe(parent)));
  }
  return AdapterError(
      Text("the mux at address ", mux, " of ", Describe(parent), " has no channel ", channel, "; ",
           ThereAre<std::uint32_t>(channels,
                                   [](const std::uint32_t& one) { return std::to_string(one); })));
}

/// The device that an MTD device is on: a partition may be below the MTD device of the whole flash.
std::string DeviceBelow(std::string path) {
  while (NumberAfter(NameOf(path), "mtd") && NameOf(FolderOf(path)) == "mtd") {
    path = FolderOf(FolderOf(path));
  }
  return path;
}

/// The name of the root adapter in a folder; where others have it, too, the folder around that one,
/// which does not end in a number that changes.
std::string RootName(System& system, const std::string& root) {
  std::string name;
  std::size_t namesakes = 0;
  const std::vector<FoundAdapter> adapters = ListAdapters(system);
  for (const FoundAdapter& adapter : adapters) {
    if (adapter.path == root) name = adapter.name;
  }
  for (const FoundAdapter& adapter : adapters) {
    if (adapter.name == name && RootPathOf(adapter.path) == adapter.path) ++namesakes;
  }
  return namesakes == 1 && !name.empty() ? name : FolderOf(root);
}

/// The address and the channel of the mux of adapter `parent` that makes adapter `child`. `names`:
/// of all devices.
std::optional<std::pair<std::uint16_t, std::uint32_t>> MuxBetween(
    System& system, const std::vector<std::string>& names, std::uint32_t parent,
    std::uint32_t child) {
  const std::string prefix = Text(parent, "-");
  for (const std::string& name : names) {
    if (!name.starts_with(prefix)) continue;
    const std::string folder = std::string(I2C_DEVICES) + name;
    for (const std::uint32_t channel : NumbersIn(system, folder, "channel-")) {
      const std::string real = system.Resolve(Text(folder, "/channel-", channel));
      if (NumberAfter(NameOf(real), "i2c-") != child) continue;
      const auto address = NumberOf("0x" + name.substr(prefix.size()));
      return std::pair(static_cast<std::uint16_t>(address), channel);
    }
  }
  return {};
}

/// One line of /proc/mounts.
struct Mount {
  std::string source;
  std::string place;
};

/// A field of /proc/mounts, in which blanks are "\040".
std::string Unescaped(std::string_view field) {
  const auto is_octal = [](char c) { return c >= '0' && c <= '7'; };
  std::string text;
  for (std::size_t i = 0; i < field.size(); ++i) {
    const std::string_view digits = field.substr(i + 1, 3);
    if (field[i] == '\\' && digits.size() == 3 && std::ranges::all_of(digits, is_octal)) {
      const int code = (digits[0] - '0') * 64 + (digits[1] - '0') * 8 + (digits[2] - '0');
      text += static_cast<char>(code);
      i += digits.size();
    } else {
      text += field[i];
    }
  }
  return text;
}

/// What is mounted, with the root's true source.
std::vector<Mount> Mounts(System& system) {
  std::vector<Mount> mounts;
  const std::string text = system.ReadText("/proc/mounts").value_or("");
  for (const std::string_view line : common::Lines(text)) {
    const std::vector<std::string_view> fields = Words(line);
    if (fields.size() < 2) continue;
    mounts.push_back({Unescaped(fields[0]), Unescaped(fields[1])});
    if (mounts.back().source != "/dev/root") continue;
    constexpr std::string_view ROOT = "root=";
    const std::string command_line = system.ReadText("/proc/cmdline").value_or("");
    for (const std::string_view word : Words(command_line)) {
      if (word.starts_with(ROOT)) mounts.back().source = word.substr(ROOT.size());
    }
  }
  return mounts;
}

/// What uses this MTD device itself; empty where nothing does.
std::string UserOf(System& system, const FoundMtd& mtd, const std::vector<Mount>& mounts) {
  for (const auto& [source, place] : mounts) {
    const std::string_view name = source.starts_with("mtd:") ? source : NameOf(source);
    if (name == Text("mtd", mtd.number) || name == Text("mtdblock", mtd.number) ||
        name == Text("mtd:", mtd.name) || name == Text("mtd:", mtd.number)) {
      return "mounted on " + place;
    }
  }
  for (const std::uint32_t ubi : NumbersIn(system, "/sys/class/ubi", "ubi")) {
    const auto number = system.ReadText(Text("/sys/class/ubi/ubi", ubi, "/mtd_num"));
    if (number == std::to_string(mtd.number)) return Text("attached to UBI as ubi", ubi);
  }
  return "";
}

/// Whether all folders of `by_path` are on the way to `path`, in this order.
bool LeadsTo(std::string_view by_path, std::string_view path) {
  const std::vector<std::string_view> folders = Words(path, "/");
  auto at = folders.begin();
  for (const std::string_view folder : Words(by_path, "/")) {
    at = std::find(at, folders.end(), folder);
    if (at == folders.end()) return false;
    ++at;
  }
  return true;
}

std::vector<FoundMtd> Matching(const std::vector<FoundMtd>& mtds, const MtdConfig& config) {
  std::vector<FoundMtd> matching;
  std::ranges::copy_if(mtds, std::back_inserter(matching), [&](const FoundMtd& mtd) {
    return (config.name.empty() || mtd.name == config.name) && LeadsTo(config.by_path, mtd.path);
  });
  return matching;
}

bool Overlap(const FoundMtd& one, const FoundMtd& other) {
  return !one.path.empty() && one.path == other.path && one.offset < other.offset + other.size &&
         other.offset < one.offset + one.size;
}

}  // namespace

std::string I2cDevicePath(std::uint32_t adapter, std::uint16_t address) {
  return Text(I2C_DEVICES, adapter, "-", std::hex, std::setw(4), std::setfill('0'), address);
}

std::vector<FoundAdapter> ListAdapters(System& system) {
  std::vector<FoundAdapter> adapters;
  for (const std::uint32_t number : NumbersIn(system, I2C_DEVICES, "i2c-")) {
    adapters.push_back(AdapterOf(system, number));
  }
  return adapters;
}

std::vector<FoundMtd> ListMtds(System& system) {
  std::vector<FoundMtd> mtds;
  for (const std::uint32_t number : NumbersIn(system, MTD_DEVICES, "mtd")) {
    const std::string folder = Text(MTD_DEVICES, "mtd", number, "/");
    const auto text = [&](const char* name) { return system.ReadText(folder + name).value_or(""); };
    FoundMtd mtd;
    mtd.number = number;
    mtd.node = Text("/dev/mtd", number);
    mtd.name = text("name");
    mtd.path = DeviceBelow(system.Resolve(folder + "device"));
    mtd.type = text("type");
    mtd.size = NumberOf(text("size"));
    mtd.offset = NumberOf(text("offset"));
    mtd.erase_size = static_cast<std::uint32_t>(NumberOf(text("erasesize")));
    mtd.write_size = static_cast<std::uint32_t>(NumberOf(text("writesize")));
    mtd.erase_regions = static_cast<std::uint32_t>(NumberOf(text("numeraseregions")));
    mtd.is_writable = (NumberOf(text("flags")) & MTD_WRITABLE) != 0;
    mtd.jedec =
        mtd.path.empty() ? "" : system.ReadText(mtd.path + "/spi-nor/jedec_id").value_or("");
    mtds.push_back(std::move(mtd));
  }
  const std::vector<Mount> mounts = Mounts(system);
  std::vector<std::string> users;
  users.reserve(mtds.size());
  for (const FoundMtd& mtd : mtds) users.push_back(UserOf(system, mtd, mounts));
  for (std::size_t i = 0; i < mtds.size(); ++i) {
    mtds[i].in_use = users[i];
    for (std::size_t k = 0; k < mtds.size() && mtds[i].in_use.empty(); ++k) {
      if (users[k].empty() || !Overlap(mtds[i], mtds[k])) continue;
      mtds[i].in_use = mtds[k].node + ", which overlaps it, is " + users[k];
    }
  }
  return mtds;
}

FoundAdapter FindAdapter(System& system, const AdapterConfig& config) {
  FoundAdapter adapter = config.adapter.starts_with('/') ? FindByPath(system, config.adapter)
                                                         : FindByName(system, config.adapter);
  for (const auto& [address, channel] : config.muxes) {
    if (!adapter.error.empty()) break;
    adapter = FindChannel(system, adapter, address, channel);
  }
  return adapter;
}

FoundMtd FindMtd(System& system, const MtdConfig& config) {
  const std::vector<FoundMtd> mtds = ListMtds(system);
  const std::vector<FoundMtd> named = Matching(mtds, config);
  if (named.size() == 1) return named.front();
  const auto describe = [](const FoundMtd& mtd) { return Describe(mtd); };
  std::string what;
  if (!config.name.empty()) what += "named \"" + config.name + "\"";
  if (!config.by_path.empty()) what += Text(what.empty() ? "" : " ", "on ") + config.by_path;
  if (named.empty()) {
    return MtdError("no MTD device is " + what + "; " + ThereAre<FoundMtd>(mtds, describe));
  }
  return MtdError(Text(named.size(), " MTD devices are ", what, ": give both 'mtd' and 'by_path'; ",
                       ThereAre<FoundMtd>(named, describe)));
}

std::string WhyNotExpected(const MtdConfig& config, const FoundMtd& found) {
  if (config.jedec && found.jedec.empty()) {
    return found.node + " tells no JEDEC id, expected was " + *config.jedec;
  }
  if (config.jedec && found.jedec != *config.jedec) {
    return found.node + " has the JEDEC id " + found.jedec + ", expected was " + *config.jedec;
  }
  if (config.expected_size && found.size != *config.expected_size) {
    return Text(found.node, " has ", common::HexText(found.size), " bytes, expected were ",
                common::HexText(*config.expected_size));
  }
  return "";
}

std::string RootPathOf(const std::string& path) {
  for (std::size_t slash = path.find('/'); slash != std::string::npos;) {
    const std::size_t next = path.find('/', slash + 1);
    if (NumberAfter(NameOf(path.substr(0, next)), "i2c-")) return path.substr(0, next);
    slash = next;
  }
  return path;
}

std::string RootKey(System& system, const AdapterConfig& config) {
  const FoundAdapter found = FindAdapter(system, config);
  // The mux may appear only when the device is prepared: its root is there before.
  const FoundAdapter first = found.error.empty() || config.muxes.empty()
                                 ? found
                                 : FindAdapter(system, {.adapter = config.adapter, .muxes = {}});
  return first.error.empty() ? RootName(system, RootPathOf(first.path)) : config.adapter;
}

AdapterConfig WayTo(System& system, const FoundAdapter& adapter) {
  const std::string root = RootPathOf(adapter.path);
  AdapterConfig way{.adapter = RootName(system, root), .muxes = {}};
  const std::vector<std::string> names = system.List(std::string(I2C_DEVICES));
  auto parent = NumberAfter(NameOf(root), "i2c-");
  const std::string_view behind = std::string_view(adapter.path).substr(root.size());
  for (const std::string_view folder : Words(behind, "/")) {
    const auto child = NumberAfter(folder, "i2c-");
    if (!parent || !child) continue;
    const auto mux = MuxBetween(system, names, *parent, *child);
    if (mux) way.muxes.push_back(*mux);
    parent = child;
  }
  return way;
}

std::string FileKey(System& system, const FileConfig& file) {
  const std::string real = system.Resolve(file.path.string());
  return "file " + (real.empty() ? file.path.string() : real);
}

std::string FlashKey(System& system, const FlashConfig& config) {
  if (config.file) return FileKey(system, *config.file);
  const std::vector<FoundMtd> found = Matching(ListMtds(system), *config.mtd);
  // All partitions of a flash are on its wire.
  if (!found.empty()) {
    return "mtd " + (found.front().path.empty() ? found.front().name : found.front().path);
  }
  return "mtd " + (config.mtd->by_path.empty() ? config.mtd->name : config.mtd->by_path);
}

std::string OwnerOf(System& system, const FoundAdapter& adapter, std::uint16_t address) {
  const auto is_below = [](const std::string& inner, const std::string& outer) {
    return inner.starts_with(outer) && (inner.size() == outer.size() || inner[outer.size()] == '/');
  };
  for (const FoundAdapter& other : ListAdapters(system)) {
    if (!is_below(other.path, adapter.path) && !is_below(adapter.path, other.path)) continue;
    const std::string driver = system.Resolve(I2cDevicePath(other.number, address) + "/driver");
    if (!driver.empty()) return std::string(NameOf(driver));
  }
  return "";
}

}  // namespace serve
