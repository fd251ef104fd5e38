#!/usr/bin/python3
"""Writes training/corpus/labels.tsv: the style classes of every face in manifest.tsv.

    training/run corpus.labels [--cache DIR]

One line a face: unique name, its classes (label strings, the primary class first), where
they came from, and the family it belongs to (for a web font its catalogue family, since the
files' own family names carry the weight: "Barlow Light"); splits.py splits by that family. The sources, in order:
1. family_classes.tsv, the hand list (families no metadata describes, and corrections), and
   the Aenigma collection of display faces (family names ending in "BRK");
2. the family's Google Fonts category in google-font-metadata, refined by the written rules
   below (slab serifs among serifs, blackletter and scripts among display faces, scripts
   and handmade faces among handwriting);
3. the font itself: a face whose letters and figures all have one advance width, or whose
   post table says fixed pitch, is monospaced whatever its category says.
A face none of these describe is written with no classes and source "unlabelled".

What the finer classes mean, as the lists below apply them (checked against contact sheets of
every family of the class: label_sheets.py):
- fs_script: joined or formal writing, and broad-pen calligraphy (Great Vibes, Dancing Script,
  the Playwrite school cursives, Lobster, Fondamento); a handwriting family is script when its
  letters join or it is written with a formal or calligraphic pen.
- fs_handmade: print-like hands, markers and comic lettering whose letters stand apart
  (Indie Flower, Caveat, Comic Neue, Playwrite DE Grund, pre-cursive school hands).
- fs_slab_serif: proportional designs with slab serifs, text and display (Roboto Slab, Arvo,
  Alfa Slab One, Belgrano); always with fs_serif. A monospaced typewriter face (Courier and its
  clones) is fs_monospace alone: its serifs come with the pitch, and a designer asking for
  slab serifs does not mean typewriters.
- fs_decorative: designs whose ornament or novelty is the point (inline, outline, stencil,
  shadow, distressed, pixel, techno, themed lettering). Google files many plain designs as
  display: fat faces and Didones, heavy, condensed and rounded sans, display romans and slabs;
  these take the class of their structure (DISPLAY_SANS, DISPLAY_SERIF, SLAB_SERIF), and a
  comic or marker hand filed as display is handmade (DISPLAY_HANDMADE).
"""
import argparse
import json
import os
import re
import sys

from fontTools.ttLib import TTCollection, TTFont, TTLibError

from fontrix_training.corpus import fetch
from fontrix_training import CORPUS, tab_rows

MANIFEST = os.path.join(CORPUS, "manifest.tsv")
LABELS = os.path.join(CORPUS, "labels.tsv")
HAND_LIST = os.path.join(CORPUS, "family_classes.tsv")

CLASSES = ("fs_blackletter", "fs_decorative", "fs_handmade", "fs_monospace", "fs_sans_serif", "fs_script",
           "fs_serif", "fs_slab_serif")

BLACKLETTER = {
    "Grenze Gotisch", "UnifrakturMaguntia", "UnifrakturCook", "Pirata One", "New Rocker", "Fruktur",
    "Jacquard 12", "Jacquard 24", "Jacquarda Bastarda 9", "Texturina", "Germania One",
    "Manufacturing Consent", "Metal Mania",
}
# Slab serifs of any category (serif and display); proportional designs only.
SLAB_SERIF = {
    "Roboto Slab", "Zilla Slab", "Arvo", "Bitter", "Josefin Slab", "Aleo", "Crete Round", "Rokkitt",
    "Slabo 13px", "Slabo 27px", "Noticia Text", "Kameron", "Podkova", "Enriqueta", "Copse", "Patua One",
    "Ultra", "Alfa Slab One", "Bevan", "Coustard", "Trocchi", "Glegoo", "Kreon", "Solway", "Sanchez",
    "Arbutus Slab", "Stint Ultra Condensed", "Stint Ultra Expanded", "Bree Serif", "Hepta Slab", "Andada",
    "Peralta", "Graduate", "Cutive", "Special Elite", "Kelly Slab", "Nixie One", "Smokum", "Scope One",
    "Antic Slab", "Suez One", "Montagu Slab", "Belgrano", "BioRhyme", "BhuTuka Expanded One", "Inika",
    "Kadwa", "Pridi", "Wellfleet", "Angkor", "Moul", "Battambang",
}
# Display-category families of plain design, by their structure.
DISPLAY_SANS = {
    "ADLaM Display", "Anybody", "Arima", "Averia Sans Libre", "Averia Gruesa Libre", "Bahianita", "Bakbak One",
    "Baloo 2", "Baloo Bhai 2", "Baloo Bhaijaan 2", "Baloo Bhaina 2", "Baloo Chettan 2", "Baloo Da 2",
    "Baloo Paaji 2", "Baloo Tamma 2", "Baloo Thambi 2", "Bellota", "Bellota Text", "Big Shoulders", "Boldonse",
    "Bowlby One", "Changa One", "Chango", "Climate Crisis", "Coda", "Coiny", "Comfortaa", "Concert One",
    "Contrail One", "Dangrek", "Expletus Sans", "Freeman", "Funnel Display", "Gabarito", "Karantina",
    "Konkhmer Sleokchher", "Lilita One", "MuseoModerno", "Odibee Sans", "Overlock", "Passion One",
    "Prosto One", "Protest Strike", "Red Rose", "Rowdies", "Sniglet", "Tilt Neon", "Tilt Warp", "Titan One",
}
DISPLAY_SERIF = {
    "Abril Fatface", "Averia Serif Libre", "Bigshot One", "Calistoga", "Caprasimo", "Chonburi", "Elsie", "Forum",
    "Gideon Roman", "Gravitas One", "Libertinus Serif Display", "Luxurious Roman", "Monomakh", "Orelega One",
    "Pochaevsk", "Ponomar", "Poller One", "Rakkas", "Shafarik", "Simonetta", "Triodion", "Viaoda Libre",
    "Yeseva One",
}
# Comic and marker hands that Google files as display.
DISPLAY_HANDMADE = {"Balsamiq Sans", "Comic Relief", "Shantell Sans"}
# Display-category families that are connected or formal scripts rather than decoration.
DISPLAY_SCRIPT = {
    "Lobster", "Lobster Two", "Playball", "Lily Script One", "Oleo Script", "Oleo Script Swash Caps",
    "Seaweed Script", "Dynalight", "Sevillana",
}
# Handwriting-category families written as joined or formal script; the rest of the
# category (print-like handwriting, markers, school print) is handmade.
SCRIPT_NAME = re.compile(r"Script|Swash|Formal|Cursive|Calligraph|Brush|^Playwrite|Vibes")
# Handwriting families the name rule would call script that are print hands.
HANDWRITING_PRINT = {"Caveat Brush", "Delius Swash Caps", "Edu NSW ACT Hand Pre", "Playwrite DE Grund"}
HANDWRITING_SCRIPT = {
    "Allura", "Allison", "Ballet", "Beau Rivage", "Birthstone", "Birthstone Bounce", "Bonheur Royale",
    "Carattere", "Cherish", "Charm", "Clicker Script", "Comforter", "Condiment", "Cookie", "Corinthia",
    "Courgette", "Damion", "Dancing Script", "Devonshire", "Dr Sugiyama", "Eagle Lake", "Engagement",
    "Ephesis", "Estonia", "Explora", "Felipa", "Fleur De Leah", "Fondamento", "Great Vibes", "Grand Hotel",
    "Grey Qo", "Gwendolyn", "Herr Von Muellerhoff", "Hurricane", "Imperial Script", "Ingrid Darling",
    "Inspiration", "Island Moments", "Italianno", "Kristi", "La Belle Aurore", "Lavishly Yours",
    "Leckerli One", "Licorice", "Love Light", "Lovers Quarrel", "Luxurious Script", "Meddon", "Meie Script",
    "Miss Fajardose", "Monsieur La Doulaise", "MonteCarlo", "Montez", "Moon Dance", "Mr Bedfort",
    "Mr Dafoe", "Mr De Haviland", "Mrs Saint Delafield", "Mrs Sheppards", "Ms Madi", "My Soul",
    "Niconne", "Norican", "Ole", "Pacifico", "Parisienne", "Passions Conflict", "Petemoss", "Pinyon Script",
    "Praise", "Princess Sofia", "Puppies Play", "Qwigley", "Qwitcher Grypen", "Rochester", "Romanesco",
    "Ruthie", "Sacramento", "Satisfy", "Send Flowers", "Shalimar", "Smooch", "Sofia", "Splash",
    "Stalemate", "Tangerine", "Tapestry", "The Nautigal", "Twinkle Star", "Updock", "Vibur", "Waterfall",
    "Whisper", "WindSong", "Yellowtail", "Yesteryear", "Bilbo", "Marck Script", "Mea Culpa", "Euphoria Script",
    "Lugrasimo", "Babylonica", "Caramel", "Festive", "Quintessential", "Solitreo", "Kapakana",
    "Arizonia", "Beth Ellen", "Bonbon", "Charmonman", "Dawning of a New Day", "Homemade Apple", "Kings", "Molle",
    "Neonderthaw", "Oooh Baby", "Ruge Boogie", "Sassy Frass",
}


def category_classes(family, category):
    """Classes for a family from its Google Fonts category, and the rule that gave them."""
    if family in BLACKLETTER:
        return ["fs_blackletter"], "blackletter list"
    if family in SLAB_SERIF:
        return ["fs_slab_serif", "fs_serif"], "slab serif list"
    if category == "serif":
        return ["fs_serif"], "category serif"
    if category == "sans-serif":
        return ["fs_sans_serif"], "category sans-serif"
    if category == "monospace":
        return ["fs_monospace"], "category monospace"
    if category == "handwriting":
        if family in HANDWRITING_PRINT:
            return ["fs_handmade"], "category handwriting, print hand"
        if family in HANDWRITING_SCRIPT or SCRIPT_NAME.search(family):
            return ["fs_script"], "category handwriting, script rule"
        return ["fs_handmade"], "category handwriting"
    if category == "display":
        for names, classes, rule in ((DISPLAY_SCRIPT, ["fs_script"], "script list"),
                                     (DISPLAY_SANS, ["fs_sans_serif"], "plain sans"),
                                     (DISPLAY_SERIF, ["fs_serif"], "plain serif"),
                                     (DISPLAY_HANDMADE, ["fs_handmade"], "comic hand")):
            if family in names:
                return classes, "category display, " + rule
        return ["fs_decorative"], "category display"
    return None, None


def read_hand_list(path=HAND_LIST):
    """family -> (classes, note). Lines: family, comma-separated classes, note."""
    hand = {}
    for number, fields in tab_rows(path):
        classes = fields[1].split(",") if len(fields) > 1 else []
        if len(fields) < 2 or not classes or any(c not in CLASSES for c in classes):
            raise ValueError(f"{path}:{number}: expected family<TAB>classes<TAB>note with classes from {CLASSES}")
        hand[fields[0]] = (classes, fields[2] if len(fields) > 2 else "")
    return hand


def read_catalogue(cache):
    """(Google family name -> category, web-font package id -> family name), from the
    fetched metadata package."""
    path = os.path.join(fetch.package_folder(cache, "npm", "google-font-metadata"), "google-fonts-v2.json")
    with open(path, encoding="utf-8") as f:
        data = json.load(f)
    return ({entry["family"]: entry["category"] for entry in data.values()},
            {package_id: entry["family"] for package_id, entry in data.items()})


WEB_FONT_PACKAGE = re.compile(r"^npm:@fontsource/([a-z0-9-]+)=")


def catalogue_family(face, family_of_id):
    """The family a face belongs to: for a web-font package its catalogue family (the files'
    own family names carry the weight, "Barlow Light"), else the face's family name."""
    match = WEB_FONT_PACKAGE.match(face["package"])
    if match and match.group(1) in family_of_id:
        return family_of_id[match.group(1)]
    return face["family"]


def is_fixed_pitch(font):
    """True when the post table says so, or when a-z, A-Z and 0-9 share one advance width."""
    if getattr(font.get("post"), "isFixedPitch", 0):
        return True
    cmap = font.getBestCmap() or {}
    metrics = font["hmtx"].metrics
    widths = {metrics[cmap[ord(c)]][0] for c in "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
              if ord(c) in cmap and cmap[ord(c)] in metrics}
    return len(widths) == 1


def face_is_fixed_pitch(cache, file_field):
    path, _, index = file_field.partition("#")
    with open(os.path.join(cache, path), "rb") as file:
        if path.lower().endswith((".ttc", ".otc")):
            return is_fixed_pitch(TTCollection(file, lazy=True).fonts[int(index or 0)])
        return is_fixed_pitch(TTFont(file, lazy=True))


def label_face(family, fixed_pitch, hand, catalogue):
    """(classes, source) for one face."""
    if family in hand:
        classes, source = list(hand[family][0]), "hand list"
    elif family.endswith(" BRK"):
        classes, source = ["fs_decorative"], "Aenigma display collection (family suffix BRK)"
    elif family in catalogue:
        classes, rule = category_classes(family, catalogue[family])
        classes, source = (list(classes), "Google Fonts " + rule) if classes else ([], "unlabelled")
    else:
        classes, source = [], "unlabelled"
    if fixed_pitch and "fs_monospace" not in classes:
        classes = ["fs_monospace"] + classes
        source += "; fixed pitch"
    elif not fixed_pitch and classes and classes[0] == "fs_monospace":
        source += "; font not fixed pitch"
    return classes, source


def read_manifest(path=MANIFEST):
    with open(path, encoding="utf-8") as f:
        header = f.readline().rstrip("\n").split("\t")
        return [dict(zip(header, line.rstrip("\n").split("\t"))) for line in f if line.strip()]


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--cache", default=fetch.default_cache())
    args = parser.parse_args(argv)
    hand = read_hand_list()
    catalogue, family_of_id = read_catalogue(args.cache)
    counts = {c: 0 for c in CLASSES}
    unlabelled = set()
    with open(LABELS + ".tmp", "w", encoding="utf-8") as out:
        out.write("unique_name\tclasses\tsource\tfamily\n")
        for face in read_manifest():
            try:
                fixed = face_is_fixed_pitch(args.cache, face["file"])
            except (TTLibError, OSError, KeyError) as error:
                print(f"{face['unique_name']}: {error}", file=sys.stderr)
                fixed = False
            family = catalogue_family(face, family_of_id)
            classes, source = label_face(family, fixed, hand, catalogue)
            if not classes:
                unlabelled.add(family)
            for c in classes:
                counts[c] += 1
            out.write(f"{face['unique_name']}\t{','.join(classes)}\t{source}\t{family}\n")
    os.replace(LABELS + ".tmp", LABELS)
    print(" ".join(f"{c}={n}" for c, n in counts.items()))
    if unlabelled:
        print(f"{len(unlabelled)} families unlabelled: " + ", ".join(sorted(unlabelled)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
