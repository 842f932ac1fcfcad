"""Look-up tables built from Python are the C++ library's tables, bit for bit."""

import gc
import struct

import numpy as np
import pytest

import zorvane
from conftest import random_map


def float_bits(x):
    return struct.unpack("<I", struct.pack("<f", x))[0]


def geometry_of(t):
    return [float_bits(t.resolution), t.grid_size, t.cols, t.rows, t.offset_x, t.offset_y,
            float_bits(t.height_step), float_bits(t.value_step)]


def assert_same_as_cpp(t, cpp):
    geometry, files = cpp
    assert geometry_of(t) == geometry
    assert t.value_table.dtype == np.float32 and t.height_table.dtype == np.float32
    assert t.coarse_cells.dtype == zorvane.COARSE_CELL_DTYPE
    assert t.coarse_cells.shape == (t.rows, t.cols)
    assert t.value_table.tobytes() == files["value_table"]
    assert t.height_table.tobytes() == files["height_table"]
    assert t.coarse_cells.tobytes() == files["coarse_cells"]


# Levels and steps, with map geometries whose blocks are partial at the edges
# and whose offsets are negative, positive and not multiples of the level.
@pytest.mark.parametrize("level, height_step, value_step, offsets", [
    (4, 0.15, 1.0, (-7, 5)),
    (3, 0.05, 2.5, (-1, -9)),
])
def test_table_equals_the_cpp_builder(tmp_path, map_dump, level, height_step, value_step, offsets):
    path = tmp_path / "m.zvmap"
    random_map(seed=level, offset_x=offsets[0], offset_y=offsets[1]).save(path)
    t = zorvane.Map.read(path).look_up_table(level, height_step, value_step)
    assert t.value_table.size > 0 and t.height_table.size > 0
    assert_same_as_cpp(t, map_dump(path, level, height_step, value_step))


def test_table_arrays_are_owned_by_the_table():
    m = random_map(seed=10)
    m.pre_calc()
    t = m.look_up_table(2)
    value, coarse = t.value_table, t.coarse_cells
    assert value.base is t and coarse.base is t
    expected = value.copy()
    del t, m
    gc.collect()
    np.testing.assert_array_equal(value, expected)
    assert coarse.shape[0] > 0


@pytest.mark.parametrize("prepare, arguments, words", [
    (False, (4,), "not prepared"),
    (True, (0,), "level must be at least 1"),
    (True, (2**31,), "level must be at least 1"),
    (True, (4, 0.0), "must be positive finite"),
    (True, (4, 0.15, float("nan")), "must be positive finite"),
])
def test_bad_requests_are_refused(prepare, arguments, words):
    m = random_map(seed=11)
    if prepare:
        m.pre_calc()
    with pytest.raises(ValueError, match=words):
        m.look_up_table(*arguments)
