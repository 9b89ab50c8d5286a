/// Burns of fuzzed images onto small simulated devices, in the same process.
#pragma once

#include <optional>
#include <string>

#include "fuzz/Fuzz.h"
#include "sim/Fabric.h"
#include "src/FwImage.h"

namespace fuzz {

/// How a burn is done, and onto what: the first bytes of an input.
struct BurnOptions {
  /// Takes seven bytes.
  explicit BurnOptions(Input& input);

  u_int32_t log2_chunk_align;
  bool is_failsafe;
  bool is_check_only;
  bool is_read_back;  ///< by the type of server
  u_int32_t devices;  ///< 1 to 4; a flash is alone
  /// Two bits a device: which slots are marked valid. Of a flash the next two tell where its second
  /// image lies.
  u_int32_t states;
  bool has_invariant_marker;
};

/// Fills `fabric`, which is empty, with devices that fit the image, and burns it as the program
/// does.
Ending Burn(FwImage& image, const BurnOptions& options, sim::Fabric& fabric);
/// The same through the program's own socket: the caller has a SocketPeer.
Ending BurnOverSocket(FwImage& image, const BurnOptions& options, sim::Fabric& fabric);

/// Ends the process where a burn writes what it may not, from now on. All but the fabric is
/// borrowed by it.
void GuardWrites(sim::Fabric& fabric, const FwImage& image, const BurnOptions& options);

/// Ends the process where `ending` is none that a burn of this image may have.
void CheckEnding(const Ending& ending, const FwImage& image);

/// Whether an assertion failed that must fail where `request` is not answered with as many bytes as
/// it asks for: what tells whether an image is valid, and what goes into a field, must be known.
/// That it fails then, and no later, is for the fault matrix to hold, which knows every right
/// answer.
bool IsOfWrongSize(const Ending& ending, std::string_view request);

}  // namespace fuzz
