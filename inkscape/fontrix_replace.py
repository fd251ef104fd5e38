#!/usr/bin/env python3
"""Replace missing fonts…: every text set in a font that is not installed is set in an
installed one, and a message says what was replaced with what."""
import inkex

import fontrix_ink as fx

TEXT_ELEMENTS = (inkex.TextElement, inkex.Tspan, inkex.FlowRoot, inkex.FlowPara, inkex.FlowSpan, inkex.FlowDiv,
                 inkex.TextPath)

# Words of family names that say which generic family a face belongs to, tried in this order
# ("Sans Serif" is sans-serif).
NAME_WORDS = [
    ("monospace", ("mono", "code", "courier", "typewriter", "console", "terminal")),
    ("cursive", ("script", "hand", "brush", "calligraph", "cursive", "marker", "chancery")),
    ("sans-serif", ("sans", "grotesk", "grotesque", "gothic", "helvet", "arial", "verdana")),
    ("serif", ("serif", "slab", "roman", "times", "garamond", "didot", "bodoni", "antiqua", "caslon",
               "baskerville", "georgia", "book")),
    ("fantasy", ("display", "decor", "poster", "fantasy", "stencil")),
]


class ReplaceMissingFonts(fx.FontrixEffect):
    what = "Replace missing fonts"

    def add_arguments(self, pars):
        pars.add_argument("--tab")
        pars.add_argument("--list_only", type=inkex.Boolean, default=False)

    def apply(self):
        fonts, _ = fx.run_fontrix("fonts", "--all")
        self.fonts = {f["name"]: f for f in fonts["fonts"]}
        self.families = {f["family"].lower() for f in fonts["fonts"]}
        missing = {}  # face key -> (face, elements)
        for element in self.svg.descendants():
            if not self.sets_text_font(element):
                continue
            face = fx.element_face(element)
            if not self.installed(face.family):
                missing.setdefault(face.key(), (face, []))[1].append(element)
        if not missing:
            inkex.errormsg("Every font the document's texts use is installed.")
            return

        lines = []
        for face, elements in missing.values():
            font, reason = self.replacement(face)
            count = "%d text%s" % (len(elements), "" if len(elements) == 1 else "s")
            lines.append("%s → %s %s (%s; %s)" % (face.description(), font["family"], font["style"], reason, count))
            if not self.options.list_only:
                for element in elements:
                    fx.set_font(element, fx.css_of_result(font), descendants=False)
        head = ("Missing fonts, and the installed fonts that would replace them:" if self.options.list_only
                else "Missing fonts replaced:")
        inkex.errormsg("\n".join([head] + lines))

    def sets_text_font(self, element):
        """Whether the element declares a font (its own font-family or Pango font description) for
        text in or under it."""
        if not isinstance(element, inkex.BaseElement):
            return False
        style = element.cascaded_style()
        if not (style.get("font-family") or style.get("-inkscape-font-specification")):
            return False
        return isinstance(element, TEXT_ELEMENTS) or any(isinstance(d, TEXT_ELEMENTS) for d in element.descendants())

    def installed(self, family):
        family = family.lower()
        if family in fx.GENERIC_FAMILIES or family in self.families:
            return True
        if not hasattr(self, "also_named"):
            self.also_named = {}
        if family not in self.also_named:
            # A family fontconfig lists under another of its names (a localised or older one).
            listed, _ = fx.run_fontrix("fonts", fx.escape_pattern(family) + ":", "--all")
            self.also_named[family] = bool(listed["fonts"])
        return self.also_named[family]

    def replacement(self, face):
        """The installed face to set `face`'s texts in, and why it was chosen."""
        try:
            answer, _ = fx.run_fontrix("similar", face.pattern(), "--limit", str(SIMILAR_TRIED))
        except fx.FontrixFailed as failure:
            if "no installed font is named" not in failure.said:
                raise
            answer = None
        if answer and not answer["query_installed"] and answer["results"]:
            font = upright_like(answer["results"], face)
            return font, "most like %s %s in Fontrix's similarity table, score %s" % (
                answer["query_family"], answer["query_style"], fx.score_text(font["score"]))
        if answer and answer["query_installed"]:
            return self.fonts[answer["query"]], "fontconfig's substitute"
        generic = face.generic or generic_of_name(face.family)
        said = "the generic family" if face.generic else "its name"
        if generic in ("cursive", "fantasy"):
            wanted = "script" if generic == "cursive" else "decorative"
            classed, _ = fx.run_fontrix("classes", wanted)
            if classed["fonts"]:
                return nearest(classed["fonts"], face), "an installed %s font, as %s says" % (wanted, said)
            generic = "sans-serif"
        answer, _ = fx.run_fontrix("similar", fx.Face(generic, face.weight, face.slant, face.stretch).pattern(),
                                   "--limit", "1")
        return self.fonts[answer["query"]], "fontconfig's %s font, as %s says" % (generic, said)


# Of the fonts most like a missing face, how many are looked through for one of its slant.
SIMILAR_TRIED = 10


def upright_like(fonts, face):
    """The first of fontrix's ranking that is upright where the face is (or slanted where it is
    slanted): a text set upright stays upright. The first of all where none is."""
    slanted = face.slant != "normal"
    return next((f for f in fonts if (f.get("slant", 0) > 0) == slanted), fonts[0])


def generic_of_name(family):
    name = family.lower()
    for generic, words in NAME_WORDS:
        if any(word in name for word in words):
            return generic
    return "sans-serif"


def nearest(fonts, face):
    """Of fontrix's fonts, the one nearest the face's weight, slant and stretch."""
    def cost(font):
        slant = {100: "italic", 110: "oblique"}.get(font.get("slant", 0), "normal")
        return ((slant == "normal") != (face.slant == "normal"), abs(font.get("width", 100) - face.stretch),
                abs(fx.css_weight(font.get("weight", 80)) - face.weight))
    return min(fonts, key=cost)


if __name__ == "__main__":
    ReplaceMissingFonts().run()
