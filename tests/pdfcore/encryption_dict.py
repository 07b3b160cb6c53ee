#!/usr/bin/python3
"""Prints the encryption dictionary of a PDF and the first word of its /ID as pypdf reads
them, for the pdfcore tests: what a reader derives the file key and checks the passwords
from.

Usage: /usr/bin/python3 encryption_dict.py FILE.pdf
Prints one JSON object: {"encrypt": {key: value} or null, "id0": hex or null}, where names
are "/Name", numbers and booleans themselves, strings hex, and dictionaries and arrays are
the same recursively. Exits 2 when the file cannot be read.
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
    BooleanObject,
    ByteStringObject,
    DictionaryObject,
    IndirectObject,
    NameObject,
    NumberObject,
    TextStringObject,
)


def plain(value):
    while isinstance(value, IndirectObject):
        value = value.get_object()
    if isinstance(value, DictionaryObject):
        return {str(k): plain(v) for k, v in value.items()}
    if isinstance(value, ArrayObject):
        return [plain(v) for v in value]
    if isinstance(value, (ByteStringObject, TextStringObject)):
        return value.original_bytes.hex()
    if isinstance(value, BooleanObject):
        return bool(value.value)
    if isinstance(value, NameObject):
        return str(value)
    if isinstance(value, NumberObject):
        return int(value)
    return repr(value)


def main():
    try:
        reader = PdfReader(sys.argv[1], strict=False)
        trailer = reader.trailer
        encrypt = plain(trailer["/Encrypt"]) if "/Encrypt" in trailer else None
        ids = plain(trailer.get("/ID"))
    except Exception as e:  # noqa: BLE001
        print(json.dumps({"error": "%s: %s" % (type(e).__name__, e)}))
        return 2
    id0 = ids[0] if isinstance(ids, list) and ids else None
    print(json.dumps({"encrypt": encrypt, "id0": id0}, sort_keys=True))
    return 0


if __name__ == "__main__":
    sys.exit(main())
