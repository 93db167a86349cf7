"""Other programs that follow folders, measured on the same trees: watchman and @parcel/watcher.

Each is left out, with a word about why, where it cannot be had.
"""

import json
import os
import pathlib
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).parent
PARCEL = "@parcel/watcher@2.6.0"


def skip(what, why):
    print(f"{what} is left out: {why}", file=sys.stderr)


def succeeds(command, **options):
    try:
        return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              **options).returncode == 0
    except OSError:
        return False


def has_watchman():
    install = ["apt-get", "-q", "install", "-y", "--no-install-recommends", "watchman"]
    if shutil.which("watchman") or (os.geteuid() == 0 and succeeds(install)):
        return True
    skip("watchman", "it is not installed, and its package cannot be")
    return False


def parcel_modules(folder):
    """Where @parcel/watcher is, or None."""
    if not shutil.which("npm") or not shutil.which("node"):
        return skip("@parcel/watcher", "there is no npm")
    modules = folder / "node_modules"
    folder.mkdir(parents=True, exist_ok=True)
    if not (modules / "@parcel" / "watcher").exists() and not succeeds(
            ["npm", "install", "--no-save", "--no-audit", "--no-fund", PARCEL], cwd=folder):
        return skip("@parcel/watcher", "npm cannot install it")
    return modules


def write_to(tree, first, count):
    """One write to each of the documents, a hundred to a folder."""
    for number in range(first, first + count):
        with open(tree / f"Folder {number // 100}" / f"Document {number % 100}.txt", "a") as file:
            file.write("changed\n")


def kept_files(folder):
    return {str(path.relative_to(folder)) for path in folder.rglob("Kept *")}


def storm_events(program, folder, files):
    """Runs the storm; the number of its events."""
    output = subprocess.run([program, "run", folder, str(files)], check=True, text=True,
                            stdout=subprocess.PIPE).stdout
    values = dict(line.split("\t") for line in output.splitlines())
    return float(values["events"]), float(values["seconds"])


class Watchman:
    """A watchman of our own, with its state in `folder`, started anew with what is there."""

    def __init__(self, folder):
        folder.mkdir(parents=True, exist_ok=True)
        self.socket_path = folder / "socket"
        self.socket_path.unlink(missing_ok=True)
        self.process = subprocess.Popen(
            ["watchman", "--foreground", f"--sockname={self.socket_path}",
             f"--logfile={folder / 'log'}", f"--pidfile={folder / 'pid'}",
             f"--statefile={folder / 'state'}"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.connection = socket.socket(socket.AF_UNIX)
        for _ in range(2000):
            try:
                self.connection.connect(str(self.socket_path))
                break
            except OSError:
                time.sleep(0.005)
        self.answers = self.connection.makefile("rb")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.connection.close()
        self.process.send_signal(signal.SIGTERM)
        self.process.wait()

    def ask(self, *command):
        self.connection.sendall(json.dumps(command).encode() + b"\n")
        answer = json.loads(self.answers.readline())
        if "error" in answer:
            raise RuntimeError(answer["error"])
        return answer

    def clock(self, tree):
        return self.ask("clock", str(tree), {"sync_timeout": 60_000})["clock"]

    def since(self, tree, clock, **options):
        return self.ask("query", str(tree), {
            "since": clock, "fields": ["name", "exists", "size", "mtime_us", "type"], **options})

    def cpu_seconds(self):
        fields = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text().rpartition(")")[2]
        user, system = fields.split()[11:13]
        return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")

    def memory(self):
        for line in pathlib.Path(f"/proc/{self.process.pid}/status").read_text().splitlines():
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) * 1024
        return 0


def watchman_crawl(tree, state):
    """Microseconds an object to the first synced answer, and to the one of a restart."""
    objects = 0
    results = {}
    clock = ""
    for name in ("first", "again"):
        start = time.monotonic()
        with Watchman(state) as watchman:
            watchman.ask("watch", str(tree))
            answer = watchman.since(tree, clock) if clock else {"clock": watchman.clock(tree)}
            seconds = time.monotonic() - start
            clock = answer["clock"]
            objects = objects or len(watchman.ask("query", str(tree), {"fields": ["name"]})["files"])
            results[f"watchman.{name}"] = seconds * 1e6 / objects
    return results


def watchman_changes(tree, state):
    results = {}
    with Watchman(state) as watchman:
        watchman.ask("watch", str(tree))
        changed = 0
        for count in (0, 100, 10_000):
            clock = watchman.clock(tree)
            write_to(tree, changed, count)
            changed += count
            watchman.clock(tree)
            times = []
            for _ in range(5 if count > 100 else 30):
                start = time.monotonic()
                files = watchman.since(tree, clock, sync_timeout=0)["files"]
                times.append((time.monotonic() - start) * 1e6)
            if len(files) < count:
                raise RuntimeError(f"watchman has {len(files)} of {count} changes")
            results[f"watchman.all.{count}"] = statistics.median(times)
    return results


def watchman_storm(program, folder, state, files):
    with Watchman(state) as watchman:
        watchman.ask("watch", str(folder))
        clock = watchman.clock(folder)
        cpu = watchman.cpu_seconds()
        events, seconds = storm_events(program, folder, files)
        end = time.monotonic()
        kept = kept_files(folder)
        searched = time.monotonic() - end
        end += searched
        known = watchman.since(folder, clock)["files"]
        seen = time.monotonic() - end
        known = {file["name"] for file in known if file["exists"]}
        return {"watchman.seenSeconds": seen, "watchman.stormSeconds": seconds,
                "watchman.cpuAnEvent": (watchman.cpu_seconds() - cpu) * 1e6 / events,
                "watchman.lost": len(kept - known), "watchman.residentMiB": watchman.memory() / 2**20}


def parcel(modules, mode, *arguments):
    output = subprocess.run(["node", HERE / "parcel.cjs", modules, mode, *map(str, arguments)],
                            check=True, stdout=subprocess.PIPE, text=True).stdout
    return {f"parcel.{name}": value for name, value in json.loads(output).items()}


def parcel_changes(modules, tree, scratch):
    """Changes since a snapshot: each answer walks the tree."""
    results = {}
    changed = 0
    for count in (0, 100, 10_000):
        parcel(modules, "snapshot", tree, scratch / "snapshot")
        write_to(tree, changed, count)
        changed += count
        answer = parcel(modules, "since", tree, scratch / "snapshot")
        if answer["parcel.events"] < count:
            raise RuntimeError(f"@parcel/watcher has {answer['parcel.events']} of {count} changes")
        results[f"parcel.all.{count}"] = answer["parcel.seconds"] * 1e6
    return results


def parcel_crawl(modules, tree, scratch, objects):
    first = parcel(modules, "snapshot", tree, scratch / "snapshot")["parcel.seconds"]
    again = parcel(modules, "since", tree, scratch / "snapshot")["parcel.seconds"]
    return {"parcel.first": first * 1e6 / objects, "parcel.again": again * 1e6 / objects}


def parcel_storm(modules, program, folder, files):
    return parcel(modules, "storm", folder, program, files)
