/// TOML files of tests, and what is wrong with them.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "common/ScratchFolder.h"
#include "common/TomlReader.h"

class TomlTest : public testing::Test {
 protected:
  common::TomlReader Reader(const std::string& text) {
    return common::TomlReader(_folder.Write("a.toml", text));
  }

  /// What is wrong with a file, without its path; "" where nothing is.
  std::string Refusal(const std::string& text,
                      const std::function<void(common::TomlReader&)>& read) {
    try {
      common::TomlReader reader = Reader(text);
      read(reader);
    } catch (const common::TomlError& error) {
      const std::string what = error.what();
      const std::string file = _folder / "a.toml";
      return what.starts_with(file) ? what.substr(file.size()) : what;
    }
    return "";
  }

  common::ScratchFolder _folder;
};
