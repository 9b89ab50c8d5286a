/// Small images of two slots, for tests of failsafe burns, and the devices that they fit.
#pragma once

#include <string>

#include "src/utils.h"
#include "tests/support/support.h"

// Where the small flash keeps what.
constexpr u_int32_t SECTOR = 0x400;
constexpr u_int32_t PS0 = 0x400;
constexpr u_int32_t PS1 = 0x800;
constexpr u_int32_t IMAGE0 = 0xC00;
constexpr u_int32_t IMAGE1 = 0x1400;
constexpr u_int32_t FLASH_SIZE = 0x2000;

inline std::string Section(const std::string& name, u_int32_t addr, const DataVec& data,
                           const std::string& dev = "0") {
  std::string text = Text("START ", name, " ", std::hex, addr, " ", dev);
  for (std::size_t i = 0; i < data.size(); ++i) {
    text += Text(i % 16 == 0 ? "\n" : " ", std::hex, u_int32_t{data[i]});
  }
  return text + "\nEND " + name + "\n";
}

/// A pointer sector record, its CRC in place.
inline DataVec PointerSector(u_int32_t image_addr, u_int32_t image_size, bool is_valid) {
  DataVec record;
  record << image_addr << image_size << u_int32_t{is_valid ? 0xCB84CB84 : 0xFFFFFFFF};
  record.resize(260, 0x5A);
  return record << ReferenceCrc(record);
}

struct FlashImage {
  u_int8_t content = 0x11;  ///< of the firmware
  u_int32_t size = 0x20;    ///< of the firmware
  u_int32_t image1 = IMAGE1;
  u_int8_t invariant = 0x77;
  u_int32_t image0 = IMAGE0;
  u_int32_t missing = 0;  ///< bytes of the firmware that the records do not count

  std::string Text() const {
    DataVec invariant_sector(0x40, invariant);
    const DataVec marker = Hex("cb84cb84");
    std::copy(marker.begin(), marker.end(), invariant_sector.begin() + 0x24);
    return ::Text("DEVICE_TYPE RV52100\n", std::hex, "PS 0 ", PS0, " 0\nPS 1 ", PS1,
                  " 0\nSIGNATURE 0 ", PS0 + 8, " 0\nSIGNATURE 1 ", PS1 + 8, " 0\nIMAGE 0 ", image0,
                  " 0\nIMAGE 1 ", image1, " 0\nREPLACE CRC ", PS0, " 0 ", PS0 + 256, " 0 ",
                  PS0 + 260, " 0\nREPLACE CRC ", PS1, " 0 ", PS1 + 256, " 0 ", PS1 + 260, " 0\n",
                  Section("INVARIANT", 0, invariant_sector),
                  Section("PS0", PS0, PointerSector(image0, size - missing, true)),
                  Section("PS1", PS1, PointerSector(image1, size - missing, false)),
                  Section("FIRMWARE", image0, DataVec(size, content)));
  }
};

/// The section of an EEPROM image: it begins with a boot record.
inline DataVec EepromData(u_int8_t content) {
  DataVec data(0x40, content);
  std::fill(data.begin() + 4, data.begin() + 16, u_int8_t{0});
  // Four bytes of the content and one that makes the sum 0xAB.
  data[15] = static_cast<u_int8_t>(0xAB - 4 * content);
  return data;
}

/// An EEPROM of two slots, each of one section.
inline std::string EepromText(const DataVec& data) {
  return Text("DEVICE_TYPE RV61300\nIMAGE 0 0 0\nIMAGE 1 80 0\n", Section("A", 0, data));
}

inline std::string EepromImage(u_int8_t content) { return EepromText(EepromData(content)); }
