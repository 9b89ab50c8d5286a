/// Devices that answer when a test lets them.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "protocol/AsyncHandler.h"

namespace protocol {

/// Keeps requests, and who is connected. Every member may be used by any thread, but replies only
/// by the one that serves.
class LateHandler : public AsyncHandler {
 public:
  void Connected(ClientId client, const std::string& peer) override {
    Note([&] { peers[client] = peer; });
  }
  void Disconnected(ClientId client) override {
    Note([&] { gone.push_back(client); });
  }
  void Start(ClientId client, std::string_view text, std::shared_ptr<Reply> reply) override {
    Note([&] { requests.emplace_back(client, text); });
    replies.push_back(std::move(reply));
  }
  std::string Type() const override { return "IB"; }

  /// Waits until `holds`, which is asked with the members locked.
  template <typename Condition>
  bool WaitUntil(const Condition& holds) {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, std::chrono::seconds(20), holds);
  }
  bool WaitForRequests(std::size_t count) {
    return WaitUntil([&] { return requests.size() >= count; });
  }

  std::map<ClientId, std::string> peers;
  std::vector<ClientId> gone;
  std::vector<std::pair<ClientId, std::string>> requests;
  std::vector<std::shared_ptr<Reply>> replies;  ///< one for each

 private:
  template <typename Change>
  void Note(const Change& change) {
    const std::lock_guard lock(_mutex);
    change();
    _changed.notify_all();
  }

  std::mutex _mutex;
  std::condition_variable _changed;
};

}  // namespace protocol
