/// What the server's configuration file says. docs/serve.md describes the file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "protocol/DeviceFacts.h"
#include "serve/System.h"

namespace serve {

/// A configuration is wrong; the text names file, line and key.
class ConfigurationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A plain file in the place of a memory.
struct FileConfig {
  std::filesystem::path path;
  bool only_clears_bits = false;  ///< like a flash; else a write overwrites
  bool syncs = true;              ///< what is acknowledged is on the disk
};

/// An I2C adapter: a root adapter, and the way through its muxes.
struct AdapterConfig {
  /// The name of the root adapter as the kernel has it, such as "1e78a300.i2c-bus", or the path of
  /// an adapter's node, such as "/dev/i2c-16".
  std::string adapter;
  std::vector<std::pair<std::uint16_t, std::uint32_t>> muxes;  ///< address and channel of each
  bool operator==(const AdapterConfig&) const = default;
};

struct I2cConfig {
  AdapterConfig adapter;
  std::uint16_t address = 0;      ///< on the wire
  std::uint32_t page = 0;         ///< bytes of one write
  std::uint32_t offset_bits = 0;  ///< 8 or 16; further bits go into the address
  std::uint32_t bank_bit = 0;     ///< of the address, for the first of these bits
  Time write_limit = std::chrono::milliseconds(50);  ///< of one write cycle
  bool allow_bound = false;                          ///< even where a driver owns the address
  /// The muxes on the way connect no channel between transfers. Else a chip behind one may not have
  /// the address of a chip before it: both would answer.
  bool idle_disconnect = false;
  std::uint32_t max_write = 8192;  ///< bytes of a transfer that the adapter takes
  std::uint32_t max_read = 8192;
};

/// The addresses on the wire of a chip of `size` bytes, ascending.
std::vector<std::uint16_t> AddressesOf(const I2cConfig& config, std::uint32_t size);

/// One EEPROM of a device.
struct EepromConfig {
  std::uint32_t size = 0;        ///< bytes
  std::optional<I2cConfig> i2c;  ///< exactly one of these
  std::optional<FileConfig> file;
};

struct MtdConfig {
  std::string name;  ///< of the MTD device; this or the next, or both, are there
  /// Folders of /sys/devices on the way to the device that it is on, in their order, such as
  /// "1e630000.spi/spi1.0".
  std::string by_path;
  std::optional<std::string> jedec;  ///< that it must have, such as "c2253a", in lower case
  std::optional<std::uint64_t> expected_size;  ///< that it must have
};

/// The flash of a device.
struct FlashConfig {
  std::uint32_t size = 0;         ///< bytes, as the client sees it; 0: all of an MTD device
  std::uint64_t first = 0;        ///< where the memory begins in the MTD device or file
  std::uint32_t sector_size = 0;  ///< bytes, as the client sees them; a multiple of what is erased
  std::uint32_t page_size = 256;  ///< bytes of one program
  std::optional<MtdConfig> mtd;   ///< exactly one of these
  std::optional<FileConfig> file;
};

struct Range {
  std::uint32_t first = 0;
  std::uint32_t last = 0;  ///< the last byte of it
};

struct DeviceConfig {
  protocol::DeviceFacts facts;
  std::map<std::uint8_t, EepromConfig> eeproms;  ///< by the address of requests; exactly one
  std::optional<FlashConfig> flash;
  /// Where writes are allowed, in each chip of the device; nothing: everywhere.
  std::optional<std::vector<Range>> write;
  bool is_read_only = false;
  std::vector<std::string> prepare;  ///< program and arguments; empty: none
  std::vector<std::string> release;
  Time hook_limit = std::chrono::seconds(60);
};

/// Of strangers.
struct Limits {
  std::uint32_t connections = 64;
  std::uint32_t message_size = 1 << 20;  ///< bytes of a request
  Time idle = std::chrono::minutes(10);  ///< without a request
};

struct Configuration {
  std::string host = "127.0.0.1";
  std::uint16_t port = 26519;
  std::vector<std::string> allow;  ///< peers, "ADDRESS" or "ADDRESS/BITS"; empty: loopback alone
  std::string type = "IB";
  std::uint32_t multi_max = 64;
  bool is_read_only = false;
  std::filesystem::path audit;                        ///< empty: none
  std::filesystem::path state = "/run/fwpush-serve";  ///< folder of lock files and open leases
  Limits limits;
  std::vector<DeviceConfig> devices;
};

/// Whether only clients on this machine reach a server that listens there.
bool IsLoopback(const std::string& host);

/// Reads a configuration, and touches nothing else. Throws ConfigurationError.
Configuration LoadConfiguration(const std::filesystem::path& path);

}  // namespace serve
