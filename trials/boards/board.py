"""Two emulated boards that run Debian's own armhf kernel, each with a NOR flash (spi-nor), I2C EEPROMs
and a network port of which one port of the loopback leads to fwpush-serve inside. Their memories are
files of this machine. Needs what trials/boards/build-programs has fetched.

Used by script/test-boards. All that is started here is ended by its process id."""

import ctypes
import errno
import json
import lzma
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
SERVER_PORT = 26519  # inside the board
PR_SET_PDEATHSIG = 1
HOST = "10.0.2.2"  # this machine, as the board sees it


class BoardError(Exception):
    """A board does not do what it must, or not in time."""


running = set()  # boards with the power on
has_ended = threading.Event()  # no further board may start


def end_all():
    """Cuts the power of all boards, for a run that ends early."""
    has_ended.set()
    for board in list(running):
        board.kill()


def end_with_parent():
    """In a child: it is killed when its parent ends, however that ends."""
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


class Kind:
    """What distinguishes one board from the other. All I2C chips hang on the adapter i2c-0."""

    def __init__(self, name, **more):
        self.name = name
        self.__dict__.update(more)


ASPEED = Kind(
    "aspeed", flash_name="bmc", machine="ast2600-evb,fmc-model=m25p16", console="ttyS4", serial=["-serial", "stdio"],
    load_address=0x80208000, dtb="aspeed-ast2600-evb.dtb", i2c_bus="aspeed.i2c.bus.0", nic="ftgmac100",
    flash_size=0x200000, sector_size=0x10000, erase_size=0x10000, programs="pages of 256 bytes",
    # The window of the flash controller is 256 MiB, which the default leaves no room for.
    parameters="vmalloc=700M maxcpus=1", options=[],
    absent_error=errno.ENXIO,
    modules="spi-aspeed-smc spi-nor i2c-aspeed i2c-dev i2c-mux-pca954x at24 mdio-aspeed realtek ftgmac100",
    edits=[["-r", "/ahb/spi@1e620000/flash@0/partitions"]],
    # Ports, buses and flashes without anything on them only cost time.
    disabled=[*(f"/ahb/{node}" for node in (
        "ftgmac@1e680000", "ftgmac@1e670000", "ftgmac@1e690000", "mdio@1e650008", "mdio@1e650010",
        "mdio@1e650018", "spi@1e630000", "spi@1e631000")), *(f"/ahb/apb/bus@1e78a000/i2c-bus@{number * 128:x}" for number in range(2, 17))])
SABRELITE = Kind(
    "sabrelite", flash_name="spi0.0", machine="sabrelite", console="ttymxc1", serial=["-serial", "null", "-serial", "stdio"],
    load_address=0x10208000, dtb="imx6q-sabrelite.dtb", i2c_bus="i2c-bus.0", nic="imx.enet",
    flash_size=0x200000, sector_size=0x10000, erase_size=0x1000, programs="2 bytes",
    parameters="", options=["-m", "256"],
    absent_error=errno.ETIMEDOUT,
    modules="gpio-mxc spi-imx spi-nor i2c-imx i2c-dev i2c-mux-pca954x at24 fec",
    # The emulator lacks the DMA controller, which the SPI driver would wait for.
    edits=[["-d", "/soc/bus@2000000/spba-bus@2000000/spi@2008000", name] for name in ("dmas", "dma-names")],
    disabled=["/soc/bus@2000000/dma-controller@20ec000", "/soc/dma-controller@110000", "/soc/pcie@1ffc000",
              "/soc/bus@2000000/snvs@20cc000", "/gpio-keys"])
KINDS = [ASPEED, SABRELITE]


def run(words):
    subprocess.run([str(word) for word in words], check=True, timeout=60)


def archive(files):
    """An archive as the kernel unpacks it: (name, mode, bytes) each."""
    packed = bytearray()
    for number, (name, mode, data) in enumerate([*files, ("TRAILER!!!", 0, b"")], 1):
        name = name.encode() + b"\0"
        fields = (number, mode, 0, 0, 1, 0, len(data), 0, 0, 0, 0, len(name), 0)
        packed += b"070701" + b"".join(b"%08X" % field for field in fields) + name
        packed += bytes(-len(packed) % 4) + data
        packed += bytes(-len(packed) % 4)
    return bytes(packed)


def kernel_image(compressed, load_address):
    """The kernel of a zImage, unpacked here so that the emulated CPU need not, behind a U-Boot header."""
    start = compressed.find(b"\xfd7zXZ\0")
    while start >= 0:
        try:
            kernel = lzma.LZMADecompressor().decompress(compressed[start:])
            if len(kernel) > 4_000_000:
                return struct.pack(">7I4B32x", 0x27051956, 0, 0, len(kernel), load_address, load_address, 0,
                                   5, 2, 2, 0) + kernel
        except lzma.LZMAError:
            pass
        start = compressed.find(b"\xfd7zXZ\0", start + 1)
    raise BoardError("no kernel is found in its file")


def modules_of(kernel_modules, names):
    """The modules and what they depend on, in the order to load them in: names and files."""
    files = {path.stem.replace("-", "_"): path for path in (kernel_modules / "kernel").rglob("*.ko")}
    builtin = {pathlib.PurePath(line).stem.replace("-", "_")
               for line in (kernel_modules / "modules.builtin").read_text().splitlines()}
    order = {}

    def add(name):
        name = name.replace("-", "_")
        if name in order or name in builtin or not name:
            return
        if name not in files:
            raise BoardError(f"the kernel has no module {name}")
        data = files[name].read_bytes()
        depends = re.search(rb"\0depends=([^\0]*)\0", data)
        for other in depends.group(1).decode().split(",") if depends else []:
            add(other)
        order[name] = data

    for name in names.split():
        add(name)
    return order


class Firmware:
    """What a kind of board boots, made once for all boards of a run."""

    def __init__(self, kind, packages, programs, folder):
        root = packages / "board"
        self.kind = kind
        folder.mkdir(parents=True, exist_ok=True)
        self.kernel, self.dtb, self.archive = folder / "kernel", folder / "dtb", folder / "archive"
        [compressed] = root.glob("boot/vmlinuz-*")
        [dtb] = root.glob(f"usr/lib/linux-image-*/{kind.dtb}")
        [kernel_modules] = root.glob("lib/modules/*")
        self.release = kernel_modules.name
        self.kernel.write_bytes(kernel_image(compressed.read_bytes(), kind.load_address))
        self.dtb.write_bytes(dtb.read_bytes())
        for option, *words in kind.edits:
            run(["fdtput", option, self.dtb, *words])
        for node in kind.disabled:
            run(["fdtput", "-t", "s", self.dtb, node, "status", "disabled"])
        libraries = root / "lib/arm-linux-gnueabihf"
        files = [(name, 0o40755, b"") for name in
                 ("bin", "dev", "proc", "sys", "modules", "lib", "lib/arm-linux-gnueabihf", "tmp", "state")]
        files.append(("init", 0o100755, (HERE / "init").read_bytes()))
        for name, path in {"bin/busybox": root / "bin/busybox", **{f"bin/{name}": root / "usr/sbin" / name for name in ("flashcp", "flash_lock", "flash_unlock")},
                           "lib/ld-linux-armhf.so.3": (libraries / "ld-linux-armhf.so.3"),
                           "lib/arm-linux-gnueabihf/libc.so.6": libraries / "libc.so.6",
                           **{f"bin/{path.name}": path for path in programs}}.items():
            files.append((name, 0o100755, path.read_bytes()))
        files.append(("bin/sh", 0o120777, b"busybox"))
        modules = modules_of(kernel_modules, kind.modules)
        files += [(f"modules/{name}.ko", 0o100644, data) for name, data in modules.items()]
        files.append(("modules/order", 0o100644, "\n".join(modules).encode() + b"\n"))
        self.archive.write_bytes(archive(files))


class Board:
    """One board: from its start to its end, once. Its memories' files outlive it."""

    def __init__(self, firmware, folder, flash, eeproms, files=(), is_traced=False):
        """`flash` is the file of the flash; `eeproms` those of EEPROMs: the first at 0x54 of the adapter,
        the others at 0x50 of channels 0, 1, ... of a mux at 0x70; `files` more files in the board: (name, bytes).
        A board that is traced counts what the flash is told: commands()."""
        self.firmware, self.folder = firmware, folder
        self._lines, self._news, self._commands = [], threading.Condition(), 0
        self._process = self._monitor = None
        kind = firmware.kind
        initrd = folder / "initrd"
        initrd.write_bytes(firmware.archive.read_bytes() +
                           archive([(name, 0o100644, data) for name, data in files]))
        words = ["qemu-system-arm", "-M", kind.machine, *kind.options, "-accel", "tcg", "-display", "none",
                 "-monitor", "none", "-no-reboot", "-nodefaults", *kind.serial, "-kernel", firmware.kernel,
                 "-dtb", firmware.dtb, "-initrd", initrd, "-qmp", f"unix:{folder}/qmp,server=on,wait=off",
                 "-drive", f"if=mtd,index=0,format=raw,file={flash}",
                 "-netdev", f"user,id=net,restrict=on,hostfwd=tcp:127.0.0.1:0-:{SERVER_PORT}",
                 "-net", f"nic,netdev=net,model={kind.nic}",
                 "-device", f"pca9548,bus={kind.i2c_bus},address=0x70",
                 # One line for each command that the flash gets.
                 "-D", folder / "trace", *(["-trace", "m25p80_command_decoded"] if is_traced else []),
                 "-append", f"console={kind.console},115200 panic=-1 quiet cryptomgr.notests {kind.parameters}"]
        for number, path in enumerate(eeproms):
            bus, address = (f"i2c.{number - 1}", 0x50) if number else (kind.i2c_bus, 0x54)
            words += ["-blockdev", f"driver=file,filename={path},node-name=eeprom{number}", "-device",
                      f"at24c-eeprom,bus={bus},address={address},rom-size={path.stat().st_size},drive=eeprom{number}"]
        self._words = [str(word) for word in words]

    def __enter__(self):
        if has_ended.is_set():
            raise BoardError("another board has failed")
        self.started = time.monotonic()
        self._process = subprocess.Popen(self._words, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=subprocess.STDOUT, preexec_fn=end_with_parent)
        running.add(self)
        try:
            threading.Thread(target=self._read, daemon=True).start()
            state, _ = self.wait_for("^board: (ready|FAILED.*)$", 400)
            if state.group(1) != "ready":
                raise BoardError(state.group(0))
            self.boot_seconds = time.monotonic() - self.started
            self.port = self._forwarded_port()
        except BaseException:
            self.kill()
            raise
        return self

    def __exit__(self, *_):
        self.kill()

    def kill(self):
        """Cuts the power: the emulator gets no chance to write anything."""
        if self._process is not None and self._process.poll() is None:
            os.kill(self._process.pid, signal.SIGKILL)
            self._process.wait(30)
        running.discard(self)
        if self._monitor is not None:
            self._monitor.close()
            self._monitor = None

    def _read(self):
        with open(self.folder / "console", "ab") as log:
            for line in self._process.stdout:
                log.write(line)
                log.flush()
                with self._news:
                    self._lines.append(line.decode(errors="replace").rstrip("\r\n"))
                    self._news.notify_all()
        with self._news:
            self._lines.append("board: gone")
            self._news.notify_all()

    def wait_for(self, pattern, seconds, start=0):
        """Waits for a line of the console; its match, and how many lines there are up to it."""
        deadline = time.monotonic() + seconds
        at = start
        with self._news:
            while True:
                for at in range(at, len(self._lines)):
                    match = re.search(pattern, self._lines[at])
                    if match:
                        return match, at + 1
                    if self._lines[at] == "board: gone":
                        raise BoardError(f"the emulator ended: {self._lines[-6:-1]}")
                at = len(self._lines)
                left = deadline - time.monotonic()
                if left <= 0 or not self._news.wait(left):
                    raise BoardError(f"no line {pattern!r} in {seconds} s; the last are {self._lines[-5:]}")

    def run(self, command, seconds=200):
        """Runs a line of shell in the board; its exit status and the lines that it prints."""
        self._commands += 1
        start = len(self._lines)
        mark = f"board: {self._commands} "
        self._process.stdin.write(f"{command}; echo \"{mark}$?\"\n".encode())
        self._process.stdin.flush()
        match, end = self.wait_for(rf"^{mark}(\d+)$", seconds, start)
        return int(match.group(1)), self._lines[start:end - 1]

    def must(self, command, seconds=200):
        status, lines = self.run(command, seconds)
        if status != 0:
            raise BoardError(f"in the board: {command}: status {status}: {lines}")
        return lines

    def monitor(self, command, **arguments):
        """A command of the emulator's monitor protocol."""
        if self._monitor is None:
            self._monitor = socket.socket(socket.AF_UNIX)
            self._monitor.settimeout(30)
            self._monitor.connect(str(self.folder / "qmp"))
            self._replies = self._monitor.makefile("rb")
            self._replies.readline()
            self.monitor("qmp_capabilities")
        self._monitor.sendall(json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n")
        while True:
            reply = json.loads(self._replies.readline())
            if "error" in reply:
                raise BoardError(f"{command}: {reply['error']}")
            if "return" in reply:
                return reply["return"]

    def set_link(self, is_up):
        self.monitor("set_link", name="net", up=is_up)

    def _forwarded_port(self):
        text = self.monitor("human-monitor-command", **{"command-line": "info usernet"})
        return int(re.search(r"TCP\[HOST_FORWARD\]\s+\d+\s+127\.0\.0\.1\s+(\d+)", text).group(1))

    def commands(self):
        """How often the flash got each command so far, by its first byte."""
        counts = {}
        for code in re.findall(r"new command:0x([0-9a-f]+)", (self.folder / "trace").read_text()):
            counts[int(code, 16)] = counts.get(int(code, 16), 0) + 1
        return counts

    def start_server(self):
        """Starts fwpush-serve with /serve.toml, and waits until it listens. The shell collects it."""
        self.must("rm -f /serve.out; fwpush-serve /serve.toml >/serve.out 2>>/serve.log & server=$!")
        self.must("for try in $(seq 600); do grep -q ^IB: /serve.out && break; kill -0 $server || break; "
                  "usleep 50000; done; cat /serve.log; grep -q ^IB: /serve.out")

    def kill_server(self):
        self.must("kill -9 $server || exit 1; wait $server 2>/dev/null; true")
