"""Who may call varnic-host, as an operator sets it up: users, certificates and a policy."""

import json
import os
import subprocess
import sys
import unittest

import grpc

import certificates
import programs

sys.path.insert(0, os.environ["VARNIC_PYTHON_STUBS"])
from rpc import identifiers_pb2
from rpc.profile import profile_pb2_grpc

NOBODY = 65534

# What varnicctl exits with.
USAGE, PERMISSION_DENIED, UNAVAILABLE = 2, 10 + 7, 10 + 14


class HostAccessTest(programs.HostTestCase):
    def file(self, name):
        return str(self.folder / name)

    def make_certificates(self):
        self.authority = certificates.Authority(self.folder)
        self.authority.certify("server", "DNS:localhost,IP:127.0.0.1")
        self.authority.certify("reader", "URI:spiffe://example.org/reader")

    def start_tls_host(self, *arguments):
        return self.start_host("--listen", "127.0.0.1:0", "--tls-cert", self.file("server.pem"),
                               "--tls-key", self.file("server.key"),
                               "--tls-client-ca", self.file("ca.pem"), *arguments)

    def ctl_as(self, name, host, *arguments):
        """A call with the certificate of that name, or with none."""
        own = ("--tls-cert", self.file(f"{name}.pem"), "--tls-key", self.file(f"{name}.key"))
        return programs.ctl("--target", host.addresses[0], "--tls-ca", self.file("ca.pem"),
                            *(own if name else ()), *arguments)

    def assert_refuses(self, status, *texts_and_arguments):
        *texts, arguments = texts_and_arguments
        programs.assert_host_refuses(self, status, texts, arguments, self.environment)

    def test_client_with_a_certificate_is_served_and_one_without_hears_why(self):
        self.make_certificates()
        host = self.start_tls_host()

        served = self.ctl_as("reader", host, "path")
        refused = self.ctl_as(None, host, "path")

        self.assertEqual((served.returncode, served.stderr), (0, ""))
        self.assertTrue(served.stdout.endswith("/Default\n"))
        self.assertEqual(refused.returncode, UNAVAILABLE)
        self.assertIn("certificate required", refused.stderr)
        self.assertIn("did not return a certificate", host.stderr())

    def test_client_of_grpcio_is_served_with_its_certificate(self):
        self.make_certificates()
        host = self.start_tls_host()
        read = lambda name: (self.folder / name).read_bytes()
        credentials = grpc.ssl_channel_credentials(read("ca.pem"), read("reader.key"),
                                                   read("reader.pem"))
        target = host.addresses[0].replace("127.0.0.1", "localhost")

        with grpc.secure_channel(target, credentials) as channel:
            path = profile_pb2_grpc.ProfileStub(channel).Path(
                identifiers_pb2.ProfileId(), timeout=programs.PATIENCE_SECONDS)

        self.assertTrue(path.value.endswith("/Default"))

    def test_policy_gives_each_role_its_methods(self):
        self.make_certificates()
        self.authority.certify("other", "URI:spiffe://example.org/other")
        (self.folder / "policy.json").write_text(json.dumps({
            "roles": {"reader": {"san": ["URI:spiffe://example.org/reader"]}},
            "methods": {"/rpc.Profile/Path": ["reader"],
                        "/rpc.BrowserHost/ListProfiles": ["reader"]},
        }))
        host = self.start_tls_host("--policy", self.file("policy.json"))

        self.assertEqual(self.ctl_as("reader", host, "path").returncode, 0)
        denied = self.ctl_as("reader", host, "name")
        self.assertEqual(denied.returncode, PERMISSION_DENIED)
        self.assertIn("/rpc.Profile/Name", denied.stderr)
        self.assertEqual(self.ctl_as("reader", host, "profiles").returncode, 0)
        denied = self.ctl_as("reader", host, "new-profile")
        self.assertEqual(denied.returncode, PERMISSION_DENIED)
        self.assertIn("/rpc.BrowserHost/CreateProfile", denied.stderr)
        self.assertEqual(self.ctl_as("other", host, "path").returncode, PERMISSION_DENIED)
        self.assertIn("Denied a call method=/rpc.Profile/Name peer=127.0.0.1:", host.stderr())

    @unittest.skipUnless(os.geteuid() == 0, "only root can be another user")
    def test_other_users_come_in_only_when_they_are_allowed(self):
        as_nobody = {"user": NOBODY, "group": NOBODY, "extra_groups": [], "capture_output": True,
                     "text": True, "timeout": programs.PATIENCE_SECONDS}
        ctl = programs.copy_for_everybody(programs.CTL, self.folder)
        call = lambda name: subprocess.run(
            [ctl, "--target", f"unix:{self.file(name)}", "path"], **as_nobody)
        closed = self.start_host("--listen", f"unix:{self.file('closed.sock')}")
        os.chmod(self.file("closed.sock"), 0o666)

        self.assertEqual(call("closed.sock").returncode, UNAVAILABLE)
        self.assertIn(f"uid={NOBODY}", closed.stderr())
        closed.stop()
        self.start_host("--listen", f"unix:{self.file('open.sock')}", "--allow-user", str(NOBODY))
        self.assertEqual(call("open.sock").returncode, 0)

    def test_stranger_at_an_open_door_is_warned_of(self):
        self.make_certificates()
        arguments = ("--tls-cert", self.file("server.pem"), "--tls-key", self.file("server.key"))

        host = self.start_host("--listen", "0.0.0.0:0", *arguments)

        self.assertIn("whoever can reach 0.0.0.0:0 may call", host.stderr())

    def test_files_that_cannot_be_used_are_named_with_their_options(self):
        self.make_certificates()
        self.authority.certify("other", "DNS:localhost")
        tls = lambda cert, key: ["--listen", "127.0.0.1:0", "--tls-cert", self.file(cert),
                                 "--tls-key", self.file(key)]

        self.assert_refuses(1, "--tls-cert", self.file("missing.pem"), "No such file",
                            tls("missing.pem", "server.key"))
        self.assert_refuses(1, "--tls-key", self.file("other.key"), "not that of the certificate",
                            tls("server.pem", "other.key"))
        self.assert_refuses(1, "--policy", self.file("ca.pem"), "not valid JSON",
                            ["--policy", self.file("ca.pem")])

    def test_options_that_do_not_go_together_are_usage_errors(self):
        tcp = ["--listen", "127.0.0.1:0"]

        self.assert_refuses(2, "--tls-cert a.pem", "--tls-key", [*tcp, "--tls-cert", "a.pem"])
        self.assert_refuses(2, "--tls-client-ca a.pem", "--tls-cert",
                            [*tcp, "--tls-client-ca", "a.pem"])
        self.assert_refuses(2, "--tls-crl a.pem", "--tls-client-ca", [
            *tcp, "--tls-cert", "a", "--tls-key", "b", "--tls-crl", "a.pem"])
        self.assert_refuses(2, "--tls-cert a", "HOST:PORT", ["--tls-cert", "a", "--tls-key", "b"])
        self.assert_refuses(2, "--policy", "path of a file", ["--policy="])
        self.assert_refuses(2, "--allow-user", "no user nobody-of-that-name",
                            ["--allow-user", "nobody-of-that-name"])
        self.assert_refuses(2, "--allow-group 7", "--listen unix:PATH", ["--allow-group", "7"])
        self.assert_refuses(2, "--allow-user 7", "--listen", [*tcp, "--allow-user", "7"])

    def test_ctl_names_what_is_wrong_with_its_own_options(self):
        for texts, arguments in (
            (["--tls-cert a.pem", "go together"], ["--target", "x:1", "--tls-cert", "a.pem"]),
            (["--tls-ca a.pem", "--target"], ["--tls-ca", "a.pem"]),
            (["--tls-ca /nowhere.pem", "No such file"],
             ["--target", "x:1", "--tls-ca", "/nowhere.pem"]),
        ):
            result = programs.ctl(*arguments, "path", env=self.environment)

            self.assertEqual(result.returncode, USAGE, result.stderr)
            for text in texts:
                self.assertIn(text, result.stderr)


if __name__ == "__main__":
    unittest.main()
