/// Understands what fwpush prints: which devices it burnt, which it did not, and why. All texts
/// that are looked for stand in one table, so that a test can hold them against the program's
/// sources.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/ChildProcess.h"

namespace report {

using Guid = std::uint64_t;

/// What a line of the console tells.
enum class LineKind {
  TRACE,      ///< nothing that a report needs
  LOADED,     ///< the image file
  OPENING,    ///< the server
  ALGORITHM,  ///< its name
  QUERYING,   ///< a device
  COUNT,      ///< how many devices are in a certain state
  TO_WRITE,   ///< likewise, and those are written to before anything else tells so
  STARTING,   ///< from here on devices are written to
  UPDATING,   ///< the invariant sector is rewritten: a phase without a meter
  UPDATED,    ///< the end of that phase
  SUCCEEDED,  ///< the last line of a burn
  FAILED,     ///< a device or the whole run
  WARNING,
  REFUSED,  ///< the command line is wrong; the text says how
  METER,    ///< how a meter's label begins
};

/// What a line leaves the number base of the console at: some counts come in hexadecimal.
enum class Base { KEPT, DEC, HEX };

/// A text of fwpush: a line that begins with `head` and has `tail` after it, with the variable part
/// in between.
struct TextRow {
  LineKind kind;
  std::string_view unit;  ///< of a debug line: the one that prints it; empty for other lines
  std::string_view head;  ///< of a debug line: of its text
  std::string_view tail = "";
  Base leaves = Base::KEPT;
  std::string_view key = "";  ///< a count's name in reports
};
std::span<const TextRow> Texts();

/// A switch of fwpush, in the order in which its words are tried on them.
struct SwitchText {
  std::string_view name;
  bool takes_value;
};
std::span<const SwitchText> SwitchTexts();

/// A -g on the command line of fwpush, which takes [first, end) of its words.
struct GuidSwitch {
  std::size_t first;
  std::size_t end;
  std::string value;  ///< empty where it is missing
};
/// All of them, by fwpush's own rules. `words` do not hold the program's name.
std::vector<GuidSwitch> FindGuidSwitches(std::span<const std::string> words);

/// The devices that a command line asks fwpush for: those of every -g, by fwpush's own rules.
/// `words` do not hold the program's name. Words that fwpush would refuse are passed over, so that
/// the devices of a wrong command line are known too, and those behind a wrapper such as sudo.
std::set<Guid> AskedDevices(std::span<const std::string> words);

/// One drawing of a progress meter.
struct MeterFrame {
  std::string label;          ///< without the blanks that align it
  std::uint32_t percent = 0;  ///< 100 when done
  bool is_done = false;

  /// Whether this is a later drawing of the phase of which `before` was drawn.
  bool GoesOn(const MeterFrame& before) const;
};
/// What `text`, a piece of the console between carriage returns and line ends, draws.
std::optional<MeterFrame> ReadMeter(std::string_view text);
/// Whether `text`, the beginning of such a piece, may be that of a drawing.
bool MayBecomeMeter(std::string_view text);

/// A stretch of a burn that has a label: what was shown of it last, and when, in the seconds that
/// BurnLog::Feed was given.
struct Phase : MeterFrame {
  double start = 0;
  double end = 0;
};

enum class DeviceStatus {
  BURNT,
  FAILED,
  NEVER_REACHED,  ///< nothing has been written to it
};

struct DeviceReport {
  Guid guid = 0;
  DeviceStatus status = DeviceStatus::NEVER_REACHED;
  std::string text;               ///< why it is not burnt; empty when it is
  bool may_have_changed = false;  ///< false: nothing had been written when it failed
};

/// How the program ended; a log does not tell.
using common::Ending;

struct BurnReport {
  bool is_all_burnt = false;      ///< every device asked for
  bool is_succeeded = false;      ///< the run itself, as fwpush sees it
  std::string failure;            ///< of the run; empty when it succeeded
  bool is_devices_known = false;  ///< false: `devices` are those that the log happens to name
  std::vector<DeviceReport> devices;
  std::string algorithm;  ///< empty when it was not chosen any more; `image` and `server` likewise
  std::string image;
  std::string server;
  std::vector<Phase> phases;
  std::map<std::string, std::uint64_t> counts;
  std::vector<std::string> warnings;
};

/// Reads the console of one run as it comes.
class BurnLog {
 public:
  /// The longest line of a server that fwpush takes, in bytes.
  static constexpr std::size_t LONGEST_SERVER_LINE = std::size_t{1} << 24;
  /// Bytes of a line that are looked at: twice those of a server's line, which fwpush may quote.
  static constexpr std::size_t LONGEST_LINE = 2 * LONGEST_SERVER_LINE;

  /// Takes the next piece, cut anywhere, that came `when`: in seconds, from any start, never less
  /// than before.
  void Feed(std::string_view piece, double when = 0);

  /// Whether anything that fwpush prints has been seen; of a last line without an end, Conclude
  /// takes note.
  bool IsFwpush() const { return _is_fwpush; }
  /// Whether a line was longer than LONGEST_LINE: fwpush prints none.
  bool IsOverlong() const { return _is_overlong; }

  /// What became of the devices in `asked`, now that nothing more comes; where that is empty, of
  /// those that the log names.
  BurnReport Conclude(const std::set<Guid>& asked, const std::optional<Ending>& ending = {});

 private:
  struct Failure {
    std::string text;
    bool may_have_changed = false;
  };

  void EndSegment();
  void Take(std::string_view segment);
  void TakeMeter(const MeterFrame& frame);
  void TakeFailure(std::string_view text);
  void TakeCount(const TextRow& row, std::string_view number);
  void StartPhase(const std::string& label);
  std::string RunFailure(const std::optional<Ending>& ending) const;

  std::string _segment;  ///< since the last carriage return or line end, LONGEST_LINE at most
  bool _is_overlong = false;
  double _last = 0;            ///< when the last byte came
  double _before_segment = 0;  ///< when the last byte before the segment came
  bool _is_fwpush = false;
  bool _is_hex = false;         ///< the number base of the console
  bool _has_started = false;    ///< devices may have been written to
  bool _has_succeeded = false;  ///< and nothing of fwpush's has come since
  std::map<Guid, Failure> _failures;
  std::vector<std::string> _run_failures;    ///< of all devices
  bool _has_started_by_run_failure = false;  ///< when the first of them came
  std::vector<std::string> _refusals;
  std::set<Guid> _named;
  BurnReport _report;  ///< what of it can be told before the end
};

}  // namespace report
