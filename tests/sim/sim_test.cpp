/// The simulated fabric: memories, commands, faults, images, fabric files.

#include <gmock/gmock.h>

#include "protocol/Session.h"
#include "sim/BootReport.h"
#include "sim/FabricFile.h"
#include "tests/support/fabric_support.h"

namespace {

using testing::HasSubstr;

sim::Chip Flash(u_int32_t size = 0x200, u_int32_t sector_size = 0x100) {
  return sim::Chip(std::make_unique<sim::Cells>(size), sector_size);
}

TEST(SimChipTest, FlashIsBlankAtFirstAndProgrammingClearsBits) {
  sim::Chip flash = Flash();
  EXPECT_EQ(flash.Bytes()[0], 0xFF);
  flash.Program(0x10, Hex("0f f0"));
  flash.Program(0x10, Hex("03 30"));
  EXPECT_EQ(flash.Bytes()[0x10], 0x03);
  EXPECT_EQ(flash.Bytes()[0x11], 0x30);
  EXPECT_TRUE(flash.Violations().empty());
}

TEST(SimChipTest, ProgrammingABitThatIsClearIsAViolationAndLeavesIt) {
  sim::Chip flash = Flash();
  flash.Program(0x10, Hex("0f"));
  flash.Program(0x10, Hex("f3"));
  EXPECT_EQ(flash.Bytes()[0x10], 0x03);
  ASSERT_EQ(flash.Violations().size(), 1u);
  EXPECT_EQ(flash.Violations()[0].offset, 0x10u);
  EXPECT_EQ(flash.Violations()[0].held, 0x0F);
  EXPECT_EQ(flash.Violations()[0].wanted, 0xF3);
}

TEST(SimChipTest, ErasingSetsAWholeSectorAndCountsIt) {
  sim::Chip flash = Flash();
  flash.Program(0xFF, Hex("0000"));
  flash.EraseSector(0x120);
  EXPECT_EQ(flash.Bytes()[0xFF], 0x00);
  EXPECT_EQ(flash.Bytes()[0x100], 0xFF);
  EXPECT_EQ(flash.EraseCounts(), (std::vector<u_int32_t>{0, 1}));
}

TEST(SimChipTest, EepromTakesAnyByte) {
  sim::Chip eeprom(std::make_unique<sim::Cells>(0x10), 0);
  eeprom.Program(4, Hex("00"));
  eeprom.Program(4, Hex("ff"));
  EXPECT_EQ(eeprom.Bytes()[4], 0xFF);
  EXPECT_TRUE(eeprom.Violations().empty());
  EXPECT_FALSE(eeprom.Holds(0xF, 2));
  EXPECT_TRUE(eeprom.Holds(0xF, 1));
}

TEST(SimChipTest, InterruptedProgramLeavesAPrefixAndOneTornWord) {
  const DataVec data(64, 0x00);
  for (unsigned seed = 0; seed < 50; ++seed) {
    SCOPED_TRACE(seed);
    sim::Chip flash = Flash();
    sim::Rng rng(seed);
    flash.ProgramPart(0, data, rng);
    std::size_t whole = 0;
    while (whole < 64 && flash.Bytes()[whole] == 0) ++whole;
    const std::size_t torn = whole / 4 * 4;
    for (std::size_t i = torn + 4; i < 64; ++i) EXPECT_EQ(flash.Bytes()[i], 0xFF);
  }
}

TEST(SimChipTest, InterruptedEraseLeavesAMixThatItsSeedRepeats) {
  const auto erased_part = [](unsigned seed) {
    sim::Chip flash = Flash();
    flash.Program(0, DataVec(0x200, 0));
    sim::Rng rng(seed);
    flash.ErasePart(0, rng);
    return DataVec(flash.Bytes().begin(), flash.Bytes().end());
  };
  const DataVec mix = erased_part(1);
  EXPECT_EQ(mix, erased_part(1));
  EXPECT_NE(mix, erased_part(2));
  const auto erased = std::count(mix.begin(), mix.begin() + 0x100, 0xFF);
  EXPECT_GT(erased, 0);
  EXPECT_LT(erased, 0x100);
  EXPECT_EQ(std::count(mix.begin() + 0x100, mix.end(), 0), 0x100);
}

class SimFabricTest : public ConsoleTest {
 protected:
  SimFabricTest() {
    sim::Device first = I2cDevice(0x10, 2);
    first.name = "leaf";
    first.attr = "rev-a";
    first.bsn = DataVec(sim::BSN_SIZE, 0x4D);
    first.vsd = DataVec(sim::VSD_SIZE, 0x01);
    _fabric.Add(std::move(first));
    _fabric.Add(FlashDevice(0x20));
  }

  std::string Ask(const std::string& request) { return _fabric.Execute(request).text; }

  sim::Fabric _fabric;
};

constexpr char G10[] = "0x0000000000000010 ";
constexpr char G20[] = "0x0000000000000020 ";

TEST_F(SimFabricTest, ServerTellsItsFacts) {
  _fabric.facts.multi_max = "7";
  _fabric.facts.ifc_version = "2.3";
  EXPECT_EQ(Ask("vsMultiMaxGet"), "7");
  EXPECT_EQ(Ask("IfcVersion"), "2.3");
}

TEST_F(SimFabricTest, DevicesAreListedByPort) {
  EXPECT_EQ(Ask("NsGetDeviceByType device"),
            "{device 1 1 0x000000000000001f 0x0000000000000010 0x0000000000000011 2 leaf rev-a} "
            "{device 1 2 0x000000000000001f 0x0000000000000010 0x0000000000000012 2 leaf rev-a} "
            "{device 2 1 0x000000000000002f 0x0000000000000020 0x0000000000000021 2 device none} "
            "{device 2 2 0x000000000000002f 0x0000000000000020 0x0000000000000022 2 device none}");
  EXPECT_EQ(Ask("NsGetDeviceByType switch"), "ERROR:unknown type");
}

TEST_F(SimFabricTest, WordsAreWrittenAndReadInEachChip) {
  EXPECT_EQ(Ask(Text("vsI2cWriteMulti 1 ", G10, "0x51 8 0x100 0x112233 0x44556677 ")), "ACK");
  EXPECT_EQ(Ask(Text("vsI2cReadMulti 1 ", G10, "0x51 8 0x100 ")),
            "{ACK {data 0x112233} {data 0x44556677}}");
  EXPECT_EQ(Ask(Text("vsI2cReadMulti 1 ", G10, "0x50 4 0x100 ")), "{ACK {data 0xffffffff}}");
}

TEST_F(SimFabricTest, OddSizesWriteExactlyAsManyBytesAndReadWholeWords) {
  EXPECT_EQ(Ask(Text("vsI2cWriteMulti 1 ", G10, "0x50 5 0x1ffa 0x1020304 0x5060708 ")), "ACK");
  EXPECT_EQ(MemoryOf(_fabric, 0x10, 0x50, 0x1FFA, 6), Hex("0102030405ff"));
  EXPECT_EQ(Ask(Text("vsI2cReadMulti 1 ", G10, "0x50 5 0x1ffa ")),
            "{ACK {data 0x1020304} {data 0x5ffffff}}");
  EXPECT_EQ(Ask(Text("vsI2cReadMulti 1 ", G10, "0x50 0 0x0 ")), "{ACK}");
}

TEST_F(SimFabricTest, DeviceAnswersToItsPortGuids) {
  EXPECT_EQ(Ask("vsI2cReadMulti 1 0x0000000000000012 0x50 4 0x0 "), "{ACK {data 0xffffffff}}");
}

TEST_F(SimFabricTest, FlashIsErasedBracketedAndDescribed) {
  EXPECT_EQ(Ask(Text("vsFlashGetAttrMulti 1 ", G20)), "{{sector_size=10000 size=100000}}");
  EXPECT_EQ(Ask(Text("vsFlashStartMulti 1 ", G20, " 1")), "ACK");
  EXPECT_EQ(Ask(Text("vsFlashWriteMulti 1 ", G20, "0x0 4 0x10000 0x0 ")), "ACK");
  EXPECT_EQ(Ask(Text("vsFlashEraseSectorMulti 1 ", G20, "0x0 0x10000 ")), "ACK");
  EXPECT_EQ(Ask(Text("vsFlashReadMulti 1 ", G20, "0x0 4 0x10000 ")), "{ACK {data 0xffffffff}}");
  EXPECT_EQ(Ask(Text("vsFlashStopMulti 1 ", G20)), "ACK");
}

TEST_F(SimFabricTest, VendorDataAndSerialNumberAreTold) {
  std::string vsd = "{ACK";
  for (int i = 0; i < 52; ++i) vsd += " {data 0x1010101}";
  EXPECT_EQ(Ask(Text("vsGetVsdMulti 1 ", G10)), vsd + "}");
  std::string bsn = "ACK";
  for (int i = 0; i < 64; ++i) bsn += " {bsn 0x4d}";
  EXPECT_EQ(Ask(Text("crBSNGet ", G10)), bsn);
}

TEST_F(SimFabricTest, WhatADeviceCannotDoIsItsOwnError) {
  const std::string both = Text("2 ", G10, G20);
  EXPECT_EQ(Ask("vsI2cReadMulti " + both + "0x50 4 0x0 "),
            "{ACK {data 0xffffffff}} {ERROR:0x0000000000000020:Device has a flash}");
  EXPECT_EQ(Ask("vsFlashWriteMulti " + both + "0x0 4 0x0 0x0 "),
            "{ERROR:0x0000000000000010:Device has no flash} ACK");
  const std::pair<std::string, std::string> cases[] = {
      {Text("vsI2cReadMulti 1 ", G10, "0x77 4 0x0 "), "No chip at this address"},
      {Text("vsI2cReadMulti 1 ", G10, "0x50 4 0x1ffd "), "Address out of range"},
      {Text("vsI2cWriteMulti 1 ", G10, "0x50 4 0xffffffff 0x0 "), "Address out of range"}};
  for (const auto& [request, error] : cases) {
    EXPECT_EQ(Ask(request), "{ERROR:0x0000000000000010:" + error + "}");
  }
  EXPECT_EQ(Ask(Text("vsFlashEraseSectorMulti 1 ", G20, "0x0 0x10004 ")),
            "{ERROR:0x0000000000000020:Not the start of a sector}");
  EXPECT_EQ(Ask("crBSNGet 0x77 "), "ERROR:0x0000000000000077:No such device");
}

TEST_F(SimFabricTest, RequestThatMakesNoSenseIsRefusedWhole) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "empty request"},
      {"hello", "unknown command"},
      {"vsI2cReadMulti", "bad device count"},
      {"vsI2cReadMulti x", "bad device count"},
      {"vsI2cReadMulti -1 0x10", "bad device count"},
      {"vsI2cReadMulti 2 0x10", "fewer devices than counted"},
      {"vsI2cReadMulti 1 10 0x50 4 0x0", "bad device GUID"},
      {"vsI2cReadMulti 1 0x10 0x50 4", "missing arguments"},
      {"vsI2cReadMulti 1 0x10 0x50 4 0x0 0x0", "too many arguments"},
      {"vsI2cReadMulti 1 0x10 0x150 4 0x0", "bad chip address"},
      {"vsI2cReadMulti 1 0x10 0x50 four 0x0", "bad size"},
      {"vsI2cReadMulti 1 0x10 0x50 4 0x100000000", "bad offset"},
      {"vsI2cReadMulti 0 0x50 4 0x0", "no devices"},
      {"vsI2cWriteMulti 1 0x10 0x50 8 0x0 0x0", "the number of data words does not fit the size"},
      {"vsI2cWriteMulti 1 0x10 0x50 4 0x0 zz", "bad data word"},
      {"vsFlashStartMulti 1 0x20 2", "bad start argument"},
      {"vsI2cReadMulti 65 " + std::string(65 * 5, ' '), "fewer devices than counted"}};
  for (const auto& [request, error] : cases) {
    EXPECT_EQ(Ask(request), "ERROR:" + error) << request;
  }
  _fabric.facts.multi_max = "1";
  EXPECT_EQ(Ask("vsI2cReadMulti 2 0x10 0x20 0x50 4 0x0"),
            "ERROR:more devices than the server takes at once");
}

TEST_F(SimFabricTest, GarbageIsAnsweredWithAnError) {
  TestRng rng(99);
  const std::string words[] = {"vsI2cReadMulti",
                               "vsFlashWriteMulti",
                               "crBSNGet",
                               "1",
                               "2",
                               "0x10",
                               "0x20",
                               "0x50",
                               "4",
                               "{}",
                               "",
                               "\x01"};
  for (int round = 0; round < 5000; ++round) {
    std::string request;
    for (std::size_t n = rng() % 8; n > 0; --n) request += words[rng() % std::size(words)] + " ";
    const std::string answer = Ask(request);
    EXPECT_FALSE(answer.empty()) << request;
  }
}

TEST_F(SimFabricTest, ImpossibleDevicesAreRefused) {
  EXPECT_THROW(_fabric.Add(I2cDevice(0x10)), std::invalid_argument);
  EXPECT_THROW(_fabric.Add(I2cDevice(0x12)), std::invalid_argument);
  sim::Device blank_name = I2cDevice(0x40);
  blank_name.name = "two words";
  EXPECT_THROW(_fabric.Add(std::move(blank_name)), std::invalid_argument);
  sim::Device mixed = FlashDevice(0x50);
  mixed.kind = device::MemoryKind::EEPROM;
  EXPECT_THROW(_fabric.Add(std::move(mixed)), std::invalid_argument);
}

TEST_F(SimFabricTest, DevicesHaveOnePortAndOneFlashChipAtLeast) {
  sim::Device no_port = I2cDevice(0x40);
  no_port.port_guids.clear();
  EXPECT_THROW(_fabric.Add(std::move(no_port)), std::invalid_argument);
  sim::Device same_ports = I2cDevice(0x40);
  same_ports.port_guids = {0x41, 0x41};
  EXPECT_THROW(_fabric.Add(std::move(same_ports)), std::invalid_argument);
  sim::Device elsewhere = FlashDevice(0x40);
  auto chip = elsewhere.chips.extract(0);
  chip.key() = 1;
  elsewhere.chips.insert(std::move(chip));
  EXPECT_THROW(_fabric.Add(std::move(elsewhere)), std::invalid_argument);
  EXPECT_EQ(_fabric.Find(0x40), nullptr);
}

TEST_F(SimFabricTest, ObserverSeesEveryChangeBeforeItIsApplied) {
  std::vector<std::string> seen;
  _fabric.observer = [&](const sim::Operation& operation) {
    const auto held = _fabric.Find(operation.device)->chips.at(operation.chip).Bytes();
    seen.push_back(Text(operation.kind == sim::Operation::ERASE ? "erase " : "program ", std::hex,
                        operation.device, ":", u_int32_t{operation.chip}, ":", operation.offset,
                        "+", operation.size, " held ", u_int32_t{held[operation.offset]}));
  };
  Ask(Text("vsFlashWriteMulti 1 ", G20, "0x0 8 0x10000 0x0 0x0 "));
  Ask(Text("vsFlashEraseSectorMulti 1 ", G20, "0x0 0x10000 "));
  Ask(Text("vsFlashReadMulti 1 ", G20, "0x0 4 0x10000 "));
  EXPECT_EQ(seen, (std::vector<std::string>{"program 20:0:10000+8 held ff",
                                            "erase 20:0:10000+10000 held 0"}));
}

TEST_F(SimFabricTest, ImageTextIsBurntIntoTheNamedDevices) {
  EXPECT_EQ(_fabric.BurnImage({0x20, 0x77}, "START A 10000 0\n1 2 3 4\nEND A\n"),
            "ACK {ERROR:0x0000000000000077:No such device}");
  EXPECT_EQ(MemoryOf(_fabric, 0x20, 0, 0x10000, 4), Hex("01020304"));
  EXPECT_EQ(_fabric.BurnImage({0x20}, "START A 20000 0\n1 2 3 4\nEND A\n"), "ACK");
}

TEST_F(SimFabricTest, ImageTextIsCutAtTheEndsOfItsChips) {
  sim::Device device = I2cDevice(0x30, 0);
  device.chips.try_emplace(u_int8_t{0x50}, sim::Chip(std::make_unique<sim::Cells>(0x14), 0));
  device.chips.try_emplace(u_int8_t{0x51}, sim::Chip(std::make_unique<sim::Cells>(0x20), 0));
  _fabric.Add(std::move(device));
  EXPECT_EQ(_fabric.BurnImage({0x30},
                              "DEVMAP 14 50\nDEVMAP 20 51\nSTART A 10 50\n"
                              "1 2 3 4\n5 6 7 8\nEND A\n"),
            "ACK");
  EXPECT_EQ(MemoryOf(_fabric, 0x30, 0x50, 0x10, 4), Hex("01020304"));
  EXPECT_EQ(MemoryOf(_fabric, 0x30, 0x51, 0, 4), Hex("05060708"));
}

class SimFaultTest : public SimFabricTest {
 protected:
  sim::Fault& Fault(sim::Fault::Kind kind) {
    _fault = {};
    _fault.kind = kind;
    return _fault;
  }
  void Arm() { _fabric.faults.Add(_fault); }

  const std::string _read = Text("vsI2cReadMulti 1 ", G10, "0x50 4 0x0 ");
  const std::string _write = Text("vsI2cWriteMulti 1 ", G10, "0x50 8 0x0 0x0 0x0 ");
  const std::string _good = "{ACK {data 0xffffffff}}";
  sim::Fault _fault;
};

TEST_F(SimFaultTest, FaultFiresOnceAtItsRequest) {
  Fault(sim::Fault::ANSWER).text = "TARGET_ERROR:1:x";
  _fault.nth = 2;
  Arm();
  EXPECT_EQ(Ask(_read), _good);
  EXPECT_EQ(Ask(_read), "TARGET_ERROR:1:x");
  EXPECT_EQ(Ask(_read), _good);
}

TEST_F(SimFaultTest, FaultMayGoOnFromItsRequest) {
  Fault(sim::Fault::ANSWER).text = "garbage";
  _fault.nth = 2;
  _fault.from_then_on = true;
  Arm();
  EXPECT_EQ(Ask(_read), _good);
  EXPECT_EQ(Ask(_read), "garbage");
  EXPECT_EQ(Ask(_read), "garbage");
}

TEST_F(SimFaultTest, OnlyRequestsThatNameCommandAndDeviceCount) {
  Fault(sim::Fault::ANSWER).text = "x";
  _fault.command = "Read";
  _fault.device = 0x10;
  Arm();
  EXPECT_EQ(Ask(_write), "ACK");
  EXPECT_EQ(Ask(Text("vsFlashReadMulti 1 ", G20, "0x0 4 0x0 ")), _good);
  EXPECT_EQ(Ask(_read), "x");
}

TEST_F(SimFaultTest, FiringIsLoggedWithItsSeed) {
  std::vector<std::string> lines;
  _fabric.faults.log = [&](const std::string& line) { lines.push_back(line); };
  Fault(sim::Fault::SILENCE).seed = 42;
  Arm();
  EXPECT_EQ(_fabric.Execute(_read).delivery, protocol::Answer::SILENCE);
  EXPECT_EQ(lines, std::vector<std::string>{"fault silence at vsI2cReadMulti (match 1, seed 42)"});
}

TEST_F(SimFaultTest, DeviceErrorDoesNothingToTheDevice) {
  Fault(sim::Fault::DEVICE_ERROR).text = "no";
  Arm();
  EXPECT_EQ(Ask(_write), "{ERROR:0x0000000000000010:no}");
  EXPECT_EQ(Ask(_read), _good);
}

TEST_F(SimFaultTest, ElementsAreTooFewOrTooMany) {
  Fault(sim::Fault::DROP_ELEMENT);
  Arm();
  EXPECT_EQ(Ask(_read), "");
  Fault(sim::Fault::EXTRA_ELEMENT);
  Arm();
  EXPECT_EQ(Ask(_write), "ACK ACK");
}

TEST_F(SimFaultTest, ConnectionFaultsAreHandedOn) {
  const std::pair<sim::Fault::Kind, protocol::Answer::Delivery> kinds[] = {
      {sim::Fault::CLOSE_BEFORE, protocol::Answer::CLOSE_BEFORE},
      {sim::Fault::CLOSE_INSIDE, protocol::Answer::CLOSE_INSIDE},
      {sim::Fault::CLOSE_AFTER, protocol::Answer::CLOSE_AFTER},
      {sim::Fault::RESET, protocol::Answer::RESET}};
  for (const auto& [kind, delivery] : kinds) {
    Fault(kind);
    Arm();
    EXPECT_EQ(_fabric.Execute(_read).delivery, delivery);
  }
  Fault(sim::Fault::DELAY).milliseconds = 7;
  Arm();
  EXPECT_EQ(_fabric.Execute(_read).milliseconds, 7u);
}

TEST_F(SimFaultTest, DeviceWithoutPowerDoesNothingAndIsNotListed) {
  Fault(sim::Fault::POWER_OFF);
  Arm();
  const std::string silent = "{ERROR:0x0000000000000010:Device does not respond}";
  EXPECT_EQ(Ask(_write), silent);
  EXPECT_EQ(Ask(_read), silent);
  EXPECT_EQ(MemoryOf(_fabric, 0x10, 0x50, 0, 4), Hex("ffffffff"));
  EXPECT_EQ(Ask("NsGetDeviceByType device").find("leaf"), std::string::npos);
}

TEST_F(SimFaultTest, CutWriteIsAppliedInPartAsItsSeedSays) {
  const auto part = [&](u_int32_t seed) {
    sim::Fabric fabric;
    fabric.Add(I2cDevice(0x10));
    Fault(sim::Fault::CUT).seed = seed;
    fabric.faults.Add(_fault);
    EXPECT_EQ(fabric.Execute(_write).text, "{ERROR:0x0000000000000010:Device does not respond}");
    EXPECT_FALSE(fabric.Find(0x10)->has_power);
    return MemoryOf(fabric, 0x10, 0x50, 0, 8);
  };
  EXPECT_EQ(part(3), part(3));
  std::set<DataVec> states;
  for (u_int32_t seed = 0; seed < 20; ++seed) states.insert(part(seed));
  EXPECT_GT(states.size(), 5u);
}

TEST_F(SimFaultTest, CutEraseLeavesAMixOfCells) {
  Ask(Text("vsFlashWriteMulti 1 ", G20, "0x0 8 0x10000 0x0 0x0 "));
  Fault(sim::Fault::CUT).seed = 3;
  Arm();
  EXPECT_EQ(Ask(Text("vsFlashEraseSectorMulti 1 ", G20, "0x0 0x10000 ")),
            "{ERROR:0x0000000000000020:Device does not respond}");
  EXPECT_FALSE(_fabric.Find(0x20)->has_power);
  const DataVec bytes = MemoryOf(_fabric, 0x20, 0, 0x10000, 8);
  int erased = 0;
  for (const u_int8_t byte : bytes) erased += std::popcount(byte);
  EXPECT_GT(erased, 0);
  EXPECT_LT(erased, 64);
}

TEST_F(SimFaultTest, WrongWriteDiffersInOneBit) {
  Fault(sim::Fault::WRITE_WRONG);
  Arm();
  EXPECT_EQ(Ask(_write), "ACK");
  int bits = 0;
  for (const u_int8_t byte : MemoryOf(_fabric, 0x10, 0x50, 0, 8)) bits += std::popcount(byte);
  EXPECT_EQ(bits, 1);
}

class SimSessionTest : public SimFabricTest {
 protected:
  /// All that the server sends for `bytes`, which come in pieces of `size`.
  static std::string Sent(protocol::Session& session, const std::string& bytes, std::size_t size) {
    std::string sent;
    for (std::size_t i = 0; i < bytes.size(); i += size) {
      for (const protocol::Step& step : session.Feed(std::string_view(bytes).substr(i, size))) {
        sent += step.kind == protocol::Step::SEND    ? step.bytes
                : step.kind == protocol::Step::CLOSE ? "<close>"
                : step.kind == protocol::Step::RESET ? "<reset>"
                                                     : "<wait>";
      }
    }
    return sent;
  }

  std::string SentAtOnce(const std::string& bytes) {
    protocol::Session session(_fabric);
    return Sent(session, bytes, bytes.size());
  }

  static std::string Framed(const std::string& text) { return protocol::Frame(text); }
};

TEST_F(SimSessionTest, ImageKeepsItsLineEndsAcrossPieces) {
  protocol::Session session(_fabric);
  EXPECT_EQ(Sent(session, Framed(Text("vsFlashBurnImageMulti 1 ", G20)), 100), Framed("ACK"));
  EXPECT_EQ(Sent(session, "NEW_BUF\nSTART A 10000 0\n1 2 3 4\nTO_BE_CONT\n", 5),
            Framed("NsContinue"));
  EXPECT_EQ(Sent(session, "CONT_BUF\n\n5 6 7 8\nEND A\n\nEND_BUF\n", 5), Framed("ACK"));
  EXPECT_EQ(MemoryOf(_fabric, 0x20, 0, 0x10000, 8), Hex("0102030405060708"));
}

TEST_F(SimSessionTest, BadImageIsTheServersError) {
  protocol::Session session(_fabric);
  Sent(session, Framed(Text("vsFlashBurnImageMulti 1 ", G20)), 100);
  const std::string answer = Sent(session, Framed("START A 40 0\n1 2 3\n"), 100);
  EXPECT_THAT(answer, testing::MatchesRegex("NEW_BUF\n\\{ERROR:0x0000000000000020:.*Section data "
                                            "line must have multiple of 4 bytes.\\}\nEND_BUF\n"));
}

TEST_F(SimSessionTest, CrcOverHalfAWordIsTheServersError) {
  protocol::Session session(_fabric);
  Sent(session, Framed(Text("vsFlashBurnImageMulti 1 ", G20)), 100);
  const std::string answer =
      Sent(session, Framed("START A 0 0\n1 2 3 4 5 6 7 8\nEND A\nREPLACE CRC 0 0 2 0 4 0\n"), 100);
  EXPECT_EQ(answer,
            "NEW_BUF\n{ERROR:0x0000000000000020:The CRC at address 4 covers no whole words}\n"
            "END_BUF\n");
  EXPECT_EQ(MemoryOf(_fabric, 0x20, 0, 0, 4), Hex("ffffffff"));
}

TEST_F(SimSessionTest, ImageGoesOnlyIntoDevicesThatAgreed) {
  protocol::Session session(_fabric);
  EXPECT_EQ(Sent(session, Framed(Text("vsFlashBurnImageMulti 2 ", G20, G10)), 100),
            Framed("ACK {ERROR:0x0000000000000010:Device has no flash}"));
  EXPECT_EQ(Sent(session, Framed("START A 0 0\n1 2 3 4\nEND A\n"), 100), Framed("ACK"));
  EXPECT_EQ(MemoryOf(_fabric, 0x20, 0, 0, 4), Hex("01020304"));
}

TEST_F(SimSessionTest, RefusedBurnTakesNoImage) {
  protocol::Session session(_fabric);
  EXPECT_EQ(Sent(session, Framed(Text("vsFlashBurnImageMulti 1 ", G10)), 100),
            Framed("{ERROR:0x0000000000000010:Device has no flash}"));
  EXPECT_EQ(Sent(session, Framed("START A 0 0\n1 2 3 4\nEND A\n"), 100),
            Framed("ERROR:unknown command"));
}

TEST_F(SimSessionTest, ConnectionEndsWhereAFaultSaysSo) {
  const std::pair<sim::Fault::Kind, std::string> kinds[] = {
      {sim::Fault::SILENCE, ""},
      {sim::Fault::CLOSE_BEFORE, "<close>"},
      {sim::Fault::CLOSE_INSIDE, "NEW_BUF\n6<close>"},
      {sim::Fault::CLOSE_AFTER, Framed("64") + "<close>"},
      {sim::Fault::RESET, "<reset>"}};
  for (const auto& [kind, sent] : kinds) {
    sim::Fault fault;
    fault.kind = kind;
    _fabric.faults.Add(fault);
    EXPECT_EQ(SentAtOnce(Framed("vsMultiMaxGet")), sent);
  }
}

class FabricFileTest : public ConsoleTest {
 protected:
  void Load(const std::string& text, const std::optional<std::filesystem::path>& state = {}) {
    sim::LoadFabric(_folder.Write("fabric.toml", text), state, _fabric);
  }

  /// What the loader says behind the file name.
  std::string ErrorOfFile(const std::string& text) {
    try {
      sim::Fabric fabric;
      sim::LoadFabric(_folder.Write("fabric.toml", text), {}, fabric);
    } catch (const sim::FabricFileError& error) {
      const std::string file = _folder / "fabric.toml";
      const std::string what = error.what();
      EXPECT_TRUE(what.starts_with(file)) << what;
      return what.substr(file.size());
    }
    return "(no error)";
  }

  static std::string Device(const std::string& more) {
    return "[[device]]\nnode_guid = \"0x10\"\nport_guids = [\"0x11\"]\n" + more + "\n";
  }
  const std::string _eeprom = "chip = [{ address = 0x50, size = 16 }]\n";

  common::ScratchFolder _folder;
  sim::Fabric _fabric;
};

TEST_F(FabricFileTest, DevicesAreAsTheFileSays) {
  Load(
      "[server]\ntype = \"PPC\"\ninterface_version = \"9\"\nmulti_max = 3\n"
      "[[device]]\nnode_guid = \"0x00aa550000000010\"\n"
      "port_guids = [\"0x11\", \"0x12\"]\nsystem_guid = \"0x1f\"\ndeclared_ports = 5\n"
      "name = \"leaf\"\nattribute = \"rev\"\nbsn = \"AB\"\nvsd = \"0x0102ff\"\npower = false\n"
      "[device.flash]\nsize = 0x400\nsector_size = 0x100\n"
      "[[device.contents]]\nfill = 0x55\n");
  EXPECT_EQ(_fabric.facts.type, "PPC");
  EXPECT_EQ(_fabric.facts.ifc_version, "9");
  EXPECT_EQ(_fabric.facts.multi_max, "3");
  const sim::Device& device = *_fabric.Find(0xAA550000000010);
  EXPECT_EQ(device.port_guids, (GuidVec{0x11, 0x12}));
  EXPECT_EQ(device.sys_guid, 0x1Fu);
  EXPECT_EQ(device.declared_ports, 5u);
  EXPECT_EQ(device.name, "leaf");
  EXPECT_EQ(device.attr, "rev");
  EXPECT_EQ(device.bsn[1], 'B');
  EXPECT_EQ(device.bsn[2], 0);
  EXPECT_EQ(device.vsd[2], 0xFF);
  EXPECT_FALSE(device.has_power);
  EXPECT_EQ(device.chips.at(0).SectorSize(), 0x100u);
  EXPECT_EQ(device.chips.at(0).Bytes()[0x3FF], 0x55);
}

TEST_F(FabricFileTest, RawContentsGoWhereTheyBelong) {
  _folder.Write("raw.bin", "abc");
  Load(
      Device("chip = [{ address = 0x50, size = 16 }, { address = 0x51, size = 16 }]\n"
             "contents = [{ raw = \"raw.bin\", chip = 0x51, at = 2 }]"));
  EXPECT_EQ(MemoryOf(_fabric, 0x10, 0x51, 1, 5), Hex("ff616263ff"));
  EXPECT_EQ(MemoryOf(_fabric, 0x10, 0x50, 0, 4), Hex("ffffffff"));
}

TEST_F(FabricFileTest, ImageContentsAreBurntWholeOrIntoASlot) {
  std::string image = "DEVICE_TYPE RV52100\n";
  for (const std::string slot : {"0", "1"}) {
    const std::string ps = slot == "0" ? "100" : "200";
    const std::string base = slot == "0" ? "300" : "600";
    image += "PS " + slot + " " + ps + " 0\nSIGNATURE " + slot + " " + ps.substr(0, 1) +
             "08 0\nIMAGE " + slot + " " + base + " 0\n";
  }
  image += "REPLACE GUID 600 0\n";
  image += "START IS 0 0\n1 1 1 1\nEND IS\n";
  image += "START PS0 100 0\n0 0 3 0 0 0 0 8 0 0 0 0\nEND PS0\n";
  image += "START PS1 200 0\n0 0 6 0 0 0 0 8 0 0 0 0\nEND PS1\n";
  image += "START FW 300 0\n2 2 2 2 2 2 2 2 3 3 3 3\nEND FW\n";
  _folder.Write("fw.img", image);
  const std::string flash = "[device.flash]\nsize = 0x800\nsector_size = 0x100\n";
  const auto memory = [&](const std::string& contents, u_int32_t offset, u_int32_t size) {
    sim::Fabric fabric;
    sim::LoadFabric(
        _folder.Write("fabric.toml", Device(flash + "[[device.contents]]\n" + contents)), {},
        fabric);
    return MemoryOf(fabric, 0x10, 0, offset, size);
  };
  const std::string whole = "image = \"fw.img\"";
  EXPECT_EQ(memory(whole, 0x300, 8), DataVec(8, 2));
  EXPECT_EQ(memory(whole, 0x108, 4), Hex("00000000"));
  const std::string valid = whole + "\nslot = 1";
  EXPECT_EQ(memory(valid, 0, 4), Hex("01010101"));
  EXPECT_EQ(memory(valid, 0x600, 12), Hex("0000000000000010 03030303"));
  EXPECT_EQ(memory(valid, 0x208, 4), Hex("cb84cb84"));
  EXPECT_EQ(memory(valid, 0x100, 4), Hex("ffffffff"));
  EXPECT_EQ(memory(valid + "\nvalid = false", 0x208, 4), Hex("ffffffff"));
}

TEST_F(FabricFileTest, ImageThatDoesNotFitItsDeviceIsNamed) {
  const auto error = [&](const std::string& image) {
    _folder.Write("fw.img", image);
    return ErrorOfFile(Device(_eeprom + "[[device.contents]]\nimage = \"fw.img\""));
  };
  EXPECT_THAT(error("DEVMAP 4 50\nSTART A 0 50\n1 1 1 1\n1 1 1 1\nEND A\n"),
              HasSubstr("the device map ends before address"));
  EXPECT_THAT(error("DEVMAP 10 50\nDEVMAP 10 51\nSTART A 0 51\n1 1 1 1\nEND A\n"),
              HasSubstr("No chip at this address"));
  EXPECT_THAT(error("DEVMAP 10 50\nREPLACE CRC 0 50 5 50 8 50\n"
                    "START A 0 50\n1 1 1 1\n1 1 1 1\n1 1 1 1\nEND A\n"),
              HasSubstr("The CRC at address 8 covers no whole words"));
}

/// Boot reports of a flash of eight sectors.
class BootReportTest : public FabricFileTest {
 protected:
  std::string ReportOf(const std::string& image) {
    Load(Device("[device.flash]\nsize = 0x800\nsector_size = 0x100\n"));
    return sim::BootReport(_fabric, {_folder.Write("fw.img", image)});
  }
};

TEST_F(BootReportTest, ADeviceWithoutAKnownImageIsNotJudged) {
  Load(Device(_eeprom));
  EXPECT_EQ(sim::BootReport(_fabric, {}),
            "0x0000000000000010 not judged: no known image; name one with --image\n");
}

TEST_F(BootReportTest, AnImageThatPlacesNoSlotsJudgesNothing) {
  EXPECT_THAT(ReportOf("DEVICE_TYPE RV61100\nSTART A 0 0\n1 1 1 1\nEND A\n"),
              HasSubstr("fw.img is for a device without two image slots"));
}

TEST_F(BootReportTest, AMissingRecordIsNamed) {
  EXPECT_THAT(ReportOf("DEVICE_TYPE RV52100\nSTART A 0 0\n1 1 1 1\nEND A\n"),
              HasSubstr("Ps Addr[0]"));
  EXPECT_THAT(sim::BootReport(_fabric, {_folder.Write("fw.img",
                                                      "DEVICE_TYPE RV61300\nIMAGE 0 0 0\n"
                                                      "START A 0 0\n1 1 1 1\nEND A\n")}),
              HasSubstr("Image Addr[1]"));
}

TEST_F(BootReportTest, AnImageThatCannotBeReadJudgesNothing) {
  Load(Device(_eeprom));
  EXPECT_THAT(sim::BootReport(_fabric, {_folder / "missing.img"}), HasSubstr("not judged: "));
}

TEST_F(FabricFileTest, StateIsKeptInFilesAndContentsOnlyFillNewOnes) {
  const std::filesystem::path state = _folder / "state";
  const std::string text = Device(_eeprom + "contents = [{ fill = 7 }]");
  Load(text, state);
  _fabric.Execute("vsI2cWriteMulti 1 0x10 0x50 4 0x4 0x1020304 ");
  const auto file_bytes = [&] { return common::ReadFile(state / "0x0000000000000010.50.i2c"); };
  EXPECT_EQ(file_bytes(), Hex("07070707010203040707070707070707"));  // while it is being used
  sim::Fabric again;
  sim::LoadFabric(_folder / "fabric.toml", state, again);
  EXPECT_EQ(MemoryOf(again, 0x10, 0x50, 0, 8), Hex("0707070701020304"));
}

TEST_F(FabricFileTest, StateOfAnotherSizeIsRefused) {
  const std::filesystem::path state = _folder / "state";
  std::filesystem::create_directory(state);
  std::ofstream(state / "0x0000000000000010.50.i2c") << "short";
  try {
    Load(Device(_eeprom), state);
    FAIL();
  } catch (const sim::FabricFileError& error) {
    EXPECT_THAT(error.what(), testing::EndsWith("has 5 bytes, the memory has 16"));
  }
}

TEST_F(FabricFileTest, FaultsAreArmed) {
  Load(Device(_eeprom) +
       "[[fault]]\nkind = \"answer\"\ncommand = \"Read\"\ndevice = \"0x10\"\nnth = 2\n"
       "from_then_on = true\ntext = \"x\"\n");
  const std::string read = "vsI2cReadMulti 1 0x10 0x50 4 0x0 ";
  EXPECT_EQ(_fabric.Execute(read).text, "{ACK {data 0xffffffff}}");
  EXPECT_EQ(_fabric.Execute(read).text, "x");
  EXPECT_EQ(_fabric.Execute(read).text, "x");
}

TEST_F(FabricFileTest, WhatIsWrongIsNamedWithItsLine) {
  const std::pair<std::string, std::string> cases[] = {
      {"[server]\ntype = \"USB\"\n", ":1: 'type' must be I2C, PCI, PPC or IB"},
      {"[server]\n\nmulti_max = 0\n", ":3: 'multi_max' must be a number from 1 to 1000000"},
      {"[server]\ntipe = \"IB\"\n", ":2: unknown key 'tipe'"},
      {"devices = 1\n", ":1: unknown key 'devices'"},
      {"[[device]]\nname = \"x\"\n", ":1: 'node_guid' is missing"},
      {"[[device]]\nnode_guid = 16\n",
       ":2: 'node_guid' must be a GUID such as \"0x00aa550000000010\""},
      {"[[device]]\nnode_guid = \"0x1g\"\n",
       ":2: 'node_guid' must be a GUID such as \"0x00aa550000000010\""},
      {"[[device]]\nnode_guid = \"0x10000000000000000\"\n",
       ":2: 'node_guid' must be a GUID such as \"0x00aa550000000010\""},
      {"", ": no [[device]]"},
      {Device(_eeprom + "name = 3"), ":5: 'name' must be a string"},
      {Device(_eeprom + "name = \"two words\""),
       ":1: a device's name and attribute must each be one word"},
      {Device(""), ":1: a device has either a [device.flash] or [[device.chip]]s"},
      {Device(_eeprom) + Device(_eeprom), ":6: GUID 0x0000000000000010 stands for two devices"},
      {Device(_eeprom + "bsn = \"" + std::string(65, 'x') + "\""),
       ":1: 'bsn' has more than 64 bytes"},
      {Device(_eeprom + "vsd = \"0x123\""),
       ":1: 'vsd' must have two hexadecimal digits for each byte"},
      {Device(_eeprom + "contents = [{ fill = 1, raw = \"x\" }]"),
       ":5: contents are one of 'fill', 'raw' and 'image'"},
      {Device("chip = [{ address = 0x50, size = 16 }, { address = 0x50, size = 16 }]"),
       ":1: two chips at address 0x50"},
      {Device("[device.flash]\nsize = 100\nsector_size = 64"),
       ":4: 'size' must be a whole number of sectors"},
      {"[[fault]]\nkind = \"fire\"\n", ":1: 'kind' is no kind of fault: fire"},
  };
  for (const auto& [text, error] : cases) EXPECT_EQ(ErrorOfFile(text), error) << text;
  EXPECT_TRUE(ErrorOfFile("[server\n").starts_with(":1: ")) << ErrorOfFile("[server\n");
  // Debug builds of the TOML library ended the program here.
  EXPECT_TRUE(ErrorOfFile("[[fault]]\n[{ kind").starts_with(":2: "));
  EXPECT_TRUE(ErrorOfFile(Device(_eeprom + "contents = [{ raw = \"none.bin\" }]"))
                  .starts_with(":5: can't read "));
  EXPECT_TRUE(ErrorOfFile(Device(_eeprom + "contents = [{ image = \"none.img\" }]"))
                  .starts_with(":5: can't burn the image: Can't open file "));
}

TEST_F(FabricFileTest, RawContentsMustBeAFile) {
  std::filesystem::create_directory(_folder.Path() / "folder");
  EXPECT_EQ(ErrorOfFile(Device(_eeprom + "contents = [{ raw = \"folder\" }]")),
            ":5: can't read " + (_folder / "folder") + ": not a file");
  EXPECT_EQ(ErrorOfFile(Device(_eeprom + "contents = [{ raw = \"none.bin\" }]")),
            ":5: can't read " + (_folder / "none.bin") + ": No such file or directory");
}

// The TOML library took a Greek letter where a value ends for what cannot be.
TEST_F(FabricFileTest, LettersBeyondAsciiAreRefusedOutsideTextsAndComments) {
  const std::string refusal = ": only strings and comments may have characters outside ASCII";
  const std::string eta = "\xCE\x97";
  EXPECT_EQ(ErrorOfFile("a = 1\nb = " + eta + "x\n"), ":2" + refusal);
  EXPECT_EQ(ErrorOfFile("a = [1, 'x', \"y\\\"z\"]" + eta + "\n"), ":1" + refusal);
  EXPECT_EQ(ErrorOfFile("a = \"\"\"\n" + eta + "\n\"\"\" " + eta), ":3" + refusal);
  EXPECT_EQ(ErrorOfFile("a = '''" + eta + "'" + eta + "''' # " + eta + "\n" + eta), ":2" + refusal);
  EXPECT_EQ(ErrorOfFile("\xEF\xBB\xBF# " + eta + "\n" + Device(_eeprom + "vsd = '" + eta + "'")),
            "(no error)");
  // Behind a mistake, nobody can tell what is a text.
  EXPECT_TRUE(ErrorOfFile("a = 1\nb = +\"" + eta).starts_with(":2: "));
}

TEST_F(FabricFileTest, MissingFileIsNamed) {
  try {
    sim::LoadFabric(_folder / "none.toml", {}, _fabric);
    FAIL();
  } catch (const sim::FabricFileError& error) {
    EXPECT_EQ(std::string(error.what()),
              "can't open " + (_folder / "none.toml") + ": No such file or directory");
  }
}

TEST_F(FabricFileTest, FolderIsNoFabricFile) {
  try {
    sim::LoadFabric(_folder.Path(), {}, _fabric);
    FAIL();
  } catch (const sim::FabricFileError& error) {
    EXPECT_EQ(error.what(), "can't open " + _folder.Path().string() + ": Is a directory");
  }
}

TEST_F(FabricFileTest, FirstStartThatFailsLeavesNothingThatLooksKept) {
  const std::filesystem::path state = _folder / "state";
  const std::string text = Device(_eeprom + "contents = [{ raw = \"late.bin\" }]");
  {
    sim::Fabric first;
    EXPECT_THROW(sim::LoadFabric(_folder.Write("fabric.toml", text), state, first),
                 sim::FabricFileError);
  }
  EXPECT_TRUE(std::filesystem::is_empty(state));
  _folder.Write("late.bin", "abcd");
  sim::Fabric second;
  sim::LoadFabric(_folder / "fabric.toml", state, second);
  EXPECT_EQ(MemoryOf(second, 0x10, 0x50, 0, 6), Hex("61626364ffff"));
}

TEST_F(FabricFileTest, ConsoleIsAsItWasAfterAnImageWasBurnt) {
  _folder.Write("a.img", "START A 0 0\n1 2 3 4\nEND A\n");
  const std::string shown = OutputOf([&] {
    Load(Device("chip = [{ address = 0, size = 16 }]\ncontents = [{ image = \"a.img\" }]"));
    std::cout << 255 << std::setw(3) << 7;
  });
  EXPECT_EQ(shown, "255  7");
}

TEST_F(FabricFileTest, ShippedExamplesLoad) {
  for (const std::string name : {"i2c.toml", "i2c-failing.toml", "flash.toml"}) {
    sim::Fabric fabric;
    sim::LoadFabric(std::filesystem::path(EXAMPLES) / name, {}, fabric);
    EXPECT_FALSE(fabric.Devices().empty()) << name;
  }
}

}  // namespace
