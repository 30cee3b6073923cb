"""What pages see of a network that goes and comes. The host and its browsers run in a network of
their own, in which the tests may plug and unplug as they like."""

import shutil
import subprocess
import unittest

import browser_host

IP = shutil.which("ip", path="/usr/sbin:/sbin:/usr/bin:/bin")
OWN_NETWORK = ["unshare", "--user", "--map-root-user", "--net"]
# To ip: two interfaces with a cable between them.
CABLE = ["link", "add", "here", "type", "veth", "peer", "name", "there"]
# A page keeps what it knows and what it has heard in its URL, where the list of browsers has it.
PAGE = """<script>
    let heard = '';
    const tell = () => location.hash = (navigator.onLine ? 'online' : 'offline') + heard;
    for (const name of ['online', 'offline'])
      addEventListener(name, () => { heard += `-heard-${name}`; tell(); });
    tell();
    </script>"""


def why_no_own_network():
    """A text where the tests of this file cannot run, or None."""
    if IP is None:
        return "there is no ip: the package iproute2 is not installed"
    probe = subprocess.run([*OWN_NETWORK, IP, *CABLE], capture_output=True, text=True)
    return None if probe.returncode == 0 else "no network of its own: " + probe.stderr.strip()


WHY_NOT = why_no_own_network()


@unittest.skipIf(WHY_NOT is not None, WHY_NOT)
class NetworkTest(browser_host.BrowserTestCase):
    def setUp(self):
        super().setUp()
        (self.folder / "page.html").write_text(PAGE)
        self.url = (self.folder / "page.html").as_uri()
        # There, everybody is root.
        self.start_host("--file-default", "allow", prefix=OWN_NETWORK, sandbox=["--no-sandbox"])
        self.network = self.client.open("Profile", "WhenNetworkChanged",
                                        {"profileId": {"value": ""}, "action": "SUBSCRIBE"})
        self.assertFalse(self.network.receive()["online"])

    def ip(self, *arguments):
        subprocess.run(
            ["nsenter", "--target", str(self.host.process.pid), "--user", "--net",
             "--preserve-credentials", IP, *arguments], check=True)

    def plug_in(self):
        """A cable from `here` to `there`, by which the way leads out."""
        self.ip(*CABLE)
        self.ip("link", "set", "there", "up")
        self.ip("link", "set", "here", "up")
        self.ip("address", "add", "192.0.2.2/24", "dev", "here")
        self.ip("route", "add", "default", "via", "192.0.2.1")
        self.network.receive_until(lambda event: event["online"])

    def open_online_page(self, **options):
        self.plug_in()
        browser = self.open_page(self.url, **options)
        self.wait_until_page(browser, lambda text: text.startswith("online"))
        return browser

    def wait_until_page(self, browser, is_wanted):
        self.wait_for_browser(browser, lambda page: is_wanted(page["url"].rpartition("#")[2]))

    def assert_hears(self, browser, name):
        self.wait_until_page(
            browser, lambda text: text.startswith(name) and text.endswith(f"heard-{name}"))

    def test_link_that_goes_down_reaches_the_client_and_the_page(self):
        browser = self.open_online_page()

        self.ip("link", "set", "there", "down")

        self.network.receive_until(lambda event: not event["online"])
        self.assert_hears(browser, "offline")

    def test_link_that_comes_back_reaches_the_page(self):
        browser = self.open_online_page()
        self.ip("link", "set", "there", "down")
        self.assert_hears(browser, "offline")

        self.ip("link", "set", "there", "up")

        self.assert_hears(browser, "online")

    def test_page_is_offline_without_a_way_out_though_the_link_is_up(self):
        # A browser left to itself looks at addresses, and sees no difference.
        browser = self.open_online_page()

        self.ip("route", "delete", "default")

        self.network.receive_until(lambda event: not event["online"])
        self.assert_hears(browser, "offline")

    def test_page_that_is_opened_later_begins_with_what_is_so(self):
        self.plug_in()
        self.ip("route", "delete", "default")
        self.network.receive_until(lambda event: not event["online"])

        browser = self.open_page(self.url)

        self.wait_until_page(browser, lambda text: text.startswith("offline"))

    def test_incognito_page_hears_of_it(self):
        browser = self.open_online_page(incognito=True)

        self.ip("link", "set", "there", "down")

        self.assert_hears(browser, "offline")


if __name__ == "__main__":
    unittest.main()
