"""Files, channel groups and channels of MDF 3 files as Python objects.

A :class:`File` owns the library's file handle; its :class:`Group` and :class:`Channel`
objects open their library handles when first used. Values come out of the library's
bulk functions straight into numpy arrays, one call per channel.

When the library is reset after an error (see ``_lib``), every handle it had is gone. A
file opened for reading is then opened again, with its groups and channels, at the next
use; a file opened for writing cannot be, and raises :class:`MdfError` instead.
"""
from __future__ import annotations

import ctypes
import functools
import os
import warnings
from collections import OrderedDict
from ctypes import byref, c_double, c_uint8, c_uint16, c_uint32, c_void_p
from typing import Dict, Iterator, List, Optional, Sequence, Tuple, Union, overload

import numpy as np

from . import _lib
from ._lib import c_text, check, encode_text, fixed_text, fs_path, lock
from .errors import MdfError, Status

MODES = {"r": 0, "r+": 1, "w": 2}

#: Library group handles a file keeps open at once (the least recently used is closed).
MAX_OPEN_GROUPS = 4

#: Signal data types of the channel block.
DATA_TYPE_NAMES = {
    0: "uint", 1: "int", 2: "float", 3: "double", 4: "vax_f", 5: "vax_g", 6: "vax_d",
    7: "string", 8: "bytes", 9: "uint_be", 10: "int_be", 11: "float_be", 12: "double_be",
    13: "uint_le", 14: "int_le", 15: "float_le", 16: "double_le",
}
_SIGNED = {1, 10, 14}
_UNSIGNED = {0, 9, 13}
_FLOATS = {2, 3, 4, 5, 6, 11, 12, 15, 16}
STRING, BYTES = 7, 8

#: Conversion rule types of the conversion block.
CONVERSION_NAMES = {
    0: "linear", 1: "table_interpolated", 2: "table", 6: "polynomial", 7: "exponential",
    8: "logarithmic", 9: "rational", 10: "formula", 11: "value_table", 12: "range_table",
    65535: "identity",
}


def _int_dtype(bits: int, signed: bool) -> np.dtype:
    for width in (8, 16, 32, 64):
        if bits <= width:
            return np.dtype(f"{'i' if signed else 'u'}{width // 8}")
    return np.dtype("i8" if signed else "u8")


class File:
    """An open MDF file. Use :func:`korvel.open` to make one, as a context manager.

    Attributes hold the header fields (``date``, ``time``, ``comment``, ``author``,
    ``organization``, ``project``, ``subject``); ``groups`` lists the channel groups.
    """

    def __init__(self, path: Union[str, os.PathLike], mode: str = "r") -> None:
        if mode not in MODES:
            raise ValueError(f"mode must be one of {', '.join(MODES)}, not {mode!r}")
        self.path = os.fspath(path)
        self.mode = mode
        self._handle: Optional[int] = None
        self._generation = -1
        self._token = object()  # changes whenever the handle does
        self._groups: Optional[List[Group]] = None
        self._open_groups: "OrderedDict[int, Group]" = OrderedDict()
        with lock:
            self._open()

    # -- handle ------------------------------------------------------------------------------

    def _open(self) -> None:
        L = _lib.lib()
        handle = c_void_p()
        status = L.mdfFileOpen(byref(handle), fs_path(self.path), MODES[self.mode])
        check(status, self.path, fail=(Status.FILE_NOT_OPENED,))
        self._handle = handle.value
        self._generation = L.generation
        self._token = object()
        self._open_groups = OrderedDict()

    def _h(self) -> int:
        """The file handle; call with the lock held."""
        if self._handle is None:
            raise ValueError(f"{self.path}: the file is closed")
        if self._generation != _lib.lib().generation:
            if self.mode != "r":
                self._handle = None
                raise MdfError(Status.ERR_BAD_FILE, "bad filehandle", "",
                               f"{self.path}: closed when the library was reset after an "
                               "error; a file open for writing cannot be opened again")
            self._open()
        return self._handle

    @property
    def closed(self) -> bool:
        return self._handle is None

    def close(self) -> None:
        """Closes the file (with its groups and channels); a file being written gets its
        header written. Closing a closed file does nothing."""
        with lock:
            if self._handle is None:
                return
            handle, self._handle = self._handle, None
            if self._generation == _lib.lib().generation:
                check(_lib.lib().mdfFileClose(handle), self.path)

    def __enter__(self) -> "File":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def __del__(self) -> None:
        try:
            if self._handle is not None and _lib._library is not None:
                self.close()
        except Exception:
            pass

    def __repr__(self) -> str:
        state = "closed" if self.closed else f"mode {self.mode!r}"
        return f"<korvel.File {self.path!r} {state}>"

    # -- header --------------------------------------------------------------------------------

    def _info(self) -> Dict[str, str]:
        with lock:
            outs = [c_void_p() for _ in range(7)]
            check(_lib.lib().mdfFileGetInfo(self._h(), *[byref(o) for o in outs]), self.path)
            date, time, text, name, division, project, subject = [o.value for o in outs]
            return {
                "date": fixed_text(date, 10), "time": fixed_text(time, 8),
                "comment": c_text(text), "author": fixed_text(name, 32),
                "organization": fixed_text(division, 32), "project": fixed_text(project, 32),
                "subject": fixed_text(subject, 32),
            }

    @property
    def date(self) -> str:
        """Recording date "DD:MM:YYYY"."""
        return self._info()["date"]

    @property
    def time(self) -> str:
        """Recording time "HH:MM:SS"."""
        return self._info()["time"]

    @property
    def comment(self) -> str:
        return self._info()["comment"]

    @property
    def author(self) -> str:
        return self._info()["author"]

    @property
    def organization(self) -> str:
        return self._info()["organization"]

    @property
    def project(self) -> str:
        return self._info()["project"]

    @property
    def subject(self) -> str:
        return self._info()["subject"]

    @property
    def header(self) -> Dict[str, str]:
        """All header fields as a dict."""
        return self._info()

    def set_header(self, *, date: Optional[str] = None, time: Optional[str] = None,
                   comment: Optional[str] = None, author: Optional[str] = None,
                   organization: Optional[str] = None, project: Optional[str] = None,
                   subject: Optional[str] = None) -> None:
        """Changes the header fields given (modes "r+" and "w"); written at close. An empty
        comment removes it."""
        fields = [date, time, comment, author, organization, project, subject]
        with lock:
            check(_lib.lib().mdfFileSetInfo(self._h(), *[encode_text(f) for f in fields]),
                  self.path)

    @property
    def is_sorted(self) -> bool:
        """Whether every data group holds one channel group."""
        with lock:
            return check(_lib.lib().mdfFileIsSort(self._h()), self.path) == 0

    # -- groups ----------------------------------------------------------------------------------

    @property
    def groups(self) -> List["Group"]:
        """The channel groups in file order (numbered from 1 in the library)."""
        with lock:
            h = self._h()
            if self._groups is None or len(self._groups) != self._group_count(h):
                count = self._group_count(h)
                self._groups = [Group(self, n) for n in range(1, count + 1)]
            return list(self._groups)

    def _group_count(self, h: int) -> int:
        count = c_uint16()
        check(_lib.lib().mdfFileGroups(byref(count), h), self.path)
        return count.value

    def channel(self, name: str) -> "Channel":
        """The first channel of that name in any group (exact, then ignoring case)."""
        groups = self.groups
        for exact in (True, False):
            for g in groups:
                ch = g.channels._find(name, exact)
                if ch is not None:
                    return ch
        raise KeyError(f"{self.path}: no channel named {name!r}")

    def add_group(self, time: Optional[np.ndarray], channels, comment: str = "",
                  time_name: str = "time", time_unit: str = "s") -> None:
        """Appends a channel group of a time channel and data channels (mode "w").

        `channels` maps names to numpy arrays, or is a sequence of :class:`Signal`; all
        hold one value per record. See :mod:`korvel._write` for the data types. The
        library puts a created group at the head of the file's list of groups: the group
        added last is the first of the file."""
        from ._write import add_group
        add_group(self, time, channels, comment, time_name, time_unit)


class Group:
    """One channel group: its records, comment, channels and time."""

    def __init__(self, file: File, number: int) -> None:
        self.file = file
        self.number = number  # 1-based over all data groups
        self._handle: Optional[int] = None
        self._token: Optional[object] = None
        self._owner: Optional[object] = None
        self._channels: Optional[ChannelList] = None
        self._table: Optional[_ChannelTable] = None
        self._count = 0
        self._count_token: Optional[object] = None

    def _h(self) -> int:
        """The group handle, opened when first needed; call with the lock held."""
        fh = self.file._h()
        if self.file.mode == "w":
            # Opening a group of a file being created would create another group.
            raise ValueError(f"{self.file.path}: groups of a file being written are read "
                             "after it is closed")
        open_groups = self.file._open_groups
        if self._handle is None or self._owner is not self.file._token:
            handle = c_void_p()
            mode = 1 if self.file.mode == "r+" else 0
            check(_lib.lib().mdfGrpOpen(byref(handle), fh, self.number, mode),
                  f"{self.file.path} group {self.number}", fail=(Status.GROUP_NOT_FOUND,))
            self._handle = handle.value
            self._owner = self.file._token
            self._token = object()
            open_groups[self.number] = self
            # A few groups stay open: each keeps its channels and up to 16 MiB of records
            # in the library, and the library's lists of open handles stay short.
            while len(open_groups) > MAX_OPEN_GROUPS:
                _, oldest = open_groups.popitem(last=False)
                oldest._release()
        else:
            open_groups.move_to_end(self.number)
        return self._handle

    def _release(self) -> None:
        """Closes the library's group handle (with its channels); opened again when used."""
        handle, self._handle, self._token = self._handle, None, None
        if handle is not None and self._owner is self.file._token:
            check(_lib.lib().mdfGrpClose(handle), repr(self))

    def __repr__(self) -> str:
        return f"<korvel.Group {self.number} of {self.file.path!r}>"

    @property
    def records(self) -> int:
        """Number of records."""
        with lock:
            return self._records()

    def _records(self) -> int:
        """The record count, asked once per group handle (reading and modifying in place
        never change it); call with the lock held."""
        h = self._h()
        if self._count_token is not self._token:
            n = c_uint32()
            check(_lib.lib().mdfGrpRecords(byref(n), h), repr(self))
            self._count, self._count_token = n.value, self._token
        return self._count

    def __len__(self) -> int:
        return self.records

    @property
    def comment(self) -> str:
        with lock:
            text = c_void_p()
            check(_lib.lib().mdfGrpGetText(self._h(), byref(text)), repr(self))
            return c_text(text.value)

    @property
    def channels(self) -> "ChannelList":
        """The channels, time channel included, by index (0-based) or by name."""
        with lock:
            if self._channels is None:
                n = len(self._channel_table().handles)
                self._channels = ChannelList([Channel(self, i) for i in range(1, n + 1)])
            return self._channels

    def _channel_table(self) -> "_ChannelTable":
        """Every channel opened in the current group handle, with its name, type, bits and
        data type, in three library calls for the whole group (a group may have thousands
        of channels); call with the lock held."""
        gh = self._h()
        table = self._table
        if table is not None and table.token is self._token:
            return table
        L = _lib.lib()
        count = c_uint16()
        check(L.mdfGrpChannels(byref(count), gh), repr(self))
        n = count.value
        handles = (c_void_p * n)()
        kinds, bits, types = (c_uint16 * n)(), (c_uint16 * n)(), (c_uint16 * n)()
        names = ctypes.create_string_buffer(33 * n)
        if n:
            check(L.mdfGrpOpenChannels(handles, gh, 1, n), repr(self))
            check(L.mdfChnGetInfoArrays(kinds, bits, types, names, handles, n), repr(self))
        self._table = _ChannelTable(self._token, handles, names.raw, list(kinds), list(bits),
                                    list(types))
        return self._table

    def __getitem__(self, key: Union[int, str]) -> "Channel":
        return self.channels[key]

    @property
    def time_channel(self) -> Optional["Channel"]:
        """The group's time channel (the last channel of type time), None if it has none."""
        found = [c for c in self.channels if c.is_time]
        return found[-1] if found else None

    @property
    def time(self) -> Optional[np.ndarray]:
        """Time of every record in seconds (float64), None without a time channel."""
        return self.read_time()

    def read_time(self, first: int = 0, count: Optional[int] = None) -> Optional[np.ndarray]:
        """Times of records first .. first+count-1 (to the end when count is None)."""
        with lock:
            if self.time_channel is None:
                return None
            L = _lib.lib()
            h = self._h()
            count = _span(self._records(), first, count)
            out = np.empty(count, dtype=np.float64)
            done = c_uint32()
            status = L.mdfGrpReadTimeArray(out.ctypes.data, byref(done), h, first, count)
            _check_values(status, repr(self))
            return out[: done.value]

    def arrays(self, raw: bool = False) -> Dict[str, np.ndarray]:
        """Every channel's values, by name in channel order (a repeated name gets "_"
        appended), as :meth:`Channel.values` gives them. Physical values of all numeric
        channels are read into one block in one library call."""
        with lock:
            table = self._channel_table()
            records = self._records()
            result: Dict[str, np.ndarray] = {}
            rows = [] if raw else table.numeric
            if rows:
                block = np.empty((len(rows), records), dtype=np.float64)
                done = c_uint32()
                status = _lib.lib().mdfChnReadPhyArrays(block.ctypes.data, byref(done),
                                                        table.numeric_handles, len(rows), 0,
                                                        records)
                if status not in (0, Status.END_OF_GROUP):
                    # Read again channel by channel, so that the status names its channel.
                    read = _lib.lib().mdfChnReadPhyArray
                    for row, i in enumerate(rows):
                        status = read(block[row].ctypes.data, byref(done), table.handles[i], 0,
                                      records)
                        if status != 0:
                            _check_values(status, self.channels[i]._where())
                if done.value < records:
                    block = block[:, : done.value]
                result = dict(zip(table.numeric_keys, block))
            if len(result) == len(table.keys):
                return result
            for i, key in enumerate(table.keys):
                if key not in result:
                    result[key] = self.channels[i].values(raw=raw)
            return {key: result[key] for key in table.keys}

    def to_pandas(self, raw: bool = False):
        """The group as a pandas DataFrame: index the time (named after the time channel;
        a plain range without one), one column per other channel (strings and byte
        arrays as Python bytes)."""
        import pandas as pd

        time_channel = self.time_channel
        columns: Dict[str, np.ndarray] = {}
        arrays = self.arrays(raw=raw)
        for ch, (name, values) in zip(self.channels, arrays.items()):
            if ch is time_channel:
                continue
            if values.dtype.kind == "V":  # pandas handles no void arrays: Python bytes
                values = np.array([v.tobytes() for v in values] or [], dtype=object)
            elif values.dtype.kind == "S":
                values = values.astype(object)
            columns[name] = values
        if time_channel is not None:
            index = pd.Index(self.time, name=time_channel.name)
        else:
            index = pd.RangeIndex(self.records)
        return pd.DataFrame(columns, index=index)


@functools.lru_cache(maxsize=None)
def _dtype_of(data_type: int, bits: int) -> np.dtype:
    """The numpy type of raw values of a data type and bit count."""
    if data_type in _SIGNED:
        return _int_dtype(bits, True)
    if data_type in _UNSIGNED:
        return _int_dtype(bits, False)
    if data_type == STRING:
        return np.dtype(f"S{max(bits // 8, 1)}")
    if data_type == BYTES:
        return np.dtype(f"V{max(bits // 8, 1)}")
    if data_type in (2, 11, 15) or (data_type == 4 and bits == 32):
        return np.dtype(np.float32)
    return np.dtype(np.float64)


def _span(records: int, first: int, count: Optional[int]) -> int:
    if first < 0:
        raise IndexError(f"first record {first} is negative")
    if count is None:
        count = max(records - first, 0)
    if count < 0:
        raise ValueError(f"count {count} is negative")
    if first > 0xFFFFFFFF or count > 0xFFFFFFFF:
        raise IndexError("record indexes are 32-bit")
    return count


class _ChannelTable:
    """The channels of one group handle: their handles, names and types, and which of them
    are numeric (read into one block of physical values)."""

    __slots__ = ("token", "handles", "names", "kinds", "bits", "types", "keys", "numeric",
                 "numeric_keys", "numeric_handles")

    def __init__(self, token: object, handles, names: bytes, kinds: List[int],
                 bits: List[int], types: List[int]) -> None:
        self.token = token
        self.handles = handles
        # 33 bytes a name: the name, then zeros (a name holds no zero byte).
        text = names.decode("latin-1")
        self.names = [text[i:i + 33].rstrip("\0") for i in range(0, len(text), 33)]
        self.kinds, self.bits, self.types = kinds, bits, types
        keys = self.names
        if len(set(keys)) != len(keys):
            keys, taken = [], set()
            for name in self.names:
                while name in taken:  # channel names need not be unique
                    name += "_"
                keys.append(name)
                taken.add(name)
        self.keys = keys
        self.numeric = [i for i, t in enumerate(types) if t != STRING and t != BYTES]
        self.numeric_keys = [keys[i] for i in self.numeric]
        if len(self.numeric) == len(types):
            self.numeric_handles = handles
        else:
            self.numeric_handles = (c_void_p * len(self.numeric))(
                *[handles[i] for i in self.numeric])


class ChannelList(Sequence["Channel"]):
    """The channels of a group: an index gives the channel at that place, a name the
    channel of that name (exact, then ignoring case)."""

    def __init__(self, channels: List["Channel"]) -> None:
        self._channels = channels

    def __len__(self) -> int:
        return len(self._channels)

    @overload
    def __getitem__(self, key: int) -> "Channel": ...

    @overload
    def __getitem__(self, key: str) -> "Channel": ...

    @overload
    def __getitem__(self, key: slice) -> List["Channel"]: ...

    def __getitem__(self, key):
        if isinstance(key, str):
            for exact in (True, False):
                ch = self._find(key, exact)
                if ch is not None:
                    return ch
            raise KeyError(f"no channel named {key!r}")
        return self._channels[key]

    def __iter__(self) -> Iterator["Channel"]:
        return iter(self._channels)

    def __contains__(self, key) -> bool:
        if isinstance(key, str):
            return self._find(key, True) is not None or self._find(key, False) is not None
        return key in self._channels

    def _find(self, name: str, exact: bool) -> Optional["Channel"]:
        folded = name.casefold()
        for ch in self._channels:
            if (ch.name == name) if exact else (ch.name.casefold() == folded):
                return ch
        return None

    def names(self) -> List[str]:
        return [c.name for c in self._channels]

    def __repr__(self) -> str:
        return f"<korvel.ChannelList {self.names()}>"


class Channel:
    """One channel of a group with its properties and values."""

    def __init__(self, group: Group, index: int) -> None:
        self.group = group
        self.index = index  # 1-based within the group, time channel included
        self._props: Optional[Dict[str, object]] = None

    def _h(self) -> int:
        """The channel handle, opened with its group's channels when first needed; call with
        the lock held."""
        handle = self.group._channel_table().handles[self.index - 1]
        if handle is None:  # the group's chain ends before its channel count
            check(Status.CHANNEL_NOT_FOUND, self._where(), fail=(Status.CHANNEL_NOT_FOUND,))
        return handle

    def _where(self) -> str:
        return f"{self.group.file.path} group {self.group.number} channel {self.index}"

    def __repr__(self) -> str:
        return f"<korvel.Channel {self.name!r} ({self.data_type_name}, {self.bits} bits)>"

    # -- properties ------------------------------------------------------------------------------

    def _properties(self) -> Dict[str, object]:
        """Name, type, bits and data type: asked once, in one call (reading values needs
        no more)."""
        if self._props is not None:
            return self._props
        with lock:
            t = self.group._channel_table()
            i = self.index - 1
            self._props = {"name": t.names[i], "is_time": t.kinds[i] == 1, "bits": t.bits[i],
                           "data_type": t.types[i]}
            return self._props

    def _details(self) -> Dict[str, object]:
        """The other properties, asked once when one of them is first wanted."""
        p = self._properties()
        if "unit" in p:
            return p
        with lock:
            L = _lib.lib()
            h = self._h()
            where = self._where()
            desc, text = c_void_p(), c_void_p()
            check(L.mdfChnGetInfo(h, None, None, None, None, byref(desc), byref(text)), where)
            d: Dict[str, object] = {"description": c_text(desc.value),
                                    "comment": c_text(text.value)}
            extra, long_name, display_name = c_uint16(), c_void_p(), c_void_p()
            check(L.mdfChnGetInfoExt(h, byref(extra), byref(long_name), byref(display_name)),
                  where)
            d["long_name"] = c_text(long_name.value)
            d["display_name"] = c_text(display_name.value)
            bit, byte = c_uint8(), c_uint32()
            check(L.mdfChnGetBitAndByteOffset(h, byref(bit), byref(byte)), where)
            d["bit_offset"] = byte.value * 8 + bit.value
            raster = c_double()
            check(L.mdfChnGetRaster(h, byref(raster)), where)
            d["raster"] = raster.value
            rule, unit, params = c_uint16(), c_void_p(), c_void_p()
            status = L.mdfChnGetForm(h, byref(rule), byref(unit), byref(params))
            check(status, where)
            if status == Status.NO_FORMULA:
                d["conversion_type"] = None
            else:
                d["conversion_type"] = rule.value
            d["unit"] = fixed_text(unit.value, 20) if status != Status.NO_FORMULA else ""
            p.update(d)
            return p

    @property
    def name(self) -> str:
        return self._properties()["name"]  # type: ignore[return-value]

    @property
    def description(self) -> str:
        return self._details()["description"]  # type: ignore[return-value]

    @property
    def comment(self) -> str:
        return self._details()["comment"]  # type: ignore[return-value]

    @property
    def long_name(self) -> str:
        return self._details()["long_name"]  # type: ignore[return-value]

    @property
    def display_name(self) -> str:
        return self._details()["display_name"]  # type: ignore[return-value]

    @property
    def is_time(self) -> bool:
        """Whether this is a time channel (channel type 1)."""
        return self._properties()["is_time"]  # type: ignore[return-value]

    @property
    def bits(self) -> int:
        return self._properties()["bits"]  # type: ignore[return-value]

    @property
    def bit_offset(self) -> int:
        """Position of the value's first bit in the record data."""
        return self._details()["bit_offset"]  # type: ignore[return-value]

    @property
    def data_type(self) -> int:
        """The signal data type code (0 .. 16) of the channel block."""
        return self._properties()["data_type"]  # type: ignore[return-value]

    @property
    def data_type_name(self) -> str:
        return DATA_TYPE_NAMES.get(self.data_type, f"type {self.data_type}")

    @property
    def conversion_type(self) -> Optional[int]:
        """The conversion rule type (0 .. 12, 65535), None when the channel has no rule."""
        return self._details()["conversion_type"]  # type: ignore[return-value]

    @property
    def unit(self) -> str:
        return self._details()["unit"]  # type: ignore[return-value]

    @property
    def raster(self) -> float:
        return self._details()["raster"]  # type: ignore[return-value]

    @property
    def conversion_parameters(self) -> Tuple[float, ...]:
        """The parameters of a linear (2), polynomial or rational (6), exponential or
        logarithmic (7) rule; () for other rules."""
        counts = {0: 2, 6: 6, 9: 6, 7: 7, 8: 7}
        rule = self.conversion_type
        n = counts.get(rule, 0) if rule is not None else 0
        if n == 0:
            return ()
        with lock:
            rule, params = c_uint16(), c_void_p()
            check(_lib.lib().mdfChnGetForm(self._h(), byref(rule), None, byref(params)),
                  self._where())
            if not params.value:
                return ()
            return tuple(np.frombuffer(ctypes.string_at(params.value, 8 * n), dtype="<f8"))

    @property
    def value_table(self) -> Union[Dict[float, str], List[Tuple[float, float, str]], None]:
        """The texts of a value-to-text rule: {raw value: text} for a verbal table, a list
        of (lower, upper, text) for a verbal range table, None for other rules."""
        if self.conversion_type not in (11, 12):
            return None
        with lock:
            L = _lib.lib()
            h = self._h()
            rule, count, entries = c_uint16(), c_void_p(), c_void_p()
            if self.conversion_type == 11:
                check(L.mdfChnGetFormVTab(h, byref(rule), None, byref(count), byref(entries)),
                      self._where())
                n = _u16_at(count.value)
                table: Dict[float, str] = {}
                for i in range(n):
                    entry = ctypes.string_at(entries.value + 40 * i, 40)
                    value = float(np.frombuffer(entry[:8], dtype="<f8")[0])
                    table[value] = entry[8:].split(b"\0", 1)[0].decode("latin-1")
                return table
            offset, factor = c_double(), c_double()
            check(L.mdfChnGetFormVTabR(h, byref(rule), None, byref(offset), byref(factor),
                                       byref(count), byref(entries)), self._where())
            n = _u16_at(count.value)
            ranges: List[Tuple[float, float, str]] = []
            for i in range(n):
                entry = ctypes.string_at(entries.value + 20 * i, 16)
                low, high = np.frombuffer(entry, dtype="<f8")
                text = c_void_p()
                check(L.mdfChnGetFormVTabText(h, i, byref(text)), self._where())
                ranges.append((float(low), float(high), c_text(text.value)))
            return ranges

    # -- values ----------------------------------------------------------------------------------

    def raw_dtype(self) -> np.dtype:
        """The numpy type of the channel's raw values."""
        p = self._properties()
        if "dtype" not in p:
            p["dtype"] = _dtype_of(p["data_type"], p["bits"])  # type: ignore[arg-type]
        return p["dtype"]  # type: ignore[return-value]

    def values(self, first: int = 0, count: Optional[int] = None,
               raw: bool = False) -> np.ndarray:
        """Values of records first .. first+count-1 (all records from `first` when count is
        None) as a numpy array.

        Physical values (raw=False) are float64 through the channel's conversion rule.
        Raw values keep the channel's type: integers in the smallest numpy integer type
        holding its bits, float32 or float64. Strings (both ways) are numpy bytes (``S``,
        trailing zeros dropped on access), byte arrays numpy void (``V``, every byte kept).
        """
        dtype = self.raw_dtype()
        with lock:
            L = _lib.lib()
            h = self._h()
            count = _span(self.group._records(), first, count)
            done = c_uint32()
            where = self._where()
            if dtype.kind in "SV":
                out = np.zeros(count, dtype=dtype)
                status = L.mdfChnReadBytesArray(out.ctypes.data, dtype.itemsize,
                                                byref(done), h, first, count)
            elif not raw:
                out = np.empty(count, dtype=np.float64)
                status = L.mdfChnReadPhyArray(out.ctypes.data, byref(done), h,
                                              first, count)
            elif dtype.kind in "iu":
                out = np.empty(count, dtype=np.uint64)
                status = L.mdfChnReadHexIntArray(out.ctypes.data, byref(done), h,
                                                 first, count)
            else:
                out = np.empty(count, dtype=np.float64)
                status = L.mdfChnReadHexArray(out.ctypes.data, byref(done), h,
                                              first, count)
            _check_values(status, where)
            out = out[: done.value]
        if raw and dtype.kind == "i":
            return out.view(np.int64).astype(dtype)
        if raw and dtype.kind in "uf" and out.dtype != dtype:
            return out.astype(dtype)
        return out

    def __len__(self) -> int:
        return self.group.records

    def __array__(self, dtype=None, copy=None) -> np.ndarray:
        values = self.values()
        return values if dtype is None else values.astype(dtype)


def _check_values(status: int, where: str) -> None:
    """Statuses of the array reads: 1 (the group ended early) is a notice; 1021 (a
    conversion rule the library cannot apply: the values are raw) a warning; 1016 and
    1020 (the layout cannot be read) raise, as errors do."""
    if status == Status.UNSUPPORTED_RULE:
        warnings.warn(f"{where}: unsupported conversion rule, values are raw values",
                      RuntimeWarning, stacklevel=3)
        return
    check(status, where, fail=(Status.NOT_BYTE_ALIGNED, Status.UNSUPPORTED_TYPE))


def _u16_at(address: Optional[int]) -> int:
    if not address:
        return 0
    return int(np.frombuffer(ctypes.string_at(address, 2), dtype="<u2")[0])


def open(path: Union[str, os.PathLike], mode: str = "r") -> File:  # noqa: A001
    """Opens an MDF file: mode "r" reads, "r+" modifies in place, "w" creates (an existing
    file is replaced). Use it as a context manager::

        with korvel.open("run42.mdf") as f:
            speed = f.groups[0]["speed"].values()
    """
    return File(path, mode)
