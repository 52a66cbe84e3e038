// print_value FILE NAME: prints the variable's value as the configuration reader takes it from the
// file, "(skipped)" when the file defines none.

#include "lib/conf/qrx_conf.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

struct FreeStore {
    void operator()(conf_store* store) const { conf_free_r(store); }
};

int main(int count, char* arguments[]) {
    const std::unique_ptr<conf_store, FreeStore> store(
        static_cast<conf_store*>(std::calloc(1, sizeof(conf_store))));
    if (count != 3 || store == nullptr || conf_read_file_r(arguments[1], store.get()) != 0)
        return 1;
    const char* const value = conf_get_r(arguments[2], store.get());
    std::fputs(value != nullptr ? value : "(skipped)", stdout);
}
