#!/usr/bin/python3
"""answers_test.py MODULES: the checks find in recorded answers of the tools what answers.toml says, and nothing else.

The tools are programs of the same names that print the recorded answer; collect and the checks are the real ones.
Each of these programs first runs once as a process of its own. After that it runs in this process, because starting
Python 400 times takes longer than all the rest.
"""

import contextlib
import functools
import io
import json
import operator
import os
import pathlib
import py_compile
import shlex
import shutil
import subprocess
import sys
import tempfile
import tomllib
import traceback
import unittest.mock

HERE = pathlib.Path(__file__).resolve().parent
MODULES = pathlib.Path(sys.argv[1]).resolve()
CHECKS = {
    "smartctl": ["smart"],
    "ipmi-sensors": ["temperatures", "fans", "voltages", "power", "memory", "disks", "bmc"],
    "ipmi-sel": ["bmc"],
    "ras-mc-ctl": ["memory"],
    "mdadm": ["arrays"],
    "sensors": ["temperatures", "fans", "voltages"],
    "kernel": ["temperatures", "fans", "voltages", "arrays", "disks"],
}
# Answers for the disk that is its last argument.
SMARTCTL = """#!/bin/sh
case "$*" in *--scan-open*) name=scan ;; *) for name; do :; done ;; esac
. "{dir}/now/${{name##*/}}"
"""


def collections(tool, names):
    """How many collections show all that these answers can tell: a limit counts after two."""
    files = [path.name for path in (HERE / "answers" / tool).iterdir()]
    changes = [file[len(name) + 1] for name in names for file in files if file.startswith(f"{name}.")]
    return max([2] + [max(3, int(number)) for number in changes if number.isdigit()])


def recorded(tool, name, collection):
    """The answer that is valid in a collection: that of the latest number up to it."""
    suffix = ".json" if tool == "smartctl" else ""
    for number in range(collection, 0, -1):
        path = HERE / "answers" / tool / (name + (f".{number}" if number > 1 else "") + suffix)
        if path.exists():
            return path
    sys.exit(f"no answer {tool}/{name}")


started = set()  # programs that have run as a process of their own


def run_here(program, words, env):
    """Runs a Python program in this process. Returns its status, its standard output and its standard error."""
    sys.argv, sys.path[0] = [str(program), *words], str(program.parent)
    sys.modules.pop("hardware", None)  # it reads the environment
    status, out, err = 0, io.StringIO(), io.StringIO()
    with (unittest.mock.patch.dict(os.environ, env, clear=True), contextlib.redirect_stdout(out),
          contextlib.redirect_stderr(err)):
        try:
            exec(compiled(program), {"__name__": "__main__", "__file__": str(program)})
        except SystemExit as end:
            status = end.code if isinstance(end.code, int) else int(end.code is not None)
        except Exception:
            status = 1
            traceback.print_exc()
    return status, out.getvalue(), err.getvalue()


@functools.lru_cache
def compiled(program):
    return compile(program.read_text(), program, "exec")


class Machine:
    """Directories, tools and the commands of a trial."""

    def __init__(self, directory):
        self.dir = pathlib.Path(directory)
        for name in ("bin", "now", "root/sys", "root/proc", "state"):
            (self.dir / name).mkdir(parents=True)
        self.known = self.dir / "known"
        # Of the other tools there are none here, so that an answer has only one source.
        self.env = {"PATH": f"{self.dir}/bin:{self.dir}/base", "PARTS_ROOT": f"{self.dir}/root",
                    "SCHED_HARDWARE": f"{self.dir}/run", "SCHED_HARDWARE_STATE": f"{self.dir}/hardware-state",
                    "PARTS_STATE": f"{self.dir}/state", "PARTS_KNOWN": str(self.known),
                    "PYTHONPYCACHEPREFIX": os.environ["PYTHONPYCACHEPREFIX"]}
        (self.dir / "base").mkdir()
        (self.dir / "base/sh").symlink_to(shutil.which("sh"))

    def tool(self, name, text):
        path = self.dir / "bin" / name
        path.write_text(text)
        path.chmod(0o755)

    def answer(self, name, text, code=0):
        """What a tool prints from now on, and its exit status: a script, because its shell need not start a program."""
        quoted = shlex.quote(text.replace("\\", "\\\\").replace("\0", "\\0000"))  # a script has no NUL
        (self.dir / "now" / name).write_text(f"printf %b {quoted}\nexit {code}\n")

    def run(self, program, *words):
        if program in started:
            status, out, err = run_here(program, words, self.env)
        else:
            process = subprocess.run([program, *words], env=self.env, capture_output=True, text=True)
            status, out, err = process.returncode, process.stdout, process.stderr
            started.add(program)
        if status != 0 or err:
            sys.exit(f"FAILED: {program} {words} ended with {status}: {err}")
        return out

    def tree(self, text):
        """The files of the kernel: lines with a path and a text."""
        shutil.rmtree(self.dir / "root")
        (self.dir / "root").mkdir()
        for line in text.splitlines():
            path, value = line.split("\t")
            path = self.dir / "root" / path.lstrip("/")
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(value + "\n")

    def collect(self, tool):
        self.run(MODULES / "collect", "disks" if tool == "smartctl" else "sensors")

    def judge(self, tool):
        lines = "".join(self.run(MODULES / "parts.d" / check) for check in CHECKS[tool]).splitlines()
        found = [line.split("\t") for line in lines if not line.startswith("seen\t")]
        self.known.write_text("".join("\t".join(line) + "\n" for line in found))
        return found


def try_tool(tool, name):
    """The findings of the last of the collections."""
    with tempfile.TemporaryDirectory() as directory:
        machine = Machine(directory)
        silent = {"summary": "--error-count", "both": "-no-"}.get(name, "--summary" if tool == "ras-mc-ctl" else "-no-")
        if tool == "mdadm":
            (machine.dir / "root/proc/mdstat").write_text("Personalities : [raid1]\nmd0 : active raid1 sda1[0] sdb1[1]\n")
        machine.tool(tool, f'#!/bin/sh\ncase "$*" in *{silent}*) exit 1 ;; esac\n. "{machine.dir}/now/answer"\n')
        last = collections(tool, [name])
        for collection in range(1, last + 1):
            text = recorded(tool, name, collection).read_text()
            machine.answer("answer", text)
            if tool in ("kernel", "ras-mc-ctl"):
                machine.tree("".join(line for line in text.splitlines(True) if line.startswith("/")))
            machine.collect(tool)
            if last > 2 or collection == last:  # what was found before matters only when the answer changes
                found = machine.judge(tool)
        return found


def try_disks(names):
    """All disks at once: what one of them answers must not change what is found on another."""
    with tempfile.TemporaryDirectory() as directory:
        machine = Machine(directory)
        machine.tool("smartctl", SMARTCTL.format(dir=machine.dir))
        devices = []
        for name in names:
            kind = "megaraid,4" if name == "megaraid" else "sat"
            devices.append({"name": f"/dev/{name}", "type": kind, "protocol": "ATA"})
        devices += [{"name": "/dev/closed", "type": "sat", "open_error": "No such device"}, {}, "x", {"name": "-x"}]
        machine.answer("scan", json.dumps({"devices": devices}))
        for collection in range(1, collections("smartctl", names) + 1):
            for name in names:
                text = recorded("smartctl", name, collection).read_text()
                try:
                    code = int(json.loads(text)["smartctl"]["exit_status"]) & 255
                except (ValueError, TypeError, KeyError):
                    code = 0
                machine.answer(name, text, code)
            machine.collect("smartctl")
            found = machine.judge("smartctl")
        return {name: of_disk(name, machine.dir / "run/smart", found) for name in names}


def of_disk(name, answers, found):
    """Findings of one disk: those with its serial number, or with its file's name where there is none."""
    ids = {f"{name}-sat", f"/dev/{name}"}
    try:
        ids.add(str(json.loads(recorded("smartctl", name, 1).read_text())["serial_number"]))
    except (ValueError, TypeError, KeyError):
        pass
    return [line for line in found if any(f":{word}:" in line[1] for word in ids)]


def oddities(value, path=()):
    """The paths of all branches below a JSON value."""
    for name, branch in value.items() if isinstance(value, dict) else enumerate(value) if isinstance(value, list) else ():
        yield path + (name,)
        yield from oddities(branch, path + (name,))


def try_odd_disks(names):
    """Good answers in which a branch, or four values, have another type than they should: nothing is found."""
    with tempfile.TemporaryDirectory() as directory:
        machine = Machine(directory)
        smart = machine.dir / "run/smart"
        smart.mkdir(parents=True)
        for name in names:
            answer = json.loads(recorded("smartctl", name, 1).read_text())
            places = [(functools.reduce(operator.getitem, path[:-1], answer), path[-1]) for path in oddities(answer)]
            values = [place for place in places if not isinstance(place[0][place[1]], (dict, list))]
            step = max(1, len(values) // 4)
            for number, group in enumerate([values[i::step] for i in range(step)] +
                                           [[place] for place in places if place not in values]):
                good = [branch[key] for branch, key in group]
                for odd in (None, "", "odd", -1, [], {}, [[]], 1e308):
                    for branch, key in group:
                        branch[key] = odd
                    (smart / f"{name}-{number}-{str(odd)[:6]}.json").write_text(json.dumps(answer))
                for (branch, key), value in zip(group, good):
                    branch[key] = value
        count = len(list(smart.iterdir()))
        found = machine.run(MODULES / "parts.d/smart").splitlines()
        return count, [f"a good disk with an odd field: {line}" for line in found if not line.startswith("seen\t")]


# Prints the chips that it was asked for; like the real one, an object for each name.
SENSORS = """#!/bin/sh
shift
for name in "${@:-all}"; do
    case $name in bare-*) printf '{\n\n}\n' ;; *) printf '{\n   "%s":{}\n}\n' "$name" ;; esac
done
"""


def try_chips():
    """sensors is not asked for the sensors of disks, which it would wake."""
    cases = (
        ("no disk", ["coretemp", "nct6775"], ["all"]),
        ("a disk", ["drivetemp", "nct6775", "bare", "coretemp", "coretemp"], ["coretemp-*", "nct6775-*"]),
        ("only disks", ["drivetemp", "drivetemp"], []),
    )
    for name, chips, wanted in cases:
        with tempfile.TemporaryDirectory() as directory:
            machine = Machine(directory)
            machine.tree("".join(f"/sys/class/hwmon/hwmon{i}/name\t{chip}\n" for i, chip in enumerate(chips)))
            machine.tool("sensors", SENSORS)
            machine.collect("sensors")
            stored = machine.dir / "run/sensors.json"
            asked = list(json.loads(stored.read_text())) if stored.exists() else []
            if asked != wanted:
                yield f"chips, {name}: sensors was asked for {asked}, not {wanted}"


def try_hanging_disk():
    """Sensors are collected while a disk hangs, and neither group forgets what answered it."""
    with tempfile.TemporaryDirectory() as directory:
        machine = Machine(directory)
        hanging, now = machine.dir / "hanging", machine.dir / "now"
        os.mkfifo(hanging)
        machine.answer("answer", "{}")
        machine.answer("scan", '{"devices": [{"name": "/dev/a", "type": "sat"}]}')
        machine.tool("smartctl", f'#!/bin/sh\ncase "$*" in *--scan-open*) . "{now}/scan" ;; esac\n'
                     f'[ ! -p "{hanging}" ] || read -r line <"{hanging}"\n. "{now}/answer"\n')
        machine.tool("sensors", f'#!/bin/sh\n. "{now}/answer"\n')
        with subprocess.Popen([MODULES / "collect", "disks"], env=machine.env, stdout=subprocess.DEVNULL) as disks:
            with open(hanging, "w", encoding="utf-8"):  # waits until smartctl hangs
                machine.collect("sensors")
                if disks.poll() is not None:
                    yield "a hanging disk: the sensors waited for it"
        for path in (hanging, now / "answer"):
            path.unlink()
        machine.collect("sensors")
        machine.collect("smartctl")
        for file, source in (("sensors", "sensors"), ("disks", "smartctl /dev/a")):
            said = (machine.dir / f"run/{file}.status").read_text()
            if f"{source}\tfailed\t1\t" not in said:
                yield f"a hanging disk: {source} answered before and not now, but {file}.status says:\n{said}"


def good_disk(name, serial, **more):
    return json.dumps({"smartctl": {"exit_status": 0}, "device": {"name": name, "type": "sat"}, "model_name": "Makro",
                       "serial_number": serial, "firmware_version": "FW42", "smart_status": {"passed": True}} | more)


def try_disks_that_go():
    """What a disk that sleeps, is unplugged or dies leaves behind."""
    with tempfile.TemporaryDirectory() as directory:
        machine = Machine(directory)
        asleep = '{"smartctl": {"exit_status": 2}, "device": {"name": "/dev/sleeps"}}'
        answers = {"backup": good_disk("/dev/backup", "B1"), "sleeps": asleep, "asleep-gone": asleep,
                   "dies": good_disk("/dev/dies", "D1", smart_status={"passed": False}),
                   "moves": good_disk("/dev/moves", "M1"), "moved": good_disk("/dev/moved", "M1"),
                   "path": good_disk("/dev/path", "P1"), "path-2": good_disk("/dev/path-2", "P1")}
        machine.tool("smartctl", SMARTCTL.format(dir=machine.dir))
        machine.tool("lsblk", f'#!/bin/sh\n. "{machine.dir}/now/lsblk"\n')

        def collect(*names):
            found = [{"name": f"/dev/{name}", "type": "sat"} for name in names]
            machine.answer("scan", json.dumps({"devices": found}))
            machine.answer("lsblk", "".join(
                f'NAME="{name}" MODEL="Makro" SERIAL="{name[0].upper()}1" REV="42" RM="0" '
                f'TRAN="{"usb" if name == "backup" else "sata"}"\n' for name in names if name != "dies"))
            for name in names:
                machine.answer(name, answers[name], 2 if answers[name] == asleep else 0)
            machine.collect("smartctl")
            return machine.run(MODULES / "inventory").splitlines()

        before = collect("backup", "sleeps", "asleep-gone", "dies", "moves", "path", "path-2")
        answers["sleeps"] = good_disk("/dev/sleeps", "S1")
        after = collect("sleeps", "moved", "path")
        health = [line[2] for line in machine.judge("smartctl")]
        collect("sleeps", "path")
        collect("sleeps", "path")
        told = (machine.dir / "run/disks.status").read_text()
        failed = {line.split("\t")[0]: line.split("\t")[3] for line in told.splitlines() if "\tfailed\t3\t" in line}
        wanted = {"smartctl /dev/asleep-gone": "the device is no longer there",
                  "smartctl /dev/dies": "the disk (Makro, serial number D1) is no longer there",
                  "smartctl /dev/path-2": "the disk (Makro, serial number P1) is no longer there"}
        slept = {line for line in before if "S1" in line}
        if failed != wanted:
            yield f"disks that go: failed are {failed}, not {wanted}"
        if len(health) != 1 or "/dev/dies (Makro, serial number D1): it fails" not in health[0]:
            yield f"disks that go: what was wrong with one of them is now {health}"
        if (not slept or slept - set(after) or "firmware of disk S1: FW42" not in after
                or "B1" in str(before) or "D1" in str(after)):
            yield f"disks that go: the inventory was {before} and is {after}"
        machine.tool("smartctl", "#!/bin/sh\necho 'UNRECOGNIZED OPTION: json'\nexit 1\n")
        shutil.rmtree(machine.dir / "hardware-state")
        machine.collect("smartctl")
        if "smartctl\tleft out" not in (machine.dir / "run/disks.status").read_text():
            yield "an old smartctl is not left out"


def what(tool, key):
    """The key without the tool's or the disk's own name."""
    parts = key.split(":")
    if tool == "smartctl":
        return ":".join(parts[2:])
    if tool == "ipmi-sel":
        return parts[1]
    if tool == "ipmi-sensors":
        return key.removeprefix("bmc:ipmi-s") and key.replace(":ipmi:", ":").replace("bmc:ipmi-sensors", "ipmi-sensors")
    return key.split(":", 1)[1].removeprefix("hwmon:")


def matches(wanted, got):
    """The key may hold colons and blanks, so any of them may be the one that ends it."""
    words = wanted.split(": ")
    return any(got.startswith(": ".join(words[:i]) + ": ") and ": ".join(words[i:]) in got
               for i in range(1, len(words) + 1))


def complaints(tool, name, wanted, found):
    lines = [f"{severity} {what(tool, key)}: {text}" for severity, key, text in found]
    rest = list(lines)
    for line in wanted:
        hit = next((got for got in rest if matches(line, got)), None)
        if hit is None:
            yield f"{tool}/{name}: wanted \"{line}\", but found: {lines or 'nothing'}"
        else:
            rest.remove(hit)
    for line in rest:
        yield f"{tool}/{name}: not wanted: \"{line}\""


def main():
    table = tomllib.loads((HERE / "answers.toml").read_text())
    bad, answers = [], 0
    for tool, cases in table.items():
        results = try_disks(list(cases)) if tool == "smartctl" else {name: try_tool(tool, name) for name in cases}
        for name, wanted in cases.items():
            bad += complaints(tool, name, wanted, results[name])
            answers += 1
        kept = {path.name.removesuffix(".json").split(".")[0] for path in (HERE / "answers" / tool).iterdir()}
        bad += [f"{tool}/{name}: not in the table" for name in kept - set(cases)]
    odd, found = try_odd_disks(["ata-good", "ssd-good", "nvme-good", "sas-good"])
    bad += found[:20] + [*try_chips(), *try_hanging_disk(), *try_disks_that_go()]
    print("\n".join(bad) or f"{answers} recorded answers, {odd} odd ones")
    sys.exit(bool(bad))


if __name__ == "__main__":
    with tempfile.TemporaryDirectory() as cache:
        os.environ["PYTHONPYCACHEPREFIX"] = sys.pycache_prefix = cache
        py_compile.compile(MODULES / "parts.d/hardware.py")  # the checks would compile it each time
        main()
