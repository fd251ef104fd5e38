#!/usr/bin/env python3
"""Identify font in image…: the fonts most likely shown in the selected bitmap, each a line of
sample text set in that font, placed under the image. An open font the machine lacks is named
with where to get it, its sample set in the installed font most like it."""
import tempfile

import inkex

import fontrix_ink as fx
import fontrix_pictures


class IdentifyFont(fx.FontrixEffect):
    what = "Identify font"

    def add_arguments(self, pars):
        pars.add_argument("--tab")
        pars.add_argument("--count", type=int, default=5)
        pars.add_argument("--sample", default="Handgloves")

    def apply(self):
        # An image, or the first a selected group holds (a clipped image is often grouped).
        def image_in(e):
            if isinstance(e, inkex.Image):
                return e
            return next((d for d in e.descendants() if isinstance(d, inkex.Image)), None)
        images = [image_in(e) for e in self.svg.selection.values()]
        images = [e for e in images if e is not None]
        if not self.svg.selection:
            raise inkex.AbortExtension("Select an image of text first.")
        if not images:
            raise inkex.AbortExtension("Identify font works on a bitmap image, and the selection holds none.")
        image = images[0]
        with tempfile.TemporaryDirectory(prefix="fontrix-") as folder:
            path, _, shown = fontrix_pictures.shown_picture(self, image, folder)
            answer, _ = fx.run_fontrix("recognize", path, "--limit", str(self.options.count))
        if not answer["results"]:
            raise inkex.AbortExtension("Fontrix recognised no installed font in the image: it needs text "
                                       "at least 20 pixels high, in lines wider than high.")
        sample = " ".join(self.options.sample.split()) or "Handgloves"
        installed = {}
        if any(r.get("installed") is False for r in answer["results"]):
            fonts, _ = fx.run_fontrix("fonts")
            installed = {f["name"]: f for f in fonts["fonts"]}
        entries = []
        for i, r in enumerate(answer["results"]):
            if r.get("installed") is False:
                # Drawn in the installed font most like it: the face itself is not here to draw.
                stand_in = next((installed[n] for n in r.get("closest_installed", []) if n in installed), None)
                if stand_in is None:
                    continue
                where = "  — not installed: open font, %s (%s); shown in %s %s" % (
                    r.get("source", "?"), r.get("licence", "?"), stand_in["family"], stand_in["style"])
                entries.append((label(i, r, answer) + where, sample, fx.css_of_result(stand_in)))
            else:
                entries.append((label(i, r, answer), sample, fx.css_of_result(r)))

        # Samples about as high as the text the picture shows: a share of the part shown, on the page.
        matrix = image.composed_transform()
        scale = abs(matrix.a * matrix.d - matrix.b * matrix.c) ** 0.5 or 1.0
        width, height = shown[0] * scale, shown[1] * scale
        size = min(max(height * 0.6, width / 40.0), width / 6.0)
        group = fx.new_group(self.svg, "Fontrix: fonts in " + (image.get("id") or "the image"), "fontrix-identify-")
        _, extent = fx.add_board(group, self.svg, "Fonts in the image", entries, size)
        fx.place_boards(self, [fx.Board(group, extent, anchors=[image.get_id()], side="below", gap=size * 0.3)])


def label(index, font, answer):
    """The candidate's family, style and score, with what the answer says of its certainty."""
    text = "%d. %s %s  %s" % (index + 1, font["family"], font["style"], fx.score_text(font["score"]))
    confidence = font.get("confidence", answer.get("confidence") if index == 0 else None)
    if isinstance(confidence, (int, float)):
        text += "  confidence %.0f %%" % (100 * confidence if confidence <= 1 else confidence)
    if font.get("sure", answer.get("sure") if index == 0 else None) is False:
        text += "  (not sure)"
    return text


if __name__ == "__main__":
    IdentifyFont().run()
