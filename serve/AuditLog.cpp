#include "serve/AuditLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "common/Json.h"
#include "common/Text.h"

namespace serve {

namespace {

/// "2026-05-04T12:03:11Z".
std::string IsoTime(std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts{};
  gmtime_r(&time, &parts);
  char text[32];
  return {text, std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

[[noreturn]] void ThrowFileError(const std::filesystem::path& path) {
  throw std::runtime_error(path.string() + ": " + strerror(errno));
}

}  // namespace

std::string AuditLine(const LeaseRecord& record) {
  nlohmann::ordered_json json;
  json["version"] = 1;
  json["peer"] = record.peer;
  json["device"] = common::HexGuid(record.device);
  json["name"] = record.name;
  json["since"] = IsoTime(record.since);
  json["until"] = IsoTime(record.until);
  json["requests"] = record.requests;
  json["failed"] = record.failed;
  json["bytes"] = record.bytes;
  json["erases"] = record.erases;
  json["sha256"] = record.sha256;
  json["end"] = record.end;
  json["last_error"] = nullptr;
  if (!record.last_error.empty()) json["last_error"] = record.last_error;
  return common::DumpJson(json, -1);
}

AuditLog::AuditLog(const std::filesystem::path& path)
    : _path(path),
      _file(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
                 0640)) {
  if (!_file.IsOpen()) ThrowFileError(path);
}

void AuditLog::Write(const LeaseRecord& record) {
  // After a line that the disk had no room for, this one begins a new line.
  const std::string line = (_is_torn ? "\n" : "") + AuditLine(record) + "\n";
  // One call, so that no other writer comes in between.
  const ssize_t written = write(_file.Get(), line.data(), line.size());
  if (written < 0) ThrowFileError(_path);
  _is_torn = static_cast<std::size_t>(written) < line.size();
  if (_is_torn) {
    throw std::runtime_error(_path.string() + ": the disk is full");
  }
  // A pipe or a terminal has no disk.
  if (fdatasync(_file.Get()) != 0 && errno != EINVAL && errno != EROFS) ThrowFileError(_path);
}

}  // namespace serve
