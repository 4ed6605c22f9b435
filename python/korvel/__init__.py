"""Korvel for Python: MDF 3 measurement files as numpy arrays and pandas frames.

    import korvel
    with korvel.open("run42.mdf") as f:
        for group in f.groups:
            print(group.comment, group.records, group.channels.names())
        speed = f.channel("speed").values()        # physical values, float64
        frame = f.groups[0].to_pandas()            # time index, a column per channel

The package calls the Korvel shared library through ctypes; it looks for the library next
to itself (as ``cmake --install`` puts them), then at ``KORVEL_LIBRARY``, then in the
source tree's ``build`` directory.
"""
from __future__ import annotations

from ._mdf import (CONVERSION_NAMES, DATA_TYPE_NAMES, Channel, ChannelList, File, Group,
                   open)
from ._tools import dump, is_sorted, library_version, sort
from ._write import Signal
from .errors import (AbortedError, FileAccessError, FileFormatError, FileTooLargeError,
                     InternalError, LibraryNotFoundError, MdfError, NotFoundError,
                     OutOfMemoryError, Status, UnsupportedError, UsageError)

__version__ = "5.87.0"

__all__ = [
    "open", "File", "Group", "Channel", "ChannelList", "Signal", "sort", "is_sorted", "dump",
    "library_version", "Status", "MdfError", "UsageError", "FileAccessError",
    "FileFormatError", "OutOfMemoryError", "AbortedError", "FileTooLargeError",
    "InternalError", "NotFoundError", "UnsupportedError", "LibraryNotFoundError",
    "DATA_TYPE_NAMES", "CONVERSION_NAMES", "library_path",
]


def library_path() -> str:
    """The path of the shared library in use (loads it)."""
    from . import _lib
    return _lib.lib().path


def log_path():
    """The library's log file of this process (in a private temporary directory)."""
    from . import _lib
    return _lib.lib().log_path
