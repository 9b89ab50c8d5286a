#include "hardware/VirtualFlash.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "common/Text.h"

namespace hardware {

using common::HexText;
using common::Text;

namespace {

constexpr std::uint32_t NAND_PAGE = 2048;  ///< bytes

// Of what MTD tells as flags.
constexpr std::uint32_t MTD_WRITABLE = 0x400;
constexpr std::uint32_t MTD_BIT_WRITABLE = 0x800;
constexpr std::uint32_t MTD_NO_ERASE = 0x1000;

}  // namespace

/// An MTD device: a part of the chip.
class MtdNode : public Node {
 public:
  MtdNode(VirtualFlash& flash, VirtualFlash::Part part) : _flash(flash), _part(std::move(part)) {}

  bool IsReadOnly() const override { return !_part.is_writable; }

  std::int64_t Read(std::uint64_t offset, std::span<std::uint8_t> bytes) override {
    if (offset >= _part.size) return 0;
    const auto size =
        static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), _part.size - offset));
    _flash.Read(_part.offset + offset, bytes.first(size));
    return static_cast<std::int64_t>(size);
  }

  std::int64_t Write(std::uint64_t offset, std::span<const std::uint8_t> bytes) override {
    if (offset >= _part.size) return -ENOSPC;
    const auto size =
        static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), _part.size - offset));
    const std::uint32_t whole = _flash.WriteSize();
    if (offset % whole != 0 || size % whole != 0) return -EINVAL;
    if (const int error = _flash.Program(_part.offset + offset, bytes.first(size))) return error;
    return static_cast<std::int64_t>(size);
  }

  int GetMtdFacts(serve::MtdFacts& facts) override {
    const FlashSettings& chip = _flash._settings;
    facts = {.is_nor = chip.kind == FlashSettings::Kind::NOR,
             .is_bit_writable = chip.kind != FlashSettings::Kind::NAND && chip.is_bit_writable,
             .has_no_erase = chip.kind == FlashSettings::Kind::RAM || chip.has_no_erase,
             .size = _part.size,
             .erase_size = chip.erase_size,
             .write_size = _flash.WriteSize(),
             .erase_regions = chip.erase_regions};
    return 0;
  }

  /// The length is checked; whether it begins at a block is left to the chip.
  int EraseMtd(std::uint64_t offset, std::uint64_t size) override {
    const FlashSettings& chip = _flash._settings;
    if (offset >= _part.size || size > _part.size - offset) return -EINVAL;
    if (size % chip.erase_size != 0) return -EINVAL;
    const bool is_refused = chip.unaligned_erase == FlashSettings::UnalignedErase::REFUSED;
    if (is_refused && offset % chip.erase_size != 0) return -EINVAL;
    for (std::uint64_t done = 0; done < size; done += chip.erase_size) {
      if (const int error = _flash.EraseBlock(_part.offset + offset + done)) return error;
    }
    return 0;
  }

 private:
  VirtualFlash& _flash;
  VirtualFlash::Part _part;
};

VirtualFlash::VirtualFlash(VirtualSystem& system, FlashSettings settings)
    : _system(system),
      _settings(std::move(settings)),
      _cells(_settings.size, device::ERASED),
      _is_present(_settings.is_present) {
  AddPartition(_settings.number, _settings.name, 0, _settings.size, _settings.is_writable);
}

void VirtualFlash::AddPartition(std::uint32_t number, const std::string& name, std::uint32_t offset,
                                std::uint32_t size, bool is_writable) {
  _parts.push_back({number, name, offset, size, is_writable});
  if (_is_present) Register(_parts.back());
}

void VirtualFlash::SetPresent(bool is_present) {
  if (std::exchange(_is_present, is_present) == is_present) return;
  for (const Part& part : _parts) {
    if (is_present) {
      Register(part);
      continue;
    }
    const std::string name = Text("mtd", part.number);
    for (const std::string& path :
         {"/dev/" + name, "/dev/" + name + "ro", "/sys/class/mtd/" + name, MtdFolder(part)}) {
      _system.TakeAway(path);
    }
  }
  if (!is_present) _system.TakeAway(DeviceFolder() + "/spi-nor");
}

void VirtualFlash::Load(std::uint32_t offset, device::View bytes) {
  device::Chip(_cells, _settings.erase_size).Load(offset, bytes);
}

void VirtualFlash::FlipBit(std::uint32_t offset, std::uint32_t bit) {
  _cells.at(offset) ^= static_cast<std::uint8_t>(1u << bit);
}

void VirtualFlash::Register(const Part& part) {
  const std::string name = Text("mtd", part.number);
  Part read_only = part;
  read_only.is_writable = false;
  _system.AddNode("/dev/" + name, std::make_shared<MtdNode>(*this, part));
  _system.AddNode("/dev/" + name + "ro", std::make_shared<MtdNode>(*this, read_only));

  std::uint32_t flags = part.is_writable ? MTD_WRITABLE : 0;
  const char* type = "nor";
  if (_settings.kind == FlashSettings::Kind::NAND) type = "nand";
  if (_settings.kind == FlashSettings::Kind::RAM) type = "ram";
  if (_settings.kind != FlashSettings::Kind::NAND) flags |= MTD_BIT_WRITABLE;
  if (_settings.kind == FlashSettings::Kind::RAM) flags |= MTD_NO_ERASE;

  const std::string folder = MtdFolder(part);
  const auto add = [&](const char* file, const std::string& text) {
    _system.AddText(Text(folder, "/", file), text);
  };
  add("name", part.name);
  add("type", type);
  add("flags", HexText(flags));
  add("size", std::to_string(part.size));
  add("erasesize", std::to_string(_settings.erase_size));
  add("writesize", std::to_string(WriteSize()));
  add("numeraseregions", std::to_string(_settings.erase_regions));
  // The whole chip is no partition, which has an offset.
  if (&part != &_parts.front()) add("offset", std::to_string(part.offset));
  _system.AddLink(folder + "/device", "../..");
  _system.AddLink("/sys/class/mtd/" + name, folder);
  if (!_settings.jedec.empty()) {
    _system.AddText(DeviceFolder() + "/spi-nor/jedec_id", _settings.jedec);
  }
}

std::string VirtualFlash::MtdFolder(const Part& part) const {
  return Text(DeviceFolder(), "/mtd/mtd", part.number);
}

std::uint32_t VirtualFlash::WriteSize() const {
  return _settings.kind == FlashSettings::Kind::NAND ? NAND_PAGE : _settings.write_unit;
}

bool VirtualFlash::IsProtected(std::uint64_t offset, std::uint64_t size) const {
  return offset < _protected.offset + _protected.size && _protected.offset < offset + size;
}

void VirtualFlash::Read(std::uint64_t offset, std::span<std::uint8_t> bytes) {
  std::ranges::copy(device::View(_cells).subspan(static_cast<std::size_t>(offset), bytes.size()),
                    bytes.begin());
  _bytes_read += bytes.size();
  BeBusy(_settings.byte_time * bytes.size());
}

int VirtualFlash::Program(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const auto room = static_cast<std::size_t>(_settings.page - offset % _settings.page);
    const std::size_t size = std::min(room, bytes.size());
    if (const int error = ProgramPage(offset, bytes.first(size))) return error;
    bytes = bytes.subspan(size);
    offset += size;
  }
  return 0;
}

int VirtualFlash::ProgramPage(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
  ++_programs;
  ++_all_programs;
  const bool fails = _all_programs == _failed_program;
  const auto programmed = fails ? bytes.first(bytes.size() / 2) : bytes;
  const auto kind = _settings.kind == FlashSettings::Kind::RAM ? device::MemoryKind::EEPROM
                                                               : device::MemoryKind::FLASH;
  BeBusy(_settings.byte_time * bytes.size());
  // What the chip ignores takes it no time.
  if (_all_programs != _dropped_program && !IsProtected(offset, bytes.size())) {
    _system.GetPower().Program(
        kind, device::Cells(_cells).subspan(static_cast<std::size_t>(offset), programmed.size()), 0,
        programmed, _settings.program_time);
    BeBusy(_settings.program_time);
  }
  return fails || !_system.GetPower().IsOn() ? -EIO : 0;
}

int VirtualFlash::EraseBlock(std::uint64_t offset) {
  ++_erases;
  ++_all_erases;
  if (_all_erases == _failed_erase) {
    BeBusy(_settings.erase_time);
    return -EIO;
  }
  const bool is_shifted =
      _settings.unaligned_erase == FlashSettings::UnalignedErase::WIPES_FROM_START;
  const std::uint64_t first = is_shifted ? offset : offset - offset % _settings.erase_size;
  const std::uint64_t size = std::min<std::uint64_t>(_settings.erase_size, _cells.size() - first);
  if (IsProtected(first, size)) return 0;
  const std::uint64_t erased = _all_erases == _spoilt_erase ? size / 2 : size;
  _system.GetPower().Erase(device::Cells(_cells).subspan(static_cast<std::size_t>(first),
                                                         static_cast<std::size_t>(erased)),
                           _settings.erase_time);
  BeBusy(_settings.erase_time);
  return _system.GetPower().IsOn() ? 0 : -EIO;
}

void VirtualFlash::BeBusy(Time time) {
  _busy += time;
  _system.Clock().Advance(time);
}

}  // namespace hardware
