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

from ._layout import Layout
from ._summary import Counts, Summary, select
from ._totals import LINE

# fmt: off
__all__ = [
    "Layout", "Summary", "agents", "arrange", "density", "figure", "footprint", "summarize", "types",
]
# fmt: on

FEW = 1000  # transactions, which can be seen when they are more than points

# Of Okabe and Ito, which nearly everybody can tell apart; the last is for all others together.
COLOURS = ["#0072B2", "#E69F00", "#009E73", "#D55E00", "#56B4E9", "#CC79A7", "#F0E442", "#BBBBBB"]

SHARES = 128  # steps of a mix over time, at most
SHARE = 16  # transactions of which a share says something


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


def density(axes: Any, summary: Summary, agent: Any = None, layout: Optional[Layout] = None) -> Any:
    """Draws address against position, as transactions a point, on a logarithmic colour scale.

    Of one agent, of several (a list), or of all. `layout`, which `arrange` returns, makes axes that
    show the same regions; without one it is that of what is drawn. Returns the image, for a colour
    bar.
    """
    from matplotlib.colors import LogNorm

    cells, counts = summary.density.of(_layers(summary, agent))
    layout = layout or arrange(axes, summary, agent)
    step = -(-summary.bins // max(int(axes.get_window_extent().width), 1))
    thick = 1 if summary.size > FEW else 3
    image = layout.image(cells, _grouped(counts, summary.bins, step), thick)
    low, _ = _span(summary)
    shown = axes.imshow(
        np.where(image, image, np.nan),
        origin="lower",
        aspect="auto",
        interpolation="none",
        extent=(low, low + image.shape[1] * step * summary.width, 0, layout.height),
        norm=LogNorm(1, max(image.max(initial=1), 2)),
        cmap=_colours(),
    )
    for start in layout.start[1:]:
        axes.axhspan(start - layout.BREAK, start, color="0.85", linewidth=0)
    axes.set_ylim(-3, layout.height + 3)  # clear of the frame
    axes.set_yticks(*zip(*layout.ticks()), family="monospace", size="x-small")
    axes.set_ylabel("address")
    _label_positions(axes, summary)
    return shown


def arrange(axes: Any, summary: Summary, agent: Any = None) -> Layout:
    """How such axes show the addresses of one agent, of several, or of all."""
    cells, counts = summary.density.of(_layers(summary, agent))
    height = int(axes.get_window_extent().height)
    return Layout(cells, counts.sum(axis=1), summary.density.shift, height)


def _layers(summary: Summary, agent: Any) -> list[int]:
    layers = summary.layers()
    agents = list(layers) if agent is None else agent if isinstance(agent, list) else [agent]
    return [layers[key] for key in agents]


def _grouped(counts: Any, bins: int, step: int) -> Any:
    """Sums of `step` bins each, the last maybe of fewer."""
    steps = -(-bins // step)
    counts = counts[..., :bins]
    padding = np.zeros((*counts.shape[:-1], steps * step - bins), counts.dtype)
    return np.append(counts, padding, axis=-1).reshape(*counts.shape[:-1], steps, step).sum(axis=-1)


def _colours() -> Any:
    """From a blue-green that shows on white to a dark blue, in even steps of lightness."""
    from matplotlib import colormaps
    from matplotlib.colors import ListedColormap

    return ListedColormap(colormaps["YlGnBu"](np.linspace(0.45, 1, 256)))


def _span(summary: Summary) -> tuple[int, int]:
    return summary.first, summary.first + summary.bins * summary.width


def _label_positions(axes: Any, summary: Summary) -> None:
    """Labels an axis of positions. What long ones have in common is in the name of the axis."""
    from matplotlib.ticker import EngFormatter

    low, high = _span(summary)
    unit = 10 ** len(str(high - low))
    base = low // unit * unit if high > 100 * (high - low) else 0
    engineering = EngFormatter(sep="")
    axes.set_xlim(low, high)
    axes.xaxis.set_major_formatter(lambda position, _: engineering(position - base))
    axes.xaxis.get_major_locator().set_params(integer=True, nbins=6)
    axes.set_xlabel(f"transaction \N{MINUS SIGN} {base:,}" if base else "transaction")


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
    own = ranked if len(ranked) <= len(COLOURS) else ranked[: len(COLOURS) - 1]
    steps = min(SHARES, max(1, summary.size // SHARE))
    step = -(-summary.bins // steps)
    stacked = {name: _grouped(rows[name], summary.bins, step) for name in own}
    if len(own) < len(ranked):
        others = sum(rows[name] for name in ranked[len(own) :])
        stacked["others"] = _grouped(others, summary.bins, step)
    all_of_them = np.maximum(sum(stacked.values()), 1)
    low, high = _span(summary)
    edges = np.minimum(low + np.arange(len(all_of_them) + 1) * step * summary.width, high)
    base = np.zeros(len(all_of_them))
    for (name, counts), colour in zip(stacked.items(), COLOURS):
        share = counts / all_of_them
        name = name.replace("$", r"\$")
        axes.stairs(base + share, edges, baseline=base, fill=True, color=colour, label=name)
        base = base + share
    axes.set_ylim(0, 1)
    axes.yaxis.set_major_formatter(lambda share, _: f"{100 * share:.0f} %")
    _label_positions(axes, summary)
    handles, labels = axes.get_legend_handles_labels()
    place = {"loc": "upper left", "bbox_to_anchor": (1, 1), "borderpad": 0}
    axes.legend(handles[::-1], labels[::-1], fontsize="x-small", frameon=False, **place)


def footprint(axes: Any, summary: Summary) -> None:
    """Draws how many distinct lines of 64 bytes have been touched so far."""
    low, high = _span(summary)
    lines = np.cumsum(summary.footprint.new[: summary.bins])
    unit, scale = _unit(lines[-1] * LINE)
    positions = np.linspace(low, high, summary.bins + 1)
    axes.plot(positions, [0, *(lines * LINE / scale)], color=COLOURS[0])
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

    page = Figure(figsize=(12, 9.5), dpi=100, layout="constrained")
    page.suptitle(_shortened(title), weight="bold", parse_math=False)
    if caption:
        place = {"x": 0.01, "ha": "left", "size": "small", "family": "monospace"}
        page.supxlabel(caption, parse_math=False, **place)
    if not summary.size:
        page.text(0.5, 0.5, "no transactions", ha="center")
        return page
    above, below = page.subfigures(2, 1, height_ratios=(2.2, 1))
    panels = _panels(summary)
    _densities(above, summary, panels)
    small = below.subplots(1, 2 + (len(panels) > 1))
    types(small[0], summary, names)
    footprint(small[1], summary)
    if len(small) > 2:
        agents(small[2], summary)
    return page


def _shortened(title: str) -> str:
    """What fits into a line of a page."""
    printable = "".join(letter if letter.isprintable() else "?" for letter in title)
    return printable if len(printable) <= 90 else f"{printable[:30]} ... {printable[-55:]}"


def _densities(part: Any, summary: Summary, panels: dict[str, list[int]]) -> None:
    """Draws a panel each, all with the same regions and colours."""
    from matplotlib.ticker import EngFormatter, LogLocator

    columns = 1 if len(panels) == 1 else 2
    rows = -(-len(panels) // columns)
    grid = list(part.subplots(rows, columns, sharex=True, sharey=True, squeeze=False).flat)
    for unused in grid[len(panels) :]:
        unused.remove()
    grid = grid[: len(panels)]
    layout = arrange(grid[0], summary)
    images = []
    for axes, (name, keys) in zip(grid, panels.items()):
        images.append(density(axes, summary, keys, layout))
        axes.set_title(name, size="medium")
        axes.label_outer()
    for axes in grid[-columns:]:
        axes.tick_params(labelbottom=True)
        axes.set_xlabel(grid[-1].get_xlabel())
    fullest = max(images, key=lambda image: float(image.norm.vmax))
    for image in images:
        image.set_norm(fullest.norm)
    form = {"ticks": LogLocator(subs=(1, 2, 5)), "format": EngFormatter(sep="")}
    bar = part.colorbar(images[0], ax=grid, pad=0.01, aspect=30, **form)
    bar.minorticks_off()
    bar.set_label("transactions a point", size="x-small")
    bar.ax.tick_params(labelsize="x-small")


def _panels(summary: Summary) -> dict[str, list[int]]:
    """Which agents share a panel: up to four have one each, of more the busiest three."""
    layers = list(summary.layers())
    by_key = summary.agents.by_key
    own = {key: int(by_key[key].sum()) for key in layers if key != Counts.OTHERS}
    most = 4 if len(layers) <= 4 else 3
    ranked = sorted(own, key=lambda key: -own[key])
    panels = {f"agent {key:X}": [key] for key in sorted(ranked[:most])}
    rest = [key for key in layers if key not in ranked[:most]]
    return {**panels, "all other agents": rest} if rest else panels
