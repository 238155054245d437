"""What the library reports, as exceptions."""

from __future__ import annotations

import os
from typing import Any, Optional, Union

from ._library import Failure

FileName = Union[str, bytes, None]

_MISUSE, _CANNOT_OPEN, _CANNOT_WRITE, _REFUSED, _NO_MEMORY = 1, 2, 4, 6, 7


class Error(Exception):
    """The input is no trace, is damaged or is not whole, or it could not be read.

    message       the fault alone, as "Bad checksum"
    record        1-based number of the transaction, in text of the line; None where none applies
    byte          offset in a QUBIX file where it was noticed; None where none applies
    transactions  from `read_all()` and `to_pandas()` what they have read before the fault

    str() gives one line with the position, as vqpack(1) prints it.
    """

    transactions: Any = None

    def __init__(
        self, message: str, record: Optional[int] = None, byte: Optional[int] = None
    ) -> None:
        super().__init__(message, record, byte)
        self.message = message
        self.record = record
        self.byte = byte

    def __str__(self) -> str:
        named = (("record", self.record), ("byte", self.byte))
        places = [f"{name} {number}" for name, number in named if number is not None]
        return f"{self.message}, at {', '.join(places)}" if places else self.message


def exception(failure: Failure, name: FileName) -> Optional[Exception]:
    """The exception for a failure with the file of that name; None where nothing has failed."""
    if not failure.code:
        return None
    text = failure.text.decode("utf-8", "replace")
    if failure.code in (_MISUSE, _REFUSED):
        return ValueError(text)
    if failure.code == _NO_MEMORY:
        return MemoryError(text)
    if failure.code in (_CANNOT_OPEN, _CANNOT_WRITE):
        number = failure.system_error
        return OSError(number, os.strerror(number), name) if number else OSError(text)
    message = failure.message.decode("utf-8", "replace")
    return Error(message, failure.record or None, max(failure.byte, 0) or None)
