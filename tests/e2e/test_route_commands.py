"""Route commands: byte-exact answers, what they open and close, and what is refused without an answer."""
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


if __name__ == "__main__":
    unittest.main(verbosity=1)
