#include "src/FwImage.h"

#include "tests/support/support.h"

namespace {

using Section = FwImage::Section;
using FieldReplace = FwImage::FieldReplace;
using CrcReplace = FwImage::CrcReplace;

class FwImageTest : public ConsoleTest {
 protected:
  void AddSection(const char* name, u_int32_t addr, std::size_t size) {
    _owned.push_back(std::make_unique<Section>(name, addr));
    _owned.back()->data.assign(size, 0xAA);
    _image.SetSection(_owned.back().get());
  }

  std::vector<u_int32_t> SectionsAddr() {
    std::vector<u_int32_t> addrs;
    EXPECT_EQ(_image.GetSectionsAddr(addrs), BRAID_OK);
    return addrs;
  }

  std::vector<std::unique_ptr<Section>> _owned;
  FwImage _image;
};

class ConvTest : public testing::Test {
 protected:
  ConvTest() { _mapped._devmap = {EeLoc(0x2000, 0x50), EeLoc(0x2000, 0x51)}; }

  static std::pair<u_int32_t, int> Location(const FwImage::Conv& conv, u_int32_t addr) {
    const EeLoc loc = conv.Convert(addr);
    return {loc.offset, loc.dev};
  }

  FwImage::Conv _empty;
  FwImage::Conv _mapped;
};

TEST_F(ConvTest, WithoutAMapAddressesAreOffsetsInDeviceZero) {
  EXPECT_EQ(_empty.Convert(EeLoc(0x1234, 0)), 0x1234u);
  EXPECT_EQ(Location(_empty, 0x1234), std::make_pair(0x1234u, 0));
  EXPECT_EQ(ErrorOf([&] { _empty.Convert(EeLoc(0, 0x50)); }),
            "Can't convert dev/offset to address: No mapping for the given EE loaction  (50:0).");
}

TEST_F(ConvTest, MappedDevicesLieEndToEnd) {
  EXPECT_EQ(Location(_mapped, 0x1FFF), std::make_pair(0x1FFFu, 0x50));
  EXPECT_EQ(Location(_mapped, 0x2000), std::make_pair(0u, 0x51));
  EXPECT_EQ(_mapped.Convert(EeLoc(0x10, 0x51)), 0x2010u);
}

TEST_F(ConvTest, AddressPastTheLastDeviceIsRefused) {
  EXPECT_EQ(ErrorOf([&] { _mapped.Convert(0x4000); }),
            "Addr2OffsetDev: No mapping for the given addr (4000).");
}

TEST_F(ConvTest, UnknownDeviceIsRefusedWithTheSumOfAllSizes) {
  EXPECT_EQ(
      ErrorOf([&] { _mapped.Convert(EeLoc(0, 0x52)); }),
      "Can't convert dev/offset to address: No mapping for the given EE loaction  (52:4000).");
  EXPECT_EQ(ErrorOf([&] { _mapped.Convert(EeLoc(0, 0)); }),
            "Can't convert dev/offset to address: No mapping for the given EE loaction  (0:4000).");
}

TEST_F(ConvTest, OffsetIsNotHeldAgainstTheSizeOfItsDevice) {
  EXPECT_EQ(_mapped.Convert(EeLoc(0x3000, 0x50)), 0x3000u);
}

TEST_F(ConvTest, FirstEntryOfADeviceWins) {
  _mapped._devmap.emplace_back(0x1000, 0x50);
  EXPECT_EQ(_mapped.Convert(EeLoc(0x10, 0x50)), 0x10u);
}

TEST_F(FwImageTest, EnumeratorsHaveTheirFixedValues) {
  EXPECT_EQ(DEV_UNKNOWN, 0);
  EXPECT_EQ(RV61100, 61100);
  EXPECT_EQ(RV61300, 61300);
  EXPECT_EQ(RV52100, 52100);
  EXPECT_EQ(RV52300, 52300);
  EXPECT_EQ(RV52310, 52310);
  EXPECT_EQ(RV52400, 52400);
  EXPECT_EQ(RV52410, 52410);
  EXPECT_EQ(UNKNOWN_FIELD, 0);
  EXPECT_EQ(SIGNATURE, 1);
  EXPECT_EQ(GUIDS, 2);
  EXPECT_EQ(GUID, 3);
  EXPECT_EQ(SYS_GUID, 4);
  EXPECT_EQ(BSN, 5);
  EXPECT_EQ(VSD, 6);
}

TEST_F(FwImageTest, SlotIndexOtherThanZeroOrOneIsRefused) {
  EXPECT_EQ(ErrorOf([&] { _image.GetImageAddr(2); }),
            "FwImage::CheckInit Internal error: Trying to access field Image Addr with index 2");
  EXPECT_EQ(ErrorOf([&] { _image.GetPsAddr(3); }),
            "FwImage::CheckInit Internal error: Trying to access field Ps Addr with index 3");
  EXPECT_EQ(
      ErrorOf([&] { _image.GetSignatureAddr(4); }),
      "FwImage::CheckInit Internal error: Trying to access field Signature Addr with index 4");
}

TEST_F(FwImageTest, UnsetSlotAddressIsRefused) {
  EXPECT_EQ(ErrorOf([&] { _image.GetPsAddr(0); }),
            "FwImage: Tried to access uninitiated field Ps Addr[0] . Check file ");
  EXPECT_EQ(ErrorOf([&] { _image.GetImageAddr(1); }),
            "FwImage: Tried to access uninitiated field Image Addr[1] . Check file ");
  EXPECT_EQ(ErrorOf([&] { _image.GetSignatureAddr(1); }),
            "FwImage: Tried to access uninitiated field Signature Addr[1] . Check file ");
}

TEST_F(FwImageTest, SlotAddressesAreKeptAndReset) {
  EXPECT_EQ(_image.SetPsAddr(0, 0x10000), BRAID_OK);
  EXPECT_EQ(_image.SetImageAddr(1, 0x20000), BRAID_OK);
  EXPECT_EQ(_image.SetSignatureAddr(1, 0x30000), BRAID_OK);
  EXPECT_EQ(_image.GetPsAddr(0), 0x10000u);
  EXPECT_EQ(_image.GetImageAddr(1), 0x20000u);
  EXPECT_EQ(_image.GetSignatureAddr(1), 0x30000u);
  _image.SetPsAddr(0, 0x11000);
  EXPECT_EQ(_image.GetPsAddr(0), 0x11000u);
  _image.ResetDirectives();
  EXPECT_NE(ErrorOf([&] { _image.GetPsAddr(0); }), "(no error)");
  EXPECT_NE(ErrorOf([&] { _image.GetImageAddr(1); }), "(no error)");
  EXPECT_NE(ErrorOf([&] { _image.GetSignatureAddr(1); }), "(no error)");
}

TEST_F(FwImageTest, SlotIndexThatDoesNotExistCannotBeSet) {
  EXPECT_EXIT(_image.SetPsAddr(2, 0), testing::KilledBySignal(SIGABRT), "idx < SLOTS");
  EXPECT_EXIT(_image.SetImageAddr(2, 0), testing::KilledBySignal(SIGABRT), "idx < SLOTS");
  EXPECT_EXIT(_image.SetSignatureAddr(2, 0), testing::KilledBySignal(SIGABRT), "idx < SLOTS");
}

TEST_F(FwImageTest, SignatureAddressAlsoMarksAField) {
  _image.SetSignatureAddr(0, 0x108);
  const auto fields = _image.GetFieldsInRange(0x100, 0x100);
  ASSERT_EQ(fields.size(), 1u);
  EXPECT_EQ(fields[0].from, 0x108u);
  EXPECT_EQ(fields[0].size, 4u);
  EXPECT_EQ(fields[0].type, SIGNATURE);
}

TEST_F(FwImageTest, SecondSignatureOfASlotIsRefused) {
  _image.SetSignatureAddr(0, 0x108);
  EXPECT_EQ(ErrorOf([&] { _image.SetSignatureAddr(0, 0x208); }),
            ":0: Tried to set signature 0 which is already set");
  EXPECT_EQ(_image.GetSignatureAddr(0), 0x108u);
}

TEST_F(FwImageTest, SectionIsFoundAtExactlyItsAddress) {
  AddSection("A", 0x100, 4);
  EXPECT_EQ(_image.GetSection(0x100), _owned[0].get());
  EXPECT_EQ(_image.GetSection(0x101), nullptr);
}

TEST_F(FwImageTest, SecondSectionAtAnAddressIsRefused) {
  AddSection("A", 0xABC0, 4);
  Section second("B", 0xABC0);
  EXPECT_EQ(ErrorOf([&] { _image.SetSection(&second); }),
            "Internal Error:FwImage::SetSection() : Tried to set an existing section at addr abc0");
  EXPECT_EQ(SectionsAddr(), (std::vector<u_int32_t>{0xABC0}));
}

TEST_F(FwImageTest, SectionAddressesStandInOrderOfAdditionInFrontOfWhatWasThere) {
  AddSection("B", 0x200, 4);
  AddSection("A", 0x100, 4);
  std::vector<u_int32_t> addrs{7};
  _image.GetSectionsAddr(addrs);
  EXPECT_EQ(addrs, (std::vector<u_int32_t>{0x200, 0x100, 7}));
}

TEST_F(FwImageTest, ImageSizeCountsTheFirstImageAndTotalSizeAllSections) {
  _image.SetImageAddr(0, 0);
  _image.SetImageAddr(1, 0x10000);
  AddSection("A", 0, 0x100);
  AddSection("B", 0x10000, 0x80);
  AddSection("C", 0x20000, 0x40);
  EXPECT_EQ(_image.GetImageSize(), 0x100u);
  EXPECT_EQ(_image.GetTotalSize(), 0x1C0u);
}

TEST_F(FwImageTest, ImageSizeNeedsBothSlots) {
  _image.SetImageAddr(0, 0);
  EXPECT_EQ(ErrorOf([&] { _image.GetImageSize(); }),
            "FwImage: Tried to access uninitiated field Image Addr[1] . Check file ");
}

TEST_F(FwImageTest, ImageSectionsRunInFileOrderFromTheFirstImageToTheSecond) {
  _image.SetImageAddr(0, 0x300);
  _image.SetImageAddr(1, 0x900);
  for (const u_int32_t addr : {0x0u, 0x300u, 0x200u, 0x400u, 0x900u, 0x500u}) {
    AddSection("S", addr, 4);
  }
  std::vector<u_int32_t> addrs{7};
  EXPECT_EQ(_image.GetImageSectionsAddr(addrs), BRAID_OK);
  EXPECT_EQ(addrs, (std::vector<u_int32_t>{7, 0x300, 0x200, 0x400}));
}

TEST_F(FwImageTest, ImageSectionsRunToTheEndWhereTheSecondImageHasNoSection) {
  _image.SetImageAddr(0, 0x300);
  _image.SetImageAddr(1, 0x900);
  AddSection("S", 0x300, 4);
  AddSection("T", 0xA00, 4);
  std::vector<u_int32_t> addrs;
  _image.GetImageSectionsAddr(addrs);
  EXPECT_EQ(addrs, (std::vector<u_int32_t>{0x300, 0xA00}));
}

TEST_F(FwImageTest, ImageWithoutASectionAtItsFirstAddressIsRefused) {
  _image.SetImageAddr(0, 0xAB00);
  _image.SetImageAddr(1, 0xCD00);
  AddSection("S", 0, 4);
  std::vector<u_int32_t> addrs;
  EXPECT_EQ(
      ErrorOf([&] { _image.GetImageSectionsAddr(addrs); }),
      "Can't find a sector addres that matches first image address (0xab00. Check file \"\" .");
}

TEST_F(FwImageTest, SignatureValueIsNotBuilt) {
  EXPECT_EQ(ErrorOf([&] { _image.GetSignature(); }), "FwImage::GetSignature() Not implemented");
}

TEST_F(FwImageTest, FieldsHaveTheirSizes) {
  EXPECT_EQ(FwImage::ReplaceFieldSize(SIGNATURE), 4u);
  EXPECT_EQ(FwImage::ReplaceFieldSize(GUIDS), 32u);
  EXPECT_EQ(FwImage::ReplaceFieldSize(GUID), 8u);
  EXPECT_EQ(FwImage::ReplaceFieldSize(SYS_GUID), 8u);
  EXPECT_EQ(FwImage::ReplaceFieldSize(BSN), 64u);
  EXPECT_EQ(FwImage::ReplaceFieldSize(VSD), 208u);
  EXPECT_EQ(ErrorOf([] { FwImage::ReplaceFieldSize(UNKNOWN_FIELD); }),
            "ReplaceFieldSize() : Got an unknown field");
  EXPECT_EQ(ErrorOf([] { FwImage::ReplaceFieldSize(static_cast<FieldType>(7)); }),
            "ReplaceFieldSize() : Got an unknown field");
}

TEST_F(FwImageTest, FieldReachingPastItsRangeIsRefused) {
  _image.AddReplace(FieldReplace{0xFC, 8, GUID});
  EXPECT_EQ(ErrorOf([&] { _image.GetFieldsInRange(0, 0x100); }),
            "Replace field (from:fc, type:3) crosses image section (addr:0 , size:256).");
}

TEST_F(FwImageTest, FieldEndingWithItsRangeIsReturned) {
  _image.AddReplace(FieldReplace{0xF8, 8, GUID});
  EXPECT_EQ(_image.GetFieldsInRange(0, 0x100).size(), 1u);
}

TEST_F(FwImageTest, WhatStartsRightBehindTheRangeIsPassedOver) {
  _image.AddReplace(FieldReplace{0x100, 8, GUID});
  _image.AddReplace(CrcReplace{0x100, 8, 0x108});
  EXPECT_TRUE(_image.GetFieldsInRange(0, 0x100).empty());
  EXPECT_TRUE(_image.GetCrcsInRange(0, 0x100).empty());
}

TEST_F(FwImageTest, FieldStartingBeforeTheRangeIsPassedOver) {
  _image.AddReplace(FieldReplace{0xFC, 8, GUID});
  EXPECT_TRUE(_image.GetFieldsInRange(0x100, 0x100).empty());
}

TEST_F(FwImageTest, FieldsAreReturnedInOrderOfAddition) {
  _image.AddReplace(FieldReplace{0x80, 8, GUID});
  _image.AddReplace(FieldReplace{0x300, 8, GUID});
  _image.AddReplace(FieldReplace{0x10, 64, BSN});
  const auto fields = _image.GetFieldsInRange(0, 0x100);
  ASSERT_EQ(fields.size(), 2u);
  EXPECT_EQ(fields[0].from, 0x80u);
  EXPECT_EQ(fields[1].from, 0x10u);
}

TEST_F(FwImageTest, RangeAtTheTopOfTheAddressSpaceHoldsItsFields) {
  _image.AddReplace(FieldReplace{0xFFFFFFF8, 8, GUID});
  EXPECT_EQ(_image.GetFieldsInRange(0xFFFFFF00, 0x100).size(), 1u);
}

TEST_F(FwImageTest, CrcWordMayBeTheLastOfTheRangeAndNoFurther) {
  _image.AddReplace(CrcReplace{0, 0xFC, 0xFC});
  EXPECT_EQ(_image.GetCrcsInRange(0, 0x100).size(), 1u);
  _image.AddReplace(CrcReplace{0x10, 0x20, 0xFD});
  EXPECT_EQ(ErrorOf([&] { _image.GetCrcsInRange(0, 0x100); }),
            "Replace CRC (from:10, size:20) crosses image section (addr:0 , size:256).");
}

TEST_F(FwImageTest, CrcCoveringMoreThanTheRangeIsRefused) {
  _image.AddReplace(CrcReplace{0x1000, 0x104, 0x1000});
  EXPECT_EQ(ErrorOf([&] { _image.GetCrcsInRange(0x1000, 0x100); }),
            "Replace CRC (from:1000, size:104) crosses image section (addr:1000 , size:256).");
}

TEST_F(FwImageTest, CrcWhoseSizeWrappedIsRefusedToo) {
  _image.AddReplace(CrcReplace{0x10, 0xFFFFFFF8, 0x20});
  EXPECT_EQ(ErrorOf([&] { _image.GetCrcsInRange(0, 0x100); }),
            "Replace CRC (from:10, size:fffffff8) crosses image section (addr:0 , size:256).");
}

TEST_F(FwImageTest, CrcWordMayLieBelowTheRange) {
  _image.AddReplace(CrcReplace{0x1000, 0x10, 0x10});
  EXPECT_EQ(_image.GetCrcsInRange(0x1000, 0x100).size(), 1u);
}

TEST_F(FwImageTest, RemovingAFieldTypeKeepsTheOthersInOrder) {
  _image.AddReplace(FieldReplace{0x80, 8, GUID});
  _image.AddReplace(FieldReplace{0x100, 208, VSD});
  _image.AddReplace(FieldReplace{0x10, 64, BSN});
  EXPECT_EQ(_image.RemoveReplace(VSD), BRAID_OK);
  const auto fields = _image.GetFieldsInRange(0, 0x1000);
  ASSERT_EQ(fields.size(), 2u);
  EXPECT_EQ(fields[0].type, GUID);
  EXPECT_EQ(fields[1].type, BSN);
  EXPECT_EQ(_image.RemoveReplace(VSD), BRAID_OK);
  EXPECT_EQ(_image.GetFieldsInRange(0, 0x1000).size(), 2u);
}

TEST_F(FwImageTest, StatusListsSectionsByAddressAndTheDeviceMap) {
  const common::ScratchFolder folder;
  const std::string file = folder.Write("fw.img",
                                        "DEVMAP 2000 50\nDEVMAP 1000 51\n"
                                        "START SECOND 10 51\n1 2 3 4\nEND SECOND\n"
                                        "START FIRST 20 50\n1 2 3 4\n5 6 7 8\nEND FIRST\n");
  _image.Open(file.c_str(), READ);
  std::cout << std::hex << std::setfill('0');  // must not show
  EXPECT_EQ(OutputOf([&] { _image.PrintStatus(); }),
            " FwImage Status (loaded from " + file +
                "):\n"
                "===========================================\n"
                "\n"
                "Sections:\n"
                " Name                           Addr      Dev:Offset     Size\n"
                "\n"
                " FIRST                          00000020 50:00000020        8\n"
                " SECOND                         00002010 51:00000010        4\n"
                "\n"
                "DevMap:\n"
                "   Dev   Size\n"
                "\n"
                "0 50  00002000\n"
                "1 51  00001000\n"
                "\n");
}

TEST_F(FwImageTest, StatusOfAnEmptyImageHasItsHeadingsOnly) {
  EXPECT_EQ(OutputOf([&] { _image.PrintStatus(); }),
            " FwImage Status (loaded from ):\n"
            "===========================================\n"
            "\n"
            "Sections:\n"
            " Name                           Addr      Dev:Offset     Size\n"
            "\n"
            "\n"
            "DevMap:\n"
            "   Dev   Size\n"
            "\n"
            "\n");
}

TEST_F(FwImageTest, ClosingLeavesBorrowedSectionsAlone) {
  AddSection("A", 0x100, 4);
  EXPECT_EQ(_image.Close(), BRAID_OK);
  EXPECT_EQ(_owned[0]->data.size(), 4u);
}

TEST_F(FwImageTest, ClosingReleasesTheBytesOfLoadedSections) {
  const common::ScratchFolder folder;
  _image.Open(folder.Write("fw.img", "START A 0 0\n1 2 3 4\nEND A\n").c_str(), READ);
  EXPECT_EQ(_image.GetTotalSize(), 4u);
  EXPECT_EQ(_image.Close(), BRAID_OK);
  EXPECT_EQ(_image.GetTotalSize(), 0u);
}

}  // namespace
