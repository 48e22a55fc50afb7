"""The tool on the guest's controllers: bit timing that it sets itself, faults, plugs that are pulled."""
import unittest

import harness
from can_harness import CanTest, ip


class ClassicTest(CanTest):
    interfaces = ("can0", "can1")

    def setUp(self):
        super().setUp()
        ip("link set can1 down")
        ip("link set can1 up type can bitrate 500000")


if __name__ == "__main__":
    unittest.main()
