#include "serve/LinuxSystem.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <mtd/mtd-user.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "common/ChildProcess.h"
#include "common/Descriptor.h"
#include "common/Text.h"

namespace serve {

static_assert(sizeof(off_t) == 8, "offsets of memories do not fit");

namespace {

using common::Descriptor;

/// Bytes of a message of one I2C transfer: i2c-dev refuses more.
constexpr std::size_t MAX_I2C_MESSAGE = 8192;
/// Bytes of a small file. A table of mounts may be longer than one thinks.
constexpr std::size_t MAX_TEXT = std::size_t{1} << 20;

/// Makes a call until no signal interrupts it. Returns its result, or the error negated.
template <typename Call>
auto Made(const Call& call) -> decltype(call()) {
  while (true) {
    const auto result = call();
    if (result >= 0) return result;
    if (errno != EINTR) return -errno;
  }
}

/// Calls `call` with what is left of `size` bytes until all are done, or there are no more.
template <typename Call>
std::int64_t Whole(std::size_t size, const Call& call) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = Made([&] { return call(done); });
    if (count < 0) return count;
    if (count == 0) break;
    done += static_cast<std::size_t>(count);
  }
  return static_cast<std::int64_t>(done);
}

}  // namespace

Time LinuxSystem::Now() const { return std::chrono::steady_clock::now().time_since_epoch(); }

std::int64_t LinuxSystem::WallSeconds() const { return time(nullptr); }

int LinuxSystem::Open(const std::string& path, Access access) {
  // A pipe would hold the caller up until its other end is there; memories know no such wait.
  int flags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  flags |= access == Access::READ ? O_RDONLY : O_RDWR;
  if (access == Access::LOCK) flags |= O_CREAT;
  return Made([&] { return open(path.c_str(), flags, 0644); });
}

void LinuxSystem::Close(int descriptor) { close(descriptor); }

int LinuxSystem::Lock(int descriptor) {
  return Made([&] { return flock(descriptor, LOCK_EX | LOCK_NB); });
}

std::int64_t LinuxSystem::Read(int descriptor, std::uint64_t offset,
                               std::span<std::uint8_t> bytes) {
  return Whole(bytes.size(), [&](std::size_t done) {
    return pread(descriptor, bytes.data() + done, bytes.size() - done,
                 static_cast<off_t>(offset + done));
  });
}

std::int64_t LinuxSystem::Write(int descriptor, std::uint64_t offset,
                                std::span<const std::uint8_t> bytes) {
  return Whole(bytes.size(), [&](std::size_t done) {
    return pwrite(descriptor, bytes.data() + done, bytes.size() - done,
                  static_cast<off_t>(offset + done));
  });
}

std::int64_t LinuxSystem::SizeOf(int descriptor) {
  struct stat status {};
  if (fstat(descriptor, &status) < 0) return -errno;
  return S_ISREG(status.st_mode) ? status.st_size : -EINVAL;
}

int LinuxSystem::Flush(int descriptor) {
  return Made([&] { return fdatasync(descriptor); });
}

int LinuxSystem::HasPlainI2c(int descriptor) {
  unsigned long functions = 0;
  const int result = Made([&] { return ioctl(descriptor, I2C_FUNCS, &functions); });
  if (result < 0) return result;
  return (functions & I2C_FUNC_I2C) != 0 ? 1 : 0;
}

int LinuxSystem::CheckI2cAddress(int descriptor, std::uint16_t address) {
  return Made([&] { return ioctl(descriptor, I2C_SLAVE, static_cast<unsigned long>(address)); });
}

int LinuxSystem::TransferI2c(int descriptor, std::span<const I2cMessage> messages) {
  std::array<i2c_msg, I2C_RDWR_IOCTL_MAX_MSGS> wanted{};
  if (messages.empty() || messages.size() > wanted.size()) return -EINVAL;
  for (std::size_t i = 0; i < messages.size(); ++i) {
    const I2cMessage& message = messages[i];
    if (message.bytes.size() > MAX_I2C_MESSAGE) return -EINVAL;
    wanted[i].addr = message.address;
    wanted[i].flags = message.is_read ? I2C_M_RD : 0;
    wanted[i].len = static_cast<std::uint16_t>(message.bytes.size());
    wanted[i].buf = message.bytes.data();
  }
  // The kernel is given its padding, too.
  i2c_rdwr_ioctl_data transfer;
  std::memset(&transfer, 0, sizeof(transfer));
  transfer.msgs = wanted.data();
  transfer.nmsgs = static_cast<std::uint32_t>(messages.size());
  const int done = Made([&] { return ioctl(descriptor, I2C_RDWR, &transfer); });
  if (done < 0) return done;
  return static_cast<std::size_t>(done) == messages.size() ? 0 : -EIO;
}

int LinuxSystem::GetMtdFacts(int descriptor, MtdFacts& facts) {
  mtd_info_user info{};
  if (const int result = Made([&] { return ioctl(descriptor, MEMGETINFO, &info); }); result < 0) {
    return result;
  }
  int regions = 0;
  if (const int result = Made([&] { return ioctl(descriptor, MEMGETREGIONCOUNT, &regions); });
      result < 0) {
    return result;
  }
  facts = {.is_nor = info.type == MTD_NORFLASH,
           .is_bit_writable = (info.flags & MTD_BIT_WRITEABLE) != 0,
           .has_no_erase = (info.flags & MTD_NO_ERASE) != 0,
           .size = info.size,
           .erase_size = info.erasesize,
           .write_size = info.writesize,
           .erase_regions = static_cast<std::uint32_t>(std::max(regions, 0))};
  // The call knows 32 bits of the size. Two nodes belong to each device.
  struct stat status {};
  if (fstat(descriptor, &status) < 0) return -errno;
  const auto text =
      ReadText(common::Text("/sys/class/mtd/mtd", minor(status.st_rdev) / 2, "/size"));
  if (text) facts.size = std::strtoull(text->c_str(), nullptr, 10);
  return 0;
}

int LinuxSystem::EraseMtd(int descriptor, std::uint64_t offset, std::uint64_t size) {
  erase_info_user64 range{.start = offset, .length = size};
  return Made([&] { return ioctl(descriptor, MEMERASE64, &range); });
}

std::optional<std::string> LinuxSystem::ReadText(const std::string& path) {
  const Descriptor file(Open(path, Access::READ));
  if (!file.IsOpen()) return {};
  std::string text;
  std::array<char, 4096> block;
  while (text.size() < MAX_TEXT) {
    const ssize_t count = Made([&] { return read(file.Get(), block.data(), block.size()); });
    if (count < 0) return {};
    if (count == 0) break;
    text.append(block.data(), static_cast<std::size_t>(count));
  }
  if (text.ends_with('\n')) text.pop_back();
  return text;
}

std::vector<std::string> LinuxSystem::List(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    names.push_back(entry->path().filename());
  }
  if (error) return {};
  std::ranges::sort(names);
  return names;
}

std::string LinuxSystem::Resolve(const std::string& path) {
  std::error_code error;
  const std::filesystem::path real = std::filesystem::canonical(path, error);
  return error ? "" : real.string();
}

int LinuxSystem::WriteText(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".new";
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW;
  const int opened = Made([&] { return open(temporary.c_str(), flags, 0644); });
  if (opened < 0) return opened;
  const Descriptor file(opened);
  int result = common::WriteAll(file.Get(), text) ? 0 : -errno;
  if (result == 0) result = Made([&] { return fsync(file.Get()); });
  if (result == 0 && rename(temporary.c_str(), path.c_str()) < 0) result = -errno;
  if (result < 0) {
    unlink(temporary.c_str());
    return result;
  }
  // The name is on the disk when its folder is.
  const std::string folder = std::filesystem::path(path).parent_path();
  const Descriptor directory(
      open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.IsOpen()) return -errno;
  return Made([&] { return fsync(directory.Get()); });
}

int LinuxSystem::Remove(const std::string& path) { return unlink(path.c_str()) < 0 ? -errno : 0; }

int LinuxSystem::RunProgram(const std::vector<std::string>& words, Time limit) try {
  if (words.empty()) return -EINVAL;
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::steady_clock::duration>(limit);
  const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  // Workers have all signals blocked, and a program would inherit that.
  sigset_t none;
  sigemptyset(&none);
  common::ChildProcess child({.words = words,
                              .input = nothing.Get(),
                              .output = STDERR_FILENO,
                              .is_job = true,
                              .default_signals = {SIGPIPE, SIGHUP, SIGINT, SIGTERM},
                              .blocked_signals = &none});
  const auto ending = child.WaitUntil(deadline);
  if (!ending) {
    // What it has started goes with it.
    kill(-child.Pid(), SIGKILL);
    child.Wait();
    return -ETIME;
  }
  return ending->signal != 0 ? 128 + ending->signal : ending->status;
} catch (const std::system_error& error) {
  return -error.code().value();
}

}  // namespace serve
