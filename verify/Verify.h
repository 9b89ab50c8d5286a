/// Verifies devices: compares what they hold with what a burn of an image must have left.
#pragma once

#include <optional>
#include <string>

#include "device/Boot.h"
#include "device/Image.h"
#include "verify/DeviceReader.h"
#include "verify/Finding.h"

namespace verify {

/// Which slots are compared.
enum class SlotChoice {
  FIRST,
  SECOND,
  AUTO,  ///< with pointer sectors, the valid or signed slots; with boot records, both; all sections
         ///< where the image cannot be burnt into slots
  NONE,  ///< all sections at their addresses, as a burn that is not failsafe leaves them
};

/// Throws std::invalid_argument, with the text of fwpush, when `server` is not of the form
/// "TYPE:IP:PORT".
void CheckServerForm(const std::string& server);

/// Verifies devices behind one server against one image. Only reads.
class Verifier {
 public:
  /// Loads the image. `save` is the folder for the devices' memories, where they are to be saved.
  /// Throws device::ImageError.
  Verifier(const std::string& image_file, const std::string& server, SlotChoice choice,
           const std::optional<std::string>& save);

  /// Verifies one device over a new connection. Errors of the server are part of the finding.
  DeviceFinding Verify(device::Guid guid) const;

  /// Whether the image can be burnt into slots.
  bool HasSlots() const { return _has_slots; }

  /// The warnings about the image file, one on each line.
  const std::string& Warnings() const { return _warnings; }

 private:
  void Compare(DeviceReader& reader, DeviceFinding& finding) const;

  std::string _server;
  SlotChoice _choice;
  std::optional<std::string> _save;
  device::Image _image;
  std::optional<device::BootLayout> _layout;  ///< where the image places the records of its slots
  bool _has_slots = false;
  std::string _warnings;
};

}  // namespace verify
