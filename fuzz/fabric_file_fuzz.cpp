// A fabric file.
#include "fuzz/Fuzz.h"
#include "sim/FabricFile.h"

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  const std::string& file = fuzz::MemoryFile(text);
  sim::Fabric fabric;
  try {
    sim::LoadFabric(file, {}, fabric);
  } catch (const sim::FabricFileError& error) {
    fuzz::Must(std::string_view(error.what()).starts_with(file) ||
                   std::string_view(error.what()).starts_with("can't"),
               "an error names its place");
    return 0;
  }
  for (const auto& [guid, device] : fabric.Devices()) {
    fuzz::Must(guid == device.node_guid, "a device is kept by its node GUID");
    for (const Guid port : device.port_guids) {
      fuzz::Must(fabric.Find(port) == &device, "a device is found by its ports");
    }
  }
  return 0;
}
