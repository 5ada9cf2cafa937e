#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Writes the seed corpus of every fuzz target (corpus/<target>/<seed>).

Run from anywhere; it rewrites the seeds it knows and leaves other files alone.
Each seed is a small, meaningful case in the input format the target's source
describes at its top.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    directory = os.path.join(HERE, "corpus", target)
    os.makedirs(directory, exist_ok=True)
    if isinstance(data, str):
        data = data.encode("utf-8")
    with open(os.path.join(directory, name), "wb") as out:
        out.write(data)


# --- smmlan_rest: flags, curl byte, status (int32 LE), body -------------------
QUERY, UPDATE, LAN_BEFORE = 2, 4, 1


def rest(name, body, status=200, curl=0, flags=QUERY | UPDATE):
    curl_byte = 0 if curl == 0 else 0x80 | curl
    write("smmlan_rest", name, bytes([flags, curl_byte]) + struct.pack("<i", status) + body.encode("utf-8", "surrogateescape"))


CHASSIS = '{"@odata.id":"/redfish/v1/Chassis/2","Id":"2","Oem":{"Qarvon":{%s}}}'
rest("lan_on_ipmi_off", CHASSIS % '"LANEnabled":true,"IPMIEnabled":false,"IPv4":"192.168.70.125"')
rest("lan_on_ipmi_on", CHASSIS % '"LANEnabled":true,"IPMIEnabled":true,"IPv4":"10.0.0.7"')
rest("lan_off", CHASSIS % '"LANEnabled":false,"IPMIEnabled":false,"IPv4":""')
rest("lan_off_was_on", CHASSIS % '"LANEnabled":false', flags=QUERY | UPDATE | LAN_BEFORE)
rest("lan_not_boolean", CHASSIS % '"LANEnabled":"true","IPMIEnabled":1,"IPv4":7', flags=QUERY | UPDATE | LAN_BEFORE)
rest("no_lan_member", CHASSIS % '"IPv4":"192.0.2.1"')
rest("duplicate_members", CHASSIS % '"LANEnabled":false,"LANEnabled":true,"IPv4":"a","IPv4":"b"')
rest("vendor_not_object", '{"Oem":{"Qarvon":[true]}}')
rest("oem_missing", '{"Id":"2","Name":"Chassis"}')
rest("root_array", '[{"Oem":{"Qarvon":{"LANEnabled":true}}}]')
rest("malformed", '{"Oem":{"Qarvon":{"LANEnabled":tru')
rest("empty_body", "")
rest("nul_in_body", CHASSIS % '"LANEnabled":true' + "\0garbage")
rest("nul_in_address", CHASSIS % '"LANEnabled":true,"IPv4":"10.1.2.3\\u0000hidden"')
rest("extreme_numbers", CHASSIS % '"LANEnabled":true,"n":1e999999999999,"m":-0.0000e-99999999999,"k":18446744073709551616')
rest("deep_nesting", '{"Oem":{"Qarvon":' + "[" * 3000 + "]" * 3000 + "}}")
rest("status_503", '{"error":{"code":"Base.1.0.ServiceUnavailable"}}', status=503)
rest("status_404", "Not Found", status=404)
rest("status_199", CHASSIS % '"LANEnabled":true', status=199)
rest("status_300", CHASSIS % '"LANEnabled":true', status=300)
rest("status_negative", CHASSIS % '"LANEnabled":true', status=-2147483648)
rest("curl_timeout", "Operation timed out after 60000 milliseconds", status=-1, curl=28)
rest("curl_peer_verification", "SSL peer certificate was not OK", status=-1, curl=60)
rest("curl_refused", "Failed to connect: Connection refused", status=-1, curl=7)

# --- rest_client: curl code, status (int32 LE each), header block -------------


def headers(name, block, curl=0, status=200):
    write("rest_client", name, struct.pack("<ii", curl, status) + block.encode("latin-1"))


headers("ok_json", "HTTP/1.1 200 OK\r\nContent-Type: application/json; charset=utf-8\r\nETag: W/\"7\"\r\nContent-Length: 42\r\n\r\n")
headers("redirect_then_ok", "HTTP/1.1 301 Moved\r\nLocation: https://192.0.2.10/redfish/v1/Chassis/2\r\n\r\n"
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n", status=200)
headers("continue_line", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 204 No Content\r\nX-Thing:\r\n   folded value\r\n\r\n", status=204)
headers("odd_blanks", " \tSpaced Name \v:\f value with : colons \r\n:\r\nno-colon-line\r\n\r\n")
headers("service_unavailable", "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 5\r\n\r\n", status=503)
headers("timeout", "", curl=28, status=-1)
headers("cert_problem", "", curl=58, status=-1)
headers("status_2_digit", "HTTP/1.1 20 Odd\r\n", status=20)
headers("status_big_2", "", status=2000000000)
headers("status_negative", "", status=-200)
headers("high_bytes", "X-Bin\xff\x80: \xa0\x85value\xa0\r\n")

# --- redfish_login: curl code, status, URL choice, header block, NUL, user, NUL, password

def login(name, block, status=201, curl=0, url=0, user="admin", password="secret"):
    data = struct.pack("<iiB", curl, status, url) + block.encode("latin-1") + b"\0" + user.encode("latin-1") + b"\0"
    write("redfish_login", name, data + password.encode("latin-1"))


OPENED = "HTTP/1.1 201 Created\r\nX-Auth-Token: 3f6c2a9be10d4c57\r\nLocation: %s\r\n\r\n"
login("opened_relative", OPENED % "/redfish/v1/SessionService/Sessions/7")
login("opened_absolute", OPENED % "https://[2001:db8::10]:8443/redfish/v1/SessionService/Sessions/7", url=1)
login("opened_elsewhere", OPENED % "https://203.0.113.9/redfish/v1/SessionService/Sessions/7")
login("opened_other_scheme", OPENED % "http://192.0.2.10:443/s/1")
login("opened_relative_segment", OPENED % "Sessions/8", url=2)
login("opened_protocol_relative", OPENED % "//elsewhere/s/2")
login("no_location", "HTTP/1.1 201 Created\r\nX-Auth-Token: abc\r\n\r\n")
login("lower_case_http2", "HTTP/2 201\r\nx-auth-token: abc\r\nlocation: /s/1\r\n\r\n")
login("two_cases", "HTTP/1.1 200 OK\r\nX-AUTH-TOKEN: bad token\r\nx-auth-token: good\r\n\r\n", status=200)
login("no_token", "HTTP/1.1 201 Created\r\nLocation: /s/1\r\n\r\n")
login("token_control", "HTTP/1.1 201 Created\r\nX-Auth-Token: a\x01b\r\n\r\n")
login("refused_401", "HTTP/1.1 401 Unauthorized\r\n\r\n", status=401)
login("refused_403", "HTTP/1.1 403 Forbidden\r\n\r\n", status=403)
login("absent_404", "HTTP/1.1 404 Not Found\r\n\r\n", status=404)
login("no_post_405", "HTTP/1.1 405 Method Not Allowed\r\nAllow: GET\r\n\r\n", status=405)
login("limit_503", "HTTP/1.1 503 Service Unavailable\r\nX-Auth-Token: abc\r\n\r\n", status=503)
login("timed_out", "", status=-1, curl=28)
login("hostile_password", "", status=500, user="ad\"min\\", password="p\"a\\s\x01\x7f\xff\xc3\xa9\0nul")

# --- smmlan_ipmi: op, argument, retry choice, sleep choice, script ------------
GET_STATUS, GET_IP, QUERY_OP, ENABLE, DISABLE, ENABLE_IPMI, SET_METHOD, SET_STATUS, PARSE_METHOD = range(9)
RETRY_UNSET, RETRY_0, RETRY_1, RETRY_2, RETRY_3 = 0, 1, 2, 3, 4
SLEEP_UNSET, SLEEP_5, SLEEP_0, SLEEP_NEG = 0, 1, 2, 3
OK_OPEN = b"\x00"
OPEN_FAILED = b"\xf3"   # 1
OPEN_REFUSED = b"\xf4"  # 2


def reply(cc, data=b""):
    return bytes([cc, len(data)]) + data


def status(value):
    return OK_OPEN + reply(0, bytes([value]))


IP_OK = OK_OPEN + reply(0, bytes([0, 0, 0, 0, 125, 70, 168, 192]))


def ipmi(name, op, script=b"", argument=0, retry=RETRY_2, sleep=SLEEP_0):
    write("smmlan_ipmi", name, bytes([op, argument, retry, sleep]) + script)


ipmi("status_enabled", GET_STATUS, status(1))
ipmi("status_unknown_value", GET_STATUS, status(7))
ipmi("status_two_bytes", GET_STATUS, OK_OPEN + reply(0, b"\x01\x01"))
ipmi("status_completion_code", GET_STATUS, OK_OPEN + reply(0xC1))
ipmi("status_open_refused", GET_STATUS, OPEN_REFUSED)
ipmi("status_no_reply", GET_STATUS, OK_OPEN)
ipmi("ip_ok", GET_IP, IP_OK)
ipmi("ip_short", GET_IP, OK_OPEN + reply(0, bytes([0, 0, 0, 0, 1])))
ipmi("ip_one_byte", GET_IP, OK_OPEN + reply(0, b"\x00"))
ipmi("ip_property_status", GET_IP, OK_OPEN + reply(0, bytes([3, 0])))
ipmi("ip_property_status_unknown", GET_IP, OK_OPEN + reply(0, bytes([0x20, 0])))
ipmi("ip_after_failed_open", GET_IP, OPEN_FAILED + reply(0, bytes([0, 0, 0, 0, 1, 2, 3, 4])))
ipmi("ip_long_reply", GET_IP, OK_OPEN + reply(0, bytes(range(40))))
ipmi("query_enabled", QUERY_OP, status(1) + IP_OK)
ipmi("query_lan_and_ipmi", QUERY_OP, status(4) + IP_OK)
ipmi("query_disabled", QUERY_OP, status(2))
ipmi("query_ip_fails", QUERY_OP, status(1) + OK_OPEN + reply(0xFF))
ipmi("enable_dhcp", ENABLE, OK_OPEN + reply(0) + status(2) + OK_OPEN + reply(0) + status(2) + status(1) + IP_OK,
     argument=2, sleep=SLEEP_5)
ipmi("enable_already_on", ENABLE, status(1) + IP_OK)
ipmi("enable_method_refused", ENABLE, OK_OPEN + reply(0xCC) + status(2) + OK_OPEN + reply(0) + status(1) + IP_OK,
     argument=1)
ipmi("enable_times_out", ENABLE, status(2) + OK_OPEN + reply(0) + status(2) + status(2), retry=RETRY_2)
ipmi("enable_default_retries", ENABLE, status(2) + OK_OPEN + reply(0), retry=RETRY_UNSET, sleep=SLEEP_UNSET)
ipmi("enable_open_refused", ENABLE, OPEN_REFUSED + OPEN_REFUSED, argument=4)
ipmi("disable_ok", DISABLE, status(1) + OK_OPEN + reply(0) + status(2))
ipmi("disable_set_fails", DISABLE, status(1) + OK_OPEN + reply(0xD5))
ipmi("enable_ipmi_ok", ENABLE_IPMI, status(1) + OK_OPEN + reply(0) + status(1) + status(4), retry=RETRY_3)
ipmi("enable_ipmi_unsupported", ENABLE_IPMI, status(1) + OK_OPEN + reply(0xC1))
ipmi("set_method_raw", SET_METHOD, OK_OPEN + reply(0), argument=7)
ipmi("set_status_unknown", SET_STATUS, b"", argument=0)
ipmi("set_ipmi_status_wrong", SET_STATUS, b"", argument=0x81)
ipmi("parse_method_failover", PARSE_METHOD, b"DHCP-Failover")
ipmi("parse_method_nul", PARSE_METHOD, b"static\0x")

# --- bmc_target: the --bmc text -------------------------------------------------
for name, text in [
    ("ipv4", "admin:secret@192.0.2.10"),
    ("no_password", "admin@bmc.example"),
    ("password_with_separators", "admin:p:a@ss@[2001:db8::10]:8443"),
    ("ipv6_no_port", "u:p@[::1]"),
    ("ipv6_mapped", "u:p@[::ffff:192.0.2.1]:443"),
    ("port_too_big", "u:p@host:65536"),
    ("port_zero", "u:p@host:0"),
    ("port_leading_zeros", "u:p@host:00443"),
    ("empty_user", ":p@host"),
    ("empty_host", "u:p@"),
    ("unclosed_bracket", "u:p@[2001:db8::1"),
    ("bare_ipv6", "u:p@2001:db8::1"),
    ("blank_in_host", "u:p@ho st"),
    ("slash_in_host", "u:p@host/x"),
    ("text_after_bracket", "u:p@[::1]x"),
    ("no_at", "admin:secret"),
]:
    write("bmc_target", name, text)

# --- global_config: the configuration text -------------------------------------
for name, text in [
    ("typical", "# morvel configuration\nSMM_NETWORK_CHECK_RETRY_COUNT=3\nSMM_NETWORK_CHECK_SLEEP_TIME=1\n"
                "REDFISH_STARTUP_WAIT_TIME = 30 \nIPMI_WORKAROUND_FLAGS=opensesspriv,authcap\n"),
    ("crlf_and_blanks", "\r\n  # comment\r\n\tKEY\t=  value with = sign  \r\nEMPTY=\r\n"),
    ("integers", "A=+7\nB=+-5\nC=2147483647\nD=2147483648\nE=-2147483648\nF=-2147483649\nG= 0x10\nH=--1\nI=\v42\f\n"),
    ("missing_equals", "KEY_ONLY\n"),
    ("empty_key", "=value\n"),
    ("repeated_key", "K=1\nK=2\n"),
    ("no_final_newline", "K=1"),
    ("nul_bytes", "K\0=1\nL=2\0 3\n"),
]:
    write("global_config", name, text)

# --- command_line: words separated by NUL ---------------------------------------
for name, words in [
    ("query", ["smmlan", "query", "--bmc", "admin:S3CRET@192.0.2.10"]),
    ("host_options", ["--config", "/etc/morvel.conf", "--log-level=4", "--log-file", "/tmp/m.log", "smmlan", "enable",
                      "--bmc=u:S3CRET@h", "--method", "dhcp"]),
    ("help", ["--help"]),
    ("version", ["--version"]),
    ("command_help", ["smmlan", "--help"]),
    ("bad_log_level", ["--log-level", "5", "smmlan", "query"]),
    ("stray_word", ["smmlan", "query", "S3CRET"]),
    ("unknown_host_option", ["--bogus=S3CRET", "smmlan", "query"]),
    ("value_looks_like_option", ["smmlan", "query", "--bmc", "--S3CRET"]),
    ("password_file_twice", ["--password-file", "pf", "smmlan", "query", "--password-file", "S3CRET"]),
    ("missing_subcommand", ["smmlan"]),
    ("missing_value", ["--config"]),
    ("duplicate_option", ["smmlan", "query", "--bmc", "a", "--bmc", "S3CRET"]),
    ("empty_words", ["", ""]),
    ("control_chars", ["--x\x1b[2J", "sm\tmlan"]),
]:
    write("command_line", name, "\0".join(words))
