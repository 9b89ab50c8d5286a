#include "verify/Finding.h"

#include <cstring>

namespace verify {

namespace {

class Packer {
 public:
  template <typename T>
  void Number(const T& number) {
    const auto value = static_cast<std::uint64_t>(number);
    bytes.append(reinterpret_cast<const char*>(&value), sizeof(value));
  }
  void String(const std::string& text) {
    Number(text.size());
    bytes += text;
  }
  template <typename T, typename Each>
  void List(const std::vector<T>& list, const Each& each) {
    Number(list.size());
    for (const T& element : list) each(element);
  }

  std::string bytes;
};

class Unpacker {
 public:
  explicit Unpacker(std::string_view bytes) : _left(bytes) {}

  template <typename T>
  void Number(T& number) {
    std::uint64_t value = 0;
    const std::string_view bytes = Take(sizeof(value));
    if (is_whole) std::memcpy(&value, bytes.data(), sizeof(value));
    number = static_cast<T>(value);
  }
  void String(std::string& text) {
    std::size_t size = 0;
    Number(size);
    text = Take(size);
  }
  template <typename T, typename Each>
  void List(std::vector<T>& list, const Each& each) {
    std::size_t size = 0;
    Number(size);
    for (std::size_t i = 0; i < size && is_whole; ++i) each(list.emplace_back());
  }
  bool IsAtEnd() const { return is_whole && _left.empty(); }

  bool is_whole = true;

 private:
  std::string_view Take(std::size_t size) {
    is_whole = is_whole && size <= _left.size();
    if (!is_whole) return {};
    const std::string_view taken = _left.substr(0, size);
    _left.remove_prefix(size);
    return taken;
  }

  std::string_view _left;
};

/// Passes all members to a packer or an unpacker, so that both have the same order.
void PassAll(auto& pack, auto& finding) {
  pack.Number(finding.guid);
  pack.Number(finding.state);
  pack.String(finding.reason);
  pack.String(finding.failure);
  pack.Number(finding.knows_slots);
  pack.List(finding.valid_slots, [&](auto& slot) { pack.Number(slot); });
  pack.Number(finding.invariant_sector);
  pack.List(finding.slots, [&](auto& slot) { pack.Number(slot); });
  pack.Number(finding.compared);
  pack.Number(finding.different);
  pack.List(finding.differences, [&](auto& difference) {
    pack.String(difference.section);
    pack.Number(difference.offset);
    pack.Number(difference.addr);
    pack.Number(difference.expected);
    pack.Number(difference.found);
  });
}

}  // namespace

std::string Pack(const DeviceFinding& finding) {
  Packer packer;
  PassAll(packer, finding);
  return packer.bytes;
}

std::optional<DeviceFinding> Unpack(std::string_view bytes) {
  Unpacker unpacker(bytes);
  DeviceFinding finding;
  PassAll(unpacker, finding);
  if (!unpacker.IsAtEnd()) return {};
  return finding;
}

const char* Name(DeviceFinding::State state) {
  switch (state) {
    case DeviceFinding::IDENTICAL:
      return "identical";
    case DeviceFinding::DIFFERENT:
      return "different";
    case DeviceFinding::UNREACHABLE:
      return "unreachable";
    case DeviceFinding::UNREADABLE:
      return "unreadable";
  }
  return "?";
}

}  // namespace verify
