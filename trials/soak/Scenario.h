/// A scenario: an image, a fabric of devices and a command line, all derived from a seed.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "sim/Fabric.h"
#include "trials/soak/Image.h"
#include "trials/soak/Oracle.h"

namespace soak {

struct Scenario {
  u_int64_t seed = 0;
  std::string kind;  ///< the row of the statistics that counts it
  BurnKind burn = BurnKind::GENERIC;
  Image image;
  std::string text;  ///< the image file
  sim::Fabric fabric;
  std::string server_type;
  u_int32_t log2_chunk = 5;  ///< -m
  std::vector<std::string> switches;
  GuidSet targets;          ///< devices to burn, by the GUIDs that the command line gives
  bool check_only = false;  ///< -c
  u_int32_t requests = 0;   ///< estimate for a fault-free run
  std::string refusal;  ///< text of the error that must end the burn; empty where it must succeed
  std::string row;      ///< of docs/fail-safety.md, by which a device may not boot; or empty
  bool rewrites_invariant = false;
  std::map<Guid, BootRule> rules;  ///< by node, of devices that boot at the start

  bool IsFlash() const { return image.map.empty() && image.type.starts_with("RV52"); }
  bool Verifies() const { return !IsFlash() && server_type == "I2C"; }
};

/// The same seed gives the same scenario.
Scenario MakeScenario(u_int64_t seed);

}  // namespace soak
