// mcache: runs the demo session against the cache and administers disk-cache folders.
#include <string>
#include <vector>

#include "Cli.h"
#include "helpers/Machine.h"

int main(int argc, char** argv) {
    std::vector<std::string> args = velacore::Utf8Arguments(argc, argv);
    std::vector<char*> utf8;
    for (std::string& arg : args) utf8.push_back(arg.data());
    utf8.push_back(nullptr);
    return mcache::Main(argc, utf8.data());
}
