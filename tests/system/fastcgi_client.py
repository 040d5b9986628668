#!/usr/bin/env python3
"""A FastCGI client for the server's tests: it speaks to `cvml --listen`
directly, as a web server would, and can also send records no web server
would send.

  fastcgi_client.py request ADDRESS [NAME=VALUE...] [--param-file NAME FILE]
                    [--stdin FILE]
      one request; prints the response (the FCGI_STDOUT stream) as it came
      and exits 0 when the request ended properly, 1 otherwise
  fastcgi_client.py repeat ADDRESS COUNT [NAME=VALUE...]
      COUNT requests; prints the first response and exits 1 when any
      response differs from it
  fastcgi_client.py raw ADDRESS BYTES [--wait SECONDS]
      sends BYTES (a Python bytes literal, e.g. "b'\\x01\\x01'"), closes the
      sending side, prints what comes back (repr) and exits 0
  fastcgi_client.py cut ADDRESS [NAME=VALUE...]
      sends a request and closes the connection after the first bytes of
      the response

ADDRESS is HOST:PORT or unix:PATH.
"""
import ast
import socket
import struct
import sys

BEGIN_REQUEST, ABORT_REQUEST, END_REQUEST, PARAMS, STDIN, STDOUT, STDERR = 1, 2, 3, 4, 5, 6, 7


def connect(address, timeout=30):
    if address.startswith("unix:"):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(timeout)
        s.connect(address[5:])
    else:
        host, port = address.rsplit(":", 1)
        s = socket.create_connection((host.strip("[]"), int(port)), timeout=timeout)
    return s


def record(kind, content=b"", request_id=1):
    out = b""
    # A long content goes in several records of at most 65535 bytes.
    while True:
        piece, content = content[:65535], content[65535:]
        out += struct.pack(">BBHHBB", 1, kind, request_id, len(piece), 0, 0) + piece
        if not content:
            return out


def length(n):
    return bytes([n]) if n < 128 else struct.pack(">I", n | 0x80000000)


def params_bytes(params):
    body = b""
    for name, value in params:
        name, value = name.encode(), value.encode()
        body += length(len(name)) + length(len(value)) + name + value
    return body


def request_bytes(params, body=b"", request_id=1):
    out = record(BEGIN_REQUEST, struct.pack(">HB5x", 1, 0), request_id)
    out += record(PARAMS, params_bytes(params), request_id) + record(PARAMS, b"", request_id)
    if body:
        out += record(STDIN, body, request_id)
    return out + record(STDIN, b"", request_id)


def read_records(sock):
    """Yields (type, content) until the connection closes."""
    buffer = b""
    while True:
        while len(buffer) < 8 or len(buffer) < 8 + struct.unpack(">H", buffer[4:6])[0] + buffer[6]:
            chunk = sock.recv(65536)
            if not chunk:
                return
            buffer += chunk
        _, kind, _, size, padding, _ = struct.unpack(">BBHHBB", buffer[:8])
        yield kind, buffer[8:8 + size]
        buffer = buffer[8 + size + padding:]


def exchange(address, params, body=b""):
    """(stdout bytes, stderr bytes, ended properly)"""
    sock = connect(address)
    try:
        sock.sendall(request_bytes(params, body))
        out, err, ended = b"", b"", False
        for kind, content in read_records(sock):
            if kind == STDOUT:
                out += content
            elif kind == STDERR:
                err += content
            elif kind == END_REQUEST:
                ended = True
                break
        return out, err, ended
    finally:
        sock.close()


def parse_params(args):
    params, stdin = [], None
    i = 0
    while i < len(args):
        if args[i] == "--stdin":
            stdin = open(args[i + 1], "rb").read()
            i += 2
            continue
        if args[i] == "--param-file":
            params.append((args[i + 1], open(args[i + 2], encoding="latin-1").read()))
            i += 3
            continue
        name, _, value = args[i].partition("=")
        params.append((name, value))
        i += 1
    return params, stdin or b""


def main(argv):
    if len(argv) < 3:
        print(__doc__, file=sys.stderr)
        return 2
    command, address = argv[1], argv[2]
    if command == "request":
        params, body = parse_params(argv[3:])
        out, err, ended = exchange(address, params, body)
        sys.stdout.buffer.write(out)
        sys.stderr.buffer.write(err)
        return 0 if ended else 1
    if command == "repeat":
        count = int(argv[3])
        params, body = parse_params(argv[4:])
        first = None
        for i in range(count):
            out, _, ended = exchange(address, params, body)
            if not ended:
                print(f"request {i + 1} of {count} did not end properly", file=sys.stderr)
                return 1
            if first is None:
                first = out
            elif out != first:
                print(f"response {i + 1} of {count} differs from the first:", file=sys.stderr)
                sys.stderr.buffer.write(out[:2000])
                return 1
        sys.stdout.buffer.write(first or b"")
        return 0
    if command == "raw":
        data = ast.literal_eval(argv[3])
        wait = float(argv[5]) if len(argv) > 5 and argv[4] == "--wait" else 10
        sock = connect(address, timeout=wait)
        got = b""
        try:
            sock.sendall(data)
            sock.shutdown(socket.SHUT_WR)
            while True:
                chunk = sock.recv(65536)
                if not chunk:
                    break
                got += chunk
        except (socket.timeout, ConnectionResetError, BrokenPipeError):
            pass
        finally:
            sock.close()
        print(repr(got))
        return 0
    if command == "cut":
        params, body = parse_params(argv[3:])
        sock = connect(address)
        sock.sendall(request_bytes(params, body))
        sock.recv(16)
        # Abortive close: the server's next writes fail.
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        sock.close()
        return 0
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
