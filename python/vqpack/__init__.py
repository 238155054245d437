"""Memory-bus traces as numpy arrays: VELK text and QUBIX files read and written.

A transaction has four values, the fields of the dtype `TRANSACTION`:

address  uint64, in bytes, a multiple of 8 (of deferred replies, the types 47 and 48, a file keeps
         only bits 16 to 23)
agent    int32, the number of the bus agent: 0 to 255 in file types 0 to 3, to 65535 in 4 and 5
count    uint32, whose meaning is up to the user of the trace; file types 3 and 5 store it,
         elsewhere it reads as 1
type     uint8, 0 to 67, an index into `NAMES`; `CODES` has the number of each name

>>> import vqpack
>>> reads = [0x1000, 0x1040, 0x1080]
>>> vqpack.write("run.qu", {"address": reads, "type": "MEMRD64B", "agent": [0, 0, 3]})
>>> with vqpack.open("run.qu") as trace:
...     transactions = trace.read_all()
>>> transactions["address"][transactions["agent"] == 0]
array([4096, 4160], dtype=uint64)

A trace that is larger than memory is read in arrays of a chosen length:

>>> total = 0
>>> with vqpack.open("run.qu", batch=100_000) as trace:
...     for batch in trace:
...         total += (batch["type"] == vqpack.CODES["MEMRD64B"]).sum()
>>> print(total)
3

and with pandas installed, one becomes a data frame:

>>> with vqpack.open("run.qu") as trace:
...     frame = trace.to_pandas()
>>> frame.groupby("agent").size().to_dict()
{0: 2, 3: 1}

A damaged file raises `vqpack.Error` once all that stands before the fault has been delivered. Names
that end in .gz or .bz2 are read and written through gzip and bzip2; no other name is special.
"""

from __future__ import annotations

from typing import Any

from . import _columns, _library
from ._errors import Error
from ._metadata import Metadata, Sensitivity
from ._reader import BATCH as _BATCH
from ._reader import Reader
from ._totals import Totals
from ._types import CODES, NAMES, TRANSACTION
from ._writer import Writer

# fmt: off
__all__ = [
    "CODES", "NAMES", "TRANSACTION",
    "Error", "Metadata", "Reader", "Sensitivity", "Writer",
    "open", "write",
]
# fmt: on

__version__: str = _library.library.vqpack_version().decode()


def open(source: Any, batch: int = _BATCH) -> Reader:
    """Opens a trace, VELK text or QUBIX of any type, to read it in arrays of `batch` transactions.

    `source` is a path or an object with `fileno()`. A path that does not exist is tried with .gz
    and .bz2 appended. An object is read from its position, without its Python buffer: nothing may
    have been read from one that cannot seek. It is not decompressed and not closed, and its
    position is undefined afterwards.

    Raises OSError, as FileNotFoundError, where it cannot be opened, and Error where it is no trace.
    """
    return Reader(source, batch)


def write(
    target: Any, transactions: Any, version: int = 1, compressed: bool = True, **options: Any
) -> None:
    """Writes a QUBIX file of the file type `version`: one call for a `Writer`.

    `target` is a path, whose file is replaced once all has been written, or an object with
    `fileno()`, which is written in place. `transactions` is one of

    - a structured array with the fields address and type, and maybe agent (else 0) and count
      (else 1), of any integer dtypes; one of the dtype `TRANSACTION` is not copied;
    - a pandas data frame with such columns;
    - a mapping of such columns, where one value stands for all of a column.

    Types are codes, names or a categorical of names. Everything is checked before the file is
    touched: TypeError and ValueError name the first value that is wrong.

    `compressed` and the `options` are those of `Writer`. What another file says of its trace is
    kept by `write(target, kept, version=5, **trace.metadata.description())`.
    """
    given = _columns.columns(transactions)
    _columns.check(given, version)
    with Writer(target, version, compressed, transactions=given.length, **options) as writer:
        writer._take(given)
