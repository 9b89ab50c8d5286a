/// Some parts of a memory, as a burn leaves them: what the check judges in the place of the file's
/// own bytes where boot code looks.
#pragma once

#include <cstdint>
#include <vector>

#include "device/Burn.h"
#include "fwimg/CheckedImage.h"

namespace fwimg {

/// Parts of an empty memory of the kind that the image is for. The image is borrowed.
class BurntParts : public device::BurnTarget {
 public:
  explicit BurntParts(const CheckedImage& image) : _image(image) {}

  void Add(std::uint32_t addr, std::size_t size) {
    _parts.push_back({addr, Bytes(size, device::ERASED)});
  }
  /// In the order of Add.
  const Bytes& Part(std::size_t index) const { return _parts.at(index).bytes; }

  /// Burns by `plan` into a device of whose own values each byte is `own`. Returns false where the
  /// burn does not come to its end, which is a problem of its own.
  bool Burn(device::BurnKind kind, const device::Plan& plan, std::uint8_t own = 0);

  void Erase(std::uint32_t addr, std::uint64_t size) override;
  void Program(std::uint32_t addr, View bytes) override;

 private:
  struct Piece {
    std::uint32_t addr;
    Bytes bytes;
  };

  const CheckedImage& _image;
  std::vector<Piece> _parts;
};

}  // namespace fwimg
