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

  RomInterface& _burn_if;  ///< borrowed

 private:
  /// The fields, then the CRCs, of the one active device; stops when it fails.
  void WriteUniqTo(Guid guid, u_int32_t addr, DataVec& data,
                   const std::vector<FwImage::FieldReplace>& fields,
                   const std::vector<FwImage::CrcReplace>& crcs);
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
