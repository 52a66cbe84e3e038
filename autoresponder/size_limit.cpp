#include "autoresponder/size_limit.h"

#include "autoresponder/paths.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};

// 0 stands for no limit.
int read_limit() {
    const std::unique_ptr<FILE, CloseFile> file(std::fopen(paths::kDatabytes, "re"));
    char word[256];
    if (!file || std::fscanf(file.get(), "%255s", word) != 1)
        return 0;
    return std::atoi(word);
}

} // namespace

bool exceeds_size_limit(off_t size) {
    const int limit = read_limit();
    return limit > 0 && size > limit;
}
