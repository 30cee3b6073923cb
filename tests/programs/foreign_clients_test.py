"""Two gRPC clients that are not ours call every unary method of a running varnic-host, about a
profile that a real Chromium has made."""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

import grpc
from google.protobuf import json_format

import programs

sys.path.insert(0, os.environ["VARNIC_PYTHON_STUBS"])
# pylint: disable=wrong-import-position
from rpc.profile import profile_pb2_grpc  # noqa: E402

GRPCPP_CLIENT = os.environ["VARNIC_GRPCPP_CLIENT"]
DEADLINE_SECONDS = 30


class PythonClient:
    """python3-grpcio."""

    def __init__(self, target):
        self._channel = grpc.insecure_channel(target)
        self._stub = profile_pb2_grpc.ProfileStub(self._channel)

    def call(self, method, request):
        descriptor = profile_pb2_grpc.rpc_dot_profile_dot_profile__pb2.DESCRIPTOR
        types = descriptor.services_by_name["Profile"].methods_by_name[method]
        message = json_format.ParseDict(request, types.input_type._concrete_class())
        try:
            response = getattr(self._stub, method)(message, timeout=DEADLINE_SECONDS)
        except grpc.RpcError as error:
            return {"code": error.code().value[0], "message": error.details()}
        return {"code": 0, "message": "", "response": json_format.MessageToDict(response)}

    def close(self):
        self._channel.close()


class CppClient:
    """grpc++, in a process of its own."""

    def __init__(self, target):
        self._target = target

    def call(self, method, request):
        result = subprocess.run(
            [GRPCPP_CLIENT, self._target, method, json.dumps(request)],
            capture_output=True,
            text=True,
            check=True,
            timeout=programs.PATIENCE_SECONDS,
        )
        return json.loads(result.stdout)

    def close(self):
        pass


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
        for make_client in (PythonClient, CppClient):
            for address in self.host.addresses:
                client = make_client(address)
                with self.subTest(client=make_client.__name__, address=address):
                    yield client
                client.close()

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
        languages = iter(("fr-FR,fr,en", "de,en-GB", "es-419,es", "pt-BR"))
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


if __name__ == "__main__":
    unittest.main()
