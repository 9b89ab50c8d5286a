#include "rehearse/UninterruptedBurn.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "common/Text.h"

namespace rehearse {

namespace {

constexpr char BAD_IMAGE[] = "the burnt slot does not hold a valid new image";
constexpr char LONG_FIRST[] = "the old first image reaches into the second slot";
constexpr char NO_ORDER[] = "the order of writes leaves no image that boots";

}  // namespace

UninterruptedBurn::UninterruptedBurn(const RehearsedDevices& devices, const Burner& burner,
                                     RehearsalReport& report)
    : _devices(devices) {
  sim::Fabric fabric;
  devices.CopyTo(fabric);
  std::atomic<std::size_t> requests{0};
  fabric.observer = [&](const sim::Operation& operation) { _log.Add(operation, requests + 1); };
  const Run run = burner.Burn(fabric, requests);
  _requests = requests;
  constexpr std::string_view RUNNING = "Running burn algorithm: ";
  if (const std::size_t at = run.console.find(RUNNING); at != std::string::npos) {
    const std::size_t name = at + RUNNING.size();
    _algorithm = run.console.substr(name, run.console.find('\n', name) - name);
  }
  report.algorithm = _algorithm;
  report.requests = _requests;
  report.writes = _log.Count(sim::Operation::PROGRAM);
  report.erases = _log.Count(sim::Operation::ERASE);
  if (!run.is_well) throw BurnFails(run);
  _has_moved = run.console.find("Moving image position") != std::string::npos;
  for (const device::Guid guid : devices.Guids()) {
    if (!devices.BootsAtStart(guid)) continue;
    const device::Judge judge = devices.JudgeOn(fabric, guid);
    const device::Verdict end = judge.CurrentVerdict();
    // A torn write may only show a wrong order when the next burn is interrupted, too.
    const std::string disorder = IsPlain() ? "" : devices.OrderErrorOf(guid, _log.Of(guid));
    if (!disorder.empty()) {
      report.Add({.device = guid,
                  .step = "the order of writes",
                  .state = Describe(end),
                  .reason = "it " + disorder});
    }
    if (devices.IsBurnt(end)) continue;
    _wrong_ends.emplace(guid, judge);
    report.Add({.device = guid,
                .step = "the end of the burn",
                .state = Describe(end),
                .reason = ReasonForEnd(guid, end, run.console)});
  }
}

void UninterruptedBurn::Replay(sim::Fabric& fabric, std::optional<std::size_t> point,
                               unsigned seed) const {
  std::optional<OperationLog::Place> place;
  if (point) place.emplace(_log.Locate(*point));
  for (const auto& [guid, log] : _log.All()) {
    const bool loses_power = place && guid == place->guid;
    _log.Replay(*fabric.Find(guid), loses_power ? place->cuts + 1 : SIZE_MAX, seed);
  }
}

std::string UninterruptedBurn::ReasonForEnd(device::Guid guid, const device::Verdict& end,
                                            const std::string& console) const {
  const std::string failure = "BURN FAILED:" + common::HexGuid(guid) + ":";
  if (const std::size_t at = console.find(failure); at != std::string::npos) {
    const std::size_t text = at + failure.size();
    return "the burn failed on it: " + console.substr(text, console.find('\n', text) - text);
  }
  if (!_devices.HasBootRecords() || IsPlain()) {
    return BAD_IMAGE;
  }
  return end.CountInvalid() > 0
             ? "the image's own boot record is not valid in each slot"
             : "a CRC covers the first word of the boot record, which is held back";
}

std::string UninterruptedBurn::ReasonFor(device::Guid guid, const device::Judge& now,
                                         bool is_torn_record) const {
  const device::Verdict verdict = now.CurrentVerdict();
  if (IsPlain()) return "the burn is not failsafe: it overwrites the image that boots";
  if (!verdict.invariant_is_whole) {
    return "the invariant sector was being rewritten; the device has only one";
  }
  if (_devices.JudgeOf(guid).CurrentVerdict().HasBroken()) {
    return "a slot was marked valid before the burn, and its image was not whole";
  }
  return _devices.HasBootRecords() ? ReasonWithBootRecords(guid, now, is_torn_record)
                                   : ReasonWithPointerSectors(guid, now);
}

device::View UninterruptedBurn::RecordIn(const device::Judge& judge, device::Guid guid,
                                         std::uint32_t slot) const {
  const device::BootLayout layout = _devices.LayoutOf(guid);
  return judge.Bytes().subspan(layout.records[slot], layout.RecordSize());
}

/// Whether the burn is done with a slot: it has written the record with which it ends.
bool UninterruptedBurn::HasBurntSlot(device::Guid guid, const device::Judge& now,
                                     std::uint32_t slot) const {
  const device::View record = RecordIn(now, guid, slot);
  return std::ranges::equal(record, RecordIn(_wrong_ends.at(guid), guid, slot)) &&
         !std::ranges::equal(record, RecordIn(_devices.JudgeOf(guid), guid, slot));
}

std::string UninterruptedBurn::ReasonWithPointerSectors(device::Guid guid,
                                                        const device::Judge& now) const {
  const device::Judge& before = _devices.JudgeOf(guid);
  const device::Verdict verdict = now.CurrentVerdict();
  const bool ends_well = !_wrong_ends.contains(guid);
  for (std::uint32_t slot = 0; !ends_well && slot < device::SLOTS; ++slot) {
    if (verdict.slots[slot].BootsBroken() && HasBurntSlot(guid, now, slot)) return BAD_IMAGE;
  }
  for (std::uint32_t slot = 0; slot < device::SLOTS; ++slot) {
    if (before.IsSigned(slot) && !before.Boots(slot)) {
      return "a record had a signature and a wrong CRC before the burn: the burn checks only "
             "the signature";
    }
  }
  // With no slot left, the last thing that was done was to give up the old image for the new one.
  if (!ends_well && !verdict.Boots() && verdict == _wrong_ends.at(guid).CurrentVerdict()) {
    return BAD_IMAGE;
  }
  if (const auto record = before.ShortRecordOf(1);
      _has_moved && verdict.slots[0].BootsBroken() && record) {
    return "the second image was moved by its record, and only a part of it was copied: " +
           device::Describe(*record);
  }
  if (_has_moved && verdict.slots[1].BootsBroken()) {
    return "the copy of the second image overlaps the second image, the only valid one";
  }
  if (verdict.slots[0].BootsBroken() && before.Boots(0)) {
    return LONG_FIRST;
  }
  if (verdict.slots[1].BootsBroken()) return "the new first image reaches into the second slot";
  return NO_ORDER;
}

std::string UninterruptedBurn::ReasonWithBootRecords(device::Guid guid, const device::Judge& now,
                                                     bool is_torn_record) const {
  if (!EndsWell()) return "not every burnt slot holds a valid new image";
  const device::Verdict verdict = now.CurrentVerdict();
  if (verdict.slots[0].BootsBroken() &&
      std::ranges::equal(RecordIn(now, guid, 0), RecordIn(_devices.JudgeOf(guid), guid, 0))) {
    return LONG_FIRST;
  }
  // A record of whole words adds up because the burn made it so.
  return verdict.HasBroken() && is_torn_record ? MIX_ADDS_UP : NO_ORDER;
}

}  // namespace rehearse
