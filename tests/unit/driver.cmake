# Tests of the program's own files, autoresponder/.
qrx_unit_test(guards_test autoresponder_core)
qrx_unit_test(responder_row_test autoresponder_core)

add_library(sandbox_test_support STATIC support/sandbox_test.cpp)
target_link_libraries(sandbox_test_support PUBLIC autoresponder_core GTest::gtest)
qrx_sandbox_unit_test(response_file_test sandbox_test_support)
qrx_sandbox_unit_test(temporary_file_test sandbox_test_support)
