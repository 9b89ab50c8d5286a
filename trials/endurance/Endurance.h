/// Many clients of one server, for a long virtual time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/ScratchFolder.h"
#include "device/Burn.h"
#include "trials/endurance/Connection.h"
#include "trials/endurance/Machine.h"
#include "trials/endurance/Turns.h"

namespace endurance {

/// What the run itself does wrong, so that it must find it.
enum class Spoil {
  NOTHING,
  DESCRIPTOR,  ///< one is opened with each burn, and stays open
  LEASE,       ///< a client that has gone is not told to the server
  READ_BACK,   ///< the server does not read back what it writes to EEPROMs
  MEMORY,      ///< each burn keeps some
};

struct Options {
  double hours = 24;  ///< of virtual time
  std::uint64_t seed = 0;
  Spoil spoil = Spoil::NOTHING;
};

struct FaultCounts {
  std::uint64_t injected = 0;
  std::uint64_t survived = 0;  ///< devices that had it and were burnt all the same
  std::uint64_t failed = 0;    ///< devices that had it, and others perhaps, and were not burnt
  bool operator==(const FaultCounts&) const = default;
};

/// The same for each run of a seed.
struct Counts {
  std::uint64_t runs = 0;  ///< of the burner
  std::uint64_t vanished = 0;
  std::uint64_t aborted = 0;
  std::uint64_t burns = 0;  ///< of one device each
  std::uint64_t failed = 0;
  std::uint64_t plain = 0;
  std::uint64_t judged = 0;  ///< failsafe burns that failed, of devices that boot all the same
  std::uint64_t connections = 0;
  std::uint64_t requests = 0;
  std::uint64_t refusals = 0;  ///< of writes to a device that another client holds, or must not
  std::uint64_t reads = 0;     ///< by others
  std::uint64_t compared_reads = 0;
  std::uint64_t reloads = 0;
  std::int64_t prepared = 0;
  std::uint64_t bytes = 0;  ///< compared
  std::uint64_t page_writes = 0;
  std::uint64_t programs = 0;
  std::uint64_t erases = 0;
  std::map<Fault, FaultCounts> faults;
  std::vector<double> busy;  ///< share of the time, of each wire
  bool operator==(const Counts&) const = default;
};

/// At a moment at which no client is connected.
struct Sample {
  double hours = 0;
  std::size_t heap = 0;                 ///< bytes in use, but for the images that the run keeps
  std::size_t descriptors = 0;          ///< of the virtual machine
  std::size_t process_descriptors = 0;  ///< of this program
};

/// Something is not as it must be.
class Mistake : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Endurance {
 public:
  explicit Endurance(const Options& options);
  Endurance(const Endurance&) = delete;
  Endurance& operator=(const Endurance&) = delete;

  /// Throws Mistake.
  void Run();

  const Counts& GetCounts() const { return _counts; }
  const std::vector<Sample>& Samples() const { return _samples; }
  const std::vector<std::unique_ptr<Wire>>& Wires() const { return _machine.Wires(); }
  double Hours() const;

 private:
  /// What a client does again and again.
  struct Client {
    void (Endurance::*work)(Random& random);
    Random random;
  };

  /// Until that time, and until what is under way then is over.
  void RunUntil(Time when);

  // The work of clients: each takes some time.
  void BurnOnce(Random& random);
  void ReadOnce(Random& random);
  void IntrudeOnce(Random& random);
  void ReloadOnce(Random& random);
  void DisturbOnce(Random& random);

  std::unique_ptr<Connection> Connect(Random& random);
  void Close(std::unique_ptr<Connection> connection);
  std::vector<Target*> Choose(Random& random);
  void BurnTargets(const std::vector<Target*>& targets, Random& random);
  void JudgeBurn(Target& target, const std::shared_ptr<const device::Image>& image,
                 device::BurnKind kind, const RunEnd& end, bool may_fail);
  void CheckOthers();
  void Disturb(Target& target, Fault fault);
  void DisturbWire(Wire& wire, Fault fault);
  void DisturbChip(Target& target, Random& random);
  void DisturbFlash(Target& target, Random& random);
  void DisturbFile(Target& target, Random& random);
  void EndFault(Wire& wire, Fault fault);
  void EndFault(Target& target, Fault fault);
  void CheckPause();
  void CheckEnd() const;
  [[noreturn]] void Fail(const std::string& what) const;
  Target& AnyTarget(Random& random) const;

  Options _options;
  common::ScratchFolder _folder{"endurance"};
  Machine _machine;
  Counts _counts;
  std::vector<Sample> _samples;
  std::size_t _first_descriptors = 0;
  std::size_t _first_process_descriptors = 0;
  protocol::ClientId _last_client = 100;
  bool _is_over = false;                       ///< clients begin nothing new
  std::vector<std::unique_ptr<char[]>> _kept;  ///< to spoil the run; likewise the next
  std::unique_ptr<Connection> _lost;
  std::vector<Client> _clients;
  std::unique_ptr<Turns> _turns;  ///< its threads use all of the above
};

}  // namespace endurance
