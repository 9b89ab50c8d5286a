#include "serve/DryMemory.h"

namespace serve {

namespace {
constexpr std::uint8_t ERASED = 0xFF;
}

/// Reads the real memory, and then does the job on what was read.
class DrySteps : public JobSteps {
 public:
  DrySteps(DryMemory& memory, Job& job)
      : _memory(memory), _job(job), _read{.offset = job.offset, .size = job.size} {
    if (job.kind != Job::ERASE) _steps = memory._real->Begin(_read);
  }

  std::optional<Time> Step(System& system) override {
    if (_steps) {
      if (const auto next = _steps->Step(system)) return next;
      if (!_read.error.empty()) {
        _job.error = _read.error;
        _job.is_wire_stuck = _read.is_wire_stuck;
        return {};
      }
    }
    if (_job.kind == Job::READ) _job.data = _read.data;
    for (std::uint32_t i = 0; i < _job.size; ++i) Do(i);
    return {};
  }

 private:
  void Do(std::uint32_t i) {
    const std::uint32_t offset = _job.offset + i;
    const std::uint32_t at = offset % DryMemory::BLOCK;
    if (_job.kind == Job::READ) {
      const auto block = _memory._written.find(offset / DryMemory::BLOCK);
      if (block != _memory._written.end() && block->second.is_written[at]) {
        _job.data[i] = block->second.bytes[at];
      }
      return;
    }
    DryMemory::Block& block = _memory._written[offset / DryMemory::BLOCK];
    if (_job.kind == Job::ERASE) {
      block.bytes[at] = ERASED;
    } else {
      const std::uint8_t held = block.is_written[at] ? block.bytes[at] : _read.data[i];
      const int mask = _memory._only_clears_bits ? held : 0xFF;
      block.bytes[at] = static_cast<std::uint8_t>(_job.data[i] & mask);
    }
    block.is_written[at] = true;
  }

  DryMemory& _memory;
  Job& _job;
  Job _read;  ///< of the real memory
  std::unique_ptr<JobSteps> _steps;
};

std::string DryMemory::Open(System& system, Access access) {
  std::string error = _real->Open(system, Access::READ);
  if (error.empty()) _access = access;
  return error;
}

bool DryMemory::IsOpen(Access access) const {
  return _real->IsOpen(Access::READ) && (access == Access::READ || _access == Access::WRITE);
}

void DryMemory::Close(System& system) {
  _real->Close(system);
  _access = Access::READ;
}

std::unique_ptr<JobSteps> DryMemory::Begin(Job& job) {
  return std::make_unique<DrySteps>(*this, job);
}

}  // namespace serve
