#include "protocol/Handler.h"

namespace protocol {

Answer Handler::Execute(std::string_view text) {
  try {
    return Handle(ParseRequest(text));
  } catch (const Refusal& refusal) {
    return {.text = RequestError(refusal.what())};
  }
}

}  // namespace protocol
