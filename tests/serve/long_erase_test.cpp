// An erase of 40 seconds, on a clock on the wall: longer than the burner waits for a silent server.
// script/nightly runs it.

#include <gtest/gtest.h>

#include <thread>

#include "common/Files.h"
#include "common/ScratchFolder.h"
#include "protocol/Server.h"
#include "serve/Gateway.h"
#include "serve/LinuxSystem.h"
#include "serve/ThreadLoop.h"
#include "tests/support/Harness.h"

namespace serve {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t SECTOR = 0x10000;
constexpr auto ERASE_TIME = 40s;

/// Writes of a whole sector, which are its erases, take their time.
class SlowSystem : public LinuxSystem {
 public:
  std::int64_t Write(int descriptor, std::uint64_t offset,
                     std::span<const std::uint8_t> bytes) override {
    if (bytes.size() == SECTOR) std::this_thread::sleep_for(ERASE_TIME);
    return LinuxSystem::Write(descriptor, offset, bytes);
  }
};

TEST(LongEraseTest, TheBurnerWaitsForIt) {
  const common::ScratchFolder folder;
  Configuration configuration;
  configuration.state = folder.Path();
  DeviceConfig& device = configuration.devices.emplace_back();
  device.facts.node_guid = device.facts.sys_guid = 0x10;
  device.facts.port_guids = {0x11};
  device.facts.declared_ports = 1;
  device.flash.emplace();
  device.flash->size = device.flash->sector_size = SECTOR;
  device.flash->file = FileConfig{folder.Write("flash.bin", std::string(SECTOR, '\0')), true};
  const std::string image =
      folder.Write("image.img", "DEVICE_TYPE RV52100\nSTART A 0 0\n12 34 56 78\nEND A\n");

  SlowSystem system;
  protocol::EventLoop events;
  Outcome outcome;
  const auto begin = std::chrono::steady_clock::now();
  {
    ThreadLoop threads(events, system);
    Gateway gateway(system, threads, configuration, {}, {});
    protocol::Server server(events, gateway, protocol::ServerOptions{});
    std::thread burner([&] {
      outcome =
          RunProgram({FwpushProgram(), "-n", "-f", image, "-s", server.ServerString(), "-g", "10"});
      server.Finish();
    });
    server.Run();
    burner.join();
  }
  EXPECT_GE(std::chrono::steady_clock::now() - begin, ERASE_TIME);
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_NE(outcome.output.find("-I- BURN SUCCEEDED"), std::string::npos) << outcome.output;
  const common::Bytes bytes = common::ReadFile(folder / "flash.bin");
  EXPECT_EQ(common::Bytes(bytes.begin(), bytes.begin() + 5),
            (common::Bytes{0x12, 0x34, 0x56, 0x78, 0xFF}));
}

}  // namespace
}  // namespace serve
