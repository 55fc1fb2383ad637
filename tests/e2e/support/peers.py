"""Real peers from Debian: kamailio as the network's proxy, SIPp scenarios, and the soft phone baresip."""
import os
import re
import shutil
import signal
import subprocess
import tempfile
import threading

from support import sip

SCENARIOS = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "scenarios")

KAMAILIO = """#!KAMAILIO
# The network of the tests: one outbound proxy that is the registrar and proxy of example.net too.
debug=2
log_stderror=yes
fork=yes
children=2
tcp_children=2
disable_tcp=no
auto_aliases=no
alias="example.net"
listen=udp:{ip}:{port}
listen=tcp:{ip}:{port}
mpath="/usr/lib/x86_64-linux-gnu/kamailio/modules/:/usr/lib/kamailio/modules/:/usr/lib/arm-linux-gnueabihf/kamailio/modules/:/usr/lib/aarch64-linux-gnu/kamailio/modules/"
loadmodule "tm.so"
loadmodule "sl.so"
loadmodule "rr.so"
loadmodule "pv.so"
loadmodule "maxfwd.so"
loadmodule "textops.so"
loadmodule "siputils.so"
loadmodule "xlog.so"
loadmodule "usrloc.so"
loadmodule "registrar.so"
loadmodule "auth.so"
modparam("usrloc", "db_mode", 0)
modparam("registrar", "default_expires", 3600)
modparam("auth", "nonce_count", 0)
{auth_parameters}
request_route {{
  xlog("L_NOTICE", "SEEN $rm $ru from $si:$sp\\n");
  if (!mf_process_maxfwd_header("10")) {{ sl_send_reply("483", "Too Many Hops"); exit; }}
  if (has_totag()) {{
    if (loose_route()) {{ t_relay(); exit; }}
    if (is_method("ACK")) {{ if (t_check_trans()) t_relay(); exit; }}
    sl_send_reply("404", "Not here");
    exit;
  }}
  if (is_method("CANCEL")) {{ if (t_check_trans()) t_relay(); exit; }}
  {challenge}
  if (is_method("REGISTER")) {{ save("location"); exit; }}
  if (is_method("MESSAGE") && $rU == "echo") {{ sl_send_reply("200", "Heard"); exit; }}
  if (is_method("INVITE") && $rU == "echo") {{ sl_send_reply("486", "Busy"); exit; }}
  record_route();
  if ($rd == "example.net" && $rU == "bob") {{ $du = "sip:{callee}"; t_relay(); exit; }}
  if ($rd == "example.net") {{
    # The registered contact has no user part; phones want to be called by theirs, so the Request-URI stays.
    $var(called) = $ru;
    if (!lookup("location")) {{ sl_send_reply("404", "Not found"); exit; }}
    $du = $ru;
    $ru = $var(called);
  }}
  t_relay();
}}
"""


class Child:
    """A process of the test's own, with its output in a file."""

    def __init__(self, command, directory, name, environment=None):
        self.dir = directory
        self.path = os.path.join(directory, name + ".log")
        with open(self.path, "ab") as out:
            self.process = subprocess.Popen(command, cwd=directory, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                            env=environment, start_new_session=True)

    def output(self):
        with open(self.path, encoding="utf-8", errors="replace") as file:
            return file.read()

    def wait_output(self, text, timeout=15.0, count=1):
        sip.wait_until(lambda: len(re.findall(text, self.output())) >= count, timeout,
                       f"output {text!r}, but it is:\n{self.output()[-4000:]}")

    def wait(self, timeout=60):
        return self.process.wait(timeout)

    def close(self):
        """Ends the process and those it started: they are one process group of ours."""
        try:
            os.killpg(self.process.pid, signal.SIGTERM)
            self.process.wait(10)
        except ProcessLookupError:
            pass
        except subprocess.TimeoutExpired:
            os.killpg(self.process.pid, signal.SIGKILL)
        if self.process.poll() is None:
            self.process.wait(10)


class Kamailio(Child):
    def __init__(self, ip="127.0.0.3", port=5060, callee="127.0.0.5:5060", challenge="", auth_parameters=""):
        self.work = tempfile.mkdtemp(prefix="ue-proxy-kamailio-")
        config = os.path.join(self.work, "kamailio.cfg")
        with open(config, "w", encoding="ascii") as file:
            file.write(KAMAILIO.format(ip=ip, port=port, callee=callee, challenge=challenge,
                                       auth_parameters=auth_parameters))
        super().__init__(["kamailio", "-DD", "-E", "-f", config, "-m", "32", "-M", "4", "-w", self.work, "-Y", self.work,
                          "-P", os.path.join(self.work, "pid")], self.work, "kamailio")
        self.address = (ip, port)
        sip.wait_until(self.answers, 20, "kamailio answering:\n" + self.output()[-3000:])

    def answers(self):
        try:
            sip.connect(self.address, timeout=0.3).close()
            return True
        except OSError:
            return False

    def close(self):
        super().close()
        shutil.rmtree(self.work, ignore_errors=True)


class Sipp(Child):
    """One scenario of tests/e2e/scenarios. Exit status 0: every call did what the scenario says."""

    def __init__(self, scenario, *, ip, port, remote=None, transport="u1", calls=1, rate=10, keys=None, service="bob",
                 extra=()):
        self.work = tempfile.mkdtemp(prefix="ue-proxy-sipp-")
        self.ip, self.port = ip, port
        command = ["sipp", "-sf", os.path.join(SCENARIOS, scenario), "-i", ip, "-p", str(port), "-t", transport, "-m",
                   str(calls), "-r", str(rate), "-nostdin", "-trace_err", "-trace_screen", "-timeout", "120", "-s", service,
                   "-timeout_error", *extra]
        for key, value in (keys or {}).items():
            command += ["-key", key, value]
        if remote:
            command.append(remote)
        super().__init__(command, self.work, "sipp", dict(os.environ, TERM="dumb"))

    def wait_bound(self, protocol, timeout=10.0):
        """Until its socket of `protocol` ("udp", "tcp") is there."""
        local = "".join(f"{int(part):02X}" for part in reversed(self.ip.split("."))) + f":{self.port:04X}"

        def bound():
            with open(f"/proc/net/{protocol}", encoding="ascii") as table:
                return any(line.split()[1] == local for line in table)
        sip.wait_until(bound, timeout, "sipp's socket")

    def errors(self):
        text = ""
        for name in sorted(os.listdir(self.work)):
            with open(os.path.join(self.work, name), encoding="utf-8", errors="replace") as file:
                text += f"--- {name}\n{file.read()[-3000:]}\n"
        return text

    def succeed(self, timeout=120):
        status = self.wait(timeout)
        if status != 0:
            raise AssertionError(f"sipp ended with {status}:\n{self.errors()}")

    def close(self):
        super().close()
        shutil.rmtree(self.work, ignore_errors=True)


class Baresip(Child):
    """A soft phone at 127.0.0.1:`port` whose outbound proxy is ours."""

    def __init__(self, *, user="alice", port=5071, transport="udp", commands=(), answer=False, local=False):
        self.work = tempfile.mkdtemp(prefix="ue-proxy-baresip-")
        domain = "127.0.0.1" if local else "example.net"
        modules = ["account.so", "menu.so", "g711.so", "aubridge.so", "stdio.so", "uuid.so"]
        with open(os.path.join(self.work, "config"), "w", encoding="ascii") as file:
            file.write(f"sip_listen 127.0.0.1:{port}\nsip_trans_def {transport}\naudio_source aubridge,self\n"
                       f"audio_player aubridge,self\naudio_alert aubridge,alert\n"
                       "audio_path /usr/share/baresip\n"
                       "call_local_timeout 60\nnet_interface 127.0.0.1\nmodule_path /usr/lib/baresip/modules\n"
                       + "".join(f"module {m}\n" for m in modules if m not in ("account.so", "menu.so"))
                       + "module_app account.so\nmodule_app menu.so\n")
        with open(os.path.join(self.work, "accounts"), "w", encoding="ascii") as file:
            file.write(f'<sip:{user}@{domain}>;regint=0;outbound="sip:127.0.0.1:5060;transport={transport}";'
                       f"answermode={'auto' if answer else 'manual'};audio_codecs=PCMU/8000/1\n")
        arguments = []
        for command in commands:
            arguments += ["-e", command]
        super().__init__(["stdbuf", "-oL", "-eL", "baresip", "-4", "-s", "-v", "-f", self.work, *arguments], self.work, "baresip",
                         dict(os.environ, HOME=self.work))

    def close(self):
        super().close()
        shutil.rmtree(self.work, ignore_errors=True)


class Callee:
    """Somebody in the network behind kamailio: answers what comes, and calls."""

    def __init__(self, ip="127.0.0.5", port=5060):
        self.peer = sip.Udp(port, ip)
        self.running = True
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    @property
    def contact(self):
        return f"<sip:bob@{self.peer.ip}:{self.peer.port}>"

    def request(self, method, uri, cseq, to_tag="", headers=(), body=""):
        self.peer.send(sip.request(method, uri, via=self.peer.via, frm="<sip:bob@example.net>;tag=bob",
                                        to=f"<{self.called}>{to_tag}", call_id="from-the-network", cseq=cseq,
                                        contact=self.contact, headers=headers, body=body), ("127.0.0.3", 5060))

    def call(self, uri):
        self.called = uri
        self.answer = None
        self.request("INVITE", uri, 1, headers=[("Content-Type", "application/sdp")], body=self.sdp())

    def hang_up(self):
        self.in_dialog("BYE", 2)

    def in_dialog(self, method, cseq):
        """To the address that the answer gave, by way of the proxies that recorded themselves."""
        target = re.search("<(.*?)>", self.answer.get("Contact")).group(1)
        tag = re.search(";tag=([^;]+)", self.answer.get("To")).group(0)
        routes = [("Route", route) for route in reversed(self.answer.all("Record-Route"))]
        self.request(method, target, cseq, tag, routes)

    def sdp(self):
        return (f"v=0\r\no=bob 1 1 IN IP4 {self.peer.ip}\r\ns=-\r\nc=IN IP4 {self.peer.ip}\r\nt=0 0\r\n"
                "m=audio 7000 RTP/AVP 0\r\n")

    def _serve(self):
        contact, sdp = self.contact, self.sdp()
        while self.running:
            try:
                message = self.peer.receive(0.2)
            except TimeoutError:
                continue
            if message.status == 200 and "INVITE" in message.get("CSeq"):
                self.answer = message
                self.in_dialog("ACK", 1)
                continue
            if message.method == "INVITE":
                self.peer.send(sip.response(message, 180, "Ringing", contact=contact), self.peer.source)
                self.peer.send(sip.response(message, 200, "OK", contact=contact, body=sdp,
                                                 headers=[("Content-Type", "application/sdp")]), self.peer.source)
            elif message.method and message.method != "ACK":
                self.peer.send(sip.response(message, 200, "OK"), self.peer.source)

    def close(self):
        self.running = False
        self.thread.join()
        self.peer.close()
