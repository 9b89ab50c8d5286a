#include "verify/DeviceReader.h"

#include <algorithm>
#include <type_traits>

#include "common/Text.h"
#include "src/RomInterface.h"

namespace verify {

namespace {

/// Maximum size of one read in bytes. A longer answer may exceed the maximum length of a line, or
/// the time limit.
constexpr std::uint32_t READ_SIZE = 64 * 1024;
constexpr std::uint32_t LOG2_CHUNK = 5;  // not used: only writes are cut into chunks

/// The only requests that this program may send.
bool OnlyReads(std::string_view request) {
  constexpr std::string_view HEADS[] = {"vsMultiMaxGet",    "IfcVersion",     "NsGetDeviceByType",
                                        "vsFlashReadMulti", "vsI2cReadMulti", "vsFlashGetAttrMulti",
                                        "vsGetVsdMulti",    "crBSNGet"};
  return std::ranges::find(HEADS, request.substr(0, request.find(' '))) != std::end(HEADS);
}

FieldType InterfaceType(device::FieldType type) {
  switch (type) {
    case device::FieldType::SIGNATURE:
      return SIGNATURE;
    case device::FieldType::GUIDS:
      return GUIDS;
    case device::FieldType::GUID:
      return GUID;
    case device::FieldType::SYS_GUID:
      return SYS_GUID;
    case device::FieldType::BSN:
      return BSN;
    case device::FieldType::VSD:
      return VSD;
  }
  return UNKNOWN_FIELD;
}

}  // namespace

/// The image's device map, for the interface.
class DeviceReader::MapConvertor : public AddressConvertor {
 public:
  explicit MapConvertor(const device::Image& image) : _image(image) {}

  u_int32_t Convert(const EeLoc& loc) const override {
    const auto addr = _image.AddressOf({loc.dev, loc.offset});
    if (!addr) ThrowError("The device map lacks the chip");
    return *addr;
  }
  EeLoc Convert(u_int32_t addr) const override {
    const auto place = _image.PlaceOf(addr);
    if (!place) {
      ThrowError(
          common::Text("Addr2OffsetDev: No mapping for the given addr (", std::hex, addr, ")."));
    }
    return {place->offset, place->chip};
  }

 private:
  const device::Image& _image;
};

/// What is used of the burner's interfaces to a flash and to EEPROMs.
class DeviceReader::Interface {
 public:
  virtual ~Interface() = default;
  virtual RemoteRomInterface& Rom() = 0;
  virtual bool IsListed(device::Guid guid) const = 0;
  virtual device::Guid NodeGuid(device::Guid guid) const = 0;
  virtual std::string FailureReason(device::Guid guid) const = 0;
  virtual std::uint32_t FlashSize() const = 0;   ///< 0 for a memory that is not a flash
  virtual std::uint32_t SectorSize() const = 0;  ///< likewise
};

template <typename Remote>
class DeviceReader::InterfaceTo : public Interface, private Remote {
 public:
  InterfaceTo() : Remote(LOG2_CHUNK) {}

  RemoteRomInterface& Rom() override { return *this; }
  bool IsListed(device::Guid guid) const override { return this->_devs_data.contains(guid); }
  device::Guid NodeGuid(device::Guid guid) const override {
    return this->_devs_data.at(guid)->node_guid;
  }
  std::string FailureReason(device::Guid guid) const override {
    constexpr device::Guid ALL = 0;  // all devices that a request named
    for (const device::Guid failed : {guid, ALL}) {
      const auto found = this->_error_des.find(failed);
      if (found != this->_error_des.end()) return found->second;
    }
    return "";
  }
  std::uint32_t FlashSize() const override {
    if constexpr (std::is_same_v<Remote, RemoteFlashInterface>) return this->_flash_size;
    return 0;
  }
  std::uint32_t SectorSize() const override {
    if constexpr (std::is_same_v<Remote, RemoteFlashInterface>) return this->_sector_size;
    return 0;
  }

 protected:
  BraidConn::Response Exchange(const std::string& request) override {
    ASSERT_ALWAYS(OnlyReads(request));
    return Remote::Exchange(request);
  }
  BraidConn::Response ExchangeText(const std::string&) override {
    ASSERT_ALWAYS(false && "an image would be sent");
  }
};

DeviceReader::DeviceReader(const device::Image& image, device::Guid guid)
    : _image(image), _guid(guid), _convertor(std::make_unique<MapConvertor>(image)) {
  if (IsFlash()) {
    _interface = std::make_unique<InterfaceTo<RemoteFlashInterface>>();
  } else {
    _interface = std::make_unique<InterfaceTo<RemoteI2cInterface>>();
  }
  _interface->Rom().SetAddressConvertor(_convertor.get());
}

DeviceReader::~DeviceReader() = default;

void DeviceReader::Open(const std::string& server) {
  _interface->Rom().SetAccessDevices({_guid});
  _interface->Rom().Open(server.c_str());
}

device::Guid DeviceReader::NodeGuid() const { return _interface->NodeGuid(_guid); }

std::uint32_t DeviceReader::SectorSize() const { return _interface->SectorSize(); }

std::optional<std::uint64_t> DeviceReader::KnownEnd() const {
  std::optional<std::uint64_t> end;
  if (IsFlash() && _interface->FlashSize() != 0) end = _interface->FlashSize();
  const auto mapped = _image.MappedSize();
  if (!mapped) return end;
  return std::min(end.value_or(*mapped), *mapped);
}

bool DeviceReader::Holds(std::uint32_t start, std::uint64_t size) const {
  return start + size <= KnownEnd().value_or(std::uint64_t{1} << 32);
}

device::Bytes DeviceReader::Read(std::uint32_t start, std::uint32_t size) {
  device::Bytes bytes;
  bytes.reserve(size);
  ReadPieces(start, size, [&](std::span<const std::uint8_t> piece) {
    bytes.insert(bytes.end(), piece.begin(), piece.end());
  });
  return bytes;
}

void DeviceReader::ReadPieces(std::uint32_t start, std::uint32_t size,
                              const std::function<void(std::span<const std::uint8_t>)>& take) {
  if (!Holds(start, size)) throw Unreadable{"the image reaches past the device's memory"};
  RemoteRomInterface& rom = _interface->Rom();
  for (std::uint32_t done = 0; done < size;) {
    const std::uint32_t at = start + done;
    const std::uint32_t piece = std::min({size - done, READ_SIZE, LeftInChip(at)});
    rom.Read(at, piece);
    const RomInterface::Result* result = rom.LastActionResult(_guid);
    if (result == nullptr || result->_data.size() < piece) {
      throw Unreadable{common::Text("read ", result == nullptr ? 0 : result->_data.size(),
                                    " bytes of ", piece, " at address ", std::hex, at)};
    }
    take(std::span(result->_data).first(piece));  // the answer may have more: it is in whole words
    done += piece;
  }
}

const device::Bytes& DeviceReader::Field(device::FieldType type) {
  const auto [known, is_new] = _fields.try_emplace(type);
  device::Bytes& bytes = known->second;
  if (!is_new) return bytes;
  try {
    DataVec value;
    _interface->Rom().GetField(_guid, InterfaceType(type), value);
    bytes.assign(value.begin(), value.end());
  } catch (const BraidError& error) {
    // These two are requested now; the others were in the device's record.
    if (type == device::FieldType::BSN || type == device::FieldType::VSD) throw;
    throw Unreadable{error.Des()};
  }
  const device::FieldRow& row = device::RowOf(type);
  if (bytes.size() != row.size) {
    throw Unreadable{common::Text("the device's ", row.keyword, " has ", bytes.size(),
                                  " bytes, the image needs ", row.size)};
  }
  return bytes;
}

std::string DeviceReader::FailureReason() const { return _interface->FailureReason(_guid); }

bool DeviceReader::IsListed() const { return _interface->IsListed(_guid); }

std::uint32_t DeviceReader::LeftInChip(std::uint32_t at) const {
  const std::uint64_t left = std::min<std::uint64_t>(_image.LeftInChip(at), READ_SIZE);
  return left == 0 ? READ_SIZE : static_cast<std::uint32_t>(left);
}

}  // namespace verify
