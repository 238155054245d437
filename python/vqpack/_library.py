"""Finds libvqpack and declares its functions as <vqpack/vqpack.h> does."""

from __future__ import annotations

import ctypes
import os
from ctypes import POINTER, c_char_p, c_int, c_int32, c_int64, c_size_t, c_uint, c_uint32, c_void_p
from typing import Any

SONAME = "libvqpack.so.0"


class Failure(ctypes.Structure):
    """vqpack_error"""

    _fields_ = [
        ("code", c_int32),
        ("system_error", c_int32),
        ("record", c_int64),
        ("byte", c_int64),
        ("message", c_char_p),
        ("text", c_char_p),
    ]


class SensitivityFields(ctypes.Structure):
    """vqpack_sensitivity"""

    _fields_ = [
        ("config_type", c_uint32),
        ("mlc_size", c_uint32),
        ("llc_size", c_uint32),
        ("instructions", c_uint32),
        ("cycles", c_uint32),
        ("llc_references", c_uint32),
        ("llc_misses", c_uint32),
    ]


class MetadataFields(ctypes.Structure):
    """vqpack_metadata"""

    _fields_ = [
        ("file_type", c_int32),
        ("context_coded", c_int32),
        ("transactions", c_int64),
        ("instructions", c_int64),
        ("cycles", c_int64),
        ("threads", c_uint32),
        ("cache_size_kib", c_uint32),
        ("line_size", c_uint32),
        ("address_length", c_uint32),
        ("context_limit", c_uint32),
        ("sensitivity_count", c_uint32),
        ("sensitivity", POINTER(SensitivityFields)),
        ("comment", c_char_p),
        ("type_names", POINTER(c_char_p)),
        ("type_name_count", c_uint32),
        ("reserved", c_uint32),
    ]


# Result and arguments. Objects and arrays travel as plain addresses.
FUNCTIONS: dict[str, tuple[Any, list[Any]]] = {
    "vqpack_version": (c_char_p, []),
    "vqpack_type_name": (c_char_p, [c_uint]),
    "vqpack_metadata_init": (None, [POINTER(MetadataFields), c_int]),
    "vqpack_open": (c_void_p, [c_char_p]),
    "vqpack_open_descriptor": (c_void_p, [c_int]),
    "vqpack_read": (c_int64, [c_void_p, c_void_p, c_size_t]),
    "vqpack_reader_metadata": (POINTER(MetadataFields), [c_void_p]),
    "vqpack_reader_error": (POINTER(Failure), [c_void_p]),
    "vqpack_reader_close": (None, [c_void_p]),
    "vqpack_create": (c_void_p, [c_char_p, POINTER(MetadataFields), c_int64]),
    "vqpack_create_descriptor": (c_void_p, [c_int, POINTER(MetadataFields), c_int64]),
    "vqpack_write": (c_int, [c_void_p, c_void_p, c_size_t]),
    "vqpack_finish": (c_int, [c_void_p, c_void_p]),
    "vqpack_writer_error": (POINTER(Failure), [c_void_p]),
    "vqpack_writer_close": (None, [c_void_p]),
}


def _load() -> ctypes.CDLL:
    """The library named by VQPACK_LIBRARY, else that in the package's folder, else the system's."""
    own = os.path.join(os.path.dirname(os.path.abspath(__file__)), SONAME)
    name = os.environ.get("VQPACK_LIBRARY") or (own if os.path.exists(own) else SONAME)
    try:
        loaded = ctypes.CDLL(name)
        for function, (result, arguments) in FUNCTIONS.items():
            declared = getattr(loaded, function)
            declared.restype = result
            declared.argtypes = arguments
    except (OSError, AttributeError) as error:
        raise ImportError(
            f"vqpack cannot use the library {name}: {error}. "
            "Install libvqpack0, or name another file in the environment variable VQPACK_LIBRARY."
        ) from error
    return loaded


library = _load()
