#!/usr/bin/env python3
"""Cuts a corpus down to at most --keep files before it is committed.

    fuzz/minimize_corpus.py [--keep N] FUZZER CORPUS_DIR

Runs FUZZER (a libFuzzer program) in merge mode over CORPUS_DIR to learn
which coverage edges each input reaches, keeps every seed-* file, then adds
inputs one at a time, each time the one that reaches the most edges not yet
reached, until N files are kept or nothing new is left. Every other file of
CORPUS_DIR is deleted. Prints how many edges the kept files reach of all
that the corpus reached.
"""
import argparse
import os
import subprocess
import sys
import tempfile


def edges_per_input(fuzzer, corpus):
    with tempfile.TemporaryDirectory() as scratch:
        control = os.path.join(scratch, "control")
        merged = os.path.join(scratch, "merged")
        os.mkdir(merged)
        subprocess.run([fuzzer, "-merge=1", "-use_counters=0", "-merge_control_file=" + control, merged, corpus],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        lines = open(control).read().split("\n")
    count = int(lines[0])
    files = lines[2:2 + count]
    edges = {path: set() for path in files}
    for line in lines[2 + count:]:
        fields = line.split()
        if fields and fields[0] == "COV":
            edges[files[int(fields[1])]] = set(fields[2:])
    return edges


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--keep", type=int, default=60, help="files to keep at most (default 60)")
    parser.add_argument("fuzzer")
    parser.add_argument("corpus")
    arguments = parser.parse_args()

    edges = edges_per_input(arguments.fuzzer, arguments.corpus)
    everything = set().union(*edges.values()) if edges else set()
    kept = [path for path in edges if os.path.basename(path).startswith("seed-")]
    reached = set().union(*(edges[path] for path in kept)) if kept else set()
    candidates = [path for path in edges if path not in kept]
    while len(kept) < arguments.keep and candidates:
        best = max(candidates, key=lambda path: (len(edges[path] - reached), -os.path.getsize(path)))
        if not edges[best] - reached:
            break
        kept.append(best)
        reached |= edges[best]
        candidates.remove(best)

    kept_names = {os.path.basename(path) for path in kept}
    for name in os.listdir(arguments.corpus):
        path = os.path.join(arguments.corpus, name)
        if os.path.isfile(path) and name not in kept_names:
            os.remove(path)
    print("kept %d of %d files, reaching %d of %d edges" % (len(kept), len(edges), len(reached), len(everything)))


if __name__ == "__main__":
    sys.exit(main())
