#!/usr/bin/python3
"""Tests of the editor's server, `qfforms edit`, spoken to over HTTP without a browser.

    editor_server.py --qfforms BIN --corpus DIR CHECK

CHECK is one of:
  doors     the token, the Host header, requests from other sites, the headers of every
            answer, keep-alive, oversized and malformed requests, static files that leave
            their folder, steps the editor does not take, saves outside the document's
            folder; a clean stop on SIGINT
  limits    clients that dribble their requests, hundreds of idle connections, clients
            killed mid-request, file descriptors running out, SIGTERM while an answer is
            stuck: other clients are answered in time and the editor stops within 2 s
  records   bad records pasted from the clipboard and names with control characters: 422
            with the sentence that names the key, and the session goes on; a document the
            program cannot use ends the command with one line
  password  an encrypted form whose permissions keep it from changing: the state asks for
            its password, then for its owner password, and nothing else goes through
            meanwhile; the owner password opens it; the page gets a copy without
            encryption, the file saved keeps the encryption and both passwords

Run with Debian's /usr/bin/python3 (python3-pypdf). Exit status 0 when every check passed.
"""

import argparse
import http.client
import io
import json
import os
import re
import resource
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

from pypdf import PdfReader

from passwords import check_saved, encrypt
from run_sessions import check, failures, report


class Editor:
    """A running `qfforms edit` and a client of it."""

    def __init__(self, args, folder, pdf, max_files=None, clipboard=None):
        web = os.path.join(folder, "web")
        os.makedirs(os.path.join(web, "app"), exist_ok=True)
        with open(os.path.join(web, "index.html"), "w") as f:
            f.write("<!doctype html><title>editor</title>")
        with open(os.path.join(web, "app", "editor.js"), "w") as f:
            f.write("export {};")
        with open(os.path.join(folder, "secret.txt"), "w") as f:
            f.write("not for the browser")
        limit, env = None, None
        if max_files:
            limit = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (max_files, max_files))
            # In the sanitizer build UndefinedBehaviorSanitizer reads an object's type
            # through a pipe, which it cannot make with no descriptors left: every check
            # of a type would fail.
            ignored = os.path.join(folder, "ubsan-suppressions.txt")
            with open(ignored, "w") as f:
                f.write("vptr:*\n")
            env = dict(os.environ, UBSAN_OPTIONS="%s:suppressions=%s" % (
                os.environ.get("UBSAN_OPTIONS", ""), ignored))
        if clipboard:
            env = dict(env or os.environ, QF_CLIPBOARD=clipboard)
        # What the editor writes goes to files, never to a pipe that this script might not
        # read while it waits for an answer: a full pipe would stop the editor.
        self.out_path = os.path.join(folder, "editor-out.txt")
        self.err_path = os.path.join(folder, "editor-err.txt")
        with open(self.out_path, "w") as out, open(self.err_path, "w") as err:
            self.proc = subprocess.Popen(
                [args.qfforms, "edit", pdf, "--port", "0", "--web", web], stdin=subprocess.DEVNULL,
                stdout=out, stderr=err, preexec_fn=limit, env=env)
        self.web = web
        match, deadline = None, time.monotonic() + 30
        while not match and self.proc.poll() is None and time.monotonic() < deadline:
            time.sleep(0.01)
            match = re.search(r"http://127\.0\.0\.1:(\d+)/\?token=([0-9a-f]+)",
                              self.output()[0])
        if not match:
            self.proc.kill()
            raise RuntimeError("no address in %r %r" % self.output())
        self.port = int(match.group(1))
        self.token = match.group(2)

    def request(self, method, path, body=None, token=True, host=None, headers=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        all_headers = {"Host": host or "127.0.0.1:%d" % self.port}
        if token:
            all_headers["X-QF-Token"] = self.token
        all_headers.update(headers or {})
        data = body if isinstance(body, (bytes, type(None))) else json.dumps(body).encode()
        connection.request(method, path, body=data, headers=all_headers)
        response = connection.getresponse()
        payload = response.read()
        connection.close()
        return response.status, payload, response

    def timed(self, path="/api/state"):
        """The status of a GET and the seconds it took."""
        start = time.monotonic()
        status, _, _ = self.request("GET", path)
        return status, time.monotonic() - start

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), timeout=30)

    def head(self, method, path, length=None):
        """The head of a request with the token, as bytes."""
        return ("%s %s HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nX-QF-Token: %s\r\n%s\r\n" % (
            method, path, self.port, self.token,
            "" if length is None else "Content-Length: %d\r\n" % length)).encode()

    def descriptors(self):
        return len(os.listdir("/proc/%d/fd" % self.proc.pid))

    def cpu_seconds(self):
        fields = open("/proc/%d/stat" % self.proc.pid).read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def threads(self):
        """What each of the editor's threads waits in (with the file a descriptor it waits
        on names), how many descriptors it holds and how much it has written: what a test
        says when an answer does not come."""
        base = "/proc/%d" % self.proc.pid
        try:
            said = ["%d descriptors" % len(os.listdir(base + "/fd"))]
            for tid in sorted(os.listdir(base + "/task"), key=int):
                read = lambda name: open("%s/task/%s/%s" % (base, tid, name)).read().strip()
                call = read("syscall").split()
                on = ""
                if len(call) > 1 and call[0] in ("0", "1", "7", "20", "232"):
                    try:
                        on = " on %s" % os.readlink("%s/fd/%d" % (base, int(call[1], 16)))
                    except (OSError, ValueError):
                        pass
                said.append("%s %s in %s (syscall %s%s)" % (
                    "main" if tid == str(self.proc.pid) else "thread",
                    read("stat").rsplit(")", 1)[1].split()[0], read("wchan"), call[0], on))
            out, err = self.output()
            said.append("%d bytes written, %d on standard error, ending %r" % (
                len(out) + len(err), len(err), err[-300:]))
            return "; ".join(said)
        except OSError as e:
            return "not readable: %s" % e

    def raw(self, text):
        """Sends text as it is and returns what comes back."""
        with self.connect() as s:
            s.sendall(text.encode())
            data = b""
            while True:
                chunk = s.recv(65536)
                if not chunk:
                    return data
                data += chunk

    def api(self, path, body=None):
        status, payload, _ = self.request("POST" if body is not None else "GET", path, body)
        return status, json.loads(payload) if payload else None

    def event(self, kind, x, y, code=0, modifiers=0):
        return self.api("/api/event", {"type": kind, "code": code, "x": x, "y": y,
                                       "modifiers": modifiers})

    def output(self):
        """What the editor has written so far on its standard output and error."""
        def read(path):
            with open(path, errors="replace") as f:
                return f.read()
        return read(self.out_path), read(self.err_path)

    def stop(self):
        self.proc.send_signal(signal.SIGINT)
        try:
            self.proc.wait(timeout=20)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            return None, "", "did not stop"
        return (self.proc.returncode,) + self.output()


SECURITY_HEADERS = {
    "Content-Security-Policy": "frame-ancestors 'none'",
    "X-Content-Type-Options": "nosniff",
    "Referrer-Policy": "no-referrer",
}


def check_cross_site(editor, jar):
    """What a page of another site can make a browser send: refused, nothing changed."""
    own = "http://127.0.0.1:%d" % editor.port
    _, before = editor.api("/api/state")
    for headers, token, why in (
            (jar, False, "a post with the cookie only"),
            ({"Origin": "http://127.0.0.1:%d" % (editor.port + 1)}, True, "another Origin"),
            ({"Origin": "null"}, True, "the Origin of a sandboxed page"),
            ({"Sec-Fetch-Site": "same-site"}, True, "a page of another port"),
            ({"Sec-Fetch-Site": "cross-site"}, True, "a page of another site")):
        for path, body in (("/api/step", {"tool": "TextFieldCreate"}),
                           ("/api/language", {"lang": "ja"}),
                           ("/api/save", {"replace": True})):
            status, _, _ = editor.request("POST", path, body, token=token, headers=headers)
            check(status == 403, "%s to %s: %d" % (why, path, status))
    status, _, _ = editor.request("POST", "/api/step?token=" + editor.token, {"tool": ""},
                                  token=False)
    check(status == 403, "a post with the token in the query: %d" % status)
    status, _, _ = editor.request("GET", "/api/state", headers={"Sec-Fetch-Site": "cross-site"})
    check(status == 403, "a read from another site: %d" % status)
    answer = editor.raw("POST /api/language HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nX-QF-Token: %s\r\n"
                        "Origin: %s\r\nOrigin: http://evil.example\r\nContent-Length: 15\r\n"
                        "Connection: close\r\n\r\n"
                        '{"lang": "ja"}\n' % (editor.port, editor.token, own))
    check(answer.startswith(b"HTTP/1.1 403"), "two Origins: %r" % answer[:40])
    _, after = editor.api("/api/state")
    check(after["state"]["tool"] == before["state"]["tool"] and
          after["state"]["lang"] == "en" and not after["state"]["document"]["modified"],
          "a refused request changed the editor: %s" % after["state"])

    # The page's own requests go through.
    status, _, _ = editor.request("POST", "/api/step", {"tool": "TextFieldCreate"},
                                  headers={"Origin": own, "Sec-Fetch-Site": "same-origin"})
    check(status == 200, "the page's own post: %d" % status)
    editor.api("/api/step", {"tool": ""})

    # Every answer carries the headers, the server's own refusals too; one connection
    # carries several requests.
    for path, kind in (("/", "the page"), ("/api/state?token=x", "a refusal")):
        _, _, response = editor.request("GET", path, token=False)
        for name, part in SECURITY_HEADERS.items():
            check(part in (response.getheader(name) or ""), "%s: %s is %r" % (
                kind, name, response.getheader(name)))
    answer = editor.raw("GET / HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nHost: x\r\n\r\n" % editor.port)
    check(answer.startswith(b"HTTP/1.1 400") and b"frame-ancestors 'none'" in answer,
          "a malformed request's answer: %r" % answer[:200])
    connection = http.client.HTTPConnection("127.0.0.1", editor.port, timeout=30)
    sockets = set()
    for _ in range(3):
        connection.request("GET", "/api/state", headers={"X-QF-Token": editor.token})
        response = connection.getresponse()
        response.read()
        sockets.add(id(connection.sock))
        check(response.status == 200, "keep-alive: %d" % response.status)
    connection.close()
    check(len(sockets) == 1, "keep-alive: %d connections for 3 requests" % len(sockets))


def check_doors(args, folder):
    form = os.path.join(folder, "form.pdf")
    shutil.copyfile(os.path.join(args.corpus, "qpdf-field-types.pdf"), form)
    before = open(form, "rb").read()
    editor = Editor(args, folder, form)
    try:
        status, _, _ = editor.request("GET", "/api/state", token=False)
        check(status == 403, "no token: %d" % status)
        status, _, _ = editor.request("GET", "/api/state", token=False,
                                      headers={"X-QF-Token": "0" * 32})
        check(status == 403, "a wrong token: %d" % status)
        status, _, _ = editor.request("GET", "/api/state?token=" + editor.token, token=False)
        check(status == 200, "the token in the query: %d" % status)
        status, _, _ = editor.request("GET", "/api/state", host="evil.example:%d" % editor.port)
        check(status == 403, "another Host: %d" % status)
        status, _, response = editor.request("GET", "/?token=" + editor.token, token=False)
        cookie = response.getheader("Set-Cookie") or ""
        check(status == 200 and "HttpOnly" in cookie and "SameSite=Strict" in cookie and
              editor.token not in cookie, "the page and its cookie: %d %r" % (status, cookie))
        # The cookie opens the page's files, which scripts load without the header, but
        # never the API: the browser sends it to every port of 127.0.0.1.
        jar = {"Cookie": cookie.split(";")[0]}
        status, _, _ = editor.request("GET", "/app/editor.js", token=False, headers=jar)
        check(status == 200, "a file with the cookie: %d" % status)
        status, _, _ = editor.request("GET", "/api/state", token=False, headers=jar)
        check(status == 403, "the API with the cookie: %d" % status)
        check_cross_site(editor, jar)
        for path in ("/app/../secret.txt", "/app/%2e%2e/secret.txt", "/app//etc/passwd",
                     "/vendor/pdfjs/../../secret.txt", "/secret.txt"):
            status, _, _ = editor.request("GET", path)
            check(status == 404, "%s: %d" % (path, status))
        answer = editor.raw("POST /api/step HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nX-QF-Token: %s\r\n"
                            "Content-Length: %d\r\n\r\n{}" % (editor.port, editor.token,
                                                            4 * 1024 * 1024 + 1))
        check(answer.startswith(b"HTTP/1.1 413"), "an oversized body: %r" % answer[:40])
        answer = editor.raw("GET /api/state HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nHost: x\r\n"
                            "X-QF-Token: %s\r\n\r\n" % (editor.port, editor.token))
        check(answer.startswith(b"HTTP/1.1 400"), "two Host headers: %r" % answer[:40])
        status, _, _ = editor.request("GET", "/api/state", headers={"X-Long": "y" * 20000})
        check(status == 413, "an oversized head: %d" % status)
        status, _, _ = editor.request("POST", "/api/step", b"{not json")
        check(status == 400, "a body that is no JSON: %d" % status)
        for step in ({"new": {}}, {"open": "/etc/passwd"}, {"save": "/tmp/x.pdf"},
                     {"render": {"page": 0, "out": "/tmp/x.svg"}}, {"tool": "NoSuchTool"}):
            status, answer = editor.api("/api/step", step)
            check(status == 422 and answer.get("error") and answer.get("state"),
                  "%s: %d %s" % (step, status, answer))
        status, answer = editor.api("/api/event", {"type": 99, "x": 0, "y": 0})
        check(status == 422, "an unknown event: %d" % status)
        for name in ("../x.pdf", "/tmp/x.pdf", "sub/x.pdf", "x.txt", "", ".pdf", "a\\b.pdf"):
            status, answer = editor.api("/api/save", {"as": name})
            check(status == 403, "save as %r: %d" % (name, status))
        check(not os.path.exists(os.path.join(os.path.dirname(folder), "x.pdf")),
              "a save left the folder")
        status, answer = editor.api("/api/save", {"as": "form.pdf"})
        check(status == 200, "save as the document's own name: %d" % status)
        shutil.copyfile(form, os.path.join(folder, "taken.pdf"))
        status, answer = editor.api("/api/save", {"as": "taken.pdf"})
        check(status == 409, "save as a file that exists: %d" % status)
        check(open(form, "rb").read() != b"" and open(form, "rb").read()[:5] == b"%PDF-",
              "the saved document is a PDF")
    finally:
        code, out, err = editor.stop()
    check(code == 0 and "stopped" in out, "SIGINT: exit %r, %r %r" % (code, out, err))
    check(before[:5] == b"%PDF-", "the original was a PDF")

    # A signed document is saved as an update that keeps its signatures; written whole, it
    # is saved only once the person agrees to break its signatures, and asked once.
    signed = os.path.join(folder, "signed.pdf")
    shutil.copyfile(os.path.join(args.corpus, "qpdf-digitally-signed.pdf"), signed)
    original = open(signed, "rb").read()
    editor = Editor(args, folder, signed)
    try:
        status, answer = editor.api("/api/save", {})
        check(status == 200 and open(signed, "rb").read().startswith(original),
              "save of a signed document as an update: %d %s" % (status, answer))
        status, answer = editor.api("/api/save", {"fullRewrite": True})
        check(status == 409 and answer.get("signed") is True and
              "signatures will no longer hold" in answer.get("error", ""),
              "save of a signed document whole: %d %s" % (status, answer))
        check(open(signed, "rb").read().startswith(original), "the refused save wrote the file")
        status, answer = editor.api("/api/save", {"fullRewrite": True, "breakSignatures": True})
        check(status == 200 and not open(signed, "rb").read().startswith(original),
              "save breaking the signatures: %d %s" % (status, answer))
        status, answer = editor.api("/api/save", {"as": "again.pdf", "fullRewrite": True})
        check(status == 200, "a second save asked again: %d %s" % (status, answer))
    finally:
        editor.stop()


def check_records(args, folder):
    form = os.path.join(folder, "form.pdf")
    shutil.copyfile(os.path.join(args.corpus, "qpdf-field-types.pdf"), form)
    clipboard = os.path.join(folder, "clipboard.json")
    copied = subprocess.run([args.qfforms, "copy", form, "--field", "text"],
                            capture_output=True, text=True, timeout=60)
    if not check(copied.returncode == 0, "copy: %r" % copied.stderr):
        return
    good = json.loads(copied.stdout)
    editor = Editor(args, folder, form, clipboard=clipboard)
    try:
        bad = [
            (dict(good, Rect=dict(good["Rect"], left="abc")),
             "paste: on the clipboard, the record's Rect.left must be a number"),
            ("{\"Rect\": ", "paste: on the clipboard, the record is not JSON"),
            (dict(good, name="text\u0000x"), "control character U+0000"),
        ]
        for record, text in bad:
            with open(clipboard, "w") as f:
                json.dump({"UnicodeText": {"text": record if isinstance(record, str)
                                           else json.dumps(record)}}, f)
            status, payload, _ = editor.request("POST", "/api/step", {"paste": {"page": 0}})
            error = json.loads(payload).get("error", "")
            check(status == 422 and text in error, "paste %.40r: %d %r" % (record, status, error))
        # The session goes on: a good record pastes, and the pasted widget, selected, is not
        # renamed to a name holding a tab.
        with open(clipboard, "w") as f:
            json.dump({"UnicodeText": {"text": json.dumps(good)}}, f)
        status, payload, _ = editor.request("POST", "/api/step", {"paste": {"page": 0}})
        check(status == 200, "a good record after the bad ones: %d %r" % (status, payload[:200]))
        status, payload, _ = editor.request("POST", "/api/step",
                                            {"set": {"property": "FieldName", "value": "a\tb"}})
        check(status == 422 and "U+0009" in json.loads(payload).get("error", ""),
              "a name with a tab: %d %r" % (status, payload[:200]))
    finally:
        editor.stop()
    # A document the program cannot use is refused before the server listens.
    broken = os.path.join(folder, "broken.pdf")
    with open(form, "rb") as f:
        data = f.read()
    with open(broken, "wb") as f:
        f.write(data.replace(b"/MediaBox [", b"/MediaBox [ nan ", 1))
    result = subprocess.run([args.qfforms, "edit", broken, "--port", "0"], capture_output=True,
                            text=True, timeout=60)
    check(result.returncode == 1 and "broken.pdf: page 0: its MediaBox is not four numbers"
          in result.stderr and result.stdout == "", "a page box that is no box: %d %r" %
          (result.returncode, result.stderr))


def check_password(args, folder):
    source = os.path.join(args.corpus, "qpdf-field-types.pdf")
    restricted = encrypt(source, os.path.join(folder, "restricted.pdf"), "user", "owner",
                         "128", "--use-aes=y", "--modify=form")
    editor = Editor(args, folder, restricted)
    try:
        status, answer = editor.api("/api/state")
        state = answer["state"]
        check(status == 200 and state["locked"] == "password" and
              state["document"] == {"name": "restricted.pdf", "folder": folder,
                                    "modified": False, "encrypted": True} and
              "layout" not in state, "locked state: %d %s" % (status, answer))
        # Nothing but the password goes through while the document is locked.
        for path, body in (("/api/step", {"tool": "TextFieldCreate"}), ("/api/save", {}),
                           ("/api/event", {"type": 2, "x": 100, "y": 100})):
            status, answer = editor.api(path, body)
            check(status == 422 and answer["state"]["locked"] == "password",
                  "%s while locked: %d %s" % (path, status, answer))
        for path in ("/api/document.pdf", "/api/overlay/0.svg"):
            status, _, _ = editor.request("GET", path)
            check(status == 422, "%s while locked: %d" % (path, status))
        for body in ({}, {"password": 7}, {"password": "user", "more": 1}):
            status, answer = editor.api("/api/password", body)
            check(status == 400, "password body %s: %d" % (body, status))

        # A wrong password, then the user password, which opens the file but does not allow
        # changing its form, then a wrong one again: the lock says what is still needed.
        for password, locked, wrong in (("wrong", "password", True), ("user", "owner", False),
                                        ("wrong", "owner", True)):
            status, answer = editor.api("/api/password", {"password": password})
            check(status == 422 and answer.get("wrong") is wrong and
                  answer["state"]["locked"] == locked,
                  "password %r: %d %s" % (password, status, answer))
        status, answer = editor.api("/api/password", {"password": "owner"})
        check(status == 200 and answer["state"]["locked"] is None and
              answer["state"]["document"]["encrypted"] is True and
              len(answer["state"]["layout"]["pages"]) == 1,
              "owner password: %d %s" % (status, answer.get("error")))
        page = answer["state"]["layout"]["pages"][0]
        status, answer = editor.api("/api/password", {"password": "owner"})
        check(status == 409, "a password for an open document: %d" % status)

        # The page's pdf.js has no password: it gets a copy without encryption.
        status, pdf, _ = editor.request("GET", "/api/document.pdf")
        check(status == 200 and not PdfReader(io.BytesIO(pdf)).is_encrypted,
              "the page's copy is encrypted: %d" % status)
        editor.api("/api/step", {"tool": "TextFieldCreate"})
        editor.api("/api/step", {"set": {"property": "FieldName", "value": "Added"}})
        px = lambda x, y: (page["left"] + x, page["top"] + 792 - y)
        editor.event(2, *px(400, 100))
        editor.event(4, *px(480, 90))
        status, answer = editor.event(3, *px(560, 80))
        check(answer["state"]["undo"] == ["AddWidget"], "drawn: %s" % answer["state"]["undo"])
        status, answer = editor.api("/api/save", {"as": "saved.pdf"})
        check(status == 200, "saved: %d %s" % (status, answer.get("error")))
    finally:
        code, _, err = editor.stop()
    check(code == 0, "stopped: %r %s" % (code, err))
    check_saved(restricted, os.path.join(folder, "saved.pdf"), "user", "owner",
                "the editor's save")

    # A form that opens without a password but only its owner may change: the page asks
    # for the owner password at once.
    readonly = encrypt(source, os.path.join(folder, "readonly.pdf"), "", "owner", "256",
                       "--modify=none")
    editor = Editor(args, folder, readonly)
    try:
        status, answer = editor.api("/api/state")
        check(answer["state"]["locked"] == "owner", "read-only form: %s" % answer)
        status, answer = editor.api("/api/password", {"password": ""})
        check(status == 422 and answer["state"]["locked"] == "owner",
              "the empty user password: %d %s" % (status, answer))
    finally:
        editor.stop()


def answered_in_time(editor, seconds, why):
    try:
        status, took = editor.timed()
    except OSError as e:
        check(False, "%s: %s; the editor: %s" % (why, e, editor.threads()))
        return float("inf")
    check(status == 200 and took < seconds, "%s: %d after %.2f s" % (why, status, took))
    return took


def dribble(editor, cut):
    """Sends the first bytes of a request's head one every 2 s; cut receives the seconds
    from the first byte until the server closed the connection (None: it did not within
    10 s)."""
    with editor.connect() as s:
        start = time.monotonic()
        for byte in editor.head("GET", "/api/state")[:5]:
            try:
                s.send(bytes([byte]))
            except OSError:
                break
            if select.select([s], [], [], 2)[0]:
                try:
                    if s.recv(100):
                        break  # an answer to half a head
                except OSError:
                    pass
                cut.append(time.monotonic() - start)
                return
        cut.append(None)


def check_limits(args, folder):
    form = os.path.join(folder, "form.pdf")
    shutil.copyfile(os.path.join(args.corpus, "qpdf-field-types.pdf"), form)
    editor = Editor(args, folder, form)
    figures = []
    try:
        # Clients that send a byte every 2 s are cut off 5 s after their first byte, the
        # whole head's deadline, while the others are answered at once.
        cuts = []
        dribblers = [threading.Thread(target=dribble, args=(editor, cuts)) for _ in range(8)]
        for t in dribblers:
            t.start()
        slowest = 0
        while any(t.is_alive() for t in dribblers):
            status, took = editor.timed()
            check(status == 200, "beside the dribblers: %d" % status)
            slowest = max(slowest, took)
            time.sleep(0.2)
        check(slowest < 0.5, "beside the dribblers an answer took %.2f s" % slowest)
        check(len(cuts) == 8 and all(c is not None and 4.5 < c < 6.5 for c in cuts),
              "dribblers cut after %s s" % cuts)
        done = [c for c in cuts if c is not None] or [0]
        figures.append("8 dribblers cut after %.1f-%.1f s, the slowest answer beside them %.3f s"
                       % (min(done), max(done), slowest))

        # Idle connections: past the cap of 64 the server answers 503 (or, past twice the
        # cap, just closes); a normal client still gets in, the oldest idle connection
        # making room for it.
        idle = [editor.connect() for _ in range(300)]
        time.sleep(0.5)
        answers = {"503": 0, "closed": 0, "nothing": 0}
        for s in idle[64:]:
            s.setblocking(False)
            try:
                data = s.recv(100)
                answers["503" if data.startswith(b"HTTP/1.1 503") else "closed"] += 1
            except BlockingIOError:
                answers["nothing"] += 1
            except OSError:
                answers["closed"] += 1
        check(answers["503"] >= 32 and answers["nothing"] == 0,
              "300 idle connections: %s" % answers)
        time.sleep(0.6)
        figures.append("300 idle connections: %s past the cap, then an answer in %.3f s" % (
            answers, answered_in_time(editor, 1, "beside 300 idle connections")))
        for s in idle:
            s.close()

        # Clients killed in the middle of a head, of a body, of an answer too large for
        # the sockets' buffers: the server lets their connections go.
        big = os.path.join(editor.web, "app", "big.js")
        with open(big, "wb") as f:
            f.write(b"//" * (16 << 20))
        time.sleep(0.3)
        baseline = editor.descriptors()
        requests = [editor.head("GET", "/api/state")[:20],
                    editor.head("POST", "/api/step", 1000) + b'{"tool": ',
                    editor.head("GET", "/app/big.js")]
        killed = []
        for request in requests:
            child = subprocess.Popen([sys.executable, "-c", (
                "import socket, sys, time\n"
                "s = socket.create_connection(('127.0.0.1', %d))\n"
                "s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)\n"
                "s.sendall(sys.stdin.buffer.read())\n"
                "print(flush=True)\n"
                "time.sleep(60)\n") % editor.port],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE)
            child.stdin.write(request)
            child.stdin.close()
            child.stdout.readline()
            killed.append(child)
        time.sleep(0.3)
        for child in killed:
            child.kill()
            child.wait()
        answered_in_time(editor, 1, "after clients were killed")
        deadline = time.monotonic() + 3
        while editor.descriptors() > baseline and time.monotonic() < deadline:
            time.sleep(0.1)
        check(editor.descriptors() <= baseline,
              "killed clients left %d descriptors open" % (editor.descriptors() - baseline))

        # SIGTERM while an answer waits for a client that does not read: the editor stops
        # within 2 s all the same.
        stuck = socket.socket()
        stuck.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        stuck.connect(("127.0.0.1", editor.port))
        stuck.sendall(editor.head("GET", "/app/big.js"))
        half = editor.connect()
        half.sendall(b"GET /api/st")
        time.sleep(0.5)
        start = time.monotonic()
        editor.proc.send_signal(signal.SIGTERM)
        try:
            editor.proc.wait(timeout=10)
            out = editor.output()[0]
        except subprocess.TimeoutExpired:
            out = ""
        took = time.monotonic() - start
        check(editor.proc.returncode == 0 and "stopped" in out and took < 2,
              "SIGTERM during a stuck answer: exit %r after %.2f s" % (editor.proc.returncode,
                                                                         took))
        figures.append("SIGTERM during a stuck answer: stopped in %.2f s" % took)
        stuck.close()
        half.close()
    finally:
        if editor.proc.poll() is None:
            editor.stop()

    # Out of file descriptors: accept fails until some are free again, and the server
    # waits instead of trying again at once; connections that have waited long for a
    # request give theirs up, so that a normal client still gets in.
    editor = Editor(args, folder, form, max_files=32)
    try:
        clients = [editor.connect() for _ in range(60)]
        time.sleep(0.3)
        cpu = editor.cpu_seconds()
        time.sleep(2)
        cpu = editor.cpu_seconds() - cpu
        check(cpu < 0.3, "out of descriptors the server used %.2f s of CPU in 2 s" % cpu)
        figures.append("out of descriptors: %.2f s of CPU in 2 s, an answer in %.2f s" % (
            cpu, answered_in_time(editor, 3, "out of descriptors")))
        answered_in_time(editor, 3, "out of descriptors, a second client")
        for s in clients:
            s.close()
        answered_in_time(editor, 1.5, "descriptors free again")
    finally:
        code, _, err = editor.stop()
    check(code == 0, "stopped: %r %s" % (code, err))
    print("\n".join(figures))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--qfforms", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("check", choices=["doors", "limits", "records", "password"])
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        os.environ["XDG_CONFIG_HOME"] = os.path.join(folder, "config")
        work = os.path.join(folder, "work")
        os.makedirs(work)
        {"doors": check_doors, "limits": check_limits, "records": check_records,
         "password": check_password}[args.check](args, work)
    return report(args.check)


if __name__ == "__main__":
    sys.exit(main())
