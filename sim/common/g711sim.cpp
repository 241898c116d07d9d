// g711sim.cpp - segment coder of G.711 (see g711sim.h).
#include "g711sim.h"

namespace {

// Index of the first segment whose top is not below v; 8 when none is.
int Segment(int v, const int* tops)
{
    for (int i = 0; i < 8; ++i) {
        if (v <= tops[i])
            return i;
    }
    return 8;
}

const int kAlawTops[8] = {0x1F, 0x3F, 0x7F, 0xFF, 0x1FF, 0x3FF, 0x7FF, 0xFFF};
const int kUlawTops[8] = {0x3F, 0x7F, 0xFF, 0x1FF, 0x3FF, 0x7FF, 0xFFF, 0x1FFF};
const int kUlawBias = 0x21; // 0x84 on the 16-bit scale
const int kUlawClip = 8159;

} // namespace

uint8_t SimLinearToAlaw(int16_t pcm)
{
    int v = pcm >> 3;
    int mask = 0xD5;
    if (v < 0) {
        mask = 0x55;
        v = -v - 1;
    }
    int seg = Segment(v, kAlawTops);
    if (seg >= 8)
        return static_cast<uint8_t>(0x7F ^ mask);
    int code = seg << 4;
    code |= seg < 2 ? (v >> 1) & 0x0F : (v >> seg) & 0x0F;
    return static_cast<uint8_t>(code ^ mask);
}

uint8_t SimLinearToUlaw(int16_t pcm)
{
    int v = pcm >> 2;
    int mask = 0xFF;
    if (v < 0) {
        mask = 0x7F;
        v = -v;
    }
    if (v > kUlawClip)
        v = kUlawClip;
    v += kUlawBias;
    int seg = Segment(v, kUlawTops);
    if (seg >= 8)
        return static_cast<uint8_t>(0x7F ^ mask);
    int code = (seg << 4) | ((v >> (seg + 1)) & 0x0F);
    return static_cast<uint8_t>(code ^ mask);
}

int16_t SimAlawToLinear(uint8_t a)
{
    a ^= 0x55;
    int t = (a & 0x0F) << 4;
    int seg = (a & 0x70) >> 4;
    if (seg == 0)
        t += 8;
    else if (seg == 1)
        t += 0x108;
    else
        t = (t + 0x108) << (seg - 1);
    return static_cast<int16_t>((a & 0x80) ? t : -t);
}

int16_t SimUlawToLinear(uint8_t u)
{
    u = static_cast<uint8_t>(~u);
    int t = (((u & 0x0F) << 3) + 0x84) << ((u & 0x70) >> 4);
    return static_cast<int16_t>((u & 0x80) ? (0x84 - t) : (t - 0x84));
}
