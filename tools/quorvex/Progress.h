#ifndef QUORVEX_TOOL_PROGRESS_H
#define QUORVEX_TOOL_PROGRESS_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace quorvex_tool {

// A one-line progress display on stderr: phase, items so far, elapsed time,
// redrawn a few times a second (also while a long library call runs). It
// shows only when enabled, which the commands do when stderr is a terminal
// and -q was not given.
class Progress {
public:
    explicit Progress(bool enabled);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void phase(const std::string& name, bool counting = false);
    void count(uint64_t items);
    // Clears the line; nothing is drawn afterwards.
    void finish();

private:
    void draw_locked();
    void tick();

    bool enabled;
    std::mutex mutex;
    std::condition_variable wake;
    std::thread ticker;
    bool stopping = false;
    std::string current_phase;
    bool counting = false;
    uint64_t items = 0;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

// Whether `descriptor` is a terminal.
bool is_terminal(int descriptor);

}  // namespace quorvex_tool

#endif
