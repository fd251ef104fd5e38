#!/usr/bin/env python3
"""Similar fonts…: beside each selected text, a board of the installed fonts most like its font,
the text's first line set in each."""
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
        if not self.svg.selection:
            raise inkex.AbortExtension("Select a text object first.")
        texts = []
        for element in self.svg.selection.values():
            text = text_object(element)
            if text is not None and not any(text is seen for seen in texts):
                texts.append(text)
        if not texts:
            raise inkex.AbortExtension("Similar fonts works on a text object, and the selection holds none.")

        boards, failures = [], []
        for text in texts:
            try:
                boards.append(self.board(text))
            except fx.FontrixMissing:
                raise
            except inkex.AbortExtension as failure:
                failures.append((text, str(failure)))
        if not boards:
            if len({said for _, said in failures}) == 1:  # one text, or the same failure for each
                raise inkex.AbortExtension(failures[0][1])
            raise inkex.AbortExtension("No board for any selected text:\n" + "\n".join(
                "“%s”: %s" % (fx.first_line(text, "(empty)"), said) for text, said in failures))
        fx.place_boards(self, boards)
        if failures:  # the boards made are kept; Inkscape shows this beside them
            inkex.errormsg("No board for %d of the %d selected texts:\n" % (len(failures), len(texts)) + "\n".join(
                "“%s”: %s" % (fx.first_line(text, "(empty)"), said) for text, said in failures))

    def board(self, text):
        """The board of the fonts most like the face of the text's first characters, not yet
        placed; with "replace" those characters, and the others in that face, set in the first."""
        face = fx.element_face(fx.first_face_element(text))
        answer = self.similar(face)
        if not answer["results"]:
            narrowed = self.options.same_class or self.options.other_families
            raise inkex.AbortExtension("Fontrix knows no installed font like %s%s." % (
                face.description(), " with these options" if narrowed else ""))
        query = answer["query_family"] + " " + answer["query_style"]
        if not answer["query_installed"]:
            query += " (not installed)"
        line = fx.first_line(text)
        # An installed look-alike of a well-known family asked about comes first, with no score
        # when it was itself the question.
        entries = [("%d. %s %s  %s" % (i + 1, r["family"], r["style"],
                                       fx.score_text(r["score"]) if "score" in r else "(%s)" % r.get("look_alike")),
                    line, fx.css_of_result(r)) for i, r in enumerate(answer["results"])]
        size = fx.visible_font_size(text)
        group = fx.new_group(self.svg, "Fontrix: fonts like " + query, "fontrix-similar-")
        _, extent = fx.add_board(group, self.svg, "Fonts like " + query, entries, size)
        if self.options.replace:
            fx.set_font_where(text, face, fx.css_of_result(answer["results"][0]))
        return fx.Board(group, extent, anchors=[text.get_id()], side="right", gap=size)

    def similar(self, face):
        args = ["similar", face.pattern(), "--limit", str(self.options.count)]
        if self.options.other_families:
            args.append("--other-families")
        try:
            answer, _ = fx.run_fontrix(*args)
        except fx.FontrixFailed as failure:
            if "no installed font is named" not in failure.said:
                raise
            raise inkex.AbortExtension("Fontrix knows no font %s: it is not installed, nor a font its data "
                                       "knows." % face.description())
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
        inner = (inkex.Tspan, inkex.FlowPara, inkex.FlowSpan, inkex.FlowDiv, inkex.TextPath)
        element = element.getparent() if isinstance(element, inner) else None
    return element


if __name__ == "__main__":
    SimilarFonts().run()
