#include "fwimg/BurnComparison.h"

#include <algorithm>
#include <map>
#include <set>

#include "device/Burn.h"
#include "device/Chip.h"
#include "fwimg/Names.h"

namespace fwimg {

namespace {

constexpr std::uint64_t PAGE = 0x1000;  ///< bytes that are held together

/// A memory of 4 GiB that holds some old bytes everywhere. Only the pages that are written are
/// kept.
class PagedMemory : public device::BurnTarget {
 public:
  explicit PagedMemory(device::MemoryKind kind) : _kind(kind) {}

  void Erase(std::uint32_t addr, std::uint64_t size) override {
    ForEachPart(addr, size, [](device::Cells cells, std::uint64_t) { device::Erase(cells); });
  }
  void Program(std::uint32_t addr, View bytes) override {
    ForEachPart(addr, bytes.size(), [&](device::Cells cells, std::uint64_t at) {
      device::Program(_kind, cells,
                      bytes.subspan(static_cast<std::size_t>(at - addr), cells.size()));
    });
  }

  /// Numbers of the pages that were written.
  void AddPagesTo(std::set<std::uint64_t>& pages) const {
    for (const auto& [page, bytes] : _pages) pages.insert(page);
  }
  const Bytes& Page(std::uint64_t page) {
    Bytes& bytes = _pages[page];
    if (bytes.empty()) {
      for (std::uint64_t at = page * PAGE; at < (page + 1) * PAGE; ++at) {
        bytes.push_back(static_cast<std::uint8_t>(at * 0x9E3779B1 >> 16));
      }
    }
    return bytes;
  }

 private:
  template <typename Action>
  void ForEachPart(std::uint64_t addr, std::uint64_t size, const Action& action) {
    // The last sector may reach past the last address.
    const std::uint64_t end = std::min(addr + size, ADDRESS_SPACE);
    while (addr < end) {
      const std::uint64_t page = addr / PAGE;
      const std::uint64_t part_end = std::min(end, (page + 1) * PAGE);
      Page(page);
      action(device::Cells(_pages[page])
                 .subspan(static_cast<std::size_t>(addr % PAGE),
                          static_cast<std::size_t>(part_end - addr)),
             addr);
      addr = part_end;
    }
  }

  device::MemoryKind _kind;
  std::map<std::uint64_t, Bytes> _pages;
};

/// Values of which no two types share a byte at the same place.
Bytes SomeValue(FieldType type) {
  Bytes value(device::RowOf(type).size);
  for (std::size_t i = 0; i < value.size(); ++i) {
    value[i] = static_cast<std::uint8_t>(7 * i + 31 * (1 + static_cast<std::size_t>(type)));
  }
  return value;
}

/// One way to burn an image.
struct Way {
  std::string name;
  device::BurnKind kind;
  device::Plan plan;
};

std::vector<Way> WaysOf(SlotKind kind) {
  using device::BurnKind;
  switch (kind) {
    case SlotKind::NONE:
      return {{"a burn", BurnKind::PLAIN, {}}};
    case SlotKind::BOOT_RECORDS:
      return {{"a burn with -n", BurnKind::PLAIN, {}},
              {"a burn of slot 0, then 1", BurnKind::FAILSAFE, {.slots = {0, 1}}},
              {"a burn of slot 1, then 0", BurnKind::FAILSAFE, {.slots = {1, 0}}}};
    case SlotKind::POINTER_SECTORS:
      break;
  }
  return {{"a burn with -n", BurnKind::PLAIN, {}},
          {"a burn of slot 0", BurnKind::FAILSAFE, {.rewrites_invariant = true, .slots = {0}}},
          {"a burn of slot 1", BurnKind::FAILSAFE, {.rewrites_invariant = true, .slots = {1}}}};
}

/// Why the burn does not come to its end; empty where it does.
std::string BurnInto(PagedMemory& memory, const device::Image& image, const Way& way,
                     std::uint32_t sector_size) {
  const device::Burn burn(image, way.kind, SomeValue);
  try {
    if (way.kind == device::BurnKind::FAILSAFE) burn.CheckImage(sector_size);
    burn.Write(memory, sector_size, way.plan);
  } catch (const device::BurnError& error) {
    return error.what();
  }
  return "";
}

}  // namespace

void CompareBurns(const device::Image& a, const device::Image& b, std::uint32_t sector_size,
                  BurnListener& listener) {
  const std::uint32_t sector = a.IsFlash() ? sector_size : 0;
  for (const Way& way : WaysOf(a.Slots())) {
    PagedMemory memory_a(a.type->memory);
    PagedMemory memory_b(b.type->memory);
    const std::string end_a = BurnInto(memory_a, a, way, sector);
    const std::string end_b = BurnInto(memory_b, b, way, sector);
    if (end_a != end_b) listener.Ends(way.name, end_a, end_b);
    std::set<std::uint64_t> pages;
    memory_a.AddPagesTo(pages);
    memory_b.AddPagesTo(pages);
    Bytes run_a;
    Bytes run_b;
    std::uint64_t from = 0;
    const auto tell = [&] {
      if (run_a != run_b) listener.Leaves(way.name, from * PAGE, run_a, run_b);
      run_a.clear();
      run_b.clear();
    };
    for (const std::uint64_t page : pages) {
      if (page != from + run_a.size() / PAGE) {
        tell();
        from = page;
      }
      const Bytes& page_a = memory_a.Page(page);
      const Bytes& page_b = memory_b.Page(page);
      run_a.insert(run_a.end(), page_a.begin(), page_a.end());
      run_b.insert(run_b.end(), page_b.begin(), page_b.end());
    }
    tell();
  }
}

}  // namespace fwimg
