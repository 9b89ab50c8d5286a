/// Access to device memory over the fabric: the abstract interface to the memories of many devices
/// at once, and its implementation by requests to a bus server, for serial flash and I2C EEPROM.
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

/// One device, as the server reports it.
struct DeviceRecord {
  Guid node_guid = 0;
  GuidVec port_guids;  ///< in the order of their records
  Guid sys_guid = 0;
  u_int32_t ports_num = 0;  ///< ports that the device declares
  std::string name;
  DeviceType type = DEV_UNKNOWN;  ///< not reported by the server
  std::string attr;
};

/// The memory of many devices, reached as one. Every operation goes to all active devices and
/// leaves one Result for each. A device that fails is dropped for the rest of the run; the others
/// go on. With no active device an operation does nothing and returns BRAID_OK, but a write still
/// advances the meter. Addresses are linear, in bytes. Single-threaded. Failures of the whole run
/// throw BraidError.
///
/// A client sets the address convertor and the devices and opens the server. It may then narrow the
/// active devices before each operation.
class RomInterface {
 public:
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"  // READ and WRITE are also file modes
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

  /// The outcome of the last operation on one device.
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

  /// Receives the progress of an operation.
  class ProgressMeter {
   public:
    virtual BraidResult Add(u_int32_t done) = 0;     ///< `done` more units
    virtual BraidResult Reset(u_int32_t total) = 0;  ///< start again, with `total` units in all
    virtual ~ProgressMeter() = default;
  };

  /// Compares the bytes of a device with expected bytes.
  using Comparison = bool (*)(const DataVec& read, const DataVec& expected);

  explicit RomInterface(const std::string& ifc_name) : _ifc_name(ifc_name) {}
  RomInterface(const RomInterface&) = delete;
  RomInterface& operator=(const RomInterface&) = delete;
  virtual ~RomInterface() = default;

  /// Connects to `server` ("TYPE:IP:PORT") and checks which of the devices it reaches.
  virtual BraidResult Open(const char* server) = 0;
  virtual BraidResult Close() = 0;
  /// Start is called before a burn, Stop after it.
  virtual BraidResult Start() = 0;
  virtual BraidResult Stop() = 0;
  /// Asks which devices are reachable. The others fail.
  virtual BraidResult CheckAccess() = 0;

  /// Reads `size` bytes at `addr` from every active device into its Result. Returns
  /// BRAID_ERR_SOME if some failed; they are removed from the active set.
  virtual BraidResult Read(u_int32_t addr, u_int32_t size) = 0;
  /// Writes `data` at `addr`. With `flag`, a flash erases the range first.
  virtual BraidResult Write(u_int32_t addr, const DataVec& data, bool flag) = 0;
  /// Programs `data` without erasing.
  virtual BraidResult WriteNoErase(u_int32_t addr, const DataVec& data);
  virtual BraidResult Erase(u_int32_t addr, u_int32_t size) = 0;
  /// Sends a whole image, as text, to the server, which burns it.
  virtual BraidResult BurnImage(const std::string& file) = 0;
  /// Size of a flash sector in bytes. Throws for a memory without sectors.
  virtual u_int32_t GetSectorSize();

  /// Set `out` to the vendor-specific data, or the board serial number, of one device.
  virtual BraidResult GetVsd(const Guid& g, DataVec& out) = 0;
  virtual BraidResult GetBsn(const Guid& g, DataVec& out) = 0;
  /// Sets `out`, which must be empty, to the device's value of one image field. Throws for an
  /// unknown device or type, and for GUIDS of a device whose ports are not all known.
  virtual BraidResult GetField(Guid g, FieldType type, DataVec& out);

  /// The convertor is borrowed and must live as long as the interface is used.
  virtual void SetAddressConvertor(AddressConvertor* conv) { _conv = conv; }
  /// The meter is borrowed until another meter, or null, is set.
  virtual void SetProgresMeter(ProgressMeter* progress) { _progress = progress; }

  /// Makes `devs` the active devices. Devices that have failed are removed from `devs`. Throws for
  /// a device that was never accessible.
  virtual BraidResult SetActiveDevices(GuidSet& devs);
  /// Makes all accessible devices active.
  virtual BraidResult SetActiveDevices();
  /// Makes one device active; none if it has failed.
  virtual BraidResult SetActiveDevices(Guid g);
  virtual const GuidSet& GetActiveDevices() const { return _active_devs; }
  virtual const GuidSet& GetAccessDevices() const { return _access_devs; }
  /// Sets the devices of the run and makes all of them active.
  virtual BraidResult SetAccessDevices(const GuidSet& devs);

  /// Reads expected.size() bytes at `addr` and returns the devices for which cmp(bytes, expected)
  /// is `want`. For a device that fails the read, `cmp` gets no bytes.
  virtual GuidSet Query(u_int32_t addr, const DataVec& expected, Comparison cmp, bool want);

  /// Declares a device failed: prints the failure and drops the device for the rest of the run.
  /// Throws when it was the last, when `g` is 0 (the whole run has failed), and for a device that
  /// is not active.
  virtual BraidResult DeviceError(const std::string& des, Guid g);

  /// The device's Result of the last operation, valid until the next; null when it took no part.
  const Result* LastActionResult(const Guid& g) const;

 protected:
  /// Creates an empty Result for every active device.
  BraidResult InitResults();
  /// Must be called after each change of _active_devs.
  void ActiveDevicesChanged() { ++_active_version; }

  kmap<Guid, Result> _last_result;     ///< of the devices active when the operation began
  kmap<Guid, std::string> _error_des;  ///< of every device that has failed
  /// Device records, each under its node GUID and under its port GUIDs.
  kmap<Guid, std::shared_ptr<DeviceData>> _devs_data;
  GuidSet _access_devs;                ///< may be accessed in this run
  GuidSet _active_devs;                ///< addressed by the next operation
  u_int64_t _active_version = 1;       ///< changes with each change of _active_devs
  GuidSet _error_devs;                 ///< have failed in this run
  AddressConvertor* _conv = nullptr;   ///< borrowed
  ProgressMeter* _progress = nullptr;  ///< borrowed
  std::string _ifc_name;               ///< for messages
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

/// Device memory behind a bus server. Each operation is one request, which names all active
/// devices, and one answer, with an element for each.
class RemoteRomInterface : public RomInterface {
 public:
  enum RomType { I2C_ROM = 0, FLASH_ROM = 1 };

  /// No write request crosses a multiple of 2 to the power `log2_chunk_align` bytes. A server with
  /// an interface version below `req_ifc_version` is refused.
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
  /// Sets `req` to the start of a request: the command word and the active devices.
  BraidResult GenBaseRequest(OpType op, std::string& req);
  /// Sets `req` to the whole request for `size` bytes at `addr`. `data` starts with the bytes to
  /// write; the bytes that follow them fill up the last word.
  BraidResult GenRwRequest(OpType op, u_int32_t addr, u_int32_t size,
                           std::span<const u_int8_t> data, std::string& req);
  /// Writes the first `size` bytes of `data` in one request.
  BraidResult WriteInternal(u_int32_t addr, u_int32_t size, std::span<const u_int8_t> data);
  /// Reads back `written` and fails the devices that differ.
  BraidResult VerifyWrittenData(u_int32_t addr, std::span<const u_int8_t> written);
  /// Writes `data` in chunks and advances the progress meter.
  BraidResult WriteChunks(u_int32_t addr, const DataVec& data, bool erase_first, bool verify);
  /// Stores the elements of an answer in the Results. Devices whose element is an error fail.
  BraidResult ProcessResponse(OpType op, const BraidConn::Response& resp);
  /// Appends the data words of one device's element to `out`: bytes of BSN, or 32-bit words.
  BraidResult GatherData(std::string_view element, DataVec& out, bool bsn);
  /// Adds one record of the server's device list.
  BraidResult AddDeviceRecord(const BraidConn::Response& record);
  /// The access to the server, which derived classes may replace: connect to `_access`, send a
  /// request and return its answer, send a large text and return its answer.
  virtual BraidResult Connect();
  virtual BraidConn::Response Exchange(const std::string& request);
  virtual BraidConn::Response ExchangeText(const std::string& text);
  /// The word for the memory in command names.
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
  /// Throws when an answer has arrived before its request: replies can no longer be matched to
  /// requests.
  void CheckNoSurplus() const;
  void AskMultiMax();
  void AskIfcVersion();
  /// GetVsd and GetBsn: sends a request of `request_op` and reads the answer as of `answer_op`.
  BraidResult GetDeviceBytes(Guid g, OpType request_op, OpType answer_op, DataVec& out);
  /// InitResults, unless the Results are empty already.
  void FreshResults();
  /// The device's Result. `next` is where the search begins; it is advanced, so that a loop over
  /// the active devices finds each Result in one step.
  Result& ResultOf(Guid guid, kmap<Guid, Result>::iterator& next);
  [[noreturn]] void ThrowCommandError(const std::string& reason,
                                      u_int32_t line = __builtin_LINE()) const;

  // Kept between operations: one that addresses the same devices as the last one does not allocate
  // or format their list again.
  std::string _request;
  std::vector<std::string_view> _elements;  ///< of the answer being processed
  std::string _active_list;                 ///< the active devices as requests name them
  u_int64_t _listed_version = 0;            ///< of the active devices in _active_list
  u_int64_t _fresh_version = 0;             ///< of those for which the Results are empty
};

/// A serial flash: erased by sectors; Open reads its attributes. One device per run.
class RemoteFlashInterface : public RemoteRomInterface {
 public:
  explicit RemoteFlashInterface(u_int32_t log2_chunk_align);

  BraidResult Open(const char* server) override;
  BraidResult Start() override;
  BraidResult Stop() override;
  BraidResult Write(u_int32_t addr, const DataVec& data, bool erase) override;
  /// Erases the sectors that [addr, addr + size) covers, unless the whole range lies in the sector
  /// erased last. Throws when `addr` is not the start of a sector, and when the sector size is
  /// unknown.
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

/// An I2C EEPROM: needs no erase, no Start and no Stop. Each write through a server of type I2C is
/// read back and compared.
class RemoteI2cInterface : public RemoteRomInterface {
 public:
  explicit RemoteI2cInterface(u_int32_t log2_chunk_align);

  BraidResult Start() override { return BRAID_OK; }
  BraidResult Stop() override { return BRAID_OK; }
  BraidResult Write(u_int32_t addr, const DataVec& data, bool flag) override;
  BraidResult Erase(u_int32_t, u_int32_t) override { return BRAID_OK; }
};
