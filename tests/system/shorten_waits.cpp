// A library for LD_PRELOAD: what waits for an answer waits a hundredth of its time.
//
// The time-outs of the database connection are compiled in; a test that would sit them out at every
// statement would take an hour. The client library waits by poll(2), so each of its waits is cut to
// a hundredth here, and nothing else is changed. The true times are measured by test_mute_server.

#include <dlfcn.h>
#include <poll.h>

extern "C" int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
    using Poll = int (*)(pollfd*, nfds_t, int);
    static const auto real = reinterpret_cast<Poll>(dlsym(RTLD_NEXT, "poll"));
    return real(descriptors, count, milliseconds > 0 ? (milliseconds + 99) / 100 : milliseconds);
}
