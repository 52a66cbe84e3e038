#include "fork_exec.h"

#include "child_process.h"
#include "messlog.h"

#include "lib/conf/qrx_conf.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace quarx::child;

namespace {

constexpr char kLibexecFolder[] = "/usr/lib/quarx-9.0";

using Path = std::array<char, 4096>;

// False after a message when the name is not one.
bool find_utility(const char* name, Path* path) {
    if (std::strchr(name, '/')) {
        messlog2(0, 0, "Utility name '%s' is invalid. Use only utility name without path.", name);
        return false;
    }
    std::snprintf(path->data(), path->size(), "%s/admin/bin/%s",
                  qrxConfGetDefaultByIndex(kConfProductRootD), name);
    return true;
}

} // namespace

int fork_execv_log(int quiet, const char* path, char* const argv[]) {
    char* out;
    char* err;
    const int code = fork_execv_getouterr(path, argv, &out, &err);
    if (code != 0 && !quiet) {
        std::fputs(err, stderr);
        if (*out)
            messlog2(0, 0, "%s execution failed:\n%s", path, out);
        else
            messlog2(0, 0, "%s execution failed (no output)", path);
    }
    std::free(out);
    std::free(err);
    return code;
}

int fork_execl_log(int quiet, const char* path, ...) {
    va_list args;
    va_start(args, path);
    const Argument_vector argv = collect_arguments(args);
    va_end(args);
    return fork_execv_log(quiet, path, argv.get());
}

int path_exec(const char* path, ...) {
    va_list args;
    va_start(args, path);
    const int code = path_exec_raw(path, args);
    va_end(args);
    return code;
}

int path_exec_raw(const char* path, va_list args) {
    const Short_arguments argv = short_arguments(path, args);
    return fork_execv_log(0, path, argv.data());
}

int util_exec(const char* name, ...) {
    Path path;
    if (!find_utility(name, &path))
        return -1;
    va_list args;
    va_start(args, name);
    const int code = path_exec_raw(path.data(), args);
    va_end(args);
    return code;
}

int util_exec_args(const char* name, char* const argv[]) {
    Path path;
    return find_utility(name, &path) ? fork_execv_log(0, path.data(), argv) : -1;
}

int util_libexec(const char* name, ...) {
    Path path;
    std::snprintf(path.data(), path.size(), "%s/%s", kLibexecFolder, name);
    va_list args;
    va_start(args, name);
    const int code = path_exec_raw(path.data(), args);
    va_end(args);
    return code;
}
