"""The whole-process workloads, defined once for us and for the peers: where W1 puts each
field, what each kind must carry, and the checks every output has to pass so that no
program wins by doing less.

W1 (author): a new document of P US Letter pages; field i goes to page i % P, into cell
i // P of a grid of 10 x 34 cells of 58 x 22 points from the top left of the page, and is
of kind KINDS[i % 7]:
  text        a text field, 50 x 16
  checkbox    a check box, 14 x 14
  radio       a radio group of 3 buttons of 14 x 14 side by side, 17 points apart
  combo       a combo box, 50 x 16, options One, Two, Three
  list        a list box, 50 x 16, options One, Two, Three
  button      a push button, 50 x 16, caption Print, JavaScript action this.print(true);
  signature   a signature field, 50 x 16
Every widget but the signature's has a normal appearance.

W2 (rename): W1's output reopened; every field F renamed to F + "_x"; saved.
"""

import collections
import subprocess

from pypdf import PdfReader

KINDS = ["text", "checkbox", "radio", "combo", "list", "button", "signature"]
OPTIONS = ["One", "Two", "Three"]
SCRIPT = "this.print(true);"
PAGE = (612, 792)
COLUMNS, ROWS = 10, 34
RENAME_SUFFIX = "_x"

RADIO, PUSH, COMBO = 1 << 15, 1 << 16, 1 << 17


def layout(pages, fields):
    """(kind, page, [rect, ...]) of every field in order; rects are [x0, y0, x1, y1]."""
    if fields > pages * COLUMNS * ROWS:
        raise ValueError("%d fields do not fit on %d pages" % (fields, pages))
    for i in range(fields):
        kind = KINDS[i % len(KINDS)]
        slot = i // pages
        x = 20 + (slot % COLUMNS) * 58
        top = 770 - (slot // COLUMNS) * 22
        if kind == "checkbox":
            rects = [[x, top - 14, x + 14, top]]
        elif kind == "radio":
            rects = [[x + 17 * j, top - 14, x + 17 * j + 14, top] for j in range(3)]
        else:
            rects = [[x, top - 16, x + 50, top]]
        yield kind, i % pages, rects


def expected_kinds(fields, skip=()):
    return collections.Counter(k for k in (KINDS[i % len(KINDS)] for i in range(fields))
                               if k not in skip)


def check_file(path):
    check = subprocess.run(["qpdf", "--check", path], capture_output=True, text=True)
    if check.returncode not in (0, 3):  # 3: warnings only
        raise AssertionError("qpdf --check %s: %s" % (path, check.stdout[-500:]))


def _resolved(obj):
    return obj.get_object() if obj is not None else None


def _script_text(js):
    """The text of a /JS entry, which is a text string or a stream."""
    if hasattr(js, "get_data"):
        return js.get_data().decode("latin-1")
    return str(js)


def _kind(field):
    """The W1 kind of a terminal field dictionary, or a text naming what it is."""
    ft = field.get("/FT")
    flags = int(field.get("/Ff", 0))
    if ft == "/Tx":
        return "text"
    if ft == "/Sig":
        return "signature"
    if ft == "/Ch":
        return "combo" if flags & COMBO else "list"
    if ft == "/Btn":
        if flags & PUSH:
            return "button"
        return "radio" if flags & RADIO else "checkbox"
    return str(ft)


def _widgets(field):
    kids = field.get("/Kids")
    if kids is None:
        return [field]
    return [_resolved(k) for k in kids]


def _terminal_fields(reader):
    """(fully qualified name, field dictionary with inherited /FT and /Ff) of every
    terminal field."""
    out = []

    def walk(ref, parent_name, inherited):
        field = _resolved(ref)
        partial = field.get("/T")
        name = parent_name if partial is None else (
            str(partial) if not parent_name else parent_name + "." + str(partial))
        attrs = dict(inherited)
        for key in ("/FT", "/Ff"):
            if key in field:
                attrs[key] = field[key]
        kids = field.get("/Kids")
        if kids is not None and any("/T" in _resolved(k) for k in kids):
            for k in kids:
                walk(k, name, attrs)
            return
        view = dict(field)
        view.update(attrs)
        out.append((name, view))

    acro = reader.trailer["/Root"].get("/AcroForm")
    for ref in (_resolved(acro).get("/Fields", []) if acro is not None else []):
        walk(ref, "", {})
    return out


def verify_w1(path, fields, skip=(), names=None):
    """Checks a W1 output of `fields` fields (less the kinds in skip, which the program
    cannot make); with names, also that the field names are exactly those. Returns the
    number of widgets of every field by name."""
    check_file(path)
    reader = PdfReader(path)
    found = collections.Counter()
    widgets_on_pages = sum(
        1 for page in reader.pages for a in (_resolved(page.get("/Annots")) or [])
        if _resolved(a).get("/Subtype") == "/Widget")
    widget_count = 0
    seen = {}
    for name, field in _terminal_fields(reader):
        kind = _kind(field)
        found[kind] += 1
        widgets = _widgets(field)
        if name in seen:
            raise AssertionError("%s: two fields are named %s" % (path, name))
        seen[name] = len(widgets)
        widget_count += len(widgets)
        want = 3 if kind == "radio" else 1
        if len(widgets) != want:
            raise AssertionError("%s: %s %s has %d widgets, not %d" %
                                 (path, kind, name, len(widgets), want))
        for w in widgets:
            if kind != "signature" and "/N" not in (_resolved(w.get("/AP")) or {}):
                raise AssertionError("%s: a widget of %s has no appearance" % (path, name))
        if kind in ("combo", "list"):
            opt = [o if isinstance(o, str) else o[1] for o in field.get("/Opt", [])]
            if [str(o) for o in opt] != OPTIONS:
                raise AssertionError("%s: %s has options %s" % (path, name, opt))
        if kind == "button":
            action = _resolved(widgets[0].get("/A") or field.get("/A"))
            if action is None or action.get("/S") != "/JavaScript" or \
                    "print" not in _script_text(_resolved(action.get("/JS"))):
                raise AssertionError("%s: push button %s has no print script" % (path, name))
    if found != expected_kinds(fields, skip):
        raise AssertionError("%s holds %s, not %s" % (path, dict(found),
                                                      dict(expected_kinds(fields, skip))))
    if widget_count != widgets_on_pages:
        raise AssertionError("%s: %d widgets in the fields, %d on the pages" %
                             (path, widget_count, widgets_on_pages))
    if names is not None and sorted(seen) != sorted(names):
        raise AssertionError("%s: the field names are not the expected ones" % path)
    return seen


def verify_w2(path, fields, before, skip=()):
    """Checks a W2 output: W1's fields, each renamed to its old name + RENAME_SUFFIX."""
    return verify_w1(path, fields, skip, [n + RENAME_SUFFIX for n in before])
