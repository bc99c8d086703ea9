"""The real fxmd and fxmctl on virtual cables against fxmsim, in a network namespace of their own."""
import http.client
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

import jsonschema

HERE = os.path.dirname(os.path.abspath(__file__))
# Some run in another directory.
FXMD, FXMCTL, FXMSIM, MONITOR = (os.path.abspath(os.environ.get(name, "")) for name in
                                 ("FXMD", "FXMCTL", "FXMSIM", "FXM_MONITOR"))
with open(os.path.join(HERE, "../common/schema.json"), encoding="utf-8") as file:
    SCHEMA = json.load(file)

SERVER, SMALL = "02:00:00:00:10:00", "02:00:00:00:11:00"
DEVICE, MULTI, LOOSE = "02:00:00:00:20:00", "02:00:00:00:21:00", "02:00:00:00:22:00"
CARDS = [
    f"fxsv {SERVER} gen=40g vlan=100 down0={DEVICE} down1={MULTI}",
    f"fxsv {SMALL} gen=1g vlan=200 layout=change",
    f"fxio {DEVICE} gen=40g vlan=100 server={SERVER} connected=yes",
    f"fxio {MULTI} gen=40g vlan=100 ver=1 mr=3 server={SERVER} connected=yes",
    f"fxio {LOOSE} gen=1g vlan=200 vendor=144d device=a808 class=010802",
]
# Waits of the EEPROM lock that a simulated card does not need.
QUICK_EEPROM = "eeprom_verify_count = 1\neeprom_rw_interval = 5\n"


def enter_namespace():
    """Starts the program again where its interfaces and mounts are nobody else's."""
    if os.environ.get("FXM_IN_NAMESPACE"):
        return
    os.environ["FXM_IN_NAMESPACE"] = "1"
    flags = "-nm" if os.geteuid() == 0 else "-rnm"
    os.execvp("unshare", ["unshare", flags, sys.executable, *sys.argv])


def run(*words):
    subprocess.run(words, check=True)


def until(condition, what, seconds=30):
    """Returns the first true value of the condition."""
    end, pause = time.monotonic() + seconds, 0.01
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"not within {seconds} s: {what}")
        time.sleep(pause)
        pause = min(1.2 * pause, 0.05)  # each look costs fxmd something, too


def fits(document, name):
    """Raises if the document is not what the schema says."""
    jsonschema.validate(document, {"$schema": SCHEMA["$schema"], "$defs": SCHEMA["$defs"], "$ref": f"#/$defs/{name}"})
    return document


class UnixConnection(http.client.HTTPConnection):
    def __init__(self, path, timeout=60):
        super().__init__("fxmd", timeout=timeout)
        self.path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self.path)


class Refused(Exception):
    def __init__(self, status, document):
        super().__init__(status, document)
        self.status, self.document = status, document


class Stream:
    """Lines of an event stream."""

    def __init__(self, path, after=None, query="", accept="application/x-ndjson"):
        self.connection = UnixConnection(path)
        words = [word for word in (f"after={after}" if after else "", query) if word]
        self.connection.request("GET", "/v1/events?" + "&".join(words), headers={"Accept": accept})
        self.answer = self.connection.getresponse()
        assert self.answer.status == 200, self.answer.read()
        self.boot = None if accept == "text/event-stream" else self.read()

    def read(self):
        while True:
            line = self.answer.readline()
            if not line:
                return None
            if line.strip():
                return fits(json.loads(line), "room_event")

    def until(self, condition):
        """The events up to the first one for which the condition holds."""
        seen = []
        while True:
            event = self.read()
            assert event is not None, f"the stream ended after {seen[-3:]}"
            seen.append(event)
            if condition(event):
                return seen

    def close(self):
        self.answer.close()
        self.connection.close()


class Fabric:
    """Two cables, the simulator, and fxmd with its own directory."""
    flags = ()

    def __init__(self, cards=(), period=100, library=QUICK_EEPROM, top="eeprom_writer = true", api="", history="", sim=(), number=0):
        self.number = number  # of several in one namespace
        self.dir = tempfile.mkdtemp(prefix="fxm-host-")
        os.chmod(self.dir, 0o755)
        self.socket = f"{self.dir}/fxmd.sock"
        self.log_file = f"{self.dir}/log"
        self.config = f"{self.dir}/fxmd.toml"
        self.daemon = None
        for port in self.ports():
            self.cable(port)
        self.configure(top, api, history, library)
        ends = [f"card{port}" for port in self.ports()]
        self.sim = subprocess.Popen([FXMSIM, "--port0", ends[0], "--port1", ends[1], "--period", str(period), *sim],
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.sim.stdout.readline()
        for card in cards:
            self.cards(card)

    def ports(self):
        return 2 * self.number, 2 * self.number + 1

    @staticmethod
    def cable(port):
        run("ip", "link", "add", f"fxm{port}", "type", "veth", "peer", "name", f"card{port}")
        for end in ("fxm", "card"):
            run("ip", "link", "set", f"{end}{port}", "up")

    def configure(self, top="eeprom_writer = true", api="", history="", library=QUICK_EEPROM):
        with open(self.config, "w", encoding="utf-8") as file:
            ports = json.dumps([f"fxm{port}" for port in self.ports()])
            file.write(f'ports = {ports}\nrun_dir = "{self.dir}/run"\nstate_dir = "{self.dir}/state"\n{top}\n'
                       f'[api]\nsocket = "{self.socket}"\n{api}\n[history]\n{history}\n[library]\n{library}\n')

    def start(self, prefix=(), wait=True):
        with open(self.log_file, "a", encoding="utf-8") as log:
            self.daemon = subprocess.Popen([*prefix, FXMD, *self.flags, "--config", self.config], stderr=log)
        if wait:
            until(self.answers, f"fxmd answers; its log: {self.log()[-2000:]}")
        return self

    def answers(self):
        if self.daemon.poll() is not None:
            raise AssertionError(f"fxmd ended with {self.daemon.returncode}: {self.log()[-2000:]}")
        try:
            return self.get("/v1/status")
        except OSError:
            return None

    def stop(self, number=signal.SIGTERM):
        self.daemon.send_signal(number)
        return self.daemon.wait(60)

    def close(self):
        code = self.stop() if self.daemon and self.daemon.poll() is None else 0
        self.sim.stdin.close()
        self.sim.wait(30)
        self.sim.stdout.close()
        for port in self.ports():
            subprocess.run(["ip", "link", "del", f"card{port}"], check=False, stderr=subprocess.DEVNULL)
        self.check(code)

    def check(self, code):
        text = self.log()
        shutil.rmtree(self.dir, ignore_errors=True)
        # Sanitizers of fxmd report here.
        assert "Sanitizer" not in text and code == 0, f"fxmd ended with {code}: {text[-6000:]}"

    def log(self):
        with open(self.log_file, encoding="utf-8", errors="replace") as file:
            return file.read()

    def cards(self, command):
        """A command to the simulator; returns what follows "ok"."""
        self.sim.stdin.write(command + "\n")
        self.sim.stdin.flush()
        reply = self.sim.stdout.readline().strip()
        assert reply.startswith("ok"), f"{command}: {reply}"
        return reply[2:].strip()

    def counts(self, card):
        return {key: int(value) for key, value in re.findall(r"(\w+)=(\d+)", self.cards(f"counts {card}"))}

    def request(self, method, path, body=None, headers=None):
        connection = UnixConnection(self.socket)
        try:
            text = json.dumps(body) if isinstance(body, dict) else body
            connection.request(method, path, text, headers or {})
            answer = connection.getresponse()
            data = answer.read()
        finally:
            connection.close()
        if answer.status >= 400:
            raise Refused(answer.status, fits(json.loads(data), "error"))
        return data

    def get(self, path):
        return json.loads(self.request("GET", path))

    def send(self, method, path, body=None):
        return json.loads(self.request(method, path, body if body is not None else {}))

    def job(self, **request):
        """Runs a job to its end."""
        number = fits(self.send("POST", "/v1/jobs", request), "job")["job"]
        return fits(until(lambda: (job := self.get(f"/v1/jobs/{number}"))["ended_ms"] and job, "the job ends", 120), "job")

    def well(self, count):
        return until(lambda: self.get("/v1/status")["cards"]["well"] == count, f"{count} cards are well")

    def health(self, card, word):
        def has_it():
            try:
                return self.get(f"/v1/cards/{card}")["health"] == word
            except Refused:
                return False
        return until(has_it, f"{card} is {word}")

    def events(self, after=None, **more):
        return Stream(self.socket, after, **more)

    def ctl(self, *words, stdin=subprocess.DEVNULL, code=0):
        """fxmctl; returns its standard output, or its error line where another exit code is wanted."""
        done = subprocess.run([FXMCTL, *words], stdin=stdin, env=os.environ | {"FXM_SOCKET": self.socket}, capture_output=True, text=True,
                              timeout=120, check=False, cwd=self.dir)
        assert done.returncode == code, f"fxmctl {' '.join(words)}: {done.returncode}: {done.stdout}{done.stderr}"
        return done.stderr if code else done.stdout


class Room(Fabric):
    """fxmd --fleet, which has no cables."""
    flags = ("--fleet",)

    def __init__(self, urls, name="room", allow="view", api="", more=""):  # pylint: disable=super-init-not-called
        self.dir = tempfile.mkdtemp(prefix="fxm-room-")
        self.socket, self.log_file, self.config, self.daemon = (f"{self.dir}/{word}" for word in ("fxmd.sock", "log", "room.toml", ""))
        with open(self.config, "w", encoding="utf-8") as file:
            file.write(f'[api]\nsocket = "{self.socket}"\n{api}\n[fleet]\nurls = {json.dumps(urls)}\nsite = "{name}"\nallow = "{allow}"\n{more}')

    def close(self):
        self.check(self.stop() if self.daemon.poll() is None else 0)
