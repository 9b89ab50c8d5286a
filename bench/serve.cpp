/// What fwpush-serve makes of buses and flashes, in virtual time: each figure is exact, and the
/// same on every machine. Prints a table; fails where a figure misses its goal.

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "common/Text.h"
#include "hardware/ServedMachine.h"

namespace {

using common::Text;
using hardware::Call;
using hardware::I2cBus;
using hardware::ServedMachine;
using hardware::VirtualEeprom;
using hardware::WriteRequest;
using protocol::Guid;
using serve::Time;

constexpr Guid FIRST_GUID = 0xaa550000000010;
constexpr std::uint32_t PAGE = 64;
constexpr std::uint32_t REQUEST = 512;  // bytes: -m 9
constexpr std::uint32_t REQUESTS = 64;

bool g_is_well = true;

void Row(const std::string& what, const std::string& measured, const std::string& goal,
         bool is_met) {
  g_is_well = g_is_well && is_met;
  std::cout << std::left << std::setw(66) << what << std::setw(22) << measured << std::setw(12)
            << goal << (is_met ? "met" : "NOT MET") << "\n";
}

std::string Percent(double part) {
  return Text(std::fixed, std::setprecision(1), part * 100, " %");
}
std::string Times(double ratio) { return Text(std::fixed, std::setprecision(3), ratio); }

device::Bytes RandomBytes(std::size_t size) {
  static std::mt19937 random(1);
  device::Bytes bytes(size);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
  return bytes;
}

double Seconds(Time time) { return std::chrono::duration<double>(time).count(); }

/// `chips` EEPROMs on each of `buses` buses, all of which get the same bytes, request by request.
class EepromBurn {
 public:
  EepromBurn(std::size_t buses, std::size_t chips, bool reads_back) {
    for (std::size_t i = 0; i < buses; ++i) {
      I2cBus& bus = _machine.AddBus();
      _buses.push_back(&bus);
      for (std::size_t chip = 0; chip < chips; ++chip) {
        const Guid guid = FIRST_GUID + _guids.size();
        _guids.push_back(guid);
        _machine.AddEeprom(guid, bus,
                           {.address = static_cast<std::uint16_t>(0x50 + chip),
                            .size = REQUEST * REQUESTS,
                            .page = PAGE});
      }
    }
    _machine.Serve({.is_dry_run = false, .reads_back = reads_back});
    // A request before, so that the devices are open.
    Write(0);
    for (I2cBus* bus : _buses) bus->ResetCounts();
    _machine.system.ResetCalls();
    const Time begin = _machine.loop.Now();
    for (std::uint32_t i = 0; i < REQUESTS; ++i) Write(i * REQUEST);
    elapsed = _machine.loop.Now() - begin;
    page_write_time = _buses.front()->PageWriteTime();
    naks = _buses.front()->Naks();
    transfers = _machine.system.Calls(Call::TRANSFER_I2C);
    pages = REQUESTS * (REQUEST / PAGE) * _guids.size();
  }

  Time elapsed{0};
  Time page_write_time{0};  ///< of the first bus
  std::uint64_t naks = 0;   ///< likewise
  std::uint64_t transfers = 0;
  std::uint64_t pages = 0;

 private:
  void Write(std::uint32_t offset) {
    const std::string answer =
        _machine.Ask(WriteRequest("vsI2cWriteMulti", _guids, 0x50, offset, RandomBytes(REQUEST)));
    if (answer != "ACK") throw std::runtime_error("a write failed: " + answer);
  }

  ServedMachine _machine;
  std::vector<I2cBus*> _buses;
  std::vector<Guid> _guids;
};

/// The least time that a request of `pages` pages to each of `chips` chips takes where every page
/// is read back: the wire goes to the chip that is ready first, and no time is lost.
Time Optimum(std::size_t chips, std::size_t pages) {
  constexpr double BIT = 1e6 / 400;  // nanoseconds
  constexpr double WRITE = ((3 + PAGE) * 9 + 2) * BIT;
  constexpr double READ = ((3 * 9 + 1) + ((1 + PAGE) * 9 + 2)) * BIT;
  constexpr double CYCLE = 5e6;
  struct Chip {
    double ready = 0;
    std::size_t left = 0;
    bool is_to_be_read = false;
  };
  std::vector<Chip> all(chips, {0, pages, false});
  double now = 0;
  for (;;) {
    Chip* next = nullptr;
    for (Chip& chip : all) {
      if (chip.left == 0 && !chip.is_to_be_read) continue;
      if (next == nullptr || chip.ready < next->ready) next = &chip;
    }
    if (next == nullptr) break;
    now = std::max(now, next->ready);
    if (next->is_to_be_read) {
      now += READ;
      next->ready = now;
    } else {
      now += WRITE;
      --next->left;
      next->ready = now + CYCLE;
    }
    next->is_to_be_read = !next->is_to_be_read;
  }
  return Time(static_cast<std::int64_t>(now));
}

void Eeproms() {
  for (const auto& [chips, goal] :
       {std::pair<std::size_t, double>{1, 0.22}, {4, 0.80}, {8, 0.90}}) {
    const EepromBurn burn(1, chips, false);
    const double part = Seconds(burn.page_write_time) / Seconds(burn.elapsed);
    Row(Text("I2C wire that writes pages, ", chips, " EEPROMs, not read back"), Percent(part),
        ">= " + Text(goal * 100, " %"), part >= goal);
  }
  for (const std::size_t chips : {1, 2, 4, 8}) {
    const EepromBurn burn(1, chips, true);
    const double ratio = Seconds(burn.elapsed) / Seconds(Optimum(chips, REQUEST / PAGE)) / REQUESTS;
    Row(Text("time of ", chips, " EEPROMs, read back / least time"), Times(ratio), "<= 1.1",
        ratio <= 1.1);
  }
  const EepromBurn one(1, 4, true);
  const EepromBurn four(4, 4, true);
  const double ratio = Seconds(four.elapsed) / Seconds(one.elapsed);
  Row("time of 4 buses of 4 EEPROMs / of one", Times(ratio), "<= 1.1", ratio <= 1.1);
  const double calls =
      static_cast<double>(one.transfers - one.naks) / static_cast<double>(one.pages);
  Row("system calls for a page of an EEPROM, without polls", Times(calls), "<= 2", calls <= 2);
  const double polls = static_cast<double>(one.naks) / static_cast<double>(one.pages);
  Row("polls for a page of an EEPROM", Times(polls), "", true);
}

}  // namespace

int main() {
  try {
    Eeproms();
  } catch (const std::exception& error) {
    std::cerr << "bench_serve: " << error.what() << "\n";
    return EXIT_FAILURE;
  }
  return g_is_well ? EXIT_SUCCESS : EXIT_FAILURE;
}
