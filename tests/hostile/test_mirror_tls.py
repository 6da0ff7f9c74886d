"""Everything that can be wrong before the first request: certificates, protocols, the handshake, the way there."""

import ipaddress
import ssl

import pytest
from certificates import CLIENTS_ONLY, DAY, Issuer
from cryptography import x509
from release import HIT
from scripted_server import SUBDIR, cut, finish, hello_answer, receive, reset

UNTRUSTED = "SSL peer certificate or SSH remote key was not OK"
NO_HANDSHAKE = "SSL connect error"
BAD_AUTHORITIES = "Problem with the SSL CA cert (path? access rights?)"

HERE = [x509.IPAddress(ipaddress.ip_address("127.0.0.1")), x509.DNSName("localhost")]


@pytest.fixture(scope="session")
def issuer(authority):
    return Issuer.of_trustme(authority)


# What is wrong with the certificate of a mirror that is addressed as 127.0.0.1.
BAD_CERTIFICATES = {
    "unknown_authority": lambda issuer, folder: Issuer.unknown().context(folder, HERE),
    "self_signed": lambda issuer, folder: issuer.context(folder, HERE, self_signed=True),
    "expired": lambda issuer, folder: issuer.context(folder, HERE, starts=-2 * DAY, ends=-DAY),
    "not_yet_valid": lambda issuer, folder: issuer.context(folder, HERE, starts=DAY, ends=2 * DAY),
    "other_name": lambda issuer, folder: issuer.context(folder, [x509.DNSName("elsewhere.example")]),
    "other_address": lambda issuer, folder: issuer.context(folder, [x509.IPAddress(ipaddress.ip_address("127.0.0.2"))]),
    "address_as_a_name": lambda issuer, folder: issuer.context(folder, [x509.DNSName("127.0.0.1")]),
    "wildcard_for_everything": lambda issuer, folder: issuer.context(folder, [x509.DNSName("*")]),
    "wildcard_for_addresses": lambda issuer, folder: issuer.context(folder, [x509.DNSName("*.0.0.1")]),
    "no_name_at_all": lambda issuer, folder: issuer.context(folder, []),
    "missing_intermediate": lambda issuer, folder: issuer.below().context(folder, HERE, with_chain=False),
    "issued_by_a_leaf": lambda issuer, folder: issuer.below(is_authority=False).context(folder, HERE),
    "for_clients_only": lambda issuer, folder: issuer.context(folder, HERE, usage=CLIENTS_ONLY),
}


@pytest.mark.parametrize("wrong", BAD_CERTIFICATES)
def test_bad_certificate_is_refused_before_anything_is_asked(trial, issuer, tmp_path, wrong):
    good = trial.server.context
    trial.server.context = BAD_CERTIFICATES[wrong](issuer, tmp_path)
    trial.refuse(*trial.failure("hit", UNTRUSTED))
    assert trial.server.targets() == []
    trial.server.context = good
    trial.heal()


@pytest.mark.parametrize(
    "names",
    [
        [x509.DNSName("*")],
        [x509.DNSName("*host")],
        [x509.DNSName("localhost\0.evil.example")],
        [x509.DNSName("localhost.evil.example")],
        [x509.DNSName("")],
        [x509.RFC822Name("localhost")],
        [x509.UniformResourceIdentifier("https://localhost/")],
    ],
    ids=["star", "partial_star", "nul", "longer", "empty", "mail", "uri"],
)
def test_name_that_only_resembles_the_mirrors_is_refused(trial, issuer, tmp_path, names):
    good = trial.server.context
    by_address = trial.gateway.settings["mirror_base_url"]
    trial.gateway.settings["mirror_base_url"] = by_address.replace("127.0.0.1", "localhost")
    trial.server.context = issuer.context(tmp_path, names)
    trial.refuse(*trial.failure("hit", UNTRUSTED))
    trial.server.context = good
    trial.heal()


def test_name_in_other_letter_case_and_an_intermediate_are_accepted(trial, issuer, tmp_path):
    by_address = trial.gateway.settings["mirror_base_url"]
    trial.gateway.settings["mirror_base_url"] = by_address.replace("127.0.0.1", "localhost")
    trial.server.context = issuer.below().below().context(tmp_path, [x509.DNSName("LocalHost")])
    trial.accept()


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


@pytest.mark.filterwarnings("ignore:ssl.TLSVersion.TLSv1")
@pytest.mark.parametrize(
    "limits",
    [
        dict(minimum_version=ssl.TLSVersion.TLSv1, maximum_version=ssl.TLSVersion.TLSv1),
        dict(minimum_version=ssl.TLSVersion.TLSv1_1, maximum_version=ssl.TLSVersion.TLSv1_1),
        dict(maximum_version=ssl.TLSVersion.TLSv1_2, ciphers="aNULL:@SECLEVEL=0"),
        dict(maximum_version=ssl.TLSVersion.TLSv1_2, ciphers="eNULL:@SECLEVEL=0"),
    ],
    ids=["tls_1_0", "tls_1_1", "no_certificate", "no_encryption"],
)
def test_weak_protocols_are_refused(trial, issuer, tmp_path, limits):
    good = trial.server.context
    trial.server.context = limited(issuer.context(tmp_path, HERE), **limits)
    trial.refuse(*trial.failure("hit", NO_HANDSHAKE))
    trial.server.context = good
    trial.heal()


HANDSHAKE_FAILURE = b"\x15\x03\x03\x00\x02\x02\x28"
CLOSE_NOTIFY = b"\x15\x03\x03\x00\x02\x01\x00"


@pytest.mark.parametrize(
    "opening",
    [
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
    ],
    ids=[
        "closed_at_once",
        "closed",
        "reset",
        "plain_http",
        "zeros",
        "oversized",
        "alert",
        "goodbye",
        "late_alert",
        "last_alert",
    ],
)
def test_handshake_that_goes_wrong_is_refused(trial, opening):
    trial.server.opening = opening
    trial.refuse(*trial.failure("hit", NO_HANDSHAKE))
    trial.heal()


@pytest.mark.parametrize("end", [cut, reset])
def test_handshake_that_breaks_off_is_refused(trial, end):
    for length in (*range(1, 1000, 10 if trial.thorough else 150), -50, -10, -1):
        trial.server.opening = [hello_answer(length), end]
        trial.refuse(*trial.failure("hit", NO_HANDSHAKE))
    trial.heal()


def authorities(folder):
    """Files of authorities that are none."""
    (folder / "empty.pem").write_bytes(b"")
    (folder / "garbage.pem").write_bytes(bytes(range(256)) * 16)
    (folder / "broken.pem").write_bytes(b"-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n")
    (folder / "folder.pem").mkdir()
    return [folder / f"{name}.pem" for name in ("missing", "empty", "garbage", "broken", "folder")]


def test_file_of_authorities_without_any_refuses_every_mirror(trial):
    good = trial.gateway.settings["ca_path"]
    bad = authorities(trial.folder)
    trial.before = trial.tree()
    for path in bad:
        trial.gateway.settings["ca_path"] = path
        trial.refuse(*trial.failure("hit", BAD_AUTHORITIES))
    trial.gateway.settings["ca_path"] = good
    trial.heal()


def test_file_of_other_authorities_refuses_the_mirror(trial):
    good = trial.gateway.settings["ca_path"]
    other = trial.folder / "other.pem"
    other.write_bytes(Issuer.unknown().pem())
    trial.before = trial.tree()
    for path in (other, ""):  # without a file, the system's authorities count
        trial.gateway.settings["ca_path"] = path
        trial.refuse(*trial.failure("hit", UNTRUSTED))
    trial.gateway.settings["ca_path"] = good
    trial.heal()


def at(trial, base):
    """The gateway's mirror, for the time being."""
    good = trial.gateway.settings["mirror_base_url"]
    trial.gateway.settings["mirror_base_url"] = base
    return good


def test_refused_connection_fails_the_check(trial, closed_port):
    good = at(trial, f"https://127.0.0.1:{closed_port}")
    trial.refuse(*trial.failure("hit", "Couldn't connect to server"))
    at(trial, good)
    trial.heal()


def test_host_that_nobody_knows_fails_the_check(trial):
    """No name has a label of more than 63 characters: no resolver asks anybody for it."""
    good = at(trial, f"https://{'x' * 64}.invalid:{trial.server.port}")
    trial.refuse(*trial.failure("hit", "Couldn't resolve host name"))
    at(trial, good)
    trial.heal()


def test_plain_requests_to_a_port_that_speaks_tls_are_refused(trial):
    good = at(trial, f"http://127.0.0.1:{trial.server.port}")
    trial.server.opening = [receive, b"\x15\x03\x01\x00\x02\x02\x46", finish]
    trial.refuse(*trial.failure("hit", "Unsupported protocol"))
    at(trial, good)
    trial.heal()


def test_configured_plain_http_is_spoken(trial):
    """Nothing insists on TLS but the configuration's own https."""
    at(trial, f"http://127.0.0.1:{trial.server.port}")
    trial.server.context = None
    trial.accept()


@pytest.mark.parametrize(
    "base, text",
    [
        ("127.0.0.1:{}", "Couldn't connect to server"),  # taken for plain HTTP
        ("nonsense://127.0.0.1", "Unsupported protocol"),
        ("https://a b", "URL using bad/illegal format or missing URL"),
        ("https://127.0.0.1:65536", "URL using bad/illegal format or missing URL"),
        ("", "URL using bad/illegal format or missing URL"),
    ],
)
def test_base_url_that_is_none_fails_the_check(trial, closed_port, base, text):
    base = base.format(closed_port)
    good = at(trial, base)
    lines = [f"err GET {base}/{SUBDIR}/{HIT}: {text}"]
    if not base:
        lines.insert(0, "warning config: mirror_base_url is not set (the updater will idle, performing no checks)")
    trial.refuse(lines, "defId fetch failed")
    at(trial, good)
    trial.heal()


def test_session_with_a_certificate_that_turned_bad_is_not_resumed_by_the_next_process(trial, issuer, tmp_path):
    """Each start of the daemon checks the certificate anew."""
    trial.accept()
    trial.set_back()
    trial.server.context = issuer.context(tmp_path, HERE, starts=-2 * DAY, ends=-DAY)
    trial.refuse(*trial.failure("hit", UNTRUSTED))
    trial.server.context = Issuer.unknown().context(tmp_path, HERE)
    trial.refuse(*trial.failure("hit", UNTRUSTED))
