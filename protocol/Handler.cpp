#include "protocol/Handler.h"

namespace protocol {

Answer Handler::Execute(std::string_view text) {
  try {
    return Handle(ParseRequest(text));
  } catch (const Refusal& refusal) {
    return {.text = RequestError(refusal.what())};
  }
}

void Handler::Start(ClientId, std::string_view text, std::shared_ptr<Reply> reply) {
  reply->Send(Execute(text));
}

void Handler::StartBurn(ClientId, const Guids& devices, const std::string& image,
                        std::shared_ptr<Reply> reply) {
  reply->Send({.text = BurnImage(devices, image)});
}

}  // namespace protocol
