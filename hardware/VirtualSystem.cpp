#include "hardware/VirtualSystem.h"

#include <algorithm>
#include <set>
#include <utility>

namespace hardware {

namespace {

/// As Linux follows at most.
constexpr int MOST_LINKS = 40;
/// Bytes that a disk writes as a whole.
constexpr std::size_t DISK_BLOCK = 512;

/// A plain file: one that stands for a memory, or a small one. Or a text of the kernel.
class FileNode : public Node {
 public:
  enum class Kind { TEXT, SMALL, MEMORY };

  FileNode(Kind kind, device::Bytes content, Power& power)
      : _kind(kind), _content(std::move(content)), _on_disk(_content), _power(power) {}

  const device::Bytes& Content() const { return _content; }

  bool IsDevice() const override { return false; }
  bool IsReadOnly() const override { return _kind == Kind::TEXT; }
  std::int64_t Size() override { return static_cast<std::int64_t>(_content.size()); }
  int Flush() override {
    _on_disk = _content;
    return 0;
  }
  void LosePower(Power::Random& random) override {
    if (_kind != Kind::MEMORY) return;
    _on_disk.resize(_content.size());
    for (std::size_t at = 0; at < _content.size(); at += DISK_BLOCK) {
      const std::size_t end = std::min(at + DISK_BLOCK, _content.size());
      if (random() % 2 == 0) std::copy(&_on_disk[at], _on_disk.data() + end, &_content[at]);
    }
    _on_disk = _content;
  }
  std::int64_t Read(std::uint64_t offset, std::span<std::uint8_t> bytes) override {
    if (offset >= _content.size()) return 0;
    const auto size =
        static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), _content.size() - offset));
    std::copy_n(_content.begin() + static_cast<std::ptrdiff_t>(offset), size, bytes.begin());
    return static_cast<std::int64_t>(size);
  }
  std::int64_t Write(std::uint64_t offset, std::span<const std::uint8_t> bytes) override {
    if (bytes.empty()) return 0;
    const auto first = static_cast<std::size_t>(offset);
    _content.resize(std::max(_content.size(), first + bytes.size()));
    const auto part = device::Cells(_content).subspan(first, bytes.size());
    if (_kind == Kind::MEMORY) {
      _power.Program(device::MemoryKind::EEPROM, part, 0, bytes, Time{});
    } else {
      std::ranges::copy(bytes, part.begin());
    }
    return static_cast<std::int64_t>(bytes.size());
  }

 private:
  Kind _kind;
  device::Bytes _content;
  device::Bytes _on_disk;
  Power& _power;
};

/// The entries of `all` that are at `path` or below.
template <typename Value>
void EraseBelow(std::map<std::string, Value>& all, const std::string& path) {
  all.erase(path);
  std::erase_if(all, [&](const auto& entry) { return entry.first.starts_with(path + "/"); });
}

}  // namespace

VirtualSystem::VirtualSystem() {
  AddFolder("/run/fwpush-serve");
  _power.WhenCut([this](Power::Random& random) {
    for (const auto& [path, node] : _nodes) node->LosePower(random);
  });
}

void VirtualSystem::PowerUp() {
  _open.clear();
  _locks.clear();
  _power.TurnOn();
  for (const auto& [path, node] : _nodes) node->PowerUp();
}

void VirtualSystem::AddNode(const std::string& path, std::shared_ptr<Node> node) {
  ++_tree;
  if (_links.erase(path) > 0) _walked.clear();
  _nodes[path] = std::move(node);
}

void VirtualSystem::AddText(const std::string& path, std::string_view text) {
  AddNode(path, std::make_shared<FileNode>(FileNode::Kind::TEXT,
                                           device::Bytes(text.begin(), text.end()), _power));
}

void VirtualSystem::AddFile(const std::string& path, device::Bytes content) {
  AddNode(path, std::make_shared<FileNode>(FileNode::Kind::MEMORY, std::move(content), _power));
}

void VirtualSystem::AddLink(const std::string& path, const std::string& target) {
  ++_tree;
  _walked.clear();
  _nodes.erase(path);
  _links[path] = target;
}

void VirtualSystem::AddProgram(const std::string& path, Program program) {
  _programs[path] = std::move(program);
}

void VirtualSystem::TakeAway(const std::string& path) {
  ++_tree;
  _walked.clear();
  EraseBelow(_nodes, path);
  EraseBelow(_links, path);
  EraseBelow(_programs, path);
  EraseBelow(_folders, path);
}

device::Bytes VirtualSystem::FileContent(const std::string& path) const {
  const auto file = std::dynamic_pointer_cast<FileNode>(Find(WithoutLinks(path)));
  return file ? file->Content() : device::Bytes{};
}

int VirtualSystem::Open(const std::string& path, serve::Access access) {
  std::string resolved = WithoutLinks(path);
  if (const int error = Begin(Call::OPEN, path, resolved)) return error;
  if (resolved.empty() && access == serve::Access::LOCK) {
    resolved = WhereToMake(path);
    if (resolved.empty()) return -ENOENT;
    AddNode(resolved, std::make_shared<FileNode>(FileNode::Kind::SMALL, device::Bytes{}, _power));
  }
  if (resolved.empty()) return -ENOENT;
  const auto node = Find(resolved);
  if (!node) return access == serve::Access::READ ? -EINVAL : -EISDIR;
  if (access != serve::Access::READ && node->IsReadOnly()) return -EACCES;
  _open[++_last_descriptor] = {path, resolved, node, access, _tree};
  return _last_descriptor;
}

void VirtualSystem::Close(int descriptor) {
  ++_calls[static_cast<std::size_t>(Call::CLOSE)];
  _open.erase(descriptor);
  std::erase_if(_locks, [&](const auto& lock) { return lock.second == descriptor; });
}

int VirtualSystem::Lock(int descriptor) {
  return static_cast<int>(OnOpen(Call::LOCK, descriptor, [&](OpenFile& file) -> std::int64_t {
    const auto [lock, is_new] = _locks.emplace(file.node.get(), descriptor);
    return is_new || lock->second == descriptor ? 0 : -EWOULDBLOCK;
  }));
}

std::int64_t VirtualSystem::Read(int descriptor, std::uint64_t offset,
                                 std::span<std::uint8_t> bytes) {
  return OnOpen(Call::READ, descriptor,
                [&](OpenFile& file) { return file.node->Read(offset, bytes); });
}

std::int64_t VirtualSystem::Write(int descriptor, std::uint64_t offset,
                                  std::span<const std::uint8_t> bytes) {
  return OnOpen(Call::WRITE, descriptor, [&](OpenFile& file) -> std::int64_t {
    if (file.access == serve::Access::READ) return -EBADF;
    return file.node->Write(offset, bytes);
  });
}

std::int64_t VirtualSystem::SizeOf(int descriptor) {
  return OnOpen(Call::SIZE_OF, descriptor, [](OpenFile& file) { return file.node->Size(); });
}

int VirtualSystem::Flush(int descriptor) {
  return static_cast<int>(
      OnOpen(Call::FLUSH, descriptor, [](OpenFile& file) { return file.node->Flush(); }));
}

int VirtualSystem::HasPlainI2c(int descriptor) {
  return static_cast<int>(OnOpen(Call::HAS_PLAIN_I2C, descriptor,
                                 [](OpenFile& file) { return file.node->HasPlainI2c(); }));
}

int VirtualSystem::CheckI2cAddress(int descriptor, std::uint16_t address) {
  return static_cast<int>(OnOpen(Call::CHECK_I2C_ADDRESS, descriptor, [&](OpenFile& file) {
    return file.node->CheckI2cAddress(address);
  }));
}

int VirtualSystem::TransferI2c(int descriptor, std::span<const serve::I2cMessage> messages) {
  return static_cast<int>(OnOpen(Call::TRANSFER_I2C, descriptor,
                                 [&](OpenFile& file) { return file.node->TransferI2c(messages); }));
}

int VirtualSystem::GetMtdFacts(int descriptor, serve::MtdFacts& facts) {
  return static_cast<int>(OnOpen(Call::GET_MTD_FACTS, descriptor,
                                 [&](OpenFile& file) { return file.node->GetMtdFacts(facts); }));
}

int VirtualSystem::EraseMtd(int descriptor, std::uint64_t offset, std::uint64_t size) {
  return static_cast<int>(OnOpen(Call::ERASE_MTD, descriptor, [&](OpenFile& file) {
    return file.access == serve::Access::WRITE ? file.node->EraseMtd(offset, size) : -EPERM;
  }));
}

std::optional<std::string> VirtualSystem::ReadText(const std::string& path) {
  const std::string resolved = WithoutLinks(path);
  if (Begin(Call::READ_TEXT, path, resolved) != 0) return std::nullopt;
  const auto file = std::dynamic_pointer_cast<FileNode>(Find(resolved));
  if (!file) return std::nullopt;
  std::string text(file->Content().begin(), file->Content().end());
  if (text.ends_with('\n')) text.pop_back();
  return text;
}

std::vector<std::string> VirtualSystem::List(const std::string& folder) {
  const std::string resolved = WithoutLinks(folder);
  if (Begin(Call::LIST, folder, resolved) != 0 || resolved.empty()) return {};
  const std::string prefix = resolved == "/" ? resolved : resolved + "/";
  std::set<std::string> names;
  const auto add_from = [&](const auto& all) {
    for (auto entry = all.lower_bound(prefix);
         entry != all.end() && entry->first.starts_with(prefix); ++entry) {
      names.insert(entry->first.substr(prefix.size(),
                                       entry->first.find('/', prefix.size()) - prefix.size()));
    }
  };
  add_from(_nodes);
  add_from(_links);
  add_from(_programs);
  add_from(_folders);
  return {names.begin(), names.end()};
}

std::string VirtualSystem::Resolve(const std::string& path) {
  std::string resolved = WithoutLinks(path);
  return Begin(Call::RESOLVE, path, resolved) == 0 ? resolved : "";
}

int VirtualSystem::WriteText(const std::string& path, const std::string& text) {
  std::string resolved = WithoutLinks(path);
  if (const int error = Begin(Call::WRITE_TEXT, path, resolved)) return error;
  if (resolved.empty()) resolved = WhereToMake(path);
  if (resolved.empty()) return -ENOENT;
  const auto old = Find(resolved);
  if (old ? old->IsReadOnly() || old->IsDevice() : Exists(resolved)) return -EACCES;
  AddNode(resolved, std::make_shared<FileNode>(FileNode::Kind::SMALL,
                                               device::Bytes(text.begin(), text.end()), _power));
  return 0;
}

int VirtualSystem::Remove(const std::string& path) {
  const std::string resolved = WithoutLinks(path);
  if (const int error = Begin(Call::REMOVE, path, resolved)) return error;
  if (resolved.empty()) return -ENOENT;
  const auto node = Find(resolved);
  if (!node) return -EISDIR;
  if (node->IsDevice() || node->IsReadOnly()) return -EACCES;
  ++_tree;
  std::erase_if(_walked, [&](const auto& entry) { return entry.second == resolved; });
  _nodes.erase(resolved);
  return 0;
}

int VirtualSystem::RunProgram(const std::vector<std::string>& words, Time limit) {
  const std::string path = words.empty() ? "" : words.front();
  if (const int error = Begin(Call::RUN_PROGRAM, path, path)) return error;
  const auto program = _programs.find(WithoutLinks(path));
  if (program == _programs.end()) return -ENOENT;
  _runs.push_back(words);
  const ProgramResult result = program->second(words);
  _clock.Advance(std::min(result.takes, limit));
  if (!_power.IsOn()) return -EIO;
  return result.takes > limit ? -ETIME : result.status;
}

/// `path` without links, "." and ".."; empty where it does not exist.
std::string VirtualSystem::WithoutLinks(const std::string& path) const {
  // A server walks to the same few entries of sysfs at each start of a job.
  const auto walked = _walked.find(path);
  if (walked != _walked.end()) return walked->second;
  std::string resolved = Walk(path);
  if (!resolved.empty()) _walked.emplace(path, resolved);
  return resolved;
}

std::string VirtualSystem::Walk(const std::string& path) const {
  std::string rest = path;  // what is to be walked yet
  std::string walked;
  std::string next;
  for (int links = 0; !rest.empty();) {
    const std::size_t begin = rest.find_first_not_of('/');
    if (begin == std::string::npos) break;
    const std::size_t end = std::min(rest.find('/', begin), rest.size());
    const std::string name = rest.substr(begin, end - begin);
    rest.erase(0, end);
    if (name == ".") continue;
    if (name == "..") {
      walked.erase(std::min(walked.rfind('/'), walked.size()));
      continue;
    }
    next = walked;
    next += '/';
    next += name;
    const auto link = _links.find(next);
    if (link == _links.end()) {
      walked = next;
      if (!Exists(walked)) return "";
      continue;
    }
    if (++links > MOST_LINKS) return "";
    if (link->second.starts_with('/')) walked.clear();
    rest.insert(0, link->second);
  }
  return walked.empty() ? "/" : walked;
}

/// Where a new file of this name goes: without links; empty where its folder does not exist.
std::string VirtualSystem::WhereToMake(const std::string& path) const {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash + 1 == path.size()) return "";
  const std::string folder = WithoutLinks(path.substr(0, slash));
  if (folder.empty() || Find(folder)) return "";
  return (folder == "/" ? "" : folder) + path.substr(slash);
}

bool VirtualSystem::Exists(const std::string& path) const {
  const auto is_in = [&](const auto& all) {
    if (all.contains(path)) return true;
    const auto below = all.lower_bound(path + "/");
    return below != all.end() && below->first.starts_with(path + "/");
  };
  return is_in(_nodes) || is_in(_links) || is_in(_programs) || is_in(_folders);
}

std::shared_ptr<Node> VirtualSystem::Find(const std::string& resolved) const {
  const auto found = _nodes.find(resolved);
  return found == _nodes.end() ? nullptr : found->second;
}

/// Begins a call: counts it, lets its time pass. Returns 0, or the error with which it fails.
int VirtualSystem::Begin(Call call, const std::string& path, const std::string& resolved) {
  ++_calls[static_cast<std::size_t>(call)];
  if (!_power.IsOn()) return -EIO;
  _clock.Advance(_call_time);
  int error = 0;
  for (auto& [fault, seen] : _faults) {
    if (fault.call != call) continue;
    if (!fault.path.empty() && fault.path != path && fault.path != resolved) continue;
    ++seen;
    if (seen >= fault.nth && seen - fault.nth < fault.times && error == 0) error = -fault.error;
  }
  // One that is over is not asked again.
  std::erase_if(_faults, [](const PlannedFault& planned) {
    return planned.seen >= planned.fault.nth &&
           planned.seen - planned.fault.nth >= planned.fault.times - 1;
  });
  return error;
}

template <typename Operation>
std::int64_t VirtualSystem::OnOpen(Call call, int descriptor, Operation operation) {
  const auto found = _open.find(descriptor);
  if (found == _open.end()) {
    const int error = Begin(call, "", "");
    return error != 0 ? error : -EBADF;
  }
  OpenFile& file = found->second;
  if (const int error = Begin(call, file.path, file.resolved)) return error;
  if (file.found_in != _tree) {
    if (file.node->IsDevice() && Find(file.resolved) != file.node) return -ENODEV;
    file.found_in = _tree;
  }
  const std::int64_t result = operation(file);
  return _power.IsOn() ? result : -EIO;
}

}  // namespace hardware
