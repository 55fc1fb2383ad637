"""Local registration of external user agents and internal modules."""
import unittest

from support import sip
from support.proxy import ProxyCase


class Registration(ProxyCase):
    def test_external_client_gets_its_profile_id(self):
        answer = self.register(5071)
        self.assertEqual(answer.get("Zel-Profile-ID"), "1")
        self.assertEqual(answer.get("Expires"), "3600")
        self.assertEqual(answer.get("Contact"), "<sip:127.0.0.1:5071>")
        self.assertTrue(self.proxy.has("Successfully Added Client key=1"))

    def test_internal_client_gets_no_profile_id(self):
        answer = self.register(5072, sip.MODULE_INFO.format(packages="presence"), user="module")
        self.assertIsNone(answer.get("Zel-Profile-ID"))
        self.assertEqual(answer.get("Expires"), "3600")

    def test_second_profile_gets_the_next_id(self):
        self.register(5071)
        answer = self.register(5072, sip.ua_info("work", "bob@example.net"), user="bob")
        self.assertEqual(answer.get("Zel-Profile-ID"), "2")

    def test_over_tcp_the_answer_comes_on_the_connection(self):
        stream = self.connect()
        stream.send(sip.register(5071, sip.ua_info(), transport="TCP"))
        answer = stream.receive()
        self.assertEqual((answer.status, answer.get("Zel-Profile-ID")), (200, "1"))

    def test_a_retransmission_gets_the_same_bytes_again(self):
        peer = self.udp()
        data = sip.register(5071, sip.ua_info(), via=peer.via)
        peer.send(data)
        first = peer.receive()
        peer.send(data)
        self.assertEqual(peer.receive().raw, first.raw)
        self.assertEqual(self.proxy.log().count("Calling handle_registrar_register_message(ssc)"), 1)

    def test_deregistration_removes_the_client(self):
        self.register(5071, cseq=1)
        answer = self.register(5071, cseq=2, expires=0)
        self.assertEqual(answer.get("Expires"), "0")
        self.proxy.wait_log("Delete Client is Successful")
        self.register(5071, cseq=3, call_id="again@127.0.0.1")

    def test_a_new_call_id_with_expires_0_is_not_answered_and_changes_nothing(self):
        self.register(5071)
        peer = self.udp()
        peer.send(sip.register(5071, sip.ua_info(), via=peer.via, expires=0, call_id="other@127.0.0.1"))
        self.proxy.wait_log("IMSE_REG: default handler RE-REG ,can't enter here")
        self.assertTrue(peer.nothing())
        self.register(5071, cseq=2, expires=0)

    def test_a_body_with_layout_nuls_or_another_encoding_is_read(self):
        body = sip.ua_info("\n home\n ")
        self.assertEqual(self.register(5071, body.encode() + bytes(3)).get("Zel-Profile-ID"), "1")
        latin1 = sip.ua_info("home", "sip:\xe4@example.net").replace("UTF-8", "ISO-8859-1")
        self.register(5072, latin1.encode("latin-1"), user="bob")
        self.assertTrue(self.proxy.has("\xe4@example.net"), "as UTF-8")

    def test_a_body_in_an_encoding_that_is_not_read_is_refused(self):
        # Behind its first NUL nothing of a message is looked at, so UTF-16 does not get through either.
        for body in (sip.ua_info().replace("UTF-8", "UTF-7"), sip.ua_info().encode("utf-16")):
            self.register(5071, body, expect=400)
        self.assertEqual(self.proxy.log().count("Error in get_package 400"), 2)

    def test_refusals(self):
        self.register(5071, "<ua-info></ua-info>", expect=400)
        self.register(5071, "<who-knows/>", expect=400)
        self.register(5071, "", expect=400)
        self.register(5071, sip.ua_info(), expires=0, expect=400)
        self.register(5071, '<!DOCTYPE a [<!ENTITY b "c">]><ua-info><profile-info><name>&b;</name></profile-info></ua-info>',
                      expect=400)
        self.register(5071)

    def test_a_register_without_contact_is_answered_400(self):
        peer = self.udp()
        peer.send(sip.request("REGISTER", "sip:127.0.0.1", via=peer.via, frm="<sip:a@127.0.0.1>", to="<sip:a@127.0.0.1>",
                              headers=[("Expires", "60"), ("Content-Type", "application/xml")], body=sip.ua_info()))
        self.assertEqual(peer.receive().status, 400)

    def test_overlapping_client_of_the_same_profile_is_refused_403(self):
        self.register(5071, sip.ua_info(tags=["t"]))
        self.register(5072, sip.ua_info(tags=["t"]), user="bob", expect=403)

    def test_other_methods_to_the_registrar_go_the_proxy_way(self):
        peer = self.udp(5071)
        self.register(5071)
        peer.send(sip.request("OPTIONS", "sip:127.0.0.1", via=peer.via, frm="<sip:alice@127.0.0.1>", to="<sip:127.0.0.1>"))
        self.proxy.wait_log("ERROR: Can't route OPTIONS request")


class KnownParties(ProxyCase):
    def test_a_new_call_id_replaces_an_external_user_agent_that_still_matches(self):
        self.register(5071, sip.ua_info(tags=["t"]))
        answer = self.register(5071, sip.ua_info(tags=["t"]), call_id="new@127.0.0.1", expires=100)
        self.assertEqual((answer.get("Expires"), answer.get("Zel-Profile-ID")), ("100", "1"))
        self.register(5071, sip.ua_info(tags=["t"]), call_id="new@127.0.0.1", cseq=2, expires=0)

    def test_a_new_call_id_that_no_longer_matches_is_refused_403(self):
        self.register(5071, sip.ua_info(tags=["t"]))
        self.register(5071, sip.ua_info(aor="other@example.net", tags=["u"]), call_id="new@127.0.0.1", expect=403)

    def test_a_modules_new_call_id_is_refused_403_and_a_module_on_an_externals_port_400(self):
        self.register(5072, sip.MODULE_INFO.format(packages="p"), user="module")
        self.register(5072, sip.MODULE_INFO.format(packages="p"), user="module", call_id="new@127.0.0.1", expect=403)
        self.register(5071)
        self.register(5071, sip.MODULE_INFO.format(packages="p"), call_id="newer@127.0.0.1", expect=400)

    def test_who_moves_to_another_port_is_known_by_its_from_but_anonymous_parties_are_not(self):
        self.register(5071, sip.ua_info(tags=["t"]))
        self.register(5081, sip.ua_info(tags=["t"]), call_id="moved@127.0.0.1")
        self.register(5091, sip.ua_info("work", "x@example.net"), user="anonymous")
        self.register(5092, sip.ua_info("work", "y@example.net", tags=["y"]), user="anonymous")
        self.assertTrue(self.proxy.has("IMSE_REG: is_match: anonymous user match failed"))

    def test_a_refresh_carries_the_new_expiry_and_the_profile(self):
        self.register(5071)
        answer = self.register(5071, cseq=2, expires=77)
        self.assertEqual((answer.get("Expires"), answer.get("Zel-Profile-ID")), ("77", "1"))

    def test_requests_out_of_order_or_of_another_party_are_answered_400(self):
        self.register(5071, cseq=5)
        self.register(5071, cseq=4, expect=400)
        self.register(5071, cseq=6, user="mallory", expect=400)
        self.register(5071, cseq=6, expires=0)

    def test_other_content_types_and_encodings_are_answered_400(self):
        for change in (lambda data: data.replace(b"application/xml", b"application/xml;charset=utf-8"),
                       lambda data: data.replace(b"application/xml", b"text/plain"),
                       lambda data: data.replace(b'encoding="UTF-8"', b'encoding="UTF-7"'),
                       lambda data: data.replace(b'encoding="UTF-8"', b'encoding="UTF-16"'),
                       lambda data: data.replace(b"CSeq: 1 ", b"CSeq: 99999999999999999999 ")):
            peer = self.udp()
            peer.send(change(sip.register(5071, sip.ua_info(), via=peer.via)))
            self.assertEqual(peer.receive().status, 400)
        self.register(5071)

    def test_a_wrong_content_length_is_no_message(self):
        peer = self.udp()
        peer.send(sip.register(5071, sip.ua_info(), via=peer.via).replace(b"Content-Length: ", b"Content-Length: 9"))
        self.assertTrue(peer.nothing())
        self.register(5071)


class Moved(ProxyCase):
    """A user agent that registers again from another port."""

    def message(self, frm, to, port, **options):
        return sip.request("MESSAGE", f"sip:{to}@127.0.0.1", via=f"127.0.0.1:{port}",
                           frm=f"<sip:{frm}@127.0.0.1>;tag=1", to=f"<sip:{to}@127.0.0.1>", **options)

    def test_over_udp_it_is_reached_at_its_new_port_and_another_takes_the_old_one(self):
        old, bob, new = self.udp(5071), self.udp(5072), self.udp(5079)
        self.register(5071)
        self.register(5072, sip.ua_info("work", "bob@example.net"), user="bob")
        self.register(5079, sip.ua_info(tags=["t"], events="e"), expect=403, call_id="moved")  # nothing in common
        self.register(5071, sip.ua_info(tags=["t"]), cseq=2, expires=0)
        self.register(5071, sip.ua_info(tags=["t"]), call_id="tagged")
        self.register(5079, sip.ua_info(tags=["t"]), call_id="moved")
        bob.send(self.message("bob", "alice", 5072, body="there"))
        self.assertEqual(new.receive().body, b"there")
        new.send(self.message("alice", "bob", 5079, body="from there"))
        self.assertEqual(bob.receive().body, b"from there")
        self.register(5071, sip.ua_info("work", "carol@example.net"), user="carol")
        bob.send(self.message("bob", "carol", 5072, body="here"))
        self.assertEqual(old.receive().body, b"here")
        self.register(5079, cseq=2, expires=0, call_id="moved")
        self.register(5071, cseq=2, expires=0, user="carol")

    def test_over_tcp_it_is_reached_at_its_new_port_and_another_takes_the_old_one(self):
        old, bob, new = self.tcp(5071), self.tcp(5072), self.tcp(5079)
        self.register(5071, sip.ua_info(tags=["t"]))
        before = self.accept(old)
        self.register(5072, sip.ua_info("work", "bob@example.net"), user="bob")
        to_bob = self.accept(bob)
        self.register(5079, sip.ua_info(tags=["t"]), call_id="moved")
        to_alice = self.accept(new)
        from_bob, from_alice = self.connect(), self.connect()
        from_bob.send(self.message("bob", "alice", 5072, body="there", transport="TCP"))
        self.assertEqual(to_alice.receive().body, b"there")
        from_alice.send(self.message("alice", "bob", 5079, body="from there", transport="TCP"))
        self.assertEqual(to_bob.receive().body, b"from there")
        before.close()
        self.register(5071, sip.ua_info("work", "carol@example.net"), user="carol")
        to_carol = self.accept(old)
        from_bob.send(self.message("bob", "carol", 5072, body="here", transport="TCP"))
        self.assertEqual(to_carol.receive().body, b"here")

    def test_a_taken_port_is_refused_and_the_registration_stays(self):
        alice, bob = self.udp(5071), self.udp(5072)
        self.register(5071, sip.ua_info(tags=["t"]))
        self.register(5072, sip.ua_info("work", "bob@example.net"), user="bob")
        for port in (5060, 0, 65536):
            self.register(port, sip.ua_info(tags=["t"]), call_id="moved", expect=400)
        bob.send(self.message("bob", "alice", 5072, body="still here"))
        self.assertEqual(alice.receive().body, b"still here")
        self.register(5071, cseq=2, expires=0)
        # The registrar's own entry is untouched.
        self.register(5060, sip.ua_info("work", "x@example.net"), user="mallory", expect=400)


class Many(ProxyCase):
    options = {"level": 4}

    def test_clients_and_profiles_are_bounded_and_those_there_stay(self):
        for number in range(64):
            self.register(6000 + number, sip.ua_info(f"profile{number}", f"u{number}@example.net"), user=f"u{number}")
        self.register(6064, sip.ua_info("profile64", "u64@example.net"), user="u64", expect=400)
        for number in range(64, 256):
            self.register(6000 + number, sip.ua_info("profile1", f"u{number}@example.net", tags=[f"t{number}"]),
                          user=f"u{number}")
        self.register(6300, sip.ua_info("profile1", "u300@example.net", tags=["t300"]), user="u300", expect=400)
        self.register(6000, sip.ua_info("profile0", "u0@example.net"), user="u0", cseq=2, expires=0)
        self.register(6300, sip.ua_info("profile1", "u300@example.net", tags=["t300"]), user="u300", call_id="again")


class NetworkSide(ProxyCase):
    def test_a_register_for_the_loopback_address_from_the_network_side_is_refused_403(self):
        self.set_route("1", "127.0.0.3:UDP:5060")
        network = self.udp(5060, "127.0.0.3")
        network.send(sip.register(5071, sip.ua_info(), via=network.via), ("127.0.0.2", 5060))
        self.assertEqual(network.receive().status, 403)
        stream = self.connect(to=("127.0.0.2", 5060), source=("127.0.0.3", 0))
        stream.send(sip.register(5071, sip.ua_info(), via="127.0.0.3:5060", transport="TCP"))
        self.assertEqual(stream.receive().status, 403)
        self.assertFalse(self.proxy.has("Successfully Added Client key=1"))


if __name__ == "__main__":
    unittest.main(verbosity=1)
