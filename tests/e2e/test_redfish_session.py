# SPDX-License-Identifier: GPL-3.0-or-later
"""--redfish-auth session end to end, against simulated SMMs whose Redfish service refuses Basic.

Every subcommand over a session (the requests in their order, their headers
exact: a login, the chassis read, the change where there is one, the logout
last), fifty runs in a row on a service that allows four sessions, twenty SMMs
stopped by SIGTERM while their changes are held, refused logins, services
without sessions and a logout that fails. The simulators' records count the
sessions left open: none, whatever the path.
"""

import json
import os
import signal
import subprocess
import time
import unittest

import jsonschema

import test_morvel_redfish as redfish
from smmsim import MODULE_DIR, MORVEL, MORVEL_WRAPPER, SOURCE_DIR, E2ETestCase, scaled

PASSWORD = "S3ss:io@n-pw"
CONFIG = {"IPMI_WORKAROUND_FLAGS": "opensesspriv", "SMM_NETWORK_CHECK_SLEEP_TIME": "1",
          "REDFISH_STARTUP_WAIT_TIME": "0"}
SESSIONS = "/redfish/v1/SessionService/Sessions"
CHASSIS = "/redfish/v1/Chassis/2"
LOGIN_BODY = '{"UserName":"admin","Password":"*"}'
# A service that refuses Basic and allows four sessions.
SESSION_ONLY = {"REDFISH_BASIC": "off", "SESSION_LIMIT": 4, "PASSWORD": PASSWORD}
SCHEMA_PATH = os.path.join(SOURCE_DIR, "doc", "smmlan-records.schema.json")
with open(SCHEMA_PATH, encoding="utf-8") as schema_file:
    VALIDATOR = jsonschema.Draft202012Validator(json.load(schema_file))
AUTH = "Authentication failed. For instance, user name or password error."


def json_records(stdout):
    """The target records and the summary of a --output json run, each checked against the schema."""
    rows = [json.loads(line) for line in stdout.splitlines()]
    for row in rows:
        VALIDATOR.validate(row)
    return rows[:-1], rows[-1]["summary"]


class SessionCase(E2ETestCase):
    def smmlan(self, sim, subcommand, *extra, config=None, bmc=None):
        return self.run_morvel(["smmlan", subcommand, "--bmc", bmc or sim.bmc(), "--redfish-auth", "session"]
                               + list(extra), config=dict(CONFIG, **(config or {})), log_level=4, timeout=120)

    def assertRun(self, result, returncode, stdout, stderr=""):
        self.assertEqual((result.returncode, result.stdout, result.stderr), (returncode, stdout, stderr),
                         result.describe())

    def assertSessionExchange(self, sim, change=None):
        """POST of the login, GET, the PATCH `change` (a body) when given, DELETE last; headers exact."""
        expected = [("POST", SESSIONS, LOGIN_BODY), ("GET", CHASSIS, "")]
        if change is not None:
            expected.append(("PATCH", CHASSIS, change))
        expected.append(("DELETE", SESSIONS + "/1", ""))
        self.assertEqual(sim.redfish_requests(), expected)
        common = {"Accept": "*/*", "Content-Type": "application/json", "Host": sim.address, "If-None-Match": "0",
                  "User-Agent": "KVRA_MORVEL"}
        bodies = [LOGIN_BODY.replace("*", PASSWORD)] + [body for _, _, body in expected[1:]]
        for row, body in zip(sim.records("redfish"), bodies):
            with self.subTest(method=row["method"]):
                headers = dict(common, **({"Content-Length": str(len(body.encode()))} if body else {}))
                self.assertEqual(row["headers"], headers)
                # Never Basic: the login has no credentials header, the rest the session's token.
                self.assertEqual(row["auth"], "missing")
                self.assertEqual(row.get("token"), None if row["method"] == "POST" else "1")
        self.assertEqual([r["status"] for r in sim.records("redfish")],
                         [201, 200] + ([200] if change is not None else []) + [204])
        self.assertEqual(sim.session_events(), [("created", "1", 1), ("deleted", "1", 0)])

    def assertNoSecret(self, sim, result):
        with open(os.path.join(sim.dir, "record.jsonl"), encoding="utf-8") as f:
            record = f.read()
        for text in (result.stdout, result.stderr, result.files["log"], record):
            self.assertNotIn(PASSWORD, text)
            self.assertNotIn("S3ss", text)


class Subcommands(SessionCase):
    def test_query(self):
        sim = self.start_sim(**SESSION_ONLY)
        result = self.smmlan(sim, "query")
        self.assertRun(result, 0, redfish.redfish_query_block(redfish.LAN_ONLY, "192.0.2.100") + "0 Succeed.\n")
        self.assertSessionExchange(sim)
        self.assertEqual(sim.ipmi_requests(), [])
        # The trace of the login shows the password as '*'.
        url = "https://%s:443" % sim.address
        self.assertIn(("TRACE", "src/common/rest/RedfishSession", redfish.ANY_LINE,
                       "Redfish POST action on URL: %s%s body: %s" % (url, SESSIONS, LOGIN_BODY)),
                      [(lv, src, redfish.ANY_LINE, text) for lv, src, _, text in redfish.log_records(result.files["log"])])
        self.assertIn("Redfish session closed: %s%s/1\n" % (url, SESSIONS), result.files["log"])
        self.assertNoSecret(sim, result)

    def test_enable(self):
        sim = self.start_sim(INITIAL_STATUS=2, **SESSION_ONLY)
        result = self.smmlan(sim, "enable")
        self.assertRun(result, 0, redfish.enable_block("LAN", "succeeded") + "0 Succeed.\n")
        self.assertSessionExchange(sim, redfish.ENABLE_BODY)
        self.assertEqual(sim.state()["STATUS"], 1)
        self.assertNoSecret(sim, result)

    def test_disable(self):
        sim = self.start_sim(INITIAL_STATUS=1, **SESSION_ONLY)
        result = self.smmlan(sim, "disable")
        self.assertRun(result, 0, redfish.enable_block("LAN", "succeeded") + "0 Succeed.\n")
        self.assertSessionExchange(sim, redfish.DISABLE_BODY)
        self.assertEqual(sim.state()["STATUS"], 2)

    def test_enableipmi(self):
        sim = self.start_sim(INITIAL_STATUS=1, **SESSION_ONLY)
        result = self.smmlan(sim, "enableipmi")
        self.assertRun(result, 0, redfish.enable_block("IPMI", "succeeded") + "0 Succeed.\n")
        self.assertSessionExchange(sim, redfish.ENABLE_IPMI_BODY)
        self.assertEqual(sim.state()["STATUS"], 4)

    def test_enableipmi_refused_while_the_network_is_off_still_logs_out(self):
        sim = self.start_sim(INITIAL_STATUS=2, **SESSION_ONLY)
        result = self.smmlan(sim, "enableipmi")
        self.assertRun(result, 1,
                       "Enable SMM IPMI failed.\n"
                       "    Error msg: the SMM LAN is disable, can not enable ipmi via SMM LAN \n\n",
                       "1 Generic Failure.\n")
        self.assertSessionExchange(sim)

    def test_a_refused_change_still_logs_out(self):
        sim = self.start_sim(INITIAL_STATUS=2, PATCH_STATUS=400, **SESSION_ONLY)
        result = self.smmlan(sim, "enable")
        self.assertRun(result, 17, redfish.enable_block("LAN", "failed.", ""), "17 Internal error.\n")
        self.assertEqual([r[0] for r in sim.redfish_requests()], ["POST", "GET", "PATCH", "DELETE"])
        self.assertEqual(sim.sessions_open(), 0)

    def test_the_configuration_key_chooses_it_and_basic_stays_the_default(self):
        sim = self.start_sim(INITIAL_STATUS=1, PASSWORD=PASSWORD)
        result = self.run_morvel(["smmlan", "query", "--bmc", sim.bmc()], config=dict(CONFIG, REDFISH_AUTH="session"))
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertEqual([r[0] for r in sim.redfish_requests()], ["POST", "GET", "DELETE"])
        # The option wins over the key; without either, Basic and one GET, as always.
        result = self.run_morvel(["smmlan", "query", "--bmc", sim.bmc(), "--redfish-auth", "basic"],
                                 config=dict(CONFIG, REDFISH_AUTH="session"))
        self.assertEqual(result.returncode, 0, result.describe())
        result = self.run_morvel(["smmlan", "query", "--bmc", sim.bmc()], config=CONFIG)
        self.assertEqual(result.returncode, 0, result.describe())
        rows = sim.records("redfish")[3:]
        self.assertEqual([(r["method"], r["auth"], r.get("token")) for r in rows], [("GET", "ok", None)] * 2)
        result = self.run_morvel(["smmlan", "query", "--bmc", sim.bmc()], config=dict(CONFIG, REDFISH_AUTH="token"))
        self.assertRun(result, 5, "", "morvel: configuration key REDFISH_AUTH must be basic or session\n")
        self.assertEqual(len(sim.records("redfish")), 5)


class NoLeak(SessionCase):
    def test_fifty_runs_in_a_row_on_a_service_of_four_sessions(self):
        sim = self.start_sim(**SESSION_ONLY)
        for run in range(50):
            result = self.smmlan(sim, "query")
            self.assertEqual((run, result.returncode, result.stderr), (run, 0, ""), result.describe())
        events = sim.session_events()
        self.assertEqual(len(events), 100)
        self.assertEqual(events[-2:], [("created", "50", 1), ("deleted", "50", 0)])
        self.assertEqual({open_after for _, _, open_after in events}, {0, 1})
        self.assertEqual(sim.sessions_open(), 0)


class Interrupted(SessionCase):
    def test_sigterm_while_patches_are_held_leaves_no_session_open(self):
        release = os.path.join(self.tmp, "release")
        # Ten hold their PATCH until the test lets it go; ten answer it 503, so their run waits to ask again.
        held = self.start_sims([dict(SESSION_ONLY, INITIAL_STATUS=2, PATCH_HOLD=release)] * 10)
        waiting = self.start_sims([dict(SESSION_ONLY, INITIAL_STATUS=2, PATCH_STATUS=503)] * 10)
        sims = held + waiting
        config = self.write_config(dict(CONFIG, REDFISH_STARTUP_WAIT_TIME="100000"))
        argv = MORVEL_WRAPPER + [MORVEL, "--log-file", os.path.join(self.tmp, "log"), "--log-level", "4",
                                 "--config", config, "smmlan", "enable", "--redfish-auth", "session", "--output",
                                 "json", "--fanout", "20", "--bmc", "admin@" + ",".join(s.address for s in sims)]
        process = subprocess.Popen(argv, env=self.env({"MORVEL_MODULE_PATH": MODULE_DIR,
                                                       "MORVEL_BMC_PASSWORD": PASSWORD}),
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            # A PATCH is held: the run is in the middle of its changes.
            deadline = time.monotonic() + scaled(120)
            while not any(s.holds() for s in held):
                self.assertLess(time.monotonic(), deadline, "no PATCH was held")
                self.assertIsNone(process.poll())
                time.sleep(0.02)
            process.send_signal(signal.SIGTERM)
        finally:
            for sim in held:
                sim.release_patches()
        stdout, stderr = process.communicate(timeout=scaled(120))
        self.assertEqual((process.returncode, stderr), (143, b""), stdout)
        rows, summary = json_records(stdout.decode())
        by_target = {row["target"]: row for row in rows}
        started = [s for s in sims if s.address in by_target]
        self.assertTrue(any(s.holds() for s in held))
        for sim in sims:
            with self.subTest(sim=sim.address):
                # Whatever the path, every session opened was deleted.
                self.assertEqual(sim.sessions_open(), 0)
                if sim not in started:
                    self.assertIn(sim.address, summary["not_started"])
                    self.assertEqual(sim.redfish_requests(), [])
                    continue
                row = by_target[sim.address]
                methods = [r[0] for r in sim.redfish_requests()]
                self.assertEqual(row["session_logout"], {"ok": True, "error": None})
                if sim in held:
                    self.assertEqual((row["code"], row["interrupted"], methods), (0, False, ["POST", "GET", "PATCH",
                                                                                          "DELETE"]))
                else:
                    self.assertEqual((row["code"], row["interrupted"], row["change_sent"]), (None, True, True))
                    self.assertEqual((methods[:3], methods[-1]), (["POST", "GET", "PATCH"], "DELETE"))
                    self.assertEqual(set(methods[2:-1]), {"PATCH"})
                self.assertEqual(sim.session_events(), [("created", "1", 1), ("deleted", "1", 0)])
        self.assertNotIn(PASSWORD.encode(), stdout)

    def enable_in_background(self, sim, config, log):
        """`enable` of one SMM under a session, started and left running: the process."""
        argv = MORVEL_WRAPPER + [MORVEL, "--log-file", log, "--config", self.write_config(config), "smmlan", "enable",
                                 "--redfish-auth", "session", "--bmc", "admin@" + sim.address]
        return subprocess.Popen(argv, env=self.env({"MORVEL_MODULE_PATH": MODULE_DIR, "MORVEL_BMC_PASSWORD": PASSWORD}),
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def test_one_smm_stopped_by_a_signal_logs_out_and_ends_by_it(self):
        # The PATCH is answered 503 and the run waits to ask again: the signal ends that wait, the session is
        # deleted, and the process ends by the signal as it always did.
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=number):
                sim = self.start_sims([dict(SESSION_ONLY, INITIAL_STATUS=2, PATCH_STATUS=503)])[0]
                log = os.path.join(self.tmp, "log-%d" % number)
                process = self.enable_in_background(sim, dict(CONFIG, REDFISH_STARTUP_WAIT_TIME="100000"), log)
                self.wait_for(lambda: ("PATCH", CHASSIS, redfish.ENABLE_BODY) in sim.redfish_requests()
                              or process.poll() is not None, "the PATCH")
                process.send_signal(number)
                stdout, stderr = process.communicate(timeout=scaled(120))
                self.assertEqual((process.returncode, stdout, stderr), (-number, b"", b""))
                self.assertEqual(sim.redfish_requests(), [("POST", SESSIONS, LOGIN_BODY), ("GET", CHASSIS, ""),
                                                          ("PATCH", CHASSIS, redfish.ENABLE_BODY),
                                                          ("DELETE", SESSIONS + "/1", "")])
                self.assertEqual(sim.session_events(), [("created", "1", 1), ("deleted", "1", 0)])
                with open(log, encoding="utf-8") as f:
                    self.assertIn("interrupted after a change was sent", f.read())

    def test_a_second_sigint_ends_one_smm_at_once(self):
        # The PATCH is held, so the first SIGINT can only wait for it; the second ends the process there.
        release = os.path.join(self.tmp, "release")
        sim = self.start_sims([dict(SESSION_ONLY, INITIAL_STATUS=2, PATCH_HOLD=release)])[0]
        self.addCleanup(sim.release_patches)
        log = os.path.join(self.tmp, "log")
        process = self.enable_in_background(sim, CONFIG, log)
        self.wait_for(lambda: sim.holds() or process.poll() is not None, "the held PATCH")
        process.send_signal(signal.SIGINT)

        def heard():
            with open(log, encoding="utf-8") as f:
                return "signal 2: the run ends at its next wait" in f.read()
        self.wait_for(lambda: heard() or process.poll() is not None, "the first SIGINT in the log")
        self.assertIsNone(process.poll())
        process.send_signal(signal.SIGINT)
        stdout, stderr = process.communicate(timeout=scaled(120))
        self.assertEqual((process.returncode, stdout, stderr), (-signal.SIGINT, b"", b""))
        self.assertEqual(sim.session_events(), [("created", "1", 1)])


class Refusals(SessionCase):
    def test_a_refused_login_goes_on_over_ipmi_under_auto(self):
        sim = self.start_sim(SESSION_SERVICE="refuse", **SESSION_ONLY)
        result = self.smmlan(sim, "query")
        self.assertRun(result, 0, redfish.ipmi_query_block("Enabled", "192.0.2.100") + "0 Succeed.\n")
        self.assertEqual(sim.redfish_requests(), [("POST", SESSIONS, LOGIN_BODY)])
        self.assertEqual([r["status"] for r in sim.records("redfish")], [403])
        self.assertEqual(sim.ipmi_requests(), [("f1", "00"), redfish.C4_REQUEST])
        self.assertEqual(sim.session_events(), [])
        self.assertNoSecret(sim, result)

    def test_a_wrong_password_is_refused_as_basic_would_be(self):
        sim = self.start_sim(**SESSION_ONLY)
        result = self.smmlan(sim, "query", bmc="admin:wrong-pw@" + sim.address)
        self.assertRun(result, 255, "************Query Result************\n\nQuery SMM network status failed.\n"
                       "    Error msg: " + AUTH + "\n\n************Query Result************\n", "2054 " + AUTH + "\n")
        self.assertEqual([(r["method"], r["status"]) for r in sim.records("redfish")], [("POST", 401)])

    def test_under_protocol_redfish_the_message_says_why(self):
        only = "Redfish only (protocol redfish): the SMM's Redfish service "
        cases = [
            ({"SESSION_SERVICE": "refuse"}, None, 255,
             "2054 " + only + "refused the session login for the user or password (HTTP 403).\n", [403]),
            ({}, "admin:wrong-pw@", 255,
             "2054 " + only + "refused the session login for the user or password (HTTP 401).\n", [401]),
            ({"SESSION_SERVICE": "absent"}, None, 1,
             "1 " + only + "offers no session login (HTTP 404); --redfish-auth basic needs none.\n", [404]),
            ({"SESSION_SERVICE": "nopost"}, None, 1,
             "1 " + only + "offers no session login (HTTP 405); --redfish-auth basic needs none.\n", [405]),
            ({"SESSION_SERVICE": "notoken"}, None, 1,
             "1 " + only + "answered the session login without a session token (HTTP 201); "
                           "--redfish-auth basic needs none.\n", [201]),
        ]
        for knobs, bmc, status, stderr, statuses in cases:
            with self.subTest(knobs=knobs, bmc=bmc):
                sim = self.start_sim(**dict(SESSION_ONLY, **knobs))
                result = self.smmlan(sim, "query", "--protocol", "redfish",
                                     bmc=(bmc + sim.address) if bmc else None)
                self.assertRun(result, status, "", stderr)
                self.assertEqual([r["status"] for r in sim.records("redfish")], statuses)
                self.assertEqual(sim.ipmi_requests(), [])
                self.assertNoSecret(sim, result)

    def test_a_service_without_sessions_goes_on_over_ipmi_under_auto(self):
        for service in ("absent", "nopost", "notoken"):
            with self.subTest(service=service):
                sim = self.start_sim(SESSION_SERVICE=service, INITIAL_STATUS=2, **SESSION_ONLY)
                result = self.smmlan(sim, "query")
                self.assertRun(result, 0, redfish.ipmi_query_block("Disabled") + "0 Succeed.\n")
                self.assertEqual([r[0] for r in sim.redfish_requests()], ["POST"])
                self.assertEqual(sim.ipmi_requests(), [("f1", "00")])

    def test_a_logout_that_fails_is_a_warning_and_in_the_record(self):
        sim = self.start_sim(SESSION_DELETE_STATUS=500, **SESSION_ONLY)
        expected = redfish.redfish_query_block(redfish.LAN_ONLY, "192.0.2.100") + "0 Succeed.\n"
        result = self.smmlan(sim, "query")
        self.assertRun(result, 0, expected)
        error = "DELETE https://%s:443%s/1 answered HTTP 500" % (sim.address, SESSIONS)
        self.assertIn(" WARN src/common/rest/RedfishSession:", result.files["log"])
        self.assertIn("Redfish session logout failed: %s\n" % error, result.files["log"])
        result = self.smmlan(sim, "query", "--output", "json")
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.describe())
        rows, summary = json_records(result.stdout)
        self.assertEqual([(r["code"], r["ok"], r["session_logout"]) for r in rows],
                         [(0, True, {"ok": False, "error": error.replace("/1 ", "/2 ")})])
        self.assertEqual(summary["succeeded"], 1)
        self.assertEqual(sim.sessions_open(), 2)

    def test_no_pin_no_login(self):
        sim = self.start_sim(**SESSION_ONLY)
        known = os.path.join(self.tmp, "known_smms")
        result = self.smmlan(sim, "query", "--tls-verify", "pin", "--known-smms", known)
        self.assertEqual(result.returncode, 70, result.describe())
        self.assertEqual((sim.records("redfish"), sim.ipmi_requests()), ([], []))


if __name__ == "__main__":
    unittest.main()
