"""What the figures were measured on."""

import json
import os
import pathlib
import platform
import re
import subprocess

from report import table

# What is measured, or measures.
PACKAGES = (
    *("libcurl4", "libssl3", "libarchive13", "zlib1g", "libstdc++6", "libc6", "nginx"),
    *("curl", "openssl", "libarchive-tools", "cabextract", "coreutils", "valgrind"),
)
FLAGS = ("sha_ni", "aes", "vaes", "avx2", "avx512f", "sha2", "pmull")


def _output(*command, check=True):
    return subprocess.run(command, capture_output=True, text=True, check=check).stdout.strip()


def _field(path, *names):
    lines = (line.partition(":") for line in pathlib.Path(path).read_text().splitlines())
    return next((value.strip() for key, _, value in lines if key.strip() in names), "unknown")


def file_system(directory):
    """Its kind; inside chroot(2) the mount point may be unknown."""
    command = ["findmnt", "--noheadings", "--output", "FSTYPE", "--target", directory]
    return _output(*command, check=False) or "unknown"


def compiler(build):
    """What compiled the daemon's main program: its version, and the options less warnings and those that name
    directories and what belongs to this one file."""
    commands = json.loads((build / "compile_commands.json").read_text())
    command = next(each["command"] for each in commands if each["file"].endswith("/src/main.cpp")).split()
    options = [word for word in command[1 : command.index("-o")] if not word.startswith(("-I", "-W", "-DZQU_"))]
    return f"{_output(command[0], '--version').splitlines()[0]}, `{' '.join(options)}`"


def measure(bench):
    flags = _field("/proc/cpuinfo", "flags", "Features").split()
    memory = round(int(_field("/proc/meminfo", "MemTotal").split()[0]) / 2**20)
    query = ("dpkg-query", "--show", "--showformat", "${Version}")  # of one of the two names, which releases differ in
    versions = (f"{name} {_output(*query, name, f'{name}t64', check=False)}" for name in PACKAGES)
    return {
        "Processor": f"{os.cpu_count()} cores of {_field('/proc/cpuinfo', 'model name')}, {platform.machine()}, with "
        + (", ".join(flag for flag in FLAGS if flag in flags) or "no instructions for ciphers and digests"),
        "Memory": f"{memory} GiB",
        "System": f"{platform.freedesktop_os_release()['PRETTY_NAME']}, Linux "
        f"{re.match(r'[0-9.]+[0-9]', platform.release())[0]}, files on {file_system(bench.directory)}",
        "Packages": ", ".join(versions),
        "Compiler": compiler(bench.build),
        "Log daemon": "yes" if pathlib.Path("/dev/log").exists() else "none",
        "Load in the minute before, in which the programs may have been built": f"{os.getloadavg()[0]:.2f}",
    }


def figures(results, pages):
    return {"machine": table(("", ""), results.items())}
