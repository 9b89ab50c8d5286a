// The burner's loader and device/'s reader of image files, over everything that can be had.
#include "tests/support/readers_agree.h"

#include <chrono>
#include <iterator>

#include "tests/support/MemoryFile.h"
#include "tests/support/support.h"

namespace {

namespace fs = std::filesystem;

/// The image texts among the inputs of fuzz targets. Inputs of some targets begin with bytes that
/// are none of the image.
std::vector<std::string> KeptImages() {
  std::vector<std::string> images;
  for (const char* folder : {"image", "burn", "session"}) {
    for (const auto& entry : fs::directory_iterator(fs::path(CORPUS) / folder)) {
      const std::string content = ReadText(entry.path());
      images.push_back(content);
      const std::size_t begin = content.find("DEVICE_TYPE");
      if (begin != std::string::npos && begin != 0) images.push_back(content.substr(begin));
    }
  }
  return images;
}

/// Lines that an image has, and lines that none should have.
class RandomImage {
 public:
  explicit RandomImage(TestRng& rng) : _rng(rng) {}

  std::string Make() {
    std::string text;
    if (Chance(3)) text += "DEVICE_TYPE " + Pick(TYPES) + "\n";
    if (Chance(2)) {
      for (std::size_t i = 1 + Below(3); i > 0; --i) {
        text += "DEVMAP " + Pick({"2000", "100", "0", "ffffffff"}) + " " + Device() + "\n";
      }
    }
    for (std::size_t lines = Below(20); lines > 0; --lines) text += Part();
    if (Chance(8)) text += "START TAIL 0 0\n" + Data();
    if (Chance(3)) text.resize(text.size() - Below(std::min<std::size_t>(text.size(), 4)));
    return text;
  }

  /// Changes what `text` is made of, byte by byte or in pieces.
  std::string Mutate(std::string text) {
    static const std::vector<std::string> ODD{
        " ",   "\t",     "\n",  "\r",   std::string(1, '\0'), "#",        "-",
        "0x",  "END ",   "FF ", "\v",   "100000000 ",         "1ff ",     "0xg ",
        "+1 ", "START ", "PS ", "\xff", "ffffffff ",          "REPLACE ", "0x ",
        "e",   "G"};
    for (std::size_t changes = 1 + Below(6); changes > 0; --changes) {
      const std::size_t at = Below(text.size() + 1);
      switch (Below(6)) {
        case 0:
          text.insert(at, Pick(ODD));
          break;
        case 1:
          text.erase(at, Below(12));
          break;
        case 2:
          text.insert(at, text.substr(Below(text.size() + 1), Below(200)));
          break;
        case 3:
          if (at < text.size()) text[at] = static_cast<char>(_rng());
          break;
        case 4:
          text.insert(at, std::string(Below(1100), Pick({"0", " ", "#", "A"})[0]));
          break;
        default:
          if (at < text.size()) text[at] = Pick(ODD)[0];
      }
    }
    return text;
  }

 private:
  static inline const std::vector<std::string> TYPES{
      "RV61100", "RV61300", "RV52100", "RV52300", "RV52310", "RV52400", "RV52410", "RV1", "\t"};

  std::size_t Below(std::size_t end) { return end == 0 ? 0 : _rng() % end; }
  bool Chance(std::size_t one_in) { return Below(one_in) == 0; }
  std::string Pick(const std::vector<std::string>& words) { return words[Below(words.size())]; }

  std::string Device() {
    return Chance(12) ? Pick({"100", "150", "0x50", "-1", "g", "1000000050"})
                      : Pick({"0", "0", "50", "51"});
  }
  std::string Number() {
    if (Chance(12)) return Pick({"0x10", "+20", "-4", "12g", "100000008", "0x", "\t8"});
    if (Chance(6)) return Pick({"ffffffff", "fffffffc", "FFFFFFF0", "80000000"});
    return Text(std::hex, Below(0x40) * 8);
  }
  std::string Place() { return Number() + " " + Device(); }

  std::string Part() {
    switch (Below(10)) {
      case 0:
        return "IMAGE " + Index() + " " + Place() + "\n";
      case 1:
        return "PS " + Index() + " " + Place() + "\n";
      case 2:
        return "SIGNATURE " + Index() + " " + Place() + "\n";
      case 3:
        return "REPLACE CRC " + Place() + " " + Place() + " " + Place() + "\n";
      case 4:
        return "REPLACE " +
               Pick({"GUID", "GUIDS", "SYSGUID", "BSN", "VSD", "SIGNATURE", "BSN",
                     Chance(4) ? "MAC" : "GUID"}) +
               " " + Place() + "\n";
      case 5:
        return Pick({"# text\n", "\n", " \t\n", "NOTE 1\n", "MAJ_FW_VER 1\n", "END A\n",
                     "00 01 02 03\n", "DEVICE_TYPE RV61100\n", "\t#\n"});
      default:
        return Section();
    }
  }
  std::string Index() { return Chance(15) ? Pick({"2", "00", "-1"}) : Pick({"0", "1"}); }

  std::string Section() {
    const std::string name = Pick({"A", "B", "FIRMWARE", "#"});
    const std::string blank = Chance(8) ? "\t" : " ";
    std::string text = "START" + blank + name + blank + Number() + blank + Device() + "\n";
    for (std::size_t lines = Below(4); lines > 0; --lines) text += Data();
    if (Chance(15)) return text;
    return text + "END " + (Chance(15) ? "C" : name) + "\n";
  }
  std::string Data() {
    std::string line;
    for (std::size_t words = 4 * (1 + Below(8)) + (Chance(25) ? 1 : 0); words > 0; --words) {
      line +=
          Chance(60) ? Pick({"0x1f", "1ff", "+2", "-1", "xy", "\t3"}) : Text(std::hex, Below(256));
      line += Chance(30) ? "  " : " ";
    }
    line.back() = '\n';
    return line;
  }

  TestRng& _rng;
};

class ReadersAgreeTest : public ConsoleTest {
 protected:
  std::string Disagreement(const std::string& text) {
    _memory.Set(text);
    return readers::Disagreement(_folder / "memory.img");
  }

  common::ScratchFolder _folder;
  MemoryFile _memory{_folder / "memory.img"};
};

TEST_F(ReadersAgreeTest, OverAllImagesThatFuzzTargetsKeep) {
  const std::vector<std::string> images = KeptImages();
  EXPECT_GT(images.size(), 60u);
  for (const std::string& text : images) EXPECT_EQ(Disagreement(text), "") << text.substr(0, 2000);
}

TEST_F(ReadersAgreeTest, OverTheExamplesOfTheDescription) {
  const std::vector<std::string> images = FencedBlocks(DOCUMENTS "/image-format.md", "img");
  EXPECT_GT(images.size(), 20u);
  for (const std::string& text : images) EXPECT_EQ(Disagreement(text), "") << text;
}

TEST_F(ReadersAgreeTest, OverRandomImagesAndMutationsOfThem) {
  const u_int32_t seed = std::random_device{}();
  TestRng rng(seed);
  const std::vector<std::string> kept = KeptImages();
  RandomImage random(rng);
  std::size_t loaded = 0;
  std::size_t refused = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(4);
  // At least so many however slow the machine is: fewer would prove nothing.
  for (std::size_t i = 0; i < 2000 || std::chrono::steady_clock::now() < end; ++i) {
    std::string text = i % 4 == 3 ? kept[rng() % kept.size()] : random.Make();
    if (i % 3 != 0) text = random.Mutate(std::move(text));
    ASSERT_EQ(Disagreement(text), "") << "seed " << seed << ", image " << i << ":\n" << text;
    try {
      device::ParseImage(text, "fw.img");
      ++loaded;
    } catch (const device::ImageError&) {
      ++refused;
    }
  }
  // Both outcomes, or half of the comparison has not run.
  EXPECT_GT(loaded, 200u) << "seed " << seed;
  EXPECT_GT(refused, 200u) << "seed " << seed;
  RecordProperty("images", std::to_string(loaded + refused));
}

TEST_F(ReadersAgreeTest, OverNamesAndFilesThatCannotBeRead) {
  const std::string text = "START A 0 0\n00 01 02 03\nEND A\n";
  for (const char* name : {"fw.img", "fw.IMG", "fw.Img", "fw.bin", "fw.BIN", "fw.Bin", "fw.img.",
                           "fw..img", "img", "fw", "fw.txt", "fw.img.gz", "fw.bin.img"}) {
    EXPECT_EQ(readers::Disagreement(_folder.Write(name, text)), "") << name;
  }
  fs::create_directory(_folder / "folder.img");
  ASSERT_EQ(mkfifo((_folder / "fifo.img").c_str(), 0600), 0);
  fs::create_symlink("/dev/zero", _folder / "device.img");
  for (const char* name : {"folder.img", "fifo.img", "device.img", "missing.img", "missing.txt"}) {
    EXPECT_EQ(readers::Disagreement(_folder / name), "") << name;
  }
  for (const char* name : {"", ".", "...", ".img", "img", "/.img"}) {
    EXPECT_EQ(readers::Disagreement(name), "") << name;
  }
}

/// The comparison itself: what differs is found.
TEST_F(ReadersAgreeTest, NotOverTwoImagesThatDiffer) {
  const std::string whole =
      "DEVICE_TYPE RV61300\nDEVMAP 2000 50\nIMAGE 0 0 50\nREPLACE GUID 0 50\n"
      "REPLACE CRC 0 50 8 50 C 50\nSTART A 0 50\n00 01 02 03\nEND A\n";
  FwImage burner;
  burner.Open(_folder.Write("fw.img", whole).c_str(), READ);
  EXPECT_EQ(readers::Difference(burner, device::ParseImage(whole, "")), "");
  const std::vector<std::pair<std::string, std::string>> changes{
      {"RV61300", "RV61100"},  {"DEVMAP 2000", "DEVMAP 1000"},
      {"IMAGE 0", "IMAGE 1"},  {"GUID 0", "GUID 8"},
      {"GUID 0", "SYSGUID 0"}, {"8 50 C", "4 50 C"},
      {"A 0 50", "A 10 50"},   {"START A", "START B"},
      {"02 03", "02 04"},      {"END A", "END A\nSTART A 0 50"}};
  for (const auto& [from, to] : changes) {
    std::string changed = whole;
    changed.replace(changed.find(from), from.size(), to);
    if (from == "START A") changed.replace(changed.find("END A"), 5, "END B");
    EXPECT_NE(readers::Difference(burner, device::ParseImage(changed, "")), "") << to;
  }
}

}  // namespace
