/// Image files as the commands read them.
#pragma once

#include <string>

#include "device/ImageFile.h"

namespace fwimg {

/// Reads an image file whose lines `listener` is told of. Throws device::ImageError where it cannot
/// be read, or has more parts than could be compared with each other.
device::ImageFile ReadForAuthor(const std::string& path, device::ImageListener& listener);

/// Reads an image file that fwpush would load and in which something stands. Throws
/// device::ImageError for all others.
device::ImageFile LoadImageFile(const std::string& path);

/// Reads an image file that fwpush would load, and repeats its warnings on standard error: they are
/// no results. Throws device::ImageError.
device::Image LoadImage(const std::string& path);

/// Whether `path` is named as image files are.
bool IsImageName(const std::string& path);

}  // namespace fwimg
