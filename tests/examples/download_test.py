"""Runs the host and the client of examples/download: those in $VARNIC_EXAMPLES, if that is set, or
else those that it builds, as a newcomer does, against a package that it installs."""

import os
import pathlib
import socket
import subprocess
import tempfile
import threading
import unittest

# More than any step takes on a slow machine; a test that runs into it has failed.
PATIENCE_SECONDS = 120

CONTENT = os.urandom(8_000_000)

# `stdbuf` preloads a library of its own, and AddressSanitizer wants to be the first.
UNBUFFERED = {**os.environ, "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "")
              + ":verify_asan_link_order=0"}


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)


def build(folder):
    """Builds the example in `folder`, and returns where its programs are."""
    run("cmake", "--install", os.environ["VARNIC_BUILD_DIR"], "--prefix", f"{folder}/prefix")
    run("cmake", "-S", os.environ["VARNIC_SOURCE_DIR"] + "/examples/download",
        "-B", f"{folder}/build", f"-DCMAKE_PREFIX_PATH={folder}/prefix")
    run("cmake", "--build", f"{folder}/build")
    return pathlib.Path(folder) / "build"


class Relay:
    """Hands bytes on between two Unix-domain sockets, until each connection is cut."""

    def __init__(self, target, path):
        self.target = target
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(path)
        self.listener.listen()
        self.ends = []
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            try:
                here, _ = self.listener.accept()
            except OSError:
                return
            there = socket.socket(socket.AF_UNIX)
            there.connect(self.target)
            self.ends += [here, there]
            for ends in (here, there), (there, here):
                threading.Thread(target=self.hand_on, args=ends, daemon=True).start()

    def hand_on(self, source, sink):
        try:
            while data := source.recv(1 << 16):
                sink.sendall(data)
        except OSError:
            pass

    def cut(self):
        for end in self.ends:
            end.shutdown(socket.SHUT_RDWR)

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        for end in self.ends:
            end.close()


class DownloadTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        built = os.environ.get("VARNIC_EXAMPLES")
        cls.programs = pathlib.Path(built) / "download" if built else build(folder.name)

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.downloads = self.folder / "downloads"
        self.downloads.mkdir()
        self.address = f"unix:{self.folder}/host.sock"

    def start_host(self):
        host = subprocess.Popen(
            [self.programs / "download_host", self.address, self.downloads]
        )
        self.addCleanup(host.wait)
        self.addCleanup(host.terminate)
        return host

    def start_client(self, name, answer, address=None, profile="work"):
        client = subprocess.Popen(
            ["stdbuf", "-oL", self.programs / "download_client", address or self.address, profile,
             self.folder / name, answer],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=UNBUFFERED,
        )
        self.addCleanup(client.communicate)
        self.addCleanup(client.kill)
        return client

    def download(self, name, answer):
        """What the client prints for a file of that name, and its exit status."""
        (self.folder / name).write_bytes(CONTENT)
        client = self.start_client(name, answer)
        output, errors = client.communicate(timeout=PATIENCE_SECONDS)
        self.assertEqual(errors, "")
        return output, client.returncode

    def assert_paused_and_went_on(self, output):
        self.assertRegex(output, r"PAUSED at \d+ bytes\nRUNNING at \d+ bytes\n")

    def test_harmless_file_is_downloaded_with_a_pause(self):
        self.start_host()

        output, status = self.download("page.html", "no")

        self.assert_paused_and_went_on(output)
        self.assertTrue(output.endswith("bytes\nCOMPLETE at 8000000 bytes\n"), output)
        self.assertEqual(status, 0)
        self.assertEqual((self.downloads / "page.html").read_bytes(), CONTENT)

    def test_dangerous_file_is_kept_if_the_client_says_so(self):
        self.start_host()

        output, status = self.download("setup.exe", "yes")

        self.assert_paused_and_went_on(output)
        self.assertTrue(output.endswith("Keep setup.exe? yes\nCOMPLETE at 8000000 bytes\n"), output)
        self.assertEqual(status, 0)
        self.assertEqual((self.downloads / "setup.exe").read_bytes(), CONTENT)

    def test_dangerous_file_is_gone_if_the_client_says_no(self):
        self.start_host()

        output, status = self.download("setup.exe", "no")

        self.assertTrue(output.endswith("Keep setup.exe? no\nDISCARDED at 8000000 bytes\n"), output)
        self.assertEqual(status, 1)
        self.assertEqual(list(self.downloads.iterdir()), [])

    def test_file_that_is_not_there_is_named(self):
        self.start_host()

        client = self.start_client("nothing", "no")

        output, errors = client.communicate(timeout=PATIENCE_SECONDS)
        self.assertEqual(output, "")
        self.assertIn(f"There is no such file to fetch: {self.folder}/nothing", errors)
        self.assertEqual(client.returncode, 1)

    def test_clients_of_one_profile_follow_their_own_downloads(self):
        self.start_host()
        (self.folder / "long.html").write_bytes(CONTENT * 3)
        (self.folder / "short.html").write_bytes(CONTENT)

        long, short = (self.start_client(name, "no") for name in ["long.html", "short.html"])

        for client, size in (short, len(CONTENT)), (long, 3 * len(CONTENT)):
            output, errors = client.communicate(timeout=PATIENCE_SECONDS)
            self.assertEqual((client.returncode, errors), (0, ""))
            self.assert_paused_and_went_on(output)
            self.assertEqual(output.count("PAUSED"), 1)
            self.assertTrue(output.endswith(f"COMPLETE at {size} bytes\n"), output)
        self.assertEqual((self.downloads / "long.html").read_bytes(), CONTENT * 3)

    def test_host_that_is_started_anew_is_asked_for_the_file_again(self):
        host = self.start_host()
        (self.folder / "page.html").write_bytes(CONTENT)
        client = self.start_client("page.html", "no")
        self.assertRegex(client.stdout.readline(), r"(PAUSED|RUNNING) at")
        host.kill()
        host.wait()

        self.start_host()

        output, errors = client.communicate(timeout=PATIENCE_SECONDS)
        self.assertEqual((client.returncode, errors), (0, ""))
        self.assertTrue(output.endswith("COMPLETE at 8000000 bytes\n"), output)

    def test_download_goes_on_after_a_mere_loss(self):
        self.start_host()
        (self.folder / "page.html").write_bytes(CONTENT * 5)  # More than coming back takes.
        relay = Relay(f"{self.folder}/host.sock", f"{self.folder}/relay.sock")
        self.addCleanup(relay.close)
        client = self.start_client("page.html", "no", address=f"unix:{self.folder}/relay.sock")
        # A slow client hears of a chunk or two before its pause.
        while "PAUSED" not in (line := client.stdout.readline()):
            self.assertIn("RUNNING at", line)

        relay.cut()

        output, errors = client.communicate(timeout=PATIENCE_SECONDS)
        self.assertEqual((client.returncode, errors), (0, ""))
        self.assertTrue(output.endswith("COMPLETE at 40000000 bytes\n"), output)
        self.assertNotIn("PAUSED", output)  # As another one would be.

    def test_client_that_is_there_first_waits_for_the_host(self):
        (self.folder / "page.html").write_bytes(CONTENT)
        client = self.start_client("page.html", "no")
        self.assertIsNone(client.poll())

        self.start_host()

        output, _ = client.communicate(timeout=PATIENCE_SECONDS)
        self.assertIn("COMPLETE at 8000000 bytes", output)


if __name__ == "__main__":
    unittest.main()
