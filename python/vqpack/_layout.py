"""Where addresses are on an axis that cuts what is empty."""

from __future__ import annotations

from typing import Any

import numpy as np


class Layout:
    """An axis of addresses that shows the regions with traffic and cuts what is between.

    The widest gaps are cut, as long as each is more than a tenth of what is still shown. A region
    gets rows for its share of the addresses and of the transactions, and at least what its label
    takes. A row is a point of the screen.
    """

    LABEL = 14  # rows that a label takes
    BREAK = 6  # empty rows between regions
    MOST_REGIONS = 16
    WIDE = 0.1

    def __init__(self, cells: Any, counts: Any, shift: int, height: int) -> None:
        """Takes the numbers of the cells, of 2**`shift` bytes, in order, and their transactions."""
        self.height = max(height, 2 * self.LABEL)
        most = max(1, min(self.MOST_REGIONS, self.height // (2 * self.LABEL - 4)))
        begins = np.append(0, _cuts(cells, most - 1, self.WIDE) + 1)
        ends = np.append(begins[1:], len(cells)) - 1
        self._shift = shift
        self._first = cells[begins]
        self._sizes = (cells[ends] - cells[begins]).astype(float) + 1
        self.low = [int(cell) << shift for cell in cells[begins]]
        self.high = [(int(cell) + 1) << shift for cell in cells[ends]]  # exclusive
        traffic = np.add.reduceat(counts, begins).astype(float)
        share = (self._sizes / self._sizes.sum() + traffic / traffic.sum()) / 2
        rest = self.height - len(begins) * (self.LABEL + self.BREAK) + self.BREAK
        edges = np.append(0, np.cumsum(self.LABEL + self.BREAK + share * rest)).round().astype(int)
        self.start = edges[:-1]
        self.rows = np.diff(edges) - self.BREAK

    def row(self, addresses: Any) -> Any:
        """The rows of byte addresses, counted upwards."""
        region = self._region(addresses >> np.uint64(self._shift))
        offset = (addresses - (self._first[region] << np.uint64(self._shift))).astype(float)
        return self._rows_of(region, offset / 2.0**self._shift, self.rows[region] - 1)

    def image(self, cells: Any, counts: Any, thick: int = 1) -> Any:
        """The counts of cells by row and bin; where a cell has several rows, in all of them.

        `thick` rows are alike.
        """
        image = np.zeros((self.height, counts.shape[1]))
        region = self._region(cells)
        offset = (cells - self._first[region]).astype(float)
        start, rows = self.start[region], self.rows[region]
        begins = (self._rows_of(region, offset, rows - 1) - start) // thick * thick
        ends = (self._rows_of(region, offset + 1, rows) - start) // thick * thick
        ends = np.minimum(np.maximum(ends, begins + thick), rows)
        for begin, end, row in zip(start + begins, start + ends, counts):
            image[begin:end] += row
        return image

    def ticks(self) -> list[tuple[int, str]]:
        """Rows with their addresses: where each region begins, multiples of a power of two in it,
        and where the last one ends."""
        places = []
        for low, high, start, rows in zip(self.low, self.high, self.start, self.rows):
            places.append((int(start), low))
            step = 1 << ((high - low) * 3 * self.LABEL // int(rows)).bit_length()
            for address in range(-(-low // step) * step, high, step):
                row = int(start) + (address - low) * int(rows) // (high - low)
                if start + self.LABEL <= row <= start + rows - self.LABEL:
                    places.append((row, address))
        if self.rows[-1] >= 2 * self.LABEL:
            places.append((self.height, min(self.high[-1], 2**64 - 1)))
        digits = max(8, len(f"{places[-1][1]:X}"))
        return [(row, f"{address:0{digits}X}") for row, address in places]

    def _region(self, cells: Any) -> Any:
        return np.maximum(np.searchsorted(self._first, cells, "right") - 1, 0)

    def _rows_of(self, region: Any, offset: Any, most: Any) -> Any:
        inside = (offset * self.rows[region] / self._sizes[region] + 1e-9).astype(int)
        return self.start[region] + np.minimum(inside, most)


def _cuts(cells: Any, most: int, wide: float) -> Any:
    """The indices of cells that have one of the `most` widest gaps after them, in order.

    Each gap is more than the part `wide` of what is shown without those that are wider.
    """
    gaps = np.diff(cells).astype(float)
    ranked = np.argsort(-gaps, kind="stable")[:most]
    shown = float(cells[-1] - cells[0]) - np.append(0, np.cumsum(gaps[ranked]))[: len(ranked)]
    narrow = np.flatnonzero((gaps[ranked] <= wide * shown) | (gaps[ranked] <= 2))
    return np.sort(ranked[: narrow[0] if len(narrow) else most])
