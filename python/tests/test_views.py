"""The cells and index arrays alias the map's memory; the matrix operations
and layers computed on them."""

import gc
import json
import os
import subprocess
import sys

import numpy as np
import pytest

import zorvane
from conftest import example_map, random_map


def record_bytes(cells):
    """The 52 bytes of each cell's fields, without the padding."""
    return cells.view(np.uint8).reshape(-1, 64)[:, :52].tobytes()


def test_coarse_cell_dtype_names_the_16_byte_record():
    # CELL_DTYPE's fields are shown by the example map's bytes
    # (test_map_files.py); the coarse records are only compared whole there.
    cd = zorvane.COARSE_CELL_DTYPE
    assert cd.itemsize == 16
    assert [(n, str(cd[n]), cd.fields[n][1]) for n in cd.names] == [
        ("value_bins", "uint16", 0), ("value_first", "int16", 2), ("value_offset", "uint32", 4),
        ("height_bins", "uint16", 8), ("height_first", "int16", 10), ("height_offset", "uint32", 12)]


def test_a_change_through_numpy_is_what_save_writes(tmp_path):
    m = example_map()
    cells = m.cells
    assert cells.base is m and m.index.base is m
    cells["value_mean"][0] = (7, 250)
    m.cells[0]["aux_value"] = 3.5  # a second view onto the same memory
    path = tmp_path / "m.zvmap"
    m.save(path)
    back = zorvane.Map.read(path, prepare=False)
    assert back.cells["value_mean"][0].tolist() == [7, 250]
    assert back.cells["aux_value"][0] == np.float32(3.5)


def test_views_keep_their_map_alive():
    m = random_map()
    cells, index = m.cells, m.index
    expected = record_bytes(cells)
    del m
    gc.collect()
    assert record_bytes(cells) == expected
    assert index.base.cols == index.shape[1]


def test_index_is_read_only():
    m = example_map()
    with pytest.raises(ValueError, match="read-only"):
        m.index[0, 0] = 0


def test_pre_calc_and_the_checks_work_on_the_map_in_place():
    # The arithmetic is the C++ tests'; here, that the calls reach the map
    # behind the views, once only, and that a prepared map refuses the check.
    m = random_map(seed=5)
    raw, cells = m.cells.copy(), m.cells
    m.pre_calc()
    m.pre_calc()
    s = raw["value_sigma"]
    assert m.prepared
    np.testing.assert_array_equal(cells["value_sigma"], s * (s + s))
    np.testing.assert_array_equal(cells["height_weight"], raw["height_weight"] / raw["height_sigma"])
    with pytest.raises(ValueError, match="prepared"):
        m.pre_check_small()

    cells = np.zeros(3, zorvane.CELL_DTYPE)
    cells["value_sigma"] = [[2e19, 1], [1, 1], [0.001, 1]]
    cells["height_sigma"] = 1
    m = zorvane.Map.from_arrays(cells, [[0, 1, 2]])
    assert m.pre_check().tolist() == [True, False, False]
    assert m.pre_check_small().tolist() == [False, False, True]
    assert m.cells["value_sigma"][2].tolist() == [np.float32(0.005), 1]


def test_layers_put_mixture_means_where_cells_are_and_nan_elsewhere():
    m = random_map(seed=6)
    index, raw = m.index, m.cells.copy()
    occupied = index >= 0
    cells = raw[index[occupied]]
    for axis in ("value", "height"):
        w, mean = cells[f"{axis}_weight"].astype(float), cells[f"{axis}_mean"].astype(float)
        layer = m.layer(axis)
        assert layer.shape == (m.rows, m.cols) and layer.dtype == np.float32
        assert np.isnan(layer[~occupied]).all()
        np.testing.assert_allclose(layer[occupied], (w * mean).sum(1) / w.sum(1), rtol=1e-6)
    np.testing.assert_array_equal(m.layer("aux_value")[occupied], cells["aux_value"])
    assert np.array_equal(m.layer("occupancy") == 1, occupied)
    # The same means from prepared cells, whose weights are w / s.
    raw_height = m.layer("height")
    m.pre_calc()
    np.testing.assert_allclose(m.layer("height")[occupied], raw_height[occupied], rtol=1e-5, atol=1e-6)
    with pytest.raises(ValueError, match="layer must be one of"):
        m.layer("intensity")


# Run in a child interpreter with one OpenMP thread that sleeps when idle, so
# that the library's parallel loops do not crowd this thread off a small
# machine's cores: what is left to stop it is the GIL. Of three tries the
# one with the shortest pause counts (a busy machine can stop the main
# thread for a while, but only a held GIL stops it for the whole call).
GIL_PROBE = r"""
import json, sys, threading, time
sys.path.insert(0, sys.argv[1])
from conftest import random_map
import zorvane
path = sys.argv[2]
sys.setswitchinterval(1e-4)
m = random_map(seed=7, rows=800, cols=800, fill=1.0)
m.save(path)
small = random_map(seed=8, rows=300, cols=300, fill=1.0)
small.pre_calc()
result = {}
for name, run in {"read": lambda: zorvane.Map.read(path), "save": lambda: m.save(path + ".again"),
                  "look_up_table": lambda: small.look_up_table(4)}.items():
    tries = []
    for _ in range(3):
        span = []
        thread = threading.Thread(target=lambda: span.extend([time.perf_counter(), run(), time.perf_counter()]))
        beats = [time.perf_counter()]
        thread.start()
        while thread.is_alive():
            beats.append(time.perf_counter())
        thread.join()
        tries.append((span[2] - span[0], max(b - a for a, b in zip(beats, beats[1:]))))
    result[name] = min(tries, key=lambda t: t[1] / t[0])
print(json.dumps(result))
"""


def test_file_and_table_operations_let_other_threads_run(tmp_path):
    env = dict(os.environ, OMP_NUM_THREADS="1", OMP_WAIT_POLICY="passive")
    probe = subprocess.run(
        [sys.executable, "-c", GIL_PROBE, os.path.dirname(__file__), str(tmp_path / "big.zvmap")],
        env=env, capture_output=True, text=True, timeout=300, check=True)
    for operation, (duration, longest_pause) in json.loads(probe.stdout.splitlines()[-1]).items():
        assert duration > 0.01, f"{operation}: the map is too small to tell"
        assert longest_pause < 0.5 * duration, f"{operation}: a pause of {longest_pause:.4f} s in {duration:.4f} s"
