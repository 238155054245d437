"""Transactions, and the names of their types."""

from __future__ import annotations

from typing import TYPE_CHECKING

import numpy as np

from ._library import library

if TYPE_CHECKING:
    import numpy.typing as npt

    Transactions = npt.NDArray[np.void]

# The layout of vqpack_transaction: the library fills and reads arrays in place.
FIELDS = ["address", "agent", "count", "type"]
TRANSACTION = np.dtype(
    {
        "names": FIELDS,
        "formats": ["u8", "i4", "u4", "u1"],
        "offsets": [0, 8, 12, 16],
        "itemsize": 24,
    }
)

NAMES: tuple[str, ...] = tuple(library.vqpack_type_name(code).decode() for code in range(68))
CODES: dict[str, int] = {name: code for code, name in enumerate(NAMES)}
