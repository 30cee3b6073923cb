"""Starts the programs under test, and the browser whose directories they serve."""

import http.server
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import threading
import unittest
import urllib.request

# Given by the build: where the programs are.
BUILD_DIR = pathlib.Path(os.environ["VARNIC_BUILD_DIR"])
HOST = BUILD_DIR / "tools" / "varnic-host"
CTL = BUILD_DIR / "tools" / "varnicctl"
CHROMIUM = "/usr/bin/chromium"

# More than any step takes on a slow machine; a test that runs into it has failed.
PATIENCE_SECONDS = 60


class Host:
    """A running varnic-host, or another program that says what it says. Use it as a context
    manager."""

    def __init__(self, *arguments, program=HOST, env=None, user=None, pass_fds=()):
        self._log = tempfile.TemporaryFile(mode="w+")
        self.process = subprocess.Popen(
            [program, *arguments],
            stdout=subprocess.PIPE,
            stderr=self._log,
            text=True,
            env=env,
            user=user,
            pass_fds=pass_fds,
        )
        # The host says these lines once it listens; at its end it says nothing more.
        self.announcement = []
        for line in self.process.stdout:
            self.announcement.append(line.rstrip("\n"))
            if line.startswith("Try: "):
                break

    @property
    def addresses(self):
        prefix = "Listening on "
        return [line[len(prefix):] for line in self.announcement if line.startswith(prefix)]

    def stderr(self):
        # The host shares the file's position, and may be writing.
        descriptor = self._log.fileno()
        return os.pread(descriptor, os.fstat(descriptor).st_size, 0).decode()

    def stop(self):
        """Ends the host as an operator would, and returns its exit status."""
        self.process.terminate()
        status = self.process.wait(PATIENCE_SECONDS)
        self.process.stdout.close()
        self._log.seek(0)
        return status

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.stop()
        self.process.stdout.close()
        self._log.close()


def copy_for_everybody(program, folder):
    """A copy that every user can run who gets to `folder`, wherever the build tree stands."""
    copy = pathlib.Path(folder) / program.name
    shutil.copy(program, copy)
    copy.chmod(0o755)
    return copy


class HostTestCase(unittest.TestCase):
    """Tests of hosts that have a home of their own, in `self.folder`."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.folder.chmod(0o711)  # Other users get through it.
        self.addCleanup(shutil.rmtree, self.folder)
        (self.folder / "run").mkdir(mode=0o700)
        self.environment = dict(
            os.environ,
            HOME=str(self.folder),
            XDG_RUNTIME_DIR=str(self.folder / "run"),
            XDG_DATA_HOME=str(self.folder / "data"),
        )

    def start_host(self, *arguments, **options):
        host = Host(*arguments, env=self.environment, **options)
        self.addCleanup(host.__exit__)
        self.assertNotEqual(host.addresses, [], host.stderr())
        return host


def assert_host_refuses(test, status, texts, arguments, env):
    """varnic-host ends by itself with that status, and says each of the texts."""
    result = subprocess.run(
        [HOST, *arguments], capture_output=True, text=True, env=env, timeout=PATIENCE_SECONDS
    )
    test.assertEqual(result.returncode, status, result.stderr)
    for text in texts:
        test.assertIn(text, result.stderr)


# Of a varnic-host, whatever it serves.
HOST_THREADS = ["varnic-files", "varnic-host"]


def threads(host):
    """The names of a host's threads, in their order."""
    process = pathlib.Path(f"/proc/{host.process.pid}")
    names = sorted((task / "comm").read_text().strip() for task in (process / "task").iterdir())
    if "libtsan" in (process / "maps").read_text():
        names.remove("varnic-host")  # ThreadSanitizer has one of its own, under the program's name.
    return names


def metrics(host):
    """The text of the metrics of a host that was started with --metrics and a TCP address."""
    prefix = "Metrics on "
    address = next(line[len(prefix):] for line in host.announcement if line.startswith(prefix))
    with urllib.request.urlopen(f"http://{address}/metrics", timeout=PATIENCE_SECONDS) as page:
        return page.read().decode()


def ctl(*arguments, env=None):
    """Runs varnicctl to its end."""
    return subprocess.run(
        [CTL, *arguments], capture_output=True, text=True, env=env, timeout=PATIENCE_SECONDS
    )


# The text is what ctest knows a skipped test by.
needs_chromium = unittest.skipUnless(
    os.access(CHROMIUM, os.X_OK),
    f"{CHROMIUM} is not installed: install Debian's package chromium")


def dump_page(user_data_dir, html):
    """The text that a script in `html` leaves in the body, in a Chromium of that directory."""

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            self.send_response(200)
            self.send_header("Content-Type", "text/html; charset=utf-8")
            self.end_headers()
            self.wfile.write(html.encode())

        def log_message(self, *_):
            pass

    # Client hints are for secure pages only, and loopback counts as secure.
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        try:
            page = run_chromium(
                user_data_dir,
                "--virtual-time-budget=10000",
                "--dump-dom",
                f"http://127.0.0.1:{server.server_address[1]}/",
            )
        finally:
            server.shutdown()
            thread.join()
    body = page[page.index("<body>") + len("<body>"):page.index("</body>")]
    return body.replace("&amp;", "&").replace("&lt;", "<").replace("&gt;", ">").strip()


def run_chromium(user_data_dir, *arguments):
    """Runs a headless Chromium on a directory until it ends by itself."""
    result = subprocess.run(
        [
            CHROMIUM,
            "--headless",
            "--no-sandbox",  # Root has none, and CI is root.
            "--disable-gpu",
            "--disable-quic",
            "--no-first-run",
            "--disable-background-networking",
            "--disable-component-update",
            "--disable-sync",
            f"--user-data-dir={user_data_dir}",
            *arguments,
        ],
        capture_output=True,
        text=True,
        timeout=PATIENCE_SECONDS,
    )
    if result.returncode != 0:
        raise RuntimeError(f"chromium ended with {result.returncode}: {result.stderr}")
    return result.stdout


def make_user_data_dir(path):
    """Lets Chromium make a user-data directory with its default profile."""
    run_chromium(path, "--dump-dom", "about:blank")


def preferences(user_data_dir, profile="Default"):
    return json.loads((pathlib.Path(user_data_dir) / profile / "Preferences").read_text())
