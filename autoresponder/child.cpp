#include "autoresponder/child.h"

#include <cerrno>
#include <sys/wait.h>

void wait_for_child(int pid) {
    while (waitpid(pid, nullptr, WUNTRACED) < 0 && errno == EINTR) {
    }
}
