"""The real ue-proxy process, with a configuration and run directory of its own."""
import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

from support import sip

BIN = os.environ.get("UE_PROXY_BIN", "")


def _sanitized():
    """The sanitizer that the program under test carries ("asan", "tsan"), or an empty text."""
    path = os.path.join(BIN, "ue-proxy")
    if not os.path.exists(path):
        return ""
    with open(path, "rb") as file:
        found = re.search(rb"__([at]san)_init", file.read())
    return found.group(1).decode() if found else ""


SANITIZED = _sanitized()
HOME_PROFILE = """<?xml version="1.0" encoding="UTF-8"?>
<network-profile>
  <operation-mode>{mode}</operation-mode>
  <impi>alice@example.net</impi>
  <impu>sip:alice@example.net</impu>
  <secret>wonderland</secret>
</network-profile>
"""
SANITIZER = re.compile(r"(ERROR: (Address|Leak)Sanitizer|runtime error:|WARNING: ThreadSanitizer|SUMMARY: \w*Sanitizer)")


class UeProxy:
    def __init__(self, *, arguments=(), settings="", srctransport="tcp", level=5, profiles=None, foreground=True,
                 start=True, config_text=None, program_options=(), environment=None, stderr=None):
        self.dir = tempfile.mkdtemp(prefix="ue-proxy-e2e-")
        self.config_dir = os.path.join(self.dir, "etc")
        self.run_dir = os.path.join(self.dir, "run")
        os.makedirs(os.path.join(self.config_dir, "profiles"))
        os.makedirs(self.run_dir)
        io_thread = os.environ.get("UE_PROXY_IO_THREAD", "no")
        if config_text is None:
            config_text = ('<?xml version="1.0" encoding="UTF-8"?>\n<sipstackinit>'
                           + (f"<srctransport>{srctransport}</srctransport>" if srctransport else "")
                           + f"<ue-proxy><io-thread>{io_thread}</io-thread>{settings}</ue-proxy></sipstackinit>\n")
        self.write_config("config.xml", config_text)
        for name, text in (profiles or {"home": HOME_PROFILE.format(mode="ietf-shared")}).items():
            self.write_config(f"profiles/{name}.xml", text)
        self.log_path = os.path.join(self.dir, "log")
        self.command = [os.path.join(BIN, "ue-proxy"), *(["-f"] if foreground else []), "-c", self.config_dir, "-r",
                        self.run_dir, "-l", str(level), *arguments, *program_options]
        self.environment = environment or {}
        self.stderr = stderr  # where the log goes instead of its file
        self.process = None
        if start:
            self.start()

    def write_config(self, name, text):
        with open(os.path.join(self.config_dir, name), "w", encoding="utf-8") as file:
            file.write(text)

    def start(self, ready=True):
        self.log_file = open(self.log_path, "ab")
        self.log_start = os.path.getsize(self.log_path)
        cap = os.path.join(self.run_dir, "ue-proxy.cap")
        if os.path.exists(cap):
            os.unlink(cap)
        environment = {k: v for k, v in os.environ.items() if k != "JOURNAL_STREAM"} | self.environment
        # A small quarantine, so that resident memory says something under AddressSanitizer too.
        environment.setdefault("ASAN_OPTIONS", "detect_leaks=1:exitcode=99:quarantine_size_mb=4")
        environment.setdefault("TSAN_OPTIONS", "exitcode=98:halt_on_error=0")
        environment.setdefault("UBSAN_OPTIONS", "print_stacktrace=1")
        self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=self.log_file if self.stderr is None else self.stderr, env=environment)
        if ready:
            sip.wait_until(lambda: os.path.exists(cap) or self.process.poll() is not None, 20, "capability file")
            if self.process.poll() is not None:
                raise AssertionError(f"ue-proxy ended with {self.process.returncode}:\n{self.log()}")
        return self

    @property
    def pid(self):
        return self.process.pid

    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as file:
            return file.read()

    def has(self, text):
        return text in self.log()

    def wait_log(self, text, timeout=5.0, count=1):
        sip.wait_until(lambda: self.log().count(text) >= count, timeout, f"log line with {text!r}; log ends:\n"
                       + self.log()[-3000:])

    def lines(self, level=None):
        """(level, function, text) of every line."""
        found = []
        for line in self.log().splitlines():
            match = re.match(r"\S+ ue-proxy\[\d+\] (\d) (~?\w+): (.*)", line)
            if match and (level is None or int(match.group(1)) == level):
                found.append((int(match.group(1)), match.group(2), match.group(3)))
        return found

    def alive(self):
        return self.process is not None and self.process.poll() is None

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def descriptor_names(self):
        directory = f"/proc/{self.pid}/fd"
        return [os.readlink(os.path.join(directory, name)) for name in os.listdir(directory)]

    def processor_seconds(self):
        with open(f"/proc/{self.pid}/stat", encoding="ascii") as file:
            user, system = file.read().rpartition(")")[2].split()[11:13]
        return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")

    def status_kib(self, name):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as file:
            return int(re.search(rf"\n{name}:\s+(\d+)", file.read()).group(1))

    def resident_kib(self):
        return self.status_kib("VmRSS")

    def private_kib(self):
        """Resident memory without the program's own pages, which come in as its code is first used."""
        return self.status_kib("RssAnon")

    def wake_ups(self):
        """Voluntary context switches of its threads so far, by thread."""
        found = {}
        for task in os.listdir(f"/proc/{self.pid}/task"):
            with open(f"/proc/{self.pid}/task/{task}/status", encoding="ascii") as file:
                found[task] = int(re.search(r"\nvoluntary_ctxt_switches:\s+(\d+)", file.read()).group(1))
        return found

    def stop(self, check=True):
        """Stops it with SIGTERM; it must end with 0 and no sanitizer may have spoken."""
        if self.alive():
            self.process.send_signal(signal.SIGTERM)
        try:
            try:
                status = self.process.wait(3)
            except subprocess.TimeoutExpired:
                # ThreadSanitizer can hold a signal back that comes just before the program waits; seen with it only.
                if SANITIZED == "tsan":
                    self.process.send_signal(signal.SIGTERM)
                status = self.process.wait(30)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError("ue-proxy did not stop:\n" + self.log()[-3000:]) from None
        self.log_file.close()
        log = self.log()
        found = SANITIZER.search(log)
        if found:
            raise AssertionError("sanitizer report:\n" + log[max(0, found.start() - 500):found.start() + 6000])
        if check and status != 0:
            raise AssertionError(f"ue-proxy ended with {status}:\n{log[-3000:]}")
        return status

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.log_file.close()

    def remove(self):
        shutil.rmtree(self.dir, ignore_errors=True)


class ProxyCase(unittest.TestCase):
    """A test with a running proxy; at its end the proxy must still be up and end cleanly."""

    options = {}

    def setUp(self):
        self.open = []
        self.proxy = UeProxy(**self.options)
        self.addCleanup(self.proxy.remove)
        self.addCleanup(self.clean_up)

    def clean_up(self):
        """What tearDown does not reach when setUp failed."""
        for peer in self.open:
            peer.close()
        if self.proxy.alive():
            self.proxy.kill()
        self.proxy.log_file.close()

    def tearDown(self):
        for peer in self.open:
            peer.close()
        failed = not getattr(getattr(self, "_outcome", None), "success", True)
        alive = self.proxy.alive()
        if failed:
            print(f"--- log of {self.id()}\n{self.proxy.log()[-6000:]}")
        status = self.proxy.stop(check=False)
        self.assertTrue(alive, f"the proxy ended by itself with {status}:\n{self.proxy.log()[-3000:]}")
        self.assertEqual(status, 0, self.proxy.log()[-3000:])

    def keep(self, peer):
        self.open.append(peer)
        return peer

    def udp(self, port=0, ip=sip.LOOP):
        return self.keep(sip.Udp(port, ip))

    def tcp(self, port=0, ip=sip.LOOP):
        return self.keep(sip.Tcp(port, ip))

    def connect(self, **options):
        return self.keep(sip.connect(**options))

    def accept(self, listener, timeout=3.0):
        return self.keep(listener.accept(timeout))

    def command(self, body):
        """Sends a route command over UDP and gives the answer."""
        peer = sip.Udp()
        try:
            peer.send(sip.route_command(peer.via, body))
            return peer.receive()
        finally:
            peer.close()

    def set_route(self, profile="1", proxy="127.0.0.3:TCP:5060", device="127.0.0.2"):
        answer = self.command(sip.route_body("set-route", profile, proxy, device))
        self.assertEqual(answer.status, 200)
        return answer

    def register(self, port, body=None, expect=200, **options):
        """Registers the user agent at `port` from a socket of the test's own."""
        peer = sip.Udp()
        try:
            peer.send(sip.register(port, sip.ua_info() if body is None else body, via=peer.via, **options))
            answer = peer.receive()
            self.assertEqual(answer.status, expect, answer.raw)
            return answer
        finally:
            peer.close()
