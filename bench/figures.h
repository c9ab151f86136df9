// Figures: what is measured, beside what, and how it is told.
//
// The sides of a figure take turns, measurement by measurement. A round's value of a side is the median of
// its measurements, a round's ratio that of the medians, and what is told the median of the rounds, with the
// smallest and the largest ratio of a round behind it.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

struct side {
    const char *name;
    std::function<double()> measure; // one measurement, in the figure's unit
};

// The first side is the one in question. at_most is what its ratio to the second is wanted to be, or, of a
// range, its ratio to the slowest of the others; 0: nothing is wanted.
struct figure {
    const char *name;
    const char *unit;
    int turns;
    double at_most;
    std::vector<side> sides;
    bool range = false;
};

double median(std::vector<double> values);

// To be called before run_figures, which takes the options of Google's library and --smoke: every figure
// once, and without a verdict.
void add_figure(figure added);
void run_figures(int argc, char **argv, FILE *output);
