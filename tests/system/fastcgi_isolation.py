#!/usr/bin/env python3
"""Drives one FastCGI worker with pages that change every kind of request
state and a page that would print any of it, interleaved, then counts the
worker's descriptors and resident memory over many requests.

  fastcgi_isolation.py ADDRESS SITE WORKER_PID REQUESTS

SITE holds a/ (the pages that change things) and b/ (show.cvm, which
prints); the pages name the peer port given by the PEER_PORT parameter.
Exits 1 on any leak.
"""
import os
import re
import socket
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import fastcgi_client  # noqa: E402

TIMING = re.compile(rb" - [0-9]+ms$", re.M)


def peer():
    """A raw TCP peer for the pages' connections: accepts and waits."""
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(512)

    def serve():
        held = []
        while True:
            conn, _ = listener.accept()
            held.append(conn)
            if len(held) > 64:
                held.pop(0).close()

    threading.Thread(target=serve, daemon=True).start()
    return listener.getsockname()[1]


def params(site, directory, page, port, extra=()):
    root = os.path.join(site, directory)
    p = [("DOCUMENT_ROOT", root), ("SCRIPT_FILENAME", os.path.join(root, page)), ("REQUEST_METHOD", "GET"),
         ("REQUEST_URI", "/" + page), ("SERVER_NAME", "127.0.0.1"), ("SERVER_PORT", "80"),
         ("PEER_PORT", str(port))]
    return p + list(extra)


def fd_count(pid):
    """The worker's descriptors once it is idle again: it closes a
    connection only after the client has closed its end."""
    counts = []
    for _ in range(20):
        counts.append(len(os.listdir(f"/proc/{pid}/fd")))
        if len(counts) > 2 and counts[-1] == counts[-2] == counts[-3]:
            break
        time.sleep(0.05)
    return counts[-1]


def rss_kb(pid):
    for line in open(f"/proc/{pid}/status"):
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    return 0


def main(argv):
    address, site, worker, total = argv[1], argv[2], int(argv[3]), int(argv[4])
    # A sanitizer build keeps freed memory in quarantine, so its resident
    # size grows by design; it finds leaks itself.
    sanitizer = len(argv) > 5 and argv[5] == "1"
    port = peer()
    home = os.readlink(f"/proc/{worker}/cwd")
    failures = 0

    def fail(message):
        nonlocal failures
        failures += 1
        print("FAIL:", message)

    def show():
        out, _, ended = fastcgi_client.exchange(address, params(site, "b", "show.cvm", port))
        if not ended:
            fail("show.cvm did not end properly")
        return TIMING.sub(b" - Nms", out)

    setters = [
        ("set.cvm", [("QUERY_STRING", "leak=query"), ("HTTP_COOKIE", "leak=cookie"), ("TZ", "Asia/Tokyo")],
         b""),
        ("set.cvm", [("REQUEST_METHOD", "POST"), ("CONTENT_TYPE", "application/x-www-form-urlencoded"),
                     ("CONTENT_LENGTH", "9")], b"leak=post"),
        ("fail.cvm", [], b""),
        ("away.cvm", [], b""),
        ("binary.cvm", [], b""),
    ]
    baseline = show()
    for needed in (b"Content-type: text/html\n\n", b"leaked=<leaked>", b"q=0.333333333333333",
                   b"file=0", b"socket=0", b"get=<HTTPGET> post=<HTTPPOST> cookie=<HTTPCOOKIE>",
                   b"Level 4 tag dump"):
        if needed not in baseline:
            fail(f"a fresh worker's show.cvm lacks {needed!r}:\n{baseline.decode(errors='replace')}")
    if failures:
        return 1

    # Interleaved: every kind of change, then the page that would show it.
    for round_ in range(20):
        for page, extra, body in setters:
            p = params(site, "a", page, port, extra)
            if body:
                p = [kv for kv in p if kv[0] != "REQUEST_METHOD"]
            out, _, ended = fastcgi_client.exchange(address, p, body)
            if not ended:
                fail(f"{page} did not end properly")
            seen = show()
            if seen != baseline:
                fail(f"after {page} ({extra}) show.cvm printed:\n{seen.decode(errors='replace')}\n"
                     f"instead of:\n{baseline.decode(errors='replace')}")
                return 1
            cwd = os.readlink(f"/proc/{worker}/cwd")
            if cwd != home:
                fail(f"between requests the worker's directory is {cwd}, not {home}")
                return 1
    print(f"PASS: show.cvm printed the same after {20 * len(setters)} requests that changed things")

    # Descriptors and memory over many requests, after a warm-up.
    def run(count):
        for i in range(count):
            page, extra, body = setters[i % len(setters)]
            p = params(site, "a", page, port, extra)
            if body:
                p = [kv for kv in p if kv[0] != "REQUEST_METHOD"]
            _, _, ended = fastcgi_client.exchange(address, p, body)
            if not ended:
                fail(f"request {i} ({page}) did not end properly")
                return False
        return True

    if not run(1000):
        return 1
    fds, rss = fd_count(worker), rss_kb(worker)
    if not run(total):
        return 1
    fds_after, rss_after = fd_count(worker), rss_kb(worker)
    print(f"worker {worker}: {fds} descriptors and {rss} kB resident after 1000 requests, "
          f"{fds_after} and {rss_after} kB after {total} more")
    if fds_after != fds:
        fail(f"descriptors went from {fds} to {fds_after}")
    if rss_after > rss + 1024:
        if sanitizer:
            print(f"note: resident memory grew by {rss_after - rss} kB (sanitizer build: its quarantine; "
                  "the normal build checks this)")
        else:
            fail(f"resident memory grew by {rss_after - rss} kB")
    if not failures:
        what = "descriptors" if sanitizer else "descriptors and resident memory"
        print(f"PASS: {what} stayed flat over {total} requests")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
