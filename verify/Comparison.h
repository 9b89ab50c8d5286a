/// Compares one device's memory with what a burn of the image must have left.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "device/Boot.h"
#include "device/Image.h"
#include "verify/ComparedRegion.h"
#include "verify/DeviceReader.h"
#include "verify/Expectation.h"
#include "verify/Finding.h"

namespace verify {

/// The operations throw what the reader throws, and CannotPredict.
class Comparison {
 public:
  /// Both are borrowed. The reader is open.
  Comparison(const device::Image& image, DeviceReader& reader) : _image(image), _reader(reader) {}

  /// Reads the records at `layout`, which tell whether the slots boot.
  void JudgeSlots(const device::BootLayout& layout);
  const std::vector<std::uint32_t>& ValidSlots() const { return _valid; }
  /// The slots that a burn takes for valid: also those with a signature and a wrong CRC.
  const std::vector<std::uint32_t>& MarkedSlots() const { return _marked; }

  // Each adds to `finding` what was compared, and what differs.

  /// Compares all sections at their addresses in the image.
  void CompareAll(DeviceFinding& finding);
  /// Compares the slots in `finding.slots`.
  void CompareSlots(DeviceFinding& finding);

 private:
  Expectation Expected();
  void CompareBootRecordSlots(DeviceFinding& finding);
  void ComparePointerSectorSlots(DeviceFinding& finding);
  void ReadInto(std::span<ComparedRegion> regions);

  const device::Image& _image;
  DeviceReader& _reader;
  std::vector<std::uint32_t> _valid;
  std::vector<std::uint32_t> _marked;
};

}  // namespace verify
