/// What a burn must leave on a device, byte for byte, and in which order it may write: worked out
/// from the image, the device's own values and what its memory held before. Written apart from the
/// burner, which it judges.
///
/// Assumptions: no write of a section crosses the end of a chip, however it is cut into chunks;
/// where a chunk is larger than a flash sector, each section begins where a sector does; and
/// devices that are burnt together do not leave bytes to each other (they do where an image marks a
/// field or a CRC in one slot only: docs/man/fwpush-verify.1).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "device/Boot.h"
#include "device/Bytes.h"
#include "device/Identity.h"
#include "device/Image.h"
#include "device/Memory.h"

namespace device {

/// Why a burn cannot go on, on whatever device: the image is wrong, or lacks something.
class BurnError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A CRC over a size that is not a multiple of 4; the burner aborts.
class UnevenCrcError : public BurnError {
 public:
  explicit UnevenCrcError(const CrcField& uneven);
  const CrcField crc;
};

enum class BurnKind {
  PLAIN,     ///< -n, and all burns of devices with one image: each section where it stands
  FAILSAFE,  ///< into slots, as the device's type has them; PLAIN where it has none
};

/// How many bytes of a slot with a boot record a burn writes last, after all others; which of them
/// makes the record invalid until then, and by how much it is changed for that.
inline constexpr std::uint32_t DEFERRED_BYTES = 4;
inline constexpr std::uint32_t SPOILT_BYTE = 3;
inline constexpr std::uint8_t SPOILT_BY = 10;

/// What takes the writes of a burn, in their order.
class BurnTarget {
 public:
  virtual ~BurnTarget() = default;
  /// Of a flash only: whole sectors, [addr, addr + size).
  virtual void Erase(std::uint32_t addr, std::uint64_t size) = 0;
  virtual void Program(std::uint32_t addr, View bytes) = 0;
};

/// What a failsafe burn has read from a device. Faulty answers can make it wrong.
struct ObservedState {
  bool invariant_changed = false;  ///< its invariant sector is not the image's
  bool is_signed[SLOTS] = {false, false};
};

/// What a failsafe burn does to a device, in this order, once it has read its state. A refusal
/// comes after the rewrite of the invariant sector.
struct Plan {
  bool rewrites_invariant = false;
  std::string refusal = {};    ///< why the device is not burnt; empty where it is
  bool clears_second = false;  ///< both are signed: the second image is given up first
  bool moves_second = false;  ///< it is in the way of a new first image, and goes to the first slot
  std::vector<std::uint32_t> slots = {};  ///< to be written, in this order
};

/// The result of a burn on one device.
struct Outcome {
  Memory memory;
  /// Why the device is not burnt to the end; empty where it is. The burner's message begins with
  /// this text.
  /// Where a write reaches past the memory, `memory` is as before that write: how much of it
  /// is written depends on its chunks.
  std::string refusal;
  bool ends_run = false;  ///< the refusal is a BurnError's: no other device is burnt, either
};

/// A step of a burn: what it may write before the next one begins.
struct Step {
  std::string name;  ///< for people
  std::vector<Range> ranges;
  std::vector<Range> blank =
      {};            ///< places that it leaves erased: what validates the image is not yet written
  Bytes bytes = {};  ///< what it writes into its only range; empty for other steps
};

/// Which part of an image a device is filled with.
struct FillPart {
  std::optional<std::uint32_t> slot;  ///< all sections where they stand, as a plain burn, if none
  bool is_valid = true;               ///< whether the slot is left valid
  bool is_second = false;  ///< of a slot with a boot record: the other one is filled before it
};

/// Burns one image into one device. The image is borrowed.
class Burn {
 public:
  /// The device's own value of a field. What it throws passes through.
  using FieldValues = std::function<Bytes(FieldType type)>;

  Burn(const Image& image, BurnKind kind, FieldValues values);
  Burn(const Image& image, BurnKind kind, const Identity& identity);

  /// NONE for a plain burn.
  SlotKind Slots() const { return _slots; }

  /// The whole burn. `before` reaches to the end of the device.
  Outcome After(const Memory& before) const;
  /// The same by a burner that observes another state of a device with pointer sectors.
  Outcome After(const Memory& before, const ObservedState& observed) const;

  /// The state that a burn observes when all answers are right.
  ObservedState Observe(const Memory& before) const;
  /// Throws BurnError for an image that lacks what a failsafe burn needs. A plain burn has no plan.
  Plan PlanFor(const Memory& before, const ObservedState& observed) const;
  /// What the burn may write, in the order that it must keep: a device that boots at the start has
  /// an image that boots between any two of the steps of a failsafe burn. Throws BurnError like
  /// PlanFor.
  std::vector<Step> Steps(const Memory& before, const ObservedState& observed) const;

  // ---- Parts of a burn, for memories of which only parts are held

  /// What the burner writes by `plan`, but for the move of an image. Throws BurnError.
  void Write(BurnTarget& target, std::uint32_t sector_size, const Plan& plan) const;
  /// The contents of a device that was made with this image in it: what a burn leaves, past all
  /// decisions, and with CRCs over the final bytes of a boot record. Throws BurnError.
  void Fill(BurnTarget& target, std::uint32_t sector_size, const FillPart& part) const;

  // ---- The same on a whole memory

  void Fill(Memory& memory, const FillPart& part) const;
  /// One slot as a burn leaves it, valid when it is done, the other one untouched.
  void BurnSlot(Memory& memory, std::uint32_t slot) const;
  void BurnInvariantSector(Memory& memory) const;

  // ---- Questions about the image and a device

  /// Throws BurnError, saying what is missing, where a failsafe burn does not find all that it
  /// needs.
  void CheckImage(std::uint32_t sector_size) const;
  /// The sections that stand first in the image and begin in the first sector.
  std::vector<std::size_t> InvariantSections(std::uint32_t sector_size) const;
  /// Whether the burn takes the slot of a device with pointer sectors for valid.
  bool IsSigned(const Memory& memory, std::uint32_t slot) const;
  /// Whether the boot code does; of any device with slots.
  bool Boots(const Memory& memory, std::uint32_t slot) const;
  /// The second image would be in the way of a new first one.
  bool IsInTheWay(const Memory& memory) const;
  /// Whether a CRC covers bytes that are written last: it is computed while one of them is changed,
  /// and stays wrong.
  bool HasCrcOverDeferredBytes() const;

 private:
  class Writer;
  bool IsReplaced(FieldType type) const;
  Memory WithInvariantSector(const Memory& before, bool is_rewritten) const;
  std::vector<Field> FieldsIn(const Range& range) const;
  std::vector<CrcField> CrcsIn(const Range& range) const;
  Bytes ValueOf(const Field& field) const;
  void WriteSection(Writer& writer, std::size_t index, std::uint32_t destination) const;
  void WriteFieldsAndCrcs(Writer& writer, Bytes& data, const Range& range,
                          const std::vector<Field>& fields,
                          const std::vector<CrcField>& crcs) const;
  void WriteSlotSections(Writer& writer, std::uint32_t slot) const;
  void WriteRecordSlot(Writer& writer, std::uint32_t slot) const;
  void WritePointerSector(Writer& writer, std::uint32_t slot) const;
  void WriteSignature(Writer& writer, std::uint32_t slot, std::uint32_t value) const;
  void WriteInvariantSector(Writer& writer) const;
  void WriteByPlan(Writer& writer, const Plan& plan) const;
  void FillSlot(Writer& writer, const FillPart& part) const;
  std::string MoveRefusal(const Memory& memory) const;
  void Move(Writer& writer, const Memory& memory) const;
  Plan RecordPlan(const Memory& before) const;

  std::vector<std::size_t> SlotSections() const;
  std::uint32_t InSlot(std::size_t index, std::uint32_t slot) const;
  std::uint32_t ImageAddr(std::uint32_t slot) const;
  std::uint32_t PointerSector(std::uint32_t slot) const;
  std::uint32_t SignatureAddr(std::uint32_t slot) const;
  std::size_t PointerSection(std::uint32_t slot) const;
  BootLayout Layout(std::uint32_t sector_size) const;

  Step SectionStep(std::size_t index, std::uint32_t destination) const;
  Step SignatureStep(const char* what, std::uint32_t slot, std::uint32_t value) const;
  void AddMoveSteps(std::vector<Step>& steps, const Memory& before) const;
  void AddSlotSteps(std::vector<Step>& steps, std::uint32_t slot) const;

  const Image& _image;
  SlotKind _slots;
  FieldValues _values;
};

}  // namespace device
