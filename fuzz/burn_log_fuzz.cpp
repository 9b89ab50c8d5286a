// A console of fwpush, or what somebody takes for one, in pieces of any size.
#include <algorithm>

#include "fuzz/Fuzz.h"
#include "report/BurnLog.h"

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  const u_int32_t step = 1 + input.Below(60);
  const bool has_asked = input.Below(2) == 1;
  const std::string_view text = input.Rest();
  const GuidSet asked = has_asked ? GuidSet{0x10, 0x20} : GuidSet();

  report::BurnLog in_steps;
  report::BurnLog at_once;
  for (std::size_t at = 0; at < text.size(); at += step) in_steps.Feed(text.substr(at, step));
  at_once.Feed(text);
  const report::BurnReport whole = in_steps.Conclude(asked);
  const report::BurnReport other = at_once.Conclude(asked);
  fuzz::Must(whole.is_all_burnt == other.is_all_burnt && whole.failure == other.failure &&
                 whole.devices.size() == other.devices.size() &&
                 whole.phases.size() == other.phases.size(),
             "it does not matter how a console comes");
  for (const report::DeviceReport& device : whole.devices) {
    fuzz::Must(!whole.is_all_burnt || device.status == report::DeviceStatus::BURNT,
               "all are burnt only where each is");
  }
  // A console may name others, too.
  for (const Guid guid : asked) {
    fuzz::Must(std::ranges::count(whole.devices, guid, &report::DeviceReport::guid) == 1,
               "every device asked for is told once");
  }
  return 0;
}
