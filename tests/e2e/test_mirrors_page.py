"""The page for operators of mirrors: its commands answer as it says, and its nginx configurations do what it says."""

import re
import subprocess
import textwrap
from concurrent.futures import ThreadPoolExecutor

import pytest
from gateway import Gateway
from mirror_tool import SUBDIR, WORK, OwnMirror, noise, run, unchanged
from mirrors_page import CONFIGURATIONS, PAGE
from outcomes import published
from release import HIT, info_name


def masked(text):
    """The text with its sizes, digests, times and columns made alike."""
    sizes = r"\b\d{4,}(?= bytes| cab)|(?<=bytes )\d{4,}|(?<=instead of )\d+"
    text = re.sub(" +", " ", text)
    times = r"\b[0-9-]{10} [0-9:]{8} UTC|\b\d{8}T\d{6}Z\.\d+"
    return re.sub(rf"{sizes}|\b[0-9a-f]{{8}}([0-9a-f]{{56}}\b|…)|{times}", "...", text)


def test_commands_of_the_page_answer_as_it_says(tmp_path):
    session = textwrap.dedent("".join(re.findall(r"<!-- session -->\n((?:    .*\n)+)", PAGE)))
    own = OwnMirror(tmp_path)
    ages = {"1001": 40, "1002": 20, "1003": 9}
    for id in ages:
        own.antivir.write_bytes(noise(9000, id))
        assert run("publish", "--id", id, own.root, own.antivir, own.antivir)[0] == 0
    for name, age in [*((info_name(id), age) for id, age in ages.items()), (HIT, 9)]:
        own.set_age(name, age)
    for name in ("antivir.def", "aivsecon.def"):
        (tmp_path / name).write_bytes(noise(8000, name))
    session = session.replace("/srv/mirror", str(own.root)).replace("/srv/copy", str(tmp_path / "copy"))
    for command, answer in re.findall(r"^\$ (.*)\n((?:[^$].*\n)*)", session, re.MULTILINE):
        program, *words = command.split()
        if program == "truncate":
            subprocess.run([program, *words], check=True)
            continue
        code, out, err = run(*words, cwd=tmp_path, env=unchanged())
        assert (program, code, masked(out), err) == ("zqu-mirror", 0, masked(answer), "")


def gateway_of(server, directory):
    directory.mkdir()
    return Gateway(directory, mirror_base_url=server.url(), mirror_subdir=SUBDIR, ca_path=server.ca_path)


def test_page_shows_just_the_split_and_two_servers():
    names = [re.findall(r"^ +server_name (\S+);", text, re.MULTILINE) for text in CONFIGURATIONS]
    assert names == [[], ["mirror.example"], ["proxy.example"]]


def test_mirror_of_the_page_serves_each_file_as_it_says(tmp_path, servers):
    """Without a rollout: to every group."""
    own = OwnMirror(tmp_path)
    assert own.publish("1001")[0] == 0
    assert own.publish("1002", "--format", "zstd")[0] == 0
    server = servers.mirror(own.root)
    lifetimes = {".ini": "public, max-age=60", ".cab": "public, max-age=31536000, immutable"}
    for path in own.directory.iterdir():
        status, headers, body = server.get(f"{SUBDIR}/{path.name}")
        assert (status, body) == (200, path.read_bytes())
        assert headers["Content-Length"] == str(path.stat().st_size)
        expected = lifetimes.get(path.suffix, lifetimes[".cab"])
        assert headers["Cache-Control"] == ("private, max-age=60" if path.name == HIT else expected)
    (own.root / "README").write_text("mine")
    with own.stopped(own.publishing("1003"), f"{WORK}/hit"):
        hidden = f"{SUBDIR}/{WORK}/hit"
        assert own.path(WORK).is_dir()
        for path in ["", "README", "rhex", SUBDIR, f"{SUBDIR}/", hidden, f"{SUBDIR}/{WORK}/unpacked/antivir-v2.ini"]:
            assert server.get(path)[0] == 404, path
    gateway = gateway_of(server, tmp_path / "gateway")
    assert gateway.run_once() == published("1002")


def lifetimes_of_sessions(server, protocol):
    """For how many seconds the server says that a session may be resumed, once for each that it hands out."""
    command = ["openssl", "s_client", protocol, "-ign_eof", "-connect", f"127.0.0.1:{server.ports['good']}"]
    request = "GET / HTTP/1.0\r\n\r\n"
    process = subprocess.run(command, input=request, capture_output=True, text=True, timeout=30)
    return {int(hint) for hint in re.findall(r"ticket lifetime hint: (\d+) ", process.stdout)}


@pytest.mark.parametrize("protocol", ["-tls1_2", "-tls1_3"])
def test_sessions_of_the_pages_servers_outlive_the_longest_wait(tmp_path, servers, protocol):
    mirror = servers.mirror(tmp_path)
    for server in mirror, servers.proxy(mirror):
        (lifetime,) = lifetimes_of_sessions(server, protocol)
        assert lifetime > 900 + 120


def test_proxy_of_the_page_fetches_an_archive_once_for_all(tmp_path, servers):
    own = OwnMirror(tmp_path)
    own.antivir.write_bytes(noise(1 << 20, "big"))
    assert own.publish("1001")[0] == 0
    # Slow enough for all gateways to ask for the archive while it is still on its way.
    mirror = servers.mirror(own.root, rate="2m")
    proxy = servers.proxy(mirror, **{"proxy_cache_valid 200 1m;": "proxy_cache_valid 200 1s;"})
    gateways = [gateway_of(proxy, tmp_path / f"gateway-{number}") for number in range(6)]
    with ThreadPoolExecutor(6) as pool:
        logs = list(pool.map(Gateway.run_once, gateways))
    assert logs == [published("1001")] * 6
    assert mirror.asked_for(".cab") == [f"/{SUBDIR}/antivir-v2-c-1001.cab 200"]
    assert len(proxy.asked_for(".cab")) == 6
    own.antivir.write_bytes(noise(1000, "next"))
    assert own.publish("1002")[0] == 0
    for gateway in gateways:
        while not (log := gateway.run_once()):  # as long as the hit INI in the cache is valid
            gateway.expect_status("1001")
        assert log == published("1002", "1001")
    assert mirror.asked_for("1002.cab") == [f"/{SUBDIR}/antivir-v2-c-1002.cab 200"]
    assert proxy.get("")[0] == 404
    assert proxy.get(f"{SUBDIR}/antivir-v2-c-9.ini")[0] == 404
    own.write(info_name("9"), "late")
    assert proxy.get(f"{SUBDIR}/antivir-v2-c-9.ini")[::2] == (200, b"late")  # no error is cached
