#!/usr/bin/python3
"""Field properties set through `qfforms run` ("property" steps) on a real form.

    property_sessions.py --qfforms BIN --corpus DIR CHECK

CHECK is one of:
  several   one step sets a property on several widgets (and a field's once for widgets of
            one field); pypdf and poppler read the result; one undo gives back the file
            byte for byte, a redo the changed one
  refusals  each bad value stops the run with its sentence (in English and in Japanese)
            and writes nothing

Run with Debian's /usr/bin/python3 (python3-pypdf). Exit status 0 when every check passed.
"""

import argparse
import os
import subprocess
import sys
import tempfile

from pypdf import PdfReader

from run_sessions import check, failures, field_of, report, run_script

FORM = "qpdf-field-types.pdf"


def widgets(path):
    """Page 0's widgets by field name (several for a radio group), as pypdf reads them."""
    out = {}
    for ref in PdfReader(path).pages[0]["/Annots"]:
        w = ref.get_object()
        out.setdefault(str(field_of(w)["/T"]), []).append(w)
    return out


def read(folder, name):
    with open(os.path.join(folder, name), "rb") as f:
        return f.read()


def check_several(args, folder):
    form = os.path.join(args.corpus, FORM)
    texts = [{"field": "text"}, {"field": "text2"}]
    steps = [
        # A property that is so already changes nothing, but looks up its widget's page,
        # which lets qpdf move what the pages inherit onto them: the file as it was is the
        # file after that.
        {"open": form}, {"property": {"id": "readOnly", "value": False, "widgets": texts}},
        {"save": "original.pdf"},
        {"property": {"id": "borderColor", "value": "#0000ff",
                      "widgets": texts + [{"field": "checkbox1"}]}},
        {"property": {"id": "required", "value": True,
                      "widgets": [{"field": "r1", "widget": 0}, {"field": "r1", "widget": 2}]}},
        {"property": {"id": "glyph", "value": "star",
                      "widgets": [{"field": "checkbox2"}, {"field": "checkbox3"}]}},
        {"save": "changed.pdf"},
        {"undo": 3}, {"save": "undone.pdf"},
        {"redo": 3}, {"save": "redone.pdf"},
    ]
    result = run_script(args, folder, "several.json", steps)
    if not check(result.returncode == 0, "several: exit %d: %s" % (result.returncode,
                                                                   result.stderr)):
        return
    check(read(folder, "undone.pdf") == read(folder, "original.pdf"),
          "several: three undos do not give back the file byte for byte")
    check(read(folder, "redone.pdf") == read(folder, "changed.pdf"),
          "several: three redos do not give back the changed file")

    changed = os.path.join(folder, "changed.pdf")
    ws = widgets(changed)
    for name in ("text", "text2", "checkbox1"):
        bc = [float(v) for v in ws[name][0]["/MK"]["/BC"]]
        check(bc == [0, 0, 1], "several: %s has border colour %s" % (name, bc))
    check(ws["checkbox2"][0]["/MK"]["/CA"] == "H" and ws["checkbox3"][0]["/MK"]["/CA"] == "H",
          "several: the check boxes do not draw a star")
    # The glyph is drawn: the on state's stream shows ZapfDingbats' H.
    on = ws["checkbox2"][0]["/AP"]["/N"]["/Yes"].get_object().get_data()
    check(b"(H) Tj" in on, "several: the on state does not draw the star: %r" % on[:200])
    flags = int(field_of(ws["r1"][0]).get("/Ff", 0))
    check(flags & 2 and flags & 0x8000, "several: r1's flags are %#x" % flags)
    untouched = int(field_of(ws["r2"][0]).get("/Ff", 0))
    check(not untouched & 2, "several: r2 became required")
    # The changed file draws in poppler (which complains of the form's own fonts already:
    # the file asks readers to draw its fields anew).
    drawn = subprocess.run(["pdftoppm", "-r", "20", "-png", changed, os.path.join(folder, "p")],
                           capture_output=True, text=True, timeout=120)
    check(drawn.returncode == 0 and os.path.exists(os.path.join(folder, "p-1.png")),
          "several: pdftoppm: %s" % drawn.stderr)


REFUSALS = [
    # (steps before, property step, English sentence, Japanese sentence)
    ([{"property": {"id": "value", "value": "hello world", "widgets": [{"field": "text"}]}}],
     {"id": "maxLength", "value": 4, "widgets": [{"field": "text"}]},
     "The maximum length cannot be shorter than the field's value (11 characters).",
     "最大文字数をフィールドの値（11 文字）より短くすることはできません。"),
    ([], {"id": "comb", "value": True, "widgets": [{"field": "text"}]},
     "A comb field needs a maximum length.",
     "コーム形式のフィールドには最大文字数の指定が必要です。"),
    ([{"property": {"id": "maxLength", "value": 8, "widgets": [{"field": "text"}]}},
      {"property": {"id": "password", "value": True, "widgets": [{"field": "text"}]}}],
     {"id": "comb", "value": True, "widgets": [{"field": "text"}]},
     "A comb field cannot be multiline, a password or a field that does not scroll.",
     "コーム形式のフィールドは、複数行、パスワード、スクロールしないフィールドにはできません。"),
    ([], {"id": "exportValue", "value": "3", "widgets": [{"field": "r2", "widget": 0}]},
     "Another widget of this field has the export value \"3\".",
     "このフィールドの別のウィジェットが既に書き出し値「3」を使用しています。"),
    ([], {"id": "borderWidth", "value": 13, "widgets": [{"field": "list1"}]},
     "The border width must be from 0 to 12 points.",
     "境界線の幅は 0～12 ポイントで指定してください。"),
    ([], {"id": "alignment", "value": "justified", "widgets": [{"field": "drop1"}]},
     "\"justified\" is not one of the choices.",
     "「justified」は選択肢にありません。"),
]


def check_refusals(args, folder):
    form = os.path.join(args.corpus, FORM)
    for i, (before, step, english, japanese) in enumerate(REFUSALS):
        for lang, sentence in (("en", english), ("ja", japanese)):
            out = os.path.join(folder, "never-%d-%s.pdf" % (i, lang))
            result = run_script(args, folder, "refused.json",
                                [{"open": form}, *before, {"property": step}],
                                "--out", out, "--lang", lang)
            check(result.returncode != 0 and sentence in result.stderr,
                  "refusals: %s (%s): exit %d: %s" % (step["id"], lang, result.returncode,
                                                      result.stderr))
            check(not os.path.exists(out), "refusals: %s wrote its output" % step["id"])


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--qfforms", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("check", choices=["several", "refusals"])
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        os.environ["XDG_CONFIG_HOME"] = os.path.join(folder, "config")
        {"several": check_several, "refusals": check_refusals}[args.check](args, folder)
    return report(args.check)


if __name__ == "__main__":
    sys.exit(main())
