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

/// One message of a client and the answer to it.
struct Exchange {
  std::string request;
  std::string answer;
};

/// Serves a handler's devices to any number of clients, one after the other or at once. The handler
/// is borrowed.
class Server {
 public:
  using Trace = std::function<void(const std::string& request, const std::string& answer)>;

  /// Listens; port 0 takes a free one. Throws std::runtime_error when it cannot.
  Server(Handler& handler, const std::string& host, std::uint16_t port, Trace trace = {});
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server();

  std::uint16_t Port() const;
  /// What a client gives to reach it: "TYPE:HOST:PORT".
  std::string ServerString() const;

  /// Serves until Stop, which any thread may call.
  void Run();
  /// Has SIGINT and SIGTERM stop it too, from now on.
  void StopOnSignals();
  void Stop();
  /// Has the serving thread call `task` between two steps.
  void Post(std::function<void()> task);

 private:
  class Implementation;
  std::unique_ptr<Implementation> _implementation;
};

/// A server on a thread of its own, on loopback, for as long as it lives. Records every exchange.
class ServerThread {
 public:
  explicit ServerThread(Handler& handler);
  ServerThread(const ServerThread&) = delete;
  ServerThread& operator=(const ServerThread&) = delete;
  ~ServerThread();

  std::uint16_t Port() const { return _server.Port(); }
  std::string ServerString() const { return _server.ServerString(); }

  /// Calls `task` while no request is being executed, so that it may change the devices; waits for
  /// it, and throws what it throws.
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
