#include "Assertions.h"
#include "CApi.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include "CApiInternal.h"
#include "Fold.h"
#include "IndexVerifier.h"
#include "TypeDefinitions.h"
#include "Reader/IndexReader.h"
#include "Writer/IndexWriter.h"

using Lexarium::Reader::IndexReader;
using Lexarium::Reader::SearchResult;
using Lexarium::Writer::IndexWriter;
using Lexarium::Writer::_IndexData;

// Every handle is a heap record with one field, `rc`, pointing at a heap
// Rc<T> that holds one reference to the object. make_handle() and
// release_handle() are the only places that build and tear them down.
struct ByteArrayHandle {
    Rc<ByteArray>* rc;
};

struct IndexWriterHandle {
    Rc<IndexWriter>* rc;
};

struct IndexReaderHandle {
    Rc<IndexReader>* rc;
};

typedef std::vector<Rc<SearchResult>> SearchResultList;

struct SearchResultsHandle {
    Rc<SearchResultList>* rc;
};

struct SearchOptionsHandle {
    Lexarium::Reader::SearchOptions options;
};

struct SearchHitsHandle {
    std::vector<Lexarium::Reader::Hit> hits;
};

namespace {

template <typename Handle, typename T>
Handle* make_handle(Rc<T> object) {
    std::unique_ptr<Handle> handle(new Handle{nullptr});
    handle->rc = new Rc<T>(std::move(object));
    return handle.release();
}

template <typename Handle>
void release_handle(Handle* handle) {
    if (handle == nullptr) {
        return;
    }
    delete handle->rc;
    delete handle;
}

// A copy of `text` for the caller, released with free(); NULL when there is
// no memory for it.
char* copy_for_caller(const std::string& text) noexcept {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) {
        std::memcpy(copy, text.c_str(), text.size() + 1);
    }
    return copy;
}

// The verdict as the C functions report it.
int report_verification(const Lexarium::IndexVerification& verification, char** message) {
    if (message != nullptr) {
        std::string text;
        if (verification.is_sound()) {
            text = "sound";
        }
        for (const Lexarium::IndexProblem& problem : verification.problems) {
            text += problem.blob + ": offset " + std::to_string(problem.offset) + ": " + problem.message + "\n";
        }
        if (verification.problem_count > verification.problems.size()) {
            text += "... and " + std::to_string(verification.problem_count - verification.problems.size()) + " more\n";
        }
        *message = copy_for_caller(text);
        if (*message == nullptr) {
            throw std::bad_alloc();
        }
    }
    return verification.is_sound() ? 0 : 1;
}

}  // namespace

Rc<ByteArray> joinByteArrays(std::vector<Rc<ByteArray>>* chunks) {
    if (chunks->size() == 1 && !chunks->at(0)->is_borrowed) {
        return chunks->at(0);
    }
    uint32 total = 0;
    for (const Rc<ByteArray>& chunk : *chunks) {
        total += chunk->length;
    }
    Rc<ByteArray> joined(new ByteArray(total));
    uint32 offset = 0;
    for (size_t i = 0; i < chunks->size(); ++i) {
        const Rc<ByteArray>& chunk = chunks->at(i);
        if (chunk->length != 0) {
            std::memcpy(joined->data + offset, chunk->data, chunk->length);
        }
        offset += chunk->length;
    }
    return joined;
}

std::string string_from_c(const char* text) {
    if (text == nullptr) {
        throw std::logic_error("basic_string::_M_construct null not valid");
    }
    return std::string(text);
}

extern "C" {

ByteArrayHandle* byte_array_new_empty(uint32_t length) {
    return make_handle<ByteArrayHandle>(Rc<ByteArray>(new ByteArray(length)));
}

ByteArrayHandle* byte_array_new_on_user_data(uint8_t* data, uint32_t length) {
    // Marked borrowed before it is wrapped, so that no failure path can ever
    // free the caller's bytes.
    std::unique_ptr<ByteArray> view(new ByteArray(data, length));
    view->is_borrowed = true;
    return make_handle<ByteArrayHandle>(Rc<ByteArray>(view.release()));
}

ByteArrayHandle* byte_array_new_clone_from(const uint8_t* data, uint32_t length) {
    Rc<ByteArray> array(new ByteArray(length));
    if (length != 0) {
        std::memcpy(array->data, data, length);
    }
    return make_handle<ByteArrayHandle>(std::move(array));
}

ByteArrayHandle* byte_array_new_borrow_from(ByteArrayHandle* source, uint32_t offset, uint32_t count) {
    Rc<ByteArray> keep_source = *source->rc;
    return make_handle<ByteArrayHandle>(keep_source->borrow(offset, count));
}

uint32_t byte_array_get_length(ByteArrayHandle* array) { return (*array->rc)->length; }

uint32_t byte_array_get_bytes(ByteArrayHandle* array, uint8_t** bytes) {
    *bytes = (*array->rc)->data;
    return (*array->rc)->length;
}

void byte_array_free(ByteArrayHandle* array) { release_handle(array); }

IndexWriterHandle* index_writer_new(void) {
    return make_handle<IndexWriterHandle>(Rc<IndexWriter>(new IndexWriter()));
}

void index_writer_add_item(IndexWriterHandle* writer, const char* key, ByteArrayHandle* value) {
    Rc<IndexWriter> keep_writer = *writer->rc;
    Rc<ByteArray> keep_value = *value->rc;
    keep_writer->add_word(string_from_c(key), keep_value);
}

IndexWriterBytesResult* index_writer_to_bytes_result(IndexWriterHandle* writer) {
    Rc<IndexWriter> keep_writer = *writer->rc;
    Rc<_IndexData> built = keep_writer->to_bytes();
    Rc<ByteArray> index = joinByteArrays(&built->index_chunks);
    Rc<ByteArray> table = joinByteArrays(&built->table_chunks);
    Rc<ByteArray> key = joinByteArrays(&built->key_chunks);
    Rc<ByteArray> data = joinByteArrays(&built->data_chunks);
    built = Rc<_IndexData>();  // the handles below hold the only references

    std::unique_ptr<IndexWriterBytesResult> result(new IndexWriterBytesResult{nullptr, nullptr, nullptr, nullptr});
    try {
        result->index = make_handle<ByteArrayHandle>(std::move(index));
        result->table = make_handle<ByteArrayHandle>(std::move(table));
        result->key = make_handle<ByteArrayHandle>(std::move(key));
        result->data = make_handle<ByteArrayHandle>(std::move(data));
    } catch (...) {
        index_writer_bytes_result_free(result.release());
        throw;
    }
    return result.release();
}

void index_writer_bytes_result_free(IndexWriterBytesResult* result) {
    if (result == nullptr) {
        return;
    }
    byte_array_free(result->index);
    byte_array_free(result->table);
    byte_array_free(result->key);
    byte_array_free(result->data);
    delete result;
}

void index_writer_free(IndexWriterHandle* writer) { release_handle(writer); }

IndexReaderHandle* index_reader_new_from_directory(const char* directory) {
    return make_handle<IndexReaderHandle>(IndexReader::from_directory(string_from_c(directory)));
}

IndexReaderHandle* index_reader_new_from_files(const char* table_path, const char* index_path, const char* key_path,
                                               const char* data_path) {
    std::string data = string_from_c(data_path);
    std::string key = string_from_c(key_path);
    std::string index = string_from_c(index_path);
    std::string table = string_from_c(table_path);
    return make_handle<IndexReaderHandle>(IndexReader::from_files(table, index, key, data));
}

IndexReaderHandle* index_reader_new_from_bytes(ByteArrayHandle* table, ByteArrayHandle* index, ByteArrayHandle* key,
                                               ByteArrayHandle* data) {
    return make_handle<IndexReaderHandle>(IndexReader::from_bytes(*table->rc, *index->rc, *key->rc, *data->rc));
}

IndexReaderHandle* index_reader_new_mapped(const char* directory, char** error) {
    std::string why;
    try {
        if (directory == nullptr) {
            why = "no directory given";
        } else {
            Rc<IndexReader> reader = IndexReader::from_directory_mapped(directory, &why);
            if (!reader.is_null()) {
                return make_handle<IndexReaderHandle>(std::move(reader));
            }
        }
    } catch (...) {
        why = "out of memory";  // the only thing that can be thrown here
    }
    if (error != nullptr) {
        *error = copy_for_caller(why);
    }
    return nullptr;
}

void index_reader_error_free(char* error) { std::free(error); }

void index_reader_free(IndexReaderHandle* reader) { release_handle(reader); }

SearchResultsHandle* index_reader_search(IndexReaderHandle* reader, const char* keyword, uint16_t max_results) {
    std::string text = string_from_c(keyword);
    return make_handle<SearchResultsHandle>((*reader->rc)->search(text, max_results));
}

int64_t search_results_get_count(SearchResultsHandle* results) {
    return static_cast<int64_t>((*results->rc)->size());
}

SearchResultItem* search_result_item_get(SearchResultsHandle* results, uint16_t index) {
    Rc<SearchResultList> list = *results->rc;
    assert(index < list->size());
    Rc<SearchResult> result = (*list)[index];
    std::unique_ptr<SearchResultItem> item(new SearchResultItem{nullptr, nullptr});
    item->key = make_handle<ByteArrayHandle>(result->key);
    try {
        item->value = make_handle<ByteArrayHandle>(result->value);
    } catch (...) {
        byte_array_free(item->key);
        throw;
    }
    return item.release();
}

void search_results_free(SearchResultsHandle* results) { release_handle(results); }

void search_result_item_free(SearchResultItem* item) { delete item; }

int index_verifier_check_directory(const char* directory, int deep, char** message) {
    Lexarium::IndexVerification verification;
    if (directory == nullptr) {
        verification.problem_count = 1;
        verification.problems.push_back(Lexarium::IndexProblem{"(null)", 0, "no directory given"});
    } else {
        verification = Lexarium::IndexVerifier::verify_directory(directory, deep != 0);
    }
    return report_verification(verification, message);
}

int index_verifier_check_bytes(ByteArrayHandle* table, ByteArrayHandle* index, ByteArrayHandle* key,
                               ByteArrayHandle* data, int deep, char** message) {
    return report_verification(
        Lexarium::IndexVerifier::verify(**table->rc, **index->rc, **key->rc, **data->rc, deep != 0), message);
}

void index_verifier_message_free(char* message) { std::free(message); }

}  // extern "C"

// ---- Folding, descriptions and the options search

void quorvex_free(char* text) { std::free(text); }

uint32_t quorvex_folding_version(void) { return Lexarium::FOLDING_VERSION; }

namespace {

// Stores `why` for the caller, when it asked.
void report_error(char** error, const std::string& why) noexcept {
    if (error != nullptr) {
        *error = copy_for_caller(why);
    }
}

}  // namespace

char* quorvex_fold(const char* text, char** error) {
    std::string why;
    try {
        std::string folded;
        if (text == nullptr) {
            why = "no text given";
        } else if (Lexarium::fold(text, &folded, &why)) {
            char* copy = copy_for_caller(folded);
            if (copy != nullptr) {
                return copy;
            }
            why = "out of memory";
        }
    } catch (...) {
        why = "out of memory";
    }
    report_error(error, why);
    return nullptr;
}

uint32_t index_reader_get_folding(IndexReaderHandle* reader) { return (*reader->rc)->folding(); }

const char* index_reader_get_description(IndexReaderHandle* reader, uint32_t index, const char** name) {
    const auto& fields = (*reader->rc)->description().fields;
    if (index >= fields.size()) {
        *name = nullptr;
        return nullptr;
    }
    *name = fields[index].first.c_str();
    return fields[index].second.c_str();
}

SearchOptionsHandle* search_options_new(void) { return new (std::nothrow) SearchOptionsHandle(); }

void search_options_set_limit(SearchOptionsHandle* options, uint16_t limit) { options->options.limit = limit; }

void search_options_set_mode(SearchOptionsHandle* options, int mode) {
    options->options.mode = static_cast<Lexarium::Reader::MatchMode>(mode);
}

void search_options_set_typos(SearchOptionsHandle* options, uint8_t typos) { options->options.typos = typos; }

void search_options_free(SearchOptionsHandle* options) { delete options; }

SearchHitsHandle* index_reader_find(IndexReaderHandle* reader, const char* keyword, const SearchOptionsHandle* options,
                                    char** error) {
    std::string why;
    try {
        std::unique_ptr<SearchHitsHandle> hits(new SearchHitsHandle());
        Lexarium::Reader::SearchOptions defaults;
        if (keyword == nullptr) {
            why = "no keyword given";
        } else if ((*reader->rc)->find(keyword, options != nullptr ? options->options : defaults, hits->hits, &why)) {
            return hits.release();
        }
    } catch (...) {
        why = "out of memory";
    }
    report_error(error, why);
    return nullptr;
}

uint32_t search_hits_get_count(const SearchHitsHandle* hits) { return static_cast<uint32_t>(hits->hits.size()); }

const char* search_hits_get_key(const SearchHitsHandle* hits, uint32_t index, uint32_t* length) {
    if (index >= hits->hits.size()) {
        *length = 0;
        return nullptr;
    }
    *length = static_cast<uint32_t>(hits->hits[index].key.size());
    return hits->hits[index].key.data();
}

const uint8_t* search_hits_get_value(const SearchHitsHandle* hits, uint32_t index, uint32_t* length) {
    if (index >= hits->hits.size()) {
        *length = 0;
        return nullptr;
    }
    *length = static_cast<uint32_t>(hits->hits[index].value.size());
    return reinterpret_cast<const uint8_t*>(hits->hits[index].value.data());
}

uint32_t search_hits_get_position(const SearchHitsHandle* hits, uint32_t index) {
    return index < hits->hits.size() ? hits->hits[index].position : 0;
}

uint32_t search_hits_get_edits(const SearchHitsHandle* hits, uint32_t index) {
    return index < hits->hits.size() ? hits->hits[index].edits : 0;
}

void search_hits_free(SearchHitsHandle* hits) { delete hits; }
