"""Keys that sign releases, and INI files signed as zqu-mirror does it."""

import base64
import re
import time

from cryptography.hazmat.primitives import serialization as form
from cryptography.hazmat.primitives.asymmetric.ed25519 import Ed25519PrivateKey
from release import info_name


def private_pem(key, password=b""):
    cipher = form.BestAvailableEncryption(password) if password else form.NoEncryption()
    return key.private_bytes(form.Encoding.PEM, form.PrivateFormat.PKCS8, cipher)


class SigningKey:
    """An Ed25519 key, and the files of its halves."""

    def __init__(self, directory, name="key"):
        self.key = Ed25519PrivateKey.generate()
        self.path, self.public = directory / f"{name}.pem", directory / f"{name}-pub.pem"
        self.path.touch(0o600)
        self.path.write_bytes(private_pem(self.key))
        public = form.PublicFormat.SubjectPublicKeyInfo
        self.public.write_bytes(self.key.public_key().public_bytes(form.Encoding.PEM, public))

    def sign(self, text):
        return text + b"# signature: " + base64.b64encode(self.key.sign(text)) + b"\n"

    def sign_info(self, mirror, id, age_s=0, more="", **changes):
        """Rewrites a release's complete-info INI, signed so long ago and with these changes."""
        text = mirror.path(info_name(id)).read_text()
        found = dict(re.findall(r"def\.Current\.(\w+) ?= ?(\S+)\n", text))
        values = {**found, "flavor": "v2", "published": int(time.time() - age_s), **changes}
        lines = "".join(f"def.Current.{key} = {value}\n" for key, value in values.items())
        others = "".join(re.findall(r"def\.Current\.\w+\..*\n", text))
        mirror.write(info_name(id), self.sign((lines + others + more).encode()))
