// What a burn leaves, told twice: by the judge, which shares no code with the burner, and by the
// burn algorithms themselves. Both must say the same of any image.
#include "tests/support/Prediction.h"

#include <map>
#include <optional>

#include "device/ImageFile.h"
#include "tests/support/support.h"
#include "verify/Expectation.h"
#include "verify/QuietConsole.h"

namespace {

constexpr u_int32_t SECTOR = 0x40;
constexpr u_int32_t PS[] = {0x100, 0x200};
constexpr u_int32_t SLOT[] = {0x300, 0x600};
constexpr u_int32_t IMAGES_A_KIND = 1500;

const char* const KEYWORDS[] = {"SIGNATURE", "GUIDS", "GUID", "SYSGUID", "BSN", "VSD"};

/// The text of an image that may have anything wrong with it but its grammar.
class ImageText {
 public:
  explicit ImageText(TestRng& rng) : _rng(rng) {}

  std::string Plain(bool is_flash) {
    _text = is_flash ? "DEVICE_TYPE RV52100\n" : "DEVICE_TYPE RV61300\n";
    const u_int32_t sections = 1 + Below(4);
    u_int32_t addr = 0;
    for (u_int32_t i = 0; i < sections; ++i) {
      if (Chance(10) && !_starts.empty()) addr = _starts[Below(_starts.size())];  // comes again
      const u_int32_t size = 4 * (1 + Below(100));
      Section(addr, size);
      // Flashes are mostly written from sector to sector.
      addr += is_flash ? (size + SECTOR - 1) / SECTOR * SECTOR : size;
      if (Chance(20))
        addr = Chance(50) ? addr + 4 * Below(40) : addr - std::min(addr, 4 * Below(9));
    }
    Marks(0, addr);
    return _text;
  }

  std::string PointerSectors() {
    _text = "DEVICE_TYPE RV52100\n";
    Section(0, SECTOR - 4 * Below(4));
    for (const u_int32_t slot : {0u, 1u}) {
      _text += Text("PS ", slot, std::hex, " ", PS[slot], " 0\nIMAGE ", slot, " ", SLOT[slot],
                    " 0\nSIGNATURE ", slot, " ", PS[slot] + 8, " 0\n");
      Section(PS[slot], 264);
      if (Chance(80)) {
        _text += Text(std::hex, "REPLACE CRC ", PS[slot], " 0 ", PS[slot] + 256, " 0 ",
                      PS[slot] + 260, " 0\n");
      }
    }
    ImageSections();
    Marks(0, 0x20);
    return _text;
  }

  std::string BootRecords() {
    _text = Text("DEVICE_TYPE RV61300\n", std::hex, "IMAGE 0 ", SLOT[0], " 0\nIMAGE 1 ", SLOT[1],
                 " 0\n");
    ImageSections();
    return _text;
  }

 private:
  u_int32_t Below(std::size_t end) { return static_cast<u_int32_t>(_rng() % end); }
  bool Chance(u_int32_t per_cent) { return Below(100) < per_cent; }

  void Section(u_int32_t addr, u_int32_t size) {
    _starts.push_back(addr);
    _text += Text("START S", _starts.size(), std::hex, " ", addr, " 0");
    for (u_int32_t i = 0; i < size; ++i)
      _text += Text(i % 16 == 0 ? "\n" : " ", std::hex, Below(256));
    _text += Text("\nEND S", _starts.size(), "\n");
  }

  /// One or two, and marks in both slots, in one, or somewhere about them.
  void ImageSections() {
    const u_int32_t size = 4 * (1 + Below(120));
    Section(SLOT[0], size);
    const u_int32_t next = (size + SECTOR - 1) / SECTOR * SECTOR;
    if (Chance(40)) Section(SLOT[0] + next, 4 * (1 + Below(30)));
    if (Chance(10)) Section(SLOT[0], 4);
    if (Chance(20)) Section(SLOT[1], 8);
    const std::string before = _text;
    Marks(SLOT[0], SLOT[0] + size);
    if (Chance(70)) {
      Marks(SLOT[1], SLOT[1] + size);
    } else if (Chance(20)) {
      _text = before;
    }
  }

  void Marks(u_int32_t start, u_int32_t end) {
    const auto place = [&] { return start + 4 * Below((end - start) / 4 + 2); };
    for (u_int32_t i = Below(4); i > 0; --i) {
      const u_int32_t addr = place();
      _text += Text("REPLACE ", KEYWORDS[Below(std::size(KEYWORDS))], std::hex, " ", addr, " 0\n");
    }
    for (u_int32_t i = Below(3); i > 0; --i) {
      const u_int32_t from = place();
      const u_int32_t last = from + 4 * Below(20) - (Chance(3) ? 2 : 0);
      _text += Text("REPLACE CRC ", std::hex, from, " 0 ", last, " 0 ", place(), " 0\n");
    }
  }

  TestRng& _rng;
  std::string _text;
  std::vector<u_int32_t> _starts;
};

using Regions = std::vector<ComparedRegion>;

/// What is expected of the regions, one after the other, or why nobody can tell.
std::string Told(Regions regions, const std::function<void(Regions&)>& tell) {
  try {
    tell(regions);
  } catch (const CannotPredict& failure) {
    return "cannot predict: " + failure.reason;
  }
  std::string bytes;
  for (const ComparedRegion& region : regions) {
    bytes.append(region.expected.begin(), region.expected.end());
  }
  return bytes;
}

class PredictionTest : public ConsoleTest {
 protected:
  /// Loads the image with both readers.
  void Load(const std::string& text) {
    SCOPED_TRACE(text);
    _text = text;
    _image = device::ParseImage(text, "image");
    _burnt.emplace();
    _burnt->Open(_folder.Write("image.img", text).c_str(), READ);
  }

  void Add(Regions& regions, u_int32_t addr, u_int32_t destination) const {
    for (const ComparedRegion& region : regions) {
      if (region.addr == destination) return;
    }
    const device::Section* section = _image.SectionAt(addr);
    ASSERT_NE(section, nullptr);
    regions.push_back({.section = section, .addr = destination});
  }
  void AddSlot(Regions& regions, u_int32_t slot) const {
    for (const device::Section* section : _image.SlotSections()) {
      Add(regions, section->addr, section->addr - SLOT[0] + SLOT[slot]);
    }
  }

  /// Has both tell, and counts what they say.
  void Compare(const Regions& regions, u_int32_t sector_size,
               const std::function<void(const verify::Expectation&, Regions&)>& judge,
               const std::function<void(Predictor&, Regions&)>& burner) {
    const verify::Expectation expectation(
        _image, sector_size, [this](device::FieldType type) { return _values.Value(type); });
    Predictor predictor(*_burnt, sector_size, [this](FieldType type) {
      return _values.Value(static_cast<device::FieldType>(static_cast<int>(type) - 1));
    });
    const std::string told = Told(regions, [&](Regions& own) { judge(expectation, own); });
    const verify::QuietConsole quiet;
    const std::string burnt = Told(regions, [&](Regions& own) { burner(predictor, own); });
    const bool can_tell = !told.starts_with("cannot predict: ");
    ++(can_tell ? _told : _refused);
    if (can_tell || told.find("crosses") != std::string::npos) {
      ASSERT_EQ(told, burnt) << _text;
    } else {
      ASSERT_TRUE(burnt.starts_with("cannot predict: ")) << told << "\n" << burnt << "\n" << _text;
    }
  }

  TestRng _rng{20261122};
  common::ScratchFolder _folder;
  std::string _text;
  device::Image _image;
  std::optional<FwImage> _burnt;
  const device::Identity _values = {.node = 0x1122334455667788,
                                    .ports = {0xA1, 0xA2},
                                    .system = 0x5F,
                                    .declared_ports = 2,
                                    .vsd = DataVec(208, 0xD5),
                                    .bsn = DataVec(64, 0xB5)};
  u_int32_t _told = 0;
  u_int32_t _refused = 0;
};

TEST_F(PredictionTest, JudgeAndBurnerAgreeOnPlainBurns) {
  for (u_int32_t i = 0; i < IMAGES_A_KIND; ++i) {
    const bool is_flash = i % 2 == 0;
    ASSERT_NO_FATAL_FAILURE(Load(ImageText(_rng).Plain(is_flash)));
    Regions regions;
    for (const device::Section& section : _image.sections) Add(regions, section.addr, section.addr);
    ASSERT_NO_FATAL_FAILURE(Compare(
        regions, is_flash ? SECTOR : 0,
        [](const verify::Expectation& judge, Regions& own) { judge.PlainBurn(own); },
        [](Predictor& burner, Regions& own) { burner.GenericBurn(own); }));
  }
  EXPECT_GT(_told, IMAGES_A_KIND / 5);
  EXPECT_GT(_refused, IMAGES_A_KIND / 20);
}

TEST_F(PredictionTest, JudgeAndBurnerAgreeOnSlotsWithPointerSectors) {
  for (u_int32_t i = 0; i < IMAGES_A_KIND; ++i) {
    ASSERT_NO_FATAL_FAILURE(Load(ImageText(_rng).PointerSectors()));
    const u_int32_t slot = _rng() % 2;
    const bool keeps_invariant = _rng() % 2 != 0;
    Regions regions;
    Add(regions, 0, 0);
    Add(regions, PS[slot], PS[slot]);
    AddSlot(regions, slot);
    ASSERT_NO_FATAL_FAILURE(Compare(
        regions, SECTOR,
        [&](const verify::Expectation& judge, Regions& own) {
          judge.PointerSectorBurn(own, slot, keeps_invariant);
        },
        [&](Predictor& burner, Regions& own) {
          burner.PointerSectorBurn(own, slot, keeps_invariant);
        }));
  }
  EXPECT_GT(_told, IMAGES_A_KIND / 5);
  EXPECT_GT(_refused, IMAGES_A_KIND / 20);
}

TEST_F(PredictionTest, JudgeAndBurnerAgreeOnSlotsWithBootRecords) {
  for (u_int32_t i = 0; i < IMAGES_A_KIND; ++i) {
    ASSERT_NO_FATAL_FAILURE(Load(ImageText(_rng).BootRecords()));
    const u_int32_t first = _rng() % 2;
    Regions regions;
    AddSlot(regions, 0);
    AddSlot(regions, 1);
    ASSERT_NO_FATAL_FAILURE(Compare(
        regions, 0,
        [&](const verify::Expectation& judge, Regions& own) { judge.BootRecordBurn(own, first); },
        [&](Predictor& burner, Regions& own) { burner.BootRecordBurn(own, first); }));
  }
  EXPECT_GT(_told, IMAGES_A_KIND / 5);
  EXPECT_GT(_refused, IMAGES_A_KIND / 20);
}

}  // namespace
