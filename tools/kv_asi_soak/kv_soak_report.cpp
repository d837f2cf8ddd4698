#include "kv_soak_report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace kv_asi_soak {

namespace {

uint64_t read_count(const std::string& text) {
    return std::strtoull(text.c_str(), nullptr, 10);
}

double ms(int64_t units) {
    return double(units) / 10000.0;
}

}  // namespace

element_sample read_rows(const statistics_rows& rows) {
    element_sample s;
    for (const auto& row : rows) {
        const std::string& name = row.first;
        const std::string& value = row.second;
        if (name == "Fullness fifo") {
            if (!parse_clock_text(value, s.tFifo)) {
                s.tFifo = -1;
            }
        } else if (name == "Device time") {
            if (!parse_clock_text(value, s.tDevice)) {
                s.tDevice = -1;
            }
        } else if (name == "Stream time") {
            if (!parse_clock_text(value, s.tStream)) {
                s.tStream = -1;
            }
        } else if (name == "Skip HW frames") {
            s.nSkipFrames = read_count(value);
        } else if (name == "Skip TS packets") {
            s.nSkipPackets = read_count(value);
        } else if (name == "Reset") {
            s.nResets = read_count(value);
        } else if (name == "Last error") {
            s.strLastError = value;
        }
    }
    return s;
}

line_fit fit_line(const std::vector<double>& x, const std::vector<double>& y) {
    line_fit f;
    const size_t n = std::min(x.size(), y.size());
    if (n == 0) {
        return f;
    }
    double mx = 0, my = 0;
    for (size_t i = 0; i < n; ++i) {
        mx += x[i];
        my += y[i];
    }
    mx /= double(n);
    my /= double(n);
    double sxx = 0, sxy = 0;
    for (size_t i = 0; i < n; ++i) {
        sxx += (x[i] - mx) * (x[i] - mx);
        sxy += (x[i] - mx) * (y[i] - my);
    }
    f.slope = sxx > 0 ? sxy / sxx : 0;
    f.intercept = my - f.slope * mx;
    return f;
}

size_t second_half_start(const std::vector<double>& times) {
    if (times.empty()) {
        return 0;
    }
    const double mid = (times.front() + times.back()) / 2;
    size_t i = 0;
    while (i + 1 < times.size() && times[i] < mid) {
        ++i;
    }
    return i;
}

fifo_summary summarize_fifo(const std::vector<element_sample>& samples) {
    fifo_summary r;
    std::vector<double> times;
    for (const auto& s : samples) {
        times.push_back(s.t);
    }
    const size_t half = second_half_start(times);
    std::vector<double> x, y;
    bool bAny = false, bAnyHalf = false;
    for (size_t i = 0; i < samples.size(); ++i) {
        const element_sample& s = samples[i];
        if (s.tFifo < 0) {
            ++r.unreadable;
            continue;
        }
        const double v = ms(s.tFifo);
        if (!bAny) {
            r.startMs = r.minMs = r.maxMs = v;
            bAny = true;
        }
        r.endMs = v;
        r.minMs = std::min(r.minMs, v);
        r.maxMs = std::max(r.maxMs, v);
        if (i >= half) {
            if (!bAnyHalf) {
                r.minHalfMs = r.maxHalfMs = v;
                bAnyHalf = true;
            }
            r.minHalfMs = std::min(r.minHalfMs, v);
            r.maxHalfMs = std::max(r.maxHalfMs, v);
            x.push_back(s.t);
            y.push_back(v);
        }
    }
    if (!samples.empty()) {
        const element_sample& from = samples[half];
        const element_sample& to = samples.back();
        r.resetsHalf = to.nResets - std::min(to.nResets, from.nResets);
        r.skipPacketsHalf = to.nSkipPackets - std::min(to.nSkipPackets, from.nSkipPackets);
    }
    if (x.size() >= 2) {
        const line_fit f = fit_line(x, y);
        r.driftUsPerS = f.slope * 1000.0;  // ms per s to µs per s
        r.driftHalfMs = f.slope * (x.back() - x.front());
    }
    return r;
}

memory_summary summarize_memory(const std::vector<process_sample>& samples) {
    memory_summary r;
    if (samples.empty()) {
        return r;
    }
    std::vector<double> times, x, y;
    for (const auto& s : samples) {
        times.push_back(s.t);
        r.maxKiB = std::max(r.maxKiB, s.nRssKiB);
    }
    const size_t half = second_half_start(times);
    r.startKiB = samples.front().nRssKiB;
    r.midKiB = samples[half].nRssKiB;
    r.endKiB = samples.back().nRssKiB;
    r.growthHalfKiB = int64_t(r.endKiB) - int64_t(r.midKiB);
    for (size_t i = half; i < samples.size(); ++i) {
        x.push_back(samples[i].t / 60.0);
        y.push_back(double(samples[i].nRssKiB));
    }
    r.slopeHalfKiBPerMin = fit_line(x, y).slope;
    return r;
}

std::vector<std::string> judge(const std::vector<fifo_summary>& fifos, const memory_summary& memory,
                               const limits& lim) {
    std::vector<std::string> failures;
    char line[256];
    for (size_t i = 0; i < fifos.size(); ++i) {
        const fifo_summary& f = fifos[i];
        if (std::fabs(f.driftHalfMs) > lim.maxDriftMs) {
            std::snprintf(line, sizeof(line),
                          "element %zu: FIFO fullness drifted %+.1f ms over the second half "
                          "(limit %.1f ms)",
                          i, f.driftHalfMs, lim.maxDriftMs);
            failures.push_back(line);
        }
        if (lim.maxDriftRate > 0 && std::fabs(f.driftUsPerS) > lim.maxDriftRate) {
            std::snprintf(line, sizeof(line),
                          "element %zu: FIFO fullness drifts %+.2f us/s over the second half "
                          "(limit %.2f us/s)",
                          i, f.driftUsPerS, lim.maxDriftRate);
            failures.push_back(line);
        }
        if (lim.bResetsFail && f.resetsHalf > 0) {
            std::snprintf(line, sizeof(line),
                          "element %zu: %llu output reset(s) in the second half", i,
                          static_cast<unsigned long long>(f.resetsHalf));
            failures.push_back(line);
        }
    }
    if (memory.growthHalfKiB > lim.maxRssGrowthKiB) {
        std::snprintf(line, sizeof(line),
                      "RSS grew by %lld KiB over the second half (limit %lld KiB)",
                      static_cast<long long>(memory.growthHalfKiB),
                      static_cast<long long>(lim.maxRssGrowthKiB));
        failures.push_back(line);
    }
    return failures;
}

}  // namespace kv_asi_soak
