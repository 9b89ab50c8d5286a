/// A scenario: an image, a fabric of devices and a command line, all derived from a seed.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "device/Boot.h"
#include "device/Burn.h"
#include "device/Whole.h"
#include "sim/Fabric.h"
#include "trials/soak/RandomImage.h"

namespace soak {

using device::BurnKind;
using device::Guid;
using device::Memory;
using device::ObservedState;
using GuidSet = std::set<Guid>;

struct Scenario {
  std::uint64_t seed = 0;
  std::string kind;  ///< the row of the statistics that counts it
  BurnKind burn = BurnKind::PLAIN;
  Image image;
  std::string text;  ///< the image file
  sim::Fabric fabric;
  bool is_served = false;  ///< by fwpush-serve's gateway, over models of real memories
  std::string server_type;
  std::uint32_t log2_chunk = 5;  ///< -m
  std::vector<std::string> switches;
  GuidSet targets;             ///< devices to burn, by the GUIDs that the command line gives
  bool check_only = false;     ///< -c
  std::uint32_t requests = 0;  ///< estimate for a fault-free run
  std::string refusal;  ///< text of the error that must end the burn; empty where it must succeed
  std::string row;      ///< of docs/fail-safety.md, by which a device may not boot; or empty
  bool rewrites_invariant = false;
  /// By node, of devices that boot at the start: they know the images that the device may hold.
  std::map<Guid, device::Judge> judges;
  /// Valid boot records of the old and the new image; empty for other devices.
  std::vector<device::Bytes> boot_records;

  /// How a failsafe burn tells valid images; NONE for a plain burn.
  SlotKind Slots() const { return burn == BurnKind::PLAIN ? SlotKind::NONE : image.Slots(); }
  bool IsFlash() const { return image.IsFlash(); }
  bool Verifies() const { return !IsFlash() && server_type == "I2C"; }
};

/// The same seed gives the same scenario.
Scenario MakeScenario(std::uint64_t seed);

}  // namespace soak
