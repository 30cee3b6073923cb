"""Pages that load files of the machine: a client of varnic-host says which."""

import base64
import pathlib
import unittest

import browser_host
import web_site

# One pixel.
GIF = base64.b64decode("R0lGODlhAQABAIAAAAAAAP///yH5BAEAAAAALAAAAAABAAEAAAIBRAA7")


class FilesTest(browser_host.BrowserTestCase):
    def setUp(self):
        super().setUp()
        self.site = web_site.Site()
        self.addCleanup(self.site.close)
        self.files = self.folder / "files"
        (self.files / "drawer").mkdir(parents=True)
        (self.files / "drawer" / "letter.txt").write_text("dear reader")
        (self.files / "picture.gif").write_bytes(GIF)
        self.write("frame.html", "parent.postMessage('the frame is here', '*');")
        # What an image and a frame come to. An error page in a frame has a load event, too.
        self.write("page.html", """
            document.title = 'the page';
            let heard = 'nothing';
            addEventListener('message', event => heard = event.data);
            addEventListener('load', () => {
              const image = document.querySelector('img');
              setTimeout(() => report({image: image.naturalWidth, frame: heard}));
            });
            """, body="<img src=picture.gif><iframe src=frame.html></iframe>")

    def write(self, name, script, body=""):
        (self.files / name).write_text(web_site.page(self.site.origin, script, body))

    def url(self, name=""):
        return (self.files / name).as_uri()

    def answer_by_path(self, *allowed):
        """A client that allows these files."""
        paths = {str(self.files / name) for name in allowed}
        return self.answer_files(
            lambda question: {"allow": question["path"].rstrip("/") in paths})

    def paths_of(self, answerer):
        return {pathlib.Path(each["path"]).name for each in answerer.questions}

    def assert_has_another_title(self, browser, title):
        """Of an error page, which has one of its own."""
        page = self.wait_for_browser(
            browser, lambda page: page["title"] not in ("", "about:blank"))
        self.assertFalse(page["title"].startswith(title), page)

    def test_page_with_all_that_is_in_it_is_allowed(self):
        self.start_host()
        answerer = self.answer_by_path("page.html", "picture.gif", "frame.html")

        self.open_page(self.url("page.html"))

        self.assertEqual(self.site.next_report(), {"image": 1, "frame": "the frame is here"})
        self.assertEqual(self.paths_of(answerer), {"page.html", "picture.gif", "frame.html"})
        self.assertEqual({each["access"] for each in answerer.questions}, {"READ"})
        self.assertEqual(answerer.questions[0]["path"], str(self.files / "page.html"))

    def test_image_is_refused(self):
        self.start_host()
        self.answer_by_path("page.html", "frame.html")

        self.open_page(self.url("page.html"))

        self.assertEqual(self.site.next_report(), {"image": 0, "frame": "the frame is here"})

    def test_frame_is_refused(self):
        self.start_host()
        self.answer_by_path("page.html", "picture.gif")

        self.open_page(self.url("page.html"))

        self.assertEqual(self.site.next_report(), {"image": 1, "frame": "nothing"})

    def test_document_is_refused_and_the_next_one_is_not(self):
        self.start_host()
        answerer = self.answer_by_path("frame.html")

        refused = self.open_page(self.url("page.html"))

        answerer.next_question()
        self.assert_has_another_title(refused, "the page")
        self.open_page(self.url("frame.html"))
        self.assertEqual(answerer.next_question()[1]["path"], str(self.files / "frame.html"))

    def test_directory_is_a_question_for_its_list(self):
        self.start_host()
        answerer = self.answer_by_path("drawer")

        browser = self.open_page(self.url("drawer") + "/")

        _, question = answerer.next_question()
        self.assertEqual(question["access"], "LIST")
        self.assertEqual(question["path"].rstrip("/"), str(self.files / "drawer"))
        self.wait_for_browser(browser, lambda page: page["title"].startswith("Index of"))

    def test_directory_is_refused(self):
        self.start_host()
        answerer = self.answer_by_path()

        browser = self.open_page(self.url("drawer") + "/")

        answerer.next_question()
        self.assert_has_another_title(browser, "Index of")

    def test_nothing_is_read_when_nobody_answers(self):
        self.start_host()

        browser = self.open_page(self.url("page.html"))

        self.assert_has_another_title(browser, "the page")

    def test_host_may_be_told_to_allow_what_nobody_is_asked_for(self):
        self.start_host("--file-default", "allow")

        self.open_page(self.url("page.html"))

        self.assertEqual(self.site.next_report(), {"image": 1, "frame": "the frame is here"})

    def test_incognito_page_asks_who_answers_for_its_profile(self):
        self.start_host()
        answerer = self.answer_by_path("page.html", "picture.gif", "frame.html")

        self.open_page(self.url("page.html"), incognito=True)

        self.assertEqual(self.site.next_report(), {"image": 1, "frame": "the frame is here"})
        self.assertEqual(self.paths_of(answerer), {"page.html", "picture.gif", "frame.html"})

    def test_question_is_withdrawn_when_its_page_is_closed(self):
        self.start_host()
        answerer = self.answer_files(lambda question: None)
        browser = self.open_page(self.url("page.html"))
        call_id, _ = answerer.next_question()

        self.close_browser(browser)

        self.assertEqual(answerer.next_withdrawn(), (call_id, "withdrawn"))

    def test_question_is_withdrawn_when_the_browser_is_killed(self):
        self.start_host()
        answerer = self.answer_files(lambda question: None)
        self.open_page(self.url("page.html"))
        call_id, _ = answerer.next_question()

        self.kill_browser()

        self.assertEqual(answerer.next_withdrawn(), (call_id, "withdrawn"))


if __name__ == "__main__":
    unittest.main()
