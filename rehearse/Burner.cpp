#include "rehearse/Burner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "common/ChildProcess.h"
#include "common/Text.h"
#include "protocol/Server.h"

namespace rehearse {

namespace {

/// Time without output after which the burner is considered hung. It waits half as long for a
/// server.
constexpr std::chrono::seconds MAX_SILENCE{60};
constexpr std::size_t MOST_CONSOLE = std::size_t{1} << 20;

/// Reads the burner's console to its end. Throws when the burner hangs.
Run Watch(common::ChildProcess& burner, int console) {
  Run run;
  auto last_word = std::chrono::steady_clock::now();
  std::optional<common::Ending> ending;
  while (!ending) {
    pollfd waiting{console, POLLIN, 0};
    poll(&waiting, 1, 50);
    ending = burner.TryWait();
    char block[4096];
    for (ssize_t got; (got = read(console, block, sizeof(block))) > 0;) {
      last_word = std::chrono::steady_clock::now();
      run.console.append(block, static_cast<std::size_t>(got));
      // Keep the beginning and the end; the rest is not used.
      if (run.console.size() > 2 * MOST_CONSOLE) {
        run.console.erase(MOST_CONSOLE / 2, run.console.size() - MOST_CONSOLE);
      }
    }
    if (!ending && std::chrono::steady_clock::now() - last_word > MAX_SILENCE) {
      throw std::runtime_error(common::Text("fwpush printed nothing for ", MAX_SILENCE.count(),
                                            " seconds and was killed"));
    }
  }
  run.is_well = ending->status == 0;
  run.signal = ending->signal;
  return run;
}

Run Spawn(const std::vector<std::string>& words, std::atomic<pid_t>& shown_pid) {
  common::Channel console = common::MakePipe();
  fcntl(console.out.Get(), F_SETFL, O_NONBLOCK);
  common::ChildProcess burner({.words = words, .output = console.in.Get()});
  console.in.Close();
  shown_pid = burner.Pid();
  return Watch(burner, console.out.Get());
}

}  // namespace

std::string Run::LastLine() const {
  std::string text = console;
  while (text.ends_with('\n')) text.pop_back();
  const std::size_t at = text.find_last_of("\r\n");
  return at == std::string::npos ? text : text.substr(at + 1);
}

Burner::Burner(const RehearsalOptions& options, const std::vector<device::Guid>& guids)
    : _options(options) {
  std::ostringstream list;
  list << std::hex;
  for (const device::Guid guid : guids) list << guid << ",";
  _guids = list.str();
}

Run Burner::Burn(sim::Fabric& fabric, std::atomic<std::size_t>& requests,
                 std::size_t kill_after) const {
  std::atomic<pid_t> pid{0};
  const protocol::ServerThread server(fabric, [&](const std::string&, const std::string&) {
    if (++requests != kill_after) return;
    while (pid == 0) std::this_thread::yield();  // its request may arrive before its pid is stored
    kill(pid, SIGKILL);
  });
  std::vector<std::string> words = {
      _options.fwpush, "-f", _options.image_file, "-s", server.ServerString(), "-g", _guids};
  words.insert(words.end(), _options.extra_args.begin(), _options.extra_args.end());
  return Spawn(words, pid);
}

}  // namespace rehearse
