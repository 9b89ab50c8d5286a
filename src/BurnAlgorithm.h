/// The burn algorithms and their common parts: burning one region with each device's own fields and
/// CRCs, the image CRC, and the progress meter on the console.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "BraidGeneral.h"
#include "FwImage.h"
#include "RomInterface.h"

/// The CRC that the devices' boot code checks: CRC-16, polynomial 0x100B, initial value 0xFFFF,
/// most significant bit first, 16 zero bits appended, complemented. Call add for the data, then
/// finish; get then returns the CRC.
class Crc16 {
 public:
  /// With `debug`, add prints each word.
  explicit Crc16(bool debug) : _debug(debug) { clear(); }

  void clear() { _crc = 0xFFFF; }
  void add(u_int32_t word);
  /// Adds all bytes in order. Prints nothing.
  void add(std::span<const u_int8_t> bytes);
  void operator<<(u_int32_t word) { add(word); }
  void finish();
  u_int16_t get() const { return _crc; }

 private:
  u_int16_t _crc;
  bool _debug;
};

/// Burns an image into all active devices of a RomInterface, which is borrowed and must outlive the
/// algorithm. The interface reports device failures and removes failed devices from the active set.
class BurnAlgorithm {
 public:
  explicit BurnAlgorithm(RomInterface& burn_if) : _burn_if(burn_if) {}
  BurnAlgorithm(const BurnAlgorithm&) = delete;
  BurnAlgorithm& operator=(const BurnAlgorithm&) = delete;
  virtual ~BurnAlgorithm() = default;

  /// The class name.
  virtual std::string GetName() const = 0;

  /// Burns `image`, whose data and replace lists may change. Throws BraidError when the run cannot
  /// go on.
  virtual BraidResult Go(FwImage& image) = 0;

  /// The CRC of `data`, whose length must be a multiple of 4.
  virtual u_int32_t CalcCrc(std::span<const u_int8_t> data);

  /// Burns `data` at `addr` into all active devices, then each device's own fields and the CRCs.
  /// `fields` and `crcs` must lie in the region; a CRC word may lie below it. Changes `data`: the
  /// CRC words become FF, the fields the values of the last device. Returns BRAID_OK.
  virtual BraidResult BurnRegion(u_int32_t addr, DataVec& data,
                                 const std::vector<FwImage::FieldReplace>& fields,
                                 const std::vector<FwImage::CrcReplace>& crcs);

  /// Writes the fields and CRCs of BurnRegion, one device after another. A SIGNATURE is included in
  /// the CRCs but not written.
  virtual BraidResult WriteUniq(u_int32_t addr, DataVec& data,
                                const std::vector<FwImage::FieldReplace>& fields,
                                const std::vector<FwImage::CrcReplace>& crcs);

  /// Whether both have the same length and the same bytes.
  static bool Compare(const DataVec& a, const DataVec& b) { return a == b; }

  /// A console line that shows the progress in per cent. Each redraw overwrites it.
  class PercentProgressMeter : public RomInterface::ProgressMeter {
   public:
    /// `max`: units for 100 per cent. With 0 the meter stays at 0 per cent.
    PercentProgressMeter(const std::string& msg, u_int32_t max) : _progress_max(max), _msg(msg) {}

    BraidResult Add(u_int32_t done) override;
    /// Starts again at 0 and redraws. A `total` of 0 keeps the maximum.
    BraidResult Reset(u_int32_t total) override;
    /// Sets the label for the next redraw.
    void SetMsg(const std::string& msg) { _msg = msg; }

   private:
    static constexpr char _spinner[] = "-\\|/-\\|/\r";

    u_int32_t _add_count = 0;  ///< calls of Add; selects the spinner character
    u_int32_t _current_progress = 0;
    u_int32_t _progress_max;
    bool _done = false;  ///< the completion line is printed
    std::string _msg;
  };

 protected:
  /// Sets the interface's meter, and unsets it when destroyed.
  class MeterLoan {
   public:
    MeterLoan(RomInterface& burn_if, RomInterface::ProgressMeter& meter) : _burn_if(burn_if) {
      _burn_if.SetProgresMeter(&meter);
    }
    MeterLoan(const MeterLoan&) = delete;
    MeterLoan& operator=(const MeterLoan&) = delete;
    ~MeterLoan() { _burn_if.SetProgresMeter(nullptr); }

   private:
    RomInterface& _burn_if;
  };

  /// Burns a section of `image` at `destination`, with the fields and CRCs of that range.
  void BurnSection(const FwImage& image, FwImage::Section& section, u_int32_t destination);

  RomInterface& _burn_if;  ///< borrowed

 private:
  /// Writes the fields, then the CRCs, of the one active device. Stops when it fails.
  void WriteUniqTo(Guid guid, u_int32_t addr, DataVec& data,
                   const std::vector<FwImage::FieldReplace>& fields,
                   const std::vector<FwImage::CrcReplace>& crcs);
};

/// Burns flash devices with two image slots. An image is valid while its signature word is. The new
/// image is written to the slot that is not in use and validated; then the other image is
/// invalidated. Not failsafe are the rewrite of a changed invariant sector, a move whose
/// copy overlaps the original image, and a burn into the second slot when the first image reaches
/// into it. docs/fail-safety.md lists the states that an interruption leaves.
///
/// The flash begins with the invariant sector. Each slot has a pointer sector with the address, the
/// size and the signature of its image.
class RV52100FailsafeBurn : public BurnAlgorithm {
 public:
  /// When a device's invariant sector differs from the image's: with `allow_non_fs_burn` it is
  /// rewritten, else with `allow_keeping_old_is` it is not changed, else the device fails.
  RV52100FailsafeBurn(RomInterface& burn_if, bool allow_non_fs_burn, bool allow_keeping_old_is)
      : BurnAlgorithm(burn_if),
        _allow_non_fs_burn(allow_non_fs_burn),
        _allow_keeping_old_is(allow_keeping_old_is) {}

  std::string GetName() const override { return "RV52100FailsafeBurn"; }
  BraidResult Go(FwImage& image) override;

  /// Burns the new image into slot `image_idx` (0 or 1) of the active devices and invalidates the
  /// other slot.
  BraidResult BurnImage(FwImage& image, u_int32_t image_idx);

  /// Copies a device's image, whose pointer sector is at `from_ps`, to `to_addr` with a pointer
  /// sector at `to_ps`, and invalidates the original. `image_idx` is the slot of the original; the
  /// copy goes into the other, with all bytes of its last word. When bytes are missing in a read,
  /// or there is nothing to move, the device fails before any write, and BRAID_ERROR is returned.
  BraidResult MoveImage(Guid guid, u_int32_t image_idx, u_int32_t from_ps, u_int32_t to_ps,
                        u_int32_t to_addr);

  /// Compares two big-endian words, of exactly 4 bytes each.
  static bool LessThan(const DataVec& d1, const DataVec& d2);

 private:
  /// The leading sections of the image that start below the sector size.
  std::vector<FwImage::Section*> InvariantSections(const FwImage& image) const;
  void CheckImage(const FwImage& image) const;
  void CheckInvariantSector(const FwImage& image);
  void FailDevices(const GuidSet& devices, const std::string& des);

  bool _allow_non_fs_burn;
  bool _allow_keeping_old_is;
};

/// Burns devices with two image slots. An image is valid while the checksum of the PLL boot record
/// at its start is right. Rewrites both slots, first the one that is not needed to boot. The record
/// of a slot has a wrong checksum until the rest of the slot is written.
class RV61300FailsafeBurn : public BurnAlgorithm {
 public:
  /// With `check_only`, Go reports the states of the devices and writes nothing.
  RV61300FailsafeBurn(RomInterface& burn_if, bool check_only)
      : BurnAlgorithm(burn_if), _check_only(check_only) {}

  std::string GetName() const override { return "RV61300FailsafeBurn"; }
  BraidResult Go(FwImage& image) override;

  /// Burns slot `image_idx` (0 or 1) of the active devices.
  BraidResult BurnImage(FwImage& image, u_int32_t image_idx);

  /// Whether the 16 bytes of a boot record have the sum of a valid one. A record of the first slot
  /// is also invalid when its byte 7 is 1. `ref` is not used; its size is the length that is read.
  static bool VerifyFirstPllBootRecordChecksum(const DataVec& read_data, const DataVec& ref);
  static bool VerifyPllBootRecordChecksum(const DataVec& read_data, const DataVec& ref);

 private:
  bool _check_only;
};

/// Writes every section in file order. No failsafe guarantee.
class GenericBurn : public BurnAlgorithm {
 public:
  using BurnAlgorithm::BurnAlgorithm;
  std::string GetName() const override { return "GenericBurn"; }
  BraidResult Go(FwImage& image) override;
};

/// Sends the image file as text to the server, which burns it. No failsafe guarantee.
class RV52100DirectBurn : public BurnAlgorithm {
 public:
  using BurnAlgorithm::BurnAlgorithm;
  std::string GetName() const override { return "RV52100DirectBurn"; }
  BraidResult Go(FwImage& image) override;
};
