# Tests of lib/conf and lib/db.

qrx_unit_test(conf_store_test quarx_conf quarx_log)
qrx_wrap(conf_store_test calloc realloc strdup getdelim)

qrx_sandbox_unit_test(qrx_conf_test quarx_conf quarx_log)
qrx_isolate(qrx_conf_test)
qrx_wrap(qrx_conf_test calloc)

# The calls that lib/db makes are recorded on their way; see support/client_calls.h.
function(qrx_db_test name)
    qrx_sandbox_unit_test(${name} quarx_db quarx_log)
    qrx_isolate(${name})
    target_sources(${name} PRIVATE support/client_calls.cpp)
    qrx_wrap(${name} mysql_init mysql_close mysql_errno mysql_options mysql_query mysql_real_query
        mysql_real_connect malloc fopen explicit_bzero __explicit_bzero_chk)
endfunction()

qrx_db_test(quarx_db_test)
target_sources(quarx_db_test PRIVATE support/fake_server.cpp)

qrx_db_test(quarx_param_test)
target_sources(quarx_param_test PRIVATE support/fake_server.cpp)

# The client's archive with its TLS hooks, where the program is linked with it.
if(NOT QRX_CLIENT STREQUAL "shared")
    qrx_sandbox_unit_test(no_tls_test quarx_db quarx_log)
    target_sources(no_tls_test PRIVATE support/fake_server.cpp)
    qrx_link_archives(no_tls_test)
endif()
