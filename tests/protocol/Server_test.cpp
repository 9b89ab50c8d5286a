/// Servers and clients over sockets.
#include "protocol/Server.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <chrono>
#include <optional>
#include <system_error>

#include "protocol/Client.h"
#include "protocol/Listener.h"
#include "tests/protocol/FakeHandler.h"
#include "tests/protocol/LateHandler.h"

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

/// Whether the server closed the connection without having sent a byte.
bool IsTurnedAway(std::uint16_t port) { return Client(port).ReceiveBytes().empty(); }

TEST_F(ServerTest, OnlyAllowedPeersAreServed) {
  const ServerThread others(_handler, ServerOptions{.allow = ParseNetworks({"10.0.0.0/8"})});
  EXPECT_TRUE(IsTurnedAway(others.Port()));
  EXPECT_EQ(Client(others.Port()).Ask("IfcVersion"), std::nullopt);
  EXPECT_TRUE(_handler.commands.empty());
  const ServerThread mine(_handler,
                          ServerOptions{.allow = ParseNetworks({"10.0.0.0/8", "127.0.0.1"})});
  EXPECT_EQ(Client(mine.Port()).Ask("IfcVersion"), "answered");
}

TEST_F(ServerTest, NoMoreClientsThanAllowedAreServed) {
  const ServerThread server(_handler, ServerOptions{.connections = 2});
  std::optional<Client> first(server.Port());
  Client second(server.Port());
  EXPECT_EQ(first->Ask("IfcVersion"), "answered");
  EXPECT_EQ(second.Ask("IfcVersion"), "answered");
  EXPECT_TRUE(IsTurnedAway(server.Port()));
  first.reset();
  // The server learns of that some time later.
  std::optional<std::string> answer;
  for (int i = 0; i < 1000 && !answer; ++i) answer = Client(server.Port()).Ask("IfcVersion");
  EXPECT_EQ(answer, "answered");
}

TEST_F(ServerTest, MessageIsNotLongerThanAllowed) {
  const ServerThread server(_handler, ServerOptions{.max_message = 1000});
  Client client(server.Port());
  EXPECT_EQ(client.Ask("IfcVersion"), "answered");
  EXPECT_EQ(client.Ask(std::string(1001, 'x')), "ERROR:message too long");
  EXPECT_EQ(client.Ask("IfcVersion"), std::nullopt);
}

TEST_F(ServerTest, ClientThatAsksNothingIsDisconnected) {
  const ServerThread server(_handler, ServerOptions{.idle = milliseconds(300)});
  Client client(server.Port());
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 8; ++i) {
    std::this_thread::sleep_for(milliseconds(50));
    if (std::chrono::steady_clock::now() - start > milliseconds(250)) break;  // a busy machine
    EXPECT_EQ(client.Ask("IfcVersion"), "answered");
  }
  const auto last = std::chrono::steady_clock::now();
  EXPECT_EQ(client.ReceiveBytes(), "");
  EXPECT_GE(std::chrono::steady_clock::now() - last, milliseconds(100));
}

/// Over sockets, devices that answer when the test lets them.
class LateServerTest : public testing::Test {
 protected:
  /// Answers a request, in the thread of the server.
  void Answer(ServerThread& server, std::size_t request, const std::string& text) {
    ASSERT_TRUE(_handler.WaitForRequests(request + 1));
    server.BetweenRequests([&] { _handler.replies.at(request)->Send({.text = text}); });
  }
  bool WaitForEnds(std::size_t count) {
    return _handler.WaitUntil([&] { return _handler.gone.size() >= count; });
  }

  LateHandler _handler;
};

TEST_F(LateServerTest, ClientsWaitForTheirOwnAnswers) {
  ServerThread server(_handler);
  Client first(server.Port());
  Client second(server.Port());
  first.Send(Frame("one"));
  ASSERT_TRUE(_handler.WaitForRequests(1));
  second.Send(Frame("two"));
  Answer(server, 1, "2");
  EXPECT_EQ(second.Receive(), "2");
  Answer(server, 0, std::string(10000, 'a'));
  EXPECT_EQ(first.Receive(), std::string(10000, 'a'));
  EXPECT_NE(_handler.requests[0].first, _handler.requests[1].first);
}

TEST_F(LateServerTest, ClientIsKeptWaiting) {
  ServerThread server(_handler);
  Client client(server.Port());
  client.Send(Frame("one"));
  ASSERT_TRUE(_handler.WaitForRequests(1));
  for (int i = 0; i < 3; ++i) {
    server.BetweenRequests([&] { _handler.replies.at(0)->KeepWaiting(); });
    EXPECT_EQ(client.ReceiveBytes(), "\r");
  }
  Answer(server, 0, "1");
  EXPECT_EQ(client.ReceiveBytes(), Frame("1"));
}

TEST_F(LateServerTest, RequestsThatCameEarlyAreAnsweredInTurn) {
  ServerThread server(_handler);
  Client client(server.Port());
  client.Send(Frame("one") + Frame("two") + Frame("three"));
  for (const std::size_t i : {0u, 1u, 2u}) {
    ASSERT_TRUE(_handler.WaitForRequests(i + 1));
    EXPECT_EQ(_handler.requests.size(), i + 1);
    Answer(server, i, std::to_string(i));
    EXPECT_EQ(client.Receive(), std::to_string(i));
  }
}

TEST_F(LateServerTest, EndOfAConnectionIsNoticedWhileItsRequestIsUnderWay) {
  ServerThread server(_handler);
  std::optional<Client> client(server.Port());
  client->Send(Frame("one"));
  ASSERT_TRUE(_handler.WaitForRequests(1));
  client.reset();
  ASSERT_TRUE(WaitForEnds(1));
  EXPECT_THAT(_handler.gone, ElementsAre(_handler.requests[0].first));
  Answer(server, 0, "goes nowhere");
  EXPECT_TRUE(server.Exchanges().empty());
}

TEST_F(LateServerTest, EveryConnectionIsToldAndItsEndOnce) {
  {
    const ServerThread server(_handler);
    const Client first(server.Port());
    const Client second(server.Port());
    ASSERT_TRUE(_handler.WaitUntil([&] { return _handler.peers.size() == 2; }));
    EXPECT_THAT(_handler.peers.begin()->second, testing::StartsWith("127.0.0.1:"));
  }
  EXPECT_EQ(_handler.gone.size(), 2u);
}

TEST_F(LateServerTest, SlowRequestIsNoIdleness) {
  // On a busy machine a client, too, may be late.
  ServerThread server(_handler, ServerOptions{.idle = milliseconds(1000)});
  Client client(server.Port());
  client.Send(Frame("one"));
  ASSERT_TRUE(_handler.WaitForRequests(1));
  std::this_thread::sleep_for(milliseconds(2500));
  Answer(server, 0, "1");
  EXPECT_EQ(client.Receive(), "1");
  EXPECT_EQ(client.ReceiveBytes(), "") << "but then it is idle";
}

TEST_F(LateServerTest, FinishedServerAnswersWhatIsUnderWay) {
  ServerThread server(_handler);
  Client busy(server.Port());
  Client idle(server.Port());
  busy.Send(Frame("one"));
  ASSERT_TRUE(_handler.WaitForRequests(1));
  ASSERT_TRUE(_handler.WaitUntil([&] { return _handler.peers.size() == 2; }));
  std::thread finisher([&] { server.Finish(); });
  EXPECT_EQ(idle.ReceiveBytes(), "");
  EXPECT_THROW(Client late(server.Port()), std::system_error);
  Answer(server, 0, std::string(5000, 'a'));
  EXPECT_EQ(busy.Receive(), std::string(5000, 'a'));
  EXPECT_EQ(busy.ReceiveBytes(), "");
  finisher.join();
}

TEST_F(LateServerTest, FinishedServerDoesNotWaitForWhoTakesNoAnswer) {
  ServerThread server(_handler);
  Client client(server.Port());
  client.Send(Frame("one"));
  ASSERT_TRUE(_handler.WaitForRequests(1));
  // Of several pieces: the client never agrees to the second.
  Answer(server, 0, std::string(3 << 20, 'a'));
  server.Finish();
  EXPECT_TRUE(WaitForEnds(1));
}

TEST_F(LateServerTest, FinishedServerTakesNoFurtherRequest) {
  ServerThread server(_handler);
  Client client(server.Port());
  client.Send(Frame("one") + Frame("two"));
  ASSERT_TRUE(_handler.WaitForRequests(1));
  std::thread finisher([&] { server.Finish(); });
  // Finish is a task like that of Answer, and may come after it.
  while (true) {
    try {
      const Client probe(server.Port());
    } catch (const std::system_error&) {
      break;
    }
  }
  Answer(server, 0, "1");
  EXPECT_EQ(client.Receive(), "1");
  EXPECT_EQ(client.ReceiveBytes(), "");
  finisher.join();
  EXPECT_EQ(_handler.requests.size(), 1u);
}

TEST_F(LateServerTest, ServerThatIsFinishedTwiceEndsAtOnce) {
  EventLoop loop;
  Server server(loop, _handler, {});
  Client client(server.Port());
  std::thread serving([&] { server.Run(); });
  client.Send(Frame("never answered"));
  ASSERT_TRUE(_handler.WaitForRequests(1));
  server.Finish();
  server.Finish();
  serving.join();
  EXPECT_EQ(_handler.requests.size(), 1u);
}

TEST_F(LateServerTest, FinishedServerWithoutClientsEnds) {
  ServerThread server(_handler);
  server.Finish();
  EXPECT_THROW(Client late(server.Port()), std::system_error);
}

TEST_F(LateServerTest, LoopOutlivesItsServer) {
  EventLoop loop;
  {
    Server server(loop, _handler, {});
    const Client client(server.Port());
    loop.CallAt(EventLoop::Clock::now() + milliseconds(50), [&] { loop.Stop(); });
    loop.Run();
    EXPECT_EQ(_handler.peers.size(), 1u);
  }
  EXPECT_EQ(_handler.gone.size(), 1u);
  loop.CallAt(EventLoop::Clock::now() + milliseconds(50), [&] { loop.Stop(); });
  loop.Run();
}

/// The server's end of the connection of a client.
int SocketOf(const std::string& peer) {
  for (int fd = 0; fd < 1024; ++fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
        address.sin_family == AF_INET &&
        peer == "127.0.0.1:" + std::to_string(ntohs(address.sin_port))) {
      return fd;
    }
  }
  return -1;
}

TEST_F(LateServerTest, DeadClientsAreFoundOutWhereThatIsAskedFor) {
  for (const bool is_keep_alive : {false, true}) {
    LateHandler handler;
    const ServerThread server(handler, ServerOptions{.is_keep_alive = is_keep_alive});
    const Client client(server.Port());
    ASSERT_TRUE(handler.WaitUntil([&] { return !handler.peers.empty(); }));
    const int fd = SocketOf(handler.peers.begin()->second);
    ASSERT_GE(fd, 0);
    const auto option = [fd](int level, int name) {
      int value = -1;
      socklen_t size = sizeof value;
      EXPECT_EQ(getsockopt(fd, level, name, &value, &size), 0);
      return value;
    };
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE) != 0, is_keep_alive);
    if (!is_keep_alive) continue;
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 10);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPINTVL), 5);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPCNT), 3);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_USER_TIMEOUT), 25000);
  }
}

TEST_F(ServerTest, SocketThatListensAlreadyIsTakenOver) {
  const Listener listener;
  const ServerThread server(_handler, ServerOptions{.descriptor = dup(listener.Get())});
  EXPECT_EQ(server.ServerString(), "PCI:127.0.0.1:" + std::to_string(listener.Port()));
  EXPECT_EQ(Client(listener.Port()).Ask("IfcVersion"), "answered");
}

TEST_F(ServerTest, SocketForBothVersionsOfAddressesKnowsThemAsPlainOnes) {
  common::Descriptor both(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int off = 0;
  sockaddr_in6 any{};
  any.sin6_family = AF_INET6;
  if (!both.IsOpen() || setsockopt(both.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) != 0 ||
      bind(both.Get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0 ||
      listen(both.Get(), 5) != 0) {
    GTEST_SKIP() << "this machine has no IPv6";
  }
  LateHandler handler;
  const ServerThread server(handler, ServerOptions{.descriptor = both.Release(),
                                                   .allow = ParseNetworks({"127.0.0.0/8"})});
  const Client client(server.Port());
  ASSERT_TRUE(handler.WaitUntil([&] { return !handler.peers.empty(); }));
  EXPECT_THAT(handler.peers.begin()->second, testing::StartsWith("127.0.0.1:"));
}

TEST_F(ServerTest, DescriptorThatDoesNotListenIsRefused) {
  common::Descriptor deaf(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  common::Descriptor datagrams(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  for (const int descriptor : {deaf.Get(), datagrams.Get(), 1000000}) {
    try {
      EventLoop loop;
      const Server server(loop, _handler, {.descriptor = descriptor});
      FAIL();
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr("can't listen on the passed descriptor " +
                                          std::to_string(descriptor) + ": "));
    }
  }
}

}  // namespace
}  // namespace protocol
