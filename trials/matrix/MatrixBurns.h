/// The burns of the fault matrix: images, devices and their starting states, and the verdicts on
/// the devices afterwards.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/Boot.h"
#include "sim/Fabric.h"
#include "tests/support/support.h"
#include "trials/AnswerFaults.h"
#include "trials/BurnOutput.h"

namespace trials {

/// The two verdicts on a device after a run, which are independent of each other.
struct Verdict {
  bool is_whole = false;  ///< every byte is as a successful burn leaves it
  bool boots = false;     ///< from a whole old or new image, and no other slot is marked valid
  std::string row;        ///< of docs/fail-safety.md, by which the device may not boot; or empty
  std::string text;       ///< for messages
};

/// An image and the devices that it is burnt into.
class MatrixBurn {
 public:
  /// The burns of all kinds and starting states. Their images live in `folder`.
  static std::vector<std::unique_ptr<MatrixBurn>> All(const TemporaryFolder& folder);

  const std::string& Name() const { return _name; }
  const BurnFacts& Facts() const { return _facts; }
  /// Devices as they are before a burn.
  sim::Fabric Start() const;
  /// The same devices with the contents of `fabric`, and without its faults.
  sim::Fabric Repaired(const sim::Fabric& fabric) const;
  /// The command line without the server.
  std::vector<std::string> Words(const std::string& program) const;
  const std::string& ServerType() const { return _server_type; }

  /// Whether the device is not burnt, because it has no valid image to fall back on.
  bool IsLeftAlone(Guid guid) const { return _untouched.contains(guid); }

  Verdict Judge(const sim::Device& device) const;
  bool IsFailsafe() const { return _algorithm != Algorithm::GENERIC; }

  /// Devices that cannot be burnt. Every run that gets so far reports them.
  const std::vector<FailedDevice>& Refused() const { return _refused; }
  /// Whether no device can be burnt.
  bool RefusesAll() const { return _refused.size() == _start.Devices().size(); }

  /// Requests of a fault-free run.
  std::vector<Request> requests;

 private:
  enum class Algorithm { GENERIC, RV52100, RV61300 };

  MatrixBurn() = default;
  static std::unique_ptr<MatrixBurn> Generic(const TemporaryFolder& folder);
  static std::unique_ptr<MatrixBurn> Rv61300(const TemporaryFolder& folder);
  struct FlashState;
  static std::unique_ptr<MatrixBurn> Rv52100(const TemporaryFolder& folder,
                                             const FlashState& state);
  sim::Device& AddDevice(Guid guid, u_int32_t sector_size);
  /// Call it when the device holds its starting state.
  void PrepareJudge(Guid guid, const std::string& old_image);

  std::string _name;
  std::string _image;
  std::vector<std::string> _switches;
  std::string _server_type = "IB";
  Algorithm _algorithm = Algorithm::GENERIC;
  BurnFacts _facts;
  sim::Fabric _start;
  std::vector<FailedDevice> _refused;
  GuidSet _untouched;                      ///< that no burn may change
  bool _rewrites_invariant = false;        ///< the image brings another invariant sector
  std::map<Guid, sim::BootJudge> _judges;  ///< of the starting state; none for the generic burn
  std::map<Guid, DataVec> _contents;       ///< after a generic burn
};

}  // namespace trials
