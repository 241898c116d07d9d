// postproc_bench - how many calls a minute the two background workers turn
// into MP3 (or GSM), next to what sox alone needs for the same files.
//
// DESIGN: K copies of one A-law WAVE recording of D seconds are made under
// a temporary root, named as the daemon names a capture (".g711" after the
// final name). First sox converts them one after the other, with the very
// command line AudioConvAct runs, on this thread (the baseline). Then K
// AudioConvActs go to the real action engine (init_bgact, two workers) at
// once, and the clock runs until the last one has finished its worker half.
// No run loop exists here, so mainQueue() destroys each finished action:
// the destructor counts it and notes whether the conversion succeeded. The
// daemon's log (debug mode) goes to <root>/bench.log; results to stdout.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bgact.h"
#include "filedir.h"
#include "paths.h"
#include "quorda_crec.h"
#include "signaling.h"

namespace {

typedef std::chrono::steady_clock Clock;

std::atomic<int> g_iFinished{0};
std::atomic<int> g_iConverted{0};

// An AudioConvAct that reports its end: without a boot, mainQueue()
// destroys it right after performThread, on the worker.
class BenchConvAct : public AudioConvAct {
public:
    ~BenchConvAct() override
    {
        if (rCallInfo.data.count("encoding") && rCallInfo.data["encoding"] == strExpected)
            ++g_iConverted;
        ++g_iFinished;
    }
    std::string strExpected;
};

double Seconds(Clock::time_point t)
{
    return std::chrono::duration<double>(Clock::now() - t).count();
}

bool CopyFile(const std::string& strFrom, const std::string& strTo)
{
    return system(("cp " + escapeShellArg(strFrom) + " " + escapeShellArg(strTo)).c_str()) == 0;
}

void Usage()
{
    fprintf(
        stderr,
        "usage: postproc_bench [-k RECORDINGS] [-d SECONDS] [-e mp3|gsm] [-s] [-c md5|sha1|sha256|sha512]\n"
        "  -k  recordings converted (default 40)\n"
        "  -d  length of each recording in seconds (default 60)\n"
        "  -e  target format (default mp3)\n"
        "  -s  stereo: MP3 at 32 kbit/s as for a PRI line (default mono, 16 kbit/s)\n"
        "  -c  also compute this checksum in the engine run\n");
}

} // namespace

int main(int argc, char** argv)
{
    int iCount = 40;
    int iSeconds = 60;
    std::string strEnc = "mp3";
    std::string strSum;
    bool fStereo = false;
    int opt;
    while ((opt = getopt(argc, argv, "k:d:e:c:sh")) != -1) {
        switch (opt) {
        case 'k':
            iCount = atoi(optarg);
            break;
        case 'd':
            iSeconds = atoi(optarg);
            break;
        case 'e':
            strEnc = optarg;
            break;
        case 'c':
            strSum = optarg;
            break;
        case 's':
            fStereo = true;
            break;
        default:
            Usage();
            return 2;
        }
    }
    if (iCount < 1 || iCount > 10000 || iSeconds < 1 || iSeconds > 3600 ||
        (strEnc != "mp3" && strEnc != "gsm")) {
        Usage();
        return 2;
    }
    bool fMp3 = strEnc == "mp3";

    char acRoot[] = "/tmp/qppXXXXXX";
    if (!mkdtemp(acRoot)) {
        perror("mkdtemp");
        return 2;
    }
    std::string strRoot = acRoot;
    SetSysRoot(strRoot); // DeleteFn looks for the secure-delete marker here
    std::string strDir = strRoot + "/rec/";
    EnsurePath(strDir);

    // Results go to the real stdout; the daemon's log lines to a file.
    FILE* out = fdopen(dup(STDOUT_FILENO), "w");
    if (!out || !freopen((strRoot + "/bench.log").c_str(), "w", stdout)) {
        perror("output");
        return 2;
    }
    g_DebugMode = 1;

    // Pink noise stands in for speech.
    std::string strSource = strDir + "source.wav";
    std::string strSynth = "sox -n -r 8000 -c " + std::string(fStereo ? "2" : "1") + " -e a-law -t wav " +
                           escapeShellArg(strSource) + " synth " + std::to_string(iSeconds) +
                           " pinknoise gain -12 2>&1";
    if (system(strSynth.c_str()) != 0) {
        fprintf(stderr, "sox could not make the source recording (Debian package sox)\n");
        return 2;
    }
    std::vector<std::string> vCapture, vFinal;
    const std::string strExt = fMp3 ? ".mp3" : ".wav";
    for (int i = 0; i < iCount; ++i) {
        std::string strFinal = strDir + "call_" + std::to_string(i) + strExt;
        vFinal.push_back(strFinal);
        vCapture.push_back(strFinal + ".g711");
        if (!CopyFile(strSource, vCapture.back())) {
            fprintf(stderr, "cannot copy the source recording\n");
            return 2;
        }
    }

    // Baseline: sox alone, one file after the other, the action's command.
    std::string strRate = fStereo ? "32" : "16";
    auto tSox = Clock::now();
    int iSoxFailed = 0;
    for (int i = 0; i < iCount; ++i) {
        std::string strCmd =
            fMp3 ? "sox " + escapeShellArg(vCapture[i]) + " -C " + escapeShellArg(strRate) + ".4 " +
                       escapeShellArg(vFinal[i])
                 : "sox " + escapeShellArg(vCapture[i]) + " -e gsm-full-rate " + escapeShellArg(vFinal[i]);
        if (execCmd(strCmd) != 0)
            ++iSoxFailed;
    }
    double dSox = Seconds(tSox);
    for (const std::string& s : vFinal)
        unlink(s.c_str());

    // The engine: all actions queued at once, both workers busy.
    init_bgact();
    auto tEngine = Clock::now();
    for (int i = 0; i < iCount; ++i) {
        BenchConvAct* prAct = new BenchConvAct();
        prAct->eRecEnc = fMp3 ? RECENC_MP3 : RECENC_GSM;
        prAct->strExpected = fMp3 ? "801" : "551";
        prAct->fStereo = fStereo;
        prAct->strFullFilename = vCapture[i];
        prAct->strFullFilenameFinal = vFinal[i];
        prAct->strArchiveFilename = vFinal[i];
        prAct->iDuration = iSeconds;
        prAct->strCheckSumType = strSum;
        queueAction(prAct);
    }
    while (g_iFinished.load() < iCount)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    double dEngine = Seconds(tEngine);
    close_bgact();

    int iFiles = 0;
    for (int i = 0; i < iCount; ++i) {
        struct stat st;
        if (stat(vFinal[i].c_str(), &st) == 0 && st.st_size > 0 && !file_exists(vCapture[i]))
            ++iFiles;
    }

    double dAudioMin = iCount * iSeconds / 60.0;
    fprintf(out, "post-processing: %d recordings of %d s (%s, %s%s%s)\n", iCount, iSeconds,
            fMp3 ? (fStereo ? "MP3 32 kbit/s" : "MP3 16 kbit/s") : "GSM", fStereo ? "stereo" : "mono",
            strSum.empty() ? "" : ", checksum ", strSum.c_str());
    fprintf(out, "  sox alone, one after the other: %8.2f s  %7.1f calls/min  %6.2f s a call\n", dSox,
            iCount * 60.0 / dSox, dSox / iCount);
    fprintf(out, "  action engine, two workers:     %8.2f s  %7.1f calls/min  %6.2f s a call\n", dEngine,
            iCount * 60.0 / dEngine, dEngine / iCount);
    fprintf(out, "  speed-up over sox alone:        %8.2f x\n", dSox / dEngine);
    fprintf(out, "  audio converted by the engine:  %8.1f min of audio a minute\n",
            dAudioMin * 60.0 / dEngine);
    fprintf(out, "  sox failures (baseline) %d; engine conversions ok %d of %d; final files %d\n", iSoxFailed,
            g_iConverted.load(), iCount, iFiles);
    fprintf(out, "  processors online: %ld\n", sysconf(_SC_NPROCESSORS_ONLN));
    fclose(out);

    if (system(("rm -rf " + escapeShellArg(strRoot)).c_str()) != 0)
        fprintf(stderr, "could not remove %s\n", strRoot.c_str());
    return iSoxFailed == 0 && g_iConverted.load() == iCount && iFiles == iCount ? 0 : 1;
}
