#include "common/Json.h"

#include <nlohmann/json.hpp>

namespace common {

std::string DumpJson(const nlohmann::json& json, int indent) {
  return json.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string DumpJson(const nlohmann::ordered_json& json, int indent) {
  return json.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace common
