// Tests of trials/ServedFabric.cpp: the same burns on a fabric and on the machine built from it.

#include "trials/ServedFabric.h"

#include <gtest/gtest.h>

#include <random>

#include "common/ScratchFolder.h"
#include "device/ImageFile.h"
#include "sim/Filling.h"
#include "src/BurnAlgorithm.h"
#include "tests/support/fabric_support.h"
#include "tests/support/slot_images.h"

namespace {

using trials::MemoryFault;
using trials::Responder;
using trials::ServedFabric;

constexpr Guid TARGETS[] = {LEAF1, LEAF2, LEAF3};

/// The burner's memory interfaces on what answers, without a socket.
template <typename Remote>
class OnResponder : public Remote {
 public:
  OnResponder(Responder& responder, u_int32_t log2_chunk_align)
      : Remote(log2_chunk_align), _responder(responder) {}

 protected:
  BraidResult Connect() override { return BRAID_OK; }
  BraidConn::Response Exchange(const std::string& request) override {
    return BraidConn::Response(_responder.Answer(request).value_or(""));
  }
  BraidConn::Response ExchangeText(const std::string& text) override { return Exchange(text); }

 private:
  Responder& _responder;
};

class ServedFabricTest : public ConsoleTest {
 protected:
  /// Devices with noise in all their memory.
  static void Noise(sim::Fabric& fabric, unsigned seed) {
    std::mt19937 random(seed);
    for (auto& [guid, device] : fabric.Devices()) {
      for (auto& [address, chip] : device.chips) {
        device::Bytes bytes(chip.Size());
        for (auto& byte : bytes) byte = static_cast<u_int8_t>(random());
        chip.Load(0, bytes);
      }
    }
  }

  static void AddEeproms(sim::Fabric& fabric) {
    for (const Guid guid : TARGETS) fabric.Add(I2cDevice(guid, 2));
  }

  static void ExpectSameContents(const sim::Fabric& left, const sim::Fabric& right) {
    for (const auto& [guid, device] : left.Devices()) {
      for (const auto& [address, chip] : device.chips) {
        const auto other = right.Find(guid)->chips.at(address).Bytes();
        EXPECT_TRUE(std::ranges::equal(chip.Bytes(), other)) << std::hex << guid;
      }
    }
  }

  /// Burns the image into the devices.
  template <typename Rom, typename Algorithm, typename... Flags>
  static void Burn(Responder& responder, const std::string& file, const GuidSet& guids,
                   Flags... flags) {
    responder.Connected();
    OutputOf([&] {
      FwImage image;
      image.Open(file.c_str(), READ);
      Rom rom(responder, 7);
      rom.SetAddressConvertor(image.GetAddressConvertor());
      rom.SetAccessDevices(guids);
      rom.Open("IB:host:1");
      Algorithm(rom, flags...).Go(image);
    });
    responder.Disconnected();
    EXPECT_EQ(responder.Wrong(), "");
  }

  common::ScratchFolder _folder;
};

/// A write of four bytes into chip 0x50 of the device.
std::string WriteOf(Guid guid, u_int32_t data) {
  return hardware::WriteRequest("vsI2cWriteMulti", {guid}, 0x50, 0x100, device::WordBytes(data));
}

TEST_F(ServedFabricTest, MachineHoldsWhatTheFabricHolds) {
  sim::Fabric fabric;
  AddEeproms(fabric);
  fabric.Add(FlashDevice(0x9000, FLASH_SIZE, SECTOR));
  Noise(fabric, 20267);
  ServedFabric served(fabric);
  served.Connected();
  for (const Guid guid : TARGETS) {
    for (const u_int32_t chip : {0x50u, 0x51u}) {
      const std::string request =
          Text("vsI2cReadMulti 1 ", sim::HexGuid(guid), " 0x", std::hex, chip, " 8192 0x0 ");
      EXPECT_EQ(*served.Answer(request), fabric.Execute(request).text);
    }
  }
  const std::string request = Text("vsFlashReadMulti 1 ", sim::HexGuid(0x9000), " 0x0 8192 0x0 ");
  EXPECT_EQ(*served.Answer(request), fabric.Execute(request).text);
  served.Disconnected();
  EXPECT_EQ(served.Wrong(), "");
}

TEST_F(ServedFabricTest, EepromsAreBurntAsThoseOfTheFabric) {
  const std::string file =
      _folder.Write("new.img",
                    "DEVICE_TYPE RV61300\nDEVMAP 2000 50\nDEVMAP 2000 51\nIMAGE 0 0 50\n"
                    "IMAGE 1 0 51\nREPLACE GUID 20 50\nREPLACE GUID 20 51\n" +
                        Section("A", 0, EepromData(0x22), "50"));
  const device::Image old = device::ParseImage(
      "DEVICE_TYPE RV61300\nDEVMAP 2000 50\nDEVMAP 2000 51\nIMAGE 0 0 50\nIMAGE 1 0 51\n" +
          Section("A", 0, EepromData(0x11), "50"),
      "old");
  for (unsigned seed = 0; seed < 20; ++seed) {
    sim::Fabric fabrics[2];
    for (sim::Fabric& fabric : fabrics) {
      AddEeproms(fabric);
      Noise(fabric, seed);
      for (const Guid guid : TARGETS) sim::Fill(fabric, guid, old, {.slot = seed % 2});
    }
    trials::FabricResponder simulated(fabrics[0]);
    ServedFabric served(fabrics[1]);
    for (Responder* const responder :
         {static_cast<Responder*>(&simulated), static_cast<Responder*>(&served)}) {
      Burn<OnResponder<RemoteI2cInterface>, RV61300FailsafeBurn>(
          *responder, file, {std::begin(TARGETS), std::end(TARGETS)}, false);
    }
    ExpectSameContents(fabrics[0], fabrics[1]);
    sim::Fabric before;
    AddEeproms(before);
    Noise(before, seed);
    EXPECT_FALSE(std::ranges::equal(before.Find(LEAF1)->chips.at(0x50).Bytes(),
                                    fabrics[1].Find(LEAF1)->chips.at(0x50).Bytes()));
  }
}

TEST_F(ServedFabricTest, FlashIsBurntAsThatOfTheFabric) {
  const FlashImage now{.content = 0x22, .size = 0x420};
  const std::string file = _folder.Write("new.img", now.Text());
  const device::Image old = device::ParseImage(FlashImage{}.Text(), "old");
  for (const u_int32_t slot : {0u, 1u}) {
    sim::Fabric fabrics[2];
    for (sim::Fabric& fabric : fabrics) {
      fabric.Add(FlashDevice(LEAF1, FLASH_SIZE, SECTOR));
      Noise(fabric, 20267);
      sim::Fill(fabric, LEAF1, old, {.slot = slot});
    }
    trials::FabricResponder simulated(fabrics[0]);
    ServedFabric served(fabrics[1]);
    for (Responder* const responder :
         {static_cast<Responder*>(&simulated), static_cast<Responder*>(&served)}) {
      Burn<OnResponder<RemoteFlashInterface>, RV52100FailsafeBurn>(*responder, file, {LEAF1}, true,
                                                                   false);
    }
    ExpectSameContents(fabrics[0], fabrics[1]);
    // The slot that the device does not boot is burnt.
    const u_int32_t burnt = slot == 0 ? IMAGE1 : IMAGE0;
    EXPECT_EQ(MemoryOf(fabrics[1], LEAF1, 0, burnt, 8), DataVec(8, 0x22));
  }
}

TEST_F(ServedFabricTest, EachChangeIsToldToTheObserverOfTheFabric) {
  sim::Fabric fabric;
  AddEeproms(fabric);
  ServedFabric served(fabric);
  std::vector<u_int32_t> sizes;
  device::Bytes told;
  u_int32_t next = 0x1F0;
  fabric.observer = [&](const sim::Operation& operation) {
    EXPECT_EQ(operation.kind, sim::Operation::PROGRAM);
    EXPECT_EQ(operation.device, LEAF2);
    EXPECT_EQ(operation.chip, 0x51);
    EXPECT_EQ(operation.offset, next);
    next += operation.size;
    told.insert(told.end(), operation.bytes.begin(), operation.bytes.end());
    sizes.push_back(operation.size);
  };
  device::Bytes bytes(60);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<u_int8_t>(i);
  served.Connected();
  EXPECT_EQ(*served.Answer(hardware::WriteRequest("vsI2cWriteMulti", {LEAF2}, 0x51, 0x1F0, bytes)),
            "ACK");
  served.Disconnected();
  EXPECT_EQ(told, bytes);
  EXPECT_EQ(sizes, (std::vector<u_int32_t>{16, 32, 12}));
}

TEST_F(ServedFabricTest, FaultIsToldByNameAndIsOverWithTheRun) {
  for (const trials::MemoryFaultRow& row : trials::AllMemoryFaults()) {
    if (!row.is_of_eeprom || row.is_of_flash) continue;
    sim::Fabric fabric;
    AddEeproms(fabric);
    ServedFabric served(fabric);
    served.Connected();
    const std::string request = WriteOf(LEAF2, 0x01020304);
    served.Inject(row.fault, LEAF2, request, 1, 3);
    const bool must_fail = row.fault != MemoryFault::ARBITRATION_LOST;
    const std::string answer = *served.Answer(request);
    EXPECT_EQ(answer.find("ERROR:" + sim::HexGuid(LEAF2) + ":") != std::string::npos, must_fail)
        << row.name << ": " << answer;
    served.Disconnected();
    EXPECT_EQ(served.Wrong(), "") << row.name;
    served.Connected();
    EXPECT_EQ(*served.Answer(request), "ACK") << row.name;
    served.Disconnected();
    EXPECT_EQ(MemoryOf(fabric, LEAF2, 0x50, 0x100, 4), Hex("01020304")) << row.name;
  }
}

TEST_F(ServedFabricTest, RunAfterAPowerCutFindsWhatTheCutHasLeft) {
  sim::Fabric fabric;
  AddEeproms(fabric);
  ServedFabric served(fabric);
  served.Connected();
  const std::string request = WriteOf(LEAF1, 0x01020304);
  served.Inject(MemoryFault::POWER_LOST, LEAF1, request, 1, 7);
  EXPECT_EQ(served.Answer(request), std::nullopt);
  EXPECT_FALSE(served.HasPower());
  served.Disconnected();
  EXPECT_TRUE(served.HasPower());
  const std::string read = Text("vsI2cReadMulti 1 ", sim::HexGuid(LEAF1), " 0x50 4 0x100 ");
  served.Connected();
  EXPECT_EQ(*served.Answer(read), fabric.Execute(read).text);
  EXPECT_EQ(*served.Answer(request), "ACK");
  served.Disconnected();
  EXPECT_EQ(MemoryOf(fabric, LEAF1, 0x50, 0x100, 4), Hex("01020304"));
}

TEST_F(ServedFabricTest, FabricThatTheServerCannotBeIsRefused) {
  const auto why = [](const std::string& version, const std::string& most, int chips) {
    sim::Fabric fabric;
    fabric.facts.ifc_version = version;
    fabric.facts.multi_max = most;
    fabric.Add(I2cDevice(LEAF1, chips));
    return ServedFabric::WhyNotServed(fabric);
  };
  EXPECT_EQ(why("2.2", "64", 1), "");
  EXPECT_EQ(why("2.3", "64", 1), "the version is always 2.2");
  EXPECT_EQ(why("2.2", "many", 1), "the number of devices at once is always a number");
  EXPECT_EQ(why("2.2", "64", 0), "a device has no chip");
}

}  // namespace
