#!/usr/bin/python3
"""Who the view answers: `pathfinder view` on a small scan folder, asked with raw requests.

Only its own address or localhost with its port as Host, a WebSocket only from its own page
(Origin), only its own files; it listens on loopback alone unless --view-bind says otherwise,
and then says so.

    security_test.py PATHFINDER OUT_DIR
"""
import re
import signal
import socket
import struct
import subprocess
import sys
import time
from pathlib import Path

UPGRADE = ("Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n")


def serve(pathfinder, folder, *args):
    log = folder.parent / "security.txt"
    tool = subprocess.Popen([pathfinder, "view", str(folder), *args], stdout=open(log, "w"),
                            stderr=subprocess.STDOUT)
    for _ in range(200):
        found = re.search(r"view: http://[^:]+:(\d+)/", log.read_text())
        if found:
            return tool, int(found.group(1)), log.read_text()
        time.sleep(0.05)
    tool.kill()
    raise AssertionError("no address printed: " + log.read_text())


def status(port, request):
    with socket.create_connection(("127.0.0.1", port), timeout=5) as s:
        s.sendall(request.encode())
        line = s.makefile("rb").readline().decode()
    return int(line.split()[1]) if line.startswith("HTTP/1.1 ") else line


def listening(port):
    """Local addresses (hex, as in /proc/net/tcp*) of the sockets listening on `port`."""
    found = []
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        for line in Path(table).read_text().splitlines()[1:]:
            local, state = line.split()[1], line.split()[3]
            if state == "0A" and int(local.split(":")[1], 16) == port:
                found.append(local.split(":")[0])
    return found


def main(pathfinder, out):
    folder = Path(out) / "security-scan"
    folder.mkdir(parents=True, exist_ok=True)
    points = [(x, y, 0.1 * x) for x in range(20) for y in range(20)]
    (folder / "scan.ply").write_bytes(
        b"ply\nformat binary_little_endian 1.0\nelement vertex %d\n" % len(points) +
        b"property float x\nproperty float y\nproperty float z\nend_header\n" +
        b"".join(struct.pack("<3f", *p) for p in points))
    failures = []
    tool, port, _ = serve(pathfinder, folder)
    own, other = f"127.0.0.1:{port}", f"127.0.0.1:{port + 1}"
    cases = [  # request, expected status
        (f"GET / HTTP/1.1\r\nHost: {own}\r\n\r\n", 200),
        (f"GET /view.js HTTP/1.1\r\nHost: localhost:{port}\r\n\r\n", 200),
        (f"GET /three.min.js?v=1 HTTP/1.1\r\nHost: {own}\r\n\r\n", 200),
        (f"GET / HTTP/1.1\r\nHost: attacker.example:{port}\r\n\r\n", 403),
        (f"GET / HTTP/1.1\r\nHost: {other}\r\n\r\n", 403),
        ("GET / HTTP/1.1\r\n\r\n", 403),
        (f"GET /../../etc/passwd HTTP/1.1\r\nHost: {own}\r\n\r\n", 404),
        (f"GET /scan.ply HTTP/1.1\r\nHost: {own}\r\n\r\n", 404),
        (f"POST / HTTP/1.1\r\nHost: {own}\r\nContent-Length: 0\r\n\r\n", 405),
        (f"GET /stream HTTP/1.1\r\nHost: {own}\r\nOrigin: http://{own}\r\n{UPGRADE}\r\n", 101),
        (f"GET /stream HTTP/1.1\r\nHost: {own}\r\nOrigin: http://localhost:{port}\r\n{UPGRADE}\r\n",
         101),
        (f"GET /stream HTTP/1.1\r\nHost: {own}\r\nOrigin: http://attacker.example\r\n{UPGRADE}\r\n",
         403),
        (f"GET /stream HTTP/1.1\r\nHost: {own}\r\nOrigin: http://{other}\r\n{UPGRADE}\r\n", 403),
        (f"GET /stream HTTP/1.1\r\nHost: {own}\r\n{UPGRADE}\r\n", 403),
        (f"GET /stream HTTP/1.1\r\nHost: attacker.example:{port}\r\nOrigin: "
         f"http://attacker.example:{port}\r\n{UPGRADE}\r\n", 403),
        ("GET / HTTP/1.1\r\nHost: " + "x" * 10000 + "\r\n\r\n", 400),
    ]
    for request, expected in cases:
        got = status(port, request)
        if got != expected:
            failures.append(f"{request.splitlines()[:3]}: {got}, expected {expected}")
    if listening(port) != ["0100007F"]:
        failures.append(f"listening on {listening(port)} without --view-bind")
    tool.send_signal(signal.SIGINT)
    if tool.wait(10) != 0:
        failures.append("exit code after Ctrl-C")

    tool, port, printed = serve(pathfinder, folder, "--view-bind", "0.0.0.0")
    if listening(port) != ["00000000"] or "warning" not in printed:
        failures.append(f"with --view-bind 0.0.0.0: {listening(port)}, printed {printed!r}")
    tool.send_signal(signal.SIGINT)
    tool.wait(10)
    for f in failures:
        print("FAILED:", f)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:3]))
