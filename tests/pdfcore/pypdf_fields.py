#!/usr/bin/python3
"""Lists the terminal form fields of a PDF as pypdf reads it, for the pdfcore tests.

Usage: /usr/bin/python3 pypdf_fields.py FILE.pdf [PASSWORD]
Prints one JSON object:
  {"pages": n, "encrypted": bool, "order": [full names in tree order],
   "fields": {full name: {"type": "Tx"|"Btn"|"Ch"|"Sig"|null, "flags": int,
                          "value": text|[texts]|"<dict>"|null,
                          "options": [[export, display], ...] | null,
                          "widgets": n, "merged": bool (the field is its one widget),
                          "pages": [page index of each widget, -1 if on none]}}}
Exits 2 when the file cannot be read. The walk goes over pypdf's objects and is written here
independently of pdfcore: a terminal field is a node of the /AcroForm /Fields tree without
kids that are fields (kids with /T, or non-widget kids with /Kids); /FT, /Ff, /V and /Opt are
inherited; the widgets are the remaining kids, or the node itself when it is a widget.
"""
import json
import logging
import sys
import warnings

warnings.filterwarnings("ignore")
logging.disable(logging.CRITICAL)

from pypdf import PdfReader  # noqa: E402
from pypdf.generic import (  # noqa: E402
    ArrayObject,
    ByteStringObject,
    DictionaryObject,
    IndirectObject,
    NameObject,
    TextStringObject,
)


def resolve(o):
    for _ in range(32):
        if not isinstance(o, IndirectObject):
            return o
        o = o.get_object()
    return None


def text(o):
    o = resolve(o)
    if o is None:
        return None
    if isinstance(o, NameObject):
        return str(o)[1:]  # pypdf has decoded the #xx escapes (as UTF-8)
    if isinstance(o, TextStringObject):
        return str(o)
    if isinstance(o, ByteStringObject):
        if o[:2] == b"\xfe\xff":
            return bytes(o[2:]).decode("utf-16-be", "replace")
        return bytes(o).decode("latin-1")
    if isinstance(o, DictionaryObject):
        return "<dict>"
    return str(o)


def value(o):
    o = resolve(o)
    if isinstance(o, ArrayObject):
        return [text(x) for x in o]
    return text(o)


def options(o):
    o = resolve(o)
    if not isinstance(o, ArrayObject):
        return None
    out = []
    for item in o:
        item = resolve(item)
        if isinstance(item, ArrayObject) and len(item) >= 2:
            out.append([text(item[0]), text(item[1])])
        else:
            t = text(item)
            out.append([t, t])
    return out


def is_widget(d):
    return isinstance(d, DictionaryObject) and resolve(d.get("/Subtype")) == "/Widget"


def is_field_kid(d):
    if not isinstance(d, DictionaryObject):
        return False
    if isinstance(resolve(d.get("/T")), (TextStringObject, ByteStringObject)):
        return True
    return not is_widget(d) and isinstance(resolve(d.get("/Kids")), ArrayObject)


def main():
    path = sys.argv[1]
    try:
        reader = PdfReader(path, strict=False)
        encrypted = reader.is_encrypted
        if encrypted and not reader.decrypt(sys.argv[2] if len(sys.argv) > 2 else ""):
            raise ValueError("the password is wrong")
        root = resolve(reader.trailer["/Root"])
        pages = reader.pages
        page_of = {}
        for index, page in enumerate(pages):
            for annot in resolve(page.get("/Annots")) or []:
                if isinstance(annot, IndirectObject):
                    page_of.setdefault((annot.idnum, annot.generation), index)
    except Exception as e:  # noqa: BLE001
        print(json.dumps({"error": "%s: %s" % (type(e).__name__, e)}))
        sys.exit(2)

    fields = {}
    order = []
    seen = set()

    def walk(ref, parent_name, inherited, depth):
        node = resolve(ref)
        if not isinstance(node, DictionaryObject) or depth > 64:
            return
        key = (ref.idnum, ref.generation) if isinstance(ref, IndirectObject) else id(node)
        if key in seen:
            return
        seen.add(key)
        inherited = dict(inherited)
        for k in ("/FT", "/Ff", "/V", "/Opt"):
            if k in node:
                inherited[k] = node[k]
        t = resolve(node.get("/T"))
        if isinstance(t, (TextStringObject, ByteStringObject)):
            name = text(t) if not parent_name else parent_name + "." + text(t)
        else:
            name = parent_name
        kids = resolve(node.get("/Kids"))
        kids = list(kids) if isinstance(kids, ArrayObject) else []
        field_kids = [k for k in kids if is_field_kid(resolve(k))]
        if field_kids:
            for k in field_kids:
                walk(k, name, inherited, depth + 1)
            return
        widgets = [k for k in kids if is_widget(resolve(k))]
        merged = not kids and is_widget(node)
        if merged:
            widgets = [ref]
        ft = resolve(inherited.get("/FT"))
        entry = {
            "type": str(ft)[1:] if isinstance(ft, NameObject) else None,
            "flags": int(resolve(inherited.get("/Ff", 0)) or 0),
            "value": value(inherited.get("/V")),
            "options": options(inherited.get("/Opt")),
            "widgets": len(widgets),
            "merged": merged,
            "pages": sorted(
                page_of.get((w.idnum, w.generation), -1) if isinstance(w, IndirectObject) else -1
                for w in widgets
            ),
        }
        if name in fields:
            entry["duplicate"] = True
        fields[name] = entry
        order.append(name)

    form = resolve(root.get("/AcroForm"))
    if isinstance(form, DictionaryObject):
        for f in resolve(form.get("/Fields")) or []:
            walk(f, "", {}, 0)
    print(json.dumps({"pages": len(pages), "encrypted": bool(encrypted), "fields": fields,
                      "order": order}, ensure_ascii=True, sort_keys=True))


if __name__ == "__main__":
    main()
