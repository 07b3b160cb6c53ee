#!/usr/bin/python3
"""Tests of the tab order through `qfforms run` and `qfforms render`, read back with pypdf.

    tab_order_sessions.py --qfforms BIN --corpus DIR CHECK

CHECK is one of:
  auto      automatic order by rows and by columns on real forms (pages with /Tabs R, C,
            S and W, links among the widgets, a rectangle stored right to left): the
            order pypdf lists equals the exact lower-left comparison, other annotations
            follow in their order, /Tabs follows /Annots; undo gives the file's order back
  move      moving annotations and one annotation by position, undone and redone
  tool      clicking widgets with the tab-order tool: the saved order and the numbers
            drawn in renders, by `run` and by `render --tool`
  failures  wrong tab-order steps fail with a clear message and write nothing

Run with Debian's /usr/bin/python3 (python3-pypdf). Exit status 0 when every check passed.
"""

import argparse
import os
import re
import struct
import sys
import tempfile

from pypdf import PdfReader, PdfWriter
from pypdf.generic import ArrayObject, FloatObject, NameObject

from run_sessions import check, failures, field_of, full_name, report, resolved, run, run_script


def f32(value):
    """value as the 32-bit float that pdfcore compares."""
    return struct.unpack("f", struct.pack("f", float(value)))[0]


def annots_of(path):
    """Every page's annotations in /Annots order: subtype, raw rectangle, field name."""
    pages = []
    for page in PdfReader(path).pages:
        annots = []
        for ref in resolved(page.get("/Annots", [])) or []:
            a = resolved(ref)
            subtype = str(a.get("/Subtype"))
            annots.append({
                "subtype": subtype,
                "rect": [float(v) for v in resolved(a["/Rect"])],
                "field": full_name(field_of(a)) if subtype == "/Widget" else None,
            })
        pages.append({"tabs": str(page.get("/Tabs")) if page.get("/Tabs") else None,
                      "annots": annots})
    return pages


def corner(annot):
    r = annot["rect"]
    return (f32(min(r[0], r[2])), f32(min(r[1], r[3])))


def expected_order(annots, columns):
    """Widgets sorted by their lower-left corners, then the others in their order. Widgets
    with the same corner may come in either order: compare corners, not identities."""
    widgets = [a for a in annots if a["subtype"] == "/Widget"]
    if columns:
        key = lambda a: (corner(a)[0], -corner(a)[1])
    else:
        key = lambda a: (-corner(a)[1], corner(a)[0])
    return sorted(widgets, key=key) + [a for a in annots if a["subtype"] != "/Widget"]


def signature(annots):
    """What identifies an order up to widgets of the same corner."""
    return [(a["subtype"], corner(a)) if a["subtype"] == "/Widget" else
            (a["subtype"], tuple(a["rect"]), a["field"]) for a in annots]


def crafted_forms(args, folder):
    """Inputs made from corpus files: links before the widgets of the malformed button page,
    and a widget of the field-types form whose /Rect runs right to left."""
    made = []
    links_first = os.path.join(folder, "links-first.pdf")
    writer = PdfWriter()
    writer.clone_reader_document_root(
        PdfReader(os.path.join(args.corpus, "pdfium-malformed-acroform-array-uri-button.pdf")))
    page = writer.pages[0]
    annots = list(page["/Annots"])
    links = [a for a in annots if a.get_object()["/Subtype"] == "/Link"]
    page[NameObject("/Annots")] = ArrayObject(links + [a for a in annots if a not in links])
    writer.write(links_first)
    made.append(links_first)

    reversed_rect = os.path.join(folder, "reversed-rect.pdf")
    writer = PdfWriter()
    writer.clone_reader_document_root(PdfReader(os.path.join(args.corpus, "qpdf-field-types.pdf")))
    page = writer.pages[0]
    widget = page["/Annots"][3].get_object()
    x0, y0, x1, y1 = [float(v) for v in widget["/Rect"]]
    widget[NameObject("/Rect")] = ArrayObject([FloatObject(v) for v in (x1, y0, x0, y1)])
    writer.write(reversed_rect)
    made.append(reversed_rect)
    return made


# ---- auto -----------------------------------------------------------------------------------


def check_auto(args, folder):
    forms = [os.path.join(args.corpus, name) for name in (
        "pdfium-tab-order-annotiter.pdf", "pdfjs-irs-f1040-prefilled.pdf",
        "qpdf-field-types.pdf", "pypdf-libreoffice-form.pdf")] + crafted_forms(args, folder)
    for form in forms:
        name = os.path.basename(form)
        before = annots_of(form)
        for order in ("rows", "columns"):
            out = os.path.join(folder, "%s-%s.pdf" % (name, order))
            undone = os.path.join(folder, "%s-%s-undone.pdf" % (name, order))
            r = run_script(args, folder, "auto.json", [
                {"command": {"name": "AutoTabOrderAnnot", "order": order}},
                {"save": out}, {"undo": 1}, {"save": undone}], "--in", form)
            if not check(r.returncode == 0, "%s %s: %s" % (name, order, r.stderr.strip())):
                continue
            after = annots_of(out)
            for p, (old, new) in enumerate(zip(before, after)):
                where = "%s %s page %d" % (name, order, p)
                check(signature(new["annots"]) ==
                      signature(expected_order(old["annots"], order == "columns")),
                      where + ": /Annots not in the expected order")
                has_widgets = any(a["subtype"] == "/Widget" for a in old["annots"])
                tabs = "/W" if has_widgets and old["tabs"] in ("/R", "/C", "/S") else old["tabs"]
                check(new["tabs"] == tabs, "%s: /Tabs %s, not %s" % (where, new["tabs"], tabs))
            check(annots_of(undone) == before, "%s %s: undo does not give the order back"
                  % (name, order))
            check(run(["qpdf", "--check", out]).returncode in (0, 3), name + ": qpdf --check")

    # The crafted links-first page: the two widgets come before the four links.
    links = annots_of(os.path.join(folder, "links-first.pdf-rows.pdf"))[0]["annots"]
    check([a["subtype"] for a in links] == ["/Widget"] * 2 + ["/Link"] * 4,
          "links-first: widgets do not precede the links: %s" % links)


# ---- move -----------------------------------------------------------------------------------


def check_move(args, folder):
    form = os.path.join(args.corpus, "qpdf-field-types.pdf")
    before = annots_of(form)[0]["annots"]
    outs = {k: os.path.join(folder, k + ".pdf") for k in
            ("a", "b", "start", "one", "undone", "redone")}
    r = run_script(args, folder, "move.json", [
        {"command": {"name": "MoveAnnotsFocusOrder", "page": 0, "positions": [5, 6],
                     "target": 2}}, {"save": outs["a"]}, {"undo": 1},
        {"command": {"name": "MoveAnnotsFocusOrder", "page": 0, "positions": [1, 2],
                     "target": 5}}, {"save": outs["b"]},
        {"command": {"name": "MoveAnnotsFocusOrder", "page": 0, "positions": [9],
                     "target": "start"}}, {"save": outs["start"]},
        {"command": {"name": "TabOrderAnnot", "page": 0, "from": 0, "to": 7}},
        {"save": outs["one"]},
        {"undo": 3}, {"save": outs["undone"]}, {"redo": 3}, {"save": outs["redone"]}],
        "--in", form)
    if not check(r.returncode == 0, "move: " + r.stderr.strip()):
        return
    ids = list(range(len(before)))

    def moved(order, positions, target):
        rest = [i for k, i in enumerate(order) if k not in positions]
        at = target - sum(1 for p in positions if p < target)
        return rest[:at] + [order[p] for p in positions] + rest[at:]

    def read(path):
        annots = annots_of(path)[0]["annots"]
        return [before.index(a) for a in annots]

    a = moved(ids, [5, 6], 2)
    check(read(outs["a"]) == a and a[2:4] == [5, 6], "move {5, 6} to 2: %s" % read(outs["a"]))
    b = moved(ids, [1, 2], 5)
    check(read(outs["b"]) == b and b[3:5] == [1, 2], "move {1, 2} to 5: %s" % read(outs["b"]))
    start = moved(b, [9], 0)
    check(read(outs["start"]) == start, "move {9} to the start: %s" % read(outs["start"]))
    one = start[1:8] + [start[0]] + start[8:]
    check(read(outs["one"]) == one, "one annotation 0 to 7: %s" % read(outs["one"]))
    check(read(outs["undone"]) == ids, "undo 3: %s" % read(outs["undone"]))
    check(read(outs["redone"]) == one, "redo 3: %s" % read(outs["redone"]))


# ---- tool -----------------------------------------------------------------------------------


def numbers(svg_path):
    """The numbers of the tool's marks: text and position in page pixels."""
    with open(svg_path, encoding="utf-8") as f:
        svg = f.read()
    marks = re.search(r'<g id="marks">(.*?)</g>', svg, re.S)
    if not marks:
        return []
    return [(t, round(float(x)), round(float(y))) for x, y, t in re.findall(
        r'<text class="text" x="([^"]+)" y="([^"]+)" font-family="Arial" font-size="12" '
        r'fill="rgb\(0,0,0\)"[^>]*>([^<]*)</text>', marks.group(1))]


def check_tool(args, folder):
    out = os.path.join(folder, "cab.pdf")
    svg = os.path.join(folder, "cab.svg")
    r = run_script(args, folder, "tool.json", [
        {"new": {"pages": 1}},
        {"tool": "TextFieldCreate"},
        {"drag": {"page": 0, "from": [72, 720], "to": [200, 700]}},   # Text1: A
        {"drag": {"page": 0, "from": [300, 720], "to": [420, 700]}},  # Text2: B
        {"drag": {"page": 0, "from": [72, 600], "to": [200, 580]}},   # Text3: C
        {"tool": "FormTabOrder"},
        {"click": {"page": 0, "at": [100, 590]}},
        {"click": {"page": 0, "at": [100, 710]}},
        {"click": {"page": 0, "at": [350, 710]}},
        {"render": {"page": 0, "out": svg}},
        {"save": out},
        # Pressed on A, released over B: nothing happens.
        {"drag": {"page": 0, "from": [100, 710], "to": [350, 710]}},
        {"undo": 3}, {"save": os.path.join(folder, "undone.pdf")}], "--out",
        os.path.join(folder, "last.pdf"))
    if not check(r.returncode == 0, "tool: " + r.stderr.strip()):
        return
    names = lambda path: [a["field"] for a in annots_of(path)[0]["annots"]]
    check(names(out) == ["Text3", "Text1", "Text2"], "tool: order %s" % names(out))
    check(names(os.path.join(folder, "undone.pdf")) == ["Text1", "Text2", "Text3"],
          "tool: undo 3 gives %s" % names(os.path.join(folder, "undone.pdf")))
    # 1 on C, 2 on A, 3 on B, each at its widget's lower-left corner (792 - bottom).
    expected = [("1", 72, 212), ("2", 72, 92), ("3", 300, 92)]
    check(numbers(svg) == expected, "tool: numbers %s" % numbers(svg))

    again = os.path.join(folder, "again.svg")
    r = run([args.qfforms, "render", out, "--page", "0", "--out", again, "--tool",
             "FormTabOrder"])
    check(r.returncode == 0 and numbers(again) == expected,
          "render --tool: %s %s" % (r.stderr.strip(), numbers(again) if r.returncode == 0 else ""))
    plain = os.path.join(folder, "plain.svg")
    r = run([args.qfforms, "render", out, "--page", "0", "--out", plain])
    check(r.returncode == 0 and numbers(plain) == [], "render without a tool shows no numbers")

    # A link before two widgets: the numbers 1 and 2 stand on the widgets.
    links = crafted_forms(args, folder)[0]
    svg = os.path.join(folder, "links.svg")
    r = run([args.qfforms, "render", links, "--page", "0", "--out", svg, "--tool",
             "FormTabOrder"])
    check(r.returncode == 0 and [n[0] for n in numbers(svg)] == ["1", "2"],
          "links first: numbers %s" % (numbers(svg) if r.returncode == 0 else r.stderr))


# ---- failures -------------------------------------------------------------------------------


def check_failures(args, folder):
    form = os.path.join(args.corpus, "qpdf-field-types.pdf")
    out = os.path.join(folder, "never.pdf")
    cases = [
        ({"name": "TabOrderAnnot", "page": 0, "from": 99, "to": 0},
         "from: position 99 is past the last annotation"),
        ({"name": "MoveAnnotsFocusOrder", "page": 0, "positions": [1], "target": 999},
         "target 999 is past the end"),
        ({"name": "MoveAnnotsFocusOrder", "page": 0, "positions": [1], "target": "end"},
         "target must be a position or \"start\""),
        ({"name": "AutoTabOrderAnnot", "pages": [0, 0]}, "page 0 is listed twice"),
        ({"name": "AutoTabOrderAnnot", "pages": [3]}, "page 3 is past the last page"),
        ({"name": "AutoTabOrderAnnot", "order": "diagonal"},
         "order must be \"rows\" or \"columns\""),
        ({"name": "TabOrderAnnot", "page": 0, "from": 1, "to": 0, "extra": 1}, "extra"),
    ]
    for command, message in cases:
        r = run_script(args, folder, "bad.json", [{"command": command}], "--in", form,
                       "--out", out)
        check(r.returncode == 1 and message in r.stderr and "\n" not in r.stderr.strip(),
              "%s: status %d, %r" % (command, r.returncode, r.stderr))
        check(not os.path.exists(out), "%s: wrote an output" % command)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--qfforms", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("check", choices=["auto", "move", "tool", "failures"])
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        os.environ["XDG_CONFIG_HOME"] = os.path.join(folder, "config")
        {"auto": check_auto, "move": check_move, "tool": check_tool,
         "failures": check_failures}[args.check](args, folder)
    return report(args.check)


if __name__ == "__main__":
    sys.exit(main())
