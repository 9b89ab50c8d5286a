#include "main.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>

#include "utils.h"

const char* const g_version = "1.0.0";
const char* const g_build_ver = "20050712-1101";
const char* const g_cvs_rev = "$Revision: 1.10 $";
const char* const g_braid_ver = "";

namespace {

constexpr u_int32_t MIN_CHUNK_ALIGN = 4;   ///< log2: 16 bytes
constexpr u_int32_t MAX_CHUNK_ALIGN = 15;  ///< log2: 32768 bytes

/// The values given on the command line.
struct Options {
  std::optional<std::string> fw_file;
  std::optional<std::string> server;
  bool is_local_burn = false;
  bool is_fs_burn = true;
  bool is_fw_dump = false;
  bool is_fw_check = false;
  bool is_debug_burn = false;
  GuidSet target_guids;
  u_int32_t log2_chunk_align = 5;
};

/// Set when the program must end, with this status.
using ExitStatus = std::optional<int>;

ExitStatus SetFile(Options& options, const std::string& value, const char*) {
  if (options.fw_file) {
    ConsolePrintf(
        "FW image file may be specified onyl once.\n"
        "New FW image file: \"%s\", Old FW image file: \"%s\"\n",
        value.c_str(), options.fw_file->c_str());
    return EXIT_FAILURE;
  }
  options.fw_file = value;
  return {};
}

ExitStatus SetServer(Options& options, const std::string& value, const char*) {
  options.server = value;
  return {};
}

ExitStatus AddGuids(Options& options, const std::string& value, const char*) {
  GetTargeGuids(value, options.target_guids);
  return {};
}

ExitStatus PrintVersion(Options&, const std::string&, const char*) {
  ConsolePrintf("fwpush %s, BRAID %s, BUILD %s\n", g_version, g_braid_ver, g_build_ver);
  return EXIT_SUCCESS;
}

ExitStatus PrintLongVersion(Options&, const std::string&, const char*) {
  ConsolePrintf("fwpush %s, BRAID %s, BUILD %s, CVS %s\n", g_version, g_braid_ver, g_build_ver,
                g_cvs_rev + 1);  // without the first "$"
  return EXIT_SUCCESS;
}

ExitStatus SetChunkAlign(Options& options, const std::string& value, const char*) {
  u_int32_t align = 0;
  if (!ParseNumber(value, 10, align)) {
    ConsolePrintf("Bad argument to -m flag");
    return EXIT_FAILURE;
  }
  if (align < MIN_CHUNK_ALIGN || align > MAX_CHUNK_ALIGN) {
    ConsolePrintf("Illegal value to -m flag: %d", static_cast<int>(align));
    return EXIT_FAILURE;
  }
  options.log2_chunk_align = align;
  return {};
}

ExitStatus IgnoreVerbosity(Options&, const std::string& value, const char*) {
  std::cout << "-W- Setting verbosity to " << value << " ignored (not yet implemented)"
            << std::endl;
  return {};
}

ExitStatus PrintHelp(Options&, const std::string&, const char* program) {
  usage(program);
  return EXIT_SUCCESS;
}

template <bool Options::*flag, bool value>
ExitStatus SetFlag(Options& options, const std::string&, const char*) {
  options.*flag = value;
  return {};
}

struct SwitchRow {
  std::string_view name;
  bool takes_value;
  ExitStatus (*apply)(Options& options, const std::string& value, const char* program);
};

/// In order of precedence: an abbreviation selects the first switch that it matches.
constexpr auto SWITCHES = std::to_array<SwitchRow>({
    {"f", true, SetFile},
    {"s", true, SetServer},
    {"g", true, AddGuids},
    {"version", false, PrintVersion},
    {"vv", false, PrintLongVersion},
    {"n", false, SetFlag<&Options::is_fs_burn, false>},
    {"l", false, SetFlag<&Options::is_local_burn, true>},
    {"m", true, SetChunkAlign},
    {"V", true, IgnoreVerbosity},
    {"help", false, PrintHelp},
    {"D", false, SetFlag<&Options::is_debug_burn, true>},
    {"d", false, SetFlag<&Options::is_fw_dump, true>},
    {"c", false, SetFlag<&Options::is_fw_check, true>},
});

ExitStatus ParseCommandLine(int ac, char* av[], Options& options) {
  if (ac < 2) {
    usage(ac > 0 ? av[0] : "fwpush");
    return EXIT_FAILURE;
  }
  for (int i = 1; i < ac; ++i) {
    const std::string_view orig_sw = av[i];
    if (!orig_sw.starts_with('-')) {
      ConsolePrintf("Unexpected parameter \"%s\" is specified.\n", av[i]);
      return EXIT_FAILURE;
    }
    const std::string_view word =
        orig_sw.substr(std::min(orig_sw.find_first_not_of('-'), orig_sw.size()));
    const auto row = std::ranges::find_if(
        SWITCHES, [word](const SwitchRow& candidate) { return swcmp(word, candidate.name); });
    if (row == SWITCHES.end()) {
      ConsolePrintf("Invalid switch \"%s\" is specified.\n", av[i]);
      return EXIT_FAILURE;
    }
    std::string value;
    if (row->takes_value) {
      if (const std::size_t equals = word.find('='); equals != std::string_view::npos) {
        value = word.substr(equals + 1);
      } else if (++i < ac) {
        value = av[i];
      } else {
        ConsolePrintf("Missed parameter after \"-%s\" switch\n", std::string(row->name).c_str());
        return EXIT_FAILURE;
      }
    }
    if (const ExitStatus status = row->apply(options, value, av[0])) return status;
  }
  if (!options.server) {
    ConsolePrintf("-E- -s <server> flag must be specified\n");
    return EXIT_FAILURE;
  }
  if (options.target_guids.empty()) {
    ConsolePrintf("-E- No target devices given (-g <guids> flag).\n");
    return EXIT_FAILURE;
  }
  return {};
}

/// Performs one burn, from loading the image to the final report. Throws BraidError on failure.
void Burn(const Options& options) {
  FwImage image;
  image.Open(options.fw_file ? options.fw_file->c_str() : nullptr, READ);
  image.PrintStatus();

  Debug() << "GetRomInterface, using chunks of " << std::dec << (1u << options.log2_chunk_align)
          << " bytes" << std::endl;
  const auto rom_if = GetRomInterface(image.DevType(), options.log2_chunk_align,
                                      options.is_local_burn, options.is_debug_burn);
  Debug() << "Setting addr convertor." << std::endl;
  rom_if->SetAddressConvertor(image.GetAddressConvertor());
  rom_if->SetAccessDevices(options.target_guids);

  Debug() << "Openning rom interface (" << *options.server << ")." << std::endl;
  rom_if->Open(options.server->c_str());

  Debug() << "GetBurnAlgorithm()" << std::endl;
  const auto burn = GetBurnAlgorithm(image.DevType(), rom_if.get(), options.is_fs_burn,
                                     options.is_fw_dump, options.is_fw_check);
  Debug() << "Running burn algorithm: " << burn->GetName() << std::endl;
  burn->Go(image);
  std::cout << "-I- BURN SUCCEEDED" << std::endl;
}

std::unique_ptr<RomInterface> MakeFlash(u_int32_t log2_chunk_align) {
  return std::make_unique<RemoteFlashInterface>(log2_chunk_align);
}

std::unique_ptr<RomInterface> MakeI2c(u_int32_t log2_chunk_align) {
  return std::make_unique<RemoteI2cInterface>(log2_chunk_align);
}

std::unique_ptr<BurnAlgorithm> MakeGeneric(RomInterface& rom_if, bool) {
  return std::make_unique<GenericBurn>(rom_if);
}

std::unique_ptr<BurnAlgorithm> MakeRV61300Failsafe(RomInterface& rom_if, bool check_only) {
  return std::make_unique<RV61300FailsafeBurn>(rom_if, check_only);
}

std::unique_ptr<BurnAlgorithm> MakeRV52100Failsafe(RomInterface& rom_if, bool) {
  constexpr bool ALLOW_NON_FS_BURN = true;
  constexpr bool ALLOW_KEEPING_OLD_IS = false;
  return std::make_unique<RV52100FailsafeBurn>(rom_if, ALLOW_NON_FS_BURN, ALLOW_KEEPING_OLD_IS);
}

/// The memory of a device type and its failsafe burn algorithm.
struct DeviceRow {
  DeviceType type;
  std::unique_ptr<RomInterface> (*make_interface)(u_int32_t log2_chunk_align);
  std::unique_ptr<BurnAlgorithm> (*make_failsafe)(RomInterface& rom_if, bool check_only);
};
constexpr auto DEVICES = std::to_array<DeviceRow>({
    {RV61100, MakeI2c, MakeGeneric},  // holds one image only
    {RV61300, MakeI2c, MakeRV61300Failsafe},
    {RV52100, MakeFlash, MakeRV52100Failsafe},
    {RV52300, MakeFlash, MakeRV52100Failsafe},
    {RV52310, MakeFlash, MakeRV52100Failsafe},
    {RV52400, MakeFlash, MakeRV52100Failsafe},
    {RV52410, MakeFlash, MakeRV52100Failsafe},
});

/// A reader that closes the console's pipe must not end the burn with SIGPIPE. Descriptors 0 to 2
/// that are closed at start are opened, so that the connection to the server gets none of them and
/// no console text is sent to it.
void GuardConsole() {
  signal(SIGPIPE, SIG_IGN);
  int fd;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) close(fd);
}

}  // namespace

void usage(const char* sname) {
  ConsolePrintf(
      "%s\n"
      "\n"
      "     FirmWare Burning Tool\n"
      "    -----------------------\n"
      "\n"
      "   Command Line Arguments (required) :\n"
      "     -f - The image file you wish to install FW (default IMAGE.IMG).\n"
      "     -s - Server to burn through. format: Type:<ip|hostname>:port  (IB:10.0.1.2:26519)\n"
      "     -g - Guids of the devices to burn, separated by commas.\n"
      "\n"
      "\n"
      "   Command Line Options : \n"
      "     -h - Help.\n"
      "     -v - Version.\n"
      "     -V - Verbose mode (DEBUG / WARNING / INFORM).\n"
      "     -m - Chunk alignment (log2) Default - 5 (32 bytes).\n"
      "     -n - Allow no fail-safe burning.\n"
      " version: %s\n"
      "\n",
      sname, g_version);
}

bool swcmp(std::string_view par, std::string_view sw) {
  return sw.starts_with(par.substr(0, par.find('=')));
}

void GetTargeGuids(const std::string& guids_str, GuidSet& target_guids) {
  const std::vector<std::string> words = splitv(guids_str, ",", false);
  for (std::size_t i = 0; i < words.size(); ++i) {
    char* end = nullptr;
    const Guid guid = std::strtoull(words[i].c_str(), &end, 16);
    if (*end != '\0') ThrowError(Text("Error parsing guid #", i, " in the given list."));
    target_guids.insert(guid);
  }
}

std::unique_ptr<RomInterface> GetRomInterface(DeviceType dt, u_int32_t log2_chunk_align,
                                              bool is_local_burn, bool) {
  if (is_local_burn) ThrowError("GetRomInterface() for local dev - NOT YET IMPLEMENTED");
  const auto row = std::ranges::find(DEVICES, dt, &DeviceRow::type);
  if (row == DEVICES.end()) {
    ThrowError(Text("Device RV", static_cast<u_int32_t>(dt), " Rom Interface not supported yet"));
  }
  return row->make_interface(log2_chunk_align);
}

std::unique_ptr<BurnAlgorithm> GetBurnAlgorithm(DeviceType dt, RomInterface* rom_if,
                                                bool is_fs_burn, bool, bool is_fw_check) {
  const auto row = std::ranges::find(DEVICES, dt, &DeviceRow::type);
  if (row == DEVICES.end()) ThrowError("Bad device type.");
  return is_fs_burn ? row->make_failsafe(*rom_if, is_fw_check) : MakeGeneric(*rom_if, is_fw_check);
}

int FwPush(int ac, char* av[]) {
  GuardConsole();
  Options options;
  if (const ExitStatus status = ParseCommandLine(ac, av, options)) return *status;
  try {
    Burn(options);
    return EXIT_SUCCESS;
  } catch (const BraidError& e) {
    PrintBurnError(e.Des(), 0);
    return EXIT_FAILURE;
  }
}

int main(int ac, char* av[]) { return FwPush(ac, av); }
