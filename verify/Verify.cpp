#include "verify/Verify.h"

#include <algorithm>
#include <deque>
#include <set>
#include <stdexcept>
#include <vector>

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
  constexpr std::string_view TYPES[] = {"I2C", "PCI", "PPC", "IB"};
  // As the burner's interface divides it.
  const std::vector<std::string_view> fields = common::Words(server, ":");
  if (fields.size() == 3 && std::ranges::find(TYPES, fields[0]) == std::end(TYPES)) {
    throw std::invalid_argument(common::Text("-s ", server, ": there is no TYPE '", fields[0],
                                             "': give I2C, PCI, PPC or IB; the devices of every "
                                             "image can be read through each of them"));
  }
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
    : _server(server), _save(save), _task{.image = _image, .choice = choice} {
  ImageWarnings warnings;
  _image = device::ReadImageFile(image_file, warnings).image;
  _warnings = warnings.text;
  if (_image.type == nullptr) throw device::ImageError("The image names no device type");
  const auto is_empty = [](const device::Section& section) { return section.data.empty(); };
  if (std::ranges::all_of(_image.sections, is_empty)) {
    throw device::ImageError("The image has no byte to compare");
  }
  _task.layout = device::LayoutOf(_image, 0);
  _task.has_slots = CanBeBurntIntoSlots(_image);
}

DeviceFinding Verifier::Verify(device::Guid guid) const {
  DeviceFinding result;
  Verify({guid}, 1, [&result](const DeviceFinding& finding) { result = finding; });
  return result;
}

void Verifier::Verify(const std::set<device::Guid>& guids, unsigned jobs, const Take& take,
                      const PartDone& progress) const {
  FailureCount failures;
  if (!_image.IsFlash()) return VerifyTogether(guids, failures, take, progress);
  if (jobs > 1 && guids.size() > 1) {
    const auto work = [this](device::Guid guid, const PartDone& part_done) {
      DeviceFinding result;
      FailureCount own;
      VerifyTogether(
          {guid}, own, [&result](const DeviceFinding& finding) { result = finding; }, part_done);
      return result;
    };
    return VerifyInProcesses({guids.begin(), guids.end()}, jobs, work, take, progress);
  }
  double done = 0;
  for (const device::Guid guid : guids) {
    VerifyTogether({guid}, failures, take, [&](double part) {
      if (progress) progress((done + part) / static_cast<double>(guids.size()));
    });
    ++done;
  }
}

/// A connection for the devices that are left. It is made when it is needed, and made anew after a
/// failure.
class Verifier::Connection {
 public:
  Connection(const device::Image& image, const std::string& server)
      : _image(image), _server(server) {}

  /// Throws ServerFailure.
  DeviceReader& Reader(const std::deque<device::Guid>& left) {
    if (_is_open) return *_reader;
    _reader.emplace(_image, std::set<device::Guid>(left.begin(), left.end()));
    _reader->Open(_server);
    _is_open = true;
    return *_reader;
  }
  void HasFailed() { _is_open = false; }
  /// Valid after a failure, too.
  bool IsListed(device::Guid guid) const { return _reader && _reader->IsListed(guid); }

 private:
  const device::Image& _image;
  const std::string& _server;
  std::optional<DeviceReader> _reader;
  bool _is_open = false;
};

void Verifier::VerifyTogether(const std::set<device::Guid>& guids, FailureCount& failures,
                              const Take& take, const PartDone& progress) const {
  Connection connection(_image, _server);
  std::deque<device::Guid> left(guids.begin(), guids.end());
  std::size_t alone = 0;  // of those that are left, to be read one by one
  while (!left.empty()) {
    if (failures.IsGivenUp()) {
      for (const device::Guid guid : left) take(failures.NotTried(guid));
      return;
    }
    const std::size_t before = guids.size() - left.size();
    std::vector<device::Guid> group = {left.front()};
    std::vector<DeviceFinding> findings;
    try {
      const QuietConsole quiet;
      DeviceReader& reader = connection.Reader(left);
      const std::size_t most = alone > 0 ? 1 : reader.MostAtOnce();
      group.assign(left.begin(),
                   left.begin() + static_cast<std::ptrdiff_t>(std::min(left.size(), most)));
      const auto part_done = [&](std::uint64_t done, std::uint64_t total) {
        if (!progress) return;
        const double part = static_cast<double>(done) / static_cast<double>(total);
        progress((static_cast<double>(before) + part * static_cast<double>(group.size())) /
                 static_cast<double>(guids.size()));
      };
      findings = Comparison(_task, reader, part_done).Compare(group);
    } catch (const ServerFailure& failure) {
      connection.HasFailed();
      if (group.size() > 1) {
        // Whichever of them the server cannot bear, the others are read.
        alone = group.size();
        continue;
      }
      DeviceFinding& finding = findings.emplace_back();
      finding.guid = group.front();
      finding.state = connection.IsListed(finding.guid) ? DeviceFinding::UNREADABLE
                                                        : DeviceFinding::UNREACHABLE;
      finding.reason = failure.reason;
      finding.failure = failure.reason;
    }
    for (DeviceFinding& finding : findings) {
      if (_save && finding.WasRead()) finding.failure = Save(connection, left);
      if (alone > 0) --alone;
      left.pop_front();
      failures.Add(finding);
      take(finding);
    }
  }
}

/// Saves the memory of the first of the devices that are left. Returns what has failed; "" if
/// nothing has. It does not change the verdict: the bytes that are saved are not compared.
std::string Verifier::Save(Connection& connection, const std::deque<device::Guid>& left) const {
  const device::Guid guid = left.front();
  try {
    const QuietConsole quiet;
    SaveMemory(_image, connection.Reader(left), guid, *_save);
  } catch (const SaveFailure& failure) {
    return failure.reason;
  } catch (const ServerFailure& failure) {
    connection.HasFailed();
    return CannotSave(guid, failure.reason).reason;
  }
  return "";
}

}  // namespace verify
