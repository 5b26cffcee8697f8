#include "platform/sim/fault.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "platform/os.h"

namespace {

struct fault_rule {
    uint32_t nth;   // 0: every call
    int32_t code;
};

constexpr std::array<const char*, SIM_OP_COUNT> k_names = {
#define SIM_OP(name) #name,
#include "platform/sim/sim_ops.def"
#undef SIM_OP
};

// Written only while no operation runs (board open); read by every thread.
std::array<std::vector<fault_rule>, SIM_OP_COUNT> g_rules;
std::array<std::atomic<uint32_t>, SIM_OP_COUNT> g_calls;

// The line on standard error for a failed call: at most one a second per
// operation, so that a caller retrying a failing call in a loop does not
// flood the console; the next line counts the failures left unreported.
constexpr int64_t k_report_period_us = 1000000;
constexpr int64_t k_never = INT64_MIN;
struct fault_report {
    std::atomic<int64_t> last_us{k_never};
    std::atomic<uint32_t> quiet{0};
};
std::array<fault_report, SIM_OP_COUNT> g_reports;

void report(sim_op op, uint32_t n, int32_t code)
{
    fault_report& r = g_reports[op];
    const int64_t now = os_monotonic_us();
    int64_t last = r.last_us.load(std::memory_order_relaxed);
    if ((last != k_never && now - last < k_report_period_us) ||
        !r.last_us.compare_exchange_strong(last, now, std::memory_order_relaxed)) {
        r.quiet.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    uint32_t quiet = r.quiet.exchange(0, std::memory_order_relaxed);
    if (quiet == 0)
        std::fprintf(stderr, "sim: %s call %u fails with %#x\n", k_names[op], n, static_cast<unsigned>(code));
    else
        std::fprintf(stderr, "sim: %s call %u fails with %#x (%u more failures not reported)\n", k_names[op], n,
                     static_cast<unsigned>(code), quiet);
}

int find_op(std::string_view name)
{
    for (int i = 0; i < SIM_OP_COUNT; ++i)
        if (name == k_names[i])
            return i;
    return -1;
}

bool parse_hex(std::string_view text, uint32_t* out)
{
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text.remove_prefix(2);
    if (text.empty() || text.size() > 8)
        return false;
    uint32_t v = 0;
    for (char c : text) {
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            return false;
        v = v << 4 | static_cast<uint32_t>(d);
    }
    *out = v;
    return true;
}

bool parse_count(std::string_view text, uint32_t* out)
{
    if (text.empty() || text.size() > 9)
        return false;
    uint32_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + static_cast<uint32_t>(c - '0');
    }
    if (v == 0)
        return false;
    *out = v;
    return true;
}

}  // namespace

int sim_fault_set(const char* rules, std::string* err)
{
    std::array<std::vector<fault_rule>, SIM_OP_COUNT> parsed;
    std::string_view all = rules ? rules : "";
    while (!all.empty()) {
        size_t comma = all.find(',');
        std::string_view rule = all.substr(0, comma);
        all = comma == std::string_view::npos ? std::string_view{} : all.substr(comma + 1);
        if (rule.empty())
            continue;
        size_t eq = rule.find('=');
        if (eq == std::string_view::npos) {
            *err = "fault rule '" + std::string(rule) + "' has no '=CODE'";
            return -1;
        }
        std::string_view name = rule.substr(0, eq);
        uint32_t nth = 0;
        if (size_t at = name.find('@'); at != std::string_view::npos) {
            if (!parse_count(name.substr(at + 1), &nth)) {
                *err = "fault rule '" + std::string(rule) + "': the call number must be 1 or more";
                return -1;
            }
            name = name.substr(0, at);
        }
        int op = find_op(name);
        if (op < 0) {
            *err = "fault rule '" + std::string(rule) + "': unknown operation '" + std::string(name) + "'";
            return -1;
        }
        uint32_t code;
        if (!parse_hex(rule.substr(eq + 1), &code) || code == 0) {
            *err = "fault rule '" + std::string(rule) + "': CODE must be a non-zero hexadecimal number";
            return -1;
        }
        parsed[op].push_back({nth, static_cast<int32_t>(code)});
    }
    g_rules = std::move(parsed);
    for (auto& c : g_calls)
        c.store(0, std::memory_order_relaxed);
    for (fault_report& r : g_reports) {
        r.last_us.store(k_never, std::memory_order_relaxed);
        r.quiet.store(0, std::memory_order_relaxed);
    }
    return 0;
}

int32_t sim_fail(sim_op op)
{
    uint32_t n = g_calls[op].fetch_add(1, std::memory_order_relaxed) + 1;
    for (const fault_rule& r : g_rules[op]) {
        if (r.nth == 0 || r.nth == n) {
            report(op, n, r.code);
            return r.code;
        }
    }
    return 0;
}

uint32_t sim_fault_calls(sim_op op)
{
    return g_calls[op].load(std::memory_order_relaxed);
}

const char* sim_op_name(sim_op op)
{
    return op >= 0 && op < SIM_OP_COUNT ? k_names[op] : nullptr;
}
