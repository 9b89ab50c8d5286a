#include "serve/Eeprom.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "common/Text.h"
#include "serve/Places.h"
#include "serve/Wires.h"

namespace serve {

namespace {

using namespace std::chrono_literals;

/// Between two questions to a chip that is busy.
constexpr Time POLL = 200us;
/// After another master has won the bus.
constexpr Time ARBITRATION_PAUSE = 1ms;
constexpr int ARBITRATION_TRIES = 10;

}  // namespace

/// Each step makes one transfer. A chip that is busy with what it was sent does not answer: it is
/// asked again by the next transfer that is useful, the next page or the first read.
class EepromSteps : public JobSteps {
 public:
  EepromSteps(Eeprom& memory, Job& job) : _memory(memory), _wire(memory._wire), _job(job) {
    if (job.kind == Job::READ) {
      _phase = Phase::READ;
    } else {
      _read.resize(job.size);
    }
    if (job.kind == Job::READ) job.data.resize(job.size);
  }

  std::optional<Time> Step(System& system) override {
    switch (_phase) {
      case Phase::WRITE:
        return WriteNext(system, _job.size);
      case Phase::READ:
        return ReadNext(system, _job.data, _job.size);
      case Phase::READ_BACK:
        return ReadNext(system, _read, _job.size);
      case Phase::WRITE_AGAIN:
        return WriteNext(system, _again_end);
      case Phase::READ_AGAIN:
        return ReadNext(system, _read_again, _again_end);
      case Phase::WAIT:
        return WaitForChip(system);
    }
    return {};
  }

 private:
  enum class Phase {
    WRITE,
    READ,
    READ_BACK,
    WRITE_AGAIN,  ///< a page that reads back wrong, to find out whether writes have any effect
    READ_AGAIN,
    WAIT,  ///< for the end of the last write, without a read
  };

  std::uint32_t OffsetBytes() const { return _memory._config.offset_bits / 8; }

  /// The bytes from `offset` to the end of its bank.
  std::uint32_t LeftInBank(std::uint32_t offset) const {
    const std::uint32_t bank = 1u << _memory._config.offset_bits;
    return bank - offset % bank;
  }

  Bytes OffsetOf(std::uint32_t offset) const {
    Bytes bytes;
    if (OffsetBytes() > 1) bytes.push_back(static_cast<std::uint8_t>(offset >> 8));
    bytes.push_back(static_cast<std::uint8_t>(offset));
    return bytes;
  }

  std::optional<Time> WriteNext(System& system, std::uint32_t end) {
    const std::uint32_t offset = _job.offset + _at;
    const std::uint32_t page = _memory._config.page;
    const std::uint32_t size =
        std::min({page - offset % page, end - _at, LeftInBank(offset), _wire.max_write,
                  _memory._config.max_write - OffsetBytes()});
    Bytes bytes = OffsetOf(offset);
    bytes.insert(bytes.end(), _job.data.begin() + _at, _job.data.begin() + _at + size);
    const I2cMessage message{_memory.AddressOf(offset), false, bytes};
    if (const int result = Transfer(system, std::span(&message, 1)); result < 0) {
      if (result == -EOPNOTSUPP && Halve(_wire.max_write, size)) {
        return system.Now();
      }
      return AfterFailure(system, "Write", offset, result);
    }
    _memory._cycle_began = system.Now();
    _last_nak.reset();
    _at += size;
    if (_at < end) return NextTry();
    if (_phase == Phase::WRITE_AGAIN) {
      _at = _again_begin;
      _phase = Phase::READ_AGAIN;
    } else {
      _at = 0;
      _phase = _memory._reads_back ? Phase::READ_BACK : Phase::WAIT;
    }
    return NextTry();
  }

  std::optional<Time> ReadNext(System& system, Bytes& into, std::uint32_t end) {
    const std::uint32_t offset = _job.offset + _at;
    const std::uint32_t size =
        std::min({end - _at, LeftInBank(offset), _wire.max_read, _memory._config.max_read});
    Bytes bytes = OffsetOf(offset);
    const std::uint16_t address = _memory.AddressOf(offset);
    const I2cMessage messages[] = {{address, false, bytes},
                                   {address, true, std::span(into).subspan(_at, size)}};
    if (const int result = Transfer(system, messages); result < 0) {
      if (result == -EOPNOTSUPP && Halve(_wire.max_read, size)) return system.Now();
      return AfterFailure(system, "Read", offset, result);
    }
    _at += size;
    if (_at < end) return system.Now();
    if (_phase == Phase::READ_BACK) return Compare(system);
    if (_phase == Phase::READ_AGAIN) Judge();
    return {};
  }

  /// Asks the chip for a byte until it answers.
  std::optional<Time> WaitForChip(System& system) {
    Bytes bytes = OffsetOf(_job.offset);
    const std::uint16_t address = _memory.AddressOf(_job.offset);
    std::uint8_t byte = 0;
    const I2cMessage messages[] = {{address, false, bytes}, {address, true, std::span(&byte, 1)}};
    const int result = Transfer(system, messages);
    return result < 0 ? AfterFailure(system, "Write", _job.offset, result) : std::nullopt;
  }

  /// Learns from a success how long the chip takes for a write.
  int Transfer(System& system, std::span<const I2cMessage> messages) {
    const Time begin = system.Now();
    const int result = system.TransferI2c(_memory._descriptor, messages);
    if (result < 0) return result;
    _arbitrations = 0;
    if (!_memory._cycle_began) return result;
    const Time elapsed = begin - *_memory._cycle_began;
    if (_last_nak) {
      _memory._write_time = *_last_nak - *_memory._cycle_began;
    } else if (elapsed < _memory._write_time + POLL) {
      _memory._write_time -= _memory._write_time / 16;  // it may be faster
    }
    _memory._cycle_began.reset();
    return result;
  }

  Time NextTry() const { return *_memory._cycle_began + _memory._write_time; }

  /// A transfer of that size is more than the adapter makes: the next ones are smaller. False where
  /// none is: then it is not the size.
  static bool Halve(std::uint32_t& most, std::uint32_t size) {
    most = size > 1 ? size / 2 : I2cWire::MOST_BYTES;
    return size > 1;
  }

  std::optional<Time> AfterFailure(System& system, const char* what, std::uint32_t offset,
                                   int result) {
    const Time now = system.Now();
    const bool is_nak = result == -ENXIO || result == -EREMOTEIO;
    const bool may_be_busy = _memory._cycle_began && (is_nak || result == -EIO);
    if (may_be_busy && now - *_memory._cycle_began < _memory._config.write_limit) {
      _last_nak = now;
      return now + POLL;
    }
    if (may_be_busy && _last_nak) {
      _job.error = common::Text("Chip stays busy after a write at 0x", std::hex, offset);
    } else if (result == -EAGAIN && ++_arbitrations < ARBITRATION_TRIES) {
      return now + ARBITRATION_PAUSE;
    } else if (is_nak) {
      _job.error = "Device not there";
    } else if (result == -ETIMEDOUT) {
      _job.is_wire_stuck = true;
      _job.error =
          common::Text("I2C bus is stuck: ", what, " at 0x", std::hex, offset, " has timed out");
    } else {
      _job.error = CallError(what, offset, result);
    }
    return {};
  }

  std::optional<Time> Compare(System& system) {
    const auto differ = std::ranges::mismatch(_job.data, _read);
    if (differ.in1 == _job.data.end()) return {};
    // What the chip held before is not known. A write that changes nothing, twice, has no effect.
    const auto at = static_cast<std::uint32_t>(differ.in1 - _job.data.begin());
    const std::uint32_t page = _memory._config.page;
    const std::uint32_t in_page = (_job.offset + at) % page;
    _again_begin = at - std::min(at, in_page);
    _again_end = std::min(_job.size, at - in_page + page);
    _at = _again_begin;
    _read_again = _read;
    _phase = Phase::WRITE_AGAIN;
    return system.Now();
  }

  void Judge() {
    const auto part = [&](const Bytes& bytes) {
      return std::span(bytes).subspan(_again_begin, _again_end - _again_begin);
    };
    const auto wanted = part(_job.data);
    const auto first = part(_read);
    // Where most bytes have arrived, the chip does take writes.
    std::size_t arrived = 0;
    for (std::size_t i = 0; i < wanted.size(); ++i) arrived += wanted[i] == first[i] ? 1 : 0;
    const bool is_unchanged = std::ranges::equal(first, part(_read_again));
    _job.error = is_unchanged && arrived * 2 < wanted.size()
                     ? NO_EFFECT
                     : VerificationError(_job.offset + _again_begin, wanted, first);
  }

  Eeprom& _memory;
  I2cWire& _wire;
  Job& _job;
  Phase _phase = Phase::WRITE;
  std::uint32_t _at = 0;  ///< bytes of the job that this phase has dealt with
  Bytes _read;
  Bytes _read_again;
  std::uint32_t _again_begin = 0;
  std::uint32_t _again_end = 0;
  std::optional<Time> _last_nak;  ///< of this job, since the last write
  int _arbitrations = 0;          ///< lost in a row
};

Eeprom::Eeprom(const I2cConfig& config, std::uint32_t size, std::size_t channel, I2cWire& wire,
               bool reads_back)
    : _config(config), _size(size), _channel(channel), _wire(wire), _reads_back(reads_back) {}

std::uint16_t Eeprom::AddressOf(std::uint32_t offset) const {
  return static_cast<std::uint16_t>(_config.address | (offset >> _config.offset_bits)
                                                          << _config.bank_bit);
}

std::string Eeprom::Open(System& system, Access access) {
  if (IsOpen(access)) return "";
  Close(system);
  std::string error = TryOpen(system, access);
  if (!error.empty()) Close(system);
  return error;
}

std::string Eeprom::TryOpen(System& system, Access access) {
  if (access == Access::WRITE) {
    if (std::string error = TakeLock(system); !error.empty()) return error;
    _access = Access::WRITE;
  }
  const FoundAdapter found = FindAdapter(system, _config.adapter);
  if (!found.error.empty()) return found.error;
  _descriptor = system.Open(found.node, access);
  if (_descriptor < 0) return CallError("Open", 0, _descriptor);
  if (system.HasPlainI2c(_descriptor) != 1) return "The adapter makes no plain I2C transfers";
  if (_config.allow_bound) return "";
  for (const std::uint16_t address : AddressesOf(_config, _size)) {
    const int result = system.CheckI2cAddress(_descriptor, address);
    if (result == -EBUSY) {
      const std::string owner = OwnerOf(system, found, address);
      return owner.empty() ? "Address in use by a driver" : "Address in use by driver " + owner;
    }
    if (result < 0) return CallError("Open", 0, result);
  }
  return "";
}

std::string Eeprom::TakeLock(System& system) {
  if (_wire.lock_users == 0) {
    _wire.lock = system.Open(_wire.lock_file, Access::LOCK);
    if (_wire.lock < 0) return _wire.lock_file + ": " + CallError("Open", 0, _wire.lock);
    if (system.Lock(_wire.lock) != 0) {
      system.Close(std::exchange(_wire.lock, -1));
      return "I2C bus in use by another program";
    }
  }
  ++_wire.lock_users;
  return "";
}

bool Eeprom::IsOpen(Access access) const {
  return _descriptor >= 0 && (access == Access::READ || _access == Access::WRITE);
}

void Eeprom::Close(System& system) {
  if (_descriptor >= 0) system.Close(std::exchange(_descriptor, -1));
  if (std::exchange(_access, Access::READ) == Access::WRITE && --_wire.lock_users == 0) {
    system.Close(std::exchange(_wire.lock, -1));
  }
}

std::unique_ptr<JobSteps> Eeprom::Begin(Job& job) {
  return std::make_unique<EepromSteps>(*this, job);
}

}  // namespace serve
