// The descriptors a process starts with.
#pragma once

// The number below which every descriptor lies; close_from needs it where the kernel cannot close a range. Any thread.
long descriptor_limit();

// Closes every descriptor from first on; limit is descriptor_limit(). Async-signal-safe.
void close_from(int first, long limit);

// Leaves exactly the descriptors 0 to 2: what the parent left open above them is closed, so that it sees the end of
// its pipes, and what it left closed among them is opened on /dev/null, so that no file of ours lands there.
// Called first in the process.
void take_over_descriptors();
