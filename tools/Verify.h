/// Verification: what a burn must have left on a device, and what is really there.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "FwImage.h"

namespace tools {

/// Which image slots are looked at.
enum class SlotChoice {
  FIRST,
  SECOND,
  AUTO,  ///< those that are marked valid; both of an RV61300; all sections where there are no slots
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
struct Finding {
  enum State { IDENTICAL, DIFFERENT, UNREACHABLE, UNREADABLE };

  Guid guid = 0;  ///< as it was asked for
  State state = UNREADABLE;
  std::string reason;                   ///< why it could not be read, or has nothing to compare
  std::vector<u_int32_t> valid_slots;   ///< that the boot code takes for valid
  std::vector<u_int32_t> slots;         ///< that were compared; none: all sections
  std::size_t compared = 0;             ///< bytes
  std::size_t different = 0;            ///< of them
  std::vector<Difference> differences;  ///< the first of them
};

/// "identical", "different", "unreachable" or "unreadable".
const char* Name(Finding::State state);

/// Verifies devices behind one server against one image. Only ever reads.
class Verifier {
 public:
  /// Loads the image. `save` is the folder that gets each device's memory, where given. Throws
  /// BraidError.
  Verifier(const std::string& image_file, const std::string& server, SlotChoice choice,
           const std::optional<std::string>& save);

  /// Looks at one device, over a connection of its own. Throws BraidError when the server cannot be
  /// used at all.
  Finding Verify(Guid guid) const;

  bool HasSlots() const { return _image.DevType() != RV61100; }

  /// The image file's own warnings, a line each.
  const std::string& Warnings() const { return _warnings; }

 private:
  std::string _image_file;
  std::string _server;
  SlotChoice _choice;
  std::optional<std::string> _save;
  FwImage _image;
  std::string _warnings;
};

}  // namespace tools
