/// The built fwpush-serve, with files in the place of memories.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <thread>

#include "common/ChildProcess.h"
#include "common/Descriptor.h"
#include "common/ScratchFolder.h"
#include "common/Text.h"
#include "protocol/Client.h"
#include "protocol/Listener.h"

namespace serve {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr std::size_t SIZE = 0x8000;

class FwpushServeTest : public testing::Test {
 protected:
  void SetUp() override {
    _folder.Write("eeprom", std::string(SIZE, '\0'));
    Configure("");
  }
  /// Writes the configuration, with further devices, and further keys of the server.
  void Configure(const std::string& more, const std::string& keys = "") const {
    _folder.Write("serve.toml", "[server]\nlisten = '127.0.0.1:0'\nstate = '" +
                                    (_folder / "state") + "'\n" + keys + Device(0x10, "eeprom") +
                                    more);
  }
  std::string Device(unsigned guid, const std::string& file) const {
    return common::Text("[[device]]\nnode_guid = '0x", std::hex, guid,
                        "'\n[[device.chip]]\naddress = 0x50\nsize = 0x8000\nfile = '",
                        _folder / file, "'\n");
  }

  /// Starts the server, its errors to the file "errors". `before` is put before its command line,
  /// for a shell.
  void Begin(const std::vector<std::string>& words = {}, const std::string& before = "") {
    common::Channel output = common::MakePipe();
    const common::Descriptor errors(
        open((_folder / "errors").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    std::vector<std::string> line{"/bin/sh", "-c",          before + " exec \"$@\"",
                                  "sh",      SERVE_PROGRAM, _folder / "serve.toml"};
    line.insert(line.end(), words.begin(), words.end());
    _server.emplace(
        common::Launch{.words = line, .output = output.in.Get(), .errors = errors.Get()});
    output.in.Close();
    std::array<char, 1000> block;
    while (!_address.ends_with('\n')) {
      const ssize_t count = read(output.out.Get(), block.data(), block.size());
      if (count <= 0) break;
      _address.append(block.data(), static_cast<std::size_t>(count));
    }
    ASSERT_THAT(_address, StartsWith("IB:127.0.0.1:")) << Errors();
    _port = static_cast<std::uint16_t>(std::stoul(_address.substr(_address.rfind(':') + 1)));
  }
  int End() {
    _server->Signal(SIGTERM);
    return _server->Wait().status;
  }
  std::string Ask(const std::string& request) const {
    return protocol::Client(_port).Ask(request).value_or("nothing");
  }
  std::string Text(const std::string& name) const {
    std::ifstream file(_folder / name);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::size_t Descriptors() const {
    const std::filesystem::directory_iterator all(common::Text("/proc/", _server->Pid(), "/fd"));
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }
  /// Within a time that is long enough on a busy machine.
  static bool Wait(const std::function<bool()>& holds) {
    for (int i = 0; i < 2000; ++i) {
      if (holds()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  std::string Errors() const { return Text("errors"); }
  bool WaitForError(const std::string& text) const {
    return Wait([&] { return Errors().find(text) != std::string::npos; });
  }

  common::ScratchFolder _folder;
  std::optional<common::ChildProcess> _server;
  std::string _address;  ///< its first line
  std::uint16_t _port = 0;
};

constexpr const char* WRITE = "vsI2cWriteMulti 1 0x0000000000000010 0x50 4 0x8 0x31323334 ";
constexpr const char* READ = "vsI2cReadMulti 1 0x0000000000000010 0x50 4 0x8 ";

TEST_F(FwpushServeTest, FileIsServedUntilTheServerIsEnded) {
  Begin();
  EXPECT_EQ(Ask(WRITE), "ACK");
  EXPECT_EQ(Ask(READ), "{ACK {data 0x31323334}}");
  EXPECT_EQ(End(), 0);
  EXPECT_EQ(Text("eeprom").substr(8, 4), "1234");
  EXPECT_THROW(protocol::Client client(_port), std::system_error);
}

TEST_F(FwpushServeTest, DryRunLeavesTheMemoryAsItIs) {
  Begin({"--dry-run"});
  EXPECT_EQ(Ask(WRITE), "ACK");
  EXPECT_EQ(End(), 0);
  EXPECT_EQ(Text("eeprom"), std::string(SIZE, '\0'));
}

TEST_F(FwpushServeTest, ClientThatIsConnectedDoesNotKeepAServerFromEnding) {
  Begin();
  protocol::Client client(_port);
  EXPECT_EQ(client.Ask(WRITE), "ACK");
  EXPECT_EQ(End(), 0);
  EXPECT_EQ(client.ReceiveBytes(), "");
}

TEST_F(FwpushServeTest, ReloadServesWhatTheFileSaysThen) {
  Begin();
  const std::string other = "vsI2cReadMulti 1 0x0000000000000020 0x50 4 0x0 ";
  EXPECT_EQ(Ask(other), "{ERROR:0x0000000000000020:No such device}");
  _folder.Write("other", std::string(SIZE, '\0'));
  Configure(Device(0x20, "other"));
  _server->Signal(SIGHUP);
  ASSERT_TRUE(WaitForError("devices: 2")) << Errors();
  EXPECT_EQ(Ask(other), "{ACK {data 0x0}}");
  EXPECT_EQ(Ask(READ), "{ACK {data 0x0}}");
  EXPECT_EQ(End(), 0);
}

TEST_F(FwpushServeTest, ReloadOfAWrongFileChangesNothing) {
  Begin();
  Configure("nonsense = 1\n");
  _server->Signal(SIGHUP);
  ASSERT_TRUE(WaitForError("serves the configuration that it had"));
  EXPECT_THAT(Errors(), HasSubstr("serve.toml:"));
  EXPECT_EQ(Ask(READ), "{ACK {data 0x0}}");
  EXPECT_EQ(End(), 0);
}

common::Descriptor Connect(std::uint16_t port) {
  common::Descriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address{.sin_family = AF_INET,
                            .sin_port = htons(port),
                            .sin_addr = {htonl(INADDR_LOOPBACK)},
                            .sin_zero = {}};
  EXPECT_EQ(connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
            0);
  return connection;
}

TEST_F(FwpushServeTest, APortScanLeavesNothing) {
  Begin();
  EXPECT_EQ(Ask(READ), "{ACK {data 0x0}}");
  const std::size_t before = Descriptors();
  std::vector<common::Descriptor> half_closed;
  for (int i = 0; i < 300; ++i) {
    common::Descriptor connection = Connect(_port);
    const linger at_once{.l_onoff = 1, .l_linger = 0};
    switch (i % 4) {
      case 0:
        break;
      case 1:
        setsockopt(connection.Get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        break;
      case 2:
        send(connection.Get(), "GET / HTTP/1.0\r\n\r\n", 18, MSG_NOSIGNAL);
        break;
      default:
        shutdown(connection.Get(), SHUT_WR);
        half_closed.push_back(std::move(connection));
    }
    if (i % 50 == 0) {
      EXPECT_TRUE(Wait([this] { return Ask(READ) == "{ACK {data 0x0}}"; }));
    }
  }
  EXPECT_TRUE(Wait([&] { return Descriptors() <= before; })) << Descriptors() << ", " << before;
  EXPECT_EQ(Ask(WRITE), "ACK");
  EXPECT_EQ(End(), 0);
}

TEST_F(FwpushServeTest, AClientOfAByteNowAndThenIsDisconnected) {
  Configure("", "idle_seconds = 1\n");
  Begin();
  const common::Descriptor slow = Connect(_port);
  EXPECT_TRUE(Wait([&] {
    const bool is_sent = send(slow.Get(), "N", 1, MSG_NOSIGNAL) == 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return !is_sent;
  }));
  EXPECT_EQ(Ask(READ), "{ACK {data 0x0}}");
  EXPECT_EQ(End(), 0);
}

TEST_F(FwpushServeTest, LimitsAreThoseOfTheFile) {
  Configure("", "max_connections = 2\nmax_message = 1024\n");
  Begin();
  EXPECT_EQ(Ask(std::string(1025, 'x')), "ERROR:message too long");
  const auto is_full = [this] { return Ask(READ) == "nothing"; };
  std::optional<protocol::Client> first(_port);
  EXPECT_TRUE(Wait([&] { return first->Ask(READ).has_value() || (first.emplace(_port), false); }));
  std::optional<protocol::Client> second(_port);
  EXPECT_TRUE(
      Wait([&] { return second->Ask(READ).has_value() || (second.emplace(_port), false); }));
  EXPECT_TRUE(is_full());
  second.reset();
  EXPECT_TRUE(Wait([&] { return !is_full(); }));
  EXPECT_EQ(End(), 0);
}

TEST_F(FwpushServeTest, ADeviceIsFreeWhenItsBurnerHasVanished) {
  Begin();
  std::optional<protocol::Client> first(_port);
  EXPECT_EQ(first->Ask(WRITE), "ACK");
  protocol::Client second(_port);
  EXPECT_THAT(*second.Ask(WRITE), HasSubstr("Device is being burnt by 127.0.0.1:"));
  EXPECT_EQ(second.Ask(READ), "{ACK {data 0x31323334}}");
  first.reset();
  EXPECT_TRUE(Wait([&] { return second.Ask(WRITE) == "ACK"; }));
  EXPECT_EQ(End(), 0);
}

TEST_F(FwpushServeTest, WhatAKilledServerHeldIsReleasedAtTheNextStart) {
  const std::string released = _folder / "released";
  _folder.Write("other", std::string(SIZE, '\0'));
  std::string device = Device(0x20, "other");
  device.insert(device.find("[[device.chip]]"), "release = ['/bin/touch', '" + released + "']\n");
  Configure(device);
  Begin();
  protocol::Client client(_port);
  EXPECT_EQ(client.Ask("vsI2cWriteMulti 1 0x0000000000000020 0x50 4 0x8 0x1 "), "ACK");
  _server->Signal(SIGKILL);
  _server->Wait();
  EXPECT_EQ(access(released.c_str(), F_OK), -1);
  _address.clear();
  Begin();
  EXPECT_TRUE(WaitForError("0x0000000000000020: the server ended while 127.0.0.1:"));
  EXPECT_TRUE(Wait([&] { return access(released.c_str(), F_OK) == 0; }));
  EXPECT_EQ(End(), 0);
}

TEST_F(FwpushServeTest, AnAuditLogThatIsMovedAwayIsBegunAnewAtAReload) {
  Configure("", "audit = '" + (_folder / "audit") + "'\n");
  Begin();
  EXPECT_EQ(Ask(WRITE), "ACK");
  EXPECT_TRUE(Wait([this] { return Text("audit").ends_with("\n"); }));
  std::filesystem::rename(_folder / "audit", _folder / "audit.1");
  _server->Signal(SIGHUP);
  ASSERT_TRUE(WaitForError("devices: 1"));
  EXPECT_EQ(Ask(WRITE), "ACK");
  EXPECT_TRUE(Wait([this] { return Text("audit").ends_with("\n"); }));
  EXPECT_THAT(Text("audit.1"), HasSubstr("0x0000000000000010"));
  EXPECT_EQ(End(), 0);
}

TEST_F(FwpushServeTest, PassedSocketIsServed) {
  const protocol::Listener listener;
  const int socket = dup(listener.Get());  // inherited, unlike the other
  Begin({}, common::Text("exec 3<&", socket, ";export LISTEN_PID=$$ LISTEN_FDS=1;"));
  close(socket);
  EXPECT_EQ(_port, listener.Port());
  EXPECT_EQ(Ask(READ), "{ACK {data 0x0}}");
  EXPECT_EQ(End(), 0);
}

/// What a program prints, and its exit status.
std::pair<std::string, int> Output(const std::vector<std::string>& words) {
  common::Channel output = common::MakePipe();
  common::ChildProcess program({.words = words, .output = output.in.Get()});
  output.in.Close();
  std::string text;
  std::array<char, 1000> block;
  for (ssize_t count; (count = read(output.out.Get(), block.data(), block.size())) > 0;) {
    text.append(block.data(), static_cast<std::size_t>(count));
  }
  return {text, program.Wait().status};
}

TEST_F(FwpushServeTest, CheckTellsWhatIsMissingAndServesNothing) {
  const std::string file = _folder / "serve.toml";
  EXPECT_EQ(Output({SERVE_PROGRAM, "--check", file}),
            std::pair(file + ": devices: 1, problems: none\n", 0));
  Configure(Device(0x20, "missing"));
  const auto [text, status] = Output({SERVE_PROGRAM, "--check", file});
  EXPECT_THAT(text, HasSubstr(_folder / "missing"));
  EXPECT_EQ(status, 1);
  EXPECT_EQ(access((_folder / "state").c_str(), F_OK), -1) << "nothing is created";
}

TEST_F(FwpushServeTest, DiscoveryPrintsAConfiguration) {
  const auto [text, status] = Output({SERVE_PROGRAM, "--discover"});
  EXPECT_THAT(text, HasSubstr("[server]"));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Output({SERVE_PROGRAM, "--discover", _folder / "serve.toml"}),
            std::pair(std::string(), 64));
  EXPECT_EQ(Output({SERVE_PROGRAM}), std::pair(std::string(), 64));
}

TEST_F(FwpushServeTest, ListeningOnMoreThanLoopbackNeedsPeers) {
  common::ChildProcess server(
      {.words = {SERVE_PROGRAM, _folder / "serve.toml", "--listen", "0.0.0.0:0"}});
  EXPECT_EQ(server.Wait().status, 64);
}

}  // namespace
}  // namespace serve
