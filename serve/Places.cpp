#include "serve/Places.h"

#include <algorithm>
#include <iterator>

#include "common/Text.h"

namespace serve {

using common::HexText;
using common::Text;

namespace {

bool IsPrefix(const I2cPlace& shorter, std::size_t size, const I2cPlace& longer) {
  return size <= longer.muxes.size() &&
         std::equal(shorter.muxes.begin(),
                    shorter.muxes.begin() + static_cast<std::ptrdiff_t>(size),
                    longer.muxes.begin());
}

bool Has(const I2cPlace& place, std::uint16_t address) {
  return std::ranges::binary_search(place.addresses, address);
}

std::string MuxText(std::uint16_t address) { return "the mux at " + HexText(address); }

}  // namespace

std::vector<std::uint16_t> AddressesOf(const I2cConfig& config, std::uint32_t size) {
  std::vector<std::uint16_t> addresses;
  const std::uint32_t bank_size = 1u << config.offset_bits;
  for (std::uint32_t bank = 0; bank * bank_size < size; ++bank) {
    addresses.push_back(static_cast<std::uint16_t>(config.address | bank << config.bank_bit));
  }
  return addresses;
}

I2cPlace PlaceOf(const I2cConfig& config, std::uint32_t size) {
  return {.root = config.adapter.adapter,
          .muxes = config.adapter.muxes,
          .addresses = AddressesOf(config, size),
          .idle_disconnect = config.idle_disconnect};
}

std::string WhyNotThere(const I2cPlace& place) {
  for (const auto& [address, channel] : place.muxes) {
    if (Has(place, address)) return MuxText(address) + " on the way to the chip has its address";
  }
  return "";
}

std::string WhyNotBoth(const I2cPlace& place, const I2cPlace& second, const std::string& other) {
  if (place.root != second.root) return "";
  std::size_t common = 0;  // muxes that the chips are both behind
  while (common < place.muxes.size() && IsPrefix(place, common + 1, second)) ++common;
  const bool is_place_before = common == place.muxes.size();
  const bool is_second_before = common == second.muxes.size();
  // A mux is beside the chips that are before it.
  if (is_place_before && !is_second_before && Has(place, second.muxes[common].first)) {
    return MuxText(second.muxes[common].first) + " on the way to " + other + " has its address";
  }
  if (is_second_before && !is_place_before && Has(second, place.muxes[common].first)) {
    return MuxText(place.muxes[common].first) + " has the address of " + other;
  }
  std::vector<std::uint16_t> shared;
  std::ranges::set_intersection(place.addresses, second.addresses, std::back_inserter(shared));
  if (shared.empty()) return "";
  const std::string address = "address " + HexText(shared.front());
  if (is_place_before && is_second_before) {
    return address + " of this adapter belongs to " + other + ", too";
  }
  // One mux connects one channel at a time.
  if (!is_place_before && !is_second_before &&
      place.muxes[common].first == second.muxes[common].first) {
    return "";
  }
  // Each mux that one chip is behind, and the other is not, must let go of it.
  const bool is_apart =
      (is_place_before || place.idle_disconnect) && (is_second_before || second.idle_disconnect);
  if (is_apart) return "";
  const std::uint16_t mux = is_place_before || (!is_second_before && place.idle_disconnect)
                                ? second.muxes[common].first
                                : place.muxes[common].first;
  return Text(address, " is that of ", other, ", too, and ", MuxText(mux),
              " may stay connected: both would answer. If it disconnects when it is idle, say "
              "'idle_disconnect = true' for the chip behind it");
}

}  // namespace serve
