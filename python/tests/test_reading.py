"""Arrays against vqpack(1) and a decoder of raw records; damage; errors; threads; memory."""

import bz2
import doctest
import gc
import gzip
import io
import os
import pathlib
import random
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import vqpack
from conftest import FILE_TYPES, PROGRAM, parse, program, rows

WAYS = {
    "all": lambda trace: trace.read_all(),
    "batches": lambda trace: np.concatenate(list(trace)),
    "pieces": lambda trace: np.concatenate([trace.read(n) for n in (0, 1, 999, 10**15)]),
    "frame": lambda trace: array_of(trace.to_pandas()),
    "mixed": lambda trace: np.concatenate([trace.read(1), next(trace), trace.read_all()]),
}


def array_of(frame):
    assert list(frame["type"].cat.categories) == list(vqpack.NAMES)
    transactions = np.zeros(len(frame), vqpack.TRANSACTION)
    for name in ("address", "agent", "count"):
        assert frame[name].dtype == vqpack.TRANSACTION[name]
        transactions[name] = frame[name]
    transactions["type"] = frame["type"].cat.codes
    return transactions


@pytest.mark.parametrize("way", WAYS)
@pytest.mark.parametrize("version", FILE_TYPES)
def test_equals_the_text_of_the_program(trace, version, way):
    for options in ((), ("-nc",)) if version > 1 else ((),):
        path = trace(version, *options)
        expected = parse(subprocess.check_output([PROGRAM, path], text=True))
        with vqpack.open(path, batch=700) as opened:
            assert rows(WAYS[way](opened)) == expected
            assert not len(opened.read(1)) and not list(opened) and not len(opened.read_all())


def test_equals_raw_records(trace):
    raw = trace(5, "-nc").read_bytes()
    record = np.dtype([("type", "u1"), ("agent", "<u2"), ("address", "<u8"), ("count", "<u4")])
    expected = np.frombuffer(raw[5 + int.from_bytes(raw[3:5], "little") : -5], record)
    with vqpack.open(trace(5)) as opened:
        transactions = opened.read_all()
    for name in record.names:
        np.testing.assert_array_equal(transactions[name], expected[name])


def test_sources(trace, tmp_path):
    path = trace(5)
    program(path, tmp_path / "trace.velk")
    content, text = path.read_bytes(), (tmp_path / "trace.velk").read_bytes()
    with vqpack.open(path) as opened:
        expected = rows(opened.read_all())
    (tmp_path / "zipped.gz").write_bytes(gzip.compress(content))
    (tmp_path / "zipped.bz2").write_bytes(bz2.compress(text))
    (tmp_path / "later").write_bytes(b"before it" + content)
    buffered = open(tmp_path / "later", "rb")
    assert buffered.read(9) == b"before it"  # and more into the buffer
    pipe = subprocess.Popen(["cat", path], stdout=subprocess.PIPE)
    sources = {
        "text": tmp_path / "trace.velk",
        "str": str(path),
        "bytes": bytes(path),
        "gz": tmp_path / "zipped.gz",
        "bz2": str(tmp_path / "zipped.bz2"),
        "suffix added": tmp_path / "zipped",
        "buffered": buffered,
        "text mode": open(tmp_path / "trace.velk", encoding="ascii"),
        "pipe": pipe.stdout,
    }
    for about, source in sources.items():
        with vqpack.open(source) as opened:
            assert rows(opened.read_all()) == expected, about
    pipe.wait()


def test_large_arrays_grow(trace, tmp_path):
    """A million transactions, of which the file gives another number or none."""
    transactions = np.zeros(1_000_000, vqpack.TRANSACTION)
    transactions["address"] = np.arange(len(transactions)) * 64
    transactions["count"] = 1
    vqpack.write(tmp_path / "long.qu", transactions, version=1)
    content = bytearray((tmp_path / "long.qu").read_bytes())
    for claimed in (0, 1, 70_000, 1_000_000, 2**32 - 2):
        content[3:7] = claimed.to_bytes(4, "little")
        (tmp_path / "long.qu").write_bytes(content)
        for way in ("all", "frame"):
            with vqpack.open(tmp_path / "long.qu") as opened:
                try:
                    got = WAYS[way](opened)
                    assert claimed in (0, 1_000_000)
                except vqpack.Error as error:
                    assert error.message == "Bad transaction count"
                    got = error.transactions if way == "all" else array_of(error.transactions)
            np.testing.assert_array_equal(got, transactions)


def damaged(content, choose):
    """300 files: each with a changed byte, and some cut."""
    for _ in range(300):
        changed = bytearray(content)
        changed[choose.randrange(len(content))] ^= choose.randrange(1, 256)
        if choose.random() < 0.3:
            del changed[choose.randrange(len(content)) :]
        yield bytes(changed)


@pytest.mark.parametrize("version", [1, 3, 5])
def test_damage_is_what_the_program_says(trace, tmp_path, version):
    content = trace(version, *(["-nc"] if version == 5 else []), length=40).read_bytes()
    path, errors = tmp_path / "damaged.qu", 0
    for changed in damaged(content, random.Random(version)):
        path.write_bytes(changed)
        got, error = [], None
        try:
            with vqpack.open(path, batch=7) as opened:
                for batch in opened:
                    got += rows(batch)
                    if len(got) > 10_000:  # a run of up to 2**32
                        break
        except vqpack.Error as raised:
            error = raised
        if len(got) > 10_000:
            continue
        done = subprocess.run([PROGRAM, path], capture_output=True)
        if changed[:1] != b"Q":  # text, which the program packs
            done.stdout = b""
        assert [row[:2] for row in got] == [row[:2] for row in parse(done.stdout.decode())]
        assert (error is not None) == (done.returncode != 0)
        if error:
            errors += 1
            assert str(error) == done.stderr.decode().splitlines()[0]
            assert str(error.record or "") in str(error) and str(error.byte or "") in str(error)
    assert errors > 240


def test_error_holds_what_was_read(trace):
    path = trace(5)
    with vqpack.open(path) as opened:
        expected = rows(opened.read_all())
    path.write_bytes(path.read_bytes()[:-7])
    for way, what in (("all", rows), ("frame", lambda frame: rows(array_of(frame)))):
        with vqpack.open(path) as opened, pytest.raises(vqpack.Error, match="ends early") as raised:
            opened.read(10)
            WAYS[way](opened)
        assert what(raised.value.transactions) == expected[10:]
        assert (raised.value.record, raised.value.byte) == (3003, path.stat().st_size)


@pytest.mark.parametrize("way", ["all", "frame"])
def test_run_of_billions_ends(tmp_path, monkeypatch, way):
    """Some bytes that stand for 2**32 transactions: an error, and not all of the memory."""
    monkeypatch.setattr("vqpack._reader.TRUSTED", 100_000)
    monkeypatch.setattr("vqpack._reader.MEMORY", 24_000_000)
    cases = ((5, vqpack.Error, "Bad transaction count"), (0, MemoryError, "read them in arrays"))
    for claimed, error, message in cases:
        run = bytes.fromhex("f080a09c 7d7f7f7f8f 300080 00000000")
        (tmp_path / "run.qu").write_bytes(b"QU\1" + claimed.to_bytes(4, "little") + run)
        with vqpack.open(tmp_path / "run.qu") as opened:
            with pytest.raises(error, match=message) as raised:
                WAYS[way](opened)
        if claimed:
            assert len(raised.value.transactions) >= 100_000


def test_sources_that_are_none(tmp_path, trace):
    (tmp_path / "remark.velk").write_text("MEMRD 0 0\n# no transaction\n")
    (tmp_path / "cut.gz").write_bytes(gzip.compress(bytes(100_000))[:50])
    cases = [
        (tmp_path / "absent", FileNotFoundError, "absent"),
        (tmp_path, IsADirectoryError, str(tmp_path)),
        ("a\0b", ValueError, "null"),
        (7, TypeError, "path"),
        (io.BytesIO(b"MEMRD 0 0\n"), TypeError, "descriptor"),
        (gzip.open(tmp_path / "cut.gz"), TypeError, "compressed"),
        (tmp_path / "cut.gz", vqpack.Error, "Can't read input|Bad input line"),
        (tmp_path / "remark.velk", vqpack.Error, "Bad input line, at record 2"),
    ]
    for source, error, message in cases:
        with pytest.raises(error, match=message), vqpack.open(source) as opened:
            opened.read_all()
    with vqpack.open(trace(1)) as opened:
        for n in (-1, 1.5, "1"):
            with pytest.raises((ValueError, TypeError)):
                opened.read(n)
    for use in (opened.read_all, opened.to_pandas, lambda: opened.read(1), opened.__enter__):
        with pytest.raises(ValueError, match="closed"):
            use()
    opened.close()
    assert opened.metadata.version == 1 and opened.names == vqpack.NAMES


def test_unclosed_objects_are_closed(trace, tmp_path):
    path = trace(1)
    gc.collect()
    before = len(os.listdir("/proc/self/fd"))
    for make in (lambda: vqpack.open(path), lambda: vqpack.Writer(tmp_path / "new.qu")):
        with pytest.warns(ResourceWarning, match="unclosed"):
            make()
            gc.collect()
    assert len(os.listdir("/proc/self/fd")) == before
    assert sorted(os.listdir(tmp_path)) == ["trace.qu", "trace.velk"]


def test_interrupt():
    """Ctrl-C while text arrives without end."""
    reading, writing = os.pipe()
    main = threading.main_thread().ident

    def feed():
        start = time.monotonic()
        try:
            while True:
                os.write(writing, b"MEMRD 1000 0\n" * 1000)
                if time.monotonic() - start > 0.3:
                    signal.pthread_kill(main, signal.SIGINT)
                    start += 1000
        except BrokenPipeError:
            os.close(writing)

    feeder = threading.Thread(target=feed)
    feeder.start()
    with open(reading, "rb") as file, vqpack.open(file) as opened:
        with pytest.raises(KeyboardInterrupt):
            opened.read_all()
        assert len(opened.read(10)) == 10
    feeder.join()


def test_threads(trace):
    """One reader for each thread, and one that four of them share."""
    path = trace(5, length=50_000)
    with vqpack.open(path) as opened:
        expected = sorted(rows(opened.read_all()))
    alone, shared = [[] for _ in range(4)], []

    def work(mine, common):
        with vqpack.open(path, batch=500) as opened:
            for batch in opened:
                mine += rows(batch)
        for batch in common:
            shared.extend(rows(batch))

    with vqpack.open(path, batch=500) as common:
        threads = [threading.Thread(target=work, args=(mine, common)) for mine in alone]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    assert all(sorted(mine) == expected for mine in alone) and sorted(shared) == expected


@pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="sanitizers keep freed memory")
def test_iteration_keeps_one_array(tmp_path):
    """Ten million transactions, 240 MB as arrays, in 32 MB beyond those of an empty trace."""
    transactions = np.ones(1_000_000, vqpack.TRANSACTION)
    transactions["address"] = np.arange(len(transactions)) * 8
    with vqpack.Writer(tmp_path / "long.qu") as writer:
        for _ in range(10):
            writer.write(transactions)
    with vqpack.Writer(tmp_path / "empty.qu"):
        pass
    code = """if True:
        import sys, vqpack
        with vqpack.open(sys.argv[1]) as trace:
            print(sum(len(batch) for batch in trace))
        print(next(line.split()[1] for line in open("/proc/self/status") if "VmHWM" in line))
    """

    def measure(name):
        output = subprocess.check_output([sys.executable, "-c", code, tmp_path / name], text=True)
        return [int(number) for number in output.split()]

    empty, long = measure("empty.qu"), measure("long.qu")
    assert (empty[0], long[0]) == (0, 10_000_000)
    assert long[1] - empty[1] < 32 * 1024


def test_examples(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    source = pathlib.Path(__file__).parents[2]
    (tmp_path / "samples").symlink_to(source / "samples")
    assert doctest.testmod(vqpack).failed == 0
    assert doctest.testfile(str(source / "README.md"), module_relative=False).failed == 0
