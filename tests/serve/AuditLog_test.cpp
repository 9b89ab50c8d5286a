#include "serve/AuditLog.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/ScratchFolder.h"
#include "serve/Digest.h"

namespace serve {
namespace {

using nlohmann::json;

LeaseRecord Record() {
  LeaseRecord record;
  record.peer = "10.0.1.7:40122";
  record.device = 0xaa550000000100;
  record.name = "spine-1";
  record.since = 1777896191;
  record.until = 1777896251;
  record.requests = 12;
  record.failed = 1;
  record.bytes = 4096;
  record.erases = 2;
  record.sha256 = Digest().Finish();
  record.end = "the client disconnected";
  record.last_error = "Write had no effect (write-protected?)";
  return record;
}

std::vector<json> LinesOf(const std::string& path) {
  std::ifstream file(path);
  std::vector<json> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(json::parse(line));
  return lines;
}

TEST(AuditLogTest, ALineSaysWhoBurntWhatAndHowItEnded) {
  EXPECT_EQ(AuditLine(Record()),
            R"({"version":1,"peer":"10.0.1.7:40122","device":"0x00aa550000000100",)"
            R"("name":"spine-1","since":"2026-05-04T12:03:11Z","until":"2026-05-04T12:04:11Z",)"
            R"("requests":12,"failed":1,"bytes":4096,"erases":2,"sha256":)"
            R"("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",)"
            R"("end":"the client disconnected",)"
            R"-("last_error":"Write had no effect (write-protected?)"})-");
}

TEST(AuditLogTest, TimesPast32BitsAreTold) {
  LeaseRecord record = Record();
  record.until = 2208988800;
  EXPECT_EQ(json::parse(AuditLine(record)).at("until"), "2040-01-01T00:00:00Z");
}

TEST(AuditLogTest, WithoutAnErrorTheLastOneIsNull) {
  LeaseRecord record = Record();
  record.last_error.clear();
  EXPECT_TRUE(json::parse(AuditLine(record)).at("last_error").is_null());
}

TEST(AuditLogTest, TheSchemaHasTheMembersOfALine) {
  std::ifstream file(DOCUMENTS "/json/serve-audit.schema.json");
  const json schema = json::parse(file);
  std::set<std::string> members;
  const json line = json::parse(AuditLine(Record()));
  for (const auto& [name, value] : line.items()) members.insert(name);
  EXPECT_EQ(schema.at("required").get<std::set<std::string>>(), members);
  for (const std::string& name : members) EXPECT_TRUE(schema.at("properties").contains(name));
}

TEST(AuditLogTest, LinesAreAddedToThoseOfEarlierRuns) {
  const common::ScratchFolder folder;
  const std::string path = folder / "audit.jsonl";
  AuditLog(path).Write(Record());
  AuditLog second(path);
  LeaseRecord record = Record();
  record.name = "a \"name\"\nof two lines";
  second.Write(record);
  const auto lines = LinesOf(path);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].at("name"), "spine-1");
  EXPECT_EQ(lines[1].at("name"), record.name);
}

TEST(AuditLogTest, OthersMayNotReadTheFile) {
  const common::ScratchFolder folder;
  const std::string path = folder / "audit.jsonl";
  AuditLog(path).Write(Record());
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07, 0u);
}

TEST(AuditLogTest, AFileThatCannotBeWrittenIsNamed) {
  try {
    AuditLog("/nowhere/audit.jsonl");
    ADD_FAILURE() << "it was opened";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "/nowhere/audit.jsonl: No such file or directory");
  }
  AuditLog full("/dev/full");
  EXPECT_THROW(full.Write(Record()), std::runtime_error);
}

}  // namespace
}  // namespace serve
