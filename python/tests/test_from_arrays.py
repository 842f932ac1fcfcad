"""Map.from_arrays: what it accepts, and a clear ValueError for what it does not."""

import numpy as np
import pytest

import zorvane
from conftest import example_cells


def three_cells():
    return np.concatenate([example_cells()] * 3)


GOOD_INDEX = [[0, -1, 1], [-1, 2, -1]]


def packed_dtype():
    """CELL_DTYPE's fields in another order and type, without padding."""
    return np.dtype([(n, "<f8", (2,)) for n in reversed(zorvane.CELL_DTYPE.names[:6])]
                    + [("aux_value", "<f8")])


@pytest.mark.parametrize("cells, index, words", [
    # Cells of the wrong kind.
    (np.zeros(3, np.float32), GOOD_INDEX, "structured array"),
    (three_cells().reshape(3, 1), GOOD_INDEX, "1-D array"),
    (np.zeros(3, [("value_sigma", "<f4", (2,))]), GOOD_INDEX, "missing value_mean"),
    (np.zeros(3, zorvane.CELL_DTYPE.descr[:7] + [("colour", "<f4")]), GOOD_INDEX, "unknown colour"),
    (np.zeros(3, [(n, "<f4") for n in zorvane.CELL_DTYPE.names]), GOOD_INDEX,
     "'value_sigma' must be numbers of shape \\(2,\\)"),
    (np.zeros(3, [(n, "U3", (2,)) for n in zorvane.CELL_DTYPE.names[:6]] + [("aux_value", "<f4")]),
     GOOD_INDEX, "'value_sigma' must be numbers"),
    # Index of the wrong kind or shape.
    (three_cells(), [0, 1, 2], "2-D \\(rows, cols\\) array"),
    (three_cells(), np.float64(GOOD_INDEX), "integer array"),
    (three_cells(), np.int64([[0, 1, 2, 2**32]]), "index entry 4294967296 is not a cell number"),
    # Entries that do not name each cell once.
    (three_cells(), [[0, -2, 1], [-1, 2, -1]], "at \\(row 0, col 1\\) is -2"),
    (three_cells(), [[0, -1, 1], [-1, 3, -1]], "at \\(row 1, col 1\\) names cell 3, but there are only 3"),
    (three_cells(), [[0, -1, 1], [2, 1, -1]], "cell 1 is named twice, at \\(row 0, col 2\\) and at \\(row 1, col 1\\)"),
    (three_cells(), [[0, -1, -1], [-1, 2, -1]], "cell 1 is not named by any index entry"),
])
def test_bad_arrays_are_refused_with_the_problem_named(cells, index, words):
    with pytest.raises(ValueError, match=words):
        zorvane.Map.from_arrays(cells, index)


@pytest.mark.parametrize("keyword, value, words", [
    ("tag", 2**32, "tag must fit"),
    ("offset_x", 2**31, "offset_x must fit"),
    ("resolution", -0.15, "resolution must be"),
    ("reference", (1.0,), "reference must hold three"),
])
def test_bad_header_and_geometry_values_are_refused(keyword, value, words):
    with pytest.raises(ValueError, match=words):
        zorvane.Map.from_arrays(three_cells(), GOOD_INDEX, **{keyword: value})


def test_arrays_are_copied_once_into_a_raw_map():
    cells, index = three_cells(), np.array(GOOD_INDEX, np.int32)
    m = zorvane.Map.from_arrays(cells, index, tag=5, offset_x=-2, offset_y=3, resolution=0.2)
    assert (m.rows, m.cols, m.offset_x, m.offset_y, m.tag) == (2, 3, -2, 3, 5)
    assert m.resolution == np.float32(0.2) and not m.prepared
    assert m.height_base == np.inf and m.reference == (np.inf,) * 3
    cells["aux_value"] = 99  # the map holds its own copy
    index[0, 0] = -1
    assert m.cells["aux_value"].tolist() == [1.25] * 3
    assert m.index.tolist() == GOOD_INDEX


def test_other_field_orders_and_types_convert_by_name():
    source = three_cells()
    packed = np.zeros(3, packed_dtype())
    for name in zorvane.CELL_DTYPE.names:
        packed[name] = source[name]
    m = zorvane.Map.from_arrays(packed, np.int8(GOOD_INDEX))
    for name in zorvane.CELL_DTYPE.names:
        np.testing.assert_array_equal(m.cells[name], source[name], err_msg=name)


def test_too_many_cells_are_refused_before_anything_is_built():
    # A broadcast view: a huge array without the memory behind it.
    cells = np.broadcast_to(np.zeros(1, zorvane.CELL_DTYPE), (zorvane.MAX_CELLS + 1,))
    with pytest.raises(ValueError, match="97612890"):
        zorvane.Map.from_arrays(cells, [[-1]])
