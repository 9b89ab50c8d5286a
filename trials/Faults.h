/// What a hostile server can make of an answer, and how a burner must end then.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "src/BraidGeneral.h"

namespace faults {

/// What a request asks for, as far as its answer's faults differ in what they do to the run.
enum class Kind {
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

/// One exchange of a run that nothing disturbs.
struct Request {
  std::string text;
  std::string answer;
  Kind kind;
  GuidVec devices;     ///< that it names
  u_int32_t addr = 0;  ///< of a read
  u_int32_t size = 0;  ///< of a read
};

enum class Fault {
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
  // How it comes over the wire.
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

struct FaultRow {
  Fault fault;
  std::string_view name;  ///< as case names have it
};
std::span<const FaultRow> AllFaults();

/// What the error answers say.
inline constexpr char REFUSED[] = "refused";

/// Takes a request apart. `has_written` tells whether the run has sent a write before.
Request Understand(const std::string& text, const std::string& answer, bool has_written);

/// The faults of one kind that a request can have: none where its answer leaves no place for it;
/// else one for each device, or one for no device in particular.
std::vector<std::optional<Guid>> Targets(Fault fault, const Request& request);

/// The answer that the fault makes of the right one; the right one for faults of the wire.
std::string Mangled(Fault fault, const Request& request, std::optional<Guid> device);

/// What a burn needs to be known for its ends to be foretold.
struct Setting {
  std::string server;  ///< as -s has it
  u_int32_t devices = 1;
  bool has_guids_field = false;
  bool is_signed[2] = {false, false};  ///< of a flash: which slots are
};

/// How a run must end.
struct Expected {
  enum End {
    SUCCEEDS,
    FAILS,     ///< with one of `texts`
    ABORTS,    ///< on the assertion `texts[0]`
    CONFUSED,  ///< by what is there for answers that make no sense, or before that could be seen
  };
  End end = SUCCEEDS;
  std::vector<std::string> texts;
  std::vector<Guid> lost;  ///< devices that are reported as failed, with `lost_text`
  std::string lost_text;
  std::size_t asked_again = 0;  ///< requests after the hit one that still name them
  bool all_lost = false;        ///< reported for all devices
};

/// `k` is the request that is hit, in `requests`, those of an undisturbed run.
Expected Expect(Fault fault, const Setting& setting, std::span<const Request> requests,
                std::size_t k, std::optional<Guid> device);

/// Whether a run that took one answer for another ended as it may: by a text or an assertion that
/// is there for answers that make no sense.
bool IsDesignedText(std::string_view text);
bool IsDesignedAssertion(std::string_view expression);

}  // namespace faults
