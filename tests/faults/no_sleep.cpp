// Loaded into the daemon before the C library: its supervisor does not wait between two starts.
extern "C" unsigned sleep(unsigned /*seconds*/) { return 0; }
