#include "report/SeriesLog.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "common/Text.h"

namespace report {

namespace {

using common::HexGuid;
using common::Text;

constexpr std::string_view HEAD = "fwpush-report: burn ";
/// A mark is shorter: two GUIDs, three numbers and the words between them.
constexpr std::size_t LONGEST_MARK = 200;

bool MayBecomeMark(std::string_view text) {
  return text.size() <= LONGEST_MARK && HEAD.starts_with(text.substr(0, HEAD.size()));
}

template <typename Number>
Number ReadNumber(std::string_view digits, int base) {
  Number number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number, base);
  return number;
}

/// Throws where the marks are not those of one series from its first burn on.
void CheckMarks(const std::vector<SavedBurn>& saved) {
  const std::size_t burns = saved.front().mark->burns;
  for (std::size_t i = 0; i < saved.size(); ++i) {
    const BurnMark& mark = *saved[i].mark;
    if (mark.number == i + 1 && mark.number <= burns && mark.burns == burns &&
        mark.first <= mark.last && (i == 0 || saved[i - 1].mark->last < mark.first)) {
      continue;
    }
    throw std::runtime_error(
        Text("not the console of one series: \"", ToLine(mark), "\" does not belong there"));
  }
}

/// Those of `asked` that the burn had.
std::set<Guid> DevicesOf(const BurnMark& mark, const std::set<Guid>& asked) {
  std::set<Guid> devices(asked.lower_bound(mark.first), asked.upper_bound(mark.last));
  if (devices.size() != mark.devices) {
    throw std::runtime_error(Text("burn ", mark.number, " had ", mark.devices, " devices from ",
                                  HexGuid(mark.first), " to ", HexGuid(mark.last),
                                  "; the -g of the command has ", devices.size(), " of them"));
  }
  return devices;
}

}  // namespace

BurnMark MarkOf(const std::vector<PlannedBurn>& burns, std::size_t index) {
  const std::set<Guid>& devices = burns[index].asked;
  return {index + 1, burns.size(), devices.size(), *devices.begin(), *devices.rbegin()};
}

std::string ToLine(const BurnMark& mark) {
  return Text(HEAD, mark.number, " of ", mark.burns, ": ", mark.devices, " devices, ",
              HexGuid(mark.first), " to ", HexGuid(mark.last));
}

std::optional<BurnMark> ReadMark(std::string_view line) {
  // fwpush-report: burn 1 of 3: 7000 devices, 0x0000000000000010 to 0x0000000000001000
  const std::vector<std::string_view> words = common::Words(line, " ");
  if (words.size() != 10 || words[7].size() < 2 || words[9].size() < 2) return {};
  const BurnMark mark{ReadNumber<std::size_t>(words[2], 10), ReadNumber<std::size_t>(words[4], 10),
                      ReadNumber<std::size_t>(words[5], 10),
                      ReadNumber<Guid>(words[7].substr(2), 16),
                      ReadNumber<Guid>(words[9].substr(2), 16)};
  if (ToLine(mark) != line) return {};
  return mark;
}

MarkFinder::MarkFinder(TakeText take_text, TakeMark take_mark)
    : _take_text(std::move(take_text)), _take_mark(std::move(take_mark)) {}

void MarkFinder::Feed(std::string_view piece) {
  while (!piece.empty()) {
    const std::size_t end = piece.find('\n');
    const bool is_whole = end != std::string_view::npos;
    const std::string_view part = piece.substr(0, is_whole ? end + 1 : end);
    piece.remove_prefix(part.size());
    if (!_is_line_start) {
      _take_text(part);
      _is_line_start = is_whole;
      continue;
    }
    _held += part;
    if (!is_whole && MayBecomeMark(_held)) continue;
    if (const auto mark = is_whole ? ReadMark(std::string_view(_held).substr(0, _held.size() - 1))
                                   : std::nullopt) {
      _held.clear();
      _take_mark(*mark);
      continue;
    }
    Flush();
    _is_line_start = is_whole;
  }
}

void MarkFinder::Flush() {
  if (!_held.empty()) _take_text(std::exchange(_held, ""));
}

void MarkFinder::Finish() { Flush(); }

SeriesReport JudgeSavedBurns(std::vector<SavedBurn>& saved, const std::set<Guid>& asked,
                             std::size_t planned) {
  // The first part is what came before the first mark: nothing, in the log of a series.
  if (saved.size() == 1) {
    if (planned > 1) {
      throw std::runtime_error(
          Text("the devices need ", planned,
               " burns, and the log does not tell where each begins; --log keeps one that does"));
    }
    SeriesReport whole{.burn = saved.front().log.Conclude(asked)};
    whole.is_fwpush = saved.front().log.IsFwpush();
    return whole;
  }
  saved.front().log.Conclude({});
  if (saved.front().log.IsFwpush()) {
    throw std::runtime_error("another burn stands before the first one of the series");
  }
  saved.erase(saved.begin());
  CheckMarks(saved);

  const std::size_t burns = saved.front().mark->burns;
  const bool is_cut = saved.size() < burns;
  SeriesReport series{.burns = burns, .burns_run = saved.size(), .is_fwpush = false};
  std::vector<BurnReport> reports;
  std::set<Guid> left = asked;
  for (SavedBurn& burn : saved) {
    const std::set<Guid> devices = asked.empty() ? asked : DevicesOf(*burn.mark, asked);
    for (const Guid guid : devices) left.erase(guid);
    reports.push_back(burn.log.Conclude(devices));
    series.is_fwpush |= burn.log.IsFwpush();  // of a burn that was killed, there may be nothing
  }
  if (!left.empty() && (!is_cut || *left.begin() < saved.back().mark->last)) {
    throw std::runtime_error("no burn of the log had the device " + HexGuid(*left.begin()));
  }
  if (!is_cut) {
    series.burn = Join(std::move(reports));
  } else {
    const bool is_failed = !reports.back().is_succeeded;
    series.burn = Join(std::move(reports),
                       NotStarted{left, is_failed ? BURN_BEFORE_FAILED : "the log ends before it"});
  }
  return series;
}

}  // namespace report
