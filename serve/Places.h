/// Where EEPROMs are on their wires, and which of them would answer to one another's addresses.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "serve/Configuration.h"

namespace serve {

/// The addresses of an EEPROM on its wire.
struct I2cPlace {
  std::string root;                                            ///< names the wire
  std::vector<std::pair<std::uint16_t, std::uint32_t>> muxes;  ///< address and channel of each
  std::vector<std::uint16_t> addresses;                        ///< ascending
  bool idle_disconnect = false;
};

/// As the configuration has it: the wire is named by its adapter.
I2cPlace PlaceOf(const I2cConfig& config, std::uint32_t size);

/// Why an EEPROM cannot be there: a mux on its way, or at its place, has its address. Empty where
/// it can.
std::string WhyNotThere(const I2cPlace& place);
/// Why there cannot be EEPROMs at both places; empty where there can. `other` names the chip at the
/// second.
std::string WhyNotBoth(const I2cPlace& place, const I2cPlace& second, const std::string& other);

}  // namespace serve
