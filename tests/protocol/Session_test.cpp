#include "protocol/Session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "tests/protocol/FakeHandler.h"

namespace protocol {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SessionTest : public testing::Test {
 protected:
  /// All that is to be done for `bytes`, which come in pieces of `size`.
  std::string StepsFor(const std::string& bytes, std::size_t size = 100) {
    std::string all;
    for (std::size_t i = 0; i < bytes.size(); i += size) {
      for (const Step& step : _session->Feed(std::string_view(bytes).substr(i, size))) {
        switch (step.kind) {
          case Step::SEND:
            all += step.bytes;
            break;
          case Step::WAIT:
            all += "<wait " + std::to_string(step.milliseconds) + ">";
            break;
          case Step::CLOSE:
            all += "<close>";
            break;
          case Step::RESET:
            all += "<reset>";
            break;
        }
      }
    }
    return all;
  }
  std::string AnswerTo(const std::string& request) { return StepsFor(Frame(request)); }

  FakeHandler _handler;
  std::optional<Session> _session{_handler};
};

TEST_F(SessionTest, RequestIsAnsweredHoweverItsBytesArrive) {
  const std::string bytes = "noise\nNEW_BUF\nold\nNEW_BUF\r\nvsMultiMaxGet\nEND_BUF\n";
  for (std::size_t size = 1; size <= bytes.size(); ++size) {
    EXPECT_EQ(StepsFor(bytes, size), Frame("answered")) << size;
  }
}

TEST_F(SessionTest, SeveralRequestsAreAnsweredInOrder) {
  EXPECT_EQ(StepsFor(Frame("vsMultiMaxGet") + Frame("IfcVersion")),
            Frame("answered") + Frame("answered"));
  EXPECT_THAT(_handler.commands, ElementsAre("vsMultiMaxGet", "IfcVersion"));
}

TEST_F(SessionTest, RefusedRequestIsAnErrorOfAll) {
  EXPECT_EQ(AnswerTo("vsFormat"), Frame("ERROR:unknown command"));
  EXPECT_THAT(_handler.commands, IsEmpty());
  EXPECT_EQ(AnswerTo("vsGetVsdMulti 2 0x10 0x20 "), Frame("ERROR:too many for me"));
}

TEST_F(SessionTest, LongAnswerWaitsForAgreementAfterEachPiece) {
  _handler.answer.text = std::string(4000, 'a') + std::string(4000, 'b') + "c";
  EXPECT_EQ(AnswerTo("IfcVersion"), "NEW_BUF\n" + std::string(4000, 'a') + "\nTO_BE_CONT\n");
  EXPECT_EQ(AnswerTo("NsContinue"), "CONT_BUF\n" + std::string(4000, 'b') + "\nTO_BE_CONT\n");
  EXPECT_EQ(AnswerTo("NsContinue"), "CONT_BUF\nc\nEND_BUF\n");
  EXPECT_EQ(AnswerTo("NsContinue"), Frame("ERROR:unknown command"));
}

TEST_F(SessionTest, ImageFollowsTheRequestThatItIsFor) {
  _handler.answer.burn_images = {0x10, 0x20};
  EXPECT_EQ(AnswerTo("vsFlashBurnImageMulti 1 0x10"), Frame("answered"));
  EXPECT_EQ(StepsFor("NEW_BUF\nSTART A 0 0\n1 2 3 4\nTO_BE_CONT\n", 5), Frame("NsContinue"));
  EXPECT_EQ(StepsFor("CONT_BUF\n\nEND A\n\nEND_BUF\n", 5), Frame("burnt"));
  EXPECT_THAT(_handler.images, ElementsAre("START A 0 0\n1 2 3 4\nEND A\n"));
  EXPECT_THAT(_handler.image_devices, ElementsAre(0x10u, 0x20u));
  _handler.answer.burn_images = {};
  EXPECT_EQ(AnswerTo("IfcVersion"), Frame("answered"));
  EXPECT_EQ(_handler.images.size(), 1u);
}

TEST_F(SessionTest, ConnectionEndsWhereTheAnswerSaysSo) {
  const std::pair<Answer::Delivery, std::string> deliveries[] = {
      {Answer::SILENCE, ""},
      {Answer::CLOSE_BEFORE, "<close>"},
      {Answer::CLOSE_INSIDE, "NEW_BUF\nansw<close>"},
      {Answer::CLOSE_AFTER, Frame("answered") + "<close>"},
      {Answer::RESET, "<reset>"}};
  for (const auto& [delivery, steps] : deliveries) {
    _handler.answer.delivery = delivery;
    _session.emplace(_handler);
    EXPECT_EQ(AnswerTo("vsMultiMaxGet"), steps);
    const std::size_t before = _handler.commands.size();
    EXPECT_EQ(AnswerTo("vsMultiMaxGet"), "");
    EXPECT_EQ(_handler.commands.size() == before, delivery != Answer::SILENCE);
  }
}

TEST_F(SessionTest, LateAnswerIsWaitedForFirst) {
  _handler.answer.milliseconds = 7;
  EXPECT_EQ(AnswerTo("vsMultiMaxGet"), "<wait 7>" + Frame("answered"));
}

TEST_F(SessionTest, RequestThatThereIsNoMemoryForIsAnError) {
  _handler.has_no_memory = true;
  EXPECT_EQ(AnswerTo("vsMultiMaxGet"), Frame("ERROR:std::bad_alloc"));
  _handler.has_no_memory = false;
  EXPECT_EQ(AnswerTo("vsMultiMaxGet"), Frame("answered"));
}

TEST_F(SessionTest, MessageThatIsTooLongEndsTheConnection) {
  const std::string block(std::size_t{1} << 20, 'x');
  for (int i = 0; i < 256; ++i) ASSERT_TRUE(_session->Feed(block).empty()) << i;
  EXPECT_EQ(StepsFor("x"), Frame("ERROR:message too long") + "<close>");
  EXPECT_EQ(AnswerTo("vsMultiMaxGet"), "");
}

TEST_F(SessionTest, TraceGetsRequestAndAnswer) {
  std::string traced;
  _session->trace = [&](const std::string& request, const std::string& answer) {
    traced += request + "|" + answer;
  };
  AnswerTo("vsMultiMaxGet");
  EXPECT_EQ(traced, "vsMultiMaxGet|answered");
}

}  // namespace
}  // namespace protocol
