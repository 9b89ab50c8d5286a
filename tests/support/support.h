/// What the unit tests share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <random>
#include <sstream>
#include <string>

#include "common/Files.h"
#include "common/ScratchFolder.h"
#include "src/BraidGeneral.h"

/// Whether this build has AddressSanitizer, which takes memory and time of its own.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool IS_SANITIZED = true;
#elif defined(__has_feature)
inline constexpr bool IS_SANITIZED = __has_feature(address_sanitizer);
#else
inline constexpr bool IS_SANITIZED = false;
#endif

/// What the BraidError or std::exception that `action` throws says; "(no error)" when it throws
/// none.
inline std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const BraidError& error) {
    EXPECT_EQ(error.Num(), BRAID_ERROR);
    return error.Des();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "(no error)";
}

/// All that `action` prints on the console.
inline std::string OutputOf(const std::function<void()>& action) {
  std::cout.flush();
  std::fflush(stdout);
  testing::internal::CaptureStdout();
  try {
    action();
  } catch (...) {
    std::cout.flush();
    testing::internal::GetCapturedStdout();
    throw;
  }
  std::cout.flush();
  return testing::internal::GetCapturedStdout();
}

/// Debug lines with their line numbers shown as N: they move with every edit.
inline std::string WithoutLineNumbers(const std::string& console) {
  std::string result;
  std::istringstream lines(console);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("-D- ")) {
      const std::size_t start = line.find(':') + 1;
      const std::size_t end = line.find(':', start);
      EXPECT_GT(end, start);
      line.replace(start, end - start, "N");
    }
    result += line + (lines.eof() ? "" : "\n");
  }
  return result;
}

/// Gives each test a console in its first state, whatever the test before left.
class ConsoleTest : public testing::Test {
 protected:
  ConsoleTest() { Reset(); }
  ~ConsoleTest() override { Reset(); }

 private:
  static void Reset() {
    std::cout << std::dec;
    std::cout.fill(' ');
  }
};

/// The whole file. Throws std::runtime_error when it cannot be read.
inline std::string ReadText(const std::filesystem::path& path) {
  const common::Bytes bytes = common::ReadFile(path);
  return {bytes.begin(), bytes.end()};
}

/// Bytes given in hexadecimal, blanks allowed: "cb84 cb84".
inline DataVec Hex(const std::string& digits) {
  DataVec bytes;
  std::string pair;
  for (const char c : digits) {
    if (c == ' ') continue;
    pair += c;
    if (pair.size() == 2) {
      bytes.push_back(static_cast<u_int8_t>(std::stoul(pair, nullptr, 16)));
      pair.clear();
    }
  }
  EXPECT_TRUE(pair.empty());
  return bytes;
}

/// The image CRC as its definition reads, one bit at a time.
inline u_int32_t ReferenceCrc(const DataVec& data) {
  u_int32_t crc = 0xFFFF;
  const auto shift_in = [&crc](u_int32_t bit) {
    const bool top = (crc & 0x8000) != 0;
    crc = ((crc << 1) | bit) & 0xFFFF;
    if (top) crc ^= 0x100B;
  };
  for (const u_int8_t byte : data) {
    for (int i = 7; i >= 0; --i) shift_in(byte >> i & 1);
  }
  for (int i = 0; i < 16; ++i) shift_in(0);
  return crc ^ 0xFFFF;
}

/// Seeded randomness; the seed stands in the failure message where SCOPED_TRACE names it.
using TestRng = std::mt19937;

inline DataVec RandomBytes(TestRng& rng, std::size_t size) {
  DataVec bytes(size);
  for (u_int8_t& byte : bytes) byte = static_cast<u_int8_t>(rng());
  return bytes;
}

/// The blocks of a Markdown document that are fenced as `language`, each with its line ends.
inline std::vector<std::string> FencedBlocks(const std::string& path, const std::string& language) {
  std::ifstream file(path);
  EXPECT_TRUE(file.good()) << path;
  std::vector<std::string> blocks;
  bool is_inside = false;
  for (std::string line; std::getline(file, line);) {
    if (is_inside && line == "```") {
      is_inside = false;
    } else if (is_inside) {
      blocks.back() += line + "\n";
    } else if (line == "```" + language) {
      is_inside = true;
      blocks.emplace_back();
    }
  }
  EXPECT_FALSE(is_inside) << path << ": a block is not closed";
  return blocks;
}
