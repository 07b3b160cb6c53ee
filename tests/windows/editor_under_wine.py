#!/usr/bin/python3
"""`qfforms.exe edit` under wine: it listens on the loopback through Winsock, serves the page
with the session's token and refuses it without, and Ctrl+C (SIGINT, which wine hands to
the console program) stops it cleanly.

    editor_under_wine.py RUNNER PREFIX QFFORMS.EXE FORM.pdf

Exit status 0 when every check passed.
"""

import re
import signal
import socket
import subprocess
import sys
import time


def get(port, path):
    with socket.create_connection(("127.0.0.1", port), timeout=10) as s:
        s.sendall(("GET %s HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nConnection: close\r\n\r\n" %
                   (path, port)).encode())
        data = b""
        while chunk := s.recv(65536):
            data += chunk
    return data.split(b"\r\n", 1)[0].decode()


def main():
    runner, prefix, program, form = sys.argv[1:5]
    editor = subprocess.Popen([runner, prefix, program, "edit", form], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True)
    failures = []
    try:
        first = editor.stdout.readline()
        found = re.search(r"http://127\.0\.0\.1:(\d+)/\?token=(\w+)", first)
        if not found:
            failures.append("no address printed: %r" % first)
        else:
            port, token = int(found.group(1)), found.group(2)
            status = get(port, "/?token=" + token)
            if status != "HTTP/1.1 200 OK":
                failures.append("the page with the token: " + status)
            status = get(port, "/")
            if status != "HTTP/1.1 403 Forbidden":
                failures.append("the page without the token: " + status)
        started = time.monotonic()
        editor.send_signal(signal.SIGINT)
        out, err = editor.communicate(timeout=20)
        if editor.returncode != 0 or "qfforms edit: stopped" not in out:
            failures.append("Ctrl+C: exit %d, %r %r" % (editor.returncode, out, err))
        else:
            print("stopped %.1f s after Ctrl+C" % (time.monotonic() - started))
    except subprocess.TimeoutExpired:
        failures.append("Ctrl+C did not stop the editor within 20 s")
    finally:
        if editor.poll() is None:
            editor.kill()
            editor.communicate()
    for failure in failures:
        print("FAIL " + failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
