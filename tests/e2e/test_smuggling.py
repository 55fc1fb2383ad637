"""Headers that the proxy removes, rewrites or goes by, in every form that some take for them and others do not.

Either the proxy reads a form as everybody else must (RFC 3261 7.3), and treats it as the header, or it refuses the
whole message. Nothing in between: no forged header gets past, and nothing else is changed or lost.
"""
import itertools
import re
import unittest

from support import sip
from support.ways import ALICE, METHODS, USER_AGENT, Ways, tagged

COMPACT = {b"Via": b"v", b"Contact": b"m", b"From": b"f", b"To": b"t", b"Call-ID": b"i", b"Content-Type": b"c",
           b"Content-Length": b"l"}

READ = {
    "plain": lambda name, value: name + b": " + value,
    "lower case": lambda name, value: name.lower() + b": " + value,
    "upper case": lambda name, value: name.upper() + b":" + value,
    "odd case": lambda name, value: name.swapcase() + b": " + value,
    "compact": lambda name, value: COMPACT.get(name, name) + b":" + value,
    "blank before the colon": lambda name, value: name + b" : " + value,
    "tabs before the colon": lambda name, value: name + b"\t\t:\t" + value,
    "folded before the value": lambda name, value: name + b":\r\n " + value,
    "folded twice": lambda name, value: name + b" :  \r\n\t\r\n  " + value,
    "folded behind the value": lambda name, value: name + b": " + value + b"\r\n ",
    "blanks behind the value": lambda name, value: name + b": " + value + b" \t ",
}
REFUSED = {
    "bare CR in the name": lambda name, value: name[:2] + b"\r" + name[2:] + b": " + value,
    "bare CR before the colon": lambda name, value: name + b"\r: " + value,
    "bare CR before the value": lambda name, value: name + b":\r" + value,
    "bare CR behind the value": lambda name, value: name + b": " + value + b"\r",
    "bare CR ends the line before": lambda name, value: b"X: y\r" + name + b": " + value,
    "bare LF in the name": lambda name, value: name[:2] + b"\n" + name[2:] + b": " + value,
    "bare LF before the value": lambda name, value: name + b":\n" + value,
    "bare LF ends the line before": lambda name, value: b"X: y\n" + name + b": " + value,
    "bare LF ends a fold": lambda name, value: name + b":\n " + value,
    "two bare LFs before": lambda name, value: b"X: y\n\n" + name + b": " + value,
    "NUL in the name": lambda name, value: name[:2] + b"\0" + name[2:] + b": " + value,
    "NUL before the colon": lambda name, value: name + b"\0: " + value,
    "NUL before the value": lambda name, value: name + b": \0" + value,
    "NUL behind the value": lambda name, value: name + b": " + value + b"\0",
    "NUL before the name": lambda name, value: b"X: y\0\r\n" + name + b": " + value,
    "fold before the colon": lambda name, value: name + b"\r\n : " + value,
    "fold in the name": lambda name, value: name[:2] + b"\r\n " + name[2:] + b": " + value,
    "blank in the name": lambda name, value: name[:2] + b" " + name[2:] + b": " + value,
    "vertical tab before the colon": lambda name, value: name + b"\x0b: " + value,
    "no-break space before the colon": lambda name, value: name + b"\xa0: " + value,
    "no colon": lambda name, value: name + b" " + value,
    "quoted name": lambda name, value: b'"' + name + b'": ' + value,
}


class Smuggling(Ways):
    def setUp(self):
        super().setUp()
        self.all_ways = self.ways()

    def named(self, *beginnings):
        return [way for way in self.all_ways if way.name.startswith(beginnings)]

    def lines(self, way, method, via=None, frm=b"sip:y@example.org", to=None):
        """The usual header lines, as sent and as they arrive; the topmost Via first, Content-Length last."""
        to = to or (b"sip:bob@127.0.0.1" if way.local else b"sip:alice@example.net")
        begin = b"SIP/2.0/" + way.transport.encode() + b" "
        branch = b";branch=z9hG4bK" + sip.unique().encode()
        lines = [b"Max-Forwards: 70", b"From: <" + frm + b">;tag=y", b"To: <" + to + b">",
                 b"Call-ID: " + sip.unique("c").encode(), b"CSeq: 1 " + method]
        return ([(via or READ["plain"](b"Via", begin + way.sent_by + branch + way.via_in),
                  b"Via: " + begin + way.sent_by_out + branch + way.via_out)]
                + [(line, line) for line in lines] + [(b"Content-Length: 0", b"Content-Length: 0")])

    def put(self, way, lines, method=b"MESSAGE", uri=b"sip:x@example.net", added=True):
        """Sends the lines' first halves and expects their second ones; a half may be None."""
        start = method + b" " + uri + b" SIP/2.0\r\n" if way.request else b"SIP/2.0 200 OK\r\n"
        arrives = [line + b"\r\n" for _, line in lines if line is not None]
        way.send(start + b"".join(line + b"\r\n" for line, _ in lines if line is not None) + b"\r\n")
        self.assert_arrives(way, start + b"".join(way.with_added(arrives, added)) + b"\r\n")

    def dropped(self, way, lines, method=b"MESSAGE", uri=b"sip:x@example.net"):
        """Sends the lines, which must lead nowhere: what arrives next is what is sent next."""
        start = method + b" " + uri + b" SIP/2.0\r\n" if way.request else b"SIP/2.0 200 OK\r\n"
        data = start + b"".join(line + b"\r\n" for line, _ in lines if line is not None) + b"\r\n"
        self.new_lines()
        if way.transport == "UDP":
            way.send(data)
        elif way.request:  # the connection may have to go
            stream = self.connect() if way.from_agent else self.connect_network()
            stream.send(data)
        else:
            way = next(w for w in self.all_ways if w.name == way.name.replace("TCP", "UDP"))
            way.send(data.replace(b"/TCP", b"/UDP"))
        self.wait_lines("")
        self.put(way, self.lines(way, b"MESSAGE"))

    # --- Zel-Profile-ID: chooses the domain of a REGISTER or SUBSCRIBE, and no peer ever sees it ---

    def test_no_profile_id_gets_past_in_any_form(self):
        for way in self.named("alice asks the network", "alice's answer"):
            for (one, first), (two, second) in itertools.product(READ.items(), READ.items()):
                with self.naming(way, (one, two)):
                    lines = self.lines(way, b"SUBSCRIBE")
                    if way.request:
                        via, arrives = lines[0]
                        lines[0] = via, arrives.replace(b";mok=", b";profile=1;mok=")
                    lines.insert(2, (first(b"Zel-Profile-ID", b"1"), None))
                    lines.insert(5, (second(b"Zel-Profile-ID", b"7"), None))
                    self.put(way, lines, b"SUBSCRIBE")

    def test_a_profile_id_that_is_no_single_one_leads_nowhere(self):
        for way in self.named("alice asks the network", "alice's answer"):
            for value in (b"1, 2", b"1;mok=2", b"01", b"\"1\"", b"1 2", b"", b"1%0d%0a"):
                with self.naming(way, value):
                    lines = self.lines(way, b"REGISTER")
                    lines.insert(2, (b"Zel-Profile-ID: " + value, None))
                    self.dropped(way, lines, b"REGISTER")

    def test_refused_forms_of_what_the_proxy_owns(self):
        for way in self.all_ways:
            for name, value in ((b"Zel-Profile-ID", b"1"), (b"Via", b"SIP/2.0/UDP 192.0.2.9;branch=z9hG4bKevil"),
                                (b"Contact", b"<sip:evil@192.0.2.9>"), (b"Route", b"<sip:192.0.2.9;lr>"),
                                (b"Content-Length", b"0"), (b"Authorization", b"Digest evil=1")):
                if way.transport == "TCP" and name != b"Zel-Profile-ID":
                    continue  # each costs a connection; what reads the head is the same
                for label, form in REFUSED.items():
                    with self.naming(way, name, label):
                        lines = self.lines(way, b"MESSAGE")
                        lines.insert(3, (form(name, value), None))
                        self.dropped(way, lines)

    def test_what_only_looks_like_a_header_is_carried(self):
        inside = [b"X: y\r\n Zel-Profile-ID: 1", b"X: y\r\n\tVia: SIP/2.0/UDP 192.0.2.9", b"X-Zel-Profile-ID: 1",
                  b"Zel-Profile-ID-: 1", b"Vi: a", b"Via1: b", b"Contac: c", b"mm: d", b"X: \"\\\"Route: <sip:e>\"",
                  b"Zel-Profile: 1", b"X: Zel-Profile-ID: 1", b"Zel%2DProfile-ID: 1"]
        for way in self.all_ways:
            with self.naming(way):
                lines = self.lines(way, b"SUBSCRIBE")
                lines[3:3] = [(line, line) for line in inside]
                self.put(way, lines, b"MESSAGE" if way.local else b"SUBSCRIBE" if way.from_agent else b"MESSAGE")

    # --- Via: names the sender, and brings answers home ---

    def test_the_topmost_via_is_rewritten_in_any_form_and_no_other(self):
        for way, form in itertools.product(self.all_ways, READ.values()):
            begin = b"SIP/2.0/" + way.transport.encode() + b" "
            lines = self.lines(way, b"MESSAGE")
            value = begin + way.sent_by + b";branch=z9hG4bK1" + way.via_in
            out = begin + way.sent_by_out + b";branch=z9hG4bK1" + way.via_out
            lines[0] = form(b"Via", value), form(b"Via", out)
            lines[1:1] = [(other(b"Via", begin + b"127.0.0.1:5072;branch=z9hG4bK2;mok=2;mtk=2;st=0;scli=2;dcli=1"),) * 2
                          for other in READ.values()]
            self.put(way, lines)

    def test_the_network_cannot_hide_behind_a_second_via(self):
        for way, form in itertools.product(self.named("network asks"), READ.values()):
            stranger = form(b"Via", b"SIP/2.0/UDP 192.0.2.9:5060;branch=z9hG4bK1")
            for value in (None, b"SIP/2.0/UDP 192.0.2.9:5060, SIP/2.0/UDP " + way.sent_by):
                lines = self.lines(way, b"MESSAGE")
                lines[:0] = [(stranger if value is None else form(b"Via", value), None)]
                self.new_lines()
                way.send(b"MESSAGE sip:x SIP/2.0\r\n" + b"".join(line + b"\r\n" for line, _ in lines) + b"\r\n")
                self.wait_lines("ERROR ? : Request coming from ip:port not in the domain table")
        for transport in ("UDP", "TCP"):
            self.call(transport)

    def test_tags_in_a_senders_own_via_cost_it_its_own_answer(self):
        for way in self.named("alice asks the network"):
            begin = b"SIP/2.0/" + way.transport.encode() + b" "
            lines = self.lines(way, b"MESSAGE")
            tags = b";branch=z9hG4bK1;mok=99;mtk=99;st=0"
            lines[0] = b"Via: " + begin + way.sent_by + tags, b"Via: " + begin + way.sent_by_out + tags + way.via_out
            self.put(way, lines)
            back = next(w for w in self.named("network's") if w.transport == way.transport)
            self.new_lines()
            back.send(b"SIP/2.0 200 OK\r\n" + b"".join(line + b"\r\n" for _, line in lines) + b"\r\n")
            self.wait_lines("ERROR: Either client")
            self.call(way.transport)

    def test_no_request_of_the_network_brings_a_clients_key_in_its_via(self):
        for way in self.named("network asks"):
            for tags in (b";mok=99;mtk=99;st=0", b";mok=1", b";mtk=2"):
                with self.naming(way, tags):
                    lines = self.lines(way, b"MESSAGE")
                    lines[0] = lines[0][0] + tags, None
                    self.dropped(way, lines)

    # --- Contact: where the dialog's later requests go ---

    def test_the_topmost_contact_is_rewritten_in_any_form_and_no_other(self):
        for way, form in itertools.product(self.all_ways, READ.values()):
            contact = b"\"A\" <sip:alice@127.0.0.1:5071;x=y>;q=1"
            out = contact
            if way.name.startswith("alice asks the network"):
                out = out.replace(b"alice@127.0.0.1:5071", way.sent_by_out)
            out = tagged(out, way.contact)
            # The network names no client there; what else it says is its own affair.
            other = b"<sip:evil@192.0.2.9;mok=7>" if way.from_agent else b"<sip:evil@192.0.2.9;key=7>"
            for tail in (b"", b" , " + other, b",\r\n\t" + other):
                lines = self.lines(way, b"INFO")
                lines.insert(2, (form(b"Contact", contact + tail), form(b"Contact", out + tail)))
                lines.insert(4, (form(b"Contact", other),) * 2)
                self.put(way, lines, b"INFO")

    # --- tags in the Request-URI ---

    def test_only_the_tags_as_they_were_written_count(self):
        for way in self.named("alice asks the network", "network asks"):
            for tag in (b";MOK=2", b";Mtk=2", b";mok%3D2", b";m%6Fk=2", b";mok", b";mok;=2", b";mok:2"):
                with self.naming(way, tag):
                    self.put(way, self.lines(way, b"MESSAGE"), uri=b"sip:x@example.net" + tag)
            if way.from_agent:  # the tag of a local dialog says nothing about one with the network, where none is
                self.put(way, self.lines(way, b"MESSAGE"), uri=b"sip:x@example.net;scli=2")
            refused = () if way.from_agent else (b";scli=2", b";scli=1;dcli=2", b";xscli=")
            for tag in (b";mok=1>", b";mok=", b";mtk=1,2", b";mok=%31", b";mok=1%20", b";mtk=\"1\"", b";mok=99", *refused):
                with self.naming(way, tag):
                    self.dropped(way, self.lines(way, b"MESSAGE"), uri=b"sip:x@example.net" + tag)

    # --- Route: goes from the requests of a local dialog ---

    def test_no_route_of_a_local_dialog_gets_past(self):
        for way in self.named("alice asks bob"):
            for one, two in itertools.product(READ.values(), READ.values()):
                lines = self.lines(way, b"INFO")
                lines.insert(2, (one(b"Route", b"<sip:192.0.2.9;lr>"), None))
                lines.insert(4, (two(b"Route", b"<sip:127.0.0.1;lr>,\r\n <sip:192.0.2.9>"), None))
                lines.insert(6, (b"Routes: <sip:192.0.2.9>",) * 2)
                lines.insert(6, (b"Record-Route: <sip:192.0.2.9>",) * 2)
                self.put(way, lines, b"INFO", b"sip:x;scli=1;dcli=2", added=False)

    # --- From and To: say whether a message is local, and what is the registrar's ---

    def test_the_topmost_to_decides_in_any_form(self):
        for way, form in itertools.product(self.named("alice asks bob"), READ.values()):
            for value in (b"<sip:bob@127.0.0.1>", b"sip:bob@127.0.0.1",
                          b"\"<sip:x@example.net>\" <sip:bob@127.0.0.1>;tag=1"):
                lines = self.lines(way, b"MESSAGE")
                lines[3] = (form(b"To", value),) * 2
                lines.insert(5, (b"To: <sip:x@example.net>",) * 2)
                self.put(way, lines)

    def test_the_registrar_reads_any_form_and_answers_with_its_own_headers(self):
        names = ("Via", "From", "To", "Call-ID", "CSeq", "Contact", "Expires", "Content-Type", "Content-Length")
        peers = {"UDP": self.udp(), "TCP": self.connect()}
        cseq = 0
        for (transport, peer), (label, form), name in itertools.product(peers.items(), READ.items(), names):
            cseq += 1
            here = f"{peer.ip}:{peer.port}" if transport == "UDP" else f"{peer.local[0]}:{peer.local[1]}"
            text = sip.register(ALICE, sip.ua_info(methods=METHODS), via=here, cseq=cseq + 1, transport=transport)
            line, value = re.search(rf"(?m)^{name}: (.*)\r\n".encode(), text).group(0, 1)
            text = text.replace(line, form(name.encode(), value) + b"\r\nZel-Profile-ID: 7\r\n")
            with self.naming(transport, label, name):
                peer.send(text)
                answer = peer.receive()
                self.assertEqual((answer.status, answer.all("Zel-Profile-ID")), (200, ["1"]), answer.raw)
                self.assertEqual(answer.get("Contact"), f"<sip:127.0.0.1:{ALICE}>")

    def test_nothing_from_the_network_reaches_the_registrar(self):
        body = sip.ua_info("work", "evil@example.net").encode()
        for transport in ("UDP", "TCP"):
            for label, form in READ.items():
                for value in (b"<sip:evil@127.0.0.1>", b"sip:127.0.0.1", b"\"sip:x@y\" <SIP:registrar@127.0.0.1:5060>"):
                    with self.naming(transport, label, value):
                        peer = self.udp(ip="127.0.0.3") if transport == "UDP" else self.connect_network()
                        here = f"{peer.ip}:{peer.port}" if transport == "UDP" else f"{peer.local[0]}:{peer.local[1]}"
                        data = sip.register(5099, body, user="evil", via=here, transport=transport)
                        data = data.replace(b"To: <sip:evil@127.0.0.1>", form(b"To", value))
                        peer.send(data, ("127.0.0.2", 5060)) if transport == "UDP" else peer.send(data)
                        self.assertEqual(peer.receive().status, 403)
                        peer.close()

    # --- what the proxy adds ---

    def test_ours_stands_above_what_others_wrote_of_the_same_name(self):
        for way, form in itertools.product([w for w in self.all_ways if w.adds], READ.values()):
            name = way.adds.partition(b":")[0]
            lines = self.lines(way, b"MESSAGE")
            lines.insert(3, (form(name, b"<sip:192.0.2.9>"),) * 2)
            lines.insert(5, (form(name, b"<sip:192.0.2.8>"),) * 2)
            self.put(way, lines)

    # --- Content-Length: where the message ends ---

    def test_a_length_in_any_form_is_the_length(self):
        inner = b"MESSAGE sip:x@example.net SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:5071\r\nX: evil\r\n\r\n"
        for way, form in itertools.product(self.all_ways, READ.values()):
            for times in (1, 2):
                lines = self.lines(way, b"MESSAGE")[:-1]
                length = form(b"Content-Length", b"%04d" % len(inner))
                lines[2:2] = [(length, length)] * times
                start = b"MESSAGE sip:x@example.net SIP/2.0\r\n" if way.request else b"SIP/2.0 200 OK\r\n"
                way.send(start + b"".join(line + b"\r\n" for line, _ in lines) + b"\r\n" + inner)
                arrives = way.with_added([line + b"\r\n" for _, line in lines])
                self.assert_arrives(way, start + b"".join(arrives) + b"\r\n" + inner)

    def test_lengths_that_can_be_read_in_two_ways(self):
        for way in self.named("alice asks the network", "network asks"):
            for value in (b"0, 0", b"0,5", b"+0", b"-0", b"0x0", b"0 0", b"0;x", b"", b"0.0", b"\"0\"", b"9" * 20):
                with self.naming(way, value):
                    self.dropped(way, self.lines(way, b"MESSAGE")[:-1] + [(b"Content-Length: " + value, None)])
            for one, two in ((b"Content-Length: 0", b"l: 1"), (b"l:1", b"CONTENT-LENGTH : 0"),
                             (b"l:\r\n 0", b"L: 00001")):
                with self.naming(way, (one, two)):
                    self.dropped(way, [(one, None), *self.lines(way, b"MESSAGE")[:-1], (two, None)])


class Credentials(Ways):
    """What the proxy answers itself: the user agent's own answers make way, however they are written."""

    mode = "ietf-shared"

    def ask(self, *lines):
        text = self.request_from("alice", "UDP", "INFO").replace(b"Call-ID:", b"".join(lines) + b"Call-ID:")
        self.alice.send(text)
        return text, self.network.receive()

    def challenge(self, line, status=401):
        _, seen = self.ask()
        answer = sip.response(seen, status, "Prove it").replace(b"Call-ID:", line + b"\r\nCall-ID:")
        self.network.send(answer, ("127.0.0.2", 5060))
        self.assertIn(line, self.alice.receive().raw)

    def test_forged_answers_make_way_in_any_form(self):
        self.challenge(b'WWW-Authenticate: Digest realm="r", nonce="n1"')
        forged = b'Digest username="evil", realm="r", nonce="n1", uri="sip:x", response="evil"'
        for (one, first), (two, second) in itertools.product(READ.items(), READ.items()):
            for name in (b"Authorization", b"Proxy-Authorization"):
                with self.naming((one, two), name):
                    sent, seen = self.ask(first(b"Authorization", forged) + b"\r\n", second(name, forged) + b"\r\n")
                    # Nobody whom the proxy answers has asked for the other kind: that one is the client's own affair.
                    kept = second(name, forged) if name == b"Proxy-Authorization" else b""
                    self.assertIn(kept, seen.raw)
                    made = seen.raw.replace(kept, b"")
                    self.assertNotIn(b"evil", made)
                    self.assertEqual(len(re.findall(rb"(?im)^[a-z-]*authorization[ \t]*:", made)), 1, seen.raw)
        for label, form in READ.items():
            with self.naming(label):
                sent, seen = self.ask(form(b"Authorization", forged) + b"\r\n")
                self.assertNotIn(b'response="evil"', seen.raw)

    def test_a_challenge_is_known_in_any_form_and_its_answer_is_one_line(self):
        for number, (label, form) in enumerate(READ.items()):
            for status, name in ((401, b"WWW-Authenticate"), (407, b"Proxy-Authenticate")):
                with self.naming(label, status):
                    nonce = b"n%d-%d" % (number, status)
                    self.challenge(form(name, b'Digest realm="r\\"; x, y",\r\n\tnonce="' + nonce + b'"'), status)
                    plain, seen = self.ask()
                    added = [line for line in seen.raw.split(b"\r\n") if b"uthorization: Digest" in line]
                    self.assertEqual(sum(nonce in line for line in added), 1, seen.raw)
                    untouched = [line for line in plain.split(b"\r\n") if not line.startswith(b"Via")]
                    self.assertEqual([line for line in seen.raw.split(b"\r\n") if not line.startswith(b"Via")
                                      and line not in added and line + b"\r\n" != USER_AGENT], untouched)


if __name__ == "__main__":
    unittest.main(verbosity=1)
