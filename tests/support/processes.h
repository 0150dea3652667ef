// Tests that need a process of their own: one that exits, is killed, or has fewer rights.
#ifndef KAL_TESTS_SUPPORT_PROCESSES_H
#define KAL_TESTS_SUPPORT_PROCESSES_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

// Starts `body` in a child that ends by exit.
inline pid_t startProcess(const std::function<void()>& body) {
    std::fflush(nullptr); // else the child would print it again
    const pid_t child = fork();
    if (child == 0) {
        body();
        std::exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    return child;
}

// The child's wait status: 0 when no check failed in it.
inline int endOf(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}
inline int inChild(const std::function<void()>& body) {
    return endOf(startProcess(body));
}

// The same without the rights of the superuser.
inline int inChildWithoutRights(const std::function<void()>& body) {
    return inChild([&] {
        constexpr unsigned nobody = 65534;
        if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0))
            std::exit(2);
        body();
    });
}

#endif
