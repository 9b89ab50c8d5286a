/// Lists of devices, as the programs take them with -g.
#pragma once

#include <cstdint>
#include <set>
#include <string>

namespace common {

/// Adds the GUIDs of one -g: a list as ParseGuids reads it, or "@FILE". The file has one GUID on
/// each line, hexadecimal with or without 0x; empty lines, blanks, a carriage return at the end of
/// a line and what follows a # are skipped. Throws std::runtime_error, with the name of the file
/// and the number of the line; for a file without a GUID, too.
void AddGuids(const std::string& word, std::set<std::uint64_t>& guids);

/// Whether `word` names a file.
bool IsGuidFile(const std::string& word);

}  // namespace common
