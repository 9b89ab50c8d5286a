#include "BurnAlgorithm.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <numeric>
#include <utility>

namespace {

/// The signature word of a valid image.
constexpr u_int32_t VALID_SIGNATURE = 0xCB84CB84;
/// The signature word of an invalidated image. Zeros are programmed without an erase.
constexpr u_int32_t NO_SIGNATURE = 0;
constexpr u_int8_t ERASED = 0xFF;
constexpr u_int32_t CRC_FIELD_SIZE = 4;
constexpr u_int16_t CRC_POLYNOMIAL = 0x100B;

/// CRC_TABLES[n][byte]: the contribution of a byte to the register after n more bytes than the two
/// that the register holds.
constexpr std::size_t CRC_SLICES = 16;
constexpr auto CRC_TABLES = [] {
  std::array<std::array<u_int16_t, 256>, CRC_SLICES> tables{};
  for (u_int32_t byte = 0; byte < 256; ++byte) {
    u_int32_t crc = byte << 8;
    for (auto& table : tables) {
      for (int bit = 0; bit < 8; ++bit) {
        crc = (crc << 1) ^ ((crc & 0x8000) != 0 ? CRC_POLYNOMIAL : 0u);
      }
      crc &= 0xFFFF;
      table[byte] = static_cast<u_int16_t>(crc);
    }
  }
  return tables;
}();

u_int16_t AddByte(u_int16_t crc, u_int8_t byte) {
  return static_cast<u_int16_t>(((crc << 8) | byte) ^ CRC_TABLES[0][crc >> 8]);
}

/// Adds CRC_SLICES bytes at once. Their contributions are independent, so the processor does the
/// look-ups in parallel.
u_int16_t AddBlock(u_int16_t crc, std::span<const u_int8_t, CRC_SLICES> block) {
  u_int32_t sum = CRC_TABLES[CRC_SLICES - 1][crc >> 8] ^ CRC_TABLES[CRC_SLICES - 2][crc & 0xFF];
  for (std::size_t i = 0; i < CRC_SLICES - 2; ++i) sum ^= CRC_TABLES[CRC_SLICES - 3 - i][block[i]];
  return static_cast<u_int16_t>(sum ^ u_int32_t{block[CRC_SLICES - 2]} << 8 ^
                                block[CRC_SLICES - 1]);
}

/// Sets the part of [from, from + size) that lies in the region `data` at `addr` to ERASED.
void Blank(DataVec& data, u_int32_t addr, u_int32_t from, u_int32_t size) {
  for (u_int64_t at = from; at < u_int64_t{from} + size; ++at) {
    if (at >= addr && at - addr < data.size()) data[static_cast<std::size_t>(at - addr)] = ERASED;
  }
}

DataVec BigEndian(u_int32_t word) {
  DataVec bytes;
  bytes << word;
  return bytes;
}

u_int32_t Word(const DataVec& bytes, std::size_t offset = 0) {
  return u_int32_t{bytes.at(offset)} << 24 | u_int32_t{bytes.at(offset + 1)} << 16 |
         u_int32_t{bytes.at(offset + 2)} << 8 | bytes.at(offset + 3);
}

GuidSet Union(const GuidSet& a, const GuidSet& b) {
  GuidSet result = a;
  result.insert(b.begin(), b.end());
  return result;
}

GuidSet Minus(const GuidSet& a, const GuidSet& b) {
  GuidSet result = a;
  std::erase_if(result, [&b](Guid guid) { return b.contains(guid); });
  return result;
}

GuidSet Intersection(const GuidSet& a, const GuidSet& b) { return Minus(a, Minus(a, b)); }

/// Padded, so that the lines of the meter align.
const char* SlotWord(u_int32_t image_idx) { return image_idx == 0 ? "first " : "second"; }

FwImage::Section& SectionAt(const FwImage& image, u_int32_t addr, const char* what) {
  FwImage::Section* section = image.GetSection(addr);
  if (section == nullptr) {
    ThrowError(Text("The image has no section at its ", what, " address ", std::hex, addr,
                    ". Check file ", image.GetFileName()));
  }
  return *section;
}

/// The sections of the image in its first slot, in file order; at least one.
std::vector<FwImage::Section*> ImageSections(const FwImage& image) {
  std::vector<u_int32_t> addrs;
  image.GetImageSectionsAddr(addrs);
  std::vector<FwImage::Section*> sections;
  sections.reserve(addrs.size());
  for (const u_int32_t addr : addrs) sections.push_back(&SectionAt(image, addr, "image"));
  if (sections.empty()) {
    ThrowError(
        "The image has no sections between its first and its second image address. Check file " +
        image.GetFileName());
  }
  return sections;
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

void Crc16::add(std::span<const u_int8_t> bytes) {
  for (; bytes.size() >= CRC_SLICES; bytes = bytes.subspan(CRC_SLICES)) {
    _crc = AddBlock(_crc, bytes.first<CRC_SLICES>());
  }
  for (const u_int8_t byte : bytes) _crc = AddByte(_crc, byte);
}

u_int32_t BurnAlgorithm::CalcCrc(std::span<const u_int8_t> data) {
  ASSERT_ALWAYS((data.size() % 4) == 0);
  Crc16 crc(false);
  crc.add(data);
  crc.finish();
  return crc.get();
}

BraidResult BurnAlgorithm::BurnRegion(u_int32_t addr, DataVec& data,
                                      const std::vector<FwImage::FieldReplace>& fields,
                                      const std::vector<FwImage::CrcReplace>& crcs) {
  // Bytes left at FF can be programmed later without another erase.
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
      // The CRCs cover the final value, but it is not written here: validating an image is the
      // last step of a burn.
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
    std::cout << "%" << std::dec << std::setw(2) << percent;
    FlushConsoleSoon();
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

void BurnAlgorithm::BurnSection(const FwImage& image, FwImage::Section& section,
                                u_int32_t destination) {
  const auto size = static_cast<u_int32_t>(section.data.size());
  const auto fields = image.GetFieldsInRange(destination, size);
  const auto crcs = image.GetCrcsInRange(destination, size);
  BurnRegion(destination, section.data, fields, crcs);
}

namespace {

/// The address of the marker of a flash that is prepared for failsafe burning.
constexpr u_int32_t FAILSAFE_MARKER_ADDR = 0x24;

/// The pointer sector record: image address, size and signature, other data, and a CRC over them.
constexpr u_int32_t PS_ADDR_OFFSET = 0;
constexpr u_int32_t PS_SIZE_OFFSET = 4;
constexpr u_int32_t PS_SIGNATURE_OFFSET = 8;
constexpr u_int32_t PS_CRC_OFFSET = 260;
constexpr u_int32_t PS_RECORD_SIZE = 264;

/// The sector where a moved image starts, behind the invariant sector and the two pointer sectors.
constexpr u_int32_t FIRST_IMAGE_SECTOR = 3;

// The line numbers that these debug lines print. Burn logs are searched for them, so they are
// constants and do not follow the source.
constexpr u_int32_t LESS_THAN_LINE = 228;
constexpr u_int32_t READING_SIGNATURES_LINE = 326;
constexpr u_int32_t REPAIRING_LINE = 522;
constexpr u_int32_t READ_PS_LINE = 544;
constexpr u_int32_t READING_IMAGE_LINE = 546;
constexpr u_int32_t CHECKSUM_LINE = 817;

}  // namespace

bool RV52100FailsafeBurn::LessThan(const DataVec& d1, const DataVec& d2) {
  ASSERT_ALWAYS(d1.size() == 4);
  ASSERT_ALWAYS(d2.size() == 4);
  const u_int32_t dw1 = Word(d1);
  const u_int32_t dw2 = Word(d2);
  Debug(LESS_THAN_LINE) << "LessThan() : dw1 = " << std::hex << dw1 << " , dw2 = " << dw2
                        << std::endl;
  return dw1 < dw2;
}

void RV52100FailsafeBurn::CheckImage(const FwImage& image) const {
  if (_burn_if.GetSectorSize() == 0) {
    ThrowError("The flash sector size is unknown. Can't perform failsafe burn");
  }
  for (u_int32_t idx = 0; idx < FwImage::SLOTS; ++idx) {
    image.GetImageAddr(idx);
    image.GetSignatureAddr(idx);
    SectionAt(image, image.GetPsAddr(idx), "pointer sector");
  }
  ImageSections(image);
}

std::vector<FwImage::Section*> RV52100FailsafeBurn::InvariantSections(const FwImage& image) const {
  std::vector<u_int32_t> addrs;
  image.GetSectionsAddr(addrs);
  std::vector<FwImage::Section*> sections;
  for (const u_int32_t addr : addrs) {
    if (addr >= _burn_if.GetSectorSize()) break;
    sections.push_back(&SectionAt(image, addr, "invariant sector"));
  }
  return sections;
}

void RV52100FailsafeBurn::FailDevices(const GuidSet& devices, const std::string& des) {
  for (const Guid guid : devices) _burn_if.DeviceError(des, guid);
}

void RV52100FailsafeBurn::CheckInvariantSector(const FwImage& image) {
  const std::vector<FwImage::Section*> sections = InvariantSections(image);
  GuidSet changed;
  for (const FwImage::Section* section : sections) {
    changed.merge(_burn_if.Query(section->addr, section->data, Compare, false));
  }
  if (changed.empty()) return;
  if (_allow_non_fs_burn) {
    _burn_if.SetActiveDevices(changed);
    std::cout << "-I- Changes in invariant sector detected for " << changed.size() << " devices."
              << std::endl;
    std::cout << "-I- Updating invariant sector (non failsafe) ... " << std::flush;
    for (FwImage::Section* section : sections) BurnSection(image, *section, section->addr);
    std::cout << " Done." << std::endl;
    _burn_if.SetActiveDevices();
  } else if (!_allow_keeping_old_is) {
    FailDevices(changed,
                "Invariant sector on device differs from invariant sector in the given image. "
                "Can't perform failsafe burn");
  }
}

BraidResult RV52100FailsafeBurn::Go(FwImage& image) {
  CheckImage(image);
  const DataVec valid = BigEndian(VALID_SIGNATURE);
  const u_int32_t first_image_addr = FIRST_IMAGE_SECTOR * _burn_if.GetSectorSize();

  FailDevices(_burn_if.Query(FAILSAFE_MARKER_ADDR, valid, Compare, false),
              "Image on device is not failsafe. Can't perform failsafe burn");
  CheckInvariantSector(image);

  Debug(READING_SIGNATURES_LINE) << "Reading signatures, fw size, fw addr for all devices."
                                 << std::endl;
  const GuidSet first_valid = _burn_if.Query(image.GetSignatureAddr(0), valid, Compare, true);
  const GuidSet second_valid = _burn_if.Query(image.GetSignatureAddr(1), valid, Compare, true);
  GuidSet both_valid = Intersection(first_valid, second_valid);
  GuidSet first_only = Minus(first_valid, second_valid);
  GuidSet second_only = Minus(second_valid, first_valid);
  const GuidSet none_valid = Minus(_burn_if.GetAccessDevices(), Union(first_valid, second_valid));
  std::cout << "-I- Total devices:      " << _burn_if.GetAccessDevices().size() << std::endl
            << "-I- Both images valid:  " << both_valid.size() << std::endl
            << "-I- No image valid:     " << none_valid.size() << std::endl
            << "-I- First  image valid: " << first_only.size() << std::endl
            << "-I- Second image valid: " << second_only.size() << std::endl
            << std::endl;
  FailDevices(none_valid, "Both images are invalid. Can't perform failsafe burn");

  if (!both_valid.empty()) {
    _burn_if.SetActiveDevices(both_valid);
    _burn_if.WriteNoErase(image.GetSignatureAddr(1), BigEndian(NO_SIGNATURE));
    first_only = Union(first_only, both_valid);
  }
  if (!second_only.empty()) {
    _burn_if.SetActiveDevices(second_only);
    // A new first image would overwrite a second image that starts below its end.
    const GuidSet to_move = _burn_if.Query(
        image.GetPsAddr(1), BigEndian(image.GetImageSize() + first_image_addr), LessThan, true);
    for (const Guid guid : to_move) {
      std::cout << "-I- Device: " << std::hex << guid
                << ": New image too big to fit as first image. Moving image position on the device"
                << std::endl;
      MoveImage(guid, 1, image.GetPsAddr(1), image.GetPsAddr(0), first_image_addr);
    }
    first_only = Union(first_only, to_move);
    second_only = Minus(second_only, to_move);
  }
  const std::pair<GuidSet&, u_int32_t> burns[] = {{first_only, 1}, {second_only, 0}};
  for (const auto& [devices, free_slot] : burns) {
    if (devices.empty()) continue;
    _burn_if.SetActiveDevices(devices);
    std::cout << "-I- Burning new FW to " << devices.size() << " device(s)." << std::endl;
    BurnImage(image, free_slot);
  }
  return BRAID_OK;
}

BraidResult RV52100FailsafeBurn::BurnImage(FwImage& image, u_int32_t image_idx) {
  ASSERT_ALWAYS(image_idx == 0 || image_idx == 1);
  const u_int32_t other_idx = 1 - image_idx;
  const std::string slot = SlotWord(image_idx);
  const std::string other_slot = SlotWord(other_idx);
  PercentProgressMeter meter("", 0);
  const MeterLoan loan(_burn_if, meter);
  const auto start_phase = [&meter](const std::string& label, u_int32_t bytes) {
    meter.SetMsg(label);
    meter.Reset(bytes);
  };

  start_phase("Invalidating " + slot + " image signature               ", 4);
  _burn_if.WriteNoErase(image.GetSignatureAddr(image_idx), BigEndian(NO_SIGNATURE));

  start_phase("Burning      " + slot + " image                         ", image.GetImageSize());
  const std::vector<FwImage::Section*> sections = ImageSections(image);
  const u_int32_t delta = image.GetImageAddr(image_idx) - sections.front()->addr;
  for (FwImage::Section* section : sections) BurnSection(image, *section, delta + section->addr);

  FwImage::Section& pointer_sector = SectionAt(image, image.GetPsAddr(image_idx), "pointer sector");
  start_phase("Burning      " + slot + " pointer sector                ",
              static_cast<u_int32_t>(pointer_sector.data.size()));
  BurnSection(image, pointer_sector, pointer_sector.addr);

  // First the new signature: between the two writes both images are valid. In the other order, a
  // device that loses power between them would have no valid image.
  start_phase("Validating   " + slot + " image                         ", 4);
  _burn_if.WriteNoErase(image.GetSignatureAddr(image_idx), BigEndian(VALID_SIGNATURE));

  start_phase("Invalidating " + other_slot + " image                         ", 4);
  _burn_if.WriteNoErase(image.GetSignatureAddr(other_idx), BigEndian(NO_SIGNATURE));
  return BRAID_OK;
}

BraidResult RV52100FailsafeBurn::MoveImage(Guid guid, u_int32_t image_idx, u_int32_t from_ps,
                                           u_int32_t to_ps, u_int32_t to_addr) {
  ASSERT_ALWAYS(image_idx == 0 || image_idx == 1);
  const u_int32_t other_idx = 1 - image_idx;
  Debug(REPAIRING_LINE) << "Repairing device " << std::hex << guid << std::endl;
  _burn_if.SetActiveDevices(guid);

  // If bytes are missing, the device must keep its only image. Answers consist of whole words, so
  // there may be more bytes than requested.
  const auto read = [&](u_int32_t addr, u_int32_t size, const char* what, DataVec& bytes) {
    _burn_if.Read(addr, size);
    const RomInterface::Result* result = _burn_if.LastActionResult(guid);
    if (result == nullptr || result->_error) return false;
    bytes = result->_data;
    if (bytes.size() < size) {
      _burn_if.DeviceError(Text("Can't move image: read ", bytes.size(), " bytes of ", size,
                                " of the ", what, " at address ", std::hex, addr),
                           guid);
      return false;
    }
    return true;
  };

  FwImage::Section pointer_section("Pointer section", to_ps);
  if (!read(from_ps, PS_RECORD_SIZE, "pointer sector", pointer_section.data)) return BRAID_ERROR;
  pointer_section.data.resize(PS_RECORD_SIZE);
  const u_int32_t from_addr = Word(pointer_section.data, PS_ADDR_OFFSET);
  const u_int32_t size = Word(pointer_section.data, PS_SIZE_OFFSET);
  Debug(READ_PS_LINE) << "Read PS from addr:" << std::hex << from_ps << " - Addr: " << from_addr
                      << ", Size: " << size
                      << ", Sig: " << Word(pointer_section.data, PS_SIGNATURE_OFFSET) << std::endl;
  Debug(READING_IMAGE_LINE) << "Reading image from addr: " << from_addr << ", Size: " << size
                            << std::endl;
  if (from_addr == to_addr || size == 0) {
    const std::string reason = from_addr == to_addr
                                   ? Text("it already starts at address ", std::hex, to_addr)
                                   : "its pointer sector gives it no bytes";
    _burn_if.DeviceError("Can't move image: " + reason, guid);
    return BRAID_ERROR;
  }
  // All bytes read are copied: writes consist of whole words, too.
  FwImage::Section image_section("Image", to_addr);
  if (!read(from_addr, size, "image", image_section.data)) return BRAID_ERROR;
  const DataVec to_word = BigEndian(to_addr);
  std::copy(to_word.begin(), to_word.end(), pointer_section.data.begin() + PS_ADDR_OFFSET);

  FwImage moved;
  moved.SetSection(&pointer_section);
  moved.SetSection(&image_section);
  moved.AddReplace(FwImage::CrcReplace{to_ps, PS_CRC_OFFSET, to_ps + PS_CRC_OFFSET});
  moved.AddReplace(FwImage::FieldReplace{to_ps + PS_SIGNATURE_OFFSET,
                                         FwImage::ReplaceFieldSize(SIGNATURE), SIGNATURE});
  moved.SetPsAddr(other_idx, to_ps);
  moved.SetPsAddr(image_idx, from_ps);
  moved.SetImageAddr(other_idx, to_addr);
  moved.SetImageAddr(image_idx, from_addr);
  moved.SetSignatureAddr(other_idx, to_ps + PS_SIGNATURE_OFFSET);
  moved.SetSignatureAddr(image_idx, from_ps + PS_SIGNATURE_OFFSET);
  std::cout << "-I- Copying device image from address " << std::hex << from_addr << " to "
            << to_addr << "." << std::endl;
  BurnImage(moved, other_idx);
  return BRAID_OK;
}

namespace {

/// The PLL boot record at the start of an RV61300's image slot.
constexpr u_int32_t BOOT_RECORD_SIZE = 16;
constexpr u_int8_t BOOT_RECORD_SUM = 0xAB;     ///< of all its bytes, modulo 256
constexpr std::size_t FIRST_INVALID_MARK = 7;  ///< 1 here makes a first record invalid

/// The bytes of the record that are written last, and the one among them that makes the checksum
/// wrong until then.
constexpr std::size_t HELD_BACK = 4;
constexpr std::size_t SPOILT_BYTE = 3;
constexpr u_int8_t SPOIL_BY = 10;

}  // namespace

bool RV61300FailsafeBurn::VerifyFirstPllBootRecordChecksum(const DataVec& read_data,
                                                           const DataVec& ref) {
  ASSERT_ALWAYS(read_data.size() == 16);
  if (read_data[FIRST_INVALID_MARK] == 1) return false;
  return VerifyPllBootRecordChecksum(read_data, ref);
}

bool RV61300FailsafeBurn::VerifyPllBootRecordChecksum(const DataVec& read_data, const DataVec&) {
  ASSERT_ALWAYS(read_data.size() == 16);
  const auto sum = std::accumulate(read_data.begin(), read_data.end(), u_int32_t{0}) % 256;
  Debug(CHECKSUM_LINE) << "Checksum is: " << std::hex << sum << std::endl;
  return sum == BOOT_RECORD_SUM;
}

BraidResult RV61300FailsafeBurn::Go(FwImage& image) {
  const DataVec record(BOOT_RECORD_SIZE, ERASED);
  const GuidSet first_valid =
      _burn_if.Query(image.GetImageAddr(0), record, VerifyFirstPllBootRecordChecksum, true);
  GuidSet second_valid =
      _burn_if.Query(image.GetImageAddr(1), record, VerifyPllBootRecordChecksum, true);
  const GuidSet none_valid = Minus(_burn_if.GetActiveDevices(), Union(first_valid, second_valid));
  for (const Guid guid : none_valid) {
    PrintBurnError("Both images are invalid - Can't perform failsafe burn.", guid);
  }
  GuidSet first_only = Minus(first_valid, second_valid);
  if (second_valid.empty() && first_only.empty()) {
    ThrowError("All devices can't be failsafe burnt");
  }
  std::cout << "-I- Total devices:   " << _burn_if.GetActiveDevices().size() << std::endl
            << "-I- Both valid:      " << Intersection(first_valid, second_valid).size()
            << std::endl
            << "-I- Frst only valid: " << first_only.size() << std::endl
            << "-I- Scnd only valid: " << Minus(second_valid, first_valid).size() << std::endl;
  if (_check_only) return BRAID_OK;

  if (ImageSections(image).front()->data.size() < HELD_BACK) {
    ThrowError("The first section of the image holds no whole boot record. Check file " +
               image.GetFileName());
  }
  // Each device can boot from one slot while the other is rewritten.
  if (!second_valid.empty()) {
    _burn_if.SetActiveDevices(second_valid);
    BurnImage(image, 0);
    BurnImage(image, 1);
  }
  if (!first_only.empty()) {
    _burn_if.SetActiveDevices(first_only);
    BurnImage(image, 1);
    BurnImage(image, 0);
  }
  return BRAID_OK;
}

BraidResult RV61300FailsafeBurn::BurnImage(FwImage& image, u_int32_t image_idx) {
  const std::vector<FwImage::Section*> sections = ImageSections(image);
  FwImage::Section& first = *sections.front();
  const u_int32_t delta = image.GetImageAddr(image_idx) - first.addr;
  const std::string slot = SlotWord(image_idx);

  ASSERT_ALWAYS(first.data.size() >= HELD_BACK);
  const DataVec held_back(first.data.begin(), first.data.begin() + HELD_BACK);
  // Restores the image in memory even when the burn throws: the next burn changes it again.
  struct Restorer {
    ~Restorer() { std::copy(held_back.begin(), held_back.end(), data.begin()); }
    const DataVec& held_back;
    DataVec& data;
  } const restorer{held_back, first.data};
  // The slot must not be valid while it is incomplete.
  first.data[SPOILT_BYTE] = static_cast<u_int8_t>(first.data[SPOILT_BYTE] + SPOIL_BY);
  {
    PercentProgressMeter meter("Burning    " + slot + " image with invalidated signature",
                               image.GetImageSize());
    const MeterLoan loan(_burn_if, meter);
    for (FwImage::Section* section : sections) BurnSection(image, *section, delta + section->addr);
  }
  {
    PercentProgressMeter meter("Validating " + slot + " image                           ", 4);
    const MeterLoan loan(_burn_if, meter);
    _burn_if.Write(delta + first.addr, held_back, true);
  }
  return BRAID_OK;
}

BraidResult GenericBurn::Go(FwImage& image) {
  const u_int32_t total = image.GetTotalSize();
  // Vendor data and signatures are burned as they are in the image.
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
