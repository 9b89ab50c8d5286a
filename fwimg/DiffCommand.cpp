/// fwimg diff: how two image files differ in what they mean.
#include <algorithm>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>

#include "fwimg/Commands.h"
#include "fwimg/ImageView.h"
#include "src/utils.h"

namespace tools {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t TOLD_RANGES = 16;  ///< of a section, in the text
constexpr std::size_t TOLD_BYTES = 16;   ///< of a range, in the text
/// Equal bytes between two ranges that differ which are told along with them: single equal bytes
/// would tear a change apart.
constexpr std::size_t BRIDGED = 3;

struct Options {
  std::string a;
  std::string b;
  bool as_json = false;
};

/// Is told each difference as it is found: there may be as many as bytes.
class Listener {
 public:
  virtual ~Listener() = default;
  /// No `text`: people are told in sum later. No `json`: this is for people only.
  virtual void Tell(const std::function<std::string()>& text,
                    const std::function<Json()>& json) = 0;
};

class Counter : public Listener {
 public:
  void Tell(const std::function<std::string()>&, const std::function<Json()>&) override {
    is_same = false;
  }
  bool is_same = true;
};

class TextPrinter : public Listener {
 public:
  void Tell(const std::function<std::string()>& text, const std::function<Json()>&) override {
    if (text) std::cout << text() << "\n";
  }
};

/// Elements of an array, a line each.
class JsonPrinter : public Listener {
 public:
  void Tell(const std::function<std::string()>&, const std::function<Json()>& json) override {
    if (!json) return;
    std::cout << (_is_first ? "\n    " : ",\n    ") << Dump(json());
    _is_first = false;
  }
  static std::string Dump(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
  }

 private:
  bool _is_first = true;
};

std::string HexBytes(std::span<const u_int8_t> bytes, std::size_t most = ~std::size_t{0}) {
  std::string text;
  for (const u_int8_t byte : bytes.first(std::min(most, bytes.size()))) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return bytes.size() > most ? text + "..." : text;
}

class Comparison {
 public:
  Comparison(const ImageView& a, const ImageView& b, Listener& listener)
      : _a(a), _b(b), _listener(listener) {}

  void Run() {
    const ImageView& a = _a;
    const ImageView& b = _b;
    CompareValue("device_type", "device type", Type(a), Type(b));
    CompareValue("firmware", "firmware version", a.FirmwareVersion(), b.FirmwareVersion());
    CompareValue("device_map", "device map", Map(a), Map(b));
    for (u_int32_t idx = 0; idx < FwImage::SLOTS; ++idx) {
      const SlotView& slot_a = a.Slots()[idx];
      const SlotView& slot_b = b.Slots()[idx];
      ComparePlace(Text("image_", idx), Text("IMAGE ", idx), slot_a.image, slot_b.image);
      ComparePlace(Text("pointer_sector_", idx), Text("PS ", idx), slot_a.ps, slot_b.ps);
      ComparePlace(Text("signature_", idx), Text("SIGNATURE ", idx), slot_a.signature,
                   slot_b.signature);
    }
    CompareSections();
    CompareLists("field", Fields(a), Fields(b));
    CompareLists("crc", Crcs(a), Crcs(b));
  }

 private:
  /// By its number: two keywords may name one type.
  static std::string Type(const ImageView& view) {
    const u_int32_t type = view.Image().DevType();
    return type == DEV_UNKNOWN ? "" : Text("RV", type);
  }

  static std::string Map(const ImageView& view) {
    std::string text;
    for (const MappedDevice& device : view.Devices()) {
      text += (text.empty() ? "" : " ") + HexText(device.dev) + ":" + HexText(device.size);
    }
    return text;
  }

  static std::vector<std::string> Fields(const ImageView& view) {
    std::vector<std::string> fields;
    for (const FieldView& field : view.Fields()) {
      fields.push_back(FieldKeyword(field.type) + " at " + HexText(field.from));
    }
    return fields;
  }

  static std::vector<std::string> Crcs(const ImageView& view) {
    std::vector<std::string> crcs;
    for (const CrcView& crc : view.Crcs()) {
      crcs.push_back("CRC at " + HexText(crc.crc_addr) + " over " + HexText(crc.from) + " to " +
                     HexText(crc.End()));
    }
    return crcs;
  }

  void CompareValue(const std::string& what, const std::string& label, const std::string& a,
                    const std::string& b) {
    if (a == b) return;
    const auto shown = [](const std::string& s) { return s.empty() ? "none" : Printable(s); };
    const auto value = [](const std::string& s) { return s.empty() ? Json(nullptr) : Json(s); };
    _listener.Tell([&] { return label + ": " + shown(a) + " / " + shown(b); },
                   [&] {
                     return Json{{"what", what}, {"a", value(a)}, {"b", value(b)}};
                   });
  }

  void ComparePlace(const std::string& what, const std::string& label,
                    const std::optional<MarkedAddr>& a, const std::optional<MarkedAddr>& b) {
    const auto text = [](const std::optional<MarkedAddr>& place) {
      return place ? HexText(place->addr) : std::string();
    };
    CompareValue(what, label, text(a), text(b));
  }

  void OnlyIn(const char* side, const std::string& what, const std::string& text) {
    _listener.Tell([&] { return Text("only in ", side, ": ", text); },
                   [&] {
                     return Json{{"what", what}, {"only_in", side}, {"text", text}};
                   });
  }

  void CompareLists(const std::string& what, std::vector<std::string> a,
                    std::vector<std::string> b) {
    std::ranges::sort(a);
    std::ranges::sort(b);
    std::vector<std::string> only;
    std::ranges::set_difference(a, b, std::back_inserter(only));
    for (const std::string& text : only) OnlyIn("a", what, text);
    only.clear();
    std::ranges::set_difference(b, a, std::back_inserter(only));
    for (const std::string& text : only) OnlyIn("b", what, text);
  }

  static std::string Describe(const SectionView& section) {
    return Text("section ", Printable(section.name), " at ", HexText(section.addr), ", ",
                section.size, " bytes");
  }

  void CompareSections() {
    std::vector<u_int32_t> order_a;
    std::vector<u_int32_t> order_b;
    for (const SectionView& section : _a.Sections()) {
      if (!section.is_kept) continue;
      const SectionView* other = _b.SectionAt(section.addr);
      if (other == nullptr) {
        OnlyIn("a", "section", Describe(section));
        continue;
      }
      order_a.push_back(section.addr);
      CompareValue("section_name", "name of the section at " + HexText(section.addr), section.name,
                   other->name);
      CompareBytes(section, *other);
    }
    for (const SectionView& section : _b.Sections()) {
      if (!section.is_kept) continue;
      if (_a.SectionAt(section.addr) == nullptr) {
        OnlyIn("b", "section", Describe(section));
      } else {
        order_b.push_back(section.addr);
      }
    }
    if (order_a != order_b) {
      _listener.Tell([] { return "order: the sections are burnt in another order"; },
                     [&] {
                       return Json{{"what", "order"}, {"a", order_a}, {"b", order_b}};
                     });
    }
  }

  void CompareBytes(const SectionView& a, const SectionView& b) {
    if (a.size != b.size) {
      _listener.Tell(
          [&] { return Text("size of ", Describe(a), ": ", b.size, " in b"); },
          [&] {
            return Json{
                {"what", "section_size"}, {"address", a.addr}, {"a", a.size}, {"b", b.size}};
          });
    }
    const std::size_t size = std::min(a.data.size(), b.data.size());
    std::size_t ranges = 0;
    std::size_t left_out = 0;
    for (std::size_t at = 0;;) {
      at = FirstDifference(a, b, at, size);
      if (at == size) break;
      std::size_t end = at + 1;
      for (std::size_t next = end; next < size && next <= end + BRIDGED; ++next) {
        if (a.data[next] != b.data[next]) end = next + 1;
      }
      const bool is_told = ++ranges <= TOLD_RANGES;
      if (!is_told) left_out += end - at;
      TellRange(a, b, at, end - at, is_told);
      at = end;
    }
    if (left_out > 0) {
      _listener.Tell(
          [&] {
            return Text("  and ", left_out, " bytes in ", ranges - TOLD_RANGES,
                        " more ranges of section ", Printable(a.name));
          },
          nullptr);
    }
  }

  static std::size_t FirstDifference(const SectionView& a, const SectionView& b, std::size_t at,
                                     std::size_t size) {
    const auto from = static_cast<std::ptrdiff_t>(at);
    const auto end = a.data.begin() + static_cast<std::ptrdiff_t>(size);
    const auto [found, ignored] = std::mismatch(a.data.begin() + from, end, b.data.begin() + from);
    return static_cast<std::size_t>(found - a.data.begin());
  }

  void TellRange(const SectionView& a, const SectionView& b, std::size_t at, std::size_t size,
                 bool in_text) {
    const auto bytes_a = a.data.subspan(at, size);
    const auto bytes_b = b.data.subspan(at, size);
    const auto text = [&] {
      return Text("bytes ", HexText(a.addr + at), " to ", HexText(a.addr + at + size), " of ",
                  Printable(a.name), ": ", HexBytes(bytes_a, TOLD_BYTES), " / ",
                  HexBytes(bytes_b, TOLD_BYTES));
    };
    const auto json = [&] {
      return Json{{"what", "bytes"}, {"section", a.name},      {"address", a.addr + at},
                  {"size", size},    {"a", HexBytes(bytes_a)}, {"b", HexBytes(bytes_b)}};
    };
    if (in_text) {
      _listener.Tell(text, json);
    } else {
      _listener.Tell(nullptr, json);
    }
  }

  const ImageView& _a;
  const ImageView& _b;
  Listener& _listener;
};

int Run(const Options& options) {
  const ImageView a(options.a);
  a.RequireImage();
  const ImageView b(options.b);
  b.RequireImage();
  Counter counter;
  Comparison(a, b, counter).Run();
  if (options.as_json) {
    const auto member = [](const char* name, const Json& value) {
      std::cout << "  \"" << name << "\": " << JsonPrinter::Dump(value) << ",\n";
    };
    std::cout << "{\n";
    member("version", 1);
    member("command", "diff");
    member("a", options.a);
    member("b", options.b);
    member("same", counter.is_same);
    std::cout << "  \"differences\": [";
    JsonPrinter printer;
    Comparison(a, b, printer).Run();
    std::cout << (counter.is_same ? "]\n}\n" : "\n  ]\n}\n");
  } else {
    std::cout << "a: " << Printable(options.a) << "\nb: " << Printable(options.b) << "\n";
    TextPrinter printer;
    Comparison(a, b, printer).Run();
    if (counter.is_same) std::cout << "They mean the same.\n";
  }
  return counter.is_same ? ALL_WELL : DIFFERS;
}

}  // namespace

void AddDiff(CommandLine& program) {
  const auto options = std::make_shared<Options>();
  CommandLine& command =
      program.AddCommand("diff", "Tells how two image files differ in what they mean");
  command.Add("A", options->a, "Image file").Required();
  command.Add("B", options->b, "Image file").Required();
  command.AddFlag("--json", options->as_json, "Prints one JSON object");
  command.SetWork(Told([options] { return Run(*options); }));
}

}  // namespace tools
