#!/usr/bin/env python3
"""Scripted SMTP, POP3 and FTP peers, and hostile servers, for the CVWEB
system test.

peer.py KIND PORTFILE LOGFILE [CASE]
Listens on 127.0.0.1 (on ::1 for a CASE with "ipv6" in its name) on a free
port, writes the port to PORTFILE, serves one client connection with a fixed
dialogue and writes what the client sent to LOGFILE (the varying host name,
MIME boundary and data port masked).  KIND "hostile" runs the misbehaving
server that CASE names.  Every wait is bounded: the whole run ends after 30
seconds.
"""
import os
import re
import signal
import socket
import sys
import time

TIMEOUT = 15


class Control:
    def __init__(self, conn):
        self.conn = conn
        self.buffer = b""
        self.log = []

    def line(self):
        while b"\n" not in self.buffer:
            chunk = self.conn.recv(4096)
            if not chunk:
                return None
            self.buffer += chunk
        line, _, self.buffer = self.buffer.partition(b"\n")
        return line.decode("latin-1").rstrip("\r")

    def say(self, text):
        self.conn.sendall(text.encode("latin-1"))


def smtp(c):
    c.say("220 peer ESMTP ready\r\n")
    boundary = None
    while True:
        line = c.line()
        if line is None:
            return
        verb = line[:4].upper()
        if verb in ("HELO", "EHLO"):
            # The machine's own name varies; a name the page set is kept.
            c.log.append(line if line.endswith(".example") else verb + " @HOST@")
            c.say("250-peer\r\n250-8BITMIME\r\n250 AUTH PLAIN LOGIN\r\n" if verb == "EHLO" else "250 hello\r\n")
            continue
        c.log.append(line)
        if verb == "AUTH":
            c.say("235 2.7.0 Authentication successful\r\n")
        elif verb == "RCPT" and "reject" in line:
            c.say("550 no such user\r\n")
        elif verb in ("RSET", "MAIL", "RCPT"):
            c.say("250 ok\r\n")
        elif verb == "DATA":
            c.say("354 go ahead\r\n")
            while True:
                body = c.line()
                if body is None:
                    return
                found = re.search(r'boundary="([^"]*)"', body)
                if found and boundary is None:
                    boundary = found.group(1)
                if boundary:
                    body = body.replace(boundary, "@BOUNDARY@")
                c.log.append(body)
                if body == ".":
                    break
            c.say("250 queued\r\n")
        elif verb == "QUIT":
            c.say("221 bye\r\n")
            return
        else:
            c.say("502 unknown\r\n")


MESSAGES = [
    "From: Ann <ann@example.com>\r\nSUBJECT: Hello\r\nX-Test: 1\r\n\r\nFirst line\r\n.dotted\r\n",
    "From: bob@example.com\r\nSubject: Second\r\n\r\nBody two\r\n",
]


def pop3(c):
    c.say("+OK peer POP3 ready\r\n")
    while True:
        line = c.line()
        if line is None:
            return
        c.log.append(line)
        words = line.split()
        verb = words[0].upper() if words else ""
        if verb == "PASS" and line == "PASS wrong":
            c.say("-ERR bad password\r\n")
        elif verb in ("USER", "RSET"):
            c.say("+OK\r\n")  # a bare "+OK", as some servers answer
        elif verb == "PASS":
            c.say("+OK Logged in.\r\n")
        elif verb == "STAT":
            c.say("+OK %d %d\r\n" % (len(MESSAGES), sum(len(m) for m in MESSAGES)))
        elif verb == "LIST":
            c.say("+OK list follows\r\n" + "".join("%d %d\r\n" % (i + 1, len(m)) for i, m in enumerate(MESSAGES)) + ".\r\n")
        elif verb in ("RETR", "DELE"):
            number = int(words[1]) if len(words) > 1 and words[1].isdigit() else 0
            if not 1 <= number <= len(MESSAGES):
                c.say("-ERR no such message\r\n")
            elif verb == "DELE":
                c.say("+OK deleted\r\n")
            else:
                c.say("+OK message follows\r\n" + MESSAGES[number - 1].replace("\r\n.", "\r\n..") + ".\r\n")
        elif verb == "QUIT":
            c.say("+OK bye\r\n")
            return
        else:
            c.say("-ERR unknown\r\n")


def ftp(c):
    files = {"/readme.txt": b"Read me\r\nsecond line\r\n"}
    dirs = {"/"}
    cwd = "/"
    user = ""
    passive_listener = None
    active_address = None

    def path(name):
        return name if name.startswith("/") else (cwd.rstrip("/") + "/" + name)

    def data_connection():
        if passive_listener is not None:
            conn, _ = passive_listener.accept()
        else:
            conn = socket.create_connection(active_address, timeout=TIMEOUT)
        conn.settimeout(TIMEOUT)
        return conn

    c.say("220 peer FTP ready\r\n")
    while True:
        line = c.line()
        if line is None:
            return
        verb, _, arg = line.partition(" ")
        verb = verb.upper()
        c.log.append("PORT @ADDRESS@" if verb == "PORT" else line)
        if verb == "USER":
            user = arg
            c.say("230 anonymous in\r\n" if arg == "anonymous" else "331 password please\r\n")
        elif verb == "PASS":
            if arg == "wrong":
                c.say("530 login incorrect\r\n")
            else:
                c.say("332 account please\r\n" if user == "billed" else "230 logged in\r\n")
        elif verb == "ACCT":
            c.say("230 account ok\r\n")
        elif verb == "TYPE":
            c.say("200 type set\r\n")
        elif verb == "EPSV":
            passive_listener = socket.socket()
            passive_listener.bind(("127.0.0.1", 0))
            passive_listener.listen(1)
            passive_listener.settimeout(TIMEOUT)
            c.say("229 Entering Extended Passive Mode (|||%d|)\r\n" % passive_listener.getsockname()[1])
        elif verb == "PASV":
            passive_listener = socket.socket()
            passive_listener.bind(("127.0.0.1", 0))
            passive_listener.listen(1)
            passive_listener.settimeout(TIMEOUT)
            port = passive_listener.getsockname()[1]
            c.say("227 Entering Passive Mode (127,0,0,1,%d,%d)\r\n" % (port >> 8, port & 255))
        elif verb == "PORT":
            n = [int(x) for x in arg.split(",")]
            active_address = ("%d.%d.%d.%d" % tuple(n[:4]), n[4] * 256 + n[5])
            passive_listener = None
            c.say("200 port ok\r\n")
        elif verb in ("RETR", "STOR", "LIST"):
            if verb == "RETR" and path(arg) not in files:
                c.say("550 no such file\r\n")
                continue
            c.say("150 opening data connection\r\n")
            data = data_connection()
            if verb == "RETR":
                data.sendall(files[path(arg)])
            elif verb == "LIST":
                prefix = cwd.rstrip("/") + "/"
                names = [p[len(prefix):] for p in sorted(files) if p.rsplit("/", 1)[0] + "/" == prefix]
                names += [d[len(prefix):] + "/" for d in sorted(dirs)
                          if d != cwd and d.rsplit("/", 1)[0] + "/" == prefix]
                data.sendall("".join(n + "\r\n" for n in names).encode())
            else:
                received = b""
                while True:
                    chunk = data.recv(4096)
                    if not chunk:
                        break
                    received += chunk
                files[path(arg)] = received
            data.close()
            c.say("226 transfer complete\r\n")
        elif verb == "DELE":
            c.say("250 deleted\r\n" if files.pop(path(arg), None) is not None else "550 no such file\r\n")
        elif verb == "CWD":
            target = path(arg).rstrip("/") or "/"
            if target in dirs:
                cwd = target
                c.say("250 directory changed\r\n")
            else:
                c.say("550 no such directory\r\n")
        elif verb == "MKD":
            dirs.add(path(arg))
            c.say('257 "%s" created\r\n' % path(arg))
        elif verb == "RMD":
            target = path(arg)
            busy = any(p.startswith(target + "/") for p in list(files) + list(dirs))
            if target in dirs and not busy:
                dirs.discard(target)
                c.say("250 removed\r\n")
            else:
                c.say("550 cannot remove\r\n")
        elif verb == "QUIT":
            c.say("221 bye\r\n")
            return
        else:
            c.say("502 unknown\r\n")


def http(c):
    """A plain HTTP server: the request's lines are logged with a visible
    <CR> where they end in CR LF."""
    request(c)
    c.say("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok")
    while c.line() is not None:
        pass


def request(c):
    while True:
        raw = raw_line(c)
        if raw is None:
            return
        text = raw.decode("latin-1")
        c.log.append(text.rstrip("\r\n") + ("<CR>" if text.endswith("\r\n") else ""))
        if text in ("\r\n", "\n"):
            return


def raw_line(c):
    while b"\n" not in c.buffer:
        chunk = c.conn.recv(4096)
        if not chunk:
            return None
        c.buffer += chunk
    line, _, c.buffer = c.buffer.partition(b"\n")
    return line + b"\n"


def trickle(c, text, pause=0.25):
    """Sends `text` a byte at a time until the client goes away."""
    for byte in text:
        c.say(byte)
        time.sleep(pause)


def flood(c, line, count=50000):
    for i in range(count):
        c.say(line % i if "%" in line else line)


def hostile(c, case):
    if case.startswith("hostile_http"):
        request(c)
        if case == "hostile_http_headers":
            c.say("HTTP/1.1 200 OK\r\n")
            flood(c, "X-Filler: %d\r\n")
        elif case == "hostile_http_hugeline":
            c.say("HTTP/1.1 200 OK\r\nX-Big: " + "x" * 300000)
        elif case == "hostile_http_trickle":
            c.say("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n")
            trickle(c, "y" * 100)
        elif case == "hostile_http_close":
            c.say("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nshort")
        elif case == "hostile_http_chunk":
            c.say("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\nzz\r\nmore")
            time.sleep(1)
    elif case == "hostile_smtp_flood":
        c.say("220-welcome\r\n")
        flood(c, "220-and more welcome %d\r\n")
    elif case == "hostile_pop3_trickle":
        c.say("+OK ready\r\n")
        for answer in ("+OK\r\n", "+OK\r\n", "+OK\r\n", "+OK 1 10\r\n"):
            c.line()
            c.say(answer)
        c.line()
        c.say("+OK listing follows\r\n")
        trickle(c, "1 10\r\n" * 20)
    elif case == "hostile_ftp_listing":
        c.say("220 ready\r\n")
        c.line(), c.say("230 in\r\n")
        c.line(), c.say("200 binary\r\n")
        c.line()
        data_listener = socket.socket()
        data_listener.bind(("127.0.0.1", 0))
        data_listener.listen(1)
        data_listener.settimeout(TIMEOUT)
        c.say("229 (|||%d|)\r\n" % data_listener.getsockname()[1])
        c.line()
        data, _ = data_listener.accept()
        c.say("150 here\r\n")
        try:
            data.sendall(b"first.txt\r\n" + b"n" * 200000)
        except OSError:
            pass
        data.close()
        c.say("226 done\r\n")
        while c.line() is not None:
            c.say("221 bye\r\n")


def main():
    kind, port_file, log_file = sys.argv[1:4]
    case = sys.argv[4] if len(sys.argv) > 4 else kind
    signal.alarm(30)
    ipv6 = "ipv6" in case
    listener = socket.socket(socket.AF_INET6 if ipv6 else socket.AF_INET)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("::1" if ipv6 else "127.0.0.1", 0))
    listener.listen(1)
    listener.settimeout(TIMEOUT)
    with open(port_file + ".tmp", "w") as f:
        f.write("%d\n" % listener.getsockname()[1])
    # Renamed into place so a reader never sees a half-written port.
    os.rename(port_file + ".tmp", port_file)
    control = None
    try:
        conn, _ = listener.accept()
        conn.settimeout(TIMEOUT)
        control = Control(conn)
        if kind == "hostile":
            hostile(control, case)
        else:
            {"smtp": smtp, "pop3": pop3, "ftp": ftp, "http": http}[kind](control)
    except (OSError, socket.timeout) as e:
        if control and kind != "hostile":
            control.log.append("peer: %s" % e.__class__.__name__)
    finally:
        with open(log_file, "w", encoding="latin-1") as f:
            f.write("".join(line + "\n" for line in (control.log if control else [])))


if __name__ == "__main__":
    main()
