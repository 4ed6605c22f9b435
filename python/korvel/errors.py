"""Statuses of the library and the exceptions that negative statuses become.

Every library function returns a signed 16-bit status: 0 is success, negative codes are
errors, positive codes are notices (end of group, already sorted, cycle counter
corrected) or soft failures (could not open file, channel not found). Errors become
exceptions of the families below; notices are returned as :class:`Status` values.
"""
from __future__ import annotations

import enum
from typing import Optional


class Status(enum.IntEnum):
    """The library's status codes (negative: errors, positive: notices)."""

    OK = 0
    END_OF_GROUP = 1
    RECORD_NOT_FOUND = 2
    CHN_NAME_NOT_FOUND = 3
    CHN_NOT_FOUND = 4
    ALREADY_SORTED = 5
    RANGE_UNKNOWN = 6
    GRP_NOT_FOUND = 7
    CYCLES_INCREASED = 8
    CYCLES_DECREASED = 9
    FILE_NOT_OPENED = 1000
    GROUP_NOT_FOUND = 1001
    CHANNEL_NOT_FOUND = 1002
    NO_TIME_CHANNEL = 1003
    NO_FORMULA = 1004
    UNKNOWN_FORMULA = 1005
    NO_TRIGGER = 1006
    TRIGGER_UNKNOWN = 1007
    TIME_CHN_NOT_FOUND = 1008
    NO_MODULE_INFO = 1009
    NOT_SORTED = 1010
    NOT_A_TABLE = 1011
    GROUP_IS_OPEN = 1012
    CN_TOO_SHORT = 1013
    BITS_OVER_32 = 1014
    BITS_OVER_64 = 1015
    NOT_BYTE_ALIGNED = 1016
    NOT_A_VTAB = 1017
    NOT_A_VTABR = 1018
    VTAB_INDEX = 1019
    UNSUPPORTED_TYPE = 1020
    UNSUPPORTED_RULE = 1021
    NO_TARGET_ACCESS = 1022
    ALREADY_OPEN = 1023
    NEWER_VERSION = 1024
    BAD_TIME_STAMP = 1025
    ERR_NOT_INITIALIZED = -1000
    ERR_BAD_FILE = -1001
    ERR_BAD_GROUP = -1002
    ERR_BAD_CHANNEL = -1003
    ERR_OPEN_MODE = -1004
    ERR_SEEK_MODE = -1005
    ERR_CHANNEL_TYPE = -1006
    ERR_CHANNEL_BITS = -1007
    ERR_VALUE_TYPE = -1008
    ERR_TWO_CREATES = -1009
    ERR_WRITE = -2000
    ERR_READ = -2001
    ERR_SEEK = -2002
    ERR_CLOSE = -2003
    ERR_FORMAT = -2004
    ERR_INCONSISTENT = -2005
    ERR_TOO_MANY_CHANNELS = -2006
    ERR_NO_MEMORY = -2007
    ERR_UNKNOWN_BLOCK = -2008
    ERR_UNKNOWN_LINK = -2009
    ERR_NODE_NOT_FOUND = -2010
    ERR_FATAL = -2011
    ERR_FLOAT_FORMAT = -2012
    ERR_USER_ABORT = -2013
    ERR_FILE_TOO_LARGE = -2014


def status_of(code: int):
    """The :class:`Status` member of a code, or the plain int for a code without one."""
    try:
        return Status(code)
    except ValueError:
        return code


class MdfError(Exception):
    """A failure reported by the library.

    Attributes:
        code: the library's status code.
        text: the library's text for the code.
        detail: the library's logged error line when the failure was raised inside the
            library (its first error since the library was opened), else "".
        where: what the package was doing (a function or file name), may be "".
    """

    def __init__(self, code: int, text: str, detail: str = "", where: str = "") -> None:
        self.code = int(code)
        self.text = text
        self.detail = detail
        self.where = where
        message = f"{text} (status {code})"
        if where:
            message = f"{where}: {message}"
        if detail and detail.strip() != text:
            message += f" [{detail.strip()}]"
        super().__init__(message)

    @property
    def status(self):
        """The code as a :class:`Status` member where it has one."""
        return status_of(self.code)


class UsageError(MdfError):
    """Misuse of the interface (-1000 .. -1009): bad handle, mode, type or bit count."""


class FileAccessError(MdfError):
    """The file could not be opened, read, written, positioned or closed (1000, -2000 .. -2003)."""


class FileFormatError(MdfError):
    """The file's content is damaged or not MDF 3 (-2004, -2005, -2008 .. -2010, -2012)."""


class OutOfMemoryError(MdfError):
    """The library ran out of memory (-2007, and -2006 too many channels)."""


class AbortedError(MdfError):
    """The operation was aborted by its caller (-2013)."""


class FileTooLargeError(MdfError):
    """The file outgrew the 32-bit links of the format (-2014)."""


class InternalError(MdfError):
    """An internal consistency check of the library failed (-2011)."""


class NotFoundError(MdfError, LookupError):
    """A group, channel, time channel, rule or table that was asked for is not there."""


class UnsupportedError(MdfError):
    """A data type or conversion rule that the operation cannot handle (1011 .. 1021)."""


class LibraryNotFoundError(ImportError):
    """The shared library could not be found or loaded."""


_FAMILIES = [
    ((-1009, -1000), UsageError),
    ((-2003, -2000), FileAccessError),
    ((-2006, -2006), OutOfMemoryError),
    ((-2007, -2007), OutOfMemoryError),
    ((-2011, -2011), InternalError),
    ((-2013, -2013), AbortedError),
    ((-2014, -2014), FileTooLargeError),
    ((-2012, -2004), FileFormatError),
    ((1000, 1000), FileAccessError),
    ((1022, 1022), FileAccessError),
    ((1024, 1024), FileFormatError),
    ((1001, 1009), NotFoundError),
    ((2, 4), NotFoundError),
    ((7, 7), NotFoundError),
    ((1010, 1021), UnsupportedError),
]


def error_class(code: int) -> type:
    """The exception class of a status code's family (MdfError when none fits)."""
    for (low, high), cls in _FAMILIES:
        if low <= code <= high:
            return cls
    return MdfError


def make_error(code: int, text: Optional[str], detail: str = "", where: str = "") -> MdfError:
    """An exception of the right family for a status code."""
    return error_class(code)(code, text or f"status {code}", detail, where)
