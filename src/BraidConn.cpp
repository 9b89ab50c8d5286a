#include "BraidConn.h"

#include <fcntl.h>
#include <netdb.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "utils.h"

namespace BraidConn {

namespace {

constexpr char TOO_LARGE[] = "Response too large. Probably server is down.";

constexpr char NEW_BUF[] = "NEW_BUF";
constexpr char END_BUF[] = "END_BUF";
constexpr char TO_BE_CONT[] = "TO_BE_CONT";
constexpr char NS_CONTINUE[] = "NsContinue";
constexpr char CONT_BUF[] = "CONT_BUF";

/// Minimum size of a piece of a large buffer, in characters; the last piece may be smaller.
constexpr std::size_t PIECE_SIZE = 4000;
constexpr std::size_t READ_BLOCK = std::size_t{64} * 1024;
/// Maximum number of parts of one write. A frame has three lines and their ends.
constexpr std::size_t MOST_PARTS = 6;

/// A larger number must be refused: cut to 16 bits it would be another port.
bool IsPort(int port) { return port >= 0 && port <= 0xFFFF; }

void AppendWithoutReturns(std::string& line, std::string_view bytes) {
  for (;;) {
    const std::size_t end = bytes.find('\r');
    line.append(bytes.substr(0, end));
    if (end == std::string_view::npos) return;
    bytes.remove_prefix(end + 1);
  }
}

/// The system error number nearest to that of the resolver, which has numbers of its own.
int ResolverErrno() {
  if (errno != 0) return errno;
  switch (h_errno) {
    case TRY_AGAIN:
      return EAGAIN;
    case NO_RECOVERY:
      return EIO;
    default:
      return ENXIO;
  }
}

/// Waits until `sock` can be read or written. Returns as select does. After a signal it waits for
/// the rest of the time.
int Wait(int sock, bool for_write, const std::chrono::milliseconds* limit) {
  using std::chrono::steady_clock;
  if (sock < 0) {
    errno = EBADF;
    return -1;
  }
  const auto deadline = steady_clock::now() + (limit ? *limit : std::chrono::milliseconds(0));
  for (;;) {
    fd_set waiting;
    FD_ZERO(&waiting);
    FD_SET(sock, &waiting);
    timeval left{};
    if (limit) {
      // Check once even after the deadline: if the process was stopped for that long, the answer
      // may have arrived.
      const auto rest = std::max(deadline - steady_clock::now(), steady_clock::duration::zero());
      const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(rest).count();
      left.tv_sec = static_cast<time_t>(micros / 1000000);
      left.tv_usec = static_cast<suseconds_t>(micros % 1000000);
    }
    const int ready = select(sock + 1, for_write ? nullptr : &waiting,
                             for_write ? &waiting : nullptr, nullptr, limit ? &left : nullptr);
    if (ready >= 0 || errno != EINTR) return ready;
  }
}

/// Waits for a connect that a signal interrupted. The system completes it; a second connect would
/// fail.
bool FinishConnect(int sock) {
  int failure = 0;
  socklen_t size = sizeof(failure);
  return Wait(sock, true, nullptr) > 0 &&
         getsockopt(sock, SOL_SOCKET, SO_ERROR, &failure, &size) == 0 && failure == 0;
}

/// TclSplit for any function type.
template <typename Each>
void SplitList(std::string_view text, const Each& each) {
  std::size_t count = 0;  // of elements that have ended
  std::size_t start = 0;  // of the element that is open
  bool is_open = false;   // a braced element or a bare word
  bool in_word = false;   // it is a bare word
  u_int32_t depth = 0;    // an unmatched "}" wraps it: the rest of the text counts as braced
  const auto end_at = [&](std::size_t end) {
    each(text.substr(start, end - start));
    ++count;
    is_open = in_word = false;
  };
  const auto start_at = [&](std::size_t at, bool is_word) {
    start = at;
    is_open = true;
    in_word = is_word;
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '{') {
      if (in_word) {
        ThrowError(Text("Response::TclSplit(): Can't parse '", text,
                        "' : '{' without a preceder white space at char ", i, "."));
      }
      if (depth++ == 0) start_at(i + 1, false);
    } else if (c == '}') {
      if (--depth == 0) end_at(i);
    } else if (depth == 0) {
      const bool is_blank = std::isspace(static_cast<unsigned char>(c)) != 0;
      if (in_word && is_blank) end_at(i);
      if (!is_open && !is_blank) start_at(i, true);
    }
  }
  if (in_word) end_at(text.size());
  if (is_open) {
    ThrowError(Text("Response::TclSplit(): Can't parse '", text, "' : Unbalanced starts (",
                    count + 1, ") and ends (", count, ") ."));
  }
}

}  // namespace

Socket::~Socket() {
  if (IsOpen()) Close();
}

BraidResult Socket::Open() {
  Close();
  _sock = socket(AF_INET, SOCK_STREAM, 0);
  // select cannot wait for descriptors of FD_SETSIZE or more.
  if (_sock >= FD_SETSIZE) Close();
  if (_sock < 0) ThrowError("Failed creating socket.");
  const int on = 1;
  if (setsockopt(_sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) {
    ThrowError("Failed creatindsetting socket option SO_REUSEADDR.");
  }
  return BRAID_OK;
}

BraidResult Socket::Close() {
  if (IsOpen()) close(_sock);
  _sock = -1;
  _received = {};
  return BRAID_OK;
}

BraidResult Socket::Bind(int port) {
  if (!IsOpen() || !IsPort(port)) return BRAID_ERROR;
  _addr = {};
  _addr.sin_family = AF_INET;
  _addr.sin_addr.s_addr = htonl(INADDR_ANY);
  _addr.sin_port = htons(static_cast<u_int16_t>(port));
  const int result = bind(_sock, reinterpret_cast<const sockaddr*>(&_addr), sizeof(_addr));
  return result < 0 ? BRAID_ERROR : BRAID_OK;
}

BraidResult Socket::Listen() const {
  constexpr int BACKLOG = 5;
  if (!IsOpen() || listen(_sock, BACKLOG) < 0) return BRAID_ERROR;
  return BRAID_OK;
}

BraidResult Socket::Accept(Socket& new_socket) const {
  new_socket.Close();
  socklen_t size = sizeof(_addr);
  do {
    new_socket._sock = accept(_sock, reinterpret_cast<sockaddr*>(&_addr), &size);
  } while (new_socket._sock < 0 && errno == EINTR);
  // select cannot wait for descriptors of FD_SETSIZE or more.
  if (new_socket._sock >= FD_SETSIZE) new_socket.Close();
  return new_socket._sock > 0 ? BRAID_OK : BRAID_ERROR;
}

BraidResult Socket::Connect(const std::string& host, int port) {
  if (!IsOpen()) return BRAID_ERROR;
  errno = 0;
  const hostent* found = gethostbyname(host.c_str());
  if (found == nullptr || found->h_addrtype != AF_INET || found->h_addr_list[0] == nullptr) {
    ThrowError("Failed getting IP address for server " + host + ": " + strerror(ResolverErrno()));
  }
  _addr = {};
  std::memcpy(&_addr.sin_addr, found->h_addr_list[0], sizeof(_addr.sin_addr));
  _addr.sin_family = AF_INET;
  _addr.sin_port = htons(static_cast<u_int16_t>(port));
  bool connected = IsPort(port);
  if (connected) {
    connected = connect(_sock, reinterpret_cast<const sockaddr*>(&_addr), sizeof(_addr)) == 0 ||
                (errno == EINTR && FinishConnect(_sock));
  }
  if (!connected) ThrowError(Text("Failed connecting to ", host, ":", port, " ."));
  _host = host;
  _port = port;
  return BRAID_OK;
}

BraidResult Socket::Puts(const std::string& line) const {
  std::string_view parts[] = {line, "\n"};
  Send(parts);
  return BRAID_OK;
}

void Socket::Send(std::span<std::string_view> parts) const {
  while (!parts.empty()) {
    std::array<iovec, MOST_PARTS> left{};
    ASSERT_ALWAYS(parts.size() <= left.size());
    for (std::size_t i = 0; i < parts.size(); ++i) {
      left[i] = {const_cast<char*>(parts[i].data()), parts[i].size()};
    }
    msghdr message{};
    message.msg_iov = left.data();
    message.msg_iovlen = parts.size();
    // A broken connection must end the run with a message, not with SIGPIPE.
    const ssize_t sent = sendmsg(_sock, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      auto rest = static_cast<std::size_t>(sent);
      while (!parts.empty() && rest >= parts.front().size()) {
        rest -= parts.front().size();
        parts = parts.subspan(1);
      }
      if (!parts.empty()) parts.front().remove_prefix(rest);
    } else if (errno == EAGAIN) {
      WaitWritable();
    } else if (errno != EINTR) {
      ThrowWriteError();
    }
  }
}

void Socket::WaitWritable() const {
  const int ready = WaitForPeer(true);
  // A server that accepts no bytes counts as down, like one that sends none.
  if (ready == 0) errno = ETIMEDOUT;
  if (ready <= 0) ThrowWriteError();
}

void Socket::ThrowWriteError(u_int32_t line) const {
  ThrowError(std::string("Failed remote read: ") + strerror(errno), __builtin_FILE(), line);
}

BraidResult Socket::Gets(std::string& line) const {
  TakeLine(line);
  return BRAID_OK;
}

std::size_t Socket::TakeLine(std::string& line) const {
  std::size_t length = 0;
  for (;;) {
    if (_received.empty()) Fill();
    const std::size_t end = _received.find('\n');
    const std::string_view part = _received.substr(0, end);
    length += part.size();
    if (length > MAX_LINE) ThrowReadError(TOO_LARGE);
    AppendWithoutReturns(line, part);
    _received.remove_prefix(part.size());
    if (end != std::string_view::npos) {
      _received.remove_prefix(1);
      return length + 1;
    }
  }
}

int Socket::WaitForPeer(bool for_write) const {
  std::chrono::milliseconds left = _max_silence;
  if (ConsoleIsPending()) {
    const auto glance = std::min(left, CONSOLE_DELAY);
    const int ready = Wait(_sock, for_write, &glance);
    if (ready != 0) return ready;
    FlushConsole();
    left -= glance;
  }
  return Wait(_sock, for_write, &left);
}

void Socket::WaitReadable() const {
  const int ready = WaitForPeer(false);
  if (ready < 0) {
    ThrowError(std::string("Failed remote read: select failed: ") + strerror(errno));
  }
  if (ready == 0) {
    ThrowError(
        Text("Failed remote read: timeout while waiting for data from ", _host, ":", _port, "."));
  }
}

void Socket::Fill() const {
  _buffer.resize(READ_BLOCK);
  ssize_t got;
  do {
    WaitReadable();
    got = read(_sock, _buffer.data(), _buffer.size());
  } while (got < 0 && (errno == EINTR || errno == EAGAIN));
  if (got < 0) ThrowReadError(strerror(errno));
  // The end of the stream does not end a line. It means that the server is down.
  if (got == 0) ThrowReadError(TOO_LARGE);
  _received = std::string_view(_buffer.data(), static_cast<std::size_t>(got));
}

bool Socket::HasRead(std::string_view line) const {
  std::string next;
  for (std::size_t start = 0, end; (end = _received.find('\n', start)) != std::string_view::npos;
       start = end + 1) {
    next.clear();
    AppendWithoutReturns(next, _received.substr(start, end - start));
    if (next == line) return true;
  }
  return false;
}

void Socket::ThrowReadError(const std::string& reason, u_int32_t line) const {
  ThrowError(Text("Failed remote read from server ", _host, ":", _port, ". ", reason),
             __builtin_FILE(), line);
}

void Socket::SetNonBlocking(bool on) {
  const int flags = fcntl(_sock, F_GETFL);
  if (flags < 0) return;
  fcntl(_sock, F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
}

void ClientSocket::SendFrame(std::string_view head, std::string_view content,
                             std::string_view tail) const {
  std::string_view parts[] = {head, "\n", content, "\n", tail, "\n"};
  Send(parts);
}

BraidResult ClientSocket::Request(const std::string& request) const {
  SendFrame(NEW_BUF, request, END_BUF);
  return BRAID_OK;
}

BraidResult ClientSocket::Receive(std::string& response) const {
  std::size_t taken = 0;
  for (std::string line;; line.clear()) {
    if (Eof()) ThrowError("Remote server closed connection (receivecs EOF)");
    // Discarded lines count, too: a faulty server may send them without end.
    taken += TakeLine(line);
    if (taken > _max_buffer) ThrowReadError(TOO_LARGE);
    if (line == NEW_BUF) {
      response.clear();
    } else if (line == END_BUF) {
      return BRAID_OK;
    } else if (line == TO_BE_CONT) {
      Request(NS_CONTINUE);
    } else if (line != CONT_BUF) {
      response += line;
    }
  }
}

bool ClientSocket::HasSurplus() const { return HasRead(END_BUF); }

BraidResult ClientSocket::Respond(const std::string& response) const {
  std::string_view rest = response;
  for (const char* head = NEW_BUF;; head = CONT_BUF) {
    const bool is_last = rest.size() <= PIECE_SIZE;
    std::size_t length = rest.size();
    if (!is_last) {
      // Cut before a line end, so that no line of the payload is split.
      length = rest.find('\n', PIECE_SIZE);
      if (length == std::string_view::npos) length = PIECE_SIZE;
    }
    SendFrame(head, rest.substr(0, length), is_last ? END_BUF : TO_BE_CONT);
    if (is_last) return BRAID_OK;

    std::string agreement;
    Receive(agreement);
    if (agreement != NS_CONTINUE) {
      ThrowError(
          "Bus server protocol error: In ClientSocket::Respond(), After sending TO_BE_CONT, "
          "expected \"NsContinue\" from peer, bur received \"" +
          agreement + "\"");
    }
    rest.remove_prefix(length);
  }
}

bool TellsError(std::string_view text) {
  return text.starts_with("ERROR") || text.starts_with("TARGET_ERROR");
}

bool Response::GotErr() const { return TellsError(*this); }

std::string Response::Error() const {
  if (!TellsError(*this)) {
    return "*** Error dexcription can't be extracted from response: " + *this;
  }
  const std::vector<std::string> pieces = splitv(*this, ":", false);
  if (pieces.size() == 1) return *this;
  if (pieces.size() == 2) return pieces[1];
  std::string description = pieces[2];
  for (std::size_t i = 3; i < pieces.size(); ++i) description += ":" + pieces[i];
  return description;
}

std::vector<Response> Response::TclSplit() const {
  std::vector<std::string_view> parts;
  BraidConn::TclSplit(*this, parts);
  std::vector<Response> elements;
  elements.reserve(parts.size());
  for (const std::string_view part : parts) elements.emplace_back(std::string(part));
  return elements;
}

void TclSplit(std::string_view text, std::vector<std::string_view>& elements) {
  elements.clear();
  SplitList(text, [&elements](std::string_view element) { elements.push_back(element); });
}

void TclSplit(std::string_view text, const std::function<void(std::string_view)>& each) {
  SplitList(text, each);
}

}  // namespace BraidConn
