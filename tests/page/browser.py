"""Debian's Chromium, driven over the wire of WebDriver. Nothing here needs a package of Python's."""
import base64
import json
import pathlib
import re
import shutil
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

ARGUMENTS = ("--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking "
             "--disable-component-update --disable-sync --hide-scrollbars").split()


class Browser:
    """One browser with a profile of its own, gone at the end of the "with"."""

    def __init__(self, trace=False):
        self.profile = tempfile.mkdtemp(prefix="sdconfig-page.")
        self.driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                       text=True)
        self.session = None
        try:
            self._begin(trace)
        except BaseException:
            self.close()
            raise

    def _begin(self, trace):
        port = None
        while port is None:
            line = self.driver.stdout.readline()
            if not line:
                raise RuntimeError("chromedriver does not start")
            port = re.search(r"started successfully on port (\d+)", line)
        self.base = f"http://127.0.0.1:{port[1]}"
        options = {"binary": shutil.which("chromium"), "args": [*ARGUMENTS, f"--user-data-dir={self.profile}"]}
        wanted = {"browserName": "chrome", "goog:chromeOptions": options, "goog:loggingPrefs": {"browser": "ALL"}}
        if trace:
            options["perfLoggingPrefs"] = {"traceCategories": "loading,rail"}
            wanted["goog:loggingPrefs"]["performance"] = "ALL"
        answer = self._send("POST", "/session", {"capabilities": {"alwaysMatch": wanted}})
        self.session = "/session/" + answer["sessionId"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        if self.session:
            try:
                self._send("DELETE", self.session)
            except OSError:
                pass
        self.driver.terminate()
        self.driver.wait()
        shutil.rmtree(self.profile, ignore_errors=True)

    def _send(self, method, path, body=None):
        request = urllib.request.Request(self.base + path, method=method, headers={"Content-Type": "application/json"},
                                         data=None if body is None else json.dumps(body).encode())
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(json.load(error)["value"]["message"].splitlines()[0]) from None

    def call(self, path, body):
        return self._send("POST", self.session + path, body)

    def devtools(self, command, **parameters):
        return self.call("/goog/cdp/execute", {"cmd": command, "params": parameters})

    def show(self, file, *, dark=False, width=1280, height=900, script=True, paper=False):
        """Loads the page anew, as somebody with such a screen and such preferences has it."""
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self.devtools("Emulation.setEmulatedMedia", features=[scheme], media="print" if paper else "")
        self.devtools("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1,
                      mobile=width < 600)
        self.devtools("Emulation.setScriptExecutionDisabled", value=not script)
        self.call("/url", {"url": "about:blank"})
        self.call("/url", {"url": pathlib.Path(file).as_uri()})

    def run(self, script, *arguments):
        return self.call("/execute/sync", {"script": script, "args": list(arguments)})

    def run_slowly(self, script, *arguments):
        """The script calls its last argument with the result."""
        return self.call("/execute/async", {"script": script, "args": list(arguments)})

    def type(self, text):
        actions = [{"type": kind, "value": key} for key in text for kind in ("keyDown", "keyUp")]
        self.call("/actions", {"actions": [{"type": "key", "id": "keyboard", "actions": actions}]})

    def wait_for(self, script, seconds=10):
        limit = time.monotonic() + seconds
        while not self.run(f"return {script}"):
            if time.monotonic() > limit:
                raise RuntimeError(f"waited in vain for: {script}")
            time.sleep(0.02)

    def complaints(self):
        """What the browser had to say of the page since it was asked last: violations of its policy, errors."""
        return [entry["message"] for entry in self.call("/se/log", {"type": "browser"})]

    def times_of(self, *names, seconds=10):
        """The latest time of each of the events in the browser's own trace, in seconds; waits until all are there."""
        times, limit = {}, time.monotonic() + seconds
        while len(times) < len(names):
            if time.monotonic() > limit:
                raise RuntimeError(f"the trace lacks one of {names}")
            for entry in self.call("/se/log", {"type": "performance"}):
                message = json.loads(entry["message"])["message"]
                event = message["params"]
                if message["method"] == "Tracing.dataCollected" and event.get("name") in names:
                    times[event["name"]] = max(times.get(event["name"], 0), event["ts"] / 1e6)
        return [times[name] for name in names]

    def picture(self, file, clip=None):
        region = {"clip": {**clip, "scale": 1}} if clip else {}
        data = self.devtools("Page.captureScreenshot", format="png", captureBeyondViewport=bool(clip), **region)
        pathlib.Path(file).write_bytes(base64.b64decode(data["data"]))
