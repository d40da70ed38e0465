"""Quorvex: a compact, read-only substring index for dictionaries."""

import os
from typing import Iterable, Iterator, Optional, Tuple, Union

_Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
_Value = Union[bytes, bytearray, memoryview, str]

__version__: str
FOLDING_VERSION: int
"""The version of fold(); a folded index records the one its keys were folded with."""

class IndexError(OSError):
    """An index that cannot be opened, or whose records turn out damaged."""

class Hit:
    """One hit of Index.search(); also a buffer: memoryview(hit) is the value."""

    @property
    def key(self) -> str:
        """The item's key as it was put in."""
    @property
    def value(self) -> memoryview:
        """The item's value: a read-only view of the mapped data.bin that keeps the files mapped."""
    @property
    def position(self) -> int:
        """The character of the stored key at which the match begins."""
    @property
    def edits(self) -> int:
        """The edits the match took: 0 but with typos."""

class Index:
    """An open index, its four files mapped read-only; made by quorvex.open()."""

    def search(self, keyword: str, limit: int = 20, *, pattern: bool = False, typos: int = 0) -> list[Hit]:
        """The items whose keys contain `keyword`, keys that begin with it first, each item once.

        pattern=True: "?" is any character, "^"/"$" anchor, "\\" escapes.
        typos=1 or 2: keys within that many edits too, fewest edits first.
        """
    def __len__(self) -> int:
        """The number of items."""
    def __iter__(self) -> Iterator[Tuple[str, memoryview]]:
        """Every (key, value) item in the index's key order."""
    @property
    def description(self) -> dict[str, str]:
        """What the index says about itself (name, description, source, tool, folding, items, ...)."""
    @property
    def folded(self) -> bool:
        """Whether keys are stored folded."""
    @property
    def path(self) -> str:
        """The directory the index was opened from."""
    @property
    def closed(self) -> bool:
        """Whether close() was called."""
    def close(self) -> None:
        """Lets the files go once no hit or value of this index is left."""
    def __enter__(self) -> "Index": ...
    def __exit__(self, *exc: object) -> None: ...

def open(directory: _Path) -> Index:
    """Opens the index in `directory`, mapped; raises quorvex.IndexError when it cannot."""

def build(
    items: Iterable[Tuple[str, _Value]],
    directory: _Path,
    *,
    folded: bool = True,
    name: Optional[str] = None,
    description: Optional[str] = None,
    replace: bool = False,
    suffix_array: bool = True,
) -> int:
    """Builds an index of (key, value) items in `directory` atomically; returns the number of items."""

def fold(text: str) -> str:
    """`text` folded as a folded index folds keys and keywords."""
