# Tests of lib/text.

qrx_unit_test(base64_test quarx_text)
qrx_unit_test(idn_test quarx_text)
qrx_wrap(idn_test idna_to_ascii_8z idna_to_unicode_8z8z)
qrx_unit_test(text_encoding_test quarx_text)
qrx_unit_test(text_recode_test quarx_text)
qrx_wrap(text_recode_test iconv_open iconv iconv_close)
