#include "trials/BurnOutput.h"

namespace trials {

std::vector<FailedDevice> FailedDevicesIn(const std::string& output) {
  static constexpr std::size_t DIGITS = 16;
  const std::string head = "\r-E- BURN FAILED:0x";
  std::vector<FailedDevice> devices;
  for (std::size_t at = 0; (at = output.find(head, at)) != std::string::npos;) {
    at += head.size();
    const std::size_t end = output.find('\n', at);
    // The last line of a burner that was killed may be cut.
    if (end == std::string::npos) break;
    const std::size_t text = at + DIGITS + 1;
    devices.push_back(
        {std::stoull(output.substr(at, DIGITS), nullptr, 16), output.substr(text, end - text)});
  }
  return devices;
}

std::string FinalErrorIn(const std::string& output) {
  const std::string head = "\r-E- BURN FAILED:ALL:";
  const std::size_t start = output.rfind(head);
  if (start == std::string::npos || !output.ends_with("\n")) return "";
  return output.substr(start + head.size(), output.size() - start - head.size() - 1);
}

std::string FailedAssertionIn(const std::string& errors) {
  const std::string head = ": Assertion `";
  const std::string tail = "' failed.\n";
  const std::size_t start = errors.rfind(head);
  if (start == std::string::npos || !errors.ends_with(tail)) return "";
  return errors.substr(start + head.size(), errors.size() - tail.size() - start - head.size());
}

bool HasSucceeded(const RunOutcome& outcome) {
  return outcome.status == 0 && outcome.output.ends_with("-I- BURN SUCCEEDED\n");
}

}  // namespace trials
