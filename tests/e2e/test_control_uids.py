"""The setting control-uids: whose processes may register, subscribe and send route commands, over TCP only."""
import contextlib
import itertools
import os
import signal
import socket
import struct
import unittest

from support import sip
from support.proxy import ProxyCase, UeProxy

NOBODY = 65534
IP_PKTINFO = 8  # Linux's; the module socket has no name for it


def may_change_user():
    """In a user namespace of one user there is nobody else to be."""
    with open("/proc/self/uid_map", encoding="ascii") as file:
        first, _, count = (int(number) for number in file.readline().split())
    return os.geteuid() == 0 and first + count > NOBODY


@contextlib.contextmanager
def user(uid):
    """What is opened within is that user's: a socket belongs to who made it."""
    before = os.geteuid()
    if uid != before:
        os.seteuid(uid)
    try:
        yield
    finally:
        if uid != before:
            os.seteuid(before)


class ControlUids(ProxyCase):
    ports = itertools.count(6001)
    mine = os.geteuid()
    stranger = NOBODY if may_change_user() else None
    options = {"settings": f"<control-uids> {mine}\n</control-uids>"}

    def restart_with(self, uids):
        self.proxy.stop()
        self.proxy = UeProxy(settings=f"<control-uids>{uids}</control-uids>")
        self.addCleanup(self.proxy.remove)

    def strangers(self):
        """Users who may not, each with the proxy set so."""
        if self.stranger is not None:
            yield self.stranger
        self.restart_with(str(self.mine + 1))
        yield self.mine

    def subscribe(self, via, transport, to="<sip:registrar@127.0.0.1>"):
        return sip.request("SUBSCRIBE", to.strip("<>"), via=via, frm="<sip:regua@127.0.0.1>", to=to,
                           contact=f"<sip:regua@{via}>", transport=transport,
                           headers=[("Event", "local-reg-events"), ("Expires", 60)])

    def exchange(self, uid, transport, make):
        """The answer that this user's request gets, or none. `make` is given Via and transport."""
        with user(uid):
            peer = self.udp() if transport == "UDP" else self.connect()
        peer.send(make(peer.via if transport == "UDP" else "%s:%d" % peer.local, transport))
        try:
            return peer.receive(1.0 if uid != self.mine else 3.0)
        except TimeoutError:
            return None

    def register_over_tcp(self, port):
        answer = self.exchange(self.mine, "TCP", lambda via, transport: sip.register(port, sip.ua_info(), via=via,
                                                                                     transport=transport))
        self.assertEqual(answer.status, 200)

    def registration(self, via, transport):
        port = next(self.ports)
        return sip.register(port, sip.ua_info(), user=f"u{port}", via=via, transport=transport)

    def route(self, via, transport):
        return sip.route_command(via, sip.route_body("set-route", "1", "127.0.0.3:UDP:5060"), transport)

    def test_who_is_named_may(self):
        for make in (self.registration, self.subscribe, self.route):
            self.assertEqual(self.exchange(self.mine, "TCP", make).status, 200, make)
        self.assertFalse(self.proxy.has("may not control"))

    def test_who_is_not_named_gets_403_and_no_answer_to_a_route_command(self):
        for uid in self.strangers():
            for make in (self.registration, self.subscribe):
                self.assertEqual(self.exchange(uid, "TCP", make).status, 403, make)
            self.assertIsNone(self.exchange(uid, "TCP", self.route))
            texts = [text for _, _, text in self.proxy.lines(4) if "may not control the proxy" in text]
            for method in ("REGISTER", "SUBSCRIBE", "route command"):
                self.assertEqual(sum(text.startswith(method) and f"user id {uid} " in text for text in texts), 1, texts)
            self.assertFalse(self.proxy.has("Successfully Added Client key=1"))
            self.assertFalse(self.proxy.has("proxy_transport=UDP"))

    def test_a_datagram_does_not_tell_whose_it_is(self):
        for make in (self.registration, self.subscribe):
            self.assertEqual(self.exchange(self.mine, "UDP", make).status, 403, make)
        self.udp().send(self.route("127.0.0.1:9", "UDP"))
        self.proxy.wait_log("its user is not known: a datagram does not tell whose it is", count=3)
        self.assertFalse(self.proxy.has("Successfully Added Client key=1"))
        self.assertFalse(self.proxy.has("proxy_transport=UDP"))

    def test_who_may_not_cannot_fill_the_transactions(self):
        """What is for the registrar's own entry takes a transaction of the proxy, whatever its method."""
        self.register_over_tcp(5071)
        with user(self.mine if self.stranger is None else self.stranger):
            phone = self.udp(5071)
        for _ in range(1100):  # more than there are
            phone.send(sip.request("MESSAGE", "sip:registrar@127.0.0.1", via=phone.via, frm="<sip:alice@127.0.0.1>",
                                   to="<sip:registrar@127.0.0.1>"))
            self.assertEqual(phone.receive().status, 403)
        self.assertEqual(self.exchange(self.mine, "TCP", self.registration).status, 200)

    def test_several_may_be_named(self):
        self.restart_with(f"{NOBODY} {self.mine}")
        for uid in {self.mine, self.mine if self.stranger is None else self.stranger}:
            self.assertEqual(self.exchange(uid, "TCP", self.registration).status, 200)

    def test_what_is_no_list_keeps_everybody_out(self):
        self.restart_with("root")
        self.assertTrue(self.proxy.has("'root' for control-uids is not a list of user ids: nobody may control"))
        self.assertEqual(self.exchange(self.mine, "TCP", self.registration).status, 403)

    def test_a_sender_who_is_gone_is_not_known(self):
        self.proxy.process.send_signal(signal.SIGSTOP)
        stream = sip.connect()
        stream.send(self.registration("%s:%d" % stream.local, "TCP"))
        stream.close()
        self.proxy.process.send_signal(signal.SIGCONT)
        self.proxy.wait_log("refused: its user is not known: its socket is gone")
        self.assertFalse(self.proxy.has("Successfully Added Client key=1"))

    def test_a_forged_source_address_gains_nothing(self):
        """A socket of the same port on another address can name the first one's address as its datagram's source, and
        be closed before it is looked for."""
        peer = self.udp()
        with user(self.mine if self.stranger is None else self.stranger):
            forger = self.udp(peer.port, "127.0.0.9")
        source = struct.pack("=I4s4s", 0, socket.inet_aton(peer.ip), bytes(4))
        forger.socket.sendmsg([self.registration(peer.via, "UDP")], [(socket.IPPROTO_IP, IP_PKTINFO, source)], 0,
                              (sip.LOOP, 5060))
        forger.close()
        self.assertEqual(peer.receive().status, 403)

    def test_the_way_round_by_the_proxy_itself_is_closed(self):
        """Without user part a SUBSCRIBE goes to the registrar's own entry, and by then its sender is not known."""
        self.register_over_tcp(5071)
        phone = self.udp(5071)
        phone.send(self.subscribe(phone.via, "UDP", "<sip:127.0.0.1>"))
        self.assertEqual(phone.receive().status, 403)
        self.proxy.wait_log("refused: its user is not known: it came by way of the proxy")

    def test_calls_are_anybodys(self):
        self.register_over_tcp(5071)
        self.assertEqual(self.exchange(self.mine, "TCP", self.route).status, 200)
        network = self.udp(5060, "127.0.0.3")
        with user(self.mine if self.stranger is None else self.stranger):
            phone = self.udp(5071)
        phone.send(sip.request("MESSAGE", "sip:bob@example.org", via=phone.via, frm="<sip:alice@example.net>",
                               to="<sip:bob@example.org>"))
        self.assertEqual(network.receive().method, "MESSAGE")


if __name__ == "__main__":
    unittest.main(verbosity=1)
