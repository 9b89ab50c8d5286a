#include "report/BurnResult.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "common/Json.h"
#include "common/Text.h"

namespace report {

using common::HexGuid;
using common::Text;

using common::Printable;

namespace {

constexpr int SCHEMA_VERSION = 1;

struct StatusText {
  const char* json;
  const char* human;
  const char* colour;
};

StatusText TextOf(DeviceStatus status) {
  switch (status) {
    case DeviceStatus::BURNT:
      return {"burnt", "burnt", "\033[32m"};
    case DeviceStatus::FAILED:
      return {"failed", "FAILED", "\033[31m"};
    case DeviceStatus::NEVER_REACHED:
      return {"never-reached", "never reached", "\033[33m"};
  }
  return {"", "", ""};
}

double Rounded(double seconds) { return std::round(seconds * 1000) / 1000; }

/// `text` without what means nothing in XML.
std::string WithoutControls(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7F') c = '?';
  }
  return text;
}

nlohmann::json OrNull(const std::string& text) {
  return text.empty() ? nlohmann::json() : nlohmann::json(text);
}

/// `text` as an attribute of XML 1.0, which forbids control characters, surrogates, U+FFFE and
/// U+FFFF; the text of a server may be any bytes.
std::string XmlText(const std::string& text) {
  std::string valid =
      nlohmann::json::parse(common::DumpJson(nlohmann::json(WithoutControls(text)), -1))
          .get<std::string>();  // as UTF-8, without surrogates
  for (const std::string_view forbidden : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"}) {
    for (std::size_t at = 0; (at = valid.find(forbidden, at)) != std::string::npos;) {
      valid.replace(at, forbidden.size(), "\xEF\xBF\xBD");
    }
  }
  std::string xml;
  for (const char c : valid) {
    switch (c) {
      case '&':
        xml += "&amp;";
        break;
      case '<':
        xml += "&lt;";
        break;
      case '>':
        xml += "&gt;";
        break;
      case '"':
        xml += "&quot;";
        break;
      default:
        xml += c;
    }
  }
  return xml;
}

}  // namespace

std::string ToJson(const RunReport& run) {
  const BurnReport& burn = run.burn;
  nlohmann::json devices = nlohmann::json::array();
  for (const DeviceReport& device : burn.devices) {
    devices.push_back({{"guid", HexGuid(device.guid)},
                       {"outcome", TextOf(device.status).json},
                       {"reason", OrNull(device.text)},
                       {"may_have_changed", device.may_have_changed}});
  }
  nlohmann::json phases = nlohmann::json::array();
  for (const Phase& phase : burn.phases) {
    nlohmann::json seconds;
    if (run.seconds) seconds = Rounded(phase.end - phase.start);
    phases.push_back({{"label", phase.label},
                      {"done", phase.is_done},
                      {"percent", phase.percent},
                      {"seconds", seconds}});
  }
  nlohmann::json json = {{"version", SCHEMA_VERSION},
                         {"all_burnt", burn.is_all_burnt},
                         {"succeeded", burn.is_succeeded},
                         {"failure", OrNull(burn.failure)},
                         {"command", run.words},
                         {"burns", run.burns},
                         {"burns_run", run.burns_run},
                         {"exit_status", nullptr},
                         {"signal", nullptr},
                         {"seconds", nullptr},
                         {"image", OrNull(burn.image)},
                         {"server", OrNull(burn.server)},
                         {"algorithm", OrNull(burn.algorithm)},
                         {"devices_known", burn.is_devices_known},
                         {"devices", devices},
                         {"phases", phases},
                         {"counts", nlohmann::json::object()},
                         {"warnings", burn.warnings}};
  for (const auto& [key, count] : burn.counts) json["counts"][key] = count;
  if (run.ending && run.ending->signal != 0) {
    json["signal"] = run.ending->signal;
  } else if (run.ending) {
    json["exit_status"] = run.ending->status;
  }
  if (run.seconds) json["seconds"] = Rounded(*run.seconds);
  return common::DumpJson(json) + "\n";
}

std::string ToJUnit(const RunReport& run) {
  const BurnReport& burn = run.burn;
  const std::string suite = XmlText(burn.algorithm.empty() ? "fwpush" : burn.algorithm);
  std::size_t failures = 0;
  std::size_t errors = 0;
  std::size_t tests = burn.devices.size();
  std::string cases;
  const auto add = [&](const std::string& name, const char* trouble, const std::string& text) {
    cases += "    <testcase classname=\"" + suite + "\" name=\"" + name + "\"";
    if (trouble == nullptr) {
      cases += "/>\n";
    } else {
      cases += Text(">\n      <", trouble, " message=\"", XmlText(text), "\"/>\n    </testcase>\n");
    }
  };
  // One test case a device. A device that was never reached is an error, not skipped: a skipped
  // test passes.
  for (const DeviceReport& device : burn.devices) {
    const bool is_failed = device.status == DeviceStatus::FAILED;
    const bool is_missed = device.status == DeviceStatus::NEVER_REACHED;
    failures += is_failed;
    errors += is_missed;
    add(HexGuid(device.guid),
        is_failed   ? "failure"
        : is_missed ? "error"
                    : nullptr,
        (is_missed ? "never reached: " : "") + device.text);
  }
  if (const bool is_told = failures + errors > 0;
      burn.devices.empty() || (!burn.is_all_burnt && !is_told)) {
    // A failed run must contain a failed test case.
    ++tests;
    errors += !burn.is_all_burnt;
    add("run", burn.is_all_burnt ? nullptr : "error",
        burn.failure.empty() ? "nothing was written" : burn.failure);
  }
  const std::string time = run.seconds ? Text(" time=\"", Rounded(*run.seconds), "\"") : "";
  return Text("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n  <testsuite name=\"",
              suite, "\" tests=\"", tests, "\" failures=\"", failures, "\" errors=\"", errors,
              "\" skipped=\"0\"", time, ">\n", cases, "  </testsuite>\n</testsuites>\n");
}

std::string Summary(const RunReport& run, bool has_colour) {
  const BurnReport& burn = run.burn;
  const auto count = [&burn](DeviceStatus status) {
    return std::ranges::count(burn.devices, status, &DeviceReport::status);
  };
  std::ostringstream out;
  out << "fwpush-report: " << (burn.algorithm.empty() ? "no algorithm" : Printable(burn.algorithm))
      << ", " << count(DeviceStatus::BURNT) << " burnt, " << count(DeviceStatus::FAILED)
      << " failed, " << count(DeviceStatus::NEVER_REACHED) << " never reached";
  if (run.seconds) out << ", " << std::fixed << std::setprecision(3) << *run.seconds << " s";
  if (run.burns > 1) {
    out << ", in ";
    if (run.burns_run < run.burns) out << run.burns_run << " of ";
    out << run.burns << " burns";
  }
  out << "\n";
  for (const DeviceReport& device : burn.devices) {
    const StatusText text = TextOf(device.status);
    out << "  " << HexGuid(device.guid) << "  " << (has_colour ? text.colour : "") << text.human
        << (has_colour ? "\033[0m" : "");
    if (!device.text.empty()) out << ": " << Printable(device.text);
    if (device.status == DeviceStatus::FAILED && !device.may_have_changed) {
      out << " (nothing was written)";
    }
    out << "\n";
  }
  if (!burn.is_devices_known) out << "  other devices may have been asked for\n";
  for (const Phase& phase : burn.phases) {
    out << "  " << Printable(phase.label);
    if (run.seconds) out << ": " << phase.end - phase.start << " s";
    if (!phase.is_done) out << ": stopped at " << phase.percent << " %";
    out << "\n";
  }
  if (!burn.is_succeeded) out << "  the run failed: " << Printable(burn.failure) << "\n";
  out << "  " << (burn.is_all_burnt ? "every device is burnt" : "NOT EVERY DEVICE IS BURNT")
      << "\n";
  return out.str();
}

}  // namespace report
