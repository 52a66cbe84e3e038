// A library for LD_PRELOAD: what waits for an answer waits a hundredth of its time, or half a
// second where that is longer.
//
// The time-outs of the database connection are compiled in; a test that would sit them out at every
// statement would take an hour. The client library waits by poll(2), so each of its waits is cut
// here, and nothing else is changed. The true times are waited for in test_mute_server and, where
// asked for, in test_bounded_time.

#include <dlfcn.h>
#include <poll.h>

#include <algorithm>

extern "C" int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
    using Poll = int (*)(pollfd*, nfds_t, int);
    static const auto real = reinterpret_cast<Poll>(dlsym(RTLD_NEXT, "poll"));
    constexpr int kShortest = 500; // a server on a busy machine is slow, not silent
    return real(descriptors, count,
                milliseconds > kShortest ? std::max(milliseconds / 100, kShortest) : milliseconds);
}
