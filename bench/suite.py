"""Shared by bench, syscalls and soak: the build, daemons in scratch suite directories, connections."""

import contextlib
import json
import os
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "tests/client"))
from scratch import ROOT, wait_for  # noqa: E402

MOST_DESCRIPTORS = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
TERMINATORS = ("__over__ ", "__timeout__", "__busy__", "__unsupported__", "Good-bye.")
INTERNAL = "status modcntl debug quit restart lock unlock show hello login ipset send res_data res_send"
CLIENT_PACKAGES = ("libcli11-dev", "libmicrohttpd-dev", "pkgconf", "nlohmann-json3-dev", "libedit-dev", "libbsd-dev",
                   "libmd-dev")
EXTERNAL = ("allmodcall parts prognosis diag devconf confchg analysis qmx ehello "
            "nothing oneline stream sleep mix job")


signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that started processes are ended too


def build(directory=ROOT / "build-bench"):
    """Makes the release build with the benchmark programs and returns its directory."""
    if str(directory).startswith("-"):
        sys.exit(sys.modules["__main__"].__doc__)
    install("cmake", "g++", "ninja-build", "libbenchmark-dev", *CLIENT_PACKAGES)
    if shutil.which("ninja"):
        os.environ.setdefault("CMAKE_GENERATOR", "Ninja")  # an existing tree keeps its generator
    kind = ("-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DSCHED_BENCH=ON")
    subprocess.run(["cmake", "-S", ROOT, "-B", directory, *kind], check=True, stdout=subprocess.DEVNULL)
    jobs = f"-j{len(os.sched_getaffinity(0))}"
    subprocess.run(["cmake", "--build", directory, jobs, "--target", "bench"], check=True, stdout=sys.stderr)
    return Path(directory).resolve()


def install(*packages):
    """Installs the Debian packages that are missing; does nothing where there is no dpkg."""
    if not shutil.which("dpkg-query"):
        return
    states = subprocess.run(["dpkg-query", "-W", "-f", "${Package} ${db:Status-Status}\n", *packages],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout.splitlines()
    packages = [name for name in packages if f"{name} installed" not in states]
    if not packages:
        return
    apt = ["env", "DEBIAN_FRONTEND=noninteractive", "apt-get", "-qq", "-o", "DPkg::Lock::Timeout=300"]
    if os.geteuid() != 0:
        apt = ["sudo", "-n", *apt]
    for words in (["update"], ["install", "--yes", *packages]):
        subprocess.run([*apt, *words], check=True, stdin=subprocess.DEVNULL, stdout=sys.stderr)


def stop(process):
    """Ends a process that we started and waits for it."""
    process.terminate()
    try:
        process.wait(10)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def measure(build_dir, *words):
    """One run of the load program."""
    command = [build_dir / "bench/load", *map(str, words)]
    return json.loads(subprocess.run(command, stdout=subprocess.PIPE, check=True, timeout=300).stdout)


def free_port(address="127.0.0.1"):
    with socket.socket() as probe:
        probe.bind((address, 0))
        return probe.getsockname()[1]


class Daemon:
    """A scheduler without supervisor in a scratch suite directory; the directory is removed at its end."""

    def __init__(self, build_dir, module, jobs="", prefix=(), descriptors=1024, address="127.0.0.1"):
        self.dir, self.address = Path(tempfile.mkdtemp(prefix="sched-bench-")), address
        self.port = free_port(address)
        self.pipe, self.errors, self.pid = self.dir / "pipe", self.dir / "stderr", None
        env = dict(os.environ, VGD_PIPE=str(self.pipe))
        for name in ("bin", "config", "temp", "update", "data", "log"):
            (self.dir / name).mkdir()
            env[f"VGD_{name}"] = str(self.dir / name)
        shutil.copy(module, self.dir / "bin/module")
        os.mkfifo(self.pipe)
        modules = [f"{word} module on 60\n" for word in EXTERNAL.split()] + ["brief module on 1\n"]
        modules += [f"{word} - on 0\n" for word in INTERNAL.split()]
        (self.dir / "config/vgd_modules").write_text("".join(modules))
        (self.dir / "config/timer_jobs").write_text(jobs)
        (self.dir / "config/common.ini").write_text(f"[sched]\nbound_ip_address = {address}\n")
        command = [*prefix, Path(build_dir) / "sched", "-d", "A", "-N", "0", "-p", str(self.port)]
        with self.errors.open("w") as errors:
            self.process = subprocess.Popen(command, env=env, cwd=self.dir, stdin=subprocess.DEVNULL,
                                            stdout=subprocess.DEVNULL, stderr=errors)
        try:
            wait_for(self.listens, "the daemon does not listen")
            self.pid = int((self.dir / "log/sched.pid").read_text())
            wait_for(lambda: self.sockets() == 1, "the first connection does not end")
            resource.prlimit(self.pid, resource.RLIMIT_NOFILE, (descriptors, MOST_DESCRIPTORS))
            resource.prlimit(self.pid, resource.RLIMIT_CORE, (0, 0))  # for modules that end by a signal
        except BaseException:
            self.close()
            raise

    def listens(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"the daemon ended with {self.process.returncode}: {self.errors.read_text()}")
        with contextlib.suppress(OSError):
            Hmi(self.port, address=self.address).close()
            return True
        return False

    def rss_mb(self):
        return status_field(f"/proc/{self.pid}/status", "VmRSS:") / 1024

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def sockets(self):
        count = 0
        for link in Path(f"/proc/{self.pid}/fd").iterdir():
            with contextlib.suppress(OSError):  # closed meanwhile
                count += os.readlink(link).startswith("socket:")
        return count

    def threads(self):
        return set(map(int, os.listdir(f"/proc/{self.pid}/task")))

    def wakeups(self):
        return sum(status_field(f"/proc/{self.pid}/task/{tid}/status", "voluntary") for tid in self.threads())

    def close(self):
        if self.pid not in (None, self.process.pid) and self.process.poll() is None:
            os.kill(self.pid, signal.SIGTERM)  # under a tracer, which ends when the daemon does
        stop(self.process)
        shutil.rmtree(self.dir)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def status_field(path, field):
    lines = Path(path).read_text().splitlines()
    return next(int(line.split()[1]) for line in lines if line.startswith(field))


class Hmi:
    """One connection. An answer is the list of its lines; the last one is the terminating line."""

    def __init__(self, port, timeout=120, address="127.0.0.1"):
        self.socket = socket.create_connection((address, port), timeout)
        self.reader = self.socket.makefile("rb", 262144)

    def close(self):
        self.reader.close()
        self.socket.close()

    def send(self, *words):
        self.socket.sendall("\t".join(map(str, words)).encode() + b"\r\n")

    def answer(self):
        lines = [""]
        while not lines[-1].startswith(TERMINATORS):
            lines.append(self.reader.readline().decode("latin-1"))
            if not lines[-1]:
                raise ConnectionError(f"connection ended after {lines[-2]!r}")
        return lines[1:]

    def command(self, *words):
        self.send(*words)
        return self.answer()
