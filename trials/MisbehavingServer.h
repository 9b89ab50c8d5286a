/// A bus server for one client at a time. It answers as its devices do, but for the faults that are
/// injected into its answers.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "protocol/Listener.h"
#include "trials/AnswerFaults.h"
#include "trials/Responder.h"

namespace trials {

/// A fault in one answer.
struct InjectedFault {
  std::size_t at = 0;  ///< index of the request, from 0
  AnswerFault fault = AnswerFault::BYTEWISE;
  std::optional<Guid> device;
  std::string answer;  ///< sent instead of the right one
};

/// How a run of the client ended, and what it requested.
struct RunOutcome {
  std::string output;
  std::string errors;
  int status = -1;             ///< exit status; -1 where a signal ended it
  int signal = 0;              ///< the signal that ended it; 0 where none did
  bool in_time = true;         ///< false: it was killed at the end of its time limit
  std::string protocol_error;  ///< what the client sent wrong; empty where all was right
  std::string server_error;    ///< what the devices' side did wrong; empty where all was right
  std::vector<std::string> requests;
  std::vector<std::string> answers;  ///< the right ones, whatever was sent
};

/// Decides for each request of a run which fault to inject.
class FaultInjector {
 public:
  virtual ~FaultInjector() = default;
  /// Called before a request is executed. May change the devices or send the client a signal. The
  /// request is not executed where it returns false.
  virtual bool BeforeRequest(std::size_t index, const std::string& request, pid_t client) = 0;
  /// The fault to inject into the answer; null for none. Owned by the injector, valid until the
  /// next call.
  virtual const InjectedFault* FaultFor(std::size_t index, const std::string& request,
                                        const std::string& answer) = 0;
  /// Called when the answer has been sent.
  virtual void AfterAnswer(std::size_t index, pid_t client) = 0;
};

/// A listening socket on loopback, with a port of its own. Used by one thread.
class MisbehavingServer {
 public:
  /// "TYPE:HOST:PORT", for -s.
  std::string Name(const std::string& type) const;

  /// Starts the program `words[0]` with the other words as its arguments, and lets `devices`
  /// answer it until it ends, or is killed after `limit`. `injected` may be null.
  RunOutcome Run(const std::vector<std::string>& words, Responder& devices,
                 const InjectedFault* injected, std::chrono::milliseconds limit);
  /// The same with any number of faults.
  RunOutcome Run(const std::vector<std::string>& words, Responder& devices, FaultInjector& injector,
                 std::chrono::milliseconds limit);

 private:
  protocol::Listener _listener;
};

}  // namespace trials
