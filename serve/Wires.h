/// Finds the I2C adapters and MTD devices of a configuration in what the kernel tells of them below
/// /sys and /proc. No device is opened, and nothing is sent to one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "serve/Configuration.h"
#include "serve/System.h"

namespace serve {

struct FoundAdapter {
  std::string error;         ///< why it was not found; empty: it was
  std::uint32_t number = 0;  ///< may be another one after a start of the machine
  std::string node;          ///< such as "/dev/i2c-16"
  std::string name;          ///< as the kernel has it
  std::string path;          ///< of its folder in /sys/devices
};

struct FoundMtd {
  std::string error;                ///< why it was not found; empty: it was
  std::uint32_t number = 0;         ///< may be another one after a start of the machine
  std::string node;                 ///< such as "/dev/mtd0"
  std::string name;                 ///< as the kernel has it
  std::string path;                 ///< of the device that it is on, in /sys/devices; may be empty
  std::string type;                 ///< such as "nor"
  std::uint64_t size = 0;           ///< bytes
  std::uint64_t offset = 0;         ///< of a partition: in its device
  std::uint32_t erase_size = 0;     ///< bytes
  std::uint32_t write_size = 0;     ///< bytes
  std::uint32_t erase_regions = 0;  ///< regions with other erase sizes
  bool is_writable = false;
  std::string jedec;   ///< in hexadecimal, such as "c2253a"; empty: not known
  std::string in_use;  ///< by what, such as "mounted on /"; empty: by nothing
};

/// All adapters, by number.
std::vector<FoundAdapter> ListAdapters(System& system);
/// All MTD devices, by number.
std::vector<FoundMtd> ListMtds(System& system);

FoundAdapter FindAdapter(System& system, const AdapterConfig& config);
FoundMtd FindMtd(System& system, const MtdConfig& config);

/// In which way the device is not the one that the configuration expects; empty where it is.
std::string WhyNotExpected(const MtdConfig& config, const FoundMtd& found);

/// The folder, in /sys/devices, of the adapter on whose wire all of `path` is: the outermost one.
std::string RootPathOf(const std::string& path);

/// What a mux has for its idle state where it disconnects its last channel.
inline constexpr const char* MUX_DISCONNECTS = "-2";

/// How a configuration names the adapter: by its root, and the muxes from there. The root has its
/// name, or where others have that, too, the folder of the device that it belongs to.
AdapterConfig WayTo(System& system, const FoundAdapter& adapter);

/// Names the root adapter of `config`: two adapters on one wire get the same text. It stays the
/// same when the numbers of adapters change. Where the kernel does not have the adapter now, this
/// is what the configuration says.
std::string RootKey(System& system, const AdapterConfig& config);
/// Names the file: without links where it exists.
std::string FileKey(System& system, const FileConfig& file);
/// Likewise names the flash, or the file.
std::string FlashKey(System& system, const FlashConfig& config);

/// The folder of what is at `address` of an adapter, such as "/sys/bus/i2c/devices/16-0050".
std::string I2cDevicePath(std::uint32_t adapter, std::uint16_t address);
/// The driver that owns `address` on the adapter, on one before it or on one behind its muxes;
/// empty where none does. The kernel refuses the address then.
std::string OwnerOf(System& system, const FoundAdapter& adapter, std::uint16_t address);

}  // namespace serve
