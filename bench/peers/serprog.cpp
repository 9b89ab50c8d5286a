// A programmer with one blank serial flash of 16 MiB behind it, over TCP: what flashrom needs to
// write to, so that its burn can be measured beside ours. Serves one client on loopback, prints the
// port first and, at the end, the operations on the chip and a checksum of its contents.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t ACK = 0x06;
constexpr std::uint8_t NAK = 0x15;
constexpr std::size_t CHIP_SIZE = std::size_t{16} << 20;

/// The client's bytes, and what goes back to it.
class Line {
 public:
  explicit Line(int sock) : _sock(sock) {}

  /// The next `size` bytes; an empty answer at the end.
  Bytes Take(std::size_t size) {
    while (_received.size() - _taken < size) {
      _received.erase(_received.begin(), _received.begin() + static_cast<std::ptrdiff_t>(_taken));
      _taken = 0;
      Flush();
      const std::size_t held = _received.size();
      _received.resize(held + 65536);
      const ssize_t got = read(_sock, _received.data() + held, 65536);
      _received.resize(held + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
      if (got <= 0) return {};
    }
    const auto start = _received.begin() + static_cast<std::ptrdiff_t>(_taken);
    _taken += size;
    return {start, start + static_cast<std::ptrdiff_t>(size)};
  }

  void Give(const Bytes& bytes) { _out.insert(_out.end(), bytes.begin(), bytes.end()); }

 private:
  void Flush() {
    for (std::size_t sent = 0; sent < _out.size();) {
      const ssize_t count = send(_sock, _out.data() + sent, _out.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) break;
      sent += static_cast<std::size_t>(count);
    }
    _out.clear();
  }

  int _sock;
  Bytes _received;
  std::size_t _taken = 0;
  Bytes _out;
};

/// A serial flash of 256-byte pages, by its instructions.
class Chip {
 public:
  Bytes Operate(const Bytes& sent, std::size_t answer_size) {
    ++_operations;
    Bytes answer(answer_size, 0);
    const std::uint8_t instruction = sent.empty() ? std::uint8_t{0} : sent[0];
    const std::size_t addr =
        sent.size() < 4
            ? 0
            : (std::size_t{sent[1]} << 16 | std::size_t{sent[2]} << 8 | std::size_t{sent[3]}) %
                  CHIP_SIZE;
    switch (instruction) {
      case 0x9F: {  // who are you
        constexpr std::array<std::uint8_t, 3> ID = {0xEF, 0x40, 0x18};
        std::copy_n(ID.begin(), std::min(answer_size, ID.size()), answer.begin());
        break;
      }
      case 0x03:  // read
      case 0x0B:
        for (std::size_t i = 0; i < answer_size; ++i) answer[i] = _cells[(addr + i) % CHIP_SIZE];
        break;
      case 0x06:
        _may_write = true;
        break;
      case 0x04:
        _may_write = false;
        break;
      case 0x05:  // status: never busy
        std::fill(answer.begin(), answer.end(), _may_write ? std::uint8_t{2} : std::uint8_t{0});
        break;
      case 0x02:  // program a page
        if (!_may_write) break;
        for (std::size_t i = 4; i < sent.size(); ++i) {
          auto& cell = _cells[(addr & ~std::size_t{0xFF}) | ((addr + i - 4) & 0xFF)];
          cell = static_cast<std::uint8_t>(cell & sent[i]);
        }
        _may_write = false;
        break;
      case 0x20:
        Erase(addr, 4096);
        break;
      case 0x52:
        Erase(addr, 32768);
        break;
      case 0xD8:
        Erase(addr, 65536);
        break;
      case 0xC7:
      case 0x60:
        Erase(0, CHIP_SIZE);
        break;
      case 0x35:
      case 0x15:
        break;  // the other status registers: nothing protected
      default:
        std::fill(answer.begin(), answer.end(), std::uint8_t{0xFF});
    }
    return answer;
  }

  std::size_t Operations() const { return _operations; }
  std::uint32_t Sum() const {
    std::uint32_t sum = 0;
    for (const std::uint8_t cell : _cells) sum = sum * 31 + cell;
    return sum;
  }

 private:
  void Erase(std::size_t addr, std::size_t size) {
    if (!_may_write) return;
    const auto start = _cells.begin() + static_cast<std::ptrdiff_t>(addr / size * size);
    std::fill_n(start, size, std::uint8_t{0xFF});
    _may_write = false;
  }

  Bytes _cells = Bytes(CHIP_SIZE, 0xFF);
  bool _may_write = false;
  std::size_t _operations = 0;
};

std::size_t Number(const Bytes& bytes, std::size_t at) {
  return bytes[at] | std::size_t{bytes[at + 1]} << 8 | std::size_t{bytes[at + 2]} << 16;
}

void Serve(Line& line, Chip& chip) {
  for (Bytes command; !(command = line.Take(1)).empty();) {
    switch (command[0]) {
      case 0x00:  // nothing
      case 0x0B:  // begin and run a row of operations: there is none
      case 0x0F:
        line.Give({ACK});
        break;
      case 0x01:  // version of the protocol
        line.Give({ACK, 1, 0});
        break;
      case 0x02: {  // commands, a bit each
        Bytes map(33, 0);
        map[0] = ACK;
        for (const int known :
             {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x08, 0x0B, 0x0F, 0x10, 0x11, 0x12, 0x13, 0x15}) {
          auto& byte = map[1 + static_cast<std::size_t>(known) / 8];
          byte = static_cast<std::uint8_t>(byte | 1 << known % 8);
        }
        line.Give(map);
        break;
      }
      case 0x03: {  // name
        std::string name = "bench peer";
        name.resize(16);
        line.Give({ACK});
        line.Give({name.begin(), name.end()});
        break;
      }
      case 0x04:  // room for what comes in
        line.Give({ACK, 0xFF, 0xFF});
        break;
      case 0x05:  // buses: SPI
        line.Give({ACK, 0x08});
        break;
      case 0x08:  // most bytes of one operation, out and in: any
      case 0x11:
        line.Give({ACK, 0, 0, 0});
        break;
      case 0x10:
        line.Give({NAK, ACK});
        break;
      case 0x12:  // choose the bus; switch the pins
      case 0x15:
        line.Take(1);
        line.Give({ACK});
        break;
      case 0x13: {
        const Bytes sizes = line.Take(6);
        if (sizes.empty()) return;
        const Bytes sent = line.Take(Number(sizes, 0));
        line.Give({ACK});
        line.Give(chip.Operate(sent, Number(sizes, 3)));
        break;
      }
      default:
        line.Give({NAK});
    }
  }
}

}  // namespace

int main() {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), size) < 0 ||
      listen(listener, 1) < 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) < 0) {
    return EXIT_FAILURE;
  }
  std::printf("%d\n", ntohs(address.sin_port));
  std::fflush(stdout);
  alarm(600);  // whatever the client does
  const int client = accept(listener, nullptr, nullptr);
  if (client < 0) return EXIT_FAILURE;
  const int on = 1;
  setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  Line line(client);
  Chip chip;
  Serve(line, chip);
  std::printf("%zu %u\n", chip.Operations(), chip.Sum());
  return EXIT_SUCCESS;
}
