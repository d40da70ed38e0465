#!/usr/bin/env python3
"""Writes the damaged index file sets under tests/data/.

Each set starts from the two-item index ("ab" -> 58, "b" -> 59 5A) and
breaks one thing; see README.md beside this script. The sets are committed;
run this only to change or add one.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def table(rows):
    out = bytearray()
    for code_point in range(65535):
        cells = rows.get(code_point, [])
        out.append(len(cells))
        for offset, count in cells:
            out += struct.pack("<II", offset, count)
    return bytes(out)


GOOD_ROWS = {97: [(4, 1)], 98: [(8, 1), (12, 1)]}
GOOD = {
    "table.bin": table(GOOD_ROWS),
    "index.bin": struct.pack("<IIII", 0, 0, 7, 0),
    "key.bin": bytes([0, 0, 0, 0, 2, 0x61, 0x62, 3, 0, 0, 0, 1, 0x62]),
    "data.bin": bytes([1, 0, 0x58, 2, 0, 0x59, 0x5A]),
}


def write(name, **changes):
    directory = os.path.join(HERE, name)
    os.makedirs(directory, exist_ok=True)
    files = dict(GOOD)
    files.update({key.replace("_", ".", 1): value for key, value in changes.items()})
    for file_name, content in files.items():
        with open(os.path.join(directory, file_name), "wb") as f:
            f.write(content)


write("good")
# Row 'b', cell 1 claims 100 entries from offset 12: the list runs past index.bin.
write("posting-list-past-index", table_bin=table({97: [(4, 1)], 98: [(8, 1), (12, 100)]}))
# The posting list of row 'b', cell 0 points at offset 12 of key.bin, its
# last byte: no room for a key record header.
write("key-record-past-key-blob", index_bin=struct.pack("<IIII", 0, 0, 12, 0))
# The key "b" claims 200 bytes of text.
write("key-length-past-key-blob", key_bin=bytes([0, 0, 0, 0, 2, 0x61, 0x62, 3, 0, 0, 0, 200, 0x62]))
# The key "b" points at offset 6 of data.bin: its value header runs past the blob.
write("value-past-data-blob", key_bin=bytes([0, 0, 0, 0, 2, 0x61, 0x62, 6, 0, 0, 0, 1, 0x62]))
# The value of "b" claims 300 bytes.
write("value-length-past-data-blob", data_bin=bytes([1, 0, 0x58, 0x2C, 1, 0x59, 0x5A]))
# table.bin one byte short of its last row.
write("table-one-byte-short", table_bin=table(GOOD_ROWS)[:-1])
