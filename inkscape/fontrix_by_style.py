#!/usr/bin/env python3
"""Fonts by style…: a board of the installed fonts of chosen style classes, as Fontrix's
classification gives them."""
import inkex

import fontrix_ink as fx


class FontsByStyle(fx.FontrixEffect):
    what = "Fonts by style"

    def add_arguments(self, pars):
        pars.add_argument("--tab")
        for name in fx.CLASSES:
            pars.add_argument("--" + name.replace("-", "_"), type=inkex.Boolean, default=False)
        pars.add_argument("--others", type=inkex.Boolean, default=False)
        pars.add_argument("--sample", default="Handgloves")
        pars.add_argument("--count", type=int, default=24)
        pars.add_argument("--size", type=float, default=18.0)

    def apply(self):
        chosen = [c for c in fx.CLASSES if getattr(self.options, c.replace("-", "_"))]
        if not chosen:
            raise inkex.AbortExtension("Tick at least one style class.")
        args = ["classes", *chosen, "--limit", str(self.options.count)]
        if not self.options.others:
            for other in fx.CLASSES:
                if other not in chosen:
                    args += ["--not", other]
        answer, _ = fx.run_fontrix(*args)
        wanted = " and ".join(chosen) + ("" if self.options.others else " only")
        if not answer["fonts"]:
            raise inkex.AbortExtension("No installed font is classed %s." % wanted)

        sample = " ".join(self.options.sample.split()) or "Handgloves"
        entries = [("%s %s  (%s)" % (f["family"], f["style"], ", ".join(c[3:].replace("_", "-") for c in f["classes"])),
                    sample, fx.css_of_result(f)) for f in answer["fonts"]]
        size = self.svg.unittouu("%gpt" % self.options.size)
        x, y = self.place(size)
        group = fx.new_group(self.svg, "Fontrix: fonts classed " + wanted, "fontrix-by-style-")
        view = self.svg.get_viewbox()
        fx.add_board(group, self.svg, "Installed fonts classed " + wanted, entries, x, y, size,
                     bottom=max(view[1] + view[3] - size, y + 3 * size))

    def place(self, size):
        """Beside the selection, else at the page's top left."""
        if self.svg.selection:
            boxes = fx.query_boxes(self)
            shown = [boxes[i] for i in self.svg.selection.ids if i in boxes]
            if shown:
                return max(b[0] + b[2] for b in shown) + size, min(b[1] for b in shown)
        box = self.svg.get_viewbox()
        return box[0] + size, box[1] + size


if __name__ == "__main__":
    FontsByStyle().run()
