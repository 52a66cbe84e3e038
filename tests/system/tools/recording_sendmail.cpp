// The sandbox's /usr/sbin/sendmail: records how it was called and what it was given, and then
// behaves as the test wants.
//
// Each call gets a folder /sandbox/spool/NNNN, numbered in the order of the calls, with the files
//   argv   the arguments, each ended by a NUL byte
//   stdin  the bytes of standard input as far as they were read
//   info   lines "name value": what the call inherited, and its times (CLOCK_MONOTONIC,
//   nanoseconds)
// While the call is under way the folder is named NNNN.open; the renaming is what makes it
// complete. Names that begin with a dot are the recorder's own.
//
// What it does stands in /sandbox/sendmail.control: for each call a block of lines, the blocks
// separated by an empty line; the last block holds for all later calls too. Each line is one step:
//   read [N]      read standard input to its end, or N bytes of it
//   close         close standard input
//   sleep SECONDS
//   out TEXT      write TEXT to standard output; \n and \\ as in C
//   err TEXT      likewise to standard error
//   run COMMAND   run COMMAND by the shell, without standard streams
//   stop          stop by SIGSTOP, and go on when continued
//   signal N      end by signal N
//   exit N        end with status N
// A block that runs out of steps ends with status 0. Without the file, or with an empty block, the
// call reads all of its input. The record is complete before a call ends or stops.

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr char kSpool[] = "/sandbox/spool";
constexpr char kControl[] = "/sandbox/sendmail.control";
constexpr int kRecorderFailed = 99;

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "recording sendmail: %s: %s\n", what.c_str(), std::strerror(errno));
    _exit(kRecorderFailed);
}

std::string now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::to_string(time.tv_sec * 1000000000LL + time.tv_nsec);
}

std::string link_target(const std::string& path) {
    char target[4096];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    return length < 0 ? "-" : std::string(target, static_cast<size_t>(length));
}

void write_all(int fd, const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t count = write(fd, bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno != EINTR) {
            return; // the reader is gone: the program's own streams are no business of the record
        }
        done += count < 0 ? 0 : static_cast<size_t>(count);
    }
}

// What the call inherited from the program that started it.
class Inheritance {
public:
    Inheritance() {
        add("start_ns", now());
        add("parent", std::to_string(getppid()));
        add("pid", std::to_string(getpid()));
        add("uid", std::to_string(getuid()) + " " + std::to_string(geteuid()));
        add("gid", std::to_string(getgid()) + " " + std::to_string(getegid()));
        add("cwd", link_target("/proc/self/cwd"));
        add_signals();
        add_descriptors();
        add_variables();
    }

    const std::string& text() const { return text_; }

private:
    void add(const std::string& name, const std::string& value) {
        text_ += name + " " + value + "\n";
    }

    void add_signals() {
        sigset_t blocked;
        sigprocmask(SIG_SETMASK, nullptr, &blocked);
        for (int number = 1; number < SIGRTMIN; ++number) {
            struct sigaction action {};
            if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
                add("ignored", std::to_string(number));
            }
            if (sigismember(&blocked, number) == 1) {
                add("blocked", std::to_string(number));
            }
        }
    }

    void add_descriptors() {
        DIR* folder = opendir("/proc/self/fd");
        if (folder == nullptr) {
            die("/proc/self/fd");
        }
        std::vector<int> open;
        while (const dirent* entry = readdir(folder)) {
            const int fd = std::atoi(entry->d_name);
            if (entry->d_name[0] != '.' && fd != dirfd(folder)) {
                open.push_back(fd);
            }
        }
        closedir(folder);
        std::sort(open.begin(), open.end());
        for (const int fd : open) {
            const std::string number = std::to_string(fd);
            add("fd", number + " " + link_target("/proc/self/fd/" + number));
        }
    }

    void add_variables() {
        for (char** variable = environ; *variable != nullptr; ++variable) {
            if (std::strchr(*variable, '\n') == nullptr) {
                add("env", *variable);
            }
        }
    }

    std::string text_;
};

// The record of one call.
class Record {
public:
    Record(int argc, char** argv, const std::string& inherited) {
        claim_number();
        std::string arguments;
        for (int i = 0; i < argc; ++i) {
            arguments.append(argv[i]).push_back('\0');
        }
        store("argv", arguments);
        info_ = open_file("info");
        write_all(info_, inherited);
        stdin_ = open_file("stdin");
        rename_folder(".open");
    }

    unsigned number() const { return number_; }

    void add_input(const std::string& bytes) { write_all(stdin_, bytes); }

    // Closes the record; what the call does afterwards isn't recorded.
    void complete() {
        if (completed_) {
            return;
        }
        completed_ = true;
        write_all(info_, "end_ns " + now() + "\n");
        rename_folder("");
    }

private:
    // The number is one more than the last one; a lock keeps calls at the same moment apart.
    void claim_number() {
        const std::string name = std::string(kSpool) + "/.last";
        const int fd = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd < 0 || flock(fd, LOCK_EX) != 0) {
            die(name);
        }
        fchmod(fd, 0666);
        char text[16] = "";
        if (pread(fd, text, sizeof text - 1, 0) < 0) {
            die(name);
        }
        number_ = static_cast<unsigned>(std::atoi(text)) + 1;
        char padded[16];
        std::snprintf(padded, sizeof padded, "%04u", number_);
        base_name_ = padded;
        folder_ = std::string(kSpool) + "/." + base_name_;
        if (mkdir(folder_.c_str(), 0777) != 0) {
            die(folder_);
        }
        if (pwrite(fd, padded, std::strlen(padded), 0) < 0) {
            die(name);
        }
        close(fd);
    }

    void rename_folder(const char* suffix) {
        const std::string name = std::string(kSpool) + "/" + base_name_ + suffix;
        if (rename(folder_.c_str(), name.c_str()) != 0) {
            die(name);
        }
        folder_ = name;
    }

    int open_file(const char* name) const {
        const std::string path = folder_ + "/" + name;
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0) {
            die(path);
        }
        return fd;
    }

    void store(const char* name, const std::string& bytes) const {
        const int fd = open_file(name);
        write_all(fd, bytes);
        close(fd);
    }

    unsigned number_ = 0;
    std::string base_name_;
    std::string folder_;
    int info_ = -1;
    int stdin_ = -1;
    bool completed_ = false;
};

using Steps = std::vector<std::string>;

// The steps for the call of that number, which starts at 1.
Steps steps_for(unsigned number) {
    std::ifstream file(kControl);
    std::vector<Steps> blocks(1);
    for (std::string line; std::getline(file, line);) {
        if (line.empty()) {
            blocks.emplace_back();
        } else {
            blocks.back().push_back(line);
        }
    }
    const Steps& chosen = blocks[std::min<size_t>(number, blocks.size()) - 1];
    return chosen.empty() ? Steps{"read"} : chosen;
}

void read_input(Record& record, const std::string& limit) {
    size_t left = limit.empty() ? SIZE_MAX : std::strtoul(limit.c_str(), nullptr, 10);
    char buffer[65536];
    while (left > 0) {
        const ssize_t count = read(STDIN_FILENO, buffer, std::min(left, sizeof buffer));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return;
        }
        record.add_input(std::string(buffer, static_cast<size_t>(count)));
        left -= static_cast<size_t>(count);
    }
}

std::string unescaped(const std::string& text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            ++i;
            result += text[i] == 'n' ? '\n' : text[i];
        } else {
            result += text[i];
        }
    }
    return result;
}

void sleep_for(double seconds) {
    timespec left{};
    left.tv_sec = static_cast<time_t>(seconds);
    left.tv_nsec = static_cast<long>((seconds - static_cast<double>(left.tv_sec)) * 1e9);
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

void run_shell(const std::string& command) {
    const std::string quiet = "exec </dev/null >/dev/null 2>&1; " + command;
    if (std::system(quiet.c_str()) != 0) { // NOLINT: the test's own command
        errno = 0;
        die("run " + command);
    }
}

void end_by_signal(int number) {
    signal(number, SIG_DFL);
    sigset_t all;
    sigemptyset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    raise(number);
}

void take_step(Record& record, const std::string& line) {
    const size_t blank = line.find(' ');
    const std::string verb = line.substr(0, blank);
    const std::string rest = blank == std::string::npos ? "" : line.substr(blank + 1);
    if (verb == "read") {
        read_input(record, rest);
    } else if (verb == "close") {
        close(STDIN_FILENO);
    } else if (verb == "sleep") {
        sleep_for(std::atof(rest.c_str()));
    } else if (verb == "out") {
        write_all(STDOUT_FILENO, unescaped(rest));
    } else if (verb == "err") {
        write_all(STDERR_FILENO, unescaped(rest));
    } else if (verb == "run") {
        run_shell(rest);
    } else if (verb == "stop") {
        record.complete();
        raise(SIGSTOP);
    } else if (verb == "signal") {
        record.complete();
        end_by_signal(std::atoi(rest.c_str()));
    } else if (verb == "exit") {
        record.complete();
        _exit(std::atoi(rest.c_str()));
    } else {
        errno = EINVAL;
        die("step '" + line + "'");
    }
}

// The program may run under limits that a test has set; the recorder's own work must not fail by
// them.
void lift_limits() {
    for (const auto limit : {RLIMIT_FSIZE, RLIMIT_NOFILE, RLIMIT_AS, RLIMIT_DATA}) {
        const rlimit none{RLIM_INFINITY, RLIM_INFINITY};
        rlimit value{};
        if (setrlimit(limit, &none) != 0 && getrlimit(limit, &value) == 0) {
            value.rlim_cur = value.rlim_max;
            setrlimit(limit, &value);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    lift_limits();
    const Inheritance inherited;
    umask(0);
    Record record(argc, argv, inherited.text());
    for (const std::string& step : steps_for(record.number())) {
        take_step(record, step);
    }
    record.complete();
    return 0;
}
