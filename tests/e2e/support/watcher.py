"""The watcher of the local registrations."""
from support import sip


class Watcher:
    """sip:regua@127.0.0.1 with a dialog of its own."""

    def __init__(self, peer):
        self.peer = peer
        self.call_id = sip.unique("w")
        self.cseq = 0
        self.to = "<sip:registrar@127.0.0.1>"

    def subscribe(self, expires=3600, event="local-reg-events", user="regua", branch=None):
        self.cseq += 1
        headers = [("Event", event)] + ([("Expires", expires)] if expires is not None else [])
        data = sip.request("SUBSCRIBE", "sip:registrar@127.0.0.1", via=self.peer.via, frm=f"<sip:{user}@127.0.0.1>;tag=w",
                           to=self.to, call_id=self.call_id, cseq=self.cseq, contact=f"<sip:regua@{self.peer.via}>",
                           headers=headers, branch=branch)
        self.peer.send(data)
        return data

    def answered(self):
        """The next answer; the dialog's To tag is learnt from it."""
        answer = self.peer.receive()
        if answer.status == 200:
            self.to = answer.get("To")
        return answer

    def notified(self, status=200, reason="OK", timeout=3.0):
        notify = self.peer.receive(timeout)
        assert notify.method == "NOTIFY", notify
        if status:
            self.peer.send(sip.response(notify, status, reason))
        return notify
