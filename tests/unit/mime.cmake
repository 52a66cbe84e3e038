# Tests of lib/mime.

qrx_unit_test(mime_vectors_test parser_records)
target_compile_definitions(mime_vectors_test PRIVATE
    QRX_PARSER_VECTORS="${PROJECT_SOURCE_DIR}/tests/parser/vectors.jsonl")
