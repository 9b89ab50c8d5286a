/// Verifies devices: compares what they hold with what a burn of an image must have left.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "device/Image.h"
#include "verify/Comparison.h"
#include "verify/Finding.h"
#include "verify/Workers.h"

namespace verify {

/// Throws std::invalid_argument when `server` is not of the form "TYPE:IP:PORT"; with the text of
/// fwpush, unless it is TYPE that is wrong.
void CheckServerForm(const std::string& server);

/// Verifies devices behind one server against one image. Only reads.
class Verifier {
 public:
  using Take = std::function<void(const DeviceFinding&)>;

  /// Loads the image. `save` is the folder for the devices' memories, where they are to be saved.
  /// Throws device::ImageError, for an image without a byte to compare, too.
  Verifier(const std::string& image_file, const std::string& server, SlotChoice choice,
           const std::optional<std::string>& save);
  Verifier(const Verifier&) = delete;  // parts of it refer to its image
  Verifier& operator=(const Verifier&) = delete;

  /// Verifies devices, and calls `take` with their findings in ascending order of the GUIDs. Errors
  /// of the server are part of the findings. EEPROM devices share one connection and its requests;
  /// a new one is made only after a failure. Each flash needs a connection of its own: up to `jobs`
  /// of them are read at the same time. Throws std::system_error where no process can be started.
  void Verify(const std::set<device::Guid>& guids, unsigned jobs, const Take& take,
              const PartDone& progress = {}) const;
  /// The same for one device.
  DeviceFinding Verify(device::Guid guid) const;

  /// Whether the image can be burnt into slots.
  bool HasSlots() const { return _task.has_slots; }

  /// The warnings about the image file, one on each line.
  const std::string& Warnings() const { return _warnings; }

 private:
  class Connection;

  /// Verifies EEPROM devices, or one flash, over one connection.
  void VerifyTogether(const std::set<device::Guid>& guids, FailureCount& failures, const Take& take,
                      const PartDone& progress) const;
  std::string Save(Connection& connection, const std::deque<device::Guid>& left) const;

  const std::string _server;
  const std::optional<std::string> _save;
  device::Image _image;
  Task _task;
  std::string _warnings;
};

}  // namespace verify
