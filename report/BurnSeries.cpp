#include "report/BurnSeries.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <span>
#include <utility>

#include "common/GuidList.h"
#include "common/Text.h"

namespace report {

namespace {

/// Lists of GUIDs, separated by commas, of up to `longest` bytes.
std::vector<PlannedBurn> Lists(const std::set<Guid>& guids, std::size_t longest, bool is_short) {
  std::vector<PlannedBurn> lists(1);
  std::string list;
  const auto keep = [&] { lists.back().words = {std::exchange(list, "")}; };
  for (const Guid guid : guids) {
    const std::string text = is_short ? common::Text(std::hex, guid) : common::HexGuid(guid);
    if (!list.empty() && list.size() + 1 + text.size() > longest) {
      keep();
      lists.emplace_back();
    }
    list += (list.empty() ? "" : ",") + text;
    lists.back().asked.insert(guid);
  }
  keep();
  return lists;
}

}  // namespace

std::size_t LongestArgument() {
  const long all = sysconf(_SC_ARG_MAX);
  if (all < 0) return LONGEST_ARGUMENT;
  std::size_t taken = 0;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    taken += strlen(*entry) + 1 + sizeof(*entry);
  }
  const std::size_t left =
      static_cast<std::size_t>(all) - std::min(taken, static_cast<std::size_t>(all));
  return std::min(LONGEST_ARGUMENT, left / 2);
}

std::vector<PlannedBurn> PlanBurns(const std::vector<std::string>& words, std::size_t longest) {
  if (words.empty()) return {{}};
  const auto arguments = std::span(words).subspan(1);
  const std::vector<GuidSwitch> switches = FindGuidSwitches(arguments);
  const auto is_file = [](const GuidSwitch& found) { return common::IsGuidFile(found.value); };
  if (std::ranges::none_of(switches, is_file)) return {{words, AskedDevices(arguments)}};

  std::set<Guid> guids;
  for (const GuidSwitch& found : switches) common::AddGuids(found.value, guids);
  std::vector<PlannedBurn> burns = Lists(guids, longest, false);
  if (burns.size() > 1) burns = Lists(guids, longest, true);
  for (PlannedBurn& burn : burns) {
    const std::string list = burn.words.front();
    burn.words = {words.front()};
    std::size_t next = 0;  // of the arguments
    for (const GuidSwitch& found : switches) {
      const auto before = arguments.subspan(next, found.first - next);
      burn.words.insert(burn.words.end(), before.begin(), before.end());
      if (&found == switches.data()) burn.words.insert(burn.words.end(), {"-g", list});
      next = found.end;
    }
    const auto rest = arguments.subspan(next);
    burn.words.insert(burn.words.end(), rest.begin(), rest.end());
  }
  return burns;
}

BurnReport Join(std::vector<BurnReport> burns, const NotStarted& not_started) {
  BurnReport all = std::move(burns.front());
  for (BurnReport& burn : std::span(burns).subspan(1)) {
    all.is_all_burnt &= burn.is_all_burnt;
    all.is_succeeded &= burn.is_succeeded;
    all.is_devices_known &= burn.is_devices_known;
    if (!burn.failure.empty()) all.failure += (all.failure.empty() ? "" : "; ") + burn.failure;
    std::ranges::move(burn.devices, std::back_inserter(all.devices));
    if (all.algorithm.empty()) all.algorithm = burn.algorithm;
    if (all.image.empty()) all.image = burn.image;
    if (all.server.empty()) all.server = burn.server;
    std::ranges::move(burn.phases, std::back_inserter(all.phases));
    for (const auto& [key, count] : burn.counts) all.counts[key] += count;
    for (std::string& warning : burn.warnings) {
      // About the image: each burn prints them again.
      if (std::ranges::find(all.warnings, warning) == all.warnings.end()) {
        all.warnings.push_back(std::move(warning));
      }
    }
  }
  for (const Guid guid : not_started.devices) {
    all.devices.push_back({.guid = guid,
                           .status = DeviceStatus::NEVER_REACHED,
                           .text = "not started: " + not_started.reason});
  }
  if (!not_started.reason.empty()) {
    all.is_all_burnt = false;
    if (all.is_succeeded) all.failure = "not all burns were started: " + not_started.reason;
    all.is_succeeded = false;
  }
  return all;
}

}  // namespace report
