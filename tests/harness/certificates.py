"""Certificates that no honest authority issues; trustme makes the honest ones."""

import datetime
import ssl

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

DAY = datetime.timedelta(days=1)


def common_name(text):
    return x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, text)])


class Issuer:
    """An authority: trustme's, one below another one, or a certificate that is not allowed to be one."""

    def __init__(self, certificate, key, chain=b""):
        self.certificate = certificate
        self.key = key
        self.chain = chain  # what a server has to send besides its own certificate

    @classmethod
    def of_trustme(cls, authority):
        key = serialization.load_pem_private_key(authority.private_key_pem.bytes(), None)
        return cls(x509.load_pem_x509_certificate(authority.cert_pem.bytes()), key)

    @classmethod
    def unknown(cls):
        """An unknown authority of its own."""
        return cls(*cls(None, None)._certificate([], subject="unknown", is_authority=True, self_signed=True))

    def pem(self):
        return self.certificate.public_bytes(serialization.Encoding.PEM)

    def below(self, is_authority=True):
        """An intermediate authority, or a leaf that pretends to be one."""
        certificate, key = self._certificate(
            [], subject=f"below {self.certificate.serial_number}", is_authority=is_authority
        )
        return Issuer(certificate, key, Issuer(certificate, key).pem() + self.chain)

    def context(self, directory, names, with_chain=True, **options):
        """A server's TLS context with a certificate for these names."""
        certificate, key = self._certificate(names, **options)
        pem = key.private_bytes(
            serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, serialization.NoEncryption()
        )
        pem += certificate.public_bytes(serialization.Encoding.PEM) + (self.chain if with_chain else b"")
        path = directory / "server.pem"
        path.write_bytes(pem)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(path)
        path.unlink()
        return context

    def _certificate(
        self, names, subject="leaf", starts=-DAY, ends=DAY, is_authority=False, usage=None, self_signed=False
    ):
        key = ec.generate_private_key(ec.SECP256R1())
        now = datetime.datetime.now(datetime.timezone.utc)
        builder = (
            x509.CertificateBuilder()
            .subject_name(common_name(subject))
            .issuer_name(common_name(subject) if self_signed else self.certificate.subject)
            .public_key(key.public_key())
            .serial_number(x509.random_serial_number())
            .not_valid_before(now + starts)
            .not_valid_after(now + ends)
            .add_extension(x509.BasicConstraints(ca=is_authority, path_length=None), critical=True)
        )
        if names:
            builder = builder.add_extension(x509.SubjectAlternativeName(names), critical=False)
        if usage:
            builder = builder.add_extension(x509.ExtendedKeyUsage([usage]), critical=False)
        return builder.sign(key if self_signed else self.key, hashes.SHA256()), key


CLIENTS_ONLY = ExtendedKeyUsageOID.CLIENT_AUTH
