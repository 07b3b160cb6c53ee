#!/usr/bin/python3
"""Several widgets laid out at once through `qfforms run`: arrange, move, group copy and
paste, place multiple.

    layout_sessions.py --qfforms BIN

On a page the document turns by 90 degrees, "left" and "width" as the page is shown are
the page's bottom and height: aligned, spaced and sized widgets are checked there with
pypdf; a group paste keeps its layout and goes as one undo step; placed copies count on
from the widget's name, skipping names in use; steps that cannot be done stop the run
with their reason and write nothing.

Run with Debian's /usr/bin/python3 (python3-pypdf). Exit status 0 when every check passed.
"""

import argparse
import os
import sys
import tempfile

from pypdf import PdfReader

from run_sessions import check, failures, field_of, run_script


def rects(path, page=0):
    """The page's widgets as (name, [x0, y0, x1, y1]) in /Annots order."""
    out = []
    for ref in PdfReader(path).pages[page].get("/Annots", []):
        w = ref.get_object()
        r = [float(v) for v in w["/Rect"]]
        out.append((str(field_of(w)["/T"]),
                    [min(r[0], r[2]), min(r[1], r[3]), max(r[0], r[2]), max(r[1], r[3])]))
    return out


def draw(page, boxes):
    """Steps drawing text fields at boxes ([x0, y0, x1, y1], points) on page."""
    steps = []
    for x0, y0, x1, y1 in boxes:
        steps += [{"tool": "TextFieldCreate"},
                  {"drag": {"page": page, "from": [x0, y1], "to": [x1, y0]}}]
    return steps


def select_all(page, boxes):
    return [{"select": {"page": page, "at": [(b[0] + b[2]) / 2, (b[1] + b[3]) / 2],
                        **({"add": True} if k else {})}} for k, b in enumerate(boxes)]


def run(args, folder, name, steps):
    result = run_script(args, folder, name + ".json", steps)
    check(result.returncode == 0, "%s: exit %d: %s" % (name, result.returncode, result.stderr))
    return result


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--qfforms", required=True)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        out = lambda name: os.path.join(folder, name)
        # Page 1 is turned by 90 degrees: its bottom edge is on the left of the screen.
        boxes = [[200, 100, 230, 130], [300, 300, 320, 360], [400, 150, 440, 170]]
        start = [{"new": {"pages": 2, "size": [612, 792], "rotate": [0, 90]}}] + \
            draw(1, boxes) + select_all(1, boxes)
        steps = start + [
            {"arrange": "alignLeft"}, {"save": "left.pdf"}, {"undo": 1},
            {"arrange": "sameWidth"}, {"save": "width.pdf"}, {"undo": 1},
            {"arrange": "distributeAcross"}, {"save": "across.pdf"}, {"undo": 1},
            {"move": {"by": [5, 7]}}, {"save": "moved.pdf"}, {"undo": 1},
            {"save": "undone.pdf"},
        ]
        run(args, folder, "turned", steps)
        left = [r for _, r in rects(out("left.pdf"), 1)]
        check([r[1] for r in left] == [100, 100, 100], "left edges on screen: %s" % left)
        check([r[0] for r in left] == [200, 300, 400], "nothing moves the other way: %s" % left)
        width = [r for _, r in rects(out("width.pdf"), 1)]
        check([(r[1], r[3] - r[1]) for r in width] == [(100, 30), (300, 30), (150, 30)],
              "the same width on screen is the same height on the page: %s" % width)
        across = [r for _, r in rects(out("across.pdf"), 1)]
        # Across the screen (the page's y): the first (100..130) and the second (300..360)
        # stay; the third (20 long) goes between them with gaps of 75.
        check([(r[1], r[3]) for r in across] == [(100, 130), (300, 360), (205, 225)],
              "equal gaps across the screen, the outer ones kept: %s" % across)
        moved = [r for _, r in rects(out("moved.pdf"), 1)]
        # 5 right on the screen is 5 up the page's y; 7 down is 7 along its x.
        check(moved == [[b[0] + 7, b[1] + 5, b[2] + 7, b[3] + 5] for b in boxes],
              "moved by right and down as the page is shown: %s" % moved)
        check([r for _, r in rects(out("undone.pdf"), 1)] == boxes, "each one undo step")

        # A group copied and pasted onto its own page keeps its layout, 10 right and 10
        # down, as one undo step; a paste onto another page lands where they were.
        flat = [[100, 600, 200, 620], [100, 560, 180, 580]]
        steps = [{"new": {}}] + draw(0, flat) + select_all(0, flat) + [
            {"edit": "Copy"}, {"paste": {"page": 0}}, {"save": "pasted.pdf"}, {"undo": 1},
            {"save": "unpasted.pdf"}]
        run(args, folder, "paste", steps)
        pasted = rects(out("pasted.pdf"))
        check([r for _, r in pasted[2:]] == [[b[0] + 10, b[1] - 10, b[2] + 10, b[3] - 10]
                                             for b in flat],
              "the pasted group keeps its layout: %s" % pasted)
        check([n for n, _ in pasted] == ["Text1", "Text2", "Text1_2", "Text2_2"],
              "pasted as fields of their own: %s" % pasted)
        check(len(rects(out("unpasted.pdf"))) == 2, "one undo takes the whole paste")

        # Place multiple counts on from the name's number (keeping its zeros), past names
        # in use.
        steps = [{"new": {}}] + draw(0, [[50, 700, 150, 720], [300, 300, 320, 320]]) + [
            {"select": {"page": 0, "at": [310, 310]}},
            {"set": {"property": "FieldName", "value": "Row11"}},
            {"select": {"page": 0, "at": [100, 710]}},
            {"set": {"property": "FieldName", "value": "Row09"}},
            {"placeMultiple": {"rows": 2, "columns": 2, "gap": [10, 6]}},
            {"save": "table.pdf"}]
        run(args, folder, "table", steps)
        table = dict(rects(out("table.pdf")))
        check(table == {"Row09": [50, 700, 150, 720], "Row11": [300, 300, 320, 320],
                        "Row10": [160, 700, 260, 720], "Row12": [50, 674, 150, 694],
                        "Row13": [160, 674, 260, 694]}, "the table: %s" % table)

        # Refusals: each stops the run with its reason and leaves nothing written.
        refusals = [
            ([{"select": {"page": 0, "at": [100, 710]}}, {"arrange": "alignTop"}],
             "select at least 2 widgets"),
            (select_all(0, [[50, 700, 150, 720], [300, 300, 320, 320]]) +
             [{"arrange": "distributeDown"}], "select at least 3 widgets"),
            ([{"select": {"page": 0, "at": [100, 710]}},
              {"placeMultiple": {"rows": 40, "columns": 1}}], "reach past the page"),
            ([{"select": {"page": 0, "at": [100, 710]}},
              {"placeMultiple": {"rows": 40, "columns": 40}}], "at most 1000 copies"),
            ([{"select": {"page": 0, "at": [100, 710]}}, {"arrange": "alignSideways"}],
             "unknown arrangement"),
        ]
        for k, (tail, reason) in enumerate(refusals):
            steps = [{"new": {}}] + draw(0, [[50, 700, 150, 720], [300, 300, 320, 320]]) + \
                tail + [{"save": "refused%d.pdf" % k}]
            result = run_script(args, folder, "refused%d.json" % k, steps)
            check(result.returncode == 1 and reason in result.stderr,
                  "refusal %d: exit %d: %s" % (k, result.returncode, result.stderr))
            check(not os.path.exists(out("refused%d.pdf" % k)), "refusal %d wrote" % k)
    for f in failures:
        print("FAIL:", f)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
