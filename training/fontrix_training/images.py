"""Readers for the files the training-images tool writes, and the crop rule of the similarity
update, so training takes its specimen crops exactly where inference would."""
import math
import struct

import numpy as np

SIDE = 109
CROPS = 5
LINE_CROPS = 10


def read_names(path):
    """A names file as training-images reads it: one unique name a line, blank lines skipped."""
    with open(path, encoding="utf-8") as f:
        return [line.rstrip("\n") for line in f if line.strip()]


def read_specimens(path, limit=None):
    """{label: (lower, upper)}, each a (109, width) uint8 array; only the first `limit`
    records when given, read through a memory map so the rest of the file is not touched."""
    data = np.memmap(path, np.uint8, "r")
    if bytes(data[:8]) != b"FXSPEC01":
        raise ValueError(f"{path}: not a specimens file")
    result, at = {}, 8
    while at < len(data) and (limit is None or len(result) < limit):
        if at + 12 > len(data):
            raise ValueError(f"{path}: truncated record at byte {at}")
        label, lower_width, upper_width = struct.unpack_from("<iii", bytes(data[at:at + 12]))
        at += 12
        halves = []
        for width in (lower_width, upper_width):
            size = SIDE * width
            if width <= 0 or at + size > len(data):
                raise ValueError(f"{path}: truncated or empty specimen of label {label}")
            halves.append(np.asarray(data[at:at + size]).reshape(SIDE, width))
            at += size
        result[label] = tuple(halves)
    return result


def _specimen_records(f, path):
    """(label, lower width, upper width) of each record of an open specimens file, the file
    left at the record's pixels; the caller reads them or seeks past them."""
    if f.read(8) != b"FXSPEC01":
        raise ValueError(f"{path}: not a specimens file")
    while header := f.read(12):
        if len(header) != 12:
            raise ValueError(f"{path}: truncated record")
        yield struct.unpack("<iii", header)


def iter_specimens(path, wanted):
    """(label, (lower, upper)) for the records whose label is in `wanted`, reading only those."""
    with open(path, "rb") as f:
        for label, lower_width, upper_width in _specimen_records(f, path):
            if label not in wanted:
                f.seek(SIDE * (lower_width + upper_width), 1)
                continue
            halves = []
            for width in (lower_width, upper_width):
                data = f.read(SIDE * width)
                if width <= 0 or len(data) != SIDE * width:
                    raise ValueError(f"{path}: truncated or empty specimen of label {label}")
                halves.append(np.frombuffer(data, np.uint8).reshape(SIDE, width))
            yield label, tuple(halves)


def specimen_labels(path):
    """The labels a specimens file holds, read from the record headers alone."""
    labels = []
    with open(path, "rb") as f:
        for label, lower_width, upper_width in _specimen_records(f, path):
            labels.append(label)
            f.seek(SIDE * (lower_width + upper_width), 1)
    return labels


def read_lines(path):
    """(labels int32 (n,), crops uint8 (n, 10, 109, 109)) over a memory map of the file."""
    raw = np.memmap(path, np.uint8, "r")
    if bytes(raw[:8]) != b"FXLINE01":
        raise ValueError(f"{path}: not a lines file")
    record = 4 + LINE_CROPS * SIDE * SIDE
    count = (raw.size - 8) // record
    if 8 + count * record != raw.size:
        raise ValueError(f"{path}: truncated ({raw.size} bytes)")
    records = raw[8:].reshape(count, record)
    labels = records[:, :4].copy().view("<i4").ravel()
    return labels, records[:, 4:].reshape(count, LINE_CROPS, SIDE, SIDE)


BAND_WIDTH = 384


def read_bands(path):
    """(labels int32 (n,), bands float32 (n, 2) as fractions of the height, pictures uint8
    (n, 109, 384)) over a memory map of a bands file."""
    raw = np.memmap(path, np.uint8, "r")
    if bytes(raw[:8]) != b"FXBAND01":
        raise ValueError(f"{path}: not a bands file")
    record = 12 + SIDE * BAND_WIDTH
    count = (raw.size - 8) // record
    if 8 + count * record != raw.size:
        raise ValueError(f"{path}: truncated ({raw.size} bytes)")
    records = raw[8:].reshape(count, record)
    labels = records[:, :4].copy().view("<i4").ravel()
    bands = records[:, 4:12].copy().view("<f4").reshape(count, 2)
    return labels, bands, records[:, 12:].reshape(count, SIDE, BAND_WIDTH)


def tiled(strip):
    """A specimen strip repeated side by side until it is at least 109 wide."""
    width = strip.shape[1]
    return np.tile(strip, (1, math.ceil(SIDE / width))) if width < SIDE else strip


def crop_offsets(length):
    """The five offsets the similarity update uses on a tiled row of `length`."""
    return [math.floor(c * (length - SIDE) / 4) for c in range(CROPS)]


def specimen_crops(strip, offsets=None):
    """Five (109, 109) crops of a strip as float32 network input (byte - 128): at the update's
    offsets, or at the given ones."""
    row = tiled(strip)
    offsets = crop_offsets(row.shape[1]) if offsets is None else offsets
    return np.stack([row[:, o:o + SIDE] for o in offsets]).astype(np.float32) - 128.0
