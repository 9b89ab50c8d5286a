#include "serve/FlatMemory.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "common/Text.h"
#include "serve/Wires.h"

namespace serve {

namespace {

constexpr std::uint8_t ERASED = 0xFF;
/// Bytes that one step of an erase reads back.
constexpr std::size_t ERASE_CHECK = 0x10000;
/// Bytes of one step in a file that has no pages.
constexpr std::uint32_t FILE_PAGE = 0x1000;
/// Bytes, of which it is known whether they are erased.
constexpr std::uint32_t GRANULE = 16;

bool IsBlank(std::span<const std::uint8_t> bytes) {
  return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == ERASED; });
}

}  // namespace

/// Each step deals with one page, or with one erase. What was changed is read back at once.
class FlatSteps : public JobSteps {
 public:
  FlatSteps(FlatMemory& memory, Job& job) : _memory(memory), _job(job) {
    if (_job.kind == Job::READ) _job.data.resize(_job.size);
  }

  std::optional<Time> Step(System& system) override {
    _system = &system;
    switch (_job.kind) {
      case Job::READ:
        Read(_job.offset, _job.data);
        return {};
      case Job::WRITE:
        WritePage();
        break;
      case Job::ERASE:
        EraseBlock();
        break;
    }
    if (!_job.error.empty()) return {};
    if (_done < _job.size) return AT_ONCE;
    if (_memory._config.file && _memory._config.file->syncs && _job.kind != Job::READ) Flush();
    return {};
  }

 private:
  std::uint64_t Place(std::uint32_t offset) const { return _memory._config.first + offset; }

  /// False where it failed, which the job tells then.
  bool Read(std::uint32_t offset, std::span<std::uint8_t> bytes) {
    const std::int64_t result = _system->Read(_memory._descriptor, Place(offset), bytes);
    if (result == static_cast<std::int64_t>(bytes.size())) return true;
    _job.error = CallError("Read", offset, result);
    return false;
  }

  bool Write(std::uint32_t offset, std::span<const std::uint8_t> bytes) {
    const std::int64_t result = _system->Write(_memory._descriptor, Place(offset), bytes);
    if (result == static_cast<std::int64_t>(bytes.size())) return true;
    _job.error = CallError("Write", offset, result);
    return false;
  }

  bool OnlyClearsBits() const {
    return !_memory._config.file || _memory._config.file->only_clears_bits;
  }

  void WritePage() {
    const std::uint32_t offset = _job.offset + _done;
    const std::uint32_t page = _memory._config.page_size;
    const std::uint32_t size = std::min(page - offset % page, _job.size - _done);
    const std::span<const std::uint8_t> wanted =
        std::span<const std::uint8_t>(_job.data).subspan(_done, size);
    _done += size;

    Bytes old(size, ERASED);
    if (!_memory.IsErased(offset, size) && !Read(offset, old)) return;
    Bytes programmed(wanted.begin(), wanted.end());
    if (OnlyClearsBits()) {
      for (std::size_t i = 0; i < size; ++i) programmed[i] &= old[i];
    }
    // What is there already needs no write: it was read, now or after the erase.
    if (programmed == old) return;
    _memory.SetErased(offset, size, false);
    if (!Write(offset, programmed)) return;
    Bytes read(size);
    if (!Read(offset, read) || read == programmed) return;
    _job.error = read == old ? NO_EFFECT : VerificationError(offset, programmed, read);
  }

  void EraseBlock() {
    const std::uint32_t block = _memory._erase_size;
    const std::uint32_t offset = _job.offset + _done;
    _done += block;
    _memory.SetErased(offset, block, false);
    Bytes read(block);
    if (!EraseOnce(offset, read)) return;
    if (!IsBlank(read)) {
      // What it held before is not known. An erase that changes nothing, twice, has no effect.
      const Bytes first = std::exchange(read, Bytes(block));
      if (!EraseOnce(offset, read)) return;
      _job.error = read == first && !IsBlank(read)
                       ? NO_EFFECT
                       : VerificationError(offset, Bytes(block, ERASED), first);
      return;
    }
    _memory.SetErased(offset, block, true);
  }

  /// Erases a block and reads it.
  bool EraseOnce(std::uint32_t offset, Bytes& read) {
    const auto block = static_cast<std::uint32_t>(read.size());
    if (_memory._config.file) {
      if (!Write(offset, Bytes(block, ERASED))) return false;
    } else if (const int result = _system->EraseMtd(_memory._descriptor, Place(offset), block)) {
      _job.error = CallError("Erase", offset, result);
      return false;
    }
    for (std::size_t at = 0; at < block; at += ERASE_CHECK) {
      const std::span<std::uint8_t> part =
          std::span(read).subspan(at, std::min(ERASE_CHECK, block - at));
      if (!Read(offset + static_cast<std::uint32_t>(at), part)) return false;
    }
    return true;
  }

  void Flush() {
    if (const int result = _system->Flush(_memory._descriptor)) {
      _job.error = CallError("Write", _job.offset, result);
    }
  }

  FlatMemory& _memory;
  Job& _job;
  System* _system = nullptr;
  std::uint32_t _done = 0;  ///< bytes
};

FlatMemory::FlatMemory(const FlashConfig& config, NodeLock& lock) : _config(config), _lock(lock) {}

FlatMemory::FlatMemory(const FileConfig& file, std::uint32_t size, NodeLock& lock) : _lock(lock) {
  _config.file = file;
  _config.size = size;
  _config.page_size = FILE_PAGE;
}

std::string FlatMemory::Open(System& system, Access access) {
  if (IsOpen(access)) return "";
  Close(system);
  std::string error = _config.file ? OpenFile(system, access) : OpenMtd(system, access);
  if (!error.empty()) {
    Close(system);
    return error;
  }
  _access = access;
  _erased.clear();
  if (access == Access::WRITE) _erased.resize(static_cast<std::size_t>(_size / GRANULE + 1));
  return "";
}

bool FlatMemory::IsOpen(Access access) const {
  return _descriptor >= 0 && (access == Access::READ || _access == Access::WRITE);
}

void FlatMemory::Close(System& system) {
  if (_descriptor >= 0) system.Close(_descriptor);
  _descriptor = -1;
  _erased.clear();
  if (std::exchange(_has_lock, false) && --_lock.users == 0) {
    system.Close(std::exchange(_lock.descriptor, -1));
  }
}

std::string FlatMemory::TakeLock(System& system, const std::string& node) {
  if (_lock.users == 0) {
    _lock.descriptor = system.Open(node, Access::READ);
    if (_lock.descriptor < 0) return CallError("Open", 0, _lock.descriptor);
    if (system.Lock(_lock.descriptor) != 0) {
      system.Close(std::exchange(_lock.descriptor, -1));
      return "In use by another program";
    }
  }
  ++_lock.users;
  _has_lock = true;
  return "";
}

std::string FlatMemory::OpenFile(System& system, Access access) {
  _descriptor = system.Open(_config.file->path.string(), access);
  if (_descriptor < 0) return CallError("Open", 0, _descriptor);
  const std::int64_t size = system.SizeOf(_descriptor);
  if (size < 0) return "Not a plain file";
  const std::uint64_t needed = _config.first + _config.size;
  if (static_cast<std::uint64_t>(size) < needed) {
    return common::Text("The file has ", size, " bytes, the memory needs ", needed);
  }
  if (access == Access::WRITE) {
    if (std::string error = TakeLock(system, _config.file->path.string()); !error.empty()) {
      return error;
    }
  }
  _erase_size = _config.sector_size;
  _size = _config.size;
  return "";
}

std::string FlatMemory::OpenMtd(System& system, Access access) {
  const FoundMtd found = FindMtd(system, *_config.mtd);
  if (!found.error.empty()) return found.error;
  if (access == Access::WRITE && !found.in_use.empty()) return "In use: " + found.in_use;
  _descriptor = system.Open(found.node, access);
  if (_descriptor < 0) return CallError("Open", 0, _descriptor);
  MtdFacts facts;
  if (const int result = system.GetMtdFacts(_descriptor, facts))
    return CallError("Open", 0, result);
  if (std::string error = CheckMtd(found, facts); !error.empty()) return error;
  if (access == Access::WRITE) {
    if (std::string error = TakeLock(system, found.node); !error.empty()) return error;
  }
  _erase_size = facts.erase_size;
  _size = _config.size != 0 ? _config.size : facts.size - _config.first;
  return "";
}

std::string FlatMemory::CheckMtd(const FoundMtd& found, const MtdFacts& facts) const {
  if (std::string error = WhyNotExpected(*_config.mtd, found); !error.empty()) return error;
  if (!facts.is_nor || !facts.is_bit_writable || facts.write_size != 1) return "Not a NOR flash";
  if (facts.has_no_erase || facts.erase_size == 0) return "Not a memory that is erased";
  if (facts.erase_regions > 0) return "The flash has sectors of several sizes";
  if (_config.sector_size % facts.erase_size != 0 || _config.first % facts.erase_size != 0) {
    return common::Text("The flash is erased in blocks of 0x", std::hex, facts.erase_size,
                        " bytes: the configuration's sectors do not fit");
  }
  if (_config.first + _config.size > facts.size || _config.first >= facts.size) {
    return common::Text("The flash has only ", facts.size, " bytes");
  }
  return "";
}

void FlatMemory::SetErased(std::uint32_t offset, std::uint32_t size, bool is_erased) {
  const std::uint64_t end = std::uint64_t{offset} + size;
  // A granule that is erased in part is not erased; one that is written in part is not either.
  std::uint64_t first = is_erased ? (offset + GRANULE - 1) / GRANULE : offset / GRANULE;
  const std::uint64_t last = is_erased ? end / GRANULE : (end + GRANULE - 1) / GRANULE;
  for (; first < last && first < _erased.size(); ++first) {
    _erased[static_cast<std::size_t>(first)] = is_erased;
  }
}

bool FlatMemory::IsErased(std::uint32_t offset, std::size_t size) const {
  const std::size_t last = (offset + size - 1) / GRANULE;
  if (last >= _erased.size()) return false;
  for (std::size_t granule = offset / GRANULE; granule <= last; ++granule) {
    if (!_erased[granule]) return false;
  }
  return true;
}

std::unique_ptr<JobSteps> FlatMemory::Begin(Job& job) {
  return std::make_unique<FlatSteps>(*this, job);
}

}  // namespace serve
