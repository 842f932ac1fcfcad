"""Reading and saving zvmap files: the bytes the library writes, the values
it reads, and the errors of the file operations."""

import math
import pathlib

import numpy as np
import pytest

import zorvane
from conftest import EXAMPLE_FILE, example_map, random_map


def test_example_map_saves_the_library_bytes(tmp_path):
    path = tmp_path / "example.zvmap"
    example_map().save(path)
    assert path.read_bytes() == EXAMPLE_FILE


def test_example_file_reads_header_geometry_and_quantised_cells(tmp_path):
    path = tmp_path / "example.zvmap"
    path.write_bytes(EXAMPLE_FILE)
    m = zorvane.Map.read(str(path), prepare=False)
    assert (m.tag, m.height_base, m.aux_value_base, m.reference) == (1, -2.5, 0.0, (100.0, 200.0, 0.0))
    assert (m.cols, m.rows, m.offset_x, m.offset_y) == (3, 2, -1, 4)
    assert m.resolution == np.float32(0.15) and not m.prepared
    assert m.index.tolist() == [[-1, -1, -1], [-1, 0, -1]]
    # The quantised values themselves are the C++ golden test's; one field
    # shows they come through.
    np.testing.assert_array_equal(m.cells[0]["value_mean"], np.float32((20, 101)))


def test_round_trip_matches_the_cpp_library(tmp_path, map_dump):
    # Python saves a raw map; the C++ library reads it (prepared) and saves it
    # again; Python reads the same file and saves it: same memory, same bytes.
    raw = tmp_path / "raw.zvmap"
    random_map().save(raw)
    _, cpp = map_dump(raw)
    m = zorvane.Map.read(raw)
    assert m.prepared
    assert m.cells.tobytes() == cpp["cells"]
    assert m.index.tobytes() == cpp["index"]
    resaved = tmp_path / "resaved.zvmap"
    m.save(resaved)
    assert resaved.read_bytes() == cpp["resaved"]


def test_raw_read_and_save_gives_back_the_file(tmp_path):
    first, second = tmp_path / "a.zvmap", tmp_path / "b.zvmap"
    random_map(seed=3).save(first)
    zorvane.Map.read(first, prepare=False).save(second)
    assert first.read_bytes() == second.read_bytes()


def test_save_refuses_a_map_without_cells(tmp_path):
    with pytest.raises(ValueError, match="has no cells"):
        zorvane.Map().save(tmp_path / "m.zvmap")


def test_save_into_a_missing_directory_is_an_os_error(tmp_path):
    with pytest.raises(OSError, match="missing"):
        example_map().save(tmp_path / "missing" / "m.zvmap")


def test_paths_are_str_bytes_or_path_like(tmp_path):
    path = tmp_path / "m.zvmap"
    example_map().save(pathlib.PurePath(path))
    for p in (path, str(path), bytes(path)):
        assert zorvane.Map.read(p).tag == 1
    with pytest.raises(TypeError):
        zorvane.Map.read(42)


# The checks themselves are from_arrays's (test_from_arrays.py); here, that
# each setter makes them.
@pytest.mark.parametrize("name, value", [
    ("tag", -1), ("offset_x", 2**31), ("offset_y", -2**31 - 1), ("resolution", math.nan), ("reference", (1.0, 2.0)),
])
def test_header_and_geometry_setters_refuse_out_of_range_values(name, value):
    m = example_map()
    with pytest.raises(ValueError):
        setattr(m, name, value)


def test_header_values_set_from_python_reach_the_file(tmp_path):
    m = example_map()
    m.tag, m.reference, m.offset_x = 2**32 - 1, (-1.0, math.inf, 0.5), 9
    path = tmp_path / "m.zvmap"
    m.save(path)
    back = zorvane.Map.read(path)
    assert (back.tag, back.reference, back.offset_x) == (2**32 - 1, (-1.0, math.inf, 0.5), 9)


def test_save_refuses_a_grid_the_reader_would_refuse(tmp_path):
    # 2^24 + 256 positions are the most one cell may have.
    index = np.full((257, 65537), -1, np.int32)
    index[0, 0] = 0
    m = zorvane.Map.from_arrays(example_map().cells, index)
    with pytest.raises(ValueError, match="too large for 1 cells"):
        m.save(tmp_path / "m.zvmap")
    m = zorvane.Map.from_arrays(example_map().cells, index[:256])
    m.save(tmp_path / "m.zvmap")
    assert zorvane.Map.read(tmp_path / "m.zvmap").rows == 256
