"""Single inputs that cost the proxy as much as an input can: (name, side, transport, bytes). Each is within the limits.

`side` is where it goes: "local" (127.0.0.1) or "network" (127.0.0.2).
"""
MESSAGE = 64 * 1024
HEAD = 16 * 1024
DATAGRAM = 65507
LINES = 256
PARAMETERS = 64


# What registrations may bring at most, with the default settings.
USER_AGENTS = 254  # beside the two that are always there
TAGS = 600
TAG = 256  # bytes of the longest
AORS = 8
TEXT = 7900
TOTAL_TEXT = 500 * 1024
# Of this text the tags are pieces, so that a request with it has all of them in it.
TAGGED = "".join("ab"[bin(n * 2654435769 & 0xffffff).count("1") % 2] for n in range(14000))


def registrations():
    """(port, user, body) of user agents that together fill the bounds with what is hard to search."""
    text_left = TOTAL_TEXT
    for number in range(USER_AGENTS):
        if number % 4 == 3:  # a long chain of beginnings
            tags = ["a" * (1 + n % 64) for n in range(TAGS - 1)] + ["a" * TAG]
        else:  # pieces of one text, each stored once, the longer ones beginning with the shorter
            tags = [TAGGED[start:start + 14 + 4 * step] for step in range(10)
                    for start in range(number * 54, number * 54 + TAGS // 10)]
        events = ""
        if text_left > TEXT:
            events = f"{number:04d}" + "a" * 1900 + "b" + "a" * (TEXT - 2000)
            text_left -= TEXT + 500
        aors = "".join(f"<aor>u{number}.{n}@x</aor>" for n in range(1, AORS))
        parts = "".join(f"<feature-tag>{tag}</feature-tag>" for tag in tags) + (
            f"<events>{events}</events>" if events else "")
        yield (20000 + number, f"user{number}",
               "<ua-info><profile-info><name>home</name></profile-info>"
               f"<aor>u{number}.0@x<ua-specific-parameters>{parts}</ua-specific-parameters></aor>{aors}</ua-info>")


def searches():
    """Requests of the network that are looked for in all that is registered."""
    near_miss = "a" * 1899 + "b" + "a" * 1899 + "b"
    for name, parts in (("all feature tags", {"lines": [f"Contact: <sip:{TAGGED}@x>"]}),
                        ("feature tags of one letter", {"lines": ["Contact: <sip:" + "a" * 14000 + "@x>"]}),
                        ("feature tags, some end early", {"lines": ["Contact: <sip:" + TAGGED.replace("abba", "abca")
                                                                    + "@x>"]}),
                        ("an event that almost all texts have", {"lines": [f"Event: {near_miss}"]}),
                        ("an address that almost all texts have", {"to": "<sip:u@x>"}),
                        ("a method that is long", {"method": "a" * 30})):
        yield name, "network", "UDP", _request(**parts)


def _request(method="INVITE", uri="sip:alice@example.net", *, via="127.0.0.3:5060", transport="UDP",
             frm="<sip:m@x>;tag=m",
             to="<sip:alice@example.net>", lines=(), body=b"", content_type=None, head=HEAD, fill=None, size=MESSAGE):
    """A request of these lines; `fill(room)` gives a further line for what is left of the head."""
    first = [f"{method} {uri} SIP/2.0", f"Via: SIP/2.0/{transport} {via};branch=z9hG4bK@@@@@@@@", f"From: {frm}",
             f"To: {to}",
             "Call-ID: worst-@@@@@@@@", f"CSeq: 1 {method}", "Max-Forwards: 70", f"Content-Length: {len(body)}", *lines]
    if content_type:
        first.append(f"Content-Type: {content_type}")
    text = "\r\n".join(first) + "\r\n"
    if fill:
        text += fill(head - len(text) - 4) + "\r\n"
    whole = text.encode("latin-1") + b"\r\n" + body
    assert len(whole) <= size, (len(whole), size)
    return whole


def _repeat(name, piece):
    """A header line that is `piece` as often as there is room."""
    return lambda room: name + ": " + (piece * (room // len(piece)))[:max(0, room - len(name) - 2)]


def _many(line, most=LINES - 12):
    return lambda room: "\r\n".join([line] * min(most, room // (len(line) + 2)))


def heads():
    """(name, what goes to _request) of heads that are hard to read."""
    value = {"commas": ",", "elements": "a,", "quotes": '"', "quoted commas": '",",', "brackets": "<",
             "closed brackets": "<>,",
             "semicolons": ";", "escapes": "\\", "open comment": "(", "equals": "=", "blanks": " ",
             "tabs and commas": ",\t"}
    for header in ("Via", "Contact", "Route", "Record-Route", "From", "To", "Subject", "Proxy-Authorization", "Allow",
                   "Accept-Contact", "P-Asserted-Identity"):
        for name, piece in value.items():
            yield f"{header} of {name}", {"fill": _repeat(header, piece)}
    yield "Via of Vias", {"fill": _repeat("Via", "SIP/2.0/UDP a,")}
    yield "Route of routes", {"fill": _repeat("Route", "<sip:a;lr>,")}
    yield "Contact of addresses", {"fill": _repeat("Contact", "<sip:a@b>,")}
    yield "address with nested brackets", {"fill": _repeat("Contact", "<sip:a@<")}
    yield "address of at signs", {"fill": _repeat("Contact", "sip:a@")}
    yield "address of colons", {"fill": _repeat("Contact", "sip:a:")}
    for count in (PARAMETERS, 8000):
        parameters = "".join(f";p{n % 1000}=v" for n in range(count))[:HEAD - 1000]
        yield f"Via of {count} parameters", {"via": "127.0.0.3:5060" + parameters}
        yield f"To of {count} parameters", {"to": "<sip:alice@example.net>" + parameters[:900]}
        yield f"Contact of {count} parameters", {"lines": [f"Contact: <sip:a@b>{parameters}"]}
        yield f"Contact of {count} URI parameters", {"lines": [f"Contact: <sip:a@b{parameters}>"]}
        digest = "Digest " + ", ".join(f'p{n % 1000}="v"' for n in range(count))[:HEAD - 1000]
        yield f"Authorization of {count} parameters", {"lines": [f"Authorization: {digest}"]}
        yield f"Proxy-Authenticate of {count} parameters", {"lines": [f"Proxy-Authenticate: {digest}"]}
    yield "most lines, unknown", {"fill": _many("X: y")}
    yield "most lines, Vias", {"fill": _many("v: SIP/2.0/UDP a")}
    yield "most lines, lists of Vias", {"fill": _many("v:" + " SIP/2.0/UDP a," * 4)}
    yield "most lines, Routes", {"fill": _many("Route: <sip:127.0.0.1;lr>")}
    yield "most lines, Contacts", {"fill": _many("m: <sip:a@b>")}
    yield "more lines than allowed", {"fill": _many("X: y", HEAD)}
    yield "folded lines", {"fill": lambda room: "X: y" + "\r\n z" * min(240, (room - 4) // 4)}
    yield "folded Via", {"fill": lambda room: "Via: SIP/2.0/UDP a" + "\r\n ,SIP/2.0/UDP a" * (room // 20)}
    yield "folded blanks", {"fill": lambda room: "Subject: " + ("\r\n" + " " * 60) * min(240, (room - 20) // 62)}
    yield "one long name", {"fill": lambda room: "x" * (room - 3) + ": y"}
    yield "no colon", {"fill": lambda room: "x" * room}
    yield "long Request-URI", {"uri": "sip:" + "a" * 15000}
    yield "Request-URI of parameters", {"uri": "sip:alice@127.0.0.2" + ";p" * 7000}
    yield "Request-URI of tags", {"uri": "sip:alice@127.0.0.2" + ";mtk=1;mok=1" * 1200}


def messages():
    for name, parts in heads():
        for side in ("local", "network"):
            port = "127.0.0.1:5071" if side == "local" else "127.0.0.3:5060"
            for transport in ("UDP", "TCP"):
                given = dict(parts, transport=transport)
                given.setdefault("via", port)
                if given["via"].startswith("127.0.0.3:5060;"):
                    given["via"] = given["via"].replace("127.0.0.3:5060", port)
                yield f"{name}", side, transport, _request(**given)
    # To other local user agents and to the registrar, where more of the head is read.
    for name, parts in heads():
        if "to" in parts:
            continue
        for method, to in (("MESSAGE", "<sip:bob@127.0.0.1>"), ("REGISTER", "<sip:w@127.0.0.1>"),
                           ("SUBSCRIBE", "<sip:registrar@127.0.0.1>")):
            given = dict({"via": "127.0.0.1:5071"}, **parts)
            yield f"{name}, {method}", "local", "UDP", _request(method,
                                                                **dict(given, to=to, frm="<sip:w@127.0.0.1>;tag=m"))
    for name, parts in heads():
        if "uri" not in parts and "to" not in parts:
            given = dict({"via": "127.0.0.1:5071", "to": "<sip:registrar@127.0.0.1>"}, **parts)
            yield f"{name}, REGISTER from the network", "network", "UDP", _request("REGISTER", **dict(
                given, to="<sip:w@127.0.0.1>"))


def responses():
    """Answers that claim to be the network's, with what credentials are made of."""
    head = ("SIP/2.0 401 Prove it\r\nVia: SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bK1;mok=1\r\n"
            "Via: SIP/2.0/UDP 127.0.0.1:5071;branch=z9hG4bK2\r\nFrom: <sip:alice@example.net>;tag=a\r\n"
            "To: <sip:x@example.net>;tag=b\r\nCall-ID: worst-@@@@@@@@\r\nCSeq: 1 INVITE\r\nContent-Length: 0\r\n")
    for name, parts in heads():
        if "fill" not in parts and "lines" not in parts:
            continue
        more = "\r\n".join(parts.get("lines", ())) or parts["fill"](HEAD - len(head) - 4)
        yield f"{name}, 401", "network", "UDP", (head + more + "\r\n\r\n").encode("latin-1")
    for count in (60, 64, 900):
        value = 'Digest realm="r", nonce="n", ' + ", ".join(f'p{n}="{"v" * 8}"' for n in range(count))
        yield f"challenge of {count} parameters", "network", "UDP", f"{head}WWW-Authenticate: {value}\r\n\r\n".encode()


def xml_bodies(room):
    """(name, body of about `room` bytes) that are hard for a reader of XML; the root is filled in."""
    open_tag, close_tag = "<{root}>", "</{root}>"
    inner = room - 2 * len("<ua-info></ua-info>") - 60

    def whole(text):
        return '<?xml version="1.0"?>\n' + open_tag + text + close_tag
    yield "flat elements", whole("<a/>" * (inner // 4))
    yield "deep elements", whole("<a>" * (inner // 7) + "</a>" * (inner // 7))
    yield "allowed depth", whole("<a>" * 250 + "</a>" * 250)
    yield "unclosed elements", whole("<a>" * (inner // 3))
    yield "attributes", whole("<a " + " ".join(f'a{n}=""' for n in range(inner // 10)) + "/>")
    yield "few attributes in many tags", whole(
        ("<a " + " ".join(f'a{n}=""' for n in range(50)) + "/>") * (inner // 400))
    yield "namespaces", whole("".join(f'<a xmlns:n{n}="u"/>' for n in range(inner // 22)))
    yield "prefixes", whole("<n:a/>" * (inner // 6))
    yield "character references", whole("&#65;" * (inner // 5))
    yield "unknown entities", whole("&a;" * (inner // 3))
    yield "CDATA", whole("<![CDATA[]]>" * (inner // 12))
    yield "comments", whole("<!---->" * (inner // 7))
    yield "open comments", whole("<!--" * (inner // 4))
    yield "instructions", whole("<?a ?>" * (inner // 6))
    yield "angles", whole("<" * inner)
    yield "ampersands", whole("&" * inner)
    yield "quotes in a tag", whole("<a " + "\"'" * (inner // 2) + "/>")
    yield "text", whole("x" * inner)
    yield "line ends", whole("\n" * inner)
    yield "entities of entities", ('<?xml version="1.0"?><!DOCTYPE a [<!ENTITY a "aaaaaaaaaa">'
                                   + "".join(f'<!ENTITY {chr(98 + n)} "{f"&{chr(97 + n)};" * 10}">' for n in range(9))
                                   + "]>" + open_tag + "&j;" + close_tag)


def _registration(body):
    return _request("REGISTER", "sip:127.0.0.1", via="127.0.0.1:6071", frm="<sip:w@127.0.0.1>;tag=m",
                    to="<sip:w@127.0.0.1>", lines=["Contact: <sip:127.0.0.1:6071>", "Expires: 60"],
                    content_type="application/xml", body=body.encode())


def _command(body):
    return _request("MESSAGE", "sip:127.0.0.1", via="127.0.0.1:6071", frm="<sip:f@127.0.0.1>;tag=m",
                    to="<sip:127.0.0.1>", content_type="application/xml", body=body.encode())


def bodies():
    room = DATAGRAM - 600  # the head is about 400 bytes
    for name, text in xml_bodies(room):
        for root in ("ua-info", "module-info"):
            yield f"{name} in {root}", "local", "UDP", _registration(text.replace("{root}", root))
        yield f"{name} in route-info", "local", "UDP", _command(text.replace("{root}", "route-info"))
    profile = "<profile-info><name>home</name></profile-info>"
    tagged = "<aor>a<ua-specific-parameters><feature-tag>a</feature-tag></ua-specific-parameters></aor>"
    tags = "".join(f"<feature-tag>t{n}</feature-tag>" for n in range(1700))
    for name, text in (("aors", "<aor>a@b</aor>" * ((room - 80) // 14)),
                       ("tagged aors", tagged * ((room - 80) // len(tagged))),
                       ("profiles", profile * ((room - 80) // len(profile))),
                       ("feature tags", f"<aor>a@b<ua-specific-parameters>{tags}</ua-specific-parameters></aor>")):
        yield f"{name} in ua-info", "local", "UDP", _registration(f"<ua-info>{profile}{text}</ua-info>")
    for name, device, address in (("colons", "lo", ":" * 60000), ("pieces", "x" * 3000, "1:" * 30000),
                                  ("a long address", "lo", "1" * 60000 + ":UDP:5060")):
        yield f"route command of {name}", "local", "UDP", _command(
            "<route-info><action>set-route</action><profile-info><zel-profile-id>77</zel-profile-id></profile-info>"
            f"<device-name>{device}</device-name><ip-type-port>{address}</ip-type-port></route-info>")
    for name, body in (("zeros", b"\0" * 65000), ("line ends", b"\r\n" * 32500),
                       ("starts", b"INVITE sip:a SIP/2.0\r\n" * 2800)):
        yield f"body of {name}", "local", "UDP", _request(via="127.0.0.1:5071", body=body)
        yield f"body of {name}", "network", "UDP", _request(body=body)


def raw():
    """What is no message."""
    for name, piece in (("keep-alives", b"\r\n\r\n"), ("line ends", b"\r\n"), ("colons", b":"), ("blanks", b" "),
                        ("zeros", b"\0"),
                        ("short lines", b"a:b\r\n"), ("bare CR", b"\r"), ("bare LF", b"\n"),
                        ("start lines", b"A B SIP/2.0\r\n")):
        for side in ("local", "network"):
            for transport in ("UDP", "TCP"):
                yield f"nothing but {name}", side, transport, (piece * (DATAGRAM // len(piece) + 1))[:DATAGRAM]


def all_inputs():
    yield from searches()
    yield from messages()
    yield from responses()
    yield from bodies()
    yield from raw()
