#include "protocol/Server.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <asio.hpp>
#include <csignal>
#include <deque>
#include <future>
#include <stdexcept>
#include <unordered_set>
#include <utility>

#include "common/Text.h"
#include "protocol/Session.h"

namespace protocol {

using asio::ip::tcp;
using std::chrono::steady_clock;

namespace {

/// How soon a client is found out that has died without a word, with TCP's probes.
constexpr int PROBE_AFTER = 10;     ///< seconds without a byte
constexpr int PROBE_INTERVAL = 5;   ///< seconds
constexpr int PROBES = 3;           ///< without an answer
constexpr int DEAD_AFTER = 25'000;  ///< milliseconds in which what was sent is not acknowledged

/// A client that takes nothing of its answer for so long does not keep a server from its end.
constexpr std::chrono::milliseconds LONGEST_FINISH{5000};

void KeepAlive(int socket) {
  const auto set = [socket](int level, int option, int value) {
    // What the kernel does not have is left out: the client is found out later.
    setsockopt(socket, level, option, &value, sizeof value);
  };
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, PROBE_AFTER);
  set(IPPROTO_TCP, TCP_KEEPINTVL, PROBE_INTERVAL);
  set(IPPROTO_TCP, TCP_KEEPCNT, PROBES);
  set(IPPROTO_TCP, TCP_USER_TIMEOUT, DEAD_AFTER);
}

/// Children must not inherit a socket.
void CloseOnExec(int socket) { fcntl(socket, F_SETFD, FD_CLOEXEC); }

tcp::socket Prepared(tcp::socket socket, const ServerOptions& options) {
  asio::error_code ignored;
  socket.set_option(tcp::no_delay(true), ignored);
  CloseOnExec(socket.native_handle());
  if (options.is_keep_alive) KeepAlive(socket.native_handle());
  return socket;
}

/// A socket for IPv6 takes clients of IPv4, too, and gives their addresses another form.
asio::ip::address PlainAddress(const asio::ip::address& address) {
  if (address.is_v6() && address.to_v6().is_v4_mapped()) {
    return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
  }
  return address;
}

bool MayConnect(const asio::ip::address& peer, const std::vector<Network>& allow) {
  if (allow.empty()) return true;
  const bool is_this_machine = peer.is_v6() && peer.is_loopback();
  if (peer.is_v6() && !is_this_machine) return false;
  const std::uint32_t address =
      is_this_machine ? asio::ip::address_v4::loopback().to_uint() : peer.to_v4().to_uint();
  return std::ranges::any_of(allow, [&](const Network& network) { return network.Has(address); });
}

/// One client. Pending operations share its ownership, so that it lives as long as they do.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using OnEnd = std::function<void(Connection*)>;

  Connection(tcp::socket socket, AsyncHandler& handler, ClientId client, const std::string& peer,
             const ServerOptions& options, const Server::Trace& trace, OnEnd on_end)
      : _socket(Prepared(std::move(socket), options)),
        _timer(_socket.get_executor()),
        _idle_timer(_socket.get_executor()),
        _idle(options.idle),
        _on_end(std::move(on_end)),
        _session(handler, client, peer, options.max_message) {
    _session.trace = trace;
  }

  void Begin() {
    // Not at once: the handler, which answers, is not asked or told anything in the middle of that.
    _session.later = [weak = weak_from_this()](Steps steps) {
      const auto self = weak.lock();
      if (!self) return;
      for (Step& step : steps) self->_steps.push_back(std::move(step));
      asio::post(self->_socket.get_executor(), [self] {
        if (!self->_is_busy) self->TakeStep();
      });
    };
    NoteActivity();
    WatchIdleness();
    Read();
  }

  /// Closes the connection when what is under way is answered. A client that does not take its
  /// answer is not waited for.
  void Finish() {
    _session.Finish();
    if (!_is_busy && _steps.empty() && _session.IsFinished()) return End();
    _idle = _idle.count() == 0 ? LONGEST_FINISH : std::min(_idle, LONGEST_FINISH);
    NoteActivity();
    _idle_timer.cancel();
    WatchIdleness();
  }

  void End() {
    if (std::exchange(_has_ended, true)) return;
    asio::error_code ignored;
    _socket.close(ignored);
    _timer.cancel();
    _idle_timer.cancel();
    _session.Close();
    std::exchange(_on_end, {})(this);
  }

 private:
  /// The socket is read while a request is under way, too: its end must not pass unnoticed.
  void Read() {
    _is_reading = true;
    _socket.async_read_some(
        asio::buffer(_block),
        [self = shared_from_this()](const asio::error_code& error, std::size_t size) {
          self->_is_reading = false;
          if (error) return self->End();
          self->_received = size;
          if (!self->_is_busy) self->TakeStep();
        });
  }

  void TakeStep() {
    if (_has_ended) return;
    if (_steps.empty()) {
      const std::size_t size = std::exchange(_received, 0);
      for (Step& step : size > 0 ? _session.Feed({_block.data(), size}) : _session.Resume()) {
        _steps.push_back(std::move(step));
      }
    }
    if (_steps.empty()) {
      _is_busy = false;
      if (_session.IsFinished()) return End();
      if (!_is_reading) Read();
      return;
    }
    _is_busy = true;
    // Bytes that make no request do not count: a client could send one a second for ever.
    NoteActivity();
    _step = std::move(_steps.front());
    _steps.pop_front();
    const auto go_on = [self = shared_from_this()](const asio::error_code& error, auto...) {
      if (error) return self->End();
      self->TakeStep();
    };
    asio::error_code ignored;
    switch (_step.kind) {
      case Step::SEND:
        asio::async_write(_socket, asio::buffer(_step.bytes), go_on);
        break;
      case Step::WAIT:
        _timer.expires_after(std::chrono::milliseconds(_step.milliseconds));
        _timer.async_wait(go_on);
        break;
      case Step::RESET:
        _socket.set_option(asio::socket_base::linger(true, 0), ignored);
        End();
        break;
      case Step::CLOSE:
        _socket.shutdown(tcp::socket::shutdown_both, ignored);
        End();
        break;
    }
  }

  void NoteActivity() {
    if (_idle.count() > 0) _active = steady_clock::now();
  }

  void WatchIdleness() {
    if (_idle.count() == 0) return;
    _idle_timer.expires_at(_active + _idle);
    _idle_timer.async_wait([self = shared_from_this()](const asio::error_code& error) {
      if (error || self->_has_ended) return;
      if (self->_session.IsWaiting()) self->NoteActivity();
      if (steady_clock::now() - self->_active >= self->_idle) return self->End();
      self->WatchIdleness();
    });
  }

  tcp::socket _socket;
  asio::steady_timer _timer;
  asio::steady_timer _idle_timer;
  std::chrono::milliseconds _idle;
  steady_clock::time_point _active;  ///< when a request was last answered, or a part of it
  OnEnd _on_end;
  std::array<char, 65536> _block{};
  std::size_t _received = 0;  ///< bytes in it that wait for the end of the steps
  std::deque<Step> _steps;
  Step _step{Step::SEND};
  bool _is_busy = false;  ///< with a step
  bool _is_reading = false;
  bool _has_ended = false;
  Session _session;
};

}  // namespace

class Server::Implementation : public std::enable_shared_from_this<Implementation> {
 public:
  Implementation(EventLoop& event_loop, AsyncHandler& its_handler, const ServerOptions& its_options,
                 Trace its_trace)
      : loop(event_loop),
        handler(its_handler),
        options(its_options),
        trace(std::move(its_trace)),
        acceptor(loop.Context()),
        pause(loop.Context()) {
    if (options.descriptor) {
      TakeOver(*options.descriptor);
    } else {
      Listen();
    }
    CloseOnExec(acceptor.native_handle());
    port = acceptor.local_endpoint().port();
  }

  void Listen() {
    tcp::resolver resolver(loop.Context());
    const tcp::endpoint endpoint =
        resolver.resolve(tcp::v4(), options.host, std::to_string(options.port))->endpoint();
    acceptor.open(endpoint.protocol());
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    acceptor.bind(endpoint);
    acceptor.listen();
  }

  void TakeOver(int descriptor) {
    const auto option = [descriptor](int name) {
      int value = 0;
      socklen_t size = sizeof value;
      if (getsockopt(descriptor, SOL_SOCKET, name, &value, &size) < 0) {
        throw std::system_error(errno, std::generic_category());
      }
      return value;
    };
    const int domain = option(SO_DOMAIN);
    if ((domain != AF_INET && domain != AF_INET6) || option(SO_TYPE) != SOCK_STREAM ||
        option(SO_ACCEPTCONN) == 0) {
      throw std::system_error(std::make_error_code(std::errc::invalid_argument),
                              "not a TCP socket that listens");
    }
    acceptor.assign(domain == AF_INET ? tcp::v4() : tcp::v6(), descriptor);
    options.host = PlainAddress(acceptor.local_endpoint().address()).to_string();
  }

  void Accept() {
    acceptor.async_accept(
        [weak = weak_from_this()](const asio::error_code& error, tcp::socket socket) {
          const auto self = weak.lock();
          if (!self || self->is_finishing || error == asio::error::operation_aborted) return;
          if (!error) {
            self->Serve(std::move(socket));
            self->Accept();
            return;
          }
          // No descriptor is free: try again when a client may have disconnected.
          self->pause.expires_after(std::chrono::milliseconds(100));
          self->pause.async_wait([weak](const asio::error_code& stopped) {
            const auto still_there = weak.lock();
            if (!stopped && still_there) still_there->Accept();
          });
        });
  }

  void Serve(tcp::socket socket) {
    asio::error_code error;
    const tcp::endpoint peer = socket.remote_endpoint(error);
    if (error || connections.size() >= options.connections) return;
    const asio::ip::address address = PlainAddress(peer.address());
    if (!MayConnect(address, options.allow)) return;
    const auto connection =
        std::make_shared<Connection>(std::move(socket), handler, ++last_client,
                                     common::Text(address.to_string(), ":", peer.port()), options,
                                     trace, [this](Connection* ended) { Forget(ended); });
    connections.insert(connection.get());
    connection->Begin();
  }

  void Forget(Connection* connection) {
    connections.erase(connection);
    if (is_finishing && connections.empty()) loop.Stop();
  }

  void Finish() {
    if (std::exchange(is_finishing, true) || connections.empty()) loop.Stop();
    asio::error_code ignored;
    acceptor.close(ignored);
    pause.cancel();
    for (Connection* connection : AllConnections()) connection->Finish();
  }

  /// Those of now: one that ends is forgotten.
  std::vector<Connection*> AllConnections() const {
    return {connections.begin(), connections.end()};
  }

  void EndAll() {
    is_finishing = false;
    for (Connection* connection : AllConnections()) connection->End();
  }

  EventLoop& loop;
  AsyncHandler& handler;
  ServerOptions options;
  Trace trace;
  std::uint16_t port = 0;
  tcp::acceptor acceptor;
  asio::steady_timer pause;
  std::unordered_set<Connection*> connections;  ///< which have not ended; their operations own them
  ClientId last_client = 0;
  bool is_finishing = false;
};

Server::Server(AsyncHandler& handler, const std::string& host, std::uint16_t port, Trace trace)
    : _own_loop(std::make_unique<EventLoop>()) {
  Begin(*_own_loop, handler, {.host = host, .port = port}, std::move(trace));
}

Server::Server(EventLoop& loop, AsyncHandler& handler, const ServerOptions& options, Trace trace) {
  Begin(loop, handler, options, std::move(trace));
}

void Server::Begin(EventLoop& loop, AsyncHandler& handler, const ServerOptions& options,
                   Trace trace) {
  try {
    _implementation = std::make_shared<Implementation>(loop, handler, options, std::move(trace));
  } catch (const std::system_error& error) {
    const std::string where = options.descriptor
                                  ? common::Text("the passed descriptor ", *options.descriptor)
                                  : common::Text(options.host, ":", options.port);
    throw std::runtime_error("can't listen on " + where + ": " + error.what());
  }
  _implementation->Accept();
}

Server::~Server() { _implementation->EndAll(); }

std::uint16_t Server::Port() const { return _implementation->port; }

std::string Server::ServerString() const {
  return common::Text(_implementation->handler.Type(), ":", _implementation->options.host, ":",
                      Port());
}

void Server::Run() { _implementation->loop.Run(); }

void Server::StopOnSignals() {
  for (const int signal : {SIGINT, SIGTERM}) {
    _implementation->loop.OnSignal(signal, [this] { Stop(); });
  }
}

void Server::Stop() { _implementation->loop.Stop(); }

void Server::Finish() {
  asio::dispatch(_implementation->loop.Context(), [weak = std::weak_ptr(_implementation)] {
    if (const auto self = weak.lock()) self->Finish();
  });
}

void Server::Post(std::function<void()> task) { _implementation->loop.Post(std::move(task)); }

ServerThread::ServerThread(AsyncHandler& handler, const ServerOptions& options)
    : ServerThread(
          handler,
          [this](const std::string& request, const std::string& answer) {
            const std::lock_guard lock(_mutex);
            _exchanges.push_back({request, answer});
          },
          options) {}

ServerThread::ServerThread(AsyncHandler& handler, Server::Trace trace, const ServerOptions& options)
    : _server(_loop, handler, options, std::move(trace)), _thread([this] { _server.Run(); }) {}

ServerThread::~ServerThread() {
  _server.Stop();
  if (_thread.joinable()) _thread.join();
}

void ServerThread::Finish() {
  _server.Finish();
  _thread.join();
}

void ServerThread::BetweenRequests(const std::function<void()>& task) {
  std::packaged_task<void()> work(task);
  _server.Post([&work] { work(); });
  work.get_future().get();
}

std::vector<Exchange> ServerThread::Exchanges() const {
  const std::lock_guard lock(_mutex);
  return _exchanges;
}

std::vector<std::string> ServerThread::Requests() const {
  std::vector<std::string> requests;
  for (const Exchange& exchange : Exchanges()) requests.push_back(exchange.request);
  return requests;
}

void ServerThread::ForgetExchanges() {
  const std::lock_guard lock(_mutex);
  _exchanges.clear();
}

}  // namespace protocol
