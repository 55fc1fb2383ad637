#!/usr/bin/env python3
"""Whole dialogs of each kind through the proxy at a steady rate, each message counted and looked at.

Kinds: out (a user agent calls the network), in (the network calls a user agent), local (one user agent calls another; the
called one hangs up), each over UDP and over TCP. Nothing may be lost, doubled or misrouted.
"""
import argparse
import os
import re
import selectors
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)


class Link:
    """One end of the path: where a party's messages come in and go out, without blocking."""

    def __init__(self, selector, party, sock, stream, target=None):
        self.selector, self.party, self.socket, self.stream, self.target = selector, party, sock, stream, target
        self.buffer = b""
        sock.setblocking(False)
        selector.register(sock, selectors.EVENT_READ, self)

    def send(self, data):
        if self.stream:
            self.socket.setblocking(True)
            self.socket.sendall(data)
            self.socket.setblocking(False)
        else:
            self.socket.sendto(data, self.target)

    def messages(self):
        from support.sip import Message
        if not self.stream:
            while True:
                try:
                    yield Message(self.socket.recv(70000))
                except BlockingIOError:
                    return
        try:
            self.buffer += self.socket.recv(1 << 20)
        except BlockingIOError:
            return
        while True:
            head, found, rest = self.buffer.partition(b"\r\n\r\n")
            length = re.search(rb"(?im)^content-length: *(\d+)", head)
            size = int(length.group(1)) if length else 0
            if not found or len(rest) < size:
                return
            yield Message(head + found + rest[:size])
            self.buffer = rest[size:]


class Soak:
    def __init__(self, kind, transport, count, rate):
        self.kind, self.transport, self.count, self.rate = kind, transport, count, rate
        self.selector = selectors.DefaultSelector()
        self.done = 0
        self.faults = []
        self.stage = {}

    def fault(self, text):
        self.faults.append(text)
        if len(self.faults) > 5:
            raise SystemExit("\n".join(self.faults))

    def set_up(self, case):
        """Registers the user agents, sets the route, and names the four links of the kind."""
        from support import sip
        stream = self.transport == "TCP"
        to_proxy, to_network_side = ("127.0.0.1", 5060), ("127.0.0.2", 5060)
        if stream:
            listeners = [sip.Tcp(5071), sip.Tcp(5072), sip.Tcp(5060, "127.0.0.3")]
        else:
            udp = [sip.Udp(5071), sip.Udp(5072), sip.Udp(5060, "127.0.0.3")]
        case("register", 5071, "home", "alice")
        case("register", 5072, "work", "bob")
        case("route", "1", f"127.0.0.3:{self.transport}:5060")

        def link(party, sock, target=None):
            return Link(self.selector, party, sock, stream, target)
        if stream:
            alice_in, bob_in, net_in = (link(who, listener.accept().socket) for who, listener in
                                        zip(("alice", "bob", "net"), listeners))
            self.links = {"alice_in": alice_in, "bob_in": bob_in, "net_in": net_in,
                          "alice_out": link("alice", sip.connect(to_proxy).socket),
                          "bob_out": link("bob", sip.connect(to_proxy).socket),
                          "net_out": link("net", sip.connect(to_network_side, ("127.0.0.3", 0)).socket)}
        else:
            alice, bob, net = (link(who, peer.socket, target) for who, peer, target in
                               zip(("alice", "bob", "net"), udp, (to_proxy, to_proxy, to_network_side)))
            self.links = {"alice_in": alice, "bob_in": bob, "net_in": net, "alice_out": alice, "bob_out": bob,
                          "net_out": net}

    # --- What the two parties do. `caller` and `called` are parties of the kind. -----------------------------------

    @property
    def parties(self):
        return {"out": ("alice", "net"), "in": ("net", "alice"), "local": ("alice", "bob")}[self.kind]

    def address(self, party):
        return {"alice": "127.0.0.1:5071", "bob": "127.0.0.1:5072", "net": "127.0.0.3:5060"}[party]

    def uri(self, party):
        host = "127.0.0.1" if self.kind == "local" else "example.net"
        return f"sip:{party}@{host}"

    def request(self, method, uri, sender, receiver, call_id, cseq, tag=""):
        from support import sip
        return sip.request(method, uri, via=self.address(sender), transport=self.transport,
                           frm=f"<{self.uri(sender)}>;tag={sender}", to=f"<{self.uri(receiver)}>{tag}", call_id=call_id,
                           cseq=cseq, contact=f"<sip:{sender}@{self.address(sender)}>")

    def begin(self, number):
        caller, called = self.parties
        call_id = f"soak-{self.kind}-{number}"
        target = self.uri(called) if self.kind != "in" else "sip:alice@127.0.0.2:5060"
        self.stage[call_id] = ["invited", None]
        self.links[f"{caller}_out"].send(self.request("INVITE", target, caller, called, call_id, 1))

    def receive(self, link, message):
        from support import sip
        caller, called = self.parties
        call_id = message.get("Call-ID") or ""
        state = self.stage.get(call_id)
        if state is None:
            return self.fault(f"{link.party} got a stray {message.start} of {call_id}")
        contact = re.search("<(.*)>", message.get("Contact") or "<>").group(1)
        step = (link.party, message.method or message.status, state[0])
        if step == (called, "INVITE", "invited"):
            state[:] = ["ringing", contact]
            contact = f"<sip:{called}@{self.address(called)}>"
            link.send(sip.response(message, 180, "Ringing", contact=contact))
            link.send(sip.response(message, 200, "OK", contact=contact))
        elif step[:2] == (caller, 100) or step[:2] == (caller, 180):
            pass
        elif step == (caller, 200, "ringing"):
            if not message.get("Via").startswith(f"SIP/2.0/{self.transport} {self.address(caller)};"):
                self.fault(f"Via not restored: {message.get('Via')}")
            # Over TCP the caller of a local dialog cannot reach the called side again: only the called side goes on.
            if self.kind == "local":
                state[0] = "closing"
                self.links[f"{called}_out"].send(self.request("BYE", state[1], called, caller, call_id, 1, ";tag=x"))
            else:
                state[0] = "answered"
                out = self.links[f"{caller}_out"]
                out.send(self.request("ACK", contact, caller, called, call_id, 1, ";tag=peer"))
                out.send(self.request("BYE", contact, caller, called, call_id, 2, ";tag=peer"))
        elif step == (called, "ACK", "answered"):
            state[0] = "closing"
        elif link.party == called and message.method == "BYE" and state[0] == "closing":
            link.send(sip.response(message, 200, "OK"))
        elif link.party == caller and message.method == "BYE" and self.kind == "local" and state[0] == "closing":
            link.send(sip.response(message, 200, "OK"))
        elif message.status == 200 and state[0] == "closing" and "BYE" in message.get("CSeq"):
            state[0] = "done"
            self.done += 1
        else:
            self.fault(f"unexpected at {link.party} in state {state[0]}: {message.start}")

    def run(self):
        started = time.monotonic()
        begun = 0
        last = started
        while self.done < self.count:
            now = time.monotonic()
            while begun < self.count and begun < (now - started) * self.rate:
                self.begin(begun)
                begun += 1
            for key, _ in self.selector.select(0.005):
                for message in key.data.messages():
                    last = now
                    self.receive(key.data, message)
            if now - last > 10:
                stuck = {k: v[0] for k, v in self.stage.items() if v[0] != "done"}
                raise SystemExit(f"{self.kind} over {self.transport}: {len(stuck)} dialogs stuck, e.g. "
                                 f"{dict(list(stuck.items())[:5])}\n" + "\n".join(self.faults))
        time.sleep(0.2)
        for key, _ in self.selector.select(0):
            for message in key.data.messages():
                self.fault(f"left over at {key.data.party}: {message.start}")
        if self.faults:
            raise SystemExit("\n".join(self.faults))
        return time.monotonic() - started


def inside(arguments):
    import subprocess as sub

    from support.proxy import BIN, UeProxy
    for transport in ("UDP", "TCP"):
        for kind in ("out", "in", "local"):
            proxy = UeProxy(level=4)
            soak = Soak(kind, transport, arguments.dialogs, arguments.rate)

            def case(what, *words):
                command = {"register": lambda port, profile, user: [
                    "register", "--port", str(port), "--user", user, "--profile-name", profile, "--aor",
                    f"{user}@example.net", "--methods", "INVITE,BYE,ACK"],
                    "route": lambda profile, address: ["route", "set", "--profile", profile, "--proxy", address,
                                                       "--device", "127.0.0.2"]}[what](*words)
                sub.run([os.path.join(BIN, "ue-proxyctl"), *command], check=True, capture_output=True)
            try:
                soak.set_up(case)
                before = proxy.resident_kib()
                seconds = soak.run()
                print(f"{kind:5} {transport}: {soak.done} dialogs in {seconds:.1f} s, none lost, none misrouted; "
                      f"resident {before} -> {proxy.resident_kib()} KiB", flush=True)
            except BaseException:
                print(proxy.log()[-3000:])
                raise
            finally:
                for link in set(soak.links.values()) if hasattr(soak, "links") else ():
                    link.socket.close()
                if proxy.alive():
                    proxy.stop()
                proxy.remove()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--rate", type=float, default=100, help="dialogs begun per second")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("dialogs", nargs="?", type=int, default=2000)
    arguments = parser.parse_args()
    if arguments.inside:
        inside(arguments)
        return
    import run
    environment = dict(os.environ, UE_PROXY_BIN=os.path.join(os.path.abspath(arguments.build), "bin"),
                       PYTHONUNBUFFERED="1")
    command = [*run.namespace_prefix(), sys.executable, os.path.abspath(__file__), "--inside", "--build", arguments.build,
               "--rate", str(arguments.rate), str(arguments.dialogs)]
    sys.exit(subprocess.run(command, env=environment).returncode)


if __name__ == "__main__":
    main()
