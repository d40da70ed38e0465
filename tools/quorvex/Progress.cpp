#include "Progress.h"

#include <cstdio>
#include <unistd.h>

#include "Text.h"

namespace quorvex_tool {

bool is_terminal(int descriptor) { return isatty(descriptor) == 1; }

Progress::Progress(bool enabled_) : enabled(enabled_) {
    if (this->enabled) {
        this->ticker = std::thread([this] { this->tick(); });
    }
}

Progress::~Progress() { this->finish(); }

void Progress::phase(const std::string& name, bool counting_) {
    std::lock_guard<std::mutex> lock(this->mutex);
    this->current_phase = name;
    this->counting = counting_;
    this->items = 0;
    if (this->enabled && !this->stopping) {
        this->draw_locked();
    }
}

void Progress::count(uint64_t items_) {
    std::lock_guard<std::mutex> lock(this->mutex);
    this->items = items_;
}

void Progress::finish() {
    {
        std::lock_guard<std::mutex> lock(this->mutex);
        if (this->stopping) {
            return;
        }
        this->stopping = true;
    }
    this->wake.notify_all();
    if (this->ticker.joinable()) {
        this->ticker.join();
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
    }
}

void Progress::draw_locked() {
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - this->start).count();
    std::string line = "\r\033[K" + this->current_phase;
    if (this->counting) {
        line += ": " + with_thousands(this->items) + " items";
    }
    char elapsed[32];
    std::snprintf(elapsed, sizeof elapsed, "  %.1f s", seconds);
    line += elapsed;
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
}

void Progress::tick() {
    std::unique_lock<std::mutex> lock(this->mutex);
    while (!this->stopping) {
        this->wake.wait_for(lock, std::chrono::milliseconds(200));
        if (!this->stopping) {
            this->draw_locked();
        }
    }
}

}  // namespace quorvex_tool
