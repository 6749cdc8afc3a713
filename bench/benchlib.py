"""What the benchmarks share: the reference file service as a child process,
commands timed under /usr/bin/time -v, source files and their digests, and the
description of the machine."""

import hashlib
import json
import os
import platform
import re
import signal
import statistics
import subprocess
import sys
import threading
import time
import urllib.request

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "fileservice"))
from ztfileservice.launcher import ServiceProcess  # noqa: E402

MIB = 1024 * 1024


def log(text):
    print(text, file=sys.stderr, flush=True)


class Service(ServiceProcess):
    """The reference file service as a child process, on a free loopback port."""

    def __init__(self, root, logfile, chunk_size=None, options=()):
        chunk = ["--chunk-size", str(chunk_size)] if chunk_size else []
        super().__init__(root, logfile, chunk + list(options))
        self.logfile = logfile
        self.start()

    def cpu_seconds(self):
        """User and system CPU the service has used so far."""
        with open("/proc/%d/stat" % self.process.pid) as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def post(self, path, body):
        request = urllib.request.Request(self.url + path, data=json.dumps(body).encode(),
                                         headers={"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=120) as answer:
            reply = json.load(answer)
        if reply.get("status") != "success":
            raise RuntimeError("%s answered %r" % (path, reply))
        return reply["result"]


class DiskWatch:
    """The highest disk space that the files under some folders held at once,
    sampled every 10 ms while a command runs (a context manager)."""

    def __init__(self, *folders, interval=0.01):
        self.folders = folders
        self.interval = interval
        self.peak = 0
        self._done = threading.Event()
        self._thread = threading.Thread(target=self._watch, daemon=True)

    def held(self):
        total = 0
        for folder in self.folders:
            for base, _, files in os.walk(folder):
                for name in files:
                    try:
                        total += os.lstat(os.path.join(base, name)).st_blocks * 512
                    except FileNotFoundError:
                        pass  # removed while counted
        return total

    def _watch(self):
        while not self._done.is_set():
            self.peak = max(self.peak, self.held())
            self._done.wait(self.interval)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._done.set()
        self._thread.join()
        self.peak = max(self.peak, self.held())


def parse_time(path):
    """Wall, CPU seconds and peak RSS (KiB) from a /usr/bin/time -v report."""
    text = open(path).read()
    def field(name):
        match = re.search(r"^\s*%s:\s*(.+)$" % re.escape(name), text, re.M)
        return match.group(1).strip() if match else None
    wall = 0.0
    for part in field("Elapsed (wall clock) time (h:mm:ss or m:ss)").split(":"):
        wall = wall * 60 + float(part)
    cpu = float(field("User time (seconds)")) + float(field("System time (seconds)"))
    return wall, cpu, int(field("Maximum resident set size (kbytes)"))


def measure(name, group, command, size, workdir, env=None, check=None, timeout=None):
    """Runs command under /usr/bin/time -v; check() verifies what it made. A
    command still running after timeout seconds is killed and its row failed."""
    subprocess.run(["sync"], check=False)  # earlier writes must not land on this run
    report = os.path.join(workdir, "time.txt")
    shown = command if len(command) <= 12 else command[:10] + ["... (%d more)" % (len(command) - 10)]
    log("measuring %s: %s" % (name, " ".join(shown)))
    row = {"name": name, "group": group, "command": " ".join(command), "ok": False,
           "wall": None, "cpu": None, "rss": None, "rate": None, "note": "", "size": size}
    started = time.monotonic()
    process = subprocess.Popen(["/usr/bin/time", "-v", "-o", report] + command, env=env,
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, start_new_session=True)
    try:
        _, said = process.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        if os.path.exists(report):
            os.remove(report)
        row["wall"] = time.monotonic() - started
        row["note"] = "timed out after %.0f s" % timeout
        log("  failed: " + row["note"])
        return row
    if os.path.exists(report):
        row["wall"], row["cpu"], row["rss"] = parse_time(report)
        os.remove(report)
        row["rate"] = size / MIB / row["wall"] if row["wall"] > 0 else None
    if process.returncode != 0:
        said = said.decode(errors="replace").strip().splitlines()
        row["note"] = "exit %d%s" % (process.returncode, ": " + said[-1] if said else "")
        log("  failed: " + row["note"])
        return row
    try:
        row["ok"] = check() if check else True
        if not row["ok"]:
            row["note"] = "bytes differ"
    except Exception as error:  # a missing output file and the like
        row["note"] = str(error)
    log("  %s" % ("ok, %.2f s" % row["wall"] if row["ok"] else "FAILED: " + row["note"]))
    return row


def combine(runs):
    """One row for several runs of a command: median time, highest peak memory."""
    row = dict(runs[0])
    good = [r for r in runs if r["ok"] and r["wall"]]
    row["ok"] = len(good) == len(runs)
    row["runs"] = len(runs)
    if not row["ok"]:
        row["note"] = next((r["note"] for r in runs if not r["ok"]), "failed")
    if good:
        for extra in ("service_cpu", "peak_disk"):
            if all(extra in r for r in good):
                row[extra] = statistics.median(r[extra] for r in good)
        row["wall"] = statistics.median(r["wall"] for r in good)
        row["cpu"] = statistics.median(r["cpu"] for r in good)
        row["rss"] = max(r["rss"] for r in good)
        row["rate"] = row["size"] / MIB / row["wall"]
    return row


def sha256_of(path):
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        while block := file.read(8 * MIB):
            digest.update(block)
    return digest.hexdigest()


def make_source(path, size):
    digest = hashlib.sha256()
    with open(path, "wb") as file:
        left = size
        while left > 0:
            block = os.urandom(min(left, 8 * MIB))
            file.write(block)
            digest.update(block)
            left -= len(block)
    return digest.hexdigest()


def same_file(path, digest, remove=True):
    def check():
        good = sha256_of(path) == digest
        if remove:
            os.remove(path)
        return good
    return check


def machine():
    model = ""
    try:
        for line in open("/proc/cpuinfo"):
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    except OSError:
        pass
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    return "%d cores (%s), %.0f GiB RAM, %s" % (os.cpu_count(), model or platform.machine(),
                                                 memory, platform.platform())


def fmt(value, pattern):
    return pattern % value if value is not None else "-"


def client_environment(home):
    """The environment for ztcli: a private HOME and XDG folders, so that the
    upload cache and partial downloads are never the real user's, and none of
    the variables that would point it elsewhere."""
    env = dict(os.environ)
    for name in ("QT_LOGGING_RULES", "ZT_SERVER", "ZT_PLUGIN", "ZT_TOKEN"):
        env.pop(name, None)
    env.update(HOME=home, XDG_CONFIG_HOME=os.path.join(home, "config"),
               XDG_CACHE_HOME=os.path.join(home, "cache"), XDG_DATA_HOME=os.path.join(home, "data"))
    return env


def write_section(path, text):
    """Puts text, which starts with its own "# " title line, into the results
    file: in place of the section with the same title, or at the end. The other
    benchmarks' sections stay as they are."""
    title = text.split("\n", 1)[0]
    sections = []
    if os.path.exists(path):
        current = []
        for line in open(path, encoding="utf-8").read().splitlines():
            if line.startswith("# ") and current:
                sections.append("\n".join(current).strip("\n"))
                current = []
            current.append(line)
        if current:
            sections.append("\n".join(current).strip("\n"))
    replaced = False
    for at, section in enumerate(sections):
        if section.split("\n", 1)[0] == title:
            sections[at] = text.strip("\n")
            replaced = True
    if not replaced:
        sections.append(text.strip("\n"))
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n\n".join(sections) + "\n")
