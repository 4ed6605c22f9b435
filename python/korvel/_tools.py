"""Whole-file operations: sorting, the sorted test and the text dump."""
from __future__ import annotations

import os
import signal
import threading
from ctypes import byref
from typing import Callable, Optional, Union

from . import _lib
from ._lib import SortAbortFn, SortParams, SortProgressFn, SortStartFn, check, fs_path, lock
from .errors import MdfError, Status, status_of

PathLike = Union[str, "os.PathLike[str]"]

#: Sort flags of the library.
SORT_RECOUNT, SORT_SHRINK, SORT_CHECK_TIME, SORT_FINALIZE = 0x0001, 0x0002, 0x0004, 0x1000

# Soft failures of a sort run: nothing was sorted.
_SORT_FAILURES = (Status.FILE_NOT_OPENED, Status.UNSUPPORTED_TYPE, Status.NO_TARGET_ACCESS,
                  Status.NEWER_VERSION, Status.BAD_TIME_STAMP)


def sort(src: PathLike, dst: Optional[PathLike] = None, recount: bool = False,
         shrink: bool = False, check_time: bool = False, finalize: bool = False,
         progress: Optional[Callable[[int], object]] = None) -> Status:
    """Rewrites an unsorted file as a sorted one, into `dst` or in place.

    Flags: `recount` keeps records beyond a group's declared count and raises the count,
    `shrink` lowers counts of short groups, `check_time` checks every record's time
    stamp, `finalize` accepts and finishes files a writer left unfinished.

    `progress(percent)` is called as the run advances. An exception raised by it, and
    Ctrl-C (in the main thread), abort the run through the library's abort callback: the
    source stays as it was, a target is not left behind, and the exception (or
    KeyboardInterrupt) propagates. The closing report (100) comes when the run is over: an
    exception raised there still propagates, but the run's result stands.

    Returns Status.OK, or the notices Status.ALREADY_SORTED, CYCLES_INCREASED or
    CYCLES_DECREASED. Raises MdfError (a family subclass) when the run fails."""
    flags = ((SORT_RECOUNT if recount else 0) | (SORT_SHRINK if shrink else 0) |
             (SORT_CHECK_TIME if check_time else 0) | (SORT_FINALIZE if finalize else 0))
    state: dict = {"error": None, "interrupted": False}

    def on_progress(percent: int, _user) -> None:
        if progress is None or state["error"] is not None or state["interrupted"]:
            return
        try:
            progress(int(percent))
        except BaseException as e:  # handed back to the caller after the library returned
            state["error"] = e

    def on_abort(_user) -> int:
        return 1 if state["error"] is not None or state["interrupted"] else 0

    def on_interrupt(_signum, _frame) -> None:
        state["interrupted"] = True

    # The callbacks must outlive the call: keep them in locals.
    abort_fn, start_fn = SortAbortFn(on_abort), SortStartFn(lambda _user: None)
    progress_fn = SortProgressFn(on_progress)
    params = SortParams(56, fs_path(src), fs_path(dst) if dst is not None else None, None,
                        abort_fn, start_fn, progress_fn, flags)
    previous = None
    in_main = threading.current_thread() is threading.main_thread()
    with lock:
        L = _lib.lib()
        if in_main:
            previous = signal.signal(signal.SIGINT, on_interrupt)
        try:
            status = L.mdfSortWithProgress(byref(params))
        finally:
            if in_main:
                signal.signal(signal.SIGINT, previous)
        if state["error"] is not None or state["interrupted"]:
            try:
                check(status, os.fspath(src))  # clears the library's error
            except MdfError:
                pass
            if state["interrupted"]:
                raise KeyboardInterrupt
            raise state["error"]
        check(status, os.fspath(src), fail=_SORT_FAILURES)
        return status_of(status)  # type: ignore[return-value]


def is_sorted(path: PathLike) -> bool:
    """Whether every data group of the file holds one channel group."""
    with lock:
        L = _lib.lib()
        if not L.has("mdfTestSort"):  # a library without it: the same test on an open file
            from ._mdf import File
            with File(path) as f:
                return f.is_sorted
        status = L.mdfTestSort(fs_path(path))
        check(status, os.fspath(path), fail=(Status.FILE_NOT_OPENED,))
        return status == 0


def dump(path: PathLike, hex: bool = False) -> str:  # noqa: A002
    """The library's text dump of a file's block structure (with hex dumps of header,
    program, text, conversion and extension blocks when `hex`)."""
    with lock:
        L = _lib.lib()
        log = L.log_path
        if log is None:
            raise RuntimeError("the library's log was opened before the package loaded it; "
                               "the dump cannot be read back")
        start = os.path.getsize(log)
        status = L.mdfDump(fs_path(path), 1 if hex else 0)
        if status == 0:
            L.mdfContextClose()  # a successful dump leaves its working context open
        with open(log, "rb") as f:
            f.seek(start)
            text = f.read()
        check(status, os.fspath(path), fail=(Status.FILE_NOT_OPENED,))
        return text.decode("latin-1").replace("\r\n", "\n")


def library_version() -> str:
    """The library's version text."""
    import ctypes
    buf = ctypes.create_string_buffer(64)
    with lock:
        _lib.lib().mdfGetKorvelVersion(buf, 63)
    return buf.value.decode("latin-1")
