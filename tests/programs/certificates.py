"""Certificates for a test, made by openssl: an authority, and whoever it vouches for."""

import pathlib
import subprocess


class Authority:
    """Makes NAME.pem and NAME.key in a folder; its own are ca.pem and ca.key."""

    def __init__(self, folder):
        self._folder = pathlib.Path(folder)
        self._openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                      "-nodes", "-days", "1", "-subj", "/CN=test CA", "-keyout", "ca.key",
                      "-out", "ca.pem")

    def certify(self, name, alternative_name):
        self._openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                      "-subj", f"/CN={name}", "-keyout", f"{name}.key", "-out", f"{name}.csr")
        (self._folder / "names").write_text(f"subjectAltName={alternative_name}\n")
        self._openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
                      "-CAcreateserial", "-days", "1", "-extfile", "names", "-out", f"{name}.pem")

    def _openssl(self, *arguments):
        subprocess.run(["openssl", *arguments], check=True, capture_output=True, cwd=self._folder)
