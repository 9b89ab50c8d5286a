#include "Rehearsal.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <numeric>
#include <stdexcept>
#include <thread>

#include "FabricFile.h"
#include "LocalRom.h"
#include "Server.h"
#include "utils.h"

extern char** environ;

namespace sim {

namespace {

constexpr std::size_t WORD_SIZE = 4;
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

/// What a byte holds after `wanted` was programmed over it, in the bits of `done`.
u_int8_t Programmed(bool is_flash, u_int8_t held, u_int8_t wanted, u_int8_t done) {
  const auto target = static_cast<u_int8_t>(is_flash ? held & wanted : wanted);
  return static_cast<u_int8_t>((held & ~done) | (target & done));
}

std::size_t Words(const LoggedOperation& operation) {
  return (operation.bytes.size() + WORD_SIZE - 1) / WORD_SIZE;
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
  if (operation.kind == Operation::ERASE) {
    for (u_int32_t i = 0; i < operation.size; ++i) {
      if (cut.kind == CutKind::TORN_ERASE && Chance(seed, cut.operation, i) % 2 == 0) continue;
      set(operation.offset + i, u_int8_t{0xFF});
    }
    return;
  }
  u_int32_t done = 0xFFFFFFFF;  // bits that are written
  if (cut.kind == CutKind::TORN_WORD) done = Chance(seed, cut.operation, cut.word);
  const std::size_t start = cut.word * WORD_SIZE;
  const std::size_t end = std::min(start + WORD_SIZE, operation.bytes.size());
  for (std::size_t i = start; i < end; ++i, done >>= 8) {
    const auto offset = static_cast<u_int32_t>(operation.offset + i);
    set(offset,
        Programmed(is_flash, held(offset), operation.bytes[i], static_cast<u_int8_t>(done & 0xFF)));
  }
}

/// How a run of the burner ended.
struct Run {
  bool is_well = false;
  std::string console;
};

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
    Server server(fabric, "127.0.0.1", 0, [&](const std::string&, const std::string&) {
      if (++requests == kill_after && pid != 0) kill(pid, SIGKILL);
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
    std::vector<char*> av;
    av.reserve(words.size() + 1);
    for (const std::string& word : words) av.push_back(const_cast<char*>(word.c_str()));
    av.push_back(nullptr);
    int output[2];
    if (pipe2(output, O_CLOEXEC) < 0) throw std::runtime_error("can't make a pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    pid_t pid = 0;
    const int failure = posix_spawn(&pid, av[0], &actions, nullptr, av.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(output[1]);
    if (failure != 0) {
      close(output[0]);
      throw std::runtime_error("can't run " + words[0] + ": " + strerror(failure));
    }
    shown_pid = pid;
    Run run;
    char block[4096];
    ssize_t got = 0;
    while ((got = read(output[0], block, sizeof(block))) > 0) {
      run.console.append(block, static_cast<std::size_t>(got));
    }
    close(output[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    run.is_well = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return run;
  }

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
    {
      const QuietConsole quiet;
      _image.Open(_options.image_file.c_str(), READ);
    }
    for (const Guid guid : _options.guids) {
      const Device* device = _initial.Find(guid);
      if (device == nullptr)
        throw std::runtime_error(Text("the fabric has no device 0x", std::hex, guid));
      _guids.push_back(device->node_guid);
    }
    if (_options.guids.empty()) {
      for (const auto& [guid, device] : _initial.Devices()) _guids.push_back(guid);
    }
    if (_guids.empty()) throw std::runtime_error("the fabric has no devices");
    _report.devices = _guids.size();
    for (const Guid guid : _guids) {
      // What each slot must hold once the image is in it: not taken from the burn that is on trial.
      for (u_int32_t slot = 0; slot < FwImage::SLOTS; ++slot) {
        Fabric scratch;
        scratch.CopyDevice(*_initial.Find(guid));
        try {
          BurnInto(scratch, guid, _options.image_file, {.slot = slot, .is_valid = true});
        } catch (const BraidError&) {
          continue;  // it does not fit there: the burn on trial will tell whether it must
        }
        _expected[guid][slot] = LinearMemory(*scratch.Find(guid), Conv());
      }
      if (const BootVerdict verdict = JudgeOf(guid).Verdict(); !verdict.Boots()) {
        ++_report.unbootable_at_start;
        AddException({guid, 0, 0, 0, "", "before the burn", Describe(verdict),
                      "nothing can be lost, and a failsafe burn leaves the device as it is"});
      }
    }
  }

  const FwImage::Conv& Conv() {
    return *static_cast<const FwImage::Conv*>(_image.GetAddressConvertor());
  }

  /// A judge over a device as it was before the burn.
  BootJudge JudgeOf(Guid guid) {
    const Device& device = *_initial.Find(guid);
    BootJudge judge(BootLayout(_image, device.chips.begin()->second.SectorSize()),
                    LinearMemory(device, Conv()));
    judge.KnowPresentImages();
    for (u_int32_t slot = 0; slot < FwImage::SLOTS; ++slot) {
      if (_expected[guid][slot].empty()) continue;
      judge.KnowNewImage(_image, _expected[guid][slot], slot);
    }
    return judge;
  }

  /// What a device of another fabric, burnt from the same start, is worth.
  BootVerdict VerdictOn(const Fabric& fabric, Guid guid) {
    BootJudge judge = JudgeOf(guid);
    const DataVec memory = LinearMemory(*fabric.Find(guid), Conv());
    for (u_int32_t addr = 0; addr < memory.size(); ++addr) judge.Set(addr, memory[addr]);
    return judge.Verdict();
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
    for (const Guid guid : _guids) {
      _final[guid] = VerdictOn(fabric, guid);
      if (StartsUnbootable(guid) || IsAsItShouldEnd(_final[guid])) continue;
      AddException({guid, Total(), 1, _requests, "", "the end of the burn", Describe(_final[guid]),
                    _image.DevType() == RV61300
                        ? "the image's own boot record is not valid in both slots, or a CRC covers "
                          "its first word"
                        : "the image as burnt is not a valid new one"});
    }
    Say("burning", 1, 1);
  }

  bool StartsUnbootable(Guid guid) { return !JudgeOf(guid).Verdict().Boots(); }

  /// After a burn one slot of a flash is valid and new, and both of an RV61300.
  bool IsAsItShouldEnd(const BootVerdict& verdict) const {
    const auto is_new = [](SlotState state) { return state == SlotState::NEW; };
    if (!verdict.invariant_is_whole) return false;
    const auto count = std::ranges::count_if(verdict.slots, is_new);
    if (_image.DevType() == RV61300) return count == 2;
    return count == 1 && std::ranges::count(verdict.slots, SlotState::INVALID) == 1;
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
    _swept += std::accumulate(
        log.begin(), log.end(), std::size_t{0},
        [](std::size_t sum, const auto& operation) { return sum + CutsOf(operation); });
    if (StartsUnbootable(guid)) return;
    BootJudge judge = JudgeOf(guid);
    const bool is_flash = _initial.Find(guid)->kind == MemoryKind::FLASH;
    std::size_t last_bad_operation = SIZE_MAX;
    for (std::size_t i = 0; i < log.size(); ++i) {
      const LoggedOperation& operation = log[i];
      const u_int32_t base = Linear(operation);
      const auto addr = [&](u_int32_t offset) { return base + (offset - operation.offset); };
      for (std::size_t n = 0; n < CutsOf(operation); ++n, ++point) {
        const Cut cut = NthCut(operation, i, n);
        ApplyCut(
            operation, is_flash, cut, _options.seed,
            [&](u_int32_t offset) { return judge.Memory()[addr(offset)]; },
            [&](u_int32_t offset, u_int8_t byte) { judge.Set(addr(offset), byte); });
        if (_options.at && *_options.at != point) continue;
        ++_report.points[cut.kind];
        const BootVerdict verdict = judge.Verdict();
        Count(verdict);
        if (verdict.Boots()) continue;
        if (last_bad_operation == i) {
          ++_report.exceptions.back().points;
        } else if (AddException({guid, point, 1, operation.request, Command(operation),
                                 StepAt(addr(operation.offset)), Describe(verdict),
                                 ReasonFor(guid, verdict)})) {
          last_bad_operation = i;
        }
      }
      if (i % 1000 == 0) Say("sweeping", i, log.size());
    }
    Say("sweeping", log.size(), log.size());
  }

  void Count(const BootVerdict& verdict) {
    if (!verdict.Boots()) {
      ++_report.unbootable;
      return;
    }
    ++(verdict.BootsNew() ? _report.boot_new : _report.boot_old);
    if (std::ranges::count(verdict.slots, SlotState::BROKEN) > 0) ++_report.valid_but_broken;
  }

  u_int32_t Linear(const LoggedOperation& operation) {
    return Conv().Convert(EeLoc(operation.offset, operation.chip));
  }

  static std::string Command(const LoggedOperation& operation) {
    return operation.kind == Operation::ERASE ? "erase" : "write";
  }

  /// What lies at an address, in the words of the layout.
  std::string StepAt(u_int32_t addr) {
    const u_int32_t sector = _initial.Devices().begin()->second.chips.begin()->second.SectorSize();
    const BootLayout layout(_image, sector);
    for (u_int32_t slot = 0; slot < FwImage::SLOTS; ++slot) {
      const u_int32_t ps = layout.records[slot];
      if (layout.has_pointer_sectors && addr >= ps && addr - ps < std::max(sector, 264u)) {
        return Text("pointer sector ", slot, " at 0x", std::hex, addr);
      }
    }
    if (layout.has_pointer_sectors && addr < sector) {
      return Text("invariant sector at 0x", std::hex, addr);
    }
    const u_int32_t slot = addr >= _image.GetImageAddr(1) ? 1 : 0;
    return Text("image slot ", slot, " at 0x", std::hex, addr);
  }

  std::string ReasonFor(Guid guid, const BootVerdict& verdict) {
    if (!verdict.invariant_is_whole) {
      return "the invariant sector is rewritten: there is only one of it";
    }
    const BootJudge before = JudgeOf(guid);
    if (_image.DevType() != RV61300) {
      if (verdict.slots[1] == SlotState::BROKEN && !before.IsValid(0)) {
        return "the copy of the second image overlaps the second image, the only valid one";
      }
      if (verdict.slots[0] == SlotState::BROKEN && before.IsValid(0)) {
        return "the old first image reaches into the second slot";
      }
    } else if (!IsAsItShouldEnd(_final[guid])) {
      return "the image's own boot record is not valid in both slots, or a CRC covers its first "
             "word";
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

  struct Job {
    Interruption kind;
    std::size_t place;  ///< a point, or a request
  };

  std::vector<Job> Jobs() const {
    std::vector<Job> jobs;
    if (_options.at) {
      jobs.push_back({Interruption::POWER, *_options.at});
      return jobs;
    }
    const std::size_t total = Total();
    if (total == 0 || _options.recoveries == 0) return jobs;
    // Spread evenly, with a seeded place in each stretch: every phase of the burn gets its share.
    const auto spread = [&](Interruption kind, std::size_t count, std::size_t places) {
      count = std::min(count, places);
      for (std::size_t i = 0; i < count; ++i) {
        const std::size_t start = places * i / count;
        const std::size_t end = places * (i + 1) / count;
        const std::size_t offset =
            Chance(_options.seed, i, places) % std::max(end - start, std::size_t{1});
        jobs.push_back({kind, start + offset});
      }
    };
    const std::size_t live = std::min<std::size_t>(_options.recoveries / 5, _requests);
    spread(Interruption::POWER, _options.recoveries - 2 * live, total);
    spread(Interruption::KILLED, live, _requests);
    spread(Interruption::DROPPED, live, _requests);
    return jobs;
  }

  void Recover() {
    const std::vector<Job> jobs = Jobs();
    std::atomic<std::size_t> next{0};
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
          Say("recovering", job + 1, jobs.size());
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    if (trouble) std::rethrow_exception(trouble);
  }

  void RecoverFrom(const Job& job) {
    Fabric fabric;
    std::size_t request = job.place + 1;
    {
      const std::lock_guard lock(_mutex);
      CopyAll(_initial, fabric);
    }
    const Burner burner(_options, _guids);
    std::atomic<std::size_t> requests{0};
    if (job.kind == Interruption::POWER) {
      const Place place = Locate(job.place);
      request = place.operation.request;
      // The others went on without the device.
      for (const auto& [guid, log] : _log) {
        BringTo(fabric, guid, guid == place.guid ? place.cuts + 1 : SIZE_MAX);
      }
    } else if (job.kind == Interruption::KILLED) {
      burner.Burn(fabric, requests, job.place + 1);
    } else {
      Fault drop;
      drop.kind = Fault::CLOSE_BEFORE;
      drop.nth = static_cast<u_int32_t>(job.place + 1);
      fabric.faults.Add(drop);
      burner.Burn(fabric, requests);
      fabric.faults = {};
    }

    for (const Guid guid : _guids) {
      const std::lock_guard lock(_mutex);
      if (StartsUnbootable(guid)) continue;
      const BootVerdict verdict = VerdictOn(fabric, guid);
      if (verdict.Boots()) continue;
      if (job.kind != Interruption::POWER) {
        AddException({guid, job.place, 1, request, "", Name(job.kind), Describe(verdict),
                      ReasonFor(guid, verdict)});
      }
      return;  // nothing boots: the sweep has told so, and there is nothing to recover
    }

    const auto run = burner.Burn(fabric, requests);
    const std::lock_guard lock(_mutex);
    ++_report.recoveries[job.kind];
    bool is_counted = false;
    for (const Guid guid : _guids) {
      if (StartsUnbootable(guid)) continue;
      const BootVerdict verdict = VerdictOn(fabric, guid);
      if (run.is_well && IsAsItShouldEnd(verdict)) continue;
      if (!IsAsItShouldEnd(_final[guid])) continue;  // told already
      if (!is_counted) ++_report.unrecovered;
      is_counted = true;
      AddException({guid, job.place, 1, request, "",
                    std::string(Name(job.kind)) + ", then burnt again", Describe(verdict),
                    run.is_well ? "the second burn does not end as a burn should"
                                : "the second burn fails: " + LastLine(run.console)});
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
  FwImage _image;
  GuidVec _guids;  ///< node GUIDs
  std::map<Guid, std::array<DataVec, FwImage::SLOTS>> _expected;
  std::map<Guid, std::vector<LoggedOperation>> _log;
  std::map<Guid, BootVerdict> _final;
  std::size_t _requests = 0;
  std::size_t _swept = 0;  ///< points of the devices before
};

}  // namespace

std::size_t RehearsalReport::Points() const {
  std::size_t sum = 0;
  for (const auto& [kind, count] : points) sum += count;
  return sum;
}

RehearsalReport Rehearse(const RehearsalOptions& options, const RehearsalProgress& progress) {
  return Rehearsal(options, progress).Run();
}

}  // namespace sim
