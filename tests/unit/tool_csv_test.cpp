// The CSV reader: its rules, and that no place where a block may end changes what comes out.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "tools/csv.h"
#include "tools/tool.h"

namespace {

using row_t = std::vector<std::string>;

struct read_t {
    std::vector<row_t> rows;
    std::vector<int64_t> line;
    std::vector<std::vector<bool>> quoted;
    std::string error;
};

read_t read_all(const std::string& text, char delim = ',', size_t blocksz = CSV_BLOCKSZ) {
    char path[] = "/tmp/tool_csv_XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ssize_t(text.size()), write(fd, text.data(), text.size()));
    EXPECT_EQ(0, lseek(fd, 0, SEEK_SET));
    unlink(path);
    read_t out;
    csv_t csv;
    csv_open(&csv, fd, "in", delim, blocksz);
    try {
        while (csv_next(&csv)) {
            row_t row;
            std::vector<bool> quoted;
            for (size_t i = 0; i < csv.nfield; ++i) {
                EXPECT_EQ(0, csv.field[i].ptr[csv.field[i].len]);
                row.emplace_back(csv.field[i].ptr, csv.field[i].len);
                quoted.push_back(csv.field[i].quoted);
            }
            out.rows.push_back(row);
            out.line.push_back(csv.line);
            out.quoted.push_back(quoted);
        }
    } catch (const tool_error& error) {
        out.error = error.what();
    }
    close(fd);
    return out;
}

}  // namespace

TEST(Csv, CutsFieldsAtDelimitersAndRowsAtLineEnds) {
    const read_t r = read_all("a,b\r\nc,d\ne,f");
    EXPECT_EQ((std::vector<row_t>{{"a", "b"}, {"c", "d"}, {"e", "f"}}), r.rows);
    EXPECT_EQ((std::vector<int64_t>{1, 2, 3}), r.line);
    EXPECT_EQ("", r.error);
}

TEST(Csv, KeepsDelimitersLineEndsAndDoubledQuotesInsideQuotes) {
    const read_t r = read_all("\"a,b\",\"c\r\nd\",\"e\"\"f\"\"\"\nx,\"\",\n");
    EXPECT_EQ((std::vector<row_t>{{"a,b", "c\r\nd", "e\"f\""}, {"x", "", ""}}), r.rows);
    EXPECT_EQ((std::vector<int64_t>{1, 3}), r.line);
    EXPECT_TRUE(r.quoted[1][1]);
    EXPECT_FALSE(r.quoted[1][2]);
}

TEST(Csv, TakesAQuoteInsideABareFieldAsItIs) {
    EXPECT_EQ((std::vector<row_t>{{"5\" pipe", "a\"b\""}}), read_all("5\" pipe,a\"b\"\n").rows);
}

TEST(Csv, SkipsAByteOrderMarkAtTheBeginningOnly) {
    EXPECT_EQ((std::vector<row_t>{{"a"}, {"\xEF\xBB\xBF"}}), read_all("\xEF\xBB\xBF"
                                                                      "a\n\xEF\xBB\xBF\n")
                                                                 .rows);
}

TEST(Csv, GivesAnEmptyLineAsOneEmptyField) {
    EXPECT_EQ((std::vector<row_t>{{"a"}, {""}, {"b"}}), read_all("a\n\nb\n").rows);
    EXPECT_TRUE(read_all("").rows.empty());
    EXPECT_TRUE(read_all("\xEF\xBB\xBF").rows.empty());
}

TEST(Csv, RefusesAQuoteThatIsNeverClosedWithTheLineOfItsRow) {
    const read_t r = read_all("a,b\nc,\"d\ne\nf\n");
    EXPECT_EQ(1u, r.rows.size());
    EXPECT_EQ("in:2: field 2 begins with a quote that is never closed", r.error);
}

TEST(Csv, RefusesTextAfterAClosingQuote) {
    const read_t r = read_all("\"a\nb\"x,c\n");
    EXPECT_TRUE(r.rows.empty());
    EXPECT_EQ(0u, r.error.find("in:2: field 1 goes on after its closing quote")) << r.error;
}

TEST(Csv, GivesTheSameRowsWhereverABlockEnds) {
    const std::string text =
        "\xEF\xBB\xBFid,name,\"a \"\"q\"\"\"\r\n1,\"x,\ny\",\r\n2,\"\",\"\"\"\"\n3,a\"b,\"long field with , "
        "and \r\n in it\"\n"
        "\n,,\r\n\"\r\n\",end,\"z\"";
    const read_t whole = read_all(text);
    ASSERT_EQ("", whole.error);
    ASSERT_EQ(7u, whole.rows.size());
    for (size_t blocksz = 1; blocksz < text.size() + 3; ++blocksz) {
        const read_t r = read_all(text, ',', blocksz);
        EXPECT_EQ("", r.error) << blocksz;
        EXPECT_EQ(whole.rows, r.rows) << blocksz;
        EXPECT_EQ(whole.line, r.line) << blocksz;
        EXPECT_EQ(whole.quoted, r.quoted) << blocksz;
    }
}

TEST(Csv, GivesBackRandomFieldsThatWereQuotedByTheRules) {
    std::mt19937 rng(7);
    const std::string alphabet = "ab,\"\r\n;x ";
    for (int round = 0; round < 300; ++round) {
        std::vector<row_t> rows;
        std::string text;
        for (int r = 0, n = int(rng() % 8) + 1; r < n; ++r) {
            row_t row;
            for (int f = 0; f < 3; ++f) {
                std::string field, quoted;
                for (unsigned i = rng() % 12; i > 0; --i) field += alphabet[rng() % alphabet.size()];
                for (const char ch : field) quoted += ch == '"' ? std::string("\"\"") : std::string(1, ch);
                text += std::string(f ? ";" : "") + '"' + quoted + '"';
                row.push_back(field);
            }
            rows.push_back(row);
            text += rng() % 2 ? "\n" : "\r\n";
        }
        const read_t r = read_all(text, ';', rng() % 40 + 1);
        EXPECT_EQ("", r.error);
        EXPECT_EQ(rows, r.rows) << text;
    }
}

TEST(Csv, ReadsARowThatIsLargerThanManyBlocks) {
    const std::string big(300000, 'x');
    const read_t r = read_all("a,\"" + big + "\"\nb,c\n", ',', 64);
    EXPECT_EQ((std::vector<row_t>{{"a", big}, {"b", "c"}}), r.rows);
}

TEST(Csv, RefusesARowOfMoreFieldsThanItsLimit) {
    std::string text = "a\n" + std::string(CSV_MAX_NFIELD - 1, ',') + "\n";
    read_t r = read_all(text);
    EXPECT_EQ("", r.error);
    ASSERT_EQ(2u, r.rows.size());
    EXPECT_EQ(CSV_MAX_NFIELD, r.rows[1].size());
    text.insert(2, ",");
    r = read_all(text);
    EXPECT_EQ(1u, r.rows.size());
    EXPECT_EQ("in:2: the row has more than 1,000,000 fields; is another --delimiter needed?", r.error);
}

TEST(Csv, RefusesARowLongerThanItsLimit) {
    char path[] = "/tmp/tool_csv_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    unlink(path);
    // A quote that is never closed, in front of a hole in the file.
    ASSERT_EQ(3, write(fd, "a\n\"", 3));
    ASSERT_EQ(0, ftruncate(fd, off_t(CSV_MAX_ROWSZ) + 100));
    ASSERT_EQ(0, lseek(fd, 0, SEEK_SET));
    csv_t csv;
    csv_open(&csv, fd, "in", ',');
    ASSERT_TRUE(csv_next(&csv));
    try {
        (void)csv_next(&csv);
        ADD_FAILURE() << "a row above the limit was read";
    } catch (const tool_error& error) {
        EXPECT_EQ(
            "in:2: the row is longer than 256 MiB; is a quote not closed, or does a line end in CR alone?",
            std::string(error.what()));
    }
    EXPECT_LE(csv.bufsz, CSV_MAX_ROWSZ);
    close(fd);
}

TEST(CsvIndex, FindsWhatTheByteByByteFormFinds) {
    std::mt19937 rng(11);
    for (int round = 0; round < 2000; ++round) {
        const size_t n = rng() % 300;
        std::string buf(n + CSV_PADSZ, 'x');
        for (size_t i = 0; i < n; ++i) buf[i] = "abcdefgh,\n\"\r;"[rng() % 13];
        const size_t from = n ? rng() % n : 0;
        std::vector<uint32_t> fast(n + 64), plain(n + 64);
        bool fast_nul = false, plain_nul = false;
        fast.resize(csv_index(buf.data(), from, n, ',', fast.data(), &fast_nul));
        plain.resize(csv_index_plain(buf.data(), from, n, ',', plain.data(), &plain_nul));
        EXPECT_EQ(plain, fast);
        EXPECT_FALSE(fast_nul);
    }
}

TEST(CsvIndex, NeverMissesANulByte) {
    for (size_t at = 0; at < 200; ++at) {
        std::string buf(200 + CSV_PADSZ, 'x');
        buf[at] = 0;
        std::vector<uint32_t> out(300);
        bool has_nul = false;
        EXPECT_EQ(0u, csv_index(buf.data(), 0, 200, ',', out.data(), &has_nul));
        EXPECT_TRUE(has_nul) << at;
    }
}
