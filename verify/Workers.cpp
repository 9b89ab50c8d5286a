#include "verify/Workers.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <list>
#include <numeric>
#include <optional>
#include <string>
#include <system_error>

#include "common/ChildProcess.h"
#include "common/SystemError.h"

namespace verify {

namespace {

// What a process sends: a PART and a byte, in per cent, as often as it changes; then a FINDING and
// the packed finding, to the end.
constexpr char PART = 'P';
constexpr char FINDING = 'F';
constexpr double WHOLE = 100;

/// One device that a process verifies.
class Worker {
 public:
  Worker(std::size_t index, device::Guid guid,
         const std::function<DeviceFinding(device::Guid, const PartDone&)>& work)
      : _index(index), _guid(guid) {
    common::Channel channel = common::MakePipe();
    const pid_t parent = getpid();
    _pid = fork();
    if (_pid < 0) common::ThrowSystemError("can't start a process");
    if (_pid == 0) {
      // It must not outlive a parent that is killed.
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      if (getppid() == parent) Work(channel.in, guid, work);
      _exit(1);
    }
    _output = std::move(channel.out);
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  ~Worker() {
    if (_pid <= 0) return;
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
  }

  std::size_t Index() const { return _index; }
  int Output() const { return _output.Get(); }
  double Part() const { return _part; }

  /// Takes what the process has sent. Returns false at the end.
  bool Receive() {
    char block[4096];
    const ssize_t got = read(_output.Get(), block, sizeof(block));
    if (got < 0 && errno == EINTR) return true;
    if (got <= 0) return false;
    _received.append(block, static_cast<std::size_t>(got));
    while (_received.size() >= 2 && _received[0] == PART) {
      _part = _received[1] / WHOLE;
      _received.erase(0, 2);
    }
    return true;
  }

  /// After the end.
  DeviceFinding Finding() {
    int status = 0;
    while (waitpid(_pid, &status, 0) < 0 && errno == EINTR) {
    }
    _pid = -1;
    if (!_received.empty() && _received[0] == FINDING) {
      if (auto finding = Unpack(std::string_view(_received).substr(1))) return *finding;
    }
    DeviceFinding finding;
    finding.guid = _guid;
    finding.reason = "the process that read the device has failed";
    finding.failure = finding.reason;
    return finding;
  }

 private:
  /// In the new process, which must not return to the code that its parent executes.
  static void Work(common::Descriptor& output, device::Guid guid,
                   const std::function<DeviceFinding(device::Guid, const PartDone&)>& work) {
    try {
      char last = 0;
      const auto progress = [&](double part) {
        const char percent = static_cast<char>(part * WHOLE);
        const char message[] = {PART, percent};
        if (percent != last) common::WriteAll(output.Get(), message);
        last = percent;
      };
      const std::string finding = FINDING + Pack(work(guid, progress));
      _exit(common::WriteAll(output.Get(), finding) ? 0 : 1);
    } catch (...) {
      _exit(1);
    }
  }

  std::size_t _index;
  device::Guid _guid;
  pid_t _pid = -1;
  common::Descriptor _output;
  std::string _received;
  double _part = 0;
};

}  // namespace

void FailureCount::Add(const DeviceFinding& finding) {
  const bool has_failed = !finding.failure.empty() && !finding.WasRead();
  _in_a_row = has_failed ? _in_a_row + 1 : 0;
  if (has_failed) _last = finding.failure;
}

DeviceFinding FailureCount::NotTried(device::Guid guid) const {
  DeviceFinding finding;
  finding.guid = guid;
  finding.state = DeviceFinding::UNREACHABLE;
  finding.reason = "not tried: " + _last;
  return finding;
}

void VerifyInProcesses(const std::vector<device::Guid>& guids, unsigned jobs,
                       const std::function<DeviceFinding(device::Guid, const PartDone&)>& work,
                       const std::function<void(const DeviceFinding&)>& take,
                       const PartDone& progress) {
  FailureCount failures;
  std::vector<std::optional<DeviceFinding>> findings(guids.size());
  std::size_t started = 0;
  std::size_t taken = 0;
  std::size_t done = 0;
  std::list<Worker> workers;
  bool is_full = false;  // no other process can be started until one of these ends
  while (taken < guids.size()) {
    for (; started < guids.size() && workers.size() < jobs && !is_full && !failures.IsGivenUp();
         ++started) {
      try {
        workers.emplace_back(started, guids[started], work);
      } catch (const std::system_error&) {
        if (workers.empty()) throw;
        is_full = true;
        break;
      }
    }
    if (workers.empty()) {
      for (; started < guids.size(); ++started, ++done) {
        findings[started] = failures.NotTried(guids[started]);
      }
    } else {
      std::vector<pollfd> waiting;
      for (const Worker& worker : workers) waiting.push_back({worker.Output(), POLLIN, 0});
      if (poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) {
        common::ThrowSystemError("can't wait for a process");
      }
      auto worker = workers.begin();
      for (const pollfd& output : waiting) {
        const auto current = worker++;
        if (output.revents == 0 || current->Receive()) continue;
        findings[current->Index()] = current->Finding();
        failures.Add(*findings[current->Index()]);
        workers.erase(current);
        is_full = false;
        ++done;
      }
    }
    for (; taken < guids.size() && findings[taken]; ++taken) {
      take(*findings[taken]);
      findings[taken].reset();
    }
    if (!progress) continue;
    const double parts =
        std::accumulate(workers.begin(), workers.end(), 0.0,
                        [](double sum, const Worker& worker) { return sum + worker.Part(); });
    progress((static_cast<double>(done) + parts) / static_cast<double>(guids.size()));
  }
}

}  // namespace verify
