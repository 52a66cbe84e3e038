#pragma once

struct conf_entry {
    char* name;
    char* value;
};

struct conf_store {
    conf_entry* entries;
    unsigned capacity;
    unsigned count;
    int sorted;
};

int autoprepend();
const char* qrxConfGet(const char* name);
const char* qrxConfGetByIndex(int index);
const char* qrxConfGetDefaultByIndex(int index);
const char* qrxConfGetDefault(const char* name);
int conf_read_file_r(const char* path, conf_store* store);
int conf_set_r(const char* name, const char* value, conf_store* store);
const char* conf_get_r(const char* name, const conf_store* store);
int conf_init_r(conf_store* store);
void conf_finalize_r(conf_store* store);
void conf_free_r(conf_store* store);
