"""What a picture shows of a trace, gathered in one pass and in memory that does not grow with it."""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any

import numpy as np

from ._distinct import Distinct, contains
from ._totals import LINE


def _join_pairs(counts: Any) -> None:
    """Joins pairs of bins, the last axis, in place; the upper half becomes empty."""
    half = counts.shape[-1] // 2
    counts[..., :half] = counts[..., ::2] + counts[..., 1::2]
    counts[..., half:] = 0


class Density:
    """Transactions by cells of address and bins of position, both of which double when they must.

    `cells` are the numbers of the address cells that occur, in order, each 2**`shift` bytes, and
    `counts[i, j]` is the number of transactions in cell i and bin j. There are at most `max_cells`.
    """

    def __init__(self, bins: int, max_cells: int) -> None:
        self.shift = LINE.bit_length() - 1
        self.cells = np.empty(0, np.uint64)
        self.counts = np.empty((0, bins), np.uint32)
        self._max_cells = max_cells

    def add(self, addresses: Any, bins: Any) -> None:
        """Counts transactions by address in bytes and number of the bin, which never decreases."""
        self._reserve(addresses)
        cells = addresses >> np.uint64(self.shift)
        first, width = bins[0], bins[-1] - bins[0] + 1
        spots = np.searchsorted(self.cells, cells) * width + (bins - first)
        counts = np.bincount(spots, minlength=len(self.cells) * width)
        self.counts[:, first : first + width] += counts.reshape(-1, width).astype(np.uint32)

    def halve(self) -> None:
        _join_pairs(self.counts)

    def _reserve(self, addresses: Any) -> None:
        """Makes cells for addresses, larger ones if there would be too many."""
        cells = addresses >> np.uint64(self.shift)
        unknown = cells[~contains(self.cells, cells)]
        if not len(unknown):
            return
        wanted, shift = np.union1d(self.cells, unknown), self.shift
        while len(wanted) > self._max_cells:
            wanted, shift = np.unique(wanted >> np.uint64(1)), shift + 1
        self._regroup(wanted, shift)

    def _regroup(self, cells: Any, shift: int) -> None:
        """Moves the counts to other cells, each of which holds whole ones of now."""
        counts = np.zeros((len(cells), self.counts.shape[1]), np.uint32)
        places = np.searchsorted(cells, self.cells >> np.uint64(shift - self.shift))
        if len(places):
            starts = np.flatnonzero(np.diff(places, prepend=-1))
            counts[places[starts]] = np.add.reduceat(self.counts, starts, axis=0)
        self.cells, self.counts, self.shift = cells, counts, shift

    @staticmethod
    def of_all(densities: Iterable[Density]) -> Density:
        """The sum of some, with the cells of the coarsest."""
        parts = list(densities)
        bins = parts[0].counts.shape[1] if parts else Summary.BINS
        total = Density(bins, 2**62)
        total.shift = max((part.shift for part in parts), default=total.shift)
        for part in parts:
            cells = part.cells >> np.uint64(total.shift - part.shift)
            total._regroup(np.union1d(total.cells, cells), total.shift)
            np.add.at(total.counts, np.searchsorted(total.cells, cells), part.counts)
        return total


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
        numbers, first = np.unique(numbers, return_index=True)
        if self.is_exact:
            bins = bins[first[self._distinct.unseen(numbers)]]
            self.new += np.bincount(bins, minlength=len(self.new))
            self._distinct.add(numbers)
        else:
            self._distinct.add(numbers)
            self.new[bins[-1]] += max(self._distinct.size - int(self.new.sum()), 0)

    def halve(self) -> None:
        _join_pairs(self.new)


class Counts:
    """Transactions by a key and bins of position. Keys beyond `most` are counted together."""

    OTHERS = -1

    def __init__(self, bins: int, most: int) -> None:
        self.by_key: dict[int, Any] = {}
        self._bins = bins
        self._most = most

    def add(self, keys: Any, bins: Any) -> None:
        first, width = bins[0], bins[-1] - bins[0] + 1
        present = np.flatnonzero(np.bincount(keys))
        place = np.zeros(present[-1] + 1, np.intp)
        place[present] = np.arange(len(present))
        counts = np.bincount(place[keys] * width + (bins - first), minlength=len(present) * width)
        for key, times in zip(present.tolist(), counts.reshape(-1, width)):
            if key not in self.by_key and len(self.by_key) >= self._most:
                key = self.OTHERS
            row = self.by_key.setdefault(key, np.zeros(self._bins, np.int64))
            row[first : first + width] += times

    def halve(self) -> None:
        for row in self.by_key.values():
            _join_pairs(row)


class Summary:
    """What is drawn of a trace: `add` takes its transactions in order, with their positions.

    Bin i of all that is counted by position holds those from `first` + i * `width` on; `bins` of
    them are used. `density` has one Density an agent for the agents that came first, and one for
    the others together under Counts.OTHERS.
    """

    BINS = 1024
    CELLS = 1024
    AGENTS = 8  # with a density of their own

    def __init__(self) -> None:
        self.first = 0
        self.width = 1
        self.bins = 0
        self.size = 0
        self.types = Counts(self.BINS, 256)
        self.agents = Counts(self.BINS, 64)
        self.density: dict[int, Density] = {}
        self.footprint = Footprint(self.BINS)

    def add(self, positions: Any, transactions: Any) -> None:
        """Takes transactions at such 0-based positions of their trace, in order."""
        if not len(positions):
            return
        if not self.size:
            self.first = int(positions[0])
        self.size += len(positions)
        while (int(positions[-1]) - self.first) // self.width >= self.BINS:
            self._halve()
        bins = (positions - self.first) // self.width
        self.bins = int(bins[-1]) + 1
        self.types.add(transactions["type"], bins)
        self.agents.add(transactions["agent"], bins)
        self._add_addresses(transactions, bins)

    def _add_addresses(self, transactions: Any, bins: Any) -> None:
        addresses, agents = transactions["address"], transactions["agent"]
        for agent in np.flatnonzero(np.bincount(agents)).tolist():
            chosen = agents == agent
            if agent not in self.density and len(self.density) >= self.AGENTS:
                agent = Counts.OTHERS
            density = self.density.setdefault(agent, Density(self.BINS, self.CELLS))
            density.add(addresses[chosen], bins[chosen])
        self.footprint.add(addresses // np.uint64(LINE), bins)

    def _halve(self) -> None:
        self.width *= 2
        for counts in (self.types, self.agents, self.footprint, *self.density.values()):
            counts.halve()


def select(transactions: Any, agents: Any, types: Any, low: int, high: int) -> Any:
    """Which transactions have one of the agents and types (None: all) and an address in [low, high)."""
    addresses = transactions["address"]
    chosen = (addresses >= np.uint64(low)) & (addresses <= np.uint64(high - 1))
    if agents is not None:
        chosen &= np.isin(transactions["agent"], agents)
    if types is not None:
        chosen &= np.isin(transactions["type"], types)
    return chosen
