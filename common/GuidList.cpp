#include "common/GuidList.h"

#include <charconv>
#include <stdexcept>
#include <string_view>

#include "common/Files.h"
#include "common/Text.h"

namespace common {

namespace {

constexpr std::string_view BLANKS = " \t\r";
constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

void AddGuidsOfFile(const std::string& file, std::set<std::uint64_t>& guids) {
  const Bytes bytes = ReadFile(file);
  std::size_t number = 0;
  std::size_t found = 0;
  std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  // Editors that write carriage returns may begin a file with it.
  if (text.starts_with(BYTE_ORDER_MARK)) text.remove_prefix(BYTE_ORDER_MARK.size());
  for (const std::string_view line : Lines(text)) {
    ++number;
    const std::vector<std::string_view> words = Words(line.substr(0, line.find('#')), BLANKS);
    if (words.empty()) continue;
    std::string_view digits = words[0];
    if (digits.starts_with("0x") || digits.starts_with("0X")) digits.remove_prefix(2);
    std::uint64_t guid = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, guid, 16);
    if (words.size() > 1 || error != std::errc() || stop != end) {
      throw std::runtime_error(Text(file, ":", number, ": not a GUID: ", line));
    }
    guids.insert(guid);
    ++found;
  }
  if (found == 0) throw std::runtime_error(file + ": no GUID in this file");
}

}  // namespace

bool IsGuidFile(const std::string& word) { return word.starts_with('@'); }

void AddGuids(const std::string& word, std::set<std::uint64_t>& guids) {
  if (IsGuidFile(word)) {
    AddGuidsOfFile(word.substr(1), guids);
  } else {
    ParseGuids(word, guids);
  }
}

}  // namespace common
