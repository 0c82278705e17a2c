// Which rows a sample takes: a uniform choice without replacement, made before any row is read.
//
// Every set of `n` of all the rows is equally likely. The rows come out in ascending order, file by file and row
// group by row group, and are made then: what is kept is a few numbers per file, and per row group of the file
// under way.
#ifndef KELPD_SAMPLER_CHOOSE_H
#define KELPD_SAMPLER_CHOOSE_H

#include <stddef.h>
#include <stdint.h>

#include <random>
#include <span>
#include <vector>

class row_choice_t {
 public:
    // Chooses min(n, all) of the rows of files that have `file_nrow` rows each. The same seed, n, files and row
    // groups give the same rows on every machine.
    row_choice_t(uint64_t seed, uint64_t n, std::span<const uint64_t> file_nrow);

    // Moves past the next file if no row of it is chosen: false when there is one.
    [[nodiscard]] bool skip_file();

    // Moves to the next file, whose row groups have `group_nrow` rows each, all of the file's together. All row
    // groups of the file before have been taken.
    void open_file(std::span<const uint64_t> group_nrow);

    // Stores the rows chosen of the open file's next row group, which has `nrow` rows, counted from its first.
    void take(uint32_t nrow, std::vector<uint32_t>* ret_rows);

    // Rows that are chosen and were not handed out yet.
    [[nodiscard]] uint64_t left() const { return left_; }

 private:
    // Parts that follow each other, files or row groups, of which `n` rows are still to be chosen among the `nrow`
    // that are still to come. Where that is a large share, or there is only one part, it is left at that.
    struct run_t {
        size_t npart;
        uint64_t nrow;
        uint64_t n;
        bool dense;
    };
    // The runs of all parts, and which is under way.
    struct runs_t {
        std::vector<run_t> run;
        size_t at = 0;
        void skip_done() {
            while (at < run.size() && run[at].npart == 0) at++;
        }
    };

    uint64_t below(uint64_t bound);
    uint64_t share(uint64_t nrow, uint64_t among, uint64_t n);
    void plan(runs_t* runs, std::span<const uint64_t> part_nrow, uint64_t nrow, uint64_t n);
    void draw(uint32_t nrow, uint64_t n, std::vector<uint32_t>* ret_rows);

    std::mt19937_64 rng_;
    uint64_t left_;
    runs_t file_;
    runs_t group_;            // of the open file
    bool whole_file_ = true;  // the open file is not divided: its rows are those of its run of files
};

#endif
