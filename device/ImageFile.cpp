// Written apart from the burner's loader, which it checks.
#include "device/ImageFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unordered_map>
#include <utility>

namespace device {

namespace {

/// Characters of a line, its end included, that the burner reads at once. The rest is another line.
constexpr std::size_t LONGEST_PIECE = 1023;
/// Refused lines of data that are told of a section; more of them say nothing new.
constexpr unsigned TOLD_DATA_LINES = 8;

enum class Directive { REPLACE, REPLACE_CRC, DEVICE_TYPE, PS, IMAGE, SIGNATURE, DEVMAP };

struct DirectiveRow {
  std::string_view keyword;
  Directive directive;
  std::size_t words;      ///< exactly
  std::size_t at;         ///< the word that begins the first location
  std::size_t locations;  ///< two words each, one behind the other
};
constexpr auto DIRECTIVES = std::to_array<DirectiveRow>({
    {"REPLACE", Directive::REPLACE, 4, 2, 1},
    {"DEVICE_TYPE", Directive::DEVICE_TYPE, 2, 2, 0},
    {"PS", Directive::PS, 4, 2, 1},
    {"IMAGE", Directive::IMAGE, 4, 2, 1},
    {"SIGNATURE", Directive::SIGNATURE, 4, 2, 1},
    {"DEVMAP", Directive::DEVMAP, 3, 1, 1},
});
constexpr DirectiveRow REPLACE_CRC{"REPLACE", Directive::REPLACE_CRC, 8, 2, 3};
constexpr auto VERSIONS =
    std::to_array<std::string_view>({"MAJ_FW_VER", "MIN_FW_VER", "SUB_MIN_FW_VER"});
constexpr auto KEYWORDS = std::to_array<std::string_view>(
    {"START", "END", "REPLACE", "DEVICE_TYPE", "PS", "IMAGE", "SIGNATURE", "DEVMAP", "MAJ_FW_VER",
     "MIN_FW_VER", "SUB_MIN_FW_VER"});

using WordList = std::vector<std::string>;

// What a character of a line of data is: the value of a digit, or one of these.
constexpr std::uint8_t BLANK = 0x10;
constexpr std::uint8_t OTHER = 0x20;
constexpr auto CHARACTERS = [] {
  std::array<std::uint8_t, 256> all{};
  all.fill(OTHER);
  all[' '] = BLANK;
  all['\n'] = BLANK;
  for (std::uint8_t i = 0; i < 10; ++i) all[std::size_t{'0'} + i] = i;
  for (std::uint8_t i = 0; i < 6; ++i) {
    const auto worth = static_cast<std::uint8_t>(10 + i);
    all[std::size_t{'a'} + i] = worth;
    all[std::size_t{'A'} + i] = worth;
  }
  return all;
}();
std::uint8_t KindOf(char c) { return CHARACTERS[static_cast<unsigned char>(c)]; }

/// Reads a line whose words are all one or two digits into `bytes`, which has room for a piece of a
/// line. Returns how many there are; 0 where the line is any other.
std::size_t ReadPlainData(std::string_view line, std::uint8_t* bytes) {
  const char* at = line.data();
  const char* const end = at + line.size();
  std::size_t count = 0;
  while (at != end) {
    const std::uint8_t first = KindOf(*at++);
    if (first == BLANK) continue;
    if (first == OTHER) return 0;
    const std::uint8_t second = at == end ? BLANK : KindOf(*at++);
    if (second == BLANK) {
      bytes[count++] = first;
      continue;
    }
    if (second == OTHER || (at != end && KindOf(*at) != BLANK)) return 0;
    bytes[count++] = static_cast<std::uint8_t>(first << 4 | second);
  }
  return count;
}

/// Blanks and line ends separate words. Nothing else does, not even a tab.
WordList WordsOf(std::string_view line) {
  WordList words;
  while (true) {
    const std::size_t from = line.find_first_not_of(" \n");
    if (from == std::string_view::npos) return words;
    line.remove_prefix(from);
    const std::string_view word = line.substr(0, line.find_first_of(" \n"));
    words.emplace_back(word);
    line.remove_prefix(word.size());
  }
}

/// A whole word as a number of 32 bits; what is above is cut off. Nothing where it is no number.
std::optional<std::uint32_t> NumberOf(const std::string& word) {
  char* end = nullptr;
  const unsigned long long number = std::strtoull(word.c_str(), &end, 16);  // also on 32-bit hosts
  if (*end != '\0') return std::nullopt;
  return static_cast<std::uint32_t>(number);
}

/// Whether a word reads as another number than it is: too large for 32 bits, or with a sign.
bool IsCut(const std::string& word) {
  errno = 0;
  const unsigned long long number = std::strtoull(word.c_str(), nullptr, 16);
  return number > 0xFFFFFFFF || errno == ERANGE || word.find('-') != std::string::npos;
}

std::string HexOf(std::uint32_t number) {
  char text[9];
  std::snprintf(text, sizeof text, "%x", number);
  return text;
}

template <std::size_t SIZE>
bool Has(const std::array<std::string_view, SIZE>& words, std::string_view word) {
  return std::ranges::find(words, word) != words.end();
}

/// Why a line is refused.
struct Fault {
  std::string text;
  bool has_place = true;  ///< whether the burner puts file and line before it
};

/// Reads text that comes in blocks, one line after the other.
class Parser {
 public:
  Parser(std::string name, ImageListener& listener) : _listener(listener) {
    _file.name = std::move(name);
  }

  void CheckName();
  /// Reads as many lines as `block` has whole; of the last block all. Returns how many characters
  /// that were: the rest is to come again, with more behind it.
  std::size_t Take(std::string_view block, bool is_last);
  /// The file. To be called once, behind the last block.
  ImageFile Finish();

 private:
  void TakeLine(std::string_view line, bool is_cut);
  bool TakePlainData(std::string_view line);
  bool TakeInside(const WordList& words);
  void TakeEnd(const WordList& words);
  void TakeOutside(std::string_view line, const WordList& words);
  void TakeStart(const std::string& line);
  void TakeDirective(const WordList& words);
  void TakeVersion(std::size_t part, const WordList& words);
  void TakeSlot(const DirectiveRow& row, const WordList& words, std::uint32_t addr);
  void TakeUnknown(std::string_view line, const WordList& words);

  /// What is wrong with a line of data; nothing where nothing is, and its bytes are in _bytes.
  std::optional<Fault> ReadData(const WordList& words);
  void Append(std::size_t size);
  void OpenSection(std::string name, std::optional<std::uint32_t> addr);

  /// The addresses of a directive's locations. Throws Fault.
  std::vector<std::uint32_t> CheckDirective(const DirectiveRow& row, const WordList& words) const;
  /// Throws Fault.
  static ChipPlace PlaceOf(const std::string& offset_word, const std::string& device_word);
  std::optional<std::uint32_t> AddressOf(ChipPlace place) const;
  Fault NotMapped(std::uint8_t chip) const;
  void NoteLocations(const WordList& words);

  void Refuse(const Fault& fault, bool has_more = false);
  void Note(RemarkKind kind, std::string_view word = {}, std::uint32_t number = 0) {
    _listener.Remarked({kind, _line, word, number});
  }

  ImageListener& _listener;
  ImageFile _file;
  LineNumber _line = 0;
  bool _is_rest = false;                           ///< the next line is the rest of a longer one
  LineNumber _long_line = 0;                       ///< where that one began
  LineNumber _stray_line = 0;                      ///< the last line of data outside of sections
  SectionLines* _open = nullptr;                   ///< one of _file's
  Bytes* _data = nullptr;                          ///< of the open section, where they are kept
  unsigned _refused_data = 0;                      ///< lines of the open section
  std::array<std::uint8_t, LONGEST_PIECE> _bytes;  ///< of the line in hand
  std::unordered_map<std::uint32_t, std::size_t> _kept;  ///< by address
  std::array<std::optional<std::uint32_t>, 256> _chips;  ///< where each begins
  std::uint32_t _mapped = 0;                             ///< bytes of the device map, in 32 bits
};

void Parser::CheckName() {
  // The last piece between dots that has any letters.
  std::string_view extension = _file.name;
  extension = extension.substr(0, extension.find_last_not_of('.') + 1);
  extension.remove_prefix(extension.rfind('.') + 1);  // without a dot, npos + 1 is 0
  if (extension == "img" || extension == "IMG") return;
  if (extension == "bin" || extension == "BIN") {
    Refuse({"FW file type 'bin' not yet supported", false});
  } else {
    Refuse({"Bad FW file type (" + _file.name + "). Supported types: img, bin", false});
  }
}

std::size_t Parser::Take(std::string_view block, bool is_last) {
  std::size_t taken = 0;
  while (taken < block.size()) {
    const std::string_view rest = block.substr(taken);
    const std::string_view piece = rest.substr(0, LONGEST_PIECE);
    const std::size_t end = piece.find('\n');
    const bool has_end = end != std::string_view::npos;
    if (!has_end && !is_last && rest.size() == piece.size()) break;
    const std::string_view line = has_end ? piece.substr(0, end + 1) : piece;
    taken += line.size();
    TakeLine(line, !has_end && taken < block.size());
  }
  return taken;
}

ImageFile Parser::Finish() {
  if (_open != nullptr) {
    _listener.Remarked({RemarkKind::SECTION_NOT_CLOSED, _open->line, _open->name});
  }
  return std::move(_file);
}

void Parser::TakeLine(std::string_view line, bool is_cut) {
  ++_line;
  const bool is_rest = std::exchange(_is_rest, is_cut);
  if (is_cut && !is_rest) {
    Note(RemarkKind::LONG_LINE);
    _long_line = _line;
  }
  if (_open != nullptr && TakePlainData(line)) {
    if (is_rest) Note(RemarkKind::LONG_LINE_REST, {}, _long_line);
    return;
  }
  if (const std::size_t nul = line.find('\0'); nul != std::string_view::npos) {
    Note(RemarkKind::NUL);
    line = line.substr(0, nul);
  }
  const std::size_t first = line.find_first_not_of(" \t");
  if (first == std::string_view::npos || line[first] == '\n' || line[first] == '#') return;

  const WordList words = WordsOf(line);
  // Outside of sections the rest of a long line is ignored as any other that means nothing.
  if (is_rest && (_open != nullptr || Has(KEYWORDS, words[0]))) {
    Note(RemarkKind::LONG_LINE_REST, {}, _long_line);
  }
  if (_open == nullptr || !TakeInside(words)) TakeOutside(line, words);
}

bool Parser::TakePlainData(std::string_view line) {
  const std::size_t size = ReadPlainData(line, _bytes.data());
  if (size == 0 || size % WORD_SIZE != 0 || _open->End() + size > ADDRESS_SPACE) return false;
  Append(size);
  return true;
}

void Parser::Append(std::size_t size) {
  _open->size += size;
  if (_data != nullptr) _data->insert(_data->end(), _bytes.begin(), _bytes.begin() + size);
}

std::optional<Fault> Parser::ReadData(const WordList& words) {
  std::optional<Fault> fault;
  if (words.size() % WORD_SIZE != 0) {
    fault = {"Section data line must have multiple of 4 bytes."};
  }
  std::size_t size = 0;
  for (const std::string& word : words) {
    const auto number = NumberOf(word);
    if (number) {
      _bytes[size++] = static_cast<std::uint8_t>(*number);
      if (*number > 0xFF || IsCut(word)) Note(RemarkKind::DATA_CUT, word);
    } else if (!fault) {
      fault = {"Data byte (" + word + ") contains invalid characters"};
    }
  }
  if (!fault && _open->End() + size > ADDRESS_SPACE) {
    fault = {"Section (" + _open->name + ") reaches past the last address."};
  }
  return fault;
}

/// Takes a line inside a section. False where it is the end of the section that is missing before
/// it: then the line is yet to be taken.
bool Parser::TakeInside(const WordList& words) {
  if (words[0] == "END") {
    TakeEnd(words);
    return true;
  }
  const std::optional<Fault> fault = ReadData(words);
  if (!fault) {
    Append(words.size());
    return true;
  }
  _open->is_whole = false;
  // A keyword is never data. To go on as if the section ended before it tells more than to refuse
  // all that follows.
  if (Has(KEYWORDS, std::string_view(words[0]).substr(0, words[0].find('\t')))) {
    Refuse(*fault);
    _listener.Remarked({RemarkKind::SECTION_NOT_CLOSED, _open->line, _open->name, _line});
    _open = nullptr;
    return false;
  }
  if (++_refused_data <= TOLD_DATA_LINES) Refuse(*fault, _refused_data == TOLD_DATA_LINES);
  return true;
}

void Parser::TakeEnd(const WordList& words) {
  if (words.size() != 2) {
    Refuse({"Wrong END section format - Sector name expected."});
  } else if (words[1] != _open->name) {
    Refuse({"END Section name (" + words[1] + ") differs from start section name (" + _open->name +
            ")."});
  }
  _open->end_line = _line;
  _open = nullptr;
}

void Parser::TakeOutside(std::string_view line, const WordList& words) {
  // Of START alone the words end at any white space.
  constexpr std::string_view WHITE = " \t\n\v\f\r";
  const std::string_view text = line.substr(std::min(line.find_first_not_of(WHITE), line.size()));
  if (text.substr(0, text.find_first_of(WHITE)) == "START") {
    TakeStart(std::string(text));
    return;
  }
  if (const auto part = std::ranges::find(VERSIONS, words[0]); part != VERSIONS.end()) {
    TakeVersion(static_cast<std::size_t>(part - VERSIONS.begin()), words);
  } else if (std::ranges::find(DIRECTIVES, words[0], &DirectiveRow::keyword) != DIRECTIVES.end()) {
    TakeDirective(words);
  } else {
    TakeUnknown(line, words);
  }
}

void Parser::TakeStart(const std::string& line) {
  ++_file.parts;
  // The format is what scanf takes, so scanf it is.
  char name[LONGEST_PIECE + 1];
  unsigned offset = 0;
  unsigned device = 0;
  int offset_at = 0;
  int device_at = 0;
  int end = 0;
  const int found = std::sscanf(line.c_str(), "%*s %1023s %n%x %n%x%n", name, &offset_at, &offset,
                                &device_at, &device, &end);
  if (found != 3) {
    Refuse({"START line must give a name, an offset and a device."});
    OpenSection(found >= 1 ? name : "?", std::nullopt);
    return;
  }
  const auto word = [&line](int from, int to) {
    constexpr const char* WHITE = " \t\n\v\f\r";
    const std::string text =
        line.substr(static_cast<std::size_t>(from), static_cast<std::size_t>(to - from));
    return text.substr(0, text.find_first_of(WHITE));
  };
  const std::string offset_word = word(offset_at, device_at);
  const std::string device_word = word(device_at, static_cast<int>(line.size()));
  const ChipPlace place{static_cast<std::uint8_t>(device), offset};
  const auto addr = AddressOf(place);
  const std::size_t left = line.find_first_not_of(" \t\n\v\f\r", static_cast<std::size_t>(end));
  if (addr && left != std::string::npos) Note(RemarkKind::START_NOT_READ_WHOLE, {}, device);
  if (IsCut(offset_word)) Note(RemarkKind::OFFSET_CUT, offset_word);
  if (device > 0xFF || IsCut(device_word)) Note(RemarkKind::DEVICE_CUT, device_word, place.chip);
  _file.locations.push_back({_line, place, addr});
  if (!addr) Refuse(NotMapped(place.chip));
  OpenSection(name, addr);
}

void Parser::OpenSection(std::string name, std::optional<std::uint32_t> addr) {
  _data = nullptr;
  _refused_data = 0;
  SectionLines& section = _file.sections.emplace_back();
  section.name = std::move(name);
  section.line = _line;
  section.is_placed = section.is_whole = addr.has_value();
  _open = &section;
  if (!addr) return;
  section.addr = *addr;
  // Of two at one address the first keeps the place, and is burnt twice.
  Image& image = _file.image;
  const auto [known, is_new] = _kept.try_emplace(*addr, image.sections.size());
  image.order.push_back(known->second);
  if (!is_new) return;
  section.kept = known->second;
  image.sections.push_back({section.name, *addr, {}});
  _data = &image.sections.back().data;
}

void Parser::TakeVersion(std::size_t part, const WordList& words) {
  _file.version[part] = words.size() > 1 ? words[1] : "?";
  if (words.size() != 2) Note(RemarkKind::VERSION_WORDS);
}

ChipPlace Parser::PlaceOf(const std::string& offset_word, const std::string& device_word) {
  const auto offset = NumberOf(offset_word);
  if (!offset) throw Fault{"Error parsing offset (" + offset_word + ")."};
  const auto device = NumberOf(device_word);
  if (!device) throw Fault{"Error parsing dev addr (" + device_word + ")."};
  if (*device > 0xFF) throw Fault{"Device addr must be 8 bits (" + device_word + ")."};
  return {static_cast<std::uint8_t>(*device), *offset};
}

std::optional<std::uint32_t> Parser::AddressOf(ChipPlace place) const {
  if (_file.chips.empty() && place.chip == 0) return place.offset;
  const auto& begin = _chips[place.chip];
  if (!begin) return std::nullopt;
  return *begin + place.offset;
}

Fault Parser::NotMapped(std::uint8_t chip) const {
  return {"Can't convert dev/offset to address: No mapping for the given EE loaction  (" +
              HexOf(chip) + ":" + HexOf(_mapped) + ").",
          false};
}

std::vector<std::uint32_t> Parser::CheckDirective(const DirectiveRow& row,
                                                  const WordList& words) const {
  if (words.size() != row.words) {
    throw Fault{"'" + words[0] + "' directive must contain " + std::to_string(row.words) +
                "words."};
  }
  using enum Directive;
  const bool is_of_slot =
      row.directive == PS || row.directive == IMAGE || row.directive == SIGNATURE;
  if (is_of_slot && words[1] != "0" && words[1] != "1") {
    throw Fault{"'" + words[0] + "' directive - image index (" + words[1] +
                ") can be iether 0 or 1"};
  }
  if (row.directive == REPLACE && FindField(words[1]) == nullptr) {
    throw Fault{"Unknown replace field type '" + words[1] + "' ."};
  }
  std::vector<std::uint32_t> addrs;
  for (std::size_t at = row.at; addrs.size() < row.locations; at += 2) {
    const ChipPlace place = PlaceOf(words[at], words[at + 1]);
    const auto addr = row.directive == DEVMAP ? 0 : AddressOf(place);
    if (!addr) throw NotMapped(place.chip);
    addrs.push_back(*addr);
  }
  if (row.directive == SIGNATURE && _file.image.slots[words[1] == "1"].signature) {
    throw Fault{"Tried to set signature " + words[1] + " which is already set"};
  }
  return addrs;
}

void Parser::TakeDirective(const WordList& words) {
  const bool is_crc = words[0] == "REPLACE" && words.size() > 1 && words[1] == "CRC";
  const DirectiveRow& row =
      is_crc ? REPLACE_CRC : *std::ranges::find(DIRECTIVES, words[0], &DirectiveRow::keyword);
  std::vector<std::uint32_t> addrs;
  try {
    addrs = CheckDirective(row, words);
  } catch (const Fault& fault) {
    Refuse(fault);
    NoteLocations(words);
    return;
  }
  ++_file.parts;
  NoteLocations(words);
  Image& image = _file.image;
  switch (row.directive) {
    case Directive::REPLACE: {
      const Field field{FindField(words[1])->type, addrs[0]};
      if (field.type == FieldType::BSN && image.type != nullptr && !image.type->has_bsn) {
        Note(RemarkKind::BSN_IGNORED, image.type->keyword);
        return;
      }
      image.fields.push_back(field);
      _file.fields.push_back({field, _line});
      return;
    }
    case Directive::REPLACE_CRC: {
      // The second location is that of the last word.
      const CrcField crc{addrs[0], addrs[1] - addrs[0] + WORD_SIZE, addrs[2]};
      image.crcs.push_back(crc);
      _file.crcs.push_back({crc, _line});
      return;
    }
    case Directive::DEVICE_TYPE:
      if (_file.device_type_line != 0) {
        Note(RemarkKind::DEVICE_TYPE_TWICE, {}, _file.device_type_line);
      }
      image.type = FindDeviceType(words[1]);
      _file.device_type_word = words[1];
      _file.device_type_line = _line;
      return;
    case Directive::DEVMAP: {
      const ChipPlace place = PlaceOf(words[1], words[2]);
      const MappedChip mapped{place.chip, place.offset};
      if (!_chips[mapped.chip]) _chips[mapped.chip] = _mapped;
      image.map.push_back(mapped);
      _file.chips.push_back({mapped, _mapped, _line});
      _mapped += mapped.size;
      return;
    }
    case Directive::PS:
    case Directive::IMAGE:
    case Directive::SIGNATURE:
      TakeSlot(row, words, addrs[0]);
      return;
  }
}

void Parser::TakeSlot(const DirectiveRow& row, const WordList& words, std::uint32_t addr) {
  const std::size_t index = words[1] == "1" ? 1 : 0;
  const auto set = [&](std::optional<AddrLine>& line, std::optional<std::uint32_t>& in_image) {
    if (line) Note(RemarkKind::SLOT_TWICE, words[0] + " " + words[1], line->line);
    line = AddrLine{addr, _line};
    in_image = addr == UNSET_ADDR ? std::nullopt : std::optional(addr);
  };
  SlotLines& lines = _file.slots[index];
  Slot& slot = _file.image.slots[index];
  if (row.directive == Directive::PS) {
    set(lines.pointer_sector, slot.pointer_sector);
  } else if (row.directive == Directive::IMAGE) {
    set(lines.image, slot.image);
  } else {
    set(lines.signature, slot.signature);
    const Field field{FieldType::SIGNATURE, addr};
    _file.image.fields.push_back(field);
    _file.fields.push_back({field, _line});
  }
}

/// Notes the locations of a directive, refused or not, as far as its words can be read as some.
void Parser::NoteLocations(const WordList& words) {
  const auto has_keyword = [&](const DirectiveRow& row) {
    return row.keyword == words[0] && row.words == words.size();
  };
  const auto found = std::ranges::find_if(DIRECTIVES, has_keyword);
  if (found == DIRECTIVES.end() && !has_keyword(REPLACE_CRC)) return;
  const DirectiveRow& row = found == DIRECTIVES.end() ? REPLACE_CRC : *found;
  for (std::size_t at = row.at; at < row.at + 2 * row.locations; at += 2) {
    for (const std::size_t word : {at, at + 1}) {
      if (IsCut(words[word])) Note(RemarkKind::NUMBER_CUT, words[word]);
    }
    if (row.directive == Directive::DEVMAP) return;
    try {
      const ChipPlace place = PlaceOf(words[at], words[at + 1]);
      _file.locations.push_back({_line, place, AddressOf(place)});
    } catch (const Fault&) {
      // No location at all: the line is refused for it.
    }
  }
}

void Parser::TakeUnknown(std::string_view line, const WordList& words) {
  if (words[0] == "END") {
    Note(RemarkKind::STRAY_END);
  } else if (ReadPlainData(line, _bytes.data()) != 0) {
    if (_stray_line == 0 || _stray_line + 1 != _line) Note(RemarkKind::STRAY_DATA);
    _stray_line = _line;
  } else {
    Note(RemarkKind::UNKNOWN_DIRECTIVE, words[0]);
  }
}

void Parser::Refuse(const Fault& fault, bool has_more) {
  Refusal refusal{_line, fault.text, fault.text, has_more};
  if (fault.has_place) {
    refusal.message = _file.name + ":" + std::to_string(_line) + ": " + fault.text;
  }
  if (_file.refusal.empty()) _file.refusal = refusal.message;
  _listener.Refused(refusal);
}

/// An open file that is read block by block.
class OpenFile {
 public:
  explicit OpenFile(const std::string& path) : _path(path) {
    // Without waiting for whoever writes to a FIFO, which is refused right after.
    _fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (_fd < 0) ThrowCantOpen(std::strerror(errno));
    if (fstat(_fd, &_status) != 0 || !S_ISREG(_status.st_mode)) {
      close(_fd);
      // A device may never end.
      ThrowCantOpen(std::strerror(S_ISDIR(_status.st_mode) ? EISDIR : EOPNOTSUPP));
    }
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  ~OpenFile() { close(_fd); }

  /// Fills `block` as far as the file has bytes. Returns how many came.
  std::size_t Read(std::span<char> block) const {
    std::size_t size = 0;
    while (size < block.size()) {
      const ssize_t got = read(_fd, block.data() + size, block.size() - size);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) ThrowCantOpen(std::strerror(errno));
      if (got == 0) break;
      size += static_cast<std::size_t>(got);
    }
    return size;
  }

  /// Throws where the file was written to since it was opened: what was read may be half of one
  /// image and half of another.
  void CheckUnchanged() const {
    struct stat now {};
    if (fstat(_fd, &now) != 0) ThrowCantOpen(std::strerror(errno));
    if (now.st_size != _status.st_size || now.st_mtim.tv_sec != _status.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != _status.st_mtim.tv_nsec) {
      ThrowCantOpen("It was changed while it was read");
    }
  }

  [[noreturn]] void ThrowCantOpen(const char* reason) const {
    throw ImageError("Can't open file \"" + _path + "\" : " + reason);
  }

 private:
  std::string _path;
  int _fd;
  struct stat _status {};
};

void ReadAll(const OpenFile& file, Parser& parser) {
  constexpr std::size_t BLOCK = std::size_t{256} * 1024;
  std::vector<char> block(BLOCK);
  std::size_t kept = 0;  // of the block before: no whole line
  while (true) {
    const std::size_t got = file.Read(std::span(block).subspan(kept));
    const std::string_view text(block.data(), kept + got);
    const bool is_last = text.size() < block.size();
    const std::size_t taken = parser.Take(text, is_last);
    if (is_last) return;
    kept = text.size() - taken;
    std::copy_n(text.data() + taken, kept, block.data());
  }
}

/// Ends the reading at the first line that is refused, as the burner does.
class RefusalThrower : public ImageListener {
 public:
  void Refused(const Refusal& refusal) override { throw ImageError(refusal.message); }
  void Remarked(const Remark&) override {}
};

}  // namespace

const SectionLines* ImageFile::SectionAt(std::uint32_t addr) const {
  const auto found = std::ranges::find_if(sections, [addr](const SectionLines& section) {
    return section.kept && section.addr == addr;
  });
  return found == sections.end() ? nullptr : &*found;
}

std::vector<const SectionLines*> ImageFile::SlotSections() const {
  std::vector<const SectionLines*> kept(image.sections.size());
  for (const SectionLines& section : sections) {
    if (section.kept) kept[*section.kept] = &section;
  }
  std::vector<const SectionLines*> found;
  for (const Section* section : image.SlotSections()) {
    found.push_back(kept[static_cast<std::size_t>(section - image.sections.data())]);
  }
  return found;
}

View ImageFile::DataOf(const SectionLines& section) const {
  return section.kept ? View(image.sections[*section.kept].data) : View();
}

std::optional<Bytes> ImageFile::BytesAt(std::uint64_t addr, std::uint64_t size) const {
  Bytes bytes;
  while (bytes.size() < size) {
    const std::uint64_t at = addr + bytes.size();
    const auto found = std::ranges::find_if(sections, [at](const SectionLines& section) {
      return section.kept && section.is_whole && section.addr <= at && at < section.End();
    });
    if (found == sections.end()) return std::nullopt;
    const std::uint64_t count = std::min<std::uint64_t>(size - bytes.size(), found->End() - at);
    const View part = DataOf(*found).subspan(static_cast<std::size_t>(at - found->addr),
                                             static_cast<std::size_t>(count));
    bytes.insert(bytes.end(), part.begin(), part.end());
  }
  return bytes;
}

ImageFile ReadImageFile(const std::string& path, ImageListener& listener) {
  Parser parser(path, listener);
  parser.CheckName();
  const OpenFile file(path);
  try {
    ReadAll(file, parser);
  } catch (const ImageError&) {
    // Of a file that was changed meanwhile, what was refused may be no mistake of its author.
    file.CheckUnchanged();
    throw;
  } catch (const std::bad_alloc&) {
    file.ThrowCantOpen(std::strerror(ENOMEM));
  }
  file.CheckUnchanged();
  return parser.Finish();
}

ImageFile ParseImageFile(std::string_view text, const std::string& name, ImageListener& listener) {
  Parser parser(name, listener);
  parser.Take(text, true);
  return parser.Finish();
}

Image ReadImage(const std::string& path) {
  RefusalThrower thrower;
  return ReadImageFile(path, thrower).image;
}

Image ParseImage(std::string_view text, const std::string& name) {
  RefusalThrower thrower;
  return ParseImageFile(text, name, thrower).image;
}

std::span<const std::string_view> ImageKeywords() { return KEYWORDS; }

}  // namespace device
