#include "protocol/FactsFile.h"

#include <algorithm>
#include <charconv>
#include <iterator>

#include "common/Text.h"

namespace protocol {

using common::TomlReader;

namespace {

Guid ParseGuid(const TomlReader& reader, std::string_view key, const TomlReader::Element& value) {
  const std::string_view text = value.text;
  Guid guid = 0;
  const std::string_view digits = text.substr(std::min<std::size_t>(2, text.size()));
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), guid, 16);
  if (!text.starts_with("0x") || error != std::errc() || end != digits.data() + digits.size()) {
    reader.ThrowAt(value.line,
                   common::Text("'", key, "' must be a GUID such as \"0x00aa550000000010\""));
  }
  return guid;
}

Guids ReadGuids(TomlReader& reader, std::string_view key) {
  Guids guids;
  for (const auto& value : reader.Array(key)) guids.push_back(ParseGuid(reader, key, value));
  return guids;
}

/// The bytes of a text, or of the hexadecimal digits after "0x", padded with zeros.
Bytes ReadBytes(TomlReader& reader, std::string_view key, std::size_t size) {
  const std::string text = reader.String(key).value_or("");
  Bytes bytes;
  if (text.starts_with("0x")) {
    for (std::size_t i = 2; i < text.size(); i += 2) {
      const std::string digits = text.substr(i, 2);
      std::uint8_t byte = 0;
      const char* end = digits.data() + digits.size();
      if (digits.size() != 2 || std::from_chars(digits.data(), end, byte, 16).ptr != end) {
        reader.Throw(common::Text("'", key, "' must have two hexadecimal digits for each byte"));
      }
      bytes.push_back(byte);
    }
  } else {
    bytes.assign(text.begin(), text.end());
  }
  if (bytes.size() > size) reader.Throw(common::Text("'", key, "' has more than ", size, " bytes"));
  bytes.resize(size);
  return bytes;
}

}  // namespace

std::optional<Guid> ReadGuid(TomlReader& reader, std::string_view key) {
  const auto value = reader.Any(key);
  if (!value) return {};
  return ParseGuid(reader, key, *value);
}

DeviceFacts ReadDeviceFacts(TomlReader& reader) {
  DeviceFacts facts;
  facts.node_guid = reader.Needed("node_guid", ReadGuid(reader, "node_guid"));
  facts.port_guids = ReadGuids(reader, "port_guids");
  facts.sys_guid = ReadGuid(reader, "system_guid").value_or(facts.node_guid);
  facts.declared_ports = static_cast<std::uint32_t>(facts.port_guids.size());
  facts.name = reader.String("name").value_or(facts.name);
  facts.attr = reader.String("attribute").value_or(facts.attr);
  facts.vsd = ReadBytes(reader, "vsd", VSD_SIZE);
  facts.bsn = ReadBytes(reader, "bsn", BSN_SIZE);
  return facts;
}

std::optional<std::string> ReadServerType(TomlReader& reader) {
  auto type = reader.String("type");
  constexpr std::string_view TYPES[] = {"I2C", "PCI", "PPC", "IB"};
  if (type && std::ranges::find(TYPES, *type) == std::end(TYPES)) {
    reader.Throw("'type' must be I2C, PCI, PPC or IB");
  }
  return type;
}

std::optional<std::uint32_t> ReadMultiMax(TomlReader& reader) {
  return reader.Number("multi_max", 1, 1000000);
}

}  // namespace protocol
