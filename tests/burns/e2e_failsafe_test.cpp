/// Whole failsafe burns: the built fwpush against the built simulator, each in its own process, on
/// devices that hold an older image.

#include <signal.h>

#include "src/utils.h"
#include "tests/support/Harness.h"

namespace {

std::string Repeated(const std::string& text, int times) {
  std::string result;
  for (int i = 0; i < times; ++i) result += text;
  return result;
}

DataVec Joined(std::initializer_list<DataVec> parts) {
  DataVec all;
  for (const DataVec& part : parts) all << part;
  return all;
}

/// `bytes`, and erased memory up to `size`.
DataVec Padded(DataVec bytes, std::size_t size) {
  EXPECT_LE(bytes.size(), size);
  bytes.resize(size, 0xFF);
  return bytes;
}

DataVec CrcWord(const DataVec& covered) {
  DataVec word;
  word << ReferenceCrc(covered);
  return word;
}

/// A device's GUID, a word of its image, and the CRC over both: how every image here begins, or
/// goes on behind its boot record.
DataVec Body(u_int64_t guid, u_int32_t word) {
  DataVec bytes;
  bytes << guid << word;
  return Joined({bytes, CrcWord(bytes)});
}

class FailsafeRunTest : public ConsoleTest {
 protected:
  FailsafeRunTest(const std::string& old_image, const std::string& image) {
    _folder.Write("old.img", old_image);
    _image = _folder.Write("fw.img", image);
  }

  /// The old image, burnt into one slot.
  static std::string OldImage(int slot, bool valid) {
    return Text("[[device.contents]]\nimage = \"old.img\"\nslot = ", slot,
                "\nvalid = ", valid ? "true" : "false", "\n");
  }

  static std::string Device(int number, const std::string& memory, const std::string& contents) {
    return Text("[[device]]\nname = \"leaf-", number, "\"\nattribute = \"rev-a\"\nnode_guid = \"0x",
                number, "0\"\nport_guids = [\"0x", number, "1\", \"0x", number,
                "2\"]\nsystem_guid = \"0x", number, "f\"\n", memory, "\n", contents);
  }

  void Serve(const std::string& type, const std::string& devices) {
    _simulator =
        std::make_unique<Simulator>(_folder, "[server]\ntype = \"" + type + "\"\n" + devices);
  }

  Outcome Burn(std::vector<std::string> words) {
    words.insert(words.begin(), FwpushProgram());
    words.insert(words.end(), {"-f", _image, "-s", _simulator->Server()});
    return RunProgram(words);
  }

  /// Burns, and holds console and wire against the transcripts called `name`.
  void BurnAsIn(const std::string& name, const std::vector<std::string>& words) {
    const Outcome outcome = Burn(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(Comparable(outcome.output),
              Golden(name + ".console", {{"FILE", _image}, {"SERVER", _simulator->Server()}}));
    EXPECT_EQ(_simulator->Trace(), Golden(name + ".wire"));
  }

  common::ScratchFolder _folder;
  std::string _image;
  std::unique_ptr<Simulator> _simulator;
};

// ---- A flash of sectors of 0x200 bytes: invariant sector, two pointer sectors, images

/// An image whose slots begin at 0x600 and `second`. `addresses` are those addresses, and `size`
/// the image's size, as the words of the pointer sectors; `rest` is what follows the first 16
/// bytes.
std::string FlashImage(const std::string& second, const std::string (&addresses)[2],
                       const std::string& size, const std::string& word, const std::string& rest) {
  std::string text =
      "DEVICE_TYPE RV52100\n"
      "PS 0 200 0\nPS 1 400 0\nSIGNATURE 0 208 0\nSIGNATURE 1 408 0\n"
      "REPLACE CRC 200 0 300 0 304 0\nREPLACE CRC 400 0 500 0 504 0\n";
  int slot = 0;
  for (const std::string& start : {std::string("6"), second}) {
    text += Text("IMAGE ", slot++, " ", start, "00 0\nREPLACE GUID ", start, "00 0\nREPLACE CRC ",
                 start, "00 0 ", start, "08 0 ", start, "0C 0\n");
  }
  text += "START IS 0 0\n" + Repeated("11 11 11 11\n", 9) + "CB 84 CB 84\nEND IS\n";
  for (int i = 0; i < 2; ++i) {
    text += Text("START PS", i, " ", 2 * (i + 1), "00 0\n", addresses[i], "\n", size, "\n",
                 Repeated("0 0 0 0\n", 64), "END PS", i, "\n");
  }
  return text + "START IMG 600 0\n0 0 0 0 0 0 0 0\n" + word + "\n0 0 0 0\n" + rest + "END IMG\n";
}

DataVec InvariantSector() { return Joined({DataVec(36, 0x11), Hex("cb84cb84")}); }

/// A pointer sector's record, with the CRC of a valid one.
DataVec PointerSector(u_int32_t addr, u_int32_t size, const std::string& signature) {
  DataVec head;
  head << addr << size;
  return Joined({head, Hex(signature), DataVec(248, 0),
                 CrcWord(Joined({head, Hex("cb84cb84"), DataVec(248, 0)}))});
}

DataVec NewFlashImage() { return Joined({Body(0x10, 0x22222222), DataVec(504, 0)}); }
DataVec OldFlashImage() { return Body(0x10, 0x33333333); }

class FlashRunTest : public FailsafeRunTest {
 protected:
  FlashRunTest()
      : FailsafeRunTest(FlashImage("8", {"0 0 6 0", "0 0 8 0"}, "0 0 0 10", "33 33 33 33", ""),
                        FlashImage("A", {"0 0 6 0", "0 0 A 0"}, "0 0 2 8", "22 22 22 22",
                                   Repeated("0 0 0 0\n", 126))) {}

  void ServeDevice(const std::string& contents) {
    Serve("IB", Device(1, "[device.flash]\nsize = 0x1000\nsector_size = 0x200", contents));
  }

  /// The flash after a burn into the second slot; what is `behind` the first image's first 0x200
  /// bytes is what stands before the second slot.
  static DataVec Burnt(const DataVec& behind) {
    return Joined(
        {Padded(InvariantSector(), 0x200), Padded(PointerSector(0x600, 0x10, "00000000"), 0x200),
         Padded(PointerSector(0xA00, 0x208, "cb84cb84"), 0x200), Padded(OldFlashImage(), 0x200),
         Padded(behind, 0x200), Padded(NewFlashImage(), 0x600)});
  }

  DataVec Flash() const { return _simulator->Memory("0x0000000000000010.flash"); }
};

TEST_F(FlashRunTest, FirstImageStaysValidUntilTheSecondIsWhole) {
  ServeDevice(OldImage(0, true));
  BurnAsIn("rv52100-failsafe-first", {"-m", "9", "-g", "10"});
  EXPECT_EQ(Flash(), Burnt({}));
}

TEST_F(FlashRunTest, SecondImageInTheWayIsMovedBeforeTheBurn) {
  ServeDevice(OldImage(1, true));
  BurnAsIn("rv52100-failsafe-moved", {"-m", "9", "-g", "10"});
  EXPECT_EQ(Flash(), Burnt(OldFlashImage()));
}

// ---- Two EEPROMs, a slot in each

std::string EepromImage(const std::string& record, const std::string& word) {
  return "DEVICE_TYPE RV61300\nDEVMAP 100 50\nDEVMAP 100 51\nIMAGE 0 0 50\nIMAGE 1 0 51\n"
         "REPLACE GUID 10 50\nREPLACE GUID 10 51\n"
         "REPLACE CRC 10 50 18 50 1C 50\nREPLACE CRC 10 51 18 51 1C 51\n"
         "START ALL 0 50\n" +
         record + "\n0 0 0 0 0 0 0 0 " + word + " 0 0 0 0\nEND ALL\n";
}

class EepromRunTest : public FailsafeRunTest {
 protected:
  EepromRunTest()
      : FailsafeRunTest(EepromImage("40 0 0 0 0 0 0 0 0 0 0 0 0 0 0 6B", "33 33 33 33"),
                        EepromImage("1 2 3 4 5 6 7 8 9 A B C D E F 33", "22 22 22 22")) {}

  static std::string DeviceWith(int number, bool first_valid, bool second_valid) {
    return Device(number,
                  "chip = [{ address = 0x50, size = 0x100 }, { address = 0x51, size = 0x100 }]",
                  OldImage(0, first_valid) + OldImage(1, second_valid));
  }

  static DataVec New(u_int64_t guid) {
    return Padded(Joined({Hex("0102030405060708 090a0b0c0d0e0f33"), Body(guid, 0x22222222)}),
                  0x100);
  }
  static DataVec Old(u_int64_t guid, bool valid) {
    return Padded(Joined({Hex(valid ? "40000000" : "4000000a"), Hex("00000000 00000000 0000006b"),
                          Body(guid, 0x33333333)}),
                  0x100);
  }

  /// What the chip at 0x50 or 0x51 of a device holds.
  DataVec Chip(int number, const std::string& chip) const {
    return _simulator->Memory(Text("0x00000000000000", number, "0.", chip, ".i2c"));
  }
};

TEST_F(EepromRunTest, EachDeviceGetsTheSlotThatItDoesNotNeedFirst) {
  Serve("I2C",
        DeviceWith(1, true, true) + DeviceWith(2, true, false) + DeviceWith(3, false, false));
  BurnAsIn("rv61300-failsafe", {"-m", "4", "-g", "10,20,30"});
  for (const std::string chip : {"50", "51"}) {
    EXPECT_EQ(Chip(1, chip), New(0x10));
    EXPECT_EQ(Chip(2, chip), New(0x20));
    EXPECT_EQ(Chip(3, chip), Old(0x30, false));
  }
}

TEST_F(EepromRunTest, CheckOnlyAsksAndWritesNothing) {
  Serve("I2C", DeviceWith(1, true, true) + DeviceWith(2, false, true));
  const Outcome outcome = Burn({"-c", "-g", "10,20"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(
      outcome.output.ends_with("-D- BurnAlgorithm:817: Checksum is: ab\n"
                               "-I- Total devices:   2\n"
                               "-I- Both valid:      1\n"
                               "-I- Frst only valid: 0\n"
                               "-I- Scnd only valid: 1\n"
                               "-I- BURN SUCCEEDED\n"))
      << outcome.output;
  EXPECT_EQ(_simulator->Trace().find("Write"), std::string::npos);
  EXPECT_EQ(Chip(1, "50"), Old(0x10, true));
  EXPECT_EQ(Chip(2, "50"), Old(0x20, false));
  EXPECT_EQ(Chip(2, "51"), Old(0x20, true));
}

TEST_F(EepromRunTest, RunFailsWhenNoDeviceHasAValidImage) {
  Serve("I2C", DeviceWith(1, false, false) + DeviceWith(2, false, false));
  const Outcome outcome = Burn({"-g", "10,20"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors, "");
  EXPECT_TRUE(
      outcome.output.ends_with("\r-E- BURN FAILED:0x0000000000000010:Both images are invalid - "
                               "Can't perform failsafe burn.\n"
                               "\r-E- BURN FAILED:0x0000000000000020:Both images are invalid - "
                               "Can't perform failsafe burn.\n"
                               "\r-E- BURN FAILED:ALL:All devices can't be failsafe burnt\n"))
      << outcome.output;
  EXPECT_EQ(_simulator->Trace().find("Write"), std::string::npos);
  EXPECT_EQ(Chip(1, "50"), Old(0x10, false));
}

TEST_F(EepromRunTest, RecordThatCantBeReadEndsTheProgramAbnormallyBeforeAnyWrite) {
  Serve("I2C", DeviceWith(1, true, true) + DeviceWith(2, true, true) +
                   "[[fault]]\nkind = \"device-error\"\ncommand = \"Read\"\ndevice = \"0x20\"\n"
                   "text = \"broken\"\n");
  const Outcome outcome = Burn({"-g", "10,20"});
  EXPECT_EQ(outcome.signal, SIGABRT);
  EXPECT_NE(outcome.errors.find("Assertion `read_data.size() == 16' failed."), std::string::npos)
      << outcome.errors;
  EXPECT_NE(outcome.output.find("\r-E- BURN FAILED:0x0000000000000020:broken\n"),
            std::string::npos);
  EXPECT_EQ(_simulator->Trace().find("Write"), std::string::npos);
}

TEST_F(EepromRunTest, DeviceThatFailsKeepsItsOldImageAndTheOtherIsBurnt) {
  Serve("I2C", DeviceWith(1, true, true) + DeviceWith(2, true, true) +
                   "[[fault]]\nkind = \"device-error\"\ncommand = \"Write\"\ndevice = \"0x20\"\n"
                   "nth = 3\ntext = \"broken\"\n");
  const Outcome outcome = Burn({"-m", "4", "-g", "10,20"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.output.find("\r-E- BURN FAILED:0x0000000000000020:broken\n"),
            std::string::npos);
  EXPECT_TRUE(outcome.output.ends_with("-I- BURN SUCCEEDED\n"));
  EXPECT_EQ(Chip(1, "50"), New(0x10));
  EXPECT_EQ(Chip(1, "51"), New(0x10));
  EXPECT_EQ(Chip(2, "51"), Old(0x20, true));
}

}  // namespace
