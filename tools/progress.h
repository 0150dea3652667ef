// How far a long command is: a line on the terminal that stands behind the messages, nothing elsewhere.
#ifndef KAL_TOOLS_PROGRESS_H
#define KAL_TOOLS_PROGRESS_H

#include <cstddef>
#include <string>

class Progress {
public:
    explicit Progress(size_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    // `what` is being worked on, after `done` others.
    void show(size_t done, const std::string& what) const;

private:
    size_t total_;
    bool visible_;
};

#endif
