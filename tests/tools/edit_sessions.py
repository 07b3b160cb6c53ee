#!/usr/bin/python3
"""Tests of editing and of the widget clipboard through `qfforms run`, `copy` and `paste`.

    edit_sessions.py --qfforms BIN --example SCRIPT --docs SCRIPTING_MD --corpus DIR CHECK

CHECK is one of:
  edit       delete a widget of a real form, undo and redo it; drag one off a turned page
             at zoom 2; move a widget the creation tools made; the editing example of the
             docs runs
  clipboard  copy a widget of every field type into another document and compare what
             pypdf reads; clipboard file across runs, duplicates, naming, Cut
  corpus     every widget of every corpus form copies and pastes into a new document and
             back into its own page, buttons with their on states
  records    bad records fail cleanly and leave nothing behind

Run with Debian's /usr/bin/python3 (python3-pypdf). Exit status 0 when every check passed.
"""

import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

from pypdf import PdfReader, PdfWriter
from pypdf.generic import DictionaryObject, NameObject, TextStringObject

from run_sessions import (check, failures, field_of, form_of, full_name, qfforms, report, resolved,
                          run, run_script, widgets_of)


def rect_of(path, page, field):
    """The rectangles of field's widgets on page, as pypdf reads them."""
    return [a["rect"] for a in form_of(path)["pages"][page]["annots"] if a.get("field") == field]


def shifted(rect, dx, dy):
    return [round(rect[0] + dx, 2), round(rect[1] + dy, 2), round(rect[2] + dx, 2),
            round(rect[3] + dy, 2)]


def centre(rect):
    return [round((rect[0] + rect[2]) / 2, 2), round((rect[1] + rect[3]) / 2, 2)]


def close(a, b):
    return len(a) == len(b) and all(abs(x - y) < 0.02 for x, y in zip(a, b))


def ink(pdf, rect):
    """The dark pixels pdftoppm draws inside rect (points) on page 0, a US Letter page."""
    crop = [round(rect[0]), round(792 - rect[3]), round(rect[2] - rect[0]),
            round(rect[3] - rect[1])]
    options = [o for pair in zip(("-x", "-y", "-W", "-H"), map(str, crop)) for o in pair]
    result = subprocess.run(["pdftoppm", "-gray", "-r", "72", "-f", "1", "-l", "1", *options,
                             pdf], capture_output=True, timeout=120)
    return sum(1 for value in result.stdout.split(b"\n", 3)[3] if value < 230)


# ---- edit -----------------------------------------------------------------------------------


def check_edit(args, folder):
    # Moves, nudges and resizes of real forms' widgets, at zoom 2 and on a turned page, are
    # the reader matrix's (reader_matrix.py edits). Here: Delete on a real form, undone and
    # redone, and a drag off a turned page.
    form = os.path.join(folder, "form.pdf")
    shutil.copyfile(os.path.join(args.corpus, "qpdf-field-types.pdf"), form)
    original = form_of(form)
    at = centre(rect_of(form, 0, "text")[0])
    steps = [
        {"open": "form.pdf"},
        {"select": {"page": 0, "at": at}},
        {"key": {"code": 46}},
        {"save": "deleted.pdf"},
        {"undo": 1}, {"save": "undone.pdf"},
        {"redo": 1}, {"save": "redone.pdf"},
    ]
    result = run_script(args, folder, "form-edit.json", steps)
    if not check(result.returncode == 0, "edit form: exit %d: %s" % (result.returncode,
                                                                     result.stderr)):
        return
    out = lambda name: os.path.join(folder, name)
    deleted = form_of(out("deleted.pdf"))
    check("text" not in deleted["fields"] and not rect_of(out("deleted.pdf"), 0, "text"),
          "edit form: Delete left the widget or its emptied field")
    check(len(deleted["fields"]) == len(original["fields"]) - 1, "edit form: other fields lost")
    check(form_of(out("undone.pdf")) == original, "edit form: undoing does not give the form back")
    check(form_of(out("redone.pdf")) == deleted, "edit form: redoing does not delete again")

    # A page shown turned by 90 degrees at zoom 2: a drag off the page is pulled back.
    turned = os.path.join(folder, "turned.pdf")
    shutil.copyfile(os.path.join(args.corpus, "pdfbox-rotated-page-widget-rotation.pdf"), turned)
    name = "acrobat.page90.single.rotation90"
    start = rect_of(turned, 1, name)[0]
    at = centre(start)
    steps = [
        {"open": "turned.pdf"}, {"view": {"zoom": 2}},
        {"select": {"page": 1, "at": at}},
        {"drag": {"page": 1, "from": at, "to": [-3000, at[1] + 35]}},
        {"save": "turned-off.pdf"},
        {"undo": 1}, {"save": "turned-undone.pdf"},
    ]
    result = run_script(args, folder, "turned.json", steps)
    if check(result.returncode == 0, "turned: exit %d: %s" % (result.returncode, result.stderr)):
        got = rect_of(out("turned-off.pdf"), 1, name)[0]
        width = start[2] - start[0]
        check(close(got, [0, start[1] + 35, width, start[3] + 35]),
              "turned: a drag off the page gives %s" % got)
        check(form_of(out("turned-undone.pdf")) == form_of(turned), "turned: undo")

    # A widget made by the creation tools, moved: drawn where it now is.
    steps = [
        {"new": {}}, {"tool": "TextFieldCreate"},
        {"drag": {"page": 0, "from": [72, 720], "to": [272, 698]}},
        {"select": {"page": 0, "at": [100, 710]}},
        {"drag": {"page": 0, "from": [100, 710], "to": [300, 410]}},
    ]
    made = out("made-moved.pdf")
    result = run_script(args, folder, "made.json", steps, "--out", made)
    if check(result.returncode == 0, "made: exit %d: %s" % (result.returncode, result.stderr)):
        rect = rect_of(made, 0, "Text1")[0]
        check(rect == [272, 398, 472, 420], "made: moved to %s" % rect)
        check(ink(made, rect) >= 100, "made: nothing drawn at the new place")
        check(ink(made, [72, 698, 272, 720]) == 0, "made: still drawn at the old place")

    # The editing example of docs/scripting.md runs as written.
    with open(args.docs, encoding="utf-8") as f:
        text = f.read()
    section = text[text.index("## Editing widgets"):text.index("## Copy and paste")]
    example = json.loads(re.search(r"```json\n(.*?)```", section, re.S).group(1))
    result = run([args.qfforms, "run", args.example, "--out", out("all-kinds.pdf")])
    check(result.returncode == 0, "docs: the example: " + result.stderr)
    result = run_script(args, folder, "docs.json", example, "--out", out("docs.pdf"),
                        env=dict(os.environ, QF_CLIPBOARD=out("docs-clipboard.json")))
    if check(result.returncode == 0, "docs: exit %d: %s" % (result.returncode, result.stderr)):
        check('{"property":"ComboOptList","value":[["English","en"],["Japanese","ja"]]}'
              in result.stdout, "docs: get printed %r" % result.stdout)
        fields = form_of(out("docs.pdf"))["fields"]
        check("Customer" in fields and "Text1" not in fields and "CheckBox1" not in fields,
              "docs: fields %s" % sorted(fields))
        check(os.path.exists(out("edited.svg")), "docs: no picture")

    cases = [
        ([{"select": {"page": 0, "at": [10, 10]}}], "no widget at (10, 10) on page 0"),
        ([{"edit": "Copy"}], "no widget is selected"),
        ([{"select": {"page": 0, "at": [190, 697]}}, {"edit": "Paint"}], "unknown command"),
        ([{"select": {"page": 0, "at": [190, 697]}}, {"click": {"page": 0, "at": [10, 10]}},
          {"key": {"code": 46}}], "no tool is active"),
        ([{"select": {"page": 0, "at": [190, 697]}}, {"get": {"property": "ComboOptList"}}],
         "does not show \"ComboOptList\""),
    ]
    for steps, text in cases:
        result = run_script(args, folder, "case.json", [{"open": "form.pdf"}] + steps)
        check(result.returncode == 1 and text in result.stderr,
              "edit failure %r: %r" % (text, result.stderr))


# ---- clipboard ------------------------------------------------------------------------------

# Values that a writer may leave out and that mean the same as the one written.
DEFAULTS = {"/Q": 0, "/H": "/I", "/V": None, "/DV": None}


def plain(obj, depth=0):
    """A PDF object as plain values; parents, pages and appearances left out."""
    obj = resolved(obj)
    if isinstance(obj, dict):
        if "/T" in obj and depth:
            return full_name(obj)  # a field named in an action
        return {str(k): plain(v, depth + 1) for k, v in obj.items()
                if k not in ("/Parent", "/P", "/AP", "/Kids", "/DR", "/Type")}
    if isinstance(obj, list):
        return [plain(v, depth + 1) for v in obj]
    if isinstance(obj, float):
        return round(obj, 3)
    if isinstance(obj, (bool, int)):
        return obj
    return str(obj)


def rgb(values):
    """A colour as 0..255 components of RGB: grey and CMYK converted as viewers do."""
    values = [float(v) for v in values]
    if len(values) == 1:
        values = values * 3
    elif len(values) == 4:
        c, m, y, k = values
        values = [(1 - c) * (1 - k), (1 - m) * (1 - k), (1 - y) * (1 - k)]
    return [round(v * 255) for v in values]


def colour_close(a, b):
    return a is None and b is None or (a is not None and b is not None and len(a) == len(b) and
                                       all(abs(x - y) <= 1 for x, y in zip(a, b)))


def look(widget, same_process):
    """What a reader sees of a widget and its field, with written defaults normalised.
    Colours are kept as 0..255 RGB (the record holds them as ARGB integers)."""
    field = field_of(widget)
    seen = {}
    for source in (field, widget):
        for key, value in plain(source).items():
            seen[key] = value
    for key, default in DEFAULTS.items():
        if seen.get(key) in ("", default):
            seen.pop(key, None)
    mk = seen.pop("/MK", {})
    mk.pop("/IF", None)  # the icon fit is written for every button
    if mk.get("/R") == 0:
        mk.pop("/R")
    for key in ("/BG", "/BC"):
        if key in mk:
            seen["/MK " + key] = rgb(mk.pop(key)) if mk[key] else None
    seen["/MK"] = mk
    bs = seen.pop("/BS", {})
    seen["/BS"] = {"/W": bs.get("/W", 1), "/S": bs.get("/S", "/S"), "/D": bs.get("/D")}
    # The font travels as an atom, which another process may not know: colour and size
    # always travel, the family within one process.
    da = seen.pop("/DA", None)
    if da:
        tokens = da.split()
        tf = tokens.index("Tf")
        seen["/DA size"] = float(tokens[tf - 1])
        for op in ("g", "rg", "k"):
            if op in tokens:
                at = tokens.index(op)
                seen["/DA colour"] = rgb(tokens[at - {"g": 1, "rg": 3, "k": 4}[op]:at])
        if same_process:
            seen["/DA font"] = tokens[tf - 2]
    action = seen.get("/A")
    if isinstance(action, dict) and action.get("/Fields") == []:
        del action["/Fields"]  # no list: every field
    ap = resolved(widget.get("/AP"))
    if ap and "/N" in ap and isinstance(resolved(ap["/N"]), dict) and "/AS" in widget:
        seen["on states"] = sorted(str(k) for k in resolved(ap["/N"]).keys() if k != "/Off")
    return seen


def same_look(want, got, where):
    """Reports each difference; a /DA the source did not have may be added."""
    if "/DA size" not in want:
        got.pop("/DA size", None)
        got.pop("/DA colour", None)
        got.pop("/DA font", None)
    same = True
    for key in sorted(set(want) | set(got)):
        a, b = want.get(key), got.get(key)
        equal = colour_close(a, b) if "colour" in key or key.startswith("/MK /") else a == b
        same = check(equal, where + ": %s %r became %r" % (key, a, b)) and same
    return same


def widget_of(path, name, index=0):
    found = []
    for page in PdfReader(path).pages:
        for ref in resolved(page.get("/Annots", [])) or []:
            a = resolved(ref)
            if a.get("/Subtype") == "/Widget" and full_name(field_of(a)) == name:
                found.append(a)
    return found[index] if -len(found) <= index < len(found) else None


def sorted_everywhere(pairs_list):
    return all(keys == sorted(keys) for keys in pairs_list)


def parse_record(text):
    orders = []

    def hook(pairs):
        orders.append([k for k, _ in pairs])
        return dict(pairs)

    return json.loads(text, object_pairs_hook=hook), orders


def check_copy_paste(args, folder, source, name, target, expected_loss=()):
    """Copies widget 0 of field name of source with `qfforms copy`, pastes it into target
    with `qfforms paste` and compares the two as pypdf reads them. The record, or None."""
    where = "%s of %s" % (name, os.path.basename(source))
    result = qfforms(args.qfforms, "copy", source, "--field", name)
    if not check(result.returncode == 0, where + ": copy: " + result.stderr):
        return None
    try:
        record, orders = parse_record(result.stdout)
    except ValueError as e:
        check(False, where + ": the record is no JSON: %s" % e)
        return None
    check(sorted_everywhere(orders), where + ": keys out of order")
    check(result.stdout.count("\n") == 1 and '": ' not in result.stdout,
          where + ": the record is not one compact line")
    out = os.path.join(folder, "pasted.pdf")
    result = run([args.qfforms, "paste", target, "--page", "0", "--out", out], input=result.stdout)
    if not check(result.returncode == 0, where + ": paste: " + result.stderr):
        return None
    # Pasted into the form it came from, the widget is a new field's under the next free
    # name, beside the original.
    own = os.path.samefile(source, target)
    made = pasted_name(result)
    check(made == (name + "_2" if own else name), where + ": pasted as %r" % made)
    pasted = widget_of(out, made)
    if not check(pasted is not None, where + ": pasted as %r" % result.stdout):
        return None
    want, got = look(widget_of(source, name), False), look(pasted, False)
    if own:
        rect, start = got.pop("/Rect"), want.pop("/Rect")
        check(got.pop("/T", None) == made and close(rect, shifted(start, 10, -10)),
              where + ": the paste is not beside the original: %r, %r" % (start, rect))
        want.pop("/T", None)
    for key in expected_loss:
        check(key in want and key not in got, where + ": %s was expected to be lost" % key)
        want.pop(key, None)
    same_look(want, got, where)
    return record


def with_chained_button(source, path):
    """source with Button1's click action made a JavaScript action followed by a URI action."""
    writer = PdfWriter()
    writer.clone_reader_document_root(PdfReader(source))
    for page in writer.pages:
        for ref in resolved(page.get("/Annots", [])) or []:
            widget = resolved(ref)
            if full_name(field_of(widget)) != "Button1":
                continue
            uri = DictionaryObject({NameObject("/S"): NameObject("/URI"),
                                    NameObject("/URI"): TextStringObject("https://example.com/")})
            js = DictionaryObject({NameObject("/S"): NameObject("/JavaScript"),
                                   NameObject("/JS"): TextStringObject("app.alert(1);"),
                                   NameObject("/Next"): writer._add_object(uri)})
            widget[NameObject("/A")] = writer._add_object(js)
    with open(path, "wb") as f:
        writer.write(f)


def read_clipboard(path):
    """The text on the clipboard file of the host."""
    with open(path, encoding="utf-8") as f:
        return json.load(f)["UnicodeText"]["text"]


def write_clipboard(path, text):
    with open(path, "w", encoding="utf-8") as f:
        json.dump({"UnicodeText": {"text": text}}, f)


def check_clipboard(args, folder):
    out = lambda name: os.path.join(folder, name)
    made = out("all-kinds.pdf")
    result = run([args.qfforms, "run", args.example, "--out", made])
    if not check(result.returncode == 0, "the example: " + result.stderr):
        return
    blank = out("blank.pdf")
    result = run_script(args, folder, "blank.json", [{"new": {}}], "--out", blank)
    if not check(result.returncode == 0, "blank: " + result.stderr):
        return

    # Every kind the creation tools make; the named action of Save As is a documented loss.
    chained = out("chained.pdf")
    with_chained_button(made, chained)
    for name in ("Text1", "CheckBox1", "RadioGroup1", "ComboBox1", "ListBox1", "PrintButton1",
                 "EmailButton1", "SubmitButton1", "Signature1"):
        check_copy_paste(args, folder, made, name, blank)
    check_copy_paste(args, folder, made, "SaveButton1", blank, expected_loss=("/A",))
    record = check_copy_paste(args, folder, chained, "Button1", blank)
    if record:
        action = record.get("button-action", {})
        check(action.get("script") == "app.alert(1);" and
              action.get("next-action", {}).get("url") == "https://example.com/",
              "chain: the record holds %r" % action)
    # Fields of real forms: values (non-Latin too), on-states, options, max length, submit
    # and reset actions with their field lists.
    corpus = lambda name: os.path.join(args.corpus, name)
    for source, names in (
            ("qpdf-field-types.pdf", ("text2", "r1", "checkbox2", "list1", "drop1",
                                      "combodrop1")),
            ("pdfium-text-password-maxlen-readonly.pdf", None),
            ("pypdf-latex-submitform-button.pdf", None),
            ("pdfjs-resetform-buttons.pdf", None)):
        if names is None:
            names = list(PdfReader(corpus(source)).get_fields() or {})
        # Field lists name fields of the form: they are kept where those fields are.
        target = corpus(source) if "resetform" in source else blank
        for name in names:
            check_copy_paste(args, folder, corpus(source), name, target)

    # Within one run the font travels too. A paste makes a field of its own under the next
    # free name, or joins the copied field when asked, and each lands beside the widget it
    # would cover and becomes the selection; a field of another kind, or none, is not joined.
    clipboard = out("clipboard.json")
    env = dict(os.environ, QF_CLIPBOARD=clipboard)
    steps = [
        {"open": "all-kinds.pdf"},
        {"select": {"page": 0, "at": [100, 710]}},
        {"edit": "Copy"},
        {"open": "blank.pdf"},
        {"paste": {"page": 0}},
        {"paste": {"page": 0}},
        {"get": {"property": "FieldName"}},
        {"paste": {"page": 0, "join": True}},
        {"get": {"property": "FieldName"}},
        {"key": {"code": 39}},
        {"tool": "CheckBoxCreate"},
        {"set": {"property": "FieldName", "value": "Other"}},
        {"click": {"page": 0, "at": [300, 300]}},
        {"save": "joined.pdf"},
    ]
    result = run_script(args, folder, "same-run.json", steps, env=env)
    if check(result.returncode == 0, "same run: " + result.stderr):
        check(result.stdout.startswith('{"property":"FieldName","value":"Text1_2"}\n'
                                       '{"property":"FieldName","value":"Text1"}\n'),
              "same run: the pastes were not selected: %r" % result.stdout)
        want = look(widget_of(made, "Text1"), True)
        start = want.pop("/Rect")
        # The joined paste moved twice aside, and once more by the arrow key: it was selected.
        for name, index, dx, dy in (("Text1", 0, 0, 0), ("Text1_2", 0, 10, -10),
                                    ("Text1", 1, 30, -20)):
            got = widget_of(out("joined.pdf"), name, index)
            where = "same run: %s widget %d" % (name, index)
            if check(got is not None, where + " missing"):
                got = look(got, True)
                check(close(got.pop("/Rect"), shifted(start, dx, dy)), where + " misplaced")
                got["/T"] = want["/T"]
                same_look(dict(want), got, where)
    record = json.loads(read_clipboard(clipboard))
    record["name"] = "Other"
    write_clipboard(clipboard, json.dumps(record))
    steps = [{"open": "joined.pdf"}, {"paste": {"page": 0}}]
    result = run_script(args, folder, "renamed.json", steps, "--out", out("renamed.pdf"), env=env)
    if check(result.returncode == 0, "renamed: " + result.stderr):
        fields = form_of(out("renamed.pdf"))["fields"]
        check(fields.get("Other_2", {}).get("type") == "/Tx" and
              fields.get("Other", {}).get("type") == "/Btn",
              "renamed: fields %s" % sorted(fields))
    for name, text, cli in (("Other", "is of another kind", 'field "Other" is of another kind'),
                            ("Nowhere", "has no field", 'no field is named "Nowhere" to join')):
        record["name"] = name
        write_clipboard(clipboard, json.dumps(record))
        steps = [{"open": "joined.pdf"}, {"paste": {"page": 0, "join": True}}]
        result = run_script(args, folder, "join.json", steps, "--out", out("never.pdf"), env=env)
        check(result.returncode == 1 and text in result.stderr and
              not os.path.exists(out("never.pdf")), "join %s: %r" % (name, result.stderr))
        result = run([args.qfforms, "paste", out("joined.pdf"), "--page", "0", "--join", "--out",
                      out("never.pdf")], input=json.dumps(record))
        check(result.returncode == 1 and cli in result.stderr and
              not os.path.exists(out("never.pdf")), "paste --join %s: %r" % (name, result.stderr))

    # Cut in one run, paste in the next; a duplicate leaves the clipboard as it was.
    steps = [{"open": "all-kinds.pdf"},
             {"select": {"page": 0, "at": [100, 600]}}, {"edit": "Cut"}]
    result = run_script(args, folder, "cut.json", steps, "--out", out("cut.pdf"), env=env)
    if check(result.returncode == 0, "cut: " + result.stderr):
        check("ComboBox1" not in form_of(out("cut.pdf"))["fields"], "cut: the field stayed")
    with open(clipboard, "rb") as f:
        cut = f.read()
    steps = [{"open": "blank.pdf"}, {"paste": {"page": 0}},
             {"select": {"page": 0, "at": [100, 600]}}, {"edit": "DuplicateCopy"}]
    result = run_script(args, folder, "paste.json", steps, "--out", out("pasted-cut.pdf"), env=env)
    if check(result.returncode == 0, "paste after cut: " + result.stderr):
        rects = [rect_of(out("pasted-cut.pdf"), 0, name) for name in ("ComboBox1", "ComboBox1_2")]
        check(rects == [[[72, 588, 250, 610]], [[82, 578, 260, 600]]],
              "paste after cut: widgets at %s" % rects)
        with open(clipboard, "rb") as f:
            check(f.read() == cut, "DuplicateCopy changed the system clipboard")
    check_names(args, folder, env)


def names_seen(path):
    """(field name, /V, /AS, the normal appearance's states) of each widget, as pypdf reads
    them."""
    seen = []
    for _, widget, _ in widgets_of(path):
        field = field_of(widget)
        normal = resolved(resolved(widget["/AP"])["/N"])
        states = sorted(normal.keys()) if "/AS" in widget else None
        seen.append((full_name(field), field.get("/V"), widget.get("/AS"), states))
    return seen


def check_names(args, folder, env):
    """Field names and on states with '#' (one that reads as an escape too), spaces and
    non-ASCII letters come back the same after a save, a second save, and a paste."""
    radio, choices, text = "Größe #1 日本", ["A#20B", "日本 語#1"], "a#20b c"
    steps = [{"new": {}}, {"tool": "RadioGroupCreate"}]
    for y in (700, 650):
        steps += [{"set": {"property": "FieldName", "value": radio}},
                  {"click": {"page": 0, "at": [100, y]}}]
    steps += [{"tool": "TextFieldCreate"}, {"set": {"property": "FieldName", "value": text}},
              {"click": {"page": 0, "at": [200, 700]}}]
    for y, choice in zip((695, 645), choices):
        steps += [{"select": {"page": 0, "at": [105, y]}},
                  {"set": {"property": "RadioChoice", "value": choice}}]
    steps += [{"edit": "Copy"}, {"save": "names.pdf"}, {"new": {}}, {"paste": {"page": 0}},
              {"save": "names-pasted.pdf"}]
    result = run_script(args, folder, "names.json", steps, env=env)
    if not check(result.returncode == 0, "names: " + result.stderr):
        return
    path = lambda name: os.path.join(folder, name)
    want = [(radio, None, "/Off", sorted(["/Off", "/" + choice])) for choice in choices]
    want.append((text, None, None, None))
    check(names_seen(path("names.pdf")) == want, "names: %r" % names_seen(path("names.pdf")))
    result = run_script(args, folder, "names-again.json", [{"open": "names.pdf"}], "--out",
                        path("names-again.pdf"))
    if check(result.returncode == 0, "names again: " + result.stderr):
        check(names_seen(path("names-again.pdf")) == want,
              "names again: %r" % names_seen(path("names-again.pdf")))
    check(names_seen(path("names-pasted.pdf")) == want[1:2],
          "names pasted: %r" % names_seen(path("names-pasted.pdf")))
    qpdf = run(["qpdf", "--check", path("names-again.pdf")])
    check(qpdf.returncode == 0 and "WARNING" not in qpdf.stdout, "names: " + qpdf.stdout)


# ---- corpus ---------------------------------------------------------------------------------


def corpus_widgets(args):
    """(file, field, k, page, editable) of every widget of every corpus form that lies on a
    page, editable when the form's permissions let it be changed without its owner
    password; and the number of widgets on no page (which no reader shows, and which cannot
    be copied)."""
    found, nowhere = [], 0
    for name in sorted(os.listdir(args.corpus)):
        if not name.endswith(".pdf"):
            continue
        result = qfforms(args.qfforms, "inspect", os.path.join(args.corpus, name))
        if result.returncode != 0:
            continue  # damaged beyond repair: inspect_corpus.py covers those
        form = json.loads(result.stdout)
        editable = (form.get("encryption") or {}).get("formEditable", True)
        seen = set()
        for field in form["fields"]:
            if field["name"] in seen:
                continue  # a second field of that name is not reachable by name
            seen.add(field["name"])
            for k, widget in enumerate(field["widgets"]):
                if widget["page"] is None:
                    nowhere += 1
                else:
                    found.append((name, field["name"], k, widget["page"], editable))
    return found, nowhere


def pasted_name(result):
    match = re.search(r'^pasted the field "(.*)"$', result.stdout, re.M)
    return match.group(1) if match else None


def check_corpus(args, folder):
    """Every widget of every corpus form copies, and pastes into a new document and back into
    its own page (a form whose permissions allow filling in only is refused, as the password
    checks want); buttons keep their on state and both appearances of it."""
    blank = os.path.join(folder, "blank.pdf")
    result = run_script(args, folder, "blank.json", [{"new": {}}], "--out", blank)
    if not check(result.returncode == 0, "blank: " + result.stderr):
        return
    widgets, nowhere = corpus_widgets(args)

    def one(item):
        name, field, k, page, editable = item
        source = os.path.join(args.corpus, name)
        where = "%s of %s, widget %d" % (field, name, k)
        copied = qfforms(args.qfforms, "copy", source, "--field", field, "--widget", k)
        if copied.returncode != 0:
            return [where + ": copy: " + copied.stderr.strip()], 0
        record = json.loads(copied.stdout)
        problems, pastes = [], 0
        tag = "%s-%s-%d" % (name, abs(hash(field)), k)
        for target, on_page, into in ((blank, 0, "new"), (source, page, "own")):
            out = os.path.join(folder, "%s-%s.pdf" % (tag, into))
            result = run([args.qfforms, "paste", target, "--page", str(on_page), "--out", out,
                          "--break-signatures"], input=copied.stdout)
            pastes += 1
            if into == "own" and not editable:
                if "permissions do not allow changing its form" not in result.stderr:
                    problems.append("%s: pasted into a form locked for changes: %r" %
                                    (where, result.stderr))
                continue
            if result.returncode != 0:
                problems.append("%s: paste into %s document: %s" % (where, into,
                                                                   result.stderr.strip()))
                continue
            # A new field: the copied name where no field bears it, else the next free one.
            got = pasted_name(result)
            if into == "new" and record["name"] and got != record["name"]:
                problems.append("%s: pasted into a new document as %r" % (where, got))
            if into == "own" and not (got or "").startswith(record["name"] + "_"):
                problems.append("%s: pasted into its own document as %r" % (where, got))
            if into == "new" and record["field-type"] == 74 and record.get("option-value"):
                problems += button_states(out, record, where)
            os.remove(out)
        return problems, pastes

    from concurrent.futures import ThreadPoolExecutor
    with ThreadPoolExecutor(max_workers=2) as pool:
        results = list(pool.map(one, widgets))
    pastes = sum(n for _, n in results)
    for problems, _ in results:
        for problem in problems:
            check(False, problem)
    check(len(widgets) > 900 and pastes == 2 * len(widgets),
          "corpus: %d widgets, %d pastes" % (len(widgets), pastes))
    print("corpus: %d widgets copied, %d pastes (%d refused into forms locked for changes), "
          "%d failed; %d widgets on no page left out" %
          (len(widgets), pastes, sum(1 for w in widgets if not w[4]),
           sum(len(p) for p, _ in results), nowhere))


def button_states(path, record, where):
    """The pasted check box or radio button has the record's on state, drawn on and off in
    its normal and down appearances, and is on when the record's value is that state."""
    widget = widgets_of(path)[0][1]
    on = "/" + record["option-value"]
    problems = []
    for which in ("/N", "/D"):
        states = sorted(resolved(resolved(widget["/AP"])[which]).keys())
        if states != sorted([on, "/Off"]):
            problems.append("%s: %s states %s, not %s and /Off" % (where, which, states, on))
    want = on if record["field-value"] == record["option-value"] else "/Off"
    if widget.get("/AS") != want:
        problems.append("%s: /AS %s, not %s" % (where, widget.get("/AS"), want))
    return problems


# ---- records --------------------------------------------------------------------------------


def check_records(args, folder):
    out = lambda name: os.path.join(folder, name)
    made = out("all-kinds.pdf")
    result = run([args.qfforms, "run", args.example, "--out", made])
    if not check(result.returncode == 0, "the example: " + result.stderr):
        return
    result = qfforms(args.qfforms, "copy", made, "--field", "Text1")
    if not check(result.returncode == 0, "copy: " + result.stderr):
        return
    good = json.loads(result.stdout)

    def without(key):
        record = dict(good)
        del record[key]
        return json.dumps(record)

    # The program's sentence names the key; a record of the format that the module still
    # refuses (a selection index past 32 bits) gives the module's text as the detail.
    dashed = dict(good, **{"border-style": dict(good["border-style"], **{"dash-array": ["x"]})})
    huge = dict(good, **{"field-type": 93, "choise-selection-index": "9999999999"})
    cases = [
        ("[]", "the record must be a JSON object of a widget's keys, not a list"),
        ("5", "the record must be a JSON object of a widget's keys, not 5"),
        ("{\"Rect\": ", "the record is not JSON (parse error at line 1, column 10"),
        ("{}", 'the record lacks "Rect"'),
        (without("Rect"), 'the record lacks "Rect", which must be an object'),
        (without("mouse-up"), 'the record lacks "mouse-up"'),
        (json.dumps(dashed), "the record's border-style.dash-array[0] must be a number from 0 "
                             "to 1000, not \"x\""),
        (json.dumps(huge), "could not make a widget of the record (the forms module: stoull "
                           "argument out of range)"),
    ]
    before = form_of(made)
    for record, text in cases:
        target = out("never.pdf")
        result = run([args.qfforms, "paste", made, "--page", "0", "--out", target], input=record)
        check(result.returncode == 1 and text in result.stderr,
              "record %.40r: exit %d, %r" % (record, result.returncode, result.stderr))
        check(not os.path.exists(target), "record %.40r: an output was written" % record)

        # The same through a session that goes on: the document is as it was.
        write_clipboard(out("clipboard.json"), record)
        result = run_script(args, folder, "bad.json", [{"open": "all-kinds.pdf"},
                                                       {"paste": {"page": 0}}],
                            "--out", out("kept.pdf"), "--keep-going",
                            env=dict(os.environ, QF_CLIPBOARD=out("clipboard.json")))
        check(result.returncode == 1, "record %.40r in a session: exit %d" % (record,
                                                                             result.returncode))
        check(form_of(out("kept.pdf")) == before, "record %.40r left something behind" % record)

    for bad in (["copy", made], ["copy", made, "--field"], ["paste", made, "--page", "x"],
                ["paste", made, "--page", "0"], ["copy", made, "--field", "A", "--frob", "1"]):
        result = qfforms(args.qfforms, *bad)
        check(result.returncode == 2, "usage %s: exit %d" % (bad, result.returncode))
    result = qfforms(args.qfforms, "copy", made, "--field", "Nope")
    check(result.returncode == 1 and 'no field is named "Nope"' in result.stderr,
          "copy of no field: %r" % result.stderr)
    result = run([args.qfforms, "paste", made, "--page", "7", "--out", out("never.pdf")],
                 input=json.dumps(good))
    check(result.returncode == 1 and "no page 7" in result.stderr, "paste past the pages")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--qfforms", required=True)
    parser.add_argument("--example", required=True)
    parser.add_argument("--docs", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("check", choices=["edit", "clipboard", "corpus", "records"])
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        os.environ["XDG_CONFIG_HOME"] = os.path.join(folder, "config")
        # Never the user's own clipboard file, nor the desktop's clipboard.
        os.environ["QF_CLIPBOARD"] = os.path.join(folder, "default-clipboard.json")
        for name in ("WAYLAND_DISPLAY", "DISPLAY"):
            os.environ.pop(name, None)
        {"edit": check_edit, "clipboard": check_clipboard, "corpus": check_corpus,
         "records": check_records}[args.check](args, folder)
    return report(args.check)


if __name__ == "__main__":
    sys.exit(main())
