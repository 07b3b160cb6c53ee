#!/usr/bin/python3
"""Tests of the editor's server, `qfforms edit`, spoken to over HTTP without a browser.

    editor_server.py --qfforms BIN --corpus DIR CHECK

CHECK is one of:
  doors     the token, the Host header, oversized and malformed requests, static files
            that leave their folder, steps the editor does not take, saves outside the
            document's folder; a clean stop on SIGINT
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
import shutil
import signal
import socket
import subprocess
import sys
import tempfile

from pypdf import PdfReader

from passwords import check_saved, encrypt
from run_sessions import check, failures


class Editor:
    """A running `qfforms edit` and a client of it."""

    def __init__(self, args, folder, pdf):
        web = os.path.join(folder, "web")
        os.makedirs(os.path.join(web, "app"), exist_ok=True)
        with open(os.path.join(web, "index.html"), "w") as f:
            f.write("<!doctype html><title>editor</title>")
        with open(os.path.join(web, "app", "editor.js"), "w") as f:
            f.write("export {};")
        with open(os.path.join(folder, "secret.txt"), "w") as f:
            f.write("not for the browser")
        self.proc = subprocess.Popen([args.qfforms, "edit", pdf, "--port", "0", "--web", web],
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = self.proc.stdout.readline()
        match = re.search(r"http://127\.0\.0\.1:(\d+)/\?token=([0-9a-f]+)", line)
        if not match:
            self.proc.kill()
            raise RuntimeError("no address in %r %r" % (line, self.proc.stderr.read()))
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

    def raw(self, text):
        """Sends text as it is and returns what comes back."""
        with socket.create_connection(("127.0.0.1", self.port), timeout=30) as s:
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

    def stop(self):
        self.proc.send_signal(signal.SIGINT)
        try:
            out, err = self.proc.communicate(timeout=20)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            return None, "", "did not stop"
        return self.proc.returncode, out, err


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
        check(status == 200 and "HttpOnly" in cookie and "SameSite=Strict" in cookie,
              "the page and its cookie: %d %r" % (status, cookie))
        status, _, _ = editor.request("GET", "/app/editor.js", token=False,
                                      headers={"Cookie": "qf_token=" + editor.token})
        check(status == 200, "a file with the cookie: %d" % status)
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

    # A signed document is saved only once the person agrees to break its signatures, and
    # asked once.
    signed = os.path.join(folder, "signed.pdf")
    shutil.copyfile(os.path.join(args.corpus, "qpdf-digitally-signed.pdf"), signed)
    original = open(signed, "rb").read()
    editor = Editor(args, folder, signed)
    try:
        status, answer = editor.api("/api/save", {})
        check(status == 409 and answer.get("signed") is True and
              "signatures will no longer hold" in answer.get("error", ""),
              "save of a signed document: %d %s" % (status, answer))
        check(open(signed, "rb").read() == original, "the refused save wrote the file")
        status, answer = editor.api("/api/save", {"breakSignatures": True})
        check(status == 200, "save breaking the signatures: %d %s" % (status, answer))
        status, answer = editor.api("/api/save", {"as": "again.pdf"})
        check(status == 200, "a second save asked again: %d %s" % (status, answer))
    finally:
        editor.stop()


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


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--qfforms", required=True)
    parser.add_argument("--corpus", required=True)
    parser.add_argument("check", choices=["doors", "password"])
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        os.environ["XDG_CONFIG_HOME"] = os.path.join(folder, "config")
        work = os.path.join(folder, "work")
        os.makedirs(work)
        {"doors": check_doors, "password": check_password}[args.check](args, work)
    for f in failures:
        print("FAIL:", f)
    print("%s: %s" % (args.check, "ok" if not failures else "%d failures" % len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
