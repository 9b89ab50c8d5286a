#include "protocol/DeviceFacts.h"

#include <gtest/gtest.h>

namespace protocol {
namespace {

DeviceFacts Leaf() {
  DeviceFacts device;
  device.node_guid = 0x10;
  device.port_guids = {0x11, 0x12};
  device.sys_guid = 0x1F;
  device.declared_ports = 2;
  device.name = "leaf-1";
  device.vsd[3] = 7;
  device.bsn[0] = 'L';
  return device;
}

const ChipFactsByAddress EEPROM{{0x50, {.size = 0x2000}}};
const ChipFactsByAddress FLASH{{0, {.size = 0x100000, .sector_size = 0x10000, .page_size = 256}}};

/// The element for a request, or the reason of its refusal; "memory" where it needs the memory.
std::string ElementOf(const std::string& request, const ChipFactsByAddress& chips) {
  try {
    return ElementWithoutMemory(ParseRequest(request), Leaf(), chips).value_or("memory");
  } catch (const Refusal& refusal) {
    return refusal.what();
  }
}

TEST(DeviceFactsTest, DeviceIsAddedWithAllItsGuids) {
  std::map<Guid, Guid> taken;
  EXPECT_EQ(WhyNotAdded(Leaf(), taken), "");
  EXPECT_EQ(taken, (std::map<Guid, Guid>{{0x10, 0x10}, {0x11, 0x10}, {0x12, 0x10}}));
}

TEST(DeviceFactsTest, DeviceThatIsRefusedTakesNoGuid) {
  const auto reason = [](auto change) {
    DeviceFacts device = Leaf();
    change(device);
    std::map<Guid, Guid> taken{{0x7, 0x7}};
    const std::string text = WhyNotAdded(device, taken);
    EXPECT_EQ(taken.size(), 1u);
    return text;
  };
  const std::string word = "a device's name and attribute must each be one word";
  EXPECT_EQ(reason([](DeviceFacts& device) { device.name = ""; }), word);
  EXPECT_EQ(reason([](DeviceFacts& device) { device.name = "two words"; }), word);
  EXPECT_EQ(reason([](DeviceFacts& device) { device.attr = "{a}"; }), word);
  EXPECT_EQ(reason([](DeviceFacts& device) { device.port_guids.clear(); }),
            "a device must have a port");
  EXPECT_EQ(reason([](DeviceFacts& device) {
              device.port_guids = {1, 1};
            }),
            "two ports with one GUID");
  EXPECT_EQ(reason([](DeviceFacts& device) {
              device.port_guids = {0x11, 7};
            }),
            "GUID 0x0000000000000007 stands for two devices");
  EXPECT_EQ(reason([](DeviceFacts& device) { device.node_guid = 7; }),
            "GUID 0x0000000000000007 stands for two devices");
}

TEST(DeviceFactsTest, NodeGuidMayBeThatOfAPort) {
  DeviceFacts device = Leaf();
  device.port_guids = {0x10};
  std::map<Guid, Guid> taken;
  EXPECT_EQ(WhyNotAdded(device, taken), "");
  EXPECT_EQ(taken.size(), 1u);
}

TEST(DeviceFactsTest, EveryPortHasARecord) {
  EXPECT_EQ(RecordElements(Leaf(), 3),
            "{device 3 1 0x000000000000001f 0x0000000000000010 0x0000000000000011 2 leaf-1 none} "
            "{device 3 2 0x000000000000001f 0x0000000000000010 0x0000000000000012 2 leaf-1 none}");
}

TEST(DeviceFactsTest, FactsAreAnsweredWithoutTheMemory) {
  EXPECT_EQ(ElementOf("vsFlashGetAttrMulti 1 0x10 ", FLASH),
            "{sector_size=10000 size=100000 page_size=100}");
  EXPECT_EQ(ElementOf("vsFlashStartMulti 1 0x10  1", FLASH), "ACK");
  EXPECT_EQ(ElementOf("vsFlashStopMulti 1 0x10 ", FLASH), "ACK");
  for (const auto& chips : {EEPROM, FLASH, ChipFactsByAddress()}) {
    EXPECT_TRUE(ElementOf("vsGetVsdMulti 1 0x10 ", chips).starts_with("ACK {data 0x7} {data 0x0}"));
    EXPECT_TRUE(ElementOf("crBSNGet 0x10 ", chips).starts_with("ACK {bsn 0x4c} {bsn 0x0}"));
  }
}

TEST(DeviceFactsTest, OtherKindOfMemoryIsRefused) {
  for (const char* request :
       {"vsI2cReadMulti 1 0x10 0x50 4 0x0 ", "vsI2cWriteMulti 1 0x10 0x0 4 0x0 0x1 ",
        "vsI2cBurnImageMulti 1 0x10 "}) {
    EXPECT_EQ(ElementOf(request, FLASH), "Device has a flash") << request;
  }
  for (const char* request :
       {"vsFlashReadMulti 1 0x10 0x50 4 0x0 ", "vsFlashEraseSectorMulti 1 0x10 0x50 0x0 ",
        "vsFlashGetAttrMulti 1 0x10 ", "vsFlashStartMulti 1 0x10  1"}) {
    EXPECT_EQ(ElementOf(request, EEPROM), "Device has no flash") << request;
    EXPECT_EQ(ElementOf(request, {}), "Device has no flash") << request;
  }
}

TEST(DeviceFactsTest, BytesAreInTheChip) {
  EXPECT_EQ(ElementOf("vsI2cReadMulti 1 0x10 0x50 8192 0x0 ", EEPROM), "memory");
  EXPECT_EQ(ElementOf("vsI2cReadMulti 1 0x10 0x50 8196 0x0 ", EEPROM), "Address out of range");
  EXPECT_EQ(ElementOf("vsI2cWriteMulti 1 0x10 0x50 4 0x1ffc 0x1 ", EEPROM), "memory");
  EXPECT_EQ(ElementOf("vsI2cWriteMulti 1 0x10 0x50 4 0x1ffd 0x1 ", EEPROM), "Address out of range");
  EXPECT_EQ(ElementOf("vsI2cReadMulti 1 0x10 0x50 4 0xffffffff ", EEPROM), "Address out of range");
  EXPECT_EQ(ElementOf("vsI2cReadMulti 1 0x10 0x51 4 0x0 ", EEPROM), "No chip at this address");
  EXPECT_EQ(ElementOf("vsFlashReadMulti 1 0x10 0x50 4 0x0 ", FLASH), "No chip at this address");
  EXPECT_EQ(ElementOf("vsFlashWriteMulti 1 0x10 0x0 4 0xffffc 0x1 ", FLASH), "memory");
}

TEST(DeviceFactsTest, EraseBeginsWhereASectorDoes) {
  EXPECT_EQ(ElementOf("vsFlashEraseSectorMulti 1 0x10 0x0 0xf0000 ", FLASH), "memory");
  EXPECT_EQ(ElementOf("vsFlashEraseSectorMulti 1 0x10 0x0 0x100000 ", FLASH),
            "Address out of range");
  EXPECT_EQ(ElementOf("vsFlashEraseSectorMulti 1 0x10 0x0 0x8000 ", FLASH),
            "Not the start of a sector");
}

TEST(DeviceFactsTest, ChipOfTheOtherKindBesideAFlashIsNotErased) {
  ChipFactsByAddress both = FLASH;
  both.insert(EEPROM.begin(), EEPROM.end());
  EXPECT_EQ(ElementOf("vsFlashEraseSectorMulti 1 0x10 0x50 0x0 ", both), "No chip at this address");
  EXPECT_EQ(ElementOf("vsFlashEraseSectorMulti 1 0x10 0x0 0x0 ", both), "memory");
}

TEST(DeviceFactsTest, ImageBurnNeedsTheMemory) {
  EXPECT_EQ(ElementOf("vsFlashBurnImageMulti 1 0x10 ", FLASH), "memory");
  EXPECT_EQ(ElementOf("vsI2cBurnImageMulti 1 0x10 ", EEPROM), "memory");
}

}  // namespace
}  // namespace protocol
