"""Puts the service through what it may meet, a scenario a function, and says of each what held. See scripts/torture."""
import argparse
import base64
import collections
import concurrent.futures
import contextlib
import functools
import hashlib
import json
import os
import pathlib
import random
import re
import shutil
import signal
import sqlite3
import struct
import subprocess
import sys
import threading
import time
import traceback

import pieces
import power_cuts
from pieces import (SLACK, Client, Failed, Honest, Marshal, Peer, Service, World, Writer, beside, check, packed,
                    strings, text_at, timed, wait_for)

METHODS = ("GET_PROPERTY SET_PROPERTY LST_PROPERTY DEL_PROPERTY GET_SECURE SET_SECURE DEL_SECURE GET_CONST "
           "SIGN_REQUEST VERIFY_SIGN REG_LISTENER UNREG_LISTENER ISALREADY_LISTHENED SET_POLICYLIST SET_POLICY "
           "GET_POLICY DELETE_POLICY ISSTRONG_CONTROL DM_REGISTER_LISTERNER DM_LIST DM_CLEAR_ALL_KEYS "
           "DM_GET_POLICIES KEY_ROTATE KEY_RESEAL KEY_ENABLE KEY_PRUNE KEY_SLOTS KEY_PROTECT KEY_UNPROTECT "
           "KEY_UNLOCK KEY_RECOVER POLICIES_READ POLICIES_STATUS POLICIES_GOVERNING POLICIES_LIST "
           "LISTENERS_LIST TRAIL_STATUS").split()
NOBODY = 65534
PAGE = 4096


class Skipped(Exception):
    pass


class Run:
    """What a scenario is given: its length, its random numbers, and the time that it may take."""

    def __init__(self, name, long, minutes, seed):
        self.long = long
        self.seed = f"{seed}/{name}"
        self.random = random.Random(self.seed)
        self.ends = time.monotonic() + 60 * minutes

    def count(self, short, long):
        return long if self.long else short

    def rounds(self, short, long):
        """Numbers up to the count of this form; fewer where time runs out."""
        for number in range(self.count(short, long)):
            if self.is_over():
                return
            yield number

    def is_over(self):
        return time.monotonic() > self.ends

    @staticmethod
    def needs(*tools, root=False):
        for tool in tools:
            if not shutil.which(tool):
                raise Skipped(f"needs {tool}; scripts/setup torture installs it")
        # Some containers have a root that may do neither.
        if root and subprocess.run(["unshare", "--mount", "true"], check=False, capture_output=True).returncode != 0:
            raise Skipped("needs root, and its right to mount")
        if "strace" in tools and subprocess.run(["strace", "true"], check=False, capture_output=True).returncode != 0:
            raise Skipped("needs the right to trace")

    @staticmethod
    def needs_plain_build():
        if SLACK["factor"] != 1:
            raise Skipped("a sanitizer has to be the first library of a process")


# ---- Crashes and disks ----

def make_writers(world, run):
    return [Writer(world.client(), kind, name, f"{run.seed}/{name}")
            for kind, name in (("secure", "a"), ("secure", "b"), ("policy", "p"))]


def kill_beneath(service, writers, rng):
    """Kills the service at some moment while all of them write."""
    with beside(*(writer.write_until for writer in writers)) as death:
        time.sleep(rng.uniform(0, 0.15))
        death.set()
        service.kill()


def kill(run):
    with World() as world:
        writers = make_writers(world, run)
        for rounds in run.rounds(40, 1000):
            service = world.start()
            for writer in writers:
                writer.check()
            kill_beneath(service, writers, run.random)
            world.check_integrity()
        world.start()
        for writer in writers:
            writer.check()
    acknowledged = sum(writer.acknowledged for writer in writers)
    check(acknowledged > rounds, "hardly a write was acknowledged")
    return f"{rounds + 1} kills, {acknowledged} acknowledged writes, {sum(w.in_flight for w in writers)} in flight"


class Trail:
    """What the trail of a world's data folder tells of its writers, read bit by bit as it grows."""

    CHANGES = ("SET_SECURE", "DEL_SECURE", "SET_POLICY", "DELETE_POLICY")

    def __init__(self, world, writers):
        self.file = world.path("data/trail.jsonl")
        self.writers = writers
        self.entries = collections.Counter()
        self.last = {}  # the digest of each key's value
        self.before, self.seq, self.read = "0" * 64, 0, 0

    def lines(self):
        with open(self.file, "rb") as file:
            file.seek(self.read)
            return file.read().splitlines(keepends=True)

    def check(self):
        """The chain is whole. Of each key there is an entry for every change that was acknowledged, and none that nobody
        asked for; each begins with the value that the one before left."""
        for line in self.lines():
            check(line.endswith(b"\n"), "the trail ends within a line")
            self.take(json.loads(line))
            self.before = hashlib.sha256(line[:-1]).hexdigest()
            self.read += len(line)
        for writer in self.writers:
            for key, (least, most) in writer.entries.items():
                check(least <= self.entries[key] <= most,
                      f"{key}: {self.entries[key]} entries, {least} acknowledged changes, {most} were asked for")

    def take(self, entry):
        self.seq += 1
        check((entry["seq"], entry["before"]) == (self.seq, self.before), f"entry {entry['seq']} follows {self.seq - 1}")
        check(entry["what"] != "GAP", "entries were lost")
        if entry["what"] not in self.CHANGES or not any(entry["key"] in one.entries for one in self.writers):
            return
        check(entry["came"] in ("changed", "stored", "same"), f"entry {entry['seq']}: {entry['came']}")
        check(self.last.get(entry["key"], entry["old"]) == entry["old"], f"entry {entry['seq']} has another old value")
        self.last[entry["key"]] = entry["new"]
        self.entries[entry["key"]] += 1

    def cut(self, rng):
        """As a power cut may leave it: without the end that only the databases have on the disk."""
        lines, cut = self.lines(), 0
        for line in reversed(lines[-5:]):
            if json.loads(line)["what"] not in self.CHANGES:
                break
            cut += len(line)
        if cut:
            os.truncate(self.file, os.path.getsize(self.file) - rng.randrange(1, cut + 1))


def trail(run):
    """Kills under writers, and cuts: the trail has what was acknowledged, in its order, and nothing else."""
    with World() as world:
        writers = make_writers(world, run)
        told = Trail(world, writers)
        for kills in run.rounds(30, 1000):
            service = world.start("--audit-size", "1024")
            for writer in writers:
                writer.check()
            told.check()
            kill_beneath(service, writers, run.random)
            if run.random.random() < 0.5:
                told.cut(run.random)
        world.start("--audit-size", "1024")
        told.check()
        world.command("log", "verify")
    acknowledged = sum(writer.acknowledged for writer in writers)
    return f"{kills + 1} kills, {told.seq} entries, {acknowledged} acknowledged writes"


class Counter:
    """Sets its keys to higher and higher numbers, and knows of each the last one that it asked for, and the last one
    that was acknowledged."""

    def __init__(self, world, name):
        self.client = world.client()
        self.asked = {("secure", f"{name}.s"): 0, ("policy", f"{name}.p"): 0}
        self.acknowledged = dict(self.asked)

    def count(self, over):
        while not over.is_set():
            for kind, key in self.asked:
                self.asked[kind, key] += 1
                check(self.client.write(kind, key, self.asked[kind, key]), f"a write of {key} failed")
                self.acknowledged[kind, key] = self.asked[kind, key]


def backup(run):
    with World() as world:
        elsewhere = {"XDG_RUNTIME_DIR": world.path("tmp")}  # a restored folder has no service
        world.start()
        writers = [Counter(world, f"w{number}") for number in range(8)]
        with beside(*(writer.count for writer in writers)):
            wait_for(lambda: all(min(writer.acknowledged.values()) > 0 for writer in writers), "the first writes")
            for number in run.rounds(6, 300):
                file, folder = world.path(f"backup.{number}"), world.path(f"restored.{number}")
                least = [dict(writer.acknowledged) for writer in writers]
                world.command("backup", file, world.path("data"), text="passphrase\n", **elsewhere)
                most = [dict(writer.asked) for writer in writers]
                world.command("restore", file, folder, text="passphrase\n", **elsewhere)
                held = world.held(folder, **elsewhere)
                for low, high in zip(least, most):
                    for key in low:
                        check(low[key] <= int(held.get(key, -1)) <= high[key],
                              f"{key} holds {held.get(key)} in a backup begun at {low[key]} and done at {high[key]}")
                shutil.rmtree(folder)
                os.unlink(file)
    written = sum(sum(writer.acknowledged.values()) for writer in writers)
    return f"{number + 1} backups beneath 8 writers with {written} acknowledged writes, no value missed"


def write_steps(client, round_name, results):
    """Writes of each kind. Returns what each key may hold, and what failed."""
    stored, failed = {}, []
    for kind, key, value in (("secure", "k", f"1{round_name}"), ("secure", "k", f"2{round_name}"),
                             ("secure", "l", "x" * 9000), ("secure", "l", ""), ("policy", "p", f"3{round_name}")):
        is_done, took = timed(client.write, kind, key, value)
        results["worst"] = max(results["worst"], took)
        check(took < 6.5, f"a write of {kind} {key} took {took:.1f} s")
        if is_done:
            stored[kind, key] = {value}
        else:
            failed.append(f"{kind} {key}")
            if (kind, key) in stored:
                stored[kind, key].add(value)  # its bytes may stand in the log, and count after a restart
    return stored, failed


def read_steps(client, stored, syscall):
    for (kind, key), allowed in stored.items():
        if key == "l" and syscall == "pread64":
            continue  # what can't be looked up passes for deleted; the log tells of the look-up
        told = client.read(kind, key) or client.read(kind, key)  # the call that fails may be one of this reading
        check(told in allowed, f"{key} holds {told[:40]!r}, not one of {[value[:40] for value in allowed]}")


def inject_one(syscall, error, number, results):
    """One life of a service whose n-th such call on its files fails. False when no call was left to fail."""
    with World() as world:
        trace = pathlib.Path(world.path("trace"))
        files = ["sdconfig.db", "sdconfig.db-wal", "dmhelper.db", "dmhelper.db-wal", "sdsecurity.keys",
                 "sdsecurity.count", "sdsecurity.keys.new", "sdsecurity.count.new", "sdconfigd.clean",
                 "sdconfigd.clean.new", ""]
        path_options = [option for name in files for option in ("-P", world.path("data/" + name).rstrip("/"))]
        service = Service(world, ("--log-level", "6"),
                          ["strace", "-D", "-f", "-qq", "-o", str(trace), "-e", f"trace={syscall}", *path_options,
                           "-e", f"inject={syscall}:error={error}:when={number}"])
        stored = {}
        if service.settled():
            client = world.client()
            stored, failed = write_steps(client, "", results)
            check(not failed or " E " in service.log(), f"{failed} without a log line")
            read_steps(client, stored, syscall)
            for _ in range(4):  # each thread has an n-th call of its own; then nothing fails any more
                again, failed = write_steps(client, "again", results)
                stored.update(again)
                if not failed:
                    break
            check(not failed, f"{failed} still fail when nothing is in the way")
            read_steps(client, stored, syscall)
            service.check_alive()
            # An end by itself writes its mark, of which any call may fail, too.
            service.kill() if number % 2 else service.stop()
        else:
            service.refusal()
            results["refused"] += 1
        injected = trace.read_bytes().count(b"(INJECTED)")
        world.start()
        read_steps(world.client(), stored, syscall)
        world.check_integrity()
        return injected


def io(run):
    run.needs("strace")
    results, lives, injected = {"worst": 0, "refused": 0}, 0, 0
    calls = "pwrite64 write fsync fdatasync openat linkat renameat unlinkat ftruncate pread64".split()
    jobs = [(call, error) for call in calls for error in ("EIO", "ENOSPC")] + [("openat", "EMFILE")]
    for syscall, error in jobs if run.long else run.random.sample(jobs, 6):
        number = 1 if run.long else run.random.randint(1, 3)
        hits = 1
        while hits and not run.is_over():
            try:
                hits = inject_one(syscall, error, number, results)
            except Failed as failure:
                raise Failed(f"{syscall} {error} when={number}: {failure}") from failure
            lives, injected = lives + 1, injected + hits
            number += 1 if run.long or number < 20 else run.random.randint(5, 40)
    check(injected, "no call was made to fail")
    return (f"{lives} lives with {injected} failing calls, {results['refused']} refused to start, the longest call "
            f"{results['worst']:.1f} s")


def disk(run):
    run.needs("mount", root=True)
    refused = 0
    with World() as world:
        # A log is moved to its database at 4 MiB: a smaller disk is filled by that alone.
        world.mount("data", "-t", "tmpfs", "none", "-o", "size=16m,mode=700")
        service = world.start()
        client = world.client()
        check(client.write("secure", "kept", "old"), "a set on a disk with room failed")
        previous = "old"
        for number in run.rounds(20, 400):
            with open(world.path("data/filler"), "wb", buffering=0) as filler:
                try:
                    while filler.write(bytes(run.random.choice((PAGE, 16 * PAGE)))):
                        pass
                except OSError:
                    filler.truncate(max(0, filler.tell() - run.random.choice((0, 4, 12, 60, 200)) * PAGE))
            log_before = service.log()
            value = f"{number}." + "y" * run.random.choice((100, 400000, 3000000))
            stored = client.write("secure", "kept", value)
            held = client.read("secure", "kept")
            check(held == (value if stored else previous),
                  f"after a set that was {'stored' if stored else 'refused'} the key holds {held[:40]!r}")
            if not stored:
                refused += 1
                check(service.log() != log_before, "a set on a full disk failed without a log line")
            service.check_alive()
            os.unlink(world.path("data/filler"))
            previous = f"free.{number}"
            check(client.write("secure", "kept", previous), "a set failed though there is room again")
            check(client.read("secure", "kept") == previous, "what was set when there was room again is not there")
        check(refused, "no set met the full disk")
        service.kill()
        subprocess.run(["mount", "-o", "remount,ro", world.path("data")], check=True)
        before = world.files()
        locked_out = Service(world)
        check(not locked_out.settled(), "the service started on a read-only disk")
        reason = locked_out.refusal()
        check(world.files() == before, "a refused start changed files")
        subprocess.run(["mount", "-o", "remount,rw", world.path("data")], check=True)
        world.start()
        check(client.read("secure", "kept") == previous, "the value is gone after the disk was read-only")
    return f"{number + 1} full disks, {refused} sets refused; read-only: \"{reason[-60:]}\""


def damaged_data(rng, data):
    """The bytes with one damage, and what it was."""
    data = bytearray(data)
    what = rng.choice(("flip", "cut", "zero", "swap"))
    if what == "flip":
        for _ in range(rng.choice((1, 1, 2, 8))):
            data[rng.randrange(len(data))] ^= 1 << rng.randrange(8)
    elif what == "cut":
        del data[rng.choice((0, rng.randrange(len(data)), rng.randrange(len(data)) // PAGE * PAGE)):]
    elif what == "zero":
        at = rng.randrange(len(data))
        end = min(len(data), at + rng.choice((1, 64, 512, PAGE)))
        data[at:end] = bytes(end - at)
    else:
        first, second = (rng.randrange(max(1, len(data) // PAGE)) * PAGE for _ in range(2))
        length = min(PAGE, len(data) - max(first, second))
        data[first:first + length], data[second:second + length] = \
            data[second:second + length], data[first:first + length]
    return bytes(data), what


def make_templates(history):
    """Files of services that were killed: with all in the log, with half of it, and one that ended by itself."""
    templates = []
    for end in ("killed young", "killed", "ended"):
        with World() as world:
            for life in range(1 if end == "killed young" else 3):
                service, client = world.start(), world.client()
                for i in range(30):
                    value = f"value.{life}.{i}." + "z" * (i * 40)
                    check(client.write("secure", f"key.{i}", value), "a set failed")
                    history.setdefault(f"key.{i}", []).append(value)
                    if i < 8:
                        check(client.write("policy", f"pol.{i}", f"p.{life}.{i}"), "a set of a policy failed")
                        history.setdefault(f"pol.{i}", []).append(f"p.{life}.{i}")
                if end == "ended" or (end == "killed" and life < 2):
                    service.stop()
            if end != "ended":
                service.kill()
            templates.append(world.files())
    return templates


def put_files(world, files):
    for file, data in files.items():
        with open(os.open(world.path("data/" + file), os.O_CREAT | os.O_WRONLY | os.O_TRUNC, 0o600), "wb") as copy:
            copy.write(data)


def damage_one(run, templates, history, seed):
    if run.is_over():
        return None
    rng = random.Random(seed)
    whole = rng.choice(templates)
    files = dict(whole)
    name = rng.choice([name for name, data in files.items() if data])
    files[name], what = damaged_data(rng, files[name])
    if not files[name] and name.endswith("-wal"):
        del files[name]
    what = f"seed {seed}: {what} in {name}"
    with World() as world:
        marked = not any(file.endswith("-wal") for file in whole) and rng.random() < 0.5
        put_files(world, whole if marked else files)
        if marked:
            world.start().stop()  # leaves a mark beside them, which the damage makes void
            put_files(world, {name: files[name]})
        service = Service(world, ("--log-level", "6"))
        try:
            if not service.settled():
                service.refusal()
                check(world.files() == files, "a refused start changed files")
                return "refused"
            peer = Peer(world)
            told = {key: peer.call_text("GET_SECURE", key) for key in history}
            for key, value in told.items():
                check(value == "" or value in history[key], f"{key} reads as {value[:60]!r}, which it never was")
            lost = sum(told[key] == "" for key in history)
            check(peer.call("SET_PROPERTY", "alive", "yes"), "no answer")
            service.check_alive()
            # What a log loses at its end looks like a commit that a power cut tore, and can't be told.
            tellable = what.endswith((".db", ".keys")) or lost == len(history)
            check(not (lost and tellable) or " E " in service.log(), f"{lost} values lost silently")
            return "lost some" if lost else "older" if any(told[k] != history[k][-1] for k in history) else "whole"
        except (Failed, OSError) as failure:
            raise Failed(f"{what}: {failure}") from failure


def damage(run):
    history = {}
    templates = make_templates(history)
    seeds = [run.random.getrandbits(40) for _ in range(run.count(250, 10000))]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        results = collections.Counter(pool.map(lambda seed: damage_one(run, templates, history, seed), seeds))
    left_out = results.pop(None, 0)
    return f"{len(seeds) - left_out} damages: " + ", ".join(f"{count} {what}" for what, count in results.items())


def busy(run):
    told = []
    for seconds in (1, 4, 6) if run.long else (1, 6):
        with World() as world:
            world.start()
            client, another = world.client(), world.client()
            check(client.write("secure", "k", "old") and another.read("secure", "k") == "old", "set failed")
            holder = sqlite3.connect(world.path("data/sdconfig.db"), isolation_level=None, check_same_thread=False)
            holder.execute("BEGIN IMMEDIATE")
            timer = threading.Timer(seconds, holder.rollback)
            timer.start()
            is_stored, took = timed(client.write, "secure", "k", "new")
            timer.join()
            holder.close()
            right = (took >= seconds - 0.1) if is_stored else (4.9 < took < 4.5 + SLACK["patience"])
            check(right and is_stored == (seconds < 5), f"held {seconds} s: {is_stored} after {took:.1f} s")
            held, waited = timed(another.read, "secure", "k")
            check(held in (("new",) if is_stored else ("new", "old")) and waited < 0.5 + SLACK["patience"],
                  f"then {held!r}, {waited:.1f} s")
            check(another.write("secure", "k", "last") and client.read("secure", "k") == "last", "not usable then")
            told.append(f"{seconds} s: {'stored' if is_stored else 'failed'} after {took:.1f} s")
    return "; ".join(told)


# ---- Peers ----

def send_garbage(world, rng):
    peer = Peer(world, handshake=rng.random() < 0.5)
    peer.socket.sendall(rng.randbytes(rng.choice((1, 16, 300, 70000))))
    peer.close()


def send_random_call(peer, rng):
    """A call of a known method with arguments of any kinds and number; lengths that lie in every third."""
    signature = "".join(pieces.random_type(rng, rng.choice((0, 2, 6))) for _ in range(rng.randint(0, 5)))[:200]
    body = Marshal()
    with contextlib.suppress(IndexError):  # where it was cut inside a type
        body.put_random(signature, rng)
    peer.serial += 1
    whole = bytearray(pieces.message(peer.serial, rng.choice(METHODS), signature, bytes(body.bytes),
                                     flags=rng.choice((0, 1))))
    if rng.random() < 0.33:
        struct.pack_into("<I", whole, rng.choice((4, 12, rng.randrange(len(whole) // 4 - 1) * 4)),
                         rng.choice((0, 1, 0x7fffffff, 0xffffffff, 1 << 27, 1 << 26, rng.getrandbits(12))))
    peer.socket.sendall(whole)


def call_randomly(world, rng, calls):
    sent = 0
    while sent < calls:
        with contextlib.suppress(OSError):
            peer = Peer(world, limit=2)
            for _ in range(50):
                sent += 1
                send_random_call(peer, rng)
            peer.close()


def big_arrays():
    """Bodies near 64 MiB: their signatures, and what makes them."""
    size = (64 << 20) - 8
    empty_strings = struct.pack("<I", size) + bytes(size)
    yield "ay", struct.pack("<I", size) + b"x" * size
    yield "say", strings("big")[1] + struct.pack("<I", size) + b"x" * size
    for signature in ("as", "ai", "aay", "ag", "ab"):
        yield signature, empty_strings
    yield "at", struct.pack("<II", size, 0) + bytes(size)
    yield "a(y)", struct.pack("<II", size, 0) + bytes(size)
    yield "av", struct.pack("<I", size) + b"\x01y\0\x05" * (size // 4)


def hostile(run):
    with World() as world:
        service = world.start()
        honest = Honest(world)
        at_start = service.peak_mib()
        for _ in run.rounds(200, 3000):
            with contextlib.suppress(OSError):  # to cut it off is the service's right, here and below
                send_garbage(world, run.random)
        half_open = [Peer(world, handshake=False) for _ in range(200)]
        connects = run.count(1000, 10000)
        for _ in range(connects):
            with contextlib.suppress(OSError):
                Peer(world).close()
        for peer in half_open:
            peer.close()
        calls = run.count(3000, 100000)
        call_randomly(world, run.random, calls)
        at_calls = service.peak_mib()
        arrays = 0
        for signature, body in big_arrays():
            for method in METHODS if run.long else ("SIGN_REQUEST", "GET_POLICY"):
                peer = Peer(world, limit=5)
                with contextlib.suppress(OSError):
                    peer.send(method, signature, body)
                    peer.send("SIGN_REQUEST", *strings("on"))
                    peer.next()
                peer.close()
                arrays += 1
        service.check_alive()
        told = honest.finish()
        check(world.client().ask("sign.get", "new") == "new", "a new client is not served afterwards")
        peak = service.peak_mib()
        check(at_calls < (at_start + 100) * SLACK["factor"], f"calls made it hold {at_calls} MiB")
        check(peak < 900 * SLACK["factor"], f"peak memory {peak} MiB")
        lines = service.log().count("\n")
        check(lines < 100000, f"{lines} lines logged")
    return (f"{connects} connects, {calls} random calls, {arrays} arrays of 64 MiB; {told}; peak {at_calls} MiB "
            f"before the arrays, {peak} MiB in all")


def user(run):
    run.needs("setpriv", root=True)
    other = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
    connect = ("import socket,sys; s=socket.socket(socket.AF_UNIX); s.settimeout(5); s.connect(sys.argv[1]);\n"
               "s.sendall(b'\\0AUTH EXTERNAL 3635353334\\r\\nBEGIN\\r\\n'); print(s.recv(100))")

    serve = ("import socket,sys; s=socket.socket(socket.AF_UNIX); s.settimeout(4); s.bind(sys.argv[1]); s.listen();\n"
             "c,_=s.accept(); c.settimeout(3); print(c.recv(1000))")

    def as_other(*command, **more):
        return subprocess.run([*other, *command], capture_output=True, text=True, timeout=20, check=False, **more)

    with World() as world:
        service = world.start()
        check("PermissionError" in as_other("python3", "-c", connect, world.socket_path).stderr,
              "another user reaches the socket")
        for folder in ("", "run", "run/sdbus"):  # even where somebody opened the door
            os.chmod(world.path(folder), 0o755)
        os.chmod(world.socket_path, 0o666)
        got = as_other("python3", "-c", connect, world.socket_path)
        check(got.stdout.strip() in ("b''", "") and "PermissionError" not in got.stderr, f"another user got {got}")
        check("it belongs to another user" in service.log(), "a refused user is not logged")
        os.chmod(world.path("run/sdbus"), 0o700)
        service.stop()

    plants = {
        "another's folder": lambda w: (os.mkdir(w.path("run/sdbus"), 0o700), os.chown(w.path("run/sdbus"), NOBODY, -1)),
        "open folder": lambda w: (os.mkdir(w.path("run/sdbus")), os.chmod(w.path("run/sdbus"), 0o777)),
        "link to a folder": lambda w: os.symlink(w.path("victim"), w.path("run/sdbus")),
        "open parent": lambda w: os.chmod(w.path("run"), 0o777),
        "file": lambda w: open(w.path("run/sdbus"), "w").close(),
        "linked ring": lambda w: os.symlink(w.path("victim/ring"), w.path("data/sdsecurity.keys")),
        "linked lock": lambda w: os.symlink(w.path("victim/lock"), w.path("data/sdconfigd.lock")),
    }
    inside = {  # its own folder: taken away or refused, never followed
        name: lambda w, name=name: (os.mkdir(w.path("run/sdbus"), 0o700),
                                    os.symlink(w.path("victim/file"), w.path("run/sdbus/" + name)))
        for name in ("sdconfig", "sdconfig.lock")
    }
    for name, plant in (plants | inside).items():
        with World() as world:
            os.mkdir(world.path("victim"), 0o700)
            file = pathlib.Path(world.path("victim/file"))
            file.write_text("mine")
            plant(world)
            service = Service(world)
            is_started = service.settled()
            if name in plants:
                check(not is_started, f"{name}: the service started")
                service.refusal()
                check(not os.path.exists(world.socket_path), f"{name}: a socket was made")
            check(list(file.parent.iterdir()) == [file] and file.read_text() == "mine", f"{name}: it was followed")
    with World() as world:  # a service of another user, where a client looks
        os.mkdir(world.path("run/sdbus"), 0o700)
        for folder in ("", "run", "run/sdbus"):
            os.chmod(world.path(folder), 0o755)
        os.chown(world.path("run/sdbus"), NOBODY, NOBODY)
        planted = subprocess.Popen([*other, "python3", "-c", serve, world.socket_path], text=True,
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        wait_for(lambda: os.path.exists(world.socket_path), "the planted socket")
        is_done = world.client().write("secure", "k", "secret")
        check(not is_done and planted.communicate(timeout=20)[0] in ("", "b''\n"),
              "a client spoke to a service of another user")
    return f"refused before dispatch; {len(plants) + 3} plants, nothing followed"


def silent(run):
    events = run.count(60000, 1000000)
    with World() as world:
        service = world.start()
        writer, mute = Peer(world), Peer(world)
        readers = [Peer(world, limit=60) for _ in range(2)]
        for peer in (mute, *readers):
            peer.send("Subscribe", *strings("DM_CHANGED"), interface="sdbus.Control")
        for reader in readers:
            reader.next()
        writer.send("REG_LISTENER", *packed("sb", "told", 0))
        writer.next()
        seen = [0, 0]

        def read(which, _):
            while seen[which] < events:
                number = int(readers[which].next()[2][16:24])
                check(number == seen[which], f"event {number} came instead of {seen[which]}")
                seen[which] += 1

        with beside(*(functools.partial(read, which) for which in range(2))):
            for at in range(0, events, 500):
                writer.socket.sendall(b"".join(
                    pieces.message(number + 10, "SET_PROPERTY", *strings("told", f"{number:08}"), flags=1)
                    for number in range(at, min(at + 500, events))))
                wait_for(lambda: min(seen) > at - 4000, "the readers", 60)
        got = 0
        with contextlib.suppress(ConnectionError):
            while mute.next():
                got += 1
        check(got < 30000, f"the silent subscriber was sent {got} events")
        check(service.log().count("is cut off") == 1, "not one line about one cut-off")
        peak = service.peak_mib()
        check(peak < 100 * SLACK["factor"], f"peak memory {peak} MiB")
    return f"{events} events, the silent one cut off after {got}, two others got all in order; peak {peak} MiB"


def restarts(run):
    clients, rounds = run.count(20, 100), run.count(8, 100)
    calls, failures = [0] * clients, [0] * clients
    with World() as world:
        service = world.start()
        crowd = [world.client() for _ in range(clients)]

        def listen(number):  # the recipe after a restart: ask, and register anew where need be
            return any(crowd[number].ask(command, f"key.{number}") == "1"
                       for command in ("listener.get", "listener.set.list"))

        def use(number, over):
            client, key = crowd[number], f"key.{number}"
            listen(number)
            while not over.is_set():
                text = f"{number}.{calls[number]}"
                answer = client.ask("sign.get", text)
                check(answer in (text, ""), f"client {number} was answered {answer!r} to {text!r}")
                failures[number] += answer == ""
                calls[number] += 1
                if calls[number] % 10 == 0:
                    value = client.read("property", key)
                    check(value == "" or value.startswith(f"{number}."), f"client {number} read {value!r}")
                    client.write("property", key, text)

        with beside(*(functools.partial(use, number) for number in range(clients))):
            for done in run.rounds(rounds, rounds):
                time.sleep(run.random.uniform(0.02, 0.3))
                service.kill() if run.random.random() < 0.5 else service.stop()
                service = world.start()
        for number in range(clients):
            check(listen(number), f"client {number} can't listen again")
        for number, client in enumerate(crowd):
            key = f"key.{number}"
            before = int(client.ask("events.get", key).split()[0])
            attempts = iter(range(10000))

            def hears():
                client.write("property", key, f"{number}.again.{next(attempts)}")
                return int(client.ask("events.get", key).split()[0]) > before

            wait_for(hears, f"client {number} hears of changes again", 10)
            told = client.ask("events.get", key).split()[1]
            check(told.startswith(f"{number}."), f"client {number} was told {told}")
    return f"{clients} clients, {done + 1} restarts, {sum(calls)} calls, {sum(failures)} of them failed"


def threads(run):
    with World() as world:
        world.start()
        client = world.client()
        for number in run.rounds(3, 60):
            for command, right in (("threads.get 64 50 0", 3200), ("threads.get 16 50 1", 800), ("fork.get", 30)):
                answer = client.ask(command, limit=60)
                check(answer == str(right), f"{command}: {answer} of {right} calls were answered")
            key = f"k{number}"
            client.ask("listener.set.list", key)
            client.write("property", key, "told")
            wait_for(lambda: client.ask("events.get", key).endswith(" told"), "an event")
        client.ask("last", "goodbye")
        check(client.finish() == "goodbye\n\n", "static destructors are answered wrongly")
    return f"{4030 * (number + 1)} calls from threads, children, interrupted threads, each with its own answer"


# ---- Secrets ----

def secrets(run):
    canary, identity, shown = (f"{name}{run.random.getrandbits(60):x}" for name in ("canary", "identity", "property"))
    forms = [canary.encode(), canary.encode().hex().encode(), canary.encode("utf-16-le"),
             *(base64.b64encode(b"x" * i + canary.encode())[4:-4] for i in range(3))]
    with World() as world:
        service = world.start("--log-level", "5", "--audit-reads", "*")
        client = world.client()

        def scan_processes():
            proc = pathlib.Path("/proc")
            for path in (*proc.glob("[0-9]*/cmdline"), *proc.glob("[0-9]*/environ")):
                with contextlib.suppress(OSError):
                    text = path.read_bytes()
                    check(not any(form in text for form in forms), f"the secret stands in {path}")

        def command_line(*arguments, text=""):
            process = subprocess.Popen([pieces.PROGRAMS["sdconfig"], *arguments], env=world.environment, text=True,
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            process.stdin.write(text)
            process.stdin.flush()
            scan_processes()
            out, err = process.communicate(timeout=20)
            check(canary not in err, f"sdconfig said the secret on standard error: {err}")
            return out

        for _ in run.rounds(2, 50):
            command_line("secure", "set", "k", text=canary)
            check(canary in command_line("secure", "get", "k"), "the secret did not come back")
            check(client.write("secure", "k", canary), "a set failed")
            check(client.read("secure", "k") == canary, "the secret did not come back")
            check(client.write("secure", "ro.sd.uuid", identity), "a set failed")
            for key, priority in (("k", 9), ("k", 1), ("other", 9)):
                check(client.write("policy", key, canary, priority), "a set of a policy failed")
                client.read("policy", key)
            client.write("secure", "k", "")
            client.write("secure", "alone", canary)
            client.write("property", "ro.read.only", shown)
            check(not client.write("property", "ro.read.only", shown), "a read-only property was set")
            peer = Peer(world)
            for method in METHODS:  # the secret where it does not belong
                if method not in ("DEL_SECURE", "DELETE_POLICY", "DM_CLEAR_ALL_KEYS", "SET_PROPERTY", "REG_LISTENER",
                                  "DM_REGISTER_LISTERNER"):
                    peer.send(method, *packed("isy", 1, canary, 1), flags=1)
            peer.call("GET_SECURE", "k")
            peer.close()
            # Error paths: a store that refuses, a value that doesn't open.
            db = sqlite3.connect(world.path("data/sdconfig.db"))
            db.execute("CREATE TRIGGER full BEFORE INSERT ON secure_v3 BEGIN SELECT RAISE(ABORT, 'full'); END")
            check(not client.write("secure", "k", canary), "a refused write succeeded")
            command_line("secure", "set", "k", text=canary)
            db.execute("DROP TRIGGER full")
            db.execute("UPDATE secure_v3 SET value = substr(value, 1, length(value) - 9) WHERE key = 'alone'")
            db.commit()
            db.close()
            check(client.read("secure", "alone") == "", "a damaged value was opened")
            command_line("report", "-o", world.path("page.html"))
            service.kill()
            for kind in ("secure", "property"):
                check(not client.write(kind, "k", canary), "a set without a service succeeded")
            check(client.ask("sign.get", canary) == "", "a text was signed without a service")
            command_line("secure", "set", "k", text=canary)
            service = world.start("--log-level", "5", "--audit-reads", "*")
        trail = command_line("log", "--json").encode()  # of packed files, too
        check(not any(form in trail for form in [*forms, identity.encode()]), "the secret stands in the trail")
        check(b'"what":"GET_SECURE"' in trail and b'"new":"' in trail, "the trail has no reading, or no digest")
        places, hidden = 0, 0
        for path in filter(pathlib.Path.is_file, pathlib.Path(world.folder).rglob("*")):
            data = path.read_bytes()
            hits = [form for form in [*forms, identity.encode(), shown.encode()] if form in data]
            if path.name == "page.html":  # which shows properties, as anybody may ask for them
                hits = [form for form in hits if form != shown.encode()]
            check(not hits, f"the secret stands in {path.name}")
            hidden += data.count(f"[{len(canary)} bytes, ".encode())
            places += 1
        check(hidden, "the lines that name the secret were not met")
    return f"0 hits in {places} files, command lines and environments; {hidden} lines that hide it"


def ring(run):
    done = 0
    for done in run.rounds(3, 50):
        with World() as world:
            crowd = [Client(world) for _ in range(32)]
            for client in crowd:
                client.ask("up")
            for number, client in enumerate(crowd):
                client.send("seal", world.path("data"), f"text.{number}")
            sealed = [client.receive() for client in crowd]
            for number, client in enumerate(crowd):  # who waited too long for the one that made it asks again
                sealed[number] = sealed[number] or client.ask("seal", world.path("data"), f"text.{number}")
            lines = pathlib.Path(world.path("data/sdsecurity.keys")).read_text().splitlines()
            check(len(lines) == 4 and " sealing " in lines[2], "more than one key was made")
            for number, envelope in enumerate(sealed):
                for client in (crowd[(number + 7) % 32], crowd[(number + 20) % 32]):
                    check(client.ask("open", world.path("data"), envelope) == f"text.{number}", "a seal does not open")
    return f"{done + 1} rounds of 32 first seals, one ring each"


class Ring:
    """Values and policies large enough that sealing them anew takes many steps, and what each may hold."""

    def __init__(self, world, run):
        self.world, self.random, self.number = world, run.random, 0
        self.client = world.client()
        self.may_hold = {f"{kind}.{i}": set() for kind in ("secure", "policy") for i in range(100)}
        for key in self.may_hold:
            self.set(key)

    def set(self, key):
        self.number += 1
        value = f"{self.number}." + "x" * self.random.choice((100, 30000, 60000))
        is_done = self.client.write(key.split(".")[0], key, value)
        self.may_hold[key] = {value} if is_done else self.may_hold[key] | {value}

    def check(self, keys):
        for key in keys:
            told = self.client.read("secure", key)
            check(told in self.may_hold[key], f"{key} holds {told[:40]!r}")
            self.may_hold[key] = {told}

    def shrink(self):
        """To the last key alone."""
        self.world.command("key", "rotate", "--reseal")
        self.world.command("key", "prune", "--yes")


def reseal(run):
    cut, went_on = 0, 0
    with World() as world:
        service = world.start()
        ring = Ring(world, run)
        keys = list(ring.may_hold)
        for number in run.rounds(30, 1000):
            command = subprocess.Popen([pieces.PROGRAMS["sdconfig"], "key", "rotate", "--reseal"], text=True,
                                       env=world.environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            for key in run.random.sample(keys, 3):
                ring.set(key)
            time.sleep(run.random.uniform(0, 0.2))
            cut += command.poll() is None
            victims = run.random.choice(("service", "command", "both"))
            if victims != "service":
                command.kill()
            if victims != "command":
                service.kill()
            went_on += "an earlier run did not end" in command.communicate()[1]
            if victims != "command":
                world.check_integrity()
                service = world.start()
            ring.check(run.random.sample(keys, 20))
            if number % 10 == 9:  # a ring holds 199 keys
                ring.shrink()
                ring.check(keys)
        ring.shrink()
        listing = json.loads(world.command("key", "list", "--json"))
        check([key["state"] for key in listing["keys"]] == ["sealing"] and listing["bound_only"],
              f"what is left in the end: {listing}")
        check(listing["keys"][0]["policies"] == 100, f"not every policy is under the last key: {listing}")
        ring.check(keys)
    check(cut > number / 4 and went_on, f"only {cut} of {number + 1} kills met a command that ran")
    return f"{number + 1} kills, {cut} while the rows were sealed anew, {went_on} went on; each value there and right"


def slots(run):
    made, left = 0, 0

    def key(digit):  # that nobody stretched
        return f"15 {digit * 32} {digit * 64}"

    with World() as world:
        service, client = world.start(), world.client()

        def call(method, *arguments):
            return subprocess.Popen(["busctl", f"--address=unix:path={world.socket_path}", "--timeout=60", "call",
                                     "sd.config", "/", "sdbus.Service", method, *arguments], text=True,
                                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)

        def is_wrapped():
            return pathlib.Path(world.path("data/sdsecurity.keys")).read_text().startswith("sdsecurity-wrapped-keys ")

        for number in range(20):
            check(client.write("secure", f"k.{number}", f"v.{number}"), "a set was refused")
        for number in run.rounds(20, 1000):
            was_wrapped = is_wrapped()
            change = call("KEY_UNPROTECT", "yss", "255", "", "") if was_wrapped else \
                call("KEY_PROTECT", "yss", "1", key("a"), key("b"))
            time.sleep(run.random.uniform(0, 0.04))
            service.kill()
            answer = change.communicate()[0]
            check(not answer or is_wrapped() != was_wrapped, f"{answer!r} was answered, and the ring is as it was")
            made += is_wrapped() != was_wrapped
            left += is_wrapped() == was_wrapped
            service = world.start()
            if is_wrapped():
                check(client.read("secure", "k.0") == "", "a locked ring opens a value")
                opened = call(*run.random.choice((("KEY_UNLOCK", "s", key("b")), ("KEY_RECOVER", "s", key("a")))))
                check(opened.communicate()[0] == 'ys 0 ""\n', "the wrapped ring does not open")
            for one in run.random.sample(range(20), 3):
                check(client.read("secure", f"k.{one}") == f"v.{one}", "a value is gone")
    return f"{number + 1} kills: {made} changes of the wrap were made whole, {left} not at all; each value there"


# ---- Policies of the machine ----

class Machine:
    """Folders of policies, and what should come of them, written down without a look at how the service does it."""

    FOLDERS = ("admin", "vendor")  # the first one's file counts where both have a name

    def __init__(self, world, run):
        self.world, self.random, self.fences, self.done = world, run.random, 0, collections.Counter()
        for folder in (*self.FOLDERS, "new"):
            os.mkdir(world.path(folder))
        self.held = {}  # by name and folder: the policies of the last whole text; none: it is as if it were not there
        self.broken = set()
        self.away = None  # what the administrator's folder holds while it is not there
        self.stored, self.local = {}, {}
        self.uris = [f"k.{number}" for number in range(6)]
        self.expected = []
        self.client = world.client()
        self.start()

    def start(self):
        self.service = self.world.start("--policy-dir", self.world.path("vendor"), "--policy-dir",
                                        self.world.path("admin"))
        self.ear = Peer(self.world, limit=30)
        self.ear.send("Subscribe", *strings(".DMChanged"), interface="sdbus.Control")
        self.ear.next()

    def machine(self, uri):
        last = None
        for name in sorted({name for name, _ in self.held}):
            folder = next(folder for folder in self.FOLDERS if (name, folder) in self.held)
            last = self.held[name, folder].get(uri, last)
        return last

    def effective(self, uri):
        """The value, and whether it is strong."""
        value, priority = self.machine(uri) or self.stored.get(uri) or ("", 0)
        return (value, True) if priority > 5 else (self.local.get(uri, value), False)

    @contextlib.contextmanager
    def change(self):
        """Foretells what is told of what is done in it."""
        policy = lambda uri: self.machine(uri) or self.stored.get(uri)
        before = {uri: (policy(uri), self.effective(uri)) for uri in self.uris}
        yield
        for uri, (old, value) in before.items():
            if policy(uri) != old and self.effective(uri) != value:
                self.expected.append((uri, *self.effective(uri)))

    def text(self, policies):
        return json.dumps({self.random.choice((uri, uri.upper())): {"value": value, "priority": priority}
                           for uri, (value, priority) in policies.items()}, indent=1)

    def put(self, path, text):
        pathlib.Path(self.world.path("new/file")).write_text(text)
        os.rename(self.world.path("new/file"), self.world.path(path))

    def write_slowly(self, path, text):
        """In place, while the folders are read for another file's sake."""
        with open(self.world.path(path), "w", encoding="ascii", buffering=1) as file:
            for half in (text[:len(text) // 2], text[len(text) // 2:]):
                self.put("vendor/other.json", self.text({"other": (str(self.random.random()), 4)}))
                time.sleep(self.random.uniform(0, 0.04))
                file.write(half)
                file.flush()

    def edit(self):
        folder = self.random.choice([one for one in self.FOLDERS if one != "admin" or self.away is None])
        name = f"m{self.random.randrange(3)}.json"
        path, key = f"{folder}/{name}", (name, folder)
        policies = {uri: (f"v{self.random.randrange(3)}", self.random.choice((4, 9)))
                    for uri in self.random.sample(self.uris, self.random.randrange(4))}
        what = self.random.choice(("swap", "swap", "write", "break", "remove", "mask", "distrust", "folder"))
        if what == "write" and key not in self.held and os.path.exists(self.world.path(path)):
            what = "swap"  # one that is distrusted stays so when it is written
        if what == "break" and folder == "vendor" and (name, "admin") in self.held:
            what = "swap"  # what another file replaces may never have been read
        self.done[what] += 1
        with self.change():
            if what == "folder":
                return self.move_admin()
            self.broken.discard(key)
            if what in ("swap", "write"):
                self.held[key] = policies
                (self.put if what == "swap" else self.write_slowly)(path, self.text(policies))
            elif what == "break":
                self.held.setdefault(key, {})
                self.broken.add(key)
                self.put(path, self.random.choice(("{", '{"k.0": {"value": "\\u0000", "priority": 9}}', "\0" * 99,
                                                   '{"k.0": {"value": "x", "priority": 9}, "K.0": {}}')))
            elif what == "mask":
                self.held[key] = {}
                self.put(path, "")
            else:
                self.held.pop(key, None)
                if what == "distrust":
                    self.put("new/theirs", self.text(policies))
                    os.chmod(self.world.path("new/theirs"), 0o666)
                    os.rename(self.world.path("new/theirs"), self.world.path(path))
                elif os.path.exists(self.world.path(path)):
                    os.unlink(self.world.path(path))

    def move_admin(self):
        """The folder goes, or comes back; what its broken files held is forgotten then."""
        here, away = self.world.path("admin"), self.world.path("admin.away")
        if self.away is None:
            self.away = {key: {} if key in self.broken else held for key, held in self.held.items() if key[1] == "admin"}
            self.held = {key: held for key, held in self.held.items() if key[1] != "admin"}
            os.rename(here, away)
        else:
            self.held.update(self.away)
            self.away = None
            os.rename(away, here)

    def restart(self):
        """What a broken file held is forgotten then."""
        self.random.choice((self.service.kill, self.service.stop))()
        self.held.update({key: {} for key in self.broken if key in self.held})
        self.start()

    def call(self):
        uri, value, priority = self.random.choice(self.uris), f"v{self.random.randrange(3)}", self.random.choice((4, 9))
        if self.random.random() < 0.5:
            check(self.client.write("secure", uri, value), "a set failed")
            self.local[uri] = value
        else:
            is_free = not self.machine(uri)
            with self.change():
                if is_free:
                    self.stored[uri] = value, priority
                is_done = self.client.write("policy", uri, value, priority)
            check(is_done == is_free, f"a set of a policy that is {'free' if is_free else 'governed'} gave {is_done}")

    def events(self):
        """What was told up to now: up to a policy that is put last, and comes last by its name."""
        self.fences += 1
        self.put("vendor/zz.json", self.text({"zz.fence": (str(self.fences), 9)}))
        told = []
        while True:
            _, _, body = self.ear.next()
            uri, at = text_at(body, 0)
            value, at = text_at(body, at)
            strong = bool(struct.unpack_from("<I", body, at + -at % 4)[0])
            if uri.lower() == "zz.fence" and value == str(self.fences):
                return told
            if uri.lower() not in ("zz.fence", "other"):
                told.append((uri.lower(), value, strong))

    def settle(self):
        told = self.events()
        check(told == self.expected, f"told was {told}, not {self.expected}, after {dict(self.done)}")
        for uri in self.uris:
            value = self.client.read("policy", uri)
            check(value == self.effective(uri)[0], f"{uri} is {value!r}, not {self.effective(uri)[0]!r}")
        self.expected = []
        return len(told)

    def storm(self, seconds):
        """Two policies of one file, swapped as fast as can be, are never from two versions of it."""
        versions, pair = [], ("pair.a", "pair.b")

        def put(version):
            self.put("vendor/pair.json", self.text({uri: (version, 9) for uri in pair}))

        def swap(over):
            while not over.is_set():
                versions.append(str(len(versions)))
                put(versions[-1])

        put("first")
        self.events()
        peer, looks, ends = Peer(self.world), 0, time.monotonic() + seconds
        with beside(swap):
            while time.monotonic() < ends:
                peer.send("DM_GET_POLICIES", *packed("yss", 2, *pair))
                body = peer.next()[2]
                values, at = [], 1
                for _ in pair:
                    _, at = text_at(body, at)
                    value, at = text_at(body, at)
                    values, at = [*values, value], at + 1
                check(values[0] == values[1] != "", f"one file's policies are {values} at one time")
                looks += 2
                time.sleep(0.0005)  # so that the other thread comes to swap
        peer.close()
        told = self.events()
        for uri in pair:
            numbers = [int(value) for one, value, _ in told if one == uri]
            check(numbers == sorted(set(numbers)) and numbers[-1:] == [len(versions) - 1],
                  f"{uri} was told as {numbers[-9:]} of {len(versions)}")
        os.unlink(self.world.path("vendor/pair.json"))
        self.events()
        return len(versions), looks


def policies(run):
    told = swaps = looks = 0
    with World() as world:
        machine = Machine(world, run)
        machine.events()
        for number in run.rounds(100, 5000):
            machine.edit()
            if run.random.random() < 0.5:
                told += machine.settle()
                machine.call()
            if run.random.random() < 0.03:
                told += machine.settle()
                machine.restart()
            told += machine.settle()
        for _ in range(run.count(1, 30)):
            swapped, looked = machine.storm(1)
            swaps, looks = swaps + swapped, looks + looked
        machine.service.check_alive()
    check(told, "no change was told")
    return (f"{number + 1} edits, {told} events, each as foretold; {swaps} swaps of a file beneath {looks} looks, none of "
            "them half of it")


# ---- What runs out ----

def live(run, whose, kind, lives):
    """So many lives, or each, 0 of few, in several processes: they wait for ends and limits more than they compute."""
    crews = (12 if lives > 0 else 3) * os.cpu_count()
    shares = [f"{crew + 1}/{crews}" for crew in range(crews)] if run.long or lives == 0 else [str(lives)]
    programs = [pieces.PROGRAMS[name] for name in ("libscarce.so", "sdconfigd", "torture_client", "sdconfig-data")]
    seed = str(run.random.getrandbits(32))
    texts = pieces.run_beside([pieces.PROGRAMS["scarcity"], whose, kind, seed, share, *programs] for share in shares)
    counts = [[int(number) for number in re.findall(r"\d+", text)] for text in texts]
    return (f"{whose}, {kind}: {sum(lives for lives, _, _ in counts)} lives, each without another one of "
            f"{counts[0][1]}, {sum(ended for _, _, ended in counts)} ended in a library's own setting up")


def scarcity(run):
    run.needs_plain_build()
    return "; ".join(live(run, whose, kind, lives) for whose, kind, lives in (
        ("service", "memory", 25), ("service", "descriptor", 20), ("service", "thread", 0), ("service", "mapping", 0),
        ("killed", "memory", 5), ("killed", "descriptor", 0), ("killed", "thread", 0), ("killed", "mapping", 0),
        ("client", "memory", 30), ("client", "descriptor", 0), ("client", "thread", 0)))


# ---- Histories ----

def model(run):
    """Histories wait for ends and starts of services more than they compute."""
    total, first, crews = run.count(200, 10000), run.random.getrandbits(32), 3 * os.cpu_count()
    bounds = [first + total * crew // crews for crew in range(crews + 1)]
    pieces.run_beside([pieces.PROGRAMS["model"], str(begin), str(end - begin), "50", pieces.PROGRAMS["sdconfigd"]]
                      for begin, end in zip(bounds, bounds[1:]))
    return f"{total} histories of 50 steps from seed {first} on, each as foretold"


SCENARIOS = (kill, trail, backup, io, disk, damage, busy, hostile, user, silent, restarts, threads, secrets, ring, reseal,
             slots, policies, power_cuts.power, scarcity, model)


def perform(scenario, arguments):
    run = Run(scenario.__name__, not arguments.short, arguments.minutes, arguments.seed)
    begin = time.monotonic()
    try:
        told, result = scenario(run), "ok"
    except Skipped as reason:
        told, result = str(reason), "skipped"
    except Exception as failure:  # whatever it is, the other scenarios have their turn
        if not isinstance(failure, Failed):
            traceback.print_exc()
        told, result = f"{type(failure).__name__}: {failure}", "FAILED"
    print(f"{scenario.__name__:9} {result:7} {time.monotonic() - begin:5.0f} s  {told}", flush=True)
    return result != "FAILED"


def main():
    names = [scenario.__name__ for scenario in SCENARIOS]
    parser = argparse.ArgumentParser(prog="scripts/torture", description=__doc__)
    parser.add_argument("names", nargs="*", metavar="NAME", help="all when none is named: " + " ".join(names))
    parser.add_argument("--short", action="store_true", help="the short form, two to four minutes in all")
    parser.add_argument("--minutes", type=float, default=60, help="the most that one scenario of rounds goes on for")
    parser.add_argument("--seed", type=int, default=int(time.time()), help="for the same random choices again")
    parser.add_argument("--build", default="build/release", help="where the programs were built")
    arguments = parser.parse_args()
    unknown = set(arguments.names) - set(names)
    if unknown:
        parser.error("no scenario " + ", ".join(unknown))
    build = os.path.abspath(arguments.build)
    for path in ("apps/sdconfigd/sdconfigd", "apps/sdconfig/sdconfig", "apps/sdconfig/sdconfig-data",
                 *(f"tests/torture/{name}" for name in ("torture_client", "libpower_recorder.so", "power_cut",
                                                        "libscarce.so", "scarcity", "model"))):
        pieces.PROGRAMS[os.path.basename(path)] = f"{build}/{path}"
    SLACK["factor"] = 6 if build.endswith("asan") else 1
    SLACK["patience"] = 4 if arguments.short else 1
    print(f"seed {arguments.seed}", flush=True)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    wanted = [scenario for scenario in SCENARIOS if not arguments.names or scenario.__name__ in arguments.names]
    sys.exit(0 if all([perform(scenario, arguments) for scenario in wanted]) else 1)


if __name__ == "__main__":
    main()
