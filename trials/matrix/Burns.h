/// The burns that are disturbed: images, devices and their starting states, and what is right
/// afterwards.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/Boot.h"
#include "sim/Fabric.h"
#include "tests/support/support.h"
#include "trials/Console.h"
#include "trials/Faults.h"

namespace faults {

/// What a device is worth after a run.
struct Worth {
  bool is_right = false;  ///< as a burn that went well leaves it
  bool boots = false;     ///< wholly the old or the new image, and nothing else marked valid
  std::string row;   ///< of the short list in docs/fail-safety.md, where that says it may not boot
  std::string text;  ///< for people
};

/// One image and the devices it is burnt into.
class Burn {
 public:
  /// The burns of all kinds and starting states. Their images live in `folder`.
  static std::vector<std::unique_ptr<Burn>> All(const TemporaryFolder& folder);

  const std::string& Name() const { return _name; }
  const Setting& Facts() const { return _setting; }
  /// Devices as they are before a burn.
  sim::Fabric Start() const;
  /// The same devices with what `fabric` holds, and nothing amiss.
  sim::Fabric Restored(const sim::Fabric& fabric) const;
  /// Command line but for the server.
  std::vector<std::string> Words(const std::string& program) const;
  const std::string& ServerType() const { return _server_type; }

  /// Whether it is not burnt, having no image to fall back on.
  bool IsLeftAlone(Guid guid) const { return _untouched.contains(guid); }

  Worth Judge(const sim::Device& device) const;
  bool IsFailsafe() const { return _algorithm != Algorithm::GENERIC; }

  /// Of devices that cannot be burnt; told in every run that gets so far.
  const std::vector<Report>& Refused() const { return _refused; }
  /// Whether all that is left of a run that nothing disturbs is such a device.
  bool RefusesAll() const { return _refused.size() == _start.Devices().size(); }

  /// Of a run that nothing disturbs, for whoever disturbs the others.
  std::vector<Request> requests;

 private:
  enum class Algorithm { GENERIC, RV52100, RV61300 };

  Burn() = default;
  static std::unique_ptr<Burn> Generic(const TemporaryFolder& folder);
  static std::unique_ptr<Burn> Rv61300(const TemporaryFolder& folder);
  struct FlashState;
  static std::unique_ptr<Burn> Rv52100(const TemporaryFolder& folder, const FlashState& state);
  sim::Device& AddDevice(Guid guid, u_int32_t sector_size);
  /// To be called when the device holds what it does before the burn.
  void Settle(Guid guid, const std::string& old_image);

  std::string _name;
  std::string _image;
  std::vector<std::string> _switches;
  std::string _server_type = "IB";
  Algorithm _algorithm = Algorithm::GENERIC;
  Setting _setting;
  sim::Fabric _start;
  std::vector<Report> _refused;
  GuidSet _untouched;                      ///< that no burn may change
  bool _rewrites_invariant = false;        ///< the image brings another invariant sector
  std::map<Guid, sim::BootJudge> _judges;  ///< of the starting state; none for the generic burn
  std::map<Guid, DataVec> _contents;       ///< after a generic burn
};

}  // namespace faults
