#!/usr/bin/python3
"""Brings the devices behind one bus server to an image: verify, burn what lacks it, verify again."""

import contextlib
import json
import os
import subprocess
import tempfile

from ansible.module_utils.basic import AnsibleModule

DOCUMENTATION = r"""
module: fwpush_fabric
short_description: Brings the devices behind one bus server to a firmware image
description:
  - Verifies with C(fwpush-verify), burns the devices that lack the image through C(fwpush-report), and
    verifies again. Devices that hold the image are not written to. In check mode nothing is.
  - Never fails by itself because of a device; RV(outcome) tells.
options:
  image: {type: path, required: true, description: The image file, where the programs run.}
  server: {type: str, required: true, description: "The bus server: TYPE:IP:PORT."}
  guids: {type: list, elements: str, required: true, description: The devices.}
  switches: {type: list, elements: str, default: [], description: More switches for fwpush.}
  devices_per_burn: {type: int, default: 0, description: Devices that one burn names; 0 is all.}
  time_limit: {type: int, default: 3600, description: Seconds that each program may take.}
  bin_dir: {type: str, default: '', description: Where the programs are; the PATH if empty.}
"""

RETURN = r"""
outcome: {type: str, description: "burnt, unchanged, would-burn or failed"}
reason: {type: str, description: What failed.}
devices: {type: list, description: "Of each device: guid, before, burn, reason, after."}
"""

LONGEST_LIST = 100000  # bytes in one argument; a longer list is handed over in a file
SECONDS_TO_END = 30  # for a program that was asked to


class Trouble(Exception):
    """What keeps the whole fabric from its firmware."""


def run(argv, time_limit):
    """Runs a program without a shell. Returns (status, output, diagnostics)."""
    try:
        process = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, encoding="utf-8", errors="replace")
    except OSError as error:
        raise Trouble(f"can't run {argv[0]}: {error.strerror}") from error
    late = ""
    try:
        output, diagnostics = process.communicate(timeout=time_limit)
    except subprocess.TimeoutExpired:
        late = f"ended after {time_limit} s\n"
        process.terminate()  # fwpush-report hands it to the burn, and still writes its result
        try:
            output, diagnostics = process.communicate(timeout=SECONDS_TO_END)
        except subprocess.TimeoutExpired:
            process.kill()
            output, diagnostics = process.communicate()
    return (1 if late and process.returncode == 0 else process.returncode), output, diagnostics + late


def last_line(text, status):
    lines = text.strip().splitlines()
    return lines[-1] if lines else f"status {status}"


class Fabric:
    def __init__(self, params):
        self.params = params
        self.record = {"devices": [], "verify_before": None, "burns": [], "verify_after": None}
        self.console = ""

    def program(self, name):
        return os.path.join(self.params["bin_dir"], name)

    @contextlib.contextmanager
    def target(self, guids):
        """The switches for the image, the server and these devices, as long as they are used."""
        with tempfile.TemporaryDirectory(prefix="fwpush-") as folder:
            devices = ",".join(guids)
            if len(devices) > LONGEST_LIST:
                devices = "@" + os.path.join(folder, "guids")
                with open(devices[1:], "w", encoding="ascii") as file:
                    file.write("\n".join(guids) + "\n")
            yield ["-f", self.params["image"], "-s", self.params["server"], "-g", devices]

    def verify(self):
        """What is on the devices, by GUID; and fwpush-verify's own result."""
        # A burn with -n leaves every section where it stands, and no slot to choose.
        slot = "none" if "-n" in self.params["switches"] else "auto"
        with self.target(self.params["guids"]) as target:
            status, output, diagnostics = run(
                [self.program("fwpush-verify"), "--json", "--slot", slot] + target,
                self.params["time_limit"])
        try:
            result = json.loads(output)
            failure = result["failure"]
            findings = {device["guid"]: device for device in result["devices"]}
        except (ValueError, KeyError) as error:
            raise Trouble("can't verify: " + last_line(diagnostics, status)) from error
        if failure:  # of the server: what the devices hold is not known of all
            raise Trouble("can't verify: " + failure)
        return findings, result

    def burn(self, guids):
        """Burns these devices in one run. Returns whether all of them are burnt."""
        with self.target(guids) as target, tempfile.TemporaryDirectory(prefix="fwpush-") as folder:
            result_file = os.path.join(folder, "burn.json")
            status, output, diagnostics = run(
                [self.program("fwpush-report"), "--plain", "--json", result_file, "--",
                 self.program("fwpush")] + self.params["switches"] + target,
                self.params["time_limit"])
            self.console += output + diagnostics
            try:
                with open(result_file, encoding="utf-8") as file:
                    result = json.load(file)
            except (OSError, ValueError) as error:
                raise Trouble("can't burn: " + last_line(diagnostics, status)) from error
        self.record["burns"].append(result)
        by_guid = {device["guid"]: device for device in self.record["devices"]}
        for device in result["devices"]:
            by_guid[device["guid"]].update(burn=device["outcome"], reason=device["reason"])
        if result["failure"] and not any(device["reason"] for device in result["devices"]):
            raise Trouble("the burn failed: " + result["failure"])
        return status == 0 and result["all_burnt"]

    def devices_per_burn(self):
        status, output, diagnostics = run(
            [self.program("fwimg"), "info", "--json", self.params["image"]], self.params["time_limit"])
        if status != 0:
            raise Trouble("can't see into the image: " + last_line(diagnostics, status))
        if json.loads(output)["memory"].startswith("serial flash"):
            return 1  # fwpush burns one flash a run
        return self.params["devices_per_burn"] or len(self.params["guids"])

    def bring_up(self, is_check):
        before, self.record["verify_before"] = self.verify()
        self.record["devices"] = [{"guid": guid, "before": finding["state"], "burn": None,
                                   "reason": finding["reason"] or None, "after": None}
                                  for guid, finding in before.items()]
        # fwpush would only drop a device that the server does not know.
        wanted = [guid for guid, finding in before.items()
                  if finding["state"] not in ("identical", "unreachable")]
        if not wanted or is_check:
            self.judge("before", "would-burn" if wanted else "unchanged",
                       ("identical", "different") if is_check else ("identical",))
            return
        size = self.devices_per_burn()
        trouble = None
        try:
            for first in range(0, len(wanted), size):
                # What one device did not survive, the next one is spared.
                if not self.burn(wanted[first:first + size]):
                    break
        except Trouble as error:
            trouble = error
        # After a failure, too: what is on the devices now is what counts for the next step.
        try:
            after, self.record["verify_after"] = self.verify()
        except Trouble as error:
            raise trouble or error
        for device in self.record["devices"]:
            device["after"] = after[device["guid"]]["state"]
            device["reason"] = device["reason"] or after[device["guid"]]["reason"] or None
        if trouble:
            raise trouble
        self.judge("after", "burnt", ("identical",))

    def judge(self, when, outcome, good_states):
        bad = [device for device in self.record["devices"]
               if device[when] not in good_states or device["burn"] not in (None, "burnt")]
        self.record.update(outcome=outcome, reason=None)
        if bad:
            first = bad[0]
            reason = f"{first['guid']}: {first['reason'] or first[when]}"
            if len(bad) > 1:
                reason += f" (and {len(bad) - 1} more devices)"
            self.record.update(outcome="failed", reason=reason)


def main():
    module = AnsibleModule(
        argument_spec={
            "image": {"type": "path", "required": True},
            "server": {"type": "str", "required": True},
            "guids": {"type": "list", "elements": "str", "required": True},
            "switches": {"type": "list", "elements": "str", "default": []},
            "devices_per_burn": {"type": "int", "default": 0},
            "time_limit": {"type": "int", "default": 3600},
            "bin_dir": {"type": "str", "default": ""},
        },
        supports_check_mode=True)
    fabric = Fabric(module.params)
    try:
        fabric.bring_up(module.check_mode)
    except Trouble as trouble:
        fabric.record.update(outcome="failed", reason=str(trouble))
    is_changed = fabric.record["outcome"] == "would-burn" or any(
        device["may_have_changed"] for burn in fabric.record["burns"] for device in burn["devices"])
    module.exit_json(changed=is_changed, console=fabric.console, **fabric.record)


if __name__ == "__main__":
    main()
