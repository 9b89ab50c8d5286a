/// RV52100 devices in every state, an image for them, and a second, independent computation of what
/// its failsafe burn requests, writes and prints: worked out by hand from the layout, without the
/// burn code of src/ and device/.
#pragma once

#include <regex>

#include "src/BurnAlgorithm.h"
#include "src/utils.h"
#include "tests/support/fabric_support.h"

namespace rv52100 {

using Burn = RV52100FailsafeBurn;
using Strings = std::vector<std::string>;

// The flash: an invariant sector, a pointer sector for each slot, and the slots. The new image
// fills 0x208 bytes of a slot, so a second image that starts below 0x808 (3 sectors and the image)
// must make way for a new first one.
constexpr u_int32_t SECTOR = 0x200;
constexpr u_int32_t FLASH_SIZE = 0x1000;
constexpr u_int32_t NEW_SIZE = 0x208;
constexpr u_int32_t OLD_SIZE = 0x10;
constexpr u_int32_t IN_THE_WAY = 0x800;

/// One slot, and the CRC of its new pointer sector record.
struct Slot {
  u_int32_t ps;
  u_int32_t image;
  u_int32_t tail;  ///< the image's second section
  u_int32_t ps_crc;
};
constexpr Slot SLOTS[] = {{0x200, 0x600, 0x800, 0xd171}, {0x400, 0xA00, 0xC00, 0x1995}};

constexpr char VALID[] = "cb84cb84";
constexpr char NOT_VALID[] = "00000000";
constexpr char ERASED[] = "ffffffff";

/// A section of an image file.
inline std::string Section(const std::string& name, const std::string& addr, const DataVec& data) {
  std::string text = "START " + name + " " + addr + " 0";
  for (std::size_t i = 0; i < data.size(); ++i) {
    text += Text(i % 16 == 0 ? "\n" : " ", std::hex, u_int32_t{data[i]});
  }
  return text + "\nEND " + name + "\n";
}

inline DataVec NewInvariant() { return Joined({DataVec(36, 0x33), Hex(VALID)}); }

/// Two sections of invariant sector, the pointer sectors, and a firmware of two sections.
inline std::string PlainImage() {
  return "DEVICE_TYPE RV52100\n"
         "PS 0 200 0\n"
         "PS 1 400 0\n"
         "IMAGE 0 600 0\n"
         "IMAGE 1 A00 0\n"
         "SIGNATURE 0 208 0\n"
         "SIGNATURE 1 408 0\n"
         "REPLACE CRC 200 0 300 0 304 0\n"
         "REPLACE CRC 400 0 500 0 504 0\n" +
         Section("INV", "0", NewInvariant()) + Section("INV2", "100", DataVec(8, 0x44)) +
         Section("PS0", "200",
                 Joined({Hex("00000600 00000208 12345678"), DataVec(248, 0x5A), DataVec(4)})) +
         Section("PS1", "400",
                 Joined({Hex("00000a00 00000208 12345678"), DataVec(248, 0x5A), DataVec(4)})) +
         Section("FW", "600", DataVec(0x200, 0x11)) + Section("TAIL", "800", DataVec(8, 0x22));
}

/// The same, with every field of the device and a CRC over all of them in the firmware.
inline std::string FieldsImage() {
  return "REPLACE GUIDS 600 0\n"
         "REPLACE GUID 620 0\n"
         "REPLACE SYSGUID 628 0\n"
         "REPLACE BSN 630 0\n"
         "REPLACE VSD 670 0\n"
         "REPLACE CRC 600 0 73C 0 740 0\n"
         "REPLACE GUIDS A00 0\n"
         "REPLACE GUID A20 0\n"
         "REPLACE SYSGUID A28 0\n"
         "REPLACE BSN A30 0\n"
         "REPLACE VSD A70 0\n"
         "REPLACE CRC A00 0 B3C 0 B40 0\n" +
         PlainImage();
}

inline std::string Without(std::string text, const std::string& part) {
  const std::size_t at = text.find(part);
  EXPECT_NE(at, std::string::npos) << part;
  return text.erase(at, part.size());
}

inline std::string WithoutSection(std::string text, const std::string& name) {
  const std::string last = "END " + name + "\n";
  const std::size_t start = text.find("START " + name + " ");
  const std::size_t end = text.find(last);
  EXPECT_NE(start, std::string::npos) << name;
  EXPECT_NE(end, std::string::npos) << name;
  return text.erase(start, end + last.size() - start);
}

// ---- Contents

/// What a flash holds. Only an erase sets bits.
struct Contents {
  DataVec bytes = DataVec(FLASH_SIZE, 0xEE);

  void Erase(u_int32_t sector) { std::fill_n(bytes.begin() + sector, SECTOR, u_int8_t{0xFF}); }
  void Program(u_int32_t addr, const DataVec& data) {
    for (const u_int8_t byte : data) bytes.at(addr++) &= byte;
  }
  void Load(u_int32_t addr, const DataVec& data) {
    std::copy(data.begin(), data.end(), bytes.begin() + addr);
  }
};

/// The record of a pointer sector from an earlier burn. Its CRC takes the signature for valid.
inline DataVec OldRecord(u_int32_t image_addr, u_int32_t image_size, const std::string& signature) {
  const DataVec start = Joined({Number(image_addr), Number(image_size)});
  const DataVec rest(248, 0xA5);
  return Joined(
      {start, Hex(signature), rest, Number(ReferenceCrc(Joined({start, Hex(VALID), rest})))});
}

/// A flash before the burn: images of 16 bytes, 0xC0s in the first slot and 0xC1s in the second,
/// which starts at `second_addr`.
inline Contents OldFlash(const std::string& first, const std::string& second,
                         u_int32_t second_addr = 0xA00) {
  Contents flash;
  flash.Load(0, NewInvariant());
  flash.Load(0x100, DataVec(8, 0x44));
  flash.Load(0x200, OldRecord(0x600, OLD_SIZE, first));
  flash.Load(0x400, OldRecord(second_addr, OLD_SIZE, second));
  flash.Load(0x600, DataVec(OLD_SIZE, 0xC0));
  flash.Load(second_addr, DataVec(OLD_SIZE, 0xC1));
  return flash;
}

/// One request of a burn, as one device sees it, and what it changes there.
struct Step {
  std::string command;
  u_int32_t addr = 0;
  DataVec data;
};
using Steps = std::vector<Step>;

inline Steps operator+(Steps all, const Steps& more) {
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

inline Contents After(Contents flash, const Steps& steps, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (steps[i].command == "Write") flash.Program(steps[i].addr, steps[i].data);
    if (steps[i].command == "EraseSector") flash.Erase(steps[i].addr);
  }
  return flash;
}
inline Contents After(const Contents& flash, const Steps& steps) {
  return After(flash, steps, steps.size());
}

/// The device's serial number and vendor data are as good as any that differ between devices.
inline u_int8_t BsnByte(Guid guid) { return static_cast<u_int8_t>((guid >> 8) + 0xB0); }
inline u_int8_t VsdByte(Guid guid) { return static_cast<u_int8_t>((guid >> 8) + 0x0D); }

/// The device's own bytes in the firmware: GUIDS, GUID, SYSGUID, BSN and VSD, side by side.
inline DataVec FieldBytes(Guid guid) {
  DataVec bytes;
  bytes << guid << guid + 1 << guid + 2 << guid + 0xF << guid << guid + 0xF;
  return bytes << DataVec(64, BsnByte(guid)) << DataVec(208, VsdByte(guid));
}

inline Steps SlotSteps(int idx, std::optional<Guid> fields_of = {}) {
  const Slot slot = SLOTS[idx];
  Steps steps = {{"Write", slot.ps + 8, Hex(NOT_VALID)}, {"EraseSector", slot.image, {}}};
  if (fields_of) {
    const DataVec fields = FieldBytes(*fields_of);
    const auto field = [&](std::size_t from, std::size_t size) {
      const auto start = fields.begin() + static_cast<std::ptrdiff_t>(from);
      return DataVec(start, start + static_cast<std::ptrdiff_t>(size));
    };
    steps =
        steps + Steps{{"Write", slot.image, Joined({DataVec(0x144, 0xFF), DataVec(0xBC, 0x11)})},
                      {"Write", slot.image, field(0, 32)},
                      {"Write", slot.image + 0x20, field(0x20, 8)},
                      {"Write", slot.image + 0x28, field(0x28, 8)},
                      {"BSNGet", 0, {}},
                      {"Write", slot.image + 0x30, field(0x30, 64)},
                      {"GetVsd", 0, {}},
                      {"Write", slot.image + 0x70, field(0x70, 208)},
                      {"Write", slot.image + 0x140, Number(ReferenceCrc(fields))}};
  } else {
    steps.push_back({"Write", slot.image, DataVec(0x200, 0x11)});
  }
  return steps + Steps{{"EraseSector", slot.tail, {}},
                       {"Write", slot.tail, DataVec(8, 0x22)},
                       {"EraseSector", slot.ps, {}},
                       {"Write", slot.ps,
                        Joined({Number(slot.image), Number(NEW_SIZE), Hex(ERASED),
                                DataVec(248, 0x5A), Hex(ERASED)})},
                       {"Write", slot.ps + 260, Number(slot.ps_crc)},
                       {"Write", slot.ps + 8, Hex(VALID)},
                       {"Write", SLOTS[1 - idx].ps + 8, Hex(NOT_VALID)}};
}

/// The move of a second image that is in the way.
inline Steps MoveSteps() {
  return {{"Read", 0x400, {}},
          {"Read", 0x800, {}},
          {"Write", 0x208, Hex(NOT_VALID)},
          {"EraseSector", 0x600, {}},
          {"Write", 0x600, DataVec(OLD_SIZE, 0xC1)},
          {"EraseSector", 0x200, {}},
          {"Write", 0x200,
           Joined({Hex("00000600 00000010 ffffffff"), DataVec(248, 0xA5), Hex(ERASED)})},
          {"Write", 0x304, Hex("00005398")},
          {"Write", 0x208, Hex(VALID)},
          {"Write", 0x408, Hex(NOT_VALID)}};
}

// ---- Requests

/// A request to devices, such as "vsFlashReadMulti 1 0x0000000000001000 0x0 4 0x24 ", from its end.
inline std::string Request(const std::string& command, const GuidSet& guids,
                           const std::string& end) {
  std::string text = Text("vsFlash", command, "Multi ", guids.size(), " ");
  for (const Guid guid : guids) {
    text += Text("0x", std::hex, std::setw(16), std::setfill('0'), guid, " ");
  }
  return text + "0x0 " + end + " ";
}

/// `count` times the word, a blank before each.
inline std::string Words(int count, const std::string& word) {
  std::string text;
  for (int i = 0; i < count; ++i) text += " " + word;
  return text;
}

inline Strings operator+(Strings all, const Strings& more) {
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

inline std::string MarkerQuery(const GuidSet& guids) { return Request("Read", guids, "4 0x24"); }
inline Strings InvariantQueries(const GuidSet& guids) {
  return {Request("Read", guids, "40 0x0"), Request("Read", guids, "8 0x100")};
}
inline Strings SignatureQueries(const GuidSet& guids) {
  return {Request("Read", guids, "4 0x208"), Request("Read", guids, "4 0x408")};
}
inline Strings Queries(const GuidSet& guids) {
  return Strings{MarkerQuery(guids)} + InvariantQueries(guids) + SignatureQueries(guids);
}
inline std::string SecondAddressQuery(const GuidSet& guids) {
  return Request("Read", guids, "4 0x400");
}

/// The requests that burn the new image into a slot, and then invalidate the other one.
inline Strings SlotRequests(const GuidSet& guids, int idx) {
  const Slot slot = SLOTS[idx];
  const auto write = [](u_int32_t size, u_int32_t addr, const std::string& words) {
    return Text(size, " 0x", std::hex, addr, " ", words);
  };
  const auto erase = [&](u_int32_t addr) {
    return Request("EraseSector", guids, Text("0x", std::hex, addr));
  };
  Strings requests = {
      Request("Write", guids, write(4, slot.ps + 8, "0x0")),
      erase(slot.image),
      Request("Write", guids, write(512, slot.image, "0x11111111" + Words(127, "0x11111111"))),
      erase(slot.tail),
      Request("Write", guids, write(8, slot.tail, "0x22222222 0x22222222")),
      erase(slot.ps),
      Request("Write", guids,
              write(264, slot.ps,
                    Text("0x", std::hex, slot.image, " 0x208 0xffffffff") +
                        Words(62, "0x5a5a5a5a") + " 0xffffffff"))};
  for (const Guid guid : guids) {
    requests.push_back(
        Request("Write", {guid}, write(4, slot.ps + 260, Text("0x", std::hex, slot.ps_crc))));
  }
  return requests + Strings{Request("Write", guids, write(4, slot.ps + 8, "0xcb84cb84")),
                            Request("Write", guids, write(4, SLOTS[1 - idx].ps + 8, "0x0"))};
}
inline Strings FirstSlotRequests(const GuidSet& guids) { return SlotRequests(guids, 0); }
inline Strings SecondSlotRequests(const GuidSet& guids) { return SlotRequests(guids, 1); }

/// The move of an image of 16 bytes at 0x800.
inline Strings MoveRequests(Guid guid) {
  return {Request("Read", {guid}, "264 0x400"),
          Request("Read", {guid}, "16 0x800"),
          Request("Write", {guid}, "4 0x208 0x0"),
          Request("EraseSector", {guid}, "0x600"),
          Request("Write", {guid}, "16 0x600 0xc1c1c1c1 0xc1c1c1c1 0xc1c1c1c1 0xc1c1c1c1"),
          Request("EraseSector", {guid}, "0x200"),
          Request("Write", {guid},
                  "264 0x200 0x600 0x10 0xffffffff" + Words(62, "0xa5a5a5a5") + " 0xffffffff"),
          Request("Write", {guid}, "4 0x304 0x5398"),
          Request("Write", {guid}, "4 0x208 0xcb84cb84"),
          Request("Write", {guid}, "4 0x408 0x0")};
}

// ---- Console

inline std::string Querying(const GuidSet& guids, const std::string& addr, int size) {
  std::string text;
  for (const Guid guid : guids) {
    text += Text("-D- RomInterface:N: Querying device ", std::hex, guid, ", addr ", addr, " size ",
                 std::dec, size, "\n");
  }
  return text;
}

inline std::string QueriesShown(const GuidSet& guids) {
  return Querying(guids, "24", 4) + Querying(guids, "0", 40) + Querying(guids, "100", 8) +
         "-D- BurnAlgorithm:326: Reading signatures, fw size, fw addr for all devices.\n" +
         Querying(guids, "208", 4) + Querying(guids, "408", 4);
}

/// The lines of counts, from the figures in their order.
inline std::string Counts(const std::string& total, const std::string& both,
                          const std::string& none, const std::string& first,
                          const std::string& second) {
  return "-I- Total devices:      " + total + "\n-I- Both images valid:  " + both +
         "\n-I- No image valid:     " + none + "\n-I- First  image valid: " + first +
         "\n-I- Second image valid: " + second + "\n\n";
}

inline std::string Burning(const std::string& count) {
  return "-I- Burning new FW to " + count + " device(s).\n";
}

inline std::string Failed(Guid guid, const std::string& text) {
  return Text("\r-E- BURN FAILED:0x", std::hex, std::setw(16), std::setfill('0'), guid, ":", text,
              "\n");
}

// The meters of a slot's burn; 512 of 520 bytes are 98 per cent.
constexpr char FIRST_SLOT_METERS[] =
    "\r\\ Invalidating first  image signature                - % 0"
    "\r- Invalidating first  image signature                -  OK \n"
    "\r\\ Burning      first  image                          - % 0"
    "\r| Burning      first  image                          - %98"
    "\r- Burning      first  image                          -  OK \n"
    "\r\\ Burning      first  pointer sector                 - % 0"
    "\r- Burning      first  pointer sector                 -  OK \n"
    "\r\\ Validating   first  image                          - % 0"
    "\r- Validating   first  image                          -  OK \n"
    "\r\\ Invalidating second image                          - % 0"
    "\r- Invalidating second image                          -  OK \n";
constexpr char SECOND_SLOT_METERS[] =
    "\r\\ Invalidating second image signature                - % 0"
    "\r- Invalidating second image signature                -  OK \n"
    "\r\\ Burning      second image                          - % 0"
    "\r| Burning      second image                          - %98"
    "\r- Burning      second image                          -  OK \n"
    "\r\\ Burning      second pointer sector                 - % 0"
    "\r- Burning      second pointer sector                 -  OK \n"
    "\r\\ Validating   second image                          - % 0"
    "\r- Validating   second image                          -  OK \n"
    "\r\\ Invalidating first  image                          - % 0"
    "\r- Invalidating first  image                          -  OK \n";
/// The move writes its 16 bytes at once.
constexpr char MOVE_METERS[] =
    "\r\\ Invalidating first  image signature                - % 0"
    "\r- Invalidating first  image signature                -  OK \n"
    "\r\\ Burning      first  image                          - % 0"
    "\r- Burning      first  image                          -  OK \n"
    "\r\\ Burning      first  pointer sector                 - % 0"
    "\r- Burning      first  pointer sector                 -  OK \n"
    "\r\\ Validating   first  image                          - % 0"
    "\r- Validating   first  image                          -  OK \n"
    "\r\\ Invalidating second image                          - % 0"
    "\r- Invalidating second image                          -  OK \n";

/// A failure line leaves its fill behind, and the meters after it show that.
inline std::string AfterFailure(const std::string& meters) {
  return std::regex_replace(meters, std::regex("% 0"), "%00");
}

// ---- Fixture

class Rv52100Test : public FabricTest {
 protected:
  Rv52100Test() {
    Serve();
    Load(PlainImage());
  }

  /// A new fabric without devices. Chunks as large as the flash: one write for each region.
  void Serve(u_int32_t log2_chunk_align = 13) {
    _fabric = sim::Fabric();
    _fabric.facts.type = "PPC";
    _rom = std::make_unique<RecordedFlash>(_fabric, log2_chunk_align);
  }

  void Load(const std::string& text) {
    _image = std::make_unique<FwImage>();
    _image->Open(_folder.Write("fw.img", text).c_str(), READ);
  }

  void AddDevice(Guid guid, const Contents& contents) {
    sim::Device device = FlashDevice(guid, FLASH_SIZE, SECTOR);
    device.bsn = DataVec(64, BsnByte(guid));
    device.vsd = DataVec(208, VsdByte(guid));
    _fabric.Add(std::move(device)).chips.at(0).Load(0, contents.bytes);
  }

  /// A flash is opened for one device; the others are as good once it knows the sector size.
  void OpenFor(const GuidSet& guids) {
    OpenQuietly(*_rom, {*guids.begin()});
    _rom->SetAccessDevices(guids);
  }
  void OpenAll() {
    GuidSet guids;
    for (const auto& [guid, device] : _fabric.Devices()) guids.insert(guid);
    OpenFor(guids);
  }

  /// The device alone, opened.
  void OpenOne(const Contents& contents, Guid guid = LEAF1) {
    AddDevice(guid, contents);
    OpenFor({guid});
  }

  /// What the action prints, with the numbers of the interface's debug lines, which are free to
  /// move, shown as N. `error` is what ends it.
  static std::string Shown(const std::function<void()>& action, std::string& error) {
    static const std::regex FREE_LINE("-D- RomInterface:[0-9]+: ");
    return std::regex_replace(OutputOf([&] { error = ErrorOf(action); }), FREE_LINE,
                              "-D- RomInterface:N: ");
  }

  /// What the burn prints; it must return BRAID_OK.
  std::string Go(bool allow_non_fs_burn = false, bool allow_keeping_old_is = false) {
    std::string error;
    const std::string console = Shown(
        [&] {
          EXPECT_EQ(Burn(*_rom, allow_non_fs_burn, allow_keeping_old_is).Go(*_image), BRAID_OK);
        },
        error);
    EXPECT_EQ(error, "(no error)");
    return console;
  }

  /// The error that ends the burn; what it prints goes to `console`.
  std::string GoError(std::string& console, bool allow_non_fs_burn = false,
                      bool allow_keeping_old_is = false) {
    std::string error;
    console =
        Shown([&] { Burn(*_rom, allow_non_fs_burn, allow_keeping_old_is).Go(*_image); }, error);
    return error;
  }
  std::string GoError() {
    std::string ignored;
    return GoError(ignored);
  }

  /// Has the device refuse the `nth` such request.
  void Refuse(Guid guid, const std::string& command, u_int32_t nth) {
    sim::Fault fault;
    fault.kind = sim::Fault::DEVICE_ERROR;
    fault.command = command;
    fault.device = guid;
    fault.nth = nth;
    fault.text = "stuck";
    _fabric.faults.Add(fault);
  }

  /// Has the `nth` read of the device answered with `text`.
  void AnswerRead(Guid guid, u_int32_t nth, const std::string& text) {
    sim::Fault fault;
    fault.kind = sim::Fault::ANSWER;
    fault.command = "Read";
    fault.device = guid;
    fault.nth = nth;
    fault.text = text;
    _fabric.faults.Add(fault);
  }

  /// Whether the device holds exactly that, and was never asked to set a bit without an erase.
  testing::AssertionResult Holds(Guid guid, const Contents& expected) const {
    const sim::Chip& chip = _fabric.Find(guid)->chips.at(0);
    if (!chip.Violations().empty()) {
      return testing::AssertionFailure()
             << Text("bits set at ", std::hex, chip.Violations().front().offset);
    }
    for (u_int32_t i = 0; i < FLASH_SIZE; ++i) {
      if (chip.Bytes()[i] != expected.bytes[i]) {
        return testing::AssertionFailure()
               << Text("device ", std::hex, guid, " holds ", u_int32_t{chip.Bytes()[i]},
                       " instead of ", u_int32_t{expected.bytes[i]}, " at ", i);
      }
    }
    return testing::AssertionSuccess();
  }

  /// Of the requests so far, those that write or erase.
  Strings Changes() {
    Strings changes = _rom->Requests();
    std::erase_if(changes, [](const std::string& request) {
      return request.find("Write") == std::string::npos &&
             request.find("Erase") == std::string::npos;
    });
    return changes;
  }

  /// A meter that was not given back would show this write.
  void ExpectNoMeter() {
    _rom->SetActiveDevices();
    EXPECT_EQ(OutputOf([&] { _rom->Write(0xE00, DataVec(4, 0), true); }), "");
  }

  common::ScratchFolder _folder;
  std::unique_ptr<RecordedFlash> _rom;
  std::unique_ptr<FwImage> _image;
};

}  // namespace rv52100
