"""One proxy, a good client that calls through it all the time, and attacks beside it, one after the other.

The proxy has a processor of its own where there are two; attackers and good client share the other. Proxy and good
client can be first in line (SCHED_FIFO, where the system allows it), then the attackers, so that what is measured is
the proxy and neither the attackers' hunger nor what else the machine does.
"""
import contextlib
import json
import os
import re
import socket
import statistics
import subprocess
import tempfile
import threading
import time

from support import sip
from support.proxy import BIN, UeProxy

HERE = os.path.dirname(os.path.abspath(__file__))
SEEDS = [os.path.join(os.path.dirname(HERE), "fuzz", "corpus"), os.path.join(os.path.dirname(HERE), "torture")]
CPUS = sorted(os.sched_getaffinity(0))
LOCAL, NETWORK = ("127.0.0.1", 5060), ("127.0.0.2", 5060)
VICTIM = 6090  # a user agent that is there and reads nothing
WAYS = {"U": "UDP", "T": "TCP"}


@contextlib.contextmanager
def on_cpu(cpu):
    """Processes started within run there."""
    os.sched_setaffinity(0, {cpu})
    try:
        yield
    finally:
        os.sched_setaffinity(0, CPUS)


def first_in_line(pid=0):
    with contextlib.suppress(PermissionError):
        os.sched_setscheduler(pid, os.SCHED_FIFO, os.sched_param(1))


def next_in_line():
    with contextlib.suppress(PermissionError):
        os.setpriority(os.PRIO_PROCESS, 0, -15)


def percentile(numbers, share):
    ordered = sorted(numbers)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))] if ordered else None


def dropped(address):
    """Datagrams that the kernel dropped at the UDP socket of (ip, port), which had no room."""
    local = "".join(f"{int(part):02X}" for part in reversed(address[0].split("."))) + f":{address[1]:04X}"
    with open("/proc/net/udp", encoding="ascii") as table:
        return sum(int(line.split()[-1]) for line in table if line.split()[1] == local)


class GoodClient:
    """tests/hostile/good_client.cpp, and what became of its calls."""

    def __init__(self, rate, before=None):
        self.calls = []  # (way, begun, seconds, repeated, result)
        self.over = False
        with on_cpu(CPUS[-1]):
            self.process = subprocess.Popen([os.path.join(BIN, "hostile_good_client"), str(rate)],
                                            stdin=subprocess.PIPE,
                                            stdout=subprocess.PIPE, text=True, preexec_fn=before)
        if self.process.stdout.readline().strip() != "ready":
            raise AssertionError("the good client did not start")
        self.thread = threading.Thread(target=self.read, daemon=True)
        self.thread.start()

    def read(self):
        for line in self.process.stdout:
            if line.strip() == "done":
                self.over = True
                continue
            _, way, begun, seconds, repeated, result = line.split()
            self.calls.append((way, float(begun), float(seconds), int(repeated), result))

    def say(self, text):
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()

    def finish(self):
        """Begins no more calls; those under way end, or are given up after 32 s."""
        self.say("stop")
        self.process.wait(90)
        self.thread.join(5)
        if self.process.returncode != 0 or not self.over:
            raise AssertionError(f"the good client ended with {self.process.returncode}")

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        for pipe in (self.process.stdin, self.process.stdout):
            with contextlib.suppress(OSError):
                pipe.close()

    def between(self, begin, end):
        """Of the calls that began then, by way: how many, what became of them, how long the INVITE took."""
        found = {}
        for way, name in WAYS.items():
            calls = [call for call in list(self.calls) if call[0] == way and begin <= call[1] < end]
            times = [1e6 * call[2] for call in calls if call[4] == "ok"]
            failed = {}
            for call in calls:
                if call[4] != "ok":
                    failed[call[4]] = failed.get(call[4], 0) + 1
            found[name] = {"calls": len(calls), "ok": len(times), "failed": failed,
                           "repeated": sum(call[3] for call in calls),
                           "p50_us": percentile(times, 0.5), "p99_us": percentile(times, 0.99)}
        return found

    def recovery(self, end, quiet):
        """Seconds from `end` until ten calls in a row are, in median, at most a quarter above the quiet median."""
        worst = 0.0
        for way, name in WAYS.items():
            calls = sorted((call[1], 1e6 * call[2] if call[4] == "ok" else 1e12) for call in list(self.calls)
                           if call[0] == way and call[1] >= end)
            limit = 1.25 * quiet[name]["p50_us"]
            for index in range(len(calls) - 9):
                if statistics.median(took for _, took in calls[index:index + 10]) <= limit:
                    worst = max(worst, calls[index][0] - end)
                    break
            else:
                return None
        return worst


class Sink:
    """A user agent that takes what it gets: over TCP it is read, over UDP the kernel throws it away."""

    def __init__(self, port):
        self.udp, self.tcp, self.streams = sip.Udp(port), sip.Tcp(port), []
        self.thread = threading.Thread(target=self.read, daemon=True)
        self.thread.start()

    def read(self):
        with contextlib.suppress(OSError):
            while True:
                stream, _ = self.tcp.socket.accept()
                self.streams.append(stream)
                room = bytearray(1 << 20)
                while stream.recv_into(room):
                    pass

    def close(self):
        self.udp.close()
        for sock in (self.tcp.socket, *self.streams):
            with contextlib.suppress(OSError):
                sock.shutdown(socket.SHUT_RDWR)
            sock.close()
        self.thread.join(5)


class Scene:
    def __init__(self, rate=100, settings="", level=4, in_line=False):
        """`in_line`: take the processors from what else the machine does."""
        self.results = []
        self.in_line = in_line
        self.good = None
        self.files = []
        with on_cpu(CPUS[0]):
            self.proxy = UeProxy(level=level, settings=settings)
        if in_line:
            first_in_line(self.proxy.pid)
        try:
            self.good = GoodClient(rate, first_in_line if in_line else None)
            # A user agent each for the two ways; the one that many messages are sent to, and never reads; the stalled.
            self.victim = Sink(VICTIM)
            for port, user, profile in ((5071, "alice", "home"), (5072, "bob", "work"), (VICTIM, "victim", "home")):
                self.ask(sip.register(port, sip.ua_info(profile, f"{user}@example.net", methods="INVITE"), user=user,
                                      call_id=f"{user}@127.0.0.1"))
            self.ask(sip.route_command("127.0.0.1:5099",
                                       sip.route_body("set-route", "1", "127.0.0.3:UDP:5060", "127.0.0.2")))
            self.ask(sip.route_command("127.0.0.1:5099",
                                       sip.route_body("set-route", "2", "127.0.0.4:TCP:5060", "127.0.0.2")))
            self.good.say("go")
            time.sleep(0.5)
        except BaseException:
            self.close()
            raise

    def ask(self, message):
        """A request of the good side; its Via is written anew. Answered 200."""
        peer = sip.Udp()
        try:
            peer.send(re.sub(rb"(?m)^(Via: SIP/2.0/UDP )[^;]*", rb"\g<1>" + peer.via.encode(), message))
            answer = peer.receive(10)
            if answer.status != 200:
                raise AssertionError(f"refused: {answer.raw}")
        finally:
            peer.close()

    def message_file(self, data):
        file = tempfile.NamedTemporaryFile(prefix="ue-proxy-hostile-")
        file.write(data)
        file.flush()
        self.files.append(file)
        return file.name

    def attacker(self, *arguments):
        with on_cpu(CPUS[-1]):
            return subprocess.Popen([os.path.join(BIN, "hostile_attack"), *map(str, arguments)], stdin=subprocess.PIPE,
                                    stdout=subprocess.PIPE, text=True,
                                    preexec_fn=next_in_line if self.in_line else None)

    # --- The attacks; each gives what the attacker says it did --------------------------------------------------------

    def told(self, process, timeout=1200):
        out, _ = process.communicate(timeout=timeout)
        if process.returncode != 0:
            raise AssertionError(f"the attacker ended with {process.returncode}")
        return json.loads(out.strip().splitlines()[-1])

    def mutate(self, count, rate, seed=1):
        return self.told(self.attacker("mutate", count, rate, seed, *SEEDS))

    def slow(self, count, seconds):
        return self.told(self.attacker("slow", count, seconds))

    def stall(self, count, seconds):
        process = self.attacker("stall", count, seconds)
        process.stdout.readline()
        for number in range(count):
            self.ask(sip.register(7000 + number, sip.ua_info("home", f"stall{number}@example.net", methods="INVITE"),
                                  user=f"stall{number}", call_id=f"stall{number}@127.0.0.1"))
        told = self.told_after_go(process)
        for number in range(count):
            self.ask(sip.register(7000 + number, "", user=f"stall{number}", call_id=f"stall{number}@127.0.0.1", cseq=2,
                                  expires=0))
        return told

    def told_after_go(self, process):
        process.stdin.write("go\n")
        process.stdin.flush()
        return self.told(process)

    def message(self, transport):
        return sip.request("MESSAGE", "sip:x@example.net", via="127.0.0.3:5060", frm="<sip:m@example.net>;tag=m",
                           to="<sip:victim@example.net>", call_id="flood-@@@@@@@@", branch="z9hG4bK@@@@@@@@",
                           contact="<sip:m@127.0.0.3>", transport=transport, headers=[("Content-Type", "text/plain")],
                           body="x" * 300)

    def flood(self, kind, rate, seconds, sources=8):
        """"messages" of the network over UDP, "streams" of them over TCP, or "registers" of a local process."""
        if kind == "registers":
            body = sip.ua_info("home", "flood@example.net", [f"+g.feature.number{n}" for n in range(40)],
                               methods="INVITE")
            # As of a user agent that starts anew each time: the whole body is read.
            message = sip.register(6091, body, user="flood", call_id="flood-@@@@@@@@", branch="z9hG4bK@@@@@@@@")
            transport, to = "udp", "127.0.0.1:5060"
        else:
            transport = "tcp" if kind == "streams" else "udp"
            message, to = self.message(transport.upper()), "127.0.0.2:5060"
        at = ("127.0.0.1", 5060) if kind == "registers" else ("127.0.0.2", 5060)
        before = dropped(at)
        told = self.told(self.attacker("flood", transport, to, sources, rate, seconds, self.message_file(message)))
        told["dropped_by_kernel"] = dropped(at) - before
        told["handled_per_second"] = (told["messages"] - told["dropped_by_kernel"]) / told["seconds"]
        return told

    # --- One attack, measured -----------------------------------------------------------------------------------------

    def measure(self, name, attack, quiet_seconds, after_seconds=2.0):
        pid = self.proxy.pid
        quiet_from = time.monotonic()
        time.sleep(quiet_seconds)
        begin = time.monotonic()
        descriptors, memory = self.proxy.descriptors(), self.proxy.resident_kib()
        with open(f"/proc/{pid}/clear_refs", "w", encoding="ascii") as file:
            file.write("5")  # the peak of resident memory begins anew
        told = attack()
        end = time.monotonic()
        time.sleep(after_seconds)
        with open(f"/proc/{pid}/status", encoding="ascii") as file:
            peak = int(re.search(r"VmHWM:\s+(\d+)", file.read()).group(1))
        self.results.append({"attack": name, "told": told, "times": (quiet_from, begin, end), "same_process":
                             self.proxy.alive() and self.proxy.pid == pid, "descriptors": [descriptors,
                             self.descriptors_at_most(descriptors)],
                             "resident_kib": [memory, peak, self.proxy.resident_kib()]})
        return self.results[-1]

    def descriptors_at_most(self, count, seconds=5):
        """How many there are, when there are as few again or the time is over."""
        end = time.monotonic() + seconds
        while self.proxy.descriptors() > count and time.monotonic() < end:
            time.sleep(0.05)
        return self.proxy.descriptors()

    def finish(self):
        """Lets the calls end and tells for each attack how the good client fared."""
        self.good.finish()
        for result in self.results:
            quiet_from, begin, end = result["times"]
            result["quiet"] = self.good.between(quiet_from, begin)
            result["during"] = self.good.between(begin, end)
            result["recovery_s"] = self.good.recovery(end, result["quiet"])
        self.proxy.stop()
        return self.results

    def close(self):
        if self.good:
            self.good.close()
        if self.proxy.alive():
            self.proxy.kill()
        self.proxy.remove()
        if hasattr(self, "victim"):
            self.victim.close()
        for file in self.files:
            file.close()


# --- Single inputs ----------------------------------------------------------------------------------------------------


class Inputs:
    """A proxy to which single inputs are sent, and what each costs it."""

    def __init__(self, clients=0, worst=()):
        """Beside two user agents: so many ordinary ones, and those of `worst` (port, user, body)."""
        with on_cpu(CPUS[0]):
            self.proxy = UeProxy(level=4)
        self.number = 0
        self.senders = {"local": sip.Udp(), "network": sip.Udp(0, "127.0.0.3")}
        peer = self.senders["local"]

        def ask(message):
            peer.send(message)
            if peer.receive(10).status != 200:
                raise AssertionError("set-up refused")
        for port, user in ((5071, "alice"), (5072, "bob"), *((20000 + n, f"user{n}") for n in range(clients))):
            ask(sip.register(port, sip.ua_info("home", f"{user}@example.net", methods="INVITE,MESSAGE",
                                               tags=[f"+g.feature.{user}", "+g.oma.sip-im"]), user=user, via=peer.via))
        ask(sip.route_command(peer.via, sip.route_body("set-route", "1", "127.0.0.3:UDP:5060", "127.0.0.2")))
        self.registering = [self.coming_ms(*one) for one in worst]
        self.readers = [sip.Udp(5071), sip.Udp(5072), sip.Udp(5060, "127.0.0.3"), *self.senders.values()]

    def coming_ms(self, port, user, body, cseq=1, expires=3600):
        """What a registration costs."""
        peer = self.senders["local"]
        before = self.processor_ms()
        peer.send(sip.register(port, body, user=user, via=peer.via, cseq=cseq, expires=expires))
        answer = peer.receive(10)
        if answer.status != 200:
            raise AssertionError(f"refused: {answer.raw}")
        return self.processor_ms() - before

    def leaving_ms(self, port, user):
        """What the de-registration of one of `worst` costs."""
        return self.coming_ms(port, user, "", 2, 0)

    def processor_ms(self):
        """When it has nothing more to do."""
        last, same = -1, 0
        end = time.monotonic() + 20
        while same < 3:
            if time.monotonic() > end:
                raise AssertionError(f"the proxy is still busy after 20 s:\n{self.proxy.log()[-3000:]}")
            with open(f"/proc/{self.proxy.pid}/stat", encoding="ascii") as file:
                sleeps = file.read().rpartition(")")[2].split()[0] == "S"
            with open(f"/proc/{self.proxy.pid}/schedstat", encoding="ascii") as file:
                now = int(file.read().split()[0])
            same = same + 1 if sleeps and now == last else 0
            last = now
            time.sleep(0.0005)
        return last / 1e6

    def send(self, side, transport, data):
        """One input, as another message than the last; gives what has to be closed."""
        self.number += 1
        data = data.replace(b"@@@@@@@@", b"%08d" % self.number)
        if transport == "UDP":
            self.senders[side].send(data, LOCAL if side == "local" else NETWORK)
            return None
        stream = sip.connect(LOCAL if side == "local" else NETWORK)
        with contextlib.suppress(OSError):
            stream.send(data)
        return stream

    def cost_ms(self, side, transport, data, times=3):
        """Processor time, the median of several; a connection's own cost is in it."""
        found = []
        for _ in range(times):
            before = self.processor_ms()
            stream = self.send(side, transport, data)
            time.sleep(0.001)
            found.append(self.processor_ms() - before)
            if stream:
                stream.close()
            self.drain()
        return statistics.median(found)

    def drain(self):
        for reader in self.readers:
            reader.socket.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                while True:
                    reader.socket.recv(70000)

    def close(self):
        try:
            if not self.proxy.alive():
                raise AssertionError(f"the proxy ended by itself:\n{self.proxy.log()[-3000:]}")
            self.proxy.stop()
        finally:
            for peer in self.readers:
                peer.close()
            self.proxy.remove()
