// Samples data files: rows chosen uniformly over all files together, written as one data file.
#ifndef KELPD_SAMPLER_SAMPLE_H
#define KELPD_SAMPLER_SAMPLE_H

#include <stdint.h>

#include <stdexcept>
#include <string>
#include <vector>

// What went wrong, in one line: which file, and what about it.
struct sample_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What the files of strangers can make a sample take: all in all, and what of that a row group of theirs takes
// when all its columns are decompressed. Row groups as the writer cuts them stay below that.
constexpr int64_t SAMPLE_MEMORY_MAX = int64_t{256} << 20;
constexpr int64_t SAMPLE_ROWGROUP_MAX = int64_t{176} << 20;
constexpr int SAMPLE_COLUMN_MAX = 10000;
constexpr char SAMPLE_NOMEM[] = "out of memory: a sample is made within 256 MiB";

// Writes a data file with min(nrow, all rows) rows of `files` to the descriptor `out`, in the order in which
// they lie in the files. Columns, their types and flags are those of the first file; the others must have the
// same names and types in the same order.
//
// Only the footers and the pages of row groups that hold a chosen row are read, each page once, and those
// pages are checked against their hashes. In memory are one footer, one row group, one stored page and a row
// group of the sample, whatever the files claim: a row group that takes more than SAMPLE_ROWGROUP_MAX bytes is
// refused, and so is one whose pages cannot hold its rows, whether it is needed or not. What is neither a
// regular file nor a split directory is refused. The file is made as an unnamed one in `tmpdir` and copied to
// `out` when it is complete.
//
// seed    the same seed, count and files give the same bytes.
// memory  what the process may take, in bytes: from then on allocations beyond that fail (the whole process's,
//         for good). 0: no limit.
//
// Returns the number of rows written. Throws sample_error; nothing was written to `out` then, unless writing
// to `out` itself failed, and even then a regular file is cut back to its former length.
uint64_t sample_files(int out, uint64_t nrow, uint64_t seed, const std::vector<std::string>& files,
                      const std::string& tmpdir, int64_t memory);

#endif
