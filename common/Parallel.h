/// Work that several threads share.
#pragma once

#include <cstddef>
#include <functional>

namespace common {

/// Calls `work` once with each of 0 to `count` - 1, in up to `jobs` threads, of which there is at
/// least one, and waits for all of them. After an exception no further index is started; the first
/// exception is thrown when all threads have ended.
void ForEachIndex(unsigned jobs, std::size_t count, const std::function<void(std::size_t)>& work);

}  // namespace common
