#!/usr/bin/python3
"""What the Python binding costs over the library, and how it compares with
what a Python user would pick instead: the standard sqlite3 module with an
FTS5 trigram table. Everything runs in this one process, peers side by side.

Usage: PYTHONPATH=build/python python3 bench/python_timing.py INDEX_DIR [KEYWORDS]

INDEX_DIR is a folded index (quorvex build makes one from
/usr/share/dictd/freedict-deu-eng.index); KEYWORDS (default 150) keywords of
3 to 6 characters are cut at random places from its keys, with a fixed seed.
Prints medians and p99 in microseconds; times are per call.
"""

import random
import sqlite3
import statistics
import sys
import threading
import time

import quorvex


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def summary(name, nanoseconds):
    micro = [value / 1000 for value in nanoseconds]
    print(f"  {name:<44} median {statistics.median(micro):9.2f} us   p99 {percentile(micro, 0.99):9.2f} us")
    return statistics.median(micro)


def timed(call, repeats):
    times = []
    for _ in range(repeats):
        start = time.perf_counter_ns()
        call()
        times.append(time.perf_counter_ns() - start)
    return times


def keywords_of(index, count):
    rng = random.Random(20261124)
    keys = [key for key, _ in index]
    chosen = []
    while len(chosen) < count:
        key = quorvex.fold(rng.choice(keys))
        length = rng.randint(3, 6)
        if len(key) >= length:
            start = rng.randint(0, len(key) - length)
            chosen.append(key[start:start + length])
    return chosen


def open_costs(directory, note):
    # Readers of one index in a process share its mapping: with another
    # reader open, an open only takes a reference to it.
    print(f"open, {note} (each reader released before the next open)")
    native, python = [], []
    for _ in range(300):
        native += quorvex._quorvex._time_native_open(directory, 1)
        start = time.perf_counter_ns()
        index = quorvex.open(directory)
        python.append(time.perf_counter_ns() - start)
        index.close()
    native_median = summary("C++ IndexReader::from_directory_mapped", native)
    python_median = summary("quorvex.open", python)
    print(f"  binding's cost per open: {python_median - native_median:.2f} us at the median")


def read_all(index, keyword, limit):
    return [(hit.key, bytes(hit.value)) for hit in index.search(keyword, limit)]


# Each keyword is searched once first (its pages mapped in); then the C++
# call, the binding's call and the binding's call with every hit read take
# turns, so that no peer gets warmer caches than another.
def compare_calls(index, keyword, limit, repeats):
    index.search(keyword, limit)
    native, bound, touched = [], [], []
    for _ in range(repeats):
        native += index._time_native_search(keyword, limit, 1)
        bound += timed(lambda: index.search(keyword, limit), 1)
        touched += timed(lambda: read_all(index, keyword, limit), 1)
    return native, bound, touched


def search_costs(index, keywords, limit, repeats=5):
    native, bound, touched, paired = [], [], [], []
    hits = 0
    for keyword in keywords:
        times = compare_calls(index, keyword, limit, repeats)
        native, bound, touched = native + times[0], bound + times[1], touched + times[2]
        paired.append(statistics.median(times[1]) - statistics.median(times[0]))
        hits += len(index.search(keyword, limit))
    print(f"search, limit {limit}, {len(keywords)} keywords x {repeats}, {hits / len(keywords):.1f} hits a keyword")
    summary("C++ IndexReader::find", native)
    summary("Index.search", bound)
    summary("Index.search, then every key and bytes(value)", touched)
    summary("Index.search less C++, keyword by keyword", paired)
def per_hit_cost(index, keywords):
    print("limit 65535: the binding's cost per hit (medians of 15 calls)")
    for keyword in keywords:
        count = len(index.search(keyword, 65535))
        native, bound, touched = (statistics.median(times) for times in compare_calls(index, keyword, 65535, 15))
        print(f"  {keyword!r:>6}: {count:6d} hits, C++ {native / 1000:8.1f} us, Index.search {bound / 1000:8.1f} us"
              f" -> {(bound - native) / count:5.1f} ns a hit; {(touched - native) / count:5.1f} ns with key and"
              " value read")


def threads_speedup(index, keywords, **options):
    def run():
        for keyword in keywords:
            index.search(keyword, 20, **options)

    run()
    start = time.perf_counter()
    run()
    run()
    serial = time.perf_counter() - start
    threads = [threading.Thread(target=run) for _ in range(2)]
    start = time.perf_counter()
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    parallel = time.perf_counter() - start
    print(f"  {options or 'plain'}: one thread {serial * 1000:.1f} ms, two threads {parallel * 1000:.1f} ms "
          f"({serial / parallel:.2f}x)")


def sqlite_peer(index, keywords, repeats=5):
    database = sqlite3.connect(":memory:")
    database.execute("CREATE VIRTUAL TABLE items USING fts5(key, value UNINDEXED, tokenize='trigram case_sensitive 0')")
    database.executemany("INSERT INTO items VALUES (?, ?)", ((key, bytes(value)) for key, value in index))
    query = "SELECT key, value FROM items WHERE key MATCH ? LIMIT 20"
    print(f"sqlite3 FTS5 trigram (SQLite {sqlite3.sqlite_version}, case_sensitive 0, in memory), limit 20, same keywords")
    fts = []
    for keyword in keywords:
        phrase = '"' + keyword.replace('"', '""') + '"'
        database.execute(query, (phrase,)).fetchall()
        fts += timed(lambda: database.execute(query, (phrase,)).fetchall(), repeats)
    ours = []
    for keyword in keywords:
        ours += timed(lambda: read_all(index, keyword, 20), repeats)
    fts_median = summary("sqlite3: MATCH, fetchall()", fts)
    ours_median = summary("quorvex: Index.search, every key and bytes(value)", ours)
    print(f"  quorvex / sqlite3 at the median: {ours_median / fts_median:.2f}")


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    directory = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 150
    open_costs(directory, "no other reader of the index open")
    index = quorvex.open(directory)
    print(f"{index!r}, {count} keywords")
    keywords = keywords_of(index, count)
    open_costs(directory, "another reader of the index open")
    search_costs(index, keywords, 20)
    per_hit_cost(index, ["e", "en", "ung"])
    print("threads: the same searches twice, by one thread, then by two at once (the GIL is released while the"
          " library searches)")
    threads_speedup(index, keywords)
    threads_speedup(index, [keyword for keyword in keywords if len(keyword) >= 4][:40], typos=1)
    sqlite_peer(index, keywords)


if __name__ == "__main__":
    main()
