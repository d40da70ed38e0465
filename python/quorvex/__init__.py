"""Quorvex: a compact, read-only substring index for dictionaries.

Build an index of (key, value) items once, then find the keys that contain a
keyword, keys that begin with it first, with values handed out as views of
the mapped files::

    import quorvex

    quorvex.build([("Haus", "house"), ("Rathaus", "town hall")], "de-en")
    with quorvex.open("de-en") as index:
        for hit in index.search("haus"):
            print(hit.key, str(hit.value, "utf-8"))

See help(quorvex.Index.search) for the search's order, patterns and typos.
"""

from ._quorvex import FOLDING_VERSION, Hit, Index, IndexError, __version__, build, fold, open

# open and IndexError are left out of a star import, which would hide the
# built-ins of those names: use them as quorvex.open and quorvex.IndexError.
__all__ = ["FOLDING_VERSION", "Hit", "Index", "build", "fold"]

for _name in ("Hit", "Index", "IndexError"):
    globals()[_name].__module__ = __name__
del _name
