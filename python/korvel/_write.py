"""Writing channel groups from numpy arrays into a file created with mode "w".

Supported numpy types and the channels they become:

========================  ==================================================
numpy                     channel (data type, bits)
========================  ==================================================
bool                      unsigned integer, 1 bit
uint8 .. uint64           unsigned integer, 8 .. 64 bits
int8 .. int64             signed integer, 8 .. 64 bits
float32, float64          IEEE float, 32 / 64 bits
``S<n>``, str (``U``)     string, n bytes (str encoded as Latin-1)
``V<n>``, 2-D uint8       byte array, n bytes
========================  ==================================================

Arrays in big-endian byte order (``>i4``) become channels of the big-endian data types
(Motorola byte order); native arrays use the file's byte order (little-endian).

Values are raw values; a :class:`Signal` with ``factor``/``offset`` gets a linear
conversion rule, physical = offset + factor * raw, and a unit.
"""
from __future__ import annotations

import ctypes
from ctypes import byref, c_void_p
from dataclasses import dataclass
from typing import List, Mapping, Optional, Sequence, Tuple, Union

import numpy as np

from . import _lib
from ._lib import check, encode_text, lock
from ._mdf import File
from .errors import MdfError

ArrayLike = Union[np.ndarray, Sequence]


@dataclass
class Signal:
    """A channel to write: a name and one raw value per record, with optional linear
    conversion (physical = offset + factor * raw), unit, description and comment."""

    name: str
    values: ArrayLike
    unit: str = ""
    factor: float = 1.0
    offset: float = 0.0
    description: str = ""
    comment: str = ""


def channel_type(values: np.ndarray) -> Tuple[int, int, np.ndarray]:
    """The data type code, bit count and the values as they are handed to the library
    (bool as uint8, str encoded, 2-D uint8 as V, big-endian arrays in native order)."""
    if values.ndim == 2 and values.dtype == np.uint8:
        values = np.ascontiguousarray(values).view(f"V{values.shape[1]}").reshape(-1)
    if values.ndim != 1:
        raise ValueError(f"values must be one-dimensional (got shape {values.shape})")
    dt = values.dtype
    if dt.kind == "U":
        encoded = [s.encode("latin-1") for s in values.tolist()]
        width = max([len(s) for s in encoded] + [1])
        values, dt = np.array(encoded, dtype=f"S{width}"), np.dtype(f"S{width}")
    big = dt.byteorder == ">" or (dt.byteorder == "=" and np.little_endian is False)
    if dt.kind == "b":
        return 0, 1, values.astype(np.uint8)
    if dt.kind in "iu":
        base = 1 if dt.kind == "i" else 0
        code = (10 if base else 9) if big else base
        return code, dt.itemsize * 8, values.astype(dt.newbyteorder("="))
    if dt.kind == "f" and dt.itemsize in (4, 8):
        code = {4: 2, 8: 3}[dt.itemsize] + (9 if big else 0)
        return code, dt.itemsize * 8, values.astype(dt.newbyteorder("="))
    if dt.kind == "S":
        return 7, dt.itemsize * 8, np.ascontiguousarray(values)
    if dt.kind == "V" and dt.fields is None:
        return 8, dt.itemsize * 8, np.ascontiguousarray(values)
    raise TypeError(f"numpy type {dt} has no MDF 3 channel type")


def _signals(channels: Union[Mapping[str, ArrayLike], Sequence[Signal]]) -> List[Signal]:
    if isinstance(channels, Mapping):
        return [Signal(name, values) for name, values in channels.items()]
    return list(channels)


class _Column:
    """A created channel: its handle, place in the record and the values it writes."""

    def __init__(self, handle: int, code: int, bits: int, values: np.ndarray) -> None:
        self.handle = handle
        self.code = code
        self.bits = bits
        self.values = values

    def place(self, L) -> Tuple[int, int]:
        bit, byte = ctypes.c_uint8(), ctypes.c_uint32()
        check(L.mdfChnGetBitAndByteOffset(self.handle, byref(bit), byref(byte)), "channel")
        return byte.value, bit.value

    def field_bytes(self) -> np.ndarray:
        """The values as the bytes of their record fields, one row per record: integers
        and floats in the channel's byte order, texts and byte arrays as they are."""
        v = self.values
        if self.code in (9, 10, 11, 12):
            v = v.astype(v.dtype.newbyteorder(">"))
        elif self.code in (0, 1, 2, 3):
            v = v.astype(v.dtype.newbyteorder("<"))
        v = np.ascontiguousarray(v)
        return v.view(np.uint8).reshape(len(v), v.dtype.itemsize)


def _records(L, columns: List[_Column], size: int, n: int) -> np.ndarray:
    """The records of the group, laid out as the library placed the channels."""
    records = np.zeros((n, size), dtype=np.uint8)
    for c in columns:
        byte, bit = c.place(L)
        if c.bits == 1:
            records[:, byte] |= (c.values.astype(np.uint8) & 1) << bit
            continue
        if bit != 0 or c.bits % 8 != 0:
            raise MdfError(-2011, "fatal error", "",
                           f"channel placed at bit {bit} with {c.bits} bits")
        width = c.bits // 8
        if byte + width > size:
            raise MdfError(-2011, "fatal error", "", "channel placed outside the record")
        records[:, byte:byte + width] = c.field_bytes()
    return records


def add_group(file: File, time: Optional[ArrayLike],
              channels: Union[Mapping[str, ArrayLike], Sequence[Signal]],
              comment: str = "", time_name: str = "time", time_unit: str = "s") -> None:
    """Writes a channel group into a file open in mode "w": a time channel (float64
    seconds, none when `time` is None) and one channel per signal, one record per value.

    The library puts a created group at the head of the file's list of groups, so the
    group added last is group 1 of the file."""
    if file.mode != "w":
        raise ValueError("groups are added to files opened with mode 'w'")
    signals = _signals(channels)
    prepared = []
    for s in signals:
        code, bits, values = channel_type(np.asarray(s.values))
        prepared.append((s, code, bits, values))
    columns_in = [v for _, _, _, v in prepared]
    if time is not None:
        columns_in.append(np.asarray(time, dtype=np.float64))
    lengths = {len(v) for v in columns_in}
    if len(lengths) > 1:
        raise ValueError(f"all values need one length per record (got lengths {sorted(lengths)})")
    if not columns_in:
        raise ValueError("a group needs a time channel or at least one channel")
    records = lengths.pop()
    if records > 0xFFFFFFFF:
        raise ValueError("a group holds at most 2**32 - 1 records")
    with lock:
        L = _lib.lib()
        fh = file._h()
        g = c_void_p()
        check(L.mdfGrpOpen(byref(g), fh, 1, 2), file.path)
        generation = L.generation
        try:
            columns = _create_channels(L, g.value, time, time_name, time_unit, prepared)
            if comment:
                check(L.mdfGrpSetText(g.value, encode_text(comment, "comment")), file.path)
            _append_records(L, g.value, columns, records, file.path)
        except BaseException:
            # Whatever went wrong, the group is closed so the file can be closed; the
            # file then holds what was written up to here. After a library reset the
            # handle is gone already.
            if L.generation == generation:
                L.mdfGrpClose(g.value)
            raise
        check(L.mdfGrpClose(g.value), file.path)
        file._groups = None


def _append_records(L, g: int, columns: List[_Column], n: int, where: str) -> None:
    """Appends the records: each is laid into the group's record buffer in one copy. The
    first channel's Write appends the record before (the first Write only counts), and
    closing the group appends the last one, so the group counts every record."""
    data = c_void_p()
    size = L.mdfGrpBuffer(byref(data), g) - 24
    if size <= 0 or not data.value:
        raise MdfError(-1002, "bad grouphandle", "", where)
    records = _records(L, columns, size, n)
    first = columns[0]
    write_first = L.mdfChnWriteHexInt if first.code in (0, 1, 9, 10) else L.mdfChnWriteHex
    if first.code in (7, 8):
        write_first = None
    base = records.ctypes.data
    memmove = ctypes.memmove
    for i in range(n):
        if write_first is None:
            status = L.mdfChnWriteData(first.handle, base + i * size, 0)
        else:
            status = write_first(first.handle, 0)
        if status != 0:
            check(status, where)
        memmove(data.value, base + i * size, size)


def _create_channels(L, g: int, time, time_name: str, time_unit: str,
                     prepared) -> List[_Column]:
    columns: List[_Column] = []
    if time is not None:
        ch = c_void_p()
        check(L.mdfChnCreate(byref(ch), g, 1, 64, 3, encode_text(time_name, "name")), time_name)
        check(L.mdfChnSetFormLin(ch.value, encode_text(time_unit, "unit"), 0.0, 1.0), time_name)
        columns.append(_Column(ch.value, 3, 64, np.asarray(time, dtype=np.float64)))
    for s, code, bits, values in prepared:
        ch = c_void_p()
        name = encode_text(s.name, "name")
        if name is None or len(name) == 0 or len(name) > 32:
            raise ValueError(f"channel name {s.name!r} must have 1 to 32 characters")
        check(L.mdfChnCreate(byref(ch), g, 0, bits, code, name), s.name)
        if s.unit or s.factor != 1.0 or s.offset != 0.0:
            check(L.mdfChnSetFormLin(ch.value, encode_text(s.unit, "unit"), float(s.offset),
                                     float(s.factor)), s.name)
        if s.description or s.comment:
            check(L.mdfChnSetInfo(ch.value, None, encode_text(s.description or None),
                                  encode_text(s.comment or None)), s.name)
        columns.append(_Column(ch.value, code, bits, values))
    return columns
