#include "hardware/Power.h"

#include <algorithm>
#include <array>
#include <utility>

namespace hardware {

namespace {

device::Tear RandomTear(std::size_t size, Power::Random& random) {
  device::Tear tear{.word = static_cast<std::size_t>(random() % device::WordsIn(size))};
  for (auto& done : tear.done) done = static_cast<std::uint8_t>(random());
  return tear;
}

/// Applies `program` to the `size` cells of `page` from `at`, wrapping, as if they stood in a row.
template <typename ProgramRow>
void OnWrapped(device::Cells page, std::size_t at, std::size_t size, ProgramRow program) {
  device::Bytes row(size);
  for (std::size_t i = 0; i < size; ++i) row[i] = page[(at + i) % page.size()];
  program(device::Cells(row));
  for (std::size_t i = 0; i < size; ++i) page[(at + i) % page.size()] = row[i];
}

}  // namespace

void Power::CutNow(std::uint64_t seed) {
  _random.seed(seed);
  Cut();
}

void Power::TurnOn() {
  _is_on = true;
  _last_change = 0;
}

void Power::Program(device::MemoryKind kind, device::Cells page, std::size_t at, device::View bytes,
                    Time takes) {
  const device::Bytes wanted(bytes.begin(), bytes.end());
  const auto whole = [=](device::Cells cells) {
    OnWrapped(cells, at, wanted.size(),
              [&](device::Cells row) { device::Program(kind, row, wanted); });
  };
  const auto torn = [=](device::Cells cells, Random& random) {
    const device::Tear tear = RandomTear(wanted.size(), random);
    OnWrapped(cells, at, wanted.size(),
              [&](device::Cells row) { device::ProgramTorn(kind, row, wanted, tear); });
  };
  if (bytes.empty()) return;
  if (_is_on && _before_change) _before_change({page, false, at, bytes});
  Do({page, _clock.Now(), _clock.Now() + takes, whole, torn, {}});
}

void Power::Erase(device::Cells sector, Time takes) {
  const auto torn = [](device::Cells cells, Random& random) {
    device::EraseTorn(cells, [&](std::size_t) { return random() % 2 == 0; });
  };
  if (_is_on && _before_change) _before_change({sector, true, 0, {}});
  Do({sector, _clock.Now(), _clock.Now() + takes, device::Erase, torn, {}});
}

void Power::Plan(std::uint64_t n, bool is_inside, std::uint64_t seed) {
  _last_change = _changes + n;
  _is_cut_inside = is_inside;
  _random.seed(seed);
}

void Power::Do(Change change) {
  if (!_is_on) return;
  std::erase_if(_lasting, [&](const Change& earlier) { return earlier.end <= _clock.LoopTime(); });
  ++_changes;
  if (_changes != _last_change) {
    if (change.begin == change.end) {
      change.whole(change.cells);
      return;
    }
    change.before.assign(change.cells.begin(), change.cells.end());
    change.whole(change.cells);
    _lasting.push_back(std::move(change));
    return;
  }
  Cut();
  if (_is_cut_inside) {
    change.torn(change.cells, _random);
  } else {
    change.whole(change.cells);
  }
}

void Power::Cut() {
  // The last one first: cells that two of them touch go back to what they held before both.
  for (auto change = _lasting.rbegin(); change != _lasting.rend(); ++change) {
    if (change->end <= _clock.Now()) continue;
    std::ranges::copy(change->before, change->cells.begin());
    if (change->begin < _clock.Now()) change->torn(change->cells, _random);
  }
  _lasting.clear();
  _is_on = false;
  if (_when_cut) _when_cut(_random);
}

}  // namespace hardware
