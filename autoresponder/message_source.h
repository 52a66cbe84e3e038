#pragma once

// Where the message comes from.

class DwString;

// Reads `input` to its end and returns what came, with one line feed behind it; whatever the input
// ended with, so a message that ends in a line feed gains an empty line. The same bytes go to the
// descriptor `copy`; what can't be written there is left out of the copy without a word. A read
// error ends the run with a line on standard error.
DwString read_message(int input, int copy);
