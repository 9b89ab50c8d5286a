#include "trials/endurance/Connection.h"

#include <iostream>
#include <streambuf>
#include <utility>

#include "common/Text.h"
#include "src/main.h"

namespace {

/// The burner has ended itself, as by abort: an answer was none that it can go on with.
struct Aborted {
  std::string what;
};

}  // namespace

/// In the place of the burner's AssertionFailed (-Wl,--wrap): one of many clients aborts here, not
/// the process.
extern "C" [[noreturn]] void __wrap__Z15AssertionFailedPKcS0_jS0_(  // NOLINT
    const char* expression, const char*, unsigned, const char* function) {
  throw Aborted{common::Text(function, ": ", expression)};
}

namespace endurance {

using namespace std::chrono_literals;

/// Wakes the client when the answer has come.
class Connection::WakingReply : public protocol::Reply,
                                public std::enable_shared_from_this<WakingReply> {
 public:
  WakingReply(Machine& machine, Turns& turns, Time latency)
      : _machine(machine), _turns(turns), _client(turns.Current()), _latency(latency) {}

  void KeepWaiting() override {}
  void Send(protocol::Answer answer) override {
    text = std::move(answer.text);
    _machine.loop.CallAt(_machine.loop.Now() + _latency, [self = shared_from_this()] {
      self->has_arrived = true;
      if (self->wakes) self->_turns.Wake(self->_client);
    });
  }

  std::string text;
  bool has_arrived = false;
  bool wakes = true;

 private:
  Machine& _machine;
  Turns& _turns;
  Turns::Id _client;
  Time _latency;
};

Connection::Connection(Machine& machine, Turns& turns, protocol::ClientId id, Random& random)
    : _machine(machine),
      _turns(turns),
      _random(random),
      _id(id),
      _peer(common::Text("127.0.0.1:", 32768 + id % 28000)) {
  _machine.gateway->Connected(_id, _peer);
}

std::string Connection::Ask(const std::string& text) {
  ++_requests;
  const Time latency = _random.Between(50, 250) * 1us;
  const auto reply = std::make_shared<WakingReply>(_machine, _turns, latency);
  reply->wakes = _requests != _vanishes_at;
  _machine.gateway->Start(_id, text, reply);
  if (!reply->wakes) Vanish(reply);
  while (!reply->has_arrived) _turns.Wait();
  if (on_answer) on_answer(text, reply->text);
  return std::move(reply->text);
}

void Connection::Vanish(const std::shared_ptr<WakingReply>& reply) {
  _turns.Sleep(_random.Below(20'000) * 1us);
  Close();
  if (!reply->has_arrived) {
    reply->wakes = true;
    _turns.Wait();
  }
  throw Vanished();
}

void Connection::Close() {
  if (std::exchange(_is_open, false)) _machine.gateway->Disconnected(_id);
}

namespace {

/// The burner's memory interfaces on a connection.
template <typename Remote>
class OnConnection : public Remote {
 public:
  OnConnection(Connection& connection, u_int32_t log2_chunk)
      : Remote(log2_chunk), _connection(connection) {}

  const GuidSet& Failed() const { return this->_error_devs; }

 protected:
  BraidResult Connect() override { return BRAID_OK; }
  BraidConn::Response Exchange(const std::string& request) override {
    return BraidConn::Response(_connection.Ask(request));
  }
  BraidConn::Response ExchangeText(const std::string& text) override { return Exchange(text); }

 private:
  Connection& _connection;
};

thread_local std::string* console_of_thread = nullptr;

/// What the thread prints goes to `console` while it lives.
class ConsoleLoan {
 public:
  explicit ConsoleLoan(std::string& console) { console_of_thread = &console; }
  ConsoleLoan(const ConsoleLoan&) = delete;
  ConsoleLoan& operator=(const ConsoleLoan&) = delete;
  ~ConsoleLoan() { console_of_thread = nullptr; }
};

class ConsoleOfThread : public std::streambuf {
 protected:
  int_type overflow(int_type c) override {
    if (console_of_thread != nullptr && c != traits_type::eof()) {
      console_of_thread->push_back(traits_type::to_char_type(c));
    }
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    if (console_of_thread != nullptr) {
      console_of_thread->append(text, static_cast<std::size_t>(size));
    }
    return size;
  }
};

template <typename Remote>
void Burn(Connection& connection, FwImage& image, const GuidSet& devices, bool is_failsafe,
          u_int32_t log2_chunk, std::set<protocol::Guid>& failed) {
  OnConnection<Remote> rom(connection, log2_chunk);
  rom.SetAddressConvertor(image.GetAddressConvertor());
  rom.SetAccessDevices(devices);
  rom.Open("IB:host:1");
  GetBurnAlgorithm(image.DevType(), &rom, is_failsafe, false, false)->Go(image);
  failed.insert(rom.Failed().begin(), rom.Failed().end());
}

}  // namespace

RunEnd RunBurner(Connection& connection, const std::string& file,
                 const std::set<protocol::Guid>& devices, bool is_failsafe,
                 std::uint32_t log2_chunk) {
  RunEnd end;
  const ConsoleLoan loan(end.console);
  try {
    FwImage image;
    image.Open(file.c_str(), READ);
    const auto burn =
        image.DevType() == RV61300 ? Burn<RemoteI2cInterface> : Burn<RemoteFlashInterface>;
    burn(connection, image, devices, is_failsafe, log2_chunk, end.failed);
  } catch (const BraidError& error) {
    end.error = error.Des();
  } catch (const Vanished&) {
    end.has_vanished = true;
    end.error = "the client vanished";
  } catch (const Aborted& aborted) {
    end.has_aborted = true;
    end.error = "the client aborted: " + aborted.what;
  }
  return end;
}

BurnerConsoles::BurnerConsoles()
    : _buffer(std::make_unique<ConsoleOfThread>()), _before(std::cout.rdbuf(_buffer.get())) {}

BurnerConsoles::~BurnerConsoles() {
  std::cout.rdbuf(_before);
  std::cout << std::dec << std::setfill(' ');
}

}  // namespace endurance
