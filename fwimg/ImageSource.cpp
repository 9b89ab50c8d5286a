#include "fwimg/ImageSource.h"

#include <algorithm>
#include <filesystem>

#include "common/Files.h"
#include "common/Text.h"

namespace fwimg {

namespace {

/// Parts are compared with each other: more would take forever.
constexpr std::size_t MOST_PARTS = 10000;

class IgnoringListener : public device::ImageListener {
 public:
  void Refused(const device::Refusal&) override {}
  void Remarked(const device::Remark&) override {}
};

/// Ends where fwpush does, and warns as it does.
class BsnWarner : public device::ImageListener {
 public:
  explicit BsnWarner(const WarningSink& warn) : _warn(warn) {}

  void Refused(const device::Refusal& refusal) override {
    throw device::ImageError(refusal.message);
  }
  void Remarked(const device::Remark& remark) override {
    if (remark.kind != device::RemarkKind::BSN_IGNORED) return;
    _warn(device::BsnWarning(*device::FindDeviceType(remark.word)));
  }

 private:
  const WarningSink& _warn;
};

/// Throws where the carriage returns at the ends of its lines are why a file that `with` was read
/// from is refused, or means nothing: its author sees none of them, and no word of the loader names
/// them.
void CheckLineEnds(const std::string& path, const device::ImageFile& with) {
  if (with.refusal.empty() && with.image.type != nullptr) return;
  const common::Bytes bytes = common::ReadFile(path);
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  std::string changed;
  for (std::string_view line : common::Lines(text)) {
    while (line.ends_with('\r')) line.remove_suffix(1);
    changed.append(line) += '\n';
  }
  IgnoringListener ignoring;
  const device::ImageFile without = device::ParseImageFile(changed, path, ignoring);
  if (without.refusal == with.refusal && without.device_type_word == with.device_type_word) return;
  throw device::ImageError(path +
                           ": lines end with a carriage return and a line feed (CRLF), not with a "
                           "line feed alone; convert the file with dos2unix or sed -i 's/\\r$//'");
}

void CheckPartCount(const device::ImageFile& file) {
  if (file.parts <= MOST_PARTS) return;
  throw device::ImageError(common::Text(file.name, ": more than ", MOST_PARTS,
                                        " sections, fields, CRCs and devices: too many to check"));
}

}  // namespace

device::ImageFile ReadWithLineInfo(const std::string& path, device::ImageListener& listener) {
  device::ImageFile file = device::ReadImageFile(path, listener);
  CheckPartCount(file);
  return file;
}

device::ImageFile ParseWithLineInfo(std::string_view text, const std::string& path,
                                    device::ImageListener& listener) {
  device::ImageFile file = device::ParseImageFile(text, path, listener);
  CheckPartCount(file);
  return file;
}

device::ImageFile LoadImageFile(const std::string& path) {
  IgnoringListener ignoring;
  device::ImageFile file = ReadWithLineInfo(path, ignoring);
  CheckLineEnds(path, file);
  if (!file.refusal.empty()) throw device::ImageError(file.refusal);
  const bool has_version =
      std::ranges::any_of(file.version, [](const auto& part) { return part.has_value(); });
  if (file.parts == 0 && !has_version) {
    throw device::ImageError(path + ": no image: the file has no directive and no section");
  }
  return file;
}

device::Image LoadImage(const std::string& path, const WarningSink& warn) {
  {
    IgnoringListener ignoring;
    CheckLineEnds(path, device::ReadImageFile(path, ignoring));
  }
  BsnWarner warner(warn);
  return device::ReadImageFile(path, warner).image;
}

bool IsImageName(const std::string& path) {
  const std::string extension = std::filesystem::path(path).extension();
  return extension == ".img" || extension == ".IMG";
}

}  // namespace fwimg
