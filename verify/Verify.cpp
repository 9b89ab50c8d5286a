#include "verify/Verify.h"

#include <stdexcept>

#include "common/Text.h"
#include "device/ImageFile.h"
#include "src/RomInterface.h"
#include "verify/Comparison.h"
#include "verify/Expectation.h"
#include "verify/QuietConsole.h"
#include "verify/SavedMemory.h"

namespace verify {

namespace {

/// Throws where the burner refuses the image, and collects the warnings.
class ImageWarnings : public device::ImageListener {
 public:
  void Refused(const device::Refusal& refusal) override {
    throw device::ImageError(refusal.message);
  }
  void Remarked(const device::Remark& remark) override {
    if (remark.kind != device::RemarkKind::BSN_IGNORED) return;
    text += device::BsnWarning(*device::FindDeviceType(remark.word)) + "\n";
  }
  std::string text;
};

}  // namespace

void CheckServerForm(const std::string& server) {
  // The burner's interface checks the form before it connects. This one does not connect.
  struct Unconnected : RemoteI2cInterface {
    Unconnected() : RemoteI2cInterface(5) {}
    BraidResult Connect() override { return BRAID_ERROR; }
  };
  try {
    Unconnected().Open(server.c_str());
  } catch (const BraidError& error) {
    throw std::invalid_argument(error.Des());
  }
}

Verifier::Verifier(const std::string& image_file, const std::string& server, SlotChoice choice,
                   const std::optional<std::string>& save)
    : _server(server), _choice(choice), _save(save) {
  ImageWarnings warnings;
  _image = device::ReadImageFile(image_file, warnings).image;
  _warnings = warnings.text;
  if (_image.type == nullptr) throw device::ImageError("The image names no device type");
  _layout = device::LayoutOf(_image, 0);
  _has_slots = CanBeBurntIntoSlots(_image);
}

DeviceFinding Verifier::Verify(device::Guid guid) const {
  const QuietConsole quiet;
  DeviceReader reader(_image, guid);
  DeviceFinding finding;
  finding.guid = guid;
  const auto cannot_read = [&](const std::string& reason) {
    finding.state = DeviceFinding::UNREADABLE;
    finding.reason = reason;
  };
  try {
    reader.Open(_server);
    Compare(reader, finding);
    if (_save) SaveMemory(_image, reader, *_save);
  } catch (const SaveFailure& failure) {
    finding.failure = failure.reason;
  } catch (const Unreadable& failure) {
    cannot_read(failure.reason);
  } catch (const CannotPredict& failure) {
    cannot_read("cannot compute the expected bytes: " + failure.reason);
  } catch (const BraidError& error) {
    const std::string reason = reader.FailureReason();
    cannot_read(reason.empty() ? error.Des() : reason);
    if (!reader.IsListed()) finding.state = DeviceFinding::UNREACHABLE;
    if (reason.empty()) finding.failure = error.Des();
  }
  return finding;
}

void Verifier::Compare(DeviceReader& reader, DeviceFinding& finding) const {
  Comparison comparison(_image, reader);
  if (_layout) {
    comparison.JudgeSlots(*_layout);
    finding.knows_slots = true;
    finding.valid_slots = comparison.ValidSlots();
  }
  if (_choice == SlotChoice::NONE || !_has_slots) {
    comparison.CompareAll(finding);
  } else {
    if (_choice != SlotChoice::AUTO) {
      finding.slots = {_choice == SlotChoice::FIRST ? 0u : 1u};
    } else if (_layout->HasPointerSectors()) {
      finding.slots = comparison.MarkedSlots();
    } else {
      finding.slots = {0, 1};
    }
    comparison.CompareSlots(finding);
  }
  if (_choice != SlotChoice::NONE && _layout && finding.valid_slots.empty()) {
    finding.reason =
        "no slot is marked valid" + (finding.reason.empty() ? "" : "; " + finding.reason);
  }
  finding.state = finding.different == 0 && finding.reason.empty() ? DeviceFinding::IDENTICAL
                                                                   : DeviceFinding::DIFFERENT;
}

}  // namespace verify
