// Many devices behind one server: what it costs to verify them, and that none of them changes the
// result of another.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <system_error>

#include "common/ChildProcess.h"
#include "common/SystemError.h"
#include "protocol/Server.h"
#include "sim/Filling.h"
#include "src/BurnAlgorithm.h"
#include "tests/support/Harness.h"
#include "tests/support/InProcessRom.h"
#include "tests/support/fabric_support.h"
#include "tests/support/slot_images.h"
#include "verify/Verify.h"
#include "verify/Workers.h"

namespace {

using verify::DeviceFinding;
using verify::DeviceReader;
using verify::InvariantSector;
using verify::SlotChoice;

constexpr unsigned JOBS = 4;

/// A server in a process of its own, with a copy of the fabric.
class ServerProcess {
 public:
  explicit ServerProcess(sim::Fabric& fabric) {
    common::Channel channel = common::MakePipe();
    _pid = fork();
    if (_pid < 0) common::ThrowSystemError("can't start a process");
    if (_pid == 0) Serve(fabric, channel.in.Get());
    channel.in.Close();
    char block[64];
    for (ssize_t got; (got = read(channel.out.Get(), block, sizeof(block))) > 0;) {
      _name.append(block, static_cast<std::size_t>(got));
      if (_name.ends_with('\n')) break;
    }
    if (!_name.empty()) _name.pop_back();
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  ~ServerProcess() {
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
  }

  const std::string& Name() const { return _name; }

 private:
  [[noreturn]] static void Serve(sim::Fabric& fabric, int output) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const protocol::ServerThread server(fabric);
    common::WriteAll(output, server.ServerString() + "\n");
    for (;;) pause();
  }

  pid_t _pid = -1;
  std::string _name;
};

class ManyDevicesTest : public ConsoleTest {
 protected:
  using Findings = std::vector<DeviceFinding>;

  static sim::Device Eeprom(Guid guid, u_int32_t size) {
    sim::Device device = I2cDevice(guid, 0);
    device.bsn = DataVec(sim::BSN_SIZE, static_cast<u_int8_t>(guid >> 4));
    device.chips.try_emplace(u_int8_t{0}, sim::Chip(std::make_unique<sim::Cells>(size), 0));
    return device;
  }

  GuidSet AddEeproms(unsigned count, u_int32_t size) {
    GuidSet guids;
    for (unsigned i = 1; i <= count; ++i) {
      guids.insert(0x10 * i);
      _fabric.Add(Eeprom(0x10 * i, size));
    }
    return guids;
  }

  /// Adds flashes that hold the image in their first slot.
  GuidSet AddFlashes(unsigned count, const std::string& file) {
    GuidSet guids;
    for (unsigned i = 1; i <= count; ++i) {
      const Guid guid = 0x10 * i;
      guids.insert(guid);
      _fabric.Add(FlashDevice(guid, FLASH_SIZE, SECTOR));
      sim::FillFromFile(_fabric, guid, file, {.slot = 0});
    }
    return guids;
  }

  std::string File(const std::string& text, const std::string& name = "fw.img") {
    return _folder.Write(name, text);
  }

  template <typename Algorithm>
  void Burn(const std::string& file, const GuidSet& guids, const auto&... flags) {
    OutputOf([&] {
      FwImage image;
      image.Open(file.c_str(), READ);
      InProcessI2c rom(_fabric, 5);
      rom.SetAddressConvertor(image.GetAddressConvertor());
      rom.SetAccessDevices(guids);
      rom.Open("IB:host:1");
      Algorithm(rom, flags...).Go(image);
    });
  }

  void FailReads(sim::Fault::Kind kind, std::optional<Guid> device, const std::string& text,
                 unsigned nth = 1, bool from_then_on = true) {
    sim::Fault fault;
    fault.kind = kind;
    fault.command = "Read";
    fault.device = device;
    fault.text = text;
    fault.nth = nth;
    fault.from_then_on = from_then_on;
    _fabric.faults.Add(fault);
  }

  void Flip(Guid guid, u_int32_t addr) {
    const u_int8_t byte = MemoryOf(_fabric, guid, 0, addr, 1)[0];
    _fabric.Find(guid)->chips.at(0).Load(addr, DataVec{static_cast<u_int8_t>(byte ^ 0x40)});
  }

  /// Verifies all of them together, and keeps the requests.
  Findings Verify(const std::string& file, const GuidSet& guids, unsigned jobs = JOBS,
                  SlotChoice choice = SlotChoice::AUTO) {
    protocol::ServerThread server(_fabric);
    const verify::Verifier verifier(file, server.ServerString(), choice, {});
    Findings findings;
    EXPECT_EQ(OutputOf([&] {
                verifier.Verify(guids, jobs,
                                [&](const DeviceFinding& finding) { findings.push_back(finding); });
              }),
              "");
    _requests = server.Requests();
    EXPECT_TRUE(std::ranges::equal(findings, guids, {}, &DeviceFinding::guid));
    return WithoutPort(findings);
  }

  /// The same without the requests, from a server that is a process of its own: flashes are
  /// verified in processes, and one that is forked from a process with threads may lock up under
  /// AddressSanitizer. fwpush-verify has no thread.
  Findings VerifyFlashes(const std::string& file, const GuidSet& guids, unsigned jobs) {
    const ServerProcess server(_fabric);
    const verify::Verifier verifier(file, server.Name(), SlotChoice::AUTO, {});
    Findings findings;
    verifier.Verify(guids, jobs,
                    [&](const DeviceFinding& finding) { findings.push_back(finding); });
    EXPECT_TRUE(std::ranges::equal(findings, guids, {}, &DeviceFinding::guid));
    return WithoutPort(findings);
  }

  /// Each over a connection of its own.
  Findings VerifyOneByOne(const std::string& file, const GuidSet& guids,
                          SlotChoice choice = SlotChoice::AUTO) {
    protocol::ServerThread server(_fabric);
    const verify::Verifier verifier(file, server.ServerString(), choice, {});
    Findings findings;
    for (const Guid guid : guids) findings.push_back(verifier.Verify(guid));
    return WithoutPort(findings);
  }

  std::size_t Count(const std::string& pattern) const {
    const std::regex regex(pattern);
    return static_cast<std::size_t>(std::ranges::count_if(
        _requests, [&](const std::string& request) { return std::regex_search(request, regex); }));
  }

  common::ScratchFolder _folder;
  sim::Fabric _fabric;
  std::vector<std::string> _requests;

 private:
  /// Texts name the server, and each server has a port of its own.
  static Findings WithoutPort(Findings findings) {
    for (DeviceFinding& finding : findings) {
      finding.reason = std::regex_replace(finding.reason, std::regex("127.0.0.1:[0-9]+"), "SERVER");
      finding.failure =
          std::regex_replace(finding.failure, std::regex("127.0.0.1:[0-9]+"), "SERVER");
    }
    return findings;
  }
};

std::vector<DeviceFinding::State> StatesOf(const std::vector<DeviceFinding>& findings) {
  std::vector<DeviceFinding::State> states;
  for (const DeviceFinding& finding : findings) states.push_back(finding.state);
  return states;
}

TEST_F(ManyDevicesTest, FortyEepromsAreListedOnceAndReadSixteenAtATime) {
  constexpr u_int32_t SIZE = 0x6000;
  _fabric.facts.multi_max = "16";
  const GuidSet guids = AddEeproms(40, SIZE);
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(SIZE, 0x44)));
  Burn<GenericBurn>(file, GuidSet{0x10});
  const Findings findings = Verify(file, guids);
  EXPECT_EQ(findings[0].state, DeviceFinding::IDENTICAL) << findings[0].reason;
  EXPECT_EQ(findings[39].state, DeviceFinding::DIFFERENT);
  EXPECT_EQ(findings[39].different, SIZE);
  EXPECT_EQ(findings[39].differences.size(), 10u);
  const u_int32_t chunk = DeviceReader::PieceSize(16);
  ASSERT_GE(chunk, 0x1000u);
  const u_int32_t chunks = (SIZE + chunk - 1) / chunk;
  EXPECT_EQ(Count("^vsMultiMaxGet"), 1u);
  EXPECT_EQ(Count("^NsGetDeviceByType"), 1u);
  EXPECT_LE(Count("^vsI2cReadMulti"), chunks * 3);
  EXPECT_GE(Count("^vsI2cReadMulti"), 3u);
  EXPECT_EQ(Count("^vsI2cReadMulti 16 "), 2 * chunks);
}

TEST_F(ManyDevicesTest, BootRecordsAreReadWithTheSlotsThatTheyBegin) {
  _fabric.facts.multi_max = "16";
  const GuidSet guids = AddEeproms(40, 0x100);
  const std::string file = File(EepromImage(0x02));
  for (const Guid guid : guids) sim::FillFromFile(_fabric, guid, file, {.slot = 0});
  const Findings findings = Verify(file, guids);
  for (const DeviceFinding& finding : findings) {
    EXPECT_EQ(finding.valid_slots, std::vector<u_int32_t>{0});
    EXPECT_EQ(finding.Boots(), 0u);
  }
  EXPECT_EQ(Count("^vsI2cReadMulti"), 2 * 3u);  // two slots, three groups of devices
  EXPECT_EQ(findings, VerifyOneByOne(file, guids));
}

TEST_F(ManyDevicesTest, OneFlippedByteMakesOneDeviceDifferent) {
  constexpr u_int32_t SEED = 20266;
  TestRng rng(SEED);
  const auto below = [&rng](std::size_t end) { return static_cast<u_int32_t>(rng() % end); };
  const std::string marks =
      "REPLACE GUIDS 10 0\nREPLACE GUIDS 90 0\nREPLACE BSN 30 0\n"
      "REPLACE BSN B0 0\nREPLACE CRC 10 0 2C 0 70 0\n"
      "REPLACE CRC 90 0 AC 0 F0 0\n";
  DataVec data = EepromData(0x03);
  data.resize(0x80, 0x29);
  const std::string with_slots =
      File("DEVICE_TYPE RV61300\nIMAGE 0 0 0\nIMAGE 1 80 0\n" + marks + Section("A", 0, data),
           "slots.img");
  const std::string plain = File(
      "DEVICE_TYPE RV61100\nREPLACE SYSGUID 20 0\n"
      "REPLACE CRC 0 0 7C 0 FC 0\n" +
          Section("A", 0, RandomBytes(rng, 0x100)),
      "plain.img");
  for (const std::string& file : {with_slots, plain}) {
    _fabric = sim::Fabric();
    const GuidSet guids = AddEeproms(8, 0x200);
    if (file == with_slots) {
      for (const Guid guid : guids) sim::FillFromFile(_fabric, guid, file, {.slot = 0});
      ASSERT_EQ(ErrorOf([&] { Burn<RV61300FailsafeBurn>(file, guids, false); }), "(no error)");
    } else {
      Burn<GenericBurn>(file, guids);
    }
    _fabric.facts.multi_max = "3";
    for (const DeviceFinding& finding : Verify(file, guids)) {
      ASSERT_EQ(finding.state, DeviceFinding::IDENTICAL) << finding.reason;
      ASSERT_EQ(finding.compared, 0x100u);
    }
    for (int round = 0; round < 60; ++round) {
      const Guid guid = 0x10 * (1 + below(guids.size()));
      const u_int32_t addr = below(0x100);
      SCOPED_TRACE(Text("seed ", SEED, ", ", file, ": device ", std::hex, guid, " at ", addr));
      Flip(guid, addr);
      const Findings findings = Verify(file, guids);
      for (const DeviceFinding& finding : findings) {
        if (finding.guid != guid) {
          EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL) << finding.guid;
          continue;
        }
        EXPECT_EQ(finding.state, DeviceFinding::DIFFERENT);
        ASSERT_EQ(finding.differences.size(), 1u);
        EXPECT_EQ(finding.differences[0].addr, addr);
      }
      if (round % 10 == 0) {
        EXPECT_EQ(findings, VerifyOneByOne(file, guids));
      }
      Flip(guid, addr);
    }
  }
}

TEST_F(ManyDevicesTest, DeviceThatFailsInAReadOfManyFailsAlone) {
  const GuidSet guids = AddEeproms(5, 0x100);
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  Burn<GenericBurn>(file, GuidSet{0x10, 0x20, 0x30, 0x50});
  FailReads(sim::Fault::DEVICE_ERROR, 0x30, "bus stuck");
  GuidSet asked = guids;
  asked.insert(0x999);  // not on the fabric
  const Findings findings = Verify(file, asked);
  EXPECT_EQ(StatesOf(findings),
            (std::vector{DeviceFinding::IDENTICAL, DeviceFinding::IDENTICAL,
                         DeviceFinding::UNREADABLE, DeviceFinding::DIFFERENT,
                         DeviceFinding::IDENTICAL, DeviceFinding::UNREACHABLE}));
  EXPECT_EQ(findings[2].reason, "bus stuck");
  EXPECT_EQ(findings[2].failure, "");
  EXPECT_EQ(Count("^vsI2cReadMulti"), 1u);
  EXPECT_EQ(findings, VerifyOneByOne(file, asked));
}

TEST_F(ManyDevicesTest, RefusalOfAWholeRequestIsTheFaultOfNoOtherDevice) {
  const GuidSet guids = AddEeproms(4, 0x100);
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  Burn<GenericBurn>(file, guids);
  FailReads(sim::Fault::ANSWER, 0x30, "ERROR:bus is on fire");
  const Findings findings = Verify(file, guids);
  EXPECT_EQ(StatesOf(findings), (std::vector{DeviceFinding::IDENTICAL, DeviceFinding::IDENTICAL,
                                             DeviceFinding::UNREADABLE, DeviceFinding::IDENTICAL}));
  EXPECT_EQ(findings[2].reason, "bus is on fire");
  EXPECT_EQ(Count("^NsGetDeviceByType"), 1u);
}

TEST_F(ManyDevicesTest, ConnectionThatOneDeviceBreaksIsMadeAnewForTheOthers) {
  const GuidSet guids = AddEeproms(4, 0x100);
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  Burn<GenericBurn>(file, guids);
  FailReads(sim::Fault::CLOSE_BEFORE, 0x20, "");
  const Findings findings = Verify(file, guids);
  EXPECT_EQ(StatesOf(findings), (std::vector{DeviceFinding::IDENTICAL, DeviceFinding::UNREADABLE,
                                             DeviceFinding::IDENTICAL, DeviceFinding::IDENTICAL}));
  EXPECT_THAT(findings[1].failure, testing::StartsWith("Failed remote read"));
  EXPECT_EQ(findings[0].failure, "");
  EXPECT_EQ(Count("^NsGetDeviceByType"), 3u);  // at first, for each alone, after the second
}

TEST_F(ManyDevicesTest, AnswerThatIsTooShortMakesNoDeviceIdentical) {
  const GuidSet guids = AddEeproms(3, 0x100);
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  Burn<GenericBurn>(file, guids);
  FailReads(sim::Fault::ANSWER, {}, "{ACK {data 0x44444444}} {ACK} {ACK {data 0x44444444}}", 1,
            false);
  for (const DeviceFinding& finding : Verify(file, guids)) {
    EXPECT_EQ(finding.state, DeviceFinding::UNREADABLE);
    EXPECT_EQ(finding.reason, finding.guid == 0x20 ? "read 0 bytes of 16 at address 0"
                                                   : "read 4 bytes of 16 at address 0");
  }
}

TEST_F(ManyDevicesTest, MemoryDoesNotGrowWithDevicesTimesImage) {
  constexpr u_int32_t SIZE = 0x40000;
  constexpr unsigned DEVICES = 60;
  if (IS_SANITIZED) GTEST_SKIP() << "freed memory is kept back under AddressSanitizer";
  _fabric.facts.multi_max = "1000";
  GuidSet guids = AddEeproms(DEVICES, SIZE);
  const std::string file =
      File("DEVICE_TYPE RV61100\nREPLACE GUID 0 0\n" + Section("A", 0, DataVec(SIZE, 0x44)));
  protocol::ServerThread server(_fabric, protocol::Server::Trace());
  const verify::Verifier verifier(file, server.ServerString(), SlotChoice::AUTO, {});
  const auto peak = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;  // KiB
  };
  const long before = peak();
  std::size_t different = 0;
  verifier.Verify(guids, 1, [&](const DeviceFinding& finding) {
    different += finding.state == DeviceFinding::DIFFERENT;
  });
  EXPECT_EQ(different, DEVICES);
  EXPECT_LT(peak() - before, long{DEVICES} * SIZE / 1024 / 3);
}

TEST_F(ManyDevicesTest, FlashesInParallelAreFoundAsOneByOne) {
  const std::string file = File(FlashImage{.content = 0x22}.Text());
  GuidSet guids = AddFlashes(7, file);
  Flip(0x30, IMAGE0 + 3);
  Flip(0x50, 0x20);  // in the invariant sector
  guids.insert(0x999);
  FailReads(sim::Fault::DEVICE_ERROR, 0x60, "bus stuck");
  const Findings findings = VerifyFlashes(file, guids, JOBS);
  EXPECT_EQ(
      StatesOf(findings),
      (std::vector{DeviceFinding::IDENTICAL, DeviceFinding::IDENTICAL, DeviceFinding::DIFFERENT,
                   DeviceFinding::IDENTICAL, DeviceFinding::DIFFERENT, DeviceFinding::UNREADABLE,
                   DeviceFinding::IDENTICAL, DeviceFinding::UNREACHABLE}));
  EXPECT_EQ(findings, VerifyOneByOne(file, guids));
  EXPECT_EQ(findings, VerifyFlashes(file, guids, 1));
}

TEST_F(ManyDevicesTest, FlashesOfAServerThatIsGoneAreGivenUp) {
  const std::string file = File(FlashImage{.content = 0x22}.Text());
  const verify::Verifier verifier(file, "IB:127.0.0.1:1", SlotChoice::AUTO, {});
  GuidSet guids;
  for (Guid guid = 1; guid <= 40; ++guid) guids.insert(guid);
  for (const unsigned jobs : {1u, JOBS}) {
    std::size_t tried = 0;
    std::size_t not_tried = 0;
    verifier.Verify(guids, jobs, [&](const DeviceFinding& finding) {
      EXPECT_EQ(finding.state, DeviceFinding::UNREACHABLE);
      ++(finding.failure.empty() ? not_tried : tried);
    });
    EXPECT_EQ(tried + not_tried, 40u);
    EXPECT_GE(tried, 3u);
    EXPECT_LT(tried, 3 + jobs);
  }
}

TEST_F(ManyDevicesTest, ProgressNeverGoesBackAndEndsAtTheEnd) {
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(0x80, 0x44)));
  _fabric.facts.multi_max = "2";
  const GuidSet guids = AddEeproms(5, 0x100);
  protocol::ServerThread server(_fabric);
  const verify::Verifier verifier(file, server.ServerString(), SlotChoice::AUTO, {});
  std::vector<double> parts;
  verifier.Verify(
      guids, 1, [](const DeviceFinding&) {}, [&](double part) { parts.push_back(part); });
  ASSERT_GE(parts.size(), 3u);
  EXPECT_TRUE(std::ranges::is_sorted(parts));
  EXPECT_GT(parts.front(), 0);
  EXPECT_EQ(parts.back(), 1);
}

TEST_F(ManyDevicesTest, FlashWithoutItsInvariantSectorIsNotSaidToBoot) {
  const std::string file = File(FlashImage{.content = 0x22}.Text());
  AddFlashes(1, file);
  EXPECT_EQ(Verify(file, {0x10})[0].Boots(), 0u);
  Flip(0x10, 0x20);
  for (const SlotChoice choice : {SlotChoice::AUTO, SlotChoice::FIRST, SlotChoice::NONE}) {
    const DeviceFinding finding = Verify(file, {0x10}, 1, choice)[0];
    EXPECT_EQ(finding.state, DeviceFinding::DIFFERENT);
    EXPECT_EQ(finding.valid_slots, std::vector<u_int32_t>{0});
    EXPECT_EQ(finding.invariant_sector, InvariantSector::DIFFERENT);
    EXPECT_EQ(finding.Boots(), std::nullopt);
  }
  // The records are read, what follows is not.
  FailReads(sim::Fault::DEVICE_ERROR, 0x10, "bus stuck", 3);
  const DeviceFinding finding = Verify(file, {0x10})[0];
  EXPECT_EQ(finding.state, DeviceFinding::UNREADABLE);
  EXPECT_EQ(finding.valid_slots, std::vector<u_int32_t>{0});
  EXPECT_EQ(finding.invariant_sector, InvariantSector::NOT_COMPARED);
  EXPECT_EQ(finding.Boots(), std::nullopt);
}

TEST_F(ManyDevicesTest, ImageWithoutAByteIsNeverIdentical) {
  const std::string file = File("DEVICE_TYPE RV61100\n", "empty.img");
  EXPECT_EQ(ErrorOf([&] { verify::Verifier(file, "IB:127.0.0.1:1", SlotChoice::AUTO, {}); }),
            "The image has no byte to compare");
}

TEST_F(ManyDevicesTest, FindingIsTheSameInAnotherProcess) {
  DeviceFinding finding;
  finding.guid = 0xFEDCBA9876543210;
  finding.state = DeviceFinding::DIFFERENT;
  finding.reason = std::string("a\0b", 3);
  finding.failure = "text";
  finding.knows_slots = true;
  finding.valid_slots = {0, 1};
  finding.invariant_sector = InvariantSector::DIFFERENT;
  finding.slots = {1};
  finding.compared = 0x123456789;
  finding.different = 2;
  finding.differences = {{"A", 1, 2, 3, 4}, {"", 0xFFFFFFFF, 0xFFFFFFFE, 0xFF, 0}};
  const std::string bytes = verify::Pack(finding);
  EXPECT_EQ(verify::Unpack(bytes), finding);
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_EQ(verify::Unpack(bytes.substr(0, size)), std::nullopt) << size;
  }
  EXPECT_EQ(verify::Unpack(bytes + "x"), std::nullopt);
}

/// What the system allows is used: findings that have come are not thrown away.
TEST(WorkersTest, FewerProcessesRunWhereNoMoreCanBeStarted) {
  std::vector<device::Guid> guids;
  for (device::Guid guid = 1; guid <= 20; ++guid) guids.push_back(guid);
  const auto verify = [&guids](rlim_t more_files) {
    const int next = dup(STDERR_FILENO);
    close(next);
    rlimit before{};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few{static_cast<rlim_t>(next) + more_files, before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    std::vector<device::Guid> found;
    try {
      verify::VerifyInProcesses(
          guids, 8,
          [](device::Guid guid, const verify::PartDone&) {
            usleep(20000);
            verify::DeviceFinding finding;
            finding.guid = guid;
            finding.state = verify::DeviceFinding::IDENTICAL;
            return finding;
          },
          [&found](const verify::DeviceFinding& finding) {
            if (finding.state == verify::DeviceFinding::IDENTICAL) found.push_back(finding.guid);
          },
          {});
    } catch (const std::system_error&) {
      found.push_back(0);
    }
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    return found;
  };
  EXPECT_EQ(verify(4), guids);  // enough for three
  EXPECT_EQ(verify(1), std::vector<device::Guid>{0});
}

}  // namespace
