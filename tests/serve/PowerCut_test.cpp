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
  return "DEVICE_TYPE RV61300\nDEVMAP 2000 50\nIMAGE 0 0 50\nIMAGE 1 400 50\n" +
         Section("A", 0, EepromData(content), "50") +
         Section("B", 0x48, DataVec(0x1A4, content), "50");
}

constexpr u_int32_t TEARS = 4;  ///< of each change

/// Burns, with the power cut after and inside each change of the memory, and burns again.
/// `build` puts the device on a machine and returns its chip.
template <typename Burner, typename Build>
void TryAllCuts(Target& target, device::SlotKind kind, const Burner& burn, const Build& build) {
  ServedMachine whole;
  const auto& burnt = build(whole);
  ASSERT_TRUE(burn(whole));
  EXPECT_TRUE(target.VerdictOn(burnt.Content()).IsBurnt(kind));
  const auto changes = whole.system.GetPower().Changes();
  ASSERT_GE(changes, 10u);
  u_int32_t booting = 0;
  for (u_int32_t n = 1; n <= changes; ++n) {
    // After it, and torn in several ways.
    for (u_int32_t tear = 0; tear <= TEARS; ++tear) {
      ServedMachine machine;
      const auto& chip = build(machine);
      hardware::Power& power = machine.system.GetPower();
      if (tear > 0) {
        power.CutInside(n, n * TEARS + tear);
      } else {
        power.CutAfter(n);
      }
      burn(machine);
      ASSERT_FALSE(power.IsOn());
      const bool boots = target.VerdictOn(chip.Content()).BootsWhole();
      booting += boots ? 1 : 0;
      EXPECT_TRUE(boots) << "cut " << (tear > 0 ? "inside " : "after ") << n << " of " << changes
                         << ": " << Describe(target.VerdictOn(chip.Content()));
      machine.system.PowerUp();
      machine.Serve();
      EXPECT_TRUE(burn(machine));
      EXPECT_TRUE(target.VerdictOn(chip.Content()).IsBurnt(kind)) << n;
    }
  }
  std::cout << "power cuts: " << (1 + TEARS) * changes << "; the device boots after: " << booting
            << "\n";
}

TEST_F(PowerCutTest, EepromsBootAfterAnyCut) {
  const std::string now = TwoSlots(0x22);
  const std::string file = _folder.Write("new.img", now);
  for (const u_int32_t slot : {0u, 1u}) {
    sim::Fabric fabric;
    fabric.Add(I2cDevice(LEAF1));
    Target target(TwoSlots(0x11), now, fabric, slot);
    TryAllCuts(
        target, device::SlotKind::BOOT_RECORDS,
        [&](ServedMachine& machine) {
          return Burn<OnMachine<RemoteI2cInterface>, RV61300FailsafeBurn>(machine, file, false);
        },
        [&](ServedMachine& machine) -> hardware::VirtualEeprom& {
          auto& chip = machine.AddEeprom(LEAF1, machine.AddBus(), {.size = 0x2000, .page = 16});
          chip.Load(0, target.start.bytes);
          machine.Serve();
          return chip;
        });
  }
}

/// Into either slot, after a move, and over another invariant sector, but for the cuts in its
/// rewrite: nothing else keeps that.
TEST_F(PowerCutTest, FlashesBootAfterAnyCut) {
  struct Case {
    FlashImage old;
    FlashImage now;
    u_int32_t slot;
  };
  const Case cases[] = {
      {{}, {.content = 0x22, .size = 0x420}, 0},
      {{}, {.content = 0x22, .size = 0x420}, 1},
      // The second slot of the old image lies where the new one has bytes in the first slot.
      {{.image1 = 0x1000}, {.content = 0x22, .size = 0x620}, 1},
  };
  for (const Case& each : cases) {
    sim::Fabric fabric;
    fabric.Add(FlashDevice(LEAF1, FLASH_SIZE, SECTOR));
    const std::string now = each.now.Text();
    const std::string file = _folder.Write("new.img", now);
    Target target(each.old.Text(), now, fabric, each.slot);
    TryAllCuts(
        target, device::SlotKind::POINTER_SECTORS,
        [&](ServedMachine& machine) {
          return Burn<OnMachine<RemoteFlashInterface>, RV52100FailsafeBurn>(machine, file, true,
                                                                            false);
        },
        [&](ServedMachine& machine) -> hardware::VirtualFlash& {
          auto& flash = machine.AddFlash(
              LEAF1, {.size = FLASH_SIZE, .erase_size = SECTOR, .page = 64}, SECTOR);
          flash.Load(0, target.start.bytes);
          machine.Serve();
          return flash;
        });
  }
}

}  // namespace
