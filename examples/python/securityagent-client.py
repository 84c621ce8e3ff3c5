#!/usr/bin/env python3
"""Runs one command of the security component's daemon and prints its progress and result.

A client written from the published protocol alone (docs/wire-format.md and
docs/authorization-protocol.md), with the standard library and cbor2:

    securityagent-client.py whoami 3
    securityagent-client.py count-file-objects /usr /tmp/stop-marker
    securityagent-client.py --code 17 --right com.tavorin.get.storage-size --signature S /var/log

It obtains an authorization from the authorization service (asking for a password on the
terminal when the right needs one; nothing is asked when the right's rule is "allow"), sends the
request, follows the response pipe, prints each report and the final result, and frees the
authorization. Exit status: 0 success, 1 failure, 2 usage, 3 component not installed.
"""

import argparse
import getpass
import os
import socket
import struct
import sys

import cbor2
from cbor2 import CBORTag

MARKER = b"***KRVSecurityAgentDataBlock"
DAEMON_SOCKET = "/var/run/com.tavorin.system.securityagent3.socket"
AUTHORITY_SOCKET = "/var/run/com.tavorin.system.authority.socket"
TRANSPORT_DOMAIN = "com.tavorin.securityagent"
COMMAND_DOMAIN = "com.tavorin.privilegedCommand"
POSIX_DOMAIN = "NSPOSIXErrorDomain"
IMPLEMENTATION_VERSION = 310
LARGEST_PAYLOAD = 1048576

# Flags of CopyRights: interaction allowed, extend rights, pre-authorize.
FLAG_INTERACTION = 0x01
FLAG_EXTEND = 0x02
FLAG_PREAUTHORIZE = 0x10
STATUS_INTERACTION_NEEDED = -60007

# A few commands by name: code, right, argument signature (S string, N number, D data).
COMMANDS = {
    "version": (1, None, ""),
    "whoami": (3, "com.tavorin.whoami.diagnostic", "N"),
    "search-aged-files": (14, "com.tavorin.search.aged-files", "SNN"),
    "inspect-file-object": (15, "com.tavorin.inspect.file-object", "S"),
    "get-storage-size": (17, "com.tavorin.get.storage-size", "S"),
    "count-file-objects": (51, "com.tavorin.count.file-objects", "SS"),
}


class ProtocolError(Exception):
    pass


def crc16_kermit(data: bytes) -> int:
    crc = 0
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = (crc >> 1) ^ 0x8408 if crc & 1 else crc >> 1
    return crc


def write_block(connection, value) -> None:
    payload = cbor2.dumps(value)
    if len(payload) + 36 > LARGEST_PAYLOAD:
        raise ProtocolError("request too large")
    header = MARKER + struct.pack("<II", len(payload), crc16_kermit(payload))
    connection.sendall(header + payload)


def read_exactly(read, count: int) -> bytes:
    chunks = []
    while count > 0:
        chunk = read(count)
        if not chunk:
            raise ProtocolError("the peer closed early")
        chunks.append(chunk)
        count -= len(chunk)
    return b"".join(chunks)


def read_block(read):
    header = read_exactly(read, 36)
    if header[:28] != MARKER:
        raise ProtocolError("not a data block")
    length, checksum = struct.unpack("<II", header[28:])
    if length > LARGEST_PAYLOAD:
        raise ProtocolError("block too large")
    payload = read_exactly(read, length)
    if crc16_kermit(payload) != checksum:
        raise ProtocolError("checksum mismatch")
    return cbor2.loads(payload)


def error_fields(item):
    """(domain, code, user information) of an NSError object."""
    if not (isinstance(item, CBORTag) and item.tag == 27 and isinstance(item.value, list)
            and len(item.value) == 4 and item.value[0] == "NSError"):
        raise ProtocolError("not an error object")
    _, domain, code, user_info = item.value
    return domain, code, user_info


def path_item(path: bytes):
    """A path for a request: text when it is UTF-8, otherwise its bytes."""
    try:
        return path.decode("utf-8")
    except UnicodeDecodeError:
        return path


def shown(item) -> str:
    """A received value for people: paths may be bytes that are not UTF-8."""
    if isinstance(item, bytes):
        return item.decode("utf-8", "backslashreplace")
    return repr(item)


# ---- The authorization service -------------------------------------------------------------

def authority_request(socket_path: str, value: dict) -> dict:
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
        connection.connect(socket_path)
        write_block(connection, value)
        while True:
            message = read_block(connection.recv)
            if not isinstance(message, dict):
                raise ProtocolError("the authorization service sent no map")
            prompt = message.get("Prompt")
            if prompt is None:
                return message
            answer = answer_prompt(prompt)
            if answer is not None:
                write_block(connection, answer)


def answer_prompt(prompt: dict):
    """The answer to send, or None for a message that only informs."""
    style = prompt.get("Style")
    text = "".join(c if c.isprintable() or c in "\n\t" else "?" for c in str(prompt.get("Message", "")))
    if style not in ("Secret", "Visible"):
        print(text, file=sys.stderr)
        return None
    try:
        with open("/dev/tty", "r+"):
            pass
    except OSError:
        return {"Unavailable": True}
    try:
        answer = getpass.getpass(text) if style == "Secret" else input(text)
    except (EOFError, KeyboardInterrupt):
        return {"Cancel": True}
    return {"Response": answer}


class Authorization:
    def __init__(self, socket_path: str):
        self.socket_path = socket_path
        reply = authority_request(socket_path, {"Operation": "Create"})
        if reply.get("Status") != 0:
            raise ProtocolError(f"no authorization: status {reply.get('Status')}")
        self.token = reply["Token"]

    def obtain(self, right: str) -> int:
        reply = authority_request(self.socket_path, {
            "Operation": "CopyRights", "Token": self.token, "Right": right,
            "Flags": FLAG_INTERACTION | FLAG_EXTEND | FLAG_PREAUTHORIZE})
        return reply.get("Status", -60008)

    def free(self) -> None:
        authority_request(self.socket_path, {"Operation": "Free", "Token": self.token, "Flags": 0})


# ---- The daemon ----------------------------------------------------------------------------

def send_request(socket_path: str, code: int, arguments: list, token: bytes):
    request = CBORTag(27, ["KRVPrivilegedCommand", IMPLEMENTATION_VERSION, code, arguments,
                           token, os.getuid(), 0])
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
        connection.connect(socket_path)
        write_block(connection, request)
        return error_fields(read_block(connection.recv))


def print_report(user_info: dict) -> None:
    for key, value in user_info.items():
        if key == "CurrentProgress":
            print(f"progress {value * 100:3.0f}%", flush=True)
        elif key in ("OutputChannel", "ErrorChannel"):
            stream = sys.stdout if key == "OutputChannel" else sys.stderr
            data = value if isinstance(value, bytes) else str(value).encode()
            stream.buffer.write(data)
            stream.flush()
        elif key == "FileSystemObjects" and isinstance(value, list):
            for record in value:
                path = record.get("Path") if isinstance(record, dict) else None
                print("object", shown(path), flush=True)
        else:
            print(f"payload {key} = {shown(value)}", flush=True)


def follow_pipe(pipe_path) -> tuple:
    try:
        with open(pipe_path, "rb", buffering=0) as pipe:
            while True:
                domain, code, info = error_fields(read_block(pipe.read))
                if (domain, code) != (TRANSPORT_DOMAIN, 1):
                    return domain, code, info
                print_report(info)
    except ProtocolError:
        return TRANSPORT_DOMAIN, 5, {}  # the pipe ended without a final message
    finally:
        try:
            os.unlink(pipe_path)
        except OSError:
            pass


def convert(signature: str, words: list) -> list:
    # The daemon checks the count; a command of any number of arguments has the signature "S".
    arguments = []
    for index, word in enumerate(words):
        kind = signature[min(index, len(signature) - 1)] if signature else "S"
        if kind == "S":
            arguments.append(path_item(os.fsencode(word)))
        elif kind == "D":
            if word.startswith("@"):
                with open(word[1:], "rb") as source:
                    arguments.append(source.read())
            else:
                arguments.append(bytes.fromhex(word.removeprefix("hex:")))
        elif word in ("true", "false"):
            arguments.append(word == "true")
        else:
            try:
                arguments.append(int(word, 10))
            except ValueError:
                arguments.append(float(word))
    return arguments


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--socket", default=DAEMON_SOCKET)
    parser.add_argument("--authority-socket", default=AUTHORITY_SOCKET)
    parser.add_argument("--code", type=int, help="a command not in the short list, by code")
    parser.add_argument("--right", help="the right of a command given by --code")
    parser.add_argument("--signature", default="", help="argument kinds of --code: S, N, D")
    parser.add_argument("words", nargs="*", help="COMMAND ARGUMENT... (or ARGUMENT... with --code)")
    options = parser.parse_args()

    if options.code is not None:
        code, right, signature, words = options.code, options.right, options.signature, options.words
    elif options.words and options.words[0] in COMMANDS:
        code, right, signature = COMMANDS[options.words[0]]
        words = options.words[1:]
    else:
        parser.print_usage(sys.stderr)
        print("commands: " + ", ".join(sorted(COMMANDS)), file=sys.stderr)
        return 2
    try:
        arguments = convert(signature, words)
    except (ValueError, OSError) as problem:
        print(f"securityagent-client: {problem}", file=sys.stderr)
        return 2
    if not os.path.exists(options.socket):
        print("securityagent-client: the security component is not installed", file=sys.stderr)
        return 3

    authorization = None
    token = bytes(32)
    try:
        if right:
            authorization = Authorization(options.authority_socket)
            token = authorization.token
            status = authorization.obtain(right)
            if status != 0:
                print(f"result: {COMMAND_DOMAIN} 2 {{'UnderlyingErrorCode': {status}}}")
                return 1
        acknowledgement = send_request(options.socket, code, arguments, token)
        domain, code_value, info = acknowledgement
        # A credential that expired in between: obtain it again once and resend.
        if (authorization and domain == COMMAND_DOMAIN and code_value == 2
                and info.get("UnderlyingErrorCode") == STATUS_INTERACTION_NEEDED):
            if authorization.obtain(right) == 0:
                acknowledgement = send_request(options.socket, code, arguments, token)
        domain, code_value, info = acknowledgement
        if (domain, code_value) == (TRANSPORT_DOMAIN, 0) and "ClientSocket" in info:
            domain, code_value, info = follow_pipe(info["ClientSocket"])
    except (OSError, ProtocolError) as problem:
        print(f"securityagent-client: {problem}", file=sys.stderr)
        return 1
    finally:
        if authorization is not None:
            try:
                authorization.free()
            except (OSError, ProtocolError):
                pass
    print(f"result: {domain} {code_value} " +
          "{" + ", ".join(f"{key}: {shown(value)}" for key, value in info.items()) + "}")
    return 0 if code_value == 0 and domain != POSIX_DOMAIN else 1


if __name__ == "__main__":
    sys.exit(main())
