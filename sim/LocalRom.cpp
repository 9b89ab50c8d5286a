#include "sim/LocalRom.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <sstream>
#include <utility>

#include "sim/Family.h"

namespace sim {

namespace {

/// The largest chunk, up to 256 bytes, that crosses no chip's end wherever it lies: what is to be
/// burnt must not depend on how it is cut.
u_int32_t Log2Chunk(const FwImage& image) {
  int log2 = 8;
  for (const EeLoc& chip : MapOf(image)._devmap)
    log2 = std::min(log2, std::countr_zero(chip.offset));
  return static_cast<u_int32_t>(log2);
}

/// A server without faults and limits, for as long as it lives.
class KindServer {
 public:
  explicit KindServer(Fabric& fabric)
      : _fabric(fabric),
        _facts(std::exchange(fabric.facts, {})),
        _faults(std::exchange(fabric.faults, {})) {}
  KindServer(const KindServer&) = delete;
  KindServer& operator=(const KindServer&) = delete;
  ~KindServer() {
    _fabric.facts = std::move(_facts);
    _fabric.faults = std::move(_faults);
  }

 private:
  Fabric& _fabric;
  ServerFacts _facts;
  FaultLayer _faults;
};

/// An image text as a file, which the loader takes.
class TemporaryImage {
 public:
  explicit TemporaryImage(const std::string& text) {
    const int fd = mkstemps(_path, 4);
    if (fd < 0) ThrowError("Can't make a temporary image file");
    std::string_view rest = text;
    while (!rest.empty()) {
      const ssize_t written = write(fd, rest.data(), rest.size());
      if (written <= 0) break;
      rest.remove_prefix(static_cast<std::size_t>(written));
    }
    close(fd);
    if (!rest.empty()) {
      unlink(_path);
      ThrowError("Can't write a temporary image file");
    }
  }
  TemporaryImage(const TemporaryImage&) = delete;
  TemporaryImage& operator=(const TemporaryImage&) = delete;
  ~TemporaryImage() { unlink(_path); }

  const char* Path() const { return _path; }

 private:
  char _path[32] = "/tmp/fwpush-sim-XXXXXX.img";
};

class ImageWriter : public BurnAlgorithm {
 public:
  ImageWriter(RomInterface& burn_if, const ImagePart& part) : BurnAlgorithm(burn_if), _part(part) {}

  std::string GetName() const override { return "ImageWriter"; }

  BraidResult Go(FwImage& image) override {
    if (!_part.slot) {
      // Vendor data and signatures as the image has them.
      image.RemoveReplace(VSD);
      image.RemoveReplace(SIGNATURE);
      std::vector<u_int32_t> addrs;
      image.GetSectionsAddr(addrs);
      for (const u_int32_t addr : addrs) Put(image, addr, addr);
    } else if (FamilyOf(image.DevType()) == Family::BOOT_RECORDS) {
      PutBootRecordSlot(image, *_part.slot);
    } else {
      PutSignedSlot(image, *_part.slot);
    }
    return BRAID_OK;
  }

 private:
  void Put(FwImage& image, u_int32_t addr, u_int32_t destination) {
    FwImage::Section* section = image.GetSection(addr);
    if (section == nullptr)
      ThrowError(Text("The image has no section at address ", std::hex, addr));
    const auto size = static_cast<u_int32_t>(section->data.size());
    const auto crcs = image.GetCrcsInRange(destination, size);
    for (const auto& crc : crcs) {
      if (crc.size % 4 != 0) {
        ThrowError(Text("The CRC at address ", std::hex, crc.crc_addr, " covers no whole words"));
      }
    }
    BurnRegion(destination, section->data, image.GetFieldsInRange(destination, size), crcs);
  }

  /// Returns the address of the slot.
  u_int32_t PutImage(FwImage& image, u_int32_t slot) {
    std::vector<u_int32_t> addrs;
    image.GetImageSectionsAddr(addrs);
    for (const u_int32_t addr : addrs) {
      Put(image, addr, addr - image.GetImageAddr(0) + image.GetImageAddr(slot));
    }
    return image.GetImageAddr(slot);
  }

  void PutSignedSlot(FwImage& image, u_int32_t slot) {
    std::vector<u_int32_t> addrs;
    image.GetSectionsAddr(addrs);
    for (const u_int32_t addr : addrs) {
      if (addr >= _burn_if.GetSectorSize()) break;
      Put(image, addr, addr);
    }
    PutImage(image, slot);
    Put(image, image.GetPsAddr(slot), image.GetPsAddr(slot));
    if (!_part.is_valid) return;
    DataVec signature;
    signature << VALID_SIGNATURE;
    _burn_if.WriteNoErase(image.GetSignatureAddr(slot), signature);
  }

  void PutBootRecordSlot(FwImage& image, u_int32_t slot) {
    FwImage::Section* first = image.GetSection(image.GetImageAddr(0));
    if (!_part.is_valid && first != nullptr && first->data.size() > 3) {
      first->data[3] = static_cast<u_int8_t>(first->data[3] + 10);  // a wrong checksum
    }
    PutImage(image, slot);
  }

  ImagePart _part;
};

template <typename Rom>
void BurnThrough(Rom&& rom, Guid guid, FwImage& image, const ImagePart& part) {
  rom.SetAddressConvertor(image.GetAddressConvertor());
  rom.SetAccessDevices({guid});
  rom.Open(rom.ServerString().c_str());
  ImageWriter(rom, part).Go(image);
}

}  // namespace

void BurnInto(Fabric& fabric, Guid guid, const std::string& image_file, const ImagePart& part) {
  const Device* device = fabric.Find(guid);
  if (device == nullptr) ThrowError("No such device");
  const QuietConsole quiet;
  const KindServer kind(fabric);
  FwImage image;
  image.Open(image_file.c_str(), READ);
  if (device->kind == MemoryKind::FLASH) {
    BurnThrough(LocalFlash(fabric, Log2Chunk(image)), guid, image, part);
  } else {
    BurnThrough(LocalI2c(fabric, Log2Chunk(image)), guid, image, part);
  }
}

std::string Fabric::BurnImage(const GuidVec& guids, const std::string& image) {
  std::string answer;
  bool is_well = true;
  try {
    const TemporaryImage file(image);
    for (const Guid guid : guids) {
      if (!answer.empty()) answer += " ";
      try {
        BurnInto(*this, guid, file.Path(), {});
        answer += "ACK";
      } catch (const BraidError& error) {
        is_well = false;
        answer += "{ERROR:" + HexGuid(guid) + ":" + error.Des() + "}";
      }
    }
  } catch (const BraidError& error) {
    return "ERROR:" + error.Des();
  }
  return is_well ? "ACK" : answer;
}

}  // namespace sim
