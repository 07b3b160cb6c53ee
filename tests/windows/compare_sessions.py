#!/usr/bin/python3
"""The same `qfforms run` sessions through the Linux build and the Windows build (under
wine) must write the same bytes.

    compare_sessions.py --linux QFFORMS --windows QFFORMS.EXE --wine RUNNER PREFIX
                        --example SCRIPT --corpus DIR

Latin-script sessions embed no font; the Japanese ones embed a subset of the one CJK font
both builds are given (fontconfig's configuration on Linux, QF_FONT_DIRS on Windows), so
that both draw with the same file. Exit status 0 when every session wrote the same files.
"""

import argparse
import hashlib
import json
import os
import shutil
import subprocess
import sys
import tempfile

TIMEOUT = 300


def write(folder, name, steps):
    path = os.path.join(folder, name)
    with open(path, "w", encoding="utf-8") as f:
        json.dump(steps, f, ensure_ascii=False)
    return path


def sessions(args, folder):
    """(name, script, options, the outputs it writes), the outputs relative to its folder."""
    with open(args.example, encoding="utf-8") as f:
        example = json.load(f)
    commands = sum(1 for s in example if "click" in s or "drag" in s)
    form = os.path.join(args.corpus, "qpdf-field-types.pdf")
    yield ("example", example, [], ["out.pdf"])
    yield ("example-ja", example, ["--lang", "ja"], ["out.pdf"])
    yield ("undo-redo", example[:1] + [{"save": "original.pdf"}] + example[1:] + [
        {"save": "made.pdf"}, {"undo": commands}, {"save": "undone.pdf"},
        {"redo": commands}], [], ["original.pdf", "made.pdf", "undone.pdf", "out.pdf"])
    grouped = [{"new": {}}, {"tool": "CheckBoxCreate"}]
    grouped += [{"click": {"page": 0, "at": [72 + 30 * i, 700]}} for i in range(6)]
    grouped += [{"command": {"name": "GroupRadioButtons",
                             "widgets": [{"field": "CheckBox%d" % i} for i in (4, 1, 6, 2)]}}]
    yield ("grouping", grouped, [], ["out.pdf"])
    edits = [
        {"tool": "TextFieldCreate"},
        {"set": {"property": "FieldName", "value": "Kunde 名前"}},
        {"click": {"page": 0, "at": [400, 100]}},
        {"tool": "CheckBoxCreate"},
        {"click": {"page": 0, "at": [400, 60]}},
        {"command": {"name": "Widget_Rename", "widget": {"field": "CheckBox1"},
                     "newName": "Agreed"}},
        {"command": {"name": "AutoTabOrderAnnot", "pages": [0], "order": "rows"}},
        {"save": "edited.pdf"},
        {"undo": 2},
    ]
    yield ("form", edits, ["--in", form], ["edited.pdf", "out.pdf"])


def run(command, cwd, env):
    return subprocess.run(command, cwd=cwd, env=env, capture_output=True, text=True,
                          timeout=TIMEOUT)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--linux", required=True)
    parser.add_argument("--windows", required=True)
    parser.add_argument("--wine", nargs=2, required=True, metavar=("RUNNER", "PREFIX"))
    parser.add_argument("--example", required=True)
    parser.add_argument("--corpus", required=True)
    args = parser.parse_args()
    if not os.access(args.linux, os.X_OK):
        print("no Linux build at %s: run scripts/setup.sh first" % args.linux)
        return 1

    passed, failed = 0, 0
    with tempfile.TemporaryDirectory(prefix="qf-compare-") as folder:
        # One CJK face and one Latin face, the same files for both builds.
        fonts = os.path.join(folder, "fonts")
        os.makedirs(fonts)
        shutil.copy("/usr/share/fonts/opentype/ipafont-gothic/ipag.ttf", fonts)
        shutil.copy("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", fonts)
        config = os.path.join(folder, "fonts.conf")
        with open(config, "w") as f:
            f.write('<?xml version="1.0"?>\n<fontconfig><dir>%s</dir><cachedir>%s</cachedir>'
                    '</fontconfig>\n' % (fonts, os.path.join(folder, "fc-cache")))
        linux_env = dict(os.environ, FONTCONFIG_FILE=config)
        windows_env = dict(os.environ, QF_FONT_DIRS=fonts)

        for name, steps, options, outputs in sessions(args, folder):
            results = {}
            for side, command, env in (
                    ("linux", [args.linux], linux_env),
                    ("windows", [args.wine[0], args.wine[1], args.windows], windows_env)):
                where = os.path.join(folder, name, side)
                os.makedirs(where)
                script = write(where, "session.json", steps)
                done = run(command + ["run", script, *options, "--out", "out.pdf"], where, env)
                if done.returncode != 0:
                    results[side] = "exit %d: %s" % (done.returncode, done.stderr.strip())
                    continue
                results[side] = {o: open(os.path.join(where, o), "rb").read() for o in outputs}
            problems = []
            for side, result in results.items():
                if isinstance(result, str):
                    problems.append("%s: %s" % (side, result))
            if not problems:
                for o in outputs:
                    a, b = results["linux"][o], results["windows"][o]
                    if a != b:
                        problems.append("%s differs: %d bytes (Linux) against %d (Windows)" %
                                        (o, len(a), len(b)))
            if problems:
                failed += 1
                print("FAIL %s: %s" % (name, "; ".join(problems)))
            else:
                passed += 1
                sizes = ", ".join("%s %d bytes %s" % (o, len(results["linux"][o]),
                                                      hashlib.sha256(results["linux"][o])
                                                      .hexdigest()[:12]) for o in outputs)
                print("same %s: %s" % (name, sizes))
    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
