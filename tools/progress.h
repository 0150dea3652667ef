// How far a long command is: behind half a second a line on the terminal that stands under the messages, with how much is
// done, the rate and the time left. Nothing where standard error is no terminal, or --quiet asks for nothing.
#ifndef KAL_TOOLS_PROGRESS_H
#define KAL_TOOLS_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

// One at a time: what is read while it lives counts for it.
class Progress {
public:
    // Of so many bytes to read; 0 where that is not known.
    explicit Progress(uint64_t totalBytes);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // What is being worked on.
    static void of(const std::string& what);
    // So many bytes more have been read. Any thread may say so.
    static void add(uint64_t bytes);
    // Shows how far it is, if it is time to. Called between the steps of long work; only in the thread that made it
    // does it show anything.
    static void show();
    // Takes the line away, for a message.
    static void hide();

private:
    using Clock = std::chrono::steady_clock;
    void draw(Clock::time_point now);

    uint64_t total_;
    std::string what_;
    std::thread::id thread_ = std::this_thread::get_id();
    Clock::time_point start_;
    Clock::time_point next_; // when to draw
    bool drawn_ = false;
};

#endif
