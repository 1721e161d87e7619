"""The pieces that the scenarios share: a world of folders, the service in it, clients, and a raw peer."""
import concurrent.futures
import contextlib
import json
import multiprocessing
import os
import pathlib
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

PROGRAMS = {}  # the paths of what was built, by file name
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


def timed(function, *arguments):
    """What it gives, and how many seconds that took."""
    begin = time.monotonic()
    return function(*arguments), time.monotonic() - begin


@contextlib.contextmanager
def beside(*tasks):
    """Runs each task beside the block, on a thread of its own, and gives it an event that is set when the block ends,
    if not before. What fails in a task fails here."""
    over = threading.Event()
    with concurrent.futures.ThreadPoolExecutor(len(tasks)) as pool:
        running = [pool.submit(task, over) for task in tasks]
        try:
            yield over
        finally:
            over.set()
            for task in running:
                task.result()


def run_beside(commands):
    """Runs programs at the same time. Returns what each said."""
    running = [subprocess.Popen(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
               for command in commands]
    texts = [one.communicate()[0] for one in running]
    for one, text in zip(running, texts):
        check(one.returncode == 0, f"{' '.join(one.args[:4])}: {text[-4000:]}")
    return texts


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

    def command(self, *arguments, text="", **variables):
        """Has the command line do something. Returns what it printed."""
        done = subprocess.run([PROGRAMS["sdconfig"], *arguments], env={**self.environment, **variables}, text=True,
                              input=text, capture_output=True, check=False)
        check(done.returncode == 0,
              f"sdconfig {' '.join(arguments)} ended with {done.returncode}: {(done.stdout + done.stderr)[-400:]}")
        return done.stdout

    def held(self, folder, **variables):
        """What a data folder holds by its own account, by kind and name."""
        listing = json.loads(self.command("list", "--data-dir", folder, "--show", "--json", **variables))
        held = {("secure", row["key"]): row["value"] for row in listing["secure"]}
        held.update({("policy", row["uri"]): row["value"] for row in listing["policies"]})
        return held

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
        paths = [pathlib.Path(self.path("data"), name) for name in names]
        files = {path.name: path.read_bytes() for path in paths if path.exists()}
        return {name: data for name, data in files.items() if data or not name.endswith("-wal")}


class Service:
    def __init__(self, world, options=(), prefix=()):
        self.log_path = pathlib.Path(world.path(f"service-{len(world.started)}.log"))
        arguments = [*prefix, PROGRAMS["sdconfigd"], "--data-dir", world.path("data"), "--product-dir",
                     world.path("data"), *options]
        # A process under a tracer can't look for leaks.
        environment = dict(world.environment, ASAN_OPTIONS="detect_leaks=0") if prefix else world.environment
        with self.log_path.open("wb") as log:
            self.process = subprocess.Popen(arguments, env=environment, stdin=subprocess.DEVNULL, stdout=log,
                                            stderr=log)
        world.started.append(self)

    def log(self):
        return self.log_path.read_text(encoding="utf-8", errors="replace")

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
        self.log_path = pathlib.Path(world.path(f"client-{len(world.started)}.log"))
        with self.log_path.open("wb") as log:
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
            if not piece:
                raise Failed(f"a client ended, code {self.process.wait(20)}: {self.log_path.read_text()[-500:]}")
            self.buffer += piece
        line, self.buffer = self.buffer.split(b"\n", 1)
        return line.decode()

    def ask(self, *words, limit=ANSWER_LIMIT):
        self.send(*words)
        return self.receive(limit)

    def read(self, kind, key):
        return self.ask(f"{kind}.get", key)

    def write(self, kind, key, value, priority=9):
        """A value of "" is deleted. Whether that was acknowledged."""
        words = (f"{kind}.delete", key) if value == "" else (f"{kind}.set", key, value, priority)
        return self.ask(*words) == "1"

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

    def write_one(self):
        key = self.random.choice(list(self.may_hold))
        self.number += 1
        value = f"{key}={self.number}." + "x" * self.random.choice((0, 10, 300, 5000))
        if self.random.random() < 0.2:
            value = ""
        is_done = self.client.write(self.kind, key, value)
        self.entries[key][1] += value != "" or self.may_hold[key] != {""}
        if is_done:
            self.entries[key][0] += value != "" or "" not in self.may_hold[key]
            self.may_hold[key] = {value}
            self.acknowledged += 1
        else:
            self.may_hold[key].add(value)
            self.in_flight += 1
        return is_done

    def write_until(self, death):
        while self.write_one():
            pass
        check(death.is_set(), "a write failed though the service lived")

    def check(self):
        """Every key holds what it may, which is from now on what it must."""
        for key, allowed in self.may_hold.items():
            value = self.client.read(self.kind, key)
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


def packed(signature, *values):
    """A signature of basic types, and the body of a message with these values."""
    body = Marshal()
    for kind, value in zip(signature, values):
        body.put(kind, value)
    return signature, bytes(body.bytes)


def strings(*values):
    return packed("s" * len(values), *values)


def text_at(body, at=0):
    """The string there, and where it ends."""
    at += -at % 4
    end = at + 4 + struct.unpack_from("<I", body, at)[0]
    return body[at + 4:end].decode(), end + 1


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
        return text_at(self.call(member, *values))[0]

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
