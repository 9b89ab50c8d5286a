// A burn whose server answers with what it likes: an image, a line "====", then the answers. Of
// each, the first byte tells at which request it is given.
#include <array>
#include <map>

#include "Burns.h"

namespace {

/// Bytes that must have their size, and a part of the requests that ask for them.
struct Sized {
  const char* assertion;
  const char* request;
};
constexpr auto SIZED = std::to_array<Sized>({
    {"read_data.size() == 16", "vsI2cReadMulti "},
    {"d1.size() == 4", "vsFlashReadMulti "},
    {"rep_data.size() == fit->size", "crBSNGet "},
    {"rep_data.size() == fit->size", "vsGetVsdMulti "},
});

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  const fuzz::BurnOptions options(input);
  const std::string_view text = input.Until("====\n");
  FwImage image;
  if (fuzz::Run([&] { fuzz::LoadImage(image, text); }).error) return 0;
  if (image.GetTotalSize() > 0x1000 || image.DevType() == DEV_UNKNOWN) return 0;

  std::map<std::size_t, std::string> answers;
  while (!input.IsEmpty()) {
    const std::size_t number = input.Byte();
    answers.emplace(number >= '0' ? number - '0' : number, input.Until("\n"));
  }
  sim::Fabric fabric;
  std::string last_request;
  bool is_last_other = false;
  const auto tamper = [&](std::size_t number, const std::string& request, std::string answer) {
    const auto other = answers.find(number);
    last_request = request;
    is_last_other = other != answers.end();
    return is_last_other ? other->second : std::move(answer);
  };
  const fuzz::Ending ending = fuzz::Burn(image, options, fabric, tamper);
  // What tells whether an image is valid, and what goes into a field, must have its size: a burn
  // that does not know must not go on.
  for (const Sized& sized : SIZED) {
    if (ending.assertion == sized.assertion && is_last_other &&
        last_request.starts_with(sized.request)) {
      return 0;
    }
  }
  fuzz::CheckEnding(ending, image);
  return 0;
}
