/// A memory behind a descriptor: a flash that the kernel serves as an MTD device, or a plain file.
#pragma once

#include <vector>

#include "serve/Configuration.h"
#include "serve/Memory.h"

namespace serve {

struct FoundMtd;

/// The lock of an MTD device or a file, which keeps other programs out while one of its memories is
/// open for writing: several devices may have parts of one flash. They have one worker.
struct NodeLock {
  int descriptor = -1;
  std::uint32_t users = 0;  ///< memories that are open for writing
};

class FlatMemory : public Memory {
 public:
  /// A flash of `config`. The lock is borrowed, here and below.
  FlatMemory(const FlashConfig& config, NodeLock& lock);
  /// An EEPROM in a plain file.
  FlatMemory(const FileConfig& file, std::uint32_t size, NodeLock& lock);

  std::string Open(System& system, Access access) override;
  bool IsOpen(Access access) const override;
  void Close(System& system) override;
  std::unique_ptr<JobSteps> Begin(Job& job) override;
  bool IsQuick() const override { return _config.file && !_config.file->syncs; }

 private:
  friend class FlatSteps;

  std::string OpenFile(System& system, Access access);
  std::string OpenMtd(System& system, Access access);
  /// Takes the lock of `node`, for writing.
  std::string TakeLock(System& system, const std::string& node);
  std::string CheckMtd(const FoundMtd& found, const MtdFacts& facts) const;

  /// Marks what an erase has left, or a write has changed.
  void SetErased(std::uint32_t offset, std::uint32_t size, bool is_erased);
  /// Whether all of it reads FF, as an erase that was read back has shown.
  bool IsErased(std::uint32_t offset, std::size_t size) const;

  FlashConfig _config;  ///< of an EEPROM in a file, sector_size is 0
  NodeLock& _lock;
  bool _has_lock = false;
  int _descriptor = -1;
  Access _access = Access::READ;
  std::uint32_t _erase_size = 0;  ///< bytes of one erase; valid while it is open
  std::uint64_t _size = 0;        ///< bytes of the memory; valid while it is open
  std::vector<bool> _erased;      ///< by granule, since the memory was opened for writing
};

}  // namespace serve
