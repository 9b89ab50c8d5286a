#include "report/BurnLog.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include "common/Text.h"

namespace report {

using common::Text;

namespace {

using enum LineKind;

constexpr std::string_view MAIN = "main";
constexpr std::string_view ROM = "RomInterface";
constexpr std::string_view BURN = "BurnAlgorithm";

// What counts are called in reports.
constexpr std::string_view TOTAL = "total";
constexpr std::string_view BOTH_VALID = "both_valid";
constexpr std::string_view NONE_VALID = "none_valid";
constexpr std::string_view FIRST_VALID = "first_only_valid";
constexpr std::string_view SECOND_VALID = "second_only_valid";

/// Where one head begins like another, the longer one stands first.
constexpr auto TEXTS = std::to_array<TextRow>({
    {LOADED, "", " FwImage Status (loaded from ", "):"},
    {TRACE, MAIN, "GetRomInterface, using chunks of ", " bytes", Base::DEC},
    {TRACE, MAIN, "Setting addr convertor."},
    {OPENING, MAIN, "Openning rom interface (", ")."},
    {TRACE, MAIN, "GetBurnAlgorithm()"},
    {ALGORITHM, MAIN, "Running burn algorithm: "},
    {TRACE, ROM, "RemoteRomInterface::Open() ", ": Error quering vsMultiMaxGet. Using 1. ",
     Base::DEC},
    {TRACE, ROM, "Interface verson of server ", ": ", Base::DEC},
    {TRACE, ROM, "Flash size: ", ", sector size: ", Base::HEX},
    {TRACE, ROM, "Received "},
    {QUERYING, ROM, "Querying device ", ", addr ", Base::DEC},
    {TRACE, BURN, "LessThan() : dw1 = ", " , dw2 = ", Base::HEX},
    {TRACE, BURN, "Reading signatures, fw size, fw addr for all devices."},
    {TRACE, BURN, "Repairing device ", "", Base::HEX},
    {TRACE, BURN, "Read PS from addr:", " - Addr: ", Base::HEX},
    {TRACE, BURN, "Reading image from addr: ", ", Size: "},
    {TRACE, BURN, "Checksum is: ", "", Base::HEX},
    {COUNT, "", "-I- Changes in invariant sector detected for ", " devices.", Base::KEPT,
     "changed_invariant_sector"},
    {UPDATING, "", "-I- Updating invariant sector (non failsafe) ... "},
    {UPDATED, "", " Done."},
    {COUNT, "", "-I- Total devices:      ", "", Base::KEPT, TOTAL},
    {TO_WRITE, "", "-I- Both images valid:  ", "", Base::KEPT, BOTH_VALID},
    {COUNT, "", "-I- No image valid:     ", "", Base::KEPT, NONE_VALID},
    {COUNT, "", "-I- First  image valid: ", "", Base::KEPT, FIRST_VALID},
    {COUNT, "", "-I- Second image valid: ", "", Base::KEPT, SECOND_VALID},
    {STARTING, "", "-I- Device: ",
     ": New image too big to fit as first image. Moving image position on the device", Base::HEX},
    {STARTING, "", "-I- Copying device image from address ", " to ", Base::HEX},
    {STARTING, "", "-I- Burning new FW to ", " device(s)."},
    {COUNT, "", "-I- Total devices:   ", "", Base::KEPT, TOTAL},
    {TO_WRITE, "", "-I- Both valid:      ", "", Base::KEPT, BOTH_VALID},
    {TO_WRITE, "", "-I- Frst only valid: ", "", Base::KEPT, FIRST_VALID},
    {TO_WRITE, "", "-I- Scnd only valid: ", "", Base::KEPT, SECOND_VALID},
    {STARTING, "", "-I- Generic Burning:"},
    {METER, "", "Burning "},
    {METER, "", "Validating "},
    {METER, "", "Invalidating "},
    {SUCCEEDED, "", "-I- BURN SUCCEEDED"},
    {FAILED, "", "-E- BURN FAILED:", "", Base::HEX},
    {WARNING, "", "-W- *** REPLACES OF TYPE ", " ARE IGNORED FOR DEVICE TYPE ", Base::DEC},
    {WARNING, "", "-W- Setting verbosity to ", " ignored (not yet implemented)"},
    {REFUSED, "", "-E- -s <server> flag must be specified"},
    {REFUSED, "", "-E- No target devices given (-g <guids> flag)."},
    {REFUSED, "", "FW image file may be specified onyl once."},
    {TRACE, "", "New FW image file: \"", "\", Old FW image file: \""},
    {REFUSED, "", "Unexpected parameter \"", "\" is specified."},
    {REFUSED, "", "Invalid switch \"", "\" is specified."},
    {REFUSED, "", "Missed parameter after \"-", "\" switch"},
    {REFUSED, "", "Bad argument to -m flag"},
    {REFUSED, "", "Illegal value to -m flag: "},
    {TRACE, "", "fwpush ", ", BRAID "},
    {TRACE, "", "     FirmWare Burning Tool"},
});

constexpr auto SWITCHES = std::to_array<SwitchText>({
    {"f", true},
    {"s", true},
    {"g", true},
    {"version", false},
    {"vv", false},
    {"n", false},
    {"l", false},
    {"m", true},
    {"V", true},
    {"help", false},
    {"D", false},
    {"d", false},
    {"c", false},
});

constexpr std::string_view GUIDS_SWITCH = "g";
constexpr std::string_view ALL_DEVICES = "ALL";
constexpr std::string_view UPDATING_LABEL = "Updating invariant sector";
constexpr std::uint32_t DONE_PERCENT = 100;

template <typename Number>
std::optional<Number> WholeNumber(std::string_view digits, int base) {
  Number number = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, number, base);
  if (error != std::errc() || stop != end) return {};
  return number;
}

/// The first row that `line` fits, with the variable part of the line; null when none does.
struct Match {
  const TextRow* row = nullptr;
  std::string_view rest;
};

Match FindText(std::string_view line) {
  std::string_view unit;
  if (constexpr std::string_view DEBUG = "-D- "; line.starts_with(DEBUG)) {
    const std::size_t unit_end = std::min(line.find(':'), line.size() - 1);
    const std::size_t number_end = line.find(": ", unit_end + 1);
    if (number_end == std::string_view::npos) return {};
    const std::string_view number = line.substr(unit_end + 1, number_end - unit_end - 1);
    if (!WholeNumber<std::uint32_t>(number, 10)) return {};
    unit = line.substr(DEBUG.size(), unit_end - DEBUG.size());
    line.remove_prefix(number_end + 2);
  }
  for (const TextRow& row : TEXTS) {
    if (row.kind == METER || row.unit != unit || !line.starts_with(row.head)) continue;
    std::string_view rest = line.substr(row.head.size());
    if (!row.tail.empty()) {
      const std::size_t tail = rest.rfind(row.tail);
      if (tail == std::string_view::npos) continue;
      rest = rest.substr(0, tail);
    }
    return {&row, rest};
  }
  return {};
}

/// `text` with single blanks, and none at its ends.
std::string WithoutPadding(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c != ' ' || (!result.empty() && result.back() != ' ')) result += c;
  }
  if (result.ends_with(' ')) result.pop_back();
  return result;
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : "; ") + text;
  return all;
}

/// What follows the spinner in a drawing of a meter.
std::string_view WithoutSpinner(std::string_view text) {
  constexpr std::string_view SPINNER = "-\\|/";
  const bool has_spinner = !text.empty() && SPINNER.find(text[0]) != std::string_view::npos &&
                           (text.size() == 1 || text[1] == ' ');
  return has_spinner ? text.substr(std::min<std::size_t>(text.size(), 2)) : text;
}

}  // namespace

std::span<const TextRow> Texts() { return TEXTS; }

std::span<const SwitchText> SwitchTexts() { return SWITCHES; }

std::vector<GuidSwitch> FindGuidSwitches(std::span<const std::string> words) {
  std::vector<GuidSwitch> found;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (!words[i].starts_with('-')) continue;
    std::string_view word = words[i];
    word.remove_prefix(std::min(word.find_first_not_of('-'), word.size()));
    const auto row = std::ranges::find_if(SWITCHES, [word](const SwitchText& candidate) {
      return candidate.name.starts_with(word.substr(0, word.find('=')));
    });
    if (row == SWITCHES.end() || !row->takes_value) continue;
    GuidSwitch guids{.first = i, .end = i + 1, .value = {}};
    if (const std::size_t equals = word.find('='); equals != std::string_view::npos) {
      guids.value = word.substr(equals + 1);
    } else if (++i < words.size()) {
      guids.value = words[i];
      guids.end = i + 1;
    }
    if (row->name == GUIDS_SWITCH) found.push_back(std::move(guids));
  }
  return found;
}

std::set<Guid> AskedDevices(std::span<const std::string> words) {
  std::set<Guid> asked;
  for (const GuidSwitch& guids : FindGuidSwitches(words)) {
    try {
      common::ParseGuids(guids.value, asked);
    } catch (const std::runtime_error&) {
      // fwpush stops there and burns nothing; those before the wrong one were asked for all the
      // same.
    }
  }
  return asked;
}

std::optional<MeterFrame> ReadMeter(std::string_view text) {
  constexpr std::string_view SEPARATOR = " - ";
  text = WithoutSpinner(text);
  const bool is_known = std::ranges::any_of(TEXTS, [text](const TextRow& row) {
    return row.kind == METER && text.starts_with(row.head);
  });
  const std::size_t separator = text.rfind(SEPARATOR);
  if (!is_known || separator == std::string_view::npos) return {};
  MeterFrame frame{WithoutPadding(text.substr(0, separator))};
  const std::string state = WithoutPadding(text.substr(separator + SEPARATOR.size()));
  if (state == "OK") {
    frame.percent = DONE_PERCENT;
    frame.is_done = true;
    return frame;
  }
  if (!state.starts_with('%')) return {};
  const auto percent = WholeNumber<std::uint32_t>(WithoutPadding(state.substr(1)), 10);
  if (!percent) return {};
  frame.percent = *percent;
  return frame;
}

bool MeterFrame::GoesOn(const MeterFrame& before) const {
  return !before.is_done && label == before.label && (is_done || percent >= before.percent);
}

bool MayBecomeMeter(std::string_view text) {
  text = WithoutSpinner(text);
  return std::ranges::any_of(TEXTS, [text](const TextRow& row) {
    return row.kind == METER && row.head.starts_with(text.substr(0, row.head.size()));
  });
}

void BurnLog::Feed(std::string_view piece, double when) {
  for (const char c : piece) {
    // A carriage return belongs to what it lets overwrite, a line end to what it ends.
    if (c == '\r') EndSegment();
    _last = when;
    if (c == '\n') {
      EndSegment();
    } else if (c != '\r') {
      if (_segment.size() < LONGEST_LINE) {
        _segment += c;
      } else {
        _is_overlong = true;
      }
    }
  }
}

void BurnLog::EndSegment() {
  if (!_segment.empty()) Take(_segment);
  _segment.clear();
  _before_segment = _last;
}

void BurnLog::Take(std::string_view segment) {
  if (const auto frame = ReadMeter(segment)) {
    TakeMeter(*frame);
    return;
  }
  const auto [row, rest] = FindText(segment);
  if (row == nullptr) return;
  _is_fwpush = true;
  _has_succeeded = false;
  switch (row->kind) {
    case LOADED:
      _report.image = rest;
      break;
    case OPENING:
      _report.server = rest;
      break;
    case ALGORITHM:
      _report.algorithm = rest;
      break;
    case QUERYING:
      if (const auto guid = WholeNumber<Guid>(rest, 16)) _named.insert(*guid);
      break;
    case COUNT:
    case TO_WRITE:
      TakeCount(*row, rest);
      break;
    case STARTING:
      _has_started = true;
      break;
    case UPDATING:
      StartPhase(std::string(UPDATING_LABEL));
      if (!rest.empty()) Take(rest);
      break;
    case UPDATED:
      if (!_report.phases.empty() && _report.phases.back().label == UPDATING_LABEL) {
        Phase& phase = _report.phases.back();
        phase.percent = DONE_PERCENT;
        phase.is_done = true;
        phase.end = _last;
      }
      break;
    case SUCCEEDED:
      _has_succeeded = true;
      break;
    case FAILED:
      TakeFailure(rest);
      break;
    case WARNING:
      _report.warnings.emplace_back(segment.substr(segment.find(' ') + 1));
      break;
    case REFUSED:
      _refusals.emplace_back(segment);
      break;
    case TRACE:
    case METER:
      break;
  }
  if (row->leaves != Base::KEPT) _is_hex = row->leaves == Base::HEX;
}

void BurnLog::TakeMeter(const MeterFrame& frame) {
  _has_succeeded = false;
  std::vector<Phase>& phases = _report.phases;
  if (phases.empty() || !frame.GoesOn(phases.back())) StartPhase(frame.label);
  Phase& phase = phases.back();
  phase.percent = frame.percent;
  phase.is_done = frame.is_done;
  phase.end = _last;
  if (!frame.is_done) _is_hex = false;
}

void BurnLog::StartPhase(const std::string& label) {
  _has_started = true;
  // Some meters show up only after their first bytes: the work began with what was printed before.
  _report.phases.push_back({{.label = label}, _before_segment, _last});
}

void BurnLog::TakeCount(const TextRow& row, std::string_view number) {
  const auto count = WholeNumber<std::uint64_t>(number, _is_hex ? 16 : 10);
  if (!count) return;
  _report.counts[std::string(row.key)] = *count;
  if (row.kind == TO_WRITE && *count > 0) _has_started = true;
}

void BurnLog::TakeFailure(std::string_view text) {
  const std::size_t colon = text.find(':');
  const std::string_view who = text.substr(0, colon);
  const std::string reason(text.substr(colon + 1));
  constexpr std::size_t GUID_SIZE = 18;  // "0x" and 16 digits
  const auto guid = who.starts_with("0x") && who.size() == GUID_SIZE
                        ? WholeNumber<Guid>(who.substr(2), 16)
                        : std::nullopt;
  if (!guid) {
    // Whatever it names: somebody has failed.
    _run_failures.push_back(who == ALL_DEVICES ? reason : std::string(text));
    if (_run_failures.size() == 1) _has_started_by_run_failure = _has_started;
    return;
  }
  const auto [failure, is_new] = _failures.try_emplace(*guid, Failure{reason, _has_started});
  if (!is_new && failure->second.text != reason) failure->second.text += "; " + reason;
}

std::string BurnLog::RunFailure(const std::optional<Ending>& ending) const {
  std::vector<std::string> reasons = _run_failures;
  reasons.insert(reasons.end(), _refusals.begin(), _refusals.end());
  if (ending && ending->signal != 0) {
    reasons.push_back(Text("the burner was ended by signal ", ending->signal, " (",
                           strsignal(ending->signal), ")"));
  } else if (ending && ending->status != 0 && reasons.empty()) {
    reasons.push_back(Text("the burner ended with status ", ending->status));
  } else if (!_has_succeeded && reasons.empty()) {
    reasons.emplace_back(ending ? "the burner ended without a burn"
                                : "the log ends before the burn does");
  }
  return Joined(reasons);
}

BurnReport BurnLog::Conclude(const std::set<Guid>& asked, const std::optional<Ending>& ending) {
  EndSegment();
  if (asked.contains(0) && _has_succeeded && !_run_failures.empty()) {
    // GUID 0 is printed as all devices; all devices have not failed.
    _failures[0] = {Joined(_run_failures), _has_started_by_run_failure};
    _run_failures.clear();
  }
  BurnReport report = _report;
  report.failure = RunFailure(ending);
  report.is_succeeded = report.failure.empty();
  report.is_devices_known = !asked.empty();
  // A check, or an image without content, succeeds and leaves the devices as they were.
  const bool has_written = std::ranges::any_of(
      report.phases, [](const Phase& phase) { return phase.is_done || phase.percent > 0; });

  std::set<Guid> guids = asked.empty() ? _named : asked;
  for (const auto& [guid, failure] : _failures) guids.insert(guid);
  report.is_all_burnt = report.is_succeeded && has_written;
  for (const Guid guid : guids) {
    DeviceReport device;
    device.guid = guid;
    if (const auto failed = _failures.find(guid); failed != _failures.end()) {
      device.status = DeviceStatus::FAILED;
      device.text = failed->second.text;
      device.may_have_changed = failed->second.may_have_changed;
    } else if (report.is_succeeded && has_written) {
      device.status = DeviceStatus::BURNT;
      device.may_have_changed = true;
    } else if (!report.is_succeeded && _has_started) {
      device.status = DeviceStatus::FAILED;
      device.text = report.failure;
      device.may_have_changed = true;
    } else {
      device.text = report.is_succeeded ? "nothing was written" : report.failure;
    }
    report.is_all_burnt = report.is_all_burnt && device.status == DeviceStatus::BURNT;
    report.devices.push_back(device);
  }
  return report;
}

}  // namespace report
