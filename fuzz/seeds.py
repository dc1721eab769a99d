#!/usr/bin/env python3
"""First inputs for the fuzz targets: seeds.py FOLDER writes FOLDER/TARGET/NNN.

They are what the corpora began with, and what a target that changes its form of input begins with again.
"""
import pathlib
import struct
import sys

URLS = [
    "/", "/a/b", "/a//b", "/%61%2F%62", "/a\\b", "/a%5Cb", "/%2561", "/a/./b", "/a/.", "/a/..", "/a/../b", "/a/%2E%2e/b",
    "/a/..%2fb", "/a/b/../../c", "/a/.../b", "/..", "/./..", "/%", "/%4", "/%00", "/a%1Fb", "/a%20b", "/%C3%A4",
    "/%E2%82%AC", "/%F0%9F%8E%AC", "/%C0%AF", "/%E0%80%AF", "/%ED%A0%80", "/%F4%90%80%80", "/" + "s" * 260,
    "/" + "s" * 261, "/s" * 255, "/s" * 256, "/a?b?c", "HTTP://Host:8/a/b?c", "http://host", "http://host?q", "http:/a",
    "http:///a", "http://u@h/", "http://[::1]:80/zem/", "host:80", "*", "/zem/", "/ZEM", "/zemx", "/media/deep/x",
]
PREFIXES = ["http://*:8080/Zem/", "HTTP://+:80/", "http://*:65536/a/", "http://*:80//a/", "http://*:80/../a/", "http://*:0/media/"]


def url():
    for text in URLS:
        for kind in "goc":
            yield (kind + text).encode()
    for text in PREFIXES:
        yield ("p" + text).encode()


REGISTRY = [
    "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\ZEM]\r\n"
    "\"HttpPort\"=dword:00000050\r\n\"VolumeRoot\"=\"C:\\\\media\"\r\n@=\"default\"\r\n",
    "Windows Registry Editor Version 5.00\n[HKEY_CLASSES_ROOT\\.mxf]\n\"Content Type\"=\"application/mxf\"\n; comment\n",
    "Windows Registry Editor Version 5.00\n[HKEY_LOCAL_MACHINE\\A\\B]\n\"b\"=hex:01,02,\\\n  03,04\n\"e\"=hex(2):61,00,00,00\n"
    "\"m\"=hex(7):61,00,00,00,62,00,00,00,00,00\n\"q\"=hex(b):01,02,03,04,05,06,07,08\n[-HKEY_LOCAL_MACHINE\\A]\n",
    "REGEDIT4\n[HKEY_LOCAL_MACHINE\\A]\n\"e\"=hex(2):61,62,00\n\"x\"=\"a\\\\b\\\"c\\r\\n\"\n\"x\"=-\n",
    "[HKEY_CURRENT_USER\\A]\n\"a\"=dword:1\n[HKEY_NOWHERE]\n\"a\"\n\"a\"=hex(zz):\n\"a\"=dword:123456789\n",
]


def registry():
    here = pathlib.Path(__file__).resolve().parent
    shipped = (here.parent / "packaging" / "zemhttpd.reg").read_bytes()
    yield shipped
    for text in REGISTRY:
        yield text.encode()
        yield b"\xef\xbb\xbf" + text.encode()
        yield b"\xff\xfe" + text.encode("utf-16-le")


XML = [
    "<channelConfig><frameRate>50</frameRate></channelConfig>", "<channelConfig frameRate='file' readAhead='2'/>",
    "<channelConfig frameRate='50'><what>1</what></channelConfig>", "<channelConfig readAhead='2'><readAhead>2</readAhead></channelConfig>",
    "<other/>", "<channelConfig>", "<channelConfig/>", "<?xml version=\"1.0\" encoding=\"utf-16\"?>\r\n<!-- x --><config a='1' b=\"2\">t</config>",
    "<a>&amp;&lt;&gt;&quot;&apos;&#65;&#x1F3AC;</a>", "<a><![CDATA[x < y]]></a>", "<a><?x y?><b/>tail</a>", "<a>&unknown;</a>",
    "<!DOCTYPE a [<!ENTITY x \"y\">]><a>&x;</a>", "<a b='1' b='2'/>", "<a>]]></a>", "<a>" * 128 + "</a>" * 128,
    "<a>" * 129 + "</a>" * 129, "<x:a xmlns:x='u'/>", "<channelConfig><readAhead> 64 </readAhead></channelConfig>",
]


def xml():
    for text in XML:
        yield b"n" + text.encode()
        yield b"w" + text.encode("utf-16-le")


def name(text):
    """An index into the target's table, or the text itself."""
    if isinstance(text, int):
        return bytes([text])
    data = text.encode("latin-1")
    return bytes([21 + len(data)]) + data


def number(value):
    return bytes([value]) if value < 0xF0 else b"\xff" + struct.pack("<I", value)


def command(code, *fields, client=0, flags=0, behind=b""):
    return bytes([code, client, flags]) + b"".join(fields) + behind


def plain(verb, path, fields=b""):
    return b"\xfe" + bytes([verb, len(path)]) + path + bytes([len(fields)]) + fields


def frame(entries):
    """entries: (token, position, lengths)"""
    out = number(0) + number(len(entries))
    for token, position, lengths in entries:
        out += bytes([token]) + number(position) + number(0) + number(len(lengths))
        out += b"".join(number(length) for length in lengths)
    return out


JOIN = command(15, number(3))
LEAVE = command(16)
A, B, DIR, DIR_A, V0, A0, TC, MK = 1, 2, 3, 4, 9, 10, 11, 12


def create(file, kind=1, flags=0, aux=0, client=0):
    return command(1, name(file), name(aux), bytes([kind]), number(flags), client=client)


def open_file(file, flags=1, kind=0, aux=0, client=0):
    return command(2, name(file), name(aux), number(kind), number(flags), b"\0\0", client=client)


def commands():
    write = command(4, frame([(0, 0, [100])])) + command(4, frame([(0, 1, [5000])])) + command(4, frame([(0, 2, [60000])]))
    made = JOIN + create(A) + write
    token = bytes([0])
    yield JOIN + command(17) + LEAVE
    yield made + command(10, token) + command(5, token) + open_file(A) + command(3, frame([(1, 0, [])])) + LEAVE
    yield made + command(3, frame([(0, 0, []), (0, 1, []), (0, 2, []), (0, 3, [])])) + command(6, token) + command(8, token, number(0), number(5), number(0))
    yield made + command(7, name(A), name(0), number(0), number(1)) + command(9, name(A), name(0), number(0), number(1), number(0), number(300))
    yield made + command(11, token) + command(12, name(A), name(0), number(0), number(1)) + command(25, token, number(0), number(2), number(1))
    yield made + command(5, token) + command(13, name(A), name(0), number(0), number(2), number(0x01020304), number(1)) + command(3, frame([(0, 0, [])]))
    yield made + command(5, token) + command(24, name(A), name(DIR_A)) + command(21, name(DIR_A)) + command(23, name(DIR)) + command(19, name(0))
    yield made + command(20, name(A)) + command(22, name(A)) + command(21, name(A)) + command(20, name(A)) + command(22, name(6)) + command(23, name(7))
    yield made + open_file(A, aux=TC) + command(3, frame([(1, 0, []), (1, 1, [])])) + open_file(A, aux=MK, flags=2) + command(4, frame([(2, 0, []), (2, 1, [])]))
    yield JOIN + create(A, kind=3) + command(4, frame([(0, 0, [])])) + command(3, frame([(0, 0, [])])) + create(B, kind=4) + create(B, kind=2, flags=8)
    yield JOIN + JOIN + command(15, number(4), client=1) + create(A) + create(A, client=1) + open_file(A, client=1) + command(3, frame([(0, 0, [])]), client=1)
    yield JOIN + command(18, number(1)) + command(18, number(0), client=1) + command(4, frame([(9, 0, [10])]), client=2)
    text = b"<channelConfig frameRate='50' readAhead='2'/>"
    yield JOIN + command(14, bytes([len(text)]) + text) + command(26, name(15), b"\x0225") + command(26, name(17), b"\x0264")
    yield made + command(14, bytes([len(text)]) + text, flags=16, behind=struct.pack("<H", 20)) + LEAVE
    yield JOIN + command(1, name(A), name(0), b"\x01", number(0), flags=16, behind=struct.pack("<H", 700)) + write + LEAVE
    yield JOIN + create(A) + command(4, frame([(0, 0, [60000] * 6)]), flags=16, behind=struct.pack("<H", 900)) + command(3, frame([(0, 0, [])]))
    yield JOIN + create(A) + command(4, frame([(0, 0, [60000] * 6)]), flags=18, behind=struct.pack("<H", 900)) + command(3, frame([(0, 0, [])]))
    yield JOIN + create(A) + command(4, frame([(0, i, [i * 10]) for i in range(22)])) + command(3, frame([(0, i, []) for i in range(22)])) + LEAVE
    yield made + command(3, frame([(0, 0, [])]), flags=4) + command(17, flags=4) + command(99) + command(0) + command(17, flags=128)
    for code in range(0, 28):
        yield JOIN + command(code, flags=8, behind=number(0xFFFFFFFF)) + command(code, flags=64, behind=struct.pack("<H", 3))
    for path in (b"", b"zem/", b"a", b"dir/a", b"clients", b"status", b"../a", b"a%5c..", b"%C3%A4", b"media/a"):
        yield made + command(5, token) + plain(0, path) + plain(1, path) + plain(2, path) + plain(0, path, b"Range: bytes=0-9\r\n")
    yield plain(0, b"a") + plain(3, b"a", b"Content-Length: 0\r\n") + plain(4, b"zem/") + plain(5, b"zem/", b"Zem-Id: a\r\nContent-Length: 0\r\n")


def main():
    folder = pathlib.Path(sys.argv[1])
    for target in (url, registry, xml, commands):
        out = folder / target.__name__
        out.mkdir(parents=True, exist_ok=True)
        for i, data in enumerate(target()):
            (out / f"seed{i:04}").write_bytes(data)


main()
