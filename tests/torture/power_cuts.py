"""Power cuts: records what the service and the command line do to their files, and has power_cut replay it."""
import contextlib
import json
import os
import shutil
import sqlite3
import struct
import subprocess

import pieces
from pieces import Failed, Service, check

EXISTS, MARK = 0, 9  # of record.h


class Recording:
    """A folder whose changes are recorded, and the marks between them: what was asked for, what was acknowledged."""

    def __init__(self, world, name):
        self.world = world
        self.root = world.path(name)
        self.data = os.path.join(self.root, "data")
        self.log_path = world.path(f"{name}.calls")
        os.makedirs(self.data, 0o700)
        open(self.log_path, "wb").close()
        self.variables = {"LD_PRELOAD": pieces.PROGRAMS["power_recorder"], "POWER_ROOT": self.root,
                          "POWER_LOG": self.log_path}
        self.options = []

    def note(self, kind, path="", data=b"", file=0):
        record = struct.pack("<IIQqQ", kind, len(path.encode()), file, 0, len(data)) + path.encode() + data
        with open(self.log_path, "ab") as log:
            log.write(record)

    def mark(self, *fields):
        self.note(MARK, data="\t".join(map(str, fields)).encode())

    def begin_with_what_is_there(self):
        for folder, _, names in os.walk(self.root):
            for name in names:
                path = os.path.join(folder, name)
                with open(path, "rb") as file:
                    self.note(EXISTS, path, file.read(), os.stat(path).st_ino)

    def start(self, *options):
        own = [option.replace("@", self.root, 1) for option in self.options]
        prefix = ["env", *(f"{name}={value}" for name, value in self.variables.items())]
        service = Service(self.world, ("--data-dir", self.data, *own, *options), prefix)
        service.wait_until_ready()
        return service

    def command(self, *arguments, text="", recorded=True):
        environment = {**self.world.environment, **(self.variables if recorded else {})}
        done = subprocess.run([pieces.PROGRAMS["sdconfig"], *arguments], env=environment, text=True, input=text,
                              capture_output=True, check=False)
        check(done.returncode == 0, f"sdconfig {' '.join(arguments)} ended with {done.returncode}: {done.stderr[-400:]}")
        return done.stdout

    def write(self, client, kind, key, value):
        """One write by a client, with its marks. A policy of "" is deleted."""
        self.mark("begin", kind, key, value)
        if value == "":
            words = ("delete", key) if kind == "secure" else ("policy.delete", key)
        else:
            words = ("set", key, value) if kind == "secure" else ("policy.set", key, value, 9)
        check(client.ask(*words) == "1", f"{words[0]} failed")
        self.mark("ack", kind, key, value)

    def held(self):
        """What the folder holds by its own account."""
        listing = json.loads(self.command("list", "--data-dir", self.data, "--show", "--json", recorded=False))
        held = {("secure", row["key"]): row["value"] for row in listing["secure"]}
        held.update({("policy", row["uri"]): row["value"] for row in listing["policies"]})
        return held

    def begin_all(self, values):
        for (kind, key), value in values.items():
            self.mark("begin", kind, key, value)

    def ack_all(self, values):
        for (kind, key), value in values.items():
            self.mark("ack", kind, key, value)

    def replay(self, seed, states):
        options = ["--", *self.options] if self.options else []
        arguments = [self.log_path, self.root, str(seed), str(states), pieces.PROGRAMS["sdconfigd"],
                     pieces.PROGRAMS["sdconfig"], *options]
        done = subprocess.run([pieces.PROGRAMS["power_cut"], *arguments], text=True, capture_output=True, check=False)
        if done.returncode != 0:
            kept = f"/tmp/{os.path.basename(self.log_path)}.{os.getpid()}"
            shutil.copy(self.log_path, kept)
            raise Failed(f"{done.stdout}{done.stderr}the log is kept: power_cut {kept} {' '.join(arguments[1:3])} ...")
        return done.stdout.strip()


def write_some(recording, client, random, count, number):
    for _ in range(count):
        number += 1
        kind = random.choice(("secure", "secure", "policy"))
        value = "" if random.random() < 0.15 else f"{number}." + "x" * random.choice((0, 10, 300, 5000, 40000))
        recording.write(client, kind, f"{kind}.{random.randrange(6)}", value)
    return number


def apply_list(recording, random, number):
    policies = {f"list.{i}": f"{number}.{i}." + "y" * random.choice((5, 2000)) for i in range(20)}
    path = recording.world.path("list.json")
    with open(path, "w", encoding="ascii") as file:
        json.dump({key: {"value": value, "priority": 9} for key, value in policies.items()}, file)
    values = {("policy", key): value for key, value in policies.items()}
    recording.begin_all(values)
    recording.command("policy", "apply", path)
    recording.ack_all(values)


def serve(recording, run):
    """First start, sets, deletions, lists, keys that are made, everything sealed anew, ends and kills."""
    service, client, number = recording.start(), recording.world.client(), 0
    for life in range(4):
        number = write_some(recording, client, run.random, 12, number)
        apply_list(recording, run.random, number)
        recording.command("key", "rotate", *(["--reseal"] if life % 2 else []))
        number = write_some(recording, client, run.random, 8, number)
        service.stop() if life % 2 else service.kill()
        service = recording.start()
    service.stop()


def upgrade(recording, run):
    """An earlier version's data, carried over."""
    path = os.path.join(recording.data, "sdconfig.db")
    subprocess.run([pieces.PROGRAMS["power_cut"], "--legacy", path], check=True)
    with contextlib.closing(sqlite3.connect(path)) as database:  # what can't be carried over whole
        database.execute("DELETE FROM secure WHERE key LIKE 'user@%' OR key LIKE 'long@@%' OR key = 'without-at'")
        database.commit()
    tried = Recording(recording.world, "tried")
    shutil.copytree(recording.data, tried.data, dirs_exist_ok=True)
    tried.command("upgrade", "--force", tried.data, recorded=False)
    values = {key: value for key, value in tried.held().items() if value}
    check(values, "nothing was carried over")
    recording.begin_with_what_is_there()
    recording.begin_all(values)
    recording.command("upgrade", "--force", recording.data)
    recording.ack_all(values)
    service = recording.start()
    write_some(recording, recording.world.client(), run.random, 5, 0)
    service.kill()


def backup(recording, run):
    """Backups beside a service, and restores in the place of newer data."""
    os.mkdir(os.path.join(recording.root, "place"))
    for number in range(2):
        service, client = recording.start(), recording.world.client()
        write_some(recording, client, run.random, 8, 100 * number)
        file = f"place/{number}.backup"
        recording.mark("begin", "file", file, "")
        recording.command("backup", os.path.join(recording.root, file), recording.data, text="passphrase\n")
        recording.mark("ack", "file", file, "")
        held = recording.held()
        write_some(recording, client, run.random, 8, 100 * number + 50)
        service.stop()
        values = {key: held.get(key, "") for key in {**recording.held(), **held}}
        recording.begin_all(values)
        recording.command("restore", os.path.join(recording.root, file), recording.data, "--force",
                          text="passphrase\n")
        recording.ack_all(values)


def install(recording, run):
    """Policies of the machine, installed, replaced and removed."""
    folder = os.path.join(recording.root, "policies")
    os.mkdir(folder, 0o755)
    recording.options = ["--policy-dir", "@/policies"]
    service, client = recording.start(), recording.world.client()
    for number in range(6):
        write_some(recording, client, run.random, 3, 10 * number)
        policies = {f"machine.{i}": f"{number}.{i}." + "z" * run.random.choice((5, 6000)) for i in range(3)}
        path = recording.world.path("machine.json")
        with open(path, "w", encoding="ascii") as file:
            json.dump({key: {"value": value, "priority": 9} for key, value in policies.items()}, file)
        values = {("policy", key): value for key, value in policies.items()}
        recording.begin_all(values)
        recording.mark("begin", "file", "policies/50-some.policies.json", "")
        recording.command("policy", "install", path, "--name", "50-some", "--policy-dir", folder)
        recording.mark("ack", "file", "policies/50-some.policies.json", "")
        recording.ack_all(values)
    service.kill()


def power(run):
    run.needs_plain_build()
    told = []
    with pieces.World() as world:
        for scene, short, long in ((serve, 400, 60000), (upgrade, 100, 10000), (backup, 300, 20000),
                                   (install, 200, 10000)):
            recording = Recording(world, scene.__name__)
            scene(recording, run)
            told.append(f"{scene.__name__}: " + recording.replay(run.random.getrandbits(32), run.count(short, long)))
            for thing in reversed(world.started):
                thing.end()
    return "; ".join(told)
