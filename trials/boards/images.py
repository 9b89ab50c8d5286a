"""Images that fit the memories of the boards, made by fwimg. Their layouts are worked out here, from
values that the tests choose; what would be code is random."""

import pathlib
import random
import subprocess

FWIMG = pathlib.Path(__file__).resolve().parents[2] / "build" / "fwimg"
# What each device has of its own.
FIELDS = """[[field]]
type = "GUIDS"
at = { image = 0x40 }
[[field]]
type = "SYSGUID"
at = { image = 0x60 }
"""


def write_image(folder, name, layout, parts):
    for part, data in parts.items():
        (folder / f"{name}-{part}").write_bytes(data)
    path = folder / f"{name}.toml"
    path.write_text(layout)
    image = folder / f"{name}.img"
    subprocess.run([FWIMG, "make", path, "--parts", folder, "-o", image], check=True, timeout=60,
                   stdout=subprocess.DEVNULL)
    return image


class FlashImage:
    """Of an RV52100 with sectors of that size: an invariant sector, two pointer sectors, two slots."""

    def __init__(self, sector, seed, size=0x4400, invariant=1, slot1=16):
        """`invariant` is the seed of the invariant sector; `slot1` the sector that the second image begins
        in, the first begins in sector 3."""
        self.sector, self.seed, self.size, self.invariant, self.slot1 = sector, seed, size, invariant, slot1

    def write(self, folder, name):
        sector, slots = self.sector, [3 * self.sector, self.slot1 * self.sector]
        layout = 'title = "Firmware of a board"\ndevice_type = "RV52100"\nversion = { major = 1, minor = %d }\n' % self.seed
        for slot in (0, 1):
            layout += f"[[slot]]\nps = {sector * (slot + 1):#x}\nsignature = {sector * (slot + 1) + 8:#x}\n" \
                      f"image = {slots[slot]:#x}\n"
        layout += f"""[[section]]
name = "INVARIANT"
at = 0
content = [
  {{ file = "{name}-invariant", size = 0x24 }}, {{ hex = "cb84cb84" }}, {{ file = "{name}-invariant", from = 0x28 }}
]
"""
        for slot in (0, 1):
            signature = "cb84cb84" if slot == 0 else "ffffffff"
            layout += f"""[[section]]
name = "PS{slot}"
at = {sector * (slot + 1):#x}
content = [
  {{ hex = "{slots[slot]:08x} {self.size:08x} {signature}" }}, {{ file = "{name}-record" }}, {{ fill = 0, size = 4 }}
]
"""
        layout += f"""[[crc]]
from = {{ ps = 0 }}
size = 0x104
at = {{ ps = 0x104 }}
fill = true
[[section]]
name = "FIRMWARE"
at = {slots[0]:#x}
file = "{name}-firmware"
{FIELDS}[[crc]]
from = {{ image = 0 }}
size = 0xFFC
at = {{ image = 0xFFC }}
fill = true
"""
        return write_image(folder, name, layout, {
            "invariant": random.Random(f"invariant {self.invariant}").randbytes(0x400),
            "record": random.Random(f"record {self.seed}").randbytes(0xF8),
            "firmware": random.Random(f"firmware {self.seed}").randbytes(self.size)})


def eeprom_image(folder, name, seed, size=0x800):
    """Of an RV61300 with one EEPROM of 8 KiB, both slots in it."""
    layout = f"""title = "Firmware of a board's EEPROMs"
device_type = "RV61300"
version = {{ major = 1, minor = {seed} }}
devmap = [{{ device = 0x50, size = 0x2000 }}]
[[slot]]
image = {{ device = 0x50, offset = 0 }}
[[slot]]
image = {{ device = 0x50, offset = 0x1000 }}
[[section]]
name = "BOOT"
at = {{ device = 0x50, offset = 0 }}
boot_record = true
content = [
  {{ file = "{name}-boot", size = 7 }}, {{ hex = "00" }}, {{ file = "{name}-boot", from = 8 }}
]
[[section]]
name = "FIRMWARE"
at = {{ device = 0x50, offset = 0x400 }}
file = "{name}-firmware"
{FIELDS}[[crc]]
from = {{ image = 0x10 }}
size = 0x3EC
at = {{ image = 0x3FC }}
fill = true
"""
    return write_image(folder, name, layout, {
        "boot": random.Random(f"boot {seed}").randbytes(0x400),
        "firmware": random.Random(f"eeprom {seed}").randbytes(size)})
