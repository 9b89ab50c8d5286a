#!/usr/bin/env python3
"""Writes the example images by other means than `fwimg make` does, to hold it against: the file, the
CRCs and the boot record are made here. Also makes variants of them.
Usage: tests/support/example_images.py DIR"""

import importlib.machinery
import importlib.util
import os
import sys


def load_make_parts():
    path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples", "make-parts")
    loader = importlib.machinery.SourceFileLoader("make_parts", path)
    spec = importlib.util.spec_from_loader("make_parts", loader)
    module = importlib.util.module_from_spec(spec)
    sys.dont_write_bytecode = True
    loader.exec_module(module)
    return module


firmware = load_make_parts().firmware

VALID_SIGNATURE = bytes.fromhex("cb84cb84")
BOOT_RECORD_SUM = 0xAB


def crc16(data):
    """The image CRC, bit by bit."""
    crc = 0xFFFF
    bits = [(byte >> shift) & 1 for byte in data + b"\0\0" for shift in range(7, -1, -1)]
    for bit in bits:
        top = crc & 0x8000
        crc = ((crc << 1) | bit) & 0xFFFF
        if top:
            crc ^= 0x100B
    return crc ^ 0xFFFF


def place(data, offset, piece):
    return data[:offset] + piece + data[offset + len(piece):]


def with_crc(data, start, end, at):
    """The CRC of data[start:end] stored at `at`."""
    return place(data, at, crc16(data[start:end]).to_bytes(4, "big"))


class ImageFile:
    def __init__(self, title):
        self.lines = ["# " + line for line in title.splitlines()] + [""]

    def directive(self, *words):
        self.lines.append(" ".join(w if isinstance(w, str) else f"{w:X}" for w in words))

    def comment(self, text):
        self.lines += ["", "# " + text]

    def section(self, name, offset, dev, data):
        self.comment(f"{name}: {len(data)} bytes")
        self.directive("START", name, offset, dev)
        for at in range(0, len(data), 16):
            self.lines.append(data[at:at + 16].hex(" ").upper())
        self.directive("END", name)

    def write(self, path):
        with open(path, "w", encoding="ascii") as file:
            file.write("\n".join(self.lines) + "\n")


def rv61300(release=8, size=0xC000):
    """Two EEPROMs of 128 KiB, an image slot in each, the boot record first in its slot."""
    boot = firmware(f"rv61300 boot {release}", 0x400)
    record = bytearray(boot[:16])
    record[7] = 0
    record[15] = 0
    record[15] = (BOOT_RECORD_SUM - sum(record)) % 256
    boot = with_crc(bytes(record) + boot[16:], 0x10, 0x3FC, 0x3FC)

    image = ImageFile("Example firmware of an RV61300: I2C EEPROMs 50 and 51, one image slot in each.\n"
                      "All numbers are hexadecimal.")
    image.directive("DEVICE_TYPE", "RV61300")
    image.directive("MAJ_FW_VER", "1")
    image.directive("MIN_FW_VER", release)
    image.directive("SUB_MIN_FW_VER", "0")
    image.comment("The linear address space: both EEPROMs end to end.")
    for dev in (0x50, 0x51):
        image.directive("DEVMAP", 0x20000, dev)
    image.comment("Slots, and what each device gets of its own in either.")
    for slot, dev in enumerate((0x50, 0x51)):
        image.directive("IMAGE", str(slot), 0, dev)
        image.directive("REPLACE", "GUIDS", 0x40, dev)
        image.directive("REPLACE", "GUID", 0x60, dev)
        image.directive("REPLACE", "SYSGUID", 0x68, dev)
        image.directive("REPLACE", "BSN", 0x80, dev)
        # Not over the boot record: its first word is held back until the slot is written.
        image.directive("REPLACE", "CRC", 0x10, dev, 0x3F8, dev, 0x3FC, dev)
    image.section("BOOT", 0, 0x50, boot)
    image.section("FIRMWARE", 0x1000, 0x50, firmware(f"rv61300 firmware {release}", size))
    image.section("CONFIG", 0x1F000, 0x50, firmware(f"rv61300 config {release}", 0x800))
    return image


def rv52100(release=2, size=0x18000, second_slot=0x110000, invariant_release=1):
    """A flash of 64 KiB sectors: invariant sector, two pointer sectors, two image slots."""
    sector = 0x10000
    slots = (3 * sector, second_slot)
    pointer_sectors = (sector, 2 * sector)
    fw = with_crc(firmware(f"rv52100 firmware {release}", size), 0, 0xFFC, 0xFFC)

    image = ImageFile("Example firmware of an RV52100: serial flash with 64 KiB sectors.\n"
                      "All numbers are hexadecimal.")
    image.directive("DEVICE_TYPE", "RV52100")
    image.directive("MAJ_FW_VER", "3")
    image.directive("MIN_FW_VER", release)
    image.directive("SUB_MIN_FW_VER", "0")
    image.comment("Slots: pointer sector, its signature, the image; what each device gets of its own.")
    for slot, (ps, base) in enumerate(zip(pointer_sectors, slots)):
        image.directive("PS", str(slot), ps, "0")
        image.directive("SIGNATURE", str(slot), ps + 8, "0")
        image.directive("IMAGE", str(slot), base, "0")
        image.directive("REPLACE", "CRC", ps, "0", ps + 0x100, "0", ps + 0x104, "0")
        image.directive("REPLACE", "GUIDS", base + 0x40, "0")
        image.directive("REPLACE", "SYSGUID", base + 0x60, "0")
        image.directive("REPLACE", "VSD", base + 0x100, "0")
        image.directive("REPLACE", "CRC", base, "0", base + 0xFF8, "0", base + 0xFFC, "0")
    invariant = place(firmware(f"rv52100 invariant {invariant_release}", 0x1000), 0x24, VALID_SIGNATURE)
    image.section("INVARIANT", 0, "0", invariant)
    for slot, (ps, base) in enumerate(zip(pointer_sectors, slots)):
        # Only the first is shipped valid: a burn without fail-safety fills only the first slot.
        signature = VALID_SIGNATURE if slot == 0 else b"\xff" * 4
        record = (base.to_bytes(4, "big") + len(fw).to_bytes(4, "big") + signature +
                  firmware(f"rv52100 pointer {release} {slot}", 0xF8))
        image.section(f"PS{slot}", ps, "0", record + crc16(record).to_bytes(4, "big"))
    image.section("FIRMWARE", slots[0], "0", fw)
    return image


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    # The old release keeps its second image low in the flash, where the new one does not fit below.
    for name, image in (("rv61300", rv61300()), ("rv61300-old", rv61300(release=7, size=0xA000)),
                        ("rv52100", rv52100()),
                        ("rv52100-old", rv52100(release=1, size=0x8000, second_slot=0x40000))):
        image.write(os.path.join(sys.argv[1], name + ".img"))


if __name__ == "__main__":
    main()
