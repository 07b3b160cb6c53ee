#!/usr/bin/python3
"""Tests of `qfforms run`: authoring sessions replayed through the forms module.

    run_sessions.py --qfforms BIN --example SCRIPT --corpus DIR CHECK

CHECK is one of:
  example   the bundled example script: qpdf --check, and the fields, captions, states and
            actions as pypdf reads them
  undo      undoing every step gives back the document as it was, on a new document and
            on a real form; redoing gives the authored one again
  failures  failing steps, bad scripts and bad options: status, message, nothing written
  fonts     a font file that cannot be read and characters no font draws: warnings, and
            still a sound file
  depth     hostile nesting at every door: page and field trees past the limit, a chain of
            actions 20,000 long that loops, records and scripts nested 100,000 deep

Run with Debian's /usr/bin/python3 (python3-pypdf). Exit status 0 when every check passed.
"""

import argparse
import json
import logging
import os
import shutil
import subprocess
import sys
import tempfile

from pypdf import PdfReader

# The hostile files the fuzzers start from.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "fuzz"))
import make_seeds  # noqa: E402

logging.getLogger("pypdf").setLevel(logging.CRITICAL)

TIMEOUT = 120
failures = []


def report(name):
    """Prints each failure and a last line for name; the process's exit status."""
    for f in failures:
        print("FAIL:", f)
    print("%s: %s" % (name, "ok" if not failures else "%d failures" % len(failures)))
    return 1 if failures else 0


def check(condition, message):
    if not condition:
        failures.append(message)
    return condition


def run(args, **kwargs):
    return subprocess.run([*map(str, args)], capture_output=True, text=True, timeout=TIMEOUT,
                          **kwargs)


def qfforms(binary, *args):
    return run([binary, *args])


def write_script(folder, name, steps):
    path = os.path.join(folder, name)
    with open(path, "w", encoding="utf-8") as f:
        json.dump(steps, f, ensure_ascii=False)
    return path


def run_script(args, folder, name, steps, *options, env=None):
    """`qfforms run` of steps, written to folder/name."""
    return run([args.qfforms, "run", write_script(folder, name, steps), *options], env=env)


# ---- reading a form with pypdf ------------------------------------------------------------


def resolved(obj):
    return obj.get_object() if hasattr(obj, "get_object") else obj


def field_of(widget):
    """The terminal field dictionary of a widget (itself when merged)."""
    return widget if "/T" in widget else resolved(widget.get("/Parent"))


def full_name(field):
    parts = []
    while field is not None:
        if "/T" in field:
            parts.append(str(field["/T"]))
        field = resolved(field.get("/Parent")) if "/Parent" in field else None
    return ".".join(reversed(parts))


def inherited(field, key):
    while field is not None:
        if key in field:
            return resolved(field[key])
        field = resolved(field.get("/Parent")) if "/Parent" in field else None
    return None


def form_of(path):
    """Pages with their annotations, and fields by full name, as plain values."""
    reader = PdfReader(path)
    pages = []
    for page in reader.pages:
        annots = []
        for ref in resolved(page.get("/Annots", [])) or []:
            a = resolved(ref)
            entry = {
                "subtype": str(a.get("/Subtype")),
                "rect": [round(float(v), 2) for v in resolved(a["/Rect"])],
            }
            if entry["subtype"] == "/Widget":
                entry["field"] = full_name(field_of(a))
            annots.append(entry)
        pages.append({"rotate": int(page.get("/Rotate", 0)), "annots": annots})
    fields = {}
    for name, f in (reader.get_fields() or {}).items():
        fields[name] = {
            "type": str(f.get("/FT")),
            "flags": int(f.get("/Ff", 0) or 0),
            "value": str(f.get("/V")) if f.get("/V") is not None else None,
        }
    return {"pages": pages, "fields": fields}


def widgets_of(path):
    """Every widget annotation: (page index, annotation dictionary)."""
    reader = PdfReader(path)
    out = []
    for index, page in enumerate(reader.pages):
        for ref in resolved(page.get("/Annots", [])) or []:
            a = resolved(ref)
            if a.get("/Subtype") == "/Widget":
                out.append((index, a, page))
    return out


# ---- checks -------------------------------------------------------------------------------

# name -> (type, flags, rect, caption, rotation)
EXPECTED = {
    "Text1": ("/Tx", 0, [72, 698, 300, 720], None, 0),
    "CheckBox1": ("/Btn", 0, [72, 656, 86, 670], "6", 0),
    "RadioGroup1": ("/Btn", 0x8000, [72, 626, 86, 640], "6", 0),
    "ComboBox1": ("/Ch", 0x20000, [72, 588, 250, 610], None, 0),
    "Button1": ("/Btn", 0x10000, [72, 456, 144, 480], "Button1", 0),
    "PrintButton1": ("/Btn", 0x10000, [160, 456, 232, 480], "Print", 0),
    "EmailButton1": ("/Btn", 0x10000, [248, 456, 320, 480], "Email", 0),
    "SaveButton1": ("/Btn", 0x10000, [336, 456, 408, 480], "Save As", 0),
    "SubmitButton1": ("/Btn", 0x10000, [424, 456, 496, 480], "Submit", 0),
    "ListBox1": ("/Ch", 0, [300, 100, 366, 250], None, 90),
    "Signature1": ("/Sig", 0, [100, 400, 160, 600], None, 90),
}

ACTIONS = {
    "PrintButton1": ("/JavaScript", "this.print(true);"),
    "EmailButton1": ("/JavaScript", 'this.mailDoc(true, "", "", "", "");'),
    "SaveButton1": ("/Named", "/SaveAs"),
    "SubmitButton1": ("/JavaScript",
                      'this.submitForm({cURL: "https://example.com/submit", cSubmitAs: "PDF"});'),
}


def check_example(args, folder):
    out = os.path.join(folder, "all-kinds.pdf")
    result = qfforms(args.qfforms, "run", args.example, "--out", out,
                     "--settings", os.path.join(folder, "no-settings.json"))
    if not check(result.returncode == 1 and "the settings file does not exist" in result.stderr,
                 "a missing --settings file is refused: " + result.stderr):
        return
    result = qfforms(args.qfforms, "run", args.example, "--out", out)
    if not check(result.returncode == 0, "example: exit %d: %s" % (result.returncode,
                                                                   result.stderr)):
        return
    check(os.path.abspath(out) in result.stdout, "example: the output is named on stdout")
    qpdf = run(["qpdf", "--check", out])
    check(qpdf.returncode == 0, "example: qpdf --check: " + qpdf.stdout + qpdf.stderr)

    reader = PdfReader(out)
    fields = reader.get_fields() or {}
    check(sorted(fields) == sorted(EXPECTED), "example: fields %s" % sorted(fields))
    widgets = widgets_of(out)
    check(len(widgets) == len(EXPECTED), "example: %d widgets" % len(widgets))
    for _, widget, _ in widgets:
        field = field_of(widget)
        name = full_name(field)
        if not check(name in EXPECTED, "example: unexpected widget of " + name):
            continue
        ftype, flags, rect, caption, rotation = EXPECTED[name]
        where = "example: " + name
        check(str(inherited(field, "/FT")) == ftype, where + ": /FT")
        check(int(inherited(field, "/Ff") or 0) == flags, where + ": /Ff")
        got = [round(float(v), 2) for v in widget["/Rect"]]
        check(got == rect, where + ": /Rect %s" % got)
        mk = resolved(widget.get("/MK", {}))
        check(int(mk.get("/R", 0)) == rotation, where + ": /MK /R")
        check((str(mk["/CA"]) if "/CA" in mk else None) == caption, where + ": /MK /CA")
        if caption == "6":
            states = sorted(str(k) for k in resolved(widget["/AP"])["/N"].keys())
            check(states == ["/Off", "/Yes"], where + ": states %s" % states)
            check(widget.get("/AS") == "/Off", where + ": /AS")
        action = resolved(widget.get("/A")) if "/A" in widget else None
        if name in ACTIONS:
            kind, content = ACTIONS[name]
            if check(action is not None, where + ": no action"):
                check(action.get("/S") == kind, where + ": action type")
                got = str(action.get("/JS") if kind == "/JavaScript" else action.get("/N"))
                check(got == content, where + ": action %r" % got)
        else:
            check(action is None, where + ": an action")
    # How every kind is drawn, in three readers: reader_matrix.py (kinds).


def example_steps(path):
    with open(path, encoding="utf-8") as f:
        return json.load(f)


def check_undo(args, folder):
    steps = example_steps(args.example)
    commands = sum(1 for s in steps if "click" in s or "drag" in s)
    # On a new document: its state right after "new" is the original.
    script = [steps[0], {"save": "original.pdf"}] + steps[1:] + [
        {"save": "made.pdf"}, {"undo": commands}, {"save": "undone.pdf"},
        {"redo": commands}, {"save": "redone.pdf"}]
    path = write_script(folder, "undo.json", script)
    result = qfforms(args.qfforms, "run", path)
    if not check(result.returncode == 0, "undo: exit %d: %s" % (result.returncode,
                                                                result.stderr)):
        return
    original = form_of(os.path.join(folder, "original.pdf"))
    made = form_of(os.path.join(folder, "made.pdf"))
    check(len(made["fields"]) == len(EXPECTED), "undo: the example made its fields")
    check(form_of(os.path.join(folder, "undone.pdf")) == original,
          "undo: undoing every step does not give the new document back")
    check(form_of(os.path.join(folder, "redone.pdf")) == made,
          "undo: redoing every step does not give the authored document")

    # On a real form: new fields beside the file's own, and one of its names typed.
    source = os.path.join(args.corpus, "qpdf-field-types.pdf")
    copy = os.path.join(folder, "form.pdf")
    shutil.copyfile(source, copy)
    before = form_of(copy)
    joined = sorted(n for n, f in before["fields"].items() if f["type"] == "/Tx")[0]
    script = [
        {"tool": "TextFieldCreate"},
        {"set": {"property": "FieldName", "value": joined}},
        {"click": {"page": 0, "at": [400, 100]}},
        {"tool": "CheckBoxCreate"},
        {"click": {"page": 0, "at": [400, 60]}},
        {"command": {"name": "Widget_Rename", "widget": {"field": "CheckBox1"},
                     "newName": "Agreed"}},
        {"save": "form-made.pdf"},
        {"undo": 3},
    ]
    path = write_script(folder, "form.json", script)
    out = os.path.join(folder, "form-undone.pdf")
    result = qfforms(args.qfforms, "run", path, "--in", copy, "--out", out)
    if not check(result.returncode == 0, "undo on a form: exit %d: %s" % (result.returncode,
                                                                          result.stderr)):
        return
    made = form_of(os.path.join(folder, "form-made.pdf"))
    check("Agreed" in made["fields"] and joined in made["fields"],
          "undo on a form: the session did not do its work")
    check(sum(1 for p in made["pages"] for a in p["annots"] if a.get("field") == joined) ==
          sum(1 for p in before["pages"] for a in p["annots"] if a.get("field") == joined) + 1,
          "undo on a form: the typed name did not add a widget to " + joined)
    check(form_of(out) == before, "undo on a form: the form is not as it was")
    check(open(copy, "rb").read() == open(source, "rb").read(), "undo on a form: input changed")

    # A radio grouping numbers its buttons in the order of their handles: the same session
    # writes the same bytes however the allocator reuses memory.
    script = [{"new": {}}, {"tool": "CheckBoxCreate"}]
    script += [{"click": {"page": 0, "at": [72 + 30 * i, 700]}} for i in range(6)]
    script += [{"command": {"name": "GroupRadioButtons",
                            "widgets": [{"field": "CheckBox%d" % i} for i in (4, 1, 6, 2)]}},
               {"save": "grouped.pdf"}]
    path = write_script(folder, "grouped.json", script)
    outputs = []
    for tunables in ("", "glibc.malloc.tcache_count=0:glibc.malloc.perturb=165",
                     "glibc.malloc.mmap_threshold=0"):
        env = dict(os.environ, GLIBC_TUNABLES=tunables, QF_PAD="x" * len(outputs) * 4096)
        result = run([args.qfforms, "run", path], env=env)
        check(result.returncode == 0, "grouping: exit %d: %s" % (result.returncode,
                                                                 result.stderr))
        with open(os.path.join(folder, "grouped.pdf"), "rb") as f:
            outputs.append(f.read())
    check(len(set(outputs)) == 1, "grouping: the same session wrote different bytes")


def check_failures(args, folder):
    out = os.path.join(folder, "never.pdf")
    clash = [
        {"new": {}},
        {"tool": "TextFieldCreate"},
        {"click": {"page": 0, "at": [72, 720]}},
        {"tool": "CheckBoxCreate"},
        {"set": {"property": "FieldName", "value": "Text1"}},
        {"click": {"page": 0, "at": [72, 620]}},
    ]
    path = write_script(folder, "clash.json", clash)
    result = qfforms(args.qfforms, "run", path, "--out", out)
    check(result.returncode == 1, "clash: exit %d" % result.returncode)
    check(result.stderr == "qfforms: step 4 (set): code 14 (0xe): This name is already set for "
                           "a different field type.\n", "clash: stderr %r" % result.stderr)
    check(not os.path.exists(out), "clash: an output was written")

    # In Japanese the names and the texts are the translated ones.
    clash[4]["set"]["value"] = "テキスト1"
    path = write_script(folder, "clash-ja.json", clash)
    result = qfforms(args.qfforms, "run", path, "--out", out, "--lang", "ja", "--keep-going")
    check(result.returncode == 1, "clash ja: exit %d" % result.returncode)
    check("step 4 (set): code 14 (0xe): この名前は、種類の異なるフィールドで既に使用されています。"
          in result.stderr, "clash ja: stderr %r" % result.stderr)
    check("1 of 6 steps failed" in result.stderr, "clash ja: the count of failed steps")
    if check(os.path.exists(out), "clash ja: --keep-going writes the output"):
        names = sorted((PdfReader(out).get_fields() or {}).keys())
        check(names == ["チェックボックス1", "テキスト1"], "clash ja: fields %s" % names)
        os.remove(out)

    # Creation refused when a field of another kind took the typed name meanwhile.
    refused = [{"new": {}}, {"tool": "RadioGroupCreate"},
               {"set": {"property": "FieldName", "value": "Choice"}},
               {"tool": "CheckBoxCreate"},
               {"set": {"property": "FieldName", "value": "Choice"}},
               {"click": {"page": 0, "at": [72, 720]}},
               {"tool": "RadioGroupCreate"},
               {"set": {"property": "FieldName", "value": "Choice"}}]
    result = qfforms(args.qfforms, "run", write_script(folder, "refused.json", refused))
    check(result.returncode == 1 and "step 7 (set): code 14 (0xe)" in result.stderr,
          "refused: %r" % result.stderr)

    cases = [
        ("unknown verb", [{"new": {}}, {"paint": 1}], "step 1 (paint): unknown verb"),
        ("two verbs", [{"new": {}, "tool": "TextFieldCreate"}], "step 0: a step is an object"),
        ("no document", [{"tool": "TextFieldCreate"}], "no document is open"),
        ("no tool", [{"new": {}}, {"click": {"page": 0, "at": [1, 1]}}], "no tool is active"),
        ("unknown tool", [{"new": {}}, {"tool": "Lasso"}], "no tool is registered as \"Lasso\""),
        ("page", [{"new": {}}, {"tool": "TextFieldCreate"},
                  {"click": {"page": 3, "at": [1, 1]}}], "page 3 is past the last page"),
        ("beside", [{"new": {}}, {"tool": "TextFieldCreate"},
                    {"click": {"page": 0, "at": [-100, 10]}}], "which lies beside the page"),
        ("property", [{"new": {}}, {"tool": "TextFieldCreate"},
                      {"set": {"property": "Colour", "value": "red"}}],
         "has no property \"Colour\""),
        ("undo", [{"new": {}}, {"undo": 1}], "nothing left to undo after 0 of 1"),
        ("misspelt", [{"new": {"page": 2}}], "unknown key \"page\""),
        ("rename", [{"new": {}}, {"command": {"name": "Widget_Rename",
                                              "widget": {"field": "Nope"}, "newName": "x"}}],
         "no field is named \"Nope\""),
    ]
    for what, steps, text in cases:
        result = qfforms(args.qfforms, "run", write_script(folder, "case.json", steps))
        check(result.returncode == 1 and text in result.stderr,
              "%s: exit %d, %r" % (what, result.returncode, result.stderr))

    # Wrong JSON types: one line naming the step and what is wrong.
    typed = [
        ([{"new": {"pages": "two"}}], "step 0 (new): new: pages must be a whole number"),
        ([{"new": {}}, {"undo": "one"}], "step 1 (undo): undo: the count must be a whole number"),
        ([{"new": {}}, {"tool": 7}], "step 1 (tool): tool: the tool's name must be a string"),
        ([{"new": {}}, {"tool": "TextFieldCreate"}, {"click": {"page": 0, "at": [1]}}],
         "step 2 (click): click: at must be [x, y]"),
        ([{"new": {}}, {"tool": "TextFieldCreate"},
          {"drag": {"page": 0.5, "from": [1, 1], "to": [9, 9]}}],
         "step 2 (drag): drag: page must be a whole number"),
        ([{"new": {}}, {"tool": "TextFieldCreate"},
          {"drag": {"page": 0, "from": [1, 1], "to": [9, 9], "moves": 0}}],
         "step 2 (drag): drag: moves must be 1 to 100000"),
        ([{"new": {}}, {"command": {"name": "GroupRadioButtons", "widgets": "all"}}],
         "step 1 (command): command GroupRadioButtons: widgets must be a list"),
        ({"new": {}}, "the script must be a JSON array of steps"),
    ]
    for steps, text in typed:
        result = qfforms(args.qfforms, "run", write_script(folder, "typed.json", steps))
        check(result.returncode == 1 and text in result.stderr and
              result.stderr.count("\n") == 1, "types: %r, %r" % (text, result.stderr))

    # Files that cannot be opened: one line that says why, and nothing written.
    not_pdf = os.path.join(folder, "text.pdf")
    with open(not_pdf, "w") as f:
        f.write("hello, this is not a PDF\n")
    locked = os.path.join(folder, "locked.pdf")
    run(["qpdf", "--encrypt", "user", "owner", "256", "--",
         os.path.join(args.corpus, "qpdf-field-types.pdf"), locked])
    inputs = [
        (os.path.join(folder, "missing.pdf"), "the file does not exist"),
        (not_pdf, "The file is damaged or is not a PDF file"),
        (locked, "the file is encrypted and needs a password; give it with --password"),
        (os.path.join(args.corpus, "pdfjs-damaged-unrecoverable-fuzzed.pdf"),
         "The file is damaged or is not a PDF file"),
    ]
    script = write_script(folder, "any.json", [{"tool": "TextFieldCreate"}])
    for path, text in inputs:
        result = qfforms(args.qfforms, "run", script, "--in", path, "--out", out)
        check(result.returncode == 1 and text in result.stderr and
              result.stderr.count("\n") == 1 and not os.path.exists(out),
              "input %s: exit %d, %r" % (os.path.basename(path), result.returncode,
                                         result.stderr))

    # A signed file gets its changes appended as an update: the signed bytes stay as they
    # are, and poppler still finds every signature valid over its own revision. Written
    # whole (--full-rewrite), it needs --break-signatures, as the signatures then stop
    # holding. An empty signature field is no signature.
    signed = os.path.join(args.corpus, "pyhanko-two-fields-signed-twice.pdf")
    original = open(signed, "rb").read()
    saving = write_script(folder, "saving.json", [{"save": out}])
    empty = write_script(folder, "empty.json", [])
    field = write_script(folder, "field.json", [
        {"tool": "TextFieldCreate"},
        {"drag": {"page": 0, "from": [20, 130], "to": [120, 112]}}])
    refusal = "the document is signed: saving rewrites the whole file"
    for what, command in (("--out", [field, "--out", out]), ("save", [saving])):
        result = qfforms(args.qfforms, "run", *command, "--in", signed)
        if check(result.returncode == 0 and os.path.exists(out),
                 "signed, %s: %r" % (what, result.stderr)):
            written = open(out, "rb").read()
            check(written.startswith(original) and
                  (len(written) > len(original)) == (what == "--out"),
                  "signed, %s: the signed bytes were not kept in front" % what)
            sig = subprocess.run(["pdfsig", out], capture_output=True, text=True)
            check(sig.stdout.count("Signature is Valid.") == 2,
                  "signed, %s: pdfsig: %s" % (what, sig.stdout + sig.stderr))
            check(subprocess.run(["qpdf", "--check", out],
                                 capture_output=True).returncode in (0, 3),
                  "signed, %s: qpdf --check" % what)
            os.remove(out)
        result = qfforms(args.qfforms, "run", *command, "--in", signed, "--full-rewrite")
        check(result.returncode == 1 and refusal in result.stderr and
              "--break-signatures" in result.stderr and result.stderr.count("\n") == 1 and
              not os.path.exists(out), "signed, %s, --full-rewrite: %r" % (what, result.stderr))
        result = qfforms(args.qfforms, "run", *command, "--in", signed, "--full-rewrite",
                         "--break-signatures")
        if check(result.returncode == 0 and os.path.exists(out),
                 "signed, %s, --break-signatures: %r" % (what, result.stderr)):
            values = [f.get("/V") for f in (PdfReader(out).get_fields() or {}).values()
                      if f.get("/FT") == "/Sig"]
            check(len(values) == 2 and all(values), "signed: the signatures were not kept")
            check(not open(out, "rb").read().startswith(original),
                  "signed, %s, --full-rewrite: the file was not written whole" % what)
            os.remove(out)
    unsigned = os.path.join(args.corpus, "pyhanko-textfield-group-unsigned-sig.pdf")
    result = qfforms(args.qfforms, "run", empty, "--in", unsigned, "--out", out)
    check(result.returncode == 0, "unsigned signature field: %r" % result.stderr)
    if os.path.exists(out):
        os.remove(out)
    # --incremental appends to a small unsigned file too, and excludes --full-rewrite.
    result = qfforms(args.qfforms, "run", field, "--in", unsigned, "--out", out, "--incremental")
    if check(result.returncode == 0, "--incremental: %r" % result.stderr):
        before = open(unsigned, "rb").read()
        written = open(out, "rb").read()
        check(written.startswith(before) and len(written) > len(before) and
              len(PdfReader(out).get_fields()) == len(PdfReader(unsigned).get_fields()) + 1,
              "--incremental: the file's bytes were not kept in front of the new field")
        os.remove(out)
    result = qfforms(args.qfforms, "run", field, "--in", unsigned, "--out", out,
                     "--incremental", "--full-rewrite")
    check(result.returncode == 2 and "exclude each other" in result.stderr and
          not os.path.exists(out), "--incremental --full-rewrite: %r" % result.stderr)

    with open(os.path.join(folder, "broken.json"), "w") as f:
        f.write('[{"new": {}}, {"tool": "TextFieldCreate", "tool": "CheckBoxCreate"}]')
    result = qfforms(args.qfforms, "run", os.path.join(folder, "broken.json"))
    check(result.returncode == 1 and "appears twice" in result.stderr,
          "duplicate key: %r" % result.stderr)
    for bad in (["run"], ["run", "a.json", "b.json"], ["run", "a.json", "--lang", "fr"],
                ["run", "a.json", "--frobnicate"]):
        result = qfforms(args.qfforms, *bad)
        check(result.returncode == 2, "usage %s: exit %d" % (bad, result.returncode))
    result = qfforms(args.qfforms, "run", "--help")
    check(result.returncode == 0, "run --help: exit %d" % result.returncode)
    for verb in ("new", "open", "view", "tool", "click", "drag", "key", "set", "command",
                 "undo", "redo", "save"):
        check('{"%s":' % verb in result.stdout, "run --help does not document " + verb)


def write_pdf(folder, name, data):
    path = os.path.join(folder, name)
    with open(path, "wb") as f:
        f.write(data)
    return path


def check_depth(args, folder):
    out = os.path.join(folder, "never.pdf")
    levels = 40000
    pages, fields = make_seeds.page_tree(levels), make_seeds.field_tree(levels)
    too_deep = "A page tree or field tree is nested deeper than 1,000 levels"
    for name, objects in (("pages.pdf", pages), ("fields.pdf", fields)):
        path = write_pdf(folder, name, objects)
        for command in (["inspect", path], ["run", write_script(folder, "none.json", []),
                                            "--in", path, "--out", out]):
            result = qfforms(args.qfforms, *command)
            check(result.returncode == 1 and too_deep in result.stderr and
                  result.stderr.count("\n") == 1 and not os.path.exists(out),
                  "%s, %s: exit %d, %r" % (name, command[0], result.returncode,
                                           result.stderr[-300:]))

    # A button whose click action starts a chain of 20,000 that leads back to its start:
    # copied and pasted in seconds (a paste took 73 s; a copy ran out of stack).
    length = 20000
    chain = make_seeds.action_chain(length)
    source = write_pdf(folder, "chain.pdf", chain)
    copied = qfforms(args.qfforms, "copy", source, "--field", "go")
    check(copied.returncode == 0 and copied.stdout.count('"next-action"') == length - 1,
          "chain: copy exit %d, %r" % (copied.returncode, copied.stderr[-300:]))
    pasted = run([args.qfforms, "paste", source, "--page", "0", "--out", out],
                 input=copied.stdout)
    if check(pasted.returncode == 0 and os.path.exists(out),
             "chain: paste exit %d, %r" % (pasted.returncode, pasted.stderr[-300:])):
        again = qfforms(args.qfforms, "copy", out, "--field", "go_2")
        check(again.stdout.count('"next-action"') == length - 1,
              "chain: the pasted widget's chain: %r" % again.stderr[-300:])
        check(run(["qpdf", "--check", out]).returncode == 0, "chain: qpdf --check")
        os.remove(out)

    # Text nested 100,000 deep: one line naming the limit of its door.
    nested = "[" * 100000 + "]" * 100000
    record = '{"field-type": 536, "Rect": {"left": 1, "bottom": 1, "right": 9, "top": 9},' \
             ' "x": %s}' % nested
    result = run([args.qfforms, "paste", source, "--page", "0", "--out", out], input=record)
    check(result.returncode == 1 and "nested deeper than 50,000 levels" in result.stderr and
          result.stderr.count("\n") == 1 and not os.path.exists(out),
          "record: exit %d, %r" % (result.returncode, result.stderr[-300:]))
    script = os.path.join(folder, "nested.json")
    with open(script, "w") as f:
        f.write('[{"new": {}}, {"tool": %s}]' % nested)
    result = qfforms(args.qfforms, "run", script, "--out", out)
    check(result.returncode == 1 and "nested deeper than 64 levels" in result.stderr and
          result.stderr.count("\n") == 1 and not os.path.exists(out),
          "script: exit %d, %r" % (result.returncode, result.stderr[-300:]))


def check_fonts(args, folder):
    """Fonts that fail: a font file that fontconfig lists but that cannot be read is skipped
    with a warning, and characters no other font draws come out as empty boxes with one
    warning; the session still succeeds and writes a sound file."""
    fonts = os.path.join(folder, "fonts")
    os.makedirs(fonts)
    shutil.copy("/usr/share/fonts/opentype/ipafont-gothic/ipag.ttf", fonts)
    shutil.copy("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", fonts)
    config = os.path.join(folder, "fonts.conf")
    with open(config, "w") as f:
        f.write('<?xml version="1.0"?>\n<fontconfig><dir>%s</dir><cachedir>%s</cachedir>'
                '</fontconfig>\n' % (fonts, os.path.join(folder, "fc-cache")))
    env = dict(os.environ, FONTCONFIG_FILE=config)
    cached = run(["fc-cache", fonts], env=env)
    if not check(cached.returncode == 0, "fonts: fc-cache: " + cached.stderr):
        return
    # Damaged after fontconfig read it, as a font replaced under a running system would be.
    with open(os.path.join(fonts, "ipag.ttf"), "r+b") as f:
        f.write(b"\0" * 4096)

    base, blank = os.path.join(folder, "base.pdf"), os.path.join(folder, "blank.pdf")
    made = qfforms(args.qfforms, "run", write_script(folder, "text.json", [
        {"new": {}}, {"tool": "TextFieldCreate"}, {"click": {"page": 0, "at": [72, 720]}}]),
        "--out", base)
    qfforms(args.qfforms, "run", write_script(folder, "blank.json", [{"new": {}}]), "--out",
            blank)
    if not check(made.returncode == 0, "fonts: the text field: " + made.stderr):
        return
    record = json.loads(qfforms(args.qfforms, "copy", base, "--field", "Text1").stdout)
    record["field-value"] = "山田 Ωμέγα"
    out = os.path.join(folder, "fonts.pdf")
    pasted = run([args.qfforms, "paste", blank, "--page", "0", "--out", out],
                 input=json.dumps(record, ensure_ascii=False), env=env)
    check(pasted.returncode == 0, "fonts: paste exit %d: %s" % (pasted.returncode,
                                                                pasted.stderr))
    warnings = [l for l in pasted.stderr.splitlines() if l.startswith("qfforms: warning: ")]
    check(len(warnings) == 2 and "ipag.ttf cannot be read" in warnings[0] and
          warnings[1].endswith("No installed font draws U+5C71 U+7530; they are drawn as "
                               "empty boxes."), "fonts: warnings %r" % pasted.stderr)
    qpdf = run(["qpdf", "--check", out])
    check(qpdf.returncode == 0, "fonts: qpdf --check: " + qpdf.stdout + qpdf.stderr)
    widget = widgets_of(out)[0][1]
    normal = resolved(widget["/AP"]["/N"])
    fonts = [str(resolved(f).get("/BaseFont")) for f in
             resolved(resolved(normal["/Resources"])["/Font"]).values()]
    check(len(fonts) == 1 and fonts[0].endswith("+DejaVuSans"),
          "fonts: the Greek is drawn with DejaVu Sans: %s" % fonts)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--qfforms", required=True)
    parser.add_argument("--example", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("check", choices=["example", "undo", "failures", "fonts", "depth"])
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        # The user's own settings file stays out of the sessions.
        os.environ["XDG_CONFIG_HOME"] = os.path.join(folder, "config")
        {"example": check_example, "undo": check_undo, "failures": check_failures,
         "fonts": check_fonts, "depth": check_depth}[args.check](args, folder)
    return report(args.check)


if __name__ == "__main__":
    sys.exit(main())
