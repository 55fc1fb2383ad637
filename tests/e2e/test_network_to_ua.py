"""Requests from the network to a local user agent, its answers, and whole dialogs over TCP, over UDP and mixed."""
import re
import unittest

from support import sip
from support.proxy import ProxyCase

SDP = "v=0\r\no=bob 1 1 IN IP4 127.0.0.3\r\ns=-\r\nc=IN IP4 127.0.0.3\r\nt=0 0\r\nm=audio 4000 RTP/AVP 0\r\n"


class Path(ProxyCase):
    """The network side speaks `transport`; the user agent is reached over the same."""

    transport = "UDP"

    def setUp(self):
        super().setUp()
        if self.transport == "TCP":
            listener = self.tcp(5071)
            network = self.tcp(5060, "127.0.0.3")
        else:
            self.ua = self.udp(5071)
            self.network = self.udp(5060, "127.0.0.3")
        self.register(5071, sip.ua_info(aor="alice@example.net", methods="INVITE,MESSAGE,NOTIFY,REFER",
                                        events="presence"))
        self.set_route("1", f"127.0.0.3:{self.transport}:5060")
        if self.transport == "TCP":
            self.ua = self.accept(listener)        # the proxy's connection to the user agent
            self.ua_out = self.connect()           # the user agent's to the proxy
            self.out = self.accept(network)        # the proxy's to the network
            self.network = self.connect(to=("127.0.0.2", 5060), source=("127.0.0.3", 0))  # the network's to the proxy

    # The four ends of the path, whatever the transport.
    def network_sends(self, data):
        self.network.send(data) if self.transport == "TCP" else self.network.send(data, ("127.0.0.2", 5060))

    def network_request_seen(self):
        return (self.out if self.transport == "TCP" else self.network).receive()

    def network_answers(self, data):
        self.out.send(data) if self.transport == "TCP" else self.network.send(data, ("127.0.0.2", 5060))

    def ua_sends(self, data):
        (self.ua_out if self.transport == "TCP" else self.ua).send(data)

    def ua_answer_seen(self):
        return (self.ua_out if self.transport == "TCP" else self.ua).receive()

    def ua_answers(self, data):
        self.ua.send(data)

    def from_network(self, method="INVITE", uri="sip:alice@127.0.0.2:5060", **options):
        options.setdefault("via", "127.0.0.3:5060")
        options.setdefault("contact", "<sip:bob@127.0.0.3:5060>")
        options.setdefault("frm", "<sip:bob@example.net>")
        options.setdefault("to", "<sip:alice@example.net>")
        return sip.request(method, uri, transport=self.transport, **options)


class Calls(Path):
    def test_the_network_calls_and_hangs_up(self):
        sent = sip.Message(self.from_network(branch="z9hG4bKnet", body=SDP, call_id="call-1", from_tag="n1",
                                             headers=[("Content-Type", "application/sdp")]))
        self.network_sends(sent.raw)
        trying = self.network.receive()
        self.assertEqual(trying.start, "SIP/2.0 100 trying")
        self.assertEqual(trying.all("Via"), sent.all("Via"))
        invite = self.ua.receive()
        st = "0" if self.transport == "UDP" else r"[0-9a-z]{32}"
        self.assertRegex(invite.get("Via"),
                         rf"^SIP/2\.0/{self.transport} 127\.0\.0\.1:5060;branch=z9hG4bKnet;mtk=1;st={st}$")
        self.assertEqual(invite.get("Contact"), "<sip:bob@127.0.0.3:5060;mtk=1>")
        self.assertEqual(invite.body, SDP.encode())

        self.ua_answers(sip.response(invite, 180, "Ringing", contact="<sip:alice@127.0.0.1:5071>"))
        ringing = self.network.receive()
        self.assertEqual(ringing.all("Via"), sent.all("Via"))
        self.assertEqual(ringing.get("Contact"), "<sip:alice@127.0.0.1:5071;mtk=1>")
        self.assertRegex(ringing.get("User-agent"), r"^ue-proxy/\d")
        self.ua_answers(sip.response(invite, 200, "OK", contact="<sip:alice@127.0.0.1:5071>", body=SDP))
        answer = self.network.receive()
        self.assertEqual((answer.status, answer.body), (200, SDP.encode()))
        target = re.search("<(.*)>", answer.get("Contact")).group(1)

        dialog = {"call_id": "call-1", "frm": "<sip:bob@example.net>;tag=n1", "to": "<sip:alice@example.net>;tag=peer"}
        self.network_sends(self.from_network("ACK", target, cseq=1, **dialog))
        self.assertEqual(self.ua.receive().method, "ACK")
        # re-INVITE from both sides, the user agent's by the key in the Contact that it was given.
        self.network_sends(self.from_network("INVITE", target, cseq=2, branch="z9hG4bKre", **dialog))
        self.assertEqual(self.network.receive().start, "SIP/2.0 100 trying")
        again = self.ua.receive()
        self.ua_answers(sip.response(again, 200, "OK", contact="<sip:alice@127.0.0.1:5071>"))
        self.assertEqual(self.network.receive().status, 200)
        self.ua_sends(sip.request("INVITE", "sip:bob@127.0.0.3:5060;mtk=1", via="127.0.0.1:5071",
                                  transport=self.transport, frm="<sip:alice@example.net>;tag=peer",
                                  to="<sip:bob@example.net>;tag=n1", call_id="call-1", cseq=1,
                                  contact="<sip:alice@127.0.0.1:5071>"))
        reinvite = self.network_request_seen()
        self.assertRegex(reinvite.get("Via"), rf";mtk=1;st={st}$")
        self.network_answers(sip.response(reinvite, 200, "OK", contact="<sip:bob@127.0.0.3:5060>"))
        self.assertEqual(self.ua_answer_seen().status, 200)

        self.network_sends(self.from_network("BYE", target, cseq=3, contact=None, **dialog))
        bye = self.ua.receive()
        self.ua_answers(sip.response(bye, 200, "OK"))
        self.assertEqual(self.network.receive().status, 200)

    def test_the_user_agent_hangs_up(self):
        self.network_sends(self.from_network(call_id="call-2", from_tag="n2"))
        self.network.receive()
        invite = self.ua.receive()
        self.ua_answers(sip.response(invite, 200, "OK", contact="<sip:alice@127.0.0.1:5071>"))
        self.network.receive()
        target = re.search("<(.*)>", invite.get("Contact")).group(1)
        self.ua_sends(sip.request("BYE", target, via="127.0.0.1:5071", transport=self.transport,
                                  frm="<sip:alice@example.net>;tag=peer", to="<sip:bob@example.net>;tag=n2",
                                  call_id="call-2"))
        bye = self.network_request_seen()
        self.assertEqual(bye.method, "BYE")
        self.network_answers(sip.response(bye, 200, "OK"))
        self.assertEqual(self.ua_answer_seen().status, 200)

    def test_cancel_follows_the_invite_and_every_answer_comes_back(self):
        self.network_sends(self.from_network(branch="z9hG4bKcan", call_id="call-3", from_tag="n3"))
        self.network.receive()
        invite = self.ua.receive()
        self.ua_answers(sip.response(invite, 180, "Ringing", contact="<sip:alice@127.0.0.1:5071>"))
        self.assertEqual(self.network.receive().status, 180)
        dialog = {"branch": "z9hG4bKcan", "call_id": "call-3", "contact": None, "frm": "<sip:bob@example.net>;tag=n3"}
        self.network_sends(self.from_network("CANCEL", **dialog))
        cancel = self.ua.receive()
        self.assertEqual(cancel.method, "CANCEL")
        self.assertIn("z9hG4bKcan;mtk=1;st=", cancel.get("Via"))
        self.ua_answers(sip.response(cancel, 200, "OK"))
        self.assertEqual((self.network.receive().get("CSeq")), "1 CANCEL")
        self.ua_answers(sip.response(invite, 487, "Request Terminated"))
        ended = self.network.receive()
        self.assertEqual((ended.status, ended.get("CSeq")), (487, "1 INVITE"))
        self.network_sends(self.from_network("ACK", to="<sip:alice@example.net>;tag=peer", **dialog))
        self.assertEqual(self.ua.receive().method, "ACK")

    def test_refer_is_answered_100_and_message_is_not(self):
        self.network_sends(self.from_network("REFER"))
        self.assertEqual(self.network.receive().start, "SIP/2.0 100 trying")
        refer = self.ua.receive()
        self.assertEqual(refer.method, "REFER")
        self.ua_answers(sip.response(refer, 202, "Accepted", contact="<sip:alice@127.0.0.1:5071>"))
        self.assertEqual(self.network.receive().status, 202)
        self.network_sends(self.from_network("MESSAGE", body="hi"))
        self.assertEqual(self.ua.receive().body, b"hi")
        self.assertTrue(self.network.nothing(0.2))

    def test_notify_of_a_supported_event_and_of_another(self):
        self.network_sends(self.from_network("NOTIFY", headers=[("Event", "presence"), ("Subscription-State", "active")]))
        self.assertEqual(self.ua.receive().method, "NOTIFY")
        self.network_sends(self.from_network("NOTIFY", headers=[("Event", "dialog")]))
        self.proxy.wait_log("ERROR: No client supports event=dialog")

    def test_the_user_agents_refer_is_answered(self):
        self.ua_sends(sip.request("REFER", "sip:bob@example.net", via="127.0.0.1:5071", transport=self.transport,
                                  frm="<sip:alice@example.net>", to="<sip:bob@example.net>",
                                  contact="<sip:alice@127.0.0.1:5071>", headers=[("Refer-To", "<sip:carol@example.net>")]))
        refer = self.network_request_seen()
        self.assertEqual(refer.get("Refer-To"), "<sip:carol@example.net>")
        self.network_answers(sip.response(refer, 202, "Accepted", contact="<sip:bob@127.0.0.3:5060>"))
        self.assertEqual(self.ua_answer_seen().status, 202)

    def test_the_networks_subscription_is_answered_and_notified(self):
        self.network_sends(self.from_network("SUBSCRIBE", headers=[("Event", "presence"), ("Expires", 60)],
                                             from_tag="n4", call_id="sub-4"))
        subscribe = self.ua.receive()
        self.ua_answers(sip.response(subscribe, 200, "OK", contact="<sip:alice@127.0.0.1:5071>",
                                     headers=[("Expires", 60)]))
        self.assertEqual(self.network.receive().get("Contact"), "<sip:alice@127.0.0.1:5071;mtk=1>")
        target = re.search("<(.*)>", subscribe.get("Contact")).group(1)
        self.ua_sends(sip.request("NOTIFY", target, via="127.0.0.1:5071", transport=self.transport, call_id="sub-4",
                                  frm="<sip:alice@example.net>;tag=peer", to="<sip:bob@example.net>;tag=n4",
                                  contact="<sip:alice@127.0.0.1:5071>",
                                  headers=[("Event", "presence"), ("Subscription-State", "active")]))
        notify = self.network_request_seen()
        self.assertIn(";mtk=1;st=", notify.get("Via"))
        self.network_answers(sip.response(notify, 200, "OK"))
        self.assertEqual(self.ua_answer_seen().status, 200)

    def test_the_user_agents_subscription_is_notified(self):
        self.ua_sends(sip.request("SUBSCRIBE", "sip:bob@example.net", via="127.0.0.1:5071", transport=self.transport,
                                  frm="<sip:alice@example.net>", to="<sip:bob@example.net>",
                                  contact="<sip:alice@127.0.0.1:5071>", headers=[("Event", "dialog"), ("Expires", 60)]))
        subscribe = self.network_request_seen()
        self.network_answers(sip.response(subscribe, 200, "OK", contact="<sip:bob@127.0.0.3:5060>"))
        self.assertEqual(self.ua_answer_seen().get("Contact"), "<sip:bob@127.0.0.3:5060;mok=1>")
        target = re.search("<(.*)>", subscribe.get("Contact")).group(1)
        self.network_sends(self.from_network("NOTIFY", target, headers=[("Event", "dialog")]))
        notify = self.ua.receive()
        self.assertIn(";mok=1;st=", notify.get("Via"))
        self.ua_answers(sip.response(notify, 200, "OK"))
        answer = self.network.receive()
        self.assertEqual(answer.status, 200)
        self.assertNotIn("mok", answer.get("Via"))

    def test_a_via_without_branch_gets_one_and_loses_it_again(self):
        data = self.from_network("MESSAGE", body="x")
        bare = re.sub(rb";branch=[^\r]*", b"", data)
        self.network_sends(bare)
        seen = self.ua.receive()
        self.assertIn(";branch=z9hG4bK-nobranch;mtk=1", seen.get("Via"))
        self.ua_answers(sip.response(seen, 200, "OK"))
        self.assertEqual(self.network.receive().get("Via"), f"SIP/2.0/{self.transport} 127.0.0.3:5060")

    def refused(self, data, text):
        self.network_sends(data)
        self.proxy.wait_log(text)
        self.assertTrue(self.ua.nothing(0.1))
        self.assertTrue(self.network.nothing(0.1))

    def test_requests_of_others_are_dropped(self):
        self.refused(self.from_network(via="127.0.0.9:5060"), "ERROR ? : Request coming from ip:port not in the domain table")
        self.refused(self.from_network(via="127.0.0.3:5061"), "Via ip:port(127.0.0.3:5061) Domain table entry ip:port")
        self.refused(self.from_network(via="proxy.example.net:5060"), "Via ip:port(proxy.example.net:5060)")
        self.refused(self.from_network(to="<sip:nobody@example.org>", method="PUBLISH"),
                     "No feature tag/AOR present, matching clients=0 based on method=PUBLISH")

    def test_forged_and_deleted_keys_are_dropped(self):
        for uri in ("sip:x@127.0.0.2;mtk=999", "sip:x@127.0.0.2;mtk=", "sip:x@127.0.0.2;mok=;mtk=",
                    "sip:x@127.0.0.2;mtk=1%00", "sip:x@127.0.0.2;mok=-1;profile=7"):
            self.network_sends(self.from_network(uri=uri))
        self.register(5071, sip.ua_info(), cseq=2, expires=0)
        count = self.proxy.log().count("ERROR: check why client or domain key empty")
        self.network_sends(self.from_network(uri="sip:x@127.0.0.2;mtk=1"))
        self.proxy.wait_log("ERROR: check why client or domain key empty", count=count + 1)
        self.assertTrue(self.ua.nothing(0.1))

    def test_a_response_that_lost_its_st_is_dropped(self):
        self.network_sends(self.from_network("MESSAGE", body="x"))
        seen = self.ua.receive()
        self.ua_answers(re.sub(rb";st=\w+", b"", sip.response(seen, 200, "OK")))
        self.proxy.wait_log("ERROR: check why returning domain_key=")
        self.assertTrue(self.network.nothing(0.1))


class CallsOverTcp(Calls):
    transport = "TCP"


class OverUdp(Path):
    """Over TCP the answer goes back on the connection of the request whatever the profile."""

    def test_an_answer_steered_to_another_profile_loses_the_header(self):
        other = self.udp(5060, "127.0.0.4")
        self.set_route("2", "127.0.0.4:UDP:5060")
        self.network_sends(self.from_network("MESSAGE", body="x"))
        seen = self.ua.receive()
        self.ua_answers(sip.response(seen, 200, "OK", headers=[("Zel-Profile-ID", "2")]))
        answer = other.receive()
        self.assertIsNone(answer.get("Zel-Profile-ID"))
        self.assertIn("127.0.0.4:5060", answer.get("Via"))


class Mixed(ProxyCase):
    """A user agent on UDP, one on TCP, the same network proxy, both called at the same time."""

    def test_two_whole_calls_side_by_side(self):
        udp_ua = self.udp(5071)
        listener = self.tcp(5072)
        self.register(5071, sip.ua_info("home", "alice@example.net", methods="INVITE"))
        self.register(5072, sip.ua_info("work", "bob@example.net", methods="INVITE"), user="bob")
        tcp_ua = self.accept(listener)
        network = self.udp(5060, "127.0.0.3")
        self.tcp(5060, "127.0.0.3")
        self.set_route("1", "127.0.0.3:UDP:5060")
        self.set_route("2", "127.0.0.3:TCP:5060")
        stream = self.connect(to=("127.0.0.2", 5060), source=("127.0.0.3", 0))
        calls = [("UDP", "alice", 5071, udp_ua, network, lambda data: network.send(data, ("127.0.0.2", 5060)), "1"),
                 ("TCP", "bob", 5072, tcp_ua, stream, stream.send, "2")]

        def request(method, uri, user, transport, cseq, to_tag=""):
            return sip.request(method, uri, via="127.0.0.3:5060", frm="<sip:x@example.net>;tag=x", cseq=cseq,
                               to=f"<sip:{user}@example.net>{to_tag}", call_id=f"mixed-{user}", transport=transport)
        for transport, user, _, _, _, send, _ in calls:
            send(request("INVITE", f"sip:{user}@127.0.0.2", user, transport, 1))
        targets = {}
        for transport, user, port, ua, answers, _, key in calls:
            self.assertEqual(answers.receive().start, "SIP/2.0 100 trying")
            invite = ua.receive()
            self.assertIn(f"mtk={key}", invite.get("Via"))
            ua.send(sip.response(invite, 200, "OK", contact=f"<sip:{user}@127.0.0.1:{port}>"))
            targets[user] = re.search("<(.*)>", answers.receive().get("Contact")).group(1)
        for transport, user, _, _, _, send, _ in calls:
            send(request("ACK", targets[user], user, transport, 1, ";tag=peer"))
            send(request("BYE", targets[user], user, transport, 2, ";tag=peer"))
        for _, _, _, ua, answers, _, _ in calls:
            self.assertEqual(ua.receive().method, "ACK")
            ua.send(sip.response(ua.receive(), 200, "OK"))
            self.assertEqual(answers.receive().get("CSeq"), "2 BYE")


if __name__ == "__main__":
    unittest.main(verbosity=1)
