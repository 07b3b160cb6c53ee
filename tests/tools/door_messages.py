#!/usr/bin/python3
"""What every door of qfforms answers to input it cannot take: one first line that names the
thing (file, page, key, limit), exit 1 (2 for usage), nothing written, and never a raw
library text.

    door_messages.py --qfforms BIN --corpus DIR CHECK

CHECK is one of:
  doors    files that are missing, folders, devices, too big or unreadable, pages whose box
           is no box or too big, pages past the end, documents past the limits, records
           and names the program refuses, through inspect, render, copy, paste, run and
           the editor's start
  bounds   a form of as many widgets as the program takes opens and pastes; one more is
           refused before it is read into memory (figures printed for docs/reliability.md)

Run with Debian's /usr/bin/python3. Exit status 0 when every check passed.
"""

import argparse
import json
import os
import re
import subprocess
import sys
import tempfile

from run_sessions import check, failures, run

# Texts of the libraries under the program that must never reach a person.
RAW = ["basic_filebuf", "_M_range_check", "vector::", "No value is stored", "json.exception",
       "invalid map<K, T> key", "std::", "terminate called", "what():", "Unspecified Error!"]


def pdf(path, media_box="[0 0 612 792]", pages=1, annots_per_page=0, widgets=0):
    """Writes a small PDF by hand: pages of media_box (text as written in the file);
    annots_per_page entries in each page's /Annots, all one link annotation; or a form of
    widgets text fields spread over the pages, 100 to a page."""
    objects = {1: "<< /Type /Catalog /Pages 2 0 R%s >>"}
    first_page = 3
    page_ids = list(range(first_page, first_page + pages))
    next_id = first_page + pages
    link = None
    if annots_per_page:
        link = next_id
        objects[link] = "<< /Type /Annot /Subtype /Link /Rect [0 0 10 10] >>"
        next_id += 1
    fields = []
    page_annots = {p: [] for p in page_ids}
    for k in range(widgets):
        page = page_ids[min(k // 100, pages - 1)]
        x, y = 20 + (k % 4) * 140, 30 + (k // 4 % 25) * 29
        objects[next_id] = ("<< /Type /Annot /Subtype /Widget /FT /Tx /T (f%d) /P %d 0 R "
                            "/Rect [%d %d %d %d] /DA (/Helv 10 Tf 0 g) >>" %
                            (k, page, x, y, x + 130, y + 22))
        fields.append(next_id)
        page_annots[page].append(next_id)
        next_id += 1
    for p in page_ids:
        refs = page_annots[p] + ([link] * annots_per_page if link else [])
        annots = " /Annots [%s]" % " ".join("%d 0 R" % r for r in refs) if refs else ""
        objects[p] = "<< /Type /Page /Parent 2 0 R /MediaBox %s%s >>" % (media_box, annots)
    objects[2] = "<< /Type /Pages /Kids [%s] /Count %d >>" % (
        " ".join("%d 0 R" % p for p in page_ids), pages)
    acro = (" /AcroForm << /Fields [%s] /DR << /Font << /Helv << /Type /Font /Subtype /Type1 "
            "/BaseFont /Helvetica >> >> >> /DA (/Helv 0 Tf 0 g) >>" %
            " ".join("%d 0 R" % f for f in fields)) if fields else ""
    objects[1] = objects[1] % acro
    out = bytearray(b"%PDF-1.7\n")
    offsets = {}
    for number in sorted(objects):
        offsets[number] = len(out)
        out += b"%d 0 obj\n%s\nendobj\n" % (number, objects[number].encode())
    xref = len(out)
    size = max(objects) + 1
    out += b"xref\n0 %d\n0000000000 65535 f \n" % size
    for number in range(1, size):
        out += b"%010d 00000 n \n" % offsets[number]
    out += b"trailer\n<< /Size %d /Root 1 0 R >>\nstartxref\n%d\n%%%%EOF\n" % (size, xref)
    with open(path, "wb") as f:
        f.write(out)
    return path


def first_line(result):
    return (result.stderr.strip().splitlines() or [""])[0]


def expect(label, result, status, *names):
    """The run exits with status, its first line on stderr names every one of names, and no
    raw library text shows anywhere."""
    line = first_line(result)
    check(result.returncode == status, "%s: exit %d, not %d: %r" %
          (label, result.returncode, status, result.stderr[:300]))
    for name in names:
        check(name in line, "%s: the first line does not name %r: %r" % (label, name, line))
    for raw in RAW:
        check(raw not in result.stderr, "%s: %r reached the person: %r" % (label, raw,
                                                                           result.stderr[:300]))


def check_doors(args, folder):
    q = args.qfforms
    at = lambda name: os.path.join(folder, name)
    good = pdf(at("good.pdf"))
    os.mkdir(at("folder.pdf"))
    with open(at("huge.pdf"), "wb") as f:  # sparse: nothing is written to the disk
        f.truncate(600 << 20)
    boxes = {
        "box-exponent.pdf": ("[0 0 1e30 1e30]", "MediaBox is not four numbers"),
        "box-nan.pdf": ("[0 0 nan 792]", "MediaBox is not four numbers"),
        "box-three.pdf": ("[0 0 612]", "MediaBox is not four numbers"),
        "box-huge.pdf": ("[0 0 1%s.0 792]" % ("0" * 30), "MediaBox reaches 1e+30"),
        "box-infinite.pdf": ("[0 0 612 1%s.0]" % ("0" * 400), "MediaBox reaches inf"),
        "box-wide.pdf": ("[0 0 20000 792]", "larger than the 14400 points"),
        "box-empty.pdf": ("[0 0 0 0]", "MediaBox has no area"),
    }
    for name, (box, _) in boxes.items():
        pdf(at(name), media_box=box)
    pdf(at("annots.pdf"), annots_per_page=50001)
    record = {"Rect": {"bottom": 698.0, "left": 72.0, "right": 300.0, "top": 720.0},
              "border-style": {"border-style": 0, "border-width": 1.0, "dash-array": []},
              "field-type": 536, "name": "Text1"}
    for trigger in ("format", "validate", "calcuate", "modify", "mouse-enter", "mouse-exit",
                    "mouse-down", "mouse-up", "focus", "blur"):
        record[trigger] = {}

    # The files a document door is given, through each command that opens one.
    files = [
        ("missing", at("missing.pdf"), "the file does not exist"),
        ("a folder", at("folder.pdf"), "the file is a folder"),
        ("/dev/zero", "/dev/zero", "the file is not a regular file"),
        ("600 MiB", at("huge.pdf"), "more than the 512 MiB"),
        ("50,001 annotations", at("annots.pdf"), "more than 50000 widgets"),
    ] + [(name, at(name), text) for name, (_, text) in boxes.items()]
    if os.geteuid() != 0:  # root reads every file
        unreadable = pdf(at("unreadable.pdf"))
        os.chmod(unreadable, 0)
        files.append(("unreadable", unreadable, "cannot be read: permission denied"))
    out = at("never.out")
    script = at("one.json")
    with open(script, "w") as f:
        json.dump([{"tool": "TextFieldCreate"}], f)
    commands = {
        "inspect": lambda path: [q, "inspect", path],
        "render": lambda path: [q, "render", path, "--page", "0", "--out", out],
        "copy": lambda path: [q, "copy", path, "--field", "Text1"],
        "paste": lambda path: [q, "paste", path, "--page", "0", "--out", out],
        "run --in": lambda path: [q, "run", script, "--in", path, "--out", out],
        "edit": lambda path: [q, "edit", path, "--port", "0"],
    }
    for label, path, text in files:
        for command, argv in commands.items():
            if os.path.exists(out):
                os.remove(out)
            result = run(argv(path), input=json.dumps(record))
            name = os.path.basename(path)
            expect("%s %s" % (command, label), result, 1, name, text)
            if "Box" in text:
                check("page 0" in first_line(result), "%s %s: no page named" % (command, label))
            check(not os.path.exists(out), "%s %s: wrote an output" % (command, label))

    # The same files as the script, the settings and the password file.
    for label, path, text in files[:4]:
        name = os.path.basename(path)
        problem = "is 600 MiB, more than the" if "MiB" in text else text[len("the file "):]
        expect("run script " + label, run([q, "run", path]), 1, name, "the script " + problem)
        expect("run settings " + label, run([q, "run", script, "--settings", path]), 1, name,
               "the settings file " + problem)
        expect("inspect password file " + label,
               run([q, "inspect", good, "--password-file", path]), 1, name,
               "the password file " + problem)
    expect("open step", run([q, "run", write(at("open.json"), [{"open": "folder.pdf"}])]), 1,
           "step 0 (open)", "folder.pdf", "the file is a folder")

    # Pages that are not there.
    expect("render page 3", run([q, "render", good, "--page", "3", "--out", out]), 1,
           "good.pdf", "no page 3", "1 page")
    expect("paste page 3", run([q, "paste", good, "--page", "3", "--out", out],
                               input=json.dumps(record)), 1, "good.pdf", "no page 3")
    expect("run click page 3",
           run([q, "run", write(at("click.json"), [{"tool": "TextFieldCreate"},
                                                   {"click": {"page": 3, "at": [9, 9]}}]),
                "--in", good]), 1, "step 1 (click)", "page 3")

    # Records: the sentence names the key and what it must hold; a record too big, or a
    # stream without end, is refused before it is read whole.
    records = [
        ("not JSON", "{\"Rect\": ", "standard input", "the record is not JSON"),
        ("a list", "[]", "the record must be a JSON object"),
        ("no Rect", dict((k, v) for k, v in record.items() if k != "Rect"),
         'the record lacks "Rect"'),
        ("a text coordinate", dict(record, Rect=dict(record["Rect"], left="abc")),
         "Rect.left must be a number from -100000 to 100000"),
        ("a coordinate of 1e30", dict(record, Rect=dict(record["Rect"], left=1e30)),
         "Rect.left must be a number from -100000 to 100000", "1e+30"),
        ("a turn of 45", dict(record, rotation=45), "rotation must be a whole number",
         "multiple of 90"),
        ("an unknown type", dict(record, **{"field-type": 12}), "field-type must be one of"),
        ("a key spelt right", dict(record, calculate={}), 'unknown key "calculate"'),
        ("a SubmitForm without its URL",
         dict(record, **{"mouse-up": {"action-type": 498, "fields-data": []}}),
         'the record\'s mouse-up lacks "submit-url"'),
        ("a destination of two numbers",
         dict(record, **{"mouse-up": {"action-type": 235, "destination": {"params": [1, 2]}}}),
         "mouse-up.destination.params must be a list of at least 3 items"),
        ("a name with NUL", dict(record, name="text2\u0000x"), "\"name\"",
         "control character U+0000"),
        ("a name with a tab", dict(record, name="a\tb"), "control character U+0009"),
        ("5 MiB", dict(record, tooltip="x" * (5 << 20)), "more than the 4 MiB"),
        # Chains are checked a link at a time: the path names the link without listing it.
        ("a chain of 20,000 actions, the last wrong",
         json.dumps(record).replace('"mouse-up": {}', '"mouse-up": ' + '{"next-action": ' * 20000
                                    + '{"url": 5}' + "}" * 20000),
         "mouse-up.next-action (x20000).url must be a text, not 5"),
    ]
    for label, value, *names in records:
        text = value if isinstance(value, str) else json.dumps(value)
        result = run([q, "paste", good, "--page", "0", "--out", out], input=text)
        expect("paste " + label, result, 1, "standard input", *names)
    with open("/dev/zero", "rb") as zero:
        result = subprocess.run([q, "paste", good, "--page", "0", "--out", out], stdin=zero,
                                capture_output=True, text=True, timeout=120)
    expect("paste from /dev/zero", result, 1, "standard input", "more than the 4 MiB")

    # Names with control characters, wherever a name enters a run.
    renames = [
        ("rename to NUL", {"command": {"name": "Widget_Rename", "widget": {"page": 0, "index": 0},
                                       "newName": "text2\u0000x"}}, "newName", "U+0000"),
        ("rename to DEL", {"command": {"name": "Widget_Rename", "widget": {"page": 0, "index": 0},
                                       "newName": "a\u007f"}}, "newName", "U+007F"),
        ("FieldName with a line end", {"set": {"property": "FieldName", "value": "a\nb"}},
         "FieldName", "U+000A"),
    ]
    for label, step, *names in renames:
        steps = [{"tool": "TextFieldCreate"}, {"click": {"page": 0, "at": [72, 720]}}]
        if "command" in step:
            steps.append({"select": {"page": 0, "at": [80, 710]}})
        if os.path.exists(out):
            os.remove(out)
        result = run([q, "run", write(at("names.json"), steps + [step]), "--in", good,
                      "--out", out])
        expect(label, result, 1, "step %d" % len(steps), *names)
        check(not os.path.exists(out), "%s: wrote an output" % label)


def write(path, steps):
    with open(path, "w", encoding="utf-8") as f:
        json.dump(steps, f)
    return path


def peak(argv, **kwargs):
    """Runs argv under /usr/bin/time -v: the result and its peak resident size in MiB."""
    result = run(["/usr/bin/time", "-v", *argv], **kwargs)
    match = re.search(r"Maximum resident set size \(kbytes\): (\d+)", result.stderr)
    return result, int(match.group(1)) / 1024 if match else -1


def check_bounds(args, folder):
    q = args.qfforms
    at = lambda name: os.path.join(folder, name)
    limit = 50000
    full = pdf(at("full.pdf"), pages=limit // 100, widgets=limit)
    over = pdf(at("over.pdf"), pages=limit // 100 + 1, widgets=limit + 1)
    result, inspect_mib = peak([q, "inspect", full])
    check(result.returncode == 0, "inspect at the limit: %r" % result.stderr[-300:])
    record = run([q, "copy", full, "--field", "f0"])
    check(record.returncode == 0, "copy at the limit: %r" % record.stderr[-300:])
    result, paste_mib = peak([q, "paste", full, "--page", "0", "--out", at("pasted.pdf")],
                             input=record.stdout)
    check(result.returncode == 0, "paste at the limit: %r" % result.stderr[-300:])
    result, over_mib = peak([q, "paste", over, "--page", "0", "--out", at("never.pdf")],
                            input=record.stdout)
    expect("paste past the limit", result, 1, "over.pdf", "more than 50000 widgets")
    print("bounds: %d widgets on %d pages (%.0f MiB): inspect %.0f MiB, paste %.0f MiB; "
          "%d widgets refused at %.0f MiB" %
          (limit, limit // 100, os.path.getsize(full) / 2**20, inspect_mib, paste_mib,
           limit + 1, over_mib))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--qfforms", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("check", choices=["doors", "bounds"])
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        {"doors": check_doors, "bounds": check_bounds}[args.check](args, folder)
    for failure in failures:
        print("FAIL:", failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
