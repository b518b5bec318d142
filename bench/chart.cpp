// Draws what bench_peers wrote: for each way to measure a bar for everyone, as long as a call took
// beside the raw stream's.
//
//     bench_chart FIGURES.json CHART.svg

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <string>

namespace {

using nlohmann::json;

constexpr int kWidth = 900;
constexpr int kLabels = 400;
constexpr int kFigures = 70;
constexpr int kRow = 22;
constexpr int kTitle = 40;
constexpr int kMargin = 16;
// Bars beyond it are cut: the slowest must not make the others' differences vanish.
constexpr double kLongest = 6;

constexpr std::array<std::array<const char*, 2>, 3> kSections{
    {{"one core", "Time of a call, everything on one core (raw Unix stream = 1)"},
     {"two cores", "Client and server on a core each"},
     {"1 ms between calls", "One core, 1 ms between calls"}}};

std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '&') {
            result += "&amp;";
        } else if (c == '<') {
            result += "&lt;";
        } else {
            result += c;
        }
    }
    return result;
}

std::string textAt(int x, int y, const std::string& text, const char* style) {
    char start[128];
    std::snprintf(start, sizeof start, "<text x=\"%d\" y=\"%d\" class=\"%s\">", x, y, style);
    return start + escaped(text) + "</text>\n";
}

bool isOurs(const std::string& name) {
    return name.starts_with("OKV") || name.starts_with("okv");
}

std::string bar(int y, const json& row) {
    const std::string name = row["name"];
    const double ratio = row["ratio"];
    const int room = kWidth - kLabels - kFigures - kMargin;
    const auto length = static_cast<int>(room * std::min(ratio, kLongest) / kLongest);
    char figure[64], shape[160];
    std::snprintf(figure, sizeof figure, ratio > kLongest ? "%.2f \u2192" : "%.2f", ratio);
    std::snprintf(shape, sizeof shape,
                  "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" class=\"%s\"/>\n", kLabels, y,
                  length, kRow - 6, isOurs(name) ? "ours" : "other");
    return textAt(kLabels - 8, y + 12, name, "name") + shape +
           textAt(kLabels + length + 6, y + 12, figure, "figure");
}

std::string section(int& y, const json& rows, const char* title) {
    std::string drawn = textAt(kMargin, y + kTitle - 16, title, "title");
    y += kTitle;
    for (const auto& row : rows) {
        drawn += bar(y, row);
        y += kRow;
    }
    return drawn;
}

std::string chart(const json& report) {
    int y = 0;
    std::string body;
    for (const auto& [key, title] : kSections) body += section(y, report["latency"][key], title);
    const auto height = std::to_string(y + kMargin);
    const auto width = std::to_string(kWidth);
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + width + "\" height=\"" + height +
           "\" viewBox=\"0 0 " + width + " " + height +
           "\" font-family=\"sans-serif\" font-size=\"13\">\n"
           "<style>.title{font-weight:bold;font-size:15px}.name{text-anchor:end}"
           ".ours{fill:#2a7f62}.other{fill:#9aa5b1}</style>\n"
           "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n" +
           body + "</svg>\n";
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: bench_chart FIGURES.json CHART.svg\n", stderr);
        return 2;
    }
    std::ifstream in(arguments[1]);
    const auto report = json::parse(in, nullptr, false);
    if (report.is_discarded() || !report.contains("latency")) {
        std::fprintf(stderr, "bench_chart: no figures in %s\n", arguments[1]);
        return 1;
    }
    std::ofstream(arguments[2]) << chart(report);
}
