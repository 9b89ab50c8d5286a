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
  MULTI_MAX,       ///< how many devices a request may name
  VERSION,         ///< of the interface
  LIST,            ///< of the devices
  ATTRIBUTES,      ///< of a flash
  ACKED,           ///< a write, an erase: all that is answered ACK
  MARKER,          ///< read of the failsafe marker
  INVARIANT,       ///< read of the invariant sector
  SIGNATURE,       ///< read of the signature of a pointer sector
  SECOND_ADDRESS,  ///< read of the address of the second image
  MOVED_RECORD,    ///< read of the pointer sector of an image that is moved
  MOVED_IMAGE,     ///< read of an image that is moved
  BOOT_RECORD,     ///< read of a boot record
  VERIFY,          ///< read of what was written
  VSD,             ///< vendor data
  BSN,             ///< board serial number
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

/// What is wrong with an answer.
enum class AnswerFault {
  // The answer's text.
  ERROR_ANSWER,          ///< an error for all devices; the request is not executed
  TARGET_ERROR_ANSWER,   ///< the same in its other form
  ELEMENT_ERROR,         ///< an error of one device
  ELEMENT_TARGET_ERROR,  ///< the same in its other form
  ONE_FEWER,             ///< an element is missing
  ONE_MORE,              ///< an element too many
  EMPTY,
  BRACE_OPEN,    ///< an opening brace too many
  BRACE_CLOSED,  ///< a closing brace too many
  NOT_HEX,       ///< a number that is none
  TOO_LITTLE,    ///< a value is missing in an element
  TOO_MUCH,      ///< an element has a value too many
  NUL,           ///< a NUL byte in an element
  // How the answer is sent.
  LONG_LINE,       ///< longer than the burner reads
  LOST,            ///< the connection closes, and the request is not executed
  CLOSE_BEFORE,    ///< the connection closes instead of the answer
  CLOSE_INSIDE,    ///< the connection closes in the middle of the answer
  CLOSE_AFTER,     ///< the connection closes behind the answer
  RESET,           ///< the connection is reset instead of the answer
  BYTEWISE,        ///< each byte is sent by itself
  RETURNS,         ///< lines end in CR LF
  ONE_PIECE,       ///< a piece and one continuation
  TWO_PIECES,      ///< a piece and two continuations
  MANY_PIECES,     ///< a piece and many continuations
  TWICE,           ///< the answer is sent twice at once
  TWICE_LATE,      ///< it is sent again, ahead of the next answer
  SILENCE,         ///< no answer
  SILENCE_INSIDE,  ///< half of the answer
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
