// The least that any client can cost, so it shares no code with protocol/Client: plays recorded
// request frames to a server, one write and the fewest reads per request, and nothing else.
// Usage: bench_null_client PORT FRAMES
//
// FRAMES holds, for each request, two 32-bit numbers in the machine's order, the bytes of the
// request and of its answer, and then the request.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

/// All that goes wrong here ends the benchmark.
void Must(bool is_well) {
  if (!is_well) std::_Exit(EXIT_FAILURE);
}

}  // namespace

int main(int argc, char* argv[]) {
  Must(argc == 3);
  const int file = open(argv[2], O_RDONLY);
  struct stat status {};
  Must(file >= 0 && fstat(file, &status) == 0);
  const auto size = static_cast<std::size_t>(status.st_size);
  void* map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file, 0);
  Must(map != MAP_FAILED);
  const char* at = static_cast<const char*>(map);
  const char* const end = at + size;

  const int sock = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[1])));
  Must(connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);

  std::vector<char> answer(std::size_t{1} << 20);
  while (at != end) {
    std::uint32_t sizes[2];
    std::memcpy(sizes, at, sizeof(sizes));
    at += sizeof(sizes);
    for (std::size_t sent = 0; sent < sizes[0];) {
      const ssize_t count = write(sock, at + sent, sizes[0] - sent);
      Must(count > 0);
      sent += static_cast<std::size_t>(count);
    }
    at += sizes[0];
    for (std::size_t got = 0; got < sizes[1];) {
      const ssize_t count = read(sock, answer.data(), answer.size());
      Must(count > 0);
      got += static_cast<std::size_t>(count);
    }
  }
  return EXIT_SUCCESS;
}
