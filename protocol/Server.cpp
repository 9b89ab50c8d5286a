#include "protocol/Server.h"

#include <fcntl.h>

#include <array>
#include <asio.hpp>
#include <csignal>
#include <deque>
#include <future>
#include <stdexcept>

#include "common/Text.h"
#include "protocol/Session.h"

namespace protocol {

using asio::ip::tcp;

namespace {

/// One client. Pending operations share its ownership, so that it lives as long as they do.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(tcp::socket socket, Handler& handler, const Server::Trace& trace)
      : _socket(std::move(socket)), _timer(_socket.get_executor()), _session(handler) {
    _session.trace = trace;
    asio::error_code ignored;
    _socket.set_option(tcp::no_delay(true), ignored);
    // Child processes must not inherit the connection.
    fcntl(_socket.native_handle(), F_SETFD, FD_CLOEXEC);
  }

  void Read() {
    _socket.async_read_some(
        asio::buffer(_block),
        [self = shared_from_this()](const asio::error_code& error, std::size_t size) {
          if (error) return;
          for (Step& step : self->_session.Feed({self->_block.data(), size})) {
            self->_steps.push_back(std::move(step));
          }
          self->TakeStep();
        });
  }

 private:
  void TakeStep() {
    if (_steps.empty()) {
      Read();
      return;
    }
    _step = std::move(_steps.front());
    _steps.pop_front();
    const auto go_on = [self = shared_from_this()](const asio::error_code& error, auto...) {
      if (!error) self->TakeStep();
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
        _socket.close(ignored);
        break;
      case Step::CLOSE:
        _socket.shutdown(tcp::socket::shutdown_both, ignored);
        _socket.close(ignored);
        break;
    }
  }

  tcp::socket _socket;
  asio::steady_timer _timer;
  Session _session;
  std::array<char, 65536> _block{};
  std::deque<Step> _steps;
  Step _step{Step::SEND};
};

}  // namespace

class Server::Implementation {
 public:
  Implementation(Handler& handler, std::string host, std::uint16_t port, Trace trace)
      : _handler(handler), _host(std::move(host)), _trace(std::move(trace)), _acceptor(_context) {
    tcp::resolver resolver(_context);
    const tcp::endpoint endpoint =
        resolver.resolve(tcp::v4(), _host, std::to_string(port))->endpoint();
    _acceptor.open(endpoint.protocol());
    fcntl(_acceptor.native_handle(), F_SETFD, FD_CLOEXEC);
    _acceptor.set_option(tcp::acceptor::reuse_address(true));
    _acceptor.bind(endpoint);
    _acceptor.listen();
    _port = _acceptor.local_endpoint().port();
    Accept();
  }

  void Accept() {
    _acceptor.async_accept([this](const asio::error_code& error, tcp::socket socket) {
      if (error == asio::error::operation_aborted) return;
      if (!error) {
        std::make_shared<Connection>(std::move(socket), _handler, _trace)->Read();
        Accept();
        return;
      }
      // No descriptor is free: try again when a client may have disconnected.
      _pause.expires_after(std::chrono::milliseconds(100));
      _pause.async_wait([this](const asio::error_code& stopped) {
        if (!stopped) Accept();
      });
    });
  }

  Handler& _handler;
  std::string _host;
  Trace _trace;
  std::uint16_t _port = 0;
  asio::io_context _context;
  tcp::acceptor _acceptor;
  asio::steady_timer _pause{_context};
  asio::signal_set _signals{_context};
};

Server::Server(Handler& handler, const std::string& host, std::uint16_t port, Trace trace) try
    : _implementation(std::make_unique<Implementation>(handler, host, port, std::move(trace))) {
} catch (const std::system_error& error) {
  throw std::runtime_error(common::Text("can't listen on ", host, ":", port, ": ", error.what()));
}

Server::~Server() = default;

std::uint16_t Server::Port() const { return _implementation->_port; }

std::string Server::ServerString() const {
  return common::Text(_implementation->_handler.Type(), ":", _implementation->_host, ":", Port());
}

void Server::Run() { _implementation->_context.run(); }

void Server::StopOnSignals() {
  _implementation->_signals.add(SIGINT);
  _implementation->_signals.add(SIGTERM);
  _implementation->_signals.async_wait([this](const asio::error_code& error, int) {
    if (!error) Stop();
  });
}

void Server::Stop() { _implementation->_context.stop(); }

void Server::Post(std::function<void()> task) {
  asio::post(_implementation->_context, std::move(task));
}

ServerThread::ServerThread(Handler& handler)
    : ServerThread(handler, [this](const std::string& request, const std::string& answer) {
        const std::lock_guard lock(_mutex);
        _exchanges.push_back({request, answer});
      }) {}

ServerThread::ServerThread(Handler& handler, Server::Trace trace)
    : _server(handler, "127.0.0.1", 0, std::move(trace)), _thread([this] { _server.Run(); }) {}

ServerThread::~ServerThread() {
  _server.Stop();
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
