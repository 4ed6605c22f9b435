"""Loading the shared library, its function prototypes, the call lock and status checks.

The library keeps all of its state in process-wide variables and locks nothing, so every
call into it goes through one re-entrant lock. Its first error since it was opened is
sticky (every later call returns it); after an error the package closes and reopens the
library, which clears the sticky error and closes every file still open in it.

The library writes its log "KORVEL.LOG" into the current directory at the first line it
prints and keeps that file open. At load the package lets the first line be printed from
a private temporary directory, so the log never lands in the user's directory.
"""
from __future__ import annotations

import atexit
import ctypes
import glob
import os
import shutil
import sys
import tempfile
import threading
from ctypes import (POINTER, c_char_p, c_double, c_int, c_int16, c_int32, c_uint8, c_uint16,
                    c_uint32, c_uint64, c_void_p)
from typing import Iterable, List, Optional

from .errors import LibraryNotFoundError, make_error

#: Serialises every call into the library (re-entrant: sort callbacks run on the caller's
#: thread while the lock is held).
lock = threading.RLock()

_vp = c_void_p
_pvp = POINTER(c_void_p)
_pu16 = POINTER(c_uint16)
_pu32 = POINTER(c_uint32)
_pdbl = POINTER(c_double)


class SortParams(ctypes.Structure):
    """MdfSortParams: 4-byte packing, 56 bytes, flags at offset 52."""

    _pack_ = 4


SortAbortFn = ctypes.CFUNCTYPE(c_int, c_void_p)
SortStartFn = ctypes.CFUNCTYPE(None, c_void_p)
SortProgressFn = ctypes.CFUNCTYPE(None, c_int, c_void_p)
SortParams._fields_ = [
    ("structSize", c_uint32),
    ("srcFile", c_char_p),
    ("dstFile", c_char_p),
    ("userData", c_void_p),
    ("pfnAbort", SortAbortFn),
    ("pfnStart", SortStartFn),
    ("pfnProgress", SortProgressFn),
    ("flags", c_uint32),
]
assert ctypes.sizeof(SortParams) == 56 and SortParams.flags.offset == 52

# name: (result type, argument types). Functions missing from the loaded library (added in
# later versions) are left out and raise NotImplementedError when called.
_PROTOTYPES = {
    "mdfOpen": (c_int16, [c_char_p]),
    "mdfClose": (c_int16, []),
    "mdfContextClose": (c_int16, []),
    "mdfGetErrorCode": (c_int16, []),
    "mdfGetErrorText": (c_char_p, []),
    "mdfGetTextStrD": (c_char_p, [c_int16]),
    "mdfPrintMessage": (c_int32, [c_char_p]),
    "mdfGetKorvelVersion": (c_void_p, [c_char_p, c_int32]),
    "mdfGetMdfFormatVersion": (c_void_p, [c_char_p, c_int32]),
    "mdfFileOpen": (c_int16, [_pvp, c_char_p, c_uint16]),
    "mdfFileClose": (c_int16, [_vp]),
    "mdfFileGetInfo": (c_int16, [_vp] + [_pvp] * 7),
    "mdfFileSetInfo": (c_int16, [_vp] + [c_char_p] * 7),
    "mdfFileGroups": (c_int16, [_pu16, _vp]),
    "mdfFileIsSort": (c_int16, [_vp]),
    "mdfGrpOpen": (c_int16, [_pvp, _vp, c_uint16, c_uint16]),
    "mdfGrpClose": (c_int16, [_vp]),
    "mdfGrpChannels": (c_int16, [_pu16, _vp]),
    "mdfGrpRecords": (c_int16, [_pu32, _vp]),
    "mdfGrpWriteAppend": (c_int16, [_vp]),
    "mdfGrpBuffer": (c_int32, [_pvp, _vp]),
    "mdfGrpGetText": (c_int16, [_vp, _pvp]),
    "mdfGrpSetText": (c_int16, [_vp, c_char_p]),
    "mdfChnOpen": (c_int16, [_pvp, _vp, c_uint16]),
    "mdfChnCreate": (c_int16, [_pvp, _vp, c_uint16, c_uint16, c_uint16, c_char_p]),
    "mdfChnClose": (c_int16, [_vp]),
    "mdfChnGetInfo": (c_int16, [_vp, _pu16, _pu16, _pu16, _pvp, _pvp, _pvp]),
    "mdfChnSetInfo": (c_int16, [_vp, c_char_p, c_char_p, c_char_p]),
    "mdfChnGetInfoExt": (c_int16, [_vp, _pu16, _pvp, _pvp]),
    "mdfChnSetInfoExt": (c_int16, [_vp, c_int16, c_char_p, c_char_p]),
    "mdfChnGetRaster": (c_int16, [_vp, _pdbl]),
    "mdfChnGetBitAndByteOffset": (c_int16, [_vp, POINTER(c_uint8), _pu32]),
    "mdfChnGetForm": (c_int16, [_vp, _pu16, _pvp, _pvp]),
    "mdfChnGetFormVTab": (c_int16, [_vp, _pu16, _pvp, _pvp, _pvp]),
    "mdfChnGetFormVTabR": (c_int16, [_vp, _pu16, _pvp, _pdbl, _pdbl, _pvp, _pvp]),
    "mdfChnGetFormVTabText": (c_int16, [_vp, c_uint16, _pvp]),
    "mdfChnSetFormLin": (c_int16, [_vp, c_char_p, c_double, c_double]),
    "mdfChnSetHex": (c_int16, [_vp, c_double]),
    "mdfChnSetHexInt": (c_int16, [_vp, c_uint64]),
    "mdfChnSetData": (c_int16, [_vp, _vp, c_uint32]),
    "mdfChnWriteHex": (c_int16, [_vp, c_double]),
    "mdfChnWriteHexInt": (c_int16, [_vp, c_uint64]),
    "mdfChnWriteData": (c_int16, [_vp, _vp, c_uint32]),
    # Bulk reads: record indexes 0-based, *done = records read, 1 when fewer than asked.
    "mdfChnReadPhyArray": (c_int16, [_vp, _pu32, _vp, c_uint32, c_uint32]),
    "mdfChnReadHexArray": (c_int16, [_vp, _pu32, _vp, c_uint32, c_uint32]),
    "mdfChnReadHexIntArray": (c_int16, [_vp, _pu32, _vp, c_uint32, c_uint32]),
    "mdfGrpReadTimeArray": (c_int16, [_vp, _pu32, _vp, c_uint32, c_uint32]),
    "mdfChnReadBytesArray": (c_int16, [_vp, c_uint32, _pu32, _vp, c_uint32, c_uint32]),
    # Several channels in one call: handles and properties of a range of channels, and the
    # physical values of channels of one group into consecutive rows.
    "mdfGrpOpenChannels": (c_int16, [_vp, _vp, c_uint16, c_uint16]),
    "mdfChnGetInfoArrays": (c_int16, [_vp, _vp, _vp, _vp, _vp, c_uint16]),
    "mdfChnReadPhyArrays": (c_int16, [_vp, _pu32, _vp, c_uint16, c_uint32, c_uint32]),
    "mdfSort": (c_int16, [c_char_p, c_char_p]),
    "mdfSortWithProgress": (c_int16, [POINTER(SortParams)]),
    "mdfTestSort": (c_int16, [c_char_p]),
    "mdfDump": (c_int16, [c_char_p, c_uint32]),
}


def _library_names() -> List[str]:
    if sys.platform == "win32":
        return ["korvel.dll"]
    if sys.platform == "darwin":
        return ["libkorvel.*.dylib", "libkorvel.dylib"]
    return ["libkorvel.so.*", "libkorvel.so"]


def _matches(directory: str) -> List[str]:
    found: List[str] = []
    for pattern in _library_names():
        found.extend(sorted(glob.glob(os.path.join(glob.escape(directory), pattern))))
    return [f for f in found if os.path.isfile(f)]


def candidates() -> List[str]:
    """Where the library is looked for, in order, with a description of each place."""
    here = os.path.dirname(os.path.abspath(__file__))
    places = [here]
    env = os.environ.get("KORVEL_LIBRARY")
    if env:
        places.append("KORVEL_LIBRARY=" + env)
    source_root = os.path.dirname(os.path.dirname(here))
    places.extend(os.path.join(source_root, d) for d in ("build", "build-release"))
    return places


def find_library() -> str:
    """The path of the shared library: next to the package (an installed tree), else the
    file KORVEL_LIBRARY names (a path, a glob pattern, or a directory), else the build
    tree of the source tree the package lives in."""
    here = os.path.dirname(os.path.abspath(__file__))
    found = _matches(here)
    if found:
        return found[0]
    env = os.environ.get("KORVEL_LIBRARY")
    if env:
        if os.path.isdir(env):
            found = _matches(env)
        else:
            found = sorted(f for f in glob.glob(env) if os.path.isfile(f))
        if not found:
            raise LibraryNotFoundError(
                f"KORVEL_LIBRARY={env!r} names no library file ({', '.join(_library_names())})")
        return found[0]
    source_root = os.path.dirname(os.path.dirname(here))
    for d in ("build", "build-release"):
        found = _matches(os.path.join(source_root, d))
        if found:
            return found[0]
    raise LibraryNotFoundError(
        "the Korvel shared library was not found; looked next to the package (" + here +
        "), in KORVEL_LIBRARY (unset), and in the build trees " +
        os.path.join(source_root, "build") + " and build-release. Install the package with "
        "'cmake --install', or set KORVEL_LIBRARY to the library's path.")


class Library:
    """The loaded library: its functions, the private log, and the reset counter."""

    def __init__(self, path: str) -> None:
        try:
            self.dll = ctypes.CDLL(path)
        except OSError as e:
            raise LibraryNotFoundError(f"cannot load the Korvel library {path}: {e}") from e
        self.path = path
        self.missing: List[str] = []
        for name, (restype, argtypes) in _PROTOTYPES.items():
            try:
                fn = getattr(self.dll, name)
            except AttributeError:
                self.missing.append(name)
                continue
            fn.restype = restype
            fn.argtypes = argtypes
            setattr(self, name, fn)
        #: Incremented whenever the library is closed and reopened; handles from before
        #: are gone then.
        self.generation = 0
        self.log_dir: Optional[str] = None
        self.log_path: Optional[str] = None
        self._start_log()
        status = self.mdfOpen(None)
        if status not in (0, 1023):
            raise LibraryNotFoundError(f"the Korvel library did not open (status {status})")

    def __getattr__(self, name: str):
        if name in _PROTOTYPES:
            raise NotImplementedError(
                f"{name} is not exported by the Korvel library {self.path} (a version "
                "without it)")
        raise AttributeError(name)

    def has(self, name: str) -> bool:
        return name not in self.missing

    def _start_log(self) -> None:
        # The log is created at the first line printed, in the current directory of that
        # moment, and stays open: print that line from a private directory.
        self.log_dir = tempfile.mkdtemp(prefix="korvel-log-")
        atexit.register(shutil.rmtree, self.log_dir, True)
        cwd = os.getcwd()
        try:
            os.chdir(self.log_dir)
            self.mdfPrintMessage(b"log of the korvel Python package")
        finally:
            os.chdir(cwd)
        path = os.path.join(self.log_dir, "KORVEL.LOG")
        # A log opened before the package loaded the library stays where it is.
        self.log_path = path if os.path.exists(path) else None

    def reset(self) -> None:
        """Closes and reopens the library: clears the sticky error, closes every file."""
        self.mdfClose()
        self.mdfOpen(None)
        self.generation += 1


_library: Optional[Library] = None


def lib() -> Library:
    """The loaded library (loaded at the first call)."""
    global _library
    if _library is None:
        with lock:
            if _library is None:
                _library = Library(find_library())
    return _library


def _text(ptr) -> str:
    if ptr is None:
        return ""
    if isinstance(ptr, bytes):
        return ptr.decode("latin-1")
    return ctypes.string_at(ptr).decode("latin-1")


def status_text(code: int) -> str:
    """The library's built-in text of a status code."""
    with lock:
        return _text(lib().mdfGetTextStrD(code)) or f"status {code}"


def raise_status(status: int, where: str = "") -> None:
    """Raises the exception of a status; after an error that the library kept as its
    sticky first error, the library is reset so that later calls work again."""
    L = lib()
    sticky = L.mdfGetErrorCode()
    detail = _text(L.mdfGetErrorText()) if sticky != 0 else ""
    text = status_text(status)
    if sticky != 0:
        L.reset()
    raise make_error(status, text, detail, where)


def check(status: int, where: str = "", fail: Iterable[int] = ()) -> int:
    """Returns a status that is 0 or a notice; raises for negative statuses and for the
    positive ones listed in `fail` (soft failures of that call)."""
    if status < 0 or (status > 0 and status in fail):
        raise_status(status, where)
    return status


def fs_path(path) -> bytes:
    """A file name as the library takes it (the system's narrow encoding)."""
    p = os.fspath(path)
    if isinstance(p, bytes):
        return p
    if sys.platform == "win32":
        return p.encode("mbcs")
    return os.fsencode(p)


def encode_text(text: Optional[str], what: str = "text") -> Optional[bytes]:
    """A text for the file (Latin-1, as MDF 3 files carry); None stays None."""
    if text is None:
        return None
    try:
        return text.encode("latin-1")
    except UnicodeEncodeError as e:
        raise ValueError(f"{what} {text!r} has characters that MDF 3 texts cannot hold") from e


def fixed_text(address: Optional[int], width: int) -> str:
    """A fixed-width text field that is not terminated when full."""
    if not address:
        return ""
    raw = ctypes.string_at(address, width)
    return raw.split(b"\0", 1)[0].decode("latin-1")


def c_text(address: Optional[int]) -> str:
    """A terminated text handed out by the library."""
    return _text(address) if address else ""
