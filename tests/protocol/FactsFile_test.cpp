#include "protocol/FactsFile.h"

#include <gtest/gtest.h>

#include "tests/support/TomlTest.h"

namespace protocol {
namespace {

using common::TomlReader;

using FactsFileTest = TomlTest;

TEST_F(FactsFileTest, DeviceMayTellNoMoreThanItsGuid) {
  TomlReader reader = Reader("node_guid = '0x00aa550000000010'");
  const DeviceFacts facts = ReadDeviceFacts(reader);
  EXPECT_EQ(facts.node_guid, 0x00aa550000000010u);
  EXPECT_TRUE(facts.port_guids.empty());
  EXPECT_EQ(facts.sys_guid, facts.node_guid);
  EXPECT_EQ(facts.declared_ports, 0u);
  EXPECT_EQ(facts.name, "device");
  EXPECT_EQ(facts.attr, "none");
  EXPECT_EQ(facts.vsd, Bytes(208, 0));
  EXPECT_EQ(facts.bsn, Bytes(64, 0));
  reader.Finish();
}

TEST_F(FactsFileTest, DeviceMayTellAll) {
  TomlReader reader = Reader(
      "node_guid = '0x10'\nport_guids = ['0x11', '0x12']\nsystem_guid = '0x13'\nname = 'leaf-1'\n"
      "attribute = 'rev-a'\nvsd = '0x0102fF'\nbsn = 'L1'\n");
  const DeviceFacts facts = ReadDeviceFacts(reader);
  EXPECT_EQ(facts.port_guids, (Guids{0x11, 0x12}));
  EXPECT_EQ(facts.declared_ports, 2u);
  EXPECT_EQ(facts.sys_guid, 0x13u);
  EXPECT_EQ(facts.name, "leaf-1");
  EXPECT_EQ(facts.attr, "rev-a");
  Bytes vsd(208, 0);
  vsd[0] = 0x01;
  vsd[1] = 0x02;
  vsd[2] = 0xFF;
  EXPECT_EQ(facts.vsd, vsd);
  Bytes bsn(64, 0);
  bsn[0] = 'L';
  bsn[1] = '1';
  EXPECT_EQ(facts.bsn, bsn);
  reader.Finish();
}

TEST_F(FactsFileTest, WrongValueIsToldWithItsLine) {
  const std::string guid = "node_guid = '0x10'\n";
  const std::string digits = " must have two hexadecimal digits for each byte";
  const std::string no_guid = " must be a GUID such as \"0x00aa550000000010\"";
  const std::pair<std::string, std::string> cases[] = {
      {"", ":1: 'node_guid' is missing"},
      {"\nnode_guid = 16", ":2: 'node_guid'" + no_guid},
      {"\nnode_guid = '10'", ":2: 'node_guid'" + no_guid},
      {"\nnode_guid = '0x'", ":2: 'node_guid'" + no_guid},
      {"\nnode_guid = '0x1g'", ":2: 'node_guid'" + no_guid},
      {"\nnode_guid = '0x10000000000000000'", ":2: 'node_guid'" + no_guid},
      {guid + "port_guids = ['0x11',\n'x']", ":3: 'port_guids'" + no_guid},
      {guid + "port_guids = '0x11'", ":2: 'port_guids' must be an array"},
      {guid + "system_guid = ''", ":2: 'system_guid'" + no_guid},
      {guid + "name = 5", ":2: 'name' must be a string"},
      {guid + "bsn = '0x123'", ":1: 'bsn'" + digits},
      {guid + "vsd = '0x+1'", ":1: 'vsd'" + digits},
      {guid + "bsn = '" + std::string(65, 'x') + "'", ":1: 'bsn' has more than 64 bytes"},
      {guid + "vsd = '" + std::string(209, 'x') + "'", ":1: 'vsd' has more than 208 bytes"},
  };
  for (const auto& [text, refusal] : cases) {
    EXPECT_EQ(Refusal(text, [](TomlReader& reader) { ReadDeviceFacts(reader); }), refusal) << text;
  }
}

TEST_F(FactsFileTest, ServerTellsItsTypeAndHowManyDevicesARequestMayName) {
  for (const std::string type : {"I2C", "PCI", "PPC", "IB"}) {
    TomlReader reader = Reader("type = '" + type + "'\nmulti_max = 7\n");
    EXPECT_EQ(ReadServerType(reader), type);
    EXPECT_EQ(ReadMultiMax(reader), 7u);
  }
  TomlReader empty = Reader("");
  EXPECT_EQ(ReadServerType(empty), std::nullopt);
  EXPECT_EQ(ReadMultiMax(empty), std::nullopt);
  EXPECT_EQ(Refusal("type = 'USB'", [](TomlReader& reader) { ReadServerType(reader); }),
            ":1: 'type' must be I2C, PCI, PPC or IB");
  for (const char* text : {"multi_max = 0", "multi_max = 1000001"}) {
    EXPECT_EQ(Refusal(text, [](TomlReader& reader) { ReadMultiMax(reader); }),
              ":1: 'multi_max' must be a number from 1 to 1000000");
  }
}

}  // namespace
}  // namespace protocol
