"""A machine that was made up, for the module parts: 24 disks, 60 sensors of a BMC, 2 arrays."""

import contextlib
import json
import os
import subprocess
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
DISKS, SENSORS, ARRAYS = 24, 60, 2


def disk(name):
    attributes = [{"id": number, "name": "Attribute", "value": 100, "worst": 100, "thresh": 10, "when_failed": "",
                   "flags": {"prefailure": True}, "raw": {"value": 0, "string": "0"}}
                  for number in (1, 3, 4, 5, 7, 9, 10, 12, 187, 188, 190, 194, 197, 198, 199)]
    return {"smartctl": {"exit_status": 0}, "device": {"name": f"/dev/{name}", "type": "sat", "protocol": "ATA"},
            "model_name": "Disk 4000", "serial_number": f"S{name}", "rotation_rate": 7200,
            "smart_support": {"available": True, "enabled": True}, "smart_status": {"passed": True},
            "temperature": {"current": 31}, "ata_smart_attributes": {"table": attributes}}


class Machine:
    def __init__(self, directory):
        self.dir = directory
        for name in ("tools", "disks", "config", "data", "temp", "log"):
            (directory / name).mkdir()
        names = [f"sd{chr(ord('a') + number)}" for number in range(DISKS)]
        for name in names:
            (directory / "disks" / name).write_text(json.dumps(disk(name)))
        (directory / "disks/scan").write_text(json.dumps({"devices": [{"name": f"/dev/{name}", "type": "sat"}
                                                                      for name in names]}))
        (directory / "ipmi").write_text("ID,Name,Type,State,Reading,Units,Event\n" + "".join(
            f"{number},Sensor {number},Temperature,Nominal,{30 + number / 10:.2f},C,'OK'\n" for number in range(SENSORS)))
        for number in range(ARRAYS):
            md = directory / f"root/sys/block/md{number}/md"
            md.mkdir(parents=True)
            for file, text in (("level", "raid1"), ("degraded", "0"), ("array_state", "clean"), ("sync_action", "idle")):
                (md / file).write_text(text)
        (directory / "root/proc").mkdir()
        self.tool("smartctl", f'for name; do :; done\ncase "$*" in *--scan*) name=scan ;; esac\n'
                              f'cat "{directory}/disks/${{name##*/}}"')
        self.tool("ipmi-sensors", f'cat "{directory}/ipmi"')
        self.tool("mdadm", "printf 'MD_LEVEL=raid1\\nMD_DEVICES=2\\nMD_DEVICE_a_ROLE=0\\nMD_DEVICE_b_ROLE=1\\n'")
        for name in ("sensors", "ipmi-sel", "ras-mc-ctl", "dmidecode"):
            self.tool(name, "exit 1")
        self.env = dict(os.environ, PATH=f"{directory}/tools:{os.environ['PATH']}", PARTS_ROOT=f"{directory}/root",
                        SCHED_HARDWARE=f"{directory}/run", SCHED_HARDWARE_STATE=f"{directory}/state",
                        VGD_bin=f"{ROOT}/modules", VGD_PIPE=f"{directory}/none",
                        **{f"VGD_{name}": f"{directory}/{name}" for name in ("config", "data", "temp", "log")})
        subprocess.run([ROOT / "modules/collect"], env=self.env, check=True, stdout=subprocess.DEVNULL)

    def tool(self, name, text):
        path = self.dir / "tools" / name
        path.write_text(f"#!/bin/sh\n{text}\n")
        path.chmod(0o755)

    def seconds(self, word):
        """How long "parts WORD" takes. It must have looked at all of the machine and found nothing."""
        start = time.monotonic()
        answer = subprocess.run([ROOT / "modules/parts", word], env=self.env, check=True, stdout=subprocess.PIPE, text=True)
        took = time.monotonic() - start
        if word == "status":
            for wanted in (f"{DISKS} disks", f"{SENSORS} temperatures", f"{ARRAYS} arrays"):
                if wanted not in answer.stdout:
                    raise RuntimeError(f"parts status does not say {wanted!r}: {answer.stdout}")
        return took


@contextlib.contextmanager
def machine_of_files():
    with tempfile.TemporaryDirectory(prefix="sched-bench-") as directory:
        yield Machine(Path(directory))
