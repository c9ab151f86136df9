// Figures: what is measured, against what, and how the result is printed.
//
// The sides of a figure take turns, one measurement each. In a round, each side's value is the median of its
// measurements and the ratio is that of the medians. Printed are the medians over the rounds, followed by the
// smallest and the largest ratio of a round.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

struct side {
    const char *name;
    std::function<double()> measure; // one measurement, in the figure's unit
};

// The first side is the one in question. at_most limits its ratio to the second side or, in a range, to the
// slowest of the others; 0 means no limit.
struct figure {
    const char *name;
    const char *unit;
    int turns;
    double at_most;
    std::vector<side> sides;
    bool range = false;
};

double median(std::vector<double> values);

// Call before run_figures, which takes the options of Google's library, and --smoke: every figure once,
// without a verdict.
void add_figure(figure added);
void run_figures(int argc, char **argv, FILE *output);
