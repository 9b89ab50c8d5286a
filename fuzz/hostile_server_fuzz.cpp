// A burn whose server sends what it likes, byte for byte. An input has: the burn's options, how the
// connection behaves, an image, a line "====", then what is sent in the place of right frames, each
// ended by a line "~". Of each, the first byte tells which frame, from 0, and every "%" stands for
// the right one. A wrong answer in a whole frame keeps the server in step: the burner takes it for
// the answer to its last request.
#include <map>
#include <string>

#include "fuzz/FuzzedBurn.h"
#include "fuzz/SocketPeer.h"
#include "protocol/Session.h"

namespace {

/// Whether these bytes are one whole frame.
bool IsFrame(std::string_view bytes) {
  constexpr std::string_view HEAD = "NEW_BUF\n";
  constexpr std::string_view TAIL = "\nEND_BUF\n";
  if (bytes.size() < HEAD.size() + TAIL.size() || !bytes.starts_with(HEAD) ||
      !bytes.ends_with(TAIL)) {
    return false;
  }
  bytes.remove_prefix(HEAD.size());
  bytes.remove_suffix(TAIL.size());
  return bytes.find_first_of("\r\n") == bytes.npos;
}

/// Serves a fabric but for some frames.
class HostileServer : public fuzz::SocketPeer {
 public:
  HostileServer(sim::Fabric& fabric, End end, std::size_t most_sent, std::size_t most_read)
      : SocketPeer(end, most_sent, most_read), _session(fabric) {
    _session.trace = [this](const std::string& request, const std::string&) {
      if (request != "NsContinue") last_request = request;
    };
  }

  std::map<std::size_t, std::string> others;  ///< in the places of frames, by their number
  std::string last_request;
  bool is_last_other = false;  ///< whether the answer to it was replaced
  bool is_out_of_step =
      false;  ///< whether the burner may take an answer for that to another request

 private:
  std::string Take(std::string_view bytes) override {
    std::string answer;
    for (const protocol::Step& step : _session.Feed(bytes)) {
      // A fabric without faults has nothing else to do.
      fuzz::Must(step.kind == protocol::Step::SEND, "what is asked is answered");
      const auto other = others.find(_frames++);
      is_last_other = other != others.end();
      if (!is_last_other) {
        answer += step.bytes;
        continue;
      }
      std::string sent;
      for (const char c : other->second) {
        if (c == '%') {
          sent += step.bytes;
        } else {
          sent += c;
        }
      }
      is_out_of_step = is_out_of_step || !IsFrame(step.bytes) || !IsFrame(sent);
      answer += sent;
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
  const auto end = static_cast<fuzz::SocketPeer::End>(input.Below(3));
  const std::size_t most_sent = 1 + 40 * input.Below(50);
  const std::size_t most_read = 1 + 40 * input.Below(50);
  const std::string_view text = input.Until("====\n");
  FwImage image;
  if (fuzz::Run([&] { fuzz::LoadImage(image, text); })) return 0;
  if (image.GetTotalSize() > 0x1000 || image.DevType() == DEV_UNKNOWN) return 0;

  sim::Fabric fabric;
  fuzz::GuardWrites(fabric, image, options);
  HostileServer server(fabric, end, most_sent, most_read);
  while (!input.IsEmpty()) {
    const std::size_t number = input.Byte();
    server.others.emplace(number >= '0' ? number - '0' : number, input.Until("~\n"));
  }
  const fuzz::Ending ending = fuzz::BurnOverSocket(image, options, fabric);
  if ((server.is_last_other || server.is_out_of_step) &&
      fuzz::IsOfWrongSize(ending, server.last_request)) {
    return 0;
  }
  fuzz::CheckEnding(ending, image);
  return 0;
}
