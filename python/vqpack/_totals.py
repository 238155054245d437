"""Numbers of a trace that add up: over parts of it, over files, over machines."""

from __future__ import annotations

from typing import Any

import numpy as np

from ._distinct import Distinct, Index
from ._types import NAMES

LINE = 64  # bytes

# By type code: the bytes that a transaction of it moves, 0 where its name says no size.
SIZES = np.array(
    [next((size for size in (16, 32, 64) if name.endswith(f"{size}B")), 0) for name in NAMES]
)


class Totals:
    """Counts of transactions by type and agent, and the distinct lines of 64 bytes they touch.

    `add` takes arrays of the dtype `TRANSACTION`, `merge` other totals, in any order and grouping:
    the result is the same. Totals can be pickled, and take at most some 20 MiB and 8 bytes for each
    pair of type and agent, however long the traces are.

    counts      transactions by type code and agent, a dict
    lines       distinct lines touched: exact up to 2**21 of them, then an estimate with a standard
                error of 0.6 %
    """

    def __init__(self) -> None:
        self.counts: dict[tuple[int, int], int] = {}
        self._pairs = Index()  # type codes in the upper half, agents in the lower
        self._lines = Distinct()

    def add(self, transactions: Any) -> Totals:
        """Counts more transactions; returns itself."""
        types = transactions["type"].astype(np.uint64) << np.uint64(32)
        times = np.bincount(self._pairs.places(types | transactions["agent"].astype(np.uint32)))
        for key, number in zip(self._pairs.numbers.tolist(), times.tolist()):
            if number:
                self._count((key >> 32, key & 0xFFFFFFFF), number)
        self._lines.add(transactions["address"] // np.uint64(LINE))
        return self

    def merge(self, other: Totals) -> Totals:
        """Adds what others have counted; returns itself."""
        for key, times in other.counts.items():
            self._count(key, times)
        self._lines.merge(other._lines)
        return self

    def _count(self, key: tuple[int, int], times: int) -> None:
        self.counts[key] = self.counts.get(key, 0) + times

    @property
    def transactions(self) -> int:
        """All of them."""
        return sum(self.counts.values())

    @property
    def bytes(self) -> int:
        """Bytes moved by transactions whose type says how many, those of 16, 32 and 64."""
        return sum(
            times * int(SIZES[code]) for (code, _), times in self.counts.items() if code < len(SIZES)
        )

    @property
    def lines(self) -> int:
        return self._lines.size

    @property
    def lines_are_exact(self) -> bool:
        return self._lines.is_exact
