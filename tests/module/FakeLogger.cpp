// Stands in for the host's logger library: all that matters is its name and export.
extern "C" __attribute__((visibility("default"))) void GetLogger() {}
