/// Whole burns on a machine that does not behave: signals, stops, slow links, no descriptors, no
/// room on the disk, and image files that are none.

#include <signal.h>
#include <sys/stat.h>

#include <thread>

#include "src/utils.h"
#include "tests/support/Harness.h"
#include "tests/support/slot_images.h"

namespace {

constexpr u_int8_t NEW = 0x22;
constexpr u_int32_t NEW_SIZE = 0x80;
constexpr std::chrono::seconds REQUEST_LIMIT{20};

std::string Fault(const std::string& kind, std::size_t nth, const std::string& more = "") {
  return Text("[[fault]]\nkind = \"", kind, "\"\nnth = ", nth, "\n", more);
}

/// A failsafe burn of a flash that holds an old image in its first slot.
class MachineTest : public ConsoleTest {
 protected:
  MachineTest() {
    _folder.Write("old.img", FlashImage{}.Text());
    _image = _folder.Write("new.img", FlashImage{.content = NEW, .size = NEW_SIZE}.Text());
  }

  void Serve(const std::string& faults = "") {
    _simulator = std::make_unique<Simulator>(
        _folder,
        Text("[server]\ntype = \"IB\"\n[[device]]\nname = \"leaf\"\nattribute = \"rev-a\"\n"
             "node_guid = \"0x10\"\nport_guids = [\"0x11\", \"0x12\"]\n"
             "system_guid = \"0x1f\"\n[device.flash]\nsize = ",
             FLASH_SIZE, "\nsector_size = ", SECTOR,
             "\n[[device.contents]]\nimage = \"old.img\"\nslot = 0\n", faults));
  }
  /// The same device with what it holds now.
  void ServeAgain() {
    _simulator->Stop();
    Serve();
  }

  std::vector<std::string> Words(const std::string& program = FwpushProgram()) const {
    return {program, "-m", "6", "-g", "10", "-f", _image, "-s", _simulator->Server()};
  }
  /// The same in the words of a shell.
  std::string ShellWords() const {
    std::string line;
    for (const std::string& word : Words()) line += "'" + word + "' ";
    return line;
  }
  static Outcome RunShell(const std::string& line) { return RunProgram({"/bin/bash", "-c", line}); }

  std::size_t Requests() const {
    const std::string trace = "\n" + _simulator->Trace();
    std::size_t count = 0;
    for (std::size_t at = 0; (at = trace.find("\n> ", at)) != std::string::npos; ++at) ++count;
    return count;
  }
  /// Whether the server has got that many within the limit.
  bool WaitForRequest(std::size_t number) const {
    const auto deadline = std::chrono::steady_clock::now() + REQUEST_LIMIT;
    while (std::chrono::steady_clock::now() < deadline) {
      if (Requests() >= number) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
  }
  /// Of a burn that nothing disturbs.
  std::size_t RequestsOfABurn() {
    Serve();
    EXPECT_EQ(RunProgram(Words()).status, 0);
    const std::size_t requests = Requests();
    _simulator->Stop();
    std::filesystem::remove_all(_folder / "state");
    return requests;
  }

  /// "boots old: slot 0 old, slot 1 invalid", as the simulator sees the memory.
  std::string Boot() {
    _simulator->Stop();
    const Outcome outcome = RunProgram({SimProgram(), _folder / "fabric.toml", "--state",
                                        _folder / "state", "--image", _image, "--boot-report"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    const std::string guid = "0x0000000000000010 ";
    EXPECT_TRUE(outcome.output.starts_with(guid)) << outcome.output;
    return outcome.output.substr(guid.size());
  }
  void ExpectNew() { EXPECT_EQ(Boot(), "boots new: slot 0 invalid, slot 1 new\n"); }

  /// What `words` print after "-E- BURN FAILED:ALL:", having ended with status 1.
  static std::string FailureOf(const Outcome& outcome) {
    EXPECT_EQ(outcome.status, 1) << outcome.output << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    const std::string head = "\r-E- BURN FAILED:ALL:";
    const std::size_t at = outcome.output.find(head);
    return at == std::string::npos ? outcome.output : outcome.output.substr(at + head.size());
  }
  /// The same for a burn of an image file, which ends before anybody is connected to.
  static std::string FailureWith(const std::string& image) {
    return FailureOf(
        RunProgram({FwpushProgram(), "-g", "10", "-s", "IB:127.0.0.1:1", "-f", image}));
  }

  common::ScratchFolder _folder;
  std::string _image;
  std::unique_ptr<Simulator> _simulator;
};

TEST_F(MachineTest, BurnThatIsInterruptedOrTerminatedAtAnyRequestLeavesADeviceThatBoots) {
  const std::size_t requests = RequestsOfABurn();
  ASSERT_GT(requests, 20u);
  std::map<std::string, int> ends;
  for (std::size_t k = 1; k <= requests; ++k) {
    const int signal = k % 2 == 0 ? SIGINT : SIGTERM;
    SCOPED_TRACE(Text("signal ", signal, " at request ", k));
    std::filesystem::remove_all(_folder / "state");
    Serve(Fault("silence", k));
    Child burner(Words(), _folder / "errors");
    ASSERT_TRUE(WaitForRequest(k));
    burner.Signal(signal);
    EXPECT_EQ(burner.Wait(), -signal);
    const std::string boot = Boot();
    EXPECT_TRUE(boot.starts_with("boots ")) << boot;
    ++ends[boot.substr(0, boot.find(':'))];

    Serve();
    EXPECT_EQ(RunProgram(Words()).status, 0);
    const std::string boot_after = Boot();
    EXPECT_TRUE(boot_after.starts_with("boots new: ")) << boot_after;
  }
  // Most of a burn goes by before the new image counts. Before the last request, which would clear
  // the old one's signature, both do.
  EXPECT_GT(ends["boots old"], 0);
  EXPECT_EQ(ends["boots old or new"], 1);
}

TEST_F(MachineTest, BurnThatIsStoppedGoesOnWhereItWas) {
  const std::size_t requests = RequestsOfABurn();
  // SIGTSTP is what Ctrl-Z sends, which a program could refuse.
  const std::pair<std::size_t, int> stops[] = {
      {requests / 4, SIGSTOP}, {requests / 2, SIGTSTP}, {requests - 1, SIGTSTP}};
  for (const auto& [k, stop] : stops) {
    SCOPED_TRACE(Text("signal ", stop, " at request ", k));
    bool is_stopped_in_time = false;
    for (int again = 0; again < 5 && !is_stopped_in_time; ++again) {
      std::filesystem::remove_all(_folder / "state");
      Serve(Fault("delay", k, "milliseconds = 300\n"));
      // One that waits half a second for an answer, and is stopped for longer.
      Child burner(Words(SHORT_TIMEOUT_PROGRAM), _folder / "errors", true);
      ASSERT_TRUE(WaitForRequest(k));
      burner.Signal(stop);
      std::this_thread::sleep_for(std::chrono::milliseconds(900));
      // On a busy machine the answer may have come first, or half a second have gone by before.
      is_stopped_in_time = Requests() == k;
      burner.Signal(SIGCONT);
      is_stopped_in_time = burner.Wait() == 0 && is_stopped_in_time;
      if (is_stopped_in_time) ExpectNew();
      _simulator->Stop();
    }
    EXPECT_TRUE(is_stopped_in_time);
  }
}

TEST_F(MachineTest, SignalsThatConcernNobodyEndNothing) {
  const std::size_t requests = RequestsOfABurn();
  for (std::size_t k = 2; k <= requests; k += 5) {
    SCOPED_TRACE(k);
    std::filesystem::remove_all(_folder / "state");
    Serve(Fault("delay", k, "milliseconds = 50\n"));
    Child burner(Words(), _folder / "errors");
    ASSERT_TRUE(WaitForRequest(k));
    for (int i = 0; i < 10; ++i) {
      for (const int signal : {SIGPIPE, SIGCONT, SIGWINCH, SIGURG, SIGCHLD}) burner.Signal(signal);
    }
    EXPECT_EQ(burner.Wait(), 0);
    ExpectNew();
  }
}

TEST_F(MachineTest, ServerThatGoesInMidBurnEndsItWithAnErrorAndNoSignal) {
  const std::size_t requests = RequestsOfABurn();
  for (const std::string kind : {"close-before", "close-inside", "close-after", "reset"}) {
    SCOPED_TRACE(kind);
    std::filesystem::remove_all(_folder / "state");
    Serve(Fault(kind, requests / 2));
    const std::string failure = FailureOf(RunProgram(Words()));
    EXPECT_TRUE(failure.starts_with("Failed remote read")) << failure;
    EXPECT_EQ(Boot(), "boots old: slot 0 old, slot 1 invalid\n");
  }
}

TEST_F(MachineTest, BurnGoesThroughOverASlowLink) {
  Serve(Fault("delay", 1, "from_then_on = true\nmilliseconds = 7\n"));
  EXPECT_EQ(RunProgram(Words()).status, 0);
  ExpectNew();
}

TEST_F(MachineTest, BurnGoesThroughWithNobodyToTellOfIt) {
  for (const std::string console : {"| head -c 1 >/dev/null", "| head -c 900 >/dev/null", ">&-",
                                    "<&- >&- 2>&-", ">/dev/full"}) {
    SCOPED_TRACE(console);
    std::filesystem::remove_all(_folder / "state");
    Serve();
    EXPECT_EQ(RunShell(ShellWords() + console + "; exit ${PIPESTATUS[0]}").status, 0);
    ExpectNew();
  }
}

TEST_F(MachineTest, ClosedDescriptorsAreNotTakenForTheConnection) {
  constexpr std::size_t ANY = 10;
  Serve(Fault("delay", ANY, "milliseconds = 500\n"));
  Child burner({"/bin/bash", "-c", "exec " + ShellWords() + " <&- >&- 2>&-"}, _folder / "errors");
  ASSERT_TRUE(WaitForRequest(ANY));
  std::vector<int> sockets;
  for (int fd = 0; fd < 10; ++fd) {
    std::error_code none;
    const auto file = std::filesystem::read_symlink(Text("/proc/", burner.Pid(), "/fd/", fd), none);
    if (file.string().starts_with("socket:")) sockets.push_back(fd);
  }
  EXPECT_THAT(sockets, testing::ElementsAre(testing::Gt(STDERR_FILENO)));
  EXPECT_EQ(burner.Wait(), 0);
  ExpectNew();
}

TEST_F(MachineTest, DescriptorsThatAreAllTakenEndTheRunBeforeItBegins) {
  const std::string take_all =
      "ulimit -Sn 1200 || exit 77; for ((i = 3; i < 1100; ++i)); do eval \"exec $i</dev/null\"; "
      "done; exec ";
  Serve();
  const Outcome outcome = RunShell(take_all + ShellWords());
  if (outcome.status == 77) GTEST_SKIP() << "so many descriptors are not to be had here";
  EXPECT_EQ(FailureOf(outcome), "Failed creating socket.\n");
  EXPECT_EQ(Requests(), 0u);
}

TEST_F(MachineTest, ImageFileThatIsNoneIsToldByItsName) {
  const auto file = [this](const char* name) { return _folder / name; };
  const std::string folder = file("folder.img");
  std::filesystem::create_directory(folder);
  const std::string fifo = file("fifo.img");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string zero = file("zero.img");
  std::filesystem::create_symlink("/dev/zero", zero);
  const std::string circle = file("circle.img");
  std::filesystem::create_symlink(circle, circle);
  const std::string unreadable = file("unreadable.img");
  std::filesystem::create_symlink("/proc/self/mem", unreadable);
  for (const auto& [image, reason] :
       std::map<std::string, std::string>{{file("missing.img"), "No such file or directory"},
                                          {folder, "Is a directory"},
                                          {fifo, "Operation not supported"},
                                          {zero, "Operation not supported"},
                                          {circle, "Too many levels of symbolic links"},
                                          {unreadable, "Input/output error"},
                                          {_image + "/x.img", "Not a directory"}}) {
    EXPECT_EQ(FailureWith(image), "Can't open file \"" + image + "\" : " + reason + "\n");
  }
}

TEST_F(MachineTest, HugeFileWithoutAnImageTakesNoMemory) {
  const std::string huge = _folder.Write("huge.img", "");
  std::filesystem::resize_file(huge, std::uintmax_t{IS_SANITIZED ? 64u : 2048u} << 20);
  const std::string limit = IS_SANITIZED ? "" : "ulimit -v 32768; ";
  EXPECT_EQ(FailureOf(RunShell(Text(limit, "exec '", FwpushProgram(),
                                    "' -g 10 -s IB:127.0.0.1:1 -f '", huge, "'"))),
            "Device RV0 Rom Interface not supported yet\n");
}

TEST_F(MachineTest, ImageLargerThanTheMemoryIsRefused) {
  if (IS_SANITIZED) GTEST_SKIP() << "its own memory is larger than any limit";
  std::string line;
  for (int i = 0; i < 256; ++i) line += "ff ";
  line += "\n";
  std::string text = "DEVICE_TYPE RV61100\nSTART A 0 0\n";
  while (text.size() < std::size_t{100} << 20) text += line;
  const std::string large = _folder.Write("large.img", text);
  EXPECT_EQ(FailureOf(RunShell(Text("ulimit -v 32768; exec '", FwpushProgram(),
                                    "' -g 10 -s IB:127.0.0.1:1 -f '", large, "'"))),
            "Can't open file \"" + large + "\" : Cannot allocate memory\n");
}

}  // namespace
