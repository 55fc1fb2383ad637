"""Valid messages of every shape, each with the bytes that must come out at the other end of a Way.

What is sent and what must arrive are written side by side, piece by piece, so nothing here reads a message. A seed and
a number give the same message again.
"""
import random

from support.ways import METHODS, tagged, unfolded

SPACES = (b" ", b" ", b"", b"  ", b"\t", b"\r\n ", b" \r\n\t ", b"\r\n  \r\n ")
TOKENS = (b"a", b"value", b"x-y.z", b"!%*_+`'~", b"0", b"9223372036854775808", b"urn", b"Q", b"token~1'+`*%!-.")
QUOTED = (b'""', b'"plain"', b'"a, b; c"', b'"<sip:in@quotes>"', b'"\\"quoted\\" and \\\\"', b'"semi;colon=1"',
          b'"\xc3\xa4\xe5\xa4\xa7\xf0\x9f\x93\x9e"', b'"tab\there"', b'"\\;\\,"', b'"]["')
HOSTS = (b"example.net", b"a.b-c.example.org", b"192.0.2.1", b"[2001:db8::9:1]", b"[::ffff:192.0.2.2]", b"h_1.example")
USERS = (b"", b"bob@", b"b%20ob@", b"+1-(555)@", b"user;par=u%40x@", b"u:pass@", b"%00@", b"!~*'()&=+$,;?/@")
URI_PARAMETERS = (b"", b";lr", b";transport=tcp", b";user=phone;x", b";%6C%72=v%61l", b";maddr=192.0.2.9;ttl=1",
                  b";a;b;c=")
VIA_PARAMETERS = (b"received=192.0.2.7", b"rport", b"rport=5060", b"ttl=16", b"maddr=239.1.1.1", b"keep", b"alias",
                  b"x-odd.~'=\"q;,q\"", b"received=[2001:db8::1]", b"comp=sigcomp", b"n=1", b"BRANCH2=z")
BRANCHES = (b"z9hG4bK", b"z9hG4bK-.!%66*_+`'~", b"1", b"z9hG4bK" + b"x" * 200)
TRANSPORTS = (b"UDP", b"TCP", b"TLS", b"SCTP", b"WS", b"!odd%")
# Names that the proxy does not touch, and names that resemble those that it does.
PLAIN = (b"Max-Forwards", b"Subject", b"s", b"Content-Type", b"c", b"Expires", b"Date", b"Server", b"Organization",
         b"User-Agent", b"Timestamp", b"MIME-Version", b"Session-Expires", b"x", b"Refer-To", b"r", b"Referred-By",
         b"b", b"Authorization", b"Proxy-Authorization", b"WWW-Authenticate", b"Replaces", b"RAck", b"RSeq",
         b"Reason-Phrase", b"X-Long-Name-That-Nobody-Knows", b"extensionHeader-!.%*+_`'~", b"P-Charging-Vector", b"Via-",
         b"Contacts", b"X-Zel-Profile-ID", b"Zel-Profile-IDs", b"Content-Lengths", b"Vi", b"1", b"q", b"w")
LISTS = (b"Route", b"Record-Route", b"Path", b"Allow", b"Supported", b"k", b"Require", b"Accept", b"Accept-Language",
         b"Allow-Events", b"u", b"Warning", b"Alert-Info", b"In-Reply-To", b"History-Info", b"P-Asserted-Identity",
         b"Privacy", b"Security-Client", b"e", b"d", b"j", b"Accept-Contact", b"a")
VALUES = (b"", b"70", b"application/sdp", b"a;b=c", b"<sip:h.example;lr>", b"<sip:h.example;lr>, <sips:u@i.example>",
          b"a, b ,c,,d", b"Digest realm=\"r, \\\"x\\\"\", nonce=\"n\", qop=\"auth,auth-int\"", b"(comment \\) in it)",
          b"\xc3\xa4\xc3\xb6 \xe6\x96\x87\xe5\xad\x97", b";;,,;;,;", b": : :", b"=", b"x" * 300, b"a\tb", b"<", b"\"",
          b"Sat, 13 Nov 2010 23:29:00 GMT", b"301 isi.edu \"Incompatible <net>, \\\"v4\\\"\"", b"1 (2) <3> {4} [5]",
          b"\xff\xfe raw")
BODIES = (b"v=0\r\n\r\nINVITE sip:x SIP/2.0\r\n\r\n", b"\r\n\r\n", bytes(range(1, 256)))
AGENT_METHODS = (b"INVITE", b"ACK", b"BYE", b"OPTIONS", b"MESSAGE", b"REGISTER", b"SUBSCRIBE", b"NOTIFY", b"PUBLISH",
                 b"NEWMETHOD", b"!odd-Method_*+`.%~'", b"a")
NETWORK_METHODS = tuple(METHODS.encode().split(b","))
LOCAL_METHODS = (b"INVITE", b"BYE", b"MESSAGE", b"INFO", b"OPTIONS")
REASONS = (b"OK", b"", b"Not Found", b"\xd0\xbd\xd0\xb5\xd1\x82", b"= 2**3 \"'<>;", b"a  b")
STATUS = (b"100", b"180", b"183", b"200", b"202", b"302", b"404", b"486", b"503", b"600", b"699")


class Generator:
    def __init__(self, seed, way, number):
        self.random = random.Random(f"{seed} {way} {number}")
        self.way = way

    # --- pieces ---

    def pick(self, many):
        return many[int(self.random.random() * len(many))]

    def often(self, share):
        return self.random.random() < share

    def space(self, least=b""):
        return least if self.often(0.8) else (self.pick(SPACES) or least)

    def case(self, name):
        return name if self.often(0.6) else self.pick((name.lower(), name.upper(), name.swapcase()))

    def line(self, name, value):
        """A header line with everything that may stand around a value."""
        colon = b":" if self.often(0.8) else self.pick((b" :", b"\t:", b"  \t :"))
        return name + colon + self.space(b" ") + value + (b"" if self.often(0.9) else self.pick((b" ", b"\t", b" \t ")))

    def uri(self):
        return self.pick((b"sip:", b"sip:", b"sips:", b"SIP:")) + self.pick(USERS) + self.pick(HOSTS) + self.pick(
            (b"", b":5060", b":65535")) + self.pick(URI_PARAMETERS)

    # --- the headers that the proxy touches ---

    def address(self, name, uri, more=b""):
        display = self.pick((b"", b"A. Name ", b"w1 w2", self.pick(QUOTED), self.pick(QUOTED) + b" "))
        return self.line(name, display + b"<" + uri + b">" + more)

    def sent_protocol(self):
        slash = self.space() + b"/" + self.space() if self.often(0.1) else b"/"
        return self.pick((b"SIP", b"SIP", b"sip")) + slash + b"2.0" + slash + self.pick(TRANSPORTS)

    def parameters(self, many):
        text = b""
        for _ in range(many):
            text += self.space() + b";" + self.space() + self.pick(VIA_PARAMETERS)
        return text

    def topmost_via(self):
        """The element that is rewritten, as it is sent and as it arrives."""
        way = self.way
        begin = self.sent_protocol() + (self.space(b" ") or b" ")
        host, _, port = way.sent_by.partition(b":")
        host_out, _, port_out = way.sent_by_out.partition(b":")
        colon = self.space() + b":" + self.space() if self.often(0.1) else b":"
        # The network's proxy has the port that goes without saying.
        sent_by, sent_by_out = host + colon + port, host_out + colon + port_out
        if way.name.startswith("network asks") and self.often(0.2):
            sent_by, sent_by_out = host, way.sent_by_out
        before, after = self.parameters(self.pick((0, 0, 1, 3))), self.parameters(self.pick((0, 0, 1, 2)))
        branch = branch_out = b";branch=" + self.pick(BRANCHES)
        end_out = b""
        if self.often(0.05):
            # A missing branch gets one that stands for none, and the answer loses that again.
            branch = branch_out = b""
            if way.name.startswith("network asks"):
                end_out = b";branch=z9hG4bK-nobranch"
            elif way.name.startswith("alice's answer"):
                branch = b";branch=z9hG4bK-nobranch"
        sent = begin + sent_by + before + branch + after + way.via_in
        if way.via_in and self.often(0.3):
            sent += b";received=192.0.2.1;rport=5060"  # of the next hop, behind what came with the request
        return sent, unfolded(begin + sent_by_out + before + branch_out + after + end_out) + way.via_out

    def other_via(self):
        return (self.sent_protocol() + self.space(b" ") + self.pick(HOSTS) + self.pick((b"", b":5070"))
                + self.parameters(1) + b";branch=z9hG4bK" + self.pick(TOKENS))

    def vias(self):
        """Lines of Vias: (sent, arrives) each."""
        sent, arrives = self.topmost_via()
        rest = b""
        for _ in range(self.pick((0, 0, 0, 1, 4))):
            rest += self.space() + b"," + self.space() + self.other_via()
        name = self.case(self.pick((b"Via", b"Via", b"v")))
        line = self.line(name, b"\0" + rest)
        lines = [(line.replace(b"\0", sent), line.replace(b"\0", arrives))]
        for _ in range(self.pick((0, 0, 1, 3, 12))):
            lines.append((self.line(self.case(self.pick((b"Via", b"v"))), self.other_via()),) * 2)
        return lines

    def contact(self, method):
        way = self.way
        scheme = self.pick((b"sip:", b"sip:", b"sips:"))
        user, host, port = self.pick(USERS), self.pick(HOSTS), self.pick((b"", b":5071"))
        parameters = self.pick(URI_PARAMETERS)
        headers = b"" if self.often(0.9) else b"?Subject=x&Route=%3Csip:h%3E"
        outside = self.pick((b"", b";q=0.5", b";expires=3600;+g.3gpp.icsi-ref=\"urn%3Aurn-7\"", b" ; x = \"a, b\""))
        to_network = way.name == "alice asks the network over " + way.transport
        tags = b"" if to_network and method == b"REGISTER" else way.contact
        if self.often(0.1) and b"?" not in user + headers and b"," not in user and b";" not in user:
            # Without brackets what follows are the header's parameters; whoever replaces the host adds the brackets.
            sent = scheme + user + host + port + outside
            if not to_network:
                return sent, unfolded(sent)
            return sent, unfolded(b"<" + scheme + way.sent_by_out + tags + b">" + outside)
        display = self.pick((b"", b"A. Name ", self.pick(QUOTED), self.pick(QUOTED) + self.space(b" ")))
        if self.often(0.05):  # neither host nor user to replace
            inside = inside_out = b"tel:+1-555"
        else:
            inside = scheme + user + host + port + parameters + headers
            inside_out = scheme + way.sent_by_out + parameters + headers if to_network else inside
        if way.local and self.often(0.2):
            inside, headers = inside.replace(headers, b"") + b";scli=9;dcli=8;old", b""
            # An earlier tag goes with all up to the first ">"; one that stands before it takes the whole rest along.
            sent = unfolded(display + b"<" + inside + b">" + outside)
            first, old = sent.find(b">"), sent.find(b";scli=")
            arrives = sent[:old] + (sent[first:] if first > old else b"")
            return display + b"<" + inside + b">" + outside, tagged(arrives, tags)
        sent, arrives = (display + b"<" + text + b">" + outside for text in (inside, inside_out))
        return sent, tagged(unfolded(arrives), tags)

    def contacts(self, method):
        if self.often(0.15):
            return []
        sent, arrives = self.contact(method)
        rest = b"" if self.often(0.8) else b" , <sip:other@192.0.2.8;key=7>"
        line = self.line(self.case(self.pick((b"Contact", b"Contact", b"m"))), b"\0" + rest)
        lines = [(line.replace(b"\0", sent), line.replace(b"\0", arrives))]
        if self.often(0.1):
            lines.append((b"Contact: <sip:second@192.0.2.8>",) * 2)
        return lines

    # --- what only passes ---

    def passing(self):
        if self.often(0.7):
            name, value = self.case(self.pick(PLAIN)), self.pick(VALUES)
        else:
            name = self.case(self.pick(LISTS))
            value = (self.space() + b"," + self.space()).join(self.pick(VALUES) for _ in range(self.pick((1, 1, 2, 5))))
        if self.often(0.1) and b"\r" not in value:
            value = value.replace(b" ", self.pick((b"\r\n ", b" \r\n\t", b"\t")))
        return (self.line(name, value),) * 2

    def target(self, method):
        """The Request-URI, and whether it belongs to a dialog between local user agents."""
        way = self.way
        uri = self.pick((self.uri(), b"sip:x@example.net", b"sip:127.0.0.2:5060", b"tel:+1555", b"urn:service:sos",
                         b"<odd>"))
        if self.often(0.25):
            if way.local:
                return uri + b";scli=1;dcli=2", True
            # What the other side learned from a Contact, with what it may put behind it.
            return uri + way.contact + self.pick((b"", b";x=1")), False
        return uri, False

    def head(self):
        """The start line and the lines below, but for Content-Length; each as it is sent and as it arrives."""
        way, in_dialog = self.way, False
        if way.request:
            method = self.pick(LOCAL_METHODS if way.local else AGENT_METHODS if way.from_agent else NETWORK_METHODS)
            uri, in_dialog = self.target(method)
            start = method + b" " + uri + b" SIP/2.0"
        else:
            method = b""
            start = b"SIP/2.0 " + self.pick(STATUS) + b" " + self.pick(REASONS)
        tag = b";tag=" + self.pick(TOKENS)
        other = b"sip:127.0.0.1" if way.local else b"sip:y@" + self.pick((b"example.org", b"127.0.0.2", b"localhost"))
        asked = b"sip:bob@127.0.0.1" if way.local else b"sip:alice@example.net"
        once = [(self.address(self.case(self.pick((b"From", b"f"))), other, tag),) * 2,
                (self.address(self.case(self.pick((b"To", b"t"))), asked, b"" if self.often(0.5) else tag),) * 2,
                (self.line(self.case(self.pick((b"Call-ID", b"i"))), b"<odd>@\"" + self.pick(TOKENS)),) * 2,
                (self.line(self.case(b"CSeq"), b"1" + self.space(b" ") + (method or b"INVITE")),) * 2]
        blocks = [self.vias(), self.contacts(method), *([line] for line in once)]
        blocks += [[self.passing()] for _ in range(self.pick((0, 2, 5, 9, 30)))]
        self.random.shuffle(blocks)
        return start, [line for block in blocks for line in block], in_dialog

    def body(self):
        """Any bytes but NUL, which the intake ends at."""
        if self.often(0.3):
            return b""
        return self.pick(BODIES) if self.often(0.3) else self.random.randbytes(self.pick((1, 40, 200, 1500))).replace(
            b"\0", b"")

    def message(self):
        """(sent, arrives)"""
        way = self.way
        start, lines, in_dialog = self.head()
        body = self.body()
        # Without a length a stream's message has no body, and a datagram's all the rest.
        if self.often(0.9):
            length = str(len(body)).zfill(self.pick((1, 1, 1, 6))).encode()
            for _ in range(self.pick((1, 1, 1, 1, 2))):
                line = self.line(self.case(self.pick((b"Content-Length", b"l"))), length)
                lines.insert(self.random.randint(0, len(lines)), (line, line))
            behind = b"" if way.transport == "TCP" or self.often(0.8) else b"what stands behind the body"
        else:
            body, behind = b"" if way.transport == "TCP" else body, b""
        arrives = [line + b"\r\n" for _, line in lines]
        if in_dialog:
            arrives = [line for line in arrives if line.partition(b":")[0].strip().lower() != b"route"]
        arrives = way.with_added(arrives, not in_dialog)
        before = b"" if self.often(0.9) else b"\r\n" if way.transport == "TCP" else b"\r\n" * 3
        sent = before + start + b"\r\n" + b"".join(line + b"\r\n" for line, _ in lines) + b"\r\n" + body + behind
        return sent, start + b"\r\n" + b"".join(arrives) + b"\r\n" + body
