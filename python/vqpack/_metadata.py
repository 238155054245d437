"""What a file says of its trace."""

from __future__ import annotations

import ctypes
import operator
from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from typing import Any, NamedTuple, Optional, Union

from ._library import MetadataFields, SensitivityFields, library

Number = Union[int, Any]  # what operator.index() takes


class Sensitivity(NamedTuple):
    """One cache-sensitivity measurement; the first three values identify it.

    `config_type` is 0 to 255, `mlc_size` 0 to 65535; the others have 32 bits.
    """

    config_type: int
    mlc_size: int
    llc_size: int
    instructions: int
    cycles: int
    llc_references: int
    llc_misses: int


@dataclass(frozen=True)
class Metadata:
    """What a file says of its trace. Text says nothing, types 0 and 1 the transactions alone.

    version         the file type, 0 to 5; -1 for text
    compressed      whether records are context-coded; otherwise they are raw
    transactions    None where it is not known, as in text; a damaged file can hold any number
    instructions    as cycles, a total over the trace
    cycles
    threads
    cache_size_kib  in KiB
    line_size       of the cache, in bytes
    address_length  significant bits of the addresses
    max_contexts    the most that coder and decoder keep; 0: no limit, or none is stored
    sensitivity     a list of Sensitivity
    comment         decoded as UTF-8; what is none becomes lone surrogates ("surrogateescape"),
                    which a Writer turns back; None where there is no comment
    """

    version: int
    compressed: bool
    transactions: Optional[int]
    instructions: int
    cycles: int
    threads: int
    cache_size_kib: int
    line_size: int
    address_length: int
    max_contexts: int
    sensitivity: list[Sensitivity]
    comment: Optional[str]

    def description(self) -> dict[str, Any]:
        """What describes the trace rather than its file, as keywords for `write` and `Writer`."""
        return {name: getattr(self, name) for name in DESCRIPTION}


DESCRIPTION = (
    *("instructions", "cycles", "threads", "cache_size_kib", "line_size", "sensitivity"),
    "comment",
)


def from_fields(fields: MetadataFields) -> Metadata:
    """A copy of what the library hands out."""
    points = [fields.sensitivity[i] for i in range(fields.sensitivity_count)]
    comment = fields.comment
    return Metadata(
        version=fields.file_type,
        compressed=bool(fields.context_coded),
        transactions=None if fields.transactions < 0 else fields.transactions,
        instructions=fields.instructions,
        cycles=fields.cycles,
        threads=fields.threads,
        cache_size_kib=fields.cache_size_kib,
        line_size=fields.line_size,
        address_length=fields.address_length,
        max_contexts=fields.context_limit,
        sensitivity=[
            Sensitivity(*(getattr(point, name) for name in Sensitivity._fields)) for point in points
        ],
        comment=None if comment is None else decoded(comment),
    )


def decoded(text: bytes) -> str:
    """A comment or name of a file, whose bytes can be any."""
    return text.decode("utf-8", "surrogateescape")


def to_fields(
    version: Number,
    compressed: bool,
    max_contexts: Number,
    transactions: Optional[Number],
    description: Mapping[str, Any],
) -> MetadataFields:
    """What the library takes. Raises ValueError for what a file of this type cannot hold.

    `description` has the keywords of Metadata.description().
    """
    version = integer("version", version, 0, 5)
    if not compressed and version == 1:
        raise ValueError("file type 1 is context-coded; for raw records take another")
    for name, value in description.items():
        first = 4 if name == "comment" else 2
        if version < first and value:
            raise ValueError(f"file type {version} stores no {name}; types {first} to 5 do")

    fields = MetadataFields()
    library.vqpack_metadata_init(fields, version)
    fields.context_coded = bool(compressed) and version != 0
    fields.context_limit = integer("max_contexts", max_contexts, 0, 2**32 - 1)
    if transactions is not None:
        fields.transactions = integer("transactions", transactions, 0, 2**63 - 1)
    for name in ("instructions", "cycles"):
        setattr(fields, name, integer(name, description[name], -(2**63), 2**63 - 1))
    for name in ("threads", "cache_size_kib", "line_size"):
        setattr(fields, name, integer(name, description[name], 0, 2**32 - 1))
    points = _points(description["sensitivity"])
    fields.sensitivity_count = len(points)
    fields.sensitivity = ctypes.cast(points, type(fields.sensitivity)) if points else None
    fields.comment = _comment(description["comment"])
    return fields


def integer(name: str, value: Number, low: int, high: int) -> int:
    """ctypes would cut a number that is too large."""
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{name}: {value!r} is no integer") from None
    if not low <= number <= high:
        raise ValueError(f"{name}: {number} is not within {low} to {high}")
    return number


def _points(sensitivity: Iterable[Iterable[Number]]) -> Any:
    points = [tuple(point) for point in sensitivity]
    for index, point in enumerate(points):
        if len(point) != len(Sensitivity._fields):
            raise ValueError(f"sensitivity[{index}] has {len(point)} values, not 7")
        for name, value in zip(Sensitivity._fields, point):
            integer(f"sensitivity[{index}].{name}", value, 0, 2**32 - 1)
    return (SensitivityFields * len(points))(*(SensitivityFields(*point) for point in points))


def _comment(comment: Optional[str]) -> Optional[bytes]:
    if comment is None:
        return None
    if not isinstance(comment, str):
        raise TypeError(f"comment: {comment!r} is no str")
    encoded = comment.encode("utf-8", "surrogateescape")
    if b"\0" in encoded:
        raise ValueError("comment: a NUL ends it in the file")
    return encoded
