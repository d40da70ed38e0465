"""Tests of the quorvex Python module: what the binding adds to the library
(argument and error handling, object lifetimes, the GIL) and round trips
checked against a brute-force reference of the search order."""

import ctypes
import gc
import os
import random
import shutil
import threading
from pathlib import Path

import pytest

import quorvex

DATA = Path(os.environ.get("QUORVEX_TEST_DATA", Path(__file__).resolve().parents[2] / "tests" / "data"))


def random_items(seed, count):
    """Keys over a small alphabet (so searches hit and folding merges),
    with case, accents and kana; repeated keys included."""
    rng = random.Random(seed)
    alphabet = "abcAB\u00e9\u00c9\u00df\u30a2\u3042 "
    items = []
    for number in range(count):
        key = "".join(rng.choice(alphabet) for _ in range(rng.randint(1, 6))).strip() or "a"
        items.append((key, f"value {number}".encode()))
    return items


def merged(items):
    """The items as an index holds them: values of one key joined, first
    occurrence's place kept."""
    out = {}
    for key, value in items:
        out[key] = out[key] + b"\n\n" + value if key in out else value
    return list(out.items())


def reference_search(items, keyword, limit, folded):
    """Every item once, by (first character position of the keyword in the
    stored key, stored key as UTF-8 bytes); within one folded entry those
    holding the keyword as typed first, then input order."""
    form = quorvex.fold if folded else (lambda text: text)
    needle = form(keyword.strip())
    found = []
    for order, (key, value) in enumerate(merged(items)):
        stored = form(key)
        at = stored.find(needle)
        if needle and at >= 0:
            found.append((at, stored.encode(), keyword.strip() not in key, order, key, value))
    found.sort()
    return [(key, value, at) for at, _, _, _, key, value in found[:limit]]


def hits_of(index, keyword, limit=20, **options):
    return [(hit.key, bytes(hit.value), hit.position) for hit in index.search(keyword, limit, **options)]


@pytest.fixture
def german_like(tmp_path):
    items = [("Haus", "house"), ("Rathaus", "town hall"), ("haus", "at home"), ("Hausaufgabe", "homework"),
             ("Straße", "street"), ("STRASSE", "STREET"), ("Übersetzung", "translation")]
    quorvex.build(items, tmp_path / "index", name="de-en", description="German-English")
    with quorvex.open(tmp_path / "index") as index:
        yield index


@pytest.mark.parametrize("folded", [True, False])
@pytest.mark.parametrize("seed", range(3))
def test_round_trip_matches_reference(tmp_path, folded, seed):
    items = random_items(seed, 300)
    written = quorvex.build(items, str(tmp_path / "index"), folded=folded, suffix_array=seed != 2)
    assert (tmp_path / "index" / "suffix.bin").exists() == (seed != 2)
    expected = merged(items)
    assert written == len(expected)
    with quorvex.open(tmp_path / "index") as index:
        assert len(index) == len(expected) and index.folded == folded
        stored = [(key, bytes(value)) for key, value in index]
        form = quorvex.fold if folded else (lambda text: text)
        assert stored == sorted(expected, key=lambda item: form(item[0]).encode())
        rng = random.Random(seed)
        for keyword in ["a", "AB", "\u00e9", "\u30a2", "ss", "\u00df", "zz"] + [key for key, _ in rng.sample(items, 20)]:
            for limit in (0, 1, 3, 20, 65535):
                assert hits_of(index, keyword, limit) == reference_search(items, keyword, limit, folded), (keyword, limit)


# The order rules on a small German dictionary: folded keyword, each item
# once, prefix hits first, then by position and key; within one folded
# entry the items holding the keyword as typed first.
@pytest.mark.parametrize("keyword, keys", [
    ("haus", ["haus", "Haus", "Hausaufgabe", "Rathaus"]),
    ("Haus", ["Haus", "haus", "Hausaufgabe", "Rathaus"]),
    ("ＨＡＵＳ", ["Haus", "haus", "Hausaufgabe", "Rathaus"]),
    ("strasse", ["Straße", "STRASSE"]),
    ("STRASSE", ["STRASSE", "Straße"]),
    ("uber", ["Übersetzung"]),
    ("nothing", []),
])
def test_search_order(german_like, keyword, keys):
    assert [hit.key for hit in german_like.search(keyword)] == keys


def test_patterns_typos_and_hit_fields(german_like):
    assert [hit.key for hit in german_like.search("^h?us$", pattern=True)] == ["Haus", "haus"]
    hits = german_like.search("huas", typos=1)
    assert [(hit.key, hit.edits) for hit in hits][:2] == [("Haus", 1), ("haus", 1)]
    hit = german_like.search("rat")[0]
    assert (hit.key, hit.position, hit.edits) == ("Rathaus", 0, 0)
    assert bytes(memoryview(hit)) == bytes(hit.value) == b"town hall"
    assert hit.value.readonly and repr(hit) == "Hit(key='Rathaus', value=<9 bytes>, position=0, edits=0)"
    assert german_like.description["name"] == "de-en"
    assert german_like.description["description"] == "German-English"
    assert german_like.description["items"] == "7"


@pytest.mark.parametrize("call, error, message", [
    (lambda index: index.search("a", -1), ValueError, "limit must be 0..65535"),
    (lambda index: index.search("a", 65536), ValueError, "limit must be 0..65535"),
    (lambda index: index.search("haus", typos=3), ValueError, "typos must be 0, 1 or 2"),
    (lambda index: index.search("^", pattern=True), ValueError, "needs at least one character"),
    (lambda index: index.search("h\\", pattern=True), ValueError, "nothing to escape"),
    (lambda index: index.search("haus", pattern=True, typos=1), ValueError, "typos"),
    (lambda index: index.search("\ud800"), UnicodeEncodeError, ""),
    (lambda index: index.search("\U0001F600"), ValueError, ""),
    (lambda index: index.search(b"haus"), TypeError, ""),
])
def test_search_refuses_bad_arguments(german_like, call, error, message):
    with pytest.raises(error, match=message):
        call(german_like)


@pytest.mark.parametrize("items, error, message", [
    ([("ok", "v"), ("", "v")], ValueError, r"item 1 \(''\): the key is empty"),
    ([("ok", "v"), ("k", b"x" * 65535)], ValueError, "item 1 .*65535 bytes"),
    ([("a" * 255, "v")], ValueError, "item 0 .*255 bytes"),
    ([("\U0001F600", "v")], ValueError, "item 0 .*outside U\\+0001..U\\+FFFE"),
    ([("  ", "v")], ValueError, "folds to nothing"),
    ([("k", "x" * 40000), ("k", "y" * 40000)], ValueError, "item 1 .*merged"),
    ([("k", 5)], TypeError, "item 0: the value must be bytes or str, not int"),
    ([(5, "v")], TypeError, "item 0: the key must be str, not int"),
    ([("k", "v", "extra")], TypeError, "item 0: expected a \\(key, value\\) pair"),
    ([5], TypeError, "item 0: expected"),
    ([("\ud800", "v")], UnicodeEncodeError, ""),
])
def test_build_refuses_bad_items_and_writes_nothing(tmp_path, items, error, message):
    with pytest.raises(error, match=message):
        quorvex.build(items, tmp_path / "out" / "index")
    assert not (tmp_path / "out" / "index").exists()
    assert [path.name for path in (tmp_path / "out").iterdir()] == []


def test_build_places_the_index_atomically(tmp_path):
    target = tmp_path / "index"
    quorvex.build([("alt", "old")], target)
    with pytest.raises(FileExistsError):
        quorvex.build([("neu", "new")], target)
    old = quorvex.open(target)
    assert quorvex.build(iter([("neu", "new")]), target, replace=True) == 1
    assert sorted(os.listdir(tmp_path)) == ["index"]  # no staging left
    assert [hit.key for hit in old.search("alt")] == ["alt"]  # open readers keep the old files
    assert [hit.key for hit in quorvex.open(target).search("neu")] == ["neu"]
    (tmp_path / "other").mkdir()
    (tmp_path / "other" / "notes.txt").write_text("mine")
    with pytest.raises(OSError, match="not a Quorvex index directory"):
        quorvex.build([("k", "v")], tmp_path / "other", replace=True)
    assert (tmp_path / "other" / "notes.txt").read_text() == "mine"


# Each damaged set is the two-item index of tests/data with one record
# broken; the search that meets it raises instead of stopping the process.
@pytest.mark.parametrize("name", ["posting-list-past-index", "key-record-past-key-blob", "key-length-past-key-blob",
                                  "value-past-data-blob", "value-length-past-data-blob"])
def test_damaged_index_raises(name):
    index = quorvex.open(DATA / name)
    with pytest.raises(quorvex.IndexError, match="is damaged"):
        index.search("b")
    assert isinstance(quorvex.IndexError("x"), OSError)
    sound = quorvex.open(DATA / "good")
    assert hits_of(sound, "b") == [("b", b"YZ", 0), ("ab", b"X", 1)]


@pytest.mark.parametrize("directory, message", [
    (DATA / "table-one-byte-short", "table.bin"),
    (DATA / "missing", "missing"),
    (DATA / "folded.tsv", "folded.tsv"),
    ("", "empty"),
])
def test_open_refuses_what_is_not_an_index(directory, message):
    with pytest.raises(quorvex.IndexError, match=message):
        quorvex.open(directory)


def test_iteration_stops_at_damage():
    with pytest.raises(quorvex.IndexError):
        list(quorvex.open(DATA / "key-length-past-key-blob"))


# Views keep the mapped files alive however the index, the hit list and the
# hits go, in any order; a closed index refuses searches, not views.
@pytest.mark.parametrize("drop", ["index", "hits", "close", "iterator"])
def test_views_outlive_their_index(tmp_path, drop):
    items = [(f"key{number}", os.urandom(100)) for number in range(50)]
    quorvex.build(items, tmp_path / "index", folded=False)
    index = quorvex.open(tmp_path / "index")
    hits = index.search("key", 65535)
    views = [hit.value for hit in hits]
    iterator = iter(index)
    if drop == "index":
        del index
    elif drop == "hits":
        del hits
    elif drop == "close":
        index.close()
        with pytest.raises(ValueError, match="closed"):
            index.search("key")
        assert index.closed and repr(index) == "<quorvex.Index (closed)>"
    else:
        del index, hits
        assert [(key, bytes(value)) for key, value in iterator] == sorted(items)
    shutil.rmtree(tmp_path / "index")  # the mapping outlives the files' names too
    gc.collect()
    assert sorted(bytes(view) for view in views) == sorted(value for _, value in items)


def test_threads_search_one_index_in_parallel(tmp_path):
    items = random_items(7, 2000)
    quorvex.build(items, tmp_path / "index")
    index = quorvex.open(tmp_path / "index")
    keywords = ["a", "ab", "\u00e9b", "\u3042", "ss", "bca"]
    expected = {keyword: hits_of(index, keyword, 200) for keyword in keywords}
    outcomes = []
    searched = threading.Barrier(5)

    def search_many():
        try:
            for _ in range(30):
                outcomes.extend(hits_of(index, keyword, 200) == expected[keyword] for keyword in keywords)
            searched.wait()
            searched.wait()  # the index is closed now: its searches refuse, its hits stay readable
            index.search("a")
        except ValueError as error:
            outcomes.append(str(error))

    threads = [threading.Thread(target=search_many) for _ in range(4)]
    for thread in threads:
        thread.start()
    searched.wait()
    index.close()
    searched.wait()
    for thread in threads:
        thread.join()
    assert outcomes.count(True) == 4 * 30 * len(keywords)
    assert sorted(set(outcomes) - {True}) == ["the index is closed"] and len(outcomes) == 4 * 30 * 6 + 4


def library():
    # The module has loaded the library already: its name finds that copy.
    lib = ctypes.CDLL(os.environ.get("QUORVEX_LIBRARY", "libQuorvex.so.0"))
    lib.quorvex_fold.restype = ctypes.c_void_p
    lib.quorvex_fold.argtypes = [ctypes.c_char_p, ctypes.POINTER(ctypes.c_void_p)]
    lib.quorvex_free.argtypes = [ctypes.c_void_p]
    return lib


def test_fold_agrees_with_the_c_interface():
    lib = library()
    rng = random.Random(11)
    ranges = [(0x20, 0x7E), (0xA0, 0x24F), (0x300, 0x36F), (0x370, 0x4FF), (0x3000, 0x30FF), (0xFF00, 0xFFEF),
              (0xAC00, 0xAC20), (0x1F600, 0x1F610)]
    assert quorvex.fold(" Straße  ＨＡＵＳ ") == "strasse haus"
    for _ in range(3000):
        text = "".join(chr(rng.randint(*rng.choice(ranges))) for _ in range(rng.randint(0, 12)))
        folded = lib.quorvex_fold(text.encode(), None)
        expected = ctypes.string_at(folded).decode()
        lib.quorvex_free(folded)
        assert quorvex.fold(text) == expected, repr(text)


def test_readme_example_runs(tmp_path, monkeypatch, capsys):
    readme = (Path(__file__).resolve().parents[2] / "README.md").read_text()
    example = readme.split("```python\n", 1)[1].split("```", 1)[0]
    monkeypatch.chdir(tmp_path)
    exec(compile(example, "README.md", "exec"), {})
    assert capsys.readouterr().out.splitlines()[:3] == ["Haus 0 house", "Rathaus 3 town hall", "['Straße']"]
