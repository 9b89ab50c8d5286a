/// A bus server of one client that obeys a simulated fabric but for one answer.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "sim/Fabric.h"
#include "trials/Faults.h"

namespace faults {

/// What is wrong with one answer.
struct Misdeed {
  std::size_t at = 0;  ///< the request, from 0
  Fault fault = Fault::BYTEWISE;
  std::optional<Guid> device;
  std::string answer;  ///< in the place of the right one
};

/// How a client ended, and what it asked.
struct Outcome {
  std::string output;
  std::string errors;
  int status = -1;        ///< exit status; -1 where a signal ended it
  int signal = 0;         ///< that ended it; 0 where none did
  bool in_time = true;    ///< else it was killed
  std::string complaint;  ///< of what it sent; empty when all was well
  std::vector<std::string> requests;
  std::vector<std::string> answers;  ///< that were right
};

/// Who disturbs a run, request by request.
class Disturber {
 public:
  virtual ~Disturber() = default;
  /// A request has come, and waits to be executed. May spoil the fabric or send the client a
  /// signal; false: it is not executed at all.
  virtual bool Comes(std::size_t index, const std::string& request, pid_t client) = 0;
  /// What is to be sent instead of its right answer; null for that itself. It lives until the next
  /// call.
  virtual const Misdeed* Answers(std::size_t index, const std::string& request,
                                 const std::string& answer) = 0;
  /// The answer is on its way.
  virtual void Answered(std::size_t index, pid_t client) = 0;
};

/// A listening socket on loopback, with a port of its own. Used by one thread.
class Server {
 public:
  Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server();

  /// "TYPE:HOST:PORT", for -s.
  std::string Name(const std::string& type) const;

  /// Runs `words[0]` with the other words and serves it on `fabric` until it ends, `limit` at most;
  /// `misdeed` may be null.
  Outcome Run(const std::vector<std::string>& words, sim::Fabric& fabric, const Misdeed* misdeed,
              std::chrono::milliseconds limit);
  /// The same, with any number of misdeeds.
  Outcome Run(const std::vector<std::string>& words, sim::Fabric& fabric, Disturber& disturber,
              std::chrono::milliseconds limit);

 private:
  int _listener = -1;
  int _port = 0;
};

}  // namespace faults
