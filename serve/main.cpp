/// fwpush-serve: a bus server for the memories of this machine.

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>

#include "common/Program.h"
#include "common/Text.h"
#include "protocol/Server.h"
#include "serve/AuditLog.h"
#include "serve/Configuration.h"
#include "serve/ConfigurationCheck.h"
#include "serve/Discover.h"
#include "serve/Gateway.h"
#include "serve/LinuxSystem.h"
#include "serve/Systemd.h"
#include "serve/ThreadLoop.h"

namespace {

using serve::Configuration;
using serve::Priority;

constexpr const char* NAME = "fwpush-serve";

struct Options {
  std::string file;
  std::string listen;
  bool is_dry_run = false;
  bool is_check = false;
  bool is_discover = false;
};

/// The configuration, with what the command line has in its place. Throws ConfigurationError and
/// UsageError.
Configuration Load(const Options& options) {
  Configuration configuration = serve::LoadConfiguration(options.file);
  if (options.listen.empty()) return configuration;
  auto address = common::ParseHostPort(options.listen);
  if (!address) throw common::UsageError("--listen", "must be HOST:PORT");
  if (!serve::IsLoopback(address->first) && configuration.allow.empty()) {
    throw common::UsageError("--listen", "is not loopback: 'allow' in " + options.file +
                                             " must say which addresses may connect");
  }
  std::tie(configuration.host, configuration.port) = *std::move(address);
  return configuration;
}

protocol::ServerOptions ServerOptionsFor(const Configuration& configuration,
                                         std::optional<int> passed_socket) {
  const auto milliseconds = [](serve::Time time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time);
  };
  return {.host = configuration.host,
          .port = configuration.port,
          .descriptor = passed_socket,
          // A passed socket may listen on any address.
          .allow = protocol::ParseNetworks(configuration.allow.empty()
                                               ? std::vector<std::string>{"127.0.0.0/8"}
                                               : configuration.allow),
          .connections = configuration.limits.connections,
          .max_message = configuration.limits.message_size,
          .idle = milliseconds(configuration.limits.idle),
          .is_keep_alive = true};
}

/// Whether a running server can take the one configuration for the other.
bool NeedsRestart(const Configuration& before, const Configuration& after) {
  return before.host != after.host || before.port != after.port || before.allow != after.allow ||
         before.type != after.type || before.state != after.state ||
         before.limits.connections != after.limits.connections ||
         before.limits.message_size != after.limits.message_size ||
         before.limits.idle != after.limits.idle;
}

/// The audit log, if the configuration has one.
class Auditor {
 public:
  /// Opens the file, again where it is open: it may have been moved away. Throws
  /// std::runtime_error.
  void Open(const std::filesystem::path& path) {
    auto opened = path.empty() ? nullptr : std::make_shared<serve::AuditLog>(path);
    const std::lock_guard lock(_mutex);
    _audit = std::move(opened);
  }
  /// Called by another thread. Throws std::runtime_error.
  void Write(const serve::LeaseRecord& record) {
    const auto audit = [this] {
      const std::lock_guard lock(_mutex);
      return _audit;
    }();
    if (audit) audit->Write(record);
  }

 private:
  std::mutex _mutex;
  std::shared_ptr<serve::AuditLog> _audit;  ///< guarded by _mutex
};

/// The server and all that it needs, from its start to its end.
class Program {
 public:
  Program(const Options& options, Configuration configuration, std::optional<int> passed_socket)
      : _options(options),
        _configuration(std::move(configuration)),
        _gateway(_system, _threads, _configuration, {.is_dry_run = options.is_dry_run},
                 {.audit = [this](const auto& record) { _auditor.Write(record); },
                  .log = [this](const std::string& text) { _log.Write(Priority::NOTICE, text); }}),
        _stop_at_end(_threads),
        _server(_events, _gateway, ServerOptionsFor(_configuration, passed_socket)) {
    _auditor.Open(_configuration.audit);
  }

  int Run() {
    for (const int signal : {SIGTERM, SIGINT}) {
      _events.OnSignal(signal, [this] { End(); });
    }
    _events.OnSignal(SIGHUP, [this] { Reload(); });
    _gateway.ReleaseLeftOvers();
    if (_options.is_dry_run) {
      _log.Write(Priority::NOTICE, "dry run: nothing is written to any device");
    }
    std::cout << _server.ServerString() << std::endl;
    if (!std::cout) throw std::runtime_error("can't write the address");
    Tell("READY=1");
    FeedWatchdog();
    _server.Run();
    // The last connection is closed; devices are still being released.
    _gateway.WhenIdle([this] { _events.Stop(); });
    _events.Run();
    return common::ALL_WELL;
  }

 private:
  /// What work on wires uses must outlive it.
  struct StopAtEnd {
    explicit StopAtEnd(serve::ThreadLoop& its_threads) : threads(its_threads) {}
    StopAtEnd(const StopAtEnd&) = delete;
    StopAtEnd& operator=(const StopAtEnd&) = delete;
    ~StopAtEnd() { threads.Stop(); }
    serve::ThreadLoop& threads;
  };

  void Tell(const std::string& state) const {
    _manager.Tell(common::Text(state, "\nSTATUS=",
                               _is_ending
                                   ? "ends when the requests under way are answered"
                                   : common::Text("serves at ", _server.ServerString(),
                                                  "; devices: ", _configuration.devices.size())));
  }

  void End() {
    if (std::exchange(_is_ending, true)) {
      _log.Write(Priority::WARNING,
                 "ended at once: devices that are held are released at the next start");
      // A step that a wire is making cannot be interrupted; only this ends it.
      std::_Exit(common::DIFFERS);
    }
    Tell("STOPPING=1");
    _log.Write(Priority::NOTICE, "ends when the requests under way are answered");
    _server.Finish();
  }

  void Reload() {
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(_system.Now());
    _manager.Tell(common::Text("RELOADING=1\nMONOTONIC_USEC=", now.count()));
    try {
      Configuration configuration = Load(_options);
      _auditor.Open(configuration.audit);
      _gateway.Reload(configuration);
      const bool needs_restart = NeedsRestart(_configuration, configuration);
      _configuration.devices = std::move(configuration.devices);
      _log.Write(Priority::NOTICE,
                 common::Text("serves ", _options.file,
                              " as it is now; devices: ", _configuration.devices.size()));
      if (needs_restart) {
        _log.Write(Priority::WARNING,
                   "the listening address, its peers and limits, the type and the folder of state "
                   "change at the next start only");
      }
    } catch (const std::runtime_error& error) {
      _log.Write(Priority::ERROR,
                 common::Text(error.what(), "\nserves the configuration that it had"));
    }
    Tell("READY=1");
  }

  void FeedWatchdog() {
    const auto interval = _manager.WatchdogInterval();
    if (!interval) return;
    _manager.Tell("WATCHDOG=1");
    _threads.CallAt(_threads.Now() + *interval, [this] { FeedWatchdog(); });
  }

  Options _options;
  Configuration _configuration;
  serve::ServiceManager _manager;
  serve::Log _log{NAME};
  Auditor _auditor;
  serve::LinuxSystem _system;
  protocol::EventLoop _events;
  serve::ThreadLoop _threads{_events, _system};
  serve::Gateway _gateway;
  StopAtEnd _stop_at_end;
  protocol::Server _server;
  bool _is_ending = false;
};

/// Prints what would keep devices from being burnt.
int Check(const Configuration& configuration, const std::string& file) {
  serve::LinuxSystem system;
  const std::vector<std::string> problems = serve::CheckConfiguration(system, configuration);
  for (const std::string& problem : problems) std::cout << problem << "\n";
  if (problems.empty()) {
    std::cout << file << ": devices: " << configuration.devices.size() << ", problems: none\n";
  }
  std::cout.flush();
  return problems.empty() ? common::ALL_WELL : common::DIFFERS;
}

int Run(const Options& options) {
  if (options.is_discover) {
    if (!options.file.empty()) throw common::UsageError("--discover", "is without a FILE");
    serve::LinuxSystem system;
    std::cout << serve::DiscoverConfiguration(system) << std::flush;
    return common::ALL_WELL;
  }
  if (options.file.empty()) throw common::UsageError("FILE", "is needed");
  Configuration configuration = Load(options);
  if (options.is_check) return Check(configuration, options.file);
  const std::optional<int> passed_socket = serve::TakePassedSocket();
  if (passed_socket && !options.listen.empty()) {
    throw common::UsageError("--listen", "is not used: a service manager has passed a socket");
  }
  std::error_code error;
  std::filesystem::create_directories(configuration.state, error);
  if (error) {
    throw std::runtime_error("'state': " + configuration.state.string() + ": " + error.message());
  }
  // Who reads standard output or error may go before the server does.
  std::signal(SIGPIPE, SIG_IGN);
  return Program(options, std::move(configuration), passed_socket).Run();
}

}  // namespace

int main(int argc, char* argv[]) {
  common::CommandLine line(
      "A bus server for the memories of this machine: SPI NOR flashes, I2C EEPROMs and files.");
  Options options;
  line.Add("FILE", options.file, "The configuration (TOML)");
  line.Add("--listen", options.listen,
           "HOST:PORT to listen on, in the place of that of FILE; port 0 takes a free one");
  const common::Option dry_run =
      line.AddFlag("--dry-run", options.is_dry_run,
                   "Serve, but keep what is written in memory, over what the devices hold");
  common::Option check = line.AddFlag(
      "--check", options.is_check,
      "Print what keeps devices of FILE from being burnt, and exit; no device is opened");
  line.AddFlag("--discover", options.is_discover,
               "Print a configuration for the memories that the kernel knows of, and exit; no bus "
               "is probed")
      .Excludes(check)
      .Excludes(dry_run);
  check.Excludes(dry_run);
  line.SetWork([&options] { return Run(options); });
  return common::RunProgram({.name = NAME, .is_verbatim = true}, line, argc, argv);
}
