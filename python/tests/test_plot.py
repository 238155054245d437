"""What a picture shows, against plain counts."""

import io
import random
import subprocess
import sys
from collections import Counter

import numpy as np
import pytest

import vqpack
from vqpack import _summary

pytest.importorskip("matplotlib")

from vqpack import plot  # noqa: E402


def make_trace(length, agents, islands):
    choose = random.Random(length)
    trace = np.zeros(length, vqpack.TRANSACTION)
    for t in trace:
        low, size = choose.choice(islands)
        t["address"] = low + choose.randrange(size) // 8 * 8
        t["agent"] = choose.randrange(agents)
        t["type"] = choose.choice([0, 28, 28, 67])
    return trace


TRACES = {
    "one address": make_trace(10, 1, [(0x1000, 8)]),
    "few": make_trace(100, 3, [(0x1000, 4096)]),
    "islands": make_trace(5000, 4, [(0x400000, 1 << 16), (0x7FFF00000000, 1 << 20), (0, 64)]),
    "all over": make_trace(5000, 200, [(0, 1 << 64)]),
}


def batches(trace):
    return np.split(trace, range(7, len(trace), 999))


@pytest.fixture(params=TRACES)
def trace(request, monkeypatch):
    """A trace, and a summary that has to make its bins and cells larger."""
    monkeypatch.setattr(_summary.Summary, "BINS", 32)
    monkeypatch.setattr(_summary.Summary, "CELLS", 64)
    return TRACES[request.param]


def test_summary_equals_plain_counts(trace):
    summary = plot.summarize(batches(trace))
    of_bin = [index // summary.width for index in range(len(trace))]
    assert summary.size == len(trace) and summary.bins == of_bin[-1] + 1 <= 32

    def by_key(counts):
        return {
            (key, i): row[i] for key, row in counts.by_key.items() for i in np.flatnonzero(row)
        }

    assert by_key(summary.types) == Counter(zip(trace["type"].tolist(), of_bin))
    plain = Counter(zip(trace["agent"].tolist(), of_bin))
    held = {key: number for key, number in plain.items() if key[0] in summary.agents.by_key}
    known = {key: n for key, n in by_key(summary.agents).items() if key[0] != plot.Counts.OTHERS}
    assert known == held
    assert sum(by_key(summary.agents).values()) == len(trace)

    for agent, density in summary.density.items():
        mine = trace["agent"] == agent
        if agent == plot.Counts.OTHERS:
            mine = ~np.isin(trace["agent"], list(summary.density))
        cells = (trace["address"][mine] >> np.uint64(density.shift)).tolist()
        wanted = Counter(zip(cells, np.array(of_bin)[mine].tolist()))
        rows, columns = np.nonzero(density.counts)
        found = zip(density.cells[rows].tolist(), columns.tolist())
        assert dict(zip(found, density.counts[rows, columns].tolist())) == wanted
        assert len(density.cells) <= 64

    seen, new = set(), np.zeros(32, int)
    for address, i in zip(trace["address"].tolist(), of_bin):
        new[i] += address // 64 not in seen
        seen.add(address // 64)
    assert summary.footprint.new.tolist() == new.tolist()


def test_selection():
    trace = TRACES["islands"]
    chosen = plot.summarize(
        batches(trace), 100, 4000, agents=[1, 3], types=[28], low=0x400000, high=0x408000
    )
    part = trace[100:4000]
    wanted = (
        np.isin(part["agent"], [1, 3])
        & (part["type"] == 28)
        & (part["address"] >= 0x400000)
        & (part["address"] < 0x408000)
    )
    assert chosen.size == wanted.sum() > 0
    assert chosen.first == 100 + np.flatnonzero(wanted)[0]


def test_layout_keeps_order_and_cuts_gaps(trace):
    summary = plot.summarize(batches(trace))
    density = _summary.Density.of_all(summary.density.values())
    assert density.counts.sum() == len(trace)
    layout = plot.Layout(density)
    addresses = np.sort(trace["address"])
    rows = layout.row(addresses)
    assert (np.diff(rows) >= 0).all() and 0 <= rows[0] and rows[-1] < layout.height
    image = layout.image(density, summary.bins)
    assert (image.sum(axis=1)[rows] > 0).all()
    assert (image.max(axis=0) > 0).tolist() == (density.counts.sum(axis=0) > 0)[
        : summary.bins
    ].tolist()
    if trace is TRACES["islands"]:
        assert len(layout.low) == 3
        assert layout.low[-1] <= 0x7FFF00000000 < layout.high[-1] <= 0x7FFF00200000


def test_pages(trace):
    page = plot.figure(plot.summarize(batches(trace)), "title", vqpack.NAMES)
    page.savefig(io.BytesIO(), format="png")
    drawn = [axes for part in page.subfigs for axes in part.axes if axes.get_ylabel() == "address"]
    agents = len(np.unique(trace["agent"]))
    panels = [part for part in page.subfigs[0].axes if part.images and part.get_title()]
    assert drawn and len(panels) == min(agents, 4)


def test_command(tmp_path):
    trace = TRACES["islands"]
    vqpack.write(tmp_path / "run.qu", trace, version=4, comment="two\nlines")
    for name in ("page.png", "page.svg", "page.pdf"):
        command = [sys.executable, "-m", "vqpack", "plot", tmp_path / "run.qu"]
        subprocess.run([*command, "-o", tmp_path / name, "--agent", "0,2"], check=True)
        assert (tmp_path / name).stat().st_size > 5000


@pytest.mark.parametrize(
    "arguments, status, message",
    [
        (["none.qu", "-o", "a.png"], 1, "No such file"),
        (["bad.qu", "-o", "a.png"], 1, "Bad input line, at record 2"),
        (["good.qu", "-o", "a.png", "--type", "FOO"], 1, "no such type: FOO"),
        (["good.qu", "-o", "a.png", "--address", "9-8"], 2, "--address"),
        (["good.qu", "-o", "a.nothing"], 1, "not supported"),
    ],
)
def test_bad_commands(arguments, status, message, tmp_path):
    (tmp_path / "good.qu").write_text("MEMRD 8 0\n")
    (tmp_path / "bad.qu").write_text("MEMRD 8 0\nMEMRD\n")
    command = [sys.executable, "-m", "vqpack", "plot", *arguments]
    run = subprocess.run(command, cwd=tmp_path, stderr=subprocess.PIPE, text=True)
    assert (run.returncode, (tmp_path / "a.png").exists()) == (status, False)
    assert message in run.stderr and "Traceback" not in run.stderr
