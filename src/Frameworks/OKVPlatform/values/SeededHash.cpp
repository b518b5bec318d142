#include <OKVPlatform/values/SeededHash.h>

#include <sys/random.h>

#include <atomic>
#include <cstring>

namespace okv {

namespace {

constinit std::atomic<std::uint64_t> processSeed{0};  // 0: not drawn yet

std::uint64_t randomSeed() noexcept {
    std::uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != sizeof seed)
        seed = reinterpret_cast<std::uintptr_t>(&seed);
    return seed | 1;
}

// Of threads that draw at once the first one's counts: a local static object would let a child that
// is forked just then wait for ever.
std::uint64_t drawnSeed() noexcept {
    const auto drawn = randomSeed();
    std::uint64_t first = 0;
    return processSeed.compare_exchange_strong(first, drawn, std::memory_order_relaxed) ? drawn
                                                                                        : first;
}

std::uint64_t mixed(std::uint64_t a, std::uint64_t b) {
    __extension__ using Wide = unsigned __int128;
    const auto product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

}  // namespace

std::uint64_t seededHash(std::string_view bytes) noexcept {
    auto seed = processSeed.load(std::memory_order_relaxed);
    if (seed == 0) seed = drawnSeed();
    auto hash = seed ^ bytes.size();
    for (; bytes.size() >= 8; bytes.remove_prefix(8)) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes.data(), 8);
        hash = mixed(hash ^ word, seed | 0x9E3779B97F4A7C15U);
    }
    std::uint64_t tail = 0;
    std::memcpy(&tail, bytes.data(), bytes.size());
    return mixed(hash ^ tail, 0xD6E8FEB86659FD93U ^ (seed << 1 | 1));
}

}  // namespace okv
