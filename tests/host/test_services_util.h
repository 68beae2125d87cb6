// Helpers shared by the host-services tests: a bounded wait for a condition another thread makes
// true (a generous deadline only turns a hang into a failure), and an environment made of a map.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "mc/standalone/StandaloneHost.h"

namespace services_test {

using namespace std::chrono_literals;

// Polls pred until it holds; false when the deadline passed first.
inline bool WaitUntil(const std::function<bool()>& pred,
                      std::chrono::milliseconds deadline = std::chrono::seconds(60)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// An environment lookup over a fixed map (tests never touch the process environment).
inline velacore::StandaloneConfig::EnvLookup MapEnv(std::map<std::string, std::string> vars) {
    return [vars = std::move(vars)](std::string_view name) -> std::optional<std::string> {
        auto it = vars.find(std::string(name));
        if (it == vars.end()) return std::nullopt;
        return it->second;
    };
}

}  // namespace services_test
