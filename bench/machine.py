"""What the figures were measured on."""

import os
import pathlib
import platform
import subprocess

from text import prose

TITLE = "The machine"


def _output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()


def _field(path, name):
    lines = (line.partition(":") for line in pathlib.Path(path).read_text().splitlines())
    return next((value.strip() for key, _, value in lines if key.strip() == name), "unknown")


def _version(package):
    return _output("dpkg-query", "--show", "--showformat", "${Version}", package)


def measure(bench):
    flags = _field("/proc/cpuinfo", "flags").split()
    return {
        "processor": _field("/proc/cpuinfo", "model name"),
        "cores": os.cpu_count(),
        "memory_gib": round(int(_field("/proc/meminfo", "MemTotal").split()[0]) / 2**20),
        "instructions": [flag for flag in ("sha_ni", "aes", "vaes", "avx2", "avx512f") if flag in flags],
        "kernel": platform.release(),
        "system": _field_of_release("PRETTY_NAME"),
        "file_system": _output("stat", "--file-system", "--format", "%T", str(bench.folder)),
        "packages": {name: _version(name) for name in ("libcurl4", "libssl3", "libarchive13", "zlib1g", "nginx")},
        "load": os.getloadavg()[0],
    }


def _field_of_release(name):
    return platform.freedesktop_os_release()[name]


def render(results, plots):
    packages = ", ".join(f"{name} {version}" for name, version in results["packages"].items())
    instructions = ", ".join(results["instructions"]) or "none"
    told = f"""{results["cores"]} cores of {results["processor"]} (with {instructions} of the instructions that matter
        here), {results["memory_gib"]} GiB, {results["system"]}, Linux {results["kernel"]}, files on
        {results["file_system"]}. {packages}. Load when it began: {results["load"]:.2f}."""
    return prose(told) + "\n"
