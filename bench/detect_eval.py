#!/usr/bin/env python3
"""How well `qfforms detect` finds the fields of real forms.

Each form of the set already has fields over boxes and lines its pages draw. A copy of it
without its widgets and /AcroForm (made with pypdf in a temporary folder; the corpus stays
as it is) goes through `qfforms detect`, and the widgets of the output are matched against
the widgets taken out: a detection matches when its rectangle overlaps one taken out with
intersection over union >= 0.5 and the kinds agree (text, check, radio, choice, signature),
each widget matched once. Push buttons and hidden widgets are left out of what is counted
(nothing detects them). Prints precision and recall per form and over the set, also
without the choice fields (detection proposes none: their frames come out as text
fields), and the time per page; --json FILE writes the figures too, --floor P,R fails (exit 1) below them.

usage: detect_eval.py --qfforms PATH --corpus DIR [--forms a.pdf,b.pdf] [--json FILE]
                      [--floor P,R] [--keep DIR]
"""

import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

from pypdf import PdfReader, PdfWriter
from pypdf.generic import ArrayObject, NameObject

# The corpus forms with fields whose pages, once stripped, still draw lines or boxes. The
# others draw their fields' frames only in the widgets' own appearances (taken out with
# them), are damaged beyond pypdf's copy, or hold no fields.
FORMS = [
    "pdfjs-irs-f1040-prefilled.pdf",
    "pdflib-hybrid-xfa-fields.pdf",
    "pikepdf-dd0293-hybrid-xfa.pdf",
    "pdflib-sample-form-js-named-actions.pdf",
    "qpdf-field-types.pdf",
    "pypdf-libreoffice-form.pdf",
    "qpdf-broken-button-set.pdf",
    "qpdf-rotated-pages-multiline-text.pdf",
]

RADIO, PUSH = 1 << 15, 1 << 16


def inherited(obj, key):
    seen = 0
    while obj is not None and seen < 100:
        if key in obj:
            return obj[key]
        obj = obj.get("/Parent")
        obj = obj.get_object() if obj is not None else None
        seen += 1
    return None


def kind_of(widget):
    ft = inherited(widget, "/FT")
    flags = int(inherited(widget, "/Ff") or 0)
    if ft == "/Tx":
        return "text"
    if ft == "/Ch":
        return "choice"
    if ft == "/Sig":
        return "signature"
    if ft == "/Btn":
        if flags & PUSH:
            return None
        return "radio" if flags & RADIO else "check"
    return None


def rect_of(widget):
    r = [float(v) for v in widget["/Rect"]]
    return [min(r[0], r[2]), min(r[1], r[3]), max(r[0], r[2]), max(r[1], r[3])]


def widgets(reader):
    """(page, kind, rect) of the visible widgets of each page, push buttons left out."""
    out = []
    for index, page in enumerate(reader.pages):
        annots = page.get("/Annots")
        for ref in (annots.get_object() if annots is not None else []):
            a = ref.get_object()
            if a.get("/Subtype") != "/Widget" or "/Rect" not in a:
                continue
            if int(a.get("/F", 0)) & (2 | 32):
                continue
            kind = kind_of(a)
            r = rect_of(a)
            if kind is None or r[2] - r[0] < 1 or r[3] - r[1] < 1:
                continue
            out.append((index, kind, r))
    return out


def strip(src, dst):
    """src without its widgets and form; the truth taken out."""
    reader = PdfReader(src)
    if reader.is_encrypted:
        reader.decrypt("")
    truth = widgets(reader)
    writer = PdfWriter()
    writer.clone_document_from_reader(reader)
    for page in writer.pages:
        annots = page.get("/Annots")
        if annots is None:
            continue
        kept = ArrayObject(a for a in annots.get_object() if a.get_object().get("/Subtype") != "/Widget")
        if kept:
            page[NameObject("/Annots")] = kept
        else:
            del page["/Annots"]
    if "/AcroForm" in writer._root_object:
        del writer._root_object["/AcroForm"]
    with open(dst, "wb") as f:
        writer.write(f)
    return truth, len(reader.pages)


def iou(a, b):
    w = min(a[2], b[2]) - max(a[0], b[0])
    h = min(a[3], b[3]) - max(a[1], b[1])
    if w <= 0 or h <= 0:
        return 0.0
    i = w * h
    return i / ((a[2] - a[0]) * (a[3] - a[1]) + (b[2] - b[0]) * (b[3] - b[1]) - i)


def without_choices(truth, found):
    """truth without its choice fields, and found without what lies over one (IoU >= 0.5):
    the figures of the kinds detection proposes."""
    choices = [t for t in truth if t[1] == "choice"]
    rest = [t for t in truth if t[1] != "choice"]
    kept = [f for f in found
            if not any(c[0] == f[0] and iou(c[2], f[2]) >= 0.5 for c in choices)]
    return rest, kept


def match(truth, found):
    """How many of found match one of truth each (greedy by overlap)."""
    pairs = []
    for i, (tp, tk, tr) in enumerate(truth):
        for j, (fp, fk, fr) in enumerate(found):
            if tp == fp and tk == fk:
                o = iou(tr, fr)
                if o >= 0.5:
                    pairs.append((o, i, j))
    pairs.sort(reverse=True)
    used_t, used_f = set(), set()
    for _, i, j in pairs:
        if i not in used_t and j not in used_f:
            used_t.add(i)
            used_f.add(j)
    return len(used_t)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--qfforms", required=True)
    ap.add_argument("--corpus", required=True)
    ap.add_argument("--forms", default=",".join(FORMS))
    ap.add_argument("--json")
    ap.add_argument("--floor")
    ap.add_argument("--keep", help="keep the stripped and detected files in this folder")
    args = ap.parse_args()

    rows = []
    with tempfile.TemporaryDirectory() as tmp:
        work = args.keep or tmp
        os.makedirs(work, exist_ok=True)
        for name in args.forms.split(","):
            src = os.path.join(args.corpus, name)
            flat = os.path.join(work, "flat-" + name)
            out = os.path.join(work, "detected-" + name)
            truth, pages = strip(src, flat)
            started = time.monotonic()
            run = subprocess.run([args.qfforms, "detect", flat, "--out", out, "--json",
                                  "--break-signatures", "--force"],
                                 capture_output=True, text=True)
            wall = time.monotonic() - started
            if run.returncode != 0:
                print(f"{name}: qfforms detect failed ({run.returncode}): {run.stderr.strip()}")
                return 1
            report = json.loads(run.stdout)
            found = widgets(PdfReader(out))
            check = subprocess.run(["qpdf", "--check", out], capture_output=True, text=True)
            matched = match(truth, found)
            truth_nc, found_nc = without_choices(truth, found)
            matched_nc = match(truth_nc, found_nc)
            kinds = {}
            for _, k, _ in truth:
                kinds.setdefault(k, [0, 0])[0] += 1
            for _, k, _ in found:
                kinds.setdefault(k, [0, 0])[1] += 1
            rows.append({
                "form": name, "pages": pages, "truth": len(truth), "found": len(found),
                "matched": matched,
                "truth_no_choice": len(truth_nc), "found_no_choice": len(found_nc),
                "matched_no_choice": matched_nc,
                "precision": matched / len(found) if found else 1.0,
                "recall": matched / len(truth) if truth else 1.0,
                "detect_seconds_per_page": max(p["seconds"] for p in report) if report else 0,
                "wall_seconds_per_page": wall / max(pages, 1),
                "qpdf_check": check.returncode,
                "kinds": kinds,
            })
    truth = sum(r["truth"] for r in rows)
    found = sum(r["found"] for r in rows)
    matched = sum(r["matched"] for r in rows)
    truth_nc = sum(r["truth_no_choice"] for r in rows)
    found_nc = sum(r["found_no_choice"] for r in rows)
    matched_nc = sum(r["matched_no_choice"] for r in rows)
    total = {"truth": truth, "found": found, "matched": matched,
             "precision": matched / found if found else 1.0,
             "recall": matched / truth if truth else 1.0,
             "precision_no_choice": matched_nc / found_nc if found_nc else 1.0,
             "recall_no_choice": matched_nc / truth_nc if truth_nc else 1.0,
             "slowest_page_seconds": max(r["detect_seconds_per_page"] for r in rows)}
    print(f"{'form':44} {'pages':>5} {'truth':>5} {'found':>5} {'match':>5} "
          f"{'prec':>5} {'recall':>6} {'s/page':>7} {'qpdf':>4}")
    for r in rows:
        print(f"{r['form']:44} {r['pages']:5} {r['truth']:5} {r['found']:5} {r['matched']:5} "
              f"{r['precision']:5.2f} {r['recall']:6.2f} {r['wall_seconds_per_page']:7.3f} "
              f"{'ok' if r['qpdf_check'] in (0, 3) else 'FAIL':>4}")
    print(f"{'overall':44} {'':5} {truth:5} {found:5} {matched:5} "
          f"{total['precision']:5.2f} {total['recall']:6.2f}  slowest page's detection "
          f"{total['slowest_page_seconds']:.3f} s")
    print(f"{'without choice fields':44} {'':5} {truth_nc:5} {found_nc:5} {matched_nc:5} "
          f"{total['precision_no_choice']:5.2f} {total['recall_no_choice']:6.2f}")
    for r in rows:
        print(f"  {r['form']}: truth/found by kind "
              + ", ".join(f"{k} {v[0]}/{v[1]}" for k, v in sorted(r["kinds"].items())))
    if args.json:
        with open(args.json, "w") as f:
            json.dump({"forms": rows, "overall": total}, f, indent=2)
    failed = [r["form"] for r in rows if r["qpdf_check"] not in (0, 3)]
    if failed:
        print("qpdf --check failed on the output of " + ", ".join(failed))
        return 1
    if args.floor:
        p, r = (float(v) for v in args.floor.split(","))
        if total["precision"] < p or total["recall"] < r:
            print(f"below the floor: precision {total['precision']:.2f} (>= {p}), "
                  f"recall {total['recall']:.2f} (>= {r})")
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
