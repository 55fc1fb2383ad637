"""The companion tool against the real proxy."""
import os
import subprocess
import unittest

from support import sip
from support.proxy import BIN, ProxyCase

CTL = os.path.join(BIN, "ue-proxyctl")


def ctl(*words, timeout=30):
    return subprocess.run([CTL, *words], capture_output=True, text=True, timeout=timeout)


class Words(unittest.TestCase):
    def test_help_of_each_command(self):
        for words in (["--help"], ["route", "--help"], ["register", "--help"], ["deregister", "--help"],
                      ["watch", "--help"]):
            done = ctl(*words)
            self.assertEqual(done.returncode, 0)
            self.assertTrue(done.stdout.startswith("usage: ue-proxyctl "))

    def test_wrong_words_are_one_clear_line_and_2(self):
        for words in (["route"], ["route", "set"], ["route", "set", "--profile"], ["register", "--port", "x"],
                      ["register", "--port", "5071"], ["register", "--frob"], ["route", "delete"],
                      ["route", "update", "--profile", "1"]):
            done = ctl(*words)
            self.assertEqual(done.returncode, 2, words)
            self.assertEqual(done.stderr.count("\n"), 1, done.stderr)

    def test_no_proxy_is_one_clear_line_and_1(self):
        done = ctl("route", "delete", "--profile", "1", "--timeout", "1", "--proxy-port", "5999")
        self.assertEqual(done.returncode, 1)
        self.assertIn("no answer from the proxy", done.stderr)
        done = ctl("register", "--port", "5071", "--packages", "p", "--timeout", "1", "--proxy-port", "5999")
        self.assertEqual(done.returncode, 1)


class AgainstTheProxy(ProxyCase):
    def test_routes(self):
        for transport in ("UDP", "TCP"):
            for words, profile in ((["set", "--device", "127.0.0.2", "--proxy", "127.0.0.3:UDP:5060"], "1"),
                                   (["update", "--proxy", "127.0.0.4:UDP:5060"], "1"), (["delete"], "1")):
                done = ctl("route", *words, "--profile", profile, "--transport", transport)
                self.assertEqual((done.returncode, done.stdout), (0, "1\n"), done.stderr)

    def test_a_command_that_is_not_answered(self):
        done = ctl("route", "update", "--profile", "9", "--proxy", "127.0.0.3:UDP:5060", "--timeout", "1")
        self.assertEqual(done.returncode, 1)
        self.assertIn("no answer", done.stderr)

    def test_register_and_deregister(self):
        for transport in ("UDP", "TCP"):
            words = ["--port", "5071", "--profile-name", "home", "--aor", "alice@example.net", "--user", "alice",
                     "--transport", transport]
            done = ctl("register", *words, "--feature-tag", "+g.x", "--header", "P-A:b")
            self.assertEqual((done.returncode, done.stdout), (0, "200 OK\nExpires: 3600\nZel-Profile-ID: 1\n"), done.stderr)
            done = ctl("deregister", *words)
            self.assertEqual((done.returncode, done.stdout), (0, "200 OK\nExpires: 0\nZel-Profile-ID: 1\n"), done.stderr)
            self.proxy.wait_log("Delete Client is Successful", count=1 if transport == "UDP" else 2)

    def test_a_module(self):
        done = ctl("register", "--port", "5072", "--packages", "presence", "--user", "module")
        self.assertEqual((done.returncode, done.stdout), (0, "200 OK\nExpires: 3600\n"), done.stderr)

    def test_a_refusal_is_shown(self):
        self.register(5073, sip.ua_info(tags=["t"]), user="x")
        done = ctl("register", "--port", "5071", "--profile-name", "home", "--aor", "alice@example.net", "--feature-tag",
                   "t", "--user", "alice")
        self.assertEqual(done.returncode, 1)
        self.assertTrue(done.stdout.startswith("403 "))


if __name__ == "__main__":
    unittest.main(verbosity=1)
