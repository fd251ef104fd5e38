"""The part of an SVG <image> that the page shows, as a picture file fontrix can read.

An image element fits its picture into the frame x, y, width, height as preserveAspectRatio
says (the whole picture scaled to fit by default, or cut by the frame with "slice"); clip paths
on it or on its groups cut it further. What is left is cut out of the picture's pixels."""
import base64
import io
import os
import re
import struct
import urllib.parse
import urllib.request

import inkex
from inkex import BoundingBox, Transform

PICTURE_TYPES = {b"\x89PNG\r\n\x1a\n": ".png", b"\xff\xd8": ".jpg"}


def picture_bytes(extension, image):
    """The bytes of the picture an <image> shows: an embedded data URI or a linked file."""
    href = (image.get("xlink:href") or image.get("href") or "").strip()
    if href.startswith("data:"):
        header, _, data = href.partition(",")
        try:
            return base64.b64decode(data) if ";base64" in header else urllib.parse.unquote_to_bytes(data)
        except ValueError:
            raise inkex.AbortExtension("The selected image's embedded data cannot be read.")
    if not href:
        raise inkex.AbortExtension("The selected image has no picture (no href).")
    candidates = linked_files(extension, image, href)
    for candidate in candidates:
        if os.path.isfile(candidate):
            try:
                with open(candidate, "rb") as stream:
                    return stream.read()
            except OSError as err:
                raise inkex.AbortExtension("The picture the selected image links to cannot be read: %s (%s)."
                                           % (candidate, err.strerror))
    raise inkex.AbortExtension("The picture the selected image links to cannot be found: %s." % candidates[0])


def linked_files(extension, image, href):
    """The files a link may mean, most likely first. Inkscape runs an effect on a copy of the
    document in its temporary folder and rewrites the relative links for that copy (to file://
    URLs where the two folders share nothing), so a relative link is looked for beside the
    effect's input first, then beside the document itself (the path Inkscape gives as
    DOCUMENT_PATH, else sodipodi:docbase or a sodipodi:docname with a folder); last comes the
    absolute path Inkscape may have kept in sodipodi:absref."""
    parts = urllib.parse.urlsplit(href)
    if parts.scheme.lower() == "file":
        if parts.netloc not in ("", "localhost"):
            raise inkex.AbortExtension("The selected image links to %s, a file on another computer: embed the "
                                       "picture or link a file on this one." % href)
        paths = [urllib.request.url2pathname(parts.path)]
    elif len(parts.scheme) > 1:  # one letter is a Windows drive
        raise inkex.AbortExtension("The selected image links to %s, which is not a file: embed the picture or "
                                   "link a file." % href)
    else:
        # A link is a URL: %-escapes are decoded (a name with a real "%" in it is tried as written too).
        paths = list(dict.fromkeys([urllib.parse.unquote(href), href]))
    folders = []
    source = extension.options.input_file
    if isinstance(source, str) and source:
        folders.append(os.path.dirname(os.path.abspath(source)))
    document = extension.document_path()
    if document:
        folders.append(os.path.dirname(os.path.abspath(document)))
    root = extension.svg
    if root.get("sodipodi:docbase"):
        folders.append(root.get("sodipodi:docbase"))
    if os.path.isabs(root.get("sodipodi:docname") or ""):
        folders.append(os.path.dirname(root.get("sodipodi:docname")))
    candidates = []
    for path in paths:
        path = os.path.expanduser(path)
        if os.path.isabs(path):
            candidates.append(path)
        else:
            candidates += [os.path.join(folder, path) for folder in folders]
    if image.get("sodipodi:absref"):
        candidates.append(os.path.expanduser(image.get("sodipodi:absref")))
    if not candidates:
        raise inkex.AbortExtension("The selected image links to %s, relative to the document's folder, which "
                                   "Inkscape does not say: save the document first." % href)
    return list(dict.fromkeys(os.path.normpath(c) for c in candidates))


def picture_kind(data):
    for magic, suffix in PICTURE_TYPES.items():
        if data.startswith(magic):
            return suffix
    return None


def picture_size(data):
    """Width and height in pixels of a PNG or JPEG, from its header; None when unknown."""
    if data.startswith(b"\x89PNG\r\n\x1a\n") and len(data) >= 24:
        return struct.unpack(">II", data[16:24])
    if data.startswith(b"\xff\xd8"):
        at = 2
        while at + 9 < len(data):
            if data[at] != 0xFF:
                return None
            marker = data[at + 1]
            length = struct.unpack(">H", data[at + 2:at + 4])[0]
            if marker in (0xC0, 0xC1, 0xC2, 0xC3, 0xC5, 0xC6, 0xC7, 0xC9, 0xCA, 0xCB, 0xCD, 0xCE, 0xCF):
                height, width = struct.unpack(">HH", data[at + 5:at + 9])
                return width, height
            at += 2 + length
    return None


def number(value, default):
    try:
        return float(inkex.BaseElement.to_dimensionless(value)) if value not in (None, "") else default
    except (TypeError, ValueError):
        return default


def placement(image, width_px, height_px):
    """Where the picture's pixels land in the image's user space: (scale x, scale y, left, top),
    and the frame (x, y, width, height), from the image's own attributes."""
    x, y = number(image.get("x"), 0.0), number(image.get("y"), 0.0)
    w, h = number(image.get("width"), float(width_px)), number(image.get("height"), float(height_px))
    ratio = (image.get("preserveAspectRatio") or "xMidYMid meet").split()
    align = ratio[0] if ratio else "xMidYMid"
    if align == "defer" and len(ratio) > 1:
        ratio = ratio[1:]
        align = ratio[0]
    if align == "none":
        return (w / width_px, h / height_px, x, y), (x, y, w, h)
    scale = (max if len(ratio) > 1 and ratio[1] == "slice" else min)(w / width_px, h / height_px)
    free_x, free_y = w - width_px * scale, h - height_px * scale
    left = x + {"xMin": 0.0, "xMid": 0.5, "xMax": 1.0}.get(align[:4], 0.5) * free_x
    top = y + {"YMin": 0.0, "YMid": 0.5, "YMax": 1.0}.get(align[4:], 0.5) * free_y
    return (scale, scale, left, top), (x, y, w, h)


def clip_box(svg, element, frame):
    """The bounding box, in the element's own user space, of the clip path the element has;
    None when it has none (or one that cannot be read). `frame` is the element's own box, for
    clips in objectBoundingBox units."""
    match = re.match(r"\s*url\(\s*#([^)\s]+)\s*\)", element.get("clip-path") or element.style.get("clip-path") or "")
    if not match:
        return None
    clip = svg.getElementById(match.group(1))
    if clip is None:
        return None
    box = BoundingBox()
    for child in clip:
        if isinstance(child, inkex.ShapeElement):
            try:
                box += child.bounding_box(clip.transform)
            except (AttributeError, TypeError, ValueError):
                continue
    if not box:
        return None
    if clip.get("clipPathUnits") == "objectBoundingBox":
        if frame is None:  # a group's own box is not worked out here
            return None
        x, y, w, h = frame
        box = BoundingBox((x + box.left * w, x + box.right * w), (y + box.top * h, y + box.bottom * h))
    return box


def transformed_box(box, transform):
    corners = [transform.apply_to_point(p) for p in
               ((box.left, box.top), (box.right, box.top), (box.left, box.bottom), (box.right, box.bottom))]
    return BoundingBox((min(p[0] for p in corners), max(p[0] for p in corners)),
                       (min(p[1] for p in corners), max(p[1] for p in corners)))


def intersect(a, b):
    """Two boxes (left, top, right, bottom) cut to their common part, which may be empty
    (right <= left or bottom <= top)."""
    return max(a[0], b[0]), max(a[1], b[1]), min(a[2], b[2]), min(a[3], b[3])


def visible_pixels(svg, image, width_px, height_px):
    """The pixel box (left, top, right, bottom) of the picture that the page shows; None when
    nothing of it shows."""
    (sx, sy, left, top), frame = placement(image, width_px, height_px)
    x, y, w, h = frame
    shown = intersect((x, y, x + w, y + h), (left, top, left + width_px * sx, top + height_px * sy))
    # Clips on the image and its groups, each in its element's user space, brought into the image's.
    to_element = Transform()  # from the image's user space to the current element's
    element = image
    while isinstance(element, inkex.ShapeElement):
        clip = clip_box(svg, element, frame if element is image else None)
        if clip is not None:
            inside = transformed_box(clip, -to_element)
            shown = intersect(shown, (inside.left, inside.top, inside.right, inside.bottom))
        to_element = Transform(element.transform) @ to_element
        element = element.getparent()
    if shown[2] <= shown[0] or shown[3] <= shown[1]:
        return None
    box = (int(round((shown[0] - left) / sx)), int(round((shown[1] - top) / sy)),
           int(round((shown[2] - left) / sx)), int(round((shown[3] - top) / sy)))
    box = (max(box[0], 0), max(box[1], 0), min(box[2], width_px), min(box[3], height_px))
    return box if box[2] > box[0] and box[3] > box[1] else None


def as_png(data):
    """A picture of another kind (GIF, WebP, BMP...) as PNG, which fontrix reads, through PIL."""
    try:
        from PIL import Image
    except ImportError:
        raise inkex.AbortExtension("The selected image is neither PNG nor JPEG, and reading other kinds needs "
                                   "Python's imaging library (Debian: python3-pil).")
    try:
        with Image.open(io.BytesIO(data)) as picture:
            out = io.BytesIO()
            picture.convert("RGBA" if "A" in picture.getbands() else "RGB").save(out, "PNG")
            return out.getvalue()
    except (OSError, ValueError):
        raise inkex.AbortExtension("The selected image's picture cannot be read.")


def shown_picture(extension, image, folder):
    """Writes the part of the image the page shows into `folder`; returns the file's path, the
    pixel box taken and that part's width and height in the image's user units."""
    data = picture_bytes(extension, image)
    if not picture_kind(data):
        data = as_png(data)
    suffix = picture_kind(data)
    size = picture_size(data)
    if not size:
        raise inkex.AbortExtension("The selected image's picture cannot be read.")
    box = visible_pixels(extension.svg, image, *size)
    if box is None:
        raise inkex.AbortExtension("No part of the selected image shows on the page.")
    (sx, sy, _, _), _ = placement(image, *size)
    shown = ((box[2] - box[0]) * sx, (box[3] - box[1]) * sy)
    path = os.path.join(folder, "shown" + suffix)
    if box == (0, 0) + tuple(size):
        with open(path, "wb") as stream:
            stream.write(data)
        return path, box, shown
    try:
        from PIL import Image
    except ImportError:
        raise inkex.AbortExtension("Cutting out the part of the picture the page shows needs Python's "
                                   "imaging library (Debian: python3-pil).")
    with Image.open(io.BytesIO(data)) as picture:
        picture.crop(box).save(os.path.join(folder, "shown.png"))
    return os.path.join(folder, "shown.png"), box, shown
