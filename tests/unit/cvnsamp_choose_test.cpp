// The choice of rows: exact counts, order, reproducibility, and every set of rows equally likely. The
// statistics are taken over fixed seeds, so they come out the same in every run.
#include "sampler/choose.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>

namespace {

std::vector<uint64_t> choose(uint64_t seed, uint64_t n, uint64_t total, uint32_t step) {
    row_choice_t choice(seed, n, total);
    std::vector<uint64_t> all;
    std::vector<uint32_t> rows;
    for (uint64_t at = 0; at < total; at += step) {
        const auto len = static_cast<uint32_t>(std::min<uint64_t>(step, total - at));
        choice.take(len, &rows);
        for (const uint32_t r : rows) {
            EXPECT_LT(r, len);
            all.push_back(at + r);
        }
    }
    EXPECT_EQ(0u, choice.left());
    return all;
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
void expect_rows_equally_likely(uint64_t n, uint64_t total, uint64_t runs) {
    std::vector<uint64_t> count(total);
    for (uint64_t seed = 0; seed < runs; seed++)
        for (const uint64_t r : choose(seed, n, total, 100)) ++count[r];
    const auto t = static_cast<double>(total);
    const double share = static_cast<double>(n) / t;
    const double x = chi_square(count, static_cast<double>(runs) * share) / (1 - share) * (t - 1) / t;
    expect_chi_square(x, t - 1);
}

void expect_sets_equally_likely(uint64_t n, uint64_t total, size_t nset, uint64_t runs) {
    std::map<std::vector<uint64_t>, uint64_t> seen;
    for (uint64_t seed = 0; seed < runs; seed++) ++seen[choose(seed, n, total, 5)];
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

TEST(CvnsampChoose, TheSameSeedGivesTheSameRowsHoweverTheRangesAreCut) {
    for (const uint64_t n : {10u, 300u}) {
        const std::vector<uint64_t> rows = choose(42, n, 1000, 1000);
        EXPECT_EQ(rows, choose(42, n, 1000, 1000));
        EXPECT_EQ(rows, choose(42, n, 1000, 7));
        EXPECT_NE(rows, choose(43, n, 1000, 1000));
    }
}

TEST(CvnsampChoose, EveryRowIsEquallyLikelyInASmallShare) { expect_rows_equally_likely(10, 320, 20000); }

TEST(CvnsampChoose, EveryRowIsEquallyLikelyInALargeShare) { expect_rows_equally_likely(100, 320, 20000); }

TEST(CvnsampChoose, EverySetOfRowsIsEquallyLikelyInASmallShare) {
    expect_sets_equally_likely(2, 48, 48 * 47 / 2, 112800);
}

TEST(CvnsampChoose, EverySetOfRowsIsEquallyLikelyInALargeShare) {
    expect_sets_equally_likely(3, 6, 20, 40000);
}

TEST(CvnsampChoose, ReachesTheLastRowsOfAVeryLargeTable) {
    const uint64_t total = uint64_t{1} << 62;
    row_choice_t choice(5, 1000, total);
    std::vector<uint32_t> rows;
    choice.take(UINT32_MAX, &rows);
    EXPECT_TRUE(rows.empty());
    EXPECT_EQ(1000u, choice.left());
}

}  // namespace
