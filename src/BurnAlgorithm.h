/// The burn algorithms, and what they share: burning one region with each device's own fields and
/// CRCs, the image CRC, and the progress meter on the console.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "BraidGeneral.h"
#include "FwImage.h"
#include "RomInterface.h"

/// The CRC that the devices' boot code checks: CRC-16, polynomial 0x100B, initial value 0xFFFF,
/// most significant bit first, 16 zero bits appended, complemented. Words go in with add; get is
/// the CRC once finish was called.
class Crc16 {
 public:
  /// With `debug` every word added is printed.
  explicit Crc16(bool debug) : _debug(debug) { clear(); }

  void clear() { _crc = 0xFFFF; }
  void add(u_int32_t word);
  /// Many bytes, as words; none of them is printed.
  void add(std::span<const u_int8_t> bytes);
  void operator<<(u_int32_t word) { add(word); }
  void finish();
  u_int16_t get() const { return _crc; }

 private:
  u_int16_t _crc;
  bool _debug;
};

/// Burns an image into all active devices of a RomInterface, which is borrowed and must outlive the
/// algorithm. Device failures are the interface's matter: a failed device leaves the active set.
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
  /// `fields` and `crcs` lie in the region; a CRC word may lie below it. `data` changes: CRC places
  /// are left FF, field places hold the last device's values. Returns BRAID_OK.
  virtual BraidResult BurnRegion(u_int32_t addr, DataVec& data,
                                 const std::vector<FwImage::FieldReplace>& fields,
                                 const std::vector<FwImage::CrcReplace>& crcs);

  /// The second half of BurnRegion, device by device. A SIGNATURE only counts for the CRCs and is
  /// not written.
  virtual BraidResult WriteUniq(u_int32_t addr, DataVec& data,
                                const std::vector<FwImage::FieldReplace>& fields,
                                const std::vector<FwImage::CrcReplace>& crcs);

  /// Same length, same bytes.
  static bool Compare(const DataVec& a, const DataVec& b) { return a == b; }

  /// A line on the console that shows the part done in per cent and redraws itself in place.
  class PercentProgressMeter : public RomInterface::ProgressMeter {
   public:
    /// `max`: units for 100 per cent; with 0 it stays at 0.
    PercentProgressMeter(const std::string& msg, u_int32_t max) : _progress_max(max), _msg(msg) {}

    BraidResult Add(u_int32_t done) override;
    /// Redraws at 0; a `total` of 0 keeps the maximum.
    BraidResult Reset(u_int32_t total) override;
    /// The label, from the next redraw on.
    void SetMsg(const std::string& msg) { _msg = msg; }

   private:
    static constexpr char _spinner[] = "-\\|/-\\|/\r";

    u_int32_t _add_count = 0;  ///< calls of Add; turns the spinner
    u_int32_t _current_progress = 0;
    u_int32_t _progress_max;
    bool _done = false;  ///< the completion line is printed
    std::string _msg;
  };

 protected:
  /// Lends a meter to the interface for as long as it lives.
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

  /// Burns a section of `image` at `destination`, with the fields and CRCs that lie there.
  void BurnSection(const FwImage& image, FwImage::Section& section, u_int32_t destination);

  RomInterface& _burn_if;  ///< borrowed

 private:
  /// The fields, then the CRCs, of the one active device; stops when it fails.
  void WriteUniqTo(Guid guid, u_int32_t addr, DataVec& data,
                   const std::vector<FwImage::FieldReplace>& fields,
                   const std::vector<FwImage::CrcReplace>& crcs);
};

/// Burns flash devices that hold two images, each valid only while its signature word says so: the
/// new image goes into the slot that is not in use, is validated, and only then is the other
/// invalidated. Not failsafe by nature: the rewrite of a changed invariant sector, a move whose
/// copy overlaps the image that it copies, and a burn into the second slot of a device whose first
/// image reaches into it. docs/fail-safety.md tells each state that an interruption leaves.
///
/// The flash begins with the invariant sector; a pointer sector per slot tells where the slot's
/// image lies, and bears its signature.
class RV52100FailsafeBurn : public BurnAlgorithm {
 public:
  /// When a device's invariant sector differs from the image's: `allow_non_fs_burn` rewrites it,
  /// else `allow_keeping_old_is` leaves it as it is, else the device fails.
  RV52100FailsafeBurn(RomInterface& burn_if, bool allow_non_fs_burn, bool allow_keeping_old_is)
      : BurnAlgorithm(burn_if),
        _allow_non_fs_burn(allow_non_fs_burn),
        _allow_keeping_old_is(allow_keeping_old_is) {}

  std::string GetName() const override { return "RV52100FailsafeBurn"; }
  BraidResult Go(FwImage& image) override;

  /// Burns the new image into slot `image_idx` (0 or 1) of the active devices and leaves the other
  /// slot invalid.
  BraidResult BurnImage(FwImage& image, u_int32_t image_idx);

  /// Copies a device's image, whose pointer sector is at `from_ps`, to `to_addr` with a pointer
  /// sector at `to_ps`, and invalidates the original. `image_idx` is the slot it leaves; the copy
  /// goes into the other, with all bytes of its last word. A device that does not give all its
  /// bytes, or has nothing to move, fails before anything is written, and BRAID_ERROR is returned.
  BraidResult MoveImage(Guid guid, u_int32_t image_idx, u_int32_t from_ps, u_int32_t to_ps,
                        u_int32_t to_addr);

  /// Compares two big-endian words, of exactly 4 bytes each.
  static bool LessThan(const DataVec& d1, const DataVec& d2);

 private:
  /// The sections that stand first in the image and lie below the sector size.
  std::vector<FwImage::Section*> InvariantSections(const FwImage& image) const;
  void CheckImage(const FwImage& image) const;
  void CheckInvariantSector(const FwImage& image);
  void FailDevices(const GuidSet& devices, const std::string& des);

  bool _allow_non_fs_burn;
  bool _allow_keeping_old_is;
};

/// Burns devices that hold two images, each told valid by the checksum of the PLL boot record at
/// its start. Rewrites both slots, first the one that is not needed to boot, each with its record
/// spoilt until the rest of the slot is written.
class RV61300FailsafeBurn : public BurnAlgorithm {
 public:
  /// With `check_only` the states are reported and nothing is written.
  RV61300FailsafeBurn(RomInterface& burn_if, bool check_only)
      : BurnAlgorithm(burn_if), _check_only(check_only) {}

  std::string GetName() const override { return "RV61300FailsafeBurn"; }
  BraidResult Go(FwImage& image) override;

  /// Burns slot `image_idx` (0 or 1) of the active devices.
  BraidResult BurnImage(FwImage& image, u_int32_t image_idx);

  /// Whether the 16 bytes of a boot record have the sum of a valid one; `ref` only gives the length
  /// to read. In the first slot a mark in the record also makes it invalid.
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

/// Hands the image file as text to the server, which burns it. No failsafe guarantee.
class RV52100DirectBurn : public BurnAlgorithm {
 public:
  using BurnAlgorithm::BurnAlgorithm;
  std::string GetName() const override { return "RV52100DirectBurn"; }
  BraidResult Go(FwImage& image) override;
};
