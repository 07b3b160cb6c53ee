#!/usr/bin/python3
"""Tests of editing and of the widget clipboard through `qfforms run`, `copy` and `paste`.

    edit_sessions.py --qfforms BIN --example SCRIPT --docs SCRIPTING_MD --corpus DIR CHECK

CHECK is one of:
  edit       select, drag, nudge, resize and delete widgets of real forms (also on a turned
             page at zoom 2), undo and redo them; the editing example of the docs runs
  clipboard  copy a widget of every field type into another document and compare what
             pypdf reads; clipboard file across runs, duplicates, naming, Cut
  records    bad records fail cleanly and leave nothing behind

Run with Debian's /usr/bin/python3 (python3-pypdf). Exit status 0 when every check passed.
"""

import argparse
import json
import os
import re
import shutil
import sys
import tempfile

from pypdf import PdfReader, PdfWriter
from pypdf.generic import DictionaryObject, NameObject, TextStringObject

from run_sessions import (check, dark_pixels, failures, field_of, form_of, full_name, qfforms,
                          render_gray, resolved, run, to_pixels, write_script)


def run_script(args, folder, name, steps, *options, env=None):
    path = write_script(folder, name, steps)
    return run([args.qfforms, "run", path, *options], env=env)


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


# ---- edit -----------------------------------------------------------------------------------


def check_edit(args, folder):
    # A real form: move, nudge, resize from a corner grip, delete, then all of it undone.
    form = os.path.join(folder, "form.pdf")
    shutil.copyfile(os.path.join(args.corpus, "qpdf-field-types.pdf"), form)
    original = form_of(form)
    start = rect_of(form, 0, "text")[0]
    at = centre(start)
    moved = shifted(start, 30, -20)
    steps = [
        {"open": "form.pdf"},
        {"select": {"page": 0, "at": at}},
        {"drag": {"page": 0, "from": at, "to": [at[0] + 30, at[1] - 20]}},
        {"save": "moved.pdf"},
        {"key": {"code": 39}},
        {"save": "nudged.pdf"},
        {"drag": {"page": 0, "from": [moved[2] + 10, moved[3]], "to": [moved[2] + 30, moved[3] + 5]}},
        {"save": "resized.pdf"},
        {"key": {"code": 46}},
        {"save": "deleted.pdf"},
        {"undo": 4}, {"save": "undone.pdf"},
        {"redo": 4}, {"save": "redone.pdf"},
    ]
    result = run_script(args, folder, "form-edit.json", steps)
    if not check(result.returncode == 0, "edit form: exit %d: %s" % (result.returncode,
                                                                     result.stderr)):
        return
    out = lambda name: os.path.join(folder, name)
    check(close(rect_of(out("moved.pdf"), 0, "text")[0], moved),
          "edit form: drag gives %s" % rect_of(out("moved.pdf"), 0, "text"))
    nudged = shifted(moved, 10, 0)
    check(close(rect_of(out("nudged.pdf"), 0, "text")[0], nudged), "edit form: the right arrow")
    resized = [nudged[0], nudged[1], nudged[2] + 20, nudged[3] + 5]
    check(close(rect_of(out("resized.pdf"), 0, "text")[0], resized),
          "edit form: the top-right grip gives %s" % rect_of(out("resized.pdf"), 0, "text"))
    deleted = form_of(out("deleted.pdf"))
    check("text" not in deleted["fields"] and not rect_of(out("deleted.pdf"), 0, "text"),
          "edit form: Delete left the widget or its emptied field")
    check(len(deleted["fields"]) == len(original["fields"]) - 1, "edit form: other fields lost")
    check(form_of(out("undone.pdf")) == original, "edit form: undoing does not give the form back")
    check(form_of(out("redone.pdf")) == deleted, "edit form: redoing does not delete again")
    qpdf = run(["qpdf", "--check", out("resized.pdf")])
    check(qpdf.returncode == 0, "edit form: qpdf --check: " + qpdf.stdout)

    # A page shown turned by 90 degrees at zoom 2: the widget follows the pointer in page
    # space, "right" on the screen is up the page, and a drag off the page is pulled back.
    turned = os.path.join(folder, "turned.pdf")
    shutil.copyfile(os.path.join(args.corpus, "pdfbox-rotated-page-widget-rotation.pdf"), turned)
    name = "acrobat.page90.single.rotation90"
    start = rect_of(turned, 1, name)[0]
    at = centre(start)
    steps = [
        {"open": "turned.pdf"}, {"view": {"zoom": 2}},
        {"select": {"page": 1, "at": at}},
        {"drag": {"page": 1, "from": at, "to": [at[0] + 15, at[1] + 25]}},
        {"save": "turned-moved.pdf"},
        {"key": {"code": 39}},
        {"save": "turned-nudged.pdf"},
        {"drag": {"page": 1, "from": [at[0] + 15, at[1] + 35], "to": [-3000, at[1] + 35]}},
        {"save": "turned-off.pdf"},
        {"undo": 3}, {"save": "turned-undone.pdf"},
    ]
    result = run_script(args, folder, "turned.json", steps)
    if check(result.returncode == 0, "turned: exit %d: %s" % (result.returncode, result.stderr)):
        got = rect_of(out("turned-moved.pdf"), 1, name)[0]
        check(close(got, shifted(start, 15, 25)), "turned: drag gives %s" % got)
        got = rect_of(out("turned-nudged.pdf"), 1, name)[0]
        check(close(got, shifted(start, 15, 35)), "turned: the right arrow gives %s" % got)
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
        page = PdfReader(made).pages[0]
        image = render_gray(made, folder, 0, 72)
        box = to_pixels(rect, page, 72)
        check(dark_pixels(image, box, 230) >= 100, "made: nothing drawn at the new place")
        old = to_pixels([72, 698, 272, 720], page, 72)
        check(dark_pixels(image, old, 230) == 0, "made: still drawn at the old place")

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
    # Pasted into the form it came from, the widget joins its field as the last widget.
    pasted = widget_of(out, name, -1)
    if not check(pasted is not None, where + ": pasted as %r" % result.stdout):
        return None
    want, got = look(widget_of(source, name), False), look(pasted, False)
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

    # Within one run the font travels too; a record taken to a document where its name
    # belongs to another kind gets a fresh name; the same kind joins the field.
    clipboard = out("clipboard.json")
    env = dict(os.environ, QF_CLIPBOARD=clipboard)
    steps = [
        {"open": "all-kinds.pdf"},
        {"select": {"page": 0, "at": [100, 710]}},
        {"edit": "Copy"},
        {"open": "blank.pdf"},
        {"paste": {"page": 0}},
        {"paste": {"page": 0}},
        {"tool": "CheckBoxCreate"},
        {"set": {"property": "FieldName", "value": "Other"}},
        {"click": {"page": 0, "at": [300, 300]}},
        {"save": "joined.pdf"},
    ]
    result = run_script(args, folder, "same-run.json", steps, env=env)
    if check(result.returncode == 0, "same run: " + result.stderr):
        want = look(widget_of(made, "Text1"), True)
        for index in (0, 1):
            got = widget_of(out("joined.pdf"), "Text1", index)
            if check(got is not None, "same run: paste %d missing" % index):
                same_look(dict(want), look(got, True), "same run: paste %d" % index)
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
        rects = rect_of(out("pasted-cut.pdf"), 0, "ComboBox1")
        check(rects == [[72, 588, 250, 610], [82, 578, 260, 600]],
              "paste after cut: widgets at %s" % rects)
        with open(clipboard, "rb") as f:
            check(f.read() == cut, "DuplicateCopy changed the system clipboard")


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

    dashed = dict(good, **{"border-style": dict(good["border-style"], **{"dash-array": ["x"]})})
    cases = [
        ("[]", "type must be object, but is array"),
        ("5", "type must be object, but is number"),
        ("{\"Rect\": ", "parse error"),
        ("{}", "holds no widget"),
        (without("Rect"), "invalid map<K, T> key"),
        (without("mouse-up"), "invalid map<K, T> key"),
        (json.dumps(dashed), "[json.exception.type_error.302] type must be number, but is string"),
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
    parser.add_argument("check", choices=["edit", "clipboard", "records"])
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        os.environ["XDG_CONFIG_HOME"] = os.path.join(folder, "config")
        # Never the user's own clipboard file, nor the desktop's clipboard.
        os.environ["QF_CLIPBOARD"] = os.path.join(folder, "default-clipboard.json")
        for name in ("WAYLAND_DISPLAY", "DISPLAY"):
            os.environ.pop(name, None)
        {"edit": check_edit, "clipboard": check_clipboard, "records": check_records}[args.check](
            args, folder)
    for f in failures:
        print("FAIL:", f)
    print("%s: %s" % (args.check, "ok" if not failures else "%d failures" % len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
