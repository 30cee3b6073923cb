"""A web site on loopback that keeps what browsers ask it, and hears what its pages report."""

import base64
import hashlib
import http.server
import json
import queue
import threading
import urllib.parse
import urllib.request

import browser_host

USER, PASSWORD = "alice", "open sesame"

# Reports whatever `look()` gives, which each page defines for itself.
REPORT = """
async function report(what) {
  await fetch('%s/report', {method: 'POST', body: JSON.stringify(what), mode: 'no-cors'});
}
"""

# What of the user agent's client hints a page sees.
HINTS = ["architecture", "bitness", "formFactors", "fullVersionList", "model", "platformVersion",
         "uaFullVersion", "wow64"]


class Site:
    """Serves `pages`, each a text of HTML under its path; some paths want a password first:

      /basic/..., /digest/...   of USER
      /report                   takes reports, in JSON

    As a proxy it serves the same for any host, and wants a password if `is_proxy` says so."""

    def __init__(self, is_proxy=False):
        self.pages = {}
        self.headers = {}  # Of every page, on top.
        self.is_proxy = is_proxy
        self.requests = []  # (path, headers), as they came.
        self._arrived = threading.Condition()
        self._reports = queue.SimpleQueue()
        site = self

        class Handler(_Handler):
            pass

        Handler.site = site
        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self._server.daemon_threads = True
        self._thread = threading.Thread(target=self._server.serve_forever)
        self._thread.start()
        self.address = f"127.0.0.1:{self._server.server_address[1]}"
        self.origin = f"http://{self.address}"

    def close(self):
        self._server.shutdown()
        self._thread.join()
        self._server.server_close()

    def add_page(self, path, script="", body=""):
        """A page whose script may call report(); its URL."""
        self.pages[path] = page(self.origin, script, body)
        return self.origin + path

    def note(self, path, headers):
        with self._arrived:
            self.requests.append((path, headers))
            self._arrived.notify_all()

    def note_report(self, what):
        self._reports.put(what)

    def next_report(self):
        """What a page has told report()."""
        try:
            return self._reports.get(timeout=browser_host.PATIENCE_SECONDS)
        except queue.Empty:
            raise AssertionError(f"no page reports; asked were {self.paths()}") from None

    def paths(self):
        return [path for path, _ in self.requests]

    def requests_of(self, path):
        """The headers of each request for this path."""
        return [headers for each, headers in self.requests if each == path]

    def wait_for(self, path, count=1):
        """The headers of the first requests for this path, as soon as there are so many."""
        with self._arrived:
            if not self._arrived.wait_for(lambda: len(self.requests_of(path)) >= count,
                                          browser_host.PATIENCE_SECONDS):
                raise AssertionError(f"{path} was not asked for; only {self.paths()}")
            return self.requests_of(path)[:count]


def page(origin, script="", body=""):
    return ("<!DOCTYPE html><meta charset=utf-8><link rel=icon href='data:,'><body>" + body
            + f"<script>{REPORT % origin}{script}</script>")


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    site = None

    def do_GET(self):
        url = urllib.parse.urlsplit(self.path)  # A proxy is asked for a whole URL.
        self.site.note(url.path, self.headers)
        challenge = self._challenge(url.path)
        if challenge is not None:
            return self._refuse(*challenge)
        text = self.site.pages.get(url.path)
        if text is None:
            return self._send(404, f"no {url.path}", {})
        self._send(200, text, self.site.headers)

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        self.site.note_report(json.loads(body))
        self._send(200, "", {"Access-Control-Allow-Origin": "*"})

    def do_OPTIONS(self):
        self._send(200, "", {"Access-Control-Allow-Origin": "*",
                             "Access-Control-Allow-Private-Network": "true"})

    def _challenge(self, path):
        """Status, header and text of what is said to one who has no right to come in."""
        if self.site.is_proxy and not _is_basic(self.headers["Proxy-Authorization"]):
            return 407, ("Proxy-Authenticate", 'Basic realm="the proxy"')
        if path.startswith("/basic/") and not _is_basic(self.headers["Authorization"]):
            return 401, ("WWW-Authenticate", 'Basic realm="the basics"')
        if path.startswith("/digest/") and not _is_digest(self.headers["Authorization"]):
            return 401, ("WWW-Authenticate",
                         'Digest realm="the digest", nonce="0123", qop="auth", algorithm=SHA-256')
        return None

    def _refuse(self, status, header):
        # Unlike a page, this reports that it is shown.
        text = page(self.site.origin, "report('no way in');")
        self._send(status, text, dict([header]))

    def _send(self, status, text, headers):
        body = text.encode()
        self.send_response(status)
        kind = "text/javascript" if self.path.endswith(".js") else "text/html"
        self.send_header("Content-Type", kind + "; charset=utf-8")
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Cache-Control", "no-store")
        for name, value in headers.items():
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


def _is_basic(authorization):
    expected = base64.b64encode(f"{USER}:{PASSWORD}".encode()).decode()
    return authorization == f"Basic {expected}"


def _is_digest(authorization):
    if authorization is None or not authorization.startswith("Digest "):
        return False
    fields = urllib.request.parse_keqv_list(
        urllib.request.parse_http_list(authorization.removeprefix("Digest ")))

    def hashed(*texts):
        return hashlib.sha256(":".join(texts).encode()).hexdigest()

    expected = hashed(hashed(USER, "the digest", PASSWORD), fields["nonce"], fields["nc"],
                      fields["cnonce"], fields["qop"], hashed("GET", fields["uri"]))
    return fields["username"] == USER and fields["response"] == expected
