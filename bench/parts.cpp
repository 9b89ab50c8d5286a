// The parts of a burn that cost time, each beside a plain way to do the same.
#include <benchmark/benchmark.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <numeric>
#include <random>
#include <thread>

#include "src/BraidConn.h"
#include "src/BurnAlgorithm.h"
#include "src/RomInterface.h"
#include "src/utils.h"

namespace {

using BraidConn::Response;

/// An interface whose server gives the same answer again and again, for nothing.
class CannedRom : public RemoteI2cInterface {
 public:
  explicit CannedRom(std::size_t devices) : RemoteI2cInterface(5) {
    GuidSet guids;
    for (Guid guid = 1; guid <= devices; ++guid) guids.insert(0x00aa550000000000 + 16 * guid);
    SetAccessDevices(guids);
    SetAddressConvertor(&_flat);
    _multi_max = 1000000;
  }

  using RemoteRomInterface::GenRwRequest;
  using RemoteRomInterface::InitResults;
  using RemoteRomInterface::ProcessResponse;
  using RemoteRomInterface::WriteInternal;

  void AnswerWith(const std::string& text) { _answer = Response(text); }

 protected:
  Response Exchange(const std::string& request) override {
    benchmark::DoNotOptimize(request.data());
    return _answer;
  }

 private:
  FwImage::Conv _flat;
  Response _answer;
};

std::string ReadElement(std::size_t bytes, unsigned seed) {
  std::mt19937 rng(seed);
  std::ostringstream text;
  text << "{ACK" << std::hex;
  for (std::size_t i = 0; i < bytes; i += 4) text << " {data 0x" << rng() << "}";
  text << "}";
  return text.str();
}

std::string ReadAnswer(std::size_t devices, std::size_t bytes) {
  std::string answer;
  for (std::size_t i = 0; i < devices; ++i) {
    if (i > 0) answer += " ";
    answer += ReadElement(bytes, static_cast<unsigned>(i));
  }
  return answer;
}

DataVec RandomData(std::size_t size) {
  std::mt19937 rng(1);
  DataVec data(size);
  for (u_int8_t& byte : data) byte = static_cast<u_int8_t>(rng());
  return data;
}

void CountBytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
}

/// As the CRC is defined: one bit after the other.
u_int32_t BitwiseCrc(const DataVec& data) {
  u_int32_t crc = 0xFFFF;
  const auto shift_in = [&crc](u_int32_t bit) {
    const bool top = (crc & 0x8000) != 0;
    crc = ((crc << 1) | bit) & 0xFFFF;
    if (top) crc ^= 0x100B;
  };
  for (const u_int8_t byte : data) {
    for (int i = 7; i >= 0; --i) shift_in(byte >> i & 1u);
  }
  for (int i = 0; i < 16; ++i) shift_in(0);
  return crc ^ 0xFFFF;
}

constexpr std::size_t MEBIBYTE = std::size_t{1} << 20;

void CrcBitwise(benchmark::State& state) {
  const DataVec data = RandomData(MEBIBYTE);
  for (auto _ : state) benchmark::DoNotOptimize(BitwiseCrc(data));
  CountBytes(state, data.size());
}
BENCHMARK(CrcBitwise);

void Crc(benchmark::State& state) {
  const DataVec data = RandomData(MEBIBYTE);
  CannedRom rom(1);
  GenericBurn burn(rom);
  if (burn.CalcCrc(data) != BitwiseCrc(data)) state.SkipWithError("wrong CRC");
  for (auto _ : state) benchmark::DoNotOptimize(burn.CalcCrc(data));
  CountBytes(state, data.size());
}
BENCHMARK(Crc);

/// One pass over the text, which no parser can do without.
void AnswerReadOnce(benchmark::State& state) {
  const std::string answer = ReadAnswer(1, 65536);
  for (auto _ : state) {
    unsigned sum = 0;
    for (const char c : answer) {
      sum += static_cast<unsigned char>(c);
      benchmark::DoNotOptimize(sum);
    }
  }
  CountBytes(state, answer.size());
}
BENCHMARK(AnswerReadOnce);

void AnswerToBytes(benchmark::State& state) {
  CannedRom rom(1);
  const Response answer(ReadAnswer(1, 65536));
  for (auto _ : state) {
    rom.InitResults();
    rom.ProcessResponse(RomInterface::READ, answer);
  }
  if (rom.LastActionResult(0x00aa550000000010)->_data.size() != 65536) {
    state.SkipWithError("wrong data");
  }
  CountBytes(state, answer.size());
}
BENCHMARK(AnswerToBytes);

void TclSplit(benchmark::State& state) {
  const Response answer(ReadAnswer(1000, 32));
  for (auto _ : state) benchmark::DoNotOptimize(answer.TclSplit());
  CountBytes(state, answer.size());
}
BENCHMARK(TclSplit);

/// The answer of a 32-byte read, paired with its devices and turned into bytes.
void Pairing(benchmark::State& state) {
  const auto devices = static_cast<std::size_t>(state.range(0));
  CannedRom rom(devices);
  const Response answer(ReadAnswer(devices, 32));
  for (auto _ : state) {
    rom.InitResults();
    rom.ProcessResponse(RomInterface::READ, answer);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Pairing)->RangeMultiplier(10)->Range(1, 10000);

/// A 32-byte write to all devices, answered by one word.
void WriteAll(benchmark::State& state) {
  CannedRom rom(static_cast<std::size_t>(state.range(0)));
  rom.AnswerWith("ACK");
  const DataVec data = RandomData(32);
  for (auto _ : state) rom.WriteInternal(0x1000, 32, data);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(WriteAll)->RangeMultiplier(10)->Range(1, 10000);

void RequestText(benchmark::State& state) {
  CannedRom rom(1000);
  const DataVec data = RandomData(32);
  std::string request;
  for (auto _ : state) {
    rom.GenRwRequest(RomInterface::WRITE, 0x1000, 32, data, request);
    benchmark::DoNotOptimize(request.data());
  }
  CountBytes(state, request.size());
}
BENCHMARK(RequestText);

void RequestTextCopied(benchmark::State& state) {
  CannedRom rom(1000);
  const DataVec data = RandomData(32);
  std::string request;
  rom.GenRwRequest(RomInterface::WRITE, 0x1000, 32, data, request);
  std::string copy;
  for (auto _ : state) {
    copy.assign(request);
    benchmark::DoNotOptimize(copy.data());
  }
  CountBytes(state, request.size());
}
BENCHMARK(RequestTextCopied);

constexpr std::size_t LINE_SIZE = 16384;

/// A socket pair whose other end sends lines for as long as somebody reads.
class Lines {
 public:
  Lines() {
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, _ends) < 0) std::abort();
    _sender = std::thread([fd = _ends[1]] {
      const std::string line = std::string(LINE_SIZE, 'x') + "\n";
      while (send(fd, line.data(), line.size(), MSG_NOSIGNAL) > 0) {
      }
    });
  }
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;
  ~Lines() {
    shutdown(_ends[0], SHUT_RDWR);
    _sender.join();
    close(_ends[1]);
  }
  int Fd() const { return _ends[0]; }

 private:
  int _ends[2];
  std::thread _sender;
};

void GetsBytewise(benchmark::State& state) {
  const Lines lines;
  for (auto _ : state) {
    std::string line;
    for (;;) {
      fd_set waiting;
      FD_ZERO(&waiting);
      FD_SET(lines.Fd(), &waiting);
      timeval limit{30, 0};
      char c = 0;
      if (select(lines.Fd() + 1, &waiting, nullptr, nullptr, &limit) != 1) break;
      if (read(lines.Fd(), &c, 1) != 1 || c == '\n') break;
      line += c;
    }
    if (line.size() != LINE_SIZE) state.SkipWithError("wrong line");
  }
  close(lines.Fd());
  CountBytes(state, LINE_SIZE);
}
BENCHMARK(GetsBytewise);

void Gets(benchmark::State& state) {
  class Adopting : public BraidConn::Socket {
   public:
    explicit Adopting(int fd) { _sock = fd; }
  };
  const Lines lines;
  const Adopting socket(lines.Fd());
  for (auto _ : state) {
    std::string line;
    socket.Gets(line);
    if (line.size() != LINE_SIZE) state.SkipWithError("wrong line");
  }
  CountBytes(state, LINE_SIZE);
}
BENCHMARK(Gets);

}  // namespace

BENCHMARK_MAIN();
