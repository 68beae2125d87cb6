// host_info: starts the standalone host services from the environment (MC_CONFIG and the MC_*
// variables, see docs/configuration.md) and prints what they found, one item per line.
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "host/HostOps.h"
#include "mc/standalone/StandaloneHost.h"
#include "mc/standalone/StandaloneMediaManager.h"

namespace {

void Print(const char* item, const std::string& value) {
    std::printf("%s: %s\n", item, value.c_str());
}

std::string Bytes(uint64_t bytes) {
    return std::to_string(bytes) + " (" + NumberToMemoryString(static_cast<double>(bytes), 2) + ")";
}

std::string TraceChannels(const velacore::StandaloneHostServices& services) {
    std::string out;
    for (const auto& [channel, level] : services.TraceChannels()) {
        out += (out.empty() ? "" : ", ") + channel + ":" + std::to_string(level);
    }
    return out.empty() ? "none" : out;
}

}  // namespace

int main() {
    std::shared_ptr<velacore::StandaloneHostServices> services;
    try {
        services = velacore::StandaloneHostServices::CreateFromEnvironment();
    } catch (const velacore::StandaloneConfigError& e) {
        std::fprintf(stderr, "configuration error: %s\n", e.what());
        return 2;
    }
    velacore::SetHostServices(services);

    std::error_code ec;
    const std::filesystem::path temp = std::filesystem::temp_directory_path(ec);
    const auto& config = services->Config();
    Print("config file", config.configFile.empty() ? "none" : config.configFile);
    Print("memory budget", Bytes(services->MemoryBudget()));
    Print("physical memory", Bytes(services->PhysicalMemory()));
    Print("media budget", Bytes(NX::MM::GetFixedMaxCacheSize()));
    Print("machine name", services->ComputerName());
    Print("client version", GetClientInternalVersion());
    Print("beta build", IsBetaPrime() ? "yes" : "no");
    Print("app version", std::to_string(services->AppVersion()));
    Print("temporary folder", ec ? "unknown (" + ec.message() + ")" : temp.string());
    Print("disk cache root", ec ? "unknown" : (temp / "mc-cache").string());
    Print("trace channels", TraceChannels(*services));

    velacore::SetHostServices(nullptr);
    return 0;
}
