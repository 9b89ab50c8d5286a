/// What the kernel tells of devices in files, without the devices: a System that has nothing else.
#pragma once

#include <gtest/gtest.h>

#include <iomanip>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "common/Text.h"
#include "serve/System.h"

/// Every call that would reach a device, or change anything, fails the test.
class FakeSysfs : public serve::System {
 public:
  /// Adds a file with its folders.
  void AddFile(const std::string& path, const std::string& text) {
    AddFolder(path.substr(0, path.rfind('/')));
    _files[path] = text;
  }
  void AddFolder(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
      _folders.insert(path.substr(0, slash));
    }
    _folders.insert(path);
  }
  /// `target` is a path from the root.
  void AddLink(const std::string& path, const std::string& target) {
    AddFolder(path.substr(0, path.rfind('/')));
    _links[path] = target;
  }
  /// A file on a disk, which may be opened for reading.
  void AddPlainFile(const std::string& path, std::int64_t size) {
    AddFile(path, "");
    _sizes[path] = size;
  }
  /// Takes away a file, or a link.
  void Forget(const std::string& path) {
    ASSERT_EQ(_files.erase(path) + _links.erase(path), 1u) << path;
  }

  /// An adapter below `folder`, the device that it belongs to.
  void AddAdapter(unsigned number, const std::string& name, const std::string& folder) {
    const std::string id = common::Text("i2c-", number);
    AddFile(folder + "/" + id + "/name", name);
    AddLink("/sys/bus/i2c/devices/" + id, folder + "/" + id);
    AddFile("/dev/" + id, "");
  }
  /// A mux at `address` of the adapter `parent`; its channels are the adapters from `first` on.
  void AddMux(unsigned parent, unsigned address, unsigned first, unsigned channels) {
    const std::string folder = Resolve(common::Text("/sys/bus/i2c/devices/i2c-", parent));
    AddI2cDevice(parent, address, "pca9548", "pca954x");
    const std::string mux = folder + "/" + I2cId(parent, address);
    AddFile(mux + "/idle_state", "-1");
    for (unsigned channel = 0; channel < channels; ++channel) {
      AddAdapter(first + channel, common::Text("i2c-", parent, "-mux (chan_id ", channel, ")"),
                 folder);
      AddLink(common::Text(mux, "/channel-", channel),
              common::Text(folder, "/i2c-", first + channel));
    }
  }
  /// A chip that the kernel knows of; with a driver where `driver` is not empty.
  void AddI2cDevice(unsigned adapter, unsigned address, const std::string& name,
                    const std::string& driver) {
    const std::string id = I2cId(adapter, address);
    const std::string folder =
        Resolve(common::Text("/sys/bus/i2c/devices/i2c-", adapter)) + "/" + id;
    AddFile(folder + "/name", name);
    AddLink("/sys/bus/i2c/devices/" + id, folder);
    if (driver.empty()) return;
    AddFolder("/sys/bus/i2c/drivers/" + driver);
    AddLink(folder + "/driver", "/sys/bus/i2c/drivers/" + driver);
  }
  /// A NOR flash below `folder`, the device that it is on.
  void AddMtd(unsigned number, const std::string& name, const std::string& folder,
              std::uint64_t size, const std::string& jedec) {
    const std::string id = common::Text("mtd", number);
    const std::string place = folder + "/mtd/" + id;
    AddFile(place + "/name", name);
    AddFile(place + "/type", "nor");
    AddFile(place + "/size", std::to_string(size));
    AddFile(place + "/erasesize", "4096");
    AddFile(place + "/writesize", "1");
    AddFile(place + "/numeraseregions", "0");
    AddFile(place + "/flags", "0xc00");
    AddLink(place + "/device", folder);
    AddLink("/sys/class/mtd/" + id, place);
    AddLink("/sys/class/mtd/" + id + "ro", place + "ro");
    AddFolder(place + "ro");
    if (!jedec.empty()) AddFile(folder + "/spi-nor/jedec_id", jedec);
    AddFile("/dev/" + id, "");
  }

  std::optional<std::string> ReadText(const std::string& path) override {
    const auto file = _files.find(Resolve(path));
    if (file == _files.end()) return {};
    return file->second;
  }
  std::vector<std::string> List(const std::string& folder) override {
    const std::string prefix = Resolve(folder) + "/";
    std::set<std::string> names;
    const auto add = [&](const std::string& path) {
      if (path.starts_with(prefix)) {
        names.insert(path.substr(prefix.size(), path.find('/', prefix.size()) - prefix.size()));
      }
    };
    if (prefix == "/") return {};
    for (const auto& [path, text] : _files) add(path);
    for (const auto& [path, target] : _links) add(path);
    for (const std::string& path : _folders) add(path);
    return {names.begin(), names.end()};
  }
  std::string Resolve(const std::string& path) override {
    std::string real;
    for (const std::string_view name : common::Words(path, "/")) {
      real += "/" + std::string(name);
      const auto link = _links.find(real);
      if (link != _links.end()) real = Resolve(link->second);
      if (!_files.contains(real) && !_folders.contains(real)) return "";
    }
    return real;
  }

  serve::Time Now() const override { return {}; }
  std::int64_t WallSeconds() const override { return 0; }
  int Open(const std::string& path, serve::Access access) override {
    const auto file = _sizes.find(path);
    if (file == _sizes.end() || access != serve::Access::READ) return Refuse("Open " + path);
    _open_size = file->second;
    return DESCRIPTOR;
  }
  void Close(int descriptor) override {
    EXPECT_EQ(descriptor, DESCRIPTOR);
    EXPECT_TRUE(_open_size.has_value());
    _open_size.reset();
  }
  int Lock(int) override { return Refuse("Lock"); }
  std::int64_t Read(int, std::uint64_t, std::span<std::uint8_t>) override { return Refuse("Read"); }
  std::int64_t Write(int, std::uint64_t, std::span<const std::uint8_t>) override {
    return Refuse("Write");
  }
  std::int64_t SizeOf(int) override { return _open_size ? *_open_size : Refuse("SizeOf"); }
  int Flush(int) override { return Refuse("Flush"); }
  int HasPlainI2c(int) override { return Refuse("HasPlainI2c"); }
  int CheckI2cAddress(int, std::uint16_t) override { return Refuse("CheckI2cAddress"); }
  int TransferI2c(int, std::span<const serve::I2cMessage>) override {
    return Refuse("TransferI2c");
  }
  int GetMtdFacts(int, serve::MtdFacts&) override { return Refuse("GetMtdFacts"); }
  int EraseMtd(int, std::uint64_t, std::uint64_t) override { return Refuse("EraseMtd"); }
  int WriteText(const std::string& path, const std::string&) override {
    return Refuse("WriteText " + path);
  }
  int Remove(const std::string& path) override { return Refuse("Remove " + path); }
  int RunProgram(const std::vector<std::string>&, serve::Time) override {
    return Refuse("RunProgram");
  }

 private:
  static constexpr int DESCRIPTOR = 3;

  static std::string I2cId(unsigned adapter, unsigned address) {
    return common::Text(adapter, "-", std::hex, std::setw(4), std::setfill('0'), address);
  }
  static int Refuse(const std::string& call) {
    ADD_FAILURE() << "a call that touches something: " << call;
    return -1;
  }

  std::map<std::string, std::string> _files;  ///< by path
  std::map<std::string, std::string> _links;  ///< by path: where they lead
  std::set<std::string> _folders;
  std::map<std::string, std::int64_t> _sizes;  ///< of plain files
  std::optional<std::int64_t> _open_size;      ///< of the one that is open
};
