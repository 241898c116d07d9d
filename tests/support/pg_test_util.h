// pg_test_util.h - access to the private PostgreSQL cluster of the tests
// (scripts/pg-private), independent of the code under test: statements run
// through psql, so what a test reads back is what the server holds.
//
// ctest sets PGHOST/PGPORT for the database suites; when they are unset
// (a suite run by hand) PgUseTestServer points them at the build tree's
// cluster, which `scripts/pg-private start <build>/pgtest` must have started.
#ifndef PG_TEST_UTIL_H
#define PG_TEST_UTIL_H

#include <string>

// s in single quotes for /bin/sh.
std::string ShellQuote(const std::string& s);
// Runs a shell command; its standard output. *pfOk, when given, tells
// whether it exited 0.
std::string RunCommand(const std::string& strCmd, bool* pfOk = nullptr);

// Sets PGHOST/PGPORT to the build tree's cluster unless already set.
void PgUseTestServer();

// Runs SQL as role root on database quorda. Rows come back one a line,
// columns separated by '|', SQL NULL as "<NULL>". False / "" on failure.
bool PgExec(const std::string& strSql);
std::string PgQuery(const std::string& strSql);

// Empties every table of db/schema.sql and restarts the id sequences.
bool PgResetTables();

// scripts/pg-private restart: cuts every open connection. True on success.
bool PgRestartServer();
// scripts/pg-private stop / start: the server away and back, for tests of
// a database that goes down while the daemon runs. True on success.
bool PgStopServer();
bool PgStartServer();

// While it lives, PGHOST names an empty directory: no server can be
// reached. The previous value comes back afterwards.
class ScopedPgDown {
public:
    ScopedPgDown();
    ~ScopedPgDown();
    ScopedPgDown(const ScopedPgDown&) = delete;
    ScopedPgDown& operator=(const ScopedPgDown&) = delete;

private:
    std::string strOldHost;
    std::string strEmptyDir;
};

#endif
