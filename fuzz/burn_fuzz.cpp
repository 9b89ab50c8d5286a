// Whole burns of an image: its kind of burn, onto devices in any state.
#include "Burns.h"

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  const fuzz::BurnOptions options(input);
  FwImage image;
  if (fuzz::Run([&] { fuzz::LoadImage(image, input.Rest()); }).error) return 0;
  // Longer burns try nothing that shorter ones don't.
  if (image.GetTotalSize() > 0x4000 || image.DevType() == DEV_UNKNOWN) return 0;

  sim::Fabric fabric;
  fuzz::GuardWrites(fabric, image, options);
  fuzz::CheckEnding(fuzz::Burn(image, options, fabric), image);
  return 0;
}
