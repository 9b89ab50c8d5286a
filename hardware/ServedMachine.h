/// A machine in virtual time with buses, chips and flashes, and a gateway that serves them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/Text.h"
#include "hardware/I2cBus.h"
#include "hardware/VirtualEeprom.h"
#include "hardware/VirtualFlash.h"
#include "hardware/VirtualLoop.h"
#include "hardware/VirtualSystem.h"
#include "serve/Gateway.h"

namespace hardware {

/// What the gateway did with one request.
struct Asked {
  std::string answer;
  bool is_answered = false;
  std::size_t answers = 0;  ///< one, in the end
  std::size_t heartbeats = 0;
  Time asked_at{0};
  Time answered_at{0};
};

/// Build the machine first, then Serve it.
class ServedMachine {
 public:
  ServedMachine() {
    configuration.state = "/run/fwpush-serve";
    configuration.multi_max = 64;
  }

  I2cBus& AddBus(BusSettings settings = {}) {
    settings.number = static_cast<std::uint32_t>(_buses.size());
    if (settings.number > 0) settings.name += "-" + std::to_string(settings.number);
    _bus_names.push_back(settings.name);
    return *_buses.emplace_back(std::make_unique<I2cBus>(system, settings));
  }

  /// A device with the GUID and one EEPROM, which requests name 0x50.
  VirtualEeprom& AddEeprom(protocol::Guid guid, I2cBus& bus, const EepromSettings& settings) {
    return AddEeprom(guid, bus.Root(), {}, settings);
  }
  /// The same, behind a mux of the bus.
  VirtualEeprom& AddEeprom(protocol::Guid guid, I2cAdapter& adapter,
                           std::vector<std::pair<std::uint16_t, std::uint32_t>> muxes,
                           const EepromSettings& settings) {
    serve::DeviceConfig& device = AddDevice(guid);
    serve::I2cConfig i2c;
    i2c.adapter = {NameOf(adapter.Bus()), std::move(muxes)};
    i2c.address = settings.address;
    i2c.page = settings.page;
    i2c.offset_bits = settings.offset_bits;
    i2c.bank_bit = settings.bank_bit;
    device.eeproms[0x50] = {.size = settings.size, .i2c = i2c, .file = {}};
    return *_chips.emplace_back(std::make_unique<VirtualEeprom>(adapter, settings));
  }

  serve::DeviceConfig& AddDevice(protocol::Guid guid) {
    serve::DeviceConfig& device = configuration.devices.emplace_back();
    device.facts.node_guid = device.facts.sys_guid = guid;
    device.facts.port_guids = {guid};
    device.facts.declared_ports = 1;
    return device;
  }

  /// A device with the flash, all of it. Each flash has a number and a name of its own.
  VirtualFlash& AddFlash(protocol::Guid guid, const FlashSettings& settings,
                         std::uint32_t sector_size) {
    serve::DeviceConfig& device = AddDevice(guid);
    device.flash.emplace();
    device.flash->size = settings.size;
    device.flash->sector_size = sector_size;
    device.flash->page_size = settings.page;
    device.flash->mtd.emplace();
    device.flash->mtd->name = settings.name;
    return *_flashes.emplace_back(std::make_unique<VirtualFlash>(system, settings));
  }

  /// A device whose flash is a plain file.
  serve::DeviceConfig& AddFileFlash(protocol::Guid guid, const std::string& path,
                                    std::uint32_t size, std::uint32_t sector_size) {
    system.AddFile(path, device::Bytes(size, 0xFF));
    serve::DeviceConfig& device = AddDevice(guid);
    device.flash.emplace();
    device.flash->size = size;
    device.flash->sector_size = sector_size;
    device.flash->file = serve::FileConfig{path, true};
    return device;
  }

  serve::Gateway& Serve(serve::ServedDevices::Options options = {}) {
    gateway = std::make_unique<serve::Gateway>(
        system, loop, configuration, options,
        serve::Gateway::Outputs{[this](const serve::LeaseRecord& record) {
                                  if (on_record) on_record();
                                  records.push_back(record);
                                },
                                [this](const std::string& text) { log.push_back(text); }});
    for (protocol::ClientId client = 1; client <= 3; ++client) {
      gateway->Connected(client, "127.0.0.1:" + std::to_string(40000 + client));
    }
    return *gateway;
  }

  /// Sends a request; time goes on only in Wait.
  std::shared_ptr<Asked> Send(const std::string& text, protocol::ClientId client = 1) {
    auto asked = std::make_shared<Asked>();
    asked->asked_at = loop.Now();
    gateway->Start(client, text, std::make_shared<RecordedReply>(loop, asked));
    return asked;
  }
  std::string Ask(const std::string& text, protocol::ClientId client = 1) {
    return Wait(Send(text, client)).answer;
  }
  const Asked& Wait(const std::shared_ptr<Asked>& asked) {
    loop.RunUntil([&] { return asked->is_answered; });
    return *asked;
  }
  /// Until nothing is left to do.
  void Disconnect(protocol::ClientId client = 1) {
    gateway->Disconnected(client);
    loop.RunUntilIdle();
  }

  VirtualSystem system;
  VirtualLoop loop{system, system.Clock()};
  serve::Configuration configuration;
  std::unique_ptr<serve::Gateway> gateway;
  std::vector<serve::LeaseRecord> records;
  std::vector<std::string> log;
  std::function<void()> on_record;  ///< called before a record is added; may be empty

 private:
  class RecordedReply : public protocol::Reply {
   public:
    RecordedReply(const serve::Loop& loop, std::shared_ptr<Asked> asked)
        : _loop(loop), _asked(std::move(asked)) {}
    void KeepWaiting() override { ++_asked->heartbeats; }
    void Send(protocol::Answer answer) override {
      _asked->is_answered = true;
      ++_asked->answers;
      _asked->answered_at = _loop.Now();
      _asked->answer = std::move(answer.text);
    }

   private:
    const serve::Loop& _loop;
    std::shared_ptr<Asked> _asked;
  };

  std::string NameOf(const I2cBus& bus) const {
    for (std::size_t i = 0; i < _buses.size(); ++i) {
      if (_buses[i].get() == &bus) return _bus_names[i];
    }
    return "";
  }

  std::vector<std::unique_ptr<I2cBus>> _buses;
  std::vector<std::string> _bus_names;
  std::vector<std::unique_ptr<VirtualEeprom>> _chips;
  std::vector<std::unique_ptr<VirtualFlash>> _flashes;
};

/// " 0x.. 0x.." for the bytes, as requests have it.
inline std::string DataWords(const common::Bytes& bytes) {
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 4) {
    std::uint32_t word = 0;
    for (std::size_t j = i; j < i + 4; ++j) word = word << 8 | (j < bytes.size() ? bytes[j] : 0xFF);
    text += common::Text(" 0x", std::hex, word);
  }
  return text;
}

/// The text of a write of `bytes` to chip `chip` of the devices.
inline std::string WriteRequest(const char* command, const std::vector<protocol::Guid>& guids,
                                std::uint32_t chip, std::uint32_t offset,
                                const common::Bytes& bytes) {
  std::string text = common::Text(command, " ", guids.size());
  for (const protocol::Guid guid : guids) text += " " + common::HexGuid(guid);
  return text +
         common::Text(" 0x", std::hex, chip, std::dec, " ", bytes.size(), " 0x", std::hex, offset) +
         DataWords(bytes) + " ";
}

}  // namespace hardware
