#!/usr/bin/env python3
"""Similar fonts…: a board beside the selected text of the installed fonts most like its font,
the text set in each."""
import inkex

import fontrix_ink as fx


class SimilarFonts(fx.FontrixEffect):
    what = "Similar fonts"

    def add_arguments(self, pars):
        pars.add_argument("--tab")
        pars.add_argument("--count", type=int, default=6)
        pars.add_argument("--other_families", type=inkex.Boolean, default=True)
        pars.add_argument("--same_class", type=inkex.Boolean, default=False)
        pars.add_argument("--replace", type=inkex.Boolean, default=False)

    def apply(self):
        texts = [t for t in map(text_object, self.svg.selection.values()) if t is not None]
        if not self.svg.selection:
            raise inkex.AbortExtension("Select a text object first.")
        if not texts:
            raise inkex.AbortExtension("Similar fonts works on a text object, and the selection holds none.")
        text = texts[0]
        face = fx.element_face(first_text_node(text))
        answer = self.similar(face)
        if not answer["results"]:
            raise inkex.AbortExtension("Fontrix knows no installed font like %s%s." % (
                face.description(), " with these options" if self.options.same_class or self.options.other_families else ""))

        query = answer["query_family"] + " " + answer["query_style"]
        if not answer["query_installed"]:
            query += " (not installed)"
        entries = [("%d. %s %s  %s" % (i + 1, r["family"], r["style"], fx.score_text(r["score"])),
                    fx.first_line(text), fx.css_of_result(r)) for i, r in enumerate(answer["results"])]
        box = fx.query_boxes(self).get(text.get("id"))
        size = fx.visible_font_size(text)
        if box:
            x, y = box[0] + box[2] + size, box[1]
        else:  # without Inkscape's layout, a generous guess at the text's width
            origin = text.bounding_box(text.getparent().composed_transform())
            x, y = origin.left + size * 0.62 * len(fx.first_line(text)) + size, origin.top - size
        group = fx.new_group(self.svg, "Fontrix: fonts like " + query, "fontrix-similar-")
        fx.add_board(group, self.svg, "Fonts like " + query, entries, x, y, size)
        if self.options.replace:
            fx.set_font(text, fx.css_of_result(answer["results"][0]))

    def similar(self, face):
        args = ["similar", face.pattern(), "--limit", str(self.options.count)]
        if self.options.other_families:
            args.append("--other-families")
        try:
            answer, _ = fx.run_fontrix(*args)
        except fx.FontrixFailed as failure:
            if "no installed font is named" not in failure.said:
                raise
            raise inkex.AbortExtension("Fontrix knows no font %s: it is not installed, nor a face of its "
                                       "similarity table." % face.description())
        if self.options.same_class and answer["query_installed"]:
            # The classes of the face fontrix resolved, as its classification gives them.
            fonts, _ = fx.run_fontrix("classes")
            classes = next((f["classes"] for f in fonts["fonts"] if f["name"] == answer["query"]), [])
            if classes:
                for label in classes:
                    args += ["--class", label]
                answer, _ = fx.run_fontrix(*args)
        return answer


def text_object(element):
    """The text object an element is, is part of (a tspan, a flowed paragraph) or, for a group,
    the first it holds; None if none."""
    if isinstance(element, inkex.Group):
        return next((d for d in element.descendants() if isinstance(d, (inkex.TextElement, inkex.FlowRoot))), None)
    while element is not None and not isinstance(element, (inkex.TextElement, inkex.FlowRoot)):
        element = element.getparent() if isinstance(element, (inkex.Tspan, inkex.FlowPara, inkex.FlowSpan,
                                                                inkex.FlowDiv, inkex.TextPath)) else None
    return element


def first_text_node(text):
    """The element whose style sets the first characters: the first tspan (or flowPara) with
    text, else the text object itself."""
    if text.text and text.text.strip():
        return text
    for node in text.iterdescendants():
        if isinstance(node, inkex.BaseElement) and node.text and node.text.strip():
            return node
    return text


if __name__ == "__main__":
    SimilarFonts().run()
