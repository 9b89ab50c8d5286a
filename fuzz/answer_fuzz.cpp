// An answer of a bus server: whether it tells an error, and its elements, theirs, and so on.
#include <functional>

#include "fuzz/Fuzz.h"
#include "src/BraidConn.h"

namespace {

using BraidConn::Response;

bool IsInside(std::string_view part, std::string_view whole) {
  const std::less_equal<const char*> is_before;
  return is_before(whole.data(), part.data()) &&
         is_before(part.data() + part.size(), whole.data() + whole.size());
}

std::string WithoutLastColons(const std::string& text) {
  return text.substr(0, text.find_last_not_of(':') + 1);
}

void Take(const std::string& text, int depth) {
  const Response response(text);
  const std::string error = response.Error();
  if (!response.GotErr()) {
    fuzz::Must(error == "*** Error dexcription can't be extracted from response: " + text,
               "what is no error is told whole");
  } else {
    // Runs of colons count as one, and those at the end as none.
    const std::string words = WithoutLastColons(error);
    fuzz::Must(error.size() <= text.size() &&
                   WithoutLastColons(text).ends_with(words.substr(words.rfind(':') + 1)),
               "an error's description is the end of the text");
  }
  fuzz::Must(response.GotErr() == BraidConn::TellsError(text), "there is one rule for errors");
  fuzz::Must(response.GotErr() == (text.starts_with("ERROR") || text.starts_with("TARGET_ERROR")),
             "an error is told by the begin of the text");

  std::vector<Response> elements;
  std::vector<std::string_view> views;
  const auto failure = fuzz::Run([&] { elements = response.TclSplit(); });
  const auto again = fuzz::Run([&] { BraidConn::TclSplit(text, views); });
  fuzz::Must(failure == again, "there is one rule for lists");
  if (failure) return;
  fuzz::Must(elements.size() == views.size(), "there is one rule for elements");
  for (std::size_t i = 0; i < views.size(); ++i) {
    fuzz::Must(IsInside(views[i], text), "an element is a part of the text");
    fuzz::Must(elements[i] == views[i], "copied or not, an element is the same");
    if (depth > 0 && elements[i].size() < text.size()) Take(elements[i], depth - 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  Take(std::string(reinterpret_cast<const char*>(bytes), size), 4);
  return 0;
}
