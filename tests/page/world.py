"""A data folder, a service on it, and what a page of them is to show: hostile, or plentiful."""
import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
MEMORY = "/dev/shm" if os.path.isdir("/dev/shm") else None  # where a sync costs nothing
PROGRAMS = ROOT / "build/release/apps"

# What would be an element, a reference, an attribute, a script or a command, were it taken for more than a text.
HOSTILE = ["<evil-node>", "</title></style></script><script>evil()</script>", "\"'><img src=x onerror=evil()>", "{{title}}",
           "&lt;evil&#60;", "--><!--", "javascript:evil()", "]]>", "\u202egnp.\u2066exe\u2069", "\u05d0\u05d1\u05d2 abc",
           "\x1b]0;evil\x07\x1b[31m", "a\tb\nc", "${evil}", "e\u0301\u200b\ufeff", "\U0001f512", "x" * 65000]
INVALID = [b"\xed\xa0\x80 lone", b"\xff\xfe", b"cut \xe2\x82"]  # as far as an argument holds them


class World:
    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="sdconfig.", dir=MEMORY))
        for name in ("run", "home", "data", "product/data", "product/etc", "policies"):
            (self.folder / name).mkdir(mode=0o700, parents=True)
        self.environment = {"PATH": f"{PROGRAMS}/sdconfigd:{PROGRAMS}/sdconfig:{os.environ['PATH']}", "LC_ALL": "C.UTF-8",
                            "XDG_RUNTIME_DIR": str(self.folder / "run"), "HOME": str(self.folder / "home")}
        self.service = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.service:
            self.service.send_signal(signal.SIGTERM)
            self.service.wait()
        shutil.rmtree(self.folder)

    def start(self):
        log = self.folder / "log"
        with open(log, "wb") as file:
            self.service = subprocess.Popen(
                ["sdconfigd", "--data-dir", self.folder / "data", "--product-dir", self.folder / "product/data",
                 "--policy-dir", self.folder / "policies"], env=self.environment, stderr=file)
        limit = time.monotonic() + 20
        while b"ready" not in log.read_bytes():
            if self.service.poll() is not None or time.monotonic() > limit:
                raise RuntimeError(log.read_text(errors="replace"))
            time.sleep(0.02)

    def call(self, *arguments, text=None):
        return subprocess.run(["sdconfig", *arguments], env=self.environment, input=text, capture_output=True, check=False)

    def set(self, key, value):
        self.call("secure", "set", "--", key, text=value if isinstance(value, bytes) else value.encode())

    def write_policies(self, name, policies):
        (self.folder / "policies" / name).write_text(json.dumps(policies, indent=1))

    def write_properties(self, lines):
        (self.folder / "product/etc/build.prop").write_bytes(b"".join(line + b"\n" for line in lines))

    def report(self, name, *options):
        """The page's file, and the seconds that it took."""
        file = self.folder / name
        began = time.monotonic()
        done = self.call("report", "-o", file, *options)
        if done.returncode != 0:
            raise RuntimeError(done.stderr.decode(errors="replace"))
        return file, time.monotonic() - began


def fill_with_hostility(world):
    world.write_policies("50-fleet.json", {f"policy {text}": {"value": text, "priority": 7 - i % 5, "description": text}
                                           for i, text in enumerate(HOSTILE[:-1])})
    (world.folder / "policies/60-<evil-node>.json").write_text('{"<evil-node>": ')
    world.write_properties([b"sd.ui.theme=light", b"ro.sd.product.name=Velmar", b"ro.sd.product.name=<evil-node>"] +
                           [b"property " + text.encode().replace(b"\n", b" ")[:500] + b"=" + text.encode()[:400]
                            for text in HOSTILE] + [b"invalid " + data + b"=" + data for data in INVALID])
    world.start()
    for i, text in enumerate(HOSTILE):
        world.set(f"secure {i} {text}"[:60000], text)
        world.call("policy", "set", "--", f"stored {i} {text}"[:60000], "value", str(3 + i % 5))
    for i, data in enumerate(INVALID):
        world.set(b"invalid %d " % i + data, data)
    world.set(f"policy {HOSTILE[0]}", "set locally, too")
    world.call("set", "sd.ui.theme", "<evil-node>")


def fill_with_many(world, count):
    """Of each kind some, as a client has them; few of those whose setting takes a process and a sync each."""
    stored = min(count // 10, 100)
    properties = count // 10 * 3
    names = [f"velmar.area{i % 40}.policy{i}" for i in range(count - 2 * stored - properties)]
    world.write_policies("50-fleet.json", {name: {"value": f"value of {name[-4:]}", "priority": 10} for name in names})
    world.write_properties([b"sd.area%d.property%d=value %d" % (i % 40, i, i) for i in range(properties)])
    world.start()
    (world.folder / "stored.json").write_text(json.dumps(
        {f"velmar.area{i % 40}.default{i}": {"value": "as it comes", "priority": 3} for i in range(stored)}))
    world.call("policy", "apply", world.folder / "stored.json")
    for i in range(stored):
        world.set(f"velmar.area{i % 40}.setting{i}", f"secret {i}")
