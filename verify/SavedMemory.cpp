#include "verify/SavedMemory.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "common/OutputFile.h"
#include "common/Text.h"
#include "verify/ComparedRegion.h"
#include "verify/Expectation.h"

namespace verify {

namespace {

constexpr std::string_view FLASH = ".flash";
constexpr std::string_view EEPROM = ".i2c";

/// In bytes; where the end of the memory is not known, as far as the image reaches.
std::uint64_t MemorySize(const device::Image& image, const DeviceReader& reader) {
  if (const auto end = reader.KnownEnd()) return *end;
  std::vector<ComparedRegion> regions;
  for (const device::Section& section : image.sections) AddSection(regions, section, section.addr);
  if (CanBeBurntIntoSlots(image)) AddSlot(regions, image, 1);
  std::uint64_t size = 0;
  for (const ComparedRegion& region : regions) size = std::max(size, region.End());
  return size;
}

void SaveChip(DeviceReader& reader, device::Guid guid, const std::filesystem::path& path,
              std::uint64_t start, std::uint64_t size) {
  const auto keep = [](const auto& action) {
    try {
      action();
    } catch (const std::runtime_error& error) {
      throw SaveFailure{error.what()};
    }
  };
  std::optional<common::OutputFile> file;
  keep([&] { file.emplace(path); });
  reader.Read(
      {guid}, static_cast<std::uint32_t>(start), static_cast<std::uint32_t>(size),
      [&](device::Guid, std::uint32_t, std::span<const std::uint8_t> piece) {
        keep([&] { file->Write({reinterpret_cast<const char*>(piece.data()), piece.size()}); });
      });
  if (reader.IsDropped(guid)) throw CannotSave(guid, reader.FailureReason(guid));
  keep([&] { file->Keep(); });
}

}  // namespace

bool IsMemoryName(const std::filesystem::path& name) {
  return name.string().starts_with("0x") &&
         (name.extension() == FLASH || name.extension() == EEPROM);
}

SaveFailure CannotSave(device::Guid guid, const std::string& reason) {
  return {"can't save the memory of " + common::HexGuid(guid) + ": " + reason};
}

void SaveMemory(const device::Image& image, DeviceReader& reader, device::Guid guid,
                const std::filesystem::path& folder) {
  const std::uint64_t size = MemorySize(image, reader);
  if (size > MOST_SAVED) {
    throw SaveFailure{common::Text("the memory of ", common::HexGuid(guid), " has ", size,
                                   " bytes, and no more than ", MOST_SAVED, " are saved")};
  }
  const std::string head = common::HexGuid(reader.NodeGuid(guid));
  if (reader.IsFlash() || image.map.empty()) {
    SaveChip(reader, guid,
             folder / (head + std::string(reader.IsFlash() ? "" : ".0") +
                       std::string(reader.IsFlash() ? FLASH : EEPROM)),
             0, size);
    return;
  }
  std::uint64_t start = 0;
  for (const device::MappedChip& mapped : image.map) {
    const auto name = common::Text(head, ".", std::hex, std::uint32_t{mapped.chip}, EEPROM);
    SaveChip(reader, guid, folder / name, start, mapped.size);
    start += mapped.size;
  }
}

}  // namespace verify
