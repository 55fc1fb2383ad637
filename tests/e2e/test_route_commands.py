"""Route commands: byte-exact answers, what they open and close, and what is refused without an answer."""
import subprocess
import unittest

from support import sip
from support.proxy import ProxyCase


class RouteCommands(ProxyCase):
    def test_set_route_answers_with_the_profile_id_byte_for_byte(self):
        network = self.tcp(5060, "127.0.0.3")
        peer = self.udp()
        sent = sip.route_command(peer.via, sip.route_body("set-route", "1"))
        peer.send(sent)
        answer = peer.receive()
        request = sip.Message(sent)
        expected = ("SIP/2.0 200 OK\r\n" + "".join(
            f"{name}: {request.get(name)}\r\n" for name in ("From", "To", "Call-ID", "CSeq", "Max-Forwards", "Via"))
            + f"Content-Length: {len(sip.route_answer('1'))}\r\n\r\n").encode() + sip.route_answer("1")
        self.assertEqual(answer.raw, expected)
        self.assertEqual(self.accept(network).peer, ("127.0.0.2", 5060))

    def test_over_tcp_the_answer_comes_on_the_same_connection(self):
        stream = self.connect()
        stream.send(sip.route_command("127.0.0.1:5070", sip.route_body("set-route", "7", "127.0.0.3:UDP:5060"), "TCP"))
        answer = stream.receive()
        self.assertEqual(answer.status, 200)
        self.assertEqual(answer.body, sip.route_answer("7"))
        self.assertIsNone(answer.get("Content-Type"))

    def test_set_route_twice_is_acknowledged_and_keeps_the_first(self):
        self.set_route("1", "127.0.0.3:UDP:5060")
        self.set_route("1", "127.0.0.4:UDP:5060")
        self.assertTrue(self.proxy.has("Domain already exists"))

    def test_update_route_to_another_proxy_moves_the_connection(self):
        first = self.tcp(5060, "127.0.0.3")
        second = self.tcp(5060, "127.0.0.4")
        self.set_route("1", "127.0.0.3:TCP:5060")
        old = self.accept(first)
        self.assertEqual(self.command(sip.route_body("update-route", "1", "127.0.0.4:TCP:5060")).status, 200)
        self.accept(second)
        self.assertTrue(old.closed())

    def test_update_route_to_udp_closes_the_connection_and_opens_none(self):
        first = self.tcp(5060, "127.0.0.3")
        second = self.tcp(5060, "127.0.0.4")
        self.set_route("1", "127.0.0.3:TCP:5060")
        old = self.accept(first)
        self.assertEqual(self.command(sip.route_body("update-route", "1", "127.0.0.4:UDP:5060")).status, 200)
        self.assertTrue(old.closed())
        self.assertTrue(second.nothing())
        self.proxy.wait_log("UDP mode is specified for client connection")

    def test_update_route_with_another_transport_only_changes_nothing(self):
        network = self.tcp(5060, "127.0.0.3")
        self.set_route("1", "127.0.0.3:TCP:5060")
        stream = self.accept(network)
        self.assertEqual(self.command(sip.route_body("update-route", "1", "127.0.0.3:UDP:5060")).status, 200)
        self.assertTrue(stream.nothing())
        self.assertFalse(self.proxy.has("UDP mode is specified for client connection"))

    def test_delete_route_works_with_a_malformed_address(self):
        network = self.tcp(5060, "127.0.0.3")
        self.set_route("1", "127.0.0.3:TCP:5060")
        stream = self.accept(network)
        answer = self.command(sip.route_body("delete-route", "1", "nonsense"))
        self.assertEqual(answer.body, sip.route_answer("1"))
        self.assertTrue(stream.closed())
        self.assertTrue(self.proxy.has("Deleted domain key=0"))

    def test_update_route_of_the_port_alone_moves_the_connection_and_answers_byte_for_byte(self):
        first, second = self.tcp(5060, "127.0.0.3"), self.tcp(5061, "127.0.0.3")
        self.set_route("1", "127.0.0.3:TCP:5060")
        old = self.accept(first)
        self.assertEqual(self.command(sip.route_body("update-route", "1", "127.0.0.3:TCP:5061")).body,
                         sip.route_answer("1"))
        self.accept(second)
        self.assertTrue(old.closed())

    def test_delete_route_of_an_unknown_profile_is_acknowledged(self):
        self.assertEqual(self.command(sip.route_body("delete-route", "77", "")).body, sip.route_answer("77"))
        self.assertTrue(self.proxy.has("ERROR: Domain entry does not exist "))

    def test_the_credentials_of_a_registered_profile_come_with_its_route(self):
        profile_id = self.register(5071).get("Zel-Profile-ID")
        self.set_route(profile_id, "127.0.0.3:UDP:5060")
        self.assertTrue(self.proxy.has("username is alice@example.net, password is wonderland, op_mode is ietf-shared"))

    def test_two_commands_in_one_segment_and_one_in_pieces(self):
        stream = self.connect()
        commands = [sip.route_command("127.0.0.1:5070", sip.route_body("set-route", str(n), "127.0.0.3:UDP:5060"), "TCP")
                    for n in range(1, 4)]
        stream.send(commands[0] + commands[1])
        self.assertEqual(stream.receive().body, sip.route_answer("1"))
        self.assertEqual(stream.receive().body, sip.route_answer("2"))
        for at in range(0, len(commands[2]), 11):
            stream.send(commands[2][at:at + 11])
        self.assertEqual(stream.receive().body, sip.route_answer("3"))

    def test_unknown_action_is_acknowledged(self):
        answer = self.command(sip.route_body("paint-route", "9"))
        self.assertEqual((answer.status, answer.body), (200, sip.route_answer("9")))

    def refused(self, body, line):
        peer = self.udp()
        peer.send(sip.route_command(peer.via, body))
        self.proxy.wait_log(line)
        self.assertTrue(peer.nothing())

    def test_update_route_of_an_unknown_profile_is_not_answered(self):
        self.refused(sip.route_body("update-route", "5"), "ERROR: update-route called for a non-existing entry")

    def test_a_short_address_is_not_answered(self):
        self.refused(sip.route_body("set-route", "5", "127.0.0.3:TCP"),
                     "ERROR: check why address/transport/port is incorrect")

    def test_an_empty_body_is_not_answered(self):
        self.refused("", "ERROR: check why the getContent() returns empty string")

    def test_bodies_that_are_no_xml_are_not_answered(self):
        self.refused("<route-info><action>set-route", "ERROR: check why address/transport/port is incorrect")
        self.refused('<!DOCTYPE r [<!ENTITY a SYSTEM "file:///etc/passwd">]><route-info><action>&a;</action></route-info>',
                     "ERROR: check why address/transport/port is incorrect")

    def test_a_device_without_address_is_acknowledged_and_logged(self):
        self.assertEqual(self.command(sip.route_body("set-route", "1", device="no-such-device")).status, 200)
        self.assertTrue(self.proxy.has("net_intf_ip is empty"))
        self.set_route("1", "127.0.0.3:UDP:5060")
        self.assertFalse(self.proxy.has("Domain already exists"))

    def test_a_message_with_a_user_part_is_no_route_command(self):
        self.register(5071)
        peer = self.udp(5071)
        other = sip.request("MESSAGE", "sip:bob@127.0.0.1", via=peer.via, frm="<sip:alice@127.0.0.1>",
                            to="<sip:bob@127.0.0.1>", body=sip.route_body("set-route"))
        peer.send(other)
        self.proxy.wait_log("ERROR: Can't find any destination client based on from_address (sip:bob@127.0.0.1)")
        self.assertFalse(self.proxy.has("will be handled by Proxy"))

    def test_a_message_from_the_network_side_is_never_a_route_command(self):
        self.set_route("1", "127.0.0.3:UDP:5060")
        network = self.udp(5060, "127.0.0.3")
        network.send(sip.route_command(network.via, sip.route_body("delete-route", "1")), ("127.0.0.2", 5060))
        self.proxy.wait_log("ERROR: check why client or domain key empty")
        self.assertFalse(self.proxy.has("Deleted domain"))
        self.assertTrue(network.nothing())


class EndedRoutes(ProxyCase):
    """What is ended stays ended, and nothing else ends with it."""

    def request(self, port=5071, body="hi", call_id=None):
        return sip.request("MESSAGE", "sip:bob@example.net", via=f"127.0.0.1:{port}", frm="<sip:alice@example.net>",
                           to="<sip:bob@example.net>", transport="TCP", body=body, call_id=call_id)

    def test_nothing_goes_to_the_old_proxy_after_update_route_to_udp(self):
        for how in ("open", "lost"):
            with self.subTest(how):
                old = self.tcp(5060, "127.0.0.3")
                self.register(5071)
                self.set_route("1", "127.0.0.3:TCP:5060")
                ua, stream = self.connect(), self.accept(old)
                ua.send(self.request())
                stream.receive()
                if how == "lost":  # the loss is still to be handled when the command comes, or was just handled
                    stream.close()
                self.assertEqual(self.command(sip.route_body("update-route", "1", "127.0.0.4:UDP:5060")).status, 200)
                if how == "open":
                    self.assertTrue(stream.closed())
                for _ in range(3):
                    ua.send(self.request())
                self.proxy.wait_log("to 127.0.0.3:5060 dropped: the connection is closed")
                self.assertTrue(old.nothing())
                self.command(sip.route_body("delete-route", "1"))
                ua.send(self.request())
                self.assertTrue(old.nothing())
                old.close()

    def test_a_route_set_anew_opens_the_connection_again(self):
        listener = self.tcp(5060, "127.0.0.3")
        self.register(5071)
        ua = self.connect()
        for _ in range(3):
            self.set_route("1", "127.0.0.3:TCP:5060")
            stream = self.accept(listener)
            ua.send(self.request())
            self.assertEqual(stream.receive().body, b"hi")
            self.command(sip.route_body("delete-route", "1"))
            self.assertTrue(stream.closed())

    def test_two_profiles_with_one_proxy_share_its_connection_to_the_last(self):
        listener = self.tcp(5060, "127.0.0.3")
        ids = [self.register(port, sip.ua_info(profile, f"{user}@example.net"), user=user).get("Zel-Profile-ID")
               for port, profile, user in ((5071, "home", "alice"), (5072, "work", "bob"))]
        for action in ("delete-route", "update-route"):
            for profile in ids:
                self.set_route(profile, "127.0.0.3:TCP:5060")
            stream, ua, gone = self.accept(listener), self.connect(), self.connect()
            ua.send(self.request(5072, "open"))
            seen = stream.receive()
            self.command(sip.route_body(action, ids[0], "127.0.0.4:UDP:5060"))
            gone.send(self.request(5071, "not any more"))
            stream.send(sip.response(seen, 200, "OK"))
            self.assertEqual(ua.receive().status, 200)
            ua.send(self.request(5072, "after"))
            self.assertEqual(stream.receive().body, b"after")
            self.assertTrue(listener.nothing(0))
            self.assertTrue(stream.nothing(0.2))
            for profile in ids:
                self.command(sip.route_body("delete-route", profile))
            self.assertTrue(stream.closed())

    def test_update_route_knows_tcp_in_capitals_only(self):
        second = self.tcp(5060, "127.0.0.4")
        self.set_route("1", "127.0.0.3:UDP:5060")
        self.assertEqual(self.command(sip.route_body("update-route", "1", "127.0.0.4:tcp:5060")).status, 200)
        self.proxy.wait_log("UDP mode is specified for client connection")
        self.assertTrue(second.nothing())
        self.assertEqual(self.command(sip.route_body("update-route", "1", "127.0.0.4:TCP:5061")).status, 200)
        self.assertEqual(self.command(sip.route_body("update-route", "1", "127.0.0.4:TCP:5060")).status, 200)
        self.accept(second)


class ManyRoutes(ProxyCase):
    options = {"level": 4}

    def test_a_thousand_routes_that_come_and_go_leave_nothing_behind(self):
        network = self.udp(5060, "127.0.0.3")
        peer = self.udp()

        def rounds(count):
            for _ in range(count):
                for action in ("set-route", "delete-route"):
                    peer.send(sip.route_command(peer.via, sip.route_body(action, "1", "127.0.0.3:UDP:5060")))
                    self.assertEqual(peer.receive().status, 200)
        rounds(100)
        descriptors, memory = self.proxy.descriptors(), self.proxy.private_kib()
        rounds(1000)
        self.assertEqual(self.proxy.descriptors(), descriptors)
        self.assertLess(self.proxy.private_kib() - memory, 1024)
        self.assertTrue(network.nothing(0))


class FullRoutes(ProxyCase):
    options = {"level": 4, "settings": "<max-routes>2</max-routes>"}

    def test_a_route_above_the_bound_is_acknowledged_and_not_set(self):
        line = "There are 2 routes already - one of profile 3 is not set (max-routes)"
        for profile in ("1", "2"):
            self.set_route(profile, "127.0.0.3:UDP:5060")
        self.assertEqual(self.set_route("3", "127.0.0.3:UDP:5060").body, sip.route_answer("3"))
        self.proxy.wait_log(line)
        self.assertEqual(self.command(sip.route_body("delete-route", "1")).status, 200)
        self.set_route("3", "127.0.0.3:UDP:5060")
        self.assertEqual(self.command(sip.route_body("update-route", "3", "127.0.0.4:UDP:5060")).status, 200)
        self.assertEqual(self.proxy.log().count("max-routes"), 1)


class Unreachable(ProxyCase):
    def setUp(self):
        super().setUp()
        self.address("192.0.2.7")

    def address(self, ip):
        """One more address of this host: not a loopback one, and without a way to its neighbours."""
        subprocess.run(["ip", "address", "add", f"{ip}/32", "dev", "lo"], check=True)
        self.addCleanup(subprocess.run, ["ip", "address", "del", f"{ip}/32", "dev", "lo"], check=True)

    def test_a_proxy_without_a_way_to_it_is_reached_by_the_first_request_after_there_is_one(self):
        self.register(5071)
        self.set_route("1", "192.0.2.10:TCP:5060", "192.0.2.7")
        self.proxy.wait_log("connecting 192.0.2.7:5060 to 192.0.2.10:5060 failed: Network is unreachable")
        ua = self.connect()
        message = sip.request("MESSAGE", "sip:bob@example.net", via="127.0.0.1:5071", frm="<sip:alice@example.net>",
                              to="<sip:bob@example.net>", transport="TCP", body="now")
        ua.send(message)
        self.proxy.wait_log("connecting 192.0.2.7:5060 to 192.0.2.10:5060 failed: Network is unreachable", count=2)
        self.address("192.0.2.10")
        ua.send(message)  # nobody listens yet: refused at once
        self.proxy.wait_log("failed: Connection refused")
        listener = self.tcp(5060, "192.0.2.10")
        ua.send(message)
        stream = self.accept(listener)
        seen = stream.receive()
        self.assertEqual(seen.body, b"now")
        stream.send(sip.response(seen, 200, "OK"))
        self.assertEqual(ua.receive().status, 200)


if __name__ == "__main__":
    unittest.main(verbosity=1)
