"""Pages that want a password: a client of varnic-host has it, or nobody does."""

import unittest

import browser_host
import web_site

RIGHT = {"username": web_site.USER, "password": web_site.PASSWORD}
WRONG = {"username": web_site.USER, "password": "guess"}
# Of a page that is behind a password itself.
TELLS_THAT_IT_IS_IN = "location.hash = 'in'; report('in');"


class LoginsTest(browser_host.BrowserTestCase):
    def setUp(self):
        super().setUp()
        self.site = web_site.Site()
        self.addCleanup(self.site.close)

    def assert_gets_in(self, scheme, realm):
        self.start_host()
        url = self.site.add_page(f"/{scheme}/page", TELLS_THAT_IT_IS_IN)
        answerer = self.answer_logins(lambda question: RIGHT)

        self.open_page(url)

        self.assertEqual(self.site.next_report(), "in")
        host, _, port = self.site.address.partition(":")
        self.assertEqual(answerer.questions, [{
            "url": url, "challengerHost": host, "challengerPort": int(port), "scheme": scheme,
            "realm": realm, "isProxy": False, "firstAttempt": True,
        }])

    def test_client_answers_a_basic_challenge(self):
        self.assert_gets_in("basic", "the basics")

    def test_client_answers_a_digest_challenge(self):
        self.assert_gets_in("digest", "the digest")

    def test_client_answers_a_proxy(self):
        proxy = web_site.Site(is_proxy=True)
        self.addCleanup(proxy.close)
        proxy.add_page("/page", TELLS_THAT_IT_IS_IN)
        self.environment["http_proxy"] = proxy.origin
        self.start_host()
        answerer = self.answer_logins(lambda question: RIGHT)

        browser = self.open_page("http://site.test/page")

        self.wait_for_browser(browser, lambda page: page["url"].endswith("#in"))
        (question,) = answerer.questions
        self.assertTrue(question["isProxy"])
        self.assertEqual(f"{question['challengerHost']}:{question['challengerPort']}",
                         proxy.address)
        self.assertEqual(question["realm"], "the proxy")

    def test_script_that_fetches_gets_in(self):
        self.start_host()
        self.site.add_page("/basic/data")
        url = self.site.add_page(
            "/page", "fetch('/basic/data').then(answer => report(answer.status));")
        self.answer_logins(lambda question: RIGHT)

        self.open_page(url)

        self.assertEqual(self.site.next_report(), 200)

    def test_incognito_page_asks_who_answers_for_its_profile(self):
        self.start_host()
        profile = self.ask_host("CreateProfile", {"name": "Other"})["id"]["value"]
        url = self.site.add_page("/basic/page", TELLS_THAT_IT_IS_IN)
        stranger = self.answer_logins(lambda question: WRONG)
        answerer = self.answer_logins(lambda question: RIGHT, profile=profile)

        self.open_page(url, profile=profile, incognito=True)

        self.assertEqual(self.site.next_report(), "in")
        self.assertEqual((len(answerer.questions), stranger.questions), (1, []))

    def test_page_is_shown_what_the_server_says_when_nobody_answers(self):
        self.start_host()
        url = self.site.add_page("/basic/page", TELLS_THAT_IT_IS_IN)

        self.open_page(url)

        self.assertEqual(self.site.next_report(), "no way in")

    def test_page_is_shown_what_the_server_says_when_the_client_cancels(self):
        self.start_host()
        url = self.site.add_page("/digest/page", TELLS_THAT_IT_IS_IN)
        answerer = self.answer_logins(lambda question: {"cancel": True})

        self.open_page(url)

        self.assertEqual(self.site.next_report(), "no way in")
        self.assertEqual(len(answerer.questions), 1)

    def test_scripts_and_frames_end_when_nobody_answers(self):
        self.start_host()
        self.site.add_page("/basic/frame")
        url = self.site.add_page("/page", """
            const frame = new Promise(done => document.querySelector('iframe').onload = done);
            const image = new Promise(done => document.querySelector('img').onerror = done);
            Promise.all([fetch('/basic/data'), frame, image])
                .then(([answer]) => report(answer.status));
            """, body="<iframe src=/basic/frame></iframe><img src=/digest/image>")

        self.open_page(url)

        self.assertEqual({self.site.next_report(), self.site.next_report()}, {"no way in", 401})

    def test_third_wrong_password_is_the_last(self):
        self.start_host()
        url = self.site.add_page("/basic/page", TELLS_THAT_IT_IS_IN)
        answerer = self.answer_logins(lambda question: WRONG)

        self.open_page(url)

        self.assertEqual(self.site.next_report(), "no way in")
        self.assertEqual([each["firstAttempt"] for each in answerer.questions],
                         [True, False, False])
        self.assertEqual(len(self.site.requests_of("/basic/page")), 4)

    def test_right_password_after_a_wrong_one_gets_in(self):
        self.start_host()
        url = self.site.add_page("/basic/page", TELLS_THAT_IT_IS_IN)
        answerer = self.answer_logins(
            lambda question: WRONG if question["firstAttempt"] else RIGHT)

        self.open_page(url)

        self.assertEqual(self.site.next_report(), "in")
        self.assertEqual(len(answerer.questions), 2)

    def test_client_that_says_nothing_is_not_waited_for_for_ever(self):
        self.start_host("--question-timeout", "1")
        url = self.site.add_page("/basic/page", TELLS_THAT_IT_IS_IN)
        answerer = self.answer_logins(lambda question: None)

        self.open_page(url)

        self.assertEqual(self.site.next_report(), "no way in")
        call_id, _ = answerer.next_question()
        self.assertEqual(answerer.next_withdrawn(), (call_id, "withdrawn"))

    def test_question_is_withdrawn_when_its_page_is_closed(self):
        self.start_host()
        url = self.site.add_page("/basic/page", TELLS_THAT_IT_IS_IN)
        answerer = self.answer_logins(lambda question: None)
        browser = self.open_page(url)
        call_id, _ = answerer.next_question()
        self.assertEqual(self.open_questions(), 1)

        self.close_browser(browser)

        self.assertEqual(answerer.next_withdrawn(), (call_id, "withdrawn"))
        self.assertEqual(self.open_questions(), 0)


if __name__ == "__main__":
    unittest.main()
