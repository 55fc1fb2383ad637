"""What is kept apart: the registrar from the network, the XML reader from files and sockets, the log from forged lines,
the log and the other files from secrets."""
import ctypes
import hashlib
import os
import re
import select
import socket
import unittest

from support import sip
from support.proxy import HOME_PROFILE, ProxyCase, UeProxy

NETWORK = ("127.0.0.2", 5060)


class Registrar(ProxyCase):
    def listening(self):
        """Local addresses of the sockets of this network namespace that belong to port 5060."""
        found = set()
        for protocol, state in (("tcp", "0A"), ("udp", "07"), ("tcp6", "0A"), ("udp6", "07")):
            with open(f"/proc/net/{protocol}", encoding="ascii") as table:
                for line in table:
                    fields = line.split()
                    if fields[1].endswith(":13C4") and fields[3] == state:
                        found.add((protocol, fields[1].partition(":")[0]))
        return found

    def test_it_listens_on_the_loopback_address_and_on_those_of_routes_only(self):
        self.assertEqual(self.listening(), {("tcp", "0100007F"), ("udp", "0100007F")})
        self.set_route("1", "127.0.0.3:UDP:5060")
        self.assertEqual(self.listening(),
                         {("tcp", "0100007F"), ("udp", "0100007F"), ("tcp", "0200007F"), ("udp", "0200007F")})

    def test_neither_register_nor_subscribe_nor_route_command_is_taken_from_the_network(self):
        self.set_route("1", "127.0.0.3:UDP:5060")
        watcher = self.udp()
        network = self.udp(5060, "127.0.0.3")
        stream = self.connect(to=NETWORK, source=("127.0.0.3", 0))

        def requests(via, transport):
            yield sip.register(5071, sip.ua_info(), via=via, transport=transport), 403
            yield sip.request("SUBSCRIBE", "sip:registrar@127.0.0.1", via=via, frm="<sip:w@127.0.0.1>",
                              to="<sip:registrar@127.0.0.1>", contact=f"<sip:regua@{watcher.via}>", transport=transport,
                              headers=[("Event", "local-reg-events"), ("Expires", 60)]), 403
            yield sip.route_command(via, sip.route_body("delete-route", "1"), transport), None
            yield sip.route_command(via, sip.route_body("set-route", "9", "127.0.0.9:UDP:5060"), transport), None
        for data, status in requests(network.via, "UDP"):
            network.send(data, NETWORK)
            if status:
                self.assertEqual(network.receive().status, status)
        for data, status in requests("127.0.0.3:5060", "TCP"):
            stream.send(data)
            if status:
                self.assertEqual(stream.receive().status, status)
        self.proxy.wait_log("ERROR: check why client or domain key empty", count=4)
        self.assertTrue(watcher.nothing())
        self.assertTrue(network.nothing(0.1))
        for line in ("Successfully Added Client key=1", "Deleted domain", "127.0.0.9"):
            self.assertFalse(self.proxy.has(line), line)
        self.register(5071)
        self.assertTrue(watcher.nothing())


class Opened:
    """Tells whether a file was opened since (inotify), however that ended."""

    def __init__(self, path):
        libc = ctypes.CDLL(None, use_errno=True)
        self.descriptor = libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        everything = 0xfff
        if self.descriptor < 0 or libc.inotify_add_watch(self.descriptor, path.encode(), everything) < 0:
            raise OSError(ctypes.get_errno(), path)

    def __call__(self):
        return bool(select.select([self.descriptor], [], [], 0)[0])

    def close(self):
        os.close(self.descriptor)


class Xml(ProxyCase):
    CANARY = "canary-4711"

    def setUp(self):
        super().setUp()
        self.canary = os.path.join(self.proxy.dir, "canary.xml")
        with open(self.canary, "w", encoding="ascii") as file:
            file.write(f"<aor>{self.CANARY}</aor>")
        self.opened = Opened(self.canary)
        self.addCleanup(self.opened.close)
        self.listener, self.datagrams = self.tcp(), self.udp()

    def hostile(self, root, inner):
        """(name, document) with `inner` as what belongs into the root and {x} where a text may stand."""
        url = f"http://{self.listener.via}/x.dtd"
        file = f"file://{self.canary}"

        def document(before="", value="", attributes="", first=""):
            return f'<?xml version="1.0"?>{before}<{root}{attributes}>{first}{inner.replace("{x}", value)}</{root}>'
        for kind, place in (("file", file), ("path", self.canary), ("http", url), ("ftp", url.replace("http", "ftp"))):
            yield f"entity, {kind}", document(f'<!DOCTYPE a [<!ENTITY e SYSTEM "{place}">]>', "&e;")
            yield f"parameter entity, {kind}", document(f'<!DOCTYPE a [<!ENTITY % e SYSTEM "{place}"> %e;]>')
            yield f"DOCTYPE, {kind}", document(f'<!DOCTYPE a SYSTEM "{place}">')
            yield f"public DOCTYPE, {kind}", document(f'<!DOCTYPE a PUBLIC "-//x//y" "{place}">')
            include = f'<xi:include xmlns:xi="http://www.w3.org/2001/XInclude" href="{place}" parse="text"/>'
            yield f"XInclude, {kind}", document(value=include)
            yield f"XInclude first, {kind}", document(first=include)
            yield f"style sheet, {kind}", document(f'<?xml-stylesheet href="{place}"?>')
            yield f"schema, {kind}", document(attributes=' xmlns:s="http://www.w3.org/2001/XMLSchema-instance" '
                                              f's:noNamespaceSchemaLocation="{place}"')
            yield f"base, {kind}", document(attributes=f' xml:base="{place}"')
        laughs = "".join(f'<!ENTITY l{n} "{f"&l{n - 1};" * 10}">' for n in range(1, 10))
        yield "billion laughs", document(f'<!DOCTYPE a [<!ENTITY l0 "lol">{laughs}]>', "&l9;")
        yield "quadratic blow-up", document(f'<!DOCTYPE a [<!ENTITY b "{"b" * 20000}">]>', "&b;" * 10000)
        yield "recursion", document('<!DOCTYPE a [<!ENTITY a "&b;"><!ENTITY b "&a;">]>', "&a;")

    def untouched(self, name):
        self.assertFalse(self.opened(), f"{name}: the file was opened")
        self.assertTrue(self.listener.nothing(0), f"{name}: a connection came")
        self.assertTrue(self.datagrams.nothing(0), f"{name}: a datagram came")

    def test_bodies_reach_no_file_and_no_network(self):
        peer = self.udp()
        before = self.proxy.resident_kib()
        inner = ("<profile-info><name>home</name></profile-info><aor>{x}<ua-specific-parameters>"
                 "<methods>INVITE</methods></ua-specific-parameters></aor>")
        for number, (name, body) in enumerate(self.hostile("ua-info", inner)):
            peer.send(sip.register(6000 + number, body, via=peer.via, user=f"u{number}"))
            peer.receive()  # whatever the answer
            self.untouched(name)
        command = ("<action>set-route</action><profile-info><zel-profile-id>7</zel-profile-id></profile-info>"
                   "<device-name>{x}</device-name><ip-type-port>127.0.0.3:UDP:5060</ip-type-port>")
        for name, body in self.hostile("route-info", command):
            peer.send(sip.route_command(peer.via, body))
            self.register(5071)  # what was sent before it is read
            self.untouched(name)
        self.assertFalse(self.proxy.has(self.CANARY))
        self.assertLess(self.proxy.resident_kib() - before, 60 * 1024)

    def test_profiles_reach_no_file_and_no_network(self):
        for number, (name, text) in enumerate(self.hostile("network-profile", "<impi>{x}</impi><secret>{x}</secret>")):
            self.proxy.write_config(f"profiles/p{number % 60}.xml", text)
            self.register(6000 + number, sip.ua_info(f"p{number % 60}", f"u{number}@example.net", tags=[f"t{number}"]),
                          user=f"u{number}")
            self.untouched(name)
        self.assertFalse(self.proxy.has(self.CANARY))

    def test_profile_names_lead_to_no_other_file(self):
        for name in (self.canary, "../canary", "../../canary.xml", "..", ".", "./home", "home/../../canary",
                     "%2e%2e/canary"):
            peer = self.udp()
            peer.send(sip.register(5071, sip.ua_info(name), via=peer.via))
            peer.receive()
            self.untouched(name)


class ForgedLines(ProxyCase):
    """Whatever stands in a message, each line of the log is one that the proxy wrote."""

    TIME = "2026-11-20T23:47:01.123456Z ue-proxy[1] 3"
    BAD = ["\r", "\n", "\r\n", "\0", "\x1b[2K\x1b[1A", "\x08" * 20, "\x0b", "\x0c", "\x85", "\x9b2K", "\x7f"]

    def values(self):
        for number, bad in enumerate(self.BAD):
            yield number, f"v{bad}{self.TIME} forged: line{number}"

    def check(self):
        with open(self.proxy.log_path, "rb") as file:
            log = file.read()
        self.assertIsNone(re.search(rb"[\x00-\x09\x0b-\x1f\x7f]|\xc2[\x80-\x9f]", log))
        ours = re.compile(rb"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z ue-proxy\[%d\] \d ~?\w+: " % self.proxy.pid)
        for line in log.split(b"\n")[:-1]:
            self.assertRegex(line, ours)
        self.assertIn(b"forged: line", log, "the values were not logged at all")

    def test_by_headers_and_start_lines(self):
        self.register(5071)
        self.set_route("1", "127.0.0.3:UDP:5060")
        ua, network = self.udp(5071), self.udp(5060, "127.0.0.3")
        stream, far = self.connect(), self.connect(to=NETWORK, source=("127.0.0.3", 0))
        for number, value in self.values():
            parts = [("uri", f"sip:{value}@example.net"), ("call_id", value), ("contact", f"<sip:{value}@x>"),
                     ("to", f'"{value}" <sip:x@127.0.0.1>'), ("to", f"<sip:{value}@127.0.0.1>"),
                     ("frm", f'"{value}" <sip:alice@example.net>'), ("frm", f"<sip:{value}@127.0.0.1>"),
                     ("via", f"127.0.0.1:5071;p={value}"), ("via", f"127.0.0.3:5060;p={value}"),
                     ("method", value), ("body", value), *((("headers", [(name, value)])) for name in (
                         "Event", "Accept-Contact", "P-Asserted-Identity", "Content-Type", "Proxy-Authorization",
                         "Authorization",
                         "Route", "Record-Route", "User-Agent"))]
            for name, part in parts:
                given = dict({"method": "MESSAGE", "uri": "sip:x@example.net", "via": "127.0.0.1:5071",
                              "to": "<sip:x@example.net>",
                              "frm": "<sip:alice@example.net>", "call_id": f"c{number}"}, **{name: part})
                method, uri = given.pop("method"), given.pop("uri")
                data = sip.request(method, uri, **given)
                for send in (ua.send, lambda data: network.send(data, NETWORK)):
                    send(data)
                # As a stream's framing may end with it, each gets a stream of its own now and then.
                for one in (stream, far):
                    try:
                        one.send(data.replace(b"/UDP", b"/TCP", 1))
                    except OSError:
                        pass
                stream.close()
                far.close()
                stream, far = sip.connect(), sip.connect(NETWORK, ("127.0.0.3", 0))
            for name in ("WWW-Authenticate", "Proxy-Authenticate", "Contact", "Via"):
                status = 407 if name.startswith("Proxy") else 401
                answer = (f"SIP/2.0 {status} {value}\r\nVia: SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bK1;mok=1\r\n"
                          "Via: SIP/2.0/UDP 127.0.0.1:5071;branch=z9hG4bK2\r\nFrom: <sip:alice@example.net>;tag=a\r\n"
                          f"To: <sip:x@example.net>;tag=b\r\nCall-ID: {value}\r\nCSeq: 1 INVITE\r\n"
                          f'{name}: Digest realm="{value}", nonce="n"\r\n{name}: {value}\r\n'
                          "Content-Length: 0\r\n\r\n").encode()
                network.send(answer, NETWORK)
        stream.close()
        far.close()
        self.register(5071)
        self.check()

    def test_by_bodies_and_control_texts(self):
        control = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(control.close)
        peer = self.udp()
        for number, value in self.values():
            escaped = "".join(c if c.isprintable() and c not in "<>&" else f"&#{ord(c)};" for c in value)
            for text in (value, escaped):
                # A character that XML does not know at all costs the body; the others arrive as they are.
                for body in (sip.ua_info(f"p{text}", f"a{number}@example.net", [text], text, text, text),
                             sip.ua_info("home", text), sip.MODULE_INFO.format(packages=text)):
                    peer.send(sip.register(6000 + number, body, via=peer.via, user=f"u{number}",
                                           call_id=sip.unique("c")))
                    peer.receive()
                for body in (sip.route_body("set-route", text, f"127.0.0.3:{text}:5060", text),
                             sip.route_body(text, text, f"{text}:UDP:5060", text),
                             sip.route_body("update-route", text, text)):
                    peer.send(sip.route_command(peer.via, body))
                    self.register(5071)
            while True:
                try:
                    peer.receive(0.01)
                except TimeoutError:
                    break
            control.sendto(value.encode(), os.path.join(self.proxy.run_dir, "ue-proxy.sock"))
        self.register(5071)
        self.check()


class Secrets(unittest.TestCase):
    SECRETS = ("wonderland", "own-response", "own-cnonce", "own-password")

    def exchange(self, proxy, transport):
        """Everything that has to do with a secret, done right and done wrong. Gives what must not be told."""
        told = set(self.SECRETS)
        peer, ua = sip.Udp(), sip.Udp(5071)
        network, listener = sip.Udp(5060, "127.0.0.3"), sip.Tcp(5060, "127.0.0.3")
        streams = []

        def ask(data):
            peer.send(data)
            return peer.receive()
        try:
            self.assertEqual(ask(sip.register(5071, sip.ua_info(methods="MESSAGE"), via=peer.via)).status, 200)
            for action, address in (("set-route", "127.0.0.3:UDP:5060"), ("set-route", "127.0.0.3:UDP:5060"),
                                    ("update-route", "127.0.0.3:TCP:5061"), ("delete-route", ""),
                                    ("set-route", f"127.0.0.3:{transport}:5060")):
                self.assertEqual(ask(sip.route_command(peer.via, sip.route_body(action, "1", address))).status, 200)
            for address in ("nonsense", "::", "127.0.0.3:TCP"):
                peer.send(sip.route_command(peer.via, sip.route_body("update-route", "8", address)))
            if transport == "TCP":
                streams += [sip.connect(), listener.accept()]

            def send(headers):
                data = sip.request("MESSAGE", "sip:x@example.net", via="127.0.0.1:5071", frm="<sip:alice@example.net>",
                                   to="<sip:x@example.net>", headers=headers, transport=transport)
                (streams[0] if streams else ua).send(data)
                return self.received(network, listener, streams)

            own = ('Digest username="u", realm="{}", nonce="{}", uri="sip:x", '
                   'response="own-response", cnonce="own-cnonce"')
            bad = [own.format("r", "n") + ', x="', own.format("r", "n") + "".join(f", p{n}=1" for n in range(100)),
                   "Basic own-password",
                   "own-password", own.format("r", "n") + ", y=" + "z" * 3000]
            for name, status, challenge in (("Authorization", 401, "WWW-Authenticate"),
                                            ("Proxy-Authorization", 407, "Proxy-Authenticate")):
                for parameters in ("", ', qop="auth"', ", algorithm=SHA-256", ', nonce="', ', stale=true, opaque="o"'):
                    seen, answer = send([(name, own.format("example.net", "n1"))])
                    answer(sip.response(seen, status, "Prove it", headers=[
                        (challenge, f'Digest realm="example.net", nonce="n{status}"{parameters}')]))
                    self.told_back(ua, streams)
                    seen, answer = send([])
                    for value in seen.all(name):
                        told.update(re.findall(r'response="?([0-9a-f]{32})', value))
                    answer(sip.response(seen, 200, "OK"))
                    self.told_back(ua, streams)
                for value in bad:
                    seen, answer = send([(name, value)])
                    answer(sip.response(seen, 403, "No"))
                    self.told_back(ua, streams)
            ask(sip.register(5071, "", via=peer.via, cseq=9, expires=0))
            self.assertGreater(len(told), len(self.SECRETS), "no answer to a challenge was seen")
        finally:
            for one in (peer, ua, network, listener, *streams):
                one.close()
        ha1 = hashlib.md5(b"alice@example.net:example.net:wonderland").hexdigest()
        return told | {ha1}

    def received(self, network, listener, streams):
        if streams:
            return streams[1].receive(), streams[1].send
        return network.receive(), lambda data: network.send(data, NETWORK)

    def told_back(self, ua, streams):
        return streams[0].receive() if streams else ua.receive()

    def test_no_level_below_the_trace_tells_them_nor_does_any_file(self):
        for level in range(5):
            for transport in ("UDP", "TCP"):
                with self.subTest(level=level, transport=transport):
                    proxy = UeProxy(level=level, profiles={"home": HOME_PROFILE.format(mode="ietf-shared")})
                    try:
                        secrets = self.exchange(proxy, transport)
                        with open(os.path.join(proxy.run_dir, "ue-proxy.cap"), encoding="ascii") as file:
                            cap = file.read()
                        self.assertEqual([line.partition(":")[0] for line in cap.splitlines()], ["Contact", "Route"])
                        files = {name: open(os.path.join(proxy.run_dir, name), encoding="utf-8",
                                            errors="replace").read()
                                 for name in os.listdir(proxy.run_dir) if not name.endswith(".sock")}
                        self.assertIn("ue-proxy.pid", files)
                        proxy.stop()
                        files["log"] = proxy.log()
                        for name, text in files.items():
                            for secret in secrets:
                                self.assertNotIn(secret, text, name)
                    finally:
                        if proxy.alive():
                            proxy.kill()
                        proxy.remove()

    def test_the_fault_of_a_profile_does_not_quote_it(self):
        texts = ["<network-profile><secret>wonderland</secret>",
                 "<network-profile><secret>wonderland</network-profile>",
                 "<network-profile><secret>wonder&land;wonderland</secret></network-profile>",
                 "<network-profile><secret>\x01wonderland</secret></network-profile>",
                 "<network-profile><secret>" + "wonderland" * 8000 + "</secret></network-profile>"]
        proxy = UeProxy(level=4, profiles={f"p{n}": text for n, text in enumerate(texts)})
        try:
            peer = sip.Udp()
            for number in range(len(texts)):
                peer.send(sip.register(6000 + number, sip.ua_info(f"p{number}", f"u{number}@example.net"),
                                       user=f"u{number}",
                                       via=peer.via))
                self.assertEqual(peer.receive().status, 200)
                peer.send(sip.route_command(peer.via,
                                            sip.route_body("set-route", str(number + 1), "127.0.0.3:UDP:5060")))
                self.assertEqual(peer.receive().status, 200)
            peer.close()
            proxy.stop()
            self.assertNotIn("wonder", proxy.log())
        finally:
            if proxy.alive():
                proxy.kill()
            proxy.remove()


if __name__ == "__main__":
    unittest.main(verbosity=1)
