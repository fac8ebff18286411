#include "Probe.h"

#include <thread>

namespace orvexd::bench {

std::vector<std::int64_t> probe(const Bus& bus, std::chrono::milliseconds time,
                                std::chrono::microseconds interval) {
    std::vector<std::int64_t> times;
    const auto end = Clock::now() + time;
    for (auto next = Clock::now(); next < end; next += interval) {
        std::this_thread::sleep_until(next);
        const auto begin = Clock::now();
        bus.call(makeGetStatus());
        times.push_back(nanoseconds(Clock::now() - begin));
    }
    return times;
}

} // namespace orvexd::bench
