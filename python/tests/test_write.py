"""Groups written from numpy arrays of every supported type, read back."""
import numpy as np
import pytest

import korvel
from conftest import needs_bulk

N = 257
rng = np.random.default_rng(7)


def ints(dtype):
    info = np.iinfo(dtype)
    values = rng.integers(info.min, info.max, size=N, dtype=dtype, endpoint=True)
    values[:2] = info.min, info.max
    return values


# numpy values -> (data type code, bits, numpy type of the raw values read back)
CASES = {
    "u8": (ints(np.uint8), 0, 8, "u1"),
    "u16": (ints(np.uint16), 0, 16, "u2"),
    "u32": (ints(np.uint32), 0, 32, "u4"),
    "u64": (ints(np.uint64), 0, 64, "u8"),
    "i8": (ints(np.int8), 1, 8, "i1"),
    "i16": (ints(np.int16), 1, 16, "i2"),
    "i32": (ints(np.int32), 1, 32, "i4"),
    "i64": (ints(np.int64), 1, 64, "i8"),
    "f32": (rng.standard_normal(N).astype(np.float32), 2, 32, "f4"),
    "f64": (np.r_[np.inf, -np.inf, 5e-324, rng.standard_normal(N - 3)], 3, 64, "f8"),
    "bool": (rng.integers(0, 2, N).astype(bool), 0, 1, "u1"),
    "be_i16": (ints(np.int16).astype(">i2"), 10, 16, "i2"),
    "be_u32": (ints(np.uint32).astype(">u4"), 9, 32, "u4"),
    "be_f32": (rng.standard_normal(N).astype(">f4"), 11, 32, "f4"),
    "be_f64": (rng.standard_normal(N).astype(">f8"), 12, 64, "f8"),
    "text": (np.array([f"s{i}" * (i % 4) for i in range(N)], dtype="S9"), 7, 72, "S9"),
    "str": (np.array([f"ä{i}" for i in range(N)]), 7, 32, "S4"),
    "bytes": (rng.integers(0, 256, (N, 3), dtype=np.uint8).view("V3").ravel(), 8, 24, "V3"),
    "bytes2d": (rng.integers(0, 256, (N, 5), dtype=np.uint8), 8, 40, "V5"),
}


def expected(name):
    values, _, _, dtype = CASES[name]
    if name == "str":
        return np.array([s.encode("latin-1") for s in values], dtype="S4")
    if name == "bytes2d":
        return values.view("V5").ravel()
    return values.astype(dtype)


@pytest.fixture
def written(tmp_path):
    time = np.arange(N) * 0.01 + 3.0
    path = tmp_path / "written.mdf"
    with korvel.open(path, "w") as f:
        f.set_header(author="pytest", project="round trip", comment="every dtype")
        f.add_group(time, {name: case[0] for name, case in CASES.items()}, comment="all")
        f.add_group(None, [korvel.Signal("volts", np.arange(N, dtype=np.int16) - 100,
                                         unit="V", factor=0.25, offset=-2.0,
                                         description="supply", comment="scaled")])
    return path, time


def test_layout_and_header(written):
    path, _ = written
    with korvel.open(path) as f:
        assert (f.author, f.project, f.comment) == ("pytest", "round trip", "every dtype")
        # A created group goes to the head of the file's list.
        scaled, group = f.groups
        assert (group.comment, group.records, scaled.records) == ("all", N, N)
        assert group.time_channel.name == "time" and scaled.time_channel is None
        got = {c.name: (c.data_type, c.bits) for c in group.channels if not c.is_time}
        assert got == {name: case[1:3] for name, case in CASES.items()}
        volts = scaled["VOLTS"]  # names ignore case when nothing matches exactly
        assert (volts.unit, volts.conversion_type, volts.conversion_parameters) == (
            "V", 0, (-2.0, 0.25))
        assert (volts.description, volts.comment) == ("supply", "scaled")


@needs_bulk
def test_values_round_trip(written):
    path, time = written
    with korvel.open(path) as f:
        scaled, group = f.groups
        assert np.array_equal(group.time, time)
        for name in CASES:
            raw = group[name].values(raw=True)
            want = expected(name)
            assert raw.dtype == want.dtype, name
            assert raw.tobytes() == want.tobytes(), name
        volts = scaled["volts"]
        assert np.array_equal(volts.values(), -2.0 + 0.25 * (np.arange(N) - 100))
        assert np.array_equal(volts.values(10, 5, raw=True), np.arange(10, 15) - 100)


@needs_bulk
def test_to_pandas(written):
    pd = pytest.importorskip("pandas")
    path, time = written
    with korvel.open(path) as f:
        scaled, group = f.groups
        frame = group.to_pandas()
        assert list(frame.columns) == list(CASES)
        assert frame.index.name == "time" and np.array_equal(frame.index, time)
        assert np.array_equal(frame["i16"], CASES["i16"][0].astype(float))
        assert list(frame["bytes"]) == [v.tobytes() for v in CASES["bytes"][0]]
        assert list(frame["text"]) == list(CASES["text"][0]) and repr(frame)
        assert isinstance(scaled.to_pandas().index, pd.RangeIndex)


@pytest.mark.parametrize("bad, error", [
    (np.zeros(N, dtype=np.float16), TypeError),
    (np.zeros(N, dtype=np.complex64), TypeError),
    (np.zeros((N, 2), dtype=np.int32), ValueError),
    (np.zeros(N + 1), ValueError),
])
def test_unsupported_values(tmp_path, bad, error):
    with korvel.open(tmp_path / "bad.mdf", "w") as f:
        with pytest.raises(error):
            f.add_group(np.zeros(N), {"x": bad})
        assert f.groups == []


def test_modes(written, tmp_path):
    path = written[0]
    with korvel.open(path) as f, pytest.raises(ValueError):
        f.add_group(np.zeros(3), {"x": np.zeros(3)})
    with korvel.open(path, "r+") as f:
        f.set_header(project="changed")
        assert f.groups[1].records == N
    with korvel.open(path) as f:
        assert (f.project, f.author) == ("changed", "pytest")
    with korvel.open(tmp_path / "new.mdf", "w") as f:
        f.add_group(np.zeros(3), {"x": np.zeros(3)})
        with pytest.raises(ValueError, match="after it is closed"):
            f.groups[0].records


@needs_bulk
def test_undecodable_channel_is_named(written):
    path, _ = written
    data = bytearray(path.read_bytes())
    at = data.index(b"u16\0") - 26  # the short name lies 26 bytes into the CN block
    assert data[at:at + 2] == b"CN"
    data[at + 190:at + 192] = (99).to_bytes(2, "little")  # a data type no decoder knows
    path.write_bytes(bytes(data))
    with korvel.open(path) as f:
        with pytest.raises(korvel.MdfError) as e:
            f.groups[1].arrays()
        assert e.value.code == korvel.Status.UNSUPPORTED_TYPE and "channel 3" in str(e.value)
