/// Names of common/ and device/ that the files of fwimg use without their namespace.
#pragma once

#include "common/Text.h"
#include "device/ImageFile.h"

namespace fwimg {

using common::HexText;
using common::Printable;
using common::Text;
using device::ADDRESS_SPACE;
using device::AddrLine;
using device::Bytes;
using device::ChipLine;
using device::CrcLine;
using device::FieldLine;
using device::FieldType;
using device::ImageFile;
using device::SectionLines;
using device::SlotKind;
using device::SlotLines;
using device::View;
using device::WORD_SIZE;

}  // namespace fwimg
