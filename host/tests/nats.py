"""NATS servers for tests, in a network namespace of their own, and a client that speaks their protocol itself: what it reads
has not passed through the library that fxmd uses."""
import base64
import itertools
import json
import os
import re
import signal
import socket
import ssl
import subprocess
import tempfile
import time
from datetime import datetime

from fabric import run, until

NEAR, FAR = "10.99.0.1", "10.99.0.2"  # ends of the cable between this namespace and the servers


class Message:
    def __init__(self, subject, reply, headers, data):
        self.subject, self.reply, self.headers, self.data = subject, reply, headers, data

    def json(self):
        return json.loads(self.data)


class Client:
    NO_MESSAGE = 10037  # of that number, in the stream

    def __init__(self, port, host=FAR, timeout=5, ca=None, certificate=None):
        self.socket = socket.create_connection((host, port), timeout)
        self.numbers = itertools.count(1)
        self.messages = []
        while self.socket.recv(1) != b"\n":  # INFO
            pass
        if ca:
            context = ssl.create_default_context(cafile=ca)
            context.load_cert_chain(certificate)
            self.socket = context.wrap_socket(self.socket, server_hostname=host)
        self.file = self.socket.makefile("rb")
        self.send(b'CONNECT {"verbose":false,"headers":true,"no_responders":true}\r\nPING\r\n')
        while (line := self.file.readline()) != b"PONG\r\n":
            if not line or line.startswith(b"-ERR"):
                raise ConnectionError(line.decode() or "the server has gone")
        self.inbox = None

    def send(self, data):
        self.socket.sendall(data)

    def close(self):
        self.file.close()
        self.socket.close()

    def subscribe(self, subject):
        self.send(b"SUB %s %d\r\n" % (subject.encode(), next(self.numbers)))

    def publish(self, subject, data=b"", reply="", headers=None):
        head = b"NATS/1.0\r\n" + b"".join(b"%s: %s\r\n" % (k.encode(), str(v).encode()) for k, v in (headers or {}).items()) + b"\r\n"
        self.send(b"HPUB %s %s %d %d\r\n%s%s\r\n" % (subject.encode(), reply.encode(), len(head), len(head) + len(data), head, data))

    def receive(self):
        """The next message of any subscription."""
        while True:
            words = self.file.readline().split()
            if not words:
                raise ConnectionError("the server has gone")
            if words[0] == b"PING":
                self.send(b"PONG\r\n")
            elif words[0] in (b"MSG", b"HMSG"):
                total = int(words[-1])
                size = int(words[-2]) if words[0] == b"HMSG" else 0
                reply = words[3].decode() if len(words) == (6 if size else 5) else ""
                data = self.file.read(total + 2)[:-2]
                lines = data[:size].decode().split("\r\n")
                headers = dict(line.split(": ", 1) for line in lines[1:] if ": " in line)
                if lines[0] not in ("", "NATS/1.0"):
                    headers["Status"] = lines[0].split()[1]
                return Message(words[1].decode(), reply, headers, data[size:])
            elif words[0] == b"-ERR":
                raise ConnectionError(b" ".join(words).decode())

    def ask(self, subject, data=b"", headers=None):
        if not self.inbox:
            self.inbox = f"_INBOX.{os.getpid()}.{id(self)}"
            self.subscribe(f"{self.inbox}.*")
        reply = f"{self.inbox}.{next(self.numbers)}"
        self.publish(subject, data, reply, headers)
        while True:
            message = self.receive()
            if message.subject == reply:
                return message
            self.messages.append(message)

    def api(self, subject, **request):
        answer = self.ask(f"$JS.API.{subject}", json.dumps(request).encode() if request else b"").json()
        if "error" in answer:
            raise RuntimeError(f"{subject}: {answer['error']}")
        return answer

    def ask_all(self, questions, most=256):
        """The answers to pairs of a subject and data, in their order, with many under way."""
        if not self.inbox:
            self.ask("$JS.API.INFO")  # which subscribes
        questions = iter(questions)
        while some := list(itertools.islice(questions, most)):
            answers = {f"{self.inbox}.{next(self.numbers)}": None for _ in some}
            for reply, (subject, data) in zip(answers, some):
                self.publish(subject, data, reply)
            while None in answers.values():
                message = self.receive()
                if message.subject in answers:
                    answers[message.subject] = message
                else:
                    self.messages.append(message)
            yield from answers.values()

    def stored(self, stream):
        """All messages of a stream as its leader has them: the copy of a server that was isolated may differ for good."""
        state = self.api(f"STREAM.INFO.{stream}")["state"]
        numbers = range(state["first_seq"], state["last_seq"] + 1)
        for answer in self.ask_all((f"$JS.API.STREAM.MSG.GET.{stream}", b'{"seq":%d}' % seq) for seq in numbers):
            told = answer.json()
            if told.get("error", {}).get("err_code", self.NO_MESSAGE) != self.NO_MESSAGE:
                raise RuntimeError(f"{stream}: {told['error']}")
            if found := told.get("message"):
                lines = base64.b64decode(found.get("hdrs", "")).decode().split("\r\n")
                headers = dict(line.split(": ", 1) for line in lines[1:] if ": " in line) | {"Nats-Sequence": found["seq"]}
                yield Message(found["subject"], "", headers, base64.b64decode(found.get("data", "")))


class Servers:
    """A cluster behind a cable. With `apart`, each server has an address and a namespace of its own, and can be isolated."""

    def __init__(self, count=3, window=None, rights=None, apart=False):
        self.dir = tempfile.mkdtemp(prefix="fxm-nats-")
        self.holders = []
        self.holder = self.namespace()
        run("ip", "link", "add", "fleet0", "type", "veth", "peer", "name", "fleet1", "netns", str(self.holder.pid))
        run("ip", "addr", "add", f"{NEAR}/24", "dev", "fleet0")
        run("ip", "link", "set", "fleet0", "up")
        self.hosts, self.spaces = [FAR] * count, [self.holder] * count
        if apart:
            self.spread(count)
        else:
            self.inside("ip", "addr", "add", f"{FAR}/24", "dev", "fleet1")
        self.inside("ip", "link", "set", "fleet1", "up")
        self.count = count
        self.tls, self.client_options = "", {}
        if rights:
            self.secure(rights)
        self.processes = [None] * count
        for number in range(count):
            self.configure(number)
            self.start(number)
        self.urls = [f"nats://{host}:{4222 + number}" for number, host in enumerate(self.hosts)]
        client = until(self.whole, "the servers are a cluster", 60)
        if window:  # otherwise the site makes the stream
            client.api("STREAM.CREATE.FXM_EVENTS", name="FXM_EVENTS", subjects=["fxm.ev.*"], duplicate_window=window * 10**9,
                       num_replicas=count, storage="file", allow_direct=True)
        client.close()

    def namespace(self):
        """It lives as long as this process, which ends with its input."""
        holder = subprocess.Popen(["unshare", "-n", "sh", "-c", "ip link set lo up; echo; read word"], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE)
        holder.stdout.readline()
        self.holders.append(holder)
        return holder

    def inside(self, *words, space=None):
        run("nsenter", "-t", str((space or self.holder).pid), "-n", *words)

    def spread(self, count):
        """The cable ends at a switch to which each server has a cable of its own."""
        self.inside("ip", "link", "add", "hub", "type", "bridge")
        self.inside("ip", "link", "set", "hub", "up")
        self.inside("ip", "link", "set", "fleet1", "master", "hub")
        self.hosts = [f"10.99.0.{2 + number}" for number in range(count)]
        self.spaces = [self.namespace() for _ in range(count)]
        for number, space in enumerate(self.spaces):
            self.inside("ip", "link", "add", f"port{number}", "master", "hub", "type", "veth", "peer", "name", "eth0", "netns", str(space.pid))
            self.inside("ip", "link", "set", f"port{number}", "up")
            self.inside("ip", "addr", "add", f"{self.hosts[number]}/24", "dev", "eth0", space=space)
            self.inside("ip", "link", "set", "eth0", "up", space=space)

    def isolate(self, number, off=True):
        """Cuts a server from the other ones, both ways. Sites still reach all of them."""
        for other in set(range(self.count)) - {number}:
            for at, to in ((number, other), (other, number)):
                self.inside("ip", "route", "add" if off else "del", "blackhole", f"{self.hosts[to]}/32", space=self.spaces[at])

    def secure(self, rights):
        """Certificates for the servers, for an administrator, and for users, who have what `rights` says."""
        make = ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-noenc", "-days", "2"]
        subprocess.run([*make, "-subj", "/CN=ca", "-keyout", "ca.key", "-out", "ca.pem"], cwd=self.dir, check=True, capture_output=True)
        for name in ("server", "admin", *rights):
            subprocess.run([*make, "-subj", f"/CN={name}", "-CA", "ca.pem", "-CAkey", "ca.key", "-addext", f"subjectAltName=IP:{FAR}",
                            "-keyout", f"{name}.pem", "-out", f"{name}.crt"], cwd=self.dir, check=True, capture_output=True)
            with open(f"{self.dir}/{name}.crt", encoding="utf-8") as certificate, open(self.file(name), "a", encoding="utf-8") as both:
                both.write(certificate.read())
        users = [{"user": "CN=admin"}] + [{"user": f"CN={name}", "permissions": may} for name, may in rights.items()]
        self.tls = (f'tls {{ cert_file: "{self.file("server")}", key_file: "{self.file("server")}", ca_file: "{self.file("ca")}", '
                    f"verify_and_map: true }}\naccounts {{ FXM {{ jetstream: enabled, users: {json.dumps(users)} }} }}\n")
        self.client_options = {"ca": self.file("ca"), "certificate": self.file("admin")}

    def file(self, name):
        return f"{self.dir}/{name}.pem"

    def configure(self, number):
        peers = ["127.0.0.1" if space is self.holder else host for host, space in zip(self.hosts, self.spaces)]
        routes = ", ".join(f'"nats-route://{peers[other]}:{6222 + other}"' for other in range(self.count) if other != number)
        cluster = f'cluster {{ name: fxm, listen: "{peers[number]}:{6222 + number}", routes: [{routes}] }}' if self.count > 1 else ""
        with open(f"{self.dir}/{number}.conf", "w", encoding="utf-8") as file:
            file.write(f'server_name: n{number}\nlisten: "0.0.0.0:{4222 + number}"\njetstream {{ store_dir: "{self.dir}/{number}" }}\n'
                       f'write_deadline: "2s"\n{cluster}\n{self.tls}')

    def start(self, number):
        with open(f"{self.dir}/{number}.log", "ab") as log:
            self.processes[number] = subprocess.Popen(["nsenter", "-t", str(self.spaces[number].pid), "-n", "nats-server", "-c",
                                                       f"{self.dir}/{number}.conf"], stdout=log, stderr=log)

    def signal(self, number, what):
        self.processes[number].send_signal(what)
        if what in (signal.SIGKILL, signal.SIGTERM):
            self.processes[number].wait()

    def whole(self):
        """A client of the first server, once JetStream answers there."""
        client = None
        try:
            client = Client(4222, **self.client_options)
            client.api("INFO")
            return client  # which whoever asked closes
        except (OSError, RuntimeError, ValueError):
            if client:
                client.close()
            time.sleep(0.2)
            return None

    def client(self):
        """Of any server that answers."""
        for number, process in enumerate(self.processes):
            if process.poll() is None:
                try:
                    return Client(4222 + number, self.hosts[number], **self.client_options)
                except OSError:
                    pass
        raise ConnectionError("no server answers")

    def leader(self, stream):
        client = self.client()
        try:
            return int(client.api(f"STREAM.INFO.{stream}")["cluster"]["leader"][1:])
        finally:
            client.close()

    def elected(self, stream, since):
        """How many seconds after a time() a server first wrote that it leads this stream; None: none has."""
        told, found = re.compile(rf"\[\d+\] (\S+ \S+) \[INF\] JetStream cluster new stream leader for '.* > {stream}'"), []
        for number in range(self.count):
            with open(f"{self.dir}/{number}.log", encoding="utf-8") as log:
                times = (datetime.strptime(line[1], "%Y/%m/%d %H:%M:%S.%f").timestamp() for line in map(told.match, log) if line)
                found += [at - since for at in times if at >= since]
        return min(found, default=None)

    def cut(self, off=True):
        run("ip", "link", "set", "fleet0", "down" if off else "up")

    def close(self):
        for process in self.processes:
            if process.poll() is None:
                process.kill()
                process.wait()
        run("ip", "link", "del", "fleet0")  # its other end would take a while to go
        for holder in self.holders:
            holder.stdin.close()
            holder.wait()
            holder.stdout.close()
        run("rm", "-rf", self.dir)
