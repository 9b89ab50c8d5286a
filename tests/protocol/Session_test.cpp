#include "protocol/Session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "tests/protocol/FakeHandler.h"
#include "tests/protocol/LateHandler.h"

namespace protocol {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string Told(const Steps& steps) {
  std::string all;
  for (const Step& step : steps) {
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
  return all;
}

class SessionTest : public testing::Test {
 protected:
  /// All that is to be done for `bytes`, which come in pieces of `size`.
  std::string StepsFor(const std::string& bytes, std::size_t size = 100) {
    std::string all;
    for (std::size_t i = 0; i < bytes.size(); i += size) {
      all += Told(_session->Feed(std::string_view(bytes).substr(i, size)));
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

TEST_F(SessionTest, LimitOfAMessageHoldsForAllItsLines) {
  _session.emplace(_handler, 1, "peer", 100);
  EXPECT_EQ(AnswerTo(std::string(90, ' ')), Frame("ERROR:empty request"));
  EXPECT_EQ(AnswerTo(std::string(50, ' ') + "\n" + std::string(50, ' ')),
            Frame("ERROR:message too long") + "<close>");
}

/// A session whose requests take their time.
class LateSessionTest : public testing::Test {
 protected:
  static constexpr std::size_t MAX_SIZE = 1000;

  void SetUp() override {
    _session->later = [this](const Steps& steps) { _later += Told(steps); };
  }
  std::string Ask(const std::string& request) { return Told(_session->Feed(Frame(request))); }
  std::vector<std::string> Requests() const {
    std::vector<std::string> requests;
    for (const auto& [client, text] : _handler.requests) requests.push_back(text);
    return requests;
  }
  void Answer(std::size_t request, const std::string& text) {
    _handler.replies.at(request)->Send({.text = text});
  }

  LateHandler _handler;
  std::optional<Session> _session{std::in_place, _handler, ClientId{7}, "10.0.0.1:99", MAX_SIZE};
  std::string _later;
};

TEST_F(LateSessionTest, AnswerComesLater) {
  EXPECT_EQ(Ask("one"), "");
  EXPECT_TRUE(_session->IsWaiting());
  Answer(0, "1");
  EXPECT_EQ(_later, Frame("1"));
  EXPECT_FALSE(_session->IsWaiting());
  EXPECT_THAT(_handler.requests, ElementsAre(std::pair(ClientId{7}, "one")));
}

TEST_F(LateSessionTest, OneRequestIsUnderWayAtATime) {
  EXPECT_EQ(Told(_session->Feed(Frame("one") + Frame("two") + "NEW_BUF\nth")), "");
  EXPECT_EQ(Told(_session->Feed("ree\nTO_BE_CONT\n")), "");
  EXPECT_THAT(Requests(), ElementsAre("one"));
  Answer(0, "1");
  EXPECT_EQ(_later, Frame("1"));
  EXPECT_THAT(Requests(), ElementsAre("one")) << "the answer is to be sent first";
  EXPECT_EQ(Told(_session->Resume()), "");
  EXPECT_THAT(Requests(), ElementsAre("one", "two"));
  Answer(1, "2");
  EXPECT_EQ(Told(_session->Resume()), Frame("NsContinue"));
  EXPECT_EQ(Told(_session->Feed("CONT_BUF\n\nEND_BUF\n")), "");
  EXPECT_THAT(Requests(), ElementsAre("one", "two", "three"));
}

TEST_F(LateSessionTest, KeptInputIsTakenBeforeWhatComesNext) {
  Ask("one");
  Ask("two");
  Answer(0, "1");
  EXPECT_EQ(Ask("three"), "");
  EXPECT_THAT(Requests(), ElementsAre("one", "two"));
}

TEST_F(LateSessionTest, LongAnswerThatComesLateIsSentInPieces) {
  Ask("one");
  Answer(0, std::string(4000, 'a') + "b");
  EXPECT_EQ(_later, "NEW_BUF\n" + std::string(4000, 'a') + "\nTO_BE_CONT\n");
  EXPECT_EQ(Ask("NsContinue"), "CONT_BUF\nb\nEND_BUF\n");
}

TEST_F(LateSessionTest, ClientIsKeptWaitingUntilTheAnswer) {
  Ask("one");
  const auto reply = _handler.replies[0];
  reply->KeepWaiting();
  reply->KeepWaiting();
  EXPECT_EQ(_later, "\r\r");
  reply->Send({.text = "1"});
  reply->KeepWaiting();
  reply->Send({.text = "2"});
  EXPECT_EQ(_later, "\r\r" + Frame("1"));
}

TEST_F(LateSessionTest, ReplyThatIsKeptSaysNothingAboutLaterRequests) {
  Ask("one");
  Answer(0, "1");
  Ask("two");
  _later.clear();
  _handler.replies[0]->KeepWaiting();
  Answer(0, "old");
  EXPECT_EQ(_later, "");
  Answer(1, "2");
  EXPECT_EQ(_later, Frame("2"));
}

TEST_F(LateSessionTest, ReplyThatIsLetGoOfIsUsedAgain) {
  Ask("one");
  const Reply* const first = _handler.replies[0].get();
  Answer(0, "1");
  _handler.replies[0].reset();
  Ask("two");
  EXPECT_EQ(_handler.replies[1].get(), first);
  Answer(1, "2");
  EXPECT_EQ(_later, Frame("1") + Frame("2"));
}

TEST_F(LateSessionTest, ConnectionThatHasEndedGetsNothing) {
  EXPECT_EQ(_handler.peers.at(7), "10.0.0.1:99");
  Ask("one");
  _session->Close();
  EXPECT_THAT(_handler.gone, ElementsAre(7u));
  EXPECT_FALSE(_session->IsWaiting());
  _session.reset();
  EXPECT_THAT(_handler.gone, ElementsAre(7u)) << "told once";
  _handler.replies[0]->KeepWaiting();
  Answer(0, "1");
  EXPECT_EQ(_later, "");
}

TEST_F(LateSessionTest, MoreThanALongMessageIsNotKept) {
  Ask("one");
  std::size_t size = 0;
  std::string told;
  while (told.empty() && size < 3 * MAX_SIZE) {
    told = Ask("two");
    size += Frame("two").size();
  }
  EXPECT_EQ(told, Frame("ERROR:more requests than are kept") + "<close>");
  EXPECT_LE(size, MAX_SIZE);
  Answer(0, "1");
  EXPECT_EQ(_later, "");
  EXPECT_EQ(Ask("three"), "");
  EXPECT_THAT(Requests(), ElementsAre("one"));
}

TEST_F(LateSessionTest, AnswerMayComeBeforeTheRequestWasTakenWhole) {
  class : public LateHandler {
    void Start(ClientId, std::string_view text, std::shared_ptr<Reply> reply) override {
      reply->KeepWaiting();
      if (text == "throw") throw std::runtime_error("no memory");
      reply->Send({.text = "at once"});
      throw std::runtime_error("too late");
    }
  } handler;
  Session session(handler);
  EXPECT_EQ(Told(session.Feed(Frame("one"))), "\r" + Frame("at once"));
  EXPECT_EQ(Told(session.Feed(Frame("throw"))), "\r" + Frame("ERROR:no memory"));
  EXPECT_FALSE(session.IsWaiting());
}

TEST_F(LateSessionTest, ImagesAreNotBurntUnlessTheHandlerSaysHow) {
  Ask("one");
  _handler.replies[0]->Send({.text = "ACK", .burn_images = Guids{1}});
  EXPECT_EQ(Ask("image"), Frame("ERROR:images are not burnt"));
}

TEST_F(LateSessionTest, FinishedSessionAnswersWhatIsUnderWay) {
  EXPECT_FALSE(_session->IsFinished());
  Ask("one");
  Ask("two");
  _session->Finish();
  EXPECT_FALSE(_session->IsFinished());
  Answer(0, std::string(4000, 'a') + "b");
  EXPECT_FALSE(_session->IsFinished()) << "a piece is left";
  EXPECT_EQ(Told(_session->Resume()), "<close>") << "the next request";
  EXPECT_THAT(Requests(), ElementsAre("one"));
}

TEST_F(LateSessionTest, FinishedSessionSendsTheLastPiece) {
  Ask("one");
  _session->Finish();
  Answer(0, std::string(4000, 'a') + "b");
  EXPECT_EQ(Ask("NsContinue"), "CONT_BUF\nb\nEND_BUF\n");
  EXPECT_TRUE(_session->IsFinished());
}

TEST_F(LateSessionTest, TraceGetsTheRequestWithItsLateAnswer) {
  std::string traced;
  _session->trace = [&](const std::string& request, const std::string& answer) {
    traced += request + "|" + answer;
  };
  Ask("one");
  EXPECT_EQ(traced, "");
  Answer(0, "1");
  EXPECT_EQ(traced, "one|1");
}

}  // namespace
}  // namespace protocol
