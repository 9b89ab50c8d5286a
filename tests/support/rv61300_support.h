/// RV61300 devices in every state, an image for them, and what its failsafe burn asks and shows.
#pragma once

#include <regex>

#include "src/BurnAlgorithm.h"
#include "src/utils.h"
#include "tests/support/fabric_support.h"

namespace rv61300 {

using Burn = RV61300FailsafeBurn;
using Strings = std::vector<std::string>;

constexpr u_int32_t FIRST = 0x100;
constexpr u_int32_t SECOND = 0x200;

// Boot records as devices have them before a burn. The bytes of a valid one add up to AB.
constexpr char VALID[] = "40000000 00000000 00000000 0000006b";
constexpr char INVALID[] = "4000000a 00000000 00000000 0000006b";  // B5

/// 16 bytes of boot record, a gap of 16 bytes, and 8 bytes of code: 24 bytes in all.
constexpr char IMAGE[] =
    "DEVICE_TYPE RV61300\n"
    "IMAGE 0 100 0\n"
    "IMAGE 1 200 0\n"
    "START BOOT 100 0\n"
    "1 2 3 4 5 6 7 8 9 A B C D E F 33\n"  // 1 to F add up to 78
    "END BOOT\n"
    "START CODE 120 0\n"
    "CA FE BA BE 22 22 22 22\n"
    "END CODE\n";

// What the console shows of the burn of one slot with that image, when no percentage is padded.
constexpr char FIRST_METERS[] =
    "\r\\ Burning    first  image with invalidated signature - %66"
    "\r- Burning    first  image with invalidated signature -  OK \n"
    "\r- Validating first  image                            -  OK \n";
constexpr char SECOND_METERS[] =
    "\r\\ Burning    second image with invalidated signature - %66"
    "\r- Burning    second image with invalidated signature -  OK \n"
    "\r- Validating second image                            -  OK \n";

/// A slot from before the burn, gap included.
inline DataVec OldSlot(const std::string& record) {
  return Joined({Hex(record), DataVec(16, 0xEE), DataVec(8, 0x55)});
}

/// The slot that the image leaves on a device; an EEPROM keeps what lies between its sections.
inline DataVec NewSlot() {
  return Joined(
      {Hex("0102030405060708 090a0b0c0d0e0f33"), DataVec(16, 0xEE), Hex("cafebabe 22222222")});
}

/// A whole chip that holds these slots.
inline DataVec ChipOf(const DataVec& first, const DataVec& second) {
  DataVec bytes(0x2000, 0xFF);
  std::copy(first.begin(), first.end(), bytes.begin() + FIRST);
  std::copy(second.begin(), second.end(), bytes.begin() + SECOND);
  return bytes;
}

/// A request to devices, such as "vsI2cReadMulti 1 0x0000000000001000 0x0 16 0x100 ", from its end.
inline std::string Request(const std::string& command, const GuidSet& guids,
                           const std::string& end) {
  std::string text = Text("vsI2c", command, "Multi ", guids.size(), " ");
  for (const Guid guid : guids) {
    text += Text("0x", std::hex, std::setw(16), std::setfill('0'), guid, " ");
  }
  return text + "0x0 " + end + " ";
}

inline Strings Queries(const GuidSet& guids) {
  return {Request("Read", guids, "16 0x100"), Request("Read", guids, "16 0x200")};
}

inline Strings FirstSlotWrites(const GuidSet& guids) {
  return {Request("Write", guids, "16 0x100 0x102030e 0x5060708 0x90a0b0c 0xd0e0f33"),
          Request("Write", guids, "8 0x120 0xcafebabe 0x22222222"),
          Request("Write", guids, "4 0x100 0x1020304")};
}

inline Strings SecondSlotWrites(const GuidSet& guids) {
  return {Request("Write", guids, "16 0x200 0x102030e 0x5060708 0x90a0b0c 0xd0e0f33"),
          Request("Write", guids, "8 0x220 0xcafebabe 0x22222222"),
          Request("Write", guids, "4 0x200 0x1020304")};
}

inline Strings operator+(Strings all, const Strings& more) {
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

class Rv61300Test : public FabricTest {
 protected:
  Rv61300Test() {
    Serve();
    Load(IMAGE);
  }

  /// A new fabric without devices. Only an I2C server has its writes read back.
  void Serve(const std::string& type = "PPC", u_int32_t log2_chunk_align = 13) {
    _fabric = sim::Fabric();
    _fabric.facts.type = type;
    _rom = std::make_unique<RecordedI2c>(_fabric, log2_chunk_align);
  }

  void Load(const std::string& text) {
    _image = std::make_unique<FwImage>();
    _image->Open(_folder.Write("fw.img", text).c_str(), READ);
  }

  void AddDevice(Guid guid, const std::string& first, const std::string& second) {
    _fabric.Add(Adapter(guid)).chips.at(0).Load(0, ChipOf(OldSlot(first), OldSlot(second)));
  }

  void OpenAll() {
    GuidSet guids;
    for (const auto& [guid, device] : _fabric.Devices()) guids.insert(guid);
    OpenQuietly(*_rom, guids);
  }

  /// What the burn prints, with the numbers of the interface's debug lines, which are free to
  /// move, shown as N. It must return BRAID_OK.
  std::string Go(bool check_only = false) {
    return Shown(OutputOf([&] { EXPECT_EQ(Burn(*_rom, check_only).Go(*_image), BRAID_OK); }));
  }

  /// The error that ends the burn; what it prints goes to `console`.
  std::string GoError(std::string& console, bool check_only = false) {
    std::string error;
    console =
        Shown(OutputOf([&] { error = ErrorOf([&] { Burn(*_rom, check_only).Go(*_image); }); }));
    return error;
  }
  std::string GoError() {
    std::string ignored;
    return GoError(ignored);
  }

  static std::string Shown(const std::string& console) {
    static const std::regex FREE_LINE("-D- RomInterface:[0-9]+: ");
    return std::regex_replace(console, FREE_LINE, "-D- RomInterface:N: ");
  }

  DataVec Memory(Guid guid) const { return MemoryOf(_fabric, guid, 0, 0, 0x2000); }

  /// The requests that write, of those so far.
  Strings Writes() {
    Strings writes = _rom->Requests();
    std::erase_if(writes, [](const std::string& request) {
      return request.find("Write") == std::string::npos;
    });
    return writes;
  }

  common::ScratchFolder _folder;
  std::unique_ptr<RecordedI2c> _rom;
  std::unique_ptr<FwImage> _image;
};

}  // namespace rv61300
