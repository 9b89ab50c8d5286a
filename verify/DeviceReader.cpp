#include "verify/DeviceReader.h"

#include <algorithm>
#include <type_traits>

#include "common/Text.h"
#include "src/RomInterface.h"

namespace verify {

namespace {

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
  virtual std::uint32_t MostAtOnce() const = 0;
  /// Why one device failed; "" where it has not.
  virtual std::string FailureReason(device::Guid guid) const = 0;
  /// Why the last request failed for all of its devices, and forgets it; nothing where none did.
  virtual std::optional<std::string> TakeCommonFailure() = 0;
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
  std::uint32_t MostAtOnce() const override { return std::max(1u, this->_multi_max); }
  std::string FailureReason(device::Guid guid) const override {
    const auto found = this->_error_des.find(guid);
    return found == this->_error_des.end() ? "" : Reason(found->second);
  }
  std::optional<std::string> TakeCommonFailure() override {
    constexpr device::Guid ALL = 0;
    const auto found = this->_error_des.find(ALL);
    if (found == this->_error_des.end()) return {};
    std::string reason = Reason(found->second);
    this->_error_des.erase(found);
    return reason;
  }
  std::uint32_t FlashSize() const override {
    if constexpr (std::is_same_v<Remote, RemoteFlashInterface>) return this->_flash_size;
    return 0;
  }
  std::uint32_t SectorSize() const override {
    if constexpr (std::is_same_v<Remote, RemoteFlashInterface>) return this->_sector_size;
    return 0;
  }

 private:
  /// Never "", which would mean that nothing has failed.
  static std::string Reason(const std::string& text) {
    return text.empty() ? "the server gave no reason" : text;
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

std::uint32_t DeviceReader::PieceSize(std::size_t devices) {
  constexpr std::size_t LEAST = 16;  // however many devices a server takes at once
  const std::size_t size = MOST_FROM_ALL / std::max<std::size_t>(1, devices);
  return static_cast<std::uint32_t>(
      std::clamp<std::size_t>(size / device::WORD_SIZE * device::WORD_SIZE, LEAST, MOST_FROM_ONE));
}

DeviceReader::DeviceReader(const device::Image& image, const std::set<device::Guid>& guids)
    : _image(image), _guids(guids), _convertor(std::make_unique<MapConvertor>(image)) {
  if (IsFlash()) {
    _interface = std::make_unique<InterfaceTo<RemoteFlashInterface>>();
  } else {
    _interface = std::make_unique<InterfaceTo<RemoteI2cInterface>>();
  }
  _interface->Rom().SetAddressConvertor(_convertor.get());
}

DeviceReader::~DeviceReader() = default;

void DeviceReader::Open(const std::string& server) {
  try {
    _interface->Rom().SetAccessDevices(_guids);
    _interface->Rom().Open(server.c_str());
  } catch (const BraidError& error) {
    if (const auto reason = _interface->TakeCommonFailure()) {
      for (const device::Guid guid : _guids) Drop(guid, *reason);
    }
    const auto is_dropped = [this](device::Guid guid) { return IsDropped(guid); };
    if (!std::ranges::all_of(_guids, is_dropped)) throw ServerFailure{error.Des()};
  }
}

std::uint32_t DeviceReader::MostAtOnce() const { return _interface->MostAtOnce(); }

std::uint32_t DeviceReader::SectorSize() const { return _interface->SectorSize(); }

std::optional<std::uint64_t> DeviceReader::KnownEnd() const {
  std::optional<std::uint64_t> end;
  if (IsFlash() && _interface->FlashSize() != 0) end = _interface->FlashSize();
  const auto mapped = _image.MappedSize();
  if (!mapped) return end;
  return std::min(end.value_or(*mapped), *mapped);
}

bool DeviceReader::Holds(std::uint32_t start, std::uint64_t size) const {
  return start + size <= KnownEnd().value_or(device::ADDRESS_SPACE);
}

bool DeviceReader::IsListed(device::Guid guid) const { return _interface->IsListed(guid); }

std::string DeviceReader::FailureReason(device::Guid guid) const {
  const auto found = _dropped.find(guid);
  return found == _dropped.end() ? _interface->FailureReason(guid) : found->second;
}

void DeviceReader::Drop(device::Guid guid, const std::string& reason) {
  if (!IsDropped(guid)) _dropped[guid] = reason;
}

device::Guid DeviceReader::NodeGuid(device::Guid guid) const { return _interface->NodeGuid(guid); }

void DeviceReader::Read(const std::vector<device::Guid>& guids, std::uint32_t start,
                        std::uint32_t size, const Take& take) {
  if (!Holds(start, size)) {
    for (const device::Guid guid : guids) Drop(guid, "the image reaches past the device's memory");
    return;
  }
  const std::uint32_t most = PieceSize(guids.size());
  for (std::uint32_t done = 0; done < size;) {
    const std::uint32_t at = start + done;
    const std::uint64_t in_chip = _image.LeftInChip(at);  // 0: without a device map
    const auto piece = static_cast<std::uint32_t>(
        std::min<std::uint64_t>({size - done, most, in_chip == 0 ? most : in_chip}));
    ReadPiece(guids, at, piece, take);
    done += piece;
  }
}

void DeviceReader::ReadPiece(const std::vector<device::Guid>& guids, std::uint32_t at,
                             std::uint32_t size, const Take& take) {
  RemoteRomInterface& rom = _interface->Rom();
  GuidSet asked;
  for (const device::Guid guid : guids) {
    if (!IsDropped(guid)) asked.insert(guid);
  }
  if (asked.empty()) return;
  try {
    // Unchanged devices are not formatted again.
    if (rom.GetActiveDevices() != asked) rom.SetActiveDevices(asked);
    rom.Read(at, size);
  } catch (const BraidError& error) {
    if (const auto reason = _interface->TakeCommonFailure()) {
      if (asked.size() == 1) {
        Drop(*asked.begin(), *reason);
        return;
      }
      // The server does not tell which of them is at fault: ask each alone.
      for (const device::Guid guid : asked) ReadPiece({guid}, at, size, take);
      return;
    }
    const auto is_dropped = [this](device::Guid guid) { return IsDropped(guid); };
    if (!std::ranges::all_of(asked, is_dropped)) throw ServerFailure{error.Des()};
  }
  for (const device::Guid guid : asked) {
    if (IsDropped(guid)) continue;
    const RomInterface::Result* result = rom.LastActionResult(guid);
    const std::size_t got = result == nullptr ? 0 : result->_data.size();
    if (got < size) {
      Drop(guid, common::Text("read ", got, " bytes of ", size, " at address ", std::hex, at));
      continue;
    }
    // The answer may have more: it is in whole words.
    take(guid, at, std::span(result->_data).first(size));
  }
}

device::Bytes DeviceReader::Field(device::Guid guid, device::FieldType type) {
  DataVec value;
  const auto fail = [&](const std::string& reason) {
    Drop(guid, reason);
    throw Unreadable{FailureReason(guid)};
  };
  try {
    _interface->Rom().GetField(guid, InterfaceType(type), value);
  } catch (const BraidError& error) {
    if (const auto reason = _interface->TakeCommonFailure()) fail(*reason);
    if (IsDropped(guid)) fail("");
    // These two are requested now; the others were in the device's record.
    if (type == device::FieldType::BSN || type == device::FieldType::VSD) {
      throw ServerFailure{error.Des()};
    }
    fail(error.Des());
  }
  if (IsDropped(guid)) fail("");
  const device::FieldRow& row = device::RowOf(type);
  if (value.size() != row.size) {
    fail(common::Text("the device's ", row.keyword, " has ", value.size(),
                      " bytes, the image needs ", row.size));
  }
  return {value.begin(), value.end()};
}

}  // namespace verify
