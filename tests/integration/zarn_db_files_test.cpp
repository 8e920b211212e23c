// Stored-file records against the sandbox database.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qxtest.hpp"
#include "sqlsession.h"
#include "zarn_db_files.h"

namespace {

auto *const sandbox_env = qxtest::register_sandbox();

class DbFiles : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qx_sql_pool_init(); }

    void SetUp() override {
        ids_ = qxtest::fresh_ids();
        qxtest::add_account(ids_, 0, 10);
        qxtest::add_account(ids_ + 1, ids_, 50);
        qxtest::add_account(ids_ + 2, ids_ + 1, 100);
        qxtest::add_account(ids_ + 3, ids_ + 1, 100);
        ext_ = qxtest::add_extension(ids_ + 2, "100", std::to_string(ids_) + "100");
        ext2_ = qxtest::add_extension(ids_ + 3, "101", std::to_string(ids_) + "101");
        ASSERT_GT(ext_, 0);
        ASSERT_GT(ext2_, 0);
    }
    void TearDown() override {
        qx_release_db_files(&list_);
        qxtest::clear_ids(ids_);
    }

    // Inserts one row and returns its id.
    unsigned long long insert(const std::string &table, const std::string &columns,
                              const std::string &values) {
        qxtest::sql("INSERT INTO " + table + " (" + columns + ") VALUES (" + values + ")");
        return static_cast<unsigned long long>(
            qxtest::sql_int("SELECT MAX(id) FROM " + table + " WHERE extension_id IN (" +
                            std::to_string(ext_) + "," + std::to_string(ext2_) + ")"));
    }

    int ids_ = 0;
    int ext_ = 0;
    int ext2_ = 0;
    qx_db_file_list *list_ = nullptr;
};

std::string str(const char *s) {
    return s ? s : "(null)";
}

TEST_F(DbFiles, ListPicksColumnsPerTableAndAppliesFolderAndOrder) {
    struct Case {
        const char *table;
        const char *name_column;
        const char *ext_column_value;  // what is inserted ("" for the fax table, which has none)
        const char *expected_ext;
    };
    const Case cases[] = {
        {"extension_recording", "filename", "gsm", "gsm"},
        {"extension_voicemail", "filename", "wav", "wav"},
        {"extension_fax_center", "file_name", "", "pdf"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.table);
        const std::string table = c.table;
        const std::string ext_col = *c.ext_column_value ? ",ext" : "";
        const std::string ext_val =
            *c.ext_column_value ? std::string(",'") + c.ext_column_value + "'" : "";
        const std::string cols =
            std::string("extension_id,filesize,") + c.name_column + ",folder,se,az" + ext_col;
        const std::string e = std::to_string(ext_);
        unsigned long long first =
            insert(table, cols, e + ",111,'one','INBOX',NULL,'az1'" + ext_val);
        unsigned long long second =
            insert(table, cols, e + ",222,NULL,'Old','posix',NULL" + ext_val);

        ASSERT_EQ(qx_list_db_files(c.table, ext_, nullptr, nullptr, &list_), 2);
        ASSERT_EQ(list_->count, 2u);
        const qx_db_file *f = list_->files;
        const qx_db_file &a = f[0].id == first ? f[0] : f[1];
        const qx_db_file &b = f[0].id == first ? f[1] : f[0];
        EXPECT_EQ(a.id, first);
        EXPECT_EQ(b.id, second);
        EXPECT_EQ(a.filesize, 111);
        EXPECT_EQ(str(a.ext), c.expected_ext);
        EXPECT_EQ(str(a.filename), "one");
        EXPECT_EQ(a.se, nullptr);
        EXPECT_EQ(str(a.az), "az1");
        EXPECT_EQ(b.filesize, 222);
        EXPECT_EQ(b.filename, nullptr);
        EXPECT_EQ(str(b.se), "posix");
        EXPECT_EQ(b.az, nullptr);

        ASSERT_EQ(qx_list_db_files(c.table, ext_, "Old", nullptr, &list_), 1);
        EXPECT_EQ(list_->files[0].id, second);

        ASSERT_EQ(qx_list_db_files(c.table, ext_, nullptr, "id DESC", &list_), 2);
        EXPECT_EQ(list_->files[0].id, second);
        EXPECT_EQ(list_->files[1].id, first);

        ASSERT_EQ(qx_list_db_files(c.table, ext_, "INBOX", "filesize DESC", &list_), 1);
        EXPECT_EQ(list_->files[0].id, first);

        EXPECT_EQ(qx_list_db_files(c.table, ext_, "Nowhere", nullptr, &list_), 0);
        EXPECT_EQ(list_->files, nullptr);

        qxtest::sql("DELETE FROM " + table + " WHERE extension_id=" + e);
    }
}

TEST_F(DbFiles, ListReusesTheCallersListAndResetsItOnFailure) {
    const std::string e = std::to_string(ext_);
    insert("extension_recording", "extension_id,filesize", e + ",5");
    insert("extension_recording", "extension_id,filesize", e + ",6");

    ASSERT_EQ(qx_list_db_files("extension_recording", ext_, nullptr, nullptr, &list_), 2);
    qx_db_file_list *const first_list = list_;
    // A second fill replaces the records instead of appending to them.
    ASSERT_EQ(qx_list_db_files("extension_recording", ext_, nullptr, nullptr, &list_), 2);
    EXPECT_EQ(list_, first_list);
    EXPECT_EQ(list_->count, 2u);

    qxtest::LogCapture log;
    EXPECT_EQ(qx_list_db_files("no_such_table", ext_, nullptr, nullptr, &list_), -1);
    EXPECT_EQ(list_, first_list);
    EXPECT_EQ(list_->count, 0u);
    EXPECT_EQ(list_->files, nullptr);
    EXPECT_TRUE(log.contains("../main/zarn_db_files:qx_list_db_files:")) << "no MySQL error line";

    qx_release_db_files(&list_);
    EXPECT_EQ(list_, nullptr);
    qx_release_db_files(&list_);  // an empty pointer is ignored
    qx_release_db_files(nullptr);
}

TEST_F(DbFiles, ParseReturnsRecordsInTheOrderOfTheText) {
    const std::string e = std::to_string(ext_);
    const auto a = insert("extension_recording", "extension_id,filesize,filename,se,az",
                          e + ",70,'seven','s3','zone'");
    const auto b =
        insert("extension_recording", "extension_id,filesize,filename", e + ",30,'three'");
    const std::string sa = std::to_string(a), sb = std::to_string(b);

    struct Expect {
        unsigned long long id;
        const char *ext;
        long long filesize;
        const char *filename;
    };
    struct Case {
        std::string text;
        std::vector<Expect> records;
    };
    const Case cases[] = {
        {sa + ".wav " + sb + ".gsm", {{a, "wav", 70, "seven"}, {b, "gsm", 30, "three"}}},
        {sb + ".wav " + sa + ".wav", {{b, "wav", 30, "three"}, {a, "wav", 70, "seven"}}},
        {sb + ".mp3", {{b, "mp3", 30, "three"}}},
        {"", {}},
        {"no dots here", {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(qx_parse_db_files("extension_recording", c.text.c_str(), &list_),
                  static_cast<long long>(c.records.size()));
        ASSERT_EQ(list_->count, c.records.size());
        for (size_t i = 0; i < c.records.size(); ++i) {
            const qx_db_file &f = list_->files[i];
            EXPECT_EQ(f.id, c.records[i].id);
            EXPECT_EQ(str(f.ext), c.records[i].ext);
            EXPECT_EQ(f.filesize, c.records[i].filesize);
            EXPECT_EQ(str(f.filename), c.records[i].filename);
        }
    }
    ASSERT_EQ(qx_parse_db_files("extension_recording", (sa + ".wav").c_str(), &list_), 1);
    EXPECT_EQ(str(list_->files[0].se), "s3");
    EXPECT_EQ(str(list_->files[0].az), "zone");

    EXPECT_EQ(qx_parse_db_files(nullptr, "1.wav", &list_), -1);
    EXPECT_EQ(qx_parse_db_files("extension_recording", nullptr, &list_), -1);
    EXPECT_EQ(qx_parse_db_files("extension_recording", "1.wav", nullptr), -1);
    EXPECT_EQ(qx_parse_db_files("no_such_table", "1.wav", &list_), -1);
    EXPECT_EQ(list_->count, 0u);
}

TEST_F(DbFiles, CountsWithAndWithoutFolder) {
    const std::string e = std::to_string(ext_);
    for (const char *folder : {"INBOX", "INBOX", "Old"})
        insert("extension_voicemail", "extension_id,folder", e + ",'" + folder + "'");
    struct Case {
        const char *table;
        const char *folder;
        long long expected;
    };
    const Case cases[] = {
        {"extension_voicemail", nullptr, 3}, {"extension_voicemail", "INBOX", 2},
        {"extension_voicemail", "Old", 1},   {"extension_voicemail", "Work", 0},
        {"extension_recording", nullptr, 0}, {"no_such_table", nullptr, -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.table) + "/" + (c.folder ? c.folder : "-"));
        EXPECT_EQ(qx_count_db_files(c.table, ext_, c.folder), c.expected);
    }
}

TEST_F(DbFiles, DeletesOnlyTheNamedRowAndAcceptsMissingIds) {
    const std::string e = std::to_string(ext_);
    const auto a = insert("extension_fax_center", "extension_id", e);
    insert("extension_fax_center", "extension_id", e);
    EXPECT_EQ(qx_delete_db_file("extension_fax_center", a), 0);
    EXPECT_EQ(qx_count_db_files("extension_fax_center", ext_, nullptr), 1);
    EXPECT_EQ(qx_delete_db_file("extension_fax_center", a), 0);  // already gone
    EXPECT_EQ(qx_delete_db_file("no_such_table", a), -1);
}

TEST_F(DbFiles, SetsMetaAndReadsCreationTime) {
    const std::string e = std::to_string(ext_);
    const auto id =
        insert("extension_recording", "extension_id,created", e + ",'2021-03-04 05:06:07'");
    const std::string where = " FROM extension_recording WHERE id=" + std::to_string(id);

    EXPECT_EQ(qx_db_file_set_meta("extension_recording", id, "az", "eu-west"), 0);
    EXPECT_EQ(qxtest::sql_rows("SELECT az" + where)[0][0].value_or("NULL"), "eu-west");
    EXPECT_EQ(qx_db_file_set_meta("extension_recording", id, "no_column", "x"), -1);
    EXPECT_EQ(qx_db_file_set_meta("extension_recording", id, nullptr, "x"), -1);

    const long long expected = qxtest::sql_int("SELECT UNIX_TIMESTAMP(created)" + where);
    EXPECT_EQ(
        static_cast<long long>(qx_db_file_creation_timestamp("extension_recording", id, "created")),
        expected);
    EXPECT_EQ(qx_db_file_creation_timestamp("extension_recording", id + 1000000, "created"), 0u);
    EXPECT_EQ(qx_db_file_creation_timestamp("extension_recording", id, "no_column"), 0u);
}

TEST_F(DbFiles, FindsNewestRecordingOfACall) {
    const std::string e = std::to_string(ext_);
    const std::string call = "call-" + std::to_string(ids_);
    for (const char *rid : {"5", "9", "7"})
        insert("extension_recording", "extension_id,rid,callid,flow",
               e + "," + rid + ",'" + call + "','in'");
    const std::string number = std::to_string(ids_) + "100";
    struct Case {
        std::string call, flow, number;
        int expected;
    };
    const Case cases[] = {
        {call, "in", number, 9},
        {call, "out", number, -1},
        {call, "in", std::to_string(ids_) + "101", -1},
        {"other-call", "in", number, -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.call + "/" + c.flow + "/" + c.number);
        EXPECT_EQ(qx_get_db_recording(c.call.c_str(), c.flow.c_str(), c.number.c_str()),
                  c.expected);
    }
}

TEST_F(DbFiles, SumsStoredFilesPerAccountLevel) {
    const std::string e = std::to_string(ext_), e2 = std::to_string(ext2_);
    for (const char *table : {"extension_recording", "extension_fax_center"}) {
        insert(table, "extension_id,filesize", e + ",100");
        insert(table, "extension_id,filesize", e + ",20");
        insert(table, "extension_id,filesize", e2 + ",30");
    }
    const std::string reseller = std::to_string(ids_), client = std::to_string(ids_ + 1),
                      user = std::to_string(ids_ + 2), user2 = std::to_string(ids_ + 3),
                      empty = std::to_string(ids_ + 4);
    struct Case {
        const char *table;
        int level;
        std::string account;
        long long expected;
    };
    const Case cases[] = {
        {"extension_recording", 100, user, 120},
        {"extension_recording", 100, user2, 30},
        {"extension_fax_center", 100, user, 120},
        {"extension_recording", 50, client, 150},
        {"extension_recording", 10, reseller, 150},
        {"extension_voicemail", 100, user, 0},   // no files: SUM is NULL
        {"extension_recording", 100, empty, 0},  // no extensions at all
        {"extension_recording", 50, user, 0},    // a user has no child accounts
        {"no_such_table", 20, user, 0},          // other levels never reach the database
        {"no_such_table", 100, user, -1},
        {"no_such_table", 0, "", -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.table) + " level " + std::to_string(c.level) + " account " +
                     c.account);
        EXPECT_EQ(qx_get_db_files_quota(c.table, c.level, c.account.c_str()), c.expected);
    }
    // The root's statement names the alias "er" without declaring it, so the server rejects
    // it: the root never has a database sum of its own.
    qxtest::LogCapture log;
    EXPECT_EQ(qx_get_db_files_quota("extension_recording", 0, nullptr), -1);
    EXPECT_TRUE(log.contains("../main/zarn_db_files:qx_get_db_files_quota:"));
}

}  // namespace
