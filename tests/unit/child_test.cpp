// Waiting for a child.

#include "autoresponder/child.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A child that lives until its standard input ends, which is when `write_end` is closed.
struct Child {
    int pid;
    int write_end;

    Child() {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        write_end = ends[1];
        pid = fork();
        if (pid == 0) {
            close(ends[1]);
            char byte;
            _exit(read(ends[0], &byte, 1) == 0 ? 3 : 4);
        }
        close(ends[0]);
    }
    Child(const Child&) = delete;
    void end() { close(write_end); }
};

bool was_waited_for(int pid) {
    return waitpid(pid, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

TEST(WaitForChild, TakesTheChildWhateverItsStatus) {
    Child child;
    child.end();
    wait_for_child(child.pid);
    EXPECT_TRUE(was_waited_for(child.pid));
}

TEST(WaitForChild, TakesAChildThatASignalEnded) {
    Child child;
    kill(child.pid, SIGKILL);
    wait_for_child(child.pid);
    EXPECT_TRUE(was_waited_for(child.pid));
    child.end();
}

TEST(WaitForChild, GoesOnWhenTheChildIsStopped) {
    Child child;
    kill(child.pid, SIGSTOP);
    wait_for_child(child.pid);
    EXPECT_EQ(waitpid(child.pid, nullptr, WNOHANG), 0) << "it is still there";
    kill(child.pid, SIGKILL);
    waitpid(child.pid, nullptr, 0);
    child.end();
}

TEST(WaitForChild, GoesOnWithoutSuchAChild) {
    wait_for_child(getpid());
    SUCCEED() << "it returned";
}

volatile sig_atomic_t alarms = 0;
volatile sig_atomic_t alarm_closes = -1;

// The second alarm ends the child, so the wait has been interrupted once before.
void on_alarm(int) {
    alarms = alarms + 1;
    if (alarms == 2)
        close(alarm_closes);
}

TEST(WaitForChild, GoesOnWaitingAfterASignal) {
    Child child;
    alarms = 0;
    alarm_closes = child.write_end;
    struct sigaction interrupting {};
    interrupting.sa_handler = on_alarm; // without SA_RESTART
    sigaction(SIGALRM, &interrupting, nullptr);
    const itimerval often{{0, 2000}, {0, 2000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    wait_for_child(child.pid);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(alarms, 2);
    EXPECT_TRUE(was_waited_for(child.pid));
    std::signal(SIGALRM, SIG_DFL);
}

} // namespace
