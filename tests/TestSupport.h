#ifndef QUORVEX_TESTS_TEST_SUPPORT_H
#define QUORVEX_TESTS_TEST_SUPPORT_H

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "QuorvexTesting.h"
#include "TypeDefinitions.h"

extern "C" char** environ;

namespace quorvex_test {

using namespace quorvex_testing;
using quorvex_testing::make_bytes;

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

inline std::string repeat(const std::string& text, size_t times) {
    std::string out;
    for (size_t i = 0; i < times; ++i) {
        out += text;
    }
    return out;
}

// Starts the program `args[0]` with `args`, stdin from /dev/null, stdout
// written to `out` (/dev/null when null) and stderr to `err` (inherited
// when null); -1 when it cannot be started.
inline pid_t start_process(std::vector<std::string> args, FILE* out = nullptr, FILE* err = nullptr) {
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (out != nullptr) {
        ::posix_spawn_file_actions_adddup2(&actions, ::fileno(out), STDOUT_FILENO);
    } else {
        ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    if (err != nullptr) ::posix_spawn_file_actions_adddup2(&actions, ::fileno(err), STDERR_FILENO);
    pid_t pid = -1;
    if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        pid = -1;
    }
    ::posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Waits for `child`: its exit status, or -1 if it did not exit (a signal,
// an abort).
inline int exit_status(pid_t child) {
    int status = 0;
    bool exited = child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status);
    return exited ? WEXITSTATUS(status) : -1;
}

// What a program run printed and how it ended.
struct ToolRun {
    int status = -1;  // the exit status; -1 when the program did not exit (a signal, an abort)
    std::string out;
    std::string err;
};

// Runs `args` (the program first), stdout and stderr caught in two
// temporary files.
inline ToolRun run_program(const std::vector<std::string>& args) {
    ToolRun result;
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    if (out == nullptr || err == nullptr) {
        result.err = "tmpfile failed";
        return result;
    }
    result.status = exit_status(start_process(args, out, err));
    for (auto [file, text] : {std::make_pair(out, &result.out), std::make_pair(err, &result.err)}) {
        char buffer[65536];
        std::rewind(file);
        for (size_t count; (count = std::fread(buffer, 1, sizeof buffer, file)) > 0;) text->append(buffer, count);
        std::fclose(file);
    }
    return result;
}

}  // namespace quorvex_test

#endif
