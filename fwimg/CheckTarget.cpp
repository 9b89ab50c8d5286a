#include "fwimg/CheckTarget.h"

#include "common/Text.h"

namespace fwimg {

std::string SectorSizeCheck(const std::string& text) {
  const auto size = common::ParseByteCount(text);
  if (size && *size <= MAX_SECTOR_SIZE) return "";
  return "must be a number of bytes, such as 0x10000, and at most " +
         common::HexText(MAX_SECTOR_SIZE);
}

}  // namespace fwimg
