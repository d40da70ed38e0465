// Build an index into a directory, load it and search it, from C++.
//
//   c++ -std=c++17 build_and_search.cpp $(pkg-config --cflags --libs quorvex)
#include <cstdio>
#include <cstring>
#include <string>

#include <quorvex/Reader/IndexReader.h>
#include <quorvex/Writer/IndexWriter.h>

static Rc<ByteArray> bytes_of(const std::string& text) {
    Rc<ByteArray> bytes(new ByteArray(static_cast<uint32>(text.size())));
    std::memcpy(bytes->data, text.data(), text.size());
    return bytes;
}

int main(int argc, char** argv) {
    std::string directory = argc > 1 ? argv[1] : "example-index";
    {
        Lexarium::Writer::IndexWriter writer;
        writer.add_word("haus", bytes_of("house"));
        writer.add_word("rathaus", bytes_of("town hall"));
        writer.add_word("hausschuh", bytes_of("slipper"));
        writer.write_into_directory_with_default_file_name(directory);
    }

    Rc<Lexarium::Reader::IndexReader> reader = Lexarium::Reader::IndexReader::from_directory(directory);
    auto results = reader->search("haus", 20);
    for (const auto& result : *results) {
        // Views into the reader's blobs: valid while `reader` lives.
        std::printf("%.*s\t%.*s\n", static_cast<int>(result->key->length), reinterpret_cast<char*>(result->key->data),
                    static_cast<int>(result->value->length), reinterpret_cast<char*>(result->value->data));
    }
    return results->size() == 3 ? 0 : 1;
}
