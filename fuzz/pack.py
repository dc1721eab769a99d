"""Packs of inputs: "zemfuzz1", then for each input its size (32 bits, little-endian) and its bytes, short ones first."""
import hashlib
import pathlib
import struct

MAGIC = b"zemfuzz1"


def unpack(pack, folder):
    """Writes the inputs of the file `pack`, if there is one, into `folder`, each named by its hash."""
    folder.mkdir(parents=True, exist_ok=True)
    if not pack.exists():
        return
    data = pack.read_bytes()
    if data[:8] != MAGIC:
        raise ValueError(f"{pack} is no pack of inputs")
    at = 8
    while at < len(data):
        (size,) = struct.unpack_from("<I", data, at)
        content = data[at + 4:at + 4 + size]
        if len(content) != size:
            raise ValueError(f"{pack} is cut")
        (folder / hashlib.sha1(content).hexdigest()).write_bytes(content)
        at += 4 + size


def pack(folder, pack, most_bytes):
    """The inputs in `folder` as the file `pack` of at most so many bytes: the longest are left out. The same inputs give the
    same bytes. How many it has."""
    contents = sorted({path.read_bytes() for path in pathlib.Path(folder).iterdir()}, key=lambda c: (len(c), c))
    while len(MAGIC) + sum(4 + len(content) for content in contents) > most_bytes:
        contents.pop()
    pack.parent.mkdir(parents=True, exist_ok=True)
    with open(pack, "wb") as out:
        out.write(MAGIC)
        for content in contents:
            out.write(struct.pack("<I", len(content)) + content)
    return len(contents)
