#include "fwimg/LayoutFile.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "common/Files.h"
#include "common/TomlReader.h"
#include "fwimg/Names.h"

namespace fwimg {

namespace {

namespace fs = std::filesystem;
using common::HexDigit;
using common::TomlReader;

constexpr std::uint32_t ANY_NUMBER = std::numeric_limits<std::uint32_t>::max();
/// Bytes of all sections: more than any memory that is burnt with these images, and no more than
/// can be held. Likewise of a raw file.
constexpr std::uint32_t MAX_SIZE = std::uint32_t{1} << 30;

/// A place: fixed, or counted from where each slot begins.
struct Place {
  using Base = std::optional<std::uint32_t> device::Slot::*;

  Base base = nullptr;       ///< null: fixed
  std::uint32_t offset = 0;  ///< from the base; a linear address where fixed
};

class LayoutReader {
 public:
  LayoutReader(const fs::path& parts, Layout& layout) : _parts(parts), _layout(layout) {}

  void Read(TomlReader reader, LayoutKind kind) {
    _layout.title = ReadTitle(reader);
    ReadDeviceType(reader);
    _layout.sector_size =
        reader.Number("sector_size", 4, MAX_SECTOR_SIZE).value_or(USUAL_SECTOR_SIZE);
    ReadVersion(reader);
    for (TomlReader& device : reader.Tables("devmap")) ReadDevice(device);
    // The slots before the fields, which may be placed by them, wherever they stand.
    std::vector<TomlReader> slots = reader.Tables("slot");
    if (slots.size() > device::SLOTS) slots.back().Throw("an image has two slots at most");
    for (std::size_t i = 0; i < slots.size(); ++i) ReadSlot(slots[i], _layout.slots[i]);
    std::vector<TomlReader> sections = reader.Tables("section");
    if (kind == LayoutKind::WITHOUT_SECTIONS && !sections.empty()) {
      sections[0].Throw("no [[section]] here: the bytes come from the file that is converted");
    }
    if (kind == LayoutKind::WHOLE && sections.empty()) reader.Throw("no [[section]]");
    for (TomlReader& section : sections) ReadSection(section);
    for (TomlReader& field : reader.Tables("field")) ReadField(field);
    for (TomlReader& crc : reader.Tables("crc")) ReadCrc(crc);
    reader.Finish();
  }

 private:
  static std::string ReadTitle(TomlReader& reader) {
    // The loader reads longer lines as several, and would take what is behind for a directive.
    constexpr std::size_t LONGEST_LINE = 200;
    std::string title = reader.String("title").value_or("");
    std::size_t length = 0;
    for (const char c : title) {
      length = c == '\n' ? 0 : length + 1;
      if ((static_cast<unsigned char>(c) < ' ' && c != '\n') || length > LONGEST_LINE) {
        reader.ThrowAt("title", Text("'title' must be lines of at most ", LONGEST_LINE,
                                     " characters, without control characters"));
      }
    }
    return title;
  }

  void ReadDeviceType(TomlReader& reader) {
    const std::string type = reader.Needed("device_type", reader.String("device_type"));
    if (device::FindDeviceType(type) == nullptr) {
      reader.ThrowAt("device_type", "'device_type' is no known device: " + type);
    }
    _layout.device_type = type;
    _layout.device_type_line = reader.LineOf("device_type");
  }

  void ReadVersion(TomlReader& reader) {
    std::optional<TomlReader> version = reader.Table("version");
    if (!version) return;
    const auto number = [&](std::string_view key) {
      return version->Number(key, 0, ANY_NUMBER).value_or(0);
    };
    _layout.version = Layout::Version{number("major"), number("minor"), number("sub_minor")};
    version->Finish();
  }

  void ReadDevice(TomlReader& reader) {
    const std::uint32_t dev = reader.Needed("device", reader.Number("device", 0, 0xFF));
    const std::uint32_t size = reader.Needed("size", reader.Number("size", 4, ANY_NUMBER));
    reader.Finish();
    std::uint64_t total = size;
    for (const device::MappedChip& other : _layout.map) {
      if (other.chip == dev) reader.Throw(Text("device 0x", std::hex, dev, " is mapped already"));
      total += other.size;
    }
    if (total > ANY_NUMBER) reader.Throw("all devices together must have less than 4 GiB");
    _layout.map.push_back({static_cast<std::uint8_t>(dev), size});
  }

  void ReadSlot(TomlReader& reader, Layout::Slot& slot) {
    slot.line = reader.Line();
    slot.pointer_sector = FixedPlace(reader, "ps");
    slot.signature = FixedPlace(reader, "signature");
    slot.image = FixedPlace(reader, "image");
    reader.Finish();
  }

  void ReadSection(TomlReader& reader) {
    Layout::Section& section = _layout.sections.emplace_back();
    section.line = reader.Line();
    section.name = reader.Needed("name", reader.String("name"));
    section.addr = reader.Needed("at", FixedPlace(reader, "at"));
    section.has_boot_record = reader.Bool("boot_record").value_or(false);
    const std::optional<std::uint32_t> pad = reader.Number("pad", 0, 0xFF);
    std::vector<TomlReader> pieces = reader.Tables("content");
    if (pieces.empty()) {
      AppendPiece(reader, section.data);
    } else {
      for (TomlReader& piece : pieces) {
        AppendPiece(piece, section.data);
        piece.Finish();
      }
    }
    reader.Finish();
    if (pad && section.data.size() % 4 != 0) {
      section.data.resize((section.data.size() + 3) / 4 * 4, static_cast<std::uint8_t>(*pad));
    }
  }

  /// Refuses `size` bytes more than there may be, before they are held.
  void Count(const TomlReader& reader, std::uint64_t size) {
    if (size > MAX_SIZE - _total) reader.Throw("all sections together have 1 GiB at most");
    _total += static_cast<std::uint32_t>(size);
  }

  void AppendPiece(TomlReader& reader, Bytes& data) {
    const auto file = reader.String("file");
    const auto hex = reader.String("hex");
    const auto fill = reader.Number("fill", 0, 0xFF);
    if (int{file.has_value()} + int{hex.has_value()} + int{fill.has_value()} != 1) {
      reader.Throw(
          "the bytes of a section come from one of 'file', 'hex' and 'fill', or from a "
          "'content' of several");
    }
    if (file) {
      AppendFile(reader, _parts / *file, data);
    } else if (hex) {
      AppendHex(reader, *hex, data);
    } else {
      const std::uint32_t size = reader.Needed("size", reader.Number("size", 1, MAX_SIZE));
      Count(reader, size);
      data.insert(data.end(), size, static_cast<std::uint8_t>(*fill));
    }
  }

  void AppendFile(TomlReader& reader, const fs::path& path, Bytes& data) {
    const std::size_t from = reader.Number("from", 0, ANY_NUMBER).value_or(0);
    const std::optional<std::uint32_t> size = reader.Number("size", 1, MAX_SIZE);
    _layout.parts.push_back(path);
    Bytes bytes;
    std::error_code unreadable;  // which ReadFile tells
    if (const auto all = fs::file_size(path, unreadable); !unreadable && all > MAX_SIZE) {
      reader.ThrowAt("file", path.string() + " has more than 1 GiB");
    }
    try {
      bytes = common::ReadFile(path);
    } catch (const std::runtime_error& error) {
      reader.ThrowAt("file", error.what());
    }
    const std::size_t wanted = size.value_or(0);
    if (from > bytes.size() || wanted > bytes.size() - from) {
      reader.Throw(Text(path.string(), " has only ", bytes.size(), " bytes"));
    }
    Count(reader, size ? wanted : bytes.size() - from);
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(from);
    data.insert(data.end(), begin,
                size ? begin + static_cast<std::ptrdiff_t>(wanted) : bytes.end());
  }

  void AppendHex(TomlReader& reader, const std::string& digits, Bytes& data) {
    const std::size_t before = data.size();
    for (const std::string_view group : common::Words(digits, " \n\t")) {
      for (std::size_t i = 0; i < group.size(); i += 2) {
        const auto high = HexDigit(group[i]);
        const auto low = i + 1 < group.size() ? HexDigit(group[i + 1]) : std::nullopt;
        if (!high || !low) {
          reader.ThrowAt("hex",
                         Text("'hex' must have two hexadecimal digits for each byte: ", group));
        }
        data.push_back(static_cast<std::uint8_t>(*high << 4 | *low));
      }
    }
    Count(reader, data.size() - before);
  }

  void ReadField(TomlReader& reader) {
    const std::string keyword = reader.Needed("type", reader.String("type"));
    const device::FieldRow* row = device::FindField(keyword);
    if (row == nullptr) reader.ThrowAt("type", "'type' is no known field: " + keyword);
    if (row->type == device::FieldType::SIGNATURE) {
      reader.ThrowAt("type", "a signature is placed by the 'signature' of its [[slot]]");
    }
    const Place at = reader.Needed("at", ReadPlace(reader, "at"));
    reader.Finish();
    ForEachSlot(reader, at.base, [&](const Layout::Slot* slot) {
      _layout.fields.push_back({{row->type, Resolve(reader, at, slot)}, reader.Line()});
    });
  }

  void ReadCrc(TomlReader& reader) {
    const Place from = reader.Needed("from", ReadPlace(reader, "from"));
    const std::uint32_t size = reader.Needed("size", reader.Number("size", 4, MAX_SIZE));
    const Place at = reader.Needed("at", ReadPlace(reader, "at"));
    const bool is_filled = reader.Bool("fill").value_or(false);
    reader.Finish();
    if (size % 4 != 0) reader.Throw("'size' must be whole words of 4 bytes");
    if (from.base != at.base) reader.Throw("'from' and 'at' must be given in the same way");
    ForEachSlot(reader, from.base, [&](const Layout::Slot* slot) {
      _layout.crcs.push_back({{Resolve(reader, from, slot), size, Resolve(reader, at, slot)},
                              is_filled,
                              reader.Line()});
    });
  }

  /// Calls `add` for each slot that has the base, or once where there is none to have.
  template <typename Add>
  void ForEachSlot(const TomlReader& reader, Place::Base base, const Add& add) const {
    if (base == nullptr) return add(nullptr);
    bool is_placed = false;
    for (const Layout::Slot& slot : _layout.slots) {
      if (!(slot.*base)) continue;
      add(&slot);
      is_placed = true;
    }
    if (!is_placed) reader.Throw("no [[slot]] has what this is counted from");
  }

  static std::uint32_t Resolve(const TomlReader& reader, const Place& place,
                               const Layout::Slot* slot) {
    const std::uint64_t addr =
        std::uint64_t{place.offset} + (slot != nullptr ? *(slot->*place.base) : 0);
    if (addr > ANY_NUMBER) reader.Throw("this lies past the last address");
    return static_cast<std::uint32_t>(addr);
  }

  std::optional<std::uint32_t> FixedPlace(TomlReader& reader, std::string_view key) const {
    const std::optional<Place> place = ReadPlace(reader, key);
    if (!place) return {};
    if (place->base != nullptr) {
      reader.ThrowAt(key,
                     Text("'", key, "' must be a fixed place: a number or { device, offset }"));
    }
    return place->offset;
  }

  /// A number, which is an offset in device 0, or a table.
  std::optional<Place> ReadPlace(TomlReader& reader, std::string_view key) const {
    if (!reader.Any(key)) return {};
    if (!reader.IsTable(key)) {
      const std::optional<std::uint32_t> offset = reader.Number(key, 0, ANY_NUMBER);
      return Place{.offset = Linear(reader, key, 0, *offset)};
    }
    TomlReader table = *reader.Table(key);
    const auto ps = table.Number("ps", 0, ANY_NUMBER);
    const auto image = table.Number("image", 0, ANY_NUMBER);
    const auto device = table.Number("device", 0, 0xFF);
    const auto offset = table.Number("offset", 0, ANY_NUMBER);
    table.Finish();
    if (int{ps.has_value()} + int{image.has_value()} + int{offset.has_value()} != 1 ||
        (device && !offset)) {
      table.Throw("a place is { device = D, offset = N }, { ps = N }, { image = N }, or a number");
    }
    if (ps) return Place{&device::Slot::pointer_sector, *ps};
    if (image) return Place{&device::Slot::image, *image};
    return Place{.offset =
                     Linear(reader, key, static_cast<std::uint8_t>(device.value_or(0)), *offset)};
  }

  std::uint32_t Linear(const TomlReader& reader, std::string_view key, std::uint8_t dev,
                       std::uint32_t offset) const {
    if (_layout.map.empty() && dev == 0) return offset;
    std::uint32_t base = 0;
    for (const device::MappedChip& mapped : _layout.map) {
      if (mapped.chip != dev) {
        base += mapped.size;
        continue;
      }
      // The loader would take it for a place in the device behind.
      if (offset >= mapped.size) {
        reader.ThrowAt(key, Text("device 0x", std::hex, std::uint32_t{dev}, " has only 0x",
                                 mapped.size, " bytes"));
      }
      return base + offset;
    }
    reader.ThrowAt(key, Text("[[devmap]] has no device 0x", std::hex, std::uint32_t{dev}));
  }

  const fs::path& _parts;
  Layout& _layout;
  std::uint32_t _total = 0;  ///< bytes of all sections so far
};

}  // namespace

Layout ReadLayout(const fs::path& file, const fs::path& parts, LayoutKind kind) {
  Layout layout;
  layout.file = file;
  try {
    LayoutReader(parts, layout).Read(TomlReader(file), kind);
  } catch (const common::TomlError& error) {
    throw LayoutError(error.what());
  }
  return layout;
}

}  // namespace fwimg
