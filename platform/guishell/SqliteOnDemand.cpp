// SPDX-License-Identifier: GPL-2.0-or-later
// The SQLite calls of the store (quarantine and scan history), for the shell only: libsqlite3 is loaded
// with the first call, that is when the user first opens a page that reads the store or acts on a
// finding, not at start. These definitions are hidden (the library is built with hidden visibility), so
// they only serve the store code linked into this library; any other user in the process keeps linking
// libsqlite3 itself. If the library cannot be loaded, opening a database fails with SQLITE_CANTOPEN and
// the store reports it as it reports any other open failure.
#include <sqlite3.h>

#include <dlfcn.h>

namespace {

struct Sqlite {
    bool loaded = false;
    decltype(&::sqlite3_bind_blob) bind_blob = nullptr;
    decltype(&::sqlite3_bind_int64) bind_int64 = nullptr;
    decltype(&::sqlite3_bind_text) bind_text = nullptr;
    decltype(&::sqlite3_busy_timeout) busy_timeout = nullptr;
    decltype(&::sqlite3_changes) changes = nullptr;
    decltype(&::sqlite3_close) close = nullptr;
    decltype(&::sqlite3_column_blob) column_blob = nullptr;
    decltype(&::sqlite3_column_bytes) column_bytes = nullptr;
    decltype(&::sqlite3_column_int64) column_int64 = nullptr;
    decltype(&::sqlite3_errcode) errcode = nullptr;
    decltype(&::sqlite3_errmsg) errmsg = nullptr;
    decltype(&::sqlite3_errstr) errstr = nullptr;
    decltype(&::sqlite3_exec) exec = nullptr;
    decltype(&::sqlite3_finalize) finalize = nullptr;
    decltype(&::sqlite3_free) free = nullptr;
    decltype(&::sqlite3_last_insert_rowid) last_insert_rowid = nullptr;
    decltype(&::sqlite3_open_v2) open_v2 = nullptr;
    decltype(&::sqlite3_prepare_v2) prepare_v2 = nullptr;
    decltype(&::sqlite3_step) step = nullptr;
};

template <typename F>
bool resolve(void* handle, const char* name, F& out)
{
    out = reinterpret_cast<F>(dlsym(handle, name));
    return out != nullptr;
}

Sqlite load()
{
    Sqlite s;
    void* h = dlopen("libsqlite3.so.0", RTLD_NOW | RTLD_LOCAL);
    if (h == nullptr) {
        return s;
    }
    s.loaded = resolve(h, "sqlite3_bind_blob", s.bind_blob) && resolve(h, "sqlite3_bind_int64", s.bind_int64) &&
               resolve(h, "sqlite3_bind_text", s.bind_text) && resolve(h, "sqlite3_busy_timeout", s.busy_timeout) &&
               resolve(h, "sqlite3_changes", s.changes) && resolve(h, "sqlite3_close", s.close) &&
               resolve(h, "sqlite3_column_blob", s.column_blob) &&
               resolve(h, "sqlite3_column_bytes", s.column_bytes) &&
               resolve(h, "sqlite3_column_int64", s.column_int64) && resolve(h, "sqlite3_errcode", s.errcode) &&
               resolve(h, "sqlite3_errmsg", s.errmsg) && resolve(h, "sqlite3_errstr", s.errstr) &&
               resolve(h, "sqlite3_exec", s.exec) && resolve(h, "sqlite3_finalize", s.finalize) &&
               resolve(h, "sqlite3_free", s.free) && resolve(h, "sqlite3_last_insert_rowid", s.last_insert_rowid) &&
               resolve(h, "sqlite3_open_v2", s.open_v2) && resolve(h, "sqlite3_prepare_v2", s.prepare_v2) &&
               resolve(h, "sqlite3_step", s.step);
    // The handle stays open for the life of the process: statements and connections may outlive any caller.
    return s;
}

// Loaded once, thread-safely, on first use.
const Sqlite& lib()
{
    static const Sqlite s = load();
    return s;
}

const char* const kNotLoaded = "the SQLite library could not be loaded";

} // namespace

// Without a loaded library no connection or statement can exist: only open, errstr and the release
// functions (with null) can be reached then.
extern "C" {

int sqlite3_open_v2(const char* filename, sqlite3** db, int flags, const char* vfs)
{
    if (!lib().loaded) {
        if (db != nullptr) {
            *db = nullptr;
        }
        return SQLITE_CANTOPEN;
    }
    return lib().open_v2(filename, db, flags, vfs);
}

const char* sqlite3_errstr(int rc)
{
    return lib().loaded ? lib().errstr(rc) : kNotLoaded;
}

int sqlite3_close(sqlite3* db)
{
    return lib().loaded ? lib().close(db) : SQLITE_OK;
}

void sqlite3_free(void* p)
{
    if (lib().loaded) {
        lib().free(p);
    }
}

int sqlite3_finalize(sqlite3_stmt* stmt)
{
    return lib().loaded ? lib().finalize(stmt) : SQLITE_OK;
}

const char* sqlite3_errmsg(sqlite3* db)
{
    return lib().loaded ? lib().errmsg(db) : kNotLoaded;
}

int sqlite3_errcode(sqlite3* db)
{
    return lib().loaded ? lib().errcode(db) : SQLITE_CANTOPEN;
}

int sqlite3_bind_blob(sqlite3_stmt* stmt, int i, const void* data, int n, void (*dtor)(void*))
{
    return lib().loaded ? lib().bind_blob(stmt, i, data, n, dtor) : SQLITE_MISUSE;
}

int sqlite3_bind_int64(sqlite3_stmt* stmt, int i, sqlite3_int64 v)
{
    return lib().loaded ? lib().bind_int64(stmt, i, v) : SQLITE_MISUSE;
}

int sqlite3_bind_text(sqlite3_stmt* stmt, int i, const char* text, int n, void (*dtor)(void*))
{
    return lib().loaded ? lib().bind_text(stmt, i, text, n, dtor) : SQLITE_MISUSE;
}

int sqlite3_busy_timeout(sqlite3* db, int ms)
{
    return lib().loaded ? lib().busy_timeout(db, ms) : SQLITE_MISUSE;
}

int sqlite3_changes(sqlite3* db)
{
    return lib().loaded ? lib().changes(db) : 0;
}

const void* sqlite3_column_blob(sqlite3_stmt* stmt, int i)
{
    return lib().loaded ? lib().column_blob(stmt, i) : nullptr;
}

int sqlite3_column_bytes(sqlite3_stmt* stmt, int i)
{
    return lib().loaded ? lib().column_bytes(stmt, i) : 0;
}

sqlite3_int64 sqlite3_column_int64(sqlite3_stmt* stmt, int i)
{
    return lib().loaded ? lib().column_int64(stmt, i) : 0;
}

int sqlite3_exec(sqlite3* db, const char* sql, int (*callback)(void*, int, char**, char**), void* arg, char** errmsg)
{
    if (!lib().loaded) {
        if (errmsg != nullptr) {
            *errmsg = nullptr;
        }
        return SQLITE_MISUSE;
    }
    return lib().exec(db, sql, callback, arg, errmsg);
}

sqlite3_int64 sqlite3_last_insert_rowid(sqlite3* db)
{
    return lib().loaded ? lib().last_insert_rowid(db) : 0;
}

int sqlite3_prepare_v2(sqlite3* db, const char* sql, int n, sqlite3_stmt** stmt, const char** tail)
{
    if (!lib().loaded) {
        if (stmt != nullptr) {
            *stmt = nullptr;
        }
        return SQLITE_MISUSE;
    }
    return lib().prepare_v2(db, sql, n, stmt, tail);
}

int sqlite3_step(sqlite3_stmt* stmt)
{
    return lib().loaded ? lib().step(stmt) : SQLITE_MISUSE;
}

} // extern "C"
