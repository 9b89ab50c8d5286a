/// Intel HEX and Motorola S-records, read and written by the srec_cat program.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "device/Bytes.h"

namespace fwimg {

enum class RecordFormat { INTEL, MOTOROLA };

/// The format that a name or a file extension, with its '.', stands for.
std::optional<RecordFormat> ParseFormat(std::string_view name_or_extension);

/// Bytes without a gap.
struct RecordRange {
  std::uint32_t addr;
  device::Bytes data;
};

/// Writes `ranges`, which are not empty and do not overlap, as records. The file gets its name only
/// when it is complete. Throws std::runtime_error; when srec_cat is missing, the text says so.
void WriteRecords(const std::vector<RecordRange>& ranges, RecordFormat format,
                  const std::filesystem::path& path);

/// The bytes of a file of records, in ascending order, neighbours made one. What srec_cat warns of
/// is refused, unless it costs no byte; where the reading is `lax`, `warn` gets it instead, one
/// message each time. Throws std::runtime_error.
std::vector<RecordRange> ReadRecords(const std::filesystem::path& path, RecordFormat format,
                                     bool lax, const std::function<void(const std::string&)>& warn);

}  // namespace fwimg
