#include "src/BraidConn.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <sstream>
#include <thread>

#include "protocol/Listener.h"
#include "tests/support/PairTest.h"

namespace {

using BraidConn::ClientSocket;
using BraidConn::Socket;

constexpr char DOWN[] =
    "Failed remote read from server :0. Response too large. Probably server is down.";

class ConnTest : public PairTest {};

TEST_F(ConnTest, LimitsAreThirtySecondsAndSixteenMebibytes) {
  EXPECT_EQ(BraidConn::MAX_SILENCE, std::chrono::seconds(30));
  EXPECT_EQ(BraidConn::MAX_LINE, 16777216u);
}

TEST_F(ConnTest, LineLosesItsEndAndEveryCarriageReturn) {
  PeerSends("ACK\r\n\n\ra\rb\r\r\n");
  EXPECT_EQ(Line(), "ACK");
  EXPECT_EQ(Line(), "");
  EXPECT_EQ(Line(), "ab");
}

TEST_F(ConnTest, LineIsAppendedToWhatTheCallerHas) {
  PeerSends("two\n");
  std::string line = "one ";
  EXPECT_EQ(_client.Gets(line), BRAID_OK);
  EXPECT_EQ(line, "one two");
}

TEST_F(ConnTest, LinesAreTheSameHoweverTheBytesArrive) {
  const std::string stream = "first\r\n\nsecond line\nx\n";
  for (std::size_t cut = 1; cut < stream.size(); ++cut) {
    SCOPED_TRACE(cut);
    std::thread peer([&] {
      PeerSends(stream.substr(0, cut));
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      PeerSends(stream.substr(cut));
    });
    EXPECT_EQ(Line(), "first");
    EXPECT_EQ(Line(), "");
    EXPECT_EQ(Line(), "second line");
    EXPECT_EQ(Line(), "x");
    peer.join();
  }
}

TEST_F(ConnTest, LongestLineIsAcceptedAndOneByteMoreIsNot) {
  for (const bool too_long : {false, true}) {
    const std::string bytes =
        std::string("\r").append(too_long ? 16777216 : 16777215, 'x').append("\n");
    std::thread peer([&] {
      std::string_view rest = bytes;
      while (!rest.empty()) {
        const ssize_t sent = send(_peer.Get(), rest.data(), rest.size(), MSG_NOSIGNAL);
        if (sent <= 0) break;
        rest.remove_prefix(static_cast<std::size_t>(sent));
      }
    });
    std::string line;
    const std::string error = ErrorOf([&] { _client.Gets(line); });
    if (too_long) {
      EXPECT_EQ(error, DOWN);
      _client.Close();  // lets the peer go on
    } else {
      EXPECT_EQ(error, "(no error)");
      EXPECT_EQ(line.size(), 16777215u);  // the carriage return counted, but is dropped
    }
    peer.join();
  }
}

TEST_F(ConnTest, EndOfTheStreamMeansTheServerIsDown) {
  PeerSends("ACK\npart");
  ClosePeer();
  EXPECT_EQ(Line(), "ACK");
  std::string line;
  EXPECT_EQ(ErrorOf([&] { _client.Gets(line); }), DOWN);
}

TEST_F(ConnTest, SilenceEndsTheWait) {
  _client.SetMaxSilence(std::chrono::milliseconds(50));
  PeerSends("par");
  std::string line;
  EXPECT_EQ(ErrorOf([&] { _client.Gets(line); }),
            "Failed remote read: timeout while waiting for data from :0.");
}

TEST_F(ConnTest, ConsoleIsFlushedBeforeALongWaitAndNotBeforeAShortOne) {
  std::string line;
  const std::string shown = OutputOf([&] {
    std::cout << "meter";
    FlushConsole();
    while (!ConsoleIsPending()) FlushConsoleSoon();  // the machine may be slow, but not for ever
    PeerSends("x\n");
    _client.Gets(line);
    EXPECT_TRUE(ConsoleIsPending());  // the answer was there
    _client.SetMaxSilence(2 * CONSOLE_DELAY);
    EXPECT_EQ(ErrorOf([&] { _client.Gets(line); }),
              "Failed remote read: timeout while waiting for data from :0.");
    EXPECT_FALSE(ConsoleIsPending());
  });
  EXPECT_EQ(shown, "meter");
}

TEST_F(ConnTest, ConsoleIsFlushedBeforeALongWaitForAServerThatTakesNothing) {
  const std::string block(1000, 'f');
  while (send(_client.Fd(), block.data(), block.size(), MSG_DONTWAIT) > 0) continue;
  _client.SetMaxSilence(10 * CONSOLE_DELAY);

  // The peer takes something only when the console is flushed: a write that flushes too late fails.
  class Console : public std::stringbuf {
   public:
    std::function<void()> on_flush = [] {};

   private:
    int sync() override {
      on_flush();
      return 0;
    }
  } console;
  std::streambuf* const before = std::cout.rdbuf(&console);
  FlushConsole();
  while (!ConsoleIsPending()) FlushConsoleSoon();  // the machine may be slow, but not for ever
  console.on_flush = [this] { PeerGot(); };
  EXPECT_EQ(ErrorOf([&] { _client.Puts("x"); }), "(no error)");
  EXPECT_FALSE(ConsoleIsPending());
  std::cout.rdbuf(before);
}

TEST_F(ConnTest, EveryByteStartsTheWaitAnew) {
  _client.SetMaxSilence(std::chrono::milliseconds(400));
  std::thread peer([&] {
    for (const char c : std::string("abc\n")) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      PeerSends(std::string(1, c));
    }
  });
  EXPECT_EQ(Line(), "abc");
  peer.join();
}

TEST_F(ConnTest, SignalDoesNotEndTheWait) {
  struct sigaction action {};
  struct sigaction before {};
  static volatile sig_atomic_t caught = 0;
  caught = 0;
  action.sa_handler = [](int) { caught = 1; };
  sigaction(SIGALRM, &action, &before);
  itimerval soon{{0, 0}, {0, 50000}};
  setitimer(ITIMER_REAL, &soon, nullptr);
  sigset_t alarm_only;
  sigemptyset(&alarm_only);
  sigaddset(&alarm_only, SIGALRM);
  std::thread peer([&] {
    pthread_sigmask(SIG_BLOCK, &alarm_only, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    PeerSends("late\n");
  });
  EXPECT_EQ(Line(), "late");
  EXPECT_EQ(caught, 1);
  peer.join();
  sigaction(SIGALRM, &before, nullptr);
}

TEST_F(ConnTest, ReadErrorGivesTheSystemsReason) {
  // A folder is always ready, and cannot be read.
  Opened<ClientSocket> client;
  const int fd = open("/", O_RDONLY);
  ASSERT_GE(fd, 0);
  client.Adopt(fd);
  std::string line;
  EXPECT_EQ(ErrorOf([&] { client.Gets(line); }),
            "Failed remote read from server :0. Is a directory");
}

TEST_F(ConnTest, WaitThatFailsGivesTheSystemsReason) {
  _client.Close();
  std::string line;
  EXPECT_EQ(ErrorOf([&] { _client.Gets(line); }),
            "Failed remote read: select failed: Bad file descriptor");
}

TEST_F(ConnTest, PutsSendsTheLineAndALineFeed) {
  EXPECT_EQ(_client.Puts("x"), BRAID_OK);
  EXPECT_EQ(PeerGot(), "x\n");
}

TEST_F(ConnTest, WritingToAPeerThatIsGoneIsAnErrorAndNoSignal) {
  ClosePeer();
  EXPECT_EQ(ErrorOf([&] { _client.Puts("x"); }), "Failed remote read: Broken pipe");
}

TEST_F(ConnTest, PeerThatTakesNothingMoreEndsTheWrite) {
  _client.SetMaxSilence(std::chrono::milliseconds(20));
  EXPECT_EQ(ErrorOf([&] { _client.Puts(std::string(4000000, 'x')); }),
            "Failed remote read: Connection timed out");
}

TEST_F(ConnTest, BufferOfManyLinesIsGuardedAsAWhole) {
  const std::string buffer = "NEW_BUF\n12345\n67890\nEND_BUF\n";
  _client.SetMaxBuffer(buffer.size());
  PeerSends(buffer + "NEW_BUF\n12345\n678901\nEND_BUF\n");
  std::string response;
  _client.Receive(response);
  EXPECT_EQ(response, "1234567890");
  EXPECT_EQ(ErrorOf([&] { _client.Receive(response); }), DOWN);
}

TEST_F(ConnTest, LinesThatMakeNoAnswerAreGuardedAgainstToo) {
  for (const std::string line : {"", "NEW_BUF", "CONT_BUF", "TO_BE_CONT", "\r\r\r"}) {
    SCOPED_TRACE(line);
    _client.SetMaxBuffer(100);
    std::string lines;
    for (int i = 0; i < 101; ++i) lines += line + "\n";
    PeerSends(lines);
    std::string response;
    EXPECT_EQ(ErrorOf([&] { _client.Receive(response); }), DOWN);
  }
}

TEST_F(ConnTest, AnswerThatNobodyAskedForIsSeenWhereItCameAlong) {
  std::string response;
  EXPECT_FALSE(_client.HasSurplus());
  PeerSends("NEW_BUF\n1\nEND_BUF\nNEW_BUF\n2\nEND_BUF\r\n");
  EXPECT_FALSE(_client.HasSurplus());  // nothing was read so far
  _client.Receive(response);
  EXPECT_EQ(response, "1");
  EXPECT_TRUE(_client.HasSurplus());
  EXPECT_TRUE(_client.HasSurplus());
  _client.Receive(response);
  EXPECT_EQ(response, "2");
  EXPECT_FALSE(_client.HasSurplus());
  // What is said between answers is none, nor is half of one.
  PeerSends("NEW_BUF\n3\nEND_BUF\nhello END_BUF\nNEW_BUF\n4\nEND_B");
  _client.Receive(response);
  EXPECT_EQ(response, "3");
  EXPECT_FALSE(_client.HasSurplus());
}

TEST_F(ConnTest, WholeTextGoesOutWhereTheSystemTakesItInParts) {
  const std::string text(4000000, 'x');
  std::future<std::string> got = std::async(std::launch::async, [&] { return PeerAwaits("\n"); });
  _client.Puts(text);
  EXPECT_EQ(got.get(), text + "\n");
}

TEST_F(ConnTest, RequestIsThreeLinesInOneWrite) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);  // keeps the bounds of writes
  Opened<ClientSocket> client;
  client.Adopt(ends[0]);
  EXPECT_EQ(client.Request("vsMultiMaxGet"), BRAID_OK);
  char block[4096];
  const ssize_t size = recv(ends[1], block, sizeof(block), MSG_DONTWAIT);
  ASSERT_GT(size, 0);
  EXPECT_EQ(std::string(block, static_cast<std::size_t>(size)),
            "NEW_BUF\nvsMultiMaxGet\nEND_BUF\n");
  EXPECT_EQ(recv(ends[1], block, sizeof(block), MSG_DONTWAIT), -1);
  close(ends[1]);
}

TEST_F(ConnTest, BufferIsWhatStandsBetweenItsMarkers) {
  PeerSends("NEW_BUF\nACK\nEND_BUF\n");
  EXPECT_EQ(Received(), "ACK");
}

TEST_F(ConnTest, LinesOfABufferRunTogether) {
  PeerSends("NEW_BUF\nACK {a\nb}\nEND_BUF\n");
  EXPECT_EQ(Received(), "ACK {ab}");
}

TEST_F(ConnTest, LinesBeforeABufferAreDiscarded) {
  PeerSends("noise\nNEW_BUF\nold\nNEW_BUF\nACK\nEND_BUF\n");
  EXPECT_EQ(Received(), "ACK");
}

TEST_F(ConnTest, BufferWithoutItsBeginningStillEnds) {
  PeerSends("a\nb\nEND_BUF\n");
  EXPECT_EQ(Received(), "ab");
}

TEST_F(ConnTest, MarkersAreComparedToTheLetter) {
  PeerSends("NEW_BUF\nnew_buf\n END_BUF\nEND_BUFF\nEND_BUF\n");
  EXPECT_EQ(Received(), "new_buf END_BUFEND_BUFF");
}

TEST_F(ConnTest, ContinuedBufferIsAgreedToAndJoined) {
  std::string agreement;
  std::thread peer([&] {
    PeerSends("NEW_BUF\npart1\nTO_BE_CONT\n");
    agreement = PeerAwaits("END_BUF\n");
    PeerSends("CONT_BUF\npart2\nEND_BUF\n");
  });
  EXPECT_EQ(Received(), "part1part2");
  peer.join();
  EXPECT_EQ(agreement, "NEW_BUF\nNsContinue\nEND_BUF\n");
}

TEST_F(ConnTest, EndOfStreamIsNeverToldByEof) {
  ClosePeer();
  EXPECT_FALSE(_client.Eof());
  EXPECT_EQ(_client.Flush(), BRAID_OK);
}

TEST_F(ConnTest, ShortTextIsSentAsOneBuffer) {
  EXPECT_EQ(_client.Respond("abc\ndef"), BRAID_OK);
  EXPECT_EQ(PeerGot(), "NEW_BUF\nabc\ndef\nEND_BUF\n");
  EXPECT_EQ(_client.Respond(""), BRAID_OK);
  EXPECT_EQ(PeerGot(), "NEW_BUF\n\nEND_BUF\n");
  const std::string longest(4000, 'x');
  EXPECT_EQ(_client.Respond(longest), BRAID_OK);
  EXPECT_EQ(PeerGot(), "NEW_BUF\n" + longest + "\nEND_BUF\n");
}

/// Answers every pause of the sender and returns all that it sent.
class RespondTest : public ConnTest {
 protected:
  std::string Sent(const std::string& text, const std::string& answer = "NsContinue") {
    std::future<std::string> sent = std::async(std::launch::async, [&] {
      std::string all;
      for (;;) {
        std::string frame;
        while (!frame.ends_with("\nEND_BUF\n") && !frame.ends_with("\nTO_BE_CONT\n")) {
          char c;
          if (recv(_peer.Get(), &c, 1, 0) != 1) return all + frame;
          frame += c;
        }
        all += frame;
        if (frame.ends_with("\nEND_BUF\n")) return all;
        PeerSends("NEW_BUF\n" + answer + "\nEND_BUF\n");
      }
    });
    EXPECT_EQ(_client.Respond(text), BRAID_OK);
    return sent.get();
  }
};

TEST_F(RespondTest, LongTextGoesInPiecesOfFourThousand) {
  const std::string a(4000, 'a');
  const std::string b(4000, 'b');
  const std::string c(2000, 'c');
  EXPECT_EQ(Sent(a + b + c), "NEW_BUF\n" + a + "\nTO_BE_CONT\nCONT_BUF\n" + b +
                                 "\nTO_BE_CONT\nCONT_BUF\n" + c + "\nEND_BUF\n");
}

TEST_F(RespondTest, LastPieceMayBeOneCharacter) {
  const std::string a(4000, 'a');
  EXPECT_EQ(Sent(a + "b"), "NEW_BUF\n" + a + "\nTO_BE_CONT\nCONT_BUF\nb\nEND_BUF\n");
}

TEST_F(RespondTest, PieceEndsBeforeALineEndWhereOneFollows) {
  const std::string a(3990, 'a');
  EXPECT_EQ(
      Sent(a + "\n" + std::string(20, 'b') + "\ncc"),
      "NEW_BUF\n" + a + "\n" + std::string(20, 'b') + "\nTO_BE_CONT\nCONT_BUF\n\ncc\nEND_BUF\n");
  const std::string b(4000, 'b');
  EXPECT_EQ(Sent(b + "\nc"), "NEW_BUF\n" + b + "\nTO_BE_CONT\nCONT_BUF\n\nc\nEND_BUF\n");
}

TEST_F(ConnTest, PeerThatDoesNotAgreeEndsTheSending) {
  PeerSends("NEW_BUF\nERROR\nEND_BUF\n");
  EXPECT_EQ(ErrorOf([&] { _client.Respond(std::string(4001, 'x')); }),
            "Bus server protocol error: In ClientSocket::Respond(), After sending TO_BE_CONT, "
            "expected \"NsContinue\" from peer, bur received \"ERROR\"");
}

TEST(SocketTest, ClosedSocketRefusesEverything) {
  Socket socket;
  Socket other;
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_EQ(socket.Bind(0), BRAID_ERROR);
  EXPECT_EQ(socket.Listen(), BRAID_ERROR);
  EXPECT_EQ(socket.Accept(other), BRAID_ERROR);
  EXPECT_EQ(socket.Connect("127.0.0.1", 1), BRAID_ERROR);
  EXPECT_EQ(socket.Close(), BRAID_OK);
  socket.SetNonBlocking(true);
}

TEST(SocketTest, OpensAndCloses) {
  Socket socket;
  EXPECT_EQ(socket.Open(), BRAID_OK);
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_EQ(socket.Close(), BRAID_OK);
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_TRUE(ClientSocket().IsOpen());
}

TEST(SocketTest, ServesAsAServerToo) {
  Opened<Socket> server;
  server.Open();
  int reuse = 0;
  socklen_t size = sizeof(reuse);
  ASSERT_EQ(getsockopt(server.Fd(), SOL_SOCKET, SO_REUSEADDR, &reuse, &size), 0);
  EXPECT_EQ(reuse, 1);
  ASSERT_EQ(server.Bind(0), BRAID_OK);
  ASSERT_EQ(server.Listen(), BRAID_OK);
  sockaddr_in addr{};
  size = sizeof(addr);
  getsockname(server.Fd(), reinterpret_cast<sockaddr*>(&addr), &size);

  Opened<Socket> client;
  client.Open();
  ASSERT_EQ(client.Connect("localhost", ntohs(addr.sin_port)), BRAID_OK);
  EXPECT_EQ(client.Host(), "localhost");
  Socket accepted;
  ASSERT_EQ(server.Accept(accepted), BRAID_OK);
  size = sizeof(addr);
  getsockname(client.Fd(), reinterpret_cast<sockaddr*>(&addr), &size);
  EXPECT_EQ(server.PeerPort(), ntohs(addr.sin_port));
  client.Puts("hello");
  std::string line;
  accepted.Gets(line);
  EXPECT_EQ(line, "hello");
}

TEST(SocketTest, PortInUseCannotBeBound) {
  const protocol::Listener listener;
  Socket socket;
  socket.Open();
  EXPECT_EQ(socket.Bind(listener.Port()), BRAID_ERROR);
}

TEST(SocketTest, NonBlockingIsSetAndCleared) {
  Opened<Socket> socket;
  socket.Open();
  socket.SetNonBlocking(true);
  EXPECT_NE(fcntl(socket.Fd(), F_GETFL) & O_NONBLOCK, 0);
  socket.SetNonBlocking(false);
  EXPECT_EQ(fcntl(socket.Fd(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(SocketTest, UnknownHostIsNamedWithTheSystemsReason) {
  ClientSocket socket;
  const std::string error = ErrorOf([&] { socket.Connect("host.invalid", 1); });
  const std::string prefix = "Failed getting IP address for server host.invalid: ";
  ASSERT_TRUE(error.starts_with(prefix)) << error;
  EXPECT_GT(error.size(), prefix.size());
  EXPECT_NE(error, prefix + "Success");
}

TEST(SocketTest, ClosedPortIsRefused) {
  int port = 0;
  {
    const protocol::Listener listener;
    port = listener.Port();
  }
  ClientSocket socket;
  EXPECT_EQ(ErrorOf([&] { socket.Connect("127.0.0.1", port); }),
            "Failed connecting to 127.0.0.1:" + std::to_string(port) + " .");
}

TEST(SocketTest, NumberThatIsNoPortIsNotTakenForAnother) {
  const protocol::Listener listener;
  for (const int port : {listener.Port() + 65536, listener.Port() - 65536}) {
    ClientSocket socket;
    EXPECT_EQ(ErrorOf([&] { socket.Connect("127.0.0.1", port); }),
              "Failed connecting to 127.0.0.1:" + std::to_string(port) + " .");
  }
}

TEST(SocketTest, ErrorsNameTheServerOnceConnected) {
  const protocol::Listener listener;
  ClientSocket socket;
  ASSERT_EQ(socket.Connect("127.0.0.1", listener.Port()), BRAID_OK);
  class Impatient : public ClientSocket {
   public:
    Impatient() { _max_silence = std::chrono::milliseconds(20); }
  } impatient;
  ASSERT_EQ(impatient.Connect("127.0.0.1", listener.Port()), BRAID_OK);
  std::string line;
  EXPECT_EQ(ErrorOf([&] { impatient.Gets(line); }),
            "Failed remote read: timeout while waiting for data from 127.0.0.1:" +
                std::to_string(listener.Port()) + ".");
}

TEST(SocketTest, DescriptorPastTheWaitableOnesIsRefused) {
  std::vector<int> taken;
  int fd;
  while ((fd = dup(0)) >= 0 && fd < FD_SETSIZE) taken.push_back(fd);
  if (fd >= 0) taken.push_back(fd);
  Socket socket;
  EXPECT_EQ(ErrorOf([&] { socket.Open(); }), "Failed creating socket.");
  EXPECT_FALSE(socket.IsOpen());
  for (const int number : taken) close(number);
}

}  // namespace
