#include "fwimg/Layout.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <utility>

#include "device/Boot.h"
#include "fwimg/Names.h"

namespace fwimg {

namespace {

constexpr std::size_t LONGEST_NAME = 64;

/// The rules of CheckLayout, one by one.
class Checker {
 public:
  explicit Checker(const Layout& layout) : _layout(layout) {}

  void Check() {
    for (const Layout::Slot& slot : _layout.slots) CheckSlot(slot);
    for (const Layout::Section& section : _layout.sections) CheckSection(section);
    for (const Layout::Field& field : _layout.fields) CheckField(field);
    for (const Layout::Crc& crc : _layout.crcs) CheckCrc(crc);
  }

 private:
  void CheckSlot(const Layout::Slot& slot) const {
    for (const auto& addr : {slot.pointer_sector, slot.signature, slot.image}) {
      if (addr != device::UNSET_ADDR) continue;
      _layout.Throw(slot.line,
                    "a slot's address cannot be 0xffffffff: that means that it has none");
    }
  }

  void CheckSection(const Layout::Section& section) {
    const auto is_good = [](unsigned char c) {
      return (std::isalnum(c) != 0 && c < 0x80) || c == '_' || c == '.' || c == '-';
    };
    const std::string& name = section.name;
    if (name.empty() || name.size() > LONGEST_NAME || !std::ranges::all_of(name, is_good)) {
      _layout.Throw(section.line, Text("a section's name is 1 to ", LONGEST_NAME,
                                       " letters, digits, '_', '.' and '-'"));
    }
    if (!_names.insert(name).second) {
      _layout.Throw(section.line, "there are two sections " + name);
    }
    if (section.data.empty()) _layout.Throw(section.line, "the section " + name + " has no bytes");
    if (section.data.size() % WORD_SIZE != 0) {
      _layout.Throw(section.line,
                    Text("the section ", name, " has ", section.data.size(),
                         " bytes, not whole words of 4; 'pad' fills the last one up"));
    }
    if (section.End() > ADDRESS_SPACE) {
      _layout.Throw(
          section.line,
          "the section " + name +
              " reaches past 4 GiB, the last address: place it lower, or make it shorter");
    }
    if (section.has_boot_record && section.data.size() < device::BOOT_RECORD_SIZE) {
      _layout.Throw(section.line,
                    Text("a boot record has ", device::BOOT_RECORD_SIZE, " bytes, the section ",
                         name, " only ", section.data.size()));
    }
  }

  void CheckField(const Layout::Field& field) {
    // The loader drops it, and only warns.
    const device::DeviceType* type = device::FindDeviceType(_layout.device_type);
    if (field.type == FieldType::BSN && type != nullptr && !type->has_bsn) {
      _layout.Throw(field.line, Text("the field BSN is ignored for an ", type->keyword));
    }
    const std::string what = "the field " + std::string(device::RowOf(field.type).keyword);
    CheckMapped(field.addr, what, field.line);
    if (!_fields.emplace(field.addr, field.type).second) {
      _layout.Throw(field.line, what + " at " + WhereIs(field.addr) + " is there already");
    }
  }

  void CheckCrc(const Layout::Crc& crc) const {
    if (crc.End() > ADDRESS_SPACE)
      _layout.Throw(crc.line, "a CRC covers bytes past the last address");
    CheckMapped(crc.from, "what a CRC covers", crc.line);
    CheckMapped(crc.from + crc.size - WORD_SIZE, "what a CRC covers", crc.line);
    CheckMapped(crc.addr, "the word of a CRC", crc.line);
    // A burn computes it over its own place, still blank: seldom meant.
    if (crc.from < std::uint64_t{crc.addr} + WORD_SIZE && crc.addr < crc.End()) {
      _layout.Throw(crc.line, "the CRC at " + WhereIs(crc.addr) + " covers itself");
    }
  }

  /// A place counted from a slot may lie where no device is: an image file cannot name it.
  void CheckMapped(std::uint32_t addr, const std::string& what, std::uint32_t line) const {
    if (!_layout.PlaceOf(addr)) _layout.Throw(line, what + " lies past the last device");
  }

  /// Of an address that is mapped.
  std::string WhereIs(std::uint32_t addr) const { return Where(_layout.PlaceOf(addr).value()); }

  const Layout& _layout;
  std::set<std::string> _names;
  std::set<std::pair<std::uint32_t, FieldType>> _fields;
};

}  // namespace

std::string Layout::At(std::uint32_t line) const {
  return file.string() + (line == 0 ? "" : Text(":", line)) + ": ";
}

void Layout::Throw(std::uint32_t line, const std::string& text) const {
  throw LayoutError(At(line) + text);
}

std::optional<device::ChipPlace> Layout::PlaceOf(std::uint32_t addr) const {
  device::Image image;
  image.map = map;
  return image.PlaceOf(addr);
}

std::string Where(device::ChipPlace place) {
  return Text(std::hex, std::setfill('0'), std::setw(2), std::uint32_t{place.chip}, ":",
              std::setw(8), place.offset);
}

void CheckLayout(const Layout& layout) { Checker(layout).Check(); }

}  // namespace fwimg
