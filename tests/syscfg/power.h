// Power cuts during a save, and what boots from whatever they can leave on flash.
#pragma once

#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <set>

using values = std::vector<std::string>; // of all variables, in the same order

// Boots from everything that a cut can leave in the file flash: new bytes up to the cut, then the old ones or
// the rest of 64 KiB erased for writing. Cuts at every sector up to end, at every header_step bytes of the
// header and at random bytes. Prints what came up, and from which cut on.
void cut_power(const std::string &save, const std::string &flash, const std::string &before,
               const std::string &after, size_t end, size_t header_step, auto boot)
{
    const auto boot_from = [&](const std::string &image) { // in place: file systems flush truncated files
        std::fstream(flash, std::ios::in | std::ios::out | std::ios::binary) << image;
        return boot();
    };
    const values defaults = boot_from(std::string(after.size(), '\0')), old = boot_from(before);
    const values saved = boot_from(after);
    std::mt19937 dice(20);
    std::set<size_t> cuts;
    for (size_t at = 0; at < 212; at += header_step)
        cuts.insert(at);
    for (size_t at = 512; at <= end; at += 512)
        cuts.insert({at, at - dice() % 512, at - dice() % 512});
    for (const bool erased : {false, true}) {
        printf("%s: %zu cuts, the rest %s\n", save.c_str(), cuts.size(), erased ? "erased" : "as it was");
        std::string last;
        for (const size_t at : cuts) {
            std::string image = after.substr(0, at) + before.substr(at);
            if (erased)
                image.replace(at, 65536 - at % 65536, 65536 - at % 65536, '\xff');
            const values now = boot_from(image);
            int strange = 0;
            for (size_t i = 0; i < saved.size(); ++i)
                strange += now.at(i) != old.at(i) && now[i] != saved[i] && now[i] != defaults.at(i);
            std::string up = strange ? "mixed, one value is none of the three" : "mixed";
            for (const auto &[name, all] : {std::pair("old", &old), {"new", &saved}, {"defaults", &defaults}})
                up = now == *all ? name : up;
            if (up != std::exchange(last, up))
                printf("  %5zu %s\n", at, up.c_str());
            bool torn = !image.starts_with(before.substr(0, 212)) && !image.starts_with(after.substr(0, 212));
            const bool lost = torn || before[0] != 'R' || (erased && at <= after.find("\"\n") + 1);
            EXPECT_TRUE((up == "defaults") == lost && strange <= 1) << save << " " << at << up;
        }
    }
}
