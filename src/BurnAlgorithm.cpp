#include "BurnAlgorithm.h"

#include <algorithm>
#include <array>
#include <fstream>

namespace {

/// What a valid image bears in its signature place.
constexpr u_int32_t VALID_SIGNATURE = 0xCB84CB84;
constexpr u_int8_t ERASED = 0xFF;
constexpr u_int32_t CRC_FIELD_SIZE = 4;
constexpr u_int16_t CRC_POLYNOMIAL = 0x100B;

/// What the 8 bits shifted out of the register leave in it.
constexpr std::array<u_int16_t, 256> CRC_TABLE = [] {
  std::array<u_int16_t, 256> table{};
  for (u_int32_t top = 0; top < table.size(); ++top) {
    u_int32_t crc = top << 8;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc << 1) ^ ((crc & 0x8000) != 0 ? CRC_POLYNOMIAL : 0u);
    }
    table[top] = static_cast<u_int16_t>(crc);
  }
  return table;
}();

u_int16_t AddByte(u_int16_t crc, u_int8_t byte) {
  return static_cast<u_int16_t>(((crc << 8) | byte) ^ CRC_TABLE[crc >> 8]);
}

/// Blanks the part of [from, from + size) that lies in the region `data` at `addr`.
void Blank(DataVec& data, u_int32_t addr, u_int32_t from, u_int32_t size) {
  for (u_int64_t at = from; at < u_int64_t{from} + size; ++at) {
    if (at >= addr && at - addr < data.size()) data[at - addr] = ERASED;
  }
}

}  // namespace

void Crc16::add(u_int32_t word) {
  if (_debug) ConsolePrintf("Crc16::add(%08x)\n", word);
  for (int shift = 24; shift >= 0; shift -= 8)
    _crc = AddByte(_crc, static_cast<u_int8_t>(word >> shift));
}

void Crc16::finish() {
  _crc = AddByte(AddByte(_crc, 0), 0);
  _crc = static_cast<u_int16_t>(~_crc);
}

u_int32_t BurnAlgorithm::CalcCrc(std::span<const u_int8_t> data) {
  ASSERT_ALWAYS((data.size() % 4) == 0);
  Crc16 crc(false);
  for (std::size_t i = 0; i < data.size(); i += 4) {
    crc.add(u_int32_t{data[i]} << 24 | u_int32_t{data[i + 1]} << 16 | u_int32_t{data[i + 2]} << 8 |
            data[i + 3]);
  }
  crc.finish();
  return crc.get();
}

BraidResult BurnAlgorithm::BurnRegion(u_int32_t addr, DataVec& data,
                                      const std::vector<FwImage::FieldReplace>& fields,
                                      const std::vector<FwImage::CrcReplace>& crcs) {
  // Blank places can be programmed later without another erase.
  for (const auto& field : fields) Blank(data, addr, field.from, field.size);
  for (const auto& crc : crcs) Blank(data, addr, crc.crc_addr, CRC_FIELD_SIZE);
  _burn_if.Write(addr, data, true);
  if (!fields.empty() || !crcs.empty()) WriteUniq(addr, data, fields, crcs);
  return BRAID_OK;
}

BraidResult BurnAlgorithm::WriteUniq(u_int32_t addr, DataVec& data,
                                     const std::vector<FwImage::FieldReplace>& fields,
                                     const std::vector<FwImage::CrcReplace>& crcs) {
  GuidSet saved = _burn_if.GetActiveDevices();
  for (const Guid guid : GuidSet(saved)) {
    _burn_if.SetActiveDevices(guid);
    WriteUniqTo(guid, addr, data, fields, crcs);
  }
  _burn_if.SetActiveDevices(saved);
  return BRAID_OK;
}

void BurnAlgorithm::WriteUniqTo(Guid guid, u_int32_t addr, DataVec& data,
                                const std::vector<FwImage::FieldReplace>& fields,
                                const std::vector<FwImage::CrcReplace>& crcs) {
  const auto has_failed = [&] { return !_burn_if.GetActiveDevices().contains(guid); };
  for (auto fit = fields.begin(); fit != fields.end(); ++fit) {
    if (has_failed()) return;
    DataVec rep_data;
    if (fit->type == SIGNATURE) {
      // Covered by CRCs with its final value, but not written: validating an image is the last
      // step of a burn.
      rep_data << VALID_SIGNATURE;
    } else {
      _burn_if.GetField(guid, fit->type, rep_data);
      if (has_failed()) return;
      ASSERT_ALWAYS(rep_data.size() == fit->size);
      _burn_if.WriteNoErase(fit->from, rep_data);
    }
    const u_int32_t offset = fit->from - addr;
    ASSERT_ALWAYS(u_int64_t{offset} + rep_data.size() <= data.size());
    std::copy(rep_data.begin(), rep_data.end(), data.begin() + offset);
  }
  for (const auto& crc : crcs) {
    if (has_failed()) return;
    const u_int32_t offset = crc.from - addr;
    ASSERT_ALWAYS(u_int64_t{offset} + crc.size <= data.size());
    DataVec crc_data;
    crc_data << CalcCrc(std::span(data).subspan(offset, crc.size));
    _burn_if.WriteNoErase(crc.crc_addr, crc_data);
  }
}

BraidResult BurnAlgorithm::PercentProgressMeter::Add(u_int32_t done) {
  _current_progress += done;
  ++_add_count;
  u_int32_t spinner = _add_count % 8;
  if (_progress_max != 0 && _current_progress >= _progress_max) {
    if (_done) return BRAID_OK;
    _done = true;
    spinner = 0;
  }
  std::cout << "\r" << _spinner[spinner] << " " << _msg << " - ";
  if (_done) {
    std::cout << " OK " << std::endl;
  } else {
    const u_int32_t percent = _progress_max == 0 ? 0 : _current_progress * 100 / _progress_max;
    std::cout << "%" << std::dec << std::setw(2) << percent << std::flush;
  }
  return BRAID_OK;
}

BraidResult BurnAlgorithm::PercentProgressMeter::Reset(u_int32_t total) {
  _add_count = 0;
  _current_progress = 0;
  _done = false;
  if (total != 0) _progress_max = total;
  return Add(0);
}

BraidResult GenericBurn::Go(FwImage& image) {
  const u_int32_t total = image.GetTotalSize();
  // Vendor data and signatures are burnt as the image has them.
  image.RemoveReplace(VSD);
  PercentProgressMeter meter("Burning ", total);
  const MeterLoan loan(_burn_if, meter);
  std::cout << "-I- Generic Burning:" << std::endl;
  meter.Add(0);
  _burn_if.Start();
  std::vector<u_int32_t> addrs;
  image.GetSectionsAddr(addrs);
  image.RemoveReplace(SIGNATURE);
  for (const u_int32_t addr : addrs) {
    DataVec& data = image.GetSection(addr)->data;
    const auto size = static_cast<u_int32_t>(data.size());
    const auto crcs = image.GetCrcsInRange(addr, size);
    const auto fields = image.GetFieldsInRange(addr, size);
    if (BurnRegion(addr, data, fields, crcs) == BRAID_ERR_ALL) return BRAID_ERR_ALL;
  }
  _burn_if.Stop();
  return BRAID_OK;
}

BraidResult RV52100DirectBurn::Go(FwImage& image) {
  const std::string& name = image.GetFileName();
  std::ifstream file(name);
  if (!file) ThrowError("Can't open FW file " + name + ".");
  std::string content;
  std::getline(file, content, '\0');
  if (!file.eof()) {
    ThrowError("Internal error: Didn't get EOF after reading FW file " + name + ".");
  }
  _burn_if.BurnImage(content);
  return BRAID_OK;
}
