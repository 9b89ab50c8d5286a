/// Image files, read without the burner: what a file says and on which lines, what the burner
/// refuses in it, and what it accepts without a message. Written apart from the burner's loader,
/// which it checks: both must take the same for the same. docs/image-format.md describes the
/// format.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "device/Image.h"

namespace device {

/// A line of an image file as the burner counts them: from 1, long ones cut. 0: the whole file.
using LineNumber = std::uint32_t;

/// The image cannot be had. The text is what the burner prints.
class ImageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A line that the burner refuses. The first of a file ends its load.
struct Refusal {
  LineNumber line = 0;    ///< 0: the file's name is refused
  std::string text;       ///< without file and line
  std::string message;    ///< as the burner prints it; some texts have no file and line
  bool has_more = false;  ///< further lines of data of this section may be refused, and not told
};

/// Lines that the burner accepts without a message but that are probably mistakes. The comment of
/// each says which of a Remark's `word` and `number` are set.
enum class RemarkKind {
  LONG_LINE,             ///< read as several lines
  LONG_LINE_REST,        ///< the rest of line `number` counts by itself
  NUL,                   ///< what follows it is not read
  DATA_CUT,              ///< `word` is more than a byte
  NUMBER_CUT,            ///< `word` is no number of 32 bits
  OFFSET_CUT,            ///< nor this offset of a START
  DEVICE_CUT,            ///< the device `word` of a START is cut to `number`
  START_NOT_READ_WHOLE,  ///< what follows its device, `number`, is not read
  SECTION_NOT_CLOSED,    ///< section `word` of this line has no END, at most until line `number`;
                         ///< 0: to the end of the file
  VERSION_WORDS,         ///< not one number
  DEVICE_TYPE_TWICE,     ///< replaces that of line `number`
  SLOT_TWICE,            ///< `word`, such as "PS 0", replaces that of line `number`
  BSN_IGNORED,           ///< a BSN; the device type `word` has none
  STRAY_DATA,            ///< outside of sections; one remark for lines that follow each other
  STRAY_END,
  UNKNOWN_DIRECTIVE,  ///< `word`, which may be misspelt
};

/// One such line.
struct Remark {
  RemarkKind kind;
  LineNumber line;
  std::string_view word;  ///< any bytes; valid during the call of the listener
  std::uint32_t number = 0;
};

/// Gets the refusals and remarks of a file, in the order of its lines; each line may have some. An
/// exception of its functions ends the reading, and its caller gets it.
class ImageListener {
 public:
  virtual ~ImageListener() = default;
  virtual void Refused(const Refusal& refusal) = 0;
  virtual void Remarked(const Remark& remark) = 0;
};

/// A section as its lines say.
struct SectionLines {
  std::string name;  ///< "?" where its START gives none
  LineNumber line = 0;
  LineNumber end_line = 0;  ///< 0 where none closes it
  std::uint32_t addr = 0;   ///< 0 unless it is placed
  std::uint64_t size = 0;   ///< bytes
  bool is_placed = true;    ///< false: its START is refused
  bool is_whole = true;     ///< false: that, or some of its lines are refused
  /// Which of the image's sections it is. None where it is not placed, or its address was taken
  /// before, and its bytes are dropped.
  std::optional<std::size_t> kept;

  std::uint64_t End() const { return addr + size; }
};

struct FieldLine : Field {
  LineNumber line;
};

struct CrcLine : CrcField {
  LineNumber line;
};

struct ChipLine : MappedChip {
  std::uint32_t addr;  ///< of its first byte, in 32 bits, as the burner has it
  LineNumber line;
};

/// An address that a directive gives.
struct AddrLine {
  std::uint32_t addr;
  LineNumber line;
};

/// The addresses of a slot as the directives give them: here FFFFFFFF is an address like any other,
/// in the image it means that there is none.
struct SlotLines {
  std::optional<AddrLine> image;
  std::optional<AddrLine> pointer_sector;
  std::optional<AddrLine> signature;
};

/// A location as a line gives it, and what it meant there.
struct LocationLine {
  LineNumber line;
  ChipPlace place;
  std::optional<std::uint32_t>
      addr;  ///< none where the map, as far as it had come, lacked the chip
};

/// An image file as its author sees it. Lines that are refused are left out of all but the lists of
/// sections and locations, so that the rest can be looked at: a directive as if it were not there,
/// an END as if it were right, a section that cannot be placed whole.
struct ImageFile {
  std::string name;     ///< of the file
  std::string refusal;  ///< what ends a burn of it while it loads; empty where it loads
  Image image;
  std::vector<SectionLines> sections;   ///< one for each START
  std::vector<FieldLine> fields;        ///< the image's
  std::vector<CrcLine> crcs;            ///< likewise
  std::vector<ChipLine> chips;          ///< the image's map
  std::array<SlotLines, SLOTS> slots;   ///< the last of each
  std::vector<LocationLine> locations;  ///< of all lines that give some, DEVMAP not included
  LineNumber device_type_line = 0;      ///< of the last DEVICE_TYPE; 0 where there is none
  std::string device_type_word;
  /// The words of MAJ_FW_VER, MIN_FW_VER and SUB_MIN_FW_VER; "?" where one has none.
  std::array<std::optional<std::string>, 3> version;
  /// START lines, and directives that are not refused, but for the version's.
  std::size_t parts = 0;

  /// The section that is kept at `addr`; null where there is none.
  const SectionLines* SectionAt(std::uint32_t addr) const;
  /// Those of Image::SlotSections.
  std::vector<const SectionLines*> SlotSections() const;
  /// The bytes of a section; none where it is not kept.
  View DataOf(const SectionLines& section) const;
  /// `size` bytes from `addr` on, across sections; nothing where whole sections lack some of them.
  std::optional<Bytes> BytesAt(std::uint64_t addr, std::uint64_t size) const;
};

/// Reads an image file to its end, whatever is refused in it. Throws ImageError where it cannot be
/// read.
ImageFile ReadImageFile(const std::string& path, ImageListener& listener);
/// The same from text in memory. `name`, which may be any, stands in messages.
ImageFile ParseImageFile(std::string_view text, const std::string& name, ImageListener& listener);

/// Reads an image file. Throws ImageError where the burner would refuse it.
Image ReadImage(const std::string& path);
/// The same from text in memory. `name`, which may be any, stands in messages.
Image ParseImage(std::string_view text, const std::string& name);

/// The words that begin a line which means something, END included.
std::span<const std::string_view> ImageKeywords();

}  // namespace device
