// audiosrc.cpp - silence, tone, file and pattern sources (see audiosrc.h).
#include "audiosrc.h"

#include "g711sim.h"
#include "shpa3api.h"
#include "simini.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

const size_t kMaxFileBytes = 64u << 20; // a loop of over two hours is plenty
const double kRate = 8000.0;
const uint64_t kGolden = 0x9E3779B97F4A7C15ULL;

uint8_t Encode(int iFormat, double sample)
{
    long v = lround(sample);
    if (v > 32767)
        v = 32767;
    if (v < -32768)
        v = -32768;
    int16_t pcm = static_cast<int16_t>(v);
    return iFormat == REC_FORMAT_ULAW ? SimLinearToUlaw(pcm) : SimLinearToAlaw(pcm);
}

void FillTone(const AudioSource& src, int iFormat, unsigned char* pBuf, size_t n)
{
    double amp = 32767.0 * pow(10.0, src.dLevelDb / 20.0);
    double step = 2.0 * M_PI * src.dFreqHz / kRate;
    for (size_t i = 0; i < n; ++i) {
        // The phase from the position modulo the rate keeps the argument small
        // in long runs; a whole second is a whole number of cycles only for
        // whole frequencies, which is what the source accepts.
        double k = static_cast<double>((src.ullPos + i) % 8000);
        pBuf[i] = Encode(iFormat, amp * sin(step * k));
    }
}

void FillFile(const AudioSource& src, unsigned char* pBuf, size_t n)
{
    const std::string& bytes = *src.pFileBytes;
    size_t at = static_cast<size_t>(src.ullPos % bytes.size());
    for (size_t done = 0; done < n;) {
        size_t k = std::min(n - done, bytes.size() - at);
        memcpy(pBuf + done, bytes.data() + at, k);
        done += k;
        at = 0;
    }
}

bool ParseDouble(const std::string& s, double& d)
{
    char* end = nullptr;
    d = strtod(s.c_str(), &end);
    return !s.empty() && end && *end == '\0' && std::isfinite(d);
}

} // namespace

void PatternBytes(uint64_t ullSeed, uint64_t ullOffset, unsigned char* pBuf, size_t n)
{
    if (!pBuf)
        return;
    uint64_t state = ullSeed + (ullOffset + 1) * kGolden;
    for (size_t i = 0; i < n; ++i, state += kGolden) {
        uint64_t z = state;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        z ^= z >> 31;
        pBuf[i] = static_cast<unsigned char>(z >> 56);
    }
}

void FillAudio(AudioSource& src, int iFormat, unsigned char* pBuf, size_t n)
{
    switch (src.eKind) {
    case SourceKind::Silence:
        memset(pBuf, iFormat == REC_FORMAT_ULAW ? kUlawSilence : kAlawSilence, n);
        break;
    case SourceKind::Tone:
        FillTone(src, iFormat, pBuf, n);
        break;
    case SourceKind::File:
        FillFile(src, pBuf, n);
        break;
    case SourceKind::Pattern:
        PatternBytes(src.ullSeed, src.ullPos, pBuf, n);
        break;
    }
    src.ullPos += n;
}

bool ParseSource(const std::vector<std::string>& words, const std::string& baseDir, AudioSource& src,
                 std::string& err)
{
    AudioSource s;
    const std::string kind = words.empty() ? "" : words[0];
    if (kind == "silence" && words.size() == 1) {
        s.eKind = SourceKind::Silence;
    } else if (kind == "tone" && (words.size() == 2 || words.size() == 3)) {
        long hz = 0;
        s.dLevelDb = -10;
        if (!ParseInt(words[1], hz) || hz < 1 || hz > 3999) {
            err = "tone frequency must be a whole number of Hz in 1..3999";
            return false;
        }
        if (words.size() == 3 && (!ParseDouble(words[2], s.dLevelDb) || s.dLevelDb > 0 || s.dLevelDb < -90)) {
            err = "tone level must be dBFS in -90..0";
            return false;
        }
        s.eKind = SourceKind::Tone;
        s.dFreqHz = static_cast<double>(hz);
    } else if (kind == "file" && words.size() == 2) {
        s.eKind = SourceKind::File;
        s.strPath = words[1][0] == '/' ? words[1] : baseDir + "/" + words[1];
        std::string bytes;
        if (!ReadTextFile(s.strPath, bytes) || bytes.empty() || bytes.size() > kMaxFileBytes) {
            err = "audio file " + s.strPath + " can't be read, is empty or is over 64 MiB";
            return false;
        }
        s.pFileBytes = std::make_shared<const std::string>(std::move(bytes));
    } else if (kind == "pattern" && words.size() == 2) {
        long seed = 0;
        if (!ParseInt(words[1], seed) || seed < 0) {
            err = "pattern seed must be a number 0 or above";
            return false;
        }
        s.eKind = SourceKind::Pattern;
        s.ullSeed = static_cast<uint64_t>(seed);
    } else {
        err = "source must be: silence | tone <hz> [<dBFS>] | file <path> | pattern <seed>";
        return false;
    }
    src = s;
    return true;
}

std::string DescribeSource(const AudioSource& src)
{
    char buf[96];
    switch (src.eKind) {
    case SourceKind::Tone:
        snprintf(buf, sizeof(buf), "tone %.0f Hz %.1f dBFS", src.dFreqHz, src.dLevelDb);
        return buf;
    case SourceKind::File:
        return "file " + src.strPath;
    case SourceKind::Pattern:
        return "pattern " + std::to_string(src.ullSeed);
    case SourceKind::Silence:
        break;
    }
    return "silence";
}
