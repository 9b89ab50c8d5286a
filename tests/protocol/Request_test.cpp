#include "protocol/Request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace protocol {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Why a request is refused; "" where it is not.
std::string ReasonOf(const std::string& text) {
  try {
    ParseRequest(text);
  } catch (const Refusal& refusal) {
    return refusal.what();
  }
  return "";
}

TEST(RequestTest, WordsOfAWriteAreItsFields) {
  const Request request =
      ParseRequest("vsI2cWriteMulti 2 0x0000000000000010 0x20 0x50 6 0x1f0 0x1020304 0x5060000 ");
  EXPECT_EQ(request.command->action, Action::WRITE);
  EXPECT_EQ(request.command->memory, Memory::EEPROM);
  EXPECT_EQ(request.count, 2u);
  EXPECT_THAT(request.devices, ElementsAre(0x10u, 0x20u));
  EXPECT_EQ(request.chip, 0x50);
  EXPECT_EQ(request.size, 6u);
  EXPECT_EQ(request.offset, 0x1F0u);
  EXPECT_THAT(request.data, ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST(RequestTest, ReadAndEraseHavePlacesButNoData) {
  const Request read = ParseRequest("vsFlashReadMulti 1 0x10 0x0 8 0x4");
  EXPECT_EQ(read.command->memory, Memory::FLASH);
  EXPECT_EQ(read.size, 8u);
  EXPECT_EQ(read.offset, 4u);
  EXPECT_THAT(read.data, IsEmpty());
  const Request erase = ParseRequest("vsFlashEraseSectorMulti 1 0x10 0x0 0x10000 ");
  EXPECT_EQ(erase.command->action, Action::ERASE);
  EXPECT_EQ(erase.offset, 0x10000u);
}

TEST(RequestTest, SerialNumberIsThatOfOneDevice) {
  const Request request = ParseRequest("crBSNGet 0x10 ");
  EXPECT_EQ(request.count, 1u);
  EXPECT_THAT(request.devices, ElementsAre(0x10u));
}

TEST(RequestTest, EveryCommandIsFoundByItsWord) {
  std::set<std::string_view> words;
  for (const Command& command : Commands()) {
    std::string text(command.word);
    if (command.IsMulti()) text += " 1 0x10";
    if (command.action == Action::BSN) text += " 0x10";
    if (command.action == Action::LIST) text += " device";
    if (command.action == Action::START) text += "  1";
    if (command.action == Action::ERASE) text += " 0x0 0x0";
    if (command.action == Action::READ) text += " 0x0 4 0x0";
    if (command.action == Action::WRITE) text += " 0x0 4 0x0 0x1";
    EXPECT_EQ(ParseRequest(text).command, &command) << text;
    words.insert(command.word);
  }
  EXPECT_EQ(words.size(), 15u);
}

TEST(RequestTest, WhatMakesNoSenseIsRefusedWithAReason) {
  const std::pair<const char*, const char*> requests[] = {
      {"", "empty request"},
      {" \t", "empty request"},
      {"vsI2cFormatMulti 1 0x10", "unknown command"},
      {"vsI2cReadMulti", "bad device count"},
      {"vsI2cReadMulti x 0x10", "bad device count"},
      {"vsI2cReadMulti 2 0x10", "fewer devices than counted"},
      {"crBSNGet", "fewer devices than counted"},
      {"vsI2cReadMulti 1 10 0x50 4 0x0", "bad device GUID"},
      {"vsI2cReadMulti 1 0x10 0x50 4", "missing arguments"},
      {"vsI2cReadMulti 1 0x10 0x50 4 0x0 0x0", "too many arguments"},
      {"NsGetDeviceByType switch", "unknown type"},
      {"vsFlashStartMulti 1 0x10 2", "bad start argument"},
      {"vsI2cReadMulti 1 0x10 0x100 4 0x0", "bad chip address"},
      {"vsI2cReadMulti 1 0x10 0x50 4x 0x0", "bad size"},
      {"vsI2cReadMulti 1 0x10 0x50 4 0", "bad offset"},
      {"vsI2cWriteMulti 1 0x10 0x50 8 0x0 0x1", "the number of data words does not fit the size"},
      {"vsI2cWriteMulti 1 0x10 0x50 4 0x0 0x100000000", "bad data word"},
  };
  for (const auto& [text, reason] : requests) EXPECT_EQ(ReasonOf(text), reason) << text;
}

TEST(RequestTest, NoMoreDevicesAreTakenThanTheServerSays) {
  const auto check = [](const std::string& text, std::string_view multi_max) -> std::string {
    try {
      CheckCount(ParseRequest(text), multi_max);
    } catch (const Refusal& refusal) {
      return refusal.what();
    }
    return "";
  };
  EXPECT_EQ(check("vsGetVsdMulti 2 0x10 0x20 ", "2"), "");
  EXPECT_EQ(check("vsGetVsdMulti 2 0x10 0x20 ", "1"), "more devices than the server takes at once");
  EXPECT_EQ(check("vsGetVsdMulti 2 0x10 0x20 ", "nonsense"), "");
  EXPECT_EQ(check("vsGetVsdMulti 0 ", "2"), "no devices");
  EXPECT_EQ(check("vsMultiMaxGet", "2"), "");
}

}  // namespace
}  // namespace protocol
