// A burn whose server answers with what it likes: an image, a line "====", then the answers. Of
// each, the first byte tells at which request it is given.
#include <map>

#include "fuzz/Burns.h"

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  const fuzz::BurnOptions options(input);
  const std::string_view text = input.Until("====\n");
  FwImage image;
  if (fuzz::Run([&] { fuzz::LoadImage(image, text); })) return 0;
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
  if (is_last_other && fuzz::IsOfWrongSize(ending, last_request)) return 0;
  fuzz::CheckEnding(ending, image);
  return 0;
}
