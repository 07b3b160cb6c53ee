#!/usr/bin/python3
"""Runs the whole-process workloads of bench/workloads.py with qfforms, the floor and the
peers, checks every output, and prints one table (Markdown).

    bench/compare.py [--runs 3] [--size 20:1000] [--size 100:10000] [--peers pdflib,pymupdf]

Ours runs through `qfforms run` with generated scripts: the creation tools' drags and
clicks for W1 (each tool activated once; combo and list options set on the selected
widget's sheet, radio groups made with "GroupRadioButtons"), a "Widget_Rename" command per
field for W2, and for W3 a burst of edits on one page of 2,000 widgets. The peers run the
scripts of /work/shared/peers (--peers-dir), each written the fastest correct way its
library allows: W1 on their own layout of the same fields, W2 on our W1 output, so that
every program renames the same file, each name getting the suffix "_x". Times are whole
process wall seconds, medians over the runs; memory is the largest peak resident size.
"""

import argparse
import json
import os
import signal
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import workloads  # noqa: E402

from pypdf import PdfReader  # noqa: E402

TOOLS = {"text": "TextFieldCreate", "checkbox": "CheckBoxCreate", "radio": "CheckBoxCreate",
         "combo": "ComboBoxCreate", "list": "ListBoxCreate", "button": "PrintButtonCreate",
         "signature": "DigitalSignatureFieldCreate"}
PAIRS = [[o, o] for o in workloads.OPTIONS]


def center(rect):
    return [(rect[0] + rect[2]) / 2, (rect[1] + rect[3]) / 2]


def press(page, rect):
    """A click for the kinds whose default box is the rect, else a drag over the rect."""
    if rect[2] - rect[0] == 14:
        return {"click": {"page": page, "at": [rect[0], rect[3]]}}
    return {"drag": {"page": page, "from": [rect[0], rect[3]], "to": [rect[2], rect[1]]}}


def w1_script(pages, fields):
    placed = list(workloads.layout(pages, fields))
    steps = [{"new": {"pages": pages, "size": list(workloads.PAGE)}}]
    kinds = ["text", "checkbox", "radio", "combo", "list", "button", "signature"]
    check_boxes = 0
    for kind in kinds:
        if kind != "radio":  # radio buttons are drawn with the check boxes' tool
            steps.append({"tool": TOOLS[kind]})
        mine = [(page, rects) for k, page, rects in placed if k == kind]
        for page, rects in mine:
            steps.extend(press(page, r) for r in rects)
        if kind == "checkbox":
            check_boxes = len(mine)
        if kind == "radio":
            for g in range(len(mine)):
                first = check_boxes + 3 * g + 1
                steps.append({"command": {"name": "GroupRadioButtons", "widgets": [
                    {"field": "CheckBox%d" % n} for n in range(first, first + 3)]}})
        if kind in ("combo", "list"):
            for page, rects in mine:
                steps.append({"select": {"page": page, "at": center(rects[0])}})
                steps.append({"set": {"property": "ComboOptList", "value": PAIRS}})
    return steps


def w2_script(fields):
    """A rename of every widget: the first makes the field of the new name, the others
    join it, and the emptied field of the old name goes."""
    return [{"command": {"name": "Widget_Rename", "widget": {"field": n},
                         "newName": n + workloads.RENAME_SUFFIX}}
            for n, widgets in fields.items() for _ in range(widgets)]


W3_SIZE = [1224, 1584]  # a page twice US Letter each way: 40 x 50 cells of 30 x 31
W3_WIDGETS, W3_COLUMNS = 2000, 40


def w3_cells():
    for i in range(W3_WIDGETS):
        x = 12 + (i % W3_COLUMNS) * 30
        top = 1570 - (i // W3_COLUMNS) * 31
        yield [x, top - 14, x + 26, top]


def w3_input_script():
    return [{"new": {"pages": 1, "size": W3_SIZE}}, {"tool": "TextFieldCreate"}] + [
        press(0, r) for r in w3_cells()]


def w3_script():
    """Hit searches, drags of the selection, automatic tab order, 1,000 copies pasted,
    and every command undone. Returns the steps and the number of commands undone."""
    cells = list(w3_cells())
    steps = []
    for k in range(1000):  # hit search under the pointer, all over the page
        steps.append({"select": {"page": 0, "at": center(cells[(k * 7919) % len(cells)])}})
    commands = 0
    for k in range(100):  # 100 drags of 20 pointer moves each
        c = center(cells[(k * 104729) % len(cells)])
        steps.append({"select": {"page": 0, "at": c}})
        steps.append({"drag": {"page": 0, "from": c, "to": [c[0] + 9, c[1] - 7], "moves": 20}})
        commands += 1
    steps.append({"command": {"name": "AutoTabOrderAnnot", "pages": [0]}})
    commands += 1
    for k in range(1000):
        c = center(cells[(k * 1301) % len(cells)])
        steps.append({"select": {"page": 0, "at": c}})
        steps.append({"edit": "Copy"})
        steps.append({"paste": {"page": 0}})
        commands += 1
    steps.append({"undo": commands})
    return steps, commands


def layout_of(path):
    """What W3's undo must give back: each field's widgets' rects, and the /Annots order."""
    reader = PdfReader(path)
    page = reader.pages[0]
    order = []
    for a in page.get("/Annots", []):
        a = a.get_object()
        parent = a.get("/Parent")
        name = (parent.get_object() if parent is not None else a).get("/T")
        order.append((str(name), [round(float(v), 2) for v in a["/Rect"]]))
    return order


class Capped(Exception):
    """A run stopped after the cap: it would have taken longer."""


def timed(command, env=None, cap=None):
    """Wall seconds and peak resident MiB of a whole process; Capped after cap seconds."""
    start = time.perf_counter()
    with subprocess.Popen(["/usr/bin/time", "-f", "%M", *command], stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, text=True, env=env,
                          start_new_session=True) as process:
        try:
            _, stderr = process.communicate(timeout=cap)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.communicate()
            raise Capped()
    seconds = time.perf_counter() - start
    if process.returncode not in (0, 3):  # qpdf answers 3 for warnings
        raise RuntimeError("%s failed: %s" % (" ".join(command), stderr.strip()[-800:]))
    return seconds, int(stderr.strip().splitlines()[-1]) / 1024


class Measure:
    """Median seconds and largest peak MiB over runs, or the cap a run went past."""

    def __init__(self):
        self.seconds, self.mib, self.capped = [], 0.0, None

    def add(self, seconds, mib):
        self.seconds.append(seconds)
        self.mib = max(self.mib, mib)

    def run(self, command, env=None, cap=None):
        """Times command; False when it went past the cap."""
        try:
            self.add(*timed(command, env, cap))
            return True
        except Capped:
            self.capped = cap
            return False

    @property
    def median(self):
        return statistics.median(self.seconds) if self.seconds else None


def write_json(path, value):
    with open(path, "w") as f:
        json.dump(value, f)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--qfforms", default=os.path.join(HERE, "..", "build", "Tools",
                                                          "qfforms", "qfforms"))
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--size", action="append", help="PAGES:FIELDS")
    parser.add_argument("--peers", default="pdflib,pymupdf")
    parser.add_argument("--peers-dir", default="/work/shared/peers",
                        help="the peers' scripts (w1_pymupdf.py, w2_pdflib.js, check.py...)")
    parser.add_argument("--peer-cap", type=float, default=180,
                        help="seconds after which a peer's run is stopped")
    parser.add_argument("--no-w3", action="store_true")
    args = parser.parse_args()
    sizes = [tuple(map(int, s.split(":"))) for s in (args.size or ["20:1000", "100:10000"])]
    peers = [p for p in args.peers.split(",") if p]
    shared = os.path.abspath(args.peers_dir)
    # pdf-lib as bench/peers/package-lock.json pins it (bench/run installs it), so that the
    # shared folder is only read.
    peer_env = dict(os.environ, NODE_PATH=os.path.join(HERE, "peers", "node_modules"))
    peer_command = {
        "pdflib": lambda w: ["node", os.path.join(shared, w + "_pdflib.js")],
        "pymupdf": lambda w: ["/usr/bin/python3", os.path.join(shared, w + "_pymupdf.py")]}
    peer_skip = {"pdflib": ("signature",), "pymupdf": ()}
    qf = [os.path.abspath(args.qfforms), "run"]
    rows = []

    with tempfile.TemporaryDirectory() as folder:
        env = dict(os.environ, QF_CLIPBOARD=os.path.join(folder, "clipboard.json"))

        def path(name):
            return os.path.join(folder, name)

        for pages, fields in sizes:
            tag = "%d-%d" % (pages, fields)
            write_json(path("w1-%s.json" % tag), w1_script(pages, fields))
            results = {w: {who: Measure() for who in ["ours", "floor"] + peers}
                       for w in ("W1", "W2")}
            # W2 again, its changes appended to W1's file (--incremental) rather than the
            # file written whole as by default; beside the same peers' runs.
            appended = {"ours": Measure(), "floor": Measure()}
            out = path("w1-%s.pdf" % tag)
            renamed = path("w2-%s.pdf" % tag)
            renamed_appended = path("w2u-%s.pdf" % tag)
            for _ in range(args.runs):
                results["W1"]["ours"].run(qf + [path("w1-%s.json" % tag), "--out", out], env)
                names = workloads.verify_w1(out, fields)
                results["W1"]["floor"].run(["qpdf", out, path("floor.pdf")])
                write_json(path("w2-%s.json" % tag), w2_script(names))
                results["W2"]["ours"].run(
                    qf + [path("w2-%s.json" % tag), "--in", out, "--out", renamed], env)
                workloads.verify_w2(renamed, fields, names)
                results["W2"]["floor"].run(["qpdf", renamed, path("floor.pdf")])
                appended["ours"].run(qf + [path("w2-%s.json" % tag), "--in", out, "--out",
                                           renamed_appended, "--incremental"], env)
                workloads.verify_w2(renamed_appended, fields, names)
                with open(out, "rb") as before, open(renamed_appended, "rb") as after:
                    if not after.read().startswith(before.read()):
                        raise AssertionError("W2 appended: W1's bytes are not kept in front")
                appended["floor"].run(["qpdf", renamed_appended, path("floor.pdf")])
            # The peers: W1 of their own, checked by the shared check.py; W2 on our W1
            # output. A run stopped at the cap ends that peer's runs of the workload.
            for peer in peers:
                skip = peer_skip[peer]
                theirs = path("%s-w1-%s.pdf" % (peer, tag))
                for _ in range(args.runs):
                    command = peer_command[peer]("w1") + [str(pages), str(fields), theirs]
                    if not results["W1"][peer].run(command, peer_env, args.peer_cap):
                        break
                    subprocess.run(["/usr/bin/python3", os.path.join(shared, "check.py"),
                                    theirs, str(fields)] +
                                   (["--skip"] + [k.capitalize() for k in skip] if skip else []),
                                   check=True, stdout=subprocess.DEVNULL)
                for _ in range(args.runs):
                    command = peer_command[peer]("w2") + [out, path("%s-w2.pdf" % peer)]
                    if not results["W2"][peer].run(command, peer_env, args.peer_cap):
                        break
                    workloads.verify_w2(path("%s-w2.pdf" % peer), fields, names)
            for w in ("W1", "W2"):
                rows.append((w, pages, fields, results[w]))
            rows.append(("W2 appended", pages, fields,
                         dict(results["W2"], **appended)))

        if not args.no_w3:
            source = path("w3-in.pdf")
            write_json(path("w3-in.json"), w3_input_script())
            timed(qf + [path("w3-in.json"), "--out", source], env)
            before = layout_of(source)
            steps, commands = w3_script()
            write_json(path("w3.json"), steps)
            # Undoing all of it needs an undo stack deeper than the default 1,000 levels.
            write_json(path("w3-settings.json"), {"Editing": {"Undo levels": commands}})
            w3 = {"ours": Measure()}
            for _ in range(args.runs):
                out = path("w3-out.pdf")
                w3["ours"].run(qf + [path("w3.json"), "--in", source, "--out", out,
                                     "--settings", path("w3-settings.json")], env)
                workloads.check_file(out)
                if layout_of(out) != before:
                    raise AssertionError("W3: undoing everything did not give the page back")
            rows.append(("W3", 1, W3_WIDGETS, w3))

    print_table(rows, peers)
    return 0


NAMES = {"pdflib": "pdf-lib", "pymupdf": "PyMuPDF"}


def print_table(rows, peers):
    head = ["workload", "pages", "fields", "ours s", "ours MiB"]
    for p in peers:
        head += [NAMES[p] + " s", NAMES[p] + " MiB", "ours / " + NAMES[p]]
    head += ["floor: qpdf s", "floor MiB", "ours / floor", "ours MiB / floor MiB"]
    print("| " + " | ".join(head) + " |")
    print("|" + "---|" * len(head))
    for workload, pages, fields, r in rows:
        ours = r["ours"]
        cells = [workload, str(pages), "{:,}".format(fields), "%.2f" % ours.median,
                 "%.0f" % ours.mib]
        for p in peers:
            m = r.get(p)
            if m is not None and m.capped:
                cells += ["> %.0f" % m.capped, "—", "< %.3f" % (ours.median / m.capped)]
            elif m is None or m.median is None:
                cells += ["—", "—", "—"]
            else:
                cells += ["%.2f" % m.median, "%.0f" % m.mib, "%.2f" % (ours.median / m.median)]
        floor = r.get("floor")
        if floor is None:
            cells += ["—", "—", "—", "—"]
        else:
            cells += ["%.2f" % floor.median, "%.0f" % floor.mib,
                      "%.2f" % (ours.median / floor.median), "%.2f" % (ours.mib / floor.mib)]
        print("| " + " | ".join(cells) + " |")


if __name__ == "__main__":
    sys.exit(main())
