/// Judges the memory of one device, as files have it, by device/: what a burn must leave, and what
/// boots after an interruption.

#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>

#include "device/Burn.h"
#include "device/ImageFile.h"
#include "device/Whole.h"

namespace {

constexpr const char* USAGE =
    "usage: board_judge fill  --image FILE --slot N --guid GUID [--sector BYTES] MEMORY\n"
    "       board_judge burnt --image FILE --before FILE --guid GUID [--sector BYTES] [--plain 1]\n"
    "                         MEMORY\n"
    "       board_judge torn  --old FILE --image FILE --before FILE --guid GUID [--sector BYTES]\n"
    "                         MEMORY\n"
    "fill writes an image into MEMORY, which is there, as a device has it in slot N. burnt: "
    "whether\n"
    "a burn of the image leaves MEMORY on a device that had the bytes of --before. torn: whether\n"
    "MEMORY, left by an interrupted burn, boots a whole image: the old one or the new one.\n"
    "Status: 0 yes, 1 no, 64 wrong command line or files.\n";

using Options = std::map<std::string, std::string>;

device::Bytes ReadBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  device::Bytes bytes((std::istreambuf_iterator<char>(file)), {});
  if (!file || bytes.empty()) throw std::runtime_error("can't read " + path);
  return bytes;
}

std::uint64_t Number(const Options& options, const std::string& name) {
  return std::stoull(options.at(name), nullptr, 0);
}

/// As fwpush-serve tells it of a device with nothing but a GUID.
device::Identity IdentityOf(device::Guid guid) {
  return {.node = guid, .ports = {guid}, .system = guid, .declared_ports = 1, .vsd = {}, .bsn = {}};
}

int Fill(const Options& options, const std::string& path, device::Memory memory) {
  const device::Image image = device::ReadImage(options.at("image"));
  memory.bytes = ReadBytes(path);
  device::Burn(image, device::BurnKind::FAILSAFE, IdentityOf(Number(options, "guid")))
      .Fill(memory, {.slot = static_cast<std::uint32_t>(Number(options, "slot"))});
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(memory.bytes.data()),
             static_cast<std::streamsize>(memory.bytes.size()));
  if (!file.flush()) throw std::runtime_error("can't write " + path);
  return 0;
}

int CheckBurnt(const Options& options, const std::string& path, device::Memory memory) {
  const device::Image image = device::ReadImage(options.at("image"));
  memory.bytes = ReadBytes(options.at("before"));
  const device::Bytes is = ReadBytes(path);
  const auto kind =
      options.contains("plain") ? device::BurnKind::PLAIN : device::BurnKind::FAILSAFE;
  const device::Outcome outcome =
      device::Burn(image, kind, IdentityOf(Number(options, "guid"))).After(memory);
  if (!outcome.refusal.empty()) throw std::runtime_error("no burn: " + outcome.refusal);
  const device::Bytes& expected = outcome.memory.bytes;
  std::size_t different = expected.size() == is.size() ? 0 : 1;
  for (std::size_t i = 0; i < std::min(expected.size(), is.size()); ++i) {
    if (expected[i] == is[i]) continue;
    if (++different <= 4) {
      std::cout << std::hex << "at 0x" << i << ": 0x" << +is[i] << " in the place of 0x"
                << +expected[i] << "\n";
    }
  }
  std::cout << std::dec << is.size() << " bytes, different: " << different << "\n";
  return different == 0 ? 0 : 1;
}

int CheckTorn(const Options& options, const std::string& path, device::Memory before) {
  const device::Image old = device::ReadImage(options.at("old"));
  const device::Image now = device::ReadImage(options.at("image"));
  const device::Identity identity = IdentityOf(Number(options, "guid"));
  before.bytes = ReadBytes(options.at("before"));
  const auto layout = device::LayoutOf(now, before.sector_size);
  if (!layout) throw std::runtime_error("the image has no slots");
  device::Judge judge(*layout, before.bytes);
  judge.AddPresentInvariantSector();
  judge.AddKnownImage(old, identity, before, device::Whole::OLD);
  judge.AddKnownImage(now, identity, before, device::Whole::NEW, device::Origin::FAILSAFE_BURN);
  if (!judge.CurrentVerdict().BootsWhole()) {
    throw std::runtime_error("before the burn: " + Describe(judge.CurrentVerdict()));
  }
  const device::Bytes is = ReadBytes(path);
  if (is.size() != before.bytes.size()) throw std::runtime_error(path + " has another size");
  judge.SetAll(is);
  const device::Verdict verdict = judge.CurrentVerdict();
  std::cout << Describe(verdict) << (is == before.bytes ? " (nothing is changed)" : "") << "\n";
  return verdict.BootsWhole() ? 0 : 1;
}

int Run(int argc, char** argv) {
  Options options;
  int i = 2;
  for (; i + 1 < argc && std::strncmp(argv[i], "--", 2) == 0; i += 2) {
    options[argv[i] + 2] = argv[i + 1];
  }
  if (i + 1 != argc) throw std::out_of_range("no memory");
  device::Memory memory;
  if (options.contains("sector")) {
    memory.sector_size = static_cast<std::uint32_t>(Number(options, "sector"));
  }
  const std::string command = argv[1];
  if (command == "fill") return Fill(options, argv[i], memory);
  if (command == "burnt") return CheckBurnt(options, argv[i], memory);
  if (command == "torn") return CheckTorn(options, argv[i], memory);
  throw std::out_of_range("no such command");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::logic_error&) {  // an option is missing, or no number
    std::cerr << USAGE;
  } catch (const std::runtime_error& error) {
    std::cerr << "board_judge: " << error.what() << "\n";
  }
  return 64;
}
