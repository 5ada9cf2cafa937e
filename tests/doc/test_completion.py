# SPDX-License-Identifier: GPL-3.0-or-later
"""completion/morvel.bash driven as readline would: COMP_WORDS, COMP_CWORD, COMP_LINE
and COMP_POINT set, the function called, COMPREPLY compared exactly.

Environment: MORVEL_SOURCE_DIR (the source tree).
"""

import os
import shutil
import subprocess
import tempfile
import unittest

SCRIPT = os.path.join(os.environ["MORVEL_SOURCE_DIR"], "completion", "morvel.bash")
# Bash's own default; the bash-completion package leaves it so.
DEFAULT_BREAKS = " \t\n\"'><=;|&(:@"
HOST_OPTIONS = ["--config", "--log-file", "--log-level", "--password-file", "--show-config", "--help", "--version"]
SMMLAN_OPTIONS = ["--bmc", "--bmc-file", "--method", "--fanout", "--output", "--always-prefix", "--detect-timeout",
                  "--max-auth-failures", "--canary", "--max-failures", "--retry-file", "--protocol", "--redfish-auth",
                  "--tls-verify", "--cacert", "--known-smms", "--credentials-file", "--password-command",
                  "--password-file", "--help"]

# Prints the number of words in COMPREPLY, then the words one per line, after setting what readline sets. Arguments:
# the line, the word breaks, then COMP_WORDS.
DRIVER = r'''
source "$SCRIPT" || exit 90
COMP_LINE=$1 COMP_POINT=${#1} COMP_WORDBREAKS=$2
shift 2
COMP_WORDS=("$@")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
_morvel
printf '%s\n' "${#COMPREPLY[@]}" "${COMPREPLY[@]}"
'''


def bash(argv, env, script=DRIVER):
    env = dict(env, SCRIPT=SCRIPT)
    done = subprocess.run(["bash", "--norc", "--noprofile", "-c", script, "driver"] + argv, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, env=env, timeout=30, check=False)
    return done


class Completion(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="morvel-completion-")
        self.addCleanup(shutil.rmtree, self.dir)
        self.state = os.path.join(self.dir, "state")
        os.makedirs(os.path.join(self.state, "morvel"))
        with open(os.path.join(self.state, "morvel", "known_smms"), "w", encoding="ascii") as f:
            f.write("smm01 sha256//97rq0RixAJrmwlv6v7ZKHCReQ/NFVgot/JGzadDPZ3Y= 2026-11-02T09:14:03Z\n"
                    "[2001:db8::10]:8443 sha256//PoKGBEOIiG7gh1uygPQPxlX1XCAWeU1u7opgEvlVXyk= 2026-11-02T09:15:40Z\n"
                    "rack2-smm07 sha256//97rq0RixAJrmwlv6v7ZKHCReQ/NFVgot/JGzadDPZ3Y= 2026-11-03T10:00:00Z\n")
        self.env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": os.path.join(self.dir, "home"),
                    "XDG_STATE_HOME": self.state, "LC_ALL": "C"}

    def complete(self, line, words=None, breaks=" \t\n", env=None):
        """COMPREPLY for `line` (the cursor at its end); words: COMP_WORDS as bash split them."""
        if words is None:
            words = line.split(" ")
        done = bash([line, breaks] + words, dict(self.env, **(env or {})))
        self.assertEqual((done.returncode, done.stderr.decode()), (0, ""))
        lines = done.stdout.decode().splitlines()
        self.assertEqual(int(lines[0]), len(lines) - 1, lines)
        return lines[1:]

    def test_registration(self):
        done = bash([], self.env, script='source "$SCRIPT" && complete -p morvel')
        self.assertEqual((done.returncode, done.stdout.decode(), done.stderr.decode()),
                         (0, "complete -F _morvel morvel\n", ""))

    def test_commands_and_host_options(self):
        self.assertEqual(self.complete("morvel "), ["smmlan", "trust"] + HOST_OPTIONS)
        self.assertEqual(self.complete("morvel s"), ["smmlan"])
        self.assertEqual(self.complete("morvel --l"), ["--log-file", "--log-level"])
        self.assertEqual(self.complete("morvel --log-level "), ["0", "1", "2", "3", "4"])
        self.assertEqual(self.complete("morvel --log-level 3 "), ["smmlan", "trust"] + HOST_OPTIONS)

    def test_subcommands(self):
        self.assertEqual(self.complete("morvel smmlan "), ["enable", "disable", "enableipmi", "query"])
        self.assertEqual(self.complete("morvel --log-level 4 smmlan enable"), ["enable", "enableipmi"])
        self.assertEqual(self.complete("morvel trust "), ["show", "add", "remove"])

    def test_options_of_a_command(self):
        self.assertEqual(self.complete("morvel smmlan query "), SMMLAN_OPTIONS)
        self.assertEqual(self.complete("morvel smmlan query --bmc a@b --t"), ["--tls-verify"])
        self.assertEqual(self.complete("morvel trust add smm01 "), ["--known-smms", "--yes", "--help"])

    def test_values(self):
        self.assertEqual(self.complete("morvel smmlan query --tls-verify "), ["none", "ca", "pin", "tofu"])
        self.assertEqual(self.complete("morvel smmlan enable --method "), ["static", "dhcp", "dhcp-failover"])
        self.assertEqual(self.complete("morvel smmlan query --output "), ["text", "json", "table"])
        self.assertEqual(self.complete("morvel smmlan query --protocol r"), ["redfish"])
        self.assertEqual(self.complete("morvel smmlan query --redfish-auth "), ["basic", "session"])
        self.assertEqual(self.complete("morvel smmlan query --redfish-auth=s"), ["--redfish-auth=session"])
        self.assertEqual(self.complete("morvel smmlan query --fanout "), [])

    def test_value_after_equals(self):
        # Without '=' among the breaks the whole word is replaced; with it, the part after '='.
        self.assertEqual(self.complete("morvel smmlan query --tls-verify=t"), ["--tls-verify=tofu"])
        self.assertEqual(self.complete("morvel smmlan query --tls-verify=t",
                                       ["morvel", "smmlan", "query", "--tls-verify", "=", "t"], DEFAULT_BREAKS),
                         ["tofu"])

    def test_bmc_hosts_from_the_known_smms_file(self):
        self.assertEqual(self.complete("morvel smmlan query --bmc admin@"),
                         ["admin@smm01", "admin@[2001:db8::10]:8443", "admin@rack2-smm07"])
        self.assertEqual(self.complete("morvel smmlan query --bmc ad:p@ss@r"), ["ad:p@ss@rack2-smm07"])
        self.assertEqual(self.complete("morvel smmlan query --bmc admin@smm01,r"), ["admin@smm01,rack2-smm07"])
        # No '@' yet: nothing is offered.
        self.assertEqual(self.complete("morvel smmlan query --bmc adm"), [])
        self.assertEqual(self.complete("morvel smmlan query --bmc=admin@s"), ["--bmc=admin@smm01"])

    def test_bmc_hosts_with_bash_word_breaks(self):
        # Readline replaces the text after the last ':', and from the last '@' on
        # (bash keeps that '@' in the word).
        self.assertEqual(self.complete("morvel smmlan query --bmc admin@",
                                       ["morvel", "smmlan", "query", "--bmc", "admin", "@"], DEFAULT_BREAKS),
                         ["@smm01", "@[2001:db8::10]:8443", "@rack2-smm07"])
        self.assertEqual(self.complete("morvel smmlan query --bmc admin@sm",
                                       ["morvel", "smmlan", "query", "--bmc", "admin", "@", "sm"], DEFAULT_BREAKS),
                         ["@smm01"])
        self.assertEqual(self.complete("morvel smmlan query --bmc admin@[2001:db8::10]:8",
                                       ["morvel", "smmlan", "query", "--bmc", "admin", "@", "[2001", ":", "db8",
                                        ":", "", ":", "10]", ":", "8"], DEFAULT_BREAKS),
                         ["8443"])

    def test_known_smms_named_on_the_line_or_by_home(self):
        other = os.path.join(self.dir, "other_smms")
        with open(other, "w", encoding="ascii") as f:
            f.write("# pins\n\nsmm99:8443 sha256//97rq0RixAJrmwlv6v7ZKHCReQ/NFVgot/JGzadDPZ3Y= 2026-11-02T09:14:03Z\n")
        self.assertEqual(self.complete("morvel smmlan query --known-smms %s --bmc u@" % other), ["u@smm99:8443"])
        self.assertEqual(self.complete("morvel smmlan query --known-smms=%s --bmc u@" % other), ["u@smm99:8443"])
        home_state = os.path.join(self.dir, "home", ".local", "state", "morvel")
        os.makedirs(home_state)
        shutil.copy(other, os.path.join(home_state, "known_smms"))
        self.assertEqual(self.complete("morvel smmlan query --bmc u@", env={"XDG_STATE_HOME": ""}), ["u@smm99:8443"])

    def test_trust_operand_from_the_known_smms_file(self):
        self.assertEqual(self.complete("morvel trust remove "), ["smm01", "[2001:db8::10]:8443", "rack2-smm07"])
        self.assertEqual(self.complete("morvel trust remove sm"), ["smm01"])

    def test_file_names(self):
        files = os.path.join(self.dir, "files")
        os.makedirs(os.path.join(files, "sub"))
        for name in ("a.conf", "b.conf"):
            open(os.path.join(files, name), "w", encoding="ascii").close()
        every = [os.path.join(files, name) for name in ("a.conf", "b.conf", "sub")]
        self.assertEqual(sorted(self.complete("morvel --config %s/" % files)), every)
        self.assertEqual(self.complete("morvel --config %s/a" % files), [every[0]])
        for option in ("--log-file", "--password-file"):
            self.assertEqual(sorted(self.complete("morvel %s %s/" % (option, files))), every)
        for option in ("--bmc-file", "--cacert", "--known-smms", "--credentials-file", "--password-file"):
            self.assertEqual(sorted(self.complete("morvel smmlan query %s %s/" % (option, files))), every)


if __name__ == "__main__":
    unittest.main()
