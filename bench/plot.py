#!/usr/bin/python3
"""Draws what script/bench printed: size against speed both ways, a panel for each of five traces.

    script/bench | tee bench.md
    bench/plot.py bench.md >bench/comparison.svg
"""
import fileinput
import io
import os
import subprocess
import sys

# Debian's matplotlib belongs to Debian's Python, which need not be the first one in the path.
here = os.path.dirname(os.path.abspath(__file__))
subprocess.run([f"{here}/../script/setup", "python3-matplotlib"], check=True, stdout=sys.stderr)
from matplotlib import pyplot, rcParams

TITLES = {
    "interleaved": "Eight agents, mostly in order",
    "regions": "4,000 regions, unevenly used",
    "a compressor": "xz, cache misses",
    "a hash table in Perl": "A hash table in Perl, cache misses",
    "uniform": "16,000 random places: worst case",
}
COLOURS = {
    "vqpack": "#d4380d",
    "vqpack + zstd -3": "#e8590c",
    "vqpack + bzip2": "#b8002e",
    "gzip -6": "#3a7d34",
    "bzip2": "#8a6d1b",
    "xz -6": "#7a4aa0",
    "zstd -1": "#1d5fa8",
    "zstd -3": "#2f86d6",
}
SPEEDS = 0.02, 70    # from and to, million transactions a second
SIZES = -0.3, 6.8    # bytes a transaction
LABEL_HEIGHT = 0.55  # in these


def read(lines):
    """Returns {kind of trace: {program: (bytes a transaction, M/s packed, M/s unpacked)}}."""
    traces = {}
    for line in lines:
        cells = [cell.strip() for cell in line.strip("| \n").split("|")]
        if len(cells) == 1 and cells[0]:
            rows = traces[cells[0].split(",")[0]] = {}
        elif cells[0] in COLOURS:
            rows[cells[0]] = float(cells[2]), float(cells[4]), float(cells[6])
    return traces


def draw(axes, size, packs, unpacks, colour, scale=1):
    style = {"color": colour, "clip_on": False, "zorder": 2 + scale}
    axes.plot([packs, unpacks], [size, size], linewidth=1.5 * scale, **style)
    axes.plot(unpacks, size, "o", markersize=6 * scale, markerfacecolor="white", **style)
    axes.plot(packs, size, "o", markersize=4 * scale, **style)


def label_heights(sizes):
    """Returns where labels for these sizes, in ascending order, do not overlap: upwards from the
    lowest, then down again from the top of the panel."""
    heights = []
    for size in sizes:
        heights.append(max([size] + [height + LABEL_HEIGHT for height in heights[-1:]]))
    limit = SIZES[1] - LABEL_HEIGHT / 2
    for i in reversed(range(len(heights))):
        heights[i] = min(heights[i], limit)
        limit = heights[i] - LABEL_HEIGHT
    return heights


def panel(axes, title, rows):
    axes.set_title(title, loc="left", fontsize=10, weight="bold")
    axes.set(xscale="log", xlim=SPEEDS, ylim=SIZES)
    axes.set_xticks([0.1, 1, 10], ["0.1", "1", "10"])
    axes.set_yticks([0, 2, 4, 6])
    axes.minorticks_off()
    by_size = sorted(rows.items(), key=lambda item: item[1])
    heights = label_heights([size for name, (size, packs, unpacks) in by_size])
    for (name, (size, packs, unpacks)), label_at in zip(by_size, heights):
        ours = name == "vqpack"
        draw(axes, size, packs, unpacks, COLOURS[name], 1.4 if ours else 1)
        axes.annotate(name, (max(packs, unpacks), size), (SPEEDS[1] * 1.1, label_at),
                      color=COLOURS[name], weight="bold" if ours else "normal", va="center",
                      arrowprops={"arrowstyle": "-", "color": COLOURS[name], "linewidth": 0.5,
                                  "shrinkA": 0, "shrinkB": 4, "relpos": (0, 0.5)})


def key(axes):
    axes.set_xlim(0, 10)
    axes.axis("off")
    axes.text(0, 6, "How to read a line", weight="bold")
    draw(axes, 5, 1, 6, "#444444", 1.4)
    axes.text(1, 4.1, "packing", ha="center")
    axes.text(6, 4.1, "unpacking", ha="center")
    axes.text(0, 2.7, "Further right is faster,")
    axes.text(0, 2.1, "further down is smaller.")
    axes.annotate("best", (8.6, 0.2), (6.2, 1.1), ha="right", va="center",
                  arrowprops={"arrowstyle": "->"})


def main():
    traces = read(fileinput.input())
    rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "vqpack", "font.size": 9.5,
                     "font.sans-serif": ["DejaVu Sans"], "axes.grid": True, "grid.color": "#dddddd",
                     "axes.axisbelow": True, "axes.spines.top": False, "axes.spines.right": False,
                     "xtick.bottom": False, "ytick.left": False,
                     "figure.constrained_layout.h_pad": 0.1, "figure.constrained_layout.w_pad": 0.1})
    figure, grid = pyplot.subplots(2, 3, figsize=(9.6, 5.4), sharey=True, layout="constrained")
    for axes, (kind, title) in zip(grid.flat, TITLES.items()):
        panel(axes, title, traces[kind])
    key(grid.flat[-1])
    figure.supxlabel("million transactions a second of one thread (logarithmic)", fontsize=10)
    figure.supylabel("bytes a transaction", fontsize=10)
    # Nothing that differs from run to run, so that the picture changes with the numbers alone.
    picture = io.StringIO()
    figure.savefig(picture, format="svg", metadata={"Date": None, "Creator": None})
    print("\n".join(line.rstrip() for line in picture.getvalue().splitlines()))


main()
