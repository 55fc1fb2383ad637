#!/usr/bin/env python3
"""A user agent's life through ue-proxy, every message as it is on the wire.

Real programs: ue-proxy, ue-proxyctl, kamailio as the network's proxy, baresip as soft phone. In a network namespace of
its own, so nothing leaves this machine and no port of it is used.
"""
import argparse
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)


def title(text):
    print(f"\n\033[1m{text}\033[0m" if sys.stdout.isatty() else f"\n## {text}", flush=True)


class Story:
    """The chapters share a running ue-proxy, kamailio, and somebody behind it."""

    def __init__(self):
        from support import peers, sip
        from support.ladder import Ladder
        from support.proxy import BIN, HOME_PROFILE, UeProxy
        self.peers, self.sip, self.bin = peers, sip, BIN
        self.opened = []
        network = ("127.0.0.3", "127.0.0.4", "127.0.0.5")
        self.ladder = self.keep(Ladder([
            ("user agents", lambda ip, port: ip == "127.0.0.1" and port != 5060),
            ("ue-proxy", lambda ip, port: ip == "127.0.0.2" or (ip, port) == ("127.0.0.1", 5060)),
            ("network", lambda ip, port: ip in network)]))
        profiles = {name: HOME_PROFILE.format(mode="ietf-shared") for name in ("home", "work", "vip")}
        self.proxy = UeProxy(level=4, profiles=profiles)
        self.keep(peers.Kamailio())
        self.callee = self.keep(peers.Callee())
        self.watched = 0
        self.watch = peers.Child([os.path.join(BIN, "ue-proxyctl"), "watch"], self.proxy.dir, "watch")
        self.keep(self.watch)
        self.watch.wait_output("NOTIFY active")
        self.settle()

    def keep(self, peer):
        self.opened.append(peer)
        return peer

    def close(self):
        for peer in reversed(self.opened):
            peer.close()
        if self.proxy.alive():
            self.proxy.stop()
        self.proxy.remove()

    def ctl(self, *words):
        print(f"$ ue-proxyctl {' '.join(words)}", flush=True)
        done = subprocess.run([os.path.join(self.bin, "ue-proxyctl"), *words], capture_output=True, text=True, timeout=60)
        print(done.stdout + done.stderr, end="", flush=True)
        if done.returncode != 0:
            sys.exit("demo: ue-proxyctl failed")

    @staticmethod
    def settle():
        time.sleep(0.3)

    def draw(self, **options):
        self.settle()
        self.ladder.draw(**options)

    def expect(self, condition, text):
        if not condition:
            sys.exit(f"demo: {text}")

    def watcher_saw(self):
        self.settle()
        seen = self.watch.output()
        print("the watcher (ue-proxyctl watch) saw:")
        print(seen[self.watched:])
        self.watched = len(seen)

    def register(self, user, port, profile, show=True):
        self.ctl("register", "--port", str(port), "--user", user, "--profile-name", profile, "--aor",
                 f"{user}@example.net", "--feature-tag", f"+g.{user}", "--methods", "INVITE,MESSAGE")
        if show:
            self.draw()

    def message(self, link, user, port, transport, to="sip:echo@example.net"):
        link.send(self.sip.request("MESSAGE", to, via=f"127.0.0.1:{port}", transport=transport, body="hello",
                                   frm=f"<sip:{user}@example.net>", to=f"<{to}>"))
        return link.receive()

    def to_the_network(self, transport, user, port, name, profile):
        title(f"{transport}: the phone of {user} at port {port} is registered with the local registrar")
        self.register(user, port, name)
        title(f"{transport}: its network profile gets a route to the network's proxy (kamailio)")
        self.ctl("route", "set", "--profile", profile, "--proxy", f"127.0.0.3:{transport}:5060", "--device", "127.0.0.2")
        self.draw()

        title(f"{transport}: baresip calls sip:bob@example.net")
        phone = self.peers.Baresip(user=user, port=port, transport=transport.lower(),
                                   commands=["/dial sip:bob@example.net"])
        try:
            phone.wait_output("Call established", 20)
            self.settle()
        finally:
            phone.close()
        self.draw()

        title(f"{transport}: a MESSAGE and a REGISTER to the network")
        listener = None if transport == "UDP" else self.sip.Tcp(port)
        link = self.sip.Udp(port) if transport == "UDP" else self.sip.connect()
        try:
            answers = [self.message(link, user, port, transport)]
            link.send(self.sip.request("REGISTER", "sip:example.net", via=f"127.0.0.1:{port}", transport=transport,
                                       frm=f"<sip:{user}@example.net>", to=f"<sip:{user}@example.net>",
                                       contact=f"<sip:{user}@127.0.0.1:{port}>",
                                       headers=[("Zel-Profile-ID", profile), ("Expires", 600)]))
            answers.append(link.receive())
        finally:
            link.close()
            if listener:
                listener.close()
        self.draw()
        for answer in answers:
            self.expect(answer.status == 200 and len(answer.all("Via")) == 1 and f":{port};" in answer.get("Via"),
                        f"the answer is not as it should be:\n{answer.raw.decode()}")

    def from_the_network(self):
        title("UDP: the network calls sip:alice@example.net; her phone (baresip) answers")
        phone = self.peers.Baresip(user="alice", port=5071, answer=True)
        try:
            phone.wait_output("baresip is ready", 10)
            self.callee.call("sip:alice@example.net")
            phone.wait_output("Call established", 20)
            self.settle()
            self.callee.hang_up()
        finally:
            phone.close()
        self.draw()

    def local_call(self):
        title("UDP: alice calls dave, another phone of this terminal")
        self.register("dave", 5073, "home", show=False)
        self.settle()
        self.ladder.seen.clear()
        called = self.peers.Baresip(user="dave", port=5073, answer=True, local=True)
        try:
            called.wait_output("baresip is ready", 10)
            caller = self.peers.Baresip(user="alice", port=5071, local=True, commands=["/dial sip:dave@127.0.0.1"])
            try:
                caller.wait_output("Call established", 20)
                self.settle()
            finally:
                caller.close()
        finally:
            called.close()
        self.draw(show=("Via", "Contact", "Record-Route"))

    def challenged(self):
        from test_digest import kamailio_challenge
        title("UDP: a network that asks for credentials: the first request is challenged, the next is accepted")
        self.keep(self.peers.Kamailio(ip="127.0.0.4", challenge=kamailio_challenge(0)))
        self.register("erin", 5074, "vip", show=False)
        self.ctl("route", "set", "--profile", "3", "--proxy", "127.0.0.4:UDP:5060", "--device", "127.0.0.2")
        self.settle()
        self.ladder.seen.clear()
        phone = self.keep(self.sip.Udp(5074))
        statuses = []
        for _ in range(2):
            phone.send(self.sip.request("REGISTER", "sip:example.net", via=phone.via, frm="<sip:erin@example.net>",
                                        to="<sip:erin@example.net>", contact=f"<sip:erin@{phone.via}>"))
            statuses.append(phone.receive().status)
        statuses.append(self.message(phone, "erin", 5074, "UDP").status)
        statuses.append(self.message(phone, "erin", 5074, "UDP").status)
        self.draw(show=("WWW-Authenticate", "Proxy-Authenticate", "Authorization", "Proxy-Authorization"))
        self.expect(statuses == [401, 200, 407, 200], f"statuses {statuses}")

    def leave(self):
        title("dave's phone leaves")
        self.ctl("deregister", "--port", "5073", "--user", "dave", "--profile-name", "home", "--aor", "dave@example.net")
        self.watcher_saw()

    def costs(self):
        title("what it costs")
        memory = self.proxy.resident_kib()
        print(f"resident memory of ue-proxy: {memory / 1024:.1f} MiB (promised: under 12 MiB)")
        self.expect(memory <= 12 * 1024, "more memory than promised")
        errors = self.proxy.lines(3)
        print(f"log lines of level 3: {len(errors)}")
        for line in errors:
            print("  ", *line)

    def tell(self):
        self.ladder.seen.clear()
        self.to_the_network("UDP", "alice", 5071, "home", "1")
        self.watcher_saw()
        self.to_the_network("TCP", "carol", 5072, "work", "2")
        self.from_the_network()
        self.local_call()
        self.challenged()
        self.leave()
        self.costs()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if arguments.inside:
        story = None
        try:
            story = Story()
            story.tell()
        except AssertionError:
            story.draw()
            print(story.proxy.log()[-3000:])
            raise
        finally:
            if story:
                story.close()
        return
    import run
    prefix = run.namespace_prefix()
    if not prefix:
        sys.exit("demo: needs a network namespace (root, or unprivileged user namespaces)")
    environment = dict(os.environ, UE_PROXY_BIN=os.path.join(os.path.abspath(arguments.build), "bin"),
                       PYTHONUNBUFFERED="1")
    command = [*prefix, sys.executable, os.path.abspath(__file__), "--inside", "--build", arguments.build]
    sys.exit(subprocess.run(command, env=environment).returncode)


if __name__ == "__main__":
    main()
