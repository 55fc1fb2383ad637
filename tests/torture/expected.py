"""What the proxy does with each torture message; tests/e2e/test_torture.py holds the running process to it.

Three questions, layer by layer:

  framing    `stream`: over TCP, WHOLE when the message ends where it should, WAITS when more must come first (nothing
             else gets through on that connection), CLOSED when the end cannot be known
  parsing    `refused`: why it is no message (one log line, nothing sent); a stream goes on behind it
  proxy      as the RFC has them, all are from strangers: no user agent's port, no known proxy, no answer's tags stand
             in the topmost Via, and they are dropped with a line. With `sent_by` replaced by the sender's own address
             they are forwarded, unless `from_network` names the line that says why not; and byte for byte, but for
             the topmost Via (`via` is its value), the topmost Contact (`contact`; `out` is what the network sees of
             alice's) and the header that the proxy adds. `lines` are written although it is forwarded
  registrar  a REGISTER made one to 127.0.0.1 is answered 400: `registrar` is the line that says why

A proxy that carries what it does not understand is right to carry most of these: they are wrong for their recipients,
who have to say so. Refused is what could be read as two different messages, or would end elsewhere for others.
"""
from dataclasses import dataclass

WHOLE, WAITS, CLOSED = "whole", "waits", "closed"
NO_CLIENT = "ERROR: check why client or domain key empty"
NO_BODY = "IMSE_REG: handle_registrar_register_message: object creation failed"


@dataclass(frozen=True)
class Case:
    why: str
    via: str = ""
    sent_by: str = ""
    contact: str = ""
    out: str = ""
    refused: str = ""
    stream: str = WHOLE
    from_network: str = ""
    lines: tuple = ()
    untried: str = ""  # the line that says why the network gets no 100 for its INVITE
    registrar: str = ""
    body: object = None  # what becomes of the body: a function of it and of the transport


def sip(why, sent_by, after="", contact="", out="", transport="UDP", **more):
    """With a Via as everyone writes it, and a Contact <sip:user@host> unless it says otherwise."""
    if contact and not out:
        out = "<sip:127.0.0.2:5060{tags}>"
        contact = f"<sip:{contact}>"
    return Case(why, f"SIP/2.0/{transport} {sent_by}{after}", sent_by, contact, out, **more)


def none(why, refused, stream=WHOLE):
    return Case(why, refused=refused, stream=stream)


# The intake copies a text up to its first NUL and reads it with its full length; what stands behind is zeros.
def zeroed_from_nul(body, transport):
    return body[:body.index(b"\0")].ljust(len(body), b"\0")


def nothing(body, transport):
    return b""


def only_in_a_datagram(body, transport):
    return body if transport == "UDP" else b""


CALLER = "\"Caller\" <sip:127.0.0.2:5060{tags}>"
NO_ADDRESS = "createSIPAddressObject() failed for "

EXPECTED = {
    # --- RFC 4475 3.1.1: valid ---
    "rfc4475/wsinv": Case(
        "every way to write a header: folds, blanks, case, compact forms, two Vias in one line",
        via="SIP  /   2.0\r\n /UDP\r\n    192.0.2.2;branch=390skdjuw", sent_by="192.0.2.2",
        contact="\"Quoted string \\\"\\\"\" <sip:jdrosen@example.com> ; newparam =\r\n      newvalue ;\r\n"
                "  secondparam ; q = 0.33",
        out="\"Quoted string \\\"\\\"\" <sip:127.0.0.2:5060{tags}> ; newparam = newvalue ; secondparam ; q = 0.33"),
    "rfc4475/intmeth": none("valid, but it holds an escaped NUL: the intake reads no further", "the head has no end"),
    "rfc4475/esc01": sip("escaped characters are others than those they stand for", "host5.example.net",
                         ";branch=z9hG4bKkdjuw", "<sip:cal%6Cer@host5.example.net;%6C%72;n%61me=v%61lue%25%34%31>",
                         "<sip:127.0.0.2:5060;%6C%72;n%61me=v%61lue%25%34%31{tags}>"),
    "rfc4475/escnull": sip("escaped NULs are no NULs; the second Contact stays as it is", "host5.example.com",
                           ";branch=z9hG4bKkdjuw", "%00@host5.example.com", registrar=NO_BODY),
    "rfc4475/esc02": sip("a method and a header name are not unescaped", "host.example.com",
                         ";branch=z9hG4bK209%fzsnel234", "alias1@host1.example.com", transport="TCP"),
    "rfc4475/lwsdisp": sip("no blank between display name and address", "funky.example.com", ";branch=z9hG4bKkdjuw"),
    "rfc4475/longreq": sip("long values, 34 Vias, the topmost without a branch", "sip33.example.com", transport="TCP",
                           contact="amazinglylongcallername" * 5 + "@host5.example.net",
                           untried="100 trying not sent: To of the request is absent or longer than 255 bytes"),
    "rfc4475/dblreq": sip("a second request behind the first: dropped in a datagram, the next message of a stream",
                          "192.0.2.125", ";branch=z9hG4bKkdjuw23492", "sip:j.user@host.example.com",
                          "<sip:127.0.0.2:5060{tags}>", registrar=NO_BODY, body=nothing),
    "rfc4475/semiuri": sip("a semicolon in the user part", "192.0.2.1", ";branch=z9hG4bKkdjuw"),
    "rfc4475/transports": sip("Vias of five transports, one of them unknown", "t1.example.com", ";branch=z9hG4bKkdjuw"),
    "rfc4475/mpart01": sip("a binary body; behind its first NUL the intake reads zeros", "127.0.0.1:5070",
                           ";branch=z9hG4bK-d87543-4dade06d0bdb11ee-1--d87543-;rport", "fluffy@127.0.0.1:5070",
                           body=zeroed_from_nul),
    "rfc4475/unreason": sip("a reason phrase in UTF-8", "192.0.2.198", ";branch=z9hG4bK1324923",
                            "user@host198.example.com"),
    "rfc4475/noreason": sip("an empty reason phrase", "192.0.2.105", ";branch=z9hG4bK2398ndaoe",
                            "user@host105.example.com"),

    # --- RFC 4475 3.1.2: not valid ---
    "rfc4475/badinv01": Case("separators with nothing between: read as empty pieces", "SIP/2.0/UDP 192.0.2.15;;",
                             "192.0.2.15", "\"Joe\" <sip:joe@example.org>;;;;",
                             "\"Joe\" <sip:127.0.0.2:5060{tags}>;;;;"),
    "rfc4475/clerr": none("Content-Length larger than the body",
                          "Content-Length is larger than the rest of the text", WAITS),
    "rfc4475/ncl": none("a negative Content-Length", "Content-Length is not a number of allowed size", CLOSED),
    "rfc4475/scalar02": sip("numbers beyond any range are texts to who only carries them; the registrar has to count",
                            "host129.example.com", ";branch=z9hG4bK342sdfoi3", transport="TCP",
                            contact="<sip:user@host129.example.com>\r\n  ;expires=280297596632815",
                            out="<sip:127.0.0.2:5060{tags}> ;expires=280297596632815",
                            registrar="REGISTER answered 400: CSeq number out of range"),
    "rfc4475/scalarlg": sip("the same in an answer", "host129.example.com",
                            ";branch=z9hG4bKzzxdiwo34sw;received=192.0.2.129", transport="TCP"),
    "rfc4475/quotbal": sip("a quote without end in To: no user agent can be found by it, the network may judge",
                           "192.0.2.59:5050", ";branch=z9hG4bKkdjuw39234", "caller@host59.example.net",
                           from_network=NO_CLIENT, lines=(NO_ADDRESS + "TO", "FROM/TO is NULL")),
    "rfc4475/ltgtruri": sip("brackets around the Request-URI are carried", "192.0.2.5",
                            contact="caller@host5.example.net"),
    "rfc4475/lwsruri": none("a blank in the Request-URI", "the version is not SIP/2.0"),
    "rfc4475/lwsstart": none("two blanks in the start line", "the Request-URI is empty or holds white space"),
    "rfc4475/trws": none("blanks behind the start line", "the version is not SIP/2.0"),
    "rfc4475/escruri": sip("headers in the Request-URI are not made headers", "host-of-the-hour.example.com",
                           ";branch=z9hG4bKkdjuw", "caller@host39923.example.net"),
    "rfc4475/baddate": sip("a date in another time zone", "host.example.com", ";branch=z9hG4bKkdjuw",
                           "caller@host5.example.net"),
    "rfc4475/regbadct": sip("a Contact that would need brackets gets them", "135.180.130.133:5060",
                            ";branch=z9hG4bKkdjuw", "sip:user@example.com?Route=%3Csip:sip.example.com%3E",
                            "<sip:127.0.0.2:5060?Route=%3Csip:sip.example.com%3E{tags}>", registrar=NO_BODY),
    "rfc4475/badaspec": sip("blanks within the brackets of To", "host4.example.com:5060", ";branch=z9hG4bKkdju43234"),
    "rfc4475/baddn": none("a display name that would need quotes, and no blank line behind the head",
                          "the head has no end", WAITS),
    "rfc4475/badvers": none("version 7.0", "the version is not SIP/2.0"),
    "rfc4475/mismatch01": sip("methods of start line and CSeq differ", "host.example.com", ";branch=z9hG4bKkdjuw"),
    "rfc4475/mismatch02": sip("the same with an unknown method", "host.example.net", ";branch=z9hG4bKkdjuw",
                              "caller@host.example.net"),
    "rfc4475/bigcode": none("a status beyond 32 bits", "the status is not 100 to 699"),

    # --- RFC 4475 3.2 to 3.4 ---
    "rfc4475/badbranch": sip("a branch that is the cookie alone; it leads nowhere, the tags do", "192.0.2.1",
                             ";branch=z9hG4bK"),
    "rfc4475/insuf": sip("neither From nor To nor Call-ID", "192.0.2.95", ";branch=z9hG4bKkdj.insuf",
                         from_network=NO_CLIENT, lines=(NO_ADDRESS + "FROM", NO_ADDRESS + "TO", "FROM/TO is NULL")),
    "rfc4475/unkscm": sip("a Request-URI of an unknown scheme", "host9.example.com", ";branch=z9hG4bKkdjuw39234",
                          transport="TCP"),
    "rfc4475/novelsc": sip("a Request-URI of another scheme", "host9.example.com", ";branch=z9hG4bKkdjuw39234",
                           transport="TCP"),
    "rfc4475/unksm2": sip("other schemes in From, To and Contact: no host and no user to replace", "192.0.2.21:5060",
                          ";branch=z9hG4bKkdjuw", "<name:John_Smith>", "<name:John_Smith{tags}>", registrar=NO_BODY),
    "rfc4475/bext01": sip("extensions required of proxies that this one does not know", "fold-and-staple.example.com",
                          ";branch=z9hG4bKkdjuw", transport="TLS"),
    "rfc4475/invut": sip("a content type that nobody knows", "somehost.example.com", ";branch=z9hG4bKkdjuw",
                         "caller@host5.example.net"),
    "rfc4475/regaut01": sip("credentials of an unknown scheme", "192.0.2.253", ";branch=z9hG4bKkdjuw", transport="TCP",
                            registrar=NO_BODY),
    "rfc4475/multi01": sip("values that there may be one of, twice: the topmost counts", "192.0.2.25",
                           ";branch=z9hG4bKkdjuw", "caller@host25.example.net"),
    "rfc4475/mcl01": none("two Content-Length values", "two Content-Length values differ", CLOSED),
    "rfc4475/bcast": sip("an answer whose second Via is a broadcast address", "192.0.2.198", ";branch=z9hG4bK1324923",
                         "user@host28.example.com"),
    "rfc4475/zeromf": sip("no hop left: this proxy is a part of the terminal and does not count itself",
                          "host1.example.com", ";branch=z9hG4bKkdjuw2349i"),
    "rfc4475/cparam01": sip("a parameter that is the Contact's, not its URI's", "saturn.example.com:5060",
                            ";branch=z9hG4bKkdjuw", "sip:+19725552222@gw1.example.net;unknownparam",
                            "<sip:127.0.0.2:5060{tags}>;unknownparam", registrar=NO_BODY),
    "rfc4475/cparam02": sip("a parameter that is the URI's", "saturn.example.com:5060", ";branch=z9hG4bKkdjuw",
                            "<sip:+19725552222@gw1.example.net;unknownparam>",
                            "<sip:127.0.0.2:5060;unknownparam{tags}>", registrar=NO_BODY),
    "rfc4475/regescrt": sip("headers in a Contact URI stay there", "host5.example.com", ";branch=z9hG4bKkdjuw",
                            "<sip:user@example.com?Route=%3Csip:sip.example.com%3E>",
                            "<sip:127.0.0.2:5060?Route=%3Csip:sip.example.com%3E{tags}>", registrar=NO_BODY),
    "rfc4475/sdp01": sip("an Accept that excludes SDP", "192.0.2.15", ";branch=z9hG4bKkdjuw",
                         "caller@host15.example.net"),
    "rfc4475/inv2543": sip("of the age before branches and required lengths: the body ends with the datagram; on a "
                           "stream there is none, and what stands in its place is the beginning of something else",
                           "iftgw.example.com", stream=WAITS, body=only_in_a_datagram),

    # --- RFC 5118 ---
    "rfc5118/ipv6-good": sip("IPv6 addresses in brackets", "[2001:db8::9:1]", ";branch=z9hG4bKas3-111",
                             "\"Caller\" <sip:caller@[2001:db8::1]>", CALLER, registrar=NO_BODY),
    "rfc5118/ipv6-bad": sip("a Request-URI without the brackets is only carried", "[2001:db8::9:1]",
                            ";branch=z9hG4bKas3-111", "\"Caller\" <sip:caller@[2001:db8::1]>", CALLER,
                            registrar=NO_BODY),
    "rfc5118/port-ambiguous": sip("a port within the brackets is none", "[2001:db8::9:1]", ";branch=z9hG4bKas3-111",
                                  "\"Caller\" <sip:caller@[2001:db8::1]>", CALLER, registrar=NO_BODY),
    "rfc5118/port-unambiguous": sip("a port behind the brackets", "[2001:db8::9:1]", ";branch=z9hG4bKas3-111",
                                    "\"Caller\" <sip:caller@[2001:db8::1]>", CALLER, registrar=NO_BODY),
    "rfc5118/via-received-param-with-delim": sip("a received address in brackets", "[2001:db8::9:1]",
                                                 ";received=[2001:db8::9:255];branch=z9hG4bKas3-111"),
    "rfc5118/via-received-param-no-delim": sip("a received address without", "[2001:db8::9:1]",
                                               ";received=2001:db8::9:255;branch=z9hG4bKas3",
                                               "\"Caller\" <sip:caller@[2001:db8::9:1]>", CALLER),
    "rfc5118/ipv6-in-sdp": sip("a body of IPv6 addresses", "[2001:db8::20]", ";branch=z9hG4bKas3-111",
                               "\"Caller\" <sip:caller@[2001:db8::20]>", CALLER),
    "rfc5118/mult-ip-in-header": sip("Vias of both families", "[2001:db8::9:1]:6050", ";branch=z9hG4bKas3-111"),
    "rfc5118/mult-ip-in-sdp": sip("a body of both families", "[2001:db8::9:1]", ";branch=z9hG4bKas3-111",
                                  "\"Caller\" <sip:caller@[2001:db8::9:1]>", CALLER),
    "rfc5118/ipv4-mapped-ipv6": sip("IPv4 addresses written as IPv6", "[::ffff:192.0.2.10]:19823",
                                    ";branch=z9hG4bKbh19", "\"T. desk phone\" <sip:ted@[::ffff:192.0.2.2]>",
                                    "\"T. desk phone\" <sip:127.0.0.2:5060{tags}>"),
    "rfc5118/ipv6-bug-abnf-3-colons": sip("three colons", "lab1.east.example.com", ";branch=z9hG4bKas3-111"),
    "rfc5118/ipv6-correct-abnf-2-colons": sip("two colons", "lab1.east.example.com", ";branch=z9hG4bKas3-111"),
}
