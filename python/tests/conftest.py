"""Shared fixtures: the example map and its file, seeded random
maps, and the C++ dump helper that reads a map with the library alone."""

import math
import os
import subprocess

import numpy as np
import pytest

import zorvane

# The 83-byte file of the example map below, as the library writes it.
EXAMPLE_FILE = bytes.fromhex(
    "7a766d6170 01000000 000020c0 00000000"
    "0000000000005940 0000000000006940 0000000000000000"
    "16000000 02000000 03000000 04000000 ffffffff"
    "04000000 7d00 1465 9600c800 bf 32002c01 05000c00 80")


def example_cells():
    cells = np.zeros(1, zorvane.CELL_DTYPE)
    cells["value_sigma"] = (1.5, 2.0)
    cells["value_mean"] = (20, 100.6)
    cells["value_weight"] = (3, 1)
    cells["height_sigma"] = (0.05, 0.123)
    cells["height_mean"] = (-2.0, 0.5)
    cells["height_weight"] = (1, 1)
    cells["aux_value"] = 1.25
    return cells


def example_map():
    index = np.full((2, 3), -1, np.int32)
    index[1, 1] = 0  # flat position 4
    return zorvane.Map.from_arrays(example_cells(), index, tag=1, height_base=-2.5,
                                   aux_value_base=0.0, reference=(100.0, 200.0, 0.0),
                                   offset_x=-1, offset_y=4)


def random_cells(rng, n):
    """`n` plausible raw cells."""
    cells = np.zeros(n, zorvane.CELL_DTYPE)
    cells["value_sigma"] = rng.uniform(0.5, 6.0, (n, 2))
    cells["value_mean"] = rng.integers(0, 256, (n, 2))
    w = rng.uniform(0.05, 1.0, n)
    cells["value_weight"] = np.stack([w, 1 - w], axis=1)
    cells["height_sigma"] = rng.uniform(0.02, 0.4, (n, 2))
    cells["height_mean"] = rng.uniform(-1.0, 3.0, (n, 2))
    w = rng.uniform(0.05, 1.0, n)
    cells["height_weight"] = np.stack([w, 1 - w], axis=1)
    cells["aux_value"] = rng.uniform(0.0, 50.0, n)
    return cells


def random_map(seed=1, rows=37, cols=53, fill=0.6, offset_x=-7, offset_y=5):
    """A raw map with about `fill` of its positions occupied, cells numbered
    in a shuffled order (not position order)."""
    rng = np.random.default_rng(seed)
    occupied = np.flatnonzero(rng.random(rows * cols) < fill)
    index = np.full(rows * cols, -1, np.int32)
    index[occupied] = rng.permutation(len(occupied))
    return zorvane.Map.from_arrays(random_cells(rng, len(occupied)), index.reshape(rows, cols),
                                   tag=42, height_base=-1.5, aux_value_base=0.0,
                                   reference=(1.0, 2.0, math.pi), offset_x=offset_x,
                                   offset_y=offset_y)


@pytest.fixture
def map_dump(tmp_path):
    """Runs the C++ dump helper on a map file; returns the dict of what it wrote."""
    helper = os.environ.get("ZV_MAP_DUMP")
    if not helper:
        pytest.skip("ZV_MAP_DUMP (the zv_python_map_dump helper) is not set; run through ctest")

    def dump(path, level=4, height_step=0.15, value_step=1.0):
        out = tmp_path / "dump"
        out.mkdir(exist_ok=True)
        subprocess.run([helper, str(path), str(level), repr(height_step), repr(value_step), str(out)],
                       check=True, stdout=subprocess.DEVNULL)
        geometry = [int(v) for v in (out / "geometry.txt").read_text().split()]
        files = {p.stem: p.read_bytes() for p in out.iterdir() if p.suffix in (".bin", ".zvmap")}
        return geometry, files

    return dump
