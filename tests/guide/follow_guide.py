"""Does what docs/your-first-service.md says, to the letter, and sees that what it promises happens.

A fenced block of proto, cmake or cpp is a file, which the heading above it names. A block of sh is run
as it stands. A block marked "terminal NAME" starts a program that goes on, "output NAME" is all that it
has printed by then. In a block marked "terminal", each line behind a "$ " is run and prints the lines
that follow.

Only the first step is done in another way: the tree that is under test is installed as it has been
built, because `./dev install` would build it again.
"""

import collections
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import threading
import unittest

PATIENCE_SECONDS = 120
SOURCES = pathlib.Path(os.environ["VARNIC_SOURCE_DIR"])
GUIDE = SOURCES / "docs" / "your-first-service.md"

Block = collections.namedtuple("Block", "kind name text file")


def blocks(guide):
    """The fenced blocks in their order, each with the file that the last heading names."""
    file = None
    found = re.compile(r"^##[^\n]*|^```(\w+)(?: (\w+))?\n(.*?)^```$", re.MULTILINE | re.DOTALL)
    for match in found.finditer(guide):
        if match[0].startswith("##"):
            named = re.search(r"`(.+)`", match[0])
            file = named and named[1]
        else:
            yield Block(match[1], match[2], match[3], file)


class Program:
    """One that goes on in a terminal of its own."""

    def __init__(self, command, folder):
        self._process = subprocess.Popen(["sh", "-c", "exec " + command], cwd=folder,
                                         stdout=subprocess.PIPE, text=True)
        self._printed = ""
        self._more = threading.Condition()
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            with self._more:
                self._printed += line
                self._more.notify_all()

    def wait_for_output(self, text):
        with self._more:
            self._more.wait_for(lambda: self._printed == text, PATIENCE_SECONDS)
            return self._printed

    def wait_for_line(self, line):
        with self._more:
            self._more.wait_for(lambda: line in self._printed.splitlines(), PATIENCE_SECONDS)
            return self._printed.splitlines()

    def stop(self):
        self._process.send_signal(signal.SIGINT)  # Ctrl-C.
        self._process.wait(PATIENCE_SECONDS)
        self._reader.join()
        self._process.stdout.close()


class GuideTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.home = pathlib.Path(folder.name)
        self.folder = self.home / "bookmarks"
        self.folder.mkdir()
        self.programs = {}
        self.commands = {}

    def test_guide_leads_to_what_it_promises(self):
        steps = list(blocks(GUIDE.read_text()))
        self.assertEqual(steps[0].text, "./dev install ~/varnic\n")
        self.run_shell(f"cmake --install '{os.environ['VARNIC_BUILD_DIR']}' --prefix ~/varnic")
        kinds = collections.Counter()

        for step in steps[1:]:
            self.follow(step)
            kinds[step.kind] += 1

        self.assertEqual(kinds, {"proto": 1, "cmake": 1, "cpp": 2, "sh": 1, "terminal": 3,
                                 "output": 1})
        self.restart_the_host_as_the_last_step_says()

    def follow(self, step):
        if step.kind in ("proto", "cmake", "cpp"):
            (self.folder / step.file).write_text(step.text)
        elif step.kind == "sh":
            self.run_shell(step.text)
        elif step.kind == "output":
            self.assertEqual(self.programs[step.name].wait_for_output(step.text), step.text)
        elif step.name:
            self.start(step.name, step.text)
        else:
            self.type(step.text)

    def run_shell(self, text):
        subprocess.run(["bash", "-euo", "pipefail", "-c", text], cwd=self.folder, check=True,
                       env={**os.environ, "HOME": str(self.home)})

    def start(self, name, command):
        self.commands[name] = command
        program = self.programs[name] = Program(command, self.folder)
        self.addCleanup(program.stop)
        if name == "host":
            self.wait_for_host()
        else:
            program.wait_for_line("watching")

    def wait_for_host(self):
        """A reader has no terminal ready before the host has come up."""
        for _ in range(1000):
            add = self.add("nobody", "https://example.net/")
            if add == "added\n":
                return
        self.fail(f"the host does not answer: {add}")

    def add(self, profile, url):
        command = ["./build/bookmarks", "add", profile, url]
        return subprocess.run(command, cwd=self.folder, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True,
                              timeout=PATIENCE_SECONDS).stdout

    def type(self, dialogue):
        for command, printed in re.findall(r"^\$ (.*)\n((?:[^$].*\n)*)", dialogue, re.MULTILINE):
            ran = subprocess.run(command, shell=True, cwd=self.folder, stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, text=True, timeout=PATIENCE_SECONDS)
            self.assertEqual(ran.stdout, printed)

    def restart_the_host_as_the_last_step_says(self):
        self.programs["host"].stop()
        self.start("host", self.commands["host"])
        watcher = self.programs["watcher"]
        back = "watching\nhttps://example.org/\nwatching\n"
        self.assertEqual(watcher.wait_for_output(back), back)

        self.add("work", "https://example.org/again")

        again = back + "https://example.org/again\n"
        self.assertEqual(watcher.wait_for_output(again), again)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
