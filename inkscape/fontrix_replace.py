#!/usr/bin/env python3
"""Replace missing fonts…: every text whose font-family list this machine does not draw is set in
an installed face, as `fontrix substitute` chooses it, and a message says what was replaced with
what, and why."""
import inkex

import fontrix_ink as fx

TEXT_ELEMENTS = (inkex.TextElement, inkex.Tspan, inkex.FlowRoot, inkex.FlowPara, inkex.FlowSpan, inkex.FlowDiv,
                 inkex.TextPath)

# Words of family names that say which generic family a face belongs to, tried in this order
# ("Sans Serif" is sans-serif): for a name Fontrix does not know.
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
        # The texts by what fontrix substitute is asked: the font-family list, weight and slant.
        groups = {}  # (list, weight, italic) -> (face, elements)
        for element in self.svg.descendants():
            if self.sets_text_font(element):
                face = fx.element_face(element)
                key = (fx.family_list(face.families), int(round(face.weight)), face.slant != "normal")
                groups.setdefault(key, (face, []))[1].append(element)
        answers = self.substitutes(groups)

        lines = []
        for key, (face, elements) in groups.items():
            answer = answers[key]
            count = "%d text%s" % (len(elements), "" if len(elements) == 1 else "s")
            if answer["action"] == "keep":
                # A list whose first family is missing but drawn here all the same is said; one
                # whose first family is installed, or generic, is not missing anything.
                if answer["kind"] != "installed" and face.families[0].lower() not in fx.GENERIC_FAMILIES:
                    lines.append("%s: kept, %s (%s)" % (face.description(), answer["why"], count))
                continue
            if answer["action"] == "replace":
                font, reason = answer, answer["why"]
            else:
                font, reason = self.generic_face(face)
                reason = "unknown to Fontrix; %s" % reason
            lines.append("%s → %s %s (%s; %s)" % (face.description(), font["family"], font["style"], reason, count))
            if not self.options.list_only:
                css = fx.css_of_result(font if answer["action"] != "replace" else {
                    "family": font["family"], "weight": fx.fc_weight(font["weight"]),
                    "slant": 100 if font["italic"] else 0, "width": font["width"]})
                for element in elements:
                    fx.set_font(element, css, descendants=False)
        if not lines:
            inkex.errormsg("Every font the document's texts use is installed.")
            return
        head = ("Missing fonts, and the installed fonts that would replace them:" if self.options.list_only
                else "Missing fonts replaced:")
        inkex.errormsg("\n".join([head] + lines))

    def substitutes(self, groups):
        """fontrix substitute's answer for each group's key, asked once per weight and slant."""
        answers = {}
        for weight, italic in sorted({(weight, italic) for _, weight, italic in groups}):
            keys = [key for key in groups if key[1:] == (weight, italic)]
            args = ["substitute", "--weight", str(min(max(weight, 1), 1000))] + (["--italic"] if italic else [])
            # An unknown family is answered too ("none"), and fontrix then exits 1.
            answer, _ = fx.run_fontrix(*args, "--", *[key[0] for key in keys], answering=(0, 1))
            answers.update(zip(keys, answer["substitutions"]))
        return answers

    def sets_text_font(self, element):
        """Whether the element declares a font (its own font-family or Pango font description) for
        text in or under it."""
        if not isinstance(element, inkex.BaseElement):
            return False
        style = element.cascaded_style()
        if not (style.get("font-family") or style.get("-inkscape-font-specification")):
            return False
        return isinstance(element, TEXT_ELEMENTS) or any(isinstance(d, TEXT_ELEMENTS) for d in element.descendants())

    def generic_face(self, face):
        """For a family Fontrix does not know: by the list's generic family or what the name says,
        fontconfig's face for it, or for cursive and fantasy an installed font Fontrix classes
        script or decorative. The face (a fontrix font row) and why it was chosen."""
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
        if not hasattr(self, "fonts"):
            listed, _ = fx.run_fontrix("fonts", "--all")
            self.fonts = {f["name"]: f for f in listed["fonts"]}
        return self.fonts[answer["query"]], "fontconfig's %s font, as %s says" % (generic, said)


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
