#include "hardware/VirtualEeprom.h"

#include <algorithm>

namespace hardware {

VirtualEeprom::VirtualEeprom(I2cAdapter& adapter, EepromSettings settings)
    : _clock(adapter.Bus().System().Clock()),
      _power(adapter.Bus().System().GetPower()),
      _settings(settings),
      _cells(settings.size, device::ERASED) {
  adapter.Attach(*this);
}

void VirtualEeprom::Load(std::uint32_t offset, device::View bytes) {
  device::Chip(_cells, 0).Load(offset, bytes);
}

void VirtualEeprom::FlipBit(std::uint32_t offset, std::uint32_t bit) {
  _cells.at(offset) ^= static_cast<std::uint8_t>(1u << bit);
}

bool VirtualEeprom::Start(std::uint16_t address, bool is_read) {
  // What came before a repeated start is lost, and so is an offset for another chip.
  _latch.clear();
  _offset_bytes = 0;
  _is_written = false;
  const auto bank = BankAt(address);
  if (!bank || _is_absent || _clock.Now() < _busy_until) return false;
  _offset = (*bank << _settings.offset_bits | (_offset & (BankSize() - 1))) % _settings.size;
  _is_written = !is_read;
  return true;
}

void VirtualEeprom::Write(std::uint8_t byte) {
  if (_offset_bytes == _settings.offset_bits / 8) {
    _latch.push_back(byte);
    return;
  }
  ++_offset_bytes;
  const std::uint32_t bank = _offset & ~(BankSize() - 1);
  // The first byte is the upper one.
  const std::uint32_t kept = _settings.offset_bits == 16 && _offset_bytes == 2 ? _offset : 0;
  const std::uint32_t in_bank = _offset_bytes == _settings.offset_bits / 8
                                    ? (kept & 0xFF00) | byte
                                    : std::uint32_t{byte} << 8;
  _offset = (bank | in_bank) % _settings.size;
}

std::uint8_t VirtualEeprom::Read() {
  const std::uint8_t byte = _cells[_offset];
  const std::uint32_t first = _settings.rolls_over_banks ? 0 : _offset & ~(BankSize() - 1);
  const std::uint32_t size =
      _settings.rolls_over_banks ? _settings.size : std::min(BankSize(), _settings.size);
  _offset = first + (_offset - first + 1) % size;
  return byte;
}

bool VirtualEeprom::Stop() {
  const bool begins_write = _is_written && !_latch.empty() && !_is_protected;
  if (begins_write) Program();
  _latch.clear();
  _is_written = false;
  return begins_write;
}

void VirtualEeprom::PowerUp() {
  _latch.clear();
  _is_written = false;
  _busy_until = Time{};
  _offset = 0;
}

/// The bank that an address stands for; nothing where it is another chip's.
std::optional<std::uint32_t> VirtualEeprom::BankAt(std::uint16_t address) const {
  const std::uint32_t banks = std::max(1u, _settings.size >> _settings.offset_bits);
  for (std::uint32_t bank = 0; bank < banks; ++bank) {
    if (address == (_settings.address | bank << _settings.bank_bit)) return bank;
  }
  return std::nullopt;
}

void VirtualEeprom::Program() {
  ++_page_writes;
  _busy_until = _clock.Now() + _settings.write_time;
  // Of more bytes than the page has, the last ones stay.
  const std::size_t size = std::min<std::size_t>(_latch.size(), _settings.page);
  const std::size_t first = _latch.size() - size;
  const std::uint32_t page = _offset - _offset % _settings.page;
  const std::size_t at = (_offset % _settings.page + first) % _settings.page;
  auto bytes = device::Cells(_latch).subspan(first);
  if (_page_writes == _flipped) bytes[0] ^= static_cast<std::uint8_t>(1u << _flipped_bit);
  _offset = page + static_cast<std::uint32_t>((at + size) % _settings.page);
  if (_page_writes == _dropped) return;
  _power.Program(device::MemoryKind::EEPROM, device::Cells(_cells).subspan(page, _settings.page),
                 at, bytes, _settings.write_time);
  if (_stuck) _cells[_stuck->first] = _stuck->second;
}

}  // namespace hardware
