"""How the process's life begins and ends: stopped at any moment, killed, restarted, with as few rights as can be."""
import configparser
import fcntl
import os
import random
import re
import shutil
import signal
import subprocess
import threading
import time
import unittest

from support import sip
from support.faults import FaultCase, find_again, lose, measure, note
from support.proxy import BIN, SANITIZED

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PROMPT = 10 if SANITIZED else 2  # seconds that an end may take; a sanitizer looks for leaks then


class Stopping(FaultCase):
    def stop(self):
        """SIGTERM; the end must be prompt and in order, and leave no file but the capability file."""
        started = time.monotonic()
        self.proxy.stop()
        self.assertLess(time.monotonic() - started, PROMPT)
        self.assertEqual(os.listdir(self.proxy.run_dir), ["ue-proxy.cap"])

    def test_at_any_moment_of_the_start(self):
        self.stop()
        rounds, last = measure(12, 300), 0.4 if SANITIZED else 0.06
        before = 0
        for number in range(rounds):
            self.proxy.start(ready=False)
            time.sleep(last * number / rounds)
            self.proxy.process.send_signal(signal.SIGTERM)
            # Before the first line of main the signal's own way is to end the process.
            status = self.proxy.stop(check=False)
            self.assertIn(status, (0, -signal.SIGTERM))
            before += status != 0
            self.assertLessEqual(set(os.listdir(self.proxy.run_dir)), {"ue-proxy.cap"})
        self.proxy.start()
        self.witness.close()
        self.register_all()
        self.assert_healthy()
        note(f"SIGTERM at {rounds} moments of the first {last} s: {before} times before it was listened to")

    def test_under_load(self):
        self.stranger = self.udp()
        for _ in range(measure(2, 20)):
            stop = threading.Event()
            threads = [threading.Thread(target=self.load, args=(stop, work)) for work in (self.datagrams, self.streams)]
            for thread in threads:
                thread.start()
            time.sleep(random.uniform(0.05, 0.3))
            try:
                self.stop()
            finally:
                stop.set()
                for thread in threads:
                    thread.join()
            self.work.drain()
            self.home.drain()
            self.restart(lambda: None)
            self.assert_healthy()

    def load(self, stop, work):
        while not stop.is_set():
            try:
                work(stop)
            except OSError:
                pass  # it has ended

    def datagrams(self, stop):
        peer = self.stranger
        text = self.message(sender=self.bob, receiver=self.work, transport="UDP")
        while not stop.is_set():
            peer.send(text)
            peer.send(sip.register(5079, sip.ua_info("home", "guest@example.net"), via=peer.via))
            time.sleep(0.0005)

    def streams(self, stop):
        text = self.message("x" * 1000)
        while not stop.is_set():
            stream = sip.connect()
            try:
                for _ in range(20):
                    stream.send(text)
            finally:
                stream.close()

    def test_while_it_connects(self):
        home = self.home_stream()
        lose(self.home.listener)
        home.reset()
        self.home.streams.remove(home)
        for _ in range(5):
            self.alice.send("TCP", self.message("waits"))
        self.call("UDP", self.bob, self.work)
        self.stop()
        find_again(self.home.listener)
        self.restart(lambda: None)
        self.assert_healthy()

    def test_with_every_queue_full(self):
        self.home_stream()
        text = self.message("x" * 60000)
        for _ in range(1000):
            self.alice.send("TCP", text)
            if self.proxy.has("too much waits for the peer already"):
                break
        self.stop()
        self.home.lose_connections()
        self.restart(lambda: None)
        self.assert_healthy()


class Killed(FaultCase):
    def test_its_user_agents_stay_and_the_next_process_takes_them(self):
        for number in range(measure(3, 30)):
            # In the midst of work. Its user agents and the network do not notice: their ends of the connections stay.
            for _ in range(20):
                self.alice.send("TCP", self.message("x" * 5000))
            started = time.monotonic()
            self.restart(self.proxy.kill)
            self.assertLess(time.monotonic() - started, 30 if SANITIZED else 5)
            self.assert_healthy()

    def test_at_any_moment_of_the_start(self):
        self.proxy.stop()
        rounds, last = measure(12, 300), 0.4 if SANITIZED else 0.06
        for number in range(rounds):
            self.proxy.start(ready=False)
            time.sleep(last * number / rounds)
            self.proxy.kill()
        self.restart(lambda: None)
        self.assert_healthy()


#: Runs "$@" where everything is read only but the directory $0. Kernel file systems are no place to write to anyway.
CAGE = """
mount --bind "$0" "$0"
while read -r _ place type _; do
  case $place:$type in
    "$0":* | *:proc | *:sysfs | *:cgroup* | *:dev* | *:mqueue) ;;
    *) mount -o remount,bind,ro "$place" || exit 9 ;;
  esac
done </proc/mounts
for place in / /tmp /var/tmp /dev/shm "$0/.."; do ! touch "$place/probe" 2>/dev/null || exit 8; done
exec setpriv "$@"
"""
NOBODY = 65534


class Unprivileged(FaultCase):
    """With the rights that the service file of packaging/ leaves."""

    def setUp(self):
        super().setUp()
        self.proxy.stop()
        self.witness.close()
        # Where the build directory is may be root's alone.
        program = os.path.join(self.proxy.dir, "ue-proxy")
        shutil.copy(self.proxy.command[0], program)
        self.proxy.command[0] = program
        os.chmod(self.proxy.dir, 0o755)
        rights = ["--bounding-set=-all", "--inh-caps=-all", "--no-new-privs"]
        with open("/proc/self/uid_map", encoding="ascii") as file:
            first, _, count = (int(number) for number in file.readline().split())
        self.other_user = os.geteuid() == 0 and first + count > NOBODY
        if self.other_user:
            os.chown(self.proxy.run_dir, NOBODY, NOBODY)
            rights += [f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
        self.proxy.command[:0] = ["unshare", "--mount", "sh", "-c", CAGE, self.proxy.run_dir, *rights]

    def status(self, name):
        with open(f"/proc/{self.proxy.pid}/status", encoding="ascii") as file:
            return re.search(rf"\n{name}:\t(.*)", file.read()).group(1)

    def test_the_run_directory_is_all_that_it_writes_to(self):
        self.proxy.start()
        self.assertEqual([int(self.status(name), 16) for name in ("CapPrm", "CapEff", "CapBnd", "NoNewPrivs")], [0, 0, 0, 1])
        if self.other_user:
            self.assertEqual(self.status("Uid").split(), [str(NOBODY)] * 4)
        self.register_all()
        self.assert_healthy()
        self.assertEqual(sorted(os.listdir(self.proxy.run_dir)), ["ue-proxy.cap", "ue-proxy.pid", "ue-proxy.sock"])
        self.proxy.stop()
        self.assertEqual(os.listdir(self.proxy.run_dir), ["ue-proxy.cap"])
        self.restart(lambda: None)

    def test_a_log_pipe_that_is_another_users_and_that_nobody_reads(self):
        reader, writer = (self.keep(open(end, mode, buffering=0)) for end, mode in zip(os.pipe(), ("rb", "wb")))
        fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
        self.proxy.stderr = writer
        self.proxy.start()
        self.register_all()
        for _ in range(20):
            self.check_tables()
        text = reader.read(65536)
        self.check_tables()
        self.assertRegex(text + reader.read(65536), rb"loginfo: \d+ log lines were dropped")
        self.assert_healthy()


class ServiceFile(unittest.TestCase):
    def test_it_leaves_no_more_than_the_tests_here_do(self):
        unit = configparser.ConfigParser(interpolation=None)
        unit.optionxform = str
        unit.read(os.path.join(ROOT, "packaging", "ue-proxy.service"))
        service = unit["Service"]
        self.assertEqual({name: service[name] for name in (
            "DynamicUser", "ProtectSystem", "NoNewPrivileges", "CapabilityBoundingSet", "RuntimeDirectory")}, {
            "DynamicUser": "yes", "ProtectSystem": "strict", "NoNewPrivileges": "yes", "CapabilityBoundingSet": "",
            "RuntimeDirectory": "ue-proxy"})
        for name in ("ReadWritePaths", "StateDirectory", "CacheDirectory", "LogsDirectory", "AmbientCapabilities"):
            self.assertNotIn(name, service)
        usage = subprocess.run([os.path.join(BIN, "ue-proxy"), "--help"], capture_output=True, text=True).stderr
        self.assertIn("/run/" + service["RuntimeDirectory"], usage)


if __name__ == "__main__":
    unittest.main(verbosity=1)
