/// Verifies devices in several processes at a time: the burner's interface to memories serves one
/// thread of a process.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "device/Bytes.h"
#include "verify/Finding.h"

namespace verify {

/// After failures of the server with so many devices in a row, the others are not tried.
inline constexpr unsigned MOST_FAILURES = 3;

/// Counts the failures of a server in a row.
class FailureCount {
 public:
  void Add(const DeviceFinding& finding);
  bool IsGivenUp() const { return _in_a_row >= MOST_FAILURES; }
  /// The finding of a device that is not tried.
  DeviceFinding NotTried(device::Guid guid) const;

 private:
  unsigned _in_a_row = 0;
  std::string _last;
};

/// Called with the part of one device, or of all, that is verified: 0 to 1.
using PartDone = std::function<void(double part)>;

/// Calls `work` for each of `guids` in a process of its own, up to `jobs` at a time, and `take`
/// with the findings in the order of `guids`. A process that ends without a finding is a failure.
/// Where the system allows fewer processes, fewer run at a time; throws std::system_error where not
/// even one can be started.
void VerifyInProcesses(
    const std::vector<device::Guid>& guids, unsigned jobs,
    const std::function<DeviceFinding(device::Guid guid, const PartDone& progress)>& work,
    const std::function<void(const DeviceFinding&)>& take, const PartDone& progress);

}  // namespace verify
