#include "common/Parallel.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace common {

void ForEachIndex(unsigned jobs, std::size_t count, const std::function<void(std::size_t)>& work) {
  std::atomic<std::size_t> next = 0;
  std::atomic<bool> has_failed = false;
  std::exception_ptr failure;
  std::mutex mutex;
  const auto take = [&] {
    while (!has_failed) {
      const std::size_t index = next++;
      if (index >= count) return;
      try {
        work(index);
      } catch (...) {
        const std::lock_guard lock(mutex);
        if (!failure) failure = std::current_exception();
        has_failed = true;
      }
    }
  };
  std::vector<std::jthread> threads;
  const std::size_t wanted = std::min<std::size_t>(std::max(1u, jobs), count);
  for (std::size_t i = 0; i < wanted; ++i) threads.emplace_back(take);
  for (std::jthread& thread : threads) thread.join();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace common
