#!/usr/bin/env python3
"""Runs every page case of tests/pages through one FastCGI worker and as a
CGI process, and compares the two responses byte for byte (after the Status
line that only the FastCGI response has, and with the statistics' timings
masked).  The cases run twice through the worker, forwards and then
backwards, so each request follows pages that set variables, cookies,
headers, modes and files of their own: whatever one request leaves behind
shows in a later one.

  fastcgi_pages.py CVML ADDRESS PAGES_DIR

A case whose CGI output differs between two CGI runs (clocks, random
numbers), or that sets one of the program's own CVML_ settings (a server
takes those from its own environment and flags, not from a request), is
still sent to the worker but not compared.  Exits 1 on any
difference.
"""
import os
import re
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import fastcgi_client  # noqa: E402

TIMING = re.compile(rb" - [0-9]+ms$", re.M)


def case_env(page):
    directory = os.path.dirname(page)
    base = page[:-4]
    env = {"PATH": "/usr/bin:/bin"}
    if os.path.exists(base + ".env"):
        for line in open(base + ".env", encoding="latin-1").read().splitlines():
            if line:
                name, _, value = line.replace("@DIR@", directory).partition("=")
                env[name] = value
    # A case run from the command line becomes a request for the same page.
    if "DOCUMENT_ROOT" not in env:
        env["DOCUMENT_ROOT"] = directory
        env["SCRIPT_FILENAME"] = page
        env.setdefault("REQUEST_METHOD", "GET")
    return env


def cgi(cvml, page, env, body):
    run = subprocess.run([cvml], env=env, input=body, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                         cwd=os.path.dirname(page), timeout=30)
    return TIMING.sub(b" - Nms", run.stdout)


def fastcgi(address, env, body):
    out, _, ended = fastcgi_client.exchange(address, list(env.items()), body)
    if out.startswith(b"Status: "):
        out = out[out.index(b"\n") + 1:]
    return TIMING.sub(b" - Nms", out), ended


def main(argv):
    cvml, address, pages_dir = argv[1], argv[2], os.path.abspath(argv[3])
    cases = []
    for root, _, files in os.walk(pages_dir):
        for name in sorted(files):
            base = os.path.join(root, name[:-4])
            if name.endswith(".cvm") and os.path.exists(base + ".out") and not os.path.exists(base + ".args"):
                cases.append(os.path.join(root, name))
    cases.sort()
    expected, skipped = {}, []
    for page in cases:
        env = case_env(page)
        body = open(page[:-4] + ".in", "rb").read() if os.path.exists(page[:-4] + ".in") else b""
        first, second = cgi(cvml, page, env, body), cgi(cvml, page, env, body)
        if any(name.startswith("CVML_") for name in env):
            # The program's own settings: a server takes them from its own
            # environment and flags, not from a request.
            skipped.append(page)
        elif first == second:
            expected[page] = first
        else:
            skipped.append(page)
    # A page that writes or grows until its output or memory limit would,
    # without the small limit its case sets, work up to the server's default
    # (256 MB of output a line at a time, a decimal squared up to 128 MB):
    # only a measure of the machine's speed, so it is not sent.  The server's
    # own limits have their test (fastcgi_faults_test.sh).
    unsent = [page for page in cases
              if "CVML_MAX_OUTPUT" in case_env(page) or "CVML_MAX_MEMORY" in case_env(page)]
    failures = 0
    for pass_name, order in (("forwards", cases), ("backwards", list(reversed(cases)))):
        for page in order:
            if page in unsent:
                continue
            env = case_env(page)
            body = open(page[:-4] + ".in", "rb").read() if os.path.exists(page[:-4] + ".in") else b""
            out, ended = fastcgi(address, env, body)
            name = os.path.relpath(page, pages_dir)
            if not ended:
                print(f"FAIL: {name} ({pass_name}): the request did not end properly")
                failures += 1
            elif page in expected and out != expected[page]:
                print(f"FAIL: {name} ({pass_name}): the FastCGI response differs from the CGI one")
                print("  CGI:     ", repr(expected[page][:600]))
                print("  FastCGI: ", repr(out[:600]))
                failures += 1
    print(f"{len(cases) - len(unsent)} cases, each twice through one worker ({len(unsent)} limit cases not sent); {len(skipped)} not compared "
          f"(CVML_ settings, or output that changes from run to run): {', '.join(os.path.relpath(p, pages_dir) for p in skipped)}")
    print(f"{failures} differences")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
