# Tests of lib/util.

function(qrx_util_test name)
    qrx_unit_test(${name} quarx_log ${ARGN})
    qrx_isolate(${name})
endfunction()

qrx_util_test(messlog_test)
qrx_util_test(safe_test)

function(qrx_exec_test name)
    qrx_util_test(${name} quarx_exec)
    target_sources(${name} PRIVATE support/children.cpp)
endfunction()

qrx_exec_test(fork_exec_test)
qrx_exec_test(fork_exec_popen_test)
qrx_exec_test(fork_exec_output_test)
qrx_exec_test(fork_exec_reported_test)
qrx_exec_test(fork_exec_util_test)
