#!/usr/bin/python3
"""Tests of how qfforms writes its files (run, paste, the editor's save).

    saves.py --qfforms BIN --corpus DIR CHECK

CHECK is one of:
  targets   a read-only target refused with one line naming --force, written with --force
            and still read-only (run, paste; the editor says to use Save as); a FIFO as
            --out refused at once
  failures  a write past the file size limit (run, paste) and onto a full disk (a small
            tmpfs in a mount namespace of our own; skipped where unshare may not mount):
            one line, exit 1 and no signal, the file as it was, nothing left beside it
  together  several outputs all or none: a folder among them writes none; a rename that
            fails after another went through (a file bind-mounted over the target) is
            reported with what was written and what not; runs killed with SIGKILL while
            they write, and the next save into the folder removing what they left

Run with Debian's /usr/bin/python3. Exit status 0 when every check passed.
"""

import argparse
import http.client
import json
import os
import random
import re
import resource
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time

DRAW = [{"tool": "TextFieldCreate"}, {"drag": {"page": 0, "from": [300, 300], "to": [460, 280]}}]
TEMP = re.compile(r"^\..+\.qfforms-\d+-[0-9a-f]{8}\.tmp$")
UNSHARE = ["unshare", "-m"] if os.geteuid() == 0 else ["unshare", "-rm"]
failures = []


def check(condition, message):
    if not condition:
        failures.append(message)
    return condition


def run(args, timeout=60, **kwargs):
    return subprocess.run([*map(str, args)], capture_output=True, text=True, timeout=timeout,
                          **kwargs)


def read(path):
    with open(path, "rb") as f:
        return f.read()


def temps(folder):
    return [n for n in os.listdir(folder) if TEMP.match(n)]


class Files:
    def __init__(self, args, folder):
        self.qfforms, self.folder = args.qfforms, folder
        self.source = os.path.join(args.corpus, "qpdf-field-types.pdf")
        self.script = self.write("draw.json", DRAW)
        self.record = run([self.qfforms, "copy", self.source, "--field", "text"]).stdout

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, steps):
        with open(self.path(name), "w") as f:
            json.dump(steps, f)
        return self.path(name)

    def form(self, name):
        """A writable copy of the source form (the corpus is read-only)."""
        shutil.copyfile(self.source, self.path(name))
        return self.path(name)

    def run(self, out, *options, **kwargs):
        return run([self.qfforms, "run", self.script, "--in", self.source, "--out", out,
                    *options], **kwargs)

    def paste(self, out, *options, **kwargs):
        return run([self.qfforms, "paste", self.source, "--page", "0", "--out", out, *options],
                   input=self.record, **kwargs)


def one_line(result, words, what):
    lines = result.stderr.strip().splitlines()
    check(result.returncode == 1, "%s: exit status %d" % (what, result.returncode))
    check(len(lines) == 1 and all(w in lines[0] for w in words),
          "%s: expected one line with %r, got %r" % (what, words, result.stderr))


def check_targets(files):
    for verb in ("run", "paste"):
        target = files.form(verb + ".pdf")
        os.chmod(target, 0o444)
        before = read(target)
        one_line(getattr(files, verb)(target), ["read-only", "--force"], verb + ", read-only")
        check(read(target) == before, verb + ": the read-only file changed")
        result = getattr(files, verb)(target, "--force")
        check(result.returncode == 0 and read(target) != before,
              "%s --force: %r" % (verb, result.stderr))
        check(stat.S_IMODE(os.stat(target).st_mode) == 0o444, verb + " --force: not read-only")
    os.mkfifo(files.path("pipe.pdf"))
    try:
        one_line(files.run(files.path("pipe.pdf"), timeout=20), ["not a regular file"], "a FIFO")
    except subprocess.TimeoutExpired:
        check(False, "run --out onto a FIFO blocked")
    check_editor(files, files.path("run.pdf"))


def check_editor(files, readonly):
    proc = subprocess.Popen([files.qfforms, "edit", readonly, "--port", "0"],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    try:
        address = re.search(r"127\.0\.0\.1:(\d+)/\?token=([0-9a-f]+)", proc.stdout.readline())
        connection = http.client.HTTPConnection("127.0.0.1", int(address.group(1)), timeout=30)
        connection.request("POST", "/api/save", body="{}",
                           headers={"Host": "127.0.0.1:" + address.group(1),
                                    "X-QF-Token": address.group(2)})
        response = connection.getresponse()
        error = json.loads(response.read()).get("error", "")
        check(response.status >= 400 and "read-only" in error and "Save as" in error,
              "editor, save over a read-only file: %d %r" % (response.status, error))
    finally:
        proc.send_signal(signal.SIGINT)
        proc.communicate(timeout=20)


def check_failures(files):
    for verb in ("run", "paste"):
        target = files.form(verb + ".pdf")
        before = read(target)
        limit = len(before) // 2
        result = getattr(files, verb)(target, preexec_fn=lambda: resource.setrlimit(
            resource.RLIMIT_FSIZE, (limit, resource.RLIM_INFINITY)))
        one_line(result, ["size limit", "as it was"], verb + " past the file size limit")
        check(read(target) == before, verb + ": the file changed past the size limit")
    check(temps(files.folder) == [], "temporary files left: %r" % temps(files.folder))

    # A disk that holds the form and 16 KiB more.
    disk = files.path("disk")
    os.mkdir(disk)
    mount = "mount -t tmpfs -o size=%d tmpfs '%s'" % (os.path.getsize(files.source) + 16384, disk)
    if run(UNSHARE + ["sh", "-c", mount]).returncode != 0:
        print("SKIP: no tmpfs of our own: the full disk is not tested")
        return
    form = os.path.join(disk, "form.pdf")
    result = run(UNSHARE + ["sh", "-c", "%s && cat '%s' > '%s' && '%s' run '%s' --in '%s' "
                            "--out '%s'; echo status $?; cmp '%s' '%s' && ls -A '%s'"
                            % (mount, files.source, form, files.qfforms, files.script, form,
                               form, files.source, form, disk)])
    check(result.stdout.split() == ["status", "1", "form.pdf"], "full disk: %r" % result.stdout)
    check(result.stderr.count("\n") == 1 and "no space left" in result.stderr,
          "full disk: %r" % result.stderr)


def check_together(files):
    first, second = files.form("first.pdf"), files.form("second.pdf")
    third = files.path("third.pdf")
    script = files.write("three.json", DRAW + [{"save": "first.pdf"}, {"save": "second.pdf"}])
    before = {p: read(p) for p in (first, second)}

    # The last target is a folder: nothing is written.
    os.mkdir(third)
    result = run([files.qfforms, "run", script, "--in", files.source, "--out", third])
    check(result.returncode == 1 and "no file was written" in result.stderr,
          "a folder among the targets: %r" % result.stderr)
    check(read(first) == before[first] and read(second) == before[second],
          "a folder among the targets: other files were written")
    os.rmdir(third)

    # A file mounted over the second target: its rename fails (EBUSY) after the first's.
    mounted = files.form("mounted.pdf")
    result = run(UNSHARE + ["sh", "-c", "mount --bind '%s' '%s' && '%s' run '%s' --in '%s' "
                            "--out '%s'; echo status $?" % (mounted, second, files.qfforms,
                                                            script, files.source, third)])
    if "status" not in result.stdout:
        print("SKIP: no mount namespace of our own: a failing rename is not tested")
    else:
        check("written: %s; not written: %s, %s" % (first, second, third) in result.stderr,
              "a failing rename: %r" % result.stderr)
        check(read(first) != before[first] and read(second) == before[second] and
              not os.path.exists(third), "a failing rename: the files are not as reported")
    check(temps(files.folder) == [], "temporary files left: %r" % temps(files.folder))

    # Runs killed at random moments while they write four files.
    killed = files.path("killed")
    os.mkdir(killed)
    big = os.path.join(killed, "big.json")
    with open(big, "w") as f:
        json.dump([{"new": {"pages": 4000}}] + [{"save": "big%d.pdf" % i} for i in range(4)], f)
    start = time.monotonic()
    run([files.qfforms, "run", big])
    took = time.monotonic() - start
    rng = random.Random(7)
    for _ in range(20):
        process = subprocess.Popen([files.qfforms, "run", big], stdout=subprocess.DEVNULL)
        time.sleep(rng.uniform(0.5, 1.0) * took)
        process.kill()
        process.wait()
    print("%d temporary files left by 20 runs killed while they wrote (a run: %.2f s)"
          % (len(temps(killed)), took))
    foreign = os.path.join(killed, ".big0.pdf.someone-else.tmp")
    open(foreign, "w").close()
    for name in os.listdir(killed):
        os.utime(os.path.join(killed, name), (time.time() - 3600,) * 2)
    result = files.run(os.path.join(killed, "form.pdf"))
    check(result.returncode == 0 and temps(killed) == [] and os.path.exists(foreign),
          "the save after the killed runs: %r, left %r" % (result.stderr, os.listdir(killed)))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--qfforms", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("check", choices=["targets", "failures", "together"])
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        {"targets": check_targets, "failures": check_failures,
         "together": check_together}[args.check](Files(args, folder))
    for f in failures:
        print("FAIL: " + f)
    print("failures: %d" % len(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
