// The descriptors that a process starts with.
#pragma once

// Returns a number that is above every descriptor; close_from needs it where the kernel has no close_range. Any thread.
long descriptor_limit();

// Closes every descriptor from first on; limit is descriptor_limit(). Async-signal-safe.
void close_from(int first, long limit);

// Leaves exactly the descriptors 0 to 2 open. Those above are closed, so that the parent sees the end of its pipes.
// Those among 0 to 2 that were closed are opened on /dev/null, so that no file of ours gets their numbers.
// Called first in the process.
void take_over_descriptors();
