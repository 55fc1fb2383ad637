"""Who is outside stays outside: a stranger in the network, with the forged Via of the domain's proxy, tries every way.

After each attempt nothing has reached the registrar, no route command was taken, no message went from one local user
agent to another, and nobody but whom the network may reach has seen anything.
"""
import re
import unittest

from support import sip
from support.watcher import Watcher
from support.world import PROXY, STRANGER, TERMINAL, WorldCase

ALICE, BOB = 5071, 5072
METHODS = "INVITE,ACK,BYE,MESSAGE,NOTIFY,SUBSCRIBE,REFER,OPTIONS,REGISTER,UPDATE"
#: Functions whose lines say that a message went where the network has no business.
INSIDE = re.compile(r"handle_registrar_|handle_proxy_message|process_ua_to_ua|process_ua_to_network")
EVIL_USER = sip.ua_info("home", "evil@example.org", methods="INVITE")
EVIL_ROUTES = [sip.route_body("delete-route"), sip.route_body("update-route", "1", f"{STRANGER}:UDP:5060", "term0"),
               sip.route_body("set-route", "2", f"{STRANGER}:UDP:5060", "term0")]


class Stranger(WorldCase):
    def setUp(self):
        super().setUp()
        self.network, listener = self.network_udp(5060), self.network_tcp(5060)
        self.alice, self.bob = self.udp(ALICE), self.udp(BOB)
        listeners = self.tcp(ALICE), self.tcp(BOB)
        self.watcher = Watcher(self.udp())
        self.watcher.subscribe()
        self.assertEqual(self.watcher.answered().status, 200)
        self.watcher.notified()
        self.register(ALICE, sip.ua_info(methods=METHODS))
        self.notify = self.watcher.notified()
        self.register(BOB, sip.MODULE_INFO.format(packages="vault"), user="bob")
        self.set_world_route("TCP")
        self.alice_in, self.bob_in = (self.accept(one) for one in listeners)
        self.network_in = self.accept(listener)
        self.alice_out = self.connect()
        self.stranger, self.stranger_tcp = self.network_udp(0, STRANGER), self.network_connect(STRANGER)
        self.alice_out.send(self.from_alice("MESSAGE", "TCP"))
        self.agents_tag = re.search("st=([0-9a-z]+)", self.network_in.receive().get("Via")).group(1)
        self.log_read = 0

    @staticmethod
    def from_alice(method, transport, **options):
        options.setdefault("to", "<sip:bob@example.org>")
        return sip.request(method, options.pop("uri", "sip:bob@example.org"), via=f"127.0.0.1:{ALICE}",
                           transport=transport, frm="<sip:alice@example.net>;tag=a", **options)

    def new_log(self):
        with open(self.proxy.log_path, "rb") as file:
            file.seek(self.log_read)
            text = file.read()
        self.log_read += len(text)
        return text.decode("utf-8", "replace")

    def strike(self, transport, data, line=None):
        """Sends it, then a plain MESSAGE for alice on the same way: that is all that may come of both."""
        self.new_log()
        marker = self.network_request("MESSAGE", call_id=sip.unique("marker"), transport=transport)
        to = (TERMINAL, 5060)
        for one in (data, marker):
            self.stranger.send(one, to) if transport == "UDP" else self.stranger_tcp.send(one)
        seen = (self.alice if transport == "UDP" else self.alice_in).receive()
        self.assertEqual(seen.get("Call-ID"), sip.Message(marker).get("Call-ID"), (data, seen.raw))
        log = self.new_log()
        self.assertNotRegex(log, INSIDE, data)
        if line:
            self.assertRegex(log, line, data)
        for peer in (self.alice, self.bob, self.alice_in, self.bob_in, self.alice_out, self.network, self.network_in,
                     self.watcher.peer):
            self.assertTrue(peer.nothing(0), (data, peer))
        if sip.Message(data).method not in ("REGISTER", "SUBSCRIBE"):
            self.assertTrue((self.stranger if transport == "UDP" else self.stranger_tcp).nothing(0), data)

    def strike_both(self, method, line=None, **options):
        for transport in ("UDP", "TCP"):
            self.strike(transport, self.network_request(method, transport=transport, **options), line)

    def answer(self, via, frm="<sip:alice@example.net>;tag=a", to="<sip:bob@example.org>;tag=b", status=200, cseq="1 NOTIFY",
               call_id="1@2", headers=()):
        lines = [f"SIP/2.0 {status} Forged", f"Via: SIP/2.0/UDP {via}", f"From: {frm}", f"To: {to}",
                 f"Call-ID: {call_id}", f"CSeq: {cseq}", *(f"{name}: {value}" for name, value in headers)]
        return "\r\n".join([*lines, "Content-Length: 0"]).encode() + b"\r\n\r\n"

    def all_is_well(self):
        """Calls both ways, a phone that comes and goes, and a new watcher that is told of nobody else."""
        for transport in ("UDP", "TCP"):
            self.call(transport)
        self.register(ALICE, sip.ua_info(methods=METHODS), cseq=9)
        self.register(5074, sip.ua_info(aor="carol@example.net"), user="carol")
        added = self.watcher.notified()
        self.assertIn(b"<update-info>add</update-info>", added.body)
        self.register(5074, sip.ua_info(), user="carol", cseq=2, expires=0)
        self.assertIn(b"<update-info>delete</update-info>", self.watcher.notified().body)
        self.watcher.subscribe(expires=0)
        self.assertEqual(self.watcher.answered().status, 200)
        while not self.watcher.peer.nothing(0.1):
            self.watcher.notified()
        late = Watcher(self.udp())
        late.subscribe()
        self.assertEqual(late.answered().status, 200)
        late.notified()
        told = late.notified().body
        self.assertEqual((told.count(b"<ua-info>"), told.count(b"<profile-info>")), (1, 1), told)
        self.assertIn(b"alice@example.net", told)
        self.assertNotIn(" 503 ", self.proxy.log())

    def call(self, transport):
        """A call of the network to alice, hung up by her, and one of hers."""
        udp = transport == "UDP"
        network = self.network if udp else self.network_connect()
        alice_in, alice_out = (self.alice, self.alice) if udp else (self.alice_in, self.alice_out)
        network_in = self.network if udp else self.network_in

        def network_sends(data):
            network.send(data, (TERMINAL, 5060)) if udp else network.send(data)
        network_sends(self.network_request("INVITE", transport=transport, call_id="called",
                                           contact=f"<sip:bob@{PROXY}:5060>"))
        self.assertEqual(network.receive().status, 100)
        invite = alice_in.receive()
        self.assertRegex(invite.get("Via"), rf"^SIP/2\.0/{transport} 127\.0\.0\.1:5060;branch=\w+;mtk=1;st=\w+$")
        alice_in.send(sip.response(invite, 200, "OK", contact=f"<sip:alice@127.0.0.1:{ALICE}>"))
        self.assertEqual(network.receive().status, 200)
        network_sends(self.network_request("ACK", f"sip:{TERMINAL};mtk=1", transport=transport, call_id="called"))
        self.assertEqual(alice_in.receive().method, "ACK")
        alice_out.send(self.from_alice("BYE", transport, uri=re.search("<(.*)>", invite.get("Contact")).group(1)))
        bye = network_in.receive()
        self.assertEqual((bye.method, bye.uri), ("BYE", f"sip:bob@{PROXY}:5060;mtk=1"))
        self.assertRegex(bye.get("Via"), rf"^SIP/2\.0/{transport} {TERMINAL}:5060;")
        answer = sip.response(bye, 200, "OK")
        self.network.send(answer, (TERMINAL, 5060)) if udp else self.network_in.send(answer)
        self.assertEqual(alice_out.receive().status, 200)

    # --- the ways in ---

    def test_a_genuine_call_goes_through(self):
        self.all_is_well()

    def test_the_registrars_key_is_nobodys(self):
        for tags in (";mtk=0;profile=1", ";mok=0;profile=1", ";mok=0", ";mtk=0", ";mtk=0;mok=1;profile=1"):
            uri = "sip:127.0.0.1" + tags
            nobody = "ERROR: check why client or domain key empty"
            for to in ("<sip:registrar@example.org>", "<sip:evil@example.org>;tag=x"):
                for method in ("REGISTER", "SUBSCRIBE", "NOTIFY", "INVITE", "REFER", "MESSAGE", "OPTIONS"):
                    self.strike_both(method, nobody, uri=uri, to=to, body=EVIL_USER, contact="<sip:127.0.0.1:5099>",
                                     headers=[("Event", "local-reg-events"), ("Expires", "3600"),
                                              ("Content-Type", "application/xml")])
            for body in EVIL_ROUTES:
                self.strike_both("MESSAGE", nobody, uri=uri, to="<sip:127.0.0.1>", body=body)
        self.all_is_well()

    def test_the_registrar_answers_nobody_else(self):
        for to in ("<sip:evil@127.0.0.1>", "<sip:registrar@127.0.0.1>", "<sip:registrar@127.0.0.1>;tag=" +
                   self.watcher.to.partition("tag=")[2]):
            for method in ("REGISTER", "SUBSCRIBE"):
                for uri in ("sip:127.0.0.1", "sip:registrar@127.0.0.1;mtk=0;profile=1", f"sip:{TERMINAL}"):
                    for transport, peer in (("UDP", self.stranger), ("TCP", self.stranger_tcp)):
                        data = self.network_request(method, uri, to=to, frm="<sip:regua@127.0.0.1>;tag=w",
                                                    call_id=self.watcher.call_id, cseq=99, body=EVIL_USER,
                                                    transport=transport, headers=[("Event", "local-reg-events")])
                        if method == "SUBSCRIBE" and "registrar" not in to:
                            self.strike(transport, data, "its From or To is local")
                        else:
                            self.strike(transport, data, "refused: not on the local endpoint")
                            self.assertEqual(peer.receive().status, 403)
        self.all_is_well()

    def test_a_message_to_the_proxys_address_is_no_route_command(self):
        for transport, peer in (("UDP", self.alice), ("TCP", self.alice_in)):
            for body in EVIL_ROUTES:
                for frm in ("<sip:framework@127.0.0.1>", "<sip:127.0.0.1>", "<sip:x@example.org>"):
                    self.new_log()
                    data = self.network_request("MESSAGE", "sip:127.0.0.1", to="<sip:127.0.0.1>", frm=frm, body=body,
                                                transport=transport)
                    self.stranger.send(data, (TERMINAL, 5060)) if transport == "UDP" else self.stranger_tcp.send(data)
                    got = peer.receive()
                    self.assertEqual((got.method, got.body), ("MESSAGE", body.encode()))
                    peer.send(sip.response(got, 200, "OK"))
                    self.proxy.wait_log("ERROR: check why scli is not present")
                    self.assertNotRegex(self.new_log(), "handle_proxy_message")
        self.all_is_well()

    def test_nobody_is_the_registrar_or_local(self):
        for method in METHODS.split(","):
            self.strike_both(method, "its From is the registrar", frm="<sip:registrar@127.0.0.1>", uri="sip:alice@x")
            if method != "MESSAGE":
                for frm, to in (("<sip:bob@127.0.0.1>", "<sip:alice@example.net>"),
                                ("<sip:127.0.0.1:5060>", "<sip:alice@example.net>"),
                                ("<sip:bob@example.org>", "<sip:alice@127.0.0.1>;tag=t")):
                    # A REGISTER with such a To is refused at the door already.
                    line = None if method == "REGISTER" and "127" in to else "its From or To is local"
                    if line:
                        self.strike_both(method, line, frm=frm, to=to, uri="sip:alice@x;mtk=1",
                                         headers=[("Event", "vault")])
        for target in ("<sip:127.0.0.1;method=MESSAGE?body=x>", "<sip:bob@127.0.0.1>"):
            self.strike_both("REFER", "it refers to a local user", headers=[("Refer-To", target)])
        self.all_is_well()

    def test_no_local_dialogs_tags_and_no_keys_of_the_strangers_choice(self):
        tags = ";scli=1;dcli=2"
        for method in ("INVITE", "MESSAGE", "NOTIFY", "BYE"):
            self.strike_both(method, "a local dialog's tag in its Request-URI", uri="sip:alice@x" + tags)
            self.strike_both(method, "a local dialog's tag in its Via", via=f"{PROXY}:5060{tags};st={self.agents_tag}")
            self.strike_both(method, "a local dialog's tag in its Contact", contact=f"<sip:127.0.0.1:5060{tags}>")
            self.strike_both(method, "a local dialog's tag in its Record-Route",
                             headers=[("Record-Route", f"<sip:127.0.0.1:5060{tags}>")])
            for key in (";mok=0", ";mtk=0", ";mok=2;st=" + self.agents_tag):
                self.strike_both(method, "a client key in its Via", via=f"{PROXY}:5060{key}")
        self.all_is_well()

    def test_no_answer_of_a_stranger_is_taken_for_another(self):
        own = f"{TERMINAL}:5060;branch=z9hG4bKx"
        registrar = "<sip:registrar@127.0.0.1>;tag=x"
        tried = [(self.answer(own + tags + ";st=0"), "ERROR: Either client key/tag is empty")
                 for tags in (";mok=0", ";mtk=0", ";mok=99", ";scli=1;dcli=2")]
        tried[-1] = tried[-1][0], "a local dialog's tag in its Via"
        tried += [(self.answer(own + ";mok=1;st=0", **said), why) for said, why in (
            ({"frm": "<sip:alice@127.0.0.1>;tag=a"}, "its From or To is local"),
            ({"to": "<sip:bob@127.0.0.1>;tag=a"}, "its From or To is local"),
            ({"headers": [("Contact", "<sip:bob@127.0.0.1:5060;scli=1;dcli=2>")]}, "a local dialog's tag in its Contact"),
            ({"headers": [("Record-Route", "<sip:a;lr>,<sip:b;scli=1>")]}, "a local dialog's tag in its Record-Route"),
            ({"status": 302, "headers": [("Contact", "<sip:bob@127.0.0.1>")]}, "it refers to a local user"))]
        tried.append((self.answer(own, frm=registrar), r"3 process: response 200 from 192\.0\.2\.66:\d+ dropped"))
        for data, line in tried:
            self.strike("UDP", data, line)
            if b"registrar@127" in data:
                self.strike("TCP", data)  # its line is written once in a while
            else:
                self.strike("TCP", data.replace(b"/UDP", b"/TCP"), "dropped: only requests are looked for here")
        for st in ("0", self.agents_tag):
            self.strike("TCP", self.answer(f"{own};mok=1;st={st}"), "dropped: only requests are looked for here")
        self.all_is_well()

    def test_the_watchers_answer_is_the_watchers(self):
        self.register(5074, sip.ua_info(aor="carol@example.net"), user="carol")
        pending = self.watcher.notified(status=None)
        via, frm, to = (pending.get(name) for name in ("Via", "From", "To"))
        via = via.removeprefix("SIP/2.0/UDP ")
        same = {"cseq": pending.get("CSeq"), "call_id": pending.get("Call-ID")}
        for status in (200, 481):
            for tags in ("", ";mok=0;st=0", ";mtk=0;st=0"):
                for who in ({"frm": frm, "to": to}, {}):
                    self.stranger.send(self.answer(via + tags, status=status, **who, **same), (TERMINAL, 5060))
        # The next change waits for the one answer that counts.
        self.register(5075, sip.ua_info(aor="dave@example.net"), user="dave")
        while not self.watcher.peer.nothing(0.1):
            again = self.watcher.notified(status=None)
            self.assertEqual(again.get("CSeq"), pending.get("CSeq"))
        self.watcher.peer.send(sip.response(pending, 200, "OK"))
        while (told := self.watcher.notified(status=None)).get("CSeq") == pending.get("CSeq"):
            pass
        self.assertIn(b"dave@example.net", told.body)
        self.assertNotRegex(self.proxy.log(), "handle_registrar_response_message: .*481")

    def test_a_tag_that_is_sent_back_leads_nowhere_else(self):
        data = self.network_request("OPTIONS", via=f"{PROXY}:5060;st={self.agents_tag}", transport="TCP")
        self.stranger_tcp.send(data)
        asked = self.alice_in.receive()
        self.alice_in.send(sip.response(asked, 200, "OK"))
        self.proxy.wait_log(f" sc is NULL for stag = {self.agents_tag}")
        self.assertTrue(self.alice_out.nothing(0))
        self.all_is_well()

    def test_no_load_from_the_network_keeps_a_phone_from_registering(self):
        stranger = [self.network_request(method, "sip:127.0.0.1" + tags, to="<sip:registrar@example.org>", frm=frm,
                                         body=EVIL_USER, headers=[("Event", "local-reg-events")])
                    for method in ("REGISTER", "SUBSCRIBE") for tags in (";mtk=0;profile=1", ";mok=0;profile=1")
                    for frm in ("<sip:a@example.org>", "<sip:registrar@127.0.0.1>")]
        for number in range(1500):
            data = stranger[number % len(stranger)].replace(b";branch=z9hG4bK", b";branch=z9hG4bK%d" % number, 1)
            self.stranger.send(data, (TERMINAL, 5060))
            if number % 50 == 0:  # waits for the proxy: the test is of places, not of speed
                self.strike("UDP", data)
        for port in range(5080, 5090):
            self.register(port, sip.ua_info(aor=f"{port}@example.net"), user=str(port))
            self.watcher.notified()
            self.register(port, sip.ua_info(), user=str(port), cseq=2, expires=0)
            self.watcher.notified()
        self.all_is_well()


if __name__ == "__main__":
    unittest.main(verbosity=1)
