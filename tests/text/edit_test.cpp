// The field editor at a real terminal: a pseudo-terminal whose other end types.
#include <kal/text.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kCapacity = 6;

// What one key press came to.
struct Reply {
    int key;
    int32_t cursor;
    char text[kCapacity + 2];
};

void sendReply(int to, int key, int32_t cursor, const char* text) {
    Reply reply = {key, cursor, {}};
    std::strcpy(reply.text, text);
    if (write(to, &reply, sizeof reply) != sizeof reply)
        _exit(3);
}

// A process whose standard input is a pseudo-terminal or a pipe and that edits a field, a key a reply.
class Editor {
public:
    enum Input { terminal, pipeline };
    explicit Editor(Input kind, const char* text = "", int32_t cursor = 0, bool clearFirst = false,
                    void (*prepare)(int replies) = nullptr) {
        int replies[2], go[2], input[2];
        if (pipe(replies) != 0 || pipe(go) != 0 || pipe(input) != 0)
            abort();
        typing_ = input[1];
        child_ = kind == terminal ? forkpty(&typing_, nullptr, nullptr, nullptr) : fork();
        if (child_ == 0) {
            for (int signal : {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGALRM, SIGTSTP})
                std::signal(signal, SIG_DFL); // whatever started the tests may have them ignored
            if (kind == pipeline)
                dup2(input[0], 0);
            close(input[1]);
            close(go[1]);
            char start;
            if (read(go[0], &start, 1) != 1)
                _exit(2);
            if (prepare != nullptr)
                prepare(replies[1]);
            edit(replies[1], text, cursor, clearFirst);
        }
        tcgetattr(typing_, &before_);
        if (kind == terminal)
            close(input[1]);
        close(input[0]);
        close(replies[1]);
        close(go[0]);
        replies_ = replies[0];
        go_ = go[1];
    }
    ~Editor() {
        if (child_ > 0) {
            kill(child_, SIGKILL);
            waitpid(child_, nullptr, 0);
        }
        for (int fd : {typing_, replies_, go_})
            close(fd);
    }
    Editor(const Editor&) = delete;
    Editor& operator=(const Editor&) = delete;

    void start() { EXPECT_EQ(write(go_, "g", 1), 1); }
    void type(const std::string& keys) {
        EXPECT_EQ(write(typing_, keys.data(), keys.size()), ssize_t(keys.size()));
    }
    void endInput() {
        close(typing_);
        typing_ = -1;
    }
    // key, cursor and text as "key cursor text".
    std::string reply() {
        pollfd ready = {replies_, POLLIN, 0};
        Reply got;
        if (poll(&ready, 1, 20000) != 1 || read(replies_, &got, sizeof got) != sizeof got)
            return "no reply";
        return std::to_string(got.key) + " " + std::to_string(got.cursor) + " " + got.text;
    }
    bool isRestored() const {
        termios now;
        tcgetattr(typing_, &now);
        return now.c_lflag == before_.c_lflag && now.c_iflag == before_.c_iflag;
    }
    void untilItWaits() const {
        for (int i = 0; i < 20000 && isRestored(); i++)
            usleep(1000);
    }
    void send(int signal) const { kill(child_, signal); }
    int wait() {
        int status = 0;
        waitpid(std::exchange(child_, -1), &status, 0);
        return status;
    }

private:
    [[noreturn]] static void edit(int replies, const char* given, int32_t cursor, bool clearFirst) {
        char text[kCapacity + 1] = "";
        std::strcpy(text, given);
        for (;;) {
            const int key = static_cast<unsigned char>(KalEditStr(text, kCapacity, &cursor, clearFirst));
            clearFirst = false;
            sendReply(replies, key, cursor, text);
        }
    }
    pid_t child_ = -1;
    int typing_ = -1, replies_ = -1, go_ = -1;
    termios before_ = {};
};

struct Press {
    std::string keys;
    std::string reply;
};

} // namespace

TEST(EditStr, KeysOfATerminal) {
    const std::vector<Press> presses = {
        {"a", "97 1 a"},       {"c", "99 2 ac"},         {"\033[D", "0 1 ac"},
        {"b", "98 2 abc"},     {"\033OH", "0 0 abc"},    {"\033[D", "0 0 abc"},
        {"\177", "8 0 abc"},   // nothing before the cursor
        {"\033[3~", "8 0 bc"}, // Delete
        {"\033[C", "0 1 bc"},  {"\033[4~", "0 2 bc"},    {"\033OC", "0 2 bc"},
        {"\033[3~", "8 1 b"}, // Delete at the end takes the last
        {"\033[1~", "0 0 b"},  {"\033[F", "0 1 b"},      {"\033[A", "0 1 b"}, // keys without an effect
        {"\033[5~", "0 1 b"},  {"\033[1;5C", "0 1 b"},   {"\033OP", "0 1 b"},
        {"\033[[A", "0 1 b"},  {"\344", "228 2 b\344"},  {"\010", "8 1 b"},
        {"\r", "13 1 b"},      {"\n", "13 1 b"},         {"\033", "27 1 b"},
        {"\033x", "27 1 b"}, // two keys typed at once
        {"", "120 2 bx"},      {"123456", "49 3 bx1"},   {"", "50 4 bx12"},
        {"", "51 5 bx123"},    {"", "52 6 bx1234"},      {"", "53 6 bx1234"}, // full
        {"", "54 6 bx1234"},   {"\033[H", "0 0 bx1234"}, {"7", "55 0 bx1234"},
    };
    Editor editor(Editor::terminal);
    editor.start();
    for (const Press& press : presses) {
        if (!press.keys.empty()) {
            editor.untilItWaits(); // elsewhere the terminal itself takes the erase key
            editor.type(press.keys);
        }
        EXPECT_EQ(editor.reply(), press.reply);
    }
}

TEST(EditStr, AProposedTextGoesWithTheFirstCharacterAlone) {
    const Press cases[] = {
        {"x", "120 1 x"},   {"\033[D", "0 2 OLD"}, {"\177", "8 2 OL"}, {"\033[H\033[3~", "0 0 OLD"},
        {"\r", "13 3 OLD"}, {"\033", "27 3 OLD"},
    };
    for (const Press& each : cases) {
        Editor editor(Editor::terminal, "OLD", 3, true);
        editor.start();
        editor.untilItWaits();
        editor.type(each.keys);
        EXPECT_EQ(editor.reply(), each.reply);
    }
    Editor outside(Editor::terminal, "OLD", 99); // a cursor that is nowhere in the text
    outside.start();
    outside.type("x");
    EXPECT_EQ(outside.reply(), "120 4 OLDx");
}

TEST(EditStr, KeysTypedAheadStay) {
    Editor editor(Editor::terminal);
    editor.type("ab\033[Dc"); // before anybody waits
    editor.start();
    for (const char* reply : {"97 1 a", "98 2 ab", "0 1 ab", "99 2 acb"})
        EXPECT_EQ(editor.reply(), reply);
}

TEST(EditStr, TheTerminalIsInOrderWhenASignalEndsTheProcess) {
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM}) {
        Editor editor(Editor::terminal);
        editor.start();
        editor.untilItWaits();
        EXPECT_FALSE(editor.isRestored());
        if (signal == SIGINT)
            editor.type("\003");
        else
            editor.send(signal);
        const int status = editor.wait();
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << status;
        EXPECT_TRUE(editor.isRestored());
    }
}

TEST(EditStr, AHandledSignalFindsTheTerminalInOrderAndTheEditorGoesOn) {
    static int handlerReplies;
    Editor editor(Editor::terminal, "", 0, false, [](int replies) {
        handlerReplies = replies;
        std::signal(SIGTERM, [](int) {
            termios now;
            tcgetattr(0, &now);
            sendReply(handlerReplies, 1000, (now.c_lflag & ECHO) != 0, "");
        });
    });
    editor.start();
    editor.untilItWaits();
    editor.send(SIGTERM);
    EXPECT_EQ(editor.reply(), "1000 1 ");
    editor.type("\033[");
    editor.type("H");
    EXPECT_EQ(editor.reply(), "0 0 ");
    editor.type("k");
    EXPECT_EQ(editor.reply(), "107 1 k");
}

// What Ctrl-Z at the keyboard does under a shell: a process that watches, and the editor below it in front.
TEST(EditStr, AStoppedProcessLeavesTheTerminalInOrderAndTakesItAgainWhenItGoesOn) {
    Editor editor(Editor::terminal, "", 0, false, [](int replies) {
        const pid_t watched = fork();
        if (watched == 0) {
            std::signal(SIGTTOU, SIG_IGN);
            setpgid(0, 0);
            tcsetpgrp(0, getpid());
            std::signal(SIGTTOU, SIG_DFL);
            return; // and edits
        }
        int status;
        while (waitpid(watched, &status, WUNTRACED) == watched && WIFSTOPPED(status)) {
            termios now;
            tcgetattr(0, &now);
            sendReply(replies, 1000 + WSTOPSIG(status), (now.c_lflag & ECHO) != 0, "");
            kill(watched, SIGCONT);
        }
        _exit(0);
    });
    editor.start();
    for (const char* key : {"a", "b"}) {
        editor.untilItWaits();
        editor.type("\032");
        EXPECT_EQ(editor.reply(), std::to_string(1000 + SIGTSTP) + " 1 ");
        editor.untilItWaits();
        EXPECT_FALSE(editor.isRestored());
        editor.type(key);
        EXPECT_EQ(editor.reply().substr(0, 3), std::to_string(int(*key)) + " ");
    }
}

TEST(EditStr, InputThatIsNoTerminalIsTakenByteByByte) {
    Editor editor(Editor::pipeline, "ab", 2);
    editor.start();
    editor.type(std::string("\0\107x\0\123\0\1\010\033[", 10));
    editor.endInput();
    for (const char* reply :
         {"0 0 ab", "120 1 xab", "8 1 xb", "0 1 xb", "8 0 b", "27 0 b", "91 1 [b", "27 1 [b", "27 1 [b"})
        EXPECT_EQ(editor.reply(), reply);
}
