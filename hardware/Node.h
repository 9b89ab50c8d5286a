/// What stands behind a path of a virtual machine.
#pragma once

#include <cerrno>
#include <cstdint>
#include <random>
#include <span>

#include "serve/System.h"

namespace hardware {

/// A file, an adapter, a flash. The methods are those of serve::System with the same names; what a
/// kind of node does not override fails as it does for a file of another kind. A node never sees a
/// call that its descriptor's access forbids.
class Node {
 public:
  Node() = default;
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
  virtual ~Node() = default;

  /// A device that is taken away is gone; a file remains for those who have it open.
  virtual bool IsDevice() const { return true; }
  virtual bool IsReadOnly() const { return false; }
  virtual std::int64_t Read(std::uint64_t, std::span<std::uint8_t>) { return -EINVAL; }
  virtual std::int64_t Write(std::uint64_t, std::span<const std::uint8_t>) { return -EINVAL; }
  virtual std::int64_t Size() { return -EINVAL; }
  virtual int Flush() { return -EINVAL; }
  virtual int HasPlainI2c() { return -ENOTTY; }
  virtual int CheckI2cAddress(std::uint16_t) { return -ENOTTY; }
  virtual int TransferI2c(std::span<const serve::I2cMessage>) { return -ENOTTY; }
  virtual int GetMtdFacts(serve::MtdFacts&) { return -ENOTTY; }
  virtual int EraseMtd(std::uint64_t, std::uint64_t) { return -ENOTTY; }
  /// The power has gone: what is not on its memory yet is lost, or is not.
  virtual void LosePower(std::mt19937_64&) {}
  /// The power is back: whatever is no memory is as new.
  virtual void PowerUp() {}
};

}  // namespace hardware
