"""The daemon's own calls of its libraries and of the system: which, in what order, with what values, and what follows
when one of them fails."""

import re
import signal

import archives
import pytest
from gateway import SANITIZED
from outcomes import snapshot_listing
from release import good_files


def run(gateway, fault=""):
    """One cycle under the call recorder: the log lines, and the calls without addresses."""
    extra = {"ZQU_FAULT": fault} if fault else {}
    process = gateway.run("--config", gateway.config_path, "--once", calls=True, **extra)
    assert (process.returncode, process.stderr) == (0, "")
    lines = gateway.log_path.read_text().splitlines()
    gateway.log_path.unlink()
    if fault:
        assert f"fault {fault}" in lines
    return [re.sub(r" 0x[0-9a-f]+", "", line) for line in lines]


def only(calls, *names):
    return [line for line in calls if line.split()[0] in names]


def messages(calls):
    return only(calls, "err", "warning", "info")


def options(url, timeout, ca_path):
    values = [
        f'URL "{url}"',
        "WRITEFUNCTION set",
        "WRITEDATA set",
        f"TIMEOUT {timeout}",
        "FAILONERROR 1",
        "FOLLOWLOCATION 1",
        "SSL_VERIFYPEER 1",
        "SSL_VERIFYHOST 2",
    ]
    if ca_path:
        values.append(f'CAINFO "{ca_path}"')
    return ["curl_easy_reset", *(f"curl_easy_setopt {value}" for value in values), "curl_easy_perform"]


def curl_calls(calls):
    return [line for line in calls if line.startswith("curl_")]


def test_every_transfer_sets_the_same_options_in_order(gateway, mirror, nginx):
    mirror.publish("1001")
    timeout = 4294967295  # libcurl refuses it, and that is not looked at
    gateway.settings["http_timeout_s"] = timeout
    base = f"{nginx.url()}/{mirror.subdir}/antivir-v2-"
    assert curl_calls(run(gateway)) == [
        "curl_global_init 3",
        "curl_easy_init",
        *options(f"{base}hit.ini", timeout, nginx.ca_path),
        *options(f"{base}c-1001.ini", timeout, nginx.ca_path),
        *options(f"{base}1001.cab", timeout, nginx.ca_path),
        "curl_easy_cleanup",
        "curl_global_cleanup",
    ]


def test_empty_authority_path_sets_no_option(gateway):
    gateway.settings.update(ca_path="", mirror_base_url="file:///nowhere", mirror_subdir="x")
    assert curl_calls(run(gateway))[2:-2] == options("file:///nowhere/x/antivir-v2-hit.ini", 60, "")


def test_all_transfers_share_one_handle(gateway, mirror):
    mirror.publish("1001")
    gateway.run("--config", gateway.config_path, "--once", calls=True)
    handles = set(re.findall(r"^curl_easy_\w+ (0x[0-9a-f]+)", gateway.log_path.read_text(), re.MULTILINE))
    assert len(handles) == 1


def test_missing_handle_fails_every_transfer_without_a_message(gateway, mirror):
    mirror.publish("1001")
    calls = run(gateway, "curl_easy_init:1:0")
    assert messages(calls) == []
    assert curl_calls(calls) == ["curl_global_init 3", "curl_easy_init", "curl_global_cleanup"]
    gateway.expect_status("", "defId fetch failed")


def test_digest_is_computed_in_blocks_of_64_kib(gateway, mirror):
    entries = good_files("1001", size=150_000)
    mirror.publish("1001", entries)
    cab_size = mirror.path("antivir-v2-1001.cab").stat().st_size
    calls = only(
        run(gateway),
        *(f"EVP_{name}" for name in ("MD_CTX_new", "DigestInit_ex", "DigestUpdate", "DigestFinal_ex", "MD_CTX_free")),
    )

    def digest(size):
        blocks = [65536] * (size // 65536) + ([size % 65536] if size % 65536 else [])
        updates = [f"EVP_DigestUpdate {block}" for block in blocks]
        return ["EVP_MD_CTX_new", "EVP_DigestInit_ex SHA256 null", *updates, "EVP_DigestFinal_ex 0", "EVP_MD_CTX_free"]

    assert calls == [*digest(cab_size), *digest(len(entries[0][1])), *digest(len(entries[1][1]))]


def test_file_of_whole_blocks_is_hashed_without_an_empty_update(gateway, mirror):
    entries = good_files("1001")
    content = b"x" * 131072
    entries[0] = (entries[0][0], content)
    entries[2] = (entries[2][0], b"")
    mirror.publish("1001", entries)
    mirror.path("antivir-v2-1001.cab").write_bytes(content)
    mirror.announce("1001", "antivir-v2-1001.cab")
    assert only(run(gateway), "EVP_DigestUpdate") == ["EVP_DigestUpdate 65536"] * 2


@pytest.mark.parametrize(
    "fault, freed",
    [
        ("EVP_MD_CTX_new:1:0", []),
        ("EVP_DigestInit_ex:1:0", ["EVP_MD_CTX_free"]),
        ("EVP_DigestInit_ex:1:2", ["EVP_MD_CTX_free"]),
    ],
)
def test_refused_digest_is_a_mismatch(gateway, mirror, fault, freed):
    mirror.publish("1001")
    calls = run(gateway, fault)
    assert messages(calls) == ["err run_once: staging failed: CAB sha256 mismatch"]
    assert only(calls, "EVP_DigestUpdate", "EVP_DigestFinal_ex") == []
    assert only(calls, "EVP_MD_CTX_free") == freed
    gateway.expect_status("", "CAB sha256 mismatch")


@pytest.mark.parametrize("announced", ["0", "~"])
def test_refused_digest_matches_no_announcement_however_short(gateway, mirror, announced):
    mirror.publish("1001")
    ini = mirror.path("antivir-v2-c-1001.ini")
    ini.write_text(re.sub("SHA256=.*", f"SHA256={announced}", ini.read_text()))
    calls = run(gateway, "EVP_MD_CTX_new:1:0")
    assert messages(calls) == ["err run_once: staging failed: CAB sha256 mismatch"]


def test_failed_update_of_the_digest_is_not_looked_at(gateway, mirror):
    mirror.publish("1001")
    calls = run(gateway, "EVP_DigestUpdate:1:0")
    assert only(calls, "EVP_DigestFinal_ex", "EVP_MD_CTX_free") == ["EVP_DigestFinal_ex 0", "EVP_MD_CTX_free"]
    assert messages(calls) == ["err run_once: staging failed: CAB sha256 mismatch"]


def test_failed_end_of_the_digest_is_not_looked_at(gateway, mirror):
    mirror.publish("1001")
    calls = run(gateway, "EVP_DigestFinal_ex:1:0")  # gives no digest, of the length preset
    assert only(calls, "EVP_MD_CTX_free") == ["EVP_MD_CTX_free"]
    assert messages(calls) == ["err run_once: staging failed: CAB sha256 mismatch"]


def archive_calls(calls):
    return [line for line in calls if line.startswith(("archive_", "fsync", "open ")) and "open zel" not in line]


def test_extraction_calls_its_library_in_order(gateway, mirror):
    entries = [(f"dir/{name}", content) for name, content in good_files("1001")[:2]]
    mirror.publish("1001", entries)
    stage = f"{gateway.root}/snapshots/1001"
    one_entry = [
        [
            "archive_read_next_header",
            "archive_entry_pathname",
            f'archive_entry_set_pathname "{stage}/{name.rpartition("/")[2]}"',
            "archive_write_header",
            "archive_read_data_block",
            f"archive_write_data_block {len(content)} 0",
            "archive_read_data_block",
            "archive_entry_filetype",
        ]
        for name, content in entries
    ]
    expected = [
        "archive_read_new",
        "archive_read_support_format_cab",
        "archive_read_support_format_zip",
        "archive_read_support_filter_all",
        "archive_write_disk_new",
        "archive_write_disk_set_options 6",
        f'archive_read_open_filename "{stage}/antivir-v2-1001.cab" 65536',
        *one_entry[0],
        *one_entry[1],
        "archive_read_next_header",
        "archive_read_free",
        "archive_write_free",
        f'open "{stage}/antivir-v2.def" 0',
        "fsync",
        f'open "{stage}/aivsecon-v2.def" 0',
        "fsync",
        f'open "{stage}" 65536',
        "fsync",
        # publication
        f'open "{gateway.root}" 65536',
        "fsync",
    ]
    assert archive_calls(run(gateway)) == expected


@pytest.mark.parametrize("result", [1, -10, -20, -25, -30])
def test_any_other_header_result_ends_the_extraction_as_a_success(gateway, mirror, result):
    mirror.publish("1001")
    calls = run(gateway, f"archive_read_next_header:3:{result}")
    # The index, third of the entries, is not extracted; the two definition files are accepted without it.
    assert messages(calls) == ["info published def snapshot 1001", "info def snapshot updated: none -> 1001"]
    assert only(calls, "fsync") == ["fsync"] * 4
    assert gateway.listing() == snapshot_listing("1001", "1001")


@pytest.mark.parametrize("result", [1, -10, -20, -25, -30])
def test_any_other_result_for_an_entry_is_a_failure_without_a_message(gateway, mirror, result):
    mirror.publish("1001")
    calls = run(gateway, f"archive_write_header:2:{result}")
    assert messages(calls) == ["err run_once: staging failed: CAB extract"]
    assert only(calls, "remove") == []  # the archive goes with the staging directory
    assert only(calls, "fsync") == []
    assert only(calls, "archive_read_free", "archive_write_free") == ["archive_read_free", "archive_write_free"]
    assert gateway.listing() == ["snapshots/"]


@pytest.mark.parametrize("result", [2, -10, -20, -25, -30])
def test_failed_data_read_is_a_failure_without_a_message(gateway, mirror, result):
    mirror.publish("1001")
    calls = run(gateway, f"archive_read_data_block:2:{result}")
    assert messages(calls) == ["err run_once: staging failed: CAB extract"]
    assert only(calls, "fsync") == []
    assert only(calls, "archive_read_free", "archive_write_free") == ["archive_read_free", "archive_write_free"]


def test_failed_data_write_is_caught_by_the_digest(gateway, mirror):
    mirror.publish("1001")
    calls = run(gateway, "archive_write_data_block:1:-25")
    assert messages(calls) == ["err run_once: staging failed: sha256 mismatch antivir-v2.def"]


def test_failed_open_of_the_archive_is_logged_and_frees_both_handles(gateway, mirror):
    mirror.publish("1001")
    calls = run(gateway, "archive_read_open_filename:1:-30")
    stage = f"{gateway.root}/snapshots/1001"
    assert messages(calls) == [
        f"err extract: cannot open {stage}/antivir-v2-1001.cab: (null)",
        "err run_once: staging failed: CAB extract",
    ]
    assert only(calls, "archive_read_free", "archive_write_free") == ["archive_read_free", "archive_write_free"]


@pytest.mark.parametrize(
    "number, name", [(1, "/antivir-v2.def"), (2, "/aivsecon-v2.def"), (3, "/antivir-v2.ini"), (4, "")]
)
@pytest.mark.parametrize("call, text", [("open", "fsync: open %s failed"), ("fsync", "fsync: %s failed")])
def test_failed_flush_of_a_file_is_a_warning_only(gateway, mirror, call, text, number, name):
    mirror.publish("1001")
    calls = run(gateway, f"{call}:{number}:5")
    path = f"{gateway.root}/snapshots/1001{name}"
    assert messages(calls) == [
        "warning " + text.replace("%s", path),
        "info published def snapshot 1001",
        "info def snapshot updated: none -> 1001",
    ]


@pytest.mark.parametrize("call", ["open", "fsync"])
def test_failed_flush_of_the_root_is_ignored(gateway, mirror, call):
    mirror.publish("1001")
    calls = run(gateway, f"{call}:5:5")
    assert messages(calls) == ["info published def snapshot 1001", "info def snapshot updated: none -> 1001"]


def test_descriptors_are_closed_after_each_flush(gateway, mirror):
    mirror.publish("1001")
    calls = [line.split()[0] for line in run(gateway, "fsync:2:5") if line.split()[0] in ("open", "fsync", "close")]
    assert calls[1:-1] == ["open", "fsync", "close"] * 5


def test_failed_flush_is_logged_after_the_descriptor_is_closed(gateway, mirror):
    mirror.publish("1001")
    calls = only(run(gateway, "fsync:2:5"), "open", "fsync", "close", "warning")
    path = f"{gateway.root}/snapshots/1001/aivsecon-v2.def"
    start = calls.index(f'open "{path}" 0')
    assert calls[start : start + 4] == [f'open "{path}" 0', "fsync", "close", f"warning fsync: {path} failed"]


def test_publication_makes_its_calls_in_order(gateway, mirror):
    mirror.publish("1001")
    calls = only(run(gateway), "unlink", "symlink", "rename", "open", "fsync", "close", "info")
    link = f"{gateway.root}/active"
    assert calls[calls.index(f'unlink "{link}.tmp"') : -1] == [
        f'unlink "{link}.tmp"',
        f'symlink "snapshots/1001" "{link}.tmp"',
        f'rename "{link}.tmp" "{link}"',
        f'open "{gateway.root}" {0o200000}',
        "fsync",
        "close",
        "info published def snapshot 1001",
        "info def snapshot updated: none -> 1001",
    ]


def test_failed_link_logs_and_cleans_nothing_up(gateway, mirror):
    mirror.publish("1001")
    calls = run(gateway, "symlink:1:28")
    link = f"{gateway.root}/active"
    assert messages(calls) == [f"err publish: symlink {link}.tmp failed"]
    assert only(calls, "unlink") == [f'unlink "{link}.tmp"']
    assert gateway.listing() == snapshot_listing(None, "1001")
    gateway.expect_status("", "publish/flip failed")


def test_failed_rename_of_the_link_removes_it(gateway, mirror):
    mirror.publish("1001")
    calls = run(gateway, "rename:2:28")
    link = f"{gateway.root}/active"
    assert only(calls, "unlink", "rename", "err")[-3:] == [
        f'rename "{link}.tmp" "{link}"',
        "err publish: rename to active failed",
        f'unlink "{link}.tmp"',
    ]
    assert len(only(calls, "unlink")) == 2
    assert gateway.listing() == snapshot_listing(None, "1001")
    gateway.expect_status("", "publish/flip failed")


def test_download_makes_its_calls_in_order(gateway, mirror):
    mirror.publish("1001")
    calls = only(run(gateway), "fopen", "fwrite", "fclose", "rename", "remove")
    cab = f"{gateway.root}/snapshots/1001/antivir-v2-1001.cab"
    assert [call for call in calls if call != "fwrite 1"][:4] == [
        f'fopen "{cab}.part" "wb"',
        "fclose",
        f'rename "{cab}.part" "{cab}"',
        f'remove "{cab}"',
    ]


def test_short_write_aborts_the_download(gateway, mirror, nginx):
    mirror.publish("1001")
    calls = run(gateway, "fwrite:1:28")
    cab = "antivir-v2-1001.cab"
    assert only(calls, "fclose", "remove", "rename", "err") == [
        "fclose",
        f"err download_cab {nginx.url()}/{mirror.subdir}/{cab}: Failed writing received data to disk/application",
        f'remove "{gateway.root}/snapshots/1001/{cab}.part"',
        "err run_once: staging failed: download CAB",
    ]


def test_failed_close_of_the_download_is_not_looked_at(gateway, mirror):
    mirror.publish("1001")
    assert messages(run(gateway, "fclose:1:28")) == [
        "info published def snapshot 1001",
        "info def snapshot updated: none -> 1001",
    ]


def test_failed_rename_of_the_download_is_silent(gateway, mirror):
    mirror.publish("1001")
    calls = run(gateway, "rename:1:28")
    assert messages(calls) == ["err run_once: staging failed: download CAB"]
    assert only(calls, "remove") == []


def test_failed_removal_of_the_archive_is_mended_by_the_sweep(gateway, mirror):
    mirror.publish("1001")
    run(gateway, "remove:1:13")
    assert gateway.listing() == snapshot_listing("1001", "1001")


def test_exception_of_another_type_is_not_caught_by_the_loop(gateway, mirror):
    mirror.publish("1001")
    process = gateway.run(
        "--config", gateway.config_path, calls=True, ZQU_FAULT="curl_easy_perform:1:throw", ZQU_SLEEPS="1"
    )
    assert process.returncode == -signal.SIGABRT
    assert messages(gateway.take_log()) == ["info zel_quorin_updater loop started (interval=900s jitter=120s)"]


def test_entry_without_a_name_is_refused(gateway, mirror):
    mirror.publish("1001")
    assert messages(run(gateway, "archive_entry_pathname:1:0")) == ["err run_once: staging failed: CAB extract"]
    assert gateway.listing() == ["snapshots/"]


def run_with_injection(gateway, path, injection):
    """One cycle in which strace makes a system call on that path fail; the messages."""
    prefix = ["strace", "-f", "-qq", "-o", "/dev/null", "-P", path, "-e", f"inject={injection}"]
    return gateway.run_once(prefix=prefix)


def test_read_error_in_the_archive_is_a_mismatch(gateway, mirror):
    mirror.publish("1001", good_files("1001", size=200_000))
    path = f"{gateway.root}/snapshots/1001/antivir-v2-1001.cab"
    lines = run_with_injection(gateway, path, "read:error=EIO:when=1")
    assert lines == ["err run_once: staging failed: CAB sha256 mismatch"]


@pytest.mark.parametrize("injection", ["openat:error=EACCES:when=3", "read:error=EIO:when=1"])
def test_unreadable_index_is_an_empty_one(gateway, mirror, injection):
    entries = good_files("1001")
    entries[2] = (entries[2][0], b"antivir-v2.def.sha256 = 00\n")  # would be a mismatch
    mirror.publish("1001", entries)
    path = f"{gateway.root}/snapshots/1001/antivir-v2.ini"
    lines = run_with_injection(gateway, path, injection)
    assert lines == ["info published def snapshot 1001", "info def snapshot updated: none -> 1001"]


def test_index_that_cannot_be_read_to_its_end_is_an_empty_one(gateway, mirror):
    entries = good_files("1001")
    entries[2] = (entries[2][0], b"antivir-v2.def.sha256 = 00\n" + b"; padding\n" * 20_000)
    mirror.publish("1001", entries)
    path = f"{gateway.root}/snapshots/1001/antivir-v2.ini"
    lines = run_with_injection(gateway, path, "read:error=EIO:when=2")
    assert lines == ["info published def snapshot 1001", "info def snapshot updated: none -> 1001"]


def disk_trace(gateway, *arguments, status=0):
    """One cycle under strace: the system calls that change the disk, in order, and the writes to the log."""
    trace = gateway.folder / "trace"
    calls = "mkdir,unlink,unlinkat,rmdir,openat,symlink,rename,write,getdents64"
    prefix = ["strace", "-f", "-qq", "-s", "200", "-o", trace, "-e", f"trace={calls}"]
    process = gateway.run("--config", gateway.config_path, "--once", *arguments, prefix=prefix)
    assert process.returncode == status
    return [line.split(maxsplit=1)[1] for line in trace.read_text().splitlines()]


def position(trace, *words):
    """Where the only call with all these words stands."""
    found = [number for number, line in enumerate(trace) if all(word in line for word in words)]
    assert len(found) == 1, (words, found)
    return found[0]


def test_success_is_logged_after_pruning_and_the_status(gateway, mirror):
    gateway.settings["retained_snapshots"] = 1
    mirror.publish("1001")
    gateway.run_once()
    mirror.publish("1002")
    trace = disk_trace(gateway)
    published = position(trace, "write(", "published def snapshot 1002")
    pruned = position(trace, "rmdir(", 'snapshots/1001"')
    status = position(trace, "openat(", '/status/status.json"')
    updated = position(trace, "write(", "def snapshot updated: 1001 -> 1002")
    assert published < pruned < status < updated


def test_failed_staging_is_logged_then_removed_then_told_by_the_status(gateway, mirror):
    mirror.publish("1001")
    mirror.write("antivir-v2-1001.cab", b"tampered")
    trace = disk_trace(gateway)
    logged = position(trace, "write(", "run_once: staging failed: CAB sha256 mismatch")
    removed = position(trace, "rmdir(", 'snapshots/1001"')
    status = position(trace, "openat(", '/status/status.json"')
    assert logged < removed < status


def test_refused_files_are_removed_at_one_go_without_a_sweep(gateway, mirror):
    entries = good_files("1001")
    entries[1] = (entries[1][0], b"tampered")
    mirror.publish("1001", entries)
    trace = disk_trace(gateway)
    swept = [line for line in trace if line.startswith("unlink(") and "/snapshots/1001/" in line]
    assert ["antivir-v2-1001.cab" in line for line in swept] == [True]  # taken away once it is unpacked
    position(trace, "unlinkat(", '"antivir-v2.ini"')


def test_directories_are_made_after_the_handle_in_order(gateway):
    gateway.settings.update(mirror_base_url="file:///nowhere", mirror_subdir="x")
    trace = disk_trace(gateway)
    snapshots = position(trace, "mkdir(", "/snapshots")
    status = position(trace, "mkdir(", '/status"')
    assert snapshots < status
    gateway.take_log()
    injected = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=mkdir:signal=KILL:when=1"]
    (gateway.root / "snapshots").rmdir()
    gateway.run("--config", gateway.config_path, "--once", calls=True, prefix=injected)
    assert "curl_easy_init" in gateway.log_path.read_text()


@pytest.mark.parametrize("unreadable", ["1001", "1002", "1003", "1004"])
def test_snapshot_whose_time_cannot_be_read_counts_as_the_oldest(gateway, mirror, unreadable):
    for version in ("1001", "1002", "1003"):
        mirror.publish(version)
        gateway.run_once()
    (gateway.root / "snapshots" / "1004").mkdir()
    mirror.publish("1005")
    gateway.settings["retained_snapshots"] = 4
    # Neither its time can be read nor can it be removed, which counts all the same.
    path = f"{gateway.root}/snapshots/{unreadable}"
    lines = run_with_injection(gateway, path, "newfstatat,openat,unlinkat:error=EACCES")
    assert lines == ["info published def snapshot 1005", "info def snapshot updated: 1003 -> 1005"]
    versions = sorted(path.name for path in (gateway.root / "snapshots").iterdir())
    assert versions == ["1001", "1002", "1003", "1004", "1005"]


def test_failed_allocation_while_the_index_is_read_leaves_nothing_unchecked(gateway, mirror):
    if SANITIZED:
        pytest.skip("the sanitizers reserve more address space than the limit leaves")
    entries = good_files("1001")
    entries[1] = (entries[1][0], b"tampered")
    entries[2] = (entries[2][0], b"; " + b"x" * 200_000_000 + b"\n" + entries[2][1])
    archives.write_zip(mirror.path("big.zip"), entries)
    mirror.announce("1001", "big.zip")
    process = gateway.run("--config", gateway.config_path, "--once", prefix=["prlimit", "--as=250000000"])
    assert process.returncode == -signal.SIGABRT
    assert "bad_alloc" in process.stderr
    assert messages(gateway.take_log()) == []
    assert not (gateway.root / "active").exists()


def test_single_cycle_runs_even_after_a_stop_signal(gateway, mirror):
    mirror.publish("1001")
    calls = run(gateway, "curl_global_init:1:term")
    assert messages(calls) == ["info published def snapshot 1001", "info def snapshot updated: none -> 1001"]
