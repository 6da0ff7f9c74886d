"""What the build promises: how the program is linked and hardened, and what the configure step refuses."""

import subprocess

import pytest
from builds import configure, copy_sources
from gateway import DAEMON, SANITIZED


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def needed_libraries():
    lines = output_of("readelf", "-dW", DAEMON).splitlines()
    return {line.split("[")[1].rstrip("]") for line in lines if "NEEDED" in line}


def test_the_three_libraries_are_linked_dynamically():
    assert {"libcurl.so.4", "libcrypto.so.3", "libarchive.so.13"} <= needed_libraries()


def test_nothing_of_the_tools_reaches_the_daemon():
    runtime = {"libstdc++.so.6", "libgcc_s.so.1", "libc.so.6", "libm.so.6"}
    sanitizers = {"libasan.so.8", "libubsan.so.1"}
    extra = needed_libraries() - {"libcurl.so.4", "libcrypto.so.3", "libarchive.so.13"} - runtime
    assert extra <= (sanitizers if SANITIZED else set())


@pytest.mark.skipif(SANITIZED, reason="sanitized builds are not hardened")
def test_optimised_build_is_hardened():
    assert "DYN (Position-Independent Executable file)" in output_of("readelf", "-hW", DAEMON)
    dynamic = output_of("readelf", "-dW", DAEMON)
    assert "BIND_NOW" in dynamic or "Flags: NOW" in dynamic
    segments = output_of("readelf", "-lW", DAEMON)
    assert "GNU_RELRO" in segments
    assert [line.split()[6] for line in segments.splitlines() if "GNU_STACK" in line] == ["RW"]
    symbols = output_of("readelf", "--dyn-syms", "-W", DAEMON)
    assert "__stack_chk_fail" in symbols  # stack protector
    assert "__syslog_chk" in symbols  # _FORTIFY_SOURCE


@pytest.fixture
def copy(tmp_path):
    """A copy of the sources, to be configured in all kinds of ways."""
    return copy_sources(tmp_path / "a copy")


@pytest.mark.parametrize(
    "package, debian", [("CURL", "libcurl4-openssl-dev"), ("OpenSSL", "libssl-dev"), ("LibArchive", "libarchive-dev")]
)
def test_missing_library_is_named_with_its_package(copy, package, debian):
    process = configure(copy, f"-DCMAKE_DISABLE_FIND_PACKAGE_{package}=ON")
    assert process.returncode != 0
    words = " ".join(process.stderr.split())
    assert f"{package} with its development files was not found. On Debian: apt-get install {debian}" in words


def test_source_that_no_target_lists_fails_the_configure_step(copy):
    assert configure(copy).returncode == 0
    for directory in ("src", "tools", "tests/unit", "tests/e2e"):
        forgotten = copy / directory / "forgotten.cpp"
        forgotten.write_text("int forgotten;\n")
        process = configure(copy)
        assert process.returncode != 0
        assert str(forgotten) in process.stderr
        forgotten.unlink()


def test_daemon_alone_needs_nothing_of_tools_and_tests(copy, monkeypatch):
    monkeypatch.setenv("PKG_CONFIG_LIBDIR", "/nowhere")  # hides what is found by pkg-config
    process = configure(copy, "-DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON", "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON")
    assert process.returncode == 0
    assert "CMAKE_BUILD_TYPE:STRING=RelWithDebInfo" in (copy / "build/CMakeCache.txt").read_text()
    assert (copy / "build/compile_commands.json").exists()
    assert "Not building the operators' tools" in process.stdout
    assert "Not building the unit tests" in process.stdout
    process = configure(copy, "-DZQU_BUILD_TOOLS=ON")
    assert process.returncode != 0
    assert "libcli11-dev" in process.stderr
