#include "Output.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <iomanip>
#include <sstream>

#include "helpers/Terminal.h"
#include "mc/MC.h"

namespace mcache {

std::string Bytes(double bytes) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int u = 0;
    while (bytes >= 1024.0 && u < 4) {
        bytes /= 1024.0;
        ++u;
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, u == 0 ? "%.0f %s" : "%.1f %s", bytes, units[u]);
    return buf;
}

Progress::Progress(bool enabled) : enabled_(enabled), terminal_(velacore::IsStderrTerminal()) {}

void Progress::Update(const std::string& pass, uint64_t done, uint64_t total, double fps,
                      uint64_t memory, uint64_t disk, uint64_t rendered, const Sample& s) {
    if (!enabled_) return;
    // Off a terminal, one plain line every two seconds.
    if (!terminal_ && s.t - lastPlain_ < 2.0) return;
    lastPlain_ = s.t;
    std::fprintf(stderr,
                 "%s%-8s %4llu/%-4llu %6.1f fps | memory %llu, disk %llu, rendered %llu | "
                 "mem %s / %s | disk %s / %s | write queue %u%s",
                 terminal_ ? "\r\033[K" : "", pass.c_str(), static_cast<unsigned long long>(done),
                 static_cast<unsigned long long>(total), fps,
                 static_cast<unsigned long long>(memory), static_cast<unsigned long long>(disk),
                 static_cast<unsigned long long>(rendered),
                 Bytes(static_cast<double>(s.memory)).c_str(),
                 Bytes(static_cast<double>(memoryBudget_)).c_str(),
                 Bytes(static_cast<double>(s.disk)).c_str(),
                 Bytes(static_cast<double>(diskBudget_)).c_str(), s.writeQueue,
                 terminal_ ? "" : "\n");
    std::fflush(stderr);
}

void Progress::PassDone(const PassStats& p) {
    if (!enabled_) return;
    std::fprintf(stderr,
                 "%spass %-8s %4llu frames in %5.2f s (%6.1f frames/s): %llu from memory, %llu "
                 "from disk, %llu rendered\n",
                 terminal_ ? "\r\033[K" : "", p.name.c_str(),
                 static_cast<unsigned long long>(p.requests), p.seconds,
                 p.seconds > 0 ? static_cast<double>(p.requests) / p.seconds : 0.0,
                 static_cast<unsigned long long>(p.fromMemory),
                 static_cast<unsigned long long>(p.fromDisk),
                 static_cast<unsigned long long>(p.rendered));
}

namespace {

nlohmann::json SummaryJson(const DemoOptions& o, const DemoResult& r, MC_Bag& bag,
                           int appVersion) {
    const MC_PerformanceCounters pc = MC_GetPerformanceCounters();
    const MC_DiskPerformanceCounters dc = MC_GetDiskPerformanceCounters();
    nlohmann::json j;
    j["folder"] = o.folder.string();
    j["app_version"] = appVersion;
    j["frames"] = o.frames;
    j["frame_bytes"] = uint64_t{o.width} * o.height * 4;
    j["threads"] = o.threads;
    j["seconds"] = r.seconds;
    j["adopted_at_start"] = r.adoptedAtStart;
    for (const PassStats& p : r.passes)
        j["passes"].push_back({{"name", p.name},
                               {"requests", p.requests},
                               {"from_memory", p.fromMemory},
                               {"from_disk", p.fromDisk},
                               {"rendered", p.rendered},
                               {"seconds", p.seconds}});
    j["memory"] = {{"budget", o.memoryBudget},
                   {"in_use", bag.GetInMemoryCacheSizeInBytes_LockFree()},
                   {"peak", std::max_element(r.samples.begin(), r.samples.end(),
                                             [](const Sample& a, const Sample& b) {
                                                 return a.memory < b.memory;
                                             }) != r.samples.end()
                                ? std::max_element(r.samples.begin(), r.samples.end(),
                                                   [](const Sample& a, const Sample& b) {
                                                       return a.memory < b.memory;
                                                   })->memory
                                : 0}};
    j["disk"] = {{"budget", o.diskBudgetMb << 20},
                 {"in_use", bag.GetCurrentDiskCacheSize()},
                 {"bytes_written", dc.bytesWritten},
                 {"bytes_read", dc.bytesRead},
                 {"frames_read", dc.framesRead},
                 {"write_failures", dc.writeFailures},
                 {"read_failures", dc.readFailures},
                 {"writes_queued", dc.normalWritesQueued + dc.lowPriorityWritesQueued},
                 {"declined_not_worth_it", dc.reason3Count}};
    j["cache"] = {{"items", bag.GetNumItems()},
                  {"purge_passes", pc.purgePasses},
                  {"purge_attempts", pc.purgeAttempts},
                  {"pending_waits", pc.pendingWaits},
                  {"superseded_sweeps", pc.supersededSweeps}};
    j["statistics"] = {{"requests", r.statsRequests}, {"computed", r.statsComputed}};
    return j;
}

}  // namespace

void PrintSummary(const DemoOptions& o, const DemoResult& r, MC_Bag& bag, int appVersion) {
    const nlohmann::json j = SummaryJson(o, r, bag, appVersion);
    if (o.json) {
        std::printf("%s\n", j.dump(2).c_str());
        return;
    }
    std::printf("\nmcache demo — %u frames of %s, %u render threads, %.1f s\n", o.frames,
                Bytes(static_cast<double>(j["frame_bytes"].get<uint64_t>())).c_str(), o.threads,
                r.seconds);
    std::printf("disk cache %s (app version %X): %llu files adopted at start\n",
                o.folder.c_str(), appVersion, static_cast<unsigned long long>(r.adoptedAtStart));
    std::printf("\n%-10s %8s %12s %10s %10s %8s\n", "pass", "frames", "from memory", "from disk",
                "rendered", "seconds");
    for (const PassStats& p : r.passes)
        std::printf("%-10s %8llu %12llu %10llu %10llu %8.2f\n", p.name.c_str(),
                    static_cast<unsigned long long>(p.requests),
                    static_cast<unsigned long long>(p.fromMemory),
                    static_cast<unsigned long long>(p.fromDisk),
                    static_cast<unsigned long long>(p.rendered), p.seconds);
    const auto& m = j["memory"];
    const auto& d = j["disk"];
    const auto& c = j["cache"];
    std::printf("\nmemory: %s in use, peak %s, budget %s; %u purge passes, %u purge attempts\n",
                Bytes(m["in_use"].get<double>()).c_str(), Bytes(m["peak"].get<double>()).c_str(),
                Bytes(m["budget"].get<double>()).c_str(), c["purge_passes"].get<unsigned>(),
                c["purge_attempts"].get<unsigned>());
    std::printf("disk:   %s in use, budget %s; written %s, read back %s (%u frames); %u write "
                "failures, %u read failures\n",
                Bytes(d["in_use"].get<double>()).c_str(), Bytes(d["budget"].get<double>()).c_str(),
                Bytes(d["bytes_written"].get<double>()).c_str(),
                Bytes(d["bytes_read"].get<double>()).c_str(), d["frames_read"].get<unsigned>(),
                d["write_failures"].get<unsigned>(), d["read_failures"].get<unsigned>());
    std::printf("cache:  %d items; %u waits for another thread's render\n", c["items"].get<int>(),
                c["pending_waits"].get<unsigned>());
    std::printf("frame statistics (compute cache, C plug-in): %llu requests, %llu computed\n",
                static_cast<unsigned long long>(r.statsRequests),
                static_cast<unsigned long long>(r.statsComputed));
}

namespace {
std::string Seconds(double s) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f s", s);
    return buf;
}
}  // namespace

void WriteSvgReport(const DemoOptions& o, const DemoResult& r, const std::string& path) {
    const double W = 900, chartH = 220, left = 70, top = 40, plotW = W - left - 30;
    double tMax = 0.001;
    for (const Sample& s : r.samples) tMax = std::max(tMax, s.t);
    const double memBudget = static_cast<double>(o.memoryBudget);
    const double diskBudget = static_cast<double>(o.diskBudgetMb << 20);
    std::ostringstream svg;
    svg << "<svg xmlns='http://www.w3.org/2000/svg' width='" << W << "' height='840' "
        << "font-family='sans-serif' font-size='12'>\n<rect width='100%' height='100%' "
        << "fill='white'/>\n";
    auto chart = [&](double y0, const char* title, double budget, auto value, const char* color) {
        double vMax = budget * 1.15;
        for (const Sample& s : r.samples) vMax = std::max(vMax, static_cast<double>(value(s)));
        svg << "<text x='" << left << "' y='" << y0 - 10 << "' font-size='14'>" << title
            << "</text>\n<rect x='" << left << "' y='" << y0 << "' width='" << plotW
            << "' height='" << chartH << "' fill='none' stroke='#999'/>\n";
        const double by = y0 + chartH - budget / vMax * chartH;
        svg << "<line x1='" << left << "' x2='" << left + plotW << "' y1='" << by << "' y2='" << by
            << "' stroke='#d33' stroke-dasharray='6,4'/>\n<text x='" << left + plotW - 120
            << "' y='" << by - 4 << "' fill='#d33'>budget " << Bytes(budget) << "</text>\n";
        svg << "<polyline fill='none' stroke='" << color << "' stroke-width='1.5' points='";
        for (const Sample& s : r.samples)
            svg << left + s.t / tMax * plotW << ',' << y0 + chartH - value(s) / vMax * chartH
                << ' ';
        svg << "'/>\n<text x='" << left - 8 << "' y='" << y0 + 4 << "' text-anchor='end'>"
            << Bytes(vMax) << "</text>\n<text x='" << left - 8 << "' y='" << y0 + chartH
            << "' text-anchor='end'>0</text>\n<text x='" << left + plotW << "' y='"
            << y0 + chartH + 16 << "' text-anchor='end'>" << Seconds(tMax) << "</text>\n";
    };
    chart(top, "Memory in use", memBudget, [](const Sample& s) { return s.memory; }, "#2a6");
    chart(top + chartH + 60, "Disk cache in use", diskBudget,
          [](const Sample& s) { return s.disk; }, "#26c");
    // Hits per pass: stacked bars.
    const double y0 = top + 2 * (chartH + 60), barH = 160;
    svg << "<text x='" << left << "' y='" << y0 - 10 << "' font-size='14'>Where each pass's frames "
        << "came from</text>\n";
    const double bw = plotW / std::max<size_t>(1, r.passes.size());
    for (size_t i = 0; i < r.passes.size(); ++i) {
        const PassStats& p = r.passes[i];
        const double total = std::max<double>(1, static_cast<double>(p.requests));
        double y = y0 + barH;
        const std::pair<uint64_t, const char*> parts[] = {
            {p.fromMemory, "#2a6"}, {p.fromDisk, "#26c"}, {p.rendered, "#e80"}};
        for (const auto& [count, color] : parts) {
            const double h = static_cast<double>(count) / total * barH;
            y -= h;
            svg << "<rect x='" << left + i * bw + 10 << "' y='" << y << "' width='" << bw - 20
                << "' height='" << h << "' fill='" << color << "'/>\n";
        }
        svg << "<text x='" << left + i * bw + bw / 2 << "' y='" << y0 + barH + 16
            << "' text-anchor='middle'>" << i + 1 << ". " << p.name << "</text>\n";
    }
    svg << "<text x='" << left << "' y='" << y0 + barH + 40 << "'><tspan fill='#2a6'>■ memory"
        << "</tspan>  <tspan fill='#26c'>■ disk</tspan>  <tspan fill='#e80'>■ rendered</tspan>"
        << "</text>\n</svg>\n";
    std::ofstream out(path);
    out << svg.str();
    if (!out) std::fprintf(stderr, "mcache: cannot write %s\n", path.c_str());
}

}  // namespace mcache
