/// What answers the requests of a run: simulated devices, or others that stand in their place.
#pragma once

#include <optional>
#include <string>

#include "sim/Fabric.h"

namespace trials {

using device::Guid;

class Responder {
 public:
  Responder() = default;
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;
  virtual ~Responder() = default;

  /// The burner has connected.
  virtual void Connected() {}
  /// Its connection has ended, whoever closed it.
  virtual void Disconnected() {}
  /// Executes a request. Nothing where the server is gone: the connection closes.
  virtual std::optional<std::string> Answer(const std::string& request) = 0;
  /// The device, or the first one of `request`, fails at that request, which comes next.
  virtual void FailNext(std::optional<Guid> device, const std::string& request) = 0;
  /// What was wrong with the answers of the run, beside injected faults; empty for nothing.
  virtual std::string Wrong() const { return ""; }
};

/// Answers as a fabric does.
class FabricResponder : public Responder {
 public:
  /// Borrows the fabric.
  explicit FabricResponder(sim::Fabric& fabric) : _fabric(fabric) {}

  std::optional<std::string> Answer(const std::string& request) override {
    return _fabric.Execute(request).text;
  }
  void FailNext(std::optional<Guid> device, const std::string&) override {
    sim::Fault fault;
    fault.kind = sim::Fault::DEVICE_ERROR;
    fault.device = device;
    _fabric.faults.Add(fault);
  }

 private:
  sim::Fabric& _fabric;
};

}  // namespace trials
