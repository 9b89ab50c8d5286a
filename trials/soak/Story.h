/// A story is one image, one fabric and one command line, all made up from a seed.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "sim/Fabric.h"
#include "trials/soak/Image.h"
#include "trials/soak/Oracle.h"

namespace soak {

struct Story {
  u_int64_t seed = 0;
  std::string kind;  ///< a line of the table
  BurnKind burn = BurnKind::GENERIC;
  Image image;
  std::string text;  ///< of the image file
  sim::Fabric fabric;
  std::string server_type;
  u_int32_t log2_chunk = 5;  ///< -m
  std::vector<std::string> switches;
  GuidSet targets;          ///< as the command line and the requests name them
  bool check_only = false;  ///< -c
  u_int32_t requests = 0;   ///< about so many, in a clean run
  std::string refusal;      ///< what the end must tell; empty where the burn must go well
  std::string row;          ///< what of docs/fail-safety.md may cost it a slot
  bool rewrites_invariant = false;
  std::map<Guid, BootRule> rules;  ///< by node, of devices that boot at the start

  bool IsFlash() const { return image.map.empty() && image.type.starts_with("RV52"); }
  bool Verifies() const { return !IsFlash() && server_type == "I2C"; }
};

Story MakeStory(u_int64_t seed);

}  // namespace soak
