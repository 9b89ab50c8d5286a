// Whole burns by the built fwpush beside a client that does nothing but play the same requests to
// the same server, in turns. Prints a JSON array, an object for each burn.
// Usage: bench_burn BUILD-FOLDER [ROUNDS]; 0 rounds: only the small burns, once
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <thread>

#include "common/ChildProcess.h"
#include "common/ScratchFolder.h"
#include "protocol/Frames.h"
#include "protocol/Listener.h"
#include "protocol/Server.h"
#include "sim/Fabric.h"
#include "src/BraidGeneral.h"

namespace {

namespace fs = std::filesystem;
using common::Descriptor;
using common::ScratchFolder;

constexpr u_int32_t KIBIBYTE = 1024;
constexpr u_int32_t MEBIBYTE = 1024 * KIBIBYTE;

/// What is burnt onto what.
struct Burn {
  std::string name;
  bool is_flash;
  u_int32_t devices;
  u_int32_t size;          ///< bytes of the one section
  u_int32_t chunk;         ///< log2
  bool has_field = false;  ///< a GUID and a CRC over all but its own word
};

/// What one run of a client cost.
struct Cost {
  double wall = 0;  ///< seconds
  double cpu = 0;   ///< seconds, user and system
};

/// What is run.
struct Programs {
  std::string fwpush;
  std::string null_client;
  std::string peak;
};

constexpr Guid FIRST_GUID = 0x00aa550000000010;
constexpr Guid GUID_STEP = 0x10;

void Fill(sim::Fabric& fabric, const Burn& burn) {
  fabric.facts.multi_max = "1000000";
  for (u_int32_t i = 0; i < burn.devices; ++i) {
    sim::Device device;
    device.node_guid = FIRST_GUID + GUID_STEP * i;
    device.port_guids = {device.node_guid + 1};
    device.declared_ports = 1;
    device.kind = burn.is_flash ? device::MemoryKind::FLASH : device::MemoryKind::EEPROM;
    device.chips.try_emplace(u_int8_t{0}, sim::Chip(std::make_unique<sim::Cells>(burn.size),
                                                    burn.is_flash ? 64 * KIBIBYTE : 0));
    fabric.Add(std::move(device));
  }
}

void WriteImage(const std::string& path, const Burn& burn) {
  std::ofstream file(path);
  file << std::hex << "DEVICE_TYPE " << (burn.is_flash ? "RV52100" : "RV61100") << "\n";
  if (burn.has_field) {
    file << "REPLACE GUID 40 0\nREPLACE CRC 0 0 " << burn.size - 8 << " 0 " << burn.size - 4
         << " 0\n";
  }
  file << "START ALL 0 0\n";
  std::mt19937 rng(1);
  for (u_int32_t i = 0; i < burn.size; ++i) {
    file << (rng() & 0xFF) << (i % 16 == 15 ? "\n" : " ");
  }
  file << "END ALL\n";
}

/// Runs a program to its end, its output thrown away, its errors written to `errors` where given.
/// Throws when it ends with another status.
Cost Run(const std::vector<std::string>& words, const std::string& errors = "",
         int expected_status = 0) {
  const Descriptor output(open("/dev/null", O_WRONLY | O_CLOEXEC));
  Descriptor told;
  if (!errors.empty())
    told = Descriptor(open(errors.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const auto start = std::chrono::steady_clock::now();
  common::ChildProcess child({.words = words, .output = output.Get(), .errors = told.Get()});
  const common::Ending ending = child.Wait();
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  if (ending.status != expected_status) throw std::runtime_error(words[0] + " failed");
  return {.wall = wall.count(), .cpu = ending.cpu.count()};
}

/// Answers the recorded requests of one client after the other, by their lengths alone.
class Replay {
 public:
  explicit Replay(const std::vector<protocol::Exchange>& exchanges) {
    for (const protocol::Exchange& exchange : exchanges) {
      _steps.push_back(
          {protocol::Frame(exchange.request).size(), protocol::Frame(exchange.answer)});
    }
    _thread = std::thread([this] { Serve(); });
  }
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;
  ~Replay() {
    _listener.Stop();
    _thread.join();
  }
  int Port() const { return _listener.Port(); }

 private:
  struct Step {
    std::size_t request;  ///< bytes
    std::string answer;
  };

  void Serve() {
    std::vector<char> block(MEBIBYTE);
    for (Descriptor client; (client = _listener.Accept()).IsOpen();) Play(client.Get(), block);
  }

  void Play(int client, std::vector<char>& block) const {
    for (const Step& step : _steps) {
      for (std::size_t got = 0; got < step.request;) {
        const ssize_t count = read(client, block.data(), block.size());
        if (count <= 0) return;
        got += static_cast<std::size_t>(count);
      }
      if (send(client, step.answer.data(), step.answer.size(), MSG_NOSIGNAL) < 0) return;
    }
    // The client closes first, so that its port is free at once for nobody else.
    while (read(client, block.data(), block.size()) > 0) {
    }
  }

  std::vector<Step> _steps;
  protocol::Listener _listener;
  std::thread _thread;
};

std::vector<std::string> FwpushWords(const std::string& fwpush, const std::string& image,
                                     const std::string& server, const Burn& burn) {
  std::vector<std::string> words = {fwpush, "-n",  "-m", std::to_string(burn.chunk),
                                    "-f",   image, "-s", server};
  // One word of the command line has its limit; several -g add up.
  constexpr u_int32_t GUIDS_A_WORD = 1000;
  for (u_int32_t i = 0; i < burn.devices; i += GUIDS_A_WORD) {
    std::ostringstream list;
    list << std::hex;
    for (u_int32_t j = i; j < std::min(burn.devices, i + GUIDS_A_WORD); ++j) {
      list << FIRST_GUID + GUID_STEP * j << ",";
    }
    words.emplace_back("-g");
    words.push_back(list.str());
  }
  return words;
}

/// System calls of a run, by strace; 0 where there is none, or where it may not trace.
std::size_t SystemCalls(std::vector<std::string> words, const ScratchFolder& folder,
                        int expected_status = 0) {
  const std::string counts = folder / "strace";
  words.insert(words.begin(), {"/usr/bin/strace", "-c", "-f", "-o", counts});
  if (!fs::exists(words[0])) return 0;
  try {
    Run(words, "", expected_status);
  } catch (const std::runtime_error&) {
    return 0;
  }
  std::ifstream file(counts);
  for (std::string line; std::getline(file, line);) {
    if (!line.ends_with(" total")) continue;
    std::istringstream fields(line);
    std::string ignored;
    std::size_t calls = 0;
    fields >> ignored >> ignored >> ignored >> calls;
    return calls;
  }
  return 0;
}

/// The most memory that a run holds, in KiB.
long Peak(std::vector<std::string> words, const Programs& programs, const ScratchFolder& folder) {
  words.insert(words.begin(), programs.peak);
  const std::string errors = folder / "peak";
  Run(words, errors);
  std::ifstream file(errors);
  long peak = 0;
  file >> peak;
  return peak;
}

/// System calls of a run beyond those of one that ends when the image is loaded: the connection's.
std::size_t ConnectionCalls(const std::vector<std::string>& words, const ScratchFolder& folder) {
  std::vector<std::string> loading = words;
  loading.emplace_back("-l");
  return SystemCalls(words, folder) - SystemCalls(loading, folder, EXIT_FAILURE);
}

Cost Best(const Cost& a, const Cost& b) {
  return {std::min(a.wall, b.wall), std::min(a.cpu, b.cpu)};
}

double Median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

nlohmann::json Measure(const Burn& burn, const Programs& programs, unsigned rounds) {
  const ScratchFolder folder("fwpush-bench");
  const std::string image = folder / "fw.img";
  WriteImage(image, burn);
  std::vector<protocol::Exchange> exchanges;
  {
    sim::Fabric fabric;
    Fill(fabric, burn);
    protocol::ServerThread server(fabric);
    Run(FwpushWords(programs.fwpush, image, server.ServerString(), burn));
    exchanges = server.Exchanges();
  }
  const std::string frames = folder / "frames";
  std::ofstream file(frames, std::ios::binary);
  for (const protocol::Exchange& exchange : exchanges) {
    const std::string request = protocol::Frame(exchange.request);
    const u_int32_t sizes[] = {static_cast<u_int32_t>(request.size()),
                               static_cast<u_int32_t>(protocol::Frame(exchange.answer).size())};
    file.write(reinterpret_cast<const char*>(sizes), sizeof(sizes));
    file << request;
  }
  file.close();

  const Replay replay(exchanges);
  const std::vector<std::string> ours =
      FwpushWords(programs.fwpush, image, Text("IB:127.0.0.1:", replay.Port()), burn);
  const std::vector<std::string> null = {programs.null_client, std::to_string(replay.Port()),
                                         frames};
  Cost our_best{1e9, 1e9};
  Cost null_best = our_best;
  // The machine may turn slow for seconds: only runs that follow each other are compared.
  std::vector<double> wall_ratios;
  std::vector<double> cpu_ratios;
  for (unsigned i = 0; i < rounds; ++i) {
    const Cost our_cost = Run(ours);
    const Cost null_cost = Run(null);
    our_best = Best(our_best, our_cost);
    null_best = Best(null_best, null_cost);
    wall_ratios.push_back(our_cost.wall / null_cost.wall);
    cpu_ratios.push_back(our_cost.cpu / std::max(null_cost.cpu, 1e-6));
  }
  return {{"name", burn.name},
          {"devices", burn.devices},
          {"bytes", burn.size},
          {"requests", exchanges.size()},
          {"wall", our_best.wall},
          {"cpu", our_best.cpu},
          {"peak_kib", Peak(ours, programs, folder)},
          {"null_wall", null_best.wall},
          {"null_cpu", null_best.cpu},
          {"wall_ratio", Median(wall_ratios)},
          {"cpu_ratio", Median(cpu_ratios)},
          {"system_calls", ConnectionCalls(ours, folder)}};
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc < 2) {
    std::cerr << "usage: bench_burn BUILD-FOLDER [ROUNDS]" << std::endl;
    return EXIT_FAILURE;
  }
  const std::string build = argv[1];
  const Programs programs{build + "/fwpush", build + "/bench_null_client", build + "/bench_peak"};
  const unsigned rounds = argc > 2 ? static_cast<unsigned>(std::stoul(argv[2])) : 5;
  const std::vector<Burn> burns = {
      {"flash 1 MiB, 32-byte chunks", true, 1, MEBIBYTE, 5},
      {"flash 1 MiB, 32 KiB chunks", true, 1, MEBIBYTE, 15},
      {"flash 64 KiB, 32 KiB chunks", true, 1, 64 * KIBIBYTE, 15},
      {"flash 16 MiB, 32 KiB chunks", true, 1, 16 * MEBIBYTE, 15},
      {"EEPROM on 1 device", false, 1, 128 * KIBIBYTE, 5},
      {"EEPROM on 10 devices", false, 10, 128 * KIBIBYTE, 5},
      {"EEPROM on 100 devices", false, 100, 64 * KIBIBYTE, 5},
      {"EEPROM on 1000 devices", false, 1000, 32 * KIBIBYTE, 5},
      {"EEPROM on 10000 devices", false, 10000, 8 * KIBIBYTE, 5},
      {"1 MiB with a GUID and a CRC on 1000 devices", false, 1000, MEBIBYTE, 15, true},
  };
  try {
    nlohmann::json results = nlohmann::json::array();
    for (const Burn& burn : burns) {
      // A smoke test is content with the small ones.
      if (rounds == 0 && (burn.size > 128 * KIBIBYTE || burn.devices > 100)) continue;
      results.push_back(Measure(burn, programs, std::max(rounds, 1u)));
    }
    std::cout << results.dump(1) << std::endl;
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::cerr << "bench_burn: " << error.what() << std::endl;
    return EXIT_FAILURE;
  }
}
