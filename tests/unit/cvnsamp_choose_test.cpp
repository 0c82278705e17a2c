// The choice of rows: exact counts, order, reproducibility, and every set of rows equally likely. The
// statistics are taken over fixed seeds, so they come out the same in every run.
#include "sampler/choose.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <numeric>

namespace {

// Numbers of rows of `npart` parts, `nrow` together and as alike as can be.
std::vector<uint64_t> parts(uint64_t nrow, uint64_t npart) {
    std::vector<uint64_t> part;
    for (uint64_t i = 0; i < npart; i++) part.push_back(nrow * (i + 1) / npart - nrow * i / npart);
    return part;
}

// Chooses among files of those numbers of rows, each of row groups of at most `step` rows.
std::vector<uint64_t> choose(uint64_t seed, uint64_t n, const std::vector<uint64_t>& file_nrow,
                             uint64_t step) {
    row_choice_t choice(seed, n, file_nrow);
    std::vector<uint64_t> all;
    std::vector<uint32_t> rows;
    uint64_t at = 0;
    for (const uint64_t nrow : file_nrow) {
        if (choice.skip_file()) {
            at += nrow;
            continue;
        }
        const std::vector<uint64_t> group = parts(nrow, (nrow + step - 1) / step);
        choice.open_file(group);
        for (const uint64_t len : group) {
            choice.take(static_cast<uint32_t>(len), &rows);
            for (const uint32_t r : rows) {
                EXPECT_LT(r, len);
                all.push_back(at + r);
            }
            at += len;
        }
    }
    EXPECT_EQ(0u, choice.left());
    return all;
}

std::vector<uint64_t> choose(uint64_t seed, uint64_t n, uint64_t total, uint64_t step) {
    return choose(seed, n, std::vector<uint64_t>{total}, step);
}

// Pearson's statistic of counts that all have the same expectation.
double chi_square(const std::vector<uint64_t>& count, double expected) {
    double sum = 0;
    for (const uint64_t c : count)
        sum += (static_cast<double>(c) - expected) * (static_cast<double>(c) - expected);
    return sum / expected;
}

// Within five standard deviations of its mean: far too large says not uniform, far too small says not random.
void expect_chi_square(double x, double freedom) {
    EXPECT_LT(x, freedom + 5 * std::sqrt(2 * freedom));
    EXPECT_GT(x, freedom - 5 * std::sqrt(2 * freedom));
}

// How often each row comes, over `runs` seeds. Drawing without replacement narrows the spread of the counts
// by the share of rows that stay behind.
void expect_rows_equally_likely(uint64_t n, const std::vector<uint64_t>& file_nrow, uint64_t step,
                                uint64_t runs) {
    const auto total = std::accumulate(file_nrow.begin(), file_nrow.end(), uint64_t{0});
    std::vector<uint64_t> count(total);
    for (uint64_t seed = 0; seed < runs; seed++)
        for (const uint64_t r : choose(seed, n, file_nrow, step)) ++count[r];
    const auto t = static_cast<double>(total);
    const double share = static_cast<double>(n) / t;
    const double x = chi_square(count, static_cast<double>(runs) * share) / (1 - share) * (t - 1) / t;
    expect_chi_square(x, t - 1);
}

void expect_sets_equally_likely(uint64_t n, const std::vector<uint64_t>& file_nrow, uint64_t step,
                                size_t nset, uint64_t runs) {
    std::map<std::vector<uint64_t>, uint64_t> seen;
    for (uint64_t seed = 0; seed < runs; seed++) ++seen[choose(seed, n, file_nrow, step)];
    ASSERT_EQ(nset, seen.size());
    std::vector<uint64_t> count;
    for (const auto& [rows, c] : seen) count.push_back(c);
    expect_chi_square(chi_square(count, static_cast<double>(runs) / static_cast<double>(nset)),
                      static_cast<double>(nset) - 1);
}

TEST(CvnsampChoose, TakesExactlyTheCountInAscendingOrderWithoutRepeats) {
    for (const uint64_t total : {1u, 2u, 15u, 16u, 17u, 1000u, 5000u}) {
        for (const uint64_t n : {uint64_t{1}, total / 16, total / 16 + 1, total / 2, total - 1, total}) {
            const std::vector<uint64_t> rows = choose(total + n, n, total, 64);
            EXPECT_EQ(n, rows.size()) << total;
            for (size_t i = 1; i < rows.size(); i++) EXPECT_LT(rows[i - 1], rows[i]);
        }
    }
}

TEST(CvnsampChoose, TakesAllRowsWhenMoreAreWantedThanThereAre) {
    EXPECT_EQ((std::vector<uint64_t>{0, 1, 2, 3, 4}), choose(1, 5, 5, 2));
    EXPECT_EQ((std::vector<uint64_t>{0, 1, 2, 3, 4}), choose(1, UINT64_MAX, 5, 2));
    EXPECT_TRUE(choose(1, 3, 0, 2).empty());
}

TEST(CvnsampChoose, TheSameSeedGivesTheSameRows) {
    for (const uint64_t n : {10u, 300u}) {
        const std::vector<uint64_t> files = {400, 0, 600};
        const std::vector<uint64_t> rows = choose(42, n, files, 30);
        EXPECT_EQ(rows, choose(42, n, files, 30));
        EXPECT_NE(rows, choose(43, n, files, 30));
    }
}

TEST(CvnsampChoose, EveryRowIsEquallyLikelyInASmallShareOfOneFile) {
    expect_rows_equally_likely(10, {320}, 100, 20000);
}

TEST(CvnsampChoose, EveryRowIsEquallyLikelyInALargeShareOfOneFile) {
    expect_rows_equally_likely(100, {320}, 100, 20000);
}

// Unequal files and row groups, so that a choice that favoured parts over rows would show.
TEST(CvnsampChoose, EveryRowIsEquallyLikelyInASmallShareOfManyFiles) {
    expect_rows_equally_likely(12, {7, 200, 1, 0, 33, 90, 5}, 40, 20000);
}

TEST(CvnsampChoose, EveryRowIsEquallyLikelyInALargeShareOfManyFiles) {
    expect_rows_equally_likely(100, {7, 200, 1, 0, 33, 90, 5}, 40, 20000);
}

TEST(CvnsampChoose, EverySetOfRowsIsEquallyLikelyInASmallShareOfOneRowGroup) {
    expect_sets_equally_likely(2, {48}, 48, 48 * 47 / 2, 112800);
}

TEST(CvnsampChoose, EverySetOfRowsIsEquallyLikelyInASmallShareOfManyRowGroups) {
    expect_sets_equally_likely(2, {20, 3, 25}, 7, 48 * 47 / 2, 112800);
}

TEST(CvnsampChoose, EverySetOfRowsIsEquallyLikelyInALargeShare) {
    expect_sets_equally_likely(3, {6}, 5, 20, 40000);
    expect_sets_equally_likely(3, {1, 2, 3}, 2, 20, 40000);
}

// What the row groups of a large table get is known by its mean and its spread, both of which a share that is
// rounded or drawn twice would miss.
TEST(CvnsampChoose, PartsOfALargeTableGetTheirShareWithTheSpreadOfAChoiceWithoutReplacement) {
    constexpr uint64_t N = 2000, NPART = 50, STEP = 1 << 20, RUNS = 400;
    const std::vector<uint64_t> file_nrow(NPART, STEP);
    double sum = 0, squares = 0;
    for (uint64_t seed = 0; seed < RUNS; seed++) {
        std::vector<uint64_t> got(NPART);
        for (const uint64_t r : choose(seed, N, file_nrow, STEP)) ++got[r / STEP];
        for (const uint64_t k : got) {
            const double off = static_cast<double>(k) - static_cast<double>(N) / NPART;
            sum += off;
            squares += off * off;
        }
    }
    EXPECT_EQ(0, sum) << "all parts together get exactly what is wanted";
    constexpr double SHARE = 1.0 / NPART;
    const double variance = N * SHARE * (1 - SHARE);  // the 52 million rows make the correction vanish
    // The mean of RUNS * NPART squares of nearly normal numbers, within five of its deviations.
    EXPECT_NEAR(1, squares / (RUNS * NPART) / variance, 5 * std::sqrt(2.0 / (RUNS * NPART)));
}

TEST(CvnsampChoose, ReachesTheLastRowsOfAVeryLargeTable) {
    const std::vector<uint64_t> file_nrow(4, uint64_t{1} << 60);
    row_choice_t choice(5, 1000, file_nrow);
    EXPECT_EQ(1000u, choice.left());
    for (int f = 0; f < 4; f++) {
        EXPECT_FALSE(choice.skip_file()) << "a thousand rows miss none of four equal files";
        choice.open_file({});
    }
}

}  // namespace
