"""What the Fontrix effects share: the fontrix tool found and run, the CSS font properties
Inkscape writes turned into faces fontrix resolves (and back), and boards of text objects.

Every answer comes from the installed `fontrix --json`; nothing here ranks, classifies or
recognises fonts itself. A failure the user can act on is an inkex.AbortExtension carrying one
sentence, which Inkscape shows in a message box.
"""
import copy
import json
import os
import re
import shutil
import subprocess
import tempfile

import inkex
from inkex import Group, TextElement, Transform, Tspan
from lxml import etree

HERE = os.path.dirname(os.path.abspath(__file__))

# CSS generic families, and the aliases fontconfig (and so Inkscape) gives for them.
GENERIC_FAMILIES = {
    "serif", "sans-serif", "monospace", "cursive", "fantasy", "system-ui", "math", "emoji",
    "ui-serif", "ui-sans-serif", "ui-monospace", "ui-rounded", "sans", "mono",
}

# fontconfig's weights against CSS's (fontconfig's own table, fcweight.c); values between two
# rows are interpolated, as fontconfig does.
FC_WEIGHTS = [(100, 0), (200, 40), (300, 50), (350, 55), (380, 75), (400, 80), (500, 100),
              (600, 180), (700, 200), (800, 205), (900, 210), (1000, 215)]

# CSS font-stretch keywords; fontconfig's widths are the same percentages.
STRETCHES = {"ultra-condensed": 50, "extra-condensed": 62.5, "condensed": 75, "semi-condensed": 87.5,
             "normal": 100, "semi-expanded": 112.5, "expanded": 125, "extra-expanded": 150,
             "ultra-expanded": 200}

# The words of a Pango font description (the form of -inkscape-font-specification) after the
# family: weights, slants and widths, as Pango writes and reads them.
PANGO_WEIGHTS = {"thin": 100, "ultra-light": 200, "extra-light": 200, "light": 300, "semi-light": 350,
                 "demi-light": 350, "book": 380, "regular": 400, "normal": 400, "medium": 500,
                 "semi-bold": 600, "demi-bold": 600, "bold": 700, "ultra-bold": 800, "extra-bold": 800,
                 "heavy": 900, "black": 900, "ultra-heavy": 1000, "ultra-black": 1000, "extra-black": 1000}
PANGO_SLANTS = {"italic": "italic", "oblique": "oblique", "roman": "normal"}
PANGO_OTHER = {"small-caps", "not-rotated", "south", "upside-down", "north", "rotated-left", "east",
               "rotated-right", "west"}

# Class names as fontrix takes them, in the order of the module's label bits.
CLASSES = ["blackletter", "decorative", "handmade", "monospace", "sans-serif", "script", "serif", "slab-serif"]


class FontrixEffect(inkex.EffectExtension):
    """An effect whose every failure is a message box of one sentence: what the user can act on
    is an AbortExtension already; anything else is said as what went wrong, never as a Python
    traceback."""

    what = "The effect"

    def effect(self):
        try:
            return self.apply()
        except inkex.AbortExtension:
            raise
        except Exception as err:  # anything the effect did not foresee
            raise inkex.AbortExtension("%s failed: %s." % (self.what, str(err).rstrip(".") or type(err).__name__))

    def apply(self):
        raise NotImplementedError


class FontrixMissing(inkex.AbortExtension):
    """The fontrix tool cannot be found or run."""


# ---------------------------------------------------------------------------------------------
# The fontrix tool

def find_fontrix():
    """The fontrix this extension was installed with (its path written at install time), else
    one installed beside it (PREFIX/share/inkscape/extensions/fontrix -> PREFIX/bin), else the
    first on PATH; None when there is none."""
    candidates = []
    try:
        import fontrix_location  # written by cmake --install
        candidates.append(fontrix_location.FONTRIX)
    except ImportError:
        pass
    candidates.append(os.path.join(HERE, "..", "..", "..", "..", "bin", "fontrix"))
    for path in candidates:
        if path and os.path.isfile(path) and os.access(path, os.X_OK):
            return os.path.realpath(path)
    return shutil.which("fontrix")


def run_fontrix(*args, timeout=900, answering=(0,)):
    """Runs `fontrix ARGS --json` and returns its JSON answer; its first run on a machine may
    bring the module's caches up to date first, which takes a while. A failure of the tool
    becomes the tool's own message; `answering` are the exit statuses that still come with an
    answer (substitute exits 1 with one when a family is unknown)."""
    tool = find_fontrix()
    if not tool:
        raise FontrixMissing("The fontrix tool was not found: install Fontrix (cmake --install) "
                             "or put its fontrix program on PATH.")
    try:
        # --json first: ARGS may end with "--" and names that start with a hyphen.
        done = subprocess.run([tool, "--json", *args], capture_output=True, text=True, timeout=timeout)
    except OSError as err:
        raise FontrixMissing("The fontrix tool at %s cannot be run (%s)." % (tool, err.strerror))
    except subprocess.TimeoutExpired:
        raise inkex.AbortExtension("fontrix did not answer within %d seconds." % timeout)
    if done.returncode not in answering or not done.stdout.strip():
        raise FontrixFailed(done)
    try:
        return json.loads(done.stdout), done.stderr
    except ValueError:
        raise inkex.AbortExtension("fontrix gave an answer that is not JSON; is %s a Fontrix tool?" % tool)


class FontrixFailed(inkex.AbortExtension):
    """fontrix ran and failed: its message (the last line it wrote) says why."""

    def __init__(self, done):
        lines = [line for line in done.stderr.splitlines() if line.strip()]
        said = lines[-1] if lines else "exit status %d" % done.returncode
        if said.startswith("fontrix: "):
            said = said[len("fontrix: "):]
        self.said = said
        super().__init__("fontrix failed: %s." % said.rstrip("."))


# ---------------------------------------------------------------------------------------------
# CSS font properties and faces

def fc_weight(css):
    """fontconfig's weight for a CSS weight (FcWeightFromOpenType)."""
    css = min(max(float(css), 100.0), 1000.0)
    for (a_css, a_fc), (b_css, b_fc) in zip(FC_WEIGHTS, FC_WEIGHTS[1:]):
        if css <= b_css:
            return a_fc + (b_fc - a_fc) * (css - a_css) / (b_css - a_css)
    return FC_WEIGHTS[-1][1]


def css_weight(fc):
    """The CSS weight for a fontconfig weight (FcWeightToOpenType)."""
    fc = min(max(float(fc), 0.0), 215.0)
    for (a_css, a_fc), (b_css, b_fc) in zip(FC_WEIGHTS, FC_WEIGHTS[1:]):
        if fc <= b_fc:
            return a_css + (b_css - a_css) * (fc - a_fc) / (b_fc - a_fc)
    return 1000.0


def parse_weight(value, inherited):
    """A font-weight value as a number, `bolder` and `lighter` relative to the inherited one
    (CSS Fonts 4's table)."""
    value = str(value or "").strip().lower()
    if value in ("", "inherit", "initial", "unset"):
        return inherited if value != "initial" else 400
    if value == "normal":
        return 400
    if value == "bold":
        return 700
    if value == "bolder":
        return 400 if inherited < 350 else 700 if inherited < 550 else 900 if inherited < 900 else inherited
    if value == "lighter":
        return inherited if inherited < 100 else 100 if inherited < 550 else 400 if inherited < 750 else 700
    try:
        return min(max(float(value), 1.0), 1000.0)
    except ValueError:
        return inherited


def parse_stretch(value, inherited):
    value = str(value or "").strip().lower()
    if value in STRETCHES:
        return STRETCHES[value]
    if value.endswith("%"):
        try:
            return float(value[:-1])
        except ValueError:
            pass
    return inherited


def parse_slant(value, inherited):
    value = str(value or "").strip().lower()
    if value.startswith("oblique"):
        return "oblique"
    if value in ("italic", "normal"):
        return value
    return inherited


def split_families(value):
    """A font-family list as its names, unquoted, in order."""
    names = []
    for match in re.finditer(r"""\s*(?:'([^']*)'|"([^"]*)"|([^,]+))\s*(?:,|$)""", str(value or "")):
        name = next(group for group in match.groups() if group is not None).strip()
        if name:
            names.append(re.sub(r"\s+", " ", name))
    return names


def parse_description(value):
    """-inkscape-font-specification, a Pango font description ("DejaVu Sans, Bold Italic",
    "Open Sans Semi-Bold", "Sans"): the family and the weight, slant and stretch it names
    (None for what it does not name)."""
    text = str(value or "").strip().strip("'\"").strip()
    if not text:
        return None
    if "," in text:
        family, _, words = text.partition(",")
        words = words.split()
    else:
        words = text.split()
        # Style words are read from the end, as Pango reads them; the rest is the family.
        cut = len(words)
        while cut > 1 and _pango_word(words[cut - 1]) is not None:
            cut -= 1
        family, words = " ".join(words[:cut]), words[cut:]
    weight = slant = stretch = None
    for word in words:
        kind = _pango_word(word)
        if kind is None:
            continue
        what, value = kind
        if what == "weight":
            weight = value
        elif what == "slant":
            slant = value
        elif what == "stretch":
            stretch = value
    return {"family": family.strip(), "weight": weight, "slant": slant, "stretch": stretch}


def _pango_word(word):
    w = word.lower()
    if w in PANGO_WEIGHTS:
        return "weight", PANGO_WEIGHTS[w]
    if w in PANGO_SLANTS:
        return "slant", PANGO_SLANTS[w]
    if w in STRETCHES:
        return "stretch", STRETCHES[w]
    if w in PANGO_OTHER or re.fullmatch(r"\d+(\.\d+)?(px)?", w):
        return "other", None
    return None


class Face:
    """A face as CSS describes it: the first family of its font-family list, a CSS weight, a
    slant ("normal", "italic", "oblique") and a stretch in per cent."""

    def __init__(self, family, weight=400, slant="normal", stretch=100, families=None):
        self.family = family
        self.weight = weight
        self.slant = slant
        self.stretch = stretch
        self.families = families or [family]

    def __repr__(self):
        return "Face(%r, %r, %r, %r)" % (self.family, self.weight, self.slant, self.stretch)

    def key(self):
        return (self.family.lower(), round(self.weight), self.slant, self.stretch)

    @property
    def generic(self):
        """The first generic family of the list, if any."""
        return next((f.lower() for f in self.families if f.lower() in GENERIC_FAMILIES), None)

    def pattern(self):
        """The face as a fontconfig pattern, which fontrix resolves as fc-match does."""
        pattern = "%s:weight=%g:slant=%d" % (escape_pattern(self.family), round(fc_weight(self.weight), 2),
                                             {"normal": 0, "italic": 100, "oblique": 110}[self.slant])
        if self.stretch != 100:
            pattern += ":width=%g" % self.stretch
        return pattern

    def description(self):
        """As people read it: "DejaVu Sans Bold Italic"."""
        words = style_words(self.weight, self.slant, self.stretch)
        return self.family + (" " + " ".join(words) if words else "")


def escape_pattern(family):
    """A family name as a fontconfig pattern's family: '-', ':', ',' and '\\' escaped."""
    return re.sub(r"([\\\-:,])", r"\\\1", family)


def style_words(weight, slant, stretch):
    """Pango's words for a weight, slant and stretch (none for the regular)."""
    words = []
    named = {100: "Thin", 200: "Ultra-Light", 300: "Light", 350: "Semi-Light", 380: "Book", 500: "Medium",
             600: "Semi-Bold", 700: "Bold", 800: "Ultra-Bold", 900: "Heavy", 1000: "Ultra-Heavy"}
    nearest = min(list(named) + [400], key=lambda w: abs(w - weight))
    if nearest != 400:
        words.append(named[nearest])
    if stretch != 100:
        keyword = min(STRETCHES, key=lambda k: abs(STRETCHES[k] - stretch))
        words.append("-".join(part.capitalize() for part in keyword.split("-")))
    if slant != "normal":
        words.append(slant.capitalize())
    return words


def font_declarations(element):
    """The font properties an element declares: its cascaded style (style sheets, presentation
    attributes, style attribute), with the values inkex does not keep but Inkscape reads
    (font-weight bolder and lighter, font-stretch in per cent) taken from its attributes."""
    # The attributes as written, read first: inkex's own view of them leaves such values out,
    # and may write that view back.
    raw = [(key, element.attrib.get(key)) for key in FONT_PROPERTIES if element.attrib.get(key)]
    for declaration in (element.attrib.get("style") or "").split(";"):
        key, _, value = declaration.partition(":")
        raw.append((key.strip().lower(), value.strip()))
    declared = {key: element.cascaded_style().get(key) for key in FONT_PROPERTIES + ("font-size",)}
    for key, value in raw:
        if key in ("font-weight", "font-stretch", "font-style") and value and not declared.get(key):
            declared[key] = value
    return {key: value for key, value in declared.items() if value}


def element_face(element):
    """The face an element's text is set in, as Inkscape chooses it: CSS font properties
    inherited down the tree (font-weight bolder/lighter relative to the parent's), and an
    -inkscape-font-specification declared on the element itself taking precedence, as it does
    when Inkscape draws."""
    chain = []
    node = element
    while node is not None and isinstance(node, inkex.BaseElement):
        chain.append(node)
        node = node.getparent()
    families, weight, slant, stretch = ["sans-serif"], 400.0, "normal", 100.0
    for node in reversed(chain):
        style = font_declarations(node)
        if style.get("font-family"):
            families = split_families(style.get("font-family")) or families
        weight = parse_weight(style.get("font-weight"), weight)
        slant = parse_slant(style.get("font-style"), slant)
        stretch = parse_stretch(style.get("font-stretch"), stretch)
    described = parse_description(font_declarations(element).get("-inkscape-font-specification"))
    if described and described["family"]:
        if described["family"].lower() != families[0].lower():
            families = [described["family"]] + families
        weight = described["weight"] if described["weight"] is not None else 400.0
        slant = described["slant"] or "normal"
        stretch = described["stretch"] or 100.0
    return Face(families[0], weight, slant, stretch, families)


def css_of_result(font):
    """The CSS that sets text in a face of a fontrix answer (fontconfig's weight, slant and
    width), with the -inkscape-font-specification Inkscape would write for it."""
    weight = int(round(css_weight(font.get("weight", 80)) / 100.0) * 100)
    weight = min(max(weight, 100), 900)
    slant = {100: "italic", 110: "oblique"}.get(font.get("slant", 0), "normal")
    stretch = font.get("width", 100)
    keyword = min(STRETCHES, key=lambda k: abs(STRETCHES[k] - stretch))
    words = style_words(weight, slant, STRETCHES[keyword])
    described = font["family"] + (", " + " ".join(words) if words else "")
    return {
        "font-family": quote_family(font["family"]),
        "font-weight": "normal" if weight == 400 else "bold" if weight == 700 else str(weight),
        "font-style": slant,
        "font-stretch": keyword,
        "-inkscape-font-specification": quote_family(described),
    }


def quote_family(name):
    return "'%s'" % name.replace("\\", "\\\\").replace("'", "\\'")


def family_list(families):
    """A font-family value of names: each quoted, but for the generic families, which CSS reads
    as generic only unquoted."""
    return ", ".join(f if f.lower() in GENERIC_FAMILIES else quote_family(f) for f in families)


FONT_PROPERTIES = ("font-family", "font-weight", "font-style", "font-stretch", "-inkscape-font-specification")


def set_font(element, css, descendants=True):
    """Sets the element's text in a face: its own font properties replaced, and with
    `descendants` theirs removed so they inherit the new face."""
    for node in (element.iter() if descendants else [element]):
        if not isinstance(node, inkex.BaseElement):
            continue
        for key in FONT_PROPERTIES:
            if key in node.attrib:
                del node.attrib[key]
        if node is not element:
            style = node.style
            for key in FONT_PROPERTIES:
                if key in style:
                    del style[key]
            node.style = style
    style = element.style
    for key, value in css.items():
        style[key] = value
    element.style = style


# ---------------------------------------------------------------------------------------------
# The characters of a text object

# Elements whose text is drawn as part of a text object; another child (a title, a flowed
# text's region) draws none of it, though the text after it does.
TEXT_CONTENT = {"text", "tspan", "textPath", "a", "flowRoot", "flowPara", "flowDiv", "flowSpan"}
KEEP_NEWLINES = {"pre", "pre-wrap", "pre-line", "break-spaces"}


def local_name(node):
    return etree.QName(node).localname if isinstance(node.tag, str) else None


def text_pieces(text):
    """The characters of a text object in the order they are drawn, as (element whose style
    sets them, string) pairs, with None where a line ends: before a tspan Inkscape writes as a
    line (sodipodi:role="line") or one placed at a y of its own, before a flowed paragraph, and
    at a newline where the text's white-space keeps newlines (Inkscape's SVG 2 text). Text
    after a child element (its tail) is its parent's."""
    pieces = []
    keep_newlines = str(text.cascaded_style().get("white-space") or "").strip() in KEEP_NEWLINES
    line_y = [text.get("y")]

    def add(owner, string):
        if not string:
            return
        for index, part in enumerate(string.split("\n") if keep_newlines else [string]):
            if index:
                pieces.append(None)
            if part:
                pieces.append((owner, part))

    def walk(node):
        add(node, node.text)
        for child in node:
            name = local_name(child)
            if name in TEXT_CONTENT:
                y = child.get("y")
                if name in ("flowPara", "flowDiv") or name == "tspan" and (
                        child.get("sodipodi:role") == "line" or y is not None and y != line_y[0]):
                    pieces.append(None)
                if y is not None:
                    line_y[0] = y
                walk(child)
            add(node, child.tail)

    walk(text)
    return pieces


def text_lines(text):
    """The lines of a text object, each its list of (element, string) pieces."""
    lines = [[]]
    for piece in text_pieces(text):
        if piece is None:
            lines.append([])
        else:
            lines[-1].append(piece)
    return lines


def first_line(element, default="Handgloves"):
    """The first line of a text object with something on it (across its nested tspans or
    flowed spans), its spaces squeezed, at most 80 characters; `default` when it has none."""
    for line in text_lines(element):
        text = " ".join("".join(string for _, string in line).split())
        if text:
            return text[:80]
    return default


def first_face_element(text):
    """The element whose style sets the text object's first characters (the text object itself
    when it has none)."""
    return next((piece[0] for piece in text_pieces(text) if piece and piece[1].strip()), text)


def set_font_where(text, face, css):
    """Sets the characters of a text object drawn in `face` in the face `css` gives, leaving
    the others in theirs: each largest part of the text (the text object itself, a line, a
    nested tspan) whose every character is in `face` gets `css`, the elements under it losing
    their own font properties so they inherit it. Returns the elements set."""
    key = face.key()
    in_face = {}
    for piece in text_pieces(text):
        if piece and piece[1].strip() and piece[0] not in in_face:
            in_face[piece[0]] = element_face(piece[0]).key() == key
    changed = []

    def visit(node):
        inside = [yes for owner, yes in in_face.items() if owner is node or node in owner.iterancestors()]
        if not inside:
            return
        if all(inside):
            set_font(node, css)
            changed.append(node)
            return
        for child in node:
            if local_name(child) in TEXT_CONTENT:
                visit(child)

    visit(text)
    return changed


# ---------------------------------------------------------------------------------------------
# Sizes and places

def css_length(value, font_size=16.0):
    """A CSS length in px (SVG user units of the element's own system); em and % of
    `font_size`."""
    match = re.fullmatch(r"\s*([-+]?(?:\d+\.?\d*|\.\d+)(?:[eE][-+]?\d+)?)\s*([a-z%]*)\s*", str(value or ""))
    if not match:
        return {"xx-small": 9, "x-small": 10, "small": 13, "medium": 16, "large": 18, "x-large": 24,
                "xx-large": 32}.get(str(value).strip(), font_size)
    number, unit = float(match.group(1)), match.group(2)
    scale = {"": 1, "px": 1, "pt": 4 / 3, "pc": 16, "mm": 96 / 25.4, "cm": 96 / 2.54, "in": 96,
             "q": 96 / 101.6, "em": font_size, "ex": font_size / 2, "%": font_size / 100}.get(unit, 1)
    return number * scale


def visible_font_size(element):
    """The element's font size in the document's user units, as it appears on the page."""
    size = 16.0
    chain = []
    node = element
    while node is not None and isinstance(node, inkex.BaseElement):
        chain.append(node)
        node = node.getparent()
    for node in reversed(chain):
        value = node.cascaded_style().get("font-size")
        if value:
            size = css_length(value, size)
    matrix = element.composed_transform()
    scale = abs(matrix.a * matrix.d - matrix.b * matrix.c) ** 0.5
    return size * (scale or 1.0)


def query_boxes(extension, path):
    """Bounding boxes of the elements of the SVG file `path` as Inkscape lays it out (text
    included), in the effect's document's user units: id -> (left, top, right, bottom). Empty
    when Inkscape cannot be asked."""
    try:
        done = subprocess.run([os.environ.get("INKSCAPE_COMMAND", "inkscape"), "--query-all", path],
                              capture_output=True, text=True, timeout=120)
    except (OSError, subprocess.TimeoutExpired):
        return {}
    # Inkscape answers in px from the viewBox's corner.
    px = extension.svg.unittouu("1px")
    left, top = extension.svg.get_viewbox()[:2]
    boxes = {}
    for line in done.stdout.splitlines():
        parts = line.split(",")
        if len(parts) == 5:
            try:
                x, y, w, h = (float(v) * px for v in parts[1:])
            except ValueError:
                continue
            boxes[parts[0]] = (left + x, top + y, left + x + w, top + y + h)
    return boxes


def layout(extension):
    """The document as the effect has made it, and its boxes as Inkscape lays it out
    (query_boxes), from a copy in which every element has an id (Inkscape names the others
    its own way). The copy is written beside the effect's input, where the links Inkscape
    rewrote for that file still lead to their pictures, else in the temporary folder."""
    root = copy.deepcopy(extension.svg)
    taken = {node.get("id") for node in root.iter() if isinstance(node.tag, str)}
    count = 0
    for node in root.iter():
        if isinstance(node.tag, str) and not node.get("id"):
            count += 1
            while "fontrix-layout-%d" % count in taken:
                count += 1
            node.set("id", "fontrix-layout-%d" % count)
    source = extension.options.input_file
    folders = [os.path.dirname(os.path.abspath(source))] if isinstance(source, str) else []
    for folder in folders + [None]:
        try:
            handle, path = tempfile.mkstemp(prefix="fontrix-layout-", suffix=".svg", dir=folder)
        except OSError:
            continue
        try:
            with os.fdopen(handle, "wb") as stream:
                etree.ElementTree(root).write(stream)
            return root, query_boxes(extension, path)
        finally:
            try:
                os.unlink(path)
            except OSError:
                pass
    return root, {}


# Where nothing is drawn on the canvas: definitions, and the parts of clips, masks and the like.
NOT_DRAWN = {"defs", "clipPath", "mask", "marker", "pattern", "symbol", "metadata", "namedview"}
# Elements whose box is that of what they hold (groups, layers, links).
CONTAINERS = (inkex.Group, inkex.Anchor, inkex.ClipPath, inkex.Mask, inkex.Marker)


def drawn_boxes(root, boxes, leave_out=()):
    """The boxes (of `boxes`) of what is drawn on the canvas: every visible object but groups
    (their members count) and the parts of a text (the text counts), and none under the
    elements whose ids are `leave_out`."""
    by_id = {node.get("id"): node for node in root.iter() if isinstance(node.tag, str)}
    hiding = HidingRules(root)
    drawn = []
    for element_id, box in boxes.items():
        element = by_id.get(element_id)
        if element is None or element is root or isinstance(element, CONTAINERS):
            continue
        chain = list(element.iterancestors())[::-1] + [element]
        if any(local_name(node) in NOT_DRAWN or node.get("id") in leave_out for node in chain):
            continue
        if any(isinstance(node, (TextElement, inkex.FlowRoot)) for node in chain[:-1]):
            continue
        if hiding.shown(element):
            drawn.append(box)
    return drawn


class HidingRules:
    """Whether elements are drawn, as their display and visibility say: from their style
    attributes, the document's style sheets (each rule matched once: inkex's own cascade
    matches every rule again for each element, far too slow for a whole document) and their
    presentation attributes."""

    PROPERTIES = ("display", "visibility")

    def __init__(self, root):
        self.sheets = {}
        for sheet in root.stylesheets:
            for style in sheet:
                values = {key: str(style.get(key)).strip() for key in self.PROPERTIES if style.get(key)}
                if not values:
                    continue
                for rule, rank in zip(style.to_xpaths(), style.get_specificities()):
                    for node in root.xpath(rule):
                        found = self.sheets.setdefault(node, {})
                        for key, value in values.items():
                            if key not in found or rank >= found[key][0]:
                                found[key] = (rank, value)
        self.known = {}

    def own(self, node, key):
        value = node.style.get(key) if isinstance(node, inkex.BaseElement) else None
        if value:
            return str(value).strip()
        if key in self.sheets.get(node, {}):
            return self.sheets[node][key][1]
        return (node.get(key) or "").strip()

    def state(self, node):
        """(displayed, visibility) of a node, its ancestors' taken into account."""
        if node is None or not isinstance(node.tag, str):
            return True, "visible"
        if node not in self.known:  # lxml keeps one object per element while it is referred to
            displayed, visibility = self.state(node.getparent())
            displayed = displayed and self.own(node, "display") != "none"
            visibility = self.own(node, "visibility") or visibility
            self.known[node] = displayed, visibility
        return self.known[node]

    def shown(self, node):
        displayed, visibility = self.state(node)
        return displayed and visibility not in ("hidden", "collapse")


def guessed_boxes(root):
    """Boxes of the document's elements without Inkscape's layout: inkex's, with a generous
    guess at a text's extent (text has none until it is laid out)."""
    boxes = {}
    for element in root.iter():
        if not isinstance(element, inkex.ShapeElement) or not element.get("id") or element is root:
            continue
        try:
            box = element.bounding_box(element.getparent().composed_transform())
        except Exception:  # inkex knows no box for some elements
            continue
        if not box:
            continue
        left, top, right, bottom = box.left, box.top, box.right, box.bottom
        if isinstance(element, (TextElement, inkex.FlowRoot)):
            size = visible_font_size(element)
            lines = ["".join(string for _, string in line) for line in text_lines(element)]
            right = max(right, left + size * 0.62 * max(len(line) for line in lines))
            top, bottom = top - size, max(bottom, top - size + size * 1.25 * len(lines))
        boxes[element.get("id")] = (left, top, right, bottom)
    return boxes


def overlaps(a, b):
    return min(a[2], b[2]) > max(a[0], b[0]) and min(a[3], b[3]) > max(a[1], b[1])


class Board:
    """A board to place: its group, built from the origin, with its extent as guessed
    (add_board's); where it should go: to the right of (`side` "right") or under ("below")
    the objects whose ids are `anchors`, `gap` away, or without them at `point`."""

    def __init__(self, group, extent, anchors=(), side="right", gap=10.0, point=(0.0, 0.0)):
        self.group, self.extent, self.anchors = group, extent, list(anchors)
        self.side, self.gap, self.point = side, gap, point

    def wanted(self, boxes):
        """The top left corner the board should have."""
        shown = [boxes[i] for i in self.anchors if i in boxes]
        if not shown:
            return self.point
        left, top = min(b[0] for b in shown), min(b[1] for b in shown)
        right, bottom = max(b[2] for b in shown), max(b[3] for b in shown)
        return (right + self.gap, top) if self.side == "right" else (left, bottom + self.gap)


def place_boards(extension, boards):
    """Moves each board where it should go, or, where it would overlap something drawn there
    (or a board placed before it), to the right of everything at that height. Extents are
    Inkscape's where it can be asked."""
    root, boxes = layout(extension)
    measured = bool(boxes)
    if not measured:
        boxes = guessed_boxes(root)
    ids = [board.group.get("id") for board in boards]
    taken = drawn_boxes(root, boxes, leave_out=set(ids))
    for board, board_id in zip(boards, ids):
        extent = boxes.get(board_id) if measured else None
        extent = extent or (0.0, 0.0) + tuple(board.extent)
        width, height = extent[2] - extent[0], extent[3] - extent[1]
        x, y = board.wanted(boxes)
        if any(overlaps((x, y, x + width, y + height), box) for box in taken):
            x = max(box[2] for box in taken) + board.gap
        move(board.group, x - extent[0], y - extent[1])
        taken.append((x, y, x + width, y + height))


def move(group, dx, dy):
    """Moves a board's texts (which carry their places as x and y)."""
    for node in group.iter():
        for key, delta in (("x", dx), ("y", dy)):
            if isinstance(node.tag, str) and node.get(key) is not None:
                node.set(key, "%g" % (float(node.get(key)) + delta))


def new_group(svg, label, prefix):
    """A group in the current layer whose coordinates are the document's (the layer's own
    transform undone)."""
    layer = svg.get_current_layer()
    group = Group()
    group.set("id", svg.get_unique_id(prefix))
    group.set("inkscape:label", label)
    layer.append(group)
    transform = layer.composed_transform() if layer is not svg else Transform()
    if transform != Transform():
        group.transform = -transform
    return group


def add_text(parent, svg, text, x, y, size, css, prefix="fontrix-text-"):
    """A text object of one line at (x, y) (its baseline), `size` user units to the em."""
    element = TextElement()
    element.set("id", svg.get_unique_id(prefix))
    element.set("x", "%g" % x)
    element.set("y", "%g" % y)
    element.set("xml:space", "preserve")
    style = {"font-size": "%gpx" % size, "line-height": "1.25", "fill": "#000000"}
    style.update(css)
    element.style = inkex.Style(style)
    span = Tspan()
    span.set("id", svg.get_unique_id(prefix + "line-"))
    span.set("sodipodi:role", "line")
    span.set("x", "%g" % x)
    span.set("y", "%g" % y)
    span.text = text
    element.append(span)
    parent.append(element)
    return element


LABEL_CSS = {"font-family": "sans-serif", "font-weight": "normal", "font-style": "normal", "fill": "#555555",
             "-inkscape-font-specification": "sans-serif"}


def add_board(group, svg, title, entries, size, column_height=None):
    """A board from the origin (the top left of its title) down: a title, then per entry a
    label line and a sample line in the entry's face, in columns at most `column_height` high
    when given. `entries` are (label, sample text, CSS). Returns the sample text objects and a
    generous guess at the board's width and height (text has no width until Inkscape lays it
    out)."""
    label_size = size * 0.36
    x, y = 0.0, label_size * 1.2
    add_text(group, svg, title, x, y, label_size * 1.15, dict(LABEL_CSS, **{"font-weight": "bold"}),
             "fontrix-title-")
    top = y
    width = max([len(label) * label_size * 0.62 for label, _, _ in entries] +
                [len(sample) * size * 0.72 for _, sample, _ in entries]) + size
    samples = []
    right = max(len(title) * label_size * 0.72, width)
    bottom = y
    for label, sample, css in entries:
        if column_height is not None and y + label_size * 2.0 + size * 1.35 > column_height and y > top:
            x, y = x + width, top
            right = x + width
        y += label_size * 2.0
        add_text(group, svg, label, x, y, label_size, LABEL_CSS, "fontrix-label-")
        y += size * 1.15
        samples.append(add_text(group, svg, sample, x, y, size, css, "fontrix-sample-"))
        y += size * 0.2
        bottom = max(bottom, y + size * 0.2)
    return samples, (right, bottom)


def score_text(score):
    return "%.3f" % score
