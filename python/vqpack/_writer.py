"""Arrays to QUBIX files."""

from __future__ import annotations

import ctypes
import os
from typing import TYPE_CHECKING, Any, Optional

from ._columns import Columns, check, columns, pieces
from ._handle import Handle, descriptor, encoded, file_name, identity, open_files
from ._library import library
from ._metadata import integer, to_fields

if TYPE_CHECKING:
    from collections.abc import Iterable

# The values of vqpack.h and vqpack(1).
WINDOW = 65535
MAX_CONTEXTS = 16383


class Writer(Handle):
    """Writes a QUBIX file, array by array. See `vqpack.write` for the arguments.

    A file with a name appears under it in `close()`, and only then replaces what had that name; a
    `with` statement that ends with an exception drops it instead. What is no regular file, and an
    object with a descriptor, is written in place: there, what was written stays. The position of
    such an object is undefined afterwards.
    """

    def __init__(
        self,
        target: Any,
        version: int = 1,
        compressed: bool = True,
        window: int = WINDOW,
        max_contexts: int = MAX_CONTEXTS,
        comment: Optional[str] = None,
        sensitivity: Iterable[Iterable[int]] = (),
        *,
        transactions: Optional[int] = None,
        instructions: int = 0,
        cycles: int = 0,
        threads: int = 0,
        cache_size_kib: int = 0,
        line_size: int = 0,
    ) -> None:
        """`transactions` is the number that will be written, if it is known.

        Outputs that cannot seek (.gz, .bz2, pipes) hold it in their header; without it, they say
        that the number is unknown. Another number at the end raises ValueError.
        """
        description = {
            "instructions": instructions,
            "cycles": cycles,
            "threads": threads,
            "cache_size_kib": cache_size_kib,
            "line_size": line_size,
            "sensitivity": list(sensitivity),
            "comment": comment,
        }
        fields = to_fields(version, compressed, max_contexts, transactions, description)
        window = integer("window", window, -(2**63), 2**63 - 1)
        is_path = isinstance(target, (str, bytes, os.PathLike))
        place: Any = encoded(target) if is_path else descriptor(target)
        if identity(place) in list(open_files.values()):
            raise ValueError(f"{file_name(target)!r} is open for reading")
        create = library.vqpack_create if is_path else library.vqpack_create_descriptor
        super().__init__(
            create(place, ctypes.byref(fields), window),
            file_name(target),
            library.vqpack_writer_error,
            library.vqpack_writer_close,
        )
        self._version = int(version)
        self._expected = transactions
        self._written = 0

    def write(
        self,
        transactions: Any = None,
        *,
        address: Any = None,
        type: Any = None,
        agent: Any = 0,
        count: Any = 1,
    ) -> None:
        """Writes transactions: a structured array, a data frame, a mapping, or columns by keyword.

        All of them are checked before the first is written. Raises TypeError or ValueError, which
        names the first that is wrong.
        """
        if transactions is None:
            transactions = {"address": address, "type": type, "agent": agent, "count": count}
        elif address is not None or type is not None:
            raise TypeError("give transactions or columns, not both")
        given = columns(transactions)
        check(given, self._version)
        self._take(given)

    def _take(self, given: Columns) -> None:
        """Hands over what has been checked."""
        with self._lock:
            for piece in pieces(given):
                failed = library.vqpack_write(self._opened(), piece.ctypes.data, len(piece))
                error = self._fault() if failed else None
                if error is not None:
                    raise error
                self._written += len(piece)

    def close(self) -> None:
        """Completes the file and gives it its name. Closing it again does nothing.

        Whatever it raises, nothing has that name that did not have it before.
        """
        with self._lock:
            if self._object is None:
                return
            try:
                if self._expected not in (None, self._written):
                    raise ValueError(f"{self._written} transactions instead of {self._expected}")
                failed = library.vqpack_finish(self._object, None)
                error = self._fault() if failed else None
                if error is not None:
                    raise error
            finally:
                self._free()

    def discard(self) -> None:
        """Drops the file instead of completing it."""
        self._free()

    def __enter__(self) -> Writer:
        self._opened()
        return self

    def __exit__(self, kind: Optional[type[BaseException]], *_: object) -> None:
        if kind is None:
            self.close()
        else:
            self.discard()
