"""Files against those of vqpack(1); what is refused; what stays on the disk."""

import os
import subprocess

import numpy as np
import pytest

import vqpack
from conftest import FILE_TYPES, PROGRAM, arrays, program, rows, text_of

pandas = pytest.importorskip("pandas")


def columns(t):
    return {name: t[name].copy() for name in t.dtype.names}


def names(t):
    return np.array(vqpack.NAMES)[t["type"]]


def other_fields(t):
    """Of other widths and byte orders, with gaps."""
    formats = {"type": "i2", "more": "f8", "count": ">u8", "agent": "<u2", "address": ">u8"}
    other = np.zeros(len(t), list(formats.items()))
    for name in t.dtype.names:
        other[name] = t[name]
    return other[["agent", "type", "count", "address"]]


FORMS = {
    "the library's layout": lambda t: t,
    "every second": lambda t: np.repeat(t, 2)[::2],
    "other fields": other_fields,
    "columns": columns,
    "lists": lambda t: {name: column.tolist() for name, column in columns(t).items()},
    "names": lambda t: {**columns(t), "type": names(t)},
    "bytes and objects": lambda t: {
        **columns(t),
        "type": names(t).astype("S"),
        "count": t["count"].astype(object),
    },
    "frame": lambda t: pandas.DataFrame(columns(t)),
    "categorical": lambda t: pandas.DataFrame(
        {**columns(t), "type": pandas.Categorical(names(t), [*sorted(vqpack.NAMES), "other"])}
    ),
    "nullable": lambda t: pandas.DataFrame({**columns(t), "type": names(t)}).convert_dtypes(),
}


@pytest.mark.parametrize("version", FILE_TYPES)
def test_files_are_those_of_the_program(tmp_path, version):
    text = text_of(version, 20_000)
    (tmp_path / "trace.velk").write_text(text)
    program("-v", version, "-d", 4096, "-C", 100, tmp_path / "trace.velk", tmp_path / "program.qu")
    expected = (tmp_path / "program.qu").read_bytes()
    with vqpack.open(tmp_path / "trace.velk") as trace:
        transactions = trace.read_all()
    # Of text, the program takes the number of lines for cycles.
    cycles = len(transactions) if version > 1 else 0
    options = {"version": version, "window": 4096, "max_contexts": 100, "cycles": cycles}
    given = transactions.copy()
    for about, form in FORMS.items():
        vqpack.write(tmp_path / "module.qu", form(transactions), **options)
        assert (tmp_path / "module.qu").read_bytes() == expected, about
    assert (transactions == given).all()
    with vqpack.Writer(str(tmp_path / "parts.qu"), **options) as writer:
        writer.write(transactions[:1])
        writer.write(**columns(transactions[1:10_001]))
        writer.write(pandas.DataFrame(columns(transactions[10_001:])))
        writer.write(transactions[:0])
    assert (tmp_path / "parts.qu").read_bytes() == expected
    with open(tmp_path / "descriptor.qu", "wb") as file:
        vqpack.write(file, transactions, **options)
        assert (tmp_path / "descriptor.qu").read_bytes() == expected
        file.seek(0)
        file.write(b"before it")  # still in the buffer
        vqpack.write(file, transactions, **options)
    assert (tmp_path / "descriptor.qu").read_bytes()[:11] == b"before itQU"


def test_defaults_stand_for_whole_columns(tmp_path):
    with vqpack.Writer(tmp_path / "new.qu", version=3) as writer:
        writer.write(address=[8, 16], type="MEMRD", count=7)
        writer.write({"address": 2**64 - 8, "type": 47, "agent": 3})
        writer.write(np.array([(64, 5)], [("address", "u4"), ("type", "u1")]))
    with vqpack.open(tmp_path / "new.qu") as trace:
        assert rows(trace.read_all()) == [
            (8, 0, 7, "MEMRD"),
            (16, 0, 7, "MEMRD"),
            (0xFF0000, 3, 1, "DEFR_RPLY"),
            (64, 0, 1, "MEMWR"),
        ]


def test_metadata(tmp_path):
    description = {
        "instructions": 2**40,
        "cycles": 2**41,
        "threads": 65535,
        "cache_size_kib": 2**32 - 1,
        "line_size": 128,
        "sensitivity": [(255, 65535, 3, 4, 5, 6, 2**32 - 1), vqpack.Sensitivity(*range(7))],
        "comment": "Maßstab \udcff",
    }
    for name in ("new.qu", "new.qu.gz"):
        vqpack.write(tmp_path / name, arrays(5), 5, False, max_contexts=9, **description)
        with vqpack.open(tmp_path / name) as trace:
            stored = trace.metadata
            np.testing.assert_array_equal(trace.read_all()["type"], np.arange(68))
        assert (stored.version, stored.compressed, stored.transactions) == (5, False, 68)
        assert stored.description() == description
    assert b"Ma\xc3\x9fstab \xff\0" in (tmp_path / "new.qu").read_bytes()
    command = [PROGRAM, "-p", "-e", "0", tmp_path / "new.qu"]
    report = subprocess.run(command, check=True, capture_output=True, text=True).stderr
    assert "Total instructions: 1099511627776\n" in report and "Line size: 128 B\n" in report

    # Nothing but 0 is right for any number where it is not known in advance.
    with vqpack.Writer(tmp_path / "unknown.qu.gz", 5, **description) as writer:
        writer.write(arrays(5))
    with vqpack.open(tmp_path / "unknown.qu.gz") as trace:
        assert trace.metadata.transactions == 0 and len(trace.read_all()) == 68


BAD_TRANSACTIONS = [
    ({"address": [8, 12], "type": 4}, ValueError, "address 0xC at index 1"),
    ({"address": [-8], "type": 4}, ValueError, "address -8 at index 0"),
    ({"address": [2**64], "type": 4}, ValueError, "at index 0"),
    ({"address": np.array([0, -8]), "type": 4}, ValueError, "address -8 at index 1"),
    ({"address": [8.0], "type": 4}, TypeError, "8.0 at index 0"),
    ({"address": np.array([8.0]), "type": 4}, TypeError, "float64"),
    ({"address": [True], "type": 4}, TypeError, "True at index 0"),
    ({"address": np.ma.array([8], mask=[1]), "type": 4}, TypeError, "masked"),
    ({"address": [[8], [8]], "type": 4}, ValueError, "2 dimensions"),
    ({"address": [8, 16], "type": [4]}, ValueError, "differ in length: address 2, type 1"),
    ({"address": [8]}, ValueError, "'type' is missing"),
    ({"address": [8], "type": 4, "counts": 1}, ValueError, "unknown field 'counts'"),
    ({"address": [8], "type": 68}, ValueError, "type 68 at index 0"),
    ({"address": 0, "type": [4] * 99_999 + [-1]}, ValueError, "type -1 at index 99999"),
    ({"address": 8, "type": ["MEMRD"] * 99_999 + [None]}, ValueError, "None at index 99999"),
    ({"address": [8, 8], "type": pandas.Categorical(["MEMRD", None])}, ValueError, "at index 1"),
    ({"address": [8], "type": pandas.Categorical(["x"])}, ValueError, "'x' at index 0"),
    ({"address": [8, 8], "type": 4, "agent": [255, 256]}, ValueError, "agent 256 at index 1"),
    ({"address": [8], "type": 4, "agent": np.array([-1], "i1")}, ValueError, "agent -1"),
    ({"address": [8], "type": 4, "count": 2**32}, ValueError, "count 4294967296 at index 0"),
    (np.zeros(3), TypeError, "structured"),
    (np.array([(8, 256, 1, 4)], vqpack.TRANSACTION), ValueError, "agent 256 at index 0"),
    ([(8, 0, 1, 4)], TypeError, "list"),
    (pandas.DataFrame({"address": [8, None], "type": [4, 4]}), TypeError, "address"),
]

BAD_OPTIONS = [
    ({"version": 6}, ValueError, "version"),
    ({"version": 5, "threads": 65536}, ValueError, "threads above 65535"),
    ({"version": 5, "cycles": 2**63}, ValueError, "cycles"),
    ({"version": 5, "cycles": 1.5}, TypeError, "cycles"),
    ({"version": 3, "comment": "for long headers"}, ValueError, "comment"),
    ({"version": 5, "comment": "a\0b"}, ValueError, "comment"),
    ({"version": 1, "line_size": 64}, ValueError, "line_size"),
    ({"version": 1, "compressed": False}, ValueError, "type 1"),
    ({"version": 5, "sensitivity": [(1, 2, 3)]}, ValueError, "3 values"),
    ({"version": 5, "sensitivity": [(256, 0, 0, 0, 0, 0, 0)]}, ValueError, "type above 255"),
    ({"version": 5, "sensitivity": [(0, 65536, 0, 0, 0, 0, 0)]}, ValueError, "MLC size above"),
    ({"version": 5, "sensitivity": [(0,) * 7] * 256}, ValueError, "More than 255"),
    ({"max_contexts": -1}, ValueError, "max_contexts"),
]


def test_refused_before_anything_is_written(tmp_path):
    """Neither a new file is there nor an old one touched."""
    path = tmp_path / "old.qu"
    path.write_text("old")
    good = {"address": [8], "type": 4}
    cases = [(bad, {}, *expected) for bad, *expected in BAD_TRANSACTIONS]
    cases += [(good, options, *expected) for options, *expected in BAD_OPTIONS]
    for transactions, options, error, message in cases:
        with pytest.raises(error, match=message):
            vqpack.write(path, transactions, **options)
        with pytest.raises(error, match=message), vqpack.Writer(path, **options) as writer:
            writer.write(good)
            writer.write(transactions)
        assert os.listdir(tmp_path) == ["old.qu"] and path.read_text() == "old"
    targets = ((tmp_path, OSError), (tmp_path / "a" / "b", FileNotFoundError), (3, TypeError))
    for target, error in targets:
        with pytest.raises(error):
            vqpack.write(target, arrays(1))


def test_fails_without_a_trace(tmp_path):
    path = tmp_path / "new.qu"
    with pytest.raises(ZeroDivisionError), vqpack.Writer(path) as writer:
        writer.write(arrays(1))
        1 / 0
    with pytest.raises(ValueError, match="68 transactions instead of 67"):
        with vqpack.Writer(path, transactions=67) as writer:
            writer.write(arrays(1))
    with vqpack.Writer(path) as writer:
        writer.discard()
    with pytest.raises(ValueError, match="closed"):
        writer.write(arrays(1))
    with pytest.raises(TypeError):
        vqpack.Writer(path).write(arrays(1), address=8)
    assert os.listdir(tmp_path) == []
    with pytest.raises(OSError, match="No space left|Can't write"):
        vqpack.write("/dev/full", np.tile(arrays(0), 10_000), version=0)


def test_file_that_is_open_for_reading(tmp_path):
    path, link = tmp_path / "trace.qu.gz", tmp_path / "link.qu"
    vqpack.write(path, arrays(1))
    link.symlink_to(path)
    with vqpack.open(tmp_path / "trace.qu") as trace:
        for target in (path, link):
            with pytest.raises(ValueError, match="open for reading"):
                vqpack.write(target, arrays(1))
        with pytest.raises(ValueError, match="open for reading"), open(path, "r+b") as file:
            vqpack.write(file, arrays(1))
        assert len(trace.read_all()) == 68
    vqpack.write(path, arrays(1))


def test_forked_process_leaves_files_alone(tmp_path):
    """Neither a writer's file nor the gzip that feeds a reader is the child's."""
    vqpack.write(tmp_path / "old.qu.gz", np.tile(arrays(0), 20_000), version=0)
    with vqpack.open(tmp_path / "old.qu.gz") as trace, vqpack.Writer(tmp_path / "new.qu") as writer:
        child = os.fork()
        if child == 0:
            trace.close()
            writer.discard()
            os._exit(0)
        os.waitpid(child, 0)
        writer.write(arrays(1))
        assert len(trace.read_all()) == 1_360_000
    with vqpack.open(tmp_path / "new.qu") as trace:
        assert len(trace.read_all()) == 68
