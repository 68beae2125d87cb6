// The farm run: the Redis server, the render processes and the summary.
#include "Farm.h"

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "Output.h"

#ifndef _WIN32
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace mcache {

#ifdef _WIN32
int RunFarm(const FarmOptions&) {
    std::fprintf(stderr, "mcache farm: not available on this platform\n");
    return 2;
}
#else
namespace {

std::string FindInPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/usr/local/bin";
    for (size_t start = 0; start <= dirs.size();) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        const std::string candidate = dirs.substr(start, end - start) + "/" + name;
        if (end > start && ::access(candidate.c_str(), X_OK) == 0) return candidate;
        start = end + 1;
    }
    return {};
}

int FreeLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        if (fd >= 0) ::close(fd);
        return 0;
    }
    ::close(fd);
    return ntohs(a.sin_port);
}

pid_t Spawn(std::vector<std::string> args, int stdoutFd) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (stdoutFd >= 0) ::dup2(stdoutFd, STDOUT_FILENO);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    return pid;
}

// A private redis-server for the run: loopback only, no persistence; stopped on destruction.
class PrivateRedis {
public:
    bool Start(const std::filesystem::path& dir, std::string* why) {
        const std::string bin = FindInPath("redis-server");
        if (bin.empty()) {
            *why = "redis-server is not installed (or pass --remote redis://host:port)";
            return false;
        }
        port_ = FreeLoopbackPort();
        std::filesystem::create_directories(dir);
        pid_ = Spawn({bin, "--port", std::to_string(port_), "--bind", "127.0.0.1", "--save", "",
                      "--appendonly", "no", "--dir", dir.string(), "--logfile",
                      (dir / "redis.log").string()},
                     -1);
        for (int i = 0; i < 500; ++i) {
            timeval tv{1, 0};
            redisContext* c = redisConnectWithTimeout("127.0.0.1", port_, tv);
            const bool up = c && !c->err;
            if (c) redisFree(c);
            if (up) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        *why = "redis-server did not start";
        return false;
    }
    ~PrivateRedis() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
    std::string Url() const { return "redis://127.0.0.1:" + std::to_string(port_); }

private:
    int port_ = 0;
    pid_t pid_ = -1;
};

struct Child {
    pid_t pid = -1;
    int readFd = -1;
    std::string out;
};

std::string ReadAll(int fd) {
    std::string out;
    char buf[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n > 0) {
            out.append(buf, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        return out;
    }
}

}  // namespace

int RunFarm(const FarmOptions& o) {
    PrivateRedis redis;
    std::string url = o.remoteUrl;
    if (url.empty()) {
        std::string why;
        if (!redis.Start(o.folder / "redis", &why)) {
            std::fprintf(stderr, "mcache farm: %s\n", why.c_str());
            return 2;
        }
        url = redis.Url();
    }
    char self[4096];
    const ssize_t len = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (len <= 0) {
        std::fprintf(stderr, "mcache farm: cannot find this program to start it again\n");
        return 2;
    }
    const std::string exe(self, static_cast<size_t>(len));
    std::vector<Child> children(o.processes);
    for (unsigned i = 0; i < o.processes; ++i) {
        int fds[2];
        if (::pipe(fds) != 0) return 2;
        std::error_code ec;
        const std::filesystem::path folder = o.folder / ("p" + std::to_string(i));
        std::filesystem::remove_all(folder, ec);  // each run starts with an empty machine
        children[i].pid = Spawn({exe,
                                 "demo",
                                 "--remote",
                                 url,
                                 "--farm-order",
                                 std::to_string(i),
                                 "--folder",
                                 folder.string(),
                                 "--frames",
                                 std::to_string(o.frames),
                                 "--width",
                                 std::to_string(o.width),
                                 "--height",
                                 std::to_string(o.height),
                                 "--cost",
                                 std::to_string(o.cost),
                                 "--threads",
                                 std::to_string(o.threads),
                                 "--memory-budget",
                                 o.memoryBudget,
                                 "--disk-budget",
                                 o.diskBudget,
                                 "--cache-priority",
                                 "high",
                                 "--json",
                                 "--quiet"},
                                fds[1]);
        ::close(fds[1]);
        children[i].readFd = fds[0];
    }
    std::vector<std::thread> readers;
    for (Child& c : children) readers.emplace_back([&c] { c.out = ReadAll(c.readFd); });
    for (auto& t : readers) t.join();
    int failures = 0;
    for (Child& c : children) {
        ::close(c.readFd);
        int status = 0;
        ::waitpid(c.pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failures;
    }
    nlohmann::json summary;
    summary["processes"] = o.processes;
    summary["frames"] = o.frames;
    uint64_t totalRendered = 0;
    for (unsigned i = 0; i < o.processes; ++i) {
        nlohmann::json row = {{"process", i}};
        try {
            const nlohmann::json j = nlohmann::json::parse(children[i].out);
            const nlohmann::json& p = j.at("passes").at(0);
            row["rendered"] = p.at("rendered");
            row["from_memory"] = p.at("from_memory");
            row["from_disk"] = p.at("from_disk");
            row["from_farm"] = p.at("from_farm");
            row["seconds"] = p.at("seconds");
            row["remote"] = j.at("remote");
            totalRendered += p.at("rendered").get<uint64_t>();
        } catch (const std::exception&) {
            ++failures;
            row["error"] = "no summary from this process";
        }
        summary["per_process"].push_back(row);
    }
    const uint64_t independent = uint64_t{o.processes} * o.frames;
    summary["renders"] = totalRendered;
    summary["renders_independent"] = independent;
    summary["renders_saved"] = independent > totalRendered ? independent - totalRendered : 0;
    summary["failed_processes"] = failures;
    if (o.json) {
        std::printf("%s\n", JsonText(summary).c_str());
    } else {
        std::printf("mcache farm: %u processes, %u frames each, one Redis (%s)\n\n", o.processes,
                    o.frames, o.remoteUrl.empty() ? "private" : "given");
        std::printf("%-8s %9s %12s %10s %10s %8s\n", "process", "rendered", "from memory",
                    "from disk", "from farm", "seconds");
        for (const nlohmann::json& row : summary["per_process"]) {
            if (row.contains("error")) {
                std::printf("%-8u %s\n", row["process"].get<unsigned>(),
                            row["error"].get<std::string>().c_str());
                continue;
            }
            std::printf("%-8u %9llu %12llu %10llu %10llu %8.2f\n", row["process"].get<unsigned>(),
                        static_cast<unsigned long long>(row["rendered"].get<uint64_t>()),
                        static_cast<unsigned long long>(row["from_memory"].get<uint64_t>()),
                        static_cast<unsigned long long>(row["from_disk"].get<uint64_t>()),
                        static_cast<unsigned long long>(row["from_farm"].get<uint64_t>()),
                        row["seconds"].get<double>());
        }
        std::printf("\nrenders: %llu in total; %llu for %u independent machines; %llu saved\n",
                    static_cast<unsigned long long>(totalRendered),
                    static_cast<unsigned long long>(independent), o.processes,
                    static_cast<unsigned long long>(summary["renders_saved"].get<uint64_t>()));
    }
    return failures ? 2 : 0;
}
#endif

}  // namespace mcache
