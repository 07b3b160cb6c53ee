#!/usr/bin/python3
"""Saves of the Windows build under wine, through pdfcore's Windows file system calls: a new
file, an existing file replaced whole, a read-only file refused without --force and written
with it (and still read-only), a folder refused; no temporary file is left behind. A signed
form under a name outside ASCII, saved over itself, gets its update appended in place.

    saves_under_wine.py RUNNER PREFIX QFFORMS.EXE EXAMPLE.json SIGNED.pdf

Exit status 0 when every check passed.
"""

import os
import stat
import subprocess
import sys
import tempfile

failures = []


def check(condition, message):
    if not condition:
        failures.append(message)


def main():
    runner, prefix, program, example, signed = sys.argv[1:6]

    def run(folder, out, *options):
        return subprocess.run([runner, prefix, program, "run", example, "--out", out, *options],
                              cwd=folder, capture_output=True, text=True, timeout=120)

    with tempfile.TemporaryDirectory(prefix="qf-saves-") as folder:
        target = os.path.join(folder, "form.pdf")
        done = run(folder, target)
        check(done.returncode == 0, "new file: exit %d %s" % (done.returncode, done.stderr))
        first = open(target, "rb").read()
        check(first.startswith(b"%PDF-"), "new file: no PDF written")

        with open(target, "wb") as f:
            f.write(b"stale")
        done = run(folder, target)
        check(done.returncode == 0 and open(target, "rb").read() == first,
              "existing file: not replaced whole (exit %d %s)" % (done.returncode, done.stderr))

        # Wine keeps the read-only attribute as the file's lack of write bits.
        os.chmod(target, 0o444)
        with open(target, "rb") as f:
            before = f.read()
        done = run(folder, target)
        check(done.returncode != 0 and "read-only" in done.stderr,
              "read-only file: not refused (exit %d %s)" % (done.returncode, done.stderr))
        check(open(target, "rb").read() == before, "read-only file: changed when refused")
        done = run(folder, target, "--force")
        check(done.returncode == 0, "read-only file, --force: exit %d %s" % (done.returncode,
                                                                            done.stderr))
        check(not os.stat(target).st_mode & stat.S_IWUSR,
              "read-only file, --force: no longer read-only")

        sub = os.path.join(folder, "folder.pdf")
        os.mkdir(sub)
        done = run(folder, sub)
        check(done.returncode != 0 and "not a regular file" in done.stderr,
              "folder: not refused (exit %d %s)" % (done.returncode, done.stderr))

        # Read through the wide calls and appended to in place: the file's bytes stay in
        # front, and a second save appends again after the first update.
        form = os.path.join(folder, "署名フォーム.pdf")
        original = open(signed, "rb").read()
        with open(form, "wb") as f:
            f.write(original)
        script = os.path.join(folder, "add.json")
        with open(script, "w") as f:
            f.write('[{"tool": "TextFieldCreate"}, '
                    '{"drag": {"page": 0, "from": [20, 130], "to": [120, 112]}}]')
        sizes = []
        for _ in range(2):
            done = subprocess.run([runner, prefix, program, "run", script, "--in", form,
                                   "--out", form], cwd=folder, capture_output=True, text=True,
                                  timeout=120)
            check(done.returncode == 0, "signed form: exit %d %s" % (done.returncode,
                                                                    done.stderr))
            sizes.append(os.path.getsize(form))
        saved = open(form, "rb").read()
        check(saved.startswith(original) and len(original) < sizes[0] < sizes[1],
              "signed form: not appended to (%d, %s bytes)" % (len(original), sizes))
        check(subprocess.run(["qpdf", "--check", form], capture_output=True).returncode == 0,
              "signed form: qpdf --check fails")

        left = [n for n in os.listdir(folder) if ".qfforms-" in n]
        check(not left, "temporary files left: %s" % left)
        os.chmod(target, 0o644)

    for failure in failures:
        print("FAIL " + failure)
    print("%d failed" % len(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
