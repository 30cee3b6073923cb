"""Every flood of flood.py for a moment: the host ends it, for the right reason, or bears it, and
serves an honest caller meanwhile."""

import pathlib
import unittest

import flood
from cases import Http2Test

# What the host may need for a flood, beyond what it has at rest.
MAX_MEMORY_MB = 100


def is_sanitized(pid):
    """Sanitizers keep memory that was freed."""
    return "san.so" in pathlib.Path(f"/proc/{pid}/maps").read_text()


def flood_test(name):
    def test(self):
        one = flood.FLOODS[name]
        may_stay = flood.STILL_OPEN in one.ends
        report = flood.run(one, self.flooded_address, seconds=1 if may_stay else 30, connections=1,
                           pid=self.host.process.pid)

        self.assertLessEqual(set(report.ends), set(one.ends), report)
        self.assertEqual(report.honest.failures, 0, report)
        self.assertGreater(len(report.honest.milliseconds), 0, report)
        if not is_sanitized(self.host.process.pid):
            self.assertLess(report.memory_after - report.memory_before, MAX_MEMORY_MB, report)

    return test


class FloodTest(Http2Test):
    def __init_subclass__(cls):
        for name in flood.FLOODS:
            setattr(cls, "test_" + name.replace("-", "_"), flood_test(name))


class Floods(FloodTest):
    @property
    def flooded_address(self):
        return self.address


class FloodsOverTcp(FloodTest):
    @property
    def flooded_address(self):
        return self.tcp_address


if __name__ == "__main__":
    unittest.main()
