#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>

#include <functional>
#include <map>

#include "src/FwImage.h"
#include "src/utils.h"
#include "tests/support/InjectedRead.h"
#include "tests/support/support.h"

namespace {

int g_reads = 0;  ///< since a ReadHook was made

class FwImageLoadTest : public ConsoleTest {
 protected:
  /// Loads `text` as fw.img.
  void Load(const std::string& text) { _image.Open(File(text).c_str(), READ); }

  std::string File(const std::string& text, const std::string& name = "fw.img") {
    return _folder.Write(name, text);
  }

  /// What the loader says of `text` behind the file name and "line".
  std::string ErrorAt(int line, const std::string& text) {
    const std::string file = File(text);
    FwImage image;
    const std::string error = ErrorOf([&] { image.Open(file.c_str(), READ); });
    const std::string prefix = file + ":" + std::to_string(line);
    if (!error.starts_with(prefix + ":")) return error;
    return error.substr(prefix.size());
  }

  DataVec Data(u_int32_t addr) const {
    const FwImage::Section* section = _image.GetSection(addr);
    if (section == nullptr) return {};
    return section->data;
  }

  std::vector<FwImage::FieldReplace> Fields() const {
    return _image.GetFieldsInRange(0, 0xFFFFFFFF);
  }

  common::ScratchFolder _folder;
  FwImage _image;
};

TEST_F(FwImageLoadTest, ExtensionTellsTheType) {
  EXPECT_EQ(_image.Open(File("", "fw.IMG").c_str(), READ), BRAID_OK);
  for (const std::string name : {"fw.Img", "fw", "fw.img.txt", ""}) {
    const std::string file = name.empty() ? "" : File("", name);
    FwImage image;
    EXPECT_EQ(ErrorOf([&] { image.Open(file.c_str(), READ); }),
              "Bad FW file type (" + file + "). Supported types: img, bin");
  }
}

TEST_F(FwImageLoadTest, BinaryFilesAreNotSupportedYet) {
  for (const auto mode : {READ, WRITE}) {
    for (const std::string name : {"fw.bin", "fw.BIN"}) {
      FwImage image;
      EXPECT_EQ(ErrorOf([&] { image.Open(name.c_str(), mode); }),
                "FW file type 'bin' not yet supported");
    }
  }
  EXPECT_EQ(_image.LoadBin("fw.bin"), BRAID_NOT_IMPLEMENTED);
}

TEST_F(FwImageLoadTest, OpeningForWriteIsNotImplemented) {
  EXPECT_EQ(ErrorOf([&] { _image.Open("fw.img", WRITE); }),
            "FwImage::Open() : Open for write not yet implemented");
}

TEST_F(FwImageLoadTest, NameWithoutADotMayBeItsOwnExtension) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(_folder.Path());
  File("START A 0 0\n1 2 3 4\nEND A\n", "img");
  EXPECT_EQ(_image.Open("img", READ), BRAID_OK);
  std::filesystem::current_path(before);
  EXPECT_EQ(Data(0), Hex("01020304"));
}

TEST_F(FwImageLoadTest, FileThatCannotBeReadIsRefusedWithTheSystemsReason) {
  const std::string missing = _folder / "missing.img";
  EXPECT_EQ(ErrorOf([&] { _image.Open(missing.c_str(), READ); }),
            "Can't open file \"" + missing + "\" : No such file or directory");
  const std::string folder = _folder / "folder.img";
  std::filesystem::create_directory(folder);
  EXPECT_EQ(ErrorOf([&] { _image.Open(folder.c_str(), READ); }),
            "Can't open file \"" + folder + "\" : Is a directory");
}

TEST_F(FwImageLoadTest, FifoAndDeviceAreRefusedAtOnce) {
  const std::string fifo = _folder / "fifo.img";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(ErrorOf([&] { _image.Open(fifo.c_str(), READ); }),
            "Can't open file \"" + fifo + "\" : Operation not supported");
  const std::string zero = _folder / "zero.img";
  std::filesystem::create_symlink("/dev/zero", zero);
  FwImage image;
  EXPECT_EQ(ErrorOf([&] { image.Open(zero.c_str(), READ); }),
            "Can't open file \"" + zero + "\" : Operation not supported");
}

TEST_F(FwImageLoadTest, FileThatMayNotBeReadIsRefused) {
  const std::string file = File("START A 0 0\n1 2 3 4\nEND A\n");
  using std::filesystem::perms;
  std::filesystem::permissions(_folder.Path(),
                               perms::owner_all | perms::group_exec | perms::others_exec);
  const auto open_as_nobody = [&file] {
    constexpr uid_t NOBODY = 65534;
    const auto before = static_cast<uid_t>(setfsuid(NOBODY));  // root may read everything
    FwImage image;
    const std::string error = ErrorOf([&] { image.Open(file.c_str(), READ); });
    setfsuid(before);
    return error;
  };
  std::filesystem::permissions(file, perms::owner_read | perms::group_read | perms::others_read);
  EXPECT_EQ(open_as_nobody(), "(no error)");
  std::filesystem::permissions(file, perms::none);
  EXPECT_EQ(open_as_nobody(), "Can't open file \"" + file + "\" : Permission denied");
}

TEST_F(FwImageLoadTest, ReadErrorGivesTheSystemsReason) {
  const std::string file = _folder / "memory.img";
  std::filesystem::create_symlink("/proc/self/mem", file);
  EXPECT_EQ(ErrorOf([&] { _image.Open(file.c_str(), READ); }),
            "Can't open file \"" + file + "\" : Input/output error");
}

/// What happens to reads while one lives.
class ReadHook {
 public:
  explicit ReadHook(std::function<int(int)> hook) {
    g_reads = 0;
    g_read_error = [hook = std::move(hook)] { return hook(++g_reads); };
  }
  ReadHook(const ReadHook&) = delete;
  ReadHook& operator=(const ReadHook&) = delete;
  ~ReadHook() { g_read_error = nullptr; }
};

/// Files of several blocks, each read by itself.
class FwImageLoadInPiecesTest : public FwImageLoadTest {
 protected:
  FwImageLoadInPiecesTest() {
    std::string text = "START A 0 0\n";
    for (u_int32_t i = 0; i < WORDS; ++i) text += Text(std::hex, i % 256, " 1 2 3\n");
    _file = File(text + "END A\n");
  }

  std::string Open() {
    return ErrorOf([this] { _image.Open(_file.c_str(), READ); });
  }

  static constexpr u_int32_t WORDS = 50000;
  std::string _file;
};

TEST_F(FwImageLoadInPiecesTest, ErrorInTheMiddleEndsTheLoading) {
  for (const int which : {1, 2, 3}) {
    const ReadHook hook([which](int number) { return number == which ? EIO : 0; });
    EXPECT_EQ(Open(), "Can't open file \"" + _file + "\" : Input/output error");
    EXPECT_EQ(g_reads, which);
  }
}

TEST_F(FwImageLoadInPiecesTest, SignalsDoNotEndTheLoading) {
  const ReadHook hook([](int number) { return number % 2 == 1 ? EINTR : 0; });
  EXPECT_EQ(Open(), "(no error)");
  EXPECT_GT(g_reads, 4);
  EXPECT_EQ(Data(0).size(), 4 * WORDS);
}

TEST_F(FwImageLoadInPiecesTest, FileThatChangesMeanwhileIsRefused) {
  const auto set_time = [this](timespec time) {
    const timespec times[] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, time};
    EXPECT_EQ(utimensat(AT_FDCWD, _file.c_str(), times, 0), 0);
  };
  const std::map<std::string, std::function<void()>> changes = {
      {"longer", [this] { std::ofstream(_file, std::ios::app) << "# more\n"; }},
      {"written to", [&] { set_time({.tv_sec = 1000001, .tv_nsec = 0}); }},
      {"written to in the same second", [&] { set_time({.tv_sec = 1000000, .tv_nsec = 1}); }},
  };
  for (const auto& each : changes) {
    SCOPED_TRACE(each.first);
    set_time({.tv_sec = 1000000, .tv_nsec = 0});
    {
      const ReadHook hook([&each](int number) {
        if (number == 2) each.second();
        return 0;
      });
      EXPECT_EQ(Open(), "Can't open file \"" + _file + "\" : It was changed while it was read");
    }
    FwImage image;
    EXPECT_EQ(ErrorOf([&] { image.Open(_file.c_str(), READ); }), "(no error)");
  }
}

TEST_F(FwImageLoadTest, AbsentNameStopsTheProgram) {
  EXPECT_EXIT(_image.Open(nullptr, READ), testing::KilledBySignal(SIGABRT), "file_name != nullptr");
}

TEST_F(FwImageLoadTest, SectionsAreLoadedInFileOrder) {
  Load(
      "# comment\n"
      "\n"
      "START B 100 0\n"
      "  # comment in a section\n"
      "11 22 33 44 55 66 77 88\n"
      " \t \n"
      "99 AA bb Cc\n"
      "END B\n"
      "START A 20 0\n"
      "END A\n");
  std::vector<u_int32_t> addrs;
  _image.GetSectionsAddr(addrs);
  EXPECT_EQ(addrs, (std::vector<u_int32_t>{0x100, 0x20}));
  EXPECT_EQ(Data(0x100), Hex("112233445566778899aabbcc"));
  EXPECT_EQ(Data(0x20), DataVec{});
  EXPECT_EQ(_image.GetSection(0x100)->name, "B");
}

TEST_F(FwImageLoadTest, DataBytesAreHexadecimalAndKeepTheirLowEightBits) {
  Load("START A 0 0\n0x1F 1ff -1 +7\n0X0 00000000000000000000012 f 100\nEND A\n");
  EXPECT_EQ(Data(0), Hex("1fffff07 00120f00"));
}

TEST_F(FwImageLoadTest, OverflowingDataByteIsAllOnes) {
  Load("START A 0 0\nFFFFFFFFFFFFFFFFFF 1 2 3\nEND A\n");
  EXPECT_EQ(Data(0), Hex("ff010203"));
}

TEST_F(FwImageLoadTest, DataLineOfOtherThanFourBytesIsRefused) {
  for (const std::string line : {"1 2 3", "1 2 3 4 5", "1", "1 2 3 zz 5"}) {
    EXPECT_EQ(ErrorAt(2, "START A 0 0\n" + line + "\nEND A\n"),
              ": Section data line must have multiple of 4 bytes.")
        << line;
  }
}

TEST_F(FwImageLoadTest, WordThatIsNoByteIsRefused) {
  EXPECT_EQ(ErrorAt(3, "START A 0 0\n0 0 0 0\n1 2 3x 4\nEND A\n"),
            ": Data byte (3x) contains invalid characters");
  EXPECT_EQ(ErrorAt(2, "START A 0 0\n1 2 3 0x\n"), ": Data byte (0x) contains invalid characters");
  EXPECT_EQ(ErrorAt(2, "START A 0 0\n1 2 3 #4\n"), ": Data byte (#4) contains invalid characters");
}

TEST_F(FwImageLoadTest, TabsDoNotSeparateDataBytes) {
  EXPECT_EQ(ErrorAt(2, "START A 0 0\n1\t2\t3\t4\nEND A\n"),
            ": Section data line must have multiple of 4 bytes.");
  EXPECT_EQ(ErrorAt(2, "START A 0 0\n1\t2 3 4 5\nEND A\n"),
            ": Data byte (1\t2) contains invalid characters");
}

TEST_F(FwImageLoadTest, CarriageReturnsAreRefusedInTheFirstDataLine) {
  EXPECT_EQ(ErrorAt(2, "START A 0 0\r\n1 2 3 4\r\nEND A\r\n"),
            ": Data byte (4\r) contains invalid characters");
}

TEST_F(FwImageLoadTest, DirectiveAndSecondStartInASectionAreDataLines) {
  EXPECT_EQ(ErrorAt(2, "START A 0 0\nDEVICE_TYPE RV61100\n"),
            ": Section data line must have multiple of 4 bytes.");
  EXPECT_EQ(ErrorAt(2, "START A 0 0\nSTART B 0 0\n"),
            ": Data byte (START) contains invalid characters");
}

TEST_F(FwImageLoadTest, EndMustNameItsSection) {
  EXPECT_EQ(ErrorAt(2, "START A 0 0\nEND\n"), ": Wrong END section format - Sector name expected.");
  EXPECT_EQ(ErrorAt(2, "START A 0 0\nEND A B\n"),
            ": Wrong END section format - Sector name expected.");
  EXPECT_EQ(ErrorAt(2, "START A 0 0\nEND B\n"),
            ": END Section name (B) differs from start section name (A).");
}

TEST_F(FwImageLoadTest, LastSectionNeedsNoEnd) {
  Load("START A 0 0\n1 2 3 4");
  EXPECT_EQ(Data(0), Hex("01020304"));
}

TEST_F(FwImageLoadTest, UnknownDirectivesAndStrayLinesAreIgnored) {
  Load("HELLO\n1 2 3\nEND A\nMAJ_FW_VER 1\nMIN_FW_VER\nSUB_MIN_FW_VER 1 2 3\nreplace\n");
  EXPECT_EQ(_image.GetTotalSize(), 0u);
}

TEST_F(FwImageLoadTest, HashInsideALineIsAWord) {
  EXPECT_EQ(ErrorAt(1, "DEVICE_TYPE RV61100 # comment\n"),
            ": 'DEVICE_TYPE' directive must contain 2words.");
}

TEST_F(FwImageLoadTest, StartMayBeSeparatedByTabs) {
  Load("START\tA\t40\t0\n1 2 3 4\nEND A\n\tSTART B 50 0\n5 6 7 8\nEND B\n");
  EXPECT_EQ(Data(0x40), Hex("01020304"));
  EXPECT_EQ(Data(0x50), Hex("05060708"));
}

TEST_F(FwImageLoadTest, DeviceOfAStartIsCutToEightBits) {
  Load("DEVMAP 2000 50\nSTART A 10 150\n1 2 3 4\nEND A\n");
  EXPECT_EQ(Data(0x10), Hex("01020304"));
}

TEST_F(FwImageLoadTest, StartWithoutNameOffsetAndDeviceIsRefused) {
  for (const std::string line : {"START", "START A", "START A 0", "START A zz 0", "START A 0 zz"}) {
    EXPECT_EQ(ErrorAt(1, line + "\n"), ": START line must give a name, an offset and a device.")
        << line;
  }
}

TEST_F(FwImageLoadTest, StartAtAPlaceThatIsNotMappedIsRefusedWithoutFileAndLine) {
  EXPECT_EQ(ErrorAt(1, "START A 0 50\n"),
            "Can't convert dev/offset to address: No mapping for the given EE loaction  (50:0).");
}

TEST_F(FwImageLoadTest, SecondSectionAtAnAddressIsReadButKeptNowhere) {
  Load("START A 0 0\n1 2 3 4\nEND A\nSTART B 0 0\n5 6 7 8\nEND B\n");
  std::vector<u_int32_t> addrs;
  _image.GetSectionsAddr(addrs);
  EXPECT_EQ(addrs, (std::vector<u_int32_t>{0, 0}));
  EXPECT_EQ(Data(0), Hex("01020304"));
  EXPECT_EQ(_image.GetSection(0)->name, "A");
  EXPECT_EQ(ErrorAt(5, "START A 0 0\n1 2 3 4\nEND A\nSTART B 0 0\n5 6 7\nEND B\n"),
            ": Section data line must have multiple of 4 bytes.");
}

TEST_F(FwImageLoadTest, SectionReachingPastTheLastAddressIsRefused) {
  EXPECT_EQ(ErrorAt(2, "START A FFFFFFFC 0\n1 2 3 4 5 6 7 8\n"),
            ": Section (A) reaches past the last address.");
  Load("START A FFFFFFFC 0\n1 2 3 4\n");
  EXPECT_EQ(Data(0xFFFFFFFC), Hex("01020304"));
}

TEST_F(FwImageLoadTest, LongLineIsReadAsSeveralEachCounted) {
  // 1023 characters a piece: 340 bytes "00 " and, of the next, "00 " cut after the third character.
  const std::string data(1023, ' ');
  EXPECT_EQ(ErrorAt(3, "START A 0 0\n" + data + "1 2 3\n"),
            ": Section data line must have multiple of 4 bytes.");
  EXPECT_EQ(ErrorAt(2, "START A 0 0\n" + std::string(1022, ' ') + "1 2 3\n"),
            ": Section data line must have multiple of 4 bytes.");
}

TEST_F(FwImageLoadTest, LineOf1023CharactersWithItsEndIsOneLine) {
  const std::string line = std::string(1022 - 7, ' ') + "1 2 3 4\n";
  ASSERT_EQ(line.size(), 1023u);
  Load("START A 0 0\n" + line + "END A\n");
  EXPECT_EQ(Data(0), Hex("01020304"));
  // One more blank, and the line end is a line of its own: still four words, and one line more.
  EXPECT_EQ(ErrorAt(4, "START A 0 0\n " + line + "1 2 3\n"),
            ": Section data line must have multiple of 4 bytes.");
}

TEST_F(FwImageLoadTest, CommentLongerThanALineGoesOnAsAnotherLine) {
  EXPECT_EQ(ErrorAt(3, "START A 0 0\n#" + std::string(1022, 'x') + "1 2 3\n"),
            ": Section data line must have multiple of 4 bytes.");
}

TEST_F(FwImageLoadTest, NulEndsItsLine) {
  Load(std::string("START A 0 0\n1 2 3 4\0 5 zz\n5 6 7 8\nEND A\n", 40));
  EXPECT_EQ(Data(0), Hex("0102030405060708"));
}

TEST_F(FwImageLoadTest, LastLineOfBlanksOnlyIsBlank) {
  Load("START A 0 0\n1 2 3 4\nEND A\n   ");
  EXPECT_EQ(Data(0), Hex("01020304"));
}

TEST_F(FwImageLoadTest, WordCountOfDirectivesIsExact) {
  const struct {
    std::string line;
    std::string directive;
    int words;
  } cases[] = {
      {"REPLACE", "REPLACE", 4},
      {"REPLACE GUID 0", "REPLACE", 4},
      {"REPLACE GUID 0 0 0", "REPLACE", 4},
      {"REPLACE CRC", "REPLACE", 8},
      {"REPLACE CRC 0 0 0 0 0", "REPLACE", 8},
      {"DEVICE_TYPE", "DEVICE_TYPE", 2},
      {"PS 0 0", "PS", 4},
      {"IMAGE 0 0 0 0", "IMAGE", 4},
      {"SIGNATURE", "SIGNATURE", 4},
      {"DEVMAP 1000", "DEVMAP", 3},
      {"DEVMAP 1000 50 0", "DEVMAP", 3},
  };
  for (const auto& wrong : cases) {
    EXPECT_EQ(ErrorAt(1, wrong.line + "\n"), ": '" + wrong.directive + "' directive must contain " +
                                                 std::to_string(wrong.words) + "words.")
        << wrong.line;
  }
}

TEST_F(FwImageLoadTest, WordCountIsCheckedBeforeKeywordIndexAndLocation) {
  EXPECT_EQ(ErrorAt(1, "REPLACE NONSENSE zz\n"), ": 'REPLACE' directive must contain 4words.");
  EXPECT_EQ(ErrorAt(1, "PS 7 zz\n"), ": 'PS' directive must contain 4words.");
}

TEST_F(FwImageLoadTest, KeywordAndIndexAreCheckedBeforeTheLocation) {
  EXPECT_EQ(ErrorAt(1, "REPLACE NONSENSE zz zz\n"), ": Unknown replace field type 'NONSENSE' .");
  EXPECT_EQ(ErrorAt(1, "PS 7 zz zz\n"), ": 'PS' directive - image index (7) can be iether 0 or 1");
}

TEST_F(FwImageLoadTest, OffsetIsCheckedBeforeTheDeviceNumber) {
  EXPECT_EQ(ErrorAt(1, "PS 0 zz yy\n"), ": Error parsing offset (zz).");
  EXPECT_EQ(ErrorAt(1, "PS 0 0 yy\n"), ": Error parsing dev addr (yy).");
  EXPECT_EQ(ErrorAt(1, "PS 0 0 100\n"), ": Device addr must be 8 bits (100).");
  EXPECT_EQ(ErrorAt(1, "REPLACE CRC 0 0 zz 0 yy 0\n"), ": Error parsing offset (zz).");
}

TEST_F(FwImageLoadTest, DeviceWordIsTestedAs32Bits) {
  Load("DEVMAP 1000 100000050\nPS 0 10 50\n");
  EXPECT_EQ(_image.GetPsAddr(0), 0x10u);
}

TEST_F(FwImageLoadTest, ImageIndexIsZeroOrOneToTheLetter) {
  for (const std::string directive : {"PS", "IMAGE", "SIGNATURE"}) {
    for (const std::string index : {"2", "00", "0x1", "-0", "a"}) {
      EXPECT_EQ(
          ErrorAt(1, directive + " " + index + " 0 0\n"),
          ": '" + directive + "' directive - image index (" + index + ") can be iether 0 or 1");
    }
  }
}

TEST_F(FwImageLoadTest, SlotsAreSet) {
  Load("PS 0 10 0\nPS 1 20 0\nIMAGE 0 30 0\nIMAGE 1 40 0\nSIGNATURE 0 18 0\nSIGNATURE 1 28 0\n");
  EXPECT_EQ(_image.GetPsAddr(0), 0x10u);
  EXPECT_EQ(_image.GetPsAddr(1), 0x20u);
  EXPECT_EQ(_image.GetImageAddr(0), 0x30u);
  EXPECT_EQ(_image.GetImageAddr(1), 0x40u);
  EXPECT_EQ(_image.GetSignatureAddr(0), 0x18u);
  EXPECT_EQ(_image.GetSignatureAddr(1), 0x28u);
  ASSERT_EQ(Fields().size(), 2u);
  EXPECT_EQ(Fields()[0].type, SIGNATURE);
  EXPECT_EQ(Fields()[1].from, 0x28u);
}

TEST_F(FwImageLoadTest, SecondPsAndImageReplaceTheFirstSecondSignatureIsRefused) {
  Load("PS 0 10 0\nPS 0 20 0\nIMAGE 1 30 0\nIMAGE 1 40 0\n");
  EXPECT_EQ(_image.GetPsAddr(0), 0x20u);
  EXPECT_EQ(_image.GetImageAddr(1), 0x40u);
  EXPECT_EQ(ErrorAt(2, "SIGNATURE 0 10 0\nSIGNATURE 0 20 0\n"),
            ": Tried to set signature 0 which is already set");
}

TEST_F(FwImageLoadTest, ReplaceFieldTakesTypeAndSizeFromItsKeyword) {
  Load(
      "REPLACE SIGNATURE 0 0\nREPLACE GUIDS 10 0\nREPLACE GUID 40 0\nREPLACE SYSGUID 50 0\n"
      "REPLACE BSN 60 0\nREPLACE VSD 100 0\n");
  const auto fields = Fields();
  const std::tuple<u_int32_t, u_int32_t, FieldType> expected[] = {
      {0x0, 4, SIGNATURE}, {0x10, 32, GUIDS}, {0x40, 8, GUID},
      {0x50, 8, SYS_GUID}, {0x60, 64, BSN},   {0x100, 208, VSD}};
  ASSERT_EQ(fields.size(), std::size(expected));
  for (std::size_t i = 0; i < fields.size(); ++i) {
    EXPECT_EQ(std::make_tuple(fields[i].from, fields[i].size, fields[i].type), expected[i]);
  }
}

TEST_F(FwImageLoadTest, FieldKeywordsAreCaseSensitive) {
  EXPECT_EQ(FwImage::Str2FieldType("GUID"), GUID);
  EXPECT_EQ(FwImage::Str2FieldType("Guid"), UNKNOWN_FIELD);
  EXPECT_EQ(FwImage::Str2FieldType("SYS_GUID"), UNKNOWN_FIELD);
  EXPECT_EQ(FwImage::Str2FieldType("CRC"), UNKNOWN_FIELD);
}

TEST_F(FwImageLoadTest, ReplaceCrcNamesTheLastWordItCovers) {
  Load("REPLACE CRC 0 0 FC 0 100 0\n");
  const auto crcs = _image.GetCrcsInRange(0, 0x200);
  ASSERT_EQ(crcs.size(), 1u);
  EXPECT_EQ(crcs[0].from, 0u);
  EXPECT_EQ(crcs[0].size, 0x100u);
  EXPECT_EQ(crcs[0].crc_addr, 0x100u);
}

TEST_F(FwImageLoadTest, LocationsGoThroughTheDeviceMapThatStandsBeforeThem) {
  Load("DEVMAP 2000 50\nDEVMAP 2000 51\nREPLACE GUID 10 51\nREPLACE CRC 0 50 FC 50 10 51\n");
  EXPECT_EQ(Fields()[0].from, 0x2010u);
  EXPECT_EQ(_image.GetCrcsInRange(0, 0x4000)[0].crc_addr, 0x2010u);
  EXPECT_EQ(ErrorAt(1, "REPLACE GUID 10 51\nDEVMAP 2000 51\n"),
            "Can't convert dev/offset to address: No mapping for the given EE loaction  (51:0).");
}

TEST_F(FwImageLoadTest, SerialNumberOfAnRV61100IsIgnoredWithAWarning) {
  EXPECT_EQ(OutputOf([&] { Load("DEVICE_TYPE RV61100\nREPLACE BSN 40 0\nREPLACE GUID 0 0\n"); }),
            "-W- *** REPLACES OF TYPE BSN ARE IGNORED FOR DEVICE TYPE 61100 ***\n");
  ASSERT_EQ(Fields().size(), 1u);
  EXPECT_EQ(Fields()[0].type, GUID);
}

TEST_F(FwImageLoadTest, SerialNumberIsKeptWhereTheDeviceTypeFollowsOrIsAnother) {
  EXPECT_EQ(OutputOf([&] { Load("REPLACE BSN 40 0\nDEVICE_TYPE RV61100\n"); }), "");
  EXPECT_EQ(Fields().size(), 1u);
  FwImage other;
  const std::string file = File("DEVICE_TYPE RV61300\nREPLACE BSN 40 0\n");
  EXPECT_EQ(OutputOf([&] { other.Open(file.c_str(), READ); }), "");
  EXPECT_EQ(other.GetFieldsInRange(0, 0x1000).size(), 1u);
}

TEST_F(FwImageLoadTest, IgnoredSerialNumberMustStillHaveALocation) {
  EXPECT_EQ(ErrorAt(2, "DEVICE_TYPE RV61100\nREPLACE BSN zz 0\n"), ": Error parsing offset (zz).");
}

TEST_F(FwImageLoadTest, DeviceTypesHaveTheirKeywords) {
  const std::pair<std::string, DeviceType> keywords[] = {
      {"RV61100", RV61100}, {"RV61300", RV61300},     {"RV52100", RV52100},
      {"RV52300", RV52300}, {"RV52310", RV52310},     {"RV52400", RV52400},
      {"RV52410", RV52400}, {"rv61100", DEV_UNKNOWN}, {"RV61100\r", DEV_UNKNOWN}};
  for (const auto& [keyword, type] : keywords) {
    FwImage image;
    image.Open(File("DEVICE_TYPE " + keyword + "\n").c_str(), READ);
    EXPECT_EQ(image.DevType(), type) << keyword;
  }
}

TEST_F(FwImageLoadTest, OpeningForgetsSlotsSetBefore) {
  _image.SetPsAddr(0, 0x10);
  Load("");
  EXPECT_NE(ErrorOf([&] { _image.GetPsAddr(0); }), "(no error)");
}

TEST_F(FwImageLoadTest, ErrorsOfTheModelNameTheLoadedFile) {
  const std::string file = File("");
  _image.Open(file.c_str(), READ);
  EXPECT_EQ(_image.GetFileName(), file);
  EXPECT_EQ(ErrorOf([&] { _image.GetImageAddr(0); }),
            "FwImage: Tried to access uninitiated field Image Addr[0] . Check file " + file);
}

TEST_F(FwImageLoadTest, RandomImagesComeThroughTextUnchanged) {
  TestRng rng(61300);
  for (int round = 0; round < 50; ++round) {
    SCOPED_TRACE(round);
    std::map<u_int32_t, DataVec> sections;
    std::ostringstream text;
    u_int32_t addr = 0;
    for (std::size_t n = rng() % 5; n > 0; --n) {
      addr += static_cast<u_int32_t>(rng() % 0x10000);
      const DataVec data = RandomBytes(rng, 4 * (rng() % 2000));
      text << "START S" << n << " " << std::hex << addr << " 0\n";
      for (std::size_t i = 0; i < data.size();) {
        for (std::size_t line = 4 * (1 + rng() % 16); line > 0 && i < data.size(); --line) {
          text << (rng() % 4 == 0 ? "0x" : "") << int{data[i++]} << std::string(1 + rng() % 2, ' ');
        }
        text << "\n";
      }
      text << "END S" << n << "\n";
      sections[addr] = data;
      addr += static_cast<u_int32_t>(data.size()) + 4;
    }
    FwImage image;
    image.Open(File(text.str()).c_str(), READ);
    for (const auto& [start, data] : sections) {
      ASSERT_NE(image.GetSection(start), nullptr);
      EXPECT_EQ(image.GetSection(start)->data, data);
    }
  }
}

/// What one line inside a section A stands for, as it is defined: its bytes go to `data`. Returns
/// the error that it ends the loading with, and "END" where it ends the section.
std::string LineByDefinition(std::string line, DataVec& data) {
  line = line.substr(0, line.find('\0'));
  const std::size_t first = line.find_first_not_of(" \t");
  if (first == std::string::npos || line[first] == '#' || line[first] == '\n') return "";
  std::vector<std::string> words;
  std::string word;
  for (const char c : line + " ") {
    if (c != ' ' && c != '\n') {
      word += c;
    } else if (!word.empty()) {
      words.push_back(std::exchange(word, ""));
    }
  }
  if (words[0] == "END") {
    if (words.size() != 2) return ": Wrong END section format - Sector name expected.";
    if (words[1] == "A") return "END";
    return ": END Section name (" + words[1] + ") differs from start section name (A).";
  }
  if (words.size() % 4 != 0) return ": Section data line must have multiple of 4 bytes.";
  for (const std::string& digits : words) {
    char* end = nullptr;
    const unsigned long long value = std::strtoull(digits.c_str(), &end, 16);
    if (*end != '\0') return ": Data byte (" + digits + ") contains invalid characters";
    data.push_back(static_cast<u_int8_t>(value));
  }
  return "";
}

TEST_F(FwImageLoadTest, UsualAndUnusualDataLinesGiveTheBytesThatTheyAreDefinedToGive) {
  const unsigned seed = 1023;
  SCOPED_TRACE(seed);
  TestRng rng(seed);
  const std::string words[] = {"1",
                               "a",
                               "F",
                               "12",
                               "fE",
                               "0",
                               "00",
                               "123",
                               "0x1F",
                               "0X",
                               "+1",
                               "-1",
                               "g",
                               "1g",
                               "\t",
                               "1\t",
                               "0xg",
                               "END",
                               "FFFFFFFFFFFFFFFFFFFFF",
                               "#",
                               "\r"};
  int refused = 0;
  for (int round = 0; round < 5000; ++round) {
    std::string line;
    const bool is_plain = rng() % 2 == 0;
    for (std::size_t n = rng() % 10; n > 0; --n) {
      line += std::string(rng() % 3 == 0 ? 2 : 1, ' ') +
              words[rng() % (is_plain ? 7 : std::size(words))];
    }
    if (rng() % 2 == 0 && !line.empty()) line.erase(0, 1);
    if (rng() % 20 == 0) line.insert(rng() % (line.size() + 1), 1, '\0');
    line += "\n";
    DataVec expected = Hex("01020304");
    const std::string error = LineByDefinition(line, expected);
    const std::string file = File("START A 0 0\n1 2 3 4\n" + line + "1 2 3 4\n");
    FwImage image;
    const std::string got = ErrorOf([&] { image.Open(file.c_str(), READ); });
    if (error.starts_with(":")) {
      ASSERT_EQ(got, file + ":3" + error) << line;
      ++refused;
      continue;
    }
    if (error.empty()) expected << Hex("01020304");
    ASSERT_EQ(got, "(no error)") << line;
    ASSERT_EQ(image.GetSection(0)->data, expected) << line;
  }
  EXPECT_GT(refused, 500);
  EXPECT_LT(refused, 4500);
}

TEST_F(FwImageLoadTest, LastLineNeedsNoEnd) {
  Load("START A 0 0\n1 2 3 4");
  EXPECT_EQ(Data(0), Hex("01020304"));
}

TEST_F(FwImageLoadTest, LongLineIsCutInTheMiddleOfAWord) {
  std::string line;
  for (int i = 0; i < 339; ++i) line += "11 ";
  line += "    22";
  ASSERT_EQ(line.size(), 1023u);
  // What was one word "222" ends the first piece and begins the second.
  const std::string text = "START A 0 0\n" + line + "2 4 5 6\n";
  Load(text);
  DataVec expected(339, 0x11);
  EXPECT_EQ(Data(0), expected << Hex("2202040506"));
  EXPECT_EQ(ErrorAt(4, text + "1 2 3\n"), ": Section data line must have multiple of 4 bytes.");
}

}  // namespace
