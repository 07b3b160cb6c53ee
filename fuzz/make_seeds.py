#!/usr/bin/python3
"""Writes the fuzzers' seeds of deep nesting and long sessions, which are made here rather
than kept in the repository (some are a hundred kilobytes of brackets):

    make_seeds.py CORPUS_DIR

into CORPUS_DIR/open_fuzzer (page and field trees at and one past the limit of 1,000
levels, an outline 1,000 deep, a chain of 1,000 actions that loops, /Next arrays that branch
at every step, GoToE targets that loop), CORPUS_DIR/paste_fuzzer and action_fuzzer (chains of
1,000 actions, targets nested past what a dictionary may hold, a record nested one level past
the limit of 50,000) and CORPUS_DIR/session_fuzzer (long sessions: bytes that decode into as
many steps as an input may hold). The same files every time.
"""

import json
import os
import random
import sys

TREE_LIMIT = 1000
RECORD_LIMIT = 50000


def pdf(objects):
    """A PDF of the objects (numbered from 1, the catalog first) with its xref table."""
    out = bytearray(b"%PDF-1.7\n")
    offsets = []
    for number, body in enumerate(objects, 1):
        offsets.append(len(out))
        out += b"%d 0 obj\n%s\nendobj\n" % (number, body.encode())
    xref = len(out)
    out += b"xref\n0 %d\n0000000000 65535 f \n" % (len(objects) + 1)
    out += b"".join(b"%010d 00000 n \n" % at for at in offsets)
    out += b"trailer\n<< /Size %d /Root 1 0 R >>\nstartxref\n%d\n%%%%EOF\n" % (
        len(objects) + 1, xref)
    return bytes(out)


def page_tree(levels):
    objects = ["<< /Type /Catalog /Pages 2 0 R >>"]
    for level in range(1, levels + 1):
        parent = " /Parent %d 0 R" % level if level > 1 else " /MediaBox [0 0 612 792]"
        objects.append("<< /Type /Pages /Count 1 /Kids [%d 0 R]%s >>" % (level + 2, parent))
    objects.append("<< /Type /Page /Parent %d 0 R >>" % (levels + 1))
    return pdf(objects)


def with_widget(annots, rest, widget):
    """A one-page form whose page lists annots, its widget (object 4) and rest from 5 on."""
    return pdf(["<< /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R] >> >>",
                "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
                "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Annots [%s] >>" % annots,
                widget] + rest)


def field_tree(levels):
    """Named fields nested levels deep (the root, object 4, is of type Tx), the last with a
    widget."""
    below = []
    for level in range(2, levels + 1):  # object level + 3, under object level + 2
        below.append("<< /T (f%d) /Kids [%d 0 R] /Parent %d 0 R >>"
                     % (level, level + 4, level + 2))
    widget = levels + 4
    below.append("<< /Type /Annot /Subtype /Widget /Rect [10 10 110 30] /P 3 0 R"
                 " /Parent %d 0 R >>" % (widget - 1))
    return with_widget("%d 0 R" % widget, below, "<< /T (f1) /FT /Tx /Kids [5 0 R] >>")


def outline(levels):
    objects = ["<< /Type /Catalog /Pages 2 0 R /Outlines 4 0 R >>",
               "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
               "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>",
               "<< /Type /Outlines /First 5 0 R /Last 5 0 R /Count 1 >>"]
    for level in range(1, levels + 1):
        kid = (" /First %d 0 R /Last %d 0 R /Count 1" % (level + 5, level + 5)
               if level < levels else "")
        objects.append("<< /Title (%d) /Parent %d 0 R /Dest [3 0 R /Fit]%s >>"
                       % (level, level + 3, kid))
    return pdf(objects)


def action_chain(length, branching=False):
    """A button whose click action starts a chain of URI actions; the last leads back to the
    first, or (branching) every /Next lists its successor twice."""
    actions = []
    for k in range(length):
        number = k + 5
        if branching:
            following = (" /Next [%d 0 R %d 0 R]" % (number + 1, number + 1)
                         if k + 1 < length else "")
        else:
            following = " /Next %d 0 R" % (number + 1 if k + 1 < length else 5)
        actions.append("<< /S /URI /URI (https://example.org/%d)%s >>" % (k, following))
    return with_widget("4 0 R", actions, "<< /Type /Annot /Subtype /Widget /FT /Btn /Ff 65536"
                                         " /T (go) /Rect [10 10 90 40] /P 3 0 R /A 5 0 R >>")


def target_loop():
    return with_widget("4 0 R", ["<< /S /GoToE /D [0 /Fit] /T 6 0 R >>",
                                 "<< /R /C /N (a.pdf) /P 0 /A 0 /T 7 0 R >>",
                                 "<< /R /C /N (b.pdf) /T 6 0 R >>"],
                       "<< /Type /Annot /Subtype /Widget /FT /Btn /Ff 65536 /T (go)"
                       " /Rect [10 10 90 40] /P 3 0 R /A 5 0 R >>")


def uri_chain(length):
    record = {"action-type": 550, "url": "https://example.org/%d" % length}
    for k in reversed(range(length - 1)):
        record = {"action-type": 550, "url": "https://example.org/%d" % k, "next-action": record}
    return record


def nested_targets(levels):
    target = {"file-path": "last.pdf"}
    for level in range(levels):
        target = {"annotation-index": 0, "file-path": "%d.pdf" % level, "page-index": 0,
                  "relationship": 1, "go-to-e-action-target": target}
    return {"action-type": 237, "new-window": True, "go-to-e-action-target": target,
            "destination": {"page-index": 0, "params": [0, 0, 0], "type": 147}}


def text_field(**actions):
    """A text field's widget record whose triggers are empty but for actions."""
    record = {"Rect": {"bottom": 700, "left": 100, "right": 250, "top": 720},
              "annot-flags": 4, "atom": 577, "background-color": 0,
              "border-color": -16777216, "border-style": {"border-style": 0, "border-width": 1,
                                                          "dash-array": []},
              "default-field-value": "", "field-quadding": 0, "field-type": 536,
              "field-value": "", "font-color": -16777216, "font-family": 0, "font-format": 0,
              "font-size": 0, "font-style": 0, "highlight-mode": 0, "max-field-length": 0,
              "name": "deep", "rotation": 0, "tooltip": "", "widget-flags": 0}
    for trigger in ("blur", "calcuate", "focus", "format", "modify", "mouse-down",
                    "mouse-enter", "mouse-exit", "mouse-up", "validate"):
        record[trigger] = actions.get(trigger.replace("-", "_"), {})
    return record


def text(value):
    # Python's own writer calls itself per level: deep records are joined by hand.
    return json.dumps(value, separators=(",", ":"), sort_keys=True)


def chain_text(length):
    links = "".join('{"action-type":550,"next-action":' for _ in range(length - 1))
    return links + '{"action-type":550,"url":"end"}' + "}" * (length - 1)


def write(folder, name, data):
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


def main():
    corpus = sys.argv[1]
    opened = os.path.join(corpus, "open_fuzzer")
    for levels in (TREE_LIMIT, TREE_LIMIT + 1):
        write(opened, "deep-pages-%d.pdf" % levels, page_tree(levels))
        write(opened, "deep-fields-%d.pdf" % levels, field_tree(levels))
    write(opened, "deep-outline.pdf", outline(1000))
    write(opened, "next-chain-loop.pdf", action_chain(1000))
    write(opened, "next-branches.pdf", action_chain(40, branching=True))
    write(opened, "target-loop.pdf", target_loop())

    field = text_field()
    shallow = text(field).replace('"mouse-up":{}', '"mouse-up":%s')
    for target in ("paste_fuzzer", "action_fuzzer"):
        folder = os.path.join(corpus, target)
        chain = chain_text(1000)
        write(folder, "deep-chain.json", shallow % chain if target == "paste_fuzzer" else chain)
        targets = text(nested_targets(150))
        write(folder, "deep-targets.json",
              shallow % targets if target == "paste_fuzzer" else targets)
        nested = "[" * (RECORD_LIMIT + 1) + "]" * (RECORD_LIMIT + 1)
        write(folder, "past-the-limit.json",
              text(field)[:-1] + ',"z":%s}' % nested if target == "paste_fuzzer"
              else '{"action-type":550,"z":%s}' % nested)
    write(os.path.join(corpus, "action_fuzzer"), "short-chain.json", text(uri_chain(20)))

    # Sessions: every byte string decodes into steps, so random bytes of every length up to
    # what the fuzzer reads make long sessions of every kind.
    generator = random.Random(20261125)
    for n, length in enumerate((256, 512, 1024, 1536, 2048, 3072, 4096, 4096)):
        write(os.path.join(corpus, "session_fuzzer"), "long-%d.bin" % n,
              bytes(generator.getrandbits(8) for _ in range(length)))


if __name__ == "__main__":
    main()
