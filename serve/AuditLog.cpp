#include "serve/AuditLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "common/Json.h"
#include "common/Text.h"

namespace serve {

namespace {

/// "2026-05-04T12:03:11Z".
std::string IsoTime(std::int64_t seconds) {
  // Not by time_t, which has 32 bits on some boards and ends in 2038 there.
  const std::chrono::sys_seconds time{std::chrono::seconds(seconds)};
  const auto midnight = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(midnight);
  const std::chrono::hh_mm_ss clock(time - midnight);
  std::ostringstream text;
  const auto two_digits = [&](const char* before, auto number) {
    text << before << std::setw(2) << number;
  };
  text << std::setfill('0') << std::setw(4) << static_cast<int>(date.year());
  two_digits("-", static_cast<unsigned>(date.month()));
  two_digits("-", static_cast<unsigned>(date.day()));
  two_digits("T", clock.hours().count());
  two_digits(":", clock.minutes().count());
  two_digits(":", clock.seconds().count());
  return text.str() + "Z";
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
