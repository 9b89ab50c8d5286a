/// The burns of the fault matrix: images, devices and their starting states, and the verdicts on
/// the devices afterwards.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/ScratchFolder.h"
#include "device/Burn.h"
#include "device/Image.h"
#include "device/Whole.h"
#include "device/WriteOrder.h"
#include "sim/Fabric.h"
#include "sim/Filling.h"
#include "trials/AnswerFaults.h"
#include "trials/BurnOutput.h"
#include "trials/Responder.h"

namespace trials {

/// What a device is after a run. Neither of the two verdicts follows from the other.
struct RunVerdict {
  bool is_burnt = false;  ///< every byte is as a successful burn leaves it
  bool is_safe = false;   ///< it boots a whole image, old or new, and no slot boots a broken one
  std::string row;        ///< of docs/fail-safety.md, by which the device may not boot; or empty
  std::string text;       ///< for messages
};

/// An image and the devices that it is burnt into.
class MatrixBurn {
 public:
  /// The burns of all kinds and starting states, each twice: the devices are simulated, or memories
  /// that fwpush-serve's gateway serves. Their images live in `folder`.
  static std::vector<std::unique_ptr<MatrixBurn>> All(const common::ScratchFolder& folder);

  const std::string& Name() const { return _name; }
  const BurnFacts& Facts() const { return _facts; }
  /// Devices as they are before a burn.
  sim::Fabric Start() const;
  /// The same devices with the contents of `fabric`, and without its faults.
  sim::Fabric Repaired(const sim::Fabric& fabric) const;
  /// The command line without the server.
  std::vector<std::string> Words(const std::string& program) const;
  const std::string& ServerType() const { return _server_type; }
  /// Whether fwpush-serve's gateway answers.
  bool IsServed() const { return _is_served; }
  /// What answers the requests of a run. Borrows `fabric`, which holds afterwards what the run
  /// leaves.
  std::unique_ptr<Responder> Answering(sim::Fabric& fabric) const;

  /// Whether the device is not burnt, because it has no valid image to fall back on.
  bool IsLeftAlone(Guid guid) const { return _untouched.contains(guid); }

  /// `kind`: how the image was burnt last.
  RunVerdict Judge(const sim::Device& device,
                   device::BurnKind kind = device::BurnKind::FAILSAFE) const;
  /// What is wrong with the order of the writes of a fault-free burn of a device, which was
  /// `before`; empty where it is right.
  std::string OrderError(const sim::Device& before,
                         const std::vector<device::MemoryChange>& changes) const;
  device::MemoryChange ChangeOf(const sim::Operation& operation) const {
    return sim::ChangeOf(operation, _image);
  }
  bool IsFailsafe() const { return _image.Slots() != device::SlotKind::NONE; }

  /// Devices that cannot be burnt. Every run that gets so far reports them.
  const std::vector<FailedDevice>& Refused() const { return _refused; }
  /// Whether no device can be burnt.
  bool RefusesAll() const { return _refused.size() == _start.Devices().size(); }

  /// Requests of a fault-free run.
  std::vector<ParsedExchange> requests;

 private:
  MatrixBurn(const common::ScratchFolder& folder, const std::string& name, const std::string& text);
  static std::unique_ptr<MatrixBurn> Generic(const common::ScratchFolder& folder);
  static std::unique_ptr<MatrixBurn> Rv61300(const common::ScratchFolder& folder);
  struct FlashState;
  static std::unique_ptr<MatrixBurn> Rv52100(const common::ScratchFolder& folder,
                                             const FlashState& state);
  sim::Device& AddDevice(Guid guid, std::uint32_t sector_size);
  /// Fills a device, for its starting state.
  void Fill(Guid guid, const device::Image& image, const device::FillPart& part);
  /// Call it when the device holds its starting state.
  void MarkFirstInvalid(Guid guid);
  void PrepareJudge(Guid guid, const device::Image& old_image);

  std::string _name;
  std::string _file;  ///< of the image
  device::Image _image;
  std::vector<std::string> _switches;
  std::string _server_type = "IB";
  bool _is_served = false;
  BurnFacts _facts;
  sim::Fabric _start;
  std::vector<FailedDevice> _refused;
  std::set<Guid> _untouched;              ///< that no burn may change
  bool _rewrites_invariant = false;       ///< the image brings another invariant sector
  std::map<Guid, device::Judge> _judges;  ///< of the starting state; none for the generic burn
};

}  // namespace trials
