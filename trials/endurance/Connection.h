/// A client's connection to the server in virtual time, and the burner on it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "trials/endurance/Machine.h"
#include "trials/endurance/Turns.h"

namespace endurance {

/// The client ended without a word; it sees no answer any more.
struct Vanished {};

/// Belongs to one thread of the turns. Answers take some time on the way to it.
class Connection {
 public:
  Connection(Machine& machine, Turns& turns, protocol::ClientId id, Random& random);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { Close(); }

  const std::string& Peer() const { return _peer; }
  std::uint64_t Requests() const { return _requests; }
  /// The `n`th request, from 1, is sent and its answer never read. Ask throws Vanished then, when
  /// the server is done with it.
  void VanishAt(std::uint64_t n) { _vanishes_at = n; }
  std::string Ask(const std::string& text);
  void Close();

  /// Called with each request and its answer; may be empty.
  std::function<void(const std::string& request, const std::string& answer)> on_answer;

 private:
  class WakingReply;

  void Vanish(const std::shared_ptr<WakingReply>& reply);

  Machine& _machine;
  Turns& _turns;
  Random& _random;
  protocol::ClientId _id;
  std::string _peer;
  bool _is_open = true;
  std::uint64_t _requests = 0;
  std::uint64_t _vanishes_at = 0;
};

/// How a run of the burner ended.
struct RunEnd {
  std::string error;  ///< empty: it has succeeded, perhaps not for all devices
  bool has_vanished = false;
  bool has_aborted = false;         ///< by a check of its own
  std::set<protocol::Guid> failed;  ///< as the burner says; not all where the run ended early
  std::string console;
};

/// Burns an image file by the burner's own classes, as its main function does.
RunEnd RunBurner(Connection& connection, const std::string& file,
                 const std::set<protocol::Guid>& devices, bool is_failsafe,
                 std::uint32_t log2_chunk);

/// While it lives, what threads print on std::cout goes to the RunEnd of the burner that each of
/// them runs, and nowhere else.
class BurnerConsoles {
 public:
  BurnerConsoles();
  BurnerConsoles(const BurnerConsoles&) = delete;
  BurnerConsoles& operator=(const BurnerConsoles&) = delete;
  ~BurnerConsoles();

 private:
  std::unique_ptr<std::streambuf> _buffer;
  std::streambuf* _before;
};

}  // namespace endurance
