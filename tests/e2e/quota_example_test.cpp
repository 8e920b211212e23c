// The C example program, built against the shared library, stores file sizes through the fast
// update until the owner's limit is reached.
#include <string>
#include <tuple>

#include "qxtest.hpp"

namespace {

const auto *const sandbox_env = qxtest::register_sandbox();

TEST(QuotaExample, AddsUntilTheOwnersLimitIsReached) {
    const int reseller = qxtest::fresh_ids(), client = reseller + 1, owner = reseller + 2;
    const std::string o = std::to_string(owner);
    qxtest::QuotaTree t;
    t.add(reseller, 0, 10), t.add(client, reseller, 50), t.add(owner, client, 100);
    qxtest::add_pref(owner, "max_record", "10");  // KiB
    const std::string media = qxtest::path("/var/tmp/example-" + o + ".wav");
    qxtest::write_file(media, 4000);
    const std::string ok = " + quota_verify(target:2, resid:" + std::to_string(reseller) +
                           ", clid:" + std::to_string(client) + ", extid:" + o + ") returned:0 (";
    // Status, the owner's record, part of the printed line.
    for (const auto &[status, record, verdict] :
         {std::tuple{0, "4000.2", ok},
          {0, "8000.3", ok},
          {0, "12000.4", ok},
          {3, "12000.4",
           "returned:" + std::to_string(1000000000 + owner) + " (if >0 it means: client.id:" + o +
               ", client.level:100)"}}) {
        auto r = qxtest::run({QX_QUOTA_EXAMPLE, o, "2", media});
        EXPECT_EQ(r.status, status) << r.out << r.err;
        EXPECT_EQ(qxtest::read_file(t.file(owner, 2)), record);
        EXPECT_NE(r.out.find(verdict), std::string::npos) << r.out;
    }
    // The ancestors got every delta, without a verification read of their own (no limits).
    EXPECT_EQ(qxtest::read_file(t.file(client, 2)), "12000.3");
    EXPECT_EQ(qxtest::read_file(t.file(reseller, 2)), "12000.3");
}

}  // namespace
