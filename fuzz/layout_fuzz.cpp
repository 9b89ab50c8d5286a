// A layout, from which an image is made where it is good.
#include <filesystem>

#include "fuzz/Fuzz.h"
#include "fwimg/ImageMaker.h"
#include "fwimg/LayoutFile.h"

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  const std::filesystem::path file = fuzz::MemoryFile(text);
  const std::filesystem::path made = file.parent_path() / "made.img";
  // What is made is loaded back and compared, by an assertion.
  const auto error = fuzz::Run([&] {
    try {
      fwimg::Layout layout = fwimg::ReadLayout(file, "/nonexistent", fwimg::LayoutKind::WHOLE);
      std::size_t total = 0;
      for (const auto& section : layout.sections) total += section.data.size();
      if (total > 1 << 16) return;
      fwimg::CheckLayout(layout);
      fwimg::FillIn(layout);
      fwimg::WriteImage(layout, made);
      FwImage image;
      image.Open(made.c_str(), READ);
      fuzz::Must(!fuzz::HasOddCrc(image), "what a CRC covers is whole words");
    } catch (const fwimg::LayoutError&) {
      return;  // the layout is wrong
    }
  });
  std::error_code ignored;
  std::filesystem::remove(made, ignored);
  fuzz::Must(!error, "what is made can be loaded");
  return 0;
}
