/// What a burn must leave on a device, and what boots, worked out from the image as it was made up:
/// sections, each device's own values, CRCs. Shares no code with the burner.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "sim/Fabric.h"
#include "trials/soak/Image.h"

namespace soak {

enum class BurnKind { GENERIC, POINTERS, RECORDS };

/// The memory of one device, as the image addresses it.
struct Memory {
  DataVec bytes;
  u_int32_t sector_size = 0;  ///< 0 for EEPROMs

  u_int32_t Word(u_int32_t addr) const;
  bool Holds(u_int64_t addr, u_int64_t size) const { return addr + size <= bytes.size(); }
  DataVec Part(u_int32_t addr, u_int32_t size) const;
  /// What a device answers to a read: whole words. Past the end they are erased.
  DataVec Read(u_int32_t addr, u_int32_t size) const;
  bool Has(u_int32_t addr, const DataVec& part) const;
};

/// The chips end to end. They must be at least as large as the map says.
Memory MemoryOf(const sim::Device& device, const Image& image);
/// Puts it back; for starting contents.
void Load(sim::Device& device, const Image& image, const Memory& memory);

/// A run of bytes: [addr, addr + size).
struct Range {
  u_int32_t addr;
  u_int32_t size;
  bool Holds(u_int64_t start, u_int64_t length) const {
    return start >= addr && start + length <= u_int64_t{addr} + size;
  }
  bool Meets(u_int64_t start, u_int64_t length) const {
    return start < u_int64_t{addr} + size && addr < start + length;
  }
};

/// What a failsafe burn of a flash believes of a device; answers can be spoilt, and it may be
/// wrong.
struct View {
  bool invariant_changed = false;
  bool is_signed[2] = {false, false};
};

/// What a burn makes of a device.
struct Result {
  Memory memory;
  std::string refusal;  ///< why the device is not burnt to the end; what is said of it begins so
};

/// A step of a burn: what it may write before the next one begins.
struct Step {
  std::string name;  ///< for people
  std::vector<Range> ranges;
};

/// Burns one image into one device.
class Oracle {
 public:
  Oracle(const Image& image, BurnKind burn, const sim::Device& device)
      : _image(image), _burn(burn), _device(device) {}

  /// The whole burn.
  Result After(const Memory& before) const;
  /// The same for a burner that believes something else; only for pointer sectors.
  Result After(const Memory& before, const View& view) const;
  View Look(const Memory& memory) const;

  /// One slot alone, valid when it is done; for starting contents.
  void BurnSlot(Memory& memory, u_int32_t slot) const;
  void BurnInvariantSector(Memory& memory) const;
  /// Whether a CRC covers bytes that are held back: it is computed without them, and stays wrong.
  bool SumsWhatIsHeldBack() const;

  /// What the burn may write, in the order that it must keep: a device that boots at the start has
  /// an image that boots between any two of the steps. Given what the device holds before, and what
  /// the burner takes it for.
  std::vector<Step> Steps(const Memory& before, const View& view) const;

  bool IsSigned(const Memory& memory, u_int32_t slot) const;
  /// As the boot code sees it.
  bool IsValid(const Memory& memory, u_int32_t slot) const;
  /// The second image would be in the way of a new first one.
  bool IsInTheWay(const Memory& memory) const;

 private:
  struct Writer;
  /// What a failsafe burn decides on when it has looked at a device.
  struct Plan {
    std::string refusal;  ///< empty where it goes on
    bool rewrites_invariant = false;
    bool clears_second = false;
    bool moves_second = false;
    std::vector<u_int32_t> slots{};  ///< to be written, in this order
  };
  Plan PlanFor(const Memory& before, const View& view) const;
  void BurnSection(Writer& writer, const Section& section, u_int32_t destination) const;
  void BurnSections(Writer& writer, u_int32_t slot) const;
  void BurnPointers(Writer& writer, u_int32_t slot) const;
  void ClearSignature(Writer& writer, u_int32_t slot) const;
  std::string Move(Writer& writer) const;
  bool IsReplaced(const Field& field) const;
  DataVec ValueOf(FieldType type) const;
  const Section* PointerSection(u_int32_t slot) const;
  Step StepOf(const Section& section, u_int32_t destination) const;
  Step SignatureStep(const char* what, u_int32_t slot) const;
  void AddSlotSteps(std::vector<Step>& steps, u_int32_t slot) const;
  std::vector<const Section*> InvariantSections(u_int32_t sector_size) const;

  const Image& _image;
  BurnKind _burn;
  const sim::Device& _device;
};

/// What a slot, or the invariant sector, must hold to be whole: any of several images.
class BootRule {
 public:
  enum State {
    INVALID,
    OLD,
    NEW,
    MISSUMMED,  ///< new, but for a CRC over bytes that are held back
    BROKEN,
  };
  struct Verdict {
    State slots[2] = {INVALID, INVALID};
    bool invariant_is_whole = true;
    /// Whole in a valid slot, and nothing else valid.
    bool IsGood() const;
    std::string Text() const;
  };

  explicit BootRule(BurnKind burn) : _burn(burn) {}

  /// What `image` makes of the device: into either slot. Its second image may be moved to the first
  /// slot later, where it is there now.
  void Know(const Image& image, const sim::Device& device, const Memory& now, State state);
  /// Whether a slot begins with the boot record of an image that is known there.
  bool KnowsRecord(const Memory& memory, u_int32_t slot) const;
  Verdict Judge(const Image& image, const sim::Device& device, const Memory& memory) const;

 private:
  using Ranges = std::vector<std::pair<u_int32_t, DataVec>>;
  struct Known {
    u_int32_t slot;  ///< 2 is the invariant sector
    State state;
    Ranges ranges;
  };

  BurnKind _burn;
  std::vector<Known> _known;
};

}  // namespace soak
