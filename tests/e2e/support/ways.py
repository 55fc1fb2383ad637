"""Every way of a message through the proxy: between two local user agents and the network's proxy, over UDP and TCP.

What the proxy does to a message is written down here once, by itself: a test makes the bytes that a peer sends and the
bytes that the other must get from the same pieces, and asks a Way what differs.
"""
import contextlib
import re
import subprocess
import time

from support import sip
from support.proxy import BIN, HOME_PROFILE, ProxyCase

ALICE, BOB, NETWORK = 5071, 5072, 5060
VERSION = subprocess.run([f"{BIN}/ue-proxy", "-V"], capture_output=True, text=True).stdout.strip().replace(" ", "/")
USER_AGENT = f"User-agent: {VERSION}\r\n".encode()
RECORD_ROUTE = b"Record-Route: <sip:127.0.0.1:5060>\r\n"
METHODS = "INVITE,ACK,BYE,CANCEL,OPTIONS,REGISTER,MESSAGE,INFO,UPDATE,PRACK,REFER,NEWMETHOD,RE%47IST%45R"


def unfolded(value):
    """A header value as it is read: every fold is one blank (RFC 3261 7.3.1)."""
    return re.sub(rb"[ \t]*(?:\r\n[ \t]+)+", b" ", value)


def tagged(contact, tags):
    """A contact with the proxy's tags: before its first ">", or as it was without one."""
    return contact.replace(b">", tags + b">", 1)


class Way:
    """One direction. `sent_by` stands in the topmost Via that the sender writes, `sent_by_out` in its place afterwards.

    `via_in` are the tags that the sender's Via carries (an answer brings back the request's), `via_out` those that the
    proxy adds, `contact` the contact's.
    """

    def __init__(self, name, transport, send, receive, sent_by, sent_by_out, via_in=b"", via_out=b"", contact=b"",
                 adds=b""):
        self.name, self.transport, self.send, self.receive = f"{name} over {transport}", transport, send, receive
        self.request = "answer" not in name
        self.from_agent = not name.startswith("network")
        self.local = "bob" in name
        self.sent_by, self.sent_by_out = sent_by.encode(), sent_by_out.encode()
        self.via_in, self.via_out, self.contact, self.adds = via_in, via_out, contact, adds

    def __repr__(self):
        return self.name

    def with_added(self, lines, added=True):
        """The header lines with what the proxy adds, if it does: above the first of its name, else last. On a stream
        the Content-Length that is not there comes last of all: such a message has no body."""
        def name(line):
            return line.partition(b":")[0].strip().lower()
        lines = list(lines)
        if self.adds and added:
            place = next((at for at, line in enumerate(lines) if name(line) == name(self.adds)), len(lines))
            lines.insert(place, self.adds)
        if self.transport == "TCP" and not any(name(line) in (b"content-length", b"l") for line in lines):
            lines.append(b"Content-Length: 0\r\n")
        return lines


class Ways(ProxyCase):
    """A proxy with alice (external, key 1) and bob (internal, key 2), and the network's proxy at 127.0.0.3.

    The log holds refusals only. Unless `mode` says so no challenge is remembered: credentials are headers like others.
    """

    settings = ""
    mode = "plain"

    def setUp(self):
        self.options = {"level": 4, "settings": self.settings,
                        "profiles": {"home": HOME_PROFILE.format(mode=self.mode)}}
        super().setUp()
        self.log_read = 0
        self.alice, self.bob, self.network = self.udp(ALICE), self.udp(BOB), self.udp(NETWORK, "127.0.0.3")
        listeners = [self.tcp(ALICE), self.tcp(BOB), self.tcp(NETWORK, "127.0.0.3")]
        self.register(ALICE, sip.ua_info("home", "alice@example.net", methods=METHODS))
        self.register(BOB, sip.MODULE_INFO.format(packages="vault"), user="bob")
        self.set_route("1", "127.0.0.3:TCP:5060")
        self.alice_in, self.bob_in, self.network_in = (self.accept(listener) for listener in listeners)
        self.alice_out, self.bob_out = self.connect(), self.connect()
        self.network_out = self.connect_network()

    def connect_network(self):
        return self.connect(to=("127.0.0.2", 5060), source=("127.0.0.3", 0))

    def request_from(self, who, transport, method="MESSAGE", **options):
        """A plain request of alice or the network to the other, of alice to bob."""
        host = "127.0.0.3:5060" if who == "network" else "127.0.0.1:5071"
        options.setdefault("to", {"alice": "<sip:x@example.net>", "network": "<sip:alice@example.net>",
                                  "local": "<sip:bob@127.0.0.1>"}[who])
        return sip.request(method, options.pop("uri", "sip:x@example.net"), via=host, transport=transport,
                           frm=options.pop("frm", "<sip:y@example.net>;tag=y"), **options)

    def learn_st(self, stream, who):
        """The tag of an accepted connection, as the forwarded request shows it."""
        stream.send(self.request_from(who, "TCP"))
        seen = (self.alice_in if who == "network" else self.network_in).receive()
        return re.search("st=([0-9a-z]+)", seen.get("Via")).group(1).encode()

    def ways(self, transports=("UDP", "TCP")):
        """Every way: requests and answers, between alice and the network, and from alice to bob and back."""
        found = []
        for transport in transports:
            udp = transport == "UDP"
            alice_st = b"0" if udp else self.learn_st(self.alice_out, "alice")
            network_st = b"0" if udp else self.learn_st(self.network_out, "network")
            # Between local user agents over TCP the tag follows without a semicolon.
            local = b";scli=1;dcli=2" + (b";st=0" if udp else b"st=" + alice_st)
            mok, mtk = b";mok=1", b";mtk=1"
            clinging = b"" if udp else b"st=" + alice_st

            def to(address, peer, stream):
                return (lambda data: peer.send(data, address)) if udp else stream.send
            loop, outside = ("127.0.0.1", 5060), ("127.0.0.2", 5060)
            found += [
                Way("alice asks the network", transport, to(loop, self.alice, self.alice_out),
                    self.network if udp else self.network_in, "127.0.0.1:5071", "127.0.0.2:5060",
                    via_out=mok + b";st=" + alice_st, contact=mok, adds=USER_AGENT),
                Way("network asks alice", transport, to(outside, self.network, self.network_out),
                    self.alice if udp else self.alice_in, "127.0.0.3:5060", "127.0.0.1:5060",
                    via_out=mtk + b";st=" + network_st, contact=mtk),
                Way("network's answer to alice", transport, to(outside, self.network, self.network_in),
                    self.alice if udp else self.alice_out, "127.0.0.2:5060", "127.0.0.1:5071",
                    via_in=mok + b";st=" + alice_st, contact=mok),
                Way("alice's answer to the network", transport, to(loop, self.alice, self.alice_in),
                    self.network if udp else self.network_out, "127.0.0.1:5060", "127.0.0.3:5060",
                    via_in=mtk + b";st=" + network_st, contact=mtk, adds=USER_AGENT),
                Way("alice asks bob", transport, to(loop, self.alice, self.alice_out),
                    self.bob if udp else self.bob_in, "127.0.0.1:5071", "127.0.0.1:5060",
                    via_out=local, contact=b";scli=2;dcli=1", adds=RECORD_ROUTE),
                Way("bob's answer to alice", transport, to(loop, self.bob, self.bob_in),
                    self.alice if udp else self.alice_out, "127.0.0.1:5060", "127.0.0.1:5071",
                    via_in=local, contact=b";scli=1;dcli=2" + clinging),
            ]
        return found

    def way(self, name, transport):
        return next(way for way in self.ways((transport,)) if way.name.startswith(name))

    # --- what a test asks for ---

    @contextlib.contextmanager
    def naming(self, *what):
        """Says of a failure what it happened with. Not a subTest: bytes left over would spoil what comes next."""
        try:
            yield
        except (AssertionError, OSError) as failure:
            raise AssertionError(f"{what}: {failure!r}\n{self.new_lines()[-20:]}") from failure

    def new_lines(self):
        """The lines of level 3 and 4 since the last call, without those that say that a look-up found nothing."""
        with open(self.proxy.log_path, "rb") as file:
            file.seek(self.log_read)
            text = file.read()
        whole = text[:text.rfind(b"\n") + 1]
        self.log_read += len(whole)
        lines = [line.split(": ", 1)[1] for line in whole.decode("utf-8", "replace").splitlines() if ": " in line]
        nothing = ("Didn't find parameter with name=", "Could not find any Client entry for identifier=")
        return [line for line in lines if not line.startswith(nothing)]

    def wait_lines(self, wanted, seconds=5.0):
        """New lines until one begins with `wanted`; gives them all."""
        end = time.monotonic() + seconds
        lines = self.new_lines()
        while not any(line.startswith(wanted) for line in lines):
            if time.monotonic() > end:
                raise AssertionError(f"no line {wanted!r} in {seconds} s, but {lines}")
            time.sleep(0.002)
            lines += self.new_lines()
        return lines

    def assert_arrives(self, way, expected):
        """One datagram, or so many bytes of a stream, and exactly these."""
        got = way.receive.receive_raw(len(expected)) if way.transport == "TCP" else way.receive.receive().raw
        if got != expected:
            at = next((i for i, (a, b) in enumerate(zip(got, expected)) if a != b), min(len(got), len(expected)))
            self.fail(f"{way}: other bytes from {at} on: got {got[max(0, at - 60):at + 200]}\nnot "
                      f"{expected[max(0, at - 60):at + 200]}")

    def call(self, transport="UDP"):
        """A call from alice to the network, hung up by the network: what must always go through."""
        udp = transport == "UDP"
        call_id = sip.unique("call")
        options = {"call_id": call_id, "contact": "<sip:alice@127.0.0.1:5071>"}
        alice_send = (lambda d: self.alice.send(d)) if udp else self.alice_out.send
        alice_receive = self.alice if udp else self.alice_out
        network_receive = self.network if udp else self.network_in

        def network_send(data, stream):
            return self.network.send(data, ("127.0.0.2", 5060)) if udp else stream.send(data)
        alice_send(self.request_from("alice", transport, "INVITE", **options))
        invite = network_receive.receive()
        self.assertEqual((invite.method, invite.get("Call-ID")), ("INVITE", call_id), invite.raw)
        network_send(sip.response(invite, 200, "OK", contact="<sip:x@127.0.0.3:5060>"), self.network_in)
        answer = alice_receive.receive()
        self.assertEqual((answer.status, answer.get("Call-ID")), (200, call_id), answer.raw)
        target = re.search("<(.*)>", answer.get("Contact")).group(1)
        alice_send(self.request_from("alice", transport, "ACK", uri=target, call_id=call_id))
        self.assertEqual(network_receive.receive().method, "ACK")
        target = re.search("<(.*)>", invite.get("Contact")).group(1)
        network_send(self.request_from("network", transport, "BYE", uri=target, call_id=call_id), self.network_out)
        bye = (self.alice if udp else self.alice_in).receive()
        self.assertEqual((bye.method, bye.get("Call-ID")), ("BYE", call_id), bye.raw)
        (self.alice.send if udp else self.alice_in.send)(sip.response(bye, 200, "OK"))
        done = (self.network if udp else self.network_out).receive()
        self.assertEqual((done.status, done.get("Call-ID")), (200, call_id), done.raw)
