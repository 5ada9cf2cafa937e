# SPDX-License-Identifier: GPL-3.0-or-later
"""The built manual pages: they render without a warning, and their NAME line is what apropos shows.

Environment: MORVEL_MAN_DIR, the build tree's directory of roff pages and their .gz.
"""

import gzip
import os
import subprocess
import unittest

MAN_DIR = os.environ["MORVEL_MAN_DIR"]

NAME_LINES = {
    "morvel.1": "morvel - manage the System Management Module of a multi-node enclosure",
    "morvel-smmlan.1": "morvel-smmlan - switch or query the network of an enclosure's SMM",
    "morvel-trust.1": "morvel-trust - show, record or forget the pin of an SMM's Redfish key",
    "morvel.conf.5": "morvel.conf - configuration of morvel",
}


def run(argv, env=None):
    return subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=env, timeout=60, check=False)


class ManPages(unittest.TestCase):
    def page(self, name):
        path = os.path.join(MAN_DIR, name)
        self.assertTrue(os.path.isfile(path), "%s was not built" % path)
        return path

    def test_groff_finds_nothing_to_warn_about(self):
        for name in NAME_LINES:
            with self.subTest(page=name):
                # -k: the pages are UTF-8 text, as man feeds them.
                done = run(["groff", "-k", "-man", "-ww", "-z", self.page(name)])
                self.assertEqual((done.returncode, done.stderr.decode(), done.stdout.decode()), (0, "", ""))

    def test_man_renders_the_name_line_without_warnings(self):
        env = dict(os.environ, MANWIDTH="80", MAN_KEEP_FORMATTING="", LC_ALL="C.UTF-8")
        env.pop("MANPAGER", None)
        env["PAGER"] = "cat"
        for name, line in NAME_LINES.items():
            with self.subTest(page=name):
                done = run(["man", "--warnings", "-l", self.page(name)], env=env)
                self.assertEqual((done.returncode, done.stderr.decode()), (0, ""))
                text = done.stdout.decode().splitlines()
                self.assertEqual(text[2:4], ["NAME", "       " + line], "\n".join(text[:6]))
                section = name.rsplit(".", 1)[1]
                self.assertEqual(text[0].split()[0], "%s(%s)" % (name.rsplit(".", 1)[0], section))

    def test_compressed_page_is_the_page_and_reproducible(self):
        for name in NAME_LINES:
            with self.subTest(page=name):
                with open(self.page(name), "rb") as f:
                    roff = f.read()
                with open(self.page(name + ".gz"), "rb") as f:
                    packed = f.read()
                self.assertEqual(gzip.decompress(packed), roff)
                # gzip -n: no file name flag, no time stamp.
                self.assertEqual((packed[3], packed[4:8]), (0, b"\0\0\0\0"))

    def test_no_hyphenation(self):
        for name in NAME_LINES:
            with self.subTest(page=name):
                with open(self.page(name), encoding="utf-8") as f:
                    lines = f.read().splitlines()
                th = [i for i, line in enumerate(lines) if line.startswith(".TH ")]
                self.assertEqual(len(th), 1)
                self.assertEqual(lines[th[0] + 1], ".nh")


if __name__ == "__main__":
    unittest.main()
