/// One chip of a device as the worker of its wire uses it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/Bytes.h"
#include "serve/System.h"

namespace serve {

using common::Bytes;

/// What a request asks of one chip, and how it ended.
struct Job {
  enum Kind { READ, WRITE, ERASE };

  Kind kind = READ;
  std::uint32_t offset = 0;    ///< of the first byte in the chip
  std::uint32_t size = 0;      ///< bytes; of an erase, of the sector
  Bytes data = {};             ///< to be written, or what was read
  std::string error = {};      ///< why it failed; empty: it has not
  bool is_wire_stuck = false;  ///< no other chip on the wire can be reached either
};

/// A job, cut into steps.
class JobSteps {
 public:
  JobSteps() = default;
  JobSteps(const JobSteps&) = delete;
  JobSteps& operator=(const JobSteps&) = delete;
  virtual ~JobSteps() = default;

  /// Makes one transfer, or a few calls that belong together. Returns when the next one is worth
  /// making; nothing when the job is done or has failed.
  virtual std::optional<Time> Step(System& system) = 0;
};

/// Used by one worker. Nothing is done to the memory but what jobs ask.
class Memory {
 public:
  Memory() = default;
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;
  virtual ~Memory() = default;

  /// Opens the memory, for a job or for a lease; `access` is READ or WRITE. Returns why it cannot;
  /// empty where it is open now. One that is open for reading may be opened for writing.
  virtual std::string Open(System& system, Access access) = 0;
  virtual bool IsOpen(Access access) const = 0;
  virtual void Close(System& system) = 0;

  /// The memory must be open and hold what the job names, and the job must live as long as its
  /// steps.
  virtual std::unique_ptr<JobSteps> Begin(Job& job) = 0;
  /// Whether no call for it waits for anything.
  virtual bool IsQuick() const { return false; }
  /// Transfers of one channel follow each other where that costs no time: a mux is switched less.
  virtual std::size_t Channel() const { return 0; }
};

// The texts of errors, the same for all kinds of memory.

/// A call failed with the error number `result`, negated. `what`: "Read", "Write" or "Erase".
std::string CallError(const char* what, std::uint32_t offset, std::int64_t result);
/// What was written at `offset` reads as something else.
std::string VerificationError(std::uint32_t offset, std::span<const std::uint8_t> wrote,
                              std::span<const std::uint8_t> read);
inline constexpr const char* NO_EFFECT = "Write had no effect (write-protected?)";

}  // namespace serve
