"""The pieces that the scenarios share: a world of folders, the service in it, clients, and a raw peer."""
import multiprocessing
import os
import random
import select
import shutil
import socket
import sqlite3
import struct
import subprocess
import tempfile
import threading
import time

PROGRAMS = {}  # sdconfigd, sdconfig and torture_client: their paths
SLACK = {"factor": 1,  # by which a sanitized build may be slower and larger
         "patience": 1}  # by which the short form may be slower, which runs beside whatever else a machine does
ANSWER_LIMIT = 12  # seconds; the longest that a call may take, and some more
DATABASES = ("sdconfig.db", "dmhelper.db")


class Failed(Exception):
    pass


def check(condition, reason):
    if not condition:
        raise Failed(reason)


def wait_for(condition, what, limit=20):
    end = time.monotonic() + limit
    while not condition():
        check(time.monotonic() < end, f"{what}: not within {limit} s")
        time.sleep(0.002)


class World:
    """Folders of its own under /tmp, and everything that was started in them; both go with it."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="sdtorture-", dir="/tmp")
        for name in ("run", "data", "home", "tmp"):
            os.mkdir(self.path(name), 0o700)
        self.environment = dict(os.environ, XDG_RUNTIME_DIR=self.path("run"), HOME=self.path("home"),
                                XDG_DATA_HOME=self.path("home"), TMPDIR=self.path("tmp"))
        self.environment.pop("NOTIFY_SOCKET", None)
        self.started = []
        self.mounts = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for thing in reversed(self.started):
            thing.end()
        for mount in reversed(self.mounts):
            subprocess.run(["umount", "-l", mount], check=False)
        shutil.rmtree(self.folder, ignore_errors=True)

    def path(self, name):
        return os.path.join(self.folder, name)

    @property
    def socket_path(self):
        return self.path("run/sdbus/sdconfig")

    def start(self, *options, prefix=()):
        service = Service(self, options, prefix)
        service.wait_until_ready()
        return service

    def client(self):
        return Client(self)

    def mount(self, name, *arguments):
        subprocess.run(["mount", *arguments, self.path(name)], check=True)
        self.mounts.append(self.path(name))

    def check_integrity(self):
        """Of copies, so that what a killed service left is the next one's to find."""
        with tempfile.TemporaryDirectory(dir=self.folder) as copy:
            for name in DATABASES:
                for suffix in ("", "-wal"):
                    if os.path.exists(self.path("data/" + name + suffix)):
                        shutil.copy(self.path("data/" + name + suffix), copy)
                db = sqlite3.connect(os.path.join(copy, name))
                try:
                    sound = db.execute("PRAGMA integrity_check").fetchall()
                    check(sound == [("ok",)], f"{name}: integrity_check says {sound[:3]}")
                except sqlite3.Error as error:
                    raise Failed(f"{name}: {error}") from error
                finally:
                    db.close()

    def files(self):
        """The bytes of the files that must not be lost; an empty log is none."""
        names = [name + suffix for name in DATABASES for suffix in ("", "-wal")] + ["sdsecurity.keys"]
        files = {}
        for name in names:
            if os.path.exists(self.path("data/" + name)):
                with open(self.path("data/" + name), "rb") as file:
                    files[name] = file.read()
        return {name: data for name, data in files.items() if data or not name.endswith("-wal")}


class Service:
    def __init__(self, world, options=(), prefix=()):
        self.log_path = world.path(f"service-{len(world.started)}.log")
        self.traced = bool(prefix)
        arguments = [*prefix, PROGRAMS["sdconfigd"], "--data-dir", world.path("data"), "--product-dir",
                     world.path("data"), *options]
        # A process under a tracer can't look for leaks.
        environment = dict(world.environment, ASAN_OPTIONS="detect_leaks=0") if prefix else world.environment
        with open(self.log_path, "wb") as log:
            self.process = subprocess.Popen(arguments, env=environment, stdin=subprocess.DEVNULL, stdout=log,
                                            stderr=log)
        world.started.append(self)

    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as log:
            return log.read()

    def is_ready(self):
        return "sdconfigd: ready on " in self.log()

    def settled(self):
        """Waits until it serves (True) or has ended (False)."""
        wait_for(lambda: self.process.poll() is not None or self.is_ready(), "the service's start", 40)
        return self.process.poll() is None

    def wait_until_ready(self):
        check(self.settled(), "the service ended at its start: " + self.log()[-500:])

    def check_alive(self):
        check(self.process.poll() is None, f"the service ended, code {self.process.poll()}: " + self.log()[-800:])

    def refusal(self):
        """Why a service that ended did so: its one line. Anything but a clean refusal fails."""
        text = self.log()
        lines = [line for line in text.splitlines() if line.startswith("sdconfigd: ")]
        code = self.process.returncode
        check(code == 1 and lines, f"no clean refusal, code {code}: " + text[-800:])
        return lines[-1]

    def kill(self):
        self.process.kill()
        self.process.wait()

    def stop(self):
        self.process.terminate()
        code = self.process.wait(20)
        check(code == 0, f"the service ended with {code}: " + self.log()[-800:])

    def end(self):
        if self.process.poll() is None:
            self.kill()

    def peak_mib(self):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmHWM")) // 1024


class Client:
    """tests/torture/client.cpp in a process: one line asked, one line answered."""

    def __init__(self, world):
        with open(world.path("clients.log"), "ab") as log:
            self.process = subprocess.Popen([PROGRAMS["torture_client"]], env=world.environment, bufsize=0,
                                            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log)
        self.buffer = b""
        world.started.append(self)

    def send(self, *words):
        self.process.stdin.write(" ".join(map(str, words)).encode() + b"\n")

    def receive(self, limit=ANSWER_LIMIT):
        end = time.monotonic() + limit
        while b"\n" not in self.buffer:
            ready, _, _ = select.select([self.process.stdout], [], [], max(0, end - time.monotonic()))
            check(ready, f"a client had no answer within {limit} s")
            piece = os.read(self.process.stdout.fileno(), 65536)
            check(piece, f"a client ended, code {self.process.poll()}")
            self.buffer += piece
        line, self.buffer = self.buffer.split(b"\n", 1)
        return line.decode()

    def ask(self, *words, limit=ANSWER_LIMIT):
        self.send(*words)
        return self.receive(limit)

    def finish(self):
        """Ends its input. Returns what it said until its own end."""
        self.process.stdin.close()
        rest = self.buffer + self.process.stdout.read()
        check(self.process.wait(20) == 0, f"a client ended with {self.process.returncode}")
        return rest.decode()

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()


class Writer:
    """Sets and deletes keys of its own, and knows of each what it may hold: one value after an acknowledged write, the
    old and the new one after one that was under way when the service died."""

    def __init__(self, client, kind, name, seed):
        self.client, self.kind, self.random = client, kind, random.Random(seed)
        self.may_hold = {f"{name}.{i}": {""} for i in range(4)}
        self.entries = {key: [0, 0] for key in self.may_hold}  # of the trail, at least and at most
        self.acknowledged = self.in_flight = self.number = 0
        self.service_dies = threading.Event()
        self.failure = None

    def write_one(self):
        key = self.random.choice(list(self.may_hold))
        self.number += 1
        value = f"{key}={self.number}." + "x" * self.random.choice((0, 10, 300, 5000))
        if self.random.random() < 0.2:
            value = ""
            answer = self.client.ask(*(("delete", key) if self.kind == "secure" else ("policy.delete", key)))
        elif self.kind == "secure":
            answer = self.client.ask("set", key, value)
        else:
            answer = self.client.ask("policy.set", key, value, 9)
        self.entries[key][1] += value != "" or self.may_hold[key] != {""}
        if answer == "1":
            self.entries[key][0] += value != "" or "" not in self.may_hold[key]
            self.may_hold[key] = {value}
            self.acknowledged += 1
            return True
        self.may_hold[key].add(value)
        self.in_flight += 1
        return False

    def write_until_death(self):
        try:
            while self.write_one():
                pass
            check(self.service_dies.is_set(), "a write failed though the service lived")
        except Failed as failure:
            self.failure = failure

    def check(self):
        """Every key holds what it may, which is from now on what it must."""
        for key, allowed in self.may_hold.items():
            if self.kind == "secure":
                value = self.client.ask("get", key)
            else:
                value = self.client.ask("policy.get", key).split(" ")[-1].replace("null_value", "")
            check(value in allowed, f"{key} holds {value[:60]!r}, not one of {[v[:60] for v in allowed]}")
            self.may_hold[key] = {value}


# ---- The wire ----

ALIGNMENT = dict(zip("ybnqiuxtdsogavh({", (1, 4, 2, 2, 4, 4, 8, 8, 8, 4, 4, 1, 4, 1, 4, 8, 8)))
FIXED = dict(zip("ybnqiuxtdh", "BIhHiIqQdI"))


class Marshal:
    def __init__(self):
        self.bytes = bytearray()

    def align(self, to):
        self.bytes += bytes(-len(self.bytes) % to)

    def put(self, kind, value):
        self.align(ALIGNMENT[kind])
        if kind in FIXED:
            self.bytes += struct.pack("<" + FIXED[kind], value)
            return
        data = value if isinstance(value, bytes) else value.encode()
        self.bytes += bytes([len(data)]) if kind == "g" else struct.pack("<I", len(data))
        self.bytes += data if kind == "a" else data + b"\0"

    def put_random(self, signature, rng):
        """A value of each type of the signature."""
        while signature:
            kind, rest = first_type(signature)
            self.put_random_one(kind, rng)
            signature = rest

    def put_random_one(self, kind, rng):
        self.align(ALIGNMENT[kind[0]])
        if kind[0] in FIXED:
            self.put(kind, 0 if kind == "h" else rng.choice((0, 1)) if kind == "b" else rng.choice((0, 1, 100)))
        elif kind in "sog":
            self.put(kind, {"s": rng.choice(("", "key", "ü\x01" * 20)), "o": "/a/b", "g": "a{sv}"}[kind])
        elif kind == "v":
            content = random_type(rng, 3)
            self.put("g", content)
            self.put_random(content, rng)
        elif kind[0] == "a":
            at = len(self.bytes)
            self.bytes += b"\0\0\0\0"
            self.align(ALIGNMENT[kind[1]])
            begin = len(self.bytes)
            for _ in range(rng.choice((0, 1, 3))):
                self.put_random_one(kind[1:], rng)
            struct.pack_into("<I", self.bytes, at, len(self.bytes) - begin)
        else:
            self.put_random(kind[1:-1], rng)


def first_type(signature):
    end = 0
    while signature[end] == "a":
        end += 1
    depth = 0
    while True:
        depth += {"(": 1, "{": 1, ")": -1, "}": -1}.get(signature[end], 0)
        end += 1
        if depth == 0:
            return signature[:end], signature[end:]


def random_type(rng, depth):
    kind = rng.choice("ybnqiuxtdsogvhaa(({") if depth > 0 else rng.choice("ybnqiuxtdsog")
    if kind == "a":
        return "a" + random_type(rng, depth - 1)
    if kind == "(":
        return "(" + "".join(random_type(rng, depth - 1) for _ in range(rng.randint(1, 3))) + ")"
    if kind == "{":
        return "a{" + rng.choice("ybnqiuxtdsog") + random_type(rng, depth - 1) + "}"
    return kind


def message(serial, member, signature="", body=b"", flags=0, interface="sdbus.Service"):
    fields = Marshal()
    for code, kind, value in ((1, "o", "/"), (2, "s", interface), (3, "s", member), (8, "g", signature)):
        if value:
            fields.align(8)
            fields.put("y", code)
            fields.put("g", kind)
            fields.put(kind, value)
    head = struct.pack("<cBBBIII", b"l", 1, flags, 1, len(body), serial, len(fields.bytes)) + fields.bytes
    return head + bytes(-len(head) % 8) + body


def strings(*values):
    body = Marshal()
    for value in values:
        body.put("s", value)
    return "s" * len(values), bytes(body.bytes)


class Peer:
    """A client without a library: bytes, and the least of D-Bus."""

    def __init__(self, world, handshake=True, limit=10):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(limit)
        self.socket.connect(world.socket_path)
        self.buffer = b""
        self.serial = 0
        if handshake:
            self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.geteuid()).encode().hex().encode() + b"\r\nBEGIN\r\n")
            while b"\r\n" not in self.buffer:
                self.read()
            self.buffer = self.buffer.split(b"\r\n", 1)[1]

    def read(self):
        piece = self.socket.recv(1 << 20)
        if not piece:
            raise ConnectionError("cut off")
        self.buffer += piece

    def next(self):
        """The next message: its type, what it replies to, its signature and its body."""
        while len(self.buffer) < 16:
            self.read()
        kind, length, fields = struct.unpack_from("<xBxxI4xI", self.buffer)
        begin = 16 + fields + -fields % 8
        while len(self.buffer) < begin + length:
            self.read()
        whole, self.buffer = self.buffer[:begin + length], self.buffer[begin + length:]
        at = whole.find(b"\x05\x01u\0", 16, begin)  # the reply's serial, which is all that is needed of the fields
        return kind, struct.unpack_from("<I", whole, at + 4)[0] if at >= 0 else 0, whole[begin:]

    def send(self, member, signature="", body=b"", **more):
        self.serial += 1
        self.socket.sendall(message(self.serial, member, signature, body, **more))

    def call(self, member, *values):
        """Strings there, and the body of the answer back."""
        self.send(member, *strings(*values))
        while True:
            kind, serial, body = self.next()
            if serial == self.serial:
                check(kind == 2, f"{member} was answered with an error: {body!r}")
                return body

    def call_text(self, member, *values):
        body = self.call(member, *values)
        length = struct.unpack_from("<I", body)[0]
        return body[4:4 + length].decode()

    def close(self):
        self.socket.close()


class Honest:
    """Calls all the while, in a process of its own, and knows its longest wait."""

    def __init__(self, world):
        self.over = multiprocessing.Event()
        self.told = multiprocessing.Queue()
        self.process = multiprocessing.Process(target=self.run, args=(Peer(world, limit=20),))
        self.process.start()

    def run(self, peer):
        worst, calls, wrong = 0.0, 0, None
        try:
            while not self.over.is_set():
                begin = time.monotonic()
                check(peer.call_text("SIGN_REQUEST", f"honest {calls}") == f"honest {calls}", "not its own answer")
                worst, calls = max(worst, time.monotonic() - begin), calls + 1
                time.sleep(0.002)
        except (Failed, OSError) as error:
            wrong = str(error)
        self.told.put((worst, calls, wrong))

    def finish(self):
        self.over.set()
        worst, calls, wrong = self.told.get(timeout=30)
        self.process.join()
        check(wrong is None, f"an honest client beside failed: {wrong}")
        check(worst < SLACK["factor"] * SLACK["patience"], f"an honest client beside waited {worst:.2f} s")
        return f"honest client: {calls} calls, at worst {worst * 1000:.0f} ms"
