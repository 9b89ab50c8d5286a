/// Reports of consoles, as tests compare them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "report/BurnLog.h"
#include "tests/support/Harness.h"
#include "tests/support/support.h"

/// Of a console that fwpush has printed.
inline report::BurnReport ReportOf(const std::string& console, const GuidSet& asked,
                                   const std::optional<common::Ending>& ending = {}) {
  report::BurnLog log;
  log.Feed(console);
  report::BurnReport result = log.Conclude(asked, ending);
  EXPECT_TRUE(log.IsFwpush());
  return result;
}

inline std::string GoldenConsole(const std::string& name) {
  return Golden(name + ".console",
                {{"FILE", "fw.img"}, {"SERVER", "I2C:10.0.0.1:5000"}, {"LINE", "77"}});
}

/// A report in one line a device.
inline std::vector<std::string> DevicesOf(const report::BurnReport& burn) {
  std::vector<std::string> lines;
  for (const report::DeviceReport& device : burn.devices) {
    const char* status = device.status == report::DeviceStatus::BURNT    ? "burnt"
                         : device.status == report::DeviceStatus::FAILED ? "failed"
                                                                         : "never";
    lines.push_back(Text(std::hex, device.guid, " ", status, device.may_have_changed ? "" : " same",
                         device.text.empty() ? "" : ": ", device.text));
  }
  return lines;
}

inline std::vector<std::string> PhasesOf(const report::BurnReport& burn) {
  std::vector<std::string> lines;
  for (const report::Phase& phase : burn.phases) {
    lines.push_back(Text(phase.label, " ", phase.percent, phase.is_done ? " done" : ""));
  }
  return lines;
}
