/// The faults that are injected into a run of the soak: into answers, devices, and the burner
/// itself.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sim/Fabric.h"
#include "trials/MisbehavingServer.h"
#include "trials/ServedFabric.h"
#include "trials/soak/Random.h"
#include "trials/soak/Scenario.h"

namespace soak {

enum class FaultKind {
  ANSWER,  ///< one of trials::AnswerFault
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

/// A fault to be injected at one request.
struct PlannedFault {
  std::size_t at = 0;          ///< index of the request, from 0
  std::uint32_t at_short = 0;  ///< instead of `at`: at the n-th write of one word, from 1
  std::uint32_t at_query = 0;  ///< instead of `at`: at the n-th request that asks something, from 1
  FaultKind kind = FaultKind::ANSWER;
  trials::AnswerFault fault = trials::AnswerFault::BYTEWISE;  ///< of ANSWER
  std::uint64_t seed = 0;                                     ///< for the choice of device and bits
  /// What happens to a served memory instead of a fault of the simulated device.
  std::optional<trials::MemoryFault> of_memory;
  std::string Name() const;
};

/// A fault that was injected, and the effects that it may have on the run.
struct OccurredFault {
  PlannedFault planned;
  trials::ParsedExchange request;
  std::optional<Guid> device{};        ///< the device with the fault, as the request names it
  std::vector<std::string> ends{};     ///< error texts with which the run may end
  std::vector<std::string> asserts{};  ///< assertions on which it may abort
  bool must_fail = false;              ///< the run cannot succeed
  int signal = 0;                      ///< the signal that ends the run; 0 for none
  bool is_last = false;                ///< no request may follow
  bool may_lose_all = false;           ///< any device may be reported as failed
  /// Index of the request whose answer tells that the device has failed.
  std::optional<std::size_t> loses_device_at{};
  bool is_undetected = false;  ///< the burner cannot notice the device's wrong contents
  bool is_misread = false;     ///< the burner takes the device's contents for others
};

/// Up to three faults for a run of about so many requests.
std::vector<PlannedFault> PlanFaults(std::uint32_t requests, Random& random);

/// Injects the planned faults into a run.
class PlannedFaultInjector : public trials::FaultInjector {
 public:
  /// `served` is null where the fabric answers.
  PlannedFaultInjector(const Scenario& scenario, sim::Fabric& fabric, trials::ServedFabric* served,
                       const std::vector<PlannedFault>& faults)
      : _scenario(scenario), _fabric(fabric), _served(served), _planned(faults) {}

  bool BeforeRequest(std::size_t index, const std::string& request, pid_t client) override;
  const trials::InjectedFault* FaultFor(std::size_t index, const std::string& request,
                                        const std::string& answer) override;
  void AfterAnswer(std::size_t index, pid_t client) override;

  const std::vector<OccurredFault>& Occurred() const { return _occurred; }

 private:
  const PlannedFault* FaultAt(std::size_t index) const;
  /// Moves the fault of a request whose answer cannot have it to the next request, unless that has
  /// one.
  void Postpone(std::size_t index);
  void InjectIntoDevice(const PlannedFault& planned, const trials::ParsedExchange& request);
  void InjectIntoMemory(PlannedFault planned, const trials::ParsedExchange& request);
  void PredictEffects(OccurredFault& occurred) const;
  void PredictEffectsOfAnswer(OccurredFault& occurred) const;

  const Scenario& _scenario;
  sim::Fabric& _fabric;
  trials::ServedFabric* _served;
  std::vector<PlannedFault> _planned;
  std::vector<OccurredFault> _occurred;
  std::uint32_t _short_writes = 0;
  std::uint32_t _queries = 0;
  bool _has_written = false;
  bool _is_stopped = false;
  trials::InjectedFault _injected;
};

}  // namespace soak
