// audiosrc.h - what a simulated line "says": the audio sources of a channel.
//
// A source produces a byte stream that the card writes into the recording
// buffer. Its position counts the bytes it has given since it was set, so
// the stream runs on across recordings (a call cut into parts continues
// where the last part ended) and a tone keeps its phase. Kinds:
//   silence        the law's silence byte (A-law 213, u-law 255)
//   tone F L       a sine of F Hz at L dBFS peak, encoded in the law
//   file PATH      raw bytes of a file, looped, written as they are
//   pattern SEED   the reproducible byte pattern of PatternBytes
// Sources are plain values kept in the channel under the state lock; a
// file's bytes are shared read-only between copies.
#ifndef SIM_AUDIOSRC_H
#define SIM_AUDIOSRC_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

enum class SourceKind { Silence, Tone, File, Pattern };

struct AudioSource {
    SourceKind eKind = SourceKind::Silence;
    double dFreqHz = 0;
    double dLevelDb = 0;
    std::string strPath;
    std::shared_ptr<const std::string> pFileBytes;
    uint64_t ullSeed = 0;
    uint64_t ullPos = 0; // bytes given since the source was set
};

// Fills n bytes for a recording in iFormat (6 A-law, 7 u-law) and moves on.
void FillAudio(AudioSource& src, int iFormat, unsigned char* pBuf, size_t n);

// Parses "silence", "tone <hz> [<dBFS>]", "file <path>", "pattern <seed>"
// (words after the channel). A relative path is taken below baseDir.
bool ParseSource(const std::vector<std::string>& words, const std::string& baseDir, AudioSource& src,
                 std::string& err);

std::string DescribeSource(const AudioSource& src);

// Byte i of the pattern of seed: the top 8 bits of output i+1 of SplitMix64
// started at state seed (see sim/README.md).
void PatternBytes(uint64_t ullSeed, uint64_t ullOffset, unsigned char* pBuf, size_t n);

#endif
