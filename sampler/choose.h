// Which rows a sample takes: a uniform choice without replacement, made before any row is read.
//
// Every set of `n` of the `total` rows is equally likely. The rows come out in ascending order, so that a
// caller that walks its row groups once can ask for them range by range.
#ifndef KELPD_SAMPLER_CHOOSE_H
#define KELPD_SAMPLER_CHOOSE_H

#include <stdint.h>

#include <random>
#include <vector>

class row_choice_t {
 public:
    // Chooses min(n, total) rows. The same seed, n and total give the same rows on every machine. A small
    // share of the rows is drawn at once and kept, 8 bytes per row; a larger one is decided row by row and
    // keeps nothing.
    row_choice_t(uint64_t seed, uint64_t n, uint64_t total);

    // Stores the rows chosen among the next `nrow` ones, counted from the first of them, and moves past
    // them. All calls together must not ask for more than `total` rows.
    void take(uint32_t nrow, std::vector<uint32_t>* ret_rows);

    // Rows that are chosen and were not handed out yet.
    [[nodiscard]] uint64_t left() const { return nleft_; }

 private:
    uint64_t below(uint64_t bound);
    void draw();

    std::mt19937_64 rng_;
    uint64_t nleft_;       // rows to hand out
    uint64_t total_left_;  // rows not asked for yet
    uint64_t next_ = 0;    // the first of them
    bool drawn_ = false;
    std::vector<uint64_t> row_;  // ascending, when drawn
    size_t row_next_ = 0;
};

#endif
