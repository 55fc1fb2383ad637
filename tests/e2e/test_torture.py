"""The torture messages of RFC 4475 and RFC 5118 through the running process, as tests/torture/expected.py says."""
import copy
import os
import re
import sys
import unittest

from support import sip
from support.ways import RECORD_ROUTE, Ways, tagged, unfolded

FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "torture")
sys.path.insert(0, FOLDER)
from expected import CLOSED, EXPECTED, NO_CLIENT, WAITS, WHOLE  # noqa: E402

PING = b"\r\n\r\n"


class Torture:
    """One message with what is expected of it."""

    def __init__(self, name):
        self.name, self.case = name, EXPECTED[name]
        with open(os.path.join(FOLDER, name + ".dat"), "rb") as file:
            self.data = file.read()
        self.request = not self.data.startswith(b"SIP/2.0")
        self.tried = self.data.startswith(b"INVITE ") and not self.case.untried
        self.register = self.data.startswith(b"REGISTER ")
        self.via, self.sent_by, self.contact, self.out = (
            text.encode() for text in (self.case.via, self.case.sent_by, self.case.contact, self.case.out))

    def sent(self, way):
        """As the neighbour at the beginning of the way would have sent it."""
        return self.data.replace(self.via, self.via.replace(self.sent_by, way.sent_by, 1) + way.via_in, 1)

    def forwarded(self, way):
        via = unfolded(self.via).replace(self.sent_by, way.sent_by_out, 1)
        if way.name.startswith("network asks") and b"branch" not in via:
            via += b";branch=z9hG4bK-nobranch"
        if way.name.startswith("alice asks"):
            contact = self.out.replace(b"{tags}", b"" if self.register else way.contact)
        else:
            contact = tagged(unfolded(self.contact), way.contact)
        head, _, body = self.data.partition(b"\r\n\r\n")
        head = head.replace(self.via, via + way.via_out, 1).replace(self.contact, contact, 1)
        lines = way.with_added(head.splitlines(keepends=True)[:-1] + [head.splitlines()[-1] + b"\r\n"])
        if self.case.body:
            body = self.case.body(body, way.transport)
        return b"".join(lines) + b"\r\n" + body

    def line_for_a_stranger(self, way):
        """What is logged when it comes as the RFC has it."""
        if not self.request:
            return f"ERROR: Either client{'/domain' if way.from_agent else ''} key/tag is empty"
        if not way.from_agent:
            return self.case.from_network or "ERROR ? : Request coming from ip:port not in the domain table"
        port = re.search(r"(?<!:):(\d+)$", self.case.sent_by) if not self.case.sent_by.endswith("]") else None
        port = port.group(1) if port else "0"
        # The proxy's own port belongs to the registrar, which is a client without a domain.
        if port == "5060":
            return "ERROR: Either client or domain key is empty"
        return f"ERROR: Can't find any client for port={port}"


ALL = [Torture(name) for name in EXPECTED]


class TortureCase(Ways):
    def ways_of(self, message, ways):
        names = ("alice asks the network", "network asks") if message.request else ("network's", "alice's")
        return [way for way in ways if way.name.startswith(names)]

    def on_a_stream_of_its_own(self, way):
        """The same way on a new connection: nothing else gets through behind some messages."""
        stream = self.connect() if way.from_agent else self.connect_network()
        tag = self.learn_st(stream, "alice" if way.from_agent else "network")
        way = copy.copy(way)
        way.send, way.stream = stream.send, stream
        way.via_out = re.sub(b"st=.*", b"st=" + tag, way.via_out)
        return way

    def receive_trying(self, message, way):
        """The network learns at once that an INVITE has arrived."""
        if message.tried and way.name.startswith("network asks"):
            peer = self.network if way.transport == "UDP" else getattr(way, "stream", self.network_out)
            self.assertEqual(peer.receive().start, "SIP/2.0 100 trying")

    def check_stream(self, message, way):
        """What becomes of the connection behind the message."""
        if message.case.stream == CLOSED:
            self.assertTrue(way.stream.closed(), f"{message.name} on the {way}: not closed")
        elif message.case.stream == WAITS:
            self.assertTrue(way.stream.nothing(0), f"{message.name} on the {way}: not waiting")


class OneByOne(TortureCase):
    def each(self, check):
        ways = self.ways()
        for message in ALL:
            for way in self.ways_of(message, ways):
                if way.transport == "TCP" and message.case.stream != WHOLE:
                    way = self.on_a_stream_of_its_own(way)
                self.new_lines()
                with self.naming(message.name, way):
                    check(message, way)
                if hasattr(way, "stream"):
                    way.stream.close()

    def check_dropped(self, message, way, line):
        waits = way.transport == "TCP" and message.case.stream == WAITS
        if way.transport == "TCP" and message.case.refused and message.case.stream == CLOSED:
            line = rf"connection of \S+ to \S+ ended: {re.escape(line)}"
        elif message.case.refused:
            line = rf"message of {len(message.data)} bytes does not parse: {re.escape(line)}"
        else:
            line = re.escape(line)
        if way.transport == "TCP":
            self.check_stream(message, way)
        self.call(way.transport)  # what arrives next is the call's
        lines = self.new_lines()
        if waits and message.case.refused:
            self.assertEqual(lines, [])
        else:
            self.assertTrue(any(re.fullmatch(line, found) for found in lines), (line, lines))

    def test_from_strangers_they_are_dropped_with_a_line(self):
        def check(message, way):
            way.send(message.data)
            self.check_dropped(message, way, message.case.refused or message.line_for_a_stranger(way))
        self.each(check)

    def test_from_neighbours_they_are_forwarded_byte_for_byte(self):
        def check(message, way):
            if message.case.refused:
                return
            way.send(message.sent(way))
            if message.case.from_network and not way.from_agent:
                self.check_dropped(message, way, message.case.from_network)
                return
            self.assert_arrives(way, message.forwarded(way))
            self.receive_trying(message, way)
            self.call(way.transport)
            lines = list(message.case.lines)
            if message.case.untried and way.name.startswith("network asks"):
                lines.append(message.case.untried)
            if message.name.endswith("dblreq") and way.transport == "TCP":
                self.assertIn(message.line_for_a_stranger(way), self.new_lines())  # the second request
            else:
                self.assertEqual(self.new_lines(), lines)
        self.each(check)

    def test_to_the_registrar_they_are_refused(self):
        for message in ALL:
            if not message.register:
                continue
            for transport in ("UDP", "TCP"):
                self.new_lines()
                peer = self.connect() if transport == "TCP" else self.udp()
                here = f"{peer.local[0]}:{peer.local[1]}" if transport == "TCP" else peer.via
                text = message.data.replace(message.sent_by, here.encode(), 1)
                text = re.sub(rb"(?m)^To: .*\r\n", b"To: <sip:odd@127.0.0.1>\r\n", text, count=1)
                with self.naming(message.name, transport):
                    peer.send(text)
                    answer = peer.receive()
                    self.assertEqual(answer.status, 400)
                    self.assertIn(answer.get("Call-ID").encode(), message.data)
                    self.assertIn(message.case.registrar, self.new_lines())
                    self.call(transport)
                peer.close()


class Streams(TortureCase):
    settings = "<max-connections>256</max-connections>"
    batch = 48

    def forwardable(self, way):
        return [m for m in ALL if not m.case.refused and m.request and m.case.stream == WHOLE
                and not (m.case.from_network and not way.from_agent)]

    def test_several_in_one_segment_with_keep_alives_between(self):
        for way in self.ways(("TCP",)):
            if way.local or not way.request:
                continue
            stream = self.alice_out if way.from_agent else self.network_out
            # What does not parse, and the second of two requests, stand between and cost the others nothing.
            messages = self.forwardable(way) + [m for m in ALL if m.case.refused and m.case.stream == WHOLE]
            between = [PING, b"\r\n", b"", PING * 2, PING + b"\r\n"]
            for first in range(0, len(messages), 7):
                sent, expected, pings, calls = b"", b"", 0, 0
                for at, message in enumerate(messages[first:first + 7] + self.forwardable(way)[:1]):
                    gap = between[(first + at) % len(between)]
                    pings += gap.count(PING)
                    sent += gap
                    if message.case.refused:
                        sent += message.data
                        continue
                    sent += message.sent(way)
                    expected += message.forwarded(way)
                    calls += message.tried and not way.from_agent
                with self.naming(first, way):
                    way.send(sent)
                    self.assert_arrives(way, expected)
                    self.assertEqual(self.answers(stream, pings, calls), b"\r\n" * pings)
            self.call("TCP")

    def answers(self, stream, pings, calls):
        """What came back but the provisional answers."""
        def rest():
            return re.sub(rb"SIP/2\.0 100 trying\r\n.*?\r\n\r\n", b"", stream.buffer, flags=re.S)
        while stream.buffer.count(b"SIP/2.0 100 trying") < calls or len(rest()) < 2 * pings:
            stream.buffer = stream.receive_raw(len(stream.buffer) + 1) + stream.buffer
        found, stream.buffer = rest(), b""
        return found

    def settle(self):
        """The proxy has read what was sent to it so far."""
        self.alice.send(self.request_from("alice", "UDP"))
        self.network.receive()

    def standing(self, way, count):
        return [self.on_a_stream_of_its_own(way) for _ in range(count)]

    def cut_batch(self, message, batch, cuts):
        """One cut on each connection: first all first parts, then all second ones."""
        forwarded = not message.case.refused
        texts = [message.sent(way) if forwarded else message.data for way in batch]
        for way, text, cut in zip(batch, texts, cuts):
            way.send(text[:cut])
        self.settle()
        for way, text, cut in zip(batch, texts, cuts):
            way.send(text[cut:])
        if forwarded:
            wanted = sorted(message.forwarded(way) for way, _ in zip(batch, cuts))
            # The connections are read in any order, each message is whole and none is there twice.
            stream = b"".join(wanted)
            got = batch[0].receive.receive_raw(len(stream))
            self.assertEqual(sorted(got[at:at + len(wanted[0])] for at in range(0, len(got), len(wanted[0]))), wanted)
        elif message.case.stream == WHOLE:
            self.settle()
            found = [line for line in self.new_lines() if line.endswith("does not parse: " + message.case.refused)]
            self.assertEqual(len(found), len(cuts))

    def test_cut_anywhere_it_is_the_same_message(self):
        ask, answer = (self.way(name, "TCP") for name in ("alice asks the network", "network's answer"))
        standing = self.standing(ask, self.batch)
        for message in ALL:
            cuts = range(1, len(message.data))
            # Answers come on the one connection that the proxy has opened.
            size = self.batch if message.request or message.case.refused else 1
            for part in (cuts[first:first + size] for first in range(0, len(cuts), size)):
                with self.naming(message.name, part):
                    if size == 1:
                        self.cut_batch(message, [answer], part)
                    elif message.case.stream == WHOLE:
                        self.cut_batch(message, standing, part)
                    else:
                        fresh = self.standing(ask, len(part))
                        self.cut_batch(message, fresh, part)
                        for way in fresh:
                            self.check_stream(message, way)
                            self.open.remove(way.stream)
                            way.stream.close()
            self.new_lines()
        self.call("TCP")


if __name__ == "__main__":
    unittest.main(verbosity=1)
