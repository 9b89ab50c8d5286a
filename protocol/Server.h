/// The bus server on the network.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "protocol/EventLoop.h"
#include "protocol/Frames.h"
#include "protocol/Handler.h"
#include "protocol/Peers.h"

namespace protocol {

/// One message of a client, and its answer.
struct Exchange {
  std::string request;
  std::string answer;
};

/// Where a server listens, and what it bears from its clients. As it stands: everything.
struct ServerOptions {
  std::string host = "127.0.0.1";
  std::uint16_t port = 0;              ///< 0: any free port
  std::optional<int> descriptor = {};  ///< of a socket that listens already, in the place of these;
                                       ///< the server closes it
  std::vector<Network> allow = {};     ///< who may connect; empty: everybody. Others are
                                       ///< disconnected at once, without a byte
  std::size_t connections = SIZE_MAX;  ///< at most; further ones are treated likewise
  std::size_t max_message = MAX_MESSAGE;  ///< bytes
  std::chrono::milliseconds idle{0};      ///< without a request; 0: no limit
  bool is_keep_alive = false;             ///< finds out dead clients within half a minute
};

/// Serves a handler's devices to any number of clients at the same time. The handler is borrowed.
class Server {
 public:
  using Trace = std::function<void(const std::string& request, const std::string& answer)>;

  /// Starts to listen; port 0 means any free port. Throws std::runtime_error when it cannot.
  Server(AsyncHandler& handler, const std::string& host, std::uint16_t port, Trace trace = {});
  /// Likewise, in a loop that is shared with others and borrowed.
  Server(EventLoop& loop, AsyncHandler& handler, const ServerOptions& options, Trace trace = {});
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  /// Closes all connections.
  ~Server();

  /// The port that it listens on.
  std::uint16_t Port() const;
  /// The address for clients: "TYPE:HOST:PORT".
  std::string ServerString() const;

  /// Runs its loop until Stop is called, which any thread may do.
  void Run();
  /// From now on, SIGINT and SIGTERM stop it, too.
  void StopOnSignals();
  void Stop();
  /// Accepts no connection and no request any more. When the requests that are under way are
  /// answered, it closes the connections and stops. Stops at once when it is called again. Any
  /// thread may call it.
  void Finish();
  /// The serving thread calls `task` when it is not busy with a request.
  void Post(std::function<void()> task);

 private:
  class Implementation;
  void Begin(EventLoop& loop, AsyncHandler& handler, const ServerOptions& options, Trace trace);

  std::unique_ptr<EventLoop> _own_loop;
  std::shared_ptr<Implementation> _implementation;
};

/// A server in a thread of its own, on loopback, which stops when this object is destroyed.
class ServerThread {
 public:
  /// Records every exchange.
  explicit ServerThread(AsyncHandler& handler, const ServerOptions& options = {});
  /// Records nothing; calls `trace` in that thread.
  ServerThread(AsyncHandler& handler, Server::Trace trace, const ServerOptions& options = {});
  ServerThread(const ServerThread&) = delete;
  ServerThread& operator=(const ServerThread&) = delete;
  ~ServerThread();

  /// Finishes the server, and returns when it has.
  void Finish();
  std::uint16_t Port() const { return _server.Port(); }
  std::string ServerString() const { return _server.ServerString(); }

  /// Runs `task`, which may change the devices, while no request is being executed. Returns when it
  /// is done, and throws what it throws.
  void BetweenRequests(const std::function<void()>& task);
  std::vector<Exchange> Exchanges() const;
  std::vector<std::string> Requests() const;
  void ForgetExchanges();

 private:
  mutable std::mutex _mutex;
  std::vector<Exchange> _exchanges;  ///< guarded by _mutex
  EventLoop _loop;
  Server _server;
  std::thread _thread;
};

}  // namespace protocol
