"""What the unit's sandbox forbids, tried from inside: a probe runs under the unit instead of the daemon, and prints the
result of each try. Then each line of the unit is removed, and the tries that it forbids have to succeed."""

import re

import pytest
from booted_gateway import CONFIG, DAEMON, ROOT, TIMER, UNIT
from builds import REPOSITORY
from gateway import BUILD

# Everybody can write them, so that only the sandbox protects them.
OPEN = (
    "/etc /usr /usr/lib /usr/lib32 /usr/lib64 /var /srv /run /opt /mnt "
    "/run/lock /dev/shm /tmp /var/tmp /home /root /run/user"
).split()

NOTHING = "0000000000000000"
FORBIDDEN = {
    **dict.fromkeys(("CapPrm", "CapEff", "CapBnd", "CapAmb"), NOTHING),
    "NoNewPrivs": "1",
    "Seccomp": "2",
    "other processes": "0",
    **{f"write {directory}/zqu-open/file": "EROFS" for directory in OPEN[:10]},
    **{f"write {directory}/zqu-open/file": "EACCES" for directory in OPEN[10:14]},
    f"write {CONFIG}": "EROFS",
    **{f"read {directory}/zqu-open/file": "EACCES" for directory in ("/home", "/root", "/run/user")},
    **{f"write /{name}": "ENOENT" for name in ("proc/sys/kernel/core_pattern", "dev/kmsg")},
    "write /sys/fs/cgroup/cgroup.procs": "ENOENT",
    **{f"read /proc/{name}": "ENOENT" for name in ("meminfo", "1/comm")},
    "tasks": "16",
    "open files": "256",
    "file size": f"{8 << 30}",
    "chmod set-user-id": "EPERM",
    "chown to oneself": "EPERM",
    "mknod": "EPERM",
    "run /bin/true": "EACCES",
    "run a file of its own": "EACCES",
    "run /bin/true by the loader": "refused by the loader",
    "map a file of its own to execute": "EPERM",
    "map memory to write and execute": "EPERM",
    "make memory executable": "EPERM",
    **{f"socket {family}": "EAFNOSUPPORT" for family in ("netlink", "packet")},
    "socket inet raw": "EPERM",
    **{f"unshare of {kind}": "EPERM" for kind in ("users", "mounts")},
    **{f"setuid to {user}": "EPERM" for user in ("oneself", "root")},
    "kernel log": "EPERM",
    "signal to init": "EPERM",
    **dict.fromkeys(
        "mount chroot ptrace bpf userfaultfd add_key memfd_create reboot clock_settime sethostname personality "
        "open_by_handle_at setpriority io_uring_setup".split(),
        "EPERM",
    ),
}
NEEDED = {
    "create a file of its own": "allowed",
    "writable mount": ROOT,  # the only one
    "chmod 0666": "allowed",
    "mkfifo": "allowed",
    f"read {CONFIG}": "allowed",
    "write /dev/null": "allowed",
    **{f"socket {family}": "allowed" for family in ("inet", "inet6", "unix")},
}


@pytest.fixture(scope="module")
def probed(module_gateway):
    """The booted gateway with the probe instead of the daemon, and directories that everybody can write."""
    gateway = module_gateway
    for directory in OPEN:
        gateway.run("install", "-d", "-m", "777", f"{directory}/zqu-open")
        gateway.put(f"{directory}/zqu-open/file", "precious\n", 0o666)
    opened = [name for name in {**FORBIDDEN, **NEEDED} if name.startswith(("read ", "write "))]
    gateway.put(CONFIG, "\n".join(opened), 0o666)
    gateway.put(DAEMON, (BUILD / "zqu_probe").read_bytes(), 0o755)
    return gateway


def probe(gateway, *lines):
    """The result of each try under the unit with these lines changed."""
    gateway.drop_in("\n".join(("[Service]", *lines)))
    gateway.take_log()
    gateway.run("systemctl", "start", UNIT)
    gateway.wait_for(lambda: gateway.state() == "inactive")
    assert gateway.show(UNIT, "Result") == "success"
    # A newer systemd has the kernel forbid this by PR_SET_MDWE, prctl(2), not by a filter, which gives another error.
    log = [re.sub("^(m.* memory.*): EACCES", r"\1: EPERM", line) for line in gateway.take_log()]
    found = [line.split(": ", 1) for line in log]
    assert len(found) == len(dict(found)) or lines, found
    return dict(found)


def test_sandbox_forbids_all_but_what_an_update_needs(probed):
    assert probe(probed) == {**FORBIDDEN, **NEEDED}


# Lines of the unit that remove a guard, and the tries whose results have to change then.
AS_ROOT = ["User=root", "PrivateUsers=no", "CapabilityBoundingSet=~"]  # then only the filter forbids it
GUARDS = {
    "ProtectSystem": (["ProtectSystem=no"], ["write /etc/zqu-open/file", f"write {CONFIG}"]),
    "ReadOnlyPaths": (["ReadOnlyPaths="], ["write /run/zqu-open/file"]),
    "BindReadOnlyPaths": (
        ["BindReadOnlyPaths="],
        [f"write /usr/{lib}/zqu-open/file" for lib in ("lib", "lib32", "lib64")],
    ),
    "InaccessiblePaths": (["InaccessiblePaths="], ["write /dev/shm/zqu-open/file", "write /tmp/zqu-open/file"]),
    # NoExecPaths= names the root too, and ProtectSystem= does not cover what it names.
    "ReadWritePaths": (
        ["ReadWritePaths=", "NoExecPaths=", "NoExecPaths=/"],
        ["create a file of its own", "writable mount"],
    ),
    "NoExecPaths": (
        ["NoExecPaths="],
        ["run /bin/true", "run a file of its own", "run /bin/true by the loader", "map a file of its own to execute"],
    ),
    "TasksMax": (["TasksMax=infinity"], ["tasks"]),
    "LimitNOFILE": (["LimitNOFILE=1024"], ["open files"]),
    "ProtectHome": (["ProtectHome=no"], ["read /home/zqu-open/file", "read /run/user/zqu-open/file"]),
    "ProtectProc": (["ProtectProc=default"], ["other processes", "read /proc/1/comm"]),
    "ProcSubset": (["ProcSubset=all"], ["read /proc/meminfo", "write /proc/sys/kernel/core_pattern"]),
    "CapabilityBoundingSet": (["CapabilityBoundingSet=~"], ["CapBnd"]),
    "RestrictSUIDSGID": (["RestrictSUIDSGID=no"], ["chmod set-user-id"]),
    "RestrictNamespaces": (["RestrictNamespaces=no"], ["unshare of users"]),
    "RestrictAddressFamilies": (["RestrictAddressFamilies="], ["socket netlink", "socket packet"]),
    "LockPersonality": (["LockPersonality=no"], ["personality"]),
    "MemoryDenyWriteExecute": (
        ["MemoryDenyWriteExecute=no"],
        ["map memory to write and execute", "make memory executable"],
    ),
    "SystemCallFilter": (
        ["SystemCallFilter="],
        "ptrace bpf userfaultfd add_key memfd_create setpriority open_by_handle_at".split()
        + ["io_uring_setup", "chown to oneself", "setuid to oneself"],
    ),
    "all that root is kept from": (
        [*AS_ROOT, "SystemCallFilter=", "RestrictNamespaces=no", "RestrictSUIDSGID=no", "PrivateDevices=no"]
        + [f"Protect{what}=no" for what in ("Clock", "Hostname", "KernelLogs", "KernelModules")]
        + ["RestrictAddressFamilies="],
        "mount chroot reboot clock_settime sethostname mknod".split()
        + ["unshare of mounts", "setuid to root", "socket inet raw", "kernel log", "CapEff", "CapPrm"],
    ),
}


@pytest.mark.long
@pytest.mark.parametrize("guard", GUARDS)
def test_sandbox_without_a_guard_lets_through_what_it_guards(probed, guard):
    lines, tries = GUARDS[guard]
    found = probe(probed, *lines)
    assert [name for name in tries if found.get(name) == {**FORBIDDEN, **NEEDED}[name]] == []


# What systemd-analyze(1) may rate the services at, in tenths.
EXPOSURE = {UNIT: 12, "zqu-status.service": 8, "zqu-mirror-advance.service": 15, "zqu-mirror-sync.service": 15}
SAMPLES = [path for kind in ("consumer", "mirror") for path in sorted((REPOSITORY / "packaging" / kind).glob("*.*"))]


@pytest.fixture
def with_samples(probed):
    """Every installed unit."""
    probed.drop_in("")
    probed.put("/usr/local/sbin/zqu-mirror-advance", "", 0o755)
    for sample in SAMPLES:
        probed.put(f"/etc/systemd/system/{sample.name}", sample.read_text())
    probed.run("systemctl", "daemon-reload")
    return probed


@pytest.mark.parametrize("unit", EXPOSURE)
def test_exposure_is_bounded(with_samples, unit):
    command = ["systemd-analyze", "security", "--no-pager", f"--threshold={EXPOSURE[unit]}", unit]
    assert with_samples.run(*command, check=False).returncode == 0


def test_units_verify_without_a_word(with_samples):
    units = [UNIT, TIMER, "zqu-status.service", "zqu-status.timer", *(sample.name for sample in SAMPLES)]
    process = with_samples.run("systemd-analyze", "verify", "--man=no", *units)
    assert process.stdout + process.stderr == ""
