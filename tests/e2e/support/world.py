"""A world with two sides: the terminal, where this test and the proxy run, and the network behind a cable.

    terminal (this namespace)                       network (a namespace of its own)
    phones on 127.0.0.1, the proxy                  192.0.2.10  the network's proxy
    term0, 192.0.2.1/24  ------ veth pair ------    net0        192.0.2.66  a stranger, and any other of 192.0.2.0/24

On one loopback everybody reaches everybody, which hides what a wrong source address or a wrong route would do. Here a
network's peer sees 127.0.0.1 of its own side only, and a packet with a source that is not the terminal's never arrives.

    class Calls(WorldCase):
        def test_one(self):
            network = self.network_udp(5060)              # a sip.Udp at 192.0.2.10
            stranger = self.network_connect(STRANGER)     # a sip.Stream from 192.0.2.66 to the proxy
            self.set_world_route("UDP")                   # profile 1 by way of 192.0.2.10, on term0
            phone = self.udp(5071)                        # on this side, as ever

A socket stays in the namespace in which it was made, whoever uses it later: so whatever the network's side is to have is
made within `with world.outside():` (processes started within it run there too), and used anywhere. The switch is the
calling thread's alone.

The network's namespace lives as long as a process that holds it and that ends with the test, however that ends; with it
go its interfaces. Needs the right to make namespaces and interfaces: root, or a user namespace of one's own, as run.py
gives every test file. Where that is not to be had World() raises, and the tests fail: nothing is skipped.
"""
import contextlib
import ctypes
import os
import subprocess

from support import sip
from support.proxy import ProxyCase

TERMINAL, PROXY, STRANGER = "192.0.2.1", "192.0.2.10", "192.0.2.66"
DEVICE = "term0"
CLONE_NEWNET = 0x40000000


def _run(*command):
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"no two-sided world can be made here: {' '.join(command)}: {done.stderr.strip()}")


class World:
    """Both sides, until close()."""

    def __init__(self, addresses=(PROXY, STRANGER)):
        self._fds = []
        # It says that it runs in its namespace, and ends when its input does.
        self._holder = subprocess.Popen(["unshare", "-n", "sh", "-c", "echo there && exec cat"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            if self._holder.stdout.readline() != "there\n":
                raise RuntimeError(f"no two-sided world can be made here: {self._holder.stderr.read().strip()}")
            for path in ("/proc/thread-self/ns/net", f"/proc/{self._holder.pid}/ns/net"):
                self._fds.append(os.open(path, os.O_RDONLY | os.O_CLOEXEC))
            _run("ip", "link", "add", DEVICE, "type", "veth", "peer", "name", "net0", "netns", str(self._holder.pid))
            _run("ip", "addr", "add", f"{TERMINAL}/24", "dev", DEVICE)
            _run("ip", "link", "set", DEVICE, "up")
            with self.outside():
                for address in addresses:
                    _run("ip", "addr", "add", f"{address}/24", "dev", "net0")
                for device in ("lo", "net0"):
                    _run("ip", "link", "set", device, "up")
        except BaseException:
            self.close()
            raise

    @contextlib.contextmanager
    def outside(self):
        """What is made within is on the network's side."""
        home, network = self._fds
        self._enter(network)
        try:
            yield
        finally:
            self._enter(home)

    @staticmethod
    def _enter(namespace):
        libc = ctypes.CDLL(None, use_errno=True)
        if libc.setns(namespace, CLONE_NEWNET) != 0:
            error = ctypes.get_errno()
            raise OSError(error, f"setns: {os.strerror(error)}")

    def close(self):
        subprocess.run(["ip", "link", "del", DEVICE], capture_output=True)  # takes its other end along
        for descriptor in self._fds:
            os.close(descriptor)
        self._fds = []
        self._holder.stdin.close()
        self._holder.wait()
        self._holder.stdout.close()
        self._holder.stderr.close()


class WorldCase(ProxyCase):
    """A test with a running proxy on the terminal's side and a network; one world for all tests of the class."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.world = World()
        cls.addClassCleanup(cls.world.close)

    def network_udp(self, port=0, ip=PROXY):
        with self.world.outside():
            return self.udp(port, ip)

    def network_tcp(self, port=0, ip=PROXY):
        with self.world.outside():
            return self.tcp(port, ip)

    def network_connect(self, ip=PROXY, to=(TERMINAL, 5060)):
        with self.world.outside():
            return self.connect(to=to, source=(ip, 0))

    def set_world_route(self, transport="UDP", profile="1", proxy=PROXY):
        return self.set_route(profile, f"{proxy}:{transport}:5060", DEVICE)

    def network_request(self, method, uri=f"sip:alice@{TERMINAL}:5060", **options):
        """The bytes of a request for alice as the network's proxy writes it; a stranger can write it too."""
        options.setdefault("via", f"{PROXY}:5060")
        options.setdefault("frm", "<sip:bob@example.org>")
        options.setdefault("to", "<sip:alice@example.net>")
        return sip.request(method, uri, **options)
