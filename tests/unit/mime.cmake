# Tests of lib/mime.

# qrx_mime_test(name library...): a unit test that reads the parser's vectors or the real messages.
function(qrx_mime_test name)
    qrx_unit_test(${name} parser_records ${ARGN})
    target_compile_definitions(${name} PRIVATE
        QRX_PARSER_VECTORS="${PROJECT_SOURCE_DIR}/tests/parser/vectors.jsonl"
        QRX_CORPUS="${PROJECT_SOURCE_DIR}/tests/corpus")
endfunction()

qrx_unit_test(mimelib_test quarx_mime)
qrx_mime_test(mime_fields_test)
qrx_mime_test(mime_addresses_test)
qrx_mime_test(mime_types_test)
qrx_mime_test(mime_parts_test)
qrx_mime_test(mime_decoders_test)
qrx_mime_test(mime_vectors_test)
qrx_mime_test(mime_twin_test)

pkg_check_modules(GMIME REQUIRED IMPORTED_TARGET gmime-3.0)
qrx_mime_test(mime_gmime_test PkgConfig::GMIME)
