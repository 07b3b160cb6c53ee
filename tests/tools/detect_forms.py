#!/usr/bin/env python3
"""`qfforms detect` on real forms and on pages that give it nothing or too much.

  kinds    a page drawing every kind of field gets each, named after its label (a Japanese
           one as it is), in rows as the tab order, readable by poppler and MuPDF
  quality  two corpus forms stripped of their widgets come back with precision and recall
           above a floor (bench/detect_eval.py), and the outputs pass qpdf --check
  edges    a page without drawn boxes says so and adds nothing; a page of 400,000 strokes
           stops at the caps and says what it skipped; the fields already on a page keep
           their places; the input stays as it was; --pages and --lang; bad arguments are
           refused
"""

import argparse
import hashlib
import os
import subprocess
import sys
import tempfile
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


# Codes 1 and 2 of the font F3 read as 氏名.
TO_UNICODE = (b"/CIDInit /ProcSet findresource begin 12 dict begin begincmap\n"
              b"1 begincodespacerange <0000> <FFFF> endcodespacerange\n"
              b"2 beginbfchar <0001> <6C0F> <0002> <540D> endbfchar\nendcmap end end")


def pdf_with_content(path, content, pages=1):
    """A PDF of pages that each draw content (bytes, compressed), with the fonts F1
    (Helvetica), F2 (ZapfDingbats) and F3 (a Type0 font whose codes 1 and 2 are 氏名)."""
    data = zlib.compress(content)
    cmap = 3 + 2 * pages
    fonts = (f"/F1 << /Type /Font /Subtype /Type1 /BaseFont /Helvetica >> "
             f"/F2 << /Type /Font /Subtype /Type1 /BaseFont /ZapfDingbats >> "
             f"/F3 << /Type /Font /Subtype /Type0 /BaseFont /Mincho /Encoding /Identity-H "
             f"/DescendantFonts [<< /Type /Font /Subtype /CIDFontType2 /BaseFont /Mincho "
             f"/CIDSystemInfo << /Registry (QF) /Ordering (Identity) /Supplement 0 >> "
             f"/DW 1000 >>] /ToUnicode {cmap} 0 R >>")
    objects = ["<< /Type /Catalog /Pages 2 0 R >>",
               "<< /Type /Pages /Kids [%s] /Count %d >>"
               % (" ".join(f"{3 + 2 * i} 0 R" for i in range(pages)), pages)]
    for i in range(pages):
        objects.append(f"<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] "
                       f"/Contents {4 + 2 * i} 0 R /Resources << /Font << {fonts} >> >> >>")
        objects.append(data)
    objects.append(TO_UNICODE)
    out = bytearray(b"%PDF-1.7\n")
    offsets = []
    for n, obj in enumerate(objects, start=1):
        offsets.append(len(out))
        if isinstance(obj, bytes):
            filters = " /Filter /FlateDecode" if obj is data else ""
            out += f"{n} 0 obj\n<< /Length {len(obj)}{filters} >>\nstream\n".encode()
            out += obj + b"\nendstream\nendobj\n"
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


def kinds(args):
    """Every kind from a page that draws them: a Japanese label over an underline, a comb, a
    tall box, a row of circles under one label, a box glyph, a signature line."""
    circles = b"".join(
        b"%d 530 m %d 532.76 %d 535 %d 535 c %d 535 %d 532.76 %d 530 c "
        b"%d 527.24 %d 525 %d 525 c %d 525 %d 527.24 %d 530 c S "
        % (x - 5, x - 5, x - 2.24, x, x + 2.24, x + 5, x + 5, x + 5, x + 2.24, x, x - 2.24, x - 5, x - 5)
        for x in (145, 205, 265))
    content = (
        b"BT /F3 10 Tf 72 722 Td <00010002> Tj ET 0.5 w 120 720 m 320 720 l S "
        b"BT /F1 10 Tf 72 682 Td (Postcode) Tj ET "
        + b"".join(b"%d 678 14 16 re S " % (140 + 14 * i) for i in range(7)) +
        b"BT /F1 10 Tf 72 650 Td (Comments) Tj ET 72 560 328 85 re S "
        b"BT /F1 10 Tf 72 527 Td (Colour) Tj ET " + circles +
        b"BT /F1 10 Tf 153 527 Td (Red) Tj 60 0 Td (Green) Tj 60 0 Td (Blue) Tj ET "
        b"BT /F2 12 Tf 72 500 Td (o) Tj ET BT /F1 10 Tf 88 501 Td (Subscribe) Tj ET "
        b"BT /F1 10 Tf 72 452 Td (Signature) Tj ET 130 450 m 330 450 l S")
    with tempfile.TemporaryDirectory() as tmp:
        src, out = os.path.join(tmp, "kinds.pdf"), os.path.join(tmp, "kinds-out.pdf")
        pdf_with_content(src, content)
        r = run(["detect", src, "--out", out], args.qfforms)
        expect(r.returncode == 0, r.stdout + r.stderr)
        fields = {}
        order = []
        for w in widgets(out):
            name = field_entry(w, "/T")
            parent = w.get("/Parent")
            field = parent.get_object() if parent is not None else w
            flags = int(field.get("/Ff", 0))
            fields.setdefault(name, []).append((str(field.get("/FT")), flags, field.get("/MaxLen")))
            order.append(name)
        expect(set(fields) == {"氏名", "postcode", "comments", "colour", "subscribe", "signature"},
               f"fields {sorted(fields)}")
        expect(fields["氏名"] == [("/Tx", 0, None)], str(fields["氏名"]))
        expect(fields["postcode"][0][1] & (1 << 24) and fields["postcode"][0][2] == 7, "comb of 7")
        expect(fields["comments"][0][1] & (1 << 12), "multiline")
        expect(len(fields["colour"]) == 3 and all(f[1] & (1 << 15) for f in fields["colour"]),
               "one radio group of three")
        expect(fields["subscribe"] == [("/Btn", 0, None)], str(fields["subscribe"]))
        expect(fields["signature"][0][0] == "/Sig", str(fields["signature"]))
        # The tab order goes by rows from the top.
        rows = ["氏名", "postcode", "comments", "colour", "colour", "colour", "subscribe", "signature"]
        expect(order == rows, f"tab order {order}")
        for reader in (["pdftoppm", "-r", "36", "-png", out, os.path.join(tmp, "p")],
                       ["mutool", "draw", "-o", os.path.join(tmp, "m.png"), out]):
            # (The page's own CID font is not embedded, which poppler remarks on.)
            r = subprocess.run(reader, capture_output=True, text=True)
            expect(r.returncode == 0, f"{reader[0]}: {r.stderr}")


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

        # A chart of 400,000 segments on each of two pages: read up to the caps, saying
        # what it skipped (its time is bench/ and docs/detection.md's).
        chart = os.path.join(tmp, "chart.pdf")
        lines = b"".join(b"%d %d m %d %d l S " % (i % 600, i % 790, i % 600 + 3, i % 790 + 1)
                         for i in range(400000))
        pdf_with_content(chart, lines, pages=2)
        r = run(["detect", chart, "--out", os.path.join(tmp, "chart-out.pdf")], q)
        expect(r.returncode == 0, r.stderr)
        expect("drawing operators only, the rest skipped" in r.stdout, r.stdout)
        expect("lines and boxes only, the rest skipped" in r.stdout, r.stdout)

        # --pages: only the pages named, and an unlabelled place named by the tool in the
        # session's language.
        two = os.path.join(tmp, "two.pdf")
        pdf_with_content(two, b"72 650 200 20 re S", pages=2)
        r = run(["detect", two, "--out", os.path.join(tmp, "two-out.pdf"), "--pages", "1",
                 "--lang", "ja"], q)
        expect(r.returncode == 0 and r.stdout.startswith("page 1: 1 field\n")
               and "page 0" not in r.stdout, r.stdout + r.stderr)
        made = widgets(os.path.join(tmp, "two-out.pdf"))
        expect(len(made) == 1 and not field_entry(made[0], "/T").isascii(),
               f"one field named in Japanese: {[field_entry(w, '/T') for w in made]}")

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
    ap.add_argument("check", choices=["kinds", "quality", "edges"])
    args = ap.parse_args()
    {"kinds": kinds, "quality": quality, "edges": edges}[args.check](args)
    print("ok")


if __name__ == "__main__":
    main()
