// Whole burns of an image: its kind of burn, onto devices in any state.
#include <algorithm>
#include <set>

#include "Burns.h"
#include "Family.h"

namespace {

/// Addresses that a burn of every section where it stands may write: [from, to).
std::vector<std::pair<u_int64_t, u_int64_t>> Burnt(const FwImage& image) {
  std::vector<std::pair<u_int64_t, u_int64_t>> spans;
  std::vector<u_int32_t> addrs;
  image.GetSectionsAddr(addrs);
  for (const u_int32_t addr : addrs) {
    spans.emplace_back(addr, u_int64_t{addr} + image.GetSection(addr)->data.size());
  }
  // The place of a CRC may lie below what it covers.
  for (const u_int32_t addr : addrs) {
    const auto size = static_cast<u_int32_t>(image.GetSection(addr)->data.size());
    fuzz::Run([&] {
      for (const auto& crc : image.GetCrcsInRange(addr, size)) {
        spans.emplace_back(crc.crc_addr, u_int64_t{crc.crc_addr} + 4);
      }
    });
  }
  return spans;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  const fuzz::BurnOptions options(input);
  FwImage image;
  if (fuzz::Run([&] { fuzz::LoadImage(image, input.Rest()); }).error) return 0;
  // Longer burns try nothing that shorter ones don't.
  if (image.GetTotalSize() > 0x4000 || image.DevType() == DEV_UNKNOWN) return 0;

  sim::Fabric fabric;
  const bool is_generic = !options.is_failsafe || image.DevType() == RV61100;
  const auto spans = Burnt(image);
  // A device that is mapped twice has several addresses for each byte.
  std::set<u_int8_t> devices;
  for (const EeLoc& dev : sim::MapOf(image)._devmap) devices.insert(dev.dev);
  const bool is_mapped_once = devices.size() == sim::MapOf(image)._devmap.size();
  fabric.observer = [&](const sim::Operation& operation) {
    fuzz::Must(!options.is_check_only || is_generic || image.DevType() != RV61300,
               "a check changes nothing");
    if (!is_generic || operation.kind != sim::Operation::PROGRAM || !is_mapped_once) return;
    const EeLoc loc(operation.offset, operation.chip);
    u_int32_t addr = 0;
    const fuzz::Ending found = fuzz::Run([&] { addr = sim::MapOf(image).Convert(loc); });
    fuzz::Must(!found.error, "only what is mapped is written");
    const u_int64_t end = u_int64_t{addr} + operation.size;
    fuzz::Must(
        std::ranges::any_of(
            spans, [&](const auto& span) { return span.first <= addr && end <= span.second; }),
        "only what the image holds is written");
  };
  fuzz::CheckEnding(fuzz::Burn(image, options, fabric), image);
  return 0;
}
