"""What readers and writers share: an object of the library, and the file that it is about."""

from __future__ import annotations

import os
import threading
import warnings
from typing import Any, Callable, Optional

from ._errors import FileName, exception

# Files that readers of this process have open: device and inode by the library's object.
open_files: dict[int, tuple[int, int]] = {}


class Handle:
    """Owns one object of the library. A lock keeps a second thread out of it."""

    _object: Optional[int] = None  # until __init__ has run

    def __init__(
        self,
        pointer: Optional[int],
        name: FileName,
        failure: Callable[[Optional[int]], Any],
        release: Callable[[Optional[int]], None],
    ) -> None:
        """Takes over the object; raises what `failure` says of it, once it has been released."""
        self._lock = threading.RLock()
        self._name = name
        self._failure = failure
        self._release = release
        self._process = os.getpid()
        error = exception(failure(pointer).contents, name)
        if error is not None:
            release(pointer)
            raise error
        self._object = pointer

    @property
    def closed(self) -> bool:
        """Whether close() has been called."""
        return self._object is None

    def _opened(self) -> int:
        if self._object is None:
            raise ValueError(f"the {type(self).__name__} has been closed")
        return self._object

    def _fault(self) -> Optional[Exception]:
        """What has made the object fail, if anything has."""
        return exception(self._failure(self._opened()).contents, self._name)

    def _free(self) -> None:
        """Releases the object. A forked process leaves it alone: the file is its parent's."""
        with self._lock:
            pointer, self._object = self._object, None
            if pointer is not None and os.getpid() == self._process:
                open_files.pop(pointer, None)
                self._release(pointer)

    def __del__(self) -> None:
        if self._object is None or os.getpid() != self._process:
            return
        try:
            warnings.warn(f"unclosed {self!r}", ResourceWarning, stacklevel=2, source=self)
        finally:
            self._free()

    def __repr__(self) -> str:
        return f"<vqpack.{type(self).__name__} {os.fsdecode(self._name or '?')!r}>"


def encoded(path: Any) -> bytes:
    """The bytes of a file name."""
    name = os.fsencode(path)
    if b"\0" in name:
        raise ValueError("embedded null byte in the file name")
    return name


def file_name(source: Any) -> FileName:
    """The name of a path or a file, for errors."""
    name = os.fspath(source) if isinstance(source, os.PathLike) else source
    name = getattr(name, "name", name)
    return name if isinstance(name, (str, bytes)) else None


def descriptor(file: Any) -> int:
    """The descriptor of a Python file, at the file's own position, with nothing left in its buffer.

    Raises TypeError for what has no descriptor, or one of compressed bytes.
    """
    try:
        number: int = file.fileno()
    except (AttributeError, OSError):
        raise TypeError(f"a path or an object with a descriptor is needed, not {file!r}") from None
    if type(file).__module__ in ("gzip", "bz2", "lzma"):
        raise TypeError(f"the descriptor of {file!r} is that of compressed bytes; give a name")
    if getattr(file, "writable", bool)():
        file.flush()
    if getattr(file, "seekable", bool)():
        os.lseek(number, file.tell(), os.SEEK_SET)
    return number


def identity(file: Any) -> Optional[tuple[int, int]]:
    """Device and inode of a path or descriptor; None where there is no such file."""
    try:
        status = os.stat(file)
    except OSError:
        return None
    return status.st_dev, status.st_ino
