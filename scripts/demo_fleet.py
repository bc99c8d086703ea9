"""The scenes of ./scripts/demo --fleet, which starts this in a network namespace of its own.

That namespace holds a bridge and the room. Each server and each site has a namespace of its own, with a cable to the bridge;
the end of the cable at the bridge has the name of whoever is at the other end.
"""
import json
import os
import secrets
import shutil
import signal
import subprocess
import sys
import tempfile
import time

FXMD, FXMCTL, FXMSIM = (os.path.abspath(os.environ.get(name, "")) for name in ("FXMD", "FXMCTL", "FXMSIM"))
TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, f"{TOP}/host/tests")
from nats import Client  # noqa: E402 pylint: disable=wrong-import-position

SERVERS = {"s1": "10.99.0.11", "s2": "10.99.0.12", "s3": "10.99.0.13"}
SITES = {"north": "10.99.0.21", "south": "10.99.0.22", "west": "10.99.0.23"}
HERE = "10.99.0.1"
PAGE = "127.0.0.1:8610"
REFUSED = 4     # the exit code of fxmctl where nothing answers
DEADLINE = 5    # s; a room waits so long for a site that it believes to be live
LONG = 60       # s; a generous bound for whatever takes a few seconds


class Failed(Exception):
    """A scene did not go as told."""


def run(*words):
    subprocess.run(words, check=True)


def say(text):
    print(f"\n== {text}", flush=True)


def tell(text):
    print(text, flush=True)


def expect(condition, what):
    if not condition:
        raise Failed(what)


def progress(what="", seconds=0.0):
    """A line on a terminal while something takes longer than a second; without words it goes away."""
    if sys.stderr.isatty() and (not what or seconds >= 1):
        sys.stderr.write(f"\r\033[K{f'   {what}: {seconds:.0f} s' if what else ''}")
        sys.stderr.flush()


def tree(number, servers, devices, kind, first_vlan, more=""):
    """Servers with their devices, as commands of fxmsim. The ids tell the site, the server and the device."""
    lines = []
    for server in range(servers):
        mac, vlan = f"02:00:00:0{number}:1{server}:00", first_vlan + 10 * server
        macs = [f"02:00:00:0{number}:2{server}:{2 * device:02x}" for device in range(devices)]
        lines.append(f"fxsv {mac} {kind} vlan={vlan} " + " ".join(f"down{i}={device}" for i, device in enumerate(macs)))
        lines += [f"fxio {device} {kind} vlan={vlan} server={mac} connected=yes {more}" for device in macs]
    return "\n".join(lines) + "\n"


# Many devices at few servers; old cards with another layout of their frames; multi-root devices.
SCENARIOS = {
    "north": tree(1, 3, 8, "gen=40g", 100),
    "south": tree(2, 6, 3, "gen=1g layout=change", 200, "vendor=144d device=a808 class=010802"),
    "west": tree(3, 2, 16, "gen=40g", 300, "ver=1 mr=3 vendor=10de device=1eb8 class=030200"),
}
NORTH_SERVER, SOUTH_SERVER = "02:00:00:01:10:00", "02:00:00:02:10:00"
SOUTH_DEVICE = "02:00:00:02:20:00"
WEST_SERVER, WEST_DEVICE, WEST_OTHER = "02:00:00:03:10:00", "02:00:00:03:20:00", "02:00:00:03:21:04"


class Fleet:
    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="fxm-demo.")
        os.chmod(self.dir, 0o755)
        self.room = f"{self.dir}/room.sock"
        self.spaces = {}     # of each server and site: the process that holds its namespace
        self.processes = {}  # name: process, in the order of their starts
        self.sims = {}
        self.token = secrets.token_hex(16)

    # ------------------------------------------------------------------------------------------------------- processes

    def start(self, name, words, space=None, **more):
        """Starts a program, in the namespace of a server or site, with a log."""
        with open(f"{self.dir}/{name}.log", "ab") as log:
            inside = ["nsenter", "--target", str(self.spaces[space].pid), "--net"] if space else []
            more = {"stdin": subprocess.DEVNULL, "stdout": log, "stderr": log} | more
            # In a session of its own: Ctrl-C is for this script, which then ends all in order.
            self.processes[name] = subprocess.Popen([*inside, *words], cwd=self.dir, start_new_session=True, **more)
        return self.processes[name]

    def log(self, name):
        with open(f"{self.dir}/{name}.log", encoding="utf-8", errors="replace") as file:
            return file.read()[-2000:]

    def close(self):
        """Ends what this script has started, the last one first."""
        for sim in self.sims.values():
            sim.stdin.close()
        for process in reversed(self.processes.values()):
            if process.poll() is None:
                process.terminate()
            try:
                process.wait(10)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        for holder in self.spaces.values():
            holder.stdin.close()
            holder.wait()
        shutil.rmtree(self.dir, ignore_errors=True)

    def until(self, condition, what, seconds=LONG):
        """Returns the first true value of the condition."""
        began = time.monotonic()
        while not (value := condition()):
            passed = time.monotonic() - began
            for name, process in self.processes.items():
                expect(process.poll() is None, f"{name} has ended with {process.returncode}: {self.log(name)}")
            expect(passed < seconds, f"not within {seconds} s: {what}")
            progress(what, passed)
            time.sleep(0.1)
        progress()
        return value

    # ---------------------------------------------------------------------------------------------------------- set up

    def space(self, name, address):
        """A namespace with a cable to the bridge; it lasts until the input of its holder ends."""
        holder = subprocess.Popen(["unshare", "--net", "sh", "-c", "ip link set lo up && echo && read word"], start_new_session=True,
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.spaces[name] = holder
        expect(holder.stdout.readline(), f"no network namespace for {name}")
        run("ip", "link", "add", name, "type", "veth", "peer", "name", "fleet0", "netns", str(holder.pid))
        run("ip", "link", "set", name, "master", "fleet", "up")
        inside = ("nsenter", "--target", str(holder.pid), "--net")
        run(*inside, "ip", "addr", "add", f"{address}/24", "dev", "fleet0")
        run(*inside, "ip", "link", "set", "fleet0", "up")
        if name in SITES:
            run(*inside, "bash", "-c", f". {TOP}/scripts/lib.sh; fabric_up")

    def write(self, name, text, mode=0o644):
        with open(f"{self.dir}/{name}", "w", encoding="utf-8", opener=lambda path, flags: os.open(path, flags, mode)) as file:
            file.write(text)

    def configure(self):
        entries = "\n".join(f'{name} = "{address}"' for name, address in SERVERS.items())
        self.write("fleet.toml", f'name = "demo"\nsites = {json.dumps(list(SITES))}\ncertificates = "{self.dir}/fleet"\n'
                                 f'store = "{self.dir}/store"\nstore_gib = 1\n[servers]\n{entries}\n[users]\nroom = "operate"\n')
        tell((f"$ cat fleet.toml\n{self.read('fleet.toml')}").rstrip())
        for words in (("certs",), ("config",)):
            tell(f"$ fxmctl fleet {' '.join(words)}")
            done = subprocess.run([FXMCTL, "fleet", *words], cwd=self.dir, capture_output=True, text=True, check=False)
            expect(done.returncode == 0, done.stderr)
            # What to copy to which machine follows; all machines are one here.
            tell(done.stdout.split("\n\n")[0].rstrip())
        urls = json.dumps([f"nats://{address}:4222" for address in SERVERS.values()])
        for name in (*SITES, "room"):
            part = (f'[fleet]\nurls = {urls}\nsite = "{name}"\nca = "{self.dir}/fleet/ca.pem"\n'
                    f'certificate = "{self.dir}/fleet/{name}.pem"\nallow = "operate"\n[api]\nsocket = "{self.dir}/{name}.sock"\n')
            if name == "room":
                part += f'listen = "{PAGE}"\ntoken_file = "{self.dir}/tokens"\n'
            else:
                part = (f'ports = ["fxm0", "fxm1"]\nrun_dir = "{self.dir}/{name}/run"\nstate_dir = "{self.dir}/{name}/state"\n{part}'
                        "[library]\ndevinfo_expire_time = 2000\n")
            self.write(f"{name}.toml", part)
        for name, commands in SCENARIOS.items():
            self.write(f"{name}.fxm", commands)
        self.write("tokens", f"operate {self.token}\n", 0o640)

    def read(self, name):
        with open(f"{self.dir}/{name}", encoding="utf-8") as file:
            return file.read()

    def start_server(self, name):
        tell(f"{name}$ nats-server -c fleet/{name}.conf")
        self.start(name, ["nats-server", "-c", f"fleet/{name}.conf"], name)

    def start_site(self, name):
        sim = self.start(f"cards of {name}", [FXMSIM, "--port0", "card0", "--port1", "card1", "--scenario", f"{self.dir}/{name}.fxm"],
                         name, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.sims[name] = sim
        ready = sim.stdout.readline().strip()
        expect(ready.startswith("ok"), f"the cards of {name} did not start: {self.log(f'cards of {name}')}")
        tell(f"{name}$ fxmsim --port0 card0 --port1 card1 --scenario {name}.fxm     # {ready}")
        tell(f"{name}$ fxmd --config {name}.toml")
        self.start(name, [FXMD, "--config", f"{self.dir}/{name}.toml"], name)

    def set_up(self):
        say(f"A fleet in {self.dir}: three servers and three sites, each in a network of its own, and a room over all")
        run("ip", "link", "set", "lo", "up")
        run("ip", "link", "add", "name", "fleet", "type", "bridge")
        run("ip", "addr", "add", f"{HERE}/24", "dev", "fleet")
        run("ip", "link", "set", "fleet", "up")
        for name, address in {**SERVERS, **SITES}.items():
            self.space(name, address)
        self.configure()
        for name in SERVERS:
            self.start_server(name)
        for name in SITES:
            self.start_site(name)
        tell("room$ fxmd --fleet --config room.toml")
        self.start("room", [FXMD, "--fleet", "--config", f"{self.dir}/room.toml"])
        self.until(self.is_well, "the room has all cards, and all are well", 2 * LONG)

    # ------------------------------------------------------------------------------------------------------------- use

    def ask(self, *words, socket=None):
        """A document that fxmctl has as JSON; nothing where it fails."""
        done = subprocess.run([FXMCTL, "--socket" if socket else "--fleet", socket or self.room, "--json", *words],
                              capture_output=True, text=True, check=False)
        return json.loads(done.stdout) if done.returncode == 0 else None

    def is_well(self):
        total = sum(commands.count("\n") for commands in SCENARIOS.values())
        status = self.ask("status")
        return (status and status["cards"]["well"] == total and status["sites"].get("live") == len(SITES) and not status["warnings"]
                and all(site["waiting"] == 0 for site in self.ask("sites")["sites"]))

    def site(self, name):
        sites = (self.ask("sites") or {"sites": []})["sites"]
        return next((site for site in sites if site["site"] == name), {"state": "unknown"})

    def ctl(self, *words, code=0, where=None, shown=True):
        """Shows a command and what it prints, and returns how long it took; it must end as told."""
        option = ["--socket", f"{self.dir}/{where}.sock"] if where else ["--fleet", self.room]
        if shown:
            tell(f"$ fxmctl {option[0]} {os.path.basename(option[1])} {' '.join(words)}")
        began = time.monotonic()
        with subprocess.Popen([FXMCTL, *option, *words], cwd=self.dir, stdin=subprocess.DEVNULL) as command:
            while command.poll() is None:
                progress("fxmctl", time.monotonic() - began)
                time.sleep(0.02)
        progress()
        expect(command.returncode == code, f"fxmctl {' '.join(words)} ended with {command.returncode}, not with {code}")
        return time.monotonic() - began

    def cards(self, site, command):
        """A command to the simulator of a site."""
        tell(f"cards of {site}> {command}")
        reply = self.command(site, command)
        expect(reply.startswith("ok"), f"the cards of {site} answered \"{command}\" with: {reply or 'nothing'}")

    def command(self, site, command):
        self.sims[site].stdin.write(command + "\n")
        self.sims[site].stdin.flush()
        return self.sims[site].stdout.readline().strip()

    def change(self, site, card, condition, *commands):
        """Something happens to a card, and its own site has seen it."""
        for command in commands:
            self.cards(site, command)
        self.ctl("wait", card, condition, "--timeout", str(LONG), where=site, shown=False)

    def watch(self, name, *words, socket=None):
        """Follows events into a file."""
        with open(f"{self.dir}/{name}", "wb") as file:
            self.start(f"watch {name}", [FXMCTL, "--socket" if socket else "--fleet", socket or self.room, *words, "watch"], stdout=file)

    def leader(self):
        """The server that leads the stream of the events."""
        client = Client(4222, SERVERS["s1"], ca=f"{self.dir}/fleet/ca.pem", certificate=f"{self.dir}/fleet/room.pem")
        try:
            client.inbox = "_INBOX_room.demo"
            client.subscribe(f"{client.inbox}.*")
            return client.api("STREAM.INFO.FXM_EVENTS")["cluster"]["leader"]
        finally:
            client.close()

    def nothing_lost(self):
        for site in self.ask("sites")["sites"]:
            expect(site["lost"] == 0, f"the room misses {site['lost']} events of {site['site']}")

    # ---------------------------------------------------------------------------------------------------------- scenes

    def all_is_well(self):
        say("1. All is well. The room is one place for all sites; the usual commands work over it.")
        self.ctl("status")
        self.ctl("sites")
        tell("")
        tell("A few cards of all sites, and a register that the room reads at one of them:")
        self.ctl("cards", "class=fxsv")
        self.ctl("--site", "south", "reg", SOUTH_SERVER, "0x1000")
        self.nothing_lost()

    def a_server_is_killed(self):
        leader = self.leader()
        say(f"2. A server is killed: {leader}, which leads the stream of the events. A card changes meanwhile.")
        process = self.processes.pop(leader)
        tell(f"$ kill -9 {process.pid}     # {leader}")
        process.kill()
        process.wait()
        self.cards("south", f"set {SOUTH_DEVICE} vlan=400")
        self.cards("south", f"notify {SOUTH_DEVICE}")
        seconds = self.ctl("wait", f"south/{SOUTH_DEVICE}", "vlan=400", "--timeout", str(LONG))
        tell(f"The two other servers have chosen a new leader, and the room shows the change after {seconds:.1f} s:")
        self.ctl("cards", "vlan=400")
        tell("")
        tell("The server comes back, and takes part again:")
        self.start_server(leader)
        doctor = [FXMCTL, "fleet", "doctor", "--socket", self.room]
        self.until(self.is_well, "all is well again")
        found = self.until(lambda: (done := subprocess.run(doctor, cwd=self.dir, capture_output=True, text=True, check=False)).returncode == 0
                           and done.stdout, "the servers are whole")
        tell(f"$ fxmctl fleet doctor --socket room.sock\n{found.rstrip()}")
        self.ctl("sites")
        self.nothing_lost()

    def a_site_is_cut_off(self):
        say("3. A site is cut off. The room does not call its cards well: it knows nothing of them.")
        self.watch("events")
        self.watch("of-room", "--ndjson", "--site", "west")
        self.watch("of-site", "--ndjson", socket=f"{self.dir}/west.sock")
        self.until(lambda: all(self.read(name) for name in ("of-room", "of-site")), "fxmctl watch has begun")
        tell("$ ip link set west down")
        run("ip", "link", "set", "west", "down")
        tell("Meanwhile, at west, a card reports an error, a device moves to another VLAN, another falls silent and comes back:")
        self.change("west", WEST_SERVER, "error", f"set {WEST_SERVER} int=04", f"notify {WEST_SERVER}")
        self.change("west", WEST_DEVICE, "vlan=401", f"set {WEST_DEVICE} vlan=401", f"notify {WEST_DEVICE}")
        self.change("west", WEST_OTHER, "lost", f"silent {WEST_OTHER}")
        self.change("west", WEST_OTHER, "well", f"speak {WEST_OTHER}")
        self.until(lambda: self.site("west")["state"] == "silent", "the room calls west silent")
        self.ctl("sites")
        self.ctl("--site", "west", "cards", "class=fxsv")
        seconds = self.ctl("reg", f"west/{WEST_SERVER}", "0x1000", code=REFUSED)
        expect(seconds < DEADLINE, f"the read was refused after {seconds:.1f} s only")
        tell(f"The read is refused after {seconds:.2f} s, with exit code {REFUSED}: it does not wait for a site that is silent.")
        say("The site is connected again. What has happened meanwhile comes in order.")
        tell("$ ip link set west up")
        run("ip", "link", "set", "west", "up")
        self.until(lambda: self.site("west")["state"] == "live", "west is live again")
        own = self.events("of-site")
        self.until(lambda: len(self.events("of-room")) >= len(own), "the room has told the events of west")
        self.until(lambda: "site west is live" in self.read("events"), "fxmctl watch has told that west is live")
        tell(f"$ fxmctl --fleet room.sock watch     # since before the cut\n{self.read('events').rstrip()}")
        expect(self.events("of-room")[:len(own)] == own, "the events of west in the room are not those that west has told itself")
        self.until(lambda: self.site("west")["waiting"] == 0, "nothing waits at west any more")
        tell(f"\nThe room has told the same {len(own)} events of west as west itself, in the same order. HOLES is 0:")
        self.ctl("sites")
        self.nothing_lost()

    def events(self, name):
        """What a watch has told of cards; the last line may be incomplete."""
        lines = [json.loads(line) for line in self.read(name).split("\n")[:-1]]
        return [(line["seq"], line["card"], line["changes"]) for line in lines if line["type"] == "change"]

    # ------------------------------------------------------------------------------------------------------------ stay

    def stay(self):
        spaces = "--net" if os.environ.get("FXM_INSIDE") != "-rn" else "--user --preserve-credentials --net"
        holders = " ".join(f"{name}={self.processes[name].pid}" for name in SERVERS)
        enter = f"nsenter --target {os.getpid()} {spaces}"
        tell(f"""
The fleet is running. In another terminal, as the same user:

  {FXMCTL} --fleet {self.room} sites
  {FXMCTL} --fleet {self.room} watch
  {FXMCTL} --fleet {self.room} cards vlan=100
  {FXMCTL} --fleet {self.room} --site north reg {NORTH_SERVER} 0x1000=0xcafe --verify
  {FXMCTL} --socket {self.dir}/north.sock status
  cd {self.dir} && {FXMCTL} fleet doctor --socket {self.room}

The page of the room is http://{PAGE}/ in its network, with the token {self.token}
For a browser of this machine:

  socat TCP-LISTEN:8610,bind=127.0.0.1,fork EXEC:'"{enter} socat STDIO TCP:{PAGE}"'

Cut off a site or a server, such as west, and connect it again:

  {enter} ip link set west down
  {enter} ip link set west up

Kill a server with kill -9; their ids: {holders}
Here, "start s1" starts it again, and "north COMMAND" gives a command to the cards of a site (see sim/README.md), such as:
north set {NORTH_SERVER} int=04
Ctrl-C ends everything.""")
        for line in sys.stdin:
            self.obey(line.split())
        while True:  # without a terminal, until a signal
            signal.pause()

    def obey(self, words):
        if len(words) == 2 and words[0] == "start" and words[1] in SERVERS:
            if self.processes[words[1]].poll() is None:
                tell(f"{words[1]} is running")
            else:
                self.start_server(words[1])
                tell(f"its id: {self.processes[words[1]].pid}")
        elif len(words) > 1 and words[0] in SITES:
            tell(self.command(words[0], " ".join(words[1:])) or f"the cards of {words[0]} have ended")
        elif words:
            tell(f"write start and a server ({', '.join(SERVERS)}), or a site ({', '.join(SITES)}) and a command to its cards")


def end(number, _frame):
    for other in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(other, signal.SIG_IGN)  # so that nothing disturbs the end
    sys.exit(128 + number)


def main():
    if not os.environ.get("FXM_INSIDE"):
        sys.exit("demo_fleet.py: it needs a network of its own; type ./scripts/demo --fleet")
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, end)
    began = time.monotonic()
    fleet = Fleet()
    what = "the start"
    try:
        fleet.set_up()
        what = "scene 1"
        fleet.all_is_well()
        if sys.argv[1:] == ["--stay"]:
            fleet.stay()
        what = "scene 2"
        fleet.a_server_is_killed()
        what = "scene 3"
        fleet.a_site_is_cut_off()
        say(f"Done: all scenes went as told, in {time.monotonic() - began:.0f} s")
    except (Failed, OSError, RuntimeError, subprocess.CalledProcessError) as failure:
        progress()
        sys.exit(f"demo: {what} did not go as told: {failure}")
    finally:
        progress()
        fleet.close()


if __name__ == "__main__":
    main()
