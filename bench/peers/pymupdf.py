#!/usr/bin/python3
"""The W1 and W2 workloads of bench/workloads.py done with PyMuPDF (Debian's python3-fitz,
1.21.1), as its users would: Page.add_widget for every widget, Widget.update for every
change, and a plain Document.save (no garbage collection, no deflate options).

    /usr/bin/python3 bench/peers/pymupdf.py w1 PAGES FIELDS OUT.pdf
    /usr/bin/python3 bench/peers/pymupdf.py w2 IN.pdf OUT.pdf

What PyMuPDF cannot do, and what is done instead by editing the objects directly
(xref_set_key):
- every widget it adds is a field of its own: the three radio buttons of a group are
  joined under a new parent field. The buttons keep the look MuPDF drew for them, a check
  mark, and all have the on-state "Yes" (no API chooses it).
- Widget.update renames only a widget's own /T: on a widget with a parent field (radio
  buttons, and every field of a file whose fields keep their widgets apart) it would make
  a new field under the old one. W2 renames such a parent at its /T.
- Widget.update writes /Ff 0 whatever field_flags says (fixed in PyMuPDF 1.22), which
  makes a push button a check box: W1 sets the button's /Ff and caption (/MK /CA) and has
  MuPDF draw it again with Annot.update; W2 renames push buttons through /T only.

MuPDF makes every new widget and every Widget.update slower as the document grows (the
unsigned-signature look most of all), so neither workload is linear in the fields.

Debian's build (SWIG 4.1) crashes when an Annot object is freed while more are being
made ("'SwigPyObject' object has no attribute 'thisown'"), so every Annot and Widget is
kept alive until the document is saved, and the process ends with os._exit.
"""

import collections
import os
import sys

import fitz

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import workloads  # noqa: E402

TYPES = {
    "text": (fitz.PDF_WIDGET_TYPE_TEXT, 0),
    "checkbox": (fitz.PDF_WIDGET_TYPE_CHECKBOX, 0),
    "radio": (fitz.PDF_WIDGET_TYPE_RADIOBUTTON, fitz.PDF_BTN_FIELD_IS_RADIO),
    "combo": (fitz.PDF_WIDGET_TYPE_COMBOBOX, fitz.PDF_CH_FIELD_IS_COMBO),
    "list": (fitz.PDF_WIDGET_TYPE_LISTBOX, 0),
    "button": (fitz.PDF_WIDGET_TYPE_BUTTON, fitz.PDF_BTN_FIELD_IS_PUSHBUTTON),
    "signature": (fitz.PDF_WIDGET_TYPE_SIGNATURE, 0),
}
NAMES = {"text": "Text", "checkbox": "CheckBox", "radio": "RadioGroup", "combo": "ComboBox",
         "list": "ListBox", "button": "PrintButton", "signature": "Signature"}


def refs(xrefs):
    return "[%s]" % " ".join("%d 0 R" % x for x in xrefs)


def join_radio_group(doc, name, kids):
    """Makes the widgets `kids` (xrefs) the buttons of one new radio field `name`."""
    parent = doc.get_new_xref()
    doc.update_object(parent, "<</FT/Btn/Ff %d/T%s/V/Off/Kids%s>>" % (
        fitz.PDF_BTN_FIELD_IS_RADIO, fitz.get_pdf_str(name), refs(kids)))
    for kid in kids:
        for key in ("T", "FT", "Ff", "V"):
            doc.xref_set_key(kid, key, "null")
        doc.xref_set_key(kid, "Parent", "%d 0 R" % parent)
    return parent


def make_push_button(doc, annot):
    """Turns the check box that add_widget made of a push button back into one."""
    doc.xref_set_key(annot.xref, "Ff", str(fitz.PDF_BTN_FIELD_IS_PUSHBUTTON))
    doc.xref_set_key(annot.xref, "MK/CA", fitz.get_pdf_str("Print"))
    doc.xref_set_key(annot.xref, "AS", "null")
    annot.update()  # a new /AP /N: the caption on the button


def w1(pages, fields, out):
    doc = fitz.open()
    for _ in range(pages):
        doc.new_page(width=workloads.PAGE[0], height=workloads.PAGE[1])
    page_list = [doc[p] for p in range(pages)]  # new_page orphans earlier Page objects
    height = workloads.PAGE[1]
    counts = collections.Counter()
    keep = []
    top_level = []  # the xrefs of /AcroForm /Fields, in order of creation
    for kind, p, rects in workloads.layout(pages, fields):
        counts[kind] += 1
        name = NAMES[kind] + str(counts[kind])
        made = []
        for x0, y0, x1, y1 in rects:
            widget = fitz.Widget()
            widget.field_type, widget.field_flags = TYPES[kind]
            widget.field_name = name
            widget.rect = fitz.Rect(x0, height - y1, x1, height - y0)  # y grows downwards
            widget.border_color, widget.border_width = (0, 0, 0), 1  # none by default
            if kind in ("combo", "list"):
                widget.choice_values = workloads.OPTIONS
            elif kind == "button":
                widget.button_caption = "Print"
                widget.script = workloads.SCRIPT
            annot = page_list[p].add_widget(widget)
            keep.append(annot)
            if kind == "button":
                make_push_button(doc, annot)
            made.append(annot.xref)
        top_level.append(join_radio_group(doc, name, made) if kind == "radio" else made[0])
    doc.xref_set_key(doc.pdf_catalog(), "AcroForm/Fields", refs(top_level))
    doc.save(out)


def w2(path, out):
    doc = fitz.open(path)
    keep = []
    renamed = set()
    for page in doc:
        keep.append(page)
        for widget in page.widgets():
            keep.append(widget)
            name = workloads.RENAME_PREFIX + widget.field_name
            kind, value = doc.xref_get_key(widget.xref, "Parent")
            if kind == "xref":  # the parent field carries the name
                parent = int(value.split()[0])
                if parent not in renamed:
                    renamed.add(parent)
                    doc.xref_set_key(parent, "T", fitz.get_pdf_str(name))
            elif widget.field_type == fitz.PDF_WIDGET_TYPE_BUTTON:
                doc.xref_set_key(widget.xref, "T", fitz.get_pdf_str(name))
            else:
                widget.field_name = name
                widget.update()
    doc.save(out)


if __name__ == "__main__":
    if len(sys.argv) == 5 and sys.argv[1] == "w1":
        w1(int(sys.argv[2]), int(sys.argv[3]), sys.argv[4])
    elif len(sys.argv) == 4 and sys.argv[1] == "w2":
        w2(sys.argv[2], sys.argv[3])
    else:
        sys.exit("usage: pymupdf.py w1 PAGES FIELDS OUT.pdf | w2 IN.pdf OUT.pdf")
    # Leave without tearing down: at exit Debian's build prints a "memory leak" line to
    # stdout for every Annot that was kept alive.
    sys.stdout.flush()
    os._exit(0)
