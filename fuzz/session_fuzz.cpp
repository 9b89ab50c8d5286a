// What a client may send to the simulated bus server, in pieces of any size.
#include <memory>

#include "fuzz/Fuzz.h"
#include "protocol/Session.h"
#include "sim/Fabric.h"

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  const u_int32_t step = 1 + input.Below(60);
  const std::string_view sent = input.Rest();

  sim::Fabric fabric;
  for (const Guid guid : {Guid{0x10}, Guid{0x20}}) {
    sim::Device device;
    device.node_guid = guid;
    device.port_guids = {guid + 1, guid + 2};
    device.declared_ports = 2;
    const bool is_flash = guid == 0x20;
    device.kind = is_flash ? device::MemoryKind::FLASH : device::MemoryKind::EEPROM;
    device.chips.try_emplace(is_flash ? u_int8_t{0} : u_int8_t{0x50},
                             sim::Chip(std::make_unique<sim::Cells>(0x1000), is_flash ? 0x100 : 0));
    fabric.Add(std::move(device));
  }
  protocol::Session session(fabric);
  std::size_t answers = 0;
  session.trace = [&](const std::string&, const std::string&) { ++answers; };
  std::size_t frames = 0;
  for (std::size_t at = 0; at < sent.size(); at += step) {
    for (const protocol::Step& next : session.Feed(sent.substr(at, step))) {
      if (next.kind == protocol::Step::SEND && next.bytes.starts_with("NEW_BUF")) ++frames;
    }
  }
  std::size_t pieces = 0;  // each may be agreed to
  for (std::size_t at = 0; (at = sent.find("TO_BE_CONT", at)) != std::string_view::npos; ++at) {
    ++pieces;
  }
  fuzz::Must(frames <= answers + pieces, "only what was asked is answered");
  return 0;
}
