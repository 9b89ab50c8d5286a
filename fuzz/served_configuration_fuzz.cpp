// A configuration of the server for real memories.
#include <bit>
#include <filesystem>
#include <set>

#include "fuzz/Fuzz.h"
#include "hardware/VirtualSystem.h"
#include "serve/Configuration.h"
#include "serve/ConfigurationCheck.h"

namespace {

using fuzz::Must;
using serve::DeviceConfig;
using serve::FlashConfig;

void CheckFlash(const FlashConfig& flash) {
  Must(flash.mtd.has_value() != flash.file.has_value(), "a flash is one kind of memory");
  Must(std::has_single_bit(flash.sector_size), "sectors are powers of two");
  Must(flash.size % flash.sector_size == 0, "a flash has whole sectors");
  Must(flash.first % flash.sector_size == 0, "and begins with one");
  Must(flash.page_size <= flash.sector_size && std::has_single_bit(flash.page_size),
       "pages are powers of two, of a sector at most");
  Must(!flash.file || flash.size > 0, "a file has a size");
  Must(!flash.file || flash.file->path.is_absolute(), "a file has a whole path");
  const bool has_expectation = flash.mtd && flash.mtd->expected_size;
  Must(!has_expectation || flash.first + flash.size <= *flash.mtd->expected_size,
       "a flash is not larger than it is expected to be");
}

void CheckChip(const serve::EepromConfig& chip) {
  Must(chip.size > 0, "a chip has a size");
  Must(chip.i2c.has_value() != chip.file.has_value(), "a chip is one kind of memory");
  if (!chip.i2c) return;
  const serve::I2cConfig& i2c = *chip.i2c;
  Must(i2c.offset_bits == 8 || i2c.offset_bits == 16, "an offset has one byte or two");
  Must(std::has_single_bit(i2c.page), "pages are powers of two");
  Must(i2c.max_write > i2c.offset_bits / 8, "a transfer has room for a byte");
  Must(i2c.max_read > 0, "and so has an answer");
  const auto addresses = serve::AddressesOf(i2c, chip.size);
  Must(std::set(addresses.begin(), addresses.end()).size() == addresses.size(),
       "each bank has its address");
  for (const std::uint16_t address : addresses) {
    Must(address >= 0x08 && address <= 0x77, "an address is one of a chip");
  }
}

void CheckDevice(const DeviceConfig& device, std::set<std::uint64_t>& guids,
                 std::set<std::filesystem::path>& files) {
  const auto own_file = [&files](const std::optional<serve::FileConfig>& file) {
    Must(!file || files.insert(file->path).second, "a file belongs to one memory");
  };
  std::set<std::uint64_t> own(device.facts.port_guids.begin(), device.facts.port_guids.end());
  own.insert(device.facts.node_guid);
  for (const std::uint64_t guid : own) Must(guids.insert(guid).second, "a GUID names one device");
  Must(!device.facts.port_guids.empty(), "a device has a port");
  Must(device.flash.has_value() == device.eeproms.empty(), "a device has a flash or EEPROMs");
  if (device.flash) {
    CheckFlash(*device.flash);
    own_file(device.flash->file);
    Must(device.prepare.empty() || device.flash->size > 0, "what appears later has a size");
  }
  for (const auto& [address, chip] : device.eeproms) {
    CheckChip(chip);
    own_file(chip.file);
  }
  for (const serve::Range& range : device.write.value_or(std::vector<serve::Range>{})) {
    Must(range.first <= range.last, "a range has an order");
  }
  for (const auto& words : {device.prepare, device.release}) {
    Must(words.empty() || words[0].starts_with('/'), "a program has a whole path");
  }
  Must(device.hook_limit > serve::Time::zero(), "a program has time");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  const std::string& file =
      fuzz::MemoryFile(std::string_view(reinterpret_cast<const char*>(bytes), size));
  serve::Configuration configuration;
  try {
    configuration = serve::LoadConfiguration(file);
  } catch (const serve::ConfigurationError& error) {
    Must(std::string_view(error.what()).starts_with(file) ||
             std::string_view(error.what()).starts_with("can't"),
         "an error names its place");
    return 0;
  }
  Must(serve::IsLoopback(configuration.host) || !configuration.allow.empty(),
       "nobody is let in who is not named");
  Must(configuration.multi_max > 0, "a request may name a device");
  Must(configuration.limits.connections > 0 && configuration.limits.idle > serve::Time::zero(),
       "a client may connect");
  std::set<std::uint64_t> guids;
  std::set<std::filesystem::path> files{file};
  if (!configuration.audit.empty()) files.insert(configuration.audit);
  for (const DeviceConfig& device : configuration.devices) CheckDevice(device, guids, files);

  hardware::VirtualSystem system;
  for (const std::string& problem : serve::CheckConfiguration(system, configuration)) {
    Must(!problem.empty(), "a problem has a text");
  }
  return 0;
}
