#include "pg_test_util.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

std::string ShellQuote(const std::string& s)
{
    std::string strResult = "'";
    for (char c : s)
        strResult += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return strResult + "'";
}

std::string RunCommand(const std::string& strCmd, bool* pfOk)
{
    std::string strOut;
    FILE* f = popen(strCmd.c_str(), "re");
    if (!f) {
        if (pfOk)
            *pfOk = false;
        return strOut;
    }
    char acBuf[4096];
    size_t n;
    while ((n = fread(acBuf, 1, sizeof acBuf, f)) > 0)
        strOut.append(acBuf, n);
    bool fOk = pclose(f) == 0;
    if (pfOk)
        *pfOk = fOk;
    return strOut;
}

namespace {

std::string PsqlCmd(const std::string& strSql)
{
    PgUseTestServer();
    return "/usr/lib/postgresql/15/bin/psql -X -q -At -v ON_ERROR_STOP=1 -P null='<NULL>' -U root -d quorda "
           "-c " +
           ShellQuote(strSql);
}

} // namespace

void PgUseTestServer()
{
    setenv("PGHOST", QUORDA_PG_DIR "/run", 0);
    setenv("PGPORT", "5433", 0);
}

bool PgExec(const std::string& strSql)
{
    bool fOk;
    RunCommand(PsqlCmd(strSql), &fOk);
    return fOk;
}

std::string PgQuery(const std::string& strSql)
{
    bool fOk;
    std::string strOut = RunCommand(PsqlCmd(strSql), &fOk);
    if (!fOk)
        return std::string();
    if (!strOut.empty() && strOut.back() == '\n')
        strOut.pop_back();
    return strOut;
}

bool PgResetTables()
{
    return PgExec(
        "TRUNCATE recorders, Lines, Contacts, CallerIDs, LocalIdMapping, UserPhones, Users, ActiveCalls, "
        "Calls, Configs, IdMap RESTART IDENTITY");
}

// scripts/pg-private <strCmd> on the cluster the tests talk to.
static bool PgPrivate(const std::string& strCmd)
{
    // PGHOST is the cluster's socket directory <dir>/run.
    PgUseTestServer();
    std::string strDir = getenv("PGHOST");
    const std::string strRun = "/run";
    if (strDir.size() > strRun.size() &&
        strDir.compare(strDir.size() - strRun.size(), strRun.size(), strRun) == 0)
        strDir.resize(strDir.size() - strRun.size());
    bool fOk;
    RunCommand(QUORDA_SOURCE_DIR "/scripts/pg-private " + strCmd + " " + ShellQuote(strDir) + " 2>&1", &fOk);
    return fOk;
}

bool PgRestartServer()
{
    return PgPrivate("restart");
}

bool PgStopServer()
{
    return PgPrivate("stop");
}

bool PgStartServer()
{
    return PgPrivate("start");
}

ScopedPgDown::ScopedPgDown()
{
    PgUseTestServer();
    strOldHost = getenv("PGHOST");
    char acDir[] = "/tmp/qpgXXXXXX";
    if (mkdtemp(acDir))
        strEmptyDir = acDir;
    setenv("PGHOST", strEmptyDir.c_str(), 1);
}

ScopedPgDown::~ScopedPgDown()
{
    setenv("PGHOST", strOldHost.c_str(), 1);
    if (!strEmptyDir.empty())
        rmdir(strEmptyDir.c_str());
}
