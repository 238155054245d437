"""Traces to arrays."""

from __future__ import annotations

import os
from collections.abc import Iterator
from typing import TYPE_CHECKING, Any, Optional

import numpy as np

from ._errors import Error
from ._handle import Handle, descriptor, encoded, file_name, identity, open_files
from ._library import library
from ._metadata import Metadata, decoded, from_fields, integer
from ._types import FIELDS, TRANSACTION

if TYPE_CHECKING:
    import pandas

    from ._types import Transactions

# Transactions an array, unless the caller says otherwise.
BATCH = 65536

# At most so many a call of the library: Ctrl-C and other threads wait for milliseconds.
PIECE = 1 << 18

# A damaged file can claim any number of transactions: room for this many is reserved at most, which
# takes no memory until it is filled.
RESERVED = 1 << 26

# It can hold runs of billions in a few bytes, too: read_all() gives up where it meets this many and
# twice the number that the file claims.
TRUSTED = 1 << 24

MEMORY = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")  # of the machine, in bytes


class Reader(Handle, Iterator["Transactions"]):
    """A trace that is read once, from its start to its end; `vqpack.open` returns it.

    It is an iterator over structured arrays of the dtype `TRANSACTION`, each a new one of `batch`
    transactions, the last maybe shorter. `read`, `read_all` and `to_pandas` give what has not been
    read yet. Close it, or use it in a `with` statement.
    """

    def __init__(self, source: Any, batch: int = BATCH) -> None:
        self._batch = integer("batch", batch, 1, 2**48)
        opened: Optional[tuple[int, int]]
        self._path: Optional[bytes] = None
        if isinstance(source, (str, bytes, os.PathLike)):
            self._path = path = encoded(source)
            pointer = library.vqpack_open(path)
            candidates = (identity(path + suffix) for suffix in (b"", b".gz", b".bz2"))
            opened = next(filter(None, candidates), None)
        else:
            number = descriptor(source)
            pointer = library.vqpack_open_descriptor(number)
            opened = identity(number)
        super().__init__(
            pointer, file_name(source), library.vqpack_reader_error, library.vqpack_reader_close
        )
        if opened:
            open_files[pointer] = opened
        fields = library.vqpack_reader_metadata(pointer).contents
        self._metadata = from_fields(fields)
        self._names = tuple(decoded(fields.type_names[i]) for i in range(fields.type_name_count))
        self._delivered = 0

    @property
    def metadata(self) -> Metadata:
        """What the file says of its trace; also once it is closed."""
        return self._metadata

    @property
    def names(self) -> tuple[str, ...]:
        """The names of the types by code: `vqpack.NAMES` or, in rare files, their own."""
        return self._names

    def __reduce__(self) -> tuple[Any, ...]:
        """Pickled, it is a reader of the same path from the start."""
        if self._path is None:
            raise TypeError("a reader of a descriptor cannot be pickled")
        return Reader, (os.path.abspath(self._path), self._batch)

    def __enter__(self) -> Reader:
        self._opened()
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Closes the trace. Closing it again does nothing."""
        self._free()

    def __next__(self) -> Transactions:
        transactions = self.read(self._batch)
        if not len(transactions):
            raise StopIteration
        return transactions

    def read(self, n: int) -> Transactions:
        """The next n transactions; fewer where the trace ends or has a fault, none at its end.

        A fault raises Error once all transactions before it have been delivered.
        """
        n = integer("n", n, 0, 2**63 - 1)
        transactions = self._gather(n)
        if n and not len(transactions):
            self._raise_fault(transactions)
        return transactions

    def read_all(self) -> Transactions:
        """All further transactions, 24 bytes each; MemoryError if the machine has not so many.

        A fault raises Error, whose `transactions` are those before it.
        """
        transactions = self._gather(self._most())
        self._raise_fault(transactions)
        return transactions

    def to_pandas(self) -> pandas.DataFrame:
        """All further transactions as a data frame, 17 bytes each.

        Its columns are address (uint64), agent (int32), count (uint32) and type, a categorical
        whose categories are `names`, in the order of their codes. A fault raises Error, whose
        `transactions` are a data frame of those before it. Needs pandas.
        """
        try:
            import pandas
        except ImportError as error:
            raise ImportError("to_pandas() needs pandas: install python3-pandas") from error
        piece = np.empty(BATCH, TRANSACTION)
        rest = self._rest()
        columns = {name: np.empty(_longer(0, rest), TRANSACTION[name]) for name in FIELDS}
        length = 0
        while length < self._most() and (got := self._fill(piece)):
            for name, column in columns.items():
                if length + got > len(column):
                    column.resize(_longer(len(column), rest), refcheck=False)
                column[length : length + got] = piece[name][:got]
            length += got
        for column in columns.values():
            column.resize(length, refcheck=False)
        categories = list(dict.fromkeys(self._names))
        codes = columns["type"]
        if len(categories) < len(self._names):  # a file's own names may repeat
            codes = np.array([categories.index(name) for name in self._names])[codes]
        data = {**columns, "type": pandas.Categorical.from_codes(codes, categories)}
        frame = pandas.DataFrame(data, copy=False)
        self._raise_fault(frame)
        return frame

    def _rest(self) -> int:
        """How many transactions are left; 0 where it is not known."""
        return max((self._metadata.transactions or 0) - self._delivered, 0)

    def _most(self) -> int:
        """A good trace has fewer transactions."""
        known = self._metadata.transactions
        return max(2 * known, TRUSTED) if known else 2**63 - 1

    def _gather(self, n: int) -> Transactions:
        """The next n, or those before the end or a fault."""
        rest = self._rest()
        transactions = np.empty(min(n, _longer(0, rest)), TRANSACTION)
        length = got = self._fill(transactions)
        while got and length == len(transactions) < n:
            transactions.resize(min(n, _longer(length, rest)), refcheck=False)
            got = self._fill(transactions, length)
            length += got
        transactions.resize(length, refcheck=False)
        return transactions

    def _fill(self, transactions: Transactions, begin: int = 0) -> int:
        """Reads into an array from `begin` on. Returns how many came: 0 at the end or a fault."""
        with self._lock:
            length = begin
            while length < len(transactions):
                wanted = min(len(transactions) - length, PIECE)
                address = transactions.ctypes.data + length * TRANSACTION.itemsize
                got = library.vqpack_read(self._opened(), address, wanted)
                length += max(got, 0)
                if got < wanted:
                    break
            self._delivered += length - begin
            return length - begin

    def _raise_fault(self, transactions: Any) -> None:
        error = self._fault()
        if error is None and len(transactions) >= self._most():
            error = Error("Bad transaction count", self._delivered)
        if isinstance(error, Error):
            error.transactions = transactions
        if error is not None:
            raise error


def _longer(length: int, rest: int) -> int:
    """The next length of a full array that is to take `rest` transactions, or more if need be."""
    if length <= rest:  # with one more, the last read meets the end
        longer = min(rest + 1, max(2 * length, RESERVED))
    else:
        longer = max(2 * length, BATCH)
    if longer * TRANSACTION.itemsize > MEMORY:
        raise MemoryError(f"no room for {longer} transactions; read them in arrays of some length")
    return longer
