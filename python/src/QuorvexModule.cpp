// quorvex._quorvex: the Python module over the library's public interface.
//
// An open index is a _Reader object holding the mapped reader. The Index the
// user holds, every hit and every iterator keep a reference to it, so the
// files stay mapped while anything can still read them, whatever is closed
// or deleted first. Hits are small native objects (a hit is made for every
// result, so they cost one allocation each) that expose their value through
// the buffer protocol: `hit.value` is a memoryview of the mapped data.bin.
//
// Reference counts of the library's handles are plain integers, so they are
// only touched with the GIL held; a search releases the GIL only around the
// library's find(), which reads the reader and writes nothing it shares.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <Fold.h>
#include <Reader/IndexReader.h>
#include <Writer/IndexBuilder.h>
#include <Writer/IndexDirectory.h>

namespace py = pybind11;
using Lexarium::Reader::Hit;
using Lexarium::Reader::IndexReader;

namespace {

// Raised for an index that cannot be opened or turns out damaged; the
// module registers it as quorvex.IndexError, a subclass of OSError.
struct IndexFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The mapped reader shared by an Index, its hits and its iterators.
struct OpenReader {
    Rc<IndexReader> reader;
    std::string path;
};

// ---- quorvex.Hit ---------------------------------------------------------

struct HitObject {
    PyObject_HEAD
    PyObject* owner;     // the _Reader whose files the views point into
    PyObject* key_text;  // made on first use
    const char* key;
    Py_ssize_t key_size;
    const char* value;
    Py_ssize_t value_size;
    unsigned position;
    unsigned edits;
};

PyTypeObject* hit_type = nullptr;

// A new Hit viewing `hit`, keeping `owner` alive; null with a Python error
// set when memory runs out.
PyObject* new_hit(PyObject* owner, const Hit& hit) {
    HitObject* self = PyObject_New(HitObject, hit_type);
    if (self == nullptr) {
        return nullptr;
    }
    Py_INCREF(owner);
    self->owner = owner;
    self->key_text = nullptr;
    self->key = hit.key.data();
    self->key_size = static_cast<Py_ssize_t>(hit.key.size());
    self->value = hit.value.data();
    self->value_size = static_cast<Py_ssize_t>(hit.value.size());
    self->position = hit.position;
    self->edits = hit.edits;
    return reinterpret_cast<PyObject*>(self);
}

void hit_dealloc(PyObject* object) {
    HitObject* self = reinterpret_cast<HitObject*>(object);
    PyTypeObject* type = Py_TYPE(object);
    Py_XDECREF(self->key_text);
    Py_DECREF(self->owner);
    PyObject_Free(object);
    Py_DECREF(type);  // instances of heap types hold their type
}

// Keys are checked UTF-8 when an index is built; a damaged file's bytes are
// shown with replacement characters rather than raising.
PyObject* hit_key(PyObject* object, void*) {
    HitObject* self = reinterpret_cast<HitObject*>(object);
    if (self->key_text == nullptr) {
        self->key_text = PyUnicode_DecodeUTF8(self->key, self->key_size, "replace");
    }
    Py_XINCREF(self->key_text);
    return self->key_text;
}

PyObject* hit_value(PyObject* object, void*) { return PyMemoryView_FromObject(object); }

PyObject* hit_position(PyObject* object, void*) {
    return PyLong_FromUnsignedLong(reinterpret_cast<HitObject*>(object)->position);
}

PyObject* hit_edits(PyObject* object, void*) {
    return PyLong_FromUnsignedLong(reinterpret_cast<HitObject*>(object)->edits);
}

int hit_getbuffer(PyObject* object, Py_buffer* view, int flags) {
    HitObject* self = reinterpret_cast<HitObject*>(object);
    return PyBuffer_FillInfo(view, object, const_cast<char*>(self->value), self->value_size, 1, flags);
}

PyObject* hit_repr(PyObject* object) {
    HitObject* self = reinterpret_cast<HitObject*>(object);
    py::object key = py::reinterpret_steal<py::object>(hit_key(object, nullptr));
    if (!key) {
        return nullptr;
    }
    return PyUnicode_FromFormat("Hit(key=%R, value=<%zd bytes>, position=%u, edits=%u)", key.ptr(),
                                self->value_size, self->position, self->edits);
}

PyGetSetDef hit_fields[] = {
    {"key", hit_key, nullptr, "The item's key as it was put in (str).", nullptr},
    {"value", hit_value, nullptr,
     "The item's value: a read-only memoryview of the index's mapped data.bin, no copy. It keeps the index's "
     "files mapped while it lives; bytes(hit.value) copies it, str(hit.value, 'utf-8') decodes it.",
     nullptr},
    {"position", hit_position, nullptr, "The character of the stored key at which the match begins (int).",
     nullptr},
    {"edits", hit_edits, nullptr, "The edits the match took: 0 but with typos (int).", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot hit_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(hit_dealloc)},
    {Py_tp_repr, reinterpret_cast<void*>(hit_repr)},
    {Py_tp_getset, hit_fields},
    {Py_tp_doc, const_cast<char*>("One hit of Index.search(): key, value, position and edits. Also a buffer: "
                                  "memoryview(hit) is the value.")},
    {Py_bf_getbuffer, reinterpret_cast<void*>(hit_getbuffer)},
    {0, nullptr},
};

PyType_Spec hit_spec = {"quorvex.Hit", sizeof(HitObject), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION,
                        hit_slots};

// ---- Index ----------------------------------------------------------------

// The damage the reader's searches have passed over, all files together.
uint64_t damage_of(const IndexReader& reader) {
    IndexReader::Damage damage = reader.damage_passed_over();
    return damage.table + damage.index + damage.key + damage.data;
}

[[noreturn]] void raise_damaged(const OpenReader& open) {
    IndexReader::Damage damage = open.reader->damage_passed_over();
    const char* file = damage.table ? "table.bin" : damage.index ? "index.bin" : damage.key ? "key.bin" : "data.bin";
    throw IndexFailure(open.path + ": " + file + " is damaged (records outside the file were passed over); " +
                       "rebuild the index");
}

// The path of a str, bytes or os.PathLike argument, as the file system
// wants it.
std::string path_of(const py::object& path) {
    py::object text = py::reinterpret_steal<py::object>(PyOS_FSPath(path.ptr()));
    if (!text) {
        throw py::error_already_set();
    }
    if (PyUnicode_Check(text.ptr())) {
        text = py::reinterpret_steal<py::object>(PyUnicode_EncodeFSDefault(text.ptr()));
        if (!text) {
            throw py::error_already_set();
        }
    }
    return text.cast<std::string>();
}

// The UTF-8 bytes of a str (a lone surrogate raises UnicodeEncodeError).
std::string utf8_of(const py::handle& text) {
    Py_ssize_t size = 0;
    const char* bytes = PyUnicode_AsUTF8AndSize(text.ptr(), &size);
    if (bytes == nullptr) {
        throw py::error_already_set();
    }
    return std::string(bytes, static_cast<size_t>(size));
}

class ItemIterator;

class Index {
public:
    explicit Index(const py::object& path) {
        std::string directory = path_of(path);
        std::string error;
        Rc<IndexReader> reader = IndexReader::from_directory_mapped(directory, &error);
        if (!reader) {
            throw IndexFailure(error);
        }
        this->owner = py::cast(OpenReader{reader, directory});
    }

    const OpenReader& open() const {
        if (this->owner.is_none()) {
            throw py::value_error("the index is closed");
        }
        return this->owner.cast<const OpenReader&>();
    }

    py::list search(const py::str& keyword, long limit, bool pattern, long typos) const {
        const OpenReader& open = this->open();
        if (limit < 0 || limit > 65535) {
            throw py::value_error("limit must be 0..65535, not " + std::to_string(limit));
        }
        if (typos < 0 || typos > 2) {
            throw py::value_error("typos must be 0, 1 or 2, not " + std::to_string(typos));
        }
        Lexarium::Reader::SearchOptions options;
        options.limit = static_cast<uint16>(limit);
        options.mode = pattern ? Lexarium::Reader::MatchMode::Pattern : Lexarium::Reader::MatchMode::Plain;
        options.typos = static_cast<uint8>(typos);
        std::string text = utf8_of(keyword);
        // Held across the search: a close() in another thread cannot take
        // the reader away under it.
        py::object keep = this->owner;
        const IndexReader& reader = *open.reader;
        uint64_t damage_before = damage_of(reader);
        thread_local std::vector<Hit> hits;
        std::string error;
        bool found;
        {
            py::gil_scoped_release unlocked;
            found = reader.find(text, options, hits, &error);
        }
        if (!found) {
            throw py::value_error(error);
        }
        if (damage_of(reader) != damage_before) {
            raise_damaged(open);
        }
        py::list result(hits.size());
        for (size_t i = 0; i < hits.size(); ++i) {
            PyObject* hit = new_hit(keep.ptr(), hits[i]);
            if (hit == nullptr) {
                throw py::error_already_set();
            }
            PyList_SET_ITEM(result.ptr(), static_cast<Py_ssize_t>(i), hit);
        }
        return result;
    }

    size_t size() const { return this->open().reader->item_count(); }

    py::dict description() const {
        py::dict fields;
        for (const auto& [name, text] : this->open().reader->description().fields) {
            fields[py::str(name)] = py::reinterpret_steal<py::object>(
                PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
        }
        return fields;
    }

    bool folded() const { return this->open().reader->folding() != 0; }
    std::string path() const { return this->open().path; }
    bool closed() const { return this->owner.is_none(); }
    void close() { this->owner = py::none(); }

    std::string repr() const {
        if (this->closed()) {
            return "<quorvex.Index (closed)>";
        }
        const OpenReader& open = this->open();
        return "<quorvex.Index " + py::repr(py::str(open.path)).cast<std::string>() + ", " +
               std::to_string(open.reader->item_count()) + " items, " +
               (open.reader->folding() != 0 ? "folded" : "exact") + ">";
    }

    // Nanoseconds of each of `repeats` calls of the library's own find(),
    // timed here in C++: the peer the binding's cost is measured against.
    std::vector<double> time_native_search(const py::str& keyword, long limit, long repeats) const {
        const IndexReader& reader = *this->open().reader;
        py::object keep = this->owner;  // as in search()
        std::string text = utf8_of(keyword);
        Lexarium::Reader::SearchOptions options;
        options.limit = static_cast<uint16>(std::clamp(limit, 0L, 65535L));
        thread_local std::vector<Hit> hits;  // reused, as search() reuses its own
        std::vector<double> times;
        py::gil_scoped_release unlocked;
        for (long i = 0; i < repeats; ++i) {
            auto start = std::chrono::steady_clock::now();
            reader.find(text, options, hits, nullptr);
            times.push_back(std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count());
        }
        return times;
    }

    py::object owner = py::none();  // a _Reader, None once closed
};

// Walks every item of an index in key order, a batch at a time, yielding
// (key, value) pairs; keeps the files mapped while it lives.
class ItemIterator {
public:
    explicit ItemIterator(const Index& index) : owner(index.owner), open(&index.open()) {}

    py::tuple next() {
        if (this->taken == this->batch.size()) {
            this->batch.clear();
            this->taken = 0;
            uint64_t damage_before = damage_of(*this->open->reader);
            this->open->reader->next_items(this->cursor, 256, this->batch);
            if (damage_of(*this->open->reader) != damage_before) {
                raise_damaged(*this->open);
            }
            if (this->batch.empty()) {
                throw py::stop_iteration();
            }
        }
        const Hit& item = this->batch[this->taken++];
        py::object hit = py::reinterpret_steal<py::object>(new_hit(this->owner.ptr(), item));
        if (!hit) {
            throw py::error_already_set();
        }
        py::object key = py::reinterpret_steal<py::object>(hit_key(hit.ptr(), nullptr));
        py::object value = py::reinterpret_steal<py::object>(PyMemoryView_FromObject(hit.ptr()));
        if (!key || !value) {
            throw py::error_already_set();
        }
        return py::make_tuple(key, value);
    }

private:
    py::object owner;
    const OpenReader* open;
    uint64_t cursor = 0;
    std::vector<Hit> batch;
    size_t taken = 0;
};

// ---- build() and fold() ---------------------------------------------------

// The bytes of an item's value: a str as UTF-8, or anything with the buffer
// protocol (bytes, bytearray, memoryview, a Hit) as it is.
std::string value_bytes(const py::handle& value, size_t number) {
    if (PyUnicode_Check(value.ptr())) {
        return utf8_of(value);
    }
    if (PyObject_CheckBuffer(value.ptr())) {
        py::buffer_info info = py::reinterpret_borrow<py::buffer>(value).request();
        return std::string(static_cast<const char*>(info.ptr), static_cast<size_t>(info.size * info.itemsize));
    }
    throw py::type_error("item " + std::to_string(number) + ": the value must be bytes or str, not " +
                         std::string(Py_TYPE(value.ptr())->tp_name));
}

// Hands the items to `builder`; raises at the first one it refuses.
void add_items(const py::iterable& items, Lexarium::Writer::IndexBuilder& builder) {
    size_t number = 0;
    for (py::handle item : items) {
        py::object pair = py::reinterpret_steal<py::object>(PySequence_Fast(item.ptr(), ""));
        if (!pair || PySequence_Fast_GET_SIZE(pair.ptr()) != 2) {
            PyErr_Clear();
            throw py::type_error("item " + std::to_string(number) + ": expected a (key, value) pair, got " +
                                 py::repr(item).cast<std::string>());
        }
        py::handle key = PySequence_Fast_GET_ITEM(pair.ptr(), 0);
        if (!PyUnicode_Check(key.ptr())) {
            throw py::type_error("item " + std::to_string(number) + ": the key must be str, not " +
                                 std::string(Py_TYPE(key.ptr())->tp_name));
        }
        std::string problem = builder.add(utf8_of(key), value_bytes(PySequence_Fast_GET_ITEM(pair.ptr(), 1), number));
        if (!problem.empty()) {
            throw py::value_error("item " + std::to_string(number) + " (" + py::repr(key).cast<std::string>() +
                                  "): " + problem);
        }
        ++number;
    }
}

size_t build(const py::iterable& items, const py::object& directory, bool folded, const py::object& name,
             const py::object& description, bool replace, bool suffix_array) {
    std::string path = path_of(directory);
    struct stat status;
    if (!replace && ::lstat(path.c_str(), &status) == 0) {
        PyErr_SetObject(PyExc_FileExistsError,
                        py::make_tuple(EEXIST, "the index already exists; pass replace=True to replace it",
                                       directory).ptr());
        throw py::error_already_set();
    }
    std::string error;
    if (!Lexarium::Writer::prepare_index_directory(path, replace, &error)) {
        PyErr_SetString(PyExc_OSError, error.c_str());
        throw py::error_already_set();
    }
    Lexarium::Writer::IndexSettings settings;
    settings.folded = folded;
    settings.merge_duplicates = true;
    if (!name.is_none()) {
        settings.description.set("name", utf8_of(py::str(name)));
    }
    if (!description.is_none()) {
        settings.description.set("description", utf8_of(py::str(description)));
    }
    settings.description.set("tool", "quorvex Python module " QUORVEX_PYTHON_VERSION);
    Lexarium::Writer::IndexBuilder builder(settings);
    add_items(items, builder);

    bool written;
    {
        py::gil_scoped_release unlocked;
        Lexarium::Writer::IndexWriter writer;
        error = builder.fill(writer);
        if (!error.empty()) {
            written = false;
        } else {
            Lexarium::Writer::DirectoryOptions placing;
            placing.replace = replace;
            Rc<Lexarium::Writer::_IndexData> blobs = writer.to_bytes();
            if (suffix_array) {
                blobs->add_suffix_array();
            }
            written = Lexarium::Writer::write_index_directory(*blobs, path, placing, &error);
            if (!written) {
                error = "\n" + error;  // tells the write's failure from the items'
            }
        }
    }
    if (!written && error[0] == '\n') {
        PyErr_SetString(PyExc_OSError, error.c_str() + 1);
        throw py::error_already_set();
    }
    if (!written) {
        throw py::value_error(error);
    }
    return builder.item_count();
}

py::str fold(const py::str& text) {
    std::string folded;
    std::string error;
    if (!Lexarium::fold(utf8_of(text), &folded, &error)) {
        throw py::value_error(error);  // not reached: a str encodes to well-formed UTF-8
    }
    return py::reinterpret_steal<py::str>(
        PyUnicode_DecodeUTF8(folded.data(), static_cast<Py_ssize_t>(folded.size()), "strict"));
}

// Nanoseconds of each of `repeats` mapped opens of `directory` in C++, each
// reader released before the next open: the peer of quorvex.open().
std::vector<double> time_native_open(const py::object& directory, long repeats) {
    std::string path = path_of(directory);
    std::vector<double> times;
    for (long i = 0; i < repeats; ++i) {
        auto start = std::chrono::steady_clock::now();
        Rc<IndexReader> reader = IndexReader::from_directory_mapped(path, nullptr);
        times.push_back(std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count());
        if (!reader) {
            throw IndexFailure(path + ": cannot be opened");
        }
    }
    return times;
}

}  // namespace

PYBIND11_MODULE(_quorvex, module) {
    module.doc() = "Native part of the quorvex package; use the names quorvex exports.";

    hit_type = reinterpret_cast<PyTypeObject*>(PyType_FromSpec(&hit_spec));
    if (hit_type == nullptr) {
        throw py::error_already_set();
    }
    module.add_object("Hit", reinterpret_cast<PyObject*>(hit_type));

    py::register_exception<IndexFailure>(module, "IndexError", PyExc_OSError);

    py::class_<OpenReader>(module, "_Reader", "The mapped files an Index, its hits and iterators share.");

    py::class_<ItemIterator>(module, "_ItemIterator")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &ItemIterator::next);

    py::class_<Index>(module, "Index", R"(An open index: its four files mapped read-only.

Made by quorvex.open(). Searches may run in several threads at once (the
GIL is released while the library searches). close() or leaving a `with`
block lets the files go; hits and values taken earlier stay valid, as they
keep the files mapped while they live.)")
        .def("search", &Index::search, py::arg("keyword"), py::arg("limit") = 20, py::kw_only(),
             py::arg("pattern") = false, py::arg("typos") = 0, R"(The items whose keys contain `keyword`, as a list of Hit.

At most `limit` hits (0..65535), each item once: first the keys that begin
with the keyword, then those holding it from their second character on,
and so on; at one position in key order. In a folded index the keyword is
folded as the keys were ("Haus" finds "haus", "strasse" finds "straße"),
and of the items that fold alike those holding the keyword as typed come
first.

pattern=True reads the keyword as a pattern: "?" is any one character, a
leading "^" anchors at the start of the key, a trailing "$" at its end, "\"
makes the next character literal. typos=1 or 2 also finds keys within that
many edits (a character substituted, inserted, deleted, or two swapped),
fewest edits first; keywords under 4 characters get none, under 8 at most 1.

Raises ValueError for a malformed pattern or keyword, quorvex.IndexError
when the search met damaged records, and ValueError on a closed index.)")
        .def("__len__", &Index::size, "The number of items in the index.")
        .def("__iter__", [](const Index& index) { return ItemIterator(index); },
             "Every item as a (key, value) pair, in the index's key order; values are memoryviews.")
        .def_property_readonly("description", &Index::description,
                               "What the index says about itself: a dict of str (name, description, source, "
                               "tool, folding, items, ...).")
        .def_property_readonly("folded", &Index::folded, "Whether keys are stored folded (see quorvex.fold).")
        .def_property_readonly("path", &Index::path, "The directory the index was opened from.")
        .def_property_readonly("closed", &Index::closed, "Whether close() was called.")
        .def("close", &Index::close, "Lets the files go once no hit or value of this index is left. Idempotent.")
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](Index& index, py::args) { index.close(); })
        .def("__repr__", &Index::repr)
        .def("_time_native_search", &Index::time_native_search, py::arg("keyword"), py::arg("limit"),
             py::arg("repeats"), "Nanoseconds of each of `repeats` calls of the library's find(), for benchmarks.");

    module.def("open", [](const py::object& directory) { return Index(directory); }, py::arg("directory"),
               R"(Opens the index in `directory` (str or os.PathLike), mapped, and returns an Index.

Opening reads table.bin only; the other files are read as searches touch
them. Raises quorvex.IndexError (an OSError) naming the file and the
problem when the directory or a file is missing, unreadable or damaged.
Never stops the process, whatever the files hold.)");
    module.def("build", &build, py::arg("items"), py::arg("directory"), py::kw_only(), py::arg("folded") = true,
               py::arg("name") = py::none(), py::arg("description") = py::none(), py::arg("replace") = false,
               py::arg("suffix_array") = true,
               R"(Builds an index of `items` in `directory` and returns how many items it holds.

`items` is any iterable of (key, value) pairs: str keys, bytes-like or str
values (str is stored as UTF-8). Values of one key are merged, in order,
with a blank line between them. folded=True (the default) stores keys
folded, so that searches ignore case, accents, width and kana; folded=False
stores them exactly. `name` and `description` go into the index's
description. suffix_array=True (the default) also writes suffix.bin, with
which keywords found in few keys or none are answered sooner; it changes no
answer.

The index appears atomically: written beside `directory`, flushed, then
renamed into place. An existing `directory` raises FileExistsError unless
replace=True (which replaces only an index directory). A bad item raises
ValueError (or TypeError for a wrong type) naming its number and the
reason, before anything is written; failures of the file system raise
OSError with the system's reason.)");
    module.def("fold", &fold, py::arg("text"),
               R"(`text` folded as a folded index folds its keys and keywords.

Compatibility forms become plain, case is folded fully ("Straße" ->
"strasse"), diacritics of Latin, Greek and Cyrillic letters go, katakana
becomes hiragana, white space runs become one space and none is left at
either end. Folding a folded text changes nothing.)");
    module.def("_time_native_open", &time_native_open, py::arg("directory"), py::arg("repeats"),
               "Nanoseconds of each of `repeats` mapped opens in C++, for benchmarks.");
    module.attr("FOLDING_VERSION") = Lexarium::FOLDING_VERSION;
    module.attr("__version__") = QUORVEX_PYTHON_VERSION;
}
