#!/usr/bin/env python3
"""Writes src/FoldTables.inc, the tables of the library's folding (src/Fold.cpp),
from the Unicode Character Database of Debian's unicode-data package.

Usage: scripts/generate-fold-tables.py [UNICODE_DIR [OUTPUT]]
       (defaults: /usr/share/unicode and src/FoldTables.inc)

Per code point the tables hold what does not depend on the neighbours:
- the code point's fold: compatibility decomposition and full case folding,
  repeated until nothing changes, then katakana to hiragana, Latin letters with
  a stroke to their base letter, Arabic and Hebrew points dropped and every
  white space character made U+0020;
- its canonical combining class, whether it is a Latin, Greek or Cyrillic
  letter (combining diacritics after such a letter are dropped), and whether
  it can take part in a canonical composition;
and, for the composition, the primary composites by their two parts. Fold.cpp
does the rest: the dropping of diacritics, white space runs, the canonical
order of marks and the composition.
"""
import os
import re
import sys

UNICODE = sys.argv[1] if len(sys.argv) > 1 else "/usr/share/unicode"
OUTPUT = sys.argv[2] if len(sys.argv) > 2 else os.path.join(os.path.dirname(__file__), "..", "src", "FoldTables.inc")
LAST = 0x10FFFF
BLOCK_SHIFT = 7

# Letters with a stroke or bar have no decomposition, yet people type them
# without it. Small letters only: capitals reach them by case folding.
STROKE_LETTERS = {
    0x0142: 0x6C,  # ł
    0x00F8: 0x6F,  # ø
    0x0111: 0x64,  # đ
    0x0127: 0x68,  # ħ
    0x0167: 0x74,  # ŧ
    0x0180: 0x62,  # ƀ
    0x0268: 0x69,  # ɨ
    0x01B6: 0x7A,  # ƶ
}


def points(ranges):
    out = set()
    for first, last in ranges:
        out.update(range(first, last + 1))
    return out


# Vowel points and other marks that only guide pronunciation.
DROPPED = points([
    (0x064B, 0x0652), (0x0670, 0x0670), (0x0640, 0x0640),  # Arabic harakat, superscript alef, tatweel
    (0x0591, 0x05AF), (0x05B0, 0x05BD), (0x05BF, 0x05BF), (0x05C1, 0x05C2),  # Hebrew cantillation and points
    (0x05C4, 0x05C5), (0x05C7, 0x05C7),
])


def read_lines(name):
    with open(os.path.join(UNICODE, name), encoding="utf-8") as f:
        for line in f:
            line = line.split("#", 1)[0].strip()
            if line:
                yield [field.strip() for field in line.split(";")]


def code_range(text):
    first, _, last = text.partition("..")
    return int(first, 16), int(last or first, 16)


def version():
    with open(os.path.join(UNICODE, "CaseFolding.txt"), encoding="utf-8") as f:
        match = re.search(r"CaseFolding-([0-9.]+)\.txt", f.readline())
    return match.group(1) if match else "unknown"


def main():
    decomposition, ccc, category = {}, {}, {}
    for fields in read_lines("UnicodeData.txt"):
        code = int(fields[0], 16)
        category[code] = fields[2]
        if fields[3] != "0":
            ccc[code] = int(fields[3])
        if fields[5]:
            parts = fields[5].split()
            canonical = not parts[0].startswith("<")
            decomposition[code] = ([int(p, 16) for p in (parts if canonical else parts[1:])], canonical)
    # A combining mark keeps its case (U+0345 would fold to a letter, ι, and
    # so out of the canonical order of the marks around it); as a diacritic
    # it goes anyway.
    case_fold = {}
    for fields in read_lines("CaseFolding.txt"):
        code = int(fields[0], 16)
        if fields[1] in ("C", "F") and code not in ccc:
            case_fold[code] = [int(p, 16) for p in fields[2].split()]
    excluded = set()
    for fields in read_lines("CompositionExclusions.txt"):
        excluded.update(range(code_range(fields[0])[0], code_range(fields[0])[1] + 1))
    white_space, lgc = set(), set()
    for fields in read_lines("PropList.txt"):
        if fields[1] == "White_Space":
            first, last = code_range(fields[0])
            white_space.update(range(first, last + 1))
    for fields in read_lines("Scripts.txt"):
        if fields[1] in ("Latin", "Greek", "Cyrillic"):
            first, last = code_range(fields[0])
            lgc.update(c for c in range(first, last + 1) if category.get(c, "").startswith("L"))

    def step(sequence):
        out = []
        for c in sequence:
            if c in decomposition:
                out.extend(decomposition[c][0])
            elif c in case_fold:
                out.extend(case_fold[c])
            else:
                out.append(c)
        return out

    def fold(code):
        sequence = [code]
        while True:
            changed = step(sequence)
            changed = [STROKE_LETTERS.get(c, c) for c in changed]
            if changed == sequence:
                break
            sequence = changed
        out = []
        for c in sequence:
            if c in white_space:
                c = 0x20
            elif 0x30A1 <= c <= 0x30F6:
                c -= 0x60  # katakana to hiragana
            elif c in (0x30FD, 0x30FE):
                c -= 0x60  # the iteration marks
            if c not in DROPPED:
                out.append(c)
        return out

    compositions = {}
    for code, (parts, canonical) in decomposition.items():
        if canonical and len(parts) == 2 and code not in excluded and ccc.get(code, 0) == 0 \
                and ccc.get(parts[0], 0) == 0:
            compositions[(parts[0], parts[1])] = code
    seconds = {second for _, second in compositions}
    seconds.update(range(0x1161, 0x1176))  # Hangul vowels and trailing consonants
    seconds.update(range(0x11A8, 0x11C3))

    sequences = [0]  # offset 0 is never used: a record's mapping 0 means "itself"
    sequence_at = {}
    records = []
    for code in range(LAST + 1):
        folded = fold(code)
        mapping = 0
        if folded != [code]:
            key = tuple(folded)
            if key not in sequence_at:
                sequence_at[key] = len(sequences)
                sequences.append(len(folded))
                sequences.extend(folded)
            mapping = sequence_at[key]
        record = mapping | (ccc.get(code, 0) << 18) | ((code in lgc) << 26) \
            | ((code in seconds or code in ccc) << 27)
        records.append(record)
    assert len(sequences) < (1 << 18)

    block_size = 1 << BLOCK_SHIFT
    blocks, block_at, stage1 = [], {}, []
    for start in range(0, LAST + 1, block_size):
        block = tuple(records[start:start + block_size])
        if block not in block_at:
            block_at[block] = len(blocks)
            blocks.append(block)
        stage1.append(block_at[block])
    # Trailing blocks that are all "itself, class 0" need no stage-1 entries.
    plain = block_at.get(tuple([0] * block_size))
    while stage1 and stage1[-1] == plain:
        stage1.pop()

    pairs = sorted(compositions.items())
    write(version(), stage1, blocks, sequences, pairs)


def numbers(values, per_line, width):
    items = [f"{v:#0{width}x}" if width else str(v) for v in values]
    return "\n".join("    " + ", ".join(items[i:i + per_line]) + "," for i in range(0, len(items), per_line))


def write(unicode_version, stage1, blocks, sequences, pairs):
    flat = [record for block in blocks for record in block]
    with open(OUTPUT, "w", encoding="utf-8") as out:
        out.write(f"""// @generated by scripts/generate-fold-tables.py from the Unicode {unicode_version} data of
// Debian's unicode-data package: do not edit; run the script instead.
// Included by src/Fold.cpp only.

namespace Lexarium::FoldTables {{

constexpr const char* UNICODE_VERSION = "{unicode_version}";

// Code point c's record is RECORDS[(STAGE1[c >> BLOCK_SHIFT] << BLOCK_SHIFT) + (c & BLOCK_MASK)]
// for c >> BLOCK_SHIFT below STAGE1_SIZE, else 0. A record: bits 0-17 the
// offset of the code point's fold in SEQUENCES (0: the code point itself),
// bits 18-25 its canonical combining class, bit 26 set for a Latin, Greek or
// Cyrillic letter, bit 27 for a code point that may join a composition (a
// combining mark, or the second part of a composite).
constexpr uint32_t BLOCK_SHIFT = {BLOCK_SHIFT};
constexpr uint32_t BLOCK_MASK = {(1 << BLOCK_SHIFT) - 1};
constexpr uint32_t STAGE1_SIZE = {len(stage1)};

const uint16_t STAGE1[{len(stage1)}] = {{
{numbers(stage1, 16, 0)}
}};

const uint32_t RECORDS[{len(flat)}] = {{
{numbers(flat, 8, 10)}
}};

// At each offset a record points at: a length n, then n code points.
const uint32_t SEQUENCES[{len(sequences)}] = {{
{numbers(sequences, 10, 0)}
}};

// The primary composites: PAIRS[i] is first << 21 | second, ascending, and
// COMPOSITES[i] what the two compose to. (Hangul is composed by rule.)
constexpr uint32_t PAIR_COUNT = {len(pairs)};

const uint64_t PAIRS[{len(pairs)}] = {{
{numbers([(a << 21) | b for (a, b), _ in pairs], 6, 0)}
}};

const uint32_t COMPOSITES[{len(pairs)}] = {{
{numbers([c for _, c in pairs], 10, 0)}
}};

}}  // namespace Lexarium::FoldTables
""")


if __name__ == "__main__":
    main()
