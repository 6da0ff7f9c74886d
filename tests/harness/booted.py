"""A machine of its own for a test: this system, booted by its systemd in namespaces, over a throw-away overlay."""

import contextlib
import ctypes
import functools
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import threading
import time

CLONE_NEWNET = 0x40000000
_ENVIRONMENT = ["env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8", "SYSTEMD_PAGER=", "TERM=dumb"]

# $1 is the empty directory to work in; the others are directories to show at the same path in the booted system.
_BOOT = r"""
work=$1; shift
mount -t tmpfs -o mode=755 tmpfs "$work"
mkdir "$work/upper" "$work/work" "$work/root"
mount -t overlay -o "lowerdir=/,upperdir=$work/upper,workdir=$work/work" overlay "$work/root"
cd "$work/root"
: >etc/fstab
rm -rf usr/local/zelgw  # this machine's own updater does not belong there
# A container's, which would block services; and a hook with which each package indexes all manual pages.
rm -f usr/sbin/policy-rc.d var/lib/man-db/auto-update
rm -f etc/machine-id; : >etc/machine-id
printf '[Unit]\nRequires=basic.target\nAfter=basic.target\n' >etc/systemd/system/bare.target
rm -rf etc/systemd/system/multi-user.target.wants etc/systemd/system/timers.target.wants
ln -sf /dev/null etc/systemd/system/tmp.mount
ip link set lo up
mount -t proc proc proc
mount -t sysfs -o ro sysfs sys
mount -t tmpfs -o mode=755 tmpfs run
mkdir -m 700 run/written
mount --bind "$work/upper" run/written
mount -t tmpfs tmpfs tmp
mount -t tmpfs tmpfs var/tmp
mount -t tmpfs -o mode=755 tmpfs dev
mkdir dev/shm dev/pts
mount -t tmpfs tmpfs dev/shm
ln -s pts/ptmx dev/ptmx
for name in null zero full random urandom tty; do
    : >dev/$name
    mount --bind /dev/$name dev/$name
done
mount -t devpts -o newinstance,ptmxmode=0666 devpts dev/pts
if [ -z "$HIERARCHIES" ]; then
    mount -t cgroup2 cgroup2 sys/fs/cgroup
else
    mount -t tmpfs -o mode=755 tmpfs sys/fs/cgroup
    mkdir sys/fs/cgroup/unified
    mount -t cgroup2 cgroup2 sys/fs/cgroup/unified
    for options in $HIERARCHIES; do
        directory=sys/fs/cgroup/${options#none,name=}
        mkdir "$directory"
        mount -t cgroup -o "$options" cgroup "$directory"
    done
fi
for shared; do
    mkdir -p ".$shared"
    mount --rbind "$shared" ".$shared"
done
mkdir .former
pivot_root . .former
umount -l /.former
exec env -i container=test PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd --system --unit=bare.target
"""


@functools.cache
def _hierarchies():
    """This machine's control groups: {mount point: options of cgroup version 1, or "" for version 2}."""
    found = {}
    kinds = {line.split()[0] for line in pathlib.Path("/proc/cgroups").read_text().splitlines()[1:]}
    for line in pathlib.Path("/proc/mounts").read_text().splitlines():
        _, point, kind, options = line.split()[:4]
        names = [name for name in options.split(",") if name in kinds or name.startswith("name=")]
        if not point.startswith("/sys/"):
            continue  # a second time, in a chroot
        if kind == "cgroup2":
            found.setdefault(pathlib.Path(point), "")
        elif kind == "cgroup" and names:
            named = names[0].startswith("name=")
            found[pathlib.Path(point)] = "none," + names[0] if named else ",".join(names)
    return found


@functools.cache
def why_not_bootable():
    """Why no system can be booted here; empty when one can."""
    if os.geteuid() != 0:
        return "booting a system needs root"
    if not pathlib.Path("/lib/systemd/systemd").exists():
        return "booting a system needs systemd"
    if "" not in _hierarchies().values():
        return "booting a system needs a cgroup2 hierarchy"
    # Entering a namespace leads to its root, which in a chroot is another system's: leave that alone.
    root = subprocess.run(["nsenter", "--mount=/proc/self/ns/mnt", "stat", "-c", "%d %i", "/"], capture_output=True)
    if root.returncode == 0 and root.stdout.decode() != f"{os.stat('/').st_dev} {os.stat('/').st_ino}\n":
        return "booting a system does not go in a chroot"
    tried = ["unshare", "--pid", "--mount", "--net", "--uts", "--ipc", "--cgroup", "--fork", "sh", "-ec"]
    with tempfile.TemporaryDirectory() as directory:
        overlay = (
            'mount -t tmpfs tmpfs "$1"; cd "$1"; mkdir u w m; mount -t overlay -o lowerdir=/,upperdir=u,workdir=w o m'
        )
        process = subprocess.run([*tried, overlay, "sh", directory], capture_output=True, text=True)
    return f"booting a system: {process.stderr.strip()}" if process.returncode else ""


def _new_group(hierarchy):
    group = pathlib.Path(tempfile.mkdtemp(prefix="zqu-boot-", dir=hierarchy))
    for name in ("cpuset.cpus", "cpuset.mems"):  # empty in a new group of version 1, which then accepts no process
        if (hierarchy / name).exists():
            (group / name).write_text((hierarchy / name).read_text())
    return group


class Booted:
    """A booted system. It has the programs and files of this machine, but what it changes is gone when it ends; its own
    /tmp, /run, processes, users' sessions and network, of which there is only the loopback interface."""

    def __init__(self, *shared):
        """Boots; the directories are this machine's own, at the same path, for both to read and write."""
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="zqu-boot-"))
        self.groups = []
        try:
            self.groups = [_new_group(hierarchy) for hierarchy in _hierarchies()]
            self.outer = self._start(shared)
            self.init = self._wait_for_init()
            self._wait_until_up()
        except BaseException:
            self.end()
            raise

    def _start(self, shared):
        # The shell enters the groups before it unshares, so that they become the roots of what the system sees.
        enter = 'for group in $GROUPS_TO_ENTER; do echo $$ >"$group/cgroup.procs"; done; exec "$@"'
        namespaces = ["--pid", "--mount", "--uts", "--ipc", "--net", "--cgroup", "--fork", "--propagation", "private"]
        command = ["sh", "-ec", enter, "sh", "unshare", *namespaces, "--kill-child", "sh", "-ec", _BOOT, "sh"]
        groups = " ".join(map(str, self.groups))
        hierarchies = " ".join(filter(None, _hierarchies().values()))
        self.console = open(self.directory.with_suffix(".console"), "w+")
        return subprocess.Popen(
            [*command, self.directory, *shared],
            env={**os.environ, "HIERARCHIES": hierarchies, "GROUPS_TO_ENTER": groups},
            stdin=subprocess.DEVNULL,
            stdout=self.console,
            stderr=subprocess.STDOUT,
            start_new_session=True,
        )

    def _said(self):
        self.console.seek(0)
        return self.console.read()

    def _wait_for_init(self):
        for _ in range(3000):
            assert self.outer.poll() is None, self._said()
            children = pathlib.Path(f"/proc/{self.outer.pid}/task/{self.outer.pid}/children").read_text().split()
            if children and pathlib.Path(f"/proc/{children[0]}/comm").read_text() == "systemd\n":
                return int(children[0])
            time.sleep(0.01)
        raise AssertionError(self._said())

    def _wait_until_up(self):
        for _ in range(3000):
            assert self.outer.poll() is None, self._said()
            if self.run("systemctl", "is-system-running", check=False).stdout.strip() in ("running", "degraded"):
                return
            time.sleep(0.02)
        raise AssertionError(self._said())

    def command(self, *arguments, user=None):
        """The words that run the command in the booted system, with a clean environment."""
        become = ["setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups"] if user else []
        return ["nsenter", "-t", str(self.init), "-a", "--", *_ENVIRONMENT, *become, *map(str, arguments)]

    def run(self, *arguments, check=True, user=None, **options):
        """Runs a command in the booted system to its end, as root or as the user; returns the finished process."""
        process = subprocess.run(
            self.command(*arguments, user=user),
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=300,
            **options,
        )
        if check:
            assert process.returncode == 0, f"{arguments}: {process.stdout}{process.stderr}"
        return process

    def out(self, *arguments, **options):
        """The output of a command in the booted system, which must succeed, without the last line's end."""
        return self.run(*arguments, **options).stdout.rstrip("\n")

    def path(self, path):
        """Where this machine finds a path of the booted system; a link in it must be relative."""
        return pathlib.Path(f"/proc/{self.init}/root{path}")

    def show(self, unit, name):
        """One property of a unit."""
        return self.out("systemctl", "show", "--property", name, "--value", unit)

    def journal(self, unit):
        """The lines that a unit's processes logged, oldest first."""
        self.run("journalctl", "--sync")
        return self.out("journalctl", "--quiet", "--output", "cat", f"_SYSTEMD_UNIT={unit}").splitlines()

    def wait_for(self, condition, seconds=60):
        """Waits until the condition holds."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if condition():
                return
            assert self.outer.poll() is None, self._said()
            time.sleep(0.02)
        log = self.out("journalctl", "-n", "40", "--no-pager", check=False)
        raise AssertionError(f"it never came to that in {seconds} s; the end of the journal:\n{log}")

    def in_network(self, action):
        """Does something, such as starting a server, with the booted system's network but this machine's files."""
        outcome = []

        def act():
            with open(f"/proc/{self.init}/ns/net") as network:
                if ctypes.CDLL(None, use_errno=True).setns(network.fileno(), CLONE_NEWNET) != 0:
                    raise OSError(ctypes.get_errno(), "setns")
            outcome.append(action())

        thread = threading.Thread(target=act)  # only this thread changes its namespace
        thread.start()
        thread.join()
        assert outcome, "the action failed, see above"
        return outcome[0]

    def end(self):
        """Ends all its processes and removes what it left on this machine."""
        with contextlib.suppress(AttributeError, ProcessLookupError):
            os.killpg(self.outer.pid, signal.SIGKILL)
            self.outer.wait()
        for group in self.groups:
            self._remove_group(group)
        with contextlib.suppress(AttributeError):
            self.console.close()
        self.directory.with_suffix(".console").unlink(missing_ok=True)
        shutil.rmtree(self.directory, ignore_errors=True)

    @staticmethod
    def _remove_group(group):
        for _ in range(500):  # its processes take a moment to end
            with contextlib.suppress(OSError):
                for directory, _, _ in os.walk(group, topdown=False):
                    os.rmdir(directory)
                return
            time.sleep(0.02)
