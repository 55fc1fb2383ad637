"""Start-up and its failures, the command line, the files of the run directory, the log, and the stop."""
import os
import re
import signal
import socket
import subprocess
import tempfile
import time
import unittest

from support import sip
from support.proxy import BIN, UeProxy

PROGRAM = os.path.join(BIN, "ue-proxy")


def run(*arguments, timeout=20):
    return subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=timeout, stdin=subprocess.DEVNULL)


class CommandLine(unittest.TestCase):
    def test_help_names_every_option_and_ends_with_0(self):
        done = run("--help")
        self.assertEqual(done.returncode, 0)
        for option in ("--help", "--version", "--foreground", "--config-dir", "--run-dir", "--log-level",
                       "--check-config", "dynport"):
            self.assertIn(option, done.stderr)
        self.assertIn("Usage:", done.stderr)
        self.assertIn("IMS Server options:", done.stderr)

    def test_version(self):
        done = run("--version")
        self.assertEqual(done.returncode, 0)
        self.assertRegex(done.stdout, r"^ue-proxy \d+\.\d+\.\d+\n$")

    def test_unknown_option_is_one_line_and_2(self):
        for arguments in (["--frobnicate"], ["stray"], ["--log-level"], ["-l", "many"]):
            done = run(*arguments)
            self.assertEqual(done.returncode, 2, arguments)
            self.assertEqual(done.stderr.count("\n"), 1, done.stderr)

    def test_check_config_reports_each_fault_with_file_and_line(self):
        proxy = UeProxy(start=False)
        self.addCleanup(proxy.remove)
        self.assertEqual(run("-t", "-c", proxy.config_dir).returncode, 0)
        proxy.write_config("profiles/broken.xml", "<network-profile>\n<impi>\n</network-profile>\n")
        proxy.write_config("config.xml", "<sipstackinit>\n<ue-proxy>\n<t1-ms>soon</t1-ms>\n</ue-proxy>\n</sipstackinit>\n")
        done = run("-t", "-c", proxy.config_dir)
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr, r"broken\.xml: line \d+")
        self.assertRegex(done.stderr, r"config\.xml: line 3: .*t1-ms")


    def test_check_config_names_a_transport_that_no_route_can_carry(self):
        proxy = UeProxy(start=False, srctransport="t\ncp")
        self.addCleanup(proxy.remove)
        done = run("-t", "-c", proxy.config_dir)
        self.assertEqual(done.returncode, 1)
        self.assertIn("srctransport", done.stderr)


class Running(unittest.TestCase):
    def start(self, **options):
        proxy = UeProxy(**options)
        self.addCleanup(proxy.remove)
        self.addCleanup(lambda: proxy.alive() and proxy.kill())
        return proxy

    def test_files_of_the_run_directory_come_and_go(self):
        proxy = self.start()
        with open(os.path.join(proxy.run_dir, "ue-proxy.cap"), encoding="ascii") as file:
            self.assertEqual(file.read(), "Contact: <sip:127.0.0.1:5060>\nRoute: <sip:127.0.0.1:5060;transport=tcp>\n")
        with open(os.path.join(proxy.run_dir, "ue-proxy.pid"), encoding="ascii") as file:
            self.assertEqual(file.read(), f"{proxy.pid}\n")
        mode = os.stat(os.path.join(proxy.run_dir, "ue-proxy.sock")).st_mode & 0o777
        self.assertEqual(mode, 0o600)
        proxy.stop()
        self.assertEqual(sorted(os.listdir(proxy.run_dir)), ["ue-proxy.cap"])

    def test_route_equals_contact_without_srctransport(self):
        proxy = self.start(srctransport="")
        with open(os.path.join(proxy.run_dir, "ue-proxy.cap"), encoding="ascii") as file:
            self.assertEqual(file.read(), "Contact: <sip:127.0.0.1:5060>\nRoute: <sip:127.0.0.1:5060>\n")
        proxy.stop()

    def test_start_up_is_told_in_order(self):
        proxy = self.start()
        proxy.wait_log("Successfully Added Client key=0")
        texts = [text for _, function, text in proxy.lines(5) if function == "run"]
        self.assertEqual(texts, ["__ua_myuri=<sip:127.0.0.1:5060> localport=5060",
                                 "__ua_myuri=<sip:127.0.0.1:5060> localhost_port=5060 localhost_ip=127.0.0.1",
                                 "Route as in .cap file=<sip:127.0.0.1:5060;transport=tcp>", "Adding registrar"])
        proxy.stop()

    def test_standard_error_carries_log_lines_only(self):
        proxy = self.start()
        peer = sip.Udp()
        peer.send(b"\x00\x01rubbish\r\n\r\n")
        peer.send(sip.register(5070, "<ua-info><unclosed>", via=peer.via))
        self.assertEqual(peer.receive().status, 400)
        proxy.stop()
        for line in proxy.log().splitlines():
            self.assertRegex(line, r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z ue-proxy\[\d+\] [345] ~?\w+: ")

    def test_below_a_journal_lines_begin_with_the_priority(self):
        proxy = UeProxy(start=False)
        self.addCleanup(proxy.remove)
        done = subprocess.Popen(proxy.command, stderr=subprocess.PIPE, text=True,
                                env=dict(os.environ, JOURNAL_STREAM="8:1"), stdin=subprocess.DEVNULL)
        sip.wait_until(lambda: os.path.exists(os.path.join(proxy.run_dir, "ue-proxy.cap")), 20)
        done.send_signal(signal.SIGTERM)
        _, errors = done.communicate(timeout=20)
        self.assertEqual(done.returncode, 0)
        for line in errors.splitlines():
            self.assertRegex(line, r"^<[357]>~?\w+: ")

    def test_a_taken_udp_port_is_one_clear_line_and_the_end(self):
        taken = sip.Udp(5060)
        proxy = self.start(start=False, level=4)
        proxy.start(ready=False)
        self.assertEqual(proxy.process.wait(20), 0)
        taken.close()
        self.assertEqual([level for level, _, text in proxy.lines() if "5060" in text and level == 3], [3], proxy.log())

    def test_a_taken_tcp_port_is_one_clear_line_and_the_end(self):
        taken = sip.Tcp(5060)
        proxy = self.start(start=False, level=4)
        proxy.start(ready=False)
        self.assertEqual(proxy.process.wait(20), 0)
        taken.close()
        self.assertEqual([level for level, _, text in proxy.lines() if "5060" in text and level == 3], [3], proxy.log())

    def test_with_dynport_the_port_floats_past_a_taken_one(self):
        taken = sip.Udp(5060)
        proxy = self.start(program_options=["-dynport", "yes"])
        with open(os.path.join(proxy.run_dir, "ue-proxy.cap"), encoding="ascii") as file:
            port = int(re.search(r"127\.0\.0\.1:(\d+)>", file.read()).group(1))
        self.assertGreater(port, 5060)
        peer = sip.Udp()
        peer.send(sip.register(5070, sip.ua_info(), via=peer.via), (sip.LOOP, port))
        self.assertEqual(peer.receive().status, 200)
        taken.close()
        proxy.stop()

    def test_dynport_does_not_swallow_the_option_that_follows(self):
        proxy = self.start(foreground=False, program_options=["-dynport", "--foreground"])
        self.assertTrue(proxy.alive(), "in the foreground")
        self.assertTrue(proxy.has("localport=5060"))
        proxy.stop()

    def test_dynport_with_another_value_or_sign(self):
        proxy = self.start(program_options=["-dynport", "no"])
        self.assertTrue(proxy.has("localport=5060"))
        proxy.stop()
        taken = sip.Udp(5060)
        proxy = self.start(program_options=["+dynport", "yes"])
        self.assertFalse(proxy.has("localport=5060"))
        taken.close()
        proxy.stop()

    def test_with_dynport_the_network_side_floats_too_and_stands_in_via_and_contact(self):
        taken = sip.Tcp(5060, "127.0.0.2")
        proxy = self.start(program_options=["-dynport", "yes"])
        ua, network = sip.Udp(5071), sip.Udp(5060, "127.0.0.3")
        for data in (sip.register(5071, sip.ua_info(), via=ua.via),
                     sip.route_command(ua.via, sip.route_body("set-route", "1", "127.0.0.3:UDP:5060"))):
            ua.send(data)
            self.assertEqual(ua.receive().status, 200)
        ua.send(sip.request("OPTIONS", "sip:x@example.net", via=ua.via, frm="<sip:a@example.net>", to="<sip:x@example.net>",
                            contact=f"<sip:a@{ua.via}>"))
        seen = network.receive()
        port = network.source[1]
        self.assertGreater(port, 5060)
        self.assertIn(f" 127.0.0.2:{port};", seen.get("Via"))
        self.assertEqual(seen.get("Contact"), f"<sip:127.0.0.2:{port};mok=1>")
        for peer in (ua, network, taken):
            peer.close()
        proxy.stop()

    def test_a_taken_network_port_refuses_the_route_until_it_is_free(self):
        taken = sip.Tcp(5060, "127.0.0.2")
        proxy = self.start()
        peer = sip.Udp()
        for _ in range(2):
            peer.send(sip.route_command(peer.via, sip.route_body("set-route", "1", "127.0.0.3:UDP:5060")))
            self.assertEqual(peer.receive().status, 200)
            self.assertEqual(proxy.log().count("dentry.pnotifier is NULL"), 1)
            taken.close()
        self.assertFalse(proxy.has("Domain already exists"))
        peer.close()
        proxy.stop()

    def test_a_single_bad_setting_is_one_line_and_the_others_hold(self):
        proxy = self.start(settings="<t1-ms>soon</t1-ms><max-connections>2</max-connections>")
        self.assertEqual(len([line for line in proxy.lines() if line[0] <= 4 and "t1-ms" in line[2]]), 1)
        kept = [sip.connect(), sip.connect()]
        for stream in kept:
            stream.send(b"\r\n\r\n")
            self.assertEqual(stream.receive_raw(2), b"\r\n")
        kept.append(sip.connect())
        first = kept.pop(0)
        self.assertTrue(first.closed())  # of three one gives way
        first.close()
        for stream in kept:
            stream.send(b"\r\n\r\n")
            self.assertEqual(stream.receive_raw(2), b"\r\n")
            stream.close()
        proxy.stop()

    def test_a_second_process_in_the_same_run_directory_leaves_the_files_of_the_first(self):
        proxy = self.start()
        second = subprocess.run(proxy.command, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL, timeout=20)
        self.assertEqual(second.returncode, 0)
        self.assertEqual(sorted(os.listdir(proxy.run_dir)), ["ue-proxy.cap", "ue-proxy.pid", "ue-proxy.sock"])
        with open(os.path.join(proxy.run_dir, "ue-proxy.pid"), encoding="ascii") as file:
            self.assertEqual(file.read(), f"{proxy.pid}\n")
        proxy.stop()

    def test_dynport_as_last_argument_is_ignored(self):
        proxy = self.start(program_options=["-dynport"])
        self.assertTrue(proxy.has("localport=5060"))
        proxy.stop()

    def test_a_broken_configuration_leaves_the_defaults_with_one_line(self):
        proxy = self.start(config_text="<sipstackinit><ue-proxy><max-connections>no</max-connections>")
        self.assertTrue(proxy.has("localport=5060"))
        faults = [text for level, _, text in proxy.lines() if level <= 4 and "config.xml" in text]
        self.assertEqual(len(faults), 1, proxy.log())
        proxy.stop()

    def test_detached_it_leaves_the_terminal_and_answers(self):
        proxy = UeProxy(foreground=False, start=False)
        self.addCleanup(proxy.remove)
        started = subprocess.run(proxy.command, stderr=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stdin=subprocess.DEVNULL, timeout=20)
        self.assertEqual(started.returncode, 0)
        pid_file = os.path.join(proxy.run_dir, "ue-proxy.pid")
        sip.wait_until(lambda: os.path.exists(os.path.join(proxy.run_dir, "ue-proxy.cap")), 20)
        with open(pid_file, encoding="ascii") as file:
            pid = int(file.read())
        try:
            self.assertEqual(os.getsid(pid), os.getpgid(pid))
            self.assertNotEqual(os.getsid(pid), os.getsid(0))
            self.assertEqual(os.readlink(f"/proc/{pid}/cwd"), "/")
        finally:
            os.kill(pid, signal.SIGTERM)
        sip.wait_until(lambda: not os.path.exists(pid_file), 20, "pid file removed")

    def test_sigint_stops_it_like_sigterm(self):
        proxy = self.start()
        proxy.wait_log("Successfully Added Client key=0")
        time.sleep(0.1)
        proxy.process.send_signal(signal.SIGINT)
        self.assertEqual(proxy.process.wait(20), 0)
        proxy.stop()

    def test_an_unwritable_run_directory_is_told_and_survived(self):
        proxy = self.start(start=False)
        proxy.command[proxy.command.index("-r") + 1] = "/proc/none"
        proxy.start(ready=False)
        peer = sip.Udp()

        def answered():
            peer.send(sip.register(5070, sip.ua_info(), via=peer.via))
            try:
                return peer.receive(0.3).status == 200
            except (TimeoutError, ConnectionError):
                return False
        sip.wait_until(answered, 20)
        self.assertTrue([line for line in proxy.lines() if line[0] <= 4 and "/proc/none" in line[2]], proxy.log())
        self.assertIn((4, "run", "Error Craeting External listen thread"), proxy.lines())
        proxy.stop()

    def test_control_channel_text_reaches_the_registrar(self):
        proxy = self.start()
        channel = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        channel.sendto(b"refresh", os.path.join(proxy.run_dir, "ue-proxy.sock"))
        proxy.wait_log("Calling handle_registrar_refresh_message(string&)")
        channel.sendto(b"y" * 4096, os.path.join(proxy.run_dir, "ue-proxy.sock"))
        proxy.wait_log("Calling handle_registrar_refresh_message(string&)", count=2)
        channel.sendto(b"x" * 5000, os.path.join(proxy.run_dir, "ue-proxy.sock"))
        channel.sendto(b"refresh again", os.path.join(proxy.run_dir, "ue-proxy.sock"))
        proxy.wait_log("Calling handle_registrar_refresh_message(string&)", count=3)
        time.sleep(0.1)
        self.assertEqual(proxy.log().count("Calling handle_registrar_refresh_message(string&)"), 3)
        channel.close()
        proxy.stop()

    def test_a_stale_control_socket_is_replaced(self):
        proxy = self.start(start=False)
        stale = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        stale.bind(os.path.join(proxy.run_dir, "ue-proxy.sock"))
        stale.close()
        proxy.start()
        proxy.stop()


if __name__ == "__main__":
    unittest.main(verbosity=1)
