"""zvmap prior maps as NumPy arrays.

The map library itself, from Python: read and write zvmap files, look at and
edit their cells as NumPy structured arrays, prepare them and build the
sub-sampled look-up tables exactly as the map server does.

    import zorvane
    m = zorvane.Map.read("map_lossy.gridmap")   # prepared, as the server uses it
    m.cells["height_mean"]                      # (len(cells), 2) float32, a view
    m.index                                     # (rows, cols) int32, cell number or -1
    m.layer("height")                           # (rows, cols) float32, NaN where no cell is
    t = m.look_up_table(4)                      # t.value_table, t.height_table, t.coarse_cells

Arrays and dtypes:

- CELL_DTYPE, one 64-byte cell record: value_sigma, value_mean, value_weight,
  height_sigma, height_mean, height_weight (float32, shape (2,): the two
  components of each axis' Gaussian mixture) and aux_value (float32); bytes
  52 to 63 are padding. Raw form: sigma is the standard deviation s and
  weight the mixture weight w. Prepared form (Map.prepared): sigma holds
  2 s^2 and weight w / s.
- COARSE_CELL_DTYPE, one 16-byte record of a look-up table: value_bins (u2),
  value_first (i2), value_offset (u4), height_bins, height_first,
  height_offset.
- MAX_CELLS: the most cells a map file can hold.
"""

import math

import numpy as np

from ._zorvane import CELL_DTYPE, COARSE_CELL_DTYPE, MAX_CELLS, LookUpTable, Map

__all__ = ["Map", "LookUpTable", "CELL_DTYPE", "COARSE_CELL_DTYPE", "MAX_CELLS"]

_INT32 = np.iinfo(np.int32)


def _as_cells(cells):
    """`cells` as a C-contiguous 1-D array of CELL_DTYPE (no copy if it is one)."""
    arr = np.asarray(cells)
    if arr.dtype.names is None:
        raise ValueError(
            f"cells must be a structured array with the fields of zorvane.CELL_DTYPE "
            f"({', '.join(CELL_DTYPE.names)}); got dtype {arr.dtype}")
    if arr.ndim != 1:
        raise ValueError(f"cells must be a 1-D array; got shape {arr.shape}")
    if len(arr) > MAX_CELLS:
        raise ValueError(f"{len(arr)} cells are more than the {MAX_CELLS} a map file can hold")
    if arr.dtype == CELL_DTYPE:
        return np.ascontiguousarray(arr)
    missing = [n for n in CELL_DTYPE.names if n not in arr.dtype.names]
    extra = [n for n in arr.dtype.names if n not in CELL_DTYPE.names]
    if missing or extra:
        raise ValueError(
            "cells must have exactly the fields of zorvane.CELL_DTYPE"
            + (f"; missing {', '.join(missing)}" if missing else "")
            + (f"; unknown {', '.join(extra)}" if extra else ""))
    for name in CELL_DTYPE.names:
        want, have = CELL_DTYPE[name], arr.dtype[name]
        if have.shape != want.shape or have.base.kind not in "fiu":
            raise ValueError(
                f"cells field {name!r} must be numbers of shape {want.shape}; got {have}")
    # Field by field, by name: the fields may come in any order and type.
    out = np.zeros(arr.shape, CELL_DTYPE)
    for name in CELL_DTYPE.names:
        out[name] = arr[name]
    return out


def _as_index(index):
    """`index` as a C-contiguous 2-D int32 array, refusing what does not fit."""
    arr = np.asarray(index)
    if arr.ndim != 2:
        raise ValueError(f"index must be a 2-D (rows, cols) array; got shape {arr.shape}")
    if arr.dtype.kind not in "iu":
        raise ValueError(f"index must be an integer array; got dtype {arr.dtype}")
    if arr.size and arr.dtype.itemsize >= 4:
        low, high = int(arr.min()), int(arr.max())
        if low < _INT32.min or high > _INT32.max:
            bad = low if low < _INT32.min else high
            raise ValueError(f"index entry {bad} is not a cell number or -1")
    return np.ascontiguousarray(arr, dtype=np.int32)


def _from_arrays(cells, index, *, tag=0, height_base=math.inf, aux_value_base=math.inf,
                 reference=(math.inf, math.inf, math.inf), offset_x=0, offset_y=0,
                 resolution=0.15):
    """A new Map from NumPy arrays (copied once), in raw form, not prepared.

    cells: 1-D array of CELL_DTYPE (or a structured array with the same field
        names and shapes, converted field by field), raw form.
    index: 2-D integer array of shape (rows, cols); index[y, x] is the cell
        number at column x, row y, or -1. It must name every cell exactly once.
    tag, height_base, aux_value_base, reference: the file header values
        (unsigned 32-bit, float32, float32, three float64).
    offset_x, offset_y, resolution: the rest of the grid geometry.

    Raises ValueError naming the problem for cells or an index of the wrong
    kind or shape, index entries below -1 or beyond the cells, a cell named
    twice or by no position, more than MAX_CELLS cells, and header or
    geometry values out of range. Call pre_calc() on the result before
    look_up_table(); save() it as it is.
    """
    cells = _as_cells(cells)
    index = _as_index(index)
    return Map._from_arrays(cells, index, tag, height_base, aux_value_base, tuple(reference),
                            offset_x, offset_y, resolution)


def _raw_weights(cells, axis, prepared):
    """The two mixture weights w of `axis`, recovered from prepared form if need be."""
    weight = cells[f"{axis}_weight"].astype(np.float64)
    if prepared:
        # Prepared: weight = w / s and sigma = 2 s^2, so w = weight * sqrt(sigma / 2).
        weight *= np.sqrt(cells[f"{axis}_sigma"].astype(np.float64) / 2.0)
    return weight


_LAYERS = ("value", "height", "aux_value", "occupancy")


def _layer(self, name):
    """A (rows, cols) float32 array of one quantity per position, NaN where no cell is.

    name: "value" or "height" (the mean of the axis' two-component mixture,
    sum(w * mean) / sum(w), with the raw weights w), "aux_value", or
    "occupancy" (1.0 at every position that has a cell). Ready for
    matplotlib: plt.imshow(m.layer("height"), origin="lower") draws column
    x to the right and row y upwards.
    """
    if name not in _LAYERS:
        raise ValueError(f"layer must be one of {', '.join(map(repr, _LAYERS))}; got {name!r}")
    index = self.index
    out = np.full(index.shape, np.nan, dtype=np.float32)
    occupied = index >= 0
    numbers = index[occupied]
    cells = self.cells[numbers]
    if name == "occupancy":
        out[occupied] = 1.0
    elif name == "aux_value":
        out[occupied] = cells["aux_value"]
    else:
        weight = _raw_weights(cells, name, self.prepared)
        mean = cells[f"{name}_mean"].astype(np.float64)
        with np.errstate(invalid="ignore", divide="ignore"):
            out[occupied] = (weight * mean).sum(axis=1) / weight.sum(axis=1)
    return out


Map.from_arrays = staticmethod(_from_arrays)
Map.layer = _layer
