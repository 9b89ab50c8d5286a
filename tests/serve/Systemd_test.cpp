#include "serve/Systemd.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "common/Descriptor.h"
#include "common/ScratchFolder.h"
#include "common/Text.h"

namespace serve {
namespace {

using testing::HasSubstr;

class SystemdTest : public testing::Test {
 protected:
  void SetUp() override { Forget(); }
  void TearDown() override { Forget(); }
  static void Forget() {
    for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES", "NOTIFY_SOCKET",
                             "WATCHDOG_USEC", "WATCHDOG_PID", "JOURNAL_STREAM"}) {
      unsetenv(name);
    }
  }
  static void Set(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }
  static std::string Pid() { return std::to_string(getpid()); }

  common::ScratchFolder _folder;
};

TEST_F(SystemdTest, NothingIsPassedWithoutAServiceManager) {
  EXPECT_EQ(TakePassedSocket(), std::nullopt);
}

TEST_F(SystemdTest, OneSocketIsTakenAndAnnouncedNoMore) {
  Set("LISTEN_PID", Pid());
  Set("LISTEN_FDS", "1");
  Set("LISTEN_FDNAMES", "fwpush-serve.socket");
  EXPECT_EQ(TakePassedSocket(), 3);
  for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) {
    EXPECT_EQ(getenv(name), nullptr) << name;
  }
}

TEST_F(SystemdTest, SocketOfAnotherProcessIsNotTaken) {
  for (const std::string pid : {"1", "", "x", "99999999999999999999"}) {
    Set("LISTEN_PID", pid);
    Set("LISTEN_FDS", "1");
    EXPECT_EQ(TakePassedSocket(), std::nullopt) << pid;
  }
  Set("LISTEN_PID", Pid());
  Set("LISTEN_FDS", "0");
  EXPECT_EQ(TakePassedSocket(), std::nullopt);
}

TEST_F(SystemdTest, SeveralSocketsAreRefused) {
  Set("LISTEN_PID", Pid());
  Set("LISTEN_FDS", "2");
  try {
    TakePassedSocket();
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("started with 2 sockets"));
  }
}

/// The other end of a service manager's socket, by path or by a name in no file system.
class ManagerSocket {
 public:
  explicit ManagerSocket(const std::string& name)
      : _socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(bind(_socket.Get(), reinterpret_cast<const sockaddr*>(&address), size), 0);
  }
  /// What was told last; empty where nothing was.
  std::string Told() {
    std::array<char, 1000> block;
    const ssize_t count = recv(_socket.Get(), block.data(), block.size(), MSG_DONTWAIT);
    return {block.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
  }

 private:
  common::Descriptor _socket;
};

TEST_F(SystemdTest, ManagerIsToldOverItsSocket) {
  for (const std::string& name :
       {(_folder.Path() / "notify").string(), common::Text("@fwpush-serve-test-", getpid())}) {
    ManagerSocket manager(name);
    Set("NOTIFY_SOCKET", name);
    const ServiceManager told;
    EXPECT_EQ(getenv("NOTIFY_SOCKET"), nullptr);
    told.Tell("READY=1\nSTATUS=serving");
    EXPECT_EQ(manager.Told(), "READY=1\nSTATUS=serving");
    told.Tell("STOPPING=1");
    EXPECT_EQ(manager.Told(), "STOPPING=1");
    EXPECT_EQ(manager.Told(), "");
  }
}

TEST_F(SystemdTest, ManagerThatIsNotThereIsNoError) {
  ServiceManager().Tell("READY=1");
  Set("NOTIFY_SOCKET", (_folder.Path() / "none").string());
  ServiceManager().Tell("READY=1");
  Set("NOTIFY_SOCKET", std::string(500, 'x'));
  ServiceManager().Tell("READY=1");
}

TEST_F(SystemdTest, WatchdogIsFedTwiceAsOftenAsNeeded) {
  EXPECT_EQ(ServiceManager().WatchdogInterval(), std::nullopt);
  Set("WATCHDOG_USEC", "30000000");
  EXPECT_EQ(ServiceManager().WatchdogInterval(), std::chrono::seconds(15));
  EXPECT_EQ(getenv("WATCHDOG_USEC"), nullptr);
  Set("WATCHDOG_USEC", "30000000");
  Set("WATCHDOG_PID", Pid());
  EXPECT_EQ(ServiceManager().WatchdogInterval(), std::chrono::seconds(15));
  Set("WATCHDOG_USEC", "30000000");
  Set("WATCHDOG_PID", "1");
  EXPECT_EQ(ServiceManager().WatchdogInterval(), std::nullopt);
  for (const char* wrong : {"0", "", "-1", "soon"}) {
    Set("WATCHDOG_USEC", wrong);
    EXPECT_EQ(ServiceManager().WatchdogInterval(), std::nullopt) << wrong;
  }
}

/// What is written to standard error, which leads to a file.
std::string WrittenTo(const std::string& path, const std::string& stream) {
  const common::Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  struct stat status {};
  EXPECT_EQ(fstat(file.Get(), &status), 0);
  const int before = dup(STDERR_FILENO);
  EXPECT_GE(dup2(file.Get(), STDERR_FILENO), 0);
  if (stream == "this") {
    setenv("JOURNAL_STREAM", common::Text(status.st_dev, ":", status.st_ino).c_str(), 1);
  } else if (!stream.empty()) {
    setenv("JOURNAL_STREAM", stream.c_str(), 1);
  }
  const Log log("fwpush-serve");
  log.Write(Priority::ERROR, "no adapter");
  log.Write(Priority::INFO, "two\nlines");
  EXPECT_GE(dup2(before, STDERR_FILENO), 0);
  close(before);
  std::ifstream told(path);
  return {std::istreambuf_iterator<char>(told), {}};
}

TEST_F(SystemdTest, LinesForTheJournalHavePriorities) {
  const std::string path = (_folder.Path() / "told").string();
  const std::string plain = "fwpush-serve: no adapter\nfwpush-serve: two\nfwpush-serve: lines\n";
  EXPECT_EQ(WrittenTo(path, ""), plain);
  EXPECT_EQ(WrittenTo(path, "1:1"), plain) << "standard error leads elsewhere";
  EXPECT_EQ(WrittenTo(path, "this"), "<3>no adapter\n<6>two\n<6>lines\n");
}

}  // namespace
}  // namespace serve
