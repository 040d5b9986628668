"""A database server that accepts connections and never says a word.

Usage: silent_server.py PORT_FILE SECONDS
Listens on a free port of 127.0.0.1, writes the port to PORT_FILE, holds
every connection open without reading or writing, and ends after SECONDS.
"""
import os
import socket
import sys
import time

port_file, seconds = sys.argv[1], float(sys.argv[2])
server = socket.socket()
server.bind(("127.0.0.1", 0))
server.listen(16)
server.settimeout(0.5)
with open(port_file + ".tmp", "w") as f:
    f.write(str(server.getsockname()[1]))
os.rename(port_file + ".tmp", port_file)

held = []
deadline = time.time() + seconds
while time.time() < deadline:
    try:
        connection, _ = server.accept()
        held.append(connection)
    except socket.timeout:
        pass
