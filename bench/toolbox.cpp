// Costs of the toolbox: category flags both ways, and cutting a buffer into lines. The cost of a
// line must not grow with the buffer.
#include <OKVDataManager/okvCmnUtil.h>

#include <benchmark/benchmark.h>

namespace {

constexpr std::size_t kLineLength = 64;  // Line feed included.

std::string categoryText() {
    std::string text;
    for (int i = 0; i < 128; ++i) text += i % 3 == 0 ? '1' : '0';
    return text;
}

okv::Data linesOf(std::size_t size) {
    okv::Data buffer;
    buffer.reserve(size);
    while (buffer.size() < size) buffer.append(std::string(kLineLength - 1, 'x') + '\n');
    buffer.push_back('.');  // The last byte is never tried.
    return buffer;
}

void categoryFromText(benchmark::State& state) {
    const std::string text = categoryText();
    for (auto _ : state) benchmark::DoNotOptimize(okvCmnUtil::stringToCategoryData(text));
}

void categoryToText(benchmark::State& state) {
    const auto data = *okvCmnUtil::stringToCategoryData(categoryText());
    for (auto _ : state) benchmark::DoNotOptimize(okvCmnUtil::dataToCategoryString(data));
}

void cutIntoLines(benchmark::State& state) {
    const okv::Data whole = linesOf(static_cast<std::size_t>(state.range(0)));
    std::int64_t lines = 0;
    for (auto _ : state) {
        state.PauseTiming();
        okv::Data buffer = whole;
        state.ResumeTiming();
        while (okvCmnUtil::subDataToDelimiter_delimiter(buffer, "\n")) ++lines;
    }
    state.counters["per_line"] = benchmark::Counter(
        static_cast<double>(lines), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void cutBySize(benchmark::State& state) {
    const okv::Data whole = linesOf(static_cast<std::size_t>(state.range(0)));
    std::int64_t pieces = 0;
    for (auto _ : state) {
        state.PauseTiming();
        okv::Data buffer = whole;
        okv::Data piece;
        state.ResumeTiming();
        while (okvCmnUtil::subData_size_dstData(buffer, kLineLength, piece)) ++pieces;
    }
    state.counters["per_piece"] = benchmark::Counter(
        static_cast<double>(pieces), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void dateText(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(okvCmnUtil::descriptionWithTimeIntervalSince1970(1264951800));
}

BENCHMARK(categoryFromText);
BENCHMARK(categoryToText);
BENCHMARK(cutIntoLines)->Arg(1 << 20)->Arg(10 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(cutBySize)->Arg(1 << 20)->Arg(10 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(dateText);

}  // namespace

BENCHMARK_MAIN();
