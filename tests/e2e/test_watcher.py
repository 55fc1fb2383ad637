"""The one watcher of the local registrations: subscription, the documents as they go out, and user agents that come and go."""
import os
import random
import socket
import subprocess
import time
import unittest
from xml.etree import ElementTree

from support import sip
from support.proxy import BIN, ProxyCase
from support.watcher import Watcher


def settings(scale):
    return f"<t1-ms>{500 // scale}</t1-ms><t2-ms>{4000 // scale}</t2-ms><t4-ms>{5000 // scale}</t4-ms>"


class Watching(ProxyCase):
    options = {"settings": settings(10)}

    def setUp(self):
        super().setUp()
        self.watcher = Watcher(self.udp())

    def started(self):
        self.watcher.subscribe()
        self.assertEqual(self.watcher.answered().status, 200)
        first = self.watcher.notified()
        self.assertEqual((first.get("Subscription-State"), first.body), ("active", b""))
        return first

    def test_create_update_and_delete(self):
        self.started()
        self.register(5071, sip.ua_info(aor="alice@example.net", tags=["a"]))
        create = self.watcher.notified()
        self.assertEqual(create.get("Event"), "local-reg-events")
        self.assertEqual(create.get("Content-Type"), "application/xml")
        self.assertEqual(create.get("Expires"), "3600")
        self.assertTrue(create.body.startswith(
            b'<?xml version="1.0" encoding="UTF-8"?>\n<reg-info>\n <profile-info>\n  <name>home</name>\n'
            b"  <zel-profile-id>1</zel-profile-id>\n </profile-info>\n <action>CREATE</action>\n <ua-info>\n  <id>1</id>\n"),
            create.body)
        self.assertIn(b"<impi>alice@example.net</impi>", create.body)
        self.register(5072, sip.ua_info(aor="bob@example.net", tags=["b"]), user="bob")
        update = self.watcher.notified()
        self.assertIn(b" <action>UPDATE</action>\n <update-info>add</update-info>\n <ua-info>\n  <id>2</id>\n", update.body)
        self.register(5072, sip.ua_info(), user="bob", cseq=2, expires=0)
        self.assertIn(b"<update-info>delete</update-info>", self.watcher.notified().body)
        self.register(5071, sip.ua_info(), cseq=2, expires=0)
        self.assertEqual(self.watcher.notified().body,
                         b'<?xml version="1.0" encoding="UTF-8"?>\n<reg-info>\n <profile-info>\n  <name></name>\n'
                         b"  <zel-profile-id>1</zel-profile-id>\n </profile-info>\n <action>DELETE</action>\n</reg-info>\n")

    def test_clients_that_were_there_before_are_told_with_the_subscription(self):
        self.register(5071, sip.ua_info(aor="alice@example.net"))
        self.register(5072, sip.ua_info(aor="bob@example.net"), user="bob")
        self.started()
        create = self.watcher.notified()
        self.assertEqual(create.body.count(b"<ua-info>"), 2)

    def test_changes_wait_for_the_answer_to_the_one_before(self):
        self.watcher.subscribe()
        self.watcher.answered()
        first = self.watcher.notified(status=0)
        for number in range(3):
            self.register(5071 + number, sip.ua_info(aor=f"u{number}@example.net"), user=f"u{number}")
        time.sleep(0.02)
        for expected in (b"<id>1</id>", b"<id>2</id>", b"<id>3</id>"):
            self.watcher.peer.send(sip.response(first, 200, "OK"))
            cseq = first.get("CSeq")
            while first.get("CSeq") == cseq:  # a retransmission of the unanswered one may come before
                first = self.watcher.notified(status=0)
            self.assertIn(expected, first.body)
        self.watcher.peer.send(sip.response(first, 200, "OK"))

    def test_refresh_and_unsubscribe(self):
        self.started()
        self.watcher.subscribe(expires=60)
        self.assertEqual(self.watcher.answered().status, 200)
        self.assertEqual(self.watcher.notified().get("Expires"), "3600")
        self.watcher.subscribe(expires=0)
        self.assertEqual(self.watcher.answered().status, 200)
        last = self.watcher.notified()
        self.assertEqual((last.get("Subscription-State"), last.get("Expires")), ("terminated", "3600"))
        self.register(5071)
        self.assertTrue(self.watcher.peer.nothing())

    def test_refusals(self):
        for options in ({"user": "other"}, {"event": "local-reg-events;id=1"}, {"event": "presence"}, {"expires": 0},
                        {"expires": None}):
            self.watcher.call_id = sip.unique("w")
            self.watcher.subscribe(**options)
            self.assertEqual(self.watcher.answered().status, 400, options)
        self.watcher.call_id = sip.unique("w")
        self.started()
        second = Watcher(self.udp())
        second.subscribe()
        self.assertEqual(second.answered().status, 400)
        self.watcher.subscribe(expires=None)
        self.assertEqual(self.watcher.answered().status, 500)
        self.register(5071)
        self.assertIn(b"CREATE", self.watcher.notified().body)

    def test_an_error_answer_ends_the_subscription_and_a_new_one_is_welcome(self):
        self.started()
        self.register(5071)
        self.watcher.notified(481, "Gone")
        self.assertEqual(self.watcher.notified().get("Subscription-State"), "terminated")
        again = Watcher(self.udp())
        again.subscribe()
        self.assertEqual(again.answered().status, 200)
        self.assertEqual(again.notified().body, b"")
        self.assertIn(b"CREATE", again.notified().body)

    def test_a_watcher_that_never_answers_loses_its_subscription_and_a_late_answer_harms_nobody(self):
        self.started()
        self.register(5071)
        lost = self.watcher.notified(status=0)
        self.proxy.wait_log("REGISTRAR:Subscriber Error response received", timeout=20)
        again = Watcher(self.udp())
        again.subscribe()
        self.assertEqual(again.answered().status, 200)
        self.assertEqual(again.notified().body, b"")
        create = again.notified()
        self.watcher.peer.send(sip.response(lost, 481, "Late"))
        self.register(5072, sip.ua_info(aor="bob@example.net"), user="bob")
        self.assertIn(b"CREATE", create.body)
        self.assertIn(b"UPDATE", again.notified().body)

    def test_a_restarted_watcher_is_refused_until_the_old_subscription_has_ended(self):
        self.started()
        again = Watcher(self.udp())
        again.subscribe()
        self.assertEqual(again.answered().status, 400)
        self.register(5071)  # told to the old one, which never answers

        def accepted():
            again.call_id, again.cseq, again.to = sip.unique("w"), 0, "<sip:registrar@127.0.0.1>"
            again.subscribe()
            return again.answered().status == 200
        sip.wait_until(accepted, 20, "the new subscription")
        self.assertEqual(again.notified().body, b"")
        self.assertIn(b"CREATE", again.notified().body)

    def test_a_provisional_answer_is_followed_by_the_final_one(self):
        self.started()
        self.register(5071)
        create = self.watcher.notified(status=183, reason="Progress")
        self.register(5072, sip.ua_info(aor="bob@example.net"), user="bob")
        self.watcher.peer.send(sip.response(create, 200, "OK"))
        self.assertIn(b"UPDATE", self.watcher.notified().body)

    def test_a_module_is_not_told(self):
        self.started()
        self.register(5072, sip.MODULE_INFO.format(packages="p"), user="module")
        self.register(5072, sip.MODULE_INFO.format(packages="p"), user="module", cseq=2, expires=0)
        self.assertTrue(self.watcher.peer.nothing())

    def test_ten_user_agents_while_the_watcher_is_slow(self):
        self.started()
        for number in range(10):
            self.register(5071 + number, sip.ua_info(aor=f"u{number}@example.net", tags=[f"t{number}"]), user=f"u{number}")
        for number in range(0, 10, 2):
            self.register(5071 + number, sip.ua_info(), user=f"u{number}", cseq=2, expires=0)
        told = []
        while len(told) < 15:
            notify = self.watcher.notified(status=0)
            time.sleep(0.02)
            self.watcher.peer.send(sip.response(notify, 200, "OK"))
            if notify.get("CSeq") not in [cseq for cseq, _ in told]:
                told.append((notify.get("CSeq"), notify.body))
        expected = [f"<id>{n}</id>" for n in (*range(1, 11), *range(1, 11, 2))]
        for (_, body), text in zip(told, expected):
            self.assertIn(text.encode(), body)

    def test_a_large_document_goes_over_tcp_when_the_watcher_takes_it(self):
        listener = self.tcp(self.watcher.peer.port)
        self.started()
        body = sip.UA_INFO.format(profile="home", aors="".join(
            f"<aor>u{n}@example.net<ua-specific-parameters><feature-tag>t{n}</feature-tag></ua-specific-parameters></aor>"
            for n in range(60)))
        self.register(5071, body)
        stream = self.accept(listener)
        create = stream.receive()
        self.assertEqual(create.body.count(b"<aor>"), 60)
        stream.send(sip.response(create, 200, "OK"))
        self.register(5072, sip.ua_info(aor="bob@other.net"), user="bob")
        self.assertIn(b"UPDATE", self.watcher.notified().body)

    def test_ten_user_agents_come_refresh_replace_themselves_and_leave(self):
        self.started()
        for number in range(10):
            port = 5071 + number
            info = sip.ua_info(aor=f"u{number}@example.net", tags=[f"t{number}"])
            self.register(port, info, user=f"u{number}", cseq=1)
            self.assertIn(f"<id>{number + 1}</id>".encode(), self.watcher.notified().body)
            self.register(port, info, user=f"u{number}", cseq=2)
        for number in range(10):
            info = sip.ua_info(aor=f"u{number}@example.net", tags=[f"t{number}"])
            self.register(5071 + number, info, user=f"u{number}", call_id=f"new-{number}@127.0.0.1", cseq=1)
        self.assertTrue(self.watcher.peer.nothing(0.2))
        for number in range(10):
            self.register(5071 + number, sip.ua_info(), user=f"u{number}", call_id=f"new-{number}@127.0.0.1", cseq=2,
                          expires=0)
            body = self.watcher.notified().body
            self.assertIn(b"DELETE" if number == 9 else f"<id>{number + 1}</id>".encode(), body)


def told(picture, notify):
    """What a watcher knows of the profiles after this NOTIFY: the ids of the user agents by profile id."""
    if not notify.body:
        return
    root = ElementTree.fromstring(notify.body)
    profile, action = root.findtext("profile-info/zel-profile-id"), root.findtext("action")
    ids = [int(element.text) for element in root.findall("ua-info/id")]
    if action == "CREATE":
        picture[profile] = ids
    elif action == "DELETE":
        del picture[profile]
    elif root.findtext("update-info") == "add":
        picture[profile] += ids
    else:
        for one in ids:
            picture[profile].remove(one)


class Full(ProxyCase):
    """As many user agents as there may be, with names long enough for several documents."""

    options = {"level": 4}

    def fill(self):
        for number in range(256):
            self.register(6000 + number, sip.ua_info("home", f"u{number}-{'x' * 400}@example.net", tags=[f"t{number}"]),
                          user=f"u{number}")

    def told_all(self, receive):
        """Answers NOTIFYs until everybody was told; gives the sizes of the documents."""
        picture, sizes = {}, []
        while sum(map(len, picture.values())) < 256:
            notify = receive()
            told(picture, notify)
            sizes.append(len(notify.body))
        self.assertEqual(picture, {"1": list(range(1, 257))})
        self.assertGreater(len(sizes), 2)
        self.assertLessEqual(max(sizes), 60 * 1024)
        return sizes

    def test_a_late_watcher_is_told_of_everybody_over_udp(self):
        self.fill()
        watcher = Watcher(self.udp())
        watcher.peer.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        watcher.subscribe()
        self.assertEqual(watcher.answered().status, 200)
        self.told_all(watcher.notified)
        self.register(6000, sip.ua_info(), user="u0", cseq=2, expires=0)
        self.assertIn(b"<update-info>delete</update-info>", watcher.notified().body)

    def test_a_late_watcher_is_told_of_everybody_over_tcp(self):
        self.fill()
        watcher = Watcher(self.udp())
        listener = self.tcp(watcher.peer.port)
        watcher.subscribe()
        self.assertEqual(watcher.answered().status, 200)
        self.assertEqual(watcher.notified().body, b"")
        stream = self.accept(listener)

        def receive():
            notify = stream.receive()
            stream.send(sip.response(notify, 200, "OK"))
            return notify
        self.told_all(receive)

    def test_a_silent_watcher_keeps_nobody_out_and_is_told_the_truth_when_it_answers(self):
        watcher = Watcher(self.udp())
        watcher.subscribe()
        self.assertEqual(watcher.answered().status, 200)
        watcher.notified()
        profiles = ("home", "work", "spare")
        # The first of each profile is told; then the watcher falls silent.
        picture = {}
        for number, profile in enumerate(profiles):
            self.register(6000 + number, sip.ua_info(profile, f"u{number}@example.net", tags=[f"t{number}"]),
                          user=f"u{number}")
            notify = watcher.notified(status=0 if number == 2 else 200)
            told(picture, notify)
        for number in range(3, 303):
            user, body = f"u{number}", sip.ua_info(profiles[number % 2], f"u{number}@example.net", tags=[f"t{number}"])
            self.register(6000 + number, body, user=user)
            if number % 3:
                self.register(6000 + number, body, user=user, cseq=2, expires=0)
        self.register(6002, sip.ua_info("spare"), user="u2", cseq=2, expires=0)  # "spare" has nobody left
        self.assertTrue(self.proxy.has("NOTIFYs for a watcher that does not answer are dropped"))
        watcher.peer.send(sip.response(notify, 200, "OK"))
        answered = notify.get("CSeq")
        expected = {"1": [], "2": []}
        for number in (0, 1, *range(3, 303, 3)):
            expected[str(number % 2 + 1)].append(number + 1)
        end = time.monotonic() + 20
        while picture != expected and time.monotonic() < end:
            notify = watcher.notified()
            if notify.get("CSeq") != answered:  # a retransmission has been told already
                told(picture, notify)
            answered = notify.get("CSeq")
        self.assertEqual(picture, expected)
        # From here on as ever.
        self.register(6000, sip.ua_info(), user="u0", cseq=2, expires=0)
        self.assertIn(b"<update-info>delete</update-info>", watcher.notified().body)


class Restarted(ProxyCase):
    def test_a_refresh_from_before_a_restart_is_answered_481_and_the_watcher_begins_anew(self):
        watcher = Watcher(self.udp())
        watcher.subscribe()
        answer = watcher.answered()
        self.assertEqual((answer.status, answer.get("Expires")), (200, "3600"))
        watcher.notified()
        self.proxy.stop()
        self.proxy.start()
        self.register(5071, sip.ua_info(aor="alice@example.net"))
        watcher.subscribe()
        self.assertEqual(watcher.answered().status, 481)
        self.register(5072, sip.ua_info(aor="bob@example.net"), user="bob")
        self.register(5071, cseq=2, expires=0)
        self.register(5071, sip.ua_info(aor="alice@example.net"), call_id="again")
        anew = Watcher(watcher.peer)
        anew.subscribe()
        self.assertEqual(anew.answered().status, 200)
        self.assertEqual(anew.notified().body, b"")
        picture = {}
        told(picture, anew.notified())
        self.assertEqual(picture, {"1": [2, 3]})
        anew.subscribe(expires=60)
        self.assertEqual(anew.answered().get("Expires"), "60")
        anew.notified()
        anew.subscribe(expires=0)
        self.assertEqual(anew.answered().get("Expires"), "0")

    def test_a_subscribe_without_from_tag_or_with_a_foreign_to_tag_never_reaches_the_registrar(self):
        peer = self.udp()
        for from_tag, to_tag, status in ((b"", "", 400), (b";tag=w", ";tag=old", 481)):
            data = sip.request("SUBSCRIBE", "sip:registrar@127.0.0.1", via=peer.via, frm="<sip:regua@127.0.0.1>;tag=w",
                               to=f"<sip:registrar@127.0.0.1>{to_tag}", contact=f"<sip:regua@{peer.via}>",
                               headers=[("Event", "local-reg-events"), ("Expires", 60)])
            peer.send(data.replace(b";tag=w", from_tag))
            self.assertEqual(peer.receive().status, status)
        self.assertFalse(self.proxy.has("handle_registrar_subscribe_message"))

    def test_the_answer_to_the_last_notify_reaches_the_registrar(self):
        watcher = Watcher(self.udp())
        watcher.subscribe()
        watcher.answered()
        watcher.notified()
        watcher.subscribe(expires=0)
        watcher.answered()
        self.assertEqual(watcher.notified().get("Subscription-State"), "terminated")
        self.proxy.wait_log("IMSE_REG: subscriber is NULL")


class BadDocuments(ProxyCase):
    def test_no_file_outside_the_profiles_is_read_and_memory_stays(self):
        before = self.proxy.resident_kib()
        for name in ("../config", "/etc/passwd", "..", "a/b", "x\u0001y", "&#0;", ".hidden"):
            call_id = sip.unique("b")
            answer = self.register(5071, sip.ua_info(name), expect=400 if name in ("&#0;", "x\u0001y") else 200,
                                   call_id=call_id)
            if answer.status == 200:
                self.register(5071, sip.ua_info(), cseq=2, expires=0, call_id=call_id)
        nested = "<ua-info>" + "<a>" * 20000
        self.register(5071, nested[:60000], expect=400)
        # As many addresses of record as a user agent may have; more are refused at once.
        for count, status in ((64, 200), (65, 400), (2500, 400)):
            many = "".join(f"<aor>u{n}@x<p/></aor>" for n in range(count))
            self.register(5071, sip.UA_INFO.format(profile="home", aors=many), expect=status, call_id=f"many-{count}")
        self.register(5071, sip.ua_info(), cseq=2, expires=0, call_id="many-64")
        self.assertLess(self.proxy.resident_kib() - before, 120 * 1024)
        for number, expires in enumerate(("99999999999999999999", "-5", "abc", "")):
            peer = self.udp()
            peer.send(sip.register(5081 + number, sip.ua_info("work", f"e{number}@example.net"), via=peer.via,
                                   expires=expires, user=f"e{number}"))
            self.assertEqual(peer.receive().status, 200 if number < 1 else 400, expires)
        self.register(5075, sip.ua_info("work", "z@example.net"), user="z")


class Lossy(ProxyCase):
    """REGISTER and SUBSCRIBE through a link that loses or doubles 30 % of the datagrams, both ways."""

    options = {"settings": settings(10), "level": 4}

    def test_each_request_is_answered_once_with_the_same_response(self):
        seed = 4711
        chance = random.Random(seed)
        peer = self.udp()
        for number in range(40):
            port = 6000 + number
            if number % 4 == 3:
                data = sip.request("SUBSCRIBE", "sip:registrar@127.0.0.1", via=peer.via, frm="<sip:eve@127.0.0.1>",
                                   to="<sip:registrar@127.0.0.1>", contact=f"<sip:eve@{peer.via}>",
                                   headers=[("Event", "local-reg-events"), ("Expires", 60)])
                expected = 400
            else:
                data = sip.register(port, sip.ua_info(aor=f"u{number}@example.net", tags=[f"t{number}"]), via=peer.via,
                                    user=f"u{number}")
                expected = 200
            call_id = sip.Message(data).get("Call-ID")
            answers = set()
            interval, tries = 0.05, 0
            while not answers and tries < 40:
                tries += 1
                if chance.random() > 0.3:
                    peer.send(data)
                    if chance.random() < 0.3:
                        peer.send(data)
                end = time.monotonic() + interval
                while time.monotonic() < end:
                    try:
                        answer = peer.receive(max(0.01, end - time.monotonic()))
                    except TimeoutError:
                        break
                    if answer.get("Call-ID") == call_id and chance.random() > 0.3:
                        answers.add(answer.raw)
                interval = min(interval * 2, 0.4)
            peer.send(data)
            answers.add(self.answer_of(peer, call_id))
            self.assertEqual(len(answers), 1, f"seed {seed}, request {number}")
            self.assertEqual(sip.Message(answers.pop()).status, expected)

    def test_an_accepted_subscription_and_its_notifies_survive_the_loss(self):
        seed = 4712
        chance = random.Random(seed)
        watcher = Watcher(self.udp())
        peer = watcher.peer
        subscribe = watcher.subscribe(branch="z9hG4bKlossy")
        answers, bodies = set(), {}
        self.register(5071)
        end = time.monotonic() + 20
        while time.monotonic() < end and not any(b"CREATE" in body for body in bodies.values()):
            try:
                message = peer.receive(0.05)
            except TimeoutError:
                if not answers and chance.random() > 0.3:
                    peer.send(subscribe)
                continue
            if chance.random() < 0.3:
                continue  # lost on its way here
            if message.status:
                answers.add(message.raw)
                continue
            bodies[message.get("CSeq")] = message.body
            for _ in range(chance.choice((0, 1, 1, 2))):  # lost, sent, doubled on its way there
                peer.send(sip.response(message, 200, "OK"))
        self.assertEqual(len(answers), 1, f"seed {seed}")
        self.assertTrue(any(b"CREATE" in body for body in bodies.values()), f"seed {seed}")

    def answer_of(self, peer, call_id):
        while True:
            answer = peer.receive()
            if answer.get("Call-ID") == call_id:
                return answer.raw


class Tool(ProxyCase):
    def test_watch_prints_each_notify_and_unsubscribes(self):
        watch = subprocess.Popen([os.path.join(BIN, "ue-proxyctl"), "watch", "--xml", "--count", "2"],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.proxy.wait_log("IMSE_REG: handle_registrar_subscribe_message 0")
        self.register(5071)
        out, errors = watch.communicate(timeout=30)
        self.assertEqual((watch.returncode, errors), (0, ""))
        self.assertIn("NOTIFY active (no body)", out)
        self.assertIn("<action>CREATE</action>", out)
        self.proxy.wait_log("IMSE_REG: deleting subscription")

    def test_ctrl_c_unsubscribes(self):
        watch = subprocess.Popen([os.path.join(BIN, "ue-proxyctl"), "watch"], stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, text=True)
        self.proxy.wait_log("IMSE_REG: handle_registrar_subscribe_message 0")
        self.register(5071)
        time.sleep(0.3)
        watch.send_signal(2)
        out, errors = watch.communicate(timeout=30)
        self.assertEqual((watch.returncode, errors), (0, ""))
        self.assertIn("action: CREATE", out)
        self.proxy.wait_log("IMSE_REG: deleting subscription")


if __name__ == "__main__":
    unittest.main(verbosity=1)
