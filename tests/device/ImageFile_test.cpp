// The reader of image files, rule by rule, without the burner.
#include "device/ImageFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>

namespace device {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Kind = RemarkKind;

/// What the reader says against a text; "" where it takes it.
std::string ErrorIn(std::string_view text) {
  try {
    ParseImage(text, "fw.img");
  } catch (const ImageError& error) {
    return error.what();
  }
  return "";
}

std::string ErrorOfFile(const std::string& path) {
  try {
    ReadImage(path);
  } catch (const ImageError& error) {
    return error.what();
  }
  return "";
}

Image Parse(std::string_view text) { return ParseImage(text, "fw.img"); }

/// An author's view of a text.
class Author : public ImageListener {
 public:
  explicit Author(std::string_view text) : file(ParseImageFile(text, "fw.img", *this)) {}

  void Refused(const Refusal& refusal) override { refusals.push_back(refusal); }
  void Remarked(const Remark& remark) override {
    remarks.push_back({remark.line, remark.kind, std::string(remark.word), remark.number});
  }

  struct Told {
    LineNumber line;
    RemarkKind kind;
    std::string word;
    std::uint32_t number;
    bool operator==(const Told&) const = default;
  };
  std::vector<Told> remarks;
  std::vector<Refusal> refusals;
  ImageFile file;  // made last: the others are filled meanwhile
};

std::vector<Author::Told> RemarksOn(std::string_view text) { return Author(text).remarks; }

std::vector<std::pair<LineNumber, std::string>> RefusalsOf(std::string_view text) {
  std::vector<std::pair<LineNumber, std::string>> refusals;
  for (const Refusal& refusal : Author(text).refusals) {
    refusals.emplace_back(refusal.line, refusal.text);
  }
  return refusals;
}

constexpr std::nullopt_t NONE = std::nullopt;

Bytes DataIn(std::string_view text) {
  const Image image = Parse(text);
  return image.sections.empty() ? Bytes() : image.sections[0].data;
}

class Folder {
 public:
  Folder() {
    std::string name = std::filesystem::temp_directory_path() / "device-test-XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    _path = name;
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
  }
  std::string operator/(const std::string& name) const { return _path / name; }
  std::string Write(const std::string& name, std::string_view content) const {
    std::ofstream(_path / name, std::ios::binary) << content;
    return _path / name;
  }

 private:
  std::filesystem::path _path;
};

// Lines.

TEST(ImageFileTest, CommentsAndBlankLinesMeanNothingAnywhere) {
  EXPECT_EQ(DataIn("# x\n\n \t\n \t# y\nSTART A 0 0\n# DEVMAP\n\n\t \n1 2 3 4\nEND A\n"),
            (Bytes{1, 2, 3, 4}));
}

TEST(ImageFileTest, AHashFurtherOnIsAWord) {
  EXPECT_EQ(ErrorIn("START A 0 0\n1 2 3 #\n"),
            "fw.img:2: Data byte (#) contains invalid characters");
}

TEST(ImageFileTest, ATabIsPartOfAWordButInStart) {
  EXPECT_EQ(Parse("\tDEVICE_TYPE RV61100\n").type, nullptr);
  EXPECT_EQ(Parse("DEVICE_TYPE\tRV61100\n").type, nullptr);
  EXPECT_EQ(ErrorIn("START A 0 0\n1\t2\t3\t4\n"),
            "fw.img:2: Section data line must have multiple of 4 bytes.");
  EXPECT_EQ(ErrorIn("START A 0 0\n1\t2 3 4 5\n"),
            "fw.img:2: Data byte (1\t2) contains invalid characters");
  EXPECT_EQ(ErrorIn("START A 0 0\n1 2 3 4\t\n"),
            "fw.img:2: Data byte (4\t) contains invalid characters");
  // strtoul passes over white space in front.
  EXPECT_EQ(DataIn("START A 0 0\n1 2 3 \t4\n"), (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(Parse("\t\vSTART\tA\r\f10\t0\n").sections.at(0).addr, 0x10u);
}

TEST(ImageFileTest, ACarriageReturnStaysAtTheLastWord) {
  EXPECT_EQ(ErrorIn("START A 0 0\r\n1 2 3 4\r\n"),
            "fw.img:2: Data byte (4\r) contains invalid characters");
  EXPECT_EQ(Parse("DEVICE_TYPE RV61100\r\n").type, nullptr);
  EXPECT_EQ(ErrorIn("START A 0 0\nEND A\r\n"),
            "fw.img:2: END Section name (A\r) differs from start section name (A).");
}

TEST(ImageFileTest, ALongLineIsReadAsSeveralEachCounted) {
  // 1023 characters are a line of their own.
  const std::string comment = "#" + std::string(1022, 'x');
  EXPECT_EQ(DataIn("START A 0 0\n" + comment + "1 2 3 4\nEND A\n"), (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(ErrorIn("START A 0 0\n" + comment + "1 2 3\n"),
            "fw.img:3: Section data line must have multiple of 4 bytes.");
  // With its end it has 1023: no rest.
  EXPECT_EQ(ErrorIn("START A 0 0\n#" + std::string(1021, 'x') + "\n1 2 3\n"),
            "fw.img:3: Section data line must have multiple of 4 bytes.");
  // Where the cut goes through a word, both halves count.
  const std::string blanks(1022, ' ');
  EXPECT_EQ(ErrorIn("START A 0 0\n" + blanks + "12 3 4 5\n"),
            "fw.img:2: Section data line must have multiple of 4 bytes.");
}

TEST(ImageFileTest, WhatFollowsANulIsNotRead) {
  using namespace std::string_literals;
  EXPECT_EQ(DataIn("START A 0 0\n1 2 3 4\0 5 6 7 8\n\0 x\n"s), (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(ErrorIn("START A 0 0\n1 2 3\0 4\n"s),
            "fw.img:2: Section data line must have multiple of 4 bytes.");
}

TEST(ImageFileTest, TheLastLineNeedsNoEnd) {
  EXPECT_EQ(DataIn("START A 0 0\n1 2 3 4"), (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(DataIn("START A 0 0\n1 2 3 4\n  "), (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(ErrorIn(""), "");
}

// Sections.

TEST(ImageFileTest, DataWordsAreHexadecimalAndKeepTheirLowEightBits) {
  EXPECT_EQ(DataIn("START A 0 0\n0 a 1F ff\n0x1f 1ff +2 -1\n"),
            (Bytes{0, 0x0A, 0x1F, 0xFF, 0x1F, 0xFF, 2, 0xFF}));
  EXPECT_EQ(DataIn("START A 0 0\n  1   2 3 4  \n5 6 7 8 9 a b c\n"),
            (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
  EXPECT_EQ(ErrorIn("START A 0 0\n1 2 3 0x\n"),
            "fw.img:2: Data byte (0x) contains invalid characters");
  EXPECT_EQ(ErrorIn("START A 0 0\n1 2 3 1g\n"),
            "fw.img:2: Data byte (1g) contains invalid characters");
  // The number of words is looked at first.
  EXPECT_EQ(ErrorIn("START A 0 0\n1 2 g\n"),
            "fw.img:2: Section data line must have multiple of 4 bytes.");
}

TEST(ImageFileTest, EndMustNameItsSection) {
  EXPECT_EQ(ErrorIn("START A 0 0\nEND\n"),
            "fw.img:2: Wrong END section format - Sector name expected.");
  EXPECT_EQ(ErrorIn("START A 0 0\nEND A A\n"),
            "fw.img:2: Wrong END section format - Sector name expected.");
  EXPECT_EQ(ErrorIn("START A 0 0\nEND a\n"),
            "fw.img:2: END Section name (a) differs from start section name (A).");
  EXPECT_EQ(ErrorIn("END\nEND A\n"), "");
}

TEST(ImageFileTest, ADirectiveInASectionIsData) {
  EXPECT_EQ(ErrorIn("START A 0 0\nDEVMAP 2000 50\n"),
            "fw.img:2: Section data line must have multiple of 4 bytes.");
  EXPECT_EQ(ErrorIn("START A 0 0\nSTART B 10 0\n"),
            "fw.img:2: Data byte (START) contains invalid characters");
}

TEST(ImageFileTest, StartNeedsNameOffsetAndDevice) {
  const std::string error = "fw.img:1: START line must give a name, an offset and a device.";
  for (const char* line : {"START", "START\n", "START A", "START A 0\n", "START A 0 g\n",
                           "START A g 0\n", "START A 12g 0\n"}) {
    EXPECT_EQ(ErrorIn(line), error) << line;
  }
}

TEST(ImageFileTest, StartIsReadAsScanfDoes) {
  // Each number ends where it cannot go on; what is left behind the last is ignored.
  EXPECT_EQ(Parse("START A 0x10 0zzz\n").sections.at(0).addr, 0x10u);
  EXPECT_EQ(Parse("START A 12+0 more\n").sections.at(0).addr, 0x12u);
  EXPECT_EQ(Parse("START A 100000010 0\n").sections.at(0).addr, 0x10u);
  EXPECT_EQ(Parse("START A -4 0\n").sections.at(0).addr, 0xFFFFFFFCu);
  // The device keeps its low 8 bits.
  EXPECT_EQ(Parse("DEVMAP 20 4f\nDEVMAP 20 50\nSTART A 0 150\n").sections.at(0).addr, 0x20u);
}

TEST(ImageFileTest, ASectionMayEndAtFourGigabytesAndNotBehind) {
  EXPECT_EQ(ErrorIn("START A fffffffc 0\n1 2 3 4\nEND A\n"), "");
  EXPECT_EQ(ErrorIn("START A fffffffc 0\n1 2 3 4\n5 6 7 8\n"),
            "fw.img:3: Section (A) reaches past the last address.");
  EXPECT_EQ(ErrorIn("START A fffffffd 0\n0x1 2 3 4\n"),
            "fw.img:2: Section (A) reaches past the last address.");
}

TEST(ImageFileTest, TheFirstSectionOfAnAddressIsKeptAndStandsInTheOrderAgain) {
  const Image image = Parse(
      "START A 10 0\n1 2 3 4\nEND A\nSTART B 0 0\n5 6 7 8\nEND B\n"
      "START C 10 0\n9 a b c\nEND C\n");
  ASSERT_EQ(image.sections.size(), 2u);
  EXPECT_EQ(image.sections[0].name, "A");
  EXPECT_EQ(image.sections[0].data, (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(image.sections[1].addr, 0u);
  EXPECT_THAT(image.order, ElementsAre(0u, 1u, 0u));
}

TEST(ImageFileTest, TheSecondSectionOfAnAddressIsReadAllTheSame) {
  EXPECT_EQ(ErrorIn("START A 0 0\nEND A\nSTART B 0 0\n1 2 3\n"),
            "fw.img:4: Section data line must have multiple of 4 bytes.");
  EXPECT_EQ(ErrorIn("START A fffffffc 0\nEND A\nSTART B fffffffc 0\n1 2 3 4\n5 6 7 8\n"),
            "fw.img:5: Section (B) reaches past the last address.");
}

// Directives.

TEST(ImageFileTest, ReplaceMarksFieldsWithTheirSizes) {
  const Image image = Parse(
      "REPLACE GUIDS 10 0\nREPLACE GUID 30 0\nREPLACE SYSGUID 38 0\nREPLACE BSN 40 0\n"
      "REPLACE VSD 80 0\nREPLACE SIGNATURE 0 0\n");
  std::vector<std::pair<std::uint32_t, std::uint32_t>> fields;
  for (const Field& field : image.fields) fields.emplace_back(field.addr, field.Size());
  EXPECT_THAT(fields, ElementsAre(std::pair(0x10, 32), std::pair(0x30, 8), std::pair(0x38, 8),
                                  std::pair(0x40, 64), std::pair(0x80, 208), std::pair(0, 4)));
}

TEST(ImageFileTest, ACrcCoversTheWordThatItsSecondLocationNames) {
  EXPECT_THAT(Parse("REPLACE CRC 0 0 FC 0 100 0\n").crcs, ElementsAre(CrcField{0, 0x100, 0x100}));
  // In 32 bits.
  EXPECT_THAT(Parse("REPLACE CRC 10 0 8 0 0 0\n").crcs, ElementsAre(CrcField{0x10, 0xFFFFFFFC, 0}));
  EXPECT_THAT(Parse("REPLACE CRC 10 0 C 0 0 0\n").crcs, ElementsAre(CrcField{0x10, 0, 0}));
}

TEST(ImageFileTest, WordCountsAreExact) {
  const std::vector<std::pair<std::string, std::string>> wrong{
      {"REPLACE", "'REPLACE' directive must contain 4words."},
      {"REPLACE GUID 0", "'REPLACE' directive must contain 4words."},
      {"REPLACE GUID 0 0 0", "'REPLACE' directive must contain 4words."},
      {"REPLACE CRC 0 0", "'REPLACE' directive must contain 8words."},
      {"REPLACE CRC", "'REPLACE' directive must contain 8words."},
      {"DEVICE_TYPE", "'DEVICE_TYPE' directive must contain 2words."},
      {"DEVICE_TYPE RV61100 x", "'DEVICE_TYPE' directive must contain 2words."},
      {"PS 0 0", "'PS' directive must contain 4words."},
      {"IMAGE 0 0 0 0", "'IMAGE' directive must contain 4words."},
      {"SIGNATURE", "'SIGNATURE' directive must contain 4words."},
      {"DEVMAP 2000", "'DEVMAP' directive must contain 3words."},
  };
  for (const auto& [line, error] : wrong) EXPECT_EQ(ErrorIn("\n" + line), "fw.img:2: " + error);
  EXPECT_EQ(ErrorIn("MAJ_FW_VER\nMIN_FW_VER 1 2\nSUB_MIN_FW_VER x\n"), "");
  EXPECT_EQ(ErrorIn("replace GUID\nREPLAC\n00 01\n"), "");
}

TEST(ImageFileTest, AFieldTypeMustBeKnown) {
  EXPECT_EQ(ErrorIn("REPLACE MAC x y\n"), "fw.img:1: Unknown replace field type 'MAC' .");
  EXPECT_EQ(ErrorIn("REPLACE guid 0 0\n"), "fw.img:1: Unknown replace field type 'guid' .");
}

TEST(ImageFileTest, ASlotIsExactlyZeroOrOne) {
  for (const std::string index : {"2", "00", "0x1", "-1"}) {
    EXPECT_EQ(ErrorIn("PS " + index + " x y\n"),
              "fw.img:1: 'PS' directive - image index (" + index + ") can be iether 0 or 1");
  }
  const Image image = Parse("PS 1 10 0\nIMAGE 0 20 0\nSIGNATURE 1 30 0\n");
  EXPECT_EQ(image.slots[0], (Slot{0x20, NONE, NONE}));
  EXPECT_EQ(image.slots[1], (Slot{NONE, 0x10, 0x30}));
  EXPECT_THAT(image.fields, ElementsAre(Field{FieldType::SIGNATURE, 0x30}));
}

TEST(ImageFileTest, OfASlotTheLastPsAndImageCountAndASecondSignatureIsRefused) {
  const Image image = Parse("PS 0 10 0\nPS 0 20 0\nIMAGE 0 30 0\nIMAGE 0 40 0\n");
  EXPECT_EQ(image.slots[0], (Slot{0x40, 0x20, NONE}));
  EXPECT_EQ(ErrorIn("SIGNATURE 0 8 0\nSIGNATURE 1 8 0\nSIGNATURE 0 8 0\n"),
            "fw.img:3: Tried to set signature 0 which is already set");
}

TEST(ImageFileTest, TheLastAddressMeansThatASlotHasNone) {
  const Image image =
      Parse("IMAGE 0 0 0\nIMAGE 0 ffffffff 0\nSIGNATURE 1 ffffffff 0\nSIGNATURE 1 8 0\n");
  EXPECT_EQ(image.slots[0], Slot());
  EXPECT_EQ(image.slots[1].signature, 0x8u);
  EXPECT_THAT(image.fields,
              ElementsAre(Field{FieldType::SIGNATURE, 0xFFFFFFFF}, Field{FieldType::SIGNATURE, 8}));
}

TEST(ImageFileTest, LocationsMustBeNumbersToTheirLastCharacter) {
  EXPECT_EQ(ErrorIn("IMAGE 0 12g 0\n"), "fw.img:1: Error parsing offset (12g).");
  EXPECT_EQ(ErrorIn("IMAGE 0 12g g\n"), "fw.img:1: Error parsing offset (12g).");
  EXPECT_EQ(ErrorIn("IMAGE 0 12 g\n"), "fw.img:1: Error parsing dev addr (g).");
  EXPECT_EQ(ErrorIn("IMAGE 0 12 100\n"), "fw.img:1: Device addr must be 8 bits (100).");
  EXPECT_EQ(ErrorIn("DEVMAP 12 -1\n"), "fw.img:1: Device addr must be 8 bits (-1).");
  EXPECT_EQ(Parse("IMAGE 0 -10 100000000\n").slots[0].image, 0xFFFFFFF0u);
  EXPECT_EQ(Parse("IMAGE 0 +0x1f 0\n").slots[0].image, 0x1Fu);
}

TEST(ImageFileTest, OfACrcTheFirstWrongLocationIsTold) {
  EXPECT_EQ(ErrorIn("REPLACE CRC 0 0 0 7 x 0\n"),
            "Can't convert dev/offset to address: No mapping for the given EE loaction  (7:0).");
}

TEST(ImageFileTest, MappedChipsAreLaidEndToEndAsFarAsTheMapHasCome) {
  const Image image = Parse(
      "IMAGE 0 10 0\nDEVMAP 2000 50\nPS 0 10 50\nDEVMAP 1000 51\nPS 1 10 51\n"
      "DEVMAP 1000 50\nIMAGE 1 3000 50\n");
  EXPECT_EQ(image.slots[0], (Slot{0x10, 0x10, NONE}));
  EXPECT_EQ(image.slots[1], (Slot{0x3000, 0x2010, NONE}));
  EXPECT_THAT(image.map, ElementsAre(MappedChip{0x50, 0x2000}, MappedChip{0x51, 0x1000},
                                     MappedChip{0x50, 0x1000}));
}

TEST(ImageFileTest, AnUnmappedChipIsToldWithTheSizeOfTheMapAndWithoutALine) {
  EXPECT_EQ(ErrorIn("IMAGE 0 0 50\n"),
            "Can't convert dev/offset to address: No mapping for the given EE loaction  (50:0).");
  EXPECT_EQ(
      ErrorIn("DEVMAP 2000 50\nDEVMAP 2000 51\nSTART A 8 152\n"),
      "Can't convert dev/offset to address: No mapping for the given EE loaction  (52:4000).");
  EXPECT_EQ(ErrorIn("DEVMAP ffffffff 50\nDEVMAP 11 51\nIMAGE 0 0 0\n"),
            "Can't convert dev/offset to address: No mapping for the given EE loaction  (0:10).");
}

TEST(ImageFileTest, TheDeviceTypeIsTheLastOneAndMayBeUnknown) {
  EXPECT_EQ(Parse("DEVICE_TYPE RV61300\n").type->number, 61300u);
  EXPECT_EQ(Parse("DEVICE_TYPE RV52410\n").type->number, 52400u);
  EXPECT_EQ(Parse("DEVICE_TYPE RV61300\nDEVICE_TYPE RV52100\n").type->number, 52100u);
  EXPECT_EQ(Parse("DEVICE_TYPE RV61300\nDEVICE_TYPE RV1\n").type, nullptr);
}

TEST(ImageFileTest, ABsnIsIgnoredBehindTheDeviceTypeThatHasNone) {
  EXPECT_THAT(Parse("DEVICE_TYPE RV61100\nREPLACE BSN 40 0\n").fields, IsEmpty());
  EXPECT_THAT(Parse("REPLACE BSN 40 0\nDEVICE_TYPE RV61100\n").fields,
              ElementsAre(Field{FieldType::BSN, 0x40}));
  EXPECT_EQ(Parse("DEVICE_TYPE RV61300\nREPLACE BSN 40 0\n").fields.size(), 1u);
  EXPECT_EQ(Parse("DEVICE_TYPE RV61100\nREPLACE VSD 40 0\n").fields.size(), 1u);
  // Its location is read before.
  EXPECT_EQ(ErrorIn("DEVICE_TYPE RV61100\nREPLACE BSN x 0\n"),
            "fw.img:2: Error parsing offset (x).");
}

// Files.

TEST(ImageFileTest, TheExtensionIsLookedAtBeforeTheFile) {
  const Folder folder;
  for (const char* name : {"fw.img", "fw.IMG", "fw.img.", "a.bin.img"}) {
    EXPECT_EQ(ErrorOfFile(folder.Write(name, "")), "") << name;
  }
  EXPECT_EQ(ErrorOfFile("fw.Img"), "Bad FW file type (fw.Img). Supported types: img, bin");
  EXPECT_EQ(ErrorOfFile(""), "Bad FW file type (). Supported types: img, bin");
  EXPECT_EQ(ErrorOfFile("fw.bin"), "FW file type 'bin' not yet supported");
  EXPECT_EQ(ErrorOfFile("fw.BIN"), "FW file type 'bin' not yet supported");
  EXPECT_EQ(ErrorOfFile("no/img"), "Bad FW file type (no/img). Supported types: img, bin");
}

TEST(ImageFileTest, WhatIsNoReadableFileIsToldWithTheSystemsReason) {
  const Folder folder;
  const auto error = [&](const std::string& name, const std::string& reason) {
    return "Can't open file \"" + (folder / name) + "\" : " + reason;
  };
  EXPECT_EQ(ErrorOfFile(folder / "missing.img"), error("missing.img", "No such file or directory"));
  std::filesystem::create_directory(folder / "folder.img");
  EXPECT_EQ(ErrorOfFile(folder / "folder.img"), error("folder.img", "Is a directory"));
  ASSERT_EQ(mkfifo((folder / "fifo.img").c_str(), 0600), 0);
  EXPECT_EQ(ErrorOfFile(folder / "fifo.img"), error("fifo.img", "Operation not supported"));
}

TEST(ImageFileTest, LinesAreWholeWhereverTheFileIsCutIntoBlocks) {
  // A line over each end of a block, and one that begins there.
  std::string text = "START A 0 0\n";
  Bytes data;
  for (int i = 0; text.size() < 1500000; ++i) {
    const std::string comment = "#" + std::string(static_cast<std::size_t>(i) % 1021, 'x') + "\n";
    text += comment + "1 2 3 " + std::to_string(i % 10) + "\n";
    for (const int byte : {1, 2, 3, i % 10}) data.push_back(static_cast<std::uint8_t>(byte));
  }
  const Folder folder;
  const Image image = ReadImage(folder.Write("fw.img", text));
  EXPECT_EQ(image.sections.at(0).data, data);
  EXPECT_EQ(Parse(text).sections.at(0).data, data);
}

/// Changes the file while it is read.
class Changer : public ImageListener {
 public:
  explicit Changer(std::function<void()> change) : _change(std::move(change)) {}
  void Refused(const Refusal& refusal) override { throw ImageError(refusal.message); }
  void Remarked(const Remark&) override { _change(); }

 private:
  std::function<void()> _change;
};

TEST(ImageFileTest, AFileThatIsChangedMeanwhileIsRefusedWhateverItsLinesSay) {
  const Folder folder;
  for (const std::string rest : {"", "PS 2 0 0\n"}) {
    const std::string path = folder.Write("fw.img", "END A\n" + rest);
    const auto written = std::filesystem::last_write_time(path);
    const auto error_after = [&](const std::function<void()>& change) {
      Changer changer(change);
      try {
        ReadImageFile(path, changer);
      } catch (const ImageError& error) {
        return std::string(error.what());
      }
      return std::string();
    };
    const std::string changed =
        "Can't open file \"" + path + "\" : It was changed while it was read";
    EXPECT_EQ(error_after([&] {
                std::ofstream(path, std::ios::app | std::ios::binary) << "# more\n";
                std::filesystem::last_write_time(path, written);
              }),
              changed);
    EXPECT_EQ(error_after([&] {
                std::filesystem::last_write_time(path, written - std::chrono::seconds(1));
              }),
              changed);
    EXPECT_EQ(error_after([&] {
                std::filesystem::last_write_time(path,
                                                 written - std::chrono::nanoseconds(1000000004));
              }),
              changed);
    EXPECT_EQ(error_after([] {}), rest.empty() ? ""
                                               : path +
                                                     ":2: 'PS' directive - image index (2) can "
                                                     "be iether 0 or 1");
  }
}

TEST(ImageFileTest, SixteenMegabytesAreReadInNoTime) {
  std::string text = "START A 0 0\n";
  std::string line;
  for (int i = 0; i < 32; ++i) line += i == 31 ? "a5\n" : "5A ";
  for (std::size_t i = 0; i < (std::size_t{16} << 20) / 32; ++i) text += line;
  const auto begin = std::chrono::steady_clock::now();
  const Image image = Parse(text);
  const auto end = std::chrono::steady_clock::now();
  EXPECT_EQ(image.sections.at(0).data.size(), std::size_t{16} << 20);
  // Without optimisation, on a machine that does much else. It takes some 0.1 s with.
  EXPECT_LT(end - begin, std::chrono::seconds(10));
}

// What an author is told.

TEST(ImageAuthorTest, AllRefusalsAreToldAndTheFirstAsTheBurnerPrintsIt) {
  const Author author(
      "REPLACE CRC 0 0\nIMAGE 2 0 0\nSTART A 0 0\n0 1 2 3 4\n0 1 zz 3\nEND B\nIMAGE 0 0 50\n");
  EXPECT_EQ(author.file.refusal, "fw.img:1: 'REPLACE' directive must contain 8words.");
  ASSERT_EQ(author.refusals.size(), 6u);
  EXPECT_EQ(author.refusals[0].message, author.file.refusal);
  const std::string unmapped =
      "Can't convert dev/offset to address: No mapping for the given EE loaction  (50:0).";
  EXPECT_EQ(author.refusals[5].line, 7u);
  EXPECT_EQ(author.refusals[5].text, unmapped);
  EXPECT_EQ(author.refusals[5].message, unmapped);
  EXPECT_EQ(Author("").file.refusal, "");
}

TEST(ImageAuthorTest, TheRestOfAFileIsReadAsIfRefusedLinesWereNotThere) {
  const Author author(
      "PS 0 10 0\nPS 2 0 0\nSTART A 0 0\n1 2 3 4\n5 6 7\n8 9 a b\nEND X\nSTART B 10 9\n"
      "1 2 3 4\n1\nEND B\nSTART C 20 0\nc c c c\nEND C\n");
  EXPECT_EQ(author.refusals.size(), 5u);
  const Image& image = author.file.image;
  ASSERT_EQ(image.sections.size(), 2u);
  EXPECT_EQ(image.sections[0].data, (Bytes{1, 2, 3, 4, 8, 9, 10, 11}));
  EXPECT_EQ(image.sections[1].name, "C");
  EXPECT_EQ(image.slots[0].pointer_sector, 0x10u);
  ASSERT_EQ(author.file.sections.size(), 3u);
  const SectionLines& a = author.file.sections[0];
  EXPECT_EQ(a.line, 3u);
  EXPECT_EQ(a.end_line, 7u);
  EXPECT_EQ(a.size, 8u);
  EXPECT_TRUE(a.is_placed && !a.is_whole && a.kept == 0u);
  const SectionLines& b = author.file.sections[1];
  EXPECT_TRUE(!b.is_placed && !b.is_whole && !b.kept);
  EXPECT_EQ(author.file.SectionAt(0x20), &author.file.sections[2]);
  EXPECT_EQ(author.file.SectionAt(0x10), nullptr);
}

TEST(ImageAuthorTest, AMissingEndIsTakenForGivenBeforeTheNextKeyword) {
  const Author author("START A 0 0\n1 2 3 4\nIMAGE 0 8 0\nSTART B 10 0\n5 6 7 8\n");
  EXPECT_THAT(RefusalsOf("START A 0 0\n1 2 3 4\nIMAGE 0 8 0\n"),
              ElementsAre(std::pair(3u, "Data byte (IMAGE) contains invalid characters")));
  EXPECT_THAT(author.remarks, ElementsAre(Author::Told{1, Kind::SECTION_NOT_CLOSED, "A", 3},
                                          Author::Told{4, Kind::SECTION_NOT_CLOSED, "B", 0}));
  EXPECT_EQ(author.file.image.slots[0].image, 8u);
  EXPECT_EQ(author.file.image.sections.size(), 2u);
}

TEST(ImageAuthorTest, OfManyRefusedDataLinesEightAreTold) {
  std::string text = "START A 0 0\n";
  for (int i = 0; i < 20; ++i) text += "1 2 3\n";
  const Author author(text + "END A\nSTART B 0 0\n1\nEND B\n");
  ASSERT_EQ(author.refusals.size(), 9u);
  EXPECT_FALSE(author.refusals[6].has_more);
  EXPECT_EQ(author.refusals[7].line, 9u);
  EXPECT_TRUE(author.refusals[7].has_more);
  EXPECT_FALSE(author.refusals[8].has_more);
}

TEST(ImageAuthorTest, EverythingHasTheLineThatItStandsOn) {
  const Author author(
      "DEVICE_TYPE RV52100\nDEVMAP 2000 50\nDEVMAP 1000 51\nREPLACE GUID 8 51\n"
      "REPLACE CRC 0 50 4 50 8 50\nSIGNATURE 1 18 50\nMIN_FW_VER 7\n");
  const ImageFile& file = author.file;
  EXPECT_EQ(file.device_type_line, 1u);
  EXPECT_EQ(file.device_type_word, "RV52100");
  ASSERT_EQ(file.chips.size(), 2u);
  EXPECT_EQ(file.chips[1].line, 3u);
  EXPECT_EQ(file.chips[1].addr, 0x2000u);
  ASSERT_EQ(file.fields.size(), 2u);
  EXPECT_EQ(file.fields[0].line, 4u);
  EXPECT_EQ(file.fields[0].addr, 0x2008u);
  EXPECT_EQ(file.fields[1].type, FieldType::SIGNATURE);
  ASSERT_EQ(file.crcs.size(), 1u);
  EXPECT_EQ(file.crcs[0].line, 5u);
  EXPECT_EQ(file.crcs[0].size, 8u);
  EXPECT_EQ(file.slots[1].signature->line, 6u);
  EXPECT_FALSE(file.slots[1].image);
  EXPECT_EQ(file.version[1], "7");
  EXPECT_EQ(file.version[0], std::nullopt);
  EXPECT_EQ(file.parts, 6u);
  EXPECT_THAT(author.remarks, IsEmpty());
  EXPECT_THAT(author.refusals, IsEmpty());
}

TEST(ImageAuthorTest, LocationsAreKeptAsTheyAreGiven) {
  const Author author(
      "IMAGE 0 10 0\nDEVMAP 20 50\nPS 0 0 0\nSTART A 8 50\nEND A\nREPLACE CRC 0 50 4 50 8 50\n");
  std::vector<std::tuple<LineNumber, int, std::uint32_t, std::optional<std::uint32_t>>> found;
  for (const LocationLine& location : author.file.locations) {
    found.emplace_back(location.line, location.place.chip, location.place.offset, location.addr);
  }
  EXPECT_THAT(found, ElementsAre(std::tuple(1, 0, 0x10, 0x10), std::tuple(3, 0, 0, std::nullopt),
                                 std::tuple(4, 0x50, 8, 8), std::tuple(6, 0x50, 0, 0),
                                 std::tuple(6, 0x50, 4, 4), std::tuple(6, 0x50, 8, 8)));
}

TEST(ImageAuthorTest, AnAddressThatCountsAsNoneIsToldAllTheSame) {
  const Author author("IMAGE 1 ffffffff 0\n");
  EXPECT_EQ(author.file.slots[1].image->addr, 0xFFFFFFFFu);
  EXPECT_EQ(author.file.image.slots[1].image, std::nullopt);
}

TEST(ImageAuthorTest, WhatIsTakenWithoutAWordIsRemarked) {
  using namespace std::string_literals;
  const auto one = [](LineNumber line, RemarkKind kind, const std::string& word = "",
                      std::uint32_t number = 0) {
    return std::vector<Author::Told>{{line, kind, word, number}};
  };
  EXPECT_EQ(RemarksOn("#" + std::string(1022, 'x') + "# rest\n"), one(1, Kind::LONG_LINE));
  EXPECT_EQ(RemarksOn("\n\0x\n"s), one(2, Kind::NUL));
  EXPECT_EQ(RemarksOn("START A 0 0\n1ff 2 3 4\nEND A\n"), one(2, Kind::DATA_CUT, "1ff"));
  EXPECT_EQ(RemarksOn("START A 0 0\n-0 2 3 4\nEND A\n"), one(2, Kind::DATA_CUT, "-0"));
  EXPECT_EQ(RemarksOn("IMAGE 0 100000000 0\n"), one(1, Kind::NUMBER_CUT, "100000000"));
  EXPECT_EQ(RemarksOn("START A -4 0\nEND A\n"), one(1, Kind::OFFSET_CUT, "-4"));
  EXPECT_EQ(RemarksOn("START A 0 100\nEND A\n"), one(1, Kind::DEVICE_CUT, "100", 0));
  EXPECT_EQ(RemarksOn("START A 0 0 1\nEND A\n"), one(1, Kind::START_NOT_READ_WHOLE));
  EXPECT_EQ(RemarksOn("START A 0 0z\nEND A\n"), one(1, Kind::START_NOT_READ_WHOLE));
  EXPECT_EQ(RemarksOn("MAJ_FW_VER\n"), one(1, Kind::VERSION_WORDS));
  EXPECT_EQ(RemarksOn("DEVICE_TYPE RV1\n\nDEVICE_TYPE RV1\n"),
            one(3, Kind::DEVICE_TYPE_TWICE, "", 1));
  EXPECT_EQ(RemarksOn("PS 1 0 0\nPS 0 0 0\nPS 1 0 0\n"), one(3, Kind::SLOT_TWICE, "PS 1", 1));
  EXPECT_EQ(RemarksOn("DEVICE_TYPE RV61100\nREPLACE BSN 0 0\n"),
            one(2, Kind::BSN_IGNORED, "RV61100"));
  EXPECT_EQ(RemarksOn("1 2 3\n4\nff\n"), one(1, Kind::STRAY_DATA));
  EXPECT_EQ(RemarksOn("END A\n"), one(1, Kind::STRAY_END));
  EXPECT_EQ(RemarksOn("\tPS 0 0 0\n"), one(1, Kind::UNKNOWN_DIRECTIVE, "\tPS"));
}

TEST(ImageAuthorTest, TheRestOfALongLineIsRemarkedWhereItCounts) {
  const std::string comment = "#" + std::string(1022, 'x');
  const auto rest = [&](const std::string& before, const std::string& behind) {
    std::vector<std::pair<LineNumber, std::uint32_t>> found;
    for (const auto& told : RemarksOn(before + comment + behind)) {
      if (told.kind == Kind::LONG_LINE_REST) found.emplace_back(told.line, told.number);
    }
    return found;
  };
  EXPECT_THAT(rest("START A 0 0\n", "1 2 3 4\nEND A\n"), ElementsAre(std::pair(3u, 2u)));
  EXPECT_THAT(rest("START A 0 0\n", "0x1 2 3 4\nEND A\n"), ElementsAre(std::pair(3u, 2u)));
  EXPECT_THAT(rest("", "IMAGE 0 0 0\n"), ElementsAre(std::pair(2u, 1u)));
  EXPECT_THAT(rest("", "x\n"), IsEmpty());
  EXPECT_THAT(rest("", "# x\n"), IsEmpty());
}

TEST(ImageAuthorTest, BytesAreHadAcrossSectionsThatAreWhole) {
  const Author author(
      "START A 0 0\n1 2 3 4\nEND A\nSTART B 4 0\n5 6 7 8\nEND B\nSTART C 8 0\n9 a b c\n1\nEND C\n");
  EXPECT_EQ(author.file.BytesAt(2, 4), (Bytes{3, 4, 5, 6}));
  EXPECT_EQ(author.file.BytesAt(0, 8)->size(), 8u);
  EXPECT_EQ(author.file.BytesAt(4, 8), std::nullopt);
  EXPECT_EQ(author.file.BytesAt(100, 0), Bytes());
  EXPECT_EQ(author.file.DataOf(author.file.sections[1]).size(), 4u);
}

TEST(ImageAuthorTest, AListenerMayEndTheReading) {
  class Ender : public ImageListener {
   public:
    void Refused(const Refusal&) override { throw std::runtime_error("enough"); }
    void Remarked(const Remark&) override { ++remarks; }
    int remarks = 0;
  } ender;
  EXPECT_THROW(ParseImageFile("END A\nPS 2 0 0\nEND A\n", "", ender), std::runtime_error);
  EXPECT_EQ(ender.remarks, 1);
}

}  // namespace
}  // namespace device
