// The mcache command line as a function, so that tests can run commands in-process.
// Thread-safety: one call at a time (the demo and purge install host services).
#pragma once

namespace mcache {
// Runs the command line; returns the exit status (0 ok, 1 problems found, 2 errors).
int Main(int argc, char** argv);
}  // namespace mcache
