/// Compares the memory of devices with what a burn of the image must have left. Reads all devices
/// together, piece by piece, and keeps no piece: memory does not grow with the size of the image
/// times the number of devices.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "device/Boot.h"
#include "device/Burn.h"
#include "device/Image.h"
#include "verify/ComparedRegion.h"
#include "verify/DeviceReader.h"
#include "verify/Expectation.h"
#include "verify/Finding.h"

namespace verify {

/// Which slots are compared.
enum class SlotChoice {
  FIRST,
  SECOND,
  AUTO,  ///< with pointer sectors, the valid or signed slots; with boot records, both; all sections
         ///< where the image cannot be burnt into slots
  NONE,  ///< all sections at their addresses, as a burn that is not failsafe leaves them
};

/// What is compared, and with what. The image is borrowed.
struct Task {
  const device::Image& image;
  std::optional<device::BootLayout> layout =
      {};                  ///< where the image places the records of its slots
  bool has_slots = false;  ///< the image can be burnt into slots
  SlotChoice choice = SlotChoice::AUTO;

  bool ComparesSlots() const { return choice != SlotChoice::NONE && has_slots; }
  bool HasPointerSectors() const { return layout && layout->HasPointerSectors(); }
};

/// Compares the devices of one group: EEPROM devices that one request may name, or one flash.
class Comparison {
 public:
  /// Gets the bytes that have been compared, of one device, and how many that will be in all.
  using Progress = std::function<void(std::uint64_t done, std::uint64_t total)>;

  /// The reader, which is borrowed, is open.
  Comparison(const Task& task, DeviceReader& reader, Progress progress)
      : _task(task), _reader(reader), _progress(std::move(progress)) {}

  /// The findings of `guids`, which are ascending. To be called once. Throws ServerFailure.
  std::vector<DeviceFinding> Compare(const std::vector<device::Guid>& guids);

 private:
  /// Bytes that the devices are compared at.
  struct Pass {
    std::vector<ComparedRegion> regions;  ///< the prediction needs all of them
    std::size_t first = 0;                ///< the first that is compared
    std::uint32_t slot = 0;               ///< with pointer sectors

    std::span<const ComparedRegion> Compared() const { return std::span(regions).subspan(first); }
  };

  /// What was found of one device, if the burn went one way.
  struct Tally {
    std::string cannot_predict;  ///< why the bytes to expect are not known; "" where they are
    /// Places in the pass where this device differs from _common, and its bytes there.
    std::vector<std::pair<std::size_t, std::uint8_t>> own;
    std::size_t next_own = 0;  ///< the first that has not been compared
    std::size_t different = 0;
    bool has_invariant_sector = true;
    std::vector<Difference> differences;  ///< the first of them
  };

  /// Each way in which a burn may go leaves other bytes: with boot records, the order of the slots;
  /// with pointer sectors, whether the invariant sector is kept or rewritten.
  static constexpr std::size_t MOST_WAYS = 2;
  static constexpr std::size_t KEPT = 0;
  static constexpr std::size_t REWRITTEN = 1;

  struct Device {
    DeviceFinding finding;
    std::array<Tally, MOST_WAYS> ways;
    std::array<device::Bytes, device::SLOTS> records;  ///< as far as they have been read
    std::vector<std::uint32_t> marked;                 ///< slots that a burn takes for valid
    std::size_t compared = 0;                          ///< bytes
    bool keeps_invariant = true;                       ///< that sector is as in the image
  };

  std::size_t Ways() const;
  std::vector<Pass> Passes() const;
  std::vector<Pass> PointerSectorPasses() const;
  bool HoldRecords(const std::vector<Pass>& passes) const;

  void ReadRecords(const std::vector<device::Guid>& guids);
  void TakeRecords(std::uint32_t at, std::span<const std::uint8_t> bytes, Device& device) const;
  void JudgeSlots(Device& device) const;
  void GiveUp(const std::vector<device::Guid>& guids, const std::string& reason);

  void Predict(const Pass& pass);
  device::Bytes PredictWay(const Pass& pass, std::size_t way,
                           const device::Burn::FieldValues& values) const;
  void ReadAndCompare(const Pass& pass);
  void Take(const ComparedRegion& region, std::size_t place, std::uint32_t offset,
            std::span<const std::uint8_t> bytes, Device& device);
  std::size_t ChosenWay(const Device& device) const;
  void Conclude(Device& device, std::size_t wanted) const;

  Device& Of(device::Guid guid);
  bool IsInvariant(const device::Section& section) const;

  const Task& _task;
  DeviceReader& _reader;
  const Progress _progress;
  std::vector<device::Guid> _guids;  ///< ascending
  std::vector<Device> _devices;      ///< in the same order
  std::vector<const device::Section*> _invariant;
  /// What the first device holds after each way, in the current pass; most bytes are the same on
  /// all devices.
  std::array<device::Bytes, MOST_WAYS> _common;
  device::Bytes _expected;  ///< of the piece being compared; kept for its memory
  bool _takes_records_from_regions = false;
  std::uint64_t _done = 0;   ///< bytes of all devices
  std::uint64_t _total = 0;  ///< likewise
};

}  // namespace verify
