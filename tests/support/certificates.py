"""Certificates for servers under test, made by openssl(1) inside a sandbox.

    authority = Authority(sandbox, "/mnt/pki")      # makes the folder
    server = authority.issue("server", "DNS:localhost,IP:127.0.0.1")
    server.certificate, server.key                  # paths in the sandbox
"""

from dataclasses import dataclass

_NEW_KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-noenc")


@dataclass
class Files:
    certificate: str
    key: str


class Authority:
    def __init__(self, sandbox, folder, name="authority"):
        self._sandbox = sandbox
        self._folder = folder
        self._name = name
        sandbox.path(folder).mkdir(exist_ok=True)
        self.files = self._files(name)
        self._openssl("req", "-x509", *_NEW_KEY, "-subj", f"/CN={name}", "-days", "1", *self._out(self.files))

    @property
    def certificate(self):
        return self.files.certificate

    def issue(self, name, names="", days=1):
        """`names`: as in a subjectAltName. `days`: validity, negative for a certificate that has expired."""
        files = self._files(name)
        request = f"{self._folder}/{name}.csr"
        alternatives = ["-addext", f"subjectAltName={names}"] if names else []
        self._openssl(
            "req", "-new", *_NEW_KEY, "-subj", f"/CN={name}", *alternatives, "-keyout", files.key, "-out", request
        )
        issuer = ["-CA", self.files.certificate, "-CAkey", self.files.key, "-days", str(days)]
        self._openssl("x509", "-req", "-in", request, *issuer, "-copy_extensions", "copy", "-out", files.certificate)
        self._sandbox.path(files.key).chmod(0o644)
        return files

    def _files(self, name):
        return Files(f"{self._folder}/{name}.pem", f"{self._folder}/{name}.key")

    @staticmethod
    def _out(files):
        return ["-keyout", files.key, "-out", files.certificate]

    def _openssl(self, *words):
        self._sandbox.run("openssl", *words)
