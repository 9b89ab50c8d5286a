#include "tests/support/Prediction.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "src/BurnAlgorithm.h"
#include "src/RomInterface.h"

namespace {

constexpr Guid DEVICE = 1;  // any but 0
constexpr u_int8_t ERASED = 0xFF;
constexpr u_int64_t ADDRESS_SPACE = u_int64_t{1} << 32;

/// A burn whose mistakes about the image are told rather than asserted.
template <typename Burn>
class Checked : public Burn {
 public:
  using Burn::Burn;
  using Burn::BurnSection;

  u_int32_t CalcCrc(std::span<const u_int8_t> data) override {
    if (data.size() % 4 != 0) {
      ThrowError(Text("a CRC covers ", data.size(), " bytes, which are no whole words"));
    }
    return Burn::CalcCrc(data);
  }
};

/// Gives the image its bytes back, which a burn changes.
class Restorer {
 public:
  explicit Restorer(const FwImage& image) {
    std::vector<u_int32_t> addrs;
    image.GetSectionsAddr(addrs);
    for (const u_int32_t addr : addrs) {
      FwImage::Section* section = image.GetSection(addr);
      _kept.emplace_back(section, section->data);
    }
  }
  Restorer(const Restorer&) = delete;
  Restorer& operator=(const Restorer&) = delete;
  ~Restorer() {
    for (auto& [section, data] : _kept) section->data = std::move(data);
  }

 private:
  std::vector<std::pair<FwImage::Section*, DataVec>> _kept;
};

}  // namespace

/// The memory of one device as far as the regions reach: writes elsewhere leave no trace.
class Predictor::RegionRom : public RomInterface {
 public:
  RegionRom(std::span<ComparedRegion> regions, u_int32_t sector_size, const FieldSource& fields)
      : RomInterface("RegionRom"),
        _regions(regions),
        _given_sector_size(sector_size),
        _fields(fields) {
    SetAccessDevices({DEVICE});
  }

  BraidResult Open(const char*) override { return BRAID_OK; }
  BraidResult Close() override { return BRAID_OK; }
  BraidResult Start() override { return BRAID_OK; }
  BraidResult Stop() override { return BRAID_OK; }
  BraidResult CheckAccess() override { return BRAID_OK; }
  BraidResult Read(u_int32_t, u_int32_t) override { ThrowError("a burn that reads"); }
  BraidResult BurnImage(const std::string&) override { ThrowError("a burn by the server"); }
  u_int32_t GetSectorSize() override { return _given_sector_size; }

  BraidResult Write(u_int32_t addr, const DataVec& data, bool erase) override {
    const u_int64_t end = addr + u_int64_t{data.size()};
    if (end > ADDRESS_SPACE) ThrowError("it would write past the last address");
    if (erase && _given_sector_size != 0 && !data.empty()) EraseFor(addr, end);
    for (ComparedRegion& region : _regions) {
      const u_int64_t last = std::min(end, region.End());
      for (u_int64_t at = std::max(addr, region.addr); at < last; ++at) {
        u_int8_t& cell = region.expected[at - region.addr];
        const u_int8_t byte = data[at - addr];
        // What is programmed into a flash only clears bits.
        cell = _given_sector_size != 0 ? cell & byte : byte;
      }
    }
    return BRAID_OK;
  }
  BraidResult Erase(u_int32_t addr, u_int32_t size) override {
    if (_given_sector_size != 0 && size != 0) EraseFor(addr, u_int64_t{addr} + size);
    return BRAID_OK;
  }

  BraidResult GetField(Guid, FieldType type, DataVec& out) override {
    _is_asking = true;
    out = _fields(type);
    _is_asking = false;
    return BRAID_OK;
  }
  BraidResult GetVsd(const Guid& guid, DataVec& out) override { return GetField(guid, VSD, out); }
  BraidResult GetBsn(const Guid& guid, DataVec& out) override { return GetField(guid, BSN, out); }

  /// Whether what was thrown comes from the device's fields.
  bool IsAsking() const { return _is_asking; }

 private:
  /// Erases the sectors of [addr, end), but for the one erased last, as the interface to a flash
  /// does while it writes from front to back.
  void EraseFor(u_int64_t addr, u_int64_t end) {
    const u_int64_t size = _given_sector_size;
    u_int64_t sector = addr / size;
    if (_erased == sector) {
      ++sector;
    } else if (addr % size != 0) {
      ThrowError(Text("it cannot erase at address ", std::hex, addr, ", where no sector begins"));
    }
    if (sector * size >= end) return;
    _erased = (end - 1) / size;
    for (ComparedRegion& region : _regions) {
      const u_int64_t last = std::min((*_erased + 1) * size, region.End());
      for (u_int64_t at = std::max<u_int64_t>(sector * size, region.addr); at < last; ++at) {
        region.expected[at - region.addr] = ERASED;
      }
    }
  }

  std::span<ComparedRegion> _regions;
  u_int32_t _given_sector_size;
  const FieldSource& _fields;
  std::optional<u_int64_t> _erased;  ///< number of the sector erased last
  bool _is_asking = false;
};

void Predictor::Run(std::span<ComparedRegion> regions,
                    const std::function<void(RegionRom&)>& burn) {
  for (ComparedRegion& region : regions)
    region.expected.assign(region.section->data.size(), ERASED);
  const Restorer restorer(_image);
  RegionRom rom(regions, _sector_size, _fields);
  try {
    burn(rom);
  } catch (const BraidError& error) {
    if (rom.IsAsking()) throw;
    throw CannotPredict{error.Des()};
  }
}

void Predictor::GenericBurn(std::span<ComparedRegion> regions) {
  Run(regions, [&](RegionRom& rom) { Checked<::GenericBurn>(rom).Go(_image); });
}

void Predictor::PointerSectorBurn(std::span<ComparedRegion> regions, u_int32_t slot,
                                  bool keeps_invariant) {
  const auto is_invariant = [&](u_int32_t addr) { return addr < _sector_size; };
  Run(regions, [&](RegionRom& rom) {
    Checked<RV52100FailsafeBurn> burn(rom, true, false);
    std::vector<u_int32_t> addrs;
    _image.GetSectionsAddr(addrs);
    if (keeps_invariant) {
      for (ComparedRegion& region : regions) {
        if (!is_invariant(region.addr)) break;
        region.expected = region.section->data;
      }
    } else {
      for (const u_int32_t addr : addrs) {
        if (!is_invariant(addr)) break;  // only those that stand first are taken for it
        burn.BurnSection(_image, *_image.GetSection(addr), addr);
      }
    }
    burn.BurnImage(_image, slot);
  });
}

void Predictor::BootRecordBurn(std::span<ComparedRegion> regions, u_int32_t first) {
  Run(regions, [&](RegionRom& rom) {
    Checked<RV61300FailsafeBurn> burn(rom, false);
    burn.BurnImage(_image, first);
    burn.BurnImage(_image, 1 - first);
  });
}
