/// What the burner says of its end, as people and scripts read it from its console.
#pragma once

#include <string>
#include <vector>

#include "trials/Server.h"

namespace faults {

/// A device told as failed.
struct Report {
  Guid device = 0;
  std::string text;  ///< why
  bool operator==(const Report&) const = default;
};

/// The devices told as failed, in the order told.
std::vector<Report> ReportsIn(const std::string& output);
/// The text that ended the run for all devices, its last line; empty where none did.
std::string EndOf(const std::string& output);
/// The condition on which a run aborted; empty where it did not.
std::string AssertionOf(const std::string& errors);
/// Whether the run went well, and says so.
bool HasSucceeded(const Outcome& outcome);

}  // namespace faults
