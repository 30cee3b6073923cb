"""What web pages in the browsers of a varnic-host see and send: languages, user agent, client hints;
and what they keep."""

import json
import unittest

import browser_host
import web_site

LOOK = f"""
async function look() {{
  const data = navigator.userAgentData;
  return {{
    languages: navigator.languages,
    agent: navigator.userAgent,
    brands: data.brands,
    mobile: data.mobile,
    hints: await data.getHighEntropyValues({json.dumps(web_site.HINTS)}),
  }};
}}
"""
# One that is not the browser's own version.
OTHER_AGENT = ("Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) "
               "Chrome/140.0.0.0 Safari/537.36")


def quoted(text):
    return f'"{text}"'


def flag(value):
    return "?1" if value else "?0"


def brand_list(brands):
    return ", ".join(f'"{each["brand"]}";v="{each["version"]}"' for each in brands)


def low_entropy_headers(metadata):
    """What a browser with this metadata sends with every request."""
    return {
        "sec-ch-ua": brand_list(metadata["brands"]),
        "sec-ch-ua-mobile": flag(metadata["mobile"]),
        "sec-ch-ua-platform": quoted(metadata["platform"]),
    }


def high_entropy_headers(metadata):
    """What it sends to a site that has asked for it."""
    return {
        "sec-ch-ua-full-version-list": brand_list(metadata["fullVersionList"]),
        "sec-ch-ua-full-version": quoted(metadata["fullVersion"]),
        "sec-ch-ua-arch": quoted(metadata["architecture"]),
        "sec-ch-ua-bitness": quoted(metadata["bitness"]),
        "sec-ch-ua-model": quoted(metadata["model"]),
        "sec-ch-ua-platform-version": quoted(metadata["platformVersion"]),
        "sec-ch-ua-wow64": flag(metadata["wow64"]),
        "sec-ch-ua-form-factors": ", ".join(quoted(each) for each in metadata["formFactors"]),
    }


class PagesTest(browser_host.BrowserTestCase):
    def setUp(self):
        super().setUp()
        self.site = web_site.Site()
        self.addCleanup(self.site.close)

    def assert_has(self, headers, expected):
        self.assertEqual({name: headers[name] for name in expected}, expected)

    def assert_sends_what_the_host_tells(self, headers, languages):
        """Of one request; Chromium adds the q-values."""
        self.assertEqual(headers["Accept-Language"], languages)
        self.assertEqual(headers["User-Agent"], self.ask("GetUserAgent")["value"])
        self.assert_has(headers, low_entropy_headers(self.ask("GetUserAgentMetadata")))

    def assert_page_sees_what_the_host_tells(self, seen, languages):
        metadata = self.ask("GetUserAgentMetadata")
        hints = seen["hints"]
        self.assertEqual(seen["languages"], languages)
        self.assertEqual(seen["agent"], self.ask("GetUserAgent")["value"])
        self.assertEqual(seen["brands"], metadata["brands"])
        self.assertEqual(seen["mobile"], metadata["mobile"])
        self.assertEqual(hints["uaFullVersion"], metadata["fullVersion"])
        for name in ("architecture", "bitness", "brands", "formFactors", "fullVersionList",
                     "mobile", "model", "platform", "platformVersion", "wow64"):
            self.assertEqual(hints[name], metadata[name], name)

    def assert_first_page_is_right(self, *options):
        self.start_host(*options)
        self.set_languages("fr-FR,fr,en")
        url = self.site.add_page("/first", LOOK + "look().then(report);")

        self.open_page(url)

        (first,) = self.site.wait_for("/first")
        self.assert_sends_what_the_host_tells(first, "fr-FR,fr;q=0.9,en;q=0.8")
        self.assert_page_sees_what_the_host_tells(self.site.next_report(), ["fr-FR", "fr", "en"])

    def test_very_first_request_of_a_profile_is_as_the_host_tells(self):
        self.assert_first_page_is_right()

        self.assertNotIn("Headless", self.ask("GetUserAgent")["value"])

    def test_user_agent_that_the_host_was_given_is_used_everywhere(self):
        self.assert_first_page_is_right("--user-agent", OTHER_AGENT)

        self.assertEqual(self.ask("GetUserAgent")["value"], OTHER_AGENT)
        brands = [each["version"] for each in self.ask("GetUserAgentMetadata")["brands"]]
        self.assertIn("140", brands)

    def test_site_that_asks_for_more_hints_gets_them(self):
        self.start_host()
        names = high_entropy_headers(self.ask("GetUserAgentMetadata"))
        self.site.headers["Accept-CH"] = ", ".join(names)
        url = self.site.add_page("/asks", "fetch('/next').then(() => report('done'));")

        self.open_page(url)

        self.assertEqual(self.site.next_report(), "done")
        metadata = self.ask("GetUserAgentMetadata")
        (headers,) = self.site.wait_for("/next")
        self.assert_has(headers, high_entropy_headers(metadata))
        self.assert_has(headers, low_entropy_headers(metadata))

    def test_frames_and_workers_send_the_same(self):
        self.start_host()
        self.set_languages("de,en")
        self.site.add_page("/frame")
        self.site.pages["/worker.js"] = "fetch('/from-worker').then(() => postMessage('done'));"
        url = self.site.add_page("/page", """
            const frame = new Promise(done => document.querySelector('iframe').onload = done);
            const worker = new Promise(done => new Worker('/worker.js').onmessage = done);
            Promise.all([frame, worker, fetch('/fetched')]).then(() => report('done'));
            """, body="<iframe src=/frame></iframe>")

        self.open_page(url)

        self.assertEqual(self.site.next_report(), "done")
        for path in ("/page", "/frame", "/fetched"):
            (headers,) = self.site.requests_of(path)
            self.assert_sends_what_the_host_tells(headers, "de,en;q=0.9")
        for path in ("/worker.js", "/from-worker"):
            (headers,) = self.site.requests_of(path)
            self.assertEqual(headers["Accept-Language"], "de,en;q=0.9", path)
            self.assertEqual(headers["User-Agent"], self.ask("GetUserAgent")["value"], path)

    def test_language_changes_in_pages_that_are_open(self):
        self.start_host()
        self.set_languages("en")
        url = self.site.add_page("/page", """
            addEventListener('languagechange', async () => {
              await fetch('/changed');
              report(navigator.languages);
            });
            report(navigator.languages);
            """)
        self.open_page(url)
        self.assertEqual(self.site.next_report(), ["en"])

        self.set_languages("it-IT,it")

        self.assertEqual(self.site.next_report(), ["it-IT", "it"])
        (headers,) = self.site.wait_for("/changed")
        self.assertEqual(headers["Accept-Language"], "it-IT,it;q=0.9")
        self.assertEqual(self.ask("GetAcceptLanguage")["value"], "it-IT,it")

    def test_languages_outlive_a_browser_that_is_killed_at_once(self):
        self.start_host()
        url = self.site.add_page("/page", "report(navigator.languages);")
        self.open_page(url)
        self.site.next_report()
        self.set_languages("nl,af")

        self.kill_browser()

        browser_host.wait_until(
            lambda: self.client.call("Profile", "CreateBrowser", {"url": url, "headless": True})
            .code == browser_host.Code.OK, "no browser comes back")
        self.assertEqual(self.site.next_report(), ["nl", "af"])

    def test_profiles_have_languages_and_pages_of_their_own(self):
        self.start_host()
        other = self.ask_host("CreateProfile", {"name": "Other"})["id"]["value"]
        self.set_languages("sv")
        self.set_languages("fi", profile=other)
        url = self.site.add_page("/page", """
            const before = localStorage.visits || 0;
            localStorage.visits = 1;
            report([navigator.language, before]);
            """)

        seen = []
        for profile in ("", other):
            self.open_page(url, profile=profile)
            seen.append(self.site.next_report())

        self.assertEqual(seen, [["sv", 0], ["fi", 0]])

    def test_what_pages_keep_is_there_again_after_the_host_has_ended(self):
        url = self.site.add_page("/page", """
            const before = localStorage.visits || '0';
            localStorage.visits = Number(before) + 1;
            report([navigator.languages, before]);
            """)
        self.start_host()
        self.set_languages("pt-BR,pt")
        self.open_page(url)
        self.assertEqual(self.site.next_report(), [["pt-BR", "pt"], "0"])
        self.stop_host()

        self.start_host()
        self.open_page(url)

        self.assertEqual(self.site.next_report(), [["pt-BR", "pt"], "1"])

    def test_incognito_pages_see_what_the_host_tells_and_keep_nothing(self):
        self.start_host()
        self.set_languages("fr-FR,fr")
        url = self.site.add_page("/page", LOOK + """
            const before = localStorage.visits || 0;
            localStorage.visits = 1;
            look().then(seen => report([seen, before]));
            """)
        self.open_page(url)
        self.site.next_report()

        browser = self.open_page(url, incognito=True)

        seen, visits_before = self.site.next_report()
        self.assertEqual(visits_before, 0)
        profile = self.profile_of(browser)
        self.assertTrue(self.ask("IsIncognito", {"value": profile})["value"])
        languages = self.ask("GetAcceptLanguage", {"value": profile})["value"]
        self.assert_page_sees_what_the_host_tells(seen, languages.split(","))
        _, headers = self.site.requests[-1]
        self.assertEqual(headers["User-Agent"], self.ask("GetUserAgent")["value"])

    def test_browser_that_is_closed_is_gone_with_its_incognito_profile(self):
        self.start_host()
        url = self.site.add_page("/page", "report('here');")
        browser = self.open_page(url, incognito=True)
        self.site.next_report()
        profile = self.profile_of(browser)

        self.close_browser(browser)

        self.assertEqual(self.browsers(), [])
        browser_host.wait_until(
            lambda: profile not in self.profile_ids(), "the incognito profile stays")
        answer = self.client.call("Profile", "Path", {"value": profile})
        self.assertEqual(answer.code, browser_host.Code.NOT_FOUND)
        self.assertIn(profile, answer.text)

    def profile_of(self, browser):
        return next(each["profileId"]["value"] for each in self.browsers()
                    if each["id"]["value"] == browser)

    def profile_ids(self):
        return [each["id"]["value"] for each in self.ask_host("ListProfiles")["profiles"]]


if __name__ == "__main__":
    unittest.main()
