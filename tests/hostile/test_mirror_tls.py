"""Everything that can be wrong before the first request: certificates, protocols, the handshake, the way there."""

import ipaddress
import re
import ssl

import pytest
from certificates import CLIENTS_ONLY, DAY, Issuer
from cryptography import x509
from scripted_server import cut, finish, hello_answer, receive, reset
from tools import Tool
from trials import NO_HANDSHAKE, UNTRUSTED

BAD_AUTHORITIES = "Problem with the SSL CA cert (path? access rights?)"

HERE = [x509.IPAddress(ipaddress.ip_address("127.0.0.1")), x509.DNSName("localhost")]


@pytest.fixture(scope="session")
def issuer(authority):
    return Issuer.of_trustme(authority)


# What is wrong with the certificate of a mirror: how an issuer makes its context, in a directory; what the tools say.
NOT_TRUSTED, REFUSED = "comes from an authority that is not trusted", "is refused: [a-zA-Z ]+"
BAD_CERTIFICATES = {
    "unknown_authority": (lambda _, directory: Issuer.unknown().context(directory, HERE), NOT_TRUSTED),
    "self_signed": (lambda issuer, directory: issuer.context(directory, HERE, self_signed=True), "is self-signed"),
    "expired": (lambda issuer, directory: issuer.context(directory, HERE, starts=-2 * DAY, ends=-DAY), "has expired"),
    "not_yet_valid": (
        lambda issuer, directory: issuer.context(directory, HERE, starts=DAY, ends=2 * DAY),
        "is not valid yet",
    ),
    "missing_intermediate": (lambda issuer, to: issuer.below().context(to, HERE, with_chain=False), NOT_TRUSTED),
    "issued_by_a_leaf": (lambda issuer, directory: issuer.below(is_authority=False).context(directory, HERE), REFUSED),
    "for_clients_only": (lambda issuer, directory: issuer.context(directory, HERE, usage=CLIENTS_ONLY), REFUSED),
}
# Names in a certificate that are not the mirror's, by the address or name that it has in the configuration.
BAD_NAMES = {
    "127.0.0.1": [x509.DNSName("elsewhere.example"), x509.DNSName("*"), None],
    "localhost": [x509.DNSName("*"), x509.DNSName("localhost\0.evil.example")],
}


def said_by_tools(trial):
    """What zqu-mirror says of the mirror; zqu-config must say the same."""
    config = trial.gateway.config_path
    settings = trial.gateway.settings
    words = ["--subdir", settings["mirror_subdir"], "--ca", settings["ca_path"], settings["mirror_base_url"]]
    report = Tool("zqu-mirror")("check", *words)[1]
    assert report.startswith("FAULT") == (trial.server.targets() == [])
    lines = [line.split(None, 1)[1] for line in report.splitlines()]
    findings = without_clock(Tool("zqu-config")("check", "--online", config)[1])
    said = [without_clock(line) for line in lines if "certificate" in line]
    assert [line for line in said if line not in findings] == []
    return said


def without_clock(text):
    return re.sub(r"which says \S+ \S+|, in \d+ [a-z]+( \d+ [a-z]+)?", "", text)


@pytest.mark.parametrize("wrong", BAD_CERTIFICATES)
def test_bad_certificate_is_refused_before_anything_is_asked(trial, issuer, tmp_path, wrong):
    trial.server.context = BAD_CERTIFICATES[wrong][0](issuer, tmp_path)
    trial.fail("hit", UNTRUSTED)
    whose = "a certificate of the mirror's authorities" if wrong == "issued_by_a_leaf" else "the mirror's certificate"
    fault = rf": {whose} {BAD_CERTIFICATES[wrong][1]}; .+ \(subject \"CN=.*\", names .*, issuer \".*\"\)"
    assert re.search(fault, said_by_tools(trial)[0])
    assert trial.server.targets() == []
    trial.heal()


@pytest.mark.parametrize("host", BAD_NAMES)
def test_name_that_only_resembles_the_mirrors_is_refused(trial, issuer, tmp_path, host):
    trial.gateway.settings["mirror_base_url"] = f"https://{host}:{trial.server.port}"
    for name in BAD_NAMES[host]:
        trial.server.context = issuer.context(tmp_path, [name] if name else [])
        trial.fail("hit", UNTRUSTED)
    assert trial.server.targets() == []
    trial.heal()


def test_tools_name_the_names_of_another_hosts_certificate(trial, issuer, tmp_path):
    trial.server.context = issuer.context(tmp_path, [x509.DNSName(f"{i}.example") for i in range(7)], ends=30 * DAY)
    names = ", ".join(f"DNS:{i}.example" for i in range(5)) + ", ..."
    [said] = said_by_tools(trial)
    assert re.search(
        rf"is for another host than 127.0.0.1; .* \(subject .*, names {re.escape(names)}, valid from", said
    )


def test_tools_warn_before_a_certificate_ends(trial, issuer, tmp_path):
    for days, said in ((13, 1), (15, 0)):
        trial.server.context = issuer.context(tmp_path, HERE, ends=days * DAY)
        warnings = said_by_tools(trial)
        assert len(warnings) == said
        assert all(re.fullmatch('the certificate "CN=leaf" .* ends at .* UTC: renew it', w) for w in warnings)


def limited(context, **attributes):
    """The context with these attributes set, and without OpenSSL's own lower bound."""
    context.set_ciphers(attributes.pop("ciphers", "ALL:@SECLEVEL=0"))
    for name, value in attributes.items():
        setattr(context, name, value)
    return context


WEAK = [{"minimum_version": old, "maximum_version": old} for old in (ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1)]
# Without a certificate, and without encryption.
WEAK += [{"maximum_version": ssl.TLSVersion.TLSv1_2, "ciphers": f"{no}NULL:@SECLEVEL=0"} for no in "ae"]


@pytest.mark.filterwarnings("ignore:ssl.TLSVersion.TLSv1")
def test_weak_protocols_are_refused(trial, issuer, tmp_path):
    for limits in WEAK:
        trial.server.context = limited(issuer.context(tmp_path, HERE), **limits)
        trial.fail("hit", NO_HANDSHAKE)
    trial.heal()


def test_handshake_that_goes_wrong_is_refused(trial):
    for opening in (
        [finish],
        [receive, reset],
        [receive, b"HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n", finish],
        [hello_answer(100), b"\x15\x03\x03\x00\x02\x02\x28", finish],  # an alert
        *([hello_answer(length), end] for length in (1, 100, -1) for end in (cut, reset)),
    ):
        trial.server.opening = opening
        trial.fail("hit", NO_HANDSHAKE)
    trial.heal()


def test_file_without_the_mirrors_authority_refuses_it(trial):
    """An empty name of the file stands for the system's authorities."""
    texts = {"empty": b"", "garbage": bytes(range(256)) * 16, "other": Issuer.unknown().pem()}
    for name, text in texts.items():
        (trial.directory / name).write_bytes(text)
    (trial.directory / "directory").mkdir()
    trial.before = trial.tree()
    outcomes = dict.fromkeys(("missing", "directory", *texts), BAD_AUTHORITIES) | {"other": UNTRUSTED}
    for name, text in outcomes.items():
        trial.gateway.settings["ca_path"] = trial.directory / name
        trial.fail("hit", text)
    trial.gateway.settings["ca_path"] = ""
    trial.refuse("hit", UNTRUSTED)


def test_configured_plain_http_is_spoken(trial):
    """Only the https of the configuration demands TLS."""
    trial.gateway.settings["mirror_base_url"] = f"http://127.0.0.1:{trial.server.port}"
    trial.server.context = None
    trial.accept()
