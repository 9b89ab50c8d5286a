// An image file: loading it, and all that can be asked of it then.
#include <algorithm>
#include <set>

#include "fuzz/Fuzz.h"
#include "fwimg/ImageCheck.h"
#include "tests/support/readers_agree.h"

namespace {

using fuzz::Must;

void AskAll(const FwImage& image) {
  image.PrintStatus();
  std::vector<u_int32_t> addrs;
  image.GetSectionsAddr(addrs);
  u_int64_t total = 0;
  // Of two sections at one address, the second is kept nowhere.
  for (const u_int32_t addr : std::set(addrs.begin(), addrs.end())) {
    const FwImage::Section* section = image.GetSection(addr);
    Must(section != nullptr && section->addr == addr, "a listed section is there");
    Must(section->data.size() % 4 == 0, "a section is whole words");
    total += section->data.size();
    const auto size = static_cast<u_int32_t>(section->data.size());
    const u_int64_t end = u_int64_t{addr} + size;
    fuzz::Run([&] {
      for (const auto& field : image.GetFieldsInRange(addr, size)) {
        Must(field.from >= addr && u_int64_t{field.from} + field.size <= end,
             "a field in range lies in it");
      }
    });
    fuzz::Run([&] {
      for (const auto& crc : image.GetCrcsInRange(addr, size)) {
        Must(crc.from >= addr && u_int64_t{crc.from} + crc.size <= end &&
                 u_int64_t{crc.crc_addr} + 4 <= end,
             "a CRC in range does not reach past it");
      }
    });
  }
  Must(image.GetTotalSize() == static_cast<u_int32_t>(total), "the total is that of the sections");
  for (u_int32_t slot = 0; slot < FwImage::SLOTS; ++slot) {
    fuzz::Run([&] { image.GetPsAddr(slot); });
    fuzz::Run([&] { image.GetImageAddr(slot); });
    fuzz::Run([&] { image.GetSignatureAddr(slot); });
  }
  fuzz::Run([&] { image.GetImageSize(); });
  fuzz::Run([&] {
    std::vector<u_int32_t> of_image;
    image.GetImageSectionsAddr(of_image);
    Must(of_image.size() <= addrs.size(), "the image has no section twice");
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  const std::string& file = fuzz::MemoryFile(text);
  FwImage image;
  const auto error = fuzz::Run([&] { image.Open(file.c_str(), READ); });
  if (!error) {
    Must(!fuzz::Run([&] { AskAll(image); }), "what was loaded can be looked at");
  }
  const std::string disagreement = readers::Disagreement(file);
  Must(disagreement.empty(), "both readers make the same of it, not so " + disagreement);
  // fwimg tells what the loader refuses, and nothing else is refused.
  try {
    const bool is_refused =
        std::ranges::any_of(fwimg::Check(file, {.sector_size = 0x10000}),
                            [](const auto& problem) { return problem.kind->word == "refused"; });
    Must(is_refused == error.has_value(), "fwimg check refuses what the loader refuses");
  } catch (const device::ImageError& odd) {
    Must(std::string_view(odd.what()).find(": more than ") != std::string_view::npos,
         "an image is left alone only for its many parts");
  }
  return 0;
}
