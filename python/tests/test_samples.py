"""Every sample of an independent writer, read into arrays and compared with what an
independent reader read from it (the JSON beside each sample)."""
import json
import math

import numpy as np
import pytest

import korvel
from conftest import needs_bulk, sample_stems

STEMS = sample_stems()


def test_samples_are_there():
    assert STEMS


def groups_of(path):
    doc = json.loads(path.with_suffix(".json").read_text())
    return doc["groups"]


@pytest.mark.parametrize("stem", STEMS)
def test_layout_matches(sample, stem):
    path = sample(stem)
    want = groups_of(path)
    with korvel.open(path) as f:
        assert len(f.groups) == len(want)
        for g, wg in zip(f.groups, want):
            assert (g.records, g.comment, len(g.channels)) == (
                wg["cycles"], wg["comment"], len(wg["channels"]))
            for c, wc in zip(g.channels, wg["channels"]):
                assert (c.name, c.is_time, c.data_type, c.bits, c.bit_offset) == (
                    wc["name"], wc["master"], wc["mdf3_data_type"], wc["bit_count"],
                    wc["bit_offset"])
                assert c.conversion_type == wc["conversion_type"]
                if c.conversion_type is not None:
                    assert c.unit == wc["unit"]


def exp_log_rule(rule, p, x):
    """The exponential (7) and logarithmic (8) rules by this library's formulas (the
    independent reader swaps exp and ln)."""
    f = math.log if rule == 7 else math.exp
    v = x - p[6]
    if p[3] == 0:
        return 0.0 if p[0] == 0 or p[1] == 0 else f((v * p[5] - p[2]) / p[0]) / p[1]
    if p[0] != 0 or math.isnan(p[0]):
        return x
    if p[4] == 0 or v == 0:
        return 0.0
    return f((p[2] / v - p[5]) / p[3]) / p[4]


def text_of(channel, raw):
    table = channel.value_table
    if isinstance(table, dict):
        return table.get(raw, "")
    # The writer keeps a default text in entry 0 and the ranges after it.
    for low, high, text in table[1:]:
        if low <= raw <= high:
            return text
    return table[0][2] if table else ""


def as_json(values, channel):
    if channel.data_type == 7:
        return [v.decode("latin-1") for v in values]
    if channel.data_type == 8:
        return [v.tobytes().hex() for v in values]
    return values.tolist()


@needs_bulk
@pytest.mark.parametrize("stem", STEMS)
def test_values_match(sample, stem):
    path = sample(stem)
    want = groups_of(path)
    with korvel.open(path) as f:
        for g, wg in zip(f.groups, want):
            n = g.records
            arrays = g.arrays()
            for c, wc, whole in zip(g.channels, wg["channels"], arrays.values()):
                where = f"{stem} group {g.number} {c.name}"
                raw, phys = c.values(raw=True), c.values()
                assert len(raw) == len(phys) == n, where
                assert whole.tobytes() == phys.tobytes(), where
                tail = len(wc["raw_last"])
                assert as_json(raw[:20], c) == wc["raw_first"], where
                assert as_json(raw[n - tail:], c) == wc["raw_last"], where
                # A window read gives the same values as the whole.
                assert as_json(c.values(n - tail, tail, raw=True), c) == wc["raw_last"], where
                rows = list(range(20)) + list(range(n - tail, n))
                want_phys = wc["phys_first"] + wc["phys_last"]
                rule = c.conversion_type
                for r, w in zip(rows, want_phys):
                    got = phys[r]
                    if c.data_type in (7, 8):
                        assert as_json(phys[r:r + 1], c) == [w], where
                    elif rule in (7, 8):
                        p = c.conversion_parameters
                        assert got == exp_log_rule(rule, p, float(raw[r])), where
                    elif rule in (11, 12):
                        assert got == float(raw[r]) and text_of(c, float(raw[r])) == w, where
                    else:
                        assert got == w, f"{where} record {r}"
                if c.is_time:
                    assert np.array_equal(g.time, phys), where
