"""Requests of a registered user agent to its network proxy, and the answers, over TCP and over UDP."""
import re
import unittest

from support import sip
from support.proxy import ProxyCase

SDP = "v=0\r\no=alice 1 1 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 4000 RTP/AVP 0\r\n"


class OverTcp(ProxyCase):
    def setUp(self):
        super().setUp()
        self.ua_listener = self.tcp(5071)
        self.answer = self.register(5071)
        self.network_listener = self.tcp(5060, "127.0.0.3")
        self.set_route("1", "127.0.0.3:TCP:5060")
        self.network = self.accept(self.network_listener)
        self.ua = self.connect()

    def invite(self, **options):
        options.setdefault("via", "127.0.0.1:5071")
        return sip.request("INVITE", "sip:bob@example.net", frm="<sip:alice@example.net>", to="<sip:bob@example.net>",
                           contact="<sip:alice@127.0.0.1:5071;transport=tcp>", transport="TCP",
                           headers=[("Content-Type", "application/sdp"), ("X-Odd  ", "  kept as it is  ")], body=SDP,
                           **options)

    def test_fresh_invite_is_tagged_and_its_answer_restored(self):
        sent = sip.Message(self.invite(branch="z9hG4bKabc"))
        self.ua.send(sent.raw)
        seen = self.network.receive()
        self.assertRegex(seen.get("Via"), r"^SIP/2\.0/TCP 127\.0\.0\.2:5060;branch=z9hG4bKabc;mok=1;st=[0-9a-z]{32}$")
        self.assertEqual(seen.get("Contact"), "<sip:127.0.0.2:5060;transport=tcp;mok=1>")
        self.assertRegex(seen.get("User-agent"), r"^ue-proxy/\d")
        self.assertEqual(seen.body, SDP.encode())
        # What the proxy does not change stays byte for byte, in its place.
        untouched = [line for line in sent.lines if not re.match("(Via|Contact):", line)]
        self.assertEqual([line for line in seen.lines if not re.match("(Via|Contact|User-agent):", line)], untouched)

        self.network.send(sip.response(seen, 180, "Ringing", contact="<sip:bob@127.0.0.3:5060>"))
        ringing = self.ua.receive()
        self.assertEqual(ringing.all("Via"), sent.all("Via"))
        self.assertEqual(ringing.get("Contact"), "<sip:bob@127.0.0.3:5060;mok=1>")
        self.network.send(sip.response(seen, 200, "OK", contact="<sip:bob@127.0.0.3:5060>", body=SDP))
        answer = self.ua.receive()
        self.assertEqual((answer.status, answer.all("Via"), answer.body), (200, sent.all("Via"), SDP.encode()))

    def test_subsequent_request_goes_by_the_key_in_the_request_uri(self):
        self.ua.send(sip.request("ACK", "sip:bob@127.0.0.3:5060;mok=1", via="127.0.0.1:9999", transport="TCP",
                                 frm="<sip:alice@example.net>", to="<sip:bob@example.net>;tag=x"))
        seen = self.network.receive()
        self.assertRegex(seen.get("Via"), r";mok=1;st=\w+$")

    def test_register_with_a_profile_id_carries_no_tag_in_its_contact(self):
        self.ua.send(sip.request("REGISTER", "sip:example.net", via="127.0.0.1:5071", transport="TCP",
                                 frm="<sip:alice@example.net>", to="<sip:alice@example.net>",
                                 contact="<sip:alice@127.0.0.1:5071>", headers=[("Zel-Profile-ID", "1")]))
        seen = self.network.receive()
        self.assertIsNone(seen.get("Zel-Profile-ID"))
        self.assertRegex(seen.get("Via"), r";profile=1;mok=1;st=\w+$")
        self.assertEqual(seen.get("Contact"), "<sip:127.0.0.2:5060>")

    def test_message_keeps_a_profile_id(self):
        self.ua.send(sip.request("MESSAGE", "sip:bob@example.net", via="127.0.0.1:5071", transport="TCP",
                                 frm="<sip:alice@example.net>", to="<sip:bob@example.net>",
                                 headers=[("Zel-Profile-ID", "99")], body="hello"))
        seen = self.network.receive()
        self.assertEqual(seen.get("Zel-Profile-ID"), "99")
        self.assertNotIn("profile=", seen.get("Via"))

    def test_several_messages_in_one_segment_and_one_in_pieces(self):
        first = self.invite(cseq=1, branch="z9hG4bK1")
        second = self.invite(cseq=2, branch="z9hG4bK2")
        self.ua.send(first + b"\r\n\r\n" + second)
        self.assertEqual(self.ua.receive_raw(2), b"\r\n")
        self.assertIn("z9hG4bK1;", self.network.receive().get("Via"))
        self.assertIn("z9hG4bK2;", self.network.receive().get("Via"))
        third = self.invite(cseq=3, branch="z9hG4bK3")
        for at in range(0, len(third), 7):
            self.ua.send(third[at:at + 7])
        self.assertIn("z9hG4bK3;", self.network.receive().get("Via"))

    def test_unknown_port_is_dropped_without_an_answer(self):
        self.ua.send(self.invite(via="127.0.0.1:4999"))
        self.proxy.wait_log("ERROR: Can't find any client for port=4999")
        self.proxy.wait_log("ERROR: check why domain_key empty")
        self.assertTrue(self.ua.nothing(0.1))
        self.assertTrue(self.network.nothing(0.1))

    def answered_with(self, change):
        self.ua.send(self.invite())
        seen = self.network.receive()
        self.network.send(change(sip.response(seen, 200, "OK")))

    def test_answers_that_lost_their_tags_are_dropped(self):
        self.answered_with(lambda data: re.sub(rb";st=\w+", b"", data))
        self.proxy.wait_log("ERROR: Either client key/tag is empty")
        self.answered_with(lambda data: re.sub(rb";mok=\w+", b"", data))
        self.proxy.wait_log("ERROR: Either client key/tag is empty", count=2)
        self.answered_with(lambda data: re.sub(rb";mok=\w+", b";mok=77", data))
        self.answered_with(lambda data: re.sub(rb";st=\w+", b";st=gone", data))
        self.proxy.wait_log("sc is NULL for stag = gone")
        self.answered_with(lambda data: re.sub(rb"(?m)^Via:.*\r\n", b"", data))
        self.proxy.wait_log("createSIPHeaderObject failed for viah")
        self.assertTrue(self.ua.nothing(0.1))

    def test_answer_to_a_connection_that_has_gone_is_dropped(self):
        self.ua.send(self.invite())
        seen = self.network.receive()
        self.ua.close()
        self.proxy.wait_log("deleted entry")
        self.network.send(sip.response(seen, 200, "OK"))
        self.proxy.wait_log("sc is NULL for stag = ")

    def test_a_request_without_route_is_dropped(self):
        self.command(sip.route_body("delete-route", "1", ""))
        self.ua.send(self.invite())
        self.proxy.wait_log("ERROR: Either client or domain key is empty")

    def test_malformed_messages_leave_everything_else_in_place(self):
        bad = self.connect()
        bad.send(b"INVITE sip:bob@example.net SIP/2.0\r\nVia: rubbish\r\nFrom: <sip:a@example.net>\r\n"
                 b"To: <sip:b@example.net>\r\nContent-Length: 0\r\n\r\n")
        self.proxy.wait_log("createSIPHeaderObject failed for viah")
        bad.send(b"INVITE sip:bob@example.net SIP/2.0\r\nContent-Length: 5\r\nContent-Length: 6\r\n\r\n")
        self.assertTrue(bad.closed())
        self.ua.send(self.invite())
        self.assertEqual(self.network.receive().method, "INVITE")


class OverUdp(ProxyCase):
    def setUp(self):
        super().setUp()
        self.ua = self.udp(5071)
        self.register(5071)
        self.network = self.udp(5060, "127.0.0.3")
        self.set_route("1", "127.0.0.3:UDP:5060")

    def request(self, method="INVITE", **options):
        return sip.request(method, "sip:bob@example.net", via=self.ua.via, frm="<sip:alice@example.net>",
                           to="<sip:bob@example.net>", contact="<sip:alice@127.0.0.1:5071>", **options)

    def test_fresh_invite_and_its_answer(self):
        sent = sip.Message(self.request(branch="z9hG4bKudp"))
        self.ua.send(sent.raw)
        seen = self.network.receive()
        self.assertEqual(self.network.source, ("127.0.0.2", 5060))
        self.assertEqual(seen.get("Via"), "SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bKudp;mok=1;st=0")
        self.assertEqual(seen.get("Contact"), "<sip:127.0.0.2:5060;mok=1>")
        self.network.send(sip.response(seen, 200, "OK", contact="<sip:bob@127.0.0.3>"), ("127.0.0.2", 5060))
        answer = self.ua.receive()
        self.assertEqual(self.ua.source, ("127.0.0.1", 5060))
        self.assertEqual(answer.all("Via"), sent.all("Via"))
        self.assertEqual(answer.get("Contact"), "<sip:bob@127.0.0.3;mok=1>")

    def test_message_and_register(self):
        self.ua.send(self.request("MESSAGE", body="hi"))
        self.assertEqual(self.network.receive().body, b"hi")
        self.ua.send(self.request("REGISTER", headers=[("Zel-Profile-ID", "1")]))
        seen = self.network.receive()
        self.assertTrue(seen.get("Via").endswith(";profile=1;mok=1;st=0"), seen.get("Via"))
        self.assertEqual(seen.get("Contact"), "<sip:127.0.0.2:5060>")

    def test_an_answer_without_st_is_dropped(self):
        self.ua.send(self.request())
        seen = self.network.receive()
        self.network.send(sip.response(seen, 200, "OK").replace(b";st=0", b""), ("127.0.0.2", 5060))
        self.proxy.wait_log("ERROR: check why returning client_key=1, stag=")
        self.assertTrue(self.ua.nothing(0.1))

    def test_nul_bytes_and_rubbish_do_no_harm(self):
        for data in (b"", b"\0", b"\0" * 500, b"\r\n\r\n", b"INVITE", bytes(range(256)), b"SIP/2.0 200 OK\r\n\r\n",
                     self.request().replace(b"From", b"Fr\0m"), b"x" * 60000):
            self.ua.send(data)
        self.ua.send(self.request(branch="z9hG4bKlast"))
        self.assertIn("z9hG4bKlast", self.network.receive().get("Via"))


if __name__ == "__main__":
    unittest.main(verbosity=1)
