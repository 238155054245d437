"""Transactions, and the names of their types."""

from __future__ import annotations

from typing import TYPE_CHECKING

import numpy as np

from ._library import library

if TYPE_CHECKING:
    import numpy.typing as npt

    Transactions = npt.NDArray[np.void]

# The layout of vqpack_transaction, 24 bytes: the library fills and reads arrays in place.
TRANSACTION = np.dtype(
    [("address", "u8"), ("agent", "i4"), ("count", "u4"), ("type", "u1")], align=True
)
FIELDS = ("address", "agent", "count", "type")

NAMES: tuple[str, ...] = tuple(library.vqpack_type_name(code).decode() for code in range(68))
CODES: dict[str, int] = {name: code for code, name in enumerate(NAMES)}
