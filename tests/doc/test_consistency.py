# SPDX-License-Identifier: GPL-3.0-or-later
"""What keeps the documentation true: every configuration key and environment
variable the code reads is in the manual pages and the shipped configuration
file; the options each command declares (its --help is made from the
declaration) are exactly those its manual page describes and the bash
completion offers, with the same fixed values.

Environment: MORVEL_SOURCE_DIR (the source tree), MORVEL_BINARY (the built morvel),
MORVEL_MODULE_DIR (its modules).
"""

import os
import re
import subprocess
import unittest

SOURCE = os.environ["MORVEL_SOURCE_DIR"]
BINARY = os.environ["MORVEL_BINARY"]
MODULE_DIR = os.environ["MORVEL_MODULE_DIR"]

MAN = os.path.join(SOURCE, "doc", "man")
CONF = os.path.join(SOURCE, "doc", "morvel.conf")
BASH = os.path.join(SOURCE, "completion", "morvel.bash")

# The accessors of the configuration: a key is the first argument, a string
# literal or a named constant.
CONFIG_CALL = re.compile(r"\b(?:GetConfigItem|GetGlobalConfigValue|ReadConfigInt)\(\s*([^,)]+)")
CHOSEN_CALL = re.compile(r"\bChosen\(\s*[^,]+,\s*[^,]+,\s*([^,)]+)")
ENV_CALL = re.compile(r"\b(?:getenv|Environment)\(\s*\"([A-Za-z_][A-Za-z0-9_]*)\"")
# Variables morvel puts in a child's environment: "NAME=" + value.
ENV_SET = re.compile(r"\"([A-Z][A-Z0-9_]*)=\"\s*\+")
# An option of a --help text: the first word of a line of its option list, and
# what its value is written as.
OPTION = re.compile(r"^ +(?:(-h), +)?(--[a-z][a-z0-9-]*)", re.M)
OPTION_VALUE = re.compile(r"^ +(--[a-z][a-z0-9-]*) ([^ \n]+)", re.M)
# An option described in a manual page's option list, and its value as written there.
MAN_OPTION = re.compile(r"^\*(?:-h\*, \*)?(--[a-z][a-z0-9-]*)\*(.*)$", re.M)
# What the completion offers as an option's value.
BASH_VALUES = re.compile(r"^\s+(--[a-z][a-z0-9-]*)\) _morvel_offer \$'([^']*)'", re.M)
# A parameter in a function's definition, not an argument.
DECLARATION = re.compile(r"(?:const\s+)?[\w:<>]+[\s*&]+\w+")


def read(path):
    with open(path, encoding="utf-8") as f:
        return f.read()


def sources():
    for top, _, names in os.walk(os.path.join(SOURCE, "src")):
        for name in sorted(names):
            if name.endswith((".cpp", ".h")):
                path = os.path.join(top, name)
                yield os.path.relpath(path, SOURCE), read(path)


def resolve(argument, text, where):
    """The key text of an accessor's first argument."""
    argument = argument.strip()
    literal = re.fullmatch(r"\"([^\"]*)\"", argument)
    if literal:
        return literal.group(1)
    if DECLARATION.fullmatch(argument):
        return None
    if re.fullmatch(r"[A-Za-z_]\w*", argument):
        defined = re.search(r"\b%s(?:\[\])?\s*=\s*\"([^\"]*)\"" % re.escape(argument), text)
        if defined:
            return defined.group(1)
        # A parameter of a wrapper (the wrapper's own callers are matched too).
        return None
    raise AssertionError("%s: cannot tell the configuration key of %r" % (where, argument))


def config_keys_in_code():
    keys = {}
    for path, text in sources():
        for pattern in (CONFIG_CALL, CHOSEN_CALL):
            for match in pattern.finditer(text):
                key = resolve(match.group(1), text, path)
                if key is not None:
                    keys.setdefault(key, path)
    return keys


def environment_in_code():
    names = {}
    for path, text in sources():
        for pattern in (ENV_CALL, ENV_SET):
            for match in pattern.finditer(text):
                names.setdefault(match.group(1), path)
    return names


def help_text(*args):
    env = dict(os.environ, MORVEL_MODULE_PATH=MODULE_DIR)
    done = subprocess.run([BINARY] + list(args) + ["--help"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          env=env, timeout=60, check=False)
    assert done.returncode == 0, "morvel %s --help: exit %d, %s" % (" ".join(args), done.returncode, done.stderr)
    return done.stdout.decode()


def options_of(text):
    return sorted({name for match in OPTION.findall(text) for name in match if name})


def fixed_values_of(text):
    """{option: [values]} for the options whose value is written as a|b|c (words; N|P% are placeholders)."""
    return {name: value.split("|") for name, value in OPTION_VALUE.findall(text)
            if "|" in value and all(re.fullmatch(r"[a-z0-9-]+", part) for part in value.split("|"))}


def man_options(page_text, section_title):
    return {name: form for name, form in MAN_OPTION.findall(section(page_text, section_title))}


def bash_values():
    return {name: values.split("\\n") for name, values in BASH_VALUES.findall(read(BASH))}


def section(page_text, title):
    """The text of one '# TITLE' section of an scdoc page."""
    match = re.search(r"^# %s\n(.*?)(?=^# |\Z)" % re.escape(title), page_text, re.S | re.M)
    assert match, "no section %s" % title
    return match.group(1)


def bash_words(variable):
    match = re.search(r"^%s='([^']*)'" % variable, read(BASH), re.M)
    assert match, "completion/morvel.bash: no %s" % variable
    return match.group(1).split()


class Consistency(unittest.TestCase):
    def missing(self, names, text, where):
        return ["%s (read by %s) is missing from %s" % (name, origin, where)
                for name, origin in sorted(names.items()) if not re.search(r"(?<![\w-])%s(?![\w-])" % re.escape(name), text)]

    def test_code_reads_the_keys_found_here(self):
        # The extraction itself: a change of accessor that hid every key would
        # otherwise pass everything below.
        keys = config_keys_in_code()
        for key in ("SMM_NETWORK_CHECK_RETRY_COUNT", "REDFISH_STARTUP_WAIT_TIME", "IPMI_SESSION_TIMEOUT_MS",
                    "SMM_PROTOCOL", "REDFISH_KNOWN_SMMS"):
            self.assertIn(key, keys)
        for key in keys:
            self.assertRegex(key, r"^[A-Z][A-Z0-9_]*$")

    def test_every_configuration_key_is_documented(self):
        keys = config_keys_in_code()
        page = read(os.path.join(MAN, "morvel.conf.5.scd"))
        problems = self.missing(keys, section(page, "KEYS"), "doc/man/morvel.conf.5.scd (KEYS)")
        conf_keys = {match.group(1) for match in re.finditer(r"^#([A-Z][A-Z0-9_]*)=", read(CONF), re.M)}
        problems += ["%s (read by %s) is missing from doc/morvel.conf as #%s=DEFAULT" % (key, origin, key)
                     for key, origin in sorted(keys.items()) if key not in conf_keys]
        problems += ["doc/morvel.conf names %s, which no code reads" % key for key in sorted(conf_keys - set(keys))]
        self.assertEqual(problems, [])

    def test_every_environment_variable_is_documented(self):
        names = environment_in_code()
        self.assertIn("MORVEL_CONFIG", names)
        self.assertIn("MORVEL_TARGET_HOST", names)
        page = read(os.path.join(MAN, "morvel.1.scd"))
        self.assertEqual(self.missing(names, section(page, "ENVIRONMENT"), "doc/man/morvel.1.scd (ENVIRONMENT)"), [])

    def check_options(self, args, page_name, section_title, bash_variable):
        text = help_text(*args)
        declared = set(options_of(text)) - {"-h"}
        self.assertGreaterEqual(len(declared), 2, declared)
        shown = "morvel %s--help" % "".join(arg + " " for arg in args)
        described = man_options(read(os.path.join(MAN, page_name)), section_title)
        offered = set(bash_words(bash_variable))
        problems = ["%s (declared, see %s) is missing from doc/man/%s" % (o, shown, page_name)
                    for o in sorted(declared - set(described))]
        problems += ["doc/man/%s describes %s, which is not declared (see %s)" % (page_name, o, shown)
                     for o in sorted(set(described) - declared)]
        problems += ["%s (declared, see %s) is missing from completion/morvel.bash %s" % (o, shown, bash_variable)
                     for o in sorted(declared - offered)]
        problems += ["completion/morvel.bash %s offers %s, which is not declared (see %s)" % (bash_variable, o, shown)
                     for o in sorted(offered - declared)]
        values = bash_values()
        for option, fixed in sorted(fixed_values_of(text).items()):
            if values.get(option) != fixed:
                problems.append("completion/morvel.bash offers %s for %s; it takes %s" % (values.get(option), option, fixed))
            if option in described and re.findall(r"\*([a-z0-9-]+)\*", described[option]) != fixed:
                problems.append("doc/man/%s writes %s as %r; it takes %s" % (page_name, option, described[option], fixed))
        self.assertEqual(problems, [])

    def test_host_options(self):
        self.check_options([], "morvel.1.scd", "HOST OPTIONS", "_morvel_host_options")

    def test_smmlan_options(self):
        self.check_options(["smmlan"], "morvel-smmlan.1.scd", "OPTIONS", "_morvel_smmlan_options")

    def test_trust_options(self):
        self.check_options(["trust"], "morvel-trust.1.scd", "OPTIONS", "_morvel_trust_options")

    def test_a_missing_or_extra_option_is_found(self):
        # The comparison itself, on a help text and a page that disagree both ways.
        text = "Options:\n  --alpha a|b    x\n  --beta N|P%    y\n"
        page = "# OPTIONS\n\n*--alpha* *a*|*b*\n\tx\n\n*--gamma*\n\ty\n\n# NEXT\n"
        self.assertEqual(set(options_of(text)), {"--alpha", "--beta"})
        self.assertEqual(set(man_options(page, "OPTIONS")), {"--alpha", "--gamma"})
        self.assertEqual(fixed_values_of(text), {"--alpha": ["a", "b"]})

    def test_every_exit_status_of_the_readme_is_in_morvel_1(self):
        readme = read(os.path.join(SOURCE, "README.md"))
        table = readme.split("### Exit statuses", 1)[1].split("\n#", 1)[0]
        statuses = re.findall(r"^\| ([0-9][0-9, ]*) \|", table, re.M)
        self.assertGreater(len(statuses), 5)
        page = section(read(os.path.join(MAN, "morvel.1.scd")), "EXIT STATUS")
        documented = set(re.findall(r"^\*([0-9]+)\*", page, re.M)) | set(re.findall(r"^\*[0-9]+\*, \*([0-9]+)\*", page, re.M))
        wanted = {status.strip() for row in statuses for status in row.split(",")}
        self.assertEqual(sorted(wanted - documented, key=int), [], "statuses of README.md missing from morvel(1)")

    def test_shipped_configuration_sets_nothing(self):
        # The rules of the configuration reader: blank and '#' lines are skipped,
        # anything else is a key.
        active = [line for line in read(CONF).splitlines() if line.strip() and not line.strip().startswith("#")]
        self.assertEqual(active, [])

    def test_shipped_defaults_match_the_manual(self):
        page = section(read(os.path.join(MAN, "morvel.conf.5.scd")), "KEYS")
        documented = dict(re.findall(r"^\*([A-Z][A-Z0-9_]*)\* \(default:? (?:\*([^*]*)\*|[^)]*)\)", page, re.M))
        shipped = dict(re.findall(r"^#([A-Z][A-Z0-9_]*)=(.*)$", read(CONF), re.M))
        self.assertEqual(sorted(documented), sorted(shipped))
        # A default that is no literal value ("the system's") is shipped empty.
        self.assertEqual(shipped, documented)


if __name__ == "__main__":
    unittest.main()
