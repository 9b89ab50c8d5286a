#include "protocol/Answer.h"

#include <gtest/gtest.h>

namespace protocol {
namespace {

const Bytes BYTES{0, 0, 1, 2, 0xAB, 0xCD, 0xEF, 0x01, 0x55};

TEST(AnswerTest, ErrorsNameTheirDevice) {
  EXPECT_EQ(RequestError("unknown command"), "ERROR:unknown command");
  EXPECT_EQ(DeviceError(0x10, "No such device"), "ERROR:0x0000000000000010:No such device");
}

TEST(AnswerTest, DataIsWordsWithoutLeadingZeros) {
  EXPECT_EQ(DataElement(BYTES, 8), "ACK {data 0x102} {data 0xabcdef01}");
  EXPECT_EQ(DataElement(BYTES, 0), "ACK");
  EXPECT_EQ(DataElement(Bytes(4, 0), 4), "ACK {data 0x0}");
}

TEST(AnswerTest, LastWordIsFilledUp) {
  EXPECT_EQ(DataElement(BYTES, 5), "ACK {data 0x102} {data 0xabcdef01}");
  EXPECT_EQ(DataElement(BYTES, 9), "ACK {data 0x102} {data 0xabcdef01} {data 0x55ffffff}");
}

TEST(AnswerTest, SerialNumberIsBytes) {
  EXPECT_EQ(BsnElement(Bytes{0x4C, 0x31, 0}), "ACK {bsn 0x4c} {bsn 0x31} {bsn 0x0}");
}

TEST(AnswerTest, AttributesAreHexadecimalWithoutAPrefix) {
  EXPECT_EQ(AttributesElement(0x10000, 0x100000), "{sector_size=10000 size=100000}");
  EXPECT_EQ(AttributesElement(0x1000, 0x1000000, 256),
            "{sector_size=1000 size=1000000 page_size=100}");
}

TEST(AnswerTest, RecordHasTheFieldsOfAPortInOrder) {
  EXPECT_EQ(RecordElement({.device = 11,
                           .port = 2,
                           .system_guid = 0x13,
                           .node_guid = 0x10,
                           .port_guid = 0x12,
                           .ports = 2,
                           .name = "leaf-1",
                           .attribute = "rev-a"}),
            "{device 11 2 0x0000000000000013 0x0000000000000010 0x0000000000000012 2 leaf-1 "
            "rev-a}");
}

TEST(AnswerTest, OneWordStandsForAllThatSayIt) {
  const Request write = ParseRequest("vsFlashEraseSectorMulti 2 0x10 0x20 0x0 0x0 ");
  EXPECT_EQ(JoinElements(write, {ACK, ACK}), "ACK");
  EXPECT_EQ(JoinElements(write, {ACK, "ERROR:0x20:no"}), "ACK {ERROR:0x20:no}");
  EXPECT_EQ(JoinElements(write, {ACK}), "ACK") << "an element too few";
  EXPECT_EQ(JoinElements(write, {ACK, ACK, ACK}), "ACK ACK ACK");
}

TEST(AnswerTest, ReadIsAListForEachDevice) {
  const Request read = ParseRequest("vsFlashReadMulti 1 0x10 0x0 0 0x0 ");
  EXPECT_EQ(JoinElements(read, {DataElement({}, 0)}), "{ACK}");
  EXPECT_EQ(JoinElements(read, {}), "");
}

}  // namespace
}  // namespace protocol
