// How bytes travel: where writes begin and end, how answers may be cut, and what signals, resets
// and a system that refuses do to a connection.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "src/BraidConn.h"
#include "tests/support/InjectedRead.h"
#include "tests/support/PairTest.h"

namespace {

bool g_refuse_options = false;
/// Why no name can be resolved; 0 where names can.
int g_resolver_error = 0;

/// The error of the next sendmsg, in the place of its work; 0 for none.
int g_next_error = 0;
/// Whether a signal comes while a connect waits.
bool g_interrupt_connect = false;

}  // namespace

// These replace the system's functions, which never fail on request.
extern "C" ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  errno = std::exchange(g_next_error, 0);
  return errno != 0 ? -1 : syscall(SYS_sendmsg, fd, message, flags);
}
extern "C" int connect(int fd, const sockaddr* address, socklen_t size) {
  if (!g_interrupt_connect) return static_cast<int>(syscall(SYS_connect, fd, address, size));
  const int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  syscall(SYS_connect, fd, address, size);
  fcntl(fd, F_SETFL, flags);
  errno = EINTR;
  return -1;
}

// In the place of the system's function, too: what its own resolver says depends on the network.
extern "C" hostent* gethostbyname(const char* name) {
  static const auto resolve =
      reinterpret_cast<hostent* (*)(const char*)>(dlsym(RTLD_NEXT, "gethostbyname"));
  if (g_resolver_error == 0) return resolve(name);
  h_errno = g_resolver_error;
  return nullptr;
}

// Takes the place of the system's function, which never refuses this option to a new socket.
extern "C" int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
  if (g_refuse_options) {
    errno = ENOPROTOOPT;
    return -1;
  }
  return static_cast<int>(syscall(SYS_setsockopt, fd, level, name, value, size));
}

namespace {

using BraidConn::ClientSocket;
using BraidConn::Socket;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Texts = std::vector<std::string>;

constexpr char AGREEMENT[] = "NEW_BUF\nNsContinue\nEND_BUF\n";
constexpr char DOWN[] =
    "Failed remote read from server :0. Response too large. Probably server is down.";

/// The pair keeps the bounds of writes: each is one message.
class WritesTest : public PairTest {
 protected:
  WritesTest() : PairTest(SOCK_SEQPACKET) { _client.SetMaxSilence(milliseconds(2000)); }

  /// The client's writes so far.
  Texts Writes() const {
    Texts writes;
    std::string block(65536, '\0');
    ssize_t size;
    while ((size = recv(_peer.Get(), block.data(), block.size(), MSG_DONTWAIT)) > 0) {
      writes.push_back(block.substr(0, static_cast<std::size_t>(size)));
    }
    return writes;
  }

  /// What the client writes to send `text` to a peer that agrees to every piece.
  Texts Sent(const std::string& text) {
    Connect();
    for (std::size_t i = 0; i < text.size() / 4000; ++i) PeerSends(AGREEMENT);
    EXPECT_EQ(_client.Respond(text), BRAID_OK);
    return Writes();
  }

  /// The pieces in `writes`, which must be frames in due order.
  static Texts Pieces(const Texts& writes) {
    Texts pieces;
    for (std::size_t i = 0; i < writes.size(); ++i) {
      const std::string head = i == 0 ? "NEW_BUF\n" : "CONT_BUF\n";
      const std::string tail = i + 1 == writes.size() ? "\nEND_BUF\n" : "\nTO_BE_CONT\n";
      EXPECT_TRUE(writes[i].starts_with(head) && writes[i].ends_with(tail)) << "piece " << i;
      if (writes[i].size() < head.size() + tail.size()) return {};
      pieces.push_back(writes[i].substr(head.size(), writes[i].size() - head.size() - tail.size()));
    }
    return pieces;
  }
};

TEST_F(WritesTest, LineIsOneWrite) {
  EXPECT_EQ(_client.Puts("x"), BRAID_OK);
  EXPECT_EQ(_client.Puts(""), BRAID_OK);
  EXPECT_EQ(Writes(), (Texts{"x\n", "\n"}));
}

TEST_F(WritesTest, RequestIsOneLineWhateverItContains) {
  EXPECT_EQ(_client.Request("a\nEND_BUF"), BRAID_OK);
  EXPECT_EQ(_client.Request(""), BRAID_OK);
  EXPECT_EQ(Writes(), (Texts{"NEW_BUF\na\nEND_BUF\nEND_BUF\n", "NEW_BUF\n\nEND_BUF\n"}));
}

TEST_F(WritesTest, EachPieceOfALargeTextIsOneWrite) {
  const std::string a(4000, 'a');
  EXPECT_EQ(Sent(a + a + "b"),
            (Texts{"NEW_BUF\n" + a + "\nTO_BE_CONT\n", "CONT_BUF\n" + a + "\nTO_BE_CONT\n",
                   "CONT_BUF\nb\nEND_BUF\n"}));
}

TEST_F(WritesTest, TextIsCutPastFourThousandCharactersBeforeALineEnd) {
  const std::string a(4000, 'a');
  const std::string b(4000, 'b');
  const struct {
    const char* what;
    std::string text;
    Texts pieces;
  } rows[] = {
      {"3999 characters", std::string(3999, 'a'), {std::string(3999, 'a')}},
      {"4000 characters", a, {a}},
      {"4001 characters", a + "b", {a, "b"}},
      {"8000 characters", a + b, {a, b}},
      {"8001 characters", a + b + "c", {a, b, "c"}},
      {"10000 characters", a + b + std::string(2000, 'c'), {a, b, std::string(2000, 'c')}},
      {"line end as character 4000 only",
       std::string(3999, 'a') + "\nb",
       {std::string(3999, 'a') + "\n", "b"}},
      {"line end as character 4001", a + "\nb", {a, "\nb"}},
      {"line end as the last of 4001", a + "\n", {a, "\n"}},
      {"line end far away", a + b + "bbb\ncc", {a + b + "bbb", "\ncc"}},
      {"line end that begins a piece counts for no cut",
       a + "\n" + b.substr(1) + "\nc",
       {a, "\n" + b.substr(1), "\nc"}},
      {"line ends only",
       std::string(9000, '\n'),
       {std::string(4000, '\n'), std::string(4000, '\n'), std::string(1000, '\n')}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(Pieces(Sent(row.text)), row.pieces);
  }
}

TEST_F(WritesTest, RandomTextsArriveWholeAndAreCutByTheRule) {
  constexpr unsigned SEED = 20240;
  TestRng rng(SEED);
  for (int round = 0; round < 100; ++round) {
    SCOPED_TRACE(Text("seed ", SEED, ", round ", round));
    std::string text(rng() % 30000, 'x');
    const auto lines = rng() % 12;
    for (unsigned i = 0; i < lines && !text.empty(); ++i) text[rng() % text.size()] = '\n';
    const Texts pieces = Pieces(Sent(text));
    ASSERT_FALSE(pieces.empty());
    std::string_view rest = text;
    for (std::size_t i = 0; i + 1 < pieces.size(); ++i) {
      ASSERT_GT(rest.size(), 4000u);
      ASSERT_TRUE(rest.starts_with(pieces[i]));
      ASSERT_GE(pieces[i].size(), 4000u);
      EXPECT_EQ(pieces[i].find('\n', 4000), std::string::npos);
      if (rest.find('\n', 4000) == std::string::npos) {
        EXPECT_EQ(pieces[i].size(), 4000u);
      } else {
        EXPECT_EQ(rest[pieces[i].size()], '\n');
      }
      rest.remove_prefix(pieces[i].size());
    }
    EXPECT_LE(rest.size(), 4000u);
    EXPECT_EQ(pieces.back(), rest);
  }
}

TEST_F(WritesTest, AnyOtherAnswerThanTheAgreementEndsTheSending) {
  const std::string text(4001, 'x');
  for (const std::string answer :
       {"ERROR", "ERROR:1:busy", "nscontinue", "NsContinue ", "NsContinueNsContinue", ""}) {
    Connect();
    PeerSends("NEW_BUF\n" + answer + "\nEND_BUF\n");
    EXPECT_EQ(ErrorOf([&] { _client.Respond(text); }),
              "Bus server protocol error: In ClientSocket::Respond(), After sending TO_BE_CONT, "
              "expected \"NsContinue\" from peer, bur received \"" +
                  answer + "\"");
    EXPECT_EQ(Writes().size(), 1u);  // and the rest stays here
  }
}

TEST_F(WritesTest, AgreementInTwoLinesIsAnAgreement) {
  PeerSends("NEW_BUF\nNs\r\nContinue\nEND_BUF\n");
  EXPECT_EQ(_client.Respond(std::string(4001, 'x')), BRAID_OK);
}

TEST_F(WritesTest, EachContinuationIsAgreedToInOneWrite) {
  PeerSends("NEW_BUF\n1\nTO_BE_CONT\nCONT_BUF\n2\nTO_BE_CONT\nCONT_BUF\n3\nEND_BUF\n");
  EXPECT_EQ(Received(), "123");
  EXPECT_EQ(Writes(), (Texts{AGREEMENT, AGREEMENT}));
}

TEST_F(WritesTest, ContinuedAnswerIsTheSameWhereverItIsCut) {
  const std::string stream =
      "junk\nNEW_BUF\r\npart1\r\nTO_BE_CONT\nCONT_BUF\npa\nrt2\nEND_BUF\nNEW_BUF\nACK\nEND_BUF\n";
  for (std::size_t first = 1; first < stream.size(); ++first) {
    SCOPED_TRACE(first);
    Connect();
    PeerSends(stream.substr(0, first));
    PeerSends(stream.substr(first));
    EXPECT_EQ(Received(), "part1part2");
    EXPECT_EQ(Received(), "ACK");
    EXPECT_EQ(Writes(), Texts{AGREEMENT});
  }
  Connect();
  for (const char c : stream) PeerSends(std::string(1, c));
  EXPECT_EQ(Received(), "part1part2");
  EXPECT_EQ(Received(), "ACK");
}

TEST_F(WritesTest, ResponseStartsAnewWithItsBuffer) {
  PeerSends("NEW_BUF\nACK\nEND_BUF\n");
  std::string response = "left over";
  EXPECT_EQ(_client.Receive(response), BRAID_OK);
  EXPECT_EQ(response, "ACK");
}

TEST_F(WritesTest, NulIsAByteLikeAnyOther) {
  const std::string bytes("a\0b", 3);
  PeerSends(bytes + "\n");
  EXPECT_EQ(Line(), bytes);
  _client.Puts(bytes);
  EXPECT_EQ(Writes(), Texts{bytes + "\n"});
}

TEST_F(WritesTest, BytesReadAheadGoWithTheirConnection) {
  PeerSends("one\nof the old connection\n");
  EXPECT_EQ(Line(), "one");
  Connect();
  PeerSends("new\n");
  EXPECT_EQ(Line(), "new");
}

TEST_F(WritesTest, NonBlockingSocketIsWaitedForAllTheSame) {
  _client.SetNonBlocking(true);
  std::thread peer([&] {
    std::this_thread::sleep_for(milliseconds(30));
    PeerSends("late\n");
  });
  EXPECT_EQ(Line(), "late");
  peer.join();
}

class StreamTest : public PairTest {
 protected:
  StreamTest() { _client.SetMaxSilence(milliseconds(2000)); }
};

TEST_F(StreamTest, CarriageReturnsWithoutEndAreTooMuchToo) {
  std::thread peer([&] { PeerOffers(std::string(16777217, '\r')); });
  std::string line;
  EXPECT_EQ(ErrorOf([&] { _client.Gets(line); }), DOWN);
  EXPECT_EQ(line, "");
  _client.Close();
  peer.join();
}

TEST_F(StreamTest, LongestLineIsWaitedForToEnd) {
  _client.SetMaxSilence(milliseconds(300));
  std::thread peer([&] { PeerSends(std::string(16777216, '\r')); });
  std::string line;
  EXPECT_EQ(ErrorOf([&] { _client.Gets(line); }),
            "Failed remote read: timeout while waiting for data from :0.");
  _client.Close();
  peer.join();
}

TEST_F(StreamTest, GuardCountsEachLineForItself) {
  const std::string half(10000000, 'x');
  std::thread peer([&] { PeerSends(half + "\n" + half + "\n"); });
  EXPECT_EQ(Line().size(), half.size());
  EXPECT_EQ(Line().size(), half.size());
  peer.join();
}

TEST_F(StreamTest, ServerThatGoesInsideABufferIsDown) {
  PeerSends("NEW_BUF\nACK\n");
  shutdown(_peer.Get(), SHUT_WR);
  std::string response;
  EXPECT_EQ(ErrorOf([&] { _client.Receive(response); }), DOWN);
}

TEST_F(StreamTest, EndOfTheStreamIsToldAtOnce) {
  _client.SetMaxSilence(milliseconds(60000));
  shutdown(_peer.Get(), SHUT_WR);
  const auto start = steady_clock::now();
  std::string line;
  EXPECT_EQ(ErrorOf([&] { _client.Gets(line); }), DOWN);
  EXPECT_LT(steady_clock::now() - start, milliseconds(1000));
}

volatile sig_atomic_t g_signals = 0;

/// Interrupts the calling thread again and again, for as long as it lives.
class Interruptions {
 public:
  Interruptions() {
    g_signals = 0;
    struct sigaction action {};  // without SA_RESTART
    action.sa_handler = [](int) { g_signals = g_signals + 1; };
    sigaction(SIGALRM, &action, &_before);
    const itimerval every{{0, 10000}, {0, 10000}};
    setitimer(ITIMER_REAL, &every, nullptr);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;
  ~Interruptions() {
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGALRM, SIG_IGN);  // one that is on its way must not meet what was before
    sigaction(SIGALRM, &_before, nullptr);
  }

 private:
  struct sigaction _before {};
};

/// A thread that no interruption reaches.
std::thread Undisturbed(std::function<void()> work) {
  sigset_t alarm;
  sigset_t before;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &alarm, &before);
  std::thread thread(std::move(work));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread;
}

TEST_F(StreamTest, SignalsNeitherStretchNorShortenTheSilence) {
  _client.SetMaxSilence(milliseconds(200));
  const Interruptions interruptions;
  const auto start = steady_clock::now();
  std::string line;
  EXPECT_EQ(ErrorOf([&] { _client.Gets(line); }),
            "Failed remote read: timeout while waiting for data from :0.");
  const auto waited = steady_clock::now() - start;
  EXPECT_GE(waited, milliseconds(199));
  EXPECT_LT(waited, milliseconds(1500));
  EXPECT_GT(g_signals, 1);
}

TEST_F(StreamTest, SignalsDoNotEndAWriteThatHasToWait) {
  std::size_t filling = 0;
  const std::string block(1000, 'f');
  ssize_t sent;
  while ((sent = send(_client.Fd(), block.data(), block.size(), MSG_DONTWAIT)) > 0) {
    filling += static_cast<std::size_t>(sent);
  }
  const std::string text(1000000, 'x');
  std::string got;
  std::thread peer = Undisturbed([&] {
    std::this_thread::sleep_for(milliseconds(100));  // no byte of the text finds room before
    std::string part(65536, '\0');
    while (!got.ends_with("\n")) {
      const ssize_t size = recv(_peer.Get(), part.data(), part.size(), 0);
      if (size <= 0) return;
      got.append(part, 0, static_cast<std::size_t>(size));
    }
  });
  {
    const Interruptions interruptions;
    EXPECT_EQ(_client.Puts(text), BRAID_OK);
    EXPECT_GT(g_signals, 1);
  }
  peer.join();
  ASSERT_GE(got.size(), filling);
  EXPECT_TRUE(got.substr(filling) == text + "\n");
}

TEST_F(StreamTest, InterruptedCallsAreMadeAgain) {
  for (const int error : {EINTR, EAGAIN}) {
    g_next_error = error;
    EXPECT_EQ(_client.Puts("there"), BRAID_OK);
    char got[6];
    EXPECT_EQ(recv(_peer.Get(), got, sizeof(got), 0), 6);
    EXPECT_EQ(send(_peer.Get(), "back\n", 5, 0), 5);
    int next_error = error;
    g_read_error = [&next_error] { return std::exchange(next_error, 0); };
    std::string line;
    EXPECT_EQ(_client.Gets(line), BRAID_OK);
    g_read_error = nullptr;
    EXPECT_EQ(line, "back");
    EXPECT_EQ(g_next_error, 0);
    EXPECT_EQ(next_error, 0);
  }
}

TEST_F(StreamTest, PeerThatIsGoneKillsNobody) {
  struct sigaction deadly {};
  struct sigaction before {};
  deadly.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &deadly, &before);  // whoever runs the tests may have it ignored
  shutdown(_peer.Get(), SHUT_RDWR);
  EXPECT_EQ(ErrorOf([&] { _client.Puts("x"); }), "Failed remote read: Broken pipe");
  EXPECT_EQ(ErrorOf([&] { _client.Request("x"); }), "Failed remote read: Broken pipe");
  EXPECT_EQ(ErrorOf([&] { _client.Respond("x"); }), "Failed remote read: Broken pipe");
  sigaction(SIGPIPE, &before, nullptr);
}

/// A server socket of ours on a free port.
class TcpTest : public ConsoleTest {
 protected:
  TcpTest() {
    EXPECT_EQ(_server.Open(), BRAID_OK);
    EXPECT_EQ(_server.Bind(0), BRAID_OK);
    EXPECT_EQ(_server.Listen(), BRAID_OK);
    sockaddr_in addr{};
    socklen_t size = sizeof(addr);
    getsockname(_server.Fd(), reinterpret_cast<sockaddr*>(&addr), &size);
    _port = ntohs(addr.sin_port);
  }

  Opened<Socket> _server;
  int _port = 0;
};

TEST_F(TcpTest, SuccessfulConnectIsRemembered) {
  Opened<ClientSocket> client;
  EXPECT_EQ(client.Host(), "");
  EXPECT_EQ(client.Connect("127.0.0.1", _port), BRAID_OK);
  EXPECT_EQ(client.Host(), "127.0.0.1");
  EXPECT_EQ(client.Port(), _port);
}

TEST_F(TcpTest, FailedConnectIsNot) {
  _server.Close();
  Opened<ClientSocket> client;
  EXPECT_EQ(ErrorOf([&] { client.Connect("127.0.0.1", _port); }),
            Text("Failed connecting to 127.0.0.1:", _port, " ."));
  EXPECT_EQ(client.Host(), "");
  EXPECT_EQ(client.Port(), 0);
}

TEST_F(TcpTest, NameThatTheResolverFailsOnIsToldWithTheNearestReason) {
  for (const auto& [reason, text] :
       std::map<int, std::string>{{TRY_AGAIN, "Resource temporarily unavailable"},
                                  {NO_RECOVERY, "Input/output error"},
                                  {HOST_NOT_FOUND, "No such device or address"},
                                  {NO_DATA, "No such device or address"}}) {
    g_resolver_error = reason;
    ClientSocket client;
    EXPECT_EQ(ErrorOf([&] { client.Connect("somebody", _port); }),
              "Failed getting IP address for server somebody: " + text);
  }
  g_resolver_error = 0;
}

TEST_F(TcpTest, NegativePortIsNoPort) {
  ClientSocket client;
  EXPECT_EQ(ErrorOf([&] { client.Connect("127.0.0.1", -1); }),
            "Failed connecting to 127.0.0.1:-1 .");
}

TEST_F(TcpTest, NumberThatIsNoPortCannotBeBound) {
  for (const int port : {-1, 65536, 65536 + 7}) {
    ClientSocket socket;
    EXPECT_EQ(socket.Bind(port), BRAID_ERROR) << port;
  }
}

TEST_F(TcpTest, ServerIsNamedWhenItGoes) {
  ClientSocket client;
  client.Connect("127.0.0.1", _port);
  Socket accepted;
  ASSERT_EQ(_server.Accept(accepted), BRAID_OK);
  accepted.Close();
  std::string line;
  EXPECT_EQ(ErrorOf([&] { client.Gets(line); }),
            Text("Failed remote read from server 127.0.0.1:", _port,
                 ". Response too large. Probably server is down."));
}

TEST_F(TcpTest, ResetConnectionIsNamedWithTheSystemsReason) {
  ClientSocket client;
  client.Connect("127.0.0.1", _port);
  Opened<Socket> accepted;
  ASSERT_EQ(_server.Accept(accepted), BRAID_OK);
  const linger at_once{1, 0};
  ASSERT_EQ(setsockopt(accepted.Fd(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once)), 0);
  accepted.Close();
  std::string line;
  EXPECT_EQ(ErrorOf([&] { client.Gets(line); }),
            Text("Failed remote read from server 127.0.0.1:", _port, ". Connection reset by peer"));
}

TEST_F(TcpTest, SignalsDoNotEndTheWaitForAClient) {
  ClientSocket client;
  std::thread connecting = Undisturbed([&] {
    std::this_thread::sleep_for(milliseconds(60));
    client.Connect("127.0.0.1", _port);
  });
  Socket accepted;
  {
    const Interruptions interruptions;
    EXPECT_EQ(_server.Accept(accepted), BRAID_OK);
    EXPECT_GT(g_signals, 0);
  }
  connecting.join();
  EXPECT_TRUE(accepted.IsOpen());
}

TEST_F(TcpTest, SignalsDoNotEndTheWaitForAServer) {
  // A queue that is full makes a client wait until the system asks again, a second later.
  ASSERT_EQ(listen(_server.Fd(), 0), 0);
  ClientSocket first;
  first.Connect("127.0.0.1", _port);
  std::atomic<bool> is_over = false;
  g_signals = 0;
  std::thread accepting = Undisturbed([&] {
    while (g_signals < 3 && !is_over) std::this_thread::sleep_for(milliseconds(5));
    std::vector<std::unique_ptr<Socket>> accepted;
    _server.SetNonBlocking(true);
    while (!is_over) {
      accepted.push_back(std::make_unique<Socket>());
      if (_server.Accept(*accepted.back()) != BRAID_OK) accepted.pop_back();
      std::this_thread::sleep_for(milliseconds(5));
    }
  });
  Opened<ClientSocket> client;
  std::string error;
  {
    const Interruptions interruptions;
    error = ErrorOf([&] { client.Connect("127.0.0.1", _port); });
    EXPECT_GT(g_signals, 1);
  }
  EXPECT_EQ(error, "(no error)");
  EXPECT_EQ(client.Port(), _port);
  EXPECT_EQ(client.Puts("x"), BRAID_OK);
  is_over = true;
  accepting.join();
}

TEST_F(TcpTest, ConnectThatFailsBehindASignalHasFailed) {
  _server.Close();
  Opened<ClientSocket> client;
  g_interrupt_connect = true;
  const std::string error = ErrorOf([&] { client.Connect("127.0.0.1", _port); });
  g_interrupt_connect = false;
  EXPECT_EQ(error, Text("Failed connecting to 127.0.0.1:", _port, " ."));
  EXPECT_EQ(client.Port(), 0);
}

TEST_F(TcpTest, DescriptorZeroCountsAsAFailedAccept) {
  ClientSocket client;
  client.Connect("127.0.0.1", _port);
  // In a process of its own, whose descriptor 0 is free.
  EXPECT_EXIT(
      {
        close(0);
        Opened<Socket> accepted;
        const BraidResult result = _server.Accept(accepted);
        _exit(result == BRAID_ERROR && accepted.Fd() == 0 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(TcpTest, SocketThatCannotListenSaysSo) {
  Opened<Socket> datagrams;
  datagrams.Adopt(socket(AF_INET, SOCK_DGRAM, 0));
  Socket accepted;
  EXPECT_EQ(datagrams.Listen(), BRAID_ERROR);
  EXPECT_EQ(datagrams.Accept(accepted), BRAID_ERROR);
  EXPECT_FALSE(accepted.IsOpen());
}

TEST_F(TcpTest, SocketClosesWithItsOwner) {
  int fd = -1;
  {
    Opened<ClientSocket> client;
    fd = client.Fd();
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
  }
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(TcpTest, RefusedSocketOptionHasItsOwnText) {
  g_refuse_options = true;
  Socket socket;
  EXPECT_EQ(ErrorOf([&] { socket.Open(); }), "Failed creatindsetting socket option SO_REUSEADDR.");
  EXPECT_EQ(ErrorOf([] { ClientSocket(); }), "Failed creatindsetting socket option SO_REUSEADDR.");
  g_refuse_options = false;
}

TEST_F(TcpTest, ErrorsNameTheirUnit) {
  ClientSocket client;
  try {
    client.Connect("127.0.0.1", -1);
    FAIL();
  } catch (const BraidError& error) {
    EXPECT_EQ(error.File(), "BraidConn");
    EXPECT_GT(error.Line(), 0u);
  }
}

}  // namespace
