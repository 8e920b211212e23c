// RAII for sessions and result sets, shared by the modules' C++ implementation files.
#pragma once

#include <memory>

#include "sqlsession.h"

namespace qx {

// Result sets are drained by one fetch before being freed, the way every module releases them.
struct ResultDeleter {
    void operator()(MYSQL_RES *r) const noexcept {
        if (r) {
            mysql_fetch_row(r);
            mysql_free_result(r);
        }
    }
};
using Result = std::unique_ptr<MYSQL_RES, ResultDeleter>;

// Holds the caller's session, or one taken from the pool; releases only a session it took.
class SessionGuard {
public:
    explicit SessionGuard(SessionHandle *given = nullptr)
        : sess_(given ? given : sess_init()), owned_(given == nullptr) {}
    SessionGuard(const SessionGuard &) = delete;
    SessionGuard &operator=(const SessionGuard &) = delete;
    ~SessionGuard() {
        if (owned_) sess_destroy(sess_);
    }
    SessionHandle *get() const { return sess_; }
    explicit operator bool() const { return sess_ != nullptr; }
    // Text of the connection's last error, for the MySQL error diagnostics.
    const char *error() const { return sess_ ? mysql_error(fr_sql_conn_get_mysql(sess_)) : ""; }

private:
    SessionHandle *sess_;
    bool owned_;
};

}  // namespace qx
