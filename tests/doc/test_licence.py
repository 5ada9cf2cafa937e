# SPDX-License-Identifier: GPL-3.0-or-later
"""The licence is stated everywhere it has to be, and no file names a package mirror.

Environment: MORVEL_SOURCE_DIR (the source tree, a git checkout).
"""

import os
import re
import subprocess
import unittest

SOURCE = os.environ["MORVEL_SOURCE_DIR"]
TAG = "SPDX-License-Identifier: GPL-3.0-or-later"
SCRIPTS = {"scripts/demo", "scripts/fresh-check", "scripts/fuzz", "scripts/lint", "scripts/package",
           "scripts/package-check", "scripts/setup", "scripts/test", "scripts/valgrind", ".ci/run",
           "bench/fleet_bench", "bench/ipmi_bench", "tools/smm-sim/smm-sim", "debian/rules"}
# Package registries and mirrors: they belong to the machine's own configuration.
MIRROR = re.compile(r"\b(?:deb|security|ftp(?:\.[a-z]{2})?|httpredir|cdn-fastly)\.debian\.org\b|registry\.npmjs\.org|"
                    r"\bmirrors?\.[a-z0-9.-]+\.[a-z]{2,}\b")


def tracked():
    done = subprocess.run(["git", "-C", SOURCE, "ls-files"], stdout=subprocess.PIPE, check=True)
    return [path for path in done.stdout.decode().splitlines() if path]


def read(path):
    with open(os.path.join(SOURCE, path), encoding="utf-8", errors="replace") as f:
        return f.read()


def is_code(path):
    name = os.path.basename(path)
    return path in SCRIPTS or name == "CMakeLists.txt" or name.endswith((".cpp", ".h", ".py", ".bash", ".cmake"))


class Licence(unittest.TestCase):
    def test_every_source_file_and_script_names_the_licence_first(self):
        files = [path for path in tracked() if is_code(path)]
        self.assertGreater(len(files), 200)
        missing = []
        for path in files:
            head = [line for line in read(path).splitlines()[:3] if not line.startswith("#!") and "coding" not in line]
            if not head or TAG not in head[0]:
                missing.append(path)
        self.assertEqual(missing, [])

    def test_copying_is_the_gpl_3(self):
        text = read("COPYING")
        self.assertTrue(text.startswith("                    GNU GENERAL PUBLIC LICENSE\n                       Version 3, 29 June 2007\n"))
        if os.path.exists("/usr/share/common-licenses/GPL-3"):
            with open("/usr/share/common-licenses/GPL-3", encoding="utf-8") as f:
                self.assertEqual(text, f.read())

    def test_debian_copyright_gives_every_file_the_licence(self):
        text = read("debian/copyright")
        self.assertTrue(text.startswith("Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n"))
        stanzas = re.findall(r"^Files: (.*)\n(?:.*\n)*?License: (.*)$", text, re.M)
        self.assertEqual(stanzas, [("*", "GPL-3+")])
        self.assertIn("/usr/share/common-licenses/GPL-3", text)

    def test_the_collection_declares_the_licence(self):
        self.assertRegex(read("ansible/ansible_collections/morvel/smm/galaxy.yml"), r"(?m)^license:\n  - GPL-3\.0-or-later$")

    def test_no_file_names_a_package_mirror(self):
        found = []
        for path in tracked():
            if path.startswith("tests/fuzz/") and "/corpus/" in path or path == "COPYING":
                continue
            for match in MIRROR.finditer(read(path)):
                found.append("%s: %s" % (path, match.group(0)))
        self.assertEqual(found, [])

    def test_the_mirror_pattern_finds_one(self):
        # Put together here, so that this file does not name one itself.
        self.assertIsNotNone(MIRROR.search("deb http://" + "deb.debian" + ".org/debian bookworm main"))
        self.assertIsNotNone(MIRROR.search("http://" + "security.debian" + ".org/debian-security"))
        self.assertIsNone(MIRROR.search("https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/"))


if __name__ == "__main__":
    unittest.main()
