// The command line: one word a line.
#include <algorithm>
#include <filesystem>
#include <set>

#include "fuzz/Fuzz.h"
#include "src/main.h"

namespace {

/// What a word with dashes selects, by the abbreviations that people know; empty for nothing.
std::string SwitchOf(const std::string& word) {
  const std::size_t begin = word.find_first_not_of('-');
  std::string name = begin == std::string::npos ? "" : word.substr(begin);
  name = name.substr(0, name.find('='));
  for (const char* candidate :
       {"f", "s", "g", "version", "vv", "n", "l", "m", "V", "help", "D", "d", "c"}) {
    if (std::string_view(candidate).starts_with(name)) return candidate;
  }
  return "";
}

/// Whether the words name an image file.
bool NamesFile(const std::vector<std::string>& words) {
  static const std::set<std::string> WITH_VALUE{"f", "s", "g", "m", "V"};
  for (std::size_t i = 1; i < words.size(); ++i) {
    const std::string selected = SwitchOf(words[i]);
    if (selected == "f") return true;
    const bool has_value = words[i].find('=') != std::string::npos;
    if (WITH_VALUE.contains(selected) && !has_value) ++i;
  }
  return false;
}

/// Whether all words are switches that need nothing and end nothing.
bool AreFlags(const std::vector<std::string>& words) {
  static const std::set<std::string> FLAGS{"n", "l", "D", "d", "c"};
  return std::all_of(words.begin() + 1, words.end(), [](const std::string& word) {
    return word.starts_with("-") && FLAGS.contains(SwitchOf(word));
  });
}

fuzz::Ending Run(std::vector<std::string> words, int& status) {
  std::vector<char*> av;
  for (std::string& word : words) av.push_back(word.data());
  av.push_back(nullptr);
  return fuzz::RunToAnyEnd([&] { status = FwPush(static_cast<int>(words.size()), av.data()); });
}

constexpr char NO_FILE[] = "file_name != nullptr";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  std::vector<std::string> words{"fwpush"};
  while (!input.IsEmpty()) {
    words.emplace_back(std::string(input.Until("\n")).c_str());
    // Only files that say nothing: what an image may be is another target's.
    std::error_code ignored;
    if (std::filesystem::exists(words.back(), ignored)) return 0;
  }
  int status = 0;
  const fuzz::Ending ending = Run(words, status);
  if (ending.assertion) {
    fuzz::Must(*ending.assertion == NO_FILE && !NamesFile(words),
               "only a burn without an image file ends by an assertion");
  } else if (ending.error) {
    fuzz::Must(ending.error->starts_with("Error parsing guid #"),
               "only a GUID that is no number ends the program by an error");
  } else {
    fuzz::Must(status == 0 || status == 1, "the exit status is 0 or 1");
  }
  if (AreFlags(words)) {
    words.insert(words.end(), {"-s", "IB:host:1", "-g", "1"});
    fuzz::Must(Run(words, status).assertion == NO_FILE, "a burn without an image file fails one");
  }
  return 0;
}
