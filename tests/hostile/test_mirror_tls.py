"""Everything that can be wrong before the first request: certificates, protocols, the handshake, the way there."""

import ipaddress
import ssl

import pytest
from certificates import CLIENTS_ONLY, DAY, Issuer
from cryptography import x509
from release import HIT
from scripted_server import SUBDIR, cut, finish, hello_answer, receive, reset
from trials import BAD_URL, NO_HANDSHAKE, UNSUPPORTED, UNTRUSTED

BAD_AUTHORITIES = "Problem with the SSL CA cert (path? access rights?)"

HERE = [x509.IPAddress(ipaddress.ip_address("127.0.0.1")), x509.DNSName("localhost")]


@pytest.fixture(scope="session")
def issuer(authority):
    return Issuer.of_trustme(authority)


# What is wrong with the certificate of a mirror: how its context is made by an issuer, in a directory.
BAD_CERTIFICATES = {
    "unknown_authority": lambda issuer, folder: Issuer.unknown().context(folder, HERE),
    "self_signed": lambda issuer, folder: issuer.context(folder, HERE, self_signed=True),
    "expired": lambda issuer, folder: issuer.context(folder, HERE, starts=-2 * DAY, ends=-DAY),
    "not_yet_valid": lambda issuer, folder: issuer.context(folder, HERE, starts=DAY, ends=2 * DAY),
    "missing_intermediate": lambda issuer, folder: issuer.below().context(folder, HERE, with_chain=False),
    "issued_by_a_leaf": lambda issuer, folder: issuer.below(is_authority=False).context(folder, HERE),
    "for_clients_only": lambda issuer, folder: issuer.context(folder, HERE, usage=CLIENTS_ONLY),
}
# Names in a certificate that are not the mirror's, by the address or name that it has in the configuration.
BAD_NAMES = {
    "127.0.0.1": [
        x509.DNSName("elsewhere.example"),
        x509.IPAddress(ipaddress.ip_address("127.0.0.2")),
        x509.DNSName("127.0.0.1"),
        x509.DNSName("*"),
        x509.DNSName("*.0.0.1"),
        None,
    ],
    "localhost": [
        x509.DNSName("*"),
        x509.DNSName("*host"),
        x509.DNSName("localhost\0.evil.example"),
        x509.DNSName("localhost.evil.example"),
        x509.DNSName(""),
        x509.RFC822Name("localhost"),
        x509.UniformResourceIdentifier("https://localhost/"),
    ],
}


def address_by(trial, host):
    trial.gateway.settings["mirror_base_url"] = f"https://{host}:{trial.server.port}"


@pytest.mark.parametrize("wrong", BAD_CERTIFICATES)
def test_bad_certificate_is_refused_before_anything_is_asked(trial, issuer, tmp_path, wrong):
    trial.server.context = BAD_CERTIFICATES[wrong](issuer, tmp_path)
    trial.fail("hit", UNTRUSTED)
    assert trial.server.targets() == []
    trial.heal()


@pytest.mark.parametrize("host", BAD_NAMES)
def test_name_that_only_resembles_the_mirrors_is_refused(trial, issuer, tmp_path, host):
    address_by(trial, host)
    for name in BAD_NAMES[host]:
        trial.server.context = issuer.context(tmp_path, [name] if name else [])
        trial.fail("hit", UNTRUSTED)
    assert trial.server.targets() == []
    trial.heal()


def test_other_letter_case_and_intermediates_are_accepted(trial, issuer, tmp_path):
    address_by(trial, "localhost")
    trial.server.context = issuer.below().below().context(tmp_path, [x509.DNSName("LocalHost")])
    trial.accept()


def test_certificate_is_checked_again_by_the_next_process(trial, issuer, tmp_path):
    """No session is resumed with one that has turned bad."""
    trial.accept()
    trial.go_back()
    trial.server.context = issuer.context(tmp_path, HERE, starts=-2 * DAY, ends=-DAY)
    trial.refuse("hit", UNTRUSTED)


def limited(context, **attributes):
    """The context with these attributes set, and without OpenSSL's own lower bound."""
    context.set_ciphers(attributes.pop("ciphers", "ALL:@SECLEVEL=0"))
    for name, value in attributes.items():
        setattr(context, name, value)
    return context


@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3])
def test_current_protocols_are_spoken(trial, issuer, tmp_path, version):
    trial.server.context = limited(issuer.context(tmp_path, HERE), minimum_version=version, maximum_version=version)
    trial.accept()


WEAK = [{"minimum_version": old, "maximum_version": old} for old in (ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1)]
# Without a certificate, and without encryption.
WEAK += [{"maximum_version": ssl.TLSVersion.TLSv1_2, "ciphers": f"{no}NULL:@SECLEVEL=0"} for no in "ae"]


@pytest.mark.filterwarnings("ignore:ssl.TLSVersion.TLSv1")
def test_weak_protocols_are_refused(trial, issuer, tmp_path):
    for limits in WEAK:
        trial.server.context = limited(issuer.context(tmp_path, HERE), **limits)
        trial.fail("hit", NO_HANDSHAKE)
    trial.heal()


HANDSHAKE_FAILURE = b"\x15\x03\x03\x00\x02\x02\x28"
CLOSE_NOTIFY = b"\x15\x03\x03\x00\x02\x01\x00"
BAD_OPENINGS = (
    [finish],
    [receive, finish],
    [receive, reset],
    [receive, b"HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n", finish],
    [receive, b"\0" * 1000, finish],
    [receive, b"\x16\x03\x03\xff\xff" + b"\xff" * 1000, finish],
    [receive, HANDSHAKE_FAILURE, finish],
    [receive, CLOSE_NOTIFY, finish],
    [hello_answer(100), HANDSHAKE_FAILURE, finish],
    [hello_answer(-1), HANDSHAKE_FAILURE, finish],
)


def test_handshake_that_goes_wrong_is_refused(trial):
    for opening in BAD_OPENINGS:
        trial.server.opening = opening
        trial.fail("hit", NO_HANDSHAKE)
    trial.heal()


@pytest.mark.parametrize("end", [cut, reset])
def test_handshake_that_breaks_off_is_refused(trial, end):
    for length in (*range(1, 1000, 10 if trial.thorough else 150), -50, -10, -1):
        trial.server.opening = [hello_answer(length), end]
        trial.fail("hit", NO_HANDSHAKE)
    trial.heal()


def test_file_without_the_mirrors_authority_refuses_it(trial):
    """An empty name of the file stands for the system's authorities."""
    texts = {"empty": b"", "garbage": bytes(range(256)) * 16, "other": Issuer.unknown().pem()}
    texts["broken"] = b"-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"
    for name, text in texts.items():
        (trial.folder / name).write_bytes(text)
    (trial.folder / "directory").mkdir()
    trial.before = trial.tree()
    outcomes = dict.fromkeys(("missing", "directory", *texts), BAD_AUTHORITIES) | {"other": UNTRUSTED}
    for name, text in outcomes.items():
        trial.gateway.settings["ca_path"] = trial.folder / name
        trial.fail("hit", text)
    trial.gateway.settings["ca_path"] = ""
    trial.refuse("hit", UNTRUSTED)


def test_mirror_that_cannot_be_reached_fails_the_check(trial, closed_port):
    """No name has a label of more than 63 characters: no resolver asks anybody for it."""
    bases = {
        f"https://127.0.0.1:{closed_port}": "Couldn't connect to server",
        f"127.0.0.1:{closed_port}": "Couldn't connect to server",  # taken for plain HTTP
        f"https://{'x' * 64}.invalid:{trial.server.port}": "Couldn't resolve host name",
        "nonsense://127.0.0.1": UNSUPPORTED,
        "https://a b": BAD_URL,
        "https://127.0.0.1:65536": BAD_URL,
    }
    for base, text in bases.items():
        trial.gateway.settings["mirror_base_url"] = base
        trial.fail("hit", text)
    trial.gateway.settings["mirror_base_url"] = ""
    warning = "warning config: mirror_base_url is not set (the updater will idle, performing no checks)"
    trial.expect(trial.refused({}, "defId fetch failed", warning, f"err GET /{SUBDIR}/{HIT}: {BAD_URL}"))
    trial.heal()


def test_plain_requests_to_a_port_that_speaks_tls_are_refused(trial):
    trial.gateway.settings["mirror_base_url"] = f"http://127.0.0.1:{trial.server.port}"
    trial.server.opening = [receive, b"\x15\x03\x01\x00\x02\x02\x46", finish]
    trial.refuse("hit", UNSUPPORTED)


def test_configured_plain_http_is_spoken(trial):
    """Nothing insists on TLS but the configuration's own https."""
    trial.gateway.settings["mirror_base_url"] = f"http://127.0.0.1:{trial.server.port}"
    trial.server.context = None
    trial.accept()
