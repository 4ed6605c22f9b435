"""Statuses as exceptions, and the library working again after a damaged file."""
import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

import korvel
from korvel import _lib
from conftest import needs_bulk


def damaged(path, size):
    """A copy of a file cut after `size` bytes (blocks then reach past its end)."""
    cut = path.with_name(f"cut{size}.mdf")
    cut.write_bytes(path.read_bytes()[:size])
    return cut


@pytest.mark.parametrize("content, error, code", [
    (None, korvel.FileAccessError, 1000),                      # no such file
    (b"MDF     3.30    " + b"x" * 100, korvel.FileFormatError, -2004),  # not blocks
    ("cut", korvel.FileAccessError, -2001),                    # blocks past the end
])
def test_failures_are_exceptions(sample, tmp_path, content, error, code):
    path = tmp_path / "f.mdf"
    if content == "cut":
        path = damaged(sample("asam_3.30"), 3000)
    elif content is not None:
        path.write_bytes(content)
    with pytest.raises(error) as caught:
        korvel.open(path)
    e = caught.value
    assert (e.code, e.text) == (code, _lib.status_text(code))
    assert isinstance(e, korvel.MdfError) and str(path) in str(e)


def test_the_library_works_again_after_a_damaged_file(sample):
    good = sample("asam_3.30")
    cut = damaged(good, 3000)
    with korvel.open(good) as f, korvel.open(good.with_name("w.mdf"), "w") as w:
        names = f.groups[1].channels.names()
        generation = _lib.lib().generation
        with pytest.raises(korvel.MdfError):
            korvel.open(cut)
        # The sticky error was cleared by reopening the library, which closed every file:
        # a file being read opens again by itself, one being written cannot.
        assert _lib.lib().generation == generation + 1
        assert _lib.lib().mdfGetErrorCode() == 0
        assert f.groups[1].channels.names() == names and f.groups[1].records == 1000
        with pytest.raises(korvel.MdfError, match="reset after an error") as caught:
            w.add_group(np.zeros(2), {"x": np.zeros(2)})
        assert caught.value.code == -1001
    with korvel.open(good) as again:
        assert again.groups[0].comment == "fast"


def test_closed_files_refuse_use(sample):
    f = korvel.open(sample("asam_3.30"))
    group = f.groups[0]
    f.close()
    f.close()
    with pytest.raises(ValueError, match="closed"):
        group.records


def test_missing_names_and_indexes(sample):
    with korvel.open(sample("asam_3.30")) as f:
        with pytest.raises(KeyError):
            f.groups[0]["no such channel"]
        with pytest.raises(KeyError):
            f.channel("no such channel")
        assert f.channel("F64_BE").group.number == 2
        with pytest.raises(IndexError):
            f.groups[0].channels[99]


@needs_bulk
def test_value_windows_are_checked(sample):
    with korvel.open(sample("asam_3.30")) as f:
        c = f.groups[0]["u8_lin"]
        assert len(c.values(995, 100)) == 5 and len(c.values(2000)) == 0
        with pytest.raises(IndexError):
            c.values(-1)


def test_a_library_that_is_not_there_is_named(tmp_path):
    env = dict(os.environ, KORVEL_LIBRARY=str(tmp_path / "libnone.so"))
    code = "import korvel; korvel.library_path()"
    if _lib._matches(str(Path(korvel.__file__).parent)):
        pytest.skip("an installed package uses its own library")
    run = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True,
                         cwd=Path(korvel.__file__).parents[1])
    assert run.returncode != 0
    assert "LibraryNotFoundError" in run.stderr and "libnone.so" in run.stderr


@needs_bulk
def test_calls_from_threads_are_serialised(sample):
    from concurrent.futures import ThreadPoolExecutor
    path = sample("asam_3.30")

    def read_all(_):
        with korvel.open(path) as f:
            return [c.values().tobytes() for g in f.groups for c in g.channels]

    with ThreadPoolExecutor(4) as pool:
        results = list(pool.map(read_all, range(8)))
    assert all(r == results[0] for r in results)
