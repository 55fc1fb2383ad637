"""The hostile load of `./dev hostile` in small, for what must hold at any speed: every call of the good client goes
through, and the proxy is afterwards what it was before."""
import itertools
import os
import sys
import unittest

sys.path.insert(1, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "hostile"))

import scenario
import worst_case
from support.proxy import ProxyCase


class Connections(ProxyCase):
    options = {"settings": "<max-connections>16</max-connections>"}

    def test_the_network_cannot_take_all_connections(self):
        self.set_route("1", "127.0.0.3:UDP:5060")
        network = [self.connect(to=scenario.NETWORK, source=("127.0.0.3", 0)) for _ in range(20)]
        # One address of the network holds what all of it may, for it is a route's proxy; who says nothing gives way.
        self.assertEqual(sum(stream.closed(0.2) for stream in network), 8)
        listener = self.tcp(5071)
        self.register(5071)
        self.accept(listener)
        phone = self.connect()
        phone.send(b"\r\n\r\n")
        self.assertEqual(phone.receive_raw(2), b"\r\n")


class Hostile(unittest.TestCase):
    def test_attacks_one_after_the_other_cost_no_call(self):
        scene = scenario.Scene(rate=20, settings="<max-connections>128</max-connections>")
        try:
            for name, attack in (("mutations", lambda: scene.mutate(4000, 2000)), ("slow", lambda: scene.slow(200, 2)),
                                 ("stalled", lambda: scene.stall(10, 1)),
                                 ("streams", lambda: scene.flood("streams", 0, 1)),
                                 ("messages", lambda: scene.flood("messages", 3000, 1)),
                                 ("registers", lambda: scene.flood("registers", 500, 1))):
                scene.measure(name, attack, 0.2, 0.2)
            for result in scene.finish():
                with self.subTest(result["attack"]):
                    for way in ("UDP", "TCP"):
                        self.assertGreater(result["during"][way]["calls"], 5)
                        self.assertEqual(result["during"][way]["failed"], {})
                    self.assertTrue(result["same_process"])
                    before, after = result["descriptors"]
                    self.assertLessEqual(after, before)
        except BaseException:
            print(scene.proxy.log()[-6000:])
            raise
        finally:
            scene.close()

    def test_inputs_that_are_hard_to_read_are_read(self):
        self.read_all(scenario.Inputs(), worst_case.all_inputs())

    def test_they_are_read_while_much_is_registered_that_is_hard_to_search(self):
        inputs = scenario.Inputs(worst=itertools.islice(worst_case.registrations(), 64))
        self.read_all(inputs, [*worst_case.searches(), *itertools.islice(worst_case.all_inputs(), 0, None, 3)])

    def read_all(self, inputs, list_of):
        try:
            for number, (name, side, transport, data) in enumerate(list_of):
                stream = inputs.send(side, transport, data)
                if stream:
                    stream.close()
                if number % 20 == 0:
                    inputs.drain()
                    inputs.processor_ms()  # so that few are lost in a full buffer
                self.assertTrue(inputs.proxy.alive(), name)
        finally:
            inputs.close()


if __name__ == "__main__":
    unittest.main(verbosity=1)
