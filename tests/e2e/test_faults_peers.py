"""What peers and the way to them do: nothing, too little, too much, too slowly, or end in the middle of it."""
import socket
import threading
import time
import unittest

from support import sip
from support.faults import FULL, FaultCase, find_again, lose, measure, note

class Reading(FaultCase):
    # The one that only pings delivers no head.
    options = FaultCase.options | {"settings": FaultCase.options["settings"] + "<head-timeout-s>3600</head-timeout-s>"}

    def test_peers_that_never_read_cost_a_bounded_queue_each(self):
        home = self.home_stream()
        pings = self.connect()
        pings.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        pings.socket.settimeout(0.01)
        message = self.message("x" * 50000)
        for _ in range(measure(100, 2000)):
            self.alice.send("TCP", message)
            try:
                pings.send(b"\r\n\r\n" * 4096)
            except TimeoutError:
                pass
        self.call("UDP", self.bob, self.work)
        self.call("UDP", self.work, self.bob)
        grown = self.proxy.private_kib() - self.memory
        self.proxy.wait_log("too much waits for the peer already")
        pings.close()
        # It reads again: what waited comes, whole messages only, and the next call.
        while True:
            try:
                self.assertEqual(home.receive(1).start, "MESSAGE sip:home@example.net SIP/2.0")
            except TimeoutError:
                break
        self.assert_healthy()
        note(f"two peers that do not read: {grown} KiB more while they do not")


class HalfOpen(FaultCase):
    def test_the_networks_host_is_gone_and_comes_back(self):
        home = self.home_stream()
        lose(home)
        lose(self.home.listener)
        for _ in range(20):
            self.alice.send("TCP", self.message("into the void"))
        self.call("UDP", self.bob, self.work)
        if FULL:
            self.proxy.wait_log("ended: Connection timed out", 45)  # 32 s without an acknowledgement
        # The host comes back without memory of the connection: what it says to it is a reset.
        find_again(self.home.listener)
        self.home.lose_connections("reset")
        self.assert_healthy()

    def test_a_connect_that_nobody_answers_ends_in_time(self):
        home = self.home_stream()
        lose(self.home.listener)
        home.reset()
        self.home.streams.remove(home)
        for _ in range(20):
            self.alice.send("TCP", self.message("waits"))
        self.call("UDP", self.bob, self.work)
        self.proxy.wait_log("failed: Connection timed out")
        find_again(self.home.listener)
        self.assert_healthy()

    def test_a_connect_that_is_refused_late(self):
        home = self.home_stream()
        lose(self.home.listener)
        home.reset()
        self.home.streams.remove(home)
        self.alice.send("TCP", self.message("waits"))
        time.sleep(0.2)
        self.home.listener.close()  # the system asks again a second after it asked first
        self.proxy.wait_log("connecting 127.0.0.2:5060 to 127.0.0.3:5060 failed: Connection refused")
        self.home.listener = sip.Tcp(5060, "127.0.0.3")
        self.assert_healthy()


class Idle(FaultCase):
    options = FaultCase.options | {"settings": FaultCase.options["settings"].replace("3600", "2")}

    def test_connections_of_hosts_that_are_gone_end_when_they_were_idle_for_long_enough(self):
        gone = [self.connect() for _ in range(measure(20, 100))]
        for number, stream in enumerate(gone):
            stream.send(self.message()[:40 * (number % 5)])
            lose(stream)
        sip.wait_until(lambda: self.proxy.descriptors() >= self.descriptors + len(gone), 2, "connections of hosts gone")
        self.check_calls()
        self.assertGreaterEqual(self.proxy.descriptors(), self.descriptors + len(gone))  # nobody can know yet
        sip.wait_until(lambda: self.proxy.descriptors() <= self.descriptors, 5, "the end of connections of hosts gone")
        self.assert_healthy()


class Resets(FaultCase):
    """A reset at every stage; after each all is as before."""

    def test_of_the_networks_connection(self):
        half = 30000

        def refused():
            self.home.listener.close()
            self.home.lose_connections("reset")
            self.alice.send("TCP", self.message("refused"))
            self.proxy.wait_log("Connection refused")
            self.home.listener = sip.Tcp(5060, "127.0.0.3")

        def accepted():
            self.home.lose_connections("reset")
            self.alice.send("TCP", self.message("first"))
            self.home.listener.accept().reset()

        def request_unread():
            self.home_stream()
            self.alice.send("TCP", self.message("unread"))
            time.sleep(0.05)
            self.home.lose_connections("reset")

        def half_a_request_read():
            stream = self.home_stream()
            self.alice.send("TCP", self.message("x" * 60000))
            stream.receive_raw(half)
            self.home.lose_connections("reset")

        def much_waits():
            self.home_stream()
            for _ in range(60):
                self.alice.send("TCP", self.message("x" * 60000))
            self.home.lose_connections("reset")

        def half_an_answer():
            stream = self.home_stream()
            self.alice.send("TCP", self.message("answer me"))
            stream.send(sip.response(stream.receive(), 200, "OK")[:100])
            self.home.lose_connections("reset")

        def answered():
            stream = self.home_stream()
            self.alice.send("TCP", self.message("answer me"))
            stream.send(sip.response(stream.receive(), 200, "OK"))
            self.home.lose_connections("reset")

        def at_rest():
            self.home.lose_connections("reset")

        for stage in (refused, accepted, request_unread, half_a_request_read, much_waits, half_an_answer, answered, at_rest):
            with self.subTest(stage.__name__):
                stage()
                self.assert_healthy()

    def test_of_a_user_agents_connection(self):
        request = self.message("x" * 2000)

        def of(part):
            def stage():
                stream = sip.connect()
                stream.send(request[:part])
                stream.reset()
            return stage

        def answer_on_its_way():
            stream, network = sip.connect(), self.home_stream()
            stream.send(request)
            answer = sip.response(network.receive(), 200, "OK")
            stream.reset()
            network.send(answer)

        def answer_unread():
            stream, network = sip.connect(), self.home_stream()
            stream.send(request)
            network.send(sip.response(network.receive(), 200, "OK"))
            time.sleep(0.05)
            stream.reset()

        def pongs_unread():
            stream = sip.connect()
            stream.send(b"\r\n\r\n" * 1000)
            stream.reset()

        def called_side():
            self.alice.lose_connections("reset")

        for name, stage in (("connected", of(0)), ("half a head", of(60)), ("half a body", of(-1000)), ("sent", of(None)),
                            ("answer on its way", answer_on_its_way), ("answer unread", answer_unread),
                            ("pongs unread", pongs_unread), ("all of the user agent's", called_side)):
            with self.subTest(name):
                stage()
                self.home.drain()
                self.assert_healthy()


class Flapping(FaultCase):
    def test_a_network_proxy_that_comes_and_goes_every_second(self):
        seconds = measure(8, 300)
        stop = threading.Event()
        seen = set()

        def network():
            """Half a second there, half a second not; what it is sent it counts."""
            how = 0
            while not stop.is_set():
                end = time.monotonic() + 0.5
                while time.monotonic() < end:
                    for message, _ in self.home.arrived(end - time.monotonic()):
                        seen.add(message.body)
                self.home.listener.close()
                self.home.lose_connections(("close", "reset")[how % 2])
                how += 1
                stop.wait(0.5)
                self.home.listener = sip.Tcp(5060, "127.0.0.3")

        thread = threading.Thread(target=network)
        thread.start()
        slowest, sent, end = 0, 0, time.monotonic() + seconds
        try:
            while time.monotonic() < end:
                for _ in range(5):
                    sent += 1
                    self.alice.send("TCP", self.message(f"{sent}"))
                started = time.monotonic()
                self.call("UDP", self.bob, self.work)
                slowest = max(slowest, time.monotonic() - started)
                time.sleep(0.1)
        finally:
            stop.set()
            thread.join()
        self.assert_healthy()
        self.assertGreater(len(seen), sent / 4)
        self.assertLess(slowest, 1)
        note(f"a network proxy up half of each second for {seconds} s: {len(seen)} of {sent} messages reached it; the "
             f"slowest call beside took {1000 * slowest:.0f} ms")


class Crowds(FaultCase):
    # Slower than is allowed by default.
    options = FaultCase.options | {"settings": FaultCase.options["settings"] + "<head-timeout-s>3600</head-timeout-s>"}

    def test_many_connections_opened_and_closed(self):
        count = measure(1000, 10000)
        request = self.message("x" * 100)
        started = time.monotonic()
        for number in range(count):
            stream = sip.connect()
            kind = number % 5
            if kind == 1:
                stream.send(b"\r\n\r\n")
                self.assertEqual(stream.receive_raw(2), b"\r\n")
            elif kind == 2:
                stream.send(request[:number % len(request)])
            elif kind == 3:
                stream.send(b"INVITE\r\n\r\n")
            stream.reset() if kind == 4 else stream.close()
            if number % 200 == 0:
                self.call("UDP", self.bob, self.work)
        seconds = time.monotonic() - started
        self.assert_healthy()
        note(f"{count} connections opened and closed in {seconds:.1f} s; private memory {self.memory} -> "
             f"{self.proxy.private_kib()} KiB")

    def test_senders_of_one_byte_a_second_delay_nobody_and_are_heard_in_the_end(self):
        seconds = measure(3, 120)
        crowd = [self.connect() for _ in range(measure(60, 200))]
        left = {stream: self.message(f"slow {number}", call_id=f"slow-{number}-") for number, stream in enumerate(crowd)}
        slowest = 0
        for _ in range(seconds):
            second = time.monotonic() + 1
            for stream in crowd:
                stream.send(left[stream][:1])
                left[stream] = left[stream][1:]
            while time.monotonic() < second:
                started = time.monotonic()
                self.check_calls()
                slowest = max(slowest, time.monotonic() - started)
        home = self.home_stream()
        for stream in crowd:
            stream.send(left[stream])
        heard = {home.receive().body for _ in crowd}
        self.assertEqual(heard, {b"slow %d" % number for number in range(len(crowd))})
        for stream in crowd:
            stream.close()
        self.assert_healthy()
        self.assertLess(slowest, 1)
        note(f"{len(crowd)} senders of a byte a second for {seconds} s: four calls beside took at most "
             f"{1000 * slowest:.0f} ms")


class SizeCase(FaultCase):
    def padded(self, size, head=None, **options):
        """A message of `size` bytes, its head of `head` bytes if given, else as small as it comes."""
        bare = self.message("", headers=[("X-Pad", "")], **options)
        least = len(bare) - 1  # without the digits of the body's length
        if head is None:
            body = next(size - least - digits for digits in range(1, 6) if len(str(size - least - digits)) == digits)
            pad = 0
        else:
            body = size - head
            pad = head - least - len(str(body))
        text = bare.replace(b"X-Pad: ", b"X-Pad: " + b"p" * pad)
        text = text.replace(b"Content-Length: 0", b"Content-Length: %d" % body) + b"b" * body
        self.assertEqual(len(text), size)
        return text

    def forwarded(self, stream, text):
        seen = stream.receive() if stream is not self.work else self.work.udp.receive()
        self.assertEqual(seen.body, sip.Message(text).body)
        self.assertEqual(seen.get("X-Pad"), sip.Message(text).get("X-Pad"))

    def check(self, largest, largest_head):
        home = self.home_stream()
        sizes = [(largest, None, True), (largest + 1, None, False), (largest_head, largest_head, True),
                 (largest_head + 10, largest_head, True), (largest_head + 1, largest_head + 1, False)]
        for size, head, goes in sizes:
            with self.subTest("TCP", size=size, head=head):
                text = self.padded(size, head)
                stream = self.connect()
                stream.send(text)
                if goes:
                    self.forwarded(home, text)
                else:
                    self.assertTrue(stream.closed())
                stream.close()
        for size, head, goes in sizes:
            if size > 60000:
                continue  # no datagram can be that large
            with self.subTest("UDP", size=size, head=head):
                text = self.padded(size, head, sender=self.bob, receiver=self.work, transport="UDP")
                self.bob.send("UDP", text)
                self.call("UDP", self.bob, self.work) if not goes else self.forwarded(self.work, text)
        self.assertTrue(home.nothing(0.1))
        self.assertTrue(self.work.udp.nothing(0.1))
        self.assert_healthy()


class DefaultSizes(SizeCase):
    def test_the_default_limits(self):
        self.check(65536, 16384)
        # The largest datagram there is, less what the proxy adds on the way, and one byte more than there is.
        for size, goes in ((65300, True), (65507, False)):
            text = self.padded(size, sender=self.bob, receiver=self.work, transport="UDP")
            self.bob.send("UDP", text)
            self.forwarded(self.work, text) if goes else self.proxy.wait_log("dropped: too large")
        self.assert_healthy()


class ConfiguredSizes(SizeCase):
    options = FaultCase.options | {"settings": FaultCase.options["settings"] + "<max-message-size>20000</max-message-size>"
                               "<max-header-size>4096</max-header-size>"}

    def test_the_limits_of_the_configuration(self):
        self.check(20000, 4096)


if __name__ == "__main__":
    unittest.main(verbosity=1)
