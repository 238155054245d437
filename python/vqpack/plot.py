"""Pictures of a trace, for `python3 -m vqpack plot` and for figures of one's own.

    import matplotlib.pyplot as plt
    import vqpack.plot

    with vqpack.open("run.qu") as trace:
        summary = vqpack.plot.summarize(trace)
    figure, axes = plt.subplots()
    vqpack.plot.density(axes, summary)

A summary is gathered in one pass and takes some tens of MiB, however long the trace is; each
function draws one thing of it on axes of matplotlib.
"""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any, Optional

import numpy as np

from ._summary import LINE, Counts, Density, Summary, select

__all__ = ["Layout", "Summary", "agents", "density", "figure", "footprint", "summarize", "types"]

# Of Okabe and Ito, which nearly everybody can tell apart; the last is for all others together.
COLOURS = ["#0072B2", "#E69F00", "#009E73", "#D55E00", "#56B4E9", "#CC79A7", "#F0E442", "#BBBBBB"]

SHARES = 128  # steps of a mix over time


def summarize(
    trace: Iterable[Any],
    begin: int = 0,
    end: Optional[int] = None,
    agents: Any = None,
    types: Any = None,
    low: int = 0,
    high: int = 1 << 64,
    progress: Any = None,
) -> Summary:
    """Gathers a summary of the transactions at 0-based positions in [begin, end).

    Of them, those count that have one of the agents and one of the type codes, if any are given, and
    a byte address in [low, high). `trace` is a Reader, or any arrays in order; `progress`, if given,
    is called with the length of each.
    """
    summary = Summary()
    position = 0
    for part in trace:
        start, stop = max(begin - position, 0), len(part) if end is None else max(end - position, 0)
        chosen = part[start:stop]
        positions = np.arange(position + start, position + start + len(chosen))
        wanted = select(chosen, agents, types, low, high)
        summary.add(positions[wanted], chosen[wanted])
        position += len(part)
        if progress:
            progress(len(part))
        if end is not None and position >= end:
            break
    return summary


class Layout:
    """Where addresses are on an axis that shows the regions with traffic and cuts what is between.

    The widest gaps are cut: those of more than a hundredth of the cells, and at most
    MOST_REGIONS - 1. A region gets rows in proportion to its size, and at least what its label takes.
    """

    ROWS = 480  # in all, more or less
    LABEL_ROWS = 26  # a label's height, of a region at least; more where panels are small
    BREAK = 8  # empty rows between regions
    MOST_REGIONS = 10

    def __init__(self, density: Density, panels: int = 1) -> None:
        self.label_rows = self.LABEL_ROWS * (1 if panels <= 2 else 2)
        cells = density.cells
        gaps = np.diff(cells).astype(float)
        wide = np.flatnonzero(gaps > max(2, 0.01 * len(cells)))
        cuts = np.sort(wide[np.argsort(gaps[wide])[::-1][: self.MOST_REGIONS - 1]])
        first, last = cells[[0, *(cuts + 1)]], cells[[*cuts, len(cells) - 1]]
        size = 1 << density.shift
        self.low = [int(cell) * size for cell in first]
        self.high = [(int(cell) + 1) * size for cell in last]  # exclusive
        sizes = np.array([high - low for low, high in zip(self.low, self.high)], float)
        self.rows = np.maximum(self.label_rows, self.ROWS * sizes / sizes.sum()).astype(int)
        self.start = np.cumsum(self.rows + self.BREAK) - self.rows - self.BREAK
        self.height = int(self.start[-1] + self.rows[-1])

    def row(self, addresses: Any) -> Any:
        """The rows of byte addresses, counted upwards."""
        lows = np.array(self.low, np.uint64)
        region = np.maximum(np.searchsorted(lows, addresses, "right") - 1, 0)
        offset = (addresses - lows[region]).astype(float)
        sizes = np.array([high - low for low, high in zip(self.low, self.high)], float)
        inside = (offset * self.rows[region] / sizes[region]).astype(int)
        return self.start[region] + np.minimum(inside, self.rows[region] - 1)

    def image(self, density: Density, bins: int) -> Any:
        """The transactions in each row and bin; where a cell has several rows, in all of them."""
        image = np.zeros((self.height, bins))
        size = np.uint64(1) << np.uint64(density.shift)
        below = self.row(density.cells * size)
        above = self.row(density.cells * size + (size - np.uint64(1)))
        for low, high, counts in zip(below, above, density.counts[:, :bins]):
            image[low : high + 1] += counts
        return image

    def ticks(self) -> list[tuple[int, str]]:
        """Rows with their addresses: where each region begins, and where the last one ends."""
        digits = max(8, len(f"{self.high[-1]:X}"))
        found = []
        for low, start in zip(self.low, self.start):
            found.append((int(start), f"{low:0{digits}X}"))
        if self.rows[-1] >= 2 * self.label_rows:
            found.append((self.height, f"{self.high[-1]:0{digits}X}"))
        return found


def density(axes: Any, summary: Summary, agent: Any = None, layout: Optional[Layout] = None) -> Any:
    """Draws address against position, as transactions a point, on a logarithmic colour scale.

    Of one agent, of several (a list), or of all. `layout` makes axes that show the same regions;
    without one it is that of what is drawn. Returns the image, for a colour bar.
    """
    from matplotlib.colors import LogNorm

    keys = list(summary.density) if agent is None else agent if isinstance(agent, list) else [agent]
    drawn = Density.of_all(summary.density[key] for key in keys)
    layout = layout or Layout(drawn)
    image = layout.image(drawn, summary.bins)
    top = max((image.max(initial=1), 2))
    shown = axes.imshow(
        np.ma.masked_equal(image, 0),
        origin="lower",
        aspect="auto",
        interpolation="nearest",
        extent=(*_span(summary), 0, layout.height),
        norm=LogNorm(1, top),
        cmap=_colours(),
    )
    for start in layout.start[1:]:
        axes.axhspan(start - layout.BREAK, start, color="0.85", linewidth=0)
    axes.set_yticks(*zip(*layout.ticks()), family="monospace", size="x-small")
    axes.set_ylabel("address")
    _label_positions(axes, summary)
    return shown


def _colours() -> Any:
    """From a blue-green that shows on white to a dark blue, in even steps of lightness."""
    from matplotlib import colormaps
    from matplotlib.colors import ListedColormap

    return ListedColormap(colormaps["YlGnBu"](np.linspace(0.35, 1, 256)))


def _span(summary: Summary) -> tuple[int, int]:
    return summary.first, summary.first + summary.bins * summary.width


def _label_positions(axes: Any, summary: Summary) -> None:
    from matplotlib.ticker import EngFormatter

    axes.set_xlim(*_span(summary))
    axes.xaxis.set_major_formatter(EngFormatter(sep=""))
    axes.xaxis.get_major_locator().set_params(integer=True, nbins=6)
    axes.set_xlabel("transaction")


def types(axes: Any, summary: Summary, names: Any) -> None:
    """Draws the share of each type over time; `names` are those of the types by code."""
    rows = {names[code]: row for code, row in summary.types.by_key.items()}
    _mix(axes, summary, rows)
    axes.set_title("types", size="medium")


def agents(axes: Any, summary: Summary) -> None:
    """Draws the share of each agent over time."""
    known = sorted(summary.agents.by_key.items())
    rows = {f"agent {key:X}": row for key, row in known if key != Counts.OTHERS}
    if Counts.OTHERS in summary.agents.by_key:
        rows["others"] = summary.agents.by_key[Counts.OTHERS]
    _mix(axes, summary, rows)
    axes.set_title("agents", size="medium")


def _mix(axes: Any, summary: Summary, rows: dict[str, Any]) -> None:
    """Stacks shares: the most frequent by themselves, the others together."""
    ranked = sorted(rows, key=lambda name: (name == "others", -rows[name].sum()))
    most = len(COLOURS)
    own = ranked if len(ranked) <= most else ranked[: most - 1]
    step = -(-summary.bins // SHARES)
    steps = -(-summary.bins // step)

    def summed(names: Any) -> Any:
        total = np.zeros(steps * step)
        for name in names:
            total[: summary.bins] += rows[name][: summary.bins]
        return total.reshape(steps, step).sum(axis=1)

    stacked = {name: summed([name]) for name in own}
    if len(own) < len(ranked):
        stacked["others"] = summed(ranked[len(own) :])
    all_of_them = np.maximum(sum(stacked.values()), 1)
    low, high = _span(summary)
    edges = np.minimum(low + np.arange(steps + 1) * step * summary.width, high)
    base = np.zeros(steps)
    for (name, counts), colour in zip(stacked.items(), COLOURS):
        share = counts / all_of_them
        axes.stairs(base + share, edges, baseline=base, fill=True, color=colour, label=name)
        base = base + share
    axes.set_ylim(0, 1)
    axes.yaxis.set_major_formatter(lambda share, _: f"{100 * share:.0f} %")
    _label_positions(axes, summary)
    axes.legend(
        loc="upper left", bbox_to_anchor=(1, 1), fontsize="x-small", frameon=False, borderpad=0
    )


def footprint(axes: Any, summary: Summary) -> None:
    """Draws how many distinct lines of 64 bytes have been touched so far."""
    low, high = _span(summary)
    lines = np.cumsum(summary.footprint.new[: summary.bins])
    unit, scale = _unit(lines[-1] * LINE)
    axes.plot(np.linspace(low, high, summary.bins + 1), [0, *(lines * LINE / scale)], color=COLOURS[0])
    axes.set_ylim(0, None)
    axes.set_ylabel(unit)
    _label_positions(axes, summary)
    estimated = "" if summary.footprint.is_exact else ", estimated"
    axes.set_title(f"distinct lines of {LINE} bytes{estimated}", size="medium")


def _unit(size: int) -> tuple[str, int]:
    """The largest unit of which there is one in so many bytes, and its bytes."""
    units = ["bytes", "KiB", "MiB", "GiB", "TiB"]
    power = min(max(int(size).bit_length() - 1, 0) // 10, len(units) - 1)
    return units[power], 1 << 10 * power


def figure(summary: Summary, title: str, names: Any, caption: str = "") -> Any:
    """One page with all of it: a Figure of matplotlib, 1,200 pixels wide at 100 dots an inch."""
    from matplotlib.figure import Figure
    from matplotlib.ticker import EngFormatter, NullFormatter

    page = Figure(figsize=(12, 9.5), dpi=100, layout="constrained")
    page.suptitle(title, weight="bold")
    if not summary.size:
        page.text(0.5, 0.5, "no transactions", ha="center")
        return page
    above, below = page.subfigures(2, 1, height_ratios=(2.2, 1))
    panels = _panels(summary)
    layout = Layout(Density.of_all(summary.density.values()), len(panels))
    columns = 1 if len(panels) == 1 else 2
    grid = above.subplots(
        -(-len(panels) // columns), columns, sharex=True, sharey=True, squeeze=False
    ).flat
    for axes, (name, keys) in zip(grid, panels.items()):
        shown = density(axes, summary, keys, layout)
        axes.set_title(name, size="medium")
        axes.label_outer()
        bar = above.colorbar(shown, ax=axes, pad=0.01)
        bar.set_label("transactions", size="x-small")
        bar.ax.tick_params(labelsize="x-small")
        bar.ax.yaxis.set_major_formatter(EngFormatter(sep=""))
        bar.ax.yaxis.set_minor_formatter(NullFormatter())
    for axes in list(grid)[len(panels) :]:
        axes.remove()
    small = below.subplots(1, 2 + (len(panels) > 1))
    types(small[0], summary, names)
    footprint(small[1], summary)
    if len(small) > 2:
        agents(small[2], summary)
    if caption:
        page.supxlabel(caption, size="small", x=0.01, ha="left", family="monospace")
    return page


def _panels(summary: Summary) -> dict[str, list[int]]:
    """Which agents share a panel: up to four have one each, of more the busiest three."""
    own = {key: summary.agents.by_key[key].sum() for key in summary.density if key != Counts.OTHERS}
    ranked = sorted(own, key=lambda key: -own[key])
    everybody = len(summary.agents.by_key)
    if everybody == 1:
        return {"transactions": ranked}
    if everybody <= 4:
        return {f"agent {key:X}": [key] for key in sorted(ranked)}
    rest = [key for key in summary.density if key not in ranked[:3]]
    panels = {f"agent {key:X}": [key] for key in sorted(ranked[:3])}
    return {**panels, "all other agents": rest}
