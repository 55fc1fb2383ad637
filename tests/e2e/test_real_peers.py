"""Real peers: SIPp as user agent and network, kamailio as network proxy, a soft phone brought in with ue-proxyctl."""
import os
import subprocess
import unittest

from support import peers, sip
from support.ladder import Ladder
from support.proxy import BIN, ProxyCase


def ctl(*words, timeout=30):
    return subprocess.run([os.path.join(BIN, "ue-proxyctl"), *words], capture_output=True, text=True, timeout=timeout)


class SippCalls(ProxyCase):
    """SIPp on both sides, each with its own checks of what it sees."""

    CALLS = 20

    def answering(self, scenario, ip, port, transport):
        peer = self.keep(peers.Sipp(scenario, ip=ip, port=port, transport=transport, calls=self.CALLS))
        peer.wait_bound("tcp" if transport == "t1" else "udp")
        return peer

    def calling(self, scenario, ip, port, remote, transport, **options):
        return self.keep(peers.Sipp(scenario, ip=ip, port=port, remote=remote, transport=transport, calls=self.CALLS,
                                    rate=20, **options))

    def user_agent_calls_network(self, transport):
        sipp_transport = "t1" if transport == "TCP" else "u1"
        self.register(5071)
        network = self.answering("network_answers.xml", "127.0.0.3", 5060, sipp_transport)
        self.set_route("1", f"127.0.0.3:{transport}:5060")
        caller = self.calling("ua_calls_network.xml", "127.0.0.1", 5071, "127.0.0.1:5060", sipp_transport)
        caller.succeed()
        network.succeed()

    def test_a_user_agent_calls_the_network_over_udp(self):
        self.user_agent_calls_network("UDP")

    def test_a_user_agent_calls_the_network_over_tcp(self):
        self.user_agent_calls_network("TCP")

    def network_calls_user_agent(self, transport):
        sipp_transport = "t1" if transport == "TCP" else "u1"
        called = self.answering("ua_answers.xml", "127.0.0.1", 5071, sipp_transport)
        self.register(5071, sip.ua_info(methods="INVITE"))
        if transport == "TCP":
            self.tcp(5060, "127.0.0.3")
        self.set_route("1", f"127.0.0.3:{transport}:5060")
        if transport == "TCP":
            self.open.pop().close()
        caller = self.calling("network_calls_ua.xml", "127.0.0.3", 5060, "127.0.0.2:5060", sipp_transport, service="alice")
        caller.succeed()
        called.succeed()

    def test_the_network_calls_a_user_agent_over_udp(self):
        self.network_calls_user_agent("UDP")

    def test_the_network_calls_a_user_agent_over_tcp(self):
        self.network_calls_user_agent("TCP")

    def test_a_user_agent_calls_another_over_udp(self):
        self.register(5071)
        self.register(5072, sip.ua_info("work", "bob@example.net"), user="bob")
        called = self.answering("local_ua_answers.xml", "127.0.0.1", 5072, "u1")
        caller = self.calling("ua_calls_local_ua.xml", "127.0.0.1", 5071, "127.0.0.1:5060", "u1")
        caller.succeed()
        called.succeed()


class ThroughKamailio(ProxyCase):
    def setUp(self):
        super().setUp()
        self.kamailio = self.keep(peers.Kamailio())

    def test_message_and_register_over_both_transports(self):
        for transport, port in (("UDP", 5071), ("TCP", 5072)):
            profile = "home" if transport == "UDP" else "work"
            ua = self.udp(port) if transport == "UDP" else self.keep(sip.Tcp(port))
            answer = self.register(port, sip.ua_info(profile, f"u{port}@example.net"), user=f"u{port}")
            profile_id = answer.get("Zel-Profile-ID")
            self.set_route(profile_id, f"127.0.0.3:{transport}:5060")
            link = ua if transport == "UDP" else self.connect()
            link.send(sip.request("MESSAGE", "sip:echo@example.net", via=f"127.0.0.1:{port}", transport=transport,
                                  frm=f"<sip:u{port}@example.net>", to="<sip:echo@example.net>", body="hello"))
            heard = link.receive()
            self.assertEqual((heard.status, heard.start), (200, "SIP/2.0 200 Heard"))
            self.assertEqual(len(heard.all("Via")), 1)
            self.assertIn(f"127.0.0.1:{port};", heard.get("Via"))
            link.send(sip.request("REGISTER", "sip:example.net", via=f"127.0.0.1:{port}", transport=transport,
                                  frm=f"<sip:u{port}@example.net>", to=f"<sip:u{port}@example.net>",
                                  contact=f"<sip:u{port}@127.0.0.1:{port}>",
                                  headers=[("Zel-Profile-ID", profile_id), ("Expires", 600)]))
            registered = link.receive()
            self.assertEqual(registered.status, 200, registered.raw)
            self.assertIn("sip:127.0.0.2:5060", registered.get("Contact"))

    def test_a_soft_phone_registered_with_the_tool_calls_out(self):
        callee = self.keep(peers.Sipp("callee.xml", ip="127.0.0.5", port=5060))
        done = ctl("register", "--port", "5071", "--user", "alice", "--profile-name", "home", "--aor",
                   "alice@example.net", "--methods", "INVITE,MESSAGE")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stdout, "200 OK\nExpires: 3600\nZel-Profile-ID: 1\n")
        done = ctl("route", "set", "--profile", "1", "--proxy", "127.0.0.3:UDP:5060", "--device", "127.0.0.2")
        self.assertEqual((done.returncode, done.stdout), (0, "1\n"), done.stderr)
        phone = self.keep(peers.Baresip(commands=["/dial sip:bob@example.net"]))
        phone.wait_output("Call established", 20)
        self.kamailio.wait_output("SEEN INVITE sip:bob@example.net from 127.0.0.2:5060")
        callee.succeed()
        phone.wait_output("session closed|terminated", 20)

    def test_a_soft_phone_is_called_and_calls_back_and_its_audio_offers_stay_untouched(self):
        wire = self.keep(Ladder([]))
        callee = self.keep(peers.Callee())
        self.register(5071, sip.ua_info(methods="INVITE"))
        self.set_route("1", "127.0.0.3:UDP:5060")
        registering = self.udp(5071)
        registering.send(sip.request("REGISTER", "sip:example.net", via=registering.via, frm="<sip:alice@example.net>",
                                     to="<sip:alice@example.net>", contact=f"<sip:alice@{registering.via}>"))
        self.assertEqual(registering.receive().status, 200)
        registering.close()
        self.open.remove(registering)

        phone = self.keep(peers.Baresip(answer=True))
        phone.wait_output("baresip is ready")
        callee.call("sip:alice@example.net")
        phone.wait_output("Call established", 20)
        sip.wait_until(lambda: callee.answer, 5, "the answer at the caller")
        callee.hang_up()
        phone.wait_output("session closed|terminated", 20)
        phone.close()
        back = self.keep(peers.Baresip(commands=["/dial sip:bob@example.net"]))
        back.wait_output("Call established", 20)

        with wire.lock:
            seen = list(wire.seen)
        offers = {}
        for _, _, message in seen:
            if message.body and "INVITE" in message.get("CSeq"):
                key = (message.get("Call-ID"), message.method or message.status)
                offers.setdefault(key, []).append(message.body)
        self.assertEqual(len(offers), 4, offers.keys())  # an offer and an answer of each call
        for key, bodies in offers.items():
            self.assertGreaterEqual(len(bodies), 3, key)  # on each leg: phone, proxy, kamailio, the other side
            self.assertEqual(len(set(bodies)), 1, key)


if __name__ == "__main__":
    unittest.main(verbosity=1)
