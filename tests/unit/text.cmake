# Tests of lib/text.
