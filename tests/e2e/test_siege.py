"""The siege (tools/siege.py) in its short form: thousands of hostile connections on all three ports and
20 crawling downloads, while a legitimate client downloads, talks and reads /healthz in time; once with the
gateway's own descriptor limit and once with 512 descriptors. `make soak` runs the long form."""
import os
import sys
import unittest

import gateway_harness as h

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import siege  # noqa: E402

SECONDS = 15


class Siege(unittest.TestCase):
    def run_siege(self, descriptors):
        problems, numbers = siege.siege((h.GATEWAY, h.PLUGIN), SECONDS, descriptors, rss_limit_mib=32,
                                        log=lambda text: print(text, file=sys.stderr, flush=True))
        self.assertEqual(problems, [])
        for probe in ("download", "talk", "healthz"):
            self.assertGreater(numbers["done"][probe], 0, probe)

    def test_the_legitimate_client_is_served_through_the_siege(self):
        self.run_siege(None)

    def test_the_same_with_512_descriptors(self):
        self.run_siege(512)


if __name__ == "__main__":
    h.main()
