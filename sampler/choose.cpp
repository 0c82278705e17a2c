// Two ways to the same distribution. Of many rows: decide row by row, each with the share of what is still
// wanted in what is still to come. It needs no memory, but one random number per row. Of few rows: halve the
// parts, draw how many of the rows wanted fall into each half, and so on down to one row group, where that many
// different rows are drawn: a few random numbers per row that is wanted, and the rows of one row group in
// memory. All with whole numbers, so that it comes out alike everywhere.
#include "sampler/choose.h"

#include <algorithm>
#include <numeric>

namespace {
// From one row in this many on, deciding row by row is cheaper than drawing and sorting.
constexpr uint64_t DENSE_SHARE = 16;
}  // namespace

row_choice_t::row_choice_t(uint64_t seed, uint64_t n, std::span<const uint64_t> file_nrow) : rng_(seed) {
    const uint64_t total = std::accumulate(file_nrow.begin(), file_nrow.end(), uint64_t{0});
    left_ = std::min(n, total);
    plan(&file_, file_nrow, total, left_);
}

// A number below `bound`, each equally likely: the high half of a product, with the few low halves refused
// that would make some numbers come up once more than others.
uint64_t row_choice_t::below(uint64_t bound) {
    unsigned __int128 product = static_cast<unsigned __int128>(rng_()) * bound;
    if (static_cast<uint64_t>(product) < bound) {
        const uint64_t refused = (0 - bound) % bound;
        while (static_cast<uint64_t>(product) < refused)
            product = static_cast<unsigned __int128>(rng_()) * bound;
    }
    return static_cast<uint64_t>(product >> 64);
}

// How many of `n` rows, chosen from `nrow`, are among certain `among` of them. Row by row of whichever of the
// four groups is the smallest: chosen or not, among them or not, the count of one gives the others.
uint64_t row_choice_t::share(uint64_t nrow, uint64_t among, uint64_t n) {
    if (n > nrow - n) return among - share(nrow, among, nrow - n);
    if (among > nrow - among) return n - share(nrow, nrow - among, n);
    const uint64_t few = std::min(n, among);
    const uint64_t many = std::max(n, among);
    uint64_t met = 0;
    for (uint64_t i = 0; i < few; i++)
        if (below(nrow - i) < many - met) met++;
    return met;
}

// Divides parts with `nrow` rows together, of which `n` are wanted, into runs.
void row_choice_t::plan(runs_t* runs, std::span<const uint64_t> part_nrow, uint64_t nrow, uint64_t n) {
    const bool dense = n >= nrow / DENSE_SHARE;
    if (part_nrow.size() <= 1 || n == 0 || dense) {
        runs->run.push_back({.npart = part_nrow.size(), .nrow = nrow, .n = n, .dense = dense});
        return;
    }
    const auto front = part_nrow.first(part_nrow.size() / 2);
    const uint64_t front_nrow = std::accumulate(front.begin(), front.end(), uint64_t{0});
    const uint64_t front_n = share(nrow, front_nrow, n);
    plan(runs, front, front_nrow, front_n);
    plan(runs, part_nrow.subspan(front.size()), nrow - front_nrow, n - front_n);
}

bool row_choice_t::skip_file() {
    file_.skip_done();
    if (file_.run[file_.at].n > 0) return false;
    file_.run[file_.at].npart--;
    return true;
}

void row_choice_t::open_file(std::span<const uint64_t> group_nrow) {
    file_.skip_done();
    run_t* run = &file_.run[file_.at];
    run->npart--;
    whole_file_ = run->dense || run->n == 0;
    if (whole_file_) return;
    group_ = {};
    plan(&group_, group_nrow, run->nrow, run->n);
}

// `n` different ones of `nrow` rows. Every new number is uniform over those not drawn yet.
void row_choice_t::draw(uint32_t nrow, uint64_t n, std::vector<uint32_t>* ret_rows) {
    while (ret_rows->size() < n) {
        while (ret_rows->size() < n) ret_rows->push_back(static_cast<uint32_t>(below(nrow)));
        std::sort(ret_rows->begin(), ret_rows->end());
        ret_rows->erase(std::unique(ret_rows->begin(), ret_rows->end()), ret_rows->end());
    }
}

void row_choice_t::take(uint32_t nrow, std::vector<uint32_t>* ret_rows) {
    ret_rows->clear();
    run_t* run = &file_.run[file_.at];
    if (!whole_file_) {
        group_.skip_done();
        run = &group_.run[group_.at];
        run->npart--;
    }
    if (run->dense) {
        for (uint32_t i = 0; i < nrow && run->n > 0; i++) {
            const uint64_t to_come = run->nrow - i;
            if (run->n < to_come && below(to_come) >= run->n) continue;
            ret_rows->push_back(i);
            run->n--;
        }
    } else if (run->n > 0) {
        draw(nrow, run->n, ret_rows);
        run->n = 0;
    }
    run->nrow -= nrow;
    left_ -= ret_rows->size();
}
