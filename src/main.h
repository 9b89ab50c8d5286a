/// The driver: parses the command line, chooses how a device type is burned, and performs one burn.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "BraidGeneral.h"
#include "BurnAlgorithm.h"
#include "FwImage.h"
#include "RomInterface.h"

extern const char* const g_version;
extern const char* const g_build_ver;
extern const char* const g_cvs_rev;
extern const char* const g_braid_ver;  ///< of the server suite; empty in this build

/// Prints the usage text for a program invoked as `sname`.
void usage(const char* sname);

/// Whether the command-line word `par`, without its dashes, selects the switch `sw`: the part
/// before its "=" is a prefix of the name. The empty word is a prefix, too.
bool swcmp(std::string_view par, std::string_view sw);

/// Adds the GUIDs of a comma-separated hexadecimal list to `target_guids`. Throws BraidError at the
/// first entry that is not a number.
void GetTargeGuids(const std::string& guids_str, GuidSet& target_guids);

/// Creates the memory interface for a device type. Throws BraidError for an unknown type, and for a
/// local burn, which is not implemented. `is_debug_burn` has no effect.
std::unique_ptr<RomInterface> GetRomInterface(DeviceType dt, u_int32_t log2_chunk_align,
                                              bool is_local_burn, bool is_debug_burn);

/// Creates the burn algorithm for a device type. `*rom_if` is borrowed and must outlive it. Throws
/// BraidError for an unknown type. `is_fw_dump` has no effect.
std::unique_ptr<BurnAlgorithm> GetBurnAlgorithm(DeviceType dt, RomInterface* rom_if,
                                                bool is_fs_burn, bool is_fw_dump, bool is_fw_check);

/// The program: parses the command line and performs the burn. Returns the exit status. Does not
/// catch a BraidError of the GUID list.
int FwPush(int ac, char* av[]);
