"""varnicctl as a person uses it: what it prints, what it exits with, and what it never changes."""

import hashlib
import json
import os
import pathlib
import shutil
import stat
import tempfile
import unittest

import programs

NOBODY = 65534


def fingerprint(folder):
    """Everything in a folder: names, modes and contents."""
    entries = {}
    for path in sorted(pathlib.Path(folder).rglob("*")):
        mode = path.lstat().st_mode
        content = hashlib.sha256(path.read_bytes()).hexdigest() if stat.S_ISREG(mode) else None
        entries[str(path)] = (mode, content)
    return entries


class VarnicctlTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        # An ordinary user has to get through it in one of the tests.
        self.folder.chmod(0o755)
        self.addCleanup(shutil.rmtree, self.folder)
        self.user_data_dir = self.folder / "user-data"
        self.make_user_data_dir()
        self.target = f"unix:{self.folder}/sockets/host.sock"
        (self.folder / "sockets").mkdir(mode=0o777)
        (self.folder / "sockets").chmod(0o777)

    def make_user_data_dir(self):
        profile = self.user_data_dir / "Profile 1"
        profile.mkdir(parents=True)
        (self.user_data_dir / "Local State").write_text(
            json.dumps(
                {
                    "profile": {
                        "info_cache": {"Profile 1": {"name": "Grüße"}},
                        "last_used": "Profile 1",
                    }
                }
            )
        )
        (profile / "Preferences").write_text(
            json.dumps({"intl": {"selected_languages": "de,en"}, "zoom": 1.5})
        )

    def start_host(self, *arguments, **options):
        host = programs.Host(
            "--listen", self.target, "--user-data-dir", str(self.user_data_dir),
            "--user-agent", "Mozilla/5.0 (X11; Linux x86_64) Chrome/156.0.0.0 Safari/537.36",
            *arguments,
            **options,
        )
        self.addCleanup(host.__exit__)
        self.assertEqual(host.addresses, [self.target.replace("unix:", "unix://")], host.stderr())
        return host

    def ctl(self, *arguments):
        return programs.ctl("--target", self.target, *arguments)

    def assert_prints(self, arguments, output):
        result = self.ctl(*arguments)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, output, ""))

    def assert_fails(self, arguments, status, *texts):
        """The call fails, says each of the texts, and leaves everything on disk as it was."""
        before = fingerprint(self.user_data_dir)
        result = self.ctl(*arguments)
        self.assertEqual(result.returncode, 10 + status, result.stderr)
        self.assertEqual(result.stdout, "")
        for text in texts:
            self.assertIn(text, result.stderr)
        self.assertEqual(fingerprint(self.user_data_dir), before)

    def test_answers_are_plain_text_for_people(self):
        self.start_host()
        self.assert_prints(["path"], f"{self.user_data_dir}/Profile 1\n")
        self.assert_prints(["path", "Profile 1"], f"{self.user_data_dir}/Profile 1\n")
        self.assert_prints(["name"], "Grüße\n")
        self.assert_prints(["is-incognito"], "false\n")
        self.assert_prints(["is-default"], "true\n")
        self.assert_prints(["get-accept-language"], "de,en\n")
        self.assert_prints(
            ["get-user-agent"], "Mozilla/5.0 (X11; Linux x86_64) Chrome/156.0.0.0 Safari/537.36\n"
        )
        metadata = self.ctl("get-user-agent-metadata").stdout.splitlines()
        self.assertIn("platform: Linux", metadata)
        self.assertIn("mobile: false", metadata)

    def test_answers_are_json_for_programs(self):
        self.start_host()
        self.assert_prints(["--json", "name"], '"Grüße"\n')
        self.assert_prints(["--json", "is-default"], "true\n")
        metadata = json.loads(self.ctl("--json", "get-user-agent-metadata").stdout)
        self.assertEqual(metadata["platform"], "Linux")
        self.assertIs(metadata["mobile"], False)

    def test_failures_are_json_for_programs(self):
        self.start_host()
        result = self.ctl("--json", "path", "Nobody")
        self.assertEqual(result.returncode, 15)
        error = json.loads(result.stderr)["error"]
        self.assertEqual((error["code"], error["status"]), (5, "NOT_FOUND"))
        self.assertIn("Nobody", error["message"])

    def test_language_that_was_set_is_kept_with_everything_else_as_it_was(self):
        self.start_host()
        self.assert_prints(["set-accept-language", "fr-FR, fr,en"], "")
        self.assert_prints(["get-accept-language", "Profile 1"], "fr-FR,fr,en\n")
        preferences = programs.preferences(self.user_data_dir, "Profile 1")
        self.assertEqual(preferences["intl"]["selected_languages"], "fr-FR,fr,en")
        self.assertEqual(preferences["zoom"], 1.5)

    def test_host_that_is_not_there_is_named_with_what_to_try(self):
        self.assert_fails(["path"], 14, self.target.replace("unix:", "unix://"), "varnic-host")

    def test_socket_of_a_dead_host_is_as_good_as_none(self):
        host = self.start_host()
        host.process.kill()
        host.process.wait(programs.PATIENCE_SECONDS)
        self.assert_fails(["path"], 14, "Connection refused")

    def test_wrong_profile_is_named(self):
        self.start_host()
        for command in ("path", "name", "is-incognito", "is-default", "create-browser",
                        "get-accept-language", "get-user-agent", "get-user-agent-metadata"):
            self.assert_fails([command, "No Such"], 5, "No Such")
        self.assert_fails(["set-accept-language", "de", "No Such"], 5, "No Such")

    def test_profile_outside_the_directory_is_not_found(self):
        self.start_host()
        for profile in ("..", "../user-data/Profile 1", "/", ".", "Profile 1/"):
            self.assert_fails(["get-accept-language", profile], 5)

    def test_bad_language_is_refused_by_name(self):
        self.start_host()
        self.assert_fails(["set-accept-language", "de,english please"], 3, "english please")
        self.assert_fails(["set-accept-language", "de;q=0.9"], 3, "de;q=0.9", "quality")
        self.assert_fails(["set-accept-language", ""], 3)

    def test_read_only_directory_is_read_but_not_written(self):
        profile = self.user_data_dir / "Profile 1"
        if os.geteuid() == 0:
            # The modes of files do not hold root back.
            program = programs.copy_for_everybody(programs.HOST, self.folder)
            self.start_host("--allow-user", "root", user=NOBODY, program=program)
        else:
            for folder in (profile, self.user_data_dir):
                folder.chmod(0o555)
                self.addCleanup(folder.chmod, 0o755)
            self.start_host()
        self.assert_prints(["get-accept-language"], "de,en\n")
        self.assert_fails(["set-accept-language", "fr"], 7, str(profile), "ermission")

    def test_corrupt_preferences_are_named_and_left_alone(self):
        preferences = self.user_data_dir / "Profile 1" / "Preferences"
        self.start_host()
        for content in ('{"intl": ', "[]", '{"intl": 1}', "\xff\xfe", "", "[" * 100000):
            preferences.write_text(content)
            self.assert_fails(["set-accept-language", "fr"], 15, str(preferences))
        self.assert_fails(["get-accept-language"], 15, str(preferences))

    def test_create_browser_says_that_none_is_configured(self):
        self.start_host()
        self.assert_fails(
            ["create-browser", "--url", "about:blank", "--window-size", "800x600"], 9, "browser"
        )

    def test_wrong_command_line_is_a_usage_error(self):
        for arguments, text in (
            ([], "no command"),
            (["fly"], "fly"),
            (["--frobnicate", "path"], "--frobnicate"),
            (["path", "one", "two"], "two"),
            (["set-accept-language"], "languages"),
            (["path", "--timeout", "soon"], "--timeout"),
            (["path", "--timeout"], "--timeout"),
            (["create-browser", "--window-size", "big"], "--window-size"),
            (["create-browser", "--window-position", "here"], "--window-position"),
        ):
            result = self.ctl(*arguments)
            self.assertEqual(result.returncode, 2, arguments)
            self.assertIn(text, result.stderr)
            self.assertIn("--help", result.stderr)

    def test_help_names_every_command(self):
        for option in ("--help", "-h"):
            result = programs.ctl(option)
            self.assertEqual((result.returncode, result.stderr), (0, ""))
            for command in ("path", "name", "is-incognito", "is-default", "create-browser",
                            "get-accept-language", "set-accept-language", "get-user-agent",
                            "get-user-agent-metadata", "--target", "--json"):
                self.assertIn(command, result.stdout)

    def test_malformed_target_is_explained(self):
        result = programs.ctl("--target", "nowhere", "path")
        self.assertEqual(result.returncode, 13)
        self.assertIn("nowhere", result.stderr)


if __name__ == "__main__":
    unittest.main()
