"""Power cuts: records what the service and the command line do to their files, and has power_cut replay it."""
import contextlib
import fcntl
import json
import os
import pathlib
import shutil
import sqlite3
import struct
import subprocess

import pieces
from pieces import Failed, check

EXISTS, MAKE_FOLDER, MARK = 0, 6, 10  # of record.h
# What a client's first call stores, in that order.
POWER_SETTINGS = {("secure", f"config.device.{name}"): value for name, value in (
    ("batteryBrightness", "50"), ("chargeBrightness", "80"), ("chargeDimDisplayTime", "15"),
    ("batteryDimDisplayTime", "5"), ("chargeLidCloseAction", "1"), ("batteryLidCloseAction", "1"))}


class Recording:
    """A folder whose changes are recorded, and the marks between them: what was asked for, what was acknowledged."""

    def __init__(self, world, name):
        self.world = world
        self.root = world.path(name)
        self.data = os.path.join(self.root, "data")
        self.log_path = world.path(f"{name}.calls")
        os.mkdir(self.root, 0o700)
        open(self.log_path, "wb").close()
        self.variables = {"LD_PRELOAD": pieces.PROGRAMS["libpower_recorder.so"], "POWER_ROOT": self.root,
                          "POWER_LOG": self.log_path}
        self.options = []
        self.is_used = False

    @staticmethod
    def record(kind, path="", data=b"", file=0, number=0):
        return struct.pack("<IIQqQ", kind, len(path.encode()), file, number, len(data)) + path.encode() + data

    def note(self, *fields):
        with open(self.log_path, "ab") as log:
            log.write(self.record(*fields))

    def mark(self, *fields):
        self.note(MARK, "", self.text_of(fields))

    def mark_at(self, place, *fields):
        """Where the log's end was before, while nobody is recorded."""
        with open(self.log_path, "r+b") as log:
            log.seek(place)
            later = log.read()
            log.seek(place)
            log.write(self.record(MARK, "", self.text_of(fields)) + later)

    @staticmethod
    def text_of(fields):
        return "\t".join(map(str, fields)).encode()

    def begin_with_what_is_there(self):
        for path in pathlib.Path(self.root).rglob("*"):
            data = b"" if path.is_dir() else path.read_bytes()
            self.note(EXISTS, str(path), data, path.stat().st_ino, path.is_dir())

    def make_folder(self, path):
        """As one does that is killed before it syncs the name."""
        os.mkdir(path, 0o700)
        self.note(MAKE_FOLDER, path, b"", os.stat(path).st_ino)

    def start(self):
        own = [option.replace("@", self.root, 1) for option in self.options]
        prefix = ["env", *(f"{name}={value}" for name, value in self.variables.items())]
        service = self.world.start("--data-dir", self.data, *own, prefix=prefix)
        self.mark("ack", "start")
        return service

    def stop(self, service):
        self.mark("begin", "end")
        service.stop()

    def kill(self, service):
        """With the log's lock, so that no call is cut off from its record."""
        with open(self.log_path, "ab") as log:
            fcntl.flock(log, fcntl.LOCK_EX)
            service.kill()

    def command(self, *arguments, text=""):
        return self.world.command(*arguments, text=text, **self.variables)

    def client(self):
        """A client that made its first call."""
        client, is_first = self.world.client(), not self.is_used
        if is_first:
            self.begin_all(POWER_SETTINGS)
        client.read("secure", "none")
        if is_first:
            self.ack_all(POWER_SETTINGS)
        self.is_used = True
        return client

    def write(self, client, kind, key, value):
        """One write by a client, with its marks. A value of "" is deleted."""
        with self.marked(kind, key, value):
            check(client.write(kind, key, value), f"a write of {kind} {key[:60]} failed")

    def read_accounted(self, client, key, value):
        with self.marked("read", key):
            check(client.read("secure", key) == value, "a key reads as another one")

    @contextlib.contextmanager
    def marked(self, kind, name, *more):
        """What the block does is begun, and at its end acknowledged."""
        self.mark("begin", kind, name, *more)
        yield
        self.mark("ack", kind, name)

    def begin_all(self, values, whole=""):
        """whole: the name of what is written with all of them or not at all, and acknowledged with any of them."""
        for (kind, key), value in values.items():
            self.mark("begin", kind, key, value, whole)

    def ack_all(self, values):
        for kind, key in values:
            self.mark("ack", kind, key)

    def power_cut(self, seed, states, *flags):
        arguments = [*flags, self.log_path, self.root, str(seed), str(states), pieces.PROGRAMS["sdconfigd"],
                     pieces.PROGRAMS["sdconfig"], pieces.PROGRAMS["libpower_recorder.so"], *self.options]
        return subprocess.run([pieces.PROGRAMS["power_cut"], *arguments], text=True, capture_output=True, check=False)

    def check_syncs_count(self, seed, states):
        """That what promises more than the disk has is noticed."""
        done = self.power_cut(seed, states, "--without-syncs")
        check(done.returncode == 1 and "\nagain: " in done.stdout,
              f"nothing notices {states} disks on which nothing was synced\n{done.stdout}{done.stderr}")

    def replay(self, seed, states):
        done = self.power_cut(seed, states)
        if done.returncode != 0:
            kept = f"/tmp/{os.path.basename(self.log_path)}.{os.getpid()}"
            shutil.copy(self.log_path, kept)
            raise Failed(f"the log is kept\n{done.stdout}{done.stderr}".replace(self.log_path, kept))
        return done.stdout.strip()


def write_some(recording, client, random, count, number):
    for _ in range(count):
        number += 1
        kind = random.choice(("secure", "secure", "policy"))
        value = "" if random.random() < 0.15 else f"{number}." + "x" * random.choice((0, 10, 300, 5000, 40000))
        recording.write(client, kind, f"{kind}.{random.randrange(6)}", value)
    return number


def put_policies(recording, policies):
    path = pathlib.Path(recording.world.path("policies.json"))
    path.write_text(json.dumps({key: {"value": value, "priority": 9} for key, value in policies.items()}))
    return str(path)


def apply_list(recording, random, number):
    """Each policy is a commit of its own, in the order of their names."""
    names = sorted(f"list.{i}" for i in range(20))
    values = {("policy", name): f"{number}.{name}." + "y" * random.choice((5, 2000)) for name in names}
    path = put_policies(recording, {key: value for (_, key), value in values.items()})
    recording.begin_all(values)
    recording.command("policy", "apply", path)
    recording.ack_all(values)


def rotate_key(recording, is_resealing):
    recording.mark("begin", "key")
    recording.command("key", "rotate", *(["--reseal"] if is_resealing else []))
    listing = json.loads(recording.world.command("key", "list", "--data-dir", recording.data, "--json"))
    sealing = next(key["key"] for key in listing["keys"] if key["state"] == "sealing")
    recording.mark("ack", "key", sealing, *(["resealed"] if is_resealing else []))


def serve(recording, run):
    """First start after one that was killed, sets, deletions, lists, keys that are made, everything sealed anew, ends
    and kills."""
    recording.make_folder(recording.data)
    service, client, number = recording.start(), recording.client(), 0
    for life in range(4):
        number = write_some(recording, client, run.random, 12, number)
        apply_list(recording, run.random, number)
        rotate_key(recording, life % 2)
        number = write_some(recording, client, run.random, 8, number)
        recording.stop(service) if life % 2 else recording.kill(service)
        service = recording.start()
    recording.stop(service)


def is_begun_anew(current):
    """Whether a trail's current file is not full."""
    try:
        return os.path.getsize(current) < 2**20
    except FileNotFoundError:  # amid a rotation
        return False


def trail(recording, run):
    """A trail that goes on in other files, which are packed, and the oldest dropped; with readings."""
    size, keep = 1, 2
    recording.options = ["--audit-size", str(size), "--audit-keep", str(keep), "--audit-reads", "read.*"]
    recording.mark("begin", "dropping", keep * size * 2**20 - 2**16)  # starts, ends and the like are not told of
    service, client = recording.start(), recording.client()
    key, short = "read." + "k" * 60000, "read.short"
    for accounted in (key, short):
        recording.mark("begin", "accounting", accounted)
        recording.write(client, "secure", accounted, "value")
    current = os.path.join(recording.data, "trail.jsonl")
    for number in range(72):
        recording.read_accounted(client, key, "value")  # its entry is a 17th of a file
        for _ in range(4):  # with no commit behind it that carries its entry, too
            recording.read_accounted(client, short, "value")
        write_some(recording, client, run.random, 1, number)
        if number % 18 == 17:  # files go on in the background
            pieces.wait_for(lambda: is_begun_anew(current), "the rotation of a full trail")
        if run.random.random() < 0.08:
            recording.kill(service)
            service = recording.start()
    # One more where a kill came between a rotation and the dropping of the oldest.
    pieces.wait_for(lambda: sum(name.endswith(".zst") for name in os.listdir(recording.data)) >= keep,
                    "the packing of what is kept of the trail besides")
    recording.stop(service)


def upgrade(recording, run):
    """An earlier version's data, carried over."""
    os.mkdir(recording.data, 0o700)
    path = os.path.join(recording.data, "sdconfig.db")
    subprocess.run([pieces.PROGRAMS["power_cut"], "--legacy", path], check=True)
    with contextlib.closing(sqlite3.connect(path)) as database:  # what can't be carried over whole
        database.execute("DELETE FROM secure WHERE key LIKE 'user@%' OR key LIKE 'long@@%' OR key = 'without-at'")
        database.commit()
    tried = Recording(recording.world, "tried")
    shutil.copytree(recording.data, tried.data)
    rows = json.loads(tried.world.command("upgrade", "--force", "--json", tried.data))["rows"]
    values = tried.world.held(tried.data)
    check(any(values.values()), "nothing was carried over")
    recording.begin_with_what_is_there()
    recording.begin_all(values)
    recording.mark("begin", "upgrade", f"{rows['config']} {rows['secure']}")
    begin = os.path.getsize(recording.log_path)
    told = json.loads(recording.command("upgrade", "--force", "--json", recording.data))
    copy = os.path.relpath(told["backup"], recording.root)
    recording.mark_at(begin, "begin", "file", copy)
    recording.mark("ack", "file", copy)
    recording.mark("ack", "upgrade")
    service = recording.start()
    write_some(recording, recording.client(), run.random, 5, 0)
    recording.kill(service)


def backup(recording, run):
    """Backups beside a service, and restores in the place of newer data."""
    world = recording.world
    os.mkdir(os.path.join(recording.root, "place"))
    recording.begin_with_what_is_there()
    for number in range(2):
        service, client = recording.start(), recording.client()
        write_some(recording, client, run.random, 8, 100 * number)
        file = f"place/{number}.backup"
        with recording.marked("file", file):
            recording.command("backup", os.path.join(recording.root, file), recording.data, text="passphrase\n")
        held = world.held(recording.data)
        write_some(recording, client, run.random, 8, 100 * number + 50)
        recording.stop(service)
        values = {key: held.get(key, "") for key in {**world.held(recording.data), **held}}
        recording.mark("begin", "restore", file)
        recording.begin_all(values, "restore")
        told = json.loads(recording.command("restore", os.path.join(recording.root, file), recording.data, "--force",
                                            "--json", text="passphrase\n"))
        recording.mark("ack", "restore", os.path.relpath(told["old"], recording.root))


def install(recording, run):
    """Policies of the machine, installed and replaced."""
    recording.options = ["--policy-dir", "@/machine/policies"]
    folder = os.path.join(recording.root, "machine/policies")
    os.mkdir(os.path.dirname(folder))
    recording.begin_with_what_is_there()
    recording.make_folder(folder)
    service, client = recording.start(), recording.client()
    for number in range(6):
        write_some(recording, client, run.random, 3, 10 * number)
        policies = {f"machine.{i}": f"{number}.{i}." + "z" * run.random.choice((5, 6000)) for i in range(3)}
        path = put_policies(recording, policies)
        values = {("machine", key): value for key, value in policies.items()}
        recording.begin_all(values, "install")
        with recording.marked("file", "machine/policies/50-some.json"):
            recording.command("policy", "install", path, "--name", "50-some", "--policy-dir", folder)
        recording.mark("ack", *next(iter(values)))
    recording.kill(service)


# The states of the short and of the long form.
SCENES = ((serve, 400, 42000), (trail, 100, 4000), (upgrade, 140, 28000), (backup, 220, 14000), (install, 140, 12000))


def power(run):
    run.needs_plain_build()
    told = []
    with pieces.World() as world:
        for scene, short, long in SCENES:
            recording = Recording(world, scene.__name__)
            scene(recording, run)
            if scene is serve:
                recording.check_syncs_count(run.random.getrandbits(32), short)
            told.append(f"{scene.__name__}: " + recording.replay(run.random.getrandbits(32), run.count(short, long)))
            for thing in reversed(world.started):
                thing.end()
    return "; ".join(told)
