/// One case of the search: an image, starting states, burns, and what the tools say of them.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "common/ScratchFolder.h"
#include "trials/MisbehavingServer.h"

namespace search {

/// The programs that the search runs.
struct Programs {
  std::string fwpush;
  std::string fwimg;
  std::string rehearse;
  std::string verify;
};

/// Counts over cases. A false claim is a text that names its case.
struct Statistics {
  std::uint64_t images = 0;
  std::uint64_t passed = 0;  ///< images in which the check finds no error
  std::uint64_t burns = 0;
  std::uint64_t rehearsals = 0;
  std::uint64_t rehearsed_safe = 0;
  std::uint64_t not_rehearsed = 0;  ///< the rehearsal says that it cannot
  std::uint64_t cuts = 0;           ///< power losses tried against rehearsals that said "safe"
  std::uint64_t mixes = 0;          ///< of words of boot records, likewise
  std::uint64_t verified = 0;       ///< devices
  std::uint64_t flipped = 0;        ///< bytes that a verification had to notice
  std::uint64_t compared = 0;       ///< pairs of images
  std::uint64_t said_same = 0;      ///< pairs that leave the same, as the comparison says
  std::map<std::string, std::uint64_t> kinds;  ///< images by kind of problem
  /// Images with errors of one kind only that every burn burnt and that boot, by that kind.
  std::map<std::string, std::uint64_t> burnt_with_error;
  std::map<std::string, std::string> case_of;  ///< an example of each
  std::map<std::string, std::uint64_t> mistakes;
  std::vector<std::string> false_claims;
  std::vector<std::string> not_run;  ///< cases that could not be run, each with the reason

  Statistics& operator+=(const Statistics& other);
};

/// Runs cases one after the other. Used by one thread.
class CaseRunner {
 public:
  /// All are borrowed. `out`, where it is not null, gets what happens.
  CaseRunner(const common::ScratchFolder& folder, const Programs& programs, std::ostream* out)
      : _folder(folder), _programs(programs), _out(out) {}

  /// The case follows from its seed.
  Statistics Run(std::uint64_t seed);

 private:
  const common::ScratchFolder& _folder;
  const Programs& _programs;
  std::ostream* _out;
  trials::MisbehavingServer _server;
};

}  // namespace search
