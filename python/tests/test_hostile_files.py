"""Broken and hostile files raise OSError or ValueError with the reason, one
file for each reason; every distinct corruption is the C++ hostile-file
corpus's (and its fuzz target's)."""

import os
import struct

import pytest

import zorvane
from conftest import EXAMPLE_FILE

def header(rows=2, cols=3, body_size=0):
    return (b"zvmap" + struct.pack("<Iff3dI", 7, -4.0, 0.0, 1.0, 2.0, 3.0, body_size)
            + struct.pack("<4i", rows, cols, 0, 0))


def record(position, fill=0x11):
    return struct.pack("<I", position) + bytes([fill]) * 18


def with_records(rows, cols, positions, fill=0x11):
    return header(rows, cols, 22 * len(positions)) + b"".join(record(p, fill) for p in positions)


def with_body_size(data, body_size):
    return data[:41] + struct.pack("<I", body_size) + data[45:]


REFUSED = [
    ("one wrong byte of magic", b"zvmaP" + EXAMPLE_FILE[5:], "wrong magic"),
    ("header cut at 60 bytes", header()[:60], "truncated inside the 61-byte header"),
    ("body cut inside a record", with_records(2, 3, [0, 1, 2])[:-12], "run past the end"),
    ("one byte too many", with_records(2, 3, [0, 4]) + b"\0", "file length differs"),
    ("no records", with_records(2, 3, []), "declares no cells"),
    ("negative rows", with_records(-1, 3, [0]), "dimensions"),
    ("position at the grid size", with_records(2, 3, [6]), "position outside the grid"),
]


@pytest.mark.parametrize("name, data, words", REFUSED, ids=[c[0] for c in REFUSED])
def test_broken_files_raise_value_error_with_the_reason(tmp_path, name, data, words):
    path = tmp_path / "hostile.zvmap"
    path.write_bytes(data)
    with pytest.raises(ValueError, match=f"cannot load map file '{path}': .*({words})"):
        zorvane.Map.read(path)


def test_whole_records_of_a_partial_body_load_with_a_warning(tmp_path):
    path = tmp_path / "partial.zvmap"
    path.write_bytes(with_body_size(with_records(2, 3, [0, 4]), 50))
    with pytest.warns(UserWarning, match="not a multiple of 22"):
        m = zorvane.Map.read(path)
    assert len(m.cells) == 2


def test_files_that_cannot_be_read_raise_os_error(tmp_path):
    fifo = tmp_path / "pipe"
    os.mkfifo(fifo)
    cases = [
        (tmp_path / "missing.zvmap", FileNotFoundError),
        (tmp_path, IsADirectoryError),
        (fifo, OSError),           # refused without waiting for a writer
        ("/dev/zero", OSError),    # a device, never read to its (absent) end
    ]
    for path, error in cases:
        with pytest.raises(error, match=str(path)):
            zorvane.Map.read(path)


def test_file_beyond_the_signed_32_bit_lengths_is_refused_unread(tmp_path):
    path = tmp_path / "sparse.zvmap"
    path.write_bytes(EXAMPLE_FILE)
    os.truncate(path, 1 << 31)
    with pytest.raises(ValueError, match="larger than any zvmap file"):
        zorvane.Map.read(path)
