#pragma once

#include <cstddef>
#include <mysql.h>

MYSQL* quarx_db_connect_raw_ex(char* errbuf, size_t size);
MYSQL* quarx_db_connect_raw(char* errbuf, size_t size);
MYSQL* quarx_db_connect_ex(char* errbuf, size_t size);
MYSQL* quarx_db_connect(char* errbuf, size_t size);
MYSQL* db_connect_nothrow(char* errbuf, size_t size);
MYSQL* db_connect();
const char* get_param_from_bigquery(const char* query, MYSQL* conn, int column);
const char* get_param_query(const char* query, MYSQL* conn);
const char* get_param_simple(const char* value, const char* table, const char* keyColumn,
                             const char* column, MYSQL* conn);
const char* get_param(const char* name, MYSQL* conn);
char* escape_mysql_param(MYSQL* conn, const char* text);
int put_param(const char* name, const char* value, MYSQL* conn);
int del_param(const char* name, MYSQL* conn);
int del_dom_param(const char* domainId, const char* name, MYSQL* conn);
int del_Parameter(const char* id, const char* name, const char* value, MYSQL* conn);
