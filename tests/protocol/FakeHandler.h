/// Devices of which a server knows nothing but what a test lets them say.
#pragma once

#include <new>
#include <string>
#include <vector>

#include "protocol/Handler.h"

namespace protocol {

/// Answers every request with `answer`; keeps requests and images.
class FakeHandler : public Handler {
 public:
  std::string BurnImage(const Guids& devices, const std::string& image) override {
    images.push_back(image);
    image_devices = devices;
    return "burnt";
  }
  std::string Type() const override { return "PCI"; }

  Answer answer{.text = "answered"};
  bool has_no_memory = false;
  std::vector<std::string_view> commands;
  std::vector<std::string> images;
  Guids image_devices;

 private:
  Answer Handle(const Request& request) override {
    commands.push_back(request.command->word);
    if (has_no_memory) throw std::bad_alloc();
    if (request.count > 1) throw Refusal("too many for me");
    return answer;
  }
};

}  // namespace protocol
