#include "rehearse/Rehearsal.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstring>
#include <mutex>
#include <numeric>
#include <stdexcept>
#include <thread>

#include "common/ChildProcess.h"
#include "device/Chip.h"
#include "protocol/Server.h"
#include "sim/FabricFile.h"
#include "sim/Filling.h"

namespace sim {

namespace {

constexpr std::size_t MOST_EXCEPTIONS = 200;  ///< more of them tell nothing new

/// A change of memory in the log of a burn.
struct LoggedOperation {
  Operation::Kind kind;
  u_int8_t chip;
  u_int32_t offset;
  u_int32_t size;
  DataVec bytes;
  std::size_t request;  ///< from 1
};

/// A place to pull the plug: within or after one operation of one device's log.
struct Cut {
  std::size_t operation = 0;
  CutKind kind = CutKind::AFTER_WORD;
  std::size_t word = 0;
};

/// Bits for a torn word, or a torn erase's cell: the same for the same place and seed.
u_int32_t Chance(unsigned seed, std::size_t operation, std::size_t place) {
  u_int64_t x = seed + 0x9E3779B97F4A7C15u * (operation + 1) + 0xBF58476D1CE4E5B9u * (place + 1);
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
  return static_cast<u_int32_t>(x >> 29);
}

std::size_t Words(const LoggedOperation& operation) {
  return device::WordsIn(operation.bytes.size());
}

/// How many cuts an operation has, and which the n-th is.
std::size_t CutsOf(const LoggedOperation& operation) {
  return operation.kind == Operation::ERASE ? 2 : 2 * Words(operation);
}

Cut NthCut(const LoggedOperation& operation, std::size_t index, std::size_t n) {
  if (operation.kind == Operation::ERASE) {
    return {index, n == 0 ? CutKind::TORN_ERASE : CutKind::AFTER_ERASE, 0};
  }
  return {index, n % 2 == 0 ? CutKind::TORN_WORD : CutKind::AFTER_WORD, n / 2};
}

/// Brings a memory from the cut before to this one: a word, or a sector, through `set(offset,
/// byte)`; `held(offset)` tells what is there.
template <typename Held, typename Set>
void ApplyCut(const LoggedOperation& operation, bool is_flash, const Cut& cut, unsigned seed,
              Held held, Set set) {
  device::Bytes cells;
  const auto change = [&](std::size_t start, std::size_t end, const auto& apply) {
    cells.clear();
    for (std::size_t i = start; i < end; ++i) {
      cells.push_back(held(static_cast<u_int32_t>(operation.offset + i)));
    }
    apply();
    for (std::size_t i = start; i < end; ++i) {
      set(static_cast<u_int32_t>(operation.offset + i), cells[i - start]);
    }
  };
  if (operation.kind == Operation::ERASE) {
    change(0, operation.size, [&] {
      if (cut.kind == CutKind::AFTER_ERASE) return device::Erase(cells);
      device::EraseTorn(
          cells, [&](std::size_t cell) { return Chance(seed, cut.operation, cell) % 2 != 0; });
    });
    return;
  }
  const std::size_t start = cut.word * device::WORD_SIZE;
  const std::size_t end = std::min<std::size_t>(start + device::WORD_SIZE, operation.bytes.size());
  change(start, end, [&] {
    const auto kind = is_flash ? device::MemoryKind::FLASH : device::MemoryKind::EEPROM;
    const device::View word = device::View(operation.bytes).subspan(start, end - start);
    if (cut.kind == CutKind::AFTER_WORD) return device::Program(kind, cells, word);
    const u_int32_t done = Chance(seed, cut.operation, cut.word);
    device::Tear tear;
    for (std::size_t i = 0; i < tear.done.size(); ++i) {
      tear.done[i] = static_cast<u_int8_t>(done >> 8 * i);
    }
    device::ProgramTorn(kind, cells, word, tear);
  });
}

/// How a run of the burner ended.
struct Run {
  bool is_well = false;
  int signal = 0;  ///< that ended it
  std::string console;
};

/// Longest silence of a burner, which itself waits half as long for a server.
constexpr std::chrono::seconds MAX_SILENCE{60};

/// Runs the burner against a fabric served in this process.
class Burner {
 public:
  Burner(const RehearsalOptions& options, const GuidVec& guids) : _options(options) {
    std::ostringstream list;
    list << std::hex;
    for (const Guid guid : guids) list << guid << ",";
    _guids = list.str();
  }

  /// Each request is counted before it is executed; after request `kill_after` the burner is
  /// killed.
  Run Burn(Fabric& fabric, std::atomic<std::size_t>& requests, std::size_t kill_after = 0) const {
    std::atomic<pid_t> pid{0};
    protocol::Server server(fabric, "127.0.0.1", 0, [&](const std::string&, const std::string&) {
      if (++requests != kill_after) return;
      while (pid == 0) std::this_thread::yield();  // it has a request out: it is just being started
      kill(pid, SIGKILL);
    });
    std::thread serving([&] { server.Run(); });
    std::vector<std::string> words = {
        _options.fwpush, "-f", _options.image_file, "-s", server.ServerString(), "-g", _guids};
    words.insert(words.end(), _options.extra_args.begin(), _options.extra_args.end());
    Run run;
    try {
      run = Spawn(words, pid);
    } catch (...) {
      server.Stop();
      serving.join();
      throw;
    }
    server.Stop();
    serving.join();
    return run;
  }

 private:
  static Run Spawn(const std::vector<std::string>& words, std::atomic<pid_t>& shown_pid) {
    common::Channel console = common::MakePipe();
    fcntl(console.out.Get(), F_SETFL, O_NONBLOCK);
    common::ChildProcess burner({.words = words, .output = console.in.Get()});
    console.in.Close();
    shown_pid = burner.Pid();
    return Watch(burner, console.out.Get());
  }

  /// Follows the burner to its end, and ends it when it hangs.
  static Run Watch(common::ChildProcess& burner, int console) {
    Run run;
    auto last_word = std::chrono::steady_clock::now();
    std::optional<common::Ending> ending;
    while (!ending) {
      pollfd waiting{console, POLLIN, 0};
      poll(&waiting, 1, 50);
      ending = burner.TryWait();
      char block[4096];
      for (ssize_t got; (got = read(console, block, sizeof(block))) > 0;) {
        last_word = std::chrono::steady_clock::now();
        run.console.append(block, static_cast<std::size_t>(got));
        // What matters is how it began and how it ended.
        if (run.console.size() > 2 * MOST_CONSOLE) {
          run.console.erase(MOST_CONSOLE / 2, run.console.size() - MOST_CONSOLE);
        }
      }
      if (!ending && std::chrono::steady_clock::now() - last_word > MAX_SILENCE) {
        throw std::runtime_error("the burner hangs");
      }
    }
    run.is_well = ending->status == 0;
    run.signal = ending->signal;
    return run;
  }

  static constexpr std::size_t MOST_CONSOLE = std::size_t{1} << 20;

  const RehearsalOptions& _options;
  std::string _guids;
};

void CopyAll(const Fabric& from, Fabric& to) {
  to.facts = from.facts;
  for (const auto& [guid, device] : from.Devices()) to.CopyDevice(device);
}

/// One rehearsal, from the clean burn to the last recovery.
class Rehearsal {
 public:
  Rehearsal(const RehearsalOptions& options, const RehearsalProgress& progress)
      : _options(options), _progress(progress) {}

  RehearsalReport Run() {
    const auto start = std::chrono::steady_clock::now();
    Prepare();
    BurnCleanly();
    for (const Guid guid : _guids) Sweep(guid);
    Recover();
    _report.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return std::move(_report);
  }

 private:
  void Prepare() {
    LoadFabric(_options.fabric_file, {}, _initial);
    _initial.faults = {};  // the only thing that goes wrong here is what the rehearsal does
    _image = ReadImageFile(_options.image_file);
    GuidSet guids;  // a device may be named by each of its GUIDs
    for (const Guid guid : _options.guids) {
      const Device* device = _initial.Find(guid);
      if (device == nullptr) throw std::runtime_error("the fabric has no device " + HexGuid(guid));
      guids.insert(device->node_guid);
    }
    if (_options.guids.empty()) {
      for (const auto& [guid, device] : _initial.Devices()) guids.insert(guid);
    }
    _guids.assign(guids.begin(), guids.end());
    _report.devices = _guids.size();
    for (const Guid guid : _guids) {
      const device::Judge judge = MakeJudge(*_initial.Find(guid));
      const device::Verdict verdict = judge.Look();
      _judges.emplace(guid, judge);
      if (verdict.BootsWhole()) continue;
      _unbootable.insert(guid);
      ++_report.unbootable_at_start;
      AddException({.device = guid,
                    .step = "before the burn",
                    .state = Describe(verdict),
                    .reason = "there is nothing to lose"});
    }
  }

  /// A judge over a device as it was before the burn. What is whole comes from the image files
  /// themselves where the fabric file names them, and not from the burn that is on trial.
  device::Judge MakeJudge(const Device& device) {
    const device::Memory memory = MemoryOf(device, _image);
    if (!memory.Holds(0, memory.sector_size)) {
      throw JudgeError(
          Text("The image's slots lie past the ", memory.bytes.size(), " bytes of its device map"));
    }
    device::Judge judge(LayoutOf(_image, _options.image_file, memory.sector_size), memory.bytes);
    try {
      for (const std::string& file : device.images) {
        KnowImageFile(judge, device, file, device::Whole::OLD);
      }
    } catch (const JudgeError&) {
      judge.KnowPresentImages();  // an image of another make: what boots must do
    }
    if (device.images.empty()) judge.KnowPresentImages();
    judge.KnowPresentInvariantSector();
    KnowImageFile(judge, device, _options.image_file, device::Whole::NEW);
    return judge;
  }

  /// What a device of another fabric, burnt from the same start, is worth.
  device::Verdict VerdictOn(const Fabric& fabric, Guid guid) {
    device::Judge judge = _judges.at(guid);
    judge.SetAll(MemoryOf(*fabric.Find(guid), _image).bytes);
    return judge.Look();
  }

  void BurnCleanly() {
    Say("burning", 0, 1);
    Fabric fabric;
    CopyAll(_initial, fabric);
    std::atomic<std::size_t> requests{0};
    fabric.observer = [&](const Operation& operation) {
      _log[operation.device].push_back(
          {operation.kind, operation.chip, operation.offset, operation.size,
           DataVec(operation.bytes.begin(), operation.bytes.end()), requests + 1});
      ++(operation.kind == Operation::ERASE ? _report.erases : _report.writes);
    };
    const auto run = Burner(_options, _guids).Burn(fabric, requests);
    _requests = requests;
    _report.requests = _requests;
    constexpr std::string_view RUNNING = "Running burn algorithm: ";
    if (const std::size_t at = run.console.find(RUNNING); at != std::string::npos) {
      const std::size_t name = at + RUNNING.size();
      _report.algorithm = run.console.substr(name, run.console.find('\n', name) - name);
    }
    if (!run.is_well) {
      throw std::runtime_error("the burn itself fails, before any plug is pulled:\n" + run.console);
    }
    _has_moved = run.console.find("Moving image position") != std::string::npos;
    for (const Guid guid : _guids) {
      const device::Verdict end = VerdictOn(fabric, guid);
      if (_unbootable.contains(guid) || IsAsItShouldEnd(end)) continue;
      _ends_well = false;
      AddException({.device = guid,
                    .step = "the end of the burn",
                    .state = Describe(end),
                    .reason = ReasonForEnd(guid, end, run.console)});
    }
    Say("burning", 1, 1);
  }

  std::string ReasonForEnd(Guid guid, const device::Verdict& end,
                           const std::string& console) const {
    const std::string failure = "BURN FAILED:" + HexGuid(guid) + ":";
    if (const std::size_t at = console.find(failure); at != std::string::npos) {
      const std::size_t text = at + failure.size();
      return "the burn failed on it: " + console.substr(text, console.find('\n', text) - text);
    }
    if (_image.Slots() != device::SlotKind::BOOT_RECORDS || IsGeneric())
      return "the image as burnt is no valid new one";
    return end.CountInvalid() > 0
               ? "the image's own boot record is not valid in each slot"
               : "a CRC covers the first word of the boot record, which is held back";
  }

  bool IsGeneric() const { return _report.algorithm == "GenericBurn"; }

  /// After a burn one slot of a flash is valid and new, and both of an RV61300.
  bool IsAsItShouldEnd(const device::Verdict& verdict) const {
    if (!verdict.invariant_is_whole) return false;
    if (_image.Slots() == device::SlotKind::BOOT_RECORDS) return verdict.CountNew() == 2;
    return verdict.CountNew() == 1 && verdict.CountInvalid() == 1;
  }

  std::size_t Total() const {
    std::size_t total = 0;
    for (const auto& [guid, log] : _log) {
      for (const LoggedOperation& operation : log) total += CutsOf(operation);
    }
    return total;
  }

  /// The device and the operation that a point lies in, and how many cuts of the device's log lie
  /// before it: the points are the cuts of all devices' logs, one after the other.
  struct Place {
    Guid guid;
    const LoggedOperation& operation;
    std::size_t cuts;
  };
  Place Locate(std::size_t point) const {
    for (const Guid guid : _guids) {
      const auto log = _log.find(guid);
      if (log == _log.end()) continue;
      std::size_t before = 0;
      for (const LoggedOperation& operation : log->second) {
        before += CutsOf(operation);
        if (point < before) return {guid, operation, point};
      }
      point -= before;
    }
    throw std::runtime_error("the burn has no such point");
  }

  /// Judges a device at every cut of its log.
  void Sweep(Guid guid) {
    const std::vector<LoggedOperation>& log = _log[guid];
    std::size_t point = _swept;
    for (const LoggedOperation& operation : log) _swept += CutsOf(operation);
    if (_unbootable.contains(guid)) return;
    device::Judge judge = _judges.at(guid);
    const bool is_flash = _initial.Find(guid)->kind == MemoryKind::FLASH;
    device::Verdict last;  // of the point before, where that is an exception
    bool goes_on = false;
    for (std::size_t i = 0; i < log.size(); ++i) {
      const LoggedOperation& operation = log[i];
      const auto held = [&](u_int32_t offset) {
        const auto addr = LinearOf(operation.chip, offset);
        return addr ? judge.Bytes()[*addr] : u_int8_t{0xFF};
      };
      const auto set = [&](u_int32_t offset, u_int8_t byte) {
        if (const auto addr = LinearOf(operation.chip, offset)) judge.Set(*addr, byte);
      };
      for (std::size_t n = 0; n < CutsOf(operation); ++n, ++point) {
        const Cut cut = NthCut(operation, i, n);
        ApplyCut(operation, is_flash, cut, _options.seed, held, set);
        const bool is_asked = !_options.at || (_options.at->kind == Interruption::POWER &&
                                               _options.at->place == point);
        if (!is_asked) continue;
        ++_report.points[cut.kind];
        const device::Verdict verdict = judge.Look();
        Count(verdict);
        if (verdict.IsSafe()) {
          goes_on = false;
        } else if (goes_on && last == verdict) {
          ++_report.exceptions.back().points;
          _report.exceptions.back().last_request = operation.request;
        } else {
          goes_on = AddException({.device = guid,
                                  .first = Moment{Interruption::POWER, point},
                                  .first_request = operation.request,
                                  .last_request = operation.request,
                                  .command = Command(operation),
                                  .step = StepAt(guid, operation),
                                  .state = Describe(verdict),
                                  .reason = ReasonFor(guid, verdict)});
          last = verdict;
        }
      }
      if (i % 1000 == 0) Say("sweeping", i, log.size());
    }
    Say("sweeping", log.size(), log.size());
  }

  void Count(const device::Verdict& verdict) {
    if (!verdict.BootsWhole()) {
      ++_report.unbootable;
    } else if (!verdict.IsSafe()) {
      ++_report.may_not_boot;
    } else {
      ++(verdict.BootsNew() ? _report.boot_new : _report.boot_old);
    }
  }

  /// Where a byte of a chip lies in the image's address space; nothing past its device map.
  std::optional<u_int32_t> LinearOf(u_int8_t chip, u_int32_t offset) const {
    const auto addr = _image.AddressOf({chip, offset});
    if (!addr || _image.PlaceOf(*addr) != device::ChipPlace{chip, offset}) return std::nullopt;
    return addr;
  }

  static std::string Command(const LoggedOperation& operation) {
    return operation.kind == Operation::ERASE ? "erase" : "write";
  }

  /// What an operation changes, in the words of the layout.
  std::string StepAt(Guid guid, const LoggedOperation& operation) {
    const auto linear = LinearOf(operation.chip, operation.offset);
    if (!linear) return "what the device map leaves out";
    const u_int32_t addr = *linear;
    const u_int32_t sector = _initial.Find(guid)->chips.begin()->second.SectorSize();
    const device::BootLayout layout = LayoutOf(_image, _options.image_file, sector);
    for (u_int32_t slot = 0; slot < device::SLOTS; ++slot) {
      const u_int32_t record = layout.records[slot];
      if (layout.HasPointerSectors() && addr >= record && addr - record < sector) {
        return Text("pointer sector ", slot, " at 0x", std::hex, addr);
      }
    }
    if (layout.HasPointerSectors() && addr < sector) {
      return Text("invariant sector at 0x", std::hex, addr);
    }
    const u_int32_t slot = addr >= _image.slots[1].image ? 1 : 0;
    return Text("image slot ", slot, " at 0x", std::hex, addr);
  }

  std::string ReasonFor(Guid guid, const device::Verdict& verdict) const {
    if (IsGeneric()) return "a burn that is not failsafe writes over what boots";
    if (!verdict.invariant_is_whole) {
      return "the invariant sector is rewritten: there is only one of it";
    }
    const device::Judge& before = _judges.at(guid);
    const device::Verdict start = before.Look();
    if (start.HasBroken()) {
      return "a slot was marked valid before the burn, and its image was not whole";
    }
    if (_image.Slots() != device::SlotKind::BOOT_RECORDS) {
      for (u_int32_t slot = 0; slot < device::SLOTS; ++slot) {
        if (before.IsSigned(slot) && !before.Boots(slot)) {
          return "a record bore a signature before the burn, and its CRC was wrong: a burn goes by "
                 "the signature";
        }
      }
      if (_has_moved && verdict.slots[1].BootsBroken()) {
        return "the copy of the second image overlaps the second image, the only valid one";
      }
      if (verdict.slots[0].BootsBroken() && start.slots[0].boots) {
        return "the old first image reaches into the second slot";
      }
      if (verdict.slots[1].BootsBroken()) {
        return "the new first image reaches into the second slot";
      }
    } else if (!_ends_well) {
      return "the image as burnt is no valid new one in each slot";
    } else if (verdict.slots[0].BootsBroken() || verdict.slots[1].BootsBroken()) {
      return "a mix of an old and a new boot record happens to have a valid sum";
    }
    return "the order of writes leaves no image that boots";
  }

  bool AddException(RehearsalException exception) {
    if (_report.exceptions.size() >= MOST_EXCEPTIONS) {
      ++_report.exceptions_left_out;
      return false;
    }
    _report.exceptions.push_back(std::move(exception));
    return true;
  }

  /// Brings a device of `fabric`, which is as before the burn, to a cut of its log.
  void BringTo(Fabric& fabric, Guid guid, std::size_t cuts) const {
    Device& device = *fabric.Find(guid);
    const std::vector<LoggedOperation>& log = _log.at(guid);
    for (std::size_t i = 0; i < log.size() && cuts > 0; ++i) {
      Chip& chip = device.chips.at(log[i].chip);
      for (std::size_t n = 0; n < CutsOf(log[i]) && cuts > 0; ++n, --cuts) {
        ApplyCut(
            log[i], chip.IsFlash(), NthCut(log[i], i, n), _options.seed,
            [&](u_int32_t offset) { return chip.Bytes()[offset]; },
            [&](u_int32_t offset, u_int8_t byte) { chip.Load(offset, std::span(&byte, 1)); });
      }
    }
  }

  std::vector<Moment> Moments() const {
    std::vector<Moment> moments;
    if (_options.at) return {*_options.at};
    const std::size_t total = Total();
    if (total == 0 || _options.recoveries == 0) return moments;
    // Spread evenly, with a seeded place in each stretch: every phase of the burn gets its share.
    const auto spread = [&](Interruption kind, std::size_t count, std::size_t first,
                            std::size_t places) {
      count = std::min(count, places);
      for (std::size_t i = 0; i < count; ++i) {
        const std::size_t start = places * i / count;
        const std::size_t end = places * (i + 1) / count;
        const std::size_t offset =
            Chance(_options.seed, i, places) % std::max(end - start, std::size_t{1});
        moments.push_back({kind, first + start + offset});
      }
    };
    const std::size_t live = std::min<std::size_t>(_options.recoveries / 5, _requests);
    spread(Interruption::POWER, _options.recoveries - 2 * live, 0, total);
    spread(Interruption::KILLED, live, 1, _requests);
    spread(Interruption::DROPPED, live, 1, _requests);
    return moments;
  }

  void Recover() {
    // Where the burn itself ends wrongly, a second one cannot end well.
    const std::vector<Moment> jobs = _ends_well || _options.at ? Moments() : std::vector<Moment>();
    std::atomic<std::size_t> next{0};
    std::size_t done = 0;
    std::exception_ptr trouble;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < std::max(1u, _options.jobs); ++i) {
      threads.emplace_back([&] {
        for (std::size_t job; (job = next++) < jobs.size();) {
          try {
            RecoverFrom(jobs[job]);
          } catch (...) {
            const std::lock_guard lock(_mutex);
            trouble = std::current_exception();
            next = jobs.size();
          }
          const std::lock_guard lock(_mutex);
          Say("recovering", ++done, jobs.size());
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    if (trouble) std::rethrow_exception(trouble);
  }

  void RecoverFrom(const Moment& moment) {
    Fabric fabric;
    std::size_t request = moment.place;
    {
      const std::lock_guard lock(_mutex);
      CopyAll(_initial, fabric);
    }
    const Burner burner(_options, _guids);
    std::atomic<std::size_t> requests{0};
    if (moment.kind == Interruption::POWER) {
      const Place place = Locate(moment.place);
      request = place.operation.request;
      // The others went on without the device.
      for (const auto& [guid, log] : _log) {
        BringTo(fabric, guid, guid == place.guid ? place.cuts + 1 : SIZE_MAX);
      }
    } else if (moment.place < 1 || moment.place > _requests) {
      throw std::runtime_error("the burn has no such request");
    } else if (moment.kind == Interruption::KILLED) {
      if (burner.Burn(fabric, requests, moment.place).signal != SIGKILL) {
        throw std::runtime_error("the burner was gone before it was killed");
      }
    } else {
      Fault drop;
      drop.kind = Fault::CLOSE_BEFORE;
      drop.nth = static_cast<u_int32_t>(moment.place);
      fabric.faults.Add(drop);
      if (burner.Burn(fabric, requests).is_well) {
        throw std::runtime_error("the burner did not notice that its connection was dropped");
      }
      fabric.faults = {};
    }

    const auto exception = [&](Guid guid, const device::Verdict& verdict, const std::string& step,
                               const std::string& reason) {
      AddException({.device = guid,
                    .first = moment,
                    .first_request = request,
                    .last_request = request,
                    .step = step,
                    .state = Describe(verdict),
                    .reason = reason});
    };
    for (const Guid guid : _guids) {
      const std::lock_guard lock(_mutex);
      if (_unbootable.contains(guid)) continue;
      const device::Verdict verdict = VerdictOn(fabric, guid);
      if (verdict.BootsWhole()) continue;
      if (moment.kind != Interruption::POWER) {
        exception(guid, verdict, Name(moment.kind), ReasonFor(guid, verdict));
      }
      return;  // nothing boots: the sweep has told so, and there is nothing to recover
    }

    const auto run = burner.Burn(fabric, requests);
    const std::lock_guard lock(_mutex);
    ++_report.recoveries[moment.kind];
    bool is_counted = false;
    for (const Guid guid : _guids) {
      if (_unbootable.contains(guid)) continue;
      const device::Verdict verdict = VerdictOn(fabric, guid);
      if (run.is_well && IsAsItShouldEnd(verdict)) continue;
      if (!is_counted) ++_report.unrecovered;
      is_counted = true;
      exception(guid, verdict, std::string(Name(moment.kind)) + ", then burnt again",
                run.is_well ? "the second burn does not end as a burn should"
                            : "the second burn fails: " + LastLine(run.console));
    }
  }

  static const char* Name(Interruption kind) {
    switch (kind) {
      case Interruption::POWER:
        return "power lost";
      case Interruption::KILLED:
        return "burner killed";
      case Interruption::DROPPED:
        return "connection dropped";
    }
    return "?";
  }

  static std::string LastLine(std::string text) {
    while (text.ends_with('\n')) text.pop_back();
    const std::size_t at = text.find_last_of("\r\n");
    return at == std::string::npos ? text : text.substr(at + 1);
  }

  void Say(const std::string& what, std::size_t done, std::size_t total) const {
    if (_progress) _progress(what, done, total);
  }

  const RehearsalOptions& _options;
  const RehearsalProgress& _progress;
  RehearsalReport _report;
  std::mutex _mutex;  ///< over all that the recoveries share
  Fabric _initial;    ///< as before the burn
  device::Image _image;
  GuidVec _guids;                         ///< node GUIDs
  std::map<Guid, device::Judge> _judges;  ///< of each device as before the burn
  GuidSet _unbootable;                    ///< before the burn
  std::map<Guid, std::vector<LoggedOperation>> _log;
  bool _ends_well = true;   ///< the burn without an interruption, on every device
  bool _has_moved = false;  ///< it moved an image
  std::size_t _requests = 0;
  std::size_t _swept = 0;  ///< points of the devices before
};

}  // namespace

std::string Describe(const Moment& moment) {
  const char* kind = moment.kind == Interruption::KILLED    ? "killed:"
                     : moment.kind == Interruption::DROPPED ? "dropped:"
                                                            : "";
  return Text(kind, moment.place);
}

std::optional<Moment> ParseMoment(const std::string& text) {
  Moment moment;
  std::string_view number = text;
  for (const Interruption kind : {Interruption::KILLED, Interruption::DROPPED}) {
    const std::string head = kind == Interruption::KILLED ? "killed:" : "dropped:";
    if (!text.starts_with(head)) continue;
    moment.kind = kind;
    number.remove_prefix(head.size());
  }
  const char* const end = number.data() + number.size();
  const auto parsed = std::from_chars(number.data(), end, moment.place);
  if (number.empty() || parsed.ec != std::errc() || parsed.ptr != end) return {};
  return moment;
}

std::size_t RehearsalReport::Points() const {
  std::size_t sum = 0;
  for (const auto& [kind, count] : points) sum += count;
  return sum;
}

RehearsalReport Rehearse(const RehearsalOptions& options, const RehearsalProgress& progress) {
  return Rehearsal(options, progress).Run();
}

}  // namespace sim
