#!/usr/bin/env python3
"""Fonts by style…: a board of the installed fonts that have the chosen style classes, as
Fontrix's classification gives them."""
import inkex

import fontrix_ink as fx


class FontsByStyle(fx.FontrixEffect):
    what = "Fonts by style"

    def add_arguments(self, pars):
        pars.add_argument("--tab")
        for name in fx.CLASSES:
            pars.add_argument("--" + name.replace("-", "_"), type=inkex.Boolean, default=False)
        pars.add_argument("--sample", default="Handgloves")
        pars.add_argument("--count", type=int, default=24)
        pars.add_argument("--size", type=float, default=18.0)

    def apply(self):
        chosen = [c for c in fx.CLASSES if getattr(self.options, c.replace("-", "_"))]
        if not chosen:
            raise inkex.AbortExtension("Tick at least one style class.")
        # Every font with all the ticked classes, whatever others it has; the whole list, so the
        # board can say how many it leaves out.
        answer, _ = fx.run_fontrix("classes", *chosen)
        fonts = answer["fonts"]
        wanted = " and ".join(chosen)
        if not fonts:
            raise inkex.AbortExtension("No installed font is classed %s." % wanted)
        count = max(self.options.count, 1)
        title = "Installed fonts classed " + wanted
        if len(fonts) > count:
            title += " (%d of %d; raise “At most this many fonts” for the rest)" % (count, len(fonts))
        fonts = fonts[:count]

        sample = " ".join(self.options.sample.split()) or "Handgloves"
        entries = [("%s %s  (%s)" % (f["family"], f["style"], ", ".join(c[3:].replace("_", "-") for c in f["classes"])),
                    sample, fx.css_of_result(f)) for f in fonts]
        size = self.svg.unittouu("%gpt" % self.options.size)
        view = self.svg.get_viewbox()
        group = fx.new_group(self.svg, "Fontrix: fonts classed " + wanted, "fontrix-by-style-")
        _, extent = fx.add_board(group, self.svg, title, entries, size, column_height=max(view[3] - 2 * size, 3 * size))
        # Beside the selection, else at the page's top left; clear of what is drawn there.
        fx.place_boards(self, [fx.Board(group, extent, anchors=self.svg.selection.ids, side="right", gap=size,
                                        point=(view[0] + size, view[1] + size))])


if __name__ == "__main__":
    FontsByStyle().run()
