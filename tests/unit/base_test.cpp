// Base library: strings, counted strings, config reader, hash table, logger, descriptor I/O.
#include <syslog.h>

#include <sstream>

#include "cxx_util.hpp"
#include "unit.hpp"

// Bytes above 127 are not blanks.
TEST(Trim, StripsIsspaceBytesFromTheRequestedEndsInPlace) {
    const std::tuple<const char *, int, const char *> rows[] = {
        {"\t x \n", FR_TRIM_BOTH, "x"},     {"\t x \n", FR_TRIM_LEFT, "x \n"},
        {"\t x \n", FR_TRIM_RIGHT, "\t x"}, {"\t x \n", 0, "\t x \n"},
        {" \r\v\f", FR_TRIM_BOTH, ""},      {"\xa0x\xa0", FR_TRIM_BOTH, "\xa0x\xa0"}};
    for (const auto &[in, mode, out] : rows) {
        string buf(in);
        EXPECT_EQ(fr_str_trim(buf.data(), mode), buf.data()) << "the text moves, not the pointer";
        EXPECT_STREQ(buf.c_str(), out) << "[" << in << "] mode " << mode;
    }
}

TEST(Explode, KeepsEmptyPiecesAndImplodesBackToTheInput) {
    using V = std::vector<string>;
    const std::tuple<const char *, const char *, V> rows[] = {{"a::b", ":", {"a", "", "b"}},
                                                              {"a:b:", ":", {"a", "b", ""}},
                                                              {"", ":", {""}},
                                                              {"a, b,, c", ", ", {"a", "b,", "c"}},
                                                              {"xxx", "xx", {"", "x"}}};
    for (const auto &[in, sep, pieces] : rows) {
        size_t n = 99;
        char **parts = fr_explode(in, sep, &n);
        ASSERT_NE(parts, nullptr);
        EXPECT_EQ(parts[n], nullptr);
        EXPECT_EQ(V(parts, parts + n), pieces) << in << " at " << sep;
        EXPECT_EQ(take(fr_implode(parts, n, sep)), in);
        fr_explode_free(parts);
    }
    size_t n = 7;
    EXPECT_EQ(fr_explode("a", "", &n), nullptr);
    char *one[] = {const_cast<char *>("a"), nullptr};
    EXPECT_EQ(fr_implode(one, 2, ","), nullptr) << "a missing piece";
}

TEST(Base64, MatchesTheStandardVectors) {
    // Padding of one and two bytes and whole groups of text: the mail-header rows.
    const std::pair<string, string> rows[] = {
        {"", ""}, {string("\0\xff\xfe", 3), "AP/+"}, {"\xfb\xff", "+/8="}, {"\xff", "/w=="}};
    for (const auto &[in, out] : rows)
        EXPECT_EQ(take(base64_enc_str(in.data(), in.size())), out);
}

// Reading lines of any length is exercised by the Asterisk configuration readers.
TEST(SafeStr, KeepsEmbeddedNul) {
    safestr_t *s = safestr_create_len("a\0b", 3);
    EXPECT_EQ(std::memcmp(safestr_cstr(s), "a\0b\0", 4), 0);
    EXPECT_EQ(take(s), string("a\0b", 3));
}

// A row: the file, the value of KEY (nullopt: left untouched), the lines rejected and a fragment
// of the errors logged (% stands for the path).
TEST(ParseConfig, AcceptsEverySpellingAndReportsRejectedLines) {
    const string v4092(4092, 'v');
    const std::tuple<string, Opt, int, const char *> rows[] = {
        {"KEY = value\n", "value", 0, ""},
        {"KEY=value", "value", 0, ""},
        {"  KEY\t value with  inner  blanks \t\r\n", "value with  inner  blanks", 0, ""},
        {"KEY \"  padded  \"\n", "  padded  ", 0, ""},
        {"KEY \"\"\n", "", 0, ""},
        {"KEY a = b\n", "a = b", 0, ""},
        {"KEY first\nKEY second\n", "second", 0, ""},
        {"KEY good\nKEY\nKEY =\nKEY \"open\n", "good", 3,
         "Line [4] of <%> sets KEY with an unterminated quote; ignored.\n"},
        {"KEY good\nKEY =\n", "good", 1, "Line [2] of <%> sets KEY without a value; ignored.\n"},
        {"# KEY commented\n   # KEY commented\n", no, 0, ""},
        {"KEYS longer name\nkey lower case\n=KEY x\n\nOTHER\nOTHER \"x\n", no, 0, ""},
        {"KEY " + v4092 + "\n", v4092, 0, ""},
        {"OTHER 1\nKEY " + v4092 + "v\n", no, 1,
         "Line [2] of <%> sets KEY on a line longer than 4096 bytes; ignored.\n"},
        {"OTHER 1\nKEY " + string(70000, 'v') + "\nKEY x\n", "x", 1, "longer than 4096 bytes"},
    };
    TempDir tmp;
    for (const auto &[file, value, rejected, fragment] : rows) {
        char *key = qx::c_copy("untouched");
        const fr_conf_entry table[] = {{"KEY", FR_CONF_STRING, &key}};
        const string path = tmp.write("c.conf", file);
        qxtest::LogCapture log;
        fr_log_set_threshold(LOG_ERR);
        EXPECT_EQ(parseconfig(path.c_str(), table, 1), rejected) << file.substr(0, 40);
        EXPECT_EQ(take(key), value.value_or("untouched")) << "file:\n" << file;
        string error = fragment;
        if (const size_t at = error.find('%'); at != string::npos) error.replace(at, 1, path);
        EXPECT_EQ(log.count(error), *fragment ? 1u : log.lines().size()) << file.substr(0, 40);
    }
}

TEST(ParseConfig, FillsNumbersAndCountedStringsOnlyWhenValid) {
    TempDir tmp;
    string path = tmp.write(
        "c.conf", "NUM 42\nNEG = -7\nBAD 12abc\nHUGE 99999999999\nQNUM \"5\"\nSS \"a b\"\n");
    int num = 0, neg = 0, bad = 1, huge = 2, qnum = 0, absent = 3;
    safestr_t *ss = safestr_create("old");
    const fr_conf_entry table[] = {{"NUM", FR_CONF_INT, &num},   {"NEG", FR_CONF_INT, &neg},
                                   {"BAD", FR_CONF_INT, &bad},   {"HUGE", FR_CONF_INT, &huge},
                                   {"QNUM", FR_CONF_INT, &qnum}, {"ABSENT", FR_CONF_INT, &absent},
                                   {"SS", FR_CONF_SAFESTR, &ss}};
    EXPECT_EQ(parseconfig(path.c_str(), table, std::size(table)), 2);  // BAD and HUGE
    EXPECT_EQ(std::vector<int>({num, neg, bad, huge, qnum, absent}),
              std::vector<int>({42, -7, 1, 2, 5, 3}));
    EXPECT_EQ(take(ss), "a b");
    EXPECT_EQ(parseconfig((tmp / "nope.conf").c_str(), table, std::size(table)), -1);
}

// Keys that differ only after an embedded NUL, and a 4-byte id the way spoolcap keys its table
// (whose insertion order its end-to-end listing checks). Each value's destructor counts in
// destroyed[value].
TEST(Hash, StoresCopiesUnderBinaryKeysAndDestroysEachOnce) {
    static int destroyed[4] = {};
    fr_hash_t *h = fr_hash_init_api(FR_HASH_KEY_BINARY,
                                    [](void *v) { return ++destroyed[*static_cast<int *>(v)], 0; });
    EXPECT_EQ(fr_hash_empty(h), 1);
    const string keys[] = {string("a\0b", 3), string("a\0c", 3), "a", string("\x07\0\0\0", 4)};
    for (int i = 0; i < 4; ++i) {
        int value = i == 3 ? 0 : i;  // the 0 is replaced below, and destroyed once then
        ASSERT_EQ(fr_hash_force_add(h, keys[i].data(), keys[i].size(), &value, sizeof value), 0);
    }
    int three = 3;
    ASSERT_EQ(fr_hash_force_add(h, keys[3].data(), 4, &three, sizeof three), 0);
    EXPECT_EQ(std::pair(fr_hash_count(h), fr_hash_find(h, "b", 1)),
              std::pair(size_t(4), (void *)nullptr));
    fr_array_t *list = fr_hash_getkeys(h);
    ASSERT_EQ(fr_array_length(list), 4u);
    for (int i = 0; i < 4; ++i) {
        auto *v = static_cast<int *>(fr_hash_find(h, keys[i].data(), keys[i].size()));
        EXPECT_EQ(v ? *v : -1, i);
        size_t len = 0;
        auto *k = static_cast<const char *>(fr_array_get(list, i, &len));
        EXPECT_EQ(string(k, len), keys[i]) << "keys come back in insertion order";
    }
    fr_array_free(list);
    fr_hash_destroy(h);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(std::vector<int>(destroyed, destroyed + 4), std::vector<int>({1, 1, 1, 1}));
}

TEST(Hash, LockIsRecursiveAndKeepsOtherThreadsOut) {
    fr_hash_t *h = fr_hash_init_api(FR_HASH_KEY_BINARY, nullptr);
    int v = 1;
    fr_hash_lock(h);
    ASSERT_EQ(fr_hash_force_add(h, "k1", 2, &v, sizeof v), 0);  // must not deadlock
    std::atomic<bool> added{false};
    std::thread other([&] { added = fr_hash_force_add(h, "k2", 2, &v, sizeof v) == 0; });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(added) << "another thread got in while the table was locked";
    fr_hash_unlock(h);
    other.join();
    EXPECT_EQ(fr_hash_count(h), 2u);
    fr_hash_destroy(h);
}

// Lines counted without atomics: only the logger's lock keeps the count whole.
TEST(Logger, SinkReceivesOneLineAtATime) {
    std::pair<std::atomic<int>, int> inside_and_lines{0, 0};
    fr_log_set_threshold(LOG_DEBUG);
    fr_log_set_sink(
        [](const char *, int, const char *, int, int, const char *, void *ctx) {
            auto *o = static_cast<std::pair<std::atomic<int>, int> *>(ctx);
            EXPECT_EQ(++o->first, 1) << "two lines at once";
            std::this_thread::yield();  // widens the window another thread would use
            ++o->second;
            --o->first;
        },
        &inside_and_lines);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 2000; ++i)
                FR_LOG("src", 3, LOG_DEBUG, "line %d", i);
        });
    for (auto &t : threads)
        t.join();
    fr_log_set_sink(nullptr, nullptr);
    EXPECT_EQ(inside_and_lines.second, 8000);
}

// The node's local.conf with its LOG_ lines replaced, its other settings kept.
string with_log_lines(const string &log_lines) {
    string kept;
    std::istringstream in(read(QX_LOCAL_CONF).value_or(""));
    for (string l; std::getline(in, l);)
        if (l.rfind("LOG_", 0) != 0) kept += l + "\n";
    return kept + log_lines;
}

// Each row runs in a fresh process, which loads the node's setting once: the LOG_LEVEL line, a
// threshold set before the first line (-1: none), the threshold that holds, the line reporting a
// bad setting (held until the file is open). Default level and file: every end-to-end run.
TEST(LoggerStartup, LoadsTheLevelOnceAndAppendsLinesToTheLogFile) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::tuple<const char *, int, int, const char *> rows[] = {
        {"LOG_LEVEL warning", -1, LOG_WARNING, ""},
        {"LOG_LEVEL = error", -1, LOG_ERR, ""},
        {"LOG_LEVEL 7", -1, LOG_DEBUG, ""},
        {"LOG_LEVEL loud", -1, LOG_NOTICE, "Unknown LOG_LEVEL [loud] in <" QX_LOCAL_CONF ">"},
        {"LOG_LEVEL 8", -1, LOG_NOTICE, "LOG_LEVEL [8]"},
        {"LOG_LEVEL err", LOG_INFO, LOG_INFO, ""}};
    for (const auto &[level_line, pinned, threshold, error] : rows) {
        SCOPED_TRACE(level_line);
        const fs::path log = fs::temp_directory_path() / "qx_base_test.log";
        std::ofstream(log, std::ios::binary) << "old\n";
        {
            qxtest::ConfFile local(
                QX_LOCAL_CONF,
                with_log_lines(string(level_line) + "\nLOG_FILE " + log.string() + "\n"));
            EXPECT_EXIT(
                {
                    if (pinned >= 0) fr_log_set_threshold(pinned);
                    int evaluated = 0;
                    FR_LOG("src", 3, LOG_DEBUG, "first %d", ++evaluated);
                    FR_LOG("src", 3, LOG_WARNING, "warning %d", 4);
                    FR_LOG("src", 3, LOG_ERR, "error\n");
                    FR_LOG("src", 3, LOG_DEBUG, "again %d", ++evaluated);
                    fr_log_impl("src", 1, "f", 3, LOG_DEBUG, "direct\n");  // held to it too
                    std::_Exit(fr_log_threshold * 10 + evaluated);
                },
                ::testing::ExitedWithCode(threshold * 10 + (pinned < 0) + (threshold == 7)), "");
        }
        string want = "old\n";
        // The first line is formatted before the setting is known, but still held to it.
        if (threshold == LOG_DEBUG) want += "first 1\n";
        if (threshold >= LOG_WARNING) want += "warning 4\n";
        if (threshold >= LOG_ERR) want += "error\n";
        if (threshold == LOG_DEBUG) want += "again 2\ndirect\n";
        string got = read(log).value_or("");
        // EXPECT, not ASSERT: the process of a later row runs this for the earlier rows too.
        const size_t at = got.find(error);
        EXPECT_NE(at, string::npos) << got;
        if (*error && at != string::npos)
            got.erase(got.rfind('\n', at) + 1, got.find('\n', at) - got.rfind('\n', at));
        EXPECT_EQ(got, want);
        fs::remove(log);
    }
}

// The outcome, not the clock: data that comes within the timeout is read, later data is not.
// A row: when the writer writes (-1: it closes at once), the timeout, the result.
TEST(NbRead, WaitsForDataUntilItsTimeoutAndNoLonger) {
    for (auto [write_after_ms, timeout, result] : {std::tuple{300, 5.0f, 3},
                                                   {-1, 5.0f, 0},
                                                   {500, 0.05f, -1},
                                                   {500, 0.0f, -1},
                                                   {500, -1.0f, -1}}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        qx::UniqueFd rd(ends[0]), wr(ends[1]);
        if (write_after_ms < 0) wr.reset();
        std::thread writer([&, ms = write_after_ms] {
            std::this_thread::sleep_for(std::chrono::milliseconds(ms));
            EXPECT_EQ(ms < 0 ? 3 : write(wr.get(), "abc", 3), 3);
        });
        char buf[16];
        errno = 0;
        EXPECT_EQ(fr_read_nb(rd.get(), buf, sizeof buf, timeout), result)
            << "after " << write_after_ms << " ms, timeout " << timeout;
        EXPECT_EQ(errno, result < 0 ? ETIMEDOUT : 0);
        writer.join();
    }
}

// Connecting to a listening console is covered by the console tests.
TEST(NbWrite, GivesUpOnAPeerThatStopsReading) {
    int sp[2], pp[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sp), 0);
    ASSERT_EQ(pipe(pp), 0);
    const string big(4 << 20, 'x');
    for (auto [wr, rd] : {std::pair{sp[0], sp[1]}, {pp[1], pp[0]}}) {
        qx::UniqueFd w(wr), r(rd);
        ASSERT_EQ(fr_write_nb_full(wr, "cmd", 4, 1.0f), 4);
        char buf[8] = {};
        EXPECT_EQ(fr_read_nb(rd, buf, sizeof buf, 1.0f), 4);
        EXPECT_STREQ(buf, "cmd");
        // Both descriptors block: a write beyond the buffer must still end at the deadline.
        EXPECT_EQ(fr_write_nb_full(wr, big.data(), big.size(), 0.2f), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
    }
    TempDir tmp;
    for (auto [where, err] :
         {std::pair{tmp / "absent.sock", ENOENT}, {string(200, 'p'), ENAMETOOLONG}}) {
        EXPECT_EQ(fr_connect_nb_unix(where.c_str(), 0.5f), -1);
        EXPECT_EQ(errno, err);
    }
}
