#include "serve/ChipWork.h"

#include <algorithm>
#include <utility>

namespace serve {

namespace {

/// Bytes of all jobs together that keep nobody waiting.
constexpr std::uint64_t MOST_QUICK = 0x10000;

}  // namespace

ChipWork::ChipWork(std::vector<Item> items) : _items(std::move(items)), _progress(_items.size()) {}

std::optional<Time> ChipWork::Step(System& system) {
  if (_begun < _items.size()) {
    Begin(system, _begun);
    ++_begun;
    return AT_ONCE;
  }
  const Time now = IsAnyWaiting() ? system.Now() : AT_ONCE;
  const auto chosen = Choose(now);
  if (!chosen) {
    CloseAll(system);
    return {};
  }
  Progress& progress = _progress[*chosen];
  if (progress.ready > now) return progress.ready;
  _last = *chosen;
  if (const auto ready = progress.steps->Step(system)) {
    progress.ready = *ready;
    return AT_ONCE;
  }
  progress.steps.reset();
  progress.is_over = true;
  // No chip behind it can be reached: to try each of them would take its time, and end like this.
  if (_items[*chosen].job.is_wire_stuck) EndAll(_items[*chosen].job.error);
  return AT_ONCE;
}

void ChipWork::Fail(System& system, const std::string& why) {
  // What is not known to be done is not done.
  for (std::size_t i = 0; i < _items.size(); ++i) {
    if (!_progress[i].is_over && _items[i].job.error.empty()) _items[i].job.error = why;
    _progress[i].steps.reset();
  }
  CloseAll(system);
}

bool ChipWork::IsQuick() const {
  std::uint64_t size = 0;
  for (const Item& item : _items) size += item.job.size;
  return size <= MOST_QUICK &&
         std::ranges::all_of(_items, [](const Item& item) { return item.memory->IsQuick(); });
}

void ChipWork::Begin(System& system, std::size_t index) {
  Item& item = _items[index];
  Progress& progress = _progress[index];
  const Access access = item.job.kind == Job::READ ? Access::READ : Access::WRITE;
  if (!item.memory->IsOpen(access)) {
    item.job.error = item.memory->Open(system, access);
    if (!item.job.error.empty()) return;
    progress.is_to_be_closed = access == Access::READ;
  }
  progress.steps = item.memory->Begin(item.job);
  progress.ready = AT_ONCE;
}

bool ChipWork::IsAnyWaiting() const {
  return std::ranges::any_of(_progress, [](const Progress& progress) {
    return progress.steps && progress.ready != AT_ONCE;
  });
}

std::optional<std::size_t> ChipWork::Choose(Time now) const {
  std::optional<std::size_t> chosen;
  const auto is_on_last_channel = [this](std::size_t i) {
    return _items[i].memory->Channel() == _items[_last].memory->Channel();
  };
  const auto is_better = [&](std::size_t i) {
    const bool is_ready = _progress[i].ready <= now;
    const bool was_ready = _progress[*chosen].ready <= now;
    if (is_ready != was_ready) return is_ready;
    if (is_ready && is_on_last_channel(i) != is_on_last_channel(*chosen)) {
      return is_on_last_channel(i);
    }
    return _progress[i].ready < _progress[*chosen].ready;
  };
  for (std::size_t i = 0; i < _items.size(); ++i) {
    if (_progress[i].steps && (!chosen || is_better(i))) chosen = i;
  }
  return chosen;
}

void ChipWork::EndAll(const std::string& error) {
  for (std::size_t i = 0; i < _items.size(); ++i) {
    if (!_progress[i].steps) continue;
    _progress[i].steps.reset();
    _items[i].job.error = error;
  }
}

void ChipWork::CloseAll(System& system) {
  for (std::size_t i = 0; i < _items.size(); ++i) {
    if (std::exchange(_progress[i].is_to_be_closed, false)) _items[i].memory->Close(system);
  }
}

}  // namespace serve
