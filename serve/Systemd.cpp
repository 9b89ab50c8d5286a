#include "serve/Systemd.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <span>
#include <stdexcept>

#include "common/Descriptor.h"
#include "common/Text.h"

namespace serve {

namespace {

constexpr int FIRST_PASSED = 3;

/// A variable of the environment, which is removed from it; empty where there is none.
std::string Take(const char* name) {
  const char* const value = getenv(name);
  std::string text = value ? value : "";
  unsetenv(name);
  return text;
}

/// Nothing where the text is not a number.
std::optional<std::uint64_t> Number(const std::string& text) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number);
  if (text.empty() || parsed.ec != std::errc() || parsed.ptr != end) return {};
  return number;
}

/// Whether what was meant for a process was meant for this one.
bool IsThisProcess(const std::string& pid) {
  return Number(pid) == static_cast<std::uint64_t>(getpid());
}

}  // namespace

std::optional<int> TakePassedSocket() {
  const bool is_ours = IsThisProcess(Take("LISTEN_PID"));
  const std::uint64_t count = Number(Take("LISTEN_FDS")).value_or(0);
  Take("LISTEN_FDNAMES");
  if (!is_ours || count == 0) return {};
  if (count > 1) {
    throw std::runtime_error(
        common::Text("started with ", count, " sockets; one is needed: one ListenStream="));
  }
  fcntl(FIRST_PASSED, F_SETFD, FD_CLOEXEC);
  return FIRST_PASSED;
}

ServiceManager::ServiceManager() : _address(Take("NOTIFY_SOCKET")) {
  const auto limit = Number(Take("WATCHDOG_USEC"));
  const std::string watched = Take("WATCHDOG_PID");
  if (limit && *limit > 0 && (watched.empty() || IsThisProcess(watched))) {
    _watchdog = std::chrono::microseconds(*limit / 2);
  }
}

void ServiceManager::Tell(const std::string& text) const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (_address.empty() || _address.size() >= sizeof address.sun_path) return;
  memcpy(address.sun_path, _address.data(), _address.size());
  if (_address.front() == '@') address.sun_path[0] = '\0';  // a name that is in no file system
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + _address.size());
  const common::Descriptor socket_to_it(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  // A manager that does not listen is no reason not to serve.
  sendto(socket_to_it.Get(), text.data(), text.size(), MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&address), size);
}

Log::Log(const std::string& program) : _program(program), _is_journal(false) {
  // The variable stays when standard error is sent elsewhere.
  const char* const stream = getenv("JOURNAL_STREAM");
  struct stat status {};
  _is_journal = stream && fstat(STDERR_FILENO, &status) == 0 &&
                stream == common::Text(status.st_dev, ":", status.st_ino);
}

void Log::Write(Priority priority, const std::string& text) const {
  const std::string begin =
      _is_journal ? common::Text("<", static_cast<int>(priority), ">") : _program + ": ";
  std::string lines;
  for (const std::string_view line : common::Words(text, "\n")) {
    lines.append(begin).append(line).append("\n");
  }
  // In one piece: lines of programs that run at the same time do not get in between.
  common::WriteAll(STDERR_FILENO, lines);
}

}  // namespace serve
