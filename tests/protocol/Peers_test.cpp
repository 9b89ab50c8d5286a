#include "protocol/Peers.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace protocol {
namespace {

constexpr std::uint32_t Address(std::uint32_t a, std::uint32_t b, std::uint32_t c,
                                std::uint32_t d) {
  return a << 24 | b << 16 | c << 8 | d;
}

TEST(PeersTest, AddressStandsForItself) {
  const Network one = ParseNetwork("10.1.2.3");
  EXPECT_TRUE(one.Has(Address(10, 1, 2, 3)));
  EXPECT_FALSE(one.Has(Address(10, 1, 2, 2)));
  EXPECT_EQ(one, ParseNetwork("10.1.2.3/32"));
}

TEST(PeersTest, NetworkHasTheAddressesThatBeginLikeIt) {
  const Network network = ParseNetwork("10.1.2.128/25");
  EXPECT_TRUE(network.Has(Address(10, 1, 2, 128)));
  EXPECT_TRUE(network.Has(Address(10, 1, 2, 255)));
  EXPECT_FALSE(network.Has(Address(10, 1, 2, 127)));
  EXPECT_FALSE(network.Has(Address(10, 1, 3, 128)));
  EXPECT_TRUE(ParseNetwork("0.0.0.0/0").Has(Address(255, 255, 255, 255)));
}

TEST(PeersTest, WhatIsNoNetworkIsRefused) {
  for (const char* text :
       {"", "10.1.2", "10.1.2.3.4", "10.1.2.256", "host", "10.1.2.0/", "10.1.2.0/33", "10.1.2.0/-1",
        "10.1.2.0/24 ", " 10.1.2.0", "::1", "10.1.2.0/24/24", "/24"}) {
    EXPECT_THROW(ParseNetwork(text), std::invalid_argument) << text;
  }
}

TEST(PeersTest, AddressWithBitsOfItsHostIsNoNetwork) {
  try {
    ParseNetwork("10.1.2.3/24");
    FAIL();
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(),
                 "\"10.1.2.3/24\" is an address in the network \"10.1.2.0/24\": write one or the "
                 "other");
  }
}

}  // namespace
}  // namespace protocol
