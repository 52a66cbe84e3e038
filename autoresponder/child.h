#pragma once

// Waiting for a sendmail that the program started.

// Waits until the child ends, or is stopped by a signal. How it ended is nobody's business here: a
// message that sendmail refuses counts as sent.
void wait_for_child(int pid);
