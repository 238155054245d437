"""What a picture shows, against plain counts."""

import io
import os
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
    monkeypatch.setattr(_summary.Summary, "AGENT_COUNTS", 150)
    monkeypatch.setattr(_summary.Summary, "PIECE", 500)
    return TRACES[request.param]


def test_summary_equals_plain_counts(trace):
    summary = plot.summarize(batches(trace))
    of_bin = [index // summary.width for index in range(len(trace))]
    assert summary.size == len(trace) and summary.bins == of_bin[-1] + 1 <= 32

    def by_key(counts):
        return {(key, i): row[i] for key, row in counts.by_key.items() for i in np.flatnonzero(row)}

    assert by_key(summary.types) == Counter(zip(trace["type"].tolist(), of_bin))
    agents = trace["agent"].tolist()
    own = set(summary.agents.by_key) - {plot.Counts.OTHERS}
    key_of = [agent if agent in own else plot.Counts.OTHERS for agent in agents]
    assert by_key(summary.agents) == Counter(zip(key_of, of_bin)) and len(own) <= 150

    of_cell = trace["address"] >> np.uint64(summary.density.shift)
    layers = summary.layers()
    assert len(layers) == min(len(set(agents)), 9)
    for agent, layer in layers.items():
        mine = trace["agent"] == agent
        if agent == plot.Counts.OTHERS:
            mine = ~np.isin(trace["agent"], list(layers))
        wanted = Counter(zip(of_cell[mine].tolist(), np.array(of_bin)[mine].tolist()))
        cells, counts = summary.density.of([layer])
        rows, columns = np.nonzero(counts)
        found = zip(cells[rows].tolist(), columns.tolist())
        assert dict(zip(found, counts[rows, columns].tolist())) == wanted
    assert len(summary.density.cells) <= 64

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
    density = plot.summarize(batches(trace)).density
    cells, counts = density.of(list(range(9)))
    assert counts.sum() == len(trace)
    layout = plot.Layout(cells, counts.sum(axis=1), density.shift, 300)
    rows = layout.row(np.sort(trace["address"]))
    assert (np.diff(rows) >= 0).all() and rows[-1] < layout.height == 300
    image = layout.image(cells, counts)
    drawn = image.any(axis=1)  # a cell may end within a row of the next one
    assert (drawn[rows] | drawn[np.maximum(rows - 1, 0)]).all() and drawn[0] and drawn[-1]
    assert (image.max(axis=0) > 0).tolist() == (counts.sum(axis=0) > 0).tolist()
    assert all(b - a >= layout.LABEL for (a, _), (b, _) in zip(layout.ticks(), layout.ticks()[1:]))
    for row, address in layout.ticks()[:-1]:
        assert abs(int(layout.row(np.array([int(address, 16)], np.uint64))[0]) - row) <= 1
    # Gaps between addresses at random are nothing to cut.
    assert len(layout.low) == (3 if trace is TRACES["islands"] else 1)
    if trace is TRACES["islands"]:
        assert layout.low[-1] <= 0x7FFF00000000 < layout.high[-1] <= 0x7FFF00200000


def test_pages(trace):
    summary = plot.summarize(batches(trace))
    page = plot.figure(summary, r"no $\formula$", vqpack.NAMES, r"$\neither$")
    page.savefig(io.BytesIO(), format="png")
    panels = [axes for axes in page.subfigs[0].axes if axes.get_ylabel() != "transactions a point"]
    assert len(panels) == min(len(summary.agents.by_key), 4)
    images = [axes.images[0] for axes in panels]
    assert len({(image.norm.vmin, image.norm.vmax) for image in images}) == 1
    for axes, image in zip(panels, images):  # the screen has a point for each
        rows, columns = image.get_array().shape
        extent = axes.get_window_extent()
        assert rows <= extent.height and columns <= extent.width


def test_narrow_axes_lose_nothing():
    from matplotlib.figure import Figure

    axes = Figure(figsize=(1, 4)).subplots()
    image = plot.density(axes, plot.summarize([np.resize(TRACES["one address"], 1000)]))
    assert image.get_array().shape[1] <= 100
    assert (image.get_array().sum(axis=1) == 1000).all()


def test_command(tmp_path):
    trace = TRACES["islands"]
    vqpack.write(tmp_path / "run.qu", trace, version=4, comment="two\nlines")
    for name in ("page.png", "page.svg", "page.pdf"):
        command = [sys.executable, "-m", "vqpack", "plot", tmp_path / "run.qu"]
        subprocess.run([*command, "-o", tmp_path / name, "--agent", "0,2"], check=True)
        assert (tmp_path / name).stat().st_size > 5000


def test_progress_where_the_length_is_unknown(tmp_path):
    """Text on a terminal."""
    pytest.importorskip("tqdm")
    (tmp_path / "run.velk").write_text("MEMRD 8 0\n" * 100)
    terminal, other_end = os.openpty()
    command = [sys.executable, "-m", "vqpack", "plot", "run.velk", "-o", "page.png"]
    subprocess.run(command, cwd=tmp_path, stderr=other_end, check=True)
    assert b"transactions" in os.read(terminal, 1000)


@pytest.mark.parametrize(
    "arguments, status, message",
    [
        (["none.qu", "-o", "a.png"], 1, "No such file"),
        (["bad.qu", "-o", "a.png"], 1, "Bad input line, at record 2"),
        (["good.qu", "-o", "a.png", "--type", "FOO"], 1, "no such type: FOO"),
        (["good.qu", "-o", "a.png", "--address", "9-8"], 2, "--address"),
        (["good.qu", "-o", "a.png", "--from", "-1"], 2, "no decimal number"),
        (["none.qu", "-o", "a.nothing"], 1, "not supported"),
        (["none.qu", "-o", "nowhere/a.png"], 1, "nowhere"),
    ],
)
def test_bad_commands(arguments, status, message, tmp_path):
    (tmp_path / "good.qu").write_text("MEMRD 8 0\n")
    (tmp_path / "bad.qu").write_text("MEMRD 8 0\nMEMRD\n")
    command = [sys.executable, "-m", "vqpack", "plot", *arguments]
    run = subprocess.run(command, cwd=tmp_path, stderr=subprocess.PIPE, text=True)
    assert (run.returncode, (tmp_path / "a.png").exists()) == (status, False)
    assert message in run.stderr and "Traceback" not in run.stderr
