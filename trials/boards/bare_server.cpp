/// Runs inside a board: the least that a server can do for the pages of a flash, beside which
/// fwpush-serve is measured. For each page it receives a request of the size that fwpush sends,
/// programs the page, reads it back and answers; a child of this process is the client. Sectors are
/// erased and read before their first page.
/// Usage: bare_server MTD_NODE
/// Prints "user SECONDS" and "sys SECONDS" of the server.

#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <iostream>
#include <random>
#include <span>
#include <system_error>
#include <vector>

namespace {

constexpr std::size_t PAGE = 256;
/// Of a request that writes one page, and of its answer.
constexpr std::size_t REQUEST = 772;
constexpr std::size_t ANSWER = 20;

long Checked(long result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

void Send(int connection, std::span<const char> bytes) {
  if (Checked(send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL), "send") !=
      static_cast<long>(bytes.size())) {
    throw std::runtime_error("send: a part");
  }
}

void Receive(int connection, std::span<char> bytes) {
  while (!bytes.empty()) {
    const long size = Checked(recv(connection, bytes.data(), bytes.size(), 0), "recv");
    if (size == 0) throw std::runtime_error("recv: the end");
    bytes = bytes.subspan(static_cast<std::size_t>(size));
  }
}

void SendAtOnce(int connection) {
  const int one = 1;
  Checked(setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one), "setsockopt");
}

void RunClient(const sockaddr_in& address, std::size_t pages) {
  const auto connection = static_cast<int>(Checked(socket(AF_INET, SOCK_STREAM, 0), "socket"));
  Checked(connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address),
          "connect");
  SendAtOnce(connection);
  const std::array<char, REQUEST> request{};
  std::array<char, ANSWER> answer{};
  for (std::size_t page = 0; page < pages; ++page) {
    Send(connection, request);
    Receive(connection, answer);
  }
}

class Flash {
 public:
  explicit Flash(const char* node)
      : _descriptor(static_cast<int>(Checked(open(node, O_RDWR | O_CLOEXEC), node))) {
    Checked(ioctl(_descriptor, MEMGETINFO, &_info), "MEMGETINFO");
    _sector.resize(_info.erasesize);
  }
  Flash(const Flash&) = delete;
  Flash& operator=(const Flash&) = delete;
  ~Flash() { close(_descriptor); }

  std::size_t Pages() const { return _info.size / PAGE; }

  void Write(std::size_t page) {
    const auto offset = static_cast<std::uint32_t>(page * PAGE);
    if (offset % _info.erasesize == 0) {
      erase_info_user range{offset, _info.erasesize};
      Checked(ioctl(_descriptor, MEMERASE, &range), "MEMERASE");
      Checked(pread(_descriptor, _sector.data(), _sector.size(), offset), "pread");
    }
    std::array<std::uint8_t, PAGE> bytes{};
    std::array<std::uint8_t, PAGE> read{};
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(_random());
    Checked(pwrite(_descriptor, bytes.data(), PAGE, offset), "pwrite");
    Checked(pread(_descriptor, read.data(), PAGE, offset), "pread");
    if (read != bytes) throw std::runtime_error("the flash has something else");
  }

 private:
  int _descriptor;
  mtd_info_user _info{};
  std::vector<std::uint8_t> _sector;
  std::minstd_rand _random{1};
};

void RunServer(int listener, Flash& flash) {
  const auto connection = static_cast<int>(Checked(accept(listener, nullptr, nullptr), "accept"));
  SendAtOnce(connection);
  std::array<char, REQUEST> request{};
  const std::array<char, ANSWER> answer{};
  for (std::size_t page = 0; page < flash.Pages(); ++page) {
    Receive(connection, request);
    flash.Write(page);
    Send(connection, answer);
  }
}

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

void Run(const char* node) {
  Flash flash(node);
  const auto listener = static_cast<int>(Checked(socket(AF_INET, SOCK_STREAM, 0), "socket"));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  Checked(bind(listener, reinterpret_cast<const sockaddr*>(&address), size), "bind");
  Checked(listen(listener, 1), "listen");
  Checked(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
  const auto client = static_cast<pid_t>(Checked(fork(), "fork"));
  if (client == 0) {
    RunClient(address, flash.Pages());
    _exit(0);
  }
  RunServer(listener, flash);
  int status = 0;
  Checked(waitpid(client, &status, 0), "waitpid");
  if (status != 0) throw std::runtime_error("the client fails");
  rusage used{};
  Checked(getrusage(RUSAGE_SELF, &used), "getrusage");
  std::cout << "user " << Seconds(used.ru_utime) << "\nsys " << Seconds(used.ru_stime) << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 64;
  try {
    Run(argv[1]);
  } catch (const std::exception& error) {
    std::cerr << "bare_server: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
