"""What a picture shows of a trace, gathered in one pass and in memory that does not grow with it."""

from __future__ import annotations

from typing import Any

import numpy as np

from ._distinct import Distinct, Index
from ._totals import LINE


def _join_pairs(counts: Any) -> None:
    """Joins pairs of bins, the last axis, in place; the upper half becomes empty."""
    half = counts.shape[-1] // 2
    counts[..., :half] = counts[..., ::2] + counts[..., 1::2]
    counts[..., half:] = 0


class Density:
    """Transactions by cells of address and bins of position, both of which double when they must.

    `counts[k, i, j]` is the number of transactions of layer k in bin j of the cell with the number
    `cells[i]`, of 2**`shift` bytes. There are at most `max_cells` cells, in no order.
    """

    def __init__(self, layers: int, max_cells: int, bins: int) -> None:
        self.shift = LINE.bit_length() - 1
        self.counts = np.zeros((layers, max_cells, bins), np.uint32)  # no memory until it is used
        self._index = Index()

    @property
    def cells(self) -> Any:
        return self._index.numbers

    def add(self, addresses: Any, layers: Any, bins: Any) -> None:
        """Counts transactions by address in bytes, layer and bin, which never decreases."""
        places = self._places(addresses)
        first, width = bins[0], bins[-1] - bins[0] + 1
        used, size = int(layers.max()) + 1, len(self.cells)
        if used * size * int(width) > 4 * len(bins):  # slower, but no room for a mostly empty grid
            np.add.at(self.counts, (layers, places, bins), np.uint32(1))
            return
        spots = (layers * size + places) * width + (bins - first)
        counts = np.bincount(spots, minlength=used * size * width).reshape(used, size, width)
        self.counts[:used, :size, first : first + width] += counts.astype(np.uint32)

    def of(self, layers: list[int]) -> tuple[Any, Any]:
        """The numbers of the cells that such layers use, in order, and their counts by bin."""
        counts = np.zeros((len(self.cells), self.counts.shape[2]), np.int64)
        for layer in layers:
            counts += self.counts[layer, : len(self.cells)]
        order = np.argsort(self.cells)
        order = order[counts[order].any(axis=1)]
        return self.cells[order], counts[order]

    def halve(self) -> None:
        for layer in self.counts:
            _join_pairs(layer[: len(self.cells)])

    def _places(self, addresses: Any) -> Any:
        cells = addresses >> np.uint64(self.shift)
        places, unknown = self._index.find(cells)
        if len(unknown):
            self._make_cells(np.unique(cells[unknown]))
            places, _ = self._index.find(addresses >> np.uint64(self.shift))
        return places

    def _make_cells(self, new: Any) -> None:
        """Makes cells of these numbers, larger ones if there would be too many."""
        wanted, doublings = np.union1d(self.cells, new), 0
        while len(wanted) > self.counts.shape[1]:
            wanted, doublings = np.unique(wanted >> np.uint64(1)), doublings + 1
        if doublings:
            self._join_cells(doublings)
        self._index.add(np.setdiff1d(wanted, self.cells, assume_unique=True))

    def _join_cells(self, doublings: int) -> None:
        order = np.argsort(self.cells)
        cells = self.cells[order] >> np.uint64(doublings)
        starts = np.flatnonzero(np.append(True, cells[1:] != cells[:-1])[: len(cells)])
        for layer in self.counts:
            if len(starts) and layer[: len(cells)].any():
                layer[: len(starts)] = np.add.reduceat(layer[order], starts, axis=0)
                layer[len(starts) : len(cells)] = 0
        self.shift += doublings
        self._index = Index(cells[starts])


class Footprint:
    """Distinct numbers, by the bin in which each came first.

    Once there are so many that they are estimated, what a call adds goes to its last bin.
    """

    def __init__(self, bins: int) -> None:
        self.new = np.zeros(bins, np.int64)
        self._distinct = Distinct()

    @property
    def is_exact(self) -> bool:
        return self._distinct.is_exact

    def add(self, numbers: Any, bins: Any) -> None:
        was_exact = self.is_exact
        first = self._distinct.add(numbers)
        if was_exact:
            self.new += np.bincount(bins[first], minlength=len(self.new))
        else:
            self.new[bins[-1]] += max(self._distinct.size - int(self.new.sum()), 0)

    def halve(self) -> None:
        _join_pairs(self.new)


class Counts:
    """Transactions by a key and bins of position. Keys beyond `most` are counted together."""

    OTHERS = -1

    def __init__(self, bins: int, most: int) -> None:
        self._most = most
        self._keys = Index()
        self._counts = np.zeros((most + 1, bins), np.int64)

    @property
    def by_key(self) -> dict[int, Any]:
        """Rows of bins in the order in which their keys came, at the end maybe one of OTHERS."""
        keys = self._keys.numbers.tolist()
        if len(keys) > self._most:
            keys[self._most :] = [self.OTHERS]
        return dict(zip(keys, self._counts))

    def add(self, keys: Any, bins: Any) -> Any:
        """Counts transactions by key and bin. Returns the numbers of the rows that it counts in."""
        rows = np.minimum(self._keys.places(keys), self._most)
        first, width = bins[0], bins[-1] - bins[0] + 1
        used = rows.max() + 1
        counts = np.bincount(rows * width + (bins - first), minlength=used * width)
        self._counts[:used, first : first + width] += counts.reshape(used, width)
        return rows

    def halve(self) -> None:
        _join_pairs(self._counts[: len(self._keys.numbers) + 1])


class Summary:
    """What is drawn of a trace: `add` takes its transactions in order, with their positions.

    Bin i of all that is counted by position holds those from `first` + i * `width` on; `bins` of
    them are used. `density` has a layer for each of the first agents of `agents.by_key`, and one for
    the others together.
    """

    BINS = 1024
    CELLS = 1024
    AGENTS = 8  # with a density of their own
    AGENT_COUNTS = 1024  # with counts of their own
    PIECE = 1 << 16  # transactions that are counted at a time, which fit into a core's own cache

    def __init__(self) -> None:
        self.first = 0
        self.width = 1
        self.bins = 0
        self.size = 0
        self.types = Counts(self.BINS, 256)
        self.agents = Counts(self.BINS, self.AGENT_COUNTS)
        self.density = Density(self.AGENTS + 1, self.CELLS, self.BINS)
        self.footprint = Footprint(self.BINS)

    def add(self, positions: Any, transactions: Any) -> None:
        """Takes transactions at such 0-based positions of their trace, in order."""
        for begin in range(0, len(positions), self.PIECE):
            piece = slice(begin, begin + self.PIECE)
            self._add(positions[piece], transactions[piece])

    def layers(self) -> dict[int, int]:
        """The layers of `density` by agent, that of all further agents under Counts.OTHERS."""
        agents = list(self.agents.by_key)
        own = {agent: layer for layer, agent in enumerate(agents[: self.AGENTS])}
        return own if len(agents) <= self.AGENTS else {**own, Counts.OTHERS: self.AGENTS}

    def _add(self, positions: Any, transactions: Any) -> None:
        if not self.size:
            self.first = int(positions[0])
        self.size += len(positions)
        while (int(positions[-1]) - self.first) // self.width >= self.BINS:
            self._halve()
        bins = (positions - self.first) // self.width
        self.bins = int(bins[-1]) + 1
        self.types.add(transactions["type"].astype(np.uint64), bins)
        agents = self.agents.add(transactions["agent"].astype(np.uint32).astype(np.uint64), bins)
        addresses = transactions["address"]
        self.density.add(addresses, np.minimum(agents, self.AGENTS), bins)
        self.footprint.add(addresses // np.uint64(LINE), bins)

    def _halve(self) -> None:
        self.width *= 2
        self.types.halve()
        self.agents.halve()
        self.density.halve()
        self.footprint.halve()


def select(transactions: Any, agents: Any, types: Any, low: int, high: int) -> Any:
    """An index of those with one of the agents and types (None: all) and an address in [low, high)."""
    if agents is None and types is None and (low, high) == (0, 1 << 64):
        return slice(None)
    addresses = transactions["address"]
    chosen = (addresses >= np.uint64(low)) & (addresses <= np.uint64(high - 1))
    if agents is not None:
        chosen &= np.isin(transactions["agent"].astype(np.uint32), agents)
    if types is not None:
        chosen &= np.isin(transactions["type"], types)
    return chosen
