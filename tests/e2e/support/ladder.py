"""Every SIP message on the loopback interface, as a call ladder. Needs its own network namespace (or root)."""
import re
import socket
import struct
import threading

from support.sip import Message


class Ladder:
    """Listens on `lo` from construction on; `draw` prints what was seen since the last call.

    `columns` is a list of (title, matcher): matcher(ip, port) says whether an address belongs to the column.
    """

    def __init__(self, columns):
        self.columns = columns
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(0x0800))
        self.socket.bind(("lo", 0))
        self.socket.settimeout(0.1)
        self.streams = {}
        self.seen = []
        self.lock = threading.Lock()
        self.running = True
        self.thread = threading.Thread(target=self._listen, daemon=True)
        self.thread.start()

    def close(self):
        self.running = False
        self.thread.join()
        self.socket.close()

    def _listen(self):
        while self.running:
            try:
                packet, address = self.socket.recvfrom(70000)
            except TimeoutError:
                continue
            if address[2] != socket.PACKET_OUTGOING:
                self._packet(packet)

    def _packet(self, packet):
        header = (packet[0] & 15) * 4
        protocol = packet[9]
        total = struct.unpack("!H", packet[2:4])[0] or len(packet)
        source, target = socket.inet_ntoa(packet[12:16]), socket.inet_ntoa(packet[16:20])
        data = packet[header:total]
        source_port, target_port = struct.unpack("!HH", data[:4])
        ends = ((source, source_port), (target, target_port))
        if protocol == socket.IPPROTO_UDP:
            self._message("UDP", ends, data[8:])
        elif protocol == socket.IPPROTO_TCP:
            sequence = struct.unpack("!I", data[4:8])[0]
            payload = data[(data[12] >> 4) * 4:]
            expected, buffer = self.streams.get(ends, (None, b""))
            if data[13] & 2:  # SYN
                self.streams[ends] = ((sequence + 1) % 2**32, b"")
                return
            if not payload or (expected is not None and sequence != expected):
                return
            self.streams[ends] = ((sequence + len(payload)) % 2**32, self._cut(ends, buffer + payload))

    def _cut(self, ends, buffer):
        while True:
            buffer = buffer.lstrip(b"\r\n")
            head, found, rest = buffer.partition(b"\r\n\r\n")
            length = re.search(rb"(?im)^(?:content-length|l)[ \t]*:[ \t]*(\d+)", head)
            size = int(length.group(1)) if length else 0
            if not found or len(rest) < size:
                return buffer
            self._message("TCP", ends, head + found + rest[:size])
            buffer = rest[size:]

    def _message(self, transport, ends, raw):
        if b"SIP/2.0" in raw.split(b"\r\n", 1)[0]:
            with self.lock:
                self.seen.append((transport, ends, Message(raw)))

    def _column(self, address):
        for index, (_, matches) in enumerate(self.columns):
            if matches(*address):
                return index
        return None

    def draw(self, show=("Via", "Contact"), skip=lambda message: False):
        with self.lock:
            seen, self.seen = self.seen, []
        width = 26
        print("  " + "".join(title.center(width) for title, _ in self.columns))
        bars = [2 + width * index + width // 2 for index in range(len(self.columns))]

        def rail(extra=""):
            line = [" "] * (bars[-1] + 1)
            for bar in bars:
                line[bar] = "|"
            return "".join(line) + extra
        print(rail())
        last = None
        for transport, (source, target), message in seen:
            start, end = self._column(source), self._column(target)
            if start is None or end is None or start == end or skip(message):
                continue
            what = message.method or " ".join(message.start.split(" ")[1:])
            what = what if len(what) <= width - 8 else what[:width - 11] + "..."
            key = (start, end, message.start, message.get("Call-ID"), message.get("CSeq"), transport)
            if key == last:
                continue  # a retransmission tells nothing new
            last = key
            left, right = sorted((bars[start], bars[end]))
            line = list(rail())
            arrow = f" {what} ".center(right - left - 3, "-")
            line[left + 1:right] = ("-" + arrow + ">") if start < end else ("<" + arrow + "-")
            print("".join(line) + f"   {transport} {source[0]}:{source[1]} > {target[0]}:{target[1]}")
            for name in show:
                for value in message.all(name):
                    print(rail(f"     {name}: {value}"))
        print(rail() + "\n")
