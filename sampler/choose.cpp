// Two ways to the same distribution. Few of many rows: draw numbers until enough different ones are there,
// which is uniform because every new number is uniform over those not drawn yet. Otherwise: decide row by
// row, each with the share of what is still wanted in what is still to come, which is uniform too and needs
// no memory, but one random number a row.
#include "sampler/choose.h"

#include <algorithm>

namespace {
// From one row in this many on, deciding row by row is cheaper than drawing and sorting.
constexpr uint64_t DENSE_SHARE = 16;
}  // namespace

row_choice_t::row_choice_t(uint64_t seed, uint64_t n, uint64_t total)
    : rng_(seed), nleft_(std::min(n, total)), total_left_(total) {
    if (nleft_ > 0 && nleft_ < total / DENSE_SHARE) draw();
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

void row_choice_t::draw() {
    row_.reserve(nleft_);
    while (row_.size() < nleft_) {
        while (row_.size() < nleft_) row_.push_back(below(total_left_));
        std::sort(row_.begin(), row_.end());
        row_.erase(std::unique(row_.begin(), row_.end()), row_.end());
    }
    drawn_ = true;
}

void row_choice_t::take(uint32_t nrow, std::vector<uint32_t>* ret_rows) {
    ret_rows->clear();
    if (drawn_) {
        for (; row_next_ < row_.size() && row_[row_next_] - next_ < nrow; row_next_++)
            ret_rows->push_back(static_cast<uint32_t>(row_[row_next_] - next_));
        nleft_ = row_.size() - row_next_;
    } else {
        for (uint32_t i = 0; i < nrow && nleft_ > 0; i++) {
            if (nleft_ < total_left_ - i && below(total_left_ - i) >= nleft_) continue;
            ret_rows->push_back(i);
            nleft_--;
        }
    }
    next_ += nrow;
    total_left_ -= nrow;
}
