#include "trials/MisbehavingServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "common/ChildProcess.h"
#include "common/Descriptor.h"
#include "common/SystemError.h"
#include "common/Text.h"
#include "protocol/Frames.h"

namespace trials {

using common::Descriptor;
using common::Text;
using common::ThrowSystemError;

namespace {

using common::WaitUntilReadable;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// The longest line that a client accepts.
constexpr std::size_t LONGEST_LINE = std::size_t{1} << 24;

/// All that was written to a file in memory.
std::string Contents(const Descriptor& file) {
  std::string text(static_cast<std::size_t>(lseek(file.Get(), 0, SEEK_END)), '\0');
  if (pread(file.Get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    ThrowSystemError("pread");
  }
  return text;
}

/// One client's connection.
class ClientConnection {
 public:
  ClientConnection(Descriptor connection, Responder& devices, FaultInjector& injector, pid_t client,
                   RunOutcome& outcome, steady_clock::time_point deadline)
      : _connection(std::move(connection)),
        _devices(devices),
        _injector(injector),
        _client(client),
        _outcome(outcome),
        _deadline(deadline) {
    const int on = 1;
    setsockopt(_connection.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    const timeval longest{.tv_sec = 10, .tv_usec = 0};
    setsockopt(_connection.Get(), SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof(longest));
  }

  void Serve() {
    std::string request;
    while (_connection.Get() >= 0 && TakeFrame(request)) {
      const std::size_t index = _outcome.requests.size();
      _outcome.requests.push_back(request);
      const bool is_executed = _injector.BeforeRequest(index, request, _client);
      std::string answer;
      if (is_executed) {
        std::optional<std::string> right = _devices.Answer(request);
        if (!right) {
          _outcome.answers.emplace_back();
          return _connection.Close();
        }
        answer = *std::move(right);
      }
      _outcome.answers.push_back(answer);
      if (const InjectedFault* injected = _injector.FaultFor(index, request, answer)) {
        SendFaulty(*injected);
      } else {
        Send(std::exchange(_late, {}) + protocol::Frame(answer));
      }
      _injector.AfterAnswer(index, _client);
    }
  }

 private:
  void SendFaulty(const InjectedFault& injected) {
    const std::string& answer = injected.answer;
    const std::string frame = protocol::Frame(answer);
    switch (injected.fault) {
      case AnswerFault::LONG_LINE:
        Send(std::string(protocol::NEW_BUF) + "\n" + std::string(LONGEST_LINE + 1, 'A'));
        return;
      case AnswerFault::LOST:
      case AnswerFault::CLOSE_BEFORE:
        _connection.Close();
        return;
      case AnswerFault::CLOSE_INSIDE:
        Send(frame.substr(0, frame.size() / 2));
        _connection.Close();
        return;
      case AnswerFault::CLOSE_AFTER:
        Send(frame);
        _connection.Close();
        return;
      case AnswerFault::RESET: {
        const linger at_once{.l_onoff = 1, .l_linger = 0};
        setsockopt(_connection.Get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
        _connection.Close();
        return;
      }
      case AnswerFault::BYTEWISE:
        for (const char c : frame) Send({&c, 1});
        return;
      case AnswerFault::RETURNS: {
        std::string lines;
        for (const char c : frame) lines += c == '\n' ? std::string("\r\n") : std::string(1, c);
        return Send(lines);
      }
      case AnswerFault::ONE_PIECE:
        return SendPieces(answer, 1);
      case AnswerFault::TWO_PIECES:
        return SendPieces(answer, 2);
      case AnswerFault::MANY_PIECES:
        return SendPieces(answer, answer.size());
      case AnswerFault::TWICE:
        return Send(frame + frame);
      case AnswerFault::TWICE_LATE:
        _late = frame;
        return Send(frame);
      case AnswerFault::SILENCE:
        return;
      case AnswerFault::SILENCE_INSIDE:
        return Send(frame.substr(0, frame.size() / 2));
      default:
        return Send(frame);
    }
  }

  /// Sends the answer as a piece and `count` continuations, all of about the same size. The last
  /// one may be empty.
  void SendPieces(const std::string& answer, std::size_t count) {
    constexpr std::size_t MOST_PIECES = 64;
    count = std::clamp<std::size_t>(count, 1, MOST_PIECES);
    const std::size_t size = std::max<std::size_t>((answer.size() + count - 1) / count, 1);
    for (std::size_t i = 0; i <= count; ++i) {
      const std::string piece = i * size < answer.size() ? answer.substr(i * size, size) : "";
      Send(protocol::FramePiece(piece, i == 0, i == count));
      std::string agreement;
      if (i == count) return;
      if (!TakeFrame(agreement)) return;
      if (agreement != protocol::CONTINUE) {
        _outcome.protocol_error = "it agrees to a continuation with \"" + agreement + "\"";
        return;
      }
    }
  }

  /// Ignores errors: a client that has closed the connection ends by itself.
  void Send(std::string_view bytes) { common::SendAll(_connection.Get(), bytes); }

  /// Takes a request, stricter than a server must: the burner sends them in one line. False when
  /// the client has closed the connection, or at the deadline.
  bool TakeFrame(std::string& content) {
    std::string head;
    std::string tail;
    if (!TakeLine(head)) return false;
    if (TakeLine(content) && TakeLine(tail) && head == protocol::NEW_BUF &&
        tail == protocol::END_BUF) {
      return true;
    }
    _outcome.protocol_error = "it sends \"" + head + "\", \"" + content + "\", \"" + tail + "\"";
    return false;
  }

  bool TakeLine(std::string& line) {
    for (;;) {
      if (auto next = _received.Next()) {
        line = *std::move(next);
        return true;
      }
      if (!WaitUntilReadable(_connection.Get(), -1, _deadline)) return false;
      std::array<char, 8192> buffer;
      const ssize_t got = recv(_connection.Get(), buffer.data(), buffer.size(), 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      _received.Feed({buffer.data(), static_cast<std::size_t>(got)});
    }
  }

  Descriptor _connection;
  Responder& _devices;
  FaultInjector& _injector;
  pid_t _client;
  RunOutcome& _outcome;
  steady_clock::time_point _deadline;
  protocol::LineReader _received;
  std::string _late;  ///< an answer too many that goes out with the next one
};

/// Injects one fault, or none.
class SingleFaultInjector : public FaultInjector {
 public:
  SingleFaultInjector(const InjectedFault* injected, Responder& devices)
      : _injected(injected), _devices(devices) {}

  bool BeforeRequest(std::size_t index, const std::string& request, pid_t) override {
    if (!IsHit(index)) return true;
    if (_injected->fault == AnswerFault::ELEMENT_ERROR ||
        _injected->fault == AnswerFault::ELEMENT_TARGET_ERROR) {
      _devices.FailNext(_injected->device, request);
    }
    // An error for all devices means that the request was not executed.
    return _injected->fault != AnswerFault::ERROR_ANSWER &&
           _injected->fault != AnswerFault::TARGET_ERROR_ANSWER &&
           _injected->fault != AnswerFault::LOST;
  }
  const InjectedFault* FaultFor(std::size_t index, const std::string&,
                                const std::string&) override {
    return IsHit(index) ? _injected : nullptr;
  }
  void AfterAnswer(std::size_t, pid_t) override {}

 private:
  bool IsHit(std::size_t index) const { return _injected && _injected->at == index; }

  const InjectedFault* _injected;
  Responder& _devices;
};

}  // namespace

std::string MisbehavingServer::Name(const std::string& type) const {
  return Text(type, ":127.0.0.1:", _listener.Port());
}

RunOutcome MisbehavingServer::Run(const std::vector<std::string>& words, Responder& devices,
                                  const InjectedFault* injected, milliseconds limit) {
  SingleFaultInjector injector(injected, devices);
  return Run(words, devices, injector, limit);
}

RunOutcome MisbehavingServer::Run(const std::vector<std::string>& words, Responder& devices,
                                  FaultInjector& injector, milliseconds limit) {
  const auto deadline = steady_clock::now() + limit;
  RunOutcome outcome;
  const Descriptor output(memfd_create("output", MFD_CLOEXEC));
  const Descriptor errors(memfd_create("errors", MFD_CLOEXEC));
  // Connections of a client that was ended before it was served.
  while (_listener.TryAccept().IsOpen()) {
  }
  // These may be ignored in a process that runs in the background.
  common::ChildProcess child({.words = words,
                              .output = output.Get(),
                              .errors = errors.Get(),
                              .default_signals = {SIGINT, SIGQUIT, SIGTERM}});
  if (WaitUntilReadable(_listener.Get(), child.EndDescriptor(), deadline)) {
    Descriptor connection = _listener.TryAccept();
    if (connection.IsOpen()) {
      devices.Connected();
      ClientConnection(std::move(connection), devices, injector, child.Pid(), outcome, deadline)
          .Serve();
      devices.Disconnected();
    }
  }
  outcome.in_time = child.WaitUntil(deadline).has_value();
  if (!outcome.in_time) child.Signal(SIGKILL);
  const common::Ending ending = child.Wait();
  outcome.status = ending.status;
  outcome.signal = ending.signal;
  outcome.output = Contents(output);
  outcome.errors = Contents(errors);
  outcome.server_error = devices.Wrong();
  return outcome;
}

}  // namespace trials
