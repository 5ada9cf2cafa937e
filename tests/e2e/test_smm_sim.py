# SPDX-License-Identifier: GPL-3.0-or-later
"""The simulated SMM itself: one state behind both faces, persistence, knobs, record."""

import json
import os
import socket
import threading
import unittest

from smmsim import SMM_SIM, E2ETestCase, Sim, UdpBlackhole, https_request, run_command

WORKAROUND = {"IPMI_WORKAROUND_FLAGS": "opensesspriv"}
ENABLE_BODY = '{"Oem": {"Qarvon": { " LANEnabled" : true}}}'
DISABLE_BODY = '{"Oem": {"Qarvon": { " LANEnabled" : false}}}'
ENABLE_IPMI_BODY = '{"Oem": {"Qarvon": { " IPMIEnabled" : true}}}'


class SharedState(E2ETestCase):
    def read_status(self, sim):
        _, rows = self.run_probe(sim.address, 623, ["open", "send", "3a", "f1", "00", "close"], config=WORKAROUND)
        self.assertEqual((rows[0]["rc"], rows[1]["cc"]), (0, "00"))
        return rows[1]["data"]

    def vendor(self, sim):
        status, _, body = sim.chassis()
        self.assertEqual(status, 200)
        return json.loads(body)["Oem"]["Qarvon"]

    def test_patch_bodies_of_the_client_drive_the_ipmi_status_and_back(self):
        sim = self.start_sim(INITIAL_STATUS=2, SMM_IP="192.0.2.7")
        self.assertEqual(self.vendor(sim), {"LANEnabled": False, "IPMIEnabled": False, "IPv4": "192.0.2.7"})
        status, _, body = sim.chassis("PATCH", ENABLE_BODY, headers={"Content-Type": "application/json"})
        self.assertEqual(status, 200)
        self.assertEqual(json.loads(body)["Oem"]["Qarvon"]["LANEnabled"], True)
        self.assertEqual(self.read_status(sim), "01")
        self.assertEqual(sim.chassis("PATCH", ENABLE_IPMI_BODY)[0], 200)
        self.assertEqual(self.read_status(sim), "04")
        self.assertEqual(self.vendor(sim), {"LANEnabled": True, "IPMIEnabled": True, "IPv4": "192.0.2.7"})
        self.assertEqual(sim.chassis("PATCH", DISABLE_BODY)[0], 200)
        self.assertEqual(self.read_status(sim), "02")
        # IPMI over LAN cannot come on while the network is off.
        self.assertEqual(sim.chassis("PATCH", ENABLE_IPMI_BODY)[0], 400)
        _, rows = self.run_probe(sim.address, 623, ["open", "send", "3a", "f1", "01"], config=WORKAROUND)
        self.assertEqual(rows[1]["cc"], "00")
        self.assertEqual(self.vendor(sim)["LANEnabled"], True)
        patches = [r["body"] for r in sim.records("redfish") if r["method"] == "PATCH"]
        self.assertEqual(patches, [ENABLE_BODY, ENABLE_IPMI_BODY, DISABLE_BODY, ENABLE_IPMI_BODY])

    def test_status_delay_counts_reads_of_both_faces(self):
        sim = self.start_sim(INITIAL_STATUS=2, STATUS_DELAY_READS=2)
        _, rows = self.run_probe(sim.address, 623, ["open", "send", "3a", "f1", "01", "send", "3a", "f1", "00"],
                                 config=WORKAROUND)
        self.assertEqual(rows[2]["data"], "02")
        self.assertEqual(self.vendor(sim)["LANEnabled"], False)
        self.assertEqual(self.read_status(sim), "01")
        self.assertEqual(sim.state(), {"STATUS": 1, "READS_LEFT": 0, "METHOD": 0})

    def test_state_survives_a_kill_and_a_restart(self):
        sim = self.start_sim(INITIAL_STATUS=1, REDFISH="off")
        _, rows = self.run_probe(sim.address, 623, ["open", "send", "3a", "f1", "04", "send", "3a", "f3", "04"],
                                 config=WORKAROUND)
        self.assertEqual([r["cc"] for r in rows[1:]], ["00", "00"])
        first_pid = sim.pid
        sim.kill()
        self.assertFalse(sim.running())
        sim.restart()
        self.assertNotEqual(sim.pid, first_pid)
        self.assertEqual(self.read_status(sim), "04")
        self.assertEqual(sim.state()["METHOD"], 4)
        starts = [r for r in sim.records() if r.get("event") == "start"]
        self.assertEqual([r["pid"] for r in starts], [first_pid, sim.pid])
        seqs = [r["seq"] for r in sim.records()]
        self.assertEqual(seqs, list(range(1, len(seqs) + 1)))


class RedfishFace(E2ETestCase):
    def test_503_for_the_first_requests_then_basic_auth(self):
        sim = self.start_sim(REDFISH_503=2, PASSWORD="pa55:word")
        self.assertEqual([sim.chassis()[0] for _ in range(2)], [503, 503])
        status, headers, _ = sim.chassis(password="wrong")
        self.assertEqual(status, 401)
        self.assertIn("Basic", headers["WWW-Authenticate"])
        self.assertEqual(sim.chassis(user="")[0], 401)
        self.assertEqual(sim.chassis()[0], 200)
        rows = sim.records("redfish")
        self.assertEqual([(r["status"], r["auth"], r["user"]) for r in rows],
                         [(503, "ok", "admin"), (503, "ok", "admin"), (401, "bad", "admin"), (401, "bad", ""),
                          (200, "ok", "admin")])
        with open(os.path.join(sim.dir, "record.jsonl"), encoding="utf-8") as f:
            self.assertNotIn("pa55:word", f.read())
        self.assertTrue(all("Authorization" not in r["headers"] for r in rows))

    def test_vendor_object_variants(self):
        cases = [
            ({"REDFISH_VENDOR": "absent"}, lambda doc: self.assertNotIn("Oem", doc)),
            ({"REDFISH_VENDOR": "malformed"}, lambda doc: self.assertIsInstance(doc["Oem"]["Qarvon"], list)),
            ({"REDFISH_LAN_AS_STRING": "on"}, lambda doc: self.assertEqual(doc["Oem"]["Qarvon"]["LANEnabled"], "true")),
            ({"REDFISH_IPV4_KIND": "absent"}, lambda doc: self.assertNotIn("IPv4", doc["Oem"]["Qarvon"])),
            ({"REDFISH_IPV4_KIND": "number", "SMM_IP": "10.0.0.1"},
             lambda doc: self.assertEqual(doc["Oem"]["Qarvon"]["IPv4"], 167772161)),
            ({"REDFISH_IPV4": ""}, lambda doc: self.assertEqual(doc["Oem"]["Qarvon"]["IPv4"], "")),
        ]
        for knobs, check in cases:
            sim = self.start_sim(**knobs)
            status, _, body = sim.chassis()
            self.assertEqual(status, 200, knobs)
            check(json.loads(body))
        sim = self.start_sim(REDFISH_BODY="nonjson")
        status, headers, body = sim.chassis()
        self.assertEqual((status, headers["Content-Type"]), (200, "text/html"))
        self.assertRaises(ValueError, json.loads, body)
        sim = self.start_sim(REDFISH_GET_BODY='{"Oem": 1}')
        self.assertEqual(sim.chassis()[2], '{"Oem": 1}')

    def test_patch_answer_knobs(self):
        sim = self.start_sim(INITIAL_STATUS=2, PATCH_STATUS=400, PATCH_BODY='{"error": "refused"}')
        self.assertEqual(sim.chassis("PATCH", ENABLE_BODY)[::2], (400, '{"error": "refused"}'))
        self.assertEqual(sim.state()["STATUS"], 2)
        sim = self.start_sim(INITIAL_STATUS=2, PATCH_STATUS=204)
        self.assertEqual(sim.chassis("PATCH", ENABLE_BODY)[::2], (204, ""))
        self.assertEqual(sim.state()["STATUS"], 1)
        self.assertEqual(sim.chassis("PATCH", "not json")[0], 400)
        self.assertEqual(sim.chassis("PATCH", '{"Oem": {"Qarvon": {"LANEnabled": "true"}}}')[0], 400)

    def test_ipv6_listener_and_unknown_paths(self):
        port = self.lease_port("::1")
        sim = self.start_sim(REDFISH_IPV6="on", REDFISH_PORT=port)
        self.assertEqual(sim.chassis(host="::1")[0], 200)
        self.assertEqual(sim.chassis(host=sim.address)[0], 200)
        self.assertEqual(sim.chassis("POST", "{}")[0], 405)
        self.assertEqual(sim.records("redfish")[0]["local_addr"], "::1")
        self.assertEqual([r["status"] for r in sim.records("redfish")], [200, 200, 405])

    def test_redfish_off_leaves_the_port_closed(self):
        sim = self.start_sim(REDFISH="off")
        with socket.socket() as s:
            self.assertNotEqual(s.connect_ex((sim.address, 443)), 0)


SESSIONS = "/redfish/v1/SessionService/Sessions"


class SessionService(E2ETestCase):
    def login(self, sim, user="admin", password="secret"):
        """POST of the credentials: (status, token or None, Location or None, body)."""
        body = json.dumps({"UserName": user, "Password": password})
        status, headers, text = https_request(sim.address, sim.redfish_port, "POST", SESSIONS, body,
                                              headers={"Content-Type": "application/json"})
        return status, headers.get("X-Auth-Token"), headers.get("Location"), text

    def with_token(self, sim, method, path, token, body=None):
        return https_request(sim.address, sim.redfish_port, method, path, body, headers={"X-Auth-Token": token})[0]

    def test_a_session_from_login_to_logout_with_basic_off(self):
        sim = self.start_sim(REDFISH_BASIC="off", PASSWORD="s3ss:pw")
        self.assertEqual(sim.chassis()[0], 401)
        status, token, location, body = self.login(sim, password="s3ss:pw")
        self.assertEqual((status, location), (201, SESSIONS + "/1"))
        self.assertRegex(token, r"^[0-9a-f]{32}$")
        self.assertEqual(json.loads(body), {"@odata.id": SESSIONS + "/1", "Id": "1", "Name": "User Session",
                                            "UserName": "admin"})
        self.assertEqual(self.with_token(sim, "GET", "/redfish/v1/Chassis/2", token), 200)
        self.assertEqual(self.with_token(sim, "PATCH", "/redfish/v1/Chassis/2", token, ENABLE_BODY), 200)
        self.assertEqual(self.with_token(sim, "DELETE", location, "not-a-token"), 401)
        self.assertEqual(self.with_token(sim, "DELETE", location, token), 204)
        # Deleted: the token is dead, and the session gone.
        self.assertEqual(self.with_token(sim, "GET", "/redfish/v1/Chassis/2", token), 401)
        self.assertEqual(sim.chassis("DELETE", None)[0], 405)
        self.assertEqual(sim.session_events(), [("created", "1", 1), ("deleted", "1", 0)])
        self.assertEqual(sim.sessions_open(), 0)
        rows = sim.records("redfish")
        self.assertEqual([(r["method"], r["status"], r.get("token")) for r in rows],
                         [("GET", 401, None), ("POST", 201, None), ("GET", 200, "1"), ("PATCH", 200, "1"),
                          ("DELETE", 401, "unknown"), ("DELETE", 204, "1"), ("GET", 401, "1"), ("DELETE", 405, None)])
        self.assertEqual(rows[1]["body"], '{"UserName":"admin","Password":"*"}')
        with open(os.path.join(sim.dir, "record.jsonl"), encoding="utf-8") as f:
            text = f.read()
        self.assertNotIn("s3ss:pw", text)
        self.assertNotIn(token, text)

    def test_the_session_limit_and_refused_logins(self):
        sim = self.start_sim(SESSION_LIMIT=2)
        first, second = self.login(sim), self.login(sim)
        self.assertEqual([first[0], second[0]], [201, 201])
        status, token, _, body = self.login(sim)
        self.assertEqual((status, token), (503, None))
        self.assertEqual(json.loads(body)["error"]["code"], "Base.1.0.SessionLimitExceeded")
        self.assertEqual(self.login(sim, password="wrong")[0], 401)
        self.assertEqual(https_request(sim.address, 443, "POST", SESSIONS, '{"UserName": "admin"}')[0], 400)
        self.assertEqual(https_request(sim.address, 443, "POST", SESSIONS, "[")[0], 400)
        self.assertEqual(self.with_token(sim, "DELETE", second[2], first[1]), 204)
        self.assertEqual(self.login(sim)[0], 201)
        # Basic stays on by default, for the chassis and for a logout.
        self.assertEqual(sim.chassis()[0], 200)
        self.assertEqual(https_request(sim.address, 443, "DELETE", first[2], user="admin", password="secret")[0], 204)
        self.assertEqual(sim.session_events(), [("created", "1", 1), ("created", "2", 2), ("deleted", "2", 1),
                                                ("created", "3", 2), ("deleted", "1", 1)])
        self.assertEqual(sim.sessions_open(), 1)
        self.assertEqual([r["body"] for r in sim.records("redfish") if r["method"] == "POST"],
                         ['{"UserName":"admin","Password":"*"}'] * 4 +
                         ['{"UserName":"admin"}', "*", '{"UserName":"admin","Password":"*"}'])

    def test_services_without_sessions_and_logouts_that_fail(self):
        cases = [("absent", 404), ("nopost", 405), ("refuse", 403)]
        for knob, status in cases:
            sim = self.start_sim(SESSION_SERVICE=knob)
            self.assertEqual(self.login(sim)[:3], (status, None, None), knob)
            self.assertEqual(sim.session_events(), [])
        sim = self.start_sim(SESSION_SERVICE="notoken")
        self.assertEqual(self.login(sim)[:3], (201, None, None))
        self.assertEqual(sim.session_events(), [])
        sim = self.start_sim(SESSION_DELETE_STATUS=500)
        _, token, location, _ = self.login(sim)
        self.assertEqual(self.with_token(sim, "DELETE", location, token), 500)
        self.assertEqual(self.with_token(sim, "GET", "/redfish/v1/Chassis/2", token), 200)
        self.assertEqual(sim.sessions_open(), 1)

    def test_patch_hold_keeps_the_answer_until_released(self):
        release = os.path.join(self.tmp, "release")
        sim = self.start_sim(PATCH_HOLD=release, INITIAL_STATUS=2)
        answers = []
        patch = threading.Thread(target=lambda: answers.append(sim.chassis("PATCH", ENABLE_BODY, timeout=600)[0]))
        patch.start()
        while not sim.holds():
            self.assertTrue(patch.is_alive())
            threading.Event().wait(0.05)
        self.assertEqual((answers, [r["method"] for r in sim.records("redfish")]), ([], []))
        self.assertEqual(sim.holds()[0]["path"], "/redfish/v1/Chassis/2")
        sim.release_patches()
        patch.join(600)
        self.assertEqual(answers, [200])
        self.assertEqual(sim.state()["STATUS"], 1)
        # Released for good: the next one goes straight through.
        self.assertEqual(sim.chassis("PATCH", ENABLE_BODY)[0], 200)
        self.assertEqual(len(sim.holds()), 2)


class Launcher(E2ETestCase):
    def launcher(self, *args):
        return run_command([SMM_SIM] + list(args))

    def test_refuses_unknown_knobs_and_non_loopback_addresses(self):
        result = self.launcher("start", "--address", "127.0.0.2", "--dir", self.tmp, "--set", "NO_SUCH=1")
        self.assertEqual((result.returncode, result.stderr), (1, "smm-sim: unknown knob NO_SUCH\n"))
        result = self.launcher("start", "--address", "192.0.2.1", "--dir", self.tmp)
        self.assertEqual(result.returncode, 1)
        self.assertIn("loopback only", result.stderr)

    def test_json_scenario_file(self):
        scenario = os.path.join(self.tmp, "scenario.json")
        with open(scenario, "w", encoding="utf-8") as f:
            json.dump({"INITIAL_STATUS": 4, "CC": {"F3": "C1"}, "REDFISH": False}, f)
        sim = self.start_sim(scenario=scenario)
        _, rows = self.run_probe(sim.address, 623, ["open", "send", "3a", "f1", "00", "send", "3a", "f3", "01"],
                                 config=WORKAROUND)
        self.assertEqual([(r["cc"], r["data"]) for r in rows[1:]], [("00", "04"), ("c1", "")])

    def test_a_busy_port_fails_the_start(self):
        address = self.lease_address()
        with UdpBlackhole(address, 623):
            sim = Sim(os.path.join(self.tmp, "busy"), {"REDFISH": "off"}, address=address)
            with self.assertRaises(RuntimeError) as caught:
                sim.start()
        self.assertIn("smm-sim start failed", str(caught.exception))
        self.assertFalse(sim.running())

    def test_second_start_in_the_same_directory_is_refused(self):
        sim = self.start_sim(REDFISH="off")
        result = self.launcher("start", "--address", sim.address, "--dir", sim.dir)
        self.assertEqual(result.returncode, 1)
        self.assertIn("already runs", result.stderr)


if __name__ == "__main__":
    unittest.main()
