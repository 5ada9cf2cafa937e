# SPDX-License-Identifier: GPL-3.0-or-later
"""The floors of src/: each room includes only itself and the rooms below it,
and says in a README what it is for.

Environment: MORVEL_SOURCE_DIR (the source tree).
"""

import os
import re
import unittest

SOURCE = os.path.join(os.environ["MORVEL_SOURCE_DIR"], "src")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)

# What each room may include besides itself.
ALLOWED = {
    "common/result": set(),
    "host": {"common/result"},
    "trust": {"common/result", "host"},
    "fleet": {"common/result", "host"},
    "common/rest": {"common/result", "host", "trust"},
    "misc/smmlan": {"common/result", "host", "trust", "common/rest"},
    "misc/trust": {"common/result", "host", "trust", "common/rest"},
    "cli": {"common/result", "host", "trust", "fleet", "common/rest"},
}


def room_of(path):
    """The room a path under src/ (or an include text) belongs to."""
    for room in sorted(ALLOWED, key=len, reverse=True):
        if path == room or path.startswith(room + "/"):
            return room
    return None


class Layering(unittest.TestCase):
    def test_every_source_is_in_a_room(self):
        strays = []
        for top, _, names in os.walk(SOURCE):
            for name in names:
                if name.endswith((".cpp", ".h")):
                    relative = os.path.relpath(os.path.join(top, name), SOURCE)
                    if room_of(relative) is None:
                        strays.append(relative)
        self.assertEqual(strays, [])

    def test_rooms_include_only_the_floors_below(self):
        found = []
        for room, allowed in ALLOWED.items():
            for top, _, names in os.walk(os.path.join(SOURCE, room)):
                for name in sorted(names):
                    if not name.endswith((".cpp", ".h")):
                        continue
                    path = os.path.join(top, name)
                    with open(path, encoding="utf-8") as f:
                        text = f.read()
                    for included in INCLUDE.findall(text):
                        other = room_of(included)
                        if other is not None and other != room and other not in allowed:
                            found.append("%s includes %s" % (os.path.relpath(path, SOURCE), included))
        self.assertEqual(found, [])

    def test_every_room_says_what_it_holds(self):
        missing = [room for room in ALLOWED if not os.path.isfile(os.path.join(SOURCE, room, "README.md"))]
        self.assertEqual(missing, [])

    def test_the_check_sees_a_forbidden_include(self):
        # The rule itself: host must not reach up into the fleet, whatever the files say today.
        self.assertEqual(room_of("fleet/TargetList.h"), "fleet")
        self.assertNotIn(room_of("fleet/TargetList.h"), ALLOWED["host"])
        self.assertNotIn("cli", set().union(*ALLOWED.values()))


if __name__ == "__main__":
    unittest.main()
