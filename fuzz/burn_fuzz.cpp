// Whole burns of an image: its kind of burn, onto devices in any state.
#include "fuzz/FuzzedBurn.h"

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  const fuzz::BurnOptions options(input);
  FwImage image;
  if (fuzz::Run([&] { fuzz::LoadImage(image, input.Rest()); })) return 0;
  // Longer burns try nothing that shorter ones don't.
  if (image.GetTotalSize() > 0x4000 || image.DevType() == DEV_UNKNOWN) return 0;

  sim::Fabric fabric;
  fuzz::GuardWrites(fabric, image, options);
  const fuzz::Ending ending = fuzz::Burn(image, options, fabric);
  fuzz::CheckEnding(ending, image);
  if (!options.is_failsafe || image.DevType() == RV61100) {
    fuzz::Must(ending.error || ending.assertion.has_value() == fuzz::BurnsOddCrc(image),
               "a CRC over anything but whole words is burnt nowhere");
  }
  return 0;
}
