// The C example program, built against the shared library, stores file sizes through the fast
// update until the owner's limit is reached.
#include <string>

#include "qxtest.hpp"

namespace {

const auto *const sandbox_env = qxtest::register_sandbox();

TEST(QuotaExample, AddsUntilTheOwnersLimitIsReached) {
    int base = qxtest::fresh_ids();
    int reseller = base, client = base + 1, owner = base + 2;
    qxtest::add_account(reseller, 0, 10);
    qxtest::add_account(client, reseller, 50);
    qxtest::add_account(owner, client, 100);
    qxtest::add_pref(owner, "max_record", "10");  // KiB
    std::string media = qxtest::path("/var/tmp/example-" + std::to_string(base) + ".wav");
    qxtest::write_file(media, 4000);

    const std::string dir = qxtest::path("/var/lib/quorvexquota/") + std::to_string(reseller);
    const std::string owner_file =
        dir + "/" + std::to_string(client) + "/" + std::to_string(owner) + "/recording.quota";
    const std::string verdict_ok = " + quota_verify(target:2, resid:" + std::to_string(reseller) +
                                   ", clid:" + std::to_string(client) +
                                   ", extid:" + std::to_string(owner) + ") returned:0";

    struct Step {
        int status;
        const char *owner_record;
    } steps[] = {{0, "4000.2"}, {0, "8000.3"}, {0, "12000.4"}, {3, "12000.4"}};
    for (const Step &step : steps) {
        auto r = qxtest::run({QX_QUOTA_EXAMPLE, std::to_string(owner), "2", media});
        EXPECT_EQ(r.status, step.status) << r.out << r.err;
        EXPECT_EQ(qxtest::read_file(owner_file).value_or("(missing)"), step.owner_record);
        if (step.status == 0) {
            EXPECT_NE(r.out.find(verdict_ok), std::string::npos) << r.out;
        } else {
            EXPECT_NE(r.out.find("returned:" + std::to_string(1000000000 + owner) +
                                 " (if >0 it means: client.id:" + std::to_string(owner) +
                                 ", client.level:100)"),
                      std::string::npos)
                << r.out;
        }
    }
    // The ancestors got every delta, without a verification read of their own (no limits).
    EXPECT_EQ(qxtest::read_file(dir + "/" + std::to_string(client) + "/recording.quota"),
              "12000.3");
    EXPECT_EQ(qxtest::read_file(dir + "/recording.quota"), "12000.3");
}

}  // namespace
