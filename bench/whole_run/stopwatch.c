// stopwatch JOBS RUNS [RECIPIENT MESSAGE]... -- PROGRAM [ARGUMENT...]: what runs of a program cost.
//
// Starts the program RUNS times, JOBS of them at a time, run after run with the next of the
// messages on standard input and its recipient in RESP_RECIPIENT (none: as they are), and prints a
// line for each run as it ends: user plus system time, then wall time, in nanoseconds, the peak
// resident set in KiB, and the wait status; at last a line with the nanoseconds that all of it
// took.
//
// Times and memory are those of the program and of the children it waited for; getrusage(2). The
// kernel scales user and system time to what the scheduler has counted in nanoseconds, so their sum
// is exact also where each alone is counted in ticks. The program is started by vfork(2) from a
// process of a few pages, so nothing of this one is in its figures.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { kMostJobs = 1024 };

struct job {
    pid_t pid;
    long long started;
};

static long long now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

static long long nanoseconds(struct timeval time) {
    return time.tv_sec * 1000000000LL + time.tv_usec * 1000LL;
}

static void fail(const char* what) {
    perror(what);
    exit(2);
}

// mail: a recipient and a message, or null
static void start(struct job* job, char** mail, char** program) {
    const int input = mail == NULL ? STDIN_FILENO : open(mail[1], O_RDONLY | O_CLOEXEC);
    if (input < 0 || (mail != NULL && setenv("RESP_RECIPIENT", mail[0], 1) != 0))
        fail(mail[1]);
    job->started = now();
    job->pid = vfork();
    if (job->pid == 0) {
        if (input != STDIN_FILENO)
            dup2(input, STDIN_FILENO);
        execv(program[0], program);
        _exit(127);
    }
    if (job->pid < 0)
        fail("vfork");
    if (input != STDIN_FILENO)
        close(input);
}

// Waits for one run, prints its line and frees its place.
static struct job* finish(struct job* jobs, int count) {
    int status;
    struct rusage usage;
    const pid_t pid = wait4(-1, &status, 0, &usage);
    const long long ended = now();
    if (pid < 0)
        fail("wait4");
    for (struct job* job = jobs; job < jobs + count; ++job) {
        if (job->pid != pid)
            continue;
        printf("%lld %lld %ld %d\n", nanoseconds(usage.ru_utime) + nanoseconds(usage.ru_stime),
               ended - job->started, usage.ru_maxrss, status);
        job->pid = 0;
        return job;
    }
    errno = ECHILD;
    fail("wait4");
    return NULL;
}

int main(int argc, char** argv) {
    int end = 3; // of the mails
    while (end < argc && strcmp(argv[end], "--") != 0)
        ++end;
    const int job_count = argc > 2 ? atoi(argv[1]) : 0;
    const int runs = argc > 2 ? atoi(argv[2]) : 0;
    if (end + 1 >= argc || end % 2 == 0 || job_count < 1 || job_count > kMostJobs || runs < 1) {
        fprintf(stderr,
                "usage: stopwatch JOBS RUNS [RECIPIENT MESSAGE]... -- PROGRAM [ARGUMENT...]\n");
        return 2;
    }
    const int mail_count = (end - 3) / 2;
    static struct job jobs[kMostJobs];
    const long long began = now();
    for (int run = 0; run < runs; ++run) {
        struct job* place = run < job_count ? &jobs[run] : finish(jobs, job_count);
        start(place, mail_count == 0 ? NULL : argv + 3 + run % mail_count * 2, argv + end + 1);
    }
    for (int left = runs < job_count ? runs : job_count; left > 0; --left)
        finish(jobs, job_count);
    printf("%lld\n", now() - began);
    return 0;
}
