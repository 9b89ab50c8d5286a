#include "common/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <utility>

#include "common/CommandLine.h"
#include "common/Text.h"

namespace common {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void ThrowUnwritable(const fs::path& path, const std::string& reason) {
  throw std::runtime_error("can't write " + path.string() + ": " + reason);
}

[[noreturn]] void ThrowUnwritable(const fs::path& path) { ThrowUnwritable(path, strerror(errno)); }

/// Whether `folder` holds the names of this process's descriptors.
bool HoldsDescriptors(const fs::path& folder) {
  const std::string own = "/proc/" + std::to_string(getpid());
  return folder == own + "/fd" ||
         (folder.filename() == "fd" && folder.string().starts_with(own + "/task/"));
}

/// `path` with all its links followed, down to a file that need not exist, or to the name of a
/// descriptor of this process.
fs::path TargetOf(fs::path path) {
  constexpr int MOST_LINKS = 40;  // as many as the kernel follows
  std::error_code error;
  const fs::path absolute = fs::absolute(path, error);
  if (error) return path;  // there can be no such file
  path = absolute;
  for (int links = 0; links < MOST_LINKS; ++links) {
    const fs::path folder = fs::canonical(path.parent_path(), error);
    if (error) break;
    path = folder / path.filename();
    if (HoldsDescriptors(folder) || !fs::is_symlink(path, error)) return path;
    path = folder / fs::read_symlink(path, error);
  }
  return path.lexically_normal();
}

/// The number of the descriptor that `path` names; nothing for other files.
std::optional<int> DescriptorNamedBy(const fs::path& path) {
  const fs::path target = TargetOf(path);
  if (!HoldsDescriptors(target.parent_path())) return {};
  const std::string name = target.filename();
  const char* const end = name.data() + name.size();
  int fd = 0;
  const auto parsed = std::from_chars(name.data(), end, fd);
  if (parsed.ec != std::errc() || parsed.ptr != end) return {};
  return fd;
}

/// A copy of the descriptor `fd`, which must be one that this process was started with: the others
/// belong to files of its own.
Descriptor CopyOfInherited(int fd, const fs::path& name) {
  const int flags = fcntl(fd, F_GETFD);
  const int mode = fcntl(fd, F_GETFL);
  if (flags < 0 || mode < 0 || (flags & FD_CLOEXEC) != 0 || (mode & O_ACCMODE) == O_RDONLY) {
    ThrowUnwritable(name, strerror(EBADF));
  }
  Descriptor copy(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (!copy.IsOpen()) ThrowUnwritable(name);
  return copy;
}

/// Opens what is written to as it is: a descriptor, a device or a pipe. Returns no descriptor for a
/// regular file, and for one that does not exist.
Descriptor OpenInPlace(const fs::path& name) {
  if (const auto fd = DescriptorNamedBy(name)) return CopyOfInherited(*fd, name);
  std::error_code error;
  const fs::file_status status = fs::status(name, error);
  if (!fs::exists(status) || fs::is_regular_file(status)) return Descriptor();
  if (fs::is_directory(status)) ThrowUnwritable(name, "not a file");
  Descriptor file(open(name.c_str(), O_WRONLY | O_CLOEXEC));
  if (!file.IsOpen()) ThrowUnwritable(name);
  return file;
}

constexpr char STANDARD_OUTPUT[] = "/proc/self/fd/1";

/// Whether the two are one regular file: the same one, or the same name of a new one.
bool IsSame(const fs::path& one, const fs::path& other) {
  struct stat first {};
  struct stat second {};
  const bool has_first = stat(one.c_str(), &first) == 0;
  const bool has_second = stat(other.c_str(), &second) == 0;
  if (has_first != has_second) return false;
  if (has_first) {
    return S_ISREG(first.st_mode) && first.st_dev == second.st_dev && first.st_ino == second.st_ino;
  }
  return TargetOf(one) == TargetOf(other);
}

}  // namespace

void RefuseSameFiles(const std::vector<NamedFile>& inputs, const std::vector<NamedFile>& outputs) {
  for (auto output = outputs.begin(); output != outputs.end(); ++output) {
    if (output->path.empty()) continue;
    const auto refuse = [&](const std::string& other) {
      throw UsageError(output->what, Printable(output->path.string()) + " is the same file as " +
                                         other + "; give another one");
    };
    const auto compare = [&](const NamedFile& other) {
      if (other.path.empty() || !IsSame(output->path, other.path)) return;
      refuse(other.what + " " + Printable(other.path.string()));
    };
    std::for_each(inputs.begin(), inputs.end(), compare);
    std::for_each(outputs.begin(), output, compare);
    if (IsSame(output->path, "/proc/self/exe")) refuse("this program");
    if (DescriptorNamedBy(output->path)) continue;
    // Replacing the file would lose what is printed.
    if (IsSame(output->path, STANDARD_OUTPUT)) refuse("standard output");
    if (IsSame(output->path, "/proc/self/fd/2")) refuse("standard error");
  }
  for (const NamedFile& input : inputs) {
    if (input.path.empty() || !IsSame(input.path, STANDARD_OUTPUT)) continue;
    throw UsageError("standard output", "is the same file as " + input.what + " " +
                                            Printable(input.path.string()) + "; give another one");
  }
}

OutputFile::OutputFile(const fs::path& path) : _name(path), _file(OpenInPlace(path)) {
  if (_file.IsOpen()) return;
  _target = TargetOf(path);  // a link stays, and leads to the new file
  // Remove the temporary file at once: a run that is killed before it writes leaves none behind.
  Create();
  unlink(_temporary.c_str());
  _temporary.clear();
  _file.Close();
}

OutputFile::~OutputFile() {
  if (!_temporary.empty()) unlink(_temporary.c_str());
}

void OutputFile::Create() {
  const std::string extension = _target.extension();
  std::string name = _target.parent_path() / (_target.stem().string() + ".XXXXXX" + extension);
  _file = Descriptor(mkostemps(name.data(), static_cast<int>(extension.size()), O_CLOEXEC));
  if (!_file.IsOpen()) Throw();
  _temporary = name;
  // mkostemps makes the file private. Give it the mode of the old file, or that of any new file.
  const mode_t mask = umask(0);
  umask(mask);
  struct stat before {};
  const bool is_replaced = stat(_target.c_str(), &before) == 0;
  if (fchmod(_file.Get(), is_replaced ? before.st_mode & 0777 : 0666 & ~mask) == 0) return;
  const int reason = errno;
  unlink(_temporary.c_str());
  _temporary.clear();
  errno = reason;
  Throw();
}

void OutputFile::Write(std::span<const char> bytes) {
  if (_target.empty()) {
    std::cout.flush();  // it may go to the same file
  } else if (!_file.IsOpen()) {
    Create();
  }
  if (!WriteAll(_file.Get(), bytes)) Throw();
}

void OutputFile::Keep() {
  if (_target.empty()) {
    if (close(_file.Release()) != 0) Throw();
    return;
  }
  if (!_file.IsOpen()) Create();
  // Without fsync, a power cut after the rename may leave an empty file.
  if (fsync(_file.Get()) != 0 || close(_file.Release()) != 0) Throw();
  if (rename(_temporary.c_str(), _target.c_str()) != 0) Throw();
  _temporary.clear();
}

void OutputFile::Throw() const { ThrowUnwritable(_name); }

LogFile::LogFile(const std::string& name) : _name(name) {
  if (name.empty()) return;
  _file = OpenInPlace(name);
  if (_file.IsOpen()) return;
  _is_regular = true;
  const auto create = [&name](int flags) {
    return Descriptor(open(name.c_str(), O_WRONLY | O_CLOEXEC | O_CREAT | flags, 0666));
  };
  _file = create(O_EXCL);
  _is_ours = _file.IsOpen();
  if (!_is_ours) _file = create(0);
  if (!_file.IsOpen()) ThrowUnwritable(name);
}

LogFile::~LogFile() {
  if (_is_ours && !_is_begun) unlink(_name.c_str());
}

void LogFile::Begin() {
  if (!_file.IsOpen() || std::exchange(_is_begun, true)) return;
  if (_is_regular && ftruncate(_file.Get(), 0) != 0) GiveUp();
}

void LogFile::Write(std::string_view text) {
  Begin();
  if (_file.IsOpen() && !WriteAll(_file.Get(), text)) GiveUp();
}

void LogFile::GiveUp() {
  _trouble = "can't write " + _name + ": " + strerror(errno);
  _file.Close();
}

void LogFile::Finish() {
  Begin();
  if (!_trouble.empty()) throw std::runtime_error(_trouble);
}

}  // namespace common
