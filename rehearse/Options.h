/// Options of a rehearsal.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "device/Bytes.h"
#include "rehearse/InterruptionPoint.h"

namespace rehearse {

struct RehearsalOptions {
  std::string fabric_file;
  std::string image_file;
  std::string fwpush;                   ///< the program to rehearse with
  std::vector<device::Guid> guids;      ///< all devices of the fabric where empty
  std::vector<std::string> extra_args;  ///< for fwpush, such as "-m=8"
  std::size_t recoveries = 0;           ///< number of recoveries; SIZE_MAX for one from every point
  unsigned jobs = 1;                    ///< recoveries at the same time
  unsigned seed = 1;  ///< for torn words, torn erases and the choice of recoveries
  std::optional<InterruptionPoint> at;  ///< rehearse only this one
  bool has_next = true;                 ///< rehearse the next burn and second interruptions, too
};

/// Called with the progress of a rehearsal: the current phase, and how much of it is done.
using RehearsalProgress =
    std::function<void(const std::string& what, std::size_t done, std::size_t total)>;

}  // namespace rehearse
