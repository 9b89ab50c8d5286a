/// A board as its kernel tells of it.
#pragma once

#include "tests/support/FakeSysfs.h"

/// Two I2C buses, a mux of 8 channels on the first, and two flashes.
class FakeBoard : public FakeSysfs {
 public:
  static constexpr const char* BUS = "/sys/devices/platform/ahb/1e78a000.bus/1e78a300.i2c-bus";
  static constexpr const char* OTHER_BUS =
      "/sys/devices/platform/ahb/1e78a000.bus/1e78a380.i2c-bus";
  static constexpr const char* SPI0 =
      "/sys/devices/platform/ahb/1e620000.spi/spi_master/spi0/spi0.0";
  static constexpr const char* SPI1 =
      "/sys/devices/platform/ahb/1e630000.spi/spi_master/spi1/spi1.0";

  FakeBoard() {
    AddAdapter(5, "1e78a300.i2c-bus", BUS);
    AddAdapter(6, "1e78a380.i2c-bus", OTHER_BUS);
    AddMux(5, 0x70, 16, 8);
    AddMtd(0, "bmc", SPI0, 0x4000000, "c2253a");
    AddMtd(1, "pnor", SPI1, 0x200000000, "ef4020");
  }
};
