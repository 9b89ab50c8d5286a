/// How the devices of the search begin, and how fabric files say it.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "common/ScratchFolder.h"
#include "device/Burn.h"
#include "sim/Fabric.h"
#include "trials/soak/Scenario.h"

namespace search {

/// How a device is filled before a burn.
struct StartState {
  std::string name;
  std::vector<device::FillPart> parts;  ///< in this order; none: as the scenario has it
  bool has_other_invariant = false;     ///< so that a burn rewrites the invariant sector
  bool begins_blank = false;            ///< before it is filled; else as the scenario has it

  /// Whether a fabric file can say the same by an image file.
  bool IsOfImageFile() const {
    return !parts.empty() && !has_other_invariant &&
           std::ranges::none_of(parts, &device::FillPart::is_second);
  }
};

/// All states from which a failsafe burn is tried, or the one for a plain burn.
const std::vector<StartState>& StartStates(device::BurnKind kind);

/// The device of a scenario that the search uses.
const sim::Device& FirstTarget(const soak::Scenario& scenario);

/// Makes a fabric of that device alone, filled with `old`. Returns false where the state does not
/// apply: the image does not fill the device so, or a failsafe burn would find nothing that boots.
bool SetUp(const soak::Scenario& scenario, const StartState& state, device::BurnKind kind,
           const device::Image& old, sim::Fabric& fabric);

/// A fabric file with one device like this one. `contents`: what it holds, as below; may be empty.
std::string FabricText(const std::string& server_type, const sim::Device& device,
                       const std::string& contents);
/// What the device holds. Its memory is kept in `folder`, in files whose names begin so.
std::string RawContents(const sim::Device& device, const common::ScratchFolder& folder,
                        const std::string& name);
/// The same of a state that is of an image file.
std::string ImageContents(const std::string& file, const StartState& state);

}  // namespace search
