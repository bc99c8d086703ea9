"""A crowd of event streams for bench/host.py: watchers.py SOCKET COUNT SILENT. The last SILENT of them read nothing until
SIGTERM; then they read what is left, and the program tells whether each client has ended with the same state."""
import json
import re
import select
import signal
import socket
import sys

CHANGE = re.compile(rb'{"schema":"fxm/1","type":"change","seq":(\d+),"time_ms":\d+,"card":"([^"]+)","class":"\w+","vlan":(\d+)')
path, count, silent = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])


class Watcher:
    def __init__(self, query=""):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.connect(path)
        self.socket.sendall(f"GET /v1/events{query} HTTP/1.0\r\nAccept: application/x-ndjson\r\n\r\n".encode())
        self.partial = b""
        self.vlans = {}
        self.gaps = 0
        self.last = 0

    def read(self):
        data = self.socket.recv(262144)
        if not data:
            return False
        lines = (self.partial + data).split(b"\n")
        self.partial = lines.pop()
        # A thousand clients in one program cannot afford to parse JSON.
        for line in lines:
            found = CHANGE.match(line)
            if found:
                seq = int(found[1])
                assert seq > self.last, "an event came twice or out of order"
                self.last = seq
                self.vlans[found[2]] = found[3]
            elif b'"type":"gap"' in line:
                self.gaps += 1
                self.vlans.clear()  # a real client lists again
        return True


ended = []
signal.signal(signal.SIGTERM, lambda *_: ended.append(True))
# The quick ones look at some cards alone: reading everything a thousand times is the machine's limit, not fxmd's.
SOME = "?filter=id%3D02:00:00:10:*"
watchers = [Watcher(SOME if number < count - silent else "") for number in range(count)]
poll = select.epoll()
by_fd = {watcher.socket.fileno(): watcher for watcher in watchers}
for watcher in watchers[: count - silent]:
    poll.register(watcher.socket, select.EPOLLIN)
print("ready", flush=True)
while not ended:
    for fd, _ in poll.poll(0.2):
        by_fd[fd].read()
# All that is left, quick and slow alike, until a second passes without anything.
for watcher in watchers[count - silent :]:
    poll.register(watcher.socket, select.EPOLLIN)
while True:
    ready = poll.poll(1.0)
    if not ready:
        break
    for fd, _ in ready:
        if not by_fd[fd].read():
            poll.unregister(fd)
quick, slow = watchers[: count - silent], watchers[count - silent :]
reference = quick[0]
print(json.dumps({
    "last": sorted({watcher.last for watcher in quick}),
    "gaps_quick": sum(watcher.gaps for watcher in quick),
    "slow_with_gap": sum(watcher.gaps > 0 for watcher in slow),
    "wrong": sum(any(card in reference.vlans and reference.vlans[card] != vlan for card, vlan in watcher.vlans.items()) for watcher in watchers),
}), flush=True)
