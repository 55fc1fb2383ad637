"""A terminal in service, and the question after every fault: is all of it as before?

Two user agents, each with the network proxy of its profile, one pair over TCP and one over UDP, and a watcher. The measure is
short by default; UE_PROXY_FAULTS=full (`./dev faults`) asks for the whole of it.
"""
import ctypes
import os
import re
import select
import socket
import struct
import threading
import time

from support import sip
from support.proxy import SANITIZED, ProxyCase
from support.watcher import Watcher

FULL = os.environ.get("UE_PROXY_FAULTS") == "full"
LOCAL, NETWORK = (sip.LOOP, 5060), ("127.0.0.2", 5060)
#: What the allocator may keep of a peak, KiB; a leak of one connection or message in a thousand would be more.
MEMORY_ALLOWANCE = 4096

SO_ATTACH_FILTER, SO_DETACH_FILTER = 26, 27
#: A packet filter of one instruction: take nothing.
NOTHING = ctypes.create_string_buffer(struct.pack("HBBI", 0x06, 0, 0, 0))


def lose(peer):
    """What is sent to this socket is lost from now on, its acknowledgements with it: its host is as good as gone."""
    peer.socket.setsockopt(socket.SOL_SOCKET, SO_ATTACH_FILTER, struct.pack("HL", 1, ctypes.addressof(NOTHING)))


def find_again(peer):
    peer.socket.setsockopt(socket.SOL_SOCKET, SO_DETACH_FILTER, struct.pack("i", 0))


def measure(short, full):
    return full if FULL else short


def note(text):
    """A line of the report that run.py shows for a test that passed, too."""
    print("note: " + text, flush=True)


class Party:
    """A SIP party at one address, over UDP and TCP. What reaches it is taken whatever way it comes."""

    def __init__(self, name, ip, port, proxy):
        self.name, self.ip, self.port, self.proxy = name, ip, port, proxy
        self.address = f"{ip}:{port}"
        self.uri = f"sip:{name}@example.net"
        self.udp = sip.Udp(port, ip)
        self.listener = sip.Tcp(port, ip)
        self.streams = []
        self.out = None

    def send(self, transport, data):
        if transport == "UDP":
            return self.udp.send(data, self.proxy)
        if self.out not in self.streams or self._ended(self.out):
            self.out = sip.connect(self.proxy, (self.ip, 0))
            self.streams.append(self.out)
        self.out.send(data)

    def receive(self, call_id, what, timeout=5.0):
        """The next `what` (a method or a status) of that call and the way back; anything else is passed over."""
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            for message, reply in self.arrived(end - time.monotonic()):
                if message.get("Call-ID") == call_id and what in (message.method, message.status):
                    return message, reply
        raise AssertionError(f"{self.name} got no {what} of {call_id} in {timeout} s")

    def drain(self):
        """Passes over what has come."""
        while any(True for _ in self.arrived(0.05)):
            pass

    def arrived(self, timeout):
        """What comes within the time: one look."""
        sockets = [self.udp.socket, self.listener.socket, *(stream.socket for stream in self.streams)]
        ready = select.select(sockets, [], [], max(0, timeout))[0]
        if self.listener.socket in ready:
            self.streams.append(self.listener.accept())
        if self.udp.socket in ready:
            message, source = self.udp.receive(), self.udp.source
            yield message, lambda data: self.udp.send(data, source)
        for stream in [stream for stream in self.streams if stream.socket in ready]:
            try:
                while True:
                    yield stream.receive(0), stream.send
            except TimeoutError:
                pass
            except ConnectionError:
                stream.close()
                self.streams.remove(stream)

    def _ended(self, stream):
        """True when the other side has ended it; it is then gone."""
        try:
            ended = stream.socket.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT) == b""
        except (BlockingIOError, TimeoutError):
            return False
        except ConnectionError:
            ended = True
        if ended:
            stream.close()
            self.streams.remove(stream)
        return ended

    def lose_connections(self, how="close"):
        for stream in self.streams:
            getattr(stream, how)()
        self.streams = []

    def close(self):
        self.lose_connections()
        self.udp.close()
        self.listener.close()


class Witness(threading.Thread):
    """The watcher: subscribes, answers every NOTIFY, keeps what it was told."""

    def __init__(self):
        super().__init__(daemon=True)
        self.peer = sip.Udp()
        watcher = Watcher(self.peer)
        watcher.subscribe()
        status = watcher.answered().status
        assert status == 200, status
        self.told, self.answers = [], []
        self.arrived = []  # when
        self.silent = False
        self.running = True
        self.start()

    def run(self):
        while self.running:
            try:
                notify = self.peer.receive(0.1)
            except (TimeoutError, ConnectionError):
                continue
            if notify.status:
                self.answers.append(notify.status)
                continue
            if self.silent:
                self.arrived.append(time.monotonic())
                continue
            self.told.append(notify.body)
            self.peer.send(sip.response(notify, 200, "OK"))

    def renew(self):
        """Subscribes anew, which is refused while the subscription lives."""
        self.answers.clear()
        Watcher(self.peer).subscribe()
        sip.wait_until(lambda: self.answers and self.answers[0] in (200, 400), 5, "an answer to SUBSCRIBE")

    def wait(self, aor, what):
        sip.wait_until(lambda: any(aor in body and what in body for body in list(self.told)), 5,
                       f"NOTIFY with {what} for {aor}")

    def close(self):
        self.running = False
        self.join()
        self.peer.close()


class FaultCase(ProxyCase):
    # Short timers, so that what a transaction or a connect holds is given back within the test.
    options = {"level": 4, "settings": "<t1-ms>50</t1-ms><t2-ms>400</t2-ms><t4-ms>500</t4-ms>"
                                       "<connect-timeout-ms>1500</connect-timeout-ms><idle-timeout-s>3600</idle-timeout-s>"}

    def setUp(self):
        super().setUp()
        self.alice = self.keep(Party("alice", sip.LOOP, 5071, LOCAL))
        self.bob = self.keep(Party("bob", sip.LOOP, 5072, LOCAL))
        self.home = self.keep(Party("home", "127.0.0.3", 5060, NETWORK))
        self.work = self.keep(Party("work", "127.0.0.4", 5060, NETWORK))
        self.register_all()

    def register_all(self, number=1):
        """Registrations, routes, the watcher and first calls; what the process then holds is what it must come back to."""
        self.pid = self.proxy.pid
        self.witness = self.keep(Witness())
        for agent, profile in ((self.alice, "home"), (self.bob, "work")):
            self.register(agent.port, sip.ua_info(profile, f"{agent.name}@example.net", methods="INVITE,ACK,BYE,MESSAGE"),
                          user=agent.name, cseq=number)
        self.set_route("1", "127.0.0.3:TCP:5060")
        self.set_route("2", "127.0.0.4:UDP:5060")
        self.check_calls()
        self.check_tables()
        self.descriptors, self.memory = self.proxy.descriptors(), self.proxy.private_kib()

    def restart(self, end=None):
        """Another process in the place of the first, which is ended in order or by `end`."""
        (end or self.proxy.stop)()
        self.proxy.start()
        self.witness.close()
        self.register_all(2)

    def call(self, transport, caller, called):
        """A call from the first message to the last, within the caller's patience."""
        call_id = sip.unique("call")
        target = f"sip:{called.name}@127.0.0.2:5060" if called.proxy == LOCAL else called.uri

        def ask(method, cseq, tag=";tag=peer"):
            caller.send(transport, sip.request(
                method, target, via=caller.address, transport=transport, frm=f"<{caller.uri}>;tag=caller",
                to=f"<{called.uri}>{tag}", call_id=call_id, cseq=cseq, contact=f"<sip:{caller.name}@{caller.address}>"))

        def answered(method):
            request, reply = called.receive(call_id, method)
            reply(sip.response(request, 200, "OK", contact=f"<sip:{called.name}@{called.address}>"))
            return caller.receive(call_id, 200)[0]

        ask("INVITE", 1, "")
        target = re.search("<(.*)>", answered("INVITE").get("Contact")).group(1)
        ask("ACK", 1)
        called.receive(call_id, "ACK")
        ask("BYE", 2)
        answered("BYE")

    def message(self, body=b"", *, sender=None, receiver=None, transport="TCP", headers=(), call_id=None):
        """A MESSAGE of alice to the network, or as said."""
        sender, receiver = sender or self.alice, receiver or self.home
        return sip.request("MESSAGE", receiver.uri, via=sender.address, frm=f"<{sender.uri}>;tag=m", to=f"<{receiver.uri}>",
                           transport=transport, headers=headers, body=body, call_id=call_id)

    def home_stream(self):
        """The connection that the proxy has made to the network."""
        self.call("TCP", self.alice, self.home)
        self.assertEqual(len([s for s in self.home.streams if s is not self.home.out]), 1)
        return next(s for s in self.home.streams if s is not self.home.out)

    def check_calls(self):
        for transport, agent, network in (("TCP", self.alice, self.home), ("UDP", self.bob, self.work)):
            self.call(transport, agent, network)
            self.call(transport, network, agent)

    def check_tables(self):
        """A new user agent is found and told of, and so is its end."""
        aor = f"guest-{sip.unique()}@example.net"
        for cseq, expires, what in ((1, 3600, b"<update-info>add<"), (2, 0, b"<update-info>delete<")):
            self.register(5079, sip.ua_info("home", aor), user="guest", call_id=aor, cseq=cseq, expires=expires)
            self.witness.wait(aor.encode(), what)

    def assert_healthy(self, allowance=MEMORY_ALLOWANCE):
        """The process is the same, the tables are right, calls go through, and nothing of the fault is kept."""
        self.assertTrue(self.proxy.alive(), f"the proxy ended:\n{self.proxy.log()[-3000:]}")
        self.assertEqual(self.proxy.pid, self.pid)
        self.check_calls()
        self.check_tables()
        sip.wait_until(lambda: self.proxy.descriptors() <= self.descriptors, 5,
                       f"descriptors: {self.descriptors} before, now {self.proxy.descriptor_names()}")
        if not SANITIZED:  # a sanitizer keeps what is freed; its leak check speaks at the end
            sip.wait_until(lambda: self.proxy.private_kib() <= self.memory + allowance, 5,
                           f"memory: {self.memory} KiB before, now {self.proxy.private_kib()}")
