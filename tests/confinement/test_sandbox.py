"""What the unit's sandbox forbids, tried from inside: a probe runs in the daemon's place under the very unit, and says
what came of each try. Each line of the unit is then taken away, and the tries that it guards have to succeed."""

import pytest
from confined import CONFIGURATION, DAEMON, QUORIN, ROOT, UNIT
from gateway import BUILD

# Open to everybody, so that nothing but the sandbox stands before them.
OPEN_FOLDERS = (
    "/etc /usr /usr/lib /usr/lib32 /usr/lib64 /var /srv /run /opt /mnt "
    "/run/lock /dev/shm /tmp /var/tmp /home /root /run/user"
).split()

NOTHING = "0000000000000000"
FORBIDDEN = {
    **dict.fromkeys(("CapPrm", "CapEff", "CapBnd", "CapAmb"), NOTHING),
    "NoNewPrivs": "1",
    "Seccomp": "2",
    "other processes": "0",
    **{f"write {folder}/zqu-open/file": "EROFS" for folder in OPEN_FOLDERS[:10]},
    **{f"write {folder}/zqu-open/file": "EACCES" for folder in OPEN_FOLDERS[10:14]},
    f"write {QUORIN}/etc/zel_quorin_updater.conf": "EROFS",
    **{f"read {folder}/zqu-open/file": "EACCES" for folder in ("/home", "/root", "/run/user")},
    **{f"write /{name}": "ENOENT" for name in ("proc/sys/kernel/core_pattern", "dev/kmsg")},
    "write /sys/fs/cgroup/cgroup.procs": "ENOENT",
    **{f"read /proc/{name}": "ENOENT" for name in ("meminfo", "1/comm")},
    "tasks": "16",
    "open files": "256",
    "chmod set-user-id": "EPERM",
    "chown to oneself": "EPERM",
    "mknod": "EPERM",
    "run /bin/true": "EACCES",
    "run a file of its own": "EACCES",
    "run /bin/true by the loader": "refused by the loader",
    "map a file of its own to execute": "EPERM",
    "map memory to write and execute": "EPERM",
    "make memory executable": "EPERM",
    **{f"socket {family}": "EAFNOSUPPORT" for family in ("netlink", "packet", "alg", "vsock")},
    "socket inet raw": "EPERM",
    **{f"unshare of {kind}": "EPERM" for kind in ("users", "mounts")},
    **{f"setuid to {user}": "EPERM" for user in ("oneself", "root")},
    "kernel log": "EPERM",
    "signal to init": "EPERM",
    **dict.fromkeys(
        "mount umount pivot_root chroot ptrace bpf perf_event_open userfaultfd add_key memfd_create setgroups setns "
        "init_module reboot kexec_load swapon clock_settime sethostname personality open_by_handle_at setpriority "
        "io_uring_setup".split(),
        "EPERM",
    ),
}
NEEDED = {
    f"write {ROOT}/file": "allowed",
    "writable mount": ROOT,  # the only one
    "chmod 0666": "allowed",
    "mkfifo": "allowed",
    f"read {QUORIN}/etc/zel_quorin_updater.conf": "allowed",
    "write /dev/null": "allowed",
    **{f"socket {family}": "allowed" for family in ("inet", "inet6", "unix")},
}


@pytest.fixture(scope="module")
def probed(booted):
    """The booted system with the probe in the daemon's place, and folders that are open to everybody."""
    for folder in OPEN_FOLDERS:
        booted.run("install", "-d", "-m", "777", f"{folder}/zqu-open")
        booted.put(f"{folder}/zqu-open/file", "precious\n", 0o666)
    booted.put(CONFIGURATION, "", 0o666)
    booted.put(DAEMON, (BUILD / "zqu_probe").read_bytes(), 0o755)
    return booted


def probe(system, *lines):
    """What comes of each try under the unit with these lines changed."""
    system.drop_in("\n".join(("[Service]", *lines)))
    system.take_log()
    system.run("systemctl", "start", UNIT)
    system.wait_for(lambda: system.state() == ("inactive", "success"))
    found = [line.split(": ", 1) for line in system.take_log()]
    assert len(found) == len(dict(found)) or lines, found
    return dict(found)


def test_sandbox_forbids_all_but_what_an_update_needs(probed):
    assert probe(probed) == {**FORBIDDEN, **NEEDED}


# Lines of the unit that give a guard up, and the tries that have to go otherwise then.
AS_ROOT = ["User=root", "PrivateUsers=no", "CapabilityBoundingSet=~"]  # nothing but the filter is in the way then
GUARDS = {
    "ProtectSystem": (
        ["ProtectSystem=no"],
        ["write /etc/zqu-open/file", f"write {QUORIN}/etc/zel_quorin_updater.conf"],
    ),
    "ReadOnlyPaths": (["ReadOnlyPaths="], ["write /run/zqu-open/file"]),
    "BindReadOnlyPaths": (
        ["BindReadOnlyPaths="],
        [f"write /usr/{lib}/zqu-open/file" for lib in ("lib", "lib32", "lib64")],
    ),
    "InaccessiblePaths": (["InaccessiblePaths="], ["write /dev/shm/zqu-open/file", "write /tmp/zqu-open/file"]),
    # NoExecPaths= names the root too, and what it names ProtectSystem= spares.
    "ReadWritePaths": (["ReadWritePaths=", "NoExecPaths=", "NoExecPaths=/"], [f"write {ROOT}/file", "writable mount"]),
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
    "RestrictNamespaces": (["RestrictNamespaces=no"], ["unshare of users", "setns"]),
    "RestrictAddressFamilies": (["RestrictAddressFamilies="], ["socket netlink", "socket packet", "socket vsock"]),
    "LockPersonality": (["LockPersonality=no"], ["personality"]),
    "MemoryDenyWriteExecute": (
        ["MemoryDenyWriteExecute=no"],
        ["map memory to write and execute", "make memory executable"],
    ),
    "SystemCallFilter": (
        ["SystemCallFilter="],
        "ptrace bpf perf_event_open userfaultfd add_key memfd_create setpriority open_by_handle_at".split()
        + ["io_uring_setup", "chown to oneself", "setuid to oneself"],
    ),
    "all that root is kept from": (
        [*AS_ROOT, "SystemCallFilter=", "RestrictNamespaces=no", "RestrictSUIDSGID=no", "PrivateDevices=no"]
        + [f"Protect{what}=no" for what in ("Clock", "Hostname", "KernelLogs", "KernelModules")]
        + ["RestrictAddressFamilies="],
        "mount umount pivot_root chroot setgroups reboot swapon clock_settime sethostname mknod".split()
        + ["unshare of mounts", "setuid to root", "socket inet raw", "kernel log", "CapEff", "CapPrm"],
    ),
}


@pytest.mark.parametrize("guard", GUARDS)
def test_sandbox_without_a_guard_lets_through_what_it_guards(probed, guard):
    lines, tries = GUARDS[guard]
    found = probe(probed, *lines)
    assert [name for name in tries if found.get(name) == {**FORBIDDEN, **NEEDED}[name]] == []


def test_exposure_is_at_most_1_2(probed):
    probed.drop_in("")
    assert probed.run("systemd-analyze", "security", "--no-pager", "--threshold=12", UNIT, check=False).returncode == 0


@pytest.mark.parametrize("name", [UNIT, "zel_quorin_updater-retry.timer"])
def test_units_verify_without_a_word(booted, name):
    process = booted.run("systemd-analyze", "verify", "--man=no", f"/usr/local/lib/systemd/system/{name}")
    assert process.stdout + process.stderr == ""
