#!/usr/bin/python3
"""Tests of `qfforms render`: pages of real forms written as SVG.

    render_pages.py --qfforms BIN --corpus DIR CHECK

CHECK is one of:
  corpus  pages with /Rotate 0/90/180/270 (and beyond), a crop box, hidden widgets,
          notes, links and other annotations, at several zooms and view rotations: the
          SVG parses, has the page's turned size, and one outline per visible annotation,
          where pypdf's reading puts it
  cli     usage errors exit 2 with the usage text; a missing or damaged input, a page
          past the end and an unwritable output exit 1, writing nothing

Run with Debian's /usr/bin/python3 (python3-pypdf). Exit status 0 when every check passed.
"""

import argparse
import math
import os
import sys
import tempfile
import xml.etree.ElementTree as ET

from pypdf import PdfReader

from run_sessions import check, failures, qfforms, report

SVG = "{http://www.w3.org/2000/svg}"
HIDDEN, NOVIEW = 2, 32


def to_view(box, rotation, zoom, x, y):
    """Page point to pixels of the page as the view shows it."""
    left, bottom, right, top = box
    w, h, u, v = right - left, top - bottom, x - left, y - bottom
    d = {0: (u, h - v), 90: (v, u), 180: (w - u, v), 270: (h - v, w - u)}[rotation]
    return d[0] * zoom, d[1] * zoom


def expected_page(path, index, zoom, view_rotation):
    """The page's pixel size and the outlines of its visible annotations, from pypdf."""
    page = PdfReader(path).pages[index]
    c = [float(v) for v in page.cropbox]
    box = (min(c[0], c[2]), min(c[1], c[3]), max(c[0], c[2]), max(c[1], c[3]))
    rotation = (int(page.get("/Rotate", 0)) + view_rotation) % 360
    w, h = box[2] - box[0], box[3] - box[1]
    if rotation in (90, 270):
        w, h = h, w
    size = (math.floor(w * zoom + 0.5), math.floor(h * zoom + 0.5))
    outlines = []
    annots = page.get("/Annots")
    for ref in annots.get_object() if annots is not None else []:
        annot = ref.get_object()
        if int(annot.get("/F", 0)) & (HIDDEN | NOVIEW) or "/Rect" not in annot:
            continue
        r = [float(v) for v in annot["/Rect"]]
        a, b = to_view(box, rotation, zoom, r[0], r[1]), to_view(box, rotation, zoom, r[2], r[3])
        outlines.append((str(annot.get("/Subtype", ""))[1:],
                         (min(a[0], b[0]), min(a[1], b[1]), max(a[0], b[0]), max(a[1], b[1]))))
    return size, outlines


def rendered_outlines(root):
    out = []
    for group in (g for g in root.iter(SVG + "g") if g.get("id") == "annotations"):
        for r in group.iter(SVG + "rect"):
            x, y = float(r.get("x")), float(r.get("y"))
            out.append((r.get("data-subtype"),
                        (x, y, x + float(r.get("width")), y + float(r.get("height")))))
    return sorted(out)


def same_outlines(got, want):
    return len(got) == len(want) and all(
        gs == ws and all(abs(p - q) < 0.02 for p, q in zip(gb, wb))
        for (gs, gb), (ws, wb) in zip(got, sorted(want)))


def check_corpus(args, folder):
    cases = [("qpdf-rotated-pages-multiline-text.pdf", page, zoom, rotation)
             for page in range(9) for zoom, rotation in [(1, 0), (1.5, 90), (0.75, 270)]]
    cases += [("pdfjs-cropbox-hidden-widgets.pdf", 0, 2, 0),
              ("pdfjs-cropbox-hidden-widgets.pdf", 0, 1, 180),
              ("pdflib-sample-form-js-named-actions.pdf", 0, 1.25, 90)]
    # /Rotate -270, 540, -450 and 990, with links, file attachments and free texts.
    cases += [("qpdf-rotated-copied-annotations.pdf", page, 1.5, 90) for page in (7, 10, 12, 14)]
    for name, page, zoom, rotation in cases:
        where = "%s page %d zoom %s rotation %d" % (name, page, zoom, rotation)
        path = os.path.join(args.corpus, name)
        out = os.path.join(folder, "page.svg")
        result = qfforms(args.qfforms, "render", path, "--page", page, "--out", out,
                         "--zoom", zoom, "--rotation", rotation)
        if not check(result.returncode == 0, "%s: exit %d: %s" % (where, result.returncode,
                                                                  result.stderr)):
            continue
        check(result.stdout == "wrote %s\n" % os.path.abspath(out),
              "%s: stdout %r" % (where, result.stdout))
        try:
            root = ET.parse(out).getroot()
        except ET.ParseError as e:
            check(False, "%s: not XML: %s" % (where, e))
            continue
        size, outlines = expected_page(path, page, zoom, rotation)
        check(root.tag == SVG + "svg", "%s: root %s" % (where, root.tag))
        check((int(root.get("width")), int(root.get("height"))) == size,
              "%s: size %s x %s, not %s" % (where, root.get("width"), root.get("height"), size))
        got = rendered_outlines(root)
        check(same_outlines(got, outlines), "%s: outlines %s, not %s" % (where, got, outlines))


def check_cli(args, folder):
    form = os.path.join(args.corpus, "qpdf-rotated-pages-multiline-text.pdf")
    out = os.path.join(folder, "out.svg")
    ok = [form, "--page", 0, "--out", out]
    for a in ([], ok[:3], [form, "--out", out], [form] + ok, ok[:2] + ["1x"] + ok[3:],
              ok + ["--zoom", 0], ok + ["--zoom", "nan"], ok + ["--rotation", 45],
              ok + ["--shade"], ok + ["--zoom"]):
        result = qfforms(args.qfforms, "render", *a)
        check(result.returncode == 2 and "usage: qfforms render" in result.stderr,
              "render %s: exit %d, stderr %r" % (a, result.returncode, result.stderr))
    check("render IN.pdf" in qfforms(args.qfforms, "--help").stdout, "qfforms --help: render")

    missing = os.path.join(folder, "missing.pdf")
    damaged = os.path.join(args.corpus, "pdfjs-damaged-unrecoverable-fuzzed.pdf")
    nowhere = os.path.join(folder, "no", "out.svg")
    for blamed, a in [(missing, [missing] + ok[1:]), (damaged, [damaged] + ok[1:]),
                      (form, [form, "--page", 9] + ok[3:]), (nowhere, ok[:4] + [nowhere])]:
        result = qfforms(args.qfforms, "render", *a)
        check(result.returncode == 1 and result.stderr.startswith("qfforms: %s: " % blamed),
              "render %s: exit %d, stderr %r" % (a, result.returncode, result.stderr))
    check(os.listdir(folder) == [], "a failed render left %s" % os.listdir(folder))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--qfforms", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("check", choices=["corpus", "cli"])
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        {"corpus": check_corpus, "cli": check_cli}[args.check](args, folder)
    return report(args.check)


if __name__ == "__main__":
    sys.exit(main())
