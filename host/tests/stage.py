"""A fabric with fxmd, driven by another program.

    stage.py PROGRAM [ARGUMENT...]   runs a program in a network namespace of its own
    stage.py --serve                 reads a command from each line, as JSON, and answers each with a line of JSON

The commands are the names of the functions of Stage, with their arguments: {"do": "cards", "text": "remove all"}.
"""
import json
import os
import signal
import sys

import fabric

TOKENS = {"view": "0123456789abcdef", "operate": "123456789abcdef0", "admin": "23456789abcdef01"}
LISTEN = "127.0.0.1:8610"


class Stage:
    def __init__(self):
        self.fabric = self.room = self.servers = None

    def start(self, cards=None, period=100, top="eeprom_writer = true", history="", fleet=False):
        """Starts cards and fxmd, which listens on the loopback address, or as the site north of a fleet whose room does."""
        self.fabric = fabric.Fabric(fabric.CARDS if cards is None else cards, period=period, top=top, history=history)
        tokens = f"{self.fabric.dir}/tokens"
        with open(tokens, "w", encoding="utf-8") as file:
            file.writelines(f"{role} {token}\n" for role, token in TOKENS.items())
        os.chmod(tokens, 0o640)
        listen = f'listen = "{LISTEN}"\ntoken_file = "{tokens}"'
        if fleet:
            from nats import Servers  # pylint: disable=import-outside-toplevel # which takes nats-server
            self.servers = Servers(1)
            self.fabric.configure(top=top, history=f'[fleet]\nurls = {json.dumps(self.servers.urls)}\nsite = "north"\nallow = "operate"')
            self.room = fabric.Room(self.servers.urls, allow="operate", api=listen)
            self.room.start()
        else:
            self.fabric.configure(top=top, history=history, api=listen)
        self.fabric.start()
        return {"url": f"http://{LISTEN}/", "tokens": TOKENS}

    def cards(self, text):
        return self.fabric.cards(text)

    def get(self, path):
        return self.fabric.get(path)

    def cable(self, port, up):
        fabric.run("ip", "link", "set", f"card{port}", "up" if up else "down")

    def end_daemon(self, kill=False):
        return self.fabric.stop(signal.SIGKILL if kill else signal.SIGTERM)

    def start_daemon(self):
        self.fabric.start()

    def pause_daemon(self, stop):
        self.fabric.daemon.send_signal(signal.SIGSTOP if stop else signal.SIGCONT)

    def close(self):
        for part in (self.room, self.fabric, self.servers):
            if part:
                part.close()
        self.fabric = self.room = self.servers = None


def serve():
    stage = Stage()
    try:
        for line in sys.stdin:
            words = json.loads(line)
            try:
                answer = {"value": getattr(stage, words.pop("do"))(**words)}
            except Exception as failure:  # pylint: disable=broad-except # told to whoever asked
                answer = {"error": f"{type(failure).__name__}: {failure}"}
            print(json.dumps(answer), flush=True)
    finally:
        stage.close()


if __name__ == "__main__":
    if sys.argv[1:] == ["--serve"]:
        serve()
    else:
        fabric.enter_namespace()
        fabric.run("ip", "link", "set", "lo", "up")
        os.execvp(sys.argv[1], sys.argv[1:])
