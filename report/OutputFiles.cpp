#include "report/OutputFiles.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "common/SystemError.h"

namespace report {

using common::Descriptor;
using common::ThrowSystemError;

namespace {

Descriptor OpenForWriting(const std::string& name, int flags) {
  Descriptor file(open(name.c_str(), O_WRONLY | O_CLOEXEC | flags, 0666));
  if (!file.IsOpen()) ThrowSystemError("can't write " + name);
  return file;
}

void WriteTo(const Descriptor& file, std::string_view text, const std::string& name) {
  if (!common::WriteAll(file.Get(), text)) ThrowSystemError("can't write " + name);
}

}  // namespace

bool IsNoFile(const std::string& name) {
  std::error_code error;
  const auto status = std::filesystem::status(name, error);
  return exists(status) && !is_regular_file(status);
}

ResultFile::ResultFile(const std::string& name) : _name(name) {
  if (name.empty()) return;
  if (IsNoFile(name)) {
    _device = OpenForWriting(name, 0);
  } else {
    _file.emplace(name);
  }
}

void ResultFile::Keep(std::string_view text) {
  if (_file) {
    _file->Write(text);
    _file->Keep();
  } else {
    WriteTo(_device, text, _name);
  }
}

LogFile::LogFile(const std::string& name) : _name(name) {
  if (name.empty()) return;
  _file = Descriptor(open(name.c_str(), O_WRONLY | O_CLOEXEC | O_CREAT | O_EXCL, 0666));
  _is_ours = _file.IsOpen();
  if (!_is_ours) _file = OpenForWriting(name, O_CREAT);
}

LogFile::~LogFile() {
  if (_is_ours && !_is_begun) unlink(_name.c_str());
}

void LogFile::Write(std::string_view text) {
  if (!_file.IsOpen()) return;
  try {
    if (!std::exchange(_is_begun, true) && !IsNoFile(_name) && ftruncate(_file.Get(), 0) != 0) {
      ThrowSystemError("can't write " + _name);
    }
    WriteTo(_file, text, _name);
  } catch (const std::system_error& error) {
    _trouble = error.what();
    _file.Close();
  }
}

void LogFile::Finish() {
  _is_begun = true;
  if (!_trouble.empty()) throw std::runtime_error(_trouble);
}

void ConsoleOutput::Write(std::string_view text) {
  if (!text.empty()) _is_inside_line = text.back() != '\n';
  while (!text.empty() && !_is_lost) {
    const ssize_t sent = write(STDOUT_FILENO, text.data(), text.size());
    if (sent >= 0) {
      text.remove_prefix(static_cast<std::size_t>(sent));
    } else if (errno == EAGAIN) {
      pollfd waiting{STDOUT_FILENO, POLLOUT, 0};
      poll(&waiting, 1, -1);
    } else if (errno != EINTR) {
      _is_lost = true;
      std::cerr << "fwpush-report: can't write to standard output (" << std::strerror(errno)
                << "); the burn goes on" << std::endl;
    }
  }
}

}  // namespace report
