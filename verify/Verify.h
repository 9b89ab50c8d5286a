/// Verification: what a burn must have left on a device, and what is really there.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "device/Boot.h"
#include "device/Image.h"
#include "src/RomInterface.h"

namespace tools {

/// Which image slots are looked at.
enum class SlotChoice {
  FIRST,
  SECOND,
  AUTO,  ///< those that are valid or signed; both where boot records tell; all sections where the
         ///< image is for no slots
  NONE,  ///< all sections where they stand, as a burn that is not failsafe leaves them
};

struct Difference {
  std::string section;
  u_int32_t offset;  ///< in the section
  u_int32_t addr;    ///< linear
  u_int8_t expected;
  u_int8_t found;
};

/// What one device holds.
struct DeviceFinding {
  enum State { IDENTICAL, DIFFERENT, UNREACHABLE, UNREADABLE };

  Guid guid = 0;  ///< as it was asked for
  State state = UNREADABLE;
  std::string reason;        ///< what there is to say beside the bytes; "" where nothing
  std::string failure;       ///< what could not be done: the server fails, the memory is not saved
  bool knows_slots = false;  ///< whether its slots were looked at
  std::vector<u_int32_t> valid_slots;   ///< that the boot code takes for valid
  std::vector<u_int32_t> slots;         ///< that were compared; none: all sections
  std::size_t compared = 0;             ///< bytes
  std::size_t different = 0;            ///< of them
  std::vector<Difference> differences;  ///< the first of them

  /// The slot that boots: the valid one, the first where both are.
  std::optional<u_int32_t> Boots() const {
    return valid_slots.empty() ? std::nullopt : std::optional(valid_slots.front());
  }
};

/// "identical", "different", "unreachable" or "unreadable".
const char* Name(DeviceFinding::State state);

/// Throws BraidError, in fwpush's words, when `server` is no "TYPE:IP:PORT".
void CheckServerForm(const std::string& server);

/// Verifies devices behind one server against one image. Only ever reads.
class Verifier {
 public:
  /// No more of a device's memory is saved, whatever the device claims to have: bytes.
  static constexpr u_int64_t MOST_SAVED = u_int64_t{256} << 20;

  /// Loads the image. `save` is the folder that gets each device's memory, where given. Throws
  /// BraidError.
  Verifier(const std::string& image_file, const std::string& server, SlotChoice choice,
           const std::optional<std::string>& save);

  /// Looks at one device, over a connection of its own.
  DeviceFinding Verify(Guid guid);

  /// Whether the image can be burnt into slots.
  bool HasSlots() const { return _has_slots; }

  /// The image file's own warnings, a line each.
  const std::string& Warnings() const { return _warnings; }

 private:
  std::string _server;
  SlotChoice _choice;
  std::optional<std::string> _save;
  device::Image _image;
  std::optional<device::BootLayout> _layout;  ///< where the image places the records of its slots
  bool _has_slots = false;
  std::string _warnings;
};

}  // namespace tools
