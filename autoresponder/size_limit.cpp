#include "autoresponder/size_limit.h"

#include "autoresponder/paths.h"
#include "lib/util/owners.h"

#include <cstdio>
#include <cstdlib>

namespace {

// 0 stands for no limit.
int read_limit() {
    const InputFile file(std::fopen(paths::kDatabytes, "re"));
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
