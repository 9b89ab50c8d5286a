/// The file that keeps who burnt which device.
#pragma once

#include <filesystem>

#include "common/Descriptor.h"
#include "serve/Leases.h"

namespace serve {

/// Appends one JSON object a line, as docs/json/serve-audit.schema.json has it.
class AuditLog {
 public:
  /// Opens the file, or creates it. A pipe must have a reader. Throws std::runtime_error.
  explicit AuditLog(const std::filesystem::path& path);

  /// Returns when the line is on the disk. Throws std::runtime_error.
  void Write(const LeaseRecord& record);

 private:
  std::filesystem::path _path;
  common::Descriptor _file;
  bool _is_torn = false;  ///< the last line has no end
};

/// The line of a record, without its end.
std::string AuditLine(const LeaseRecord& record);

}  // namespace serve
