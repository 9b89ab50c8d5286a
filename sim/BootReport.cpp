#include "sim/BootReport.h"

#include "common/Text.h"
#include "device/ImageFile.h"
#include "sim/Filling.h"

namespace sim {

device::Image LoadImage(const std::string& file) {
  try {
    return device::ReadImage(file);
  } catch (const device::ImageError& error) {
    throw JudgeError(error.what());
  }
}

device::BootLayout LayoutOf(const device::Image& image, const std::string& file,
                            std::uint32_t sector_size) {
  if (const auto layout = device::LayoutOf(image, sector_size)) return *layout;
  if (image.Slots() == device::SlotKind::NONE) {
    throw JudgeError(file + " is for a device without two image slots");
  }
  const bool has_pointer_sectors = image.Slots() == device::SlotKind::POINTER_SECTORS;
  const device::Slot& first = image.slots[0];
  const auto& first_record = has_pointer_sectors ? first.pointer_sector : first.image;
  throw JudgeError(common::Text("FwImage: Tried to access uninitiated field ",
                                has_pointer_sectors ? "Ps Addr" : "Image Addr", "[",
                                first_record ? 1 : 0, "] . Check file ", file));
}

void AddKnownImageFile(device::Judge& judge, const Device& device, const std::string& file,
                       device::Whole whole, device::Origin origin) {
  const device::Image image = LoadImage(file);
  LayoutOf(image, file, 0);
  if (!judge.AddKnownImage(image, IdentityOf(device), MemoryOf(device, image), whole, origin)) {
    throw JudgeError(file + " places its slots at other addresses than the image being judged");
  }
}

namespace {

device::Judge JudgeByImages(const Device& device, const std::vector<std::string>& images) {
  if (device.images.empty() && images.empty()) {
    throw JudgeError("no known image; name one with --image");
  }
  const std::string& file = (images.empty() ? device.images : images).back();
  const device::Image image = LoadImage(file);
  device::Judge judge(LayoutOf(image, file, SectorSizeOf(device)), MemoryOf(device, image).bytes);
  for (const std::string& old : device.images) {
    AddKnownImageFile(judge, device, old, device::Whole::OLD);
  }
  for (const std::string& burnt : images) {
    const bool is_new = burnt == images.back();
    AddKnownImageFile(judge, device, burnt, is_new ? device::Whole::NEW : device::Whole::OLD);
  }
  return judge;
}

/// The verdict in words, and why a slot is broken, where the judge knows.
std::string Describe(const device::Judge& judge) {
  const device::Verdict verdict = judge.CurrentVerdict();
  std::string text = device::Describe(verdict);
  for (std::uint32_t slot = 0; slot < device::SLOTS; ++slot) {
    if (!verdict.slots[slot].BootsBroken()) continue;
    if (const auto record = judge.ShortRecordOf(slot)) text += "; " + device::Describe(*record);
  }
  return text;
}

}  // namespace

std::string BootReport(const Fabric& fabric, const std::vector<std::string>& images) {
  std::string report;
  for (const auto& [guid, device] : fabric.Devices()) {
    report += HexGuid(guid) + " ";
    try {
      const device::Judge judge = JudgeByImages(device, images);
      if (images.empty() && !judge.UnexplainedSlots().empty()) {
        report += "not judged: a slot holds an unknown image; name it with --image";
      } else {
        report += Describe(judge);
      }
    } catch (const JudgeError& error) {
      report += std::string("not judged: ") + error.what();
    }
    report += "\n";
  }
  return report;
}

}  // namespace sim
