"""Arrays against vqpack(1); sources; errors; threads; memory."""

import doctest
import gc
import gzip
import io
import os
import pathlib
import signal
import subprocess
import threading
import tracemalloc
from concurrent.futures import ThreadPoolExecutor

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


def test_sources(trace, tmp_path):
    path = trace(5)
    program(path, tmp_path / "trace.velk")
    with vqpack.open(path) as opened:
        expected = rows(opened.read_all())
    (tmp_path / "later").write_bytes(b"before it" + path.read_bytes())
    buffered = open(tmp_path / "later", "rb")
    assert buffered.read(9) == b"before it"  # and more into the buffer
    pipe = subprocess.Popen(["cat", path], stdout=subprocess.PIPE)
    sources = {
        "text": tmp_path / "trace.velk",
        "str": str(path),
        "bytes": bytes(path),
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


def test_error_holds_what_was_read(trace):
    path = trace(5)
    with vqpack.open(path) as opened:
        expected = rows(opened.read_all())
    path.write_bytes(path.read_bytes()[:-7])
    for way, what in (("all", rows), ("frame", lambda frame: rows(array_of(frame)))):
        with vqpack.open(path) as opened, pytest.raises(vqpack.Error) as raised:
            opened.read(10)
            WAYS[way](opened)
        assert what(raised.value.transactions) == expected[10:]
        size = path.stat().st_size
        assert (raised.value.record, raised.value.byte) == (3003, size)
        assert str(raised.value) == f"Input ends early, at record 3003, byte {size}"


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
    """Ctrl-C while much text arrives."""
    signal.signal(signal.SIGINT, signal.default_int_handler)  # also where it was ignored
    ctrl_c = (threading.main_thread().ident, signal.SIGINT)
    command = "yes MEMRD 1000 0 | head -c 300M"
    with subprocess.Popen(command, shell=True, stdout=subprocess.PIPE) as feeder:
        with vqpack.open(feeder.stdout) as opened:
            threading.Timer(0.3, signal.pthread_kill, ctrl_c).start()
            with pytest.raises(KeyboardInterrupt):
                opened.read_all()
            assert len(opened.read(10)) == 10


def test_threads(trace, tmp_path):
    """Four of them share a reader; each has a writer and a gzip of its own."""
    path = trace(5, length=50_000)
    with vqpack.open(path) as opened:
        expected = opened.read_all()
    shared = []

    def work(common, name):
        for batch in common:
            shared.extend(rows(batch))
        for _ in range(5):
            vqpack.write(name, expected, 5)
            with vqpack.open(name) as opened:
                assert (opened.read_all() == expected).all()

    with vqpack.open(path, batch=500) as common, ThreadPoolExecutor() as pool:
        for done in [pool.submit(work, common, tmp_path / f"{n}.gz") for n in range(4)]:
            done.result()
    assert sorted(shared) == sorted(rows(expected))


def test_iteration_keeps_one_array(tmp_path):
    """A million transactions, 24 MB as arrays, in two of 65536 at a time."""
    transactions = np.ones(1_000_000, vqpack.TRANSACTION)
    transactions["address"] *= 8
    vqpack.write(tmp_path / "long.qu", transactions)
    tracemalloc.start()
    with vqpack.open(tmp_path / "long.qu") as trace:
        assert sum(len(batch) for batch in trace) == 1_000_000
    assert tracemalloc.get_traced_memory()[1] < 4_000_000
    tracemalloc.stop()


def test_examples(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    source = pathlib.Path(__file__).parents[2]
    (tmp_path / "samples").symlink_to(source / "samples")
    assert doctest.testmod(vqpack).failed == 0
    assert doctest.testfile(str(source / "README.md"), module_relative=False).failed == 0
