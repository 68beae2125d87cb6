// The standalone services as MC's default (see mc/standalone/StandaloneHostFactory.h).
#include "mc/standalone/StandaloneHostFactory.h"

#include <cstdio>

#include "mc/standalone/StandaloneHost.h"

namespace velacore {

std::shared_ptr<HostServices> CreateStandaloneHost() {
    try {
        return StandaloneHostServices::CreateFromEnvironment();
    } catch (const StandaloneConfigError& e) {
        std::fprintf(stderr, "MC: configuration ignored: %s\n", e.what());
        return std::make_shared<StandaloneHostServices>();
    }
}

void InstallStandaloneHost() {
    SetDefaultHostServicesFactory(&CreateStandaloneHost);
}

namespace {
// Registers the default when the library is loaded.
[[maybe_unused]] const bool kRegistered = (InstallStandaloneHost(), true);
}  // namespace

}  // namespace velacore
