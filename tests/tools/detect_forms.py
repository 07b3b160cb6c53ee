#!/usr/bin/env python3
"""`qfforms detect` on real forms and on pages that give it nothing or too much.

  quality  two corpus forms stripped of their widgets come back with precision and recall
           above a floor (bench/detect_eval.py), and the outputs pass qpdf --check
  edges    a page without drawn boxes says so and adds nothing; a page of 400,000 strokes
           finishes in time and says what it skipped; the fields already on a page keep
           their places; the input stays as it was; bad arguments are refused
"""

import argparse
import hashlib
import os
import subprocess
import sys
import tempfile
import time
import zlib

from pypdf import PdfReader

HERE = os.path.dirname(os.path.abspath(__file__))
EVAL = os.path.join(HERE, "..", "..", "bench", "detect_eval.py")


def run(args, qfforms):
    return subprocess.run([qfforms] + args, capture_output=True, text=True, timeout=300)


def expect(condition, message):
    if not condition:
        print("FAILED: " + message)
        sys.exit(1)


def pdf_with_content(path, content, pages=1):
    """A PDF of pages that each draw content (bytes, compressed)."""
    data = zlib.compress(content)
    objects = ["<< /Type /Catalog /Pages 2 0 R >>",
               "<< /Type /Pages /Kids [%s] /Count %d >>"
               % (" ".join(f"{3 + 2 * i} 0 R" for i in range(pages)), pages)]
    for i in range(pages):
        objects.append(f"<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] "
                       f"/Contents {4 + 2 * i} 0 R /Resources << /Font << /F1 << /Type /Font "
                       f"/Subtype /Type1 /BaseFont /Helvetica >> >> >> >>")
        objects.append(None)
    out = bytearray(b"%PDF-1.7\n")
    offsets = []
    for n, obj in enumerate(objects, start=1):
        offsets.append(len(out))
        if obj is None:
            out += (f"{n} 0 obj\n<< /Length {len(data)} /Filter /FlateDecode >>\nstream\n").encode()
            out += data + b"\nendstream\nendobj\n"
        else:
            out += f"{n} 0 obj\n{obj}\nendobj\n".encode()
    xref = len(out)
    out += f"xref\n0 {len(objects) + 1}\n0000000000 65535 f \n".encode()
    for o in offsets:
        out += f"{o:010d} 00000 n \n".encode()
    out += (f"trailer\n<< /Size {len(objects) + 1} /Root 1 0 R >>\nstartxref\n{xref}\n%%EOF\n").encode()
    with open(path, "wb") as f:
        f.write(out)


def digest(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


def field_entry(widget, key):
    """key of the widget's field: its own dictionary's or its parent's."""
    if key in widget:
        return str(widget[key])
    parent = widget.get("/Parent")
    return str(parent.get_object().get(key)) if parent is not None else None


def widgets(path):
    reader = PdfReader(path)
    out = []
    for page in reader.pages:
        annots = page.get("/Annots")
        for a in (annots.get_object() if annots is not None else []):
            a = a.get_object()
            if a.get("/Subtype") == "/Widget":
                out.append(a)
    return out


def quality(args):
    result = subprocess.run(
        [sys.executable, EVAL, "--qfforms", args.qfforms, "--corpus", args.corpus,
         "--forms", "pdflib-sample-form-js-named-actions.pdf,pdflib-hybrid-xfa-fields.pdf",
         "--floor", "0.8,0.9"],
        capture_output=True, text=True, timeout=600)
    print(result.stdout)
    expect(result.returncode == 0, "detect_eval.py: " + result.stderr[-2000:])


def edges(args):
    with tempfile.TemporaryDirectory() as tmp:
        q = args.qfforms

        # Nothing drawn but text: nothing proposed, and the reason said.
        text_only = os.path.join(tmp, "text.pdf")
        pdf_with_content(text_only, b"BT /F1 12 Tf 72 700 Td (Just a letter.) Tj ET")
        before = digest(text_only)
        out = os.path.join(tmp, "text-out.pdf")
        r = run(["detect", text_only, "--out", out], q)
        expect(r.returncode == 0, f"text-only page: {r.returncode} {r.stderr}")
        expect("no fields found: the page draws no boxes or lines" in r.stdout, r.stdout)
        expect(widgets(out) == [], "a page without boxes got widgets")
        expect(digest(text_only) == before, "the input file changed")

        # A labelled underline, a box and a check box; then detection again over its own
        # output proposes nothing new: the fields there keep their places.
        form = os.path.join(tmp, "form.pdf")
        pdf_with_content(form, b"BT /F1 10 Tf 72 702 Td (First name:) Tj ET "
                               b"0.5 w 140 700 m 340 700 l S "
                               b"72 650 200 20 re S BT /F1 10 Tf 72 674 Td (Address) Tj ET "
                               b"72 600 10 10 re S BT /F1 10 Tf 86 601 Td (I agree) Tj ET")
        first = os.path.join(tmp, "form-1.pdf")
        r = run(["detect", form, "--out", first], q)
        expect(r.returncode == 0 and "page 0: 3 fields" in r.stdout, r.stdout + r.stderr)
        names = sorted(field_entry(w, "/T") for w in widgets(first))
        expect(names == ["address", "first_name", "i_agree"], f"names {names}")
        tips = sorted(field_entry(w, "/TU") for w in widgets(first))
        expect(tips == ["Address", "First name", "I agree"], f"tooltips {tips}")
        again = os.path.join(tmp, "form-2.pdf")
        r = run(["detect", first, "--out", again], q)
        expect(r.returncode == 0 and "3 places kept for the fields already there" in r.stdout,
               r.stdout + r.stderr)
        expect(len(widgets(again)) == 3, "detection over fields added more")
        check = subprocess.run(["qpdf", "--check", again], capture_output=True, text=True)
        expect(check.returncode == 0, check.stdout)

        # A chart of 400,000 segments on each of two pages: within the budget, saying
        # what it skipped.
        chart = os.path.join(tmp, "chart.pdf")
        lines = b"".join(b"%d %d m %d %d l S " % (i % 600, i % 790, i % 600 + 3, i % 790 + 1)
                         for i in range(400000))
        pdf_with_content(chart, lines, pages=2)
        started = time.monotonic()
        r = run(["detect", chart, "--out", os.path.join(tmp, "chart-out.pdf")], q)
        seconds = time.monotonic() - started
        expect(r.returncode == 0, r.stderr)
        expect("drawing operators only, the rest skipped" in r.stdout, r.stdout)
        expect("lines and boxes only, the rest skipped" in r.stdout, r.stdout)
        expect(seconds < 2 * 1.0 + 1.0, f"the chart took {seconds:.2f} s")

        # Bad arguments.
        for bad, words in ((["detect", form], "needs --out"),
                           (["detect", form, "--out", out, "--pages", "3"], "past the last page"),
                           (["detect", form, "--out", out, "--pages", "2-1"], "not a page"),
                           (["detect", form, "--out", out, "--lang", "fr"], "unknown language")):
            r = run(bad, q)
            expect(r.returncode == 2 and words in r.stderr, f"{bad}: {r.returncode} {r.stderr}")
        r = run(["detect", os.path.join(tmp, "missing.pdf"), "--out", out], q)
        expect(r.returncode == 1, f"missing input: {r.returncode}")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--qfforms", required=True)
    ap.add_argument("--corpus", required=True)
    ap.add_argument("check", choices=["quality", "edges"])
    args = ap.parse_args()
    {"quality": quality, "edges": edges}[args.check](args)
    print("ok")


if __name__ == "__main__":
    main()
