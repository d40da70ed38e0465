#!/usr/bin/python3
"""Plants faults one at a time and tells which tests catch each.

    scripts/mutate.py [--only NAME] [WORK_DIR]

Copies the sources into WORK_DIR (default /tmp/quorvex-mutate), builds them
once (optimised, without link-time optimisation, so that a fault rebuilds
quickly) and runs the normal test suite; then, for each fault below,
replaces one exact piece of one file with the faulty piece, rebuilds, runs
the suite again and puts the file back. Prints, per fault, the tests that
failed, or "NOT CAUGHT". Exits 1 when a fault went uncaught (or when the
suite fails before any fault is planted).

A fault is (name, file, the text as it stands, the text with the fault).
The text as it stands must occur exactly once: when the code moves on, the
script says which fault no longer applies instead of planting nothing.
"""

import argparse
import os
import re
import shutil
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

FAULTS = [
    # Records and bounds.
    ("key record bound off by one", "src/Records.h",
     "        return key.size() <= length - offset;", "        return key.size() < length - offset;"),
    ("value record unchecked", "src/Records.h",
     "        return value.size() <= length - offset;", "        return true;"),
    ("overlong UTF-8 accepted", "src/Utf8.h",
     "    if (value < SMALLEST[size] || value > 0x10FFFF) {", "    if (value > 0x10FFFF) {"),
    # Posting lists and the search.
    ("a scan skips an entry", "src/Reader/PostingList.cpp",
     "            cursor += 8;\n            ++scans;", "            cursor += 9;\n            ++scans;"),
    ("a rotation missing from the merge", "src/Reader/PostingList.cpp",
     "_mm_cmpeq_epi32(four_a, _mm_shuffle_epi32(four_b, _MM_SHUFFLE(2, 1, 0, 3)))",
     "_mm_cmpeq_epi32(four_a, four_b)"),
    ("last position one short", "src/Reader/IndexReader.cpp",
     "last = std::min(last, cells - 1 - static_cast<int32_t>(j));",
     "last = std::min(last, cells - 2 - static_cast<int32_t>(j));"),
    ("limit passed by one", "src/Reader/IndexReader.cpp", "        if (total >= limit) {", "        if (total > limit) {"),
    ("loader arguments swapped", "src/Reader/IndexReader.cpp",
     "    return from_bytes(table, index, key, data);", "    return from_bytes(table, index, data, key);"),
    ("mapped open without the sentinel check", "src/Reader/MappedIndex.cpp",
     "    if (mapped->index.length < Format::INDEX_SENTINEL_SIZE) {", "    if (false) {"),
    # The suffix array.
    ("suffix run one short", "src/SuffixArray.cpp", "    last = high;\n    return sound;", "    last = high - 1;\n    return sound;"),
    ("suffix occurrences not deduplicated", "src/Reader/Find.cpp",
     "        if (i == 0 || by_key[i] >> 8 != by_key[i - 1] >> 8) {", "        if (true) {"),
    # Folded, pattern and typo searches.
    ("keyword not trimmed at its end", "src/Reader/Find.cpp",
     "    while (end > begin && is_space(text[end - 1])) {", "    while (false) {"),
    ("three typos accepted", "src/Reader/Find.cpp", "            if (options.typos > 2) {",
     "            if (options.typos > 3) {"),
    ("typos let into a pattern", "src/Reader/Find.cpp", "            if (options.typos != 0) {", "            if (false) {"),
    ("typo budget from 3 characters", "src/Reader/Approximate.cpp",
     "keyword.size() < 4 ? 0 :", "keyword.size() < 3 ? 0 :"),
    ("a swap counted as two edits", "src/Reader/Approximate.cpp",
     "value = std::min(value, two_above[j - 2] + 1);", "value = std::min(value, two_above[j - 2] + 2);"),
    ("folding keeps capitals", "src/Fold.cpp",
     "byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte", "byte"),
    ("folding keeps diacritics", "src/Fold.cpp",
     "        if (code_point >= 0x300 && code_point <= 0x36F && this->after_letter_with_diacritics) {",
     "        if (false) {"),
    # The verifier.
    ("verifier lets a repeated entry pass", "src/IndexVerifier.cpp",
     "} else if (i > 0 && entry <= previous) {", "} else if (i > 0 && entry < previous) {"),
    ("verifier trusts the cells' characters", "src/IndexVerifier.cpp",
     "                    if (text[cell.position] != cell.row) {", "                    if (false) {"),
    # Writing.
    ("long key cut by two characters", "src/Writer/IndexWriter.cpp",
     "            wide.resize(wide.size() - 1);", "            wide.resize(wide.size() - 2);"),
    ("merged articles without a blank line", "src/Writer/IndexBuilder.cpp",
     "        joined += '\\n';\n    }\n    joined += '\\n';", "        joined += '\\n';\n    }"),
    ("an existing index replaced unasked", "src/Writer/IndexDirectory.cpp",
     "    if (exists && !replace) {", "    if (false) {"),
    # The C interface.
    ("mapped open reports no error", "src/CApi.cpp",
     "    if (error != nullptr) {\n        *error = copy_for_caller(why);\n    }\n    return nullptr;", "    return nullptr;"),
    ("edits reported as the position", "src/CApi.cpp",
     "return index < hits->hits.size() ? hits->hits[index].edits : 0;",
     "return index < hits->hits.size() ? hits->hits[index].position : 0;"),
    # The tool.
    ("verify passes a damaged index", "tools/quorvex/QueryCommands.cpp",
     "    return verification.is_sound() ? EXIT_OK : EXIT_DATA;", "    return EXIT_OK;"),
    ("byte order mark kept", "tools/quorvex/ItemSources.cpp",
     '        if (number == 1 && line.compare(0, 3, "\\xEF\\xBB\\xBF") == 0) {', "        if (false) {"),
    ("TSV \\n read as n", "tools/quorvex/ItemSources.cpp",
     "            case 'n': out += '\\n'; break;", "            case 'n': out += 'n'; break;"),
    ("dictd digit off by one", "tools/quorvex/ItemSources.cpp",
     "            digit = c - 'a' + 26;", "            digit = c - 'a' + 25;"),
    # The Python binding.
    ("a hit does not hold its mapping", "python/src/QuorvexModule.cpp",
     "    Py_INCREF(owner);\n    self->owner = owner;", "    self->owner = owner;"),
    ("Python build does not merge", "python/src/QuorvexModule.cpp",
     "    settings.merge_duplicates = true;", "    settings.merge_duplicates = false;"),
    ("Python search hides damage", "python/src/QuorvexModule.cpp",
     "        if (damage_of(reader) != damage_before) {\n            raise_damaged(open);",
     "        if (false) {\n            raise_damaged(open);"),
    ("Python limit above 65535 let through", "python/src/QuorvexModule.cpp",
     "        if (limit < 0 || limit > 65535) {", "        if (limit < 0) {"),
]

COPIED = ["CMakeLists.txt", "README.md", "pyproject.toml", "setup.py", "setup.cfg", "cmake", "src", "tools", "tests",
          "fuzz", "python", "examples", "data", "scripts"]


def run(command, cwd, log):
    with open(log, "w") as out:
        return subprocess.run(command, cwd=cwd, stdout=out, stderr=subprocess.STDOUT).returncode


def failed_tests(log):
    text = open(log, errors="replace").read()
    if "The following tests FAILED:" not in text:
        return []
    listed = text.split("The following tests FAILED:", 1)[1]
    return re.findall(r"^\s+\d+ - (\S+)", listed, re.M)


def build_and_test(work, name):
    build = os.path.join(work, "build")
    log = os.path.join(work, name + ".log")
    if run(["cmake", "--build", build, "-j", str(os.cpu_count() or 2)], work, log) != 0:
        return ["(the build failed)"]
    run(["ctest", "--test-dir", build, "-j", str(os.cpu_count() or 2), "--timeout", "300"], work, log)
    return failed_tests(log)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("work", nargs="?", default="/tmp/quorvex-mutate")
    parser.add_argument("--only", help="plant only the fault of this name")
    options = parser.parse_args()
    work = options.work
    source = os.path.join(work, "src")
    os.makedirs(work, exist_ok=True)
    shutil.rmtree(source, ignore_errors=True)
    os.makedirs(source)
    for entry in COPIED:
        origin = os.path.join(ROOT, entry)
        target = os.path.join(source, entry)
        (shutil.copytree if os.path.isdir(origin) else shutil.copy2)(origin, target)
    configure = ["cmake", "-S", source, "-B", os.path.join(work, "build"), "-DCMAKE_BUILD_TYPE=Release",
                 "-DQUORVEX_LTO=OFF", "-DPYTHON_EXECUTABLE=/usr/bin/python3"]
    if run(configure, work, os.path.join(work, "configure.log")) != 0:
        sys.exit("configuring failed; see " + os.path.join(work, "configure.log"))
    baseline = build_and_test(work, "baseline")
    if baseline:
        sys.exit("the suite fails before any fault is planted: " + " ".join(baseline))

    uncaught = 0
    for name, path, sound, faulty in FAULTS:
        if options.only and name != options.only:
            continue
        file = os.path.join(source, path)
        text = open(file).read()
        if text.count(sound) != 1:
            print(f"{name}: does not apply ({path} holds the sound text {text.count(sound)} times)")
            uncaught += 1
            continue
        open(file, "w").write(text.replace(sound, faulty))
        try:
            caught = build_and_test(work, re.sub(r"\W+", "-", name))
        finally:
            open(file, "w").write(text)
        print(f"{name}: {' '.join(caught) if caught else 'NOT CAUGHT'}", flush=True)
        uncaught += 0 if caught else 1
    build_and_test(work, "restored")
    sys.exit(1 if uncaught else 0)


if __name__ == "__main__":
    main()
