"""What a running process has used so far, as the kernel tells it."""

import pathlib


def usage(pid):
    """s of processor time, times that it left the processor by itself and that it was taken from it, and pages that
    it found in memory (proc_pid_stat(5), proc_pid_status(5)); schedstat has nanoseconds, where stat has ticks."""
    folder = pathlib.Path(f"/proc/{pid}")
    status = dict(line.split(":", 1) for line in (folder / "status").read_text().splitlines())
    return {
        "cpu": int((folder / "schedstat").read_text().split()[0]) / 1e9,
        "voluntary": int(status["voluntary_ctxt_switches"]),
        "involuntary": int(status["nonvoluntary_ctxt_switches"]),
        "faults": int((folder / "stat").read_text().rpartition(")")[2].split()[7]),
    }


def state(pid):
    """R for a process that runs, S for one that waits, and so on."""
    return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0]


def difference(after, before):
    return {key: after[key] - before[key] for key in after}
