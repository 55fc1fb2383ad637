"""Generated messages, each forwarded with no byte changed but where the proxy must.

UE_PROXY_MESSAGES is how many (`./dev torture` asks for 100,000), UE_PROXY_SEED which ones.
"""
import os
import select
import time
import unittest

from support.generator import Generator
from support.ways import Ways

COUNT = int(os.environ.get("UE_PROXY_MESSAGES", "5000"))
SEED = os.environ.get("UE_PROXY_SEED") or str(time.time_ns() // 1_000_000)
WINDOW = 16


class Generated(Ways):
    def drain(self, way):
        """The network's provisional answers, which nobody reads."""
        if way.name.startswith("network asks"):
            peer = self.network if way.transport == "UDP" else self.network_out
            # They may leave after what was forwarded.
            while select.select([peer.socket], [], [], 0.02)[0]:
                peer.socket.recv(1 << 16)

    def test_no_byte_is_changed_but_where_it_must_be(self):
        ways = self.ways()
        counts = [COUNT // len(ways) + (at < COUNT % len(ways)) for at in range(len(ways))]
        started = time.monotonic()
        for way, count in zip(ways, counts):
            for first in range(0, count, WINDOW):
                numbers = range(first, min(first + WINDOW, count))
                # The stream tags are new in every run, the rest is the same for the same seed.
                messages = [Generator(SEED, way, number).message() for number in numbers]
                for sent, _ in messages:
                    way.send(sent)
                for number, (sent, arrives) in zip(numbers, messages):
                    with self.naming(f"UE_PROXY_SEED={SEED}", number, way, sent):
                        self.assert_arrives(way, arrives)
                self.drain(way)
        for transport in ("UDP", "TCP"):
            self.call(transport)
        print(f"{COUNT} messages in {time.monotonic() - started:.1f} s")


if __name__ == "__main__":
    unittest.main(verbosity=1)
