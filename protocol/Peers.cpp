#include "protocol/Peers.h"

#include <arpa/inet.h>

#include <charconv>
#include <stdexcept>

namespace protocol {

namespace {

std::string DottedAddress(std::uint32_t address) {
  const in_addr bytes{htonl(address)};
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &bytes, text, sizeof text);
}

}  // namespace

Network ParseNetwork(const std::string& text) {
  const std::size_t slash = text.find('/');
  unsigned bits = 32;
  bool is_right = true;
  if (slash != std::string::npos) {
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data() + slash + 1, end, bits);
    is_right = parsed.ec == std::errc() && parsed.ptr == end && bits <= 32;
  }
  in_addr bytes{};
  if (!is_right || inet_pton(AF_INET, text.substr(0, slash).c_str(), &bytes) != 1) {
    throw std::invalid_argument("\"" + text +
                                "\" is not an IPv4 address or network such as 10.1.2.0/24");
  }
  Network network{.address = ntohl(bytes.s_addr)};
  network.mask = bits == 0 ? 0 : ~std::uint32_t{0} << (32 - bits);
  if (!network.Has(network.address)) {
    throw std::invalid_argument("\"" + text + "\" is an address in the network \"" +
                                DottedAddress(network.address & network.mask) + text.substr(slash) +
                                "\": write one or the other");
  }
  return network;
}

std::vector<Network> ParseNetworks(const std::vector<std::string>& texts) {
  std::vector<Network> networks;
  networks.reserve(texts.size());
  for (const std::string& text : texts) networks.push_back(ParseNetwork(text));
  return networks;
}

}  // namespace protocol
