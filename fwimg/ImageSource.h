/// Image files as the commands read them.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "device/ImageFile.h"

namespace fwimg {

/// Reads an image file whose lines `listener` is told of. Throws device::ImageError where it cannot
/// be read, or has more parts than could be compared with each other.
device::ImageFile ReadWithLineInfo(const std::string& path, device::ImageListener& listener);

/// The same of its text. Throws where it has more parts.
device::ImageFile ParseWithLineInfo(std::string_view text, const std::string& path,
                                    device::ImageListener& listener);

/// Reads an image file that fwpush would load and in which something stands. Throws
/// device::ImageError for all others; where only its line ends keep it from being one, the text
/// names them.
device::ImageFile LoadImageFile(const std::string& path);

/// Gets the warnings of a file as they come, one each time.
using WarningSink = std::function<void(const std::string&)>;

/// Reads an image file that fwpush would load, and passes on the warnings that fwpush prints.
/// Throws device::ImageError.
device::Image LoadImage(const std::string& path, const WarningSink& warn);

/// Whether `path` is named as image files are.
bool IsImageName(const std::string& path);

}  // namespace fwimg
