#!/usr/bin/python3
"""Writes the seeds of the command arguments and snapshot fuzzers with the cbor2 module.

Each seed is one meaningful message, made by a CBOR encoder other than the project's own: the
argument lists of the command families, and folder comparison results in both archive forms.
Run it with the distribution's Python (python3-cbor2) from the repository root:
    /usr/bin/python3 fuzz/make_seeds.py
It rewrites only the seeds named here; what long runs added to the corpora stays.
"""

import os

import cbor2
from cbor2 import CBORTag

OBJECT_TAG = 27
DATE_TAG = 1
SET_TAG = 258

PLIST = (b'<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0">'
         b'<dict><key>Enabled</key><true/><key>Count</key><integer>3</integer></dict></plist>')

# Argument lists, one per command family; the fuzzer tries each with every code.
ARGUMENTS = {
    "none": [],
    "whoami-steps": [3],
    "overwrite-file": ["/etc/motd", b"new text\n", 1],
    "create-object": ["/var/tmp/new", "fold"],
    "delete-objects": ["1", "/tmp/a", "/tmp/b\xff".encode("latin-1")],
    "protection": ["/srv/data", 1, 1, 0],
    "hfs-attributes": ["/srv/file", 0x54455854, 0x74747874, 1],
    "aged-search": ["/var/tmp", 30, 1],
    "prefix-search": ["/var/log", "sys", "log", 0],
    "power-option": ["Display Sleep Timer", 10],
    "kernel-value": ["kernel.sched_autogroup_enabled", 1],
    "firmware-variable": ["boot-args", "%01%02%ff"],
    "firmware-text": ["SystemAudioVolume", "true"],
    "interface-mtu": ["eth0", 1400],
    "preference": ["AppleLanguages", "NSGlobalDomain", "kCFPreferencesAnyUser",
                   "kCFPreferencesCurrentHost", '("en", "de")'],
    "preference-xml": ["Key", "com.example.app", "alice", "host-1", PLIST.decode()],
    "configuration": ["com.example.tool", "com.example.network", "Interfaces",
                      "{ en0 = { MTU = 1500; }; }"],
    "stop-process": [4242],
    "name-patterns": ["/", "0", "0", "core", "1", "tmp.", "2", "swp"],
    "name-patterns-bytes": ["/home", "1", "2", b"\xff\xfe", "1", b"prefix\x80"],
    "compare": ["/srv/a", "/srv/b", "/tmp/stop", 100000, 3],
    "count": ["/usr", "/tmp/marker"],
    "program": ["-l", "--", "/dev/sda1", "/mnt"],
    "numbers": [1.5, -1, 18446744073709551615, True, float("nan")],
}

# Plain text, split at zero bytes by the fuzzer.
TEXTS = {
    "text-kernel-name": b"net.ipv4.ip_forward\x001",
    "text-patterns": b"/srv\x001\x000\x00name\x002\x00txt",
    "text-preference": b"Key\x00NSGlobalDomain\x00kCFPreferencesCurrentUser\x00"
                       b"kCFPreferencesAnyHost\x00{a = 1;}",
}

SNAPSHOT_KEYS = ["Path", "ErrorCode", "POSIXMode", "Owner", "GroupOwner", "AccessTime.s",
                 "AccessTime.ns", "ModificationTime.s", "ModificationTime.ns",
                 "StatusChangeTime.s", "StatusChangeTime.ns", "CreationTime.s", "CreationTime.ns",
                 "Size", "Flags", "ExtendedAttributes", "ACL"]

# A list of one entry in its byte form: header, then 24 bytes per entry (see the access control
# list fuzzer's seeds).
with open(os.path.join(os.path.dirname(__file__), "corpus", "AccessControlList",
                       "deny-inherited"), "rb") as list_file:
    LIST_BYTES = list_file.read()


def snapshot_items(path, mode, size, attributes=None, acl=b"", error=0, flags=0):
    return [path, error, mode, 1000, 1000, 1700000000, 5, 1700000100, 250, 1700000200, 0,
            1600000000, 0, size, flags, attributes or {}, acl]


def sequential(items):
    return CBORTag(OBJECT_TAG, ["KRVFileSystemObjectDescription"] + items)


def keyed(items):
    return CBORTag(OBJECT_TAG, ["KRVFileSystemObjectDescription", dict(zip(SNAPSHOT_KEYS, items))])


ATTRIBUTES = {
    "user.note": {"ValueSize": 5, "ValueChecksum": "5d41402abc4b2a76b9719d911017c592"},
    b"user.\xffname": {"ValueSize": 0, "ValueChecksum": "d41d8cd98f00b204e9800998ecf8427e"},
    "com.apple.ResourceFork": {"ValueSize": 1024},
}

FIRST = snapshot_items("/srv/a/report.txt", 0o100644, 4096, ATTRIBUTES)
SECOND = snapshot_items("/srv/b/report.txt", 0o100600, 4097, acl=LIST_BYTES, flags=0x20)
FOLDER = snapshot_items(b"/srv/b/caf\xe9", 0o40755, 4096)
MISSING = snapshot_items("/srv/b/gone", 0o100644, 0, error=-1)


def record(codes, first, second, form):
    return {"Mismatches": CBORTag(SET_TAG, codes), "Description1": form(first),
            "Description2": form(second)}


def error_object(domain, code, user_info, form):
    if form is keyed:
        return CBORTag(OBJECT_TAG, ["NSError", {"NSDomain": domain, "NSCode": code,
                                                "NSUserInfo": user_info}])
    return CBORTag(OBJECT_TAG, ["NSError", domain, code, user_info])


SNAPSHOTS = {
    "snapshot-sequential": sequential(FIRST),
    "snapshot-keyed": keyed(SECOND),
    "chunk": error_object("com.tavorin.securityagent", 1, {
        "CurrentProgress": 0.5,
        "MismatchList": [record([2, 3], FIRST, SECOND, sequential),
                         record([7], FOLDER, MISSING, sequential)]}, sequential),
    "saved-comparison": {
        "FirstFolder": "/srv/a", "SecondFolder": b"/srv/\xffb", "CompareMode": 3,
        "Date": CBORTag(DATE_TAG, 1700000000.25),
        "MismatchList": [record([0, 1, 4], FIRST, SECOND, keyed),
                         record([8], MISSING, FOLDER, keyed)],
        "Result": error_object("com.tavorin.privilegedCommand", 0, {}, keyed)},
}


def write(folder, name, data):
    path = os.path.join(os.path.dirname(__file__), "corpus", folder)
    os.makedirs(path, exist_ok=True)
    with open(os.path.join(path, name), "wb") as seed:
        seed.write(data)


def main():
    for name, arguments in ARGUMENTS.items():
        write("CommandArguments", name, cbor2.dumps(arguments))
    for name, text in TEXTS.items():
        write("CommandArguments", name, text)
    for name, value in SNAPSHOTS.items():
        write("Snapshot", name, cbor2.dumps(value))


if __name__ == "__main__":
    main()
