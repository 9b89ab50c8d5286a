/// The firmware image: the contents of an image file, in memory at linear addresses, and the
/// conversion between linear addresses and the (device, offset) pairs of EEPROMs.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "BraidGeneral.h"

enum DeviceType {
  DEV_UNKNOWN = 0,
  RV61100 = 61100,
  RV61300 = 61300,
  RV52100 = 52100,
  RV52300 = 52300,
  RV52310 = 52310,
  RV52400 = 52400,
  RV52410 = 52410,
};

/// The kinds of bytes that a burn replaces for each device.
enum FieldType {
  UNKNOWN_FIELD = 0,
  SIGNATURE = 1,
  GUIDS = 2,  ///< node, both ports and system GUID
  GUID = 3,   ///< node GUID
  SYS_GUID = 4,
  BSN = 5,  ///< board serial number
  VSD = 6,  ///< vendor-specific data
};

enum FileType { UNKNOWN_FILE = 0, IMG = 1, BIN = 2 };
enum ReadWrite { READ = 0, WRITE = 1 };

/// A location in an EEPROM. In a device map the offset is the device's size.
struct EeLoc {
  EeLoc(u_int32_t loc_offset, u_int8_t loc_dev) : offset(loc_offset), dev(loc_dev) {}

  u_int32_t offset;  ///< bytes from the start of the device
  u_int8_t dev;      ///< I2C device address
};

/// Converts between linear addresses and device locations. Throws BraidError for a location or an
/// address that is not mapped.
class AddressConvertor {
 public:
  virtual u_int32_t Convert(const EeLoc& loc) const = 0;
  virtual EeLoc Convert(u_int32_t addr) const = 0;
  virtual ~AddressConvertor() = default;
};

/// One firmware image: sections of bytes at linear addresses, the addresses of the two image
/// slots, the fields and CRCs that a burn fills in per device, the device type and the device map.
/// Filled by Open from an image file, or in memory through the setters. Failures throw BraidError.
class FwImage {
 public:
  struct Section {
    Section(const char* section_name, u_int32_t start) : name(section_name), addr(start) {}

    std::string name;
    u_int32_t addr;  ///< linear address of the first byte
    DataVec data;
  };

  /// Bytes that are replaced by each device's own value: [from, from + size).
  struct FieldReplace {
    u_int32_t from;
    u_int32_t size;
    FieldType type;
  };

  /// A CRC that a burn recomputes.
  struct CrcReplace {
    u_int32_t from;      ///< first byte covered
    u_int32_t size;      ///< bytes covered: [from, from + size)
    u_int32_t crc_addr;  ///< where the CRC is stored, 4 bytes
  };

  /// The convertor of an image. The memories of the mapped devices follow one another, in file
  /// order. With no device mapped, a linear address is an offset in device 0.
  class Conv : public AddressConvertor {
   public:
    u_int32_t Convert(const EeLoc& loc) const override;
    EeLoc Convert(u_int32_t addr) const override;

    std::vector<EeLoc> _devmap;  ///< each {size, dev}
  };

  static constexpr u_int32_t SLOTS = 2;
  static constexpr u_int32_t UNSET_ADDR = 0xFFFFFFFF;  ///< a slot address that is not set

  FwImage() { ResetDirectives(); }
  FwImage(const FwImage&) = delete;
  FwImage& operator=(const FwImage&) = delete;

  /// Loads an image file. Its type is its extension. `file_name` must not be null. Only READ of an
  /// "img" file is implemented; anything else throws. An image is opened once.
  BraidResult Open(const char* file_name, ReadWrite rw);

  /// Releases the bytes of the loaded sections and marks the image closed. It must not be used
  /// afterwards.
  BraidResult Close();

  const std::string& GetFileName() const { return _filename; }
  DeviceType DevType() const { return _dev_type; }

  /// The image's own convertor; lives as long as the image.
  AddressConvertor* GetAddressConvertor() { return &_conv; }

  /// Addresses of slot `idx` (0 or 1). Throw when the address is not set.
  u_int32_t GetPsAddr(u_int32_t idx) const;
  u_int32_t GetImageAddr(u_int32_t idx) const;
  u_int32_t GetSignatureAddr(u_int32_t idx) const;

  BraidResult SetPsAddr(u_int32_t idx, u_int32_t addr);
  BraidResult SetImageAddr(u_int32_t idx, u_int32_t addr);
  /// Also adds the signature as a field. Throws when the slot already has a signature.
  BraidResult SetSignatureAddr(u_int32_t idx, u_int32_t addr);

  /// The section that starts at exactly `addr`, or null. Owned by the image, or by the caller of
  /// SetSection.
  Section* GetSection(u_int32_t addr) const;

  /// Adds a section that the caller owns and keeps alive while the image is used. Throws when a
  /// section already starts there.
  BraidResult SetSection(Section* s);

  /// Inserts the start addresses of all sections, in file order, before those in `out`.
  BraidResult GetSectionsAddr(std::vector<u_int32_t>& out) const;

  /// Appends start addresses in file order: from the section at the first image's address to the
  /// last before a section at the second image's address. Throws when there is no section at the
  /// first image's address.
  BraidResult GetImageSectionsAddr(std::vector<u_int32_t>& out) const;

  /// Bytes in the sections that start in [first image's address, second image's address).
  u_int32_t GetImageSize() const;
  /// Bytes in all sections.
  u_int32_t GetTotalSize() const;
  /// Not implemented: throws.
  u_int32_t GetSignature() const;

  BraidResult AddReplace(const FieldReplace& field);
  BraidResult AddReplace(const CrcReplace& crc);
  /// Removes all fields of one type.
  BraidResult RemoveReplace(FieldType t);

  /// The fields that start in [addr, addr + size), in order of addition. Throws when one of them
  /// reaches past the range. A field that starts before the range is not returned.
  std::vector<FieldReplace> GetFieldsInRange(u_int32_t addr, u_int32_t size) const;
  /// The CRCs whose covered bytes start in [addr, addr + size), in order of addition. Throws when
  /// the covered bytes or the CRC word reach past the range; a CRC word below it is allowed.
  std::vector<CrcReplace> GetCrcsInRange(u_int32_t addr, u_int32_t size) const;

  /// Bytes of a field of type `t`. Throws for UNKNOWN_FIELD and for values that are not a type.
  static u_int32_t ReplaceFieldSize(FieldType t);

  /// Returns `value`, the address called `name` of slot `idx`. Throws when it is not set, or `idx`
  /// is not 0 or 1.
  u_int32_t CheckInit(const char* name, u_int32_t idx, u_int32_t value) const;

  /// Unsets all slot addresses.
  void ResetDirectives();

  /// Prints the sections in address order and the device map.
  void PrintStatus() const;

  /// The loaders of Open. LoadBin only returns BRAID_NOT_IMPLEMENTED.
  BraidResult LoadImg(const char* file_name);
  BraidResult LoadBin(const char* file_name);

  /// Interprets the words of one directive line outside sections. Ignores unknown directives.
  BraidResult ParseImgDirective(const std::vector<std::string>& words);

  /// Parse the offset and device words of a location, into a linear address or a location.
  u_int32_t ParseAddr(const std::string& offset_word, const std::string& dev_word) const;
  EeLoc ParseEeLoc(const std::string& offset_word, const std::string& dev_word) const;

  static FieldType Str2FieldType(const std::string& keyword);
  static DeviceType Str2DeviceType(const std::string& keyword);

 private:
  class LineReader;

  void LoadLines(LineReader& reader);

  [[noreturn]] void ThrowLineError(const std::string& text, const char* file = __builtin_FILE(),
                                   u_int32_t line = __builtin_LINE()) const;
  u_int32_t ParseSlotIndex(const std::vector<std::string>& words) const;
  void ParseReplaceCrc(const std::vector<std::string>& words);
  void ParseReplaceField(const std::vector<std::string>& words);
  Section* OpenSection(const std::string& line);
  static void ReserveData(Section& section, u_int64_t file_bytes);
  static void TrimData(Section& section);
  /// Appends a line that has only words of one or two digits. Returns false for any other line.
  bool AppendPlainData(std::string_view line, Section& section) const;
  void AppendData(const std::vector<std::string>& words, Section& section) const;
  void CheckEnd(const Section& section) const;

  bool _is_open = false;
  FileType _filetype = UNKNOWN_FILE;
  ReadWrite _rw = READ;
  std::string _filename;
  u_int32_t _curr_line = 0;  ///< of the file being loaded, from 1; for messages
  Conv _conv;
  DeviceType _dev_type = DEV_UNKNOWN;
  std::vector<u_int32_t> _sections_order;   ///< start addresses in file order
  std::map<u_int32_t, Section*> _sections;  ///< by start address; borrowed
  u_int32_t _ps_addr[SLOTS];
  u_int32_t _signature_addr[SLOTS];
  u_int32_t _image_addr[SLOTS];
  std::vector<FieldReplace> _field_replaces;      ///< in order of addition
  std::vector<CrcReplace> _crc_replaces;          ///< in order of addition
  std::vector<std::unique_ptr<Section>> _loaded;  ///< sections that the loader made; owned
};
