#include "protocol/Frames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace protocol {
namespace {

using testing::ElementsAre;

/// What `bytes`, which come in pieces of `size`, complete: messages, and "+" for each piece that
/// another follows.
std::vector<std::string> Events(MessageReader& reader, std::string_view bytes, std::size_t size) {
  std::vector<std::string> events;
  for (std::size_t i = 0; i < bytes.size(); i += size) {
    for (const MessageReader::Event& event : reader.Feed(bytes.substr(i, size))) {
      events.push_back(event.kind == MessageReader::Event::PIECE      ? "+"
                       : event.kind == MessageReader::Event::TOO_LONG ? "too long"
                                                                      : event.text);
    }
  }
  return events;
}

TEST(FramesTest, MessageStandsBetweenMarkers) {
  EXPECT_EQ(Frame("IfcVersion"), "NEW_BUF\nIfcVersion\nEND_BUF\n");
  EXPECT_EQ(Frame(""), "NEW_BUF\n\nEND_BUF\n");
}

TEST(FramesTest, LinesComeOutHoweverTheirBytesArrive) {
  LineReader lines;
  EXPECT_EQ(lines.Next(), std::nullopt);
  lines.Feed("a\nb");
  EXPECT_EQ(lines.Next(), "a");
  EXPECT_EQ(lines.Next(), std::nullopt);
  EXPECT_EQ(lines.Rest(), 1u);
  lines.Feed("c");
  EXPECT_EQ(lines.Next(), std::nullopt);
  lines.Feed("\r\n\nd");
  EXPECT_EQ(lines.Next(), "bc\r");
  EXPECT_EQ(lines.Next(), "");
  EXPECT_EQ(lines.Next(), std::nullopt);
  EXPECT_EQ(lines.Rest(), 1u);
}

TEST(FramesTest, MessagesComeOutHoweverTheirBytesArrive) {
  const std::string bytes =
      "noise\nNEW_BUF\nold\nNEW_BUF\r\nfirst\r\nEND_BUF\nNEW_BUF\n\nEND_BUF\n";
  for (std::size_t size = 1; size <= bytes.size(); ++size) {
    MessageReader reader(MessageReader::Lines::KEPT);
    EXPECT_THAT(Events(reader, bytes, size), ElementsAre("first", "")) << size;
  }
}

TEST(FramesTest, ServerKeepsLineFeedsInsideAPieceAndClientsJoinLines) {
  const std::string bytes =
      "NEW_BUF\na\nb\nTO_BE_CONT\nnoise\nCONT_BUF\n\nc\nTO_BE_CONT\nCONT_BUF\nd\nEND_BUF\n";
  MessageReader server(MessageReader::Lines::KEPT);
  EXPECT_THAT(Events(server, bytes, 7), ElementsAre("+", "+", "a\nb\ncd"));
  MessageReader client(MessageReader::Lines::JOINED);
  EXPECT_THAT(Events(client, bytes, 7), ElementsAre("+", "+", "abcd"));
}

TEST(FramesTest, ClientDropsWhatKeepsItWaitingWhereverItComes) {
  const std::string bytes = "NEW_BUF\nab c\nd\nEND_BUF\n";
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    MessageReader reader(MessageReader::Lines::JOINED);
    std::string kept_waiting = bytes;
    kept_waiting.insert(at, "\r\r");
    EXPECT_THAT(Events(reader, kept_waiting, 5), ElementsAre("ab cd")) << at;
  }
}

TEST(FramesTest, MessageWithoutEndIsGivenUp) {
  MessageReader reader(MessageReader::Lines::KEPT);
  const std::string block(std::size_t{1} << 20, 'x');
  for (int i = 0; i < 256; ++i) ASSERT_TRUE(reader.Feed(block).empty()) << i;
  EXPECT_THAT(Events(reader, "x", 1), ElementsAre("too long"));
  EXPECT_TRUE(reader.Feed("\nNEW_BUF\nlate\nEND_BUF\n").empty());
}

TEST(FramesTest, LinesTogetherMayNotBeTooLongEither) {
  MessageReader reader(MessageReader::Lines::KEPT);
  const std::string line = std::string((std::size_t{1} << 20) - 1, 'x') + "\n";
  for (int i = 0; i < 256; ++i) ASSERT_TRUE(reader.Feed(line).empty()) << i;
  EXPECT_THAT(Events(reader, "x\n", 2), ElementsAre("too long"));
}

TEST(FramesTest, LongMessageIsCutIntoPiecesOfOneSize) {
  MessageWriter writer(std::string(4000, 'a') + std::string(4000, 'b') + "c");
  EXPECT_EQ(writer.Next(), "NEW_BUF\n" + std::string(4000, 'a') + "\nTO_BE_CONT\n");
  EXPECT_FALSE(writer.IsDone());
  EXPECT_EQ(writer.Next(), "CONT_BUF\n" + std::string(4000, 'b') + "\nTO_BE_CONT\n");
  EXPECT_EQ(writer.Next(), "CONT_BUF\nc\nEND_BUF\n");
  EXPECT_TRUE(writer.IsDone());
}

TEST(FramesTest, ShortAndEmptyMessagesAreOnePiece) {
  MessageWriter empty("");
  EXPECT_FALSE(empty.IsDone());
  EXPECT_EQ(empty.Next(), Frame(""));
  EXPECT_TRUE(empty.IsDone());
  MessageWriter whole(std::string(4000, 'a'));
  EXPECT_EQ(whole.Next(), Frame(std::string(4000, 'a')));
  EXPECT_TRUE(whole.IsDone());
  EXPECT_TRUE(MessageWriter().IsDone());
}

}  // namespace
}  // namespace protocol
