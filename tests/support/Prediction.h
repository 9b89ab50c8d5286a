/// What a burn leaves on a device, a second time: told by the burn algorithms themselves, which run
/// against just the bytes that are asked for. verify/Expectation says the same without them;
/// whoever of the two is wrong, they differ.
#pragma once

#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "src/FwImage.h"
#include "verify/Expectation.h"

using verify::CannotPredict;
using verify::ComparedRegion;

/// Predicts for one device. All that it is given is borrowed. The image is as it was after each
/// call, but for the fields that a burn without slots forgets.
class Predictor {
 public:
  /// The device's own value of a field, as long as the field. What it throws passes through.
  using FieldSource = std::function<DataVec(FieldType type)>;

  /// `sector_size` is 0 for a memory without sectors.
  Predictor(FwImage& image, u_int32_t sector_size, FieldSource fields)
      : _image(image), _sector_size(sector_size), _fields(std::move(fields)) {}

  // Each sets `expected` of the regions, whatever was there. They throw CannotPredict.

  /// All sections where they stand.
  void GenericBurn(std::span<ComparedRegion> regions);
  /// A slot with a pointer sector; the regions of the invariant sector, if any, stand first.
  /// `keeps_invariant`: that sector was found as the image has it, and then a burn leaves it so,
  /// fields and CRCs included.
  void PointerSectorBurn(std::span<ComparedRegion> regions, u_int32_t slot, bool keeps_invariant);
  /// Both slots with boot records, `first` before the other. The order matters where the image
  /// marks a field or a CRC in one slot only.
  void BootRecordBurn(std::span<ComparedRegion> regions, u_int32_t first);

 private:
  class Twin;
  void Run(std::span<ComparedRegion> regions, const std::function<void(Twin&)>& burn);

  FwImage& _image;
  u_int32_t _sector_size;
  FieldSource _fields;
};
