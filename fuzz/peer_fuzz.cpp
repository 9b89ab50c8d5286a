// A burn whose server says what it likes, byte for byte: how its connection behaves, an image, a
// line "====", then what is sent in the places of right frames, each ended by a line "~". Of each,
// the first byte tells which frame, and every "%" stands for what would have been right.
#include <map>
#include <string>

#include "fuzz/Burns.h"
#include "fuzz/Wire.h"
#include "protocol/Session.h"

namespace {

/// Serves a fabric but for some frames.
class Peer : public fuzz::Wire {
 public:
  Peer(sim::Fabric& fabric, End end, std::size_t most_sent, std::size_t most_read)
      : Wire(end, most_sent, most_read), _session(fabric) {
    _session.trace = [this](const std::string& request, const std::string&) {
      if (request != "NsContinue") last_request = request;
    };
  }

  std::map<std::size_t, std::string> others;  ///< in the places of frames, by their number
  std::string last_request;
  bool has_lied = false;

 private:
  std::string Take(std::string_view bytes) override {
    std::string answer;
    for (const protocol::Step& step : _session.Feed(bytes)) {
      // A fabric without faults has nothing else to do.
      fuzz::Must(step.kind == protocol::Step::SEND, "what is asked is answered");
      const auto other = others.find(_frames++);
      if (other == others.end()) {
        answer += step.bytes;
        continue;
      }
      has_lied = true;
      for (const char c : other->second) {
        if (c == '%') {
          answer += step.bytes;
        } else {
          answer += c;
        }
      }
    }
    return answer;
  }

  protocol::Session _session;
  std::size_t _frames = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  const fuzz::BurnOptions options(input);
  const auto end = static_cast<fuzz::Wire::End>(input.Below(3));
  const std::size_t most_sent = 1 + 40 * input.Below(50);
  const std::size_t most_read = 1 + 40 * input.Below(50);
  const std::string_view text = input.Until("====\n");
  FwImage image;
  if (fuzz::Run([&] { fuzz::LoadImage(image, text); })) return 0;
  if (image.GetTotalSize() > 0x1000 || image.DevType() == DEV_UNKNOWN) return 0;

  sim::Fabric fabric;
  fuzz::GuardWrites(fabric, image, options);
  Peer peer(fabric, end, most_sent, most_read);
  while (!input.IsEmpty()) {
    const std::size_t number = input.Byte();
    peer.others.emplace(number >= '0' ? number - '0' : number, input.Until("~\n"));
  }
  const fuzz::Ending ending = fuzz::BurnOverWire(image, options, fabric);
  // Once it has lied, the server is perhaps out of step.
  if (peer.has_lied && fuzz::IsOfWrongSize(ending, peer.last_request)) return 0;
  fuzz::CheckEnding(ending, image);
  return 0;
}
