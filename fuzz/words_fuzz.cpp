// What a remote interface makes of an answer's words: bytes, device records, flash attributes,
// results of each kind of operation, and the numbers of the greeting.
#include "fuzz/Fuzz.h"
#include "sim/Fabric.h"
#include "src/RomInterface.h"

namespace {

constexpr Guid FIRST = 0x1000;
constexpr Guid SECOND = 0x2000;

/// An interface that gets the same answer to whatever it asks.
template <typename Remote>
class Answered : public Remote {
 public:
  explicit Answered(std::string_view answer) : Remote(5), _answer(answer) {
    this->SetAddressConvertor(&_conv);
    this->SetAccessDevices({FIRST, SECOND});
    this->_multi_max = 16;
  }

  using Remote::AddDeviceRecord;
  using Remote::GatherData;
  using Remote::InitResults;
  using Remote::ProcessResponse;

 protected:
  BraidResult Connect() override { return BRAID_OK; }
  BraidConn::Response Exchange(const std::string&) override { return BraidConn::Response(_answer); }
  BraidConn::Response ExchangeText(const std::string&) override {
    return BraidConn::Response(_answer);
  }

 private:
  std::string _answer;
  FwImage::Conv _conv;
};

class AnsweredFlash : public Answered<RemoteFlashInterface> {
 public:
  using Answered::Answered;
  using RemoteFlashInterface::InitAttributes;
};

using AnsweredI2c = Answered<RemoteI2cInterface>;

void Gather(std::string_view text, bool is_bsn) {
  AnsweredI2c rom(text);
  DataVec bytes{1, 2, 3};
  fuzz::Run([&] { rom.GatherData(text, bytes, is_bsn); });
  fuzz::Must(bytes.size() >= 3 && bytes[0] == 1 && bytes[2] == 3, "bytes are appended");
  fuzz::Must(bytes.size() <= 3 + text.size(), "no word gives more bytes than it has characters");
  fuzz::Must(is_bsn || bytes.size() % 4 == 3, "data come in words of 4 bytes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  const u_int32_t kind = input.Below(8);
  const std::string_view text = input.Rest();
  switch (kind) {
    case 0:
    case 1:
      Gather(text, kind == 1);
      break;
    case 2: {
      AnsweredI2c rom(text);
      fuzz::Run([&] { rom.AddDeviceRecord(BraidConn::Response(std::string(text))); });
      break;
    }
    case 3: {
      AnsweredFlash rom(text);
      fuzz::Run([&] {
        GuidSet one{FIRST};
        rom.SetActiveDevices(one);
        rom.InitAttributes();
      });
      break;
    }
    case 4: {
      AnsweredI2c rom(text);
      fuzz::Run([&] { rom.Open("IB:host:1"); });
      break;
    }
    case 5: {
      AnsweredI2c rom(text);
      const auto error = fuzz::Run([&] { rom.Read(0x100, 8); });
      const auto* result = rom.LastActionResult(FIRST);
      fuzz::Must(error || result == nullptr || result->_error || result->_data.size() % 4 == 0,
                 "what is read is words");
      break;
    }
    case 6: {
      AnsweredI2c rom(text);
      DataVec value;
      fuzz::Run([&] { rom.GetBsn(FIRST, value); });
      fuzz::Run([&] { rom.GetVsd(FIRST, value); });
      break;
    }
    default: {
      AnsweredFlash rom(text);
      fuzz::Run([&] {
        GuidSet one{FIRST};
        rom.SetActiveDevices(one);
        rom.WriteNoErase(0, DataVec(40, 1));
        rom.BurnImage(std::string(text));
      });
    }
  }
  return 0;
}
