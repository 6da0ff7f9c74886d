"""The packages, made once for all tests of a run."""

import fcntl
import os
import pathlib
import re
import subprocess

from builds import REPOSITORY

EPOCH = 1700000000
RELEASE = re.search(r'VERSION_ID="(\d+)"', pathlib.Path("/etc/os-release").read_text())[1]
NEXT = "+next"
# Uses the sources and their build in place, but changes neither: what is written
# there goes to a file system in memory above them. Makes the packages, the same under other circumstances,
# and those of a higher version with another configuration and another unit.
_MAKE = """
sources=$1 output=$2
mkdir -p "$output/memory" "$output/here" "$output/there"
mount -t tmpfs tmpfs "$output/memory"
mkdir "$output/memory/upper" "$output/memory/work"
mount -t overlay -o "lowerdir=$sources,upperdir=$output/memory/upper,workdir=$output/memory/work" overlay "$sources"
cd "$sources"
build_rpm() {
    rpmbuild --quiet -bb --build-in-place --nodeps --define "_vpath_builddir build" \
        --define "_topdir $output/rpmbuild" --define "_rpmdir $output/rpm" \
        --define "_rpmfilename $1/%%{NAME}-%%{VERSION}-%%{RELEASE}.%%{ARCH}.rpm" \
        --define "_build_id_links none" --define "debug_package %nil" "$output/zel-quorin.spec"
}
TMPDIR="$output/here" scripts/package --build build --output "$output/first"
cp "$output/first/zel-quorin.spec" "$output/"
build_rpm first
(
    umask 077
    export TZ=Asia/Tokyo LC_ALL=C.UTF-8 HOME=/ TMPDIR="$output/there" CXXFLAGS=-g0
    scripts/package --build build --output "$output/again"
)
echo "# a line that came with the next version" >>packaging/zel_quorin_updater.conf
sed -i "s/^Description=.*/Description=The next version/" packaging/systemd/zel_quorin_updater.service.in
sed -i "1s/)/$NEXT)/" debian/changelog  # cmake takes digits and dots only, and need not build again
sed -i "s/^Release:.*/Release: 2/" "$output/zel-quorin.spec"
scripts/package --deb --build build --output "$output/next"
build_rpm next
"""


def run(*command, **options):
    """Runs a command that must succeed; returns its output."""
    process = subprocess.run(list(map(str, command)), capture_output=True, text=True, **options)
    assert process.returncode == 0, f"{command}: {process.stdout}{process.stderr}"
    return process.stdout


class Packages:
    """The packages of the sources as they are, the same made again, and those of the next version."""

    def __init__(self, directory):
        self.directory = directory
        self.first, self.again, self.next = (directory / name for name in ("first", "again", "next"))

    def make(self):
        environment = {**os.environ, "SOURCE_DATE_EPOCH": str(EPOCH), "NEXT": NEXT}
        run("unshare", "--mount", "sh", "-ec", _MAKE, "sh", REPOSITORY, self.directory, env=environment)

    @staticmethod
    def _only(directory, pattern):
        (found,) = directory.glob(pattern)
        return found

    def deb(self, name="updater", directory=None):
        return self._only(directory or self.first, f"zel-quorin-{name}_*.deb")

    def rpm(self, name="updater", directory=None):
        return self._only(self.directory / "rpm" / (directory or self.first).name, f"zel-quorin-{name}-*.rpm")


def shared_packages(base):
    """Those of this run; the first of several processes makes them."""
    directory = (base.parent if "PYTEST_XDIST_WORKER" in os.environ else base) / "packages"
    directory.mkdir(exist_ok=True)
    with open(directory / "lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not (directory / "done").exists():
            Packages(directory).make()
            (directory / "done").touch()
    return Packages(directory)
