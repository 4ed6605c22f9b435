"""Shared fixtures: the sample files (copied before use, never opened in place), files
written by the package, and whether the library has the bulk and sort functions."""
import os
import shutil
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from korvel import _lib  # noqa: E402

SAMPLES = Path(os.environ.get("KORVEL_SAMPLES",
                              Path(__file__).resolve().parents[3] / "shared" / "samples"))


def sample_stems():
    return sorted(p.stem for p in SAMPLES.glob("*.mdf") if p.with_suffix(".json").exists())


def has(name: str) -> bool:
    return _lib.lib().has(name)


BULK = ["mdfChnReadPhyArray", "mdfChnReadHexArray", "mdfChnReadHexIntArray",
        "mdfGrpReadTimeArray", "mdfChnReadBytesArray"]
needs_bulk = pytest.mark.skipif(not all(has(n) for n in BULK),
                                reason="the library does not export the bulk reads")
needs_sort = pytest.mark.skipif(not has("mdfSortWithProgress"),
                                reason="the library does not export sorting")


@pytest.fixture
def sample(tmp_path):
    """Copies a sample (and its description) into a scratch directory."""
    def copy(stem: str) -> Path:
        for suffix in (".mdf", ".json"):
            shutil.copyfile(SAMPLES / (stem + suffix), tmp_path / (stem + suffix))
        target = tmp_path / (stem + ".mdf")
        target.chmod(0o644)
        return target
    return copy


@pytest.fixture(autouse=True)
def in_scratch_dir(tmp_path, monkeypatch):
    """Every test runs in its own directory, which must not get a KORVEL.LOG."""
    monkeypatch.chdir(tmp_path)
    yield
    assert not (tmp_path / "KORVEL.LOG").exists()
