#ifndef QUORVEX_TESTS_TEST_SUPPORT_H
#define QUORVEX_TESTS_TEST_SUPPORT_H

#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include <stdlib.h>
#include <sys/stat.h>

#include "TypeDefinitions.h"

namespace quorvex_test {

// A regular expression that matches `text` literally.
inline std::string literal(const std::string& text) {
    std::string escaped;
    for (char c : text) {
        if (std::strchr("\\.^$|()[]{}*+?", c) != nullptr) {
            escaped += '\\';
        }
        escaped += c;
    }
    return escaped;
}

// The whole message of a failed library assertion, as glibc prints it:
// "FILE:LINE: FUNCTION: Assertion `CONDITION' failed."
inline std::string assertion_failure(const std::string& file, int line, const std::string& function,
                                     const std::string& condition) {
    return literal(file + ":" + std::to_string(line) + ": " + function + ": Assertion `" + condition + "' failed.");
}

// Just the condition part, for death tests that do not pin the location.
inline std::string assertion_condition(const std::string& condition) {
    return literal("Assertion `" + condition + "' failed.");
}

inline const std::string& borrow_failure() {
    static const std::string message = assertion_failure(
        "src/TypeDefinitions.cpp", 35, "Rc<ByteArray> ByteArray::borrow(uint32, uint32) const",
        "offset + count <= this->length");
    return message;
}

// A new owning array holding `bytes`.
inline Rc<ByteArray> make_bytes(const std::vector<uint8>& bytes) {
    Rc<ByteArray> array(new ByteArray(static_cast<uint32>(bytes.size())));
    if (!bytes.empty()) {
        std::memcpy(array->data, bytes.data(), bytes.size());
    }
    return array;
}

inline Rc<ByteArray> make_bytes(std::initializer_list<uint8> bytes) {
    return make_bytes(std::vector<uint8>(bytes));
}

// A new owning array of `length` zero bytes.
inline Rc<ByteArray> make_zeros(uint32 length) {
    Rc<ByteArray> array(new ByteArray(length));
    if (length != 0) {
        std::memset(array->data, 0, length);
    }
    return array;
}

inline std::vector<uint8> contents(const ByteArray& array) {
    return std::vector<uint8>(array.data, array.data + array.length);
}

inline std::vector<uint8> contents(const Rc<ByteArray>& array) { return contents(*array); }

// A fresh directory under the system's temporary directory, removed with
// everything in it (even if a test made it read-only) at the end of scope.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "quorvex-test-XXXXXX").string();
        if (::mkdtemp(pattern.data()) != nullptr) {
            this->path = pattern;
        }
    }
    ~TemporaryDirectory() {
        ::chmod(this->path.c_str(), 0700);
        std::error_code ignored;
        std::filesystem::remove_all(this->path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string path;
};

}  // namespace quorvex_test

#endif
