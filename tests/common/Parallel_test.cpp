#include "common/Parallel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <stdexcept>
#include <string>
#include <vector>

namespace common {
namespace {

TEST(ParallelTest, CallsEachIndexOnce) {
  for (const unsigned jobs : {0u, 1u, 3u, 200u}) {
    std::vector<std::atomic<int>> calls(100);
    ForEachIndex(jobs, calls.size(), [&](std::size_t index) { ++calls.at(index); });
    for (const auto& count : calls) EXPECT_EQ(count, 1) << jobs;
  }
}

TEST(ParallelTest, CallsNothingForNoIndices) {
  ForEachIndex(4, 0, [](std::size_t) { FAIL(); });
}

// Neither call ends before the other has begun.
TEST(ParallelTest, WorksAtTheSameTime) {
  std::latch both(2);
  ForEachIndex(2, 2, [&](std::size_t) { both.arrive_and_wait(); });
  EXPECT_TRUE(both.try_wait());
}

TEST(ParallelTest, OneJobKeepsTheOrder) {
  std::vector<std::size_t> seen;
  ForEachIndex(1, 5, [&](std::size_t index) { seen.push_back(index); });
  EXPECT_EQ(seen, (std::vector<std::size_t>{0, 1, 2, 3, 4}));
}

TEST(ParallelTest, ThrowsTheFirstExceptionAndStartsNoMore) {
  std::vector<std::size_t> seen;
  try {
    ForEachIndex(1, 1000, [&](std::size_t index) {
      seen.push_back(index);
      if (index >= 3) throw std::runtime_error("failed at " + std::to_string(index));
    });
    FAIL() << "nothing is thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "failed at 3");
  }
  EXPECT_EQ(seen.size(), 4u);
}

// The other thread's call is under way when the first one throws.
TEST(ParallelTest, WaitsForCallsUnderWay) {
  std::latch both(2);
  std::atomic<bool> has_ended = false;
  EXPECT_THROW(ForEachIndex(2, 2,
                            [&](std::size_t index) {
                              both.arrive_and_wait();
                              if (index == 0) throw std::runtime_error("failed");
                              has_ended = true;
                            }),
               std::runtime_error);
  EXPECT_TRUE(has_ended);
}

}  // namespace
}  // namespace common
