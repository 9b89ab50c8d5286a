/// fwimg diff: compares what two image files burn.
#include <algorithm>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <numeric>

#include "common/Json.h"
#include "common/OutputFile.h"
#include "fwimg/BurnComparison.h"
#include "fwimg/CheckTarget.h"
#include "fwimg/Commands.h"
#include "fwimg/ImageFacts.h"
#include "fwimg/ImageSource.h"
#include "fwimg/Layout.h"
#include "fwimg/Names.h"

namespace fwimg {

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
  std::string sector_size = common::HexText(USUAL_SECTOR_SIZE);
  bool as_json = false;
};

/// Is told each difference as it is found: there may be as many as bytes.
class Listener {
 public:
  virtual ~Listener() = default;
  /// No `text`: people are told in sum later. No `json`: this is for people only.
  virtual void Report(const std::function<std::string()>& text,
                      const std::function<Json()>& json) = 0;
};

class Counter : public Listener {
 public:
  void Report(const std::function<std::string()>&, const std::function<Json()>&) override {
    is_same = false;
  }
  bool is_same = true;
};

class TextPrinter : public Listener {
 public:
  void Report(const std::function<std::string()>& text, const std::function<Json()>&) override {
    if (text) std::cout << text() << "\n";
  }
};

/// Elements of an array, a line each.
class JsonPrinter : public Listener {
 public:
  void Report(const std::function<std::string()>&, const std::function<Json()>& json) override {
    if (!json) return;
    std::cout << (_is_first ? "\n    " : ",\n    ") << Dump(json());
    _is_first = false;
  }
  static std::string Dump(const Json& json) { return common::DumpJson(json, -1); }

 private:
  bool _is_first = true;
};

/// The first `most` of the bytes, and "..." where there are more.
std::string FirstBytes(std::span<const std::uint8_t> bytes, std::size_t most) {
  if (bytes.size() <= most) return common::HexBytes(bytes);
  return common::HexBytes(bytes.first(most)) + "...";
}

class Comparison : private BurnListener {
 public:
  Comparison(const ImageFile& a, const ImageFile& b, std::uint32_t sector_size, Listener& listener)
      : _a(a), _b(b), _sector_size(sector_size), _listener(listener) {}

  void Run() {
    const ImageFile& a = _a;
    const ImageFile& b = _b;
    CompareValue("device_type", "device type", Type(a), Type(b));
    CompareValue("firmware", "firmware version", FirmwareVersion(a), FirmwareVersion(b));
    CompareValue("device_map", "device map", Map(a), Map(b));
    for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
      const SlotLines& slot_a = a.slots[idx];
      const SlotLines& slot_b = b.slots[idx];
      ComparePlace(Text("image_", idx), Text("IMAGE ", idx), slot_a.image, slot_b.image);
      ComparePlace(Text("pointer_sector_", idx), Text("PS ", idx), slot_a.pointer_sector,
                   slot_b.pointer_sector);
      ComparePlace(Text("signature_", idx), Text("SIGNATURE ", idx), slot_a.signature,
                   slot_b.signature);
    }
    CompareSections();
    CompareLists("field", Fields(a), Fields(b));
    CompareLists("crc", Crcs(a), Crcs(b));
    const auto order = [](const ImageFile& file) {
      return std::pair(Overlapping(file.fields, Fields(file), &FieldLine::addr, &FieldLine::Size),
                       Overlapping(file.crcs, Crcs(file), &CrcLine::addr,
                                   [](const CrcLine&) { return WORD_SIZE; }));
    };
    if (_are_parts_same) CompareOrders(order(a), order(b));
    if (_are_parts_same && _is_order_other && a.image.type != nullptr) {
      CompareBurns(a.image, b.image, _sector_size, *this);
    }
  }

 private:
  /// Of fields, and of CRCs: those that lie on each other, in words, in the order in which a burn
  /// writes them.
  using Orders = std::pair<std::vector<std::string>, std::vector<std::string>>;

  /// The texts of the items that share bytes with another one, in file order.
  template <typename Item>
  static std::vector<std::string> Overlapping(const std::vector<Item>& items,
                                              const std::vector<std::string>& texts,
                                              const auto& addr_of, const auto& size_of) {
    std::vector<std::size_t> by_addr(items.size());
    std::iota(by_addr.begin(), by_addr.end(), std::size_t{0});
    const auto addr = [&](std::size_t i) { return std::invoke(addr_of, items[i]); };
    const auto end = [&](std::size_t i) {
      return addr(i) + std::uint64_t{std::invoke(size_of, items[i])};
    };
    std::ranges::stable_sort(by_addr, {}, addr);
    std::vector<bool> overlaps(items.size());
    for (std::size_t i = 0, furthest = 0; i < by_addr.size(); ++i) {
      if (i > 0 && addr(by_addr[i]) < end(by_addr[furthest])) {
        overlaps[by_addr[i]] = overlaps[by_addr[furthest]] = true;
      }
      if (end(by_addr[i]) > end(by_addr[furthest])) furthest = i;
    }
    std::vector<std::string> found;
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (overlaps[i]) found.push_back(texts[i]);
    }
    return found;
  }

  void CompareOrders(const Orders& a, const Orders& b) {
    const auto tell = [&](const char* what, const std::vector<std::string>& in_a,
                          const std::vector<std::string>& in_b) {
      if (in_a == in_b) return;
      _is_order_other = true;
      _listener.Report(
          [&] {
            return Text("order: ", what, "s that lie on each other are written in another order");
          },
          [&] {
            return Json{{"what", Text(what, "_order")}, {"a", in_a}, {"b", in_b}};
          });
    };
    tell("field", a.first, b.first);
    tell("crc", a.second, b.second);
  }

  void Ends(const std::string& burn, const std::string& a, const std::string& b) override {
    const auto shown = [](const std::string& s) { return s.empty() ? "none" : Printable(s); };
    const auto value = [](const std::string& s) { return s.empty() ? Json(nullptr) : Json(s); };
    _listener.Report(
        [&] { return "what ends " + burn + ": " + shown(a) + " / " + shown(b); },
        [&] {
          return Json{{"what", "burn_ends"}, {"burn", burn}, {"a", value(a)}, {"b", value(b)}};
        });
  }

  void Leaves(const std::string& burn, std::uint64_t addr, View a, View b) override {
    CompareRanges(a, b, "what " + burn + " leaves",
                  [&](std::size_t at, View bytes_a, View bytes_b, bool in_text) {
                    TellRange({{"what", "burnt"}, {"burn", burn}}, " after " + burn, addr + at,
                              bytes_a, bytes_b, in_text);
                  });
  }

  /// By its number: two keywords may name one type.
  static std::string Type(const ImageFile& file) {
    const device::DeviceType* type = file.image.type;
    return type == nullptr ? "" : Text("RV", type->number);
  }

  static std::string Map(const ImageFile& file) {
    std::string text;
    for (const ChipLine& chip : file.chips) {
      text += (text.empty() ? "" : " ") + HexText(chip.chip) + ":" + HexText(chip.size);
    }
    return text;
  }

  static std::vector<std::string> Fields(const ImageFile& file) {
    std::vector<std::string> fields;
    for (const FieldLine& field : file.fields) {
      fields.push_back(std::string(device::RowOf(field.type).keyword) + " at " +
                       HexText(field.addr));
    }
    return fields;
  }

  static std::vector<std::string> Crcs(const ImageFile& file) {
    std::vector<std::string> crcs;
    for (const CrcLine& crc : file.crcs) {
      crcs.push_back("CRC at " + HexText(crc.addr) + " over " + HexText(crc.from) + " to " +
                     HexText(crc.End()));
    }
    return crcs;
  }

  void CompareValue(const std::string& what, const std::string& label, const std::string& a,
                    const std::string& b) {
    if (a == b) return;
    if (what != "firmware" && what != "section_name") _are_parts_same = false;
    const auto shown = [](const std::string& s) { return s.empty() ? "none" : Printable(s); };
    const auto value = [](const std::string& s) { return s.empty() ? Json(nullptr) : Json(s); };
    _listener.Report([&] { return label + ": " + shown(a) + " / " + shown(b); },
                     [&] {
                       return Json{{"what", what}, {"a", value(a)}, {"b", value(b)}};
                     });
  }

  void ComparePlace(const std::string& what, const std::string& label,
                    const std::optional<AddrLine>& a, const std::optional<AddrLine>& b) {
    const auto text = [](const std::optional<AddrLine>& place) {
      return place ? HexText(place->addr) : std::string();
    };
    CompareValue(what, label, text(a), text(b));
  }

  void OnlyIn(const char* side, const std::string& what, const std::string& text) {
    _are_parts_same = false;
    TellOnlyIn(side, what, text);
  }
  void TellOnlyIn(const char* side, const std::string& what, const std::string& text) {
    _listener.Report([&] { return Text("only in ", side, ": ", text); },
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

  static std::string Describe(const SectionLines& section) {
    return Text("section ", Printable(section.name), " at ", HexText(section.addr), ", ",
                section.size, " bytes");
  }

  void CompareSections() {
    for (const SectionLines& section : _a.sections) {
      if (!section.kept) continue;
      const SectionLines* other = _b.SectionAt(section.addr);
      if (other == nullptr) {
        OnlyIn("a", "section", Describe(section));
        continue;
      }
      CompareValue("section_name", "name of the section at " + HexText(section.addr), section.name,
                   other->name);
      CompareBytes(section, *other);
    }
    for (const SectionLines& section : _b.sections) {
      if (section.kept && _a.SectionAt(section.addr) == nullptr) {
        OnlyIn("b", "section", Describe(section));
      }
    }
    CompareRepeats("a", _a, _b);
    CompareRepeats("b", _b, _a);
    const std::vector<std::uint32_t> order_a = Order(_a, _b);
    const std::vector<std::uint32_t> order_b = Order(_b, _a);
    if (order_a != order_b) {
      _is_order_other = true;
      _listener.Report([] { return "order: the sections are burnt in another order"; },
                       [&] {
                         return Json{{"what", "order"}, {"a", order_a}, {"b", order_b}};
                       });
    }
  }

  /// The addresses of the sections that both have, in the order of the burn. One that comes again
  /// stands here again.
  static std::vector<std::uint32_t> Order(const ImageFile& file, const ImageFile& other) {
    std::vector<std::uint32_t> order;
    for (const std::size_t index : file.image.order) {
      const std::uint32_t addr = file.image.sections[index].addr;
      if (other.SectionAt(addr) != nullptr) order.push_back(addr);
    }
    return order;
  }

  static std::map<std::uint32_t, std::size_t> Counts(const ImageFile& file) {
    std::map<std::uint32_t, std::size_t> counts;
    for (const SectionLines& section : file.sections) ++counts[section.addr];
    return counts;
  }

  /// Sections of `file` whose address was taken before: more often than in `other`.
  void CompareRepeats(const char* side, const ImageFile& file, const ImageFile& other) {
    std::map<std::uint32_t, std::size_t> left = Counts(other);
    for (const SectionLines& section : file.sections) {
      std::size_t& count = left[section.addr];
      if (count > 0) {
        --count;
      } else if (!section.kept) {
        TellOnlyIn(side, "section",
                   Describe(section) + ": another one there, whose bytes are dropped; those of " +
                       Printable(file.SectionAt(section.addr)->name) + " are burnt again");
      }
    }
  }

  void CompareBytes(const SectionLines& a, const SectionLines& b) {
    if (a.size != b.size) {
      _are_parts_same = false;
      _listener.Report(
          [&] { return Text("size of ", Describe(a), ": ", b.size, " in b"); },
          [&] {
            return Json{
                {"what", "section_size"}, {"address", a.addr}, {"a", a.size}, {"b", b.size}};
          });
    }
    CompareRanges(_a.DataOf(a), _b.DataOf(b), "section " + Printable(a.name),
                  [&](std::size_t at, View bytes_a, View bytes_b, bool in_text) {
                    TellRange({{"what", "bytes"}, {"section", a.name}}, " of " + Printable(a.name),
                              a.addr + at, bytes_a, bytes_b, in_text);
                  });
  }

  /// Calls `tell` for each range that differs; the last ones of many are told in sum, too, as those
  /// of `whole`.
  void CompareRanges(View data_a, View data_b, const std::string& whole, const auto& tell) {
    const std::size_t size = std::min(data_a.size(), data_b.size());
    std::size_t ranges = 0;
    std::size_t left_out = 0;
    for (std::size_t at = 0;;) {
      at = FirstDifference(data_a, data_b, at, size);
      if (at == size) break;
      _are_parts_same = false;
      std::size_t end = at + 1;
      for (std::size_t next = end; next < size && next <= end + BRIDGED; ++next) {
        if (data_a[next] != data_b[next]) end = next + 1;
      }
      const bool is_told = ++ranges <= TOLD_RANGES;
      if (!is_told) left_out += end - at;
      tell(at, data_a.subspan(at, end - at), data_b.subspan(at, end - at), is_told);
      at = end;
    }
    if (left_out > 0) {
      _listener.Report(
          [&] {
            return Text("  and ", left_out, " bytes in ", ranges - TOLD_RANGES, " more ranges of ",
                        whole);
          },
          nullptr);
    }
  }

  static std::size_t FirstDifference(View a, View b, std::size_t at, std::size_t size) {
    const auto from = static_cast<std::ptrdiff_t>(at);
    const auto end = a.begin() + static_cast<std::ptrdiff_t>(size);
    const auto [found, ignored] = std::mismatch(a.begin() + from, end, b.begin() + from);
    return static_cast<std::size_t>(found - a.begin());
  }

  /// `begin`: of the JSON object; `where`: of the text.
  void TellRange(const Json& begin, const std::string& where, std::uint64_t addr, View bytes_a,
                 View bytes_b, bool in_text) {
    const std::size_t size = bytes_a.size();
    const auto text = [&] {
      return Text("bytes ", HexText(addr), " to ", HexText(addr + size), where, ": ",
                  FirstBytes(bytes_a, TOLD_BYTES), " / ", FirstBytes(bytes_b, TOLD_BYTES));
    };
    const auto json = [&] {
      Json object = begin;
      object["address"] = addr;
      object["size"] = size;
      object["a"] = common::HexBytes(bytes_a);
      object["b"] = common::HexBytes(bytes_b);
      return object;
    };
    if (in_text) {
      _listener.Report(text, json);
    } else {
      _listener.Report(nullptr, json);
    }
  }

  const ImageFile& _a;
  const ImageFile& _b;
  std::uint32_t _sector_size;  ///< of the flash
  Listener& _listener;
  bool _are_parts_same = true;   ///< as far as compared: all that is burnt, but for its order
  bool _is_order_other = false;  ///< of what is burnt
};

int Run(const Options& options) {
  common::RefuseSameFiles({{"A", options.a}, {"B", options.b}}, {});
  const ImageFile a = LoadImageFile(options.a);
  const ImageFile b = LoadImageFile(options.b);
  const std::uint32_t sector_size = common::ParseByteCount(options.sector_size).value();
  Counter counter;
  Comparison(a, b, sector_size, counter).Run();
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
    Comparison(a, b, sector_size, printer).Run();
    std::cout << (counter.is_same ? "]\n}\n" : "\n  ]\n}\n");
  } else {
    std::cout << "a: " << Printable(options.a) << "\nb: " << Printable(options.b) << "\n";
    TextPrinter printer;
    Comparison(a, b, sector_size, printer).Run();
    if (counter.is_same) std::cout << "Burning either leaves the same bytes.\n";
  }
  return counter.is_same ? ALL_WELL : DIFFERS;
}

}  // namespace

void AddDiff(CommandLine& program) {
  const auto options = std::make_shared<Options>();
  CommandLine& command = program.AddCommand("diff", "Compares what two image files burn");
  command.Add("A", options->a, "Image file").Required();
  command.Add("B", options->b, "Image file").Required();
  command
      .Add("--sector-size", options->sector_size,
           "Bytes of a sector of the flash that the images are for")
      .ShowDefault()
      .Check(SectorSizeCheck);
  command.AddFlag("--json", options->as_json, "Prints one JSON object");
  command.SetWork([options] { return Run(*options); });
}

}  // namespace fwimg
