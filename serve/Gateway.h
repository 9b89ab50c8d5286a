/// The devices of a configuration behind the bus protocol.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "protocol/AsyncHandler.h"
#include "serve/ChipWork.h"
#include "serve/Configuration.h"
#include "serve/Leases.h"
#include "serve/Loop.h"
#include "serve/ServedDevices.h"

namespace serve {

/// Splits requests by wire, has the wires do their parts side by side, and joins the answers. Keeps
/// clients waiting with a byte every HEARTBEAT. Has no sockets and no threads: its loop calls it.
class Gateway : public protocol::AsyncHandler {
 public:
  static constexpr Time HEARTBEAT = std::chrono::seconds(5);

  /// Where texts for people go, and the records of leases; both may be empty.
  struct Outputs {
    Audit audit;
    std::function<void(const std::string&)> log;
  };

  /// Touches no device. `system` and `loop` are borrowed.
  Gateway(System& system, Loop& loop, const Configuration& configuration,
          ServedDevices::Options options, Outputs outputs);

  void Connected(protocol::ClientId client, const std::string& peer) override;
  /// Its devices are released when the request under way is done.
  void Disconnected(protocol::ClientId client) override;
  void Start(protocol::ClientId client, std::string_view text,
             std::shared_ptr<protocol::Reply> reply) override;
  std::string Type() const override { return _configuration.type; }

  /// Serves another configuration from now on. A device that a client holds keeps what it has until
  /// it is released.
  void Reload(const Configuration& configuration);
  /// Releases devices whose leases a crash of this server has left. Throws std::runtime_error where
  /// another server uses the same folder of leases.
  void ReleaseLeftOvers() { _leases.ReleaseLeftOvers(_devices); }
  /// Calls `call` once no device is held and no request is under way; at once where that is so.
  void WhenIdle(std::function<void()> call);

 private:
  struct Client {
    std::string peer;
    std::uint32_t multi_max = 0;  ///< as it was when the client connected
    bool is_gone = false;
    bool is_asking = false;  ///< a request of it is under way
  };
  struct Exchange;
  using ExchangePointer = std::shared_ptr<Exchange>;

  std::optional<protocol::Answer> AnswerAlone(const protocol::Request& request) const;
  /// Decides what the `i`th device of the request needs, and takes its lease where that is needed.
  void Plan(const ExchangePointer& exchange, std::size_t i);
  static void CheckWritable(const protocol::Request& request, const ServedDevice& device);
  void Planned(const ExchangePointer& exchange);
  void Execute(const ExchangePointer& exchange);
  void TakeResults(const ExchangePointer& exchange, ChipWork& work);
  /// Plans once more what may be read no longer, and returns whether there was something.
  bool PlanAgain(const ExchangePointer& exchange);
  void Finish(const ExchangePointer& exchange);
  void Note(const Exchange& exchange);
  /// Answers a request that cannot be executed.
  void Abort(const ExchangePointer& exchange, const std::string& why);
  void WaitForBeat(const ExchangePointer& exchange);
  void EndRequest(protocol::ClientId client);
  void CheckIdle();

  Loop& _loop;
  Configuration _configuration;
  ServedDevices _devices;
  Leases _leases;
  std::map<protocol::ClientId, Client> _clients;
  std::size_t _under_way = 0;  ///< requests
  std::vector<std::function<void()>> _when_idle;
};

}  // namespace serve
