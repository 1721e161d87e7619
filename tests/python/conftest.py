"""A service of a test's own, and the command line beside it. $SDCONFIGD and $SDCONFIG are the programs."""

import os
import pathlib
import subprocess

import pytest


class World:
    def __init__(self, folder: pathlib.Path) -> None:
        self.folder = folder
        for name in ("run", "home", "data"):
            (folder / name).mkdir(mode=0o700)
        self.service = None

    def start(self) -> None:
        command = [os.environ["SDCONFIGD"], "--data-dir", self.folder / "data"]
        self.service = subprocess.Popen(command, stderr=subprocess.PIPE, text=True)
        for line in self.service.stderr:
            if "ready on" in line:
                return
        raise AssertionError("the service did not start")

    def kill(self) -> None:
        if self.service:
            self.service.kill()
            self.service.communicate()

    @staticmethod
    def cli(*arguments: str) -> str:
        done = subprocess.run([os.environ["SDCONFIG"], *arguments], check=True, stdout=subprocess.PIPE, text=True)
        return done.stdout.removesuffix("\n")


@pytest.fixture
def world(tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_RUNTIME_DIR", str(tmp_path / "run"))
    for variable in ("HOME", "XDG_DATA_HOME"):
        monkeypatch.setenv(variable, str(tmp_path / "home"))
    made = World(tmp_path)
    made.start()
    yield made
    made.kill()
