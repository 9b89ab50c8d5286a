/// Holds the two readers of image files against each other: the burner's loader and the one of
/// device/, which were written apart.
#pragma once

#include <algorithm>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "device/ImageFile.h"
#include "src/FwImage.h"

namespace readers {

/// FwImage hands out the fields and CRCs of a range only, and none that cross it. An explicit
/// instantiation may name what is private.
template <auto LIST, typename Tag>
struct Opened {
  friend auto ListOf(const FwImage& image, Tag) { return image.*LIST; }
};
struct Fields {};
struct Crcs {};
auto ListOf(const FwImage& image, Fields);
auto ListOf(const FwImage& image, Crcs);
template struct Opened<&FwImage::_field_replaces, Fields>;
template struct Opened<&FwImage::_crc_replaces, Crcs>;

/// How an image of the burner differs from one of device/; "" where they are the same.
inline std::string Difference(FwImage& burner, const device::Image& other) {
  const u_int32_t type = other.type == nullptr ? 0 : other.type->number;
  if (static_cast<u_int32_t>(burner.DevType()) != type) return "the device type";

  const auto& conv = static_cast<const FwImage::Conv&>(*burner.GetAddressConvertor());
  const auto is_chip = [](const EeLoc& mapped, const device::MappedChip& chip) {
    return mapped.dev == chip.chip && mapped.offset == chip.size;
  };
  if (!std::ranges::equal(conv._devmap, other.map, is_chip)) return "the device map";

  std::vector<u_int32_t> order;
  burner.GetSectionsAddr(order);
  const auto is_next = [&](u_int32_t addr, std::size_t index) {
    return index < other.sections.size() && other.sections[index].addr == addr;
  };
  if (!std::ranges::equal(order, other.order, is_next)) return "the order of the sections";
  const std::set<u_int32_t> addrs(order.begin(), order.end());
  if (addrs.size() != other.sections.size()) return "the number of sections";
  for (const device::Section& section : other.sections) {
    const FwImage::Section* known = burner.GetSection(section.addr);
    if (known == nullptr) return Text("a section at ", std::hex, section.addr);
    if (known->name != section.name) return "the name of section " + known->name;
    if (known->data != section.data) return "the bytes of section " + known->name;
    if (other.SectionAt(section.addr) != &section) return "which section is at an address";
  }

  const auto is_field = [](const FwImage::FieldReplace& field, const device::Field& counterpart) {
    return field.from == counterpart.addr && field.size == counterpart.Size() &&
           field.type ==
               FwImage::Str2FieldType(std::string(device::RowOf(counterpart.type).keyword));
  };
  if (!std::ranges::equal(ListOf(burner, Fields()), other.fields, is_field)) return "the fields";
  const auto is_crc = [](const FwImage::CrcReplace& crc, const device::CrcField& counterpart) {
    return crc.from == counterpart.from && crc.size == counterpart.size &&
           crc.crc_addr == counterpart.addr;
  };
  if (!std::ranges::equal(ListOf(burner, Crcs()), other.crcs, is_crc)) return "the CRCs";

  const auto addr_of = [](const auto& get) -> std::optional<u_int32_t> {
    try {
      return get();
    } catch (const BraidError&) {
      return std::nullopt;
    }
  };
  for (u_int32_t slot = 0; slot < device::SLOTS; ++slot) {
    const device::Slot& addresses = other.slots[slot];
    if (addr_of([&] { return burner.GetImageAddr(slot); }) != addresses.image ||
        addr_of([&] { return burner.GetPsAddr(slot); }) != addresses.pointer_sector ||
        addr_of([&] { return burner.GetSignatureAddr(slot); }) != addresses.signature) {
      return Text("the addresses of slot ", slot);
    }
  }
  std::vector<u_int32_t> of_slot;
  addr_of([&] {
    burner.GetImageSectionsAddr(of_slot);
    return u_int32_t{0};
  });
  const auto section_addr = [](const device::Section* section) { return section->addr; };
  if (!std::ranges::equal(of_slot, other.SlotSections(), {}, {}, section_addr)) {
    return "the sections of a slot";
  }
  if (addr_of([&] { return burner.GetImageSize(); }).value_or(0) != other.SlotBytes()) {
    return "the bytes of a slot";
  }
  return "";
}

/// Listens to what a file has for its author.
class Listener : public device::ImageListener {
 public:
  void Refused(const device::Refusal& refusal) override { refusals.push_back(refusal); }
  void Remarked(const device::Remark& remark) override { ++remarks[remark.kind]; }

  std::vector<device::Refusal> refusals;
  std::map<device::RemarkKind, std::size_t> remarks;
};

/// How the two readers differ in what they make of a file; "" where they do not. The burner's
/// warnings are swallowed.
inline std::string Disagreement(const std::string& path) {
  FwImage burner;
  std::string refusal;
  std::ostringstream console;
  std::streambuf* const before = std::cout.rdbuf(console.rdbuf());
  try {
    burner.Open(path.c_str(), READ);
  } catch (const BraidError& error) {
    refusal = error.Des();
  }
  std::cout.rdbuf(before);

  std::string other_refusal;
  device::Image image;
  try {
    image = device::ReadImage(path);
  } catch (const device::ImageError& error) {
    other_refusal = error.what();
  }
  if (refusal != other_refusal) {
    return "the burner says \"" + refusal + "\", the other reader \"" + other_refusal + "\"";
  }

  // The author's reading goes to the end, and must come to the same.
  Listener listener;
  device::ImageFile file;
  std::string unread;
  try {
    file = device::ReadImageFile(path, listener);
  } catch (const device::ImageError& error) {
    unread = error.what();
  }
  const std::string first = listener.refusals.empty() ? unread : listener.refusals[0].message;
  if (first != refusal) return "an author is told \"" + first + "\" first";
  if (unread.empty() && file.refusal != refusal) return "an author is told " + file.refusal;
  if (!refusal.empty()) return "";

  const std::string warnings = console.str();
  const auto warned = std::ranges::count(warnings, '\n');
  if (static_cast<std::size_t>(warned) != listener.remarks[device::RemarkKind::BSN_IGNORED]) {
    return "how often a BSN is ignored";
  }
  const std::string difference = Difference(burner, image);
  return difference.empty() ? Difference(burner, file.image) : difference;
}

}  // namespace readers
