#!/usr/bin/python3
"""W1, authoring: a new document of P US Letter pages with F fields, drawn through the
module's creation tools by `qfforms run` (the real event path; every widget an "AddWidget"
on the undo stack), and saved. Then the floor: a plain `qpdf in.pdf out.pdf` of the same
file. Each output is checked (qpdf --check, pypdf's count of fields by type) so that no
run wins by doing less.

    bench/w1_author.py [--qfforms build/Tools/qfforms/qfforms] [--runs 5]
                       [--size 20:1000] [--size 100:10000]

Fields go round-robin over the pages on a grid, cycling through text, check box, radio
button, combo box, list box, push button and signature; each tool is activated once and
draws all of its fields. Prints, per size, the median wall time and the peak memory of
the whole process over the runs.
"""

import argparse
import collections
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

from pypdf import PdfReader

KINDS = ["TextFieldCreate", "CheckBoxCreate", "RadioGroupCreate", "ComboBoxCreate",
         "ListBoxCreate", "PushButtonCreate", "DigitalSignatureFieldCreate"]
TYPES = {"TextFieldCreate": "/Tx", "CheckBoxCreate": "/Btn", "RadioGroupCreate": "/Btn",
         "ComboBoxCreate": "/Ch", "ListBoxCreate": "/Ch", "PushButtonCreate": "/Btn",
         "DigitalSignatureFieldCreate": "/Sig"}
COLUMNS, ROWS = 10, 34  # a grid of 58 x 22 point cells from the top left of the page


def script(pages, fields):
    if fields > pages * COLUMNS * ROWS:
        sys.exit("w1: %d fields do not fit on %d pages" % (fields, pages))
    steps = [{"new": {"pages": pages}}]
    for k, kind in enumerate(KINDS):
        steps.append({"tool": kind})
        for i in range(k, fields, len(KINDS)):
            slot = i // pages
            x = 20 + (slot % COLUMNS) * 58
            y = 770 - (slot // COLUMNS) * 22
            steps.append({"drag": {"page": i % pages, "from": [x, y], "to": [x + 50, y - 16]}})
    return steps


def expected_types(fields):
    return collections.Counter(TYPES[KINDS[i % len(KINDS)]] for i in range(fields))


def timed(command):
    """Wall seconds and peak resident KiB of command, as GNU time reports them."""
    start = time.perf_counter()
    done = subprocess.run(["/usr/bin/time", "-f", "%M", *command], capture_output=True,
                          text=True)
    seconds = time.perf_counter() - start
    if done.returncode not in (0, 3):  # qpdf answers 3 for warnings
        sys.exit("w1: %s failed: %s" % (command[0], done.stderr.strip()))
    return seconds, int(done.stderr.strip().splitlines()[-1])


def verify(path, fields):
    check = subprocess.run(["qpdf", "--check", path], capture_output=True, text=True)
    if check.returncode not in (0, 3):
        sys.exit("w1: qpdf --check %s: %s" % (path, check.stdout[-500:]))
    found = collections.Counter(str(f.get("/FT")) for f in PdfReader(path).get_fields().values())
    if found != expected_types(fields):
        sys.exit("w1: %s holds %s, not %s" % (path, dict(found), dict(expected_types(fields))))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--qfforms", default="build/Tools/qfforms/qfforms")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--size", action="append", help="PAGES:FIELDS")
    args = parser.parse_args()
    sizes = [tuple(map(int, s.split(":"))) for s in (args.size or ["20:1000", "100:10000"])]
    print("| workload | pages | fields | ours (median s) | ours peak MiB | floor: qpdf (median s) |")
    print("|---|---|---|---|---|---|")
    with tempfile.TemporaryDirectory() as folder:
        for pages, fields in sizes:
            steps = os.path.join(folder, "w1-%d.json" % fields)
            with open(steps, "w") as f:
                json.dump(script(pages, fields), f)
            out = os.path.join(folder, "w1-%d.pdf" % fields)
            ours, floor, peak = [], [], 0
            for _ in range(args.runs):
                seconds, kib = timed([args.qfforms, "run", steps, "--out", out])
                ours.append(seconds)
                peak = max(peak, kib)
                verify(out, fields)
                seconds, _ = timed(["qpdf", out, os.path.join(folder, "floor.pdf")])
                floor.append(seconds)
            print("| W1 author | %d | %d | %.2f | %.0f | %.2f |" % (
                pages, fields, statistics.median(ours), peak / 1024, statistics.median(floor)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
