"""Sorting (progress, abort, Ctrl-C), the text dump and `python -m korvel info`."""
import subprocess
import sys
from pathlib import Path

import pytest

import korvel
from conftest import needs_bulk, needs_sort


def test_dump_returns_the_text(sample):
    path = sample("asam_3.30")
    text = korvel.dump(path)
    assert text.startswith(f"Datei {path}\n") and "HDBLOCK" in text
    assert text.count("CGBLOCK") == 3 and "u8_vtab" in text
    hex_text = korvel.dump(path, hex=True)
    assert len(hex_text) > len(text)
    # Each dump returns its own text only.
    assert korvel.dump(path) == text


def test_dump_of_a_missing_file_raises(tmp_path):
    with pytest.raises(korvel.FileAccessError):
        korvel.dump(tmp_path / "missing.mdf")
    with pytest.raises(korvel.FileAccessError):
        korvel.is_sorted(tmp_path / "missing.mdf")


@needs_sort
def test_sort_into_a_target_with_progress(sample, tmp_path):
    src = sample("mdflib_unsorted")
    before = src.read_bytes()
    dst = tmp_path / "sorted.mdf"
    seen = []
    assert not korvel.is_sorted(src)
    assert korvel.sort(src, dst, progress=seen.append) == korvel.Status.OK
    assert src.read_bytes() == before and korvel.is_sorted(dst)
    # Reports are throttled to one per 500 ms, so a sort this short may report nothing.
    assert seen == sorted(seen) and all(0 <= p <= 100 for p in seen)
    with korvel.open(dst) as f, korvel.open(sample("mdflib_sorted")) as g:
        assert [x.channels.names() for x in f.groups] == [x.channels.names() for x in g.groups]
        assert [x.records for x in f.groups] == [x.records for x in g.groups]
    assert korvel.sort(dst) == korvel.Status.ALREADY_SORTED


@needs_sort
@needs_bulk
def test_sort_in_place_keeps_the_values(sample):
    src = sample("mdflib_unsorted")
    with korvel.open(src) as f:
        before = [c.values().tobytes() for g in f.groups for c in g.channels]
    assert korvel.sort(src) == korvel.Status.OK
    with korvel.open(src) as f:
        assert f.is_sorted
        assert [c.values().tobytes() for g in f.groups for c in g.channels] == before


def test_info_entry_point(sample):
    path = sample("asam_3.30")
    run = subprocess.run([sys.executable, "-m", "korvel", "info", str(path)],
                         capture_output=True, text=True, cwd=Path(korvel.__file__).parents[1])
    assert run.returncode == 0, run.stderr
    assert "group 3: 1000 records, 12 channels, 'misc'" in run.stdout
    assert "u16_formula" in run.stdout
    missing = subprocess.run([sys.executable, "-m", "korvel", "info", str(path) + "x"],
                             capture_output=True, text=True, cwd=Path(korvel.__file__).parents[1])
    assert missing.returncode == 1 and "could not open file" in missing.stderr


def _unsorted_copies(sample_path: Path, target: Path, copies: int) -> None:
    """The unsorted sample with its records repeated `copies` times (its records end the
    file) and the cycle counts of its channel groups raised to match."""
    import struct
    data = bytearray(sample_path.read_bytes())
    dg = struct.unpack_from("<I", data, 64 + 4)[0]
    start = struct.unpack_from("<I", data, dg + 16)[0]
    cg = struct.unpack_from("<I", data, dg + 8)[0]
    while cg:
        count = struct.unpack_from("<I", data, cg + 22)[0]
        struct.pack_into("<I", data, cg + 22, count * copies)
        cg = struct.unpack_from("<I", data, cg + 4)[0]
    with open(target, "wb") as f:
        f.write(data)
        for _ in range(copies - 1):
            f.write(data[start:])


@needs_sort
@pytest.mark.parametrize("stop", ["exception", "ctrl-c"])
def test_stopping_a_sort_leaves_the_source(sample, tmp_path, stop):
    import hashlib
    import signal

    class Stop(Exception):
        pass

    def first_report(percent):
        if percent >= 100:  # the closing report: the run is over and cannot be stopped
            return
        if stop == "ctrl-c":
            signal.raise_signal(signal.SIGINT)
        else:
            raise Stop

    src = tmp_path / "big.mdf"
    expected = KeyboardInterrupt if stop == "ctrl-c" else Stop
    # Reports come at most every 500 ms: a sort that ends sooner is tried on a larger file.
    for copies in (1500, 4500, 13500):
        _unsorted_copies(sample("mdflib_unsorted"), src, copies)
        digest = hashlib.sha256(src.read_bytes()).digest()
        try:
            korvel.sort(src, progress=first_report)
        except expected:
            assert hashlib.sha256(src.read_bytes()).digest() == digest
            assert not [p for p in tmp_path.iterdir() if p.name.startswith("KORVEL")]
            return
    pytest.fail("no sort lasted long enough to be stopped")
