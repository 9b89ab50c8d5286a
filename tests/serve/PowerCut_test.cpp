// Whole burns of real memories' models, with the power cut after and inside each change of a
// memory.

#include <gtest/gtest.h>

#include "common/ScratchFolder.h"
#include "device/Boot.h"
#include "device/ImageFile.h"
#include "device/Whole.h"
#include "hardware/ServedMachine.h"
#include "sim/Filling.h"
#include "src/BurnAlgorithm.h"
#include "tests/support/fabric_support.h"
#include "tests/support/slot_images.h"

namespace {

using hardware::ServedMachine;

/// The burner's memory interfaces on the server, without a socket.
template <typename Remote>
class OnMachine : public Remote {
 public:
  OnMachine(ServedMachine& machine, u_int32_t log2_chunk_align)
      : Remote(log2_chunk_align), _machine(machine) {}

 protected:
  BraidResult Connect() override { return BRAID_OK; }
  BraidConn::Response Exchange(const std::string& request) override {
    return BraidConn::Response(_machine.Ask(request));
  }
  BraidConn::Response ExchangeText(const std::string& text) override { return Exchange(text); }

 private:
  ServedMachine& _machine;
};

/// One device on a machine, and the verdict on it. A slot is whole if it has the old image or the
/// new one.
class Target {
 public:
  /// Fills `fabric`'s only device with `old` and takes its contents.
  Target(const std::string& old, const std::string& now, sim::Fabric& fabric, u_int32_t slot)
      : _now(device::ParseImage(now, "new")) {
    const device::Image before = device::ParseImage(old, "old");
    const sim::Device& device = fabric.Devices().begin()->second;
    sim::Fill(fabric, device.node_guid, before, {.slot = slot});
    start = sim::MemoryOf(device, _now);
    _judge.emplace(device::LayoutOf(_now, start.sector_size).value(), start.bytes);
    _judge->AddPresentInvariantSector();
    const device::Identity identity = sim::IdentityOf(device);
    _judge->AddKnownImage(before, identity, start, device::Whole::OLD);
    _judge->AddKnownImage(_now, identity, start, device::Whole::NEW, device::Origin::FAILSAFE_BURN);
  }

  device::Verdict VerdictOn(device::View memory) {
    _judge->SetAll(memory);
    return _judge->CurrentVerdict();
  }

  device::Memory start;

 private:
  device::Image _now;
  std::optional<device::Judge> _judge;
};

class PowerCutTest : public ConsoleTest {
 protected:
  /// Whether the burn went through.
  template <typename Rom, typename Algorithm, typename... Flags>
  static bool Burn(ServedMachine& machine, const std::string& file, Flags... flags) {
    bool is_well = true;
    OutputOf([&] {
      try {
        FwImage image;
        image.Open(file.c_str(), READ);
        Rom rom(machine, 8);
        rom.SetAddressConvertor(image.GetAddressConvertor());
        rom.SetAccessDevices({LEAF1});
        rom.Open("IB:host:1");
        Algorithm(rom, flags...).Go(image);
      } catch (const BraidError&) {
        is_well = false;
      }
    });
    machine.Disconnect();
    return is_well;
  }

  common::ScratchFolder _folder;
};

std::string TwoSlots(u_int8_t content) {
  return "DEVICE_TYPE RV61300\nDEVMAP 2000 50\nIMAGE 0 0 50\nIMAGE 1 80 50\n" +
         Section("A", 0, EepromData(content), "50");
}

TEST_F(PowerCutTest, EepromsBootAfterAnyCut) {
  const std::string now = TwoSlots(0x22);
  const std::string file = _folder.Write("new.img", now);
  for (const u_int32_t slot : {0u, 1u}) {
    sim::Fabric fabric;
    fabric.Add(I2cDevice(LEAF1));
    Target target(TwoSlots(0x11), now, fabric, slot);
    const auto build = [&](ServedMachine& machine) -> hardware::VirtualEeprom& {
      auto& chip = machine.AddEeprom(LEAF1, machine.AddBus(), {.size = 0x2000, .page = 16});
      chip.Load(0, target.start.bytes);
      machine.Serve();
      return chip;
    };
    using Rom = OnMachine<RemoteI2cInterface>;
    ServedMachine whole;
    auto& burnt = build(whole);
    ASSERT_TRUE((Burn<Rom, RV61300FailsafeBurn>(whole, file, false)));
    EXPECT_TRUE(target.VerdictOn(burnt.Content()).IsBurnt(device::SlotKind::BOOT_RECORDS));
    const auto changes = whole.system.GetPower().Changes();
    ASSERT_GE(changes, 10u);
    for (u_int32_t n = 1; n <= changes; ++n) {
      for (const bool is_inside : {false, true}) {
        ServedMachine machine;
        auto& chip = build(machine);
        auto& power = machine.system.GetPower();
        is_inside ? power.CutInside(n, n) : power.CutAfter(n);
        Burn<Rom, RV61300FailsafeBurn>(machine, file, false);
        ASSERT_FALSE(power.IsOn());
        EXPECT_TRUE(target.VerdictOn(chip.Content()).BootsWhole())
            << "cut " << (is_inside ? "inside " : "after ") << n << " of " << changes;
        machine.system.PowerUp();
        machine.Serve();
        EXPECT_TRUE((Burn<Rom, RV61300FailsafeBurn>(machine, file, false)));
        EXPECT_TRUE(target.VerdictOn(chip.Content()).IsBurnt(device::SlotKind::BOOT_RECORDS));
      }
    }
  }
}

}  // namespace
