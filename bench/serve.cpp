/// What fwpush-serve makes of buses and flashes, in virtual time: each figure is exact, and the
/// same on every machine. Prints a table; fails where a figure misses its goal.

#include <algorithm>
#include <functional>
#include <iomanip>
#include <iostream>
#include <random>
#include <string>
#include <string_view>
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
bool g_is_tabbed = false;

void Row(const std::string& what, const std::string& measured, const std::string& goal,
         bool is_met) {
  g_is_well = g_is_well && is_met;
  if (g_is_tabbed) {
    std::cout << what << "\t" << measured << "\t" << goal << "\t" << is_met << "\n";
    return;
  }
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

/// A failing chip or bus is told by name, every time, and the devices beside it go on.
class Faults {
 public:
  void Run() {
    for (const auto& [what, spoil] : EepromFaults()) {
      for (std::size_t victim = 0; victim < CHIPS; ++victim) TryEeprom(spoil, victim);
      Tell(what);
    }
    for (const auto& [what, spoil] : FlashFaults()) {
      for (std::uint64_t nth = 1; nth <= 16; ++nth) TryFlash(spoil, nth);
      Tell(what);
    }
  }

 private:
  static constexpr std::size_t CHIPS = 8;
  using SpoilEeprom = std::function<void(I2cBus&, VirtualEeprom&)>;
  using SpoilFlash = std::function<void(hardware::VirtualFlash&, std::uint64_t nth)>;

  static std::vector<std::pair<std::string, SpoilEeprom>> EepromFaults() {
    return {
        {"EEPROM with its write pin held",
         [](I2cBus&, VirtualEeprom& chip) { chip.SetWriteProtected(true); }},
        {"EEPROM that drops one page", [](I2cBus&, VirtualEeprom& chip) { chip.DropPageWrite(5); }},
        {"EEPROM that flips one bit",
         [](I2cBus&, VirtualEeprom& chip) { chip.FlipBitOfPageWrite(8, 3); }},
        {"EEPROM that is gone", [](I2cBus&, VirtualEeprom& chip) { chip.SetAbsent(true); }},
        {"stuck bus",
         [](I2cBus& bus, VirtualEeprom&) { bus.HoldWireFrom(std::chrono::milliseconds(20)); }},
    };
  }
  static std::vector<std::pair<std::string, SpoilFlash>> FlashFaults() {
    return {
        {"protected flash",
         [](hardware::VirtualFlash& flash, std::uint64_t nth) {
           flash.Protect(static_cast<std::uint32_t>(nth - 1) * 256, 256);
         }},
        {"flash that drops one program",
         [](hardware::VirtualFlash& flash, std::uint64_t nth) { flash.DropProgram(nth); }},
        {"flash that fails one program",
         [](hardware::VirtualFlash& flash, std::uint64_t nth) { flash.FailProgram(nth); }},
    };
  }

  /// Two buses of four chips; a bus that is stuck takes all of its own with it.
  void TryEeprom(const SpoilEeprom& spoil, std::size_t victim) {
    ServedMachine machine;
    std::vector<Guid> guids;
    std::vector<I2cBus*> buses;
    std::vector<VirtualEeprom*> chips;
    for (std::size_t i = 0; i < CHIPS; ++i) {
      if (i % 4 == 0) buses.push_back(&machine.AddBus());
      guids.push_back(FIRST_GUID + i);
      chips.push_back(&machine.AddEeprom(
          guids.back(), *buses.back(),
          {.address = static_cast<std::uint16_t>(0x50 + i % 4), .size = REQUEST, .page = PAGE}));
    }
    spoil(*buses[victim / 4], *chips[victim]);
    machine.Serve();
    const device::Bytes bytes = RandomBytes(REQUEST);
    const std::string answer = machine.Ask(WriteRequest("vsI2cWriteMulti", guids, 0x50, 0, bytes));
    bool is_told = answer.find("ERROR:" + common::HexGuid(guids[victim])) != std::string::npos;
    for (std::size_t i = 0; i < CHIPS; ++i) {
      const bool has_failed =
          answer.find("ERROR:" + common::HexGuid(guids[i])) != std::string::npos;
      // Whoever is not told to have failed has the bytes.
      if (!has_failed && !std::ranges::equal(chips[i]->Content(), bytes)) is_told = false;
      if (has_failed && i / 4 != victim / 4) is_told = false;
    }
    Count(is_told);
  }

  void TryFlash(const SpoilFlash& spoil, std::uint64_t nth) {
    ServedMachine machine;
    hardware::VirtualFlash& flash = machine.AddFlash(FIRST_GUID, {}, 0x10000);
    spoil(flash, nth);
    machine.Serve();
    const std::string answer =
        machine.Ask(WriteRequest("vsFlashWriteMulti", {FIRST_GUID}, 0, 0, RandomBytes(16 * 256)));
    Count(answer.starts_with("{ERROR:" + common::HexGuid(FIRST_GUID)));
  }

  void Count(bool is_told) {
    ++_tried;
    if (is_told) ++_told;
  }
  void Tell(const std::string& what) {
    Row(what + ": told by name, others go on", Text(_told, " of ", _tried), "all", _told == _tried);
    _tried = _told = 0;
  }

  std::size_t _tried = 0;
  std::size_t _told = 0;
};

/// A flash that is erased in blocks of 4 KiB and gets a mebibyte in requests of a page.
void Flash() {
  constexpr std::uint32_t MIB = 1 << 20;
  constexpr std::uint32_t SECTOR = 0x10000;
  constexpr std::uint32_t FLASH_PAGE = 256;  // -m 8
  ServedMachine machine;
  hardware::VirtualFlash& flash = machine.AddFlash(FIRST_GUID, {}, SECTOR);
  machine.Serve();
  const auto ask = [&](const std::string& request) {
    const std::string answer = machine.Ask(request);
    if (answer != "ACK") throw std::runtime_error("a flash request failed: " + answer);
  };
  // A request before, so that the device is open.
  ask(WriteRequest("vsFlashWriteMulti", {FIRST_GUID}, 0, 0, device::Bytes(4, 0)));
  flash.ResetCounts();
  machine.system.ResetCalls();
  const auto calls = [&machine] {
    std::uint64_t sum = 0;
    for (const Call call : {Call::OPEN, Call::CLOSE, Call::LOCK, Call::READ, Call::WRITE,
                            Call::ERASE_MTD, Call::GET_MTD_FACTS, Call::READ_TEXT, Call::LIST}) {
      sum += machine.system.Calls(call);
    }
    return static_cast<double>(sum);
  };
  double page_calls = 0;
  for (std::uint32_t at = 0; at < MIB; at += FLASH_PAGE) {
    if (at % SECTOR == 0) {
      ask(Text("vsFlashEraseSectorMulti 1 ", common::HexGuid(FIRST_GUID), " 0x0 0x", std::hex, at,
               " "));
    }
    const double before = calls();
    ask(WriteRequest("vsFlashWriteMulti", {FIRST_GUID}, 0, at, RandomBytes(FLASH_PAGE)));
    page_calls += calls() - before;
  }
  const double read = static_cast<double>(flash.BytesRead()) / MIB;
  Row("flash, 1 MiB: bytes read / content", Times(read), "<= 2.1", read <= 2.1);
  Row("flash, 1 MiB: erases of 4 KiB", Text(flash.Erases()), "256", flash.Erases() == 256);
  Row("flash, 1 MiB: programs", Text(flash.Programs()), "<= 4096", flash.Programs() <= 4096);
  const double each = page_calls / (MIB / FLASH_PAGE);
  Row("flash: system calls for a page and its request", Times(each), "<= 6", each <= 6);
}

void LongErase() {
  ServedMachine machine;
  machine.AddFlash(FIRST_GUID, {.erase_size = 0x10000, .erase_time = std::chrono::seconds(40)},
                   0x10000);
  machine.Serve();
  const auto asked =
      machine.Send(Text("vsFlashEraseSectorMulti 1 ", common::HexGuid(FIRST_GUID), " 0x0 0x0 "));
  const bool is_answered = machine.Wait(asked).answer == "ACK";
  Row("erase of 40 s: bytes that keep the client waiting", Text(asked->heartbeats), "8, answered",
      is_answered && asked->heartbeats == 8);
}

}  // namespace

int main(int argc, char* argv[]) {
  g_is_tabbed = argc == 2 && argv[1] == std::string_view("--tabs");
  try {
    Eeproms();
    Flash();
    LongErase();
    Faults().Run();
  } catch (const std::exception& error) {
    std::cerr << "bench_serve: " << error.what() << "\n";
    return EXIT_FAILURE;
  }
  return g_is_well ? EXIT_SUCCESS : EXIT_FAILURE;
}
