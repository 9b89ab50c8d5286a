/// Rehearses a burn: pulls the plug at every step of it, on simulated devices, and looks whether
/// every device still boots and whether the next burn recovers it.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "sim/Boot.h"
#include "sim/Fabric.h"

namespace sim {

/// Where the plug is pulled.
enum class CutKind {
  AFTER_WORD,   ///< after a whole word of a write
  TORN_WORD,    ///< a part of a word's bits written
  TORN_ERASE,   ///< a part of a sector's cells erased
  AFTER_ERASE,  ///< after a whole erase
};

/// How a burn is interrupted that must be recovered from.
enum class Interruption {
  POWER,    ///< a device loses power at a cut
  KILLED,   ///< the burner is killed
  DROPPED,  ///< the connection drops after a request was executed, before its answer
};

/// A moment of a burn at which it is interrupted.
struct Moment {
  Interruption kind = Interruption::POWER;
  std::size_t place = 0;  ///< POWER: a point, from 0; else a request, from 1
};

/// "1234", "killed:28", "dropped:28", and back. Parsing gives nothing for any other text.
std::string Describe(const Moment& moment);
std::optional<Moment> ParseMoment(const std::string& text);

struct RehearsalOptions {
  std::string fabric_file;
  std::string image_file;
  std::string fwpush;                   ///< the program to rehearse with
  GuidVec guids;                        ///< all devices of the fabric where empty
  std::vector<std::string> extra_args;  ///< for fwpush, such as "-m=8"
  std::size_t recoveries = 0;           ///< how many to run; SIZE_MAX for one from every point
  unsigned jobs = 1;                    ///< recoveries side by side
  unsigned seed = 1;                    ///< of torn words, torn erases and the choice of recoveries
  std::optional<Moment> at;             ///< only this one
};

/// A state in which a device does not surely boot, or did not recover. Neighbouring points at which
/// a device is in the same state are one.
struct RehearsalException {
  Guid device = 0;
  std::optional<Moment> first = {};  ///< nothing for what is so before or after the burn
  std::size_t points = 1;            ///< this and those that follow it
  std::size_t first_request = 0;     ///< from 1; 0 where there is none
  std::size_t last_request = 0;
  std::string command = {};  ///< of the first request
  std::string step = {};     ///< what was being changed
  std::string state = {};
  std::string reason = {};
};

struct RehearsalReport {
  std::string algorithm;
  std::size_t devices = 0;
  std::size_t unbootable_at_start = 0;  ///< devices that did not boot before the burn
  std::size_t requests = 0;
  std::size_t writes = 0;
  std::size_t erases = 0;
  std::map<CutKind, std::size_t> points;
  std::size_t boot_old = 0;
  std::size_t boot_new = 0;
  std::size_t unbootable = 0;
  std::size_t may_not_boot = 0;  ///< points with a whole image, and another that only looks valid
  std::map<Interruption, std::size_t> recoveries;
  std::size_t unrecovered = 0;
  double seconds = 0;
  std::vector<RehearsalException> exceptions;
  std::size_t exceptions_left_out = 0;  ///< of which there were too many to keep

  std::size_t Points() const;
  bool IsWell() const { return exceptions.empty() && exceptions_left_out == 0; }
};

/// Told how far a rehearsal is: what it is doing, how much of it is done, and of how much.
using RehearsalProgress =
    std::function<void(const std::string& what, std::size_t done, std::size_t total)>;

/// Rehearses. Throws std::runtime_error when it cannot.
RehearsalReport Rehearse(const RehearsalOptions& options, const RehearsalProgress& progress = {});

}  // namespace sim
