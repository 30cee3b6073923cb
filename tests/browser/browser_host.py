"""A varnic-host with live browsers, and a client of it that is not ours: client.js, which reads
commands from its standard input, one JSON object in each line:

  {"do": "call", "call": N, "service": "Profile", "method": ..., "request": {...}, "seconds": N}
  {"do": "open", "call": N, "service": "Profile", "method": ...}    a stream
  {"do": "send", "call": N, "message": {...}}
  {"do": "cancel", "call": N}

and writes what comes of its calls:

  {"call": N, "message": {...}}
  {"call": N, "code": N, "text": ...}    the end

Messages are as @grpc/proto-loader has them: names in camel case, 64-bit numbers as text.
"""

import collections
import contextlib
import enum
import itertools
import json
import os
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

FOLDER = pathlib.Path(__file__).parent
sys.path.insert(0, str(FOLDER.parent / "programs"))
import programs  # pylint: disable=wrong-import-position

PATIENCE_SECONDS = programs.PATIENCE_SECONDS
IS_ROOT = os.geteuid() == 0
# Chromium has no sandbox for root, which CI is.
SANDBOX = ["--no-sandbox"] if IS_ROOT else []

Code = enum.IntEnum("Code", """OK CANCELLED UNKNOWN INVALID_ARGUMENT DEADLINE_EXCEEDED NOT_FOUND
    ALREADY_EXISTS PERMISSION_DENIED RESOURCE_EXHAUSTED FAILED_PRECONDITION ABORTED OUT_OF_RANGE
    UNIMPLEMENTED INTERNAL UNAVAILABLE DATA_LOSS UNAUTHENTICATED""", start=0)

# How a call has ended; `response` is None unless it is OK.
Answer = collections.namedtuple("Answer", "code text response")


def wait_until(is_so, what, seconds=PATIENCE_SECONDS):
    """Waits for what no event tells; the value that was."""
    deadline = time.monotonic() + seconds
    while not (value := is_so()):
        if time.monotonic() > deadline:
            raise AssertionError(f"after {seconds} s, {what}")
        time.sleep(0.02)
    return value


class Call:
    """A call that has been begun, unary or a stream."""

    def __init__(self, client, number):
        self._client = client
        self._number = number
        self._events = queue.SimpleQueue()
        self._end = None

    def on_event(self, event):
        """On the thread that reads what the client writes."""
        self._events.put(event)

    def send(self, message):
        self._client.do("send", call=self._number, message=message)

    def cancel(self):
        self._client.do("cancel", call=self._number)

    def receive(self, seconds=PATIENCE_SECONDS):
        """The next message, or None at the end."""
        if self._end is not None:
            return None
        try:
            event = self._events.get(timeout=seconds)
        except queue.Empty:
            raise AssertionError(f"nothing came within {seconds} s") from None
        if "message" in event:
            return event["message"]
        self._end = Answer(Code(event["code"]), event["text"], None)
        return None

    def receive_until(self, is_wanted):
        """The next message that is one of these; those before it are passed over."""
        while not is_wanted(message := self.receive()):
            if message is None:
                raise AssertionError(f"the stream has ended: {self._end}")
        return message

    def answer(self, seconds=2 * PATIENCE_SECONDS):
        """Waits for the end."""
        response = None
        while (message := self.receive(seconds)) is not None:
            response = message
        return self._end._replace(response=response)


class Client:
    """A running client.js."""

    def __init__(self, target):
        self._process = subprocess.Popen(
            ["node", str(FOLDER / "client.js"), target],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self._numbers = itertools.count(1)
        self._calls = {}
        self._lock = threading.Lock()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def begin(self, service, method, request=None, seconds=PATIENCE_SECONDS):
        return self._start("call", service, method, request=request or {}, seconds=seconds)

    def call(self, service, method, request=None):
        return self.begin(service, method, request).answer()

    def open(self, service, method, *first):
        stream = self._start("open", service, method)
        for message in first:
            stream.send(message)
        return stream

    def _start(self, what, service, method, **arguments):
        call = Call(self, next(self._numbers))
        self._calls[call._number] = call
        self.do(what, call=call._number, service=service, method=method, **arguments)
        return call

    def do(self, what, **arguments):
        with self._lock:
            self._process.stdin.write(json.dumps({"do": what, **arguments}) + "\n")
            self._process.stdin.flush()

    def _read(self):
        for line in self._process.stdout:
            event = json.loads(line)
            number = event["call"]
            call = self._calls.pop(number) if "code" in event else self._calls[number]
            call.on_event(event)

    def close(self):
        with contextlib.suppress(BrokenPipeError):
            self._process.stdin.close()
        self._process.wait(PATIENCE_SECONDS)
        self._reader.join()
        self._process.stdout.close()


class Answerer:
    """Answers the questions of one profile, with what `decide` makes of a question: a response, or
    None to leave it open. Keeps the questions, and hears of those that are withdrawn."""

    def __init__(self, client, method, decide, profile=""):
        self._decide = decide
        self.questions = []
        self.open_ids = set()  # Of the questions that are neither answered nor withdrawn.
        self._seen = queue.SimpleQueue()
        self._withdrawn = queue.SimpleQueue()
        self.stream = client.open(
            "Profile", method, {"profileId": {"value": profile}, "subscribe": True})
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        while (message := self.stream.receive(seconds=None)) is not None:
            if message["error"]:
                self.open_ids.discard(message["callId"])
                self._withdrawn.put((message["callId"], message["error"]))
                continue
            self.questions.append(message["request"])
            self.open_ids.add(message["callId"])
            response = self._decide(message["request"])
            if response is not None:
                self.open_ids.discard(message["callId"])
                self.stream.send({"profileId": message["profileId"], "callId": message["callId"],
                                  "response": response})
            self._seen.put((message["callId"], message["request"]))

    def next_question(self):
        """The id and the request of a question that has come."""
        return self._seen.get(timeout=PATIENCE_SECONDS)

    def next_withdrawn(self):
        return self._withdrawn.get(timeout=PATIENCE_SECONDS)

    def close(self):
        self.stream.cancel()
        self._reader.join(PATIENCE_SECONDS)


def processes_with(text):
    """The ids of the living processes that have this in their command line or environment."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        with contextlib.suppress(OSError):
            known = (entry / "cmdline").read_bytes() + b"\0" + (entry / "environ").read_bytes()
            if text.encode() in known:
                found.append(int(entry.name))
    return found


def resident_kib(pid):
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(next(line.split()[1] for line in status.splitlines() if line.startswith("VmRSS:")))


@programs.needs_chromium
class BrowserTestCase(unittest.TestCase):
    """Tests of a host with live browsers: its profiles are in `self.profiles`, its temporary files
    and its home in folders of their own. Nothing of a browser may be left behind."""

    def setUp(self):
        # Short, because Chromium makes sockets in it.
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vb"))
        self.addCleanup(shutil.rmtree, self.folder)
        for name in ("run", "tmp", "home"):
            (self.folder / name).mkdir(mode=0o700)
        self.profiles = self.folder / "profiles"
        self.environment = dict(
            os.environ, HOME=str(self.folder / "home"), TMPDIR=str(self.folder / "tmp"),
            XDG_RUNTIME_DIR=str(self.folder / "run"), XDG_DATA_HOME=str(self.folder / "data"))
        for variable in ("DISPLAY", "WAYLAND_DISPLAY", "http_proxy", "HTTP_PROXY"):
            self.environment.pop(variable, None)
        self.addCleanup(self.assert_no_browser_is_left)

    def assert_no_browser_is_left(self):
        # A browser has its temporary folder in its environment.
        for path in (self.profiles, self.folder / "tmp"):
            wait_until(lambda path=path: not processes_with(str(path)), "a process is left")

    def start_host(self, *options, prefix=(), sandbox=None):
        """A host on `self.profiles`, and a client of it as `self.client`. `prefix` is a command
        that runs it."""
        command = [*prefix, str(programs.HOST), "--listen", f"unix:{self.folder}/host.sock",
                   "--metrics", "127.0.0.1:0", "--profiles-dir", str(self.profiles),
                   *(SANDBOX if sandbox is None else sandbox), *options]
        self.host = programs.Host(*command[1:], program=command[0], env=self.environment)
        self.addCleanup(self.host.__exit__)
        self.assertNotEqual(self.host.addresses, [], self.host.stderr())
        self.client = self.connect()
        return self.host

    def connect(self):
        client = Client(self.host.addresses[0])
        self.addCleanup(client.close)
        return client

    def stop_host(self):
        self.assertEqual(self.host.stop(), 0, self.host.stderr())

    def ask(self, method, request=None, service="Profile"):
        """The response to a call that has to succeed."""
        answer = self.client.call(service, method, request)
        self.assertEqual(answer.code, Code.OK, f"{method}: {answer.text}\n{self.host.stderr()}")
        return answer.response

    def ask_host(self, method, request=None):
        return self.ask(method, request, service="BrowserHost")

    def open_page(self, url="", profile="", **options):
        """The id of a new headless browser."""
        response = self.ask("CreateBrowser", {"profileId": {"value": profile}, "url": url,
                                              "headless": True, **options})
        return response["value"]

    def close_browser(self, browser):
        self.ask_host("CloseBrowser", {"value": browser})

    def browsers(self, profile=""):
        return self.ask_host("ListBrowsers", {"value": profile})["browsers"]

    def wait_for_browser(self, browser, is_wanted):
        """What is known of a browser as soon as it is one of these."""
        def wanted():
            return next((each for each in self.browsers()
                         if each["id"]["value"] == browser and is_wanted(each)), None)
        try:
            return wait_until(wanted, "it is another")
        except AssertionError as error:
            raise AssertionError(f"{error}: {self.browsers()}") from None

    def set_languages(self, languages, profile=""):
        self.ask("SetAcceptLanguage",
                 {"profileId": {"value": profile}, "acceptLanguage": languages})

    def answer_files(self, decide, **options):
        return self._answerer("OnCanAccessFile", decide, **options)

    def answer_logins(self, decide, **options):
        return self._answerer("OnAuthenticate", decide, **options)

    def _answerer(self, method, decide, **options):
        before = self.subscriptions()
        answerer = Answerer(self.client, method, decide, **options)
        wait_until(lambda: self.subscriptions() > before, "nobody is subscribed")
        return answerer

    def subscriptions(self):
        return self.metric("varnic_subscriptions")

    def open_questions(self):
        return self.metric("varnic_host_open_questions")

    def metric(self, name):
        page = programs.metrics(self.host)
        return int(re.search(f"^{name} ([0-9]+)$", page, re.MULTILINE)[1])

    def browser_pid(self, profile="default"):
        """The browser's process, as its own lock on the profile tells it; None without one."""
        try:
            holder = os.readlink(self.profiles / profile / "SingletonLock")
        except OSError:
            return None
        return int(holder.rpartition("-")[2])

    def kill_browser(self, profile="default"):
        pid = wait_until(lambda: self.browser_pid(profile), "no browser runs")
        os.kill(pid, signal.SIGKILL)
