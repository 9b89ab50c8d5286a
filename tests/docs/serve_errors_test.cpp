// Holds the table of errors in docs/serve.md against the sources of the server: each text of an
// error has its row, and no row has a text that the server does not send.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

const std::filesystem::path ROOT = std::filesystem::path(DOCUMENTS).parent_path();

/// What an element of an answer may be made of.
constexpr const char* FILES[] = {
    "serve/ChipWork.cpp",   "serve/DryMemory.cpp",      "serve/Eeprom.cpp",
    "serve/FlatMemory.cpp", "serve/Gateway.cpp",        "serve/Leases.cpp",
    "serve/Memory.cpp",     "serve/Memory.h",           "serve/ServedDevices.cpp",
    "serve/Wires.cpp",      "protocol/DeviceFacts.cpp", "protocol/Session.cpp"};

/// Literals with a blank that are no texts of errors.
const std::set<std::string> OTHERS = {
    "the client disconnected",  // ends of leases, for the audit log
    "the server was killed",
    "no lease",
    ": the server ended while ",  // the server's own log
    " held it",
    " is no note of a lease: it is left alone",
    " held a device that is not served any more: it is not released",
    " is not served: ",
    " has a part of its memory",
    ": another server uses this 'state'",  // at its start
    "hooks of ",                           // names of wires
    // Of configurations, before anything is served.
    "a device's name and attribute must each be one word",
    "a device must have a port",
    "two ports with one GUID",
    " stands for two devices",
    // What the kernel's error stands for in "Read failed at".
    "too few bytes",
};

std::string ReadText(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The literals of a source, those that stand side by side joined.
std::vector<std::string> LiteralsOf(const std::string& source) {
  const std::string code =
      std::regex_replace(std::regex_replace(source, std::regex("//[^\n]*|#include[^\n]*"), ""),
                         std::regex("\"\\s*\n\\s*\""), "");
  const std::regex literal("\"((?:[^\"\\\\]|\\\\.)*)\"");
  std::vector<std::string> literals;
  for (std::sregex_iterator found(code.begin(), code.end(), literal), end; found != end; ++found) {
    literals.push_back((*found)[1]);
  }
  return literals;
}

std::vector<std::string> Literals() {
  std::vector<std::string> all;
  for (const char* file : FILES) {
    const auto literals = LiteralsOf(ReadText(ROOT / file));
    EXPECT_FALSE(literals.empty() && std::string(file).ends_with("Gateway.cpp")) << file;
    all.insert(all.end(), literals.begin(), literals.end());
  }
  return all;
}

/// The part of the page that the table is in.
std::string Section() {
  const std::string page = ReadText(ROOT / "docs/serve.md");
  const std::size_t begin = page.find("## Errors");
  return page.substr(begin, page.find("## Protection") - begin);
}

/// The texts of the first column.
std::vector<std::string> Rows() {
  const std::string section = Section();
  std::vector<std::string> rows;
  const std::regex row("\n\\| (`[^|]*) \\|");
  const std::regex text("`([^`]*)`");
  for (std::sregex_iterator found(section.begin(), section.end(), row), end; found != end;
       ++found) {
    const std::string cell = (*found)[1];
    for (std::sregex_iterator part(cell.begin(), cell.end(), text); part != end; ++part) {
      rows.push_back((*part)[1]);
    }
  }
  return rows;
}

/// The text without what stands for something else.
std::vector<std::string> FixedParts(const std::string& text) {
  // The names of hooks, and what a program is used for, are put together with the rest.
  const std::regex placeholder("\\.\\.\\.|0x\\.\\.|\\.\\.|PEER|HH:MM:SS|NAME|'prepare'|In use: ");
  std::vector<std::string> parts;
  for (std::sregex_token_iterator part(text.begin(), text.end(), placeholder, -1), end; part != end;
       ++part) {
    const std::string fixed = std::regex_replace(part->str(), std::regex("^ +| +$"), "");
    if (fixed.size() > 1) parts.push_back(fixed);
  }
  return parts;
}

TEST(ServeErrorsTest, EveryRowIsATextOfTheServer) {
  const auto literals = Literals();
  const auto rows = Rows();
  ASSERT_GT(rows.size(), 30u);
  std::string all;
  for (const std::string& literal : literals) all += literal + "\n";
  for (const std::string& row : rows) {
    const auto parts = FixedParts(row);
    EXPECT_FALSE(parts.empty()) << row;
    for (const std::string& part : parts) {
      // "Read failed at" is made of two.
      const std::size_t blank = part.find(' ');
      const bool is_whole = all.find(part) != std::string::npos;
      EXPECT_TRUE(is_whole || (all.find("\n" + part.substr(0, blank) + "\n") != std::string::npos &&
                               all.find(part.substr(blank)) != std::string::npos))
          << row << ": \"" << part << "\"";
    }
  }
}

TEST(ServeErrorsTest, EveryTextOfTheServerHasItsRow) {
  const std::string section = Section();
  for (const std::string& literal : Literals()) {
    const std::string fixed =
        std::regex_replace(literal, std::regex("^[ :'\"\\\\]+|( 0x|[ :'\";\\\\])+$"), "");
    if (fixed.find(' ') == std::string::npos || OTHERS.contains(literal)) continue;
    EXPECT_NE(section.find(fixed), std::string::npos) << "\"" << literal << "\"";
  }
}

}  // namespace
