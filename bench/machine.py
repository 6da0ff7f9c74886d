"""What the figures were measured on."""

import json
import os
import pathlib
import platform
import re
import subprocess

from text import prose

TITLE = "The machine"
# Whatever is measured, or measures.
PACKAGES = (
    *("libcurl4", "libssl3", "libarchive13", "zlib1g", "libstdc++6", "libc6", "nginx"),
    *("curl", "openssl", "libarchive-tools", "cabextract", "coreutils", "valgrind"),
)


def _output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()


def _field(path, name):
    lines = (line.partition(":") for line in pathlib.Path(path).read_text().splitlines())
    return next((value.strip() for key, _, value in lines if key.strip() == name), "unknown")


def file_system(folder):
    """Its kind; no mount point is known of what a chroot(2) shows."""
    command = ["findmnt", "--noheadings", "--output", "FSTYPE", "--target", folder]
    return subprocess.run(command, capture_output=True, text=True).stdout.strip() or "unknown"


def _version(package):
    return _output("dpkg-query", "--show", "--showformat", "${Version}", package)


def compiler(build):
    """What compiled the daemon's main program: the first line of its version, and the options less warnings and those
    that name folders and what belongs to this one file."""
    commands = json.loads((build / "compile_commands.json").read_text())
    command = next(each["command"] for each in commands if each["file"].endswith("/src/main.cpp")).split()
    options = [word for word in command[1 : command.index("-o")] if not word.startswith(("-I", "-W", "-DZQU_"))]
    return {"version": _output(command[0], "--version").splitlines()[0], "options": " ".join(options)}


def measure(bench):
    flags = _field("/proc/cpuinfo", "flags").split()
    return {
        "processor": _field("/proc/cpuinfo", "model name"),
        "cores": os.cpu_count(),
        "memory_gib": round(int(_field("/proc/meminfo", "MemTotal").split()[0]) / 2**20),
        "instructions": [flag for flag in ("sha_ni", "aes", "vaes", "avx2", "avx512f") if flag in flags],
        "kernel": re.match(r"\d+(\.\d+)*", platform.release())[0],
        "system": platform.freedesktop_os_release()["PRETTY_NAME"],
        "file_system": file_system(bench.folder),
        "packages": {name: _version(name) for name in PACKAGES},
        "compiler": compiler(bench.build),
        "log_daemon": pathlib.Path("/dev/log").exists(),
        "load": os.getloadavg()[0],
    }


def render(results, plots):
    packages = ", ".join(f"{name} {version}" for name, version in results["packages"].items())
    instructions = ", ".join(results["instructions"]) or "none"
    told = f"""{results["cores"]} cores of {results["processor"]} (with {instructions} of the instructions that matter
        here), {results["memory_gib"]} GiB, {results["system"]}, Linux {results["kernel"]}, files on
        {results["file_system"]}. {packages}. {"A" if results["log_daemon"] else "No"} log daemon listened. The load
        of the minute before, in which the programs may have been built, was {results["load"]:.2f}. Compiled by
        {results["compiler"]["version"]}, `{results["compiler"]["options"]}`."""
    return prose(told) + "\n"
