"""fxm-fleet-postgres with a real database and a real server of NATS; the test sends what sites send."""
import itertools
import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

import fabric
from fabric import until
from nats import Servers

CONSUMER, POSTGRES = (os.environ.get(name, "") for name in ("FXM_FLEET_POSTGRES", "FXM_POSTGRES"))
SIZE, BATCHES = 40, 150  # events of a batch; batches of a site


class FleetPostgres(unittest.TestCase):
    def setUp(self):
        with open(f"{fabric.HERE}/../../docs/fleet.md", encoding="utf-8") as file:
            listed = re.search(r"Rights of a consumer.*?: publish (.*?); subscribe\s(.*?)\.\n", file.read(), re.S).groups()
        publish, subscribe = [re.findall("`(.*?)`", part.replace("NAME", "postgres")) for part in listed]
        self.servers = Servers(1, window=600, rights={"postgres": {"publish": publish, "subscribe": subscribe}})
        self.addCleanup(self.servers.close)
        self.admin = self.servers.client()
        self.log = self.enterContext(tempfile.TemporaryFile())
        self.dir = self.enterContext(tempfile.TemporaryDirectory(prefix="fxm-postgres-"))
        shutil.chown(self.dir, "postgres", "postgres")
        self.as_postgres = ["setpriv", "--reuid=postgres", "--regid=postgres", "--clear-groups"]  # it refuses to run as root
        self.psql = [f"{POSTGRES}/psql", "-XAtq", "-h", self.dir, "-U", "postgres"]
        subprocess.run([*self.as_postgres, f"{POSTGRES}/initdb", "-A", "trust", "-N", "-E", "UTF8", "--locale=C", f"{self.dir}/data"],
                       cwd="/", stdout=subprocess.DEVNULL, check=True)
        self.start_database()
        self.expected = {}

    def tearDown(self):
        self.end(signal.SIGKILL)
        self.stop_database()
        self.admin.close()

    def start_database(self):
        self.database = subprocess.Popen([*self.as_postgres, f"{POSTGRES}/postgres", "-D", f"{self.dir}/data", "-k", self.dir, "-h", "", "-F"],
                                         cwd="/", stderr=subprocess.DEVNULL)
        until(lambda: self.query("SELECT 1") == "1", "the database answers")

    def stop_database(self):
        self.database.send_signal(signal.SIGQUIT)
        self.database.wait()

    def query(self, text):
        return subprocess.run([*self.psql, "-c", text], capture_output=True, text=True, check=False).stdout.strip()

    def start(self):
        words = ["--server", self.servers.urls[0], "--ca", self.servers.file("ca"), "--certificate", self.servers.file("postgres")]
        self.consumer = subprocess.Popen([CONSUMER, *words, "--database", f"host={self.dir} user=postgres"], stderr=self.log)

    def end(self, number):
        self.consumer.send_signal(number)
        return self.consumer.wait(30)

    def send(self, site, boot, first, text=None, identity="{}.{}.{}", schema="fxm/1"):
        if text is None:
            events = [{"schema": "fxm/1", "type": "change", "seq": number, "time_ms": 1700000000123 + number, "card": "02:00:00:00:10:00",
                       "name": f'{site} {boot} "ü"'} for number in range(first, first + SIZE)]
            self.expected.update({(site, event["seq"], boot): event for event in events})
            text = "".join(json.dumps(event) + "\n" for event in events)
        self.admin.ask(f"fxm.ev.{site}", text.encode(), {"Fxm-Schema": schema, "Nats-Msg-Id": identity.format(site, boot, first)})
        return text

    def end_while_a_batch_waits(self, number):
        """PostgreSQL holds a statement up, and commits it when the consumer, which has not confirmed it, is gone."""
        holder = subprocess.Popen(self.psql, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        print("BEGIN; LOCK TABLE fxm_events IN EXCLUSIVE MODE; SELECT 1;", file=holder.stdin, flush=True)
        holder.stdout.readline()
        self.send("south", "b1", len(self.expected) * SIZE + 1)
        until(lambda: self.query("SELECT count(*) FROM pg_locks WHERE NOT granted") != "0", "a batch waits for the lock")
        code = self.end(number)
        holder.communicate()
        self.start()
        return code

    def test_each_event_is_in_the_table_once_whatever_fails(self):
        for first in range(1, BATCHES * SIZE, SIZE):
            self.send("north", "a1", first)
            self.send("south", "b1", first)
        self.start()
        count = lambda: int(self.query("SELECT count(*) FROM fxm_events") or 0)
        until(lambda: count() > 10 * SIZE, "the first events")
        self.end_while_a_batch_waits(signal.SIGKILL)
        until(lambda before=count(): count() > before, "it goes on")
        self.stop_database()
        again = self.send("north", "a2", BATCHES * SIZE + 1)
        self.send("north", "a2", 0, again, "{}.{}-1.6001")  # after a loss of the stream
        self.send("north", "a3", 0, again)  # and by a later run
        self.send("south", "b1", 0, again[:-30], "{}.{}.1000001")
        self.send("south", "b1", 0, again, "{}.{}.1000002", "fxm/2")
        self.send("south", "b1", 0, again, "north.b1.1000003")  # in the name of another site
        gaps = [{"schema": "fxm/1", "type": "gap", "from": 1, "to": to} for to in (SIZE, 9000001)]  # the table has one of these numbers
        self.send("south", "b1", 0, "\n".join(map(json.dumps, gaps)), "{}.{}-1.1")
        self.expected["south", 9000001, "b1"] = gaps[1]
        self.send("north", "a4", 1)  # its numbers begin anew
        self.start_database()
        self.servers.signal(0, signal.SIGTERM)
        self.servers.start(0)
        self.admin.close()
        self.admin = until(self.servers.whole, "the server is back")
        self.assertEqual(self.end_while_a_batch_waits(signal.SIGTERM), 0, "it does not wait for a database that hangs")
        until(lambda: (now := self.admin.api("CONSUMER.INFO.FXM_EVENTS.postgres"))["num_pending"] + now["num_ack_pending"] == 0,
              "all is confirmed", 60)
        rows = self.query("SELECT json_build_array(site, number, boot, document, type, card, extract(epoch FROM site_time) * 1000)"
                          " FROM fxm_events ORDER BY stream_time, number")
        expected = [[*key, event, event["type"], event.get("card"), event.get("time_ms")] for key, event in self.expected.items()]
        pairs = itertools.zip_longest(map(json.loads, rows.splitlines()), expected)
        self.assertEqual([pair for pair in pairs if pair[0] != pair[1]][:3], [])
        log = os.pread(self.log.fileno(), 100000, 0).decode()
        self.assertEqual(len(set(re.findall(r"batch \d+, .* is not understood", log))), 3, log)


if __name__ == "__main__":
    fabric.enter_namespace()
    unittest.main()
