// mcache: runs the demo session against the cache and administers disk-cache folders.
#include "Cli.h"

int main(int argc, char** argv) {
    return mcache::Main(argc, argv);
}
