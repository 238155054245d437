"""What a caller wants to write, as columns of checked numbers."""

from __future__ import annotations

import operator
import sys
from collections.abc import Iterator, Mapping
from typing import TYPE_CHECKING, Any, NamedTuple, Optional

import numpy as np

from ._metadata import integer
from ._types import CODES, FIELDS, NAMES, TRANSACTION

if TYPE_CHECKING:
    import numpy.typing as npt

    from ._types import Transactions

    Column = npt.NDArray[Any]

# Transactions that are checked or packed at a time, which fit into a core's own cache.
PIECE = 1 << 14

DEFAULTS = {"agent": 0, "count": 1}
DEFERRED_REPLIES = (CODES["DEFR_RPLY"], CODES["DEFR_REPLY"])
HIGHEST_AGENT = (255, 255, 255, 255, 65535, 65535)  # by file type

# Codes by whatever may stand for them. Numbers that are equal are equal here, too: 28.0 is 28.
_LOOKUP: dict[Any, int] = {
    **CODES,
    **{name.encode(): code for name, code in CODES.items()},
    **{code: code for code in range(len(NAMES))},
}


class Columns(NamedTuple):
    """Transactions to be written."""

    arrays: dict[str, Column]  # the four fields: integers of any width
    length: int
    packed: Optional[Transactions]  # the same as the library takes it, if it came like that


def columns(transactions: Any) -> Columns:
    """The columns of a structured array, a data frame or a mapping; not yet checked.

    Raises TypeError or ValueError for dtypes that are no integers, unknown type names, unequal
    lengths, and fields that are missing or unknown.
    """
    pandas = sys.modules.get("pandas")
    packed = None
    if isinstance(transactions, np.ndarray):
        given = transactions.dtype.names or ()
        if not given:
            raise TypeError(f"a structured array is needed, not one of {transactions.dtype}")
        flags = transactions.flags
        if transactions.dtype == TRANSACTION and flags.c_contiguous and flags.aligned:
            packed = transactions
    elif isinstance(transactions, Mapping):
        given = tuple(transactions)
    elif pandas and isinstance(transactions, pandas.DataFrame):
        given = tuple(transactions.columns)
    else:
        kind = type(transactions).__name__
        raise TypeError(f"a structured array, data frame or mapping is needed, not a {kind}")
    for name in given:
        if name not in FIELDS:
            raise ValueError(f"unknown field {name!r}")
    found = {name: transactions[name] for name in given}
    for name in ("address", "type"):
        if name not in found:
            raise ValueError(f"the field {name!r} is missing")

    arrays = {
        name: _codes(values) if name == "type" else _integers(name, values)
        for name, values in {**DEFAULTS, **found}.items()
    }
    lengths = {name: len(array) for name, array in arrays.items() if array.ndim}
    length = next(iter(lengths.values()), 1)
    if any(other != length for other in lengths.values()):
        given = ", ".join(f"{name} {number}" for name, number in lengths.items())
        raise ValueError(f"the columns differ in length: {given}")
    spread = {name: np.broadcast_to(array, length) for name, array in arrays.items()}
    return Columns(spread, length, packed)


def check(given: Columns, version: int) -> None:
    """Raises ValueError with the first transaction that a file of this type cannot hold."""
    version = integer("version", version, 0, 5)
    for begin in range(0, given.length, PIECE):
        address, agent, count, code = (given.arrays[name][begin : begin + PIECE] for name in FIELDS)
        _check_range("type", code, len(NAMES) - 1, begin)
        _check_range("agent", agent, HIGHEST_AGENT[version], begin, f" in file type {version}")
        _check_range("count", count, 2**32 - 1, begin)
        _check_range("address", address, 2**64 - 1, begin)
        if int(np.bitwise_or.reduce(address)) & 7:
            wrong = (address & 7 != 0) & ~np.isin(code, DEFERRED_REPLIES)
            if wrong.any():
                index = int(wrong.argmax())
                raise ValueError(
                    f"address 0x{int(address[index]):X} at index {begin + index} "
                    "is no multiple of 8"
                )


def pieces(given: Columns) -> Iterator[Transactions]:
    """The transactions, which have been checked, in the layout of the library."""
    piece = np.empty(min(PIECE, given.length), TRANSACTION)
    for begin in range(0, given.length, PIECE):
        if given.packed is not None:
            yield given.packed[begin : begin + PIECE]
            continue
        part = piece[: given.length - begin]
        for name, column in given.arrays.items():
            part[name] = column[begin : begin + PIECE]
        yield part


def _check_range(name: str, column: Column, high: int, begin: int, where: str = "") -> None:
    """Signed numbers are taken as unsigned ones, of which negative ones are the largest."""
    kind = column.dtype.kind
    if kind == "u" and np.iinfo(column.dtype).max <= high:
        return
    unsigned = column.view(column.dtype.str.replace("i", "u"))
    if kind == "i":
        high = min(high, np.iinfo(column.dtype).max)
    if int(unsigned.max()) > high:
        index = int((unsigned > high).argmax())
        raise ValueError(
            f"{name} {column[index]} at index {begin + index} is not within 0 to {high}{where}"
        )


def _integers(name: str, values: Any) -> Column:
    """As an array of integers; TypeError for what would have to be rounded."""
    array = _array(name, values)
    if array.dtype.kind in "iu":
        return array
    if array.dtype.kind != "O" and isinstance(values, np.ndarray):
        raise TypeError(f"{name}: the dtype is {array.dtype}; integers are needed")
    # Mixed and large numbers in lists would have become floats.
    numbers = np.asarray(values, object)
    for index, value in enumerate(numbers.flat):
        if isinstance(value, (bool, np.bool_)) or not hasattr(value, "__index__"):
            raise TypeError(f"{name}: {value!r} at index {index} is no integer")
        if not 0 <= operator.index(value) < 2**64:
            raise ValueError(f"{name}: {value!r} at index {index} is not within 64 bits")
    return numbers.astype(np.uint64)


def _codes(values: Any) -> Column:
    """Type codes of codes, names or a categorical."""
    categorical = getattr(values, "array", values)
    if hasattr(categorical, "categories") and hasattr(categorical, "codes"):
        table = np.array([_LOOKUP.get(name, -1) for name in categorical.categories] + [-1])
        array = table[categorical.codes]  # a missing value has the code -1
        if len(array) and array.min() < 0:
            index = int(array.argmin())
            raise ValueError(f"type: {categorical[index]!r} at index {index} is no type")
        return np.asarray(array)
    array = _array("type", values)
    if array.dtype.kind not in "USO":
        return _integers("type", values)
    codes = np.empty(array.size, np.uint8)
    for begin in range(0, array.size, PIECE):  # lists of more strings would fill the memory
        names = array.ravel()[begin : begin + PIECE].tolist()
        try:
            codes[begin : begin + PIECE] = [_LOOKUP[name] for name in names]
        except KeyError as error:
            index = begin + names.index(error.args[0])
            raise ValueError(f"type: {error.args[0]!r} at index {index} is no type") from None
    return codes.reshape(array.shape)


def _array(name: str, values: Any) -> Column:
    if isinstance(values, np.ma.MaskedArray):
        raise TypeError(f"{name}: masked arrays are not taken")
    array = np.asarray(values)
    if array.ndim > 1:
        raise ValueError(f"{name} has {array.ndim} dimensions")
    return array
