/// A device belongs to the client that first wrote to it, until that disconnects.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "protocol/AsyncHandler.h"
#include "serve/Digest.h"
#include "serve/Loop.h"
#include "serve/ServedDevices.h"

namespace serve {

/// What the audit log says of a lease.
struct LeaseRecord {
  std::string peer;  ///< "ADDRESS:PORT"
  protocol::Guid device = 0;
  std::string name;
  std::int64_t since = 0;  ///< seconds since 1970
  std::int64_t until = 0;
  std::uint64_t requests = 0;  ///< of the holder that named the device, refused ones, too
  std::uint64_t failed = 0;    ///< of them
  std::uint64_t bytes = 0;     ///< programmed
  std::uint64_t erases = 0;    ///< sectors
  std::string sha256;          ///< of the bytes that were programmed, in this order
  std::string last_error;
  std::string end;  ///< why it ended
};

/// Takes the record of a lease when it has ended. Called by the worker of a wire; what it throws is
/// logged.
using Audit = std::function<void(const LeaseRecord&)>;

/// Of one device.
struct Lease {
  enum State { PREPARING, HELD, RELEASING };

  State state = PREPARING;
  bool is_for_reading = false;  ///< a client that writes may take it over
  protocol::ClientId client = 0;
  LeaseRecord record;
  Digest digest;
  std::vector<std::function<void()>> waiting;  ///< called at the next change of the state
};

class Leases {
 public:
  /// Whose workers write files, for disks may be slow.
  struct Wires {
    WireId books = 0;  ///< of the files that tell of leases
    WireId audit = 0;
  };
  /// What the file of an open lease says.
  struct Note {
    std::string peer;
    std::int64_t since = 0;  ///< seconds since 1970
  };

  /// All are borrowed; `audit` and `log` may be empty. With `is_dry_run` no hook is run.
  Leases(System& system, Loop& loop, Wires wires, Audit audit,
         std::function<void(const std::string&)> log, bool is_dry_run)
      : _system(system),
        _loop(loop),
        _wires(wires),
        _audit(std::move(audit)),
        _log(std::move(log)),
        _is_dry_run(is_dry_run) {}
  ~Leases();
  Leases(const Leases&) = delete;
  Leases& operator=(const Leases&) = delete;

  /// The folder of the files that say which leases are open.
  void SetFolder(const std::filesystem::path& folder) { _folder = folder; }

  /// What Take calls, at once or later: `held` with an empty text when the client has the device,
  /// or with why it cannot have it; `again` when another client has given it up, and everything
  /// about it may be another now.
  struct Taken {
    std::function<void(const std::string& error)> held;
    std::function<void()> again;
  };
  /// Lends the device to the client, after its `prepare` hook. A lease for reading only is taken
  /// over by a client that writes.
  void Take(const ServedDevicePointer& device, protocol::ClientId client, const std::string& peer,
            bool is_for_reading, Taken taken);
  /// Calls `call` when the state of the device's lease has changed. It must have one.
  static void Wait(const ServedDevice& device, std::function<void()> call);
  /// The client's lease of the device; null where it has none.
  static Lease* Of(const ServedDevice& device, protocol::ClientId client);

  /// Closes the memories of all devices of a client and runs their `release` hooks; `why` is for
  /// the audit log. None of its requests may be under way.
  void Release(protocol::ClientId client, const std::string& why);
  /// Releases devices whose leases a crash of this server has left in the folder, and keeps the
  /// folder for this server. A dry run does neither. Throws std::runtime_error where another server
  /// has it.
  void ReleaseLeftOvers(const ServedDevices& devices);

  bool IsEmpty() const { return _held.empty(); }
  /// Called when a device is free again; may be empty.
  std::function<void(const ServedDevicePointer&)> freed;

 private:
  std::string FileOf(protocol::Guid device) const;
  void KeepFolder();
  using Then = std::function<void(const std::string& error)>;
  void Begin(const ServedDevicePointer& device, Then then);
  void WriteFile(const ServedDevice& device, Then then);
  void Release(const ServedDevicePointer& device, const std::string& why);
  void RunHook(const ServedDevice& device, const char* name, const std::vector<std::string>& words,
               Then then);
  /// Calls `call` on the wire, and then `then` with what it has returned or thrown.
  void Call(WireId wire, std::function<std::string(System& system)> call, Then then);
  void End(const ServedDevicePointer& device, const std::string& error);
  void Forget(const ServedDevicePointer& device);
  void ReleaseLeftOver(const ServedDevicePointer& device, const Note& note);
  static void CallWaiting(Lease& lease);
  void Log(const std::string& text) const;

  System& _system;
  Loop& _loop;
  Wires _wires;
  Audit _audit;
  std::function<void(const std::string&)> _log;
  bool _is_dry_run;
  std::filesystem::path _folder;
  int _folder_lock = -1;
  std::map<protocol::Guid, ServedDevicePointer> _held;  ///< by node GUID
};

}  // namespace serve
