#include "FwImage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "utils.h"

namespace {

/// Maximum length of a line of the image file, with its end. A longer line is read as several.
constexpr std::size_t MAX_STR = 1023;

constexpr u_int64_t ADDRESS_SPACE = u_int64_t{1} << 32;

struct FieldRow {
  std::string_view keyword;
  FieldType type;
  u_int32_t size;  ///< bytes
};
constexpr auto FIELDS = std::to_array<FieldRow>({
    {"SIGNATURE", SIGNATURE, 4},
    {"GUIDS", GUIDS, 32},
    {"GUID", GUID, 8},
    {"SYSGUID", SYS_GUID, 8},
    {"BSN", BSN, 64},
    {"VSD", VSD, 208},
});

struct DeviceRow {
  std::string_view keyword;
  DeviceType type;
};
constexpr auto DEVICES = std::to_array<DeviceRow>({
    {"RV61100", RV61100},
    {"RV61300", RV61300},
    {"RV52100", RV52100},
    {"RV52300", RV52300},
    {"RV52310", RV52310},
    {"RV52400", RV52400},
    {"RV52410", RV52400},  // burned as one type
});

/// Whether [from, from + size) reaches past [addr, addr + range). In 64 bits, so that the sums
/// cannot wrap.
bool ReachesPast(u_int64_t from, u_int64_t size, u_int64_t addr, u_int64_t range) {
  return from + size > addr + range;
}

bool StartsIn(u_int32_t from, u_int64_t addr, u_int64_t range) {
  return addr <= from && from < addr + range;
}

std::vector<std::string> Words(std::string_view line) {
  return splitv(std::string(line), " \n", false);
}

/// Fast path for the usual data line, words of one or two digits between blanks. Writes its bytes
/// to `bytes`, which has room for a line, and returns their number. Returns 0 for any other line.
std::size_t PlainBytes(std::string_view line, u_int8_t* bytes) {
  const auto is_blank = [](char c) { return c == ' ' || c == '\n'; };
  const char* at = line.data();
  const char* const end = at + line.size();
  u_int8_t* next = bytes;
  while (at != end) {
    if (is_blank(*at)) {
      ++at;
      continue;
    }
    u_int8_t value = HexDigit(*at++);
    if (value > 15) return 0;
    if (at != end && !is_blank(*at)) {
      const u_int8_t low = HexDigit(*at++);
      if (low > 15 || (at != end && !is_blank(*at))) return 0;
      value = static_cast<u_int8_t>(value << 4 | low);
    }
    *next++ = value;
  }
  return static_cast<std::size_t>(next - bytes);
}

}  // namespace

/// Reads the lines of a file as fgets does: with their end, and cut at MAX_STR characters. Owns the
/// descriptor.
class FwImage::LineReader {
 public:
  /// Throws when `path` is not a readable regular file.
  explicit LineReader(const char* path) : _path(path) {
    // O_NONBLOCK: opening a FIFO must not wait for a writer. It is refused below.
    _fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (_fd < 0) ThrowCantOpen();
    if (fstat(_fd, &_status) == 0 && S_ISREG(_status.st_mode)) {
      _left = static_cast<u_int64_t>(_status.st_size);
    } else {
      close(_fd);
      errno = S_ISDIR(_status.st_mode) ? EISDIR : EOPNOTSUPP;  // reading a device may never end
      ThrowCantOpen();
    }
  }
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  ~LineReader() { close(_fd); }

  /// Sets `line` to the next line; it is valid until the next call. Returns false at the end.
  bool Next(std::string_view& line) {
    if (!HoldsLine()) Fill();
    if (_rest.empty()) return false;
    const std::string_view whole = _rest.substr(0, MAX_STR);
    const std::size_t end = whole.find('\n');
    line = whole.substr(0, end == std::string_view::npos ? end : end + 1);
    _rest.remove_prefix(line.size());
    _left -= std::min<u_int64_t>(_left, line.size());
    return true;
  }

  /// Bytes of the file that are left to read, by its size when it was opened.
  u_int64_t Left() const { return _left; }

  /// Throws when the file was modified since it was opened: the lines read may belong to two
  /// different images.
  void CheckUnchanged() const {
    struct stat now {};
    if (fstat(_fd, &now) != 0) ThrowCantOpen();
    if (now.st_size != _status.st_size || now.st_mtim.tv_sec != _status.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != _status.st_mtim.tv_nsec) {
      ThrowCantOpen("It was changed while it was read");
    }
  }

 private:
  static constexpr std::size_t BLOCK = std::size_t{64} * 1024;

  bool HoldsLine() const {
    return _rest.size() >= MAX_STR || _rest.find('\n') != std::string_view::npos;
  }

  void Fill() {
    const std::size_t kept = _rest.size();
    std::copy(_rest.begin(), _rest.end(), _block.begin());
    std::size_t size = kept;
    while (size < BLOCK) {
      const ssize_t got = read(_fd, _block.data() + size, BLOCK - size);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) ThrowCantOpen();
      if (got == 0) break;
      size += static_cast<std::size_t>(got);
    }
    _rest = std::string_view(_block.data(), size);
  }

  [[noreturn]] void ThrowCantOpen(const char* reason = strerror(errno)) const {
    ThrowError("Can't open file \"" + _path + "\" : " + reason);
  }

  std::string _path;
  std::vector<char> _block = std::vector<char>(BLOCK);  // before _fd: this may throw
  int _fd;
  struct stat _status {};  ///< when it was opened
  std::string_view _rest;  ///< the part of the block not yet returned
  u_int64_t _left = 0;
};

u_int32_t FwImage::Conv::Convert(const EeLoc& loc) const {
  if (_devmap.empty() && loc.dev == 0) return loc.offset;
  u_int32_t base = 0;
  for (const EeLoc& mapped : _devmap) {
    if (mapped.dev == loc.dev) return loc.offset + base;
    base += mapped.offset;
  }
  ThrowError(Text("Can't convert dev/offset to address: No mapping for the given EE loaction  (",
                  std::hex, u_int32_t{loc.dev}, ":", base, ")."));
}

EeLoc FwImage::Conv::Convert(u_int32_t addr) const {
  if (_devmap.empty()) return EeLoc(addr, 0);
  u_int32_t rest = addr;
  for (const EeLoc& mapped : _devmap) {
    if (mapped.offset > rest) return EeLoc(rest, mapped.dev);
    rest -= mapped.offset;
  }
  ThrowError(Text("Addr2OffsetDev: No mapping for the given addr (", std::hex, addr, ")."));
}

BraidResult FwImage::Open(const char* file_name, ReadWrite rw) {
  ASSERT_ALWAYS(file_name != nullptr);
  _rw = rw;
  _filename = file_name;
  ResetDirectives();

  const std::vector<std::string> parts = splitv(_filename, ".", false);
  const std::string extension = parts.empty() ? "" : parts.back();
  if (extension == "img" || extension == "IMG") {
    _filetype = IMG;
  } else if (extension == "bin" || extension == "BIN") {
    _filetype = BIN;
    ThrowError("FW file type 'bin' not yet supported");
  } else {
    ThrowError("Bad FW file type (" + _filename + "). Supported types: img, bin");
  }
  if (rw == ::WRITE) ThrowError("FwImage::Open() : Open for write not yet implemented");

  try {
    LoadImg(file_name);
  } catch (const std::bad_alloc&) {
    ThrowError("Can't open file \"" + _filename + "\" : " + strerror(ENOMEM));
  }
  _is_open = true;
  return BRAID_OK;
}

BraidResult FwImage::Close() {
  // The sections stay, without bytes: callers may hold pointers to them.
  if (_is_open) {
    for (const auto& section : _loaded) DataVec().swap(section->data);
  }
  _is_open = false;
  return BRAID_OK;
}

u_int32_t FwImage::CheckInit(const char* name, u_int32_t idx, u_int32_t value) const {
  if (idx >= SLOTS) {
    ThrowError(Text("FwImage::CheckInit Internal error: Trying to access field ", name,
                    " with index ", idx));
  }
  if (value == UNSET_ADDR) {
    ThrowError(Text("FwImage: Tried to access uninitiated field ", name, "[", idx,
                    "] . Check file ", _filename));
  }
  return value;
}

u_int32_t FwImage::GetPsAddr(u_int32_t idx) const {
  return CheckInit("Ps Addr", idx, idx < SLOTS ? _ps_addr[idx] : UNSET_ADDR);
}

u_int32_t FwImage::GetImageAddr(u_int32_t idx) const {
  return CheckInit("Image Addr", idx, idx < SLOTS ? _image_addr[idx] : UNSET_ADDR);
}

u_int32_t FwImage::GetSignatureAddr(u_int32_t idx) const {
  return CheckInit("Signature Addr", idx, idx < SLOTS ? _signature_addr[idx] : UNSET_ADDR);
}

BraidResult FwImage::SetPsAddr(u_int32_t idx, u_int32_t addr) {
  ASSERT_ALWAYS(idx < SLOTS);
  _ps_addr[idx] = addr;
  return BRAID_OK;
}

BraidResult FwImage::SetImageAddr(u_int32_t idx, u_int32_t addr) {
  ASSERT_ALWAYS(idx < SLOTS);
  _image_addr[idx] = addr;
  return BRAID_OK;
}

BraidResult FwImage::SetSignatureAddr(u_int32_t idx, u_int32_t addr) {
  ASSERT_ALWAYS(idx < SLOTS);
  if (_signature_addr[idx] != UNSET_ADDR) {
    ThrowLineError(Text(": Tried to set signature ", idx, " which is already set"));
  }
  _signature_addr[idx] = addr;
  return AddReplace(FieldReplace{addr, ReplaceFieldSize(SIGNATURE), SIGNATURE});
}

FwImage::Section* FwImage::GetSection(u_int32_t addr) const {
  const auto found = _sections.find(addr);
  return found == _sections.end() ? nullptr : found->second;
}

BraidResult FwImage::SetSection(Section* s) {
  if (!_sections.try_emplace(s->addr, s).second) {
    ThrowError(
        Text("Internal Error:FwImage::SetSection() : Tried to set an existing section at addr ",
             std::hex, s->addr));
  }
  _sections_order.push_back(s->addr);
  return BRAID_OK;
}

BraidResult FwImage::GetSectionsAddr(std::vector<u_int32_t>& out) const {
  out.insert(out.begin(), _sections_order.begin(), _sections_order.end());
  return BRAID_OK;
}

BraidResult FwImage::GetImageSectionsAddr(std::vector<u_int32_t>& out) const {
  const u_int32_t img0 = GetImageAddr(0);
  const u_int32_t img1 = GetImageAddr(1);
  const auto first = std::find(_sections_order.begin(), _sections_order.end(), img0);
  if (first == _sections_order.end()) {
    ThrowError(Text("Can't find a sector addres that matches first image address (0x", std::hex,
                    img0, ". Check file \"", _filename, "\" ."));
  }
  out.insert(out.end(), first, std::find(first, _sections_order.end(), img1));
  return BRAID_OK;
}

u_int32_t FwImage::GetImageSize() const {
  const u_int32_t img0 = GetImageAddr(0);
  const u_int32_t img1 = GetImageAddr(1);
  u_int32_t size = 0;
  for (const auto& [addr, section] : _sections) {
    if (img0 <= addr && addr < img1) size += static_cast<u_int32_t>(section->data.size());
  }
  return size;
}

u_int32_t FwImage::GetTotalSize() const {
  u_int32_t size = 0;
  for (const auto& [addr, section] : _sections) {
    size += static_cast<u_int32_t>(section->data.size());
  }
  return size;
}

u_int32_t FwImage::GetSignature() const { ThrowError("FwImage::GetSignature() Not implemented"); }

BraidResult FwImage::AddReplace(const FieldReplace& field) {
  _field_replaces.push_back(field);
  return BRAID_OK;
}

BraidResult FwImage::AddReplace(const CrcReplace& crc) {
  _crc_replaces.push_back(crc);
  return BRAID_OK;
}

BraidResult FwImage::RemoveReplace(FieldType t) {
  std::erase_if(_field_replaces, [t](const FieldReplace& field) { return field.type == t; });
  return BRAID_OK;
}

std::vector<FwImage::FieldReplace> FwImage::GetFieldsInRange(u_int32_t addr, u_int32_t size) const {
  std::vector<FieldReplace> fields;
  for (const FieldReplace& field : _field_replaces) {
    if (!StartsIn(field.from, addr, size)) continue;
    if (ReachesPast(field.from, field.size, addr, size)) {
      ThrowError(Text("Replace field (from:", std::hex, field.from,
                      ", type:", static_cast<u_int32_t>(field.type),
                      ") crosses image section (addr:", addr, " , size:", std::dec, size, ")."));
    }
    fields.push_back(field);
  }
  return fields;
}

std::vector<FwImage::CrcReplace> FwImage::GetCrcsInRange(u_int32_t addr, u_int32_t size) const {
  constexpr u_int32_t CRC_SIZE = 4;
  std::vector<CrcReplace> crcs;
  for (const CrcReplace& crc : _crc_replaces) {
    if (!StartsIn(crc.from, addr, size)) continue;
    if (ReachesPast(crc.from, crc.size, addr, size) ||
        ReachesPast(crc.crc_addr, CRC_SIZE, addr, size)) {
      ThrowError(Text("Replace CRC (from:", std::hex, crc.from, ", size:", crc.size,
                      ") crosses image section (addr:", addr, " , size:", std::dec, size, ")."));
    }
    crcs.push_back(crc);
  }
  return crcs;
}

u_int32_t FwImage::ReplaceFieldSize(FieldType t) {
  const auto row = std::ranges::find(FIELDS, t, &FieldRow::type);
  if (row == FIELDS.end()) ThrowError("ReplaceFieldSize() : Got an unknown field");
  return row->size;
}

void FwImage::ResetDirectives() {
  for (auto* addrs : {_ps_addr, _image_addr, _signature_addr}) {
    std::fill_n(addrs, SLOTS, UNSET_ADDR);
  }
}

void FwImage::PrintStatus() const {
  ConsolePrintf(" FwImage Status (loaded from %s):\n", _filename.c_str());
  ConsolePrintf("%s\n\n", std::string(43, '=').c_str());
  ConsolePrintf("Sections:\n");
  ConsolePrintf(" %-30s %-8s %11s %8s\n\n", "Name", "Addr", "Dev:Offset", "Size");
  for (const auto& [addr, section] : _sections) {
    const EeLoc loc = _conv.Convert(addr);
    ConsolePrintf(" %-30s %08x %02x:%08x %8x\n", section->name.c_str(), addr, loc.dev, loc.offset,
                  static_cast<u_int32_t>(section->data.size()));
  }
  ConsolePrintf("\nDevMap:\n   Dev   Size\n\n");
  for (std::size_t i = 0; i < _conv._devmap.size(); ++i) {
    const EeLoc& mapped = _conv._devmap[i];
    ConsolePrintf("%d %02x  %08x\n", static_cast<int>(i), mapped.dev, mapped.offset);
  }
  ConsolePrintf("\n");
}

void FwImage::ThrowLineError(const std::string& text, const char* file, u_int32_t line) const {
  ThrowError(Text(_filename, ":", _curr_line, text), file, line);
}

BraidResult FwImage::LoadBin(const char*) { return BRAID_NOT_IMPLEMENTED; }

BraidResult FwImage::LoadImg(const char* file_name) {
  LineReader reader(file_name);
  try {
    LoadLines(reader);
  } catch (const BraidError&) {
    // If the file was modified while it was read, report that instead of a syntax error.
    reader.CheckUnchanged();
    throw;
  }
  reader.CheckUnchanged();
  return BRAID_OK;
}

void FwImage::LoadLines(LineReader& reader) {
  _curr_line = 0;
  Section* open_section = nullptr;
  for (std::string_view line; reader.Next(line);) {
    ++_curr_line;
    if (open_section != nullptr && AppendPlainData(line, *open_section)) continue;
    line = line.substr(0, line.find('\0'));  // the rest after a NUL is ignored
    const std::size_t first = line.find_first_not_of(" \t");
    if (first == std::string_view::npos || line[first] == '#' || line[first] == '\n') continue;

    const std::vector<std::string> words = Words(line);
    if (words.empty()) continue;
    if (open_section == nullptr) {
      if (words[0] != "START") ParseImgDirective(words);
      open_section = OpenSection(std::string(line));
      if (open_section != nullptr) ReserveData(*open_section, reader.Left());
    } else if (words[0] != "END") {
      AppendData(words, *open_section);
    } else {
      if (words.size() != 2) ThrowLineError(": Wrong END section format - Sector name expected.");
      if (words[1] != open_section->name) {
        ThrowLineError(": END Section name (" + words[1] + ") differs from start section name (" +
                       open_section->name + ").");
      }
      TrimData(*open_section);
      open_section = nullptr;
    }
  }
}

void FwImage::ReserveData(Section& section, u_int64_t file_bytes) {
  // The rest of the file may be one section. Growing the vector step by step would copy it, and
  // take twice its memory for a moment. Reserved pages that are not touched take no memory.
  constexpr u_int64_t SHORTEST_WORD = 2;  // one digit and a blank
  try {
    section.data.reserve(static_cast<std::size_t>(file_bytes / SHORTEST_WORD));
  } catch (const std::bad_alloc&) {
    // The section may be much smaller than the rest of the file: go on without a reservation.
  }
}

void FwImage::TrimData(Section& section) {
  constexpr std::size_t WORTH_IT = std::size_t{64} * 1024;
  if (section.data.capacity() > 2 * section.data.size() + WORTH_IT) section.data.shrink_to_fit();
}

bool FwImage::AppendPlainData(std::string_view line, Section& section) const {
  std::array<u_int8_t, MAX_STR> bytes;
  const std::size_t size = PlainBytes(line, bytes.data());
  if (size == 0 || size % 4 != 0) return false;
  section.data.insert(section.data.end(), bytes.data(), bytes.data() + size);
  CheckEnd(section);
  return true;
}

void FwImage::CheckEnd(const Section& section) const {
  if (ReachesPast(section.addr, section.data.size(), 0, ADDRESS_SPACE)) {
    ThrowLineError(": Section (" + section.name + ") reaches past the last address.");
  }
}

FwImage::Section* FwImage::OpenSection(const std::string& line) {
  // sscanf splits at any white space: a START line may have tabs, other directives may not.
  char keyword[MAX_STR + 1];
  char name[MAX_STR + 1];
  u_int32_t offset = 0;
  u_int32_t dev = 0;
  const int scanned =
      std::sscanf(line.c_str(), "%1023s %1023s %x %x", keyword, name, &offset, &dev);
  if (scanned < 1 || std::strcmp(keyword, "START") != 0) return nullptr;
  if (scanned != 4) ThrowLineError(": START line must give a name, an offset and a device.");

  const u_int32_t addr = _conv.Convert(EeLoc(offset, static_cast<u_int8_t>(dev)));
  _loaded.push_back(std::make_unique<Section>(name, addr));
  Section* section = _loaded.back().get();
  // A second section at the same address is read and checked, but the first one is burned.
  _sections.try_emplace(addr, section);
  _sections_order.push_back(addr);
  return section;
}

void FwImage::AppendData(const std::vector<std::string>& words, Section& section) const {
  if (words.size() % 4 != 0) ThrowLineError(": Section data line must have multiple of 4 bytes.");
  for (const std::string& word : words) {
    u_int32_t byte = 0;
    if (!ParseNumber(word, 16, byte)) {
      ThrowLineError(": Data byte (" + word + ") contains invalid characters");
    }
    section.data << static_cast<u_int8_t>(byte);
  }
  CheckEnd(section);
}

BraidResult FwImage::ParseImgDirective(const std::vector<std::string>& words) {
  using Words = const std::vector<std::string>&;
  struct Row {
    std::string_view directive;
    std::size_t words;
    void (*parse)(FwImage& image, Words words);
  };
  static constexpr auto DIRECTIVES = std::to_array<Row>({
      {"REPLACE", 4, [](FwImage& image, Words w) { image.ParseReplaceField(w); }},
      {"DEVICE_TYPE", 2, [](FwImage& image, Words w) { image._dev_type = Str2DeviceType(w[1]); }},
      {"PS", 4,
       [](FwImage& image, Words w) {
         const u_int32_t idx = image.ParseSlotIndex(w);
         image.SetPsAddr(idx, image.ParseAddr(w[2], w[3]));
       }},
      {"IMAGE", 4,
       [](FwImage& image, Words w) {
         const u_int32_t idx = image.ParseSlotIndex(w);
         image.SetImageAddr(idx, image.ParseAddr(w[2], w[3]));
       }},
      {"SIGNATURE", 4,
       [](FwImage& image, Words w) {
         const u_int32_t idx = image.ParseSlotIndex(w);
         image.SetSignatureAddr(idx, image.ParseAddr(w[2], w[3]));
       }},
      {"DEVMAP", 3,
       [](FwImage& image, Words w) {
         image._conv._devmap.push_back(image.ParseEeLoc(w[1], w[2]));
       }},
  });
  static constexpr Row REPLACE_CRC{"REPLACE", 8,
                                   [](FwImage& image, Words w) { image.ParseReplaceCrc(w); }};

  if (words.empty()) return BRAID_OK;
  const Row* row = std::ranges::find(DIRECTIVES, words[0], &Row::directive);
  if (row == DIRECTIVES.end()) return BRAID_OK;
  if (words[0] == "REPLACE" && words.size() > 1 && words[1] == "CRC") row = &REPLACE_CRC;
  if (words.size() != row->words) {
    ThrowLineError(Text(": '", words[0], "' directive must contain ", row->words, "words."));
  }
  row->parse(*this, words);
  return BRAID_OK;
}

u_int32_t FwImage::ParseSlotIndex(const std::vector<std::string>& words) const {
  if (words[1] != "0" && words[1] != "1") {
    ThrowLineError(": '" + words[0] + "' directive - image index (" + words[1] +
                   ") can be iether 0 or 1");
  }
  return words[1] == "0" ? 0 : 1;
}

void FwImage::ParseReplaceCrc(const std::vector<std::string>& words) {
  constexpr u_int32_t LAST_WORD = 4;  // the "to" location is that of the last word covered
  const u_int32_t from = ParseAddr(words[2], words[3]);
  const u_int32_t to = ParseAddr(words[4], words[5]);
  const u_int32_t crc_addr = ParseAddr(words[6], words[7]);
  AddReplace(CrcReplace{from, to - from + LAST_WORD, crc_addr});
}

void FwImage::ParseReplaceField(const std::vector<std::string>& words) {
  const FieldType type = Str2FieldType(words[1]);
  if (type == UNKNOWN_FIELD) {
    ThrowLineError(": Unknown replace field type '" + words[1] + "' .");
  }
  const u_int32_t from = ParseAddr(words[2], words[3]);
  if (type == BSN && _dev_type == RV61100) {
    std::cout << "-W- *** REPLACES OF TYPE " << words[1] << " ARE IGNORED FOR DEVICE TYPE "
              << std::dec << static_cast<u_int32_t>(_dev_type) << " ***" << std::endl;
    return;
  }
  AddReplace(FieldReplace{from, ReplaceFieldSize(type), type});
}

u_int32_t FwImage::ParseAddr(const std::string& offset_word, const std::string& dev_word) const {
  return _conv.Convert(ParseEeLoc(offset_word, dev_word));
}

EeLoc FwImage::ParseEeLoc(const std::string& offset_word, const std::string& dev_word) const {
  u_int32_t offset = 0;
  u_int32_t dev = 0;
  if (!ParseNumber(offset_word, 16, offset)) {
    ThrowLineError(": Error parsing offset (" + offset_word + ").");
  }
  if (!ParseNumber(dev_word, 16, dev)) {
    ThrowLineError(": Error parsing dev addr (" + dev_word + ").");
  }
  if (dev > 0xFF) ThrowLineError(": Device addr must be 8 bits (" + dev_word + ").");
  return EeLoc(offset, static_cast<u_int8_t>(dev));
}

FieldType FwImage::Str2FieldType(const std::string& keyword) {
  const auto row = std::ranges::find(FIELDS, keyword, &FieldRow::keyword);
  return row == FIELDS.end() ? UNKNOWN_FIELD : row->type;
}

DeviceType FwImage::Str2DeviceType(const std::string& keyword) {
  const auto row = std::ranges::find(DEVICES, keyword, &DeviceRow::keyword);
  return row == DEVICES.end() ? DEV_UNKNOWN : row->type;
}
