// The field editor at a real terminal: whenever it waits for a key, the other end of a pseudo-terminal types the next.
#include "tests/support/faults.h"
#include "tests/support/processes.h"

#include <csignal>
#include <deque>
#include <pty.h>

namespace {

constexpr int kCapacity = 6;

class EditStr : public ::testing::Test {
protected:
    EditStr() : input_(dup(0)) {
        int slave;
        EXPECT_EQ(openpty(&keyboard, &slave, nullptr, nullptr, nullptr), 0);
        readFrom(slave);
        tcgetattr(0, &inOrder);
        wait = hostCalls.ppoll;
        hostCalls.ppoll = typeThenWait;
        keys.clear();
    }
    ~EditStr() override {
        readFrom(input_);
        close(keyboard);
    }
    static void readFrom(int file) {
        dup2(file, 0);
        close(file);
    }
    static bool isInOrder() {
        termios now;
        tcgetattr(0, &now);
        return now.c_lflag == inOrder.c_lflag && now.c_iflag == inOrder.c_iflag;
    }
    static void type(const std::string& typed) {
        EXPECT_EQ(write(keyboard, typed.data(), typed.size()), ssize_t(typed.size()));
    }
    // What a key press came to, as "key cursor text".
    std::string press(bool clearFirst = false) {
        const int key = static_cast<unsigned char>(KalEditStr(text, kCapacity, &cursor, clearFirst));
        EXPECT_STREQ(behind, "behind") << "stays within the field";
        return std::to_string(key) + " " + std::to_string(cursor) + " " + text;
    }

    char text[kCapacity + 1] = "", behind[8] = "behind";
    int32_t cursor = 0;
    // What is typed at each wait for a key, or the signal that comes.
    struct Event {
        std::string typed;
        int signal = 0;
    };
    static inline std::deque<Event> keys;

private:
    static int typeThenWait(pollfd* waits, nfds_t count, const timespec* limit, const sigset_t* mask) {
        // In order, the terminal itself takes the erase key.
        if (limit == nullptr && !isInOrder() && poll(waits, count, 0) == 0) {
            const Event next = keys.empty() ? Event{"no key"} : keys.front();
            if (!keys.empty())
                keys.pop_front();
            next.signal != 0 ? void(raise(next.signal)) : type(next.typed);
        }
        return wait(waits, count, limit, mask);
    }
    static inline decltype(HostCalls::ppoll) wait;
    static inline int keyboard;
    static inline termios inOrder;
    const int input_;
    const HostCallGuard guard_;
};

} // namespace

// Among them: nothing before the cursor, Delete in the text and at its end, keys without an effect, two keys typed at
// once, a full field.
TEST_F(EditStr, KeysOfATerminal) {
    const std::pair<const char*, const char*> presses[] = {
        {"a", "97 1 a"},          {"c", "99 2 ac"},      {"\033[D", "0 1 ac"},   {"b", "98 2 abc"},
        {"\033OH", "0 0 abc"},    {"\033[D", "0 0 abc"}, {"\177", "8 0 abc"},    {"\033[3~", "8 0 bc"},
        {"\033[C", "0 1 bc"},     {"\033[4~", "0 2 bc"}, {"\033OC", "0 2 bc"},   {"\033[3~", "8 1 b"},
        {"\033[1~", "0 0 b"},     {"\033[F", "0 1 b"},   {"\033[A", "0 1 b"},    {"\033[5~", "0 1 b"},
        {"\033[1;5C", "0 1 b"},   {"\033OP", "0 1 b"},   {"\033[[A", "0 1 b"},   {"\344", "228 2 b\344"},
        {"\010", "8 1 b"},        {"\r", "13 1 b"},      {"\n", "13 1 b"},       {"\033", "27 1 b"},
        {"\033x", "27 1 b"},      {"", "120 2 bx"},      {"123456", "49 3 bx1"}, {"", "50 4 bx12"},
        {"", "51 5 bx123"},       {"", "52 6 bx1234"},   {"", "53 6 bx1234"},    {"", "54 6 bx1234"},
        {"\033[H", "0 0 bx1234"}, {"7", "55 0 bx1234"}};
    for (const auto& [typed, result] : presses) {
        if (*typed != 0)
            keys = {{typed}};
        EXPECT_EQ(press(), result);
        EXPECT_TRUE(isInOrder());
    }
    const std::pair<const char*, const char*> first[] = {// when a text that is proposed is to go
                                                         {"x", "120 1 x"},
                                                         {"\033[D", "0 2 OLD"},
                                                         {"\177", "8 2 OL"},
                                                         {"\r", "13 3 OLD"},
                                                         {"\033", "27 3 OLD"}};
    for (const auto& [typed, result] : first) {
        std::strcpy(text, "OLD");
        cursor = 99; // nowhere in the text
        keys = {{typed}};
        EXPECT_EQ(press(true), result);
    }
    EXPECT_EQ(KalEditStr(nullptr, 1, &cursor, 0) + KalEditStr(text, 1, nullptr, 0), 27 + 27);
}

TEST_F(EditStr, AHandledSignalFindsTheTerminalInOrderAndTheEditorGoesOn) {
    static bool found;
    found = false;
    const auto before = std::signal(SIGTERM, [](int) { found = isInOrder(); });
    keys = {{"", SIGTERM}, {"\033["}, {"k"}};
    for (const char* result :
         {"27 0 ", "91 1 [", "107 2 [k"}) // an Escape, since the rest of the key did not come
        EXPECT_EQ(press(), result);
    EXPECT_TRUE(found);
    std::signal(SIGTERM, before);
}

TEST_F(EditStr, ASignalThatEndsOrStopsTheProcessLeavesTheTerminalInOrder) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM, SIGTSTP}) {
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            setpgid(0, 0); // a group whose members nobody could wake is never stopped
            std::signal(signal, SIG_DFL);
            keys = {{"", signal}, {"y"}};
            _exit(press() == "121 1 y" ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, WUNTRACED);
        EXPECT_TRUE(isInOrder());
        EXPECT_EQ(signal == SIGTSTP ? WIFSTOPPED(status) : WTERMSIG(status), signal == SIGTSTP ? 1 : signal);
        if (signal == SIGTSTP) {
            kill(child, SIGCONT);
            waitpid(child, &status, 0);
            EXPECT_EQ(status, 0) << "goes on with the next key";
        }
    }
}

TEST_F(EditStr, InputThatIsNoTerminalIsTakenByteByByte) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "\0\107x\0\123\0\1\010\033[", 10), 10);
    close(ends[1]);
    readFrom(ends[0]);
    std::strcpy(text, "ab");
    cursor = 2;
    for (const char* result :
         {"0 0 ab", "120 1 xab", "8 1 xb", "0 1 xb", "8 0 b", "27 0 b", "91 1 [b", "27 1 [b", "27 1 [b"})
        EXPECT_EQ(press(), result);
}
