// Stored-file records against the sandbox database. Only the fax table differs in its columns;
// the engine's sums are those of an owner (level 100), checked by every quota test.
#include "integration.hpp"
#include "zarn_db_files.h"

std::string str(const char *s) {
    return s ? s : "(null)";
}

class DbFiles : public SqlTest {
  protected:
    void SetUp() override {
        ids_ = qxtest::fresh_ids();
        for (const auto &[n, parent, level] :
             {std::tuple{0, -1, 10}, {1, 0, 50}, {2, 1, 100}, {3, 1, 100}})
            qxtest::add_account(ids_ + n, parent < 0 ? 0 : ids_ + parent, level);
        e_ = std::to_string(ext_ = qxtest::add_extension(ids_ + 2, "100", number(100)));
        e2_ = std::to_string(ext2_ = qxtest::add_extension(ids_ + 3, "101", number(101)));
    }
    void TearDown() override {
        qx_release_db_files(&list_);
        qxtest::clear_ids(ids_);
    }

    std::string number(int n) const { return std::to_string(ids_) + std::to_string(n); }
    unsigned long long insert(const std::string &table, const std::string &columns,
                              const std::string &values) {
        qxtest::sql("INSERT INTO " + table + " (" + columns + ") VALUES (" + values + ")");
        return qxtest::sql_int("SELECT MAX(id) FROM " + table + " WHERE extension_id IN (" + e_ +
                               "," + e2_ + ")");
    }
    // The listed records as "id size ext name se az", in the list's order or sorted.
    std::vector<std::string> records(bool sort = false) const {
        std::vector<std::string> out;
        for (size_t i = 0; list_ && i < list_->count; ++i) {
            const qx_db_file &f = list_->files[i];
            out.push_back(std::to_string(f.id) + " " + std::to_string(f.filesize) + " " +
                          str(f.ext) + " " + str(f.filename) + " " + str(f.se) + " " + str(f.az));
        }
        if (sort) std::sort(out.begin(), out.end());
        return out;
    }

    int ids_ = 0, ext_ = 0, ext2_ = 0;
    std::string e_, e2_;
    qx_db_file_list *list_ = nullptr;
};

TEST_F(DbFiles, ListPicksColumnsPerTableAndAppliesFolderAndOrder) {
    // The name column, the inserted ext ("" for the fax table, which has none), the ext listed.
    const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
        {"extension_recording", "filename", ",'gsm'", "gsm"},
        {"extension_fax_center", "file_name", "", "pdf"},
    };
    qx_db_file_list *first = nullptr;  // the caller's list is filled again in place
    for (const auto &[table, name, ext, listed] : cases) {
        SCOPED_TRACE(table);
        const std::string cols =
            "extension_id,filesize," + name + ",folder,se,az" + (ext.empty() ? "" : ",ext");
        const auto a =
            std::to_string(insert(table, cols, e_ + ",111,'one','INBOX',NULL,'az1'" + ext));
        const auto b =
            std::to_string(insert(table, cols, e_ + ",222,NULL,'Old','posix',NULL" + ext));
        const std::string ra = a + " 111 " + listed + " one (null) az1",
                          rb = b + " 222 " + listed + " (null) posix (null)";
        const char *t = table.c_str();
        EXPECT_EQ(qx_list_db_files(t, ext_, nullptr, nullptr, &list_), 2);
        EXPECT_TRUE(!first || list_ == first);
        first = list_;
        std::vector<std::string> both{ra, rb};  // no order asked: compared sorted
        std::sort(both.begin(), both.end());
        EXPECT_EQ(records(true), both);
        EXPECT_EQ(qx_list_db_files(t, ext_, "Old", nullptr, &list_), 1);
        EXPECT_EQ(records(), (std::vector<std::string>{rb}));
        EXPECT_EQ(qx_list_db_files(t, ext_, nullptr, "id DESC", &list_), 2);
        EXPECT_EQ(records(), (std::vector<std::string>{rb, ra}));
        EXPECT_EQ(qx_list_db_files(t, ext_, "INBOX", "filesize DESC", &list_), 1);
        EXPECT_EQ(records(), (std::vector<std::string>{ra}));
        EXPECT_EQ(qx_list_db_files(t, ext_, "Nowhere", nullptr, &list_), 0);
        EXPECT_EQ(list_->files, nullptr);
        qxtest::sql("DELETE FROM " + table + " WHERE extension_id=" + e_);
    }

    qxtest::LogCapture log;  // and emptied when the statement fails
    EXPECT_EQ(qx_list_db_files("no_such_table", ext_, nullptr, nullptr, &list_), -1);
    EXPECT_EQ(std::make_tuple(list_, list_->count, list_->files),
              std::make_tuple(first, size_t{0}, static_cast<qx_db_file *>(nullptr)));
    EXPECT_TRUE(log.contains("../main/zarn_db_files:qx_list_db_files:")) << "no MySQL error line";
    qx_release_db_files(&list_);
    EXPECT_EQ(list_, nullptr);
    qx_release_db_files(&list_);  // an empty pointer is ignored
    qx_release_db_files(nullptr);
}

TEST_F(DbFiles, ParseReturnsRecordsInTheOrderOfTheText) {
    const auto a =
        std::to_string(insert("extension_recording", "extension_id,filesize,filename,se,az",
                              e_ + ",70,'seven','s3','zone'"));
    const auto b = std::to_string(
        insert("extension_recording", "extension_id,filesize,filename", e_ + ",30,'three'"));
    const std::string three = " 30 wav three (null) (null)", seven = " 70 wav seven s3 zone";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {a + ".wav " + b + ".gsm", {a + seven, b + " 30 gsm three (null) (null)"}},
        {b + ".wav " + a + ".wav", {b + three, a + seven}},
        {"", {}},
        {"no dots here", {}},
    };
    for (const auto &[text, expected] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(qx_parse_db_files("extension_recording", text.c_str(), &list_),
                  static_cast<long long>(expected.size()));
        EXPECT_EQ(records(), expected);
    }
    EXPECT_EQ(qx_parse_db_files(nullptr, "1.wav", &list_), -1);
    EXPECT_EQ(qx_parse_db_files("extension_recording", nullptr, &list_), -1);
    EXPECT_EQ(qx_parse_db_files("extension_recording", "1.wav", nullptr), -1);
    EXPECT_EQ(qx_parse_db_files("no_such_table", "1.wav", &list_), -1);
    EXPECT_EQ(list_->count, 0u);
}

TEST_F(DbFiles, CountsDeletesMetaAndCreationTime) {
    for (const char *folder : {"INBOX", "INBOX", "Old"})
        insert("extension_voicemail", "extension_id,folder", e_ + ",'" + folder + "'");
    const std::tuple<const char *, const char *, long long> counts[] = {
        {"extension_voicemail", nullptr, 3}, {"extension_voicemail", "INBOX", 2},
        {"extension_voicemail", "Work", 0},  {"extension_recording", nullptr, 0},
        {"no_such_table", nullptr, -1},
    };
    for (const auto &[table, folder, expected] : counts)
        EXPECT_EQ(qx_count_db_files(table, ext_, folder), expected)
            << table << (folder ? folder : "");

    // Deletes only the named row, and a missing id is no error.
    const auto fax = insert("extension_fax_center", "extension_id", e_);
    insert("extension_fax_center", "extension_id", e_);
    EXPECT_EQ(qx_delete_db_file("extension_fax_center", fax), 0);
    EXPECT_EQ(qx_count_db_files("extension_fax_center", ext_, nullptr), 1);
    EXPECT_EQ(qx_delete_db_file("extension_fax_center", fax), 0);
    EXPECT_EQ(qx_delete_db_file("no_such_table", fax), -1);

    const char *rec = "extension_recording";
    const auto id = insert(rec, "extension_id,created", e_ + ",'2021-03-04 05:06:07'");
    const std::string where = " FROM extension_recording WHERE id=" + std::to_string(id);
    EXPECT_EQ(qx_db_file_set_meta(rec, id, "az", "eu-west"), 0);
    EXPECT_EQ(qxtest::sql_rows("SELECT az" + where)[0][0], "eu-west");
    EXPECT_EQ(qx_db_file_set_meta(rec, id, "no_column", "x"), -1);
    EXPECT_EQ(qx_db_file_set_meta(rec, id, nullptr, "x"), -1);
    EXPECT_EQ(static_cast<long long>(qx_db_file_creation_timestamp(rec, id, "created")),
              qxtest::sql_int("SELECT UNIX_TIMESTAMP(created)" + where));
    EXPECT_EQ(qx_db_file_creation_timestamp(rec, id + 1000000, "created"), 0u);
    EXPECT_EQ(qx_db_file_creation_timestamp(rec, id, "no_column"), 0u);
}

TEST_F(DbFiles, FindsNewestRecordingOfACall) {
    const std::string call = "call-" + std::to_string(ids_);
    for (const char *rid : {"5", "9", "7"})
        insert("extension_recording", "extension_id,rid,callid,flow",
               e_ + "," + rid + ",'" + call + "','in'");
    const std::tuple<std::string, const char *, std::string, int> cases[] = {
        {call, "in", number(100), 9},
        {call, "out", number(100), -1},
        {call, "in", number(101), -1},
        {"other-call", "in", number(100), -1}};
    for (const auto &[callid, flow, num, expected] : cases)
        EXPECT_EQ(qx_get_db_recording(callid.c_str(), flow, num.c_str()), expected)
            << callid << flow << num;
}

TEST_F(DbFiles, SumsStoredFilesPerAccountLevel) {
    for (const std::string &row : {e_ + ",100", e_ + ",20", e2_ + ",30"})
        insert("extension_recording", "extension_id,filesize", row);
    auto id = [this](int n) { return std::to_string(ids_ + n); };
    const std::tuple<const char *, int, std::string, long long> cases[] = {
        {"extension_recording", 50, id(1), 150}, {"extension_recording", 10, id(0), 150},
        {"extension_voicemail", 100, id(2), 0},  // no files: SUM is NULL
        {"extension_recording", 100, id(4), 0},  // no extensions at all
        {"extension_recording", 50, id(2), 0},   // a user has no child accounts
        {"no_such_table", 20, id(2), 0},         // other levels never reach the database
        {"no_such_table", 100, id(2), -1},       {"no_such_table", 0, "", -1},
    };
    for (const auto &[table, level, account, expected] : cases) {
        EXPECT_EQ(qx_get_db_files_quota(table, level, account.c_str()), expected)
            << table << " level " << level << " account " << account;
    }
    // The root's statement names the alias "er" without declaring it, so the server rejects
    // it: the root never has a database sum of its own.
    qxtest::LogCapture log;
    EXPECT_EQ(qx_get_db_files_quota("extension_recording", 0, nullptr), -1);
    EXPECT_TRUE(log.contains("../main/zarn_db_files:qx_get_db_files_quota:"));
}
