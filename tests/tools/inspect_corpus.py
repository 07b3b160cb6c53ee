#!/usr/bin/python3
"""Tests of `qfforms inspect` against the sample form and the corpus of real forms.

    inspect_corpus.py --qfforms BIN --sample PDF --corpus DIR CHECK

CHECK is one of:
  cli     command line: usage errors, unreadable and damaged input, odd paths
  sample  the built-in sample, against facts known about it and against pypdf
  corpus  every corpus file: valid, self-consistent JSON or a clean error, never a
          crash; page geometry against pypdf
  pypdf   the fields of selected files against a pypdf reading of the same file

Run with Debian's /usr/bin/python3 (python3-pypdf). Exit status 0 when every check
passed.
"""

import argparse
import functools
import json
import logging
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile

from pypdf import PdfReader
from pypdf.generic import (
    ArrayObject,
    DictionaryObject,
    IndirectObject,
    NameObject,
    NumberObject,
    StreamObject,
    TextStringObject,
)

logging.getLogger("pypdf").setLevel(logging.CRITICAL)

TIMEOUT = 120

# Files that cannot be opened: qfforms must report an error (exit 1), not crash.
MUST_FAIL = {
    "pdfjs-damaged-unrecoverable-fuzzed.pdf",
}

# Files where an error is an acceptable answer as well as a description.
MAY_FAIL = {
    # The field tree loops; refusing the form is as good as describing it.
    "pyhanko-circular-field-tree.pdf",
}

# Files whose pages' /Annots lists or field trees are broken in ways where a widget's
# place on a page or its field cannot be checked for consistency.
INCONSISTENT_TREES = {
    "pdfium-tab-order-annotiter.pdf",  # widgets shared by 3 pages, dangling /Parent
    "jspdf-encrypted-acroform.pdf",  # radio widgets listed as fields and as kids
    "qpdf-broken-button-set.pdf",  # a field with both field and widget kids
    "pdfium-push-buttons-duplicate-acroform-key.pdf",  # duplicate /AcroForm key
    "pyhanko-circular-field-tree.pdf",
}

# Files whose pages pypdf sees but qpdf's repair does not: no geometry comparison.
GEOMETRY_UNCOMPARABLE = {
    "pdfjs-damaged-signed-fuzzed.pdf",  # qpdf rebuilds the xref but finds no page
}

# Files whose every terminal field is compared with pypdf, field by field.
PYPDF_MODEL_FILES = [
    "qpdf-field-types.pdf",
    "pdfjs-resetform-buttons.pdf",
    "pdfcpu-cjk-japanese-form.pdf",
    "pdfium-listboxes-multiselect.pdf",
    "pdfium-text-password-maxlen-readonly.pdf",
    "pdfbox-hierarchical-merge-form.pdf",
    "pdfjs-multi-widget-fields.pdf",
    "pdfjs-irs-f1040-prefilled.pdf",
    "pdfbox-rotated-page-widget-rotation.pdf",
    "pdfbox-comb-fields.pdf",
]

FIELD_TYPES = {"Btn", "Tx", "Ch", "Sig"}
RECT_KEYS = ["left", "bottom", "right", "top"]
TOLERANCE = 0.01


class Checker:
    def __init__(self):
        self.passed = 0
        self.failures = []

    def expect(self, condition, what):
        if condition:
            self.passed += 1
        else:
            self.failures.append(what)
            print("FAIL: " + what)
        return condition

    def equal(self, got, want, what):
        return self.expect(got == want, f"{what}: got {got!r}, want {want!r}")

    def finish(self):
        print(f"{self.passed} passed, {len(self.failures)} failed")
        return 0 if not self.failures else 1


def run_qfforms(qfforms, *args):
    proc = subprocess.run(
        [qfforms, *args],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        timeout=TIMEOUT,
    )
    return proc.returncode, proc.stdout.decode("utf-8", "replace"), proc.stderr.decode(
        "utf-8", "replace"
    )


def check_error_report(c, path, code, out, err, what):
    """An inspect failure: exit 1, nothing on stdout, one line 'qfforms: PATH: TEXT'."""
    c.equal(code, 1, f"{what}: exit status")
    c.equal(out, "", f"{what}: stdout on error")
    prefix = f"qfforms: {path}: "
    ok = err.endswith("\n") and err.count("\n") == 1 and err.startswith(prefix)
    ok = ok and len(err) > len(prefix) + 1
    c.expect(ok, f"{what}: error report {err!r} is not one line '{prefix}<message>'")


def inspect(c, qfforms, path, what, allow_error=False):
    """Runs inspect; returns the parsed JSON, or None after an (allowed) clean error."""
    code, out, err = run_qfforms(qfforms, "inspect", path)
    if code < 0:
        c.expect(False, f"{what}: killed by signal {-code}: {err[-2000:]}")
        return None
    if code != 0:
        if not allow_error:
            c.expect(False, f"{what}: exit {code}, stderr {err[-2000:]!r}")
            return None
        check_error_report(c, path, code, out, err, what)
        return None
    c.equal(err, "", f"{what}: stderr on success")
    try:
        doc = json.loads(out)
    except ValueError as e:
        c.expect(False, f"{what}: output is not JSON: {e}")
        return None
    c.expect(out.startswith('{\n  "file"'), f"{what}: not pretty-printed with 2 spaces")
    return doc


# ---- JSON shape and self-consistency -------------------------------------------------


def is_number(v):
    return isinstance(v, (int, float)) and not isinstance(v, bool)


def check_rect(c, rect, what, nullable=False):
    if rect is None and nullable:
        return
    ok = isinstance(rect, dict) and sorted(rect) == sorted(RECT_KEYS)
    ok = ok and all(is_number(rect[k]) for k in RECT_KEYS)
    c.expect(ok, f"{what}: bad rectangle {rect!r}")


def check_shape(c, doc, path, what, damaged=False):
    """The document of `inspect`: members, types, indices. A damaged file may carry
    field types of any name."""
    c.equal(list(doc), ["file", "pageCount", "encryption", "pages", "fields"], f"{what}: top-level members")
    c.equal(doc.get("file"), path, f"{what}: file")
    enc = doc.get("encryption")
    if enc is not None:
        c.equal(list(enc), ["ownerPassword", "permissions", "formEditable"], f"{what}: encryption members")
        c.expect(set(enc.get("permissions", [])) <= set(PERMISSIONS), f"{what}: permissions {enc.get('permissions')}")
    pages = doc.get("pages", [])
    c.equal(doc.get("pageCount"), len(pages), f"{what}: pageCount")
    for i, page in enumerate(pages):
        pw = f"{what}: page {i}"
        c.equal(page.get("index"), i, f"{pw}: index")
        check_rect(c, page.get("mediaBox"), f"{pw}: mediaBox")
        check_rect(c, page.get("cropBox"), f"{pw}: cropBox")
        c.expect(page.get("rotation") in (0, 90, 180, 270), f"{pw}: rotation {page.get('rotation')!r}")
        for k, annot in enumerate(page.get("annotations", [])):
            aw = f"{pw} annotation {k}"
            c.equal(annot.get("index"), k, f"{aw}: index")
            c.expect(annot.get("subtype") is None or isinstance(annot["subtype"], str), f"{aw}: subtype")
            check_rect(c, annot.get("rect"), f"{aw}: rect", nullable=True)
            c.expect(isinstance(annot.get("flags"), int) and annot["flags"] >= 0, f"{aw}: flags")
            c.equal("field" in annot, annot.get("subtype") == "Widget", f"{aw}: has 'field' iff widget")
    for i, field in enumerate(doc.get("fields", [])):
        fw = f"{what}: field {i} ({field.get('name')!r})"
        ftype = field.get("type")
        known = ftype in FIELD_TYPES or (damaged and isinstance(ftype, str))
        c.expect(ftype is None or known, f"{fw}: type {ftype!r}")
        keys = ["name", "type", "flags", "value", "defaultValue", "tooltip"]
        keys += ["maxLength"] if ftype == "Tx" else []
        keys += ["options"] if ftype == "Ch" else []
        keys += ["widgets"]
        c.equal(list(field), keys, f"{fw}: members")
        c.expect(isinstance(field.get("flags"), int) and field["flags"] >= 0, f"{fw}: flags")
        for key in ("name", "value", "defaultValue", "tooltip"):
            c.expect(field.get(key) is None or isinstance(field[key], str), f"{fw}: {key} not text")
        if ftype == "Tx":
            ml = field.get("maxLength")
            c.expect(ml is None or (isinstance(ml, int) and ml > 0), f"{fw}: maxLength {ml!r}")
        for o in field.get("options", []):
            c.expect(
                list(o) == ["display", "export"] and all(isinstance(o[k], str) for k in o),
                f"{fw}: option {o!r}",
            )
        for k, w in enumerate(field.get("widgets", [])):
            ww = f"{fw} widget {k}"
            keys = ["page", "annotation", "rect"] + (["onState"] if ftype == "Btn" else [])
            c.equal(list(w), keys, f"{ww}: members")
            check_rect(c, w.get("rect"), f"{ww}: rect", nullable=True)
            c.equal(w.get("page") is None, w.get("annotation") is None, f"{ww}: page and annotation")


def rect_close(a, b):
    if a is None or b is None:
        return a is b
    return all(abs(a[k] - b[k]) <= TOLERANCE for k in RECT_KEYS)


def check_consistency(c, doc, what):
    """Each widget of a field found on a page is that page's annotation at the stated
    index, a widget there, with the same rectangle and naming the same field."""
    pages = doc["pages"]
    for field in doc["fields"]:
        for k, w in enumerate(field["widgets"]):
            ww = f"{what}: field {field['name']!r} widget {k}"
            if w["page"] is None:
                continue
            if not c.expect(0 <= w["page"] < len(pages), f"{ww}: page {w['page']} out of range"):
                continue
            annots = pages[w["page"]]["annotations"]
            if not c.expect(0 <= w["annotation"] < len(annots), f"{ww}: annotation out of range"):
                continue
            annot = annots[w["annotation"]]
            c.equal(annot["subtype"], "Widget", f"{ww}: annotation subtype")
            c.expect(rect_close(annot["rect"], w["rect"]), f"{ww}: rect {w['rect']} != page's {annot['rect']}")
            c.equal(annot.get("field"), field["name"], f"{ww}: the page's widget names another field")
    # Every widget on a page that names a field is one of that field's widgets.
    placed = {(w["page"], w["annotation"]) for f in doc["fields"] for w in f["widgets"]}
    for p, page in enumerate(pages):
        for annot in page["annotations"]:
            if annot.get("field") is not None:
                c.expect(
                    (p, annot["index"]) in placed,
                    f"{what}: page {p} widget {annot['index']} of {annot['field']!r} is not listed "
                    f"among the widgets of any field",
                )


# ---- pypdf reference ------------------------------------------------------------------


def res(obj):
    while isinstance(obj, IndirectObject):
        obj = obj.get_object()
    return obj


@functools.lru_cache(maxsize=4)
def read_pdf(path):
    """The pypdf reading of a file, shared by the comparisons; raises when pypdf cannot."""
    return PdfReader(path)


def text_of(value):
    """A /V, /DV or /TU value as qfforms reports it; None when absent; ... to skip."""
    value = res(value)
    if value is None:
        return None
    if isinstance(value, NameObject):
        return str(value)[1:]
    if isinstance(value, TextStringObject):
        return str(value)
    if isinstance(value, ArrayObject):
        return text_of(value[0]) if len(value) else None
    return ...  # byte strings, dictionaries (signatures): not compared


def box_of(arr):
    v = [float(x) for x in res(arr)]
    return {"left": v[0], "bottom": v[1], "right": v[2], "top": v[3]}


def pypdf_places(reader):
    """Object number of each annotation -> (first page index, position in /Annots)."""
    places = {}
    for p, page in enumerate(reader.pages):
        annots = res(page.get("/Annots"))
        if not isinstance(annots, ArrayObject):
            continue
        for k, ref in enumerate(annots):
            if isinstance(ref, IndirectObject):
                places.setdefault(ref.idnum, (p, k))
    return places


def pypdf_fields(reader):
    """Terminal fields of /AcroForm /Fields in tree order, with inherited entries."""
    root = res(reader.trailer["/Root"])
    form = res(root.get("/AcroForm"))
    if not isinstance(form, DictionaryObject):
        return []
    top = res(form.get("/Fields"))
    if not isinstance(top, ArrayObject):
        return []
    fields = []
    seen = set()

    def is_field(obj):
        return isinstance(obj, DictionaryObject) and "/T" in obj

    def visit(ref, parent_name, inherited):
        node = res(ref)
        if not isinstance(node, DictionaryObject):
            return
        key = ref.idnum if isinstance(ref, IndirectObject) else id(node)
        if key in seen:
            return
        seen.add(key)
        name = parent_name
        if "/T" in node:
            part = str(res(node["/T"]))
            name = part if parent_name is None else parent_name + "." + part
        inh = dict(inherited)
        for entry in ("/FT", "/Ff", "/V", "/DV", "/MaxLen"):
            if entry in node:
                inh[entry] = res(node[entry])
        kids = res(node.get("/Kids"))
        kids = list(kids) if isinstance(kids, ArrayObject) else []
        field_kids = [k for k in kids if is_field(res(k))]
        if field_kids:
            for kid in field_kids:
                visit(kid, name, inh)
            return
        widgets = kids if kids else [ref]
        fields.append({"name": name, "node": node, "inherited": inh, "widgets": widgets})

    for ref in top:
        visit(ref, None, {})
    return fields


def pypdf_on_state(widget):
    ap = res(widget.get("/AP"))
    if not isinstance(ap, DictionaryObject):
        return ...
    normal = res(ap.get("/N"))
    if not isinstance(normal, DictionaryObject) or isinstance(normal, StreamObject):
        return ...
    on = [str(k)[1:] for k in normal.keys() if k != "/Off"]
    return on[0] if len(on) == 1 else ...


def pypdf_options(node):
    opts = res(node.get("/Opt"))
    if not isinstance(opts, ArrayObject):
        return []
    result = []
    for o in opts:
        o = res(o)
        if isinstance(o, ArrayObject) and len(o) == 2:
            result.append({"display": text_of(o[1]), "export": text_of(o[0])})
        else:
            t = text_of(o)
            result.append({"display": t, "export": t})
    return result


def compare_with_pypdf(c, doc, path, what):
    """Every terminal field of the file as pypdf reads it, member by member."""
    reader = read_pdf(path)
    places = pypdf_places(reader)
    want = pypdf_fields(reader)
    got = doc["fields"]
    c.equal([f["name"] for f in got], [f["name"] for f in want], f"{what}: field names in tree order")
    if len(got) != len(want):
        return
    for g, w in zip(got, want):
        fw = f"{what}: field {w['name']!r}"
        inh, node = w["inherited"], w["node"]
        ftype = str(inh["/FT"])[1:] if "/FT" in inh else None
        c.equal(g["type"], ftype, f"{fw}: type")
        c.equal(g["flags"], int(inh.get("/Ff", 0)), f"{fw}: flags")
        if ftype != "Sig":
            for key, entry in (("value", "/V"), ("defaultValue", "/DV")):
                want_text = text_of(inh.get(entry))
                if want_text is not ...:
                    c.equal(g[key], want_text, f"{fw}: {key}")
        tooltip = text_of(node.get("/TU"))
        if tooltip is not ...:
            c.equal(g["tooltip"], tooltip, f"{fw}: tooltip")
        if ftype == "Tx":
            max_len = int(inh["/MaxLen"]) if isinstance(inh.get("/MaxLen"), NumberObject) else 0
            c.equal(g["maxLength"], max_len or None, f"{fw}: maxLength")
        if ftype == "Ch":
            c.equal(g["options"], pypdf_options(node), f"{fw}: options")
        c.equal(len(g["widgets"]), len(w["widgets"]), f"{fw}: widget count")
        for k, (gw, ref) in enumerate(zip(g["widgets"], w["widgets"])):
            ww = f"{fw} widget {k}"
            wd = res(ref)
            place = places.get(ref.idnum) if isinstance(ref, IndirectObject) else None
            c.equal((gw["page"], gw["annotation"]), place or (None, None), f"{ww}: place")
            c.expect(rect_close(gw["rect"], box_of(wd["/Rect"])), f"{ww}: rect {gw['rect']}")
            if ftype == "Btn" and not int(inh.get("/Ff", 0)) & 0x10000:
                on = pypdf_on_state(wd)
                if on is not ...:
                    c.equal(gw["onState"], on, f"{ww}: onState")


def compare_geometry(c, doc, path, what):
    """Page count, boxes and rotation against pypdf; skipped where pypdf cannot read."""
    try:
        want = []
        for page in read_pdf(path).pages:
            media = box_of(page.mediabox)
            crop = box_of(page.cropbox)
            want.append((media, crop, int(page.rotation) % 360))
    except Exception:  # pypdf cannot read it either: nothing to compare with
        return
    c.equal(doc["pageCount"], len(want), f"{what}: page count (pypdf)")
    for i, (page, (media, crop, rotation)) in enumerate(zip(doc["pages"], want)):
        c.expect(rect_close(page["mediaBox"], media), f"{what}: page {i} mediaBox {page['mediaBox']} != {media}")
        c.expect(rect_close(page["cropBox"], crop), f"{what}: page {i} cropBox {page['cropBox']} != {crop}")
        c.equal(page["rotation"], rotation, f"{what}: page {i} rotation")


# ---- checks ---------------------------------------------------------------------------


def check_cli(c, args):
    q = args.qfforms
    code, out, err = run_qfforms(q)
    c.equal(code, 2, "no arguments: exit status")
    c.expect("usage: qfforms inspect" in err, "no arguments: usage on stderr")
    for argv in (["bogus"], ["inspect"], ["inspect", args.sample, args.sample], ["inspect", ""]):
        code, out, err = run_qfforms(q, *argv)
        c.equal(code, 2, f"{argv}: exit status")
        c.expect("usage:" in err and out == "", f"{argv}: usage on stderr only")
    code, out, err = run_qfforms(q, "--help")
    c.equal(code, 0, "--help: exit status")
    c.expect(out.startswith("usage: qfforms inspect"), "--help: usage on stdout")

    with tempfile.TemporaryDirectory() as tmp:
        missing = os.path.join(tmp, "missing.pdf")
        code, out, err = run_qfforms(q, "inspect", missing)
        check_error_report(c, missing, code, out, err, "missing file")
        code, out, err = run_qfforms(q, "inspect", tmp)
        check_error_report(c, tmp, code, out, err, "a directory")

        def write(name, data):
            p = os.path.join(tmp, name)
            with open(p, "wb") as f:
                f.write(data)
            return p

        for name, data in (
            ("empty.pdf", b""),
            ("text.pdf", b"hello, this is not a PDF\n" * 20),
            ("header-only.pdf", b"%PDF-1.7\n"),
        ):
            p = write(name, data)
            code, out, err = run_qfforms(q, "inspect", p)
            check_error_report(c, p, code, out, err, name)

        # Non-ASCII file name with a space: opens, and "file" gives the path as given.
        odd = os.path.join(tmp, "formulaire d’été.pdf")
        shutil.copyfile(args.sample, odd)
        doc = inspect(c, q, odd, "non-ASCII path")
        if doc is not None:
            c.equal(doc["file"], odd, "non-ASCII path: file member")

        # Damaged copies of the sample: a description or a clean error, never a crash.
        with open(args.sample, "rb") as f:
            original = f.read()
        rng = random.Random(20240611)
        mutants = [("truncated-half", original[: len(original) // 2])]
        mutants.append(("truncated-tail", original[:-200]))
        mutants.append(("no-xref", re.sub(rb"startxref\s+\d+", b"startxref\n0", original)))
        for n in range(24):
            data = bytearray(original)
            for _ in range(rng.randint(1, 40)):
                pos = rng.randrange(len(data))
                data[pos] = rng.randrange(256)
            mutants.append((f"mutant-{n}", bytes(data)))
        for name, data in mutants:
            p = write(name + ".pdf", data)
            doc = inspect(c, q, p, f"damaged sample {name}", allow_error=True)
            if doc is not None:
                check_shape(c, doc, p, f"damaged sample {name}", damaged=True)


def check_sample(c, args):
    path = args.sample
    doc = inspect(c, args.qfforms, path, "sample")
    if doc is None:
        return
    check_shape(c, doc, path, "sample")
    check_consistency(c, doc, "sample")
    c.equal(doc["pageCount"], 1, "sample: page count")
    page = doc["pages"][0]
    c.equal(page["mediaBox"], {"left": 0, "bottom": 0, "right": 612, "top": 792}, "sample: mediaBox")
    c.equal(page["rotation"], 0, "sample: rotation")
    c.equal(
        [a["field"] for a in page["annotations"]],
        ["text", "r1", "r1", "r1", "checkbox1", "checkbox2", "checkbox3", "r2", "r2", "r2",
         "text2", "combolist1", "list1", "drop1", "combodrop1"],
        "sample: fields of the page's widgets, in page order",
    )
    c.expect(all(a["flags"] == 4 for a in page["annotations"]), "sample: widgets carry the Print flag")
    # Names, types, flags, values, on-states, options and places of the fields: as pypdf reads.
    compare_with_pypdf(c, doc, path, "sample")


# The names of the permissions, each with its /P bit for revision 3 on and for revision 2
# (where some follow another bit).
PERMISSIONS = {
    "print": (3, 3), "printHigh": (12, 3), "copy": (5, 5), "accessibility": (10, 5),
    "assemble": (11, 4), "fillForm": (9, 6), "annotate": (6, 6), "modify": (4, 4),
}


def compare_encryption(c, doc, path, what):
    """Whether the file is encrypted, whether its empty password is the owner's, and its
    permissions, against pypdf and the /P bits as the revisions define them."""
    try:
        reader = read_pdf(path)
        owner = reader.is_encrypted and int(reader.decrypt("")) == 2
    except Exception:  # pypdf cannot read it: nothing to compare with
        return
    enc = doc["encryption"]
    if not c.equal(enc is not None, reader.is_encrypted, f"{what}: encrypted") or enc is None:
        return
    c.equal(enc["ownerPassword"], owner, f"{what}: opened with the owner password")
    encrypt = res(reader.trailer["/Encrypt"])
    p, r = int(encrypt["/P"]) & 0xFFFFFFFF, int(encrypt["/R"])
    want = [n for n, bits in PERMISSIONS.items() if p >> (bits[0 if r >= 3 else 1] - 1) & 1]
    c.equal(enc["permissions"], want, f"{what}: permissions of /P {int(encrypt['/P'])}, R {r}")
    c.equal(enc["formEditable"], owner or {"annotate", "modify"} <= set(want), f"{what}: form editable")


def check_corpus(c, args):
    files = sorted(f for f in os.listdir(args.corpus) if f.lower().endswith(".pdf"))
    c.expect(len(files) >= 40, f"corpus: only {len(files)} PDF files in {args.corpus}")
    for name in files:
        path = os.path.join(args.corpus, name)
        if name in MUST_FAIL:
            code, out, err = run_qfforms(args.qfforms, "inspect", path)
            c.expect(code >= 0, f"{name}: killed by signal {-code}")
            check_error_report(c, path, code, out, err, name)
            continue
        doc = inspect(c, args.qfforms, path, name, allow_error=name in MAY_FAIL)
        if doc is None:
            continue
        check_shape(c, doc, path, name)
        if name not in INCONSISTENT_TREES:
            check_consistency(c, doc, name)
        if name not in GEOMETRY_UNCOMPARABLE:
            compare_geometry(c, doc, path, name)
            compare_encryption(c, doc, path, name)


def check_pypdf(c, args):
    for name in PYPDF_MODEL_FILES:
        path = os.path.join(args.corpus, name)
        doc = inspect(c, args.qfforms, path, name)
        if doc is not None:
            compare_with_pypdf(c, doc, path, name)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--qfforms", required=True)
    parser.add_argument("--sample", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("check", choices=["cli", "sample", "corpus", "pypdf"])
    args = parser.parse_args()
    c = Checker()
    {"cli": check_cli, "sample": check_sample, "corpus": check_corpus, "pypdf": check_pypdf}[
        args.check
    ](c, args)
    return c.finish()


if __name__ == "__main__":
    sys.exit(main())
