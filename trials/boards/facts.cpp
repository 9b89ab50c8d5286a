/// Runs inside a board: what fwpush-serve relies on in the kernel's MTD and I2C interfaces, a test
/// for each fact. Prints "fact: FACT: holds", or "fact: FACT: CHANGED: what is so now".
/// Usage: board_facts MTD_NUMBER I2C_NUMBER ERROR ERASE_SIZE
/// ERROR is the number of the error of a transfer to an address without a chip, ERASE_SIZE what the
/// flash erases at once, in bytes.
/// The I2C adapter has a pca9548 at 0x70, known to the kernel, and 24C64 at 0x54 and, on channel 0
/// of the mux, at 0x50. The start of the flash is overwritten.

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <mtd/mtd-user.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/klog.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int SYSLOG_ACTION_READ_ALL = 3;
constexpr int SYSLOG_ACTION_SIZE_BUFFER = 10;

constexpr std::uint16_t CHIP = 0x54;
constexpr std::uint16_t CHIP_BEHIND_MUX = 0x50;
constexpr std::uint16_t ABSENT = 0x2f;

int changed = 0;

/// How a call ended, in words.
std::string Ended(long result) {
  return result < 0 ? strerror(errno) : "it returns " + std::to_string(result);
}

void Tell(const std::string& fact, bool holds, const std::string& now) {
  std::cout << "fact: " << fact << ": " << (holds ? "holds" : "CHANGED: " + now) << "\n";
  if (!holds) ++changed;
}

/// The call must fail with this error number.
void TellError(const std::string& fact, long result, int error) {
  Tell(fact, result < 0 && errno == error, Ended(result));
}

void TellSuccess(const std::string& fact, long result) { Tell(fact, result >= 0, Ended(result)); }

class File {
 public:
  File(const std::string& path, int flags) : _fd(open(path.c_str(), flags | O_CLOEXEC)) {
    if (_fd < 0) throw std::runtime_error(path + ": " + strerror(errno));
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { close(_fd); }
  operator int() const { return _fd; }

 private:
  int _fd;
};

std::string Read(const std::string& path) {
  std::ifstream file(path);
  std::string text((std::istreambuf_iterator<char>(file)), {});
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

void Write(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  if (!file.flush()) throw std::runtime_error("can't write " + path);
}

// ---- MTD

int Erase(int fd, std::uint32_t start, std::uint32_t length) {
  erase_info_user64 range{start, length};
  return ioctl(fd, MEMERASE64, &range);
}

std::uint8_t ByteAt(int fd, std::uint32_t addr) {
  std::uint8_t byte = 0;
  if (pread(fd, &byte, 1, addr) != 1) throw std::runtime_error("can't read the flash");
  return byte;
}

void TellOfMtd(const std::string& number, std::uint32_t erase_size) {
  const std::string node = "/dev/mtd" + number;
  const std::string users = "/sys/module/spi_nor/refcnt";
  const std::string users_before = Read(users);
  const File flash(node, O_RDWR);
  Tell("an open flash keeps its driver's module", std::stoi(Read(users)) > std::stoi(users_before),
       Read(users) + " users, before it was opened " + users_before);
  mtd_info_user info{};
  TellSuccess("MEMGETINFO works", ioctl(flash, MEMGETINFO, &info));
  Tell("a NOR flash has the type NOR", info.type == MTD_NORFLASH, std::to_string(info.type));
  Tell("bits of a NOR flash may be written again, byte by byte",
       (info.flags & MTD_BIT_WRITEABLE) != 0 && info.writesize == 1,
       "writesize " + std::to_string(info.writesize));
  // 4 KiB where the flash can: Debian builds the kernel so.
  Tell("the flash is erased by " + std::to_string(erase_size) + " bytes",
       info.erasesize == erase_size, std::to_string(info.erasesize));
  const std::string folder = "/sys/class/mtd/mtd" + number;
  Tell("/sys tells the size", Read(folder + "/size") == std::to_string(info.size),
       Read(folder + "/size"));
  Tell("/sys tells what is erased at once",
       Read(folder + "/erasesize") == std::to_string(info.erasesize), Read(folder + "/erasesize"));
  Tell("/sys tells the type", Read(folder + "/type") == "nor", Read(folder + "/type"));
  Tell("/sys tells what is written at least", Read(folder + "/writesize") == "1",
       Read(folder + "/writesize"));
  Tell("/sys tells how many regions with other sectors there are",
       Read(folder + "/numeraseregions") == "0", Read(folder + "/numeraseregions"));
  int regions = -1;
  TellSuccess("MEMGETREGIONCOUNT works", ioctl(flash, MEMGETREGIONCOUNT, &regions));
  Tell("it tells the same as /sys", regions == 0, std::to_string(regions));
  Tell("/sys tells the JEDEC id", Read(folder + "/device/spi-nor/jedec_id").size() >= 6,
       "'" + Read(folder + "/device/spi-nor/jedec_id") + "'");

  TellSuccess("MEMERASE64 of one block works", Erase(flash, 0, info.erasesize));
  Tell("erased bytes are FF", ByteAt(flash, 0x100) == 0xFF, std::to_string(ByteAt(flash, 0x100)));
  const std::uint8_t first = 0x0F;
  const std::uint8_t second = 0x3C;
  Tell("a byte is programmed", pwrite(flash, &first, 1, 0x100) == 1, Ended(-1));
  Tell("it is programmed again without an erase", pwrite(flash, &second, 1, 0x100) == 1, Ended(-1));
  Tell("a program only clears bits", ByteAt(flash, 0x100) == 0x0C,
       "3C over 0F reads " + std::to_string(ByteAt(flash, 0x100)));
  TellError("MEMERASE64 of half a block is refused", Erase(flash, 0, info.erasesize / 2), EINVAL);
  TellSuccess("MEMERASE64 from the middle of a block is not refused",
              Erase(flash, info.erasesize / 2, info.erasesize));
  TellSuccess("MEMERASE64 of two blocks works", Erase(flash, 0, 2 * info.erasesize));
  TellError("MEMERASE64 past the end is refused", Erase(flash, info.size, info.erasesize), EINVAL);

  Bytes bytes(16);
  Tell("a read across the end is short", pread(flash, bytes.data(), 16, info.size - 8) == 8, "");
  Tell("a read past the end reads nothing", pread(flash, bytes.data(), 16, info.size) == 0, "");
  TellError("a write past the end fails with ENOSPC", pwrite(flash, bytes.data(), 16, info.size),
            ENOSPC);
  Tell("a write across the end is short", pwrite(flash, bytes.data(), 16, info.size - 8) == 8, "");
  TellError("fsync fails with EINVAL", fsync(flash), EINVAL);
  TellError("fdatasync fails with EINVAL", fdatasync(flash), EINVAL);
  const void* mapped = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, flash, 0);
  TellError("mmap fails with ENODEV", mapped == MAP_FAILED ? -1 : 0, ENODEV);

  const int again = open(node.c_str(), O_RDWR | O_EXCL | O_CLOEXEC);
  TellSuccess("two may open it for writing, O_EXCL or not", again);
  TellSuccess("flock works", flock(flash, LOCK_EX | LOCK_NB));
  TellError("and keeps another opener out", flock(again, LOCK_EX | LOCK_NB), EWOULDBLOCK);
  const File read_only(node, O_RDONLY);
  TellError("MEMERASE64 needs a node that is opened for writing",
            Erase(read_only, 0, info.erasesize), EPERM);
  erase_info_user whole{0, info.size};
  TellError("MEMLOCK needs one, too", ioctl(read_only, MEMLOCK, &whole), EPERM);
  TellError("and MEMUNLOCK", ioctl(read_only, MEMUNLOCK, &whole), EPERM);
  mtd_write_req request{};
  TellError("and MEMWRITE", ioctl(read_only, MEMWRITE, &request), EPERM);
  Tell("nothing is locked after a start", ioctl(flash, MEMISLOCKED, &whole) == 0, Ended(-1));
  // Both may report an error, too: only some bits of the status register are there on aspeed.
  ioctl(flash, MEMLOCK, &whole);
  Tell("MEMLOCK locks", ioctl(flash, MEMISLOCKED, &whole) == 1, Ended(-1));
  Erase(flash, 0, info.erasesize);
  Tell("a program of a locked flash reports success", pwrite(flash, &first, 1, 0x200) == 1,
       Ended(-1));
  Tell("and changes nothing", ByteAt(flash, 0x200) == 0xFF, std::to_string(ByteAt(flash, 0x200)));
  ioctl(flash, MEMUNLOCK, &whole);
  pwrite(flash, &first, 1, 0x200);
  Tell("after MEMUNLOCK a program has its effect", ByteAt(flash, 0x200) == first,
       std::to_string(ByteAt(flash, 0x200)));
  const int for_writing = open((node + "ro").c_str(), O_RDWR | O_CLOEXEC);
  TellError("the node /dev/mtdNro cannot be opened for writing", for_writing, EACCES);
}

// ---- I2C

/// Transfers; the result of the call.
int Transfer(int fd, std::vector<i2c_msg> messages) {
  i2c_rdwr_ioctl_data data{messages.data(), static_cast<std::uint32_t>(messages.size())};
  return ioctl(fd, I2C_RDWR, &data);
}

i2c_msg Message(std::uint16_t address, std::uint16_t flags, Bytes& bytes) {
  return {address, flags, static_cast<std::uint16_t>(bytes.size()), bytes.data()};
}

/// Reads from a 24C64.
std::string ReadChip(int fd, std::uint16_t address, std::uint16_t offset, std::size_t size) {
  Bytes start{static_cast<std::uint8_t>(offset >> 8), static_cast<std::uint8_t>(offset)};
  Bytes bytes(size);
  if (Transfer(fd, {Message(address, 0, start), Message(address, I2C_M_RD, bytes)}) != 2) {
    return strerror(errno);
  }
  return {bytes.begin(), bytes.end()};
}

int WriteChip(int fd, std::uint16_t address, std::uint16_t offset, const std::string& text) {
  Bytes bytes{static_cast<std::uint8_t>(offset >> 8), static_cast<std::uint8_t>(offset)};
  bytes.insert(bytes.end(), text.begin(), text.end());
  return Transfer(fd, {Message(address, 0, bytes)});
}

/// The number of the adapter of channel 0 of the mux.
std::string ChannelOf(const std::string& number) {
  const std::string link = "/sys/bus/i2c/devices/" + number + "-0070/channel-0";
  std::array<char, 256> target{};
  if (readlink(link.c_str(), target.data(), target.size() - 1) < 0) {
    throw std::runtime_error(link + ": " + strerror(errno));
  }
  const std::string path = target.data();
  return path.substr(path.rfind("i2c-") + 4);
}

std::string Short(const std::string& number, std::uint16_t address) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%s-%04x", number.c_str(), address);
  return text.data();
}

std::string KernelLog() {
  const int size = klogctl(SYSLOG_ACTION_SIZE_BUFFER, nullptr, 0);
  std::string log(static_cast<std::size_t>(std::max(size, 0)), '\0');
  const int read = klogctl(SYSLOG_ACTION_READ_ALL, log.data(), size);
  log.resize(static_cast<std::size_t>(std::max(read, 0)));
  return log;
}

void TellOfBoundChips(const std::string& number, const std::string& channel) {
  const std::string devices = "/sys/bus/i2c/devices/";
  const File bus("/dev/i2c-" + number, O_RDWR);
  Write(devices + "i2c-" + number + "/new_device", "24c64 0x54");
  Write(devices + "i2c-" + channel + "/new_device", "24c64 0x50");
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const std::string file = devices + Short(number, CHIP) + "/eeprom";
  struct stat status {};
  TellSuccess("at24 has a file for a chip", stat(file.c_str(), &status));
  Tell("without a device tree it writes single bytes",
       KernelLog().find(Short(number, CHIP) +
                        ": 8192 byte 24c64 EEPROM, writable, 1 bytes/write") != std::string::npos,
       "the kernel's log does not say so");
  Tell("it is root's alone", (status.st_mode & 0777) == 0600,
       std::to_string(status.st_mode & 0777));
  TellError("I2C_SLAVE tells that a driver owns an address", ioctl(bus, I2C_SLAVE, CHIP), EBUSY);
  TellError("also if the chip is behind a mux of the adapter",
            ioctl(bus, I2C_SLAVE, CHIP_BEHIND_MUX), EBUSY);
  Tell("I2C_RDWR does not care", ReadChip(bus, CHIP, 0x40, 4) == "word",
       ReadChip(bus, CHIP, 0x40, 4));
  Write(devices + "i2c-" + channel + "/delete_device", "0x50");
  Write(devices + "i2c-" + number + "/delete_device", "0x54");
}

void TellOfI2c(const std::string& number, int absent_error) {
  const File bus("/dev/i2c-" + number, O_RDWR);
  unsigned long functions = 0;
  TellSuccess("I2C_FUNCS works", ioctl(bus, I2C_FUNCS, &functions));
  Tell("the adapter makes plain I2C transfers", (functions & I2C_FUNC_I2C) != 0, "it does not");
  Tell("one message writes a page", WriteChip(bus, CHIP, 0x40, "word") == 1, Ended(-1));
  Tell("two messages read it", ReadChip(bus, CHIP, 0x40, 4) == "word",
       ReadChip(bus, CHIP, 0x40, 4));
  Bytes one(1);
  const i2c_msg read = Message(CHIP, I2C_M_RD, one);
  Tell("42 messages are taken", Transfer(bus, std::vector(42, read)) == 42, Ended(-1));
  TellError("43 messages are refused", Transfer(bus, std::vector(43, read)), EINVAL);
  Bytes many(8193);
  TellError("a message of more than 8192 bytes is refused",
            Transfer(bus, {Message(CHIP, I2C_M_RD, many)}), EINVAL);
  TellError(std::string("an address without a chip fails with ") + strerror(absent_error),
            Transfer(bus, {Message(ABSENT, I2C_M_RD, one)}), absent_error);
  TellSuccess("I2C_SLAVE takes an address that no driver owns", ioctl(bus, I2C_SLAVE, CHIP));
  Bytes most(10000);
  const long cut = ::read(bus, most.data(), most.size());
  Tell("read is cut at 8192 bytes in silence", cut == 8192, Ended(cut));
  std::fill(most.begin(), most.end(), std::uint8_t{0});
  const long written = ::write(bus, most.data(), most.size());
  Tell("write is cut at 8192 bytes in silence", written == 8192, Ended(written));
  WriteChip(bus, CHIP, 0x40, "word");
  Bytes longest(8192);
  Tell("a message of 8192 bytes is taken", Transfer(bus, {Message(CHIP, I2C_M_RD, longest)}) == 1,
       Ended(-1));

  const std::string channel = ChannelOf(number);
  const std::string name = Read("/sys/bus/i2c/devices/i2c-" + channel + "/name");
  Tell("a channel's name says which it is", name == "i2c-" + number + "-mux (chan_id 0)", name);
  const std::string idle = Read("/sys/bus/i2c/devices/" + number + "-0070/idle_state");
  Tell("a mux keeps its last channel when it is idle", idle == "-1", idle);
  const File behind("/dev/i2c-" + channel, O_RDWR);
  WriteChip(behind, CHIP_BEHIND_MUX, 0x40, "deep");
  Tell("so that a chip behind it answers before it",
       ReadChip(bus, CHIP_BEHIND_MUX, 0x40, 4) == "deep", ReadChip(bus, CHIP_BEHIND_MUX, 0x40, 4));
  TellOfBoundChips(number, channel);
  Write("/sys/bus/i2c/devices/" + number + "-0070/idle_state", "-2");
  WriteChip(behind, CHIP_BEHIND_MUX, 0x40, "deep");
  Tell("with idle_state -2 it answers behind the mux alone",
       Transfer(bus, {Message(CHIP_BEHIND_MUX, I2C_M_RD, one)}) < 0 &&
           ReadChip(behind, CHIP_BEHIND_MUX, 0x40, 4) == "deep",
       "it does not");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 64;
  try {
    TellOfMtd(argv[1], static_cast<std::uint32_t>(std::stoul(argv[4])));
    TellOfI2c(argv[2], std::stoi(argv[3]));
  } catch (const std::exception& error) {
    std::cout << "fact: CHANGED: " << error.what() << "\n";
    return 1;
  }
  return changed == 0 ? 0 : 1;
}
