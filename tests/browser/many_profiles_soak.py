"""Fifty profiles, one after another: made, opened, used, closed, deleted. What is left of them?"""

import os
import unittest

import browser_host
import web_site

ROUNDS = 50
# After these the host has all that it keeps for good: pools, tables, the longest name.
WARM_UP_ROUNDS = 10
# What the other rounds may add to the host's memory: forty profiles of 50 KiB each would be found,
# and malloc's own coming and going is not.
ALLOWED_GROWTH_KIB = 2048


class ManyProfilesSoak(browser_host.BrowserTestCase):
    def setUp(self):
        super().setUp()
        self.site = web_site.Site()
        self.addCleanup(self.site.close)
        self.url = self.site.add_page("/basic/page", "report(navigator.language);")

    def use_a_profile(self, number):
        profile = self.ask_host("CreateProfile", {"name": f"No. {number}"})["id"]["value"]
        self.set_languages("cy", profile=profile)
        answerer = self.answer_logins(
            lambda question: {"username": web_site.USER, "password": web_site.PASSWORD},
            profile=profile)
        browser = self.open_page(self.url, profile=profile)
        self.assertEqual(self.site.next_report(), "cy")
        self.assertEqual(len(answerer.questions), 1)
        self.close_browser(browser)
        answerer.close()
        self.ask_host("DeleteProfile", {"value": profile})
        return profile

    def assert_nothing_is_left_of(self, profile):
        folder = self.profiles / profile
        self.assertFalse(folder.exists())
        browser_host.wait_until(lambda: not browser_host.processes_with(str(folder)),
                                "a process is left")
        browser_host.wait_until(lambda: not os.listdir(self.folder / "tmp"),
                                "a temporary file is left")

    def what_it_holds(self):
        browser_host.wait_until(lambda: self.subscriptions() == 0, "a subscription is left")
        pid = self.host.process.pid
        return browser_host.resident_kib(pid), len(os.listdir(f"/proc/{pid}/fd"))

    def test_fifty_profiles_leave_nothing(self):
        self.start_host()
        folders = None
        for number in range(ROUNDS):
            self.assert_nothing_is_left_of(self.use_a_profile(number))
            if number == WARM_UP_ROUNDS - 1:
                kib, descriptors = self.what_it_holds()
                folders = sorted(os.listdir(self.profiles))

        kib_at_the_end, descriptors_at_the_end = self.what_it_holds()
        print(f"after {WARM_UP_ROUNDS} profiles: {kib} KiB, {descriptors} descriptors; "
              f"after {ROUNDS}: {kib_at_the_end} KiB, {descriptors_at_the_end}", flush=True)
        self.assertEqual(sorted(os.listdir(self.profiles)), folders)
        self.assertEqual(descriptors_at_the_end, descriptors)
        self.assertLess(kib_at_the_end - kib, ALLOWED_GROWTH_KIB)
        self.assertEqual(len(self.ask_host("ListProfiles")["profiles"]), 1)
        self.stop_host()


if __name__ == "__main__":
    unittest.main()
