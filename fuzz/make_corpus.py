#!/usr/bin/env python3
"""Writes the first inputs of the fuzz targets into corpus/: those of a line each by hand, the binary ones composed."""
import base64, hashlib, hmac, json, pathlib, struct

here = pathlib.Path(__file__).parent / "corpus"


def put(target, name, content):
    folder = here / target
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(content if isinstance(content, bytes) else content.encode())


def build_prop():
    put("build_prop", "plain", "ro.sd.build.version=7.4.2-1103\nsd.ui.theme = dark\n# no definition\n")
    put("build_prop", "twice", "a=1\na=2\nro.a=\nro.a=1\nro.a=2\nro.sd.product.channel=stable\r\n")
    put("build_prop", "odd", b"=v\n =v\n\t\t=\t \nk\0=v\nk=v\0w\nlast=no newline")
    put("build_prop", "long", "k=" + "v" * 1021 + "ro.cut=1\n" + "x" * 1023 + "=y\n")


def descriptions():
    """A file, a value and a glob each."""
    kinds = {
        "int": '"minimum": 1, "maximum": 9, "default": 5, "unit": "%"',
        "duration": '"minimum": "1s", "default": "1h30m"',
        "size": '"maximum": "1GiB", "default": "64KiB"',
        "enum": '"enum": ["dark", "light"], "words": {"dark": "x"}, "translations": {"de": {"words": {"dark": "y"}}}',
        "string": '"pattern": "^[a-z]+$", "secret": true',
        "json": '"default": {"a": [1, null]}, "deprecated": true, "replacedBy": "b.c"',
        "array": '"items": {"type": "int", "maximum": 3}, "default": [1, 2]',
        "url": '"default": "http://h:80/x", "store": "secure", "governable": false',
    }
    values = {"duration": "1w 0.5h", "size": "1.5 mib", "array": "1, 2", "url": "HTTPS://me@[::1]/%20", "json": "[ 1 ]"}
    for kind, fields in kinds.items():
        text = '{"keys": {\n"a.%s": {"type": "%s", %s}}}' % (kind, kind, fields)
        put("descriptions", kind, f"{text}\x1e{values.get(kind, '5')}\x1ea.*")
    put("descriptions", "globs", '{"keys": {"a.*.c": {"type": "bool"}, "a.b*.*": {"type": "bool"}}}\x1ea.*.c\x1ea.b*.*')
    put("descriptions", "escapes", r'{"keys": {"a\u002eb": {"type": "path"}, "A.B": {"type": "color"}}}' + "\x1e#aBc\x1e")
    put("descriptions", "broken", '{"keys": {"a": {"type": "int" "b"}, "c": [}}}')


def legacy_cipher():
    for length in (15, 16, 24, 32, 33, 48, 100, 101):
        cipher = hashlib.shake_128(bytes([length])).digest(length)
        put("legacy_cipher", f"bytes_{length}", b"\x20" + base64.b64encode(cipher) + b"\n")
    put("legacy_cipher", "lines", b"\xff" + base64.encodebytes(bytes(66)))
    put("legacy_cipher", "plain", "\x10secret")


def envelope():
    for length in (36, 37, 48):
        put("envelope", f"frame_{length}", b"v1" + base64.b64encode(bytes(range(length))))
        put("envelope", f"bound_{length + 8}", b"v2" + base64.b64encode(bytes(range(length + 8))))
    put("envelope", "plain", "\0\x02Acorrect horse")


def ring_line(key):
    return f"{hashlib.sha256(b'sdsecurity key id v1' + key).hexdigest()[:16]} {key.hex()}\n"


def ring_2(form, *keys):
    """Keys of a state and a time each."""
    lines = "".join(ring_line(key).replace(" ", f" {state} {made} ") for key, state, made in keys)
    text = f"sdsecurity-keys 2\nform {form}\n{lines}"
    secret = hashlib.sha256(b"sdsecurity ring sum v2" + b"".join(key for key, _, _ in keys)).digest()
    return f"{text}sum {hmac.new(secret, text.encode(), 'sha256').hexdigest()}\n"


def key_ring():
    one, two = bytes(range(32)), b"\xff" * 32
    put("key_ring", "one", "sdsecurity-keys 1\n" + ring_line(one))
    put("key_ring", "two", "sdsecurity-keys 1\n" + ring_line(one) + ring_line(two))
    put("key_ring", "twice", "sdsecurity-keys 1\n" + ring_line(one) * 2)
    put("key_ring", "wrong_id", "sdsecurity-keys 1\n" + ring_line(one).replace(" 00", " 01"))
    put("key_ring", "composed", b"\0\x1aA" + one + b"\2\1" + two + b"\1\0")
    put("key_ring", "states", ring_2(1, (one, "disabled", "- -"), (two, "sealing", "1764100000 1.1.0")))
    put("key_ring", "bound", ring_2(2, (one, "sealing", "1764100000 1.1.0")))
    put("key_ring", "two_seal", ring_2(2, (one, "sealing", "- -"), (two, "sealing", "- -")))
    put("key_ring", "no_need", ring_2(1, (one, "opening", "- -"), (two, "sealing", "- -")))


def wrapped_ring():
    def slot(kind, how, fill):
        return f"slot {kind} 1764100000 {how} {fill * 12} {fill * 48}\n"

    head, ring = "sdsecurity-wrapped-keys 1\n", "ring " + "cc" * 12 + " " + "dd" * 40 + "\n"
    code, words = slot("recovery", "17 " + "ab" * 16, "01"), slot("passphrase", "15 " + "cd" * 16, "02")
    host, keyring = slot("host", "seal:k6iUCUh0RJCQyvL8k8q1UyAAAAA=", "03"), slot("keyring", "5f" * 16, "04")
    put("wrapped_ring", "recovery", head + code + ring)
    put("wrapped_ring", "all", head + code + words + host + keyring + ring)
    put("wrapped_ring", "twice", head + code + host * 2 + ring)
    put("wrapped_ring", "order", head + host + code + ring)
    put("wrapped_ring", "no_recovery", head + words + ring)
    put("wrapped_ring", "unknown", head + code + slot("palm", "7", "05") + ring)
    put("wrapped_ring", "later", head.replace("1", "2") + code + ring)
    put("wrapped_ring", "cut", head + code + "ring cc")
    put("wrapped_ring", "composed", b"\1\7A\x0fsdsecurity-keys 1\n")
    put("wrapped_ring", "high_bytes", b"\1\xf9\xbe\xf0\x8c\x9b\x8c\xb3\x95curity-keys 1\n")
    put("wrapped_ring", "code", "o123-4567 89ab-cdef ghjk-mnpq-rsjr")


def policy_text():
    for name, text in {
        "usual": "on&&&7", "empty": "&&&5", "earlier": "on7", "digit": "7", "no_number": "on&&&x", "negative": "on&&&-1",
        "no_priority": "on&&&", "beyond": "on&&&2147483648", "largest": "on&&&2147483647", "ampersand": "a&&&&7",
        "twice": "a&&&1&&&2", "zeros": "a&&&00000000000007",
    }.items():
        put("policy_text", name, text)


def lockscreen():
    put("lockscreen", "one", '{"user": {"type": 1}}')
    put("lockscreen", "two", '{"user": {"type": 1}, "other": {}}')
    put("lockscreen", "nested", '{"user": {"a": {"b": 1}}, "other": {}}')
    put("lockscreen", "cut", 'x}{"user": {"type"')


def policy_file():
    policies = {"sd.a": {"value": "on", "priority": 7}, "sd.b": {"priority": 0, "value": "\u00e9"}}
    put("policy_file", "two", json.dumps(policies, indent=1))
    for name, text in {
        "none": "{}", "case": '{"a": {"value": "", "priority": 1}, "A": {"value": "", "priority": 1}}',
        "kinds": '{"a": {"value": "", "priority": 1.5}}', "array": "[1]", "deep": '{"a": {"value": {}}}',
        "field": '{"a": {"v": 1}}', "twice": '{"a": {"value": "x", "value": "y"}}', "mark": "\ufeff{}",
        "escape": '{"\\u0061\\n\\u0000": {"value": "\\ud83d\\ude00", "priority": 128}}', "cut": '{"a": {"value": "x',
    }.items():
        put("policy_file", name, text)
    put("policy_file", "machine", '{"a": {"value": "1", "priority": 7, "description": "why", "users": ["u", 7, "@g"]},\n'
        '"B": {"value": "", "priority": 0}}\x1e{"b": {"value": "2", "priority": 9}, "c": {"users": []}}'
        '\x1e{"A": {"value": "4", "priority": 9}}')  # three files
    put("policy_file", "empty_uri", b"\\ v\\ \x07\0\0\x80")  # an entry to compose: URI, value, priority


def report_page():
    """Texts from the front, and from the back what is there and of which kind: all of it."""
    texts = b"<b>", b"k", b"\xe9&", b"", b"\"'", b"/a/b"
    put("report_page", "whole", b"".join(texts[i % 6] + b"\\ " for i in range(48)) +
        bytes((i * 7 + 1) % 251 | 1 for i in range(40)))


def dbus_call(member, signature, body):
    """A call as it travels, little-endian."""

    def padded(data, to=8):
        return data + bytes(-len(data) % to)

    def text(value):
        return struct.pack("<I", len(value)) + value.encode() + b"\0"

    fields = padded(b"\x01\x01o\0" + text("/")) + padded(b"\x03\x01s\0" + text(member))
    fields += b"\x08\x01g\0" + bytes([len(signature)]) + signature.encode() + b"\0"
    return padded(struct.pack("<cBBBIII", b"l", 1, 0, 1, len(body), 1, len(fields)) + fields) + body


def bus_bytes():
    handshake, two = b"\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n", struct.pack("<I2sxxI2s", 1, b"k", 1, b"v")
    get, put_two = dbus_call("GET_SECURE", "s", two[:6]), dbus_call("SET_SECURE", "ss", two)
    put("bus_bytes", "handshake", b"\0" + handshake + get)
    put("bus_bytes", "anonymous", b"\0\0AUTH ANONYMOUS\r\nNEGOTIATE_UNIX_FD\r\nCANCEL\r\n")
    put("bus_bytes", "two_calls", b"\1" + put_two + get)
    put("bus_bytes", "big_endian", b"\1" + b"B" + get[1:])
    put("bus_bytes", "lying_length", b"\1" + get[:4] + b"\xff\xff\xff\x07" + get[8:])
    # What follows the method and the signature is a body that the target frames.
    for name, signature, body in (
        ("strings", "ss", two), ("bytes", "ay", b"\x02\0\0\0ab"), ("lying_array", "ay", b"\xff\xff\xff\x03ab"),
        ("variants", "av", b"\x0e\0\0\0\x01y\0\x07\x01s\0\0\x01\0\0\0k\0"), ("deep", "v" * 8, b"\x01v\0" * 40),
        ("structs", "a(a{sv})(((y)))", bytes(40)), ("no_signature", "", two), ("unclosed", "a{s(", bytes(8)),
    ):
        put("bus_bytes", name, b"\2\0" + bytes([len(signature)]) + signature.encode() + body)
    # The methods by their place in the target, with what they take.
    k, v = struct.pack("<I2s", 1, b"k"), struct.pack("<I2s", 1, b"v")
    for name, place, signature, body in (
        ("set_list", 1, "yssy", b"\1\0\0\0" + k + b"\0\0" + v + b"\7"), ("get_list", 2, "yss", b"\2\0\0\0" + two),
        ("listen", 3, "ysb", b"\1\0\0\0" + k + b"\0\0\1\0\0\0"), ("set", 4, "ss", two),
    ):
        put("bus_bytes", name, bytes([2, place, len(signature)]) + signature.encode() + body)


def bus_calls():
    methods = "GET_PROPERTY SET_PROPERTY LST_PROPERTY DEL_PROPERTY GET_SECURE SET_SECURE DEL_SECURE GET_CONST " \
        "SIGN_REQUEST VERIFY_SIGN REG_LISTENER UNREG_LISTENER ISALREADY_LISTHENED SET_POLICYLIST SET_POLICY GET_POLICY " \
        "DELETE_POLICY ISSTRONG_CONTROL DM_REGISTER_LISTERNER DM_LIST DM_CLEAR_ALL_KEYS DM_GET_POLICIES unknown".split()

    def calls(name, *sequence):
        """As FuzzedDataProvider takes it apart: texts from the front, each ended by a mark, numbers from the back."""
        front, back = b"", b""
        for method, *arguments in sequence:
            back += bytes([methods.index(method), len(arguments)])
            for argument in arguments:
                if isinstance(argument, bytes):
                    back += b"\x03"
                    front += argument.replace(b"\\", b"\\\\") + b"\\ "
                elif isinstance(argument, bool):
                    back += bytes([6, argument])
                elif isinstance(argument, int):
                    back += bytes([4, argument & 0xFF])
                else:
                    back += argument.kind
        put("bus_calls", name, front + back[::-1])

    class Other:
        def __init__(self, which):
            self.kind = b"\x07" + (1 << 63).to_bytes(8, "big") + bytes([which])

    calls("properties", ("SET_PROPERTY", b"p", b"1"), ("GET_PROPERTY", b"p"), ("LST_PROPERTY",), ("DEL_PROPERTY", b"p"),
          ("SET_PROPERTY", b"ro.p", b"1"), ("DEL_PROPERTY", b"ro.p"))
    calls("secure", ("REG_LISTENER", b"k", True), ("SET_SECURE", b"k", b"one"), ("SET_SECURE", b"K", b"\xe9\0x"),
          ("GET_SECURE", b"k"), ("DEL_SECURE", b"k"), ("UNREG_LISTENER", b"k", True), ("SET_SECURE", b"ro.sd.uuid", b"1"))
    calls("policies", ("DM_REGISTER_LISTERNER", 2, b"a", b"b", True), ("SET_POLICY", b"a", b"on", 9),
          ("SET_POLICYLIST", 2, b"a", b"off", 3, b"b", b"", 7), ("DM_GET_POLICIES", 2, b"a", b"b"), ("DM_LIST",),
          ("ISSTRONG_CONTROL", b"a"), ("GET_POLICY", b"b"), ("DELETE_POLICY", b"a"))
    calls("broken_policy", ("SET_POLICY", b"k", b"x&&&\0", 9), ("GET_SECURE", b"k"), ("DM_LIST",), ("DM_CLEAR_ALL_KEYS",))
    calls("counts", ("ISALREADY_LISTHENED", -1), ("ISALREADY_LISTHENED", 127, b"k"), ("SET_POLICYLIST", 127),
          ("DM_REGISTER_LISTERNER", -128), ("DM_GET_POLICIES", 127), ("DM_GET_POLICIES", 0), ("VERIFY_SIGN", b"a"))
    calls("kinds", ("SIGN_REQUEST", Other(3)), ("GET_CONST", Other(2), Other(1)), ("unknown", Other(0), Other(1)),
          ("SET_SECURE", 1, 2), ("SET_POLICY", Other(3), Other(1), True))


def bus_sequences():
    """A line a step; clients 0 to 2 have a connection each, 3 and 4 are proxies."""
    put("bus_sequences", "listen", """subscribe 0 2\nsubscribe 3 2\nREG_LISTENER 0 true =k\nREG_LISTENER 3 =k
SET_SECURE 1 =k =a\nISALREADY_LISTHENED 4 =k =K\nUNREG_LISTENER 3 =k\nSET_PROPERTY 2 =k =b\nleave 0\nDEL_PROPERTY 2 =k
UNREG_LISTENER 0 =k\nUNREG_LISTENER 0 =k\nSET_SECURE 1 =k =c""")
    put("bus_sequences", "policies", """subscribe 1 1\nsubscribe 4 0\nsubscribe 4 1\nSET_SECURE 0 =k =a
SET_POLICY 2 10 =K =strong\nISSTRONG_CONTROL 3 =k\nGET_SECURE 3 =k\nSET_POLICYLIST 0 4 6 =k =weak =%C3%A4 =b\nDM_LIST 1
DM_GET_POLICIES 1 =k =other\nDELETE_POLICY 2 =k\nwait 2\nDM_CLEAR_ALL_KEYS 2\nGET_POLICY 4 =k\nDEL_SECURE 4 =k""")
    put("bus_sequences", "flips", """subscribe 0 2\nsubscribe 3 1\nREG_LISTENER 0 true =k\nSET_SECURE 1 =k =a\nSET_POLICY 1 10 =k =a
SET_POLICY 1 10 =k =b\nSET_POLICY 4 4 =k =c\nREG_LISTENER 2 =k\nSET_POLICYLIST 4 10 =k =a\nSET_POLICYLIST 4 5 6 =k =a =k =b
DELETE_POLICY 0 =k""")
    put("bus_sequences", "hang_up", """subscribe 0 2\nsubscribe 1 0\nREG_LISTENER 2 true =k\nhang_up 2 0
SET_SECURE 1 =k =1\nSET_SECURE 1 =k =2\nSET_SECURE 1 =k =3\nREG_LISTENER 1 =other\nhang_up 1 2\nGET_SECURE 1 =k
SET_PROPERTY 1 =ro.once =x\nDM_REGISTER_LISTERNER 0 =k =other =\nSET_SECURE 3 =k =4""")
    put("bus_sequences", "restart", """subscribe 3 2\nsubscribe 0 2\nREG_LISTENER 3 true =k\nSET_SECURE 4 =k =1\nrestart 0
SET_SECURE 4 =k =2\nISALREADY_LISTHENED 0 =k\nsubscribe 0 0\nrestart 0\nrestart 0\nDEL_SECURE 0 =k\nUNREG_LISTENER 4 =k""")
    put("bus_sequences", "upkeep", """SET_SECURE 0 =k =1\nSET_POLICY 1 7 =k =2\nKEY_ROTATE 2 true\nSET_SECURE 2 =other =3
KEY_RESEAL 3\nKEY_RESEAL 3\nKEY_PRUNE 2 true\nKEY_PRUNE 2\nGET_SECURE 0 =k\nhang_up 0 0\nTRAIL_STATUS 4\nPOLICIES_STATUS 4
REG_LISTENER 1 =k\nREG_LISTENER 1 =\nLISTENERS_LIST 3 =a\nLISTENERS_LIST 3 =""")
    put("bus_sequences", "rest", """LST_PROPERTY 3\nGET_CONST 4 =x\nSIGN_REQUEST 4 =x\nVERIFY_SIGN 4 =x =x
GET_PROPERTY 0 =ro.once\nSET_PROPERTY 0 =ro.once =1\nSET_PROPERTY 3 =ro.once =2\nDEL_PROPERTY 0 =ro.once
SET_SECURE 0 =encryptedPassword =%E9\nSET_POLICY 0 7 =encryptedPassword =null_value""")


def trail():
    def line(seq, **fields):
        start = {"seq": seq, "utc": "2026-11-25T23:57:03.123456Z", "mono": 4711.123456, "boot": "1a2b3c4d"}
        end = {"ring": "key", "before": "%064x" % seq, "mac": "0" * 32}
        return json.dumps({**start, **fields, **end}, separators=(",", ":")) + "\n"

    caller = {"uid": 1000, "pid": 4711, "exe": "/usr/bin/a", "unit": None, "name_base64": "Yf8=", "gone": True}
    change = line(1, by=caller, what="SET_POLICY", key="a", priority=7, came="changed", new="%032x" % 7, cause=1)
    rotation = line(2, source="trail", what="ROTATE", file="trail-000000000001.jsonl", last=1, oldest=1)
    gap = line(3, source="trail", what="GAP", count=7, why="full", **{"from": "2026-11-25T23:57:03.000000Z"})
    odd = line(4, by=None, what="SET_SECURE", key_base64="gA==", later=[{"a": [1, None, 1e9]}])
    for name, text in {"change": change, "rotation": rotation, "gap": gap, "odd": odd}.items():
        put("trail", name, "\0" + text[:-1])
    put("trail", "no_number", "\0" + line(0, by=None, what="SET_SECURE")[:-1])
    put("trail", "no_what", "\0" + line(1, by=None, what="")[:-1])
    put("trail", "last_number", "\3" + line((1 << 64) - 1, by=None, what="SET_SECURE"))
    put("trail", "file", "\1" + change + rotation + "torn" + gap + "{")
    put("trail", "start", "\3" + change + "torn\x1e" + rotation + gap)
    # A block as zstd stores it, and its mark.
    block = b"\x28\xb5\x2f\xfd\x20\x03\x19\0\0{}\n"
    put("trail", "packed", b"\2" + block + struct.pack("<III", 0x184D2A5E, 4, len(block)))


for make in (build_prop, legacy_cipher, envelope, key_ring, wrapped_ring, policy_text, lockscreen, policy_file, report_page,
             bus_bytes, bus_calls, bus_sequences, trail, descriptions):
    make()
