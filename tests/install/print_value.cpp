// print_value FILE NAME: prints the variable's value as the configuration reader takes it from the
// file, "(skipped)" when the file defines none.

#include "lib/conf/qrx_conf.h"

#include <cstdio>

int main(int count, char* arguments[]) {
    conf_store store{};
    if (count != 3 || conf_read_file_r(arguments[1], &store) != 0)
        return 1;
    const char* const value = conf_get_r(arguments[2], &store);
    std::fputs(value != nullptr ? value : "(skipped)", stdout);
}
