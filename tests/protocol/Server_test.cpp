/// Servers and clients over sockets.
#include "protocol/Server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <system_error>

#include "protocol/Client.h"
#include "tests/protocol/FakeHandler.h"

namespace protocol {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

class ServerTest : public testing::Test {
 protected:
  FakeHandler _handler;
};

TEST_F(ServerTest, ClientsAreServedAtOnceAndOneAfterTheOther) {
  ServerThread server(_handler);
  EXPECT_EQ(server.ServerString(), "PCI:127.0.0.1:" + std::to_string(server.Port()));
  {
    Client first(server.Port());
    Client second(server.Port());
    for (Client* client : {&second, &first, &second}) {
      EXPECT_EQ(client->Ask("vsMultiMaxGet"), "answered");
    }
  }
  EXPECT_EQ(Client(server.Port()).Ask("IfcVersion"), "answered");
  EXPECT_THAT(server.Requests(),
              ElementsAre("vsMultiMaxGet", "vsMultiMaxGet", "vsMultiMaxGet", "IfcVersion"));
  EXPECT_EQ(server.Exchanges().front().answer, "answered");
  server.ForgetExchanges();
  EXPECT_TRUE(server.Requests().empty());
}

TEST_F(ServerTest, LongAnswerComesWhole) {
  _handler.answer.text = std::string(100000, 'a') + "b";
  ServerThread server(_handler);
  EXPECT_EQ(Client(server.Port()).Ask("IfcVersion"), _handler.answer.text);
}

TEST_F(ServerTest, PortInUseIsRefusedWithAReason) {
  const Server server(_handler, "127.0.0.1", 0);
  try {
    const Server second(_handler, "127.0.0.1", server.Port());
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("can't listen on 127.0.0.1:"));
  }
}

TEST_F(ServerTest, DelayedAnswerComesLate) {
  _handler.answer.milliseconds = 100;
  ServerThread server(_handler);
  Client client(server.Port());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client.Ask("vsMultiMaxGet"), "answered");
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(100));
}

TEST_F(ServerTest, ClientIsToldNothingWhereTheConnectionEnds) {
  ServerThread server(_handler);
  for (const auto delivery :
       {Answer::CLOSE_BEFORE, Answer::CLOSE_INSIDE, Answer::RESET, Answer::SILENCE}) {
    server.BetweenRequests([&] { _handler.answer.delivery = delivery; });
    EXPECT_EQ(Client(server.Port()).Ask("vsMultiMaxGet", milliseconds(200)), std::nullopt);
  }
  server.BetweenRequests([&] { _handler.answer.delivery = Answer::CLOSE_AFTER; });
  Client client(server.Port());
  EXPECT_EQ(client.Ask("vsMultiMaxGet"), "answered");
  EXPECT_EQ(client.Ask("vsMultiMaxGet"), std::nullopt);
}

TEST_F(ServerTest, WhatATaskThrowsIsThrown) {
  ServerThread server(_handler);
  EXPECT_THROW(server.BetweenRequests([] { throw std::runtime_error("wrong"); }),
               std::runtime_error);
}

TEST_F(ServerTest, NobodyIsConnectedToWhereNoServerIs) {
  std::uint16_t port = 0;
  {
    const Server gone(_handler, "127.0.0.1", 0);
    port = gone.Port();
  }
  EXPECT_THROW(Client client(port), std::system_error);
}

}  // namespace
}  // namespace protocol
