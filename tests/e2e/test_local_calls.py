"""Local user agents reach one another through the proxy."""
import re
import unittest

from support import sip
from support.proxy import ProxyCase


def inner(contact):
    return re.search("<(.*)>", contact).group(1)


class OverUdp(ProxyCase):
    def setUp(self):
        super().setUp()
        self.alice, self.bob = self.udp(5071), self.udp(5072)
        self.register(5071, sip.ua_info("home", "alice@example.net"))
        self.register(5072, sip.ua_info("work", "bob@example.net"), user="bob")

    def request(self, method, uri, frm, to, peer, **options):
        return sip.request(method, uri, via=peer.via, frm=f"<sip:{frm}@127.0.0.1>;tag={frm}",
                           to=f"<sip:{to}@127.0.0.1>", contact=f"<sip:{frm}@{peer.via}>", **options)

    def test_a_call_with_requests_from_both_sides(self):
        sent = sip.Message(self.request("INVITE", "sip:bob@127.0.0.1", "alice", "bob", self.alice, call_id="l1",
                                        branch="z9hG4bKl"))
        self.alice.send(sent.raw)
        invite = self.bob.receive()
        self.assertEqual(invite.get("Via"), "SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bKl;scli=1;dcli=2;st=0")
        self.assertEqual(invite.get("Record-Route"), "<sip:127.0.0.1:5060>")
        self.assertEqual(invite.get("Contact"), "<sip:alice@127.0.0.1:5071;scli=2;dcli=1>")
        self.bob.send(sip.response(invite, 200, "OK", contact="<sip:bob@127.0.0.1:5072>"))
        answer = self.alice.receive()
        self.assertEqual(answer.all("Via"), sent.all("Via"))
        self.assertEqual(answer.get("Contact"), "<sip:bob@127.0.0.1:5072;scli=1;dcli=2>")
        to_bob, to_alice = inner(answer.get("Contact")), inner(invite.get("Contact"))

        self.alice.send(self.request("ACK", to_bob, "alice", "bob", self.alice, call_id="l1",
                                     headers=[("Route", "<sip:127.0.0.1:5060>"), ("Route", "<sip:127.0.0.9>")]))
        seen = self.bob.receive()
        self.assertEqual((seen.method, seen.all("Route")), ("ACK", []))
        self.assertTrue(seen.get("Via").endswith(";scli=1;dcli=2;st=0"))
        self.bob.send(self.request("INFO", to_alice, "bob", "alice", self.bob, call_id="l1"))
        seen = self.alice.receive()
        self.assertTrue(seen.get("Via").endswith(";scli=2;dcli=1;st=0"))
        self.alice.send(sip.response(seen, 200, "OK"))
        self.assertEqual(self.bob.receive().status, 200)
        self.alice.send(self.request("BYE", to_bob, "alice", "bob", self.alice, call_id="l1"))
        bye = self.bob.receive()
        self.bob.send(sip.response(bye, 200, "OK"))
        self.assertEqual(self.alice.receive().status, 200)

    def test_a_dialled_port_or_parameter_does_not_hinder(self):
        self.alice.send(sip.request("MESSAGE", "sip:bob@127.0.0.1", via=self.alice.via, frm="<sip:alice@127.0.0.1>",
                                    to="<sip:bob@127.0.0.1:5060;transport=udp>", body="hi"))
        self.assertEqual(self.bob.receive().body, b"hi")

    def test_an_unknown_user_and_an_unknown_sender_are_dropped(self):
        self.alice.send(self.request("MESSAGE", "sip:eve@127.0.0.1", "alice", "eve", self.alice))
        self.proxy.wait_log("ERROR: Can't find any destination client based on from_address (sip:eve@127.0.0.1)")
        stranger = self.udp()
        stranger.send(self.request("MESSAGE", "sip:bob@127.0.0.1", "eve", "bob", stranger))
        self.proxy.wait_log(f"ERROR: Can't find any client based on port ({stranger.port})")

    def test_an_answer_without_scli_is_dropped(self):
        self.alice.send(self.request("MESSAGE", "sip:bob@127.0.0.1", "alice", "bob", self.alice))
        seen = self.bob.receive()
        self.bob.send(re.sub(rb";scli=\d+;dcli=\d+", b"", sip.response(seen, 200, "OK")))
        self.proxy.wait_log("ERROR: check why scli is not present")

    def test_forged_keys_do_no_harm(self):
        for keys in ("scli=9;dcli=9", "scli=1;dcli=", "scli=1;dcli=99", "scli=1"):
            self.alice.send(self.request("INFO", f"sip:x@127.0.0.1;{keys}", "alice", "bob", self.alice))
        self.alice.send(self.request("MESSAGE", "sip:bob@127.0.0.1", "alice", "bob", self.alice, body="still"))
        self.assertEqual(self.bob.receive().body, b"still")

    def test_subscribe_goes_to_the_module_that_serves_the_package(self):
        module = self.udp(5073)
        self.register(5073, sip.MODULE_INFO.format(packages="voicemail"), user="module")
        self.alice.send(sip.request("SUBSCRIBE", "sip:127.0.0.1", via=self.alice.via, frm="<sip:alice@127.0.0.1>",
                                    to="<sip:127.0.0.1>", headers=[("Event", "voicemail")]))
        self.assertEqual(module.receive().method, "SUBSCRIBE")

    def test_a_request_for_the_registrar_itself_is_answered_once_and_never_circles(self):
        self.alice.send(sip.request("SUBSCRIBE", "sip:127.0.0.1", via=self.alice.via, frm="<sip:alice@127.0.0.1>",
                                    to="<sip:127.0.0.1>", contact="<sip:alice@127.0.0.1:5071>",
                                    headers=[("Event", "local-reg-events"), ("Expires", 60)]))
        answer = self.alice.receive()
        self.assertEqual(answer.status, 400)  # somebody else than the one watcher
        self.assertEqual(self.proxy.log().count("Calling handle_registrar_subscribe_message(ssc)"), 1)


class OverTcp(ProxyCase):
    def setUp(self):
        super().setUp()
        listeners = self.tcp(5071), self.tcp(5072)
        self.register(5071, sip.ua_info("home", "alice@example.net"))
        self.register(5072, sip.ua_info("work", "bob@example.net"), user="bob")
        self.alice_in, self.bob_in = self.accept(listeners[0]), self.accept(listeners[1])
        self.alice, self.bob = self.connect(), self.connect()

    def request(self, method, uri, frm, to, port, **options):
        return sip.request(method, uri, via=f"127.0.0.1:{port}", frm=f"<sip:{frm}@127.0.0.1>;tag={frm}",
                           to=f"<sip:{to}@127.0.0.1>", contact=f"<sip:{frm}@127.0.0.1:{port}>", transport="TCP", **options)

    def test_a_call_as_far_as_the_tags_carry(self):
        sent = sip.Message(self.request("INVITE", "sip:bob@127.0.0.1", "alice", "bob", 5071, call_id="t1"))
        self.alice.send(sent.raw)
        invite = self.bob_in.receive()
        self.assertRegex(invite.get("Via"), r";scli=1;dcli=2st=[0-9a-z]{32}$")
        self.bob_in.send(sip.response(invite, 200, "OK", contact="<sip:bob@127.0.0.1:5072>"))
        answer = self.alice.receive()
        self.assertEqual(answer.all("Via"), sent.all("Via"))
        self.assertRegex(answer.get("Contact"), r"^<sip:bob@127\.0\.0\.1:5072;scli=1;dcli=2st=[0-9a-z]{32}>$")
        # The called side's requests arrive,
        self.bob.send(self.request("INFO", inner(invite.get("Contact")), "bob", "alice", 5072, call_id="t1"))
        self.assertEqual(self.alice_in.receive().method, "INFO")
        # the calling side's name no client, because the stream tag is part of the key: dropped with one line.
        before = len(self.proxy.lines(3)) + len(self.proxy.lines(4))
        self.alice.send(self.request("BYE", inner(answer.get("Contact")), "alice", "bob", 5071, call_id="t1"))
        sip.wait_until(lambda: len(self.proxy.lines(3)) + len(self.proxy.lines(4)) > before, 3, "one line")
        self.assertTrue(self.bob_in.nothing(0.1))

    def test_messages_both_ways(self):
        self.alice.send(self.request("MESSAGE", "sip:bob@127.0.0.1", "alice", "bob", 5071, body="to bob"))
        seen = self.bob_in.receive()
        self.bob_in.send(sip.response(seen, 200, "OK"))
        self.assertEqual(self.alice.receive().status, 200)
        self.bob.send(self.request("MESSAGE", "sip:alice@127.0.0.1", "bob", "alice", 5072, body="to alice"))
        self.assertEqual(self.alice_in.receive().body, b"to alice")

    def test_a_request_for_the_registrar_itself_is_answered_once_and_never_circles(self):
        self.alice.send(self.request("SUBSCRIBE", "sip:127.0.0.1", "alice", "x", 5071,
                                     headers=[("Event", "local-reg-events"), ("Expires", 60)])
                        .replace(b"<sip:x@127.0.0.1>", b"<sip:127.0.0.1>"))
        self.assertEqual(self.alice.receive().status, 400)
        self.assertEqual(self.proxy.log().count("Calling handle_registrar_subscribe_message(ssc)"), 1)


if __name__ == "__main__":
    unittest.main(verbosity=1)
