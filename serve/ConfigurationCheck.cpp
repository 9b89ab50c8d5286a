#include "serve/ConfigurationCheck.h"

#include <limits>
#include <utility>

#include "common/Text.h"
#include "serve/Places.h"
#include "serve/Wires.h"

namespace serve {

namespace {

using common::HexText;
using common::Text;

class Check {
 public:
  Check(System& system, const Configuration& configuration)
      : _system(system), _configuration(configuration) {}

  std::vector<std::string> Run() {
    const std::filesystem::path& audit = _configuration.audit;
    const std::string folder = audit.has_parent_path() ? audit.parent_path().string() : ".";
    if (!audit.empty() && _system.Resolve(folder).empty()) {
      _problems.push_back("'audit': the folder " + folder + " does not exist");
    }
    for (const DeviceConfig& device : _configuration.devices) {
      _device = &device;
      _owner = Text(common::HexGuid(device.facts.node_guid), " (", device.facts.name, ")");
      CheckProgram("prepare", device.prepare);
      CheckProgram("release", device.release);
      if (device.flash) CheckFlash(*device.flash);
      for (const auto& [address, eeprom] : device.eeproms) {
        _chip = Text("chip ", HexText(address), ": ");
        CheckEeprom(eeprom, Text("chip ", HexText(address), " of ", _owner));
      }
      _chip.clear();
    }
    return std::move(_problems);
  }

 private:
  struct Window {
    std::string path;
    std::uint64_t first;
    std::uint64_t end;
    std::string owner;
  };

  void Add(const std::string& problem) { _problems.push_back(_owner + ": " + _chip + problem); }

  bool IsReadOnly() const { return _configuration.is_read_only || _device->is_read_only; }

  void CheckProgram(const std::string& key, const std::vector<std::string>& words) {
    if (!words.empty() && _system.Resolve(words.front()).empty()) {
      Add("'" + key + "': there is no " + words.front());
    }
  }

  /// Not found, which `prepare` may change.
  void AddMissing(const std::string& error) {
    if (_device->prepare.empty()) Add(error);
  }

  void CheckFlash(const FlashConfig& flash) {
    if (flash.file) return CheckFile(*flash.file, flash.first + flash.size);
    const FoundMtd found = FindMtd(_system, *flash.mtd);
    if (!found.error.empty()) return AddMissing(found.error);
    if (const std::string reason = WhyNotExpected(*flash.mtd, found); !reason.empty()) Add(reason);
    if (found.type != "nor" || found.write_size != 1) {
      return Add(Text(found.node, " is no NOR flash but of type ", found.type, ", written in ",
                      found.write_size, " bytes"));
    }
    if (found.erase_regions != 0) return Add(found.node + " has sectors of several sizes");
    CheckNode(found.node, "mtdchar");
    if (!IsReadOnly()) {
      if (!found.in_use.empty()) Add(found.node + " is in use: " + found.in_use);
      if (!found.is_writable) Add(found.node + " is read-only");
    }
    if (found.erase_size == 0 || flash.sector_size % found.erase_size != 0) {
      return Add(Text("'sector_size' = ", HexText(flash.sector_size), ": ", found.node,
                      " is erased in blocks of ", HexText(found.erase_size), " bytes"));
    }
    CheckWindow(flash, found);
  }

  void CheckWindow(const FlashConfig& flash, const FoundMtd& found) {
    if (flash.first >= found.size || flash.size > found.size - flash.first) {
      return Add(Text("the flash, ", HexText(flash.size), " bytes from ", HexText(flash.first),
                      " on, ends past ", found.node, ", which has ", HexText(found.size),
                      " bytes"));
    }
    std::uint64_t size = flash.size;
    if (size == 0) size = (found.size - flash.first) / flash.sector_size * flash.sector_size;
    if (size == 0 || size > std::numeric_limits<std::uint32_t>::max()) {
      return Add(Text(found.node, " has ", HexText(found.size), " bytes: give 'size'"));
    }
    for (const Range& range : _device->write.value_or(std::vector<Range>())) {
      if (range.last >= size) {
        Add(Text("'write': ", HexText(range.last), " is past the end of the memory, which has ",
                 HexText(size), " bytes"));
      }
    }
    const std::uint64_t first = found.offset + flash.first;
    for (const Window& window : _windows) {
      const bool is_same = !found.path.empty() && window.path == found.path;
      if (is_same && first < window.end && window.first < first + size) {
        Add(Text("this part of ", found.node, " belongs to ", window.owner, ", too"));
      }
    }
    _windows.push_back({found.path, first, first + size, _owner});
  }

  void CheckFile(const FileConfig& file, std::uint64_t size) {
    const std::string path = file.path.string();
    const std::string real = _system.Resolve(path);
    if (real.empty()) return AddMissing(path + " does not exist");
    if (real.starts_with("/dev/")) return Add(path + " is no plain file");
    const auto [owner, is_new] = _files.try_emplace(real, _owner);
    if (!is_new) Add(path + " is the file of " + owner->second + ", too");
    const int descriptor = _system.Open(real, Access::READ);
    if (descriptor < 0) return Add(path + " cannot be read");
    const std::int64_t held = _system.SizeOf(descriptor);
    _system.Close(descriptor);
    if (held < 0 || std::cmp_less(held, size)) {
      Add(Text(path, " has ", HexText(static_cast<std::uint64_t>(std::max<std::int64_t>(held, 0))),
               " bytes, the memory needs ", HexText(size)));
    }
  }

  void CheckEeprom(const EepromConfig& eeprom, const std::string& owner) {
    if (eeprom.file) return CheckFile(*eeprom.file, eeprom.size);
    const I2cConfig& i2c = *eeprom.i2c;
    const FoundAdapter found = FindAdapter(_system, i2c.adapter);
    if (!found.error.empty()) return AddMissing(found.error);
    CheckNode(found.node, "i2c-dev");
    I2cPlace place = PlaceOf(i2c, eeprom.size);
    // A driver that owns a bank keeps the kernel from reaching it.
    for (const std::uint16_t address : place.addresses) {
      const std::string driver = OwnerOf(_system, found, address);
      if (i2c.allow_bound || driver.empty()) continue;
      Add(Text("the driver ", driver, " owns address ", HexText(address), " of ", found.node,
               ": unbind it, or say 'allow_bound = true'"));
    }
    CheckIdleStates(i2c);
    const AdapterConfig way = WayTo(_system, found);
    place.root = way.adapter;
    place.muxes = way.muxes;
    std::string reason = WhyNotThere(place);
    for (const auto& [other, other_owner] : _places) {
      if (reason.empty()) reason = WhyNotBoth(place, other, other_owner);
    }
    if (!reason.empty()) Add(reason);
    _places.emplace_back(std::move(place), owner);
  }

  void CheckIdleStates(const I2cConfig& i2c) {
    if (!i2c.idle_disconnect) return;
    AdapterConfig way{.adapter = i2c.adapter.adapter, .muxes = {}};
    for (const auto& mux : i2c.adapter.muxes) {
      const FoundAdapter parent = FindAdapter(_system, way);
      way.muxes.push_back(mux);
      const std::string folder = I2cDevicePath(parent.number, mux.first);
      // Other kinds of muxes do not tell.
      const auto state = _system.ReadText(folder + "/idle_state");
      if (!state || *state == MUX_DISCONNECTS) continue;
      Add(Text("'idle_disconnect' is true, but the mux at ", HexText(mux.first),
               " stays connected: write ", MUX_DISCONNECTS, " to ", folder, "/idle_state"));
    }
  }

  void CheckNode(const std::string& node, const std::string& module) {
    if (_system.Resolve(node).empty()) {
      AddMissing(node + " does not exist: is the module " + module + " loaded?");
    }
  }

  System& _system;
  const Configuration& _configuration;
  std::vector<std::string> _problems;
  std::vector<Window> _windows;
  std::vector<std::pair<I2cPlace, std::string>> _places;  ///< with their owners
  std::map<std::string, std::string> _files;              ///< by true path: whose they are
  const DeviceConfig* _device = nullptr;                  ///< that is being looked at
  std::string _owner;
  std::string _chip;
};

}  // namespace

std::vector<std::string> CheckConfiguration(System& system, const Configuration& configuration) {
  return Check(system, configuration).Run();
}

}  // namespace serve
