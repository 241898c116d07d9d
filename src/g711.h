// g711.h - sample conversions between 16-bit linear PCM and the two
// companding laws of ITU-T G.711, A-law and u-law.
//
// Pure functions on tables, safe on any thread. The card records one of the
// two laws; the channel expands samples to measure loudness, and the PRI
// mixer expands, adds and compresses again. linear2ulaw keeps the classic
// 16-bit wrap of its biased value on inputs at the very top of the range
// (the mixer hits it on clipped sums): 32767 gives 255, -32768 gives 127.
#ifndef G711_H
#define G711_H

unsigned char linear2alaw(short pcm);
short alaw2linear(unsigned char a);
unsigned char linear2ulaw(short pcm);
short ulaw2linear(unsigned char u);
unsigned char alaw2ulaw(unsigned char a);
unsigned char ulaw2alaw(unsigned char u);

#endif
