"""fxmctl fleet: what it makes of a list, tried with the real servers."""
import http.server
import json
import os
import signal
import socket
import ssl
import subprocess
import tempfile
import threading
import unittest

import fabric
from fabric import FXMCTL, until
from nats import Client

LIST = """name = "plant"
sites = ["north", "south"]
readers = ["database"]
certificates = "{dir}/fleet"
store = "{dir}/store"
[servers]
s1 = "127.0.0.1"
s2 = "127.0.0.2"
s3 = "127.0.0.3"
[users]
room = "view"
alice = "operate"
"""
STREAMS = {"FXM_EVENTS": "fxm.ev.*", "KV_fxm_cards_1": "$KV.fxm_cards_1.>", "KV_fxm_sites": "$KV.fxm_sites.*"}


class Tools(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory(prefix="fxm-fleet-")
        self.addCleanup(place.cleanup)
        self.dir, self.servers = place.name, {}
        self.write(LIST)

    def write(self, text):
        with open(f"{self.dir}/fleet.toml", "w", encoding="utf-8") as file:
            file.write(text.format(dir=self.dir))

    def read(self, name):
        with open(f"{self.dir}/{name}", encoding="utf-8") as file:
            return file.read()

    def fleet(self, *words, code=0, **more):
        done = subprocess.run([FXMCTL, "fleet", *words], cwd=self.dir, capture_output=True, text=True, check=False, **more)
        self.assertEqual(done.returncode, code, f"{words}: {done.stdout}{done.stderr}")
        return done.stdout + done.stderr

    def files(self):
        return {name: (os.stat(f"{self.dir}/fleet/{name}").st_mode & 0o777, self.read(f"fleet/{name}"))
                for name in os.listdir(f"{self.dir}/fleet")}

    def start(self):
        self.fleet("certs")
        self.fleet("config")
        for name in ("s1", "s2", "s3"):
            with open(f"{self.dir}/{name}.log", "wb") as log:
                self.servers[name] = subprocess.Popen(["nats-server", "-c", f"fleet/{name}.conf"], cwd=self.dir, stdout=log, stderr=log)
            self.addCleanup(self.servers[name].wait)
            self.addCleanup(self.servers[name].kill)
        until(lambda: all("Server is ready" in self.read(f"{name}.log") for name in self.servers), "the servers listen", 180)
        # Only the one that was elected is sure to say so: one that stood against it follows without a word.
        until(lambda: any("Self is new JetStream cluster metadata leader" in self.read(f"{name}.log") for name in self.servers),
              "the servers have elected a leader", 180)

    def client(self, user, host="127.0.0.1"):
        client = Client(4222, host, ca=f"{self.dir}/fleet/ca.pem", certificate=f"{self.dir}/fleet/{user}.pem")
        self.addCleanup(client.close)
        client.inbox = f"_INBOX_{user}.1"
        client.subscribe(f"{client.inbox}.*")
        return client

    def make_streams(self):
        """As a room does; nothing while the servers do not know each other yet."""
        room = self.client("room")
        try:
            for name, subject in STREAMS.items():
                room.api(f"STREAM.CREATE.{name}", name=name, subjects=[subject], num_replicas=3, allow_direct=True)
            return room
        except (OSError, RuntimeError, ValueError):
            return None

    def test_each_may_do_its_own_and_nothing_else(self):
        self.start()
        room = until(self.make_streams, "the streams, with three copies", 60)
        north, reader = self.client("north"), self.client("database", "127.0.0.3")
        for subject in ("fxm.ev.north", "$KV.fxm_cards_1.north.020000001000", "$KV.fxm_sites.north"):
            self.assertIn("seq", north.ask(subject, b"{}").json())
        for last in ("FXM_EVENTS.fxm.ev.north", "KV_fxm_cards_1.$KV.fxm_cards_1.north.020000001000"):
            self.assertEqual(north.ask(f"$JS.API.DIRECT.GET.{last}").data, b"{}")
        for subject in ("fxm.beat.*", "_INBOX_room.events", "_INBOX_room.answer"):
            room.subscribe(subject)
        room.ask("$JS.API.STREAM.INFO.FXM_EVENTS")  # so that the server has the subscriptions
        north.publish("fxm.beat.north")
        self.assertEqual(room.receive().subject, "fxm.beat.north")
        room.api("CONSUMER.CREATE.FXM_EVENTS", stream_name="FXM_EVENTS",
                 config={"deliver_subject": "_INBOX_room.events", "ack_policy": "none", "flow_control": True, "idle_heartbeat": 10**9})
        until(lambda: any(m.subject == "fxm.ev.north" for m in room.messages) or room.messages.append(room.receive()), "the event")
        reader.api("CONSUMER.DURABLE.CREATE.FXM_EVENTS.rows", stream_name="FXM_EVENTS", config={"durable_name": "rows", "ack_policy": "explicit"})
        reader.publish("$JS.API.CONSUMER.MSG.NEXT.FXM_EVENTS.rows", b"1", "_INBOX_database.1.next")
        event = reader.receive()
        reader.publish(event.reply)
        until(lambda: reader.api("CONSUMER.INFO.FXM_EVENTS.rows")["ack_floor"]["stream_seq"] == 1, "the event is confirmed")
        north.subscribe("fxm.api.north.>")
        north.ask("$JS.API.DIRECT.GET.FXM_EVENTS.fxm.ev.north")
        room.publish("fxm.api.north.view.room", b"", "_INBOX_room.answer")
        north.publish(north.receive().reply, b"done")
        until(lambda: room.receive().data == b"done", "the answer")

        for user, verb, subjects in (
                ("north", "publish", ("fxm.ev.south", "fxm.beat.south", "$KV.fxm_cards_1.south.020000001000", "$KV.fxm_sites.south",
                                      "$JS.API.DIRECT.GET.FXM_EVENTS.fxm.ev.south", "$JS.API.CONSUMER.CREATE.FXM_EVENTS",
                                      "$JS.API.STREAM.INFO.FXM_EVENTS", "$JS.API.STREAM.CREATE.FXM_EVENTS", "fxm.api.south.view.north")),
                ("north", "subscribe", ("fxm.api.south.>", "fxm.>", "_INBOX_room.>", "$KV.>", ">")),
                ("room", "publish", ("fxm.api.north.operate.room", "fxm.api.north.view.alice", "fxm.ev.north", "$KV.fxm_sites.north",
                                     "$JS.API.STREAM.DELETE.FXM_EVENTS", "$JS.API.STREAM.PURGE.FXM_EVENTS")),
                ("room", "subscribe", ("fxm.api.>", "_INBOX_alice.>")),
                ("alice", "publish", ("fxm.api.north.admin.alice",)),
                ("database", "publish", ("$JS.API.CONSUMER.CREATE.KV_fxm_sites", "fxm.api.north.view.database"))):
            for subject in subjects:
                with self.subTest(user=user, verb=verb, subject=subject):
                    client = self.client(user)
                    getattr(client, verb)(subject)
                    with self.assertRaisesRegex(ConnectionError, "Permissions Violation"):
                        client.receive()
                    self.logged(f'Violation - User "CN={user}", Subject "{subject}"')
        # Without a certificate; with that of a server; and where servers meet, where only the name of the cluster is wrong then.
        for certificate, port, said, logged in ((None, 4222, b"", "client didn't provide a certificate"),
                                                ("s2", 4222, b"Authorization Violation", "authentication error"),
                                                ("north", 6222, b"Authorization Violation", "authentication error"),
                                                ("s2", 6222, b"cluster name", "Route connection created")):
            with self.subTest(certificate=certificate, port=port):
                self.assertIn(said, self.talk(certificate, port))
                self.logged(logged)

    def logged(self, text):
        until(lambda: text in self.read("s1.log"), f"the server logs: {text}")

    def talk(self, certificate, port):
        """All that a server says to a connection."""
        with socket.create_connection(("127.0.0.1", port), 10) as plain:
            while port == 4222 and plain.recv(1) != b"\n":
                pass
            context = ssl.create_default_context(cafile=f"{self.dir}/fleet/ca.pem")
            if certificate:
                context.load_cert_chain(f"{self.dir}/fleet/{certificate}.pem")
            said = b""
            try:
                with context.wrap_socket(plain, server_hostname="127.0.0.1") as secure:
                    secure.sendall(b'CONNECT {"verbose":false}\r\nPING\r\n')
                    while b"PONG" not in said and (part := secure.recv(4096)):
                        said += part
            except (ssl.SSLError, ConnectionError):
                pass
            return said

    def test_a_second_run_keeps_what_is_there(self):
        self.assertIn("missing", self.fleet("certs", "--dry-run"))
        self.assertFalse(os.path.exists(f"{self.dir}/fleet"))
        self.assertIn("install the package openssl", self.fleet("certs", code=1, env={"PATH": "/nowhere"}))
        self.fleet("certs", "--days", "20")
        self.fleet("config")
        before = self.files()
        self.assertEqual({name for name, (mode, text) in before.items() if mode != 0o600 or "PRIVATE KEY" not in text},
                         {"ca.pem", "s1.conf", "s2.conf", "s3.conf"})
        shown = subprocess.run(["openssl", "x509", "-in", f"{self.dir}/fleet/north.pem", "-noout", "-ext", "basicConstraints"],
                               capture_output=True, text=True, check=True).stdout
        self.assertIn("CA:FALSE", shown)
        self.write(LIST.replace('"south"]', '"south", "west"]'))
        self.assertIn('+      { user: "CN=west"', self.fleet("config", "--dry-run"))
        self.fleet("certs")
        after = self.files()
        self.assertEqual({name: after[name] for name in before}, before)
        self.assertEqual(set(after) - set(before), {"west.pem"})
        # Of another one, with another key, and without one.
        parts = {name: before[f"{name}.pem"][1].partition("-----BEGIN PRIVATE") for name in ("south", "room", "alice")}
        for name, text in (("north", before["south.pem"][1]), ("south", parts["south"][0]), ("room", parts["room"][0] + "".join(parts["alice"][1:]))):
            with open(f"{self.dir}/fleet/{name}.pem", "w", encoding="utf-8") as file:
                file.write(text)
        spoiled, told = self.files(), self.fleet("certs", code=1)
        for fault in ("north.pem: it is not for north", "south.pem: south.pem has not the key", "room.pem: room.pem has not the key"):
            self.assertIn(f"\nfleet/{fault}", told)
        self.assertEqual(self.files(), spoiled)
        os.rename(f"{self.dir}/fleet/north.pem", f"{self.dir}/fleet/north.old")
        os.remove(f"{self.dir}/fleet/ca.key")
        self.assertIn("bring the key of ca.pem back", self.fleet("certs", code=1))

    def test_a_wrong_list_is_refused_with_all_its_errors(self):
        self.write(LIST.replace('"plant"', '"Plant"').replace('"south"]', '"room", 7, "ca"]').replace("127.0.0.2", "127.0.0.1")
                   .replace('"127.0.0.3"', '"10.0.0.300"').replace('"view"', '"root"') + 'colour = "red"\n[colours]\n')
        told = self.fleet("certs", code=1)
        for wrong in ('1: name = "Plant": expected at most 32', "2: sites = 7: expected a name", '2: sites = "ca": ca.pem',
                      "8: servers.s2 = \"127.0.0.1\": this is the address of s1", '9: servers.s3 = "10.0.0.300": expected an IP address',
                      '11: users.room = "root": expected view, operate or admin', "11: users.room = \"root\": sites has this name",
                      '13: users.colour = "red": expected view', "14: colours = {...}: there is no such key; there are name"):
            self.assertIn(f"\nfleet.toml:{wrong}", told)
        self.assertEqual(os.listdir(self.dir), ["fleet.toml"])
        self.write('name = "plant"\n[servers]\ns1 = "a"\ns2 = "b"\n')
        told = self.fleet("config", code=1)
        for wrong in ("sites is missing", "users is missing", "2: servers = {...}: expected a section of 1, 3 or 5"):
            self.assertIn(wrong, told)

    def test_the_doctor_names_what_is_wrong(self):
        self.assertIn("there is no list", self.fleet("doctor", "--list", "nothing.toml", code=1))
        told = self.fleet("doctor", code=1)
        for wrong in ("certificate fleet/north.pem: is missing", "fleet/s1.conf: is missing", "nothing is stored until more than half"):
            self.assertIn(wrong, told)
        self.start()
        told = self.fleet("doctor")
        for good in ("s3 (127.0.0.3): runs NATS", "fleet/s2.conf: is what the list gives", "sites: not asked"):
            self.assertIn(good, told)
        room = http.server.HTTPServer(("127.0.0.1", 0), Room)
        threading.Thread(target=room.serve_forever, daemon=True).start()
        self.addCleanup(room.server_close)
        self.addCleanup(room.shutdown)
        self.servers["s3"].send_signal(signal.SIGKILL)
        self.servers["s3"].wait()
        self.write(LIST.replace('"south"]', '"south", "west"]').replace("operate", "admin"))
        findings = json.loads(self.fleet("doctor", "-j", "--url", f"http://127.0.0.1:{room.server_port}", code=1))["findings"]
        found = {(entry["verdict"], entry["about"], entry["what"]) for entry in findings}
        self.assertLessEqual({("wrong", "server s3 (127.0.0.3)", "cannot be reached: Connection refused"),
                              ("wrong", "configuration fleet/s1.conf", "is not what the list gives"),
                              ("warning", "site north", "its clock is 2.5 s late"), ("ok", "site north", "live, version 1.0.0"),
                              ("wrong", "site south", "silent for 2 min"), ("wrong", "site west", "has never been heard of")}, found)
        self.assertTrue(all(entry["advice"] for entry in findings if entry["verdict"] != "ok"))


class Room(http.server.BaseHTTPRequestHandler):
    """Answers as an operations room does."""

    def do_GET(self):
        sites = [{"site": "north", "state": "live", "age_ms": 100, "offset_ms": -2500, "waiting": 0, "version": "1.0.0"},
                 {"site": "south", "state": "silent", "age_ms": 120000, "offset_ms": None, "waiting": None, "version": None}]
        body = json.dumps({"schema": "fxm/1", "sites": sites if self.path == "/v1/sites" else []}).encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):  # pylint: disable=arguments-differ
        pass


if __name__ == "__main__":
    fabric.enter_namespace()
    fabric.run("ip", "link", "set", "lo", "up")
    unittest.main()
