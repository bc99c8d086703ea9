"""Runs the commands of README.md and docs in their order, each document on a machine of its own: a network namespace with
the cards of sim/scenarios/small.fxm behind eth2 and eth3; what is written below /etc, /usr, /run, /tmp, /var/lib and
into the tree is gone at the end. A block of "sh" must succeed; "console" has commands behind "$ " with what they print."""
import os
import re
import shlex
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from fabric import DEVICE, FXMSIM, run, until

TOP = os.path.realpath(f"{os.path.dirname(__file__)}/../..")
# Commands that something else runs.
ELSEWHERE = {
    "./scripts/package": "scripts/test-fresh packages",
    "./scripts/setup": "scripts/test-fresh clone",
    "./scripts/test": "this test is a part of it",
    "ssh -L 8610:/run/fxm/fxmd.sock alice@manager": "takes a second machine; the tests of the page read the same socket",
}
# Programs that the machine does not have or must not run. systemctl does what the unit says.
PROGRAMS = {
    "sudo": 'exec "$@"',
    "apt": "true",
    "apt-get": "true",
    "curl": 'exec /usr/bin/curl --fail-with-body "$@"',
    "your-host": "ip -br link show fxm0 | grep -q UP",
    "tshark": f'exec /usr/bin/tshark -X lua_script:{TOP}/host/dissector/fxm.lua "$@"',
    "end-fxmd": """pid=$(cat "$HOME/fxmd.pid" 2>/dev/null) || exit 0
        kill "$pid" 2>/dev/null
        for n in $(seq 300); do readlink "/proc/$pid/exe" >/dev/null || exit 0; sleep 0.1; done; exit 1""",
    "systemctl": r"""
        case $* in
        "reload fxmd") exec fxmctl reload ;;
        *" fxmd") end-fxmd
            unit=$(ls -d /usr/lib/systemd/system/fxmd.service /usr/local/lib/systemd/system/fxmd.service 2>/dev/null)
            eval "$(sed -n 's/^ExecStartPre=-+//p' $unit | sed 's/\$\$/$/g; s|/usr/local/sbin/||')"
            mkdir -p /run/fxm /var/lib/fxm
            fxmd >"$HOME/fxmd.log" 2>&1 </dev/null & echo $! >"$HOME/fxmd.pid"
            for n in $(seq 100); do [ ! -S /run/fxm/fxmd.sock ] || exit 0; sleep 0.1; done; cat "$HOME/fxmd.log"; exit 1 ;;
        *" fxm-room") mkdir -p /run/fxm-room; fxmd --fleet >"$HOME/room.log" 2>&1 </dev/null &
            for n in $(seq 100); do [ ! -S /run/fxm-room/fxmd.sock ] || exit 0; sleep 0.1; done; cat "$HOME/room.log"; exit 1 ;;
        *" prometheus") prometheus --config.file=/etc/prometheus/prometheus.yml --storage.tsdb.path="$HOME/tsdb" \
                --web.listen-address=127.0.0.1:9090 >"$HOME/prometheus.log" 2>&1 </dev/null &
            for n in $(seq 300); do ! curl -s 127.0.0.1:9090/-/ready >/dev/null || exit 0; sleep 0.1; done; exit 1 ;;
        esac""",
}


def blocks(path):
    """Kind and text of each fenced block."""
    with open(f"{TOP}/{path}", encoding="utf-8") as file:
        for indent, kind, text in re.findall(r"^( *)```(\w*)\n(.*?)^ *```$", file.read(), re.S | re.M):
            yield kind, re.sub(f"^{indent}", "", text, flags=re.M)


class Machine:
    """This namespace as a machine on the management network."""

    def __init__(self):
        run("mount", "-t", "tmpfs", "tmpfs", "/tmp")
        self.home = tempfile.mkdtemp(prefix="fxm-docs-", dir="/tmp")
        for name in ("etc", "usr", "var/lib", TOP[1:]):
            upper, work = f"{self.home}/over/{name}", f"{self.home}/work/{name}"
            os.makedirs(upper)
            os.makedirs(work)
            run("mount", "-t", "overlay", "overlay", "-o", f"lowerdir=/{name},upperdir={upper},workdir={work}", f"/{name}")
        run("mount", "-t", "tmpfs", "tmpfs", "/run")
        os.mkdir(f"{self.home}/bin")
        for name, text in PROGRAMS.items():
            self.write(f"bin/{name}", f"#!/bin/sh\n{text}\n", 0o755)
        self.environment = os.environ | {"HOME": self.home, "LC_ALL": "C.UTF-8",
                                         "PATH": f"{self.home}/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"}
        run("ip", "link", "set", "lo", "up")
        for port in (0, 1):
            run("ip", "link", "add", f"eth{port + 2}", "type", "veth", "peer", "name", f"card{port}")
            run("ip", "link", "set", f"card{port}", "up")
        run("useradd", "alice")
        self.sim = subprocess.Popen([FXMSIM, "--port0", "card0", "--port1", "card1", "--period", "100"], text=True,
                                    stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
        with open(f"{TOP}/sim/scenarios/small.fxm", encoding="utf-8") as file:
            self.cards("".join(line for line in file if line.startswith("fx")))

    def write(self, name, text, mode=0o644):
        with open(f"{self.home}/{name}", "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(f"{self.home}/{name}", mode)

    def cards(self, commands):
        self.sim.stdin.write(commands)
        self.sim.stdin.flush()

    def changes(self):
        """A card that changes twice a second is what those see who watch."""
        for vlan in (300, 100) * 1000:
            self.cards(f"set {DEVICE} vlan={vlan}\n")
            time.sleep(0.5)

    def install(self, prefix):
        """What the packages do."""
        run("cmake", "--install", f"{TOP}/build/release", "--prefix", prefix)
        run("mkdir", "-p", "/etc/fxm")
        run("cp", f"{TOP}/conf/fxmd.toml", f"{TOP}/conf/room.toml", "/etc/fxm/")
        for group in ("fxm", "fxm-view", "fxm-admin"):
            run("groupadd", "--system", group)
        run("ldconfig")

    def shell(self, text, seconds=120):
        """Runs a command, or a block of them, which may leave programs behind that go on printing; returns code and output."""
        with open(f"{self.home}/printed", "w+", encoding="utf-8") as printed:
            done = subprocess.run(["timeout", str(seconds), "bash", "-e", "-c", text], env=self.environment, cwd=TOP,
                                  stdin=subprocess.DEVNULL, stdout=printed, stderr=printed, check=False)
            printed.seek(0)
            return done.returncode, printed.read()


class Document(unittest.TestCase):
    """FXM_DOCUMENT, in namespaces of its own."""

    maxDiff = None

    def run_document(self, path, machine):
        for kind, text in blocks(path):
            if kind == "sh":
                # fxmd alone serves for ever; the one of before ends.
                lines = [":" if re.sub(r"\s+#.*", "", line) in ELSEWHERE else
                         re.sub("^fxmd$", 'end-fxmd; timeout --preserve-status 3 fxmd', line)
                         for line in text.splitlines()]
                code, printed = machine.shell("\n".join(lines))
                self.assertEqual(code, 0, f"{path}:\n{text}\nprinted:\n{printed}")
            for command, shown in re.findall(r"^\$ (.*)\n((?:[^$].*\n)*)", text, re.M) if kind == "console" else []:
                watches = command.endswith("watch")
                code, printed = machine.shell(command, 3 if watches else 60)
                self.assertEqual(code, 124 if watches else 0, f"{path}: {command}: {printed}")
                if not re.search("watch|capture|tshark", command):
                    self.assertEqual(re.sub(r"\d+", "0", printed), re.sub(r"\d+", "0", shown), f"{path}: {command}")

    def test_commands(self):
        path, machine = os.environ["FXM_DOCUMENT"], Machine()
        if path != "docs/install.md":
            machine.install("/usr/local" if path == "docs/dissector.md" else "/usr")
            code, printed = machine.shell("sed -i 's/^ports = .*/ports = [\"eth2\", \"eth3\"]/' /etc/fxm/fxmd.toml; systemctl start fxmd")
            self.assertEqual(code, 0, printed)
            until(lambda: "5 well" in machine.shell("fxmctl status")[1], "all cards")
        threading.Thread(target=machine.changes, daemon=True).start()
        self.run_document(path, machine)
        if path == "docs/monitoring.md":
            until(lambda: '"value"' in machine.shell("curl -s '127.0.0.1:9090/api/v1/query?query=fxm_cards'")[1], "the cards in Prometheus", 60)


class Texts(unittest.TestCase):
    def test_every_document(self):
        documents = ["README.md", *(f"docs/{name}" for name in sorted(os.listdir(f"{TOP}/docs")) if name.endswith(".md"))]
        seen = {kind for path in documents for kind, _ in blocks(path)}
        self.assertLessEqual(seen, {"sh", "console", "c", "cpp", "cmake", "toml", "ini", "json", "text"}, "each block names its language")
        commands = "\n".join(text for path in documents for kind, text in blocks(path) if kind == "sh")
        self.assertEqual([command for command in ELSEWHERE if not re.search(f"^{re.escape(command)}( |$)", commands, re.M)], [])
        for path in documents:
            if {"sh", "console"} & {kind for kind, _ in blocks(path)}:
                with self.subTest(path):
                    done = subprocess.run(["unshare", "-nmpf", "--kill-child", "--mount-proc", sys.executable, "-B", __file__],
                                          env=os.environ | {"FXM_DOCUMENT": path}, capture_output=True, text=True, check=False)
                    self.assertEqual(done.returncode, 0, f"{done.stdout}{done.stderr}")

    def test_options_in_the_text_exist(self):
        documents = subprocess.run(["git", "ls-files", "*.md"], cwd=TOP, capture_output=True, text=True, check=True).stdout.split()
        programs = {os.path.basename(os.environ[name]): os.environ[name] for name in ("FXMD", "FXMCTL", "FXMSIM", "FXM_MONITOR")}
        for path in documents:
            with open(f"{TOP}/{path}", encoding="utf-8") as file:
                spans = re.findall(r"`((?:fxm[a-z-]+|\./scripts/[a-z-]+)(?: [^`]+)?)`", file.read())
            for span in spans:
                program, *words = re.split(r"[\s|]+", span)
                if program.startswith("./"):
                    command = [f"{TOP}/{program}"]
                elif program in programs:
                    command = [programs[program]]
                else:
                    continue
                if program == "fxmctl":
                    command += [word for word in words if re.fullmatch("[a-z]+", word)][:1 + (words[:1] in (["eeprom"], ["jobs"], ["fleet"]))]
                options = [word for word in words if re.match("--?[a-z]", word.strip("[]"))]
                done = subprocess.run([*command, "--help"], capture_output=True, text=True, check=False)
                self.assertEqual(done.returncode, 0, f"{path}: {span}: {done.stderr}")
                for option in options:
                    self.assertIn(re.split("[=)]", option.strip("[]"))[0], done.stdout + " --help --version -h -j --json --fleet --site",
                                  f"{path}: {shlex.quote(span)}")


if __name__ == "__main__":
    if os.geteuid() != 0:
        sys.exit("the commands of the documents are those of root; run this test as root")
    unittest.main(defaultTest="Document" if "FXM_DOCUMENT" in os.environ else "Texts")
