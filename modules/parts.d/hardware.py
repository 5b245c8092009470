"""What the checks share: the collected answers, the sensors in them, and the lines that a check prints.

An answer may lack any field, and a field may have any type: what is not understood is no value, never an alarm.
parts sets SCHED_HARDWARE (the answers), PARTS_KNOWN (keys found the last time) and PARTS_STATE (a directory).
"""

import collections
import functools
import json
import math
import os
import re

ANSWERS = os.environ.get("SCHED_HARDWARE", "/run/sched-hardware")
GOOD_SIDE = 0.05  # of the limit: how far a value must return before its condition counts as gone
# Readings outside are no measurement: -128 and 127 degrees, 65535 turns and the like mean that nothing is connected.
SANE = {"temperature": (-60, 126.5), "fan": (0, 60000), "voltage": (-500, 500), "power": (0, 1e6)}
UNITS = {"C": "degrees Celsius", "RPM": "turns a minute"}


# ---- what a check prints --------------------------------------------------------------------------------------------

def text(value, longest=80):
    """A value as printable text."""
    return re.sub(r"[^ -~]+|\s+", " ", str(value)).strip()[:longest] if isinstance(value, (str, int, float)) else ""


def finding(severity, key, *words):
    print(f"{severity}\t{text(key, 200)}\t{text(' '.join(words), 400)}")


def fault(key, *words):
    """Broken: an error event, and "parts status" tells it."""
    finding("fault", key, *words)


def wear(key, *words):
    """Works, but not as it should: a warning, and "parts prevstatus" tells it."""
    finding("wear", key, *words)


def seen(count, what):
    """How many the check looked at; of equal names parts adds them up."""
    finding("seen", what, str(count))


# ---- values ---------------------------------------------------------------------------------------------------------

def number(value):
    """The number that a value is or, as a text, begins with; None when it is none."""
    if isinstance(value, str):
        found = re.match(r"\s*([-+]?\d[\d,]*(?:\.\d+)?)(?![\w.])", value)
        value = float(found.group(1).replace(",", "")) if found and len(found.group(1)) < 40 else None
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        return None
    try:
        value = float(value)
    except OverflowError:
        return None
    return value if math.isfinite(value) and abs(value) < 1e15 else None


def whole(value):
    value = number(value)
    return int(value) if value is not None and value == int(value) else None


def count(value):
    """A number of sectors or errors. More than 32 bits, or all of them set, are packed or not maintained."""
    value = whole(value)
    return value if value is not None and 0 <= value < 0xFFFFFFFF else None


def at(value, *names):
    """The field below these names; None when there is none."""
    for name in names:
        value = value.get(name) if isinstance(value, dict) else None
    return value


def listed(value):
    return [item for item in value if isinstance(item, dict)] if isinstance(value, list) else []


def shown(value):
    return f"{value:.2f}".rstrip("0").rstrip(".")


# ---- answers --------------------------------------------------------------------------------------------------------

def read(name):
    try:
        with open(os.path.join(ANSWERS, name), encoding="utf-8", errors="replace") as file:
            return file.read()
    except OSError:
        return ""


def files(directory, suffix):
    """Names of the answers in a directory, sorted."""
    try:
        return sorted(name for name in os.listdir(os.path.join(ANSWERS, directory)) if name.endswith(suffix))
    except OSError:
        return []


def answer(name):
    """A JSON answer; None when it cannot be read. For a value that it cannot read, sensors writes nan or a line with an
    error, or leaves a comma behind the last value."""
    try:
        content = re.sub(r"^ERROR: .*\n", "", read(name), flags=re.M)
        content = re.sub(r",(?=\s*})", "", re.sub(r"(:\s*)-?nan\b", r"\1null", content))
        return json.JSONDecoder().raw_decode(content.strip())[0]  # something may follow
    except (ValueError, RecursionError):
        return None


@functools.lru_cache
def kernel(name="kernel.txt"):
    """Files of the kernel by path."""
    return dict(line.split("\t", 1) for line in read(name).splitlines() if "\t" in line)


def slot(name):
    """The slot of a block device, from its enclosure: " in Slot 03", or nothing."""
    prefix = f"/sys/block/{name}/device/enclosure_device:"
    return next((f" in {text(path[len(prefix):])}" for path in kernel() if path.startswith(prefix)), "")


def block_device(name):
    """A block device for people: its name, slot, model and serial number, as far as they are known."""
    whole_disks = {f"/dev/{re.sub(part, '', name)}" for part in ("$", r"\d+$", r"n\d+(p\d+)?$")}
    for file in files("smart", ".json"):
        disk = answer("smart/" + file)
        behind_controller = "," in text(at(disk, "device", "type"))
        if text(at(disk, "device", "name")) in whole_disks and not behind_controller:
            model = text(disk.get("model_name")) or text(disk.get("scsi_model_name")) or "unknown model"
            return f"{name}{slot(name)} ({model}, serial number {text(disk.get('serial_number')) or 'unknown'})"
    return name + slot(name)


def known():
    """The keys that were found the last time."""
    try:
        with open(os.environ.get("PARTS_KNOWN", "/dev/null"), encoding="utf-8", errors="replace") as file:
            return {line.split("\t")[1] for line in file if line.count("\t") >= 2}
    except OSError:
        return set()


# ---- sensors --------------------------------------------------------------------------------------------------------

LIMITS = {"crit": ("uc", "lc", "unr", "lnr"), "warn": ("unc", "lnc")}


class Sensor:
    """One sensor. limits: by name (uc, unc, lnc, lc for upper and lower, critical and not). level: the BMC's own
    judgement, "crit", "warn" or ""; None where the limits have to tell."""

    def __init__(self, key, name, kind, value, limits, level=None, events=(), unit=""):
        self.key, self.name, self.kind, self.level, self.events, self.unit = key, name, kind, level, events, unit
        lowest, highest = SANE.get(kind, (-1e12, 1e12))
        self.value = value if value is not None and lowest <= value <= highest else None
        self.absurd = value is not None and self.value is None
        self.broken, self.has_limits, self.state_known = False, False, False
        # A limit of 0 is one that nobody set.
        self.limits = {which: limit for which, limit in limits.items() if limit}
        for outer, inner, sign in (("unr", "uc", 1), ("lnr", "lc", -1)):  # some boards have senseless outer limits
            if {outer, inner} <= set(self.limits) and sign * (self.limits[outer] - self.limits[inner]) < 0:
                del self.limits[outer]

    def beyond(self, which):
        limit = self.limits.get(which)
        if self.value is None or limit is None:
            return False
        return self.value >= limit if which[0] == "u" else self.value < limit or (
            self.level is not None and self.value <= limit)

    def back(self, which):
        """Whether the value is clearly on the good side of the limit."""
        limit = self.limits.get(which)
        if self.value is None or limit is None:
            return True
        margin = abs(limit) * GOOD_SIDE
        return self.value <= limit - margin if which[0] == "u" else self.value >= limit + margin

    def violated(self, level):
        """The name of the limit that the value is beyond at this level ("crit", "warn"); "" when it is none."""
        return next((name for name in LIMITS[level] if self.beyond(name)), "")


TYPES = {
    "temperatures": ("temperature",),
    "fans": ("fan", "cooling device"),
    "voltages": ("voltage",),
    "power": ("power supply", "power unit", "current"),
    "memory": ("memory",),
    "disks": ("drive slot", "drive bay", "drive slot / bay", "drive slot (bay)"),
}
KINDS = {"temperature": "temperature", "fan": "fan", "voltage": "voltage"}
COLUMNS = ["id", "name", "type", "state", "reading", "units", "event"]
LIMIT_COLUMNS = {"lower nr": "lnr", "lower c": "lc", "lower nc": "lnc", "upper nc": "unc", "upper c": "uc",
                 "upper nr": "unr"}
STATES = ("nominal", "warning", "critical", "n/a")


def rows(name, columns):
    """Rows of a CSV answer as dictionaries, and the number of lines that are none. Name and last column may hold
    commas; the state tells where the name ends."""
    found, bad = [], 0
    for line in read(name).splitlines():
        fields = [field.strip() for field in line.split(",")]
        if columns is COLUMNS and len(fields) >= len(COLUMNS) + len(LIMIT_COLUMNS):  # the header is missing
            columns = COLUMNS[:-1] + list(LIMIT_COLUMNS) + COLUMNS[-1:]
        if fields[0].lower() == "id":
            columns = [field.lower() for field in fields]
        elif len(fields) < len(columns) or not fields[0].isdigit():
            bad += bool(line.strip())
        else:
            while (len(fields) > len(columns) and {"name", "state"} <= set(columns)
                   and fields[columns.index("state")].lower() not in STATES):
                place = columns.index("name")
                fields[place:place + 2] = [", ".join(fields[place:place + 2])]
            fields[len(columns) - 1:] = [", ".join(fields[len(columns) - 1:])]
            found.append(dict(zip(columns, fields)))
    return found, bad


def of_bmc(suffix=""):
    """The BMC's sensors by key."""
    sensors = {}
    found = rows("ipmi-sensors.csv" + suffix, COLUMNS)[0]
    names = collections.Counter(row.get("name") for row in found)
    for row in found:
        name = text(row.get("name", "")) or "sensor"
        key = f"ipmi:{name}" if f"ipmi:{name}" not in sensors else f"ipmi:{name}:{row['id']}"
        kind = row.get("type", "").lower()
        level = {"critical": "crit", "warning": "warn"}.get(row.get("state", "").lower(), "")
        limits = {short: number(row[column]) for column, short in LIMIT_COLUMNS.items() if column in row}
        events = [text(event) for event in re.findall(r"'([^']*)'", row.get("event", "")) or [row.get("event", "")]]
        name += f" (ID {row['id']})" if names[row.get("name")] > 1 else ""
        sensors[key] = Sensor(key, name, KINDS.get(kind, kind), number(row.get("reading", "")), limits, level, events,
                              text(row.get("units", "")))
        sensors[key].has_limits = any(limit is not None for limit in limits.values())
        sensors[key].state_known = row.get("state", "").lower() in ("nominal", "warning", "critical")
    return sensors


def of_kernel(suffix="", directory=""):
    """The sensors of the kernel's drivers, by key: as lm-sensors scales them or, without it, from /sys."""
    chips = answer(f"{directory}sensors.json{suffix}")
    if isinstance(chips, dict) and any(isinstance(chip, dict) for chip in chips.values()):
        features = [(f"{chip}/{label}", f"{chip} {label}", 1, values)
                    for chip, content in chips.items() if isinstance(content, dict)
                    for label, values in content.items() if isinstance(values, dict)]
    else:
        features = features_of_sys(kernel(f"{directory}kernel.txt{suffix}"))
    sensors = {}
    for key, name, scale, values in features:
        for item, value in values.items():
            found = re.fullmatch(r"(temp|fan|in)(\d+)_input", str(item))
            value = number(value)
            if found and value is not None and usable(name, found.group(1) + found.group(2), values):
                kind = {"temp": "temperature", "fan": "fan", "in": "voltage"}[found.group(1)]
                scaled = scale if kind != "fan" else 1
                limits = limits_of(name, found.group(1) + found.group(2), values, scaled)
                key = f"hwmon:{text(key, 120)}"
                sensors[key] = Sensor(key, text(name), kind, value / scaled, limits)
                sensors[key].broken = kind == "fan" and number(values.get(f"fan{found.group(2)}_fault")) == 1
    return sensors


def usable(name, what, values):
    """Whether something is connected. Board makers leave unused inputs of a chip open."""
    return not re.search(r" AUXTIN\d*$", name) and not (what.startswith("temp") and number(values.get(what + "_fault")))


def of_kernel_readable():
    """Whether lm-sensors' answer, where there is one, can be read or /sys has the same values."""
    return not read("sensors.json").strip() or isinstance(answer("sensors.json"), dict) or bool(of_kernel())


def features_of_sys(files):
    features = {}
    for path, value in files.items():
        found = re.fullmatch(r"/sys/class/hwmon/(hwmon\d+)/(temp|fan|in)(\d+)_(\w+)", path)
        if found:
            chip, what = found.group(1), found.group(2) + found.group(3)
            features.setdefault((chip, what), {})[f"{what}_{found.group(4)}"] = value
    return [(f"{files.get(f'/sys/class/hwmon/{chip}/name', chip)}-{chip}/{what}",
             f"{files.get(f'/sys/class/hwmon/{chip}/name', chip)} {values.get(f'{what}_label', what)}", 1000, values)
            for (chip, what), values in features.items()]


def limits_of(name, what, values, scale):
    """Only limits that makers set on purpose: chips of mainboards hold anything in those of fans' alarms and voltages."""
    wanted = {"uc": "crit", "lc": "lcrit"}
    if what.startswith("temp") and not name.startswith("k10temp"):  # its driver reports 70 for every processor
        wanted["unc"] = "max"
    elif what.startswith("fan"):
        wanted = {"lc": "min"}
    limits = {which: number(values.get(f"{what}_{limit}")) for which, limit in wanted.items()}
    # Where there is no limit, drivers tell 0 or less, or what no part would survive, and firmware tells a temperature
    # that any part has.
    lowest = {"uc": 40, "unc": 40} if what.startswith("temp") else {}
    limits = {which: limit / scale for which, limit in limits.items() if limit is not None and limit > 0}
    return {which: limit for which, limit in limits.items() if limit >= lowest.get(which, 0)}


ADVICE = {
    "temperature": "check fans, filters and the air's way",
    "fan": "check that it turns and replace it",
    "voltage": "check the power supply and the board",
    "power": "check the load and the supply",
}


def judge_reading(sensor, before, told):
    """A value beyond a limit counts when the last collection saw it too, and until it is clearly back."""
    advice = ADVICE.get(sensor.kind, "see the maker's manual")
    unit = sensor.unit or {"temperature": "C", "fan": "RPM", "voltage": "V"}.get(sensor.kind, "")
    value = f"{sensor.name}: {shown(sensor.value)} {UNITS.get(unit, unit)}".strip()
    for level, say in (("crit", fault), ("warn", wear)):
        key = f"{sensor.kind}:{sensor.key}:{level}"
        which = sensor.violated(level)
        if sensor.level is not None:
            bad = sensor.level in ("crit", level) and (bool(which) or not sensor.has_limits)
            was_bad = before is not None and before.value is not None and before.level in ("crit", level)
        else:
            bad = bool(which)
            was_bad = before is not None and bool(before.violated(level) or before.violated("crit"))
        if not bad and key in told:
            which = next((name for name in LIMITS[level] if not sensor.back(name)), "")
            bad = bool(which)
        if bad and (was_bad or key in told):
            limit = f"{'' if level == 'warn' else 'critical '}limit {shown(sensor.limits[which])}" if which else \
                f"{'critical' if level == 'crit' else 'warning'} for the BMC"
            say(key, f"{value}, {limit}; {advice}")
            return


NOT_THERE = re.compile(r"absent|not present|removed|not installed|\bempty\b|no presence|terminator presence", re.I)
LOST = re.compile(r"redundancy lost|from redundant|non-redundant: ?insufficient", re.I)
# "Non-redundant:Sufficient Resources from Insufficient Resources" is a machine that never had a second part.
HARMLESS = re.compile(r"ok|n/a|unknown|no reading|presence detected|.*threshold|identify status .*|"
                      r"power supply inactive|non-redundant.* from insufficient.*|entity absent|terminator presence.*|"
                      r"slot.* is disabled|transition to (on line|off duty|power save)|pxe server not found|"
                      r"lower .* going high|upper .* going low", re.I)  # a value that comes back
# Types that are about the use of the machine. Of OF_USE only the warnings are left out, of ONLY_OF_USE everything.
OF_USE = ("system event", "version change", "button/switch", "os critical stop")
ONLY_OF_USE = ("session audit", "platform security violation attempt", "system boot initiated", "os boot",
               "system acpi power state")


def present(sensor):
    return any("presence detected" in event.lower() for event in sensor.events)


def worth_telling(kind, state, event):
    """Whether an event of a BMC's sensor is about the hardware. kind: sensor type; state: "warning" or "critical"."""
    of_use = kind in ONLY_OF_USE or (state == "warning" and kind in OF_USE)
    return bool(event) and not HARMLESS.fullmatch(event) and not of_use


def harmful(sensor):
    """The events of a sensor that say what is wrong."""
    slot_empty = sensor.kind in TYPES["disks"] and "State Deasserted" in sensor.events
    if slot_empty or any(map(NOT_THERE.search, sensor.events)):
        return []
    state = {"warn": "warning", "crit": "critical"}.get(sensor.level, "")
    return [event for event in sensor.events if worth_telling(sensor.kind, state, event)]


def judge_events(sensor, check, gone):
    """Judges a sensor that reports events. An empty slot, or a state that the BMC does not know, is no fault. gone: the
    part was there in an earlier collection and is absent now."""
    key, what = f"{check}:{sensor.key}", f"{sensor.name}: {', '.join(sensor.events)}"
    if any(map(LOST.search, sensor.events)):
        fault(f"{key}:redundancy", f"{what}; find the part that is missing or without power")
    elif gone:
        fault(f"{key}:absent", f"{sensor.name}: was there before and is absent now; put it back, or clear this")
    elif sensor.level == "crit" and harmful(sensor):
        fault(f"{key}:crit", f"{what}; see the BMC's log")
    elif sensor.level == "warn" and harmful(sensor):
        wear(f"{key}:warn", f"{what}; see the BMC's log")


def parts_there(check, now):
    """The keys of the parts that were there in any collection before this one; now: those of this one."""
    path = os.path.join(os.environ.get("PARTS_STATE", ""), check + ".there")
    there = set()
    try:
        with open(path, encoding="utf-8") as file:
            there = set(file.read().splitlines())
    except OSError:
        pass
    if now - there and os.environ.get("PARTS_STATE"):
        with open(path + ".new", "w", encoding="utf-8") as file:
            file.write("".join(sorted(key + "\n" for key in there | now)))
        os.replace(path + ".new", path)
    return there


def turning(sensors):
    return {sensor.key for sensor in sensors.values() if sensor.kind == "fan" and sensor.value}


def sensors(check, of_type=None):
    """The whole check of a kind of sensors. of_type: tells whether a BMC's sensor type belongs to the check."""
    of_type = of_type or (lambda kind: kind in TYPES[check])
    seen(sensors_of_bmc(check, of_type, known()) + sensors_of_board(check, known()), check)


def sensors_of_bmc(check, of_type, told):
    """Judges the sensors of the BMC. Returns their number."""
    before = of_bmc(".1")
    mine = [sensor for sensor in of_bmc().values() if of_type(sensor.kind)]
    was_there = parts_there(check, {sensor.key for sensor in mine if present(sensor)}) if check == "power" else set()
    for sensor in mine:
        last = before.get(sensor.key)
        if not sensor.state_known and sensor.value is None and last is not None:
            # A busy BMC cannot read a sensor now and then. Its last answer is valid for one more collection.
            sensor, last = last, None
        words = [event for event in sensor.events if not re.fullmatch(r"|ok|n/a|[0-9a-f]+h|.*threshold", event, re.I)]
        # Without limits the state is that of the words, which may be harmless ones.
        if sensor.value is not None and not (set(words) & set(harmful(sensor)) if sensor.has_limits else words):
            judge_reading(sensor, last, told)
        elif not sensor.absurd:
            gone = sensor.key in was_there and not present(sensor) and (f"{check}:{sensor.key}:absent" in told or (
                last is not None and not any(present(answer) or not answer.state_known for answer in (sensor, last))))
            judge_events(sensor, check, gone)
    return sum(sensor.value is not None or sensor.level is not None for sensor in mine)


def sensors_of_board(check, told):
    """The same for the sensors of the kernel's drivers. A fan that never turned is a connector without a fan."""
    kind = {"temperatures": "temperature", "fans": "fan", "voltages": "voltage"}.get(check)
    now, before = of_kernel(), of_kernel(".1")
    mine = [sensor for sensor in now.values() if sensor.kind == kind]
    if check == "fans":
        fans = parts_there(check, turning(now)) | turning(now) | turning(before) | turning(of_kernel("", "first/"))
        mine = [sensor for sensor in mine if sensor.broken or sensor.key in fans]
    for sensor in mine:
        last = before.get(sensor.key)
        if sensor.broken and last is not None and last.broken:
            fault(f"fan:{sensor.key}:fault", f"{sensor.name}: the chip reports a broken fan; replace it")
        elif sensor.value is not None:
            judge_reading(sensor, last, told)
    return sum(sensor.value is not None for sensor in mine)
