/// The calls of System, made.
#pragma once

#include "serve/System.h"

namespace serve {

/// Has no state: any thread may use it. A call that a signal interrupts is made again. What would
/// change an I2C adapter for its other users is never called.
class LinuxSystem : public System {
 public:
  Time Now() const override;
  std::int64_t WallSeconds() const override;

  int Open(const std::string& path, Access access) override;
  void Close(int descriptor) override;
  int Lock(int descriptor) override;
  std::int64_t Read(int descriptor, std::uint64_t offset, std::span<std::uint8_t> bytes) override;
  std::int64_t Write(int descriptor, std::uint64_t offset,
                     std::span<const std::uint8_t> bytes) override;
  std::int64_t SizeOf(int descriptor) override;
  int Flush(int descriptor) override;

  int HasPlainI2c(int descriptor) override;
  int CheckI2cAddress(int descriptor, std::uint16_t address) override;
  int TransferI2c(int descriptor, std::span<const I2cMessage> messages) override;

  int GetMtdFacts(int descriptor, MtdFacts& facts) override;
  int EraseMtd(int descriptor, std::uint64_t offset, std::uint64_t size) override;

  std::optional<std::string> ReadText(const std::string& path) override;
  std::vector<std::string> List(const std::string& folder) override;
  std::string Resolve(const std::string& path) override;
  int WriteText(const std::string& path, const std::string& text) override;
  int Remove(const std::string& path) override;

  int RunProgram(const std::vector<std::string>& words, Time limit) override;
};

}  // namespace serve
