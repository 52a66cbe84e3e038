// The configuration reader over any file.
#include "fuzz.h"
#include "lib/conf/qrx_conf.h"
#include "memory_file.h"
#include "tests/twins/conf_reader_twin.h"

#include <memory>

namespace {

using Variables = std::map<std::string, std::string>;

struct FreeStore {
    void operator()(conf_store* store) const { conf_free_r(store); }
};

Variables variables_in(const conf_store& store) {
    Variables variables;
    for (unsigned i = 0; i < store.count; ++i)
        variables[store.entries[i].name] = conf_get_r(store.entries[i].name, &store);
    fuzz::expect_equal(variables.size(), std::size_t{store.count}, "names, each once");
    return variables;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::MemoryFile file;
    file.fill(data, size);
    const std::unique_ptr<conf_store, FreeStore> store(
        static_cast<conf_store*>(std::calloc(1, sizeof(conf_store))));
    fuzz::expect_equal(conf_read_file_r(file.path().c_str(), store.get()), 0, "result of reading");
    fuzz::expect_equal(variables_in(*store), read_slowly(fuzz::text_of(data, size)), "variables");
    return 0;
}
