#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (corpus/<target>/seed-*).

The seeds are well-formed cases in each target's input format (see the
comment above LLVMFuzzerTestOneInput in <target>_fuzz.cpp): every text
function with typical values and lengths, every row of the callback table
with a valid tree around its node under each operation, every change handler
called directly, the datastore reads with typical replies, and edit-config
documents of every node family for the engine. The row paths
are read from the built module's callback table.

usage: make_seeds.py <build-dir>   (a main build, e.g. build)
"""
import ctypes
import hashlib
import pathlib
import re
import struct
import sys

HERE = pathlib.Path(__file__).resolve().parent


def text(s):
    b = s.encode() if isinstance(s, str) else s
    if len(b) < 255:
        return bytes([len(b)]) + b
    return b"\xff" + struct.pack("<H", len(b) - 255) + b


def optional_text(s):
    return b"\x00" if s is None else b"\x01" + text(s)


def u16(v):
    return struct.pack("<H", v)


def write(target, name, data):
    d = HERE / "corpus" / target
    d.mkdir(parents=True, exist_ok=True)
    (d / f"seed-{name}-{hashlib.sha1(data).hexdigest()[:12]}").write_bytes(data)


# ---- text functions -------------------------------------------------------
STRSTRIP, REMOVE_PREFIX, SPACES, MARKS, NODE_NAME, ATOI, PROTOCOL, MATRIX, CHILD, MATCH = range(10)


def text_seeds():
    values = ["p1", "  a b  ", "\t\r\n", "", "x" * 127, "x" * 128, " " + "y" * 126 + " ", "my profile",
              "a\"b", "\"a \"", "a?b", "\xe9t\xe9", "x:http", ":http", "x:", "a:b:c", "k:" + "z" * 40, "w" * 32]
    for v in values:
        raw = v.encode("latin-1")
        for size in (128, 32, 1, 0, -1):
            write("text", "strstrip", bytes([STRSTRIP, 0]) + u16(size + 2) + raw)
        write("text", "remove-prefix", bytes([REMOVE_PREFIX, 0]) + u16(len(raw) + 4) + u16(32 + 2) + raw)
        write("text", "spaces", bytes([SPACES, 0]) + raw)
        write("text", "marks", bytes([MARKS, 0]) + raw)
        write("text", "node-name", bytes([NODE_NAME, 0x80]) + u16(128) + raw)
    for v in ["0", "007", "12a", "-1", "4294967295", "4294967296", "86400"]:
        write("text", "atoi", bytes([ATOI, 0]) + u16(len(v)) + v.encode())
    for flags in (1, 2, 3):
        write("text", "null-pointers", bytes([STRSTRIP, flags]) + u16(130) + b"p1")
        write("text", "null-pointers", bytes([MATRIX, flags]) + text("both") + text("block") + b"http")
    protocols = ["http", "ftp", "smtp", "pop3", "imap", "nfs", "smb", "HTTP", "http2", " smtp "]
    for p in protocols:
        write("text", "protocol", bytes([PROTOCOL, 0]) + u16(32) + p.encode())
    for p in protocols[:7]:
        for d in ["", "none", "both", "upload", "download", "Upload"]:
            for a in ["", "alert", "block", "declare", "delete-attachment"]:
                write("text", "matrix", bytes([MATRIX, 0x80]) + text(d) + text(a) + p.encode())
    for reader in range(3):
        for kind in range(2):
            for content in [" value ", None, "", "x" * 40]:
                write("text", "child", bytes([CHILD, 0, reader, kind]) + u16(32) + u16(32) + optional_text(content))
        write("text", "child", bytes([CHILD, 0, reader, 2]) + text("other") + u16(32) + u16(32) + optional_text("v"))
    for value in ["www.example.com", "*.example.com", "www.example.*", "*example*", "*", ""]:
        for t in ["prefix", "suffix", "fuzzy", "exact", "other"]:
            write("text", "match-type", bytes([MATCH, 0]) + text(t) + value.encode())


# ---- change handlers -----------------------------------------------------
# Keys and settings of each list entry or container on a row's path.
ENTRY_CHILDREN = {
    "vsys": [("name", "vs1")],
    "profile": [("name", "p1")],
    "detect": [("protocol-type", "http")],
    "detect-configuration": [("direction", "both"), ("action", "block")],
    "exception-application": [("application-name", "app1"), ("application-action", "allow")],
    "exception-signature": [("id", "1001"), ("action", "block-source-ip"), ("timeout", "60")],
    "match-rule": [("scope", "url"), ("type", "exact"), ("value", "www.example.com")],
    "source-address-range": [("start-address", "10.0.0.1"), ("end-address", "10.0.0.9")],
    "destination-address-range": [("start-address", "10.1.0.1"), ("end-address", "10.1.0.9")],
}
# Values of the leaves.
LEAF_TEXT = {
    "name": "vs1", "antivirus-enable": "true", "description": "web profile",
    "collect-attack-evidence-enable": "true", "interworking-detect-enable": "false",
    "heuristic-detect-enable": "true", "protocol-type": "http", "direction": "both", "action": "block",
    "application-name": "app1", "application-action": "allow", "exception-signature-id": "1001", "id": "1001",
    "timeout": "60", "scope": "url", "type": "exact", "value": "www.example.com", "source-address": "10.1.1.1",
    "destination-address": "10.2.2.2", "start-address": "10.0.0.1", "end-address": "10.0.0.9",
    "file-reputation-age-time": "7", "file-reputation-age-time-hour": "12",
}
ADD, REM, MOD, CHAIN = 1, 2, 4, 8


def entry(name, value):
    return b"\xff" + text(name) + optional_text(value)


def tree(steps, leaf_text):
    out = b""
    for i, step in enumerate(steps):
        nxt = steps[i + 1] if i + 1 < len(steps) else None
        children = [entry(n, v) for n, v in ENTRY_CHILDREN.get(step, []) if n != nxt]
        if nxt is None and step not in ENTRY_CHILDREN and leaf_text is not None:
            children.append(entry("#text", leaf_text))
        out += bytes([len(children)]) + b"".join(children[:4])
    return out


def handler_case(mode, row, handler, op, steps, leaf_text, verdict=0, parents=(0,) * 8):
    head = bytes([mode, row, handler]) + struct.pack("<I", op & 0xFFFFFFFF) + struct.pack("<b", verdict)
    return head + bytes(parents) + tree(steps, leaf_text)


def load_table(build):
    """The rows (path, function address) of the built module's callback table,
    and the address of each exported function of the names given."""
    runtime = next(pathlib.Path(build).rglob("ietf-interfaces.so"))
    module = next(pathlib.Path(build).rglob("tavrik-antivirus.so"))
    # What a host program has loaded before the module: libxml2 and the runtime.
    for lib in ("libxml2.so.2", str(runtime)):
        ctypes.CDLL(lib, mode=ctypes.RTLD_GLOBAL)
    lib = ctypes.CDLL(str(module))

    class Row(ctypes.Structure):
        _fields_ = [("path", ctypes.c_char_p), ("func", ctypes.c_void_p), ("priority", ctypes.c_int),
                    ("schema_path", ctypes.c_char_p)]

    header = ctypes.c_int.in_dll(lib, "clbks")
    rows = (Row * header.value).from_address(ctypes.addressof(header) + 16)
    return [(r.path.decode(), r.func) for r in rows], lambda name: ctypes.cast(getattr(lib, name), ctypes.c_void_p).value


def handler_seeds(build):
    rows, address = load_table(build)
    handlers = re.findall(r'"(callback_AV_\w+)"', (HERE / "handlers_fuzz.cpp").read_text())
    for index, (path, _) in enumerate(rows):
        steps = [s.split(":")[-1] for s in path.strip("/").split("/")]
        leaf = LEAF_TEXT.get(steps[-1])
        ops = (ADD, REM, MOD, CHAIN) if "antivirus-state" not in path else (ADD,)
        for op in ops:
            write("handlers", f"row{index}", handler_case(0, index, 0, op, steps, leaf))
        write("handlers", f"row{index}-bad", handler_case(2, index, 0, ADD, steps, " ?bad \"value\" "))
        write("handlers", f"row{index}-refused", handler_case(4, index, 0, ADD, steps, leaf, verdict=5))
        write("handlers", f"row{index}-parent-removed", handler_case(0, index, 0, ADD, steps, leaf, parents=(REM,) * 8))
    # Each change handler called directly, on the path of its ADD row.
    for h, name in enumerate(handlers):
        wrapper = address(name + "_ADD")
        index = next(i for i, (_, f) in enumerate(rows) if f == wrapper)
        steps = [s.split(":")[-1] for s in rows[index][0].strip("/").split("/")]
        for op in (ADD, REM, CHAIN, 16, -1):
            write("handlers", f"direct{h}", handler_case(1, index, h, op, steps, LEAF_TEXT.get(steps[-1])))


# ---- datastore reads -----------------------------------------------------
def reads_seeds():
    state = b"<antivirus-state xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\">\n  <vsys><name>public</name></vsys>\n</antivirus-state>"
    config = b"<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\"><global/></antivirus>\x00"
    for model in (0, 1, 15, 16, 32):
        for flags in (0, 1, 3):
            for verdict in (0, -1):
                for payload in (state, config, b"", b"<a><b></a>", b"<a/>\x00<b/>"):
                    write("reads", "reply", bytes([model, flags]) + struct.pack("<b", verdict) + text("KX-11 ") + payload)


# ---- engine ----------------------------------------------------------------
NS = 'xmlns="urn:tavrik:params:xml:ns:yang:tavrik-antivirus" xmlns:nc="urn:ietf:params:xml:ns:netconf:base:1.0"'


def av(body):
    return f"<antivirus {NS}>{body}</antivirus>"


def p1(body, vsys="vs1", profile="p1", attrs=""):
    return av(f"<vsys><name>{vsys}</name><profiles><profile {attrs}><name>{profile}</name>{body}</profile></profiles></vsys>")


def op(o):
    return f'nc:operation="{o}"'


def engine_seeds():
    detect = ("<detect><protocol-type>pop3</protocol-type><detect-configuration><direction>download</direction>"
              "<action>delete-attachment</action></detect-configuration></detect>")
    edits = [
        p1("", vsys="vs2", profile="p2"),
        p1("<description>two  words</description><collect-attack-evidence-enable>true</collect-attack-evidence-enable>"
           "<interworking-detect-enable>false</interworking-detect-enable>"),
        p1(detect),
        p1(f"<detect {op('delete')}><protocol-type>http</protocol-type></detect>"),
        p1("<detect><protocol-type>http</protocol-type><detect-configuration><direction>none</direction>"
           "</detect-configuration></detect>"),
        p1("<detect><protocol-type>smtp</protocol-type><detect-configuration><direction>both</direction>"
           "</detect-configuration></detect>"),
        p1("<exception-application><application-name>app2</application-name><application-action>block"
           "</application-action></exception-application>"),
        p1(f"<exception-application {op('remove')}><application-name>app1</application-name></exception-application>"),
        p1("<exception-signature-id>3003</exception-signature-id><exception-signature><id>4004</id>"
           "<action>allow</action></exception-signature>"),
        p1(f"<exception-signature><id>2002</id><timeout {op('delete')}>60</timeout></exception-signature>"),
        p1("<whitelists><match-rules><match-rule><scope>host</scope><type>fuzzy</type><value>*example*</value>"
           "</match-rule></match-rules><source-address-range><start-address>10.2.0.1</start-address>"
           "<end-address>10.2.0.5</end-address></source-address-range><destination-address>10.3.3.3"
           "</destination-address></whitelists>"),
        p1(f"<whitelists {op('replace')}><source-address>10.9.9.9</source-address></whitelists>"),
        p1("", attrs=op("delete")),
        p1("", profile="p9", attrs=op("delete")),
        p1("", attrs=op("create")),
        p1("<description>a ? b</description>"),
        p1('<whitelists><match-rules><match-rule><scope>url</scope><type>exact</type><value>a"b c</value>'
           "</match-rule></match-rules></whitelists>"),
        av("<vsys><name>public</name><antivirus-enable>true</antivirus-enable></vsys>"),
        av(f"<vsys {op('remove')}><name>vs1</name></vsys>"),
        av("<global><file-reputation-age-time-hour>12</file-reputation-age-time-hour></global>"),
        av(f"<global><file-reputation-age-time {op('delete')}/></global>"),
        '<config xmlns="urn:ietf:params:xml:ns:netconf:base:1.0">' + p1("<description>x</description>") + "</config>",
        av("<vsys><name>vs1</name><profiles><profile><name>p1</name><unknown/></profile></profiles></vsys>"),
        p1("<description>x</description"),
        p1(f"<description {op('bogus')}>x</description>"),
        "",
    ]
    for i, edit in enumerate(edits):
        for flags, accepted in ((0, 0), (1, 0), (2, 0), (4, 0), (8, 0), (16, 0), (16, 1)):
            write("engine", f"edit{i}", bytes([flags, accepted]) + edit.encode())


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    text_seeds()
    handler_seeds(sys.argv[1])
    reads_seeds()
    engine_seeds()
