#!/usr/bin/env python3
"""Writes the generated seed files of the fuzz targets (fuzz/seeds/TARGET).

  make_seeds.py [TARGET...]     (no target: every target below)

dnm_reader: valid models the engine can run on an 11 x 7 input, so mutations start from files
that reach construction and the forward pass. similarity_pair, rec_font_table, font_listing:
whole files and the ways they go wrong (torn tails, counts that disagree, line ends, escapes).
font_file: subsets of the machine's Debian fonts (letters, digits and the glyph "one", which the
classification features need), in each format the host reads: TrueType, CFF, Type 1, a variable
font, a collection, a bitmap-only font. recognition_picture: the sample line and shapes around
the recognition geometry's limits. Seeds named "regression_*" reproduce faults the targets found
(now fixed). Deterministic: rerunning gives the same bytes.
"""
import io
import os
import struct
import sys
import zlib

import numpy as np

from fontrix_training import dnm
from fontrix_training.check_sum import check_sum

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.join(HERE, "..")

SEEDS = os.path.join(HERE, "seeds")
OUT = os.path.join(SEEDS, "dnm_reader")


def values(rng, n):
    return rng.uniform(-1, 1, n).astype(np.float32)


def every_layer(rng):
    return [
        dnm.Data("data"),
        dnm.Conv("conv", "data", values(rng, 4 * 1 * 2 * 3), values(rng, 4), num_input=1, num_output=4,
                 kernel_w=3, kernel_h=2, stride_w=2, pad_w_begin=1, pad_h_end=1, ceil_mode=True),
        dnm.ReLU("relu", "conv"),
        dnm.LRN("norm", "relu", local_size=3, alpha=1e-2, beta=0.75, k=2.0),
        dnm.MaxPool("pmax", "norm", 2, 2),
        dnm.AvgPool("pavg", "norm", 3, 1, stride_w=2, stride_h=1, pad_w_end=1),
        dnm.Conv("grouped", "pmax", values(rng, 4 * 2 * 1 * 1), values(rng, 4), num_input=4, num_output=4,
                 kernel_w=1, kernel_h=1, group=2),
        dnm.Concat("cat", ["grouped", "pmax"], axis=2),
        dnm.FullyConnected("fc", ["cat"], [3 * 4 * 8], 5, values(rng, 3 * 4 * 8 * 5), values(rng, 5)),
        dnm.Softmax("prob", "fc"),
        dnm.Data("label", is_1d=True),
        dnm.LogLoss("loss", "prob", "label"),
    ]


def two_branches(rng):
    return [
        dnm.Data("data"),
        dnm.MaxPool("a", "data", 3, 3, stride_w=2, stride_h=2),
        dnm.AvgPool("b", "data", 3, 3, stride_w=2, stride_h=2),
        dnm.Concat("wide", ["a", "b"], axis=0),
        dnm.FullyConnected("fc", ["a", "b"], [6 * 3, 6 * 3], 3, values(rng, 2 * 18 * 3), values(rng, 3)),
    ]


def winograd_tiles(rng):
    """Stride-1 3x3 and 5x5 convolutions with channels enough for the engine to run them on
    Winograd tiles (F(4,3) and F(2,5) on the 11 x 7 input)."""
    return [
        dnm.Data("data"),
        dnm.Conv("widen", "data", values(rng, 16 * 9), values(rng, 16), num_input=1, num_output=16,
                 kernel_w=3, kernel_h=3, pad_w_begin=1, pad_w_end=1, pad_h_begin=1, pad_h_end=1),
        dnm.Conv("tiles3", "widen", values(rng, 16 * 16 * 9), values(rng, 16), num_input=16, num_output=16,
                 kernel_w=3, kernel_h=3, pad_w_begin=1, pad_w_end=1, pad_h_begin=1, pad_h_end=1),
        dnm.Conv("tiles5", "tiles3", values(rng, 16 * 16 * 25), values(rng, 16), num_input=16, num_output=16,
                 kernel_w=5, kernel_h=5, pad_w_begin=2, pad_w_end=2, pad_h_begin=2, pad_h_end=2),
    ]


def dnm_reader():
    os.makedirs(OUT, exist_ok=True)
    rng = np.random.RandomState(20261122)
    for name, layers in (("every_layer.dnm", every_layer(rng)), ("two_branches.dnm", two_branches(rng)),
                         ("winograd_tiles.dnm", winograd_tiles(rng))):
        dnm.write_model(os.path.join(OUT, name), layers)


def write(target, name, data):
    folder = os.path.join(SEEDS, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


# ---- similarity_pair: flags (bit 0: the shipped pair; bit 1: a check sums file), lengths of
# the meta and check sums files, generated groups and records (16 bits each, little-endian), meta
# bytes, check sums bytes, feature bytes.

def axis_record(axis):
    values = np.zeros(768, dtype="<f4")
    values[axis % 384] = 1.0
    values[384 + axis % 384] = 1.0
    return values.tobytes()


def pair_input(shipped, meta, features, groups=0, records=0, sums=None):
    flags = (1 if shipped else 0) | (0 if sums is None else 2)
    sums = sums or b""
    return bytes([flags]) + struct.pack("<HHHH", len(meta), len(sums), groups, records) + meta + sums + features


def cache_group(name, family=b"userFamily", style=b"userSubFamily", end=b"\n"):
    return end.join([b"0", b"0", b"0", name, family, style]) + end


def fnv1a(data):
    """FNV-1a, the font listing's sum."""
    h = 14695981039346656037
    for c in data:
        h = ((h ^ c) * 1099511628211) & 0xFFFFFFFFFFFFFFFF
    return h


SUMS_HEADER = b"fontrix similarity sums 2\n"


def sum_line(name, record):
    return b"%016x\n" % check_sum(record, check_sum(name + b"\0"))


def similarity_pair():
    two = cache_group(b"Mine-Regular") + cache_group(b"Other-Bold")
    records = axis_record(1) + axis_record(2)
    one_sum = len(SUMS_HEADER) + 17
    sums = SUMS_HEADER + sum_line(b"Mine-Regular", axis_record(1)) + sum_line(b"Other-Bold", axis_record(2))
    write("similarity_pair", "cache_whole.bin", pair_input(False, two, records))
    write("similarity_pair", "cache_with_sums.bin", pair_input(False, two, records, sums=sums))
    # A save cut short before its sums: the entry without a line stays.
    write("similarity_pair", "cache_sums_behind.bin", pair_input(False, two, records, sums=sums[:one_sum]))
    write("similarity_pair", "cache_sums_wrong.bin",
          pair_input(False, two, records, sums=sums[:one_sum] + sums[len(SUMS_HEADER):one_sum]))
    write("similarity_pair", "cache_sums_extra.bin",
          pair_input(False, two, records, sums=sums + sums[len(SUMS_HEADER):one_sum]))
    # Sums of an older module, without the header line: they vouch for nothing.
    write("similarity_pair", "cache_sums_older.bin", pair_input(False, two, records, sums=sums[len(SUMS_HEADER):]))
    write("similarity_pair", "cache_zero_vector.bin", pair_input(False, two, axis_record(3) + bytes(3072)))
    write("similarity_pair", "cache_crlf.bin",
          pair_input(False, cache_group(b"Crlf-Regular", end=b"\r\n") + cache_group(b"Lf"), records))
    # A save cut short: part of a third group, half a record.
    write("similarity_pair", "cache_torn_tail.bin",
          pair_input(False, two + b"0\n0\n0\nThird\nuserFa", records + axis_record(4)[:1536]))
    # The last line without its line break, and a record more than the groups.
    write("similarity_pair", "cache_unterminated.bin", pair_input(False, two[:-1], records + axis_record(5)))
    write("similarity_pair", "cache_empty.bin", pair_input(False, b"", b""))
    # The shipped pair: 1,863 generated entries and one of the input's make 1,864.
    shipped = b"abcdefg\n0\n1\nLast-Regular\nLast\nRegular\n"
    write("similarity_pair", "shipped_whole.bin", pair_input(True, shipped, axis_record(6), 1863, 1863))
    write("similarity_pair", "shipped_one_short.bin", pair_input(True, b"", axis_record(6), 1863, 1863))
    write("similarity_pair", "shipped_torn_meta.bin", pair_input(True, shipped[:-4], axis_record(6), 1863, 1863))
    # 1,864 groups and a record more: the reader kept the records without their names.
    write("similarity_pair", "regression_shipped_extra_record.bin",
          pair_input(True, shipped, axis_record(6), 1863, 1864))


# ---- rec_font_table: the shipped table, and small tables naming the target's installed fonts.

def table_group(font_id, name, family, style, field3=b"1", end=b"\n"):
    return end.join([font_id, b"0", field3, name, family, style]) + end


def rec_font_table():
    with open(os.path.join(ROOT, "data", "NQ_rec_font.bin"), "rb") as f:
        write("rec_font_table", "shipped.bin", f.read())
    small = (table_group(b"8c924cf10ed8", b"Cabin-Bold", b"Cabin", b"Bold") +
             table_group(b"abcdefg", b"DejaVuSans", b"DejaVu Sans", b"Book") +
             table_group(b"0", b"NotInstalled", b"Nobody", b"Regular", field3=b"0") +
             table_group(b"0123456789ab", b"F1", b"F", b"Regular") +
             table_group(b"x", b"", b"", b"") +
             table_group(b"7118a6580fcd", b"Cabin-Italic", b"Cabin", b"Italic", end=b"\r\n"))
    write("rec_font_table", "installed_names.bin", small)
    write("rec_font_table", "torn.bin", small[:-7])
    repeated = table_group(b"abcdefg", b"DejaVuSans", b"DejaVu Sans", b"Book")
    write("rec_font_table", "repeated_name.bin", small + repeated)
    write("rec_font_table", "empty.bin", b"")


# ---- font_listing: what the host writes, and listings it must ignore in part or whole.

def font_listing():
    # A flags byte first: 1 has the target end the listing with its sum, 0 takes it as it is.
    header = b"fontrix font listing 5\n"
    lines = [
        b"/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf\t0\t1678443600\t0\t759720\t1\tDejaVuSans\tDejaVu Sans\tBook"
        b"\t0\t0\t1\t11400714819323198485\t"
        + b",".join(b"%d" % (500 + i) for i in range(62)) + b"\t6253",
        b"/usr/share/fonts/truetype/inter-vf/Inter.var.ttf\t65536\t1666569600\t123456789\t805360\t1\tInter-Thin\tInter"
        b"\tThin\t0\t0\t-1\t42\t-1,600,-1\t2548",
        b"/fonts/tab\\there\\nand\\\\back.otb\t3\t1\t2\t3\t1\tName\\twith tab\tFam\\\\ily\tSty\\nle\t1\t1\t0\t0\t\t0",
        b"/fonts/unreadable.pfb\t0\t5\t6\t7\t0\t\t\t\t0\t0\t-1\t0\t\t0",
    ]
    listing = header + b"\n".join(lines) + b"\n"
    sealed, raw = b"\x01", b"\x00"
    write("font_listing", "listing.txt", sealed + listing)
    write("font_listing", "listing_with_end.txt", raw + listing + b"end %016x\n" % fnv1a(listing))
    write("font_listing", "listing_cut.txt", raw + listing)
    write("font_listing", "fields_missing.txt",
          sealed + header + lines[0] + b"\n" + lines[1].rsplit(b"\t", 1)[0] + b"\n" + lines[3] + b"\n")
    write("font_listing", "not_a_number.txt",
          sealed + header + lines[0] + b"\n" + lines[1].replace(b"\t65536\t", b"\tx\t") + b"\n")
    write("font_listing", "other_header.txt", sealed + b"fontrix font listing 3\n" + lines[0] + b"\n")
    write("font_listing", "number_forms.txt", sealed + header +
          b"/f\t 12\t-0\t+3\t99999999999999999999\t1\tN\tF\tS\t1\t0\t7\t-1\t 3,+4,,x\t-5\n")


# ---- font_file: subsets of installed fonts (fontTools), so mutations start from small files
# that reach every engine procedure.

FONT_TEXT = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 "


def subset(path, text=FONT_TEXT, hinting=False, font_number=0, drop=()):
    from fontTools import subset as ft_subset
    from fontTools.ttLib import TTFont
    options = ft_subset.Options()
    options.glyph_names = True
    options.notdef_outline = True
    options.hinting = hinting
    options.name_IDs = ["*"]
    options.name_languages = [0x409]
    options.layout_features = []
    options.recalc_timestamp = False
    options.drop_tables += list(drop)
    font = TTFont(path, fontNumber=font_number, recalcTimestamp=False)
    subsetter = ft_subset.Subsetter(options)
    subsetter.populate(text=text)
    subsetter.subset(font)
    return font


def font_bytes(font, flavor=None):
    font.flavor = flavor
    out = io.BytesIO()
    font.save(out)
    return out.getvalue()


def font_file():
    from fontTools.ttLib.ttCollection import TTCollection
    truetype = "/usr/share/fonts/truetype/"
    opentype = "/usr/share/fonts/opentype/"
    write("font_file", "dejavu_sans.ttf", font_bytes(subset(truetype + "dejavu/DejaVuSans.ttf")))
    write("font_file", "liberation_serif_bold_hinted.ttf",
          font_bytes(subset(truetype + "liberation2/LiberationSerif-Bold.ttf", hinting=True)))
    write("font_file", "nimbus_sans.otf", font_bytes(subset(opentype + "urw-base35/NimbusSans-Regular.otf")))
    # The web formats FreeType unpacks itself: WOFF (zlib) and WOFF2 (Brotli, when Python has it).
    write("font_file", "nimbus_sans.woff",
          font_bytes(subset(opentype + "urw-base35/NimbusSans-Regular.otf", text="Handgloves1"), "woff"))
    try:
        import brotli  # noqa: F401
        write("font_file", "dejavu_sans.woff2",
              font_bytes(subset(truetype + "dejavu/DejaVuSans.ttf", text="Handgloves1"), "woff2"))
    except ImportError:
        print("no Brotli in Python: dejavu_sans.woff2 not written (scripts/setup.sh --training installs it)")
    write("font_file", "inter_variable.ttf",
          font_bytes(subset(truetype + "inter-vf/Inter.var.ttf", text="Handgloves1lIxXL")))
    # Bitmap strikes only (its empty glyf table is left out: FreeType reads the strikes alone).
    write("font_file", "terminus_bitmap.otb",
          font_bytes(subset(opentype + "terminus/terminus-normal.otb", text="Hx1", drop=("glyf", "loca"))))
    collection = TTCollection()
    collection.fonts = [subset(truetype + "dejavu/DejaVuSansMono.ttf", text="Handgloves1"),
                        subset(truetype + "dejavu/DejaVuSerif.ttf", text="Handgloves1")]
    out = io.BytesIO()
    collection.save(out)
    write("font_file", "collection.ttc", out.getvalue())
    with open("/usr/share/fonts/type1/urw-base35/NimbusMonoPS-Regular.t1", "rb") as f:
        write("font_file", "nimbus_mono.t1", f.read())


# ---- recognition_picture: width, height (16 bits each, little-endian), grey pixels.

def read_grey_png(path):
    """The rows of an 8-bit grey, non-interlaced PNG (as the sample is)."""
    with open(path, "rb") as f:
        data = f.read()
    width, height, depth, colour, _, _, interlace = struct.unpack(">IIBBBBB", data[16:29])
    assert (depth, colour, interlace) == (8, 0, 0), path
    pos, idat = 8, b""
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        if kind == b"IDAT":
            idat += data[pos + 8:pos + 8 + length]
        pos += 12 + length
    raw = zlib.decompress(idat)
    rows, previous = [], bytearray(width)
    for y in range(height):
        line = raw[y * (width + 1):(y + 1) * (width + 1)]
        kind, row = line[0], bytearray(line[1:])
        for x in range(width):
            a = row[x - 1] if x else 0
            b = previous[x]
            c = previous[x - 1] if x else 0
            if kind == 1:
                row[x] = (row[x] + a) & 255
            elif kind == 2:
                row[x] = (row[x] + b) & 255
            elif kind == 3:
                row[x] = (row[x] + (a + b) // 2) & 255
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                row[x] = (row[x] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append(bytes(row))
        previous = row
    return width, rows


def picture(width, height, pixels):
    return struct.pack("<HH", width, height) + pixels


def recognition_picture():
    width, rows = read_grey_png(os.path.join(ROOT, "data", "samples", "line-liberation-serif-bold.png"))
    write("recognition_picture", "sample_line.bin", picture(width, len(rows), b"".join(rows)))
    write("recognition_picture", "sample_start.bin", picture(240, len(rows), b"".join(r[:240] for r in rows)))
    # Bars of ink on white: tall and narrow, at the 20-pixel limits, and one row of ink.
    bars = bytes(255 if (x // 3) % 2 else 0 for x in range(24))
    write("recognition_picture", "tall_narrow.bin", picture(24, 512, bars))
    write("recognition_picture", "smallest.bin", picture(20, 20, bars[:20]))
    half_white = bytes(255 for _ in range(400 * 60))
    write("recognition_picture", "one_dark_row.bin", picture(400, 120, half_white + bytes(400)))
    write("recognition_picture", "white.bin", picture(300, 109, b""))


# ---- class_vote_file: the shipped file, a small one, and damaged ones.

def class_vote_file():
    with open(os.path.join(ROOT, "data", "similarity_table_classes.tsv"), "rb") as f:
        shipped = f.read()
    write("class_vote_file", "shipped.tsv", shipped)
    header = shipped[:shipped.index(b"faces\t")]
    small = header + (b"faces\t3\nface\tabcdefg\tSlab-Bold\t128\nface\t0123456789ab\tScript\t32\r\n"
                      b"face\tx\tMono\t24\n")
    write("class_vote_file", "small.tsv", small)
    write("class_vote_file", "cut_short.tsv", small[:-9])
    out_of_range = small.replace(b"rule\tfs_script\t0\t", b"rule\tfs_script\t-1\t")
    assert out_of_range != small
    write("class_vote_file", "rule_out_of_range.tsv", out_of_range)
    write("class_vote_file", "no_faces.tsv", header + b"faces\t0\n")


# ---- installed_lines_file: lines kept for installed fonts, a font without one, and damage.

def installed_lines_file():
    def fnv(data, h=14695981039346656037):
        for byte in data:
            h = ((h ^ byte) * 1099511628211) & 0xFFFFFFFFFFFFFFFF
        return h

    def lines_file(records, values=4, fingerprint=0x1234, sums=None, version=3):
        out = b"FXRL" + struct.pack("<IQII", version, fingerprint, values, len(records))
        line_sum = check_sum if version == 3 else fnv
        for i, (name, line) in enumerate(records):
            mark = struct.pack("<B", line is not None)
            floats = struct.pack(f"<{values}f", *line) if line is not None else b""
            out += struct.pack("<I", len(name)) + name + mark + floats
            out += struct.pack("<Q", sums[i] if sums else line_sum(floats, line_sum(mark, line_sum(name))))
        return out
    records = [(b"Alpha-Regular", (0.5, 0.5, 0.5, 0.5)), (b"Symbols", None), (b"Beta", (0.0, 0.6, 0.8, 0.0))]
    good = lines_file(records)
    write("installed_lines_file", "three.bin", good)
    write("installed_lines_file", "three_older.bin", lines_file(records, version=2))
    write("installed_lines_file", "cut_short.bin", good[:-5])
    write("installed_lines_file", "no_lines_only.bin", lines_file([(b"Symbols", None)], values=0))
    write("installed_lines_file", "not_unit.bin", lines_file([(b"A", (1.0, 1.0, 0.0, 0.0))]))
    write("installed_lines_file", "name_twice.bin", lines_file([(b"A", None), (b"A", None)]))
    write("installed_lines_file", "huge_count.bin", b"FXRL" + struct.pack("<IQII", 2, 0x1234, 4, 0xFFFFFFFF))
    # The first and last fonts' values exchanged, their sums left as written: both lines fail.
    a, b = struct.pack("<4f", *records[0][1]), struct.pack("<4f", *records[2][1])
    first, last = good.index(a), good.rindex(b)
    write("installed_lines_file", "values_swapped.bin", good[:first] + b + good[first + 16:last] + a + good[last + 16:])


# ---- kept_class_votes: the joined classes kept of three fonts, and damage.

def kept_class_votes():
    def votes_file(records, identity=0x5EED, count=None):
        out = b"FXCV" + struct.pack("<IQI", 2, identity, len(records) if count is None else count)
        for name, linear, vector, joined in records:
            record = struct.pack("<I", len(name)) + name + struct.pack("<IQI", linear, vector, joined)
            out += record + struct.pack("<Q", check_sum(record, identity))
        return out
    records = [(b"Alpha-Regular", 64, 0x0123456789ABCDEF, 96), (b"DejaVuSans", 16, 0xFEDCBA9876543210, 16),
               (b"Symbols", 0xFFFFFFFF, 7, 0)]
    good = votes_file(records)
    write("kept_class_votes", "three.bin", good)
    write("kept_class_votes", "none.bin", votes_file([]))
    write("kept_class_votes", "cut_short.bin", good[:-5])
    write("kept_class_votes", "name_twice.bin", votes_file([records[0], records[0]]))
    write("kept_class_votes", "no_class_bits.bin", votes_file([(b"A", 1, 2, 256)]))
    write("kept_class_votes", "huge_count.bin", votes_file([], count=0xFFFFFFFF))
    write("kept_class_votes", "another_version.bin", b"FXCV" + struct.pack("<IQI", 1, 0x5EED, 0))
    # A name changed after its record was summed: the record no longer matches.
    write("kept_class_votes", "renamed.bin", good.replace(b"DejaVuSans", b"DejaVuSerf", 1))


# ---- known_families: the shipped table, a small one with every column form, and damaged ones.

def known_families():
    with open(os.path.join(ROOT, "data", "known_families.tsv"), "rb") as f:
        shipped = f.read()
    write("known_families", "shipped.tsv", shipped)
    small = (b"# family\taliases\tclass\tweights\twidths\titalic\topen family\twhy\n"
             b"Helvetica Neue\tNeue Helvetica, HelveticaNeue\tsans serif\t100,400,700\t75,100\tyes"
             b"\tNimbus Sans\tlook-alike\tInter\tlook-alike\tRoboto\tlook-alike\n"
             b"Courier\t\tmonospace\t400,700\t100\tyes\tNimbus Mono PS\tclone\r\n"
             b"Zapf Chancery\t\tscript\t500\t100\tyes\tZ003\trevival")
    write("known_families", "small.tsv", small)
    write("known_families", "cut_short.tsv", small[:small.index(b"\tclone\r\n")])
    named_twice = small + b"\nCOURIER\t\tmonospace\t400\t100\tno\tCousine\tclone\n"
    write("known_families", "named_twice.tsv", named_twice)
    descending = small.replace(b"100,400,700", b"700,400")
    assert descending != small
    write("known_families", "weights_descending.tsv", descending)
    write("known_families", "only_comments.tsv", b"# nothing but a comment\n\n")


# ---- known_faces: "0" + the rows a face list may name + the list; "1" + a dimension switch + a
# packed vectors file. The shipped list's head, small ones, and damaged ones of both.

def known_faces():
    from fontrix_training import make_known_faces
    with open(os.path.join(ROOT, "data", "NQ_known_faces.tsv"), "rb") as f:
        shipped = b"".join(f.readlines()[:40])
    write("known_faces", "shipped_head.tsv", b"\x00\xff" + shipped.replace(b"\tshipped\n", b"\tnone\n"))
    header = make_known_faces.HEADER.encode() + b"\n"
    small = header + (b"A-Regular\tA\tRegular\t400\t0\tdebian:fonts-a\tOFL-1.1\t0\n"
                      b"A-Italic\tA\tItalic\t400\t1\tnpm:@fontsource/a\t\tshipped\n"
                      b"B-Bold\tB\tBold\t700\t0\tdebian:fonts-b\tMIT\t1\n")
    write("known_faces", "small.tsv", b"\x00\x02" + small)
    write("known_faces", "row_twice.tsv", b"\x00\x02" + small.replace(b"MIT\t1", b"MIT\t0"))
    write("known_faces", "cut_short.tsv", b"\x00\x02" + small[:-12])
    rows = np.array([[0.5, -0.5, 0.5, 0.5], [0, 0, 0, 0], [1, 0, 0, 0]], "<f4")
    packed = make_known_faces.pack(rows, 0x1234)
    write("known_faces", "packed.bin", b"\x01\x00" + packed)
    write("known_faces", "packed_any_dim.bin", b"\x01\x01" + packed)
    write("known_faces", "packed_cut.bin", b"\x01\x00" + packed[:-3])
    write("known_faces", "packed_huge_rows.bin", b"\x01\x01" + packed[:8] + struct.pack("<I", 0xFFFFFFFF) + packed[12:])


TARGETS = {f.__name__: f for f in (dnm_reader, similarity_pair, rec_font_table, font_listing, font_file,
                                   recognition_picture, class_vote_file, installed_lines_file, kept_class_votes,
                                   known_families, known_faces)}


def main():
    for name in sys.argv[1:] or TARGETS:
        TARGETS[name]()


if __name__ == "__main__":
    main()
