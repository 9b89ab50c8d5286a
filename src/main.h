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
extern const char* const g_braid_ver;  ///< of the server suite; not known to this build

/// Prints the usage text for a program invoked as `sname`.
void usage(const char* sname);

/// Whether the command-line word `par`, its dashes removed, selects the switch `sw`: what stands
/// before its "=" is an abbreviation of the name, the empty word included.
bool swcmp(std::string_view par, std::string_view sw);

/// Adds the GUIDs of a comma-separated hexadecimal list to `target_guids`. Throws BraidError at the
/// first entry that is no number.
void GetTargeGuids(const std::string& guids_str, GuidSet& target_guids);

/// The memory interface for a device type. Throws BraidError when there is none, and for a local
/// burn, which is not built. `is_debug_burn` has no effect.
std::unique_ptr<RomInterface> GetRomInterface(DeviceType dt, u_int32_t log2_chunk_align,
                                              bool is_local_burn, bool is_debug_burn);

/// The burn algorithm for a device type, bound to `*rom_if`, which must outlive it. Throws
/// BraidError when there is none. `is_fw_dump` has no effect.
std::unique_ptr<BurnAlgorithm> GetBurnAlgorithm(DeviceType dt, RomInterface* rom_if,
                                                bool is_fs_burn, bool is_fw_dump, bool is_fw_check);

/// The program: parses the command line and performs the burn. Returns the exit status. A
/// BraidError from the GUID list escapes.
int FwPush(int ac, char* av[]);
