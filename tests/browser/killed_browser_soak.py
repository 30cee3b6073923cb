"""A browser is killed a hundred times, at random moments, while clients call and answer. Every call
and every question has to end, and the browser has to come back."""

import collections
import os
import random
import signal
import threading
import time
import unittest

import browser_host
import web_site
from browser_host import Code

KILLS = 100
# A browser that is up lives at most so long: some die in their start, most under work.
LONGEST_LIFE_SECONDS = 1.2
CALLERS = 4
# What a call may end with: done; the browser died, or waits to be started again; or what the call
# was about is gone.
EXPECTED_CODES = {Code.OK, Code.UNAVAILABLE, Code.NOT_FOUND}
CALL_SECONDS = 45


class Caller:
    """Calls and calls, one call at a time, each with a deadline that none may run into."""

    def __init__(self, client, urls, seed):
        self.codes = collections.Counter()
        self.unexpected = []
        self._client = client
        self._urls = urls
        self._random = random.Random(seed)
        self._browsers = []
        self._stopped = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def stop(self):
        self._stopped.set()
        self._thread.join(CALL_SECONDS + browser_host.PATIENCE_SECONDS)
        return not self._thread.is_alive()

    def _run(self):
        while not self._stopped.is_set():
            step = self._random.choice(
                [self._open, self._open, self._close, self._ask, self._set_languages])
            step()

    def _call(self, service, method, request):
        answer = self._client.begin(service, method, request, seconds=CALL_SECONDS).answer()
        self.codes[answer.code] += 1
        if answer.code not in EXPECTED_CODES:
            self.unexpected.append(f"{method}: {answer.code.name}: {answer.text}")
        if answer.code == Code.UNAVAILABLE:
            time.sleep(0.01)  # As a client would, before it tries again.
        return answer

    def _open(self):
        answer = self._call("Profile", "CreateBrowser", {
            "url": self._random.choice(self._urls), "headless": True,
            "incognito": self._random.random() < 0.3})
        if answer.code == Code.OK:
            self._browsers.append(answer.response["value"])
        if len(self._browsers) > 3:
            self._close()

    def _close(self):
        if self._browsers:
            self._call("BrowserHost", "CloseBrowser", {"value": self._browsers.pop(0)})

    def _ask(self):
        self._call("BrowserHost", "ListBrowsers", {})
        self._call("Profile", "GetAcceptLanguage", {})

    def _set_languages(self):
        self._call("Profile", "SetAcceptLanguage",
                   {"acceptLanguage": self._random.choice(["de", "fr,en", "it-IT,it"])})


class KilledBrowserSoak(browser_host.BrowserTestCase):
    def setUp(self):
        super().setUp()
        self.seed = int(os.environ.get("VARNIC_SEED", time.time()))
        self.random = random.Random(self.seed)
        print(f"VARNIC_SEED={self.seed}", flush=True)
        self.site = web_site.Site()
        self.addCleanup(self.site.close)
        (self.folder / "file.html").write_text("<title>a file</title>")
        self.site.add_page("/basic/page")

    def kill_a_browser(self):
        """The next one that comes, at some moment of its life."""
        pid = browser_host.wait_until(self.living_browser, "no browser comes back")
        time.sleep(self.random.uniform(0, LONGEST_LIFE_SECONDS))
        os.kill(pid, signal.SIGKILL)
        browser_host.wait_until(lambda: self.living_browser() != pid, "it is still there")

    def living_browser(self):
        """The host's child that is a browser, from its very start on; None if there is none."""
        children = f"/proc/{self.host.process.pid}/task/{self.host.process.pid}/children"
        with open(children, encoding="ascii") as file:
            for pid in map(int, file.read().split()):
                if self.is_alive(pid):
                    return pid
        return None

    @staticmethod
    def is_alive(pid):
        try:
            with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as file:
                return file.read().rpartition(")")[2].split()[0] not in "ZX"
        except (FileNotFoundError, ProcessLookupError):  # The latter: it ended meanwhile.
            return False

    def decide_sometimes(self, response):
        """An answer now, or none at all."""
        draw = random.Random(self.seed)
        return lambda question: response if draw.random() < 0.6 else None

    def test_hundred_kills_leave_no_call_and_no_question_open(self):
        self.start_host("--restart-delay", "0")
        self.ask("GetUserAgent")  # The host asks the program for its version, once.
        answerers = [
            self.answer_files(self.decide_sometimes({"allow": True})),
            self.answer_logins(self.decide_sometimes(
                {"username": web_site.USER, "password": web_site.PASSWORD})),
        ]
        urls = [(self.folder / "file.html").as_uri(), self.site.origin + "/basic/page", ""]
        callers = [Caller(self.connect(), urls, self.random.random()) for _ in range(CALLERS)]
        try:
            for _ in range(KILLS):
                self.kill_a_browser()
        finally:
            stopped = [caller.stop() for caller in callers]

        self.assertEqual(stopped, [True] * CALLERS, "a call got no answer")
        self.assertEqual([text for caller in callers for text in caller.unexpected], [])
        self.assertIsNone(self.host.process.poll(), self.host.stderr())
        codes = sum((caller.codes for caller in callers), collections.Counter())
        self.assertGreater(codes[Code.OK], KILLS)
        for each in self.browsers():
            self.close_browser(each["id"]["value"])
        questions = sum(len(answerer.questions) for answerer in answerers)
        self.assertGreater(questions, 0)
        for answerer in answerers:
            browser_host.wait_until(lambda: not answerer.open_ids, "a question is left open")
        print(f"{KILLS} kills, {sum(codes.values())} calls, {questions} questions; "
              "calls ended with " + ", ".join(f"{code.name}: {count}" for code, count in codes.items()), flush=True)
        self.assert_it_works_again()
        self.stop_host()
        self.assertEqual(os.listdir(self.folder / "tmp"), [])

    def assert_it_works_again(self):
        url = self.site.add_page("/page", "report('here');")
        browser_host.wait_until(
            lambda: self.client.call("Profile", "CreateBrowser", {"url": url, "headless": True})
            .code == Code.OK, "no browser comes back")
        self.assertEqual(self.site.next_report(), "here")


if __name__ == "__main__":
    unittest.main()
