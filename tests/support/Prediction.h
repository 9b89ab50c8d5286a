/// A second, independent computation of what a burn leaves on a device: the burner's algorithms run
/// on the compared bytes. verify/Expectation predicts the same without the burner's code. Where
/// either has a mistake, the two differ.
#pragma once

#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "src/FwImage.h"
#include "verify/Expectation.h"

using verify::CannotPredict;
using verify::ComparedRegion;

/// Predicts for one device. The arguments are borrowed. Each call leaves the image unchanged,
/// except that a burn without slots removes fields from it.
class Predictor {
 public:
  /// Returns the device's value of a field, with the size of the field. What it throws is passed
  /// on.
  using FieldSource = std::function<DataVec(FieldType type)>;

  /// `sector_size` is 0 for a memory without sectors.
  Predictor(FwImage& image, u_int32_t sector_size, FieldSource fields)
      : _image(image), _sector_size(sector_size), _fields(std::move(fields)) {}

  // Each replaces `expected` of the regions. They throw CannotPredict.

  /// A burn of all sections to their addresses in the image.
  void GenericBurn(std::span<ComparedRegion> regions);
  /// A failsafe burn into a slot with a pointer sector. The regions of the invariant sector, if
  /// any, are first. `keeps_invariant`: the device held them as they are in the image, and the
  /// burn did not rewrite them.
  void PointerSectorBurn(std::span<ComparedRegion> regions, u_int32_t slot, bool keeps_invariant);
  /// A failsafe burn into both slots with boot records, `first` before the other one. The order
  /// matters where the image marks a field or a CRC in one slot only.
  void BootRecordBurn(std::span<ComparedRegion> regions, u_int32_t first);

 private:
  class RegionRom;
  void Run(std::span<ComparedRegion> regions, const std::function<void(RegionRom&)>& burn);

  FwImage& _image;
  u_int32_t _sector_size;
  FieldSource _fields;
};
