#include "device/Image.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace device {
namespace {

Image TwoChips() {
  Image image;
  image.map = {{0x50, 0x2000}, {0x51, 0x2000}};
  return image;
}

TEST(DeviceImageTest, WithoutAMapAnAddressIsAnOffsetInChipZero) {
  const Image image;
  EXPECT_EQ(image.AddressOf({0, 0x1234}), 0x1234u);
  EXPECT_EQ(image.PlaceOf(0x1234), (ChipPlace{0, 0x1234}));
  EXPECT_EQ(image.AddressOf({0x50, 0}), std::nullopt);
  EXPECT_EQ(image.MappedSize(), std::nullopt);
}

TEST(DeviceImageTest, MappedChipsLieEndToEnd) {
  const Image image = TwoChips();
  EXPECT_EQ(image.PlaceOf(0x1FFF), (ChipPlace{0x50, 0x1FFF}));
  EXPECT_EQ(image.PlaceOf(0x2000), (ChipPlace{0x51, 0}));
  EXPECT_EQ(image.PlaceOf(0x4000), std::nullopt);
  EXPECT_EQ(image.AddressOf({0x51, 0x10}), 0x2010u);
  EXPECT_EQ(image.AddressOf({0x52, 0}), std::nullopt);
  EXPECT_EQ(image.AddressOf({0, 0}), std::nullopt);
  EXPECT_EQ(image.MappedSize(), 0x4000u);
}

TEST(DeviceImageTest, AnOffsetPastItsChipReachesIntoTheNext) {
  EXPECT_EQ(TwoChips().AddressOf({0x50, 0x3000}), 0x3000u);
}

TEST(DeviceImageTest, OfAChipThatIsMappedTwiceTheFirstPlaceCounts) {
  Image image = TwoChips();
  image.map.push_back({0x50, 0x1000});
  EXPECT_EQ(image.AddressOf({0x50, 0x10}), 0x10u);
  EXPECT_EQ(image.PlaceOf(0x4010), (ChipPlace{0x50, 0x10}));
}

/// Sections of `bytes` each at these addresses, in this order, none kept twice.
Image WithSections(const std::vector<std::uint32_t>& addrs, std::size_t bytes) {
  Image image;
  for (const std::uint32_t addr : addrs) {
    const Section* known = image.SectionAt(addr);
    image.order.push_back(known == nullptr
                              ? image.sections.size()
                              : static_cast<std::size_t>(known - image.sections.data()));
    if (known == nullptr) image.sections.push_back({"S", addr, Bytes(bytes)});
  }
  return image;
}

std::vector<std::uint32_t> AddrsOf(const std::vector<const Section*>& sections) {
  std::vector<std::uint32_t> addrs;
  for (const Section* section : sections) addrs.push_back(section->addr);
  return addrs;
}

TEST(DeviceImageTest, ASlotHasTheSectionsFromTheFirstImageUpToTheSecond) {
  Image image = WithSections({0, 0x300, 0x100, 0x300, 0x400, 0x500}, 8);
  EXPECT_TRUE(image.SlotSections().empty());
  image.slots[0].image = 0x300;
  EXPECT_TRUE(image.SlotSections().empty());
  image.slots[1].image = 0x400;
  // In file order, and again what stands there again.
  EXPECT_THAT(AddrsOf(image.SlotSections()), testing::ElementsAre(0x300, 0x100, 0x300));
  image.slots[1].image = 0x600;  // no section begins there
  EXPECT_THAT(AddrsOf(image.SlotSections()),
              testing::ElementsAre(0x300, 0x100, 0x300, 0x400, 0x500));
  image.slots[0].image = 0x301;
  EXPECT_TRUE(image.SlotSections().empty());
}

TEST(DeviceImageTest, TheSizeOfAnImageIsThatOfTheSectionsBetweenTheSlots) {
  Image image = WithSections({0, 0x10000, 0x20000}, 0x40);
  image.sections[0].data.resize(0x100);
  image.slots[0].image = 0;
  EXPECT_EQ(image.SlotBytes(), 0u);
  image.slots[1].image = 0x10000;
  EXPECT_EQ(image.SlotBytes(), 0x100u);
  image.slots[1].image = 0x20000;
  EXPECT_EQ(image.SlotBytes(), 0x140u);
}

TEST(DeviceImageTest, FieldsStandInTheTableInTheOrderOfTheirTypes) {
  std::size_t number = 0;
  for (const FieldRow& row : FieldRows()) {
    EXPECT_EQ(static_cast<std::size_t>(row.type), number++);
    EXPECT_EQ(&RowOf(row.type), &row);
    EXPECT_EQ(FindField(row.keyword), &row);
  }
  EXPECT_EQ(number, 6u);
  EXPECT_EQ(FindField("guid"), nullptr);
  EXPECT_EQ((Field{FieldType::VSD, 0xFFFFFFFF}.End()), 0x1000000CFu);
}

TEST(DeviceTypeTest, TwoKeywordsAreOneType) {
  ASSERT_NE(FindDeviceType("RV52410"), nullptr);
  EXPECT_EQ(FindDeviceType("RV52410")->number, 52400u);
  EXPECT_EQ(FindDeviceType("rv52400"), nullptr);
  EXPECT_EQ(FindDeviceType(""), nullptr);
  EXPECT_EQ(Image().Slots(), SlotKind::NONE);
}

TEST(ImageTest, BytesWithinAChipHaveAnAddress) {
  Image image;
  image.map = {{0x50, 0x100}, {0x51, 0x80}};
  EXPECT_EQ(image.AddressWithin({0x50, 0xFF}, 1), 0xFFu);
  EXPECT_EQ(image.AddressWithin({0x51, 0}, 0x80), 0x100u);
  EXPECT_EQ(image.AddressWithin({0x51, 4}, 4), 0x104u);
  EXPECT_EQ(image.AddressWithin({0x50, 0xFF}, 2), std::nullopt);
  EXPECT_EQ(image.AddressWithin({0x50, 0x100}, 1), std::nullopt);
  EXPECT_EQ(image.AddressWithin({0x51, 0x80}, 1), std::nullopt);
  EXPECT_EQ(image.AddressWithin({0x52, 0}, 1), std::nullopt);
  image.map.clear();
  EXPECT_EQ(image.AddressWithin({0, 0x1234}, 4), 0x1234u);
  EXPECT_EQ(image.AddressWithin({1, 0}, 1), std::nullopt);
}

TEST(DeviceImageTest, SectionsKeepTheirPlaceInEitherSlot) {
  Image image;
  image.slots[0].image = 0x1000;
  image.slots[1].image = 0x3000;
  const Section section{.name = "A", .addr = 0x1040, .data = {}};
  EXPECT_EQ(image.AddressInSlot(section, 0), 0x1040u);
  EXPECT_EQ(image.AddressInSlot(section, 1), 0x3040u);
}

}  // namespace
}  // namespace device
