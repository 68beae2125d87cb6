#include "Output.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "helpers/Machine.h"
#include "helpers/Terminal.h"
#include "mc/MC.h"
#include "mc/standalone/StandaloneHost.h"

namespace mcache {

namespace {

unsigned long long U(uint64_t v) {
    return static_cast<unsigned long long>(v);
}

// "154/160 MiB": both amounts in the unit of the larger.
std::string BytesOf(uint64_t used, uint64_t budget) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    double scale = 1;
    int u = 0;
    while (static_cast<double>(std::max(used, budget)) / scale >= 1024.0 && u < 4) {
        scale *= 1024.0;
        ++u;
    }
    char buf[48];
    std::snprintf(buf, sizeof buf, "%.0f/%.0f %s", static_cast<double>(used) / scale,
                  static_cast<double>(budget) / scale, units[u]);
    return buf;
}

std::string Format(const char* format, auto... args) {
    char buf[160];
    std::snprintf(buf, sizeof buf, format, args...);
    return buf;
}

}  // namespace

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

std::string PathText(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return std::string(text.begin(), text.end());
}

std::filesystem::path PathFromText(const std::string& utf8) {
    return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

std::string AppVersionText(uint32_t version) {
    return Format("%u.%u (%u)", version >> 8, version & 0xFFu, version);
}

std::string CurrentVersionText() {
    try {
        const auto config = velacore::StandaloneConfig::FromEnvironment();
        return AppVersionText(static_cast<uint32_t>(
            velacore::StandaloneHostServices::AppVersionFromClientVersion(config.clientVersion)));
    } catch (const std::exception&) {
        return "unknown (the configuration does not load)";
    }
}

std::string ErrorText(int code) {
    return std::string(MC_ErrorMessage(code)) + " (error " + std::to_string(code) + ")";
}

uint64_t PhysicalMemory() {
    return velacore::PhysicalMemoryBytes();
}

std::string JsonText(const nlohmann::json& j) {
    return j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

size_t TerminalColumns() {
    if (const size_t columns = velacore::StderrColumns(); columns > 0) return columns;
    if (const char* c = std::getenv("COLUMNS")) {
        const long v = std::strtol(c, nullptr, 10);
        if (v > 0 && v < 10000) return static_cast<size_t>(v);
    }
    return 80;
}

std::vector<std::string> ProgressLines(const std::string& pass, uint64_t done, uint64_t total,
                                       double fps, uint64_t memory, uint64_t disk,
                                       uint64_t rendered, const Sample& s, uint64_t memoryBudget,
                                       uint64_t diskBudget, size_t columns) {
    const std::string work = Format(
        "%-8s %llu/%llu %.0f fps | from memory %llu, disk %llu, "
        "rendered %llu",
        pass.c_str(), U(done), U(total), fps, U(memory), U(disk), U(rendered));
    const std::string cache =
        "memory " + BytesOf(static_cast<uint64_t>(std::max<int64_t>(0, s.memory)), memoryBudget) +
        " | disk " + BytesOf(static_cast<uint64_t>(std::max<int64_t>(0, s.disk)), diskBudget) +
        Format(" | write queue %u", s.writeQueue);
    const size_t limit = columns > 1 ? columns - 1 : 0;
    if (work.size() + 3 + cache.size() <= limit) return {work + " | " + cache};
    return {work.substr(0, limit), cache.substr(0, limit)};
}

Progress::Progress(bool enabled) : enabled_(enabled), terminal_(velacore::IsStderrTerminal()) {}

void Progress::Update(const std::string& pass, uint64_t done, uint64_t total, double fps,
                      uint64_t memory, uint64_t disk, uint64_t rendered, const Sample& s) {
    if (!enabled_) return;
    // Off a terminal, plain lines every two seconds.
    if (!terminal_ && s.t - lastPlain_ < 2.0) return;
    lastPlain_ = s.t;
    const std::vector<std::string> lines =
        ProgressLines(pass, done, total, fps, memory, disk, rendered, s, memoryBudget_, diskBudget_,
                      terminal_ ? TerminalColumns() : 400);
    if (!terminal_) {
        for (const std::string& line : lines) std::fprintf(stderr, "%s\n", line.c_str());
        return;
    }
    // Redrawn in place: back to the first row drawn last time, clear to the end, draw. No row
    // reaches the last column, so nothing wraps and nothing is left behind.
    Erase();
    for (size_t i = 0; i < lines.size(); ++i)
        std::fprintf(stderr, "%s%s", i ? "\n" : "", lines[i].c_str());
    rowsDrawn_ = lines.size();
    std::fflush(stderr);
}

void Progress::Erase() {
    if (!terminal_) return;
    if (rowsDrawn_ > 1) std::fprintf(stderr, "\033[%zuA", rowsDrawn_ - 1);
    std::fprintf(stderr, "\r\033[J");
    rowsDrawn_ = 0;
}

void Progress::PassDone(const PassStats& p) {
    if (!enabled_) return;
    Erase();
    std::fprintf(stderr,
                 "%-8s %5llu frames %6.2f s %6.0f fps | memory %llu, disk %llu, "
                 "rendered %llu\n",
                 p.name.c_str(), U(p.requests), p.seconds,
                 p.seconds > 0 ? static_cast<double>(p.requests) / p.seconds : 0.0, U(p.fromMemory),
                 U(p.fromDisk), U(p.rendered));
}

namespace {

int64_t PeakMemory(const DemoResult& r) {
    int64_t peak = 0;
    for (const Sample& s : r.samples) peak = std::max(peak, s.memory);
    return peak;
}

nlohmann::json SummaryJson(const DemoOptions& o, const DemoResult& r, MC_Bag& bag, int appVersion) {
    const MC_PerformanceCounters pc = MC_GetPerformanceCounters();
    const MC_DiskPerformanceCounters dc = MC_GetDiskPerformanceCounters();
    nlohmann::json j;
    j["folder"] = PathText(o.folder);
    j["app_version"] = appVersion;
    j["app_version_text"] = AppVersionText(static_cast<uint32_t>(appVersion));
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
                               {"from_farm", p.fromFarm},
                               {"start", p.start},
                               {"seconds", p.seconds}});
    j["memory"] = {{"budget", o.memoryBudget},
                   {"in_use", bag.GetInMemoryCacheSizeInBytes_LockFree()},
                   {"peak", PeakMemory(r)}};
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
    j["remote"] = {{"configured", !o.remoteUrl.empty()},
                   {"hits", pc.remoteHits},
                   {"misses", pc.remoteMisses},
                   {"bytes_in", pc.remoteBytesIn},
                   {"bytes_out", pc.remoteBytesOut},
                   {"published", pc.remotePublished},
                   {"publish_drops", pc.remotePublishDrops},
                   {"checksum_rejects", pc.remoteChecksumRejects},
                   {"timeouts", pc.remoteTimeouts},
                   {"backoffs", pc.remoteBackoffs}};
    j["statistics"] = {{"requests", r.statsRequests}, {"computed", r.statsComputed}};
    j["plugin"] = r.pluginPath;
    return j;
}

}  // namespace

void PrintSummary(const DemoOptions& o, const DemoResult& r, MC_Bag& bag, int appVersion) {
    const nlohmann::json j = SummaryJson(o, r, bag, appVersion);
    if (o.json) {
        std::printf("%s\n", JsonText(j).c_str());
        return;
    }
    auto b = [](const nlohmann::json& v) { return Bytes(v.get<double>()); };
    std::printf("\nmcache demo: %u frames of %s, %u render threads, %.1f s\n", o.frames,
                b(j["frame_bytes"]).c_str(), o.threads, r.seconds);
    std::printf("folder:  %s\n", PathText(o.folder).c_str());
    std::printf("version: %s; %llu files adopted at start\n",
                j["app_version_text"].get<std::string>().c_str(), U(r.adoptedAtStart));
    std::printf("\n%-10s %8s %12s %10s %10s %8s\n", "pass", "frames", "from memory", "from disk",
                "rendered", "seconds");
    for (const PassStats& p : r.passes)
        std::printf("%-10s %8llu %12llu %10llu %10llu %8.2f\n", p.name.c_str(), U(p.requests),
                    U(p.fromMemory), U(p.fromDisk), U(p.rendered), p.seconds);
    const auto& m = j["memory"];
    const auto& d = j["disk"];
    const auto& c = j["cache"];
    std::printf("\nmemory: %s in use, peak %s, budget %s\n", b(m["in_use"]).c_str(),
                b(m["peak"]).c_str(), b(m["budget"]).c_str());
    std::printf("        %u purge passes, %u purge attempts\n", c["purge_passes"].get<unsigned>(),
                c["purge_attempts"].get<unsigned>());
    std::printf("disk:   %s in use, budget %s\n", b(d["in_use"]).c_str(), b(d["budget"]).c_str());
    std::printf("        written %s, read back %s (%u frames)\n", b(d["bytes_written"]).c_str(),
                b(d["bytes_read"]).c_str(), d["frames_read"].get<unsigned>());
    std::printf("        %u write failures, %u read failures\n",
                d["write_failures"].get<unsigned>(), d["read_failures"].get<unsigned>());
    if (!o.remoteUrl.empty()) {
        const auto& f = j["remote"];
        uint64_t fromFarm = 0;
        for (const PassStats& p : r.passes) fromFarm += p.fromFarm;
        std::printf("farm:   %llu frames from the farm; %u hits, %u misses; in %s, out %s\n",
                    U(fromFarm), f["hits"].get<unsigned>(), f["misses"].get<unsigned>(),
                    b(f["bytes_in"]).c_str(), b(f["bytes_out"]).c_str());
        std::printf(
            "        %u published, %u dropped, %u checksum rejects, %u time-outs, "
            "%u back-offs\n",
            f["published"].get<unsigned>(), f["publish_drops"].get<unsigned>(),
            f["checksum_rejects"].get<unsigned>(), f["timeouts"].get<unsigned>(),
            f["backoffs"].get<unsigned>());
    }
    std::printf("cache:  %d items; %u waits for another thread's render\n", c["items"].get<int>(),
                c["pending_waits"].get<unsigned>());
    std::printf("frame statistics (C plug-in, compute cache): %llu requests, %llu computed\n",
                U(r.statsRequests), U(r.statsComputed));
}

namespace {

// A tick step of 1, 2 or 5 times a power of ten giving at most about 10 ticks over `span`.
double TickStep(double span) {
    const double raw = span / 10;
    const double base = std::pow(10.0, std::floor(std::log10(std::max(raw, 1e-3))));
    for (double m : {1.0, 2.0, 5.0})
        if (base * m >= raw) return base * m;
    return base * 10;
}

std::string Escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '&')
            out += "&amp;";
        else if (c == '\'')
            out += "&apos;";
        else
            out += c;
    }
    return out;
}

const char* PriorityName(MC_CachePriority p) {
    switch (p) {
        case MC_CachePriority_Never:
            return "never";
        case MC_CachePriority_Low:
            return "low";
        case MC_CachePriority_High:
            return "high";
        default:
            return "normal";
    }
}

std::string Percent(uint64_t part, uint64_t whole) {
    return Format("%.0f%%",
                  whole ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0);
}

}  // namespace

bool WriteSvgReport(const DemoOptions& o, const DemoResult& r, int appVersion, std::ostream& out) {
    const double W = 900, chartH = 200, left = 80, top = 90, plotW = W - left - 30, gap = 80;
    double tMax = 0.001;
    for (const Sample& s : r.samples) tMax = std::max(tMax, s.t);
    const double memBudget = static_cast<double>(o.memoryBudget);
    const double diskBudget = static_cast<double>(o.diskBudgetMb << 20);
    const uint64_t frameBytes = uint64_t{o.width} * o.height * 4;
    const double allFrames = static_cast<double>(frameBytes) * o.frames;
    auto x = [&](double t) { return left + t / tMax * plotW; };
    std::ostringstream svg;
    svg << "<svg xmlns='http://www.w3.org/2000/svg' width='" << W << "' height='940' "
        << "font-family='sans-serif' font-size='12'>\n<rect width='100%' height='100%' "
        << "fill='white'/>\n";
    // The title carries the parameters: frames x frame size against both budgets.
    svg << "<text x='" << left
        << "' y='28' font-size='17' font-weight='bold'>mcache demo: " << o.frames << " frames × "
        << Bytes(static_cast<double>(frameBytes)) << " = " << Bytes(allFrames)
        << " of frames</text>\n<text x='" << left << "' y='50'>memory budget " << Bytes(memBudget)
        << " (" << Format("%.0f%%", 100 * memBudget / allFrames) << " of the frames), disk budget "
        << Bytes(diskBudget) << " (" << Format("%.0f%%", 100 * diskBudget / allFrames)
        << ")</text>\n<text x='" << left << "' y='68' fill='#444'>" << o.threads
        << " render threads, cache priority " << PriorityName(o.cachePriority) << ", "
        << Format("%.1f s", r.seconds) << ", app version "
        << AppVersionText(static_cast<uint32_t>(appVersion)) << "</text>\n";
    auto chart = [&](double y0, const char* title, double budget, auto value, const char* color) {
        double vMax = budget;
        for (const Sample& s : r.samples) vMax = std::max(vMax, static_cast<double>(value(s)));
        vMax *= 1.15;
        auto y = [&](double v) { return y0 + chartH - v / vMax * chartH; };
        svg << "<text x='" << left << "' y='" << y0 - 10 << "' font-size='14'>" << title
            << "</text>\n<rect x='" << left << "' y='" << y0 << "' width='" << plotW << "' height='"
            << chartH << "' fill='none' stroke='#999'/>\n";
        // Pass boundaries, named at the top of each pass.
        for (const PassStats& p : r.passes) {
            svg << "<line x1='" << x(p.start) << "' x2='" << x(p.start) << "' y1='" << y0
                << "' y2='" << y0 + chartH << "' stroke='#bbb' stroke-dasharray='3,3'/>\n<text x='"
                << x(p.start) + 4 << "' y='" << y0 + 14 << "' fill='#666'>" << Escape(p.name)
                << "</text>\n";
        }
        // Time ticks.
        const double step = TickStep(tMax);
        for (double t = 0; t <= tMax + 1e-9; t += step) {
            svg << "<line x1='" << x(t) << "' x2='" << x(t) << "' y1='" << y0 + chartH << "' y2='"
                << y0 + chartH + 5 << "' stroke='#666'/>\n<text x='" << x(t) << "' y='"
                << y0 + chartH + 18 << "' text-anchor='middle'>"
                << Format("%g s", std::round(t / step) * step) << "</text>\n";
        }
        svg << "<polyline fill='none' stroke='" << color << "' stroke-width='2' "
            << "stroke-opacity='0.8' points='";
        for (const Sample& s : r.samples)
            svg << x(s.t) << ',' << y(static_cast<double>(value(s))) << ' ';
        svg << "'/>\n";
        // The budget goes on top so that a line running at the budget never hides it.
        svg << "<line x1='" << left << "' x2='" << left + plotW << "' y1='" << y(budget) << "' y2='"
            << y(budget) << "' stroke='#d33' stroke-width='1.5' "
            << "stroke-dasharray='8,5'/>\n<text x='" << left + plotW - 6 << "' y='" << y(budget) - 5
            << "' fill='#d33' text-anchor='end'>budget " << Bytes(budget) << "</text>\n<text x='"
            << left - 8 << "' y='" << y0 + 4 << "' text-anchor='end'>" << Bytes(vMax)
            << "</text>\n<text x='" << left - 8 << "' y='" << y(budget) + 4
            << "' text-anchor='end' fill='#d33'>" << Bytes(budget) << "</text>\n<text x='"
            << left - 8 << "' y='" << y0 + chartH << "' text-anchor='end'>0</text>\n";
    };
    chart(
        top + 20, "Memory in use", memBudget, [](const Sample& s) { return s.memory; }, "#2a6");
    chart(
        top + 20 + chartH + gap, "Disk cache in use", diskBudget,
        [](const Sample& s) { return s.disk; }, "#26c");
    // Where each pass's frames came from: bar heights are frame counts on one scale.
    const double y0 = top + 35 + 2 * (chartH + gap), barH = 170;
    uint64_t most = 1;
    for (const PassStats& p : r.passes) most = std::max(most, p.requests);
    svg << "<text x='" << left << "' y='" << y0 - 25 << "' font-size='14'>Where each pass's frames "
        << "came from (bar height: frames requested)</text>\n";
    const double bw = plotW / static_cast<double>(std::max<size_t>(1, r.passes.size()));
    for (size_t i = 0; i < r.passes.size(); ++i) {
        const PassStats& p = r.passes[i];
        const double bx = left + static_cast<double>(i) * bw + 10;
        double y = y0 + barH;
        const std::pair<uint64_t, const char*> parts[] = {
            {p.fromMemory, "#2a6"}, {p.fromDisk, "#26c"}, {p.rendered, "#e80"}};
        for (const auto& [count, color] : parts) {
            const double h = static_cast<double>(count) / static_cast<double>(most) * barH;
            y -= h;
            svg << "<rect x='" << bx << "' y='" << y << "' width='" << bw - 20 << "' height='" << h
                << "' fill='" << color << "'/>\n";
            if (count && h >= 14)
                svg << "<text x='" << bx + (bw - 20) / 2 << "' y='" << y + h / 2 + 4
                    << "' text-anchor='middle' fill='white'>" << count << " ("
                    << Percent(count, p.requests) << ")</text>\n";
        }
        svg << "<text x='" << bx + (bw - 20) / 2 << "' y='" << y - 5 << "' text-anchor='middle'>"
            << p.requests << " frames</text>\n<text x='" << bx + (bw - 20) / 2 << "' y='"
            << y0 + barH + 16 << "' text-anchor='middle'>" << i + 1 << ". " << Escape(p.name)
            << Format(" (%.1f s)", p.seconds) << "</text>\n";
    }
    svg << "<text x='" << left << "' y='" << y0 + barH + 40 << "'><tspan fill='#2a6'>■ from memory"
        << "</tspan>   <tspan fill='#26c'>■ from disk</tspan>   <tspan fill='#e80'>■ rendered"
        << "</tspan>   (counts and share of the pass; bars too short for a label have none)"
        << "</text>\n</svg>\n";
    out << svg.str();
    out.flush();
    return static_cast<bool>(out);
}

}  // namespace mcache
