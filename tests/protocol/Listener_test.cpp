#include "protocol/Listener.h"

#include <gtest/gtest.h>

#include <thread>

#include "protocol/Client.h"

namespace protocol {
namespace {

TEST(ListenerTest, ClientsAreTakenOneByOne) {
  const Listener listener;
  EXPECT_FALSE(listener.TryAccept().IsOpen());
  const Client first(listener.Port());
  const Client second(listener.Port());
  EXPECT_TRUE(listener.Accept().IsOpen());
  EXPECT_TRUE(listener.TryAccept().IsOpen());
  EXPECT_FALSE(listener.TryAccept().IsOpen());
}

TEST(ListenerTest, WaitForAClientCanBeEnded) {
  const Listener listener;
  bool has_come = true;
  std::thread waiting([&] { has_come = listener.Accept().IsOpen(); });
  listener.Stop();
  waiting.join();
  EXPECT_FALSE(has_come);
}

TEST(ListenerTest, EachHasAPortOfItsOwn) {
  const Listener first;
  const Listener second;
  EXPECT_NE(first.Port(), second.Port());
}

}  // namespace
}  // namespace protocol
