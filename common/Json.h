/// JSON as the programs print it.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace common {

/// The text of a JSON value, with `indent` blanks for each level; negative for one line. Bytes that
/// are no UTF-8 become U+FFFD: texts from files and servers may be any bytes.
std::string DumpJson(const nlohmann::json& json, int indent = 2);
std::string DumpJson(const nlohmann::ordered_json& json, int indent = 2);

}  // namespace common
