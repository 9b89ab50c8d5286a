// What three clients may ask the server for real memories, while memories fail and the
// configuration changes.
#include <algorithm>
#include <array>

#include "fuzz/Fuzz.h"
#include "hardware/ServedMachine.h"

namespace {

using common::HexGuid;
using common::Text;
using fuzz::Must;
using hardware::ServedMachine;
using protocol::ClientId;
using protocol::Guid;
using namespace std::chrono_literals;

constexpr u_int32_t SECTOR = 0x1000;
constexpr u_int32_t FLASH_SIZE = 0x8000;
constexpr u_int32_t CHIP_SIZE = 0x800;

constexpr Guid LEAF = 0x10;    // an EEPROM behind a mux
constexpr Guid SEALED = 0x20;  // an EEPROM that is read-only
constexpr Guid SPINE = 0x30;   // a flash of which one sector may be written
constexpr Guid HOST = 0x40;    // a part of a flash, with programs around a lease
constexpr Guid FILE_DEVICE = 0x50;
constexpr Guid DEVICES[] = {LEAF, SEALED, SPINE, HOST, FILE_DEVICE, 0x99};

class Scenario {
 public:
  explicit Scenario(fuzz::Input& input) : _input(input) {
    hardware::I2cBus& bus = _machine.AddBus();
    hardware::I2cMux& mux = bus.Root().AddMux(0x70, 16);
    _leaf = &_machine.AddEeprom(LEAF, mux.Channel(3), {{0x70, 3}},
                                {.size = CHIP_SIZE, .page = 16, .offset_bits = 8});
    _sealed = &_machine.AddEeprom(SEALED, _machine.AddBus(), {.size = CHIP_SIZE, .page = 32});
    Last().is_read_only = true;
    _spine = &_machine.AddFlash(SPINE, {.name = "spine", .number = 0, .size = FLASH_SIZE}, SECTOR);
    Last().write = {{{SECTOR, 2 * SECTOR - 1}}};
    _host = &_machine.AddFlash(
        HOST, {.name = "host", .number = 1, .device = "spi2/spi2.0", .size = FLASH_SIZE}, SECTOR);
    Last().flash->first = 2 * SECTOR;
    Last().flash->size = 4 * SECTOR;
    Last().prepare = {"/bin/off"};
    Last().release = {"/bin/on"};
    for (const char* program : {"/bin/off", "/bin/on"}) {
      _machine.system.AddProgram(program, [this](const auto&) {
        return hardware::ProgramResult{_hook_status, 100ms};
      });
    }
    _machine.AddFileFlash(FILE_DEVICE, "/srv/flash.bin", FLASH_SIZE, SECTOR);
    _machine.Serve();
  }

  void Run() {
    for (int i = 0; i < 200 && !_input.IsEmpty(); ++i) {
      Step();
      if (i % 16 == 0) CheckWhatMayNotChange();
    }
    for (ClientId client = 1; client <= 3; ++client) _machine.gateway->Disconnected(client);
    _machine.loop.RunUntilIdle();
    for (const auto& asked : _all) Must(asked->answers == 1, "every request is answered once");
    bool is_idle = false;
    _machine.gateway->WhenIdle([&is_idle] { is_idle = true; });
    Must(is_idle, "nothing is held when all clients are gone");
    Must(_machine.system.OpenDescriptors() == 0, "every descriptor is closed");
    CheckWhatMayNotChange();
  }

 private:
  serve::DeviceConfig& Last() { return _machine.configuration.devices.back(); }

  void Step() {
    const ClientId client = 1 + _input.Below(3);
    switch (_input.Below(10)) {
      case 0:
        return Ask(client, std::string(_input.Until("\n")));
      case 1:
        return Reconnect(client);
      case 2:
        return _machine.loop.RunUntil(_machine.loop.Now() + _input.Below(200) * 10ms);
      case 3:
        return Reload();
      case 4:
        return Fail();
      case 5:
        return AskForRead(client);
      case 6:
        return AskForErase(client);
      default:
        return AskForWrite(client);
    }
  }

  /// A client asks one thing at a time.
  void Finish(ClientId client) {
    auto& asked = _asked.at(client);
    if (asked) _machine.Wait(asked);
    asked.reset();
  }

  void Ask(ClientId client, const std::string& text) {
    Finish(client);
    _asked.at(client) = _all.emplace_back(_machine.Send(text, client));
    if (_input.Below(2) == 0) Finish(client);
  }

  void Reconnect(ClientId client) {
    _machine.gateway->Disconnected(client);
    // A number is not given out twice: its request must be over.
    _machine.loop.RunUntilIdle();
    _asked.at(client).reset();
    _machine.gateway->Connected(client, Text("127.0.0.1:", 50000 + client));
  }

  void Reload() {
    serve::Configuration next = _machine.configuration;
    next.is_read_only = _input.Below(2) == 1;
    next.multi_max = 1 + _input.Below(64);
    const u_int32_t left_out = _input.Below(10);
    if (left_out < next.devices.size()) next.devices.erase(next.devices.begin() + left_out);
    _machine.gateway->Reload(next);
  }

  void Fail() {
    const u_int32_t n = 1 + _input.Below(4);
    switch (_input.Below(9)) {
      case 0:
        return _leaf->SetWriteProtected(n > 1);
      case 1:
        return _leaf->SetAbsent(n > 1);
      case 2:
        return _leaf->DropPageWrite(n);
      case 3:
        return _spine->DropProgram(n);
      case 4:
        return _spine->FailErase(n);
      case 5:
        return _host->FailProgram(n);
      case 6:
        return _host->Protect(2 * SECTOR, n * SECTOR);
      case 7:
        _hook_status = n > 1 ? 1 : 0;
        return;
      default:
        constexpr hardware::Call CALLS[] = {hardware::Call::OPEN, hardware::Call::READ,
                                            hardware::Call::WRITE, hardware::Call::LOCK};
        return _machine.system.Fail(
            {.call = CALLS[n - 1], .nth = 1 + _input.Below(4), .times = 1 + _input.Below(4)});
    }
  }

  Guid TakeDevice() { return DEVICES[_input.Below(std::size(DEVICES))]; }
  u_int32_t TakeNumber() { return u_int32_t{_input.Byte()} << 8 | _input.Byte(); }
  static bool HasFlash(Guid device) { return device >= SPINE; }

  void AskForRead(ClientId client) {
    const Guid device = TakeDevice();
    Ask(client, Text(HasFlash(device) ? "vsFlashReadMulti 1 " : "vsI2cReadMulti 1 ",
                     HexGuid(device), HasFlash(device) ? " 0x0 " : " 0x50 ", TakeNumber() % 0x400,
                     std::hex, " 0x", TakeNumber(), " "));
  }

  void AskForErase(ClientId client) {
    Ask(client, Text("vsFlashEraseSectorMulti 1 ", HexGuid(TakeDevice()), std::hex, " 0x0 0x",
                     TakeNumber() / SECTOR * SECTOR, " "));
  }

  void AskForWrite(ClientId client) {
    const Guid device = TakeDevice();
    const u_int32_t offset = TakeNumber() % FLASH_SIZE;
    common::Bytes bytes(1 + _input.Byte());
    for (auto& byte : bytes) byte = _input.IsEmpty() ? 0x5A : _input.Byte();
    Finish(client);
    const auto asked = _all.emplace_back(_machine.Send(
        hardware::WriteRequest(HasFlash(device) ? "vsFlashWriteMulti" : "vsI2cWriteMulti", {device},
                               HasFlash(device) ? 0 : 0x50, offset, bytes),
        client));
    _machine.Wait(asked);
    if (asked->answer == "ACK") CheckWritten(device, offset, bytes);
  }

  /// Nobody else may write to the device meanwhile.
  void CheckWritten(Guid device, u_int32_t offset, const common::Bytes& bytes) {
    device::Bytes file;
    device::View content;
    if (device == LEAF) content = _leaf->Content();
    if (device == SPINE) content = _spine->Content();
    if (device == HOST) content = _host->Content().subspan(2 * SECTOR, 4 * SECTOR);
    if (device == FILE_DEVICE) content = file = _machine.system.FileContent("/srv/flash.bin");
    Must(offset + bytes.size() <= content.size(), "what is acknowledged has its place");
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      const u_int8_t held = content[offset + i];
      Must(HasFlash(device) ? (held & ~bytes[i]) == 0 : held == bytes[i],
           "what is acknowledged is there");
    }
  }

  /// Everything is erased at first.
  void CheckWhatMayNotChange() const {
    const auto is_erased = [](device::View bytes) {
      return std::ranges::all_of(bytes, [](u_int8_t byte) { return byte == 0xFF; });
    };
    Must(is_erased(_sealed->Content()), "a read-only device is not written");
    Must(is_erased(_spine->Content().first(SECTOR)) &&
             is_erased(_spine->Content().subspan(2 * SECTOR)),
         "nothing is written outside of the ranges");
    Must(is_erased(_host->Content().first(2 * SECTOR)) &&
             is_erased(_host->Content().subspan(6 * SECTOR)),
         "nothing is written outside of the part that is served");
  }

  fuzz::Input& _input;
  ServedMachine _machine;
  hardware::VirtualEeprom* _leaf = nullptr;
  hardware::VirtualEeprom* _sealed = nullptr;
  hardware::VirtualFlash* _spine = nullptr;
  hardware::VirtualFlash* _host = nullptr;
  int _hook_status = 0;
  std::array<std::shared_ptr<hardware::Asked>, 4> _asked;  ///< of each client, from 1
  std::vector<std::shared_ptr<hardware::Asked>> _all;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  Scenario(input).Run();
  return 0;
}
