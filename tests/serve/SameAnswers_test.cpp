// The simulated fabric and the served machine answer every request alike, text by text.

#include <gtest/gtest.h>

#include <random>

#include "hardware/ServedMachine.h"
#include "tests/support/fabric_support.h"

namespace {

using common::Text;

constexpr u_int32_t FLASH_SIZE = 0x8000;
constexpr u_int32_t SECTOR = 0x1000;
constexpr u_int32_t MULTI_MAX = 4;
const std::string LEAF = " 0x0000000000001000";
const std::string SPINE = " 0x0000000000002000";

/// One EEPROM and one flash, with the same facts on both servers.
class SameAnswersTest : public testing::Test {
 protected:
  SameAnswersTest() {
    sim::Device leaf = I2cDevice(LEAF1);
    leaf.name = "leaf-1";
    leaf.attr = "rev-a1";
    leaf.vsd.assign(protocol::VSD_SIZE, 'v');
    leaf.bsn.assign(protocol::BSN_SIZE, 'b');
    sim::Device spine = FlashDevice(LEAF2, FLASH_SIZE, SECTOR);
    _machine.AddEeprom(LEAF1, _machine.AddBus(), {.size = 0x2000, .page = 32});
    _machine.configuration.devices.back().facts = leaf;
    _machine.AddFlash(LEAF2, {.size = FLASH_SIZE, .erase_size = SECTOR, .page = 256}, SECTOR);
    _machine.configuration.devices.back().facts = spine;
    _fabric.Add(std::move(leaf));
    _fabric.Add(std::move(spine));
    _fabric.facts.multi_max = std::to_string(MULTI_MAX);
    _machine.configuration.multi_max = MULTI_MAX;
    _machine.Serve();
  }

  void Compare(const std::string& request) {
    const std::string simulated = _fabric.Execute(request).text;
    EXPECT_EQ(_machine.Ask(request), simulated) << request;
    _answers.insert(simulated);
  }

  sim::Fabric _fabric;
  hardware::ServedMachine _machine;
  std::set<std::string> _answers;
};

TEST_F(SameAnswersTest, ToEachKindOfRequest) {
  const std::string requests[] = {
      "vsMultiMaxGet",
      "IfcVersion",
      "NsGetDeviceByType device",
      "vsGetVsdMulti 2" + LEAF + SPINE,
      "crBSNGet" + LEAF,
      "crBSNGet" + SPINE,
      "vsFlashStartMulti 1" + SPINE + " 1",
      "vsFlashStopMulti 1" + SPINE,
      "vsFlashEraseSectorMulti 1" + SPINE + " 0x0 0x1000",
      "vsFlashWriteMulti 1" + SPINE + " 0x0 8 0x1000 0x01020304 0x5060708",
      "vsFlashWriteMulti 1" + SPINE + " 0x0 8 0x1000 0x0fffffff 0xf0f0f0f0",  // clears bits only
      "vsFlashReadMulti 1" + SPINE + " 0x0 16 0xffc",
      "vsI2cWriteMulti 2" + LEAF + " 0x0000000000001001 0x50 5 0x1e 0x01020304 0x05000000",
      "vsI2cReadMulti 1" + LEAF + " 0x50 12 0x1c",
      "vsI2cReadMulti 1" + LEAF + " 0x50 0 0x1c",
      "vsI2cWriteMulti 1" + LEAF + " 0x50 0 0x0",
  };
  for (const std::string& request : requests) Compare(request);
  EXPECT_GE(_answers.size(), 10u);
}

TEST_F(SameAnswersTest, ToEachKindOfMistake) {
  const std::string requests[] = {
      "",
      "Hello",
      "vsMultiMaxGet 1",
      "NsGetDeviceByType",
      "NsGetDeviceByType switch",
      "vsGetVsdMulti",
      "vsGetVsdMulti x" + LEAF,
      "vsGetVsdMulti 0",
      "vsGetVsdMulti 2" + LEAF,
      "vsGetVsdMulti 1 1000",
      "vsGetVsdMulti 5" + LEAF + LEAF + LEAF + LEAF + LEAF,
      "vsGetVsdMulti 1 0x0000000000009000",
      "crBSNGet",
      "crBSNGet 0x0000000000009000",
      "vsFlashStartMulti 1" + SPINE + " 2",
      "vsFlashStartMulti 1" + LEAF + " 1",
      "vsFlashGetAttrMulti 1" + LEAF,
      "vsFlashReadMulti 2" + LEAF + SPINE + " 0x0 4 0x0",
      "vsFlashReadMulti 1" + SPINE + " 0x50 4 0x0",
      "vsFlashReadMulti 1" + SPINE + " 0x0 4 0x8000",
      "vsFlashReadMulti 1" + SPINE + " 0x0 8 0x7ffc",
      "vsFlashReadMulti 1" + SPINE + " 0x0 4",
      "vsFlashReadMulti 1" + SPINE + " 0x0 4 0x0 0x0",
      "vsFlashReadMulti 1" + SPINE + " 0x0 0x4 0x0",
      "vsFlashReadMulti 1" + SPINE + " 0x0 4 0",
      "vsFlashEraseSectorMulti 1" + SPINE + " 0x0 0x800",
      "vsFlashEraseSectorMulti 1" + SPINE + " 0x0 0x8000",
      "vsFlashWriteMulti 1" + SPINE + " 0x0 8 0x0 0x1",
      "vsFlashWriteMulti 1" + SPINE + " 0x0 4 0x0 0x1 0x2",
      "vsFlashWriteMulti 1" + SPINE + " 0x0 4 0x0 12",
      "vsFlashWriteMulti 1" + SPINE + " 0x0 4 0x7ffe 0x1",
      "vsFlashWriteMulti 1" + LEAF + " 0x0 4 0x0 0x1",
      "vsI2cReadMulti 1" + LEAF + " 0x51 4 0x0",
      "vsI2cReadMulti 1" + LEAF + " 0x50 4 0x2000",
      "vsI2cWriteMulti 1" + LEAF + " 0x50 4 0x1ffd 0x1",
      "vsI2cWriteMulti 1" + SPINE + " 0x50 4 0x0 0x1",
      "vsI2cWriteMulti 2" + LEAF + " 0x0000000000009000 0x50 4 0x0 0x1",
  };
  for (const std::string& request : requests) Compare(request);
  EXPECT_GE(_answers.size(), 25u);
}

TEST_F(SameAnswersTest, ToRandomRequests) {
  std::mt19937 random(20264);
  const auto below = [&random](u_int32_t end) { return static_cast<u_int32_t>(random() % end); };
  const char* const kinds[] = {"vsFlashWriteMulti", "vsFlashReadMulti", "vsFlashEraseSectorMulti",
                               "vsI2cWriteMulti", "vsI2cReadMulti"};
  for (int i = 0; i < 3000; ++i) {
    const std::string kind = kinds[below(5)];
    const bool is_flash = kind.starts_with("vsFlash");
    const bool is_likely = below(10) > 0;
    const std::string device = is_flash == is_likely ? SPINE : LEAF;
    const u_int32_t end = (is_flash ? FLASH_SIZE : 0x2000) + 16;
    u_int32_t offset = below(end);
    std::string request = Text(kind, " 1", device, is_flash ? " 0x0" : " 0x50");
    if (kind == "vsFlashEraseSectorMulti") {
      if (below(4) > 0) offset -= offset % SECTOR;
      request += Text(std::hex, " 0x", offset);
    } else {
      // What fills up the last word of a read is not defined.
      const bool is_read = kind.find("Read") != std::string::npos;
      const u_int32_t size = is_read ? below(50) * 4 : below(200);
      request += Text(" ", size, std::hex, " 0x", offset);
      for (u_int32_t at = 0; !is_read && at < size; at += 4) {
        request += Text(std::hex, " 0x", random() & random());
      }
    }
    Compare(request);
  }
  const std::string all = Text("vsFlashReadMulti 1", SPINE, " 0x0 ", FLASH_SIZE, " 0x0");
  Compare(all);
  Compare(Text("vsI2cReadMulti 1", LEAF, " 0x50 ", 0x2000, " 0x0"));
}

}  // namespace
