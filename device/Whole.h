/// The verdict "whole": whether a slot holds every byte of an image that is known, its own fields
/// and CRCs included. Boot code does not check that: the verdict "boots" (device/Boot.h) is another
/// one. A slot that boots and is not whole starts whatever it holds.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "device/Boot.h"
#include "device/Bytes.h"
#include "device/Identity.h"
#include "device/Image.h"
#include "device/Memory.h"

namespace device {

/// Which of the known images a slot holds wholly.
enum class Whole {
  NOT_KNOWN,  ///< none of them
  OLD,        ///< one that the device had before
  NEW,        ///< the one that is burnt
};

/// How a known image may have come onto a device. Each way leaves other bytes: a plain burn does
/// not fill all fields.
enum class Origin { ANY, FAILSAFE_BURN, PLAIN_BURN };

/// The two verdicts on a slot.
struct SlotVerdict {
  bool boots = false;
  Whole whole = Whole::NOT_KNOWN;

  bool BootsWhole() const { return boots && whole != Whole::NOT_KNOWN; }
  bool BootsNew() const { return boots && whole == Whole::NEW; }
  /// The slot boots, and its contents match no known image.
  bool BootsBroken() const { return boots && whole == Whole::NOT_KNOWN; }
  bool operator==(const SlotVerdict&) const = default;
};

/// The verdict on a device's memory in one state.
struct Verdict {
  std::array<SlotVerdict, SLOTS> slots{};
  bool invariant_is_whole = true;  ///< if false, the device does not boot

  /// Some slot boots, whether it is whole or not.
  bool Boots() const;
  /// Some slot boots and is whole.
  bool BootsWhole() const;
  /// Some slot boots and is wholly new.
  bool BootsNew() const;
  /// Some slot boots and is not whole.
  bool HasBroken() const;
  /// It starts a whole image, whichever slot that boots the boot code takes.
  bool IsSafe() const { return BootsWhole() && !HasBroken(); }
  /// The invariant sector is torn, and nothing else keeps the device from being safe.
  bool IsSafeButForInvariantSector() const;
  /// It is what a burn leaves on a device of that kind: with boot records both slots boot and are
  /// new, with pointer sectors one is, and the other one does not boot.
  bool IsBurnt(SlotKind kind) const;
  /// How many slots boot and are wholly new; how many do not boot.
  std::size_t CountNew() const;
  std::size_t CountInvalid() const;
  bool operator==(const Verdict&) const = default;
};

/// The record of a slot gives fewer bytes than the image has that it was made for.
struct ShortRecord {
  std::uint32_t slot = 0;
  std::uint32_t record_size = 0;  ///< bytes, as the record has it
  std::uint64_t image_size = 0;   ///< bytes, from the first section's first to the last one's last
  bool operator==(const ShortRecord&) const = default;
};

/// An image of which only the device's own bytes tell.
struct PresentImage {
  std::uint32_t slot = 0;
  /// Bytes, as the record has it; the image may be longer. Nothing of a boot record, which has
  /// none.
  std::optional<std::uint32_t> record_size = {};
  bool operator==(const PresentImage&) const = default;
};

/// In words: "the record of slot 0 gives 0x800 bytes, and its image has 0x1800".
std::string Describe(const ShortRecord& record);

/// In words: "boots old: slot 0 old, slot 1 invalid". "boots old or BROKEN" where a slot boots and
/// is not whole; "DOES NOT BOOT" where none boots.
std::string Describe(const Verdict& verdict);

/// Holds a copy of one device's memory, which is changed byte by byte, and gives the verdict on it
/// after any change. A verdict costs as much as the bytes that changed.
class Judge {
 public:
  Judge(const BootLayout& layout, Bytes memory);

  /// Adds the image of every slot that boots now and that no known image explains, as an old one.
  /// It is taken for as long as its record says, or, of a boot record, as its slot is: more cannot
  /// be known, and a verdict on it is worth no more than that. Returns these slots. Leaves out a
  /// slot with the record of a known old image, which it does not hold wholly. A second image that
  /// was moved into the first slot is as whole as it was, here and below.
  std::vector<PresentImage> AddPresentImages();
  /// Adds the invariant sector as it is now.
  void AddPresentInvariantSector();
  /// Takes what the image is on the device for whole, in either slot; of `origin` as that leaves
  /// it. `before` is the device's memory as this image addresses it. What does not fit is never
  /// whole. Returns false where the image keeps a slot elsewhere than this judge looks; that slot
  /// is not added.
  bool AddKnownImage(const Image& image, const Identity& identity, const Memory& before,
                     Whole whole, Origin origin = Origin::ANY);

  View Bytes() const { return _memory; }
  /// Ignores addresses past the end.
  void Set(std::uint32_t addr, std::uint8_t byte);
  /// All of them; as many as there are.
  void SetAll(View memory);

  Verdict CurrentVerdict() const;
  bool Boots(std::uint32_t slot) const;
  /// The slots that boot now and hold no known image wholly.
  std::vector<std::uint32_t> UnexplainedSlots() const;
  /// The record in the slot is that of a known image, and gives a smaller size than that has. A
  /// burn that moves the image goes by the record, and leaves a part of it.
  std::optional<ShortRecord> ShortRecordOf(std::uint32_t slot) const;
  bool IsSigned(std::uint32_t slot) const { return SlotIsSigned(_layout, slot, _memory); }

 private:
  /// Bytes that together are one whole image in one slot.
  struct Known {
    std::uint32_t slot;
    Whole whole;
    std::vector<std::pair<std::uint32_t, device::Bytes>> ranges;  ///< by start address
    std::size_t wrong = 0;                                        ///< bytes that differ now
    std::uint64_t image_size = 0;  ///< bytes of its sections, gaps included; 0 if not known
  };

  static constexpr std::uint32_t INVARIANT = SLOTS;  ///< in the place of a slot

  void Add(Known known);
  bool HasRecordOf(const Known& known) const;
  void AddPresentImage(std::uint32_t slot, std::vector<PresentImage>& added);
  void AddSlot(const Image& image, const Memory& filled, std::uint32_t slot, Whole whole);
  void AddMoved(const Known& second, View record);
  void AddInvariantSector(Whole whole, View memory);
  bool Fits(std::uint64_t addr, std::uint64_t size) const { return addr + size <= _memory.size(); }
  bool HasSectors() const { return _layout.sector_size != 0; }

  BootLayout _layout;
  device::Bytes _memory;
  std::vector<Known> _known;
  // A pointer sector's CRC is computed anew only after its bytes have changed.
  mutable std::array<bool, SLOTS> _is_judged{};
  mutable std::array<bool, SLOTS> _boots{};
};

}  // namespace device
