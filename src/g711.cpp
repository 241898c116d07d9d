// g711.cpp - G.711 A-law and u-law conversions (see g711.h).
//
// A sample's magnitude falls into one of 8 segments (seg_end holds the top
// of each); the code is the segment number in bits 4..6 and a 4-bit step
// inside it, with the sign in bit 7 and the law's inversion mask on top.
// The direct law-to-law conversions go through the two tables of the
// standard rather than through linear, so that they are exact.
#include "g711.h"

namespace {

const short seg_end[8] = {255, 511, 1023, 2047, 4095, 8191, 16383, 32767};

// u-law to A-law, as segment-and-quantisation codes plus 1.
const unsigned char _u2a[128] = {
    1,   1,   2,   2,   3,   3,   4,   4,   5,   5,   6,   6,   7,   7,   8,   8,   9,   10,  11,
    12,  13,  14,  15,  16,  17,  18,  19,  20,  21,  22,  23,  24,  25,  27,  29,  31,  33,  34,
    35,  36,  37,  38,  39,  40,  41,  42,  43,  44,  46,  48,  49,  50,  51,  52,  53,  54,  55,
    56,  57,  58,  59,  60,  61,  62,  64,  65,  66,  67,  68,  69,  70,  71,  72,  73,  74,  75,
    76,  77,  78,  79,  81,  82,  83,  84,  85,  86,  87,  88,  89,  90,  91,  92,  93,  94,  95,
    96,  97,  98,  99,  100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112, 113, 114,
    115, 116, 117, 118, 119, 120, 121, 122, 123, 124, 125, 126, 127, 128};

// A-law to u-law, with codes plus 1 on the input side.
const unsigned char _a2u[128] = {
    1,   3,   5,   7,   9,   11,  13,  15,  16,  17,  18,  19,  20,  21,  22,  23,  24,  25,  26,
    27,  28,  29,  30,  31,  32,  32,  33,  33,  34,  34,  35,  35,  36,  37,  38,  39,  40,  41,
    42,  43,  44,  45,  46,  47,  48,  48,  49,  49,  50,  51,  52,  53,  54,  55,  56,  57,  58,
    59,  60,  61,  62,  63,  64,  64,  65,  66,  67,  68,  69,  70,  71,  72,  73,  74,  75,  76,
    77,  78,  79,  79,  80,  81,  82,  83,  84,  85,  86,  87,  88,  89,  90,  91,  92,  93,  94,
    95,  96,  97,  98,  99,  100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112, 113,
    114, 115, 116, 117, 118, 119, 120, 121, 122, 123, 124, 125, 126, 127};

const int SIGN_BIT = 0x80;
const int QUANT_MASK = 0x0F;
const int SEG_SHIFT = 4;
const int SEG_MASK = 0x70;
const int ULAW_BIAS = 132;

// Index of the first segment whose top isn't below val; 8 when none.
int SearchSegment(int val)
{
    for (int i = 0; i < 8; ++i)
        if (val <= seg_end[i])
            return i;
    return 8;
}

} // namespace

unsigned char linear2alaw(short pcm)
{
    int iVal = pcm;
    int iMask = 0xD5;
    if (iVal < 0) {
        iMask = 0x55;
        iVal = -iVal - 8;
    }
    int iSeg = SearchSegment(iVal);
    if (iSeg >= 8)
        return static_cast<unsigned char>(0x7F ^ iMask);
    int iCode = iSeg << SEG_SHIFT;
    if (iSeg < 2)
        iCode |= (iVal >> 4) & QUANT_MASK;
    else
        iCode |= (iVal >> (iSeg + 3)) & QUANT_MASK;
    return static_cast<unsigned char>(iCode ^ iMask);
}

short alaw2linear(unsigned char a)
{
    int iVal = a ^ 0x55;
    int t = (iVal & QUANT_MASK) << 4;
    int iSeg = (iVal & SEG_MASK) >> SEG_SHIFT;
    if (iSeg == 0)
        t += 8;
    else if (iSeg == 1)
        t += 0x108;
    else
        t = (t + 0x108) << (iSeg - 1);
    return static_cast<short>((iVal & SIGN_BIT) ? t : -t);
}

unsigned char linear2ulaw(short pcm)
{
    int iMask = 0xFF;
    int iSum = pcm + ULAW_BIAS;
    if (pcm < 0) {
        iMask = 0x7F;
        iSum = ULAW_BIAS - pcm;
    }
    // Held in 16 signed bits on purpose: the top of the range wraps into
    // segment 0 (see g711.h).
    int iVal = static_cast<short>(static_cast<unsigned short>(iSum));
    int iSeg = SearchSegment(iVal);
    if (iSeg >= 8)
        return static_cast<unsigned char>(0x7F ^ iMask);
    int iCode = (iSeg << SEG_SHIFT) | ((iVal >> (iSeg + 3)) & QUANT_MASK);
    return static_cast<unsigned char>(iCode ^ iMask);
}

short ulaw2linear(unsigned char u)
{
    int iVal = ~u & 0xFF;
    int t = ((iVal & QUANT_MASK) << 3) + ULAW_BIAS;
    t <<= (iVal & SEG_MASK) >> SEG_SHIFT;
    return static_cast<short>((iVal & SIGN_BIT) ? (ULAW_BIAS - t) : (t - ULAW_BIAS));
}

unsigned char alaw2ulaw(unsigned char a)
{
    if (a & SIGN_BIT)
        return static_cast<unsigned char>(0xFF ^ _a2u[a ^ 0xD5]);
    return static_cast<unsigned char>(0x7F ^ _a2u[a ^ 0x55]);
}

unsigned char ulaw2alaw(unsigned char u)
{
    if (u & SIGN_BIT)
        return static_cast<unsigned char>(0xD5 ^ (_u2a[0xFF ^ u] - 1));
    return static_cast<unsigned char>(0x55 ^ (_u2a[0x7F ^ u] - 1));
}
