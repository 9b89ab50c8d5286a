/// An image file as its author sees it: what the loader takes from it, and on which lines; what it
/// refuses, all of it and not just the first; and what it takes without a word.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/Text.h"
#include "fwimg/ProblemKinds.h"
#include "src/FwImage.h"

namespace tools {

using common::ByteCountCheck;
using common::HexText;
using common::ParseByteCount;
using common::Printable;

struct SectionView {
  std::string name;
  LineNumber line = 0;
  LineNumber end_line = 0;  ///< 0 where none closes it
  u_int32_t addr = 0;
  u_int32_t size = 0;     ///< bytes
  bool is_placed = true;  ///< false: its START is refused
  bool is_kept =
      true;  ///< false: that, or one before it has the same address, and its data is dropped
  bool is_whole = true;            ///< false: some of its lines are refused
  std::span<const u_int8_t> data;  ///< empty unless it is kept

  u_int64_t End() const { return u_int64_t{addr} + size; }
};

struct FieldView : FwImage::FieldReplace {
  LineNumber line;
};

struct CrcView : FwImage::CrcReplace {
  LineNumber line;

  u_int64_t End() const { return u_int64_t{from} + size; }
};

struct MappedDevice {
  u_int32_t addr;  ///< of its first byte, in 32 bits, as the loader has it
  u_int32_t size;  ///< bytes
  u_int8_t dev;
  LineNumber line;
};

/// An address that a directive gives.
struct MarkedAddr {
  u_int32_t addr;
  LineNumber line;
};

struct SlotView {
  std::optional<MarkedAddr> ps;
  std::optional<MarkedAddr> image;
  std::optional<MarkedAddr> signature;
};

/// A location as a line gives it, and what it meant there.
struct Location {
  LineNumber line;
  EeLoc loc;
  std::optional<u_int32_t> addr;  ///< none where the map, as far as it had come, lacked the device
};

/// Made once; owns what its members point to. Everything that a line means is asked of FwImage.
class ImageView {
 public:
  /// Throws BraidError when the file cannot be read or kept, or has more parts than could be told
  /// apart; a bad file gives refusals instead.
  explicit ImageView(const std::string& path);
  ImageView(const ImageView&) = delete;
  ImageView& operator=(const ImageView&) = delete;

  const std::string& Path() const { return _path; }

  /// What ends a burn of this file while it loads, as fwpush prints it; "" where it loads.
  const std::string& Refusal() const { return _refusal; }
  /// The loader's image. Where it refuses the file, the image without the refused lines, so that
  /// the rest can be looked at. Its lists change in a burn, not here.
  const FwImage& Image() const { return *_image; }
  const FwImage::Conv& Map() const;

  /// In file order, those whose data is dropped included.
  const std::vector<SectionView>& Sections() const { return _sections; }
  /// The one that the loader has at `addr`, or null.
  const SectionView* SectionAt(u_int32_t addr) const;
  /// In file order, those that a SIGNATURE directive marks included.
  const std::vector<FieldView>& Fields() const { return _fields; }
  const std::vector<CrcView>& Crcs() const { return _crcs; }
  const std::vector<MappedDevice>& Devices() const { return _devices; }
  const std::array<SlotView, FwImage::SLOTS>& Slots() const { return _slots; }
  const std::vector<Location>& Locations() const { return _locations; }
  /// The line of DEVICE_TYPE, the last where there are several; 0 where there is none.
  LineNumber DeviceTypeLine() const { return _device_type_line; }
  /// The word of DEVICE_TYPE.
  const std::string& DeviceTypeWord() const { return _device_type_word; }
  /// "1.2.0", the parts that are missing as "?"; "" where no version is given.
  std::string FirmwareVersion() const;
  /// What is odd about single lines, without a look at others.
  const LineFindings& Findings() const { return _findings; }
  /// Throws BraidError where the loader refuses the file, or no line of it means anything to the
  /// loader: it is of some other kind then.
  void RequireImage() const;

  Family DeviceFamily() const { return _family; }
  /// Whether each slot has what its family looks at: the addresses, and a first section.
  bool HasSlots() const;
  /// The sections that a failsafe burn puts into either slot, in burn order; none where HasSlots is
  /// false.
  std::vector<const SectionView*> ImageSections() const;
  /// How many bytes a slot takes, gaps included.
  u_int64_t ImageExtent() const;

  /// `size` bytes from `addr` on, across sections; none where sections lack some of them.
  std::optional<DataVec> Bytes(u_int64_t addr, u_int64_t size) const;
  /// False where every burn of this device type leaves a field's bytes as the image has them.
  bool IsReplaced(const FwImage::FieldReplace& field) const;

 private:
  /// Something to be left out of the text, or put in, so that the loader takes the rest.
  struct Edit {
    std::size_t from;
    std::size_t size;
    std::string instead;
  };
  struct LineAt {
    std::string_view text;  ///< up to a NUL
    std::size_t from;       ///< in the file
    std::size_t size;       ///< in the file
  };

  void Scan(std::string_view text);
  void ScanOutside(const LineAt& line);
  /// False when the line only makes sense outside a section.
  bool ScanInside(const LineAt& line);
  void Directive(const std::vector<std::string>& words, const LineAt& line);
  void Accepted(const std::vector<std::string>& words);
  void NoteLocations(const std::vector<std::string>& words);
  void NoteUnknown(const std::vector<std::string>& words, const LineAt& line);
  std::optional<u_int32_t> NoteLocation(const EeLoc& loc);
  void OpenSection(const LineAt& line);
  /// `end`: where what belongs to it ends in the file.
  void CloseSection(std::size_t end);
  void Refuse(const std::string& text, const LineAt& line, std::string instead = {});
  /// What the loader says to a line inside the open section.
  std::string AskLoader(std::string_view line) const;
  void Note(ProblemId kind, std::string text) { _findings.Add(kind, _line, std::move(text)); }
  void NoteRestOfLongLine(const LineAt& line);
  /// A device map that is as short as can be, and in which the loader finds `dev` where it is.
  std::string MapFor(u_int32_t dev) const;
  void CountPlace();
  void LoadRest(std::string_view text);
  void TakeData();

  std::string _path;
  std::string _refusal;
  std::unique_ptr<FwImage> _image;
  Family _family = Family::UNKNOWN;
  FwImage _directives;  ///< takes one directive after the other
  LineNumber _line = 0;
  SectionView* _open = nullptr;
  LineNumber _stray_line = 0;   ///< the last line of data outside sections
  LineNumber _long_line = 0;    ///< the last line that was cut, where it began
  u_int32_t _refused_data = 0;  ///< lines of the open section
  std::vector<SectionView> _sections;
  std::vector<FieldView> _fields;
  std::vector<CrcView> _crcs;
  std::vector<MappedDevice> _devices;
  std::array<SlotView, FwImage::SLOTS> _slots;
  std::vector<Location> _locations;
  LineNumber _device_type_line = 0;
  std::string _device_type_word;
  std::array<std::string, 3> _version;
  LineFindings _findings;
  u_int32_t _places = 0;                       ///< sections, fields, CRCs and mapped devices
  std::map<u_int32_t, std::size_t> _by_addr;   ///< of the sections that are kept
  u_int32_t _mapped = 0;                       ///< bytes of the device map, in 32 bits
  std::map<u_int8_t, std::size_t> _by_device;  ///< the first entry of each in the device map
  std::vector<Edit> _edits;                    ///< ascending
  std::optional<std::size_t> _drop_from;  ///< the START of an open section that cannot be placed
  std::size_t _edits_before_drop = 0;
};

/// The keyword of a field type, as the image file has it.
std::string FieldKeyword(FieldType type);

}  // namespace tools
