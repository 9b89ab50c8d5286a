#include "report/LineConsole.h"

#include <cstdint>
#include <iomanip>
#include <optional>

#include "common/Text.h"

namespace report {

namespace {

constexpr std::size_t LONGEST_METER = 1024;  ///< bytes; a drawing of it has less than 100

}  // namespace

std::string LineConsole::Feed(std::string_view piece) {
  std::string out;
  for (const char c : piece) {
    if (c == '\r') {
      EndSegment(out);
      _owes_line_end = _is_inside_line;
    } else if (c == '\n') {
      EndSegment(out);
      if (!_is_after_meter) out += '\n';  // a meter has its line already
      _is_after_meter = false;
      _is_inside_line = false;
      _owes_line_end = false;
    } else if (_is_passing) {
      Show({&c, 1}, out);
    } else {
      _segment += c;
    }
  }
  if (_segment.empty()) return out;
  if (_segment.size() > LONGEST_METER || !MayBecomeMeter(_segment)) {
    Show(_segment, out);
    _segment.clear();
    _is_passing = true;
  } else if (const std::size_t sign = _segment.rfind('%'); sign != std::string::npos) {
    // Shown as it comes: nothing more may come for long.
    constexpr std::size_t WHOLE = 3;  // the sign and two digits
    const auto frame = ReadMeter(_segment);
    if (frame && _segment.size() - sign >= WHOLE) ShowMeter(*frame, out);
  }
  return out;
}

std::string LineConsole::Finish() {
  std::string out;
  EndSegment(out);
  return out;
}

void LineConsole::EndSegment(std::string& out) {
  _is_passing = false;
  if (_segment.empty()) return;
  if (const auto frame = ReadMeter(_segment)) {
    ShowMeter(*frame, out);
    _is_after_meter = true;
  } else {
    Show(_segment, out);
  }
  _segment.clear();
}

void LineConsole::ShowMeter(const MeterFrame& frame, std::string& out) {
  constexpr std::uint32_t STEP = 10;  // per cent
  if (frame.GoesOn(_shown) && !frame.is_done && frame.percent / STEP == _shown.percent / STEP) {
    return;
  }
  _shown = frame;
  if (_is_inside_line) out += '\n';
  out += frame.label + " - " +
         (frame.is_done ? "OK" : common::Text("%", std::setw(2), frame.percent)) + "\n";
  _is_inside_line = false;
  _owes_line_end = false;
}

void LineConsole::Show(std::string_view text, std::string& out) {
  if (_owes_line_end) out += '\n';
  out += text;
  _is_inside_line = true;
  _owes_line_end = false;
  _is_after_meter = false;
}

}  // namespace report
