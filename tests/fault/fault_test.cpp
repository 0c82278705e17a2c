// Every allocation and every system call of the library failing in turn: the code, the out-parameters, what
// is left on disk, and that nothing leaks.
#include <gtest/gtest.h>

#include "colvane/colvane.h"
#include "fault/wrap.h"
#include "support.h"

namespace {

using namespace support;

// More calls than any of the operations makes.
constexpr int MANY = 2000;

const std::string GROUPS = TESTS_DIR "/golden/groups.cvn";
const std::string PACKED = TESTS_DIR "/golden/compressed.cvn";

table_t growing_table() {
    table_t t{{{"n", CVN_TYP_INT32}, {"t", CVN_TYP_CSTR, true}, {"b", CVN_TYP_BYTEA}}, {{}, {}, {}}};
    for (int r = 0; r < 12; r++) {
        t.value[0].push_back(i32(r));
        t.value[1].push_back(
            text(std::string(static_cast<size_t>(r) * 100000, 't')));           // its buffer has to grow
        t.value[2].push_back(text(std::string(r == 6 ? 34u << 20 : 10, 'b')));  // and a row group is cut
    }
    return t;
}

class Fault : public ::testing::Test {
 protected:
    void SetUp() override { live_ = wrap::live(); }
    void TearDown() override { wrap::disarm(); }
    void expect_no_leak(int n) { ASSERT_EQ(live_, wrap::live()) << "after fault " << n; }

    const temp_dir_t dir_;
    const std::string path_ = dir_ / "t.cvn";
    int64_t live_ = 0;
};

// Allocations.

TEST_F(Fault, CreateFailsCleanlyWithoutMemory) {
    int n = 1;
    for (; n < MANY; n++) {
        cvn_t* w = reinterpret_cast<cvn_t*>(1);
        wrap::fail_nth(wrap::ALLOC, n, ENOMEM);
        const int code = cvn_create(&w, path_.c_str());
        if (!wrap::disarm()) {
            ASSERT_EQ(0, code);
            EXPECT_EQ(-6, cvn_close(w));
            break;
        }
        ASSERT_EQ(-2, code) << n;
        ASSERT_EQ(nullptr, w);
        ASSERT_FALSE(fs::exists(path_)) << "the file is removed again";
        expect_no_leak(n);
    }
    EXPECT_EQ(4, n) << "pool, handle and path";
}

TEST_F(Fault, CreateStreamFailsCleanlyAndLeavesTheStreamOpen) {
    FILE* fp = fopen(path_.c_str(), "wb");
    int n = 1;
    for (; n < MANY; n++) {
        cvn_t* w = reinterpret_cast<cvn_t*>(1);
        wrap::fail_nth(wrap::ALLOC, n, ENOMEM);
        const int code = cvn_create_stream(&w, fp);
        if (!wrap::disarm()) {
            ASSERT_EQ(0, code);
            EXPECT_EQ(-6, cvn_close(w));
            break;
        }
        ASSERT_EQ(-2, code);
        ASSERT_EQ(nullptr, w);
        ASSERT_EQ(0, fputs("still open\n", fp) < 0);
        expect_no_leak(n);
    }
    EXPECT_EQ(3, n) << "pool and handle";
}

TEST_F(Fault, CreateColumnEndsTheWriterWithoutMemory) {
    int n = 1;
    for (; n < MANY; n++) {
        cvn_t* w = nullptr;
        ASSERT_EQ(0, cvn_create(&w, path_.c_str()));
        ASSERT_EQ(0, cvn_create_column(w, "a", CVN_TYP_INT32, false, false));
        FILE* fp = w->fp;
        wrap::fail_nth(wrap::ALLOC, n, ENOMEM);
        const int code = cvn_create_column(w, "b", CVN_TYP_CSTR, false, false);
        if (!wrap::disarm()) {
            ASSERT_EQ(0, code);
            ASSERT_EQ(0, cvn_close(w));
            break;
        }
        ASSERT_EQ(-2, code);
        expect_no_leak(n);  // the handle is gone
        ASSERT_EQ(0, fclose(fp));
        ASSERT_EQ("CVN1IX86", read_file(path_)) << "the file stays";
    }
    EXPECT_GT(n, 5) << "three arrays, the buffer's head and the buffer";
    EXPECT_LT(n, MANY);
}

// Appends and closes with the n-th allocation failing. A buffer that cannot grow is no failure: its row group
// is cut.
TEST_F(Fault, AppendAndCloseFailCleanlyWithoutMemory) {
    const table_t t = growing_table();
    int nappend = 0, nclose = 0, nrecovered = 0, n = 1;
    for (; n < MANY; n++) {
        cvn_t* w = nullptr;
        ASSERT_EQ(0, cvn_create(&w, path_.c_str()));
        ASSERT_EQ(0, declare(w, t.column));
        wrap::fail_nth(wrap::ALLOC, n, ENOMEM);
        const int append = append_rows(w, t);
        const bool fired_early = append != 0;
        const int close = cvn_close(w);
        const bool fired = wrap::disarm();
        expect_no_leak(n);
        if (append != 0) {
            nappend++;
            ASSERT_TRUE(fired);
            ASSERT_EQ(-2, append);
            ASSERT_EQ(0, close) << "a writer that is dropped closes well";
            ASSERT_FALSE(fs::exists(path_));
        } else if (close != 0) {
            nclose++;
            ASSERT_TRUE(fired);
            ASSERT_EQ(-2, close);
            ASSERT_TRUE(fs::exists(path_)) << "an incomplete file stays";
            cvn_scan_t* sc = nullptr;
            ASSERT_EQ(-7, cvn_scan_open(&sc, path_.c_str())) << "and every reader refuses it";
        } else {
            ASSERT_TRUE(t.value == reader::decode(read_file(path_)).value);
            if (!fired) break;
            nrecovered++;
        }
        ASSERT_EQ(append != 0, fired_early);
    }
    EXPECT_LT(n, MANY);
    EXPECT_GT(nappend, 3) << "a row group's record, scratch buffers, a buffer for the large value";
    EXPECT_GT(nclose, 1) << "the last row group's record and the footer";
    EXPECT_GT(nrecovered, 0) << "growing a buffer";
}

TEST_F(Fault, ColdefParseFailsCleanlyWithoutMemory) {
    int n = 1;
    for (; n < MANY; n++) {
        cvn_coldef_t* def = reinterpret_cast<cvn_coldef_t*>(1);
        int ndef = 77;
        wrap::fail_nth(wrap::ALLOC, n, ENOMEM);
        const int code = cvn_coldef_parse(
            &def, &ndef, "id int64, name cstr -z, \"a b\" bool -n, x int32, y int32, z date");
        if (!wrap::disarm()) {
            ASSERT_EQ(0, code);
            EXPECT_EQ(6, ndef);
            free(def);
            break;
        }
        ASSERT_EQ(-2, code);
        ASSERT_EQ(nullptr, def);
        ASSERT_EQ(0, ndef);
        expect_no_leak(n);
    }
    EXPECT_GT(n, 2);
    EXPECT_LT(n, MANY);
}

TEST_F(Fault, OpenFailsCleanlyWithoutMemory) {
    for (const std::string& path : {GROUPS, TESTS_DIR "/golden/groups.split"s}) {
        int n = 1;
        for (; n < MANY; n++) {
            cvn_scan_t* sc = reinterpret_cast<cvn_scan_t*>(1);
            wrap::fail_nth(wrap::ALLOC, n, ENOMEM);
            const int code = cvn_scan_open(&sc, path.c_str());
            if (!wrap::disarm()) {
                ASSERT_EQ(0, code);
                cvn_scan_close(sc);
                break;
            }
            ASSERT_EQ(-2, code) << n;
            ASSERT_EQ(reinterpret_cast<cvn_scan_t*>(1), sc);
            expect_no_leak(n);
        }
        EXPECT_GT(n, 7) << "pool, record, path, footer, row groups, three arrays and the second pool";
        EXPECT_LT(n, MANY);
    }
}

TEST_F(Fault, NextFailsCleanlyWithoutMemoryAndTheScanCanGoOn) {
    for (const bool uncompress : {false, true}) {
        int n = 1;
        for (; n < MANY; n++) {
            const scan_t sc(PACKED);
            ASSERT_EQ(0, sc.code);
            for (const char* name : {"plain", "eager", "ramp"}) ASSERT_EQ(0, cvn_scan_add_required(sc, name));
            int npage = 77;
            cvn_page_t** page = reinterpret_cast<cvn_page_t**>(1);
            wrap::fail_nth(wrap::ALLOC, n, ENOMEM);
            const int code = cvn_scan_next(sc, &npage, &page, uncompress);
            if (!wrap::disarm()) {
                ASSERT_EQ(0, code);
                break;
            }
            ASSERT_EQ(-2, code);
            ASSERT_EQ(0, npage);
            ASSERT_EQ(nullptr, page);
            ASSERT_EQ(0, cvn_scan_rowgroup(sc, 0, &npage, &page, uncompress)) << "nothing is broken for good";
            ASSERT_EQ(3, npage);
        }
        EXPECT_GT(n, 1);
        EXPECT_LT(n, MANY);
        expect_no_leak(n);
    }
}

TEST_F(Fault, RowgroupFailsCleanlyWithoutMemory) {
    for (const bool uncompress : {false, true}) {
        const scan_t sc(PACKED);
        ASSERT_EQ(0, cvn_scan_add_required(sc, "eager"));
        int npage = 77;
        cvn_page_t** page = reinterpret_cast<cvn_page_t**>(1);
        wrap::fail_nth(wrap::ALLOC, 1, ENOMEM);
        EXPECT_EQ(-2, cvn_scan_rowgroup(sc, 0, &npage, &page, uncompress));
        EXPECT_TRUE(wrap::disarm());
        EXPECT_EQ(0, npage);
        EXPECT_EQ(nullptr, page);
        EXPECT_EQ(0, cvn_scan_rowgroup(sc, 0, &npage, &page, uncompress));
    }
}

TEST_F(Fault, AddLensFailsCleanlyWithoutMemory) {
    write_table(path_, {{{"i", CVN_TYP_INT32}, {"t", CVN_TYP_CSTR}, {"b", CVN_TYP_BYTEA}}, {{}, {}, {}}});
    live_ = wrap::live();
    for (const char* name : {"i", "t", "b"}) {
        for (const int op : {CVN_OP_GE + 0, CVN_OP_IN + 0}) {
            int n = 1;
            for (; n < MANY; n++) {
                const scan_t sc(path_);
                for (const char* c : {"i", "t", "b"}) ASSERT_EQ(0, cvn_scan_add_required(sc, c));
                cvn_datum_t d{};
                d.a.ptr = "text";
                d.a.len = 4;
                wrap::fail_nth(wrap::ALLOC, n, ENOMEM);
                const int code = cvn_scan_add_lens(sc, name, op, 1, &d);
                if (!wrap::disarm()) {
                    ASSERT_EQ(0, code);
                    ASSERT_EQ(op == CVN_OP_IN ? 2 : 1, sc->nlens);
                    break;
                }
                ASSERT_EQ(-2, code);
                ASSERT_LE(sc->nlens, 1);
                for (int k = 0; k < sc->nlens; k++)
                    EXPECT_EQ(CVN_OP_GE, sc->lens[k].op) << "earlier ones stay";
            }
            EXPECT_GT(n, 1) << name;
            EXPECT_LT(n, MANY);
            expect_no_leak(n);
        }
    }
}

TEST_F(Fault, FilestatFailsCleanlyWithoutMemory) {
    std::string file = read_file(GROUPS);
    patch(file, layout_t(file).group(0) + 8, int32_t{3});  // records that overlap take a table
    write_file(path_, file);
    int n = 1;
    for (; n < MANY; n++) {
        cvn_filestat_t st;
        memset(&st, 0x55, sizeof(st));
        wrap::fail_nth(wrap::ALLOC, n, ENOMEM);
        const int code = cvn_filestat(&st, path_.c_str());
        if (!wrap::disarm()) {
            ASSERT_EQ(0, code);
            break;
        }
        ASSERT_EQ(-2, code);
        ASSERT_EQ(0x55555555, st.ncol);
        expect_no_leak(n);
    }
    EXPECT_GT(n, 7);
    EXPECT_LT(n, MANY);
}

TEST_F(Fault, SplitFailsCleanlyWithoutMemory) {
    const std::string out = dir_ / "out";
    int n = 1;
    for (; n < MANY; n++) {
        fs::remove_all(out);
        wrap::fail_nth(wrap::ALLOC, n, ENOMEM);
        const int code = cvnx_split(out.c_str(), GROUPS.c_str());
        if (!wrap::disarm()) {
            ASSERT_EQ(0, code);
            ASSERT_TRUE(fs::exists(out + "/meta.cvnx"));
            break;
        }
        // The first allocation is the copy of the folder's path, whose failure counts as the system's.
        ASSERT_EQ(n == 1 ? -3 : -2, code) << n;
        ASSERT_FALSE(fs::exists(out + "/meta.cvnx"));
        expect_no_leak(n);
    }
    EXPECT_GT(n, 10);
    EXPECT_LT(n, MANY);
}

TEST_F(Fault, Lz4DecodeReportsMissingMemoryForItsCopy) {
    // A block that the checked decoder refuses: the last literals are missing.
    const char block[] = "\x10x\x01\x00";
    char out[64];
    wrap::fail_nth(wrap::ALLOC, 1, ENOMEM);
    EXPECT_EQ(-2, cvn_lz4_decode(out, 60, block, 4));
    EXPECT_TRUE(wrap::disarm());
    EXPECT_EQ(-6, cvn_lz4_decode(out, 60, block, 4));
    expect_no_leak(1);
}

TEST_F(Fault, PoolsReturnNullAndStayAsTheyWere) {
    wrap::fail_nth(wrap::ALLOC, 1, ENOMEM);
    EXPECT_EQ(nullptr, mpool_create());
    EXPECT_TRUE(wrap::disarm());
    mpool_t* mp = mpool_create();
    void* first = mpool_alloc(mp, 10);
    const mpool_item_t* head = mp->head;
    const auto fails = [&](auto f) {
        wrap::fail_nth(wrap::ALLOC, 1, ENOMEM);
        EXPECT_EQ(nullptr, f());
        EXPECT_TRUE(wrap::disarm());
        EXPECT_EQ(head, mp->head);
    };
    fails([&] { return mpool_alloc(mp, 10); });
    fails([&] { return mpool_calloc(mp, 10); });
    fails([&] { return mpool_realloc(mp, first, 100); });
    fails([&] { return mpool_realloc(mp, nullptr, 100); });
    fails([&]() -> void* { return mpool_strdup(mp, "text"); });
    fails([&]() -> void* { return mpool_strndup(mp, "text", 2); });
    mpool_destroy(mp);
    expect_no_leak(0);
}

// Writing.

// Appends rows of 1 MiB of noise until a row group has been written through any buffer of the stream.
int append_noise(cvn_t* w, int nrow) {
    std::mt19937_64 rng(1);
    const std::string noise = random_bytes(rng, 1 << 20);
    cvn_datum_t d{};
    d.a.ptr = noise.data();
    d.a.len = 1 << 20;
    const bool null = false;
    for (int r = 0; r < nrow; r++)
        if (const int code = cvn_append(w, 1, &d, &null)) return code;
    return 0;
}

TEST_F(Fault, ReportsAFullDiskAtTheLastFlush) {
    // The device is reached through a link, because a writer that fails may remove its path.
    fs::create_symlink("/dev/full", path_);
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, path_.c_str()));
    ASSERT_EQ(0, declare(w, {{"b", CVN_TYP_BYTEA}}));
    errno = 0;
    EXPECT_EQ(-3, cvn_close(w)) << "all bytes were still in the stream's buffer";
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_TRUE(fs::is_symlink(path_)) << "what is there stays";
    expect_no_leak(0);
}

TEST_F(Fault, ReportsAFullDiskWhenTheLastRowGroupIsWritten) {
    fs::create_symlink("/dev/full", path_);
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, path_.c_str()));
    ASSERT_EQ(0, declare(w, {{"b", CVN_TYP_BYTEA}}));
    ASSERT_EQ(0, append_noise(w, 2));
    errno = 0;
    EXPECT_EQ(-3, cvn_close(w));
    EXPECT_EQ(ENOSPC, errno);
    expect_no_leak(0);
}

TEST_F(Fault, ReportsAFullDiskWhenARowGroupIsCut) {
    fs::create_symlink("/dev/full", path_);
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, path_.c_str()));
    ASSERT_EQ(0, declare(w, {{"b", CVN_TYP_BYTEA}}));
    EXPECT_EQ(-3, append_noise(w, 40));
    EXPECT_EQ(ENOSPC, w->os_errno);
    EXPECT_EQ(nullptr, w->fp) << "the stream is closed at once";
    EXPECT_NE(0, w->drop_file);
    cvn_datum_t d{};
    const bool null = true;
    EXPECT_EQ(-6, cvn_append(w, 1, &d, &null));
    EXPECT_EQ(0, cvn_close(w));
    EXPECT_FALSE(fs::is_symlink(path_)) << "and the path is removed";
    EXPECT_TRUE(fs::exists("/dev/full"));
    expect_no_leak(0);
}

TEST_F(Fault, ReportsAFullDiskOnAStream) {
    for (const bool buffered : {false, true}) {
        FILE* fp = fopen("/dev/full", "wb");
        ASSERT_NE(nullptr, fp);
        if (!buffered) setvbuf(fp, nullptr, _IONBF, 0);
        cvn_t* w = nullptr;
        ASSERT_EQ(0, cvn_create_stream(&w, fp));
        ASSERT_EQ(0, declare(w, {{"n", CVN_TYP_INT32}}));
        cvn_datum_t d{};
        const bool null = false;
        ASSERT_EQ(0, cvn_append(w, 1, &d, &null));
        errno = 0;
        EXPECT_EQ(-3, cvn_close(w)) << buffered;
        EXPECT_EQ(ENOSPC, errno);
    }
    expect_no_leak(0);
}

TEST_F(Fault, CreateRemovesTheFileWhenItsHeadCannotBeWritten) {
    wrap::fail_nth(wrap::FWRITE, 1, EIO);
    cvn_t* w = reinterpret_cast<cvn_t*>(1);
    EXPECT_EQ(-3, cvn_create(&w, path_.c_str()));
    EXPECT_TRUE(wrap::disarm());
    EXPECT_EQ(nullptr, w);
    EXPECT_FALSE(fs::exists(path_));
    expect_no_leak(0);
}

TEST_F(Fault, CreateFailsWithoutAStream) {
    wrap::fail_nth(wrap::FOPEN, 1, EMFILE);
    cvn_t* w = reinterpret_cast<cvn_t*>(1);
    EXPECT_EQ(-3, cvn_create(&w, path_.c_str()));
    EXPECT_EQ(EMFILE, errno);
    EXPECT_TRUE(wrap::disarm());
    EXPECT_EQ(nullptr, w);
    EXPECT_FALSE(fs::exists(path_));
    expect_no_leak(0);
}

TEST_F(Fault, EveryFailedWriteIsReported) {
    const table_t t = growing_table();
    int nappend = 0, nclose = 0, n = 1;
    for (; n < MANY; n++) {
        cvn_t* w = nullptr;
        ASSERT_EQ(0, cvn_create(&w, path_.c_str()));
        ASSERT_EQ(0, declare(w, t.column));
        wrap::fail_nth(wrap::FWRITE, n, ENOSPC);
        const int append = append_rows(w, t);
        if (append != 0) {
            ASSERT_EQ(-3, append);
            ASSERT_EQ(ENOSPC, w->os_errno);
            ASSERT_EQ(nullptr, w->fp);
            ASSERT_EQ(0, cvn_close(w));
            ASSERT_TRUE(wrap::disarm());
            ASSERT_FALSE(fs::exists(path_));
            nappend++;
        } else {
            const int code = cvn_close(w);
            const int seen = errno;
            if (!wrap::disarm()) {
                ASSERT_EQ(0, code);
                break;
            }
            ASSERT_EQ(-3, code);
            ASSERT_EQ(ENOSPC, seen);
            cvn_scan_t* sc = nullptr;
            const int refused = cvn_scan_open(&sc, path_.c_str());
            ASSERT_TRUE(refused == -7 || refused == -3) << refused;
            nclose++;
        }
        expect_no_leak(n);
    }
    EXPECT_GT(nappend, 3);
    EXPECT_GT(nclose, 5) << "chunks, padding, footer and trailer";
    EXPECT_LT(n, MANY);
}

// The write that a negative length's columns cause fails; the stream is a caller's, so nothing is removed.
TEST_F(Fault, AFailedWriteIsReportedRatherThanTheNegativeLengthAfterIt) {
    FILE* fp = fopen(path_.c_str(), "wb");
    ASSERT_NE(nullptr, fp);
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create_stream(&w, fp));
    ASSERT_EQ(0, declare(w, {{"a", CVN_TYP_CSTR}, {"b", CVN_TYP_BYTEA}}));
    const std::string big(20 << 20, 'x');
    cvn_datum_t d[2] = {};
    d[0].t = big.c_str();
    const bool null[2] = {};
    ASSERT_EQ(0, cvn_append(w, 2, d, null));
    d[1].a.len = -1;
    wrap::fail_nth(wrap::FWRITE, 1, ENOSPC);
    EXPECT_EQ(-3, cvn_append(w, 2, d, null));
    EXPECT_TRUE(wrap::disarm());
    EXPECT_EQ(ENOSPC, w->os_errno);
    EXPECT_EQ(nullptr, w->fp);
    EXPECT_NE(0, w->drop_file);
    EXPECT_EQ(0, cvn_close(w));
    EXPECT_TRUE(fs::exists(path_));
    expect_no_leak(0);
}

TEST_F(Fault, AFailedLastCloseIsReported) {
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, path_.c_str()));
    ASSERT_EQ(0, declare(w, {{"n", CVN_TYP_INT32}}));
    wrap::fail_nth(wrap::FCLOSE, 1, EIO);
    EXPECT_EQ(-3, cvn_close(w));
    EXPECT_EQ(EIO, errno);
    EXPECT_TRUE(wrap::disarm());
    EXPECT_TRUE(fs::exists(path_));
    expect_no_leak(0);
}

// Memory.

// Writes row groups of 1,048,576 rows of one int32; returns the most memory that it took.
int64_t peak_of_writing(const std::string& path, int ngroup) {
    const int64_t live = wrap::live();
    wrap::reset_peak();
    cvn_t* w = nullptr;
    EXPECT_EQ(0, cvn_create(&w, path.c_str()));
    EXPECT_EQ(0, declare(w, {{"n", CVN_TYP_INT32}}));
    const bool null = false;
    int failed = 0;
    for (int r = 0; r < ngroup * CVN_MAX_ROWGROUP_NROW; r++) {
        cvn_datum_t d{};
        d.i = static_cast<int32_t>(static_cast<uint32_t>(r) * 7919u);
        failed |= cvn_append(w, 1, &d, &null);
    }
    EXPECT_EQ(0, failed);
    EXPECT_EQ(0, cvn_close(w));
    return wrap::peak() - live;
}

TEST_F(Fault, AWriterTakesNoMoreMemoryForMoreRowsButTheirRecords) {
    const int64_t two = peak_of_writing(path_, 2), five = peak_of_writing(path_, 5);
    EXPECT_LE(five - two, 4096) << "three more records of 160 bytes, and the footer";
    // The buffer, which grows by a fifth, while it grows once more; the chunk raw and compressed.
    EXPECT_LE(five, (4 << 20) * 5);
}

TEST_F(Fault, AScanTakesTheFooterAndOneRowGroup) {
    constexpr int64_t HUGE_PAGE = 2097152;
    peak_of_writing(path_, 5);
    const int64_t live = wrap::live();
    for (const bool uncompress : {false, true}) {
        wrap::reset_peak();
        const scan_t sc(path_);
        ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
        int npage;
        cvn_page_t** page;
        int64_t largest = 0, stored = 0;
        while (cvn_scan_next(sc, &npage, &page, uncompress) == 0) {
            largest = std::max<int64_t>(largest, page[0]->nbyte);
            stored = std::max<int64_t>(stored, sc->rowgroup[0]->colmeta[0].zbyte);
        }
        // Large blocks are whole huge pages, and may begin one after the allocation does.
        const int64_t slack = (uncompress ? 4 : 2) * HUGE_PAGE;
        EXPECT_LE(wrap::peak() - live,
                  sc->schema_bufsz + largest + (uncompress ? stored : 0) + slack + 65536);
    }
}

// Reading.

TEST_F(Fault, OpenReportsEveryFailedOrShortRead) {
    for (const wrap::mode_t mode : {wrap::FAIL, wrap::SHORT}) {
        int n = 1;
        for (; n < MANY; n++) {
            cvn_scan_t* sc = reinterpret_cast<cvn_scan_t*>(1);
            wrap::fail_nth(wrap::PREAD, n, EIO, mode);
            const int code = cvn_scan_open(&sc, GROUPS.c_str());
            const int seen = errno;
            if (!wrap::disarm()) {
                ASSERT_EQ(0, code);
                cvn_scan_close(sc);
                break;
            }
            ASSERT_EQ(-3, code);
            ASSERT_EQ(mode == wrap::FAIL ? EIO : 0, seen);
            ASSERT_EQ(reinterpret_cast<cvn_scan_t*>(1), sc);
            expect_no_leak(n);
        }
        EXPECT_EQ(4, n) << "head, trailer and footer";
    }
}

TEST_F(Fault, AnInterruptedReadIsTriedAgain) {
    for (int n = 1; n <= 3; n++) {
        wrap::fail_nth(wrap::PREAD, n, EINTR, wrap::INTERRUPT);
        cvn_filestat_t st;
        EXPECT_EQ(0, cvn_filestat(&st, GROUPS.c_str())) << n;
        EXPECT_TRUE(wrap::disarm());
    }
}

TEST_F(Fault, AFileThatEndsAfterAnInterruptedReadIsShortAndNotInterrupted) {
    const std::string path = dir_ / "short.cvn";
    write_file(path, "CVN1");
    wrap::fail_nth(wrap::PREAD, 1, EINTR, wrap::INTERRUPT);
    cvn_scan_t* sc = nullptr;
    EXPECT_EQ(-3, cvn_scan_open(&sc, path.c_str()));
    EXPECT_EQ(0, errno);
    EXPECT_TRUE(wrap::disarm());
}

TEST_F(Fault, APageThatCannotBeReadIsReported) {
    for (const wrap::mode_t mode : {wrap::FAIL, wrap::SHORT}) {
        for (const bool uncompress : {false, true}) {
            for (int n = 1; n <= 3; n++) {
                const scan_t sc(PACKED);
                for (const char* name : {"plain", "eager", "ramp"})
                    ASSERT_EQ(0, cvn_scan_add_required(sc, name));
                int npage = 77;
                cvn_page_t** page = reinterpret_cast<cvn_page_t**>(1);
                wrap::fail_nth(wrap::PREAD, n, EIO, mode);
                EXPECT_EQ(-3, cvn_scan_next(sc, &npage, &page, uncompress));
                EXPECT_TRUE(wrap::disarm()) << n;
                EXPECT_EQ(0, npage);
                EXPECT_EQ(nullptr, page);
                EXPECT_EQ(0, sc->os_errno) << "pages leave it alone";
                EXPECT_EQ(-4, cvn_scan_next(sc, &npage, &page, uncompress)) << "the row group was passed";
            }
        }
    }
    expect_no_leak(0);
}

TEST_F(Fault, TheFifthRowGroupAheadIsAnnouncedToTheKernel) {
    write_file(path_, ten_groups());
    using hints_t = std::vector<std::pair<int64_t, int64_t>>;
    const scan_t sc(path_);
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    (void)wrap::take_hints();
    for (int64_t g = 0; g < 10; g++) {
        int npage;
        cvn_page_t** page;
        ASSERT_EQ(0, cvn_scan_next(sc, &npage, &page, false));
        const int64_t ahead = g + 5;
        EXPECT_EQ(ahead < 10 ? (hints_t{{8 + 8 * ahead, 5}}) : hints_t{}, wrap::take_hints()) << g;
    }
}

TEST_F(Fault, AFileThatCannotBeOpenedIsReported) {
    wrap::fail_nth(wrap::OPEN, 1, EACCES);
    cvn_scan_t* sc = reinterpret_cast<cvn_scan_t*>(1);
    EXPECT_EQ(-3, cvn_scan_open(&sc, GROUPS.c_str()));
    EXPECT_EQ(EACCES, errno);
    EXPECT_TRUE(wrap::disarm());
    EXPECT_EQ(reinterpret_cast<cvn_scan_t*>(1), sc);
    expect_no_leak(0);
}

// Splitting.

TEST_F(Fault, SplitReportsEveryFileThatCannotBeMadeWrittenOrClosed) {
    struct row_t {
        wrap::kind_t kind;
        int ncall;  // two column files and the metadata
    };
    for (const row_t row : {row_t{wrap::FOPEN, 3}, row_t{wrap::FWRITE, 13}, row_t{wrap::FCLOSE, 3}}) {
        int n = 1;
        for (; n < MANY; n++) {
            const std::string out = dir_ / "out";
            fs::remove_all(out);
            wrap::fail_nth(row.kind, n, ENOSPC);
            const int code = cvnx_split(out.c_str(), GROUPS.c_str());
            const int seen = errno;
            if (!wrap::disarm()) {
                ASSERT_EQ(0, code);
                break;
            }
            ASSERT_EQ(-3, code) << n;
            ASSERT_EQ(ENOSPC, seen);
            ASSERT_FALSE(fs::exists(out + "/meta.cvnx"));
            expect_no_leak(n);
        }
        EXPECT_EQ(row.ncall + 1, n) << row.kind;
    }
}

// No column, so no stream but the metadata's; what is closed when writing it fails is that one alone.
TEST_F(Fault, SplitOfAFileWithoutColumnsReportsEveryFailedWrite) {
    const std::string foot = le32(1) + le32(0) + le64(0) + le64(0) + le32(0) + le32(0) + le64(0);
    write_file(path_, "CVN1IX86" + foot + le64(40) + le32(0x0a0b0c0d) + "CVN1");
    const std::string out = dir_ / "out";
    for (const auto& [kind, ncall] : {std::pair{wrap::FOPEN, 1}, {wrap::FWRITE, 5}, {wrap::FCLOSE, 1}}) {
        for (int n = 1; n <= ncall; n++) {
            wrap::fail_nth(kind, n, EFBIG);
            ASSERT_EQ(-3, cvnx_split(out.c_str(), path_.c_str())) << n;
            ASSERT_EQ(EFBIG, errno);
            ASSERT_TRUE(wrap::disarm());
            ASSERT_FALSE(fs::exists(out + "/meta.cvnx"));
            expect_no_leak(n);
        }
        wrap::fail_nth(kind, ncall + 1, EFBIG);
        ASSERT_EQ(0, cvnx_split(out.c_str(), path_.c_str()));
        ASSERT_FALSE(wrap::disarm()) << "there is one call more";
        EXPECT_EQ(std::vector<std::string>{"meta.cvnx"}, names_in(out));
        EXPECT_EQ(read_file(path_), read_file(out + "/meta.cvnx"));
        fs::remove_all(out);
    }
}

TEST_F(Fault, SplitEndsSilentlyWhenAPageCannotBeRead) {
    for (const wrap::mode_t mode : {wrap::FAIL, wrap::SHORT}) {
        const std::string out = dir_ / "out";
        wrap::fail_nth(wrap::PREAD, 4, EIO, mode);  // the first page, after head, trailer and footer
        EXPECT_EQ(0, cvnx_split(out.c_str(), GROUPS.c_str()));
        EXPECT_TRUE(wrap::disarm());
        EXPECT_EQ((std::vector<std::string>{"0.cvnx", "1.cvnx"}), names_in(out));
        expect_no_leak(0);
    }
}

TEST_F(Fault, SplitReportsAFullDisk) {
    const std::string out = dir_ / "out";
    fs::create_directory(out);
    fs::create_symlink("/dev/full", out + "/1.cvnx");
    errno = 0;
    EXPECT_EQ(-3, cvnx_split(out.c_str(), GROUPS.c_str()));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_FALSE(fs::exists(out + "/meta.cvnx"));
    expect_no_leak(0);
}

}  // namespace
