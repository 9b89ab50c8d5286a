/// The bus server on the network.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "protocol/Handler.h"

namespace protocol {

/// One message of a client, and its answer.
struct Exchange {
  std::string request;
  std::string answer;
};

/// Serves a handler's devices to any number of clients at the same time. The handler is borrowed.
class Server {
 public:
  using Trace = std::function<void(const std::string& request, const std::string& answer)>;

  /// Starts to listen; port 0 means any free port. Throws std::runtime_error when it cannot.
  Server(Handler& handler, const std::string& host, std::uint16_t port, Trace trace = {});
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server();

  /// The port that it listens on.
  std::uint16_t Port() const;
  /// The address for clients: "TYPE:HOST:PORT".
  std::string ServerString() const;

  /// Serves until Stop is called, which any thread may do.
  void Run();
  /// From now on, SIGINT and SIGTERM stop it, too.
  void StopOnSignals();
  void Stop();
  /// The serving thread calls `task` when no request is being executed.
  void Post(std::function<void()> task);

 private:
  class Implementation;
  std::unique_ptr<Implementation> _implementation;
};

/// A server in a thread of its own, on loopback, which stops when this object is destroyed.
class ServerThread {
 public:
  /// Records every exchange.
  explicit ServerThread(Handler& handler);
  /// Records nothing; calls `trace` in that thread.
  ServerThread(Handler& handler, Server::Trace trace);
  ServerThread(const ServerThread&) = delete;
  ServerThread& operator=(const ServerThread&) = delete;
  ~ServerThread();

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
  Server _server;
  std::thread _thread;
};

}  // namespace protocol
