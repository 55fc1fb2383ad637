"""Listener decisions, the table of accepted connections, lost and reopened connections, and what costs nothing."""
import re
import time
import unittest

from support import sip
from support.proxy import SANITIZED, ProxyCase


class Listeners(ProxyCase):
    def decided(self, data, text):
        peer = self.udp()
        peer.send(data(peer.via))
        self.proxy.wait_log(text)

    def test_register_to_the_loopback_address_is_the_registrars_whatever_user(self):
        self.decided(lambda via: sip.request("REGISTER", "sip:127.0.0.1", via=via, frm="<sip:a@x>", to="<sip:any@127.0.0.1>"),
                     "Redirected REGISTER Request to Registrar")

    def test_register_to_a_network_host_is_the_proxys(self):
        self.decided(lambda via: sip.request("REGISTER", "sip:x", via=via, frm="<sip:a@x>", to="<sip:a@x>"),
                     "REGISTER Request will be handled at the Proxy")

    def test_subscribe_is_the_registrars_only_for_its_user(self):
        self.decided(lambda via: sip.request("SUBSCRIBE", "sip:127.0.0.1", via=via, frm="<sip:a@x>",
                                             to="<sip:registrar@127.0.0.1>"),
                     "Redirected SUBSCRIBE Request to Registrar")
        self.decided(lambda via: sip.request("SUBSCRIBE", "sip:127.0.0.1", via=via, frm="<sip:a@x>",
                                             to="<sip:bob@127.0.0.1>"),
                     "SUBSCRIBE Request will be handled at the Proxy")

    def test_a_response_from_the_registrar_goes_to_its_processing(self):
        self.decided(lambda via: sip.response(sip.Message(sip.request("NOTIFY", "sip:x", via=via,
                                                                      frm="<sip:registrar@127.0.0.1>", to="<sip:a@x>")),
                                              200, "OK"),
                     "Redirected response to Registrar")

    def test_a_response_from_the_registrar_over_tcp_on_both_kinds_of_transport(self):
        answer = sip.response(sip.Message(sip.request("NOTIFY", "sip:x", via="127.0.0.1:5060", transport="TCP",
                                                      frm="<sip:registrar@127.0.0.1>", to="<sip:a@x>")), 200, "OK")
        self.connect().send(answer)
        self.proxy.wait_log("Redirected response to Registrar")
        listener = self.tcp(5071)
        self.register(5071)
        self.accept(listener).send(answer)
        self.proxy.wait_log("Redirected response to Registrar", count=2)

    def test_a_header_of_a_thousand_bytes_counts_as_absent(self):
        self.decided(lambda via: sip.request("REGISTER", "sip:127.0.0.1", via=via, frm="<sip:a@x>",
                                             to='"' + "x" * 1000 + '" <sip:a@127.0.0.1>'),
                     "REGISTER Request will be handled at the Proxy")


class Connections(ProxyCase):
    def test_two_connections_get_different_tags_and_leave_the_table(self):
        first, second = self.connect(), self.connect()
        self.proxy.wait_log("Added entry in tcp_servconn_table", count=2)
        tags = re.findall(r"Added entry in tcp_servconn_table, conn=0x\w+, addr=127\.0\.0\.1, lport=5060, tag=(\w+)",
                          self.proxy.log())
        self.assertEqual(len(set(tags)), 2, tags)
        first.close()
        self.proxy.wait_log("deleted entry", count=1)
        second.reset()
        self.proxy.wait_log("deleted entry", count=2)

    def test_a_lost_user_agent_connection_is_not_reopened(self):
        listener = self.tcp(5071)
        self.register(5071)
        self.accept(listener).close()
        self.proxy.wait_log("LOCAL DOMAIN  - hence connection not reopened")
        self.assertTrue(listener.nothing())

    def test_a_stream_that_cannot_be_framed_is_closed_and_the_others_stay(self):
        good = self.connect()
        for data in (b"INVITE sip:a SIP/2.0\r\nContent-Length: 99999999999999999999\r\n\r\n",
                     b"INVITE sip:a SIP/2.0\r\nContent-Length: -1\r\n\r\n", b"x" * 20000, b"A" * 70000):
            bad = self.connect()
            bad.send(data)
            self.assertTrue(bad.closed(), data[:60])
        good.send(b"\r\n\r\n")
        self.assertEqual(good.receive_raw(2), b"\r\n")

    def test_half_a_message_and_silence_block_nobody(self):
        half = self.connect()
        half.send(b"INVITE sip:bob@example.net SIP/2.0\r\nVia: SIP/2.0/TCP 127.0.0.1")
        self.register(5071)

    def test_a_peer_that_never_reads_blocks_nobody(self):
        network = self.tcp(5060, "127.0.0.3")
        self.register(5071)
        self.set_route("1", "127.0.0.3:TCP:5060")
        self.accept(network)
        flood = self.connect()
        message = sip.request("MESSAGE", "sip:bob@example.net", via="127.0.0.1:5071", frm="<sip:alice@example.net>",
                              to="<sip:bob@example.net>", transport="TCP", body="x" * 50000)
        flood.socket.settimeout(20)
        for _ in range(200):
            flood.send(message)
        self.register(5072, sip.ua_info("work"), user="bob")
        self.assertLess(self.proxy.resident_kib(), 400 * 1024)


class Silence(ProxyCase):
    """Who only holds connections open, or many of them, keeps nobody out."""

    NETWORK = ("127.0.0.2", 5060)
    options = {"settings": "<max-connections>64</max-connections>"}

    def exchange(self, stream):
        stream.send(b"\r\n\r\n")
        self.assertEqual(stream.receive_raw(2), b"\r\n")

    def chatty(self, **options):
        """A connection that has delivered a message."""
        stream = self.connect(**options)
        stream.send(sip.request("MESSAGE", "sip:a@example.net", via=f"{stream.local[0]}:5060", transport="TCP",
                                frm="<sip:x@example.net>", to="<sip:a@example.net>"))
        return stream

    def test_idle_and_chatty_strangers_do_not_keep_the_networks_proxy_out(self):
        self.set_route("1", "127.0.0.3:TCP:5060")
        idle = [self.connect(to=self.NETWORK, source=("127.0.0.9", 0)) for _ in range(48)]
        for number in range(48):
            self.chatty(to=self.NETWORK, source=(f"127.0.1.{1 + number % 6}", 0))
        self.assertTrue(idle[0].closed())
        proxy = [self.chatty(to=self.NETWORK, source=("127.0.0.3", 0)) for _ in range(8)]
        for stream in proxy:
            self.exchange(stream)

    def test_one_strangers_connections_leave_other_strangers_room(self):
        self.set_route("1", "127.0.0.3:UDP:5060")
        crowd = [self.chatty(to=self.NETWORK, source=("127.0.0.9", 0)) for _ in range(20)]
        self.assertEqual(sum(stream.closed(0.2) for stream in crowd), 8, "a quarter of 48")
        self.exchange(self.connect(to=self.NETWORK, source=("127.0.0.10", 0)))

    def test_one_applications_idle_connections_keep_no_other_out(self):
        idle = [self.connect() for _ in range(64)]
        listener = self.tcp(5071)
        self.register(5071)
        self.accept(listener)
        phones = [self.connect() for _ in range(10)]
        for phone in phones:
            self.exchange(phone)
        network = self.tcp(5060, "127.0.0.3")
        self.set_route("1", "127.0.0.3:TCP:5060")
        self.accept(network)
        self.assertTrue(idle[0].closed())

    def test_one_applications_chatty_connections_leave_the_proxy_its_own(self):
        crowd = [self.chatty() for _ in range(64)]
        self.assertEqual(sum(stream.closed(0.2) for stream in crowd), 8, "an eighth of 64")
        listener = self.tcp(5071)
        self.register(5071)
        self.accept(listener)
        network = self.tcp(5060, "127.0.0.3")
        self.set_route("1", "127.0.0.3:TCP:5060")
        self.accept(network)


class LateHeads(ProxyCase):
    options = {"settings": "<head-timeout-s>2</head-timeout-s>"}

    def test_who_does_not_talk_in_time_is_closed_and_who_has_talked_is_not(self):
        talked, silent, pings, half = (self.connect() for _ in range(4))
        talked.send(sip.register(5071, sip.ua_info(), via="127.0.0.1:5071", transport="TCP"))
        self.assertEqual(talked.receive().status, 200)
        half.send(b"REGISTER sip:127.0.0.1 SIP/2.0\r\nVia: ")
        started = time.monotonic()
        while time.monotonic() - started < 1.5:
            pings.send(b"\r\n\r\n")
            time.sleep(0.1)
        for stream in (silent, pings, half):
            self.assertTrue(stream.closed())
        self.assertGreater(time.monotonic() - started, 1.9)
        self.proxy.wait_log("ended: no whole message came in time", count=3)
        talked.send(b"\r\n\r\n")
        self.assertEqual(talked.receive_raw(2), b"\r\n")


class Restarts(ProxyCase):
    def exchange(self, ua, network):
        ua.send(sip.request("MESSAGE", "sip:bob@example.net", via="127.0.0.1:5071", frm="<sip:alice@example.net>",
                            to="<sip:bob@example.net>", transport="TCP", body="hi"))
        seen = network.receive()
        network.send(sip.response(seen, 200, "OK"))
        self.assertEqual(ua.receive().status, 200)

    def test_a_restarted_network_proxy_gets_the_next_request(self):
        listener = self.tcp(5060, "127.0.0.3")
        self.register(5071)
        self.set_route("1", "127.0.0.3:TCP:5060")
        ua = self.connect()
        network = self.accept(listener)
        self.exchange(ua, network)
        for how in ("close", "reset"):
            getattr(network, how)()
            listener.close()
            self.proxy.wait_log("Closing Client Connection", count=1 if how == "close" else 2)
            time.sleep(0.2)
            listener = self.tcp(5060, "127.0.0.3")
            ua.send(sip.request("MESSAGE", "sip:bob@example.net", via="127.0.0.1:5071", frm="<sip:alice@example.net>",
                                to="<sip:bob@example.net>", transport="TCP", body="again"))
            network = self.accept(listener)
            self.assertEqual(network.receive().body, b"again")
            self.exchange(ua, network)

    def test_a_restarted_user_agent_gets_the_next_request(self):
        self.set_route("1", "127.0.0.3:UDP:5060")
        listener = self.tcp(5072)
        self.register(5072, sip.ua_info("home", "bob@example.net"), user="bob")
        callee = self.accept(listener)
        self.register(5071, sip.ua_info("work", "alice@example.net"), user="alice")
        caller = self.connect()
        for number, how in enumerate(("close", "reset")):
            message = sip.request("MESSAGE", "sip:bob@127.0.0.1", via="127.0.0.1:5071", frm="<sip:alice@127.0.0.1>",
                                  to="<sip:bob@127.0.0.1>", transport="TCP", body=f"{number}")
            caller.send(message)
            self.assertEqual(callee.receive().body, b"%d" % number)
            getattr(callee, how)()
            listener.close()
            self.proxy.wait_log("Closing Client Connection", count=number + 1)
            listener = self.tcp(5072)
            caller.send(message)
            callee = self.accept(listener)
            self.assertEqual(callee.receive().body, b"%d" % number)

    def test_a_loopback_proxy_that_refuses_at_set_route_is_told_and_set_anew(self):
        self.register(5071)
        self.set_route("1", "127.0.0.3:TCP:5060")
        self.assertTrue(self.proxy.has("client conn open failed (src,dest)=(127.0.0.2:5060,127.0.0.3:5060)"))
        ua = self.connect()
        ua.send(sip.request("MESSAGE", "sip:bob@example.net", via="127.0.0.1:5071", frm="<sip:alice@example.net>",
                            to="<sip:bob@example.net>", transport="TCP", body="first"))
        sip.wait_until(lambda: [text for level, function, text in self.proxy.lines(3)
                                if function == "process_ua_to_network_tcp_request"], 3, "a line at level 3")
        listener = self.tcp(5060, "127.0.0.3")
        self.command(sip.route_body("delete-route", "1", ""))
        self.set_route("1", "127.0.0.3:TCP:5060")
        self.exchange(ua, self.accept(listener))


class Lengths(ProxyCase):
    def test_what_leaves_on_a_stream_has_a_content_length_and_a_datagram_is_as_it_came(self):
        network, datagrams = self.tcp(5060, "127.0.0.3"), self.udp(5060, "127.0.0.3")
        self.set_route("1", "127.0.0.3:TCP:5060")
        self.register(5071)
        home, stream, peer = self.accept(network), self.connect(), self.udp(5071)

        def message(transport, body=""):
            return sip.request("MESSAGE", "sip:bob@example.net", via="127.0.0.1:5071", frm="<sip:alice@example.net>",
                               to="<sip:bob@example.net>", body=body, transport=transport).replace(
                                   b"Content-Length: %d\r\n" % len(body), b"")
        stream.send(message("TCP") + message("TCP"))
        for _ in range(2):
            seen = home.receive()
            self.assertEqual((seen.get("Content-Length"), seen.body), ("0", b""))
        home.send(sip.response(seen, 200, "OK").replace(b"Content-Length: 0\r\n", b""))
        self.assertEqual(stream.receive().get("Content-Length"), "0")
        peer.send(message("UDP", "body"))
        seen = datagrams.receive()
        self.assertEqual((seen.get("Content-Length"), seen.body), (None, b"body"))


class UdpOnly(ProxyCase):
    def test_a_user_agent_that_speaks_udp_only_causes_no_error_line_of_the_library(self):
        self.udp(5071)
        self.register(5071)
        failed = [(level, text) for level, _, text in self.proxy.lines() if "failed" in text]
        self.assertEqual(failed, [(5, "connecting 127.0.0.1:5060 to 127.0.0.1:5071 failed: Connection refused"),
                                  (4, "client conn open failed (src,dest)=(127.0.0.1:5060,127.0.0.1:5071)"),
                                  (4, "TCP Client connection with UA failed.")])


class Resources(ProxyCase):
    options = {"level": 4}

    def test_a_thousand_registrations_leave_descriptors_and_memory_where_they_were(self):
        listener = self.tcp(5071)
        peer = self.udp()

        def rounds(count, start):
            for number in range(start, start + count):
                for cseq, expires in ((1, 60), (2, 0)):
                    peer.send(sip.register(5071, sip.ua_info(), via=peer.via, cseq=cseq, expires=expires,
                                           call_id=f"r{number}@127.0.0.1"))
                    self.assertEqual(peer.receive().status, 200)
        rounds(150, 0)  # as many answers as are kept for repeated requests
        time.sleep(0.3)
        descriptors, memory = self.proxy.descriptors(), self.proxy.resident_kib()
        rounds(1000, 1000)
        time.sleep(0.3)
        self.assertLessEqual(self.proxy.descriptors(), descriptors)
        self.assertLess(self.proxy.resident_kib() - memory, 30 * 1024 if SANITIZED else 1024)
        self.assertFalse(listener.nothing(0.1))

    def test_idle_it_does_not_wake_up(self):
        self.tcp(5071)
        self.register(5071)
        self.connect()
        self.set_route("1", "127.0.0.3:UDP:5060")
        time.sleep(1)  # what the last request set going; its transaction ends only after 32 s (timer J)
        before = self.proxy.wake_ups()
        time.sleep(3)
        after = self.proxy.wake_ups()
        counts = sorted(count - before.get(task, 0) for task, count in after.items())
        if SANITIZED == "tsan":
            counts.pop()  # the sanitizer's own thread works all the time
        self.assertLessEqual(sum(counts), 1)


if __name__ == "__main__":
    unittest.main(verbosity=1)
