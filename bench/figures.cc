#include "bench/figures.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <deque>
#include <string_view>

namespace {

constexpr int rounds = 11;

bool smoke;
std::deque<figure> figures;

std::string counter(size_t side, const char *name)
{
    return std::to_string(side) + name;
}

void run_round(benchmark::State &state, const figure &measured)
{
    std::vector<std::vector<double>> values(measured.sides.size());
    for ([[maybe_unused]] auto _ : state) {
        for (int turn = 0; turn < (smoke ? 1 : measured.turns); ++turn) {
            for (size_t i = 0; i < values.size(); ++i)
                values[i].push_back(measured.sides[i].measure());
        }
        state.SetIterationTime(1);
    }
    for (size_t i = 0; i < values.size(); ++i)
        state.counters[counter(i, measured.sides[i].name)] = median(values[i]);
}

// Prints one line per figure.
struct reporter : benchmark::BenchmarkReporter {
    FILE *output;

    bool ReportContext(const Context &) override { return true; }

    void ReportRuns(const std::vector<Run> &runs) override
    {
        if (runs.front().run_type != Run::RT_Iteration)
            return;
        const std::string &name = runs.front().run_name.function_name;
        const auto told = std::find_if(figures.begin(), figures.end(),
                                       [&name](const figure &candidate) { return name == candidate.name; });
        tell(*told, runs);
        std::fflush(output);
    }

  private:
    static std::vector<double> values_of(const figure &told, size_t side, const std::vector<Run> &runs)
    {
        std::vector<double> values;
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration)
                values.push_back(run.counters.at(counter(side, told.sides[side].name)));
        }
        return values;
    }

    void tell(const figure &told, const std::vector<Run> &runs) const
    {
        const std::vector<double> ours = values_of(told, 0, runs);
        const bool several = told.sides.size() > 2;
        std::string sides;
        double judged_beside = 0;
        double judged = 0;
        for (size_t i = 1; i < told.sides.size(); ++i) {
            const std::vector<double> theirs = values_of(told, i, runs);
            std::vector<double> ratios;
            for (size_t round = 0; round < ours.size(); ++round)
                ratios.push_back(ours[round] / theirs[round]);
            const auto [least, most] = std::minmax_element(ratios.begin(), ratios.end());
            char text[160];
            std::snprintf(text, sizeof text, "%s%s %.2f %s, ratio %.3f (%.3f to %.3f)",
                          several && i % 2 == 1 ? "\n  " : "; ", told.sides[i].name, median(theirs),
                          told.unit, median(ratios), *least, *most);
            sides += text;
            if (i == 1 || (told.range && median(theirs) > judged_beside)) {
                judged_beside = median(theirs);
                judged = median(ratios);
            }
        }
        std::fprintf(output, "%s: %s %.2f %s%s%s\n", told.name, told.sides[0].name, median(ours), told.unit,
                     sides.c_str(), verdict(told, judged).c_str());
    }

    static std::string verdict(const figure &told, double ratio)
    {
        if (told.at_most == 0 || smoke)
            return "";
        char text[80];
        const int length = std::snprintf(text, sizeof text,
                                         "%swanted at most %.2f%s: ", told.sides.size() > 2 ? "\n  " : "; ",
                                         told.at_most, told.range ? " of the slowest" : "");
        std::snprintf(text + length, sizeof text - static_cast<size_t>(length),
                      ratio <= told.at_most ? "met" : "missed by %.3f", ratio - told.at_most);
        return text;
    }
};

} // namespace

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void add_figure(figure added)
{
    figures.push_back(std::move(added));
}

void run_figures(int argc, char **argv, FILE *output)
{
    smoke = std::find(argv, argv + argc, std::string_view("--smoke")) != argv + argc;
    benchmark::Initialize(&argc, argv);
    for (const figure &measured : figures) {
        benchmark::RegisterBenchmark(measured.name,
                                     [&measured](benchmark::State &state) { run_round(state, measured); })
            ->UseManualTime()
            ->Iterations(1)
            ->Repetitions(smoke ? 1 : rounds);
    }
    reporter told;
    told.output = output;
    benchmark::RunSpecifiedBenchmarks(&told);
}
