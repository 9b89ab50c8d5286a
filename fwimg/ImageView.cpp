#include "fwimg/ImageView.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/Files.h"
#include "sim/LocalRom.h"
#include "src/main.h"
#include "src/utils.h"

namespace tools {

namespace {

/// The loader's line buffer, its closing NUL not counted.
constexpr std::size_t LONGEST_LINE = 1023;
/// Refused data lines that are told one by one in a section; more of them say nothing new.
constexpr u_int32_t TOLD_DATA_LINES = 8;
/// They are compared with each other: more would take forever.
constexpr u_int32_t MOST_PLACES = 10000;

std::string ReadFile(const std::string& path) {
  const auto fail = [&path] {
    ThrowError("Can't open file \"" + path + "\" : " + strerror(errno));
  };
  // Not to be kept waiting by a FIFO, which is refused right after.
  const common::Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (file.Get() < 0) fail();
  struct stat status {};
  if (fstat(file.Get(), &status) != 0) fail();
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EOPNOTSUPP;
    fail();
  }
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t got = read(file.Get(), text.data() + size, text.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail();
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  text.resize(size);
  return text;
}

/// Loads `text` into `image`, by way of a file that exists in memory only. Returns what the loader
/// says against it, without file and line; "" where it takes it.
std::string LoadText(FwImage& image, std::string_view text) {
  const auto fail = [] {
    ThrowError(std::string("Can't keep the image in memory: ") + strerror(errno));
  };
  const common::Descriptor file(memfd_create("image", MFD_CLOEXEC));
  if (file.Get() < 0) fail();
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t written = write(file.Get(), text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) fail();
    done += static_cast<std::size_t>(written);
  }
  // What the loader cannot open here is no fault of the image.
  const std::string path = "/proc/self/fd/" + std::to_string(file.Get());
  if (common::Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC)).Get() < 0) {
    ThrowError("Can't load the image from " + path + ": " + strerror(errno));
  }
  const sim::QuietConsole quiet;
  try {
    image.LoadImg(path.c_str());
  } catch (const BraidError& error) {
    return error.Des();
  }
  return "";
}

/// What a loader without a file name says, ":12: text", without its line.
std::string WithoutLine(const std::string& text) {
  if (!text.starts_with(':')) return text;
  const std::size_t end = text.find(": ", 1);
  return end == std::string::npos ? text : text.substr(end + 2);
}

bool IsBlank(char c) { return c == ' ' || c == '\n'; }

enum class Data { PLAIN, OTHER, NONE };

/// Counts the words of a line of data as it usually is, one or two digits each.
Data CountPlain(std::string_view line, u_int32_t& words) {
  const char* at = line.data();
  const char* const end = at + line.size();
  words = 0;
  while (at != end) {
    if (IsBlank(*at)) {
      ++at;
      continue;
    }
    if (HexDigit(*at++) > 15) return Data::OTHER;
    if (at != end && !IsBlank(*at)) {
      if (HexDigit(*at++) > 15 || (at != end && !IsBlank(*at))) return Data::OTHER;
    }
    ++words;
  }
  return words == 0 ? Data::NONE : Data::PLAIN;
}

std::vector<std::string> Words(std::string_view line) {
  return splitv(std::string(line), " \n", false);
}

/// Whether a word reads as another number than it is: too long for 32 bits, or negative.
bool IsCut(const std::string& word) {
  errno = 0;
  const auto value = std::strtoull(word.c_str(), nullptr, 16);
  return value > 0xFFFFFFFF || errno == ERANGE || word.find('-') != std::string::npos;
}

constexpr auto VERSIONS =
    std::to_array<std::string_view>({"MAJ_FW_VER", "MIN_FW_VER", "SUB_MIN_FW_VER"});
constexpr auto KEYWORDS = std::to_array<std::string_view>(
    {"START", "END", "REPLACE", "DEVICE_TYPE", "PS", "IMAGE", "SIGNATURE", "DEVMAP", "MAJ_FW_VER",
     "MIN_FW_VER", "SUB_MIN_FW_VER"});

bool IsKeyword(std::string_view word) {
  return std::ranges::find(KEYWORDS, word) != KEYWORDS.end();
}

/// How many letters must be put in, left out or changed to make one word the other.
std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t changed = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row[b.size()];
}

/// The keyword that a word was likely meant to be; "" where it is like none.
std::string_view Meant(std::string_view word) {
  constexpr std::size_t LONGEST = 20;
  if (word.size() > LONGEST) return "";
  std::string upper(word);
  for (char& c : upper) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  for (const std::string_view keyword : KEYWORDS) {
    if (Distance(upper, keyword) <= keyword.size() / 3) return keyword;
  }
  return "";
}

}  // namespace

std::string FieldKeyword(FieldType type) {
  for (const char* keyword : {"SIGNATURE", "GUIDS", "GUID", "SYSGUID", "BSN", "VSD"}) {
    if (FwImage::Str2FieldType(keyword) == type) return keyword;
  }
  return "?";
}

ImageView::ImageView(const std::string& path) : _path(path), _image(std::make_unique<FwImage>()) {
  const std::string text = ReadFile(path);
  try {
    const sim::QuietConsole quiet;
    _image->Open(path.c_str(), READ);
  } catch (const BraidError& error) {
    _refusal = error.Des();
  }
  {
    const sim::QuietConsole quiet;  // the loader warns on the console, too
    Scan(text);
  }
  if (!_refusal.empty()) LoadRest(text);
  TakeData();
  _family = sim::FamilyOf(_image->DevType());
}

void ImageView::LoadRest(std::string_view text) {
  std::string rest;
  std::size_t done = 0;
  for (const Edit& edit : _edits) {
    rest += text.substr(done, edit.from - done);
    rest += edit.instead;
    done = edit.from + edit.size;
  }
  rest += text.substr(done);
  _image = std::make_unique<FwImage>();
  const std::string refusal = LoadText(*_image, rest);
  // A refusal that the scan did not foresee: told, though without the rest.
  if (!refusal.empty()) _findings.Add(ProblemId::REFUSED, 0, Printable(WithoutLine(refusal)));
}

void ImageView::TakeData() {
  for (SectionView& section : _sections) {
    const FwImage::Section* loaded = _image->GetSection(section.addr);
    if (!section.is_kept || loaded == nullptr) continue;
    section.data = loaded->data;
    section.size = static_cast<u_int32_t>(loaded->data.size());
  }
}

void ImageView::Scan(std::string_view text) {
  bool is_cut = false;  // the line before was, and this is the rest of it
  for (std::size_t from = 0; from < text.size();) {
    const std::string_view whole = text.substr(from, LONGEST_LINE);
    const std::size_t end = whole.find('\n');
    LineAt line{whole.substr(0, end == std::string_view::npos ? end : end + 1), from, 0};
    line.size = line.text.size();
    from += line.size;
    ++_line;
    u_int32_t words = 0;
    if (end != std::string_view::npos && !is_cut && _open != nullptr &&
        CountPlain(line.text, words) == Data::PLAIN && words % 4 == 0 &&
        _open->End() + words <= u_int64_t{1} << 32) {
      _open->size += words;
      continue;
    }

    const bool was_cut = is_cut;
    is_cut = end == std::string_view::npos && from < text.size();
    if (is_cut && !was_cut) {
      Note(ProblemId::LONG_LINE, "the line is longer than 1022 characters");
      _long_line = _line;
    }
    const std::size_t nul = line.text.find('\0');
    if (nul != std::string_view::npos) {
      Note(ProblemId::NUL, "what follows the NUL is not read");
      line.text = line.text.substr(0, nul);
    }
    const std::size_t first = line.text.find_first_not_of(" \t");
    if (first == std::string_view::npos || line.text[first] == '#' || line.text[first] == '\n') {
      continue;
    }
    if (Words(line.text).empty()) continue;
    if (was_cut) NoteRestOfLongLine(line);
    if (_open == nullptr || !ScanInside(line)) ScanOutside(line);
  }
  if (_open != nullptr) {
    _findings.Add(ProblemId::SECTION_NOT_CLOSED, _open->line,
                  "section " + Printable(_open->name) + " is not closed by an END");
    CloseSection(text.size());
  }
}

void ImageView::NoteRestOfLongLine(const LineAt& line) {
  const std::vector<std::string> words = Words(line.text);
  if (_open == nullptr && !IsKeyword(words[0])) return;  // ignored as any other such line
  Note(ProblemId::LONG_LINE_REST,
       "this is the rest of the long line " + std::to_string(_long_line));
}

void ImageView::CountPlace() {
  if (++_places > MOST_PLACES) {
    ThrowError(Text(_path, ": more than ", MOST_PLACES,
                    " sections, fields, CRCs and devices: that is no device's image"));
  }
}

void ImageView::Refuse(const std::string& text, const LineAt& line, std::string instead) {
  Note(ProblemId::REFUSED, Printable(text));
  _edits.push_back({line.from, line.size, std::move(instead)});
}

std::string ImageView::AskLoader(std::string_view line) const {
  // At the end of what the section has, so that the end of the address space is where it is.
  const u_int64_t addr = std::min<u_int64_t>(_open->End(), 0xFFFFFFFF);
  FwImage judge;
  const std::string text = Text("START ", _open->name, " ", std::hex, addr, " 0\n", line);
  return WithoutLine(LoadText(judge, text));
}

bool ImageView::ScanInside(const LineAt& line) {
  const std::vector<std::string> words = Words(line.text);
  if (words[0] == "END") {
    const bool is_right = words.size() == 2 && words[1] == _open->name;
    const std::string refusal = is_right ? "" : AskLoader(line.text);
    _open->end_line = _line;
    if (!refusal.empty()) Refuse(refusal, line, "END " + _open->name + "\n");
    CloseSection(line.from + line.size);
    return true;
  }
  bool is_good = words.size() % 4 == 0 && _open->End() + words.size() <= u_int64_t{1} << 32;
  for (const std::string& word : words) {
    u_int32_t value = 0;
    if (!ParseNumber(word, 16, value)) {
      is_good = false;
    } else if (value > 0xFF || IsCut(word)) {
      Note(ProblemId::DATA_CUT, "the word " + Printable(word) + " is more than a byte");
    }
  }
  if (is_good) {
    _open->size += static_cast<u_int32_t>(words.size());
    return true;
  }
  _open->is_whole = false;
  // A keyword can be no data: most likely the END is missing. Going on as if it were there tells
  // more than refusing all that follows.
  const std::string keyword = words[0].substr(0, words[0].find('\t'));
  if (IsKeyword(keyword)) {
    Refuse(AskLoader(line.text), line);
    _findings.Add(ProblemId::SECTION_NOT_CLOSED, _open->line,
                  "section " + Printable(_open->name) + " is not closed before line " +
                      std::to_string(_line));
    _edits.back() = {line.from, 0, "END " + _open->name + "\n"};
    CloseSection(line.from);
    return false;
  }
  if (++_refused_data <= TOLD_DATA_LINES) {
    const bool is_last = _refused_data == TOLD_DATA_LINES;
    Refuse(
        AskLoader(line.text) + (is_last ? " (more such lines of this section are not told)" : ""),
        line);
  } else {
    _edits.push_back({line.from, line.size, ""});
  }
  return true;
}

void ImageView::CloseSection(std::size_t end) {
  if (_drop_from) {
    _edits.resize(_edits_before_drop - 1);  // that of its START, too
    _edits.push_back({*_drop_from, end - *_drop_from, ""});
    _drop_from.reset();
  }
  _open = nullptr;
}

void ImageView::ScanOutside(const LineAt& line) {
  const std::vector<std::string> words = Words(line.text);
  std::string keyword(LONGEST_LINE + 1, '\0');
  const std::string text(line.text);
  const bool is_start = std::sscanf(text.c_str(), "%1023s", keyword.data()) == 1 &&
                        std::strcmp(keyword.c_str(), "START") == 0;
  if (is_start) {
    OpenSection(line);
  } else {
    Directive(words, line);
  }
}

std::optional<u_int32_t> ImageView::NoteLocation(const EeLoc& loc) {
  std::optional<u_int32_t> addr;
  try {
    addr = Map().Convert(loc);
  } catch (const BraidError&) {
    // Told where the loader refuses the line.
  }
  _locations.push_back({_line, loc, addr});
  return addr;
}

std::string ImageView::MapFor(u_int32_t dev) const {
  if (_devices.empty()) return "";
  const auto known = _by_device.find(static_cast<u_int8_t>(dev));
  const bool is_mapped = known != _by_device.end();
  // All that lies before it, as one other device.
  const u_int32_t before = is_mapped ? _devices[known->second].addr : _mapped;
  std::string map = Text("DEVMAP ", std::hex, before, " ", dev ^ 1, "\n");
  if (is_mapped) map += Text("DEVMAP ", std::hex, _devices[known->second].size, " ", dev, "\n");
  return map;
}

void ImageView::OpenSection(const LineAt& line) {
  CountPlace();
  // The words as the loader's scan cuts them: at any white space.
  const std::vector<std::string> words = splitv(std::string(line.text), " \t\n\v\f\r", false);
  u_int32_t offset = 0;
  u_int32_t dev = 0;
  const bool has_location = words.size() >= 4 && ParseNumber(words[2], 16, offset);
  char* end = nullptr;
  if (has_location) dev = static_cast<u_int32_t>(std::strtoul(words[3].c_str(), &end, 16));
  FwImage judge;
  const std::string refusal =
      WithoutLine(LoadText(judge, MapFor(dev & 0xFF) + std::string(line.text)));
  if (has_location) {
    if (refusal.empty() && (words.size() > 4 || *end != '\0')) {
      Note(ProblemId::START_NOT_READ_WHOLE,
           "the loader stops reading after the device number " + HexText(dev));
    }
    if (IsCut(words[2]))
      Note(ProblemId::NUMBER_CUT, "the offset " + Printable(words[2]) + " is cut");
    if (dev > 0xFF || IsCut(words[3])) {
      Note(ProblemId::DEVICE_CUT,
           "the device number " + Printable(words[3]) + " is cut to " + HexText(dev & 0xFF));
    }
    NoteLocation(EeLoc(offset, static_cast<u_int8_t>(dev)));
  }
  SectionView section;
  section.line = _line;
  if (words.size() > 1) section.name = words[1];
  std::vector<u_int32_t> addrs;
  judge.GetSectionsAddr(addrs);
  if (addrs.empty()) {
    // Its lines are read all the same: they may have faults of their own.
    section.is_placed = false;
    section.is_kept = false;
    section.is_whole = false;
    Refuse(refusal, line);
    if (section.name.empty()) section.name = "?";
    _drop_from = line.from;
    _edits_before_drop = _edits.size();
  } else {
    section.addr = addrs.front();
    section.is_kept = _by_addr.try_emplace(section.addr, _sections.size()).second;
  }
  _refused_data = 0;
  _sections.push_back(std::move(section));
  _open = &_sections.back();
}

void ImageView::Directive(const std::vector<std::string>& words, const LineAt& line) {
  try {
    _directives.ParseImgDirective(words);
  } catch (const BraidError& error) {
    Refuse(WithoutLine(error.Des()), line);
    NoteLocations(words);
    return;
  }
  if (const auto version = std::ranges::find(VERSIONS, words[0]); version != VERSIONS.end()) {
    std::string& part = _version[static_cast<std::size_t>(version - VERSIONS.begin())];
    part = words.size() > 1 ? Printable(words[1]) : "?";
    if (words.size() != 2) Note(ProblemId::VERSION_WORDS, "a version directive has one number");
  } else if (IsKeyword(words[0]) && words[0] != "END") {
    Accepted(words);
  } else {
    NoteUnknown(words, line);
  }
}

void ImageView::NoteLocations(const std::vector<std::string>& words) {
  struct Row {
    std::string_view keyword;
    std::size_t words;
    std::vector<std::size_t> at;
  };
  static const std::vector<Row> ROWS{{"REPLACE", 4, {2}},   {"REPLACE", 8, {2, 4, 6}},
                                     {"PS", 4, {2}},        {"IMAGE", 4, {2}},
                                     {"SIGNATURE", 4, {2}}, {"DEVMAP", 3, {1}}};
  for (const Row& row : ROWS) {
    if (row.keyword != words[0] || row.words != words.size()) continue;
    for (const std::size_t at : row.at) {
      for (const std::size_t word : {at, at + 1}) {
        if (IsCut(words[word])) {
          Note(ProblemId::NUMBER_CUT,
               "the number " + Printable(words[word]) + " is cut to 32 bits");
        }
      }
      if (row.keyword == "DEVMAP") continue;
      try {
        NoteLocation(_directives.ParseEeLoc(words[at], words[at + 1]));
      } catch (const BraidError&) {
        // No location at all: the loader has said so.
      }
    }
  }
}

void ImageView::Accepted(const std::vector<std::string>& words) {
  CountPlace();
  NoteLocations(words);
  const auto addr = [&](std::size_t at) { return _directives.ParseAddr(words[at], words[at + 1]); };
  if (words[0] == "DEVICE_TYPE") {
    if (_device_type_line != 0) {
      Note(ProblemId::DEVICE_TYPE_TWICE,
           "the device type is given on line " + std::to_string(_device_type_line) + " already");
    }
    _device_type_line = _line;
    _device_type_word = words[1];
  } else if (words[0] == "DEVMAP") {
    const EeLoc mapped = _directives.ParseEeLoc(words[1], words[2]);
    _by_device.try_emplace(mapped.dev, _devices.size());
    _devices.push_back({_mapped, mapped.offset, mapped.dev, _line});
    _mapped += mapped.offset;
  } else if (words[0] == "REPLACE" && words[1] == "CRC") {
    constexpr u_int32_t LAST_WORD = 4;  // the "to" location names the last word covered
    _crcs.push_back({{addr(2), addr(4) - addr(2) + LAST_WORD, addr(6)}, _line});
  } else if (words[0] == "REPLACE") {
    const FieldType type = FwImage::Str2FieldType(words[1]);
    if (type == BSN && _directives.DevType() == RV61100) {
      Note(ProblemId::BSN_IGNORED, "an RV61100 has no BSN: the field is ignored");
    } else {
      _fields.push_back({{addr(2), FwImage::ReplaceFieldSize(type), type}, _line});
    }
  } else {
    SlotView& slot = _slots[words[1] == "0" ? 0 : 1];
    auto& place = words[0] == "PS" ? slot.ps : words[0] == "IMAGE" ? slot.image : slot.signature;
    if (place) {
      Note(ProblemId::SLOT_TWICE,
           words[0] + " " + words[1] + " replaces that of line " + std::to_string(place->line));
    }
    place = MarkedAddr{addr(2), _line};
    if (words[0] == "SIGNATURE") {
      _fields.push_back({{place->addr, FwImage::ReplaceFieldSize(SIGNATURE), SIGNATURE}, _line});
    }
  }
}

void ImageView::NoteUnknown(const std::vector<std::string>& words, const LineAt& line) {
  u_int32_t bytes = 0;
  const std::string_view word =
      std::string_view(words[0]).substr(0, words[0].find_first_of("\t\r"));
  if (words[0] == "END") {
    Note(ProblemId::STRAY_END, "END outside a section");
  } else if (CountPlain(line.text, bytes) == Data::PLAIN) {
    if (_stray_line == 0 || _stray_line + 1 != _line)
      Note(ProblemId::STRAY_DATA, "data outside a section");
    _stray_line = _line;  // a block of them is told once
  } else if (word.size() < words[0].size() && IsKeyword(word)) {
    Note(ProblemId::MISSPELT_DIRECTIVE,
         "\"" + Printable(words[0]) +
             "\" is no directive: words are parted by blanks, lines end "
             "without a carriage return");
  } else if (const std::string_view meant = Meant(words[0]); !meant.empty()) {
    Note(ProblemId::MISSPELT_DIRECTIVE,
         "unknown directive \"" + Printable(words[0]) + "\": is " + std::string(meant) + " meant?");
  } else {
    Note(ProblemId::UNKNOWN_DIRECTIVE, "unknown directive \"" + Printable(words[0]) + "\"");
  }
}

const FwImage::Conv& ImageView::Map() const { return sim::MapOf(_directives); }

const SectionView* ImageView::SectionAt(u_int32_t addr) const {
  const auto found = _by_addr.find(addr);
  return found == _by_addr.end() ? nullptr : &_sections[found->second];
}

std::string ImageView::FirmwareVersion() const {
  std::string version;
  if (std::ranges::all_of(_version, &std::string::empty)) return version;
  for (const std::string& part : _version) {
    version += (version.empty() ? "" : ".") + (part.empty() ? "?" : part);
  }
  return version;
}

void ImageView::RequireImage() const {
  if (!_refusal.empty()) ThrowError(_refusal);
  if (_places == 0 && FirmwareVersion().empty()) {
    ThrowError(_path + ": no image: the file has no directive and no section");
  }
}

bool ImageView::IsReplaced(const FwImage::FieldReplace& field) const {
  return DeviceFamily() != Family::GENERIC || (field.type != VSD && field.type != SIGNATURE);
}

bool ImageView::HasSlots() const {
  const Family family = DeviceFamily();
  if (family != Family::POINTER_SECTORS && family != Family::BOOT_RECORDS) return false;
  for (const SlotView& slot : _slots) {
    if (!slot.image) return false;
    if (family == Family::POINTER_SECTORS && (!slot.ps || !slot.signature)) return false;
  }
  return !ImageSections().empty();
}

std::vector<const SectionView*> ImageView::ImageSections() const {
  std::vector<const SectionView*> sections;
  if (!_slots[0].image || !_slots[1].image) return sections;
  std::vector<u_int32_t> addrs;
  try {
    _image->GetImageSectionsAddr(addrs);
  } catch (const BraidError&) {
    return sections;
  }
  for (const u_int32_t addr : addrs) {
    const SectionView* section = SectionAt(addr);
    if (section != nullptr) sections.push_back(section);
  }
  return sections;
}

u_int64_t ImageView::ImageExtent() const {
  u_int64_t end = 0;
  const auto sections = ImageSections();
  for (const SectionView* section : sections) end = std::max(end, section->End());
  return sections.empty() ? 0 : end - std::min<u_int64_t>(end, sections.front()->addr);
}

std::optional<DataVec> ImageView::Bytes(u_int64_t addr, u_int64_t size) const {
  DataVec bytes;
  while (bytes.size() < size) {
    const u_int64_t at = addr + bytes.size();
    const auto found = std::ranges::find_if(_sections, [at](const SectionView& section) {
      return section.is_kept && section.is_whole && section.addr <= at && at < section.End();
    });
    if (found == _sections.end()) return std::nullopt;
    const auto part = found->data.subspan(
        at - found->addr, std::min<u_int64_t>(size - bytes.size(), found->End() - at));
    bytes.insert(bytes.end(), part.begin(), part.end());
  }
  return bytes;
}

}  // namespace tools
