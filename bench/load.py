#!/usr/bin/env python3
"""A long session through `qfforms run`: by default 100,000 steps on a new 200-page
document, made of cycles that draw a text field, select it, drag and nudge it, rename it,
duplicate it, delete the duplicate, undo and redo, renumber a page's tab order and finally
delete the field, so that the document itself stays small while the undo stack fills up
to its levels (the user setting "Editing/Undo levels", --levels) and then keeps dropping
its oldest commands.

Prints the resident memory of the process at each tenth of the session (read from
/proc while it runs, at marker steps that print a line) and checks the end: the session
runs to its last step, exactly --levels commands can then be undone and not one more,
and the file passes `qpdf --check`. With --check-growth it fails when memory grows in the
second half of the session by more than the given share.

    bench/load.py [--steps 100000] [--pages 200] [--levels 1000] [--check-growth 0.05]
"""

import argparse
import json
import os
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))


def cycle(k, pages, mark):
    """The steps of cycle k: every step but the last leaves the field on its page. With
    mark, a `get` of the field's name prints a line on the way."""
    page = k % pages
    x = 72 + (k * 37) % 300
    top = 720 - (k * 53) % 500
    inside = [x + 10, top - 10]
    moved = [x + 30, top - 20]
    steps = [
        {"tool": "TextFieldCreate"},
        {"click": {"page": page, "at": [x, top]}},
        {"select": {"page": page, "at": inside}},
        {"drag": {"page": page, "from": inside, "to": moved, "moves": 4}},
        {"key": {"code": 39}},
        {"set": {"property": "FieldName", "value": "Load%d" % k}},
        {"edit": "DuplicateCopy"},
        {"edit": "Delete"},
        {"undo": 2},
        {"redo": 2},
        {"command": {"name": "AutoTabOrderAnnot", "pages": [page]}},
        {"undo": 1},
        {"select": {"page": page, "at": [moved[0] + 10, moved[1]]}},
        {"edit": "Delete"},
    ]
    if mark:
        steps.insert(6, {"get": {"property": "FieldName"}})
    return steps


def script(steps, pages, marks):
    """At least `steps` steps; from each tenth on a `get` that prints a line."""
    out = [{"new": {"pages": pages}}]
    next_mark = steps // marks
    k = 0
    while len(out) < steps:
        mark = len(out) >= next_mark
        if mark:
            next_mark += steps // marks
        out += cycle(k, pages, mark)
        k += 1
    return out, k


def resident_mib(pid):
    try:
        with open("/proc/%d/status" % pid) as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1]) / 1024
    except OSError:
        pass
    return None


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--qfforms", default=os.path.join(HERE, "..", "build", "Tools",
                                                          "qfforms", "qfforms"))
    parser.add_argument("--steps", type=int, default=100000)
    parser.add_argument("--pages", type=int, default=200)
    parser.add_argument("--levels", type=int, default=1000)
    parser.add_argument("--check-growth", type=float, default=None,
                        help="fail when memory grows by more than this share from the "
                             "middle of the session to its end")
    args = parser.parse_args()

    marks = 10
    steps, cycles = script(args.steps, args.pages, marks)
    # The stack holds the levels: all of them undo, and then nothing is left.
    session = len(steps)
    steps += [{"undo": args.levels}, {"undo": 1}]
    with tempfile.TemporaryDirectory() as work:
        script_path = os.path.join(work, "load.json")
        settings_path = os.path.join(work, "settings.json")
        out_path = os.path.join(work, "load.pdf")
        with open(script_path, "w") as f:
            json.dump(steps, f)
        with open(settings_path, "w") as f:
            json.dump({"Editing": {"Undo levels": args.levels}}, f)

        start = time.monotonic()
        process = subprocess.Popen(
            [os.path.abspath(args.qfforms), "run", script_path, "--out", out_path,
             "--settings", settings_path, "--keep-going"],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        peak = [0.0]

        def watch():
            while process.poll() is None:
                rss = resident_mib(process.pid)
                if rss:
                    peak[0] = max(peak[0], rss)
                time.sleep(0.05)

        watcher = threading.Thread(target=watch)
        watcher.start()
        samples = []
        for _ in process.stdout:
            samples.append((time.monotonic() - start, resident_mib(process.pid)))
        stderr = process.stderr.read()
        process.wait()
        watcher.join()
        seconds = time.monotonic() - start
        expected = ("qfforms: step %d (undo): nothing left to undo after 0 of 1\n"
                    "qfforms: 1 of %d steps failed\n" % (len(steps) - 1, len(steps)))
        if process.returncode != 1 or stderr != expected:
            sys.exit("load: the session did not end as it should (exit %d):\n%s"
                     % (process.returncode, stderr))
        check = subprocess.run(["qpdf", "--check", out_path], capture_output=True, text=True)
        if check.returncode != 0:
            sys.exit("load: qpdf --check failed:\n" + check.stdout + check.stderr)

    print("| steps | cycles | pages | undo levels | seconds | peak MiB |")
    print("|---|---|---|---|---|---|")
    print("| %d | %d | %d | %d | %.1f | %.0f |" % (session, cycles, args.pages, args.levels,
                                                 seconds, peak[0]))
    print()
    print("Resident memory at each tenth of the session:")
    print("| share | seconds | MiB |")
    print("|---|---|---|")
    for i, (at, rss) in enumerate(samples):
        print("| %d%% | %.1f | %s |" % ((i + 1) * 100 // marks, at,
                                       "%.0f" % rss if rss else "?"))
    if args.check_growth is not None and len(samples) >= 4:
        middle, last = samples[len(samples) // 2 - 1][1], samples[-1][1]
        if middle and last and last > middle * (1 + args.check_growth):
            sys.exit("load: memory grew from %.0f to %.0f MiB in the second half"
                     % (middle, last))
    return 0


if __name__ == "__main__":
    sys.exit(main())
