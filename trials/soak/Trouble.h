/// What goes wrong in a run: answers, devices, and the burner itself.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sim/Fabric.h"
#include "trials/Server.h"
#include "trials/soak/Dice.h"
#include "trials/soak/Story.h"

namespace soak {

enum class Act {
  ANSWER,  ///< one of faults::Fault
  DEVICE_ERROR,
  POWER_OFF,
  CUT,  ///< power lost in the middle of a write or an erase
  WRITE_WRONG,
  KILL,
  TERMINATE,
  INTERRUPT,
  STOP_AND_GO,
  DELAY,
};

/// One thing that goes wrong, at one request.
struct Hit {
  std::size_t at = 0;      ///< from 0
  u_int32_t at_short = 0;  ///< instead: at the n-th write of one word, from 1
  Act act = Act::ANSWER;
  faults::Fault fault = faults::Fault::BYTEWISE;  ///< of ANSWER
  u_int64_t seed = 0;                             ///< of the rest
  std::string Name() const;
};

/// One that happened, and what it explains.
struct Fired {
  Hit hit;
  faults::Request request;
  std::optional<Guid> device{};        ///< that was hit, as the request names it
  std::vector<std::string> ends{};     ///< texts that the run may end with
  std::vector<std::string> asserts{};  ///< on which it may abort
  bool must_fail = false;              ///< the run cannot go well
  int signal = 0;                      ///< that ends it
  bool may_lose_all = false;           ///< any device may be told as failed
  /// The request whose answer tells that the device is lost.
  std::optional<std::size_t> loses_device_at{};
  bool is_silent = false;   ///< nobody can know that the device holds something else
  bool is_misread = false;  ///< the device is taken for another than it is
};

/// Up to three hits at requests of a run that has about `requests`.
std::vector<Hit> MakeHits(u_int32_t requests, Dice& dice);

/// Has the hits happen.
class Trouble : public faults::Disturber {
 public:
  Trouble(const Story& story, sim::Fabric& fabric, const std::vector<Hit>& hits)
      : _story(story), _fabric(fabric), _hits(hits) {}

  bool Comes(std::size_t index, const std::string& request, pid_t client) override;
  const faults::Misdeed* Answers(std::size_t index, const std::string& request,
                                 const std::string& answer) override;
  void Answered(std::size_t index, pid_t client) override;

  const std::vector<Fired>& Happened() const { return _fired; }

 private:
  const Hit* HitAt(std::size_t index) const;
  void Spoil(const Hit& hit, const faults::Request& request);
  void Explain(Fired& fired) const;
  void ExplainAnswer(Fired& fired) const;

  const Story& _story;
  sim::Fabric& _fabric;
  std::vector<Hit> _hits;
  std::vector<Fired> _fired;
  u_int32_t _short_writes = 0;
  bool _has_written = false;
  bool _is_stopped = false;
  faults::Misdeed _misdeed;
};

}  // namespace soak
