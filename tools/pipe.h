// Two halves of a long job side by side: one makes items in a thread of its own, the other takes them in order. At most a
// few items wait at a time.
#ifndef KAL_TOOLS_PIPE_H
#define KAL_TOOLS_PIPE_H

#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

template <class Item>
class Pipe {
public:
    // Runs `make`, which puts the items; at once and whole where the job is `small`. What it throws is thrown by take.
    Pipe(bool small, std::function<void(Pipe&)> make)
        : most_(small ? SIZE_MAX : kMostWaiting), make_(std::move(make)) {
        if (small)
            run();
        else
            maker_ = std::thread([this] { run(); });
    }
    // Stops the maker at its next item.
    ~Pipe() {
        {
            const std::lock_guard lock(mutex_);
            left_ = true;
        }
        room_.notify_one();
        if (maker_.joinable())
            maker_.join();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void put(Item item) {
        std::unique_lock lock(mutex_);
        room_.wait(lock, [this] { return waiting_.size() < most_ || left_; });
        if (left_)
            throw Left();
        waiting_.push_back(std::move(item));
        come_.notify_one();
    }

    // The next item; none when all are made.
    std::optional<Item> take() {
        std::unique_lock lock(mutex_);
        come_.wait(lock, [this] { return !waiting_.empty() || done_; });
        if (waiting_.empty()) {
            if (thrown_)
                std::rethrow_exception(thrown_);
            return {};
        }
        std::optional<Item> item(std::move(waiting_.front()));
        waiting_.pop_front();
        room_.notify_one();
        return item;
    }

private:
    static constexpr size_t kMostWaiting = 8;
    struct Left {};

    void run() {
        std::exception_ptr thrown;
        try {
            make_(*this);
        } catch (const Left&) {
        } catch (...) {
            thrown = std::current_exception();
        }
        const std::lock_guard lock(mutex_);
        thrown_ = thrown;
        done_ = true;
        come_.notify_one();
    }

    size_t most_;
    std::function<void(Pipe&)> make_;
    std::mutex mutex_;
    std::condition_variable room_;
    std::condition_variable come_;
    std::deque<Item> waiting_;
    std::exception_ptr thrown_;
    bool done_ = false;
    bool left_ = false;
    std::thread maker_;
};

#endif
