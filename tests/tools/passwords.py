#!/usr/bin/python3
"""Tests of encrypted files in the qfforms commands.

    passwords.py --qfforms BIN --corpus DIR CHECK

CHECK is one of:
  refusals  every command that opens a document, given no password (but edit, whose page
            asks), a wrong one, both --password and --password-file, a password file it
            cannot read; run, paste and edit on a form whose permissions do not allow
            changing it (the user password, or none when that is empty), which inspect,
            render and copy still read: exit status, one line on stderr, nothing written
  saves     run (--in and "open" steps, --password and --password-file) and paste with
            the owner password, or the user password where the permissions allow it: the
            file written keeps the source's encryption dictionary and opens with the same
            passwords in qpdf, pypdf, poppler and MuPDF, with the new widget in it

The inputs are made from qpdf-field-types.pdf of the corpus with qpdf --encrypt. Run with
Debian's /usr/bin/python3 (python3-pypdf, python3-pycryptodome). Exit status 0 when every
check passed.
"""

import argparse
import json
import logging
import os
import sys
import tempfile

from pypdf import PdfReader

from run_sessions import check, failures, run

logging.getLogger("pypdf").setLevel(logging.CRITICAL)

HERE = os.path.dirname(os.path.abspath(__file__))

NEEDS = "the file is encrypted and needs a password; give it with --password or --password-file"
WRONG = "the password is wrong"
LOCKED = ("the document's permissions do not allow changing its form; give its owner "
          "password with --password or --password-file to edit it")


def encrypt(source, path, user, owner, bits, *options):
    """Writes source encrypted to path with qpdf --encrypt; returns path."""
    result = run(["qpdf", "--allow-weak-crypto", "--encrypt", user, owner, bits, *options,
                  "--", source, path])
    assert result.returncode == 0, result.stderr
    return path


class Files:
    """The encrypted inputs, a script that draws a text field, and where outputs go."""

    def __init__(self, folder, corpus, qfforms):
        self.folder = folder
        self.qfforms = qfforms
        source = os.path.join(corpus, "qpdf-field-types.pdf")
        self.plain = source
        # Filling in allowed, changing the form not.
        self.restricted = self.encrypt(source, "restricted.pdf", "user", "owner", "128",
                                       "--use-aes=y", "--modify=form")
        # Everything allowed to the user password too.
        self.open = self.encrypt(source, "open.pdf", "user", "owner", "256")
        # Opens without a password, but only its owner may change it.
        self.readonly = self.encrypt(source, "readonly.pdf", "", "owner", "40", "--modify=n")
        self.script = self.write("draw.json", [
            {"tool": "TextFieldCreate"},
            {"set": {"property": "FieldName", "value": "Added"}},
            {"drag": {"page": 0, "from": [400, 100], "to": [560, 80]}},
        ])
        self.password_file = self.write_text("password.txt", "user\n")
        self.record = run([qfforms, "copy", source, "--field", "text"]).stdout

    def encrypt(self, source, name, user, owner, bits, *options):
        return encrypt(source, self.path(name), user, owner, bits, *options)

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, steps):
        return self.write_text(name, json.dumps(steps))

    def write_text(self, name, text):
        with open(self.path(name), "w", encoding="utf-8") as f:
            f.write(text)
        return self.path(name)


def command(verb, files, source, out):
    """The command line of verb on source, writing to out where it writes."""
    q = files.qfforms
    return {
        "inspect": [q, "inspect", source],
        "render": [q, "render", source, "--page", "0", "--out", out],
        "copy": [q, "copy", source, "--field", "text"],
        "paste": [q, "paste", source, "--page", "0", "--out", out],
        "run": [q, "run", files.script, "--in", source, "--out", out],
        "edit": [q, "edit", source, "--port", "0"],
    }[verb]


def one_line(result, text, what):
    return check(result.returncode == 1 and result.stderr == text + "\n" and
                 result.stdout == "", "%s: exit %d, %r, stdout %r" %
                 (what, result.returncode, result.stderr, result.stdout[:200]))


def check_refusals(files):
    out = files.path("out.pdf")
    verbs = ["inspect", "render", "copy", "paste", "run", "edit"]
    for verb in verbs:
        line = command(verb, files, files.open, out)
        stdin = files.record if verb == "paste" else ""
        if verb != "edit":  # the editor's page asks for it instead (editor_server.py)
            result = run(line, input=stdin)
            one_line(result, "qfforms: %s: %s" % (files.open, NEEDS), verb + ", no password")
        result = run(line + ["--password", "wrong"], input=stdin)
        one_line(result, "qfforms: %s: %s" % (files.open, WRONG), verb + ", wrong password")
        result = run(line + ["--password", "user", "--password-file", files.password_file],
                     input=stdin)
        check(result.returncode == 2 and "not both" in result.stderr,
              "%s, both options: exit %d, %r" % (verb, result.returncode, result.stderr))
        missing = files.path("no-such-password.txt")
        result = run(line + ["--password-file", missing], input=stdin)
        one_line(result, "qfforms: %s: cannot read the password file" % missing,
                 verb + ", no password file")
        check(not os.path.exists(out), verb + ": wrote " + out)

    # Changing the form takes the owner password, or permissions that allow it.
    for verb in ("paste", "run", "edit"):
        line = command(verb, files, files.restricted, out)
        stdin = files.record if verb == "paste" else ""
        result = run(line + ["--password", "user"], input=stdin)
        one_line(result, "qfforms: %s: %s" % (files.restricted, LOCKED), verb + ", restricted")
        if verb != "edit":  # the editor asks for the owner password on its page instead
            result = run(command(verb, files, files.readonly, out), input=stdin)
            one_line(result, "qfforms: %s: %s" % (files.readonly, LOCKED), verb + ", read-only")
        check(not os.path.exists(out), verb + ": wrote " + out)
    # ... and the same for a document that a script opens.
    opening = files.write("open.json", [{"open": files.restricted}])
    result = run([files.qfforms, "run", opening, "--password", "user"])
    check(result.returncode == 1 and result.stderr.startswith(
        "qfforms: step 0 (open): open: %s: %s\n" % (files.restricted, LOCKED)),
        "open step, restricted: %r" % result.stderr)
    result = run([files.qfforms, "run", opening])
    check(result.returncode == 1 and result.stderr.startswith(
        "qfforms: step 0 (open): open: %s: %s\n" % (files.restricted, NEEDS)),
        "open step, no password: %r" % result.stderr)

    # Reading needs no more than the user password.
    svg = files.path("page.svg")
    for verb in ("inspect", "render", "copy"):
        result = run(command(verb, files, files.restricted, svg) + ["--password", "user"])
        check(result.returncode == 0 and result.stderr == "",
              "%s, restricted, user password: exit %d, %r" % (verb, result.returncode,
                                                              result.stderr))
    result = run([files.qfforms, "inspect", files.restricted, "--password-file",
                  files.password_file])
    if check(result.returncode == 0, "inspect, password file: %r" % result.stderr):
        encryption = json.loads(result.stdout)["encryption"]
        check(encryption == {"ownerPassword": False, "formEditable": False,
                             "permissions": ["print", "printHigh", "copy", "accessibility",
                                             "assemble", "fillForm"]},
              "inspect: encryption %r" % encryption)
    check(os.path.exists(svg) and 'data-field="text"' in open(svg, encoding="utf-8").read(),
          "render, restricted: the page's widgets are not drawn")


# ---- saves --------------------------------------------------------------------------------


def encryption_of(path):
    script = os.path.join(HERE, "..", "pdfcore", "encryption_dict.py")
    return json.loads(run([sys.executable, script, path]).stdout)


def check_saved(source, out, user, owner, what):
    """out keeps the encryption of source, opens with both passwords everywhere, and holds
    the field "Added" beside the source's fields."""
    if not check(os.path.exists(out), what + ": nothing written"):
        return
    check(encryption_of(out) == encryption_of(source), what + ": the encryption changed")
    for password in (user, owner):
        result = run(["qpdf", "--check", "--password=" + password, out])
        check(result.returncode == 0, "%s: qpdf --check with %r: %s" % (what, password,
                                                                        result.stdout[-300:]))
        result = run(["mutool", "draw", "-q", "-p", password, "-o", "/dev/null", out])
        check(result.returncode == 0, "%s: mutool with %r: %s" % (what, password, result.stderr))
        reader = PdfReader(out)
        check(reader.is_encrypted and int(reader.decrypt(password)) != 0,
              "%s: pypdf does not take %r" % (what, password))
        fields = reader.get_fields() or {}
        check("Added" in fields and "text2" in fields,
              "%s: fields read with %r: %s" % (what, password, sorted(fields)))
    for option, password in (("-upw", user), ("-opw", owner)):
        result = run(["pdftotext", option, password, out, "-"])
        check(result.returncode == 0, "%s: pdftotext %s: %s" % (what, option, result.stderr))
    check(run(["qpdf", "--check", "--password=wrong", out]).returncode != 0,
          what + ": opens with a wrong password")


def check_saves(files):
    # The owner password changes a form whose permissions forbid it.
    out = files.path("run-owner.pdf")
    result = run(command("run", files, files.restricted, out) + ["--password", "owner"])
    check(result.returncode == 0, "run, owner password: %r" % result.stderr)
    check_saved(files.restricted, out, "user", "owner", "run with the owner password")

    # The user password where the permissions allow it, from a file, for an "open" step.
    out = files.path("run-open-step.pdf")
    script = files.write("open-save.json", [
        {"open": files.open}, *json.load(open(files.script)), {"save": out}])
    result = run([files.qfforms, "run", script, "--password-file", files.password_file])
    check(result.returncode == 0, "run, open step, password file: %r" % result.stderr)
    check_saved(files.open, out, "user", "owner", "run with an open step")

    # paste into the RC4 file that only its owner may change (its user password is empty).
    out = files.path("pasted.pdf")
    record = json.loads(files.record)
    record["name"] = "Added"
    result = run(command("paste", files, files.readonly, out) + ["--password", "owner"],
                 input=json.dumps(record))
    check(result.returncode == 0, "paste, owner password: %r" % result.stderr)
    check_saved(files.readonly, out, "", "owner", "paste with the owner password")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--qfforms", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("check", choices=["refusals", "saves"])
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        files = Files(folder, args.corpus, args.qfforms)
        {"refusals": check_refusals, "saves": check_saves}[args.check](files)
    for f in failures:
        print("FAIL: " + f)
    print("failures: %d" % len(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
