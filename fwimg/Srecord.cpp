#include "fwimg/Srecord.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <span>
#include <stdexcept>
#include <system_error>

#include "common/ChildProcess.h"
#include "common/Descriptor.h"
#include "common/Files.h"
#include "common/ScratchFolder.h"
#include "common/SystemError.h"
#include "fwimg/Names.h"

namespace fwimg {

namespace {

namespace fs = std::filesystem;
using common::Descriptor;
using common::ReadFile;
using common::ScratchFolder;
using common::WriteFile;

struct FormatRow {
  std::string_view name;  ///< or an extension
  RecordFormat format;
};
constexpr auto FORMATS = std::to_array<FormatRow>({
    {"intel", RecordFormat::INTEL},
    {".hex", RecordFormat::INTEL},
    {".ihex", RecordFormat::INTEL},
    {".ihx", RecordFormat::INTEL},
    {"motorola", RecordFormat::MOTOROLA},
    {".srec", RecordFormat::MOTOROLA},
    {".s19", RecordFormat::MOTOROLA},
    {".s28", RecordFormat::MOTOROLA},
    {".s37", RecordFormat::MOTOROLA},
    {".mot", RecordFormat::MOTOROLA},
});

/// Warnings that cost no byte.
constexpr auto HARMLESS = std::to_array<std::string_view>({
    "no header record",
    "data records not in strictly ascending order",
    "redundant 0x",
});

const char* Option(RecordFormat format) {
  return format == RecordFormat::INTEL ? "-intel" : "-motorola";
}

std::string Hex(std::uint64_t value) { return Text("0x", std::hex, value); }

/// A program that runs to its end, its outputs kept in scratch files.
class Run {
 public:
  Run(const ScratchFolder& scratch, const std::vector<std::string>& words)
      : _output(scratch / "output"), _errors(scratch / "errors") {
    const auto make = [](const std::string& name) {
      return Descriptor(open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    };
    const Descriptor input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const Descriptor output = make(_output);
    const Descriptor errors = make(_errors);
    if (!input.IsOpen() || !output.IsOpen() || !errors.IsOpen()) {
      common::ThrowSystemError("can't run " + words[0]);
    }
    const int status = Status({.words = words,
                               .is_searched = true,
                               .input = input.Get(),
                               .output = output.Get(),
                               .errors = errors.Get()});
    if (status != 0) {
      std::string said;
      for (const std::string& message : Messages()) said += "\n" + message;
      throw std::runtime_error(words[0] + " failed" + said);
    }
  }

  /// What it said on standard error, continued lines made one.
  std::vector<std::string> Messages() const {
    std::vector<std::string> messages;
    std::ifstream errors(_errors);
    for (std::string line; std::getline(errors, line);) {
      const std::size_t text = std::min(line.find_first_not_of(' '), line.size());
      if (text > 0 && !messages.empty()) {
        messages.back() += " " + line.substr(text);
      } else {
        messages.push_back(line);
      }
    }
    return messages;
  }

 private:
  static int Status(const common::Launch& launch) {
    try {
      return common::ChildProcess(launch).Wait().status;
    } catch (const std::system_error& error) {
      if (error.code() != std::errc::no_such_file_or_directory) throw;
      throw std::runtime_error(launch.words[0] +
                               " is needed for this and is not installed; Debian's package srecord "
                               "has it");
    }
  }

  std::string _output;
  std::string _errors;
};

/// Finds the end of the data of each record of a file.
class RecordEnds {
 public:
  explicit RecordEnds(RecordFormat format) : _format(format) {}

  /// Where the data of a record ends, counted past the last address; 0 of any other line. What is
  /// wrong with a line, srec_cat tells.
  std::uint64_t EndOf(std::string_view line) {
    if (_format == RecordFormat::MOTOROLA) {
      constexpr std::uint64_t AROUND = 5;  // bytes that are counted: address and sum
      const bool is_far = line.starts_with("S3") || line.starts_with("s3");
      const std::uint64_t count = Number(line, 2, 2);
      return is_far && count > AROUND ? Number(line, 4, 8) + count - AROUND : 0;
    }
    if (!line.starts_with(':')) return 0;
    const std::uint64_t type = Number(line, 7, 2);
    if (type == 2) _base = Number(line, 9, 4) << 4;
    if (type == 4) _base = Number(line, 9, 4) << 16;
    const std::uint64_t count = Number(line, 1, 2);
    return type == 0 && count > 0 ? _base + Number(line, 3, 4) + count : 0;
  }

 private:
  /// The hexadecimal number of `size` digits at `at`; 0 where there is none.
  static std::uint64_t Number(std::string_view line, std::size_t at, std::size_t size) {
    if (line.size() < at + size) return 0;
    std::uint64_t number = 0;
    for (const char c : line.substr(at, size))
      number = number << 4 | common::HexDigit(c).value_or(0);
    return number;
  }

  RecordFormat _format;
  std::uint64_t _base = 0;  ///< of the addresses in the records of Intel HEX that follow
};

/// Refuses what srec_cat takes without a warning: data after the end record, where it stops, so
/// that the second of two files in one is dropped; and records that go on past the last address,
/// which it puts at the first.
void CheckRecords(const fs::path& path, RecordFormat format) {
  const auto is_end = [format](std::string_view line) {
    return format == RecordFormat::INTEL
               ? line.size() > 8 && line[0] == ':' && line.substr(7, 2) == "01"
               : line.size() > 1 && (line[0] == 'S' || line[0] == 's') && line[1] >= '7' &&
                     line[1] <= '9';
  };
  std::ifstream file(path);
  RecordEnds ends(format);
  bool has_ended = false;
  std::uint32_t number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    const std::size_t text = line.find_first_not_of(" \t\r\x1a");
    if (text == std::string::npos) continue;
    if (has_ended) {
      throw std::runtime_error(Text(path.string(), ":", number, ": data after the end record"));
    }
    const std::string_view record = std::string_view(line).substr(text);
    has_ended = is_end(record);
    if (ends.EndOf(record) <= ADDRESS_SPACE) continue;
    throw std::runtime_error(
        Text(path.string(), ":", number,
             ": the record goes on past 4 GiB, the last address of an image; cut or move it, for "
             "example by srec_cat -crop or -offset"));
  }
}

/// Of two digits; all else is 0.
std::uint8_t ByteOf(char high, char low) {
  return static_cast<std::uint8_t>(common::HexDigit(high).value_or(0) << 4 |
                                   common::HexDigit(low).value_or(0));
}

/// The bytes of S3 records as srec_cat writes them: one record a line, in ascending order.
std::vector<RecordRange> BytesOf(std::istream& records) {
  std::vector<RecordRange> ranges;
  Bytes record;
  for (std::string line; std::getline(records, line);) {
    if (!line.starts_with("S3")) continue;  // the number of records, the end
    record.clear();
    for (std::size_t i = 2; i + 1 < line.size(); i += 2) {
      record.push_back(ByteOf(line[i], line[i + 1]));
    }
    // The length of what follows it, the address, the bytes, a sum.
    constexpr std::size_t AROUND = 6;
    if (record.size() <= AROUND || record.size() != 1u + record[0]) {
      throw std::runtime_error("srec_cat writes a strange record: " + line);
    }
    const std::uint32_t addr = std::uint32_t{record[1]} << 24 | std::uint32_t{record[2]} << 16 |
                               std::uint32_t{record[3]} << 8 | record[4];
    if (ranges.empty() || ranges.back().addr + std::uint64_t{ranges.back().data.size()} != addr) {
      ranges.push_back({addr, {}});
    }
    ranges.back().data.insert(ranges.back().data.end(), record.begin() + 5, record.end() - 1);
  }
  return ranges;
}

}  // namespace

std::optional<RecordFormat> ParseFormat(std::string_view name_or_extension) {
  const auto row = std::ranges::find(FORMATS, name_or_extension, &FormatRow::name);
  if (row == FORMATS.end()) return {};
  return row->format;
}

void WriteRecords(const std::vector<RecordRange>& ranges, RecordFormat format,
                  const fs::path& path) {
  const ScratchFolder scratch("fwimg");
  std::vector<std::string> words{"srec_cat"};
  for (std::size_t i = 0; i < ranges.size(); ++i) {
    const std::string name = scratch / Text(i, ".bin");
    WriteFile(name, ranges[i].data);
    for (const std::string& word :
         {name, std::string("-binary"), std::string("-offset"), Hex(ranges[i].addr)}) {
      words.push_back(word);
    }
  }
  const std::string records = scratch / "records";
  words.insert(words.end(), {"-o", records, Option(format)});
  if (format == RecordFormat::MOTOROLA) {
    // No header, which would name the program; an end record, which makes a cut file show.
    words.insert(words.end(), {"-disable=header", "-execution-start-address=0"});
  }
  const Run run(scratch, words);
  WriteFile(path, ReadFile(records));
}

std::vector<RecordRange> ReadRecords(const fs::path& path, RecordFormat format, bool lax,
                                     const std::function<void(const std::string&)>& warn) {
  ReadFile(path);
  // A name with a folder is taken for no option.
  const fs::path input = path.is_absolute() ? path : "." / path;
  CheckRecords(input, format);
  const ScratchFolder scratch("fwimg");
  const std::string records = scratch / "records";
  const Run run(scratch, {"srec_cat", input, Option(format), "-o", records, "-motorola",
                          "-address-length=4", "-disable=header"});
  for (const std::string& message : run.Messages()) {
    const bool is_harmless = std::ranges::any_of(
        HARMLESS, [&](std::string_view text) { return message.find(text) != std::string::npos; });
    if (is_harmless) continue;
    if (!lax) throw std::runtime_error(message + "\nuse --lax to accept the file");
    warn(message);
  }

  std::ifstream file(records);
  return BytesOf(file);
}

}  // namespace fwimg
