/// The faults that a server can inject into an answer, and how a burn must end after each.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "device/Bytes.h"

namespace trials {

using device::Guid;

/// What a request asks for. Requests of one kind react alike to a faulty answer.
enum class RequestKind {
  MULTI_MAX,
  VERSION,
  LIST,
  ATTRIBUTES,
  ACKED,  ///< a write, an erase: all that is answered ACK
  MARKER,
  INVARIANT,
  SIGNATURE,
  SECOND_ADDRESS,
  MOVED_RECORD,
  MOVED_IMAGE,
  BOOT_RECORD,
  VERIFY,
  VSD,
  BSN,
};

/// A request of a fault-free run, with its answer.
struct ParsedExchange {
  std::string text;
  std::string answer;
  RequestKind kind;
  std::vector<Guid> devices;  ///< named in the request
  std::uint32_t addr = 0;     ///< of a read
  std::uint32_t size = 0;     ///< of a read
};

enum class AnswerFault {
  // The answer's text.
  ERROR_ANSWER,
  TARGET_ERROR_ANSWER,
  ELEMENT_ERROR,
  ELEMENT_TARGET_ERROR,
  ONE_FEWER,
  ONE_MORE,
  EMPTY,
  BRACE_OPEN,
  BRACE_CLOSED,
  NOT_HEX,
  TOO_LITTLE,
  TOO_MUCH,
  NUL,
  // How the answer is sent.
  LONG_LINE,
  LOST,  ///< the connection closes, and the request is not executed
  CLOSE_BEFORE,
  CLOSE_INSIDE,
  CLOSE_AFTER,
  RESET,
  BYTEWISE,
  RETURNS,
  ONE_PIECE,
  TWO_PIECES,
  MANY_PIECES,
  TWICE,
  TWICE_LATE,
  SILENCE,
  SILENCE_INSIDE,
};

struct AnswerFaultRow {
  AnswerFault fault;
  std::string_view name;  ///< as case names have it
};
std::span<const AnswerFaultRow> AllAnswerFaults();

/// The text of error answers.
inline constexpr char REFUSED[] = "refused";

/// The elements of a right answer: groups in braces, with these, and words outside of them.
std::vector<std::string> ElementsOf(const std::string& answer);

/// A second, independent reading of requests, written apart from protocol/Request.cpp, which the
/// server answers by. `has_written` tells whether the run has sent a write before.
ParsedExchange ParseExchange(const std::string& text, const std::string& answer, bool has_written);

/// The devices at which `fault` can be injected into the answer to `request`: nullopt stands for
/// the answer as a whole. Empty where the answer has no place for the fault.
std::vector<std::optional<Guid>> FaultTargets(AnswerFault fault, const ParsedExchange& request);

/// The answer with the fault in its text; the right answer for faults of the transport.
std::string FaultyAnswer(AnswerFault fault, const ParsedExchange& request,
                         std::optional<Guid> device);

/// What must be known of a burn to predict how it ends.
struct BurnFacts {
  std::string server;  ///< the argument of -s
  std::uint32_t devices = 1;
  bool has_guids_field = false;
  bool is_signed[2] = {false, false};  ///< of a flash: the slots with a signature
};

/// How a run must end, and which devices it must report as failed.
struct Expected {
  enum End {
    SUCCEEDS,
    FAILS,   ///< with one of `texts`
    ABORTS,  ///< on the assertion `texts[0]`
    /// The burner takes an answer for that to another request: the run ends with any error that
    /// IsDesignedText or IsDesignedAssertion knows, or well where it is over first.
    OUT_OF_STEP,
  };
  End end = SUCCEEDS;
  std::vector<std::string> texts;
  std::vector<Guid> lost;  ///< devices that are reported as failed, with `lost_text`
  std::string lost_text;
  std::size_t asked_again = 0;  ///< requests after the faulty one that still name them
  bool all_lost = false;        ///< `lost_text` is reported for all devices
};

/// `k` is the index of the request with the faulty answer in `requests`, those of a fault-free run.
Expected Expect(AnswerFault fault, const BurnFacts& facts, std::span<const ParsedExchange> requests,
                std::size_t k, std::optional<Guid> device);

/// The row of docs/fail-safety.md by which a device may not boot while a burn writes that sector.
inline constexpr char INVARIANT_ROW[] = "rewriting the invariant sector";

/// Whether the burner has this error text, or this assertion, for answers that make no sense. A run
/// that is out of step with the server may end with one of them only.
bool IsDesignedText(std::string_view text);
bool IsDesignedAssertion(std::string_view expression);

}  // namespace trials
