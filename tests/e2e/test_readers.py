"""What those see who read the definitions while they are replaced."""

from outcomes import published
from reader import Reader
from release import definition_names

# Each step of a publication takes its time, so that a moment without the link cannot go unnoticed.
SLOWLY = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=unlink,symlink,rename:delay_exit=20000"]


def test_link_never_leads_nowhere_or_to_a_mixed_set(gateway, mirror):
    versions = [str(number) for number in range(1001, 1006)]
    mirror.publish(versions[0])
    assert gateway.run_once() == published(versions[0])
    with Reader(gateway.root) as reader:
        for former, version in zip(versions, versions[1:]):
            mirror.publish(version)
            assert gateway.run_once(prefix=SLOWLY) == published(version, former)
    assert (reader.misses, reader.vanished, reader.mixed) == (0, 0, 0)
    assert reader.lookups > 0
    assert reader.releases == sorted(set(reader.releases))


def test_reader_tells_missing_links_and_mixed_sets(tmp_path):
    first, second = definition_names()
    (tmp_path / "snapshots").mkdir()
    with Reader(tmp_path) as missing:
        pass
    assert missing.lookups == missing.misses > 0
    for folder, (one, other) in {"mixed": ("1001", "1002"), "half": ("1001", "1001\n1001")}.items():
        (tmp_path / "snapshots" / folder).mkdir()
        (tmp_path / "snapshots" / folder / first).write_text(f"{first} of {one}\n")
        (tmp_path / "snapshots" / folder / second).write_text(f"{second} of {other}\n")
        (tmp_path / "active").unlink(missing_ok=True)
        (tmp_path / "active").symlink_to(f"snapshots/{folder}")
        with Reader(tmp_path) as reader:
            pass
        assert reader.lookups == reader.mixed > 0
    (tmp_path / "snapshots" / "half" / second).unlink()
    with Reader(tmp_path) as reader:
        pass
    assert reader.lookups == reader.vanished > 0


def test_reader_misses_nothing_during_hundreds_of_updates(gateway, mirror, thorough, record_property):
    count = 2000 if thorough else 200
    gateway.settings["retained_snapshots"] = 10  # so that none is pruned while the reader has it open
    mirror.publish("1000")
    gateway.run_once()
    with Reader(gateway.root) as reader:
        for number in range(1001, 1001 + count):
            mirror.publish(str(number))
            assert gateway.run_once() == published(str(number), str(number - 1))
    assert (reader.misses, reader.vanished, reader.mixed) == (0, 0, 0)
    assert reader.lookups > count
    record_property("updates_read", count)
    record_property("lookups_of_the_link", reader.lookups)
