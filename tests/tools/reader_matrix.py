#!/usr/bin/python3
"""What a person sees of the forms `qfforms run` writes, in five readers.

    reader_matrix.py --qfforms BIN --example SCRIPT --corpus DIR --web WEB_DIR
                     [--node NODE] [--keep DIR] CHECK

The readers: qpdf (--check), pypdf (fields, values, kinds, fonts), poppler (pdftoppm,
pdftotext), MuPDF (mutool draw, its text too) and pdf.js inside chromium
(reader_matrix_pdfjs.mjs: annotations drawn from their appearance streams, the text and
the widget data of its form layer). Pages are drawn at 144 dpi, so that a move by whole
points is a move by whole pixels.

CHECK is one of:
  kinds      the eleven kinds of the example script: drawn by every reader with both
             states of the buttons, read back as made, captions in the text of a copy
             whose annotations are flattened
  edits      widgets of real forms moved, nudged and resized: a moved widget keeps its
             appearance streams and dictionary but /Rect, and draws the same pixels at
             its new place; a resized button keeps its streams; no widget of the page
             that had ink in a state loses it
  scripts    values, options, captions, default values and names in Japanese and
             other scripts: what pypdf and pdf.js read, ink against a twin widget
             without the value, the exact text back from a flattened copy, embedded
             fonts (once per document), and a copy whose readers make the appearances
  encrypted  inputs encrypted with RC4 and AES (made here with qpdf) and the corpus's
             encrypted forms keep their encryption through a session and read in every
             reader with their password
  filling    rows of check boxes and radio buttons alike share their states' drawings;
             one widget of each kind filled in by MuPDF (as its viewers fill in) and by
             pdf.js (saved as it saves) changes that widget alone, in every reader; a
             text value drawn by qpdf --generate-appearances shows once

--keep DIR works in DIR (made when missing, refused unless empty) and keeps every file
there, the pages each reader drew among them (binary PPM, named draw-JOB-READER.ppm).
Run with Debian's /usr/bin/python3 (python3-pypdf). Exit status 0 when every check passed.
"""

import argparse
import base64
import json
import logging
import math
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unicodedata

from pypdf import PdfReader, PdfWriter
from pypdf.generic import IndirectObject, NameObject, StreamObject

from run_sessions import EXPECTED as ALL_KINDS
from run_sessions import full_name, inherited, resolved, write_script

logging.getLogger("pypdf").setLevel(logging.CRITICAL)

SCALE = 2  # pixels per point
TIMEOUT = 300
READERS = ("poppler", "mupdf", "pdfjs")
TEXT_READERS = ("poppler", "mupdf", "pypdf", "pdfjs")

# A channel value under this is ink (anti-aliased edges included).
INK = 235
# Channel values of ink a widget needs to count as drawn.
DRAWN = 8

checks = 0
failures = []


def check(condition, message):
    global checks
    checks += 1
    if not condition:
        failures.append(message)
    return condition


def run(args, **kwargs):
    return subprocess.run(args, capture_output=True, timeout=TIMEOUT, **kwargs)


def text_of(result, lines=3):
    """What a program said, its first lines (all of it with lines None)."""
    text = (result.stdout + result.stderr).decode("utf-8", "replace").strip()
    return "\n".join(text.splitlines()[:lines])


# ---- pages, widgets, rectangles --------------------------------------------------------------


def shift(rect, d):
    return [rect[0] + d[0], rect[1] + d[1], rect[2] + d[0], rect[3] + d[1]]


def grow(rect, by, margin=0):
    return [rect[0] - margin, rect[1] - margin, rect[2] + by[0] + margin,
            rect[3] + by[1] + margin]


def union(*rects):
    return [min(r[0] for r in rects), min(r[1] for r in rects), max(r[2] for r in rects),
            max(r[3] for r in rects)]


def meets(a, b):
    return a[0] < b[2] and b[0] < a[2] and a[1] < b[3] and b[1] < a[3]


def inside(a, b):
    return a[0] >= b[0] and a[1] >= b[1] and a[2] <= b[2] and a[3] <= b[3]


def centre(rect):
    return [(rect[0] + rect[2]) / 2, (rect[1] + rect[3]) / 2]


def close(a, b):
    return len(a) == len(b) and all(abs(x - y) < 0.02 for x, y in zip(a, b))


def rect_of(annot):
    r = [float(v) for v in resolved(annot["/Rect"])]
    return [min(r[0], r[2]), min(r[1], r[3]), max(r[0], r[2]), max(r[1], r[3])]


class Geometry:
    """Where the points of a page land on the page drawn at SCALE: pixels from the top left
    corner of the crop box as the page is shown (its /Rotate applied)."""

    def __init__(self, page):
        crop = [float(v) for v in page.cropbox]
        media = [float(v) for v in page.mediabox]
        self.box = [max(crop[0], media[0]), max(crop[1], media[1]), min(crop[2], media[2]),
                    min(crop[3], media[3])]
        self.rotate = int(page.rotation or 0) % 360

    def point(self, x, y):
        left, bottom, right, top = self.box
        u, v = x - left, y - bottom
        w, h = right - left, top - bottom
        px, py = {0: (u, h - v), 90: (v, u), 180: (w - u, v), 270: (h - v, w - u)}[self.rotate]
        return px * SCALE, py * SCALE

    def pixels(self, rect, margin=0):
        """The pixel box [x0, y0, x1, y1) that covers rect, widened by margin pixels."""
        corners = [self.point(x, y) for x in (rect[0], rect[2]) for y in (rect[1], rect[3])]
        xs = [c[0] for c in corners]
        ys = [c[1] for c in corners]
        return [math.floor(min(xs) + 1e-6) - margin, math.floor(min(ys) + 1e-6) - margin,
                math.ceil(max(xs) - 1e-6) + margin, math.ceil(max(ys) - 1e-6) + margin]

    def right(self):
        """The page-space way of the right arrow's nudge (10 units right as shown)."""
        return {0: (10, 0), 90: (0, 10), 180: (-10, 0), 270: (0, -10)}[self.rotate]


def kind_of(annot):
    field = annot if "/T" in annot else resolved(annot.get("/Parent"))
    ft = inherited(field, "/FT") if field is not None else None
    ff = int(inherited(field, "/Ff") or 0) if field is not None else 0
    if ft == "/Tx":
        return "text"
    if ft == "/Ch":
        return "combo" if ff & (1 << 17) else "list"
    if ft == "/Sig":
        return "signature"
    if ft == "/Btn":
        return "push" if ff & (1 << 16) else "radio" if ff & (1 << 15) else "check"
    return None


class Widget:
    """A widget annotation as pypdf reads it, known across files by its key: the page, the
    full name of its field and its place among that field's widgets on the page."""

    def __init__(self, page, annot, ordinal):
        self.page = page
        self.annot = annot
        self.field = annot if "/T" in annot else resolved(annot.get("/Parent"))
        self.name = full_name(self.field) if self.field is not None else ""
        self.key = (page, self.name, ordinal)
        self.kind = kind_of(annot)
        self.rect = rect_of(annot)
        self.flags = int(annot.get("/F", 0) or 0)

    def label(self):
        return "%s#%d" % (self.name, self.key[2]) if self.key[2] else self.name

    def states(self):
        """The names of the normal appearance's states; None when it is one stream."""
        ap = resolved(self.annot.get("/AP"))
        normal = resolved(ap.get("/N")) if ap is not None else None
        if normal is None or isinstance(normal, StreamObject):
            return None
        return [str(k) for k in normal.keys()]


def widgets_of(reader):
    """Every widget of the document, page by page."""
    out = []
    for index, page in enumerate(reader.pages):
        seen = {}
        for ref in resolved(page.get("/Annots")) or []:
            annot = resolved(ref)
            if annot.get("/Subtype") != "/Widget":
                continue
            field = annot if "/T" in annot else resolved(annot.get("/Parent"))
            name = full_name(field) if field is not None else ""
            seen[name] = seen.get(name, -1) + 1
            out.append(Widget(index, annot, seen[name]))
    return out


def annotation_rects(page):
    return [rect_of(resolved(ref)) for ref in resolved(page.get("/Annots")) or []
            if "/Rect" in resolved(ref)]


def open_pdf(path, password=None):
    reader = PdfReader(path)
    if reader.is_encrypted:
        reader.decrypt(password or "")
    return reader


# ---- copies for the readers ------------------------------------------------------------------


REFERENCE = re.compile(r"^\d+ \d+ R$")


def derived(source, target, *, empty_pages=False, state=None, strip=False,
            need_appearances=None):
    """A copy of source for drawing: page contents taken out (so that only annotations
    draw), every widget with states switched to its on state or to Off, the widgets'
    appearances taken out, /NeedAppearances set or taken out. qpdf makes it: the objects
    changed, as qpdf's JSON, laid over a copy of source without object streams (qpdf 11.3
    would read an object of an object stream over its new value)."""
    plain = target + ".plain.pdf"
    result = run(["qpdf", "--object-streams=disable", source, plain])
    if result.returncode in (0, 3):
        result = run(["qpdf", "--json-output", "--json-stream-data=none", plain, "-"])
    if not check(result.returncode in (0, 3), "qpdf --json-output %s: %s" % (
            os.path.basename(source), text_of(result))):
        return None
    header, objects = json.loads(result.stdout)["qpdf"]
    changed = {}

    def follow(v, owner):
        """The object v names and the key of the top-level object that holds it."""
        if isinstance(v, str) and REFERENCE.match(v):
            entry = objects.get("obj:" + v, {})
            return entry.get("value", entry.get("stream", {}).get("dict")), "obj:" + v
        return v, owner

    def changing(owner):
        changed[owner] = objects[owner]

    root, _ = follow(objects["trailer"]["value"]["/Root"], None)
    pages = []
    stack = [follow(root["/Pages"], None)]
    while stack:
        node, owner = stack.pop()
        if node.get("/Type") == "/Page" or "/Kids" not in node:
            pages.append((node, owner))
        else:
            stack.extend(reversed([follow(k, owner) for k in node["/Kids"]]))
    for page, owner in pages:
        if empty_pages and "/Contents" in page:
            del page["/Contents"]
            changing(owner)
        annots, annots_owner = follow(page.get("/Annots", []), owner)
        for a in annots:
            annot, annot_owner = follow(a, annots_owner)
            if not isinstance(annot, dict) or annot.get("/Subtype") != "/Widget":
                continue
            ap, _ = follow(annot.get("/AP"), annot_owner)
            normal = ap.get("/N") if isinstance(ap, dict) else None
            states = None
            if normal is not None and "stream" not in objects.get("obj:%s" % normal, {}):
                normal, _ = follow(normal, None)
                states = list(normal) if isinstance(normal, dict) else None
            if state and states:
                on = [k for k in states if k != "/Off"]
                if state == "on" and on:
                    annot["/AS"] = on[0]
                    changing(annot_owner)
                elif state == "off":
                    annot["/AS"] = "/Off"
                    changing(annot_owner)
            if strip and "/AP" in annot:
                del annot["/AP"]
                changing(annot_owner)
    if need_appearances is not None and "/AcroForm" in root:
        form, form_owner = follow(root["/AcroForm"], "obj:" + objects["trailer"]["value"]["/Root"])
        if need_appearances:
            form["/NeedAppearances"] = True
        else:
            form.pop("/NeedAppearances", None)
        changing(form_owner)
    update = target + ".json"
    with open(update, "w", encoding="utf-8") as f:
        json.dump({"qpdf": [header, changed]}, f)
    result = run(["qpdf", plain, target, "--update-from-json=" + update])
    os.remove(update)
    os.remove(plain)
    check(result.returncode in (0, 3), "qpdf --update-from-json %s: %s" % (
        os.path.basename(target), text_of(result)))
    return target


def flattened(args, source, target, password=None):
    """A copy whose annotations are drawn into the page contents, made by qpdf."""
    options = ["--password=" + password] if password else []
    result = run(["qpdf", *options, "--flatten-annotations=all", source, target])
    check(result.returncode in (0, 3) and os.path.exists(target),
          "qpdf --flatten-annotations %s: %s" % (os.path.basename(source), text_of(result)))
    return target


# ---- the readers that draw -------------------------------------------------------------------


class Crop:
    """The pixels of a box of a drawn page: RGB bytes, row by row."""

    DARK = bytes(range(INK))

    def __init__(self, width, height, rgb):
        self.width, self.height, self.rgb = width, height, rgb

    def ink(self):
        """How many channel values are ink."""
        return len(self.rgb) - len(self.rgb.translate(None, Crop.DARK))

    def differing(self, other, limit, tolerance=40):
        """How many channel values differ from other's by more than tolerance, counted
        until there are more than limit."""
        if (self.width, self.height) != (other.width, other.height):
            return max(len(self.rgb), len(other.rgb))
        n = 0
        row = self.width * 3
        for start in range(0, len(self.rgb), row):
            a, b = self.rgb[start:start + row], other.rgb[start:start + row]
            if a != b:
                n += sum(1 for x, y in zip(a, b) if abs(x - y) > tolerance)
                if n > limit:
                    break
        return n


def read_ppm(path):
    with open(path, "rb") as f:
        data = f.read()
    fields = []
    pos = 0
    while len(fields) < 4:
        while data[pos:pos + 1].isspace():
            pos += 1
        start = pos
        while not data[pos:pos + 1].isspace():
            pos += 1
        fields.append(data[start:pos])
    if fields[0] != b"P6" or fields[3] != b"255":
        raise ValueError("%s: not an 8-bit RGB PPM" % path)
    return int(fields[1]), int(fields[2]), data[pos + 1:]


def crops_of(page, boxes):
    """The pixels of each box (cut to the page) of a page read by read_ppm."""
    width, height, data = page
    out = {}
    for name, (x0, y0, x1, y1) in boxes.items():
        x0, y0 = min(max(0, x0), width), min(max(0, y0), height)
        x1, y1 = min(max(x0, x1), width), min(max(y0, y1), height)
        rows = [data[(y * width + x0) * 3:(y * width + x1) * 3] for y in range(y0, y1)]
        out[name] = Crop(x1 - x0, y1 - y0, b"".join(rows))
    return out


class Drawing:
    """Pages to be drawn by poppler, MuPDF and pdf.js, and what each drew in the boxes asked
    for. Jobs are collected, then drawn together: pdf.js in one browser while poppler and
    MuPDF draw beside it."""

    def __init__(self, args, folder):
        self.args, self.folder = args, folder
        self.jobs = []
        self.results = []

    def add(self, pdf, page, boxes, password=None):
        self.jobs.append({"pdf": pdf, "page": page, "boxes": boxes, "password": password})
        return len(self.jobs) - 1

    def draw(self):
        """Draws the jobs added since the last call; results[job][reader] is {"crops"} or
        {"error"}, pdf.js's with "text" and "annotations" too."""
        first = len(self.results)
        jobs = self.jobs[first:]
        listed = [dict(job, scale=SCALE, keep=self.kept(first + i, "pdfjs"))
                for i, job in enumerate(jobs)]
        jobs_path = os.path.join(self.folder, "pdfjs-jobs-%d.json" % first)
        out_path = os.path.join(self.folder, "pdfjs-results-%d.json" % first)
        with open(jobs_path, "w", encoding="utf-8") as f:
            json.dump(listed, f)
        browser = subprocess.Popen(
            [self.args.node, os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                          "reader_matrix_pdfjs.mjs"),
             "--web", self.args.web, "--jobs", jobs_path, "--out", out_path],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        drawn = [{"poppler": self.poppler(first + i, job), "mupdf": self.mupdf(first + i, job)}
                 for i, job in enumerate(jobs)]
        output = browser.communicate(timeout=TIMEOUT)[0].decode("utf-8", "replace")
        if browser.returncode == 0:
            with open(out_path, encoding="utf-8") as f:
                answers = json.load(f)
        else:
            answers = [{"error": "pdf.js did not run: " + output.strip()[-2000:]}] * len(jobs)
        for result, answer in zip(drawn, answers):
            if "error" not in answer:
                answer["crops"] = {name: Crop(c["width"], c["height"], base64.b64decode(c["rgb"]))
                                   for name, c in answer["crops"].items()}
            result["pdfjs"] = answer
        self.results.extend(drawn)

    def kept(self, index, reader):
        return (os.path.join(self.folder, "draw-%d-%s.ppm" % (index, reader))
                if self.args.keep else None)

    def page_file(self, index, reader):
        return self.kept(index, reader) or os.path.join(self.folder, "draw-%s.ppm" % reader)

    def finish(self, index, reader, result, path):
        if result.returncode != 0 or not os.path.exists(path):
            return {"error": "%s: exit %d: %s" % (reader, result.returncode, text_of(result))}
        job = self.jobs[index]
        crops = crops_of(read_ppm(path), job["boxes"])
        if not self.args.keep:
            os.remove(path)
        return {"crops": crops}

    def poppler(self, index, job):
        path = self.page_file(index, "poppler")
        password = ["-upw", job["password"]] if job["password"] else []
        n = str(job["page"] + 1)
        result = run(["pdftoppm", "-cropbox", "-r", str(72 * SCALE), "-f", n, "-l", n,
                      "-singlefile", *password, job["pdf"], path[:-4]])
        return self.finish(index, "pdftoppm", result, path)

    def mupdf(self, index, job):
        path = self.page_file(index, "mupdf")
        password = ["-p", job["password"]] if job["password"] else []
        result = run(["mutool", "draw", "-q", "-r", str(72 * SCALE), "-c", "rgb", "-o", path,
                      *password, job["pdf"], str(job["page"] + 1)])
        return self.finish(index, "mutool draw", result, path)


def texts_of(pdf, password=None):
    """The text of every page as poppler, MuPDF and pypdf extract it."""
    out = {}
    option = ["-upw", password] if password else []
    result = run(["pdftotext", "-enc", "UTF-8", *option, pdf, "-"])
    out["poppler"] = result.stdout.decode("utf-8", "replace") if result.returncode == 0 else None
    option = ["-p", password] if password else []
    result = run(["mutool", "draw", "-q", "-F", "txt", "-o", "-", *option, pdf])
    out["mupdf"] = result.stdout.decode("utf-8", "replace") if result.returncode == 0 else None
    try:
        out["pypdf"] = "\n".join(p.extract_text() for p in open_pdf(pdf, password).pages)
    except Exception as e:  # pypdf's failure is the reader's answer
        out["pypdf"] = None
        print("pypdf could not extract the text of %s: %s" % (pdf, e))
    return out


def squeezed(text, compatibility=False):
    """Text without white space, in a normal form: readers differ in the spaces they put
    between words and cells, and in composing combining marks (compatibility also folds
    the presentation forms of shaped Arabic into its letters)."""
    return unicodedata.normalize("NFKC" if compatibility else "NFC", re.sub(r"\s+", "", text))


# ---- running sessions ------------------------------------------------------------------------


def session(args, folder, name, steps, *options, env=None):
    """Runs steps as the script name.json in folder; True when qfforms succeeded."""
    path = write_script(folder, name + ".json", steps)
    result = run([args.qfforms, "run", path, *options], env=env, cwd=folder)
    return check(result.returncode == 0,
                 "%s: qfforms run exit %d: %s" % (name, result.returncode, text_of(result)))


def qpdf_check(path, password=None, where=""):
    option = ["--password=" + password] if password else []
    result = run(["qpdf", "--check", *option, path])
    return check(result.returncode == 0,
                 "%sqpdf --check %s: %s" % (where, os.path.basename(path), text_of(result)))


# ---- comparing objects -----------------------------------------------------------------------

# Entries that say how a stream is stored, not what it holds.
STORAGE = {"/Length", "/Filter", "/DecodeParms"}


def canonical(name):
    """A name as the bytes it stands for: pypdf leaves some #xx escapes as written."""
    return re.sub(rb"#([0-9a-fA-F]{2})", lambda m: bytes([int(m.group(1), 16)]),
                  str(name).encode("utf-8"))


def difference(a, b, path="", seen=None):
    """Where the objects a and b differ (decoded stream data, dictionaries, arrays and
    numbers compared), None when they are the same."""
    seen = set() if seen is None else seen
    if isinstance(a, IndirectObject) and isinstance(b, IndirectObject):
        pair = (a.idnum, a.generation, b.idnum, b.generation)
        if pair in seen:
            return None
        seen.add(pair)
    a, b = resolved(a), resolved(b)
    if isinstance(a, StreamObject) != isinstance(b, StreamObject):
        return path + ": a stream on one side only"
    if isinstance(a, StreamObject):
        try:
            same = a.get_data() == b.get_data()
        except Exception as e:  # data pypdf cannot decode: compare as stored
            same = a._data == b._data
            print("%s: compared as stored (%s)" % (path, e))
        if not same:
            return path + ": stream data differ"
    if isinstance(a, dict) and isinstance(b, dict):
        skip = STORAGE if isinstance(a, StreamObject) else set()
        keys_a = {canonical(k): k for k in a if k not in skip}
        keys_b = {canonical(k): k for k in b if k not in skip}
        for k in sorted(set(keys_a) | set(keys_b)):
            if k not in keys_a or k not in keys_b:
                return "%s/%s: on one side only" % (path, k[1:].decode("utf-8", "replace"))
            d = difference(a.raw_get(keys_a[k]), b.raw_get(keys_b[k]),
                           path + "/" + k[1:].decode("utf-8", "replace"), seen)
            if d:
                return d
        return None
    if isinstance(a, list) and isinstance(b, list):
        if len(a) != len(b):
            return "%s: %d entries against %d" % (path, len(a), len(b))
        for i, (x, y) in enumerate(zip(a, b)):
            d = difference(x, y, "%s[%d]" % (path, i), seen)
            if d:
                return d
        return None
    if isinstance(a, (int, float)) and isinstance(b, (int, float)) \
            and not isinstance(a, bool) and not isinstance(b, bool):
        return None if abs(float(a) - float(b)) < 1e-4 else "%s: %s against %s" % (path, a, b)
    if isinstance(a, NameObject) and isinstance(b, NameObject):
        return None if canonical(a) == canonical(b) else "%s: %s against %s" % (path, a, b)
    if type(a) != type(b) and not (isinstance(a, str) and isinstance(b, str)):
        return "%s: %r against %r" % (path, a, b)
    return None if a == b else "%s: %r against %r" % (path, a, b)


def widget_difference(before, after):
    """How a widget's dictionary changed, /Rect and its links to page and parent aside."""
    keys = (set(before.annot) | set(after.annot)) - {"/Rect", "/P", "/Parent"}
    for k in sorted(keys):
        if k not in before.annot or k not in after.annot:
            return "%s: on one side only" % k
        d = difference(before.annot.raw_get(k), after.annot.raw_get(k), str(k))
        if d:
            return d
    return None


# ---- kinds -----------------------------------------------------------------------------------

def pdfjs_fields(drawing, job):
    """The widgets pdf.js's form layer read in a drawing job, their rectangles aside."""
    return sorted(json.dumps({k: v for k, v in a.items() if k != "rect"}, sort_keys=True,
                             ensure_ascii=False)
                  for a in drawing.results[job]["pdfjs"].get("annotations", []))


def pdfjs_kind(a):
    """The kind of a widget in pdf.js's form layer, named as kind_of names it."""
    return {"Tx": "text", "Sig": "signature", "Ch": "combo" if a.get("combo") else "list",
            "Btn": "push" if a.get("pushButton") else "radio" if a.get("radioButton")
            else "check"}.get(a.get("fieldType"))


def check_kinds(args, folder, drawing):
    out = os.path.join(folder, "all-kinds.pdf")
    result = run([args.qfforms, "run", args.example, "--out", out])
    if not check(result.returncode == 0, "kinds: qfforms run: " + text_of(result)):
        return
    qpdf_check(out, where="kinds: ")

    reader = PdfReader(out)
    fields = reader.get_fields() or {}
    check(sorted(fields) == sorted(ALL_KINDS), "kinds: fields %s" % sorted(fields))
    widgets = widgets_of(reader)
    for w in widgets:
        if w.name not in ALL_KINDS:
            continue
        ftype, flags, rect, caption, _ = ALL_KINDS[w.name]
        check(inherited(w.field, "/FT") == ftype and
              int(inherited(w.field, "/Ff") or 0) == flags and close(w.rect, rect),
              "kinds: pypdf reads %s as %s %s at %s" % (w.name, inherited(w.field, "/FT"),
                                                        inherited(w.field, "/Ff"), w.rect))

    # Every kind draws something in its rectangle (a signature field its frame), with
    # the buttons on and off.
    jobs = {}
    for state in ("on", "off"):
        copy = derived(out, os.path.join(folder, "all-kinds-%s.pdf" % state), state=state)
        for index, page in enumerate(reader.pages):
            g = Geometry(page)
            boxes = {w.name: g.pixels(w.rect) for w in widgets if w.page == index}
            jobs[state, index] = drawing.add(copy, index, boxes)
    flat = flattened(args, out, os.path.join(folder, "all-kinds-flat.pdf"))
    flat_job = drawing.add(flat, 0, {})
    drawing.draw()

    for (state, index), job in jobs.items():
        for reader_name in READERS:
            answer = drawing.results[job][reader_name]
            if not check("error" not in answer, "kinds: %s, page %d, buttons %s: %s" % (
                    reader_name, index, state, answer.get("error"))):
                continue
            blank = sorted(name for name, crop in answer["crops"].items()
                           if crop.ink() < DRAWN)
            check(not blank, "kinds: %s draws nothing for %s (page %d, buttons %s)" % (
                reader_name, ", ".join(blank), index, state))

    # pdf.js's form layer reads the same fields, of the same kinds.
    seen = {}
    for (state, index), job in jobs.items():
        if state == "off":
            for a in drawing.results[job]["pdfjs"].get("annotations", []):
                seen[a.get("fieldName")] = pdfjs_kind(a)
    for w in widgets:
        check(seen.get(w.name) == w.kind, "kinds: pdf.js reads %s as %s, not %s" % (
            w.name, seen.get(w.name), w.kind))

    # The captions of the buttons are in the text of the flattened copy.
    captions = [squeezed(c) for _, _, _, c, _ in ALL_KINDS.values() if c and c != "6"]
    texts = texts_of(flat)
    texts["pdfjs"] = "\n".join(drawing.results[flat_job]["pdfjs"].get("text", []))
    for reader_name in TEXT_READERS:
        text = squeezed(texts[reader_name] or "")
        missing = [c for c in captions if c not in text]
        check(not missing, "kinds: the captions %s are not in %s's text of the flattened "
              "copy: %r" % (missing, reader_name, text[:200]))


# ---- edits on real forms ---------------------------------------------------------------------

# Forms and the page of each whose widgets are moved.
EDIT_FORMS = [("pdflib-fancy-fields.pdf", 0), ("pdfbox-basic-fields-all-types.pdf", 0),
              ("qpdf-field-types.pdf", 0), ("pdfjs-irs-f1040-prefilled.pdf", 0),
              ("pdfcpu-cjk-japanese-form.pdf", 0),
              ("pdfbox-rotated-page-widget-rotation.pdf", 1)]
EDIT_KINDS = ("text", "check", "radio", "push", "combo", "list")
RESIZE = (12, 6)  # the top-right grip's way, in points
CLEAR = 3  # points kept free around a widget whose pixels are compared
# Moves tried, nearest first: multiples of 6 points each way.
OFFSETS = sorted(((dx, dy) for dx in range(-600, 601, 6) for dy in range(-780, 781, 6)
                  if (dx, dy) != (0, 0)), key=lambda d: (abs(d[0]) + abs(d[1]), d))


def movable(w):
    """Whether w can be picked for a move: shown, not locked, with a normal appearance,
    large enough to take the pointer."""
    ap = resolved(w.annot.get("/AP"))
    return (w.kind in EDIT_KINDS and ap is not None and "/N" in ap and
            not w.flags & (2 | 32 | 0x80) and w.rect[2] - w.rect[0] >= 6 and
            w.rect[3] - w.rect[1] >= 6)


def plan_moves(reader, page_index, clear=CLEAR):
    """Widgets of the page to move, each with a move to free room: no other annotation
    within clear points of the widget, nor of its moved, nudged and resized places. Of each
    kind up to two, turned by /MK /R differently (a text field with a value first).
    Returns [(widget, move)]."""
    page = reader.pages[page_index]
    g = Geometry(page)
    occupied = annotation_rects(page)
    nudge = g.right()
    plans = []
    widgets = [w for w in widgets_of(reader) if w.page == page_index and movable(w)]
    widgets.sort(key=lambda w: w.kind != "text" or not w.field.get("/V"))
    for kind in EDIT_KINDS:
        turns = set()
        for w in (w for w in widgets if w.kind == kind):
            turn = int((resolved(w.annot.get("/MK")) or {}).get("/R", 0) or 0) % 360
            if turn in turns or len(turns) == 2 or not inside(w.rect, g.box) or \
                    sum(1 for r in occupied if meets(r, grow(w.rect, (0, 0), clear))) != 1:
                continue
            for d in OFFSETS[:20000]:
                nudged = shift(w.rect, (d[0] + nudge[0], d[1] + nudge[1]))
                region = grow(union(shift(w.rect, d), grow(nudged, RESIZE)), (0, 0), clear)
                if inside(region, g.box) and not any(meets(r, region) for r in occupied):
                    occupied.append(region)
                    plans.append((w, d))
                    turns.add(turn)
                    break
    return plans


def check_edits(args, folder, drawing):
    prepared = []
    for form, page in EDIT_FORMS:
        base = form[:-4]
        source = os.path.join(folder, form)
        shutil.copyfile(os.path.join(args.corpus, form), source)
        before = PdfReader(source)
        plans = plan_moves(before, page)
        print("%s: moving %s" % (form, ", ".join("%s (%s) by %s" % (w.label(), w.kind, d)
                                                 for w, d in plans)))
        if not check(plans, "%s: no widget to move" % form):
            continue
        g = Geometry(before.pages[page])
        nudge = g.right()
        where = {
            "moved": {w.key: shift(w.rect, d) for w, d in plans},
            "nudged": {w.key: shift(shift(w.rect, d), nudge) for w, d in plans},
            "resized": {w.key: grow(shift(shift(w.rect, d), nudge), RESIZE) for w, d in plans},
        }
        steps = [{"open": form}, {"view": {"zoom": 2}}]
        for w, _ in plans:
            at, to = centre(w.rect), centre(where["moved"][w.key])
            steps += [{"select": {"page": page, "at": at}},
                      {"drag": {"page": page, "from": at, "to": to}}]
        steps.append({"save": base + "-moved.pdf"})
        for w, _ in plans:
            steps += [{"select": {"page": page, "at": centre(where["moved"][w.key])}},
                      {"key": {"code": 39}}]
        steps.append({"save": base + "-nudged.pdf"})
        for w, _ in plans:
            n = where["nudged"][w.key]
            steps += [{"select": {"page": page, "at": centre(n)}},
                      {"drag": {"page": page, "from": [n[2], n[3]],
                                "to": [n[2] + RESIZE[0], n[3] + RESIZE[1]]}}]
        steps.append({"save": base + "-resized.pdf"})
        if not session(args, folder, base + "-edits", steps):
            continue
        outputs = {edit: os.path.join(folder, "%s-%s.pdf" % (base, edit)) for edit in where}

        # The page drawn from the original and from each output, contents taken out,
        # buttons on and off.
        jobs = {}
        for edit in ["original"] + list(outputs):
            path = source if edit == "original" else outputs[edit]
            boxes = {repr(w.key): g.pixels(w.rect)
                     for w in widgets_of(PdfReader(path)) if w.page == page}
            for w, _ in plans:
                boxes["moved " + repr(w.key)] = g.pixels(
                    w.rect if edit == "original" else where[edit][w.key], SCALE)
            for state in ("on", "off"):
                copy = derived(path, os.path.join(folder, "%s-%s-%s.pdf" % (base, edit, state)),
                               empty_pages=True, state=state, need_appearances=False)
                jobs[edit, state] = drawing.add(copy, page, boxes)
        prepared.append((form, page, before, plans, where, outputs, jobs))

    drawing.draw()
    for edits in prepared:
        compare_edits(drawing, *edits)


def compare_edits(drawing, form, page, before, plans, where, outputs, jobs):
    original = {w.key: w for w in widgets_of(before) if w.page == page}
    values = {name: f.raw_get("/V") if "/V" in f else None
              for name, f in (before.get_fields() or {}).items()}
    for edit, path in outputs.items():
        tag = "%s %s" % (form, edit)
        qpdf_check(path, where=tag + ": ")
        reader = PdfReader(path)
        after = {w.key: w for w in widgets_of(reader) if w.page == page}
        check(set(after) == set(original), "%s: widgets %s lost, %s new" % (
            tag, sorted(set(original) - set(after)), sorted(set(after) - set(original))))
        changed = sorted(name for name, f in (reader.get_fields() or {}).items()
                         if difference(f.raw_get("/V") if "/V" in f else None,
                                       values.get(name)))
        check(not changed, "%s: the values of %s changed" % (tag, changed))
        placed = {}
        for w, _ in plans:
            got = after.get(w.key)
            placed[w.key] = check(got is not None and close(got.rect, where[edit][w.key]),
                                  "%s: %s is at %s, not %s" % (
                                      tag, w.label(), got and got.rect, where[edit][w.key]))
            if got is None:
                continue
            # Moves touch /Rect alone; a resize keeps the streams of a button drawn
            # elsewhere (the reader fits them into the new rectangle).
            if edit != "resized":
                d = widget_difference(w, got)
                check(d is None, "%s: %s (%s) changed beyond /Rect: %s" % (
                    tag, w.label(), w.kind, d))
            elif w.kind in ("check", "radio", "push"):
                d = difference(w.annot.raw_get("/AP"), got.annot.raw_get("/AP"), "/AP")
                check(d is None, "%s: %s (%s) appearance redrawn: %s" % (
                    tag, w.label(), w.kind, d))

        drawn = {}
        for reader_name in READERS:
            for state in ("on", "off"):
                was = drawing.results[jobs["original", state]][reader_name]
                now = drawing.results[jobs[edit, state]][reader_name]
                if check("error" not in was and "error" not in now,
                         "%s: %s, buttons %s: %s" % (tag, reader_name, state,
                                                     was.get("error") or now.get("error"))):
                    drawn[reader_name, state] = (was["crops"], now["crops"])
        # Nothing that had ink has none now.
        for (reader_name, state), (was, now) in drawn.items():
            lost = sorted(original[key].label() for key in original
                          if key in after and was[repr(key)].ink() >= DRAWN and
                          now[repr(key)].ink() < DRAWN)
            check(not lost, "%s: %s, buttons %s: %s had ink and have none" % (
                tag, reader_name, state, ", ".join(lost)))
        # A moved widget draws what it drew, where it now is, in every reader and state.
        for w, _ in plans if edit != "resized" else []:
            if not placed.get(w.key):
                continue
            otherwise = []
            for (reader_name, state), (was, now) in sorted(drawn.items()):
                a, b = was["moved " + repr(w.key)], now["moved " + repr(w.key)]
                if a.differing(b, len(a.rgb) // 200) > len(a.rgb) // 200:
                    otherwise.append("%s with buttons %s" % (reader_name, state))
            check(not otherwise, "%s: %s (%s) draws otherwise (over 0.5%% of its pixels) in "
                  "%s" % (tag, w.label(), w.kind, ", ".join(otherwise)))

        check(pdfjs_fields(drawing, jobs[edit, "off"]) ==
              pdfjs_fields(drawing, jobs["original", "off"]),
              "%s: pdf.js reads other fields or values than in the original" % tag)


# ---- scripts ---------------------------------------------------------------------------------

# name, kind, value (a text field's value, a choice's options with the selected index, a
# push button's caption), default value.
SCRIPT_CASES = [
    ("氏名", "text", "山田太郎", None),
    ("住所", "text", "東京都千代田区", None),
    ("mixed", "text", "Order 注文 No. 42", None),
    ("greek-cyrillic", "text", "Αθήνα Москва", None),
    ("hebrew", "text", "שלום עולם", None),
    ("arabic", "text", "مرحبا بالعالم", None),
    ("combining", "text", "Ame\u0301lie cafe\u0301 か\u3099", None),
    ("未記入", "text", "記入済み", "未記入"),
    ("都道府県", "combo", ([("東京都", "13"), ("大阪府", "27"), ("北海道", "01")], 1),
     "東京都"),
    ("言語", "list", ([("日本語", "ja"), ("English", "en"), ("Ελληνικά", "el")], None),
     None),
    ("送信", "push", "送信する", None),
]
RTL = {"hebrew", "arabic"}
HEIGHTS = {"text": 24, "combo": 24, "list": 54, "push": 24}
TWIN = 290  # points between a widget and its twin without the value


def latin1(text):
    return all(ord(c) < 256 for c in text)


def shown(kind, value):
    """The texts a widget shows: its value, its options or its caption."""
    if kind == "push" or kind == "text":
        return [value]
    options, index = value
    return [d for d, _ in options] if kind == "list" else [options[index][0]]


def script_records(args, folder):
    """Records to paste, from widgets the creation tools made: {kind: record}."""
    steps = [{"new": {}}]
    for tool, top in (("TextFieldCreate", 760), ("ComboBoxCreate", 720),
                      ("ListBoxCreate", 680), ("PushButtonCreate", 600)):
        steps += [{"tool": tool},
                  {"drag": {"page": 0, "from": [40, top], "to": [280, top - 30]}}]
    made = os.path.join(folder, "templates.pdf")
    if not session(args, folder, "templates", steps, "--out", made):
        return None
    records = {}
    for kind, name in (("text", "Text1"), ("combo", "ComboBox1"), ("list", "ListBox1"),
                       ("push", "Button1")):
        result = run([args.qfforms, "copy", made, "--field", name])
        if not check(result.returncode == 0, "scripts: qfforms copy %s: %s" % (
                name, text_of(result))):
            return None
        records[kind] = json.loads(result.stdout)
    return records


def record_for(template, name, kind, value, default, rect):
    record = json.loads(json.dumps(template))
    record["name"] = name
    record["Rect"] = {"left": rect[0], "bottom": rect[1], "right": rect[2], "top": rect[3]}
    if kind == "text":
        record["field-value"] = value
    elif kind == "push":
        record["caption"] = value
    else:
        options, index = value
        record["options"] = [{"option-value": d, "option-export-value": e} for d, e in options]
        record["options-count"] = len(options)
        if index is not None:
            record["choise-selection-index"] = str(index)
    if default is not None:
        record["default-field-value"] = default
    return record


def blank_value(kind):
    return "" if kind in ("text", "push") else ([], None)


def font_facts(font):
    """(base font without its subset tag, font dict reference, embedded program reference,
    ToUnicode present, composite with Identity-H) of a font resource."""
    f = resolved(font)
    base = re.sub(r"^/[A-Z]{6}\+", "/", str(f.get("/BaseFont")))
    descriptor = None
    composite = f.get("/Subtype") == "/Type0" and f.get("/Encoding") == "/Identity-H"
    if f.get("/Subtype") == "/Type0":
        kids = resolved(f.get("/DescendantFonts")) or []
        if kids:
            descriptor = resolved(resolved(kids[0]).get("/FontDescriptor"))
    else:
        descriptor = resolved(f.get("/FontDescriptor"))
    program = None
    for key in ("/FontFile2", "/FontFile3", "/FontFile"):
        if descriptor is not None and key in descriptor:
            program = descriptor.raw_get(key)
            program = (program.idnum if isinstance(program, IndirectObject) else id(program))
    ref = font.idnum if isinstance(font, IndirectObject) else None
    return base, ref, program, "/ToUnicode" in f, composite


def used_fonts(stream):
    """The font resources an appearance stream selects with Tf, by name."""
    stream = resolved(stream)
    fonts = resolved(resolved(stream.get("/Resources") or {}).get("/Font")) or {}
    names = set(re.findall(rb"/([^\s/\[\]()<>{}%]+)\s+[-+\d.]+\s+Tf", stream.get_data()))
    return {n.decode("latin-1"): fonts.raw_get("/" + n.decode("latin-1"))
            for n in names if ("/" + n.decode("latin-1")) in fonts}


def scripts_document(args, folder):
    """The document of the cases: each case and its twin without the value pasted, one run
    each on the file of the run before; a list box's options set through its sheet.
    Returns (path, [(name, kind, value, default, rect)]), or None when a run failed."""
    records = script_records(args, folder)
    if records is None:
        return None
    placed = []
    top = 770
    document = None
    for i, (name, kind, value, default) in enumerate(SCRIPT_CASES):
        rect = [40, top - HEIGHTS[kind], 280, top]
        top -= HEIGHTS[kind] + 14
        for twin in (False, True):
            sheet = kind == "list" and not twin
            record = record_for(records[kind], "blank %d" % i if twin else name, kind,
                                blank_value(kind) if twin or sheet else value,
                                None if twin else default,
                                shift(rect, (TWIN, 0)) if twin else rect)
            clipboard = os.path.join(folder, "clipboard-%d-%d.json" % (i, twin))
            with open(clipboard, "w", encoding="utf-8") as f:
                json.dump({"UnicodeText": {"text": json.dumps(record, ensure_ascii=False)}}, f,
                          ensure_ascii=False)
            out = os.path.join(folder, "scripts-%d-%d.pdf" % (i, twin))
            steps = [{"open": document} if document else {"new": {}}, {"paste": {"page": 0}}]
            if sheet:
                steps += [{"select": {"page": 0, "at": centre(rect)}},
                          {"set": {"property": "ComboOptList",
                                   "value": [[d, e] for d, e in value[0]]}}]
            if not session(args, folder, "paste-%d-%d" % (i, twin), steps, "--out", out,
                           env=dict(os.environ, QF_CLIPBOARD=clipboard)):
                return None
            document = out
        placed.append((name, kind, value, default, rect))
    final = os.path.join(folder, "scripts.pdf")
    shutil.copyfile(document, final)
    return final, placed


def check_scripts(args, folder, drawing):
    made = scripts_document(args, folder)
    if made:
        check_scripts_document(args, folder, drawing, *made)


def check_scripts_document(args, folder, drawing, final, placed):
    qpdf_check(final, where="scripts: ")

    reader = PdfReader(final)
    by_name = {w.name: w for w in widgets_of(reader)}
    g = Geometry(reader.pages[0])

    # What pypdf reads.
    for name, kind, value, default, rect in placed:
        w = by_name.get(name)
        if not check(w is not None, "scripts: pypdf finds no field named %r (fields: %s)" % (
                name, sorted(by_name))):
            continue
        check(w.kind == kind, "scripts: %s is a %s, not a %s" % (name, w.kind, kind))
        if kind == "text":
            check(w.field.get("/V") == value, "scripts: %s: /V %r, not %r" % (
                name, w.field.get("/V"), value))
        elif kind == "push":
            caption = resolved(w.annot.get("/MK") or {}).get("/CA")
            check(caption == value, "scripts: %s: /MK /CA %r, not %r" % (name, caption, value))
        else:
            options, index = value
            got = [[str(x) for x in resolved(o)] if isinstance(resolved(o), list) else str(o)
                   for o in resolved(inherited(w.field, "/Opt")) or []]
            want = [[e, d] for d, e in options]
            check(got == want, "scripts: %s: /Opt %r, not %r" % (name, got, want))
            if index is not None:
                check(str(w.field.get("/V")) in options[index],
                      "scripts: %s: /V %r, not option %d" % (name, w.field.get("/V"), index))
        if default is not None:
            check(w.field.get("/DV") == default, "scripts: %s: /DV %r, not %r" % (
                name, w.field.get("/DV"), default))

    # Drawn: each reader inks each value, against its twin without it; and again in a copy
    # whose appearances the readers make themselves from /DA and /DR.
    boxes = {}
    for name, kind, value, default, rect in placed:
        boxes[name] = g.pixels(rect)
        boxes["twin " + name] = g.pixels(shift(rect, (TWIN, 0)))
    job = drawing.add(final, 0, boxes)
    regenerated = derived(final, os.path.join(folder, "scripts-regenerated.pdf"),
                          strip=True, need_appearances=True)
    regen_job = drawing.add(regenerated, 0, boxes)
    flat = flattened(args, final, os.path.join(folder, "scripts-flat.pdf"))
    flat_job = drawing.add(flat, 0, {})
    drawing.draw()

    def inked(job_index, readers, cases, how):
        for reader_name in readers:
            answer = drawing.results[job_index][reader_name]
            if not check("error" not in answer, "scripts: %s%s: %s" % (
                    reader_name, how, answer.get("error"))):
                continue
            for name, kind, value, _, _ in cases:
                a, b = answer["crops"][name], answer["crops"]["twin " + name]
                need = 20 * len("".join(shown(kind, value)))
                n = a.differing(b, need)
                check(n >= need, "scripts: %s%s draws %d channel values for %s %r against a "
                      "twin without it" % (reader_name, how, n, kind, shown(kind, value)))

    inked(job, READERS, placed, "")
    japanese = [c for c in placed if c[1] == "text" and any(
        unicodedata.name(ch, "").startswith("CJK") for ch in c[2])]
    inked(regen_job, ("poppler", "mupdf"), japanese, " (appearances made by the reader)")

    # pdf.js's form layer reads the values.
    annotations = {a.get("fieldName"): a
                   for a in drawing.results[job]["pdfjs"].get("annotations", [])}
    for name, kind, value, _, _ in placed:
        a = annotations.get(name)
        if not check(a is not None, "scripts: pdf.js has no widget of %r" % name):
            continue
        check(pdfjs_kind(a) == kind, "scripts: pdf.js reads %s as a %s" % (name, pdfjs_kind(a)))
        if kind == "text":
            check(a.get("fieldValue") == value, "scripts: pdf.js reads %s as %r" % (
                name, a.get("fieldValue")))
        elif kind in ("combo", "list"):
            got = [o["displayValue"] for o in a.get("options", [])]
            check(got == [d for d, _ in value[0]], "scripts: pdf.js reads the options of %s "
                  "as %r" % (name, got))

    # The text of the flattened copy gives every value back, and no '?'.
    texts = texts_of(flat)
    texts["pdfjs"] = "\n".join(drawing.results[flat_job]["pdfjs"].get("text", []))
    for reader_name in TEXT_READERS:
        text = texts[reader_name]
        if not check(text is not None, "scripts: %s extracts no text" % reader_name):
            continue
        check("?" not in text, "scripts: %s extracts '?' from the flattened copy: %r" % (
            reader_name, text[:300]))
        folded = squeezed(text, compatibility=True)
        missing = []
        for name, kind, value, _, _ in placed:
            for t in shown(kind, value):
                if name in RTL:
                    # Right-to-left words drawn in logical order are read back either way.
                    words = [squeezed(w, compatibility=True) for w in t.split()]
                    if not all(w in folded or w[::-1] in folded for w in words):
                        missing.append(t)
                elif squeezed(t, compatibility=True) not in folded:
                    missing.append(t)
        check(not missing, "scripts: %s does not extract %r from the flattened copy: %r" % (
            reader_name, missing, text[:300]))

    # The fonts: embedded, with their Unicode map, and added to the document once.
    faces = {}
    for name, kind, value, _, _ in placed:
        w = by_name.get(name)
        if w is None or latin1("".join(shown(kind, value))):
            continue
        normal = resolved(resolved(w.annot.get("/AP") or {}).get("/N"))
        if not check(isinstance(normal, StreamObject), "scripts: %s has no appearance" % name):
            continue
        facts = [font_facts(f) for f in used_fonts(normal).values()]
        good = [f for f in facts if f[2] is not None and f[3] and f[4]]
        check(good, "scripts: %s is drawn with no embedded composite font with a Unicode "
              "map (fonts: %s)" % (name, [(f[0], "embedded" if f[2] else "not embedded",
                                           "ToUnicode" if f[3] else "no ToUnicode")
                                          for f in facts]))
        for base, ref, program, _, _ in good:
            faces.setdefault(base, set()).add((ref, program))
        da = str(inherited(w.annot, "/DA") or inherited(w.field, "/DA") or
                 resolved(reader.trailer["/Root"]["/AcroForm"]).get("/DA") or "")
        font = re.search(r"/([^\s/]+)\s+[-+\d.]+\s+Tf", da)
        dr = resolved(resolved(resolved(reader.trailer["/Root"]["/AcroForm"]).get("/DR") or {})
                      .get("/Font")) or {}
        check(font and ("/" + font.group(1)) in dr,
              "scripts: %s: the font of /DA %r is not in /DR" % (name, da))
    for base, copies in faces.items():
        check(len(copies) == 1, "scripts: the font %s is in the document %d times" % (
            base, len(copies)))


# ---- encrypted inputs ------------------------------------------------------------------------

USER, OWNER = "matrix-user", "matrix-owner"
ENCRYPTIONS = {
    "rc4-40": ["40", "--"],
    "rc4-128": ["128", "--use-aes=n", "--"],
    "aes-128": ["128", "--use-aes=y", "--"],
    "aes-256": ["256", "--"],
}
# Encrypted here (a form whose readers draw its own appearances, without /NeedAppearances),
# and encrypted in the corpus; the last allows filling in its fields but not changing the
# form, and no owner password is known, so a session must be refused.
TO_ENCRYPT = "pdfbox-basic-fields-all-types.pdf"
ENCRYPTED_FORMS = ["jspdf-encrypted-acroform.pdf"]
LOCKED_FORM = "pikepdf-dd0293-hybrid-xfa.pdf"


def field_values(reader):
    """The fields' values by full name as pypdf reads them, or what stopped it."""
    try:
        return {n: str(f.get("/V")) for n, f in (reader.get_fields() or {}).items()}
    except Exception as e:  # pypdf's failure is the reader's answer
        return "pypdf cannot read the fields: %s" % e


def encryption_of(path, password):
    result = run(["qpdf", "--show-encryption", "--password=" + password, path])
    return text_of(result, lines=None)


def check_encrypted(args, folder, drawing):
    inputs = []
    for name, options in ENCRYPTIONS.items():
        path = os.path.join(folder, "encrypted-%s.pdf" % name)
        result = run(["qpdf", "--allow-weak-crypto", "--encrypt", USER, OWNER, *options,
                      os.path.join(args.corpus, TO_ENCRYPT), path])
        if check(result.returncode == 0, "encrypted: qpdf --encrypt %s: %s" % (
                name, text_of(result))):
            inputs.append((path, USER))
    for form in ENCRYPTED_FORMS:
        path = os.path.join(folder, form)
        shutil.copyfile(os.path.join(args.corpus, form), path)
        inputs.append((path, ""))

    locked = os.path.join(folder, LOCKED_FORM)
    shutil.copyfile(os.path.join(args.corpus, LOCKED_FORM), locked)
    out = os.path.join(folder, "locked-moved.pdf")
    result = run([args.qfforms, "run", write_script(folder, "locked.json", [{"open": locked}]),
                  "--out", out], cwd=folder)
    check(result.returncode == 1 and result.stderr.count(b"\n") == 1 and
          b"permissions do not allow changing its form" in result.stderr and
          not os.path.exists(out), "encrypted %s: not refused as it should be: exit %d, %s" % (
              LOCKED_FORM, result.returncode, text_of(result)))

    prepared = []
    for path, password in inputs:
        base = os.path.basename(path)[:-4]
        tag = "encrypted %s" % base
        before = open_pdf(path, password)
        plans = plan_moves(before, 0, clear=0)
        if not check(plans, "%s: no widget to move" % tag):
            continue
        w, d = plans[0]
        at = centre(w.rect)
        out = os.path.join(folder, base + "-moved.pdf")
        steps = [{"open": os.path.basename(path)}, {"view": {"zoom": 2}},
                 {"select": {"page": 0, "at": at}},
                 {"drag": {"page": 0, "from": at, "to": [at[0] + d[0], at[1] + d[1]]}}]
        # What the input holds as qpdf reads it, its encryption kept, for comparing: jsPDF's
        # file has raw CRs in its encrypted strings, which qpdf reads as line feeds (as the
        # standard says) and pypdf and pdf.js as they are.
        reference = os.path.join(folder, base + "-rewritten.pdf")
        result = run(["qpdf", "--password=" + password, path, reference])
        check(result.returncode in (0, 3), "%s: qpdf cannot rewrite it: %s" % (
            tag, text_of(result)))
        options = ["--password", password] if password else []
        if not session(args, folder, base, steps, "--out", out, *options):
            continue
        was, now = encryption_of(path, password), encryption_of(out, password)
        check(now == was, "%s: the encryption is now %r, was %r" % (tag, now, was))
        if password:
            check("owner password" in encryption_of(out, OWNER),
                  "%s: the owner password no longer opens it as owner" % tag)
        if not qpdf_check(out, password, tag + ": "):
            continue
        after = open_pdf(out, password)
        moved = {x.key: x for x in widgets_of(after)}.get(w.key)
        check(moved is not None and close(moved.rect, shift(w.rect, d)),
              "%s: pypdf reads %s at %s" % (tag, w.label(), moved and moved.rect))
        was = field_values(open_pdf(reference, password))
        check(field_values(after) == was, "%s: pypdf reads other fields or values: %s, "
              "not %s" % (tag, field_values(after), was))
        boxes = {"moved": Geometry(after.pages[0]).pixels(shift(w.rect, d))}
        jobs = (drawing.add(reference, 0, boxes, password or None),
                drawing.add(out, 0, boxes, password or None))
        prepared.append((tag, reference, out, password, w, jobs))
    drawing.draw()

    for tag, path, out, password, w, (was_job, job) in prepared:
        # Each reader draws the page, the widget at its new place over what was there.
        for reader_name in READERS:
            was, now = drawing.results[was_job][reader_name], drawing.results[job][reader_name]
            if check("error" not in was and "error" not in now, "%s: %s: %s" % (
                    tag, reader_name, was.get("error") or now.get("error"))):
                check(now["crops"]["moved"].differing(was["crops"]["moved"], DRAWN) > DRAWN,
                      "%s: %s draws nothing of %s at its new place" % (tag, reader_name,
                                                                     w.label()))
        check(pdfjs_fields(drawing, job) == pdfjs_fields(drawing, was_job),
              "%s: pdf.js reads other fields or values" % tag)
        # The text reads as it did: the same words (some readers take the text of widgets in
        # too, in an order the move changes).
        was, now = texts_of(path, password or None), texts_of(out, password or None)
        was["pdfjs"] = "\n".join(drawing.results[was_job]["pdfjs"].get("text", []))
        now["pdfjs"] = "\n".join(drawing.results[job]["pdfjs"].get("text", []))
        for reader_name in TEXT_READERS:
            words = lambda text: sorted((text or "").split())
            check(now[reader_name] is not None and
                  words(now[reader_name]) == words(was[reader_name]),
                  "%s: %s reads other words: %r, was %r" % (
                      tag, reader_name, (now[reader_name] or "")[:200],
                      (was[reader_name] or "")[:200]))


# ---- filled in by readers -------------------------------------------------------------------

# Rows of three widgets alike, each row of a kind: (kind, creation tool, the value a person
# fills into the first of the row). Check boxes and radio buttons alike share the streams of
# their states.
FILL_ROWS = [("text", "TextFieldCreate", "Filled"), ("combo", "ComboBoxCreate", "Two"),
             ("list", "ListBoxCreate", "Three"), ("check", "CheckBoxCreate", True),
             ("radio", "CheckBoxCreate", True)]
SHARING = ("check", "radio")

# MuPDF's own filling in, as its viewers do it: mutool run fill.js IN OUT NAME VALUE...
MUPDF_FILL = """
var doc = new PDFDocument(scriptArgs[0]);
var page = doc.loadPage(0);
var widgets = page.getWidgets();
for (var i = 2; i < scriptArgs.length; i += 2) {
  for (var j = 0; j < widgets.length; ++j) {
    var w = widgets[j];
    if (w.getLabel() != scriptArgs[i]) continue;
    var type = w.getFieldType();
    if (type == "text") w.setTextValue(scriptArgs[i + 1]);
    else if (type == "checkbox" || type == "radiobutton") w.toggle();
    else w.setChoiceValue(scriptArgs[i + 1]);
    w.update();
    break;
  }
}
page.update();
doc.save(scriptArgs[1], "");
"""


def filling_document(args, folder):
    steps, options = [{"new": {}}], []
    for row, (kind, tool, _) in enumerate(FILL_ROWS):
        top = 740 - 60 * row
        if kind != "radio":
            steps.append({"tool": tool})
        for x in (40, 200, 360):
            if tool == "CheckBoxCreate":
                steps.append({"click": {"page": 0, "at": [x, top]}})
                continue
            steps.append({"drag": {"page": 0, "from": [x, top], "to": [x + 120, top - 20]}})
            if kind in ("combo", "list"):
                options += [{"select": {"page": 0, "at": [x + 60, top - 10]}},
                            {"set": {"property": "ComboOptList",
                                     "value": [[o, o] for o in ("One", "Two", "Three")]}}]
    steps += options
    steps.append({"command": {"name": "GroupRadioButtons", "widgets": [
        {"field": "CheckBox%d" % n} for n in (4, 5, 6)]}})
    out = os.path.join(folder, "filling.pdf")
    return out if session(args, folder, "filling", steps, "--out", out) else None


def check_filling(args, folder, drawing):
    """Check boxes and radio buttons alike share the streams of their states; a text or
    choice field has a drawing of its own, for tools that fill one in by writing over the
    stream it shows (newer pypdf). A reader that fills one widget in changes that
    widget and leaves the others as they were."""
    made = filling_document(args, folder)
    if not made:
        return
    qpdf_check(made, where="filling: ")
    widgets = widgets_of(PdfReader(made))
    rows = {kind: sorted((w for w in widgets if w.kind == kind), key=lambda w: w.rect[0])
            for kind, _, _ in FILL_ROWS}
    values = {}
    for kind, _, value in FILL_ROWS:
        row = rows[kind]
        if not check(len(row) == 3, "filling: %d widgets of kind %s" % (len(row), kind)):
            return
        normal = [w.annot["/AP"].raw_get("/N") for w in row]
        if kind in SHARING:
            normal = [resolved(n).raw_get(state) for n in normal for state in resolved(n)]
        shared = {n.idnum for n in normal if isinstance(n, IndirectObject)}
        check(len(shared) == (2 if kind in SHARING else 3),
              "filling: the %s widgets alike %s their drawing: %s" % (
                  kind, "do not share" if kind in SHARING else "share", normal))
        values[row[0].name] = value

    copies = {"mupdf": os.path.join(folder, "filled-mupdf.pdf"),
              "pdfjs": os.path.join(folder, "filled-pdfjs.pdf")}
    script = os.path.join(folder, "fill.js")
    with open(script, "w", encoding="utf-8") as f:
        f.write(MUPDF_FILL)
    pairs = [str(v) for name, value in values.items() for v in (name, value)]
    result = run(["mutool", "run", script, made, copies["mupdf"], *pairs])
    check(result.returncode == 0, "filling: mutool run: " + text_of(result))
    jobs = os.path.join(folder, "fill-jobs.json")
    with open(jobs, "w", encoding="utf-8") as f:
        json.dump([{"pdf": made, "fill": values, "save": copies["pdfjs"]}], f)
    result = run([args.node, os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                          "reader_matrix_pdfjs.mjs"),
                  "--web", args.web, "--jobs", jobs, "--out", jobs + ".out"])
    answer = ""
    if os.path.exists(jobs + ".out"):
        with open(jobs + ".out", encoding="utf-8") as f:
            answer = json.load(f)[0].get("error", "")
    check(result.returncode == 0 and not answer, "filling: pdf.js: %s%s" % (
        text_of(result), answer))

    # pypdf sets a value with /NeedAppearances, and qpdf draws every text field again over
    # the stream it shows: the value shows in its own field alone.
    needing = os.path.join(folder, "filled-pypdf.pdf")
    writer = PdfWriter()
    writer.clone_reader_document_root(PdfReader(made))
    writer.update_page_form_field_values(writer.pages[0], {rows["text"][0].name: "Filled"})
    writer.write(needing)
    drawn_by_qpdf = os.path.join(folder, "filled-qpdf.pdf")
    result = run(["qpdf", "--generate-appearances", needing, drawn_by_qpdf])
    if check(result.returncode in (0, 3), "filling: qpdf --generate-appearances: " +
             text_of(result)):
        shown_text = texts_of(drawn_by_qpdf)["poppler"] or ""
        check(shown_text.count("Filled") == 1, "filling: after qpdf drew the fields, poppler "
              "reads %r" % shown_text[:200])

    g = Geometry(PdfReader(made).pages[0])
    boxes = {w.label(): g.pixels(w.rect) for w in widgets}
    before = drawing.add(made, 0, boxes)
    after = {who: drawing.add(path, 0, boxes) for who, path in copies.items()
             if check(os.path.exists(path), "filling: %s wrote no copy" % who) and
             qpdf_check(path, where="filling, %s: " % who)}
    drawing.draw()
    filled = {rows[kind][0].label() for kind, _, _ in FILL_ROWS}
    for who, job in after.items():
        for reader_name in READERS:
            was, now = drawing.results[before][reader_name], drawing.results[job][reader_name]
            if not check("error" not in was and "error" not in now, "filling: %s of %s: %s" % (
                    reader_name, who, now.get("error") or was.get("error"))):
                continue
            changed = {name for name, crop in now["crops"].items()
                       if crop.differing(was["crops"][name], 0, tolerance=0)}
            check(changed == filled, "filling: in %s, %s's filling changed %s, not %s" % (
                reader_name, who, sorted(changed), sorted(filled)))


# ---- main ------------------------------------------------------------------------------------


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--qfforms", required=True)
    parser.add_argument("--example", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("--web", required=True)
    parser.add_argument("--node", default="node")
    parser.add_argument("--keep")
    parser.add_argument("check", choices=["kinds", "edits", "scripts", "encrypted", "filling"])
    args = parser.parse_args()
    args.qfforms = os.path.abspath(args.qfforms)
    args.example = os.path.abspath(args.example)
    started = time.monotonic()
    if args.keep:
        os.makedirs(args.keep, exist_ok=True)
        if os.listdir(args.keep):
            parser.error("--keep %s: the folder is not empty" % args.keep)
        folder = os.path.abspath(args.keep)
        temporary = None
    else:
        temporary = tempfile.TemporaryDirectory()
        folder = temporary.name
    os.environ["XDG_CONFIG_HOME"] = os.path.join(folder, "config")
    os.environ["QF_CLIPBOARD"] = os.path.join(folder, "default-clipboard.json")
    for name in ("WAYLAND_DISPLAY", "DISPLAY"):
        os.environ.pop(name, None)
    try:
        drawing = Drawing(args, folder)
        {"kinds": check_kinds, "edits": check_edits, "scripts": check_scripts,
         "encrypted": check_encrypted, "filling": check_filling}[args.check](
             args, folder, drawing)
    finally:
        if temporary:
            temporary.cleanup()
    for f in failures:
        print("FAIL:", f)
    print("%s: %d checks, %s, %d pages drawn by each of poppler, MuPDF and pdf.js, %.1f s" % (
        args.check, checks, "ok" if not failures else "%d failed" % len(failures),
        len(drawing.jobs), time.monotonic() - started))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
