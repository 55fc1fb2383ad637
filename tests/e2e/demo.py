#!/usr/bin/env python3
"""A user agent's life through ue-proxy, every message as it is on the wire.

Real programs: ue-proxy, ue-proxyctl, kamailio as the network's proxy, baresip as soft phone. In a network namespace of
its own, so nothing leaves this machine and no port of it is used.
"""
import argparse
import os
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)


def title(text):
    print(f"\n\033[1m{text}\033[0m" if sys.stdout.isatty() else f"\n## {text}", flush=True)


class Callee:
    """Somebody in the network: answers what kamailio brings."""

    def __init__(self, ip="127.0.0.5", port=5060):
        from support import sip
        self.sip = sip
        self.peer = sip.Udp(port, ip)
        self.running = True
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        contact = f"<sip:bob@{self.peer.ip}:{self.peer.port}>"
        sdp = (f"v=0\r\no=bob 1 1 IN IP4 {self.peer.ip}\r\ns=-\r\nc=IN IP4 {self.peer.ip}\r\nt=0 0\r\n"
               "m=audio 7000 RTP/AVP 0\r\n")
        while self.running:
            try:
                message = self.peer.receive(0.2)
            except TimeoutError:
                continue
            if message.method == "INVITE":
                self.peer.send(self.sip.response(message, 180, "Ringing", contact=contact), self.peer.source)
                self.peer.send(self.sip.response(message, 200, "OK", contact=contact, body=sdp,
                                                 headers=[("Content-Type", "application/sdp")]), self.peer.source)
            elif message.method and message.method != "ACK":
                self.peer.send(self.sip.response(message, 200, "OK"), self.peer.source)

    def close(self):
        self.running = False
        self.thread.join()
        self.peer.close()


def story():
    from support import peers, sip
    from support.ladder import Ladder
    from support.proxy import BIN, UeProxy

    def ctl(*words):
        print(f"$ ue-proxyctl {' '.join(words)}", flush=True)
        done = subprocess.run([os.path.join(BIN, "ue-proxyctl"), *words], capture_output=True, text=True, timeout=60)
        print(done.stdout + done.stderr, end="", flush=True)
        if done.returncode != 0:
            sys.exit("demo: ue-proxyctl failed")

    def settle():
        time.sleep(0.3)

    local = Ladder([("user agent", lambda ip, port: ip == "127.0.0.1" and port != 5060),
                    ("ue-proxy", lambda ip, port: port == 5060 and ip in ("127.0.0.1", "127.0.0.2")
                     or ip == "127.0.0.2"),
                    ("network", lambda ip, port: ip in ("127.0.0.3", "127.0.0.5"))])
    opened = [local]
    proxy = UeProxy(level=4)
    try:
        kamailio = peers.Kamailio()
        opened += [kamailio, Callee()]
        settle()
        local.draw(skip=lambda message: True)

        for transport, port, profile in (("UDP", 5071, "1"), ("TCP", 5072, "2")):
            user, name = ("alice", "home") if transport == "UDP" else ("carol", "work")
            title(f"{transport}: the soft phone of {user} at port {port} is registered with the local registrar")
            ctl("register", "--port", str(port), "--user", user, "--profile-name", name, "--aor",
                f"{user}@example.net", "--methods", "INVITE,MESSAGE")
            settle()
            local.draw()
            title(f"{transport}: its network profile gets a route to the network's proxy (kamailio)")
            ctl("route", "set", "--profile", profile, "--proxy", f"127.0.0.3:{transport}:5060", "--device", "127.0.0.2")
            settle()
            local.draw()

            title(f"{transport}: baresip calls sip:bob@example.net")
            phone = peers.Baresip(user=user, port=port, transport=transport.lower(),
                                  commands=["/dial sip:bob@example.net"])
            opened.append(phone)
            phone.wait_output("Call established", 20)
            settle()
            phone.close()
            opened.remove(phone)
            settle()
            local.draw()

            title(f"{transport}: a MESSAGE and a REGISTER to the network")
            if transport == "UDP":
                link = sip.Udp(port)
                opened.append(link)
            else:
                listener = sip.Tcp(port)
                link = sip.connect()
                opened += [listener, link]
            link.send(sip.request("MESSAGE", "sip:echo@example.net", via=f"127.0.0.1:{port}", transport=transport,
                                  frm=f"<sip:{user}@example.net>", to="<sip:echo@example.net>", body="hello"))
            answers = [link.receive()]
            link.send(sip.request("REGISTER", "sip:example.net", via=f"127.0.0.1:{port}", transport=transport,
                                  frm=f"<sip:{user}@example.net>", to=f"<sip:{user}@example.net>",
                                  contact=f"<sip:{user}@127.0.0.1:{port}>",
                                  headers=[("Zel-Profile-ID", profile), ("Expires", 600)]))
            answers.append(link.receive())
            settle()
            local.draw()
            for answer in answers:
                if answer.status != 200 or len(answer.all("Via")) != 1 or f":{port};" not in answer.get("Via"):
                    sys.exit(f"demo: the answer is not as it should be:\n{answer.raw.decode()}")

        title("what it costs")
        memory = proxy.resident_kib()
        print(f"resident memory of ue-proxy: {memory / 1024:.1f} MiB (promised: under 12 MiB)")
        if memory > 12 * 1024:
            sys.exit("demo: more memory than promised")
        refusals = [line for line in proxy.lines() if line[0] <= 3]
        print(f"log lines of level 3: {len(refusals)}")
        for line in refusals:
            print("  ", *line)
    finally:
        for peer in reversed(opened):
            peer.close()
        if proxy.alive():
            proxy.stop()
        proxy.remove()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if arguments.inside:
        story()
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
