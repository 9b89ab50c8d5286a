/// Device memory reached over the fabric: the abstract interface to the memories of many devices at
/// once, and its implementation by requests to a bus server, for serial flash and I2C EEPROM.
#pragma once

#include <iosfwd>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "BraidConn.h"
#include "BraidGeneral.h"
#include "FwImage.h"
#include "utils.h"

/// One device as the server reports it.
struct DeviceRecord {
  Guid node_guid = 0;
  GuidVec port_guids;  ///< in the order in which their records came
  Guid sys_guid = 0;
  u_int32_t ports_num = 0;  ///< ports that the device declares
  std::string name;
  DeviceType type = DEV_UNKNOWN;  ///< not told by the server
  std::string attr;
};

/// The memory of many devices, reached as one. Every operation goes to all active devices and
/// leaves one Result for each; a device that fails is dropped for good and the rest go on. With no
/// active device an operation reaches nothing and returns BRAID_OK; a write still feeds the meter.
/// Addresses are linear, in bytes. Single-threaded. Failures of the whole run throw BraidError.
///
/// A client sets the address convertor and the devices, opens the server, and may then narrow the
/// active devices before each operation.
class RomInterface {
 public:
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"  // the operations READ and WRITE are not the file modes
  /// The kinds of remote operation.
  enum OpType {
    WRITE = 0,
    READ = 1,
    ERASE = 2,
    START = 3,
    STOP = 4,
    BURNIMAGE = 5,
    GETBSN = 6,
    GETVSD = 7,
    GETATTR = 8,
  };
#pragma GCC diagnostic pop

  /// What the last operation did on one device.
  struct Result {
    explicit Result(Guid guid) : _guid(guid) {}

    Guid _guid;
    bool _error = false;
    std::string _error_des;
    DataVec _data;  ///< bytes that a read, GetVsd or GetBsn returned
  };

  struct DeviceData : DeviceRecord {
    explicit DeviceData(Guid guid) { node_guid = guid; }

    std::string vsd;
    std::string bsn;
  };

  /// Told of the work done; draws nothing by itself.
  class ProgressMeter {
   public:
    virtual BraidResult Add(u_int32_t done) = 0;     ///< `done` more units
    virtual BraidResult Reset(u_int32_t total) = 0;  ///< start again, with `total` units in all
    virtual ~ProgressMeter() = default;
  };

  /// Compares bytes of a device with expected ones.
  using Comparison = bool (*)(const DataVec& read, const DataVec& expected);

  explicit RomInterface(const std::string& ifc_name) : _ifc_name(ifc_name) {}
  RomInterface(const RomInterface&) = delete;
  RomInterface& operator=(const RomInterface&) = delete;
  virtual ~RomInterface() = default;

  /// Connects to `server` ("TYPE:IP:PORT") and checks which of the set devices it reaches.
  virtual BraidResult Open(const char* server) = 0;
  virtual BraidResult Close() = 0;
  /// The bracket around a burn.
  virtual BraidResult Start() = 0;
  virtual BraidResult Stop() = 0;
  /// Learns which devices are reachable; those that are not fail.
  virtual BraidResult CheckAccess() = 0;

  /// Reads `size` bytes at `addr` from every active device into its Result. Returns
  /// BRAID_ERR_SOME if some failed; they have left the active set by then.
  virtual BraidResult Read(u_int32_t addr, u_int32_t size) = 0;
  /// Writes `data` at `addr`, where asked to after erasing what it covers.
  virtual BraidResult Write(u_int32_t addr, const DataVec& data, bool flag) = 0;
  /// Programs `data` over what is there.
  virtual BraidResult WriteNoErase(u_int32_t addr, const DataVec& data);
  virtual BraidResult Erase(u_int32_t addr, u_int32_t size) = 0;
  /// Has the server burn a whole image by itself, given as text.
  virtual BraidResult BurnImage(const std::string& file) = 0;
  /// Bytes of a flash sector. Throws on a memory without sectors.
  virtual u_int32_t GetSectorSize();

  /// Put the vendor-specific data, or the board serial number, of one device into `out`.
  virtual BraidResult GetVsd(const Guid& g, DataVec& out) = 0;
  virtual BraidResult GetBsn(const Guid& g, DataVec& out) = 0;
  /// Puts the device's value of one image field into `out`, which comes in empty. Throws for an
  /// unknown device or type, and for GUIDS of a device whose ports are not all known.
  virtual BraidResult GetField(Guid g, FieldType type, DataVec& out);

  /// The convertor is borrowed for as long as the interface is used.
  virtual void SetAddressConvertor(AddressConvertor* conv) { _conv = conv; }
  /// The meter is borrowed until another, or null, is set.
  virtual void SetProgresMeter(ProgressMeter* progress) { _progress = progress; }

  /// Makes `devs` the active devices. Devices that have failed are dropped, from `devs` too; a
  /// device that was never accessible throws.
  virtual BraidResult SetActiveDevices(GuidSet& devs);
  /// All accessible devices.
  virtual BraidResult SetActiveDevices();
  /// One device; none when it has failed.
  virtual BraidResult SetActiveDevices(Guid g);
  virtual const GuidSet& GetActiveDevices() const { return _active_devs; }
  virtual const GuidSet& GetAccessDevices() const { return _access_devs; }
  /// Gives the devices of the run, all of them active.
  virtual BraidResult SetAccessDevices(const GuidSet& devs);

  /// Reads expected.size() bytes at `addr` and returns the devices for which cmp(bytes, expected)
  /// is `want`. A device that fails the read is judged on no bytes.
  virtual GuidSet Query(u_int32_t addr, const DataVec& expected, Comparison cmp, bool want);

  /// Declares a device failed: prints it and drops it for good. Throws when it was the last, when
  /// `g` is 0 (the whole run has failed), and for a device that is not active.
  virtual BraidResult DeviceError(const std::string& des, Guid g);

  /// The device's part of the last operation, valid until the next; null when it had none.
  const Result* LastActionResult(const Guid& g) const;

 protected:
  /// Makes a fresh Result for every active device.
  BraidResult InitResults();
  /// To be called by whatever changes _active_devs.
  void ActiveDevicesChanged() { ++_active_version; }

  kmap<Guid, Result> _last_result;     ///< of the devices active when the operation began
  kmap<Guid, std::string> _error_des;  ///< of every device that has failed
  /// Device records, each under its node GUID and again under its port GUIDs.
  kmap<Guid, std::shared_ptr<DeviceData>> _devs_data;
  GuidSet _access_devs;                ///< may be accessed in this run
  GuidSet _active_devs;                ///< the next operation's
  u_int64_t _active_version = 1;       ///< never the same for two sets of active devices
  GuidSet _error_devs;                 ///< have failed and never come back
  AddressConvertor* _conv = nullptr;   ///< borrowed
  ProgressMeter* _progress = nullptr;  ///< borrowed
  std::string _ifc_name;               ///< stands in messages
};

enum ServerType { UNKNOWN_SERVER = 0, I2C = 1, PCI = 2, PPC = 3, IB = 4 };

/// A parsed server string.
struct ServerAccess {
  ServerType type = UNKNOWN_SERVER;
  std::string ip;  ///< or a host name
  int port = 0;
};

/// Writes "TYPE:IP:PORT".
std::ostream& operator<<(std::ostream& out, const ServerAccess& server);

/// Device memory behind a bus server. Each operation is one request that names all active devices
/// and one answer with an element for each.
class RemoteRomInterface : public RomInterface {
 public:
  enum RomType { I2C_ROM = 0, FLASH_ROM = 1 };

  /// Writes never cross a boundary of 2 to the power `log2_chunk_align` bytes. Servers older than
  /// `req_ifc_version` are refused.
  RemoteRomInterface(const std::string& ifc_name, RomType type, u_int32_t log2_chunk_align,
                     double req_ifc_version);

  BraidResult Open(const char* server) override;
  BraidResult Close() override;
  BraidResult CheckAccess() override;
  BraidResult Read(u_int32_t addr, u_int32_t size) override;
  BraidResult BurnImage(const std::string& text) override;
  BraidResult GetVsd(const Guid& g, DataVec& out) override;
  BraidResult GetBsn(const Guid& g, DataVec& out) override;

 protected:
  /// Writes the request's head into `req`: the command word and the active devices.
  BraidResult GenBaseRequest(OpType op, std::string& req);
  /// Writes the whole request for `size` bytes at `addr`. `data` starts with the bytes to write;
  /// what follows them fills up the last word.
  BraidResult GenRwRequest(OpType op, u_int32_t addr, u_int32_t size,
                           std::span<const u_int8_t> data, std::string& req);
  /// Writes the first `size` bytes of `data` in one request.
  BraidResult WriteInternal(u_int32_t addr, u_int32_t size, std::span<const u_int8_t> data);
  /// Reads `written` back; devices that differ fail.
  BraidResult VerifyWrittenData(u_int32_t addr, std::span<const u_int8_t> written);
  /// The body of every write: cuts `data` into chunks and feeds the progress meter.
  BraidResult WriteChunks(u_int32_t addr, const DataVec& data, bool erase_first, bool verify);
  /// Sorts an answer into the Results; devices whose element is an error fail.
  BraidResult ProcessResponse(OpType op, const BraidConn::Response& resp);
  /// Appends the data words of one device's element to `out`: bytes of BSN, or 32-bit words.
  BraidResult GatherData(std::string_view element, DataVec& out, bool bsn);
  /// Enters one record of the server's device list.
  BraidResult AddDeviceRecord(const BraidConn::Response& record);
  /// The way to the server, which derived classes may replace: connecting to `_access`, one
  /// request and its answer, and one large text and its answer.
  virtual BraidResult Connect();
  virtual BraidConn::Response Exchange(const std::string& request);
  virtual BraidConn::Response ExchangeText(const std::string& text);
  /// The memory's word in command names.
  const char* RomType2Str() const;

  RomType _rom_type;
  ServerAccess _access;
  BraidConn::ClientSocket _socket;
  u_int32_t _multi_max = 0;  ///< devices that one request may name
  const u_int32_t _log2_chunk_align;
  double _srv_ifc_version = 0;
  double _req_ifc_version;

 private:
  static ServerAccess ParseServer(const std::string& server);
  /// Throws where an answer is there before its request: who goes on takes each for another's.
  void CheckNoSurplus() const;
  void AskMultiMax();
  void AskIfcVersion();
  /// GetVsd and GetBsn: `request_op` is asked for, the answer read as one of `answer_op`.
  BraidResult GetDeviceBytes(Guid g, OpType request_op, OpType answer_op, DataVec& out);
  /// InitResults, where the Results are not fresh already.
  void FreshResults();
  /// The device's Result; `next` walks the Results beside the active devices, in the same order.
  Result& ResultOf(Guid guid, kmap<Guid, Result>::iterator& next);
  [[noreturn]] void ThrowCommandError(const std::string& reason,
                                      u_int32_t line = __builtin_LINE()) const;

  // Kept from one operation to the next, so that one that goes to the same devices as the one
  // before costs no more than its own bytes.
  std::string _request;
  std::vector<std::string_view> _elements;  ///< of the answer in hand
  std::string _active_list;                 ///< the active devices as requests name them
  u_int64_t _listed_version = 0;            ///< of the active devices in _active_list
  u_int64_t _fresh_version = 0;             ///< of those that the Results are fresh for
};

/// A serial flash: erased sector by sector, attributes read when opened. One device a run.
class RemoteFlashInterface : public RemoteRomInterface {
 public:
  explicit RemoteFlashInterface(u_int32_t log2_chunk_align);

  BraidResult Open(const char* server) override;
  BraidResult Start() override;
  BraidResult Stop() override;
  BraidResult Write(u_int32_t addr, const DataVec& data, bool erase) override;
  /// Erases the sectors that [addr, addr + size) covers, except where all of it lies in the sector
  /// erased last. Throws when `addr` does not begin a sector, and when the sector size is unknown.
  BraidResult Erase(u_int32_t addr, u_int32_t size) override;
  /// 0 when unknown.
  u_int32_t GetSectorSize() override;
  BraidResult EraseSector(u_int32_t addr);

 protected:
  BraidResult start_stop(bool start);
  /// Reads sector and flash size of the one device.
  BraidResult InitAttributes();

  u_int32_t _sector_size = 0;     ///< bytes; 0 until the attributes are read
  u_int32_t _flash_size = 0;      ///< bytes
  u_int32_t _last_erase_address;  ///< start of the last erased range
};

/// An I2C EEPROM: needs no erase and no bracket, and is read back after each write where the
/// server reaches it by I2C.
class RemoteI2cInterface : public RemoteRomInterface {
 public:
  explicit RemoteI2cInterface(u_int32_t log2_chunk_align);

  BraidResult Start() override { return BRAID_OK; }
  BraidResult Stop() override { return BRAID_OK; }
  BraidResult Write(u_int32_t addr, const DataVec& data, bool flag) override;
  BraidResult Erase(u_int32_t, u_int32_t) override { return BRAID_OK; }
};
