// Failsafe burns of one RV52100 device: which slot gets the new image, what is asked and written in
// which order, what the console shows of it and what the device holds afterwards.
#include "tests/support/rv52100_support.h"

using namespace rv52100;

namespace {

// ---- Whole burns from each starting state

TEST_F(Rv52100Test, DeviceWithOnlyTheFirstImageValidGetsTheNewOneInTheSecondSlot) {
  OpenOne(OldFlash(VALID, NOT_VALID));
  EXPECT_EQ(
      Go(),
      std::string("-D- RomInterface:N: Querying device 1000, addr 24 size 4\n"
                  "-D- RomInterface:N: Querying device 1000, addr 0 size 40\n"
                  "-D- RomInterface:N: Querying device 1000, addr 100 size 8\n"
                  "-D- BurnAlgorithm:326: Reading signatures, fw size, fw addr for all devices.\n"
                  "-D- RomInterface:N: Querying device 1000, addr 208 size 4\n"
                  "-D- RomInterface:N: Querying device 1000, addr 408 size 4\n"
                  "-I- Total devices:      1\n"
                  "-I- Both images valid:  0\n"
                  "-I- No image valid:     0\n"
                  "-I- First  image valid: 1\n"
                  "-I- Second image valid: 0\n"
                  "\n"
                  "-I- Burning new FW to 1 device(s).\n"
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
                  "\r- Invalidating first  image                          -  OK \n"));
  EXPECT_EQ(_rom->Requests(),
            (Strings{"vsFlashReadMulti 1 0x0000000000001000 0x0 4 0x24 ",
                     "vsFlashReadMulti 1 0x0000000000001000 0x0 40 0x0 ",
                     "vsFlashReadMulti 1 0x0000000000001000 0x0 8 0x100 ",
                     "vsFlashReadMulti 1 0x0000000000001000 0x0 4 0x208 ",
                     "vsFlashReadMulti 1 0x0000000000001000 0x0 4 0x408 ",
                     "vsFlashWriteMulti 1 0x0000000000001000 0x0 4 0x408 0x0 ",
                     "vsFlashEraseSectorMulti 1 0x0000000000001000 0x0 0xa00 ",
                     "vsFlashWriteMulti 1 0x0000000000001000 0x0 512 0xa00" +
                         Words(128, "0x11111111") + " ",
                     "vsFlashEraseSectorMulti 1 0x0000000000001000 0x0 0xc00 ",
                     "vsFlashWriteMulti 1 0x0000000000001000 0x0 8 0xc00 0x22222222 0x22222222 ",
                     "vsFlashEraseSectorMulti 1 0x0000000000001000 0x0 0x400 ",
                     "vsFlashWriteMulti 1 0x0000000000001000 0x0 264 0x400 0xa00 0x208 0xffffffff" +
                         Words(62, "0x5a5a5a5a") + " 0xffffffff ",
                     "vsFlashWriteMulti 1 0x0000000000001000 0x0 4 0x504 0x1995 ",
                     "vsFlashWriteMulti 1 0x0000000000001000 0x0 4 0x408 0xcb84cb84 ",
                     "vsFlashWriteMulti 1 0x0000000000001000 0x0 4 0x208 0x0 "}));
  Contents expected = OldFlash(NOT_VALID, NOT_VALID);
  expected.Load(0x400, DataVec(0x200, 0xFF));
  expected.Load(0x400, Hex("00000a00 00000208 cb84cb84"));
  expected.Load(0x40C, DataVec(248, 0x5A));
  expected.Load(0x504, Hex("00001995"));
  expected.Load(0xA00, DataVec(0x200, 0x11));
  expected.Load(0xC00, DataVec(0x200, 0xFF));
  expected.Load(0xC00, DataVec(8, 0x22));
  EXPECT_TRUE(Holds(LEAF1, expected));
}

TEST_F(Rv52100Test, DeviceWithBothImagesValidGetsTheNewOneInTheSecondSlotAndLosesTheFirst) {
  OpenOne(OldFlash(VALID, VALID));
  EXPECT_EQ(Go(), QueriesShown({LEAF1}) + Counts("1", "1", "0", "0", "0") + Burning("1") +
                      SECOND_SLOT_METERS);
  EXPECT_EQ(_rom->Requests(), Queries({LEAF1}) + Strings{Request("Write", {LEAF1}, "4 0x408 0x0")} +
                                  SecondSlotRequests({LEAF1}));
  EXPECT_TRUE(Holds(LEAF1, After(OldFlash(VALID, VALID), SlotSteps(1))));
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x208, 4), Hex(NOT_VALID));
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x408, 4), Hex(VALID));
}

TEST_F(Rv52100Test, DeviceWithOnlyTheSecondImageValidGetsTheNewOneInTheFirstSlot) {
  OpenOne(OldFlash(NOT_VALID, VALID));
  EXPECT_EQ(Go(), QueriesShown({LEAF1}) + Counts("1", "0", "0", "0", "1") +
                      "-D- RomInterface:N: Querying device 1000, addr 400 size 4\n"
                      "-D- BurnAlgorithm:228: LessThan() : dw1 = a00 , dw2 = 808\n" +
                      Burning("1") + FIRST_SLOT_METERS);
  EXPECT_EQ(_rom->Requests(),
            Queries({LEAF1}) + Strings{SecondAddressQuery({LEAF1})} + FirstSlotRequests({LEAF1}));
  Contents expected = OldFlash(NOT_VALID, NOT_VALID);
  expected.Load(0x200, DataVec(0x200, 0xFF));
  expected.Load(0x200, Hex("00000600 00000208 cb84cb84"));
  expected.Load(0x20C, DataVec(248, 0x5A));
  expected.Load(0x304, Hex("0000d171"));
  expected.Load(0x600, DataVec(0x200, 0x11));
  expected.Load(0x800, DataVec(0x200, 0xFF));
  expected.Load(0x800, DataVec(8, 0x22));
  EXPECT_TRUE(Holds(LEAF1, expected));
}

TEST_F(Rv52100Test, SecondImageInTheWayIsCopiedToTheFirstSlotBeforeTheNewOneGoesIntoTheSecond) {
  OpenOne(OldFlash(NOT_VALID, VALID, IN_THE_WAY));
  EXPECT_EQ(Go(), QueriesShown({LEAF1}) + Counts("1", "0", "0", "0", "1") +
                      "-D- RomInterface:N: Querying device 1000, addr 400 size 4\n"
                      "-D- BurnAlgorithm:228: LessThan() : dw1 = 800 , dw2 = 808\n"
                      "-I- Device: 1000: New image too big to fit as first image. Moving image "
                      "position on the device\n"
                      "-D- BurnAlgorithm:522: Repairing device 1000\n"
                      "-D- BurnAlgorithm:544: Read PS from addr:400 - Addr: 800, Size: 10, Sig: "
                      "cb84cb84\n"
                      "-D- BurnAlgorithm:546: Reading image from addr: 800, Size: 10\n"
                      "-I- Copying device image from address 800 to 600.\n" +
                      MOVE_METERS + Burning("1") + SECOND_SLOT_METERS);
  EXPECT_EQ(_rom->Requests(), Queries({LEAF1}) + Strings{SecondAddressQuery({LEAF1})} +
                                  MoveRequests(LEAF1) + SecondSlotRequests({LEAF1}));
  // The copy stays behind whole, with a right CRC, but for its signature.
  Contents expected = OldFlash(NOT_VALID, NOT_VALID, IN_THE_WAY);
  expected.Load(0x200, DataVec(0x200, 0xFF));
  expected.Load(0x200, Hex("00000600 00000010 00000000"));
  expected.Load(0x20C, DataVec(248, 0xA5));
  expected.Load(0x304, Hex("00005398"));
  expected.Load(0x400, DataVec(0x200, 0xFF));
  expected.Load(0x400, Hex("00000a00 00000208 cb84cb84"));
  expected.Load(0x40C, DataVec(248, 0x5A));
  expected.Load(0x504, Hex("00001995"));
  expected.Load(0x600, DataVec(0x200, 0xFF));
  expected.Load(0x600, DataVec(OLD_SIZE, 0xC1));
  expected.Load(0xA00, DataVec(0x200, 0x11));
  expected.Load(0xC00, DataVec(0x200, 0xFF));
  expected.Load(0xC00, DataVec(8, 0x22));
  EXPECT_TRUE(Holds(LEAF1, expected));
}

TEST_F(Rv52100Test, DeviceWithoutAnyValidImageFailsUntouched) {
  for (const char* signature : {NOT_VALID, ERASED, "cb84cb85", "84cb84cb"}) {
    Serve();
    OpenOne(OldFlash(signature, signature));
    std::string console;
    EXPECT_EQ(GoError(console), "No more accessible devices");
    EXPECT_EQ(console, QueriesShown({LEAF1}) + Counts("1", "0", "1", "0", "0") +
                           Failed(LEAF1, "Both images are invalid. Can't perform failsafe burn"));
    EXPECT_EQ(_rom->Requests(), Queries({LEAF1}));
    EXPECT_TRUE(Holds(LEAF1, OldFlash(signature, signature)));
  }
}

TEST_F(Rv52100Test, DeviceWithoutTheFailsafeMarkerFailsUntouched) {
  for (const char* marker : {NOT_VALID, ERASED, "cb84cb04"}) {
    Serve();
    Contents flash = OldFlash(VALID, VALID);
    flash.Load(0x24, Hex(marker));
    OpenOne(flash);
    std::string console;
    // Even where the invariant sector might be rewritten.
    EXPECT_EQ(GoError(console, true, true), "No more accessible devices");
    EXPECT_EQ(console,
              "-D- RomInterface:N: Querying device 1000, addr 24 size 4\n" +
                  Failed(LEAF1, "Image on device is not failsafe. Can't perform failsafe burn"));
    EXPECT_EQ(_rom->Requests(), Strings{MarkerQuery({LEAF1})});
    EXPECT_TRUE(Holds(LEAF1, flash));
  }
}

TEST_F(Rv52100Test, BurnReturnsOkAndItsNameIsItsClass) {
  OpenOne(OldFlash(VALID, NOT_VALID));
  Burn burn(*_rom, true, false);
  EXPECT_EQ(burn.GetName(), "RV52100FailsafeBurn");
  OutputOf([&] { EXPECT_EQ(burn.Go(*_image), BRAID_OK); });
}

TEST_F(Rv52100Test, BurntDeviceIsBurntAgainIntoTheOtherSlot) {
  OpenOne(OldFlash(VALID, NOT_VALID));
  Go();
  _rom->Requests();
  _rom->SetActiveDevices();
  EXPECT_EQ(Go(), QueriesShown({LEAF1}) + Counts("1", "0", "0", "0", "1") +
                      Querying({LEAF1}, "400", 4) +
                      "-D- BurnAlgorithm:228: LessThan() : dw1 = a00 , dw2 = 808\n" + Burning("1") +
                      FIRST_SLOT_METERS);
  EXPECT_TRUE(Holds(LEAF1, After(OldFlash(VALID, NOT_VALID), SlotSteps(1) + SlotSteps(0))));
}

// ---- The invariant sector

class Rv52100InvariantTest : public Rv52100Test {
 protected:
  /// A flash whose invariant sector differs from the image's; its marker is right.
  static Contents Changed() {
    Contents flash = OldFlash(VALID, NOT_VALID);
    flash.Load(0, DataVec(36, 0x99));
    return flash;
  }

  static Strings Rewrite(const GuidSet& guids) {
    return {Request("EraseSector", guids, "0x0"),
            Request("Write", guids, "40 0x0" + Words(9, "0x33333333") + " 0xcb84cb84"),
            Request("Write", guids, "8 0x100 0x44444444 0x44444444")};
  }
};

TEST_F(Rv52100InvariantTest, DeviceThatDiffersFailsUntouchedWhereNothingAllowsIt) {
  OpenOne(Changed());
  std::string console;
  EXPECT_EQ(GoError(console, false, false), "No more accessible devices");
  EXPECT_EQ(console,
            Querying({LEAF1}, "24", 4) + Querying({LEAF1}, "0", 40) + Querying({LEAF1}, "100", 8) +
                Failed(LEAF1,
                       "Invariant sector on device differs from invariant sector in the given "
                       "image. Can't perform failsafe burn"));
  EXPECT_EQ(_rom->Requests(), Strings{MarkerQuery({LEAF1})} + InvariantQueries({LEAF1}));
  EXPECT_TRUE(Holds(LEAF1, Changed()));
}

TEST_F(Rv52100InvariantTest, DeviceThatDiffersKeepsItsOwnAndIsBurntWhereThatAloneIsAllowed) {
  OpenOne(Changed());
  EXPECT_EQ(Go(false, true), QueriesShown({LEAF1}) + Counts("1", "0", "0", "1", "0") +
                                 Burning("1") + SECOND_SLOT_METERS);
  EXPECT_EQ(_rom->Requests(), Queries({LEAF1}) + SecondSlotRequests({LEAF1}));
  EXPECT_TRUE(Holds(LEAF1, After(Changed(), SlotSteps(1))));
}

TEST_F(Rv52100InvariantTest, DeviceThatDiffersIsRewrittenFirstWhereThatIsAllowed) {
  for (const bool allow_keeping_old_is : {false, true}) {
    SCOPED_TRACE(allow_keeping_old_is);
    Serve();
    Load(PlainImage());
    OpenOne(Changed());
    EXPECT_EQ(Go(true, allow_keeping_old_is),
              Querying({LEAF1}, "24", 4) + Querying({LEAF1}, "0", 40) +
                  Querying({LEAF1}, "100", 8) +
                  "-I- Changes in invariant sector detected for 1 devices.\n"
                  "-I- Updating invariant sector (non failsafe) ...  Done.\n"
                  "-D- BurnAlgorithm:326: Reading signatures, fw size, fw addr for all devices.\n" +
                  Querying({LEAF1}, "208", 4) + Querying({LEAF1}, "408", 4) +
                  Counts("1", "0", "0", "1", "0") + Burning("1") + SECOND_SLOT_METERS);
    EXPECT_EQ(_rom->Requests(), Strings{MarkerQuery({LEAF1})} + InvariantQueries({LEAF1}) +
                                    Rewrite({LEAF1}) + SignatureQueries({LEAF1}) +
                                    SecondSlotRequests({LEAF1}));
    Contents expected = After(OldFlash(VALID, NOT_VALID), SlotSteps(1));
    expected.Load(0, DataVec(SECTOR, 0xFF));
    expected.Load(0, NewInvariant());
    expected.Load(0x100, DataVec(8, 0x44));
    EXPECT_TRUE(Holds(LEAF1, expected));
  }
}

TEST_F(Rv52100InvariantTest, AnyOfItsSectionsMayDiffer) {
  Contents flash = OldFlash(VALID, NOT_VALID);
  flash.Load(0x107, DataVec(1, 0x45));
  OpenOne(flash);
  Go(true);
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x100, 8), DataVec(8, 0x44));
}

TEST_F(Rv52100InvariantTest, SectorThatIsTheSameIsNotRewritten) {
  OpenOne(OldFlash(VALID, NOT_VALID));
  EXPECT_EQ(Go(true, true), QueriesShown({LEAF1}) + Counts("1", "0", "0", "1", "0") + Burning("1") +
                                SECOND_SLOT_METERS);
  EXPECT_EQ(_rom->Requests(), Queries({LEAF1}) + SecondSlotRequests({LEAF1}));
}

TEST_F(Rv52100InvariantTest, BytesOfTheSectorThatTheImageDoesNotNameMayDiffer) {
  Contents flash = OldFlash(VALID, NOT_VALID);
  flash.Load(0x28, DataVec(0x100 - 0x28, 0x99));
  flash.Load(0x108, DataVec(0x200 - 0x108, 0x99));
  OpenOne(flash);
  Go();
  EXPECT_TRUE(Holds(LEAF1, After(flash, SlotSteps(1))));
}

TEST_F(Rv52100InvariantTest, SectionThatComesAfterAHigherOneIsNotLookedAt) {
  std::string text = PlainImage();
  text.insert(text.find("START PS1"), Section("LATE", "180", DataVec(8, 0x77)));
  Load(text);
  OpenOne(OldFlash(VALID, NOT_VALID));  // 0xEEs at 0x180
  Go();
  EXPECT_EQ(_rom->Requests(), Queries({LEAF1}) + SecondSlotRequests({LEAF1}));

  Serve();
  Load(text);
  OpenOne(Changed());
  Go(true);
  EXPECT_EQ(_rom->Requests(), Strings{MarkerQuery({LEAF1})} + InvariantQueries({LEAF1}) +
                                  Rewrite({LEAF1}) + SignatureQueries({LEAF1}) +
                                  SecondSlotRequests({LEAF1}));
}

TEST_F(Rv52100InvariantTest, SectionAtItsLastBytesBelongsToItAndOneAtTheSectorSizeDoesNot) {
  std::string text = WithoutSection(PlainImage(), "INV2");
  text.insert(text.find("START PS0"), Section("EDGE", "1FC", DataVec(4, 0x77)));
  Load(text);
  OpenOne(OldFlash(VALID, NOT_VALID));
  Go(false, true);
  EXPECT_EQ(_rom->Requests(), (Strings{MarkerQuery({LEAF1}), Request("Read", {LEAF1}, "40 0x0"),
                                       Request("Read", {LEAF1}, "4 0x1fc")} +
                               SignatureQueries({LEAF1}) + SecondSlotRequests({LEAF1})));
}

TEST_F(Rv52100InvariantTest, ImageWithoutAnyIsBurntWithoutAskingForIt) {
  Load(WithoutSection(WithoutSection(PlainImage(), "INV"), "INV2"));
  OpenOne(Changed());
  Go();
  EXPECT_EQ(_rom->Requests(), Strings{MarkerQuery({LEAF1})} + SignatureQueries({LEAF1}) +
                                  SecondSlotRequests({LEAF1}));
}

TEST_F(Rv52100InvariantTest, RewrittenSectorGetsTheDevicesFieldsAndTheirCrc) {
  // A device's own GUID never stands in the image, so its sector always differs.
  std::string text = WithoutSection(PlainImage(), "INV2");
  text.insert(text.find("START PS0"), Section("INV2", "100", DataVec(16, 0x44)));
  Load("REPLACE GUID 100 0\nREPLACE CRC 100 0 104 0 10C 0\n" + text);
  OpenOne(OldFlash(VALID, NOT_VALID));
  Go(true);
  EXPECT_EQ(
      _rom->Requests(),
      (Strings{MarkerQuery({LEAF1}), Request("Read", {LEAF1}, "40 0x0"),
               Request("Read", {LEAF1}, "16 0x100"), Request("EraseSector", {LEAF1}, "0x0"),
               Request("Write", {LEAF1}, "40 0x0" + Words(9, "0x33333333") + " 0xcb84cb84"),
               Request("Write", {LEAF1}, "16 0x100 0xffffffff 0xffffffff 0x44444444 0xffffffff"),
               Request("Write", {LEAF1}, "8 0x100 0x0 0x1000"),
               Request("Write", {LEAF1},
                       Text("4 0x10c 0x", std::hex, ReferenceCrc(Hex("0000000000001000"))))} +
       SignatureQueries({LEAF1}) + SecondSlotRequests({LEAF1})));
}

// ---- What the slots hold

class Rv52100FieldsTest : public Rv52100Test {
 protected:
  Rv52100FieldsTest() { Load(FieldsImage()); }

  /// The fields of LEAF1 byte for byte, the CRC over them, and the image's own bytes.
  static DataVec FirmwareOfLeaf1() {
    return Joined({Hex("0000000000001000 0000000000001001 0000000000001002 000000000000100f"),
                   Hex("0000000000001000"), Hex("000000000000100f"), DataVec(64, 0xC0),
                   DataVec(208, 0x1D), Hex("00003254"), DataVec(0xBC, 0x11)});
  }
};

TEST_F(Rv52100FieldsTest, SecondSlotGetsTheDevicesFieldsAndTheCrcOverThem) {
  OpenOne(OldFlash(VALID, NOT_VALID));
  // The fields fill the meter: 512 and 32 bytes are more than the image's 520.
  EXPECT_EQ(Go(), QueriesShown({LEAF1}) + Counts("1", "0", "0", "1", "0") + Burning("1") +
                      SECOND_SLOT_METERS);
  // As any burn of the slot, but for what becomes of the firmware's first section.
  const Strings burn = SecondSlotRequests({LEAF1});
  const Strings before(burn.begin(), burn.begin() + 2);
  const Strings after(burn.begin() + 3, burn.end());
  const Strings firmware = {
      "vsFlashWriteMulti 1 0x0000000000001000 0x0 512 0xa00" + Words(81, "0xffffffff") +
          Words(47, "0x11111111") + " ",
      "vsFlashWriteMulti 1 0x0000000000001000 0x0 32 0xa00 0x0 0x1000 0x0 0x1001 0x0 0x1002 0x0 "
      "0x100f ",
      "vsFlashWriteMulti 1 0x0000000000001000 0x0 8 0xa20 0x0 0x1000 ",
      "vsFlashWriteMulti 1 0x0000000000001000 0x0 8 0xa28 0x0 0x100f ",
      "crBSNGet 0x0000000000001000 ",
      "vsFlashWriteMulti 1 0x0000000000001000 0x0 64 0xa30" + Words(16, "0xc0c0c0c0") + " ",
      "vsGetVsdMulti 1 0x0000000000001000 ",
      "vsFlashWriteMulti 1 0x0000000000001000 0x0 208 0xa70" + Words(52, "0x1d1d1d1d") + " ",
      "vsFlashWriteMulti 1 0x0000000000001000 0x0 4 0xb40 0x3254 "};
  EXPECT_EQ(_rom->Requests(), Queries({LEAF1}) + before + firmware + after);
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0xA00, 0x200), FirmwareOfLeaf1());
  EXPECT_TRUE(Holds(LEAF1, After(OldFlash(VALID, NOT_VALID), SlotSteps(1, LEAF1))));
}

TEST_F(Rv52100FieldsTest, FirstSlotGetsThoseThatTheImageHasThere) {
  OpenOne(OldFlash(NOT_VALID, VALID));
  Go();
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x600, 0x200), FirmwareOfLeaf1());
  EXPECT_TRUE(Holds(LEAF1, After(OldFlash(NOT_VALID, VALID), SlotSteps(0, LEAF1))));
}

TEST_F(Rv52100FieldsTest, FieldsOfTheOtherSlotAreNotTaken) {
  Load("REPLACE GUID 600 0\n" + PlainImage());
  OpenOne(OldFlash(VALID, NOT_VALID));
  Go();
  EXPECT_EQ(_rom->Requests(), Queries({LEAF1}) + SecondSlotRequests({LEAF1}));
}

TEST_F(Rv52100Test, PointerSectorCrcCoversTheSignatureThatIsWrittenLast) {
  OpenOne(OldFlash(VALID, NOT_VALID));
  Go();
  const DataVec record = MemoryOf(_fabric, LEAF1, 0, 0x400, 264);
  const DataVec covered(record.begin(), record.begin() + 260);
  EXPECT_EQ(DataVec(record.begin() + 8, record.begin() + 12), Hex(VALID));
  EXPECT_EQ(DataVec(record.begin() + 260, record.end()), Number(ReferenceCrc(covered)));
}

TEST_F(Rv52100Test, PlaceOfOneCrcIsBlankToAnotherThatCoversIt) {
  // A CRC over the size alone, beside the one that covers the signature.
  Load("REPLACE CRC 404 0 404 0 40C 0\n" + PlainImage());
  OpenOne(OldFlash(VALID, NOT_VALID));
  Go();
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x40C, 4), Number(ReferenceCrc(Hex("00000208"))));
  // The place of the first is blank while the second is computed.
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x504, 4),
            Number(ReferenceCrc(
                Joined({Hex("00000a00 00000208 cb84cb84 ffffffff"), DataVec(244, 0x5A)}))));
}

TEST_F(Rv52100Test, SectionsLandAsFarBehindTheirSlotAsTheyStandBehindTheFirst) {
  Load(PlainImage() + Section("FAR", "E00", DataVec(4, 0x66)));
  OpenOne(OldFlash(NOT_VALID, VALID));
  Go();
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0xE00, 4), DataVec(4, 0x66));

  // A flash of two sectors more takes it in the second slot as well: E00 and 400.
  Serve();
  Load(PlainImage() + Section("FAR", "E00", DataVec(4, 0x66)));
  _fabric.Add(FlashDevice(LEAF1, 0x2000, SECTOR))
      .chips.at(0)
      .Load(0, OldFlash(VALID, NOT_VALID).bytes);
  OpenFor({LEAF1});
  Go();
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x1200, 4), DataVec(4, 0x66));
}

TEST_F(Rv52100Test, SectorsAreErasedOnceHoweverSmallTheChunks) {
  Serve(7);
  OpenOne(OldFlash(VALID, NOT_VALID));
  Go();
  EXPECT_TRUE(Holds(LEAF1, After(OldFlash(VALID, NOT_VALID), SlotSteps(1))));
  EXPECT_EQ(_fabric.Find(LEAF1)->chips.at(0).EraseCounts(),
            (std::vector<u_int32_t>{0, 0, 1, 0, 0, 1, 1, 0}));
  const Strings requests = _rom->Requests();
  EXPECT_EQ(
      Strings(requests.begin() + 5, requests.begin() + 11),
      (Strings{Request("Write", {LEAF1}, "4 0x408 0x0"), Request("EraseSector", {LEAF1}, "0xa00"),
               Request("Write", {LEAF1}, "128 0xa00" + Words(32, "0x11111111")),
               Request("Write", {LEAF1}, "128 0xa80" + Words(32, "0x11111111")),
               Request("Write", {LEAF1}, "128 0xb00" + Words(32, "0x11111111")),
               Request("Write", {LEAF1}, "128 0xb80" + Words(32, "0x11111111"))}));
}

// ---- Which second image is in the way

TEST_F(Rv52100Test, SecondImageIsInTheWayUpToTheEndOfTheNewFirstOne) {
  const std::pair<u_int32_t, bool> cases[] = {{0x807, true}, {0x808, false}, {0x809, false}};
  for (const auto& [addr, is_in_the_way] : cases) {
    Serve();
    Load(PlainImage());
    OpenOne(OldFlash(NOT_VALID, VALID, addr));
    const std::string console = Go();
    const bool moved = console.find("New image too big") != std::string::npos;
    EXPECT_EQ(moved, is_in_the_way) << addr;
    const u_int32_t new_slot = is_in_the_way ? 1 : 0;
    EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, SLOTS[new_slot].ps + 8, 4), Hex(VALID)) << addr;
    EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, SLOTS[1 - new_slot].ps + 8, 4), Hex(NOT_VALID)) << addr;
    EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, SLOTS[new_slot].image, 0x200), DataVec(0x200, 0x11));
  }
}

TEST_F(Rv52100Test, FirstImagesAreNeverMoved) {
  for (const char* second : {NOT_VALID, VALID}) {
    Serve();
    Load(PlainImage());
    OpenOne(OldFlash(VALID, second, IN_THE_WAY));
    Go();
    EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x600, OLD_SIZE), DataVec(OLD_SIZE, 0xC0));
    EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0xA00, 0x200), DataVec(0x200, 0x11));
  }
}

TEST_F(Rv52100Test, ImageThatOverlapsItsCopyIsMovedAllTheSame) {
  OpenOne(OldFlash(NOT_VALID, VALID, 0x608));
  Go();
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x600, OLD_SIZE), DataVec(OLD_SIZE, 0xC1));
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x200, 12), Hex("00000600 00000010 00000000"));
}

// ---- A move alone

class Rv52100MoveTest : public Rv52100Test {
 protected:
  BraidResult Move(Guid guid, std::string& console) {
    BraidResult result = BRAID_NOT_IMPLEMENTED;
    console =
        Shown([&] { result = Burn(*_rom, false, false).MoveImage(guid, 1, 0x400, 0x200, 0x600); },
              _error);
    return result;
  }
  std::string _error;
};

TEST_F(Rv52100MoveTest, CopyIsValidAndTheOriginalIsNot) {
  OpenOne(OldFlash(NOT_VALID, VALID, IN_THE_WAY));
  std::string console;
  EXPECT_EQ(Move(LEAF1, console), BRAID_OK);
  EXPECT_EQ(_rom->Requests(), MoveRequests(LEAF1));
  Contents expected = OldFlash(NOT_VALID, NOT_VALID, IN_THE_WAY);
  expected.Load(0x200, DataVec(0x200, 0xFF));
  expected.Load(0x200, Hex("00000600 00000010 cb84cb84"));
  expected.Load(0x20C, DataVec(248, 0xA5));
  expected.Load(0x304, Hex("00005398"));
  expected.Load(0x600, DataVec(0x200, 0xFF));
  expected.Load(0x600, DataVec(OLD_SIZE, 0xC1));
  EXPECT_TRUE(Holds(LEAF1, expected));
}

TEST_F(Rv52100MoveTest, ImageOfAnOddSizeIsCopiedWithAllTheBytesThatWereRead) {
  for (const u_int32_t size : {0x11u, 0x12u, 0x13u, 0x14u}) {
    SCOPED_TRACE(size);
    Serve();
    Contents flash = OldFlash(NOT_VALID, VALID, IN_THE_WAY);
    flash.Load(0x400, OldRecord(IN_THE_WAY, size, VALID));
    flash.Load(0x810, Hex("12345678 9abcdef0"));  // the last word, and what follows it
    OpenOne(flash);
    std::string console;
    EXPECT_EQ(Move(LEAF1, console), BRAID_OK);
    const Strings requests = _rom->Requests();
    EXPECT_EQ(requests.at(1), Request("Read", {LEAF1}, Text(size, " 0x800")));
    EXPECT_EQ(requests.at(4),
              Request("Write", {LEAF1}, "20 0x600" + Words(4, "0xc1c1c1c1") + " 0x12345678"));
    EXPECT_TRUE(console.ends_with(MOVE_METERS)) << console;

    Contents expected = flash;
    expected.Load(0x408, Hex(NOT_VALID));
    expected.Load(0x200, DataVec(0x200, 0xFF));
    expected.Load(0x200, OldRecord(0x600, size, VALID));
    expected.Load(0x600, DataVec(0x200, 0xFF));
    expected.Load(0x600, Joined({DataVec(0x10, 0xC1), Hex("12345678")}));
    EXPECT_TRUE(Holds(LEAF1, expected));
  }
}

TEST_F(Rv52100MoveTest, OddImageAtTheEndOfTheFlashIsCopiedWithAnErasedRest) {
  Contents flash = OldFlash(NOT_VALID, VALID, 0xFF0);
  flash.Load(0x400, OldRecord(0xFF2, 0xE, VALID));
  OpenOne(flash);
  std::string console;
  EXPECT_EQ(Move(LEAF1, console), BRAID_OK);
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x600, 0x14),
            Joined({DataVec(0xE, 0xC1), DataVec(6, 0xFF)}));
}

TEST_F(Rv52100MoveTest, MoreBytesThanTheRecordHasAreNotWrittenBehindIt) {
  OpenOne(OldFlash(NOT_VALID, VALID, IN_THE_WAY));
  AnswerRead(LEAF1, 1,
             "{ACK {data 0x800} {data 0x10} {data 0xcb84cb84}" + Words(62, "{data 0xa5a5a5a5}") +
                 " {data 0x0} {data 0x77777777}}");
  std::string console;
  EXPECT_EQ(Move(LEAF1, console), BRAID_OK);
  EXPECT_EQ(_rom->Requests(), MoveRequests(LEAF1));
}

TEST_F(Rv52100MoveTest, OnlyThatDeviceIsLeftActiveAndTheMeterIsTakenBack) {
  AddDevice(LEAF1, OldFlash(NOT_VALID, VALID, IN_THE_WAY));
  AddDevice(LEAF2, OldFlash(NOT_VALID, VALID, IN_THE_WAY));
  OpenAll();
  std::string console;
  EXPECT_EQ(Move(LEAF2, console), BRAID_OK);
  EXPECT_EQ(_rom->GetActiveDevices(), GuidSet{LEAF2});
  EXPECT_TRUE(Holds(LEAF1, OldFlash(NOT_VALID, VALID, IN_THE_WAY)));
  ExpectNoMeter();
}

TEST_F(Rv52100MoveTest, DeviceThatTakesNoPartInTheReadIsAnError) {
  AddDevice(LEAF1, OldFlash(NOT_VALID, VALID, IN_THE_WAY));
  AddDevice(LEAF2, OldFlash(NOT_VALID, VALID, IN_THE_WAY));
  OpenAll();
  OutputOf([&] { _rom->DeviceError("broken", LEAF1); });
  std::string console;
  EXPECT_EQ(Move(LEAF1, console), BRAID_ERROR);
  EXPECT_EQ(_error, "(no error)");
  EXPECT_EQ(console, "-D- BurnAlgorithm:522: Repairing device 1000\n");
  EXPECT_TRUE(_rom->Requests().empty());
}

/// Moves that must not begin: the device fails before anything is written to it.
class Rv52100RefusedMoveTest : public Rv52100Test {
 protected:
  /// Burns `flash` alone and beside a sound device, and expects the same failure of it both times.
  /// `hint` must stand in what is told.
  void ExpectRefusal(const Contents& flash, const std::string& hint,
                     std::optional<u_int32_t> nth_read = {}, const std::string& answer = "") {
    for (const bool is_alone : {true, false}) {
      SCOPED_TRACE(is_alone ? "alone" : "beside another");
      Serve();
      Load(PlainImage());
      AddDevice(LEAF1, flash);
      if (!is_alone) AddDevice(LEAF2, OldFlash(VALID, NOT_VALID));
      OpenAll();
      if (nth_read) AnswerRead(LEAF1, *nth_read, answer);
      std::string console;
      EXPECT_EQ(GoError(console), is_alone ? "No more accessible devices" : "(no error)");
      const std::string start = "\r-E- BURN FAILED:0x0000000000001000:";
      const std::size_t at = console.find(start);
      ASSERT_NE(at, std::string::npos) << console;
      const std::string text = console.substr(at + start.size());
      EXPECT_THAT(text.substr(0, text.find('\n')), testing::HasSubstr(hint));
      EXPECT_EQ(console.find("BURN FAILED", at + start.size()), std::string::npos);
      EXPECT_TRUE(Holds(LEAF1, flash));
      const Strings changes = Changes();
      for (const std::string& change : changes) {
        EXPECT_EQ(change.find("0x0000000000001000"), std::string::npos) << change;
      }
      EXPECT_EQ(changes.empty(), is_alone);
      if (!is_alone) {
        EXPECT_TRUE(Holds(LEAF2, After(OldFlash(VALID, NOT_VALID), SlotSteps(1))));
      }
    }
  }

  // The reads of a device with a second image: marker, two of the invariant sector, two signatures,
  // the second image's address, and then those of the move.
  static constexpr u_int32_t POINTER_SECTOR_READ = 7;
  static constexpr u_int32_t IMAGE_READ = 8;
};

TEST_F(Rv52100RefusedMoveTest, PointerSectorReadBackShortFailsTheDevice) {
  const Contents flash = OldFlash(NOT_VALID, VALID, IN_THE_WAY);
  ExpectRefusal(flash, "pointer sector", POINTER_SECTOR_READ, "{ACK {data 0x800} {data 0x10}}");
  ExpectRefusal(flash, "pointer sector", POINTER_SECTOR_READ, "{ACK}");
  // One word short of the record.
  ExpectRefusal(flash, "264", POINTER_SECTOR_READ,
                "{ACK {data 0x800} {data 0x10}" + Words(63, "{data 0xa5a5a5a5}") + "}");
}

TEST_F(Rv52100RefusedMoveTest, ImageReadBackShortFailsTheDevice) {
  const Contents flash = OldFlash(NOT_VALID, VALID, IN_THE_WAY);
  ExpectRefusal(flash, "image", IMAGE_READ, "{ACK {data 0xc1c1c1c1}}");
  ExpectRefusal(flash, "16", IMAGE_READ, "{ACK" + Words(3, "{data 0xc1c1c1c1}") + "}");
  ExpectRefusal(flash, "image", IMAGE_READ, "{ACK}");
}

TEST_F(Rv52100RefusedMoveTest, ImageThatAlreadyStartsWhereItWouldGoFailsTheDevice) {
  ExpectRefusal(OldFlash(NOT_VALID, VALID, 0x600), "600");
}

TEST_F(Rv52100RefusedMoveTest, PointerSectorThatNamesMoreThanTheFlashHoldsFailsTheDevice) {
  Contents flash = OldFlash(NOT_VALID, VALID, IN_THE_WAY);
  flash.Load(0x400, OldRecord(IN_THE_WAY, 0xFFFFFFFF, VALID));
  ExpectRefusal(flash, "Address out of range");
}

TEST_F(Rv52100RefusedMoveTest, PointerSectorThatGivesItsImageNoBytesFailsTheDevice) {
  Contents flash = OldFlash(NOT_VALID, VALID, IN_THE_WAY);
  flash.Load(0x400, OldRecord(IN_THE_WAY, 0, VALID));
  ExpectRefusal(flash, "no bytes");
}

// ---- Images that cannot be burnt

class Rv52100ImageTest : public Rv52100Test {
 protected:
  /// The error that ends the burn of `text`, which must not write anything.
  std::string ErrorOfBurning(const std::string& text,
                             const Contents& flash = OldFlash(VALID, VALID)) {
    Serve();
    Load(text);
    OpenOne(flash);
    const std::string error = GoError();
    EXPECT_EQ(Changes(), Strings{});
    EXPECT_TRUE(Holds(LEAF1, flash));
    return error;
  }

  std::string Unset(const std::string& what) {
    return "FwImage: Tried to access uninitiated field " + what + " . Check file " +
           (_folder / "fw.img");
  }

  const Contents _states[3] = {OldFlash(VALID, NOT_VALID), OldFlash(NOT_VALID, VALID),
                               OldFlash(NOT_VALID, VALID, IN_THE_WAY)};
};

TEST_F(Rv52100ImageTest, SlotAddressThatIsNotSetEndsTheBurnBeforeAnyWrite) {
  const std::pair<std::string, std::string> cases[] = {
      {"PS 0 200 0\n", "Ps Addr[0]"},
      {"PS 1 400 0\n", "Ps Addr[1]"},
      {"IMAGE 0 600 0\n", "Image Addr[0]"},
      {"IMAGE 1 A00 0\n", "Image Addr[1]"},
      {"SIGNATURE 0 208 0\n", "Signature Addr[0]"},
      {"SIGNATURE 1 408 0\n", "Signature Addr[1]"},
  };
  for (const auto& [line, what] : cases) {
    for (const Contents& state : _states) {
      EXPECT_EQ(ErrorOfBurning(Without(PlainImage(), line), state), Unset(what));
    }
  }
}

TEST_F(Rv52100ImageTest, PointerSectorWithoutASectionEndsTheBurnBeforeAnyWrite) {
  const std::pair<std::string, std::string> cases[] = {{"PS0", "200"}, {"PS1", "400"}};
  for (const auto& [name, addr] : cases) {
    for (const Contents& state : _states) {
      const std::string error = ErrorOfBurning(WithoutSection(PlainImage(), name), state);
      EXPECT_THAT(error, testing::HasSubstr("pointer sector"));
      EXPECT_THAT(error, testing::HasSubstr(addr));
    }
  }
}

TEST_F(Rv52100ImageTest, FirmwareWithoutASectionEndsTheBurnBeforeAnyWrite) {
  for (const Contents& state : _states) {
    EXPECT_EQ(ErrorOfBurning(WithoutSection(PlainImage(), "FW"), state),
              "Can't find a sector addres that matches first image address (0x600. Check file \"" +
                  (_folder / "fw.img") + "\" .");
  }
}

TEST_F(Rv52100ImageTest, EmptyImageEndsTheBurnBeforeAnyWrite) {
  EXPECT_NE(ErrorOfBurning(""), "(no error)");
}

TEST_F(Rv52100ImageTest, UnknownSectorSizeEndsTheBurnBeforeAnyWrite) {
  const Contents flash = OldFlash(VALID, VALID);
  AddDevice(LEAF1, flash);
  AnswerNext("GetAttr", "{{size=1000}}");
  OpenFor({LEAF1});
  EXPECT_THAT(GoError(), testing::HasSubstr("sector size"));
  EXPECT_EQ(Changes(), Strings{});
  EXPECT_TRUE(Holds(LEAF1, flash));
}

TEST_F(Rv52100ImageTest, MemoryWithoutSectorsEndsTheBurnBeforeAnyWrite) {
  AddAdapters({LEAF1});
  RecordedI2c eeprom(_fabric);
  OpenQuietly(eeprom, {LEAF1});
  std::string error;
  OutputOf([&] { error = ErrorOf([&] { Burn(eeprom, true, false).Go(*_image); }); });
  EXPECT_EQ(error, "GetSectorSize - Not implemented for interface Remote I2C.");
  EXPECT_EQ(eeprom.Requests(), Strings{});
}

// ---- The meter, and what stops the program

TEST_F(Rv52100Test, MeterIsTakenBackWhenTheBurnEnds) {
  OpenOne(OldFlash(VALID, NOT_VALID));
  Go();
  ExpectNoMeter();
}

TEST_F(Rv52100Test, MeterIsTakenBackWhenTheBurnEndsInAnError) {
  AddDevice(LEAF1, OldFlash(VALID, NOT_VALID));
  OpenAll();
  Refuse(LEAF1, "Write", 2);
  EXPECT_EQ(GoError(), "No more accessible devices");
  ExpectNoMeter();
}

TEST_F(Rv52100Test, SlotBurntByItselfIsTheOneAskedForAndTheMeterIsTakenBack) {
  OpenOne(OldFlash(NOT_VALID, NOT_VALID));
  std::string error;
  EXPECT_EQ(
      Shown([&] { EXPECT_EQ(Burn(*_rom, false, false).BurnImage(*_image, 0), BRAID_OK); }, error),
      FIRST_SLOT_METERS);
  EXPECT_EQ(_rom->Requests(), FirstSlotRequests({LEAF1}));
  EXPECT_EQ(
      Shown([&] { EXPECT_EQ(Burn(*_rom, false, false).BurnImage(*_image, 1), BRAID_OK); }, error),
      SECOND_SLOT_METERS);
  EXPECT_EQ(_rom->Requests(), SecondSlotRequests({LEAF1}));
  ExpectNoMeter();
}

TEST_F(Rv52100Test, ThirdSlotStopsTheProgram) {
  OpenOne(OldFlash(VALID, NOT_VALID));
  Burn burn(*_rom, true, false);
  for (const u_int32_t idx : {2u, 0xFFFFFFFFu}) {
    EXPECT_EXIT(burn.BurnImage(*_image, idx), testing::KilledBySignal(SIGABRT),
                "image_idx == 0 \\|\\| image_idx == 1");
  }
}

TEST_F(Rv52100Test, WordsAreComparedUnsignedMostSignificantByteFirst) {
  struct Case {
    std::string first;
    std::string second;
    std::string console;
    bool is_less;
  };
  const Case cases[] = {
      {"00000001", "00000002", "dw1 = 1 , dw2 = 2", true},
      {"00000002", "00000002", "dw1 = 2 , dw2 = 2", false},
      {"00000003", "00000002", "dw1 = 3 , dw2 = 2", false},
      {"01000000", "000000ff", "dw1 = 1000000 , dw2 = ff", false},
      {"7fffffff", "80000000", "dw1 = 7fffffff , dw2 = 80000000", true},
      {"ffffffff", "00000000", "dw1 = ffffffff , dw2 = 0", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(OutputOf([&] { EXPECT_EQ(Burn::LessThan(Hex(c.first), Hex(c.second)), c.is_less); }),
              "-D- BurnAlgorithm:228: LessThan() : " + c.console + "\n");
  }
  EXPECT_EQ(OutputOf([] {
              Burn::LessThan(DataVec(4), DataVec(4));
              std::cout << 255;
            }),
            "-D- BurnAlgorithm:228: LessThan() : dw1 = 0 , dw2 = 0\nff");
}

TEST_F(Rv52100Test, WordsOfAnotherLengthStopTheProgram) {
  for (const std::size_t size : std::initializer_list<std::size_t>{0, 3, 5}) {
    EXPECT_EXIT(Burn::LessThan(DataVec(size), DataVec(4)), testing::KilledBySignal(SIGABRT),
                "d1.size\\(\\) == 4");
    EXPECT_EXIT(Burn::LessThan(DataVec(4), DataVec(size)), testing::KilledBySignal(SIGABRT),
                "d2.size\\(\\) == 4");
  }
}

}  // namespace
