/// A machine in virtual time: its files, its device nodes, its programs and its power.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "device/Bytes.h"
#include "hardware/Node.h"
#include "hardware/Power.h"
#include "hardware/VirtualClock.h"
#include "serve/System.h"

namespace hardware {

/// The methods of serve::System.
enum class Call {
  OPEN,
  CLOSE,
  LOCK,
  READ,
  WRITE,
  SIZE_OF,
  FLUSH,
  HAS_PLAIN_I2C,
  CHECK_I2C_ADDRESS,
  TRANSFER_I2C,
  GET_MTD_FACTS,
  ERASE_MTD,
  READ_TEXT,
  LIST,
  RESOLVE,
  WRITE_TEXT,
  REMOVE,
  RUN_PROGRAM,
};

/// Calls that fail and do nothing. A ReadText, List or Resolve that fails finds nothing.
struct CallFault {
  Call call = Call::OPEN;
  std::string path = {};    ///< as it was opened, or without links; empty: any
  std::uint64_t nth = 1;    ///< the first one that fails, counted from now
  std::uint64_t times = 1;  ///< how many fail, in a row
  int error = EIO;
};

/// What a run of a program comes to.
struct ProgramResult {
  int status = 0;
  Time takes{};
};
using Program = std::function<ProgramResult(const std::vector<std::string>& words)>;

/// Links are followed everywhere. A folder is there while something is in it, or where it was
/// added: at first there is /run/fwpush-serve. Descriptors are not given out twice. Calls take no
/// time but that of the memories, wires and programs behind them, and CallTime. Without power every
/// call fails with -EIO.
class VirtualSystem : public serve::System {
 public:
  VirtualSystem();
  ~VirtualSystem() override = default;

  VirtualClock& Clock() { return _clock; }
  Power& GetPower() { return _power; }
  /// Brings the power back, after a restart: no descriptor is open, nothing is locked, memories
  /// have what they had. Time has not passed.
  void PowerUp();

  // --- Building the machine. Paths are absolute; what was at a path before is replaced.

  void AddNode(const std::string& path, std::shared_ptr<Node> node);
  /// A text of a few words, as below /sys and /proc: read-only, and without its line end.
  void AddText(const std::string& path, std::string_view text);
  /// A plain file. Its writes are changes of a memory. Where the power goes, each block of 512
  /// bytes that was not flushed since it was written has its old content or the new one; the last
  /// change is made all the same.
  void AddFile(const std::string& path, device::Bytes content);
  /// `target` may be relative to the folder of the link.
  void AddLink(const std::string& path, const std::string& target);
  void AddFolder(const std::string& path) { _folders.emplace(path, true); }
  void AddProgram(const std::string& path, Program program);
  /// Takes away what is at `path` and below. A descriptor of a device fails with -ENODEV from now
  /// on.
  void TakeAway(const std::string& path);

  void Fail(CallFault fault) { _faults.push_back({std::move(fault), 0}); }
  /// Forgets calls of this path that were to fail.
  void StopFailing(const std::string& path) {
    std::erase_if(_faults, [&](const PlannedFault& fault) { return fault.fault.path == path; });
  }
  /// What every call takes, but for Now and WallSeconds.
  void SetCallTime(Time time) { _call_time = time; }
  /// Of the moment at which the clock began.
  void SetWallSeconds(std::int64_t seconds) { _wall_seconds = seconds; }

  // --- Looking at it.

  /// How many calls of this kind were made: failed ones, too.
  std::uint64_t Calls(Call call) const { return _calls[static_cast<std::size_t>(call)]; }
  void ResetCalls() { _calls = {}; }
  /// The content of a plain file; empty where there is none.
  device::Bytes FileContent(const std::string& path) const;
  std::size_t OpenDescriptors() const { return _open.size(); }
  /// The words of each, in the order in which they ran.
  const std::vector<std::vector<std::string>>& ProgramRuns() const { return _runs; }
  /// Gives back their room, too.
  void ForgetProgramRuns() { std::exchange(_runs, std::vector<std::vector<std::string>>()); }

  // --- serve::System

  Time Now() const override { return _clock.Now(); }
  std::int64_t WallSeconds() const override {
    return _wall_seconds + std::chrono::duration_cast<std::chrono::seconds>(_clock.Now()).count();
  }
  /// A lock file is made in a folder that exists, or fails with -ENOENT, as WriteText does.
  int Open(const std::string& path, serve::Access access) override;
  void Close(int descriptor) override;
  int Lock(int descriptor) override;
  std::int64_t Read(int descriptor, std::uint64_t offset, std::span<std::uint8_t> bytes) override;
  /// -EBADF on a descriptor of Access::READ.
  std::int64_t Write(int descriptor, std::uint64_t offset,
                     std::span<const std::uint8_t> bytes) override;
  std::int64_t SizeOf(int descriptor) override;
  int Flush(int descriptor) override;
  int HasPlainI2c(int descriptor) override;
  int CheckI2cAddress(int descriptor, std::uint16_t address) override;
  /// As in Linux, an adapter that was opened to be read transfers everything.
  int TransferI2c(int descriptor, std::span<const serve::I2cMessage> messages) override;
  int GetMtdFacts(int descriptor, serve::MtdFacts& facts) override;
  /// -EPERM on a descriptor of Access::READ.
  int EraseMtd(int descriptor, std::uint64_t offset, std::uint64_t size) override;
  std::optional<std::string> ReadText(const std::string& path) override;
  std::vector<std::string> List(const std::string& folder) override;
  std::string Resolve(const std::string& path) override;
  int WriteText(const std::string& path, const std::string& text) override;
  int Remove(const std::string& path) override;
  int RunProgram(const std::vector<std::string>& words, Time limit) override;

 private:
  struct OpenFile {
    std::string path;      ///< as it was opened
    std::string resolved;  ///< without links
    std::shared_ptr<Node> node;
    serve::Access access;
    std::uint64_t found_in;  ///< the last state of the tree in which the node was at its path
  };
  struct PlannedFault {
    CallFault fault;
    std::uint64_t seen = 0;  ///< calls that it counted
  };

  std::string WithoutLinks(const std::string& path) const;
  std::string Walk(const std::string& path) const;
  std::string WhereToMake(const std::string& path) const;
  bool Exists(const std::string& path) const;
  std::shared_ptr<Node> Find(const std::string& resolved) const;
  int Begin(Call call, const std::string& path, const std::string& resolved);
  template <typename Operation>
  std::int64_t OnOpen(Call call, int descriptor, Operation operation);

  VirtualClock _clock;
  Power _power{_clock};
  std::uint64_t _tree = 0;  ///< grows with each change of nodes and links
  std::map<std::string, std::shared_ptr<Node>> _nodes;
  std::map<std::string, std::string> _links;
  /// Paths that exist, without links. What is added changes none of them, but for links.
  mutable std::unordered_map<std::string, std::string> _walked;
  std::map<std::string, Program> _programs;
  std::map<std::string, bool> _folders;  ///< those that were added
  std::map<int, OpenFile> _open;
  std::map<const Node*, int> _locks;  ///< the descriptors that hold them
  std::vector<PlannedFault> _faults;
  std::vector<std::vector<std::string>> _runs;
  std::array<std::uint64_t, static_cast<std::size_t>(Call::RUN_PROGRAM) + 1> _calls{};
  Time _call_time{};
  std::int64_t _wall_seconds = 1'800'000'000;
  int _last_descriptor = 2;
};

}  // namespace hardware
