# SPDX-License-Identifier: GPL-3.0-or-later
"""Where `morvel` reads its configuration from, --show-config, and the host's
clearer errors, with the real executable and modules.

Every run has a private HOME and XDG_CONFIG_HOME (the harness's), and the
system file's folder replaced in a private mount namespace
(smmsim.system_config_wrapper), so neither this machine's /etc nor a user's
~/.config takes part, and /etc is never written.
"""

import os
import pwd
import re
import unittest

from smmsim import (MORVEL, MORVEL_WRAPPER, MODULE_DIR, SYSTEM_CONFIG, E2ETestCase, run_command,
                    system_config_wrapper)

PASSWORD = "pw:Cfg@e2e"
KNOWN_LINE = re.compile(r"^(\S+) (sha256//[A-Za-z0-9+/]{43}=) (\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)\n$")
REDFISH_QUERY = ("************Query Result************\n\nQuery SMM network status succeeded\n"
                 "    Status: SMM network over LAN enabled and IPMI over LAN disabled\n    SMM IP: 192.0.2.100\n\n"
                 "************Query Result************\n\n0 Succeed.\n")

# Runs "$@" with an overlay over the folder $1 whose upper layer is $2 (work
# folder $3): the run reads that folder as it is and writes only into $2. The
# morvel folders of the upper layer are opaque, so none of the machine's own
# morvel files under it take part.
_OVERLAY_SCRIPT = r"""set -e
folder=$1 upper=$2 work=$3
shift 3
mount -t overlay morvel-e2e-home -o "lowerdir=$folder,upperdir=$upper,workdir=$work" "$folder"
exec "$@"
"""
# ipmi_sim refuses the session without this workaround (README of the harness):
# whether a level's file was read shows in whether the run gets through.
WORKAROUND = "IPMI_WORKAROUND_FLAGS=opensesspriv\n"
SUCCEED = "0 Succeed.\n"
REFUSED = "2054 Authentication failed. For instance, user name or password error.\n"
LOG_RECORD = re.compile(r"^\S+ \S+ (\w+) +(\S+):\d+ (.*)$", re.M)

# Every key the software reads, with its built-in default (None: unset, and what that means).
DEFAULTS = [
    ("SMM_NETWORK_CHECK_RETRY_COUNT", "24"),
    ("SMM_NETWORK_CHECK_SLEEP_TIME", "5"),
    ("REDFISH_STARTUP_WAIT_TIME", "180"),
    ("REST_MAX_BODY_BYTES", "268435456"),
    ("IPMI_WORKAROUND_FLAGS", None, "no workarounds"),
    ("IPMI_CIPHER_SUITE_ID", "3"),
    ("IPMI_PRIVILEGE_LEVEL", "admin"),
    ("IPMI_SESSION_TIMEOUT_MS", "20000"),
    ("IPMI_RETRANSMISSION_TIMEOUT_MS", "1000"),
    ("SMM_PROTOCOL", "auto"),
    ("REDFISH_AUTH", "basic"),
    ("REDFISH_TLS_VERIFY", "none"),
    ("REDFISH_CA_FILE", None, "the system's CA certificates"),
    ("REDFISH_KNOWN_SMMS", None, "$XDG_STATE_HOME/morvel/known_smms, else ~/.local/state/morvel/known_smms"),
    ("SMM_DETECT_TIMEOUT", "5"),
    ("SMM_MAX_AUTH_FAILURES", "3"),
    ("LOG_MAX_BYTES", "16777216"),
    ("LOG_KEEP", "3"),
]

ALL_DEFAULTS = (
    "# built-in default\nSMM_NETWORK_CHECK_RETRY_COUNT=24\n"
    "# built-in default\nSMM_NETWORK_CHECK_SLEEP_TIME=5\n"
    "# built-in default\nREDFISH_STARTUP_WAIT_TIME=180\n"
    "# built-in default\nREST_MAX_BODY_BYTES=268435456\n"
    "# built-in default: unset (no workarounds)\n#IPMI_WORKAROUND_FLAGS=\n"
    "# built-in default\nIPMI_CIPHER_SUITE_ID=3\n"
    "# built-in default\nIPMI_PRIVILEGE_LEVEL=admin\n"
    "# built-in default\nIPMI_SESSION_TIMEOUT_MS=20000\n"
    "# built-in default\nIPMI_RETRANSMISSION_TIMEOUT_MS=1000\n"
    "# built-in default\nSMM_PROTOCOL=auto\n"
    "# built-in default\nREDFISH_AUTH=basic\n"
    "# built-in default\nREDFISH_TLS_VERIFY=none\n"
    "# built-in default: unset (the system's CA certificates)\n#REDFISH_CA_FILE=\n"
    "# built-in default: unset ($XDG_STATE_HOME/morvel/known_smms, else ~/.local/state/morvel/known_smms)\n"
    "#REDFISH_KNOWN_SMMS=\n"
    "# built-in default\nSMM_DETECT_TIMEOUT=5\n"
    "# built-in default\nSMM_MAX_AUTH_FAILURES=3\n"
    "# built-in default\nLOG_MAX_BYTES=16777216\n"
    "# built-in default\nLOG_KEEP=3\n")

# What a package installs: every key there, commented out.
COMMENTED_OUT = "# morvel system configuration; the user's file wins per key.\n" + "".join(
    "#%s=%s\n" % (entry[0], entry[1] or "") for entry in DEFAULTS)


def shown(settings, unknown=()):
    """The --show-config text: settings {KEY: (value, file, line)}; unknown [(KEY, shown value, file, line)]."""
    text = ""
    for entry in DEFAULTS:
        key = entry[0]
        if key in settings:
            value, path, line = settings[key]
            text += "# %s line %d\n%s=%s\n" % (path, line, key, value)
        elif entry[1] is not None:
            text += "# built-in default\n%s=%s\n" % (key, entry[1])
        else:
            text += "# built-in default: unset (%s)\n#%s=\n" % (entry[2], key)
    for key, value, path, line in unknown:
        note = ", value not shown" if value == "*" else ""
        text += "# unknown key, %s line %d%s\n%s=%s\n" % (path, line, note, key, value)
    return text


def log_records(text):
    return LOG_RECORD.findall(text)


class HostConfig(E2ETestCase):
    def setUp(self):
        super().setUp()
        self.xdg = os.path.join(self.home, ".config")
        self.user_file = os.path.join(self.xdg, "morvel", "morvel.conf")
        # The contents of the system file's folder, bound over it in each run.
        self.system = self._new_dir("system")
        self.system_file = os.path.join(os.path.dirname(SYSTEM_CONFIG), os.path.basename(SYSTEM_CONFIG))
        self.scratch = self._new_dir("overlay")

    def write(self, path, text, mode=0o600):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        os.chmod(path, mode)
        return path

    def write_system(self, text, mode=0o644):
        return self.write(os.path.join(self.system, os.path.basename(SYSTEM_CONFIG)), text, mode)

    def morvel(self, args, env=None, config=None, config_via="option"):
        return self.run_morvel(args, env=env, config=config, config_via=config_via,
                               wrapper=system_config_wrapper(self.system, self.scratch))

    def show(self, host_args=(), env=None):
        return self.morvel(list(host_args) + ["--show-config"], env=env)

    def query(self, sim, host_args=(), env=None):
        return self.morvel(list(host_args) + ["smmlan", "query", "--bmc", sim.bmc()], env=env)

    def assertOutcome(self, result, returncode, stdout, stderr):
        self.assertEqual((result.returncode, result.stdout, result.stderr), (returncode, stdout, stderr),
                         result.describe())

    def assertRefused(self, result):
        """The session was refused: the workaround was not read."""
        self.assertEqual((result.returncode, result.stderr), (255, REFUSED), result.describe())

    def assertQueried(self, result, read_from):
        """The query got through (the workaround was read) and the log names the files read."""
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.describe())
        self.assertTrue(result.stdout.endswith(SUCCEED), result.describe())
        self.assertIn(("INFO", "src/cli/Host", "configuration read from " + read_from), log_records(result.files["log"]))

    def start(self):
        return self.start_sim(REDFISH="off", PASSWORD=PASSWORD, INITIAL_STATUS=1)

    # --- each level on its own ---

    def test_defaults_when_no_file_exists(self):
        result = self.show()
        self.assertOutcome(result, 0, ALL_DEFAULTS, "")
        self.assertEqual(result.files["log"], "", "--show-config runs nothing else")
        sim = self.start()
        result = self.query(sim)
        self.assertRefused(result)
        self.assertEqual([r for r in log_records(result.files["log"]) if "configuration" in r[2]], [])

    def test_commented_out_system_file_changes_nothing(self):
        sim = self.start()
        before = [self.show(), self.query(sim)]
        self.write_system(COMMENTED_OUT)
        after = [self.show(), self.query(sim)]
        self.assertOutcome(after[0], 0, ALL_DEFAULTS, "")
        for old, new in zip(before, after):
            self.assertEqual((new.returncode, new.stdout, new.stderr), (old.returncode, old.stdout, old.stderr))
        self.assertIn(("INFO", "src/cli/Host", "configuration read from " + SYSTEM_CONFIG),
                      log_records(after[1].files["log"]))

    def test_explicit_option(self):
        path = self.write(os.path.join(self.tmp, "explicit.conf"), "# mine\nIPMI_CIPHER_SUITE_ID=17\n")
        self.assertOutcome(self.show(["--config", path]), 0, shown({"IPMI_CIPHER_SUITE_ID": ("17", path, 2)}), "")
        self.assertOutcome(self.show(["--show-config", "--config=" + path]), 0,
                           shown({"IPMI_CIPHER_SUITE_ID": ("17", path, 2)}), "")
        sim = self.start()
        self.write(path, WORKAROUND)
        result = self.query(sim, ["--config", path])
        self.assertQueried(result, path)
        # The record of one explicit file is what it always was.
        self.assertEqual([r for r in log_records(result.files["log"]) if "configuration" in r[2]],
                         [("INFO", "src/cli/Host", "configuration read from " + path)])

    def test_environment_variable(self):
        path = self.write(os.path.join(self.tmp, "env.conf"), "IPMI_PRIVILEGE_LEVEL=operator\n")
        self.assertOutcome(self.show(env={"MORVEL_CONFIG": path}), 0,
                           shown({"IPMI_PRIVILEGE_LEVEL": ("operator", path, 1)}), "")
        # Empty is unset.
        self.assertOutcome(self.show(env={"MORVEL_CONFIG": ""}), 0, ALL_DEFAULTS, "")
        sim = self.start()
        self.write(path, WORKAROUND)
        self.assertQueried(self.query(sim, env={"MORVEL_CONFIG": path}), path)

    def test_xdg_user_file(self):
        xdg = os.path.join(self.tmp, "xdg")
        path = self.write(os.path.join(xdg, "morvel", "morvel.conf"), "\nSMM_PROTOCOL=ipmi\n")
        # A file in HOME/.config is not looked at while XDG_CONFIG_HOME is absolute.
        self.write(os.path.join(self.home, ".config", "morvel", "morvel.conf"), "SMM_PROTOCOL=redfish\n")
        self.assertOutcome(self.show(env={"XDG_CONFIG_HOME": xdg}), 0, shown({"SMM_PROTOCOL": ("ipmi", path, 2)}), "")
        sim = self.start()
        self.write(path, WORKAROUND)
        self.assertQueried(self.query(sim, env={"XDG_CONFIG_HOME": xdg}), path)

    def test_home_config_fallback(self):
        path = self.write(os.path.join(self.home, ".config", "morvel", "morvel.conf"), "REDFISH_TLS_VERIFY=tofu\n")
        expected = shown({"REDFISH_TLS_VERIFY": ("tofu", path, 1)})
        # XDG_CONFIG_HOME unset, empty or relative: HOME/.config.
        for env in ({"XDG_CONFIG_HOME": ""}, {"XDG_CONFIG_HOME": "relative/dir"}):
            with self.subTest(env=env):
                self.assertOutcome(self.show(env=env), 0, expected, "")
        unset = run_command(system_config_wrapper(self.system, self.scratch) + [MORVEL, "--show-config"],
                            env={"PATH": "/usr/bin:/bin", "HOME": self.home})
        self.assertOutcome(unset, 0, expected, "")
        sim = self.start()
        self.write(path, WORKAROUND)
        self.assertQueried(self.query(sim, env={"XDG_CONFIG_HOME": ""}), path)

    def test_system_file(self):
        path = self.write_system("# system\n\nREST_MAX_BODY_BYTES=1048576\nIPMI_CIPHER_SUITE_ID=17\n", 0o644)
        self.assertOutcome(self.show(), 0, shown({"REST_MAX_BODY_BYTES": ("1048576", SYSTEM_CONFIG, 3),
                                                 "IPMI_CIPHER_SUITE_ID": ("17", SYSTEM_CONFIG, 4)}), "")
        sim = self.start()
        self.write(path, WORKAROUND)
        self.assertQueried(self.query(sim), SYSTEM_CONFIG)

    # --- precedence ---

    def test_user_key_wins_over_system_key_per_key(self):
        self.write(self.user_file, "IPMI_CIPHER_SUITE_ID=17\nUSER_EXTRA=u\n")
        self.write_system("IPMI_CIPHER_SUITE_ID=3\nSMM_PROTOCOL=ipmi\nAPI_TOKEN=Tk9secret\nUSER_EXTRA=s\n")
        result = self.show()
        self.assertOutcome(result, 0, shown({"IPMI_CIPHER_SUITE_ID": ("17", self.user_file, 1),
                                             "SMM_PROTOCOL": ("ipmi", SYSTEM_CONFIG, 2)},
                                            [("API_TOKEN", "*", SYSTEM_CONFIG, 3),
                                             ("USER_EXTRA", "u", self.user_file, 2)]), "")
        self.assertNotIn("Tk9secret", result.stdout)
        # The workaround from the system file, the user's file read too: both named, the user's first.
        sim = self.start()
        self.write(self.user_file, "SMM_NETWORK_CHECK_SLEEP_TIME=1\n")
        self.write_system(WORKAROUND + "SMM_PROTOCOL=ipmi\n")
        result = self.query(sim)
        self.assertQueried(result, "%s and %s" % (self.user_file, SYSTEM_CONFIG))
        self.assertEqual(sim.redfish_requests(), [])
        # The user's empty value wins too: no workaround, the session is refused.
        self.write(self.user_file, "IPMI_WORKAROUND_FLAGS=\n")
        self.assertRefused(self.query(sim))

    def test_explicit_file_hides_user_and_system(self):
        explicit = self.write(os.path.join(self.tmp, "explicit.conf"), "SMM_PROTOCOL=auto\n")
        other = self.write(os.path.join(self.tmp, "other.conf"), "SMM_PROTOCOL=redfish\n")
        self.write(self.user_file, "IPMI_CIPHER_SUITE_ID=17\n")
        self.write_system("IPMI_PRIVILEGE_LEVEL=user\n")
        expected = shown({"SMM_PROTOCOL": ("auto", explicit, 1)})
        self.assertOutcome(self.show(["--config", explicit]), 0, expected, "")
        # --config wins over MORVEL_CONFIG.
        self.assertOutcome(self.show(["--config", explicit], env={"MORVEL_CONFIG": other}), 0, expected, "")
        self.assertOutcome(self.show(env={"MORVEL_CONFIG": other}), 0,
                           shown({"SMM_PROTOCOL": ("redfish", other, 1)}), "")
        # The workaround only in the user's and the system's files: not read beside an explicit one.
        self.write(self.user_file, WORKAROUND)
        self.write_system(WORKAROUND)
        sim = self.start()
        self.assertRefused(self.query(sim, ["--config", explicit]))
        self.assertRefused(self.query(sim, env={"MORVEL_CONFIG": explicit}))

    # --- missing and unreadable files ---

    def test_missing_files(self):
        missing = os.path.join(self.tmp, "missing.conf")
        error = "morvel: cannot read configuration file %s: No such file or directory\n" % missing
        self.assertOutcome(self.show(["--config", missing]), 5, "", error)
        self.assertOutcome(self.show(env={"MORVEL_CONFIG": missing}), 5, "", error)
        sim = self.start()
        self.assertOutcome(self.query(sim, ["--config", missing]), 5, "", error)
        self.assertOutcome(self.query(sim, env={"MORVEL_CONFIG": missing}), 5, "", error)
        self.assertEqual((sim.ipmi_requests(), sim.redfish_requests()), ([], []))
        # A missing user or system file is skipped silently, whichever the other one does.
        self.write_system(WORKAROUND)
        self.assertQueried(self.query(sim), SYSTEM_CONFIG)
        os.remove(os.path.join(self.system, os.path.basename(SYSTEM_CONFIG)))
        self.write(self.user_file, WORKAROUND)
        self.assertQueried(self.query(sim), self.user_file)
        # A user "folder" that is a file: there is no user file.
        xdg_file = self.write(os.path.join(self.tmp, "xdg-file"), "")
        self.assertOutcome(self.show(env={"XDG_CONFIG_HOME": xdg_file}), 0, ALL_DEFAULTS, "")

    def test_unreadable_file_is_an_error_at_each_level(self):
        """As root: a directory in place of the file."""
        explicit = os.path.join(self.tmp, "explicit.conf")
        os.makedirs(explicit)
        os.makedirs(self.user_file)
        os.makedirs(os.path.join(self.system, os.path.basename(SYSTEM_CONFIG)))
        sim = self.start()
        cases = [(["--config", explicit], {}, explicit), ([], {"MORVEL_CONFIG": explicit}, explicit),
                 ([], {}, self.user_file)]
        for host_args, env, path in cases:
            with self.subTest(path=path, env=env):
                error = "morvel: cannot read configuration file %s: Is a directory\n" % path
                self.assertOutcome(self.show(host_args, env=env), 5, "", error)
                self.assertOutcome(self.query(sim, host_args, env=env), 5, "", error)
        os.rmdir(self.user_file)
        error = "morvel: cannot read configuration file %s: Is a directory\n" % SYSTEM_CONFIG
        self.assertOutcome(self.show(), 5, "", error)
        self.assertOutcome(self.query(sim), 5, "", error)
        # Before any SMM is contacted.
        self.assertEqual((sim.ipmi_requests(), sim.redfish_requests()), ([], []))

    def test_unreadable_file_without_root_powers(self):
        """A mode-0000 file, read by its owner without root's power to read anything.

        Root without capabilities rather than another user: the build tree may
        sit where no other user can reach it (a clone in /root).
        """
        shared = self._new_dir("shared")
        explicit = self.write(os.path.join(shared, "explicit.conf"), "A=1\n", 0)
        xdg = os.path.join(shared, "xdg")
        powerless = ["setpriv", "--inh-caps=-all", "--bounding-set=-all", "--"]
        base = {"PATH": "/usr/bin:/bin", "HOME": shared, "XDG_CONFIG_HOME": xdg, "MORVEL_MODULE_PATH": MODULE_DIR}

        def run(args, env=None):
            environment = dict(base, **(env or {}))
            return run_command(system_config_wrapper(self.system, self.scratch) + powerless + [MORVEL] + args,
                               env=environment)

        denied = "morvel: cannot read configuration file %s: Permission denied\n"
        self.assertOutcome(run(["--show-config"]), 0, ALL_DEFAULTS, "")
        log = ["--log-file", os.path.join(shared, "morvel.log")]
        query = ["smmlan", "query", "--bmc", "admin:%s@127.0.0.1" % PASSWORD]
        for args, env in ((["--config", explicit], {}), ([], {"MORVEL_CONFIG": explicit})):
            with self.subTest(env=env):
                self.assertOutcome(run(args + ["--show-config"], env), 5, "", denied % explicit)
                self.assertOutcome(run(log + args + query, env), 5, "", denied % explicit)
        user = self.write(os.path.join(xdg, "morvel", "morvel.conf"), "A=1\n", 0)
        self.assertOutcome(run(["--show-config"]), 5, "", denied % user)
        self.assertOutcome(run(log + query), 5, "", denied % user)
        os.remove(user)
        self.write_system("A=1\n", 0)
        self.assertOutcome(run(["--show-config"]), 5, "", denied % SYSTEM_CONFIG)
        self.assertOutcome(run(log + query), 5, "", denied % SYSTEM_CONFIG)
        # Readable again: read.
        os.chmod(os.path.join(self.system, os.path.basename(SYSTEM_CONFIG)), 0o644)
        self.assertOutcome(run(["--show-config"]), 0, shown({}, [("A", "1", SYSTEM_CONFIG, 1)]), "")

    def test_without_home_every_file_is_under_the_password_databases_home(self):
        """HOME and the XDG variables unset: the configuration, the log and a tofu pin all use the home of the
        user's entry in the password database (this machine's own, so an overlay takes every write)."""
        home = pwd.getpwuid(os.getuid()).pw_dir
        upper, work = self._new_dir("home-upper"), self._new_dir("home-work")
        for folder in (".config/morvel", ".local/state/morvel"):
            os.makedirs(os.path.join(upper, folder))
            os.setxattr(os.path.join(upper, folder), "trusted.overlay.opaque", b"y")
        config = self.write(os.path.join(upper, ".config", "morvel", "morvel.conf"), "REDFISH_TLS_VERIFY=tofu\n")
        sim = self.start_sim(PASSWORD=PASSWORD)
        overlay = ["/bin/sh", "-c", _OVERLAY_SCRIPT, "morvel-home", home, upper, work]
        env = {"PATH": "/usr/bin:/bin", "MORVEL_MODULE_PATH": MODULE_DIR, "MORVEL_BMC_PASSWORD": PASSWORD}
        argv = (system_config_wrapper(self.system, self.scratch) + overlay + MORVEL_WRAPPER +
                [MORVEL, "--log-level", "4", "smmlan", "query", "--bmc", "admin@" + sim.address])
        result = run_command(argv, env=env)
        self.assertOutcome(result, 0, REDFISH_QUERY, "")
        state = os.path.join(upper, ".local", "state", "morvel")
        self.assertEqual(sorted(os.listdir(state)), ["known_smms", "known_smms.lock", "morvel.log"])
        with open(os.path.join(state, "known_smms"), encoding="ascii") as f:
            lines = f.readlines()
        self.assertEqual([KNOWN_LINE.match(line).group(1) for line in lines], [sim.address], lines)
        with open(os.path.join(state, "morvel.log"), encoding="utf-8") as f:
            records = log_records(f.read())
        self.assertIn(("INFO", "src/cli/Host", "configuration read from %s/.config/morvel/morvel.conf" % home), records)
        # The configuration was read where the run saw it: the file kept in the upper layer.
        self.assertEqual(os.listdir(os.path.dirname(config)), ["morvel.conf"])
        self.assertEqual([r[:2] for r in sim.redfish_requests()], [("GET", "/redfish/v1/Chassis/2")])

    def test_harness_hides_a_system_file(self):
        """The other suites' runs (run_morvel without a config) never see a system file."""
        self.write_system(WORKAROUND + "SMM_PROTOCOL=ipmi\n")
        sim = self.start()
        # Inside a namespace that has the system file, the harness's own wrapper hides it again.
        inner = system_config_wrapper(None, None)
        result = self.run_morvel(["--show-config"], wrapper=system_config_wrapper(self.system, self.scratch) + inner)
        self.assertOutcome(result, 0, ALL_DEFAULTS, "")
        result = self.run_morvel(["smmlan", "query", "--bmc", sim.bmc()],
                                 wrapper=system_config_wrapper(self.system, self.scratch) + inner)
        self.assertRefused(result)


class HostErrors(E2ETestCase):
    def test_smmlan_without_bmc(self):
        sim = self.start_sim(REDFISH="off", PASSWORD=PASSWORD)
        for args in (["smmlan", "query"], ["smmlan", "enable", "--method", "dhcp"], ["smmlan", "bogus"]):
            with self.subTest(args=args):
                result = self.run_morvel(args, config={})
                self.assertEqual((result.returncode, result.stdout, result.stderr),
                                 (5, "", "morvel: --bmc USER[:PASSWORD]@HOST[:PORT] is required\n"
                                         "5 Invalid parameter.\n"), result.describe())
        # An option smmlan does not declare is refused before the module runs; the password is not shown.
        result = self.run_morvel(["smmlan", "disable", "--BMC", sim.bmc()], config={})
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (5, "", "morvel: unknown option '--BMC' for smmlan; did you mean '--bmc'?\n"), result.describe())
        self.assertEqual((sim.ipmi_requests(), sim.redfish_requests()), ([], []))
        # trust names its SMM otherwise.
        result = self.run_morvel(["trust", "show"], config={})
        self.assertNotIn("--bmc", result.stderr)

    def test_unknown_command(self):
        installed = "installed commands: smmlan, trust\n"
        for args, word in ((["bogus"], "bogus"), (["bogus", "query", "--bmc", "a:b@h"], "bogus"),
                           (["bogus", "--bmc", "a:b@h"], "bogus"), (["Smmlan", "query"], "Smmlan"),
                           (["admin:Xq7pass@10.0.0.1", "query"], "admin:*@10.0.0.1"),
                           (["admin:Xq7pass@10.0.0.1"], "admin:*@10.0.0.1")):
            with self.subTest(args=args):
                result = self.run_morvel(args)
                self.assertEqual((result.returncode, result.stdout, result.stderr),
                                 (4, "", "morvel: unknown command '%s'; %s" % (word, installed)), result.describe())
                self.assertNotIn("Xq7pass", result.stderr + result.files["log"])
        empty = self._new_dir("modules")
        result = self.run_morvel(["bogus", "query"], env={"MORVEL_MODULE_PATH": empty})
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (4, "", "morvel: unknown command 'bogus'; no commands are installed in %s\n" % empty))
        result = self.run_morvel(["smmlan"], env={"MORVEL_MODULE_PATH": empty})
        self.assertEqual(result.stderr, "morvel: unknown command 'smmlan'; no commands are installed in %s\n" % empty)
        # A command that is there still wants its subcommand.
        result = self.run_morvel(["smmlan"])
        self.assertEqual((result.returncode, result.stderr),
                         (4, "morvel: missing subcommand after 'smmlan'; run 'morvel smmlan --help' for usage\n"))


if __name__ == "__main__":
    unittest.main()
