/// Which addresses may connect to a server.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace protocol {

/// An IPv4 network; a single address is one of 32 bits.
struct Network {
  std::uint32_t address = 0;  ///< of its first host; the first byte is the most significant
  std::uint32_t mask = 0;     ///< bits of an address that are those of the network

  bool Has(std::uint32_t peer) const { return (peer & mask) == address; }
  bool operator==(const Network&) const = default;
};

/// Reads "ADDRESS" or "ADDRESS/BITS". Throws std::invalid_argument with the reason, also where the
/// address has bits that are not of the network.
Network ParseNetwork(const std::string& text);

std::vector<Network> ParseNetworks(const std::vector<std::string>& texts);

}  // namespace protocol
