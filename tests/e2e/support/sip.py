"""SIP texts and scripted peers: exact bytes in, exact bytes out."""
import itertools
import re
import select
import socket
import time

LOOP = "127.0.0.1"
_numbers = itertools.count(1)


def unique(prefix=""):
    return f"{prefix}{next(_numbers)}x{time.monotonic_ns() % 1000000}"


class Message:
    """A received message, read without judging it."""

    def __init__(self, raw):
        self.raw = raw
        head, _, self.body = raw.partition(b"\r\n\r\n")
        lines = head.decode("utf-8", "replace").split("\r\n")
        self.start = lines[0]
        self.lines = lines[1:]

    def all(self, name):
        return [line.partition(":")[2].strip() for line in self.lines
                if line.partition(":")[0].strip().lower() == name.lower()]

    def get(self, name):
        values = self.all(name)
        return values[0] if values else None

    @property
    def status(self):
        return int(self.start.split()[1]) if self.start.startswith("SIP/2.0") else 0

    @property
    def method(self):
        return "" if self.status else self.start.split()[0]

    @property
    def uri(self):
        return self.start.split()[1]

    def __repr__(self):
        return f"<{self.start}>"


def request(method, uri, *, via, frm, to, call_id=None, cseq=1, contact=None, headers=(), body=b"", branch=None,
            transport="UDP", max_forwards=70, from_tag=None):
    """The bytes of a request. `via` is "host:port"."""
    if isinstance(body, str):
        body = body.encode()
    lines = [f"{method} {uri} SIP/2.0",
             f"Via: SIP/2.0/{transport} {via};branch={branch or 'z9hG4bK' + unique()}",
             f"Max-Forwards: {max_forwards}",
             f"From: {frm};tag={from_tag or unique('f')}" if ";tag=" not in frm else f"From: {frm}",
             f"To: {to}",
             f"Call-ID: {call_id or unique('c') + '@127.0.0.1'}",
             f"CSeq: {cseq} {method}"]
    if contact:
        lines.append(f"Contact: {contact}")
    lines += [f"{name}: {value}" for name, value in headers]
    lines.append(f"Content-Length: {len(body)}")
    return "\r\n".join(lines).encode() + b"\r\n\r\n" + body


def response(to_message, status, reason, *, headers=(), body=b"", contact=None, to_tag="peer"):
    """The bytes of a response to a received request: its Vias, From, To, Call-ID and CSeq."""
    if isinstance(body, str):
        body = body.encode()
    lines = [f"SIP/2.0 {status} {reason}"]
    lines += [f"Via: {value}" for value in to_message.all("Via")]
    to = to_message.get("To")
    lines += [f"From: {to_message.get('From')}",
              f"To: {to}" + ("" if ";tag=" in to or not to_tag else f";tag={to_tag}"),
              f"Call-ID: {to_message.get('Call-ID')}", f"CSeq: {to_message.get('CSeq')}"]
    lines += [f"Record-Route: {value}" for value in to_message.all("Record-Route")]
    if contact:
        lines.append(f"Contact: {contact}")
    lines += [f"{name}: {value}" for name, value in headers]
    lines.append(f"Content-Length: {len(body)}")
    return "\r\n".join(lines).encode() + b"\r\n\r\n" + body


class Udp:
    """A datagram peer."""

    def __init__(self, port=0, ip=LOOP):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((ip, port))
        self.ip, self.port = self.socket.getsockname()

    @property
    def via(self):
        return f"{self.ip}:{self.port}"

    def send(self, data, to=(LOOP, 5060)):
        self.socket.sendto(data, to)

    def receive(self, timeout=3.0):
        self.socket.settimeout(timeout)
        data, self.source = self.socket.recvfrom(70000)
        return Message(data)

    def nothing(self, seconds=0.3):
        return not select.select([self.socket], [], [], seconds)[0]

    def close(self):
        self.socket.close()


class Stream:
    """One TCP connection."""

    def __init__(self, sock):
        self.socket = sock
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.buffer = b""
        self.local = sock.getsockname()
        self.peer = sock.getpeername()

    def send(self, data):
        self.socket.sendall(data)

    def receive(self, timeout=3.0):
        """The next message; raises TimeoutError, or ConnectionError at the end of the stream."""
        end = time.monotonic() + timeout
        while True:
            self.buffer = self.buffer.lstrip(b"\r\n")
            head, found, rest = self.buffer.partition(b"\r\n\r\n")
            if found:
                match = re.search(rb"(?im)^(?:content-length|l)[ \t]*:[ \t]*(\d+)", head)
                length = int(match.group(1)) if match else 0
                if len(rest) >= length:
                    raw = head + found + rest[:length]
                    self.buffer = rest[length:]
                    return Message(raw)
            self._more(end)

    def receive_raw(self, count, timeout=3.0):
        end = time.monotonic() + timeout
        while len(self.buffer) < count:
            self._more(end)
        data, self.buffer = self.buffer[:count], self.buffer[count:]
        return data

    def _more(self, end):
        self.socket.settimeout(max(0.01, end - time.monotonic()))
        data = self.socket.recv(65536)
        if not data:
            raise ConnectionError("closed by the peer")
        self.buffer += data

    def nothing(self, seconds=0.3):
        return not self.buffer and not select.select([self.socket], [], [], seconds)[0]

    def closed(self, timeout=3.0):
        """True when the peer closes (or resets) within the time."""
        self.socket.settimeout(timeout)
        try:
            while True:
                data = self.socket.recv(65536)
                if not data:
                    return True
                self.buffer += data
        except ConnectionError:
            return True
        except TimeoutError:
            return False

    def close(self):
        self.socket.close()

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\0\0\0\0\0\0\0")
        self.socket.close()


class Tcp:
    """A listening TCP peer. With reuse, so that it can also connect from its own port."""

    def __init__(self, port=0, ip=LOOP):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.bind((ip, port))
        self.socket.listen(64)
        self.ip, self.port = self.socket.getsockname()

    @property
    def via(self):
        return f"{self.ip}:{self.port}"

    def accept(self, timeout=3.0):
        self.socket.settimeout(timeout)
        return Stream(self.socket.accept()[0])

    def nothing(self, seconds=0.3):
        return not select.select([self.socket], [], [], seconds)[0]

    def close(self):
        self.socket.close()


def connect(to=(LOOP, 5060), source=(LOOP, 0), timeout=3.0):
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    try:
        sock.bind(source)
        sock.settimeout(timeout)
        sock.connect(to)
        return Stream(sock)
    except OSError:
        sock.close()
        raise


def wait_until(condition, timeout=5.0, what="condition"):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.01)
    raise AssertionError(f"not in {timeout} s: {what}")


UA_INFO = ('<?xml version="1.0" encoding="UTF-8"?>\n<ua-info><profile-info><name>{profile}</name></profile-info>{aors}'
           "</ua-info>\n")
MODULE_INFO = ('<?xml version="1.0" encoding="UTF-8"?>\n<module-info><package-info>{packages}</package-info>'
               "</module-info>\n")


def ua_info(profile="home", aor="alice@example.net", tags=(), events="", methods="", content_types=""):
    parts = "".join(f"<feature-tag>{t}</feature-tag>" for t in tags)
    parts += f"<events>{events}</events>" if events else ""
    parts += f"<methods>{methods}</methods>" if methods else ""
    parts += f"<content-type>{content_types}</content-type>" if content_types else ""
    return UA_INFO.format(profile=profile,
                          aors=f"<aor>{aor}<ua-specific-parameters>{parts}</ua-specific-parameters></aor>")


def register(port, body, *, user="alice", call_id=None, cseq=1, expires=3600, via=None, transport="UDP", branch=None):
    """The bytes of a REGISTER to the local registrar for a user agent at `port`."""
    headers = [("Expires", expires)] if expires is not None else []
    if body:
        headers.append(("Content-Type", "application/xml"))
    return request("REGISTER", "sip:127.0.0.1", via=via or f"127.0.0.1:{port}", frm=f"<sip:{user}@127.0.0.1>",
                   to=f"<sip:{user}@127.0.0.1>", call_id=call_id or f"reg-{port}@127.0.0.1", cseq=cseq,
                   contact=f"<sip:127.0.0.1:{port}>", headers=headers, body=body, transport=transport, branch=branch)


def route_body(action, profile="1", proxy="127.0.0.3:TCP:5060", device="127.0.0.2"):
    return ('<?xml version="1.0" encoding="UTF-8"?>\n<route-info>\n'
            f"  <action>{action}</action>\n  <profile-info>\n    <zel-profile-id>{profile}</zel-profile-id>\n"
            f"  </profile-info>\n  <device-name>{device}</device-name>\n  <ip-type-port>{proxy}</ip-type-port>\n"
            "</route-info>\n")


def route_answer(profile):
    return ('<?xml version="1.0" encoding="UTF-8"?>\n<route-info>\n  <profile-info>\n'
            f"    <zel-profile-id>{profile}</zel-profile-id>\n  </profile-info>\n</route-info>\n").encode()


def route_command(peer_via, body, transport="UDP"):
    return request("MESSAGE", "sip:127.0.0.1", via=peer_via, frm="<sip:framework@127.0.0.1>", to="<sip:127.0.0.1>",
                   headers=[("Content-Type", "application/xml")], body=body, transport=transport)
