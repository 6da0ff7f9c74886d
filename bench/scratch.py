"""A scratch directory on disk, of which nothing is left however a run ends, nor of the processes that it started."""

import contextlib
import ctypes
import os
import pathlib
import shutil
import signal
import tempfile

PR_SET_CHILD_SUBREAPER = 36
SIGNALS = (signal.SIGHUP, signal.SIGINT, signal.SIGTERM)


def _children():
    lists = pathlib.Path("/proc/self/task").glob("*/children")
    return [int(pid) for children in lists for pid in children.read_text().split()]


def end_children():
    """Kills all child processes, and their children, which become ours once their parents are dead."""
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    while children := _children():
        for pid in children:
            os.kill(pid, signal.SIGKILL)
        for pid in children:
            with contextlib.suppress(ChildProcessError):  # a thread waited for it
                os.waitpid(pid, 0)
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0)


@contextlib.contextmanager
def scratch():
    """The directory. At the end of the block, and before a signal ends this process, all processes that are left are
    killed and the directory is removed."""
    with tempfile.TemporaryDirectory(prefix="zqu-bench-", dir="/var/tmp") as directory:

        def give_up(number, _frame):
            end_children()
            shutil.rmtree(directory, ignore_errors=True)
            end_children()  # those that other threads have started meanwhile
            signal.signal(number, signal.SIG_DFL)
            os.kill(os.getpid(), number)

        former = {number: signal.getsignal(number) for number in SIGNALS}
        for number in SIGNALS:
            if former[number] != signal.SIG_IGN:
                signal.signal(number, give_up)
        try:
            yield pathlib.Path(directory)
        finally:
            end_children()
            for number in SIGNALS:
                signal.signal(number, former[number])
