/// Set-up of tests that are the peer of the burner's client.
#pragma once

#include <sys/socket.h>

#include <string>
#include <string_view>

#include "common/Descriptor.h"
#include "src/BraidConn.h"
#include "tests/support/OpenedSocket.h"
#include "tests/support/support.h"

/// A client on one end of a pair of sockets; the test is its peer on the other.
class PairTest : public ConsoleTest {
 protected:
  /// `type`: SOCK_STREAM, or SOCK_SEQPACKET, which keeps the bounds of writes.
  explicit PairTest(int type = SOCK_STREAM) : _type(type) { Connect(); }

  /// A new pair in the place of the one before.
  void Connect() {
    int ends[2];
    ClosePeer();
    EXPECT_EQ(socketpair(AF_UNIX, _type, 0, ends), 0);
    _client.Adopt(ends[0]);
    _peer = common::Descriptor(ends[1]);
  }

  void ClosePeer() { _peer.Close(); }

  /// Has the peer send `bytes`, as far as the client takes them; false where it does not take all.
  bool PeerOffers(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t sent = send(_peer.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }
  /// The same; the client must take all.
  void PeerSends(std::string_view bytes) const { EXPECT_TRUE(PeerOffers(bytes)); }

  /// What the peer has got so far.
  std::string PeerGot() const {
    std::string got;
    char block[4096];
    ssize_t size;
    while ((size = recv(_peer.Get(), block, sizeof(block), MSG_DONTWAIT)) > 0) {
      got.append(block, static_cast<std::size_t>(size));
    }
    return got;
  }

  /// Bytes until the peer has `end` behind it.
  std::string PeerAwaits(const std::string& end) const {
    std::string got;
    char c;
    while (!got.ends_with(end) && recv(_peer.Get(), &c, 1, 0) == 1) got += c;
    return got;
  }

  std::string Line() const {
    std::string line;
    EXPECT_EQ(_client.Gets(line), BRAID_OK);
    return line;
  }

  std::string Received() const {
    std::string response;
    EXPECT_EQ(_client.Receive(response), BRAID_OK);
    return response;
  }

  const int _type;
  Opened<BraidConn::ClientSocket> _client;
  common::Descriptor _peer;
};
