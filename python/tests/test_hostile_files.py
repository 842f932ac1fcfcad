"""Broken and hostile files raise OSError or ValueError, never crash. The
corpus mirrors the C++ hostile-file tests, built here from bytes."""

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


# One file for each reason a load is refused: the corpus of every distinct
# corruption is the C++ hostile-file suite; here it is enough that each
# reason reaches Python as a ValueError naming the file.
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
@pytest.mark.parametrize("prepare", [True, False])
def test_broken_files_raise_value_error_with_the_reason(tmp_path, name, data, words, prepare):
    path = tmp_path / "hostile.zvmap"
    path.write_bytes(data)
    with pytest.raises(ValueError, match=f"cannot load map file '{path}': .*({words})"):
        zorvane.Map.read(path, prepare=prepare)


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


@pytest.mark.skipif(os.geteuid() == 0, reason="root reads files whatever their mode")
def test_unreadable_file_raises_permission_error(tmp_path):
    path = tmp_path / "locked.zvmap"
    path.write_bytes(EXAMPLE_FILE)
    path.chmod(0)
    with pytest.raises(PermissionError):
        zorvane.Map.read(path)


def test_file_beyond_the_signed_32_bit_lengths_is_refused_unread(tmp_path):
    path = tmp_path / "sparse.zvmap"
    path.write_bytes(EXAMPLE_FILE)
    os.truncate(path, 1 << 31)
    with pytest.raises(ValueError, match="larger than any zvmap file"):
        zorvane.Map.read(path)


def mutations(data, count, seed):
    """Seeded mutations of `data`: byte flips, overwritten header fields,
    cuts and appended bytes, as a fuzzer would make them."""
    import random
    rng = random.Random(seed)
    for _ in range(count):
        b = bytearray(data)
        for _ in range(rng.randint(1, 4)):
            kind = rng.randrange(4)
            if kind == 0 and b:
                b[rng.randrange(len(b))] = rng.randrange(256)
            elif kind == 1 and len(b) >= 61:
                at = rng.choice([5, 9, 13, 41, 45, 49, 53, 57])
                b[at:at + 4] = struct.pack("<I", rng.choice(
                    [0, 1, 22, 0x7fffffff, 0x80000000, 0xffffffff, rng.randrange(1 << 32)]))
            elif kind == 2:
                del b[rng.randrange(len(b) + 1):]
            else:
                b += bytes(rng.randrange(256) for _ in range(rng.randrange(1, 30)))
        yield bytes(b)


def test_mutated_files_load_or_raise_and_never_crash(tmp_path):
    """Map.read's fuzzing in the interpreter the module runs in: every
    mutated file either loads a map whose index names only its cells, or
    raises OSError or ValueError."""
    seeds = [EXAMPLE_FILE, with_records(4, 5, [0, 3, 7, 19]), with_records(2, 3, [1, 1, 4])]
    path = tmp_path / "mutated.zvmap"
    loaded = refused = 0
    for k, seed in enumerate(seeds):
        for data in mutations(seed, 400, seed=k):
            path.write_bytes(data)
            try:
                m = zorvane.Map.read(str(path), prepare=bool(k % 2))
            except (OSError, ValueError):
                refused += 1
                continue
            loaded += 1
            index = m.index
            assert index.shape == (m.rows, m.cols)
            assert index.min(initial=-1) >= -1 and index.max(initial=-1) < len(m.cells)
    assert loaded > 0 and refused > 0
