#!/usr/bin/python3
"""Keeps the summary of a roll-out, and decides whether it goes on."""

import datetime
import hashlib
import json
import os
import re
import shutil
import subprocess

from ansible.module_utils.basic import AnsibleModule

DOCUMENTATION = r"""
module: fwpush_summary
short_description: Keeps the summary of a firmware roll-out and decides whether it goes on
description:
  - Runs on the control node, once for a whole wave. C(begin) looks at the hosts' settings and at the image,
    and makes the folder of the run; C(start_wave) and C(end_wave) stand around the work of a wave;
    C(finish) closes the summary. Each leaves a whole summary behind.
options:
  step: {type: str, required: true, choices: [begin, start_wave, end_wave, finish], description: What to do.}
  results: {type: path, description: "begin: the folder of all runs."}
  run: {type: path, description: "The other steps: the folder of this run."}
  image: {type: path, description: "begin: the image file."}
  hosts: {type: dict, description: "begin: server, guids, switches, devices_per_burn and time_limit of each host."}
  check_arguments: {type: list, elements: str, default: [], description: "begin: more for fwimg check."}
  rehearsal: {type: path, description: "begin: a fabric file to rehearse the burn on."}
  rehearsal_time_limit: {type: int, default: 3600, description: "begin: seconds for each rehearsal."}
  is_check: {type: bool, default: false, description: "begin: whether nothing is to be burnt."}
  wave: {type: list, elements: str, default: [], description: "start_wave: its hosts."}
  fabrics: {type: dict, default: {}, description: "end_wave: what each host's tasks returned, in their order."}
  max_failed: {type: list, elements: int, default: [0], description: "begin, end_wave: the limits, wave by wave."}
  bin_dir: {type: str, default: '', description: "begin: where the programs are; the PATH if empty."}
"""

RETURN = r"""
run: {type: str, description: The folder of this run.}
image: {type: str, description: The copy of the image that is burnt.}
stop: {type: bool, description: Whether nothing more may begin.}
reason: {type: str, description: Why.}
wave: {type: dict, description: "The wave at hand: number, hosts, failed, max_failed."}
not_well: {type: dict, description: "The hosts that were to get the image and have not, and why."}
counts: {type: dict, description: How many hosts have each outcome.}
"""

OUTCOMES = ("burnt", "unchanged", "would-burn", "failed", "running", "not-started")
WELL = ("burnt", "unchanged", "would-burn")
NOT_IN_SUMMARY = ("console",)
RECORD = ("devices", "verify_before", "burns", "verify_after", "console")


def now():
    return datetime.datetime.now(datetime.timezone.utc)


def timestamp(moment):
    return moment.strftime("%Y-%m-%dT%H:%M:%SZ")


def text_or_none(value):
    """What an inventory gives where a text should be may be anything."""
    return value if isinstance(value, str) else None


def write(name, value):
    """Whole or not at all: whoever reads it meanwhile gets the one before."""
    with open(name + ".new", "w", encoding="utf-8") as file:
        json.dump(value, file, indent=2)
        file.write("\n")
        file.flush()
        os.fsync(file.fileno())
    os.replace(name + ".new", name)


def run(argv, time_limit=600):
    """Runs a program without a shell. Returns (status, output, what to tell)."""
    try:
        done = subprocess.run(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              encoding="utf-8", errors="replace", timeout=time_limit, check=False)
    except OSError as error:
        return 2, "", f"can't run {argv[0]}: {error.strerror}"
    except subprocess.TimeoutExpired:
        return 2, "", f"{argv[0]} took more than {time_limit} s"
    lines = done.stderr.strip().splitlines()
    return done.returncode, done.stdout, lines[-1] if lines else f"{argv[0]}: status {done.returncode}"


# Below it, a burn would name no devices, or be ended before it has begun.
LEAST = {"devices_per_burn": 0, "time_limit": 1}


def is_number_from(least, value):
    """Whether Ansible takes it for such a number: one of the command line comes as text."""
    return not isinstance(value, bool) and re.fullmatch(r"-?[0-9]+", str(value).strip()) and int(value) >= least


def problems_of(hosts):
    """What is wrong with the hosts' settings: the first thing of each host, by host."""
    problems, servers, devices = {}, {}, {}

    def problem(host, text):
        problems.setdefault(host, text)

    for host, settings in hosts.items():
        server, guids, switches = (settings.get(key) for key in ("server", "guids", "switches"))
        if not re.fullmatch(r"[^\s/\x00-\x1f]+", host) or host in (".", ".."):
            problem(host, "its name can't be that of a file")
        if not isinstance(server, str) or not re.fullmatch(r"(I2C|PCI|PPC|IB):[^:\s,-][^:\s,]*:[0-9]{1,5}", server):
            problem(host, f"fwpush_rollout_server is no TYPE:IP:PORT: {server!r}")
        elif servers.setdefault(server, host) != host:
            problem(host, f"has the same server as {servers[server]}: {server}")
        if not isinstance(guids, list) or not guids:
            problem(host, "fwpush_rollout_guids is no list of GUIDs")
            guids = []
        for guid in guids:
            # Without quotes YAML makes a decimal number of 0x10, and of 55E1 something worse.
            if not isinstance(guid, str):
                problem(host, f"a GUID is no text: {guid!r}; put it in quotes")
            elif not re.fullmatch(r"(0x)?[0-9a-fA-F]{1,16}", guid) or int(guid, 16) == 0:
                problem(host, f"no GUID: {guid!r}")
            elif int(guid, 16) in devices:
                problem(host, f"the GUID {guid} is also of {devices[int(guid, 16)]}")
            else:
                devices[int(guid, 16)] = host
        if not isinstance(switches, list):
            problem(host, "fwpush_rollout_switches is no list")
            switches = []
        for switch in switches:
            if not isinstance(switch, str) or not re.fullmatch(r"-n|-m=([4-9]|1[0-5])", switch):
                problem(host, f"fwpush_rollout_switches may have -n and -m=N (4 to 15), not {switch!r}")
        for key, least in LEAST.items():
            if key in settings and not is_number_from(least, settings[key]):
                problem(host, f"fwpush_rollout_{key} is no number from {least} up: {settings[key]!r}")
    return problems


class Rollout:
    def __init__(self, params):
        self.params = params
        self.folder = params["run"]
        self.summary = None
        if self.folder:
            with open(os.path.join(self.folder, "summary.json"), encoding="utf-8") as file:
                self.summary = json.load(file)

    def host(self, name):
        return next(host for host in self.summary["hosts"] if host["host"] == name)

    def stop(self, reason):
        self.summary.update(stopped=True, stop_reason=reason)

    def save(self):
        hosts = self.summary["hosts"]
        self.summary["counts"] = {
            outcome: sum(host["outcome"] == outcome for host in hosts) for outcome in OUTCOMES}
        self.summary["all_well"] = bool(hosts) and all(host["outcome"] in WELL for host in hosts)
        write(os.path.join(self.folder, "summary.json"), self.summary)
        # The last run's, at a place that does not change.
        write(os.path.join(os.path.dirname(self.folder), "summary.json"), self.summary)

    def begin(self):
        started = now()
        results = os.path.abspath(self.params["results"])
        self.folder = os.path.join(results, started.strftime("%Y%m%dT%H%M%S.%fZ"))
        os.makedirs(os.path.join(self.folder, "hosts"))
        self.summary = {
            "version": 1, "started": timestamp(started), "finished": None,
            "image": self.params["image"], "image_sha256": None,
            "check_mode": self.params["is_check"], "all_well": False,
            "stopped": False, "stop_reason": None, "counts": {}, "image_check": None,
            "rehearsals": [], "waves": [],
            "hosts": [{"host": host, "wave": None, "server": text_or_none(settings["server"]),
                       "outcome": "not-started", "reason": None, "devices": [],
                       "verify_before": None, "burns": [], "verify_after": None}
                      for host, settings in sorted(self.params["hosts"].items())]}
        self.save()  # from now on, whatever happens, no older one is taken for this run's
        if min(self.params["max_failed"], default=-1) < 0:
            self.stop("fwpush_rollout_max_failed is no list of numbers from 0 up")
            self.summary["finished"] = timestamp(now())
            self.save()
            return
        problems = problems_of(self.params["hosts"])
        for host, problem in problems.items():
            self.host(host)["reason"] = problem
        if problems:
            host = min(problems)
            self.stop(f"{len(problems)} hosts with wrong settings; {host}: {problems[host]}")
        else:
            self.check_image()
        if not self.summary["stopped"] and self.params["rehearsal"]:
            self.rehearse()
        if self.summary["stopped"]:
            self.summary["finished"] = timestamp(now())
        self.save()

    def image(self):
        return os.path.join(self.folder, os.path.basename(self.summary["image"]))

    def check_image(self):
        # What is checked here is what every host gets, whatever becomes of the original.
        try:
            shutil.copyfile(self.params["image"], self.image())
            with open(self.image(), "rb") as file:
                self.summary["image_sha256"] = hashlib.sha256(file.read()).hexdigest()
        except OSError as error:
            self.stop(f"can't read the image {self.params['image']}: {error.strerror}")
            return
        status, output, trouble = run([os.path.join(self.params["bin_dir"], "fwimg"), "check", "--json"] +
                                      self.params["check_arguments"] + ["--", self.image()])
        try:
            self.summary["image_check"] = json.loads(output)
        except ValueError:
            self.stop(f"can't check the image: {trouble}")
            return
        if status != 0:
            checked = self.summary["image_check"]["files"][0]
            problems = [p for p in checked["problems"] if p["severity"] == "error"] or checked["problems"]
            first = f": line {problems[0]['line']}: {problems[0]['text']}" if problems else ""
            self.stop(f"the image has {checked['errors']} errors and {checked['warnings']} warnings{first}")

    def rehearse(self):
        program = os.path.join(self.params["bin_dir"], "fwpush-rehearse")
        kinds = sorted({tuple(settings["switches"]) for settings in self.params["hosts"].values()})
        for number, switches in enumerate(kinds, 1):
            name = os.path.join(self.folder, f"rehearsal-{number}.json")
            more = []
            for switch in switches:
                more += switch.split("=")
            status, _, trouble = run([program, self.params["rehearsal"], "-f", self.image(), "--json", name] + more,
                                     self.params["rehearsal_time_limit"])
            self.summary["rehearsals"].append({"switches": list(switches), "status": status,
                                               "file": os.path.basename(name)})
            if status != 0:
                told = "some devices would not boot" if status == 1 else trouble
                self.stop(f"the rehearsal failed: {told}")
                return

    def start_wave(self):
        number = len(self.summary["waves"]) + 1
        self.summary["waves"].append({"number": number, "hosts": self.params["wave"],
                                      "failed": None, "max_failed": None})
        for name in self.params["wave"]:
            self.host(name).update(wave=number, outcome="running")
        self.save()

    def end_wave(self):
        wave = self.summary["waves"][-1]
        for name in wave["hosts"]:
            self.take(name, self.params["fabrics"].get(name) or [])
        limits = self.params["max_failed"]
        wave["failed"] = sum(self.host(name)["outcome"] == "failed" for name in wave["hosts"])
        wave["max_failed"] = limits[min(wave["number"], len(limits)) - 1]
        place = f"{wave['failed']} of {len(wave['hosts'])} hosts failed in wave {wave['number']}"
        if wave["failed"] > wave["max_failed"]:
            self.stop(f"{place}, {wave['max_failed']} may")
        elif wave["failed"] == len(wave["hosts"]):
            self.stop(f"{place}: all of them")
        self.save()

    def take(self, name, returned):
        """What the tasks of a host returned; the last of them is the fabric's."""
        host = self.host(name)
        record = next((result for result in returned if "outcome" in result), {})
        # Whoever has no outcome may have been written to all the same: no result is a failure.
        host.update(outcome=record.get("outcome", "failed"), reason=record.get("reason"))
        if not record:
            told = [result["msg"] for result in returned
                    if result.get("msg") and (result.get("failed") or result.get("unreachable"))]
            host["reason"] = " ".join(str(told[0]).split()) if told else "ended without a result"
        kept = {key: record[key] for key in RECORD if key in record}
        host.update((key, value) for key, value in kept.items() if key not in NOT_IN_SUMMARY)
        write(os.path.join(self.folder, "hosts", name + ".json"),
              {"version": 1, **host, "console": "", **kept})

    def finish(self):
        self.summary["finished"] = timestamp(now())
        self.save()

    def why(self, host):
        if host["outcome"] == "not-started":
            return "not started" + (f": {self.summary['stop_reason']}" if self.summary["stopped"] else "")
        return host["reason"] or host["outcome"]


def main():
    module = AnsibleModule(
        argument_spec={
            "step": {"type": "str", "required": True,
                     "choices": ["begin", "start_wave", "end_wave", "finish"]},
            "results": {"type": "path"},
            "run": {"type": "path"},
            "image": {"type": "path"},
            "hosts": {"type": "dict"},
            "check_arguments": {"type": "list", "elements": "str", "default": []},
            "rehearsal": {"type": "path"},
            "rehearsal_time_limit": {"type": "int", "default": 3600},
            "is_check": {"type": "bool", "default": False},
            "wave": {"type": "list", "elements": "str", "default": []},
            "fabrics": {"type": "dict", "default": {}},
            "max_failed": {"type": "list", "elements": "int", "default": [0]},
            "bin_dir": {"type": "str", "default": ""},
        },
        required_if=[("step", "begin", ("results", "image", "hosts"))] +
                    [("step", step, ("run",)) for step in ("start_wave", "end_wave", "finish")])
    rollout = Rollout(module.params)
    getattr(rollout, module.params["step"])()
    module.exit_json(
        changed=False, run=rollout.folder, image=rollout.image(), counts=rollout.summary["counts"],
        stop=rollout.summary["stopped"], reason=rollout.summary["stop_reason"],
        wave=rollout.summary["waves"][-1] if rollout.summary["waves"] else None,
        not_well={host["host"]: rollout.why(host) for host in rollout.summary["hosts"]
                  if host["outcome"] not in WELL})


if __name__ == "__main__":
    main()
