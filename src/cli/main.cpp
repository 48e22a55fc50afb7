#include <cstdio>
#include <exception>

#include "cli/run.h"

int main(int argc, char** argv) {
    try {
        return lm::cli::run(argc, argv);
    } catch (const std::exception& e) {
        // Out of memory, of threads or of descriptors.
        std::fprintf(stderr, "xcplumo-cli: %s\n", e.what());
        return 1;
    }
}
