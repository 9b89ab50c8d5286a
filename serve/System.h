/// The system calls that reach memories, and the clock. Everything that the server does to a device
/// goes through here, so that it can be tried on memories that exist in virtual time only.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace serve {

/// Since the clock began; also a duration.
using Time = std::chrono::nanoseconds;
/// A time that is always over. Where the hardware has no clock that programs may read, it costs a
/// system call to ask for the true one.
inline constexpr Time AT_ONCE{0};

/// One message of an I2C transfer.
struct I2cMessage {
  std::uint16_t address = 0;
  bool is_read = false;
  std::span<std::uint8_t> bytes;  ///< to be written, or room for what is read
};

/// What the kernel tells of an MTD device.
struct MtdFacts {
  bool is_nor = false;
  bool is_bit_writable = false;     ///< bytes may be programmed again
  bool has_no_erase = false;        ///< memory that is overwritten, not erased
  std::uint64_t size = 0;           ///< bytes
  std::uint32_t erase_size = 0;     ///< bytes
  std::uint32_t write_size = 0;     ///< bytes; 1 on a NOR flash
  std::uint32_t erase_regions = 0;  ///< regions with other erase sizes
  bool operator==(const MtdFacts&) const = default;
};

enum class Access {
  READ,   ///< the kernel then refuses every change
  WRITE,  ///< to read, too
  LOCK,   ///< a lock file: created where it does not exist
};

/// One method for each call. A result below 0 is the error number, negated. Methods may block. A
/// descriptor is used by one thread at a time.
class System {
 public:
  System() = default;
  System(const System&) = delete;
  System& operator=(const System&) = delete;
  virtual ~System() = default;

  /// Monotonic.
  virtual Time Now() const = 0;
  /// Seconds since 1970.
  virtual std::int64_t WallSeconds() const = 0;

  /// Returns a descriptor, which a child process does not inherit.
  virtual int Open(const std::string& path, Access access) = 0;
  virtual void Close(int descriptor) = 0;
  /// Takes the lock of the open file for this process alone, or fails at once.
  virtual int Lock(int descriptor) = 0;
  /// Return how many bytes were read or written: all, or fewer at the end of the file.
  virtual std::int64_t Read(int descriptor, std::uint64_t offset,
                            std::span<std::uint8_t> bytes) = 0;
  virtual std::int64_t Write(int descriptor, std::uint64_t offset,
                             std::span<const std::uint8_t> bytes) = 0;
  /// Bytes of a plain file.
  virtual std::int64_t SizeOf(int descriptor) = 0;
  /// Returns when what was written to a plain file is on its disk.
  virtual int Flush(int descriptor) = 0;

  /// Whether the adapter makes plain I2C transfers: 1 or 0.
  virtual int HasPlainI2c(int descriptor) = 0;
  /// 0, or -EBUSY where a driver owns the address.
  virtual int CheckI2cAddress(int descriptor, std::uint16_t address) = 0;
  /// One transfer: the messages, joined by repeated starts, and a stop.
  virtual int TransferI2c(int descriptor, std::span<const I2cMessage> messages) = 0;

  virtual int GetMtdFacts(int descriptor, MtdFacts& facts) = 0;
  virtual int EraseMtd(int descriptor, std::uint64_t offset, std::uint64_t size) = 0;

  /// The text of a small file, without the line end; nothing where it cannot be read.
  virtual std::optional<std::string> ReadText(const std::string& path) = 0;
  /// The names in a folder, sorted; none where it cannot be read.
  virtual std::vector<std::string> List(const std::string& folder) = 0;
  /// The path without links; empty where it does not exist.
  virtual std::string Resolve(const std::string& path) = 0;

  /// Replaces a small file, whose folder must exist. 0 where it is on the disk.
  virtual int WriteText(const std::string& path, const std::string& text) = 0;
  virtual int Remove(const std::string& path) = 0;

  /// Runs a program without a shell, its output to the log, and kills it after `limit`. Returns its
  /// exit status, 128 and the signal where one ended it, or -ETIME.
  virtual int RunProgram(const std::vector<std::string>& words, Time limit) = 0;
};

}  // namespace serve
