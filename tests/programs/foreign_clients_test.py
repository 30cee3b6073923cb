"""gRPC clients that are not ours call every unary method of a running varnic-host, about a profile
that a real Chromium has made."""

import json
import pathlib
import tempfile
import unittest

from google.protobuf import json_format

import foreign
import programs

# pylint: disable=wrong-import-order
from rpc.profile import profile_pb2

METHODS = profile_pb2.DESCRIPTOR.services_by_name["Profile"].methods_by_name


class Caller:
    """A connection, for requests and responses in JSON."""

    def __init__(self, channel):
        self._channel = channel

    def call(self, method, request):
        request_type = METHODS[method].input_type._concrete_class
        message = json_format.ParseDict(request, request_type())
        end = self._channel.call(f"/rpc.Profile/{method}", message).end()
        answer = {"code": end.code, "message": end.text}
        if end.messages:
            answer["response"] = json_format.MessageToDict(end.messages[0])
        return answer


@programs.needs_chromium
class ForeignClientsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.user_data_dir = pathlib.Path(cls.folder.name) / "user-data"
        programs.make_user_data_dir(cls.user_data_dir)
        cls.host = programs.Host(
            "--listen",
            f"unix:{cls.folder.name}/host.sock",
            "--listen",
            "127.0.0.1:0",
            "--user-data-dir",
            str(cls.user_data_dir),
        )

    @classmethod
    def tearDownClass(cls):
        status = cls.host.stop()
        cls.host.__exit__()
        cls.folder.cleanup()
        if status != 0:
            raise AssertionError(f"varnic-host ended with {status} after SIGTERM")

    def each_client(self):
        """Every client over every kind of socket."""
        for name in foreign.COMMANDS:
            client = foreign.Client(name)
            self.addCleanup(client.close)
            for address in self.host.addresses:
                with self.subTest(client=name, address=address):
                    yield Caller(client.connect(address))
            self.assertEqual(client.close(), 0)

    def assert_answer(self, client, method, request, response):
        self.assertEqual(
            client.call(method, request), {"code": 0, "message": "", "response": response}
        )

    def test_path_is_the_folder_that_chromium_made(self):
        for client in self.each_client():
            self.assert_answer(client, "Path", {}, str(self.user_data_dir / "Default"))
            self.assert_answer(
                client, "Path", {"value": "Default"}, str(self.user_data_dir / "Default")
            )

    def test_name_is_the_one_that_chromium_shows(self):
        state = json.loads((self.user_data_dir / "Local State").read_text())
        name = state["profile"]["info_cache"]["Default"]["name"]
        for client in self.each_client():
            self.assert_answer(client, "Name", {}, name)

    def test_profile_on_disk_is_not_incognito(self):
        for client in self.each_client():
            self.assert_answer(client, "IsIncognito", {}, False)

    def test_only_profile_is_the_default_one(self):
        for client in self.each_client():
            self.assert_answer(client, "IsDefault", {"value": "Default"}, True)

    def test_create_browser_is_refused_because_there_is_none(self):
        for client in self.each_client():
            answer = client.call("CreateBrowser", {"url": "about:blank"})
            self.assertEqual(answer["code"], 9)
            self.assertIn("browser", answer["message"])

    def test_unknown_profile_is_not_found_by_its_id(self):
        for client in self.each_client():
            for method in ("Path", "Name", "IsIncognito", "IsDefault", "GetAcceptLanguage",
                           "GetUserAgent", "GetUserAgentMetadata"):
                answer = client.call(method, {"value": "Profile 77"})
                self.assertEqual(answer["code"], 5, method)
                self.assertIn("Profile 77", answer["message"])
            for method in ("CreateBrowser", "SetAcceptLanguage"):
                answer = client.call(
                    method,
                    {"profileId": {"value": "Profile 77"}}
                    | ({"acceptLanguage": "de"} if method == "SetAcceptLanguage" else {}),
                )
                self.assertEqual(answer["code"], 5, method)
                self.assertIn("Profile 77", answer["message"])

    def test_language_that_is_set_is_read_back_and_used_by_chromium(self):
        languages = iter(("fr-FR,fr,en", "de,en-GB", "es-419,es", "pt-BR", "it", "ja,en"))
        for client in self.each_client():
            before = programs.preferences(self.user_data_dir)
            language = next(languages)

            self.assert_answer(client, "SetAcceptLanguage", {"acceptLanguage": language}, {})

            self.assert_answer(client, "GetAcceptLanguage", {}, language)
            after = programs.preferences(self.user_data_dir)
            self.assertEqual(after["intl"].pop("selected_languages"), language)
            after["intl"].pop("accept_languages", None)
            expected = dict(before, intl=dict(before.get("intl", {})))
            expected["intl"].pop("selected_languages", None)
            expected["intl"].pop("accept_languages", None)
            self.assertEqual(after, expected)
            self.assertEqual(self.chromiums_languages(), language.split(","))

    def chromiums_languages(self):
        return json.loads(
            programs.dump_page(
                self.user_data_dir,
                "<body><script>document.body.textContent ="
                " JSON.stringify(navigator.languages)</script>",
            )
        )

    def test_bad_language_is_an_invalid_argument_that_names_the_tag(self):
        for client in self.each_client():
            answer = client.call("SetAcceptLanguage", {"acceptLanguage": "de,not_a_tag"})
            self.assertEqual(answer["code"], 3)
            self.assertIn("not_a_tag", answer["message"])

    def test_user_agent_is_the_one_that_pages_see(self):
        page = json.loads(
            programs.dump_page(
                self.user_data_dir,
                """<body><script>
                navigator.userAgentData.getHighEntropyValues([
                  "architecture", "bitness", "formFactors", "fullVersionList", "model",
                  "platformVersion", "uaFullVersion", "wow64",
                ]).then(hints => {
                  document.body.textContent =
                      JSON.stringify({agent: navigator.userAgent, hints});
                });
                </script>""",
            )
        )
        hints = page["hints"]
        for client in self.each_client():
            answer = client.call("GetUserAgent", {})
            # Without a window, and only then, the browser calls itself headless.
            self.assertEqual(answer["response"], page["agent"].replace("HeadlessChrome", "Chrome"))
            metadata = client.call("GetUserAgentMetadata", {})["response"]
            self.assertEqual(metadata["brands"], hints["brands"])
            self.assertEqual(metadata["fullVersionList"], hints["fullVersionList"])
            self.assertEqual(metadata["fullVersion"], hints["uaFullVersion"])
            self.assertEqual(metadata["formFactors"], hints["formFactors"])
            for name in ("platform", "platformVersion", "architecture", "bitness", "model"):
                self.assertEqual(metadata.get(name, ""), hints[name], name)
            for name in ("mobile", "wow64"):
                self.assertEqual(metadata.get(name, False), hints[name], name)


@programs.needs_chromium
class ForeignClientsOverTlsTest(unittest.TestCase):
    """The host asks for certificates, and each client has one."""

    @classmethod
    def setUpClass(cls):
        folder = cls.enterClassContext(tempfile.TemporaryDirectory())
        cls.user_data_dir = pathlib.Path(folder) / "user-data"
        programs.make_user_data_dir(cls.user_data_dir)
        transport = foreign.Mtls(folder)
        cls.host = cls.enterClassContext(programs.Host(
            "--listen", "127.0.0.1:0", "--user-data-dir", str(cls.user_data_dir),
            "--tls-cert", transport.file("server.pem"), "--tls-key", transport.file("server.key"),
            "--tls-client-ca", transport.file("ca.pem"),
        ))
        cls.connection = transport.connection(cls.host.addresses[0])

    @classmethod
    def tearDownClass(cls):
        status = cls.host.stop()
        if status != 0:
            raise AssertionError(f"varnic-host ended with {status} after SIGTERM")

    def connect(self, name, **options):
        client = foreign.Client(name)
        self.addCleanup(client.close)
        return Caller(client.connect(**{**self.connection, **options}))

    def assert_every_method_is_answered(self, client_name):
        client = self.connect(client_name)
        response = lambda method, **request: client.call(method, request).get("response")
        state = json.loads((self.user_data_dir / "Local State").read_text())

        self.assertEqual(response("SetAcceptLanguage", acceptLanguage=f"de,{client_name}"), {})
        self.assertEqual(response("GetAcceptLanguage"), f"de,{client_name}")
        self.assertEqual(response("Path"), str(self.user_data_dir / "Default"))
        self.assertEqual(response("Name"), state["profile"]["info_cache"]["Default"]["name"])
        self.assertIs(response("IsDefault"), True)
        self.assertIs(response("IsIncognito"), False)
        self.assertRegex(response("GetUserAgent"), "^Mozilla/5.0 .*Chrome/")
        self.assertEqual(response("GetUserAgentMetadata")["platform"], "Linux")
        self.assertEqual(client.call("CreateBrowser", {})["code"], foreign.Code.FAILED_PRECONDITION)

    def test_every_unary_method_is_answered_to_grpcpp(self):
        self.assert_every_method_is_answered("grpcpp")

    def test_every_unary_method_is_answered_to_grpcio(self):
        self.assert_every_method_is_answered("grpcio")

    def test_every_unary_method_is_answered_to_grpcjs(self):
        self.assert_every_method_is_answered("grpcjs")

    def test_clients_without_a_certificate_are_not_served(self):
        for name in foreign.COMMANDS:
            client = self.connect(name, certificate=None, key=None)

            self.assertEqual(client.call("Path", {})["code"], foreign.Code.UNAVAILABLE, name)


if __name__ == "__main__":
    unittest.main()
