#include "hardware/I2cBus.h"

#include <algorithm>
#include <array>
#include <iomanip>

#include "common/Text.h"

namespace hardware {

using common::Text;

namespace {

constexpr std::size_t MOST_MESSAGES = 42;         ///< of a transfer, in i2c-dev
constexpr std::size_t LONGEST_MESSAGE = 8192;     ///< bytes, in i2c-dev
constexpr std::uint64_t BITS_OF_BYTE = 9;         ///< with the acknowledgement
constexpr std::uint64_t BITS_OF_LOST_START = 11;  ///< a start, the address, and giving up

/// As the kernel names a chip: "5-0070".
std::string ChipName(std::uint32_t adapter, std::uint16_t address) {
  return Text(adapter, "-", std::hex, std::setw(4), std::setfill('0'), address);
}

}  // namespace

I2cAdapter::I2cAdapter(I2cBus& bus, I2cMux* mux, std::uint32_t channel, std::uint32_t number)
    : _bus(bus), _mux(mux), _channel(channel), _number(number) {}

I2cAdapter::~I2cAdapter() = default;

I2cMux& I2cAdapter::AddMux(std::uint16_t address, std::uint32_t first_number, Idle idle) {
  Bind(address, "pca954x");
  _muxes.push_back(std::make_unique<I2cMux>(*this, address, first_number, idle));
  return *_muxes.back();
}

void I2cAdapter::Bind(std::uint16_t address, const std::string& driver) {
  _bound[address] = driver;
  const std::string chip = ChipName(_number, address);
  VirtualSystem& system = _bus.System();
  system.AddLink("/sys/bus/i2c/devices/" + chip, Folder() + "/" + chip);
  system.AddText("/sys/bus/i2c/drivers/" + driver + "/uevent", "");
  system.AddLink(Folder() + "/" + chip + "/driver", "/sys/bus/i2c/drivers/" + driver);
}

int I2cAdapter::HasPlainI2c() { return _bus._settings.has_plain_i2c ? 1 : 0; }

int I2cAdapter::CheckI2cAddress(std::uint16_t address) {
  if (address > 0x7F) return -EINVAL;
  for (const I2cAdapter* adapter = this; adapter != nullptr;
       adapter = adapter->_mux == nullptr ? nullptr : &adapter->_mux->_parent) {
    if (adapter->_bound.contains(address)) return -EBUSY;
  }
  return IsBoundBelow(address) ? -EBUSY : 0;
}

/// What i2c-dev and the core of the kernel refuse, before the wire is touched.
int I2cAdapter::TransferI2c(std::span<const serve::I2cMessage> messages) {
  if (messages.empty() || messages.size() > MOST_MESSAGES) return -EINVAL;
  for (const auto& message : messages) {
    if (message.bytes.size() > LONGEST_MESSAGE) return -EINVAL;
  }
  const BusSettings& can = _bus._settings;
  if (!can.has_plain_i2c) return -EOPNOTSUPP;
  for (const auto& message : messages) {
    if (message.bytes.empty() && !can.takes_empty_messages) return -EOPNOTSUPP;
    if (message.bytes.size() > (message.is_read ? can.max_read : can.max_write)) {
      return -EOPNOTSUPP;
    }
  }
  return Transfer(messages);
}

void I2cAdapter::PowerUp() {
  for (I2cDevice* device : _devices) device->PowerUp();
  for (const auto& mux : _muxes) mux->PowerUp();
}

bool I2cAdapter::IsBoundBelow(std::uint16_t address) const {
  if (_bound.contains(address)) return true;
  return std::ranges::any_of(_muxes, [&](const auto& mux) {
    return std::ranges::any_of(mux->_channels,
                               [&](const auto& below) { return below->IsBoundBelow(address); });
  });
}

/// The chips that are one wire with this adapter now.
void I2cAdapter::AddReachable(std::vector<I2cDevice*>& devices) const {
  devices.insert(devices.end(), _devices.begin(), _devices.end());
  for (const auto& mux : _muxes) {
    devices.push_back(mux.get());
    for (const auto& channel : mux->_channels) {
      if (mux->IsOpen(channel->_channel)) channel->AddReachable(devices);
    }
  }
}

int I2cAdapter::Transfer(std::span<const serve::I2cMessage> messages) {
  if (_mux == nullptr) return _bus.TransferOnWire(messages);
  if (const int error = _mux->Select(_channel); error < 0) return error;
  const int result = _mux->_parent.Transfer(messages);
  _mux->Leave();
  return result;
}

/// Makes the node and its entries in sysfs.
void I2cAdapter::Register(const std::string& name) {
  VirtualSystem& system = _bus.System();
  const std::string adapter = "i2c-" + std::to_string(_number);
  system.AddText(Folder() + "/name", name);
  system.AddLink(Text("/sys/bus/i2c/devices/", adapter), Folder());
  system.AddLink(Text("/sys/class/i2c-dev/", adapter), Text(Folder(), "/i2c-dev/", adapter));
  system.AddLink(Text(Folder(), "/i2c-dev/", adapter, "/device"), "../../../" + adapter);
  // The bus owns the adapter, the system borrows it.
  system.AddNode(Path(), std::shared_ptr<Node>(std::shared_ptr<Node>(), this));
}

/// Of the adapter, in sysfs.
std::string I2cAdapter::Folder() const {
  const std::string parent =
      _mux == nullptr
          ? "/sys/devices/platform/ahb/ahb:apb/ahb:apb:bus@1e78a000/" + _bus._settings.name
          : _mux->_parent.Folder();
  return parent + "/i2c-" + std::to_string(_number);
}

I2cMux::I2cMux(I2cAdapter& parent, std::uint16_t address, std::uint32_t first_number,
               I2cAdapter::Idle idle)
    : _parent(parent), _address(address), _idle(idle) {
  VirtualSystem& system = parent.Bus().System();
  const std::string chip = ChipName(parent.Number(), address);
  const std::string folder = parent.Folder() + "/" + chip;
  system.AddText(folder + "/name", "pca9548");
  system.AddText(folder + "/idle_state", idle == I2cAdapter::Idle::AS_IS ? "-1" : "-2");
  for (std::uint32_t channel = 0; channel < CHANNELS; ++channel) {
    const std::uint32_t number = first_number + channel;
    _channels.push_back(std::make_unique<I2cAdapter>(parent.Bus(), this, channel, number));
    I2cAdapter& adapter = *_channels.back();
    adapter.Register(Text("i2c-", parent.Number(), "-mux (chan_id ", channel, ")"));
    system.AddLink(adapter.Folder() + "/mux_device", "../" + chip);
    system.AddLink(Text(folder, "/channel-", channel), Text("../i2c-", number));
  }
}

I2cMux::~I2cMux() = default;

bool I2cMux::Start(std::uint16_t address, bool) {
  _written.reset();
  return address == _address;
}

bool I2cMux::Stop() {
  _register = _written.value_or(_register);
  _written.reset();
  return false;
}

void I2cMux::PowerUp() {
  _register = 0;
  _written.reset();
  _last_written.reset();
  for (const auto& channel : _channels) channel->PowerUp();
}

int I2cMux::Select(std::uint32_t channel) {
  const auto value = static_cast<std::uint8_t>(1u << channel);
  return _last_written == value ? 0 : WriteRegister(value);
}

void I2cMux::Leave() {
  if (_idle == I2cAdapter::Idle::DISCONNECT) WriteRegister(0);
}

int I2cMux::WriteRegister(std::uint8_t value) {
  std::array<std::uint8_t, 1> bytes{value};
  const serve::I2cMessage message{.address = _address, .is_read = false, .bytes = bytes};
  ++_parent.Bus()._mux_writes;
  const int result = _parent.Transfer({&message, 1});
  _last_written = result < 0 ? std::nullopt : std::optional(value);
  return result;
}

I2cBus::I2cBus(VirtualSystem& system, BusSettings settings)
    : _system(system),
      _settings(std::move(settings)),
      _root(std::make_unique<I2cAdapter>(*this, nullptr, 0, _settings.number)) {
  _root->Register(_settings.name);
}

I2cBus::~I2cBus() = default;

void I2cBus::ResetCounts() {
  _busy = _nak_time = _page_writes_time = Time{};
  _page_writes = _transfers = _naks = _mux_writes = 0;
}

int I2cBus::TransferOnWire(std::span<const serve::I2cMessage> messages) {
  VirtualClock& clock = _system.Clock();
  const Time begin = clock.Now();
  if (_held_from && begin >= *_held_from) {
    clock.Advance(_settings.stuck_timeout);
    return -ETIMEDOUT;
  }
  ++_transfers;
  if (_losses > 0) {
    --_losses;
    _busy += BitTime(BITS_OF_LOST_START);
    clock.Advance(BitTime(BITS_OF_LOST_START));
    return -EAGAIN;
  }
  // No mux changes its channel before the stop.
  std::vector<I2cDevice*> devices;
  _root->AddReachable(devices);
  std::uint64_t bits = 0;
  int result = static_cast<int>(messages.size());
  for (const auto& message : messages) {
    std::vector<I2cDevice*> addressed;
    for (I2cDevice* device : devices) {
      if (device->Start(message.address, message.is_read)) addressed.push_back(device);
    }
    bits += 1 + BITS_OF_BYTE;
    if (addressed.empty()) {
      ++_naks;
      result = -_settings.nak_error;
    } else {
      for (std::uint8_t& byte : message.bytes) {
        if (!message.is_read) {
          for (I2cDevice* device : addressed) device->Write(byte);
          continue;
        }
        // A chip that sends a 0 pulls the wire down; a 1 lets it be.
        byte = 0xFF;
        for (I2cDevice* device : addressed) byte &= device->Read();
      }
      bits += BITS_OF_BYTE * message.bytes.size();
    }
    clock.AdvanceTo(begin + BitTime(bits));
    if (result < 0) break;
  }
  ++bits;
  clock.AdvanceTo(begin + BitTime(bits));
  _busy += BitTime(bits);
  if (result < 0) _nak_time += BitTime(bits);
  bool begins_write = false;
  for (I2cDevice* device : devices) {
    if (device->Stop()) begins_write = true;
  }
  if (begins_write) {
    ++_page_writes;
    _page_writes_time += BitTime(bits);
  }
  return result;
}

Time I2cBus::BitTime(std::uint64_t bits) const {
  return std::chrono::nanoseconds(bits * 1'000'000 / _settings.khz);
}

}  // namespace hardware
